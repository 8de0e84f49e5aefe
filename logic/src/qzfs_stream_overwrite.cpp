// Overwriting inside a live segment, at the position of the writer's
// companion reader (a writer that has been seeked).
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

#include <algorithm>
#include <cstdint>

// The companion reader's position walks the segment's blocks exactly as a
// read would; the bytes go the other way. Nothing past the writer's length
// is touched: the segment neither grows nor shrinks here, and its index
// stays as it is.
int CQzFileSystem::seek_write_video_data(_opened_stream_segment_* reader, uint8_t* buffer,
                                         int len, _opened_stream_segment_* writer)
{
    if (reader == nullptr || buffer == nullptr || len <= 0 || writer == nullptr) {
        QZLOG("invalid parameter(pBuffer:%08lx)(len:%d)(pOss:%08lx)",
              (unsigned long)(uintptr_t)buffer, len, (unsigned long)(uintptr_t)reader);
        return -1;
    }
    _read_stream_segment_* rss = reader->reader();
    const uint64_t end = writer_visible_len(writer);
    if (rss->already_read_len >= end)
        return 0;
    const uint64_t unread = rss->cache_len > rss->cache_ptr ? rss->cache_len - rss->cache_ptr : 0;
    const uint64_t room = end - rss->already_read_len + unread;
    if (uint64_t(len) > room)
        len = int(room);

    const uint64_t block_size = m_manage.block_size;
    int written = 0;
    while (written < len) {
        if (rss->already_read_len >= end)
            break;
        if (rss->block_offset >= block_size) {
            if (Find_next_block_for_reading(reader, writer, true) != 0) {
                QZLOG_ABOVE(2, "cur block:%lu,offse:%lu", (unsigned long)rss->block_index,
                            (unsigned long)rss->block_offset);
                reader->exist_error = K4T_FS_TRUE;
                return -1;
            }
        }
        rss->need_seek = 0;
        if (qzfs_seek(reader->io_channel, rss->block_index, rss->block_offset) != 0) {
            QZLOG("seek failed(block_index:%ld)(block_offset:%ld)", long(rss->block_index),
                  long(rss->block_offset));
            reader->exist_error = K4T_FS_TRUE;
            return -1;
        }
        const uint64_t n = std::min<uint64_t>(
            std::min<uint64_t>(block_size - rss->block_offset, end - rss->already_read_len),
            uint64_t(len - written));
        if (qzfs_write(reader->io_channel, buffer + written, int(n)) != int(n)) {
            QZLOG("Read failed(block_index:%ld)(block_offset:%ld)(read_len:%d)",
                  long(rss->block_index), long(rss->block_offset), int(n));
            reader->exist_error = K4T_FS_TRUE;
            return -1;
        }
        rss->already_read_len += n;
        rss->block_offset += uint32_t(n);
        written += int(n);
    }
    return written;
}
