// CQzfsApi operations that move a reader by byte offset or report its
// position, and the companion reader a writer gets when it is seeked.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

int CQzfsApi::Qzfs_seek_stream_segment_by_offset(int, long long, int)
{
    return -1;
}

int CQzfsApi::Qzfs_stream_segment_tell(int, long long*)
{
    return -1;
}

int CQzfsApi::Qzfs_open_stream_segment_for_write(_k4t_stream_segment_id_*)
{
    return -1;
}
