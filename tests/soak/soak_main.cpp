// qzfs_soak: a recorder under overwrite, for as long as it takes to fill a
// group of two disks several times over.
//
// Two sparse images are formatted and mounted, joined to one group and
// given overwrite thresholds. Each channel records from a thread of its
// own, one frame a call, at a high bit rate, and closes its segment and
// starts a new one on the group's work disk now and then (at once when the
// work disk has moved). A maintenance thread runs the big-stream pass every
// few hundred milliseconds and the small-stream pass now and then, as an
// application does; before and after each pass it takes the state of every
// segment of the group and judges what the pass took (group_snapshot.h).
// Between passes it locks segments found by a query, and unlocks some
// again; recorders lock their own segment while recording it. Lock calls
// and passes never overlap, so each pass is judged against a fixed set of
// locks.
//
// At the end every segment still locked must be unchanged and read back
// byte for byte as its recorder wrote it, and, after an unmount and a
// fresh mount, both disks must pass the consistency checks of the power-cut
// rig. The run prints what it recorded and what the passes did; its exit
// status is 0 only when no check failed.
//
//   qzfs_soak [--fill F] [--disk-mib M] [--channels N] [--pass-ms T] ...
// (--help lists all options.)
#include "disk_check.h"
#include "disk_consistency.h"
#include "disk_walk.h"
#include "frame_source.h"
#include "group_snapshot.h"
#include "segment_book.h"
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using qzfs_test::MiB;
using namespace soak;

namespace {

FILE* report = stdout;

struct Options {
    double fill = 1.5;                // recording capacities of the group to record
    unsigned long long disk_mib = 2560;
    unsigned channels = 8;
    unsigned iframe_kib = 256, pframe_kib = 48;
    unsigned pass_ms = 200;
    unsigned small_pass_every = 5;    // ticks between small-stream passes
    // Thresholds with room for the soak's pace: it records far faster than
    // real time, several hundred MB between two passes on a fast machine.
    unsigned long long reserve_mib = 128, used_mib = 256, start_mib = 768, once_mib = 192;
    // Segment lengths in stream seconds: mostly short ones, and a share of
    // long ones that outlast what a pass wants, so that passes also trim.
    unsigned segment_min_s = 20, segment_max_s = 90;
    unsigned long_min_s = 150, long_max_s = 400, long_share_pct = 25;
    unsigned work_check_s = 2;        // how often a recorder asks for the work disk
    unsigned lock_share_pct = 12;     // of the group's free space, at most held by locks
    unsigned seed = 1;
    std::string log = "/dev/null";    // the library's standard output
    unsigned debug_level = 0;         // the library's log level
};

const uint8_t kGroup = 1;
const std::vector<uint8_t> kDisks = {0, 1};
// Recording starts two minutes before midnight: the first day's recordings
// are the oldest, and passes over them work from the planner's cached list,
// which a victim on the day being recorded empties.
const _k4t_fs_date_time_ kStart = {26, 3, 14, 23, 58, 0, 0};
const _k4t_fs_date_time_ kNextDay = {26, 3, 15, 0, 0, 0, 0};
const uint8_t kStreamTypes[] = {0, 0, 0, 1, 0, 2, 0, 1};  // by channel, all big streams

void usage()
{
    fprintf(report,
            "usage: qzfs_soak [options]\n"
            "  --fill F           record F times the group's free space after format (1.5)\n"
            "  --disk-mib M       size of each of the two images (2560)\n"
            "  --channels N       recording channels, 1 to 32 (8)\n"
            "  --iframe-kib K     I-frame payload (256); --pframe-kib K  P-frame payload (48)\n"
            "  --pass-ms T        interval of the big-stream pass (200)\n"
            "  --reserve-mib, --used-mib, --start-mib, --once-mib\n"
            "                     the group's thresholds (128, 256, 768, 192)\n"
            "  --segment-s A-B    segment length in stream seconds (20-90)\n"
            "  --long-segment-s A-B, --long-share P\n"
            "                     length of long segments (150-400) and their share (25%%)\n"
            "  --lock-share P     per cent of that space locks may hold (12)\n"
            "  --seed S           random choices (1)\n"
            "  --log PATH         where the library's output goes (/dev/null)\n"
            "  --debug-level N    the library's log level (0)\n");
}

bool parse(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage();
            exit(0);
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "qzfs_soak: %s needs a value (see --help)\n", a.c_str());
            return false;
        }
        const char* v = argv[++i];
        if (a == "--fill")
            o.fill = atof(v);
        else if (a == "--disk-mib")
            o.disk_mib = strtoull(v, nullptr, 10);
        else if (a == "--channels")
            o.channels = unsigned(atoi(v));
        else if (a == "--iframe-kib")
            o.iframe_kib = unsigned(atoi(v));
        else if (a == "--pframe-kib")
            o.pframe_kib = unsigned(atoi(v));
        else if (a == "--pass-ms")
            o.pass_ms = unsigned(atoi(v));
        else if (a == "--reserve-mib")
            o.reserve_mib = strtoull(v, nullptr, 10);
        else if (a == "--used-mib")
            o.used_mib = strtoull(v, nullptr, 10);
        else if (a == "--start-mib")
            o.start_mib = strtoull(v, nullptr, 10);
        else if (a == "--once-mib")
            o.once_mib = strtoull(v, nullptr, 10);
        else if (a == "--segment-s") {
            if (sscanf(v, "%u-%u", &o.segment_min_s, &o.segment_max_s) != 2)
                o.segment_min_s = 0;
        } else if (a == "--long-segment-s") {
            if (sscanf(v, "%u-%u", &o.long_min_s, &o.long_max_s) != 2)
                o.long_min_s = 0;
        } else if (a == "--long-share")
            o.long_share_pct = unsigned(atoi(v));
        else if (a == "--lock-share")
            o.lock_share_pct = unsigned(atoi(v));
        else if (a == "--seed")
            o.seed = unsigned(atoi(v));
        else if (a == "--log")
            o.log = v;
        else if (a == "--debug-level")
            o.debug_level = unsigned(atoi(v));
        else {
            fprintf(stderr, "qzfs_soak: unknown option %s (see --help)\n", a.c_str());
            return false;
        }
    }
    if (!(o.fill > 0) || o.channels < 1 || o.channels > 32 || o.iframe_kib < 1 ||
        o.pframe_kib < 1 || o.pass_ms < 1 || o.segment_min_s < 2 ||
        o.segment_max_s < o.segment_min_s || o.long_min_s < 2 || o.long_max_s < o.long_min_s ||
        o.long_share_pct > 100 || o.disk_mib < 2200) {
        fprintf(stderr, "qzfs_soak: bad option values (see --help)\n");
        return false;
    }
    return true;
}

