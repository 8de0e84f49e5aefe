// Seek by byte offset: the I-frame log is walked from the segment's first
// I-frame to the block that holds the target.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

#include <cstdio>
#include <cstring>

namespace {

// Where the stream of a reader lies: its length and its stretch of the
// I-frame log. A reader of a live segment takes all of it from the writer.
struct seek_source {
    uint64_t stream_len;
    uint32_t start_iframe;
    uint32_t block_num;
    const uint32_t* block_list;
};

void log_iframe_pair(const _iframe_index_node_dev_& node, uint32_t index,
                     const _iframe_index_node_dev_& last, uint32_t last_index)
{
    QZLOG_AS("Seek_stream_segment",
             "iframe index:%lu,block:%lu,block offset:%lu,segment offset:%llu(%02d:%02d:%02d)",
             (unsigned long)index, (unsigned long)node.block_num,
             (unsigned long)node.block_offset, (unsigned long long)node.stream_segment_offset,
             int(node.hour), int(node.minute), int(node.second));
    QZLOG_AS("Seek_stream_segment",
             "last iframe index:%lu,block:%lu,block offset:%lu,segment offset:%llu"
             "(%02d:%02d:%02d)",
             (unsigned long)last_index, (unsigned long)last.block_num,
             (unsigned long)last.block_offset, (unsigned long long)last.stream_segment_offset,
             int(last.hour), int(last.minute), int(last.second));
}

}  // namespace

