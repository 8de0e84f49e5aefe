// Seek by time: a reader is placed on the I-frame that the find policy
// names, found by walking the segment's stretch of the I-frame log.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

int CQzFileSystem::Seek_stream_segment(_opened_stream_segment_*, _opened_stream_segment_*,
                                       _k4t_fs_date_time_*, _fs_find_policy_, unsigned long long)
{
    return -1;
}

int CQzFileSystem::Find_iframe_index_fast(_stream_segment_index_node_dev_*, uint32_t, uint32_t*,
                                          uint32_t, _k4t_fs_date_time_*, uint64_t,
                                          _fs_find_policy_, _iframe_index_node_dev_*, uint32_t*,
                                          _iframe_index_node_dev_*, uint64_t*, uint64_t)
{
    return -1;
}

int CQzFileSystem::Find_iframe_index(uint32_t, uint32_t*, uint32_t, _k4t_fs_date_time_*, uint64_t,
                                     _fs_find_policy_, _iframe_index_node_dev_*, uint32_t*,
                                     _iframe_index_node_dev_*, uint64_t*, uint64_t)
{
    return -1;
}
