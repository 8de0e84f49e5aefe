// CQzfsApi operations of a reader: open by id or by time, sequential read,
// and seek by time.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstring>

namespace {

// A reader that got no descriptor: its state, channel and record go.
void discard_reader(CQzFileSystem* fs, _opened_stream_segment_* oss)
{
    fs->Close_reading_stream_segment(oss);
    Destory_opened_stream_segment(&oss);
}

// Fills the reader state an open leaves to its caller.
void set_reader_request(_opened_stream_segment_* oss, int writer_ossid, uint32_t read_flag,
                        uint8_t channel, uint16_t record_type_bitmap)
{
    _read_stream_segment_* rss = oss->reader();
    rss->ossfd_writing = writer_ossid;
    rss->read_flag = read_flag;
    rss->channel = channel;
    rss->record_type_bitmap = record_type_bitmap;
}

// Gives a reader opened by id its descriptor and the caller's request; the
// disk lock is held. A reader that gets no descriptor is closed and freed:
// -1.
int give_reader_descriptor(CQzFileSystem* fs, _opened_stream_segment_* oss, int writer_ossid,
                           uint32_t read_flag, uint16_t record_type_bitmap)
{
    int ossfd = -1;
    const int disk_ossid = fs->get_free_oss_fd();
    if (disk_ossid < 0 || (ossfd = gQzfsManager.apply_and_set_ossid(disk_ossid)) < 0) {
        QZLOG_AS("Qzfs_open_stream_segment", "gQzfsManager.Get_free_oss_fd failed");
        if (disk_ossid >= 0)
            fs->release_oss_fd(disk_ossid);
        discard_reader(fs, oss);
        return -1;
    }
    fs->set_oss_info(disk_ossid, oss);
    set_reader_request(oss, writer_ossid, read_flag, oss->root()->channel, record_type_bitmap);
    return ossfd;
}

}  // namespace

int CQzfsApi::Qzfs_open_stream_segment(_qzfs_k4t_stream_open_para_* para, uint32_t read_flag)
{
    _opened_stream_segment_* oss = nullptr;
    if (Open_stream_segment(para, read_flag, FS_FIND_AT_OR_NEXT, &oss) != 0) {
        QZLOG("Open_stream_segment failed");
        return -1;
    }
    CQzFileSystem* fs = api_disk(oss->hdd_id, __func__);
    if (fs == nullptr)
        return -1;
    DiskLockGuard disk(*fs);
    int ossfd = -1;
    const int disk_ossid = fs->get_free_oss_fd();
    if (disk_ossid < 0) {
        QZLOG("get disk(%d) free oss fd failed", int(oss->hdd_id));
    } else if ((ossfd = gQzfsManager.apply_and_set_ossid(disk_ossid)) < 0) {
        fs->release_oss_fd(disk_ossid);
        QZLOG("gQzfsManager.apply_and_set_ossid failed");
    } else {
        fs->set_oss_info(disk_ossid, oss);
        QZLOG_ABOVE(0, "(ossfd:%d)(disk ossid:0x%x)(pOss:%08lx)", ossfd, unsigned(disk_ossid),
                    (unsigned long)(uintptr_t)oss);
    }
    if (ossfd < 0)
        discard_reader(fs, oss);
    return ossfd;
}