double seconds_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

double gib(uint64_t bytes) { return double(bytes) / double(1ULL << 30); }

class Soak {
public:
    explicit Soak(const Options& o) : o_(o) {}
    int run();
    void fail(const std::string& what);

private:
    // ---- shared state
    const Options o_;
    qzfs_test::ScratchDir scratch_;
    std::vector<std::string> images_;
    Thresholds thresholds_;
    uint64_t block_size_ = 0;
    uint64_t capacity_ = 0;  // the group's free space after format
    uint64_t target_ = 0;    // bytes to record

    std::atomic<bool> stop_{false};
    std::mutex failures_mutex_;
    std::vector<std::string> failures_;
    unsigned failures_not_kept_ = 0;

    // Held by the maintenance thread from the state before a pass to the
    // state after it, and around every lock call.
    std::mutex pass_mutex_;
    SegmentBook book_;

    // ---- figures
    std::atomic<uint64_t> written_{0}, frames_{0};
    std::atomic<unsigned> segments_created_{0}, work_disk_moves_{0};
    unsigned ticks_ = 0, big_passes_ = 0, deleting_passes_ = 0, small_passes_ = 0;
    unsigned removed_ = 0, trimmed_ = 0, live_trims_ = 0, max_eligible_ = 0;
    unsigned oldest_held_ = 0, live_cut_passes_ = 0;
    uint64_t bytes_removed_known_ = 0;
    double pass_seconds_ = 0, longest_pass_ = 0;
    bool overwriting_ = false;  // a pass has taken something
    uint64_t min_spare_ = UINT64_MAX, max_spare_ = 0, min_free_ = UINT64_MAX;
    uint64_t locked_kept_bytes_ = 0;
    unsigned locked_kept_ = 0;
    double record_seconds_ = 0;

