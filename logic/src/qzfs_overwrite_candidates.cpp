// What one disk offers the overwrite planner: its orphan data blocks, its
// oldest unlocked segments of a kind, the days each small stream type holds,
// and the day it is recording.
//
// Age is the owner stamp, never a clock: a block or segment with a lower
// stamp was taken earlier. Orphans are data blocks that no segment index
// owns any more (a power cut took an index block away, or a deletion was
// cut short); they are counted at mount and go before any segment of their
// age. The caller holds the disk lock throughout.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// Big streams (types 0 to 2) are cut by bytes, small ones (3 and up) by days.
bool of_kind(uint8_t stream_type, unsigned char big)
{
    return big ? stream_type <= 2 : stream_type > 2;
}

// The I-frame index head a data block's record names as its owner.
uint32_t data_block_reference(const _qzfs_block_info_& info)
{
    uint32_t reference;
    memcpy(&reference, info.attr + 6, 4);
    return reference;
}

// One segment index block as an owner of data blocks: the I-frame index head
// its data blocks name, their stream type and their day.
struct block_owner {
    uint32_t reference;
    uint8_t stream_type;
    uint8_t year, month, day;

    bool owns(const _qzfs_block_info_& data) const
    {
        return reference == data_block_reference(data) && stream_type == data.attr[1] &&
               year == data.year && month == data.month && day == data.day;
    }
};

// Orphans in stamp order, the oldest first; equal stamps keep their order.
bool invalid_block_list_node_sorting(const _invalid_block_list_node_& a,
                                     const _invalid_block_list_node_& b)
{
    return a.owner_stamp < b.owner_stamp;
}

// A delete list stays sorted by stamp; a new node goes behind its equals.
void insert_by_stamp(std::list<_delete_ss_list_node_>& list, const _delete_ss_list_node_& node)
{
    auto at = std::upper_bound(list.begin(), list.end(), node,
                               [](const _delete_ss_list_node_& a, const _delete_ss_list_node_& b) {
                                   return a.owner_stamp < b.owner_stamp;
                               });
    list.insert(at, node);
}

// A full list takes nothing as old as its youngest node.
bool list_full_below(const std::list<_delete_ss_list_node_>& list, uint32_t stamp)
{
    return list.size() >= QZFS_DELETE_LIST_MAX && list.back().owner_stamp <= stamp;
}

}  // namespace

int CQzFileSystem::get_disk_invalid_data_block_num()
{
    QZLOG_ABOVE(0, "start calc invalid data block num");
    m_manage.invalid_block_list.clear();
    std::list<_block_info_node_> index_blocks, data_blocks;
    if (get_block_lists_by_type(QZFS_BLOCK_SEGMENT_INDEX, index_blocks, QZFS_BLOCK_DATA,
                                data_blocks) != 0) {
        QZLOG("get stream segment index block list failed!");
        return 0;
    }
    std::vector<block_owner> owners;
    for (const _block_info_node_& b : index_blocks) {
        _stream_segment_block_header_dev_ header;
        if (Read_stream_segment_index_block_header(b.block, &header) != 0)
            continue;
        const block_owner owner = {header.iframe_index_block, b.info.attr[1], b.info.year,
                                   b.info.month, b.info.day};
        owners.push_back(owner);
        if (header.first_iframe_index_block != header.iframe_index_block) {
            owners.push_back(owner);
            owners.back().reference = header.first_iframe_index_block;
        }
    }
    for (const _block_info_node_& b : data_blocks) {
        const bool owned = std::any_of(owners.begin(), owners.end(),
                                       [&](const block_owner& o) { return o.owns(b.info); });
        if (owned)
            continue;
        const _invalid_block_list_node_ orphan = {b.block, b.info.owner_stamp, b.info.attr[1],
                                                  b.info.year, b.info.month, b.info.day};
        m_manage.invalid_block_list.push_back(orphan);
        QZLOG_ABOVE(2,
                    "count:%d, data block:%ld, owner_stamp:%ld, iframe_index_block:%ld, "
                    "stream_type:%d, (%02d-%02d-%02d)",
                    int(m_manage.invalid_block_list.size()), long(b.block),
                    long(b.info.owner_stamp), long(data_block_reference(b.info)),
                    int(b.info.attr[1]), int(b.info.year), int(b.info.month), int(b.info.day));
    }
    m_manage.invalid_block_list.sort(invalid_block_list_node_sorting);
    QZLOG_ABOVE(0, "invalid data block num:%d", int(m_manage.invalid_block_list.size()));
    return int(m_manage.invalid_block_list.size());
}

