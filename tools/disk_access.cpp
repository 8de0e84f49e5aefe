// disk_access: the host tool's way to the disk object. Each function finds
// the mounted disk, takes its lock for the reads and writes it makes, and
// hands back plain records.
#include "disk_access.h"
#include "frame_source.h"

#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_device.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

const char* const kDiskBlockTypeNames[kDiskBlockTypes] = {
    "none", "free", "system", "key info", "root index", "segment index",
    "i-frame index", "data", "normal file", "bad", "test"};

namespace {

// Runs `step` on the mounted disk `hdd` under its disk lock and gives its
// result; `missing` when no disk is mounted there.
template <typename Step>
int with_disk(unsigned char hdd, int missing, Step step)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
    if (fs == nullptr)
        return missing;
    DiskLockGuard disk(*fs);
    return step(*fs);
}

// Index records are packed: their wider fields are copied byte by byte from
// and to their address, never bound to a reference of their own type (which
// would be misaligned).
template <typename T, size_t Width>
T read_packed(const void* field)
{
    static_assert(sizeof(T) == Width, "field width");
    T value;
    memcpy(&value, field, sizeof(T));
    return value;
}
#define READ_PACKED(T, field) read_packed<T, sizeof(field)>(&(field))
#define WRITE_PACKED(field, value) memcpy(&(field), (value), sizeof(field))

// A character array of a record as a string, up to its first NUL; its last
// byte is kept for the NUL, whatever the disk holds there.
template <size_t N>
std::string text_of(const char (&field)[N])
{
    return std::string(field, strnlen(field, N - 1));
}

// What a segment node holds, as a plain record for a used one.
IndexSlot segment_entry_of(const _stream_segment_index_node_dev_& n, SegmentEntry& entry)
{
    if (n.id == END_STREAM_SEGMENT_INDEX || n.id == FREE_STREAM_SEGMENT_INDEX)
        return n.id == END_STREAM_SEGMENT_INDEX ? IndexSlot::End : IndexSlot::Unused;
    entry.start_hour = n.start_hour;
    entry.start_minute = n.start_minute;
    entry.start_second = n.start_second;
    entry.closed = n.end_hour != QZFS_INVALID_END_HOUR;
    entry.end_hour = n.end_hour;
    entry.end_minute = n.end_minute;
    entry.end_second = n.end_second;
    entry.len = READ_PACKED(uint64_t, n.len_in_bytes);
    entry.record_type = n.record_type;
    entry.locked = n.lock != 0;
    entry.start_iframe = READ_PACKED(uint32_t, n.start_iframe);
    entry.pre_record = n.id == PRE_RECORD_STREAM_SEGMENT_INDEX;
    return IndexSlot::Used;
}

// The I-frame index blocks of root entry `root`: its first block, the
// block list (freed by the caller) and the entry counts.
int read_iframe_chain(CQzFileSystem& fs, uint32_t root, uint32_t& head, uint32_t& num,
                      uint32_t*& list, _iframe_block_info_& info)
{
    uint32_t ssi_num = 0;
    uint32_t* ssi_list = nullptr;
    int rc = fs.Get_stream_segment_index_block_list(root, &ssi_num, &ssi_list, &head);
    delete[] ssi_list;
    if (rc == 0)
        rc = fs.Read_iframe_index_block_list(head, &num, &list);
    if (rc == 0)
        rc = fs.Get_iframe_block_info(head, &info);
    delete[] info.pBlock_list;
    info.pBlock_list = nullptr;
    return rc;
}


