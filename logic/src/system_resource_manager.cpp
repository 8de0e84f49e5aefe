// The node caches shared by all disks, the name table and the per-disk root
// index managers, with the element callbacks that keep them consistent.
#include "system_resource_manager.h"
#include "qzfs_root_days.h"
#include "qzfilesystem_api.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>
#include <new>

typedef CQzfsVector<uint32_t, _root_index_node_mem_, RICacheFunc, 0> RootNodeCache;
typedef CQzfsVector<uint32_t, _stream_segment_index_node_men_, SSICacheFunc, 0> SegmentNodeCache;

// ------------------------------------------------------------ element callbacks

unsigned char StringIndexVectorFunc(_string_index_info_& a, _string_index_info_& b, unsigned char op)
{
    switch (op) {
    case RVFSVO_INIT:
        a.ref_count = -1;
        a.name = nullptr;
        return 1;
    case RVFSVO_UNINIT:
    case RVFSVO_FREE:
        if (a.name != nullptr)
            QZLOG_ABOVE(2, "RVFSVO_FREE or RVFSVO_UNINIT:%d(%s)", op, a.name);
        a.ref_count = -1;
        free(a.name);
        a.name = nullptr;
        return 1;
    case RVFSVO_COPY:
        b = a;
        return 1;
    case RVFSVO_IS_FREE:
        return a.ref_count < 0 ? 1 : 0;
    default:
        QZLOG("NOT support operator(operator:%d)", op);
        exit(1);
    }
}

unsigned char RICacheVectorFunc(_root_index_node_mem_& a, _root_index_node_mem_& b, unsigned char op)
{
    switch (op) {
    case RVFSVO_INIT:
        memset(&a, 0, sizeof(a));
        return 1;
    case RVFSVO_UNINIT:
    case RVFSVO_FREE:
        if (pgSystemResourceManager != nullptr)
            pgSystemResourceManager->m_string_index.ref_dec_by_index(a.name_index);
        memset(&a, 0, sizeof(a));
        return 1;
    case RVFSVO_COPY:
        b = a;
        return 1;
    case RVFSVO_IS_FREE:
        return a.id == 0 ? 1 : 0;
    default:
        QZLOG("RICacheVectorFunc NOT support operator(operator:%d)", op);
        exit(1);
    }
}

unsigned char SSICacheVectorFunc(_stream_segment_index_node_men_& a,
                                 _stream_segment_index_node_men_& b, unsigned char op)
{
    switch (op) {
    case RVFSVO_INIT:
    case RVFSVO_UNINIT:
    case RVFSVO_FREE:
        a.id = 0;
        return 1;
    case RVFSVO_COPY:
        b = a;
        return 1;
    case RVFSVO_IS_FREE:
        return a.id == 0 ? 1 : 0;
    default:
        QZLOG("SSICacheVectorFunc NOT support operator(operator:%d)", op);
        exit(1);
    }
}

// Gives a segment node's cache slot back: the node reads as free, and the
// search cursor of the cache moves to it unless it already rests on a free
// slot, so the next search finds this one at once.
static void release_segment_slot(SegmentNodeCache& cache, uint32_t slot)
{
    if (slot >= cache.m_size)
        return;
    cache.m_data[slot].id = 0;
    if (cache.m_next_free < cache.m_size && cache.is_free(cache.m_next_free))
        return;
    cache.m_next_free = slot;
}

unsigned char SSAVectorFunc(uint32_t& a, uint32_t& b, unsigned char op)
{
    switch (op) {
    case RVFSVO_INIT:
        a = QZFS_SSA_FREE_NODE;
        return 1;
    case RVFSVO_UNINIT:
    case RVFSVO_FREE:
        if (a == QZFS_SSA_FREE_NODE || a == QZFS_SSA_RESERVED)
            return 1;
        if (pgSystemResourceManager != nullptr) {
            SegmentNodeCache& cache = pgSystemResourceManager->m_stream_segment_index_node_cache;
            if (a < cache.m_max_size)
                release_segment_slot(cache, a);
        }
        a = QZFS_SSA_FREE_NODE;
        return 1;
    case RVFSVO_COPY:
        b = a;
        return 1;
    case RVFSVO_IS_FREE:
        return a == QZFS_SSA_FREE_NODE ? 1 : 0;
    default:
        QZLOG("SSAVectorFunc NOT support operator(operator:%d)", op);
        exit(1);
    }
}

