// Opening a segment for reading, and moving a descriptor's reader to
// another segment.
//
// A reader of a closed segment has its own copy of the nodes and of the
// root's I-frame chain. A reader of a live segment copies the nodes at open
// but follows the writer's chain and length, which grow; when the writer
// closes, it hands the reader the final nodes and a copy of the chain.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstdlib>
#include <cstring>

namespace {

// Where in the chosen segment a reader opened for moment `t` begins: at `t`
// inside the segment, at its end for a step back from behind it, else at
// its start (null). A moment equal to the start needs no index search.
_k4t_fs_date_time_* open_point(const _qzfs_k4t_stream_open_para_& para, _fs_find_policy_ policy,
                               const _stream_segment_index_node_men_& node,
                               const _k4t_stream_segment_id_& id, _k4t_fs_date_time_& at)
{
    const _k4t_fs_date_time_& t = para.date_time;
    const unsigned want = qzfs_second_of_day(t.hour, t.minute, t.second);
    const unsigned start = qzfs_second_of_day(node.start_hour, node.start_minute, node.start_second);
    const unsigned end = qzfs_second_of_day(node.end_hour, node.end_minute, node.end_second);
    if (want > start && want <= end) {
        at = t;
        QZLOG_ABOVE(2, "Open_stream_segment start date time1(20%02d-%02d-%02d %02d:%02d:%02d)(%d)(%ld)(%ld)",
                    at.year, at.month, at.day, at.hour, at.minute, at.second, int(id.hdd_id),
                    long(id.root_index), long(id.stream_segment_index));
        return &at;
    }
    if (policy == FS_FIND_PREV && want >= end) {
        at = t;
        at.hour = node.end_hour;
        at.minute = node.end_minute;
        at.second = node.end_second;
        QZLOG_ABOVE(2, "start date time2(20%02d-%02d-%02d %02d:%02d:%02d)(%d)(%ld)(%ld)", at.year,
                    at.month, at.day, at.hour, at.minute, at.second, int(id.hdd_id),
                    long(id.root_index), long(id.stream_segment_index));
        return &at;
    }
    return nullptr;
}

// Makes a reader of segment `id` and opens it at `where` under the disk
// lock, following the segment's live writer if there is one, with the
// request of `para`. 0, or -1 with the record left in `oss` for the caller
// to free once the lock is released.
int open_reader(CQzFileSystem& fs, const _k4t_stream_segment_id_& id, _k4t_fs_date_time_* where,
                const _qzfs_k4t_stream_open_para_& para, uint32_t read_flag,
                _opened_stream_segment_*& oss)
{
    DiskLockGuard disk(fs);
    Init_opened_stream_segment(&oss, K4T_FS_TRUE);
    oss->hdd_id = id.hdd_id;
    _opened_stream_segment_* writer = nullptr;
    const int writer_ossid = fs.find_opening_stream_segment_by_id(&id, &writer, 2);
    if (fs.Open_stream_segment(&id, where, oss, writer) != 0)
        return -1;
    _read_stream_segment_* rss = oss->reader();
    rss->ossfd_writing = writer != nullptr ? writer_ossid : -1;
    rss->read_flag = read_flag;
    rss->channel = para.channel;
    rss->record_type_bitmap = para.record_type_bitmap;
    return 0;
}

}  // namespace

int Open_stream_segment(_qzfs_k4t_stream_open_para_* para, uint32_t read_flag,
                        _fs_find_policy_ policy, _opened_stream_segment_** out)
{
    *out = nullptr;
    if (para == nullptr || para->channel == 255 || para->record_type_bitmap == 0 ||
        !qzfs_date_time_valid(para->date_time)) {
        QZLOG("invalid parameter");
        return -1;
    }
    const _k4t_fs_date_time_& t = para->date_time;
    QZLOG_ABOVE(2, "START(chn:%d)(stream_type:%d)(record_type:%04x)(date time:20%02d-%02d-%02d %02d:%02d:%02d)",
                int(para->channel), int(para->stream_type), unsigned(para->record_type_bitmap),
                t.year, t.month, t.day, t.hour, t.minute, t.second);
    _k4t_stream_segment_id_ id = {QZFS_NO_HDD, 0, 0};
    _stream_segment_index_node_men_ node;
    if (gQzfsManager.Find_stream_segment(para, policy, &id.hdd_id, &id.root_index,
                                         &id.stream_segment_index, &node) != 0) {
        QZLOG("find stream segment failed!");
        return -1;
    }
    CQzFileSystem* fs = gQzfsManager.get_file_system(id.hdd_id);
    if (fs == nullptr) {
        QZLOG("gQzfsManager.get_file_system failed(hdd_id:%d)", int(id.hdd_id));
        return -1;
    }
    _k4t_fs_date_time_ at;
    _k4t_fs_date_time_* where = open_point(*para, policy, node, id, at);

    _opened_stream_segment_* oss = nullptr;
    if (open_reader(*fs, id, where, *para, read_flag, oss) != 0) {
        QZLOG("pFs->Open_stream_segment failed");
        Destory_opened_stream_segment(&oss);
        return -1;
    }
    *out = oss;
    return 0;
}

