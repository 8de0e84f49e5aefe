/*
 * recorder.c - a small recorder on libqzfs, in plain C against the
 * installed header only.
 *
 *   recorder IMAGE [CHANNELS [SECONDS]]
 *
 * Formats IMAGE when it is missing or empty (a missing one is made as a
 * 3 GiB sparse file), mounts it as disk 0, records CHANNELS channels
 * (default 4) of SECONDS seconds (default 5) of synthetic frames, 25 a
 * second with an I-frame each second, queries the day, and reads the first
 * segment found back, comparing it with what was written.
 *
 * The frames are built with the public helper qzfs_frame.h, which also
 * describes their format: a 12-byte header, a date-time and a pts record,
 * then the payload.
 */
#define _POSIX_C_SOURCE 200809L /* ftruncate */
#define _FILE_OFFSET_BITS 64     /* images over 2 GiB on 32-bit systems too */

#include <qzfilesystem_api.h>
#include <qzfs_frame.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#define FPS 25
#define IFRAME_BYTES 6000
#define PFRAME_BYTES 1500
#define MAX_CHANNELS 16

/* Where the recording starts: the local time when the program starts (so
 * that a second run on the same image records after the first). */
static _k4t_fs_date_time_ start;

static void set_start_to_now(void)
{
    const time_t now = time(NULL);
    struct tm local;
    localtime_r(&now, &local);
    if (local.tm_hour == 23 && local.tm_min >= 58) /* the day's last minutes */
        local.tm_min = 58, local.tm_sec = 0;       /* stay on this day */
    start.year = (uint8_t)(local.tm_year - 100);
    start.month = (uint8_t)(local.tm_mon + 1);
    start.day = (uint8_t)local.tm_mday;
    start.hour = (uint8_t)local.tm_hour;
    start.minute = (uint8_t)local.tm_min;
    start.second = (uint8_t)local.tm_sec;
}

/* The time of day `seconds` after the start. */
static _k4t_fs_time_ after_start(unsigned seconds)
{
    const unsigned t = start.hour * 3600u + start.minute * 60u + start.second + seconds;
    _k4t_fs_time_ at;
    at.hour = (uint8_t)(t / 3600);
    at.minute = (uint8_t)(t / 60 % 60);
    at.second = (uint8_t)(t % 60);
    return at;
}

/* Appends frame `n` of `channel` at `out`; returns its length. */
static size_t make_frame(unsigned char* out, int channel, unsigned n)
{
    const int iframe = n % FPS == 0;
    const uint32_t payload = iframe ? IFRAME_BYTES : PFRAME_BYTES;
    const _k4t_fs_time_ at = after_start(n / FPS);
    const uint64_t pts = (uint64_t)n * (90000 / FPS); /* 90 kHz ticks */
    _k4t_fs_date_time_ when = start;
    uint32_t i;

    when.hour = at.hour;
    when.minute = at.minute;
    when.second = at.second;
    qzfs_frame_put_prefix(out, (uint8_t)channel,
                          iframe ? QZFS_FRAME_TYPE_IFRAME : QZFS_FRAME_TYPE_PFRAME, payload, &when,
                          pts);
    for (i = 0; i < payload; i++)
        out[QZFS_FRAME_PREFIX_LEN + i] = (unsigned char)(n * 7 + i * 13 + channel);
    return qzfs_frame_size(payload);
}

/* FNV-1a over `len` bytes, continuing from `hash`. */
static unsigned long long fnv(unsigned long long hash, const unsigned char* p, size_t len)
{
    size_t i;
    for (i = 0; i < len; i++)
        hash = (hash ^ p[i]) * 1099511628211ULL;
    return hash;
}

static int fail(const char* what)
{
    fprintf(stderr, "recorder: %s\n", what);
    return 1;
}

/* Mounts the image as disk 0; a missing or empty image is made a 3 GiB
 * sparse file and formatted first. */
static int format_if_new_and_mount(char* image)
{
    int fd = open(image, O_RDWR | O_CREAT, 0644);
    int fresh;
    if (fd < 0)
        return -1;
    fresh = lseek(fd, 0, SEEK_END) == 0;
    if (fresh && ftruncate(fd, (off_t)3 << 30) != 0) {
        close(fd);
        return -1;
    }
    close(fd);
    if (fresh) {
        printf("formatting %s\n", image);
        if (api_qzfs_fast_format(0, image) != 0)
            return -1;
    }
    return api_qzfs_mount(0, image);
}

/* Records `seconds` seconds of each channel, one segment a channel. */
static int record(int channels, unsigned seconds, unsigned long long* hashes)
{
    static unsigned char buffer[FPS * (QZFS_FRAME_PREFIX_LEN + IFRAME_BYTES)];
    _k4t_video_frame_info_ info;
    int fds[MAX_CHANNELS];
    int c;
    unsigned s, f;

    for (c = 0; c < channels; c++) {
        _qzfs_k4t_create_ss_para_ para;
        memset(&para, 0, sizeof(para));
        para.year = start.year;
        para.month = start.month;
        para.day = start.day;
        para.hour = start.hour;
        para.minute = start.minute;
        para.second = start.second;
        para.channel = (uint8_t)c;
        para.group_id = 0;
        fds[c] = api_qzfs_create_stream_segment(&para);
        if (fds[c] <= 0)
            return -1;
        hashes[c] = 1469598103934665603ULL;
    }
    for (s = 0; s < seconds; s++) {
        for (c = 0; c < channels; c++) {
            size_t len = 0;
            for (f = 0; f < FPS; f++)
                len += make_frame(buffer + len, c, s * FPS + f);
            /* One I-frame a call, at offset 0: its time and pts. */
            const _k4t_fs_time_ at = after_start(s);
            _k4t_fs_date_time_ when = start;
            when.hour = at.hour;
            when.minute = at.minute;
            when.second = at.second;
            info = qzfs_frame_iframe_info(&when, 0, (uint64_t)s * 90000);
            if (api_qzfs_write_video_data(fds[c], buffer, (int)len, 1, &info) != (int)len)
                return -1;
            hashes[c] = fnv(hashes[c], buffer, len);
        }
    }
    for (c = 0; c < channels; c++)
        if (api_qzfs_fsync(fds[c]) != 0 || api_qzfs_close_stream_segment(fds[c]) != 0)
            return -1;
    return 0;
}

