// bench/record: recording throughput of the library against plain pwrite.
//
// What it measures. For 1, 4, 16 and 64 channels, each channel written by a
// thread of its own, as fast as the machine allows:
//   library  a sparse disk image is formatted and mounted, joined to group 0
//            and chosen for recording; one stream segment per channel is
//            created, then every thread writes its channel's frames with one
//            api_qzfs_write_video_data call per frame (with the frame
//            description of each I-frame), then api_qzfs_fsync and
//            api_qzfs_close_stream_segment on its descriptor;
//   raw      the same bytes, in calls of the same sizes and from the same
//            number of threads, go with pwrite into a sparse file of the same
//            size, each thread sequentially within a region of its own, and
//            one fsync of the file ends the run;
//   synced   the raw writer again, flushing as the library did in the
//            library run just before it. During that run the device layer's
//            operations table is replaced by one that passes every call on
//            to the device's own operations and writes down each flush of
//            the timed part: which channel thread asked for it and how many
//            bytes of that thread's frames had been handed to the library
//            by then (up to the end of the frame whose call was under way).
//            The synced run writes the same frames from the same threads and
//            each thread flushes after the frame that takes its stream to a
//            position written down, as many times as the library did there:
//            a whole-device sync becomes fsync of the file, which is what
//            the device layer does for it; a range sync becomes
//            sync_file_range(SYNC_FILE_RANGE_WRITE) of the same range, which
//            like the device layer's msync(MS_ASYNC) starts write-back
//            without waiting for it, where fdatasync would wait for the whole
//            file. Flushes asked for by any other thread come at the end of
//            the synced run, from the main thread. The library's flushes
//            come from its I-frame index (a whole-device sync every three
//            seconds of stream time) and from api_qzfs_fsync and the close,
//            so the synced writer pays for the same flushes at the same
//            points of the same byte streams, and its end has no fsync of
//            its own.
// The frames are those of tools/frame_source.h: 25 frames a second, an
// I-frame of 60 KiB every 25 frames and P-frames of 15 KiB, each with its
// 12-byte header and 24 bytes of date-time and pts records (about 3.4 Mbit/s
// a channel, the 4 Mbit/s class of a recorder's main stream). They are made
// before the clock starts: each channel gets a pool of ten seconds of frames
// that it writes over and over, and the I-frame descriptions, with the
// simulated clock running on, are made for the whole run in advance. So the
// timed part holds nothing but the writes, the flush and the close; image
// creation, format, mount, segment creation, unmount and removal stay
// outside it.
//
// Each configuration writes the same total (1 GiB by default) split evenly
// over its channels. Raw and library runs alternate, the synced run always
// right after the library run whose flushes it replays, each on a fresh
// image (every library run formats its own), and the best of the repeats of
// each side is reported:
//   MB/s       bytes written / wall time, in 10^6 bytes a second, for the
//              raw, synced and library sides
//   ratio      library MB/s / raw MB/s
//   ratio/s    library MB/s / synced MB/s; the target is 0.95 or more at
//              every channel count, shown met or not met, and a last line
//              says whether it was met for all of them
//   syncs      the flushes of the best library run (the synced run of the
//              same repeat replays exactly as many)
//   CPU s/GiB  user + system CPU time of the process (getrusage) per GiB
//              written, from the same best run
// With --verbose every run is shown: for a library run, when its first and
// its last thread had written their frames and the seconds its threads
// spent in the closes, and its device calls: the reads, the writes, those
// of exactly 4 KiB (the I-frame index's units) and the flushes, all timed
// and summed over the threads, with the flushes that came after the frames
// (api_qzfs_fsync and the close) and those inside the closes apart. Timing
// each device call costs two clock reads; without --verbose they are only
// counted.
//
// Recording into a full group. A second table compares 16 channels (by
// default) recording into a group that overwrite keeps full with the same
// channels recording into a fresh group, in the same run:
//   fresh    two images of 4 GiB are formatted, mounted and joined
//            to one group with overwrite thresholds; the channels record
//            --overwrite-mib in all, while a maintenance thread calls the
//            big-stream pass every 200 ms (it finds enough space and takes
//            nothing);
//   full     the same, on a group that was first recorded full and then some
//            (untimed), so that the passes delete the oldest recordings all
//            along the timed part.
// As a recorder does, each channel asks for the work disk every two stream
// seconds and starts a new segment there when it has moved; both sides do
// the same. Figures: MB/s of each side, their ratio (full / fresh, the
// target is 0.9 or more), the passes run during the timed part of the full
// side and the bytes they gave back. Each image is written whole before its
// format, so that neither side pays for filling the holes of a sparse file;
// that, the filling of the full side and the format stay outside the clock.
//
// Running it: scripts/bench builds a Release tree in build/bench and runs it;
// or by hand
//   build/bench/bench/record [--total-mib M] [--repeats R] [--channels 1,4,16,64]
//                            [--overwrite-mib M] [--overwrite-channels N]
//                            [--overwrite-only] [--dir DIR] [--verbose]
// --overwrite-mib 0 leaves the second table out, --overwrite-only the first.
// Images go to --dir, else $TMPDIR, else /tmp, and are removed afterwards.
// The library's own lines on standard output are dropped unless --verbose.
// The run takes two to four minutes on a two-core machine with the default
// 1 GiB; the figures depend heavily on the page cache and the disk behind it.
#include "bench_support.h"
#include "frame_source.h"
#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_device.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Every fsync of the process, the library's included, is counted and timed
// here: flushes inside the write path are where a recorder's writes wait.
namespace {
std::atomic<unsigned long> fsync_calls(0);
std::atomic<unsigned long long> fsync_nanoseconds(0);
}  // namespace

