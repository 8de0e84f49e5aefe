// bench/scale: do the calls that find and open recordings cost the same on
// a full 2 TiB disk as on a small one? The same measures run on two images:
//   small  a 3 GiB image (4 MiB blocks) holding one day;
//   big    a 2 TiB image (24 MiB blocks) holding --days days (30).
// Each holds --channels channels (32) recording around the clock, one
// segment an hour per channel, and the table gives each measure on both and
// their ratio big / small.
//
// Building an image (timed and printed, not part of the measures). The image
// is a sparse file, fast-formatted and mounted as disk 0 of group 0. Day by
// day, each channel gets its root index entry and then, hour by hour, its
// segments, as a recorder would leave them. Almost every segment is made
// index-only, with the library's own index calls (the ones the tool's
// segment-add verb uses): the segment node, an I-frame entry every 8
// seconds, a block entry for each data block the segment opens (taken from
// the bitmap with its owner record), then its end time and length. The
// frames of those segments are left out, since nothing reads them (so the
// tool's check finds no I-frame where their entries point). Each root
// entry (a channel's day) is given an equal share of the disk's free blocks,
// spread evenly over its 24 segments in whole blocks; when a share is under
// a block a segment (the small image) neighbouring segments share a block,
// and its block entry's share count says so. The tool's check does not take
// that sharing as a recording would leave it (it counts the users of those
// blocks and the segments' first entries otherwise); the measures do not
// read those entries. One channel-day, channel 0 on the measured day, is
// recorded for real through the write calls (frames from tools/frame_source.h:
// one a second, an I-frame every 8 s), since the open, read, seek and fast
// play measures read its frames.
//
// Measures (median over the repeats; p99 where there are many):
//   mount          cold: unmount, sync, drop the image's page cache
//                  (posix_fadvise DONTNEED), api_qzfs_mount; a few times;
//   channel day    a sequence query of one channel's measured day, every
//                  page pulled, handle released;
//   all channels   the same for all channels;
//   calendar       api_qzfs_query_calendar of the measured day's month;
//   date list      api_qzfs_get_stream_date_list;
//   date info      api_qzfs_get_stream_date_info, all channels;
//   open+64KiB     api_qzfs_open_stream_segment_by_para on channel 0 at a
//                  moment of the measured day, and reads up to 64 KiB;
//   seek           api_qzfs_seek_stream_segment_by_time within an open hour;
//   fast play      one api_qzfs_read_next_iframe step, going on across
//                  segments.
// The warm measures run once untimed first. Results are checked (row
// counts, days, frames read); a wrong one ends the run with status 1.
//
// Targets printed with the table: every ratio at most 2, and the cold mount
// of the big image under 1 s; each says whether it was met. A last line
// "headline:" gives the worst ratio and the big image's cold mount time for
// scripts/bench.
//
//   build/bench/bench/scale [--dir DIR] [--days N] [--channels N]
//                           [--repeats N] [--mounts N] [--keep] [--verbose]
// Images go to --dir, else $TMPDIR, else /tmp, and are removed at the end
// unless --keep. The big image needs a file system with sparse files; it
// gets a few hundred MiB of index written.
#include "bench_support.h"
#include "disk_access.h"
#include "frame_source.h"
#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_device.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const unsigned long long GiB = 1ULL << 30;
const unsigned long long kSmallSize = 3 * GiB;
const unsigned long long kBigSize = 1ULL << 41;  // 2 TiB
const unsigned kHours = 24;
const unsigned kGop = 8;  // seconds between I-frames
const unsigned kIframesPerHour = 3600 / kGop;
const unsigned char kHdd = 0;
const _k4t_fs_date_time_ kFirstDay = {26, 11, 1, 0, 0, 0, 0};

bool verbose = false;
unsigned channels = 32;
unsigned repeats = 200;
unsigned mounts = 3;

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double micros_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// The date `n` days after the first day, by the library's calendar.
_k4t_fs_date_time_ day_after_first(unsigned n)
{
    _k4t_fs_date_time_ d = kFirstDay;
    while (n-- > 0) {
        if (d.day < library_days_in_month(d.year, d.month)) {
            d.day++;
        } else {
            d.day = 1;
            if (++d.month > 12) {
                d.month = 1;
                d.year++;
            }
        }
    }
    return d;
}

