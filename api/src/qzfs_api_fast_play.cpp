// CQzfsApi I-frame playback: fast forward and fast back, one whole I-frame
// a call.
#include "qzfilesystem.h"
#include "qzfs_api.h"

int CQzfsApi::Qzfs_read_next_iframe(int ossfd, unsigned char** buffer, int* len,
                                    unsigned char* new_segment, unsigned char skip)
{
    return Read_iframe_data(ossfd, buffer, len, new_segment, K4T_FS_TRUE, skip);
}

int CQzfsApi::Qzfs_read_pre_iframe(int ossfd, unsigned char** buffer, int* len,
                                   unsigned char* new_segment, unsigned char skip)
{
    return Read_iframe_data(ossfd, buffer, len, new_segment, K4T_FS_FALSE, skip);
}
