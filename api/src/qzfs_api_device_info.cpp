// CQzfsApi device info: the application's record of the recorder, kept in a
// named file of every disk. The handles used here are local to each call and
// appear on no group's list of open files.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstring>

namespace {

char kDeviceInfoName[] = "QzfsDevInfo";

CQzFileSystem* device_info_disk(unsigned char hdd_id)
{
    CQzFileSystem* fs = hdd_id < QZFS_NO_HDD ? gQzfsManager.get_file_system(hdd_id) : nullptr;
    if (fs == nullptr || fs->Get_hdd_state() != QZFSS_MOUNTED) {
        QZLOG_ABOVE(2, "get file system failed(hdd id:%d)", int(hdd_id));
        return nullptr;
    }
    return fs;
}

bool device_info_exists(CQzFileSystem* fs)
{
    return fs->normal_file_is_exist(reinterpret_cast<unsigned char*>(kDeviceInfoName)) == 1;
}

}  // namespace

int CQzfsApi::qzfs_write_device_info(unsigned char hdd_id, char* data, int length)
{
    CQzFileSystem* fs = device_info_disk(hdd_id);
    if (fs == nullptr)
        return -1;
    if (data == nullptr || length < 0) {
        QZLOG("invalid para!");
        return -1;
    }
    _qzfs_normal_file_describe_ handle{};
    {
        DiskLockGuard disk(*fs);
        if (device_info_exists(fs))
            fs->delete_normal_file(kDeviceInfoName);
        if (fs->open_normal_file(kDeviceInfoName, &handle) != 0)
            return -1;
    }
    const int result = fs->write_normal_file(&handle, data, length) == length ? 0 : -1;
    DiskLockGuard disk(*fs);
    fs->close_normal_file(&handle);
    return result;
}

int CQzfsApi::qzfs_write_device_info_to_all_disk(char* data, int length)
{
    const unsigned int slots = gQzfsManager.disk_slots();
    for (unsigned int hdd_id = 0; hdd_id < slots && hdd_id < QZFS_NO_HDD; hdd_id++)
        qzfs_write_device_info((unsigned char)hdd_id, data, length);
    return 0;
}

int CQzfsApi::qzfs_read_device_info(unsigned char hdd_id, char* buffer, int length)
{
    CQzFileSystem* fs = device_info_disk(hdd_id);
    if (fs == nullptr)
        return -1;
    if (buffer == nullptr || length < 0) {
        QZLOG("invalid para!");
        return -1;
    }
    _qzfs_normal_file_describe_ handle{};
    handle.read_only = 1;
    {
        DiskLockGuard disk(*fs);
        if (!device_info_exists(fs)) {
            QZLOG_ABOVE(0, "dev file %s not exist!", kDeviceInfoName);
            return -1;
        }
        if (fs->open_normal_file(kDeviceInfoName, &handle) != 0)
            return -1;
        if (fs->seek_normal_file(&handle, 0, 0) != 0) {
            fs->close_normal_file(&handle);
            return -1;
        }
    }
    const int got = fs->read_normal_file(&handle, buffer, length);
    DiskLockGuard disk(*fs);
    fs->close_normal_file(&handle);
    return got;
}

int CQzfsApi::qzfs_get_device_info_len(unsigned char hdd_id)
{
    CQzFileSystem* fs = device_info_disk(hdd_id);
    if (fs == nullptr)
        return -1;
    DiskLockGuard disk(*fs);
    if (!device_info_exists(fs))
        return -1;
    unsigned long long size = 0;
    if (fs->get_normal_file_size(kDeviceInfoName, size) != 0)
        return -1;
    return (int)size;
}