// The I-frame entries of `seconds` seconds from the start time of `para`:
// a block entry for every eighth second's data block, one I-frame a second
// spread over it. `next_ordinal` counts the data blocks of the root.
int synthetic_iframes(CQzFileSystem& fs, const _qzfs_k4t_create_ss_para_& para,
                      const SyntheticBlockOwner& owner, unsigned seconds,
                      unsigned long block_size, uint32_t next_ordinal,
                      std::vector<_iframe_index_node_dev_>& nodes, uint64_t& len)
{
    const uint32_t step = uint32_t((block_size - 4096) / 8);
    // Each second's I-frame is a small one of the channel, written where
    // its entry points, so that the entries stand for real frames.
    FrameSourceConfig config;
    config.channel = para.channel;
    config.fps = 1;
    config.gop = 1;
    config.iframe_bytes = 1024;
    config.start = {para.year, para.month, para.day, para.hour, para.minute, para.second, 0};
    FrameSource source(config);
    uint32_t block = 0;
    for (unsigned s = 0; s < seconds; s++) {
        unsigned at = para.hour * 3600u + para.minute * 60u + para.second + s;
        _iframe_index_node_dev_ n = {};
        if (s % 8 == 0) {
            if (take_data_block(fs, para, owner, next_ordinal, block) != 0)
                return -1;
            uint32_t ordinal = next_ordinal++, shared = 1;
            n.id = IFRAME_INDEX_ID_BLOCK;
            WRITE_PACKED(n.block_num, &block);
            WRITE_PACKED(n.block_offset, &ordinal);
            WRITE_PACKED(n.pts_high, &shared);
            nodes.push_back(n);
            n = {};
        }
        uint32_t offset = 4096 + (s % 8) * step, pts = s * 90000u;
        uint64_t stream_offset = uint64_t(s) * step;
        n.id = IFRAME_INDEX_ID_IFRAME;
        n.hour = uint8_t(at / 3600 % 24);
        n.minute = uint8_t(at / 60 % 60);
        n.second = uint8_t(at % 60);
        WRITE_PACKED(n.block_num, &block);
        WRITE_PACKED(n.block_offset, &offset);
        WRITE_PACKED(n.pts_low, &pts);
        WRITE_PACKED(n.stream_segment_offset, &stream_offset);
        nodes.push_back(n);
        FrameBatch frame;
        source.append_frame(frame);
        if (fs.write_in_block(block, offset, frame.bytes.data(), frame.bytes.size()) != 0)
            return -1;
    }
    len = uint64_t(seconds) * step;
    return 0;
}

// Gives segment `index` of root `root` its end time (the start of `para`
// plus `seconds`, at most the end of the day) and length, and brings the
// root entry up to date.
int close_synthetic_segment(CQzFileSystem& fs, uint32_t root, uint32_t index,
                            const _qzfs_k4t_create_ss_para_& para, unsigned seconds, uint64_t len,
                            _stream_segment_index_node_dev_& node)
{
    unsigned end = para.hour * 3600u + para.minute * 60u + para.second + seconds - 1;
    if (end > 86399)
        end = 86399;
    node.end_hour = uint8_t(end / 3600);
    node.end_minute = uint8_t(end / 60 % 60);
    node.end_second = uint8_t(end % 60);
    WRITE_PACKED(node.len_in_bytes, &len);
    if (fs.Modify_stream_segment(root, index, 0, &node) != 0)
        return -1;
    return fs.check_and_modify_root_info(root, nullptr);
}

// Creates the segment node, appends its I-frame entries as a writer would
// (at most FS_IFI_BUFFER_NUM at a time) and closes the segment.
int add_synthetic_segment(CQzFileSystem& fs, uint32_t root, const _qzfs_k4t_create_ss_para_& para,
                          unsigned seconds, unsigned long block_size, uint32_t& index)
{
    uint32_t head = 0, num = 0;
    uint32_t* list = nullptr;
    _iframe_block_info_ info = {};
    if (read_iframe_chain(fs, root, head, num, list, info) != 0) {
        delete[] list;
        return -1;
    }
    const uint32_t next = info.iframe_index_num + info.block_index_num;
    std::vector<_iframe_index_node_dev_> nodes;
    uint64_t len = 0;
    _stream_segment_index_node_dev_ node;
    int rc = fs.Create_stream_segment_index_node(root, &para, next + 1, &index, &node);
    _root_index_node_dev_ root_node;
    if (rc == 0)
        rc = fs.Get_root_index_dev_node(root, &root_node);
    SyntheticBlockOwner owner;
    owner.iframe_head = head;
    owner.start_iframe = next + 1;
    owner.stream_type = root_node.stream_type;
    if (rc == 0)
        rc = synthetic_iframes(fs, para, owner, seconds, block_size, info.block_index_num, nodes,
                               len);
    const uint8_t date_time[6] = {para.year, para.month, para.day, para.hour, para.minute, para.second};
    for (size_t done = 0; rc == 0 && done < nodes.size();) {
        size_t count = std::min<size_t>(FS_IFI_BUFFER_NUM, nodes.size() - done);
        rc = fs.Add_iframe_index(&num, &list, next + done, &nodes[done], count, date_time);
        done += count;
    }
    delete[] list;
    if (rc != 0)
        return -1;
    return close_synthetic_segment(fs, root, index, para, seconds, len, node);
}

