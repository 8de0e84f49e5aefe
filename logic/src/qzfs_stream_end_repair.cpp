// Stream end repair: closes a segment that a power cut left being written.
//
// A segment being recorded has end hour 255 and length 0 on the disk, and
// its I-frame index is flushed only every few I-frames, so after a cut the
// frames behind the last flush are known to the data blocks alone. The
// repair runs in four stages, each a helper below:
//   walk   the I-frame log from the entry before start_iframe to its end:
//          the first and last indexed I-frame, and the data blocks opened
//          behind the last one;
//   scan   the frames behind the last indexed I-frame, one by one, through
//          the block of that I-frame and then the blocks opened after it,
//          until the first frame that does not belong to this stream;
//   close  index the I-frames the scan found, give back the blocks it did
//          not reach, and write the node with its true end and length;
//   delete the node goes instead when nothing usable is left.
//
// A frame counts only when the bytes behind it are seen to be written too:
// the header of the next frame of the channel, the writer's end mark (put
// behind the data at every flush), or the end of the last block. The
// recorder's frames carry no check sum, so this is what tells a whole frame
// from one whose tail never reached the disk. Each following block is read
// from its first data byte, as every reader does, so that a stream that
// runs over a block end is followed into the next block.
//
// The repair has no journal: a cut repair leaves the node unfinished, and
// the next mount starts again, finding the I-frame entries added so far as
// if the writer had flushed them.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

enum scan_state {
    EXPECT_LAST_IFRAME = 0,  // the last indexed I-frame must come first
    HUNT_IFRAME = 1,         // no I-frame indexed: search byte by byte
    FOLLOWING = 2            // frames behind an accepted I-frame
};

// Everything one repair works on, in local byte order.
struct end_repair {
    unsigned long root_index = 0;
    unsigned long segment = 0;
    _root_index_node_dev_ root;
    _stream_segment_index_node_dev_ node;
    std::vector<uint32_t> ssi_blocks;
    uint32_t iframe_block_num = 0;
    uint32_t* iframe_blocks = nullptr;  // owned (delete[]); Add_iframe_index may grow it

    // Walk.
    _iframe_index_place_ before;  // entry start_iframe - 1
    _iframe_index_place_ first;   // first indexed I-frame; id 0 when none
    _iframe_index_place_ last;    // last indexed I-frame
    std::vector<uint32_t> data_blocks;
    uint32_t end_index = 0;       // n: the first entry behind the log

    // Scan.
    uint32_t scan_block = 0;
    uint32_t scan_offset = 0;
    _k4t_fs_time_ last_time = {0, 0, 0};
    uint64_t last_pts = 0;
    uint64_t search_data_len = 0;
    std::vector<_iframe_index_node_dev_> new_iframes;
    uint32_t last_good_block = 0;

    end_repair()
    {
        memset(&root, 0, sizeof(root));
        memset(&node, 0, sizeof(node));
        memset(&before, 0, sizeof(before));
        memset(&first, 0, sizeof(first));
        memset(&last, 0, sizeof(last));
    }
    ~end_repair() { delete[] iframe_blocks; }
    end_repair(const end_repair&) = delete;
    end_repair& operator=(const end_repair&) = delete;
};

// The start line, the end line and the delete line share their fields.
#define QZFS_SEGMENT_FIELDS(r)                                                                   \
    int((r).root.channel), int((r).root.stream_type), int((r).root.year) + 2000,                \
        int((r).root.month), int((r).root.day), int((r).node.start_hour),                      \
        int((r).node.start_minute), int((r).node.start_second), int((r).node.end_hour),        \
        int((r).node.end_minute), int((r).node.end_second)

unsigned long stamp_of(const end_repair& r) { return segment_owner_stamp_of(r.node); }

// ------------------------------------------------------------------ load

