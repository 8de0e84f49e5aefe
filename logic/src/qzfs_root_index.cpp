// The root index: a flat array of 64-byte nodes, one for each day, channel,
// stream type and name of a disk, kept in the disk's root index chain and
// read through the shared node cache.
//
// Every change is written to the disk first and then brought into the cache.
// A node whose check sum fails reads as free, never as an error. A new node
// is written behind a fresh end mark, so a cut in power between the two
// writes leaves an array that still reads.
#include "qzfilesystem.h"
#include "qzfs_root_days.h"
#include "qzfs_cached_range.h"
#include "qzfs_datetime.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

static const uint32_t kNoIndex = 0xFFFFFFFF;

// ------------------------------------------------------------ node records

void Endian_trans_root_index_node_dev(const _root_index_node_dev_* src, _fs_endian_ src_endian,
                                      _root_index_node_dev_* dst, _fs_endian_ dst_endian)
{
    if (src != dst)
        memcpy(dst, src, sizeof(*dst));
    if (src_endian == dst_endian)
        return;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(dst);
    change_byte_order(bytes + offsetof(_root_index_node_dev_, record_type), 2);
    change_byte_order(bytes + offsetof(_root_index_node_dev_, stream_segment_index_block), 4);
}

uint8_t CQzFileSystem::Calculate_root_index_dev_node_check_sum(const _root_index_node_dev_* node)
{
    _root_index_node_dev_ disk;
    Endian_trans_root_index_node_dev(node, gLocal_endian, &disk, m_manage.disk_endian);
    return qzfs_root_node_byte_sum(reinterpret_cast<const unsigned char*>(&disk));
}

int CQzFileSystem::Check_root_index_dev_node(const _root_index_node_dev_* node)
{
    if (node->id == END_ROOT_INDEX || !IS_NORMAL_ROOT_INDEX(node->id))
        return 0;
    uint8_t sum = Calculate_root_index_dev_node_check_sum(node);
    if (sum == node->check_sum)
        return 0;
    QZLOG("CQzFileSystem::Check_root_index_dev_node Calculate_root_index_dev_node_check_sum "
          "failed(%02x)(%02x)",
          unsigned(sum), unsigned(node->check_sum));
    return -1;
}

// Direction 1: disk image to cache form, taking a reference on the name.
// Otherwise cache form to disk image, with the name from the name table and
// a fresh check sum.
void CQzFileSystem::Root_index_endian_trans_dev_mem(_root_index_node_dev_* dev,
                                                    _fs_endian_ dev_endian,
                                                    _root_index_node_mem_* mem,
                                                    _fs_endian_ mem_endian, int direction)
{
    CacheLockGuard cache;
    const bool swap = dev_endian != mem_endian;
    StringIndexManager<unsigned short>& names = pgSystemResourceManager->m_string_index;
    if (direction == 1) {
        memset(mem, 0, sizeof(*mem));
        mem->id = dev->id;
        mem->year = dev->year;
        mem->month = dev->month;
        mem->day = dev->day;
        mem->channel = dev->channel;
        mem->stream_type = dev->stream_type;
        memcpy(&mem->record_type, &dev->record_type, 2);
        memcpy(&mem->stream_segment_index_block, &dev->stream_segment_index_block, 4);
        memcpy(&mem->owner_stamp, &dev->owner_stamp, 4);
        mem->lock = dev->lock;
        mem->only_pre_record = dev->only_pre_record;
        char name[sizeof(dev->name) + 1] = {0};
        memcpy(name, dev->name, sizeof(dev->name));
        mem->name_index = names.ref_inc_by_name(name);
        if (swap) {
            change_byte_order(&mem->record_type, 2);
            change_byte_order(&mem->stream_segment_index_block, 4);
            change_byte_order(&mem->owner_stamp, 4);
        }
        return;
    }
    if (mem->id == END_ROOT_INDEX) {
        memset(dev, END_ROOT_INDEX, sizeof(*dev));
        return;
    }
    memset(dev, 0, sizeof(*dev));
    dev->id = mem->id;
    dev->year = mem->year;
    dev->month = mem->month;
    dev->day = mem->day;
    dev->channel = mem->channel;
    dev->stream_type = mem->stream_type;
    memcpy(&dev->record_type, &mem->record_type, 2);
    memcpy(&dev->stream_segment_index_block, &mem->stream_segment_index_block, 4);
    memcpy(&dev->owner_stamp, &mem->owner_stamp, 4);
    dev->lock = mem->lock;
    dev->only_pre_record = mem->only_pre_record;
    const char* name = names.get_name(mem->name_index);
    if (name != nullptr && strlen(name) < sizeof(dev->name))
        strcpy(dev->name, name);
    if (swap) {
        unsigned char* bytes = reinterpret_cast<unsigned char*>(dev);
        change_byte_order(bytes + offsetof(_root_index_node_dev_, record_type), 2);
        change_byte_order(bytes + offsetof(_root_index_node_dev_, stream_segment_index_block), 4);
        change_byte_order(bytes + offsetof(_root_index_node_dev_, owner_stamp), 4);
    }
    dev->check_sum = qzfs_root_node_byte_sum(reinterpret_cast<unsigned char*>(dev));
}

