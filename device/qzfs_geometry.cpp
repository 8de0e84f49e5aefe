// Disk geometry: everything about the layout follows from the device size.
#include "qzfs_device.h"
#include "qzfs_fat32.h"
#include "qzfs_log.h"

static const unsigned long long FIRST_BLOCK_SIZE = 4194304ULL;  // 4 MiB
static const unsigned long long KEY_TABLE_OFFSET = 4096;        // table starts here in a key block
static const unsigned long long PARTITION_LEAD = 134217728ULL;  // 128 MiB before partition 1
static const unsigned long long TAIL_SECTORS = 131072;          // 64 MiB left alone at the end
static const unsigned long long MIN_LEFT_SPACE = 2147483647ULL;
static const unsigned long long MAX_PARTITION_SECTORS = 4294967296ULL;
static const unsigned long BLOCKS_PER_FILE = 32;                // blocks of one pre-created file

// The key info block holds one 32-byte record per block, so a block size
// serves disks up to ((b - 4096) / 32) blocks of b bytes. Sizes grow as a
// running factorial of 4 MiB: 4, 8, 24, 96, 480 MiB, ...
unsigned long get_block_size_by_disk_size(unsigned long long size, int record_size)
{
    unsigned long long b = FIRST_BLOCK_SIZE;
    unsigned long long n = 1;
    do {
        b *= n;
        n++;
    } while (((b - KEY_TABLE_OFFSET) / (unsigned long long)record_size) * b < size);
    return (unsigned long)b;
}

unsigned long qzfs_get_partition_start_offset_block_num(unsigned long long block_size)
{
    return (unsigned long)((PARTITION_LEAD + block_size - 1) / block_size + 1);
}

void qzfs_block_info_for_size(unsigned long long size, unsigned long& block_size,
                              unsigned long& key_block)
{
    block_size = get_block_size_by_disk_size(size, 32);
    key_block = qzfs_get_partition_start_offset_block_num(block_size) + BLOCKS_PER_FILE;
}

int qzfs_get_fat32_block_info(const char* dev, unsigned long& block_size, unsigned long& key_block,
                              unsigned char bare_dev)
{
    if (bare_dev == 0) {
        QZDEVLOG("linux must bare dev!");
        return -1;
    }
    unsigned long long size = 0;
    if (qzfs_get_block_dev_size(dev, &size) != 0) {
        QZDEVLOG("get %s size failed!", dev);
        return -1;
    }
    qzfs_block_info_for_size(size, block_size, key_block);
    return 0;
}

int qzfs_get_sector_num_pre_partition(unsigned long long size, unsigned long long reserve,
                                      unsigned long long& start, int& count,
                                      unsigned long long* sectors)
{
    if (size <= reserve || size - reserve <= MIN_LEFT_SPACE) {
        QZDEVLOG("left space is too small(block dev size:%llu, reserve size:%llu)!", size, reserve);
        return -1;
    }
    unsigned long long reserve_sectors = (reserve + 511) / 512;
    unsigned long long b = get_block_size_by_disk_size(size, 32);
    unsigned long long spb = (b + 511) / 512;
    unsigned long long s = qzfs_get_partition_start_offset_block_num(b);
    start = b * s;

    unsigned long long data_blocks = (size / 512 - TAIL_SECTORS - reserve_sectors - spb * s) / spb;
    unsigned long long largest = (MAX_PARTITION_SECTORS / spb) * spb;
    unsigned long long data_sectors = data_blocks * spb;
    int data_partitions = (int)((data_sectors + largest - 1) / largest);
    count = data_partitions + (reserve_sectors != 0 ? 1 : 0);
    if (count >= QZFS_MAX_PARTITIONS + 1) {
        QZDEVLOG("partition_num:%d\n!", count);
        return -1;
    }
    unsigned long long left = data_sectors;
    for (int i = 0; i < data_partitions; i++) {
        sectors[i] = left < largest ? left : largest;
        left -= sectors[i];
    }
    if (reserve_sectors != 0)
        sectors[data_partitions] = reserve_sectors;
    return 0;
}

// Blocks before partition 1 are system blocks. In each data partition the
// first 32 blocks hold the FAT32 metadata and the last 32-block group plus
// any remainder stay outside the pre-created files: both are system blocks.
// A reserve partition is system blocks throughout.
int qzfs_compute_layout(unsigned long long size, int reserve_mib, unsigned long& block_size,
                        unsigned long& total, std::list<unsigned long>& system)
{
    unsigned long long reserve = (unsigned long long)reserve_mib * 1048576ULL;
    unsigned long long start = 0;
    int count = 0;
    unsigned long long sectors[QZFS_MAX_PARTITIONS + 1] = {};

    block_size = get_block_size_by_disk_size(size, 32);
    total = 0;
    system.clear();
    if (qzfs_get_sector_num_pre_partition(size, reserve, start, count, sectors) != 0)
        return -1;

    unsigned long long spb = (block_size + 511) / 512;
    total = (unsigned long)(start / block_size);
    for (unsigned long b = 0; b < total; b++)
        system.push_back(b);

    for (int i = 0; i < count; i++) {
        unsigned long n = (unsigned long)(sectors[i] / spb);
        if (i == count - 1 && reserve != 0) {
            for (unsigned long b = total; b < total + n; b++)
                system.push_back(b);
        } else {
            for (unsigned long b = total; b < total + BLOCKS_PER_FILE; b++)
                system.push_back(b);
            unsigned long tail = total + (n & ~(BLOCKS_PER_FILE - 1)) - BLOCKS_PER_FILE;
            QZDEVLOG("qzfs data end block:%llu, addr:%llu", (unsigned long long)tail,
                     (unsigned long long)tail * block_size);
            for (unsigned long b = tail; b < total + n; b++)
                system.push_back(b);
        }
        total += n;
    }
    return 0;
}

int qzfs_fat32_format(const char* dev, int reserve_mib, unsigned long& block_size,
                      unsigned long& total, std::list<unsigned long>& system)
{
    unsigned long long size = 0;
    if (qzfs_get_block_dev_size(dev, &size) != 0) {
        QZDEVLOG("get %s size failed!", dev);
        return -1;
    }
    // The partition and FAT32 shell writers (qzfs_fat32.cpp).
    if (qzfs_fdisk_block_align(dev, size, reserve_mib) != 0) {
        QZDEVLOG("fdisk block align failed!");
        return -1;
    }
    if (qzfs_fat32_format_block_align(dev, size, reserve_mib) != 0) {
        QZDEVLOG("format block align failed!");
        return -1;
    }
    return qzfs_compute_layout(size, reserve_mib, block_size, total, system);
}

int qzfs_format(const char* dev, int reserve_mib, unsigned long& block_size,
                unsigned long& total, std::list<unsigned long>& system)
{
    return qzfs_fat32_format(dev, reserve_mib, block_size, total, system);
}