    bool setup();
    void recorder(unsigned channel);
    void maintenance();
    void tick(std::mt19937& rng);
    // One big-stream pass, judged; true when another is wanted at once.
    bool big_pass(std::mt19937& rng, bool first);
    uint64_t hold_for_pass(std::mt19937& rng, const GroupSnapshot& before,
                           std::set<SegmentKey>& hold);
    void small_pass();
    void lock_from_query(std::mt19937& rng);
    void unlock_one(std::mt19937& rng);
    void final_checks();
    void remount_checks();
    void print_figures(double wall);
};

void Soak::fail(const std::string& what)
{
    std::lock_guard<std::mutex> g(failures_mutex_);
    if (failures_.size() < 200) {
        failures_.push_back(what);
        fprintf(report, "FAIL: %s\n", what.c_str());
    } else {
        failures_not_kept_++;
    }
    stop_ = true;
}

bool Soak::setup()
{
    for (uint8_t hdd : kDisks) {
        images_.push_back(scratch_.path("disk" + std::to_string(hdd) + ".img"));
        // The format goes through hdd_id 0, so all formats come first.
        if (qzfs_test::format_image(images_.back(), o_.disk_mib * MiB) != 0) {
            fail("formatting " + images_.back() + " failed");
            return false;
        }
    }
    for (uint8_t hdd : kDisks) {
        std::string dev = images_[hdd];
        if (api_qzfs_mount(hdd, &dev[0]) != 0 || api_qzfs_add_disk_to_group(hdd, kGroup) != 0) {
            fail("mounting " + dev + " into group " + std::to_string(kGroup) + " failed");
            return false;
        }
    }
    thresholds_ = {o_.reserve_mib * MiB, o_.used_mib * MiB, o_.start_mib * MiB, o_.once_mib * MiB};
    _qzfs_k4t_hdd_overwrite_config_ config = {thresholds_.reserve, thresholds_.used,
                                              thresholds_.start, thresholds_.once};
    if (api_qzfs_config_overwrite(kGroup, &config) != 0) {
        fail("the thresholds were refused");
        return false;
    }
    GroupSnapshot s;
    std::string error;
    if (!take_snapshot(kDisks, s, error)) {
        fail(error);
        return false;
    }
    block_size_ = gQzfsManager.get_file_system(0)->manage().block_size;
    capacity_ = s.total_free();
    target_ = uint64_t(o_.fill * double(capacity_));

    // The run stays within two days: the frame times must not pass the
    // second midnight even on a recorder twice as fast as the average.
    FrameSourceConfig c;
    c.iframe_bytes = o_.iframe_kib * 1024;
    c.pframe_bytes = o_.pframe_kib * 1024;
    const FrameSource probe(c);
    const double per_second = double(probe.frame_bytes(true) + (c.gop - 1) * probe.frame_bytes(false)) *
                              double(c.fps) / double(c.gop);
    const double stream_seconds = double(target_) / per_second / o_.channels;
    const unsigned start_second = kStart.hour * 3600u + kStart.minute * 60u + kStart.second;
    if (start_second + 2 * stream_seconds + std::max(o_.segment_max_s, o_.long_max_s) > 2 * 86000) {
        fail("the run would record past the next midnight; ask for a smaller --fill");
        return false;
    }
    fprintf(report,
            "soak: %u channels, %.1f Mbit/s each, group of %zu disks of %llu MiB "
            "(block %llu MiB), %.2f GiB free, recording %.2f GiB (%.1fx)\n",
            o_.channels, per_second * 8 / 1e6, kDisks.size(), o_.disk_mib,
            (unsigned long long)(block_size_ / MiB), gib(capacity_), gib(target_), o_.fill);
    fprintf(report,
            "soak: thresholds reserve %llu MiB, used for recording %llu MiB, start delete %llu "
            "MiB, once %llu MiB; big pass every %u ms\n",
            o_.reserve_mib, o_.used_mib, o_.start_mib, o_.once_mib, o_.pass_ms);
    return true;
}

