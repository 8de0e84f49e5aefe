#include "recovery_check.h"

#include "disk_check.h"

#include "disk_consistency.h"
#include "disk_walk.h"
#include "frame_source.h"
#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

namespace powercut {

namespace {

const unsigned char kHdd = 0;

std::string segment_name(uint32_t root, uint32_t index)
{
    return std::to_string(root) + ":" + std::to_string(index);
}

bool mount(const std::string& image)
{
    std::string path = image;
    return api_qzfs_mount(kHdd, &path[0]) == 0;
}

// The segment's bytes through the reading calls, from its first I-frame.
bool read_stream(uint32_t root, uint32_t index, std::vector<uint8_t>& out)
{
    _k4t_stream_segment_id_ id = {kHdd, root, index};
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0)
        return false;
    std::vector<uint8_t> chunk(0x10000);
    int got = 0;
    unsigned char new_segment = 0;
    while ((got = api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), &new_segment)) > 0)
        out.insert(out.end(), chunk.begin(), chunk.begin() + got);
    api_qzfs_close_stream_segment(fd);
    return got == 0;
}

// FNV-1a, to name a stream's content in a summary line.
uint64_t hash_bytes(const std::vector<uint8_t>& bytes)
{
    uint64_t h = 1469598103934665603ULL;
    for (uint8_t b : bytes)
        h = (h ^ b) * 1099511628211ULL;
    return h;
}

// The live segment of a channel, and a failure for each segment left
// unfinished or more than one.
const SegmentSlot* channel_segment(const DiskWalk& walk, unsigned channel, const RootWalk*& root,
                                   const LineWriter& out)
{
    const SegmentSlot* found = nullptr;
    for (const RootWalk& r : walk.roots) {
        if (r.node.channel != channel)
            continue;
        for (const SegmentSlot& s : r.segments) {
            if (s.node.end_hour == QZFS_INVALID_END_HOUR)
                out.line("fail segment " + segment_name(r.position, s.index) +
                         " is left unfinished (end hour 255)");
            else if (found != nullptr)
                out.line("fail channel " + std::to_string(channel) + " has two segments");
            else {
                found = &s;
                root = &r;
            }
        }
    }
    return found;
}

// Fast play walks the I-frames of frames `first` to `frames` (not included).
void check_fast_play(uint32_t root, uint32_t index, const ExpectedStream& expected, size_t first,
                     size_t frames, const LineWriter& out)
{
    _k4t_stream_segment_id_ id = {kHdd, root, index};
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0) {
        out.line("fail fast play cannot open segment " + segment_name(root, index));
        return;
    }
    size_t frame = first;
    for (;;) {
        unsigned char* data = nullptr;
        int len = 0;
        unsigned char new_segment = 0;
        const int got = api_qzfs_read_next_iframe(fd, 0, &data, &len, &new_segment);
        while (frame < frames && !expected.iframe[frame])
            frame++;
        if (got <= 0 || frame >= frames) {
            if (got != 0 || frame < frames)
                out.line("fail fast play of " + segment_name(root, index) + " ends at frame " +
                         std::to_string(frame) + " of " + std::to_string(frames) +
                         " (result " + std::to_string(got) + ")");
            break;
        }
        const size_t begin = frame == 0 ? 0 : expected.ends[frame - 1];
        if (size_t(got) != expected.ends[frame] - begin ||
            memcmp(data, expected.bytes.data() + begin, size_t(got)) != 0) {
            out.line("fail fast play of " + segment_name(root, index) +
                     " returns another I-frame than frame " + std::to_string(frame));
            break;
        }
        frame++;
    }
    api_qzfs_close_stream_segment(fd);
}

// The I-frame entries of a segment name, in rising order, stream offsets
// (from its first I-frame) where I-frames of frames `first` to `frames` lie.
void check_iframe_offsets(const RootWalk& root, const SegmentSlot& slot,
                          const ExpectedStream& expected, size_t first, size_t frames,
                          const LineWriter& out)
{
    SegmentExtent extent;
    std::string error;  // check_consistency tells it
    const unsigned long block_size = gQzfsManager.get_file_system(kHdd)->manage().block_size;
    if (!segment_extent(root, slot.node, block_size, extent, error))
        return;
    const size_t begin = first == 0 ? 0 : expected.ends[first - 1];
    std::set<uint64_t> iframes;
    for (size_t f = first; f < frames; f++)
        if (expected.iframe[f])
            iframes.insert((f == 0 ? 0 : expected.ends[f - 1]) - begin);
    const uint64_t base = extent.iframes.front().stream_segment_offset;
    for (size_t i = 0; i < extent.iframes.size(); i++) {
        const uint64_t at = extent.iframes[i].stream_segment_offset - base;
        const uint64_t before =
            i == 0 ? 0 : uint64_t(extent.iframes[i - 1].stream_segment_offset) - base;
        if ((i > 0 && at <= before) || iframes.count(at) == 0) {
            out.line("fail segment " + segment_name(root.position, slot.index) +
                     ": its I-frame entry " + std::to_string(i) + " names stream offset " +
                     std::to_string(uint64_t(extent.iframes[i].stream_segment_offset)) +
                     ", where no I-frame lies (the first lies at " + std::to_string(base) + ")");
            return;
        }
    }
}