// ------------------------------------------------------------ cached range

// A new cache entry for a normal node whose cached form goes in `slot`.
static _ri_ssi_manager_* new_root_entry(uint32_t slot, const char* out_of_memory)
{
    _ri_ssi_manager_* entry = new (std::nothrow) _ri_ssi_manager_;
    if (entry == nullptr)
        QZFS_FATAL("%s", out_of_memory);
    InitRiSsiManager(entry);
    entry->root_node_slot = slot;
    return entry;
}

// The root level of the cached index. An entry is the heap manager of a
// normal root node, which owns the node's cache slot and, through the
// cached node, a reference on its stream name; null stands for any other
// node. A damaged node reads as free.
struct CQzFileSystem::root_index_level {
    typedef _ri_ssi_manager_* Entry;
    typedef _root_index_node_dev_ Dev;
    typedef _root_index_node_mem_ Mem;
    static constexpr unsigned long node_size = QZFS_ROOT_NODE_SIZE;
    static constexpr uint8_t end_id = END_ROOT_INDEX;
    static constexpr uint8_t free_id = FREE_ROOT_INDEX;
    // The name the scan's lines are logged under.
    static constexpr const char* scan_log_name = "scan_root_index";

    CQzFileSystem& fs;
    _hdd_root_index_manager_* manager;

    RISSIMVector& array() { return *manager->pRoot_index_array; }
    uint32_t& start() { return manager->start_root_index; }
    uint32_t& end() { return manager->end_root_index; }
    uint32_t& end_mark() { return manager->end_mark_index; }
    const uint32_t* chain() const { return manager->pRoot_index_block; }
    uint32_t chain_length() const { return manager->root_index_block_num; }

    static Entry none() { return nullptr; }
    static void release(Entry& entry) { RISSIMVectorFunc(entry, entry, RVFSVO_FREE); }
    // Freeing the manager frees its cache slot too; the slot is then
    // handed over empty.
    static uint32_t give_back(Entry& entry)
    {
        if (entry == nullptr)
            return QZFS_CACHE_INVALID_SLOT;
        uint32_t slot = entry->root_node_slot;
        release(entry);
        return slot;
    }
    static bool cached(const Dev& node) { return IS_NORMAL_ROOT_INDEX(node.id); }

