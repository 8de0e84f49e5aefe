#include "workload.h"

#include "disk_consistency.h"
#include "disk_walk.h"
#include "qzfilesystem.h"
#include "qzfs_disk_format.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <unistd.h>

namespace powercut {

namespace {

const unsigned char kHdd = 0;
const unsigned long long kImageSize = 3ULL << 30;
// Seconds a TrimLive workload records on behind its trim.
const unsigned kSecondsAfterLiveTrim = 10;
// The lock a LockRange workload puts on its stretch: lock type bit 2.
const unsigned char kRangeLockNumber = 3;
// Seconds of the second segment a Rebuild workload records on channel 0.
const unsigned kRebuildSecondSegment = 10;

const Workload kWorkloads[] = {
    {"start", 1, 3, 1},
    {"one", 1, 60, 5},
    {"four", 4, 60, 5},
    {"delete-last", 2, 20, 5, Action::Delete, 1, false, 1, 0},
    {"delete-one", 1, 60, 5, Action::Delete, 3, false, 0, 1},
    {"delete-shared", 1, 60, 5, Action::Delete, 1, true, 0, 1},
    {"trim", 1, 60, 5, Action::Trim, 1, false, 0, 0},
    {"trim-live", 1, 50, 5, Action::TrimLive, 1, false, 0, 0},
    {"overwrite", 2, 120, 5, Action::Overwrite, 3, false, 0, 0},
    {"split-two", 1, 160, 5, Action::Split, 2, false, 0, 0, {45, 200, 2, 0, 3}},
    {"split-three", 1, 160, 5, Action::Split, 2, false, 0, 0, {30, 55, 1, 1, 0, 1}},
    {"delete-middle", 1, 160, 5, Action::DeleteStretch, 2, false, 0, 0, {25, 60}},
    {"shorten", 1, 160, 5, Action::Shorten, 2, false, 0, 0, {50, 200}},
    {"lock-range", 1, 160, 5, Action::LockRange, 2, false, 0, 0,
     {40, 110, 1, 1, 0, 1u << (kRangeLockNumber - 1)}},
    {"alloc", 6, 40, 5, Action::Record, 1, false, 0, 0, {}, true, true},
    {"long-calls", 1, 60, 15, Action::Record, 1, false, 0, 0, {}, true, false, 15},
    {"key-merge", 2, 20, 5, Action::KeyMerge, 1, false, 0, 0},
    {"rebuild", 2, 20 + kRebuildSecondSegment, 5, Action::Rebuild, 1, false, 0, 0},
    {"file-write", 1, 15, 5, Action::FileWrite, 1, false, 0, 0},
    {"file-delete", 1, 15, 5, Action::FileDelete, 1, false, 0, 0},
};

// The group whose disk holds the named files.
const unsigned char kFileGroup = 0;
// Chunks the named files are written in: odd sizes, so that writes end
// inside sectors and a write runs across a block's end.
const int kPrepareChunk = 1 << 20;
const int kCreateChunk = 333331;
const int kAppendChunk = 199999;
// A sync after every this many chunks of the cut writes.
const unsigned kSyncEvery = 4;

// Where the block table lives on the mounted disk: its two key places, the
// block size and the number of blocks.
struct KeyPlaces {
    unsigned long long key = 0, bak = 0, block_size = 0, total = 0;
};

KeyPlaces key_places()
{
    const _qzfs_disk_manage_& m = gQzfsManager.get_file_system(kHdd)->manage();
    return {m.key_block, m.bak_key_block, m.block_size, m.total_block};
}

unsigned long long record_offset(unsigned long long key, const KeyPlaces& k, uint32_t block)
{
    return key * k.block_size + (block + QZFS_KEY_TABLE_FIRST_SLOT) * sizeof(_qzfs_block_info_);
}

// Whether a write of `length` bytes at `at` belongs to a block request: it
// meets the table of a key place or the record at a block's head.
bool block_request_write(unsigned long long at, unsigned long length, const KeyPlaces& k)
{
    const unsigned long long end = at + length;
    for (unsigned long long key : {k.key, k.bak})
        if (at < record_offset(key, k, uint32_t(k.total)) && end > record_offset(key, k, 0))
            return true;
    for (unsigned long long b = at / k.block_size; b * k.block_size < end; b++)
        if (at < b * k.block_size + sizeof(_qzfs_block_info_))
            return true;
    return false;
}

// A file name as the API takes it: room for the 14 bytes a rename copies.
struct FileName {
    char text[16] = {};
    explicit FileName(const std::string& name) { name.copy(text, sizeof(text) - 1); }
};

// Writes named file `name`, opened in `mode`, from its end at `from` bytes
// up to `size` in chunks of `chunk` bytes, a sync after every kSyncEvery
// (with `sync`), and closes it; tells the size each write and each
// returned sync or close reached ("file NAME written N", "file NAME synced
// N").
bool grow_file(const std::string& name, int mode, unsigned long long from,
               unsigned long long size, int chunk, bool sync, const LineWriter& out)
{
    FileName n(name);
    const std::string file = "file " + name;
    void* handle = api_qzfs_open_normal_file(kFileGroup, n.text, mode);
    if (handle == nullptr) {
        out.line("fail the open of " + file + " in mode " + std::to_string(mode));
        return false;
    }
    unsigned long long at = (unsigned long long)api_qzfs_get_normal_file_size_by_handle(handle);
    if (at != from) {
        out.line("fail " + file + " opens with " + std::to_string((long long)at) + " bytes, " +
                 std::to_string(from) + " were due");
        return false;
    }
    for (unsigned k = 1; at < size; k++) {
        const size_t length = size_t(std::min<unsigned long long>(chunk, size - at));
        std::vector<char> bytes = file_bytes(name, at, length);
        if (api_qzfs_write_normal_file(handle, bytes.data(), int(length)) != int(length)) {
            out.line("fail the write of " + std::to_string(length) + " bytes to " + file +
                     " at " + std::to_string(at));
            return false;
        }
        at += length;
        out.line(file + " written " + std::to_string(at));
        if (sync && k % kSyncEvery == 0) {
            if (api_qzfs_sync_normal_file(handle) != 0) {
                out.line("fail the sync of " + file + " at " + std::to_string(at));
                return false;
            }
            out.line(file + " synced " + std::to_string(at));
        }
    }
    if (api_qzfs_close_normal_file(handle) != 0) {
        out.line("fail the close of " + file);
        return false;
    }
    out.line(file + " synced " + std::to_string(at));
    return true;
}

// The named files of a file workload, each made whole (mode 0).
bool make_files(const Workload& workload, const LineWriter& out)
{
    for (const NamedFile& f : prepared_files(workload, file_block_data()))
        if (!grow_file(f.name, QZFS_NORMAL_FILE_CREATE, 0, f.size, kPrepareChunk, false, out))
            return false;
    return true;
}

// What the cut of a file workload falls on: the making of C and the append
// to A, or the delete of A and the rename of D to E.
bool file_work(const Workload& workload, const LineWriter& out)
{
    const unsigned long long data = file_block_data();
    if (workload.action == Action::FileWrite)
        return grow_file("C", QZFS_NORMAL_FILE_CREATE, 0, grown_size("C", data), kCreateChunk,
                         true, out) &&
               grow_file("A", QZFS_NORMAL_FILE_APPEND, prepared_files(workload, data)[0].size,
                         grown_size("A", data), kAppendChunk, true, out);
    FileName a("A"), d("D"), e("E");
    if (api_qzfs_delete_normal_file(kFileGroup, a.text) != 0) {
        out.line("fail the delete of file A");
        return false;
    }
    out.line("file A done");
    if (api_qzfs_rename_normal_file(kFileGroup, d.text, e.text) != 0) {
        out.line("fail the rename of file D to E");
        return false;
    }
    out.line("file D done");
    return true;
}

// The writes an Observe run saw: number, offset, length.
struct SeenWrite {
    unsigned long long number, offset;
    unsigned long length;
};
std::vector<SeenWrite>& seen_writes()
{
    static std::vector<SeenWrite>* seen = new std::vector<SeenWrite>();
    return *seen;
}
void note_write(unsigned long long number, unsigned long long offset, unsigned long length)
{
    seen_writes().push_back({number, offset, length});
}

// Damages a table record in the image: its fifth byte inverted, which its
// check sum then fails.
bool damage_record(const std::string& image, unsigned long long at)
{
    const int fd = open(image.c_str(), O_RDWR);
    uint8_t byte = 0;
    bool ok = fd >= 0 && pread(fd, &byte, 1, off_t(at + 4)) == 1;
    byte ^= 0xFF;
    ok = ok && pwrite(fd, &byte, 1, off_t(at + 4)) == 1;
    if (fd >= 0)
        close(fd);
    return ok;
}

// The damage of a KeyMerge workload, on its unmounted image: the record of
// the first data block in both copies, that of the last data block in the
// primary alone. The mount must merge: one record from the block's head,
// one from the backup.
bool damage_key_table(const std::string& image, const KeyPlaces& k, const LineWriter& out)
{
    std::vector<uint32_t> data;
    const int fd = open(image.c_str(), O_RDONLY);
    for (uint32_t b = 0; fd >= 0 && b < k.total; b++) {
        _qzfs_block_info_ r;
        if (pread(fd, &r, sizeof(r), off_t(record_offset(k.key, k, b))) == ssize_t(sizeof(r)) &&
            r.block_type == QZFS_BLOCK_DATA)
            data.push_back(b);
    }
    if (fd >= 0)
        close(fd);
    if (data.size() < 2 || !damage_record(image, record_offset(k.key, k, data.front())) ||
        !damage_record(image, record_offset(k.bak, k, data.front())) ||
        !damage_record(image, record_offset(k.key, k, data.back()))) {
        out.line("fail the block table cannot be damaged (" + std::to_string(data.size()) +
                 " data blocks)");
        return false;
    }
    return true;
}

// The damage of a Rebuild workload, on its unmounted image: the index part
// of every I-frame index block of channel 0's root and of every segment
// index block of channel 1's, zeroed behind the block's own 32-byte record
// (which keeps the block allocated and typed in the table).
bool wipe_indexes(const std::string& image, const KeyPlaces& k, const LineWriter& out)
{
    const int fd = open(image.c_str(), O_RDWR);
    const std::vector<uint8_t> zeros(k.block_size - 32, 0);
    unsigned iframe = 0, segment = 0;
    bool ok = fd >= 0;
    for (uint32_t b = 0; ok && b < k.total; b++) {
        _qzfs_block_info_ r = {};
        if (pread(fd, &r, sizeof(r), off_t(record_offset(k.key, k, b))) != ssize_t(sizeof(r)))
            ok = false;
        const bool wipe = (r.block_type == QZFS_BLOCK_IFRAME_INDEX && r.attr[0] == 0) ||
                          (r.block_type == QZFS_BLOCK_SEGMENT_INDEX && r.attr[0] == 1);
        if (!ok || !wipe)
            continue;
        iframe += r.block_type == QZFS_BLOCK_IFRAME_INDEX;
        segment += r.block_type == QZFS_BLOCK_SEGMENT_INDEX;
        ok = pwrite(fd, zeros.data(), zeros.size(), off_t(b * k.block_size + 32)) ==
             ssize_t(zeros.size());
    }
    if (fd >= 0)
        close(fd);
    if (!ok || iframe == 0 || segment == 0) {
        out.line("fail the indexes cannot be wiped (" + std::to_string(iframe) +
                 " I-frame index blocks of channel 0, " + std::to_string(segment) +
                 " segment index blocks of channel 1)");
        return false;
    }
    return true;
}

// The application's recovery of the unmounted disk; the uncut one must
// change the image.
bool recover_disk(const std::string& image, const power_cut::Settings& device,
                  const LineWriter& out)
{
    std::string path = image;
    const int result = api_qzfs_disk_recovery(kHdd, &path[0], nullptr);
    if (result != 0) {
        out.line("fail the recovery returns " + std::to_string(result));
        return false;
    }
    if (device.mode == power_cut::Mode::Observe && power_cut::counts().changed_writes == 0) {
        out.line("fail the recovery of the wiped indexes changes nothing");
        return false;
    }
    return true;
}

// The mount that merges the damaged table, and its unmount; the uncut one
// must report a merge with one record from each witness.
bool repair_key_table(const std::string& image, const LineWriter& out)
{
    std::string path = image;
    if (api_qzfs_mount(kHdd, &path[0]) != 0) {
        out.line("fail the repairing mount fails");
        return false;
    }
    const qzfs_key_repair_report r = gQzfsManager.get_file_system(kHdd)->key_repair();
    if (r.level != QZFS_KEY_REPAIR_MERGE || r.from_other_copy != 1 || r.from_block_head != 1 ||
        r.marked_bad != 0) {
        out.line("fail the repair is of level " + std::to_string(r.level) + " with " +
                 std::to_string(r.from_other_copy) + " records from the other copy, " +
                 std::to_string(r.from_block_head) + " from block heads, " +
                 std::to_string(r.marked_bad) + " marked bad; a merge of 1 and 1 was due");
        return false;
    }
    if (api_qzfs_umount(kHdd) == 0)
        return true;
    out.line("fail unmount");
    return false;
}

// Group 0's thresholds: recording goes on while 50 MiB are free, above
// which free space counts as spare.
bool configure_group(unsigned long long start_delete, unsigned long long once)
{
    _qzfs_k4t_hdd_overwrite_config_ config = {};
    config.reserve_free_size_for_record = 50ULL << 20;
    config.used_for_recording_free_size = config.reserve_free_size_for_record;
    config.start_delete_free_size = start_delete;
    config.once_delete_size = once;
    return api_qzfs_config_overwrite(0, &config) == 0;
}

// Group 0 holds the disk alone and records on it.
bool choose_for_recording()
{
    unsigned char hdd = 255;
    return api_qzfs_add_disk_to_group(kHdd, 0) == 0 && configure_group(50ULL << 20, 32ULL << 20) &&
           api_qzfs_find_work_hdd(0, &hdd) == 0 && hdd == kHdd;
}

bool mount_for_recording(const std::string& image, const LineWriter& out)
{
    std::string path = image;
    if (api_qzfs_mount(kHdd, &path[0]) != 0) {
        out.line("fail mount of " + image);
        return false;
    }
    if (!choose_for_recording()) {
        out.line("fail choosing the disk for recording");
        return false;
    }
    return true;
}

bool unmount(const LineWriter& out)
{
    api_qzfs_delete_disk_from_group(kHdd, 0);
    if (api_qzfs_umount(kHdd) != 0) {
        out.line("fail unmount");
        return false;
    }
    return true;
}

// A channel's frame source runs on across its segments.
struct Channel {
    FrameSource source;
    int fd = -1;
    unsigned long written = 0;
    explicit Channel(uint8_t c) : source(workload_frames(c)) {}
};

std::vector<Channel> make_channels(unsigned count)
{
    std::vector<Channel> channels;
    channels.reserve(count);
    for (unsigned c = 0; c < count; c++)
        channels.emplace_back(uint8_t(c));
    return channels;
}

// A new segment on each channel, starting at the time of its next frame.
bool open_segments(std::vector<Channel>& channels, const LineWriter& out)
{
    for (unsigned c = 0; c < channels.size(); c++) {
        _k4t_fs_date_time_ at = workload_start();
        const unsigned second = channels[c].source.next_second_of_day();
        at.hour = uint8_t(second / 3600);
        at.minute = uint8_t(second / 60 % 60);
        at.second = uint8_t(second % 60);
        _qzfs_k4t_create_ss_para_ para = recording_request(uint8_t(c), 0, at);
        channels[c].fd = api_qzfs_create_stream_segment(&para);
        if (channels[c].fd <= 0) {
            out.line("fail creating a segment of channel " + std::to_string(c));
            return false;
        }
    }
    return true;
}

// The next `frames` frames of a channel in one write call.
bool write_frames(Channel& ch, unsigned c, unsigned frames, const LineWriter& out)
{
    FrameBatch batch;
    ch.source.append_frames(batch, frames);
    const int len = int(batch.bytes.size());
    if (api_qzfs_write_video_data(ch.fd, batch.bytes.data(), len, int(batch.infos.size()),
                                  batch.infos.empty() ? nullptr : batch.infos.data()) != len) {
        out.line("fail writing frame " + std::to_string(ch.written) + " of channel " +
                 std::to_string(c));
        return false;
    }
    ch.written += frames;
    out.line("w " + std::to_string(c) + " " + std::to_string(ch.written));
    return true;
}

bool write_frame(Channel& ch, unsigned c, const LineWriter& out)
{
    return write_frames(ch, c, 1, out);
}

bool sync_channels(std::vector<Channel>& channels, const LineWriter& out)
{
    for (unsigned c = 0; c < channels.size(); c++) {
        if (api_qzfs_fsync(channels[c].fd) != 0) {
            out.line("fail api_qzfs_fsync of channel " + std::to_string(c));
            return false;
        }
        out.line("s " + std::to_string(c) + " " + std::to_string(channels[c].written));
    }
    return true;
}

// `seconds` of stream: the channels take turns frame by frame; all are
// synced every `sync_every` seconds of stream.
bool record(std::vector<Channel>& channels, unsigned seconds, unsigned sync_every,
            const LineWriter& out)
{
    const unsigned fps = workload_frames(0).fps;
    const unsigned long frames = (unsigned long)seconds * fps;
    for (unsigned long f = 0; f < frames; f++) {
        for (unsigned c = 0; c < channels.size(); c++)
            if (!write_frame(channels[c], c, out))
                return false;
        if ((f + 1) % (sync_every * fps) == 0 && !sync_channels(channels, out))
            return false;
    }
    return true;
}

// `seconds` of stream on each channel in calls of `seconds_per_call`
// seconds' frames, all channels synced after each round of calls.
bool record_in_long_calls(std::vector<Channel>& channels, unsigned seconds,
                          unsigned seconds_per_call, const LineWriter& out)
{
    const unsigned fps = workload_frames(0).fps;
    for (unsigned done = 0; done < seconds; done += seconds_per_call) {
        const unsigned frames = std::min(seconds_per_call, seconds - done) * fps;
        for (unsigned c = 0; c < channels.size(); c++)
            if (!write_frames(channels[c], c, frames, out))
                return false;
        if (!sync_channels(channels, out))
            return false;
    }
    return true;
}

bool close_channels(std::vector<Channel>& channels, const LineWriter& out)
{
    for (unsigned c = 0; c < channels.size(); c++) {
        if (api_qzfs_close_stream_segment(channels[c].fd) != 0) {
            out.line("fail closing the segment of channel " + std::to_string(c));
            return false;
        }
        out.line("s " + std::to_string(c) + " " + std::to_string(channels[c].written));
    }
    return true;
}

bool walk_mounted_disk(DiskWalk& walk, const LineWriter& out)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    std::string error;
    if (fs == nullptr || !walk_disk(fs, walk, error)) {
        out.line("fail the index cannot be read: " + error);
        return false;
    }
    return true;
}

// The segment a delete or trim works on, found in the index.
struct Target {
    _k4t_stream_segment_id_ id;
    _stream_segment_index_node_dev_ node;
};

// The segments of the workload's target channel, by start time.
std::vector<Target> channel_targets(const Workload& workload, const DiskWalk& walk)
{
    std::vector<std::pair<unsigned, Target>> found;  // start second of the day, segment
    for (const RootWalk& r : walk.roots) {
        if (r.node.channel != workload.target_channel)
            continue;
        for (const SegmentSlot& s : r.segments) {
            Target t;
            t.id = {kHdd, r.position, s.index};
            t.node = s.node;
            found.emplace_back(s.node.start_hour * 3600u + s.node.start_minute * 60u +
                                   s.node.start_second,
                               t);
        }
    }
    using Found = std::pair<unsigned, Target>;
    std::stable_sort(found.begin(), found.end(),
                     [](const Found& a, const Found& b) { return a.first < b.first; });
    std::vector<Target> targets;
    for (const Found& f : found)
        targets.push_back(f.second);
    return targets;
}

bool find_target(const Workload& workload, DiskWalk& walk, Target& target, const LineWriter& out)
{
    if (!walk_mounted_disk(walk, out))
        return false;
    const std::vector<Target> found = channel_targets(workload, walk);
    if (found.size() <= workload.target_rank) {
        out.line("fail channel " + std::to_string(workload.target_channel) + " has " +
                 std::to_string(found.size()) + " segments, none to work on");
        return false;
    }
    target = found[workload.target_rank];
    return true;
}

std::string label(const std::pair<uint32_t, uint32_t>& key)
{
    return std::to_string(key.first) + ":" + std::to_string(key.second);
}

using SegmentNodes = std::map<std::pair<uint32_t, uint32_t>, _stream_segment_index_node_dev_>;

SegmentNodes segment_nodes(const DiskWalk& walk)
{
    SegmentNodes nodes;
    for (const RootWalk& r : walk.roots)
        for (const SegmentSlot& s : r.segments)
            nodes[{r.position, s.index}] = s.node;
    return nodes;
}

// Takes out of both every segment that is in both and unchanged: `was`
// keeps what the change took or changed, `now` what it made.
void drop_unchanged(SegmentNodes& was, SegmentNodes& now)
{
    for (auto a = was.begin(); a != was.end();) {
        auto b = now.find(a->first);
        if (b == now.end() || memcmp(&a->second, &b->second, sizeof(a->second)) != 0) {
            ++a;
            continue;
        }
        now.erase(b);
        a = was.erase(a);
    }
}

// After the delete or trim of a closed segment: the segment is gone, or
// starts at a later I-frame, shorter by the bytes taken; every other
// segment is as it was.
bool check_change(const Workload& workload, const DiskWalk& before, const Target& target,
                  unsigned long long taken, const LineWriter& out)
{
    DiskWalk after;
    if (!walk_mounted_disk(after, out))
        return false;
    SegmentNodes was = segment_nodes(before), now = segment_nodes(after);
    drop_unchanged(was, now);
    const std::pair<uint32_t, uint32_t> key(target.id.root_index, target.id.stream_segment_index);
    auto it = now.find(key);
    bool ok = was.size() == 1 && was.count(key) == 1;
    if (workload.action == Action::Delete)
        ok = ok && now.empty();
    else
        ok = ok && now.size() == 1 && it != now.end() &&
             segment_len_of(it->second) + taken == segment_len_of(target.node) &&
             segment_start_iframe_of(it->second) > segment_start_iframe_of(target.node);
    if (!ok)
        out.line("fail the change of segment " + label(key) + " is not the one asked for");
    return ok;
}

unsigned second_of(uint8_t hour, uint8_t minute, uint8_t second)
{
    return hour * 3600u + minute * 60u + second;
}

unsigned start_second(const _stream_segment_index_node_dev_& n)
{
    return second_of(n.start_hour, n.start_minute, n.start_second);
}

_k4t_fs_time_ time_of(unsigned second)
{
    return {uint8_t(second / 3600), uint8_t(second / 60 % 60), uint8_t(second % 60)};
}

// A piece that a change by time leaves of its segment: its first I-frame
// (a log position), length, start and end second of the day, and whether it
// is the stretch, which takes the change's attributes.
struct Piece {
    uint32_t first;
    uint64_t len;
    unsigned start, end;
    bool stretch;
};

// The log position of the segment's I-frame at `second` of the day; 0 when
// the segment has none there. The segment's entries end where its length
// does, or where the stream offsets start again from below: the entries of
// the next segment recorded into the root.
uint32_t iframe_at(const RootWalk& root, const _stream_segment_index_node_dev_& node,
                   unsigned second)
{
    const uint32_t first = segment_start_iframe_of(node);
    uint64_t last = root.log[first].stream_segment_offset;
    for (uint32_t i = first; i < root.log.size(); i++) {
        const _iframe_index_node_dev_& e = root.log[i];
        if (e.id != IFRAME_INDEX_ID_IFRAME)
            continue;
        if (e.stream_segment_offset < last ||
            e.stream_segment_offset - root.log[first].stream_segment_offset >= segment_len_of(node))
            return 0;
        last = e.stream_segment_offset;
        if (second_of(e.hour, e.minute, e.second) == second)
            return i;
    }
    return 0;
}

// What a change of [from, to] (seconds of the day) must leave of `node`,
// worked out from its I-frame entries: the part in front of the stretch, the
// stretch itself when it stays, the part behind it. The stretch runs from
// the segment's I-frame at `from` (its first I-frame when `from` lies before
// its start) to the one at `to`, or to the segment's end when it has none
// there. Empty when `from` meets no I-frame.
std::vector<Piece> expected_pieces(const RootWalk& root, const _stream_segment_index_node_dev_& node,
                                   unsigned from, unsigned to, bool keep_stretch)
{
    const uint32_t f = segment_start_iframe_of(node),
                   a = from < start_second(node) ? f : iframe_at(root, node, from),
                   b = iframe_at(root, node, to);
    const uint64_t len = segment_len_of(node);
    const unsigned end = second_of(node.end_hour, node.end_minute, node.end_second);
    auto offset = [&](uint32_t i) {
        return root.log[i].stream_segment_offset - root.log[f].stream_segment_offset;
    };
    auto second = [&](uint32_t i) {
        return second_of(root.log[i].hour, root.log[i].minute, root.log[i].second);
    };
    std::vector<Piece> pieces;
    if (a == 0)
        return pieces;
    if (a != f)
        pieces.push_back({f, offset(a), start_second(node), second(a), false});
    if (keep_stretch)
        pieces.push_back({a, (b != 0 ? offset(b) : len) - offset(a), second(a),
                          b != 0 ? second(b) : end, true});
    if (b != 0)
        pieces.push_back({b, len - offset(b), second(b), end, false});
    return pieces;
}

uint32_t lock_type_of(const _stream_segment_index_node_dev_& n)
{
    uint32_t bits = 0;
    memcpy(&bits, &n.lock_type, sizeof(bits));
    return bits;
}

// Whether node `n` is piece `p` of `old`, with the old node's attributes or,
// for the stretch, those of `s`.
bool is_piece(const _stream_segment_index_node_dev_& n, const Piece& p,
              const _stream_segment_index_node_dev_& old, const Stretch& s)
{
    const bool lock = p.stretch && (s.mask & 1) != 0, type = p.stretch && (s.mask & 2) != 0;
    return n.id == NORMAL_STREAM_SEGMENT_INDEX && segment_start_iframe_of(n) == p.first &&
           segment_len_of(n) == p.len && start_second(n) == p.start &&
           second_of(n.end_hour, n.end_minute, n.end_second) == p.end &&
           n.lock == (lock ? s.lock : old.lock) &&
           lock_type_of(n) == (lock ? s.lock_type : lock_type_of(old)) &&
           n.record_type == (type ? s.record_type : old.record_type);
}

const RootWalk* root_at(const DiskWalk& walk, uint32_t position)
{
    for (const RootWalk& r : walk.roots)
        if (r.position == position)
            return &r;
    return nullptr;
}

// The data blocks of the live segments of a root.
std::set<uint32_t> blocks_in_use(const RootWalk& root, unsigned long block_size)
{
    std::set<uint32_t> blocks;
    for (const SegmentSlot& s : root.segments) {
        SegmentExtent extent;
        std::string error;
        if (is_live(s.node) && segment_extent(root, s.node, block_size, extent, error))
            blocks.insert(extent.data_blocks.begin(), extent.data_blocks.end());
    }
    return blocks;
}

// The faults of the disk after a change by time over `s` (seconds from the
// first target's start) of `targets`, segments of one root: each node is
// replaced by exactly the pieces the change leaves of it, every other
// segment is as it was, the data blocks of the targets that no piece uses
// are free and, after a split, a block is shared where two pieces meet
// (its share count matching its users is a check of every cut point).
std::vector<std::string> time_change_faults(const DiskWalk& before, const DiskWalk& after,
                                            const std::vector<Target>& targets, const Stretch& s,
                                            bool split)
{
    const uint32_t position = targets.front().id.root_index;
    const RootWalk* root = root_at(before, position);
    const RootWalk* now_root = root_at(after, position);
    const unsigned start = start_second(targets.front().node);
    std::vector<std::pair<const Target*, Piece>> pieces;
    for (const Target& t : targets) {
        const std::vector<Piece> of_target =
            root == nullptr || t.id.root_index != position
                ? std::vector<Piece>()
                : expected_pieces(*root, t.node, start + s.from, start + s.to, split);
        if (of_target.empty() || now_root == nullptr)
            return {"the stretch starts on no I-frame of segment " +
                    label({t.id.root_index, t.id.stream_segment_index}) +
                    ", or its root is gone or another"};
        for (const Piece& p : of_target)
            pieces.emplace_back(&t, p);
    }
    std::vector<std::string> faults;
    SegmentNodes was = segment_nodes(before), now = segment_nodes(after);
    drop_unchanged(was, now);
    if (was.size() != targets.size() || now.size() != pieces.size())
        faults.push_back(std::to_string(was.size()) + " segments changed or went, " +
                         std::to_string(now.size()) + " were made, " +
                         std::to_string(pieces.size()) + " pieces were due");
    for (const auto& tp : pieces) {
        const Piece& p = tp.second;
        if (std::count_if(now.begin(), now.end(), [&](const SegmentNodes::value_type& n) {
                return n.first.first == position && is_piece(n.second, p, tp.first->node, s);
            }) != 1)
            faults.push_back("no single piece from I-frame " + std::to_string(p.first) + ", " +
                             std::to_string(p.len) + " bytes");
    }
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    const std::set<uint32_t> used = blocks_in_use(*now_root, fs->manage().block_size);
    for (const Target& t : targets) {
        SegmentExtent extent;
        std::string error;
        if (segment_extent(*root, t.node, fs->manage().block_size, extent, error))
            for (uint32_t block : extent.data_blocks)
                if (used.count(block) == 0 && block_allocated(fs, block))
                    faults.push_back("block " + std::to_string(block) +
                                     ", which no piece uses, stays allocated");
    }
    const bool shared = std::any_of(now_root->log.begin(), now_root->log.end(),
                                    [](const _iframe_index_node_dev_& e) {
                                        return e.id == IFRAME_INDEX_ID_BLOCK && e.pts_high > 1;
                                    });
    if (split && !shared)
        faults.push_back("the split leaves no data block shared: a stretch end lies at a block's start");
    return faults;
}

bool check_time_change(const DiskWalk& before, const std::vector<Target>& targets,
                       const Stretch& s, bool split, const LineWriter& out)
{
    DiskWalk after;
    if (!walk_mounted_disk(after, out))
        return false;
    const std::vector<std::string> faults = time_change_faults(before, after, targets, s, split);
    std::string what;
    for (const Target& t : targets)
        what += (what.empty() ? "" : ", ") + label({t.id.root_index, t.id.stream_segment_index});
    for (const std::string& f : faults)
        out.line("fail the change by time of segment " + what + ": " + f);
    return faults.empty();
}

// The stretch as a moment of the workload's day.
_k4t_fs_date_time_ moment_of(unsigned second)
{
    _k4t_fs_date_time_ at = workload_start();
    const _k4t_fs_time_ t = time_of(second);
    at.hour = t.hour;
    at.minute = t.minute;
    at.second = t.second;
    return at;
}

// The change by time, through the calls a recorder makes: the split and
// the delete of a stretch under the disk lock (the split followed, unless
// the workload leaves it out, by the root's summary of record types and
// locks, as the API's callers of it do), the end moved back and the lock
// over a range through the API, which takes the lock itself.
int change_by_time(const Workload& workload, const Target& target)
{
    const unsigned start = start_second(target.node);
    const Stretch& s = workload.stretch;
    const _k4t_fs_time_ from = time_of(start + s.from), to = time_of(start + s.to);
    if (workload.action == Action::Shorten)
        return api_qzfs_modify_stream_segment_end_time(target.id, from);
    if (workload.action == Action::LockRange) {
        _qzfs_k4t_stream_lock_para_ para = {};
        para.group_mask = 1;
        para.channel_mask = 1u << workload.target_channel;
        para.stream_mask = 1;
        para.record_type = 0xFFFF;
        para.start_date_time = moment_of(start + s.from);
        para.end_date_time = moment_of(start + s.to);
        return api_qzfs_stream_segment_lock_by_time(&para, kRangeLockNumber);
    }
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    DiskLockGuard disk(*fs);
    const uint32_t root = target.id.root_index, slot = target.id.stream_segment_index;
    if (workload.action == Action::Split)
        return fs->split_stream_segment_by_time(root, slot, from, to, s.mask, s.lock,
                                                s.lock_type, s.record_type, 0) == 0 &&
                       (!workload.root_summary ||
                        fs->check_and_modify_root_info(root, nullptr) >= 0)
                   ? 0
                   : -1;
    return fs->delete_stream_segment_time_range(root, slot, from, to);
}

// The writer never lets two segments share a data block, but a segment split
// at an I-frame inside a block leaves its two pieces sharing that block, and
// a delete of one piece must leave the block to the other. The only segment
// of the disk is split, its attributes unchanged, at the middle I-frame of
// its third data block into a front piece (a new node) and a back piece
// (the old node).
bool split_sharing_a_block(const LineWriter& out)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    DiskLockGuard disk(*fs);
    DiskWalk walk;
    SegmentExtent extent;
    std::string error = "the disk holds no single segment";
    if (!walk_mounted_disk(walk, out))
        return false;
    const RootWalk* root = walk.roots.size() == 1 ? &walk.roots[0] : nullptr;
    if (root == nullptr || root->segments.size() != 1 ||
        !segment_extent(*root, root->segments[0].node, fs->manage().block_size, extent, error) ||
        extent.data_blocks.size() < 4) {
        out.line("fail no segment to split: " + error);
        return false;
    }
    const Target target = {{kHdd, root->position, root->segments[0].index},
                           root->segments[0].node};
    std::vector<unsigned> inside;  // seconds of the I-frames in the third block
    for (uint32_t i = extent.block_entries[2] + 1;
         i < root->log.size() && root->log[i].id == IFRAME_INDEX_ID_IFRAME; i++)
        inside.push_back(second_of(root->log[i].hour, root->log[i].minute, root->log[i].second));
    if (inside.size() < 3) {
        out.line("fail block " + std::to_string(extent.data_blocks[2]) +
                 " holds too few I-frames to split at");
        return false;
    }
    Stretch back;  // from the cut to an hour past it, beyond the segment's end
    back.from = inside[inside.size() / 2] - start_second(target.node);
    back.to = back.from + 3600;
    const unsigned start = start_second(target.node);
    if (fs->split_stream_segment_by_time(target.id.root_index, target.id.stream_segment_index,
                                         time_of(start + back.from), time_of(start + back.to), 0,
                                         0, 0, 0, 0) != 0) {
        out.line("fail the split of segment " +
                 label({target.id.root_index, target.id.stream_segment_index}));
        return false;
    }
    return check_time_change(walk, {target}, back, true, out);
}

