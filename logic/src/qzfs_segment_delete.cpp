// Deletion of a stream segment by time. With delete_backwards 1 everything
// from the given moment on goes and the head stays; with 0 everything before
// it goes and the tail stays. Giving the segment's start time with
// delete_backwards 1 removes the segment whole: that is how every other path
// (delete by id or by parameters, an unconfirmed pre-recording, the pre-record
// sweep at mount) gets rid of a segment.
//
// The work runs in four stages, each a helper below:
//   gather  copy the root node, the segment node and both block lists, from
//           the open writer when the segment is being recorded;
//   scan    walk the I-frame log from the entry before start_iframe and find
//           the first I-frame, the cut I-frame C, the end I-frame E (head
//           cuts only) and the data blocks that go;
//   change  arm the journal with the old values, then write the node once;
//   free    give the data blocks back, then clear the journal.
// A cut is only ever made at an I-frame, so that a segment always starts at
// one. The caller holds the disk lock.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_segment_change.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

namespace {


// Everything one call works on. Places with node.id 0 are not found yet.
struct segment_delete : segment_copy {
    _k4t_fs_time_ time = {0, 0, 0};
    uint8_t backwards = 0;

    // Scan.
    _iframe_index_place_ first_block;  // block entry of the first I-frame
    _iframe_index_place_ first;        // the I-frame at start_iframe
    _iframe_index_place_ cut;          // C: the first I-frame that goes (tail cut)
    _iframe_index_place_ end;          // E: the first I-frame that stays (head cut)
    std::vector<uint32_t> blocks;      // data blocks to give back, in log order
    _iframe_index_place_ last_block;   // last block entry at or after start_iframe
    uint32_t blocks_passed = 0;        // block entries met behind the first I-frame
    bool whole = false;

