// Several disks used at once from several threads, with index node caches
// far smaller than the disks' indexes. The root node pool, the segment node
// pool and the name table are shared by all disks: a lookup on one disk
// that finds no free slot evicts nodes cached for another disk, while that
// disk's own thread may be walking the same range. Every answer given under
// threads must be the one the same call gave single-threaded before, and,
// where the test can tell, the one the recordings call for.
#include "recording_support.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace qzfs_test;

namespace {

// ------------------------------------------------------------------ bounds
// Small enough for ThreadSanitizer and for qemu; raise them to hunt races.

const int kDateCountCalls = 300;     // calls of each thread of the date count test
const int kQueryRounds = 8;          // passes over the stream queries of a query thread
const int kCalendarRounds = 24;       // passes over the calendars and date lists
const int kReadRounds = 6;           // passes over the reads and seeks of a reader
const int kFastPlayRounds = 4;       // passes over the fast play probes
const int kWriterSegments = 10;      // segments each writer records under threads
const int kMountCycles = 10;         // mounts and unmounts of the fifth disk
const size_t kMaxWrongReported = 5;  // wrong answers spelt out for each thread

// Node caches a fraction of what the disks hold: nearly every lookup evicts.
const uint32_t kRootCacheNodes = 6;
const uint32_t kSegmentCacheNodes = 8;

// Small frames, one I-frame a second: a segment of a few seconds is cheap to
// record and still has several I-frames.
const unsigned kFps = 5;
const uint32_t kIframeBytes = 3000;
const uint32_t kPframeBytes = 800;

const uint8_t kYear = 26;
const uint8_t kMonth = 11;
const _qzfs_k4t_hdd_overwrite_config_ kThresholds = {0x3200000, 0x3200000, 0x3200000, 0x3200000};
const unsigned char kNoDisk = 255;

// -------------------------------------------------------------- recordings

struct Segment {
    unsigned char group = 0;  // the recording group it was written through
    _k4t_stream_segment_id_ id = {kNoDisk, 0, 0};
    uint8_t channel = 0;
    uint8_t stream_type = 0;
    _k4t_fs_date_time_ start = {};
    WrittenStream written;
};

FrameSourceConfig frames_for(uint8_t channel, const _k4t_fs_date_time_& start)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.fps = kFps;
    config.gop = kFps;
    config.iframe_bytes = kIframeBytes;
    config.pframe_bytes = kPframeBytes;
    config.start = start;
    return config;
}