// The delete, trim or change by time that the cut falls on; a TrimLive
// workload then records on behind its trim and closes the segment.
bool act(const Workload& workload, const DiskWalk& before, Target& target,
         std::vector<Channel>& channels, const LineWriter& out)
{
    const std::string what = label({target.id.root_index, target.id.stream_segment_index});
    if (changes_by_time(workload.action)) {
        // A lock over a range splits every segment of the channel it meets.
        std::vector<Target> targets = {target};
        if (workload.action == Action::LockRange) {
            const unsigned from = start_second(target.node) + workload.stretch.from,
                           to = start_second(target.node) + workload.stretch.to;
            targets.clear();
            for (const Target& t : channel_targets(workload, before))
                if (start_second(t.node) < to &&
                    second_of(t.node.end_hour, t.node.end_minute, t.node.end_second) > from)
                    targets.push_back(t);
        }
        if (change_by_time(workload, target) == 0)
            return check_time_change(before, targets, workload.stretch,
                                     workload.action == Action::Split ||
                                         workload.action == Action::LockRange,
                                     out);
        out.line("fail the change by time of segment " + what);
        return false;
    }
    if (workload.action == Action::Delete) {
        if (api_qzfs_delete_stream_segment(&target.id) == 0)
            return check_change(workload, before, target, 0, out);
        out.line("fail the delete of segment " + what);
        return false;
    }
    CQzFileSystem* fs = gQzfsManager.get_file_system(kHdd);
    const unsigned long long payload = fs->manage().block_size - 0x1000;
    const unsigned long long want = workload.action == Action::Trim ? 2 * payload : payload * 3 / 2;
    unsigned long long taken = 0;
    unsigned char whole = 1;
    int result = -1;
    {
        DiskLockGuard disk(*fs);
        result = fs->Delete_stream_segment(target.id.root_index, target.id.stream_segment_index,
                                           nullptr, want, &taken, &whole, nullptr, nullptr,
                                           nullptr);
    }
    if (result != 0 || whole != 0 || taken < want) {
        out.line("fail the trim of segment " + what + " by " + std::to_string(want) +
                 " bytes: result " + std::to_string(result) + ", whole " +
                 std::to_string(whole) + ", " + std::to_string(taken) + " bytes taken");
        return false;
    }
    if (workload.action == Action::Trim)
        return check_change(workload, before, target, taken, out);
    return workload.action != Action::TrimLive ||
           (record(channels, kSecondsAfterLiveTrim, workload.sync_every, out) &&
            close_channels(channels, out));
}

