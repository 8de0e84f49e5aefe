// Partition and FAT32 shell: the MBR, and on each data partition a FAT32
// volume whose root directory lists hidden read-only files that together
// cover the data area. The files' clusters are the record file system's
// blocks; nothing here is read again at mount.
#include "qzfs_fat32.h"

#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

static const unsigned long BLOCKS_PER_FILE = 32;         // blocks of one pre-created file
static const unsigned long DIR_ENTRIES_PER_CLUSTER = 2048;
static const unsigned long FAT_ENTRIES_PER_SECTOR = 128;
static const unsigned long BACKUP_BOOT_SECTOR = 6;
static const unsigned long FSINFO_SECTOR = 1;
static const int PARTITION_REREAD_TRIES = 10;
static const unsigned int PARTITION_REREAD_PAUSE_S = 2;
static const uint32_t FSINFO_LEAD_SIG = 0x41615252;
static const uint32_t FSINFO_STRUC_SIG = 0x61417272;
static const uint32_t FSINFO_TRAIL_SIG = 0xAA550000;
static const uint8_t DIR_ATTR_PRE_CREATED = 0x23;        // read-only, hidden, archive

// ------------------------------------------------------------ small helpers

namespace {

// A descriptor closed when it goes out of scope.
class ScopedFd {
public:
    explicit ScopedFd(int fd) : fd_(fd) {}
    ~ScopedFd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

} // namespace

static int write_at(int fd, unsigned long long offset, const void* data, unsigned int length)
{
    return qzfs_seek_and_write(fd, (long long)offset, SEEK_SET,
                               static_cast<char*>(const_cast<void*>(data)), length);
}

// Partitions of a device of `size` bytes with `reserve_mib` MiB kept for a
// reserve partition at the end.
static int partitions_for(unsigned long long size, int reserve_mib, unsigned long long& start,
                          int& count, unsigned long long* sectors)
{
    unsigned long long reserve = (unsigned long long)reserve_mib * 1048576ULL;
    return qzfs_get_sector_num_pre_partition(size, reserve, start, count, sectors);
}

// ---------------------------------------------------------- system block list

int qzfs_get_system_info(const char* dev, unsigned long& block_size, unsigned long& total,
                         std::list<unsigned long>& system)
{
    return qzfs_get_fat32_system_info(dev, block_size, total, system);
}

// The layout that format produced, told by the MBR: the blocks before
// partition 1, the FAT32 metadata (first 32 blocks) of each data partition,
// and the whole of a reserve partition are system blocks. A partition more in
// the MBR than the size alone gives with no reserve is that reserve.
int qzfs_get_fat32_system_info(const char* dev, unsigned long& block_size, unsigned long& total,
                               std::list<unsigned long>& system)
{
    unsigned long long size = 0;
    if (qzfs_get_block_dev_size(dev, &size) != 0) {
        QZDEVLOG("get %s size failed!", dev);
        return -1;
    }
    block_size = get_block_size_by_disk_size(size, 32);
    total = 0;
    system.clear();

    unsigned long long start = 0;
    int predicted = 0;
    unsigned long long predicted_sectors[QZFS_MAX_PARTITIONS + 1] = {};
    if (partitions_for(size, 0, start, predicted, predicted_sectors) != 0)
        return -1;

    int count = 0;
    unsigned long long sectors[QZFS_MAX_PARTITIONS + 1] = {};
    if (size <= QZFS_MBR_LIMIT) {
        if (qzfs_get_part_info_by_mbr(dev, count, sectors) != 0)
            return -1;
    } else {
        // No partition table is ever written above 2 TiB; the size alone
        // is all there is to go by.
        QZDEVLOG("gpt!");
        count = predicted;
        memcpy(sectors, predicted_sectors, sizeof(sectors));
    }
    if (count <= 0)
        return -1;
    bool has_reserve = count == predicted + 1;

    unsigned long long spb = ((unsigned long long)block_size + 511) / 512;
    total = (unsigned long)(start / block_size);
    for (unsigned long b = 0; b < total; b++)
        system.push_back(b);
    for (int i = 0; i < count; i++) {
        unsigned long n = (unsigned long)(sectors[i] / spb);
        unsigned long listed = (i == count - 1 && has_reserve) ? n
                               : (n < BLOCKS_PER_FILE ? n : BLOCKS_PER_FILE);
        for (unsigned long b = total; b < total + listed; b++)
            system.push_back(b);
        total += n;
    }
    return 0;
}

// ------------------------------------------------------------- partition table

int qzfs_init_disk(const char* dev, bool force)
{
    (void)dev;
    (void)force;
    return -1;
}

int qzfs_fdisk_block_align(const char* dev, unsigned long long size, int reserve_mib)
{
    qzfs_init_disk(dev, true);
    if (size <= QZFS_MBR_LIMIT)
        return qzfs_fdisk_mbr_block_align(dev, size, reserve_mib);
    return qzfs_fdisk_gpt_block_align(dev, size, reserve_mib);
}

// Writes the MBR with one FAT32 (LBA) entry per partition, together with
// zeros up to 64 KiB so that whatever followed sector 0 before is cleared.
int qzfs_fdisk_mbr_block_align(const char* dev, unsigned long long size, int reserve_mib)
{
    QZDEVLOG("START FDISK MBR!");
    unsigned long long start = 0;
    int count = 0;
    unsigned long long sectors[QZFS_MAX_PARTITIONS + 1] = {};
    if (dev == nullptr) {
        QZDEVLOG("dev name is null or part num is invalid!");
        return -1;
    }
    if (partitions_for(size, reserve_mib, start, count, sectors) != 0) {
        QZDEVLOG("get sector num pre partition failed!");
        return -1;
    }
    if (count < 1 || count > 4) {
        QZDEVLOG("dev name is null or part num is invalid!");
        return -1;
    }
    unsigned char* area = static_cast<unsigned char*>(calloc(1, QZFS_MBR_AREA_SIZE));
    if (area == nullptr) {
        QZDEVLOG("malloc failed!");
        return -1;
    }
    _qzfs_mbr_ mbr;
    memset(&mbr, 0, sizeof(mbr));
    unsigned long long lba = start / QZFS_SECTOR_SIZE;
    for (int i = 0; i < count; i++) {
        mbr.part[i].status = 0;
        mbr.part[i].type = QZFS_PART_TYPE_FAT32_LBA;
        mbr.part[i].lba_start = (uint32_t)lba;
        mbr.part[i].sector_count = (uint32_t)sectors[i];
        lba += sectors[i];
    }
    mbr.signature[0] = 0x55;
    mbr.signature[1] = 0xAA;
    memcpy(area, &mbr, sizeof(mbr));

    int result = 0;
    int fd = open(dev, O_RDWR);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        result = -1;
    } else {
        if (write_at(fd, 0, area, QZFS_MBR_AREA_SIZE) != 0) {
            QZDEVLOG("write %s mbr failed!", dev);
            result = -1;
        } else if (qzfs_read_partition_table(fd) != 0) {
            QZDEVLOG("read %s partition table failed!", dev);
            result = -1;
        }
        close(fd);
    }
    free(area);
    if (result == 0)
        QZDEVLOG("END FDISK MBR!");
    return result;
}