// The segment node, the root node and both block lists. 0 to go on, 1 for
// the delete path, -1 to leave the segment as it is.
int load_segment(CQzFileSystem& fs, end_repair& r)
{
    _stream_segment_index_node_men_ mem;
    if (fs.Get_stream_segment_index_mem_node(r.root_index, r.segment, &mem) != 0) {
        QZLOG("Get_stream_segment_index_mem_node failed(%ld)(%ld)", long(r.root_index),
              long(r.segment));
        return -1;
    }
    if ((mem.id != NORMAL_STREAM_SEGMENT_INDEX && mem.id != PRE_RECORD_STREAM_SEGMENT_INDEX) ||
        mem.end_hour < QZFS_INVALID_END_HOUR) {
        QZLOG("invalid stream segment id:%02x, %02x", mem.id, mem.end_hour);
        return -1;
    }
    if (fs.Get_root_index_dev_node(r.root_index, &r.root) != 0) {
        QZLOG("Get_root_index_dev_node failed(root_index:%ld)", long(r.root_index));
        return -1;
    }
    uint32_t ssi_num = 0, iframe_head = 0;
    uint32_t* ssi_list = nullptr;
    if (fs.Get_stream_segment_index_block_list(r.root_index, &ssi_num, &ssi_list, &iframe_head) !=
        0) {
        delete[] ssi_list;
        QZLOG("Get_stream_segment_index_block_list failed(root_index:%ld)", long(r.root_index));
        return -1;
    }
    r.ssi_blocks.assign(ssi_list, ssi_list + ssi_num);
    delete[] ssi_list;
    if (fs.Get_stream_segment_index_dev_node(r.root_index, ssi_num, r.ssi_blocks.data(), r.segment,
                                             &r.node) != 0) {
        QZLOG("Get_stream_segment_index_dev_node failed(root_index:%ld)", long(r.root_index));
        return -1;
    }
    if (segment_start_iframe_of(r.node) == 0) {
        QZLOG("(ssind.start_iframe == 0)(%ld)(%ld)", long(r.root_index), long(r.segment));
        return 1;
    }
    if (fs.Read_iframe_index_block_list(iframe_head, &r.iframe_block_num, &r.iframe_blocks) != 0) {
        QZLOG("Read_iframe_index_block_list failed(root_index:%ld)", long(r.root_index));
        return 1;
    }
    return 0;
}

// ------------------------------------------------------------------ walk

enum walk_step { WALK_ON, WALK_END, WALK_DELETE };

walk_step walk_entry(CQzFileSystem& fs, end_repair& r, const _iframe_index_node_dev_& n,
                     uint32_t i)
{
    if (i + 1 == segment_start_iframe_of(r.node)) {
        r.before.node = n;
        r.before.index = i;
        if (n.id == IFRAME_INDEX_ID_BLOCK)
            fs.reclaim_block(n.block_num, QZFS_BLOCK_DATA);
        if (n.id != IFRAME_INDEX_ID_FREE_AND_END)
            return WALK_ON;
    }
    if (n.id == IFRAME_INDEX_ID_BLOCK) {
        const uint32_t block = n.block_num;
        r.data_blocks.push_back(block);
        fs.reclaim_block(block, QZFS_BLOCK_DATA);
        return WALK_ON;
    }
    if (n.id == IFRAME_INDEX_ID_IFRAME) {
        // The blocks so far hold this I-frame or lie before it.
        r.data_blocks.clear();
        if (r.last.node.id != 0 &&
            r.last.node.stream_segment_offset >= n.stream_segment_offset) {
            QZLOG("iframe offset goes backwards(index:%ld)(%lld)(%lld)", long(i),
                  (long long)r.last.node.stream_segment_offset,
                  (long long)n.stream_segment_offset);
            return WALK_DELETE;
        }
        r.last.node = n;
        r.last.index = i;
        if (r.first.node.id == 0)
            r.first = r.last;
        return WALK_ON;
    }
    r.end_index = i;
    if (r.before.node.id == IFRAME_INDEX_ID_FREE_AND_END) {
        QZLOG("NOTHING delete the stream segment");
        return WALK_DELETE;
    }
    QZLOG_ABOVE(1, "(r:%ld)(s:%ld)(%ld)(%02x)(%ld)(%02x)", long(r.root_index), long(r.segment),
                long(r.before.index), r.before.node.id, long(i), n.id);
    return WALK_END;
}