    segment_delete()
    {
        memset(&first_block, 0, sizeof(first_block));
        memset(&first, 0, sizeof(first));
        memset(&cut, 0, sizeof(cut));
        memset(&end, 0, sizeof(end));
        memset(&last_block, 0, sizeof(last_block));
    }
};

// ------------------------------------------------------------------ gather

// A segment being recorded loses only its head.
int gather_from_writer(segment_delete& job, _opened_stream_segment_* writer)
{
    if (job.backwards == 1) {
        QZLOG("this is recording stream segment,can not delete backwards");
        return -1;
    }
    return qzfs_copy_live_segment(writer, &job);
}

// True when the moment lies behind the end (tail cut) or before the start
// (head cut): nothing to do. A segment whose start and end are the same
// second always goes on to the scan.
bool nothing_to_cut(const segment_delete& job)
{
    const _stream_segment_index_node_dev_& n = job.node;
    const _k4t_fs_time_ start = {n.start_hour, n.start_minute, n.start_second};
    const _k4t_fs_time_ end = {n.end_hour, n.end_minute, n.end_second};
    if (Compare_time(&start, &end) == 0)
        return false;
    if (job.backwards == 1 && Compare_time(&job.time, &end) != 2) {
        QZLOG("flag:%d,delete time:%d:%d:%d end:%d:%d:%d", job.backwards, job.time.hour,
              job.time.minute, job.time.second, end.hour, end.minute, end.second);
        return true;
    }
    if (job.backwards == 0 && Compare_time(&job.time, &start) != 1) {
        QZLOG("flag:%d,delete time:%d:%d:%d start:%d:%d:%d", job.backwards, job.time.hour,
              job.time.minute, job.time.second, start.hour, start.minute, start.second);
        return true;
    }
    return false;
}

// -------------------------------------------------------------------- scan

enum scan_step { SCAN_ON, SCAN_STOP, SCAN_FAIL };

// One I-frame at or after start_iframe.
scan_step scan_iframe(CQzFileSystem& fs, segment_delete& job, const _iframe_index_node_dev_& n,
                      uint32_t i, uint32_t& last_block)
{
    const uint32_t start = segment_start_iframe_of(job.node);
    if (job.first.node.id == 0) {
        if (i != start) {
            QZLOG("start iframe is not iframe index(iframe_index:%lu,start:%lu)",
                  (unsigned long)i, (unsigned long)start);
            return SCAN_FAIL;
        }
        job.first = qzfs_iframe_place(n, i);
    } else if (n.stream_segment_offset < job.first.node.stream_segment_offset &&
               n.block_num != job.first.node.block_num) {
        return SCAN_STOP;  // the log has run into older data
    }
    const _k4t_fs_time_ at = qzfs_iframe_time(n);
    const bool reached = Compare_time(&job.time, &at) != 1;  // the moment is not after it
    if (job.cut.node.id == 0 && (job.backwards == 0 || reached)) {
        // A head cut takes the first I-frame as C at once; the list then
        // collects every block up to E.
        job.cut = qzfs_iframe_place(n, i);
        job.blocks.assign(1, uint32_t(n.block_num));
    }
    if (job.backwards == 0 && reached) {
        job.end = qzfs_iframe_place(n, i);
        return SCAN_STOP;
    }
    const uint64_t reach = n.stream_segment_offset - job.first.node.stream_segment_offset +
                           fs.manage().block_size - n.block_offset;
    if (reach >= segment_len_of(job.node)) {
        QZLOG_ABOVE(0, "this is last block!");
        last_block = n.block_num;
    }
    return SCAN_ON;
}

// One log entry; `last_block` is L, 0 while unset.
scan_step scan_entry(CQzFileSystem& fs, segment_delete& job, const _iframe_index_node_dev_& n,
                     uint32_t i, uint32_t& last_block)
{
    if (last_block != 0 && n.block_num != last_block)
        return SCAN_STOP;
    if (i < segment_start_iframe_of(job.node)) {
        if (n.id == IFRAME_INDEX_ID_BLOCK)
            job.first_block = qzfs_iframe_place(n, i);
        return SCAN_ON;
    }
    if (n.id == IFRAME_INDEX_ID_BLOCK) {
        if (job.first.node.id == 0) {
            QZLOG("can not find frist iframe index");
            return SCAN_FAIL;
        }
        if (qzfs_block_past_segment(fs, job.first.node, job.blocks_passed, segment_len_of(job.node)))
            return SCAN_STOP;
        job.blocks.push_back(uint32_t(n.block_num));
        job.last_block = qzfs_iframe_place(n, i);
        job.blocks_passed++;
        return SCAN_ON;
    }
    if (n.id != IFRAME_INDEX_ID_IFRAME) {
        QZLOG(" IFRAME_INDEX_ID_FREE_AND_END FATAL(index:%ld)", long(i));
        return SCAN_STOP;
    }
    return scan_iframe(fs, job, n, i, last_block);
}

// Walks the log from the entry before start_iframe, a unit at a time.
int scan_log(CQzFileSystem& fs, segment_delete& job, unsigned char* buffer,
             unsigned long buffer_len)
{
    const uint32_t start = segment_start_iframe_of(job.node);
    iframe_log_reader log(fs, uint32_t(job.iframe_blocks.size()), job.iframe_blocks.data(), buffer,
                          buffer_len);
    uint32_t last_block = 0;
    for (uint32_t i = start - 1;; i++) {
        _iframe_index_node_dev_ n;
        const int got = log.fetch(i, &n);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("FATAL(need read:%lu)(iframe total:%lu)(start iframe:%lu)",
                  (unsigned long)log.chain_position(), (unsigned long)job.iframe_blocks.size(),
                  (unsigned long)start);
            return -1;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            return 0;
        }
        if (fs.Check_iframe_index_dev_node(&n) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(index:%ld)", long(i));
            n.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        const scan_step step = scan_entry(fs, job, n, i, last_block);
        if (step != SCAN_ON)
            return step == SCAN_STOP ? 0 : -1;
    }
}

// What the scan must have found before anything is changed; sets the
// verdict. A head cut that meets no E takes the whole segment.
int judge_scan(CQzFileSystem& fs, segment_delete& job)
{
    if (job.first_block.node.id != IFRAME_INDEX_ID_BLOCK) {
        _iframe_index_place_ entry;
        if (fs.Find_iframe_block_index(uint32_t(job.iframe_blocks.size()),
                                       job.iframe_blocks.data(), segment_start_iframe_of(job.node),
                                       &entry.index, &entry.node, nullptr, 0) != 0) {
            QZLOG("Find_iframe_block_index failed");
            return -1;
        }
        job.first_block = entry;
    }
    if (job.blocks.empty() || job.cut.node.id == 0) {
        QZLOG("delete list is null(size:%d) or find start iframe failed(id:%d)",
              int(job.blocks.size()), job.cut.node.id);
        return -1;
    }
    if (job.writer != nullptr && job.end.node.id == 0) {
        QZLOG("recording,find end iframe failed");
        return -1;
    }
    job.whole = job.backwards == 1 ? job.cut.index == job.first.index : job.end.node.id == 0;
    return 0;
}

// ------------------------------------------------------------------- change

// The new node: id 0 for a whole delete, a shorter tail or a later head for
// a cut. Written once; a segment being recorded is written as a recording
// node (end 255, length 0) and its writer's live node follows the new head.
int change_node(CQzFileSystem& fs, segment_delete& job)
{
    _stream_segment_index_node_dev_ node = job.node;
    const uint64_t first_off = job.first.node.stream_segment_offset;
    if (job.whole) {
        node.id = FREE_STREAM_SEGMENT_INDEX;
    } else if (job.backwards == 1) {
        set_segment_len(node, job.cut.node.stream_segment_offset - first_off);
        node.end_hour = job.cut.node.hour;
        node.end_minute = job.cut.node.minute;
        node.end_second = job.cut.node.second;
    } else {
        set_segment_len(node, segment_len_of(node) + first_off - job.end.node.stream_segment_offset);
        memcpy(&node.start_iframe, &job.end.index, sizeof(job.end.index));
        node.start_hour = job.end.node.hour;
        node.start_minute = job.end.node.minute;
        node.start_second = job.end.node.second;
        _qzfs_block_info_ info;
        if (fs.read_data_block_record(job.end.node.block_num, &info) == 0 &&
            qzfs_block_of_day(info, job.root))
            memcpy(&node.owner_stamp, &info.owner_stamp, sizeof(info.owner_stamp));
    }
    QZLOG_ABOVE(0, "new %d:%d:%d-%d:%d:%d len:%llu owner_stamp:%lu", node.start_hour, node.start_minute,
          node.start_second, node.end_hour, node.end_minute, node.end_second,
          (unsigned long long)segment_len_of(node), (unsigned long)segment_owner_stamp_of(node));
    const int mode = job.writer != nullptr ? 1 : 0;
    if (fs.Modify_stream_segment(job.root_index, uint32_t(job.ssi_blocks.size()),
                                 job.ssi_blocks.data(), job.segment, mode, &node) != 0) {
        if (job.whole)
            QZLOG("Modify stream segment failed");
        else
            QZLOG("Modify stream segment failed(%ld)(%ld)", long(job.root_index),
                  long(job.segment));
        return -1;
    }
    if (job.writer != nullptr)
        qzfs_move_live_head(job.writer, node,
                            job.end.node.stream_segment_offset - job.cut.node.stream_segment_offset);
    return 0;
}

// --------------------------------------------------------------------- free

// A head cut leaves E's block, and the first block while another segment
// still shares it.
void free_head_blocks(CQzFileSystem& fs, segment_delete& job)
{
    for (uint32_t block : job.blocks) {
        if (block == job.end.node.block_num)
            return;
        if (!qzfs_keep_shared_block(fs, job, block, job.first_block))
            fs.free_segment_data_block(block, job.root);
    }
}

void free_blocks(CQzFileSystem& fs, segment_delete& job)
{
    if (!job.whole && job.backwards == 0) {
        free_head_blocks(fs, job);
        return;
    }
    for (uint32_t block : job.blocks) {
        // A tail cut keeps C's block for the head, unless C is the block's
        // very first data. A whole delete gives every block back but those
        // its neighbours still share: the first with the segment before it,
        // the last with the one after it.
        if (!job.whole && block == job.cut.node.block_num &&
            job.cut.node.block_offset != QZFS_DATA_BLOCK_FIRST_FRAME)
            continue;
        if (job.whole && (qzfs_keep_shared_block(fs, job, block, job.first_block) ||
                          qzfs_keep_shared_block(fs, job, block, job.last_block)))
            continue;
        fs.free_segment_data_block(block, job.root);
    }
}

} // namespace

