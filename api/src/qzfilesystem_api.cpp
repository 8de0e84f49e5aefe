/*
 * qzfilesystem_api.cpp - the exported flat functions.
 *
 * Each function is a guard around one member of the single CQzfsApi object:
 * while the library is not initialised it returns its failure value at once
 * and touches nothing; otherwise it forwards and returns the member's result
 * unchanged.  A call holds the disk registry shared while it runs, so that no
 * disk object it may reach is destroyed under it; the calls that add or take
 * out disk objects (format, mount, unmount) take it themselves, exclusively
 * around the change of the table only.  The few that hand out arrays build a
 * std::list through the member and copy it into the caller's array.
 */
#include <stdint.h>
#include <string.h>

#include <list>

#include "qzfilesystem_api.h"
#include "qzfs_api.h"
#include "qzfs_manager.h"

/* The one API object; null while the library is not initialised. */
static CQzfsApi* gQzfsApiInstance = nullptr;

/* Return `not_init` when there is no API object, else the member's result,
 * with the disk registry held shared for the call. */
#define QZFS_API_FORWARD(not_init, call)         \
    do {                                         \
        if (gQzfsApiInstance == nullptr) {       \
            return (not_init);                   \
        }                                        \
        DiskRegistryReadGuard registry;          \
        return gQzfsApiInstance->call;           \
    } while (0)

/* The same for the calls that register or unregister disk objects: they
 * hold the registry themselves. */
#define QZFS_API_FORWARD_REGISTRATION(not_init, call) \
    do {                                              \
        if (gQzfsApiInstance == nullptr) {            \
            return (not_init);                        \
        }                                             \
        return gQzfsApiInstance->call;                \
    } while (0)

/* Copy at most `capacity` elements of `src` into `dst`; the caller reports the
 * full length so that the application can detect truncation. */
template <typename T>
static void copy_list_to_array(const std::list<T>& src, T* dst, int capacity)
{
    if (dst == nullptr || capacity <= 0) {
        return;
    }
    int n = 0;
    for (typename std::list<T>::const_iterator it = src.begin(); it != src.end() && n < capacity; ++it, ++n) {
        memcpy(&dst[n], &*it, sizeof(T));
    }
}

