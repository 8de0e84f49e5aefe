// CQzfsApi stream queries: handles, pages and the description of one
// segment.
//
// The handle map is touched only under the manager lock; the scans of the
// disks run outside it, each under its own disk lock, so one handle must not
// be used by two threads at once.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_api_fd.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"

#include <cstring>
#include <list>

namespace {

// The state behind `handle`, found under the manager lock; false (with the
// message, in the name of `func`) when the handle is not open.
bool find_query(int handle, const char* func, CQzfsManager::query_iterator& it)
{
    bool found;
    {
        ManagerLockGuard manager(gQzfsManager);
        it = gQzfsManager.m_query_handle_map.find(handle);
        found = it != gQzfsManager.m_query_handle_map.end();
    }
    if (!found)
        QZLOG_AS(func, "invalid stream segment query handle(%d)", handle);
    return found;
}

// The tests shared by the page calls of a sequence query: a handle that is
// open and belongs to a sequence query.
bool find_sequence_query(int handle, const char* func, CQzfsManager::query_iterator& it)
{
    if (handle < 0) {
        QZLOG_AS(func, "invalid parameter");
        return false;
    }
    if (!find_query(handle, func, it))
        return false;
    if (it->second.query.sequence == _K4T_NO_SEQUECE_) {
        QZLOG_AS(func, "_K4T_NO_SEQUECE_ no support get total page num!");
        return false;
    }
    return true;
}

// Pages of `size` rows of `per_page` each, the last one possibly short.
int pages_of(unsigned long size, uint32_t per_page)
{
    return per_page == 0 ? 0 : int((size + per_page - 1) / per_page);
}

// The disk of a segment id for the description calls; null (with the
// message) when it is missing or being formatted. The two calls word a
// missing disk differently.
enum missing_disk_words { SAY_GET_FILE_SYSTEM, SAY_NO_HDD };

CQzFileSystem* segment_disk(const _k4t_stream_segment_id_* id, const char* func,
                            missing_disk_words words)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(id->hdd_id);
    if (fs == nullptr) {
        if (words == SAY_NO_HDD)
            QZLOG_AS(func, "NO HDD:%d", int(id->hdd_id));
        else
            QZLOG_AS(func, "gQzfsManager.get_file_system failed(pOss->hdd_id:%d)", int(id->hdd_id));
        return nullptr;
    }
    if (fs->Get_hdd_state() == QZFSS_FORMATING) {
        QZLOG_AS(func, "Formatting(hdd_id:%d)", int(id->hdd_id));
        return nullptr;
    }
    return fs;
}

// Takes a free query handle and fills its state from `query`, under the
// manager lock. The handle, or 0 or less when none is free.
int open_query_handle(const _k4t_stream_query_* query)
{
    ManagerLockGuard manager(gQzfsManager);
    const int handle = gQzfsManager.Get_free_query_stream_segment_handle();
    if (handle <= 0)
        return handle;
    _stream_segment_query_state_& state = gQzfsManager.m_query_handle_map[handle];
    state.query = *query;
    state.cur_hdd_id = 0;
    state.cur_root_index = 0;
    state.cur_stream_segment_index = 0;
    state.find_over = 0;
    state.stream_list.clear();
    state.cur_index = 0;
    return handle;
}

// The description of a segment being recorded, from its writer's live
// nodes. The lock state is left as the caller had it.
void live_segment_info(_opened_stream_segment_* writer, _k4t_stream_segment_info_* info)
{
    const _root_index_node_dev_* root = writer->root();
    _stream_segment_index_node_dev_ node;
    writer_node_snapshot(writer, &node);
    info->year = root->year;
    info->month = root->month;
    info->day = root->day;
    info->start_time = {node.start_hour, node.start_minute, node.start_second};
    info->end_time = {node.end_hour, node.end_minute, node.end_second};
    info->dst = node.flags & 1u;
    info->channel = root->channel;
    info->segment_type = node.segment_type;
    info->record_type = node.record_type;
    info->have_audio = uint8_t(((node.flags >> 2) & 1u) | (((node.flags >> 4) & 1u) << 1));
    info->tv_system = (node.flags >> 1) & 1u;
    info->further_flag = (node.flags >> 3) & 1u;
    info->len = node.len_in_bytes - writer->writer()->delete_len;
}

}  // namespace

