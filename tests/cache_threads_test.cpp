// Several disks used at once from several threads, through index node
// caches far smaller than the disks' indexes. The root node pool, the
// segment node pool and the name table are shared by all disks: a lookup on
// one disk that finds no free slot evicts nodes cached for another disk,
// while that disk's own thread may be walking them. Every answer given under
// threads must be the one the same call gave single-threaded before.
#include "recording_support.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace qzfs_test;

namespace {

// Small enough for ThreadSanitizer and for qemu; raise them to hunt races.
const int kDateCountCalls = 300;  // calls of each thread of the date count test
const int kQueryRounds = 8;       // passes over the stream queries of a query thread
const int kCalendarRounds = 24;   // passes over the calendars and date lists
const int kReadRounds = 6;        // passes over the reads and seeks of a reader
const int kFastPlayRounds = 4;    // passes over the fast play probes
const int kWriterSegments = 10;   // segments each recorder writes under threads
const int kMountCycles = 10;      // mounts and unmounts of the fifth disk

// Node caches a fraction of what the disks hold: nearly every lookup evicts.
const uint32_t kRootCacheNodes = 6;
const uint32_t kSegmentCacheNodes = 8;

const unsigned kFps = 5;
const uint8_t kYear = 26;
const uint8_t kMonth = 11;
const uint32_t kChannels = 0x3;  // channels 0 and 1: all the probes look at
const uint64_t kStreams = 0x3;   // stream types 0 and 1

struct Segment {
    _k4t_stream_segment_id_ id = {255, 0, 0};
    uint8_t channel = 0;
    uint8_t stream_type = 0;
    _k4t_fs_date_time_ start = {};
    WrittenStream written;
};

// Frames of 3000 bytes (I) and 800 bytes (P), an I-frame a second.
FrameSource source_of(const Segment& s) { return FrameSource({s.channel, kFps, kFps, 3000, 800, s.start}); }

// One I-frame as a fast play answer holds it: its length, then its bytes.
const size_t kFrameAnswer = sizeof(int) + source_of(Segment()).frame_bytes(true);

// Creates `s` through `group`, writes `seconds` of frames one second a call,
// closes it and adds it to `into`. Returns an empty string or what failed.
std::string record_segment(unsigned char group, Segment s, unsigned seconds, std::vector<Segment>& into)
{
    _qzfs_k4t_create_ss_para_ para = recording_request(s.channel, s.stream_type, s.start, group);
    const int fd = api_qzfs_create_stream_segment(&para);
    if (fd <= 0 || api_qzfs_get_fd_info(fd, &s.id) != 0)
        return "create failed";
    FrameSource source = source_of(s);
    for (unsigned i = 0; i < seconds; i++) {
        FrameBatch batch;
        source.append_frames(batch, kFps);
        s.written.add(batch);  // before the call, which may change the frame descriptions
        const int n = api_qzfs_write_video_data(fd, batch.bytes.data(), int(batch.bytes.size()),
                                                int(batch.infos.size()), batch.infos.data());
        if (n != int(batch.bytes.size()))
            return "write returned " + std::to_string(n);
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        return "close failed";
    into.push_back(s);
    return "";
}

_k4t_fs_date_time_ at(uint8_t day, uint8_t hour, uint8_t minute, uint8_t second = 0)
{
    return {kYear, kMonth, day, hour, minute, second, 0};
}

std::string name_of(const _k4t_stream_segment_id_& id)
{
    return std::to_string(id.hdd_id) + "/" + std::to_string(id.root_index) + "/" +
           std::to_string(id.stream_segment_index);
}

// Every call is turned into a string of the raw records it gave back; a
// failure gives "ERR" and what failed instead. Answers compare whole.
template <typename T> void put(std::string& out, const T* records, size_t count = 1)
{
    out.append(reinterpret_cast<const char*>(records), count * sizeof(T));
}

// A whole-day query of `groups` for the given channels and stream types:
// free (sequence 0), or sorted in pages of three after its page count.
std::string query(uint32_t groups, uint8_t day, uint32_t channels, uint64_t stream_types, uint8_t sequence)
{
    _k4t_stream_query_ q = {groups,   channels, kYear, kMonth,       day, 0, 0, 0, 23, 59, 59,
                            sequence, 0xFF,     0xFF,  stream_types, sequence != 0 ? 3u : 0u};
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    if (handle <= 0)
        return "ERR handle";
    const int pages = sequence != 0 ? api_qzfs_get_total_page_num(handle) : 0;
    std::string out;
    put(out, &pages);
    _k4t_stream_query_result_ rows[4];
    bool ok = true;
    for (int call = 0, num = 4; ok && num > 0 && call < 200; call++) {
        num = 4;
        memset(rows, 0, sizeof(rows));
        ok = api_qzfs_query_stream_segment(handle, call == 0 ? K4T_QUERY_FIRST : K4T_QUERY_NEXT, &num, rows) == 0 &&
             num >= 0 && num <= 4;
        put(out, rows, ok ? size_t(num) : 0);
    }
    const bool closed = api_qzfs_close_query_stream_segment_handle(handle) == 0;
    return ok && closed ? out : "ERR query";
}

// The month's calendar: channel, day and record of every day marked.
std::string calendar(uint32_t groups, uint32_t channels)
{
    _k4t_calendar_stream_query_ q = {groups, channels, 0xFFFF, kStreams, kYear, kMonth, {}};
    if (api_qzfs_query_calendar(&q) != 0)
        return "ERR calendar";
    std::string out;
    for (int c = 0; c < 32; c++)
        for (int d = 0; d < 31; d++)
            if (q.day_info[c][d].record_type != 0 || q.day_info[c][d].lock != 0) {
                out += {char(c), char(d)};
                put(out, &q.day_info[c][d]);
            }
    return out;
}

// The first `count` of the 64 records a date list call filled, or the failure.
template <typename T> std::string first_of(const T (&records)[64], int count)
{
    std::string out;
    put(out, records, size_t(std::max(0, std::min(count, 64))));
    return count >= 0 && count <= 64 ? out : "ERR count";
}

std::string date_info(uint32_t groups, uint64_t stream_types, uint64_t channels)
{
    _k4t_fs_record_date_info_ infos[64];
    memset(infos, 0, sizeof(infos));
    return first_of(infos, api_qzfs_get_stream_date_info(groups, stream_types, channels, infos, 64));
}

// Appends what `fd` reads, in calls of at most `chunk` bytes, up to `most`
// bytes or the end of the data; false when a read fails.
bool read_into(std::string& out, int fd, size_t most, size_t chunk)
{
    std::vector<uint8_t> buffer(chunk);
    for (size_t got = 0; got < most;) {
        const int n = api_qzfs_read_video_data(fd, buffer.data(), int(std::min(chunk, most - got)), nullptr);
        if (n <= 0)
            return n == 0;
        out.append(buffer.begin(), buffer.begin() + n);
        got += size_t(n);
    }
    return true;
}

// Runs `body` on the descriptor `fd` just opened, and closes it. The answer
// stands only if the open, the body and the close all went well.
std::string on_open(int fd, const std::function<bool(int, std::string&)>& body)
{
    if (fd <= 0)
        return "ERR open";
    std::string out;
    const bool ok = body(fd, out);
    return api_qzfs_close_stream_segment(fd) == 0 && ok ? out : "ERR read or close";
}

std::string read_by_id(_k4t_stream_segment_id_ id)
{
    return on_open(api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0),
                   [](int fd, std::string& out) { return read_into(out, fd, 4 * MiB, 16384); });
}

// Opens at a moment and reads 3000 bytes; seeks by time to `when`, then by
// offset to byte 5000, reading 3000 bytes after each. The positions told
// come last.
std::string open_and_seek(_qzfs_k4t_stream_open_para_ para, _k4t_fs_date_time_ when)
{
    return on_open(api_qzfs_open_stream_segment_by_para(&para, 0), [&](int fd, std::string& out) {
        long long told[2] = {-1, -1};
        const bool ok = read_into(out, fd, 3000, 3000) && api_qzfs_seek_stream_segment_by_time(fd, &when) == 0 &&
                        api_qzfs_stream_segment_tell(fd, &told[0]) == 0 && read_into(out, fd, 3000, 3000) &&
                        api_qzfs_seek_stream_segment_by_offset(fd, 5000, SEEK_SET) == 0 &&
                        api_qzfs_stream_segment_tell(fd, &told[1]) == 0 && read_into(out, fd, 3000, 3000);
        put(out, told, 2);
        return ok;
    });
}

// Fast play from `id` on into the neighbouring segments of the day: forward
// from its start, or back from its end after a plain read to it.
std::string fast_play(_k4t_stream_segment_id_ id, bool forward)
{
    const int opened = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, QZFS_K4T_OSF_CONTINUE);
    return on_open(opened, [forward](int fd, std::string& out) {
        std::vector<uint8_t> chunk(forward ? 0 : 1 << 20);
        const int plain = forward ? 0 : api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), nullptr);
        put(out, &plain);
        for (int n = 0; n < 64; n++) {
            uint8_t* frame = nullptr;
            int len = 0;
            const int got = forward ? api_qzfs_read_next_iframe(fd, 0, &frame, &len, nullptr)
                                    : api_qzfs_read_pre_iframe(fd, 0, &frame, &len, nullptr);
            if (got <= 0 || frame == nullptr || len != got)
                return got == 0;
            put(out, &len);
            put(out, frame, size_t(len));
        }
        return true;
    });
}