    // A failure to update or extend the range is logged under the name of
    // the update.
    uint32_t take_slot(cache_use use)
    {
        if (use == cache_use::scan)
            return pgSystemResourceManager->GetRootIndexNodeInCache(fs.m_hdd_id);
        uint32_t slot = pgSystemResourceManager->GetRootIndexNodeInCache(255);
        if (slot == QZFS_CACHE_INVALID_SLOT) {
            if (use == cache_use::update)
                QZLOG_AS("update_root_cache_entry", "GetRootIndexNodeInCache failed");
            else
                QZLOG_AS("update_root_cache_entry", "CQzFileSystem::Create_root_index_node_simple "
                                                    "GetRootIndexNodeInCache failed");
        }
        return slot;
    }
    // An unfilled slot still reads as free: nothing to give back.
    void abandon_slot(uint32_t) {}
    Entry make_entry(uint32_t slot, cache_use use)
    {
        if (use == cache_use::scan)
            return new_root_entry(slot, "CQzFileSystem::Get_root_index_mem_node out of memory");
        if (use == cache_use::update)
            return new_root_entry(slot, "CQzFileSystem::Update_root_index_cache out of memory");
        return new_root_entry(slot, "CQzFileSystem::Create_root_index_node_simple out of memory");
    }
    Mem& cache_node(uint32_t slot)
    {
        return pgSystemResourceManager->m_root_index_node_cache[slot];
    }
    // Converting takes a name reference, which the cached node owns.
    void to_mem(const Dev& node, Mem* mem)
    {
        Dev copy = node;
        fs.Root_index_endian_trans_dev_mem(&copy, gLocal_endian, mem, gLocal_endian, 1);
    }
    void fill(uint32_t slot, const Dev& node) { to_mem(node, &cache_node(slot)); }
    // The old node's name reference goes before the new one is taken.
    void refill(Entry entry, const Dev& node)
    {
        pgSystemResourceManager->m_root_index_node_cache.free_element(entry->root_node_slot);
        fill(entry->root_node_slot, node);
    }
    // A lookup of a node that is not normal gets only the cleared node.
    void read_free(const Dev&, Mem*) {}
    Dev decode(unsigned char* raw, uint32_t pos, uint32_t wanted)
    {
        Dev node;
        Endian_trans_root_index_node_dev(reinterpret_cast<Dev*>(raw), fs.m_manage.disk_endian,
                                         &node, gLocal_endian);
        if (fs.Check_root_index_dev_node(&node) != 0) {
            QZLOG_AS(scan_log_name, "Check_root_index_dev_node failed(%lu)(%lu)",
                     (unsigned long)pos, (unsigned long)wanted);
            node.id = FREE_ROOT_INDEX;
        }
        return node;
    }
};

// ------------------------------------------------------------------ chain

_hdd_root_index_manager_* CQzFileSystem::root_manager()
{
    if (pgSystemResourceManager == nullptr)
        return nullptr;
    // The disk table may grow under another disk's Get_hdd: the pointer is
    // read under the cache lock. The manager itself lives until this disk's
    // own unmount.
    CacheLockGuard cache;
    return *pgSystemResourceManager->Get_hdd(m_hdd_id, 1);
}

uint32_t CQzFileSystem::nodes_per_index_block(unsigned long node_size) const
{
    return uint32_t((m_manage.block_size / QZFS_SECTOR_SIZE - QZFS_INDEX_HEAD_SECTORS) *
                    (QZFS_SECTOR_SIZE / node_size));
}

int CQzFileSystem::Get_root_index_block_list(uint32_t* num, uint32_t** list,
                                             _root_index_header_dev_* header)
{
    CacheLockGuard cache;
    auto first = m_manage.root_index_block_map.find(0);
    if (first == m_manage.root_index_block_map.end()) {
        QZLOG("have not root index!");
        return -1;
    }
    _hdd_root_index_manager_* manager = root_manager();
    if (manager == nullptr)
        return -1;
    if (manager->root_index_block_num == 0 &&
        Read_root_index_block_list(first->second, &manager->root_index_block_num,
                                   &manager->pRoot_index_block, nullptr) != 0) {
        QZLOG("Read_root_index_block_list failed(m_pSuper_block->root_index_address:%ld)",
              long(first->second));
        return -1;
    }
    if (num != nullptr)
        *num = manager->root_index_block_num;
    if (list != nullptr)
        *list = manager->pRoot_index_block;
    if (header != nullptr) {
        memset(header, 0, sizeof(*header));
        header->magic = QZFS_ROOT_INDEX_MAGIC;
        header->next = manager->root_index_block_num > 1 ? manager->pRoot_index_block[1] : 0;
    }
    return 0;
}