// The callback of an array of owned pointers (a disk's root entries, the
// per-disk root index managers): null is a free element, and freeing hands a non-null element
// to `drop`, which deletes it with all it owns, and leaves null behind. An
// unknown operation is logged under the callback's name and ends the
// process.
template <typename T>
static unsigned char owned_pointer_op(const char* name, T*& a, T*& b, unsigned char op,
                                      void (*drop)(T*, unsigned char))
{
    switch (op) {
    case RVFSVO_INIT:
        a = nullptr;
        return 1;
    case RVFSVO_UNINIT:
    case RVFSVO_FREE:
        if (a != nullptr)
            drop(a, op);
        a = nullptr;
        return 1;
    case RVFSVO_COPY:
        b = a;
        return 1;
    case RVFSVO_IS_FREE:
        return a == nullptr ? 1 : 0;
    default:
        QZLOG_AS(name, "%s NOT support operator(operator:%d)", name, op);
        exit(1);
    }
}

// A root entry goes with its chain copy, its root cache slot (and with it
// the name reference) and its segment range.
static void drop_root_entry(_ri_ssi_manager_* a, unsigned char)
{
    delete[] a->pStream_segment_index_block;
    a->pStream_segment_index_block = nullptr;
    if (a->root_node_slot != QZFS_CACHE_INVALID_SLOT && pgSystemResourceManager != nullptr) {
        RootNodeCache& cache = pgSystemResourceManager->m_root_index_node_cache;
        if (a->root_node_slot < cache.m_size)
            cache.free_element(a->root_node_slot);
    }
    // The array's destructor releases every segment slot it holds.
    delete a->pStream_segment_array;
    delete a;
}

unsigned char RISSIMVectorFunc(_ri_ssi_manager_*& a, _ri_ssi_manager_*& b, unsigned char op)
{
    return owned_pointer_op("RISSIMVectorFunc", a, b, op, drop_root_entry);
}

static void drop_disk_manager(_hdd_root_index_manager_* a, unsigned char op)
{
    if (g_qzfs_debug_level > 0)
        QZLOG_AS("HddResourceVectorFunc",
                 "HddResourceVectorFunc RVFSVO_FREE or RVFSVO_UNINIT(operator:%d)(%08lx)", op,
                 (unsigned long)(uintptr_t)a);
    // The array's destructor frees every root entry, their cache slots
    // and their segment ranges.
    delete a->pRoot_index_array;
    delete[] a->pRoot_index_block;
    delete a->pRoot_day_index;
    delete a;
}

unsigned char HddResourceVectorFunc(_hdd_root_index_manager_*& a, _hdd_root_index_manager_*& b,
                                    unsigned char op)
{
    return owned_pointer_op("HddResourceVectorFunc", a, b, op, drop_disk_manager);
}

void InitRiSsiManager(_ri_ssi_manager_*& manager)
{
    if (manager == nullptr) {
        manager = new (std::nothrow) _ri_ssi_manager_;
        if (manager == nullptr)
            QZFS_FATAL("InitRiSsiManager out of memory");
    }
    time_t now = time(nullptr);
    manager->root_node_slot = QZFS_CACHE_INVALID_SLOT;
    manager->start_stream_segment_index = 0;
    manager->end_stream_segment_index = 0;
    manager->access_time = now;
    manager->ssi_access_time = now;
    manager->end_mark_index = 0xFFFFFFFF;
    manager->stream_segment_index_block_num = 0;
    manager->pStream_segment_index_block = nullptr;
    manager->iframe_index_block = 0;
    manager->free_stream_segment_index = 0;
    manager->pStream_segment_array = new (std::nothrow)
        SSAVector(SSAVectorFunc, 0xFFFFFFFF, 255, 0xFFFFFFFF, "ri_ssi_manager_t::pStream_segment_array");
    if (manager->pStream_segment_array == nullptr)
        QZFS_FATAL("InitRiSsiManager out of memory");
}