// One question asked again and again: every answer must be `want`, what it
// answered single-threaded, which must hold at least `least` bytes.
struct Probe {
    std::string name;
    std::function<std::string()> ask;
    size_t least;
    std::string want;
};
using Probes = std::vector<Probe>;

// What one thread saw: answers checked, wrong ones, and the first of those.
struct Tally {
    int asked = 0;
    int wrong = 0;
    std::string first;
    void check(const std::string& what, const std::string& want, const std::string& got)
    {
        asked++;
        if (got == want || wrong++ > 0)
            return;
        const auto same = std::mismatch(want.begin(), want.end(), got.begin(), got.end()).first - want.begin();
        first = what + ": " + std::to_string(got.size()) + " bytes instead of " + std::to_string(want.size()) +
                ", first difference at byte " + std::to_string(same) + (got.size() < 80 ? ": " + got : "");
    }
};

void expect_clean(const std::string& who, const Tally& tally)
{
    EXPECT_GT(tally.asked, 0) << who << " checked nothing";
    EXPECT_EQ(0, tally.wrong) << who << ": wrong answers of " << tally.asked << ", the first " << tally.first;
}

void ask_rounds(const Probes& probes, int rounds, Tally& tally)
{
    for (int round = 0; round < rounds; round++)
        for (const Probe& p : probes)
            tally.check(p.name + " (round " + std::to_string(round) + ")", p.want, p.ask());
}

