// The I-frame index: each root node's append-only log of 29-byte nodes, in
// the order of recording. An I-frame node (id 1) stands for each I-frame
// written, a block entry (id 2) for each data block the writer opens, ahead
// of that block's I-frames. A position in the log is an I-frame index
// number; a stream segment is the stretch of the log from its start_iframe.
//
// The log ends at the first slot whose id is 0; a node whose check sum fails
// reads as that end. An append rewrites 4 KiB units from the last to the
// first: the unit holding the new end mark reaches the disk before the unit
// in which the first new node replaces the old end mark, so a power cut at
// any point leaves a log that reads up to a sound end. Scans read 64 KiB
// units, into the disk's shared buffer or a private one, and find a node in
// a unit with qzfs_iframe_offset_in_unit.
#include "qzfilesystem.h"
#include "qzfs_stream_support.h"
#include "qzfs_datetime.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

// Appends and in-place changes rewrite units of this size.
static const unsigned long kWriteUnit = 4096;
// The first node sector of a block starts here; a unit below it holds the
// block's header.
static const unsigned long kFirstNodeOffset = QZFS_INDEX_HEADER_OFFSET + QZFS_SECTOR_SIZE;

void Endian_trans_iframe_index(const _iframe_index_node_dev_* src, _fs_endian_ src_endian,
                               _iframe_index_node_dev_* dst, _fs_endian_ dst_endian)
{
    if (src != dst)
        memcpy(dst, src, sizeof(*dst));
    if (src_endian == dst_endian)
        return;
    // stream_segment_offset stays as it is: it was never converted on disk.
    unsigned char* bytes = reinterpret_cast<unsigned char*>(dst);
    for (size_t offset : {5, 9, 13, 17})
        change_byte_order(bytes + offset, 4);
}

static uint32_t second_of_day(const _iframe_index_node_dev_& node)
{
    return uint32_t(node.hour) * 3600 + uint32_t(node.minute) * 60 + node.second;
}

namespace {

// What a walk over the raw node sectors of a chain found.
struct chain_walk {
    std::vector<uint32_t> blocks;  // blocks visited, in chain order
    uint32_t iframes = 0;          // nodes of id 1
    uint32_t entries = 0;          // nodes of id 2
};

} // namespace

// Counts the nodes of one unit of a chain block, read at `unit_offset`, from
// node sector `sector` on. Returns 1 at the end mark (or a node whose check
// sum fails), 0 when the unit is full, -1 on an invalid id.
static int walk_iframe_unit(CQzFileSystem& fs, const char* func, const unsigned char* buffer,
                            unsigned long len, unsigned long sector, unsigned long block,
                            unsigned long unit_offset, chain_walk& out)
{
    for (; sector < len / QZFS_SECTOR_SIZE; sector++) {
        for (unsigned long k = 0; k < QZFS_IFRAME_NODES_PER_SECTOR; k++) {
            const unsigned long at = sector * QZFS_SECTOR_SIZE + k * QZFS_IFRAME_NODE_SIZE;
            const auto* node = reinterpret_cast<const _iframe_index_node_dev_*>(buffer + at);
            uint8_t id = node->id;
            if (fs.Check_iframe_index_dev_node(node) != 0) {
                if (g_qzfs_debug_level > 1)
                    QZLOG_AS(func, "Check_iframe_index_dev_node FAILED");
                id = IFRAME_INDEX_ID_FREE_AND_END;
            }
            if (id == IFRAME_INDEX_ID_FREE_AND_END)
                return 1;
            if (id == IFRAME_INDEX_ID_IFRAME) {
                out.iframes++;
            } else if (id == IFRAME_INDEX_ID_BLOCK) {
                out.entries++;
            } else {
                QZLOG_AS(func, "invalid IFrame id(%02x)(start_block_index:%ld)(offset:%ld)",
                         unsigned(id), long(block), long(unit_offset + at));
                return -1;
            }
        }
    }
    return 0;
}

