// Partition and FAT32 shell. Before its first key info block a disk carries
// an MBR and a complete FAT32 volume per data partition, whose root directory
// holds hidden read-only files covering the data area. The record file system
// never reads this shell back at mount; it only keeps a PC from taking the
// disk for empty.
//
// All records below are stored little endian, the order of the target and of
// every PC reader. They are packed so that their layout is exact on 32-bit
// ARM and on 64-bit hosts alike.
#ifndef QZFS_FAT32_H
#define QZFS_FAT32_H

#include "qzfs_device.h"

#include <cstdint>
#include <list>

const unsigned long QZFS_FAT32_SECTORS_PER_CLUSTER = 128;      // 64 KiB clusters
const unsigned long QZFS_FAT32_CLUSTER_SIZE = 65536;
const unsigned long QZFS_FAT32_MIN_RESERVED_SECTORS = 32;
const unsigned long QZFS_FAT32_MIN_SECTORS = 2097152;          // 1 GiB
const unsigned long QZFS_FAT32_ROOT_CLUSTER = 2;
const unsigned long QZFS_FAT32_EOC = 0x0FFFFFFF;               // end of a cluster chain
const unsigned long QZFS_FAT32_MEDIA_ENTRY = 0x0FFFFFF8;       // FAT entry of cluster 0
const unsigned long QZFS_FAT32_ENTRY1 = 0xFFFFFFFF;            // FAT entry of cluster 1
const unsigned long QZFS_MBR_AREA_SIZE = 65536;                // written, zeros behind the MBR
const unsigned long long QZFS_MBR_LIMIT = 2199023255552ULL;    // 2 TiB: largest MBR disk
const unsigned char QZFS_PART_TYPE_FAT32_LBA = 0x0C;
const unsigned char QZFS_PART_TYPE_GPT_PROTECTIVE = 0xEE;

#pragma pack(push, 1)

// One partition entry of the MBR (16 bytes).
//
// | Off | Size | Field          | Meaning                               |
// |-----|------|----------------|---------------------------------------|
// | 0   | 1    | status         | 0x80 bootable, 0 otherwise            |
// | 1   | 3    | chs_first      | CHS of the first sector (unused, 0)   |
// | 4   | 1    | type           | partition type (0x0C FAT32 LBA)       |
// | 5   | 3    | chs_last       | CHS of the last sector (unused, 0)    |
// | 8   | 4    | lba_start      | first sector of the partition         |
// | 12  | 4    | sector_count   | sectors in the partition              |
struct _qzfs_mbr_part_entry_ {
    uint8_t status;
    uint8_t chs_first[3];
    uint8_t type;
    uint8_t chs_last[3];
    uint32_t lba_start;
    uint32_t sector_count;
};
static_assert(sizeof(_qzfs_mbr_part_entry_) == 16, "MBR partition entry is 16 bytes");

// Master boot record, sector 0 of the disk (512 bytes).
//
// | Off | Size | Field      | Meaning                                    |
// |-----|------|------------|--------------------------------------------|
// | 0   | 446  | boot_code  | boot loader (left zero)                    |
// | 446 | 64   | part       | four partition entries                     |
// | 510 | 2    | signature  | 0x55 0xAA                                  |
struct _qzfs_mbr_ {
    uint8_t boot_code[446];
    _qzfs_mbr_part_entry_ part[4];
    uint8_t signature[2];
};
static_assert(sizeof(_qzfs_mbr_) == 512, "MBR is one sector");