extern "C" int fsync(int fd)
{
    const auto start = std::chrono::steady_clock::now();
    const int result = int(syscall(SYS_fsync, fd));
    fsync_nanoseconds += (unsigned long long)std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now() - start)
                             .count();
    fsync_calls++;
    return result;
}

namespace {

const unsigned long long MiB = 1ULL << 20;
const unsigned long long kImageSize = 4096 * MiB;  // room for 1 GiB and 64 channels' index blocks
const unsigned kFps = 25;
const unsigned kPoolSeconds = 10;
const _k4t_fs_date_time_ kStart = {26, 11, 21, 8, 0, 0, 0};


// One channel's frames: a pool of whole frames written in turn, and the
// description of every I-frame of the run.
struct Channel {
    uint8_t id = 0;
    std::vector<uint8_t> pool;
    std::vector<uint32_t> frame_at, frame_len;  // frames of the pool
    uint64_t frames = 0;                        // frames of the run
    uint64_t bytes = 0;                         // bytes of the run
    std::vector<_k4t_video_frame_info_> iframes;  // one per I-frame of the run, offset 0

    const uint8_t* frame(uint64_t n) const { return &pool[frame_at[n % frame_at.size()]]; }
    uint32_t length(uint64_t n) const { return frame_len[n % frame_len.size()]; }
};

Channel make_channel(uint8_t id, unsigned long long want_bytes,
                     const _k4t_fs_date_time_& start = kStart)
{
    FrameSourceConfig config;
    config.channel = id;
    config.fps = kFps;
    config.start = start;
    FrameSource source(config);
    Channel ch;
    ch.id = id;
    FrameBatch batch;
    for (unsigned i = 0; i < kPoolSeconds * kFps; i++) {
        ch.frame_at.push_back(uint32_t(batch.bytes.size()));
        source.append_frame(batch);
        ch.frame_len.push_back(uint32_t(batch.bytes.size()) - ch.frame_at.back());
    }
    ch.pool.swap(batch.bytes);

    // Whole seconds of frames, at least one.
    uint64_t pool_second = 0;
    for (unsigned i = 0; i < kFps; i++)
        pool_second += ch.frame_len[i];
    const uint64_t seconds = std::max<uint64_t>(1, (want_bytes + pool_second - 1) / pool_second);
    ch.frames = seconds * kFps;
    for (uint64_t n = 0; n < ch.frames; n++) {
        ch.bytes += ch.length(n);
        if (n % config.gop != 0)
            continue;
        const unsigned at = start.hour * 3600u + start.minute * 60u + start.second +
                            unsigned(n / kFps);
        if (at >= 86400)
            die("the run would pass midnight; ask for less data");
        const uint64_t pts = n * (90000 / kFps);
        _k4t_video_frame_info_ info = {};
        info.hour = uint8_t(at / 3600);
        info.minute = uint8_t(at / 60 % 60);
        info.second = uint8_t(at % 60);
        info.iframe_flag = 1;
        info.offset = 0;
        info.pts_high = uint32_t(pts >> 32);
        info.pts_low = uint32_t(pts);
        ch.iframes.push_back(info);
    }
    return ch;
}

// Wall and CPU time of one timed section.
struct Measure {
    double wall = 0;  // seconds
    double cpu = 0;   // user + system seconds of the whole process
    // Seconds from the start until the last thread had written its frames,
    // and until the last flush had returned (the rest is the closes).
    double written = 0, flushed = 0;
    // Library runs: when the first thread had written its frames, and the
    // seconds its threads spent in api_qzfs_close_stream_segment, summed.
    double first_written = 0, close_seconds = 0;
    unsigned long fsyncs = 0;  // fsync calls, and the seconds they took
    double fsync_seconds = 0;
};

class Stopwatch {
public:
    Stopwatch()
        : wall_(std::chrono::steady_clock::now()), cpu_(cpu_seconds()), fsyncs_(fsync_calls),
          fsync_ns_(fsync_nanoseconds)
    {
    }
    double elapsed() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_).count();
    }
    Measure stop() const
    {
        Measure m;
        m.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_).count();
        m.cpu = cpu_seconds() - cpu_;
        m.fsyncs = fsync_calls - fsyncs_;
        m.fsync_seconds = double(fsync_nanoseconds - fsync_ns_) / 1e9;
        return m;
    }

private:
    std::chrono::steady_clock::time_point wall_;
    double cpu_;
    unsigned long fsyncs_;
    unsigned long long fsync_ns_;
};

// Runs fn(i) on threads 0..n-1 and waits for them all.
template <typename Fn> void on_threads(size_t n, Fn fn)
{
    std::vector<std::thread> threads;
    threads.reserve(n);
    for (size_t i = 0; i < n; i++)
        threads.emplace_back(fn, i);
    for (std::thread& t : threads)
        t.join();
}

// ---- the library run as its device sees it

// One flush the library asked of its device during the timed part: after
// `position` bytes of the asking thread's frame stream had been handed to
// the library (the bytes of every frame up to and including the one whose
// call was under way), a whole-device sync or a range sync of `length`
// bytes at device byte `where`.
struct SyncPoint {
    uint64_t position = 0;
    bool range = false;
    unsigned long long where = 0;
    unsigned long length = 0;
};