// Walks the chain from `start_block` over every node slot, block by block and
// unit by unit, up to the end mark or the end of the chain. With `check_type`
// each block's table record must name an I-frame index block. Messages go
// out in the name of `func`. Returns 0, or -1 on an I/O failure, a bad block
// or an invalid id.
static int walk_iframe_chain(CQzFileSystem& fs, const char* func, unsigned char* buffer,
                             unsigned long len, unsigned long start_block, bool check_type,
                             chain_walk& out)
{
    const _qzfs_disk_manage_& manage = fs.manage();
    for (unsigned long block = start_block;;) {
        _qzfs_block_info_ info;
        memset(&info, 0, sizeof(info));
        if (check_type &&
            (fs.read_block_info_from_key_block(manage.key_block, block, &info) != 0 ||
             info.block_type != QZFS_BLOCK_IFRAME_INDEX)) {
            QZLOG_AS(func, "this is not iframe index block(block:%lu,type:%d)", block,
                     int(info.block_type));
            return -1;
        }
        out.blocks.push_back(uint32_t(block));
        _iframe_index_block_header_dev_ header = {0, 0, 0};
        for (unsigned long offset = 0; offset < manage.block_size; offset += len) {
            if (fs.read_in_block(block, offset, buffer, len) != 0) {
                QZLOG_AS(func, "Seek_and_read_in_block failed");
                return -1;
            }
            if (offset == 0) {
                Endian_trans_iframe_index_block_header(buffer + QZFS_INDEX_HEADER_OFFSET,
                                                       manage.disk_endian, &header,
                                                       gLocal_endian);
                if (header.magic != QZFS_IFRAME_INDEX_MAGIC) {
                    QZLOG_AS(func, "invalid maigc:(read:%08lx)(fact:%08lx)(start_block_index:%ld)",
                             (unsigned long)header.magic, (unsigned long)QZFS_IFRAME_INDEX_MAGIC,
                             long(block));
                    return -1;
                }
            }
            const unsigned long sector = offset == 0 ? QZFS_INDEX_HEAD_SECTORS : 0;
            const int found = walk_iframe_unit(fs, func, buffer, len, sector, block, offset, out);
            if (found != 0)
                return found < 0 ? -1 : 0;
        }
        if (header.next == 0) {
            QZLOG_AS(func, "ERROR[block_index == 0]");
            return 0;
        }
        // A link out of the disk, or a chain longer than the disk, is broken.
        if (header.next >= manage.total_block || out.blocks.size() >= manage.total_block) {
            QZLOG_AS(func, "INVALID START BLOCK INDEX:%ld", long(header.next));
            return -1;
        }
        block = header.next;
    }
}

// ------------------------------------------------------------------ nodes

int CQzFileSystem::Check_iframe_index_dev_node(const _iframe_index_node_dev_* node)
{
    if (node->id == IFRAME_INDEX_ID_FREE_AND_END)
        return 0;
    // A byte sum is the same in either byte order, so the node may be given
    // in disk or local order.
    uint8_t sum = qzfs_iframe_node_byte_sum(reinterpret_cast<const unsigned char*>(node));
    if (sum == node->check_sum)
        return 0;
    QZLOG("Calculate_iframe_index_dev_node_check_sum failed(%02x)(%02x)", unsigned(sum),
          unsigned(node->check_sum));
    return -1;
}

// ------------------------------------------------------------------ chain

int CQzFileSystem::Modify_iframe_index_block_header(unsigned long block,
                                                    const _iframe_index_block_header_dev_* header)
{
    if (read_index_header_unit(block) != 0) {
        QZLOG("Seek_and_read_in_block failed(block_index:%ld)", long(block));
        return -1;
    }
    Endian_trans_iframe_index_block_header(header, gLocal_endian, m_file_system_io_buffer,
                                           m_manage.disk_endian);
    if (write_in_block(block, QZFS_INDEX_HEADER_OFFSET, m_file_system_io_buffer,
                       m_file_system_io_buffer_len) != 0) {
        QZLOG("Seek_and_write_in_block failed(block_index:%ld)", long(block));
        return -1;
    }
    return 0;
}