int CQzfsApi::Qzfs_open_stream_segment(_k4t_stream_segment_id_* id, uint16_t record_type_bitmap,
                                       uint32_t read_flag)
{
    if (id == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    CQzFileSystem* fs = api_usable_disk(id->hdd_id, __func__);
    if (fs == nullptr)
        return -1;
    _opened_stream_segment_* oss = nullptr;
    {
        DiskLockGuard disk(*fs);
        Init_opened_stream_segment(&oss, K4T_FS_TRUE);
        oss->hdd_id = id->hdd_id;
        _opened_stream_segment_* writer = nullptr;
        const int writer_ossid = fs->find_opening_stream_segment_by_id(id, &writer, 2);
        if (fs->Open_stream_segment(id, nullptr, oss, writer) == 0)
            return give_reader_descriptor(fs, oss, writer != nullptr ? writer_ossid : -1,
                                          read_flag, record_type_bitmap);
    }
    QZLOG("pFs->Open_stream_segment failed");
    Destory_opened_stream_segment(&oss);
    return -1;
}

int CQzfsApi::Qzfs_read_video_data(int ossfd, unsigned char* buffer, int len,
                                   unsigned char* new_segment)
{
    return Read_video_data(ossfd, buffer, len, new_segment);
}

// Seek by time inside the reader's segment; the disk lock is taken here.
static int seek_in_segment(resolved_fd& fd, _k4t_fs_date_time_* when)
{
    int result;
    {
        DiskLockGuard disk(*fd.fs);
        const int writing = fd.oss->reader()->ossfd_writing;
        _opened_stream_segment_* writer =
            writing >= 0 ? fd.fs->find_oss_info_by_fd(writing) : nullptr;
        result = fd.fs->Seek_stream_segment(fd.oss, writer, when, FS_FIND_AT_OR_NEXT, 0);
    }
    if (result != 0)
        QZLOG_AS("Qzfs_seek_stream_segment_by_time", "pFs->Seek_stream_segment failed");
    return result;
}

// True when `when` lies in the reader's segment: the live writer's node when
// there is one, else the reader's own.
static bool moment_in_segment(resolved_fd& fd, const _k4t_fs_date_time_& when)
{
    _stream_segment_index_node_dev_ node = *fd.oss->ssi();
    {
        DiskLockGuard disk(*fd.fs);
        const int writing = fd.oss->reader()->ossfd_writing;
        _opened_stream_segment_* writer =
            writing >= 0 ? fd.fs->find_oss_info_by_fd(writing) : nullptr;
        if (writer != nullptr)
            writer_node_snapshot(writer, &node);
    }
    const _root_index_node_dev_* root = fd.oss->root();
    const unsigned t = qzfs_second_of_day(when.hour, when.minute, when.second);
    return root->year == when.year && root->month == when.month && root->day == when.day &&
           qzfs_second_of_day(node.start_hour, node.start_minute, node.start_second) <= t &&
           qzfs_second_of_day(node.end_hour, node.end_minute, node.end_second) >= t;
}

int CQzfsApi::Qzfs_seek_stream_segment_by_time(int ossfd, _k4t_fs_date_time_* when)
{
    if (when == nullptr || !qzfs_date_time_valid(*when) || ossfd < 0) {
        QZLOG("invalid parameter");
        return -1;
    }
    QZLOG_ABOVE(2, "start(fd:%d) SEEK TO:(20%02d-%02d-%02d %02d:%02d:%02d)", ossfd, when->year,
                when->month, when->day, when->hour, when->minute, when->second);
    resolved_fd fd;
    fd.disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    fd.fs = api_disk(qzfs_ossid_hdd(fd.disk_ossid), __func__);
    if (fd.fs == nullptr)
        return -1;
    {
        DiskLockGuard disk(*fd.fs);
        fd.oss = fd.fs->find_oss_info_by_fd(fd.disk_ossid);
    }
    if (fd.oss == nullptr || fd.oss->read_or_write != K4T_FS_TRUE ||
        fd.oss->exist_error == K4T_FS_TRUE) {
        QZLOG("some error(%d)", ossfd);
        return -1;
    }
    _read_stream_segment_* rss = fd.oss->reader();
    rss->debug_first_read = 1;

    int result = -1;
    if (moment_in_segment(fd, *when)) {
        result = seek_in_segment(fd, when);
    } else if (rss->read_flag & QZFS_K4T_OSF_CONTINUE) {
        QZLOG_ABOVE(2, "new segment!");
        _qzfs_k4t_stream_open_para_ para = adjacent_segment_request(fd.oss, true);
        para.date_time = *when;
        _opened_stream_segment_* next = nullptr;
        if (Open_stream_segment(&para, rss->read_flag, FS_FIND_AT_OR_NEXT, &next) != 0) {
            QZLOG(" Open_stream_segment failed");
        } else if (close_old_and_set_new_open_segment_info(ossfd, fd.oss, next) == 0) {
            rss = next->reader();
            result = 0;
        }
    } else {
        QZLOG_ABOVE(1, "Read_video_data (!(pRss->read_flag & QZFS_K4T_OSF_CONTINUE))");
    }
    rss->seek_failed = result == 0 ? 0 : 1;
    QZLOG_ABOVE(2, "CQzfsApi::Qzfs_seek_stream_segment end(fd:%d)(result:%s)", ossfd,
                result == 0 ? "SUCCESS" : "FAILED");
    return result;
}
