// Stream queries: a filter for one date, handles, free and sequence queries
// with their pages, and the description of one segment.
//
// A free query walks the disks of its groups, root by root and segment by
// segment, and stops when the caller's rows are full; it remembers where
// (disk, root index, next segment) and goes on from there at the next call.
// A sequence query gathers every hit of all disks into one list once, sorts
// it by start time, and hands it out page by page.
#include "qzfilesystem.h"
#include "qzfs_root_days.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>
#include <iterator>
#include <vector>

typedef _stream_segment_query_state_::_stream_query_list_node_ _stream_query_list_node_;

namespace {

// Disk slots a group mask can name.
const unsigned kQueryDiskSlots = 32;
// I-frame log nodes read at a time by the byte-range walk.
const unsigned long kIframeBatch = 512;

unsigned start_second_of(const _stream_segment_index_node_men_& n)
{
    return qzfs_second_of_day(n.start_hour, n.start_minute, n.start_second);
}

unsigned end_second_of(const _stream_segment_index_node_men_& n)
{
    return qzfs_second_of_day(n.end_hour, n.end_minute, n.end_second);
}

// The flag bits of a segment node as the result records carry them.
uint8_t tv_system_of(uint8_t flags) { return (flags >> 1) & 1u; }
uint8_t have_audio_of(uint8_t flags) { return uint8_t(((flags >> 2) & 1u) | (((flags >> 4) & 1u) << 1)); }
uint8_t further_flag_of(uint8_t flags) { return (flags >> 3) & 1u; }

// The fields of a row that come from the root and segment nodes (times and
// length are the caller's).
void fill_row_fields(_k4t_stream_query_result_* row, uint8_t channel, uint8_t stream_type,
                     uint8_t record_type, uint8_t lock, uint8_t segment_type, uint8_t flags,
                     uint32_t lock_type, uint64_t alarm_type, uint8_t hdd_id, uint32_t root_index,
                     uint32_t stream_segment_index)
{
    row->channel = channel;
    row->stream_type = stream_type;
    row->record_type = record_type;
    row->lock = lock;
    row->segment_type = segment_type;
    row->tv_system = tv_system_of(flags);
    row->have_audio = have_audio_of(flags);
    row->further_flag = further_flag_of(flags);
    row->lock_type = lock_type;
    row->alarm_type = alarm_type;
    row->hdd_id = hdd_id;
    row->root_index = root_index;
    row->stream_segment_index = stream_segment_index;
}

// A row of a sequence query: the list node as it stands, full times.
void fill_row_from_list_node(_k4t_stream_query_result_* row, const _stream_query_list_node_& n)
{
    memset(row, 0, sizeof(*row));
    row->start_hour = n.start_hour;
    row->start_minute = n.start_minute;
    row->start_second = n.start_second;
    row->end_hour = n.end_hour;
    row->end_minute = n.end_minute;
    row->end_second = n.end_second;
    row->len = n.len_in_bytes;
    fill_row_fields(row, n.channel, n.stream_type, n.record_type, n.lock, n.segment_type, n.flags,
                    n.lock_type, n.alarm_type, n.hdd_id, n.root_index, n.stream_segment_index);
}

// Sort orders of a sequence list: by start time, ascending or descending,
// and by channel ascending on equal starts. std::list::sort is a stable
// merge sort, so hits with equal keys keep the order of the scan.
bool Stream_query_list_node_compare(const _stream_query_list_node_& a,
                                    const _stream_query_list_node_& b)
{
    const unsigned sa = qzfs_second_of_day(a.start_hour, a.start_minute, a.start_second);
    const unsigned sb = qzfs_second_of_day(b.start_hour, b.start_minute, b.start_second);
    if (sa != sb)
        return sa < sb;
    return a.channel < b.channel;
}

bool Stream_query_list_node_compare_seq_down(const _stream_query_list_node_& a,
                                             const _stream_query_list_node_& b)
{
    const unsigned sa = qzfs_second_of_day(a.start_hour, a.start_minute, a.start_second);
    const unsigned sb = qzfs_second_of_day(b.start_hour, b.start_minute, b.start_second);
    if (sa != sb)
        return sa > sb;
    return a.channel < b.channel;
}

// Where the I-frame log of a segment lies: an open record's chain, or a
// chain read from the disk and owned here.
struct iframe_chain {
    uint32_t num = 0;
    uint32_t* list = nullptr;
    bool owned = false;
    ~iframe_chain()
    {
        if (owned)
            delete[] list;
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// One disk
// ---------------------------------------------------------------------------

int CQzFileSystem::Stream_segment_is_finding(_stream_segment_query_state_* state,
                                             _stream_segment_index_node_men_* node,
                                             _k4t_stream_query_result_* result)
{
    const _k4t_stream_query_& q = state->query;
    const unsigned want_start = qzfs_second_of_day(q.start_hour, q.start_minute, q.start_second);
    const unsigned want_end = qzfs_second_of_day(q.end_hour, q.end_minute, q.end_second);
    const unsigned seg_start = start_second_of(*node);
    const unsigned seg_end = end_second_of(*node);
    const bool start_from_query = want_start > seg_start;
    const bool end_from_query = want_end < seg_end;
    const unsigned cut_start = start_from_query ? want_start : seg_start;
    const unsigned cut_end = end_from_query ? want_end : seg_end;
    if (cut_start > cut_end)
        return -1;
    if (start_from_query) {
        result->start_hour = q.start_hour;
        result->start_minute = q.start_minute;
        result->start_second = q.start_second;
    } else {
        result->start_hour = node->start_hour;
        result->start_minute = node->start_minute;
        result->start_second = node->start_second;
    }
    if (end_from_query) {
        result->end_hour = q.end_hour;
        result->end_minute = q.end_minute;
        result->end_second = q.end_second;
    } else {
        result->end_hour = node->end_hour;
        result->end_minute = node->end_minute;
        result->end_second = node->end_second;
    }
    return 0;
}

namespace {

const char kQuery[] = "Query_stream_segment";

// Whether the query's date lies inside the disk's record dates.
bool date_on_disk(const _hdd_root_index_manager_* range, const _k4t_stream_query_& q)
{
    if (range != nullptr &&
        Compare_date(q.year, q.month, q.day, range->start_year, range->start_month,
                     range->start_day) != 2 &&
        Compare_date(q.year, q.month, q.day, range->end_year, range->end_month, range->end_day) !=
            1)
        return true;
    if (g_qzfs_debug_level > 2)
        QZLOG_AS(kQuery, "START[20%02d-%02d-%02d]END[20%02d-%02d-%02d]QUERY[20%02d-%02d-%02d]",
                 range ? range->start_year : 255, range ? range->start_month : 255,
                 range ? range->start_day : 255, range ? range->end_year : 255,
                 range ? range->end_month : 255, range ? range->end_day : 255, q.year, q.month,
                 q.day);
    return false;
}

// A root in use whose channel, stream type, record types and date the
// query asks for.
bool root_matches(const _root_index_node_mem_& root, const _k4t_stream_query_& q)
{
    return IS_NORMAL_ROOT_INDEX(root.id) && qzfs_bit_set(q.channel_bitmap, root.channel, 32) &&
           qzfs_bit_set(q.stream_type_bitmap, root.stream_type, 64) &&
           (root.record_type & q.record_type_bitmap) != 0 &&
           Compare_date(root.year, root.month, root.day, q.year, q.month, q.day) == 0;
}

// A segment in use whose record type and lock the query asks for.
bool segment_matches(const _stream_segment_index_node_men_& node, const _k4t_stream_query_& q)
{
    return IS_NORMAL_SSIN(node.id) && qzfs_bit_set(q.record_type_bitmap, node.record_type, 8) &&
           qzfs_bit_set(q.lock_bitmap, node.lock, 8);
}

// A hit of a sequence query: the segment's whole times, sorted later.
_stream_query_list_node_ list_node_of(const _root_index_node_mem_& root,
                                      const _stream_segment_index_node_men_& node,
                                      uint8_t hdd_id, uint32_t ri, uint32_t si)
{
    _stream_query_list_node_ hit;
    hit.start_hour = node.start_hour;
    hit.start_minute = node.start_minute;
    hit.start_second = node.start_second;
    hit.end_hour = node.end_hour;
    hit.end_minute = node.end_minute;
    hit.end_second = node.end_second;
    hit.channel = root.channel;
    hit.stream_type = root.stream_type;
    hit.record_type = node.record_type;
    hit.lock = node.lock;
    hit.segment_type = node.segment_type;
    hit.flags = node.flags;
    hit.lock_type = node.lock_type;
    hit.alarm_type = node.alarm_type;
    hit.len_in_bytes = node.len_in_bytes;
    hit.hdd_id = hdd_id;
    hit.root_index = ri;
    hit.stream_segment_index = si;
    return hit;
}

// The rest of a free query's row, whose times are already cut to the
// query's range. A cut segment counts the bytes of its I-frame periods
// inside the range.
void fill_free_row(CQzFileSystem& fs, _k4t_stream_query_result_* row,
                   const _root_index_node_mem_& root, const _stream_segment_index_node_men_& node,
                   uint32_t ri, uint32_t si)
{
    fill_row_fields(row, root.channel, root.stream_type, node.record_type, node.lock,
                    node.segment_type, node.flags, node.lock_type, node.alarm_type,
                    fs.Get_hdd_id(), ri, si);
    row->len = node.len_in_bytes;
    if (row->start_hour != node.start_hour || row->start_minute != node.start_minute ||
        row->start_second != node.start_second || row->end_hour != node.end_hour ||
        row->end_minute != node.end_minute || row->end_second != node.end_second) {
        const _k4t_fs_time_ from = {row->start_hour, row->start_minute, row->start_second};
        const _k4t_fs_time_ to = {row->end_hour, row->end_minute, row->end_second};
        unsigned long long offset = 0, len = 0;
        if (fs.Get_stream_segment_info(ri, si, &from, &to, &offset, &len) == 0)
            row->len = len;
    }
}

enum root_scan { ROOT_DONE, ROWS_FULL, SCAN_FAILED };

// Scans the segments of root `ri` from `first_si` on. A sequence query
// appends its hits to the state's list; a free query writes rows to
// `result` and, once `get_num` rows are there, keeps where it stopped.
root_scan scan_root(CQzFileSystem& fs, _stream_segment_query_state_* state,
                    const _root_index_node_mem_& root, uint32_t ri, uint32_t first_si,
                    int get_num, _k4t_stream_query_result_* result, int* rows)
{
    const _k4t_stream_query_& q = state->query;
    for (uint32_t si = first_si;; si++) {
        _stream_segment_index_node_men_ node;
        if (fs.Get_stream_segment_index_mem_node(ri, si, &node) != 0) {
            QZLOG_AS(kQuery,
                     "Get_stream_segment_index_mem_node FAILED(root_index:%ld)(stream_segment_index:%ld)",
                     long(ri), long(si));
            return SCAN_FAILED;
        }
        if (node.id > 254) {
            if (g_qzfs_debug_level > 2)
                QZLOG_AS(kQuery, "end stream segment index:%ld, %ld", long(ri), long(si));
            return ROOT_DONE;
        }
        if (!segment_matches(node, q))
            continue;
        const int visible = fs.live_segment_node(ri, si, node);
        if (visible < 0)
            QZLOG_AS(kQuery, "find_opening_stream_segment_by_id failed");
        if (visible != 1)
            continue;
        _k4t_stream_query_result_ row;
        memset(&row, 0, sizeof(row));
        if (fs.Stream_segment_is_finding(state, &node, &row) != 0)
            continue;
        if (q.sequence != _K4T_NO_SEQUECE_) {
            state->stream_list.push_back(list_node_of(root, node, fs.Get_hdd_id(), ri, si));
            continue;
        }
        fill_free_row(fs, &row, root, node, ri, si);
        result[(*rows)++] = row;
        if (*rows >= get_num) {
            state->cur_root_index = ri;
            state->cur_stream_segment_index = si + 1;
            return ROWS_FULL;
        }
    }
}

}  // namespace

int CQzFileSystem::Query_stream_segment(_stream_segment_query_state_* state, int get_num,
                                        _k4t_stream_query_result_* result)
{
    const _k4t_stream_query_& q = state->query;
    const bool free_query = q.sequence == _K4T_NO_SEQUECE_;
    if (!date_on_disk(root_manager(), q))
        return 0;

    int rows = 0;
    const uint32_t from = free_query ? state->cur_root_index : 0;
    const uint32_t from_si = free_query ? state->cur_stream_segment_index : 0;
    DayRootWalk walk(*this, q.year, q.month, q.day, from);
    for (uint32_t ri; walk.next(ri);) {
        _root_index_node_mem_ root;
        if (Get_root_index_mem_node(ri, &root) != 0) {
            QZLOG("Get_root_index_mem_node FAILED(root_index:%ld)", long(ri));
            return -1;
        }
        if (root.id == END_ROOT_INDEX) {
            walk.reached_end(ri);
            break;
        }
        if (!root_matches(root, q))
            continue;
        const root_scan scan =
            scan_root(*this, state, root, ri, ri == from ? from_si : 0, get_num, result, &rows);
        if (scan == SCAN_FAILED)
            return -1;
        if (scan == ROWS_FULL)
            return rows;
    }
    QZLOG_ABOVE(2, "Query_stream_segment end root index:%ld", long(walk.end()));
    if (free_query) {
        state->cur_root_index = walk.end();
        state->cur_stream_segment_index = 0;
    }
    return rows;
}

int CQzFileSystem::Get_stream_segment_info(unsigned long root_index,
                                           unsigned long stream_segment_index,
                                           _k4t_stream_segment_info_* info)
{
    _root_index_node_mem_ root;
    memset(&root, 0, sizeof(root));
    if (Get_root_index_mem_node(root_index, &root) != 0 || !IS_NORMAL_ROOT_INDEX(root.id)) {
        QZLOG("Get_root_index_mem_node FAILED(%02x)", unsigned(root.id));
        return -1;
    }
    _stream_segment_index_node_men_ node;
    memset(&node, 0, sizeof(node));
    if (Get_stream_segment_index_mem_node(root_index, stream_segment_index, &node) != 0 ||
        !IS_NORMAL_SSIN(node.id)) {
        QZLOG("Get_stream_segment_index_mem_node FAILED(%02x)", unsigned(node.id));
        return -1;
    }
    info->year = root.year;
    info->month = root.month;
    info->day = root.day;
    info->start_time.hour = node.start_hour;
    info->start_time.minute = node.start_minute;
    info->start_time.second = node.start_second;
    info->end_time.hour = node.end_hour;
    info->end_time.minute = node.end_minute;
    info->end_time.second = node.end_second;
    info->dst = node.flags & 1u;
    info->channel = root.channel;
    info->segment_type = node.segment_type;
    info->record_type = node.record_type;
    info->have_audio = have_audio_of(node.flags);
    info->tv_system = tv_system_of(node.flags);
    info->lock = node.lock;
    info->further_flag = further_flag_of(node.flags);
    info->len = node.len_in_bytes;
    return 0;
}

namespace {

const char kInfo[] = "Get_stream_segment_info";

// The I-frame chain of a root read from the disk, through its segment index
// header. 0 or -1.
int read_iframe_chain(CQzFileSystem& fs, unsigned long root_index, iframe_chain& chain)
{
    _root_index_node_dev_ root;
    if (fs.Get_root_index_dev_node(root_index, &root) != 0) {
        QZLOG_AS(kInfo, "Get_root_index_dev_node failed(root_index:%ld)", long(root_index));
        return -1;
    }
    _stream_segment_block_header_dev_ header;
    if (fs.Read_stream_segment_index_block_header(root.stream_segment_index_block, &header) != 0) {
        QZLOG_AS(kInfo, "Read_stream_segment_index_block_header failed(:%ld)",
                 long(root.stream_segment_index_block));
        return -1;
    }
    if (header.magic != QZFS_STREAM_SEGMENT_MAGIC) {
        QZLOG_AS(kInfo, "invalid magic(%08lx)(%08lx)", (unsigned long)header.magic,
                 (unsigned long)QZFS_STREAM_SEGMENT_MAGIC);
        return -1;
    }
    if (fs.Read_iframe_index_block_list(header.iframe_index_block, &chain.num, &chain.list) != 0) {
        QZLOG_AS(kInfo, "Read_iframe_index_block_list failed(:%ld)",
                 long(header.iframe_index_block));
        return -1;
    }
    chain.owned = true;
    return 0;
}

// The segment node a byte range is cut from: a writer's live one, a
// reader's copy, or the index's. An open segment lends its I-frame chain
// and must have an end time. False when no node can be had.
bool segment_node_for_range(CQzFileSystem& fs, unsigned long root_index,
                            unsigned long stream_segment_index,
                            _stream_segment_index_node_dev_* node, iframe_chain* chain,
                            bool* is_open)
{
    _k4t_stream_segment_id_ id = {fs.Get_hdd_id(), uint32_t(root_index),
                                  uint32_t(stream_segment_index)};
    _opened_stream_segment_* open = nullptr;
    if (fs.find_opening_stream_segment_by_id(&id, &open, 2) >= 0 && open != nullptr) {
        _write_stream_segment_* wss = open->writer();
        writer_node_snapshot(open, node);
        node->len_in_bytes -= wss->delete_len;
        chain->num = wss->iframe_block_num;
        chain->list = wss->iframe_block_list;
    } else if (fs.find_opening_stream_segment_by_id(&id, &open, 1) >= 0 && open != nullptr) {
        *node = *open->ssi();
        chain->num = open->reader()->iframe_block_num;
        chain->list = open->reader()->iframe_block_list;
    } else {
        open = nullptr;
    }
    *is_open = open != nullptr;
    if (open != nullptr) {
        if (node->end_hour == QZFS_INVALID_END_HOUR) {
            if (g_qzfs_debug_level > 1)
                QZLOG_AS(kInfo, "(ssinm.end_hour == QZFS_INVALID_END_HOUR)");
            return false;
        }
        return true;
    }
    _stream_segment_index_node_men_ mem;
    if (fs.Get_stream_segment_index_mem_node(root_index, stream_segment_index, &mem) != 0) {
        QZLOG_AS(kInfo, "Get_stream_segment_index_mem_node failed(%ld)(%ld)", long(root_index),
                 long(stream_segment_index));
        return false;
    }
    if (!IS_NORMAL_SSIN(mem.id)) {
        QZLOG_AS(kInfo, "(IS_NORMAL_SSIN(ssinm.id) == 0)(%ld)(%ld)(%02x)", long(root_index),
                 long(stream_segment_index), unsigned(mem.id));
        return false;
    }
    fs.Stream_segment_index_endian_trans_dev_mem(node, gLocal_endian, &mem, gLocal_endian, 0);
    return true;
}

// What the walk of a segment's log found for a time range: the segment's
// first I-frame, the last I-frame not after the range's start (`found`),
// and the first I-frame after its end (`stop`).
struct range_walk {
    _iframe_index_node_dev_ first = {}, last = {}, found = {}, stop = {};
    bool have_first = false, have_found = false, stopped_at_node = false;
};

enum range_step { RANGE_NEXT, RANGE_END, RANGE_BROKEN };

// Takes one log node into the walk. The walk ends at a node that is no
// I-frame or block entry, at an I-frame out of the segment's data or out
// of order, and at the first I-frame after `end`; a block entry ahead of
// every I-frame breaks it.
range_step take_range_node(const _iframe_index_node_dev_& n, uint64_t segment_len,
                           const _k4t_fs_time_* start, const _k4t_fs_time_* end, range_walk* w)
{
    if (n.id == IFRAME_INDEX_ID_BLOCK)
        return w->have_first ? RANGE_NEXT : RANGE_BROKEN;
    if (n.id != IFRAME_INDEX_ID_IFRAME)
        return RANGE_END;
    if (w->have_first &&
        (n.stream_segment_offset < w->first.stream_segment_offset ||
         n.stream_segment_offset - w->first.stream_segment_offset >= segment_len ||
         n.stream_segment_offset <= w->last.stream_segment_offset))
        return RANGE_END;
    if (!w->have_first) {
        w->first = n;
        w->have_first = true;
    }
    if (Compare_time(n.hour, n.minute, n.second, end->hour, end->minute, end->second) == 1) {
        w->stop = n;
        w->stopped_at_node = true;
        return RANGE_END;
    }
    if (Compare_time(n.hour, n.minute, n.second, start->hour, start->minute, start->second) != 1) {
        w->found = n;
        w->have_found = true;
    }
    w->last = n;
    return RANGE_NEXT;
}

// Walks the segment's log from its first I-frame, a batch of nodes at a
// time. False when the log is broken.
bool walk_range(CQzFileSystem& fs, const iframe_chain& chain,
                const _stream_segment_index_node_dev_& node, const _k4t_fs_time_* start,
                const _k4t_fs_time_* end, range_walk* w)
{
    std::vector<_iframe_index_node_dev_> batch(kIframeBatch);
    uint32_t index = node.start_iframe;
    bool walking = chain.num != 0 && chain.list != nullptr;
    while (walking) {
        unsigned long count = kIframeBatch;
        fs.Read_iframe_index(chain.num, chain.list, index, &count, batch.data(), 3);
        for (unsigned long i = 0; i < count && walking; i++) {
            const range_step step = take_range_node(batch[i], node.len_in_bytes, start, end, w);
            if (step == RANGE_BROKEN)
                return false;
            walking = step == RANGE_NEXT;
        }
        if (count < kIframeBatch)
            walking = false;
        index += uint32_t(count);
    }
    return true;
}

}  // namespace

int CQzFileSystem::Get_stream_segment_info(unsigned long root_index,
                                           unsigned long stream_segment_index,
                                           const _k4t_fs_time_* start, const _k4t_fs_time_* end,
                                           unsigned long long* offset, unsigned long long* len)
{
    if (Compare_time(start, end) == 1) {
        QZLOG_ABOVE(2, "invalid time(START:%02d:%02d:%02d)(END:%02d:%02d:%02d)", start->hour,
                    start->minute, start->second, end->hour, end->minute, end->second);
        return -1;
    }
    _stream_segment_index_node_dev_ node;
    iframe_chain chain;
    bool open = false;
    if (!segment_node_for_range(*this, root_index, stream_segment_index, &node, &chain, &open))
        return -1;

    // The range must lie in the segment; the whole segment needs no walk.
    const unsigned seg_start = qzfs_second_of_day(node.start_hour, node.start_minute, node.start_second);
    const unsigned seg_end = qzfs_second_of_day(node.end_hour, node.end_minute, node.end_second);
    const unsigned want_start = qzfs_second_of_day(start->hour, start->minute, start->second);
    const unsigned want_end = qzfs_second_of_day(end->hour, end->minute, end->second);
    if (want_start < seg_start || (want_end > seg_end && want_start > seg_start)) {
        QZLOG_ABOVE(2, "OUT OF STREAM SEGMENT(%02d:%02d:%02d)(%02d:%02d:%02d)", start->hour,
                    start->minute, start->second, end->hour, end->minute, end->second);
        return -1;
    }
    range_walk walk;
    if (!(want_start == seg_start && want_end == seg_end)) {
        if (!open && read_iframe_chain(*this, root_index, chain) != 0)
            return -1;
        if (!walk_range(*this, chain, node, start, end, &walk))
            return -1;
    }
    if (!walk.have_found) {
        *offset = 0;
        *len = node.len_in_bytes;
        return 0;
    }
    *offset = walk.found.stream_segment_offset - walk.first.stream_segment_offset;
    if (walk.stopped_at_node)
        *len = walk.stop.stream_segment_offset - walk.found.stream_segment_offset;
    else
        *len = node.len_in_bytes + walk.first.stream_segment_offset -
               walk.found.stream_segment_offset;
    return 0;
}

// ---------------------------------------------------------------------------
// The manager: handles over the disks of the groups
// ---------------------------------------------------------------------------

int CQzfsManager::Query_stream_segment_free(query_iterator it, _k4t_stream_query_cmd_ cmd,
                                            int* num, _k4t_stream_query_result_* result)
{
    _stream_segment_query_state_& state = it->second;
    if (cmd == K4T_QUERY_FIRST) {
        state.cur_hdd_id = 0;
        state.cur_root_index = 0;
        state.cur_stream_segment_index = 0;
        state.find_over = 0;
    } else if (cmd != K4T_QUERY_NEXT) {
        QZLOG("NOT SUPPORT CMD(%d)", int(cmd));
    }
    const int wanted = *num;
    *num = 0;
    if (state.find_over) {
        QZLOG_ABOVE(2, "Query_stream_segment_free find over");
        return 0;
    }
    const unsigned long disks = disks_of_groups(state.query.group_bitmap);
    if (disks == 0) {
        QZLOG_ABOVE(2, "group have not disk(0x%lx)", (unsigned long)state.query.group_bitmap);
        return -1;
    }
    unsigned id = state.cur_hdd_id;
    for (; id < kQueryDiskSlots; id++) {
        CQzFileSystem* fs = (disks >> id) & 1u ? get_file_system(uint8_t(id)) : nullptr;
        if (fs != nullptr && fs->Get_hdd_state() == QZFSS_MOUNTED) {
            int got;
            {
                DiskLockGuard disk(*fs);
                got = fs->Query_stream_segment(&state, wanted - *num, result + *num);
            }
            if (got < 0)
                QZLOG_ABOVE(1, "Query_stream_segment failed(hdd_id:%d)", int(id));
            else
                *num += got;
            if (*num >= wanted)
                break;
        }
        // This disk is done: the next one starts at its beginning.
        state.cur_root_index = 0;
        state.cur_stream_segment_index = 0;
    }
    if (*num > 0)
        state.cur_hdd_id = uint8_t(id);
    else
        state.find_over = 1;
    return 0;
}

int CQzfsManager::find_stream_segment_for_sequence_query(query_iterator it)
{
    _stream_segment_query_state_& state = it->second;
    if (state.find_over)
        return 0;
    state.stream_list.clear();
    const unsigned long disks = disks_of_groups(state.query.group_bitmap);
    if (disks == 0) {
        QZLOG_ABOVE(2, "group have not disk(0x%lx)", (unsigned long)state.query.group_bitmap);
        return -1;
    }
    for (unsigned id = 0; id < kQueryDiskSlots; id++) {
        CQzFileSystem* fs = (disks >> id) & 1u ? get_file_system(uint8_t(id)) : nullptr;
        if (fs == nullptr || fs->Get_hdd_state() != QZFSS_MOUNTED)
            continue;
        int got;
        {
            DiskLockGuard disk(*fs);
            got = fs->Query_stream_segment(&state, 0, nullptr);
        }
        if (got < 0)
            QZLOG_ABOVE(1, "Query_stream_segment failed(hdd_id:%d)", int(id));
    }
    if (state.query.sequence <= _K4T_SEQUECE_ASCEND_WRAP_)
        state.stream_list.sort(Stream_query_list_node_compare);
    else
        state.stream_list.sort(Stream_query_list_node_compare_seq_down);
    state.find_over = 1;
    state.cur_index = 0;
    return 0;
}

int CQzfsManager::fill_sequence_page(_stream_segment_query_state_& state,
                                     _k4t_stream_query_result_* result)
{
    int rows = 0;
    if (state.cur_index < state.stream_list.size()) {
        auto node = std::next(state.stream_list.begin(), long(state.cur_index));
        for (; node != state.stream_list.end() && uint32_t(rows) < state.query.item_num_per_page;
             ++node)
            fill_row_from_list_node(&result[rows++], *node);
    }
    state.cur_index += uint32_t(rows);
    return rows;
}

int CQzfsManager::Query_stream_segment_sequence(query_iterator it, _k4t_stream_query_cmd_ cmd,
                                                int* num, _k4t_stream_query_result_* result)
{
    _stream_segment_query_state_& state = it->second;
    if (find_stream_segment_for_sequence_query(it) != 0)
        return -1;
    const unsigned long size = state.stream_list.size();
    if (size == 0) {
        *num = 0;
        return 0;
    }
    const uint32_t page = state.query.item_num_per_page;
    if (page == 0)
        return -1;
    const uint32_t last_page = page * uint32_t((size - 1) / page);
    switch (cmd) {
    case K4T_QUERY_FIRST:
        state.cur_index = 0;
        break;
    case K4T_QUERY_LAST:
        state.cur_index = last_page;
        break;
    case K4T_QUERY_NEXT:
        if (state.cur_index >= size) {
            if (state.query.sequence == _K4T_SEQUECE_ASCEND_WRAP_) {
                QZLOG_ABOVE(2, "THE LAST PAGE(%ld)(%lu)", long(state.cur_index), size);
                state.cur_index = 0;
            } else {
                QZLOG_ABOVE(2, "THE LAST PAGE OVER(%ld)(%lu)", long(state.cur_index), size);
                *num = 0;
                return 0;
            }
        }
        break;
    case K4T_QUERY_PREV:
        if (state.cur_index <= page)
            state.cur_index = last_page;
        else
            state.cur_index = page * ((state.cur_index - 1) / page - 1);
        break;
    default:
        break;
    }
    QZLOG_ABOVE(2, "QUERY(cmd:%d)(total_number:%lu)(cur_index:%ld)", int(cmd), size,
                long(state.cur_index));
    *num = fill_sequence_page(state, result);
    return 0;
}