int CQzFileSystem::Get_iframe_block_info(unsigned long start_block, _iframe_block_info_* info)
{
    if (start_block == 0 || start_block > m_manage.total_block) {
        QZLOG("INVALID START BLOCK INDEX:%ld", long(start_block));
        return -1;
    }
    chain_walk walk;
    if (walk_iframe_chain(*this, __func__, m_file_system_io_buffer, m_file_system_io_buffer_len,
                          start_block, false, walk) != 0)
        return -1;
    uint32_t* blocks = new (std::nothrow) uint32_t[walk.blocks.size()];
    if (blocks == nullptr)
        QZFS_FATAL("CQzFileSystem::Get_iframe_block_info OUT OF MEMORY");
    memcpy(blocks, walk.blocks.data(), walk.blocks.size() * sizeof(uint32_t));
    info->block_num = uint32_t(walk.blocks.size());
    info->pBlock_list = blocks;
    info->iframe_index_num = walk.iframes;
    info->block_index_num = walk.entries;
    info->iframe_buffered_num = 0;
    QZLOG_ABOVE(2,
                "Get_iframe_block_info:(block_num:%ld)(start_block_index:%ld)"
                "(block_index_num:%ld)(iframe_index_num:%ld)",
                long(info->block_num), long(start_block), long(walk.entries), long(walk.iframes));
    return 0;
}

int CQzFileSystem::Get_iframe_block_info(const _root_index_node_dev_*, unsigned long start_block,
                                         _iframe_block_info_* info)
{
    if (Get_iframe_block_info(start_block, info) != 0) {
        QZLOG("Get_iframe_block_info FAILED");
        return -1;
    }
    return 0;
}

int CQzFileSystem::check_iframe_index_block(unsigned long block)
{
    chain_walk walk;
    return walk_iframe_chain(*this, __func__, m_file_system_io_buffer,
                             m_file_system_io_buffer_len, block, true, walk);
}

// The new block takes the first block's table record with its own type,
// chain ordinal and date, is written empty and linked behind the last one.
int CQzFileSystem::Add_iframe_index_block(uint32_t* num, uint32_t** list,
                                          const uint8_t date_time[6])
{
    const uint32_t count = *num;
    uint32_t* old = *list;
    if (count == 0 || old == nullptr) {
        QZLOG("[pBlock_num = %ld] no chain to extend", long(count));
        return -1;
    }
    QZLOG_ABOVE(0, "[pBlock_num = %ld][Last_block_index:%ld]", long(count), long(old[count - 1]));
    _qzfs_block_info_ info;
    if (read_block_info_from_block(old[0], &info) != 0) {
        QZLOG_ABOVE(1, "read block info from block(%lu) failed", (unsigned long)old[0]);
        memset(&info, 0, sizeof(info));
    }
    info.block_type = QZFS_BLOCK_IFRAME_INDEX;
    info.block_index = uint16_t(count);
    info.year = date_time[0];
    info.month = date_time[1];
    info.day = date_time[2];
    info.hour = date_time[3];
    info.minute = date_time[4];
    info.second = date_time[5];
    unsigned long new_block = 0;
    if (Request_free_block(1, &new_block, &info, 1) != 0) {
        QZLOG("request free block failed");
        return -1;
    }
    QZLOG_ABOVE(0, "new block:%ld", long(new_block));
    if (Init_iframe_index_block(new_block, old[count - 1], 0) != 0) {
        QZLOG("Init_iframe_index_block(block_index:%ld) failed", long(new_block));
        return -1;
    }
    _iframe_index_block_header_dev_ header;
    header.magic = QZFS_IFRAME_INDEX_MAGIC;
    header.last = count > 1 ? old[count - 2] : 0;
    header.next = uint32_t(new_block);
    if (Modify_iframe_index_block_header(old[count - 1], &header) != 0) {
        QZLOG("Modify_iframe_index_block_header(block_index:%ld) failed", long(old[count - 1]));
        return -1;
    }
    uint32_t* grown = new (std::nothrow) uint32_t[count + 1];
    if (grown == nullptr)
        QZFS_FATAL("CQzFileSystem::Add_iframe_index_block out of memory");
    memcpy(grown, old, count * sizeof(uint32_t));
    grown[count] = uint32_t(new_block);
    delete[] old;
    *list = grown;
    *num = count + 1;
    QZLOG_ABOVE(2, "[pBlock_num = %ld][New: %ld]", long(*num), long(new_block));
    return 0;
}