// The segments of a disk, oldest owner stamp first (equal stamps in index
// order).
struct Aged {
    std::pair<uint32_t, uint32_t> key;  // root, slot
    _stream_segment_index_node_dev_ node;
};

std::vector<Aged> by_age(const DiskWalk& walk)
{
    std::vector<Aged> aged;
    for (const auto& n : segment_nodes(walk))
        aged.push_back({n.first, n.second});
    std::stable_sort(aged.begin(), aged.end(), [](const Aged& a, const Aged& b) {
        return a.node.owner_stamp < b.node.owner_stamp;
    });
    return aged;
}

// After an uncut overwrite pass: what it changed is unlocked and no younger
// than any unlocked segment it left alone; all of it is gone but the
// youngest, which starts at a later I-frame, shorter, and ends as before;
// it took at least `once` bytes; every other segment, the locked one above
// all, is as it was.
bool check_pass(const std::vector<Aged>& aged, unsigned long long once, const LineWriter& out)
{
    DiskWalk after;
    if (!walk_mounted_disk(after, out))
        return false;
    SegmentNodes now = segment_nodes(after);
    std::vector<std::string> faults;
    unsigned long long taken = 0;
    unsigned gone = 0, trimmed = 0;
    uint32_t youngest_gone = 0, trimmed_stamp = 0, youngest_changed = 0, oldest_kept = UINT32_MAX;
    for (const Aged& a : aged) {
        const uint32_t stamp = a.node.owner_stamp;
        auto it = now.find(a.key);
        if (it != now.end() && memcmp(&it->second, &a.node, sizeof(a.node)) == 0) {
            if (a.node.lock == 0)
                oldest_kept = std::min(oldest_kept, stamp);
            now.erase(it);
            continue;
        }
        youngest_changed = std::max(youngest_changed, stamp);
        if (a.node.lock != 0)
            faults.push_back("the locked segment " + label(a.key) + " was changed");
        if (it == now.end()) {
            gone++;
            taken += segment_len_of(a.node);
            youngest_gone = std::max(youngest_gone, stamp);
            continue;
        }
        const _stream_segment_index_node_dev_& n = it->second;
        if (segment_len_of(n) < segment_len_of(a.node) &&
            segment_start_iframe_of(n) > segment_start_iframe_of(a.node) &&
            n.end_hour == a.node.end_hour && n.end_minute == a.node.end_minute &&
            n.end_second == a.node.end_second && n.lock == a.node.lock) {
            trimmed++;
            trimmed_stamp = stamp;
            taken += segment_len_of(a.node) - segment_len_of(n);
        } else {
            faults.push_back("segment " + label(a.key) + " changed otherwise than by a front trim");
        }
        now.erase(it);
    }
    if (!now.empty())
        faults.push_back("segment " + label(now.begin()->first) + " was not there before the pass");
    if (gone == 0 || trimmed != 1)
        faults.push_back("the pass removed " + std::to_string(gone) + " segments and trimmed " +
                         std::to_string(trimmed) +
                         ", asked for the oldest unlocked one and half the next");
    if (oldest_kept < youngest_changed)
        faults.push_back("the pass changed a segment of stamp " +
                         std::to_string(youngest_changed) +
                         " and left an unlocked one of stamp " + std::to_string(oldest_kept));
    if (trimmed == 1 && youngest_gone > trimmed_stamp)
        faults.push_back("the pass removed a segment younger than the one it trimmed");
    if (taken < once)
        faults.push_back("the pass took " + std::to_string(taken) + " bytes, " +
                         std::to_string(once) + " were asked for");
    for (const std::string& f : faults)
        out.line("fail " + f);
    return faults.empty();
}

