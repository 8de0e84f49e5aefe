// The calendar and the date lists: which days of a disk hold recordings.
//
// Everything here answers from the root index alone: a root node stands for
// one day of one channel, stream type and name, and carries the OR of the
// record types and the lock of its segments. Nodes that hold pre-record data
// only do not count as a recording. The callers pass the same table or list
// to every disk of their groups, so the results merge across disks.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_root_days.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// A live root node that stands for more than pre-record data.
bool counts_as_recording(const _root_index_node_mem_& node)
{
    return IS_NORMAL_ROOT_INDEX(node.id) && node.only_pre_record == 0;
}

// Progress line of one root node, in the name of the member walking.
void trace_root(const char* func, unsigned long root_index, const _root_index_node_mem_& node)
{
    if (g_qzfs_debug_level <= 2)
        return;
    QZLOG_AS(func, "%s, index:%lu, id:%d, %d-%d-%d, chn:%d, stream:%d, record type:0x%x, lock:%d, only pre record:%d",
             root_name(node), root_index, int(node.id), int(node.year), int(node.month),
             int(node.day), int(node.channel), int(node.stream_type), unsigned(node.record_type),
             int(node.lock), int(node.only_pre_record));
}

// Appends the day of `node` to `dates` unless it is there already.
void add_date(std::list<_k4t_fs_date_>& dates, const _root_index_node_mem_& node)
{
    for (const _k4t_fs_date_& d : dates)
        if (d.year == node.year && d.month == node.month && d.day == node.day)
            return;
    _k4t_fs_date_ date = {node.year, node.month, node.day, 0};
    dates.push_back(date);
}

// The roots of the disk that `counts` admits, one for each date: the first
// of each date in position order, sorted by position, which is the order in
// which a walk of the whole root index first meets the dates. Taken through
// the day index, so that only the front of each day is read. False when
// there is no day index (the caller then walks the whole root index), and
// at debug level 3 and above, where the walk traces every node.
template <typename Counts>
bool first_root_of_each_date(CQzFileSystem& fs, Counts counts,
                             std::vector<std::pair<uint32_t, _root_index_node_mem_>>& out)
{
    out.clear();
    if (g_qzfs_debug_level > 2)
        return false;
    CacheLockGuard cache;
    const RootDayIndex* index = root_day_index(fs);
    if (index == nullptr)
        return false;
    for (const auto& day : index->days()) {
        for (uint32_t position : day.second) {
            _root_index_node_mem_ node;
            if (fs.Get_root_index_mem_node(position, &node) != 0)
                return false;
            if (node.id == END_ROOT_INDEX)
                break;
            if (RootDayIndex::key(node.year, node.month, node.day) == day.first && counts(node)) {
                out.emplace_back(position, node);
                break;
            }
        }
    }
    std::sort(out.begin(), out.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    return true;
}

// Adds the dates of the roots that `counts` admits to `dates`, in the order
// of a walk of the whole root index.
template <typename Counts>
int add_dates(CQzFileSystem& fs, const char* func, Counts counts, std::list<_k4t_fs_date_>& dates)
{
    std::vector<std::pair<uint32_t, _root_index_node_mem_>> firsts;
    if (first_root_of_each_date(fs, counts, firsts)) {
        for (const auto& first : firsts)
            add_date(dates, first.second);
        return 0;
    }
    return for_each_root(fs, func, [&](unsigned long ri, const _root_index_node_mem_& node) {
        trace_root(func, ri, node);
        if (counts(node))
            add_date(dates, node);
    });
}

}  // namespace

