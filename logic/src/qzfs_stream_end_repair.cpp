// Stream end repair: closes a segment that a power cut left open.
#include "qzfilesystem.h"
#include "qzfs_log.h"

// Not built yet.
int CQzFileSystem::Get_stream_segment_end_info(unsigned long, unsigned long) { return -1; }