// "HH:MM:SS" of a second of the day.
std::string clock_text(unsigned second_of_day)
{
    char text[16];
    snprintf(text, sizeof(text), "%02u:%02u:%02u", second_of_day / 3600 % 100,
             second_of_day / 60 % 60, second_of_day % 60);
    return text;
}

unsigned start_second_of(const SegmentEntry& e)
{
    return e.start_hour * 3600u + e.start_minute * 60u + e.start_second;
}

unsigned end_second_of(const SegmentEntry& e)
{
    return e.end_hour * 3600u + e.end_minute * 60u + e.end_second;
}

// The node of segment `index` of root `root` when both hold recordings;
// otherwise false with the reason in `out.refusal`.
bool find_segment(CQzFileSystem& fs, uint32_t root, uint32_t index,
                  _stream_segment_index_node_dev_& n, TrimOutcome& out)
{
    _root_index_node_dev_ rn;
    if (fs.Get_root_index_dev_node(root, &rn) != 0 || !IS_NORMAL_ROOT_INDEX(rn.id)) {
        out.refusal = "root index entry " + std::to_string(root) + " holds no recordings";
        return false;
    }
    if (fs.Get_stream_segment_index_dev_node(root, index, &n) != 0 ||
        (n.id != NORMAL_STREAM_SEGMENT_INDEX && n.id != PRE_RECORD_STREAM_SEGMENT_INDEX)) {
        out.refusal = "root index entry " + std::to_string(root) + " has no segment " +
                      std::to_string(index) + " (deleted, or never recorded)";
        return false;
    }
    segment_entry_of(n, out.before);
    return true;
}

// Whether segment node `n` of root `root` has an I-frame at or after second
// `from` of the day. The walk starts at the segment's first I-frame and ends
// with its stream: at its length when it is closed, else at an I-frame whose
// stream offset does not grow (the next segment's) or at the end of the log.
int has_iframe_from(CQzFileSystem& fs, uint32_t root, const _stream_segment_index_node_dev_& n,
                    unsigned from, bool& found)
{
    found = false;
    uint32_t head = 0, num = 0;
    uint32_t* raw_list = nullptr;
    _iframe_block_info_ info = {};
    const int chain = read_iframe_chain(fs, root, head, num, raw_list, info);
    std::unique_ptr<uint32_t[]> list(raw_list);
    if (chain != 0)
        return -1;
    const bool closed = n.end_hour != QZFS_INVALID_END_HOUR;
    const uint64_t len = READ_PACKED(uint64_t, n.len_in_bytes);
    std::vector<_iframe_index_node_dev_> nodes(256);
    bool first = true;
    uint64_t first_offset = 0, last_offset = 0;
    for (unsigned long at = READ_PACKED(uint32_t, n.start_iframe);;) {
        unsigned long count = nodes.size();
        if (fs.Read_iframe_index(num, list.get(), at, &count, nodes.data(), 3) != 0)
            return -1;
        if (count == 0)
            return 0;
        for (unsigned long i = 0; i < count; i++) {
            const _iframe_index_node_dev_& e = nodes[i];
            if (e.id != IFRAME_INDEX_ID_IFRAME)
                continue;
            const uint64_t offset = READ_PACKED(uint64_t, e.stream_segment_offset);
            if (!first && offset <= last_offset)
                return 0;
            if (first)
                first_offset = offset;
            if (closed && offset - first_offset >= len)
                return 0;
            first = false;
            last_offset = offset;
            if (e.hour * 3600u + e.minute * 60u + e.second >= from) {
                found = true;
                return 0;
            }
        }
        at += count;
    }
}

// The segment after a cut: its new node, or that it went whole (and its
// root entry with it). The bytes taken are what its length lost.
void read_after_cut(CQzFileSystem& fs, uint32_t root, uint32_t index, TrimOutcome& out)
{
    _stream_segment_index_node_dev_ n;
    const bool read = fs.Get_stream_segment_index_dev_node(root, index, &n) == 0;
    out.whole = !read || (n.id != NORMAL_STREAM_SEGMENT_INDEX &&
                          n.id != PRE_RECORD_STREAM_SEGMENT_INDEX);
    if (!out.whole)
        segment_entry_of(n, out.after);
    _root_index_node_dev_ rn;
    out.root_deleted = out.whole && (fs.Get_root_index_dev_node(root, &rn) != 0 ||
                                     !IS_NORMAL_ROOT_INDEX(rn.id));
    out.taken = out.whole ? out.before.len
                          : out.before.len >= out.after.len ? out.before.len - out.after.len : 0;
}