// FAT32 boot sector with its BIOS parameter block (512 bytes).
//
// | Off | Size | Field          | Meaning                                 |
// |-----|------|----------------|-----------------------------------------|
// | 0   | 3    | BS_jmpBoot     | jump instruction 0xEB 0x58 0x90         |
// | 3   | 8    | BS_OEMName     | "MSWIN4.1"                              |
// | 11  | 2    | BPB_BytsPerSec | bytes per sector, 512                   |
// | 13  | 1    | BPB_SecPerClus | sectors per cluster, 128                |
// | 14  | 2    | BPB_RsvdSecCnt | reserved sectors before FAT 1           |
// | 16  | 1    | BPB_NumFATs    | number of FATs, 2                       |
// | 17  | 2    | BPB_RootEntCnt | 0 on FAT32                              |
// | 19  | 2    | BPB_TotSec16   | 0 on FAT32                              |
// | 21  | 1    | BPB_Media      | 0xF8, fixed disk                        |
// | 22  | 2    | BPB_FATSz16    | 0 on FAT32                              |
// | 24  | 2    | BPB_SecPerTrk  | 63                                      |
// | 26  | 2    | BPB_NumHeads   | 255                                     |
// | 28  | 4    | BPB_HiddSec    | 0                                       |
// | 32  | 4    | BPB_TotSec32   | total sectors of the volume             |
// | 36  | 4    | BPB_FATSz32    | sectors of one FAT                      |
// | 40  | 2    | BPB_ExtFlags   | 0: FATs mirrored                        |
// | 42  | 2    | BPB_FSVer      | 0                                       |
// | 44  | 4    | BPB_RootClus   | first cluster of the root directory, 2  |
// | 48  | 2    | BPB_FSInfo     | sector of the FSInfo structure, 1       |
// | 50  | 2    | BPB_BkBootSec  | sector of the backup boot sector, 6     |
// | 52  | 12   | BPB_Reserved   | 0                                       |
// | 64  | 1    | BS_DrvNum      | 0x80                                    |
// | 65  | 1    | BS_Reserved1   | 0                                       |
// | 66  | 1    | BS_BootSig     | 0x29: the next three fields are valid   |
// | 67  | 4    | BS_VolID       | volume serial, time of format           |
// | 71  | 11   | BS_VolLab      | "qzfs       "                           |
// | 82  | 8    | BS_FilSysType  | "FAT32   "                              |
// | 90  | 420  | BS_BootCode    | 0                                       |
// | 510 | 2    | BS_Signature   | 0x55 0xAA                               |
struct qzfs_fat32_dbr_table_t {
    uint8_t BS_jmpBoot[3];
    char BS_OEMName[8];
    uint16_t BPB_BytsPerSec;
    uint8_t BPB_SecPerClus;
    uint16_t BPB_RsvdSecCnt;
    uint8_t BPB_NumFATs;
    uint16_t BPB_RootEntCnt;
    uint16_t BPB_TotSec16;
    uint8_t BPB_Media;
    uint16_t BPB_FATSz16;
    uint16_t BPB_SecPerTrk;
    uint16_t BPB_NumHeads;
    uint32_t BPB_HiddSec;
    uint32_t BPB_TotSec32;
    uint32_t BPB_FATSz32;
    uint16_t BPB_ExtFlags;
    uint16_t BPB_FSVer;
    uint32_t BPB_RootClus;
    uint16_t BPB_FSInfo;
    uint16_t BPB_BkBootSec;
    uint8_t BPB_Reserved[12];
    uint8_t BS_DrvNum;
    uint8_t BS_Reserved1;
    uint8_t BS_BootSig;
    uint32_t BS_VolID;
    char BS_VolLab[11];
    char BS_FilSysType[8];
    uint8_t BS_BootCode[420];
    uint8_t BS_Signature[2];
};
static_assert(sizeof(qzfs_fat32_dbr_table_t) == 512, "FAT32 boot sector is one sector");