// -------------------------------------------------------------- writing

int CQzFileSystem::Write_root_index(uint32_t block_num, const uint32_t* list,
                                    unsigned long root_index, const _root_index_node_dev_* node,
                                    int new_node, int is_end)
{
    _root_index_node_dev_ disk = *node;
    disk.check_sum = Calculate_root_index_dev_node_check_sum(&disk);
    Endian_trans_root_index_node_dev(&disk, gLocal_endian, &disk, m_manage.disk_endian);
    const int result = write_index_node(kRootNodeWrite, block_num, list, root_index,
                                        reinterpret_cast<const unsigned char*>(&disk), new_node,
                                        is_end);
    // The day index learns of the node even when the write failed: it may
    // have reached the disk in part, and an extra position costs nothing.
    CacheLockGuard cache;
    _hdd_root_index_manager_* manager = root_manager();
    if (manager != nullptr && manager->pRoot_day_index != nullptr)
        manager->pRoot_day_index->note(uint32_t(root_index), *node, is_end != 0);
    return result;
}

int CQzFileSystem::Write_root_index(unsigned long root_index, const _root_index_node_dev_* node,
                                    int new_node, int is_end)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (Get_root_index_block_list(&num, &list, nullptr) != 0)
        return -1;
    return Write_root_index(num, list, root_index, node, new_node, is_end);
}

// -------------------------------------------------------------- reading

int CQzFileSystem::Get_root_index_dev_node(unsigned long root_index, _root_index_node_dev_* node)
{
    CacheLockGuard cache;
    _root_index_node_mem_ mem;
    if (Get_root_index_mem_node(root_index, &mem) != 0)
        return -1;
    Root_index_endian_trans_dev_mem(node, gLocal_endian, &mem, gLocal_endian, 0);
    return 0;
}

int CQzFileSystem::Read_root_index_from_dev(unsigned long root_index, _root_index_node_dev_* node)
{
    CacheLockGuard cache;
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (Get_root_index_block_list(&num, &list, nullptr) != 0)
        return -1;
    _qzfs_data_offset_ at;
    Calculate_index_info(m_manage.block_size, QZFS_ROOT_NODE_SIZE, root_index,
                         m_file_system_io_buffer_len, &at);
    if (at.its_block_num >= num ||
        read_in_block(list[at.its_block_num], at.unit_offset, m_file_system_io_buffer,
                      m_file_system_io_buffer_len) != 0)
        return -1;
    auto* raw = reinterpret_cast<_root_index_node_dev_*>(m_file_system_io_buffer + at.offset_in_unit);
    if (Check_root_index_dev_node(raw) != 0)
        return -1;
    Endian_trans_root_index_node_dev(raw, m_manage.disk_endian, node, gLocal_endian);
    return 0;
}

int CQzFileSystem::Get_root_index_mem_node(unsigned long root_index, _root_index_node_mem_* out)
{
    CacheLockGuard cache;
    memset(out, 0, sizeof(*out));
    _hdd_root_index_manager_* manager = root_manager();
    if (manager == nullptr)
        return -1;
    const uint32_t wanted = uint32_t(root_index);
    if (wanted >= manager->start_root_index && wanted < manager->end_root_index) {
        _ri_ssi_manager_* entry = (*manager->pRoot_index_array)[wanted - manager->start_root_index];
        if (entry != nullptr) {
            *out = pgSystemResourceManager->m_root_index_node_cache[entry->root_node_slot];
            entry->access_time = time(nullptr);
        }
        return 0;
    }
    if (manager->end_mark_index != kNoIndex && wanted >= manager->end_mark_index) {
        out->id = END_ROOT_INDEX;
        return 0;
    }
    if (Get_root_index_block_list(nullptr, nullptr, nullptr) != 0) {
        QZLOG("Read_root_index_block_list failed");
        return -1;
    }
    const uint64_t capacity = uint64_t(nodes_per_index_block(QZFS_ROOT_NODE_SIZE)) * manager->root_index_block_num;
    if (wanted >= capacity) {
        out->id = END_ROOT_INDEX;
        return 0;
    }
    root_index_level level{*this, manager};
    return scan_index_range(level, wanted, out);
}

