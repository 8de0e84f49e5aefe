// Seek by time: a reader is placed on the I-frame that the find policy
// names, found by walking the segment's stretch of the I-frame log.
//
// The walk is linear from the segment's first I-frame: nodes of segments
// and block entries are mixed in the log and any node may be damaged, so
// the log cannot be bisected. A seek only prepares the reader: the next
// read looks the chosen I-frame up again and starts there.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

#include <cstring>

namespace {

uint64_t pts_of(const _iframe_index_node_dev_& node)
{
    return uint64_t(node.pts_high) << 32 | node.pts_low;
}

void print_out_of_order(const _iframe_index_node_dev_& node, uint32_t index,
                        const _iframe_index_node_dev_& last, uint32_t last_index)
{
    QZLOG_AS("Find_iframe_index", "iframe index:%lu,block:%lu,block offset:%lu,segment offset:%llu(%02d:%02d:%02d)",
             (unsigned long)index, (unsigned long)node.block_num, (unsigned long)node.block_offset,
             (unsigned long long)node.stream_segment_offset, int(node.hour), int(node.minute),
             int(node.second));
    QZLOG_AS("Find_iframe_index", "last iframe index:%lu,block:%lu,block offset:%lu,segment offset:%llu(%02d:%02d:%02d)",
             (unsigned long)last_index, (unsigned long)last.block_num,
             (unsigned long)last.block_offset, (unsigned long long)last.stream_segment_offset,
             int(last.hour), int(last.minute), int(last.second));
}

// An I-frame node with its log position.
struct placed_node {
    _iframe_index_node_dev_ node;
    uint32_t index = 0;
    bool valid = false;
};

enum step { GO_ON, ANSWER_THIS, ANSWER_PREV, NO_ANSWER };

// What an I-frame at `t` (pts `node_pts`) means for a search for `want`.
step judge_iframe(unsigned t, unsigned want, uint64_t node_pts, uint64_t pts,
                  _fs_find_policy_ policy, bool have_prev, bool* store_prev)
{
    *store_prev = false;
    if (t < want) {
        *store_prev = true;
        return GO_ON;
    }
    if (t == want) {
        if (policy <= FS_FIND_EXACT) {
            if (pts == 0 || node_pts == pts)
                return ANSWER_THIS;
            QZLOG_ABOVE(2, "(%02d:%02d:%02d) PTS:%lld, %lld", int(want / 3600),
                        int(want / 60 % 60), int(want % 60), (long long)node_pts, (long long)pts);
            return GO_ON;
        }
        if (policy == FS_FIND_NEXT)
            return GO_ON;
        return have_prev ? ANSWER_PREV : NO_ANSWER;  // FS_FIND_PREV
    }
    switch (policy) {
    case FS_FIND_NEAR_PREFER_NEXT:
    case FS_FIND_AT_OR_NEXT:
    case FS_FIND_NEXT:
        return ANSWER_THIS;
    case FS_FIND_NEAR_PREFER_PREV:
        return have_prev ? ANSWER_PREV : ANSWER_THIS;
    case FS_FIND_AT_OR_PREV:
    case FS_FIND_PREV:
        return have_prev ? ANSWER_PREV : NO_ANSWER;
    default:
        return NO_ANSWER;
    }
}

}  // namespace

