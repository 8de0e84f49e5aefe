/*
 * qzfs_api.h - CQzfsApi, the object behind the flat api_qzfs_... functions.
 *
 * One instance exists between api_qzfs_init() and api_qzfs_uinit().  It owns
 * nothing: every member turns a descriptor, disk id or group into the disk
 * object through gQzfsManager and works there.  Members return 0 or a count,
 * descriptor or handle on success and a negative value on failure.
 */
#ifndef QZFS_API_INTERNAL_H
#define QZFS_API_INTERNAL_H

#include <stdint.h>

#include <list>

#include "qzfilesystem_api.h"

struct _delete_ss_list_node_;

class CQzfsApi {
public:
    /* Sets the defaults of gQzfsConfig and builds the node caches. */
    CQzfsApi();
    /* Runs Qzfs_uninit(). */
    ~CQzfsApi();

    CQzfsApi(const CQzfsApi&) = delete;
    CQzfsApi& operator=(const CQzfsApi&) = delete;

    /* Lifecycle */
    int Qzfs_init();
    int Qzfs_uninit();
    int Qzfs_debug_level(unsigned long level);
    int Qzfs_get_last_error();

    /* Disks */
    int Qzfs_format(unsigned char hdd_id, char* dev, char* label);
    int Qzfs_fast_format(unsigned char hdd_id, char* dev);
    int qzfs_rebuild_rely(unsigned char hdd_id, char* dev);
    int Qzfs_mount(unsigned char hdd_id, char* dev);
    int Qzfs_mount_by_partition(unsigned char hdd_id, int count, char** devs);
    int Qzfs_umount(unsigned char hdd_id);
    int Qzfs_get_hdd_info(unsigned char hdd_id, _qzfs_k4t_hdd_info_* info);
    int Qzfs_test_hdd(unsigned char hdd_id, unsigned long value);
    int Qzfs_disk_recovery(unsigned char hdd_id, char* path, _qzfs_k4t_recovery_para_* para);

    /* Groups */
    int Qzfs_add_disk_to_group(unsigned char hdd_id, unsigned char group);
    int Qzfs_delete_disk_from_group(unsigned char hdd_id, unsigned char group);
    int Qzfs_get_disk_list_from_group(unsigned char group, std::list<unsigned char>& hdd_ids);

    /* Work disk, thresholds and overwrite */
    int Qzfs_find_work_hdd(unsigned char group, unsigned char* hdd_id);
    int Qzfs_config_overwrite(unsigned char group, const _qzfs_k4t_hdd_overwrite_config_* config);
    int Qzfs_disk_overwrite_big_stream(int group);
    int Qzfs_disk_overwrite_small_stream(int group, unsigned long reserve_day);
    int Qzfs_auto_delete(_k4t_fs_date_time_* now, int reserve_day);
    int Qzfs_auto_unlock(_k4t_fs_date_time_* now, int reserve_day);
    /* One pass: takes victims from `list` (rebuilt when it runs dry) until
     * about the group's once_delete_size bytes went (big streams) or no
     * small stream type holds more than `reserve_day` days. */
    int start_delete_stream(int group, unsigned char big, std::list<_delete_ss_list_node_>& list,
                            unsigned long reserve_day);

    /* Stream create, open, seek, close */
    int Qzfs_create_stream_segment(_qzfs_k4t_create_ss_para_* para);
    int Qzfs_open_stream_segment(_k4t_stream_segment_id_* id, uint16_t record_type_bitmap, uint32_t read_flag);
    int Qzfs_open_stream_segment(_qzfs_k4t_stream_open_para_* para, uint32_t read_flag);
    /* Companion reader of a writer for a write-side seek; returns a disk ossid. */
    int Qzfs_open_stream_segment_for_write(_k4t_stream_segment_id_* id);
    int Qzfs_seek_stream_segment_by_time(int ossfd, _k4t_fs_date_time_* date_time);
    int Qzfs_seek_stream_segment_by_offset(int ossfd, long long offset, int whence);
    int Qzfs_stream_segment_tell(int ossfd, long long* position);
    int Qzfs_close_stream_segment(int ossfd);
    int Qzfs_get_fd_info(int ossfd, _k4t_stream_segment_id_* id);