// ------------------------------------------------------------ cache update

// Brings the cache in line with a node just written at `root_index`.
int CQzFileSystem::Update_root_index_cache(unsigned long root_index,
                                           const _root_index_node_dev_* node)
{
    CacheLockGuard cache;
    if (pgSystemResourceManager == nullptr)
        return -1;
    root_index_level level{*this, *pgSystemResourceManager->Get_hdd(m_hdd_id, 1)};
    return update_cached_range(level, uint32_t(root_index), *node);
}

// ------------------------------------------------------------- changing

// Attribute bytes that an index block's record carries for its root node.
static void root_block_attr(uint8_t attr[14], uint8_t channel, uint8_t stream_type,
                            uint16_t record_type, uint8_t lock)
{
    memset(attr, 0, 14);
    attr[0] = channel;
    attr[1] = stream_type;
    memcpy(attr + 2, &record_type, 2);
    attr[4] = lock;
}

// The copies of the root's attributes in its segment index block's record
// (both key tables and the block head) go first and the node last: a cut
// in between leaves the node as it was, so the mount, which compares the
// node with its segments, finds it stale and writes node and copies again.
int CQzFileSystem::Modify_root_index(unsigned long root_index, int mode,
                                     const _root_index_node_dev_* node)
{
    if (mode != 0)
        return 0;
    uint8_t attr[14];
    uint16_t record_type;
    memcpy(&record_type, &node->record_type, 2);
    root_block_attr(attr, node->channel, node->stream_type, record_type, node->lock);
    uint32_t ssi_block;
    memcpy(&ssi_block, &node->stream_segment_index_block, 4);
    modify_block_attr(ssi_block, attr, QZFS_WHERE_ALL);
    if (Write_root_index(root_index, node, 0, 0) != 0) {
        QZLOG("Write_root_index failed");
        return -1;
    }
    if (Update_root_index_cache(root_index, node) != 0) {
        QZLOG("Update_root_index_cache failed");
        return -1;
    }
    return 0;
}

int CQzFileSystem::Get_free_root_index(uint32_t* root_index, int* is_end)
{
    CacheLockGuard cache;
    if (m_manage.root_index_block_map.find(0) == m_manage.root_index_block_map.end()) {
        QZLOG("have not root index!");
        return -1;
    }
    _hdd_root_index_manager_* manager = root_manager();
    if (manager == nullptr)
        return -1;
    if (Get_root_index_block_list(nullptr, nullptr, nullptr) != 0) {
        QZLOG("failed(m_pSuper_block->root_index_address:%ld)",
              long(m_manage.root_index_block_map[0]));
        return -1;
    }
    const uint32_t total = nodes_per_index_block(QZFS_ROOT_NODE_SIZE) * manager->root_index_block_num;
    uint32_t position = manager->free_root_index;
    *is_end = 0;
    for (; position < total; position++) {
        _root_index_node_mem_ node;
        if (Get_root_index_mem_node(position, &node) != 0) {
            QZLOG("failed(root_index:%ld)", long(position));
            return -1;
        }
        if (node.id == END_ROOT_INDEX) {
            *is_end = 1;
            break;
        }
        if (!IS_NORMAL_ROOT_INDEX(node.id))
            break;
    }
    if (total == 0 || position >= total - 1) {
        *is_end = 1;
        if (Add_root_index_block() != 0) {
            QZLOG("Add_root_index_block failed");
            return -1;
        }
    }
    *root_index = position;
    manager->free_root_index = position + 1;
    return 0;
}

