// Sequential read: the bytes of a segment from the read position, in the
// caller's chunk sizes, block by block in the order the I-frame log gives.
//
// A segment's data blocks lie anywhere on the disk; the block entries (id 2)
// of the root's I-frame log name them in stream order, so the log is the
// chain. The reader keeps a list of up to 70 block starts taken from the log
// in one scan, and reads the blocks in aligned 64 KiB units: small requests
// through its 64 KiB cache, large ones straight into the caller's buffer.
//
// A reader of a live segment reads up to the writer's length, looked up
// afresh at each call, and follows the writer's growing I-frame chain. Both
// are looked up under the disk lock through the writer's descriptor, so a
// writer that closes between two reads cannot leave the reader holding a
// record that is gone: the close hands the reader its own copies instead.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"

#include <algorithm>
#include <cstring>

namespace {

// The descriptor's disk and reader record, with the refusals of a read.
struct reader_fd {
    CQzFileSystem* fs = nullptr;
    _opened_stream_segment_* oss = nullptr;
};

bool resolve_reader(int ossfd, reader_fd& out)
{
    const int disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    const uint8_t hdd_id = qzfs_ossid_hdd(disk_ossid);
    out.fs = gQzfsManager.get_file_system(hdd_id);
    if (out.fs == nullptr) {
        QZLOG_AS("Read_video_data", "gQzfsManager.get_file_system failed(hdd_id:%d)", int(hdd_id));
        return false;
    }
    out.oss = out.fs->find_oss_info_by_fd(disk_ossid);
    if (out.oss == nullptr) {
        QZLOG_AS("Read_video_data", "invalid ssfd(%d)", ossfd);
        return false;
    }
    if (out.oss->read_or_write != K4T_FS_TRUE) {
        QZLOG_AS("Read_video_data", "(pOss->read_or_write != K4T_FS_TRUE)(ssfd:%d)", ossfd);
        return false;
    }
    if (out.oss->exist_error == K4T_FS_TRUE) {
        QZLOG_AS("Read_video_data", "(pOss->exist_error == K4T_FS_TRUE)(ssfd:%d)", ossfd);
        return false;
    }
    if (out.oss->reader()->seek_failed == K4T_FS_TRUE) {
        QZLOG_AS("Read_video_data", "(pRss->seek_failed == K4T_FS_TRUE)(fd:%d)", ossfd);
        return false;
    }
    return true;
}

// The live writer a reader follows, looked up under the disk lock: -1 when
// its descriptor is gone, else 0 with `writer` null for a closed segment.
int find_live_writer(CQzFileSystem& fs, _opened_stream_segment_* oss,
                     _opened_stream_segment_** writer)
{
    *writer = nullptr;
    int writing;
    {
        DiskLockGuard disk(fs);
        writing = oss->reader()->ossfd_writing;
        if (writing >= 0)
            *writer = fs.find_oss_info_by_fd(writing);
    }
    if (writing >= 0 && *writer == nullptr) {
        QZLOG_AS("Read_video_data", "invalid ssfd(%d)", writing);
        return -1;
    }
    return 0;
}

}  // namespace