// One overwrite pass over group 0, which must run: its threshold is above
// anything the disk can have spare. It is asked for the oldest unlocked
// segment and half the next one.
bool overwrite_pass(const power_cut::Settings& device, const LineWriter& out)
{
    DiskWalk before;
    if (!walk_mounted_disk(before, out))
        return false;
    const std::vector<Aged> aged = by_age(before);
    std::vector<const Aged*> unlocked;
    for (const Aged& a : aged) {
        out.line("stamp " + label(a.key) + " " + std::to_string(a.node.owner_stamp));
        if (a.node.lock == 0)
            unlocked.push_back(&a);
    }
    if (unlocked.size() < 3 || unlocked.size() == aged.size()) {
        out.line("fail the disk holds " + std::to_string(aged.size()) + " segments, " +
                 std::to_string(unlocked.size()) + " of them unlocked");
        return false;
    }
    const unsigned long long once =
        segment_len_of(unlocked[0]->node) + segment_len_of(unlocked[1]->node) / 2;
    if (!configure_group(2 * kImageSize, once)) {
        out.line("fail the overwrite thresholds are refused");
        return false;
    }
    power_cut::install(device);  // the cut falls from here on
    const int result = api_qzfs_disk_overwrite_big_stream(0);
    if (result != 0) {
        out.line("fail the overwrite pass returns " + std::to_string(result));
        return false;
    }
    return check_pass(aged, once, out);
}