// Runs every job on a thread of its own, all let go at once so that they
// overlap from their first call.
void run_together(const std::vector<std::function<void()>>& jobs)
{
    std::atomic<int> waiting(int(jobs.size()));
    std::vector<std::thread> threads;
    for (const std::function<void()>& job : jobs)
        threads.emplace_back([&waiting, &job] {
            waiting--;
            while (waiting.load() > 0)
                std::this_thread::yield();
            job();
        });
    for (std::thread& t : threads)
        t.join();
}

int mount_image(unsigned char id, std::string image) { return api_qzfs_mount(id, &image[0]); }

class CacheThreads : public LibraryTest {
protected:
    void TearDown() override
    {
        // Groups outlive the library's teardown: every disk leaves them all.
        for (unsigned char id = 0; id < 5; id++) {
            for (unsigned char g = 0; g < 32; g++)
                api_qzfs_delete_disk_from_group(id, g);
            api_qzfs_umount(id);
        }
        caches_.reset();
        LibraryTest::TearDown();
    }

    // Node caches of a few nodes (the old settings back before they are
    // saved again).
    void use_small_caches()
    {
        caches_.reset();
        caches_.reset(new ScopedCacheConfig(kRootCacheNodes, kRootCacheNodes, kSegmentCacheNodes,
                                            kSegmentCacheNodes));
    }

    std::string image_for(unsigned char id) const { return scratch_.path("disk" + std::to_string(id) + ".img"); }

