// Mount-time check of the root index: every stream segment index block must
// be owned by exactly one root node. When that does not hold, or the root
// index block is missing or damaged, the root index is rebuilt from the
// stream segment index blocks of the disk. A freshly formatted disk gets its
// first, empty root index block the same way.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>
#include <vector>

int CQzFileSystem::check_stream_segment_index(unsigned long block)
{
    std::vector<unsigned char> head(QZFS_IO_UNIT);
    if (read_in_block(block, 0, head.data(), int(head.size())) != 0) {
        QZLOG("read failed(%lu)!", block);
        return -1;
    }
    _qzfs_block_info_ info;
    memcpy(&info, head.data(), sizeof(info));
    if (!qzfs_block_info_is_sound(&info)) {
        QZLOG("block info chksum is error(%lu)!", block);
        return -1;
    }
    if (info.block_type != QZFS_BLOCK_SEGMENT_INDEX) {
        QZLOG("block type(%d) is error(%lu)!", int(info.block_type), block);
        return -1;
    }
    return 0;
}

// Outcome of walking the root index block against the type 5 blocks.
enum root_check_result { ROOT_INDEX_SOUND, ROOT_INDEX_REBUILD };

// Whether the chain of root index blocks from `root_block` reads as the
// recovery after the check will read it: headers with the magic, a first
// block with no predecessor, links in range and no loop. A chain that does
// not read is rebuilt here: left to the recovery, it would refuse the mount
// after the repairs made before it.
bool CQzFileSystem::root_chain_reads(unsigned long root_block)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    const bool reads = Read_root_index_block_list(root_block, &num, &list, nullptr) == 0;
    delete[] list;
    return reads;
}

// Walks the nodes of the one root index block; takes each node's first
// stream segment index block out of `unowned`.
int CQzFileSystem::walk_root_index_block(unsigned long root_block,
                                         std::list<_block_info_node_>& unowned)
{
    std::vector<unsigned char> buffer(QZFS_IO_UNIT);
    std::list<_qzfs_k4t_recovery_para_> errors;
    unsigned long nodes = 0;
    for (unsigned long offset = 0; offset < m_manage.block_size; offset += buffer.size()) {
        if (read_in_block(root_block, offset, buffer.data(),
                                   int(buffer.size())) != 0) {
            QZLOG("read root index failed(%lu)!", root_block);
            return ROOT_INDEX_REBUILD;
        }
        unsigned long first = 0;
        if (offset == 0) {
            uint32_t magic;
            memcpy(&magic, buffer.data() + QZFS_INDEX_HEADER_OFFSET, 4);
            if (magic != QZFS_ROOT_INDEX_MAGIC) {
                QZLOG("root magic is invalid(0x%lx)!", (unsigned long)magic);
                return ROOT_INDEX_REBUILD;
            }
            if (!root_chain_reads(root_block))
                return ROOT_INDEX_REBUILD;
            first = QZFS_INDEX_HEADER_OFFSET + QZFS_SECTOR_SIZE;
        }
        for (unsigned long at = first; at < buffer.size(); at += QZFS_ROOT_NODE_SIZE) {
            const unsigned char* bytes = buffer.data() + at;
            _root_index_node_dev_ node;
            Endian_trans_root_index_node_dev(reinterpret_cast<const _root_index_node_dev_*>(bytes),
                                             m_manage.disk_endian, &node, gLocal_endian);
            if (node.id == END_ROOT_INDEX) {
                QZLOG_ABOVE(0, "total root index:%lu,error segment:%d,left segment:%d", nodes,
                            int(errors.size()), int(unowned.size()));
                return errors.empty() && unowned.empty() ? ROOT_INDEX_SOUND : ROOT_INDEX_REBUILD;
            }
            nodes++;
            if (!IS_NORMAL_ROOT_INDEX(node.id))
                continue;
            if (qzfs_root_node_byte_sum(bytes) != bytes[1]) {
                QZLOG("root index check num is error(%d)(%lu)!", int(bytes[1]), nodes - 1);
                return ROOT_INDEX_REBUILD;
            }
            uint32_t ssi_block;
            memcpy(&ssi_block, &node.stream_segment_index_block, 4);
            unowned.remove_if([&](const _block_info_node_& b) { return b.block == ssi_block; });
            if (check_stream_segment_index(ssi_block) != 0) {
                Free_one_block(ssi_block, 0);
                note_root_error(errors, node);
            }
        }
    }
    return ROOT_INDEX_REBUILD;
}

// Notes a node whose segment index is unusable, once for each channel,
// stream type and date.
void CQzFileSystem::note_root_error(std::list<_qzfs_k4t_recovery_para_>& errors,
                                    const _root_index_node_dev_& node)
{
    for (const _qzfs_k4t_recovery_para_& e : errors) {
        if (e.channel == node.channel && e.stream_type == node.stream_type &&
            e.start_date.year == node.year && e.start_date.month == node.month &&
            e.start_date.day == node.day)
            return;
    }
    _qzfs_k4t_recovery_para_ e;
    memset(&e, 0, sizeof(e));
    e.channel = node.channel;
    e.stream_type = node.stream_type;
    e.start_date.year = node.year;
    e.start_date.month = node.month;
    e.start_date.day = node.day;
    e.end_date = e.start_date;
    errors.push_back(e);
}

