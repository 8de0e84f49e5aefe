// Deletion by the clock over one disk: every unlocked recording of chosen
// channels and stream types over a range of days, and a stretch of time out
// of one segment. Each removal of a segment is the whole delete by time, and
// each cut one of its trims or the split, so every change runs under the
// action journal. The caller holds the disk lock.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_segment_change.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>

namespace {

// A root the delete by parameters walks: in use, of a day in the range, of
// a chosen channel and stream type.
bool root_selected(const _root_index_node_mem_& root, const _qzfs_k4t_delete_para_& p)
{
    return IS_NORMAL_ROOT_INDEX(root.id) &&
           Compare_date(root.year, root.month, root.day, p.start_year, p.start_month,
                        p.start_day) != 2 &&
           Compare_date(root.year, root.month, root.day, p.end_year, p.end_month, p.end_day) !=
               1 &&
           qzfs_bit_set(p.channel_mask, root.channel, 32) && qzfs_bit_set(p.stream_mask, root.stream_type, 64);
}

} // namespace

// Whether the disk's record dates meet the days of `p`; prints them when
// they do not.
bool CQzFileSystem::record_dates_meet(uint8_t start_year, uint8_t start_month, uint8_t start_day,
                                      uint8_t end_year, uint8_t end_month, uint8_t end_day)
{
    const _hdd_root_index_manager_* range = root_manager();
    if (range != nullptr && range->start_year != 255 &&
        Compare_date(range->start_year, range->start_month, range->start_day, end_year, end_month,
                     end_day) != 1 &&
        Compare_date(range->end_year, range->end_month, range->end_day, start_year, start_month,
                     start_day) != 2)
        return true;
    QZLOG_ABOVE(0, "START[20%02d-%02d-%02d]END[20%02d-%02d-%02d]", range ? range->start_year : 255,
                range ? range->start_month : 255, range ? range->start_day : 255,
                range ? range->end_year : 255, range ? range->end_month : 255,
                range ? range->end_day : 255);
    return false;
}

// Deletes the unlocked normal segments of one root that nobody has open.
// -1 on a failed read; else whether something went. Stops when the root
// itself went with its last segment.
int CQzFileSystem::delete_root_segments(unsigned long root_index)
{
    bool deleted = false;
    for (unsigned long si = 0;; si++) {
        _stream_segment_index_node_men_ node;
        if (Get_stream_segment_index_mem_node(root_index, si, &node) != 0) {
            QZLOG("Get_stream_segment_index_mem_node FAILED(root_index:%ld)(stream_segment_index:%ld)",
                  long(root_index), long(si));
            return -1;
        }
        if (node.id == END_STREAM_SEGMENT_INDEX)
            return deleted ? 1 : 0;
        _k4t_stream_segment_id_ id = {Get_hdd_id(), uint32_t(root_index), uint32_t(si)};
        if (node.id != NORMAL_STREAM_SEGMENT_INDEX || node.lock != 0 ||
            find_opening_stream_segment_by_id(&id, nullptr, 3) >= 0)
            continue;
        const _k4t_fs_time_ start = {node.start_hour, node.start_minute, node.start_second};
        if (delete_stream_segment_by_time(root_index, si, start, 1) >= 0)
            deleted = true;
        _root_index_node_mem_ root;
        if (Get_root_index_mem_node(root_index, &root) != 0 || !IS_NORMAL_ROOT_INDEX(root.id))
            return deleted ? 1 : 0;  // the root went with its last segment
    }
}

