// CQzfsApi work disk: the group's space thresholds and the choice of the
// disk on which the group's recording goes on.
//
// The choice also lifts the chosen disk's owner stamp to the highest stamp
// of the group, so that stamps order all recordings of a group by age.
//
// Locking: the group is read and written under the manager lock, each disk's
// state under that disk's lock, and the two are never held together.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <vector>

namespace {

// The record reserve must be above this, that is at least 50 MiB.
const unsigned long long RESERVE_FLOOR = 0x31FFFFFULL;
// Year byte of a disk's record dates while it holds no recording.
const uint8_t NO_RECORD_YEAR = 255;

// What the choice needs to know of one disk, read under its lock.
struct work_disk_view {
    unsigned char hdd_id;
    unsigned long owner_stamp;
    unsigned long long free_size;
    uint8_t start_year, start_month, start_day;
    uint8_t end_year, end_month, end_day;
};

// Reads stamp, free size and record dates of a disk; false when the slot
// holds no file system.
bool read_work_disk_view(unsigned char hdd_id, work_disk_view& view)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr)
        return false;
    view.hdd_id = hdd_id;
    view.start_year = view.start_month = view.start_day = NO_RECORD_YEAR;
    view.end_year = view.end_month = view.end_day = NO_RECORD_YEAR;
    DiskLockGuard disk(*fs);
    view.owner_stamp = fs->get_block_owner_stamp();
    view.free_size = (unsigned long long)fs->manage().free_block * fs->manage().block_size;
    const _hdd_root_index_manager_* dates = fs->root_manager();
    if (dates != nullptr) {
        view.start_year = dates->start_year;
        view.start_month = dates->start_month;
        view.start_day = dates->start_day;
        view.end_year = dates->end_year;
        view.end_month = dates->end_month;
        view.end_day = dates->end_day;
    }
    return true;
}

// What the choice needs of a group, read under the manager lock.
struct group_view {
    unsigned int disk_slots;
    unsigned char current;
    unsigned long members;
    unsigned long long reserve;
    unsigned long long used_for_recording;
};

enum group_view_result { GROUP_VIEW_READ, GROUP_VIEW_NO_DISKS, GROUP_VIEW_NO_GROUP };

group_view_result read_group_view(unsigned char group, group_view& view)
{
    ManagerLockGuard manager(gQzfsManager);
    view.disk_slots = gQzfsManager.disk_slots();
    if (view.disk_slots == 0)
        return GROUP_VIEW_NO_DISKS;
    const _disk_group_attr_* attr = gQzfsManager.find_group(group);
    if (attr == nullptr)
        return GROUP_VIEW_NO_GROUP;
    view.current = attr->m_current_record_hdd_id;
    view.members = attr->valid_disk_bitmap;
    view.reserve = attr->reserve_free_size_for_record;
    view.used_for_recording = attr->used_for_recording_free_size;
    return GROUP_VIEW_READ;
}

// Records the chosen disk and the group's highest stamp in the group, under
// the manager lock; gives the group's stamp. `found` becomes QZFS_NO_HDD when
// the group went away while its disks were looked at.
unsigned long record_choice(unsigned char group, unsigned long highest_stamp, unsigned char& found)
{
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* attr = gQzfsManager.find_group(group);
    if (attr == nullptr) {
        found = QZFS_NO_HDD;
        return 0;
    }
    if (highest_stamp > attr->max_owner_stamp)
        attr->max_owner_stamp = highest_stamp;
    attr->m_current_record_hdd_id = found;
    return attr->max_owner_stamp;
}

// Writing on the chosen disk goes on from the group's highest stamp. A stamp
// that moved on since it was read is not taken back.
void lift_owner_stamp(unsigned char hdd_id, unsigned long group_stamp)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr)
        return;
    DiskLockGuard disk(*fs);
    if (fs->get_block_owner_stamp() < group_stamp)
        fs->set_block_owner_stamp(group_stamp);
}

// The choice logs in the name of the call that makes it.
const char kFindWorkHdd[] = "Qzfs_find_work_hdd";

// Recording stays on the group's current disk while that disk keeps its
// record reserve.
bool stays_on_current(const group_view& group)
{
    const unsigned char current = group.current;
    if (current >= QZFS_NO_HDD)
        return false;
    work_disk_view view;
    const bool present = current < group.disk_slots && read_work_disk_view(current, view);
    if (present && view.free_size > group.reserve) {
        if (g_qzfs_debug_level > 2)
            QZLOG_AS(kFindWorkHdd, "Find_hdd_for_recording stay(hdd_id:%d)(free_size:%lld)",
                     current, (long long)view.free_size);
        return true;
    }
    QZLOG_AS(kFindWorkHdd,
             "(current hdd_id:%d)(free_size:%lld)(reserve_free_size_for_record:%lld) NOT ENOUGH",
             current, present ? (long long)view.free_size : 0LL, (long long)group.reserve);
    return false;
}

