// The stream segment index: below each root node a flat array of 64-byte
// nodes, one for each stream segment, kept in the root's own chain of
// segment index blocks and read through the shared segment node cache.
//
// As at the root level, every change goes to the disk first and then into
// the cache, a damaged node reads as free, and a new node is written behind
// a fresh end mark. A segment being recorded shows an unknown end (hour 255)
// and length 0 until it is closed.
#include "qzfilesystem.h"
#include "qzfs_cached_range.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

static const uint32_t kNoIndex = 0xFFFFFFFF;

// The cache entry of a normal root node inside the cached range, or null.
_ri_ssi_manager_* CQzFileSystem::cached_root_entry(unsigned long root_index)
{
    _hdd_root_index_manager_* manager = root_manager();
    if (manager == nullptr || root_index < manager->start_root_index ||
        root_index >= manager->end_root_index)
        return nullptr;
    return (*manager->pRoot_index_array)[uint32_t(root_index - manager->start_root_index)];
}

static uint32_t* copy_chain(uint32_t num, const uint32_t* list, const char* out_of_memory)
{
    uint32_t* copy = new (std::nothrow) uint32_t[num == 0 ? 1 : num];
    if (copy == nullptr)
        QZFS_FATAL("%s", out_of_memory);
    if (num != 0)
        memcpy(copy, list, num * sizeof(uint32_t));
    return copy;
}

// Fills the entry's chain copy once, from the root node. An unreadable
// chain gives its first block back.
int CQzFileSystem::Read_stream_segment_index_block_list(unsigned long root_index,
                                                        _ri_ssi_manager_* manager)
{
    if (manager->stream_segment_index_block_num != 0)
        return 0;
    _root_index_node_dev_ root{};
    if (Get_root_index_dev_node(root_index, &root) != 0 || !IS_NORMAL_ROOT_INDEX(root.id) ||
        root.id == END_ROOT_INDEX) {
        QZLOG("Get_root_index_dev_node(root_index:%ld) failed", long(root_index));
        return -1;
    }
    uint32_t first;
    memcpy(&first, &root.stream_segment_index_block, 4);
    _stream_segment_block_header_dev_ header;
    if (Read_stream_segment_index_block_list(first, &manager->stream_segment_index_block_num,
                                             &manager->pStream_segment_index_block,
                                             &header) != 0) {
        Free_one_block(first, 0);
        QZLOG("Read_stream_segment_index_block_list failed");
        return -1;
    }
    manager->iframe_index_block = header.iframe_index_block;
    return 0;
}

int CQzFileSystem::Get_stream_segment_index_block_list(unsigned long root_index, uint32_t* num,
                                                       uint32_t** list, uint32_t* iframe_block)
{
    CacheLockGuard cache;
    _ri_ssi_manager_* entry = cached_root_entry(root_index);
    if (entry != nullptr) {
        if (Read_stream_segment_index_block_list(root_index, entry) != 0) {
            QZLOG("Read_stream_segment_index_block_list(root_index:%ld) failed", long(root_index));
            return -1;
        }
        *num = entry->stream_segment_index_block_num;
        *list = copy_chain(*num, entry->pStream_segment_index_block,
                           "CQzFileSystem::Get_stream_segment_index_block_list out of memory");
        if (iframe_block != nullptr)
            *iframe_block = entry->iframe_index_block;
        return 0;
    }
    _root_index_node_dev_ root{};
    if (Get_root_index_dev_node(root_index, &root) != 0 || !IS_NORMAL_ROOT_INDEX(root.id) ||
        root.id == END_ROOT_INDEX) {
        QZLOG("Get_root_index_dev_node(root_index:%ld)(%02x) failed", long(root_index),
              unsigned(root.id));
        return -1;
    }
    uint32_t first;
    memcpy(&first, &root.stream_segment_index_block, 4);
    _stream_segment_block_header_dev_ header;
    if (Read_stream_segment_index_block_list(first, num, list, &header) != 0) {
        QZLOG("Read_stream_segment_index_block_list failed");
        return -1;
    }
    if (iframe_block != nullptr)
        *iframe_block = header.iframe_index_block;
    return 0;
}

int CQzFileSystem::Set_stream_segment_index_block_list(unsigned long root_index, uint32_t num,
                                                       const uint32_t* list, uint32_t iframe_block)
{
    CacheLockGuard cache;
    _ri_ssi_manager_* entry = cached_root_entry(root_index);
    if (entry == nullptr)
        return 0;
    uint32_t* copy = copy_chain(num, list, "CQzFileSystem::Set_stream_segment_index_block_list out of memory");
    delete[] entry->pStream_segment_index_block;
    entry->pStream_segment_index_block = copy;
    entry->stream_segment_index_block_num = num;
    entry->iframe_index_block = iframe_block;
    return 0;
}

// ------------------------------------------------------------ node records

void Endian_trans_stream_segment_index(const _stream_segment_index_node_dev_* src,
                                       _fs_endian_ src_endian,
                                       _stream_segment_index_node_dev_* dst,
                                       _fs_endian_ dst_endian)
{
    if (src != dst)
        memcpy(dst, src, sizeof(*dst));
    if (src_endian == dst_endian)
        return;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(dst);
    change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, len_in_bytes), 8);
    change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, start_iframe), 4);
}

