// The action journal: one record in the header of the first root index
// block that says a delete or a split is in flight, with the values from
// before it. A delete arms it before its first index write and clears it
// after its last; a mount that finds it armed rolls the change back
// (Action_delete_recovery) or removes the pieces of an unfinished split
// (action_segment_split_recovery). Power_down_recovery calls both.
//
// Write order of a delete, and what a cut at each step leaves:
//   1. journal armed and flushed          (before: nothing to repair)
//   2. segment node written: id 0, or the trimmed start
//   3. data blocks freed in the key tables and the bitmap only (their own
//      heads keep type and day), share counts lowered
//   4. whole delete: the root index may go, its index blocks freed
//   5. journal cleared                    (after: the change stands)
// The roll-back puts back the node, the root id, the share counts and every
// index and data block of the segment that a cut left free. No block can
// have been handed out again in between: allocation waits for the disk lock,
// and the mount that rolls back runs before the disk is in service.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_segment_change.h"
#include "qzfs_stream_support.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

// ------------------------------------------------------------ record bytes

namespace {

void put_le(uint8_t*& at, uint64_t value, int width)
{
    for (int i = 0; i < width; i++)
        *at++ = uint8_t(value >> (8 * i));
}

uint64_t get_le(const uint8_t*& at, int width)
{
    uint64_t value = 0;
    for (int i = 0; i < width; i++)
        value |= uint64_t(*at++) << (8 * i);
    return value;
}

} // namespace

void qzfs_action_delete_to_bytes(const _action_delete_& r, uint8_t bytes[QZFS_ACTION_DELETE_LEN])
{
    uint8_t* at = bytes;
    put_le(at, r.root_index, 4);
    put_le(at, r.stream_segment_index, 4);
    put_le(at, r.start_iframe, 4);
    put_le(at, r.len_in_bytes, 8);
    put_le(at, r.root_index_id, 1);
    put_le(at, r.stream_segment_index_id, 1);
    put_le(at, r.start_hour, 1);
    put_le(at, r.start_minute, 1);
    put_le(at, r.start_second, 1);
    put_le(at, r.first_block_iframe_index, 4);
    put_le(at, r.first_block_share_count, 4);
    put_le(at, r.last_block_iframe_index, 4);
    put_le(at, r.last_block_share_count, 4);
}

void qzfs_action_delete_from_bytes(const uint8_t bytes[QZFS_ACTION_DELETE_LEN], _action_delete_* r)
{
    const uint8_t* at = bytes;
    r->root_index = uint32_t(get_le(at, 4));
    r->stream_segment_index = uint32_t(get_le(at, 4));
    r->start_iframe = uint32_t(get_le(at, 4));
    r->len_in_bytes = get_le(at, 8);
    r->root_index_id = uint8_t(get_le(at, 1));
    r->stream_segment_index_id = uint8_t(get_le(at, 1));
    r->start_hour = uint8_t(get_le(at, 1));
    r->start_minute = uint8_t(get_le(at, 1));
    r->start_second = uint8_t(get_le(at, 1));
    r->first_block_iframe_index = uint32_t(get_le(at, 4));
    r->first_block_share_count = uint32_t(get_le(at, 4));
    r->last_block_iframe_index = uint32_t(get_le(at, 4));
    r->last_block_share_count = uint32_t(get_le(at, 4));
}

void qzfs_action_split_to_bytes(const _action_segment_split_& r,
                                uint8_t bytes[QZFS_ACTION_SPLIT_LEN])
{
    uint8_t* at = bytes;
    put_le(at, r.root_index, 4);
    put_le(at, r.stream_segment_index, 4);
    put_le(at, r.start_iframe, 4);
    put_le(at, r.split_end_iframe, 4);
}

void qzfs_action_split_from_bytes(const uint8_t bytes[QZFS_ACTION_SPLIT_LEN],
                                  _action_segment_split_* r)
{
    const uint8_t* at = bytes;
    r->root_index = uint32_t(get_le(at, 4));
    r->stream_segment_index = uint32_t(get_le(at, 4));
    r->start_iframe = uint32_t(get_le(at, 4));
    r->split_end_iframe = uint32_t(get_le(at, 4));
}

