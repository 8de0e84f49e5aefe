// CQzfsApi stream operations of a writer: create, write, fsync, close, and
// what a descriptor names.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <unistd.h>

namespace {

bool frame_infos_valid(int ossfd, int len, int frame_num, const _k4t_video_frame_info_* infos)
{
    for (int i = 0; i < frame_num; i++) {
        const _k4t_video_frame_info_& f = infos[i];
        if (f.offset < uint32_t(len) && f.hour <= 23 && f.minute <= 59 && f.second <= 59)
            continue;
        QZLOG_AS("Qzfs_write_video_data",
                 "INVALID PARAMETER(fd:%d)(len:%d)(offset:%ld)(%02d:%02d:%02d)", ossfd, len,
                 long(f.offset), int(f.hour), int(f.minute), int(f.second));
        return false;
    }
    return true;
}

// The disk on which group `group_id` records, read under the manager lock;
// false when the group does not exist.
bool current_record_disk(int group_id, uint8_t& hdd_id)
{
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* group = gQzfsManager.find_group(uint8_t(group_id));
    hdd_id = group != nullptr ? group->m_current_record_hdd_id : QZFS_NO_HDD;
    return group != nullptr;
}

}  // namespace

CQzFileSystem* api_disk(unsigned hdd_id, const char* func)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(uint8_t(hdd_id));
    if (fs == nullptr)
        QZLOG_AS(func, "gQzfsManager.get_file_system failed(hdd_id:%d)", int(hdd_id));
    return fs;
}

CQzFileSystem* api_usable_disk(unsigned hdd_id, const char* func)
{
    CQzFileSystem* fs = api_disk(hdd_id, func);
    if (fs != nullptr && fs->Get_hdd_state() == QZFSS_FORMATING) {
        QZLOG_AS(func, "Formatting(hdd_id:%d)", int(hdd_id));
        return nullptr;
    }
    return fs;
}

std::vector<CQzFileSystem*> api_disks_of_groups(uint32_t group_mask)
{
    unsigned long disks = 0;
    for (int group = 0; group < 32; group++) {
        unsigned long members = 0;
        if (((group_mask >> group) & 1u) != 0 && gQzfsManager.group_members(group, members))
            disks |= members;
    }
    return gQzfsManager.mounted_disks(disks);
}

// ossfd -> disk ossid -> disk -> open record. `func` names the caller in
// the messages. The record is looked up without the disk lock: the caller
// owns the descriptor.
bool resolve_fd(int ossfd, const char* func, resolved_fd& out)
{
    out.disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    out.fs = api_disk(qzfs_ossid_hdd(out.disk_ossid), func);
    if (out.fs == nullptr)
        return false;
    out.oss = out.fs->find_oss_info_by_fd(out.disk_ossid);
    if (out.oss == nullptr) {
        QZLOG_AS(func, "invalid ssfd(%d)", ossfd);
        return false;
    }
    return true;
}

// The same for a call that only a writer may make.
bool resolve_writer_fd(int ossfd, const char* func, resolved_fd& out)
{
    if (!resolve_fd(ossfd, func, out))
        return false;
    if (out.oss->read_or_write == K4T_FS_FALSE)
        return true;
    QZLOG_AS(func, "(pOss->read_or_write != K4T_FS_FALSE)");
    return false;
}


// Gives a new writer its descriptor; the disk lock is held. A writer that
// gets none is closed and freed, and -1 returned: its segment node stays,
// blank, since its close never comes.
static int give_writer_descriptor(CQzFileSystem* fs, _opened_stream_segment_* oss)
{
    int ossfd = -1;
    const int disk_ossid = fs->get_free_oss_fd();
    if (disk_ossid < 0) {
        QZLOG_AS("Qzfs_create_stream_segment", "get disk(%d) free oss fd failed",
                 int(oss->hdd_id));
    } else if ((ossfd = gQzfsManager.apply_and_set_ossid(disk_ossid)) < 0) {
        fs->release_oss_fd(disk_ossid);
        QZLOG_AS("Qzfs_create_stream_segment", "gQzfsManager.apply_and_set_ossid failed");
    } else {
        fs->set_oss_info(disk_ossid, oss);
        return ossfd;
    }
    fs->Close_writing_stream_segment(oss);
    _write_stream_segment_* wss = oss->writer();
    Destory_write_stream_segment(&wss);
    Destory_opened_stream_segment(&oss);
    return -1;
}

