// I-frame playback: fast forward and fast back, one whole I-frame a call,
// found through the I-frame index.
//
// The reader's node list holds a window of the log: refilled 70 nodes at a
// time from `latest_iframe_index` going forward, and the 70 nodes ending
// there going back. The chosen I-frame is read by its position (block and
// offset of its node) in aligned 64 KiB units into the reader's frame
// buffer; a frame that runs over the end of its block goes on at byte 4096
// of the segment's next block, which the block entry behind it names.
//
// Index reads go through the disk's shared I/O buffer, so they run under
// the disk lock; a live writer is looked up again there each time, since it
// may have closed (and handed the reader its own chain) since the last call.
// Frame bytes are read through the reader's own channel without a lock.
#include "qzfilesystem.h"
#include "qzfs_av_frame.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "qzfs_stream_support.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// First size of a reader's frame buffer.
const uint32_t kFrameBufferStart = 0x20000;
const uint32_t kFrameHeaderLen = sizeof(_av_frame_header_);

// The live writer behind a reader, looked up with the disk lock held; null
// when the segment is closed or the writer has gone.
_opened_stream_segment_* live_writer(CQzFileSystem& fs, _read_stream_segment_* rss)
{
    return rss->ossfd_writing >= 0 ? fs.find_oss_info_by_fd(rss->ossfd_writing) : nullptr;
}

// Reads up to `*count` nodes of both kinds from log position `index` into
// the reader's list at `at`, through the live writer's chain or the
// reader's own. 0, or -1 when nothing came.
int read_log_nodes(CQzFileSystem& fs, _opened_stream_segment_* oss, bool following_writer,
                   uint32_t index, unsigned long* count, uint32_t at)
{
    _read_stream_segment_* rss = oss->reader();
    OptionalDiskLock lock(fs, true);
    _opened_stream_segment_* live = following_writer ? live_writer(fs, rss) : nullptr;
    const uint32_t block_num = live ? live->writer()->iframe_block_num : rss->iframe_block_num;
    const uint32_t* list = live ? live->writer()->iframe_block_list : rss->iframe_block_list;
    if (fs.Read_iframe_index(block_num, list, index, count, rss->iframe_list + at, 3) != 0 ||
        *count == 0)
        return -1;
    return 0;
}

// Grows the frame buffer to `len` bytes; false when memory is out.
bool grow_frame_buffer(_read_stream_segment_* rss, uint32_t len)
{
    uint8_t* grown = static_cast<uint8_t*>(realloc(rss->frame_buffer, len));
    if (grown == nullptr)
        return false;
    rss->frame_buffer = grown;
    rss->frame_buffer_len = len;
    return true;
}

}  // namespace

