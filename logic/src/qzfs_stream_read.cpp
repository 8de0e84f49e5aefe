// Sequential read: the bytes of a segment from the read position, in the
// caller's chunk sizes, block by block in the order the I-frame log gives.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"

int Read_video_data(int, uint8_t*, int, uint8_t*)
{
    return -1;
}

int CQzFileSystem::Read_video_data(_opened_stream_segment_*, uint8_t*, int,
                                   _opened_stream_segment_*)
{
    return -1;
}

int CQzFileSystem::Find_next_block_for_reading(_opened_stream_segment_*, _opened_stream_segment_*,
                                               bool)
{
    return -1;
}

uint64_t CQzFileSystem::reader_stream_limit(_opened_stream_segment_*, _opened_stream_segment_*)
{
    return 0;
}