// FAT32 FSInfo sector (512 bytes).
//
// | Off | Size | Field          | Meaning                                 |
// |-----|------|----------------|-----------------------------------------|
// | 0   | 4    | FSI_LeadSig    | 0x41615252                              |
// | 4   | 480  | FSI_Reserved1  | 0                                       |
// | 484 | 4    | FSI_StrucSig   | 0x61417272                              |
// | 488 | 4    | FSI_Free_Count | free clusters                           |
// | 492 | 4    | FSI_Nxt_Free   | where to look for a free cluster        |
// | 496 | 12   | FSI_Reserved2  | 0                                       |
// | 508 | 4    | FSI_TrailSig   | 0xAA550000                              |
struct _qzfs_fat32_fsinfo_ {
    uint32_t FSI_LeadSig;
    uint8_t FSI_Reserved1[480];
    uint32_t FSI_StrucSig;
    uint32_t FSI_Free_Count;
    uint32_t FSI_Nxt_Free;
    uint8_t FSI_Reserved2[12];
    uint32_t FSI_TrailSig;
};
static_assert(sizeof(_qzfs_fat32_fsinfo_) == 512, "FSInfo is one sector");

// FAT short directory entry (32 bytes).
//
// | Off | Size | Field            | Meaning                               |
// |-----|------|------------------|---------------------------------------|
// | 0   | 11   | DIR_Name         | 8.3 name, blank padded                |
// | 11  | 1    | DIR_Attr         | 0x01 read-only, 0x02 hidden, 0x20 archive |
// | 12  | 1    | DIR_NTRes        | 0                                     |
// | 13  | 1    | DIR_CrtTimeTenth | 0                                     |
// | 14  | 2    | DIR_CrtTime      | hour << 11 / minute << 5 / second / 2 |
// | 16  | 2    | DIR_CrtDate      | (year - 1980) << 9 / month << 5 / day |
// | 18  | 2    | DIR_LstAccDate   | as DIR_CrtDate                        |
// | 20  | 2    | DIR_FstClusHI    | high half of the first cluster        |
// | 22  | 2    | DIR_WrtTime      | as DIR_CrtTime                        |
// | 24  | 2    | DIR_WrtDate      | as DIR_CrtDate                        |
// | 26  | 2    | DIR_FstClusLO    | low half of the first cluster         |
// | 28  | 4    | DIR_FileSize     | size in bytes                         |
struct _qzfs_fat32_dir_entry_ {
    char DIR_Name[11];
    uint8_t DIR_Attr;
    uint8_t DIR_NTRes;
    uint8_t DIR_CrtTimeTenth;
    uint16_t DIR_CrtTime;
    uint16_t DIR_CrtDate;
    uint16_t DIR_LstAccDate;
    uint16_t DIR_FstClusHI;
    uint16_t DIR_WrtTime;
    uint16_t DIR_WrtDate;
    uint16_t DIR_FstClusLO;
    uint32_t DIR_FileSize;
};
static_assert(sizeof(_qzfs_fat32_dir_entry_) == 32, "directory entry is 32 bytes");

// GPT header (92 bytes; the rest of its sector is zero).
//
// | Off | Size | Field                   | Meaning                          |
// |-----|------|-------------------------|----------------------------------|
// | 0   | 8    | signature               | "EFI PART"                       |
// | 8   | 4    | revision                | 0x00010000                       |
// | 12  | 4    | header_size             | 92                               |
// | 16  | 4    | header_crc32            | CRC-32 of the header, this 0     |
// | 20  | 4    | reserved                | 0                                |
// | 24  | 8    | current_lba             | sector of this header            |
// | 32  | 8    | backup_lba              | sector of the other header       |
// | 40  | 8    | first_usable_lba        | first sector for partitions      |
// | 48  | 8    | last_usable_lba         | last sector for partitions       |
// | 56  | 16   | disk_guid               | disk GUID                        |
// | 72  | 8    | part_entry_lba          | first sector of the entry array  |
// | 80  | 4    | num_part_entries        | entries in the array             |
// | 84  | 4    | part_entry_size         | bytes per entry, 128             |
// | 88  | 4    | part_entry_array_crc32  | CRC-32 of the entry array        |
struct _qzfs_gpt_header_ {
    char signature[8];
    uint32_t revision;
    uint32_t header_size;
    uint32_t header_crc32;
    uint32_t reserved;
    uint64_t current_lba;
    uint64_t backup_lba;
    uint64_t first_usable_lba;
    uint64_t last_usable_lba;
    uint8_t disk_guid[16];
    uint64_t part_entry_lba;
    uint32_t num_part_entries;
    uint32_t part_entry_size;
    uint32_t part_entry_array_crc32;
};
static_assert(sizeof(_qzfs_gpt_header_) == 92, "GPT header is 92 bytes");