int Read_iframe_data(int ossfd, uint8_t** buffer, int* len, uint8_t* new_segment,
                     uint8_t next_iframe, uint8_t skip)
{
    if (buffer == nullptr || len == nullptr || ossfd < 0) {
        QZLOG("invalid parameter");
        return -1;
    }
    const int disk_ossid = gQzfsManager.get_disk_ossid(ossfd);
    const uint8_t hdd_id = qzfs_ossid_hdd(disk_ossid);
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs == nullptr) {
        QZLOG("gQzfsManager.get_file_system failed(hdd_id:%d)", int(hdd_id));
        return -1;
    }
    _opened_stream_segment_* oss = fs->find_oss_info_by_fd(disk_ossid);
    if (oss == nullptr) {
        QZLOG("invalid ssfd(%d)", ossfd);
        return -1;
    }
    if (oss->read_or_write != K4T_FS_TRUE) {
        QZLOG("(pOss->read_or_write != K4T_FS_TRUE)");
        return -1;
    }
    if (oss->exist_error == K4T_FS_TRUE) {
        QZLOG("(pOss->exist_error == K4T_FS_TRUE)");
        return -1;
    }
    _read_stream_segment_* rss = oss->reader();
    if (rss->seek_failed == K4T_FS_TRUE) {
        QZLOG("(pRss->seek_failed == K4T_FS_TRUE)(fd:%d)", ossfd);
        return -1;
    }
    // The writer may close between calls: look it up under the disk lock.
    _opened_stream_segment_* writer = nullptr;
    int writing;
    {
        DiskLockGuard disk(*fs);
        writing = rss->ossfd_writing;
        if (writing >= 0)
            writer = fs->find_oss_info_by_fd(writing);
    }
    if (writing >= 0 && writer == nullptr) {
        QZLOG("invalid ssfd(%d)", writing);
        return -1;
    }

    const int result = fs->Read_iframe_data(oss, buffer, len, writer, next_iframe, skip);
    if (result != 0) {
        if (new_segment != nullptr)
            *new_segment = rss->new_segment_flag;
        rss->new_segment_flag = 0;
        return result;
    }
    QZLOG("NO DATA, FIND NEW STREAM SEGMENT(channel:%d)", int(rss->channel));
    const bool forward = next_iframe == K4T_FS_TRUE;
    // A live recording only grows at its end: forward, the caller polls.
    // Back, the segments before it are closed and may be visited.
    if (forward && writer != nullptr) {
        QZLOG("((next_iframe == K4T_FS_TRUE) && (pOss_writing != K4T_FS_NULL))");
        return 0;
    }
    if (!(rss->read_flag & QZFS_K4T_OSF_CONTINUE)) {
        QZLOG("(!(pRss->read_flag & QZFS_K4T_OSF_CONTINUE))");
        return 0;
    }
    _qzfs_k4t_stream_open_para_ para = adjacent_segment_request(oss, forward);
    _opened_stream_segment_* adjacent = nullptr;
    if (Open_stream_segment(&para, rss->read_flag, forward ? FS_FIND_NEXT : FS_FIND_PREV,
                            &adjacent) != 0) {
        QZLOG_ABOVE(0, " Open_stream_segment failed");
        return 0;
    }
    if (close_old_and_set_new_open_segment_info(ossfd, oss, adjacent) != 0)
        return 0;
    // The first frame of the new segment is shown whatever the speed.
    return Read_iframe_data(ossfd, buffer, len, new_segment, next_iframe, 0);
}