int CQzFileSystem::Add_root_index_block()
{
    return gQzfsConfig.simple_index_mode != 0 ? Add_root_index_block_simple()
                                              : Add_root_index_block_standard();
}

// The root chain does not grow at run time: a disk works with the root
// index block it has.
int CQzFileSystem::Add_root_index_block_simple() { return 0; }
int CQzFileSystem::Add_root_index_block_standard() { return 0; }

int CQzFileSystem::Create_root_index_node(const _qzfs_k4t_create_ss_para_* para,
                                          unsigned long ssi_block, _root_index_node_dev_* node)
{
    memset(node, 0, sizeof(*node));
    node->id = 1;
    node->year = para->year;
    node->month = para->month;
    node->day = para->day;
    node->channel = para->channel;
    node->stream_type = para->stream_type;
    memcpy(node->name, para->name, sizeof(node->name));
    node->name[sizeof(node->name) - 1] = '\0';
    node->lock = para->lock;
    uint32_t block = uint32_t(ssi_block), stamp = uint32_t(get_block_owner_stamp());
    memcpy(&node->stream_segment_index_block, &block, 4);
    memcpy(&node->owner_stamp, &stamp, 4);
    node->only_pre_record = para->for_pre_record ? 1 : 0;
    if (para->record_type > 15) {
        QZFS_FATAL("CQzFileSystem::Create_root_index_node invalid record type:%d",
                   int(para->record_type));
    }
    uint16_t record_type = uint16_t(1u << para->record_type);
    memcpy(&node->record_type, &record_type, 2);
    return 0;
}

int CQzFileSystem::Create_root_index_node(const _qzfs_k4t_create_ss_para_* para,
                                          uint32_t* root_index, _root_index_node_dev_* node)
{
    return gQzfsConfig.simple_index_mode != 0
               ? Create_root_index_node_simple(para, root_index, node)
               : Create_root_index_node_standard(para, root_index, node);
}

int CQzFileSystem::Create_root_index_node_standard(const _qzfs_k4t_create_ss_para_*, uint32_t*,
                                                   _root_index_node_dev_*)
{
    return -1;
}

int CQzFileSystem::Create_root_index_node_simple(const _qzfs_k4t_create_ss_para_* para,
                                                 uint32_t* root_index, _root_index_node_dev_* out)
{
    if (para->record_type > 15) {
        QZFS_FATAL("CQzFileSystem::Create_root_index_node invalid record type:%d",
                   int(para->record_type));
    }
    _qzfs_block_info_ info;
    memset(&info, 0, sizeof(info));
    info.owner_stamp = uint32_t(get_block_owner_stamp());
    info.block_type = QZFS_BLOCK_SEGMENT_INDEX;
    info.year = para->year;
    info.month = para->month;
    info.day = para->day;
    info.hour = para->hour;
    info.minute = para->minute;
    info.second = para->second;
    root_block_attr(info.attr, para->channel, para->stream_type,
                    uint16_t(1u << para->record_type), para->lock);
    unsigned long ssi_block = 0, iframe_block = 0;
    if (Request_free_block(1, &ssi_block, &info, 0) != 0) {
        QZLOG("request stream segment index block failed");
        return -1;
    }
    info.block_type = QZFS_BLOCK_IFRAME_INDEX;
    if (Request_free_block(1, &iframe_block, &info, 0) != 0) {
        QZLOG("request iframe index block failed");
        return -1;
    }
    _root_index_node_dev_ node;
    if (Create_root_index_node(para, ssi_block, &node) != 0) {
        QZLOG("Create_root_index_node failed");
        return -1;
    }
    if (Init_stream_segment_block(ssi_block, 0, 0, iframe_block, 0) != 0) {
        QZLOG("Init_stream_segment_block failed");
        return -1;
    }
    if (Init_iframe_index_block(iframe_block, 0, 0) != 0) {
        QZLOG("Init_iframe_index_block failed");
        return -1;
    }
    uint32_t position = 0;
    int is_end = 0;
    if (Get_free_root_index(&position, &is_end) != 0) {
        QZLOG("Get_free_root_index failed");
        return -1;
    }
    if (Write_root_index(position, &node, 1, is_end) != 0) {
        QZLOG("Write_root_index failed");
        return -1;
    }
    if (Update_root_index_cache(position, &node) != 0) {
        QZLOG("Update_root_index_cache failed");
        return -1;
    }
    Update_hdd_record_date(0, node.year, node.month, node.day);
    uint32_t chain[1] = {uint32_t(ssi_block)};
    if (Set_stream_segment_index_block_list(position, 1, chain, uint32_t(iframe_block)) != 0) {
        QZLOG("Set_stream_segment_index_block_list failed");
        return -1;
    }
    if (out != nullptr)
        *out = node;
    if (root_index != nullptr)
        *root_index = position;
    return 0;
}

