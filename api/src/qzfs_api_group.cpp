// CQzfsApi group operations: disks join and leave groups.
#include "qzfs_api.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

static _disk_group_attr_ new_group_attr()
{
    _disk_group_attr_ group;
    group.max_owner_stamp = 0;
    group.valid_disk_bitmap = 0;
    group.m_current_record_hdd_id = QZFS_NO_HDD;
    group.reserve_free_size_for_record = 524288000ULL;  // 500 MiB
    group.used_for_recording_free_size = 629145600ULL;  // 600 MiB
    group.start_delete_free_size = 4294967296ULL;       // 4 GiB
    group.once_delete_size = 268435456ULL;              // 256 MiB
    group.group_lock = qzfs_create_lock();
    group.delete_list_generation = 0;
    return group;
}

// A disk may stand in several groups; the delete lists of the group no
// longer cover all its disks, so they are dropped.
int CQzfsApi::Qzfs_add_disk_to_group(unsigned char hdd_id, unsigned char group)
{
    if (gQzfsManager.get_file_system(hdd_id) == nullptr) {
        QZLOG("hdd %d invlaid", hdd_id);
        return -1;
    }
    ManagerLockGuard manager(gQzfsManager);
    auto it = gQzfsManager.m_disk_group_map.find(group);
    if (it == gQzfsManager.m_disk_group_map.end())
        it = gQzfsManager.m_disk_group_map.emplace(group, new_group_attr()).first;
    it->second.valid_disk_bitmap |= qzfs_disk_bit(hdd_id);
    it->second.drop_delete_lists();
    return 0;
}

// Takes a disk out of the group at `it`, and the group out of the map when
// it was its last disk; the manager lock is held.
static void drop_disk_from_group(std::map<unsigned char, _disk_group_attr_>::iterator it,
                                 unsigned char hdd_id)
{
    _disk_group_attr_& attr = it->second;
    attr.valid_disk_bitmap &= ~qzfs_disk_bit(hdd_id);
    attr.drop_delete_lists();
    if (attr.m_current_record_hdd_id < QZFS_NO_HDD &&
        !(attr.valid_disk_bitmap & qzfs_disk_bit(attr.m_current_record_hdd_id)))
        attr.m_current_record_hdd_id = QZFS_NO_HDD;
    if (attr.valid_disk_bitmap == 0) {
        qzfs_destroy_lock(attr.group_lock);
        gQzfsManager.m_disk_group_map.erase(it);
    }
}

int CQzfsApi::Qzfs_delete_disk_from_group(unsigned char hdd_id, unsigned char group)
{
    {
        // The open-file check walks the groups, which another thread may be
        // adding or removing: it runs under the manager lock too.
        ManagerLockGuard manager(gQzfsManager);
        if (!have_open_file(hdd_id)) {
            auto it = gQzfsManager.m_disk_group_map.find(group);
            if (it == gQzfsManager.m_disk_group_map.end())
                QZLOG_ABOVE(1, "group %d is invalid!", group);
            else
                drop_disk_from_group(it, hdd_id);
            return 0;
        }
    }
    QZLOG_ABOVE(1, "hdd %d is busy!", hdd_id);
    return -1;
}

int CQzfsApi::Qzfs_get_disk_list_from_group(unsigned char group, std::list<unsigned char>& hdd_ids)
{
    hdd_ids.clear();
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* attr = gQzfsManager.find_group(group);
    if (attr != nullptr) {
        const unsigned int slots = gQzfsManager.disk_slots();
        for (unsigned int id = 0; id < slots; id++)
            if (attr->valid_disk_bitmap & qzfs_disk_bit((unsigned char)id))
                hdd_ids.push_back((unsigned char)id);
    }
    return 0;
}