// Devices above 2 TiB would need a GPT, which this system does not write.
int qzfs_fdisk_gpt_block_align(const char* dev, unsigned long long size, int reserve_mib)
{
    (void)dev;
    (void)size;
    (void)reserve_mib;
    return -1;
}

int qzfs_read_partition_table(int fd)
{
    // A disk image has no partition table in the kernel to refresh, and the
    // waits below would only slow every format of an image down.
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
        return 0;

    for (int attempt = 0; attempt < PARTITION_REREAD_TRIES; attempt++) {
        if (fsync(fd) != 0) {
            QZDEVLOG("fsync failed(%s)!", strerror(errno));
            sleep(PARTITION_REREAD_PAUSE_S);
            continue;
        }
        sleep(PARTITION_REREAD_PAUSE_S);
        if (ioctl(fd, BLKRRPART) != 0) {
            QZDEVLOG("read partition table failed(%d)!", attempt);
            continue;
        }
        QZDEVLOG("read partition table success!");
        return 0;
    }
    return -1;
}

int qzfs_get_part_info_by_mbr(const char* dev, int& count, unsigned long long* sectors)
{
    count = 0;
    int fd = open(dev, O_RDONLY);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        return -1;
    }
    ScopedFd guard(fd);
    _qzfs_mbr_ mbr;
    if (qzfs_seek_and_read(fd, 0, SEEK_SET, reinterpret_cast<char*>(&mbr), sizeof(mbr)) != 0) {
        QZDEVLOG("read %s mbr failed!", dev);
        return -1;
    }
    for (int i = 0; i < 4; i++) {
        uint32_t n = mbr.part[i].sector_count;
        if (n == 0)
            break;
        sectors[count++] = n;
    }
    return 0;
}