// The recovered stream is the written one from frame `first` on, ends on a
// whole frame and, with `progress`, holds every synced frame. Returns the
// frames it reaches (counted from the channel's first frame).
size_t compare_stream(unsigned c, const std::vector<uint8_t>& got, const ExpectedStream& expected,
                      size_t first, const ChannelProgress* progress, const LineWriter& out)
{
    const std::string ch = "channel " + std::to_string(c);
    if (first > expected.ends.size()) {
        out.line("fail " + ch + ": a segment starts at frame " + std::to_string(first) +
                 ", past the " + std::to_string(expected.ends.size()) + " frames written");
        return 0;
    }
    const size_t begin = first == 0 ? 0 : expected.ends[first - 1];
    const uint8_t* want = expected.bytes.data() + begin;
    if (got.size() > expected.bytes.size() - begin || !std::equal(got.begin(), got.end(), want)) {
        size_t at = 0;
        while (begin + at < expected.bytes.size() && at < got.size() && got[at] == want[at])
            at++;
        out.line("fail " + ch + ": the recovered stream (" + std::to_string(got.size()) +
                 " bytes from frame " + std::to_string(first) +
                 ") differs from what was written at byte " + std::to_string(at));
        return 0;
    }
    auto end = std::find(expected.ends.begin(), expected.ends.end(), begin + got.size());
    if (!got.empty() && end == expected.ends.end()) {
        out.line("fail " + ch + ": the recovered stream ends inside a frame (" +
                 std::to_string(got.size()) + " bytes)");
        return 0;
    }
    const size_t frames = got.empty() ? first : size_t(end - expected.ends.begin()) + 1;
    out.line("frames " + std::to_string(c) + " " + std::to_string(frames - first));
    if (progress == nullptr)
        return frames;
    if (frames < progress->synced) {
        out.line("fail " + ch + ": " + std::to_string(frames) + " frames recovered, " +
                 std::to_string(progress->synced) + " were synced");
        out.line("lost " + std::to_string(c) + " " + std::to_string(progress->synced - frames));
    } else {
        out.line("beyond " + std::to_string(c) + " " + std::to_string(frames - progress->synced));
    }
    return frames;
}

void check_channel(const DiskWalk& walk, unsigned c, const Workload& workload,
                   const ChannelProgress& progress, const LineWriter& out)
{
    const RootWalk* root = nullptr;
    const SegmentSlot* segment = channel_segment(walk, c, root, out);
    std::vector<uint8_t> got;
    if (segment != nullptr && !read_stream(root->position, segment->index, got))
        out.line("fail channel " + std::to_string(c) + ": reading segment " +
                 segment_name(root->position, segment->index) + " failed");
    if (segment != nullptr && got.size() != segment->node.len_in_bytes)
        out.line("fail channel " + std::to_string(c) + ": " + std::to_string(got.size()) +
                 " bytes read, the segment's length is " +
                 std::to_string((unsigned long long)segment->node.len_in_bytes));
    // The frames of the call in flight at the cut may have reached the disk.
    const unsigned fps = workload_frames(0).fps;
    const unsigned long all = (unsigned long)workload.seconds * fps;
    const unsigned long in_flight =
        workload.seconds_per_call == 0 ? 1 : (unsigned long)workload.seconds_per_call * fps;
    const ExpectedStream expected =
        expected_stream(uint8_t(c), std::min(progress.written + in_flight, all));
    const size_t frames = compare_stream(c, got, expected, 0, &progress, out);
    if (segment != nullptr && frames > 0) {
        check_fast_play(root->position, segment->index, expected, 0, frames, out);
        check_iframe_offsets(*root, *segment, expected, 0, frames, out);
    }
}

