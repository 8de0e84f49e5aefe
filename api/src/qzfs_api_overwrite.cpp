// CQzfsApi overwrite passes: winning back space from the oldest recordings
// of a group.
//
// The application calls the passes from its own maintenance thread. The big
// pass runs when the spare space of the group (free space above the level
// at which a disk takes recordings, summed over its disks) falls below its
// start level, and removes about `once_delete_size` bytes; the small pass
// runs while a small stream type holds more days than the application
// keeps. Victims go in owner stamp order over the whole group: orphan
// blocks of their age first, then the segment itself, trimmed from the
// front at an I-frame or whole. Locked segments and segments open for
// reading are never taken.
//
// A pass works on a copy of the group's delete list, taken and put back
// under the manager lock, and looks at each victim again under its disk
// lock before it deletes: a lock or delete that came in between is seen
// there. Two passes over one group at once are the caller's to avoid.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

namespace {

// A pass gives up after this many victims, whatever it has won.
const int MAX_PASS_ITERATIONS = 50;

// What a pass needs of its group, read under the manager lock.
struct pass_group {
    unsigned long members = 0;
    unsigned long long used_for_recording = 0;
    unsigned long long start_delete = 0;
    unsigned long long once = 0;
    unsigned long generation = 0;
    std::list<_delete_ss_list_node_> list;
};

std::list<_delete_ss_list_node_>& delete_list_of(_disk_group_attr_& attr, unsigned char big)
{
    return big ? attr.big_delete_list : attr.small_delete_list;
}

bool take_pass_group(int group, unsigned char big, pass_group& out)
{
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* attr = gQzfsManager.find_group_by_number(group);
    if (attr == nullptr)
        return false;
    out.members = attr->valid_disk_bitmap;
    out.used_for_recording = attr->used_for_recording_free_size;
    out.start_delete = attr->start_delete_free_size;
    out.once = attr->once_delete_size;
    out.generation = attr->delete_list_generation;
    out.list = delete_list_of(*attr, big);
    return true;
}

// The list goes back unless something dropped the group's lists meanwhile.
void put_back_pass_list(int group, unsigned char big, pass_group& pass)
{
    ManagerLockGuard manager(gQzfsManager);
    _disk_group_attr_* attr = gQzfsManager.find_group_by_number(group);
    if (attr != nullptr && attr->delete_list_generation == pass.generation)
        delete_list_of(*attr, big).swap(pass.list);
}

// Free space above the recording level, summed over the members, stopping
// once it reaches `enough`.
unsigned long long group_spare_size(const pass_group& pass, unsigned long long enough)
{
    unsigned long long spare = 0;
    for (CQzFileSystem* fs : gQzfsManager.mounted_disks(pass.members)) {
        if (spare >= enough)
            break;
        unsigned long long free_size;
        {
            DiskLockGuard disk(*fs);
            free_size = (unsigned long long)fs->manage().free_block * fs->manage().block_size;
        }
        if (free_size > pass.used_for_recording)
            spare += free_size - pass.used_for_recording;
    }
    return spare;
}

// Whether the victim may still go, looked at under its disk lock: still a
// normal segment of the stamp the list knows, not locked, not being read.
// 1 yes, 0 not now (open for reading), -1 never (drop the node).
int victim_still_valid(CQzFileSystem& fs, const _delete_ss_list_node_& victim)
{
    _stream_segment_index_node_men_ node;
    if (fs.Get_stream_segment_index_mem_node(victim.id.root_index, victim.id.stream_segment_index,
                                             &node) != 0 ||
        !IS_NORMAL_SSIN(node.id) || node.lock != 0 || node.owner_stamp != victim.owner_stamp)
        return -1;
    if (fs.find_opening_stream_segment_by_id(&victim.id, nullptr, 1) >= 0)
        return 0;
    return 1;
}

// True when the victim lies on the day the disk is recording: the cached
// list may be out of date for that day.
bool victim_on_recording_day(CQzFileSystem& fs, const _delete_ss_list_node_& victim)
{
    _k4t_fs_date_ recording;
    if (fs.get_cur_record_date(&recording) != 0)
        return false;
    _root_index_node_mem_ root;
    if (fs.Get_root_index_mem_node(victim.id.root_index, &root) != 0)
        return false;
    return root.year == recording.year && root.month == recording.month &&
           root.day == recording.day;
}

bool same_segment(const _k4t_stream_segment_id_& a, const _k4t_stream_segment_id_& b)
{
    return a.hdd_id == b.hdd_id && a.root_index == b.root_index &&
           a.stream_segment_index == b.stream_segment_index;
}

void drop_tried(std::list<_delete_ss_list_node_>& list,
                const std::vector<_k4t_stream_segment_id_>& tried)
{
    list.remove_if([&](const _delete_ss_list_node_& node) {
        for (const _k4t_stream_segment_id_& id : tried)
            if (same_segment(id, node.id))
                return true;
        return false;
    });
}

}  // namespace

int CQzfsApi::Qzfs_disk_overwrite_big_stream(int group)
{
    pass_group pass;
    if (!take_pass_group(group, 1, pass)) {
        QZLOG("Group %d is invalid!", group);
        return 0;
    }
    const unsigned long long spare = group_spare_size(pass, pass.start_delete);
    if (spare >= pass.start_delete) {
        QZLOG_ABOVE(0, "HAVE ENOUGH SPACE(%lld)(%lld)", (long long)spare,
                    (long long)pass.start_delete);
        return 0;
    }
    if (pass.members == 0)
        return 0;
    QZLOG_ABOVE(0, "start delete(group:%d)", group);
    const int result = start_delete_stream(group, 1, pass.list, 0);
    QZLOG_ABOVE(0, "end delete(group:%d)", group);
    put_back_pass_list(group, 1, pass);
    return result;
}