// ------------------------------------------------------------------ name table

// A free element of `table` (a node cache or the name table), searched from
// its cursor to the end and then from the start; the table grows while it is
// below its limit. The cursor moves on by one whichever element was found.
template <typename Cache> static uint32_t find_free_slot(Cache& cache)
{
    if (cache.m_size == 0 && cache.vector_increment() == 0)
        return QZFS_CACHE_INVALID_SLOT;
    for (;;) {
        if (cache.m_next_free >= cache.m_size)
            cache.m_next_free = 0;
        uint32_t cursor = cache.m_next_free;
        for (uint32_t pass = 0; pass < 2; pass++) {
            uint32_t from = pass == 0 ? cursor : 0;
            uint32_t to = pass == 0 ? cache.m_size : cursor;
            for (uint32_t i = from; i < to; i++) {
                if (cache.is_free(i)) {
                    cache.m_next_free = cursor + 1 >= cache.m_size ? 0 : cursor + 1;
                    return i;
                }
            }
        }
        cache.m_next_free = cache.m_invalid_index;
        if (cache.vector_increment() == 0)
            return QZFS_CACHE_INVALID_SLOT;
    }
}


// Indexes handed out are the vector position + 8; 0 to 7 are reserved.
template <typename IndexType>
StringIndexManager<IndexType>::StringIndexManager()
    : m_string_index_vector(StringIndexVectorFunc, 65527, 255, IndexType(0xFFFF),
                            "StringIndexManager::m_string_index_vector")
{
}

template <typename IndexType> StringIndexManager<IndexType>::~StringIndexManager() {}

template <typename IndexType> int StringIndexManager<IndexType>::valid_string_index(IndexType index)
{
    return index >= QZFS_FIRST_NAME_INDEX &&
                   uint32_t(index) - 7 <= uint32_t(m_string_index_vector.m_size)
               ? 1
               : 0;
}

template <typename IndexType> const char* StringIndexManager<IndexType>::get_name(IndexType index)
{
    if (!valid_string_index(index))
        return nullptr;
    IndexType position = IndexType(index - QZFS_FIRST_NAME_INDEX);
    if (position >= m_string_index_vector.m_size || m_string_index_vector.is_free(position))
        return nullptr;
    return m_string_index_vector.m_data[position].name;
}

template <typename IndexType>
IndexType StringIndexManager<IndexType>::ref_inc_by_name(const char* name)
{
    auto& table = m_string_index_vector;
    // A name already known gains a reference. Few distinct names live in
    // the table, so a linear walk is enough.
    for (IndexType i = 0; i < table.m_size; i++) {
        _string_index_info_& entry = table.m_data[i];
        if (!table.is_free(i) && strcmp(entry.name, name) == 0) {
            entry.ref_count++;
            return IndexType(i + QZFS_FIRST_NAME_INDEX);
        }
    }
    uint32_t found = find_free_slot(table);
    if (found == QZFS_CACHE_INVALID_SLOT) {
        QZLOG_ABOVE(1, "not enough(MaxSize:%ld)(index:%ld)", (long)table.m_max_size,
                    (long)table.m_size);
        return QZFS_NAME_TABLE_FULL;
    }
    char* copy = strdup(name);
    if (copy == nullptr)
        QZFS_FATAL("StringIndexManager::ref_inc_by_name out of memory");
    table.m_data[found].ref_count = 1;
    table.m_data[found].name = copy;
    return IndexType(found + QZFS_FIRST_NAME_INDEX);
}

