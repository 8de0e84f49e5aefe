// CQzfsApi attribute changes: locks and record types over a time range, on
// a writer's descriptor, the pre-recording's hand-over, and the sweep that
// unlocks by date. Each disk is changed under its disk lock; a change that
// may lock something drops the overwrite planner's delete lists, which hold
// only unlocked segments.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstring>

namespace {

// Runs the change on every disk of the para's groups; the result of the
// last disk, -1 when none was reached, and `empty` when the groups have no
// disk.
int change_on_groups(_qzfs_k4t_modify_segment_para_* para, int empty)
{
    const std::vector<CQzFileSystem*> disks = api_disks_of_groups(para->group_mask);
    if (disks.empty()) {
        QZLOG("group have not disk(0x%lx)", (unsigned long)para->group_mask);
        return empty;
    }
    int result = -1;
    for (CQzFileSystem* fs : disks) {
        DiskLockGuard disk(*fs);
        result = fs->stream_segment_info_change(para);
    }
    return result;
}

bool range_is_valid(const _k4t_fs_date_time_& start, const _k4t_fs_date_time_& end)
{
    if (qzfs_date_time_valid(start) || (start.year == 0 && start.month == 0 && start.day == 0)) {
        if (qzfs_date_time_valid(end) && Compare_date_time(&start, &end) == 2)
            return true;
    }
    QZLOG("time area is invalid!");
    return false;
}

} // namespace

