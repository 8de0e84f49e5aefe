// Finding the segment that covers a moment, on one disk and over the disks
// of a set of groups, under a find policy.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

int CQzFileSystem::Find_stream_segment(uint8_t, char*, uint8_t, uint16_t, _k4t_fs_date_time_*,
                                       _fs_find_policy_, uint32_t*, uint32_t*,
                                       _stream_segment_index_node_men_*, uint8_t*)
{
    return -1;
}

int CQzfsManager::Find_stream_segment(_qzfs_k4t_stream_open_para_*, _fs_find_policy_,
                                      unsigned char*, uint32_t*, uint32_t*,
                                      _stream_segment_index_node_men_*)
{
    return -1;
}