template <typename Step>
int with_disk(Step step)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    if (fs == nullptr)
        die("disk 0 is not mounted");
    DiskLockGuard lock(*fs);
    return step(*fs);
}

// One index-only root entry (a channel's day) being filled: its I-frame
// chain, the entries written so far, and the data blocks it opened.
struct SyntheticRoot {
    uint32_t position = 0;
    uint32_t iframe_head = 0;
    uint32_t chain_num = 0;
    uint32_t* chain = nullptr;
    uint32_t entries = 0;
    std::vector<uint32_t> blocks;  // disk block of each ordinal
    uint8_t stream_type = 0;
    ~SyntheticRoot() { delete[] chain; }
};

// How each root lays its day over its blocks: `payload` stream bytes a
// block (the block less its 4 KiB head), `per_root` blocks, the day's
// stream cut into 24 equal segments of `segment_bytes`.
struct RootPlan {
    unsigned long long payload = 0;
    unsigned long per_root = 0;
    unsigned long long segment_bytes = 0;

    unsigned shares(unsigned long ordinal) const
    {
        const unsigned long long lo = ordinal * payload, hi = lo + payload;
        unsigned n = 0;
        for (unsigned h = 0; h < kHours; h++)
            if (h * segment_bytes < hi && (h + 1) * segment_bytes > lo)
                n++;
        return n;
    }
};

void create_root(const _qzfs_k4t_create_ss_para_& para, SyntheticRoot& root)
{
    if (disk_add_root_entry(kHdd, para, root.position) != 0)
        die("cannot add a root index entry (disk full?)");
    const int rc = with_disk([&](CQzFileSystem& fs) {
        uint32_t ssi_num = 0;
        uint32_t* ssi_list = nullptr;
        int r = fs.Get_stream_segment_index_block_list(root.position, &ssi_num, &ssi_list,
                                                       &root.iframe_head);
        delete[] ssi_list;
        if (r == 0)
            r = fs.Read_iframe_index_block_list(root.iframe_head, &root.chain_num, &root.chain);
        _root_index_node_dev_ node;
        if (r == 0)
            r = fs.Get_root_index_dev_node(root.position, &node);
        if (r == 0)
            root.stream_type = node.stream_type;
        return r;
    });
    if (rc != 0)
        die("cannot read the I-frame chain of a new root index entry");
}

