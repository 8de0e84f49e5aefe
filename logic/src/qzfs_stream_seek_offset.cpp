// Seek by byte offset: the I-frame log is walked from the segment's first
// I-frame to the block that holds the target.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_stream_support.h"

#include <cstdio>
#include <cstring>

namespace {

// The steps below log in the name of the member they serve.
const char kSeek[] = "Seek_stream_segment";

// Where the stream of a reader lies: its length and its stretch of the
// I-frame log. A reader of a live segment takes all of it from the writer.
struct seek_source {
    uint64_t stream_len;
    uint32_t start_iframe;
    uint32_t block_num;
    const uint32_t* block_list;
};

// What the walk of the log found for a target: the log node of the block
// that holds it (and its position), the segment's first I-frame, and the
// last I-frame before the block.
struct seek_hit {
    _iframe_index_node_dev_ node;
    uint32_t index;
    _iframe_index_node_dev_ first;
    uint32_t last_index;
};

void log_iframe_pair(const _iframe_index_node_dev_& node, uint32_t index,
                     const _iframe_index_node_dev_& last, uint32_t last_index)
{
    QZLOG_AS(kSeek,
             "iframe index:%lu,block:%lu,block offset:%lu,segment offset:%llu(%02d:%02d:%02d)",
             (unsigned long)index, (unsigned long)node.block_num,
             (unsigned long)node.block_offset, (unsigned long long)node.stream_segment_offset,
             int(node.hour), int(node.minute), int(node.second));
    QZLOG_AS(kSeek,
             "last iframe index:%lu,block:%lu,block offset:%lu,segment offset:%llu"
             "(%02d:%02d:%02d)",
             (unsigned long)last_index, (unsigned long)last.block_num,
             (unsigned long)last.block_offset, (unsigned long long)last.stream_segment_offset,
             int(last.hour), int(last.minute), int(last.second));
}

// The source of reader `oss`: its writer's when the segment is live (the
// writer's chain may have grown since the open), else its own. False when
// the writer cannot be found.
bool source_of(CQzFileSystem& fs, _opened_stream_segment_* oss, seek_source* src)
{
    _read_stream_segment_* rss = oss->reader();
    if (rss->ossfd_writing < 0) {
        src->stream_len = oss->ssi()->len_in_bytes;
        src->start_iframe = oss->ssi()->start_iframe;
        src->block_num = rss->iframe_block_num;
        src->block_list = rss->iframe_block_list;
        return true;
    }
    _opened_stream_segment_* writer = fs.find_oss_info_by_fd(rss->ossfd_writing);
    if (writer == nullptr || writer->read_or_write != K4T_FS_FALSE) {
        QZLOG_AS(kSeek, "find oss failed(0x%x)", unsigned(rss->ossfd_writing));
        return false;
    }
    src->stream_len = writer_visible_len(writer);
    src->start_iframe = writer->ssi()->start_iframe;
    src->block_num = writer->writer()->iframe_block_num;
    src->block_list = writer->writer()->iframe_block_list;
    return true;
}

enum target_result { TARGET_FOUND, TARGET_HERE, TARGET_INVALID };

// The stream offset that `offset` and `whence` name, from the reader's
// logical position: bytes brought into the cache but not yet handed out lie
// ahead of it. TARGET_HERE when a SEEK_SET names that position itself.
target_result seek_target(const _read_stream_segment_* rss, uint64_t stream_len,
                          long long offset, int whence, uint64_t* target)
{
    const uint64_t unread = rss->cache_len > rss->cache_ptr ? rss->cache_len - rss->cache_ptr : 0;
    const uint64_t position = rss->already_read_len - unread;
    switch (whence) {
    case SEEK_CUR:
        if ((offset < 0 && uint64_t(-offset) > position) ||
            (offset > 0 && (position > stream_len || uint64_t(offset) > stream_len - position))) {
            QZLOG_AS(kSeek, "OUT OF RANGE1(offset:%llu, streamlen:%llu, alreadylen:%llu)",
                     (unsigned long long)offset, (unsigned long long)stream_len,
                     (unsigned long long)position);
            return TARGET_INVALID;
        }
        *target = position + uint64_t(offset);
        break;
    case SEEK_SET:
        if (offset >= 0 && uint64_t(offset) == position) {
            if (g_qzfs_debug_level > 2)
                QZLOG_AS(kSeek, "pRss->already_read_len:%llu, offset:%lld",
                         (unsigned long long)position, offset);
            return TARGET_HERE;
        }
        if (offset < 0 || uint64_t(offset) > stream_len) {
            QZLOG_AS(kSeek, "OUT OF RANGE2");
            return TARGET_INVALID;
        }
        *target = uint64_t(offset);
        break;
    case SEEK_END:
        if (offset > 0 || uint64_t(-offset) > stream_len) {
            QZLOG_AS(kSeek, "OUT OF RANGE3");
            return TARGET_INVALID;
        }
        *target = stream_len - uint64_t(-offset);
        break;
    default:
        QZLOG_AS(kSeek, "invalid parameter");
        return TARGET_INVALID;
    }
    if (*target > stream_len) {
        QZLOG_AS(kSeek, "OUT OF RANGE4");
        return TARGET_INVALID;
    }
    return TARGET_FOUND;
}

// Walks the segment's log from its first I-frame to the block that holds
// `target`. Block entries extend the stream by a full block payload each;
// an I-frame pins the end of its own block exactly. False on a broken log.
bool find_target_block(CQzFileSystem& fs, unsigned char* buffer, unsigned long buffer_len,
                       const seek_source& src, uint64_t target, seek_hit* hit)
{
    const uint64_t block_size = fs.manage().block_size;
    const uint64_t payload = block_size - QZFS_DATA_BLOCK_HEAD;
    iframe_log_reader log(fs, src.block_num, src.block_list, buffer, buffer_len);
    _iframe_index_node_dev_ previous;
    memset(&hit->first, 0, sizeof(hit->first));
    memset(&previous, 0, sizeof(previous));
    bool have_first = false, have_previous = false;
    hit->last_index = src.start_iframe;
    uint64_t block_end = 0;
    for (hit->index = src.start_iframe;; hit->index++) {
        _iframe_index_node_dev_& node = hit->node;
        const uint32_t index = hit->index;
        const int got = log.fetch(index, &node);
        if (got == iframe_log_reader::PAST_CHAIN) {
            QZLOG_AS(kSeek, "(iframe_index_offset.its_block_num >= iframe_index_block_num)(%ld)",
                     log.chain_position());
            return false;
        }
        if (got != iframe_log_reader::OK) {
            QZLOG_AS(kSeek, "Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)",
                     log.block(), log.unit_offset());
            return false;
        }
        uint8_t id = node.id;
        if (fs.Check_iframe_index_dev_node(&node) != 0) {
            QZLOG_AS(kSeek, "Check_iframe_index_dev_node failed(index:%ld)", long(index));
            id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (id == IFRAME_INDEX_ID_IFRAME) {
            if (!have_first) {
                hit->first = node;
                have_first = true;
            }
            if (have_previous && previous.stream_segment_offset > node.stream_segment_offset)
                log_iframe_pair(node, index, previous, hit->last_index);
            if (node.stream_segment_offset < hit->first.stream_segment_offset) {
                QZLOG_AS(kSeek, "(pIFind->stream_segment_offset < first_iind.stream_segment_offset)");
                return false;
            }
            block_end = node.stream_segment_offset - hit->first.stream_segment_offset +
                        block_size - node.block_offset;
            if (block_end > target || (block_end == src.stream_len && target == src.stream_len))
                return true;
            previous = node;
            have_previous = true;
            hit->last_index = index;
        } else if (id == IFRAME_INDEX_ID_BLOCK) {
            if (!have_first) {
                QZLOG_AS(kSeek, "(first_iind.id != IFRAME_INDEX_ID_IFRAME)");
                return false;
            }
            block_end += payload;
            if (block_end > target)
                return true;
        } else {
            QZLOG_AS(kSeek, "IFRAME_INDEX_ID_FREE_AND_END");
            return false;
        }
    }
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
    if (!source_of(*this, oss, &src))
        return -1;
    uint64_t target = 0;
    const target_result aimed = seek_target(rss, src.stream_len, offset, whence, &target);
    if (aimed != TARGET_FOUND)
        return aimed == TARGET_HERE ? 0 : -1;
    seek_hit hit;
    if (!find_target_block(*this, m_file_system_io_buffer, m_file_system_io_buffer_len, src,
                           target, &hit))
        return -1;

    // The position in the block, counting every block of the segment as
    // full; the first one starts at the first I-frame.
    const uint64_t payload = m_manage.block_size - QZFS_DATA_BLOCK_HEAD;
    uint32_t block_offset = uint32_t(
        QZFS_DATA_BLOCK_HEAD + (target + hit.first.block_offset - QZFS_DATA_BLOCK_HEAD) % payload);
    if (target == src.stream_len && block_offset == QZFS_DATA_BLOCK_HEAD)
        block_offset = uint32_t(m_manage.block_size);

    rss->block_index = hit.node.block_num;
    rss->block_offset = block_offset;
    rss->need_seek = 1;
    rss->already_read_len = target;
    rss->iframe_index = hit.index + 1;
    rss->iframe_list_pos = rss->iframe_list_num = 0;
    rss->need_first_iframe = 0;
    rss->cache_ptr = rss->cache_len = 0;
    rss->latest_iframe_index = rss->first_iframe_index = hit.last_index;
    rss->play_mode = 0;
    rss->index_head_reached = 0;
    QZLOG_ABOVE(3, "OK(cur block:%lu)(offset:%lu)(read:%llu)", (unsigned long)rss->block_index,
                (unsigned long)rss->block_offset, (unsigned long long)rss->already_read_len);
    return 0;
}