// Walks the log a unit at a time. 0 when the scan may follow, 1 for the
// delete path.
int walk_index(CQzFileSystem& fs, end_repair& r)
{
    iframe_log_reader log(fs, r.iframe_block_num, r.iframe_blocks, fs.io_buffer(),
                          QZFS_IO_UNIT);
    for (uint32_t i = segment_start_iframe_of(r.node) - 1;; i++) {
        _iframe_index_node_dev_ n;
        const int got = log.fetch(i, &n);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("ERROR iframe_index=%ld; its_block_num:%ld; iframe_index_block_num:%ld", long(i),
                  log.chain_position(), long(r.iframe_block_num));
            return 1;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)(read:%d)",
                  log.block(), log.unit_offset(), 0);
            memset(&n, 0, sizeof(n));
        } else if (fs.Check_iframe_index_dev_node(&n) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(index:%ld)", long(i));
            n.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        const walk_step step = walk_entry(fs, r, n, i);
        if (step != WALK_ON)
            return step == WALK_END ? 0 : 1;
    }
}

// ----------------------------------------------------- the frames on disk

// The bytes a scan may read, as one run: the scan block from the scan
// offset, then the data region of each following block. Reads go through
// the disk's own channel in whole I/O units, one unit kept at a time.
class data_run {
public:
    explicit data_run(CQzFileSystem& fs)
        : fs_(fs), block_size_(uint32_t(fs.manage().block_size)), unit_(QZFS_IO_UNIT)
    {
    }

    // Adds `block` from `begin` on; false when the block cannot be read.
    bool add(uint32_t block, uint32_t begin)
    {
        if (block == 0 || block > block_size_ || begin >= block_size_) {
            QZLOG("invalid block info(%ld)(%ld)", long(block), long(begin));
            return false;
        }
        regions_.push_back({block, begin, size_});
        size_ += block_size_ - begin;
        return true;
    }

    uint64_t size() const { return size_; }

    // Block and offset of run position `at`.
    void place(uint64_t at, uint32_t& block, uint32_t& offset) const
    {
        const region& r = region_of(at);
        block = r.block;
        offset = uint32_t(r.begin + (at - r.start));
    }

    // Copies up to `len` bytes at `at`; fewer at the end of the run or when
    // a read fails (which ends the run there).
    uint32_t copy(uint64_t at, uint32_t len, uint8_t* out)
    {
        uint32_t done = 0;
        while (done < len && at + done < size_) {
            uint32_t block, offset;
            place(at + done, block, offset);
            if (!load(block, offset))
                break;
            const uint32_t in_unit = offset - unit_offset_;
            const uint32_t region_left = uint32_t(size_ - (at + done));
            const uint32_t n = std::min({len - done, QZFS_IO_UNIT_U32 - in_unit, region_left,
                                         block_size_ - offset});
            memcpy(out + done, unit_.data() + in_unit, n);
            done += n;
        }
        return done;
    }

private:
    static const uint32_t QZFS_IO_UNIT_U32 = uint32_t(QZFS_IO_UNIT);
    struct region {
        uint32_t block;
        uint32_t begin;
        uint64_t start;  // run position of `begin`
    };

    const region& region_of(uint64_t at) const
    {
        size_t i = regions_.size() - 1;
        while (i > 0 && regions_[i].start > at)
            i--;
        return regions_[i];
    }

    bool load(uint32_t block, uint32_t offset)
    {
        const uint32_t unit_offset = offset / QZFS_IO_UNIT_U32 * QZFS_IO_UNIT_U32;
        if (loaded_ && block == unit_block_ && unit_offset == unit_offset_)
            return true;
        loaded_ = false;
        if (fs_.read_in_block(block, unit_offset, unit_.data(), QZFS_IO_UNIT) != 0) {
            QZLOG("m_pIo_interface->Read failed(%ld)(%ld)", long(block), long(unit_offset));
            size_ = std::min(size_, run_position(block, unit_offset));
            return false;
        }
        loaded_ = true;
        unit_block_ = block;
        unit_offset_ = unit_offset;
        return true;
    }