// After a delete or trim: no segment is left unfinished, and every live one
// reads back (and plays fast) as the frames recorded on its channel from its
// start second on, as long as its length says. The segment recorded on
// behind a live trim also holds every synced frame.
void check_segments(const DiskWalk& walk, const Workload& workload,
                    const WorkloadProgress& progress, const LineWriter& out)
{
    const unsigned fps = workload_frames(0).fps;
    const unsigned long all = (unsigned long)workload.seconds * fps;
    const bool live = workload.action == Action::TrimLive;
    const _k4t_fs_date_time_ day = workload_start();
    const unsigned day_start = day.hour * 3600u + day.minute * 60u + day.second;
    std::vector<ExpectedStream> expected(workload.channels);
    for (const RootWalk& r : walk.roots)
        for (const SegmentSlot& s : r.segments) {
            const std::string name = segment_name(r.position, s.index);
            const unsigned c = r.node.channel;
            const _stream_segment_index_node_dev_& g = s.node;
            const unsigned start = g.start_hour * 3600u + g.start_minute * 60u + g.start_second;
            if (g.end_hour == QZFS_INVALID_END_HOUR)
                out.line("fail segment " + name + " is left unfinished (end hour 255)");
            if (c >= workload.channels || start < day_start)
                out.line("fail segment " + name + " is of channel " + std::to_string(c) +
                         " or starts before the recording");
            if (!is_live(g) || c >= workload.channels || start < day_start)
                continue;
            if (!is_live(g))
                continue;
            std::vector<uint8_t> got;
            if (!read_stream(r.position, s.index, got) || got.size() != segment_len_of(g))
                out.line("fail segment " + name + ": " + std::to_string(got.size()) +
                         " bytes read, its length is " + std::to_string(segment_len_of(g)));
            if (expected[c].ends.empty())
                expected[c] = expected_stream(
                    uint8_t(c), live ? std::min(progress.channels[c].written + 1, all) : all);
            const size_t first = size_t(start - day_start) * fps;
            const size_t frames = compare_stream(c, got, expected[c], first,
                                                 live ? &progress.channels[c] : nullptr, out);
            if (frames > first) {
                check_fast_play(r.position, s.index, expected[c], first, frames, out);
                check_iframe_offsets(r, s, expected[c], first, frames, out);
            }
        }
}

// The day's query lists exactly the live segments, with their lengths.
void check_listing(const DiskWalk& walk, const LineWriter& out)
{
    const _k4t_fs_date_time_ day = workload_start();
    _k4t_stream_query_ query = whole_day_query(day.year, day.month, day.day);
    size_t live = 0;
    for (const RootWalk& r : walk.roots)
        for (const SegmentSlot& s : r.segments)
            live += is_live(s.node);
    const int handle = api_qzfs_get_query_stream_segment_handle(&query);
    std::vector<_k4t_stream_query_result_> rows(64);
    int num = int(rows.size());
    if (handle <= 0) {
        if (live > 0)
            out.line("fail the query of the day finds nothing, " + std::to_string(live) +
                     " segments are live");
        return;
    }
    if (api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows.data()) != 0)
        num = 0;
    api_qzfs_close_query_stream_segment_handle(handle);
    if (size_t(num) != live)
        out.line("fail the query of the day lists " + std::to_string(num) + " segments, " +
                 std::to_string(live) + " are live");
}