// Step 4 on of an open that failed on a closed segment: the segment cannot
// be read, so it is taken out of the index and later searches pass it by.
static void retire_unreadable_segment(CQzFileSystem& fs, _opened_stream_segment_* oss)
{
    _stream_segment_index_node_dev_* ssi = oss->ssi();
    if (!IS_NORMAL_SSIN(ssi->id))
        return;
    if (g_qzfs_debug_level != 0) {
        const _root_index_node_dev_* root = oss->root();
        QZLOG_AS("Open_stream_segment",
                 "delete stream segment chn:%d,stream type:%d,%d-%d-%d %d:%d:%d-%d:%d:%d,len:%llu",
                 int(root->channel), int(root->stream_type), int(root->year), int(root->month),
                 int(root->day), int(ssi->start_hour), int(ssi->start_minute),
                 int(ssi->start_second), int(ssi->end_hour), int(ssi->end_minute),
                 int(ssi->end_second), (unsigned long long)ssi->len_in_bytes);
    }
    _stream_segment_index_node_dev_ dead = *ssi;
    dead.id = FREE_STREAM_SEGMENT_INDEX;
    fs.Modify_stream_segment(oss->root_index, oss->stream_segment_index, 0, &dead);
}

// The nodes of a closed segment, read from the index. 0 or -1.
static int read_closed_segment_nodes(CQzFileSystem& fs, const _k4t_stream_segment_id_* id,
                                     _opened_stream_segment_* oss)
{
    _root_index_node_dev_* root = oss->root();
    if (fs.Get_root_index_dev_node(id->root_index, root) != 0) {
        QZLOG_AS("Open_stream_segment", "Get_root_index_dev_node failed(root_index:%ld)",
                 long(id->root_index));
        return -1;
    }
    if (!IS_NORMAL_ROOT_INDEX(root->id)) {
        QZLOG_AS("Open_stream_segment", "NOT IS_NORMAL_ROOT_INDEX(root_index:%ld)(id:%02x)",
                 long(id->root_index), unsigned(root->id));
        return -1;
    }
    _stream_segment_index_node_dev_* ssi = oss->ssi();
    if (fs.Get_stream_segment_index_dev_node(id->root_index, id->stream_segment_index, ssi) != 0) {
        QZLOG_AS("Open_stream_segment",
                 "Get_stream_segment_index_dev_node failed(root_index:%ld)(stream_segment:%ld)",
                 long(id->root_index), long(id->stream_segment_index));
        return -1;
    }
    if (!IS_NORMAL_SSIN(ssi->id)) {
        QZLOG_AS("Open_stream_segment",
                 "NOT IS_NORMAL_SSIN(root_index:%ld)(stream_segment_index:%ld)(id:%02x)",
                 long(id->root_index), long(id->stream_segment_index), unsigned(ssi->id));
        return -1;
    }
    return 0;
}

// The reader's own copy of the root's I-frame chain. 0 or -1.
static int read_closed_segment_chain(CQzFileSystem& fs, _opened_stream_segment_* oss)
{
    _read_stream_segment_* rss = oss->reader();
    const unsigned long first = oss->root()->stream_segment_index_block;
    _stream_segment_block_header_dev_ header;
    if (fs.Read_stream_segment_index_block_header(first, &header) != 0) {
        QZLOG_AS("Open_stream_segment", "Read_stream_segment_index_block_header(block_index:%ld) failed",
                 long(first));
        return -1;
    }
    if (fs.Read_iframe_index_block_list(header.iframe_index_block, &rss->iframe_block_num,
                                        &rss->iframe_block_list) != 0) {
        QZLOG_AS("Open_stream_segment", "Read_iframe_index_block_list(block_index:%ld) failed",
                 long(header.iframe_index_block));
        return -1;
    }
    return 0;
}

