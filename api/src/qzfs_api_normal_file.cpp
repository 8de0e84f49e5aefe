// CQzfsApi named files: a name is unique within a group and any disk of the
// group may hold it. These calls find the disk, apply the open modes and the
// sharing rules, and forward to the disk's members under its lock (write and
// read run without it, on the handle's own device handle).
//
// Open handles are listed in their group; a handle that is on no list (closed
// already, or never opened) is refused, so that a handle used after close is
// a failure and not a use of freed memory. Search handles are kept in a set
// of their own for the same reason.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstring>
#include <mutex>
#include <set>
#include <unistd.h>

namespace {

typedef _qzfs_normal_file_describe_ file_handle;

std::mutex g_search_lock;
std::set<void*> g_search_handles;

// The handle, when some group lists it as open; else null.
file_handle* open_file_handle(void* handle, const char* func)
{
    if (handle == nullptr) {
        QZLOG_AS(func, "file handle is NULL!");
        return nullptr;
    }
    ManagerLockGuard manager(gQzfsManager);
    for (auto& group : gQzfsManager.m_disk_group_map)
        for (void* open : group.second.open_normal_file_list)
            if (open == handle)
                return static_cast<file_handle*>(handle);
    QZLOG_AS(func, "file handle is invalid(%p)!", handle);
    return nullptr;
}

// The mounted disk that holds an open handle's file.
CQzFileSystem* file_disk(const file_handle* handle, const char* func)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(handle->hdd_id);
    if (fs == nullptr || fs->Get_hdd_state() != QZFSS_MOUNTED) {
        QZLOG_AS(func, "gQzfsManager.get_file_system failed(hdd_id:%d)", int(handle->hdd_id));
        return nullptr;
    }
    return fs;
}

// The mounted disks of a group, lowest hdd_id first; false (after "Group %d
// is invalid!" above level 1, in the name of the calling function `func`)
// for an unknown group.
bool group_disks(unsigned char group, std::vector<CQzFileSystem*>& disks, const char* func)
{
    unsigned long members = 0;
    if (!gQzfsManager.group_members(group, members)) {
        if (g_qzfs_debug_level > 1)
            QZLOG_AS(func, "Group %d is invalid!", int(group));
        return false;
    }
    disks = gQzfsManager.mounted_disks(members);
    return true;
}

// The first disk of the list that holds `name`, or null.
CQzFileSystem* disk_holding(const std::vector<CQzFileSystem*>& disks, char* name)
{
    for (CQzFileSystem* fs : disks) {
        DiskLockGuard disk(*fs);
        if (fs->normal_file_is_exist(reinterpret_cast<unsigned char*>(name)) == 1)
            return fs;
    }
    return nullptr;
}

bool name_too_long(const char* name)
{
    if (strlen(name) <= QZFS_FILE_NAME_MAX)
        return false;
    QZLOG("file name too len(%s)!", name);
    return true;
}

// Whether a handle of the group has `name` open (mask as in
// qzfs_find_open_normal_file).
bool group_has_open(CQzfsApi& api, unsigned char group, char* name, unsigned char mask)
{
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* attr = gQzfsManager.find_group(group);
    return attr != nullptr && api.qzfs_find_open_normal_file(attr->open_normal_file_list, name,
                                                             mask) == 1;
}

}  // namespace

int CQzfsApi::qzfs_find_open_normal_file(std::list<void*>& list, char* name, unsigned char mask)
{
    for (void* open : list) {
        const file_handle* handle = static_cast<const file_handle*>(open);
        const unsigned char kind = handle->read_only != 0 ? 1 : 2;
        if ((mask & kind) != 0 && strncmp(handle->name, name, sizeof(handle->name)) == 0)
            return 1;
    }
    return 0;
}

// ------------------------------------------------------------ open and close

