// Named files kept in blocks of type 8: the file list built at mount, and
// the calls that open, close, size, delete, rename and find a file.
//
// A file is a chain of whole blocks. Each block carries its own record (name
// in attr, ordinal in block_index) at byte 0, a chain header at byte 32, and
// file data from byte 4096. The block table alone decides which blocks a
// file has; the chain pointers are there for a reader of the raw disk.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// The name as the table keeps it: at most 13 characters, zero-filled to 14.
void normal_file_table_name(const char* name, unsigned char out[14])
{
    memset(out, 0, 14);
    if (name != nullptr)
        strncpy(reinterpret_cast<char*>(out), name, QZFS_FILE_NAME_MAX);
}

}  // namespace

_qzfs_normal_file_cache_node_* CQzFileSystem::find_normal_file_node(const char* name)
{
    if (name == nullptr)
        return nullptr;
    for (_qzfs_normal_file_cache_node_& node : m_manage.normal_file_cache)
        if (strcmp(node.name, name) == 0)
            return &node;
    return nullptr;
}

void CQzFileSystem::Add_block_to_normal_file(const char* name, unsigned short block_index,
                                             unsigned long block)
{
    _qzfs_normal_file_cache_node_* found = find_normal_file_node(name);
    if (found != nullptr) {
        found->blocks.push_back(_qzfs_block_cache_node_{block_index, (uint32_t)block});
        return;
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

int CQzFileSystem::normal_file_is_exist(unsigned char* name)
{
    return find_normal_file_node(reinterpret_cast<const char*>(name)) != nullptr ? 1 : 0;
}

int CQzFileSystem::get_normal_file_use_block_list(const char* name,
                                                  std::list<unsigned long>& blocks)
{
    const _qzfs_normal_file_cache_node_* node = find_normal_file_node(name);
    if (node == nullptr)
        return -1;
    blocks.clear();
    for (const _qzfs_block_cache_node_& b : node->blocks)
        blocks.push_back(b.block);
    return 0;
}

void CQzFileSystem::set_normal_file_write_user(const char* name,
                                               _qzfs_normal_file_describe_* handle)
{
    _qzfs_normal_file_cache_node_* node = find_normal_file_node(name);
    if (node == nullptr)
        return;
    if (handle != nullptr && node->write_user != nullptr && node->write_user != handle)
        QZLOG("other user write open(%p)!", static_cast<void*>(node->write_user));
    node->write_user = handle;
}

// ------------------------------------------------------------ block heads

void CQzFileSystem::repair_normal_file_heads()
{
    for (const _qzfs_normal_file_cache_node_& file : m_manage.normal_file_cache) {
        for (const _qzfs_block_cache_node_& b : file.blocks) {
            _qzfs_block_info_ table, head;
            if (read_block_info_from_key_block(m_manage.key_block, b.block, &table) != 0)
                continue;
            if (read_block_info_from_block(b.block, &head) == 0 &&
                memcmp(&table, &head, sizeof(table)) == 0)
                continue;
            QZLOG_ABOVE(0, "file %s block %lu: its head is written from the table", file.name,
                        (unsigned long)b.block);
            mark_block_head(b.block, QZFS_BLOCK_NORMAL_FILE);
        }
    }
}

int CQzFileSystem::write_normal_file_block_header(void* io, unsigned long block,
                                                  _qzfs_file_block_header_* header)
{
    header->check_num =
        (uint32_t)qzfs_chksum_crc32(header, offsetof(_qzfs_file_block_header_, check_num));
    const int length = (int)sizeof(*header);
    return Seek_and_write_in_block(io, block, QZFS_FILE_HEADER_OFFSET,
                                   reinterpret_cast<unsigned char*>(header), length) == length
               ? 0
               : -1;
}

int CQzFileSystem::get_normal_file_block_info(void* io, unsigned long block,
                                              _qzfs_block_info_* info,
                                              _qzfs_file_block_header_* header)
{
    std::vector<unsigned char> head(QZFS_FILE_DATA_OFFSET);
    if (Seek_and_read_in_block(io, block, 0, head.data(), (int)head.size()) != (int)head.size()) {
        QZLOG("read %lu block data failed!", block);
        return -1;
    }
    if (info != nullptr) {
        memcpy(info, head.data(), sizeof(*info));
        if (info->check_num != (uint32_t)qzfs_chksum_crc32(info, QZFS_BLOCK_INFO_CRC_LEN)) {
            QZLOG("check %lu block failed!", block);
            return -1;
        }
    }
    if (header != nullptr) {
        memcpy(header, head.data() + QZFS_FILE_HEADER_OFFSET, sizeof(*header));
        const unsigned long want =
            qzfs_chksum_crc32(header, offsetof(_qzfs_file_block_header_, check_num));
        if (header->check_num != (uint32_t)want) {
            QZLOG("check %lu block failed!", block);
            return -1;
        }
    }
    return 0;
}

// ------------------------------------------------------------ open and close

// A first block for a new file, with an empty chain header.
int CQzFileSystem::create_normal_file(const char* name, void* io)
{
    QZLOG_ABOVE(2, "%s not exist,create it!", name);
    _qzfs_block_info_ record;
    memset(&record, 0, sizeof(record));
    record.owner_stamp = (uint32_t)get_block_owner_stamp();
    record.block_type = QZFS_BLOCK_NORMAL_FILE;
    normal_file_table_name(name, record.attr);
    record.block_index = 0;
    unsigned long block = 0;
    if (Request_free_block(1, &block, &record, 0) != 0) {
        QZLOG("request free block failed!");
        return -1;
    }
    _qzfs_file_block_header_ header = {};
    if (write_normal_file_block_header(io, block, &header) != 0) {
        QZLOG("modify_normal_file_block_header failed!");
        Free_one_block(block, 0);
        return -1;
    }
    Add_block_to_normal_file(name, 0, block);
    return 0;
}

// The chain header of a file's last block when its own fails its check. A
// block that the header before it does not point to yet was taken by an
// extension that a power cut stopped before its headers were written: it
// holds no data. Any other damaged last block counts as full, so that no
// written byte is lost.
int CQzFileSystem::repair_last_normal_file_header(_qzfs_normal_file_describe_* handle,
                                                  _qzfs_file_block_header_& header)
{
    QZLOG("get_normal_file_block_header failed!(%s)", handle->name);
    const unsigned long block = handle->block_list.back();
    memset(&header, 0, sizeof(header));
    header.used_len = uint32_t(m_manage.block_size - QZFS_FILE_DATA_OFFSET);
    if (handle->block_list.size() >= 2) {
        header.prev_block = uint32_t(*std::next(handle->block_list.rbegin()));
        _qzfs_file_block_header_ before;
        if (get_normal_file_block_info(handle->io_handle, header.prev_block, nullptr, &before) ==
                0 &&
            before.next_block != block)
            header.used_len = 0;
    }
    if (write_normal_file_block_header(handle->io_handle, block, &header) != 0) {
        QZLOG("recovery block  failed(%s)!", handle->name);
        return -1;
    }
    return 0;
}

// Steps 3 and 4 of an open: the handle takes the file's block list and
// stands at the end of its data.
int CQzFileSystem::load_normal_file_end(_qzfs_normal_file_describe_* handle)
{
    if (get_normal_file_use_block_list(handle->name, handle->block_list) != 0 ||
        handle->block_list.empty()) {
        QZLOG("get normal file use block list failed!");
        return -1;
    }
    const unsigned long last = handle->block_list.back();
    _qzfs_file_block_header_ header;
    if (get_normal_file_block_info(handle->io_handle, last, nullptr, &header) != 0 ||
        header.used_len > m_manage.block_size - QZFS_FILE_DATA_OFFSET) {
        if (repair_last_normal_file_header(handle, header) != 0)
            return -1;
    }
    _qzfs_block_info_ record;
    if (read_block_info_from_key_block(m_manage.key_block, last, &record) != 0)
        return -1;
    handle->cur_block = handle->last_block = last;
    handle->cur_offset = handle->last_offset = QZFS_FILE_DATA_OFFSET + header.used_len;
    handle->last_block_header = header;
    handle->owner_stamp = record.owner_stamp;
    handle->have_write = 0;
    handle->header_dirty = 0;
    return 0;
}

int CQzFileSystem::open_normal_file(const char* name, _qzfs_normal_file_describe_* handle)
{
    handle->hdd_id = m_hdd_id;
    memset(handle->name, 0, sizeof(handle->name));
    strncpy(handle->name, name, QZFS_FILE_NAME_MAX);
    handle->block_list.clear();
    handle->io_handle = qzfs_create_io_interface(m_dev_path.c_str(), bare_dev);
    if (handle->io_handle == nullptr) {
        QZLOG("open %s failed!", m_dev_path.c_str());
        return -1;
    }
    const bool made = find_normal_file_node(handle->name) == nullptr;
    if ((made && create_normal_file(handle->name, handle->io_handle) != 0) ||
        load_normal_file_end(handle) != 0) {
        qzfs_destroy_io_interface(handle->io_handle);
        handle->io_handle = nullptr;
        handle->block_list.clear();
        return -1;
    }
    if (handle->read_only == 0)
        set_normal_file_write_user(handle->name, handle);
    return 0;
}

int CQzFileSystem::sync_normal_file(_qzfs_normal_file_describe_* handle)
{
    if (handle->have_write != 1)
        return 0;
    int result = 0;
    if (handle->header_dirty != 0) {
        if (write_normal_file_block_header(handle->io_handle, handle->last_block,
                                           &handle->last_block_header) != 0)
            result = -1;
        else
            handle->header_dirty = 0;
    }
    if (qzfs_sync(handle->io_handle) != 0 || qzfs_sync(m_pIo_interface) != 0)
        result = -1;
    return result;
}

int CQzFileSystem::close_normal_file(_qzfs_normal_file_describe_* handle)
{
    if (handle->read_only == 0)
        sync_normal_file(handle);
    if (handle->io_handle != nullptr)
        qzfs_destroy_io_interface(handle->io_handle);
    handle->io_handle = nullptr;
    if (handle->read_only == 0) {
        _qzfs_normal_file_cache_node_* node = find_normal_file_node(handle->name);
        if (node != nullptr && node->write_user == handle)
            node->write_user = nullptr;
    }
    handle->block_list.clear();
    return 0;
}

// ------------------------------------------------------------ by name

long long CQzFileSystem::normal_file_size(unsigned long blocks, unsigned long used_len) const
{
    if (blocks == 0)
        return 0;
    return (long long)(blocks - 1) * (long long)(m_manage.block_size - QZFS_FILE_DATA_OFFSET) +
           (long long)used_len;
}

int CQzFileSystem::get_normal_file_size(const char* name, unsigned long long& size)
{
    std::list<unsigned long> blocks;
    if (get_normal_file_use_block_list(name, blocks) != 0 || blocks.empty()) {
        QZLOG("get normal file use block list failed!");
        return -1;
    }
    _qzfs_file_block_header_ header;
    if (get_normal_file_block_info(m_pIo_interface, blocks.back(), nullptr, &header) != 0) {
        QZLOG("get_normal_file_block_header failed!");
        return -1;
    }
    size = (unsigned long long)normal_file_size(blocks.size(), header.used_len);
    return 0;
}

int CQzFileSystem::delete_normal_file(const char* name)
{
    std::list<unsigned long> blocks;
    if (get_normal_file_use_block_list(name, blocks) != 0) {
        QZLOG_ABOVE(1, "get_normal_file_use_block_list failed!");
        return 0;
    }
    // Last block first: a power cut half way leaves the file's front whole.
    for (auto it = blocks.rbegin(); it != blocks.rend(); ++it)
        Free_one_block(*it, 0);
    m_manage.normal_file_cache.remove_if(
        [&](const _qzfs_normal_file_cache_node_& node) { return strcmp(node.name, name) == 0; });
    return 0;
}

int CQzFileSystem::rename_normal_file(const char* old_name, const char* new_name)
{
    _qzfs_normal_file_cache_node_* node = find_normal_file_node(old_name);
    if (node == nullptr)
        return 0;
    unsigned char attr[14];
    normal_file_table_name(new_name, attr);
    for (auto it = node->blocks.rbegin(); it != node->blocks.rend(); ++it)
        modify_block_attr(it->block, attr, QZFS_WHERE_ALL);
    memset(node->name, 0, sizeof(node->name));
    memcpy(node->name, attr, sizeof(attr));
    return 0;
}

int CQzFileSystem::search_normal_file(const char* pattern,
                                      _qzfs_normal_file_search_describe_* out)
{
    if (out == nullptr)
        return -1;
    for (const _qzfs_normal_file_cache_node_& node : m_manage.normal_file_cache) {
        if (pattern != nullptr && strstr(node.name, pattern) == nullptr)
            continue;
        QZLOG_ABOVE(2, "%s", node.name);
        out->names.push_back(node.name);
    }
    return 0;
}
