// Open stream segments: records, writer and reader state, and the per-disk
// map from inner fd to record.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstdlib>
#include <cstring>

// ------------------------------------------------------------- records

void Init_opened_stream_segment(_opened_stream_segment_** oss, uint8_t read_or_write)
{
    _opened_stream_segment_* rec =
        static_cast<_opened_stream_segment_*>(calloc(1, sizeof(_opened_stream_segment_)));
    uint8_t* root = static_cast<uint8_t*>(calloc(1, sizeof(_root_index_node_dev_)));
    uint8_t* ssi = static_cast<uint8_t*>(calloc(1, sizeof(_stream_segment_index_node_dev_)));
    if (rec == nullptr || root == nullptr || ssi == nullptr)
        QZFS_FATAL("Init_opened_stream_segment out of memory");
    rec->hdd_id = 0xFF;
    rec->read_or_write = read_or_write;
    rec->root_node = root;
    rec->ssi_node = ssi;
    root[0] = END_ROOT_INDEX;
    ssi[0] = END_STREAM_SEGMENT_INDEX;
    *oss = rec;
}

void Destory_opened_stream_segment(_opened_stream_segment_** oss)
{
    if (oss == nullptr || *oss == nullptr)
        return;
    free((*oss)->root_node);
    free((*oss)->ssi_node);
    free(*oss);
    *oss = nullptr;
}

void Init_write_stream_segment(_write_stream_segment_** wss)
{
    _write_stream_segment_* w =
        static_cast<_write_stream_segment_*>(calloc(1, sizeof(_write_stream_segment_)));
    if (w == nullptr)
        QZFS_FATAL("Init_write_stream_segment out of memroy");
    w->block_offset = 0xFFFFFFFF;
    w->first_frame = 1;
    w->seek_ossfd = -1;
    w->importance = QZFS_STREAM_IMPORTANCE_NORMAL;
    w->iframe_list = static_cast<_iframe_index_node_dev_*>(
        calloc(FS_IFI_BUFFER_NUM, sizeof(_iframe_index_node_dev_)));
    w->lock = qzfs_create_lock();
    if (w->iframe_list == nullptr || w->lock == nullptr)
        QZFS_FATAL("Init_write_stream_segment out of memory");
    *wss = w;
}

void Destory_write_stream_segment(_write_stream_segment_** wss)
{
    if (wss == nullptr || *wss == nullptr)
        return;
    _write_stream_segment_* w = *wss;
    delete[] w->stream_segment_index_block_list;
    delete[] w->iframe_block_list;
    free(w->iframe_list);
    if (w->lock != nullptr)
        qzfs_destroy_lock(w->lock);
    free(w->frame_info_list);
    free(w->unit_buffer);
    free(w);
    *wss = nullptr;
}

void Init_read_stream_segment(_read_stream_segment_** rss)
{
    _read_stream_segment_* r =
        static_cast<_read_stream_segment_*>(calloc(1, sizeof(_read_stream_segment_)));
    if (r == nullptr)
        QZFS_FATAL("Init_read_stream_segment out of memeory");
    r->iframe_list = static_cast<_iframe_index_node_dev_*>(
        calloc(FS_IFI_BUFFER_NUM, sizeof(_iframe_index_node_dev_)));
    if (r->iframe_list == nullptr)
        QZFS_FATAL("Init_read_stream_segment out of memeory");
    r->read_flag = 1;
    r->ossfd_writing = -1;
    r->block_offset = 0xFFFFFFFF;
    r->need_seek = 1;
    r->new_segment_flag = 1;
    r->need_first_iframe = 1;
    r->debug_first_read = 1;
    *rss = r;
}

void Destory_read_stream_segment(_read_stream_segment_** rss)
{
    if (rss == nullptr || *rss == nullptr)
        return;
    _read_stream_segment_* r = *rss;
    delete[] r->iframe_block_list;
    free(r->read_cache);
    free(r->iframe_list);
    free(r->frame_buffer);
    free(r);
    *rss = nullptr;
}

// ------------------------------------------------------- per-disk map

int CQzFileSystem::get_free_oss_fd()
{
    std::lock_guard<std::mutex> guard(m_open_map_lock);
    std::map<int, _opened_stream_segment_*>& open = m_manage.opened_stream_segment_map;
    int fd = 1;
    for (auto it = open.begin(); it != open.end() && it->first == fd; ++it)
        fd++;
    if (fd > QZFS_MAX_DISK_INNER_FD) {
        QZLOG("get free fd failed");
        return -1;
    }
    open[fd] = nullptr;
    int disk_ossid = qzfs_disk_ossid(m_hdd_id, fd);
    QZLOG_ABOVE(2, "get free fd OK(%d)", disk_ossid);
    return disk_ossid;
}