int CQzfsApi::Qzfs_stream_segment_lock_by_time(_qzfs_k4t_stream_lock_para_* para,
                                               unsigned char lock_number)
{
    if (para == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    const _k4t_fs_date_time_& s = para->start_date_time;
    const _k4t_fs_date_time_& e = para->end_date_time;
    QZLOG_ABOVE(0, "group:0x%lx,chn:0x%lx,stream:0x%llx,record type:0x%x [%d-%d-%d %d:%d:%d][%d-%d-%d %d:%d:%d]",
                (unsigned long)para->group_mask, (unsigned long)para->channel_mask,
                (unsigned long long)para->stream_mask, para->record_type, s.year, s.month, s.day,
                s.hour, s.minute, s.second, e.year, e.month, e.day, e.hour, e.minute, e.second);
    if (!range_is_valid(s, e))
        return -1;
    _qzfs_k4t_modify_segment_para_ change;
    memset(&change, 0, sizeof(change));
    change.group_mask = para->group_mask;
    change.channel_mask = para->channel_mask;
    change.stream_mask = para->stream_mask;
    change.start_date_time = s;
    change.end_date_time = e;
    change.modify_mask = 0x01;
    if (lock_number != 0) {
        change.lock = 1;
        change.lock_type = lock_number <= 32 ? 1u << (lock_number - 1) : 0;
    }
    const int result = change_on_groups(&change, 0);
    gQzfsManager.Clear_up_delete_list(para->group_mask);
    return result;
}

int CQzfsApi::qzfs_modify_stream_segment_info(_qzfs_k4t_modify_segment_para_* para)
{
    if (para == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    const _k4t_fs_date_time_& s = para->start_date_time;
    const _k4t_fs_date_time_& e = para->end_date_time;
    QZLOG_ABOVE(0, "group:0x%lx,chn:0x%lx,stream:0x%llx,[%d-%d-%d %d:%d:%d][%d-%d-%d %d:%d:%d]",
                (unsigned long)para->group_mask, (unsigned long)para->channel_mask,
                (unsigned long long)para->stream_mask, s.year, s.month, s.day, s.hour, s.minute,
                s.second, e.year, e.month, e.day, e.hour, e.minute, e.second);
    QZLOG_ABOVE(0, "modify mask:0x%x, record type:%d(alarm:0x%llx), lock:%d(type:0x%lx)",
                para->modify_mask, para->record_type, (unsigned long long)para->alarm_type,
                para->lock, (unsigned long)para->lock_type);
    if (!range_is_valid(s, e))
        return -1;
    if ((para->modify_mask & 0x02) && para->record_type > 15) {
        QZLOG("invalid record type(%d)", para->record_type);
        return -1;
    }
    const int result = change_on_groups(para, -1);
    if (para->lock & 0x01)
        gQzfsManager.Clear_up_delete_list(para->group_mask);
    return result;
}

int CQzfsApi::qzfs_modify_stream_segment_info_by_fd(int fd, unsigned char modify_mask,
                                                    unsigned char lock, unsigned long lock_type,
                                                    unsigned char record_type,
                                                    unsigned long long alarm_type,
                                                    _k4t_fs_time_* start)
{
    QZLOG_ABOVE(0, "ssfd:%d, modify mask:0x%x, lock:%d,lock type:0x%lx, record type:%d,alarm type:0x%llx",
                fd, modify_mask, lock, lock_type, record_type, alarm_type);
    if ((modify_mask & 0x02) && record_type > 15) {
        QZLOG("invalid record type(%d)", record_type);
        return -1;
    }
    resolved_fd r;
    if (!resolve_writer_fd(fd, __func__, r))
        return -1;
    DiskLockGuard disk(*r.fs);
    _k4t_stream_segment_id_ id = {r.oss->hdd_id, r.oss->root_index, r.oss->stream_segment_index};
    if (start == nullptr)
        return r.fs->modify_stream_segment_info_by_id(&id, modify_mask, lock, lock_type,
                                                      record_type, alarm_type) < 0
                   ? -1
                   : 0;
    const _k4t_fs_time_ end_of_day = {23, 59, 59};
    if (r.fs->split_stream_segment_by_time(id.root_index, id.stream_segment_index, *start,
                                           end_of_day, modify_mask, lock, lock_type, record_type,
                                           alarm_type) != 0)
        return -1;
    return r.fs->check_and_modify_root_info(id.root_index, nullptr) < 0 ? -1 : 0;
}

int CQzfsApi::qzfs_modify_pre_record_info(int fd, unsigned char record_type,
                                          unsigned long long alarm_type, unsigned char lock,
                                          unsigned long lock_type, _k4t_fs_time_ time)
{
    if (record_type != 255 && record_type > 15) {
        QZLOG("invalid record type(%d)", record_type);
        return -1;
    }
    resolved_fd r;
    if (!resolve_writer_fd(fd, __func__, r))
        return -1;
    DiskLockGuard disk(*r.fs);
    return r.fs->modify_pre_record_info(r.oss->root_index, r.oss->stream_segment_index,
                                        record_type, alarm_type, lock, lock_type, time);
}

int CQzfsApi::Qzfs_auto_unlock(_k4t_fs_date_time_* now, int reserve_day)
{
    if (now == nullptr || !qzfs_date_time_valid(*now) || reserve_day < 0) {
        QZLOG("para is invalid(%d-%d-%d %d:%d:%d), reserve day:%d!", now ? now->year : -1,
              now ? now->month : -1, now ? now->day : -1, now ? now->hour : -1,
              now ? now->minute : -1, now ? now->second : -1, reserve_day);
        return -1;
    }
    _qzfs_k4t_stream_lock_para_ para;
    memset(&para, 0, sizeof(para));
    para.group_mask = 0xFFFFFFFFu;
    para.channel_mask = 0xFFFFFFFFu;
    para.stream_mask = 0xFFFFFFFFu;
    para.record_type = 0xFFFF;
    _k4t_fs_date_time_& end = para.end_date_time;
    if (reserve_day == 0) {
        QZLOG_ABOVE(0, "reserve day == 0, so unlock all record!");
        end.year = 99;
        end.month = 12;
        end.day = 31;
    } else {
        end = *now;
        Date_time_add(now, -(long long)(reserve_day + 1) * 86400, &end);
    }
    end.hour = 23;
    end.minute = 59;
    end.second = 59;
    return Qzfs_stream_segment_lock_by_time(&para, 0);
}