// The segment an overwrite workload keeps from its pass, locked by id.
bool lock_target(const Workload& workload, const LineWriter& out)
{
    DiskWalk walk;
    Target target;
    if (!find_target(workload, walk, target, out))
        return false;
    if (api_qzfs_stream_segment_lock_by_id(&target.id, 1) == 0)
        return true;
    out.line("fail the lock of segment " + label({target.id.root_index,
                                                  target.id.stream_segment_index}));
    return false;
}

} // namespace

bool find_workload(const std::string& name, Workload& out)
{
    for (const Workload& w : kWorkloads)
        if (w.name == name) {
            out = w;
            return true;
        }
    return false;
}

std::string workload_names()
{
    std::string names;
    for (const Workload& w : kWorkloads)
        names += (names.empty() ? "" : ", ") + w.name;
    return names;
}

std::vector<NamedFile> prepared_files(const Workload& workload, unsigned long long data)
{
    if (workload.action == Action::FileWrite)
        return {{"A", data + 54321}, {"B", 100000}};
    if (workload.action == Action::FileDelete)
        return {{"A", 2 * data + 12345}, {"B", 100000}, {"D", 5000}};
    return {};
}

unsigned long long grown_size(const std::string& name, unsigned long long data)
{
    return name == "C" ? data + 77777 : 2 * data + 4321;
}