int CQzFileSystem::Read_iframe_data(_opened_stream_segment_* oss, uint8_t** buffer, int* len,
                                    _opened_stream_segment_* writer, uint8_t next_iframe,
                                    uint8_t skip)
{
    _read_stream_segment_* rss = oss->reader();
    const reader_snapshot before(rss);
    const bool forward = next_iframe == K4T_FS_TRUE;

    // Where the segment's log starts and how far its data goes. For a live
    // writer, only what has reached the disk: bytes still in its unit
    // buffer are not there yet, and the block behind them holds old data.
    // A writer that closes meanwhile rewrites the reader's node under the
    // disk lock, so the node is read under it too.
    uint64_t stream_len = 0;
    uint32_t start_iframe = 0;
    bool following_writer = false;
    {
        OptionalDiskLock lock(*this, writer != nullptr);
        stream_len = oss->ssi()->len_in_bytes;
        start_iframe = oss->ssi()->start_iframe;
        _opened_stream_segment_* live = writer != nullptr ? live_writer(*this, rss) : nullptr;
        if (live != nullptr) {
            following_writer = true;
            _write_stream_segment_* wss = live->writer();
            if (wss->iframe_list_ptr > 1)
                Write_iframe_index(wss, true);
            _stream_segment_index_node_dev_ node;
            writer_node_snapshot(live, &node);
            start_iframe = node.start_iframe;
            stream_len = writer_visible_len(live);
        }
    }

    if (forward && rss->already_read_len >= stream_len) {
        QZLOG_ABOVE(0, "FAST PLAY NO DATA:%lld, %lld", (long long)rss->already_read_len,
                    (long long)stream_len);
        return 0;
    }
    // A position of 12 or less holds no complete frame behind it.
    if (!forward && rss->already_read_len <= kFrameHeaderLen) {
        QZLOG("FAST BACK NO DATA:%lld", (long long)rss->already_read_len);
        return 0;
    }

    if (rss->play_mode == 0) {
        if (rss->latest_iframe_index < start_iframe)
            rss->latest_iframe_index = start_iframe;
        uint32_t found = 0;
        int result;
        {
            OptionalDiskLock lock(*this, true);
            _opened_stream_segment_* live = following_writer ? live_writer(*this, rss) : nullptr;
            result = Find_iframe_for_special_play(
                rss, live ? live->writer()->iframe_block_num : rss->iframe_block_num,
                live ? live->writer()->iframe_block_list : rss->iframe_block_list, start_iframe,
                next_iframe, &found);
        }
        if (result != 0) {
            QZLOG("Find_iframe_for_fastplay failed");
            before.restore(rss);
            return 0;
        }
        rss->play_mode = forward ? 1 : 2;
        rss->index_head_reached = 0;
        rss->latest_iframe_index = found;
        rss->iframe_list_num = rss->iframe_list_pos = 0;
    } else if (rss->play_mode == 1 && !forward) {
        rss->iframe_list_num = rss->iframe_list_pos = 0;
        rss->index_head_reached = 0;
        rss->play_mode = 2;
    } else if (rss->play_mode == 2 && forward) {
        rss->play_mode = 1;
        rss->iframe_list_num = rss->iframe_list_pos = 0;
        if (rss->latest_iframe_index < start_iframe)
            rss->latest_iframe_index = start_iframe;
        rss->index_head_reached = 0;
    }

    if (rss->frame_buffer == nullptr) {
        QZLOG_ABOVE(2, "malloc frame buffer");
        rss->frame_buffer = static_cast<uint8_t*>(malloc(kFrameBufferStart));
        if (rss->frame_buffer == nullptr)
            QZFS_FATAL("CQzFileSystem::Read_iframe_data out of memory(%ld)",
                       long(kFrameBufferStart));
        rss->frame_buffer_len = kFrameBufferStart;
    }

    const uint32_t unit = uint32_t(m_file_system_io_buffer_len);
    const uint32_t block_size = uint32_t(m_manage.block_size);
    // Each pass chooses an I-frame and reads it; a node whose frame turns
    // out unusable sends the walk on to the next one in the same direction.
    for (;;) {
        uint8_t counter = 0;
        _iframe_index_node_dev_ chosen;
        memset(&chosen, 0, sizeof(chosen));
        // Going back: where the walk goes on from after this frame.
        uint32_t saved_pos = 0, saved_latest = 0;
        if (forward) {
            for (;;) {
                if (rss->iframe_list_pos >= rss->iframe_list_num) {
                    rss->iframe_list_num = FS_IFI_BUFFER_NUM;
                    rss->iframe_list_pos = 0;
                    unsigned long count = FS_IFI_BUFFER_NUM;
                    if (read_log_nodes(*this, oss, following_writer, rss->latest_iframe_index,
                                       &count, 0) != 0) {
                        QZLOG("Read_iframe_index failed(%ld)", long(rss->latest_iframe_index));
                        before.restore(rss);
                        return 0;
                    }
                    rss->iframe_list_num = uint32_t(count);
                }
                const _iframe_index_node_dev_& node = rss->iframe_list[rss->iframe_list_pos];
                if (node.id == IFRAME_INDEX_ID_BLOCK) {
                    rss->iframe_list_pos++;
                    rss->latest_iframe_index++;
                    continue;
                }
                if (node.id != IFRAME_INDEX_ID_IFRAME) {
                    QZLOG("IFRAME_INDEX_ID_FREE_AND_END(%ld)", long(rss->latest_iframe_index));
                    before.restore(rss);
                    return 0;
                }
                if ((rss->latest_iframe_index != start_iframe && node.stream_segment_offset == 0) ||
                    node.stream_segment_offset < rss->first_iframe_offset ||
                    node.stream_segment_offset - rss->first_iframe_offset >= stream_len) {
                    before.restore(rss);
                    return 0;
                }
                if (++counter > skip) {
                    chosen = node;
                    break;
                }
                rss->iframe_list_pos++;
                rss->latest_iframe_index++;
            }
        } else {
            for (;;) {
                if (rss->iframe_list_num == 0 || rss->iframe_list_pos == 0) {
                    if (rss->index_head_reached == 1 || rss->latest_iframe_index < start_iframe) {
                        QZLOG_ABOVE(1, "FAST BACK NO DATA1(%ld)(%ld)(%d)",
                                    long(rss->latest_iframe_index), long(start_iframe),
                                    int(rss->index_head_reached));
                        before.restore(rss);
                        return 0;
                    }
                    const uint32_t num =
                        std::min<uint32_t>(rss->latest_iframe_index + 1 - start_iframe,
                                           FS_IFI_BUFFER_NUM);
                    const uint32_t first = rss->latest_iframe_index + 1 - num;
                    rss->iframe_list_num = num;
                    unsigned long count = num;
                    if (read_log_nodes(*this, oss, following_writer, first, &count, 0) != 0) {
                        QZLOG("Read_iframe_index failed(%ld)", long(rss->latest_iframe_index));
                        before.restore(rss);
                        return 0;
                    }
                    // Forward play may have left the position behind the
                    // log's last node: the walk down starts at that node.
                    if (count < num) {
                        rss->iframe_list_num = uint32_t(count);
                        rss->latest_iframe_index = first + uint32_t(count) - 1;
                    }
                    rss->iframe_list_pos = rss->iframe_list_num;
                }
                const _iframe_index_node_dev_& node = rss->iframe_list[rss->iframe_list_pos - 1];
                if (node.id == IFRAME_INDEX_ID_IFRAME) {
                    if ((rss->latest_iframe_index != start_iframe &&
                         node.stream_segment_offset == 0) ||
                        node.stream_segment_offset < rss->first_iframe_offset ||
                        node.stream_segment_offset - rss->first_iframe_offset >= stream_len) {
                        before.restore(rss);
                        return 0;
                    }
                    if (++counter > skip) {
                        rss->iframe_list_pos--;
                        chosen = node;
                        break;
                    }
                }
                if (rss->latest_iframe_index != 0)
                    rss->latest_iframe_index--;
                if (rss->latest_iframe_index < start_iframe) {
                    before.restore(rss);
                    return 0;
                }
                rss->iframe_list_pos--;
                if (rss->latest_iframe_index == 0)
                    rss->index_head_reached = 1;
            }
            saved_pos = rss->iframe_list_pos;
            saved_latest = rss->latest_iframe_index != 0 ? rss->latest_iframe_index - 1 : 0;
        }

        const uint64_t stream_position = chosen.stream_segment_offset - rss->first_iframe_offset;
        rss->iframe_index = rss->latest_iframe_index;
        rss->iframe_list_pos++;
        rss->latest_iframe_index++;

        // Read the frame, unit by unit, from its node's position. `held`
        // counts the frame's bytes in the buffer from `frame_start`.
        uint32_t block = chosen.block_num;
        uint32_t offset = chosen.block_offset;
        uint32_t frame_start = 0, held = 0, need = 0;
        bool list_refilled = false;
        bool complete = false, retry = false;
        if (qzfs_seek(oss->io_channel, block, offset - offset % unit) != 0) {
            QZLOG("seek failed(%ld)(%ld)", long(block), long(offset));
            before.restore(rss);
            return 0;
        }
        // Block offset of the first frame byte of the current unit, the
        // frame bytes held before it, and whether it opens a next block.
        uint32_t unit_frame_offset = offset;
        uint32_t held_before = 0;
        bool block_head = false;
        while (!complete && !retry) {
            if (frame_start + held + unit > rss->frame_buffer_len) {
                const uint32_t grown = frame_start + held + unit;
                QZLOG_ABOVE(2, "CQzFileSystem::Read_iframe_data remalloc1(%ld)(%ld)",
                            long(rss->frame_buffer_len), long(grown));
                if (!grow_frame_buffer(rss, grown))
                    QZFS_FATAL("CQzFileSystem::Read_iframe_data out of memory");
                memmove(rss->frame_buffer, rss->frame_buffer + frame_start, held);
                frame_start = 0;
            }
            uint8_t* into = rss->frame_buffer + frame_start + held;
            if (qzfs_read(oss->io_channel, into, int(unit)) != int(unit)) {
                QZLOG("Read failed(%ld)(%ld)", long(block), long(offset));
                before.restore(rss);
                return 0;
            }
            held_before = held;
            const uint32_t m = offset % unit;
            if (block_head) {
                // The next block's head is no part of the stream: its frame
                // bytes start at byte 4096.
                memmove(into, into + QZFS_DATA_BLOCK_HEAD, unit - QZFS_DATA_BLOCK_HEAD);
                held += unit - QZFS_DATA_BLOCK_HEAD;
                unit_frame_offset = QZFS_DATA_BLOCK_HEAD;
                block_head = false;
            } else if (m != 0) {
                if (frame_start != 0)
                    QZFS_FATAL("CQzFileSystem::Read_iframe_data FATAL1(%ld)", long(frame_start));
                if (held != 0)
                    QZFS_FATAL("CQzFileSystem::Read_iframe_data FATAL2(%ld)", long(held));
                frame_start = m;
                held = unit - m;
                unit_frame_offset = offset;
            } else {
                held += unit;
                unit_frame_offset = offset;
            }
            if (held_before >= kFrameHeaderLen) {
                // The header was parsed with an earlier unit.
                if (held >= need)
                    complete = true;
            } else if (held >= kFrameHeaderLen) {
                _av_frame_header_ header;
                memcpy(&header, rss->frame_buffer + frame_start, sizeof(header));
                uint8_t channel = 0;
                _qzfs_frame_type_ type = QZFS_FRAME_INVALID;
                const uint8_t want_channel = oss->root()->channel;
                if (Get_frame_info(&header, &channel, &type) != 0 || type != QZFS_FRAME_I ||
                    (want_channel < 255 && channel != want_channel)) {
                    uint32_t word;
                    memcpy(&word, &header, sizeof(word));
                    QZLOG_ABOVE(1, "invalid frame type(%08lx)", (unsigned long)word);
                    retry = true;
                    break;
                }
                need = kFrameHeaderLen + qzfs_frame_u24(header.frame_len) +
                       qzfs_frame_u24(header.extend_len);
                if (need > QZFS_MAX_FRAME_LEN) {
                    QZLOG_ABOVE(1, "invalid frame len:%ld", long(need));
                    retry = true;
                    break;
                }
                if (stream_position + need > stream_len) {
                    if (forward) {
                        QZLOG("out of stream segment:%lld, %ld, %lld", (long long)stream_position,
                              long(need), (long long)stream_len);
                        before.restore(rss);
                        return 0;
                    }
                    retry = true;
                    break;
                }
                if (frame_start + need > rss->frame_buffer_len) {
                    const uint32_t grown = std::max(frame_start + need, frame_start + held + unit);
                    QZLOG_ABOVE(2, "remalloc2(%ld)(%ld)",
                                long(rss->frame_buffer_len), long(grown));
                    if (!grow_frame_buffer(rss, grown))
                        QZFS_FATAL("CQzFileSystem::Read_iframe_data out of memory:%ld",
                                   long(grown));
                }
                if (held >= need)
                    complete = true;
            }
            if (complete)
                break;
            offset = offset - m + unit;
            if (offset < block_size)
                continue;
            // The frame goes on in the segment's next block: the block entry
            // that follows in the log names it.
            if (rss->iframe_list_pos >= rss->iframe_list_num) {
                rss->iframe_list_num = FS_IFI_BUFFER_NUM;
                rss->iframe_list_pos = 0;
                list_refilled = true;
                unsigned long count = FS_IFI_BUFFER_NUM;
                if (read_log_nodes(*this, oss, following_writer, rss->latest_iframe_index, &count,
                                   0) != 0) {
                    QZLOG("Read_iframe_index failed(%ld)", long(rss->latest_iframe_index));
                    before.restore(rss);
                    return 0;
                }
                rss->iframe_list_num = uint32_t(count);
            }
            const _iframe_index_node_dev_& next = rss->iframe_list[rss->iframe_list_pos];
            if (next.id != IFRAME_INDEX_ID_BLOCK) {
                retry = true;
                break;
            }
            rss->iframe_list_pos++;
            rss->latest_iframe_index++;
            block = next.block_num;
            offset = 0;
            block_head = true;
            if (qzfs_seek(oss->io_channel, block, 0) != 0) {
                QZLOG("seek failed(%ld)(%ld)", long(block), 0L);
                before.restore(rss);
                return 0;
            }
        }

        // Normal reading after this frame scans the log for block entries
        // from behind the frame's last block.
        const uint32_t behind_frame = rss->latest_iframe_index;
        if (!forward) {
            // Going back, the walk goes on below the node just chosen.
            rss->latest_iframe_index = saved_latest;
            if (list_refilled)
                rss->iframe_list_num = rss->iframe_list_pos = 0;
            else
                rss->iframe_list_pos = saved_pos;
        }
        if (retry)
            continue;

        *buffer = rss->frame_buffer + frame_start;
        *len = int(need);
        rss->already_read_len = stream_position + need;
        rss->block_index = block;
        rss->block_offset = unit_frame_offset + (need - held_before);
        rss->iframe_index = behind_frame;
        rss->need_seek = 1;
        rss->need_first_iframe = 0;
        rss->cache_ptr = rss->cache_len = 0;
        return int(need);
    }
}