int CQzfsApi::Qzfs_get_query_stream_segment_handle(_k4t_stream_query_* query)
{
    if (query == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    if (query->sequence != _K4T_NO_SEQUECE_) {
        if (query->item_num_per_page == 0) {
            QZLOG("invalid parameter(pSq->item_num_per_page == 0)");
            return -1;
        }
        if (query->sequence > _K4T_SEQUECE_DESCEND_ALT_) {
            QZLOG("invalid parameter(%d)", int(query->sequence));
            return -1;
        }
    }
    const int handle = open_query_handle(query);
    if (handle <= 0) {
        QZLOG("Get_free_query_stream_segment_handle failed");
        return -1;
    }
    QZLOG_ABOVE(2,
                "(chn:%08lx)(stream_type:0x%llx)(record_type:%04x)(20%02d-%02d-%02d)(%02d:%02d:%02d)"
                "(%02d:%02d:%02d)(sequecen:%d)(number:%ld)(%d)",
                (unsigned long)query->channel_bitmap, (unsigned long long)query->stream_type_bitmap,
                unsigned(query->record_type_bitmap), query->year, query->month, query->day,
                query->start_hour, query->start_minute, query->start_second, query->end_hour,
                query->end_minute, query->end_second, query->sequence,
                long(query->item_num_per_page), handle);
    return handle;
}

int CQzfsApi::Qzfs_release_query_stream_segment_handle(int handle)
{
    QZLOG_ABOVE(2, "START(%d)", handle);
    {
        ManagerLockGuard manager(gQzfsManager);
        gQzfsManager.m_query_handle_map.erase(handle);
    }
    QZLOG_ABOVE(2, "END(%d)", handle);
    return 0;
}

int CQzfsApi::Qzfs_query_stream_segment(int handle, _k4t_stream_query_cmd_ cmd, int* num,
                                        _k4t_stream_query_result_* result)
{
    // A negative room is refused with zero: it cannot hold a row either.
    if (handle < 0 || num == nullptr || *num <= 0 || result == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    QZLOG_ABOVE(3, "START(handle:%d)(get_num:%d)", handle, *num);
    memset(result, 0, sizeof(*result) * size_t(*num));
    CQzfsManager::query_iterator it;
    if (!find_query(handle, __func__, it))
        return -1;
    int ret = -1;
    const uint8_t sequence = it->second.query.sequence;
    if (sequence == _K4T_NO_SEQUECE_)
        ret = gQzfsManager.Query_stream_segment_free(it, cmd, num, result);
    else if (sequence <= _K4T_SEQUECE_DESCEND_ALT_)
        ret = gQzfsManager.Query_stream_segment_sequence(it, cmd, num, result);
    QZLOG_ABOVE(3, "END(handle:%d)(get_num:%d)(ret_val:%d)", handle, *num, ret);
    return ret;
}

int CQzfsApi::Qzfs_get_total_page_num(int handle)
{
    CQzfsManager::query_iterator it;
    if (!find_sequence_query(handle, __func__, it))
        return -1;
    if (gQzfsManager.find_stream_segment_for_sequence_query(it) != 0)
        return -1;
    const _stream_segment_query_state_& state = it->second;
    QZLOG_ABOVE(2, "size:%u,num pre page:%d!", unsigned(state.stream_list.size()),
                int(state.query.item_num_per_page));
    return pages_of(state.stream_list.size(), state.query.item_num_per_page);
}

int CQzfsApi::Qzfs_jump_specific_page(int handle, int page, int* num,
                                      _k4t_stream_query_result_* result)
{
    if (num == nullptr || result == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    if (*num > 0)
        memset(result, 0, sizeof(*result) * size_t(*num));
    CQzfsManager::query_iterator it;
    if (!find_sequence_query(handle, __func__, it))
        return -1;
    if (gQzfsManager.find_stream_segment_for_sequence_query(it) != 0)
        return -1;
    _stream_segment_query_state_& state = it->second;
    const int total = pages_of(state.stream_list.size(), state.query.item_num_per_page);
    if (page < 0 || page >= total) {
        QZLOG("page num is invalid(page num:%d, total page num:%d)!", page, total);
        return -1;
    }
    state.cur_index = uint32_t(page) * state.query.item_num_per_page;
    QZLOG_ABOVE(2, "QUERY(page num:%d)(total_number:%lu)(cur_index:%ld)", page,
                (unsigned long)state.stream_list.size(), long(state.cur_index));
    *num = gQzfsManager.fill_sequence_page(state, result);
    return 0;
}

int CQzfsApi::Qzfs_get_stream_segment_info(const _k4t_stream_segment_id_* id,
                                           _k4t_stream_segment_info_* info)
{
    if (id == nullptr || info == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    CQzFileSystem* fs = segment_disk(id, __func__, SAY_GET_FILE_SYSTEM);
    if (fs == nullptr)
        return -1;
    int ret = 0;
    {
        DiskLockGuard disk(*fs);
        _opened_stream_segment_* writer = nullptr;
        if (fs->find_opening_stream_segment_by_id(id, &writer, 2) >= 0 && writer != nullptr)
            live_segment_info(writer, info);
        else
            ret = fs->Get_stream_segment_info(id->root_index, id->stream_segment_index, info);
    }
    if (ret == 0)
        QZLOG_ABOVE(2,
                    "(root_index:%ld)(stream_segment_index:%ld)(len:%lld)(20%02d-%02d-%02d)"
                    "(%02d:%02d:%02d)(%02d:%02d:%02d)",
                    long(id->root_index), long(id->stream_segment_index), (long long)info->len,
                    info->year, info->month, info->day, info->start_time.hour,
                    info->start_time.minute, info->start_time.second, info->end_time.hour,
                    info->end_time.minute, info->end_time.second);
    return ret;
}

int CQzfsApi::Qzfs_get_stream_segment_data_info(const _k4t_stream_segment_id_* id,
                                                const _k4t_fs_time_* start_time,
                                                const _k4t_fs_time_* end_time,
                                                unsigned long long* offset, unsigned long long* len)
{
    if (id == nullptr || start_time == nullptr || end_time == nullptr || offset == nullptr ||
        len == nullptr) {
        QZLOG("invalid parameter");
        return -1;
    }
    CQzFileSystem* fs = segment_disk(id, __func__, SAY_NO_HDD);
    if (fs == nullptr)
        return -1;
    DiskLockGuard disk(*fs);
    return fs->Get_stream_segment_info(id->root_index, id->stream_segment_index, start_time,
                                       end_time, offset, len);
}