unsigned long long file_block_data()
{
    _qzfs_k4t_hdd_info_ info = {};
    if (api_qzfs_get_hdd_info(kHdd, &info) != 0 || info.block_size <= 0x1000)
        return 0;
    return (unsigned long long)info.block_size - 0x1000;
}

std::vector<char> file_bytes(const std::string& name, unsigned long long from, size_t length)
{
    const uint32_t key = uint32_t(name == "E" ? 'D' : name[0]) * 0x9E3779B9u;
    std::vector<char> bytes(length);
    for (size_t i = 0; i < length; i++) {
        uint32_t v = uint32_t(from + i) * 2654435761u ^ key;
        v ^= v >> 15;
        v *= 0x85EBCA6Bu;
        bytes[i] = char(v >> 24);
    }
    return bytes;
}

_k4t_fs_date_time_ workload_start() { return {26, 11, 22, 9, 0, 0, 0}; }

FrameSourceConfig workload_frames(uint8_t channel)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.fps = 10;
    config.gop = 10;
    config.iframe_bytes = 96 * 1024;
    config.pframe_bytes = 24 * 1024;
    config.start = workload_start();
    return config;
}

void format_base_image(const std::string& image, const LineWriter& out)
{
    const int fd = open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, off_t(kImageSize)) != 0) {
        out.line("fail cannot make " + image);
        return;
    }
    close(fd);
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    std::string path = image;
    char label[] = "power cut rig";
    if (api_qzfs_format(kHdd, &path[0], label) != 0)
        out.line("fail format of " + image);
    else
        out.line("done");
}