// The disk a new file goes to: the group's current record disk.
static CQzFileSystem* new_file_disk(unsigned char group)
{
    unsigned char hdd_id = QZFS_NO_HDD;
    {
        ManagerLockGuard manager(gQzfsManager);
        const _disk_group_attr_* attr = gQzfsManager.find_group(group);
        if (attr != nullptr)
            hdd_id = attr->m_current_record_hdd_id;
    }
    if (hdd_id == QZFS_NO_HDD) {
        QZLOG("(hdd_id == 0xff)");
        return nullptr;
    }
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr || fs->Get_hdd_state() != QZFSS_MOUNTED) {
        QZLOG("gQzfsManager.get_file_system failed(hdd_id:%d)", int(hdd_id));
        return nullptr;
    }
    return fs;
}

// Opens `name` on disk `fs` into a new handle, placed at the start for the
// modes that read or update. The handle, or null with g_error_no at -4.
static file_handle* open_on_disk(CQzFileSystem* fs, unsigned char group, char* name, int mode)
{
    file_handle* handle = new file_handle();
    handle->group_id = group;
    handle->read_only = mode == QZFS_NORMAL_FILE_READ ? 1 : 0;
    bool opened = false, at_start = false;
    {
        DiskLockGuard disk(*fs);
        opened = fs->open_normal_file(name, handle) == 0;
        at_start = opened && ((mode != QZFS_NORMAL_FILE_UPDATE && mode != QZFS_NORMAL_FILE_READ) ||
                              fs->seek_normal_file(handle, 0, 0) == 0);
        if (opened && !at_start)
            fs->close_normal_file(handle);
    }
    if (at_start)
        return handle;
    delete handle;
    // The pause after a failed open keeps a caller that retries at once from
    // spinning; it is taken with the disk free for the others.
    if (!opened)
        usleep(50000);
    QZLOG(opened ? "seek %s filead" : "open %s filead", name);
    g_error_no = -4;
    return nullptr;
}

void* CQzfsApi::qzfs_open_normal_file(unsigned char group, char* name, int mode)
{
    QZLOG_ABOVE(2, "group id:%d,file name:%s,mode:%d", int(group),
                name != nullptr ? name : "(null)", mode);
    if (name == nullptr || name[0] == '\0') {
        QZLOG("invalid para!");
        g_error_no = -2;
        return nullptr;
    }
    if (name_too_long(name)) {
        g_error_no = -2;
        return nullptr;
    }
    if (mode < QZFS_NORMAL_FILE_CREATE || mode > QZFS_NORMAL_FILE_READ) {
        QZLOG_ABOVE(1, "open mode(%d) is invalid!", mode);
        g_error_no = -2;
        return nullptr;
    }
    std::vector<CQzFileSystem*> disks;
    if (!group_disks(group, disks, __func__)) {
        g_error_no = -1;
        return nullptr;
    }
    if (mode != QZFS_NORMAL_FILE_READ && group_has_open(*this, group, name, 2)) {
        QZLOG_ABOVE(1, "other open(%s)", name);
        g_error_no = -3;
        return nullptr;
    }
    CQzFileSystem* fs = disk_holding(disks, name);
    if (fs != nullptr && mode == QZFS_NORMAL_FILE_CREATE) {
        DiskLockGuard disk(*fs);
        fs->delete_normal_file(name);
        fs = nullptr;
    } else if (fs == nullptr && mode >= QZFS_NORMAL_FILE_UPDATE) {
        QZLOG_ABOVE(1, "%s is not exist!", name);
        g_error_no = -4;
        return nullptr;
    }
    if (fs == nullptr && (fs = new_file_disk(group)) == nullptr) {
        g_error_no = -1;
        return nullptr;
    }
    file_handle* handle = open_on_disk(fs, group, name, mode);
    if (handle == nullptr)
        return nullptr;
    {
        ManagerLockGuard manager(gQzfsManager);
        _disk_group_attr_* attr = gQzfsManager.find_group(group);
        if (attr != nullptr)
            attr->open_normal_file_list.push_back(handle);
    }
    g_error_no = 0;
    return handle;
}