    // Formats `count` images (through disk slot 0, so all before the first
    // mount), mounts them, and has group `first_group + d` record onto disk
    // d alone.
    void prepare_disks(unsigned char count, unsigned char first_group)
    {
        for (unsigned char d = 0; d < count; d++)
            ASSERT_EQ(0, format_image(image_for(d), 3 * GiB)) << "image " << int(d);
        for (unsigned char d = 0; d < count; d++) {
            const unsigned char group = uint8_t(first_group + d);
            _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
            unsigned char hdd = 255;
            ASSERT_EQ(0, mount_image(d, image_for(d))) << "disk " << int(d);
            ASSERT_EQ(0, api_qzfs_add_disk_to_group(d, group));
            ASSERT_EQ(0, api_qzfs_config_overwrite(group, &config));
            ASSERT_EQ(0, api_qzfs_find_work_hdd(group, &hdd));
            ASSERT_EQ(d, hdd);
        }
    }

    void record(unsigned char group, uint8_t channel, uint8_t stream_type, _k4t_fs_date_time_ start, unsigned seconds)
    {
        ASSERT_EQ("", record_segment(group, {{255, 0, 0}, channel, stream_type, start, {}}, seconds, recorded_));
    }

    std::unique_ptr<ScopedCacheConfig> caches_;
    std::vector<Segment> recorded_;
};

// Two disks, each alone in its group, with more root nodes each than the
// whole root pool. One thread for each group counts its recording days: a
// lookup on one disk evicts the other disk's cached roots, often while the
// other thread walks them.
TEST_F(CacheThreads, DateCountsOfTwoDisksStayRightWhileEachEvictsTheOther)
{
    use_small_caches();
    // Disk 0 records 8 days of November, disk 1 11 days of December, each
    // day on two channels and two stream types: 32 and 44 root nodes. The
    // counts differ, so a root of the other disk counted by mistake shows.
    const uint8_t months[2] = {11, 12}, days[2] = {8, 11};
    static_assert(8 * 2 * 2 > kRootCacheNodes, "every disk holds more roots than the pool");
    ASSERT_NO_FATAL_FAILURE(prepare_disks(2, 0));
    for (unsigned char d = 0; d < 2; d++)
        for (uint8_t day = 1; day <= days[d]; day++)
            for (uint8_t channel = 0; channel < 2; channel++)
                for (uint8_t stream_type = 0; stream_type < 2; stream_type++)
                    ASSERT_NO_FATAL_FAILURE(record(d, channel, stream_type, {kYear, months[d], day, 9, 0, 0, 0}, 1));

    auto count_days = [](unsigned char d) { return std::to_string(api_qzfs_get_stream_date_num(1ul << d, ~0ULL)); };
    Tally tallies[2];
    std::vector<std::function<void()>> jobs;
    for (unsigned char d = 0; d < 2; d++) {
        ASSERT_EQ(std::to_string(days[d]), count_days(d)) << "group " << int(d) << ", single-threaded";
        jobs.push_back([&, d] {
            for (int call = 0; call < kDateCountCalls; call++)
                tallies[d].check("call " + std::to_string(call), std::to_string(days[d]), count_days(d));
        });
    }
    run_together(jobs);
    for (unsigned char d = 0; d < 2; d++) {
        expect_clean("group " + std::to_string(d), tallies[d]);
        EXPECT_EQ(std::to_string(days[d]), count_days(d)) << "group " << int(d) << ", after the threads";
    }
}

// Four disks in two groups, one thread mounting and unmounting a fifth, and
// eight threads at once: stream queries, calendars and date lists, reads
// and seeks, fast play, and two recorders. The recorders write channels and
// a stream type the other threads' filters leave out, on days their disks
// already hold, so that every other answer stays what it was.
const unsigned char kGroupA = 0;          // disks 0 and 1
const unsigned char kGroupB = 1;          // disks 2 and 3
const unsigned char kGroupFifth = 6;      // the fifth disk while it is mounted
const unsigned char kFirstOwnGroup = 10;  // group 10 + d records onto disk d alone
const unsigned char kFifth = 4;
const uint8_t kWriterStreamType = 2;      // the recorders' stream type, outside every filter
const uint8_t kWriterFirstChannel = 40;   // recorder w writes channel 40 + w, beyond every filter
const unsigned kSegmentSeconds = 4;

