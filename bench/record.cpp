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
//            one fsync of the file ends the run.
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
// over its channels. Raw and library runs alternate, each on a fresh image
// (every library run formats its own), and the best of the repeats of each
// side is reported:
//   MB/s       bytes written / wall time, in 10^6 bytes a second
//   ratio      library MB/s / raw MB/s
//   CPU s/GiB  user + system CPU time of the process (getrusage) per GiB
//              written, from the same best run
//
// Running it: scripts/bench builds a Release tree in build/bench and runs it;
// or by hand
//   build/bench/bench/record [--total-mib M] [--repeats R] [--channels 1,4,16,64]
//                            [--dir DIR] [--verbose]
// Images go to --dir, else $TMPDIR, else /tmp, and are removed afterwards.
// The library's own lines on standard output are dropped unless --verbose.
// The run takes one to three minutes on a two-core machine with the default
// 1 GiB; the figures depend heavily on the page cache and the disk behind it.
#include "bench_support.h"
#include "frame_source.h"
#include "qzfilesystem_api.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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

Channel make_channel(uint8_t id, unsigned long long want_bytes)
{
    FrameSourceConfig config;
    config.channel = id;
    config.fps = kFps;
    config.start = kStart;
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
        const unsigned at = kStart.hour * 3600u + kStart.minute * 60u + kStart.second +
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

// The same bytes with pwrite, each thread in its own region of the file.
Measure run_raw(const std::string& path, const std::vector<Channel>& channels)
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
    sync();
    std::atomic<bool> failed(false);
    Stopwatch watch;
    on_threads(channels.size(), [&](size_t t) {
        const Channel& ch = channels[t];
        off_t at = off_t(base + region * t);
        for (uint64_t n = 0; n < ch.frames; n++) {
            const uint32_t len = ch.length(n);
            if (pwrite(fd, ch.frame(n), len, at) != ssize_t(len)) {
                failed = true;
                return;
            }
            at += len;
        }
    });
    const double written = watch.elapsed();
    if (fsync(fd) != 0)
        failed = true;
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
Measure run_library(const std::string& path, const std::vector<Channel>& channels)
{
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
    std::vector<double> written(channels.size()), flushed(channels.size());
    Stopwatch watch;
    on_threads(channels.size(), [&](size_t t) {
        const Channel& ch = channels[t];
        const int fd = fds[t];
        size_t next_iframe = 0;
        for (uint64_t n = 0; n < ch.frames; n++) {
            const uint32_t len = ch.length(n);
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
        if (api_qzfs_fsync(fd) != 0)
            failed = true;
        flushed[t] = watch.elapsed();
        if (api_qzfs_close_stream_segment(fd) != 0)
            failed = true;
    });
    Measure m = watch.stop();
    m.written = *std::max_element(written.begin(), written.end());
    m.flushed = *std::max_element(flushed.begin(), flushed.end());
    if (api_qzfs_delete_disk_from_group(0, 0) != 0 || api_qzfs_umount(0) != 0)
        failed = true;
    unlink(path.c_str());
    if (failed)
        die("a library call failed (run with --verbose to see its log)", path);
    return m;
}

struct Best {
    Measure raw, lib;
    bool have_raw = false, have_lib = false;
};

}  // namespace

int main(int argc, char** argv)
{
    bench_name = "bench/record";
    unsigned long long total_mib = 1024;
    unsigned repeats = 2;
    std::vector<unsigned> counts = {1, 4, 16, 64};
    const char* tmp = getenv("TMPDIR");
    std::string dir = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    bool verbose = false;
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
        else if (a == "--verbose")
            verbose = true;
        else if (a == "--help" || a == "-h") {
            printf("usage: record [--total-mib M] [--repeats R] [--channels 1,4,16,64] "
                   "[--dir DIR] [--verbose]\n");
            return 0;
        } else
            die("unknown argument (see --help)", a);
    }
    if (total_mib == 0 || total_mib > 2048 || repeats == 0)
        die("--total-mib takes 1 to 2048 and --repeats at least 1");

    start_library(verbose);

    const std::string image = dir + "/qzfs-bench-" + std::to_string(getpid()) + ".img";
    fprintf(report, "recording benchmark: %llu MiB per configuration, best of %u, image %s\n",
            total_mib, repeats, image.c_str());
    fprintf(report, "%8s %10s %10s %7s %14s %14s\n", "channels", "raw MB/s", "lib MB/s", "ratio",
            "raw CPU s/GiB", "lib CPU s/GiB");
    for (unsigned count : counts) {
        std::vector<Channel> channels;
        for (unsigned c = 0; c < count; c++)
            channels.push_back(make_channel(uint8_t(c), total_mib * MiB / count));
        uint64_t bytes = 0;
        for (const Channel& ch : channels)
            bytes += ch.bytes;
        Best best;
        for (unsigned r = 0; r < repeats; r++) {
            // Alternate which side goes first.
            for (int side = 0; side < 2; side++) {
                const bool raw = (side == 0) == (r % 2 == 0);
                Measure m = raw ? run_raw(image, channels) : run_library(image, channels);
                if (verbose)
                    fprintf(report,
                            "  %u channels, %s run %u: %.3f s wall (writes done at %.3f, "
                            "flushed at %.3f), %.3f s CPU, %lu fsyncs taking %.3f s\n",
                            count, raw ? "raw" : "library", r + 1, m.wall, m.written, m.flushed,
                            m.cpu, m.fsyncs, m.fsync_seconds);
                Measure& keep = raw ? best.raw : best.lib;
                bool& have = raw ? best.have_raw : best.have_lib;
                if (!have || m.wall < keep.wall)
                    keep = m;
                have = true;
            }
        }
        const double gib = double(bytes) / double(1ULL << 30);
        const double raw_mbs = double(bytes) / best.raw.wall / 1e6;
        const double lib_mbs = double(bytes) / best.lib.wall / 1e6;
        fprintf(report, "%8u %10.1f %10.1f %7.2f %14.2f %14.2f\n", count, raw_mbs, lib_mbs,
                lib_mbs / raw_mbs, best.raw.cpu / gib, best.lib.cpu / gib);
    }
    api_qzfs_uinit();
    return 0;
}