// A protective MBR as a GPT disk carries: one entry of type 0xEE covering
// the disk from sector 1.
int qzfs_create_gpt_protective_mbr(unsigned long long size, _qzfs_mbr_* mbr)
{
    if (mbr == nullptr)
        return -1;
    memset(mbr, 0, sizeof(*mbr));
    unsigned long long span = size / QZFS_SECTOR_SIZE - 1;
    mbr->part[0].status = 0;
    mbr->part[0].type = QZFS_PART_TYPE_GPT_PROTECTIVE;
    mbr->part[0].lba_start = 1;
    // The field is 32 bits wide; a larger disk is marked as all of it.
    mbr->part[0].sector_count = span > 0xFFFFFFFFULL ? 0xFFFFFFFFu : (uint32_t)span;
    mbr->signature[0] = 0x55;
    mbr->signature[1] = 0xAA;
    return 0;
}

int qzfs_create_gpt_info(int fd, unsigned long long size, _qzfs_gpt_header_* primary,
                         _qzfs_gpt_header_* backup, _qzfs_gpt_part_info_* parts)
{
    (void)fd;
    (void)size;
    (void)primary;
    (void)backup;
    (void)parts;
    return 0;
}

int qzfs_is_digital_string(const char* text)
{
    if (text == nullptr)
        return 0;
    for (const char* c = text; *c != '\0'; c++) {
        if (*c < '0' || *c > '9')
            return 0;
    }
    return 1;
}

// ------------------------------------------------------------------ FAT32

// Lays a FAT32 volume with its pre-created files on every data partition; a
// reserve partition is left without one.
int qzfs_fat32_format_block_align(const char* dev, unsigned long long size, int reserve_mib)
{
    unsigned long long start = 0;
    int count = 0;
    unsigned long long sectors[QZFS_MAX_PARTITIONS + 1] = {};
    if (partitions_for(size, reserve_mib, start, count, sectors) != 0) {
        QZDEVLOG("get sector num pre partition failed!");
        return -1;
    }
    if (reserve_mib != 0)
        count--;

    unsigned long long block_size = get_block_size_by_disk_size(size, 32);
    unsigned long long file_size = BLOCKS_PER_FILE * block_size;
    unsigned long long offset = start;
    for (int i = 0; i < count; i++) {
        unsigned long long bytes = sectors[i] * QZFS_SECTOR_SIZE;
        unsigned long long data_size = 0;
        if (qzfs_format_fat32_dbr(dev, offset, sectors[i], &data_size) != 0) {
            QZDEVLOG("format fat32 dbr failed!");
            return -1;
        }
        unsigned long long file_count = bytes / file_size - 2;
        if (qzfs_pre_create_file(dev, offset, (unsigned long)file_size,
                                 (unsigned long)file_count) != 0) {
            QZDEVLOG("pre create file failed!");
            return -1;
        }
        if (qzfs_write_fat32_fsinfo(dev, offset, 0,
                                    (unsigned long)(sectors[i] / QZFS_FAT32_SECTORS_PER_CLUSTER - 1))
            != 0) {
            QZDEVLOG("write fat32 fsinfo failed!");
            return -1;
        }
        offset += bytes;
    }
    return 0;
}

// The largest cluster count whose FATs and data fit `sectors`: the first n
// for which n clusters no longer fit, less one.
void qzfs_fat32_calculate(unsigned long long sectors, unsigned long reserved,
                          unsigned long sectors_per_cluster, unsigned long* total_sectors,
                          unsigned long* fat_size, unsigned long* clusters)
{
    const unsigned long long spc = sectors_per_cluster;
    unsigned long long n = 1;
    for (;; n++) {
        unsigned long long fat = (n + 129) / FAT_ENTRIES_PER_SECTOR;
        unsigned long long need = n + (spc - 1 + reserved + 2 * fat) / spc;
        if (spc * need >= sectors)
            break;
    }
    unsigned long long fat = (n + 128) / FAT_ENTRIES_PER_SECTOR;
    unsigned long long count = n - 1;
    if (clusters != nullptr)
        *clusters = (unsigned long)count;
    if (fat_size != nullptr)
        *fat_size = (unsigned long)fat;
    if (total_sectors != nullptr)
        *total_sectors = (unsigned long)(reserved + spc * count + 2 * fat);
}