int Read_video_data(int ossfd, uint8_t* buffer, int len, uint8_t* new_segment)
{
    if (buffer == nullptr || ossfd < 0 || len < 1) {
        QZLOG("invalid parameter(ssfd:%d)(buffer_addr:%08lx)(len:%d)", ossfd,
              (unsigned long)(uintptr_t)buffer, len);
        return -1;
    }
    reader_fd fd;
    if (!resolve_reader(ossfd, fd))
        return -1;
    _read_stream_segment_* rss = fd.oss->reader();
    if (rss->debug_first_read == 1 && g_qzfs_debug_level >= 4)
        QZLOG("Read_video_data START (fd:%d)(channel:%d)", ossfd, int(rss->channel));
    _opened_stream_segment_* writer = nullptr;
    if (find_live_writer(*fd.fs, fd.oss, &writer) != 0)
        return -1;

    int result = fd.fs->Read_video_data(fd.oss, buffer, len, writer);
    if (result != 0) {
        if (new_segment != nullptr)
            *new_segment = rss->new_segment_flag;
        rss->new_segment_flag = 0;
    } else {
        QZLOG_ABOVE(2, "read over(fd:%d), now open the next stream segment", ossfd);
        if (writer != nullptr) {
            QZLOG_ABOVE(2, "(pOss_writing != K4T_FS_NULL)");
            return 0;
        }
        if (!(rss->read_flag & QZFS_K4T_OSF_CONTINUE)) {
            QZLOG_ABOVE(2, "Read_video_data (!(pRss->read_flag & QZFS_K4T_OSF_CONTINUE))");
            return 0;
        }
        _qzfs_k4t_stream_open_para_ para = adjacent_segment_request(fd.oss, true);
        _opened_stream_segment_* next = nullptr;
        if (Open_stream_segment(&para, rss->read_flag, FS_FIND_NEXT, &next) != 0 ||
            close_old_and_set_new_open_segment_info(ossfd, fd.oss, next) != 0) {
            QZLOG_ABOVE(0, " Open_stream_segment(New segment) failed");
            return 0;
        }
        return Read_video_data(ossfd, buffer, len, new_segment);
    }
    rss->debug_first_read = 0;
    QZLOG_ABOVE(3, "END (fd:%d)(channel:%d)(ret_val:%d)", ossfd, int(rss->channel), result);
    return result;
}

uint64_t CQzFileSystem::reader_stream_limit(_opened_stream_segment_* oss,
                                            _opened_stream_segment_* writer)
{
    if (writer == nullptr)
        return oss->ssi()->len_in_bytes;
    DiskLockGuard disk(*this);
    const int writing = oss->reader()->ossfd_writing;
    _opened_stream_segment_* live = writing >= 0 ? find_oss_info_by_fd(writing) : nullptr;
    return live != nullptr ? writer_visible_len(live) : oss->ssi()->len_in_bytes;
}

// Serves `len` bytes from the unread part of the cache, as far as it goes.
static uint32_t take_from_cache(_read_stream_segment_* rss, uint8_t* buffer, uint32_t len)
{
    const uint32_t unread = rss->cache_len > rss->cache_ptr ? rss->cache_len - rss->cache_ptr : 0;
    const uint32_t n = std::min(unread, len);
    memcpy(buffer, rss->read_cache + rss->cache_ptr, n);
    rss->cache_ptr += n;
    if (rss->cache_ptr >= rss->cache_len)
        rss->cache_ptr = rss->cache_len = 0;
    return n;
}

// Reads the 64 KiB unit at the read position and hands out its bytes from
// `skip` on, at most `wanted` of them: through the cache when the caller's
// buffer has less than a unit of room left, else straight into it. Adds
// the bytes of the unit up to `limit` to the position; -1 on a read failure.
static int read_unit(_opened_stream_segment_* oss, uint8_t* out, uint32_t room, uint32_t wanted,
                     uint64_t limit)
{
    _read_stream_segment_* rss = oss->reader();
    const uint32_t skip = rss->cache_ptr;
    const uint32_t valid = uint32_t(std::min<uint64_t>(QZFS_STREAM_UNIT - skip,
                                                       limit - rss->already_read_len));
    uint8_t* unit = room < QZFS_STREAM_UNIT ? rss->read_cache : out;
    if (qzfs_read(oss->io_channel, unit, int(QZFS_STREAM_UNIT)) != int(QZFS_STREAM_UNIT)) {
        QZLOG_AS("Read_video_data",
                 "m_pIo_interface->Read failed(block_index:%ld)(block_offset:%ld)(read_len:%d)",
                 long(rss->block_index), long(rss->block_offset), int(QZFS_STREAM_UNIT));
        return -1;
    }
    rss->already_read_len += valid;
    rss->block_offset += skip + valid;
    if (unit == out) {
        if (skip != 0)
            memmove(out, out + skip, valid);
        rss->cache_ptr = 0;
        return int(valid);
    }
    const uint32_t n = std::min(valid, wanted);
    memcpy(out, rss->read_cache + skip, n);
    rss->cache_len = skip + valid;
    rss->cache_ptr = skip + n;
    if (rss->cache_ptr >= rss->cache_len)
        rss->cache_ptr = rss->cache_len = 0;
    return int(n);
}