// ------------------------------------------------------------ arming

unsigned long CQzFileSystem::journal_block() const
{
    auto first = m_manage.root_index_block_map.find(0);
    return first != m_manage.root_index_block_map.end() ? first->second : 0;
}

// One read and one write of the unit that holds the header, then a flush of
// that range: the sum in the header tells a torn write from a whole one.
int CQzFileSystem::Register_qzfs_action(unsigned long block, uint32_t action, const void* data)
{
    if (read_in_block(block, QZFS_INDEX_HEADER_OFFSET, m_file_system_io_buffer,
                      int(m_file_system_io_buffer_len)) != 0) {
        QZLOG("Seek_and_read_in_block failed(block_index:%ld)", long(block));
        return -1;
    }
    _root_index_header_dev_ header;
    Endian_trans_root_index_block_header(m_file_system_io_buffer, m_manage.disk_endian, &header,
                                         gLocal_endian);
    if (header.magic != QZFS_ROOT_INDEX_MAGIC) {
        QZLOG("invalid magic(%08lx)", (unsigned long)header.magic);
        return -1;
    }
    header.action = action;
    header.crc = 0;
    memset(header.action_data, 0, sizeof(header.action_data));
    if (action == QZFS_ACTION_DELETE)
        memcpy(header.action_data, data, QZFS_ACTION_DELETE_LEN);
    else if (action == QZFS_ACTION_SPLIT)
        memcpy(header.action_data, data, QZFS_ACTION_SPLIT_LEN);
    else if (action != QZFS_ACTION_NONE)
        QZLOG("invalid action");
    header.crc = qzfs_action_sum(header);
    QZLOG_ABOVE(2, "crc:%08lx", (unsigned long)header.crc);
    Endian_trans_root_index_block_header(&header, gLocal_endian, m_file_system_io_buffer,
                                         m_manage.disk_endian);
    if (write_in_block(block, QZFS_INDEX_HEADER_OFFSET, m_file_system_io_buffer,
                       int(m_file_system_io_buffer_len)) != 0) {
        QZLOG("Seek_and_write_in_block failed(block_index:%ld)", long(block));
        return -1;
    }
    QZLOG_ABOVE(2, "register OK(%ld)", long(block));
    qzfs_fsync(m_pIo_interface, block, QZFS_INDEX_HEADER_OFFSET, m_file_system_io_buffer_len);
    return 0;
}

// ------------------------------------------------------------ delete roll-back

