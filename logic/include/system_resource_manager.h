// CSystemResourceManager: the node caches shared by all disks
// (pgSystemResourceManager), the table of stream names and one root index
// manager for each disk.
//
// The caches are read- and write-through: every change goes to the disk
// first and then into the cache, so eviction only drops nodes and nothing is
// ever written back from here. Both pools have a fixed budget; a full pool
// takes nodes from another disk first (RootIndexSwapOut,
// StreamSegmentIndexSwapOut).
//
// Locks, in the one order in which a thread may take them (a thread holding
// a lock of the list takes only locks further down):
//
//   1. disk registry    CQzfsManager::m_registry_lock. Shared for the length
//                       of every exported call, so that no disk object goes
//                       while a call may use it; exclusive only to add a
//                       disk object to the table or to take one out (mount,
//                       format, unmount). DiskRegistryReadGuard and
//                       DiskRegistryWriteGuard.
//   2. manager lock     CQzfsManager::m_manager_lock: the group map and the
//                       query handle map, when global_lock_enabled is 1.
//                       Never held together with a disk lock.
//   3. disk lock        one for each CQzFileSystem (disk_lock): its open map,
//                       allocator, key info, I/O buffer and index writes. One
//                       disk at a time. DiskLockGuard.
//   4. cache lock       m_lock below, recursive: everything in this header,
//                       the pools, the name table and every disk's root index
//                       manager with its cached ranges. Held across a whole
//                       index lookup or cache update, so that an eviction on
//                       behalf of another disk never frees a range that a
//                       lookup is walking. CacheLockGuard.
//   5. writer lock      _write_stream_segment_::lock: a writer's I-frame list
//                       and its live length and end time.
//   6. leaves           nothing is taken while one of these is held:
//                       CQzfsManager::m_ossid_lock (the descriptor table),
//                       CQzfsManager::m_disk_table_lock (the disk table's
//                       storage), CQzFileSystem::m_open_map_lock (a disk's
//                       open map).
//
// Payload reads and writes hold none of them.
#ifndef SYSTEM_RESOURCE_MANAGER_H
#define SYSTEM_RESOURCE_MANAGER_H

#include "qzfs_device.h"
#include "qzfs_vector.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

// A root node as the cache holds it: the name is an index of the name table.
// id 0 marks a free cache slot.
struct _root_index_node_mem_ {
    uint8_t id;
    uint8_t year;
    uint8_t month;
    uint8_t day;
    uint8_t channel;
    uint8_t stream_type;
    uint16_t record_type;
    uint32_t stream_segment_index_block;
    uint32_t owner_stamp;
    uint16_t name_index;
    uint8_t lock;
    uint8_t only_pre_record;
    uint8_t reserved[4];
};
static_assert(sizeof(_root_index_node_mem_) == 24, "a cached root node is 24 bytes");

// A stream segment node as the cache holds it. id 0 marks a free cache slot.
struct _stream_segment_index_node_men_ {
    uint8_t id;
    uint8_t start_hour;
    uint8_t start_minute;
    uint8_t start_second;
    uint8_t end_hour;
    uint8_t end_minute;
    uint8_t end_second;
    uint8_t segment_type;
    uint8_t record_type;
    uint8_t lock;
    uint8_t flags;
    uint32_t start_iframe;
    uint32_t owner_stamp;
    uint32_t lock_type;
    uint64_t alarm_type;
    uint64_t len_in_bytes;
};
static_assert(sizeof(_stream_segment_index_node_men_) == 40, "a cached segment node is 40 bytes");
static_assert(offsetof(_stream_segment_index_node_men_, flags) == 10, "times to flags in a row");

// An entry of the name table; ref_count -1 when the entry is free.
struct _string_index_info_ {
    int32_t ref_count;
    char* name;
};

// Name indexes: the vector position + 8. Below 8 is reserved.
const unsigned short QZFS_NO_NAME_INDEX = 0;
const unsigned short QZFS_NAME_TABLE_FULL = 1;
const unsigned short QZFS_FIRST_NAME_INDEX = 8;

// Slot values of a segment array besides cache slots.
const uint32_t QZFS_SSA_FREE_NODE = 0xFFFFFFFF;
const uint32_t QZFS_SSA_RESERVED = 0xFFFFFFFE;

// "No slot" of both node caches and of the two per-disk arrays.
const uint32_t QZFS_CACHE_INVALID_SLOT = 0xFFFFFFFF;

// The element callbacks of the caches and of the per-disk arrays reach the
// caches and the name table through pgSystemResourceManager: an instance is
// only used while it is the one that pointer names.

typedef unsigned char (*StringIndexFunc)(_string_index_info_&, _string_index_info_&, unsigned char);
typedef unsigned char (*RICacheFunc)(_root_index_node_mem_&, _root_index_node_mem_&, unsigned char);
typedef unsigned char (*SSICacheFunc)(_stream_segment_index_node_men_&,
                                      _stream_segment_index_node_men_&, unsigned char);
typedef unsigned char (*SSAFunc)(uint32_t&, uint32_t&, unsigned char);