// An orphan is freed only while its record still says what the count saw:
// a block freed and taken again since then belongs to someone else.
bool CQzFileSystem::orphan_still_unowned(const _invalid_block_list_node_& orphan)
{
    _qzfs_block_info_ record;
    return read_data_block_record(orphan.block, &record) == 0 &&
           record.block_type == QZFS_BLOCK_DATA && record.owner_stamp == orphan.owner_stamp &&
           block_bit_is_set(orphan.block);
}

int CQzFileSystem::delete_invalid_block_data(unsigned long stamp, unsigned char big,
                                             unsigned long long want, unsigned long long* size)
{
    if (size != nullptr)
        *size = 0;
    std::list<_invalid_block_list_node_>& orphans = m_manage.invalid_block_list;
    if (orphans.empty())
        return -1;
    const bool want_counts = want <= 0xFFFFFFFFULL;
    int freed = 0;
    for (auto it = orphans.begin(); it != orphans.end();) {
        if (!of_kind(it->stream_type, big)) {
            ++it;
        } else if (it->owner_stamp < stamp) {
            if (orphan_still_unowned(*it) && Free_one_block(it->block, 0) == 0) {
                QZLOG_ABOVE(0, "delete data block:%ld, owner_stamp:%ld, stream_type:%d, (%02d-%02d-%02d)",
                            long(it->block), long(it->owner_stamp), int(it->stream_type),
                            int(it->year), int(it->month), int(it->day));
                freed++;
            }
            it = orphans.erase(it);
        } else {
            break;  // the list is in stamp order: nothing further is older
        }
        if (want_counts && (unsigned long long)freed * m_manage.block_size >= want)
            break;
    }
    if (size != nullptr)
        *size = (unsigned long long)freed * m_manage.block_size;
    QZLOG_ABOVE(0, "delete num:%d, left block num:%d", freed, int(orphans.size()));
    return freed;
}

int CQzFileSystem::Find_delete_stream_segment(unsigned char big,
                                              std::list<_delete_ss_list_node_>& list)
{
    auto visit = [&](unsigned long ri, const _root_index_node_mem_& root) {
        if (!IS_NORMAL_ROOT_INDEX(root.id) || !of_kind(root.stream_type, big))
            return;
        // A root cannot hold a segment older than itself.
        if (list_full_below(list, root.owner_stamp))
            return;
        for (uint32_t si = 0;; si++) {
            _stream_segment_index_node_men_ node;
            if (Get_stream_segment_index_mem_node(ri, si, &node) != 0) {
                QZLOG("Get_stream_segment_index_mem_node(root_index:%ld)(stream_segment_index:%ld) FAILED",
                      long(ri), long(si));
                return;
            }
            if (node.id > 254)
                return;
            if (!IS_NORMAL_SSIN(node.id) || node.lock != 0 ||
                list_full_below(list, node.owner_stamp))
                continue;
            _delete_ss_list_node_ candidate;
            candidate.id.hdd_id = m_hdd_id;
            candidate.id.root_index = uint32_t(ri);
            candidate.id.stream_segment_index = si;
            candidate.owner_stamp = node.owner_stamp;
            insert_by_stamp(list, candidate);
            if (list.size() > QZFS_DELETE_LIST_MAX)
                list.pop_back();
        }
    };
    return for_each_root(*this, __func__, visit, "Get_root_index_mem_node(root_index:%ld) FAILED");
}

int CQzFileSystem::get_stream_day_num_info(std::map<uint8_t, std::list<_k4t_fs_date_>>& days)
{
    auto visit = [&](unsigned long ri, const _root_index_node_mem_& root) {
        if (!IS_NORMAL_ROOT_INDEX(root.id) || root.stream_type < 3)
            return;
        std::list<_k4t_fs_date_>& dates = days[root.stream_type];
        for (const _k4t_fs_date_& d : dates) {
            if (d.year == root.year && d.month == root.month && d.day == root.day) {
                if (g_qzfs_debug_level == 3)
                    QZLOG("have 20%02d-%02d-%02d,(%s,root index:%lu)", int(root.year),
                          int(root.month), int(root.day), root_name(root), ri);
                return;
            }
        }
        _k4t_fs_date_ date = {root.year, root.month, root.day, 0};
        dates.push_back(date);
    };
    return for_each_root(*this, __func__, visit, "Get_root_index_mem_node(root_index:%ld) FAILED");
}

int CQzFileSystem::get_cur_record_date(_k4t_fs_date_* date)
{
    std::lock_guard<std::mutex> open_map(m_open_map_lock);
    for (const auto& entry : m_manage.opened_stream_segment_map) {
        const _opened_stream_segment_* oss = entry.second;
        if (oss == nullptr || oss->read_or_write != K4T_FS_FALSE)
            continue;
        const _root_index_node_dev_* root = oss->root();
        date->year = root->year;
        date->month = root->month;
        date->day = root->day;
        date->reserve = 0;
        return 0;
    }
    return -1;
}