TrimStatus trim_status(int step)
{
    return step == 0 ? TrimStatus::Done : step > 0 ? TrimStatus::Refused : TrimStatus::Failed;
}

// The used segments of root `root`; none when the root holds no recordings
// (any more). 0, or -1 on a failed read.
int used_segments(CQzFileSystem& fs, uint32_t root, std::vector<SegmentPiece>& out)
{
    out.clear();
    _root_index_node_dev_ rn;
    if (fs.Get_root_index_dev_node(root, &rn) != 0 || !IS_NORMAL_ROOT_INDEX(rn.id))
        return 0;
    for (uint32_t i = 0;; i++) {
        _stream_segment_index_node_dev_ n;
        if (fs.Get_stream_segment_index_dev_node(root, i, &n) != 0)
            return -1;
        SegmentPiece piece;
        piece.index = i;
        const IndexSlot slot = segment_entry_of(n, piece.entry);
        if (slot == IndexSlot::End)
            return 0;
        if (slot == IndexSlot::Used)
            out.push_back(piece);
    }
}

// Why a time-range delete leaves the segment of node `n` alone, or "" when
// it may go ahead.
std::string range_refusal(CQzFileSystem& fs, uint32_t root, uint32_t index,
                          const _stream_segment_index_node_dev_& n, const SegmentEntry& e,
                          unsigned from, unsigned to, int& failed)
{
    failed = 0;
    if (e.locked)
        return "it is locked";
    if (e.pre_record)
        return "it is a pre-recording";
    if (!e.closed)
        return "it has no end time (being recorded)";
    const _k4t_stream_segment_id_ id = {fs.Get_hdd_id(), root, index};
    if (fs.find_opening_stream_segment_by_id(&id, nullptr, 3) >= 0)
        return "it is open";
    // A tail cut goes from the first I-frame at or after `from`; the library
    // fails one that finds none.
    if (from > start_second_of(e) && to >= end_second_of(e)) {
        bool found = false;
        if (has_iframe_from(fs, root, n, from, found) != 0)
            failed = -1;
        else if (!found)
            return "it has no I-frame from " + clock_text(from) + " on to cut its tail at";
    }
    return "";
}

// How the cut left the segment, from what is left of it.
RangeCut cut_of(const SegmentEntry& before, const std::vector<SegmentPiece>& pieces)
{
    if (pieces.empty())
        return RangeCut::Whole;
    if (pieces.size() > 1)
        return RangeCut::Stretch;
    const SegmentEntry& left = pieces[0].entry;
    if (left.start_iframe != before.start_iframe)
        return RangeCut::Head;
    return left.len != before.len ? RangeCut::Tail : RangeCut::None;
}

// After a time-range delete: the pieces left of segment `index` (its own
// index and those the cut added, which `had` does not list), the kind of
// cut and the bytes taken.
int read_after_range(CQzFileSystem& fs, uint32_t root, uint32_t index,
                     const std::vector<SegmentPiece>& had, RangeOutcome& out)
{
    std::vector<SegmentPiece> now;
    if (used_segments(fs, root, now) != 0)
        return -1;
    for (const SegmentPiece& piece : now) {
        const bool added = std::none_of(had.begin(), had.end(), [&](const SegmentPiece& old) {
            return old.index == piece.index;
        });
        if (piece.index == index || added)
            out.pieces.push_back(piece);
    }
    std::sort(out.pieces.begin(), out.pieces.end(), [](const SegmentPiece& a, const SegmentPiece& b) {
        return start_second_of(a.entry) < start_second_of(b.entry);
    });
    out.cut = cut_of(out.before, out.pieces);
    out.whole = out.cut == RangeCut::Whole;
    _root_index_node_dev_ rn;
    out.root_deleted = out.whole && (fs.Get_root_index_dev_node(root, &rn) != 0 ||
                                     !IS_NORMAL_ROOT_INDEX(rn.id));
    uint64_t left = 0;
    for (const SegmentPiece& piece : out.pieces)
        left += piece.entry.len;
    out.taken = out.before.len >= left ? out.before.len - left : 0;
    return 0;
}