    // Run position of a place in a block of the run, or the run's size.
    uint64_t run_position(uint32_t block, uint32_t offset) const
    {
        for (const region& r : regions_)
            if (r.block == block)
                return r.start + (offset > r.begin ? offset - r.begin : 0);
        return size_;
    }

    CQzFileSystem& fs_;
    uint32_t block_size_;
    std::vector<region> regions_;
    uint64_t size_ = 0;
    std::vector<uint8_t> unit_;
    bool loaded_ = false;
    uint32_t unit_block_ = 0;
    uint32_t unit_offset_ = 0;
};

// ------------------------------------------------------------------ scan

// One frame as the scan judges it.
struct scanned_frame {
    std::vector<uint8_t> bytes;
    _qzfs_frame_type_ type = QZFS_FRAME_INVALID;
    bool dated = false;
    uint8_t date_time[8] = {0};
    bool timed = false;
    uint64_t pts = 0;
};

bool channel_fits(const end_repair& r, uint8_t channel)
{
    return channel == r.root.channel || r.root.channel == 255;
}

// Length of the frame whose header is `head`, or 0 when it is no frame of
// this stream.
uint32_t frame_length(CQzFileSystem& fs, const end_repair& r, const uint8_t* head,
                      _qzfs_frame_type_* type)
{
    const _av_frame_header_* header = reinterpret_cast<const _av_frame_header_*>(head);
    uint8_t channel = 0;
    if (fs.Get_frame_info(header, &channel, type) != 0 || !channel_fits(r, channel))
        return 0;
    const uint32_t len = 12 + qzfs_frame_u24(header->frame_len) + qzfs_frame_u24(header->extend_len);
    return len < QZFS_MAX_FRAME_LEN ? len : 0;
}

// Whether the bytes right behind a frame were written by this stream: the
// header of its next frame, the writer's end mark, or the run's end (what
// is left of the last block, up to 12 bytes, then holds the start of the
// end mark).
bool frame_is_whole(CQzFileSystem& fs, const end_repair& r, data_run& run, uint64_t end)
{
    uint8_t next[QZFS_FRAME_END_MARK_LEN];
    const uint32_t got = run.copy(end, QZFS_FRAME_END_MARK_LEN, next);
    uint8_t mark[QZFS_FRAME_END_MARK_LEN];
    qzfs_frame_end_mark(r.root.channel, mark);
    if (got < QZFS_FRAME_END_MARK_LEN)
        return end + got == run.size() && memcmp(next, mark, got) == 0;
    _qzfs_frame_type_ type;
    return memcmp(next, mark, sizeof(mark)) == 0 || frame_length(fs, r, next, &type) != 0;
}

_k4t_fs_time_ time_of(const uint8_t date_time[8])
{
    return {date_time[3], date_time[4], date_time[5]};
}

// The date and time record of a frame, as the checks of a good frame see
// it: false for a bad frame.
bool date_time_fits(CQzFileSystem& fs, end_repair& r, scanned_frame& f)
{
    const uint32_t len = uint32_t(f.bytes.size());
    f.dated = fs.Get_av_frame_extend_info(f.bytes.data(), len, QZFS_FRAME_EXT_DATE_TIME,
                                          f.date_time) == 0;
    if (!f.dated) {
        if (f.type != QZFS_FRAME_I)
            return true;
        QZLOG("Get_av_frame_extend_info failed");
        return false;
    }
    const uint8_t* dt = f.date_time;
    if (dt[0] != r.root.year || dt[1] != r.root.month || dt[2] != r.root.day) {
        QZLOG("NOT SAME DAY(20%02d-%02d-%02d)(20%02d-%02d-%02d)", dt[0], dt[1], dt[2],
              r.root.year, r.root.month, r.root.day);
        return false;
    }
    const _k4t_fs_time_ at = time_of(dt);
    const _k4t_fs_time_& last = r.last_time;
    if (Compare_time(&at, &last) == 2) {
        QZLOG("invalid time1(%02d:%02d:%02d)(%02d:%02d:%02d)", at.hour, at.minute, at.second,
              last.hour, last.minute, last.second);
        return false;
    }
    if (qzfs_second_of_day(at.hour, at.minute, at.second) >=
        qzfs_second_of_day(last.hour, last.minute, last.second) + 4) {
        QZLOG("invalid time2(%02d:%02d:%02d)(%02d:%02d:%02d)", at.hour, at.minute, at.second,
              last.hour, last.minute, last.second);
        return false;
    }
    return true;
}