unsigned char group_of(unsigned char hdd) { return hdd < 2 ? kGroupA : hdd < 4 ? kGroupB : kGroupFifth; }

class MixedCacheThreads : public CacheThreads {
protected:
    // The segments recorded in `groups` on `day`, of `channels` and
    // `stream_types`; and the days on which `groups` recorded `channels`.
    size_t count(uint32_t groups, uint8_t day, uint32_t channels, uint64_t stream_types = kStreams) const
    {
        return size_t(std::count_if(recorded_.begin(), recorded_.end(), [&](const Segment& s) {
            return (groups >> group_of(s.id.hdd_id) & 1) && s.start.day == day && (channels >> s.channel & 1) &&
                   (stream_types >> s.stream_type & 1);
        }));
    }
    size_t days_of(uint32_t groups, uint32_t channels) const
    {
        size_t days = 0;
        for (uint8_t day = 1; day <= 31; day++)
            days += count(groups, day, channels) > 0;
        return days;
    }

    // Each day of `groups`: a free query, one for channel 1 and stream type
    // 0 alone, and a sorted one; each finds at least the rows recorded.
    void query_probes(uint32_t groups, Probes& out) const
    {
        const struct {
            const char* name;
            uint32_t channels;
            uint64_t stream_types;
            uint8_t sequence;
        } kinds[] = {{"free query", kChannels, kStreams, 0}, {"filtered query", 1u << 1, 1ULL << 0, 0},
                     {"sorted query", kChannels, kStreams, 1}};
        for (uint8_t day = 1; day <= 31; day++)
            for (const auto& k : kinds)
                if (count(groups, day, kChannels) > 0)
                    out.push_back({k.name + (" of groups " + std::to_string(groups) + " day " + std::to_string(day)),
                                   [=] { return query(groups, day, k.channels, k.stream_types, k.sequence); },
                                   sizeof(int) + count(groups, day, k.channels, k.stream_types) *
                                                     sizeof(_k4t_stream_query_result_),
                                   ""});
    }

    // The calendars of both channels and of channel 1, and the date lists:
    // every day recorded is in them.
    void calendar_probes(uint32_t groups, Probes& out) const
    {
        const std::string where = " of groups " + std::to_string(groups);
        const size_t days = days_of(groups, kChannels), entry = 6;  // channel, day and the day's record
        out.push_back({"calendar" + where, [=] { return calendar(groups, kChannels); }, days * entry, ""});
        out.push_back({"calendar of channel 1" + where, [=] { return calendar(groups, 1u << 1); },
                       days_of(groups, 1u << 1) * entry, ""});
        out.push_back({"date list" + where, [=] {
                           _k4t_fs_date_ list[64] = {};
                           return first_of(list, api_qzfs_get_stream_date_list(groups, kStreams, list, 64));
                       }, days * sizeof(_k4t_fs_date_), ""});
        out.push_back({"date info" + where, [=] { return date_info(groups, kStreams, kChannels); },
                       days * sizeof(_k4t_fs_record_date_info_), ""});
    }

    // Every segment of disk `hdd` read by id. In the first of each hour, an
    // open by time two seconds in, and the seeks. Fast forward from hour 8,
    // on through hour 9 at least, and fast back from hour 9, into hour 8 at
    // least (whose last I-frame the step back passes over).
    void segment_probes(unsigned char hdd, Probes& reads, Probes& fast_plays) const
    {
        for (const Segment& s : recorded_) {
            if (s.id.hdd_id != hdd)
                continue;
            const _k4t_stream_segment_id_ id = s.id;
            const std::string name = " of " + name_of(id);
            reads.push_back({"read" + name, [=] { return read_by_id(id); }, from_first_iframe(s.written).size(), ""});
            if (hdd == kFifth)
                continue;
            const bool forward = s.start.hour == 8;
            fast_plays.push_back({(forward ? "fast forward" : "fast back") + name, [=] { return fast_play(id, forward); },
                                  sizeof(int) + (2 * kSegmentSeconds - !forward) * kFrameAnswer, ""});
            if (id.stream_segment_index != 0)
                continue;
            const _qzfs_k4t_stream_open_para_ para = {s.channel, s.stream_type, 0xFFFF, 1u << group_of(hdd),
                                                      at(s.start.day, s.start.hour, s.start.minute, 2)};
            const _k4t_fs_date_time_ when = at(s.start.day, s.start.hour, s.start.minute, 3);
            reads.push_back({"open by time and seek" + name, [=] { return open_and_seek(para, when); },
                             3 * 3000 + 2 * sizeof(long long), ""});
        }
    }

