// CQzfsApi calendar and date lists: which days hold recordings.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <list>

int CQzfsApi::Qzfs_query_calendar(_k4t_calendar_stream_query_*)
{
    return -1;
}

int CQzfsApi::Qzfs_get_stream_date_list(uint32_t, uint64_t, std::list<_k4t_fs_date_>&)
{
    return -1;
}

int CQzfsApi::Qzfs_get_stream_date_info(uint32_t, uint64_t, uint64_t, std::list<_k4t_fs_record_date_info_>&)
{
    return -1;
}