// The disk object's report of its last key info load, as a plain record.
DiskKeyRepair key_repair_of(const CQzFileSystem& fs)
{
    const qzfs_key_repair_report& r = fs.key_repair();
    static const KeyRepairLevel levels[] = {KeyRepairLevel::None, KeyRepairLevel::Backup,
                                            KeyRepairLevel::Copy, KeyRepairLevel::Merge,
                                            KeyRepairLevel::Scan};
    DiskKeyRepair out;
    if (r.level >= 0 && r.level < int(std::size(levels)))
        out.level = levels[r.level];
    out.loaded_from = r.loaded_from;
    out.key_block = fs.manage().key_block;
    out.backup_key_block = fs.manage().bak_key_block;
    // A repair may move the key block to the lower of the two places; the
    // copy loaded is the primary when it is the key block now.
    out.loaded_primary = r.loaded_from == out.key_block;
    out.primary_damaged = r.primary_damaged;
    out.backup_damaged = r.backup_damaged;
    out.copied_from = r.copied_from;
    out.backup_written = r.backup_written;
    out.merged_into = r.merged_into;
    out.from_other_copy = r.from_other_copy;
    out.from_block_head = r.from_block_head;
    out.marked_bad = r.marked_bad;
    out.marked_free = r.marked_free;
    return out;
}

// After a failed recovery without the scan: whether the device opened and
// none of its key places holds a key info block (a read-only look).
bool no_key_block_found(CQzFileSystem& fs)
{
    unsigned long block_size = 0, first = 0, found = 0;
    return fs.io_interface() != nullptr &&
           qzfs_get_block_info(fs.io_interface(), block_size, first) == 0 &&
           fs.find_key_info_block(first, found) != 0;
}

} // namespace

int take_data_block(CQzFileSystem& fs, const _qzfs_k4t_create_ss_para_& para,
                    const SyntheticBlockOwner& owner, uint32_t ordinal, uint32_t& block)
{
    _qzfs_block_info_ info = {};
    info.block_type = QZFS_BLOCK_DATA;
    info.owner_stamp = uint32_t(fs.get_block_owner_stamp());
    info.year = para.year;
    info.month = para.month;
    info.day = para.day;
    info.hour = para.hour;
    info.minute = para.minute;
    info.second = para.second;
    info.attr[0] = para.channel;
    info.attr[1] = owner.stream_type;
    info.attr[2] = para.segment_type;
    info.attr[3] = para.record_type;
    info.attr[4] = para.lock;
    memcpy(info.attr + 6, &owner.iframe_head, 4);
    memcpy(info.attr + 10, &owner.start_iframe, 4);
    info.block_index = uint16_t(ordinal);
    unsigned long taken = 0;
    if (fs.Request_free_block(1, &taken, &info, 0) != 0)
        return -1;
    block = uint32_t(taken);
    return 0;
}

bool disk_key_info(unsigned char hdd, DiskKeyInfo& out)
{
    unsigned char block_start[QZFS_KEY_HEADER_OFFSET + sizeof(_qzfs_key_header_)];
    _qzfs_key_header_ header = {};
    const int read = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        const _qzfs_disk_manage_& manage = fs.manage();
        out.key_block = manage.key_block;
        out.backup_key_block = manage.bak_key_block;
        out.owner_stamp = manage.block_owner_stamp;
        if (fs.Seek_and_read_in_block(fs.io_interface(), manage.key_block, 0, block_start,
                                      sizeof(block_start)) != (int)sizeof(block_start))
            return -1;
        memcpy(&header, block_start + QZFS_KEY_HEADER_OFFSET, sizeof(header));
        return 0;
    });
    out.label = text_of(header.label);
    out.version = text_of(header.version);
    return read == 0;
}

bool disk_key_repair(unsigned char hdd, DiskKeyRepair& out)
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        out = key_repair_of(fs);
        return 0;
    }) == 0;
}