namespace {

// Brings the root node, as read from the device, back to its journalled id:
// a whole delete that took the last segment deleted the root too.
int restore_root_id(CQzFileSystem& fs, const _action_delete_& r, _root_index_node_dev_* root)
{
    if (root->id == r.root_index_id)
        return 0;
    const uint8_t was = root->id;
    root->id = r.root_index_id;
    // The node and its cache only: the segment index block's record, which
    // Modify_root_index would also rewrite, is still the free one here.
    if (fs.Write_root_index(r.root_index, root, 0, 0) != 0 ||
        fs.Update_root_index_cache(r.root_index, root) != 0) {
        QZLOG("CQzFileSystem::Action_delete_recovery (%ld)(%02x)(%02x) failed", long(r.root_index),
              was, r.root_index_id);
        return -1;
    }
    QZLOG("recovery (%ld)(%02x)(%02x) OK", long(r.root_index), was, r.root_index_id);
    return 0;
}

// The end a closed node had before a tail cut moved it to the cut I-frame;
// the journal keeps no old end. Every end is an I-frame's time: the last
// I-frame inside the length where a recording or the end repair closed the
// node, or the I-frame where the length ends when an earlier cut or split
// ended it there. So: the first I-frame at or past the journalled length
// when it lies exactly there (and its stream goes on), else the last one
// inside it.
void put_back_end(CQzFileSystem& fs, const _action_delete_& r,
                  const std::vector<uint32_t>& iframe_blocks, _stream_segment_index_node_dev_& node)
{
    std::vector<unsigned char> unit(QZFS_IO_UNIT);
    iframe_log_reader log(fs, uint32_t(iframe_blocks.size()), iframe_blocks.data(), unit.data(),
                          unit.size());
    _iframe_index_node_dev_ e, end;
    if (log.fetch(r.start_iframe, &end) != iframe_log_reader::OK ||
        end.id != IFRAME_INDEX_ID_IFRAME)
        return;
    const uint64_t base = end.stream_segment_offset;
    for (uint32_t i = r.start_iframe + 1;; i++) {
        if (log.fetch(i, &e) != iframe_log_reader::OK || fs.Check_iframe_index_dev_node(&e) != 0)
            break;
        if (e.id == IFRAME_INDEX_ID_BLOCK)
            continue;
        // A new stream in the same log starts its offsets again.
        if (e.id != IFRAME_INDEX_ID_IFRAME || e.stream_segment_offset <= end.stream_segment_offset)
            break;
        if (e.stream_segment_offset - base <= r.len_in_bytes)
            end = e;
        if (e.stream_segment_offset - base >= r.len_in_bytes)
            break;
    }
    node.end_hour = end.hour;
    node.end_minute = end.minute;
    node.end_second = end.second;
}

// Puts back id, first I-frame and start time; the length only on a closed
// node, since a node being recorded holds 0 until its close, and with it
// the end that a tail cut moved. The node is read from the device: a freed
// node is not in the cache.
int restore_segment_node(CQzFileSystem& fs, const _action_delete_& r,
                         const std::vector<uint32_t>& ssi_blocks,
                         const std::vector<uint32_t>& iframe_blocks)
{
    _stream_segment_index_node_dev_ node;
    memset(&node, 0, sizeof(node));
    if (fs.Read_stream_segment_index_from_dev(uint32_t(ssi_blocks.size()), ssi_blocks.data(),
                                              r.stream_segment_index, &node) != 0) {
        QZLOG("Get_stream_segment_index_dev_node(%ld)(%ld) OK", long(r.root_index),
              long(r.stream_segment_index));
        return -1;
    }
    const bool as_journalled =
        node.id == r.stream_segment_index_id && segment_start_iframe_of(node) == r.start_iframe &&
        segment_len_of(node) == r.len_in_bytes && node.start_hour == r.start_hour &&
        node.start_minute == r.start_minute && node.start_second == r.start_second;
    if (as_journalled)
        return 0;
    node.id = r.stream_segment_index_id;
    set_segment_start_iframe(node, r.start_iframe);
    node.start_hour = r.start_hour;
    node.start_minute = r.start_minute;
    node.start_second = r.start_second;
    const bool tail_cut = node.end_hour < QZFS_INVALID_END_HOUR &&
                          segment_start_iframe_of(node) == r.start_iframe &&
                          segment_len_of(node) != r.len_in_bytes;
    if (tail_cut)
        put_back_end(fs, r, iframe_blocks, node);
    if (node.end_hour < QZFS_INVALID_END_HOUR)
        set_segment_len(node, r.len_in_bytes);
    const int failed = fs.Modify_stream_segment(r.root_index, uint32_t(ssi_blocks.size()),
                                                ssi_blocks.data(), r.stream_segment_index, 0,
                                                &node);
    QZLOG("CQzFileSystem::Action_delete_recovery Write_stream_segment_index(%ld)(%ld) "
          "(%lld)(%02d:%02d:%02d)(%ld)%s",
          long(r.root_index), long(r.stream_segment_index), (long long)segment_len_of(node),
          node.start_hour, node.start_minute, node.start_second, long(r.start_iframe),
          failed != 0 ? "failed" : " OK");
    return failed != 0 ? -1 : 0;
}

// Both chains of the root, from the device: the root may have been deleted
// by the interrupted delete, and its cached lists with it. Each of their
// blocks that the delete left free is registered again.
int read_segment_chain(CQzFileSystem& fs, const _root_index_node_dev_& root,
                       std::vector<uint32_t>* ssi_blocks, uint32_t* iframe_head)
{
    uint32_t first;
    memcpy(&first, &root.stream_segment_index_block, 4);
    uint32_t num = 0;
    uint32_t* list = nullptr;
    _stream_segment_block_header_dev_ header;
    memset(&header, 0, sizeof(header));
    if (fs.Read_stream_segment_index_block_list(first, &num, &list, &header) != 0) {
        delete[] list;
        QZLOG("Read_stream_segment_index_block_list(%ld) failed", long(first));
        return -1;
    }
    *ssi_blocks = qzfs_take_chain(list, num);
    *iframe_head = header.iframe_index_block;
    return 0;
}

int read_iframe_chain(CQzFileSystem& fs, uint32_t iframe_head, std::vector<uint32_t>* iframe_blocks)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (fs.Read_iframe_index_block_list(iframe_head, &num, &list) != 0) {
        delete[] list;
        QZLOG("Read_iframe_index_block_list failed(%ld)", long(iframe_head));
        return -1;
    }
    *iframe_blocks = qzfs_take_chain(list, num);
    return 0;
}

