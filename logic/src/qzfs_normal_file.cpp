// Named files kept in blocks of type 8. The cache built at mount lists each
// file's blocks; the block table alone decides which blocks a file has.
#include "qzfilesystem.h"

#include <cstring>

void CQzFileSystem::Add_block_to_normal_file(const char* name, unsigned short block_index,
                                             unsigned long block)
{
    for (_qzfs_normal_file_cache_node_& node : m_manage.normal_file_cache) {
        if (strncmp(node.name, name, sizeof(node.name)) == 0) {
            node.blocks.push_back(_qzfs_block_cache_node_{block_index, (uint32_t)block});
            return;
        }
    }
    _qzfs_normal_file_cache_node_ node;
    memset(node.name, 0, sizeof(node.name));
    strncpy(node.name, name, 14);
    node.write_user = nullptr;
    node.blocks.push_back(_qzfs_block_cache_node_{block_index, (uint32_t)block});
    m_manage.normal_file_cache.push_back(node);
}

static bool normal_file_data_block_sorting(const _qzfs_block_cache_node_& a,
                                           const _qzfs_block_cache_node_& b)
{
    return a.block_index < b.block_index;
}

void CQzFileSystem::init_normal_file_cache()
{
    for (_qzfs_normal_file_cache_node_& node : m_manage.normal_file_cache)
        node.blocks.sort(normal_file_data_block_sorting);
}