template <typename IndexType>
IndexType StringIndexManager<IndexType>::ref_dec_by_index(IndexType index)
{
    if (!valid_string_index(index))
        return 0;
    IndexType position = IndexType(index - QZFS_FIRST_NAME_INDEX);
    if (position >= m_string_index_vector.m_size || m_string_index_vector.is_free(position))
        return 0;
    _string_index_info_& entry = m_string_index_vector.m_data[position];
    entry.ref_count--;
    if (entry.ref_count <= 0)
        m_string_index_vector.free_element(position);
    return index;
}

template class StringIndexManager<unsigned short>;

// ------------------------------------------------------------------ the caches

// Limit of a node cache: an empty pool cannot serve anything.
static uint32_t cache_max_size(uint32_t size)
{
    if (size == 0)
        exit(1);
    return size;
}

// Growth step of a node cache: 0 means 255, and no step exceeds the pool.
static uint32_t cache_step(uint32_t size, uint32_t step)
{
    if (step == 0)
        step = 255;
    return step > size ? size : step;
}

CSystemResourceManager::CSystemResourceManager()
    : m_lock(qzfs_create_recursive_lock()),
      m_string_index(),
      m_root_index_node_cache(RICacheVectorFunc, cache_max_size(gQzfsConfig.root_index_cache_size),
                              cache_step(gQzfsConfig.root_index_cache_size,
                                         gQzfsConfig.root_index_cache_step),
                              QZFS_CACHE_INVALID_SLOT,
                              "CSystemResourceManager::m_root_index_node_cache"),
      m_stream_segment_index_node_cache(
          SSICacheVectorFunc, cache_max_size(gQzfsConfig.ssi_cache_size),
          cache_step(gQzfsConfig.ssi_cache_size, gQzfsConfig.ssi_cache_step),
          QZFS_CACHE_INVALID_SLOT, "CSystemResourceManager::m_stream_segment_index_node_cache"),
      m_hdd_resource(HddResourceVectorFunc, 255, 8, 255, "CSystemResourceManager::m_hdd_resource")
{
}

// The members go in reverse order: the disk managers first, which give their
// slots and names back to the caches and the name table still standing.
CSystemResourceManager::~CSystemResourceManager()
{
    if (m_lock != nullptr)
        qzfs_destroy_lock(m_lock);
    m_lock = nullptr;
}

_hdd_root_index_manager_** CSystemResourceManager::Get_hdd(unsigned char hdd_id, unsigned char create)
{
    QzfsScopedLock cache(m_lock);
    _hdd_root_index_manager_*& manager = m_hdd_resource[hdd_id];
    if (manager == nullptr && create == 1) {
        manager = new (std::nothrow) _hdd_root_index_manager_;
        if (manager == nullptr)
            QZFS_FATAL("CSystemResourceManager::Get_hdd out of memory");
        manager->start_root_index = 0;
        manager->end_root_index = 0;
        manager->end_mark_index = 0xFFFFFFFF;
        manager->root_index_block_num = 0;
        manager->pRoot_index_block = nullptr;
        manager->free_root_index = 0;
        manager->start_year = manager->end_year = 255;
        manager->start_month = manager->end_month = 255;
        manager->start_day = manager->end_day = 255;
        manager->pRoot_day_index = nullptr;
        manager->pRoot_index_array = new (std::nothrow) RISSIMVector(
            RISSIMVectorFunc, 0xFFFFFFFF, 1024, 0xFFFFFFFF, "hdd_root_index_manager_t::pRoot_index_array");
        if (manager->pRoot_index_array == nullptr)
            QZFS_FATAL("CSystemResourceManager::Get_hdd out of memory");
    }
    return &manager;
}

uint32_t CSystemResourceManager::GetRootIndexNodeInCache(unsigned char hdd_id)
{
    QzfsScopedLock cache(m_lock);
    uint32_t slot = find_free_slot(m_root_index_node_cache);
    if (slot == QZFS_CACHE_INVALID_SLOT)
        slot = RootIndexSwapOut(hdd_id);
    return slot;
}