// Walks the members from the highest id down and gives the disk to record
// on, or QZFS_NO_HDD, with the group's highest stamp in `highest_stamp`.
// A disk that holds recordings wins over an empty one; among disks with
// recordings the highest stamp wins, a tie going to the lower id. The
// first disk with recordings to become candidate does not set best_stamp,
// so the next qualifying disk with recordings always displaces it: only
// from then on do the stamps decide.
unsigned char choose_member(const group_view& group, unsigned long* highest_stamp)
{
    unsigned char found = QZFS_NO_HDD;
    uint8_t found_end_year = NO_RECORD_YEAR;
    unsigned long best_stamp = 0;
    *highest_stamp = 0;
    for (int id = int(group.disk_slots) - 1; id >= 0; id--) {
        if (!(group.members & qzfs_disk_bit((unsigned char)id)))
            continue;
        work_disk_view view;
        if (!read_work_disk_view((unsigned char)id, view))
            continue;
        // Every member counts for the group's highest stamp, also one that
        // does not qualify.
        if (view.owner_stamp > *highest_stamp)
            *highest_stamp = view.owner_stamp;
        if (g_qzfs_debug_level > 2)
            QZLOG_AS(kFindWorkHdd,
                     "Find_hdd_for_recording (hdd_id:%d)(owner_stamp:%lu)(free_size:%lld)"
                     "(record date:%d-%d-%d ~ %d-%d-%d)",
                     id, view.owner_stamp, (long long)view.free_size, view.start_year,
                     view.start_month, view.start_day, view.end_year, view.end_month,
                     view.end_day);
        if (!(view.free_size > group.used_for_recording)) {
            QZLOG_AS(kFindWorkHdd,
                     "(hdd_id:%d)(free_size:%lld)(used_for_recording_free_size:%lld) NOT ENOUGH",
                     id, (long long)view.free_size, (long long)group.used_for_recording);
            continue;
        }
        if (found_end_year == NO_RECORD_YEAR) {
            found = (unsigned char)id;
            found_end_year = view.end_year;
            continue;
        }
        if (view.start_year == NO_RECORD_YEAR)
            continue;
        if (best_stamp > view.owner_stamp)
            continue;
        found = (unsigned char)id;
        found_end_year = view.end_year;
        best_stamp = view.owner_stamp;
    }
    return found;
}

} // namespace

int CQzfsApi::Qzfs_config_overwrite(unsigned char group,
                                    const _qzfs_k4t_hdd_overwrite_config_* config)
{
    if (config == nullptr) {
        QZLOG("(pRhoc == K4T_FS_NULL)");
        return -1;
    }
    if (config->reserve_free_size_for_record <= RESERVE_FLOOR) {
        QZLOG("invalid reserve_free_size_for_record:%lld",
              (long long)config->reserve_free_size_for_record);
        return -1;
    }
    if (config->used_for_recording_free_size < config->reserve_free_size_for_record) {
        QZLOG("invalid used_for_recording_free_size:%lld, %lld",
              (long long)config->used_for_recording_free_size,
              (long long)config->reserve_free_size_for_record);
        return -1;
    }
    if (config->start_delete_free_size < config->reserve_free_size_for_record) {
        QZLOG("invalid start_delete_free_size:%lld, %lld",
              (long long)config->start_delete_free_size,
              (long long)config->reserve_free_size_for_record);
        return -1;
    }
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* attr = gQzfsManager.find_group(group);
    if (attr == nullptr)
        return -1;
    attr->reserve_free_size_for_record = config->reserve_free_size_for_record;
    attr->used_for_recording_free_size = config->used_for_recording_free_size;
    attr->start_delete_free_size = config->start_delete_free_size;
    attr->once_delete_size = config->once_delete_size;
    return 0;
}

// Recording stays on the current disk while its free size is above the
// record reserve; a new disk must be above the higher recording threshold.
// The gap between the two keeps recording from hopping between disks that
// hover around one level.
int CQzfsApi::Qzfs_find_work_hdd(unsigned char group, unsigned char* hdd_id)
{
    if (hdd_id != nullptr)
        *hdd_id = QZFS_NO_HDD;

    group_view view_of_group;
    switch (read_group_view(group, view_of_group)) {
    case GROUP_VIEW_NO_DISKS:
        QZLOG("(gQzfsManager.m_Qzfs_vector.size() <= 0) failed");
        return -1;
    case GROUP_VIEW_NO_GROUP:
        QZLOG("Group %d is invalid!", group);
        return -1;
    case GROUP_VIEW_READ:
        break;
    }
    QZLOG_ABOVE(2, "Find_hdd_for_recording START(group:%d)(current hdd_id:%d)(disk bitmap:%08lx)",
                group, view_of_group.current, view_of_group.members);
    if (stays_on_current(view_of_group)) {
        if (hdd_id != nullptr)
            *hdd_id = view_of_group.current;
        return 0;
    }
    unsigned long highest_stamp = 0;
    unsigned char found = choose_member(view_of_group, &highest_stamp);
    const unsigned long group_stamp = record_choice(group, highest_stamp, found);
    if (found != QZFS_NO_HDD)
        lift_owner_stamp(found, group_stamp);
    QZLOG("find result:%02x", found);
    if (hdd_id != nullptr)
        *hdd_id = found;
    return found != QZFS_NO_HDD ? 0 : -1;
}