// Creates a segment through `group`, writes `seconds` of frames one second
// per call and closes it. Returns an empty string or what went wrong.
std::string record_segment(Segment& s, unsigned seconds)
{
    _qzfs_k4t_create_ss_para_ para = recording_request(s.channel, s.stream_type, s.start, s.group);
    const int fd = api_qzfs_create_stream_segment(&para);
    if (fd <= 0)
        return "create failed";
    if (api_qzfs_get_fd_info(fd, &s.id) != 0)
        return "get_fd_info failed";
    FrameSource source(frames_for(s.channel, s.start));
    FrameBatch batch;
    for (unsigned i = 0; i < seconds; i++) {
        batch.clear();
        source.append_frames(batch, kFps);
        std::vector<_k4t_video_frame_info_> infos = batch.infos;
        const int n = api_qzfs_write_video_data(fd, batch.bytes.data(), int(batch.bytes.size()),
                                                int(infos.size()), infos.data());
        if (n != int(batch.bytes.size()))
            return "write returned " + std::to_string(n);
        s.written.add(batch);
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        return "close failed";
    return "";
}

unsigned second_of(const _k4t_video_frame_info_& f) { return f.hour * 3600u + f.minute * 60u + f.second; }
unsigned second_of(const _k4t_fs_date_time_& t) { return t.hour * 3600u + t.minute * 60u + t.second; }

_k4t_fs_date_time_ at(uint8_t day, uint8_t hour, uint8_t minute, uint8_t second)
{
    return {kYear, kMonth, day, hour, minute, second, 0};
}

_k4t_fs_date_time_ plus_seconds(_k4t_fs_date_time_ t, unsigned seconds)
{
    const unsigned s = second_of(t) + seconds;
    t.hour = uint8_t(s / 3600);
    t.minute = uint8_t(s / 60 % 60);
    t.second = uint8_t(s % 60);
    return t;
}

// The stream a reader of `s` sees from its I-frame number `iframe` on (0:
// the whole segment; there is one I-frame a second).
std::string stream_from(const Segment& s, size_t iframe)
{
    const std::vector<uint8_t>& all = s.written.bytes;
    return std::string(all.begin() + long(s.written.iframes.at(iframe).offset), all.end());
}

std::string iframe_bytes(const Segment& s, size_t iframe)
{
    const uint32_t len = FrameSource(frames_for(s.channel, s.start)).frame_bytes(true);
    const uint32_t at = s.written.iframes.at(iframe).offset;
    return std::string(s.written.bytes.begin() + at, s.written.bytes.begin() + at + len);
}

std::string groups_text(uint32_t groups)
{
    char text[24];
    snprintf(text, sizeof(text), "groups 0x%x", unsigned(groups));
    return text;
}

std::string id_text(unsigned hdd, unsigned root, unsigned segment)
{
    return std::to_string(hdd) + "/" + std::to_string(root) + "/" + std::to_string(segment);
}

// --------------------------------------------------------------- answers
// Every call is turned into text, failures included, so that answers can be
// compared whole.

std::string clock_text(unsigned h, unsigned m, unsigned s)
{
    char text[16];
    snprintf(text, sizeof(text), "%02u:%02u:%02u", h % 100, m % 100, s % 100);
    return text;
}

std::string row_text(const _k4t_stream_query_result_& r)
{
    return clock_text(r.start_hour, r.start_minute, r.start_second) + "-" +
           clock_text(r.end_hour, r.end_minute, r.end_second) + " ch" + std::to_string(r.channel) +
           " st" + std::to_string(r.stream_type) + " rt" + std::to_string(r.record_type) + " lock" +
           std::to_string(r.lock) + " flags" + std::to_string(r.segment_type) + "," +
           std::to_string(r.tv_system) + "," + std::to_string(r.have_audio) + "," +
           std::to_string(r.further_flag) + "," + std::to_string(r.lock_type) + "," +
           std::to_string(r.alarm_type) + " len" + std::to_string(r.len) + " " +
           id_text(r.hdd_id, r.root_index, r.stream_segment_index) + "\n";
}

// The row a whole-day query gives for a recorded segment.
std::string row_text(const Segment& s)
{
    const _k4t_video_frame_info_& first = s.written.iframes.front();
    unsigned last = 0;
    for (const _k4t_video_frame_info_& f : s.written.iframes)
        last = std::max(last, second_of(f));
    _k4t_stream_query_result_ r;
    memset(&r, 0, sizeof(r));
    r.start_hour = first.hour;
    r.start_minute = first.minute;
    r.start_second = first.second;
    r.end_hour = uint8_t(last / 3600);
    r.end_minute = uint8_t(last / 60 % 60);
    r.end_second = uint8_t(last % 60);
    r.channel = s.channel;
    r.stream_type = s.stream_type;
    r.len = s.written.bytes.size() - first.offset;
    r.hdd_id = s.id.hdd_id;
    r.root_index = s.id.root_index;
    r.stream_segment_index = s.id.stream_segment_index;
    return row_text(r);
}

// A whole-day query of `groups`, admitting the channels and stream types of
// the two masks, everything else open.
_k4t_stream_query_ day_query(uint32_t groups, uint8_t day, uint32_t channels, uint64_t stream_types,
                             uint8_t sequence, uint32_t per_page)
{
    _k4t_stream_query_ q;
    memset(&q, 0, sizeof(q));
    q.group_bitmap = groups;
    q.channel_bitmap = channels;
    q.year = kYear;
    q.month = kMonth;
    q.day = day;
    q.end_hour = 23;
    q.end_minute = 59;
    q.end_second = 59;
    q.sequence = sequence;
    q.lock_bitmap = 0xFF;
    q.record_type_bitmap = 0xFF;
    q.stream_type_bitmap = stream_types;
    q.item_num_per_page = per_page;
    return q;
}

// All rows of a free query, four a call.
std::string free_query(_k4t_stream_query_ q)
{
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    if (handle <= 0)
        return "ERR handle " + std::to_string(handle);
    std::string out;
    _k4t_stream_query_result_ rows[4];
    for (int call = 0; call < 200; call++) {
        int num = 4;
        const int result = api_qzfs_query_stream_segment(handle, call == 0 ? K4T_QUERY_FIRST : K4T_QUERY_NEXT,
                                                         &num, rows);
        if (result != 0) {
            out += "ERR query " + std::to_string(result) + "\n";
            break;
        }
        if (num <= 0)
            break;
        for (int i = 0; i < num && i < 4; i++)
            out += row_text(rows[i]);
    }
    if (api_qzfs_close_query_stream_segment_handle(handle) != 0)
        out += "ERR close\n";
    return out;
}

// A sorted query page by page: the page count, every page from the first
// on, then a jump back to the middle page.
std::string sorted_query(_k4t_stream_query_ q)
{
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    if (handle <= 0)
        return "ERR handle " + std::to_string(handle);
    const int pages = api_qzfs_get_total_page_num(handle);
    std::string out = "pages " + std::to_string(pages) + "\n";
    _k4t_stream_query_result_ rows[8];
    auto add_page = [&](int result, int num) {
        if (result != 0) {
            out += "ERR page " + std::to_string(result) + "\n";
            return;
        }
        out += "page\n";
        for (int i = 0; i < num && i < 8; i++)
            out += row_text(rows[i]);
    };
    for (int p = 0; p < pages && p < 50; p++) {
        int num = 8;
        const int result =
            api_qzfs_query_stream_segment(handle, p == 0 ? K4T_QUERY_FIRST : K4T_QUERY_NEXT, &num, rows);
        add_page(result, num);
    }
    if (pages > 0) {
        int num = 8;
        out += "jump " + std::to_string(pages / 2) + "\n";
        const int result = api_qzfs_jump_specific_page(handle, pages / 2, &num, rows);
        add_page(result, num);
    }
    if (api_qzfs_close_query_stream_segment_handle(handle) != 0)
        out += "ERR close\n";
    return out;
}

std::string calendar_text(const _k4t_calendar_stream_query_& q)
{
    std::string out;
    for (int c = 0; c < 32; c++)
        for (int d = 0; d < 31; d++) {
            const _k4t_calendar_day_info_& i = q.day_info[c][d];
            if (i.record_type != 0 || i.lock != 0 || i.reserve != 0)
                out += "ch" + std::to_string(c) + " day" + std::to_string(d + 1) + " rt" +
                       std::to_string(i.record_type) + " lock" + std::to_string(i.lock) + " r" +
                       std::to_string(i.reserve) + "\n";
        }
    return out;
}

std::string calendar(uint32_t groups, uint32_t channels, uint64_t stream_types)
{
    _k4t_calendar_stream_query_ q;
    memset(&q, 0xA5, sizeof(q));
    q.group_bitmap = groups;
    q.channel_bitmap = channels;
    q.record_type_bitmap = 0xFFFF;
    q.stream_type_bitmap = stream_types;
    q.year = kYear;
    q.month = kMonth;
    const int result = api_qzfs_query_calendar(&q);
    if (result != 0)
        return "ERR calendar " + std::to_string(result);
    return calendar_text(q);
}

std::string date_text(const _k4t_fs_date_& d)
{
    return std::to_string(d.year) + "-" + std::to_string(d.month) + "-" + std::to_string(d.day);
}

std::string date_list(uint32_t groups, uint64_t stream_types)
{
    _k4t_fs_date_ dates[64];
    memset(dates, 0, sizeof(dates));
    const int count = api_qzfs_get_stream_date_list(groups, stream_types, dates, 64);
    std::string out = "count " + std::to_string(count) + "\n";
    for (int i = 0; i < count && i < 64; i++)
        out += date_text(dates[i]) + "\n";
    return out;
}

std::string date_info(uint32_t groups, uint64_t stream_types, uint64_t channels)
{
    _k4t_fs_record_date_info_ infos[64];
    memset(infos, 0, sizeof(infos));
    const int count = api_qzfs_get_stream_date_info(groups, stream_types, channels, infos, 64);
    std::string out = "count " + std::to_string(count) + "\n";
    for (int i = 0; i < count && i < 64; i++)
        out += date_text(infos[i].date) + " rt" + std::to_string(infos[i].record_type) + " lock" +
               std::to_string(infos[i].lock) + "\n";
    return out;
}

// Reads `fd` to the end of its data (at most 4 MiB), in calls of `chunk`.
std::string read_to_end(int fd, size_t chunk)
{
    std::string out;
    std::vector<uint8_t> buffer(chunk);
    while (out.size() < 4 * MiB) {
        const int n = api_qzfs_read_video_data(fd, buffer.data(), int(chunk), nullptr);
        if (n < 0)
            return out + "ERR read";
        if (n == 0)
            break;
        out.append(buffer.begin(), buffer.begin() + n);
    }
    return out;
}

std::string read_exactly(int fd, size_t len)
{
    std::string out;
    std::vector<uint8_t> buffer(len);
    while (out.size() < len) {
        const int n = api_qzfs_read_video_data(fd, buffer.data(), int(len - out.size()), nullptr);
        if (n <= 0)
            return out + "ERR read " + std::to_string(n);
        out.append(buffer.begin(), buffer.begin() + n);
    }
    return out;
}

std::string read_by_id(_k4t_stream_segment_id_ id)
{
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0)
        return "ERR open " + std::to_string(fd);
    std::string out = read_to_end(fd, 16384);
    if (api_qzfs_close_stream_segment(fd) != 0)
        out += "ERR close";
    return out;
}

