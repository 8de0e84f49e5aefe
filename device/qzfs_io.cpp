#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static const int OPEN_TRIES = 5;
unsigned long qzfs_open_retry_pause_us = 500000;

static qzfs_dev_info* as_dev(void* handle) { return static_cast<qzfs_dev_info*>(handle); }

// ------------------------------------------------------- the device itself

static long long file_write(qzfs_dev_info* dev, unsigned long long where, const void* data,
                            unsigned long length)
{
    return (long long)pwrite(dev->fd, data, length, (off_t)where);
}

static long long file_read(qzfs_dev_info* dev, unsigned long long where, void* data,
                           unsigned long length)
{
    return (long long)pread(dev->fd, data, length, (off_t)where);
}

static int file_sync(qzfs_dev_info* dev) { return fsync(dev->fd); }

// Maps the range and schedules its write-back, as the recorder's own
// platform does for a flush of part of a disk.
static int file_sync_range(qzfs_dev_info* dev, unsigned long long where, unsigned long length)
{
    unsigned long map_length = qzfs_fsync_map_length(length);
    void* map = mmap(nullptr, map_length, PROT_READ | PROT_WRITE, MAP_SHARED, dev->fd,
                     (off_t)where);
    if (map == MAP_FAILED || map == nullptr) {
        QZDEVLOG("mmap failed(map size:%lu,offset:%llu)!", map_length, where);
        return -1;
    }
    int result = msync(map, map_length, MS_ASYNC);
    munmap(map, map_length);
    return result;
}

const qzfs_block_device_ops qzfs_file_device_ops = {file_write, file_read, file_sync,
                                                    file_sync_range};
const qzfs_block_device_ops* qzfs_block_device_ops_for_new_handles = nullptr;

// ----------------------------------------------------------- the I/O handle

void* qzfs_create_io_interface(const char* dev, unsigned char bare_dev)
{
    if (dev == nullptr) {
        QZDEVLOG("dev name is null!");
        return nullptr;
    }
    qzfs_dev_info* info = static_cast<qzfs_dev_info*>(calloc(1, sizeof(qzfs_dev_info)));
    if (info == nullptr) {
        QZDEVLOG("malloc failed!");
        return nullptr;
    }
    strncpy(info->dev_name, dev, sizeof(info->dev_name) - 1);
    info->fd = -1;
    info->ops = qzfs_block_device_ops_for_new_handles != nullptr
                    ? qzfs_block_device_ops_for_new_handles
                    : &qzfs_file_device_ops;

    for (int attempt = 0; attempt < OPEN_TRIES; attempt++) {
        info->fd = open(dev, O_RDWR);
        if (info->fd >= 0)
            break;
        QZDEVLOG("open %s failed(%s)!", dev, strerror(errno));
        usleep(useconds_t(qzfs_open_retry_pause_us));
    }
    if (info->fd < 0) {
        free(info);
        return nullptr;
    }

    struct stat st;
    if (fstat(info->fd, &st) == 0 && S_ISREG(st.st_mode)) {
        info->is_regular = true;
        info->dev_size = (unsigned long long)st.st_size;
    } else {
        info->is_regular = false;
        qzfs_get_block_dev_size(dev, &info->dev_size);
    }

    unsigned long block_size = 0, key_block = 0;
    if (qzfs_get_fat32_block_info(dev, block_size, key_block, bare_dev) != 0) {
        QZDEVLOG("get block info failed");
        close(info->fd);
        free(info);
        return nullptr;
    }
    info->block_size = block_size;
    info->key_block = key_block;
    return info;
}

int qzfs_destroy_io_interface(void* handle)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    if (info->fd >= 0)
        close(info->fd);
    info->fd = -1;
    free(info);
    return 0;
}

int qzfs_get_block_info(void* handle, unsigned long& block_size, unsigned long& key_block)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    block_size = info->block_size;
    key_block = info->key_block;
    return 0;
}

int qzfs_seek(void* handle, unsigned long block, unsigned long offset)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    unsigned long long target =
        (unsigned long long)offset + (unsigned long long)block * info->block_size;
    // A block device refuses a position past its end; an image does the same.
    if ((info->is_regular || info->dev_size != 0) && target > info->dev_size) {
        QZDEVLOG("seek failed(seek %s failed, local offset:%lld)(%s)", info->dev_name,
                 (long long)target, strerror(EINVAL));
        return -1;
    }
    info->pos = target;
    return 0;
}