bool pts_fits(CQzFileSystem& fs, const end_repair& r, scanned_frame& f)
{
    uint8_t raw[8];
    f.timed = fs.Get_av_frame_extend_info(f.bytes.data(), uint32_t(f.bytes.size()),
                                          QZFS_FRAME_EXT_PTS, raw) == 0;
    if (!f.timed) {
        QZLOG("Get_av_frame_extend_info failed");
        return f.type == QZFS_FRAME_AUDIO;
    }
    f.pts = 0;
    for (int i = 7; i >= 0; i--)
        f.pts = f.pts << 8 | raw[i];
    if (f.type != QZFS_FRAME_AUDIO && r.last_pts != 0 && r.last_pts > f.pts) {
        QZLOG("invalid pts(%lld)(%lld)", (long long)r.last_pts, (long long)f.pts);
        return false;
    }
    return true;
}

// The checks of a complete frame in hand.
bool frame_is_good(CQzFileSystem& fs, end_repair& r, scanned_frame& f)
{
    if (fs.Check_av_frame_check_sum(f.bytes.data(), uint32_t(f.bytes.size())) != 0) {
        QZLOG("Check_av_frame_check_sum failed");
        return false;
    }
    if (f.type != QZFS_FRAME_I && f.type != QZFS_FRAME_P && f.type != QZFS_FRAME_AUDIO)
        return false;
    return date_time_fits(fs, r, f) && pts_fits(fs, r, f);
}

// The index entry of an I-frame found at run position `at`.
_iframe_index_node_dev_ iframe_entry(const end_repair& r, const data_run& run, uint64_t at,
                                     const scanned_frame& f)
{
    _iframe_index_node_dev_ e;
    memset(&e, 0, sizeof(e));
    e.id = IFRAME_INDEX_ID_IFRAME;
    e.hour = f.date_time[3];
    e.minute = f.date_time[4];
    e.second = f.date_time[5];
    uint32_t block, offset;
    run.place(at, block, offset);
    e.block_num = block;
    e.block_offset = offset;
    e.pts_high = uint32_t(f.pts >> 32);
    e.pts_low = uint32_t(f.pts);
    // Offsets in the log count from the segment's birth. A segment whose
    // front was trimmed while it recorded starts at a later offset than 0,
    // and its new entries go on from there.
    const uint64_t base = r.first.node.id != 0 ? r.first.node.stream_segment_offset : 0;
    e.stream_segment_offset = base + segment_len_of(r.node) + r.search_data_len;
    return e;
}

// A good frame moves the working values on; the last good block is the
// one that holds its last byte.
void accept_frame(end_repair& r, const data_run& run, uint64_t at, const scanned_frame& f)
{
    if (f.dated) {
        r.last_time = time_of(f.date_time);
    }
    if (f.timed && f.type != QZFS_FRAME_AUDIO && f.pts != 0)
        r.last_pts = f.pts;
    r.search_data_len += f.bytes.size();
    uint32_t offset;
    run.place(at + f.bytes.size() - 1, r.last_good_block, offset);
}

// Reads the frame at `at` into `f`: its length, or 0 when there is none.
uint32_t read_frame(CQzFileSystem& fs, const end_repair& r, data_run& run, uint64_t at,
                    scanned_frame& f)
{
    uint8_t head[12];
    if (run.copy(at, sizeof(head), head) < sizeof(head))
        return 0;
    const uint32_t len = frame_length(fs, r, head, &f.type);
    if (len == 0)
        return 0;
    f.bytes.resize(len);
    return run.copy(at, len, f.bytes.data()) == len ? len : 0;
}