uint8_t CQzFileSystem::Calculate_stream_segment_index_dev_node_check_sum(
    const _stream_segment_index_node_dev_* node)
{
    return qzfs_root_node_byte_sum(reinterpret_cast<const unsigned char*>(node));
}

// Free slots and end marks carry no check sum. A mismatch shows the node's
// bytes at every level, and its fields from level 3 on.
int CQzFileSystem::Check_stream_segment_index_dev_node(const _stream_segment_index_node_dev_* node)
{
    if (node->id == FREE_STREAM_SEGMENT_INDEX || node->id == END_STREAM_SEGMENT_INDEX)
        return 0;
    uint8_t sum = Calculate_stream_segment_index_dev_node_check_sum(node);
    if (sum == node->check_sum)
        return 0;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(node);
    for (unsigned long i = 0; i < QZFS_SSI_NODE_SIZE; i++)
        printf(i % 16 == 15 ? "%02x \n" : "%02x ", unsigned(bytes[i]));
    fflush(stdout);
    if (g_qzfs_debug_level > 2) {
        uint32_t start_iframe;
        uint64_t len;
        memcpy(&start_iframe, &node->start_iframe, 4);
        memcpy(&len, &node->len_in_bytes, 8);
        QZLOG("Calculate_stream_segment_index_dev_node_check_sum failed(%02x)(%02x)", unsigned(sum),
              unsigned(node->check_sum));
        QZLOG("################################################################");
        QZLOG("id:%02x", unsigned(node->id));
        QZLOG("start:%02d:%02d:%02d", node->start_hour, node->start_minute, node->start_second);
        QZLOG("end:%02d:%02d:%02d", node->end_hour, node->end_minute, node->end_second);
        QZLOG("start i frame:%ld", long(start_iframe));
        QZLOG("len:%lld", (long long)len);
        QZLOG("################################################################");
    }
    return -1;
}

// Direction 1: disk image to cache form. Otherwise cache form to disk image
// with a fresh check sum; an end mark becomes 64 bytes of 255.
void CQzFileSystem::Stream_segment_index_endian_trans_dev_mem(_stream_segment_index_node_dev_* dev,
                                                              _fs_endian_ dev_endian,
                                                              _stream_segment_index_node_men_* mem,
                                                              _fs_endian_ mem_endian, int direction)
{
    const bool swap = dev_endian != mem_endian;
    if (direction == 1) {
        memset(mem, 0, sizeof(*mem));
        mem->id = dev->id;
        memcpy(&mem->start_hour, &dev->start_hour, 10);  // start_hour .. flags
        memcpy(&mem->start_iframe, &dev->start_iframe, 4);
        memcpy(&mem->owner_stamp, &dev->owner_stamp, 4);
        memcpy(&mem->lock_type, &dev->lock_type, 4);
        memcpy(&mem->alarm_type, &dev->alarm_type, 8);
        memcpy(&mem->len_in_bytes, &dev->len_in_bytes, 8);
        if (swap) {
            change_byte_order(&mem->start_iframe, 4);
            change_byte_order(&mem->owner_stamp, 4);
            change_byte_order(&mem->lock_type, 4);
            change_byte_order(&mem->alarm_type, 8);
            change_byte_order(&mem->len_in_bytes, 8);
        }
        return;
    }
    if (mem->id == END_STREAM_SEGMENT_INDEX) {
        memset(dev, END_STREAM_SEGMENT_INDEX, sizeof(*dev));
        return;
    }
    memset(dev, 0, sizeof(*dev));
    dev->id = mem->id;
    memcpy(&dev->start_hour, &mem->start_hour, 10);
    memcpy(&dev->start_iframe, &mem->start_iframe, 4);
    memcpy(&dev->owner_stamp, &mem->owner_stamp, 4);
    memcpy(&dev->lock_type, &mem->lock_type, 4);
    memcpy(&dev->alarm_type, &mem->alarm_type, 8);
    memcpy(&dev->len_in_bytes, &mem->len_in_bytes, 8);
    if (swap) {
        unsigned char* bytes = reinterpret_cast<unsigned char*>(dev);
        change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, start_iframe), 4);
        change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, owner_stamp), 4);
        change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, lock_type), 4);
        change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, alarm_type), 8);
        change_byte_order(bytes + offsetof(_stream_segment_index_node_dev_, len_in_bytes), 8);
    }
    dev->check_sum = Calculate_stream_segment_index_dev_node_check_sum(dev);
}

// -------------------------------------------------------------- writing

int CQzFileSystem::Write_stream_segment_index(uint32_t block_num, const uint32_t* list,
                                              unsigned long index,
                                              const _stream_segment_index_node_dev_* node,
                                              int new_node, int is_end)
{
    _stream_segment_index_node_dev_ disk = *node;
    disk.check_sum = Calculate_stream_segment_index_dev_node_check_sum(&disk);
    Endian_trans_stream_segment_index(&disk, gLocal_endian, &disk, m_manage.disk_endian);
    return write_index_node(kSegmentNodeWrite, block_num, list, index,
                            reinterpret_cast<const unsigned char*>(&disk), new_node, is_end);
}

