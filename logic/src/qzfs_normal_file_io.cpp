// The data of named files: write, read, seek and the offsets of a handle.
//
// A handle does its I/O on its own device handle without the disk lock. It
// takes the lock around block requests and whenever it moves the end of the
// file (last_block, last_offset, last_block_header, block_list), because a
// reading handle of the same file copies those under the lock to follow a
// file that grows while it reads.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <algorithm>
#include <cstring>
#include <iterator>

int CQzFileSystem::find_normal_file_block(_qzfs_normal_file_describe_* handle,
                                          unsigned long& out, unsigned char forward)
{
    std::list<unsigned long>& blocks = handle->block_list;
    auto it = std::find(blocks.begin(), blocks.end(), handle->cur_block);
    if (it == blocks.end())
        return -1;
    if (forward != 0) {
        if (++it == blocks.end())
            return -1;
    } else {
        if (it == blocks.begin())
            return -1;
        --it;
    }
    out = *it;
    return 0;
}

int CQzFileSystem::refresh_normal_file_from_writer(_qzfs_normal_file_describe_* handle)
{
    const _qzfs_normal_file_cache_node_* node = find_normal_file_node(handle->name);
    const _qzfs_normal_file_describe_* writer = node != nullptr ? node->write_user : nullptr;
    if (writer == nullptr || writer == handle)
        return 0;
    if (writer->last_block == handle->last_block && writer->last_offset <= handle->last_offset)
        return 0;
    handle->last_block = writer->last_block;
    handle->last_offset = writer->last_offset;
    handle->last_block_header = writer->last_block_header;
    handle->block_list = writer->block_list;
    QZLOG_ABOVE(2, "sync write:block:%d,last offset:%lu", (int)handle->last_block,
                handle->last_offset);
    return 1;
}

// ------------------------------------------------------------ write

// A new last block for a file whose last block is full.
int CQzFileSystem::extend_normal_file(_qzfs_normal_file_describe_* handle)
{
    const unsigned long index = handle->block_list.size();
    if (index > 0xFFFF) {
        QZLOG("file %s has too many blocks(%lu)!", handle->name, index);
        return -1;
    }
    _qzfs_block_info_ record;
    memset(&record, 0, sizeof(record));
    record.owner_stamp = uint32_t(handle->owner_stamp);
    record.block_type = QZFS_BLOCK_NORMAL_FILE;
    record.block_index = uint16_t(index);
    memcpy(record.attr, handle->name, sizeof(record.attr));  // zero-filled past the name
    unsigned long block = 0;
    {
        DiskLockGuard disk(*this);
        if (Request_free_block(1, &block, &record, 0) != 0) {
            QZLOG("request free block failed!");
            return -1;
        }
    }
    // The new block's header is written before the old one points at it: a
    // power cut in between leaves the file ending in the old block, full,
    // or in the new one, empty.
    _qzfs_file_block_header_ fresh = {uint32_t(handle->last_block), 0, 0, 0};
    _qzfs_file_block_header_ old = handle->last_block_header;
    old.next_block = uint32_t(block);
    old.used_len = uint32_t(m_manage.block_size - QZFS_FILE_DATA_OFFSET);
    if (write_normal_file_block_header(handle->io_handle, block, &fresh) != 0 ||
        write_normal_file_block_header(handle->io_handle, handle->last_block, &old) != 0) {
        QZLOG("write_normal_file_block_header failed!");
        DiskLockGuard disk(*this);
        Free_one_block(block, 0);
        return -1;
    }
    {
        DiskLockGuard disk(*this);
        handle->block_list.push_back(block);
        handle->cur_block = handle->last_block = block;
        handle->cur_offset = handle->last_offset = QZFS_FILE_DATA_OFFSET;
        handle->last_block_header = fresh;
        handle->header_dirty = 0;
        Add_block_to_normal_file(handle->name, uint16_t(index), block);
    }
    qzfs_sync(handle->io_handle);
    qzfs_sync(m_pIo_interface);
    return 0;
}

// Moves the handle's cursor to the start of the data of the file's next
// block. 0, or -1 after "find_normal_file_block failed!" (in the name of the
// caller `func`) when there is none.
int CQzFileSystem::step_to_next_normal_file_block(_qzfs_normal_file_describe_* handle,
                                                  const char* func)
{
    unsigned long next = 0;
    if (find_normal_file_block(handle, next, 1) != 0) {
        QZLOG_AS(func, "find_normal_file_block failed!");
        return -1;
    }
    handle->cur_block = next;
    handle->cur_offset = QZFS_FILE_DATA_OFFSET;
    return 0;
}

