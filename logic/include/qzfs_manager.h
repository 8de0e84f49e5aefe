// CQzfsManager: the one registry of the library (gQzfsManager). It owns the
// disk objects by hdd_id, the groups of disks, the open query handles and
// the table of stream descriptors.
#ifndef QZFS_MANAGER_H
#define QZFS_MANAGER_H

#include "qzfilesystem_api.h"
#include "qzfs_vector.h"

#include <list>
#include <map>
#include <mutex>
#include <vector>

class CQzFileSystem;
struct _opened_stream_segment_;
struct _stream_segment_index_node_men_;

// Highest number of disk objects; hdd_id 255 means "none".
const unsigned int QZFS_MAX_DISKS = 255;
// Disk vector growth step.
const unsigned int QZFS_DISK_VECTOR_STEP = 8;
// Stream descriptors run from 1 to 511; slot 0 is never used.
const int QZFS_OSSID_TABLE_SIZE = 512;
// Query handles run from 1 to this value.
const int QZFS_MAX_QUERY_HANDLE = 1048574;
const unsigned char QZFS_NO_HDD = 255;

// One segment queued for deletion by an overwrite pass.
struct _delete_ss_list_node_ {
    _k4t_stream_segment_id_ id;
    uint32_t owner_stamp;
};
// A delete list holds at most this many nodes, the oldest.
const size_t QZFS_DELETE_LIST_MAX = 100;

// A group of disks that record together.
struct _disk_group_attr_ {
    unsigned long max_owner_stamp;          // highest owner stamp among the group's disks
    unsigned long valid_disk_bitmap;        // bit n: hdd_id n belongs to the group
    unsigned char m_current_record_hdd_id;  // disk taking new recordings, 255 for none
    std::list<_delete_ss_list_node_> big_delete_list;
    std::list<_delete_ss_list_node_> small_delete_list;
    unsigned long long reserve_free_size_for_record;
    unsigned long long used_for_recording_free_size;
    unsigned long long start_delete_free_size;
    unsigned long long once_delete_size;
    std::list<void*> open_normal_file_list;
    void* group_lock;
    // Moves on whenever the delete lists are dropped: a pass that worked on
    // a copy of a list puts it back only when nothing dropped them meanwhile.
    unsigned long delete_list_generation;

    void drop_delete_lists()
    {
        big_delete_list.clear();
        small_delete_list.clear();
        delete_list_generation++;
    }
};

// State behind one query handle.
struct _stream_segment_query_state_ {
    // One hit of a sequence query, with the segment's full times (not cut
    // to the time range).
    struct _stream_query_list_node_ {
        uint8_t start_hour;
        uint8_t start_minute;
        uint8_t start_second;
        uint8_t end_hour;
        uint8_t end_minute;
        uint8_t end_second;
        uint8_t channel;
        uint8_t stream_type;
        uint8_t record_type;
        uint8_t lock;
        uint8_t segment_type;
        uint8_t flags;             // the segment node's raw flags
        uint32_t lock_type;
        uint64_t alarm_type;
        uint64_t len_in_bytes;
        uint8_t hdd_id;
        uint32_t root_index;
        uint32_t stream_segment_index;
    };

    _k4t_stream_query_ query;
    unsigned char cur_hdd_id;           // free query: resume point
    uint32_t cur_root_index;
    uint32_t cur_stream_segment_index;
    unsigned char find_over;            // free: nothing more; sequence: list complete
    std::list<_stream_query_list_node_> stream_list;  // sequence query: sorted hits
    uint32_t cur_index;                 // sequence query: next row of stream_list
};

// Element operator of the disk vector: 0 set null, 1 and 2 destroy and set
// null, 3 copy the pointer from `from` to `to`, 4 report whether `from` is
// null. Any other operator is fatal.
unsigned char QzfsVectorFunc(CQzFileSystem*& from, CQzFileSystem*& to, unsigned char op);
typedef unsigned char (*QzfsFunc)(CQzFileSystem*&, CQzFileSystem*&, unsigned char);
// Disk objects by hdd_id. operator[] grows the table and ends the process
// at 255 and above. Registration and get_file_system (which keeps 255 out)
// grow it; unregistration and the listings test the id against size().
typedef CQzfsVector<unsigned char, CQzFileSystem*, QzfsFunc, 0> QzfsDiskVector;

class CQzfsManager {
public:
    CQzfsManager();
    ~CQzfsManager();

    // Adding a disk object to the table and taking one out (which destroys
    // it) hold the disk registry exclusively.
    CQzFileSystem* register_qzfilesystem(unsigned char hdd_id);
    int unregiseter_qzfilesystem(unsigned char hdd_id);
    // The disk object of hdd_id, or null; the table grows to take hdd_id.
    // The object stays valid while the caller holds the disk registry
    // (every exported call does).
    CQzFileSystem* get_file_system(unsigned char hdd_id);
    // Slots of the disk table (hdd_id 0 up to this, exclusive).
    unsigned int disk_slots();
    // Destroys every disk object (library teardown).
    void free_all_file_systems();

    int Find_group_id(unsigned char hdd_id);
    // The disks of the groups whose bits are set in `group_bitmap`, as a
    // mask by hdd_id (bit n: disk n).
    unsigned long disks_of_groups(uint32_t group_bitmap);
    _disk_group_attr_* find_group(unsigned char group);
    // The same for a group number given as an int: null outside 0 to 255.
    _disk_group_attr_* find_group_by_number(int group)
    {
        return group >= 0 && group < 256 ? find_group((unsigned char)group) : nullptr;
    }
    int Get_free_query_stream_segment_handle();