int CQzFileSystem::Read_video_data(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                                   _opened_stream_segment_* writer)
{
    if (buffer == nullptr || len <= 0 || oss == nullptr) {
        QZLOG("invalid parameter(pBuffer:%08lx)(len:%d)(pOss:%08lx)",
              (unsigned long)(uintptr_t)buffer, len, (unsigned long)(uintptr_t)oss);
        return -1;
    }
    _read_stream_segment_* rss = oss->reader();
    if (rss->play_mode != 0) {
        // Reading on after I-frame playback: the list held I-frames.
        rss->play_mode = 0;
        rss->index_head_reached = 0;
        rss->iframe_list_pos = rss->iframe_list_num = 0;
    }
    const uint32_t unread = rss->cache_len > rss->cache_ptr ? rss->cache_len - rss->cache_ptr : 0;
    if (unread >= uint32_t(len))
        return int(take_from_cache(rss, buffer, uint32_t(len)));

    const uint64_t limit = reader_stream_limit(oss, writer);
    if (g_qzfs_debug_level >= 4) {
        QZLOG("hdd:%u,root:%lu,segment:%lu,len:%llu", unsigned(oss->hdd_id),
              (unsigned long)oss->root_index, (unsigned long)oss->stream_segment_index,
              (unsigned long long)limit);
        QZLOG("already:%llu, len:%d, cache:%lu, ptr:%lu", (unsigned long long)rss->already_read_len,
              len, (unsigned long)rss->cache_len, (unsigned long)rss->cache_ptr);
    }
    if (rss->already_read_len >= limit)
        return int(take_from_cache(rss, buffer, unread));

    const uint32_t target =
        uint32_t(std::min<uint64_t>(uint64_t(len), unread + (limit - rss->already_read_len)));
    uint32_t got = take_from_cache(rss, buffer, unread);
    const uint32_t block_size = uint32_t(m_manage.block_size);
    int result = 0;
    while (got < target && rss->already_read_len < limit) {
        bool fresh = false;
        if (rss->block_offset >= block_size) {
            if (Find_next_block_for_reading(oss, writer, true) != 0) {
                result = -1;
                break;
            }
            fresh = true;
        }
        if (fresh || rss->need_seek || rss->block_offset % QZFS_STREAM_UNIT != 0) {
            rss->cache_ptr = rss->block_offset % QZFS_STREAM_UNIT;
            rss->need_seek = 0;
            rss->block_offset -= rss->cache_ptr;
            if (qzfs_seek(oss->io_channel, rss->block_index, rss->block_offset) != 0) {
                QZLOG("m_pIo_interface->Llseek failed(block_index:%ld)(block_offset:%ld)",
                      long(rss->block_index), long(rss->block_offset));
                result = -1;
                break;
            }
        }
        const int n = read_unit(oss, buffer + got, uint32_t(len) - got, target - got, limit);
        if (n < 0) {
            result = -1;
            break;
        }
        got += uint32_t(n);
    }
    // A failure ends the descriptor, but the bytes gathered before it are
    // still handed out; the next call reports the error.
    if (result != 0)
        oss->exist_error = K4T_FS_TRUE;
    if (result == 0 || got > 0)
        result = int(got);
    QZLOG_ABOVE(3, "already:%llu, len:%d, cache:%lu, ptr:%lu(retval:%d)",
                (unsigned long long)rss->already_read_len, len, (unsigned long)rss->cache_len,
                (unsigned long)rss->cache_ptr, result);
    return result;
}

// Fills the reader's list with the next block starts of the log from
// `iframe_index` on: the I-frame a seek chose first, if one is wanted, then
// block entries, up to the list's size. Why the scan ended goes to `end`.
enum scan_end { SCAN_FULL, SCAN_PAST_CHAIN, SCAN_READ_FAILED, SCAN_LOG_END, SCAN_NO_FIRST };

