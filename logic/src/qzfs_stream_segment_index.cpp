// The stream segment index: the chain of each root node and its copy in
// the root's cache entry.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstdlib>
#include <cstring>

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