int qzfs_format_fat32_dbr(const char* dev, unsigned long long offset, unsigned long long sectors,
                          unsigned long long* data_size)
{
    if (dev == nullptr || sectors < QZFS_FAT32_MIN_SECTORS) {
        QZDEVLOG("para is invalid!");
        return -1;
    }
    unsigned long total = 0, fat = 0, clusters = 0;
    qzfs_fat32_calculate(sectors, QZFS_FAT32_MIN_RESERVED_SECTORS, QZFS_FAT32_SECTORS_PER_CLUSTER,
                         &total, &fat, &clusters);
    if (clusters < 2) {
        QZDEVLOG("fat32 info error(total sector:%lu, fat size:%lu, total clus:%lu)!", total, fat,
                 clusters);
        return -1;
    }
    // Enough reserved sectors to start the data area on a cluster boundary.
    unsigned long long fats = 2ULL * fat;
    unsigned long long reserved =
        (fats + QZFS_FAT32_MIN_RESERVED_SECTORS + QZFS_FAT32_SECTORS_PER_CLUSTER - 1) /
            QZFS_FAT32_SECTORS_PER_CLUSTER * QZFS_FAT32_SECTORS_PER_CLUSTER -
        fats;

    qzfs_fat32_dbr_table_t dbr;
    memset(&dbr, 0, sizeof(dbr));
    dbr.BS_jmpBoot[0] = 0xEB;
    dbr.BS_jmpBoot[1] = 0x58;
    dbr.BS_jmpBoot[2] = 0x90;
    memcpy(dbr.BS_OEMName, "MSWIN4.1", 8);
    dbr.BPB_BytsPerSec = (uint16_t)QZFS_SECTOR_SIZE;
    dbr.BPB_SecPerClus = (uint8_t)QZFS_FAT32_SECTORS_PER_CLUSTER;
    dbr.BPB_RsvdSecCnt = (uint16_t)reserved;
    dbr.BPB_NumFATs = 2;
    dbr.BPB_RootEntCnt = 0;
    dbr.BPB_TotSec16 = 0;
    dbr.BPB_Media = 0xF8;
    dbr.BPB_FATSz16 = 0;
    dbr.BPB_SecPerTrk = 63;
    dbr.BPB_NumHeads = 255;
    dbr.BPB_HiddSec = 0;
    dbr.BPB_TotSec32 = (uint32_t)total;
    dbr.BPB_FATSz32 = (uint32_t)fat;
    dbr.BPB_ExtFlags = 0;
    dbr.BPB_FSVer = 0;
    dbr.BPB_RootClus = (uint32_t)QZFS_FAT32_ROOT_CLUSTER;
    dbr.BPB_FSInfo = (uint16_t)FSINFO_SECTOR;
    dbr.BPB_BkBootSec = (uint16_t)BACKUP_BOOT_SECTOR;
    dbr.BS_DrvNum = 0x80;
    dbr.BS_Reserved1 = 0;
    dbr.BS_BootSig = 0x29;
    dbr.BS_VolID = (uint32_t)time(nullptr);
    memcpy(dbr.BS_VolLab, "qzfs       ", 11);
    memcpy(dbr.BS_FilSysType, "FAT32   ", 8);
    dbr.BS_Signature[0] = 0x55;
    dbr.BS_Signature[1] = 0xAA;

    int fd = open(dev, O_RDWR);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        return -1;
    }
    ScopedFd guard(fd);
    std::vector<unsigned char> zeros((size_t)(reserved * QZFS_SECTOR_SIZE), 0);
    if (write_at(fd, offset, zeros.data(), (unsigned int)zeros.size()) != 0) {
        QZDEVLOG("clear reserve sector failed!");
        return -1;
    }
    if (write_at(fd, offset, &dbr, sizeof(dbr)) != 0) {
        QZDEVLOG("write dbr failed!");
        return -1;
    }
    if (write_at(fd, offset + BACKUP_BOOT_SECTOR * QZFS_SECTOR_SIZE, &dbr, sizeof(dbr)) != 0) {
        QZDEVLOG("write dbr failed!");
        return -1;
    }
    if (data_size != nullptr)
        *data_size = (unsigned long long)clusters * QZFS_FAT32_CLUSTER_SIZE;
    return 0;
}