void scan_frames(CQzFileSystem& fs, end_repair& r, scan_state state)
{
    data_run run(fs);
    QZLOG("SCAN FRAME(%ld, %ld)(channel:%d)(block_index:%ld)", long(r.root_index),
          long(r.segment), int(r.root.channel), long(r.scan_block));
    if (!run.add(r.scan_block, r.scan_offset))
        return;
    for (uint32_t block : r.data_blocks) {
        QZLOG("SCAN FRAME(%ld, %ld)(channel:%d)(block_index:%ld)", long(r.root_index),
              long(r.segment), int(r.root.channel), long(block));
        if (!run.add(block, QZFS_DATA_BLOCK_HEAD))
            break;
    }

    scanned_frame f;
    for (uint64_t at = 0; at + 12 <= run.size();) {
        const uint32_t len = read_frame(fs, r, run, at, f);
        const bool good = len != 0 && frame_is_good(fs, r, f);
        if (!good || (state == HUNT_IFRAME && f.type != QZFS_FRAME_I)) {
            if (state != HUNT_IFRAME)
                return;
            at++;
            continue;
        }
        if (!frame_is_whole(fs, r, run, at + len))
            return;
        if (state == EXPECT_LAST_IFRAME && f.type != QZFS_FRAME_I)
            return;
        if (state == FOLLOWING && f.type == QZFS_FRAME_I)
            r.new_iframes.push_back(iframe_entry(r, run, at, f));
        if (state == HUNT_IFRAME)
            r.new_iframes.push_back(iframe_entry(r, run, at, f));
        state = FOLLOWING;
        accept_frame(r, run, at, f);
        at += len;
    }
}

// Where the scan starts and what the node holds before it: false for the
// delete path.
bool prepare_scan(end_repair& r, scan_state& state)
{
    r.last_time = {r.node.start_hour, r.node.start_minute, r.node.start_second};
    if (r.first.node.id != 0) {
        const _iframe_index_node_dev_& first = r.first.node;
        const _iframe_index_node_dev_& last = r.last.node;
        r.scan_block = last.block_num;
        r.scan_offset = last.block_offset;
        r.node.start_hour = first.hour;
        r.node.start_minute = first.minute;
        r.node.start_second = first.second;
        set_segment_start_iframe(r.node, r.first.index);
        r.node.end_hour = last.hour;
        r.node.end_minute = last.minute;
        r.node.end_second = last.second;
        set_segment_len(r.node, last.stream_segment_offset - first.stream_segment_offset);
        r.last_time = {last.hour, last.minute, last.second};
        state = EXPECT_LAST_IFRAME;
        return true;
    }
    set_segment_len(r.node, 0);
    if (r.before.node.id < IFRAME_INDEX_ID_BLOCK)
        return false;
    r.scan_block = r.before.node.block_num;
    r.scan_offset = QZFS_DATA_BLOCK_HEAD;
    state = HUNT_IFRAME;
    return true;
}

// ----------------------------------------------------------- close, delete

void free_block(CQzFileSystem& fs, uint32_t block, const char* message)
{
    QZLOG(message, long(block));
    fs.Free_one_block(block, 0);
}

// The blocks behind the last one that holds an accepted frame go back.
void settle_data_blocks(CQzFileSystem& fs, end_repair& r)
{
    if (r.search_data_len == 0) {
        for (uint32_t block : r.data_blocks)
            free_block(fs, block, "free block:%ld");
        return;
    }
    fs.reclaim_block(r.scan_block, QZFS_BLOCK_DATA);
    auto good = std::find(r.data_blocks.begin(), r.data_blocks.end(), r.last_good_block);
    auto keep_end = good == r.data_blocks.end() ? r.data_blocks.begin() : good + 1;
    for (auto it = r.data_blocks.begin(); it != keep_end; ++it)
        fs.reclaim_block(*it, QZFS_BLOCK_DATA);
    for (auto it = keep_end; it != r.data_blocks.end(); ++it)
        free_block(fs, *it, "free block:%ld");
}