int CQzFileSystem::Write_stream_segment_index(unsigned long root_index, unsigned long index,
                                              const _stream_segment_index_node_dev_* node,
                                              int new_node, int is_end)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (Get_stream_segment_index_block_list(root_index, &num, &list, nullptr) != 0)
        return -1;
    int result = Write_stream_segment_index(num, list, index, node, new_node, is_end);
    delete[] list;
    return result;
}

// ---------------------------------------------------- repaired node list

int CQzFileSystem::get_ssid_from_cache(unsigned long root_index, unsigned long index,
                                       _stream_segment_index_node_dev_* node)
{
    if (node == nullptr)
        return -1;
    for (const stream_segment_index_cache_t& entry : m_stream_segment_index_cache) {
        if (entry.root_index == root_index && entry.stream_segment_index == index) {
            memcpy(node, entry.node, sizeof(entry.node));
            return 0;
        }
    }
    return -1;
}

void CQzFileSystem::add_ssid_to_cache(unsigned long root_index, unsigned long index,
                                      const _stream_segment_index_node_dev_* node)
{
    for (stream_segment_index_cache_t& entry : m_stream_segment_index_cache) {
        if (entry.root_index == root_index && entry.stream_segment_index == index) {
            memcpy(entry.node, node, sizeof(entry.node));
            return;
        }
    }
    stream_segment_index_cache_t entry;
    entry.root_index = uint32_t(root_index);
    entry.stream_segment_index = uint32_t(index);
    memcpy(entry.node, node, sizeof(entry.node));
    m_stream_segment_index_cache.push_back(entry);
}

// ------------------------------------------------------ reading past cache

int CQzFileSystem::Read_stream_segment_index_from_dev(uint32_t block_num, const uint32_t* list,
                                                      unsigned long index,
                                                      _stream_segment_index_node_dev_* node)
{
    _qzfs_data_offset_ at;
    Calculate_index_info(m_manage.block_size, QZFS_SSI_NODE_SIZE, index,
                         m_file_system_io_buffer_len, &at);
    if (at.its_block_num >= block_num) {
        memset(node, END_STREAM_SEGMENT_INDEX, sizeof(*node));
        return 0;
    }
    if (read_in_block(list[at.its_block_num], at.unit_offset, m_file_system_io_buffer,
                      m_file_system_io_buffer_len) != 0)
        return -1;
    auto* raw = reinterpret_cast<_stream_segment_index_node_dev_*>(m_file_system_io_buffer +
                                                                    at.offset_in_unit);
    if (Check_stream_segment_index_dev_node(raw) != 0)
        return 0;
    Endian_trans_stream_segment_index(raw, m_manage.disk_endian, node, gLocal_endian);
    return 0;
}

int CQzFileSystem::Read_stream_segment_index_from_dev(unsigned long root_index, unsigned long index,
                                                      _stream_segment_index_node_dev_* node)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (Get_stream_segment_index_block_list(root_index, &num, &list, nullptr) != 0)
        return -1;
    int result = Read_stream_segment_index_from_dev(num, list, index, node);
    delete[] list;
    return result;
}

// ------------------------------------------------------------ cached range

// The segment level of the cached index, below one cached root node. An
// entry is a slot of the segment node cache, QZFS_SSA_FREE_NODE for a free
// node; every other node, pre-record ones included, is cached. The slot is
// the whole of what an entry holds, so it is handed over as it is, to be
// overwritten. Up to nine damaged nodes in one scan read as free; the tenth
// ends the array where it stands.
struct CQzFileSystem::segment_index_level {
    typedef uint32_t Entry;
    typedef _stream_segment_index_node_dev_ Dev;
    typedef _stream_segment_index_node_men_ Mem;
    static constexpr unsigned long node_size = QZFS_SSI_NODE_SIZE;
    static constexpr uint8_t end_id = END_STREAM_SEGMENT_INDEX;
    static constexpr uint8_t free_id = 0;
    // The name the scan's lines are logged under.
    static constexpr const char* scan_log_name = "scan_stream_segment_index";

    CQzFileSystem& fs;
    uint32_t root_index;
    _ri_ssi_manager_* manager;
    int damaged = 0;

    SSAVector& array() { return *manager->pStream_segment_array; }
    uint32_t& start() { return manager->start_stream_segment_index; }
    uint32_t& end() { return manager->end_stream_segment_index; }
    uint32_t& end_mark() { return manager->end_mark_index; }
    const uint32_t* chain() const { return manager->pStream_segment_index_block; }
    uint32_t chain_length() const { return manager->stream_segment_index_block_num; }

    static Entry none() { return QZFS_SSA_FREE_NODE; }
    static void release(Entry& entry) { SSAVectorFunc(entry, entry, RVFSVO_FREE); }
    static uint32_t give_back(Entry& entry)
    {
        return entry == QZFS_SSA_FREE_NODE || entry == QZFS_SSA_RESERVED ? QZFS_CACHE_INVALID_SLOT
                                                                         : entry;
    }
    static bool cached(const Dev& node)
    {
        return node.id != FREE_STREAM_SEGMENT_INDEX && node.id != END_STREAM_SEGMENT_INDEX;
    }

