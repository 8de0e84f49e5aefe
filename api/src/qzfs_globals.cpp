// The exported globals other than the registry (qzfs_manager.cpp).
#include "qzfilesystem_api.h"

_qzfs_global_config_ gQzfsConfig;
uint32_t g_qzfs_debug_level = 1;
int32_t g_error_no = 0;
CSystemResourceManager* pgSystemResourceManager = nullptr;
_fs_endian_ gLocal_endian = (_fs_endian_)1;