// Opens at a moment, and answers with the segment found and all it reads.
std::string read_by_time(uint32_t groups, uint8_t channel, uint8_t stream_type, _k4t_fs_date_time_ when)
{
    _qzfs_k4t_stream_open_para_ para;
    memset(&para, 0, sizeof(para));
    para.channel = channel;
    para.stream_type = stream_type;
    para.record_type_bitmap = 0xFFFF;
    para.group_bitmap = groups;
    para.date_time = when;
    const int fd = api_qzfs_open_stream_segment_by_para(&para, 0);
    if (fd <= 0)
        return "ERR open " + std::to_string(fd);
    _k4t_stream_segment_id_ id = {kNoDisk, 0, 0};
    std::string out = api_qzfs_get_fd_info(fd, &id) == 0
                          ? id_text(id.hdd_id, id.root_index, id.stream_segment_index) + "\n"
                          : "ERR fd_info\n";
    out += read_to_end(fd, 20000);
    if (api_qzfs_close_stream_segment(fd) != 0)
        out += "ERR close";
    return out;
}

// Seeks by time to `when` and reads `len` bytes, then by offset to `offset`
// and reads `len` more; the positions reported come along.
std::string seek_and_read(_k4t_stream_segment_id_ id, _k4t_fs_date_time_ when, long long offset, size_t len)
{
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0)
        return "ERR open " + std::to_string(fd);
    std::string out;
    long long position = -1;
    if (api_qzfs_seek_stream_segment_by_time(fd, &when) != 0)
        out += "ERR seek time\n";
    else if (api_qzfs_stream_segment_tell(fd, &position) != 0)
        out += "ERR tell\n";
    else
        out += "at " + std::to_string(position) + "\n" + read_exactly(fd, len) + "\n";
    if (api_qzfs_seek_stream_segment_by_offset(fd, offset, SEEK_SET) != 0)
        out += "ERR seek offset\n";
    else if (api_qzfs_stream_segment_tell(fd, &position) != 0)
        out += "ERR tell\n";
    else
        out += "at " + std::to_string(position) + "\n" + read_exactly(fd, len) + "\n";
    if (api_qzfs_close_stream_segment(fd) != 0)
        out += "ERR close";
    return out;
}

std::string frame_text(int got, const uint8_t* buffer, int len)
{
    if (got <= 0 || buffer == nullptr || len != got)
        return "ERR frame " + std::to_string(got) + "/" + std::to_string(len) + "\n";
    return "frame " + std::to_string(len) + "\n" + std::string(buffer, buffer + len);
}

// Fast forward from the start of `id`, on into the next segments of the day.
std::string fast_forward(_k4t_stream_segment_id_ id, size_t most)
{
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, QZFS_K4T_OSF_CONTINUE);
    if (fd <= 0)
        return "ERR open " + std::to_string(fd);
    std::string out;
    for (size_t n = 0; n < most; n++) {
        uint8_t* buffer = nullptr;
        int len = 0;
        const int got = api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr);
        if (got == 0)
            break;
        out += frame_text(got, buffer, len);
        if (got < 0)
            break;
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        out += "ERR close";
    return out;
}

// Fast back from the end of `id`, after a plain read to it, on into the
// segments before it.
std::string fast_back(_k4t_stream_segment_id_ id, size_t most)
{
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, QZFS_K4T_OSF_CONTINUE);
    if (fd <= 0)
        return "ERR open " + std::to_string(fd);
    std::string out;
    std::vector<uint8_t> chunk(1 << 20);
    const int plain = api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), nullptr);
    out += "read " + std::to_string(plain) + "\n";
    for (size_t n = 0; n < most; n++) {
        uint8_t* buffer = nullptr;
        int len = 0;
        const int got = api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr);
        if (got == 0)
            break;
        out += frame_text(got, buffer, len);
        if (got < 0)
            break;
    }
    if (api_qzfs_close_stream_segment(fd) != 0)
        out += "ERR close";
    return out;
}

// ---------------------------------------------------------------- probes

// One question asked again and again. `truth` is the answer the recordings
// call for, worked out by the test from what it recorded; `want` is the
// answer the library gave single-threaded, before any thread starts, and
// must equal it.
struct Probe {
    std::string name;
    std::function<std::string()> ask;
    std::string truth;
    std::string want;
};