int CQzFileSystem::Add_iframe_index_block(uint32_t* num, uint32_t** list, unsigned long count,
                                          const uint8_t date_time[6])
{
    for (unsigned long i = 0; i < count; i++) {
        if (Add_iframe_index_block(num, list, date_time) != 0) {
            QZLOG("Add_iframe_index_block failed");
            return -1;
        }
    }
    QZLOG_ABOVE(0, "Add_iframe_index_block OK");
    return 0;
}

// ---------------------------------------------------------------- writing

int CQzFileSystem::Add_iframe_index(uint32_t* num, uint32_t** list, unsigned long index,
                                    const _iframe_index_node_dev_* nodes, unsigned long count,
                                    const uint8_t date_time[6])
{
    const unsigned long block_size = m_manage.block_size;
    _qzfs_data_offset_ first, after;
    Calculate_index_info(block_size, QZFS_IFRAME_NODE_SIZE, index, kWriteUnit, &first);
    Calculate_index_info(block_size, QZFS_IFRAME_NODE_SIZE, index + count, kWriteUnit, &after);
    // The end mark behind the new nodes needs a block too.
    if (after.its_block_num >= *num) {
        const unsigned long more = after.its_block_num + 1 - *num;
        QZLOG_ABOVE(0, "add number:%ld", long(more));
        if (Add_iframe_index_block(num, list, more, date_time) != 0) {
            QZLOG("Add_iframe_index_block failed");
            return -1;
        }
    }

    // Last unit first: the first unit, whose new node takes the place of the
    // old end mark, goes to the disk when everything behind it is there.
    unsigned char unit_buffer[kWriteUnit];
    const uint32_t units_per_block = uint32_t(block_size / kWriteUnit);
    unsigned long left = count;  // nodes index .. index + left - 1 still to place
    for (uint32_t unit = after.unit_in_chain;; unit--) {
        const unsigned long block = (*list)[unit / units_per_block];
        const unsigned long offset = (unit % units_per_block) * kWriteUnit;
        const bool first_unit = unit == first.unit_in_chain;
        memset(unit_buffer, 0, sizeof(unit_buffer));
        if (offset < kFirstNodeOffset || (first_unit && first.offset_in_unit != 0)) {
            if (read_in_block(block, offset, unit_buffer, kWriteUnit) != 0) {
                QZLOG("Seek_and_read_in_block failed");
                return -1;
            }
        }
        while (left > 0) {
            _qzfs_data_offset_ at;
            Calculate_index_info(block_size, QZFS_IFRAME_NODE_SIZE, index + left - 1, kWriteUnit,
                                 &at);
            if (at.unit_in_chain != unit)
                break;
            unsigned char* slot = unit_buffer + at.offset_in_unit;
            Endian_trans_iframe_index(&nodes[left - 1], gLocal_endian,
                                      reinterpret_cast<_iframe_index_node_dev_*>(slot),
                                      m_manage.disk_endian);
            slot[1] = qzfs_iframe_node_byte_sum(slot);
            left--;
        }
        if (unit == after.unit_in_chain)
            memset(unit_buffer + after.offset_in_unit, 0, QZFS_IFRAME_NODE_SIZE);
        if (write_in_block(block, offset, unit_buffer, kWriteUnit) != 0) {
            QZLOG("Seek_and_write_in_block failed");
            return -1;
        }
        if (first_unit)
            break;
    }

    // Flush the disk about every three seconds of stream time. A time well
    // behind the last sync (a new day, a clock set back) counts as a move.
    if (count == 0 || nodes[count - 1].id != IFRAME_INDEX_ID_IFRAME)
        return 0;
    const _iframe_index_node_dev_& last = nodes[count - 1];
    const uint32_t now = second_of_day(last);
    if ((now >= m_last_sync_second && now - m_last_sync_second < 3) ||
        (now < m_last_sync_second && m_last_sync_second - now < 60))
        return 0;
    m_last_sync_second = now;
    // A writer's flush leaves the sync to its own thread once the disk lock
    // is released, so that other channels do not wait behind it.
    if (m_defer_device_sync) {
        m_device_sync_due = true;
        return 0;
    }
    QZLOG_ABOVE(3, "start sync %s(%d:%d:%d)", m_dev_path.c_str(), last.hour, last.minute,
                last.second);
    qzfs_sync(m_pIo_interface);
    QZLOG_ABOVE(3, "end sync %s(%d:%d:%d)", m_dev_path.c_str(), last.hour, last.minute,
                last.second);
    return 0;
}