// A share count that the interrupted delete lowered goes back to its
// journalled value. Counts only ever fall under a delete, and a delete runs
// alone under the disk lock, so a count below the journalled one is its doing.
void restore_share_count(CQzFileSystem& fs, const std::vector<uint32_t>& iframe_blocks,
                         uint32_t index, _iframe_index_node_dev_ entry, uint32_t journalled)
{
    if (entry.id != IFRAME_INDEX_ID_BLOCK || entry.pts_high >= journalled)
        return;
    QZLOG("share count(index:%lu)(%lu -> %lu)", (unsigned long)index,
          (unsigned long)entry.pts_high, (unsigned long)journalled);
    entry.pts_high = journalled;
    fs.Write_iframe_index(uint32_t(iframe_blocks.size()), iframe_blocks.data(), index, &entry);
}

// Walks the block entries of the journalled range and registers again each
// data block that the interrupted delete freed; puts back the two share
// counts. The walk ends at the first entry that is neither an I-frame nor a
// block entry of the range.
void restore_data_blocks(CQzFileSystem& fs, const _action_delete_& r,
                         const std::vector<uint32_t>& iframe_blocks)
{
    // A record without a last block entry covers the first block alone.
    const uint32_t first = r.first_block_iframe_index;
    const uint32_t last = r.last_block_iframe_index > first ? r.last_block_iframe_index : first;
    // A buffer of its own: the block registrations on the way use the disk's.
    std::vector<unsigned char> unit(QZFS_IO_UNIT);
    iframe_log_reader log(fs, uint32_t(iframe_blocks.size()), iframe_blocks.data(), unit.data(),
                          unit.size());
    for (uint32_t i = first;; i++) {
        _iframe_index_node_dev_ n;
        const int got = log.fetch(i, &n);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("(block_index:%ld)(block_num:%ld)", log.chain_position(),
                  long(iframe_blocks.size()));
            return;
        }
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(%ld)(%ld)", log.block(), log.unit_offset());
            return;
        }
        if (fs.Check_iframe_index_dev_node(&n) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(index:%ld)", long(i));
            n.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (n.id == IFRAME_INDEX_ID_IFRAME)
            continue;
        if (n.id != IFRAME_INDEX_ID_BLOCK || i > last)
            return;
        fs.reclaim_block(n.block_num, QZFS_BLOCK_DATA);
        if (i == first)
            restore_share_count(fs, iframe_blocks, i, n, r.first_block_share_count);
        else if (i == last)
            restore_share_count(fs, iframe_blocks, i, n, r.last_block_share_count);
    }
}

} // namespace