int CQzFileSystem::Find_iframe_for_special_play(_read_stream_segment_* rss,
                                                uint32_t iframe_block_num,
                                                uint32_t* iframe_block_list,
                                                uint32_t start_iframe_index, uint8_t next_iframe,
                                                uint32_t* found_index)
{
    const bool forward = next_iframe == K4T_FS_TRUE;
    if (rss->already_read_len == 0) {
        if (forward) {
            *found_index = start_iframe_index;
            return 0;
        }
        QZLOG("failed (pRss->already_read_len == 0)");
        return -1;
    }
    QZLOG_ABOVE(2, "start_iframe_index:%ld; pRss->latest_iframe_index:%ld; pRss->already_read_len:%lld",
                long(start_iframe_index), long(rss->latest_iframe_index),
                (long long)rss->already_read_len);
    // The walk starts at the head of the index unit holding the latest
    // known position of the read point, which may lie a little behind it.
    uint32_t position = rss->latest_iframe_index;
    uint32_t remembered = start_iframe_index;
    bool have_remembered = false;
    _qzfs_data_offset_ at;
    Calculate_index_info(m_manage.block_size, QZFS_IFRAME_NODE_SIZE, position,
                         m_file_system_io_buffer_len, &at);
    iframe_log_reader log(*this, iframe_block_num, iframe_block_list, m_file_system_io_buffer,
                          m_file_system_io_buffer_len);
    _iframe_index_node_dev_ node;
    bool scan = true;
    if (at.its_block_num >= iframe_block_num) {
        QZLOG("iframe_index:%ld; iframe_index_offset.its_block_num=%ld; iframe_index_block_num:%ld",
              long(position), long(at.its_block_num), long(iframe_block_num));
        scan = false;
    } else if (log.fetch(position, &node) != iframe_log_reader::OK) {
        QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
              log.unit_offset());
        scan = false;
    }
    position = std::max(at.unit_first_index, start_iframe_index);

    _iframe_index_node_dev_ last;
    memset(&last, 0, sizeof(last));
    bool have_last = false;
    for (; scan; position++) {
        const int got = log.fetch(position, &node);
        if (got == iframe_log_reader::PAST_CHAIN)
            break;
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            break;
        }
        if (Check_iframe_index_dev_node(&node) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(index:%ld)", long(position));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (node.id == IFRAME_INDEX_ID_BLOCK)
            continue;
        if (node.id != IFRAME_INDEX_ID_IFRAME) {
            QZLOG_ABOVE(0, "Check_iframe_index_dev_node IFRAME_INDEX_ID_FREE_AND_END");
            break;
        }
        if (have_last && last.stream_segment_offset >= node.stream_segment_offset) {
            QZLOG_ABOVE(0, "(last_ifind.stream_segment_offset >= pIFind->stream_segment_offset)(%lld, %lld)",
                        (long long)last.stream_segment_offset,
                        (long long)node.stream_segment_offset);
            break;
        }
        if (node.stream_segment_offset < rss->first_iframe_offset) {
            QZLOG("OUT OF RANGE");
            break;
        }
        const uint64_t rel = node.stream_segment_offset - rss->first_iframe_offset;
        if (rel >= rss->already_read_len) {
            if (forward) {
                *found_index = position;
                QZLOG_ABOVE(0, "FAST PLAY index:%ld(%02d:%02d:%02d)", long(position),
                            int(node.hour), int(node.minute), int(node.second));
                return 0;
            }
            // Nothing before the read point yet, and this frame lies past it.
            if (!have_remembered && rel > rss->already_read_len)
                return -1;
            *found_index = remembered;
            QZLOG_ABOVE(0, "FAST BACK index:%ld(%02d:%02d:%02d)", long(remembered),
                        int(last.hour), int(last.minute), int(last.second));
            return 0;
        }
        remembered = position;
        have_remembered = true;
        last = node;
        have_last = true;
    }
    if (forward || !have_remembered) {
        QZLOG("FAILED");
        return -1;
    }
    *found_index = remembered;
    return 0;
}
