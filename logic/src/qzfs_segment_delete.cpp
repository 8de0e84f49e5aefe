// Deletion of a segment by time: not built yet.
#include "qzfilesystem.h"

int CQzFileSystem::delete_stream_segment_by_time(unsigned long, unsigned long, _k4t_fs_time_,
                                                 unsigned char)
{
    return -1;
}