// A logical summary of the repaired disk: every root and segment node,
// each live segment's stream (a hash), I-frame entries and number of data
// blocks, the number of allocated blocks.
void write_summary(const DiskWalk& walk, unsigned long block_size, unsigned long allocated,
                   const LineWriter& out)
{
    for (const RootWalk& r : walk.roots) {
        const _root_index_node_dev_& n = r.node;
        out.line("summary root " + std::to_string(r.position) + " id " + std::to_string(n.id) +
                 " chn " + std::to_string(n.channel) + " types " +
                 std::to_string((unsigned)n.record_type) + " lock " + std::to_string(n.lock) +
                 " pre " + std::to_string(n.only_pre_record));
        for (const SegmentSlot& s : r.segments) {
            const _stream_segment_index_node_dev_& g = s.node;
            char line[200];
            snprintf(line, sizeof(line),
                     "summary segment %u:%u id %u %02u:%02u:%02u-%02u:%02u:%02u len %llu "
                     "type %u lock %u first %u",
                     r.position, s.index, g.id, g.start_hour, g.start_minute, g.start_second,
                     g.end_hour, g.end_minute, g.end_second,
                     (unsigned long long)g.len_in_bytes, g.record_type, g.lock,
                     (unsigned)g.start_iframe);
            out.line(line);
            out.line("summary start " + start_key(r.position, s.index, g));
            std::vector<uint8_t> bytes;
            if (is_live(g) && read_stream(r.position, s.index, bytes))
                out.line("summary stream " + segment_name(r.position, s.index) + " " +
                         std::to_string(bytes.size()) + " bytes, hash " +
                         std::to_string(hash_bytes(bytes)));
            SegmentExtent extent;
            std::string error;
            if (is_live(g) && segment_extent(r, g, block_size, extent, error)) {
                std::vector<uint8_t> entries;
                for (const _iframe_index_node_dev_& e : extent.iframes) {
                    const uint8_t* p = reinterpret_cast<const uint8_t*>(&e);
                    entries.insert(entries.end(), p, p + sizeof(e));
                }
                out.line("summary iframes " + segment_name(r.position, s.index) + " " +
                         std::to_string(extent.iframes.size()) + " entries, hash " +
                         std::to_string(hash_bytes(entries)));
                out.line("summary blocks " + segment_name(r.position, s.index) + " " +
                         std::to_string(extent.data_blocks.size()));
            }
        }
    }
    out.line("summary allocated blocks " + std::to_string(allocated));
}

bool walk_mounted(DiskWalk& walk, const LineWriter& out)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    std::string error;
    if (fs == nullptr || !walk_disk(fs, walk, error)) {
        out.line("fail the repaired index cannot be read: " + error);
        return false;
    }
    return true;
}

// The names of group 0's named files, through the search calls.
std::set<std::string> listed_files()
{
    std::set<std::string> names;
    char pattern[1] = {'\0'};
    void* search = api_qzfs_get_search_normal_file_handle(0, pattern);
    if (search == nullptr)
        return names;
    char name[16] = {};
    for (int step = 0; names.size() < 100 &&
                       api_qzfs_get_normal_file_name(search, (unsigned char)step, name) == 1;
         step = 1)
        names.insert(std::string(name, strnlen(name, sizeof(name))));
    api_qzfs_release_search_normal_file_handle(search);
    return names;
}

// A named file's whole content through the reading calls (mode 3); false
// with a failure when it cannot be opened, is larger than `most` or reads
// short of its size.
bool read_file(const std::string& name, unsigned long long most, std::vector<char>& out,
               const LineWriter& line)
{
    char n[16] = {};
    name.copy(n, sizeof(n) - 1);
    void* handle = api_qzfs_open_normal_file(0, n, QZFS_NORMAL_FILE_READ);
    if (handle == nullptr) {
        line.line("fail file " + name + " is listed but does not open");
        return false;
    }
    const long long size = api_qzfs_get_normal_file_size_by_handle(handle);
    out.assign(size_t(std::max(0LL, std::min(size, (long long)most))), 0);
    size_t got = 0;
    int n_read = 0;
    while (got < out.size() &&
           (n_read = api_qzfs_read_normal_file(
                handle, out.data() + got, int(std::min<size_t>(out.size() - got, 1 << 20)))) > 0)
        got += size_t(n_read);
    api_qzfs_close_normal_file(handle);
    if (size >= 0 && (unsigned long long)size <= most && got == out.size())
        return true;
    line.line("fail file " + name + " reads " + std::to_string(got) + " bytes, its size is " +
              std::to_string(size));
    return false;
}

// Whether `got` starts with the first `length` bytes of the content of
// `name`; tells the first byte that differs otherwise.
bool holds(const std::vector<char>& got, const std::string& file, const std::string& content,
           unsigned long long length, const LineWriter& out)
{
    const std::vector<char> want = file_bytes(content, 0, size_t(length));
    if (got.size() >= want.size() && std::equal(want.begin(), want.end(), got.begin()))
        return true;
    const size_t at =
        size_t(std::mismatch(want.begin(), want.end(), got.begin(), got.end()).first -
               want.begin());
    out.line("fail file " + file + " (" + std::to_string(got.size()) +
             " bytes) differs from what was written at byte " +
             std::to_string(std::min(at, got.size())) + " of the " + std::to_string(length) +
             " checked");
    return false;
}