// The walk behind the I-frame search, through `buffer` (the disk's shared
// one: the disk lock is held). A node whose offset is not above the
// previous I-frame's is reported and passed over.
static int find_iframe(CQzFileSystem& fs, unsigned char* buffer, unsigned long buffer_len,
                       uint32_t block_num, const uint32_t* list, uint32_t start_iframe,
                       const _k4t_fs_date_time_* where, uint64_t stream_len,
                       _fs_find_policy_ policy, _iframe_index_node_dev_* first,
                       uint32_t* found_index, _iframe_index_node_dev_* found,
                       uint64_t* found_offset, uint64_t pts)
{
    memset(first, 0, sizeof(*first));
    memset(found, 0, sizeof(*found));
    *found_index = 0;
    *found_offset = 0;
    const unsigned want = qzfs_second_of_day(where->hour, where->minute, where->second);
    iframe_log_reader log(fs, block_num, list, buffer, buffer_len);
    placed_node head, prev, answer;
    for (uint32_t index = start_iframe; !answer.valid; index++) {
        _iframe_index_node_dev_ node;
        const int got = log.fetch(index, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG_AS("Find_iframe_index", "invalid block num(%ld)(%ld)", log.chain_position(),
                     long(block_num));
            break;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG_AS("Find_iframe_index",
                     "Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)",
                     log.block(), log.unit_offset());
            break;
        }
        if (fs.Check_iframe_index_dev_node(&node) != 0) {
            QZLOG_AS("Find_iframe_index", "Check_iframe_index_dev_node failed(index:%ld)",
                     long(index));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (node.id == IFRAME_INDEX_ID_BLOCK) {
            if (!head.valid)
                break;
            continue;
        }
        if (node.id != IFRAME_INDEX_ID_IFRAME) {
            QZLOG_AS("Find_iframe_index", "IFRAME_INDEX_ID_FREE_AND_END");
            break;
        }
        if (!head.valid)
            head = {node, index, true};
        if (prev.valid && prev.node.stream_segment_offset >= node.stream_segment_offset) {
            print_out_of_order(node, index, prev.node, prev.index);
            continue;
        }
        // Nodes past the logical end do not count.
        if (node.stream_segment_offset < head.node.stream_segment_offset ||
            node.stream_segment_offset - head.node.stream_segment_offset >= stream_len)
            break;
        bool store_prev = false;
        const step verdict = judge_iframe(qzfs_second_of_day(node.hour, node.minute, node.second), want,
                                          pts_of(node), pts, policy, prev.valid, &store_prev);
        if (store_prev)
            prev = {node, index, true};
        if (verdict == NO_ANSWER)
            return -1;
        if (verdict == ANSWER_THIS)
            answer = {node, index, true};
        else if (verdict == ANSWER_PREV)
            answer = prev;
    }
    if (!answer.valid) {
        // The walk ran out before the moment was passed: the policies that
        // accept an earlier I-frame take the last one before it.
        const bool takes_prev = policy == FS_FIND_NEAR_PREFER_NEXT ||
                                policy == FS_FIND_NEAR_PREFER_PREV ||
                                policy == FS_FIND_AT_OR_PREV || policy == FS_FIND_PREV;
        if (!takes_prev || !prev.valid)
            return -1;
        answer = prev;
    }
    *first = head.node;
    *found_index = answer.index;
    *found = answer.node;
    *found_offset = answer.node.stream_segment_offset - head.node.stream_segment_offset;
    return 0;
}

int CQzFileSystem::Find_iframe_index_fast(_stream_segment_index_node_dev_*, uint32_t iframe_block_num,
                                          uint32_t* iframe_block_list, uint32_t start_iframe,
                                          _k4t_fs_date_time_* where, uint64_t stream_len,
                                          _fs_find_policy_ policy, _iframe_index_node_dev_* first,
                                          uint32_t* found_index, _iframe_index_node_dev_* found,
                                          uint64_t* found_offset, uint64_t pts)
{
    return find_iframe(*this, m_file_system_io_buffer, m_file_system_io_buffer_len,
                       iframe_block_num, iframe_block_list, start_iframe, where, stream_len, policy,
                       first, found_index, found, found_offset, pts);
}

// A writer's nodes waiting in its list go to the log when the moment sought
// may be among them.
static void flush_writer_for_seek(CQzFileSystem& fs, _opened_stream_segment_* writer,
                                  const _k4t_fs_date_time_* where)
{
    _write_stream_segment_* wss = writer->writer();
    bool waiting;
    _iframe_index_node_dev_ oldest;
    {
        QzfsScopedLock writer_lock(wss->lock);
        waiting = wss->iframe_list_ptr != 0;
        oldest = wss->iframe_list[0];
    }
    if (!waiting ||
        qzfs_second_of_day(oldest.hour, oldest.minute, oldest.second) >
            qzfs_second_of_day(where->hour, where->minute, where->second))
        return;
    QZLOG_ABOVE(2, "Write_iframe_index START(%02d:%02d:%02d)(%02d:%02d:%02d)", int(oldest.hour),
                int(oldest.minute), int(oldest.second), int(where->hour), int(where->minute),
                int(where->second));
    fs.Write_iframe_index(wss, true);
    QZLOG_ABOVE(2, "Write_iframe_index END(%02d:%02d:%02d)(%02d:%02d:%02d)", int(oldest.hour),
                int(oldest.minute), int(oldest.second), int(where->hour), int(where->minute),
                int(where->second));
}

namespace {

// What a seek works from: the node, chain and length of the segment, the
// writer's when it is live.
struct seek_source {
    _stream_segment_index_node_dev_ node;
    uint32_t block_num;
    uint32_t* list;
    uint64_t stream_len;
};

}  // namespace

static seek_source source_of(_opened_stream_segment_* oss, _opened_stream_segment_* writer)
{
    seek_source src;
    if (writer == nullptr) {
        src.node = *oss->ssi();
        src.block_num = oss->reader()->iframe_block_num;
        src.list = oss->reader()->iframe_block_list;
        src.stream_len = src.node.len_in_bytes;
        return src;
    }
    writer_node_snapshot(writer, &src.node);
    src.block_num = writer->writer()->iframe_block_num;
    src.list = writer->writer()->iframe_block_list;
    src.stream_len = src.node.len_in_bytes - writer->writer()->delete_len;
    return src;
}

// The start of the segment: its first I-frame, at offset 0.
static int seek_to_start(CQzFileSystem& fs, _opened_stream_segment_* oss,
                         _opened_stream_segment_* writer, const seek_source& src,
                         _iframe_index_node_dev_* first)
{
    _read_stream_segment_* rss = oss->reader();
    rss->iframe_index = rss->latest_iframe_index = rss->first_iframe_index = src.node.start_iframe;
    if (fs.Find_next_block_for_reading(oss, writer, false) != 0) {
        QZLOG_AS("Seek_stream_segment", "find next block failed");
        return -1;
    }
    if (rss->iframe_list[0].id != IFRAME_INDEX_ID_IFRAME) {
        QZLOG_AS("Seek_stream_segment", "(iframe_index_num:%ld)(id:%02x)",
                 long(rss->iframe_list_num), unsigned(rss->iframe_list[0].id));
        return -1;
    }
    *first = rss->iframe_list[0];
    return 0;
}

// The I-frame that `policy` names for `where`; its offset in `offset`.
static int seek_to_time(CQzFileSystem& fs, _opened_stream_segment_* oss, seek_source& src,
                        _k4t_fs_date_time_* where, _fs_find_policy_ policy,
                        unsigned long long pts, _iframe_index_node_dev_* first, uint64_t* offset)
{
    const _stream_segment_index_node_dev_& node = src.node;
    if (qzfs_second_of_day(node.end_hour, node.end_minute, node.end_second) <
        qzfs_second_of_day(where->hour, where->minute, where->second)) {
        QZLOG_AS("Seek_stream_segment", "(end:%02d:%02d:%02d)(find:%02d:%02d:%02d)",
                 int(node.end_hour), int(node.end_minute), int(node.end_second), int(where->hour),
                 int(where->minute), int(where->second));
        return -1;
    }
    uint32_t found_index = 0;
    _iframe_index_node_dev_ found;
    if (fs.Find_iframe_index_fast(&src.node, src.block_num, src.list, node.start_iframe, where,
                                  src.stream_len, policy, first, &found_index, &found, offset,
                                  pts) != 0) {
        QZLOG_AS("Seek_stream_segment", "Find_iframe_index failed");
        return -1;
    }
    QZLOG_ABOVE(2, "(want:%02d:%02d:%02d)(find:%02d:%02d:%02d)(%lld)(%ld)(%ld)(%ld)(%ld)",
                int(where->hour), int(where->minute), int(where->second), int(found.hour),
                int(found.minute), int(found.second), (long long)*offset, long(found_index),
                long(found.block_num), long(found.block_offset), long(oss->stream_segment_index));
    _read_stream_segment_* rss = oss->reader();
    rss->iframe_index = rss->latest_iframe_index = rss->first_iframe_index = found_index;
    return 0;
}

int CQzFileSystem::Seek_stream_segment(_opened_stream_segment_* oss, _opened_stream_segment_* writer,
                                       _k4t_fs_date_time_* where, _fs_find_policy_ policy,
                                       unsigned long long pts)
{
    if (writer != nullptr && where != nullptr)
        flush_writer_for_seek(*this, writer, where);
    _read_stream_segment_* rss = oss->reader();
    const reader_snapshot before(rss);
    rss->need_seek = 1;
    rss->block_index = 0;
    rss->block_offset = uint32_t(m_manage.block_size);
    rss->iframe_list_pos = rss->iframe_list_num = 0;
    rss->need_first_iframe = 1;
    rss->cache_ptr = rss->cache_len = 0;
    rss->play_mode = 0;
    rss->index_head_reached = 0;

    seek_source src = source_of(oss, writer);
    int result = 0;
    if (writer != nullptr &&
        (!writer_start_confirmed(writer) || src.node.end_hour == QZFS_INVALID_END_HOUR)) {
        if (where != nullptr)
            QZLOG("WRITING STREAM SEGMENT NOT ENOUGH DATA");
        else
            QZLOG_ABOVE(1, "WRITING STREAM SEGMENT NOT ENOUGH DATA");
        result = -1;
    } else if (where != nullptr && src.node.end_hour == QZFS_INVALID_END_HOUR) {
        QZLOG("(find_end_time.hour == QZFS_INVALID_END_HOUR)");
        result = -1;
    }
    _iframe_index_node_dev_ first;
    uint64_t offset = 0;
    if (result == 0)
        result = where == nullptr
                     ? seek_to_start(*this, oss, writer, src, &first)
                     : seek_to_time(*this, oss, src, where, policy, pts, &first, &offset);
    if (result != 0) {
        before.restore(rss);
        return -1;
    }
    if (rss->first_iframe_block == 0) {
        rss->first_iframe_block = first.block_num;
        rss->first_iframe_block_offset = first.block_offset;
        rss->first_iframe_offset = first.stream_segment_offset;
    }
    rss->already_read_len = offset;
    return 0;
}
