// The delete lists of the overwrite planner, over the disks of a group.
//
// A list caches up to 100 of the group's oldest unlocked segments of one
// kind (big streams or small), so that a pass walks the indexes of every
// disk only when the list runs dry. Anything that changes what may be
// deleted (a lock, an unlock, a delete, a disk joining or leaving) drops
// the lists through Clear_up_delete_list.
//
// The group map is read under the manager lock and each disk's indexes
// under its disk lock, one disk at a time; the two are never held together.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <map>

bool CQzfsManager::group_members(int group, unsigned long& members)
{
    ManagerLockGuard manager(*this);
    const _disk_group_attr_* attr = find_group_by_number(group);
    if (attr == nullptr)
        return false;
    members = attr->valid_disk_bitmap;
    return true;
}

std::vector<CQzFileSystem*> CQzfsManager::mounted_disks(unsigned long members)
{
    std::vector<CQzFileSystem*> disks;
    for (unsigned hdd_id = 0; hdd_id < 32; hdd_id++) {
        if ((members & qzfs_disk_bit((unsigned char)hdd_id)) == 0)
            continue;
        CQzFileSystem* fs = get_file_system((unsigned char)hdd_id);
        if (fs != nullptr && fs->Get_hdd_state() == QZFSS_MOUNTED)
            disks.push_back(fs);
    }
    return disks;
}

int CQzfsManager::Find_delete_stream_segment(int group, unsigned char big,
                                             std::list<_delete_ss_list_node_>& list)
{
    unsigned long members = 0;
    if (!group_members(group, members)) {
        QZLOG("Group %d is invalid!", group);
        return -1;
    }
    QZLOG_ABOVE(0, "find start(delete_list:%d)", int(list.size()));
    list.clear();
    for (CQzFileSystem* fs : mounted_disks(members)) {
        DiskLockGuard disk(*fs);
        fs->Find_delete_stream_segment(big, list);
    }
    QZLOG_ABOVE(0, "find end(unlock_list:%d)", int(list.size()));
    return 0;
}

std::list<_delete_ss_list_node_>::iterator CQzfsManager::Find_delete_stream_segment(
    std::list<_delete_ss_list_node_>& list)
{
    auto best = list.end();
    for (auto it = list.begin(); it != list.end(); ++it) {
        CQzFileSystem* fs = get_file_system(it->id.hdd_id);
        if (fs == nullptr) {
            QZLOG("get_file_system failed(hdd_id:%d)", int(it->id.hdd_id));
            continue;
        }
        bool being_read;
        {
            DiskLockGuard disk(*fs);
            being_read = fs->find_opening_stream_segment_by_id(&it->id, nullptr, 1) >= 0;
        }
        if (being_read)
            continue;
        if (best == list.end() || it->owner_stamp < best->owner_stamp)
            best = it;
    }
    return best;
}

int CQzfsManager::Judge_small_stream_is_full(int group, unsigned long reserve_day)
{
    unsigned long members = 0;
    if (!group_members(group, members)) {
        QZLOG("Group %d is invalid!", group);
        return 0;
    }
    // Days of each small stream type, merged over the disks.
    std::map<uint8_t, std::list<_k4t_fs_date_>> days;
    for (CQzFileSystem* fs : mounted_disks(members)) {
        std::map<uint8_t, std::list<_k4t_fs_date_>> disk_days;
        {
            DiskLockGuard disk(*fs);
            if (fs->get_stream_day_num_info(disk_days) != 0)
                continue;
        }
        for (auto& type : disk_days) {
            std::list<_k4t_fs_date_>& merged = days[type.first];
            for (const _k4t_fs_date_& d : type.second) {
                bool known = false;
                for (const _k4t_fs_date_& m : merged)
                    known = known || (m.year == d.year && m.month == d.month && m.day == d.day);
                if (!known)
                    merged.push_back(d);
            }
        }
    }
    for (auto& type : days) {
        if (type.second.size() > reserve_day) {
            QZLOG_ABOVE(0, "stream type:%d,size:%d!", int(type.first), int(type.second.size()));
            return 1;
        }
    }
    return 0;
}

void CQzfsManager::Clear_up_delete_list(unsigned long group_mask)
{
    ManagerLockGuard manager(*this);
    for (auto& group : m_disk_group_map)
        if (group.first < 32 && ((group_mask >> group.first) & 1u) != 0)
            group.second.drop_delete_lists();
}
