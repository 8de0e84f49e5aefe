// Finding the segment that covers a moment, on one disk and over the disks
// of a set of groups, under a find policy.
//
// A candidate is kept in `best` from node to node and from disk to disk
// (id 255: none yet). A segment that holds the moment ends the search at
// once, unless the moment is its very last second: a later segment starting
// in that same second may be the better answer. Otherwise the policy says
// whether an earlier or a later segment may stand in, and which of two wins.
// Equal times never replace a candidate, so the first found wins a tie.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_root_days.h"
#include "system_resource_manager.h"

#include <cstring>

namespace {

// Policies that accept a segment ending before the moment, and those that
// accept one starting after it, as bit masks over the policy values.
const unsigned kAcceptsEarlier = 0x47;  // 0, 1, 2, 6
const unsigned kAcceptsLater = 0x2B;    // 0, 1, 3, 5

bool policy_in(unsigned mask, _fs_find_policy_ policy)
{
    return (mask >> unsigned(policy)) & 1u;
}

enum verdict { SKIP, TAKE, TAKE_AND_STOP };

// What the search does with a node from S to E for moment T, against the
// candidate from Sb to Eb (`have_best` false: none yet).
verdict judge(unsigned t, unsigned s, unsigned e, bool have_best, unsigned sb, unsigned eb,
              _fs_find_policy_ policy)
{
    if (s <= t && t <= e) {
        if ((policy == FS_FIND_NEXT && t == e) || (policy == FS_FIND_PREV && t == s))
            return SKIP;
        return t == e ? TAKE : TAKE_AND_STOP;
    }
    if (t > e) {
        if (!policy_in(kAcceptsEarlier, policy))
            return SKIP;
        if (!have_best)
            return TAKE;
        if (t > eb)
            return e > eb ? TAKE : SKIP;
        if (t < eb)
            return policy != FS_FIND_NEAR_PREFER_NEXT ? TAKE : SKIP;
        return SKIP;
    }
    if (!policy_in(kAcceptsLater, policy))
        return SKIP;
    if (!have_best)
        return TAKE;
    if (t > sb)
        return policy != FS_FIND_NEAR_PREFER_PREV ? TAKE : SKIP;
    if (t < sb)
        return s < sb ? TAKE : SKIP;
    return SKIP;
}

}  // namespace

// True when root node `root` is the day of channel/name/stream type asked for.
static bool root_matches(CQzFileSystem& fs, uint32_t root_index, const _root_index_node_mem_& root,
                         uint8_t channel, const char* name, uint8_t stream_type,
                         const _k4t_fs_date_time_& when)
{
    if (!IS_NORMAL_ROOT_INDEX(root.id) || (channel != 255 && root.channel != channel) ||
        root.stream_type != stream_type || root.year != when.year || root.month != when.month ||
        root.day != when.day)
        return false;
    if (name == nullptr)
        return true;
    _root_index_node_dev_ dev;
    return fs.Get_root_index_dev_node(root_index, &dev) == 0 &&
           strncmp(dev.name, name, sizeof(dev.name)) == 0;
}

