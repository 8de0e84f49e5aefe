// Room for new recordings: a front trim of one segment at an I-frame, by
// bytes or up to a moment, or the removal of the segment whole. It works on
// a segment that is being recorded too: the trim then moves the writer's
// start, and the writer records on behind it. A segment being recorded is
// never removed whole.
//
// The work runs in stages, each a helper below:
//   gather  copy the root node, the segment node and both block lists, from
//           the open writer when the segment is being recorded;
//   verdict whole or trim, from the wanted size or moment;
//   scan    walk the I-frame log from the entry before start_iframe, one
//           unit at a time and only as far as the cut reaches: the first
//           I-frame, the new first I-frame, the data blocks on the way and
//           the block entries at both ends;
//   journal the old values, flushed before anything changes;
//   change  one write of the segment node;
//   free    the data blocks in front of the new first I-frame (all of them
//           for a whole delete), a shared one only losing a share;
//   close   the root summary after a whole delete, the journal cleared.
// The caller holds the disk lock, which keeps the writer, the readers and
// every allocation of this disk out while it runs.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_segment_change.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

namespace {

// Stream data a data block carries behind its 4096-byte head.
uint64_t block_payload(const CQzFileSystem& fs) { return fs.manage().block_size - QZFS_DATA_BLOCK_FIRST_FRAME; }

// An I-frame more than this far behind the one before it is older data.
const uint64_t kOffsetSlack = 0x10000;

struct front_trim : segment_copy {
    const _k4t_fs_date_time_* until = nullptr;  // by time when set, else by size
    uint64_t want = 0;

    // Verdict and scan. Places with node.id 0 are not found yet.
    bool whole = false;
    _iframe_index_place_ first_block;  // last block entry before start_iframe
    _iframe_index_place_ first;        // the I-frame at start_iframe
    _iframe_index_place_ cur;          // the new first I-frame of a trim
    _iframe_index_place_ last_block;   // last block entry at or after start_iframe
    std::vector<uint32_t> blocks;      // data blocks met, the first I-frame's first