// What one thread's device calls did during the timed part.
struct DeviceTally {
    unsigned long long writes = 0, bytes = 0;
    unsigned long long unit_writes = 0;  // writes of 4 KiB exactly: I-frame index units
    unsigned long long reads = 0, read_bytes = 0;
    double read_seconds = 0;
    unsigned long long syncs = 0, range_syncs = 0;
    double write_seconds = 0, unit_write_seconds = 0, sync_seconds = 0;
    // Flushes from the thread's api_qzfs_fsync and close, after its frames,
    // and those of the close alone (made with the disk lock held).
    unsigned long long end_syncs = 0, close_syncs = 0;
    double end_sync_seconds = 0, close_sync_seconds = 0;
    void add(const DeviceTally& o)
    {
        writes += o.writes;
        bytes += o.bytes;
        unit_writes += o.unit_writes;
        reads += o.reads;
        read_bytes += o.read_bytes;
        read_seconds += o.read_seconds;
        syncs += o.syncs;
        range_syncs += o.range_syncs;
        write_seconds += o.write_seconds;
        unit_write_seconds += o.unit_write_seconds;
        sync_seconds += o.sync_seconds;
        end_syncs += o.end_syncs;
        end_sync_seconds += o.end_sync_seconds;
        close_syncs += o.close_syncs;
        close_sync_seconds += o.close_sync_seconds;
    }
};

// Every flush of the timed part, by the channel thread that asked for it
// (the position being in that thread's own stream), and those of any
// other thread.
struct SyncSchedule {
    std::vector<std::vector<SyncPoint>> by_thread;
    std::vector<SyncPoint> others;
    unsigned long total() const
    {
        unsigned long n = others.size();
        for (const std::vector<SyncPoint>& t : by_thread)
            n += t.size();
        return n;
    }
    unsigned long ranges() const
    {
        unsigned long n = 0;
        for (const SyncPoint& p : others)
            n += p.range;
        for (const std::vector<SyncPoint>& t : by_thread)
            for (const SyncPoint& p : t)
                n += p.range;
        return n;
    }
};

