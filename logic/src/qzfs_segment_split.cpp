// The split of a stream segment by time, and the change of a segment's
// attributes as a whole.
//
// Attributes (lock, lock type, record type, alarm type) belong to a node, so
// the part of a segment inside a range [a, b] can only take other values by
// becoming a node of its own. The pieces are told apart by their first
// I-frame alone: they keep the one I-frame log and the data blocks of the old
// segment, and a data block that holds the end of one piece and the start of
// the next counts one more user in its block entry's share count.
//
// Up to three pieces, cut at three I-frames of the segment:
//   F  its first I-frame;
//   A  the last I-frame not after a (the range starts there);
//   B  the first I-frame not before b (the range ends there), absent when it
//      is the segment's very last I-frame or lies past the end.
//
//   before:  |F ......... A ========= B ..........|   one node
//   after:   |F ... A|  |A ==== B|  |B ...........|   first, middle, last
//
// Write order, under the split journal:
//   1. journal armed: old start_iframe and the highest start of a new piece;
//   2. the new pieces (middle, then first) are added as complete nodes, and
//      the share counts of the blocks they share are raised;
//   3. the old node is rewritten as the last piece: the commit point;
//   4. journal cleared.
// A cut before 3 leaves the old node whole, and the mount removes the new
// pieces (their first I-frames lie inside the journal's range); a cut after
// it leaves all pieces in place. The caller holds the disk lock.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_segment_change.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>