int CQzFileSystem::Open_stream_segment(const _k4t_stream_segment_id_* id, _k4t_fs_date_time_* where,
                                       _opened_stream_segment_* oss, _opened_stream_segment_* writer)
{
    if (m_state != QZFSS_MOUNTED) {
        QZLOG("not mount(hdd_id:%d)", int(m_hdd_id));
        return -1;
    }
    _read_stream_segment_* rss = nullptr;
    Init_read_stream_segment(&rss);
    oss->state = rss;
    oss->root_index = id->root_index;
    oss->stream_segment_index = id->stream_segment_index;

    if (writer != nullptr) {
        _write_stream_segment_* wss = writer->writer();
        if (wss->iframe_list_ptr != 0) {
            QZLOG_ABOVE(2, "write iframe index(%02d:%02d:%02d)", int(wss->date_time.hour),
                        int(wss->date_time.minute), int(wss->date_time.second));
            Write_iframe_index(wss, true);
        }
        memcpy(oss->root_node, writer->root_node, sizeof(_root_index_node_dev_));
        writer_node_snapshot(writer, oss->ssi());
        oss->ssi()->len_in_bytes -= wss->delete_len;
    } else if (read_closed_segment_nodes(*this, id, oss) != 0) {
        Close_reading_stream_segment(oss);
        return -1;
    }

    rss->read_cache = static_cast<uint8_t*>(malloc(QZFS_STREAM_UNIT));
    if (rss->read_cache == nullptr)
        QZFS_FATAL("CQzFileSystem::Open_stream_segment out of memory");
    rss->cache_ptr = rss->cache_len = 0;

    int failed = 0;
    oss->io_channel = qzfs_create_io_interface(m_dev_path.c_str(), bare_dev);
    if (oss->io_channel == nullptr) {
        QZLOG("m_pIo_interface->OpenIoChannel failed");
        failed = 1;
    }
    if (!failed && writer == nullptr && read_closed_segment_chain(*this, oss) != 0)
        failed = 1;
    if (!failed) {
        QZLOG_ABOVE(2, "(root_index:%ld)(stream_segment_index:%ld)(len:%lld)", long(oss->root_index),
                    long(oss->stream_segment_index), (long long)oss->ssi()->len_in_bytes);
        if (Seek_stream_segment(oss, writer, where, FS_FIND_NEAR_PREFER_NEXT, 0) != 0) {
            QZLOG("Seek_stream_segment FAILED");
            failed = 1;
        }
    }
    if (!failed)
        return 0;
    if (writer == nullptr)
        retire_unreadable_segment(*this, oss);
    Close_reading_stream_segment(oss);
    return -1;
}

// Points descriptor `ossfd` at `new_oss` through a new inner fd of its
// disk, under that disk's lock. False when that fails: `new_oss` is then
// closed, and its record is left for the caller to free.
static bool attach_new_reader(CQzFileSystem* new_fs, int ossfd, _opened_stream_segment_* new_oss)
{
    DiskLockGuard disk(*new_fs);
    const int new_ossid = new_fs->get_free_oss_fd();
    if (new_ossid >= 0) {
        if (gQzfsManager.modify_disk_ossid(ossfd, new_ossid) == 0) {
            new_fs->set_oss_info(new_ossid, new_oss);
            return true;
        }
        new_fs->release_oss_fd(new_ossid);
    }
    new_fs->Close_reading_stream_segment(new_oss);
    return false;
}

// Closes the reader a descriptor left and frees its inner fd, under its
// disk's lock; the record is left for the caller to free.
static void detach_old_reader(CQzFileSystem* old_fs, int old_ossid,
                              _opened_stream_segment_* old_oss)
{
    DiskLockGuard disk(*old_fs);
    old_fs->Close_reading_stream_segment(old_oss);
    old_fs->release_oss_fd(old_ossid);
}

int close_old_and_set_new_open_segment_info(int ossfd, _opened_stream_segment_* old_oss,
                                            _opened_stream_segment_* new_oss)
{
    const int old_ossid = gQzfsManager.get_disk_ossid(ossfd);
    CQzFileSystem* old_fs = gQzfsManager.get_file_system(old_oss->hdd_id);
    CQzFileSystem* new_fs = gQzfsManager.get_file_system(new_oss->hdd_id);
    if (old_ossid < 0 || old_fs == nullptr || new_fs == nullptr)
        return -1;
    // The disks are locked one after the other, never together.
    if (!attach_new_reader(new_fs, ossfd, new_oss)) {
        Destory_opened_stream_segment(&new_oss);
        return -1;
    }
    detach_old_reader(old_fs, old_ossid, old_oss);
    Destory_opened_stream_segment(&old_oss);
    return 0;
}

// The request that finds the segment beside `oss` the same day: forward
// from its end time, back from its start time.
_qzfs_k4t_stream_open_para_ adjacent_segment_request(_opened_stream_segment_* oss, bool forward)
{
    const _read_stream_segment_* rss = oss->reader();
    const _root_index_node_dev_* root = oss->root();
    const _stream_segment_index_node_dev_* ssi = oss->ssi();
    _qzfs_k4t_stream_open_para_ para;
    memset(&para, 0, sizeof(para));
    para.channel = rss->channel;
    para.record_type_bitmap = rss->record_type_bitmap;
    para.stream_type = root->stream_type;
    if (forward)
        para.date_time = {root->year, root->month, root->day, ssi->end_hour, ssi->end_minute,
                          ssi->end_second, 0};
    else
        para.date_time = {root->year, root->month, root->day, ssi->start_hour,
                          ssi->start_minute, ssi->start_second, 0};
    const int group = gQzfsManager.Find_group_id(oss->hdd_id);
    para.group_bitmap = group >= 0 && group < 32 ? 1u << group : 0;
    return para;
}
