// Mount-time repair after a power cut, and the key info recoveries.
//
// Power_down_recovery runs at every mount, before the disk is in service:
//   1. the root index chain is read afresh and every block of it that the
//      bitmap calls free is registered again;
//   2. the action journal in the first root index block is checked; a
//      delete or split it names as in flight is rolled back and the journal
//      cleared (qzfs_action_journal.cpp);
//   3. every root and its segments are walked: each segment left being
//      written is closed at its true end (or deleted) by the stream end
//      repair, and each root's summary (record type bits, lock, only
//      pre-record) is put right; a root left with nothing is deleted;
//   4. the disk's range of recorded days is put right, and the
//      pre-recordings that the application never confirmed are removed.
//
// Other mount repairs live elsewhere: the backup key table's in
// qzfs_key_info_block.cpp, the repair of a damaged key table in
// qzfs_key_info_recovery.cpp, the root index check in
// qzfs_root_index_check.cpp.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

namespace {

// What the walk of one root's segments finds.
struct root_summary {
    uint16_t record_types = 0;
    uint8_t lock = 0;
    uint8_t only_pre_record = 1;
    unsigned live = 0;
};

// A pre-recording to remove once the walk is over.
struct unconfirmed_segment {
    uint32_t root_index;
    uint32_t segment;
};

// Reads the root index chain from the device in place of the cached one and
// registers again each block of it that is free in the bitmap, with its
// position in the chain. The header, with the journal, goes to `header`.
int reload_root_index_chain(CQzFileSystem& fs, _root_index_header_dev_* header)
{
    const _qzfs_disk_manage_& m_manage = fs.manage();
    auto first = m_manage.root_index_block_map.find(0);
    if (first == m_manage.root_index_block_map.end()) {
        QZLOG("root index block invalid!");
        return -1;
    }
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (fs.Read_root_index_block_list(first->second, &num, &list, header) != 0) {
        delete[] list;
        QZLOG("Read_root_index_block_list failed(m_pSuper_block->root_index_address:%lu)",
              (unsigned long)first->second);
        return -1;
    }
    {
        CacheLockGuard cache;
        _hdd_root_index_manager_* manager = fs.root_manager();
        if (manager != nullptr) {
            delete[] manager->pRoot_index_block;
            manager->pRoot_index_block = list;
            manager->root_index_block_num = num;
        }
        for (uint32_t i = 0; i < num; i++) {
            if (list[i] == 0 || list[i] >= m_manage.total_block || fs.block_bit_is_set(list[i]))
                continue;
            _qzfs_block_info_ info;
            if (fs.read_block_info_from_key_block(m_manage.key_block, list[i], &info) != 0)
                continue;
            info.block_type = QZFS_BLOCK_ROOT_INDEX;
            info.block_index = uint16_t(i);
            if (fs.modify_block_info(m_manage.key_block, m_manage.bak_key_block, list[i], &info,
                                  QZFS_WHERE_ALL) == 0)
                fs.set_block_bit(list[i]);
        }
        if (manager == nullptr)
            delete[] list;
    }
    return 0;
}

// The journal: a record that checks out names a delete or a split in
// flight, which is rolled back; the journal is then cleared whatever the
// roll-back made of it. A record whose sum does not match is a torn write of
// the journal itself: nothing had been changed behind it, and it is left.
void replay_action_journal(CQzFileSystem& fs, const _root_index_header_dev_& header)
{
    const uint32_t sum = qzfs_action_sum(header);
    if (sum != header.crc) {
        QZLOG_ABOVE(1, "CQzFileSystem::Power_down_recovery (action:%ld)(crc:%08lx, %08lx)",
                    long(header.action), (unsigned long)header.crc, (unsigned long)sum);
        return;
    }
    if (header.action == QZFS_ACTION_DELETE) {
        QZLOG("QZFS_ACTION_DELETING");
        _action_delete_ record;
        qzfs_action_delete_from_bytes(header.action_data, &record);
        fs.Action_delete_recovery(&record);
    } else if (header.action == QZFS_ACTION_SPLIT) {
        QZLOG("QZFS_ACTION_SPLITING");
        _action_segment_split_ record;
        qzfs_action_split_from_bytes(header.action_data, &record);
        fs.action_segment_split_recovery(&record);
    } else {
        if (header.action != QZFS_ACTION_NONE)
            QZLOG("CQzFileSystem::Power_down_recovery invalid action");
        return;
    }
    fs.Register_qzfs_action(fs.journal_block(), QZFS_ACTION_NONE, nullptr);
}

// The first I-frame index block of a root goes back to it when the bitmap
// calls it free. It is registered with the segment index block's type.
void reclaim_first_iframe_block(CQzFileSystem& fs, unsigned long root_index)
{
    uint32_t ssi_num = 0, iframe_head = 0;
    uint32_t* ssi_list = nullptr;
    if (fs.Get_stream_segment_index_block_list(root_index, &ssi_num, &ssi_list, &iframe_head) == 0)
        fs.reclaim_block(iframe_head, QZFS_BLOCK_SEGMENT_INDEX);
    delete[] ssi_list;
}

// Walks one normal root's segments, repairing the unfinished ones; the
// values counted are those read before a repair, as the cache held them.
void walk_root_segments(CQzFileSystem& fs, unsigned long root_index, root_summary& sum,
                        std::vector<unconfirmed_segment>& unconfirmed)
{
    for (uint32_t s = 0;; s++) {
        _stream_segment_index_node_men_ node;
        if (fs.Get_stream_segment_index_mem_node(root_index, s, &node) != 0) {
            QZLOG("Get_stream_segment_index_mem_node(index:%ld)(stream_segment_index:%ld) failed",
                  long(root_index), long(s));
            return;
        }
        if (node.id == 255)
            return;
        if (node.id == FREE_STREAM_SEGMENT_INDEX)
            continue;
        if (node.end_hour == QZFS_INVALID_END_HOUR &&
            fs.Get_stream_segment_end_info(root_index, s) != 0) {
            if (node.id == NORMAL_STREAM_SEGMENT_INDEX)
                sum.only_pre_record = 0;
            continue;
        }
        // The root's first I-frame index block is the same for every
        // segment: it is looked at once, with the first live one.
        if (sum.live++ == 0)
            reclaim_first_iframe_block(fs, root_index);
        if (node.id == PRE_RECORD_STREAM_SEGMENT_INDEX ||
            (node.end_hour != QZFS_INVALID_END_HOUR && node.len_in_bytes == 0)) {
            unconfirmed.push_back({uint32_t(root_index), s});
        } else {
            if (node.record_type < 16)
                sum.record_types = uint16_t(sum.record_types | (1u << node.record_type));
            if (node.lock == 1)
                sum.lock = 1;
        }
        if (node.id == NORMAL_STREAM_SEGMENT_INDEX)
            sum.only_pre_record = 0;
    }
}

// Writes a root's summary when the walk found another one.
void settle_root_summary(CQzFileSystem& fs, unsigned long root_index,
                         const _root_index_node_mem_& mem, const root_summary& sum)
{
    if (mem.record_type == sum.record_types && mem.lock == sum.lock &&
        mem.only_pre_record == sum.only_pre_record)
        return;
    _root_index_node_dev_ dev;
    if (fs.Get_root_index_dev_node(root_index, &dev) != 0)
        return;
    uint16_t stored;
    memcpy(&stored, &dev.record_type, sizeof(stored));
    QZLOG("MODIFY RECORD TYPE(%04x)(%04x)(lock %d,%d)(only pre record %d,%d)", unsigned(stored),
          unsigned(sum.record_types), dev.lock, sum.lock, dev.only_pre_record,
          sum.only_pre_record);
    memcpy(&dev.record_type, &sum.record_types, sizeof(sum.record_types));
    dev.lock = sum.lock;
    dev.only_pre_record = sum.only_pre_record;
    fs.Modify_root_index(root_index, 0, &dev);
}

// Empties the disk's range of recorded days, which the walk widens again.
void reset_hdd_record_date(CQzFileSystem& fs)
{
    CacheLockGuard cache;
    _hdd_root_index_manager_* manager = fs.root_manager();
    if (manager == nullptr)
        return;
    manager->start_year = manager->end_year = 255;
    manager->start_month = manager->end_month = 255;
    manager->start_day = manager->end_day = 255;
}

}  // namespace