unsigned char StringIndexVectorFunc(_string_index_info_& a, _string_index_info_& b, unsigned char op);
unsigned char RICacheVectorFunc(_root_index_node_mem_& a, _root_index_node_mem_& b, unsigned char op);
unsigned char SSICacheVectorFunc(_stream_segment_index_node_men_& a,
                                 _stream_segment_index_node_men_& b, unsigned char op);
unsigned char SSAVectorFunc(uint32_t& a, uint32_t& b, unsigned char op);

typedef CQzfsVector<uint32_t, uint32_t, SSAFunc, 0> SSAVector;

// The cached state of one normal root node: where its node sits in the root
// cache, and the cached range of its stream segment nodes. Element i of
// pStream_segment_array stands for position start_stream_segment_index + i.
struct _ri_ssi_manager_ {
    uint32_t root_node_slot;
    uint32_t start_stream_segment_index;
    uint32_t end_stream_segment_index;   // exclusive
    time_t access_time;                  // last lookup of the root node
    time_t ssi_access_time;              // last lookup or change of a segment node
    uint32_t end_mark_index;             // segment end mark, 0xFFFFFFFF unknown
    uint32_t stream_segment_index_block_num;  // chain length, 0 until read
    uint32_t* pStream_segment_index_block;
    uint32_t iframe_index_block;
    uint32_t free_stream_segment_index;
    SSAVector* pStream_segment_array;    // a slot of each position of the range
};

typedef unsigned char (*RISSIMFunc)(_ri_ssi_manager_*&, _ri_ssi_manager_*&, unsigned char);
unsigned char RISSIMVectorFunc(_ri_ssi_manager_*& a, _ri_ssi_manager_*& b, unsigned char op);
typedef CQzfsVector<uint32_t, _ri_ssi_manager_*, RISSIMFunc, 0> RISSIMVector;

// The root index state of one disk. Element i of pRoot_index_array stands
// for root index start_root_index + i: a manager for a normal node, null for
// a free one.
class RootDayIndex;

struct _hdd_root_index_manager_ {
    uint32_t start_root_index;       // cached range [start, end)
    uint32_t end_root_index;
    uint32_t end_mark_index;         // 0xFFFFFFFF unknown
    uint32_t root_index_block_num;   // chain length, 0 until read
    uint32_t* pRoot_index_block;
    uint32_t free_root_index;        // where the next free-slot search starts
    uint8_t start_year;              // record date range of the disk, 255 unknown
    uint8_t end_year;
    uint8_t start_month;
    uint8_t end_month;
    uint8_t start_day;
    uint8_t end_day;
    RISSIMVector* pRoot_index_array; // one entry per position of the range
    RootDayIndex* pRoot_day_index;   // owned; null until a call needs it (qzfs_root_days.h)
};

typedef unsigned char (*HddResourceFunc)(_hdd_root_index_manager_*&, _hdd_root_index_manager_*&,
                                         unsigned char);
unsigned char HddResourceVectorFunc(_hdd_root_index_manager_*& a, _hdd_root_index_manager_*& b,
                                    unsigned char op);

// Fills a new segment manager; the caller sets root_node_slot.
void InitRiSsiManager(_ri_ssi_manager_*& manager);

// The table of stream names shared by all cached root nodes.
template <typename IndexType>
class StringIndexManager {
public:
    StringIndexManager();
    ~StringIndexManager();
    int valid_string_index(IndexType index);
    const char* get_name(IndexType index);
    IndexType ref_inc_by_name(const char* name);
    IndexType ref_dec_by_index(IndexType index);

    CQzfsVector<IndexType, _string_index_info_, StringIndexFunc, 0> m_string_index_vector;
};
extern template class StringIndexManager<unsigned short>;

class CSystemResourceManager {
public:
    CSystemResourceManager();
    ~CSystemResourceManager();

    // Address of the disk's manager pointer; with create 1 a missing manager
    // is made. Valid while the disk table does not grow.
    _hdd_root_index_manager_** Get_hdd(unsigned char hdd_id, unsigned char create);
    // A free slot of a pool, or 0xFFFFFFFF. hdd_id 255: no disk is spared.
    uint32_t GetRootIndexNodeInCache(unsigned char hdd_id);
    uint32_t GetStreamSegmentIndexNodeInCache(unsigned char hdd_id, uint32_t root_index);
    uint32_t RootIndexSwapOut(unsigned char hdd_id);
    uint32_t StreamSegmentIndexSwapOut(unsigned char hdd_id, uint32_t root_index);
    uint32_t FreeStreamSegmentIndex_all(_ri_ssi_manager_* manager);
    // Drops every cached node of one disk (at unmount).
    int Free_resource(unsigned char hdd_id);

    void* m_lock;
    StringIndexManager<unsigned short> m_string_index;
    CQzfsVector<uint32_t, _root_index_node_mem_, RICacheFunc, 0> m_root_index_node_cache;
    CQzfsVector<uint32_t, _stream_segment_index_node_men_, SSICacheFunc, 0>
        m_stream_segment_index_node_cache;
    CQzfsVector<unsigned char, _hdd_root_index_manager_*, HddResourceFunc, 0> m_hdd_resource;
};

// Holds the cache lock of pgSystemResourceManager for a scope; nothing while
// there are no caches. Taking it again inside its scope is allowed.
class CacheLockGuard : public QzfsScopedLock {
public:
    CacheLockGuard();
};

#endif
