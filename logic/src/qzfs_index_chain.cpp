// Index block headers, empty index blocks and the chains the blocks form.
// The three index levels share one block shape; their headers all begin
// with magic, last and next, so one walker checks every chain.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>
#include <vector>

// Swaps the u32 at `offset` of a record when the two byte orders differ.
static void trans_u32(unsigned char* record, size_t offset, _fs_endian_ from, _fs_endian_ to)
{
    if (from != to)
        change_byte_order(record + offset, 4);
}

void Endian_trans_root_index_block_header(const void* src, _fs_endian_ src_endian, void* dst,
                                          _fs_endian_ dst_endian)
{
    if (src != dst)
        memcpy(dst, src, sizeof(_root_index_header_dev_));
    if (src_endian == dst_endian)
        return;
    unsigned char* out = static_cast<unsigned char*>(dst);
    uint32_t action;
    memcpy(&action, out + 12, 4);
    for (size_t offset = 0; offset <= 16; offset += 4)
        trans_u32(out, offset, src_endian, dst_endian);
    if (action == 0)
        return;
    if (action != QZFS_ACTION_DELETE) {
        QZLOG("CQzFileSystem::Endian_trans_root_index_block_header invalid action");
        exit(1);
    }
    for (size_t offset : {20, 24, 28, 45, 49, 53, 57})
        trans_u32(out, offset, src_endian, dst_endian);
    change_byte_order(out + 32, 8);
}

void Endian_trans_stream_segment_index_block_header(const void* src, _fs_endian_ src_endian,
                                                    void* dst, _fs_endian_ dst_endian)
{
    if (src != dst)
        memcpy(dst, src, sizeof(_stream_segment_block_header_dev_));
    for (size_t offset = 0; offset <= 12; offset += 4)
        trans_u32(static_cast<unsigned char*>(dst), offset, src_endian, dst_endian);
}

void Endian_trans_iframe_index_block_header(const void* src, _fs_endian_ src_endian, void* dst,
                                            _fs_endian_ dst_endian)
{
    if (src != dst)
        memcpy(dst, src, sizeof(_iframe_index_block_header_dev_));
    for (size_t offset = 0; offset <= 8; offset += 4)
        trans_u32(static_cast<unsigned char*>(dst), offset, src_endian, dst_endian);
}

// Reads the I/O unit at the header offset of `block` into the I/O buffer.
int CQzFileSystem::read_index_header_unit(unsigned long block)
{
    return read_in_block(block, QZFS_INDEX_HEADER_OFFSET,
                                  m_file_system_io_buffer, int(m_file_system_io_buffer_len));
}

int CQzFileSystem::Read_stream_segment_index_block_header(unsigned long block,
                                                          _stream_segment_block_header_dev_* header)
{
    if (read_index_header_unit(block) != 0)
        return -1;
    Endian_trans_stream_segment_index_block_header(m_file_system_io_buffer, m_manage.disk_endian,
                                                   header, gLocal_endian);
    return 0;
}

// What differs between the chains of the three index levels: the magic, the
// header record and the words of the messages.
struct index_chain_kind {
    const char* func;
    uint32_t magic;
    void (*trans_header)(const void*, _fs_endian_, void*, _fs_endian_);
    size_t header_len;
    const char* header_failed;
    const char* bad_link;       // a later block whose `last` is not the block before
    const char* bad_first_link; // the first block's `last` is not 0
    const char* out_of_memory;
};

static const index_chain_kind kRootChain = {
    "Read_root_index_block_list",
    QZFS_ROOT_INDEX_MAGIC,
    Endian_trans_root_index_block_header,
    sizeof(_root_index_header_dev_),
    "Read_root_index_block_header failed(block_index:%ld)",
    "invalid block list(last:%ld)(fact:%ld)",
    "invalid block list2(last:%ld)(fact:%ld)",
    "CQzFileSystem::Read_root_index_block_list out of memory(size:%ld)",
};