// One write or read as a block device would do it: an image never grows, and
// a transfer at its end is cut short or fails with ENOSPC.
static ssize_t transfer_once(qzfs_dev_info* info, void* buffer, size_t length, bool writing)
{
    if (info->is_regular) {
        unsigned long long room = info->pos < info->dev_size ? info->dev_size - info->pos : 0;
        if (room == 0 && length > 0) {
            if (!writing)
                return 0;
            errno = ENOSPC;
            return -1;
        }
        if (length > room)
            length = (size_t)room;
    }
    long long done = writing ? info->ops->write(info, info->pos, buffer, length)
                             : info->ops->read(info, info->pos, buffer, length);
    if (done > 0)
        info->pos += (unsigned long long)done;
    return done;
}

int qzfs_write(void* handle, void* buffer, int length)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    ssize_t done = transfer_once(info, buffer, (size_t)length, true);
    if (done < 0) {
        QZDEVLOG("write %s failed(buffer len:%d, write len:%d)(%s)!", info->dev_name, length,
                 (int)done, strerror(errno));
        return -1;
    }
    if (done == length)
        return (int)done;
    QZDEVLOG("write %s incomplete(buffer len:%d, write len:%d)(%s)!", info->dev_name, length,
             (int)done, strerror(errno));
    ssize_t more = transfer_once(info, static_cast<char*>(buffer) + done,
                                 (size_t)(length - done), true);
    if (more < 0) {
        QZDEVLOG("continue write %s failed(buffer len:%d, write len:%d)(%s)!", info->dev_name,
                 length, (int)done, strerror(errno));
        return (int)done;
    }
    return (int)(done + more);
}

int qzfs_read(void* handle, void* buffer, int length)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    ssize_t done = transfer_once(info, buffer, (size_t)length, false);
    if (done < 0) {
        QZDEVLOG("read %s failed(buffer len:%d, read len:%d)(%s)!", info->dev_name, length,
                 (int)done, strerror(errno));
        return -1;
    }
    if (done == length)
        return (int)done;
    QZDEVLOG("read %s incomplete(buffer len:%d, read len:%d)(%s)!", info->dev_name, length,
             (int)done, strerror(errno));
    ssize_t more = transfer_once(info, static_cast<char*>(buffer) + done,
                                 (size_t)(length - done), false);
    if (more < 0) {
        QZDEVLOG("continue read %s failed(buffer len:%d, read len:%d)(%s)!", info->dev_name,
                 length, (int)done, strerror(errno));
        return (int)done;
    }
    return (int)(done + more);
}

int qzfs_sync(void* handle)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    return info->ops->sync(info);
}

unsigned long qzfs_fsync_map_length(unsigned long length)
{
    return (unsigned long)(((unsigned long long)length + 4095) / 4096 * 4096);
}

int qzfs_fsync(void* handle, unsigned long block, unsigned long offset, unsigned long length)
{
    qzfs_dev_info* info = as_dev(handle);
    if (info == nullptr) {
        QZDEVLOG("p_dev_info is NULL!");
        return -1;
    }
    unsigned long long where =
        (unsigned long long)offset + (unsigned long long)block * info->block_size;
    return info->ops->sync_range(info, where, length);
}

int qzfs_seek_and_write(int fd, long long offset, int whence, char* buffer, unsigned int length)
{
    if (lseek(fd, (off_t)offset, whence) == (off_t)-1)
        return -1;
    unsigned int done = 0;
    while (done < length) {
        ssize_t n = write(fd, buffer + done, length - done);
        if (n <= 0)
            return -1;
        done += (unsigned int)n;
    }
    return 0;
}

int qzfs_seek_and_read(int fd, long long offset, int whence, char* buffer, unsigned int length)
{
    if (lseek(fd, (off_t)offset, whence) == (off_t)-1)
        return -1;
    unsigned int done = 0;
    while (done < length) {
        ssize_t n = read(fd, buffer + done, length - done);
        if (n <= 0)
            return -1;
        done += (unsigned int)n;
    }
    return 0;
}

int qzfs_get_block_dev_size(const char* dev, unsigned long long* size)
{
    if (dev == nullptr || size == nullptr) {
        QZDEVLOG("dev name or dev size is NULL!");
        return -1;
    }
    int fd = open(dev, O_RDWR);
    if (fd < 0) {
        QZDEVLOG("open %s failed!", dev);
        return -1;
    }
    int result = 0;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        *size = (unsigned long long)st.st_size;
    } else {
        uint64_t bytes = 0;
        if (ioctl(fd, BLKGETSIZE64, &bytes) != 0) {
            QZDEVLOG("get %s size failed!", dev);
            result = -1;
        } else {
            *size = bytes;
        }
    }
    close(fd);
    return result;
}
