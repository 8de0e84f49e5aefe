// I-frame playback: fast forward and fast back, one whole I-frame a call,
// found through the I-frame index.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"