// Registers disk `hdd` for a run of `step` on the unmounted image at
// `path`, as the library's own recovery call does: the registry held shared
// (an unmount waits for it) and the disk lock held; then takes the object
// down, and what the node caches hold of the disk with it.
template <typename Step>
static bool on_unmounted_disk(unsigned char hdd, const std::string& path, Step step)
{
    CQzFileSystem* fs = gQzfsManager.register_qzfilesystem(hdd);
    if (fs == nullptr)
        return false;
    fs->Set_hdd_id(hdd);
    std::string dev = path;
    {
        DiskRegistryReadGuard registry;
        DiskLockGuard disk(*fs);
        step(*fs, &dev[0]);
    }
    DiskRegistryWriteGuard registry;
    gQzfsManager.unregiseter_qzfilesystem(hdd);
    if (pgSystemResourceManager != nullptr)
        pgSystemResourceManager->Free_resource(hdd);
    return true;
}

KeyRecovery disk_recover_key_info(unsigned char hdd, const std::string& path, bool allow_scan,
                                  DiskKeyRepair& out)
{
    out = DiskKeyRepair();
    KeyRecovery result = KeyRecovery::Failed;
    on_unmounted_disk(hdd, path, [&](CQzFileSystem& fs, char* dev) {
        if (fs.recover_key_info(dev, allow_scan ? 1 : 0) == 0)
            result = KeyRecovery::Done;
        else if (!allow_scan && no_key_block_found(fs))
            result = KeyRecovery::NoKeyBlock;
        out = key_repair_of(fs);
    });
    return result;
}

bool disk_rebuild(unsigned char hdd, const std::string& path, DiskKeyRepair& key,
                  DiskRebuild& out)
{
    key = DiskKeyRepair();
    out = DiskRebuild();
    bool done = false;
    on_unmounted_disk(hdd, path, [&](CQzFileSystem& fs, char* dev) {
        done = fs.disk_recovery(dev, nullptr) == 0;
        key = key_repair_of(fs);
        const qzfs_rebuild_report& r = fs.rebuild_report();
        out.data_blocks = r.data_blocks;
        out.streams = r.streams;
        out.small_streams = r.small_streams;
        out.sound = r.sound;
        out.rebuilt = r.rebuilt;
        out.given_up = r.given_up;
        out.segments = r.segments;
        out.entries = r.entries;
        out.root_rebuilt = r.root_rebuilt;
    });
    return done;
}

bool disk_free_bytes(unsigned char hdd, unsigned long long& bytes)
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        _qzfs_k4t_hdd_info_ info = {};
        fs.Get_hdd_info(&info);
        bytes = (unsigned long long)info.free_num * info.block_size;
        return 0;
    }) == 0;
}

int disk_count_blocks(unsigned char hdd, unsigned long counts[kDiskBlockTypes])
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) { return fs.count_blocks_by_type(counts); });
}

bool disk_root_index_block(unsigned char hdd, unsigned long& block)
{
    return with_disk(hdd, 0, [&](CQzFileSystem& fs) {
        auto root = fs.manage().root_index_block_map.find(0);
        if (root == fs.manage().root_index_block_map.end())
            return 0;
        block = root->second;
        return 1;
    }) == 1;
}

int disk_root_entry(unsigned char hdd, uint32_t position, IndexSlot& slot, RootEntry& entry)
{
    _root_index_node_dev_ node;
    const int rc = with_disk(
        hdd, -1, [&](CQzFileSystem& fs) { return fs.Get_root_index_dev_node(position, &node); });
    if (rc != 0)
        return rc;
    if (node.id == END_ROOT_INDEX) {
        slot = IndexSlot::End;
        return 0;
    }
    if (!IS_NORMAL_ROOT_INDEX(node.id)) {
        slot = IndexSlot::Unused;
        return 0;
    }
    slot = IndexSlot::Used;
    entry.year = node.year;
    entry.month = node.month;
    entry.day = node.day;
    entry.channel = node.channel;
    entry.stream_type = node.stream_type;
    entry.name = text_of(node.name);
    entry.record_types = READ_PACKED(uint16_t, node.record_type);
    entry.segment_index_block = READ_PACKED(uint32_t, node.stream_segment_index_block);
    return 0;
}

int disk_segment_entry(unsigned char hdd, uint32_t root, uint32_t index, IndexSlot& slot,
                       SegmentEntry& entry)
{
    _stream_segment_index_node_dev_ n;
    const int rc = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        return fs.Get_stream_segment_index_dev_node(root, index, &n);
    });
    if (rc != 0)
        return rc;
    slot = segment_entry_of(n, entry);
    return 0;
}