int CQzfsApi::Qzfs_disk_overwrite_small_stream(int group, unsigned long reserve_day)
{
    pass_group pass;
    if (!take_pass_group(group, 0, pass)) {
        QZLOG("Group %d is invalid!", group);
        return 0;
    }
    if (gQzfsManager.Judge_small_stream_is_full(group, reserve_day) != 1)
        return 0;
    QZLOG_ABOVE(0, "start delete(group:%d)(reserve day:%lu)", group, reserve_day);
    const int result = start_delete_stream(group, 0, pass.list, reserve_day);
    QZLOG_ABOVE(0, "end delete(group:%d)", group);
    put_back_pass_list(group, 0, pass);
    return result;
}

int CQzfsApi::start_delete_stream(int group, unsigned char big,
                                  std::list<_delete_ss_list_node_>& list,
                                  unsigned long reserve_day)
{
    unsigned long long once = 0;
    {
        ManagerLockGuard manager(gQzfsManager);
        const _disk_group_attr_* attr = gQzfsManager.find_group_by_number(group);
        if (attr == nullptr)
            return -1;
        once = attr->once_delete_size;
    }
    unsigned long long total = 0;
    // Segments that gave nothing in this pass (a recording shorter than
    // what is wanted): the rebuilt list would offer them again.
    std::vector<_k4t_stream_segment_id_> gave_nothing;
    for (int round = 0; round < MAX_PASS_ITERATIONS; round++) {
        if (!big && gQzfsManager.Judge_small_stream_is_full(group, reserve_day) != 1)
            return 0;
        auto victim = gQzfsManager.Find_delete_stream_segment(list);
        if (victim == list.end()) {
            gQzfsManager.Find_delete_stream_segment(group, big, list);
            if (list.empty()) {
                QZLOG("have not unlock stream segment!");
                return -1;
            }
            const int listed = int(list.size());
            drop_tried(list, gave_nothing);
            victim = gQzfsManager.Find_delete_stream_segment(list);
            if (victim == list.end()) {
                QZLOG("have not unlock stream segment, but have open segment(list size:%d)!",
                      listed);
                return 0;
            }
        }
        const _k4t_stream_segment_id_ id = victim->id;
        CQzFileSystem* fs = gQzfsManager.get_file_system(id.hdd_id);
        if (fs == nullptr) {
            list.erase(victim);
            continue;
        }
        unsigned long long want = once - total;
        QZLOG_ABOVE(0, "start delete:once size:%llu, owner stamp:%lu", want,
                    (unsigned long)victim->owner_stamp);
        unsigned long long size = 0;
        unsigned char whole = 0, root_deleted = 0;
        unsigned long new_stamp = victim->owner_stamp;
        bool list_stale = false;
        {
            DiskLockGuard disk(*fs);
            if (fs->delete_invalid_block_data(victim->owner_stamp, big, want, &size) > 0) {
                total += size;
                if (total >= want) {
                    QZLOG_ABOVE(0, "invalid block want:%llu,delete_size:%llu", want, total);
                    return 0;
                }
                want = once - total;
            }
            const int valid = victim_still_valid(*fs, *victim);
            if (valid < 0) {
                list.erase(victim);
                continue;
            }
            if (valid == 0)
                continue;  // opened for reading meanwhile: the next pick passes it over
            list_stale = victim_on_recording_day(*fs, *victim);
            size = 0;
            if (fs->Delete_stream_segment(id.root_index, id.stream_segment_index, nullptr, want,
                                          &size, &whole, nullptr, &new_stamp, &root_deleted) < 0)
                size = 0;
            if (list_stale)
                list.clear();
        }
        if (size == 0 && whole == 0)
            gave_nothing.push_back(id);
        total += size;
        QZLOG_ABOVE(0,
                    "want:%llu,delete_size:%llu,total size:%llu, owner stamp:%lu, "
                    "delete_root_flag:%d",
                    want, size, total, new_stamp, int(root_deleted));
        if (!list_stale) {
            // A segment only trimmed keeps its place with its new stamp, and
            // the next round goes on with it. (A stale list was cleared, the
            // victim with it.)
            victim->owner_stamp = uint32_t(new_stamp);
            if (whole != 0 || size < want)
                list.erase(victim);
        }
        if (total >= want)
            return 0;
    }
    return 0;
}

// ------------------------------------------------------- the sweep by date

int CQzfsApi::Qzfs_auto_delete(_k4t_fs_date_time_* now, int reserve_day)
{
    if (now == nullptr || !qzfs_date_time_valid(*now) || reserve_day < 0) {
        QZLOG("para is invalid(%d-%d-%d %d:%d:%d), reserve day:%d!", now ? now->year : -1,
              now ? now->month : -1, now ? now->day : -1, now ? now->hour : -1,
              now ? now->minute : -1, now ? now->second : -1, reserve_day);
        return -1;
    }
    // Everything of the big streams from the first day on up to the day
    // `reserve_day` + 1 days back; locked recordings stay.
    _k4t_fs_date_time_ cut = *now;
    Date_time_add(now, -(long long)(reserve_day + 1) * 86400, &cut);
    _qzfs_k4t_delete_para_ para;
    memset(&para, 0, sizeof(para));
    para.group_mask = 0xFFFFFFFFu;
    para.channel_mask = 0xFFFFFFFFu;
    para.stream_mask = 7;
    para.end_year = cut.year;
    para.end_month = cut.month;
    para.end_day = cut.day;
    return Qzfs_delete_stream_segment_by_para(&para);
}
