// Attributes of recordings over a time range, and the pre-recording's
// hand-over. A range that starts or ends inside a segment changes only that
// part of it, through the split by time; a root's summary of its segments
// (record types, lock, only-pre-record) follows every change. The caller
// holds the disk lock.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_segment_change.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>

namespace {

_k4t_fs_time_ time_of(const _k4t_fs_date_time_& t)
{
    _k4t_fs_time_ out = {t.hour, t.minute, t.second};
    return out;
}

// A segment the range meets, by the times of day of the change: it ends
// after the start and starts before the end, or it is one instant on one of
// them.
bool segment_in_range(const _stream_segment_index_node_men_& n,
                      const _qzfs_k4t_modify_segment_para_& p)
{
    const _k4t_fs_time_ start = {n.start_hour, n.start_minute, n.start_second};
    const _k4t_fs_time_ end = {n.end_hour, n.end_minute, n.end_second};
    const _k4t_fs_time_ from = time_of(p.start_date_time), to = time_of(p.end_date_time);
    if (Compare_time(&end, &from) == 1 && Compare_time(&start, &to) == 2)
        return true;
    return Compare_time(&start, &end) == 0 &&
           (Compare_time(&start, &from) == 0 || Compare_time(&start, &to) == 0);
}

// Whether the change would give the node anything it lacks.
bool segment_needs_change(const _stream_segment_index_node_men_& n,
                          const _qzfs_k4t_modify_segment_para_& p)
{
    if ((p.modify_mask & 0x01) && (p.lock != n.lock || (n.lock_type & ~p.lock_type) != 0))
        return true;
    return (p.modify_mask & 0x02) &&
           (p.record_type != n.record_type || (n.alarm_type & ~p.alarm_type) != 0);
}

} // namespace

// Changes the segments of one root that the range meets: [from, to] is the
// part of the range on the root's day.
int CQzFileSystem::change_root_segments(unsigned long root_index,
                                        const _qzfs_k4t_modify_segment_para_& p,
                                        _k4t_fs_time_ from, _k4t_fs_time_ to)
{
    bool changed = false;
    for (unsigned long si = 0;; si++) {
        _stream_segment_index_node_men_ n;
        if (Get_stream_segment_index_mem_node(root_index, si, &n) != 0) {
            QZLOG("Get_stream_segment_index_mem_node FAILED(root_index:%ld)(stream_segment_index:%ld)",
                  long(root_index), long(si));
            return -1;
        }
        if (n.id == END_STREAM_SEGMENT_INDEX)
            break;
        if (!IS_NORMAL_SSIN(n.id) || !segment_in_range(n, p) || !segment_needs_change(n, p))
            continue;
        QZLOG_ABOVE(0, "segment[%d:%d:%d-%d:%d:%d][%d:%d:%d-%d:%d:%d]", n.start_hour,
                    n.start_minute, n.start_second, n.end_hour, n.end_minute, n.end_second,
                    from.hour, from.minute, from.second, to.hour, to.minute, to.second);
        QZLOG_ABOVE(0, "modfiy mask:0x%x,lock:%d(%d),lock_type:0x%lx(0x%lx),record type:%d(%d),alarm type:0x%llx(0x%llx)",
                    p.modify_mask, p.lock, n.lock, (unsigned long)p.lock_type,
                    (unsigned long)n.lock_type, p.record_type, n.record_type,
                    (unsigned long long)p.alarm_type, (unsigned long long)n.alarm_type);
        if (split_stream_segment_by_time(root_index, si, from, to, p.modify_mask, p.lock,
                                         p.lock_type, p.record_type, p.alarm_type) == 0)
            changed = true;
    }
    // The summary is counted again from every segment of the root: pieces
    // may have taken free places that the walk had passed.
    return changed ? check_and_modify_root_info(root_index, nullptr) : 0;
}

int CQzFileSystem::stream_segment_info_change(_qzfs_k4t_modify_segment_para_* para)
{
    const _qzfs_k4t_modify_segment_para_& p = *para;
    const _k4t_fs_date_time_& s = p.start_date_time;
    const _k4t_fs_date_time_& e = p.end_date_time;
    if (!record_dates_meet(s.year, s.month, s.day, e.year, e.month, e.day))
        return 0;
    for (unsigned long ri = 0;; ri++) {
        _root_index_node_mem_ root;
        if (Get_root_index_mem_node(ri, &root) != 0) {
            QZLOG("Get_root_index_mem_node FAILED(root_index:%ld)", long(ri));
            return -1;
        }
        if (root.id == END_ROOT_INDEX)
            return 0;
        if (!IS_NORMAL_ROOT_INDEX(root.id) ||
            Compare_date(root.year, root.month, root.day, s.year, s.month, s.day) == 2 ||
            Compare_date(root.year, root.month, root.day, e.year, e.month, e.day) == 1 ||
            !qzfs_bit_set(p.channel_mask, root.channel, 32) || !qzfs_bit_set(p.stream_mask, root.stream_type, 64))
            continue;
        const bool first_day = Compare_date(root.year, root.month, root.day, s.year, s.month, s.day) == 0;
        const bool last_day = Compare_date(root.year, root.month, root.day, e.year, e.month, e.day) == 0;
        const _k4t_fs_time_ from = first_day ? time_of(s) : _k4t_fs_time_{0, 0, 0};
        const _k4t_fs_time_ to = last_day ? time_of(e) : _k4t_fs_time_{23, 59, 59};
        if (change_root_segments(ri, p, from, to) < 0)
            return -1;
    }
}

