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
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

namespace {

// The first frame byte of a data block: an I-frame at this offset is the
// block's first data, so nothing in front of it lies in the block.
const uint32_t kFirstDataOffset = 0x1000;

// Everything one call works on. Places with node.id 0 are not found yet.
struct segment_delete {
    unsigned long root_index = 0;
    unsigned long segment = 0;
    _k4t_fs_time_ time = {0, 0, 0};
    uint8_t backwards = 0;

    // Gather: the open writer (null when the segment is not being recorded),
    // copies of both nodes, the length less the writer's cut offset, and the
    // chains of the root's segment index and I-frame index.
    _opened_stream_segment_* writer = nullptr;
    _root_index_node_dev_ root;
    _stream_segment_index_node_dev_ node;
    std::vector<uint32_t> ssi_blocks;
    std::vector<uint32_t> iframe_blocks;

    // Scan.
    _iframe_index_place_ first_block;  // block entry of the first I-frame
    _iframe_index_place_ first;        // the I-frame at start_iframe
    _iframe_index_place_ cut;          // C: the first I-frame that goes (tail cut)
    _iframe_index_place_ end;          // E: the first I-frame that stays (head cut)
    std::vector<uint32_t> blocks;      // data blocks to give back, in log order
    _iframe_index_place_ last_block;   // last block entry at or after start_iframe
    bool whole = false;