void Soak::recorder(unsigned channel)
{
    std::mt19937 rng(o_.seed * 1000 + channel);
    FrameSourceConfig c;
    c.channel = uint8_t(channel);
    c.iframe_bytes = o_.iframe_kib * 1024;
    c.pframe_bytes = o_.pframe_kib * 1024;
    c.start = kStart;
    FrameSource source(c);
    const uint8_t stream_type = kStreamTypes[channel % sizeof(kStreamTypes)];
    std::shared_ptr<RecordedSegment> seg;
    int fd = 0;
    unsigned length_s = 0;  // stream seconds this segment is to last
    FrameBatch batch;
    std::vector<_k4t_video_frame_info_> infos;
    // Locking one's own live segment now and then: a few times over the run.
    std::uniform_int_distribution<unsigned> lock_draw(0, 599);

    auto close_segment = [&]() {
        if (api_qzfs_close_stream_segment(fd) != 0)
            fail("channel " + std::to_string(channel) + ": closing " + describe(seg->key) +
                 " failed");
        seg->open = false;
        fd = 0;
    };

    while (!stop_ && written_ < target_) {
        if (source.next_second_of_day() >= 86400) {
            // Midnight: the segment ends, the next day's frames begin.
            if (fd != 0)
                close_segment();
            c.start = kNextDay;
            source = FrameSource(c);
        }
        if (fd == 0) {
            unsigned char hdd = 255;
            if (api_qzfs_find_work_hdd(kGroup, &hdd) != 0 || hdd == 255) {
                fail("channel " + std::to_string(channel) + ": no work disk for a new segment");
                break;
            }
            const unsigned second = source.next_second_of_day();
            _k4t_fs_date_time_ at = c.start;
            at.hour = uint8_t(second / 3600);
            at.minute = uint8_t(second / 60 % 60);
            at.second = uint8_t(second % 60);
            _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(channel), stream_type, at, kGroup);
            std::lock_guard<std::mutex> g(book_.mutex);
            fd = api_qzfs_create_stream_segment(&para);
            _k4t_stream_segment_id_ id;
            if (fd <= 0 || api_qzfs_get_fd_info(fd, &id) != 0) {
                fail("channel " + std::to_string(channel) + ": creating a segment failed");
                fd = 0;
                break;
            }
            seg = std::make_shared<RecordedSegment>(key_of(id), source);
            std::string error;
            if (!book_.add(seg, error))
                fail(error);
            segments_created_++;
            length_s = rng() % 100 < o_.long_share_pct
                           ? std::uniform_int_distribution<unsigned>(o_.long_min_s, o_.long_max_s)(rng)
                           : std::uniform_int_distribution<unsigned>(o_.segment_min_s, o_.segment_max_s)(rng);
        }
        batch.clear();
        source.append_frame(batch);
        infos = batch.infos;
        const int len = int(batch.bytes.size());
        const int rc = api_qzfs_write_video_data(fd, batch.bytes.data(), len, int(infos.size()),
                                                 infos.empty() ? nullptr : infos.data());
        if (rc != len) {
            GroupSnapshot s;
            std::string error;
            const bool known = take_snapshot(kDisks, s, error);
            fail("channel " + std::to_string(channel) + ": writing frame " +
                 std::to_string(source.frame_number() - 1) + " to " + describe(seg->key) +
                 " returned " + std::to_string(rc) + " (group free: " +
                 (known ? std::to_string(s.total_free()) + " bytes" : error) + ")");
            break;
        }
        seg->frames++;
        seg->bytes += uint64_t(len);
        written_ += uint64_t(len);
        frames_++;

        // Decisions fall on I-frame boundaries: a segment always starts
        // with an I-frame.
        if (source.frame_number() % c.gop != 0)
            continue;
        const uint64_t seconds = seg->frames / c.fps;
        bool rotate = seconds >= length_s;
        if (!rotate && seconds % o_.work_check_s == 0) {
            unsigned char hdd = 255;
            if (api_qzfs_find_work_hdd(kGroup, &hdd) != 0 || hdd == 255) {
                fail("channel " + std::to_string(channel) + ": no work disk while recording");
                break;
            }
            if (hdd != std::get<0>(seg->key)) {
                rotate = true;
                work_disk_moves_++;
            }
        }
        if (rotate) {
            close_segment();
            continue;
        }
        if (lock_draw(rng) == 0 && pass_mutex_.try_lock()) {
            std::lock_guard<std::mutex> g(book_.mutex);
            const uint64_t budget = capacity_ / 100 * o_.lock_share_pct;
            std::string error;
            if (!book_.is_locked(seg->key) &&
                book_.locked_bytes() + uint64_t(length_s) * seg->bytes / (seconds + 1) <= budget &&
                !book_.lock(seg, 1 + rng() % 33, true, error))
                fail(error);
            pass_mutex_.unlock();
        }
    }
    if (fd != 0)
        close_segment();
}