int CQzfsApi::Qzfs_create_stream_segment(_qzfs_k4t_create_ss_para_* para)
{
    if (para == nullptr || Check_qzfs_create_ss_para(para) != 0) {
        QZLOG("Check_qzfs_create_ss_para failed");
        return -1;
    }
    uint8_t hdd_id = QZFS_NO_HDD;
    const bool group_found = current_record_disk(para->group_id, hdd_id);
    if (!group_found || para->group_id < 0 || para->group_id > 255) {
        QZLOG("Group %d is invalid!", int(para->group_id));
        return -1;
    }
    if (hdd_id >= QZFS_NO_HDD) {
        QZLOG("(hdd_id == 0xff)");
        return -1;
    }
    CQzFileSystem* fs = api_disk(hdd_id, __func__);
    if (fs == nullptr)
        return -1;

    int ossfd = -1;
    {
        DiskLockGuard disk(*fs);
        _opened_stream_segment_* oss = nullptr;
        Init_opened_stream_segment(&oss, K4T_FS_FALSE);
        oss->hdd_id = hdd_id;
        if (fs->Create_stream_segment(para, oss, QZFS_STREAM_IMPORTANCE_NORMAL) != 0) {
            QZLOG("pFs->Create_stream_segment failed");
            Destory_opened_stream_segment(&oss);
        } else {
            ossfd = give_writer_descriptor(fs, oss);
        }
    }
    if (ossfd < 0)
        usleep(50000);
    return ossfd;
}

int CQzfsApi::Qzfs_write_video_data(int ossfd, unsigned char* buffer, int len, int frame_num,
                                    _k4t_video_frame_info_* frame_info)
{
    if (buffer == nullptr || ossfd < 0 || len < 1 || (frame_info == nullptr && frame_num > 0)) {
        QZLOG(" invalid parameter(ssfd:%d)(pBuffer:%08lx)(len:%d)(FrameNum:%d)(pVdi:%08lx)", ossfd,
              (unsigned long)(uintptr_t)buffer, len, frame_num,
              (unsigned long)(uintptr_t)frame_info);
        return -1;
    }
    if (!frame_infos_valid(ossfd, len, frame_num, frame_info))
        return -1;
    resolved_fd fd;
    if (!resolve_writer_fd(ossfd, __func__, fd))
        return -1;
    if (fd.oss->exist_error == K4T_FS_TRUE) {
        QZLOG("(pOss->exist_error == K4T_FS_TRUE)");
        return -1;
    }
    _write_stream_segment_* wss = fd.oss->writer();
    if (wss->seek_ossfd < 0)
        return fd.fs->Write_video_data(fd.oss, buffer, len, frame_num, frame_info);

    _opened_stream_segment_* reader = fd.fs->find_oss_info_by_fd(wss->seek_ossfd);
    if (reader == nullptr) {
        QZLOG("invalid ssfd(%d)", wss->seek_ossfd);
        return -1;
    }
    _read_stream_segment_* rss = reader->reader();
    const uint64_t live_len = fd.oss->ssi()->len_in_bytes - wss->delete_len;
    if (rss->block_index == wss->block_index && rss->block_offset == wss->block_offset) {
        int result = fd.fs->Write_video_data(fd.oss, buffer, len, frame_num, frame_info);
        rss->block_index = wss->block_index;
        rss->block_offset = wss->block_offset;
        rss->already_read_len = fd.oss->ssi()->len_in_bytes - wss->delete_len;
        return result;
    }
    if (rss->already_read_len + uint64_t(len) > live_len) {
        QZLOG("len is invalid(already_read_len:%llu, len:%d, stream len:%llu)",
              (unsigned long long)rss->already_read_len, len, (unsigned long long)live_len);
        return -1;
    }
    return fd.fs->seek_write_video_data(reader, buffer, len, fd.oss);
}