int CQzFileSystem::Add_iframe_index(uint32_t* num, uint32_t** list, unsigned long index,
                                    std::list<_iframe_index_node_dev_>& nodes,
                                    const uint8_t date_time[6])
{
    if (nodes.empty())
        return -1;
    std::vector<_iframe_index_node_dev_> array(nodes.begin(), nodes.end());
    QZLOG_ABOVE(0, "iframe num:%lu", (unsigned long)array.size());
    return Add_iframe_index(num, list, index, array.data(), array.size(), date_time);
}

int CQzFileSystem::Write_iframe_index(uint32_t block_num, const uint32_t* list,
                                      unsigned long index, _iframe_index_node_dev_* node)
{
    _qzfs_data_offset_ at;
    Calculate_index_info(m_manage.block_size, QZFS_IFRAME_NODE_SIZE, index, kWriteUnit, &at);
    if (at.its_block_num >= block_num) {
        QZLOG("error(%ld)(%ld)(%ld)", long(at.its_block_num), long(block_num), long(index));
        return -1;
    }
    const unsigned long block = list[at.its_block_num];
    unsigned char unit_buffer[kWriteUnit];
    if (read_in_block(block, at.unit_offset, unit_buffer, kWriteUnit) != 0) {
        QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", long(block),
              long(at.unit_offset));
        return -1;
    }
    node->check_sum = qzfs_iframe_node_byte_sum(reinterpret_cast<const unsigned char*>(node));
    Endian_trans_iframe_index(node, gLocal_endian,
                              reinterpret_cast<_iframe_index_node_dev_*>(unit_buffer +
                                                                         at.offset_in_unit),
                              m_manage.disk_endian);
    if (write_in_block(block, at.unit_offset, unit_buffer, kWriteUnit) != 0) {
        QZLOG("Seek_and_write_in_block failed(block_index:%ld)(block_offset:%ld)", long(block),
              long(at.unit_offset));
        return -1;
    }
    QZLOG_ABOVE(2, "OK(%ld)", long(index));
    return 0;
}

// ---------------------------------------------------------------- reading

int CQzFileSystem::Read_iframe_index(uint32_t block_num, const uint32_t* list, unsigned long index,
                                     unsigned long* count, _iframe_index_node_dev_* nodes,
                                     int mask)
{
    const unsigned long wanted = *count;
    unsigned long found = 0;
    iframe_log_reader log(*this, block_num, list, m_file_system_io_buffer,
                          m_file_system_io_buffer_len);
    for (unsigned long i = index; found < wanted; i++) {
        _iframe_index_node_dev_ node;
        const int got = log.fetch(i, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("FATAL(iframe_index_offset.its_block_num >= iframe_index_block_num)");
            break;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            break;
        }
        if (Check_iframe_index_dev_node(&node) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(%ld)", long(i));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (node.id != IFRAME_INDEX_ID_IFRAME && node.id != IFRAME_INDEX_ID_BLOCK) {
            QZLOG_ABOVE(2, "FRAME_INDEX_ID_FREE_AND_END(%ld)", long(i));
            break;
        }
        // Bit 0 of the mask selects id 1, bit 1 id 2.
        if ((mask & (1 << (node.id - 1))) != 0)
            nodes[found++] = node;
    }
    *count = found;
    return 0;
}

