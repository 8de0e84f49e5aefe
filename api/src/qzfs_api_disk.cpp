// CQzfsApi disk operations: format, mount, unmount, disk information and
// the recovery of an unmounted disk.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

static const char* shown(const char* dev) { return dev != nullptr ? dev : "(null)"; }

// Drops what the node caches hold of a disk that is not mounted (any more).
static int free_cached_index(unsigned char hdd_id)
{
    if (pgSystemResourceManager == nullptr)
        return 0;
    return pgSystemResourceManager->Free_resource(hdd_id) == 0 ? 0 : -1;
}

// Takes the disk object out of the table and drops its cached index, in one
// exclusive hold of the registry: no call is using the object, and no mount
// of the same hdd_id can come in between and lose its own cache.
static int unregister_disk(unsigned char hdd_id)
{
    DiskRegistryWriteGuard registry;
    gQzfsManager.unregiseter_qzfilesystem(hdd_id);
    return free_cached_index(hdd_id);
}

// Runs `step` on a disk object just registered, with the registry held
// shared (an unmount waits for it) and the disk lock held.
template <typename Step>
static int on_registered_disk(CQzFileSystem* fs, Step step)
{
    DiskRegistryReadGuard registry;
    DiskLockGuard disk(*fs);
    return step(fs);
}

// Format and fast format differ only in the label: both lay a new shell and
// key info block, and leave the disk unmounted.
static int format_disk(unsigned char hdd_id, char* dev, char* label)
{
    if (dev == nullptr)
        QZLOG_ABOVE(1, "dev name is null");
    QZLOG_ABOVE(0, "start format(%s)", shown(dev));
    CQzFileSystem* fs = gQzfsManager.register_qzfilesystem(hdd_id);
    if (fs == nullptr) {
        QZLOG("gQzfsManager.register_qzfilesystem failed(HddId:%d)", hdd_id);
        return -1;
    }
    fs->Set_hdd_id(hdd_id);
    int result = on_registered_disk(fs, [&](CQzFileSystem* disk) {
        return disk->Format(dev, label, 1);
    });
    if (result == 0) {
        QZLOG_ABOVE(2, "format %s success!!!!!!!!!!!!!!!!!!!!!", shown(dev));
    } else {
        QZLOG("format %s failed!!!!!!!!!!!!!!!!!!!!!", shown(dev));
        result = -1;
    }
    unregister_disk(hdd_id);
    QZLOG("end format %s!", shown(dev));
    return result;
}

int CQzfsApi::Qzfs_format(unsigned char hdd_id, char* dev, char* label)
{
    return format_disk(hdd_id, dev, label);
}

int CQzfsApi::Qzfs_fast_format(unsigned char hdd_id, char* dev)
{
    return format_disk(hdd_id, dev, nullptr);
}

// Registers the disk under the manager lock and runs `mount_step` on it
// under the disk lock. A failed mount takes the object down again; a disk
// that is already mounted counts as a success.
template <typename MountStep>
static int register_and_mount(unsigned char hdd_id, MountStep mount_step)
{
    CQzFileSystem* fs;
    {
        // The registry before the manager lock, as everywhere.
        DiskRegistryWriteGuard registry;
        ManagerLockGuard manager(gQzfsManager);
        fs = gQzfsManager.register_qzfilesystem(hdd_id);
    }
    if (fs == nullptr) {
        QZLOG("gQzfsManager.register_qzfilesystem failed(HddId:%d)", hdd_id);
        DiskRegistryReadGuard registry;
        CQzFileSystem* existing = gQzfsManager.get_file_system(hdd_id);
        if (existing == nullptr)
            return -1;
        DiskLockGuard disk(*existing);
        return existing->Get_hdd_state() == QZFSS_MOUNTED ? 0 : -1;
    }
    if (on_registered_disk(fs, mount_step) != 0) {
        QZLOG("pFs->mount failed(HddId:%d)", hdd_id);
        unregister_disk(hdd_id);
        return -1;
    }
    return 0;
}

int CQzfsApi::Qzfs_mount(unsigned char hdd_id, char* dev)
{
    QZLOG_ABOVE(0, "START MOUNT(hdd_id:%d)", hdd_id);
    int result = register_and_mount(hdd_id, [&](CQzFileSystem* fs) { return fs->Mount(hdd_id, dev); });
    if (result == 0)
        QZLOG_ABOVE(2, "mount (HddId:%d) OK!!!!!!!!!!!!!!!!!!!!!", hdd_id);
    QZLOG_ABOVE(0, "CQzfsApi::Qzfs_mount END(hdd_id:%d)(ret_val:%d)", hdd_id, result);
    return result;
}

int CQzfsApi::Qzfs_mount_by_partition(unsigned char hdd_id, int count, char** devs)
{
    QZLOG_ABOVE(2, "START MOUNT(hdd_id:%d)", hdd_id);
    int result = register_and_mount(
        hdd_id, [&](CQzFileSystem* fs) { return fs->Mount_by_partition(hdd_id, count, devs); });
    QZLOG_ABOVE(2, "CQzfsApi::Qzfs_mount END(hdd_id:%d)(ret_val:%d)", hdd_id, result);
    return result;
}