// Adds segment `hour` of the root, closed, index only.
void add_synthetic_segment(const _qzfs_k4t_create_ss_para_& day_para, unsigned hour,
                           const RootPlan& plan, SyntheticRoot& root)
{
    _qzfs_k4t_create_ss_para_ para = day_para;
    para.hour = uint8_t(hour);
    const unsigned long long first = hour * plan.segment_bytes;
    const unsigned long long len = plan.segment_bytes;
    const unsigned long long step = len / kIframesPerHour;
    const unsigned long last_ordinal = (unsigned long)((first + len - 1) / plan.payload);
    const int rc = with_disk([&](CQzFileSystem& fs) {
        const uint32_t start_iframe = root.entries + 1;
        uint32_t index = 0;
        _stream_segment_index_node_dev_ node;
        if (fs.Create_stream_segment_index_node(root.position, &para, start_iframe, &index, &node) != 0)
            return -1;
        std::vector<_iframe_index_node_dev_> nodes;
        nodes.reserve(kIframesPerHour + 8);
        auto open_block = [&]() {
            uint32_t block = 0;
            const SyntheticBlockOwner owner = {root.iframe_head, start_iframe, root.stream_type};
            if (take_data_block(fs, para, owner, uint32_t(root.blocks.size()), block) != 0)
                return -1;
            _iframe_index_node_dev_ n = {};
            n.id = IFRAME_INDEX_ID_BLOCK;
            uint32_t ordinal = uint32_t(root.blocks.size()), shared = plan.shares(ordinal);
            memcpy(&n.block_num, &block, 4);
            memcpy(&n.block_offset, &ordinal, 4);
            memcpy(&n.pts_high, &shared, 4);
            nodes.push_back(n);
            root.blocks.push_back(block);
            return 0;
        };
        for (unsigned k = 0; k < kIframesPerHour; k++) {
            const unsigned long long at = first + k * step;
            const unsigned long ordinal = (unsigned long)(at / plan.payload);
            while (root.blocks.size() <= ordinal)
                if (open_block() != 0)
                    return -1;
            const unsigned second = hour * 3600u + k * kGop;
            _iframe_index_node_dev_ n = {};
            n.id = IFRAME_INDEX_ID_IFRAME;
            n.hour = uint8_t(second / 3600);
            n.minute = uint8_t(second / 60 % 60);
            n.second = uint8_t(second % 60);
            const uint32_t block = root.blocks[ordinal];
            const uint32_t offset = uint32_t(4096 + at % plan.payload);
            const uint32_t pts = k * kGop * 90000u;
            const uint64_t stream_offset = k * step;
            memcpy(&n.block_num, &block, 4);
            memcpy(&n.block_offset, &offset, 4);
            memcpy(&n.pts_low, &pts, 4);
            memcpy(&n.stream_segment_offset, &stream_offset, 8);
            nodes.push_back(n);
        }
        while (root.blocks.size() <= last_ordinal)
            if (open_block() != 0)
                return -1;
        const uint8_t date_time[6] = {para.year, para.month, para.day, para.hour, 0, 0};
        for (size_t done = 0; done < nodes.size();) {
            const size_t count = std::min<size_t>(FS_IFI_BUFFER_NUM, nodes.size() - done);
            if (fs.Add_iframe_index(&root.chain_num, &root.chain, root.entries + done, &nodes[done],
                                    count, date_time) != 0)
                return -1;
            done += count;
        }
        root.entries += uint32_t(nodes.size());
        // A segment ends before the next one's first I-frame; the day's last
        // one, with no I-frame after it, at its own last I-frame.
        const unsigned end = hour + 1 < kHours ? hour * 3600u + 3599u
                                                : hour * 3600u + (kIframesPerHour - 1) * kGop;
        node.end_hour = uint8_t(end / 3600);
        node.end_minute = uint8_t(end / 60 % 60);
        node.end_second = uint8_t(end % 60);
        const uint64_t len64 = len;
        memcpy(&node.len_in_bytes, &len64, sizeof(len64));
        if (fs.Modify_stream_segment(root.position, index, 0, &node) != 0)
            return -1;
        return fs.check_and_modify_root_info(root.position, nullptr);
    });
    if (rc != 0)
        die("cannot add an index-only segment",
            "channel " + std::to_string(para.channel) + ", hour " + std::to_string(hour));
}

FrameSourceConfig real_source_config(const _k4t_fs_date_time_& day)
{
    FrameSourceConfig config;
    config.channel = 0;
    config.fps = 1;
    config.gop = kGop;
    config.iframe_bytes = 256;
    config.pframe_bytes = 64;
    config.start = day;
    return config;
}

// Records hour `hour` of channel 0 through the write calls.
void record_real_hour(FrameSource& source, const _k4t_fs_date_time_& day, unsigned hour)
{
    _k4t_fs_date_time_ start = day;
    start.hour = uint8_t(hour);
    _qzfs_k4t_create_ss_para_ para = recording_request(0, 0, start);
    const int fd = api_qzfs_create_stream_segment(&para);
    if (fd <= 0)
        die("api_qzfs_create_stream_segment failed", "hour " + std::to_string(hour));
    FrameBatch batch;
    for (unsigned g = 0; g < kIframesPerHour; g++) {
        batch.clear();
        source.append_frames(batch, kGop);
        const int len = int(batch.bytes.size());
        if (api_qzfs_write_video_data(fd, batch.bytes.data(), len, int(batch.infos.size()),
                                      batch.infos.data()) != len)
            die("api_qzfs_write_video_data failed (run with --verbose to see the library's log)");
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        die("api_qzfs_close_stream_segment failed");
}

void join_group()
{
    if (api_qzfs_add_disk_to_group(kHdd, 0) != 0)
        die("api_qzfs_add_disk_to_group failed");
}

void mount_image(const std::string& path)
{
    std::string dev = path;
    if (api_qzfs_mount(kHdd, &dev[0]) != 0)
        die("api_qzfs_mount failed", path);
}

void drop_cache(const std::string& path)
{
    sync();
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0 || posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) != 0)
        die("cannot drop the page cache of the image", path);
    close(fd);
}

