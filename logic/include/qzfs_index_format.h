// On-disk records of the three index levels (root index, stream segment
// index, I-frame index) and the position arithmetic they share.
//
// An index block is laid out as:
//   bytes 0..31       the block's copy of its _qzfs_block_info_
//   bytes 32..4095    unused
//   bytes 4096..4607  index block header: the header record, then zeros
//   bytes 4608..end   node sectors of 512 bytes; a sector holds
//                     floor(512 / node size) whole nodes from its first byte
// The blocks of one index form a chain through `last` and `next` (0: none);
// node i of an index lies in chain position i / nodes_per_block.
//
// Multi-byte fields are stored in the order of the processor that wrote
// them; the Endian_trans_* routines stand at the edge in case that changes.
// Nodes are handled byte by byte: several fields are not aligned.
#ifndef QZFS_INDEX_FORMAT_H
#define QZFS_INDEX_FORMAT_H

#include "qzfs_device.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// Byte offset of the index block header inside a block.
const unsigned long QZFS_INDEX_HEADER_OFFSET = 4096;
// Sectors ahead of the first node sector (the block record sector, the
// unused stretch and the header sector).
const unsigned long QZFS_INDEX_HEAD_SECTORS = 9;

const uint32_t QZFS_ROOT_INDEX_MAGIC = 0x52494900;       // bytes 00 49 49 52
const uint32_t QZFS_STREAM_SEGMENT_MAGIC = 0x53474900;   // bytes 00 49 47 53
const uint32_t QZFS_IFRAME_INDEX_MAGIC = 0x49464900;     // bytes 00 49 46 49

const unsigned long QZFS_ROOT_NODE_SIZE = 64;
const unsigned long QZFS_SSI_NODE_SIZE = 64;
const unsigned long QZFS_IFRAME_NODE_SIZE = 29;

// Values of a root node's id.
const uint8_t FREE_ROOT_INDEX = 0;
const uint8_t END_ROOT_INDEX = 128;
#define IS_NORMAL_ROOT_INDEX(id) (((id) & 1) != 0)

// End mark of the stream segment index: all 64 bytes of the slot are 255.
const uint8_t END_STREAM_SEGMENT_INDEX = 255;

// Root index journal states of the first root block's header.
const uint32_t QZFS_ACTION_NONE = 0;
const uint32_t QZFS_ACTION_DELETE = 1;
const uint32_t QZFS_ACTION_SPLIT = 3;
const unsigned long QZFS_ACTION_DELETE_LEN = 41;
const unsigned long QZFS_ACTION_SPLIT_LEN = 16;

#pragma pack(push, 1)

// _root_index_header_dev_: header of a root index block, at byte 4096.
//
//  offset size field        meaning
//   0      4   magic        QZFS_ROOT_INDEX_MAGIC
//   4      4   last         previous block of the chain, 0 for the first
//   8      4   next         next block of the chain, 0 for the last
//  12      4   action       journal state (first block only): 0 none,
//                           1 delete running, 3 split running
//  16      4   crc          action + byte sum of action_data, mod 2^32
//  20     64   action_data  the journal record, zero behind its end
struct _root_index_header_dev_ {
    uint32_t magic;
    uint32_t last;
    uint32_t next;
    uint32_t action;
    uint32_t crc;
    uint8_t action_data[64];
};
static_assert(sizeof(_root_index_header_dev_) == 84, "root index header is 84 bytes");

// The journal's check value: the plain sum of the action and the 64 record
// bytes (the field is called crc).
inline uint32_t qzfs_action_sum(const _root_index_header_dev_& header)
{
    uint32_t sum = header.action;
    for (uint8_t byte : header.action_data)
        sum += byte;
    return sum;
}

// _action_delete_: the journal record of a delete or trim in flight, kept
// in action_data of the first root index block's header, least significant
// byte first. It holds the values from before the change; mount puts them
// back.
//
//  offset size field                      meaning
//   0      4   root_index                 root index number
//   4      4   stream_segment_index       segment number within the root
//   8      4   start_iframe               old first I-frame number
//  12      8   len_in_bytes               old length
//  20      1   root_index_id              old root node id
//  21      1   stream_segment_index_id    old segment node id
//  22      3   start_hour/minute/second   old start time
//  25      4   first_block_iframe_index   number of the first block entry
//  29      4   first_block_share_count    its share count before the change
//  33      4   last_block_iframe_index    number of the last block entry (or
//                                         where a delete by time stopped)
//  37      4   last_block_share_count     that entry's bytes 13..16
struct _action_delete_ {
    uint32_t root_index;
    uint32_t stream_segment_index;
    uint32_t start_iframe;
    uint64_t len_in_bytes;
    uint8_t root_index_id;
    uint8_t stream_segment_index_id;
    uint8_t start_hour;
    uint8_t start_minute;
    uint8_t start_second;
    uint32_t first_block_iframe_index;
    uint32_t first_block_share_count;
    uint32_t last_block_iframe_index;
    uint32_t last_block_share_count;
};
static_assert(sizeof(_action_delete_) == QZFS_ACTION_DELETE_LEN, "delete record is 41 bytes");