// The device under the library during its run: the device's own operations
// (pwrite, pread, fsync, msync), with every flush of the timed part written
// down in the schedule, and the writes and flushes counted (and, with
// --verbose, timed) per thread. Each channel thread sets its index and its
// stream position in thread-local variables, so the recording takes no lock
// on its way; other threads share one tally under a mutex.
namespace observed {
std::atomic<bool> timing(false);
bool time_writes = false;
SyncSchedule* schedule = nullptr;
std::vector<DeviceTally>* tallies = nullptr;
std::mutex others_lock;
DeviceTally others_tally;
thread_local int channel = -1;
thread_local uint64_t position = 0;
// Where the thread is: writing its frames, in api_qzfs_fsync, in the close.
enum class Phase { frames, fsync, close };
thread_local Phase phase = Phase::frames;

double seconds_since(const std::chrono::steady_clock::time_point& start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Runs fn on the tally of the calling thread.
template <typename Fn> void tally(Fn fn)
{
    if (channel >= 0) {
        fn((*tallies)[size_t(channel)]);
    } else {
        std::lock_guard<std::mutex> g(others_lock);
        fn(others_tally);
    }
}

void note_sync(const SyncPoint& p, double seconds)
{
    if (channel >= 0) {
        (*schedule).by_thread[size_t(channel)].push_back(p);
    } else {
        std::lock_guard<std::mutex> g(others_lock);
        schedule->others.push_back(p);
    }
    tally([&](DeviceTally& t) {
        (p.range ? t.range_syncs : t.syncs)++;
        t.sync_seconds += seconds;
        if (phase != Phase::frames) {
            t.end_syncs++;
            t.end_sync_seconds += seconds;
        }
        if (phase == Phase::close) {
            t.close_syncs++;
            t.close_sync_seconds += seconds;
        }
    });
}

long long write(qzfs_dev_info* dev, unsigned long long where, const void* data,
                unsigned long length)
{
    if (!timing)
        return qzfs_file_device_ops.write(dev, where, data, length);
    if (!time_writes) {
        const long long done = qzfs_file_device_ops.write(dev, where, data, length);
        tally([&](DeviceTally& t) {
            t.writes++;
            t.bytes += length;
            t.unit_writes += length == 4096;
        });
        return done;
    }
    const auto start = std::chrono::steady_clock::now();
    const long long done = qzfs_file_device_ops.write(dev, where, data, length);
    const double seconds = seconds_since(start);
    tally([&](DeviceTally& t) {
        t.writes++;
        t.bytes += length;
        t.write_seconds += seconds;
        if (length == 4096) {
            t.unit_writes++;
            t.unit_write_seconds += seconds;
        }
    });
    return done;
}

long long read(qzfs_dev_info* dev, unsigned long long where, void* data, unsigned long length)
{
    if (!timing)
        return qzfs_file_device_ops.read(dev, where, data, length);
    const auto start = std::chrono::steady_clock::now();
    const long long done = qzfs_file_device_ops.read(dev, where, data, length);
    const double seconds = time_writes ? seconds_since(start) : 0;
    tally([&](DeviceTally& t) {
        t.reads++;
        t.read_bytes += length;
        t.read_seconds += seconds;
    });
    return done;
}

int sync(qzfs_dev_info* dev)
{
    if (!timing)
        return qzfs_file_device_ops.sync(dev);
    const auto start = std::chrono::steady_clock::now();
    const int result = qzfs_file_device_ops.sync(dev);
    SyncPoint p;
    p.position = position;
    note_sync(p, seconds_since(start));
    return result;
}

int sync_range(qzfs_dev_info* dev, unsigned long long where, unsigned long length)
{
    if (!timing)
        return qzfs_file_device_ops.sync_range(dev, where, length);
    const auto start = std::chrono::steady_clock::now();
    const int result = qzfs_file_device_ops.sync_range(dev, where, length);
    SyncPoint p;
    p.position = position;
    p.range = true;
    p.where = where;
    p.length = length;
    note_sync(p, seconds_since(start));
    return result;
}

const qzfs_block_device_ops ops = {write, read, sync, sync_range};
}  // namespace observed

// The same bytes with pwrite, each thread in its own region of the file.
// Without a schedule one fsync of the file ends the run. With the schedule
// of a library run, each thread flushes where that run's thread of the
// same index flushed: after writing the frame that brought its stream to
// the position written down, a whole-device sync becomes fsync of the file
// (what the device layer does for it) and a range sync becomes
// sync_file_range(SYNC_FILE_RANGE_WRITE) of the same device range, which
// like the device layer's msync(MS_ASYNC) starts write-back without waiting
// for it. Flushes of other threads come at the end, from the main thread.
Measure run_raw(const std::string& path, const std::vector<Channel>& channels,
                const SyncSchedule* schedule = nullptr)
{
    make_sparse(path, kImageSize);
    int fd = open(path.c_str(), O_RDWR);
    if (fd < 0)
        die("cannot open the image", path + ": " + strerror(errno));
    uint64_t region = 0;
    for (const Channel& ch : channels)
        region = std::max<uint64_t>(region, (ch.bytes + 4 * MiB - 1) / (4 * MiB) * (4 * MiB));
    const uint64_t base = 128 * MiB;  // where the library's data area begins, roughly
    if (base + region * channels.size() > kImageSize)
        die("the raw regions do not fit the image");
    if (schedule != nullptr && schedule->by_thread.size() != channels.size())
        die("the flush schedule is not for this many channels");
    auto flush = [fd](const SyncPoint& p) {
        if (!p.range)
            return fsync(fd);
        return sync_file_range(fd, off_t(p.where), off_t(qzfs_fsync_map_length(p.length)),
                               SYNC_FILE_RANGE_WRITE);
    };
    sync();
    std::atomic<bool> failed(false);
    Stopwatch watch;
    on_threads(channels.size(), [&](size_t t) {
        const Channel& ch = channels[t];
        const std::vector<SyncPoint>* points =
            schedule != nullptr ? &schedule->by_thread[t] : nullptr;
        size_t next = 0;
        off_t at = off_t(base + region * t);
        uint64_t position = 0;
        for (uint64_t n = 0; n < ch.frames; n++) {
            const uint32_t len = ch.length(n);
            if (pwrite(fd, ch.frame(n), len, at) != ssize_t(len)) {
                failed = true;
                return;
            }
            at += len;
            position += len;
            for (; points != nullptr && next < points->size() &&
                   (*points)[next].position <= position;
                 next++)
                if (flush((*points)[next]) != 0)
                    failed = true;
        }
        for (; points != nullptr && next < points->size(); next++)
            if (flush((*points)[next]) != 0)
                failed = true;
    });
    const double written = watch.elapsed();
    if (schedule == nullptr) {
        if (fsync(fd) != 0)
            failed = true;
    } else {
        for (const SyncPoint& p : schedule->others)
            if (flush(p) != 0)
                failed = true;
    }
    Measure m = watch.stop();
    m.written = written;
    m.flushed = m.wall;
    close(fd);
    unlink(path.c_str());
    if (failed)
        die("a raw write failed", path);
    return m;
}

// The library: format, mount, choose the disk, one segment per channel.
// Every flush of its timed part goes into `schedule`, and its device calls
// into `device` (timed when `time_writes`).
Measure run_library(const std::string& path, const std::vector<Channel>& channels,
                    SyncSchedule& schedule, DeviceTally& device, bool time_writes)
{
    schedule = SyncSchedule();
    schedule.by_thread.resize(channels.size());
    std::vector<DeviceTally> tallies(channels.size());
    observed::schedule = &schedule;
    observed::tallies = &tallies;
    observed::others_tally = DeviceTally();
    observed::time_writes = time_writes;
    qzfs_block_device_ops_for_new_handles = &observed::ops;
    make_sparse(path, kImageSize);
    std::string dev = path;
    char label[] = "bench";
    if (api_qzfs_format(0, &dev[0], label) != 0)
        die("format failed", path);
    if (api_qzfs_mount(0, &dev[0]) != 0)
        die("mount failed", path);
    if (api_qzfs_add_disk_to_group(0, 0) != 0)
        die("cannot add the disk to group 0");
    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
    unsigned char hdd = 255;
    if (api_qzfs_config_overwrite(0, &config) != 0 || api_qzfs_find_work_hdd(0, &hdd) != 0 || hdd != 0)
        die("the disk was not chosen for recording");
    std::vector<int> fds;
    for (const Channel& ch : channels) {
        _qzfs_k4t_create_ss_para_ para = recording_request(ch.id, 0, kStart);
        int fd = api_qzfs_create_stream_segment(&para);
        if (fd <= 0)
            die("cannot create a stream segment", "channel " + std::to_string(ch.id));
        fds.push_back(fd);
    }
    sync();
    std::atomic<bool> failed(false);
    std::vector<double> written(channels.size()), flushed(channels.size()),
        closed(channels.size());
    observed::timing = true;
    Stopwatch watch;
    on_threads(channels.size(), [&](size_t t) {
        const Channel& ch = channels[t];
        const int fd = fds[t];
        size_t next_iframe = 0;
        observed::channel = int(t);
        observed::position = 0;
        observed::phase = observed::Phase::frames;
        for (uint64_t n = 0; n < ch.frames; n++) {
            const uint32_t len = ch.length(n);
            observed::position += len;
            _k4t_video_frame_info_ info;
            int frames = 0;
            if (n % kFps == 0) {
                info = ch.iframes[next_iframe++];
                frames = 1;
            }
            if (api_qzfs_write_video_data(fd, const_cast<uint8_t*>(ch.frame(n)), int(len), frames,
                                          frames != 0 ? &info : nullptr) != int(len)) {
                failed = true;
                break;
            }
        }
        written[t] = watch.elapsed();
        observed::phase = observed::Phase::fsync;
        if (api_qzfs_fsync(fd) != 0)
            failed = true;
        flushed[t] = watch.elapsed();
        observed::phase = observed::Phase::close;
        if (api_qzfs_close_stream_segment(fd) != 0)
            failed = true;
        closed[t] = watch.elapsed();
        observed::channel = -1;
    });
    Measure m = watch.stop();
    observed::timing = false;
    m.written = *std::max_element(written.begin(), written.end());
    m.flushed = *std::max_element(flushed.begin(), flushed.end());
    m.first_written = *std::min_element(written.begin(), written.end());
    for (size_t t = 0; t < channels.size(); t++)
        m.close_seconds += closed[t] - flushed[t];
    if (api_qzfs_delete_disk_from_group(0, 0) != 0 || api_qzfs_umount(0) != 0)
        failed = true;
    qzfs_block_device_ops_for_new_handles = nullptr;
    device = observed::others_tally;
    for (const DeviceTally& t : tallies)
        device.add(t);
    observed::tallies = nullptr;
    observed::schedule = nullptr;
    unlink(path.c_str());
    if (failed)
        die("a library call failed (run with --verbose to see its log)", path);
    return m;
}

struct Best {
    Measure raw, lib, synced;
    bool have_raw = false, have_lib = false, have_synced = false;
};

// ---- recording into a full group

const unsigned char kGroup = 1;
const unsigned long long kGroupImageSize = 4096 * MiB;
const _k4t_fs_date_time_ kFillStart = {26, 11, 21, 1, 0, 0, 0};
const _k4t_fs_date_time_ kTimedStart = {26, 11, 21, 12, 0, 0, 0};
// Thresholds with room for recording far faster than real time: several
// hundred MB may go to the disks between two passes.
const _qzfs_k4t_hdd_overwrite_config_ kThresholds = {128 * MiB, 256 * MiB, 768 * MiB, 192 * MiB};
const unsigned kPassMs = 200;

// Two images formatted and mounted as disks 0 and 1, in one group with
// the thresholds above. The images are made once and formatted anew for
// every run.
class TwoDiskGroup {
public:
    explicit TwoDiskGroup(const std::string& base) : paths_{base + "-0.img", base + "-1.img"}
    {
        for (const std::string& path : paths_) {
            make_sparse(path, kGroupImageSize);
            back_every_block(path);
        }
    }
    ~TwoDiskGroup() { remove_images(); }