int CQzFileSystem::Query_calendar(_k4t_calendar_stream_query_* query)
{
    _hdd_root_index_manager_* range = root_manager();
    if (range == nullptr)
        return -1;
    QZLOG_ABOVE(2, "(hdd_id:%d)(start:20%02d-%02d-%02d)(end:20%02d-%02d-%02d)", int(m_hdd_id),
                int(range->start_year), int(range->start_month), int(range->start_day),
                int(range->end_year), int(range->end_month), int(range->end_day));
    // A disk whose recordings all lie before or after the month has nothing
    // to add; an unknown range (255) is after every month.
    if (Compare_year_month(range->start_year, range->start_month, query->year, query->month) == 1 ||
        Compare_year_month(range->end_year, range->end_month, query->year, query->month) == 2) {
        QZLOG_ABOVE(2, "(start:20%02d-%02d-%02d)(end:20%02d-%02d-%02d)", int(range->start_year),
                    int(range->start_month), int(range->start_day), int(range->end_year),
                    int(range->end_month), int(range->end_day));
        return 0;
    }
    // Through the day index only the roots of the month are read; without
    // it, every root up to the end mark.
    std::vector<uint32_t> month;
    bool indexed = false;
    {
        CacheLockGuard cache;
        if (const RootDayIndex* index = root_day_index(*this)) {
            index->range_positions(RootDayIndex::key(query->year, query->month, 1),
                                   RootDayIndex::key(query->year, query->month, 31), month);
            indexed = true;
        }
    }
    for (unsigned long i = 0; !indexed || i < month.size(); i++) {
        const unsigned long ri = indexed ? month[i] : i;
        _root_index_node_mem_ node;
        if (Get_root_index_mem_node(ri, &node) != 0) {
            QZLOG("Get_root_index_mem_node failed(root_index:%ld)", long(ri));
            return -1;
        }
        if (node.id == END_ROOT_INDEX) {
            if (!indexed)
                return 0;
            continue;
        }
        if (!counts_as_recording(node) || node.channel >= 32 ||
            ((query->channel_bitmap >> node.channel) & 1u) == 0 ||
            !qzfs_bit_set(query->stream_type_bitmap, node.stream_type, 64) ||
            (node.record_type & query->record_type_bitmap) == 0 || node.year != query->year ||
            node.month != query->month || node.day < 1 || node.day > 31)
            continue;
        _k4t_calendar_day_info_& day = query->day_info[node.channel][node.day - 1];
        day.record_type = uint16_t(day.record_type | (node.record_type & query->record_type_bitmap));
        if (node.lock == 1)
            day.lock = 1;
    }
    return 0;
}


int CQzFileSystem::Get_record_date_list(uint64_t stream_type_bitmap, std::list<_k4t_fs_date_>& dates)
{
    return add_dates(*this, __func__, [&](const _root_index_node_mem_& node) {
        return counts_as_recording(node) && qzfs_bit_set(stream_type_bitmap, node.stream_type, 64);
    }, dates);
}

int CQzFileSystem::Get_record_date_list(std::string& name, std::list<_k4t_fs_date_>& dates)
{
    return add_dates(*this, __func__, [&](const _root_index_node_mem_& node) {
        return counts_as_recording(node) && name == root_name(node);
    }, dates);
}

int CQzFileSystem::Get_record_date_info(uint64_t stream_type_bitmap, uint64_t channel_bitmap,
                                        std::list<_k4t_fs_record_date_info_>& infos)
{
    return for_each_root(*this, __func__, [&](unsigned long ri, const _root_index_node_mem_& node) {
        trace_root("Get_record_date_info", ri, node);
        if (!counts_as_recording(node) || !qzfs_bit_set(stream_type_bitmap, node.stream_type, 64) ||
            !qzfs_bit_set(channel_bitmap, node.channel, 64))
            return;
        for (_k4t_fs_record_date_info_& info : infos) {
            if (info.date.year == node.year && info.date.month == node.month &&
                info.date.day == node.day) {
                // The lock stays as the first entry of the day left it.
                info.record_type = uint16_t(info.record_type | node.record_type);
                return;
            }
        }
        _k4t_fs_record_date_info_ info;
        memset(&info, 0, sizeof(info));
        info.date.year = node.year;
        info.date.month = node.month;
        info.date.day = node.day;
        info.record_type = node.record_type;
        info.lock = node.lock;
        infos.push_back(info);
    });
}

int CQzFileSystem::Get_device_list(std::list<std::string>& names)
{
    return for_each_root(*this, __func__, [&](unsigned long, const _root_index_node_mem_& node) {
        if (!IS_NORMAL_ROOT_INDEX(node.id))
            return;
        const char* name = root_name(node);
        if (name[0] == '\0')
            return;
        for (const std::string& known : names)
            if (known == name)
                return;
        names.push_back(name);
    });
}