unsigned long long allocated_bytes(const std::string& path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return 0;
    return (unsigned long long)st.st_blocks * 512ULL;
}

// One image: its layout, and each measure's median (and p99) in
// microseconds.
struct Samples {
    double median = 0, p99 = 0;
    size_t count = 0;
    // Elements of an answer that grows with the days held (channel-days of
    // the calendar, dates of a list); 0 for the others.
    unsigned answer = 0;
    const char* unit = "";
};
struct Image {
    const char* name = "";
    unsigned long long size = 0;
    unsigned days = 0;
    std::string path;
    unsigned long block_size = 0;
    double build_seconds = 0;
    unsigned long long written = 0;
    unsigned long long formatted = 0;  // of it, what the format wrote
    std::vector<std::pair<std::string, Samples>> measures;
};

double percentile(const std::vector<double>& sorted, double q)
{
    size_t rank = size_t(q * double(sorted.size()) + 0.999999);
    rank = std::min(std::max<size_t>(rank, 1), sorted.size());
    return sorted[rank - 1];
}

void record_measure(Image& image, const char* what, std::vector<double> us, unsigned answer = 0,
                    const char* unit = "")
{
    std::sort(us.begin(), us.end());
    Samples s;
    s.answer = answer;
    s.unit = unit;
    s.median = percentile(us, 0.5);
    s.p99 = percentile(us, 0.99);
    s.count = us.size();
    image.measures.emplace_back(what, s);
    if (verbose)
        fprintf(report, "    %-13s %5zu samples, median %10.1f us, p99 %10.1f us, max %10.1f us\n",
                what, us.size(), s.median, s.p99, us.back());
}

// While an image is built its flushes are left out: the library flushes
// after its index writes, and tens of thousands of fsyncs would make the
// build take hours. The build ends with one sync of everything instead.
// Handles opened for the measures use the ordinary file operations.
int no_sync(qzfs_dev_info*)
{
    return 0;
}

int no_sync_range(qzfs_dev_info*, unsigned long long, unsigned long)
{
    return 0;
}

qzfs_block_device_ops build_ops;