void prepare_disk(const Workload& workload, const std::string& image, const LineWriter& out)
{
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    if (workload.action != Action::Record && workload.action != Action::TrimLive) {
        if (!mount_for_recording(image, out))
            return;
        std::vector<Channel> channels = make_channels(workload.channels);
        const bool rebuild = workload.action == Action::Rebuild;
        const unsigned seconds =
            rebuild ? workload.seconds - kRebuildSecondSegment : workload.seconds / workload.segments;
        for (unsigned s = 0; s < workload.segments; s++)
            if (!open_segments(channels, out) ||
                !record(channels, seconds, workload.sync_every, out) ||
                !close_channels(channels, out))
                return;
        if (rebuild) {
            channels.erase(channels.begin() + 1, channels.end());  // channel 0 records on
            if (!open_segments(channels, out) ||
                !record(channels, kRebuildSecondSegment, workload.sync_every, out) ||
                !close_channels(channels, out))
                return;
        }
        const KeyPlaces places = key_places();
        if ((works_on_files(workload.action) && !make_files(workload, out)) ||
            (workload.split && !split_sharing_a_block(out)) ||
            (workload.action == Action::Overwrite && !lock_target(workload, out)) ||
            !unmount(out))
            return;
        if (workload.action == Action::KeyMerge && !damage_key_table(image, places, out))
            return;
        if (rebuild && !wipe_indexes(image, places, out))
            return;
    }
    out.line("done");
}

