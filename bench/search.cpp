// bench/search: how long the calls take that find recordings and step
// through them I-frame by I-frame, on a full day of a 32-channel recorder.
//
// Setup (not timed). Two sparse disk images are fast-formatted and mounted
// as disks 0 and 1 of group 0. Channels 0-15 are recorded onto disk 0 and
// channels 16-31 onto disk 1 (each disk alone in the group while it takes
// its channels), then both disks stay in the group. Every channel holds one
// whole day, 2026-11-21 from 00:00:00 to 23:59:59, as a new stream segment
// every hour: 24 segments a channel, 768 in all. Frames come from the
// synthetic frame source (tools/frame_source.h): one frame a second, an
// I-frame every 8 seconds of 292 bytes and P-frames of 100 bytes, header and
// time records included, about 11 MB a channel. The channels take turns,
// one write call of 8 frames each, as a recorder interleaves them.
//
// Then, with the library's caches warm (each kind of call runs once untimed
// first), it times:
//   channel day    a sequence query (ascending by start time) of one channel
//                  for the whole day: get a handle, the first page, every
//                  following page until an empty one, release the handle.
//                  The whole sequence is one sample; the channel goes round
//                  0..31, so both disks are asked;
//   all channels   the same sequence query for all 32 channels;
//   calendar       api_qzfs_query_calendar of the month, all channels;
//   fast play      one api_qzfs_read_next_iframe with skip 0 on a reader
//                  opened on channel 0's first segment, with the read flag
//                  that goes on into the next segment; each call is a
//                  sample, and the run crosses segments on the way;
//   two threads    50 times as many channel day queries, all by one thread
//                  and then shared out between two threads at once (even
//                  and odd channels): the wall time of each, best of 3, and
//                  the speed-up of two threads over one. Both threads ask
//                  both disks; the disks' index caches are shared, and a
//                  lookup holds their lock while it runs.
// Each query's rows are counted and checked: every row must be the segment
// recorded at its place (start hour, channel, disk) in ascending order, and
// a query must give every segment of the day; the calendar must show the
// day for every channel and no other day. Each fast-play frame must be the
// next I-frame of the channel, whole, with the right time. Any error, or a
// count that is not what was recorded, ends the run with a message and
// status 1. Printed: samples, the rows (segments) a query returned, median,
// 99th percentile and maximum in microseconds; for fast play also the mean,
// the segments played through and how many calls set the new-segment flag.
//
// Running it: scripts/bench builds a Release tree and runs it after the
// playback benchmark; or by hand
//   build/bench/bench/search [--queries N] [--calendars N] [--steps N]
//                            [--page N] [--dir DIR] [--verbose]
// Defaults: 200 queries of each kind, 1000 calendar queries, 5000 fast-play
// steps, pages of 20 rows. Images go to --dir, else $TMPDIR, else /tmp, and
// are removed afterwards. The library's own lines on standard output are
// dropped unless --verbose. Setup takes about 10 to 20 seconds on a
// two-core machine, the timed part a few seconds.
#include "bench_support.h"
#include "frame_source.h"
#include "qzfilesystem_api.h"
#include "qzfs_av_frame.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const unsigned long long GiB = 1ULL << 30;
// 8 GiB: 4 MiB blocks, and room for the day's segments of 16 channels.
const unsigned long long kImageSize = 8 * GiB;
const unsigned kChannels = 32;
const unsigned kChannelsPerDisk = 16;
const unsigned kHours = 24;
const unsigned kFps = 1;
const unsigned kGop = 8;  // an I-frame every 8 s
const uint32_t kIframePayload = 256;
const uint32_t kPframePayload = 64;
const _k4t_fs_date_time_ kDay = {26, 11, 21, 0, 0, 0, 0};
static_assert(3600 * kFps % kGop == 0, "every hour must begin with an I-frame");

bool verbose = false;
std::string images[2];

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double micros_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

void remove_images()
{
    for (const std::string& path : images)
        if (!path.empty())
            unlink(path.c_str());
}

FrameSourceConfig source_config(unsigned channel)
{
    FrameSourceConfig config;
    config.channel = uint8_t(channel);
    config.fps = kFps;
    config.gop = kGop;
    config.iframe_bytes = kIframePayload;
    config.pframe_bytes = kPframePayload;
    config.start = kDay;
    return config;
}