int disk_iframe_index(unsigned char hdd, uint32_t root, unsigned long limit, IframeIndexHead& head,
                      std::vector<IframeEntry>& entries)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    std::vector<_iframe_index_node_dev_> nodes(limit);
    unsigned long count = limit;
    _iframe_block_info_ info = {};
    const int rc = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        int step = read_iframe_chain(fs, root, head.first_block, num, list, info);
        if (step == 0)
            step = fs.Read_iframe_index(num, list, 0, &count, nodes.data(), 3);
        return step;
    });
    delete[] list;
    if (rc != 0)
        return rc;
    head.blocks = num;
    head.iframes = info.iframe_index_num;
    head.block_entries = info.block_index_num;
    entries.clear();
    for (unsigned long i = 0; i < count; i++) {
        const _iframe_index_node_dev_& n = nodes[i];
        IframeEntry e;
        e.iframe = n.id == IFRAME_INDEX_ID_IFRAME;
        e.hour = n.hour;
        e.minute = n.minute;
        e.second = n.second;
        e.block = READ_PACKED(uint32_t, n.block_num);
        e.offset = READ_PACKED(uint32_t, n.block_offset);
        e.shared_by = READ_PACKED(uint32_t, n.pts_high);
        e.stream_offset = READ_PACKED(uint64_t, n.stream_segment_offset);
        entries.push_back(e);
    }
    return 0;
}

int disk_add_root_entry(unsigned char hdd, const _qzfs_k4t_create_ss_para_& para,
                        uint32_t& position)
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        return fs.Create_root_index_node(&para, &position, nullptr);
    });
}

int disk_add_synthetic_segment(unsigned char hdd, uint32_t root, const _qzfs_k4t_create_ss_para_& para,
                               unsigned seconds, unsigned long block_size, uint32_t& index)
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        return add_synthetic_segment(fs, root, para, seconds, block_size, index);
    });
}

TrimStatus disk_trim_segment_seconds(unsigned char hdd, uint32_t root, uint32_t index,
                                     unsigned seconds, TrimOutcome& out)
{
    out = TrimOutcome();
    if (seconds == 0) {
        out.refusal = "a trim of 0 seconds cuts nothing";
        return TrimStatus::Refused;
    }
    return trim_status(with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        _stream_segment_index_node_dev_ n;
        if (!find_segment(fs, root, index, n, out))
            return 1;
        const unsigned start = start_second_of(out.before);
        const unsigned cut = start + seconds;
        if (out.before.closed && cut >= end_second_of(out.before)) {
            out.refusal = std::to_string(seconds) + " seconds from its start at " +
                          clock_text(start) + " reach its end at " +
                          clock_text(end_second_of(out.before)) + " (delete it instead)";
            return 1;
        }
        if (cut > 86399) {
            out.refusal = std::to_string(seconds) + " seconds from its start at " +
                          clock_text(start) + " run past midnight";
            return 1;
        }
        bool found = false;
        if (has_iframe_from(fs, root, n, cut, found) != 0)
            return -1;
        if (!found) {
            out.refusal = "the segment has no I-frame from " + clock_text(cut) +
                          " on, so the cut would take all of it (delete it instead)";
            return 1;
        }
        const _k4t_fs_time_ at = {uint8_t(cut / 3600), uint8_t(cut / 60 % 60), uint8_t(cut % 60)};
        if (fs.delete_stream_segment_by_time(root, index, at, 0) != 0)
            return -1;
        read_after_cut(fs, root, index, out);
        return 0;
    }));
}

TrimStatus disk_trim_segment_bytes(unsigned char hdd, uint32_t root, uint32_t index,
                                   uint64_t bytes, TrimOutcome& out)
{
    out = TrimOutcome();
    if (bytes == 0) {
        out.refusal = "a trim of 0 bytes cuts nothing";
        return TrimStatus::Refused;
    }
    return trim_status(with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        _stream_segment_index_node_dev_ n;
        if (!find_segment(fs, root, index, n, out))
            return 1;
        unsigned long long taken = 0;
        unsigned char whole = 0, root_deleted = 0;
        if (fs.Delete_stream_segment(root, index, nullptr, bytes, &taken, &whole, nullptr, nullptr,
                                     &root_deleted) < 0)
            return -1;
        read_after_cut(fs, root, index, out);
        // The index is what the tool prints; the library's own account of
        // the cut must agree with it.
        if (out.whole != (whole != 0) || out.taken != taken ||
            out.root_deleted != (root_deleted != 0)) {
            out.refusal = "the library reported " + std::to_string(taken) + " bytes taken" +
                          (whole != 0 ? ", the segment whole" : "") +
                          (root_deleted != 0 ? " and its root entry" : "") +
                          ", which the index does not show";
            return -1;
        }
        return 0;
    }));
}