// Rolls an interrupted delete back to the journalled state. Returns -1 on
// every path, as its caller clears the journal whatever happened.
int CQzFileSystem::Action_delete_recovery(_action_delete_* record)
{
    const _action_delete_& r = *record;
    QZLOG("root_index:%ld, %ld", long(r.root_index), long(r.stream_segment_index));
    _root_index_node_dev_ root;
    if (Read_root_index_from_dev(r.root_index, &root) != 0) {
        QZLOG("CQzFileSystem::Action_delete_recovery Get_root_index_dev_node failed(%ld)",
              long(r.root_index));
        return -1;
    }
    std::vector<uint32_t> ssi_blocks, iframe_blocks;
    uint32_t iframe_head = 0;
    if (read_segment_chain(*this, root, &ssi_blocks, &iframe_head) != 0 ||
        read_iframe_chain(*this, iframe_head, &iframe_blocks) != 0)
        return -1;
    // A roll-back cut on its way must leave a disk that the next mount's
    // root index check accepts, or that check rebuilds the root index and
    // the journal with it. The check wants each used root's segment index
    // block to carry type 5 in its own head, and each block of type 5 in the
    // key tables to belong to a used root. So: the blocks nothing checks
    // first, then the segment index blocks' heads, the nodes, and last the
    // key tables of the segment index blocks.
    for (uint32_t block : iframe_blocks)
        reclaim_block(block, QZFS_BLOCK_IFRAME_INDEX);
    restore_data_blocks(*this, r, iframe_blocks);
    for (uint32_t block : ssi_blocks) {
        if (block != 0 && block < m_manage.total_block && !block_bit_is_set(block))
            mark_block_head(block, QZFS_BLOCK_SEGMENT_INDEX);
    }
    if (restore_segment_node(*this, r, ssi_blocks, iframe_blocks) == 0)
        restore_root_id(*this, r, &root);
    for (uint32_t block : ssi_blocks)
        reclaim_block(block, QZFS_BLOCK_SEGMENT_INDEX);
    return -1;
}

// ------------------------------------------------------------ split roll-back

namespace {


// The log positions of the first and last block entries of a segment's
// data: the block entry in front of its first I-frame, then each later one
// while its length reaches into it, or up to the log's end for a segment
// being recorded, whose node holds no length yet.
bool block_entry_span(CQzFileSystem& fs, iframe_log_reader& log,
                      const _stream_segment_index_node_dev_& node, uint32_t* first, uint32_t* last)
{
    const uint32_t start = segment_start_iframe_of(node);
    _iframe_index_node_dev_ e;
    if (start == 0 || log.fetch(start, &e) != iframe_log_reader::OK ||
        e.id != IFRAME_INDEX_ID_IFRAME)
        return false;
    const unsigned long block_size = fs.manage().block_size;
    uint64_t covered = block_size - e.block_offset;
    *first = start;
    do {
        if (*first == 0 || log.fetch(--*first, &e) != iframe_log_reader::OK)
            return false;
    } while (e.id == IFRAME_INDEX_ID_IFRAME);
    if (e.id != IFRAME_INDEX_ID_BLOCK)
        return false;
    *last = *first;
    const bool recording = node.end_hour == QZFS_INVALID_END_HOUR;
    for (uint32_t i = start + 1;; i++) {
        if (log.fetch(i, &e) != iframe_log_reader::OK || fs.Check_iframe_index_dev_node(&e) != 0)
            return true;
        if (e.id == IFRAME_INDEX_ID_IFRAME)
            continue;
        if (e.id != IFRAME_INDEX_ID_BLOCK || (!recording && covered >= segment_len_of(node)))
            return true;
        *last = i;
        covered += block_size - QZFS_DATA_BLOCK_FIRST_FRAME;
    }
}

// A split raises the share count of the block where a new piece starts
// inside it, before its commit. With the pieces gone, each block entry from
// the old node's first block up to split_end_iframe is set to the number of
// segments of the root that use its block, which is what it was before: a
// recount, so that a roll-back cut on its way and run again ends the same.
void recount_split_shares(CQzFileSystem& fs, const _action_segment_split_& r,
                          const std::vector<uint32_t>& ssi_blocks, uint32_t iframe_head)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    if (fs.Read_iframe_index_block_list(iframe_head, &num, &list) != 0) {
        delete[] list;
        return;
    }
    const std::vector<uint32_t> chain = qzfs_take_chain(list, num);
    std::vector<unsigned char> unit(QZFS_IO_UNIT);  // the writes below use the disk's buffer
    iframe_log_reader log(fs, uint32_t(chain.size()), chain.data(), unit.data(), unit.size());
    std::vector<std::pair<uint32_t, uint32_t>> spans;
    uint32_t from = r.split_end_iframe;  // the old node's first block entry
    for (uint32_t i = 0;; i++) {
        _stream_segment_index_node_dev_ node;
        if (fs.Get_stream_segment_index_dev_node(r.root_index, uint32_t(ssi_blocks.size()),
                                                 ssi_blocks.data(), i, &node) != 0 ||
            node.id == END_STREAM_SEGMENT_INDEX)
            break;
        uint32_t first = 0, last = 0;
        if (node.id == FREE_STREAM_SEGMENT_INDEX || !block_entry_span(fs, log, node, &first, &last))
            continue;
        spans.emplace_back(first, last);
        if (i == r.stream_segment_index)
            from = first;
    }
    for (uint32_t e = from; e < r.split_end_iframe; e++) {
        _iframe_index_node_dev_ entry;
        if (log.fetch(e, &entry) != iframe_log_reader::OK ||
            fs.Check_iframe_index_dev_node(&entry) != 0 || entry.id != IFRAME_INDEX_ID_BLOCK)
            continue;
        uint32_t users = 0;
        for (const auto& span : spans)
            users += span.first <= e && e <= span.second;
        if (users == 0 || entry.pts_high == users)
            continue;
        QZLOG("share count(index:%lu)(%lu -> %lu)", (unsigned long)e,
              (unsigned long)entry.pts_high, (unsigned long)users);
        entry.pts_high = users;
        fs.Write_iframe_index(uint32_t(chain.size()), chain.data(), e, &entry);
    }
}

} // namespace