int CQzFileSystem::Find_stream_segment(uint8_t channel, char* name, uint8_t stream_type,
                                       uint16_t record_type_bitmap, _k4t_fs_date_time_* when,
                                       _fs_find_policy_ policy, uint32_t* root_index,
                                       uint32_t* stream_segment_index,
                                       _stream_segment_index_node_men_* best, uint8_t* change_flag)
{
    *change_flag = 0;
    const _hdd_root_index_manager_* range = root_manager();
    if (range == nullptr ||
        Compare_date(when->year, when->month, when->day, range->start_year, range->start_month,
                     range->start_day) == 2 ||
        Compare_date(when->year, when->month, when->day, range->end_year, range->end_month,
                     range->end_day) == 1) {
        QZLOG("hdd state START[20%02d-%02d-%02d]END[20%02d-%02d-%02d]FIND[20%02d-%02d-%02d]",
              range ? range->start_year : 255, range ? range->start_month : 255,
              range ? range->start_day : 255, range ? range->end_year : 255,
              range ? range->end_month : 255, range ? range->end_day : 255, when->year,
              when->month, when->day);
        return -1;
    }
    const unsigned t = qzfs_second_of_day(when->hour, when->minute, when->second);
    int result = -1;
    DayRootWalk walk(*this, when->year, when->month, when->day, 0);
    for (uint32_t ri; walk.next(ri);) {
        _root_index_node_mem_ root;
        if (Get_root_index_mem_node(ri, &root) != 0) {
            QZLOG("Get_root_index_mem_node(root_index:%ld) failed", long(ri));
            return result;
        }
        if (root.id == END_ROOT_INDEX)
            return result;
        if (!root_matches(*this, ri, root, channel, name, stream_type, *when))
            continue;
        for (uint32_t si = 0;; si++) {
            _stream_segment_index_node_men_ node;
            if (Get_stream_segment_index_mem_node(ri, si, &node) != 0 || node.id > 254)
                break;
            if (!IS_NORMAL_SSIN(node.id) || live_segment_node(ri, si, node) != 1 ||
                node.record_type > 15 || (record_type_bitmap & (1u << node.record_type)) == 0)
                continue;
            const bool have_best = best->id != 255;
            const verdict v = judge(t, qzfs_second_of_day(node.start_hour, node.start_minute, node.start_second),
                                    qzfs_second_of_day(node.end_hour, node.end_minute, node.end_second),
                                    have_best,
                                    qzfs_second_of_day(best->start_hour, best->start_minute, best->start_second),
                                    qzfs_second_of_day(best->end_hour, best->end_minute, best->end_second),
                                    policy);
            if (v == SKIP)
                continue;
            *root_index = ri;
            *stream_segment_index = si;
            *best = node;
            *change_flag = 1;
            result = 0;
            if (v == TAKE_AND_STOP)
                return 0;
        }
    }
    return result;
}

int CQzfsManager::Find_stream_segment(_qzfs_k4t_stream_open_para_* para, _fs_find_policy_ policy,
                                      unsigned char* hdd_id, uint32_t* root_index,
                                      uint32_t* stream_segment_index,
                                      _stream_segment_index_node_men_* best)
{
    if (para == nullptr) {
        QZLOG("p_open_para is null");
        return -1;
    }
    if (para->record_type_bitmap == 0 || para->group_bitmap == 0) {
        QZLOG("invalid para(record_type_bitmap:0x%x, group_bitmap:0x%lx)",
              unsigned(para->record_type_bitmap), (unsigned long)para->group_bitmap);
        return -1;
    }
    const unsigned long disks = disks_of_groups(para->group_bitmap);
    if (disks == 0) {
        QZLOG_ABOVE(2, "group have not disk(0x%lx)", (unsigned long)para->group_bitmap);
        return -1;
    }
    memset(best, 0, sizeof(*best));
    best->id = 255;
    const unsigned t = qzfs_second_of_day(para->date_time.hour, para->date_time.minute, para->date_time.second);
    int result = -1;
    for (unsigned id = 0; id < 32; id++) {
        CQzFileSystem* fs = (disks >> id) & 1u ? get_file_system(uint8_t(id)) : nullptr;
        if (fs == nullptr || fs->Get_hdd_state() != QZFSS_MOUNTED)
            continue;
        uint8_t change_flag = 0;
        int found;
        {
            DiskLockGuard disk(*fs);
            found = fs->Find_stream_segment(para->channel, nullptr, para->stream_type,
                                            para->record_type_bitmap, &para->date_time, policy,
                                            root_index, stream_segment_index, best, &change_flag);
        }
        if (found != 0 || best->id == 255) {
            QZLOG("find failed(hdd_id:%d)(id:%02x)(change_flag:%d)", int(id), unsigned(best->id),
                  int(change_flag));
            continue;
        }
        if (change_flag == 1) {
            *hdd_id = uint8_t(id);
            result = 0;
        }
        if (t >= qzfs_second_of_day(best->start_hour, best->start_minute, best->start_second) &&
            t <= qzfs_second_of_day(best->end_hour, best->end_minute, best->end_second))
            break;
    }
    return result;
}