// _action_segment_split_: the journal record of a split in flight.
//
//  offset size field                 meaning
//   0      4   root_index            root index number
//   4      4   stream_segment_index  the segment being split
//   8      4   start_iframe          its old first I-frame number
//  12      4   split_end_iframe      highest I-frame number a new piece can begin at
struct _action_segment_split_ {
    uint32_t root_index;
    uint32_t stream_segment_index;
    uint32_t start_iframe;
    uint32_t split_end_iframe;
};
static_assert(sizeof(_action_segment_split_) == QZFS_ACTION_SPLIT_LEN, "split record is 16 bytes");

// The journal records to and from their bytes, least significant byte first
// whatever the host's order.
void qzfs_action_delete_to_bytes(const _action_delete_& record, uint8_t bytes[QZFS_ACTION_DELETE_LEN]);
void qzfs_action_delete_from_bytes(const uint8_t bytes[QZFS_ACTION_DELETE_LEN], _action_delete_* record);
void qzfs_action_split_to_bytes(const _action_segment_split_& record, uint8_t bytes[QZFS_ACTION_SPLIT_LEN]);
void qzfs_action_split_from_bytes(const uint8_t bytes[QZFS_ACTION_SPLIT_LEN], _action_segment_split_* record);

// _root_index_node_dev_: one root node, one for each day, channel, stream
// type and name of a disk.
//
//  offset size field                       meaning
//   0      1   id                          0 free, bit 0 normal, 128 end mark
//   1      1   check_sum                   byte sum of byte 0 and bytes 2..63
//   2      1   year                        years since 2000
//   3      1   month
//   4      1   day
//   5      1   channel
//   6      1   stream_type
//   7      2   record_type                 bit n: a segment of record type n
//   9      4   stream_segment_index_block  first block of the segment index
//  13     17   name                        zero-terminated stream name
//  30      4   owner_stamp                 owner stamp at creation
//  34      1   lock                        non-zero: a segment is locked
//  35      1   only_pre_record             1 while only pre-record segments
//  36     28   reserved                    zero
struct _root_index_node_dev_ {
    uint8_t id;
    uint8_t check_sum;
    uint8_t year;
    uint8_t month;
    uint8_t day;
    uint8_t channel;
    uint8_t stream_type;
    uint16_t record_type;
    uint32_t stream_segment_index_block;
    char name[17];
    uint32_t owner_stamp;
    uint8_t lock;
    uint8_t only_pre_record;
    uint8_t reserved[28];
};
static_assert(sizeof(_root_index_node_dev_) == 64, "root node is 64 bytes");
static_assert(offsetof(_root_index_node_dev_, stream_segment_index_block) == 9, "ssi block at 9");
static_assert(offsetof(_root_index_node_dev_, owner_stamp) == 30, "owner stamp at 30");

// _stream_segment_block_header_dev_: header of a stream segment index block.
//
//  offset size field                     meaning
//   0      4   magic                     QZFS_STREAM_SEGMENT_MAGIC
//   4      4   last                      previous block, 0 for the first
//   8      4   next                      next block, 0 for the last
//  12      4   iframe_index_block        first block of the root's I-frame index
//  16      4   first_iframe_index_block  the head given at creation, kept by rebuilds
struct _stream_segment_block_header_dev_ {
    uint32_t magic;
    uint32_t last;
    uint32_t next;
    uint32_t iframe_index_block;
    uint32_t first_iframe_index_block;
};
static_assert(sizeof(_stream_segment_block_header_dev_) == 20, "segment block header is 20 bytes");

// _iframe_index_block_header_dev_: header of an I-frame index block.
//
//  offset size field  meaning
//   0      4   magic  QZFS_IFRAME_INDEX_MAGIC
//   4      4   last   previous block, 0 for the first
//   8      4   next   next block, 0 for the last
struct _iframe_index_block_header_dev_ {
    uint32_t magic;
    uint32_t last;
    uint32_t next;
};
static_assert(sizeof(_iframe_index_block_header_dev_) == 12, "iframe block header is 12 bytes");

