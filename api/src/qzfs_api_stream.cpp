// Stream descriptors of the flat interface: not built yet.
#include "qzfs_api.h"

int CQzfsApi::Qzfs_create_stream_segment(_qzfs_k4t_create_ss_para_*) { return -1; }
int CQzfsApi::Qzfs_close_stream_segment(int) { return -1; }
int CQzfsApi::Qzfs_get_fd_info(int, _k4t_stream_segment_id_*) { return -1; }
int CQzfsApi::Qzfs_write_video_data(int, unsigned char*, int, int, _k4t_video_frame_info_*) { return -1; }
int CQzfsApi::Qzfs_fsync(int) { return -1; }