// Where two answers part: sizes and the first differing byte.
std::string difference(const std::string& want, const std::string& got)
{
    size_t i = 0;
    while (i < want.size() && i < got.size() && want[i] == got[i])
        i++;
    std::string out = "answer of " + std::to_string(got.size()) + " bytes instead of " +
                      std::to_string(want.size()) + ", first difference at byte " + std::to_string(i);
    // Short answers are text (or an error): show them.
    if (want.size() < 600)
        out += "\n--- wanted:\n" + want;
    if (got.size() < 600)
        out += "\n--- got:\n" + got;
    return out;
}

// What one thread saw: how many answers it checked, how many were wrong,
// and the first few wrong ones spelt out.
struct Tally {
    int asked = 0;
    int wrong = 0;
    std::vector<std::string> reports;
    void check(const std::string& what, const std::string& want, const std::string& got)
    {
        asked++;
        if (got == want)
            return;
        wrong++;
        if (reports.size() < kMaxWrongReported)
            reports.push_back(what + ": " + difference(want, got));
    }
    void fail(const std::string& what)
    {
        asked++;
        wrong++;
        if (reports.size() < kMaxWrongReported)
            reports.push_back(what);
    }
};

void expect_clean(const std::string& thread, const Tally& tally)
{
    EXPECT_GT(tally.asked, 0) << thread << " checked nothing";
    EXPECT_EQ(0, tally.wrong) << thread << ": " << tally.wrong << " wrong answers of " << tally.asked;
    for (const std::string& report : tally.reports)
        ADD_FAILURE() << thread << ": " << report;
}

// Holds every thread until all have started, so that they overlap from
// their first call.
class StartGate {
public:
    explicit StartGate(int threads) : waiting_(threads) {}
    void pass()
    {
        waiting_--;
        while (waiting_.load() > 0)
            std::this_thread::yield();
    }

private:
    std::atomic<int> waiting_;
};

// The probes of a thread whose answers were not the first ones; the first
// such probe is named in `first`.
int count_changed(const std::vector<Probe>& probes, std::string& first)
{
    int changed = 0;
    for (const Probe& p : probes) {
        const std::string got = p.ask();
        if (got != p.want && changed++ == 0)
            first = p.name + ": " + difference(p.want, got);
    }
    return changed;
}

void ask_rounds(const std::vector<const Probe*>& probes, int rounds, Tally& tally)
{
    for (int round = 0; round < rounds; round++)
        for (const Probe* p : probes)
            tally.check(p->name + " (round " + std::to_string(round) + ")", p->want, p->ask());
}

// Asks every probe once, single-threaded: the answers the threads must give.
void take_answers(std::vector<Probe>& probes)
{
    for (Probe& p : probes) {
        p.want = p.ask();
        EXPECT_FALSE(p.truth.empty()) << p.name << ": nothing to compare with";
        EXPECT_TRUE(p.want == p.truth) << p.name << ": " << difference(p.truth, p.want);
    }
}

std::vector<const Probe*> all_of(const std::vector<Probe>& probes)
{
    std::vector<const Probe*> out;
    for (const Probe& p : probes)
        out.push_back(&p);
    return out;
}

// ---------------------------------------------------------------- fixture

class CacheThreads : public LibraryTest {
protected:
    static const unsigned char kDisks = 5;   // hdd_id 0 to 4
    static const unsigned char kGroups = 32;

    void TearDown() override
    {
        // A disk leaves every group before it is unmounted; groups outlive
        // the library's teardown.
        for (unsigned char id = 0; id < kDisks; id++) {
            for (unsigned char g = 0; g < kGroups; g++)
                api_qzfs_delete_disk_from_group(id, g);
            api_qzfs_umount(id);
        }
        caches_.reset();
        LibraryTest::TearDown();
    }

    // Node caches of a few nodes, for the rest of the test. Made before any
    // disk is mounted, dropped after the last is unmounted.
    void use_small_caches()
    {
        caches_.reset();  // the old settings come back before they are saved again
        caches_.reset(new ScopedCacheConfig(kRootCacheNodes, kRootCacheNodes, kSegmentCacheNodes,
                                            kSegmentCacheNodes));
    }

    std::string image_for(unsigned char id) const { return scratch_.path("disk" + std::to_string(id) + ".img"); }

    // Formatting goes through disk slot 0: every image is formatted before
    // the first is mounted.
    void format_images(unsigned char count)
    {
        for (unsigned char id = 0; id < count; id++)
            ASSERT_EQ(0, format_image(image_for(id), 3 * GiB)) << "image " << int(id);
    }

    void mount_disk(unsigned char id)
    {
        std::string dev = image_for(id);
        ASSERT_EQ(0, api_qzfs_mount(id, &dev[0]));
    }

    // `group` records onto disk `id` alone.
    static void recording_group(unsigned char id, unsigned char group)
    {
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(id, group));
        _qzfs_k4t_hdd_overwrite_config_ config = kThresholds;
        ASSERT_EQ(0, api_qzfs_config_overwrite(group, &config));
        unsigned char hdd = kNoDisk;
        ASSERT_EQ(0, api_qzfs_find_work_hdd(group, &hdd));
        ASSERT_EQ(id, hdd);
    }

    // Records one segment of `seconds` and keeps it in `recorded_`.
    void record(unsigned char group, uint8_t channel, uint8_t stream_type, const _k4t_fs_date_time_& start,
                unsigned seconds)
    {
        Segment s;
        s.group = group;
        s.channel = channel;
        s.stream_type = stream_type;
        s.start = start;
        ASSERT_EQ("", record_segment(s, seconds));
        recorded_.push_back(std::move(s));
    }

    std::unique_ptr<ScopedCacheConfig> caches_;
    std::vector<Segment> recorded_;  // in the order recorded
};

// ------------------------------------------------ the date count repro
// Two disks, each alone in its group, with more root nodes each than the
// whole root pool. One thread for each group counts its recording days: a
// lookup on one disk evicts the other disk's cached roots, often while the
// other thread walks them.

struct DayPlan {
    uint8_t month;
    uint8_t days;
};