namespace {


// The attributes a split or a change gives a node.
struct segment_attributes {
    unsigned char mask = 0;  // bit 0 lock and lock_type, bit 1 record_type and alarm_type
    unsigned char lock = 0;
    unsigned long lock_type = 0;
    unsigned char record_type = 0;
    unsigned long long alarm_type = 0;
};

// A non-zero lock ORs its reasons into the node's; an unlock clears them.
// Likewise a record type other than 0 adds its alarm bits.
void apply_attributes(_stream_segment_index_node_dev_& node, const segment_attributes& attr)
{
    if (attr.mask & 0x02) {
        uint64_t alarm;
        memcpy(&alarm, &node.alarm_type, sizeof(alarm));
        node.record_type = attr.record_type;
        alarm = attr.record_type != 0 ? alarm | attr.alarm_type : 0;
        memcpy(&node.alarm_type, &alarm, sizeof(alarm));
    }
    if (attr.mask & 0x01) {
        uint32_t lock_type;
        memcpy(&lock_type, &node.lock_type, sizeof(lock_type));
        node.lock = attr.lock;
        lock_type = attr.lock != 0 ? lock_type | uint32_t(attr.lock_type) : 0;
        memcpy(&node.lock_type, &lock_type, sizeof(lock_type));
    }
}

void log_node_attributes(const _stream_segment_index_node_dev_& n)
{
    uint32_t lock_type;
    uint64_t alarm;
    memcpy(&lock_type, &n.lock_type, sizeof(lock_type));
    memcpy(&alarm, &n.alarm_type, sizeof(alarm));
    QZLOG_ABOVE(0, "%d:%d:%d-%d:%d:%d,lock:%d,lock_type:0x%lx,record_type:%d,alarm_type:0x%llx,owner_stamp:%lu",
                n.start_hour, n.start_minute, n.start_second, n.end_hour, n.end_minute,
                n.end_second, n.lock, (unsigned long)lock_type, n.record_type,
                (unsigned long long)alarm, (unsigned long)segment_owner_stamp_of(n));
}

// Copies what a change of attributes touches into a writer's live node.
void copy_attributes_to_live(_opened_stream_segment_* writer,
                             const _stream_segment_index_node_dev_& node)
{
    QzfsScopedLock writer_lock(writer->writer()->lock);
    _stream_segment_index_node_dev_* live = writer->ssi();
    live->lock = node.lock;
    live->record_type = node.record_type;
    memcpy(&live->lock_type, &node.lock_type, sizeof(node.lock_type));
    memcpy(&live->alarm_type, &node.alarm_type, sizeof(node.alarm_type));
}

// Everything one split works on.
struct segment_split : segment_copy {
    _k4t_fs_time_ from = {0, 0, 0};
    _k4t_fs_time_ to = {0, 0, 0};
    segment_attributes attr;
    _time_area_iframe_info_ area;
    int pieces = 1;
    bool ends_at_b = false;        // B cuts the range off from a last piece
    uint32_t split_end_iframe = 0;
    unsigned long range_piece = 0; // the node that holds the range afterwards
};

// The piece from I-frame `at`, as a copy of the node with its first
// I-frame, start time and the owner stamp of its first block.
void start_piece_at(CQzFileSystem& fs, const segment_split& job,
                    _stream_segment_index_node_dev_& piece, const _iframe_index_place_& at)
{
    set_segment_start_iframe(piece, at.index);
    piece.start_hour = at.node.hour;
    piece.start_minute = at.node.minute;
    piece.start_second = at.node.second;
    _qzfs_block_info_ info;
    if (fs.read_data_block_record(at.node.block_num, &info) == 0 &&
        qzfs_block_of_day(info, job.root))
        memcpy(&piece.owner_stamp, &info.owner_stamp, sizeof(info.owner_stamp));
}

void end_piece_at(_stream_segment_index_node_dev_& piece, const _iframe_index_place_& at,
                  uint64_t len)
{
    piece.end_hour = at.node.hour;
    piece.end_minute = at.node.minute;
    piece.end_second = at.node.second;
    set_segment_len(piece, len);
}

// A piece that starts at `at` inside a block also holds data of the piece
// before it there: the block counts one more user. The entry is read from
// the log afresh, since A and B may share one block entry.
void share_block_of(CQzFileSystem& fs, const segment_split& job, const _iframe_index_place_& at,
                    const _iframe_index_place_& block_entry)
{
    if (at.node.block_offset <= QZFS_DATA_BLOCK_FIRST_FRAME || block_entry.node.id != IFRAME_INDEX_ID_BLOCK)
        return;
    const uint32_t chain = uint32_t(job.iframe_blocks.size());
    iframe_log_reader log(fs, chain, job.iframe_blocks.data(), fs.io_buffer(), QZFS_IO_UNIT);
    _iframe_index_node_dev_ entry = block_entry.node;
    if (log.fetch(block_entry.index, &entry) != iframe_log_reader::OK ||
        entry.id != IFRAME_INDEX_ID_BLOCK)
        entry = block_entry.node;
    entry.pts_high++;
    fs.Write_iframe_index(chain, job.iframe_blocks.data(), block_entry.index, &entry);
}

// Adds `piece` as a new node at the first free place of the root's list.
int add_piece(CQzFileSystem& fs, segment_split& job, const _stream_segment_index_node_dev_& piece,
              uint32_t* position)
{
    uint32_t num = uint32_t(job.ssi_blocks.size());
    uint32_t* list = new uint32_t[num == 0 ? 1 : num];
    std::copy(job.ssi_blocks.begin(), job.ssi_blocks.end(), list);
    const int placed = fs.add_stream_segment_index_node(job.root_index, &num, &list, &piece,
                                                        position);
    job.ssi_blocks = qzfs_take_chain(list, num);  // the chain may have grown
    if (placed != 0) {
        QZLOG("add stream segment index node failed");
        return -1;
    }
    return 0;
}

// Before the scan: 1 when the range misses the segment, 2 when it covers it
// whole (the caller changes the node as a whole), 0 to split.
int judge_range(const segment_split& job)
{
    const _stream_segment_index_node_dev_& n = job.node;
    const _k4t_fs_time_ start = {n.start_hour, n.start_minute, n.start_second};
    const _k4t_fs_time_ end = {n.end_hour, n.end_minute, n.end_second};
    const bool instant = Compare_time(&start, &end) == 0;
    if (!instant && Compare_time(&job.to, &start) != 1) {
        QZLOG_ABOVE(0, "op end < start!");
        return 1;
    }
    if (!instant && Compare_time(&job.from, &end) != 2) {
        QZLOG_ABOVE(0, "op start > end!");
        return 1;
    }
    const bool covers = Compare_time(&job.from, &start) != 1 && Compare_time(&job.to, &end) != 2;
    const bool at_bound = instant && (Compare_time(&job.from, &start) == 0 ||
                                      Compare_time(&job.to, &end) == 0);
    if (covers || at_bound) {
        QZLOG_ABOVE(0, "full segment modify!");
        return 2;
    }
    return 0;
}

// How many pieces, and the highest first I-frame a new piece can have.
// 0 to go on, 1 when A lies at the very end (nothing to split).
int count_pieces(segment_split& job)
{
    const uint64_t f = job.area.first.node.stream_segment_offset;
    const uint64_t a = job.area.start.node.stream_segment_offset;
    const uint64_t b = job.area.end.node.stream_segment_offset;
    const uint64_t len = segment_len_of(job.node);
    job.ends_at_b = job.area.end.node.id != 0 && b > a && b - f < len;
    if (job.ends_at_b) {
        job.pieces = a > f ? 3 : 2;
        job.split_end_iframe = job.area.end.index;
        return 0;
    }
    job.split_end_iframe = job.area.start.index;
    if (a > f) {
        if (a - f >= len) {
            QZLOG_ABOVE(0, "start iframe at end pos!");
            return 1;
        }
        job.pieces = 2;
    } else {
        job.pieces = 1;
    }
    return 0;
}

// Steps 2 of the write order: the middle piece (three pieces) and the first
// piece (two or three), each added as a node of its own.
int add_front_pieces(CQzFileSystem& fs, segment_split& job)
{
    const _time_area_iframe_info_& t = job.area;
    const uint64_t f = t.first.node.stream_segment_offset;
    const uint64_t a = t.start.node.stream_segment_offset;
    const uint64_t b = t.end.node.stream_segment_offset;
    uint32_t position = 0;
    if (job.pieces == 3) {
        _stream_segment_index_node_dev_ middle = job.node;
        middle.id = NORMAL_STREAM_SEGMENT_INDEX;
        start_piece_at(fs, job, middle, t.start);
        end_piece_at(middle, t.end, b - a);
        apply_attributes(middle, job.attr);
        if (add_piece(fs, job, middle, &position) != 0)
            return -1;
        job.range_piece = position;
        share_block_of(fs, job, t.start, t.start_block);
    }
    if (job.pieces >= 2) {
        _stream_segment_index_node_dev_ first = job.node;
        first.id = NORMAL_STREAM_SEGMENT_INDEX;
        const bool range_first = t.start.index == t.first.index;
        if (range_first) {
            end_piece_at(first, t.end, b - a);
            apply_attributes(first, job.attr);
        } else {
            end_piece_at(first, t.start, a - f);
        }
        if (add_piece(fs, job, first, &position) != 0)
            return -1;
        if (range_first)
            job.range_piece = position;
    }
    return 0;
}

// Step 3: the old node becomes the last piece, still the writer's when the
// segment is being recorded. Returns the bytes its head moved by.
uint64_t make_last_piece(CQzFileSystem& fs, segment_split& job,
                         _stream_segment_index_node_dev_& last)
{
    const _time_area_iframe_info_& t = job.area;
    const uint64_t f = t.first.node.stream_segment_offset;
    const uint64_t len = segment_len_of(last);
    if (job.ends_at_b) {
        const uint64_t moved = t.end.node.stream_segment_offset - f;
        start_piece_at(fs, job, last, t.end);
        set_segment_len(last, len - moved);
        share_block_of(fs, job, t.end, t.end_block);
        return moved;
    }
    job.range_piece = job.segment;
    uint64_t moved = 0;
    if (t.start.index != t.first.index) {
        moved = t.start.node.stream_segment_offset - f;
        start_piece_at(fs, job, last, t.start);
        set_segment_len(last, len - moved);
        share_block_of(fs, job, t.start, t.start_block);
    }
    apply_attributes(last, job.attr);
    return moved;
}

// The commit: one write of the old node. A writer's live node follows its
// new head, and its cut offset grows by what moved to the other pieces.
int commit_last_piece(CQzFileSystem& fs, segment_split& job)
{
    _stream_segment_index_node_dev_ last = job.node;
    const uint64_t moved = make_last_piece(fs, job, last);
    log_node_attributes(last);
    const int mode = job.writer != nullptr ? 1 : 0;
    if (fs.Modify_stream_segment(job.root_index, uint32_t(job.ssi_blocks.size()),
                                 job.ssi_blocks.data(), job.segment, mode, &last) != 0) {
        QZLOG("Modify stream segment failed(%ld)(%ld)", long(job.root_index), long(job.segment));
        return -1;
    }
    if (job.writer != nullptr) {
        copy_attributes_to_live(job.writer, last);
        qzfs_move_live_head(job.writer, last, moved);
    }
    return 0;
}

// Gathers the segment; 1 when a writer has no first I-frame yet and the
// range was applied to it whole, or not at all.
int gather_split(CQzFileSystem& fs, segment_split& job)
{
    _opened_stream_segment_* writer = qzfs_segment_writer(fs, job.root_index, job.segment);
    if (writer == nullptr)
        return qzfs_copy_closed_segment(fs, &job, true) == 0 ? 0 : -1;
    QZLOG_ABOVE(0, "recording stream segment");
    _stream_segment_index_node_dev_ live;
    writer_node_snapshot(writer, &live);
    const uint64_t len = segment_len_of(live);
    if (!writer_start_confirmed(writer) || len <= writer->writer()->delete_len ||
        segment_start_iframe_of(live) == 0) {
        const _k4t_fs_time_ start = {live.start_hour, live.start_minute, live.start_second};
        if (Compare_time(&start, &job.from) != 2 && Compare_time(&start, &job.to) != 1) {
            _k4t_stream_segment_id_ id = {fs.Get_hdd_id(), uint32_t(job.root_index),
                                          uint32_t(job.segment)};
            fs.modify_stream_segment_info_by_id(&id, job.attr.mask, job.attr.lock,
                                                job.attr.lock_type, job.attr.record_type,
                                                job.attr.alarm_type);
        }
        return 1;
    }
    return qzfs_copy_live_segment(writer, &job);
}

} // namespace