int CQzFileSystem::Seek_stream_segment(_opened_stream_segment_* oss, long long offset, int whence)
{
    _read_stream_segment_* rss = oss->reader();
    if (whence == SEEK_CUR && offset == 0) {
        QZLOG_ABOVE(2, "((whence == SEEK_CUR) && (offset == 0))");
        return 0;
    }

    seek_source src;
    if (rss->ossfd_writing >= 0) {
        _opened_stream_segment_* writer = find_oss_info_by_fd(rss->ossfd_writing);
        if (writer == nullptr || writer->read_or_write != K4T_FS_FALSE) {
            QZLOG("find oss failed(0x%x)", unsigned(rss->ossfd_writing));
            return -1;
        }
        // The writer's own index chain: it may have grown since the open.
        src.stream_len = writer_visible_len(writer);
        src.start_iframe = writer->ssi()->start_iframe;
        src.block_num = writer->writer()->iframe_block_num;
        src.block_list = writer->writer()->iframe_block_list;
    } else {
        src.stream_len = oss->ssi()->len_in_bytes;
        src.start_iframe = oss->ssi()->start_iframe;
        src.block_num = rss->iframe_block_num;
        src.block_list = rss->iframe_block_list;
    }

    // The logical position: bytes brought into the cache but not yet handed
    // out lie ahead of it.
    const uint64_t unread = rss->cache_len > rss->cache_ptr ? rss->cache_len - rss->cache_ptr : 0;
    const uint64_t position = rss->already_read_len - unread;
    const uint64_t stream_len = src.stream_len;
    uint64_t target = 0;
    switch (whence) {
    case SEEK_CUR:
        if ((offset < 0 && uint64_t(-offset) > position) ||
            (offset > 0 && (position > stream_len || uint64_t(offset) > stream_len - position))) {
            QZLOG("OUT OF RANGE1(offset:%llu, streamlen:%llu, alreadylen:%llu)",
                  (unsigned long long)offset, (unsigned long long)stream_len,
                  (unsigned long long)position);
            return -1;
        }
        target = position + uint64_t(offset);
        break;
    case SEEK_SET:
        if (offset >= 0 && uint64_t(offset) == position) {
            QZLOG_ABOVE(2, "pRss->already_read_len:%llu, offset:%lld",
                        (unsigned long long)position, offset);
            return 0;
        }
        if (offset < 0 || uint64_t(offset) > stream_len) {
            QZLOG("OUT OF RANGE2");
            return -1;
        }
        target = uint64_t(offset);
        break;
    case SEEK_END:
        if (offset > 0 || uint64_t(-offset) > stream_len) {
            QZLOG("OUT OF RANGE3");
            return -1;
        }
        target = stream_len - uint64_t(-offset);
        break;
    default:
        QZLOG("invalid parameter");
        return -1;
    }
    if (target > stream_len) {
        QZLOG("OUT OF RANGE4");
        return -1;
    }

    // Walk the segment's log. Block entries extend the stream by a full
    // block payload each; an I-frame pins the end of its own block exactly.
    const uint64_t block_size = m_manage.block_size;
    const uint64_t payload = block_size - QZFS_DATA_BLOCK_HEAD;
    iframe_log_reader log(*this, src.block_num, src.block_list, m_file_system_io_buffer,
                          m_file_system_io_buffer_len);
    _iframe_index_node_dev_ first, previous, node;
    memset(&first, 0, sizeof(first));
    memset(&previous, 0, sizeof(previous));
    bool have_first = false, have_previous = false;
    uint32_t last_index = src.start_iframe;
    uint64_t block_end = 0;
    uint32_t index = src.start_iframe;
    for (;; index++) {
        const int got = log.fetch(index, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG("(iframe_index_offset.its_block_num >= iframe_index_block_num)(%ld)",
                  log.chain_position());
            return -1;
        }
        if (got != iframe_log_reader::OK) {
            QZLOG("Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)", log.block(),
                  log.unit_offset());
            return -1;
        }
        uint8_t id = node.id;
        if (Check_iframe_index_dev_node(&node) != 0) {
            QZLOG("Check_iframe_index_dev_node failed(index:%ld)", long(index));
            id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (id == IFRAME_INDEX_ID_IFRAME) {
            if (!have_first) {
                first = node;
                have_first = true;
            }
            if (have_previous && previous.stream_segment_offset > node.stream_segment_offset)
                log_iframe_pair(node, index, previous, last_index);
            if (node.stream_segment_offset < first.stream_segment_offset) {
                QZLOG("(pIFind->stream_segment_offset < first_iind.stream_segment_offset)");
                return -1;
            }
            block_end = node.stream_segment_offset - first.stream_segment_offset + block_size -
                        node.block_offset;
            if (block_end > target || (block_end == stream_len && target == stream_len))
                break;
            previous = node;
            have_previous = true;
            last_index = index;
        } else if (id == IFRAME_INDEX_ID_BLOCK) {
            if (!have_first) {
                QZLOG("(first_iind.id != IFRAME_INDEX_ID_IFRAME)");
                return -1;
            }
            block_end += payload;
            if (block_end > target)
                break;
        } else {
            QZLOG("IFRAME_INDEX_ID_FREE_AND_END");
            return -1;
        }
    }

    // The position in the block, counting every block of the segment as
    // full; the first one starts at the first I-frame.
    uint32_t block_offset = uint32_t(
        QZFS_DATA_BLOCK_HEAD + (target + first.block_offset - QZFS_DATA_BLOCK_HEAD) % payload);
    if (target == stream_len && block_offset == QZFS_DATA_BLOCK_HEAD)
        block_offset = uint32_t(block_size);

    rss->block_index = node.block_num;
    rss->block_offset = block_offset;
    rss->need_seek = 1;
    rss->already_read_len = target;
    rss->iframe_index = index + 1;
    rss->iframe_list_pos = rss->iframe_list_num = 0;
    rss->need_first_iframe = 0;
    rss->cache_ptr = rss->cache_len = 0;
    rss->latest_iframe_index = rss->first_iframe_index = last_index;
    rss->play_mode = 0;
    rss->index_head_reached = 0;
    QZLOG_ABOVE(3, "OK(cur block:%lu)(offset:%lu)(read:%llu)", (unsigned long)rss->block_index,
                (unsigned long)rss->block_offset, (unsigned long long)rss->already_read_len);
    return 0;
}