TEST_F(CacheThreads, DateCountsOfTwoDisksStayRightWhileEachEvictsTheOther)
{
    use_small_caches();
    // Disk 0 records 8 days of November, disk 1 11 days of December, each
    // day on two channels and two stream types: 32 and 44 root nodes for a
    // pool of kRootCacheNodes. The counts differ, so a root of the other
    // disk counted by mistake shows too.
    const DayPlan plans[2] = {{11, 8}, {12, 11}};
    ASSERT_NO_FATAL_FAILURE(format_images(2));
    for (unsigned char d = 0; d < 2; d++) {
        ASSERT_NO_FATAL_FAILURE(mount_disk(d));
        ASSERT_NO_FATAL_FAILURE(recording_group(d, d));
        for (uint8_t day = 1; day <= plans[d].days; day++)
            for (uint8_t channel = 0; channel < 2; channel++)
                for (uint8_t stream_type = 0; stream_type < 2; stream_type++) {
                    const _k4t_fs_date_time_ start = {kYear, plans[d].month, day, 9, 0, 0, 0};
                    ASSERT_NO_FATAL_FAILURE(record(d, channel, stream_type, start, 1));
                }
    }
    static_assert(8 * 2 * 2 > kRootCacheNodes, "every disk holds more roots than the pool");

    const uint64_t kEveryStreamType = ~0ULL;
    int want[2];
    for (unsigned char d = 0; d < 2; d++) {
        want[d] = api_qzfs_get_stream_date_num(1ul << d, kEveryStreamType);
        ASSERT_EQ(int(plans[d].days), want[d]) << "group " << int(d) << ", single-threaded";
    }

    Tally tallies[2];
    StartGate gate(2);
    std::vector<std::thread> threads;
    for (unsigned char d = 0; d < 2; d++)
        threads.emplace_back([d, &want, &tallies, &gate] {
            gate.pass();
            for (int call = 0; call < kDateCountCalls; call++) {
                const int got = api_qzfs_get_stream_date_num(1ul << d, kEveryStreamType);
                tallies[d].check("call " + std::to_string(call), std::to_string(want[d]), std::to_string(got));
            }
        });
    for (std::thread& t : threads)
        t.join();
    for (unsigned char d = 0; d < 2; d++)
        expect_clean("group " + std::to_string(d), tallies[d]);

    // And the caches are still sound afterwards.
    for (unsigned char d = 0; d < 2; d++)
        EXPECT_EQ(want[d], api_qzfs_get_stream_date_num(1ul << d, kEveryStreamType)) << "group " << int(d);
}

// ---------------------------------------------------------- the mixed suite
// Four disks in two groups, one thread mounting and unmounting a fifth, and
// eight threads at once: stream queries, calendars and date lists, reads
// and seeks, fast play, and two recorders. The recorders write channels and
// a stream type the other threads' filters leave out, on days their disks
// already hold, so that every other answer stays what it was before the
// threads started.

const unsigned char kGroupA = 0;          // disks 0 and 1
const unsigned char kGroupB = 1;          // disks 2 and 3
const unsigned char kGroupFifth = 6;      // the fifth disk while it is mounted
const unsigned char kFirstOwnGroup = 10;  // group 10 + d records onto disk d alone
const unsigned char kFifth = 4;
const uint32_t kAdmittedChannels = 0x3;   // channels 0 and 1: all the probes look at
const uint64_t kAdmittedStreams = 0x3;    // stream types 0 and 1
const uint8_t kWriterStreamType = 2;      // the recorders' stream type, outside every filter
const uint8_t kWriterFirstChannel = 40;   // recorder w writes channel 40 + w, beyond every filter
const unsigned kSegmentSeconds = 4;

unsigned char group_of(unsigned char hdd) { return hdd < 2 ? kGroupA : hdd < 4 ? kGroupB : kGroupFifth; }

// Disk d records days 21 + d to 23 + d, so the groups share some days and
// not others; the fifth disk days 27 and 28.
std::vector<uint8_t> days_of(unsigned char hdd)
{
    if (hdd == kFifth)
        return {27, 28};
    return {uint8_t(21 + hdd), uint8_t(22 + hdd), uint8_t(23 + hdd)};
}