int close_segment(CQzFileSystem& fs, end_repair& r)
{
    if (segment_len_of(r.node) + r.search_data_len == 0) {
        QZLOG("((ssind.len_in_bytes + search_data_len) == 0)");
        return 1;
    }
    settle_data_blocks(fs, r);
    // With no I-frame in the index the segment starts at the first one the
    // scan found. (A single indexed I-frame also gives length 0 here, but
    // the segment starts at it.)
    if (r.first.node.id == 0)
        set_segment_start_iframe(r.node, r.end_index);
    if (!r.new_iframes.empty()) {
        const _iframe_index_node_dev_& newest = r.new_iframes.back();
        r.node.end_hour = newest.hour;
        r.node.end_minute = newest.minute;
        r.node.end_second = newest.second;
        const uint8_t date_time[6] = {r.root.year,  r.root.month,  r.root.day,
                                      newest.hour, newest.minute, newest.second};
        if (fs.Add_iframe_index(&r.iframe_block_num, &r.iframe_blocks, r.end_index,
                                r.new_iframes.data(), r.new_iframes.size(), date_time) != 0)
            QZLOG("Add_iframe_index failed(root_index:%ld)", long(r.root_index));
    }
    set_segment_len(r.node, segment_len_of(r.node) + r.search_data_len);
    if (fs.Modify_stream_segment(r.root_index, uint32_t(r.ssi_blocks.size()), r.ssi_blocks.data(),
                                 r.segment, 0, &r.node) != 0) {
        QZLOG("Modify_stream_segment failed(root_index:%ld)(%ld)", long(r.root_index),
              long(r.segment));
        return -1;
    }
    QZLOG("end recovery stream segment chn:%d,stream type:%d,%d-%d-%d %d:%d:%d-%d:%d:%d,stamp:%lu",
          QZFS_SEGMENT_FIELDS(r), stamp_of(r));
    return 0;
}

void delete_segment(CQzFileSystem& fs, end_repair& r)
{
    QZLOG("delete stream segment chn:%d,stream type:%d,%d-%d-%d %d:%d:%d-%d:%d:%d",
          QZFS_SEGMENT_FIELDS(r));
    // A first block shared by two means the segment before owns it too.
    if (r.before.node.id == IFRAME_INDEX_ID_BLOCK && r.before.node.pts_high < 2)
        free_block(fs, r.before.node.block_num, "delete first block2:%ld");
    for (uint32_t block : r.data_blocks)
        free_block(fs, block, "delete block2:%ld");
    r.node.id = FREE_STREAM_SEGMENT_INDEX;
    if (r.ssi_blocks.empty() ||
        fs.Modify_stream_segment(r.root_index, uint32_t(r.ssi_blocks.size()), r.ssi_blocks.data(),
                                 r.segment, 0, &r.node) != 0)
        QZLOG("Modify_stream_segment failed(root_index:%ld)(%ld)", long(r.root_index),
              long(r.segment));
    qzfs_sync(fs.io_interface());
}

}  // namespace

int CQzFileSystem::Get_stream_segment_end_info(unsigned long root_index,
                                               unsigned long stream_segment_index)
{
    end_repair r;
    r.root_index = root_index;
    r.segment = stream_segment_index;
    int step = load_segment(*this, r);
    if (step < 0)
        return -1;
    if (step == 0) {
        QZLOG("start recovery stream segment chn:%d,stream type:%d,%d-%d-%d "
              "%d:%d:%d-%d:%d:%d,stamp:%lu",
              QZFS_SEGMENT_FIELDS(r), stamp_of(r));
        step = walk_index(*this, r);
    }
    scan_state state = EXPECT_LAST_IFRAME;
    if (step == 0 && !prepare_scan(r, state))
        step = 1;
    if (step == 0) {
        scan_frames(*this, r, state);
        step = close_segment(*this, r);
        if (step <= 0)
            return step;
    }
    delete_segment(*this, r);
    return -1;
}