int CQzFileSystem::split_stream_segment_by_time(unsigned long root_index,
                                                unsigned long stream_segment_index,
                                                _k4t_fs_time_ op_start, _k4t_fs_time_ op_end,
                                                unsigned char modify_mask, unsigned char lock,
                                                unsigned long lock_type, unsigned char record_type,
                                                unsigned long long alarm_type)
{
    unsigned long range_piece = 0;
    return split_out_time_range(root_index, stream_segment_index, op_start, op_end, modify_mask,
                                lock, lock_type, record_type, alarm_type, &range_piece);
}

int CQzFileSystem::split_out_time_range(unsigned long root_index,
                                        unsigned long stream_segment_index,
                                        _k4t_fs_time_ op_start, _k4t_fs_time_ op_end,
                                        unsigned char modify_mask, unsigned char lock,
                                        unsigned long lock_type, unsigned char record_type,
                                        unsigned long long alarm_type, unsigned long* range_piece)
{
    segment_split job;
    job.root_index = root_index;
    job.segment = stream_segment_index;
    job.from = op_start;
    job.to = op_end;
    job.attr.mask = modify_mask;
    job.attr.lock = lock;
    job.attr.lock_type = lock_type;
    job.attr.record_type = record_type;
    job.attr.alarm_type = alarm_type;
    *range_piece = SPLIT_NO_PIECE;

    const int gathered = gather_split(*this, job);
    if (gathered != 0)
        return gathered > 0 ? 0 : -1;
    if (segment_start_iframe_of(job.node) == 0) {
        QZLOG("(ssind.start_iframe == 0)");
        return -1;
    }
    const int judged = judge_range(job);
    if (judged == 1)
        return 0;
    if (judged == 2) {
        _k4t_stream_segment_id_ id = {Get_hdd_id(), uint32_t(root_index),
                                      uint32_t(stream_segment_index)};
        const int result = modify_stream_segment_info_by_id(&id, modify_mask, lock, lock_type,
                                                            record_type, alarm_type);
        if (result == 0)
            *range_piece = stream_segment_index;
        return result;
    }
    // A range that begins before the segment begins, for the split, at its
    // first I-frame: the lookup of A finds no I-frame before that.
    const _k4t_fs_time_ start = {job.node.start_hour, job.node.start_minute,
                                 job.node.start_second};
    if (Compare_time(&job.from, &start) == 2)
        job.from = start;
    if (get_stream_segment_time_area_iframe_info(uint32_t(job.iframe_blocks.size()),
                                                 job.iframe_blocks.data(),
                                                 segment_start_iframe_of(job.node),
                                                 segment_len_of(job.node), &job.from, &job.to,
                                                 job.area) != 0) {
        QZLOG("get stream segment time area iframe info failed!");
        return -1;
    }
    if (count_pieces(job) != 0)
        return 0;

    _action_segment_split_ record;
    memset(&record, 0, sizeof(record));
    record.root_index = uint32_t(root_index);
    record.stream_segment_index = uint32_t(stream_segment_index);
    record.start_iframe = segment_start_iframe_of(job.node);
    record.split_end_iframe = job.split_end_iframe;
    uint8_t bytes[QZFS_ACTION_SPLIT_LEN];
    qzfs_action_split_to_bytes(record, bytes);
    Register_qzfs_action(journal_block(), QZFS_ACTION_SPLIT, bytes);

    const int result = add_front_pieces(*this, job) == 0 && commit_last_piece(*this, job) == 0
                           ? 0
                           : -1;
    Register_qzfs_action(journal_block(), QZFS_ACTION_NONE, nullptr);
    if (result == 0)
        *range_piece = job.range_piece;
    return result;
}