void run_workload(const Workload& workload, const std::string& image,
                  const power_cut::Settings& device, const LineWriter& out)
{
    api_qzfs_init();
    api_qzfs_set_debug_level(0);
    if (workload.action == Action::KeyMerge) {
        power_cut::install(device);
        if (repair_key_table(image, out))
            out.line("done " + std::to_string(power_cut::counts().writes));
        return;
    }
    if (workload.action == Action::Rebuild) {
        power_cut::install(device);
        if (recover_disk(image, device, out))
            out.line("done " + std::to_string(power_cut::counts().writes));
        return;
    }
    const bool recording = workload.action == Action::Record;
    power_cut::Settings settings = recording ? device : power_cut::Settings();
    const bool tell_allocations =
        workload.allocation_cuts && device.mode == power_cut::Mode::Observe;
    if (tell_allocations)
        settings.on_write = note_write;
    power_cut::install(settings);
    if (!mount_for_recording(image, out))
        return;
    const KeyPlaces places = key_places();
    std::vector<Channel> channels = make_channels(workload.channels);
    if (recording) {
        if (!open_segments(channels, out) ||
            !(workload.seconds_per_call == 0
                  ? record(channels, workload.seconds, workload.sync_every, out)
                  : record_in_long_calls(channels, workload.seconds, workload.seconds_per_call,
                                         out)) ||
            !close_channels(channels, out))
            return;
    } else if (workload.action == Action::Overwrite) {
        if (!overwrite_pass(device, out))
            return;
    } else if (works_on_files(workload.action)) {
        power_cut::install(device);  // the cut falls from here on
        if (!file_work(workload, out))
            return;
    } else {
        DiskWalk before;
        Target target;
        if (workload.action == Action::TrimLive &&
            (!open_segments(channels, out) ||
             !record(channels, workload.seconds - kSecondsAfterLiveTrim, workload.sync_every,
                     out)))
            return;
        if (!find_target(workload, before, target, out))
            return;
        if (workload.action == Action::TrimLive)
            out.line("before " + start_key(target.id.root_index, target.id.stream_segment_index,
                                           target.node));
        power_cut::install(device);  // the cut falls from here on
        if (!act(workload, before, target, channels, out))
            return;
    }
    if (!unmount(out))
        return;
    if (tell_allocations)
        for (const SeenWrite& w : seen_writes())
            if (block_request_write(w.offset, w.length, places))
                out.line("alloc " + std::to_string(w.number));
    out.line("done " + std::to_string(power_cut::counts().writes));
}

WorkloadProgress read_progress(const Workload& workload, const std::vector<std::string>& lines)
{
    WorkloadProgress progress;
    progress.channels.resize(workload.channels);
    for (const std::string& line : lines) {
        const std::vector<std::string> w = words(line);
        if (w.empty())
            continue;
        if (w[0] == "done") {
            progress.finished = true;
        } else if (w[0] == "fail") {
            progress.failure = line.substr(5);
        } else if (w[0] == "file" && w.size() >= 3) {
            FileProgress& f = progress.files[w[1]];
            if (w[2] == "done")
                f.done = true;
            else if (w.size() == 4)
                (w[2] == "written" ? f.written : f.synced) = strtoull(w[3].c_str(), nullptr, 10);
        } else if ((w[0] == "w" || w[0] == "s") && w.size() == 3) {
            const unsigned long c = strtoul(w[1].c_str(), nullptr, 10);
            const unsigned long n = strtoul(w[2].c_str(), nullptr, 10);
            if (c < progress.channels.size())
                (w[0] == "w" ? progress.channels[c].written : progress.channels[c].synced) = n;
        }
    }
    return progress;
}

ExpectedStream expected_stream(uint8_t channel, unsigned long frames)
{
    ExpectedStream stream;
    FrameSource source(workload_frames(channel));
    FrameBatch batch;
    for (unsigned long f = 0; f < frames; f++) {
        const size_t before = batch.infos.size();
        source.append_frame(batch);
        stream.ends.push_back(batch.bytes.size());
        stream.iframe.push_back(batch.infos.size() > before);
    }
    stream.bytes.swap(batch.bytes);
    return stream;
}

} // namespace powercut