int qzfs_get_fat32_dbr(const char* dev, unsigned long long offset, qzfs_fat32_dbr_table_t* dbr)
{
    if (dev == nullptr || dbr == nullptr)
        return -1;
    int fd = open(dev, O_RDONLY);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        return -1;
    }
    ScopedFd guard(fd);
    return qzfs_seek_and_read(fd, (long long)offset, SEEK_SET, reinterpret_cast<char*>(dbr),
                              sizeof(*dbr));
}

// DOS date and time of a broken-down local time.
static uint16_t dos_time(const struct tm& t)
{
    return (uint16_t)(t.tm_hour * 2048 + t.tm_min * 32 + t.tm_sec / 2);
}

static uint16_t dos_date(const struct tm& t)
{
    return (uint16_t)((t.tm_year + 1900 - 1980) * 512 + (t.tm_mon + 1) * 32 + t.tm_mday);
}

namespace {
// FAT entry of `cluster` in the shell: root directory chain, end marks over
// the gap before file 1, one chain per file, end marks over everything behind
// the last file so that a PC finds nothing to allocate.
struct FatPlan {
    unsigned long long dir_clusters;
    unsigned long long first;         // first cluster of file 1
    unsigned long long file_clusters; // clusters of one file
    unsigned long long file_count;

    uint32_t entry(unsigned long long c) const
    {
        if (c == 0)
            return (uint32_t)QZFS_FAT32_MEDIA_ENTRY;
        if (c == 1)
            return (uint32_t)QZFS_FAT32_ENTRY1;
        if (c <= dir_clusters)
            return (uint32_t)(c + 1);
        if (c < first)
            return (uint32_t)QZFS_FAT32_EOC;
        if (c < first + file_clusters * file_count) {
            if ((c - first) % file_clusters == file_clusters - 1)
                return (uint32_t)QZFS_FAT32_EOC;
            return (uint32_t)(c + 1);
        }
        return (uint32_t)QZFS_FAT32_EOC;
    }
};
} // namespace