    // Every disk may give a slot, this root included, so the caller checks
    // its position again.
    uint32_t take_slot(cache_use use)
    {
        CSystemResourceManager& resources = *pgSystemResourceManager;
        if (use == cache_use::scan)
            return resources.GetStreamSegmentIndexNodeInCache(fs.m_hdd_id, root_index);
        uint32_t slot = resources.GetStreamSegmentIndexNodeInCache(255, root_index);
        if (slot == QZFS_CACHE_INVALID_SLOT)
            QZLOG_AS("take_segment_slot", "GetStreamSegmentIndexNodeInCache failed");
        return slot;
    }
    // Moves the cache's search cursor back to the slot.
    void abandon_slot(uint32_t slot) { release(slot); }
    Entry make_entry(uint32_t slot, cache_use) { return slot; }
    Mem& cache_node(uint32_t slot)
    {
        return pgSystemResourceManager->m_stream_segment_index_node_cache[slot];
    }
    void to_mem(const Dev& node, Mem* mem)
    {
        Dev copy = node;
        fs.Stream_segment_index_endian_trans_dev_mem(&copy, gLocal_endian, mem, gLocal_endian, 1);
    }
    void fill(uint32_t slot, const Dev& node) { to_mem(node, &cache_node(slot)); }
    void refill(Entry slot, const Dev& node) { fill(slot, node); }
    // A lookup of a free node gets the node as it stands.
    void read_free(const Dev& node, Mem* out) { to_mem(node, out); }
    // A node repaired in memory on a read-only disk stands in for the one
    // on the disk.
    Dev decode(unsigned char* raw, uint32_t pos, uint32_t wanted)
    {
        auto* image = reinterpret_cast<Dev*>(raw);
        if (fs.bare_dev == 0)
            fs.get_ssid_from_cache(root_index, pos, image);
        Dev node;
        Endian_trans_stream_segment_index(image, fs.m_manage.disk_endian, &node, gLocal_endian);
        if (fs.Check_stream_segment_index_dev_node(&node) != 0) {
            damaged++;
            QZLOG_AS(scan_log_name,
                     "Check_stream_segment_index_dev_node failed(root_index:%lu)"
                     "(stream_segment_index:%lu)(%lu)(%d)",
                     (unsigned long)root_index, (unsigned long)pos, (unsigned long)wanted, damaged);
            node.id = damaged < 10 ? FREE_STREAM_SEGMENT_INDEX : END_STREAM_SEGMENT_INDEX;
        }
        return node;
    }
};

// ------------------------------------------------------------- lookups

int CQzFileSystem::Get_stream_segment_index_mem_node(unsigned long root_index, unsigned long index,
                                                     _stream_segment_index_node_men_* out)
{
    CacheLockGuard cache;
    memset(out, 0, sizeof(*out));
    _root_index_node_mem_ root;
    if (Get_root_index_mem_node(root_index, &root) != 0) {
        QZLOG("Get_root_index_mem_node failed");
        return -1;
    }
    if (!IS_NORMAL_ROOT_INDEX(root.id)) {
        out->id = END_STREAM_SEGMENT_INDEX;
        return 0;
    }
    _ri_ssi_manager_* entry = cached_root_entry(root_index);
    if (entry != nullptr)
        return Get_stream_segment_index_mem_node(root_index, entry, index, out);
    return read_segment_node_uncached(root_index, index, out);
}

// A root node that did not get a place in the root cache: its segment node
// is read straight from the disk, a damaged one reading as free.
int CQzFileSystem::read_segment_node_uncached(unsigned long root_index, unsigned long index,
                                              _stream_segment_index_node_men_* out)
{
    _stream_segment_index_node_dev_ node;
    memset(&node, 0, sizeof(node));
    if (Read_stream_segment_index_from_dev(root_index, index, &node) != 0)
        return -1;
    if (bare_dev == 0)
        get_ssid_from_cache(root_index, index, &node);
    Stream_segment_index_endian_trans_dev_mem(&node, gLocal_endian, out, gLocal_endian, 1);
    return 0;
}

int CQzFileSystem::Get_stream_segment_index_mem_node(unsigned long root_index,
                                                     _ri_ssi_manager_* manager, unsigned long index,
                                                     _stream_segment_index_node_men_* out)
{
    CacheLockGuard cache;
    memset(out, 0, sizeof(*out));
    const uint32_t wanted = uint32_t(index);
    if (wanted >= manager->start_stream_segment_index &&
        wanted < manager->end_stream_segment_index) {
        uint32_t slot =
            (*manager->pStream_segment_array)[wanted - manager->start_stream_segment_index];
        if (slot == QZFS_SSA_RESERVED)
            QZFS_FATAL("CQzFileSystem::Get_stream_segment_index_mem_node FATAL");
        if (slot != QZFS_SSA_FREE_NODE)
            *out = pgSystemResourceManager->m_stream_segment_index_node_cache[slot];
        manager->ssi_access_time = time(nullptr);
        return 0;
    }
    if (manager->end_mark_index != kNoIndex && wanted >= manager->end_mark_index) {
        out->id = END_STREAM_SEGMENT_INDEX;
        return 0;
    }
    if (Read_stream_segment_index_block_list(root_index, manager) != 0) {
        QZLOG("Read_stream_segment_index_block_list failed");
        return -1;
    }
    const uint64_t capacity =
        uint64_t(nodes_per_index_block(QZFS_SSI_NODE_SIZE)) * manager->stream_segment_index_block_num;
    if (wanted >= capacity) {
        out->id = END_STREAM_SEGMENT_INDEX;
        return 0;
    }
    segment_index_level level{*this, uint32_t(root_index), manager};
    if (scan_index_range(level, wanted, out) != 0)
        return -1;
    manager->ssi_access_time = time(nullptr);
    return 0;
}

