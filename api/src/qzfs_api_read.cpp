// CQzfsApi operations of a reader: open by id or by time, sequential read,
// and seek by time.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

int CQzfsApi::Qzfs_open_stream_segment(_k4t_stream_segment_id_*, uint16_t, uint32_t)
{
    return -1;
}

int CQzfsApi::Qzfs_open_stream_segment(_qzfs_k4t_stream_open_para_*, uint32_t)
{
    return -1;
}

int CQzfsApi::Qzfs_read_video_data(int, unsigned char*, int, unsigned char*)
{
    return -1;
}

int CQzfsApi::Qzfs_seek_stream_segment_by_time(int, _k4t_fs_date_time_*)
{
    return -1;
}