int CQzfsApi::qzfs_close_normal_file(void* opened)
{
    file_handle* handle = open_file_handle(opened, __func__);
    if (handle == nullptr)
        return -1;
    int result = -1;
    CQzFileSystem* fs = file_disk(handle, __func__);
    if (fs != nullptr) {
        DiskLockGuard disk(*fs);
        result = fs->close_normal_file(handle);
    }
    {
        ManagerLockGuard manager(gQzfsManager);
        for (auto& group : gQzfsManager.m_disk_group_map)
            group.second.open_normal_file_list.remove(opened);
    }
    delete handle;
    return result;
}

// ------------------------------------------------------------ data

int CQzfsApi::qzfs_write_normal_file(void* opened, char* buffer, int length)
{
    file_handle* handle = open_file_handle(opened, __func__);
    CQzFileSystem* fs = handle != nullptr ? file_disk(handle, __func__) : nullptr;
    if (fs == nullptr)
        return -1;
    if (buffer == nullptr || length < 0) {
        QZLOG("invalid para!");
        return -1;
    }
    if (handle->read_only != 0) {
        // A reading handle may change bytes of the file, not add any.
        const long long size = fs->get_normal_file_size_by_handle(handle);
        const long long at = fs->get_normal_file_cur_offset(handle);
        if (size < at + length) {
            QZLOG("read mode only modify,can not add(file size:%lld, cur offset:%lld, write "
                  "len:%d)!",
                  size, at, length);
            return -1;
        }
        QZLOG("read mode write(file size:%lld, cur offset:%lld, write len:%d)!", size, at,
              length);
    }
    return fs->write_normal_file(handle, buffer, length);
}

int CQzfsApi::qzfs_read_normal_file(void* opened, char* buffer, int length)
{
    file_handle* handle = open_file_handle(opened, __func__);
    CQzFileSystem* fs = handle != nullptr ? file_disk(handle, __func__) : nullptr;
    if (fs == nullptr)
        return -1;
    return fs->read_normal_file(handle, buffer, length);
}

int CQzfsApi::qzfs_sync_normal_file(void* opened)
{
    file_handle* handle = open_file_handle(opened, __func__);
    if (handle == nullptr || handle->read_only != 0)
        return -1;
    CQzFileSystem* fs = file_disk(handle, __func__);
    if (fs == nullptr)
        return -1;
    return fs->sync_normal_file(handle);
}

int CQzfsApi::qzfs_seek_normal_file(void* opened, int offset, int whence)
{
    file_handle* handle = open_file_handle(opened, __func__);
    CQzFileSystem* fs = handle != nullptr ? file_disk(handle, __func__) : nullptr;
    if (fs == nullptr)
        return -1;
    DiskLockGuard disk(*fs);
    return fs->seek_normal_file(handle, (long long)offset, whence);
}

int CQzfsApi::qzfs_get_normal_file_cur_offset(void* opened, long long& offset)
{
    file_handle* handle = open_file_handle(opened, __func__);
    CQzFileSystem* fs = handle != nullptr ? file_disk(handle, __func__) : nullptr;
    if (fs == nullptr)
        return -1;
    offset = fs->get_normal_file_cur_offset(handle);
    return 0;
}

long long CQzfsApi::qzfs_get_normal_file_size_by_handle(void* opened)
{
    file_handle* handle = open_file_handle(opened, __func__);
    CQzFileSystem* fs = handle != nullptr ? file_disk(handle, __func__) : nullptr;
    if (fs == nullptr)
        return -1;
    return fs->get_normal_file_size_by_handle(handle);
}

// ------------------------------------------------------------ by name

long long CQzfsApi::qzfs_get_normal_file_size(unsigned char group, char* name)
{
    std::vector<CQzFileSystem*> disks;
    if (name == nullptr || !group_disks(group, disks, __func__))
        return -1;
    for (CQzFileSystem* fs : disks) {
        DiskLockGuard disk(*fs);
        if (fs->normal_file_is_exist(reinterpret_cast<unsigned char*>(name)) != 1)
            continue;
        unsigned long long size = 0;
        return fs->get_normal_file_size(name, size) == 0 ? (long long)size : -1;
    }
    return -1;
}

