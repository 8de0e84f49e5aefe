// Opening a segment for reading, and moving a descriptor's reader to
// another segment.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

int Open_stream_segment(_qzfs_k4t_stream_open_para_*, uint32_t, _fs_find_policy_,
                        _opened_stream_segment_**)
{
    return -1;
}

int CQzFileSystem::Open_stream_segment(const _k4t_stream_segment_id_*, _k4t_fs_date_time_*,
                                       _opened_stream_segment_*, _opened_stream_segment_*)
{
    return -1;
}

int close_old_and_set_new_open_segment_info(int, _opened_stream_segment_*,
                                            _opened_stream_segment_*)
{
    return -1;
}