// A split adds complete nodes for its new pieces and then commits by
// rewriting the old node's first I-frame. While the old node still has its
// journalled start, the commit did not happen: the pieces added so far
// double part of its time and go, and the share counts they raised are
// counted again.
int CQzFileSystem::action_segment_split_recovery(_action_segment_split_* record)
{
    const _action_segment_split_& r = *record;
    if (r.start_iframe >= r.split_end_iframe)
        return 0;
    _root_index_node_mem_ rinm;
    memset(&rinm, 0, sizeof(rinm));
    if (Get_root_index_mem_node(r.root_index, &rinm) != 0 || !IS_NORMAL_ROOT_INDEX(rinm.id))
        return 0;
    uint32_t ssi_num = 0, iframe_head = 0;
    uint32_t* ssi_list = nullptr;
    if (Get_stream_segment_index_block_list(r.root_index, &ssi_num, &ssi_list, &iframe_head) !=
        0) {
        delete[] ssi_list;
        QZLOG("Get_stream_segment_index_block_list(root_index:%ld)", long(r.root_index));
        return 0;
    }
    const std::vector<uint32_t> ssi_blocks = qzfs_take_chain(ssi_list, ssi_num);
    _stream_segment_index_node_dev_ old_node;
    if (Get_stream_segment_index_dev_node(r.root_index, ssi_num, ssi_blocks.data(),
                                          r.stream_segment_index, &old_node) != 0) {
        QZLOG("get %lu stream segment index failed!", (unsigned long)r.stream_segment_index);
        return 0;
    }
    if (old_node.id != NORMAL_STREAM_SEGMENT_INDEX ||
        segment_start_iframe_of(old_node) != r.start_iframe)
        return 0;  // the split went through
    for (uint32_t i = 0;; i++) {
        if (i == r.stream_segment_index)
            continue;
        _stream_segment_index_node_dev_ piece;
        if (Get_stream_segment_index_dev_node(r.root_index, ssi_num, ssi_blocks.data(), i,
                                              &piece) != 0) {
            QZLOG("get %lu stream segment index failed!", (unsigned long)i);
            return 0;
        }
        if (piece.id == END_STREAM_SEGMENT_INDEX)
            break;
        const uint32_t start = segment_start_iframe_of(piece);
        if (piece.id != NORMAL_STREAM_SEGMENT_INDEX || start < r.start_iframe ||
            start > r.split_end_iframe)
            continue;
        QZLOG("delete split piece(%lu)(start iframe:%lu)", (unsigned long)i,
              (unsigned long)start);
        piece.id = FREE_STREAM_SEGMENT_INDEX;
        Modify_stream_segment(r.root_index, ssi_num, ssi_blocks.data(), i, 0, &piece);
    }
    recount_split_shares(*this, r, ssi_blocks, iframe_head);
    return 0;
}