void Soak::maintenance()
{
    std::mt19937 rng(o_.seed * 7919);
    const auto interval = std::chrono::milliseconds(o_.pass_ms);
    auto next = std::chrono::steady_clock::now() + interval;
    while (!stop_ && written_ < target_) {
        std::this_thread::sleep_until(next);
        next += interval;
        if (std::chrono::steady_clock::now() > next)
            next = std::chrono::steady_clock::now() + interval;
        tick(rng);
    }
}

void Soak::tick(std::mt19937& rng)
{
    std::lock_guard<std::mutex> pass(pass_mutex_);
    ticks_++;
    // When a pass took something and the spare space is still short, the
    // thread goes on at once, a few times at most, as an application that
    // wants its space back does.
    for (unsigned round = 0; round < 4 && !stop_; round++)
        if (!big_pass(rng, round == 0))
            break;
    if (ticks_ % o_.small_pass_every == 0 && !stop_)
        small_pass();
    if (stop_)
        return;
    if (rng() % 3 == 0)
        lock_from_query(rng);
    if (rng() % 6 == 0)
        unlock_one(rng);
}

// Segments held open for reading across a pass, which it must pass over.
class Readers {
public:
    explicit Readers(Soak& soak) : soak_(soak) {}
    ~Readers() { close(); }
    bool open(const SegmentKey& key)
    {
        _k4t_stream_segment_id_ id = id_of(key);
        const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
        if (fd <= 0)
            return false;
        fds_.push_back(fd);
        return true;
    }
    void close()
    {
        for (int fd : fds_)
            if (api_qzfs_close_stream_segment(fd) != 0)
                soak_.fail("closing a reader failed");
        fds_.clear();
    }

private:
    Soak& soak_;
    std::vector<int> fds_;
};

bool Soak::big_pass(std::mt19937& rng, bool first)
{
    GroupSnapshot before, after;
    std::string error;
    const uint64_t written_before = written_;
    if (!take_snapshot(kDisks, before, error)) {
        fail(error);
        return false;
    }
    PassWindow w;
    w.thresholds = thresholds_;
    const bool due = before.spare(thresholds_.used) < thresholds_.start;
    const uint64_t live_once = first && due ? hold_for_pass(rng, before, w.open_for_reading) : 0;
    Readers readers(*this);
    for (const SegmentKey& key : w.open_for_reading)
        if (!readers.open(key)) {
            fail("opening " + describe(key) + " for reading failed");
            return false;
        }
    if (live_once != 0) {
        // once_delete_size lowered for this pass to what the live
        // recording can give.
        _qzfs_k4t_hdd_overwrite_config_ config = {thresholds_.reserve, thresholds_.used,
                                                  thresholds_.start, live_once};
        if (api_qzfs_config_overwrite(kGroup, &config) != 0) {
            fail("lowering once_delete_size was refused");
            return false;
        }
        w.thresholds.once = live_once;
    }

    const auto started = std::chrono::steady_clock::now();
    w.result = api_qzfs_disk_overwrite_big_stream(kGroup);
    const double took = seconds_since(started);
    if (live_once != 0) {
        _qzfs_k4t_hdd_overwrite_config_ config = {thresholds_.reserve, thresholds_.used,
                                                  thresholds_.start, thresholds_.once};
        if (api_qzfs_config_overwrite(kGroup, &config) != 0)
            fail("restoring once_delete_size was refused");
    }
    if (!take_snapshot(kDisks, after, error)) {
        fail(error);
        return false;
    }
    readers.close();
    big_passes_++;
    pass_seconds_ += took;
    longest_pass_ = std::max(longest_pass_, took);
    w.before = &before;
    w.after = &after;
    w.written_during = written_ - written_before;
    w.recorders = o_.channels;
    w.block_size = block_size_;
    const PassVerdict v = judge_big_pass(w);
    for (const std::string& f : v.failures)
        fail("big pass " + std::to_string(big_passes_) + ": " + f);
    max_eligible_ = std::max(max_eligible_, v.eligible);
    if (v.touched()) {
        deleting_passes_++;
        overwriting_ = true;
    }
    removed_ += unsigned(v.removed.size());
    trimmed_ += unsigned(v.trimmed.size());
    for (const SegmentKey& k : v.trimmed)
        if (before.segments.at(k).recording())
            live_trims_++;
    bytes_removed_known_ += v.bytes_known;
    min_free_ = std::min(min_free_, std::min(before.total_free(), after.total_free()));
    if (overwriting_) {
        min_spare_ = std::min(min_spare_, after.spare(thresholds_.used));
        max_spare_ = std::max(max_spare_, after.spare(thresholds_.used));
    }
    return v.failures.empty() && v.touched() &&
           after.spare(thresholds_.used) < thresholds_.start;
}