    void open()
    {
        for (const std::string& path : paths_) {
            std::string dev = path;
            // The format goes through disk 0: all formats come before the mounts.
            if (api_qzfs_fast_format(0, &dev[0]) != 0)
                fail("format failed", path);
        }
        for (unsigned char hdd = 0; hdd < 2; hdd++) {
            std::string dev = paths_[hdd];
            if (api_qzfs_mount(hdd, &dev[0]) != 0 || api_qzfs_add_disk_to_group(hdd, kGroup) != 0)
                fail("cannot mount the image into the group", dev);
        }
        _qzfs_k4t_hdd_overwrite_config_ config = kThresholds;
        if (api_qzfs_config_overwrite(kGroup, &config) != 0)
            fail("the thresholds were refused");
    }
    void close()
    {
        for (unsigned char hdd = 0; hdd < 2; hdd++)
            if (api_qzfs_delete_disk_from_group(hdd, kGroup) != 0 || api_qzfs_umount(hdd) != 0)
                fail("cannot unmount the group's disks");
    }
    // Free bytes of each disk, read under its disk lock.
    std::vector<uint64_t> free_bytes() const
    {
        std::vector<uint64_t> out;
        for (unsigned char hdd = 0; hdd < 2; hdd++) {
            CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
            if (fs == nullptr)
                fail("a disk of the group is gone");
            DiskLockGuard lock(*fs);
            out.push_back(uint64_t(fs->manage().free_block) * fs->manage().block_size);
        }
        return out;
    }
    uint64_t total_free() const
    {
        uint64_t sum = 0;
        for (uint64_t f : free_bytes())
            sum += f;
        return sum;
    }
    // What the big-stream pass compares with start_delete_free_size.
    uint64_t spare() const
    {
        uint64_t sum = 0;
        for (uint64_t f : free_bytes())
            if (f > kThresholds.used_for_recording_free_size)
                sum += f - kThresholds.used_for_recording_free_size;
        return sum;
    }
    [[noreturn]] void fail(const char* what, const std::string& detail = "") const
    {
        remove_images();
        die(what, detail);
    }

private:
    // Writes the whole image once, as a disk whose every block exists: the
    // fresh side would otherwise pay for the file system filling the holes
    // of a sparse file, which the full side has already paid for.
    void back_every_block(const std::string& path) const
    {
        const int fd = ::open(path.c_str(), O_RDWR);
        std::vector<uint8_t> zeros(4 * MiB, 0);
        for (uint64_t at = 0; fd >= 0 && at < kGroupImageSize; at += zeros.size())
            if (pwrite(fd, zeros.data(), zeros.size(), off_t(at)) != ssize_t(zeros.size()))
                fail("cannot write the image", path + ": " + strerror(errno));
        if (fd < 0)
            fail("cannot open the image", path + ": " + strerror(errno));
        ::close(fd);
    }
    void remove_images() const
    {
        for (const std::string& path : paths_)
            unlink(path.c_str());
    }
    std::vector<std::string> paths_;
};

// The application's maintenance thread: the big-stream pass every 200 ms,
// and at once again, a few times at most, while the spare space is short.
class PassRunner {
public:
    explicit PassRunner(const TwoDiskGroup& group) : group_(group), thread_([this] { run(); }) {}
    ~PassRunner() { stop(); }
    void stop()
    {
        {
            std::lock_guard<std::mutex> g(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }
    // Passes run and their time since the last call.
    void take_counts(unsigned& passes, double& seconds)
    {
        std::lock_guard<std::mutex> g(mutex_);
        passes = passes_;
        seconds = seconds_;
        passes_ = 0;
        seconds_ = 0;
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> g(mutex_);
        while (!wake_.wait_for(g, std::chrono::milliseconds(kPassMs), [this] { return stopping_; })) {
            g.unlock();
            unsigned passes = 0;
            double seconds = 0;
            for (unsigned round = 0; round < 4; round++) {
                const auto start = std::chrono::steady_clock::now();
                api_qzfs_disk_overwrite_big_stream(kGroup);
                seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
                               .count();
                passes++;
                if (group_.spare() >= kThresholds.start_delete_free_size)
                    break;
            }
            g.lock();
            passes_ += passes;
            seconds_ += seconds;
        }
    }

    const TwoDiskGroup& group_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    unsigned passes_ = 0;
    double seconds_ = 0;
    std::thread thread_;
};

// Records every channel into the group from a thread of its own, one frame
// a call, asking for the work disk every two stream seconds and starting a
// new segment there when it has moved. False when a call failed.
bool record_into_group(const std::vector<Channel>& channels, const _k4t_fs_date_time_& day,
                       Measure& measure)
{
    std::atomic<bool> failed(false);
    Stopwatch watch;
    on_threads(channels.size(), [&](size_t t) {
        const Channel& ch = channels[t];
        int fd = 0;
        unsigned char disk = 255;
        size_t next_iframe = 0;
        for (uint64_t n = 0; n < ch.frames && !failed; n++) {
            _k4t_video_frame_info_ info;
            int frames = 0;
            if (n % kFps == 0) {
                info = ch.iframes[next_iframe++];
                frames = 1;
                if (fd == 0 || (n / kFps) % 2 == 0) {
                    unsigned char hdd = 255;
                    if (api_qzfs_find_work_hdd(kGroup, &hdd) != 0) {
                        failed = true;
                        break;
                    }
                    if (fd != 0 && hdd != disk) {
                        if (api_qzfs_close_stream_segment(fd) != 0)
                            failed = true;
                        fd = 0;
                    }
                    if (fd == 0) {
                        _k4t_fs_date_time_ at = day;
                        at.hour = info.hour;
                        at.minute = info.minute;
                        at.second = info.second;
                        _qzfs_k4t_create_ss_para_ para = recording_request(ch.id, 0, at, kGroup);
                        fd = api_qzfs_create_stream_segment(&para);
                        _k4t_stream_segment_id_ id;
                        if (fd <= 0 || api_qzfs_get_fd_info(fd, &id) != 0) {
                            fd = 0;
                            failed = true;
                            break;
                        }
                        disk = id.hdd_id;
                    }
                }
            }
            const uint32_t len = ch.length(n);
            if (api_qzfs_write_video_data(fd, const_cast<uint8_t*>(ch.frame(n)), int(len), frames,
                                          frames != 0 ? &info : nullptr) != int(len))
                failed = true;
        }
        if (fd != 0 && (api_qzfs_fsync(fd) != 0 || api_qzfs_close_stream_segment(fd) != 0))
            failed = true;
    });
    measure = watch.stop();
    return !failed;
}

struct GroupRun {
    Measure m;
    uint64_t bytes = 0;      // written in the timed part
    unsigned passes = 0;     // during the timed part
    double pass_seconds = 0;
    uint64_t given_back = 0;  // bytes the passes freed during the timed part, about
};

// One side: the group formatted afresh, and recorded full first when `full`.
GroupRun run_group(TwoDiskGroup& group, unsigned count, unsigned long long timed_bytes, bool full)
{
    group.open();
    PassRunner passes(group);
    if (full) {
        // Everything the group holds and a quarter more: the passes are
        // deleting by the end of it.
        const uint64_t fill = group.total_free() + group.total_free() / 4;
        std::vector<Channel> filling;
        for (unsigned c = 0; c < count; c++)
            filling.push_back(make_channel(uint8_t(c), fill / count, kFillStart));
        Measure untimed;
        if (!record_into_group(filling, kFillStart, untimed))
            group.fail("recording the group full failed (run with --verbose to see the log)");
        if (group.spare() >= kThresholds.start_delete_free_size + kThresholds.once_delete_size)
            group.fail("the group is not full after the filling");
    }
    std::vector<Channel> timed;
    for (unsigned c = 0; c < count; c++)
        timed.push_back(make_channel(uint8_t(c), timed_bytes / count, kTimedStart));
    uint64_t bytes = 0;
    for (const Channel& ch : timed)
        bytes += ch.bytes;
    // The fresh side must record it all without a pass taking anything.
    if (!full && bytes + 2 * kThresholds.used_for_recording_free_size +
                         kThresholds.start_delete_free_size + 16 * 4 * MiB >
                     group.total_free())
        group.fail("--overwrite-mib is too much for a fresh group to hold");
    GroupRun run;
    passes.take_counts(run.passes, run.pass_seconds);
    const uint64_t free_before = group.total_free();
    if (!record_into_group(timed, kTimedStart, run.m))
        group.fail(full ? "recording into the full group failed (run with --verbose to see the log)"
                        : "recording into the fresh group failed (run with --verbose to see the log)");
    passes.stop();
    passes.take_counts(run.passes, run.pass_seconds);
    const uint64_t free_after = group.total_free();
    // Free space fell by what was written less what the passes gave back.
    run.given_back = free_after + bytes > free_before ? free_after + bytes - free_before : 0;
    run.bytes = bytes;
    group.close();
    return run;
}

void overwrite_table(const std::string& dir, unsigned count, unsigned long long mib,
                     unsigned repeats, bool verbose)
{
    const std::string base = dir + "/qzfs-bench-" + std::to_string(getpid()) + "-group";
    fprintf(report,
            "\nrecording into a full group with the passes running, beside a fresh group: "
            "%u channels, %llu MiB a run, best of %u, two %llu MiB images %s-{0,1}.img\n",
            count, mib, repeats, kGroupImageSize / MiB, base.c_str());
    TwoDiskGroup group(base);
    GroupRun best[2];
    bool have[2] = {false, false};
    for (unsigned r = 0; r < repeats; r++) {
        for (int side = 0; side < 2; side++) {
            const bool full = (side == 0) == (r % 2 == 1);
            GroupRun run = run_group(group, count, mib * MiB, full);
            if (verbose)
                fprintf(report,
                        "  %s group, run %u: %.3f s wall, %.3f s CPU, %u passes taking %.3f s, "
                        "%.2f GiB given back, %lu fsyncs taking %.3f s\n",
                        full ? "full" : "fresh", r + 1, run.m.wall, run.m.cpu, run.passes,
                        run.pass_seconds, double(run.given_back) / double(1ULL << 30),
                        run.m.fsyncs, run.m.fsync_seconds);
            if (!have[full] || run.m.wall < best[full].m.wall)
                best[full] = run;
            have[full] = true;
        }
    }
    fprintf(report, "%8s %10s %8s %10s %14s\n", "group", "MB/s", "passes", "pass s",
            "GiB given back");
    for (int full = 0; full < 2; full++) {
        const GroupRun& b = best[full];
        fprintf(report, "%8s %10.1f %8u %10.3f %14.2f\n", full ? "full" : "fresh",
                double(b.bytes) / b.m.wall / 1e6, b.passes, b.pass_seconds,
                double(b.given_back) / double(1ULL << 30));
    }
    const double ratio = (double(best[1].bytes) / best[1].m.wall) /
                         (double(best[0].bytes) / best[0].m.wall);
    fprintf(report, "ratio full / fresh: %.2f (target 0.90 or more)\n", ratio);
}

}  // namespace

int main(int argc, char** argv)
{
    bench_name = "bench/record";
    unsigned long long total_mib = 1024;
    unsigned repeats = 2;
    std::vector<unsigned> counts = {1, 4, 16, 64};
    std::string dir = default_image_dir();
    bool verbose = false;
    unsigned long long overwrite_mib = 4096;
    unsigned overwrite_channels = 16;
    bool overwrite_only = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--total-mib" && has_value)
            total_mib = strtoull(argv[++i], nullptr, 10);
        else if (a == "--repeats" && has_value)
            repeats = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--channels" && has_value)
            counts = parse_list(argv[++i], 200);
        else if (a == "--dir" && has_value)
            dir = argv[++i];
        else if (a == "--overwrite-mib" && has_value)
            overwrite_mib = strtoull(argv[++i], nullptr, 10);
        else if (a == "--overwrite-channels" && has_value)
            overwrite_channels = unsigned(strtoul(argv[++i], nullptr, 10));
        else if (a == "--overwrite-only")
            overwrite_only = true;
        else if (a == "--verbose")
            verbose = true;
        else if (a == "--help" || a == "-h") {
            printf("usage: record [--total-mib M] [--repeats R] [--channels 1,4,16,64] "
                   "[--overwrite-mib M] [--overwrite-channels N] [--overwrite-only] "
                   "[--dir DIR] [--verbose]\n");
            return 0;
        } else
            die("unknown argument (see --help)", a);
    }
    if (total_mib == 0 || total_mib > 2048 || repeats == 0)
        die("--total-mib takes 1 to 2048 and --repeats at least 1");
    if (overwrite_mib > 8192 || overwrite_channels == 0 || overwrite_channels > 64)
        die("--overwrite-mib takes 0 to 8192 and --overwrite-channels 1 to 64");