    /* Write and read */
    int Qzfs_write_video_data(int ossfd, unsigned char* buffer, int len, int frame_num,
                              _k4t_video_frame_info_* frame_info);
    int Qzfs_fsync(int ossfd);
    int Qzfs_read_video_data(int ossfd, unsigned char* buffer, int len, unsigned char* new_segment);
    int Qzfs_read_next_iframe(int ossfd, unsigned char** buffer, int* len, unsigned char* new_segment,
                              unsigned char skip);
    int Qzfs_read_pre_iframe(int ossfd, unsigned char** buffer, int* len, unsigned char* new_segment,
                             unsigned char skip);

    /* Query */
    int Qzfs_get_query_stream_segment_handle(_k4t_stream_query_* query);
    int Qzfs_release_query_stream_segment_handle(int handle);
    int Qzfs_query_stream_segment(int handle, _k4t_stream_query_cmd_ cmd, int* num,
                                  _k4t_stream_query_result_* result);
    int Qzfs_get_total_page_num(int handle);
    int Qzfs_jump_specific_page(int handle, int page, int* num, _k4t_stream_query_result_* result);
    int Qzfs_get_stream_segment_info(const _k4t_stream_segment_id_* id, _k4t_stream_segment_info_* info);
    int Qzfs_get_stream_segment_data_info(const _k4t_stream_segment_id_* id, const _k4t_fs_time_* start_time,
                                          const _k4t_fs_time_* end_time, unsigned long long* offset,
                                          unsigned long long* len);

    /* Calendar and date lists */
    int Qzfs_query_calendar(_k4t_calendar_stream_query_* query);
    int Qzfs_get_stream_date_list(uint32_t group_bitmap, uint64_t stream_type_bitmap,
                                  std::list<_k4t_fs_date_>& dates);
    int Qzfs_get_stream_date_info(uint32_t group_bitmap, uint64_t stream_type_bitmap, uint64_t channel_bitmap,
                                  std::list<_k4t_fs_record_date_info_>& infos);

    /* Lock, delete, attributes */
    int Qzfs_stream_segment_lock_by_id(_k4t_stream_segment_id_* id, unsigned char lock_number);
    int Qzfs_stream_segment_lock_by_time(_qzfs_k4t_stream_lock_para_* para, unsigned char lock_number);
    int Qzfs_delete_stream_segment(_k4t_stream_segment_id_* id);
    int Qzfs_delete_stream_segment_by_para(_qzfs_k4t_delete_para_* para);
    int qzfs_modify_stream_segment_end_time(_k4t_stream_segment_id_ id, _k4t_fs_time_ end_time);
    int qzfs_modify_stream_segment_info(_qzfs_k4t_modify_segment_para_* para);
    int qzfs_modify_stream_segment_info_by_fd(int fd, unsigned char modify_mask, unsigned char lock,
                                              unsigned long lock_type, unsigned char record_type,
                                              unsigned long long alarm_type, _k4t_fs_time_* start_time);
    int qzfs_modify_pre_record_info(int fd, unsigned char record_type, unsigned long long alarm_type,
                                    unsigned char lock, unsigned long lock_type, _k4t_fs_time_ time);

    /* Normal files */
    void* qzfs_open_normal_file(unsigned char group, char* name, int mode);
    int qzfs_close_normal_file(void* handle);
    int qzfs_write_normal_file(void* handle, char* buffer, int length);
    int qzfs_read_normal_file(void* handle, char* buffer, int length);
    int qzfs_sync_normal_file(void* handle);
    int qzfs_seek_normal_file(void* handle, int offset, int whence);
    int qzfs_get_normal_file_cur_offset(void* handle, long long& offset);
    long long qzfs_get_normal_file_size_by_handle(void* handle);
    long long qzfs_get_normal_file_size(unsigned char group, char* name);
    int qzfs_delete_normal_file(unsigned char group, char* name);
    int qzfs_rename_normal_file(unsigned char group, char* old_name, char* new_name);
    void* qzfs_get_search_normal_file_handle(unsigned char group, char* pattern);
    int qzfs_get_normal_file_name(void* handle, unsigned char step, char* name);
    int qzfs_release_search_normal_file_handle(void* handle);
    /* 1 when a handle of `list` has `name` open: mask bit 0 matches reading
     * handles (mode 3), bit 1 writing ones. */
    int qzfs_find_open_normal_file(std::list<void*>& list, char* name, unsigned char mask);

    /* Device info */
    int qzfs_write_device_info(unsigned char hdd_id, char* data, int length);
    int qzfs_write_device_info_to_all_disk(char* data, int length);
    int qzfs_read_device_info(unsigned char hdd_id, char* buffer, int length);
    int qzfs_get_device_info_len(unsigned char hdd_id);
};

#endif /* QZFS_API_INTERNAL_H */