// _stream_segment_index_node_dev_: one stream segment of a root node.
//
//  offset size field          meaning
//   0      1   id             0 free, 1 normal, 2 pre-record, 255 end mark
//   1      1   check_sum      byte sum of byte 0 and bytes 2..63
//   2      3   start_hour, start_minute, start_second
//   5      3   end_hour, end_minute, end_second   255 while the end is unknown
//   8      1   segment_type   type byte of the creation parameters
//   9      1   record_type    0..15
//  10      1   lock           0 free, 1 locked
//  11      1   flags          bit 0 dst, bit 1 tv_system, bit 2 have_audio
//                             bit 0, bit 3 further flag bit 0, bit 4
//                             have_audio bit 1
//  12      4   start_iframe   I-frame number of the first I-frame, 0 none
//  16      4   owner_stamp    block owner stamp at creation
//  20      4   lock_type      bitmap of lock reasons
//  24      8   alarm_type     alarm type value
//  32      8   len_in_bytes   bytes of frames in the segment
//  40     24   reserved       zero
struct _stream_segment_index_node_dev_ {
    uint8_t id;
    uint8_t check_sum;
    uint8_t start_hour;
    uint8_t start_minute;
    uint8_t start_second;
    uint8_t end_hour;
    uint8_t end_minute;
    uint8_t end_second;
    uint8_t segment_type;
    uint8_t record_type;
    uint8_t lock;
    uint8_t flags;
    uint32_t start_iframe;
    uint32_t owner_stamp;
    uint32_t lock_type;
    uint64_t alarm_type;
    uint64_t len_in_bytes;
    uint8_t reserved[24];
};
static_assert(sizeof(_stream_segment_index_node_dev_) == 64, "segment node is 64 bytes");
static_assert(offsetof(_stream_segment_index_node_dev_, start_iframe) == 12, "start_iframe at 12");
static_assert(offsetof(_stream_segment_index_node_dev_, len_in_bytes) == 32, "length at 32");

// _iframe_index_node_dev_: one entry of a root node's I-frame log.
//
//  offset size field                  I-frame (id 1)          block entry (id 2)
//   0      1   id                     1                       2
//   1      1   check_sum              byte sum of byte 0 and bytes 2..28
//   2      3   hour, minute, second   wall time of the frame  0
//   5      4   block_num              data block of frame     data block it opens
//   9      4   block_offset           frame offset in block   ordinal of the block
//  13      4   pts_high               pts, high word          share_count
//  17      4   pts_low                pts, low word           0
//  21      8   stream_segment_offset  frame offset in stream  0
struct _iframe_index_node_dev_ {
    uint8_t id;
    uint8_t check_sum;
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint32_t block_num;
    uint32_t block_offset;
    uint32_t pts_high;
    uint32_t pts_low;
    uint64_t stream_segment_offset;
};
static_assert(sizeof(_iframe_index_node_dev_) == 29, "I-frame node is 29 bytes");
static_assert(offsetof(_iframe_index_node_dev_, stream_segment_offset) == 21, "offset at 21");

#pragma pack(pop)

// The packed segment node's wide fields, read and written by copy since
// they are not aligned.
inline uint64_t segment_len_of(const _stream_segment_index_node_dev_& node)
{
    uint64_t len;
    memcpy(&len, &node.len_in_bytes, sizeof(len));
    return len;
}

inline void set_segment_len(_stream_segment_index_node_dev_& node, uint64_t len)
{
    memcpy(&node.len_in_bytes, &len, sizeof(len));
}

inline uint32_t segment_start_iframe_of(const _stream_segment_index_node_dev_& node)
{
    uint32_t value;
    memcpy(&value, &node.start_iframe, sizeof(value));
    return value;
}

inline void set_segment_start_iframe(_stream_segment_index_node_dev_& node, uint32_t value)
{
    memcpy(&node.start_iframe, &value, sizeof(value));
}

inline uint32_t segment_owner_stamp_of(const _stream_segment_index_node_dev_& node)
{
    uint32_t value;
    memcpy(&value, &node.owner_stamp, sizeof(value));
    return value;
}

// Values of a segment node's id.
const uint8_t FREE_STREAM_SEGMENT_INDEX = 0;
const uint8_t NORMAL_STREAM_SEGMENT_INDEX = 1;
const uint8_t PRE_RECORD_STREAM_SEGMENT_INDEX = 2;
#define IS_NORMAL_SSIN(id) ((id) == 1)
const uint8_t QZFS_INVALID_END_HOUR = 255;

