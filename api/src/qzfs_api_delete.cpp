// CQzfsApi deletion: one recording by its id, the recordings of chosen
// channels, stream types and days, and the end of a recording moved back.
//
// Every removal runs under the action journal: a power cut at any of its
// writes leaves the segment, after the next mount, either as it was or as
// the change left it. A segment open for reading or being recorded is
// refused and left alone; a recording loses its head to the overwrite
// planner instead.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"

int CQzfsApi::Qzfs_delete_stream_segment(_k4t_stream_segment_id_* id)
{
    if (id == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    CQzFileSystem* fs = api_usable_disk(id->hdd_id, __func__);
    if (fs == nullptr)
        return -1;
    // The disk lock keeps the writers, readers and planner of this disk out
    // for the length of the delete.
    DiskLockGuard disk(*fs);
    _opened_stream_segment_* writer = nullptr;
    if (fs->find_opening_stream_segment_by_id(id, &writer, 2) >= 0 && writer != nullptr) {
        QZLOG("this is recording stream segment,can not delete(%d)(%lu)(%lu)", int(id->hdd_id),
              (unsigned long)id->root_index, (unsigned long)id->stream_segment_index);
        return -1;
    }
    if (fs->find_opening_stream_segment_by_id(id, nullptr, 1) >= 0) {
        QZLOG("stream segment is opened for reading,can not delete(%d)(%lu)(%lu)",
              int(id->hdd_id), (unsigned long)id->root_index,
              (unsigned long)id->stream_segment_index);
        return -1;
    }
    _k4t_stream_segment_info_ info;
    if (fs->Get_stream_segment_info(id->root_index, id->stream_segment_index, &info) != 0) {
        QZLOG("Get_stream_segment_info failed(%d)(%lu)(%lu)", int(id->hdd_id),
              (unsigned long)id->root_index, (unsigned long)id->stream_segment_index);
        return -1;
    }
    unsigned long long deleted = 0;
    unsigned char whole = 0, root_deleted = 0;
    const int result = fs->Delete_stream_segment(id->root_index, id->stream_segment_index, nullptr,
                                                 info.len, &deleted, &whole, nullptr, nullptr,
                                                 &root_deleted);
    if (result != 0 || whole == 0)
        return -1;
    return 0;
}

int CQzfsApi::Qzfs_delete_stream_segment_by_para(_qzfs_k4t_delete_para_* para)
{
    if (para == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    const std::vector<CQzFileSystem*> targets = api_disks_of_groups(para->group_mask);
    if (targets.empty()) {
        QZLOG("group have not disk(0x%lx)", (unsigned long)para->group_mask);
        return 0;
    }
    // At most 8 counted roots a disk and call; the application repeats the
    // call until nothing is left to do.
    int total = 0;
    for (CQzFileSystem* fs : targets) {
        DiskLockGuard disk(*fs);
        const int count = fs->delete_stream_segment_by_para(para, 8);
        if (count > 0)
            total += count;
    }
    if (total > 0) {
        QZLOG_ABOVE(0, "delete num is %d", total);
        gQzfsManager.Clear_up_delete_list(para->group_mask);
    }
    return -1;
}

int CQzfsApi::qzfs_modify_stream_segment_end_time(_k4t_stream_segment_id_ id, _k4t_fs_time_ time)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(id.hdd_id);
    if (fs == nullptr) {
        QZLOG("gQzfsManager.get_file_system failed(pOss->hdd_id:%d)", int(id.hdd_id));
        return -1;
    }
    if (!qzfs_time_valid(time)) {
        QZLOG("invalid time(%d:%d:%d)", time.hour, time.minute, time.second);
        return -1;
    }
    DiskLockGuard disk(*fs);
    // A reader may stand in the tail that goes.
    if (fs->find_opening_stream_segment_by_id(&id, nullptr, 1) >= 0) {
        QZLOG("stream segment is opened for reading,can not delete(%d)(%lu)(%lu)", int(id.hdd_id),
              (unsigned long)id.root_index, (unsigned long)id.stream_segment_index);
        return -1;
    }
    return fs->delete_stream_segment_by_time(id.root_index, id.stream_segment_index, time, 1) < 0
               ? -1
               : 0;
}