int CQzFileSystem::Get_stream_segment_index_dev_node(unsigned long root_index, unsigned long index,
                                                     _stream_segment_index_node_dev_* node)
{
    CacheLockGuard cache;
    _stream_segment_index_node_men_ mem;
    if (Get_stream_segment_index_mem_node(root_index, index, &mem) != 0)
        return -1;
    Stream_segment_index_endian_trans_dev_mem(node, gLocal_endian, &mem, gLocal_endian, 0);
    return 0;
}

int CQzFileSystem::Get_stream_segment_index_dev_node(unsigned long root_index, uint32_t,
                                                     const uint32_t*, unsigned long index,
                                                     _stream_segment_index_node_dev_* node)
{
    return Get_stream_segment_index_dev_node(root_index, index, node);
}

// ------------------------------------------------------------ cache update

int CQzFileSystem::Update_stream_segment_index_cache(unsigned long root_index, unsigned long index,
                                                     const _stream_segment_index_node_dev_* node)
{
    CacheLockGuard cache;
    _hdd_root_index_manager_* hdd = root_manager();
    if (hdd == nullptr)
        return -1;
    if (root_index < hdd->start_root_index || root_index >= hdd->end_root_index)
        return 0;
    _ri_ssi_manager_* manager = (*hdd->pRoot_index_array)[uint32_t(root_index - hdd->start_root_index)];
    if (manager == nullptr) {
        QZFS_FATAL("CQzFileSystem::Update_stream_segment_index_cache BLANK ROOT "
                   "INDEX(root_index:%ld)(stream_segment_index:%ld)",
                   long(root_index), long(index));
    }
    manager->ssi_access_time = time(nullptr);
    segment_index_level level{*this, uint32_t(root_index), manager};
    return update_cached_range(level, uint32_t(index), *node);
}

// ------------------------------------------------------------- changing

int CQzFileSystem::Modify_stream_segment(unsigned long root_index, uint32_t block_num,
                                         const uint32_t* list, unsigned long index, int mode,
                                         const _stream_segment_index_node_dev_* node)
{
    if (mode != 0 && mode != 1)
        return 0;
    _stream_segment_index_node_dev_ written = *node;
    if (mode == 1) {
        // A segment being recorded: its end and length stay in the writer.
        written.end_hour = written.end_minute = written.end_second = QZFS_INVALID_END_HOUR;
        memset(&written.len_in_bytes, 0, sizeof(written.len_in_bytes));
    }
    if (Write_stream_segment_index(block_num, list, index, &written, 0, 0) != 0) {
        QZLOG("Write_stream_segment_index failed");
        return -1;
    }
    if (Update_stream_segment_index_cache(root_index, index, &written) != 0) {
        QZLOG("Update_stream_segment_index_cache failed");
        return -1;
    }
    return 0;
}

// Mode 0 writes `node`; mode 1 takes only its lock and lock_type into the
// stored node, writing nothing when both are unchanged.
int CQzFileSystem::Modify_stream_segment(unsigned long root_index, unsigned long index, int mode,
                                         const _stream_segment_index_node_dev_* node)
{
    if (mode == 0) {
        if (Write_stream_segment_index(root_index, index, node, 0, 0) != 0) {
            QZLOG("Write_stream_segment_index failed");
            return -1;
        }
        if (Update_stream_segment_index_cache(root_index, index, node) != 0) {
            QZLOG("Update_stream_segment_index_cache failed");
            return -1;
        }
        return 0;
    }
    if (mode != 1)
        return -1;
    _stream_segment_index_node_men_ cached;
    if (Get_stream_segment_index_mem_node(root_index, index, &cached) != 0 ||
        !IS_NORMAL_SSIN(cached.id)) {
        QZLOG("NOT IS_NORMAL_SSIN(root_index:%ld)(stream_segment_index:%ld)(id:%02x)",
              long(root_index), long(index), unsigned(cached.id));
        return -1;
    }
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (Get_stream_segment_index_block_list(root_index, &num, &list, nullptr) != 0) {
        QZLOG("Get_stream_segment_index_block_list failed");
        return -1;
    }
    int result = relock_stream_segment(root_index, num, list, index, node);
    delete[] list;
    return result;
}

int CQzFileSystem::relock_stream_segment(unsigned long root_index, uint32_t num,
                                         const uint32_t* list, unsigned long index,
                                         const _stream_segment_index_node_dev_* node)
{
    _stream_segment_index_node_dev_ stored;
    if (Get_stream_segment_index_dev_node(root_index, num, list, index, &stored) != 0) {
        QZLOG("Get_stream_segment_index_dev_node failed");
        return -1;
    }
    if (!IS_NORMAL_SSIN(stored.id)) {
        QZLOG("NOT IS_NORMAL_SSIN(root_index:%ld)(stream_segment_index:%ld)(id:%02x)",
              long(root_index), long(index), unsigned(stored.id));
        return -1;
    }
    if (stored.lock == node->lock && memcmp(&stored.lock_type, &node->lock_type, 4) == 0)
        return 0;
    stored.lock = node->lock;
    memcpy(&stored.lock_type, &node->lock_type, 4);
    if (Modify_stream_segment(root_index, num, list, index, 0, &stored) != 0) {
        QZLOG("Modify stream segment failed");
        return -1;
    }
    return 0;
}