    front_trim()
    {
        memset(&first_block, 0, sizeof(first_block));
        memset(&first, 0, sizeof(first));
        memset(&cur, 0, sizeof(cur));
        memset(&last_block, 0, sizeof(last_block));
    }
    uint64_t len() const { return segment_len_of(node); }
};

// ------------------------------------------------------------------ gather

// A segment being recorded: refused when less is left behind the writer's
// cut offset than is wanted.
int gather_from_writer(front_trim& job, _opened_stream_segment_* writer)
{
    QZLOG_ABOVE(0, "RECORDING stream segment");
    _stream_segment_index_node_dev_ now;
    writer_node_snapshot(writer, &now);
    const uint64_t live = segment_len_of(now), cut = writer->writer()->delete_len;
    if (live < cut || live - cut < job.want) {
        QZLOG_ABOVE(0, "recording stream segment is too short(%llu)(%llu)(%llu)",
                    (unsigned long long)live, (unsigned long long)cut,
                    (unsigned long long)job.want);
        return -1;
    }
    return qzfs_copy_live_segment(writer, &job);
}

// ----------------------------------------------------------------- verdict

// A time of the segment's day as a date-time.
_k4t_fs_date_time_ on_segment_day(const front_trim& job, uint8_t hour, uint8_t minute,
                                  uint8_t second)
{
    _k4t_fs_date_time_ at;
    memset(&at, 0, sizeof(at));
    at.year = job.root.year;
    at.month = job.root.month;
    at.day = job.root.day;
    at.hour = hour;
    at.minute = minute;
    at.second = second;
    return at;
}

// The first verdict of a closed segment: a trim leaves at least one block
// of stream, or ends a minute or more before the segment does.
bool whole_from_the_start(const CQzFileSystem& fs, const front_trim& job)
{
    if (job.until == nullptr) {
        if (job.want < job.len() && job.len() - job.want >= fs.manage().block_size)
            return false;
        QZLOG_ABOVE(0, "delete full stream segment(%lld)(%lld)", (long long)job.want,
                    (long long)job.len());
        return true;
    }
    _k4t_fs_date_time_ end =
        on_segment_day(job, job.node.end_hour, job.node.end_minute, job.node.end_second);
    _k4t_fs_date_time_ until = *job.until;
    if (Calculate_date_time_interval(&end, &until) >= 61)
        return false;
    QZLOG_ABOVE(0, "delete full stream segment(20%02d-%02d-%02d %02d:%02d:%02d)", end.year,
                end.month, end.day, end.hour, end.minute, end.second);
    return true;
}

// -------------------------------------------------------------------- scan

enum scan_step { SCAN_ON, SCAN_DONE, SCAN_BROKEN, SCAN_FAIL };

// An I-frame at or after start_iframe: the cut can move up to it.
scan_step scan_iframe(const CQzFileSystem& fs, front_trim& job, const _iframe_index_node_dev_& n,
                      uint32_t i)
{
    if (job.first.node.id == 0) {
        if (i != segment_start_iframe_of(job.node)) {
            QZLOG("START IFRAME FATAL(%ld)(%ld)", long(i), long(segment_start_iframe_of(job.node)));
            return SCAN_FAIL;
        }
        job.first = job.cur = qzfs_iframe_place(n, i);
        job.blocks.push_back(uint32_t(n.block_num));
    }
    if (n.stream_segment_offset < job.cur.node.stream_segment_offset) {
        QZLOG("FATAL offset(%lld)(%lld)", (long long)n.stream_segment_offset,
              (long long)job.cur.node.stream_segment_offset);
        if (job.cur.node.stream_segment_offset - n.stream_segment_offset > kOffsetSlack)
            return SCAN_BROKEN;
    }
    job.cur = qzfs_iframe_place(n, i);
    const uint64_t delta = n.stream_segment_offset - job.first.node.stream_segment_offset;
    const uint64_t reach = delta + fs.manage().block_size - n.block_offset;
    if (job.whole)
        return reach >= job.len() ? SCAN_DONE : SCAN_ON;
    if (reach >= job.len() && job.writer == nullptr) {
        job.whole = true;  // nothing would be left behind the last block
        return SCAN_DONE;
    }
    if (job.until != nullptr) {
        _k4t_fs_date_time_ at = on_segment_day(job, n.hour, n.minute, n.second);
        _k4t_fs_date_time_ until = *job.until;
        if (Calculate_date_time_interval(&at, &until) > 0) {
            QZLOG_ABOVE(0, "(cur_iframe:20%02d-%02d-%02d %02d:%02d:%02d)"
                        "(delete_end_dt:20%02d-%02d-%02d %02d:%02d:%02d)",
                        at.year, at.month, at.day, at.hour, at.minute, at.second, until.year,
                        until.month, until.day, until.hour, until.minute, until.second);
            return SCAN_DONE;
        }
        return SCAN_ON;
    }
    return delta >= job.want ? SCAN_DONE : SCAN_ON;
}

// One log entry, number i.
scan_step scan_entry(const CQzFileSystem& fs, front_trim& job, const _iframe_index_node_dev_& n,
                     uint32_t i, uint64_t& estimate)
{
    const uint32_t start = segment_start_iframe_of(job.node);
    const bool known = n.id == IFRAME_INDEX_ID_IFRAME || n.id == IFRAME_INDEX_ID_BLOCK;
    if (n.id == IFRAME_INDEX_ID_FREE_AND_END || (!known && i >= start)) {
        QZLOG_ABOVE(0, " IFRAME_INDEX_ID_FREE_AND_END FATAL(index:%ld)", long(i));
        return SCAN_BROKEN;
    }
    if (i < start) {
        if (n.id == IFRAME_INDEX_ID_BLOCK)
            job.first_block = qzfs_iframe_place(n, i);
        return SCAN_ON;
    }
    if (n.id == IFRAME_INDEX_ID_IFRAME)
        return scan_iframe(fs, job, n, i);
    if (job.first.node.id == 0) {
        QZLOG("FATAL(index:%ld)(%02x)(%ld)", long(i), n.id, long(start));
        return SCAN_BROKEN;
    }
    // job.blocks holds the first I-frame's block and those passed since.
    if (qzfs_block_past_segment(fs, job.first.node, uint32_t(job.blocks.size() - 1), job.len())) {
        if (job.writer == nullptr)
            job.whole = true;
        return SCAN_DONE;
    }
    job.blocks.push_back(uint32_t(n.block_num));
    job.last_block = qzfs_iframe_place(n, i);
    estimate += block_payload(fs);
    if (estimate < job.len())
        return SCAN_ON;
    if (job.writer == nullptr)
        job.whole = true;
    return SCAN_DONE;
}

// Walks the log from the entry before start_iframe, a unit at a time, only
// as far as the cut reaches. A walk that breaks off on a bad index takes a
// closed segment whole: it cannot be played past that point anyway.
int scan_log(CQzFileSystem& fs, front_trim& job)
{
    const uint32_t start = segment_start_iframe_of(job.node);
    iframe_log_reader log(fs, uint32_t(job.iframe_blocks.size()), job.iframe_blocks.data(),
                          fs.io_buffer(), QZFS_IO_UNIT);
    uint64_t estimate = 0;
    scan_step step = SCAN_ON;
    for (uint32_t i = start - 1; step == SCAN_ON; i++) {
        _iframe_index_node_dev_ n;
        const int got = log.fetch(i, &n);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("FATAL(%ld)(%ld)", log.chain_position(), long(job.iframe_blocks.size()));
            step = SCAN_BROKEN;
            break;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            step = SCAN_BROKEN;
            break;
        }
        if (fs.Check_iframe_index_dev_node(&n) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(index:%ld)", long(i));
            n.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        step = scan_entry(fs, job, n, i, estimate);
    }
    if (step == SCAN_FAIL)
        return -1;
    if (step == SCAN_BROKEN && job.writer == nullptr)
        job.whole = true;
    return 0;
}

// ------------------------------------------------------------------- judge

enum judgement { GO_ON, GO_ON_UNJOURNALLED, NOTHING_TO_DO, FAIL };

judgement judge_scan(CQzFileSystem& fs, front_trim& job)
{
    QZLOG_ABOVE(0, "delete_full_segment = %s", job.whole ? "K4T_FS_TRUE" : "K4T_FS_FALSE");
    if (job.first.node.id != IFRAME_INDEX_ID_IFRAME) {
        QZLOG("FATAL(first_iframe_iind.id != IFRAME_INDEX_ID_IFRAME)(%d)", job.first.node.id);
        if (job.writer != nullptr)
            return FAIL;
        job.whole = true;
        return GO_ON_UNJOURNALLED;
    }
    if (!job.whole &&
        job.cur.node.stream_segment_offset == job.first.node.stream_segment_offset) {
        QZLOG_ABOVE(0, "NOT DELETE(%lld)(%lld)", (long long)job.want, (long long)job.len());
        return NOTHING_TO_DO;
    }
    if (job.first_block.node.id != IFRAME_INDEX_ID_BLOCK) {
        _iframe_index_place_ entry;
        if (fs.Find_iframe_block_index(uint32_t(job.iframe_blocks.size()), job.iframe_blocks.data(),
                                       segment_start_iframe_of(job.node), &entry.index,
                                       &entry.node, nullptr, 0) == 0) {
            job.first_block = entry;
        } else {
            QZLOG("Find_iframe_block_index failed");
            if (job.writer != nullptr)
                return FAIL;
        }
    }
    return GO_ON;
}

// ----------------------------------------------------------------- journal

// ------------------------------------------------------------------ change

int write_node(CQzFileSystem& fs, const front_trim& job,
               const _stream_segment_index_node_dev_& node)
{
    return fs.Modify_stream_segment(job.root_index, uint32_t(job.ssi_blocks.size()),
                                    job.ssi_blocks.data(), job.segment,
                                    job.writer != nullptr ? 1 : 0, &node);
}

// Whole: the node's id goes to 0, and the root's search for a free node
// starts no later than here.
int remove_node(CQzFileSystem& fs, const front_trim& job)
{
    _stream_segment_index_node_dev_ node = job.node;
    node.id = FREE_STREAM_SEGMENT_INDEX;
    if (write_node(fs, job, node) != 0) {
        QZLOG("Modify stream segment failed");
        return -1;
    }
    fs.lower_free_segment_cursor(job.root_index, job.segment);
    return 0;
}

// Trim: the node starts at the new first I-frame, with the owner stamp of
// its block, which moves the segment back in the overwrite order to the age
// of what is left. A writer's live node follows; its length counts from the
// segment's birth, so the cut offset grows instead.
int move_node_start(CQzFileSystem& fs, front_trim& job, uint64_t cut, unsigned long* new_stamp)
{
    _stream_segment_index_node_dev_ node = job.node;
    _qzfs_block_info_ info;
    if (fs.read_data_block_record(job.cur.node.block_num, &info) == 0 &&
        qzfs_block_of_day(info, job.root)) {
        memcpy(&node.owner_stamp, &info.owner_stamp, sizeof(node.owner_stamp));
        if (new_stamp != nullptr)
            *new_stamp = info.owner_stamp;
    }
    set_segment_len(node, job.len() - cut);
    set_segment_start_iframe(node, job.cur.index);
    node.start_hour = job.cur.node.hour;
    node.start_minute = job.cur.node.minute;
    node.start_second = job.cur.node.second;
    QZLOG_ABOVE(0, "reserve ifame info(%ld)(%02x)(%02d:%02d:%02d)(%ld, %ld)(%lld)(stamp:%lu)",
                long(job.cur.index), job.cur.node.id, node.start_hour, node.start_minute,
                node.start_second, long(job.cur.node.block_num), long(job.cur.node.block_offset),
                (long long)cut, (unsigned long)segment_owner_stamp_of(node));
    if (write_node(fs, job, node) != 0) {
        QZLOG("Modify stream segment failed(%ld)(%ld)", long(job.root_index), long(job.segment));
        return -1;
    }
    if (job.writer != nullptr)
        qzfs_move_live_head(job.writer, node, cut);
    return 0;
}

// -------------------------------------------------------------------- free

// The blocks in front of the new first I-frame, or all of them for a whole
// delete; the first one (and for a whole delete the last one) only loses a
// share while a neighbour still uses it.
void free_blocks(CQzFileSystem& fs, front_trim& job)
{
    for (uint32_t block : job.blocks) {
        if (!job.whole && block == job.cur.node.block_num)
            return;
        if (qzfs_keep_shared_block(fs, job, block, job.first_block))
            continue;
        if (job.whole && qzfs_keep_shared_block(fs, job, block, job.last_block))
            continue;
        fs.free_segment_data_block(block, job.root);
    }
}

// Stage order of one call after the scan: journal, node, blocks, root,
// journal cleared. Returns the call's result.
int apply(CQzFileSystem& fs, front_trim& job, bool journalled, unsigned long long* delete_size,
          unsigned char* whole, _k4t_fs_time_* new_start_time, unsigned long* new_stamp,
          unsigned char* delete_root_flag)
{
    if (journalled)
        qzfs_arm_delete_journal(fs, job, qzfs_delete_record(job, job.first_block, job.last_block));
    int result = 0;
    if (job.whole) {
        *delete_size = job.len();
        *whole = 1;
        if (remove_node(fs, job) != 0)
            return -1;  // the journal stays armed: the next mount puts the node back
    } else {
        const uint64_t cut =
            job.cur.node.stream_segment_offset - job.first.node.stream_segment_offset;
        *delete_size = cut;
        *whole = 0;
        if (move_node_start(fs, job, cut, new_stamp) != 0) {
            fs.Register_qzfs_action(fs.journal_block(), QZFS_ACTION_NONE, nullptr);
            return -1;
        }
        if (new_start_time != nullptr)
            *new_start_time = {job.cur.node.hour, job.cur.node.minute, job.cur.node.second};
    }
    free_blocks(fs, job);
    if (job.whole) {
        int deleted = 0;
        result = fs.check_and_modify_root_info(job.root_index, &deleted);
        if (deleted != 0 && delete_root_flag != nullptr)
            *delete_root_flag = 1;
    }
    fs.Register_qzfs_action(fs.journal_block(), QZFS_ACTION_NONE, nullptr);
    return result;
}

} // namespace