// ------------------------------------------------- the pre-recording hand-over

int CQzFileSystem::modify_pre_record_info(unsigned long root_index,
                                          unsigned long stream_segment_index,
                                          unsigned char record_type,
                                          unsigned long long alarm_type, unsigned char lock,
                                          unsigned long lock_type, _k4t_fs_time_ time)
{
    segment_copy copy;
    copy.root_index = root_index;
    copy.segment = stream_segment_index;
    copy.writer = qzfs_segment_writer(*this, root_index, stream_segment_index);
    if (copy.writer != nullptr) {
        memcpy(&copy.root, copy.writer->root_node, sizeof(copy.root));
        writer_node_snapshot(copy.writer, &copy.node);
    } else if (qzfs_copy_closed_segment(*this, &copy, false) < 0) {
        return -1;
    }
    if (copy.node.id != PRE_RECORD_STREAM_SEGMENT_INDEX) {
        QZLOG("this is not pre record(root:%lu,segment:%lu)", root_index, stream_segment_index);
        return -1;
    }
    if (record_type != 255 &&
        hand_over_pre_record(copy, record_type, alarm_type, lock, lock_type) != 0)
        return -1;
    const _k4t_fs_time_ start = {copy.node.start_hour, copy.node.start_minute,
                                 copy.node.start_second};
    if (Compare_time(&start, &time) == 2)
        delete_stream_segment_by_time(root_index, stream_segment_index, time, 0);
    return 0;
}

// The pre-recording becomes a normal recording with the given attributes,
// and its root counts it.
int CQzFileSystem::hand_over_pre_record(segment_copy& copy, unsigned char record_type,
                                        unsigned long long alarm_type, unsigned char lock,
                                        unsigned long lock_type)
{
    _stream_segment_index_node_dev_& node = copy.node;
    node.id = NORMAL_STREAM_SEGMENT_INDEX;
    node.record_type = record_type;
    node.lock = lock;
    const uint32_t lock_bits = uint32_t(lock_type);
    const uint64_t alarm = alarm_type;
    memcpy(&node.lock_type, &lock_bits, sizeof(lock_bits));
    memcpy(&node.alarm_type, &alarm, sizeof(alarm));
    _stream_segment_index_node_dev_ written = node;
    if (copy.writer != nullptr) {
        // A segment being recorded keeps its end and length in the writer.
        written.end_hour = written.end_minute = written.end_second = QZFS_INVALID_END_HOUR;
        set_segment_len(written, 0);
    }
    if (Modify_stream_segment(copy.root_index, copy.segment, 0, &written) != 0) {
        QZLOG("Modify stream segment failed(%ld)(%ld)", long(copy.root_index), long(copy.segment));
        return -1;
    }
    if (copy.writer != nullptr) {
        QzfsScopedLock writer_lock(copy.writer->writer()->lock);
        _stream_segment_index_node_dev_* live = copy.writer->ssi();
        live->id = node.id;
        live->record_type = node.record_type;
        live->lock = node.lock;
        memcpy(&live->lock_type, &node.lock_type, sizeof(node.lock_type));
        memcpy(&live->alarm_type, &node.alarm_type, sizeof(node.alarm_type));
    }
    _root_index_node_dev_ root;
    if (Get_root_index_dev_node(copy.root_index, &root) != 0)
        return 0;
    uint16_t mask;
    memcpy(&mask, &root.record_type, sizeof(mask));
    const bool lacks_type = record_type < 16 && (mask & (1u << record_type)) == 0;
    if (!lacks_type && !(root.lock == 0 && lock != 0) && root.only_pre_record == 0)
        return 0;
    if (record_type < 16)
        mask = uint16_t(mask | (1u << record_type));
    memcpy(&root.record_type, &mask, sizeof(mask));
    if (lock != 0)
        root.lock = lock;
    root.only_pre_record = 0;
    if (Modify_root_index(copy.root_index, 0, &root) != 0)
        QZLOG("modify root index failed(root_index:%ld)", long(copy.root_index));
    if (copy.writer != nullptr) {
        QzfsScopedLock writer_lock(copy.writer->writer()->lock);
        memcpy(copy.writer->root_node, &root, sizeof(root));
    }
    return 0;
}