static scan_end scan_block_starts(CQzFileSystem& fs, _read_stream_segment_* rss, uint32_t block_num,
                                  const uint32_t* list, unsigned char* buffer, unsigned long len)
{
    iframe_log_reader log(fs, block_num, list, buffer, len);
    bool first_seen = false;
    for (;; rss->iframe_index++) {
        _iframe_index_node_dev_ node;
        const int got = log.fetch(rss->iframe_index, &node);
        if (got == iframe_log_reader::PAST_CHAIN)
            return SCAN_PAST_CHAIN;
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG_AS("Find_next_block_for_reading",
                     "Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                     log.unit_offset());
            return SCAN_READ_FAILED;
        }
        if (fs.Check_iframe_index_dev_node(&node) != 0) {
            QZLOG_AS("Find_next_block_for_reading", "Check_iframe_index_dev_node failed(index:%ld)",
                     long(rss->iframe_index));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (node.id == IFRAME_INDEX_ID_IFRAME) {
            if (rss->need_first_iframe) {
                rss->need_first_iframe = 0;
                rss->iframe_list[rss->iframe_list_num++] = node;
            }
            if (!first_seen) {
                first_seen = true;
                rss->first_iframe_index = rss->iframe_index;
            }
        } else if (node.id == IFRAME_INDEX_ID_BLOCK) {
            if (rss->need_first_iframe) {
                QZLOG_AS("Find_next_block_for_reading", "need read frist iframe(start:%lu)",
                         (unsigned long)rss->iframe_index);
                return SCAN_NO_FIRST;
            }
            rss->iframe_list[rss->iframe_list_num++] = node;
            if (rss->iframe_list_num >= FS_IFI_BUFFER_NUM) {
                rss->iframe_index++;
                return SCAN_FULL;
            }
        } else {
            return SCAN_LOG_END;
        }
    }
}

int CQzFileSystem::Find_next_block_for_reading(_opened_stream_segment_* oss,
                                               _opened_stream_segment_* writer,
                                               bool take_disk_lock)
{
    _read_stream_segment_* rss = oss->reader();
    while (rss->iframe_list_pos >= rss->iframe_list_num) {
        rss->iframe_list_pos = rss->iframe_list_num = 0;
        OptionalDiskLock lock(*this, take_disk_lock);
        // The live writer's chain grows (and may move). A caller that holds
        // the disk lock has just looked the writer up; otherwise it is found
        // again now, as it may have closed since.
        _opened_stream_segment_* live = writer;
        if (writer != nullptr && take_disk_lock)
            live = rss->ossfd_writing >= 0 ? find_oss_info_by_fd(rss->ossfd_writing) : nullptr;
        const uint32_t block_num = live ? live->writer()->iframe_block_num : rss->iframe_block_num;
        const uint32_t* list = live ? live->writer()->iframe_block_list : rss->iframe_block_list;
        const scan_end end = scan_block_starts(*this, rss, block_num, list, m_file_system_io_buffer,
                                               m_file_system_io_buffer_len);
        if (end == SCAN_NO_FIRST)
            return -1;
        if (rss->iframe_list_num != 0)
            break;
        if (end == SCAN_PAST_CHAIN)
            QZLOG("cur iframe index:%lu, block index:%lu, iframe block num:%lu",
                  (unsigned long)rss->iframe_index, (unsigned long)rss->block_index,
                  (unsigned long)block_num);
        else if (end == SCAN_LOG_END)
            QZLOG("over, but iframe is 0");
        return -1;
    }
    const _iframe_index_node_dev_& entry = rss->iframe_list[rss->iframe_list_pos];
    rss->block_index = entry.block_num;
    if (entry.id == IFRAME_INDEX_ID_BLOCK) {
        rss->block_offset = QZFS_DATA_BLOCK_HEAD;
        if (rss->iframe_list_pos + 1 == rss->iframe_list_num)
            rss->latest_iframe_index = rss->first_iframe_index;
    } else {
        rss->block_offset = entry.block_offset;
    }
    rss->iframe_list_pos++;
    return 0;
}
