// CQzfsApi lock and unlock of one whole segment by its id.
//
// After the disk work the group's delete lists are dropped, so that no pass
// takes a victim it listed before the lock, and the rows of open sequence
// queries show the new lock at once.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

namespace {

// The row of `id` in each open sequence query takes the new lock.
void update_query_rows(const _k4t_stream_segment_id_& id, unsigned char lock_number)
{
    const uint8_t lock = lock_number != 0 ? 1 : 0;
    const uint32_t lock_type =
        lock_number >= 1 && lock_number <= 32 ? 1u << (lock_number - 1) : 0;
    ManagerLockGuard manager(gQzfsManager);
    for (auto& handle : gQzfsManager.m_query_handle_map) {
        _stream_segment_query_state_& state = handle.second;
        if (state.query.sequence < 1 || state.query.sequence > 4)
            continue;
        for (auto& row : state.stream_list) {
            if (row.hdd_id == id.hdd_id && row.root_index == id.root_index &&
                row.stream_segment_index == id.stream_segment_index) {
                row.lock = lock;
                row.lock_type = lock_type;
                break;
            }
        }
    }
}

}  // namespace

int CQzfsApi::Qzfs_stream_segment_lock_by_id(_k4t_stream_segment_id_* id,
                                             unsigned char lock_number)
{
    if (id == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    CQzFileSystem* fs = api_usable_disk(id->hdd_id, __func__);
    if (fs == nullptr)
        return -1;
    {
        DiskLockGuard disk(*fs);
        if (fs->Stream_segment_lock_control(id, lock_number) != 0)
            return -1;
    }
    const int group = gQzfsManager.Find_group_id(id->hdd_id);
    if (group >= 0 && group < 32)
        gQzfsManager.Clear_up_delete_list(1ul << group);
    update_query_rows(*id, lock_number);
    return 0;
}