// True when the disk ossid names this disk; prints the complaint otherwise.
static bool ossid_on_disk(int disk_ossid, uint8_t hdd_id, const char* func)
{
    if ((unsigned(disk_ossid) >> 16) == hdd_id)
        return true;
    QZLOG_AS(func, "fd is invalid(fd:0x%08x,hdd id:%d)", unsigned(disk_ossid), int(hdd_id));
    return false;
}

int CQzFileSystem::set_oss_info(int disk_ossid, _opened_stream_segment_* oss)
{
    if (!ossid_on_disk(disk_ossid, m_hdd_id, __func__))
        return -1;
    std::lock_guard<std::mutex> guard(m_open_map_lock);
    m_manage.opened_stream_segment_map[qzfs_ossid_inner_fd(disk_ossid)] = oss;
    return 0;
}

_opened_stream_segment_* CQzFileSystem::find_oss_info_by_fd(int disk_ossid)
{
    if (!ossid_on_disk(disk_ossid, m_hdd_id, __func__))
        return nullptr;
    std::lock_guard<std::mutex> guard(m_open_map_lock);
    auto it = m_manage.opened_stream_segment_map.find(qzfs_ossid_inner_fd(disk_ossid));
    return it == m_manage.opened_stream_segment_map.end() ? nullptr : it->second;
}

int CQzFileSystem::release_oss_fd(int disk_ossid)
{
    std::lock_guard<std::mutex> guard(m_open_map_lock);
    m_manage.opened_stream_segment_map.erase(qzfs_ossid_inner_fd(disk_ossid));
    return 0;
}

// First open record, in inner fd order, that `mask` admits and `match` accepts.
template <typename Match>
static int find_open(std::map<int, _opened_stream_segment_*>& open, uint8_t hdd_id,
                     _opened_stream_segment_** out, uint8_t mask, Match match)
{
    if (out != nullptr)
        *out = nullptr;
    for (auto& entry : open) {
        _opened_stream_segment_* oss = entry.second;
        if (oss == nullptr)
            continue;
        uint8_t admit = oss->read_or_write == K4T_FS_TRUE ? 1 : 2;
        if ((mask & admit) == 0 || !match(oss))
            continue;
        if (out != nullptr)
            *out = oss;
        return qzfs_disk_ossid(hdd_id, entry.first);
    }
    return -1;
}

int CQzFileSystem::find_opening_stream_segment_by_id(const _k4t_stream_segment_id_* id,
                                                     _opened_stream_segment_** out, uint8_t mask)
{
    return find_open(m_manage.opened_stream_segment_map, m_hdd_id, out, mask,
                     [id](const _opened_stream_segment_* oss) {
                         return oss->root_index == id->root_index &&
                                oss->stream_segment_index == id->stream_segment_index;
                     });
}

int CQzFileSystem::find_opening_stream_segment_by_root_index(uint32_t root_index,
                                                             _opened_stream_segment_** out,
                                                             uint8_t mask)
{
    return find_open(m_manage.opened_stream_segment_map, m_hdd_id, out, mask,
                     [root_index](const _opened_stream_segment_* oss) {
                         return oss->root_index == root_index;
                     });
}

int CQzFileSystem::open_stream_segment_is_empty()
{
    if (m_manage.opened_stream_segment_map.empty())
        return 1;
    for (auto& entry : m_manage.opened_stream_segment_map) {
        const _opened_stream_segment_* oss = entry.second;
        if (oss == nullptr)
            continue;
        const _root_index_node_dev_* root = oss->root();
        QZLOG("[disk inner id:%d]read:%d,20%02d-%02d-%02d,stream type:%d,chn:%d is open",
              entry.first, int(oss->read_or_write), int(root->year), int(root->month),
              int(root->day), int(root->stream_type), int(root->channel));
    }
    return 0;
}

// --------------------------------------------------------------- readers

int CQzFileSystem::Close_reading_stream_segment(_opened_stream_segment_* oss)
{
    if (oss == nullptr)
        return -1;
    if (oss->io_channel != nullptr) {
        qzfs_destroy_io_interface(oss->io_channel);
        oss->io_channel = nullptr;
    }
    _read_stream_segment_* rss = oss->reader();
    Destory_read_stream_segment(&rss);
    oss->state = nullptr;
    return 0;
}