    int apply_and_set_ossid(int disk_fd);
    int free_ossid(int slot);
    int get_disk_ossid(int slot);
    int modify_disk_ossid(int slot, int value);
    // The open record behind a disk ossid, or null.
    _opened_stream_segment_* get_opening_stream_segment_info(int disk_ossid);
    // The segment that `para` and `policy` choose over the disks of the
    // groups named; 0 or -1. `best` receives its node.
    int Find_stream_segment(_qzfs_k4t_stream_open_para_* para, _fs_find_policy_ policy,
                            unsigned char* hdd_id, uint32_t* root_index,
                            uint32_t* stream_segment_index, _stream_segment_index_node_men_* best);

    // ---- stream queries (qzfs_stream_query.cpp)
    typedef std::map<int, _stream_segment_query_state_>::iterator query_iterator;
    // Rows of a free query, disk by disk from its resume point. 0 or -1;
    // `*num` holds the room on entry and the rows on exit.
    int Query_stream_segment_free(query_iterator it, _k4t_stream_query_cmd_ cmd, int* num,
                                  _k4t_stream_query_result_* result);
    // One page of a sequence query moved by `cmd`. 0 or -1.
    int Query_stream_segment_sequence(query_iterator it, _k4t_stream_query_cmd_ cmd, int* num,
                                      _k4t_stream_query_result_* result);
    // Collects and sorts the hits of a sequence query over all its disks,
    // once for the life of the handle. 0 or -1.
    int find_stream_segment_for_sequence_query(query_iterator it);
    // Fills up to a page of rows from the sorted list at cur_index and
    // moves cur_index past them; the rows given.
    int fill_sequence_page(_stream_segment_query_state_& state, _k4t_stream_query_result_* result);

    // ---- delete lists of the overwrite planner (qzfs_delete_lists.cpp).
    // None of these holds the manager lock together with a disk lock.
    // Rebuilds `list` from the unlocked segments of the kind over the
    // group's disks; 0, or -1 for an unknown group.
    int Find_delete_stream_segment(int group, unsigned char big,
                                   std::list<_delete_ss_list_node_>& list);
    // The node to take from `list`: the lowest stamp among segments not open
    // for reading, the earlier node on a tie; list.end() when none is.
    std::list<_delete_ss_list_node_>::iterator Find_delete_stream_segment(
        std::list<_delete_ss_list_node_>& list);
    // 1 when some small stream type of the group holds more than
    // `reserve_day` days, else 0.
    int Judge_small_stream_is_full(int group, unsigned long reserve_day);
    // Drops both delete lists of the groups whose bits are set.
    void Clear_up_delete_list(unsigned long group_mask);
    // The disks of a group as a mask by hdd_id; false for an unknown group.
    bool group_members(int group, unsigned long& members);
    // The mounted disks of `members` (bit n: hdd_id n), lowest id first.
    std::vector<CQzFileSystem*> mounted_disks(unsigned long members);

    // The manager lock is taken only when gQzfsConfig.global_lock_enabled is 1.
    void manager_lock();
    void manager_unlock();

    unsigned char m_InitFlag;
    QzfsDiskVector m_Qzfs_vector;
    std::map<int, _stream_segment_query_state_> m_query_handle_map;
    std::map<unsigned char, _disk_group_attr_> m_disk_group_map;
    void* m_manager_lock;
    void* m_registry_lock;   // the disk registry; see system_resource_manager.h
    // The disk table's storage, which a lookup may grow while others read
    // it. A leaf: nothing is taken while it is held.
    std::mutex m_disk_table_lock;
    int m_ossid_table[QZFS_OSSID_TABLE_SIZE];
    void* m_ossid_lock;

private:
    CQzFileSystem*& slot(unsigned char hdd_id);
};

// Holds the disk registry shared for a scope: no disk object is destroyed
// meanwhile. A thread that holds the registry already (shared or exclusive)
// takes nothing more.
class DiskRegistryReadGuard {
public:
    DiskRegistryReadGuard();
    ~DiskRegistryReadGuard();
    DiskRegistryReadGuard(const DiskRegistryReadGuard&) = delete;
    DiskRegistryReadGuard& operator=(const DiskRegistryReadGuard&) = delete;

private:
    bool taken_;
};

// Holds the manager lock of `manager` for a scope: the group map and the
// query handle map. Like manager_lock(), it takes the lock only when
// gQzfsConfig.global_lock_enabled is 1. Never held together with a disk lock.
class ManagerLockGuard {
public:
    explicit ManagerLockGuard(CQzfsManager& manager) : manager_(manager)
    {
        manager_.manager_lock();
    }
    ~ManagerLockGuard() { manager_.manager_unlock(); }
    ManagerLockGuard(const ManagerLockGuard&) = delete;
    ManagerLockGuard& operator=(const ManagerLockGuard&) = delete;

private:
    CQzfsManager& manager_;
};

// Holds the disk registry exclusively for a scope: every exported call in
// flight has ended, and none starts until the scope ends. Taking it inside an
// exclusive scope adds nothing; inside a shared one it would wait for itself,
// and ends the process instead.
class DiskRegistryWriteGuard {
public:
    DiskRegistryWriteGuard();
    ~DiskRegistryWriteGuard();
    DiskRegistryWriteGuard(const DiskRegistryWriteGuard&) = delete;
    DiskRegistryWriteGuard& operator=(const DiskRegistryWriteGuard&) = delete;

private:
    bool taken_;
};

// The bit of a disk in a group mask; disks from 32 up have none.
unsigned long qzfs_disk_bit(unsigned char hdd_id);

// True when a disk has open streams or normal files.
int have_open_file(unsigned char hdd_id);
// True when a normal file of the disk is open in any group.
int qzfs_judge_hdd_open_normal_file(unsigned char hdd_id);


#endif