static const index_chain_kind kStreamSegmentChain = {
    "Read_stream_segment_index_block_list",
    QZFS_STREAM_SEGMENT_MAGIC,
    Endian_trans_stream_segment_index_block_header,
    sizeof(_stream_segment_block_header_dev_),
    "Read_stream_segment_index_block_header failed(block_index:%ld)",
    "invalid block list1(last:%ld)(fact:%ld)",
    "invalid block list2(last:%ld)(fact:%ld)",
    "CQzFileSystem::Read_stream_segment_index_block_list out of memory(size:%ld)",
};

static const index_chain_kind kIframeChain = {
    "Read_iframe_index_block_list",
    QZFS_IFRAME_INDEX_MAGIC,
    Endian_trans_iframe_index_block_header,
    sizeof(_iframe_index_block_header_dev_),
    "Read_iframe_index_block_header failed(block_index:%ld)",
    "invalid block list1(last:%ld)(fact:%ld)",
    "invalid block list2(last:%ld)(fact:%ld)",
    "CQzFileSystem::Read_iframe_index_block_list out of memory(size:%ld)",
};

// Walks a chain from `first_block`, checking each header, and hands out the
// blocks in chain order as a new array. The first header (whole record,
// `header_len` bytes) goes to `first_header` when given. A chain longer than
// the disk has blocks can only be a loop and is refused.
int CQzFileSystem::read_index_chain(const index_chain_kind& kind, unsigned long first_block,
                                    uint32_t* num, uint32_t** list, void* first_header)
{
    std::vector<uint32_t> blocks;
    unsigned char header[sizeof(_root_index_header_dev_)];
    unsigned long block = first_block;
    for (;;) {
        if (read_index_header_unit(block) != 0) {
            QZLOG_AS(kind.func, kind.header_failed, long(block));
            return -1;
        }
        kind.trans_header(m_file_system_io_buffer, m_manage.disk_endian, header, gLocal_endian);
        uint32_t magic, last, next;
        memcpy(&magic, header, 4);
        memcpy(&last, header + 4, 4);
        memcpy(&next, header + 8, 4);
        if (magic != kind.magic) {
            QZLOG_AS(kind.func, "invalid maigc(block_index:%ld)(read:%08lx)(fact:%08lx)",
                     long(block), (unsigned long)magic, (unsigned long)kind.magic);
            return -1;
        }
        if (last > m_manage.total_block || next > m_manage.total_block) {
            QZLOG_AS(kind.func, "invalid block number(last:%ld)(next:%ld)(total:%ld)", long(last),
                     long(next), long(m_manage.total_block));
            return -1;
        }
        if (blocks.empty()) {
            if (last != 0) {
                QZLOG_AS(kind.func, kind.bad_first_link, long(last), 0L);
                return -1;
            }
            if (first_header != nullptr)
                memcpy(first_header, header, kind.header_len);
        } else if (last != blocks.back() || blocks.size() >= m_manage.total_block) {
            QZLOG_AS(kind.func, kind.bad_link, long(last), long(blocks.back()));
            return -1;
        }
        blocks.push_back(uint32_t(block));
        if (next == 0)
            break;
        block = next;
    }
    uint32_t* out = new (std::nothrow) uint32_t[blocks.size()];
    if (out == nullptr) {
        QZLOG_AS(kind.func, kind.out_of_memory, long(blocks.size() * sizeof(uint32_t)));
        exit(1);
    }
    memcpy(out, blocks.data(), blocks.size() * sizeof(uint32_t));
    *num = uint32_t(blocks.size());
    *list = out;
    return 0;
}

int CQzFileSystem::Read_root_index_block_list(unsigned long first_block, uint32_t* num,
                                              uint32_t** list, _root_index_header_dev_* header)
{
    return read_index_chain(kRootChain, first_block, num, list, header);
}

int CQzFileSystem::Read_stream_segment_index_block_list(unsigned long first_block, uint32_t* num,
                                                        uint32_t** list,
                                                        _stream_segment_block_header_dev_* header)
{
    return read_index_chain(kStreamSegmentChain, first_block, num, list, header);
}