// ------------------------------------------------------------- creating

// The slot for a new node: the first free slot or the end mark from the
// root's search cursor on. A block's last slot is never handed out, and the
// chain does not grow, so a full block fails.
int CQzFileSystem::Get_free_stream_segment_index(unsigned long root_index, uint32_t* block_num,
                                                 uint32_t** list, uint32_t* index, int* is_end)
{
    CacheLockGuard cache;
    const uint64_t total = uint64_t(*block_num) * nodes_per_index_block(QZFS_SSI_NODE_SIZE);
    _ri_ssi_manager_* entry = cached_root_entry(root_index);
    uint32_t position = entry != nullptr ? entry->free_stream_segment_index : 0;
    *is_end = 0;
    for (; position < total; position++) {
        _stream_segment_index_node_men_ node;
        if (Get_stream_segment_index_mem_node(root_index, position, &node) != 0) {
            QZLOG("Get_stream_segment_index_mem_node failed(root_index:%ld)(stream_segment_index:%ld)",
                  long(root_index), long(position));
            return -1;
        }
        if (node.id == FREE_STREAM_SEGMENT_INDEX)
            break;
        if (node.id == END_STREAM_SEGMENT_INDEX) {
            *is_end = 1;
            break;
        }
    }
    if (total == 0 || position >= total - 1) {
        *is_end = 1;
        if (Add_stream_segment_index_block(block_num, list) != 0) {
            QZLOG("Add_stream_segment_index_block failed(root_index:%ld)", long(root_index));
            return -1;
        }
    }
    *index = position;
    entry = cached_root_entry(root_index);  // the lookups may have moved the root cache
    if (entry != nullptr)
        entry->free_stream_segment_index = position + 1;
    return 0;
}

void CQzFileSystem::lower_free_segment_cursor(unsigned long root_index, unsigned long segment)
{
    CacheLockGuard cache;
    _ri_ssi_manager_* entry = cached_root_entry(root_index);
    if (entry != nullptr && entry->free_stream_segment_index > segment)
        entry->free_stream_segment_index = uint32_t(segment);
}

// A segment index chain keeps the one block it was created with.
int CQzFileSystem::Add_stream_segment_index_block(uint32_t*, uint32_t**) { return -1; }

int CQzFileSystem::Create_stream_segment_index_node(const _qzfs_k4t_create_ss_para_* para,
                                                    uint32_t start_iframe,
                                                    _stream_segment_index_node_dev_* node)
{
    memset(node, 0, sizeof(*node));
    node->id = para->for_pre_record ? PRE_RECORD_STREAM_SEGMENT_INDEX : NORMAL_STREAM_SEGMENT_INDEX;
    node->start_hour = para->hour;
    node->start_minute = para->minute;
    node->start_second = para->second;
    node->end_hour = node->end_minute = node->end_second = QZFS_INVALID_END_HOUR;
    node->segment_type = para->segment_type;
    node->record_type = para->record_type;
    if (para->record_type != 0)
        memcpy(&node->alarm_type, &para->alarm_type, 8);
    node->lock = para->lock;
    if (para->lock != 0)
        memcpy(&node->lock_type, &para->lock_type, 4);
    node->flags = uint8_t((para->dst & 1) | (para->tv_system & 1) << 1 |
                          (para->have_audio & 1) << 2 | (para->further_flag & 1) << 3 |
                          ((para->have_audio >> 1) & 1) << 4);
    uint32_t stamp = uint32_t(get_block_owner_stamp());
    memcpy(&node->start_iframe, &start_iframe, 4);
    memcpy(&node->owner_stamp, &stamp, 4);
    return 0;
}

int CQzFileSystem::Create_stream_segment_index_node(unsigned long root_index, uint32_t* block_num,
                                                    uint32_t** list,
                                                    const _qzfs_k4t_create_ss_para_* para,
                                                    uint32_t start_iframe, uint32_t* index,
                                                    _stream_segment_index_node_dev_* node)
{
    return gQzfsConfig.simple_index_mode != 0
               ? Create_stream_segment_index_node_simple(root_index, block_num, list, para,
                                                         start_iframe, index, node)
               : Create_stream_segment_index_node_standard(root_index, block_num, list, para,
                                                           start_iframe, index, node);
}

int CQzFileSystem::Create_stream_segment_index_node(unsigned long root_index,
                                                    const _qzfs_k4t_create_ss_para_* para,
                                                    uint32_t start_iframe, uint32_t* index,
                                                    _stream_segment_index_node_dev_* node)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (Get_stream_segment_index_block_list(root_index, &num, &list, nullptr) != 0) {
        QZLOG("Get_stream_segment_index_block_list failed");
        return -1;
    }
    int result =
        Create_stream_segment_index_node(root_index, &num, &list, para, start_iframe, index, node);
    delete[] list;
    return result;
}

