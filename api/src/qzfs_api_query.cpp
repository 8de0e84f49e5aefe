// CQzfsApi stream queries: handles, pages and the description of one
// segment.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <list>

int CQzfsApi::Qzfs_get_query_stream_segment_handle(_k4t_stream_query_*)
{
    return -1;
}

int CQzfsApi::Qzfs_release_query_stream_segment_handle(int)
{
    return -1;
}

int CQzfsApi::Qzfs_query_stream_segment(int, _k4t_stream_query_cmd_, int*, _k4t_stream_query_result_*)
{
    return -1;
}

int CQzfsApi::Qzfs_get_total_page_num(int)
{
    return -1;
}

int CQzfsApi::Qzfs_jump_specific_page(int, int, int*, _k4t_stream_query_result_*)
{
    return -1;
}

int CQzfsApi::Qzfs_get_stream_segment_info(const _k4t_stream_segment_id_*, _k4t_stream_segment_info_*)
{
    return -1;
}

int CQzfsApi::Qzfs_get_stream_segment_data_info(const _k4t_stream_segment_id_*, const _k4t_fs_time_*,
                                                const _k4t_fs_time_*, unsigned long long*, unsigned long long*)
{
    return -1;
}