void prepare_disk(unsigned char hdd, const std::string& path)
{
    make_sparse(path, kImageSize);
    image_in_use.clear();  // both images go at exit
    std::string dev = path;
    if (api_qzfs_fast_format(hdd, &dev[0]) != 0)
        die("api_qzfs_fast_format failed", path);
    if (api_qzfs_mount(hdd, &dev[0]) != 0)
        die("api_qzfs_mount failed", path);
}

// Group 0 with `hdd` alone in it, chosen for recording.
void record_onto(unsigned char hdd)
{
    if (api_qzfs_add_disk_to_group(hdd, 0) != 0)
        die("api_qzfs_add_disk_to_group failed", "disk " + std::to_string(hdd));
    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
    unsigned char chosen = 255;
    if (api_qzfs_config_overwrite(0, &config) != 0 || api_qzfs_find_work_hdd(0, &chosen) != 0 ||
        chosen != hdd)
        die("the disk was not chosen for recording", "disk " + std::to_string(hdd));
}

// Records the whole day of channels [first, first + count), a segment an
// hour, the channels taking turns one I-frame period at a time. Returns the
// id of the first segment of channel `first`.
_k4t_stream_segment_id_ record_day(unsigned first, unsigned count)
{
    std::vector<FrameSource> sources;
    for (unsigned c = first; c < first + count; c++)
        sources.emplace_back(source_config(c));
    _k4t_stream_segment_id_ first_segment = {};
    std::vector<int> fds(count);
    FrameBatch batch;
    for (unsigned hour = 0; hour < kHours; hour++) {
        _k4t_fs_date_time_ start = kDay;
        start.hour = uint8_t(hour);
        for (unsigned i = 0; i < count; i++) {
            _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(first + i), 0, start);
            fds[i] = api_qzfs_create_stream_segment(&para);
            if (fds[i] <= 0)
                die("api_qzfs_create_stream_segment failed",
                    "channel " + std::to_string(first + i) + ", hour " + std::to_string(hour));
            if (hour == 0 && i == 0 && api_qzfs_get_fd_info(fds[i], &first_segment) != 0)
                die("api_qzfs_get_fd_info failed");
        }
        for (unsigned g = 0; g < 3600 * kFps / kGop; g++) {
            for (unsigned i = 0; i < count; i++) {
                batch.clear();
                sources[i].append_frames(batch, kGop);
                const int len = int(batch.bytes.size());
                if (api_qzfs_write_video_data(fds[i], batch.bytes.data(), len, int(batch.infos.size()),
                                              batch.infos.data()) != len)
                    die("api_qzfs_write_video_data failed (run with --verbose to see the library's log)",
                        "channel " + std::to_string(first + i));
            }
        }
        for (int fd : fds)
            if (api_qzfs_close_stream_segment(fd) != 0)
                die("api_qzfs_close_stream_segment failed");
    }
    return first_segment;
}

// Value at fraction `q` of sorted `v` (nearest rank).
double percentile(const std::vector<double>& sorted, double q)
{
    size_t rank = size_t(q * double(sorted.size()) + 0.999999);
    rank = std::min(std::max<size_t>(rank, 1), sorted.size());
    return sorted[rank - 1];
}

void print_times(const char* what, const char* count_text, std::vector<double> us, bool mean = false)
{
    std::sort(us.begin(), us.end());
    fprintf(report, "  %-13s %6zu samples %-36s median %9.1f us, p99 %9.1f us, max %9.1f us", what,
            us.size(), count_text, percentile(us, 0.5), percentile(us, 0.99), us.back());
    if (mean) {
        double sum = 0;
        for (double v : us)
            sum += v;
        fprintf(report, ", mean %7.1f us", sum / double(us.size()));
    }
    fprintf(report, "\n");
}

unsigned second_of(const _k4t_stream_query_result_& r)
{
    return r.start_hour * 3600u + r.start_minute * 60u + r.start_second;
}

// The channel of the n-th set bit of `channels`, counted from 0.
unsigned nth_channel(uint32_t channels, unsigned n)
{
    for (unsigned c = 0; c < kChannels; c++)
        if (channels >> c & 1 && n-- == 0)
            return c;
    return kChannels;
}