int CQzFileSystem::Read_iframe_index_block_list(unsigned long first_block, uint32_t* num,
                                                uint32_t** list)
{
    return read_index_chain(kIframeChain, first_block, num, list, nullptr);
}

// Writes the I/O buffer, laid out as an empty index block from the header
// sector on, at the header offset of `block`.
int CQzFileSystem::write_empty_index_block(unsigned long block, unsigned char fill,
                                           const void* header, size_t header_len)
{
    memset(m_file_system_io_buffer, fill, m_file_system_io_buffer_len);
    memset(m_file_system_io_buffer, 0, QZFS_SECTOR_SIZE);
    memcpy(m_file_system_io_buffer, header, header_len);
    return write_in_block(block, QZFS_INDEX_HEADER_OFFSET,
                                   m_file_system_io_buffer, int(m_file_system_io_buffer_len));
}

int CQzFileSystem::Init_stream_segment_block(unsigned long block, unsigned long last,
                                             unsigned long next, unsigned long iframe_block,
                                             unsigned long first_iframe_block)
{
    _stream_segment_block_header_dev_ header;
    header.magic = QZFS_STREAM_SEGMENT_MAGIC;
    header.last = uint32_t(last);
    header.next = uint32_t(next);
    header.iframe_index_block = uint32_t(iframe_block);
    header.first_iframe_index_block =
        uint32_t(first_iframe_block != 0 ? first_iframe_block : iframe_block);
    Endian_trans_stream_segment_index_block_header(&header, gLocal_endian, &header,
                                                   m_manage.disk_endian);
    QZLOG_ABOVE(2, "segment index:%lu, iframe:%lu", block, iframe_block);
    if (write_empty_index_block(block, END_STREAM_SEGMENT_INDEX, &header, sizeof(header)) != 0) {
        QZLOG("Seek_and_write_in_block failed");
        return -1;
    }
    return 0;
}

int CQzFileSystem::Init_iframe_index_block(unsigned long block, unsigned long last,
                                           unsigned long next)
{
    _iframe_index_block_header_dev_ header;
    header.magic = QZFS_IFRAME_INDEX_MAGIC;
    header.last = uint32_t(last);
    header.next = uint32_t(next);
    Endian_trans_iframe_index_block_header(&header, gLocal_endian, &header, m_manage.disk_endian);
    QZLOG_ABOVE(2, "block_index:%ld,magic:%08lx,last:%lu,next:%lu", long(block),
                (unsigned long)QZFS_IFRAME_INDEX_MAGIC, last, next);
    if (write_empty_index_block(block, 0, &header, sizeof(header)) != 0) {
        QZLOG("Seek_and_write_in_block failed(block_index:%lu)", block);
        return -1;
    }
    return 0;
}

// ------------------------------------------------------------ node writes

// What differs between the root and the segment node writes: the end mark
// byte and the messages, which name the level.
struct index_node_kind {
    const char* function;
    uint8_t end_mark;
    const char* cur_error;   // (index)(chain length)(chain position)
    const char* next_error;
    const char* end_read;    // (block)(block offset)
    const char* end_write;
    const char* read;
    const char* write;
};

const index_node_kind kRootNodeWrite = {
    "Write_root_index", END_ROOT_INDEX,
    "error(root_index:%ld)(root_index_block_num:%ld)(cur_root_index_info.its_block_num:%ld)",
    "error(root_index:%ld)(root_index_block_num:%ld)(next_root_index_info.its_block_num:%ld)",
    "Seek_and_read_in_block END_ROOT_INDEX failed(block_num:%ld)(block_offset:%ld)",
    "Seek_and_write_in_block END_ROOT_INDEX failed(block_num:%ld)(block_offset:%ld)",
    "Seek_and_read_in_block ROOT_INDEX failed(block_num:%ld)(block_offset:%ld)",
    "Seek_and_write_in_block ROOT_INDEX failed(block_num:%ld)(block_offset:%ld)",
};