// Values of an I-frame node's id.
const uint8_t IFRAME_INDEX_ID_FREE_AND_END = 0;
const uint8_t IFRAME_INDEX_ID_IFRAME = 1;
const uint8_t IFRAME_INDEX_ID_BLOCK = 2;

// A data block's frames begin behind its 4096-byte head: an I-frame at this
// offset is the block's first data, and a block holds block_size less this
// of stream.
const uint32_t QZFS_DATA_BLOCK_FIRST_FRAME = 0x1000;

// I-frame nodes in a 512-byte sector; bytes 493..511 of a sector are unused.
const unsigned long QZFS_IFRAME_NODES_PER_SECTOR = QZFS_SECTOR_SIZE / QZFS_IFRAME_NODE_SIZE;
// Nodes the writer gathers before it appends them to the log.
const unsigned long FS_IFI_BUFFER_NUM = 70;

// The I-frame chain of a root node as a writer holds it.
struct _iframe_block_info_ {
    uint32_t block_num;            // chain length
    uint32_t* pBlock_list;         // chain, owned (delete[])
    uint32_t iframe_index_num;     // nodes of id 1 on disk
    uint32_t block_index_num;      // nodes of id 2 on disk
    uint32_t iframe_buffered_num;  // id 1 nodes in the writer's buffer; 0 here
};

// An I-frame log node with its position in the log.
struct _iframe_index_place_ {
    _iframe_index_node_dev_ node;
    uint32_t index;
};

inline _iframe_index_place_ qzfs_iframe_place(const _iframe_index_node_dev_& node, uint32_t index)
{
    _iframe_index_place_ p;
    p.node = node;
    p.index = index;
    return p;
}

// Where a time area of a segment lies in the I-frame log.
struct _time_area_iframe_info_ {
    _iframe_index_place_ first_block;  // block entry of `first`
    _iframe_index_place_ first;        // the segment's first I-frame
    _iframe_index_place_ start_block;  // block entry of `start`
    _iframe_index_place_ start;        // last I-frame at or before the start time
    _iframe_index_place_ end_block;    // block entry of `end`
    _iframe_index_place_ end;          // first I-frame at or after the end time
};

// A segment node repaired in memory on a read-only disk; it stands over the
// node on the disk.
struct stream_segment_index_cache_t {
    uint32_t root_index;
    uint32_t stream_segment_index;
    uint8_t node[64];
};

// Where a linear index number lies: the answer of Calculate_index_info.
// `unit` is the I/O unit in which the caller reads the chain.
struct _qzfs_data_offset_ {
    uint32_t node_num_per_sector;
    uint32_t node_num_per_block;
    uint32_t its_block_num;       // position of the block in the chain
    uint32_t index_in_block;
    uint32_t sector_in_block;
    uint32_t index_in_sector;
    uint32_t offset_in_sector;
    uint32_t offset_in_block;
    uint32_t offset_in_chain;
    uint32_t unit_in_block;
    uint32_t unit_offset;         // block offset of the unit: where to seek
    uint32_t unit_in_chain;
    uint32_t sector_in_unit;
    uint32_t offset_in_unit;      // where the node lies in the unit buffer
    uint32_t index_in_unit;
    uint32_t unit_first_index;
    uint32_t unit_last_index;
    uint32_t sector_first_index;
    uint32_t sector_last_index;
};
static_assert(sizeof(_qzfs_data_offset_) == 19 * 4, "19 u32 fields");

// Check sum of a 64-byte root or segment node: the byte sum, mod 256, of
// byte 0 and bytes 2 to 63.
uint8_t qzfs_root_node_byte_sum(const unsigned char* node);
// Check sum of a 29-byte I-frame node: byte 0 and bytes 2 to 28.
uint8_t qzfs_iframe_node_byte_sum(const unsigned char* node);

// Byte offset of I-frame node `index` in a unit buffer read at `at` (an
// answer of Calculate_index_info for a position of the same unit): nodes
// run 17 to a sector, behind the header sectors in a block's first unit.
uint32_t qzfs_iframe_offset_in_unit(const _qzfs_data_offset_& at, uint32_t index,
                                    unsigned long unit_size);

// Turns a linear index into its place in a chain. Pure u32 arithmetic;
// every division by zero yields 0.
void Calculate_index_info(unsigned long block_size, unsigned long node_size, unsigned long index,
                          unsigned long unit_size, _qzfs_data_offset_* out);

#endif
