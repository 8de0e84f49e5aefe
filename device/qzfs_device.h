// Device layer: the I/O handle addressed by block and offset, disk geometry,
// the lock primitive, the two CRC-32 routines and byte order.
#ifndef QZFS_DEVICE_H
#define QZFS_DEVICE_H

#include <cstdint>
#include <list>

// Bytes of a disk sector.
const unsigned long QZFS_SECTOR_SIZE = 512;

// ---------------------------------------------------------------- I/O handle

struct qzfs_dev_info;

// The operations of the device behind an I/O handle. Every byte the library
// moves to or from a disk, and every flush, goes through one of these. The
// file or raw device is the one production implementation; a test puts an
// emulated device in its place (one that counts writes and cuts the power).
struct qzfs_block_device_ops {
    // Moves up to `length` bytes at byte `where`: the count moved (0 at the
    // device end on a read), or -1 with errno set.
    long long (*write)(qzfs_dev_info* dev, unsigned long long where, const void* data,
                       unsigned long length);
    long long (*read)(qzfs_dev_info* dev, unsigned long long where, void* data,
                      unsigned long length);
    // Flushes the whole device, or the `length` bytes at byte `where`.
    int (*sync)(qzfs_dev_info* dev);
    int (*sync_range)(qzfs_dev_info* dev, unsigned long long where, unsigned long length);
};

// The device itself: pwrite, pread, fsync and a msync of the range.
extern const qzfs_block_device_ops qzfs_file_device_ops;
// The operations that handles opened from now on use; null means the device
// itself. Only tests and the host tool change it, before opening a disk.
extern const qzfs_block_device_ops* qzfs_block_device_ops_for_new_handles;

// An open device (a raw block device, or a regular file used as a disk image).
// `block_size` and `key_block` come from the device size alone. `dev_size` and
// `is_regular` let an image behave like a block device: a seek past its end
// fails and a write never grows the file.
struct qzfs_dev_info {
    char dev_name[128];          // device path, cut to 127 characters
    uint32_t block_size;         // bytes per block
    uint32_t key_block;          // first key info block number
    int fd;                      // -1 when closed
    unsigned long long dev_size; // device size in bytes
    unsigned long long pos;      // current byte position of fd
    bool is_regular;             // a regular file rather than a block device
    const qzfs_block_device_ops* ops;  // how bytes reach the device
};

void* qzfs_create_io_interface(const char* dev, unsigned char bare_dev);
int qzfs_destroy_io_interface(void* handle);
int qzfs_get_block_info(void* handle, unsigned long& block_size, unsigned long& key_block);
int qzfs_seek(void* handle, unsigned long block, unsigned long offset);
int qzfs_write(void* handle, void* buffer, int length);
int qzfs_read(void* handle, void* buffer, int length);
int qzfs_sync(void* handle);
int qzfs_fsync(void* handle, unsigned long block, unsigned long offset, unsigned long length);
int qzfs_seek_and_write(int fd, long long offset, int whence, char* buffer, unsigned int length);
int qzfs_seek_and_read(int fd, long long offset, int whence, char* buffer, unsigned int length);
// Pause between the tries of a device open that failed, in microseconds: a
// disk that has just appeared may take a moment to open. Tests shorten it;
// the library itself never changes it.
extern unsigned long qzfs_open_retry_pause_us;

// Size in bytes of a block device (BLKGETSIZE64) or of a regular file (fstat).
int qzfs_get_block_dev_size(const char* dev, unsigned long long* size);

// Number of bytes qzfs_fsync maps for a stretch of `length` bytes.
unsigned long qzfs_fsync_map_length(unsigned long length);

// ------------------------------------------------------------------ geometry

// Largest number of partitions a disk is cut into.
const int QZFS_MAX_PARTITIONS = 10;

unsigned long get_block_size_by_disk_size(unsigned long long size, int record_size);
unsigned long qzfs_get_partition_start_offset_block_num(unsigned long long block_size);
int qzfs_get_fat32_block_info(const char* dev, unsigned long& block_size, unsigned long& key_block,
                              unsigned char bare_dev);
// Block size and first key block for a device of `size` bytes.
void qzfs_block_info_for_size(unsigned long long size, unsigned long& block_size,
                              unsigned long& key_block);
int qzfs_get_sector_num_pre_partition(unsigned long long size, unsigned long long reserve,
                                      unsigned long long& start, int& count,
                                      unsigned long long* sectors);
// Geometry and system block list of a device of `size` bytes, without I/O.
int qzfs_compute_layout(unsigned long long size, int reserve_mib, unsigned long& block_size,
                        unsigned long& total, std::list<unsigned long>& system);
int qzfs_format(const char* dev, int reserve_mib, unsigned long& block_size,
                unsigned long& total, std::list<unsigned long>& system);
int qzfs_fat32_format(const char* dev, int reserve_mib, unsigned long& block_size,
                      unsigned long& total, std::list<unsigned long>& system);

// ---------------------------------------------------------------------- lock

void* qzfs_create_lock();
// A lock that its holder may take again; each take needs its own unlock.
void* qzfs_create_recursive_lock();
int qzfs_lock(void* lock);
int qzfs_unlock(void* lock);
int qzfs_destroy_lock(void* lock);

// Holds a lock of qzfs_create_lock for a scope; a null lock is not taken.
class QzfsScopedLock {
public:
    explicit QzfsScopedLock(void* lock) : lock_(lock)
    {
        if (lock_ != nullptr)
            qzfs_lock(lock_);
    }
    ~QzfsScopedLock()
    {
        if (lock_ != nullptr)
            qzfs_unlock(lock_);
    }
    QzfsScopedLock(const QzfsScopedLock&) = delete;
    QzfsScopedLock& operator=(const QzfsScopedLock&) = delete;

private:
    void* lock_;
};

// A lock that many may hold shared and one exclusively. A waiting exclusive
// taker goes before new shared ones, so it is never starved.
void* qzfs_create_rw_lock();
int qzfs_read_lock(void* lock);
int qzfs_write_lock(void* lock);
int qzfs_rw_unlock(void* lock);
int qzfs_destroy_rw_lock(void* lock);

// ----------------------------------------------------------------- checksums

// Reflected CRC-32 (IEEE 802.3). The first pair serves the file system core,
// the second the partition layer; both compute the same function.
void qzfs_create_crc32_table();
unsigned long qzfs_chksum_crc32(const void* data, unsigned long length);
void create_crc32_table();
unsigned long chksum_crc32(const unsigned char* data, unsigned long length);

// ---------------------------------------------------------------- byte order

void change_byte_order(void* data, int size);
int is_little_endian_system();

#endif