// ------------------------------------------------------ a node as a whole

int CQzFileSystem::modify_stream_segment_info_by_id(_k4t_stream_segment_id_* id,
                                                    unsigned char modify_mask, unsigned char lock,
                                                    unsigned long lock_type,
                                                    unsigned char record_type,
                                                    unsigned long long alarm_type)
{
    QZLOG_ABOVE(0, "modify mask:0x%x, lock:%d,lock type:0x%lx, record type:%d,alarm type:0x%llx",
                modify_mask, lock, lock_type, record_type, alarm_type);
    _stream_segment_index_node_dev_ node;
    if (Get_stream_segment_index_dev_node(id->root_index, id->stream_segment_index, &node) != 0 ||
        node.id != NORMAL_STREAM_SEGMENT_INDEX)
        return -1;
    segment_attributes attr;
    attr.mask = modify_mask;
    attr.lock = lock;
    attr.lock_type = lock_type;
    attr.record_type = record_type;
    attr.alarm_type = alarm_type;
    apply_attributes(node, attr);
    log_node_attributes(node);
    _opened_stream_segment_* writer = qzfs_segment_writer(*this, id->root_index,
                                                          id->stream_segment_index);
    if (writer != nullptr) {
        copy_attributes_to_live(writer, node);
        node.end_hour = node.end_minute = node.end_second = QZFS_INVALID_END_HOUR;
        set_segment_len(node, 0);
    }
    if (Modify_stream_segment(id->root_index, id->stream_segment_index, 0, &node) != 0)
        return -1;
    return check_and_modify_root_info(id->root_index, nullptr);
}