int CQzFileSystem::delete_stream_segment_by_para(_qzfs_k4t_delete_para_* para, int limit)
{
    const _qzfs_k4t_delete_para_& p = *para;
    if (!record_dates_meet(p.start_year, p.start_month, p.start_day, p.end_year, p.end_month,
                           p.end_day))
        return 0;
    int count = 0;
    bool deleted = false;
    for (unsigned long ri = 0;; ri++) {
        _root_index_node_mem_ root;
        if (Get_root_index_mem_node(ri, &root) != 0) {
            QZLOG("Get_root_index_mem_node FAILED(root_index:%ld)", long(ri));
            return -1;
        }
        if (root.id == END_ROOT_INDEX)
            return count;
        if (!root_selected(root, p))
            continue;
        const int result = delete_root_segments(ri);
        if (result < 0)
            return -1;
        // From the first root with a deletion on, every root walked counts:
        // a call stops after `limit` of them and the next one goes on.
        deleted = deleted || result > 0;
        if (deleted)
            count++;
        if (limit > 0 && count >= limit)
            return count;
    }
}

// ------------------------------------------------ a stretch of one segment

int CQzFileSystem::delete_stream_segment_time_range(unsigned long root_index,
                                                    unsigned long stream_segment_index,
                                                    _k4t_fs_time_ from, _k4t_fs_time_ to)
{
    if (Compare_time(&from, &to) != 2) {
        QZLOG("time area is invalid!");
        return -1;
    }
    _stream_segment_index_node_dev_ node;
    _opened_stream_segment_* writer = qzfs_segment_writer(*this, root_index, stream_segment_index);
    if (writer != nullptr)
        writer_node_snapshot(writer, &node);
    else if (Get_stream_segment_index_dev_node(root_index, stream_segment_index, &node) != 0 ||
             node.id != NORMAL_STREAM_SEGMENT_INDEX) {
        QZLOG("this segment is free(id:%d)", node.id);
        return -1;
    }
    _k4t_stream_segment_id_ id = {Get_hdd_id(), uint32_t(root_index),
                                  uint32_t(stream_segment_index)};
    if (node.lock != 0 || find_opening_stream_segment_by_id(&id, nullptr, 1) >= 0) {
        // A lock keeps the whole recording; a reader may stand in what goes.
        QZLOG("stream segment is locked or opened for reading(lock:%d)(%lu)(%lu)", node.lock,
              root_index, stream_segment_index);
        return -1;
    }
    const _k4t_fs_time_ start = {node.start_hour, node.start_minute, node.start_second};
    const _k4t_fs_time_ end = {node.end_hour, node.end_minute, node.end_second};
    const bool from_start = Compare_time(&from, &start) != 1;
    const bool to_end = node.end_hour == QZFS_INVALID_END_HOUR || Compare_time(&to, &end) != 2;
    if (writer != nullptr && to_end) {
        // What is being recorded now can only lose its head.
        QZLOG("this is recording stream segment,can not delete backwards");
        return -1;
    }
    int result;
    if (from_start && to_end)
        result = delete_stream_segment_by_time(root_index, stream_segment_index, start, 1);
    else if (from_start)
        result = delete_stream_segment_by_time(root_index, stream_segment_index, to, 0);
    else if (to_end)
        result = delete_stream_segment_by_time(root_index, stream_segment_index, from, 1);
    else
        result = delete_split_out_range(root_index, stream_segment_index, from, to);
    return result < 0 ? -1 : 0;
}

// A stretch inside the segment becomes a piece of its own, which then goes
// whole. A cut between the two steps leaves the pieces, which together read
// as the segment did.
int CQzFileSystem::delete_split_out_range(unsigned long root_index, unsigned long segment,
                                          _k4t_fs_time_ from, _k4t_fs_time_ to)
{
    unsigned long piece = SPLIT_NO_PIECE;
    if (split_out_time_range(root_index, segment, from, to, 0, 0, 0, 0, 0, &piece) != 0)
        return -1;
    if (piece == SPLIT_NO_PIECE)
        return 0;  // the range held no I-frame to cut at
    if (qzfs_segment_writer(*this, root_index, piece) != nullptr) {
        QZLOG("this is recording stream segment,can not delete backwards");
        return -1;
    }
    _stream_segment_index_node_dev_ range;
    if (Get_stream_segment_index_dev_node(root_index, piece, &range) != 0)
        return -1;
    const _k4t_fs_time_ start = {range.start_hour, range.start_minute, range.start_second};
    return delete_stream_segment_by_time(root_index, piece, start, 1);
}
