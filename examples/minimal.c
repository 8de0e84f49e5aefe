/* minimal.c - records channel 0 for five seconds on a new disk image and
 * reads it back.
 *   cc -std=c11 minimal.c $(pkg-config --cflags --libs qzfs) -o minimal
 *   ./minimal /tmp/minimal.img */
#define _POSIX_C_SOURCE 200809L /* ftruncate */
#define _FILE_OFFSET_BITS 64
#include <qzfilesystem_api.h>
#include <qzfs_frame.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define FPS 25
static unsigned char buf[FPS * (QZFS_FRAME_PREFIX_LEN + 4000)];

int main(int argc, char** argv)
{
    char* image = argc > 1 ? argv[1] : "/tmp/minimal.img";
    _qzfs_k4t_hdd_overwrite_config_ cfg = {50ULL << 20, 50ULL << 20, 50ULL << 20, 50ULL << 20};
    _k4t_fs_date_time_ when = {24, 1, 1, 12, 0, 0, 0}; /* 2024-01-01 12:00:00 */
    _qzfs_k4t_create_ss_para_ para;
    _k4t_video_frame_info_ info;
    _k4t_stream_segment_id_ id;
    static unsigned char chunk[65536];
    unsigned char hdd, fresh;
    long long written = 0, got = 0;
    int fd, s, n, len, r;

    fd = open(image, O_RDWR | O_CREAT | O_TRUNC, 0644); /* a new 3 GiB sparse image */
    if (fd < 0 || ftruncate(fd, 3LL << 30) != 0)
        return 1;
    close(fd);
    if (api_qzfs_init() != 0 || api_qzfs_fast_format(0, image) != 0 ||
        api_qzfs_mount(0, image) != 0 || api_qzfs_add_disk_to_group(0, 0) != 0 ||
        api_qzfs_config_overwrite(0, &cfg) != 0 || api_qzfs_find_work_hdd(0, &hdd) != 0)
        return 2;

    memset(&para, 0, sizeof(para)); /* channel 0, stream type 0, group 0 */
    para.year = when.year, para.month = when.month, para.day = when.day, para.hour = when.hour;
    fd = api_qzfs_create_stream_segment(&para);
    if (fd < 1)
        return 3;
    for (s = 0; s < 5; s++) { /* a second a call: an I-frame, then 24 P-frames */
        when.second = (uint8_t)s;
        for (len = 0, n = s * FPS; n < (s + 1) * FPS; n++) {
            const uint32_t payload = n % FPS ? 1000 : 4000;
            const uint64_t pts = (uint64_t)n * (90000 / FPS); /* 90 kHz ticks */
            qzfs_frame_put_prefix(buf + len, 0,
                                  n % FPS ? QZFS_FRAME_TYPE_PFRAME : QZFS_FRAME_TYPE_IFRAME,
                                  payload, &when, pts);
            memset(buf + len + QZFS_FRAME_PREFIX_LEN, n & 0xFF, payload);
            len += (int)qzfs_frame_size(payload);
        }
        info = qzfs_frame_iframe_info(&when, 0, (uint64_t)s * 90000); /* the I-frame at 0 */
        if (api_qzfs_write_video_data(fd, buf, len, 1, &info) != len)
            return 4;
        written += len;
    }
    if (api_qzfs_get_fd_info(fd, &id) != 0 || api_qzfs_fsync(fd) != 0)
        return 5;
    api_qzfs_close_stream_segment(fd);

    fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd < 1)
        return 6;
    while ((r = api_qzfs_read_video_data(fd, chunk, (int)sizeof(chunk), &fresh)) > 0)
        got += r;
    api_qzfs_close_stream_segment(fd);
    printf("wrote %lld bytes, read back %lld\n", written, got);

    api_qzfs_delete_disk_from_group(0, 0); /* out of the group, then unmount */
    if (api_qzfs_umount(0) != 0 || api_qzfs_uinit() != 0)
        return 7;
    return got == written ? 0 : 8;
}