uint32_t CSystemResourceManager::GetStreamSegmentIndexNodeInCache(unsigned char hdd_id,
                                                                  uint32_t root_index)
{
    QzfsScopedLock cache(m_lock);
    uint32_t slot = find_free_slot(m_stream_segment_index_node_cache);
    if (slot == QZFS_CACHE_INVALID_SLOT)
        slot = StreamSegmentIndexSwapOut(hdd_id, root_index);
    return slot;
}

// Element i of a per-disk array, null (or free) past its allocated end.
static _ri_ssi_manager_* root_entry(RISSIMVector* array, uint32_t i)
{
    return array != nullptr && i < array->m_size ? array->m_data[i] : nullptr;
}

// The eviction candidate rule shared by both pools: the first candidate
// wins, a later one only with a strictly older time; a best time of 0
// counts as no best at all.
static bool better_candidate(time_t candidate, bool have_best, time_t best)
{
    return !have_best || best == 0 || candidate < best;
}

uint32_t CSystemResourceManager::RootIndexSwapOut(unsigned char hdd_id)
{
    _hdd_root_index_manager_* winner_hdd = nullptr;
    _ri_ssi_manager_* winner = nullptr;
    uint32_t winner_position = 0;
    bool winner_at_low_end = false;

    for (uint32_t id = 0; id < m_hdd_resource.m_size; id++) {
        _hdd_root_index_manager_* hdd = m_hdd_resource.m_data[id];
        if (id == hdd_id || hdd == nullptr || hdd->end_root_index <= hdd->start_root_index)
            continue;
        uint32_t count = hdd->end_root_index - hdd->start_root_index;
        // The range must stay contiguous: only its two ends can go, that is
        // the lowest and the highest entry that holds a node. False for an
        // empty entry, which the search passes over.
        auto candidate = [&](uint32_t i, bool at_low_end) {
            _ri_ssi_manager_* entry = root_entry(hdd->pRoot_index_array, i);
            if (entry == nullptr)
                return false;
            if (better_candidate(entry->access_time, winner != nullptr,
                                 winner ? winner->access_time : 0)) {
                winner_hdd = hdd;
                winner = entry;
                winner_position = hdd->start_root_index + i;
                winner_at_low_end = at_low_end;
            }
            return true;
        };
        for (uint32_t i = 0; i < count && !candidate(i, true); i++) {
        }
        for (uint32_t i = count - 1; i >= 1 && !candidate(i, false); i--) {
        }
    }
    if (winner == nullptr)
        return QZFS_CACHE_INVALID_SLOT;

    uint32_t slot = winner->root_node_slot;
    RISSIMVector& array = *winner_hdd->pRoot_index_array;
    uint32_t count = winner_hdd->end_root_index - winner_hdd->start_root_index;
    uint32_t relative = winner_position - winner_hdd->start_root_index;
    if (winner_at_low_end) {
        for (uint32_t i = 0; i <= relative && i < array.m_size; i++)
            array.free_element(i);
        if (relative == count - 1) {
            winner_hdd->start_root_index = 0;
            winner_hdd->end_root_index = 0;
        } else {
            array.move(relative + 1, count - relative - 1, 0);
            winner_hdd->start_root_index = winner_position + 1;
        }
    } else {
        for (uint32_t i = relative; i < count && i < array.m_size; i++)
            array.free_element(i);
        if (winner_position > winner_hdd->start_root_index) {
            winner_hdd->end_root_index = winner_position;
        } else {
            winner_hdd->start_root_index = 0;
            winner_hdd->end_root_index = 0;
        }
    }
    return slot;
}

// True when the cached segment range of a root holds at least one cache slot.
static bool holds_segment_slot(const _ri_ssi_manager_* manager)
{
    const SSAVector* array = manager->pStream_segment_array;
    if (array == nullptr || manager->end_stream_segment_index <= manager->start_stream_segment_index)
        return false;
    uint32_t count = manager->end_stream_segment_index - manager->start_stream_segment_index;
    for (uint32_t i = 0; i < count && i < array->m_size; i++) {
        uint32_t value = array->m_data[i];
        if (value != QZFS_SSA_FREE_NODE && value != QZFS_SSA_RESERVED)
            return true;
    }
    return false;
}

