// Group thresholds and the choice of the recording disk: not built yet.
#include "qzfs_api.h"

int CQzfsApi::Qzfs_find_work_hdd(unsigned char, unsigned char* hdd_id)
{
    if (hdd_id != nullptr)
        *hdd_id = 255;
    return -1;
}

int CQzfsApi::Qzfs_config_overwrite(unsigned char, const _qzfs_k4t_hdd_overwrite_config_*)
{
    return -1;
}