TrimStatus disk_delete_time_range(unsigned char hdd, uint32_t root, uint32_t index, unsigned from,
                                  unsigned to, RangeOutcome& out)
{
    out = RangeOutcome();
    if (from >= to || to > 86399) {
        out.refusal = "the range from " + clock_text(from) + " to " + clock_text(to) +
                      (from >= to ? " is empty" : " runs past midnight");
        return TrimStatus::Refused;
    }
    return trim_status(with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        _stream_segment_index_node_dev_ n;
        if (!find_segment(fs, root, index, n, out))
            return 1;
        int failed = 0;
        out.refusal = range_refusal(fs, root, index, n, out.before, from, to, failed);
        if (failed != 0)
            return -1;
        if (!out.refusal.empty())
            return 1;
        std::vector<SegmentPiece> had;
        if (used_segments(fs, root, had) != 0)
            return -1;
        const _k4t_fs_time_ at_from = {uint8_t(from / 3600), uint8_t(from / 60 % 60),
                                       uint8_t(from % 60)};
        const _k4t_fs_time_ at_to = {uint8_t(to / 3600), uint8_t(to / 60 % 60), uint8_t(to % 60)};
        const int rc = fs.delete_stream_segment_time_range(root, index, at_from, at_to);
        // What is left is read after a failure too: a failed split or
        // delete may still have changed the segment.
        if (read_after_range(fs, root, index, had, out) != 0 || rc != 0)
            return -1;
        return 0;
    }));
}

int disk_journal(unsigned char hdd, JournalState& out)
{
    unsigned char sector[512];
    static_assert(sizeof(sector) >= sizeof(_root_index_header_dev_), "header sector");
    _root_index_header_dev_ header;
    memset(&header, 0, sizeof(header));
    const int rc = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        out.block = fs.journal_block();
        if (out.block == 0 ||
            fs.read_in_block(out.block, QZFS_INDEX_HEADER_OFFSET, sector, sizeof(sector)) != 0)
            return -1;
        Endian_trans_root_index_block_header(sector, fs.manage().disk_endian, &header,
                                             gLocal_endian);
        return header.magic == QZFS_ROOT_INDEX_MAGIC ? 0 : -1;
    });
    if (rc != 0)
        return rc;
    out.action = header.action;
    out.stored_sum = header.crc;
    out.computed_sum = qzfs_action_sum(header);
    out.data_clear = std::all_of(std::begin(header.action_data), std::end(header.action_data),
                                 [](uint8_t byte) { return byte == 0; });
    _action_delete_ d;
    qzfs_action_delete_from_bytes(header.action_data, &d);
    JournalDeleteRecord& del = out.deletion;
    del.root = d.root_index;
    del.segment = d.stream_segment_index;
    del.start_iframe = d.start_iframe;
    del.len = d.len_in_bytes;
    del.root_id = d.root_index_id;
    del.segment_id = d.stream_segment_index_id;
    del.start_hour = d.start_hour;
    del.start_minute = d.start_minute;
    del.start_second = d.start_second;
    del.first_block_entry = d.first_block_iframe_index;
    del.first_block_shares = d.first_block_share_count;
    del.last_block_entry = d.last_block_iframe_index;
    del.last_block_shares = d.last_block_share_count;
    _action_segment_split_ sp;
    qzfs_action_split_from_bytes(header.action_data, &sp);
    out.split.root = sp.root_index;
    out.split.segment = sp.stream_segment_index;
    out.split.start_iframe = sp.start_iframe;
    out.split.split_end_iframe = sp.split_end_iframe;
    return 0;
}

unsigned library_days_in_month(unsigned year, unsigned month)
{
    unsigned char days = 0;
    if (year > 99 || month > 12 || Get_max_day(uint8_t(year), uint8_t(month), &days) != 1)
        return 0;
    return days;
}