int CQzfsApi::Qzfs_fsync(int ossfd)
{
    resolved_fd fd;
    if (!resolve_writer_fd(ossfd, __func__, fd))
        return -1;
    int result;
    {
        DiskLockGuard disk(*fd.fs);
        result = fd.fs->fsync_segment_data(fd.oss);
    }
    if (fd.fs->fsync_stream_segment(fd.oss) != 0)
        result = -1;
    return result;
}

// Ends a writer: its companion reader, its node, the readers that follow
// it, and its state. The disk lock is held.
static void close_writer(CQzFileSystem* fs, _opened_stream_segment_* oss)
{
    _write_stream_segment_* wss = oss->writer();
    if (wss->seek_ossfd >= 0) {
        _opened_stream_segment_* companion = fs->find_oss_info_by_fd(wss->seek_ossfd);
        if (companion == nullptr) {
            QZLOG_AS("Qzfs_close_stream_segment", "invalid ssfd(%d)", wss->seek_ossfd);
        } else {
            fs->Close_reading_stream_segment(companion);
            Destory_opened_stream_segment(&companion);
        }
        fs->release_oss_fd(wss->seek_ossfd);
    }
    fs->Close_writing_stream_segment(oss);
    fs->clear_read_stream_segment_writing_flag(oss);
    Destory_write_stream_segment(&wss);
    oss->state = nullptr;
}

int CQzfsApi::Qzfs_close_stream_segment(int ossfd)
{
    QZLOG_ABOVE(2, "START(fd:%d)", ossfd);
    const int disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    CQzFileSystem* fs = api_disk(qzfs_ossid_hdd(disk_ossid), __func__);
    if (fs != nullptr) {
        DiskLockGuard disk(*fs);
        _opened_stream_segment_* oss = fs->find_oss_info_by_fd(disk_ossid);
        if (oss == nullptr) {
            QZLOG("invalid ssfd(%d)", ossfd);
        } else {
            // From here on the segment no longer counts as being written.
            fs->set_oss_info(disk_ossid, nullptr);
            if (oss->read_or_write == K4T_FS_TRUE)
                fs->Close_reading_stream_segment(oss);
            else
                close_writer(fs, oss);
        }
        fs->release_oss_fd(disk_ossid);
        if (oss != nullptr && oss->ssi()->id == PRE_RECORD_STREAM_SEGMENT_INDEX &&
            oss->read_or_write == K4T_FS_FALSE) {
            QZLOG_ABOVE(0, "delete pre record stream segment!");
            const _stream_segment_index_node_dev_* ssi = oss->ssi();
            _k4t_fs_time_ start = {ssi->start_hour, ssi->start_minute, ssi->start_second};
            fs->delete_stream_segment_by_time(oss->root_index, oss->stream_segment_index, start, 1);
        }
        Destory_opened_stream_segment(&oss);
        QZLOG_ABOVE(2, "erase %d from open list", disk_ossid);
    }
    gQzfsManager.free_ossid(ossfd);
    QZLOG_ABOVE(2, "END(fd:%d)(ret_val:%d)", ossfd, 0);
    return 0;
}

int CQzfsApi::Qzfs_get_fd_info(int ossfd, _k4t_stream_segment_id_* id)
{
    const int disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    _opened_stream_segment_* oss = nullptr;
    CQzFileSystem* fs = gQzfsManager.get_file_system(qzfs_ossid_hdd(disk_ossid));
    if (fs == nullptr) {
        QZLOG("gQzfsManager.get_file_system failed(pOss->hdd_id:%d)", int(qzfs_ossid_hdd(disk_ossid)));
        return -1;
    }
    {
        DiskLockGuard disk(*fs);
        oss = fs->find_oss_info_by_fd(disk_ossid);
        if (oss != nullptr && id != nullptr) {
            id->hdd_id = oss->hdd_id;
            id->root_index = oss->root_index;
            id->stream_segment_index = oss->stream_segment_index;
        }
    }
    if (oss == nullptr) {
        QZLOG("invalid ssfd(%d)", ossfd);
        return -1;
    }
    return 0;
}