// ------------------------------------------------- shared with the front trim

int CQzFileSystem::read_data_block_record(unsigned long block, _qzfs_block_info_* info)
{
    if (m_manage.key_block != 0 && read_block_info_from_key_block(m_manage.key_block, block, info) == 0 &&
        qzfs_block_info_is_sound(info))
        return 0;
    if (m_manage.bak_key_block != 0 &&
        read_block_info_from_key_block(m_manage.bak_key_block, block, info) == 0 &&
        qzfs_block_info_is_sound(info))
        return 0;
    if (read_block_info_from_block(block, info) == 0 && qzfs_block_info_is_sound(info))
        return 0;
    return -1;
}

void CQzFileSystem::free_segment_data_block(unsigned long block, const _root_index_node_dev_& root)
{
    _qzfs_block_info_ info;
    if (read_data_block_record(block, &info) != 0)
        return;
    if (!qzfs_block_of_day(info, root)) {
        QZLOG("block %lu error(type:%d,date:%d-%d-%d[%d-%d-%d])", block, info.block_type,
              info.year, info.month, info.day, root.year, root.month, root.day);
        return;
    }
    Free_one_block(block, 0);
    QZLOG_ABOVE(0, "free block:%lu,stamp:%lu", block, (unsigned long)info.owner_stamp);
}