    segment_delete()
    {
        memset(&root, 0, sizeof(root));
        memset(&node, 0, sizeof(node));
        memset(&first_block, 0, sizeof(first_block));
        memset(&first, 0, sizeof(first));
        memset(&cut, 0, sizeof(cut));
        memset(&end, 0, sizeof(end));
        memset(&last_block, 0, sizeof(last_block));
    }
};

_k4t_fs_time_ time_of(const _iframe_index_node_dev_& node)
{
    _k4t_fs_time_ t = {node.hour, node.minute, node.second};
    return t;
}

_iframe_index_place_ place(const _iframe_index_node_dev_& node, uint32_t index)
{
    _iframe_index_place_ p;
    p.node = node;
    p.index = index;
    return p;
}

std::vector<uint32_t> take_chain(uint32_t* list, uint32_t num)
{
    std::vector<uint32_t> chain;
    if (list != nullptr)
        chain.assign(list, list + num);
    delete[] list;
    return chain;
}

// ------------------------------------------------------------------ gather

// A segment being recorded: its truth is the writer's live node, less the
// bytes already cut from its head, and the writer's own block lists.
int gather_from_writer(segment_delete& job)
{
    if (job.backwards == 1) {
        QZLOG("this is recording stream segment,can not delete backwards");
        return -1;
    }
    const _write_stream_segment_* wss = job.writer->writer();
    memcpy(&job.root, job.writer->root_node, sizeof(job.root));
    writer_node_snapshot(job.writer, &job.node);  // the writer grows its length meanwhile
    const uint64_t live = segment_len_of(job.node);
    set_segment_len(job.node, live >= wss->delete_len ? live - wss->delete_len : 0);
    if (wss->confirm_start_iframe == K4T_FS_FALSE || segment_len_of(job.node) == 0 ||
        segment_start_iframe_of(job.node) == 0) {
        QZLOG("FATAL((pWss->confirm_start_iframe == K4T_FS_FALSE) || (ssind.len_in_bytes == 0))");
        return -1;
    }
    job.ssi_blocks.assign(wss->stream_segment_index_block_list,
                          wss->stream_segment_index_block_list + wss->stream_segment_index_block_num);
    job.iframe_blocks.assign(wss->iframe_block_list,
                             wss->iframe_block_list + wss->iframe_block_num);
    return 0;
}

// A closed segment: root node, segment chain, segment node and I-frame
// chain, all from the index.
int gather_from_index(CQzFileSystem& fs, segment_delete& job)
{
    _root_index_node_mem_ rinm;
    memset(&rinm, 0, sizeof(rinm));
    if (fs.Get_root_index_mem_node(job.root_index, &rinm) != 0 || !IS_NORMAL_ROOT_INDEX(rinm.id)) {
        QZLOG("(IS_NORMAL_ROOT_INDEX(rinm.id) == 0)(root_index:%ld)(stream_segment_index:%ld)",
              long(job.root_index), long(job.segment));
        return -1;
    }
    uint32_t ssi_num = 0, iframe_head = 0;
    uint32_t* ssi_list = nullptr;
    bool read = fs.Get_root_index_dev_node(job.root_index, &job.root) == 0 &&
                fs.Get_stream_segment_index_block_list(job.root_index, &ssi_num, &ssi_list,
                                                       &iframe_head) == 0;
    job.ssi_blocks = take_chain(ssi_list, ssi_num);
    read = read && fs.Get_stream_segment_index_dev_node(job.root_index, ssi_num,
                                                        job.ssi_blocks.data(), job.segment,
                                                        &job.node) == 0;
    if (!read || segment_start_iframe_of(job.node) == 0) {
        QZLOG("Get_stream_segment_index_dev_node failed(%ld)(%ld)(%lu)", long(job.root_index),
              long(job.segment), (unsigned long)segment_start_iframe_of(job.node));
        return -1;
    }
    if (job.node.id != NORMAL_STREAM_SEGMENT_INDEX &&
        job.node.id != PRE_RECORD_STREAM_SEGMENT_INDEX) {
        QZLOG("this segment is free(id:%d)", job.node.id);
        return -1;
    }
    uint32_t iframe_num = 0;
    uint32_t* iframe_list = nullptr;
    if (fs.Read_iframe_index_block_list(iframe_head, &iframe_num, &iframe_list) != 0) {
        delete[] iframe_list;
        QZLOG(" Read_iframe_index_block_list failed(start:%ld)", long(iframe_head));
        return -1;
    }
    job.iframe_blocks = take_chain(iframe_list, iframe_num);
    return 0;
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
        job.first = place(n, i);
    } else if (n.stream_segment_offset < job.first.node.stream_segment_offset &&
               n.block_num != job.first.node.block_num) {
        return SCAN_STOP;  // the log has run into older data
    }
    const _k4t_fs_time_ at = time_of(n);
    const bool reached = Compare_time(&job.time, &at) != 1;  // the moment is not after it
    if (job.cut.node.id == 0 && (job.backwards == 0 || reached)) {
        // A head cut takes the first I-frame as C at once; the list then
        // collects every block up to E.
        job.cut = place(n, i);
        job.blocks.assign(1, uint32_t(n.block_num));
    }
    if (job.backwards == 0 && reached) {
        job.end = place(n, i);
        return SCAN_STOP;
    }
    const uint64_t reach = n.stream_segment_offset - job.first.node.stream_segment_offset +
                           fs.manage().block_size - n.block_offset;
    if (reach >= segment_len_of(job.node)) {
        QZLOG("this is last block!");
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
            job.first_block = place(n, i);
        return SCAN_ON;
    }
    if (n.id == IFRAME_INDEX_ID_BLOCK) {
        if (job.first.node.id == 0) {
            QZLOG("can not find frist iframe index");
            return SCAN_FAIL;
        }
        job.blocks.push_back(uint32_t(n.block_num));
        job.last_block = place(n, i);
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

// ------------------------------------------------------------------ journal

// The old values, for the journal. Its range of block entries runs from the
// first block entry to the last one the scan met: a roll-back finds there
// every data block this delete may free, and both share counts it may lower.
_action_delete_ action_record(const segment_delete& job)
{
    _action_delete_ r;
    memset(&r, 0, sizeof(r));
    r.root_index = uint32_t(job.root_index);
    r.stream_segment_index = uint32_t(job.segment);
    r.start_iframe = segment_start_iframe_of(job.node);
    r.len_in_bytes = segment_len_of(job.node);
    r.root_index_id = job.root.id;
    r.stream_segment_index_id = job.node.id;
    r.start_hour = job.node.start_hour;
    r.start_minute = job.node.start_minute;
    r.start_second = job.node.start_second;
    r.first_block_iframe_index = job.first_block.index;
    r.first_block_share_count = job.first_block.node.pts_high;
    r.last_block_iframe_index = job.last_block.index;
    r.last_block_share_count = job.last_block.node.pts_high;
    return r;
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
    QZLOG("new %d:%d:%d-%d:%d:%d len:%llu owner_stamp:%lu", node.start_hour, node.start_minute,
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
    if (job.writer != nullptr) {
        // The writer's thread reads and grows the live node under its lock.
        QzfsScopedLock writer_lock(job.writer->writer()->lock);
        _stream_segment_index_node_dev_* live = job.writer->ssi();
        memcpy(&live->start_iframe, &node.start_iframe, sizeof(node.start_iframe));
        live->start_hour = node.start_hour;
        live->start_minute = node.start_minute;
        live->start_second = node.start_second;
        memcpy(&live->owner_stamp, &node.owner_stamp, sizeof(node.owner_stamp));
        job.writer->writer()->delete_len +=
            job.end.node.stream_segment_offset - job.cut.node.stream_segment_offset;
    }
    return 0;
}

// --------------------------------------------------------------------- free

// A block that another segment still shares (its block entry counts more
// than one user) stays; its count goes down by one. True when it stays.
bool keep_shared_block(CQzFileSystem& fs, segment_delete& job, uint32_t block,
                       _iframe_index_place_& entry)
{
    if (entry.node.id != IFRAME_INDEX_ID_BLOCK || block != entry.node.block_num ||
        entry.node.pts_high < 2)
        return false;
    entry.node.pts_high--;
    fs.Write_iframe_index(uint32_t(job.iframe_blocks.size()), job.iframe_blocks.data(),
                          entry.index, &entry.node);
    return true;
}

// A head cut leaves E's block, and the first block while another segment
// still shares it.
void free_head_blocks(CQzFileSystem& fs, segment_delete& job)
{
    for (uint32_t block : job.blocks) {
        if (block == job.end.node.block_num)
            return;
        if (!keep_shared_block(fs, job, block, job.first_block))
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
            job.cut.node.block_offset != kFirstDataOffset)
            continue;
        if (job.whole && (keep_shared_block(fs, job, block, job.first_block) ||
                          keep_shared_block(fs, job, block, job.last_block)))
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

    _k4t_stream_segment_id_ id;
    id.hdd_id = m_hdd_id;
    id.root_index = uint32_t(root_index);
    id.stream_segment_index = uint32_t(stream_segment_index);
    _opened_stream_segment_* oss = nullptr;
    if (find_opening_stream_segment_by_id(&id, &oss, 2) >= 0 && oss != nullptr) {
        job.writer = oss;
        if (gather_from_writer(job) != 0)
            return -1;
    } else if (gather_from_index(*this, job) != 0) {
        return -1;
    }
    QZLOG("delete flag:%d,time:%d:%d:%d", delete_backwards, time.hour, time.minute, time.second);
    if (nothing_to_cut(job))
        return 0;
    if (scan_log(*this, job, m_file_system_io_buffer, m_file_system_io_buffer_len) != 0 ||
        judge_scan(*this, job) != 0)
        return -1;

    const unsigned long journal = journal_block();
    uint8_t record[QZFS_ACTION_DELETE_LEN];
    qzfs_action_delete_to_bytes(action_record(job), record);
    QZLOG("Register_qzfs_action(%02x)(%02x)(%ld)(%lld)", job.root.id, job.node.id,
          long(segment_start_iframe_of(job.node)), (long long)segment_len_of(job.node));
    Register_qzfs_action(journal, QZFS_ACTION_DELETE, record);

    if (change_node(*this, job) != 0) {
        // A failed whole delete keeps the journal armed: the next mount puts
        // the node back as it was.
        if (!job.whole)
            Register_qzfs_action(journal, QZFS_ACTION_NONE, nullptr);
        return -1;
    }
    if (job.whole)
        lower_free_segment_cursor(root_index, stream_segment_index);
    free_blocks(*this, job);
    const int result = job.whole ? check_and_modify_root_info(root_index, nullptr) : 0;
    Register_qzfs_action(journal, QZFS_ACTION_NONE, nullptr);
    return result;
}