int CQzFileSystem::Find_iframe_block_index(uint32_t block_num, const uint32_t* list,
                                           unsigned long index, uint32_t* block_entry_index,
                                           _iframe_index_node_dev_* block_entry,
                                           _iframe_index_node_dev_* iframe, int private_buffer)
{
    std::unique_ptr<unsigned char[]> own;
    unsigned char* buffer = m_file_system_io_buffer;
    if (private_buffer == 1) {
        own.reset(new (std::nothrow) unsigned char[m_file_system_io_buffer_len]);
        if (!own)
            QZFS_FATAL("CQzFileSystem::Find_iframe_block_index out of memory(%ld)",
                       long(m_file_system_io_buffer_len));
        buffer = own.get();
    }
    iframe_log_reader log(*this, block_num, list, buffer, m_file_system_io_buffer_len);
    _iframe_index_node_dev_ found_iframe;
    memset(&found_iframe, 0, sizeof(found_iframe));
    for (unsigned long tz = index;; tz--) {
        _iframe_index_node_dev_ node;
        const int got = log.fetch(tz, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("FATAL(%ld)(%ld)", log.chain_position(), long(block_num));
            return -1;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            return -1;
        }
        if (Check_iframe_index_dev_node(&node) != 0) {
            QZLOG_ABOVE(1, "Check_iframe_index_dev_node failed(index:%ld)", long(tz));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (tz == index) {
            if (node.id != IFRAME_INDEX_ID_IFRAME) {
                QZLOG_ABOVE(1, "FAILED(pIFind->id != IFRAME_INDEX_ID_IFRAME)");
                return -1;
            }
            found_iframe = node;
        } else if (node.id == IFRAME_INDEX_ID_BLOCK) {
            if (node.block_num != found_iframe.block_num) {
                QZLOG_ABOVE(1, "FAILED(iframe_iind.block_num != pIFind->block_num)");
                return -1;
            }
            if (block_entry != nullptr)
                *block_entry = node;
            if (iframe != nullptr)
                *iframe = found_iframe;
            if (block_entry_index != nullptr)
                *block_entry_index = uint32_t(tz);
            return 0;
        } else if (node.id != IFRAME_INDEX_ID_IFRAME) {
            QZLOG("FAILED(IFRAME_INDEX_ID_FREE_AND_END)(%ld)", long(tz));
            return -1;
        }
        if (tz == 0) {
            QZLOG("FAILED(iframe_index == 0)");
            return -1;
        }
    }
}

namespace {

const char kTimeArea[] = "get_stream_segment_time_area_iframe_info";

// A scan for the time area of a segment: what it looks for, and where it
// has got to.
struct time_area_scan {
    uint32_t start_iframe;
    uint64_t len;
    const _k4t_fs_time_* start_time;
    const _k4t_fs_time_* end_time;
    uint64_t block_size;
    uint32_t last_block = 0;      // the segment's last data block, once reached
    uint32_t last_iframe = 0;     // the last I-frame taken
    _iframe_index_place_ prev_block = {};  // the latest block entry

    time_area_scan(uint32_t start_iframe_, uint64_t len_, const _k4t_fs_time_* start_time_,
                   const _k4t_fs_time_* end_time_, uint64_t block_size_)
        : start_iframe(start_iframe_), len(len_), start_time(start_time_), end_time(end_time_),
          block_size(block_size_)
    {
    }
};

// A block entry of the segment: the latest one, and the end's until the
// end I-frame is found. False when it comes before the first I-frame.
bool take_area_block_entry(const _iframe_index_node_dev_& node, uint32_t i, time_area_scan& scan,
                           _time_area_iframe_info_& info)
{
    if (info.first.node.id == 0) {
        QZLOG_AS(kTimeArea, "can not find frist iframe index");
        return false;
    }
    scan.prev_block = qzfs_iframe_place(node, i);
    if (info.end.node.id == 0)
        info.end_block = scan.prev_block;
    return true;
}

// An I-frame of the segment. The first must sit at start_iframe; the last
// one not after the start time is the start, the first one not before the
// end time the end. False where the first is misplaced or the log runs
// into older data.
bool take_area_iframe(const _iframe_index_node_dev_& node, uint32_t i, time_area_scan& scan,
                      _time_area_iframe_info_& info)
{
    if (info.first.node.id == 0) {
        if (i != scan.start_iframe) {
            QZLOG_AS(kTimeArea, "start iframe is not iframe index(iframe_index:%lu,start:%lu)",
                     (unsigned long)i, (unsigned long)scan.start_iframe);
            return false;
        }
        info.first = qzfs_iframe_place(node, i);
    } else if (node.stream_segment_offset < info.first.node.stream_segment_offset &&
               node.block_num != info.first.node.block_num) {
        return false;  // the log has run into older data
    }
    const _k4t_fs_time_ at = qzfs_iframe_time(node);
    if (Compare_time(&at, scan.start_time) != 1) {
        info.start = qzfs_iframe_place(node, i);
        if (scan.prev_block.node.id == IFRAME_INDEX_ID_BLOCK)
            info.start_block = scan.prev_block;
    } else if (info.end.node.id == 0 && Compare_time(&at, scan.end_time) != 2) {
        info.end = qzfs_iframe_place(node, i);
    }
    // Stream length up to the end of this node's data block.
    const uint64_t reach = node.stream_segment_offset - info.first.node.stream_segment_offset +
                           scan.block_size - node.block_offset;
    if (reach >= scan.len) {
        if (g_qzfs_debug_level > 3)
            QZLOG_AS(kTimeArea, "this is last block!");
        scan.last_block = node.block_num;
    }
    scan.last_iframe = i;
    return true;
}

// Scans the log from position `from` up to the end of the segment's last
// data block. Block entries before start_iframe only place the first one.
void scan_time_area(CQzFileSystem& fs, iframe_log_reader& log, uint32_t block_num,
                    uint32_t from, time_area_scan& scan, _time_area_iframe_info_& info)
{
    for (uint32_t i = from;; i++) {
        _iframe_index_node_dev_ node;
        const int got = log.fetch(i, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG_AS(kTimeArea, "FATAL(%ld)(%ld)", log.chain_position(), long(block_num));
            return;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            if (g_qzfs_debug_level > 2)
                QZLOG_AS(kTimeArea,
                         "Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)",
                         log.block(), log.unit_offset());
            return;
        }
        if (fs.Check_iframe_index_dev_node(&node) != 0) {
            if (g_qzfs_debug_level > 1)
                QZLOG_AS(kTimeArea, "Check_iframe_index_dev_node failed(index:%ld)", long(i));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (scan.last_block != 0 && node.block_num != scan.last_block)
            return;
        if (i < scan.start_iframe) {
            if (node.id == IFRAME_INDEX_ID_BLOCK)
                info.first_block = info.start_block = info.end_block = qzfs_iframe_place(node, i);
            continue;
        }
        if (node.id == IFRAME_INDEX_ID_BLOCK) {
            if (!take_area_block_entry(node, i, scan, info))
                return;
            continue;
        }
        if (node.id != IFRAME_INDEX_ID_IFRAME) {
            if (g_qzfs_debug_level > 1)
                QZLOG_AS(kTimeArea, " IFRAME_INDEX_ID_FREE_AND_END FATAL(index:%ld)", long(i));
            return;
        }
        if (!take_area_iframe(node, i, scan, info))
            return;
    }
}

void log_time_area(const _time_area_iframe_info_& info)
{
    if (g_qzfs_debug_level <= 2)
        return;
    QZLOG_AS(kTimeArea, "first:%d:%d:%d(index=%lu,block index=%lu)", info.first.node.hour,
             info.first.node.minute, info.first.node.second, (unsigned long)info.first.index,
             (unsigned long)info.first_block.index);
    QZLOG_AS(kTimeArea, "start:%d:%d:%d(index=%lu,block index=%lu)", info.start.node.hour,
             info.start.node.minute, info.start.node.second, (unsigned long)info.start.index,
             (unsigned long)info.start_block.index);
    QZLOG_AS(kTimeArea, "end:%d:%d:%d(index=%lu,block index=%lu)", info.end.node.hour,
             info.end.node.minute, info.end.node.second, (unsigned long)info.end.index,
             (unsigned long)info.end_block.index);
}

}  // namespace

// Scans a segment from the unit that holds the node before start_iframe (so
// that its block entry is seen) up to the end of the segment's last data
// block, and keeps the places a split by time needs.
int CQzFileSystem::get_stream_segment_time_area_iframe_info(
    uint32_t block_num, const uint32_t* list, uint32_t start_iframe, uint64_t len,
    const _k4t_fs_time_* start_time, const _k4t_fs_time_* end_time, _time_area_iframe_info_& info)
{
    memset(&info, 0, sizeof(info));
    _qzfs_data_offset_ from;
    Calculate_index_info(m_manage.block_size, QZFS_IFRAME_NODE_SIZE, start_iframe - 1,
                         m_file_system_io_buffer_len, &from);
    iframe_log_reader log(*this, block_num, list, m_file_system_io_buffer,
                          m_file_system_io_buffer_len);
    time_area_scan scan(start_iframe, len, start_time, end_time, m_manage.block_size);
    scan_time_area(*this, log, block_num, from.unit_first_index, scan, info);

    if (info.start.node.id == 0) {
        QZLOG_ABOVE(1, "can not find start iframe index(%d)!", int(start_iframe));
        return -1;
    }
    if (info.end.node.id != 0 && info.end.index == scan.last_iframe) {
        QZLOG_ABOVE(2, "end iframe is last iframe");
        memset(&info.end, 0, sizeof(info.end));
    }
    // No block entry was seen ahead of the segment: the log is searched
    // back from start_iframe for the nearest one.
    if (info.first_block.node.id != IFRAME_INDEX_ID_BLOCK) {
        _iframe_index_place_ entry;
        const int found = Find_iframe_block_index(block_num, list, start_iframe, &entry.index,
                                                  &entry.node, nullptr, 0);
        if (found != 0) {
            QZLOG_ABOVE(1, "can not find first block index!");
            return found;
        }
        info.first_block = entry;
        if (info.start_block.node.id != IFRAME_INDEX_ID_BLOCK)
            info.start_block = entry;
        if (info.end.node.id != 0 && info.end_block.node.id != IFRAME_INDEX_ID_BLOCK)
            info.end_block = entry;
    }
    log_time_area(info);
    return 0;
}

int CQzFileSystem::Output_iframe_index_info(uint32_t block_num, const uint32_t* list,
                                            unsigned long index)
{
    if (g_qzfs_debug_level <= 2)
        return 0;
    iframe_log_reader log(*this, block_num, list, m_file_system_io_buffer,
                          m_file_system_io_buffer_len);
    for (unsigned long i = index;; i++) {
        _iframe_index_node_dev_ node;
        const int got = log.fetch(i, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("OVER");
            return 0;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            return -1;
        }
        if (Check_iframe_index_dev_node(&node) != 0)
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        if (node.id == IFRAME_INDEX_ID_IFRAME) {
            QZLOG("(index:%ld)(IFRAME)(time:%02d:%02d:%02d)(block_index:%ld)(block_offset:%ld)"
                  "(offset:%lld)",
                  long(i), node.hour, node.minute, node.second, long(node.block_num),
                  long(node.block_offset), (long long)node.stream_segment_offset);
        } else if (node.id == IFRAME_INDEX_ID_BLOCK) {
            QZLOG("(index:%ld)(BLOCK)(block_index:%ld)(block_offset:%ld)", long(i),
                  long(node.block_num), long(node.block_offset));
        } else {
            QZLOG("(index:%ld)(END)", long(i));
            return 0;
        }
    }
}

int CQzFileSystem::Update_iframe_block_info(void*)
{
    return 0;
}