int CQzfsApi::qzfs_delete_normal_file(unsigned char group, char* name)
{
    if (name == nullptr) {
        QZLOG("invalid para!");
        return -1;
    }
    std::vector<CQzFileSystem*> disks;
    if (!group_disks(group, disks, __func__))
        return -1;
    if (group_has_open(*this, group, name, 3)) {
        QZLOG("other open(%s)", name);
        return -1;
    }
    for (CQzFileSystem* fs : disks) {
        DiskLockGuard disk(*fs);
        if (fs->normal_file_is_exist(reinterpret_cast<unsigned char*>(name)) == 1)
            fs->delete_normal_file(name);
    }
    return 0;
}

int CQzfsApi::qzfs_rename_normal_file(unsigned char group, char* old_name, char* new_name)
{
    if (old_name == nullptr || new_name == nullptr || new_name[0] == '\0') {
        QZLOG("invalid para!");
        return -1;
    }
    if (name_too_long(new_name))
        return -1;
    std::vector<CQzFileSystem*> disks;
    if (!group_disks(group, disks, __func__))
        return -1;
    if (group_has_open(*this, group, old_name, 3)) {
        QZLOG("other open(%s)", old_name);
        return -1;
    }
    if (disk_holding(disks, new_name) != nullptr) {
        QZLOG("(%s) is exist", new_name);
        return -1;
    }
    int result = -1;
    for (CQzFileSystem* fs : disks) {
        DiskLockGuard disk(*fs);
        if (fs->normal_file_is_exist(reinterpret_cast<unsigned char*>(old_name)) == 1)
            result = fs->rename_normal_file(old_name, new_name);
    }
    return result;
}

// ------------------------------------------------------------ search

void* CQzfsApi::qzfs_get_search_normal_file_handle(unsigned char group, char* pattern)
{
    std::vector<CQzFileSystem*> disks;
    if (!group_disks(group, disks, __func__))
        return nullptr;
    _qzfs_normal_file_search_describe_* search = new _qzfs_normal_file_search_describe_();
    for (CQzFileSystem* fs : disks) {
        DiskLockGuard disk(*fs);
        fs->search_normal_file(pattern, search);
    }
    search->cursor = search->names.begin();
    std::lock_guard<std::mutex> lock(g_search_lock);
    g_search_handles.insert(search);
    return search;
}

int CQzfsApi::qzfs_get_normal_file_name(void* handle, unsigned char step, char* name)
{
    std::lock_guard<std::mutex> lock(g_search_lock);
    if (handle == nullptr || g_search_handles.count(handle) == 0 || name == nullptr)
        return -1;
    if (step > 3) {
        QZLOG("opt mark is error(%d)", int(step));
        return -1;
    }
    _qzfs_normal_file_search_describe_* search =
        static_cast<_qzfs_normal_file_search_describe_*>(handle);
    std::list<std::string>& names = search->names;
    if (names.empty())
        return 0;
    int result = 1;
    if (step == 0) {
        search->cursor = names.begin();
    } else if (step == 1) {
        if (search->cursor == names.end() || ++search->cursor == names.end())
            return 0;
    } else if (step == 2) {
        if (search->cursor == names.begin())
            result = 0;
        else
            --search->cursor;
    } else {
        search->cursor = std::prev(names.end());
    }
    strncpy(name, search->cursor->c_str(), QZFS_FILE_NAME_MAX);
    name[QZFS_FILE_NAME_MAX] = '\0';
    return result;
}

int CQzfsApi::qzfs_release_search_normal_file_handle(void* handle)
{
    std::lock_guard<std::mutex> lock(g_search_lock);
    if (g_search_handles.erase(handle) != 0)
        delete static_cast<_qzfs_normal_file_search_describe_*>(handle);
    return 0;
}