    // Mounts the fifth disk into its group, or takes it out and unmounts it.
    bool mount_fifth(bool mount)
    {
        if (mount)
            return mount_image(kFifth, image_for(kFifth)) == 0 && api_qzfs_add_disk_to_group(kFifth, kGroupFifth) == 0;
        const bool left = api_qzfs_delete_disk_from_group(kFifth, kGroupFifth) == 0;
        return api_qzfs_umount(kFifth) == 0 && left;
    }
};

TEST_F(MixedCacheThreads, QueriesReadsFastPlayRecordingAndMountsShareTinyCaches)
{
    use_small_caches();
    // Disk d: days 21 + d to 23 + d (the groups share some days and not
    // others), channels 0 and 1, stream types 0 and 1, at hour 8 and hour 9
    // (minute 5 * d, so that the disks of a group interleave in time). The
    // fifth disk: days 27 and 28, stream type 0, hour 8 only; it is left out
    // of every group and unmounted, as its thread expects it.
    ASSERT_NO_FATAL_FAILURE(prepare_disks(kFifth + 1, kFirstOwnGroup));
    for (unsigned char d = 0; d <= kFifth; d++) {
        const bool fifth = d == kFifth;
        for (uint8_t day = fifth ? 27 : 21 + d; day <= (fifth ? 28 : 23 + d); day++)
            for (uint8_t channel = 0; channel < 2; channel++)
                for (uint8_t stream_type = 0; stream_type < (fifth ? 1 : 2); stream_type++)
                    for (uint8_t hour = 8; hour < (fifth ? 9 : 10); hour++)
                        ASSERT_NO_FATAL_FAILURE(record(uint8_t(kFirstOwnGroup + d), channel, stream_type,
                                                       at(day, hour, uint8_t(5 * d)), kSegmentSeconds));
        ASSERT_EQ(0, fifth ? api_qzfs_delete_disk_from_group(d, kFirstOwnGroup + d)
                           : api_qzfs_add_disk_to_group(d, group_of(d)));
    }
    ASSERT_EQ(0, api_qzfs_umount(kFifth));

    // The threads that ask, each its own probes. The queries of group A ask
    // A and both groups, those of B, B and both. Disks 0 and 2 are only
    // read; disks 1 and 3 are read while a recorder writes to them.
    struct Reader {
        const char* name;
        int rounds;
        Probes probes;
        Tally tally;
    } readers[] = {
        {"queries of group A", kQueryRounds, {}, {}},
        {"queries of group B", kQueryRounds, {}, {}},
        {"calendars and date lists", kCalendarRounds, {}, {}},
        {"reads of disks 0 and 2", kReadRounds, {}, {}},
        {"reads of the recorders' disks", kReadRounds, {}, {}},
        {"fast play", kFastPlayRounds, {}, {}},
    };
    const uint32_t a = 1u << kGroupA, b = 1u << kGroupB;
    for (uint32_t groups : {a, b, a | b}) {
        if (groups != b)
            query_probes(groups, readers[0].probes);
        if (groups != a)
            query_probes(groups, readers[1].probes);
        calendar_probes(groups, readers[2].probes);
    }
    for (unsigned char d = 0; d < 4; d++)
        segment_probes(d, readers[3 + d % 2].probes, readers[5].probes);
    Probes fifth;
    calendar_probes(1u << kGroupFifth, fifth);
    query_probes(1u << kGroupFifth, fifth);
    segment_probes(kFifth, fifth, fifth);

    // The answers single-threaded, with the same tiny caches.
    auto take_answers = [](Probes& probes) {
        for (Probe& p : probes) {
            p.want = p.ask();
            EXPECT_GE(p.want.size(), p.least) << p.name << " answers too little: " << p.want.substr(0, 40);
        }
    };
    for (Reader& r : readers)
        take_answers(r.probes);
    ASSERT_TRUE(mount_fifth(true));
    take_answers(fifth);
    ASSERT_TRUE(mount_fifth(false));
    ASSERT_FALSE(HasFailure()) << "the answers single-threaded are wrong already";

    std::vector<std::function<void()>> jobs;
    for (Reader& r : readers)
        jobs.push_back([&r] { ask_rounds(r.probes, r.rounds, r.tally); });
    // Recorder w writes to disk 1 + 2w, on a day the disk already holds:
    // its date range stays as it was.
    const unsigned char writer_disk[2] = {1, 3};
    const uint8_t writer_day[2] = {23, 25};
    std::vector<Segment> written[2];
    Tally writers[2];
    for (int w = 0; w < 2; w++)
        jobs.push_back([&, w] {
            for (int i = 0; i < kWriterSegments && writers[w].wrong == 0; i++) {
                const Segment s = {{255, 0, 0}, uint8_t(kWriterFirstChannel + w), kWriterStreamType,
                                   at(writer_day[w], 12, uint8_t(i)), {}};
                writers[w].check("segment " + std::to_string(i), "",
                                 record_segment(uint8_t(kFirstOwnGroup + writer_disk[w]), s, 2, written[w]));
            }
        });
    Tally mounts;
    jobs.push_back([&] {
        for (int cycle = 0; cycle < kMountCycles; cycle++) {
            const std::string in_cycle = " (cycle " + std::to_string(cycle) + ")";
            const bool mounted = mount_fifth(true);
            mounts.check("mount" + in_cycle, "done", mounted ? "done" : "failed");
            for (size_t i = 0; mounted && i < fifth.size(); i++)
                mounts.check(fifth[i].name + in_cycle, fifth[i].want, fifth[i].ask());
            mounts.check("unmount" + in_cycle, "done", mount_fifth(false) ? "done" : "failed");
        }
    });
    run_together(jobs);

    expect_clean("mounts of the fifth disk", mounts);
    for (int w = 0; w < 2; w++)
        expect_clean("recorder " + std::to_string(w), writers[w]);
    for (const Reader& r : readers)
        expect_clean(r.name, r.tally);

    // Once the threads are done, the caches give the first answers again;
    // and so do the disks themselves, read through fresh caches after every
    // disk is unmounted and mounted again.
    auto expect_first_answers = [&](const std::string& when) {
        Tally again;
        for (const Reader& r : readers)
            ask_rounds(r.probes, 1, again);
        expect_clean(when, again);
    };
    expect_first_answers("after the threads");
    for (unsigned char d = 0; d < 4; d++) {
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(d, group_of(d)));
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(d, uint8_t(kFirstOwnGroup + d)));
        ASSERT_EQ(0, api_qzfs_umount(d));
    }
    use_small_caches();
    for (unsigned char d = 0; d < 4; d++) {
        ASSERT_EQ(0, mount_image(d, image_for(d)));
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(d, group_of(d)));
    }
    expect_first_answers("after a remount");

    // What each recorder wrote reads back byte for byte from its disk, which
    // holds it on the one day it was written.
    for (int w = 0; w < 2; w++) {
        for (const Segment& s : written[w]) {
            const std::vector<uint8_t> bytes = from_first_iframe(s.written);
            EXPECT_EQ(writer_disk[w], s.id.hdd_id);
            EXPECT_TRUE(read_by_id(s.id) == std::string(bytes.begin(), bytes.end())) << "recorded " << name_of(s.id);
        }
        _k4t_fs_record_date_info_ day;
        memset(&day, 0, sizeof(day));
        day.date = {kYear, kMonth, writer_day[w], 0};
        day.record_type = 1;  // record type 0
        std::string want;
        put(want, &day);
        EXPECT_EQ(want, date_info(1u << group_of(writer_disk[w]), 1ULL << kWriterStreamType,
                                  1ULL << (kWriterFirstChannel + w))) << "recorder " << w;
    }
}

}  // namespace
