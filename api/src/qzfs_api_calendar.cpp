// CQzfsApi calendar and date lists: which days hold recordings.
//
// Each call walks the disks of the chosen groups in ascending hdd_id, one
// disk lock at a time, and hands every disk the same table or list, so that
// the days of all disks merge. One disk's failure is logged and skipped.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstring>
#include <list>

namespace {

// Calls `walk(fs)` under the disk lock of every disk of `disks` that has a
// file system, in ascending hdd_id; `what` names the member in the failure
// line.
template <typename Walk>
void for_each_disk(unsigned long disks, const char* what, Walk walk)
{
    for (unsigned id = 0; id < 32; id++) {
        if (((disks >> id) & 1u) == 0)
            continue;
        CQzFileSystem* fs = gQzfsManager.get_file_system((unsigned char)id);
        if (fs == nullptr)
            continue;
        int result;
        {
            DiskLockGuard disk(*fs);
            result = walk(fs);
        }
        if (result != 0)
            QZLOG_ABOVE(1, "%s failed(hdd_id:%d)", what, int(id));
    }
}

}  // namespace

int CQzfsApi::Qzfs_query_calendar(_k4t_calendar_stream_query_* query)
{
    if (query == nullptr || query->channel_bitmap == 0 || query->record_type_bitmap == 0 ||
        query->year > 99 || query->month < 1 || query->month > 12) {
        QZLOG("invalid parameter");
        return -1;
    }
    unsigned char max_day = 0;
    if (Get_max_day(query->year, query->month, &max_day) != 1) {
        QZLOG("Get_max_day(year:%d)(month:%d)", int(query->year), int(query->month));
        return -1;
    }
    QZLOG_ABOVE(2, "(channel_bitmap:%08lx)(record_type_bitmap:%04x)(20%02d-%02d)(stream type:0x%llx)",
                (unsigned long)query->channel_bitmap, unsigned(query->record_type_bitmap),
                int(query->year), int(query->month), (unsigned long long)query->stream_type_bitmap);
    memset(query->day_info, 0, sizeof(query->day_info));
    const unsigned long disks = gQzfsManager.disks_of_groups(query->group_bitmap);
    if (disks == 0) {
        QZLOG_ABOVE(1, "group have not disk(0x%lx)", (unsigned long)query->group_bitmap);
        return -1;
    }
    for_each_disk(disks, "Query_calendar", [query](CQzFileSystem* fs) { return fs->Query_calendar(query); });
    return 0;
}

int CQzfsApi::Qzfs_get_stream_date_list(uint32_t group_bitmap, uint64_t stream_type_bitmap,
                                        std::list<_k4t_fs_date_>& dates)
{
    const unsigned long disks = gQzfsManager.disks_of_groups(group_bitmap);
    if (disks == 0) {
        QZLOG_ABOVE(2, "group have not disk(0x%lx)", (unsigned long)group_bitmap);
        return -1;
    }
    dates.clear();
    for_each_disk(disks, "Get_record_date_list", [&](CQzFileSystem* fs) {
        return fs->Get_record_date_list(stream_type_bitmap, dates);
    });
    return 0;
}

int CQzfsApi::Qzfs_get_stream_date_info(uint32_t group_bitmap, uint64_t stream_type_bitmap,
                                        uint64_t channel_bitmap,
                                        std::list<_k4t_fs_record_date_info_>& infos)
{
    const unsigned long disks = gQzfsManager.disks_of_groups(group_bitmap);
    if (disks == 0) {
        QZLOG_ABOVE(2, "group have not disk(0x%lx)", (unsigned long)group_bitmap);
        return -1;
    }
    infos.clear();
    for_each_disk(disks, "Get_record_date_info", [&](CQzFileSystem* fs) {
        return fs->Get_record_date_info(stream_type_bitmap, channel_bitmap, infos);
    });
    return 0;
}