// One sequence query of the whole day for `channels`, every page pulled;
// returns the time in microseconds and sets `rows`.
double day_query(uint32_t channels, unsigned page, std::vector<_k4t_stream_query_result_>& buffer,
                 unsigned& rows)
{
    _k4t_stream_query_ query = whole_day_query(kDay.year, kDay.month, kDay.day);
    query.channel_bitmap = channels;
    query.item_num_per_page = page;
    buffer.resize(page);
    rows = 0;
    unsigned last_start = 0;
    const unsigned wanted = unsigned(__builtin_popcount(channels));
    // Most pages the day can give, and one empty page behind them.
    const unsigned most_pages = (kChannels * kHours + page - 1) / page + 1;

    const auto start = std::chrono::steady_clock::now();
    const int handle = api_qzfs_get_query_stream_segment_handle(&query);
    if (handle <= 0)
        die("api_qzfs_get_query_stream_segment_handle failed");
    _k4t_stream_query_cmd_ cmd = K4T_QUERY_FIRST;
    for (unsigned pages = 0;; pages++) {
        if (pages == most_pages)
            die("a sequence query gives more pages than the day holds segments");
        int num = int(page);
        if (api_qzfs_query_stream_segment(handle, cmd, &num, buffer.data()) != 0)
            die("api_qzfs_query_stream_segment failed");
        if (num < 0 || unsigned(num) > page)
            die("api_qzfs_query_stream_segment gave more rows than a page", std::to_string(num));
        if (num == 0)
            break;
        for (int i = 0; i < num; i++) {
            const _k4t_stream_query_result_& r = buffer[size_t(i)];
            const unsigned k = rows + unsigned(i);
            if (r.channel >= kChannels || !(channels >> r.channel & 1))
                die("a query row of a channel not asked for", std::to_string(r.channel));
            if (r.hdd_id != r.channel / kChannelsPerDisk)
                die("a query row names the wrong disk", "channel " + std::to_string(r.channel));
            if (second_of(r) < last_start)
                die("query rows not in ascending start time");
            last_start = second_of(r);
            // Row k: the segment of hour k / n, and among the n segments of
            // that hour the channels in ascending order.
            if (second_of(r) != k / wanted * 3600 || nth_channel(channels, k % wanted) != r.channel)
                die("a query row is not the segment recorded there", "row " + std::to_string(k));
        }
        rows += unsigned(num);
        cmd = K4T_QUERY_NEXT;
    }
    if (api_qzfs_close_query_stream_segment_handle(handle) != 0)
        die("api_qzfs_close_query_stream_segment_handle failed");
    return micros_since(start);
}

void time_day_queries(unsigned queries, unsigned page)
{
    if (queries == 0)
        return;
    std::vector<_k4t_stream_query_result_> buffer;
    std::vector<double> times;
    unsigned rows = 0;
    day_query(1, page, buffer, rows);  // warm-up
    for (unsigned i = 0; i < queries; i++) {
        const unsigned channel = i % kChannels;
        times.push_back(day_query(1u << channel, page, buffer, rows));
        if (rows != kHours)
            die("a channel's day query did not give its segments",
                "channel " + std::to_string(channel) + ": " + std::to_string(rows) + " rows, " +
                    std::to_string(kHours) + " recorded");
    }
    std::string text = std::to_string(kHours) + " segments each";
    print_times("channel day", text.c_str(), times);

    times.clear();
    day_query(0xFFFFFFFFu, page, buffer, rows);
    for (unsigned i = 0; i < queries; i++) {
        times.push_back(day_query(0xFFFFFFFFu, page, buffer, rows));
        if (rows != kChannels * kHours)
            die("the day query of all channels did not give every segment",
                std::to_string(rows) + " rows, " + std::to_string(kChannels * kHours) + " recorded");
    }
    text = std::to_string(kChannels * kHours) + " segments each";
    print_times("all channels", text.c_str(), times);
}