int CQzFileSystem::Create_stream_segment_index_node_standard(unsigned long, uint32_t*, uint32_t**,
                                                             const _qzfs_k4t_create_ss_para_*,
                                                             uint32_t, uint32_t*,
                                                             _stream_segment_index_node_dev_*)
{
    return 0;
}

int CQzFileSystem::Create_stream_segment_index_node_simple(unsigned long root_index,
                                                           uint32_t* block_num, uint32_t** list,
                                                           const _qzfs_k4t_create_ss_para_* para,
                                                           uint32_t start_iframe, uint32_t* index,
                                                           _stream_segment_index_node_dev_* out)
{
    _stream_segment_index_node_dev_ node;
    if (Create_stream_segment_index_node(para, start_iframe, &node) != 0) {
        QZLOG("Create_stream_segment_index_node failed");
        return -1;
    }
    uint32_t position = 0;
    if (place_stream_segment_node(root_index, block_num, list, &node, &position) != 0)
        return -1;
    if (index != nullptr)
        *index = position;
    if (out != nullptr)
        *out = node;
    return 0;
}

// Finds the slot for a finished node, writes it (behind a fresh end mark
// when it goes at the end) and brings the cache in line.
int CQzFileSystem::place_stream_segment_node(unsigned long root_index, uint32_t* block_num,
                                             uint32_t** list,
                                             const _stream_segment_index_node_dev_* node,
                                             uint32_t* position)
{
    int is_end = 0;
    if (Get_free_stream_segment_index(root_index, block_num, list, position, &is_end) != 0) {
        QZLOG("Get_free_stream_segment_index failed");
        return -1;
    }
    QZLOG_ABOVE(2, "free_stream_segment_index:%lu", (unsigned long)*position);
    if (Write_stream_segment_index(*block_num, *list, *position, node, 1, is_end) != 0) {
        QZLOG("Write_stream_segment_index failed");
        return -1;
    }
    Update_stream_segment_index_cache(root_index, *position, node);
    return 0;
}

// ------------------------------------------------------ rebuild support

// Walks a segment chain for the rebuild: every block must be a segment
// index block with the right magic, and every node must check or be an end
// mark. Each sector is tested for 17 slots at the 64-byte stride, so a test
// runs on into the following sectors; slots past the unit are not tested.
int CQzFileSystem::check_stream_segment_index_block(unsigned long block, uint32_t* iframe_block)
{
    const unsigned long unit = m_file_system_io_buffer_len;
    unsigned long current = block;
    for (unsigned long walked = 0; walked <= m_manage.total_block; walked++) {
        _qzfs_block_info_ info;
        memset(&info, 0, sizeof(info));
        if (read_block_info_from_key_block(m_manage.key_block, current, &info) != 0 ||
            info.block_type != QZFS_BLOCK_SEGMENT_INDEX) {
            QZLOG("this is not stream segment index block(block:%lu,type:%d)", current,
                  int(info.block_type));
            return -1;
        }
        uint32_t next = 0;
        for (unsigned long offset = 0; offset < m_manage.block_size; offset += unit) {
            if (read_in_block(current, offset, m_file_system_io_buffer, unit) != 0) {
                QZLOG("Seek_and_read_in_block failed");
                return -1;
            }
            unsigned long sector = 0;
            if (offset == 0) {
                _stream_segment_block_header_dev_ header;
                Endian_trans_stream_segment_index_block_header(
                    m_file_system_io_buffer + QZFS_INDEX_HEADER_OFFSET, m_manage.disk_endian,
                    &header, gLocal_endian);
                if (header.magic != QZFS_STREAM_SEGMENT_MAGIC) {
                    QZLOG("invalid maigc:(read:%08lx)(fact:%08lx)(start_block_index:%ld)",
                          (unsigned long)header.magic, (unsigned long)QZFS_STREAM_SEGMENT_MAGIC,
                          long(block));
                    return -1;
                }
                if (iframe_block != nullptr)
                    *iframe_block = header.iframe_index_block;
                next = header.next;
                sector = QZFS_INDEX_HEAD_SECTORS;
            }
            for (; sector < unit / QZFS_SECTOR_SIZE; sector++) {
                for (unsigned long k = 0; k < QZFS_IFRAME_NODES_PER_SECTOR; k++) {
                    unsigned long at = sector * QZFS_SECTOR_SIZE + k * QZFS_SSI_NODE_SIZE;
                    if (at + QZFS_SSI_NODE_SIZE > unit)
                        break;
                    auto* node =
                        reinterpret_cast<_stream_segment_index_node_dev_*>(m_file_system_io_buffer + at);
                    if (Check_stream_segment_index_dev_node(node) != 0) {
                        QZLOG_ABOVE(1, "Check_iframe_index_dev_node FAILED");
                        node->id = END_STREAM_SEGMENT_INDEX;
                    }
                    if (node->id <= PRE_RECORD_STREAM_SEGMENT_INDEX)
                        continue;
                    if (node->id == END_STREAM_SEGMENT_INDEX)
                        return 0;
                    QZLOG("invalid segment index id(%02x)(start_block_index:%ld)(offset:%ld)",
                          unsigned(node->id), long(block), long(offset + at));
                    return -1;
                }
            }
        }
        if (next == 0) {
            QZLOG("ERROR[block_index == 0]");
            return 0;
        }
        current = next;
    }
    QZLOG("invalid block list(start_block_index:%ld)", long(block));
    return -1;
}