// Builds the image: format, mount, every day's roots and segments.
void build(Image& image, const _k4t_fs_date_time_& measured)
{
    const auto start = Clock::now();
    build_ops = qzfs_file_device_ops;
    build_ops.sync = no_sync;
    build_ops.sync_range = no_sync_range;
    qzfs_block_device_ops_for_new_handles = &build_ops;
    make_sparse(image.path, image.size);
    std::string dev = image.path;
    if (api_qzfs_fast_format(kHdd, &dev[0]) != 0)
        die("api_qzfs_fast_format failed", image.path);
    mount_image(image.path);
    image.formatted = allocated_bytes(image.path);
    join_group();
    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
    unsigned char chosen = 255;
    if (api_qzfs_config_overwrite(0, &config) != 0 || api_qzfs_find_work_hdd(0, &chosen) != 0 ||
        chosen != kHdd)
        die("the disk was not chosen for recording");
    _qzfs_k4t_hdd_info_ info = {};
    if (api_qzfs_get_hdd_info(kHdd, &info) != 0)
        die("api_qzfs_get_hdd_info failed");
    image.block_size = info.block_size;
    unsigned long free_blocks = 0;
    with_disk([&](CQzFileSystem& fs) {
        free_blocks = fs.manage().free_block;
        return 0;
    });
    // Every root takes a segment index and an I-frame index block; the real
    // channel-day a block an hour; the roots' data shares take 90% of what
    // is left, so the index can still grow.
    const unsigned long roots = (unsigned long)image.days * channels;
    const unsigned long overhead = 2 * roots + kHours + 16;
    if (free_blocks <= overhead + roots)
        die("the image is too small for the days and channels asked for");
    RootPlan plan;
    plan.payload = image.block_size - 4096ULL;
    plan.per_root = (unsigned long)((free_blocks - overhead) * 9ULL / 10ULL / (roots > 1 ? roots - 1 : 1));
    // A share of a block or more a segment gives each segment whole blocks
    // of its own, as recording does; under a block a segment (the small
    // image) neighbouring segments share one.
    if (plan.per_root >= kHours)
        plan.segment_bytes = (plan.per_root / kHours) * plan.payload;
    else
        plan.segment_bytes = plan.per_root * plan.payload / kHours;
    if (verbose)
        fprintf(report, "  %s: %lu free blocks of %lu MiB, %lu data blocks a channel-day\n", image.name,
                free_blocks, image.block_size >> 20, plan.per_root);

    for (unsigned d = 0; d < image.days; d++) {
        const _k4t_fs_date_time_ day = day_after_first(d);
        const bool real_day = day.year == measured.year && day.month == measured.month &&
                              day.day == measured.day;
        std::vector<SyntheticRoot> roots_of_day(channels);
        for (unsigned c = 0; c < channels; c++) {
            if (real_day && c == 0)
                continue;  // the write calls make it at hour 0
            _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(c), 0, day);
            create_root(para, roots_of_day[c]);
        }
        FrameSource source(real_source_config(day));
        for (unsigned h = 0; h < kHours; h++) {
            for (unsigned c = 0; c < channels; c++) {
                if (real_day && c == 0) {
                    record_real_hour(source, day, h);
                    continue;
                }
                _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(c), 0, day);
                add_synthetic_segment(para, h, plan, roots_of_day[c]);
            }
        }
        if (verbose && (d + 1) % 5 == 0)
            fprintf(report, "    day %u of %u made, %.1f s\n", d + 1, image.days, seconds_since(start));
    }
    if (api_qzfs_delete_disk_from_group(kHdd, 0) != 0 || api_qzfs_umount(kHdd) != 0)
        die("cannot unmount the new image");
    qzfs_block_device_ops_for_new_handles = nullptr;
    sync();
    image.build_seconds = seconds_since(start);
    image.written = allocated_bytes(image.path);
}

// One sequence query of the measured day for `bitmap`; sets `rows`.
double day_query(const _k4t_fs_date_time_& day, uint32_t bitmap, unsigned& rows)
{
    const unsigned page = 20;
    static std::vector<_k4t_stream_query_result_> buffer(page);
    _k4t_stream_query_ query = whole_day_query(day.year, day.month, day.day);
    query.channel_bitmap = bitmap;
    query.item_num_per_page = page;
    rows = 0;
    const auto start = Clock::now();
    const int handle = api_qzfs_get_query_stream_segment_handle(&query);
    if (handle <= 0)
        die("api_qzfs_get_query_stream_segment_handle failed");
    _k4t_stream_query_cmd_ cmd = K4T_QUERY_FIRST;
    for (unsigned pages = 0;; pages++) {
        if (pages > channels * kHours)
            die("a day query gives more pages than the day holds segments");
        int num = int(page);
        if (api_qzfs_query_stream_segment(handle, cmd, &num, buffer.data()) != 0)
            die("api_qzfs_query_stream_segment failed");
        if (num <= 0)
            break;
        rows += unsigned(num);
        cmd = K4T_QUERY_NEXT;
    }
    if (api_qzfs_close_query_stream_segment_handle(handle) != 0)
        die("api_qzfs_close_query_stream_segment_handle failed");
    return micros_since(start);
}

double calendar_query(const _k4t_fs_date_time_& day, unsigned& entries)
{
    static _k4t_calendar_stream_query_ query;
    memset(&query, 0, sizeof(query));
    query.group_bitmap = 1;
    query.channel_bitmap = 0xFFFFFFFFu;
    query.record_type_bitmap = 0xFFFF;
    query.stream_type_bitmap = ~0ULL;
    query.year = day.year;
    query.month = day.month;
    const auto start = Clock::now();
    if (api_qzfs_query_calendar(&query) != 0)
        die("api_qzfs_query_calendar failed");
    const double us = micros_since(start);
    entries = 0;
    for (unsigned c = 0; c < 32; c++)
        for (unsigned d = 0; d < 31; d++)
            if (query.day_info[c][d].record_type != 0)
                entries++;
    return us;
}