int CQzFileSystem::delete_stream_segment_by_time(unsigned long root_index,
                                                 unsigned long stream_segment_index,
                                                 _k4t_fs_time_ time,
                                                 unsigned char delete_backwards)
{
    segment_delete job;
    job.root_index = root_index;
    job.segment = stream_segment_index;
    job.time = time;
    job.backwards = delete_backwards;

    _opened_stream_segment_* oss = qzfs_segment_writer(*this, root_index, stream_segment_index);
    if (oss != nullptr) {
        if (gather_from_writer(job, oss) != 0)
            return -1;
    } else if (qzfs_copy_closed_segment(*this, &job, true) != 0) {
        return -1;
    }
    QZLOG_ABOVE(0, "delete flag:%d,time:%d:%d:%d", delete_backwards, time.hour, time.minute, time.second);
    if (nothing_to_cut(job))
        return 0;
    if (scan_log(*this, job, m_file_system_io_buffer, m_file_system_io_buffer_len) != 0 ||
        judge_scan(*this, job) != 0)
        return -1;

    qzfs_arm_delete_journal(*this, job, qzfs_delete_record(job, job.first_block, job.last_block));

    if (change_node(*this, job) != 0) {
        // A failed whole delete keeps the journal armed: the next mount puts
        // the node back as it was.
        if (!job.whole)
            Register_qzfs_action(journal_block(), QZFS_ACTION_NONE, nullptr);
        return -1;
    }
    if (job.whole)
        lower_free_segment_cursor(root_index, stream_segment_index);
    free_blocks(*this, job);
    const int result = job.whole ? check_and_modify_root_info(root_index, nullptr) : 0;
    Register_qzfs_action(journal_block(), QZFS_ACTION_NONE, nullptr);
    return result;
}
