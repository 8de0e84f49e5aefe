// On-disk records of the disk layout: the key info block and the block record.
// All multi-byte fields are little endian on disk.
#ifndef QZFS_DISK_FORMAT_H
#define QZFS_DISK_FORMAT_H

#include <cstddef>
#include <cstdint>

// Block types held in a block record.
enum {
    QZFS_BLOCK_NONE = 0,          // table slot beyond total_block
    QZFS_BLOCK_FREE = 1,
    QZFS_BLOCK_SYSTEM = 2,        // MBR, FAT32 shell, partition margins; never allocated
    QZFS_BLOCK_KEY_INFO = 3,      // a key info block or a place kept for one
    QZFS_BLOCK_ROOT_INDEX = 4,
    QZFS_BLOCK_SEGMENT_INDEX = 5,
    QZFS_BLOCK_IFRAME_INDEX = 6,
    QZFS_BLOCK_DATA = 7,
    QZFS_BLOCK_NORMAL_FILE = 8,
    QZFS_BLOCK_BAD = 9,
    QZFS_BLOCK_TEST = 10,         // taken by the disk test; free at the next mount
};

// Key info places stand this many blocks apart; the backup is the next place.
const unsigned long QZFS_KEY_BLOCK_STEP = 400;
// A key info block is searched for at this many places at the most.
const int QZFS_KEY_BLOCK_TRIES = 100;
// The block table of a key info block starts at this byte.
const unsigned long QZFS_KEY_TABLE_OFFSET = 4096;
// The table record of block i sits at (i + QZFS_KEY_TABLE_FIRST_SLOT) * 32.
const unsigned long QZFS_KEY_TABLE_FIRST_SLOT = 128;
// Version text written at format; a reader compares the first 4 bytes only.
#define QZFS_VERSION_TEXT "qzfs4.0"
#define QZFS_VERSION_MAGIC "qzfs"

// _qzfs_block_info_: the record of one block, kept in the block table of both
// key info blocks and repeated at offset 0 of the block itself.
//
//  offset size field        meaning
//   0      4   owner_stamp  disk owner stamp when the block was taken (0 at format)
//   4      1   block_type   QZFS_BLOCK_*
//   5      1   reserved     0
//   6      6   year..second start of the stream for index and data blocks
//  12     14   attr         by block type (channel, stream type, file name, ...)
//  26      2   block_index  position of the block in its chain
//  28      4   check_num    CRC-32 of bytes 0 to 27
struct _qzfs_block_info_ {
    uint32_t owner_stamp;
    uint8_t block_type;
    uint8_t reserved;
    uint8_t year;
    uint8_t month;
    uint8_t day;
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint8_t attr[14];
    uint16_t block_index;
    uint32_t check_num;
};
static_assert(sizeof(_qzfs_block_info_) == 32, "block record is 32 bytes");
static_assert(offsetof(_qzfs_block_info_, attr) == 12, "attr at 12");
static_assert(offsetof(_qzfs_block_info_, block_index) == 26, "block_index at 26");
static_assert(offsetof(_qzfs_block_info_, check_num) == 28, "check_num at 28");

// Bytes of a block record covered by its check_num.
const unsigned long QZFS_BLOCK_INFO_CRC_LEN = 28;

// _qzfs_key_header_: the file system header, at byte 32 of a key info block.
//
//  offset size field        meaning
//   0    128   label        format label, NUL-terminated, zero-filled
//   128   32   version      "qzfs4.0", zero-filled
//   160    4   block_size   bytes per block
//   164    4   total_block  blocks of the disk, system blocks included
//   168  340   reserved     zero
//   508    4   check_num    CRC-32 of header bytes 0 to 507
struct _qzfs_key_header_ {
    char label[128];
    char version[32];
    uint32_t block_size;
    uint32_t total_block;
    uint8_t reserved[340];
    uint32_t check_num;
};
static_assert(sizeof(_qzfs_key_header_) == 512, "key header is 512 bytes");
static_assert(offsetof(_qzfs_key_header_, block_size) == 160, "block_size at 160");
static_assert(offsetof(_qzfs_key_header_, check_num) == 508, "check_num at 508");

const unsigned long QZFS_KEY_HEADER_CRC_LEN = 508;
// The header follows the key block's own record.
const unsigned long QZFS_KEY_HEADER_OFFSET = sizeof(_qzfs_block_info_);

// A block number with a copy of its record, as a table scan lists it.
struct _block_info_node_ {
    uint32_t block;
    _qzfs_block_info_ info;
};

// _qzfs_file_block_header_: chain header of a normal file block, at byte 32.
//
//  offset size field       meaning
//   0      4   prev_block  previous block of the file; 0 for the first
//   4      4   next_block  next block of the file; 0 for the last
//   8      4   used_len    bytes of file data in this block
//  12      4   check_num   CRC-32 of bytes 0 to 11
struct _qzfs_file_block_header_ {
    uint32_t prev_block;
    uint32_t next_block;
    uint32_t used_len;
    uint32_t check_num;
};
static_assert(sizeof(_qzfs_file_block_header_) == 16, "file block header is 16 bytes");

// Where a normal file block keeps its chain header and its data.
const unsigned long QZFS_FILE_HEADER_OFFSET = 32;
const unsigned long QZFS_FILE_DATA_OFFSET = 4096;
// Characters of a normal file name; the table's 14 bytes keep a NUL after.
const unsigned long QZFS_FILE_NAME_MAX = 13;

#endif