int CQzFileSystem::write_normal_file(_qzfs_normal_file_describe_* handle, char* data, int length)
{
    if (data == nullptr || length < 0)
        return -1;
    const unsigned long block_end = m_manage.block_size;
    int done = 0;
    while (done < length) {
        if (handle->cur_offset >= block_end) {
            if (handle->cur_block == handle->last_block) {
                if (extend_normal_file(handle) != 0)
                    return -1;
            } else if (step_to_next_normal_file_block(handle, __func__) != 0) {
                return -1;
            }
        }
        const int n = int(std::min<unsigned long>((unsigned long)(length - done),
                                                  block_end - handle->cur_offset));
        if (Seek_and_write_in_block(handle->io_handle, handle->cur_block, handle->cur_offset,
                                    reinterpret_cast<unsigned char*>(data) + done, n) != n) {
            QZLOG("Seek_and_write_in_block failed!");
            return -1;
        }
        handle->cur_offset += (unsigned long)n;
        done += n;
        if (handle->cur_block == handle->last_block && handle->cur_offset > handle->last_offset) {
            DiskLockGuard disk(*this);
            handle->last_offset = handle->cur_offset;
            handle->last_block_header.used_len =
                uint32_t(handle->cur_offset - QZFS_FILE_DATA_OFFSET);
            handle->header_dirty = 1;
        }
    }
    handle->have_write = 1;
    if (handle->header_dirty != 0) {
        // A copy: readers may be copying the handle's header meanwhile.
        _qzfs_file_block_header_ header = handle->last_block_header;
        if (write_normal_file_block_header(handle->io_handle, handle->last_block, &header) != 0) {
            QZLOG("write_normal_file_block_header failed!");
            return -1;
        }
        handle->header_dirty = 0;
    }
    return done;
}

// ------------------------------------------------------------ read

int CQzFileSystem::read_normal_file(_qzfs_normal_file_describe_* handle, char* buffer, int length)
{
    if (buffer == nullptr || length < 0)
        return -1;
    const unsigned long block_end = m_manage.block_size;
    bool refreshed = false;
    int done = 0;
    while (done < length) {
        const bool in_last = handle->cur_block == handle->last_block;
        if (in_last && handle->cur_offset >= handle->last_offset) {
            // The end of the file: a reading handle looks once for data that
            // a writer added since.
            if (handle->read_only == 0 || refreshed)
                break;
            refreshed = true;
            int moved = 0;
            {
                DiskLockGuard disk(*this);
                moved = refresh_normal_file_from_writer(handle);
            }
            if (moved == 0) {
                QZLOG_ABOVE(2, "read file over!");
                break;
            }
            continue;
        }
        const unsigned long limit = in_last ? handle->last_offset : block_end;
        if (handle->cur_offset >= block_end) {
            if (step_to_next_normal_file_block(handle, __func__) != 0)
                break;
            continue;
        }
        const int n =
            int(std::min<unsigned long>((unsigned long)(length - done), limit - handle->cur_offset));
        if (Seek_and_read_in_block(handle->io_handle, handle->cur_block, handle->cur_offset,
                                   reinterpret_cast<unsigned char*>(buffer) + done, n) != n) {
            QZLOG("Seek_and_write_in_block failed!");
            return -1;
        }
        handle->cur_offset += (unsigned long)n;
        done += n;
    }
    return done;
}

// ------------------------------------------------------------ positions

long long CQzFileSystem::get_normal_file_cur_offset(_qzfs_normal_file_describe_* handle)
{
    const long long per_block = (long long)(m_manage.block_size - QZFS_FILE_DATA_OFFSET);
    long long offset = 0;
    for (unsigned long block : handle->block_list) {
        if (block == handle->cur_block)
            break;
        offset += per_block;
    }
    return offset + (long long)(handle->cur_offset - QZFS_FILE_DATA_OFFSET);
}

long long CQzFileSystem::get_normal_file_size_by_handle(_qzfs_normal_file_describe_* handle)
{
    DiskLockGuard disk(*this);
    if (handle->read_only != 0)
        refresh_normal_file_from_writer(handle);
    return normal_file_size(handle->block_list.size(), handle->last_block_header.used_len);
}

int CQzFileSystem::seek_normal_file(_qzfs_normal_file_describe_* handle, long long offset,
                                    int whence)
{
    long long size = normal_file_size(handle->block_list.size(), handle->last_block_header.used_len);
    long long target = 0;
    if (whence == 1) {
        if (offset == 0)
            return 0;
        target = get_normal_file_cur_offset(handle) + offset;
    } else if (whence == 0 || whence == 2) {
        if ((whence == 0 && offset < 0) || (whence == 2 && offset > 0)) {
            QZLOG_ABOVE(1, "offset is invalid:%lld", offset);
            return -1;
        }
        target = whence == 0 ? offset : size + offset;
    } else {
        QZLOG("invalid whence:%d", whence);
    }
    if (target < 0) {
        QZLOG("seek offset invalid(whence:%d, offset:%lld, file size:%lld)", whence, offset, size);
        return -1;
    }
    if (handle->read_only != 0 && target >= size &&
        refresh_normal_file_from_writer(handle) != 0)
        size = normal_file_size(handle->block_list.size(), handle->last_block_header.used_len);

    const long long per_block = (long long)(m_manage.block_size - QZFS_FILE_DATA_OFFSET);
    long long start = 0;
    for (unsigned long block : handle->block_list) {
        if (target <= start + per_block) {
            const unsigned long in_block = (unsigned long)(target - start) + QZFS_FILE_DATA_OFFSET;
            if (block == handle->last_block && in_block > handle->last_offset) {
                QZLOG("cur block:%lu, block offset:%lu(%lu,%lu)", block, in_block,
                      handle->last_block, handle->last_offset);
                return -1;
            }
            handle->cur_block = block;
            handle->cur_offset = in_block;
            return 0;
        }
        start += per_block;
    }
    return -1;
}