// The named files after a cut in a file workload, and "outcome" with what
// became of the files the cut fell on. Only the names the workload made
// are listed; B is whole. file-write: C and A hold at least the bytes a
// returned sync or close (A: or the preparation) covered, exactly as
// written; what lies beyond is not checked. file-delete: A is whole, gone
// or its first blocks (blocks go last to first), gone once its delete
// returned; D or E, not both, holds D's content, E once the rename returned
// and D while A's delete had not.
void check_files(const Workload& workload, const WorkloadProgress& progress,
                 const LineWriter& out)
{
    const unsigned long long data = file_block_data();
    if (data == 0) {
        out.line("fail the disk tells no block size");
        return;
    }
    // No file of the workloads reaches four blocks.
    const unsigned long long most = 4 * data;
    std::map<std::string, unsigned long long> prepared;
    for (const NamedFile& f : prepared_files(workload, data))
        prepared[f.name] = f.size;
    const bool writing = workload.action == Action::FileWrite;
    std::set<std::string> known = {"A", "B", writing ? "C" : "D"};
    if (!writing)
        known.insert("E");
    const std::set<std::string> names = listed_files();
    for (const std::string& n : names)
        if (known.count(n) == 0)
            out.line("fail a named file \"" + n + "\" is listed, which the workload never made");
    auto progress_of = [&](const std::string& name) {
        auto it = progress.files.find(name);
        return it == progress.files.end() ? FileProgress() : it->second;
    };
    std::vector<char> got;
    if (names.count("B") == 0)
        out.line("fail file B is gone");
    else if (read_file("B", most, got, out) && holds(got, "B", "B", prepared["B"], out) &&
             got.size() != prepared["B"])
        out.line("fail file B has " + std::to_string(got.size()) + " bytes, not " +
                 std::to_string(prepared["B"]));
    std::string outcome;
    if (writing) {
        for (const std::string name : {"C", "A"}) {
            const unsigned long long floor = std::max(prepared[name], progress_of(name).synced);
            if (names.count(name) == 0) {
                if (floor > 0)
                    out.line("fail file " + name + " is gone, " + std::to_string(floor) +
                             " bytes of it were synced");
                outcome += (outcome.empty() ? "" : ", ") + name + " absent";
                continue;
            }
            if (!read_file(name, most, got, out) || !holds(got, name, name, floor, out))
                continue;
            outcome += (outcome.empty() ? "" : ", ") + name +
                       (got.size() == floor ? " as synced" : " beyond sync");
        }
        out.line("outcome " + outcome);
        return;
    }
    const bool deleted = progress_of("A").done, renamed = progress_of("D").done;
    if (names.count("A") == 0) {
        outcome = "A gone";
    } else if (deleted) {
        out.line("fail file A stands after its delete returned");
    } else if (read_file("A", most, got, out)) {
        const unsigned long long size = got.size(), blocks = data > 0 ? size / data : 0;
        const bool whole = size == prepared["A"];
        if (!whole && (size % data != 0 || blocks == 0 || blocks * data >= prepared["A"]))
            out.line("fail file A has " + std::to_string(size) + " bytes, neither its " +
                     std::to_string(prepared["A"]) + " nor a number of whole blocks of them");
        else if (holds(got, "A", "A", size, out))
            outcome = whole ? "A whole"
                            : "A " + std::to_string(blocks) + (blocks == 1 ? " block" : " blocks");
    }
    const bool d = names.count("D") > 0, e = names.count("E") > 0;
    if (d == e || (renamed && d) || (!deleted && e))
        out.line(std::string("fail after ") +
                 (renamed ? "the rename" : deleted ? "the delete" : "a cut in the delete") +
                 " file D is " + (d ? "there" : "gone") + " and file E " +
                 (e ? "there" : "gone"));
    const std::string kept = d ? "D" : "E";
    if (d != e && read_file(kept, most, got, out) &&
        holds(got, kept, "D", prepared["D"], out) && got.size() != prepared["D"])
        out.line("fail file " + kept + " has " + std::to_string(got.size()) + " bytes, not " +
                 std::to_string(prepared["D"]));
    out.line("outcome " + outcome + (e ? ", D renamed" : ", D as before"));
}

// The application's recovery of the unmounted `image`, under an observing
// device: the writes that changed the image, or -1 (with a failure) when it
// does not return 0.
long long recover(const std::string& image, const char* which, const LineWriter& out)
{
    power_cut::install(power_cut::Settings());
    std::string path = image;
    const int result = api_qzfs_disk_recovery(kHdd, &path[0], nullptr);
    if (result == 0)
        return (long long)power_cut::counts().changed_writes;
    out.line(std::string("fail the ") + which + " recovery returns " + std::to_string(result));
    return -1;
}

} // namespace