// `queries` channel day queries shared out between `threads` threads running
// at once (query i goes to thread i % threads, channel i % 32); the wall time
// in microseconds. Every query's rows are checked as above.
double parallel_day_queries(unsigned threads, unsigned queries, unsigned page)
{
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; t++) {
        workers.emplace_back([=] {
            std::vector<_k4t_stream_query_result_> buffer;
            unsigned rows = 0;
            for (unsigned i = t; i < queries; i += threads) {
                day_query(1u << (i % kChannels), page, buffer, rows);
                if (rows != kHours)
                    die("a channel's day query from a thread did not give its segments",
                        std::to_string(rows) + " rows");
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    return micros_since(start);
}

void time_parallel_day_queries(unsigned queries, unsigned page)
{
    if (queries < 2)
        return;
    double one = 0, two = 0;
    for (int run = 0; run < 3; run++) {
        const double a = parallel_day_queries(1, queries, page);
        const double b = parallel_day_queries(2, queries, page);
        one = run == 0 ? a : std::min(one, a);
        two = run == 0 ? b : std::min(two, b);
    }
    fprintf(report,
            "  two threads   %6u channel day queries: one thread %8.1f ms, two threads %8.1f ms, "
            "speed-up %.2f\n",
            queries, one / 1000, two / 1000, one / two);
}

// One calendar query of the month; returns microseconds and the number of
// (channel, day) entries found.
double calendar_query(unsigned& days)
{
    static _k4t_calendar_stream_query_ query;
    memset(&query, 0, sizeof(query));
    query.group_bitmap = 1;
    query.channel_bitmap = 0xFFFFFFFFu;
    query.record_type_bitmap = 0xFFFF;
    query.stream_type_bitmap = ~0ULL;
    query.year = kDay.year;
    query.month = kDay.month;
    const auto start = std::chrono::steady_clock::now();
    if (api_qzfs_query_calendar(&query) != 0)
        die("api_qzfs_query_calendar failed");
    const double us = micros_since(start);
    days = 0;
    for (unsigned c = 0; c < kChannels; c++)
        for (unsigned d = 0; d < 31; d++)
            if (query.day_info[c][d].record_type != 0) {
                if (d + 1 != kDay.day)
                    die("the calendar shows a day that holds no recording", std::to_string(d + 1));
                days++;
            }
    return us;
}

void time_calendar(unsigned calendars)
{
    if (calendars == 0)
        return;
    unsigned days = 0;
    calendar_query(days);
    std::vector<double> times;
    for (unsigned i = 0; i < calendars; i++) {
        times.push_back(calendar_query(days));
        if (days != kChannels)
            die("the calendar does not show the recorded day of every channel",
                std::to_string(days) + " channel-days, " + std::to_string(kChannels) + " recorded");
    }
    const std::string text = std::to_string(days) + " channel-days each";
    print_times("calendar", text.c_str(), times);
}

void time_fast_play(const _k4t_stream_segment_id_& first_segment, unsigned steps)
{
    if (steps == 0)
        return;
    const unsigned iframes_a_day = 86400 * kFps / kGop;
    if (steps > iframes_a_day)
        die("--steps is more than the I-frames of the day", std::to_string(iframes_a_day));
    _k4t_stream_segment_id_ id = first_segment;
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, QZFS_K4T_OSF_CONTINUE);
    if (fd <= 0)
        die("api_qzfs_open_stream_segment_by_id failed");
    FrameSource probe(source_config(0));
    const int expect_len = int(probe.frame_bytes(true));
    std::vector<double> times;
    times.reserve(steps);
    unsigned segment_flags = 0;
    for (unsigned step = 0; step < steps; step++) {
        unsigned char* frame = nullptr;
        int len = 0;
        unsigned char new_segment = 0;
        const auto start = std::chrono::steady_clock::now();
        const int got = api_qzfs_read_next_iframe(fd, 0, &frame, &len, &new_segment);
        times.push_back(micros_since(start));
        const std::string where = "step " + std::to_string(step);
        if (got < 0)
            die("api_qzfs_read_next_iframe failed", where);
        if (got == 0)
            die("fast play ended before the end of the day", where);
        if (got != expect_len || len != expect_len || frame == nullptr)
            die("fast play gave a frame of the wrong length",
                where + ": " + std::to_string(len) + " bytes, " + std::to_string(expect_len) + " written");
        const unsigned second = step * kGop / kFps;
        const uint8_t* rec = frame + 12;
        if (frame[0] != 0 || frame[1] != QZFS_FRAME_CHAR_IFRAME || rec[0] != QZFS_FRAME_EXT_DATE_TIME ||
            rec[7] * 3600u + rec[8] * 60u + rec[9] != second)
            die("fast play did not give the next I-frame of the channel", where);
        if (new_segment != 0)
            segment_flags++;
    }
    // The frames' times were checked, so the hours they span are the
    // segments played through.
    const unsigned segments = (steps - 1) * kGop / kFps / 3600 + 1;
    if (api_qzfs_close_stream_segment(fd) != 0)
        die("api_qzfs_close_stream_segment failed");
    const std::string text = "(" + std::to_string(segments) + " segments, " +
                             std::to_string(segment_flags) + " new-segment flags)";
    print_times("fast play", text.c_str(), times, true);
}

}  // namespace

int main(int argc, char** argv)
{
    bench_name = "bench/search";
    unsigned queries = 200, calendars = 1000, steps = 5000, page = 20;
    std::string dir = default_image_dir();
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--queries" && has_value)
            queries = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--calendars" && has_value)
            calendars = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--steps" && has_value)
            steps = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--page" && has_value)
            page = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--dir" && has_value)
            dir = argv[++i];
        else if (a == "--verbose")
            verbose = true;
        else if (a == "--help" || a == "-h") {
            printf("usage: search [--queries N] [--calendars N] [--steps N] [--page N] [--dir DIR] "
                   "[--verbose]\n");
            return 0;
        } else
            die("unknown argument (see --help)", a);
    }
    if (page == 0 || page > 10000)
        die("--page takes 1 to 10000");

    start_library(verbose);
    for (unsigned d = 0; d < 2; d++)
        images[d] = dir + "/qzfs-search-" + std::to_string(getpid()) + "-" + std::to_string(d) + ".img";
    atexit(remove_images);

    const auto setup = std::chrono::steady_clock::now();
    prepare_disk(0, images[0]);
    prepare_disk(1, images[1]);
    if (verbose)
        fprintf(report, "  two images formatted and mounted in %.1f s\n", seconds_since(setup));
    record_onto(0);
    const _k4t_stream_segment_id_ first_segment = record_day(0, kChannelsPerDisk);
    if (verbose)
        fprintf(report, "  disk 0 recorded, %.1f s from the start\n", seconds_since(setup));
    if (api_qzfs_delete_disk_from_group(0, 0) != 0)
        die("api_qzfs_delete_disk_from_group failed", "disk 0");
    record_onto(1);
    record_day(kChannelsPerDisk, kChannels - kChannelsPerDisk);
    if (verbose)
        fprintf(report, "  disk 1 recorded, %.1f s from the start\n", seconds_since(setup));
    if (api_qzfs_add_disk_to_group(0, 0) != 0)
        die("api_qzfs_add_disk_to_group failed", "disk 0");
    FrameSource probe(source_config(0));
    const unsigned long long day_bytes =
        (86400ULL * kFps / kGop) * (probe.frame_bytes(true) + (kGop - 1) * probe.frame_bytes(false));

    fprintf(report,
            "search benchmark: %u channels, one day each (%u segments of an hour, %.1f MB a channel), "
            "channels 0-%u on disk 0 and %u-%u on disk 1, set up in %.1f s; pages of %u rows;\n  "
            "images %s, %s\n",
            kChannels, kHours, double(day_bytes) / 1e6, kChannelsPerDisk - 1, kChannelsPerDisk,
            kChannels - 1, seconds_since(setup), page, images[0].c_str(), images[1].c_str());
    time_day_queries(queries, page);
    time_calendar(calendars);
    time_fast_play(first_segment, steps);
    time_parallel_day_queries(queries * 50, page);

    if (api_qzfs_delete_disk_from_group(0, 0) != 0 || api_qzfs_delete_disk_from_group(1, 0) != 0 ||
        api_qzfs_umount(0) != 0 || api_qzfs_umount(1) != 0)
        die("cannot unmount the images");
    remove_images();
    api_qzfs_uinit();
    return 0;
}