int open_at(const _k4t_fs_date_time_& day, unsigned second)
{
    _qzfs_k4t_stream_open_para_ para = {};
    para.channel = 0;
    para.stream_type = 0;
    para.record_type_bitmap = 0xFFFF;
    para.group_bitmap = 1;
    para.date_time = day;
    para.date_time.hour = uint8_t(second / 3600);
    para.date_time.minute = uint8_t(second / 60 % 60);
    para.date_time.second = uint8_t(second % 60);
    return api_qzfs_open_stream_segment_by_para(&para, QZFS_K4T_OSF_CONTINUE);
}

// A pseudo-random second of the day, the same sequence on both images.
unsigned second_of_sample(unsigned i)
{
    return unsigned((i * 2654435761u) % 86000u);
}

void measure(Image& image, const _k4t_fs_date_time_& day, unsigned days_in_month)
{
    // Cold mounts.
    std::vector<double> us;
    for (unsigned i = 0; i < mounts; i++) {
        drop_cache(image.path);
        const auto start = Clock::now();
        mount_image(image.path);
        us.push_back(micros_since(start));
        if (i + 1 < mounts && api_qzfs_umount(kHdd) != 0)
            die("api_qzfs_umount failed");
    }
    record_measure(image, "mount (cold)", us);
    join_group();

    unsigned rows = 0;
    us.clear();
    day_query(day, 1, rows);
    for (unsigned i = 0; i < repeats; i++) {
        const unsigned c = i % channels;
        us.push_back(day_query(day, 1u << c, rows));
        if (rows != kHours)
            die("a channel's day query did not give its 24 segments",
                "channel " + std::to_string(c) + ": " + std::to_string(rows));
    }
    record_measure(image, "channel day", us);

    const uint32_t all = channels == 32 ? 0xFFFFFFFFu : (1u << channels) - 1;
    us.clear();
    day_query(day, all, rows);
    for (unsigned i = 0; i < repeats; i++) {
        us.push_back(day_query(day, all, rows));
        if (rows != kHours * channels)
            die("the day query of all channels did not give every segment", std::to_string(rows));
    }
    record_measure(image, "all channels", us);

    us.clear();
    unsigned entries = 0;
    calendar_query(day, entries);
    for (unsigned i = 0; i < repeats; i++) {
        us.push_back(calendar_query(day, entries));
        if (entries != channels * days_in_month)
            die("the calendar does not show the recorded days",
                std::to_string(entries) + " channel-days, " +
                    std::to_string(channels * days_in_month) + " recorded");
    }
    record_measure(image, "calendar", us, entries, "channel-days");

    std::vector<_k4t_fs_date_> dates(400);
    us.clear();
    api_qzfs_get_stream_date_list(1, ~0ULL, dates.data(), int(dates.size()));
    for (unsigned i = 0; i < repeats; i++) {
        const auto start = Clock::now();
        const int n = api_qzfs_get_stream_date_list(1, ~0ULL, dates.data(), int(dates.size()));
        us.push_back(micros_since(start));
        if (n != int(image.days))
            die("api_qzfs_get_stream_date_list did not give the recorded days", std::to_string(n));
    }
    record_measure(image, "date list", us, image.days, "dates");

    std::vector<_k4t_fs_record_date_info_> infos(400 * 32);
    us.clear();
    const unsigned long long channel_bits = (1ULL << channels) - 1;
    api_qzfs_get_stream_date_info(1, ~0ULL, channel_bits, infos.data(), int(infos.size()));
    for (unsigned i = 0; i < repeats; i++) {
        const auto start = Clock::now();
        const int n =
            api_qzfs_get_stream_date_info(1, ~0ULL, channel_bits, infos.data(), int(infos.size()));
        us.push_back(micros_since(start));
        if (n < int(image.days))
            die("api_qzfs_get_stream_date_info gave fewer dates than recorded", std::to_string(n));
    }
    record_measure(image, "date info", us, image.days, "dates");

    // Open by time and the first 64 KiB.
    std::vector<unsigned char> chunk(65536);
    us.clear();
    for (unsigned i = 0; i <= repeats; i++) {
        const unsigned second = second_of_sample(i);
        const auto start = Clock::now();
        const int fd = open_at(day, second);
        if (fd <= 0)
            die("api_qzfs_open_stream_segment_by_para failed", std::to_string(second));
        int got = 0;
        while (got < int(chunk.size())) {
            unsigned char new_segment = 0;
            const int n =
                api_qzfs_read_video_data(fd, chunk.data() + got, int(chunk.size()) - got, &new_segment);
            if (n < 0)
                die("api_qzfs_read_video_data failed");
            if (n == 0)
                break;
            got += n;
        }
        const double t = micros_since(start);
        if (got != int(chunk.size()))
            die("the first 64 KiB after an open by time were not all read", std::to_string(got));
        if (api_qzfs_close_stream_segment(fd) != 0)
            die("api_qzfs_close_stream_segment failed");
        if (i > 0)
            us.push_back(t);
    }
    record_measure(image, "open+64KiB", us);

    // Seek by time within an open hour.
    us.clear();
    const int fd = open_at(day, 12 * 3600);
    if (fd <= 0)
        die("api_qzfs_open_stream_segment_by_para failed");
    for (unsigned i = 0; i <= repeats; i++) {
        _k4t_fs_date_time_ at = day;
        const unsigned second = 12 * 3600 + second_of_sample(i) % 3590;
        at.hour = uint8_t(second / 3600);
        at.minute = uint8_t(second / 60 % 60);
        at.second = uint8_t(second % 60);
        const auto start = Clock::now();
        if (api_qzfs_seek_stream_segment_by_time(fd, &at) != 0)
            die("api_qzfs_seek_stream_segment_by_time failed");
        if (i > 0)
            us.push_back(micros_since(start));
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        die("api_qzfs_close_stream_segment failed");
    record_measure(image, "seek", us);

    // Fast play from 00:00, on across segments.
    us.clear();
    const int play = open_at(day, 0);
    if (play <= 0)
        die("api_qzfs_open_stream_segment_by_para failed");
    const unsigned steps = std::max(repeats * 10, 2u);
    for (unsigned i = 0; i <= steps && i < 86400 / kGop - 1; i++) {
        unsigned char* frame = nullptr;
        int len = 0;
        unsigned char new_segment = 0;
        const auto start = Clock::now();
        const int got = api_qzfs_read_next_iframe(play, 0, &frame, &len, &new_segment);
        const double t = micros_since(start);
        if (got <= 0 || frame == nullptr)
            die("api_qzfs_read_next_iframe failed or ended early", "step " + std::to_string(i));
        if (i > 0)
            us.push_back(t);
    }
    if (api_qzfs_close_stream_segment(play) != 0)
        die("api_qzfs_close_stream_segment failed");
    record_measure(image, "fast play", us);

    if (api_qzfs_delete_disk_from_group(kHdd, 0) != 0 || api_qzfs_umount(kHdd) != 0)
        die("cannot unmount the image");
}

std::vector<std::string> to_remove;
bool keep = false;

void remove_images()
{
    if (!keep)
        for (const std::string& path : to_remove)
            unlink(path.c_str());
}

void run(Image& image)
{
    const _k4t_fs_date_time_ day = day_after_first(image.days / 2);
    unsigned in_month = 0;
    for (unsigned d = 0; d < image.days; d++) {
        const _k4t_fs_date_time_ other = day_after_first(d);
        if (other.year == day.year && other.month == day.month)
            in_month++;
    }
    build(image, day);
    image_in_use.clear();
    fprintf(report,
            "  %-6s %5.0f GiB, %2lu MiB blocks, %3u days x %u channels x 24 segments: made in %.1f s, "
            "%.0f MiB written (%.0f MiB of it after the format); measured day 20%02u-%02u-%02u\n",
            image.name, double(image.size) / double(GiB), image.block_size >> 20, image.days, channels,
            image.build_seconds, double(image.written) / 1048576.0,
            double(image.formatted) / 1048576.0, day.year, day.month, day.day);
    measure(image, day, in_month);
}

}  // namespace