void check_recovery(const Workload& workload, const WorkloadProgress& progress,
                    const std::string& image, const LineWriter& out)
{
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    const bool rebuild = workload.action == Action::Rebuild;
    if (rebuild) {
        const long long changed = recover(image, "uncut", out);
        if (changed < 0)
            return;
        out.line("recovery_changes " + std::to_string(changed));
    }
    power_cut::install(power_cut::Settings());
    if (!mount(image)) {
        out.line("fail the mount after the cut fails");
        return;
    }
    out.line("key_repair " +
             std::to_string(gQzfsManager.get_file_system(kHdd)->key_repair().level));
    api_qzfs_umount(kHdd);
    out.line("recovery_writes " + std::to_string(power_cut::counts().writes));
    power_cut::install(power_cut::Settings());
    if (!mount(image)) {
        out.line("fail the second mount fails");
        return;
    }
    const power_cut::Counts second = power_cut::counts();
    const int level = gQzfsManager.get_file_system(kHdd)->key_repair().level;
    if (level != QZFS_KEY_REPAIR_NONE)
        out.line("fail the second mount mends the block table again (level " +
                 std::to_string(level) + ")");
    if (second.changed_writes != 0)
        out.line("fail the second mount changes the image (" +
                 std::to_string(second.changed_writes) + " writes, " +
                 std::to_string(second.changed_bytes) + " bytes)");
    api_qzfs_add_disk_to_group(kHdd, 0);
    DiskWalk walk;
    if (!walk_mounted(walk, out))
        return;
    if (workload.action == Action::Record)
        for (unsigned c = 0; c < workload.channels; c++)
            check_channel(walk, c, workload, progress.channels[c], out);
    else
        check_segments(walk, workload, progress, out);
    // The checks of the tool's check verb.
    DiskCheckReport report;
    disk_check_walked(gQzfsManager.get_file_system(kHdd), image, walk, report);
    for (const std::string& f : report.problems)
        out.line("fail " + f);
    out.line("orphans " + std::to_string(report.orphans + report.index_orphans));
    if (works_on_files(workload.action))
        check_files(workload, progress, out);
    check_listing(walk, out);
    write_summary(walk, gQzfsManager.get_file_system(kHdd)->manage().block_size, report.in_use,
                  out);
    if (!rebuild)
        return;
    // The recovered disk, mounted and unmounted, leaves a recovery nothing
    // to do.
    api_qzfs_delete_disk_from_group(kHdd, 0);
    if (api_qzfs_umount(kHdd) != 0) {
        out.line("fail the unmount before the last recovery");
        return;
    }
    const long long changed = recover(image, "last", out);
    if (changed > 0)
        out.line("fail the last recovery changes the image (" + std::to_string(changed) +
                 " writes)");
}

void mount_and_unmount(const std::string& image, const power_cut::Settings& device,
                       const LineWriter& out)
{
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    power_cut::install(device);
    if (!mount(image)) {
        out.line("fail mount");
        return;
    }
    api_qzfs_umount(kHdd);
    out.line("done " + std::to_string(power_cut::counts().writes));
}

void summarize_recovered(const std::string& image, const LineWriter& out)
{
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    if (!mount(image)) {
        out.line("fail mount");
        return;
    }
    DiskWalk walk;
    if (!walk_mounted(walk, out))
        return;
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    const Consistency consistency = check_consistency(fs, image, walk);
    write_summary(walk, fs->manage().block_size, consistency.allocated, out);
}

CheckResult read_check(const ChildResult& child)
{
    CheckResult result;
    for (const std::string& line : child.lines) {
        const std::vector<std::string> w = words(line);
        if (w.empty())
            continue;
        const unsigned long last = strtoul(w.back().c_str(), nullptr, 10);
        if (w[0] == "fail")
            result.failures.push_back(line.substr(5));
        else if (w[0] == "summary")
            result.summary.push_back(line.substr(8));
        else if (w[0] == "beyond")
            result.frames_beyond_sync += last;
        else if (w[0] == "lost")
            result.frames_lost += last;
        else if (w[0] == "recovery_changes")
            result.recovery_changes = last;
        else if (w[0] == "recovery_writes")
            result.recovery_writes = last;
        else if (w[0] == "orphans")
            result.orphans = last;
        else if (w[0] == "key_repair")
            result.key_repair = int(last);
        else if (w[0] == "outcome")
            result.outcome = line.substr(std::min<size_t>(line.size(), 8));
    }
    if (!child.exited || child.exit_code != 0)
        result.failures.push_back("the checking process ended with " + child.describe());
    return result;
}

} // namespace powercut