extern "C" {

/* ---- Lifecycle ---------------------------------------------------------- */

int api_qzfs_init(void)
{
    if (gQzfsApiInstance != nullptr) {
        return 0;
    }
    gQzfsApiInstance = new CQzfsApi;
    return gQzfsApiInstance->Qzfs_init();
}

int api_qzfs_uinit(void)
{
    if (gQzfsApiInstance != nullptr) {
        delete gQzfsApiInstance;
        gQzfsApiInstance = nullptr;
    }
    return 0;
}

int api_qzfs_set_debug_level(unsigned long level)
{
    QZFS_API_FORWARD(-1, Qzfs_debug_level(level));
}

int api_qzfs_get_last_error(void)
{
    QZFS_API_FORWARD(-1, Qzfs_get_last_error());
}

/* ---- Disks -------------------------------------------------------------- */

int api_qzfs_rebuild_rely(unsigned char hdd_id, char* dev)
{
    QZFS_API_FORWARD_REGISTRATION(-1, qzfs_rebuild_rely(hdd_id, dev));
}

int api_qzfs_format(unsigned char hdd_id, char* dev, char* label)
{
    QZFS_API_FORWARD_REGISTRATION(-1, Qzfs_format(hdd_id, dev, label));
}

int api_qzfs_fast_format(unsigned char hdd_id, char* dev)
{
    QZFS_API_FORWARD_REGISTRATION(-1, Qzfs_fast_format(hdd_id, dev));
}

int api_qzfs_mount(unsigned char hdd_id, char* dev)
{
    QZFS_API_FORWARD_REGISTRATION(-1, Qzfs_mount(hdd_id, dev));
}

int api_qzfs_mount_for_windows(unsigned char hdd_id, int count, char** devs)
{
    QZFS_API_FORWARD_REGISTRATION(-1, Qzfs_mount_by_partition(hdd_id, count, devs));
}

int api_qzfs_umount(unsigned char hdd_id)
{
    QZFS_API_FORWARD_REGISTRATION(-1, Qzfs_umount(hdd_id));
}

int api_qzfs_get_hdd_info(unsigned char hdd_id, _qzfs_k4t_hdd_info_* info)
{
    QZFS_API_FORWARD(-1, Qzfs_get_hdd_info(hdd_id, info));
}

int api_qzfs_test_hdd(unsigned char hdd_id, unsigned long value)
{
    QZFS_API_FORWARD(-1, Qzfs_test_hdd(hdd_id, value));
}

int api_qzfs_disk_recovery(unsigned char hdd_id, char* dev, _qzfs_k4t_recovery_para_* para)
{
    QZFS_API_FORWARD_REGISTRATION(-1, Qzfs_disk_recovery(hdd_id, dev, para));
}

/* ---- Groups ------------------------------------------------------------- */

int api_qzfs_add_disk_to_group(unsigned char hdd_id, unsigned char group)
{
    QZFS_API_FORWARD(-1, Qzfs_add_disk_to_group(hdd_id, group));
}

int api_qzfs_delete_disk_from_group(unsigned char hdd_id, unsigned char group)
{
    QZFS_API_FORWARD(-1, Qzfs_delete_disk_from_group(hdd_id, group));
}

int api_qzfs_get_disk_num_from_group(unsigned char group)
{
    if (gQzfsApiInstance == nullptr) {
        return -1;
    }
    DiskRegistryReadGuard registry;
    std::list<unsigned char> hdd_ids;
    if (gQzfsApiInstance->Qzfs_get_disk_list_from_group(group, hdd_ids) < 0) {
        return -1;
    }
    return static_cast<int>(hdd_ids.size());
}

int api_qzfs_get_disk_list_from_group(unsigned char group, unsigned char* hdd_ids, int capacity)
{
    if (gQzfsApiInstance == nullptr) {
        return -1;
    }
    DiskRegistryReadGuard registry;
    std::list<unsigned char> list;
    if (gQzfsApiInstance->Qzfs_get_disk_list_from_group(group, list) < 0) {
        return -1;
    }
    copy_list_to_array(list, hdd_ids, capacity);
    return static_cast<int>(list.size());
}

/* ---- Work disk, thresholds and overwrite -------------------------------- */

int api_qzfs_find_work_hdd(unsigned char group, unsigned char* hdd_id)
{
    QZFS_API_FORWARD(-1, Qzfs_find_work_hdd(group, hdd_id));
}

int api_qzfs_config_overwrite(unsigned char group, _qzfs_k4t_hdd_overwrite_config_* config)
{
    QZFS_API_FORWARD(-1, Qzfs_config_overwrite(group, config));
}

int api_qzfs_disk_overwrite_big_stream(int group)
{
    QZFS_API_FORWARD(-1, Qzfs_disk_overwrite_big_stream(group));
}

int api_qzfs_disk_overwrite_small_stream(int group, unsigned long reserve_day)
{
    QZFS_API_FORWARD(-1, Qzfs_disk_overwrite_small_stream(group, reserve_day));
}

/* ---- Stream create, open, seek, close ----------------------------------- */

int api_qzfs_create_stream_segment(_qzfs_k4t_create_ss_para_* para)
{
    QZFS_API_FORWARD(-1, Qzfs_create_stream_segment(para));
}

int api_qzfs_open_stream_segment_by_id(_k4t_stream_segment_id_* id, unsigned short record_type_bitmap,
                                       unsigned char read_flag)
{
    QZFS_API_FORWARD(-1, Qzfs_open_stream_segment(id, record_type_bitmap, read_flag));
}

int api_qzfs_open_stream_segment_by_para(_qzfs_k4t_stream_open_para_* para, unsigned char read_flag)
{
    QZFS_API_FORWARD(-1, Qzfs_open_stream_segment(para, read_flag));
}

int api_qzfs_seek_stream_segment_by_time(int fd, _k4t_fs_date_time_* date_time)
{
    QZFS_API_FORWARD(-1, Qzfs_seek_stream_segment_by_time(fd, date_time));
}

int api_qzfs_seek_stream_segment_by_offset(int fd, long long offset, int whence)
{
    QZFS_API_FORWARD(-1, Qzfs_seek_stream_segment_by_offset(fd, offset, whence));
}

int api_qzfs_stream_segment_tell(int fd, long long* position)
{
    QZFS_API_FORWARD(-1, Qzfs_stream_segment_tell(fd, position));
}

int api_qzfs_close_stream_segment(int fd)
{
    QZFS_API_FORWARD(-1, Qzfs_close_stream_segment(fd));
}

/* ---- Write and read ----------------------------------------------------- */

int api_qzfs_write_video_data(int fd, unsigned char* buffer, int len, int frame_num,
                              _k4t_video_frame_info_* frame_info)
{
    QZFS_API_FORWARD(-1, Qzfs_write_video_data(fd, buffer, len, frame_num, frame_info));
}

int api_qzfs_fsync(int fd)
{
    QZFS_API_FORWARD(-1, Qzfs_fsync(fd));
}

int api_qzfs_read_video_data(int fd, unsigned char* buffer, int len, unsigned char* new_segment)
{
    QZFS_API_FORWARD(-1, Qzfs_read_video_data(fd, buffer, len, new_segment));
}

int api_qzfs_read_next_iframe(int fd, unsigned char skip, unsigned char** buffer, int* len,
                              unsigned char* new_segment)
{
    QZFS_API_FORWARD(-1, Qzfs_read_next_iframe(fd, buffer, len, new_segment, skip));
}

int api_qzfs_read_pre_iframe(int fd, unsigned char skip, unsigned char** buffer, int* len,
                             unsigned char* new_segment)
{
    QZFS_API_FORWARD(-1, Qzfs_read_pre_iframe(fd, buffer, len, new_segment, skip));
}

/* ---- Query -------------------------------------------------------------- */

int api_qzfs_get_query_stream_segment_handle(_k4t_stream_query_* query)
{
    QZFS_API_FORWARD(-1, Qzfs_get_query_stream_segment_handle(query));
}

int api_qzfs_close_query_stream_segment_handle(int handle)
{
    QZFS_API_FORWARD(-1, Qzfs_release_query_stream_segment_handle(handle));
}

int api_qzfs_query_stream_segment(int handle, _k4t_stream_query_cmd_ cmd, int* num,
                                  _k4t_stream_query_result_* result)
{
    QZFS_API_FORWARD(-1, Qzfs_query_stream_segment(handle, cmd, num, result));
}

int api_qzfs_get_total_page_num(int handle)
{
    QZFS_API_FORWARD(-1, Qzfs_get_total_page_num(handle));
}

int api_qzfs_jump_specific_page(int handle, int page, int* num, _k4t_stream_query_result_* result)
{
    QZFS_API_FORWARD(-1, Qzfs_jump_specific_page(handle, page, num, result));
}

int api_qzfs_query_calendar(_k4t_calendar_stream_query_* query)
{
    QZFS_API_FORWARD(-1, Qzfs_query_calendar(query));
}

int api_qzfs_get_stream_date_num(unsigned long group_bitmap, unsigned long long stream_type_bitmap)
{
    if (gQzfsApiInstance == nullptr) {
        return -1;
    }
    DiskRegistryReadGuard registry;
    std::list<_k4t_fs_date_> dates;
    if (gQzfsApiInstance->Qzfs_get_stream_date_list(static_cast<uint32_t>(group_bitmap), stream_type_bitmap,
                                                    dates) < 0) {
        return -1;
    }
    return static_cast<int>(dates.size());
}

int api_qzfs_get_stream_date_list(unsigned long group_bitmap, unsigned long long stream_type_bitmap,
                                  _k4t_fs_date_* dates, int capacity)
{
    if (gQzfsApiInstance == nullptr) {
        return -1;
    }
    DiskRegistryReadGuard registry;
    std::list<_k4t_fs_date_> list;
    if (gQzfsApiInstance->Qzfs_get_stream_date_list(static_cast<uint32_t>(group_bitmap), stream_type_bitmap,
                                                    list) < 0) {
        return -1;
    }
    copy_list_to_array(list, dates, capacity);
    return static_cast<int>(list.size());
}

int api_qzfs_get_stream_date_info_num(unsigned long group_bitmap, unsigned long long stream_type_bitmap,
                                      unsigned long long channel_bitmap)
{
    if (gQzfsApiInstance == nullptr) {
        return -1;
    }
    DiskRegistryReadGuard registry;
    std::list<_k4t_fs_record_date_info_> infos;
    if (gQzfsApiInstance->Qzfs_get_stream_date_info(static_cast<uint32_t>(group_bitmap), stream_type_bitmap,
                                                    channel_bitmap, infos) < 0) {
        return -1;
    }
    return static_cast<int>(infos.size());
}

int api_qzfs_get_stream_date_info(unsigned long group_bitmap, unsigned long long stream_type_bitmap,
                                  unsigned long long channel_bitmap, _k4t_fs_record_date_info_* infos,
                                  int capacity)
{
    if (gQzfsApiInstance == nullptr) {
        return -1;
    }
    DiskRegistryReadGuard registry;
    std::list<_k4t_fs_record_date_info_> list;
    if (gQzfsApiInstance->Qzfs_get_stream_date_info(static_cast<uint32_t>(group_bitmap), stream_type_bitmap,
                                                    channel_bitmap, list) < 0) {
        return -1;
    }
    copy_list_to_array(list, infos, capacity);
    return static_cast<int>(list.size());
}

/* ---- Lock, delete, attributes ------------------------------------------- */

int api_qzfs_stream_segment_lock_by_id(_k4t_stream_segment_id_* id, unsigned char lock_number)
{
    QZFS_API_FORWARD(-1, Qzfs_stream_segment_lock_by_id(id, lock_number));
}

int api_qzfs_stream_segment_lock_by_time(_qzfs_k4t_stream_lock_para_* para, unsigned char lock_number)
{
    QZFS_API_FORWARD(-1, Qzfs_stream_segment_lock_by_time(para, lock_number));
}

int api_qzfs_auto_unlock(_k4t_fs_date_time_* now, int reserve_day)
{
    QZFS_API_FORWARD(-1, Qzfs_auto_unlock(now, reserve_day));
}

int api_qzfs_auto_delete(_k4t_fs_date_time_* now, int reserve_day)
{
    QZFS_API_FORWARD(-1, Qzfs_auto_delete(now, reserve_day));
}

int api_qzfs_delete_stream_segment(_k4t_stream_segment_id_* id)
{
    QZFS_API_FORWARD(-1, Qzfs_delete_stream_segment(id));
}

int api_qzfs_delete_stream_segment_by_para(_qzfs_k4t_delete_para_* para)
{
    QZFS_API_FORWARD(-1, Qzfs_delete_stream_segment_by_para(para));
}

int api_qzfs_get_fd_info(int fd, _k4t_stream_segment_id_* id)
{
    QZFS_API_FORWARD(-1, Qzfs_get_fd_info(fd, id));
}

int api_qzfs_get_stream_segment_info(_k4t_stream_segment_id_* id, _k4t_stream_segment_info_* info)
{
    QZFS_API_FORWARD(-1, Qzfs_get_stream_segment_info(id, info));
}

int api_qzfs_get_stream_segment_data_info(_k4t_stream_segment_id_* id, _k4t_fs_time_* start_time,
                                          _k4t_fs_time_* end_time, unsigned long long* offset,
                                          unsigned long long* len)
{
    QZFS_API_FORWARD(-1, Qzfs_get_stream_segment_data_info(id, start_time, end_time, offset, len));
}

int api_qzfs_modify_pre_record_info(int fd, unsigned char record_type, unsigned long long alarm_type,
                                    unsigned char lock, unsigned long lock_type, _k4t_fs_time_ time)
{
    QZFS_API_FORWARD(-1, qzfs_modify_pre_record_info(fd, record_type, alarm_type, lock, lock_type, time));
}

/* Record type 255 hands nothing over: the segment stays a pre-recording and
 * only its head before `end_time` is dropped. */
int api_qzfs_overwrite_pre_record_stream(int fd, _k4t_fs_time_ end_time)
{
    QZFS_API_FORWARD(-1, qzfs_modify_pre_record_info(fd, 255, 0ULL, 0, 0, end_time));
}

int api_qzfs_modify_stream_segment_end_time(_k4t_stream_segment_id_ id, _k4t_fs_time_ end_time)
{
    QZFS_API_FORWARD(-1, qzfs_modify_stream_segment_end_time(id, end_time));
}

int api_qzfs_modify_stream_segment_info(_qzfs_k4t_modify_segment_para_* para)
{
    QZFS_API_FORWARD(-1, qzfs_modify_stream_segment_info(para));
}

int api_qzfs_modify_stream_segment_info_by_fd(int fd, unsigned char modify_mask, unsigned char lock,
                                              unsigned long lock_type, unsigned char record_type,
                                              unsigned long long alarm_type, _k4t_fs_time_* start_time)
{
    QZFS_API_FORWARD(-1, qzfs_modify_stream_segment_info_by_fd(fd, modify_mask, lock, lock_type, record_type,
                                                               alarm_type, start_time));
}

/* ---- Normal files ------------------------------------------------------- */

void* api_qzfs_open_normal_file(unsigned char group, char* name, int mode)
{
    QZFS_API_FORWARD(nullptr, qzfs_open_normal_file(group, name, mode));
}

int api_qzfs_write_normal_file(void* handle, char* buffer, int length)
{
    QZFS_API_FORWARD(-1, qzfs_write_normal_file(handle, buffer, length));
}

int api_qzfs_read_normal_file(void* handle, char* buffer, int length)
{
    QZFS_API_FORWARD(-1, qzfs_read_normal_file(handle, buffer, length));
}

int api_qzfs_sync_normal_file(void* handle)
{
    QZFS_API_FORWARD(-1, qzfs_sync_normal_file(handle));
}

int api_qzfs_close_normal_file(void* handle)
{
    QZFS_API_FORWARD(-1, qzfs_close_normal_file(handle));
}

int api_qzfs_get_normal_file_cur_offset(void* handle, long long& offset)
{
    QZFS_API_FORWARD(-1, qzfs_get_normal_file_cur_offset(handle, offset));
}

int api_qzfs_seek_normal_file(void* handle, int offset, int whence)
{
    QZFS_API_FORWARD(-1, qzfs_seek_normal_file(handle, offset, whence));
}

long long api_qzfs_get_normal_file_size_by_handle(void* handle)
{
    QZFS_API_FORWARD(-1LL, qzfs_get_normal_file_size_by_handle(handle));
}

long long api_qzfs_get_normal_file_size(unsigned char group, char* name)
{
    QZFS_API_FORWARD(-1LL, qzfs_get_normal_file_size(group, name));
}

int api_qzfs_delete_normal_file(unsigned char group, char* name)
{
    QZFS_API_FORWARD(-1, qzfs_delete_normal_file(group, name));
}

int api_qzfs_rename_normal_file(unsigned char group, char* old_name, char* new_name)
{
    QZFS_API_FORWARD(-1, qzfs_rename_normal_file(group, old_name, new_name));
}

void* api_qzfs_get_search_normal_file_handle(unsigned char group, char* pattern)
{
    QZFS_API_FORWARD(nullptr, qzfs_get_search_normal_file_handle(group, pattern));
}

int api_qzfs_get_normal_file_name(void* handle, unsigned char step, char* name)
{
    QZFS_API_FORWARD(-1, qzfs_get_normal_file_name(handle, step, name));
}

int api_qzfs_release_search_normal_file_handle(void* handle)
{
    QZFS_API_FORWARD(-1, qzfs_release_search_normal_file_handle(handle));
}

/* ---- Device info -------------------------------------------------------- */

int api_qzfs_write_device_info(unsigned char hdd_id, char* data, int length)
{
    QZFS_API_FORWARD(-1, qzfs_write_device_info(hdd_id, data, length));
}

int api_qzfs_write_device_info_to_all_disk(char* data, int length)
{
    QZFS_API_FORWARD(-1, qzfs_write_device_info_to_all_disk(data, length));
}

int api_qzfs_read_device_info(unsigned char hdd_id, char* buffer, int length)
{
    QZFS_API_FORWARD(-1, qzfs_read_device_info(hdd_id, buffer, length));
}

int api_qzfs_get_device_info_len(unsigned char hdd_id)
{
    QZFS_API_FORWARD(-1, qzfs_get_device_info_len(hdd_id));
}

} /* extern "C" */