// Writes a rebuilt node list into a block, from its first node slot on.
// Each sector takes 17 nodes at the 64-byte stride and the next sector
// begins 512 bytes on, so only the first eight of each sector's nodes
// survive (all that fit, in a unit's last sector).
int CQzFileSystem::write_stream_segment_index(unsigned long block,
                                              std::list<_stream_segment_index_node_dev_>& nodes)
{
    if (nodes.empty())
        return 0;
    const unsigned long unit = m_file_system_io_buffer_len;
    auto it = nodes.begin();
    for (unsigned long offset = 0; offset < m_manage.block_size; offset += unit) {
        unsigned long sector = 0;
        if (offset == 0) {
            if (read_in_block(block, 0, m_file_system_io_buffer, unit) != 0) {
                QZLOG("Seek_and_read_in_block failed");
                return -1;
            }
            sector = QZFS_INDEX_HEAD_SECTORS;
        } else {
            memset(m_file_system_io_buffer, END_STREAM_SEGMENT_INDEX, unit);
        }
        for (; sector < unit / QZFS_SECTOR_SIZE && it != nodes.end(); sector++) {
            for (unsigned long k = 0; k < QZFS_IFRAME_NODES_PER_SECTOR && it != nodes.end(); k++, ++it) {
                _stream_segment_index_node_dev_ node = *it;
                node.check_sum = Calculate_stream_segment_index_dev_node_check_sum(&node);
                uint64_t len;
                memcpy(&len, &node.len_in_bytes, 8);
                QZLOG_ABOVE(0, "recovery stream segment(id:%d,%d:%d:%d-%d:%d:%d,len:%llu)",
                            node.id, node.start_hour, node.start_minute, node.start_second,
                            node.end_hour, node.end_minute, node.end_second,
                            (unsigned long long)len);
                unsigned long at = sector * QZFS_SECTOR_SIZE + k * QZFS_SSI_NODE_SIZE;
                if (at + QZFS_SSI_NODE_SIZE <= unit)
                    Endian_trans_stream_segment_index(
                        &node, gLocal_endian,
                        reinterpret_cast<_stream_segment_index_node_dev_*>(m_file_system_io_buffer + at),
                        m_manage.disk_endian);
            }
        }
        if (write_in_block(block, offset, m_file_system_io_buffer, unit) != 0) {
            QZLOG("write segment index failed");
            return -1;
        }
        if (it == nodes.end())
            return 0;
    }
    return 0;
}

// ------------------------------------------------------- root summary

_root_index_node_dev_* CQzFileSystem::root_being_written(unsigned long root_index)
{
    _opened_stream_segment_* writer = nullptr;
    if (find_opening_stream_segment_by_root_index(uint32_t(root_index), &writer, 2) < 0)
        return nullptr;
    return writer->root();
}

// Recomputes the record type bits, lock and pre-record flag of a root node
// from its normal segments; a root with none left is deleted unless a
// stream is being written into it.
int CQzFileSystem::check_and_modify_root_info(unsigned long root_index, int* delete_root_flag)
{
    _root_index_node_dev_ root;
    if (Get_root_index_dev_node(root_index, &root) != 0)
        return -1;
    uint16_t mask = 0;
    uint8_t lock = 0, only_pre_record = 1;
    for (uint32_t i = 0;; i++) {
        _stream_segment_index_node_men_ node;
        if (Get_stream_segment_index_mem_node(root_index, i, &node) != 0) {
            QZLOG("Get_stream_segment_index_mem_node FAILED(root_index:%ld)(stream_segment_index:%ld)",
                  long(root_index), long(i));
            return -1;
        }
        if (node.id > 254)
            break;
        if (!IS_NORMAL_SSIN(node.id))
            continue;
        if (node.record_type < 16)
            mask = uint16_t(mask | (1u << node.record_type));
        if (node.lock != 0)
            lock = node.lock;
        only_pre_record = 0;
    }
    _root_index_node_dev_* live = root_being_written(root_index);
    if (mask == 0) {
        if (live != nullptr)
            return 0;
        QZLOG_ABOVE(0, "root is empty,so delete %lu", root_index);
        int result = Delete_root_index(root_index, 0);
        if (result == 0 && delete_root_flag != nullptr)
            *delete_root_flag = 1;
        return result;
    }
    uint16_t stored_mask;
    memcpy(&stored_mask, &root.record_type, 2);
    if (mask == stored_mask && lock == root.lock && only_pre_record == root.only_pre_record)
        return 0;
    QZLOG("modify root index(lock:%d->%d,record type:0x%x->0x%x,only pre record:%d->%d)",
          root.lock, lock, unsigned(stored_mask), unsigned(mask), root.only_pre_record,
          only_pre_record);
    root.lock = lock;
    memcpy(&root.record_type, &mask, 2);
    root.only_pre_record = only_pre_record;
    if (Modify_root_index(root_index, 0, &root) != 0)
        return -1;
    if (live != nullptr) {
        // The writer's copy takes the lock value in all three places.
        uint16_t live_mask = lock;
        live->lock = lock;
        memcpy(&live->record_type, &live_mask, 2);
        live->only_pre_record = lock;
    }
    return 0;
}