const index_node_kind kSegmentNodeWrite = {
    "Write_stream_segment_index", END_STREAM_SEGMENT_INDEX,
    "error(stream_segment_index:%ld)(stream_segment_index_block_num:%ld)"
    "(cur_stream_segment_index_info.its_block_num:%ld)",
    "error(stream_segment_index:%ld)(stream_segment_index_block_num:%ld)"
    "(next_stream_segment_index_info.its_block_num:%ld)",
    "Seek_and_read_in_block failed(block_num:%ld)(block_offset:%ld)",
    "Seek_and_write_in_block failed(block_num:%ld)(block_offset:%ld)",
    "Seek_and_read_in_block failed(block_num:%ld)(block_offset:%ld)",
    "Seek_and_write_in_block failed(block_num:%ld)(block_offset:%ld)",
};

// Puts the end mark into the unit at `at` on its own: read, mark, write.
int CQzFileSystem::write_end_mark_unit(const index_node_kind& kind, const uint32_t* list,
                                       const _qzfs_data_offset_& at)
{
    const unsigned long unit = m_file_system_io_buffer_len;
    uint32_t block = list[at.its_block_num];
    if (read_in_block(block, at.unit_offset, m_file_system_io_buffer, unit) != 0) {
        QZLOG_AS(kind.function, kind.end_read, long(block), long(at.unit_offset));
        return -1;
    }
    memset(m_file_system_io_buffer + at.offset_in_unit, kind.end_mark, QZFS_ROOT_NODE_SIZE);
    if (write_in_block(block, at.unit_offset, m_file_system_io_buffer, unit) != 0) {
        QZLOG_AS(kind.function, kind.end_write, long(block), long(at.unit_offset));
        return -1;
    }
    return 0;
}

// Writes a 64-byte node (already in disk order, its check sum set) at
// `index` of a chain. A new node at the end of the array is preceded by an
// end mark in the slot behind it, written first when it lies in another
// unit, so a cut in power between the two writes leaves a readable array.
// A block's last slot gets no end mark behind it.
int CQzFileSystem::write_index_node(const index_node_kind& kind, uint32_t block_num,
                                    const uint32_t* list, unsigned long index,
                                    const unsigned char* disk_node, int new_node, int is_end)
{
    const unsigned long unit = m_file_system_io_buffer_len;
    _qzfs_data_offset_ cur, next;
    Calculate_index_info(m_manage.block_size, QZFS_ROOT_NODE_SIZE, index, unit, &cur);
    if (cur.its_block_num >= block_num) {
        QZLOG_AS(kind.function, kind.cur_error, long(index), long(block_num),
                 long(cur.its_block_num));
        return -1;
    }
    const bool end_due = new_node == 1 && is_end == 1 &&
                         cur.index_in_block != cur.node_num_per_block - 1;
    if (end_due) {
        Calculate_index_info(m_manage.block_size, QZFS_ROOT_NODE_SIZE, index + 1, unit, &next);
        if (next.its_block_num >= block_num) {
            QZLOG_AS(kind.function, kind.next_error, long(index), long(block_num),
                     long(next.its_block_num));
            return -1;
        }
        if (next.unit_in_chain != cur.unit_in_chain && write_end_mark_unit(kind, list, next) != 0)
            return -1;
    }
    uint32_t block = list[cur.its_block_num];
    if (read_in_block(block, cur.unit_offset, m_file_system_io_buffer, unit) != 0) {
        QZLOG_AS(kind.function, kind.read, long(block), long(cur.unit_offset));
        return -1;
    }
    memcpy(m_file_system_io_buffer + cur.offset_in_unit, disk_node, QZFS_ROOT_NODE_SIZE);
    if (end_due && next.unit_in_chain == cur.unit_in_chain)
        memset(m_file_system_io_buffer + next.offset_in_unit, kind.end_mark, QZFS_ROOT_NODE_SIZE);
    if (write_in_block(block, cur.unit_offset, m_file_system_io_buffer, unit) != 0) {
        QZLOG_AS(kind.function, kind.write, long(block), long(cur.unit_offset));
        return -1;
    }
    return 0;
}