// Among the cached roots of one disk that hold segment slots, the one whose
// segments were used longest ago, by the candidate rule. `skip` is a root
// index left out of the search.
static void oldest_segment_holder(_hdd_root_index_manager_* hdd, bool use_skip, uint32_t skip,
                                  _ri_ssi_manager_*& winner, uint32_t& winner_position)
{
    if (hdd == nullptr || hdd->end_root_index <= hdd->start_root_index)
        return;
    uint32_t count = hdd->end_root_index - hdd->start_root_index;
    for (uint32_t i = 0; i < count; i++) {
        _ri_ssi_manager_* entry = root_entry(hdd->pRoot_index_array, i);
        uint32_t position = hdd->start_root_index + i;
        if (entry == nullptr || (use_skip && position == skip) || !holds_segment_slot(entry))
            continue;
        if (better_candidate(entry->ssi_access_time, winner != nullptr,
                             winner ? winner->ssi_access_time : 0)) {
            winner = entry;
            winner_position = position;
        }
    }
}

uint32_t CSystemResourceManager::StreamSegmentIndexSwapOut(unsigned char hdd_id, uint32_t root_index)
{
    // Segment nodes go a whole root at a time, other disks first.
    _ri_ssi_manager_* winner = nullptr;
    uint32_t winner_position = 0;
    for (uint32_t id = 0; id < m_hdd_resource.m_size; id++)
        if (id != hdd_id)
            oldest_segment_holder(m_hdd_resource.m_data[id], false, 0, winner, winner_position);
    if (winner != nullptr)
        return FreeStreamSegmentIndex_all(winner);

    // Then the asking disk itself, sparing the root being read. The lookup
    // goes through operator[], which ends the process for hdd_id 255.
    oldest_segment_holder(m_hdd_resource[hdd_id], true, root_index, winner, winner_position);
    if (winner == nullptr)
        return QZFS_CACHE_INVALID_SLOT;
    QZLOG("free root index:%lu[accesstime:%lu]", (unsigned long)winner_position,
          (unsigned long)winner->ssi_access_time);
    return FreeStreamSegmentIndex_all(winner);
}

uint32_t CSystemResourceManager::FreeStreamSegmentIndex_all(_ri_ssi_manager_* manager)
{
    uint32_t result = QZFS_CACHE_INVALID_SLOT;
    if (manager == nullptr)
        return result;
    SSAVector* array = manager->pStream_segment_array;
    if (array != nullptr && manager->end_stream_segment_index > manager->start_stream_segment_index) {
        uint32_t count = manager->end_stream_segment_index - manager->start_stream_segment_index;
        for (uint32_t i = 0; i < count && i < array->m_size; i++) {
            uint32_t value = array->m_data[i];
            if (value == QZFS_SSA_FREE_NODE || value == QZFS_SSA_RESERVED)
                continue;
            if (result == QZFS_CACHE_INVALID_SLOT)
                result = value;
            release_segment_slot(m_stream_segment_index_node_cache, value);
            // The slot belongs to the pool again: a later release of this
            // root (which sweeps its whole array) must not clear it a second
            // time under its next owner.
            array->m_data[i] = QZFS_SSA_FREE_NODE;
        }
    }
    manager->start_stream_segment_index = 0;
    manager->end_stream_segment_index = 0;
    return result;
}

// At unmount. Taken under the cache lock, so that an eviction on behalf of
// another disk never walks a manager that is being freed.
int CSystemResourceManager::Free_resource(unsigned char hdd_id)
{
    QzfsScopedLock cache(m_lock);
    if (hdd_id >= m_hdd_resource.m_size)
        return 0;
    _hdd_root_index_manager_*& manager = m_hdd_resource.m_data[hdd_id];
    if (manager != nullptr)
        HddResourceVectorFunc(manager, manager, RVFSVO_FREE);
    return 0;
}

CacheLockGuard::CacheLockGuard()
    : QzfsScopedLock(pgSystemResourceManager != nullptr ? pgSystemResourceManager->m_lock : nullptr)
{
}
