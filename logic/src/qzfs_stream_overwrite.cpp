// Overwriting inside a live segment, at the position of the writer's
// companion reader (a writer that has been seeked).
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

int CQzFileSystem::seek_write_video_data(_opened_stream_segment_*, uint8_t*, int,
                                         _opened_stream_segment_*)
{
    return -1;
}