// Chooses what to hold open for reading across a pass that is due to take
// something: now and then the oldest closed candidate; more rarely every
// candidate older than a long recording in progress, so that the pass must
// cut the front of that live recording. For the latter it returns the
// once_delete_size to use, which the live recording can give; else 0.
uint64_t Soak::hold_for_pass(std::mt19937& rng, const GroupSnapshot& before,
                             std::set<SegmentKey>& hold)
{
    const unsigned draw = rng() % 20;
    if (draw < 5) {
        const SegmentKey* oldest = nullptr;
        for (const auto& s : before.segments)
            if (eligible(s.first, s.second, {}) && !s.second.recording() &&
                (oldest == nullptr || s.second.owner_stamp < before.segments.at(*oldest).owner_stamp))
                oldest = &s.first;
        if (oldest != nullptr) {
            hold.insert(*oldest);
            oldest_held_++;
        }
        return 0;
    }
    if (draw >= 7)
        return 0;
    // The margin: what the index may not hold yet of the recording's end,
    // and the block of its first I-frame.
    const uint64_t margin = 4 * block_size_;
    const SegmentKey* live = nullptr;
    for (const auto& s : before.segments)
        if (eligible(s.first, s.second, {}) && s.second.recording() &&
            s.second.live_len >= 16 * MiB + 2 * margin &&
            (live == nullptr || s.second.owner_stamp < before.segments.at(*live).owner_stamp))
            live = &s.first;
    if (live == nullptr)
        return 0;
    const SegmentState& l = before.segments.at(*live);
    for (const auto& s : before.segments)
        if (eligible(s.first, s.second, {}) && s.second.owner_stamp < l.owner_stamp &&
            hold.size() < 200)
            hold.insert(s.first);
    live_cut_passes_++;
    return std::min(thresholds_.once, l.live_len - 2 * margin);
}

// The small-stream pass: the group holds big streams alone, so it must
// take nothing.
void Soak::small_pass()
{
    GroupSnapshot before, after;
    std::string error;
    if (!take_snapshot(kDisks, before, error))
        return fail(error);
    PassWindow w;
    w.thresholds = thresholds_;
    w.block_size = block_size_;
    const auto started = std::chrono::steady_clock::now();
    w.result = api_qzfs_disk_overwrite_small_stream(kGroup, 7);
    pass_seconds_ += seconds_since(started);
    small_passes_++;
    if (!take_snapshot(kDisks, after, error))
        return fail(error);
    w.before = &before;
    w.after = &after;
    for (const std::string& f : judge_idle_pass(w).failures)
        fail("small pass " + std::to_string(small_passes_) + ": " + f);
}