int CQzFileSystem::Power_down_recovery()
{
    repair_normal_file_heads();
    _root_index_header_dev_ header;
    memset(&header, 0, sizeof(header));
    if (reload_root_index_chain(*this, &header) != 0)
        return -1;
    replay_action_journal(*this, header);

    reset_hdd_record_date(*this);
    bool dates_stale = false;
    std::vector<unconfirmed_segment> unconfirmed;
    for (uint32_t ri = 0;; ri++) {
        _root_index_node_mem_ mem;
        if (Get_root_index_mem_node(ri, &mem) != 0) {
            QZLOG("Get_root_index_mem_node(index:%ld) failed", long(ri));
            return -1;
        }
        if (mem.id == END_ROOT_INDEX)
            break;
        if (!IS_NORMAL_ROOT_INDEX(mem.id))
            continue;
        root_summary sum;
        walk_root_segments(*this, ri, sum, unconfirmed);
        if (sum.live == 0) {
            QZLOG("this root index is empty,so delete(%lu)!", (unsigned long)ri);
            Delete_root_index(ri, 0);
            dates_stale = true;
            continue;
        }
        settle_root_summary(*this, ri, mem, sum);
        reclaim_block(mem.stream_segment_index_block, QZFS_BLOCK_SEGMENT_INDEX);
        if (!dates_stale)
            Update_hdd_record_date(0, mem.year, mem.month, mem.day);
    }
    if (dates_stale && Update_hdd_record_date(1, 0, 0, 0) != 0)
        QZLOG("Update_hdd_record_date failed");

    QZLOG_ABOVE(0, "delete pre record stream segment(%d)!", int(unconfirmed.size()));
    for (const unconfirmed_segment& u : unconfirmed) {
        _stream_segment_index_node_men_ node;
        if (Get_stream_segment_index_mem_node(u.root_index, u.segment, &node) != 0)
            continue;
        const _k4t_fs_time_ start = {node.start_hour, node.start_minute, node.start_second};
        delete_stream_segment_by_time(u.root_index, u.segment, start, 1);
    }
    m_manage.free_block = Cal_bitmap_free_block();
    return 0;
}