int CQzFileSystem::Delete_stream_segment(unsigned long root_index,
                                         unsigned long stream_segment_index,
                                         _k4t_fs_date_time_* end_date_time,
                                         unsigned long long want_delete_size,
                                         unsigned long long* delete_size, unsigned char* whole,
                                         _k4t_fs_time_* new_start_time,
                                         unsigned long* new_owner_stamp,
                                         unsigned char* delete_root_flag)
{
    front_trim job;
    job.root_index = root_index;
    job.segment = stream_segment_index;
    job.until = end_date_time;
    job.want = end_date_time != nullptr ? 0 : want_delete_size;
    unsigned long long taken = 0;
    unsigned char went_whole = 0;
    if (delete_size == nullptr)
        delete_size = &taken;
    if (whole == nullptr)
        whole = &went_whole;
    *delete_size = 0;
    if (delete_root_flag != nullptr)
        *delete_root_flag = 0;
    QZLOG_ABOVE(0, "(hdd_id:%d)(root_index:%ld)(stream_segment_index:%ld)(want_delete_size:%lld)"
                "(free_block_num:%ld)",
                int(m_hdd_id), long(root_index), long(stream_segment_index),
                (long long)want_delete_size, long(m_manage.free_block));

    _opened_stream_segment_* oss = qzfs_segment_writer(*this, root_index, stream_segment_index);
    if (oss != nullptr) {
        if (gather_from_writer(job, oss) != 0)
            return -1;
    } else {
        // An I-frame index that cannot be read does not stop the delete: the
        // segment goes whole, without its data blocks.
        const int copied = qzfs_copy_closed_segment(*this, &job, false);
        if (copied < 0)
            return -1;
        if (copied == 1) {
            job.whole = true;
            return apply(*this, job, false, delete_size, whole, new_start_time, new_owner_stamp,
                         delete_root_flag);
        }
        job.whole = whole_from_the_start(*this, job);
    }

    const _stream_segment_index_node_dev_& n = job.node;
    QZLOG_ABOVE(0, "delete stream segment chn:%d,stream type:%d,%d-%d-%d %d:%d:%d-%d:%d:%d,stamp:%lu",
                job.root.channel, job.root.stream_type, job.root.year, job.root.month,
                job.root.day, n.start_hour, n.start_minute, n.start_second, n.end_hour,
                n.end_minute, n.end_second, (unsigned long)segment_owner_stamp_of(n));
    if (new_start_time != nullptr)
        *new_start_time = {n.start_hour, n.start_minute, n.start_second};
    if (scan_log(*this, job) != 0)
        return -1;
    switch (judge_scan(*this, job)) {
    case FAIL:
        return -1;
    case NOTHING_TO_DO:
        return 0;
    case GO_ON_UNJOURNALLED:
        return apply(*this, job, false, delete_size, whole, new_start_time, new_owner_stamp,
                     delete_root_flag);
    case GO_ON:
        break;
    }
    return apply(*this, job, true, delete_size, whole, new_start_time, new_owner_stamp,
                 delete_root_flag);
}