uint64_t writer_visible_len(_opened_stream_segment_* writer)
{
    _write_stream_segment_* wss = writer->writer();
    QzfsScopedLock writer_lock(wss->lock);
    return writer->ssi()->len_in_bytes - wss->delete_len - wss->unit_len;
}

void writer_node_snapshot(_opened_stream_segment_* writer, _stream_segment_index_node_dev_* out)
{
    _write_stream_segment_* wss = writer->writer();
    QzfsScopedLock writer_lock(wss->lock);
    memcpy(out, writer->ssi_node, sizeof(*out));
}

bool writer_start_confirmed(_opened_stream_segment_* writer)
{
    _write_stream_segment_* wss = writer->writer();
    QzfsScopedLock writer_lock(wss->lock);
    return wss->confirm_start_iframe == 1;
}

int CQzFileSystem::live_segment_node(uint32_t root_index, uint32_t index,
                                     _stream_segment_index_node_men_& node)
{
    if (node.end_hour != QZFS_INVALID_END_HOUR)
        return 1;
    _k4t_stream_segment_id_ id = {m_hdd_id, root_index, index};
    _opened_stream_segment_* writer = nullptr;
    if (find_opening_stream_segment_by_id(&id, &writer, 2) < 0 || writer == nullptr)
        return -1;
    if (!writer_start_confirmed(writer))
        return 0;
    _write_stream_segment_* wss = writer->writer();
    _stream_segment_index_node_dev_ live;
    writer_node_snapshot(writer, &live);
    if (live.end_hour == QZFS_INVALID_END_HOUR)
        return 0;
    live.len_in_bytes -= wss->delete_len;
    Stream_segment_index_endian_trans_dev_mem(&live, gLocal_endian, &node, gLocal_endian, 1);
    return 1;
}

// A closing writer hands its readers what they need to go on alone: a
// private copy of the I-frame chain and the final nodes.
int CQzFileSystem::clear_read_stream_segment_writing_flag(_opened_stream_segment_* writer)
{
    if (writer == nullptr || writer->read_or_write != K4T_FS_FALSE) {
        QZLOG("invalid para!");
        return -1;
    }
    const _write_stream_segment_* wss = writer->writer();
    for (auto& entry : m_manage.opened_stream_segment_map) {
        _opened_stream_segment_* oss = entry.second;
        if (oss == nullptr || oss->read_or_write != K4T_FS_TRUE || oss->hdd_id != writer->hdd_id ||
            oss->root_index != writer->root_index ||
            oss->stream_segment_index != writer->stream_segment_index)
            continue;
        _read_stream_segment_* rss = oss->reader();
        rss->ossfd_writing = -1;
        delete[] rss->iframe_block_list;
        rss->iframe_block_list = new (std::nothrow) uint32_t[wss->iframe_block_num + 1];
        if (rss->iframe_block_list == nullptr)
            QZFS_FATAL("CQzfsApi::Qzfs_close_stream_segment out of memory");
        memcpy(rss->iframe_block_list, wss->iframe_block_list,
               wss->iframe_block_num * sizeof(uint32_t));
        rss->iframe_block_num = wss->iframe_block_num;
        memcpy(oss->root_node, writer->root_node, sizeof(_root_index_node_dev_));
        memcpy(oss->ssi_node, writer->ssi_node, sizeof(_stream_segment_index_node_dev_));
    }
    return 0;
}

void CQzFileSystem::release_open_segments()
{
    std::lock_guard<std::mutex> guard(m_open_map_lock);
    for (auto& entry : m_manage.opened_stream_segment_map) {
        _opened_stream_segment_* oss = entry.second;
        if (oss == nullptr)
            continue;
        if (oss->io_channel != nullptr)
            qzfs_destroy_io_interface(oss->io_channel);
        if (oss->read_or_write == K4T_FS_TRUE) {
            _read_stream_segment_* rss = oss->reader();
            Destory_read_stream_segment(&rss);
        } else {
            _write_stream_segment_* wss = oss->writer();
            Destory_write_stream_segment(&wss);
        }
        Destory_opened_stream_segment(&oss);
    }
    m_manage.opened_stream_segment_map.clear();
}

// ------------------------------------------------------------ manager

_opened_stream_segment_* CQzfsManager::get_opening_stream_segment_info(int disk_ossid)
{
    uint8_t hdd_id = qzfs_ossid_hdd(disk_ossid);
    CQzFileSystem* fs = get_file_system(hdd_id);
    if (fs == nullptr) {
        QZLOG("get_file_system failed(hdd_id:%d)", int(hdd_id));
        return nullptr;
    }
    return fs->find_oss_info_by_fd(disk_ossid);
}
