// CQzfsApi deletion of one recording by its id.
//
// The segment goes whole, under the action journal: a power cut at any of
// its writes leaves it, after the next mount, either as it was or gone. A
// segment open for reading or being recorded is refused and left alone; a
// recording loses its head to the overwrite planner instead.
#include "qzfilesystem.h"
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