// Writes the root directory listing `file_count` files of `file_size` bytes
// each and both FATs. Everything is written 64 KiB at a time.
int qzfs_pre_create_file(const char* dev, unsigned long long offset, unsigned long file_size,
                         unsigned long file_count)
{
    qzfs_fat32_dbr_table_t dbr;
    if (qzfs_get_fat32_dbr(dev, offset, &dbr) != 0) {
        QZDEVLOG("get %s dbr failed!", dev);
        return -1;
    }
    const unsigned long long reserved = dbr.BPB_RsvdSecCnt;
    const unsigned long long fat_size = dbr.BPB_FATSz32;
    const unsigned long long meta = reserved + 2 * fat_size;
    FatPlan plan;
    plan.file_clusters = file_size / QZFS_FAT32_CLUSTER_SIZE;
    plan.file_count = file_count;
    plan.dir_clusters = ((unsigned long long)file_count + DIR_ENTRIES_PER_CLUSTER - 1) /
                        DIR_ENTRIES_PER_CLUSTER;
    // meta / 128 clusters' worth of metadata stand before cluster 2, so this
    // puts file 1 at exactly `file_size` bytes into the partition.
    const unsigned long long meta_clusters = meta / QZFS_FAT32_SECTORS_PER_CLUSTER;
    if (plan.file_clusters == 0 ||
        meta_clusters + plan.dir_clusters > plan.file_clusters)
        return -1; // metadata would run into file 1: not a volume of this system
    plan.first = plan.file_clusters - meta_clusters + QZFS_FAT32_ROOT_CLUSTER;

    int fd = open(dev, O_RDWR);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        return -1;
    }
    ScopedFd guard(fd);
    std::vector<unsigned char> chunk(QZFS_FAT32_CLUSTER_SIZE);

    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    const uint16_t date = dos_date(local);
    const uint16_t clock = dos_time(local);

    // Root directory: one cluster of 2048 entries per write, from cluster 2.
    const unsigned long long dir_offset = offset + meta * QZFS_SECTOR_SIZE;
    for (unsigned long long k = 0; k < plan.dir_clusters; k++) {
        memset(chunk.data(), 0, chunk.size());
        for (unsigned long j = 0; j < DIR_ENTRIES_PER_CLUSTER; j++) {
            unsigned long long i = k * DIR_ENTRIES_PER_CLUSTER + j;
            if (i >= file_count)
                break;
            unsigned long long number = i + 1;
            unsigned long long cluster = plan.first + i * plan.file_clusters;
            _qzfs_fat32_dir_entry_ entry;
            memset(&entry, ' ', sizeof(entry.DIR_Name));
            entry.DIR_Name[0] = (char)('0' + number / 1000);
            entry.DIR_Name[1] = (char)('0' + number / 100 % 10);
            entry.DIR_Name[2] = (char)('0' + number / 10 % 10);
            entry.DIR_Name[3] = (char)('0' + number % 10);
            entry.DIR_Attr = DIR_ATTR_PRE_CREATED;
            entry.DIR_NTRes = 0;
            entry.DIR_CrtTimeTenth = 0;
            entry.DIR_CrtTime = clock;
            entry.DIR_CrtDate = date;
            entry.DIR_LstAccDate = date;
            entry.DIR_FstClusHI = (uint16_t)(cluster >> 16);
            entry.DIR_WrtTime = clock;
            entry.DIR_WrtDate = date;
            entry.DIR_FstClusLO = (uint16_t)(cluster & 0xFFFF);
            entry.DIR_FileSize = (uint32_t)file_size;
            memcpy(chunk.data() + j * sizeof(entry), &entry, sizeof(entry));
        }
        if (write_at(fd, dir_offset + k * QZFS_FAT32_CLUSTER_SIZE, chunk.data(),
                     (unsigned int)chunk.size()) != 0) {
            QZDEVLOG("write dbr failed!");
            return -1;
        }
    }

    // Both FATs, the same 64 KiB piece to each copy.
    const unsigned long sectors_per_chunk = QZFS_FAT32_CLUSTER_SIZE / QZFS_SECTOR_SIZE;
    std::vector<uint32_t> entries(QZFS_FAT32_CLUSTER_SIZE / sizeof(uint32_t));
    for (unsigned long long sector = 0; sector < fat_size; sector += sectors_per_chunk) {
        unsigned long long n = fat_size - sector < sectors_per_chunk ? fat_size - sector
                                                                     : sectors_per_chunk;
        unsigned long long base = sector * FAT_ENTRIES_PER_SECTOR;
        for (unsigned long long e = 0; e < n * FAT_ENTRIES_PER_SECTOR; e++)
            entries[e] = plan.entry(base + e);
        unsigned int bytes = (unsigned int)(n * QZFS_SECTOR_SIZE);
        unsigned long long fat1 = offset + (reserved + sector) * QZFS_SECTOR_SIZE;
        unsigned long long fat2 = fat1 + fat_size * QZFS_SECTOR_SIZE;
        if (write_at(fd, fat1, entries.data(), bytes) != 0 ||
            write_at(fd, fat2, entries.data(), bytes) != 0) {
            QZDEVLOG("write dbr failed!");
            return -1;
        }
    }
    return 0;
}

int qzfs_write_fat32_fsinfo(const char* dev, unsigned long long offset, unsigned long free_count,
                            unsigned long next_free)
{
    qzfs_fat32_dbr_table_t dbr;
    if (qzfs_get_fat32_dbr(dev, offset, &dbr) != 0) {
        QZDEVLOG("get %s dbr failed!", dev);
        return -1;
    }
    _qzfs_fat32_fsinfo_ info;
    memset(&info, 0, sizeof(info));
    info.FSI_LeadSig = FSINFO_LEAD_SIG;
    info.FSI_StrucSig = FSINFO_STRUC_SIG;
    info.FSI_Free_Count = (uint32_t)free_count;
    info.FSI_Nxt_Free = (uint32_t)next_free;
    info.FSI_TrailSig = FSINFO_TRAIL_SIG;

    int fd = open(dev, O_RDWR);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        return -1;
    }
    ScopedFd guard(fd);
    unsigned long long where = offset + (unsigned long long)dbr.BPB_FSInfo * QZFS_SECTOR_SIZE;
    if (write_at(fd, where, &info, sizeof(info)) != 0) {
        QZDEVLOG("write dbr failed!");
        return -1;
    }
    return 0;
}