// Finds segments as an application does, by a query of the day, and locks
// one of them at random. The query's rows must show the new lock at once.
void Soak::lock_from_query(std::mt19937& rng)
{
    std::lock_guard<std::mutex> g(book_.mutex);
    const uint64_t budget = capacity_ / 100 * o_.lock_share_pct;
    const _k4t_fs_date_time_& day = rng() % 2 == 0 ? kStart : kNextDay;
    _k4t_stream_query_ q = whole_day_query(day.year, day.month, day.day);
    q.group_bitmap = 1u << kGroup;
    q.channel_bitmap = o_.channels >= 32 ? 0xFFFFFFFFu : (1u << o_.channels) - 1;
    q.lock_bitmap = 3;
    q.stream_type_bitmap = 7;
    const int page = 512;
    q.item_num_per_page = page;
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    if (handle < 0)
        return fail("no query handle");
    std::vector<_k4t_stream_query_result_> rows(page);
    int num = page;
    if (api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows.data()) != 0) {
        api_qzfs_close_query_stream_segment_handle(handle);
        return fail("the day's query failed");
    }
    std::vector<std::shared_ptr<RecordedSegment>> choice;
    for (int i = 0; i < num; i++) {
        _k4t_stream_segment_id_ id = {rows[i].hdd_id, rows[i].root_index, rows[i].stream_segment_index};
        std::shared_ptr<RecordedSegment> seg = book_.find(key_of(id));
        if (seg == nullptr) {
            api_qzfs_close_query_stream_segment_handle(handle);
            return fail("the query names " + describe(key_of(id)) + ", which no recorder made");
        }
        if (rows[i].lock == 0 && !book_.is_locked(seg->key) &&
            book_.locked_bytes() + seg->bytes <= budget)
            choice.push_back(seg);
    }
    if (!choice.empty()) {
        std::shared_ptr<RecordedSegment> seg = choice[rng() % choice.size()];
        const unsigned number = 1 + rng() % 33;
        std::string error;
        if (!book_.lock(seg, number, false, error)) {
            api_qzfs_close_query_stream_segment_handle(handle);
            return fail(error);
        }
        // The handle keeps the rows it found; its first page again must
        // show them with the new lock.
        num = page;
        bool shown = false;
        if (api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows.data()) == 0)
            for (int i = 0; i < num; i++) {
                _k4t_stream_segment_id_ id = {rows[i].hdd_id, rows[i].root_index,
                                              rows[i].stream_segment_index};
                if (key_of(id) == seg->key)
                    shown = rows[i].lock == 1 && rows[i].lock_type == lock_mask(number);
            }
        if (!shown)
            fail("the open query does not show the lock just made on " + describe(seg->key));
    }
    api_qzfs_close_query_stream_segment_handle(handle);
}

void Soak::unlock_one(std::mt19937& rng)
{
    std::lock_guard<std::mutex> g(book_.mutex);
    if (book_.locks().empty())
        return;
    auto it = book_.locks().begin();
    std::advance(it, rng() % book_.locks().size());
    const SegmentKey key = it->first;
    std::string error;
    if (!book_.unlock(key, error))
        fail(error);
}

void Soak::final_checks()
{
    std::lock_guard<std::mutex> g(book_.mutex);
    for (const auto& l : book_.locks()) {
        std::string error;
        if (l.second.segment->open)
            fail("locked segment " + describe(l.first) + " is still open");
        else if (!check_locked_node(l.second, error))
            fail(error);
    }
}

void Soak::remount_checks()
{
    for (uint8_t hdd : kDisks)
        if (api_qzfs_delete_disk_from_group(hdd, kGroup) != 0 || api_qzfs_umount(hdd) != 0)
            return fail("disk " + std::to_string(hdd) + " cannot be unmounted");
    for (uint8_t hdd : kDisks) {
        std::string dev = images_[hdd];
        if (api_qzfs_mount(hdd, &dev[0]) != 0)
            return fail("disk " + std::to_string(hdd) + " does not mount again");
        CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
        powercut::DiskWalk walk;
        std::string error;
        if (!powercut::walk_disk(fs, walk, error)) {
            fail("disk " + std::to_string(hdd) + " after the remount: " + error);
            continue;
        }
        // The checks of the tool's check verb.
        DiskCheckReport c;
        disk_check_walked(fs, images_[hdd], walk, c);
        for (const std::string& f : c.problems)
            fail("disk " + std::to_string(hdd) + " after the remount: " + f);
        if (c.orphans + c.index_orphans != 0)
            fail("disk " + std::to_string(hdd) + " after the remount: " +
                 std::to_string(c.orphans + c.index_orphans) +
                 " allocated blocks that nothing owns");
        fprintf(report, "soak: disk %u after the remount: %zu roots, %lu blocks in use, %zu "
                        "consistency failures\n",
                unsigned(hdd), walk.roots.size(), c.in_use, c.problems.size());
    }
    std::lock_guard<std::mutex> g(book_.mutex);
    for (const auto& l : book_.locks()) {
        std::string error;
        uint64_t bytes = 0;
        if (!check_locked_node(l.second, error) || !check_locked_content(l.second, bytes, error)) {
            fail(error);
            continue;
        }
        locked_kept_++;
        locked_kept_bytes_ += bytes;
    }
    for (uint8_t hdd : kDisks)
        if (api_qzfs_umount(hdd) != 0)
            fail("disk " + std::to_string(hdd) + " cannot be unmounted at the end");
}