int CQzfsApi::Qzfs_umount(unsigned char hdd_id)
{
    QZLOG_ABOVE(0, "umount (hdd_id:%d) START", hdd_id);
    // Exclusive: no other call is inside the disk while it is checked and
    // taken down.
    DiskRegistryWriteGuard registry;
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr) {
        QZLOG_ABOVE(1, "NOT MOUNT (hdd_id:%d)", hdd_id);
        return 0;
    }
    // A disk object that is not mounted is between the registration and
    // the end of a mount or format on another thread: that thread owns it.
    bool busy = fs->Get_hdd_state() != QZFSS_MOUNTED || !fs->open_stream_segment_is_empty() ||
                qzfs_judge_hdd_open_normal_file(hdd_id) || gQzfsManager.Find_group_id(hdd_id) != -1;
    if (busy) {
        QZLOG_ABOVE(1, "hdd_id:%d BUSY!!!!", hdd_id);
        return -1;
    }
    int result = unregister_disk(hdd_id);
    QZLOG_ABOVE(0, "umount (hdd_id:%d) END(%s)", hdd_id, result == 0 ? "SUCC" : "FAILED");
    return result;
}

// The reserve that the group of a disk keeps on it, read under the manager
// lock (which the disk lock is never held with): the record reserve on the
// group's current disk, the recording reserve on the others. False outside a
// group.
static bool group_reserve_of(unsigned char hdd_id, unsigned long long& reserve)
{
    const int group_id = gQzfsManager.Find_group_id(hdd_id);
    if (group_id < 0)
        return false;
    ManagerLockGuard manager(gQzfsManager);
    const _disk_group_attr_* group = gQzfsManager.find_group((unsigned char)group_id);
    if (group == nullptr)
        return false;
    reserve = group->m_current_record_hdd_id == hdd_id ? group->reserve_free_size_for_record
                                                       : group->used_for_recording_free_size;
    return true;
}

// The free count an application sees leaves room for the group's reserve:
// the record reserve on the group's current disk, the recording reserve on
// the others.
int CQzfsApi::Qzfs_get_hdd_info(unsigned char hdd_id, _qzfs_k4t_hdd_info_* info)
{
    QZLOG_ABOVE(2, "get hdd info START(%d)", hdd_id);
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr || info == nullptr) {
        QZLOG("gQzfsManager.get_file_system failed(hdd_id:%d)", hdd_id);
        return -1;
    }
    {
        DiskLockGuard disk(*fs);
        fs->Get_hdd_info(info);
    }
    unsigned long long reserve = 0;
    if (group_reserve_of(hdd_id, reserve) && info->block_size != 0) {
        unsigned long long reserve_blocks = (reserve + info->block_size - 1) / info->block_size;
        info->free_num = info->free_num > reserve_blocks
                             ? (unsigned long)(info->free_num - reserve_blocks)
                             : 0;
    }
    QZLOG_ABOVE(2, "get hdd info END(%d)", hdd_id);
    return 0;
}

// Renews the MBR and FAT32 shell of an unmounted disk without touching its
// key info block or recorded blocks.
int CQzfsApi::qzfs_rebuild_rely(unsigned char hdd_id, char* dev)
{
    CQzFileSystem* fs = gQzfsManager.register_qzfilesystem(hdd_id);
    if (fs == nullptr) {
        QZLOG("gQzfsManager.register_qzfilesystem failed(HddId:%d)", hdd_id);
        return -1;
    }
    fs->Set_hdd_id(hdd_id);
    int result = on_registered_disk(fs, [&](CQzFileSystem* disk) { return disk->rebuild_rely(dev); });
    result = result == 0 ? 0 : -1;
    unregister_disk(hdd_id);
    return result;
}

// Recovers an unmounted disk: its key info by every level, then its
// indexes from the data blocks. The disk is left unmounted.
int CQzfsApi::Qzfs_disk_recovery(unsigned char hdd_id, char* path, _qzfs_k4t_recovery_para_* para)
{
    QZLOG("********************GORGEOUS START********************");
    CQzFileSystem* fs = gQzfsManager.register_qzfilesystem(hdd_id);
    if (fs == nullptr) {
        QZLOG("gQzfsManager.register_qzfilesystem failed(HddId:%d)", hdd_id);
        return -1;
    }
    QZLOG("gQzfsManager.register_qzfilesystem success(HddId:%d)", hdd_id);
    fs->Set_hdd_id(hdd_id);
    int result = on_registered_disk(fs, [&](CQzFileSystem* disk) {
        return disk->disk_recovery(path, para);
    });
    unregister_disk(hdd_id);
    QZLOG("********************GORGEOUS END********************");
    return result == 0 ? 0 : -1;
}

int CQzfsApi::Qzfs_test_hdd(unsigned char hdd_id, unsigned long value)
{
    QZLOG_ABOVE(0, "start test disk(%d)", hdd_id);
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr) {
        QZLOG_ABOVE(0, "disk is umount(%d)", hdd_id);
        return -1;
    }
    int result;
    {
        DiskLockGuard disk(*fs);
        result = fs->Test_hdd(value);
    }
    QZLOG_ABOVE(0, "end test disk(%s)", result == 0 ? "success" : "failed");
    return result;
}