// GPT partition entry (128 bytes).
//
// | Off | Size | Field           | Meaning                                 |
// |-----|------|-----------------|-----------------------------------------|
// | 0   | 16   | type_guid       | partition type GUID                     |
// | 16  | 16   | unique_guid     | GUID of this partition                  |
// | 32  | 8    | first_lba       | first sector                            |
// | 40  | 8    | last_lba        | last sector, inclusive                  |
// | 48  | 8    | attributes      | attribute bits                          |
// | 56  | 72   | name            | 36 UTF-16LE characters                  |
struct _qzfs_gpt_part_info_ {
    uint8_t type_guid[16];
    uint8_t unique_guid[16];
    uint64_t first_lba;
    uint64_t last_lba;
    uint64_t attributes;
    uint16_t name[36];
};
static_assert(sizeof(_qzfs_gpt_part_info_) == 128, "GPT partition entry is 128 bytes");

#pragma pack(pop)

// Block size, total blocks and system blocks of an already formatted disk,
// read from its MBR without writing anything.
int qzfs_get_system_info(const char* dev, unsigned long& block_size, unsigned long& total,
                         std::list<unsigned long>& system);
int qzfs_get_fat32_system_info(const char* dev, unsigned long& block_size, unsigned long& total,
                               std::list<unsigned long>& system);

// Partition table: MBR up to 2 TiB, GPT (never available) above.
int qzfs_fdisk_block_align(const char* dev, unsigned long long size, int reserve_mib);
int qzfs_fdisk_mbr_block_align(const char* dev, unsigned long long size, int reserve_mib);
int qzfs_fdisk_gpt_block_align(const char* dev, unsigned long long size, int reserve_mib);

// A FAT32 volume with its pre-created files on each data partition.
int qzfs_fat32_format_block_align(const char* dev, unsigned long long size, int reserve_mib);
int qzfs_format_fat32_dbr(const char* dev, unsigned long long offset, unsigned long long sectors,
                          unsigned long long* data_size);
void qzfs_fat32_calculate(unsigned long long sectors, unsigned long reserved,
                          unsigned long sectors_per_cluster, unsigned long* total_sectors,
                          unsigned long* fat_size, unsigned long* clusters);
int qzfs_get_fat32_dbr(const char* dev, unsigned long long offset, qzfs_fat32_dbr_table_t* dbr);
int qzfs_pre_create_file(const char* dev, unsigned long long offset, unsigned long file_size,
                         unsigned long file_count);
int qzfs_write_fat32_fsinfo(const char* dev, unsigned long long offset, unsigned long free_count,
                            unsigned long next_free);

// Sector counts of the MBR's partitions, up to the first empty entry.
int qzfs_get_part_info_by_mbr(const char* dev, int& count, unsigned long long* sectors);
// Asks the kernel to reread the partition table of a block device.
int qzfs_read_partition_table(int fd);

int qzfs_init_disk(const char* dev, bool force);
int qzfs_create_gpt_protective_mbr(unsigned long long size, _qzfs_mbr_* mbr);
int qzfs_create_gpt_info(int fd, unsigned long long size, _qzfs_gpt_header_* primary,
                         _qzfs_gpt_header_* backup, _qzfs_gpt_part_info_* parts);
int qzfs_is_digital_string(const char* text);

#endif