/* Lists the recording day; puts the row of this run's channel 0 in `mine`. */
static int query_day(_k4t_stream_query_result_* mine)
{
    _k4t_stream_query_ query;
    _k4t_stream_query_result_ rows[64];
    int num = 64, handle, i, found = 0;

    memset(&query, 0, sizeof(query));
    query.group_bitmap = 1;
    query.channel_bitmap = 0xFFFFFFFFu;
    query.year = start.year;
    query.month = start.month;
    query.day = start.day;
    query.end_hour = 23;
    query.end_minute = 59;
    query.end_second = 59;
    query.lock_bitmap = 0xFF;
    query.record_type_bitmap = 0xFF;
    query.stream_type_bitmap = ~0ULL;
    query.item_num_per_page = 64; /* the page fills whole: rows holds 64 */
    handle = api_qzfs_get_query_stream_segment_handle(&query);
    if (handle < 0)
        return -1;
    if (api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows) != 0 || num <= 0) {
        api_qzfs_close_query_stream_segment_handle(handle);
        return -1;
    }
    printf("day 20%02d-%02d-%02d, first page: %d segments\n", start.year, start.month, start.day,
           num);
    for (i = 0; i < num; i++)
        printf("  %d:%u:%u channel %d %02d:%02d:%02d-%02d:%02d:%02d %llu bytes\n", rows[i].hdd_id,
               (unsigned)rows[i].root_index, (unsigned)rows[i].stream_segment_index,
               rows[i].channel, rows[i].start_hour, rows[i].start_minute, rows[i].start_second,
               rows[i].end_hour, rows[i].end_minute, rows[i].end_second,
               (unsigned long long)rows[i].len);
    for (i = 0; i < num && !found; i++) {
        found = rows[i].channel == 0 && rows[i].start_hour == start.hour &&
                rows[i].start_minute == start.minute && rows[i].start_second == start.second;
        if (found)
            *mine = rows[i];
    }
    api_qzfs_close_query_stream_segment_handle(handle);
    return found ? 0 : -1;
}

/* Reads the segment of `row` whole; its FNV-1a hash goes to `hash`. */
static long long read_back(const _k4t_stream_query_result_* row, unsigned long long* hash)
{
    static unsigned char chunk[65536];
    _k4t_stream_segment_id_ id;
    unsigned char new_segment = 0;
    long long total = 0;
    int fd, got;

    memset(&id, 0, sizeof(id));
    id.hdd_id = row->hdd_id;
    id.root_index = row->root_index;
    id.stream_segment_index = row->stream_segment_index;
    fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0)
        return -1;
    *hash = 1469598103934665603ULL;
    while ((got = api_qzfs_read_video_data(fd, chunk, sizeof(chunk), &new_segment)) > 0) {
        *hash = fnv(*hash, chunk, (size_t)got);
        total += got;
    }
    api_qzfs_close_stream_segment(fd);
    return total;
}

int main(int argc, char** argv)
{
    const int channels = argc > 2 ? atoi(argv[2]) : 4;
    const unsigned seconds = argc > 3 ? (unsigned)atoi(argv[3]) : 5;
    _qzfs_k4t_hdd_overwrite_config_ config = {50ULL << 20, 50ULL << 20, 50ULL << 20, 50ULL << 20};
    unsigned long long written[MAX_CHANNELS], read_hash = 0;
    _k4t_stream_query_result_ mine;
    unsigned char work_hdd = 255;
    long long bytes;

    if (argc < 2 || channels < 1 || channels > MAX_CHANNELS || seconds < 1 || seconds > 60)
        return fail("usage: recorder IMAGE [CHANNELS (1-16) [SECONDS (1-60)]]");
    set_start_to_now();
    if (api_qzfs_init() != 0)
        return fail("init failed");
    api_qzfs_set_debug_level(0);
    if (format_if_new_and_mount(argv[1]) != 0)
        return fail("the image does not mount");
    if (api_qzfs_add_disk_to_group(0, 0) != 0 || api_qzfs_config_overwrite(0, &config) != 0 ||
        api_qzfs_find_work_hdd(0, &work_hdd) != 0)
        return fail("no disk to record on");
    if (record(channels, seconds, written) != 0)
        return fail("recording failed");
    printf("recorded %d channels, %u s each, on disk %d\n", channels, seconds, work_hdd);
    if (query_day(&mine) != 0)
        return fail("the day query does not find the new recording");
    bytes = read_back(&mine, &read_hash);
    if (bytes < 0)
        return fail("the segment does not open");
    printf("read back %d:%u:%u (channel 0): %lld bytes, %s\n", mine.hdd_id,
           (unsigned)mine.root_index, (unsigned)mine.stream_segment_index, bytes,
           read_hash == written[0] ? "as written" : "DIFFERENT");
    api_qzfs_delete_disk_from_group(0, 0);
    if (api_qzfs_umount(0) != 0 || api_qzfs_uinit() != 0)
        return fail("unmount failed");
    return read_hash == written[0] ? 0 : 1;
}
