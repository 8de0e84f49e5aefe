// CQzfsApi operations that move a reader by byte offset or report its
// position, and the companion reader a writer gets when it is seeked.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstdio>

namespace {

// The disk of a descriptor, or null with the message of the calling function.
CQzFileSystem* disk_of_fd(int ossfd, const char* func, int& disk_ossid)
{
    disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    return api_disk(qzfs_ossid_hdd(disk_ossid), func);
}

// What a seek by offset needs of a descriptor's open record, read under the
// disk lock.
struct seek_view {
    _opened_stream_segment_* oss = nullptr;
    bool usable = false;     // open and free of errors
    bool is_writer = false;
    _k4t_stream_segment_id_ id = {0, 0, 0};
};

seek_view read_seek_view(CQzFileSystem* fs, int disk_ossid)
{
    DiskLockGuard disk(*fs);
    seek_view view;
    view.oss = fs->find_oss_info_by_fd(disk_ossid);
    view.usable = view.oss != nullptr && view.oss->exist_error != K4T_FS_TRUE;
    view.is_writer = view.usable && view.oss->read_or_write == K4T_FS_FALSE;
    if (view.usable) {
        if (g_qzfs_debug_level > 2)
            QZLOG_AS("Qzfs_seek_stream_segment_by_offset", "seek read:%d",
                     int(view.oss->read_or_write));
        view.id.hdd_id = view.oss->hdd_id;
        view.id.root_index = view.oss->root_index;
        view.id.stream_segment_index = view.oss->stream_segment_index;
    }
    return view;
}

}  // namespace

int CQzfsApi::Qzfs_seek_stream_segment_by_offset(int ossfd, long long offset, int whence)
{
    if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END)
        return -1;
    if (whence == SEEK_CUR && offset == 0) {
        QZLOG_ABOVE(2, " SEEK_CUR (offset == 0)");
        return 0;
    }
    QZLOG_ABOVE(3, "start(fd:%d) SEEK TO:(%d, %lld)", ossfd, whence, offset);

    int disk_ossid = -1;
    CQzFileSystem* fs = disk_of_fd(ossfd, __func__, disk_ossid);
    if (fs == nullptr)
        return -1;
    seek_view view = read_seek_view(fs, disk_ossid);
    if (!view.usable) {
        QZLOG("some error(%d)", ossfd);
        return -1;
    }
    _opened_stream_segment_* oss = view.oss;

    // A writer is seeked through its companion reader, made at its first seek.
    if (view.is_writer && oss->writer()->seek_ossfd < 0) {
        const int companion = Qzfs_open_stream_segment_for_write(&view.id);
        if (companion < 0)
            return -1;
        oss->writer()->seek_ossfd = companion;
        QZLOG_ABOVE(2, "this is write seek %d(read:%d)", companion, int(oss->read_or_write));
    }

    _opened_stream_segment_* target = oss;
    int result = -1;
    {
        DiskLockGuard disk(*fs);
        if (view.is_writer)
            target = fs->find_oss_info_by_fd(oss->writer()->seek_ossfd);
        if (target != nullptr)
            result = fs->Seek_stream_segment(target, offset, whence);
    }
    if (target == nullptr) {
        QZLOG("invalid ssfd(%d)", oss->writer()->seek_ossfd);
        return -1;
    }
    QZLOG_ABOVE(3, "end(fd:%d) SEEK TO:(%d, %lld)", ossfd, whence, offset);
    return result;
}

int CQzfsApi::Qzfs_stream_segment_tell(int ossfd, long long* position)
{
    int disk_ossid = -1;
    CQzFileSystem* fs = disk_of_fd(ossfd, __func__, disk_ossid);
    if (fs == nullptr)
        return -1;
    DiskLockGuard disk(*fs);
    _opened_stream_segment_* oss = fs->find_oss_info_by_fd(disk_ossid);
    if (oss == nullptr) {
        QZLOG("invalid ssfd(%d)", ossfd);
        return -1;
    }
    if (oss->read_or_write != K4T_FS_TRUE || oss->exist_error == K4T_FS_TRUE) {
        QZLOG("((pOss->read_or_write != K4T_FS_TRUE) || (pOss->exist_error == K4T_FS_TRUE))(%d)",
              ossfd);
        return -1;
    }
    if (position != nullptr) {
        // Bytes in the cache that the caller has not had yet are not behind
        // the position.
        const _read_stream_segment_* rss = oss->reader();
        uint64_t at = rss->already_read_len;
        if (rss->cache_len > rss->cache_ptr)
            at -= rss->cache_len - rss->cache_ptr;
        *position = (long long)at;
    }
    return 0;
}

int CQzfsApi::Qzfs_open_stream_segment_for_write(_k4t_stream_segment_id_* id)
{
    if (id == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    CQzFileSystem* fs = api_disk(id->hdd_id, __func__);
    if (fs == nullptr)
        return -1;
    DiskLockGuard disk(*fs);
    _opened_stream_segment_* writer = nullptr;
    const int writer_ossid = fs->find_opening_stream_segment_by_id(id, &writer, 2);
    QZLOG("ossfd_writing:%d", writer_ossid);
    if (writer_ossid < 0 || writer == nullptr) {
        QZLOG("find_opening_stream_segment_by_id failed");
        return -1;
    }
    _opened_stream_segment_* oss = nullptr;
    Init_opened_stream_segment(&oss, K4T_FS_TRUE);
    oss->hdd_id = id->hdd_id;
    if (fs->Open_stream_segment(id, nullptr, oss, writer) != 0) {
        QZLOG("pFs->Open_stream_segment failed");
        Destory_opened_stream_segment(&oss);
        return -1;
    }
    const int disk_ossid = fs->get_free_oss_fd();
    if (disk_ossid < 0) {
        QZLOG("gQzfsManager.Get_free_oss_fd failed");
        fs->Close_reading_stream_segment(oss);
        Destory_opened_stream_segment(&oss);
        return -1;
    }
    // The companion starts at the write head: writes go on appending until
    // it is seeked back into the stream.
    _read_stream_segment_* rss = oss->reader();
    const _write_stream_segment_* wss = writer->writer();
    rss->read_flag = 0;
    rss->ossfd_writing = writer_ossid;
    rss->channel = writer->root()->channel;
    rss->record_type_bitmap = 0xFFFF;
    rss->already_read_len = writer_visible_len(writer);
    rss->block_index = wss->block_index;
    rss->block_offset = wss->block_offset;
    fs->set_oss_info(disk_ossid, oss);
    return disk_ossid;
}