class MixedCacheThreads : public CacheThreads {
protected:
    // Each disk: every day of days_of, channels 0 and 1, stream types 0 and
    // 1, two segments each (hour 8 and hour 9; minute 5 * disk, so that the
    // disks of a group interleave in time). The fifth disk: one segment for
    // each day and channel, stream type 0.
    void record_everything()
    {
        ASSERT_NO_FATAL_FAILURE(format_images(kFifth + 1));
        for (unsigned char d = 0; d <= kFifth; d++) {
            ASSERT_NO_FATAL_FAILURE(mount_disk(d));
            ASSERT_NO_FATAL_FAILURE(recording_group(d, uint8_t(kFirstOwnGroup + d)));
            const uint8_t streams = d == kFifth ? 1 : 2;
            const uint8_t segments = d == kFifth ? 1 : 2;
            for (uint8_t day : days_of(d))
                for (uint8_t channel = 0; channel < 2; channel++)
                    for (uint8_t stream_type = 0; stream_type < streams; stream_type++)
                        for (uint8_t k = 0; k < segments; k++) {
                            ASSERT_NO_FATAL_FAILURE(record(uint8_t(kFirstOwnGroup + d), channel, stream_type,
                                                           at(day, uint8_t(8 + k), uint8_t(5 * d), 0),
                                                           kSegmentSeconds));
                        }
            if (d != kFifth) {
                ASSERT_EQ(0, api_qzfs_add_disk_to_group(d, group_of(d)));
            }
        }
        // The fifth disk is out of every group and unmounted, as its thread
        // expects it.
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(kFifth, kFirstOwnGroup + kFifth));
        ASSERT_EQ(0, api_qzfs_umount(kFifth));
    }

    static bool in_groups(uint32_t groups, const Segment& s)
    {
        return ((groups >> group_of(s.id.hdd_id)) & 1u) != 0;
    }

    // The recorded segments of `groups`, in the order a query scans them:
    // by disk, then root index, then segment index.
    std::vector<const Segment*> scan_order(uint32_t groups) const
    {
        std::vector<const Segment*> out;
        for (const Segment& s : recorded_)
            if (in_groups(groups, s))
                out.push_back(&s);
        std::stable_sort(out.begin(), out.end(), [](const Segment* a, const Segment* b) {
            if (a->id.hdd_id != b->id.hdd_id)
                return a->id.hdd_id < b->id.hdd_id;
            if (a->id.root_index != b->id.root_index)
                return a->id.root_index < b->id.root_index;
            return a->id.stream_segment_index < b->id.stream_segment_index;
        });
        return out;
    }

    std::vector<const Segment*> matching(uint32_t groups, uint8_t day, uint32_t channels,
                                         uint64_t stream_types) const
    {
        std::vector<const Segment*> out;
        for (const Segment* s : scan_order(groups))
            if (s->start.day == day && ((channels >> s->channel) & 1u) != 0 &&
                ((stream_types >> s->stream_type) & 1u) != 0)
                out.push_back(s);
        return out;
    }

    std::string free_truth(uint32_t groups, uint8_t day, uint32_t channels, uint64_t stream_types) const
    {
        std::string out;
        for (const Segment* s : matching(groups, day, channels, stream_types))
            out += row_text(*s);
        return out;
    }

    // Ascending by start; equal starts by channel, then in scan order.
    std::string sorted_truth(uint32_t groups, uint8_t day, uint32_t channels, uint64_t stream_types,
                             size_t per_page) const
    {
        std::vector<const Segment*> rows = matching(groups, day, channels, stream_types);
        std::stable_sort(rows.begin(), rows.end(), [](const Segment* a, const Segment* b) {
            if (second_of(a->start) != second_of(b->start))
                return second_of(a->start) < second_of(b->start);
            return a->channel < b->channel;
        });
        const size_t pages = (rows.size() + per_page - 1) / per_page;
        auto page = [&](size_t p) {
            std::string out = "page\n";
            for (size_t i = p * per_page; i < rows.size() && i < (p + 1) * per_page; i++)
                out += row_text(*rows[i]);
            return out;
        };
        std::string out = "pages " + std::to_string(pages) + "\n";
        for (size_t p = 0; p < pages; p++)
            out += page(p);
        if (pages > 0)
            out += "jump " + std::to_string(pages / 2) + "\n" + page(pages / 2);
        return out;
    }

    std::string calendar_truth(uint32_t groups, uint32_t channels) const
    {
        _k4t_calendar_stream_query_ q;
        memset(&q, 0, sizeof(q));
        for (const Segment* s : scan_order(groups))
            if (((channels >> s->channel) & 1u) != 0 && ((kAdmittedStreams >> s->stream_type) & 1u) != 0)
                q.day_info[s->channel][s->start.day - 1].record_type = 1;  // record type 0
        return calendar_text(q);
    }

    // Days in the order met: by disk, then root.
    std::vector<uint8_t> days_met(uint32_t groups, uint64_t channels) const
    {
        std::vector<uint8_t> days;
        for (const Segment* s : scan_order(groups))
            if (((channels >> s->channel) & 1u) != 0 &&
                std::find(days.begin(), days.end(), s->start.day) == days.end())
                days.push_back(s->start.day);
        return days;
    }

    std::string date_list_truth(uint32_t groups) const
    {
        const std::vector<uint8_t> days = days_met(groups, ~0ULL);
        std::string out = "count " + std::to_string(days.size()) + "\n";
        for (uint8_t day : days)
            out += date_text({kYear, kMonth, day, 0}) + "\n";
        return out;
    }

    std::string date_info_truth(uint32_t groups, uint64_t channels) const
    {
        const std::vector<uint8_t> days = days_met(groups, channels);
        std::string out = "count " + std::to_string(days.size()) + "\n";
        for (uint8_t day : days)
            out += date_text({kYear, kMonth, day, 0}) + " rt1 lock0\n";
        return out;
    }

    // The segments a fast player goes through from `first` on, forward: the
    // same channel, stream type and day in the group of its disk, by start.
    std::vector<const Segment*> day_sequence(const Segment& first) const
    {
        std::vector<const Segment*> out;
        for (const Segment* s : scan_order(1u << group_of(first.id.hdd_id)))
            if (s->channel == first.channel && s->stream_type == first.stream_type &&
                s->start.day == first.start.day)
                out.push_back(s);
        std::stable_sort(out.begin(), out.end(), [](const Segment* a, const Segment* b) {
            return second_of(a->start) < second_of(b->start);
        });
        return out;
    }

    static std::string frames_truth(const std::vector<const Segment*>& segments, bool forward)
    {
        std::string out;
        for (const Segment* s : segments)
            for (size_t i = 0; i < s->written.iframes.size(); i++) {
                const std::string bytes = iframe_bytes(*s, i);
                out += "frame " + std::to_string(bytes.size()) + "\n" + bytes;
            }
        if (forward)
            return out;
        // Back: the same frames, last first. Going back into an earlier
        // segment, the reader is placed on its last I-frame (the open by time
        // seeks there), so that frame is passed over: the first one shown is
        // the one before it.
        std::string back;
        for (auto it = segments.rbegin(); it != segments.rend(); ++it) {
            const size_t count = (*it)->written.iframes.size();
            for (size_t i = it == segments.rbegin() ? count : count - 1; i-- > 0;) {
                const std::string bytes = iframe_bytes(**it, i);
                back += "frame " + std::to_string(bytes.size()) + "\n" + bytes;
            }
        }
        return back;
    }

    // Probes of the stream queries of `groups`: each day of theirs, free
    // and unfiltered, free for channel 1 and stream type 0, sorted in pages
    // of three.
    void query_probes(uint32_t groups, std::vector<Probe>& out) const
    {
        std::vector<uint8_t> days;
        for (const Segment* s : scan_order(groups))
            if (std::find(days.begin(), days.end(), s->start.day) == days.end())
                days.push_back(s->start.day);
        for (uint8_t day : days) {
            const std::string where = groups_text(groups) + " day " + std::to_string(day);
            out.push_back({"free query " + where,
                           [=] { return free_query(day_query(groups, day, kAdmittedChannels, kAdmittedStreams, 0, 0)); },
                           free_truth(groups, day, kAdmittedChannels, kAdmittedStreams), ""});
            out.push_back({"filtered query " + where,
                           [=] { return free_query(day_query(groups, day, 1u << 1, 1ULL << 0, 0, 0)); },
                           free_truth(groups, day, 1u << 1, 1ULL << 0), ""});
            out.push_back({"sorted query " + where,
                           [=] { return sorted_query(day_query(groups, day, kAdmittedChannels, kAdmittedStreams, 1, 3)); },
                           sorted_truth(groups, day, kAdmittedChannels, kAdmittedStreams, 3), ""});
        }
    }

    void calendar_probes(uint32_t groups, std::vector<Probe>& out) const
    {
        const std::string where = groups_text(groups);
        out.push_back({"calendar " + where, [=] { return calendar(groups, kAdmittedChannels, kAdmittedStreams); },
                       calendar_truth(groups, kAdmittedChannels), ""});
        out.push_back({"calendar of channel 1 " + where,
                       [=] { return calendar(groups, 1u << 1, kAdmittedStreams); }, calendar_truth(groups, 1u << 1),
                       ""});
        out.push_back({"date list " + where, [=] { return date_list(groups, kAdmittedStreams); },
                       date_list_truth(groups), ""});
        out.push_back({"date info " + where, [=] { return date_info(groups, kAdmittedStreams, kAdmittedChannels); },
                       date_info_truth(groups, kAdmittedChannels), ""});
    }

    // Reads of every segment of disk `hdd` by id; for the first segment of
    // each root, an open by time two seconds into it and a seek by time and
    // by offset.
    void read_probes(unsigned char hdd, std::vector<Probe>& out) const
    {
        for (const Segment& s : recorded_) {
            if (s.id.hdd_id != hdd)
                continue;
            const std::string name = id_text(s.id.hdd_id, s.id.root_index, s.id.stream_segment_index);
            const _k4t_stream_segment_id_ id = s.id;
            out.push_back({"read " + name, [=] { return read_by_id(id); }, stream_from(s, 0), ""});
            if (s.id.stream_segment_index != 0)
                continue;
            const _k4t_fs_date_time_ when = plus_seconds(s.start, 2);
            const uint32_t groups = 1u << group_of(hdd);
            const uint8_t channel = s.channel, stream_type = s.stream_type;
            out.push_back({"open by time " + name,
                           [=] { return read_by_time(groups, channel, stream_type, when); },
                           name + "\n" + stream_from(s, 2), ""});
            const _k4t_fs_date_time_ seek_to = plus_seconds(s.start, 3);
            const size_t len = 3000;
            const long long offset = 5000;
            const std::string stream = stream_from(s, 0);
            const size_t third = s.written.iframes.at(3).offset - s.written.iframes.at(0).offset;
            out.push_back({"seek " + name, [=] { return seek_and_read(id, seek_to, offset, len); },
                           "at " + std::to_string(third) + "\n" + stream.substr(third, len) + "\nat " +
                               std::to_string(offset) + "\n" + stream.substr(size_t(offset), len) + "\n",
                           ""});
        }
    }

    // Fast forward from the first segment of each channel, stream type and
    // day of disk `hdd` through the group's segments of that day, and fast
    // back from the last of them.
    void fast_play_probes(unsigned char hdd, std::vector<Probe>& out) const
    {
        for (const Segment& s : recorded_) {
            if (s.id.hdd_id != hdd)
                continue;
            const std::vector<const Segment*> day = day_sequence(s);
            if (day.front() != &s)
                continue;
            const std::string name = id_text(s.id.hdd_id, s.id.root_index, s.id.stream_segment_index);
            const _k4t_stream_segment_id_ first = s.id, last = day.back()->id;
            const size_t frames = day.size() * kSegmentSeconds;
            out.push_back({"fast forward from " + name, [=] { return fast_forward(first, frames + 4); },
                           frames_truth(day, true), ""});
            const std::string plain = "read " + std::to_string(stream_from(*day.back(), 0).size()) + "\n";
            out.push_back({"fast back from the end of the day of " + name,
                           [=] { return fast_back(last, frames + 4); }, plain + frames_truth(day, false), ""});
        }
    }

    // What the fifth disk's thread asks while the disk is mounted.
    void fifth_disk_probes(std::vector<Probe>& out) const
    {
        const uint32_t groups = 1u << kGroupFifth;
        calendar_probes(groups, out);
        query_probes(groups, out);
        for (const Segment& s : recorded_)
            if (s.id.hdd_id == kFifth) {
                const _k4t_stream_segment_id_ id = s.id;
                out.push_back({"read fifth disk " + id_text(id.hdd_id, id.root_index, id.stream_segment_index),
                               [=] { return read_by_id(id); }, stream_from(s, 0), ""});
            }
    }

    static std::string mount_fifth(const std::string& image)
    {
        std::string dev = image;
        if (api_qzfs_mount(kFifth, &dev[0]) != 0)
            return "mount failed";
        if (api_qzfs_add_disk_to_group(kFifth, kGroupFifth) != 0)
            return "joining its group failed";
        return "";
    }

    static std::string unmount_fifth()
    {
        if (api_qzfs_delete_disk_from_group(kFifth, kGroupFifth) != 0)
            return "leaving its group failed";
        if (api_qzfs_umount(kFifth) != 0)
            return "umount failed";
        return "";
    }
};