    start_library(verbose);
    if (overwrite_only) {
        if (overwrite_mib == 0)
            die("--overwrite-only with --overwrite-mib 0 leaves nothing to measure");
        overwrite_table(dir, overwrite_channels, overwrite_mib, repeats, verbose);
        api_qzfs_uinit();
        return 0;
    }

    const std::string image = dir + "/qzfs-bench-" + std::to_string(getpid()) + ".img";
    fprintf(report, "recording benchmark: %llu MiB per configuration, best of %u, image %s\n",
            total_mib, repeats, image.c_str());
    fprintf(report, "%8s %10s %11s %10s %7s %7s %11s %7s %14s %14s\n", "channels", "raw MB/s",
            "synced MB/s", "lib MB/s", "ratio", "ratio/s", "0.95 target", "syncs",
            "raw CPU s/GiB", "lib CPU s/GiB");
    bool all_met = true;
    for (unsigned count : counts) {
        std::vector<Channel> channels;
        for (unsigned c = 0; c < count; c++)
            channels.push_back(make_channel(uint8_t(c), total_mib * MiB / count));
        uint64_t bytes = 0;
        for (const Channel& ch : channels)
            bytes += ch.bytes;
        Best best;
        unsigned long best_syncs = 0;
        for (unsigned r = 0; r < repeats; r++) {
            // Alternate whether the raw writer goes before or after the library;
            // the synced raw writer always follows the library run whose
            // flushes it replays.
            for (int side = 0; side < 2; side++) {
                const bool raw = (side == 0) == (r % 2 == 0);
                if (raw) {
                    Measure m = run_raw(image, channels);
                    if (verbose)
                        fprintf(report,
                                "  %u channels, raw run %u: %.3f s wall (writes done at %.3f), "
                                "%.3f s CPU, %lu fsyncs taking %.3f s\n",
                                count, r + 1, m.wall, m.written, m.cpu, m.fsyncs, m.fsync_seconds);
                    if (!best.have_raw || m.wall < best.raw.wall)
                        best.raw = m;
                    best.have_raw = true;
                    continue;
                }
                SyncSchedule schedule;
                DeviceTally device;
                Measure lib = run_library(image, channels, schedule, device, verbose);
                Measure synced = run_raw(image, channels, &schedule);
                if (verbose) {
                    fprintf(report,
                            "  %u channels, library run %u: %.3f s wall (writes done at %.3f "
                            "to %.3f, flushed at %.3f, %.3f s in closes), %.3f s CPU, %lu fsyncs "
                            "taking %.3f s\n",
                            count, r + 1, lib.wall, lib.first_written, lib.written, lib.flushed,
                            lib.close_seconds, lib.cpu, lib.fsyncs, lib.fsync_seconds);
                    fprintf(report,
                            "    device: %llu reads of %.1f MiB taking %.3f s; %llu writes of "
                            "%.1f MiB taking %.3f s, of them %llu of 4 KiB (index units) taking "
                            "%.3f s; %llu syncs and %llu range syncs "
                            "taking %.3f s (%llu of them, taking %.3f s, after the frames, "
                            "%llu taking %.3f s in the closes; %lu from other threads)\n",
                            device.reads, double(device.read_bytes) / double(MiB),
                            device.read_seconds, device.writes, double(device.bytes) / double(MiB),
                            device.write_seconds, device.unit_writes, device.unit_write_seconds,
                            device.syncs, device.range_syncs, device.sync_seconds,
                            device.end_syncs, device.end_sync_seconds, device.close_syncs,
                            device.close_sync_seconds,
                            (unsigned long)schedule.others.size());
                    fprintf(report,
                            "  %u channels, raw synced run %u: %.3f s wall (writes done at %.3f), "
                            "%.3f s CPU, %lu fsyncs taking %.3f s\n",
                            count, r + 1, synced.wall, synced.written, synced.cpu, synced.fsyncs,
                            synced.fsync_seconds);
                }
                if (!best.have_lib || lib.wall < best.lib.wall) {
                    best.lib = lib;
                    best_syncs = schedule.total();
                }
                best.have_lib = true;
                if (!best.have_synced || synced.wall < best.synced.wall)
                    best.synced = synced;
                best.have_synced = true;
            }
        }
        const double gib = double(bytes) / double(1ULL << 30);
        const double raw_mbs = double(bytes) / best.raw.wall / 1e6;
        const double synced_mbs = double(bytes) / best.synced.wall / 1e6;
        const double lib_mbs = double(bytes) / best.lib.wall / 1e6;
        const bool met = lib_mbs / synced_mbs >= 0.95;
        all_met = all_met && met;
        fprintf(report, "%8u %10.1f %11.1f %10.1f %7.2f %7.2f %11s %7lu %14.2f %14.2f\n", count,
                raw_mbs, synced_mbs, lib_mbs, lib_mbs / raw_mbs, lib_mbs / synced_mbs,
                met ? "met" : "not met", best_syncs, best.raw.cpu / gib, best.lib.cpu / gib);
    }
    fprintf(report, "ratio/s (library / raw synced as the library) of 0.95 or more: %s\n",
            all_met ? "met for every channel count" : "not met for every channel count");
    if (overwrite_mib > 0)
        overwrite_table(dir, overwrite_channels, overwrite_mib, repeats, verbose);
    api_qzfs_uinit();
    return 0;
}