void Soak::print_figures(double wall)
{
    fprintf(report, "soak: recorded %.2f GiB (%.2fx the group's free space), %llu frames, "
                    "%u segments, in %.1f s: %.1f MB/s\n",
            gib(written_), double(written_) / double(capacity_), (unsigned long long)frames_,
            unsigned(segments_created_), record_seconds_,
            double(written_) / record_seconds_ / 1e6);
    fprintf(report, "soak: %u big passes (%u took something), %u small passes; time in passes "
                    "%.2f s, longest %.1f ms\n",
            big_passes_, deleting_passes_, small_passes_, pass_seconds_, longest_pass_ * 1e3);
    fprintf(report, "soak: segments removed %u, trimmed %u (%u while recorded), %.2f GiB of closed "
                    "segments taken; up to %u candidates\n",
            removed_, trimmed_, live_trims_, gib(bytes_removed_known_), max_eligible_);
    fprintf(report, "soak: passes with the oldest candidate open for reading %u; passes with every "
                    "candidate older than a live recording open %u\n",
            oldest_held_, live_cut_passes_);
    fprintf(report, "soak: %u recorders moved to a new work disk; group free at least %.0f MiB; "
                    "spare after passes %.0f to %.0f MiB once overwriting\n",
            unsigned(work_disk_moves_), double(min_free_) / MiB,
            overwriting_ ? double(min_spare_) / MiB : 0.0, double(max_spare_) / MiB);
    fprintf(report, "soak: locks made %u (%u by recorders on their live segment), unlocked %u; "
                    "locked segments kept %u, %.2f GiB read back identical\n",
            book_.locks_made(), book_.locks_by_recorder(), book_.unlocks_made(), locked_kept_,
            gib(locked_kept_bytes_));
    fprintf(report, "soak: wall time %.1f s\n", wall);
}

int Soak::run()
{
    const auto started = std::chrono::steady_clock::now();
    if (!setup())
        return 1;
    std::vector<std::thread> threads;
    const auto recording = std::chrono::steady_clock::now();
    for (unsigned c = 0; c < o_.channels; c++)
        threads.emplace_back(&Soak::recorder, this, c);
    std::thread keeper(&Soak::maintenance, this);
    for (std::thread& t : threads)
        t.join();
    record_seconds_ = seconds_since(recording);
    keeper.join();
    if (!overwriting_ && !stop_)
        fail("no pass ever took anything: the group never filled up");
    if (book_.locks().empty() && !stop_)
        fail("no segment was locked during the run");
    final_checks();
    remount_checks();
    print_figures(seconds_since(started));
    if (failures_not_kept_ != 0)
        fprintf(report, "FAIL: %u more failures not shown\n", failures_not_kept_);
    if (!failures_.empty()) {
        fprintf(report, "soak: FAILED with %zu failures\n", failures_.size() + failures_not_kept_);
        return 1;
    }
    fprintf(report, "soak: passed\n");
    return 0;
}

// The figures go to a copy of standard output; the library's own output is
// sent to `log`.
bool split_output(const std::string& log)
{
    const int copy = dup(1);
    report = copy < 0 ? nullptr : fdopen(copy, "w");
    if (report == nullptr)
        return false;
    setvbuf(report, nullptr, _IOLBF, 0);
    fflush(stdout);
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || dup2(fd, 1) < 0)
        return false;
    close(fd);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    // A reader of the figures that goes away (a pager, head) must not kill
    // the run before it removes its images.
    signal(SIGPIPE, SIG_IGN);
    Options o;
    if (!parse(argc, argv, o))
        return 2;
    if (!split_output(o.log)) {
        fprintf(stderr, "qzfs_soak: cannot send the library's output to %s\n", o.log.c_str());
        return 2;
    }
    if (api_qzfs_init() != 0) {
        fprintf(report, "FAIL: api_qzfs_init failed\n");
        return 1;
    }
    api_qzfs_set_debug_level(o.debug_level);
    int status = 1;
    {
        Soak soak(o);
        status = soak.run();
    }
    api_qzfs_uinit();
    return status;
}