int CQzFileSystem::Delete_root_index(unsigned long root_index, int)
{
    _root_index_node_dev_ node;
    if (Get_root_index_dev_node(root_index, &node) != 0) {
        QZLOG("root_index:%ld", long(root_index));
        return -1;
    }
    if (!IS_NORMAL_ROOT_INDEX(node.id))
        return 0;
    uint32_t ssi_num = 0, iframe_num = 0, iframe_head = 0;
    uint32_t *ssi_list = nullptr, *iframe_list = nullptr;
    // Both chains are read before anything is freed, and the I-frame index
    // blocks go first: they are found only through the segment index
    // blocks, so a power cut between the two frees must leave those still
    // in the table for the next mount to finish the delete.
    if (Get_stream_segment_index_block_list(root_index, &ssi_num, &ssi_list, &iframe_head) == 0) {
        if (Read_iframe_index_block_list(iframe_head, &iframe_num, &iframe_list) == 0) {
            for (uint32_t i = 0; i < iframe_num; i++)
                Free_one_block(iframe_list[i], 0);
        }
        for (uint32_t i = 0; i < ssi_num; i++)
            Free_one_block(ssi_list[i], 0);
    }
    QZLOG_ABOVE(0, "delete root index(chn:%d,stream:%d,%d-%d-%d)", int(node.channel),
                int(node.stream_type), int(node.year) + 2000, int(node.month), int(node.day));
    node.id = FREE_ROOT_INDEX;
    Modify_root_index(root_index, 0, &node);
    delete[] ssi_list;
    delete[] iframe_list;
    return 0;
}

// ---------------------------------------------------------- record dates

int CQzFileSystem::Update_hdd_record_date(int all, uint8_t year, uint8_t month, uint8_t day)
{
    CacheLockGuard cache;
    _hdd_root_index_manager_* manager = root_manager();
    if (manager == nullptr)
        return -1;
    if (all != 0) {
        manager->start_year = manager->end_year = 255;
        manager->start_month = manager->end_month = 255;
        manager->start_day = manager->end_day = 255;
        for (uint32_t ri = 0;; ri++) {
            _root_index_node_mem_ node;
            if (Get_root_index_mem_node(ri, &node) != 0)
                return -1;
            if (node.id == END_ROOT_INDEX)
                return 0;
            if (IS_NORMAL_ROOT_INDEX(node.id))
                Update_hdd_record_date(0, node.year, node.month, node.day);
        }
    }
    if (year > 99 || month < 1 || month > 12 || day < 1 || day > 31)
        return -1;
    if (manager->start_year == 255) {
        manager->start_year = manager->end_year = year;
        manager->start_month = manager->end_month = month;
        manager->start_day = manager->end_day = day;
        return 0;
    }
    if (Compare_date(year, month, day, manager->start_year, manager->start_month,
                     manager->start_day) == 2) {
        manager->start_year = year;
        manager->start_month = month;
        manager->start_day = day;
    }
    if (Compare_date(year, month, day, manager->end_year, manager->end_month, manager->end_day) ==
        1) {
        manager->end_year = year;
        manager->end_month = month;
        manager->end_day = day;
    }
    return 0;
}