int CQzFileSystem::check_root_index_block_integrity_and_recovery()
{
    bool sound = false;
    std::list<_block_info_node_> segment_blocks;
    if (m_manage.root_index_block_map.size() != 1) {
        QZLOG_ABOVE(0, "root index block is invalid(%d)", int(m_manage.root_index_block_map.size()));
    } else if (get_block_list_by_type(QZFS_BLOCK_SEGMENT_INDEX, segment_blocks) != 0) {
        QZLOG("get stream segment index block list failed!");
    } else {
        QZLOG_ABOVE(0, "segment index block num is %d", int(segment_blocks.size()));
        sound = walk_root_index_block(m_manage.root_index_block_map.begin()->second,
                                      segment_blocks) == ROOT_INDEX_SOUND;
    }
    if (sound)
        return 0;
    for (const auto& entry : m_manage.root_index_block_map) {
        QZLOG_ABOVE(0, "free root index block:%lu", entry.second);
        Free_one_block(entry.second, 0);
    }
    m_manage.root_index_block_map.clear();
    return recovery_root_index();
}

int CQzFileSystem::recovery_root_index()
{
    QZLOG_ABOVE(0, "start recovery root index block");
    std::list<_block_info_node_> segment_blocks;
    if (get_block_list_by_type(QZFS_BLOCK_SEGMENT_INDEX, segment_blocks) != 0) {
        QZLOG("get stream segment index block list failed!");
        return -1;
    }
    if (create_root_index_block(segment_blocks) != 0) {
        QZLOG("create root index block failed!");
        return -1;
    }
    QZLOG_ABOVE(0, "end recovery root index block");
    return 0;
}

// Puts the root node that stands for one stream segment index block at
// `node` (disk order).
static void rebuilt_root_node(const _block_info_node_& source, unsigned char* slot)
{
    _root_index_node_dev_ node;
    memset(&node, 0, sizeof(node));
    node.id = 1;
    node.year = source.info.year;
    node.month = source.info.month;
    node.day = source.info.day;
    node.channel = source.info.attr[0];
    node.stream_type = source.info.attr[1];
    memcpy(&node.record_type, source.info.attr + 2, 2);
    memcpy(&node.stream_segment_index_block, &source.block, 4);
    memcpy(&node.owner_stamp, &source.info.owner_stamp, 4);
    memcpy(slot, &node, sizeof(node));
    slot[1] = qzfs_root_node_byte_sum(slot);
}

// Writes a new root index block with one node for each block of `segments`.
// 0 when written, 1 when a write failed (try another block), -1 otherwise.
int CQzFileSystem::write_rebuilt_root_block(unsigned long block,
                                            const std::list<_block_info_node_>& segments)
{
    const unsigned long unit = m_file_system_io_buffer_len;
    unsigned char* buffer = m_file_system_io_buffer;
    memset(buffer, END_ROOT_INDEX, unit);
    memset(buffer, 0, QZFS_SECTOR_SIZE);
    const uint32_t magic = QZFS_ROOT_INDEX_MAGIC;
    memcpy(buffer, &magic, 4);

    unsigned long offset = QZFS_INDEX_HEADER_OFFSET;  // block offset of the buffer
    unsigned long at = QZFS_SECTOR_SIZE;              // next node within the buffer
    auto flush = [&]() {
        unsigned long length = std::min(unit, m_manage.block_size - offset);
        if (write_in_block(block, offset, buffer, int(length)) != 0) {
            QZLOG("write root index failed(%lu)!", block);
            return false;
        }
        return true;
    };
    int count = 0;
    for (const _block_info_node_& segment : segments) {
        if (at + QZFS_ROOT_NODE_SIZE > unit || offset + at + QZFS_ROOT_NODE_SIZE > m_manage.block_size) {
            if (offset + unit >= m_manage.block_size) {
                QZLOG("stream segment invalid(%d)!", count);
                return -1;
            }
            if (!flush())
                return 1;
            offset += unit;
            at = 0;
            memset(buffer, END_ROOT_INDEX, unit);
        }
        rebuilt_root_node(segment, buffer + at);
        at += QZFS_ROOT_NODE_SIZE;
        count++;
    }
    if (!flush())
        return 1;
    // A buffer filled to its end leaves the end mark to the next one.
    if (at == unit && offset + unit < m_manage.block_size) {
        offset += unit;
        memset(buffer, END_ROOT_INDEX, unit);
        if (!flush())
            return 1;
    }
    return 0;
}

int CQzFileSystem::create_root_index_block(std::list<_block_info_node_>& segments)
{
    for (const auto& entry : m_manage.root_index_block_map)
        Free_one_block(entry.second, 0);
    m_manage.root_index_block_map.clear();
    for (;;) {
        _qzfs_block_info_ info;
        memset(&info, 0, sizeof(info));
        info.owner_stamp = uint32_t(get_block_owner_stamp());
        info.block_type = QZFS_BLOCK_ROOT_INDEX;
        info.block_index = 0;
        unsigned long block = 0;
        if (Request_free_block(1, &block, &info, 0) != 0) {
            QZLOG("request root index block failed!");
            return -1;
        }
        int written = write_rebuilt_root_block(block, segments);
        if (written < 0)
            return -1;
        if (written > 0)
            continue;  // the failed block stays allocated; try a new one
        QZLOG_ABOVE(0, "**********root_index:%lu**********", block);
        m_manage.root_index_block_map[0] = block;
        // Whatever the cache held of the old root index is stale now.
        if (pgSystemResourceManager != nullptr)
            pgSystemResourceManager->Free_resource(m_hdd_id);
        QZLOG_ABOVE(0, "create root %s(%lu)", "OK", block);
        return 0;
    }
}