int main(int argc, char** argv)
{
    bench_name = "bench/scale";
    unsigned days = 30;
    std::string dir = default_image_dir();
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--dir" && has_value)
            dir = argv[++i];
        else if (a == "--days" && has_value)
            days = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--channels" && has_value)
            channels = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--repeats" && has_value)
            repeats = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--mounts" && has_value)
            mounts = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--keep")
            keep = true;
        else if (a == "--verbose")
            verbose = true;
        else if (a == "--help" || a == "-h") {
            printf("usage: scale [--dir DIR] [--days N] [--channels N] [--repeats N] [--mounts N] "
                   "[--keep] [--verbose]\n");
            return 0;
        } else
            die("unknown argument (see --help)", a);
    }
    if (days == 0 || days > 365)
        die("--days takes 1 to 365");
    if (channels == 0 || channels > 32)
        die("--channels takes 1 to 32");
    if (repeats == 0 || mounts == 0)
        die("--repeats and --mounts take at least 1");

    start_library(verbose);
    atexit(remove_images);
    const std::string stem = dir + "/qzfs-scale-" + std::to_string(getpid());
    Image small, big;
    small.name = "small";
    small.size = kSmallSize;
    small.days = 1;
    small.path = stem + "-small.img";
    big.name = "big";
    big.size = kBigSize;
    big.days = days;
    big.path = stem + "-big.img";
    to_remove = {small.path, big.path};
    fprintf(report,
            "scale benchmark: the same calls on a small and a big image (%s); images built with the "
            "library's flushes left out and one sync at the end\n",
            dir.c_str());
    run(small);
    run(big);

    fprintf(report, "\n  %-13s %14s %14s %8s   %s\n", "measure", "small (us)", "big (us)", "ratio",
                    "(medians; p99 small / big)");
    double worst = 0;
    std::string worst_name;
    bool ratios_met = true;
    for (size_t i = 0; i < small.measures.size(); i++) {
        const Samples& a = small.measures[i].second;
        const Samples& b = big.measures[i].second;
        const double ratio = b.median / a.median;
        if (ratio > worst) {
            worst = ratio;
            worst_name = small.measures[i].first;
        }
        if (ratio > 2.0)
            ratios_met = false;
        fprintf(report, "  %-13s %14.1f %14.1f %8.2f   %.1f / %.1f (%zu samples)\n",
                small.measures[i].first.c_str(), a.median, b.median, ratio, a.p99, b.p99, a.count);
    }
    // The calendar and the date lists answer with every day held: the big
    // image's answer is --days times the small one's. Their cost for each
    // element of the answer shows whether it stays flat.
    fprintf(report, "\n  answers that grow with the days held: median cost per element of the answer\n");
    for (size_t i = 0; i < small.measures.size(); i++) {
        const Samples& a = small.measures[i].second;
        const Samples& b = big.measures[i].second;
        if (a.answer == 0 || b.answer == 0)
            continue;
        const double per_a = a.median / a.answer, per_b = b.median / b.answer;
        fprintf(report, "  %-13s small %5u %-12s %8.3f us each; big %5u, %8.3f us each; ratio %.2f\n",
                small.measures[i].first.c_str(), a.answer, a.unit, per_a, b.answer, per_b,
                per_b / per_a);
    }
    const double big_mount = big.measures[0].second.median / 1e6;
    fprintf(report, "\n  target: every ratio at most 2: %s (worst %.2f, %s)\n",
            ratios_met ? "met" : "NOT met", worst, worst_name.c_str());
    fprintf(report, "  target: cold mount of the 2 TiB image under 1 s: %s (%.3f s)\n",
            big_mount < 1.0 ? "met" : "NOT met", big_mount);
    fprintf(report, "headline: scale worst ratio %.2f (%s), 2 TiB cold mount %.3f s, big image made in %.0f s\n",
            worst, worst_name.c_str(), big_mount, big.build_seconds);
    api_qzfs_uinit();
    return 0;
}