// A recorder under threads: `count` segments of channel 40 + w, stream type
// 2, on one day of its disk, two seconds each.
struct Recorder {
    unsigned char hdd;
    uint8_t day;
    std::vector<Segment> segments;
    std::string failure;
    void run(int w, int count)
    {
        for (int i = 0; i < count && failure.empty(); i++) {
            Segment s;
            s.group = uint8_t(kFirstOwnGroup + hdd);
            s.channel = uint8_t(kWriterFirstChannel + w);
            s.stream_type = kWriterStreamType;
            s.start = at(day, 12, uint8_t(i), 0);
            failure = record_segment(s, 2);
            if (failure.empty())
                segments.push_back(std::move(s));
        }
    }
};

TEST_F(MixedCacheThreads, QueriesReadsFastPlayRecordingAndMountsShareTinyCaches)
{
    use_small_caches();
    ASSERT_NO_FATAL_FAILURE(record_everything());

    const uint32_t a = 1u << kGroupA, b = 1u << kGroupB, both = a | b;
    std::vector<Probe> queries_a, queries_b, calendars, reads_own, reads_shared, fast_play, fifth;
    query_probes(a, queries_a);
    query_probes(both, queries_a);
    query_probes(b, queries_b);
    query_probes(both, queries_b);
    for (uint32_t groups : {a, b, both})
        calendar_probes(groups, calendars);
    // Disks 0 and 2 are read only; disks 1 and 3 are read while a recorder
    // writes to them.
    read_probes(0, reads_own);
    read_probes(2, reads_own);
    read_probes(1, reads_shared);
    read_probes(3, reads_shared);
    for (unsigned char d = 0; d < 4; d++)
        fast_play_probes(d, fast_play);
    fifth_disk_probes(fifth);

    // The answers single-threaded, with the same tiny caches.
    for (std::vector<Probe>* probes : {&queries_a, &queries_b, &calendars, &reads_own, &reads_shared, &fast_play})
        take_answers(*probes);
    ASSERT_EQ("", mount_fifth(image_for(kFifth)));
    take_answers(fifth);
    ASSERT_EQ("", unmount_fifth());
    ASSERT_FALSE(HasFailure()) << "the answers single-threaded are wrong already";

    // Recorder w writes to disk 1 + 2w, on a day it already holds: the
    // disk's date range stays as it was.
    Recorder recorders[2] = {{1, 23, {}, ""}, {3, 25, {}, ""}};

    struct Reader {
        const char* name;
        const std::vector<Probe>* probes;
        int rounds;
    };
    const Reader readers[] = {
        {"queries of group A", &queries_a, kQueryRounds},
        {"queries of group B", &queries_b, kQueryRounds},
        {"calendars and date lists", &calendars, kCalendarRounds},
        {"reads of disks 0 and 2", &reads_own, kReadRounds},
        {"reads of the recorders' disks", &reads_shared, kReadRounds},
        {"fast play", &fast_play, kFastPlayRounds},
    };
    const size_t kReaders = sizeof(readers) / sizeof(readers[0]);
    std::vector<Tally> tallies(kReaders);
    Tally fifth_tally;
    StartGate gate(int(kReaders) + 2 + 1);
    std::vector<std::thread> threads;
    for (size_t r = 0; r < kReaders; r++)
        threads.emplace_back([&, r] {
            gate.pass();
            ask_rounds(all_of(*readers[r].probes), readers[r].rounds, tallies[r]);
        });
    for (int w = 0; w < 2; w++)
        threads.emplace_back([&, w] {
            gate.pass();
            recorders[w].run(w, kWriterSegments);
        });
    threads.emplace_back([&] {
        gate.pass();
        const std::string image = image_for(kFifth);
        for (int cycle = 0; cycle < kMountCycles; cycle++) {
            const std::string mounted = mount_fifth(image);
            if (!mounted.empty()) {
                fifth_tally.fail("cycle " + std::to_string(cycle) + ": " + mounted);
                api_qzfs_delete_disk_from_group(kFifth, kGroupFifth);
                api_qzfs_umount(kFifth);
                continue;
            }
            for (const Probe& p : fifth)
                fifth_tally.check(p.name + " (cycle " + std::to_string(cycle) + ")", p.want, p.ask());
            const std::string unmounted = unmount_fifth();
            if (!unmounted.empty())
                fifth_tally.fail("cycle " + std::to_string(cycle) + ": " + unmounted);
        }
    });
    for (std::thread& t : threads)
        t.join();

    for (size_t r = 0; r < kReaders; r++)
        expect_clean(readers[r].name, tallies[r]);
    expect_clean("mounts of the fifth disk", fifth_tally);

    for (int w = 0; w < 2; w++)
        EXPECT_EQ("", recorders[w].failure) << "recorder " << w;

    // Once the threads are done, the caches give the first answers again.
    std::vector<std::vector<Probe>*> all = {&queries_a, &queries_b, &calendars, &reads_own, &reads_shared,
                                            &fast_play};
    for (std::vector<Probe>* probes : all) {
        std::string first;
        EXPECT_EQ(0, count_changed(*probes, first)) << "after the threads, " << first;
    }

    // And the disks themselves hold what they held, and what the recorders
    // wrote: read again through fresh caches after a remount of every disk.
    for (unsigned char d = 0; d < 4; d++) {
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(d, group_of(d)));
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(d, uint8_t(kFirstOwnGroup + d)));
        ASSERT_EQ(0, api_qzfs_umount(d));
    }
    use_small_caches();
    for (unsigned char d = 0; d < 4; d++) {
        ASSERT_NO_FATAL_FAILURE(mount_disk(d));
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(d, group_of(d)));
    }
    for (std::vector<Probe>* probes : all) {
        std::string first;
        EXPECT_EQ(0, count_changed(*probes, first)) << "after a remount, " << first;
    }
    for (int w = 0; w < 2; w++) {
        const Recorder& rec = recorders[w];
        SCOPED_TRACE("recorder " + std::to_string(w));
        ASSERT_EQ(size_t(kWriterSegments), rec.segments.size());
        for (const Segment& s : rec.segments) {
            EXPECT_EQ(rec.hdd, s.id.hdd_id);
            const std::string got = read_by_id(s.id);
            EXPECT_TRUE(got == stream_from(s, 0))
                << id_text(s.id.hdd_id, s.id.root_index, s.id.stream_segment_index) << ": "
                << difference(stream_from(s, 0), got);
        }
        const uint32_t groups = 1u << group_of(rec.hdd);
        EXPECT_EQ("count 1\n" + date_text({kYear, kMonth, rec.day, 0}) + " rt1 lock0\n",
                  date_info(groups, 1ULL << kWriterStreamType, 1ULL << (kWriterFirstChannel + w)));
    }
}

}  // namespace
