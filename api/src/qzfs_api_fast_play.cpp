// CQzfsApi I-frame playback: fast forward and fast back, one whole I-frame
// a call.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <list>

int CQzfsApi::Qzfs_read_next_iframe(int, unsigned char**, int*, unsigned char*, unsigned char)
{
    return -1;
}

int CQzfsApi::Qzfs_read_pre_iframe(int, unsigned char**, int*, unsigned char*, unsigned char)
{
    return -1;
}

