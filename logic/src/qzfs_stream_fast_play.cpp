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

// The steps below log and stop in the name of the member they serve.
const char kReadIframeData[] = "Read_iframe_data";
#define FAST_PLAY_LOG(...) QZLOG_AS(kReadIframeData, __VA_ARGS__)
#define FAST_PLAY_LOG_ABOVE(level, ...)                   \
    do {                                                  \
        if (g_qzfs_debug_level > (uint32_t)(level))       \
            FAST_PLAY_LOG(__VA_ARGS__);                   \
    } while (0)
#define FAST_PLAY_FATAL(...) \
    qzfs_fatal(Qzfs_basename(__FILE__), kReadIframeData, __LINE__, __VA_ARGS__)

// One call of I-frame playback: the reader, the direction, and the stretch
// of log and stream it may use.
struct iframe_walk {
    CQzFileSystem& fs;
    _opened_stream_segment_* oss;
    _read_stream_segment_* rss;
    bool forward;
    uint32_t unit;        // bytes of one frame read
    uint32_t block_size;
    bool following_writer = false;
    uint32_t start_iframe = 0;
    uint64_t stream_len = 0;

    iframe_walk(CQzFileSystem& fs_, _opened_stream_segment_* oss_, bool forward_,
                uint32_t unit_, uint32_t block_size_)
        : fs(fs_), oss(oss_), rss(oss_->reader()), forward(forward_), unit(unit_),
          block_size(block_size_)
    {
    }
};

// A frame being read: where its bytes lie in the frame buffer and where on
// the disk the read has got to.
struct frame_read {
    uint32_t block = 0;
    uint32_t offset = 0;             // block offset of the unit being read
    uint32_t frame_start = 0;        // the frame's first byte in the buffer
    uint32_t held = 0;               // frame bytes in the buffer from there
    uint32_t need = 0;               // the whole frame, once its header is in
    uint32_t held_before = 0;        // frame bytes held before the current unit
    uint32_t unit_frame_offset = 0;  // block offset of the unit's first frame byte
    bool block_head = false;         // the unit opens the frame's next block
    bool list_refilled = false;      // the reader's list was read afresh meanwhile
    uint32_t behind_frame = 0;       // log position behind the frame's last block
    uint64_t stream_position = 0;    // the frame's offset in the stream

    frame_read() = default;
    frame_read(const _iframe_index_node_dev_& node, uint64_t position)
        : block(node.block_num), offset(node.block_offset), unit_frame_offset(node.block_offset),
          stream_position(position)
    {
    }
};

// How a step of the frame read ended.
enum frame_step { FRAME_DONE, FRAME_GO_ON, FRAME_UNUSABLE, FRAME_FAILED };

// The live writer behind a reader, looked up with the disk lock held; null
// when the segment is closed or the writer has gone.
_opened_stream_segment_* live_writer(CQzFileSystem& fs, _read_stream_segment_* rss)
{
    return rss->ossfd_writing >= 0 ? fs.find_oss_info_by_fd(rss->ossfd_writing) : nullptr;
}

// Reads up to `*count` nodes of both kinds from log position `index` into
// the head of the reader's list, through the live writer's chain or the
// reader's own. 0, or -1 when nothing came.
int read_log_nodes(const iframe_walk& w, uint32_t index, unsigned long* count)
{
    _read_stream_segment_* rss = w.rss;
    OptionalDiskLock lock(w.fs, true);
    _opened_stream_segment_* live = w.following_writer ? live_writer(w.fs, rss) : nullptr;
    const uint32_t block_num = live ? live->writer()->iframe_block_num : rss->iframe_block_num;
    const uint32_t* list = live ? live->writer()->iframe_block_list : rss->iframe_block_list;
    if (w.fs.Read_iframe_index(block_num, list, index, count, rss->iframe_list, 3) != 0 ||
        *count == 0)
        return -1;
    return 0;
}

// Fills the reader's list with up to `num` nodes from log position `first`;
// the list position goes to its head. False when nothing came.
bool refill_list(const iframe_walk& w, uint32_t first, uint32_t num)
{
    _read_stream_segment_* rss = w.rss;
    unsigned long count = num;
    if (read_log_nodes(w, first, &count) != 0) {
        FAST_PLAY_LOG("Read_iframe_index failed(%ld)", long(rss->latest_iframe_index));
        return false;
    }
    rss->iframe_list_num = uint32_t(count);
    rss->iframe_list_pos = 0;
    return true;
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

// A reader's frame buffer is allocated at its first I-frame.
void ensure_frame_buffer(_read_stream_segment_* rss)
{
    if (rss->frame_buffer != nullptr)
        return;
    FAST_PLAY_LOG_ABOVE(2, "malloc frame buffer");
    rss->frame_buffer = static_cast<uint8_t*>(malloc(kFrameBufferStart));
    if (rss->frame_buffer == nullptr)
        FAST_PLAY_FATAL("CQzFileSystem::Read_iframe_data out of memory(%ld)",
                        long(kFrameBufferStart));
    rss->frame_buffer_len = kFrameBufferStart;
}

// Where the segment's log starts and how far its data goes. For a live
// writer, only what has reached the disk: bytes still in its unit buffer
// are not there yet, and the block behind them holds old data. A writer
// that closes meanwhile rewrites the reader's node under the disk lock, so
// the node is read under it too.
void measure_stream(iframe_walk& w, _opened_stream_segment_* writer)
{
    OptionalDiskLock lock(w.fs, writer != nullptr);
    w.stream_len = w.oss->ssi()->len_in_bytes;
    w.start_iframe = w.oss->ssi()->start_iframe;
    _opened_stream_segment_* live = writer != nullptr ? live_writer(w.fs, w.rss) : nullptr;
    if (live == nullptr)
        return;
    w.following_writer = true;
    _write_stream_segment_* wss = live->writer();
    if (wss->iframe_list_ptr > 1)
        w.fs.Write_iframe_index(wss, true);
    _stream_segment_index_node_dev_ node;
    writer_node_snapshot(live, &node);
    w.start_iframe = node.start_iframe;
    w.stream_len = writer_visible_len(live);
}

// Sets the reader up for playback in the walk's direction: from normal
// reading, at the I-frame nearest the read point; on a turn of direction,
// with the list to be read afresh. False when no I-frame is found.
bool enter_play_mode(iframe_walk& w, uint8_t next_iframe)
{
    _read_stream_segment_* rss = w.rss;
    if (rss->play_mode == 0) {
        if (rss->latest_iframe_index < w.start_iframe)
            rss->latest_iframe_index = w.start_iframe;
        uint32_t found = 0;
        int result;
        {
            OptionalDiskLock lock(w.fs, true);
            _opened_stream_segment_* live = w.following_writer ? live_writer(w.fs, rss) : nullptr;
            result = w.fs.Find_iframe_for_special_play(
                rss, live ? live->writer()->iframe_block_num : rss->iframe_block_num,
                live ? live->writer()->iframe_block_list : rss->iframe_block_list, w.start_iframe,
                next_iframe, &found);
        }
        if (result != 0) {
            FAST_PLAY_LOG("Find_iframe_for_fastplay failed");
            return false;
        }
        rss->play_mode = w.forward ? 1 : 2;
        rss->index_head_reached = 0;
        rss->latest_iframe_index = found;
        rss->iframe_list_num = rss->iframe_list_pos = 0;
    } else if (rss->play_mode == 1 && !w.forward) {
        rss->iframe_list_num = rss->iframe_list_pos = 0;
        rss->index_head_reached = 0;
        rss->play_mode = 2;
    } else if (rss->play_mode == 2 && w.forward) {
        rss->play_mode = 1;
        rss->iframe_list_num = rss->iframe_list_pos = 0;
        if (rss->latest_iframe_index < w.start_iframe)
            rss->latest_iframe_index = w.start_iframe;
        rss->index_head_reached = 0;
    }
    return true;
}

// Whether an I-frame node belongs to the stream this call may show: not
// before the segment's first I-frame, not past the end of its data, and
// with an offset of 0 only at the segment's first log position.
bool in_stream(const iframe_walk& w, const _iframe_index_node_dev_& node)
{
    const _read_stream_segment_* rss = w.rss;
    return !((rss->latest_iframe_index != w.start_iframe && node.stream_segment_offset == 0) ||
             node.stream_segment_offset < rss->first_iframe_offset ||
             node.stream_segment_offset - rss->first_iframe_offset >= w.stream_len);
}

// Forward: the I-frame at the list position or after it, passing over
// block entries and over `skip` I-frames. False at the end of the log or
// of the stream.
bool choose_forward(const iframe_walk& w, uint8_t skip, _iframe_index_node_dev_* chosen)
{
    _read_stream_segment_* rss = w.rss;
    for (uint8_t counter = 0;;) {
        if (rss->iframe_list_pos >= rss->iframe_list_num &&
            !refill_list(w, rss->latest_iframe_index, FS_IFI_BUFFER_NUM))
            return false;
        const _iframe_index_node_dev_& node = rss->iframe_list[rss->iframe_list_pos];
        if (node.id == IFRAME_INDEX_ID_BLOCK) {
            rss->iframe_list_pos++;
            rss->latest_iframe_index++;
            continue;
        }
        if (node.id != IFRAME_INDEX_ID_IFRAME) {
            FAST_PLAY_LOG("IFRAME_INDEX_ID_FREE_AND_END(%ld)", long(rss->latest_iframe_index));
            return false;
        }
        if (!in_stream(w, node))
            return false;
        if (++counter > skip) {
            *chosen = node;
            return true;
        }
        rss->iframe_list_pos++;
        rss->latest_iframe_index++;
    }
}

// Back: fills the list with the stretch of the log (at most a list's worth,
// not before the segment's start) that ends at the position, and puts the
// list position behind its last node. False at the head of the log.
bool refill_backward(const iframe_walk& w)
{
    _read_stream_segment_* rss = w.rss;
    if (rss->index_head_reached == 1 || rss->latest_iframe_index < w.start_iframe) {
        FAST_PLAY_LOG_ABOVE(1, "FAST BACK NO DATA1(%ld)(%ld)(%d)", long(rss->latest_iframe_index),
                            long(w.start_iframe), int(rss->index_head_reached));
        return false;
    }
    const uint32_t num =
        std::min<uint32_t>(rss->latest_iframe_index + 1 - w.start_iframe, FS_IFI_BUFFER_NUM);
    const uint32_t first = rss->latest_iframe_index + 1 - num;
    if (!refill_list(w, first, num))
        return false;
    // Forward play may have left the position behind the log's last node:
    // the walk down starts at that node.
    if (rss->iframe_list_num < num)
        rss->latest_iframe_index = first + rss->iframe_list_num - 1;
    rss->iframe_list_pos = rss->iframe_list_num;
    return true;
}

// Back: the I-frame below the list position, passing over `skip` of them.
// False at the segment's start or at the end of its stream.
bool choose_backward(const iframe_walk& w, uint8_t skip, _iframe_index_node_dev_* chosen)
{
    _read_stream_segment_* rss = w.rss;
    for (uint8_t counter = 0;;) {
        if ((rss->iframe_list_num == 0 || rss->iframe_list_pos == 0) && !refill_backward(w))
            return false;
        const _iframe_index_node_dev_& node = rss->iframe_list[rss->iframe_list_pos - 1];
        if (node.id == IFRAME_INDEX_ID_IFRAME) {
            if (!in_stream(w, node))
                return false;
            if (++counter > skip) {
                rss->iframe_list_pos--;
                *chosen = node;
                return true;
            }
        }
        if (rss->latest_iframe_index != 0)
            rss->latest_iframe_index--;
        if (rss->latest_iframe_index < w.start_iframe)
            return false;
        rss->iframe_list_pos--;
        if (rss->latest_iframe_index == 0)
            rss->index_head_reached = 1;
    }
}

// Reads the next unit of the frame into the buffer behind the bytes held,
// growing the buffer first when the unit would not fit. A first unit that
// starts ahead of the frame keeps the bytes from the frame on; a unit that
// opens the next block loses that block's head. False on a read error.
bool read_frame_unit(const iframe_walk& w, frame_read& f)
{
    _read_stream_segment_* rss = w.rss;
    const uint32_t unit = w.unit;
    if (f.frame_start + f.held + unit > rss->frame_buffer_len) {
        const uint32_t grown = f.frame_start + f.held + unit;
        FAST_PLAY_LOG_ABOVE(2, "CQzFileSystem::Read_iframe_data remalloc1(%ld)(%ld)",
                            long(rss->frame_buffer_len), long(grown));
        if (!grow_frame_buffer(rss, grown))
            FAST_PLAY_FATAL("CQzFileSystem::Read_iframe_data out of memory");
        memmove(rss->frame_buffer, rss->frame_buffer + f.frame_start, f.held);
        f.frame_start = 0;
    }
    uint8_t* into = rss->frame_buffer + f.frame_start + f.held;
    if (qzfs_read(w.oss->io_channel, into, int(unit)) != int(unit)) {
        FAST_PLAY_LOG("Read failed(%ld)(%ld)", long(f.block), long(f.offset));
        return false;
    }
    f.held_before = f.held;
    const uint32_t m = f.offset % unit;
    if (f.block_head) {
        // The next block's head is no part of the stream: its frame bytes
        // start at byte 4096.
        memmove(into, into + QZFS_DATA_BLOCK_HEAD, unit - QZFS_DATA_BLOCK_HEAD);
        f.held += unit - QZFS_DATA_BLOCK_HEAD;
        f.unit_frame_offset = QZFS_DATA_BLOCK_HEAD;
        f.block_head = false;
    } else if (m != 0) {
        if (f.frame_start != 0)
            FAST_PLAY_FATAL("CQzFileSystem::Read_iframe_data FATAL1(%ld)", long(f.frame_start));
        if (f.held != 0)
            FAST_PLAY_FATAL("CQzFileSystem::Read_iframe_data FATAL2(%ld)", long(f.held));
        f.frame_start = m;
        f.held = unit - m;
        f.unit_frame_offset = f.offset;
    } else {
        f.held += unit;
        f.unit_frame_offset = f.offset;
    }
    return true;
}

// Checks the frame header once its bytes are in: an I-frame of the
// reader's channel, of a sane length, that ends inside the stream. Sets
// the frame length and grows the buffer to hold the whole frame.
frame_step check_frame_header(const iframe_walk& w, frame_read& f)
{
    _read_stream_segment_* rss = w.rss;
    _av_frame_header_ header;
    memcpy(&header, rss->frame_buffer + f.frame_start, sizeof(header));
    uint8_t channel = 0;
    _qzfs_frame_type_ type = QZFS_FRAME_INVALID;
    const uint8_t want_channel = w.oss->root()->channel;
    if (w.fs.Get_frame_info(&header, &channel, &type) != 0 || type != QZFS_FRAME_I ||
        (want_channel < 255 && channel != want_channel)) {
        uint32_t word;
        memcpy(&word, &header, sizeof(word));
        FAST_PLAY_LOG_ABOVE(1, "invalid frame type(%08lx)", (unsigned long)word);
        return FRAME_UNUSABLE;
    }
    f.need = kFrameHeaderLen + qzfs_frame_u24(header.frame_len) +
             qzfs_frame_u24(header.extend_len);
    if (f.need > QZFS_MAX_FRAME_LEN) {
        FAST_PLAY_LOG_ABOVE(1, "invalid frame len:%ld", long(f.need));
        return FRAME_UNUSABLE;
    }
    if (f.stream_position + f.need > w.stream_len) {
        if (!w.forward)
            return FRAME_UNUSABLE;
        FAST_PLAY_LOG("out of stream segment:%lld, %ld, %lld", (long long)f.stream_position,
                      long(f.need), (long long)w.stream_len);
        return FRAME_FAILED;
    }
    if (f.frame_start + f.need > rss->frame_buffer_len) {
        const uint32_t grown = std::max(f.frame_start + f.need, f.frame_start + f.held + w.unit);
        FAST_PLAY_LOG_ABOVE(2, "remalloc2(%ld)(%ld)", long(rss->frame_buffer_len), long(grown));
        if (!grow_frame_buffer(rss, grown))
            FAST_PLAY_FATAL("CQzFileSystem::Read_iframe_data out of memory:%ld", long(grown));
    }
    return FRAME_GO_ON;
}

// The frame goes on in the segment's next block: the block entry that
// follows in the log names it. A node of another kind there makes the
// frame unusable.
frame_step go_to_next_block(const iframe_walk& w, frame_read& f)
{
    _read_stream_segment_* rss = w.rss;
    if (rss->iframe_list_pos >= rss->iframe_list_num) {
        f.list_refilled = true;
        if (!refill_list(w, rss->latest_iframe_index, FS_IFI_BUFFER_NUM))
            return FRAME_FAILED;
    }
    const _iframe_index_node_dev_& next = rss->iframe_list[rss->iframe_list_pos];
    if (next.id != IFRAME_INDEX_ID_BLOCK)
        return FRAME_UNUSABLE;
    rss->iframe_list_pos++;
    rss->latest_iframe_index++;
    f.block = next.block_num;
    f.offset = 0;
    f.block_head = true;
    if (qzfs_seek(w.oss->io_channel, f.block, 0) != 0) {
        FAST_PLAY_LOG("seek failed(%ld)(%ld)", long(f.block), 0L);
        return FRAME_FAILED;
    }
    return FRAME_GO_ON;
}

// Reads the frame, unit by unit, from its node's position, through the
// reader's own channel.
frame_step read_frame(const iframe_walk& w, frame_read& f)
{
    if (qzfs_seek(w.oss->io_channel, f.block, f.offset - f.offset % w.unit) != 0) {
        FAST_PLAY_LOG("seek failed(%ld)(%ld)", long(f.block), long(f.offset));
        return FRAME_FAILED;
    }
    for (;;) {
        if (!read_frame_unit(w, f))
            return FRAME_FAILED;
        // The header is checked with the unit that completes it.
        if (f.held_before < kFrameHeaderLen && f.held >= kFrameHeaderLen) {
            const frame_step checked = check_frame_header(w, f);
            if (checked != FRAME_GO_ON)
                return checked;
        }
        if (f.held >= kFrameHeaderLen && f.held >= f.need)
            return FRAME_DONE;
        f.offset = f.offset - f.offset % w.unit + w.unit;
        if (f.offset < w.block_size)
            continue;
        const frame_step moved = go_to_next_block(w, f);
        if (moved != FRAME_GO_ON)
            return moved;
    }
}

// One pass of the walk: chooses the next I-frame in the walk's direction
// and reads it. Going back, the walk then goes on below the node chosen,
// whether its frame was usable or not.
frame_step take_next_iframe(const iframe_walk& w, uint8_t skip, frame_read* frame)
{
    _read_stream_segment_* rss = w.rss;
    _iframe_index_node_dev_ chosen;
    memset(&chosen, 0, sizeof(chosen));
    if (!(w.forward ? choose_forward(w, skip, &chosen) : choose_backward(w, skip, &chosen)))
        return FRAME_FAILED;
    const uint32_t resume_pos = rss->iframe_list_pos;
    const uint32_t resume_latest =
        rss->latest_iframe_index != 0 ? rss->latest_iframe_index - 1 : 0;
    rss->iframe_index = rss->latest_iframe_index;
    rss->iframe_list_pos++;
    rss->latest_iframe_index++;

    *frame = frame_read(chosen, chosen.stream_segment_offset - rss->first_iframe_offset);
    const frame_step step = read_frame(w, *frame);
    if (step == FRAME_FAILED)
        return step;
    // Normal reading after this frame scans the log for block entries from
    // behind the frame's last block.
    frame->behind_frame = rss->latest_iframe_index;
    if (!w.forward) {
        rss->latest_iframe_index = resume_latest;
        if (frame->list_refilled)
            rss->iframe_list_num = rss->iframe_list_pos = 0;
        else
            rss->iframe_list_pos = resume_pos;
    }
    return step;
}

// Hands the frame out and leaves the reader's normal read point right
// behind it.
int hand_out_frame(_read_stream_segment_* rss, const frame_read& f, uint8_t** buffer, int* len)
{
    *buffer = rss->frame_buffer + f.frame_start;
    *len = int(f.need);
    rss->already_read_len = f.stream_position + f.need;
    rss->block_index = f.block;
    rss->block_offset = f.unit_frame_offset + (f.need - f.held_before);
    rss->iframe_index = f.behind_frame;
    rss->need_seek = 1;
    rss->need_first_iframe = 0;
    rss->cache_ptr = rss->cache_len = 0;
    return int(f.need);
}

// The walk below logs in the name of the member that starts playback with it.
const char kSpecialPlay[] = "Find_iframe_for_special_play";
#define SPECIAL_PLAY_LOG_ABOVE(level, ...)                \
    do {                                                  \
        if (g_qzfs_debug_level > (uint32_t)(level))       \
            QZLOG_AS(kSpecialPlay, __VA_ARGS__);          \
    } while (0)

// Walks the log from `position` to the read point: forward, to the first
// I-frame at or past it; back, to the last one before it. The walk ends at
// the end of the log, at an I-frame out of order and at one before the
// segment's first. 0, or -1 when no I-frame is found.
int walk_to_read_point(CQzFileSystem& fs, iframe_log_reader& log,
                       const _read_stream_segment_* rss, uint32_t position, bool forward,
                       uint32_t start_iframe_index, uint32_t* found_index)
{
    uint32_t remembered = start_iframe_index;
    bool have_remembered = false;
    _iframe_index_node_dev_ node;
    _iframe_index_node_dev_ last;
    memset(&last, 0, sizeof(last));
    bool have_last = false;
    for (;; position++) {
        const int got = log.fetch(position, &node);
        if (got == iframe_log_reader::PAST_CHAIN)
            break;
        if (got == iframe_log_reader::READ_FAILED) {
            QZLOG_AS(kSpecialPlay,
                     "Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)",
                     log.block(), log.unit_offset());
            break;
        }
        if (fs.Check_iframe_index_dev_node(&node) != 0) {
            QZLOG_AS(kSpecialPlay, "Check_iframe_index_dev_node failed(index:%ld)",
                     long(position));
            node.id = IFRAME_INDEX_ID_FREE_AND_END;
        }
        if (node.id == IFRAME_INDEX_ID_BLOCK)
            continue;
        if (node.id != IFRAME_INDEX_ID_IFRAME) {
            SPECIAL_PLAY_LOG_ABOVE(0, "Check_iframe_index_dev_node IFRAME_INDEX_ID_FREE_AND_END");
            break;
        }
        if (have_last && last.stream_segment_offset >= node.stream_segment_offset) {
            SPECIAL_PLAY_LOG_ABOVE(
                0, "(last_ifind.stream_segment_offset >= pIFind->stream_segment_offset)(%lld, %lld)",
                (long long)last.stream_segment_offset, (long long)node.stream_segment_offset);
            break;
        }
        if (node.stream_segment_offset < rss->first_iframe_offset) {
            QZLOG_AS(kSpecialPlay, "OUT OF RANGE");
            break;
        }
        const uint64_t rel = node.stream_segment_offset - rss->first_iframe_offset;
        if (rel >= rss->already_read_len) {
            if (forward) {
                *found_index = position;
                SPECIAL_PLAY_LOG_ABOVE(0, "FAST PLAY index:%ld(%02d:%02d:%02d)", long(position),
                                       int(node.hour), int(node.minute), int(node.second));
                return 0;
            }
            // Nothing before the read point yet, and this frame lies past it.
            if (!have_remembered && rel > rss->already_read_len)
                return -1;
            *found_index = remembered;
            SPECIAL_PLAY_LOG_ABOVE(0, "FAST BACK index:%ld(%02d:%02d:%02d)", long(remembered),
                                   int(last.hour), int(last.minute), int(last.second));
            return 0;
        }
        remembered = position;
        have_remembered = true;
        last = node;
        have_last = true;
    }
    if (forward || !have_remembered) {
        QZLOG_AS(kSpecialPlay, "FAILED");
        return -1;
    }
    *found_index = remembered;
    return 0;
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
    iframe_walk w(*this, oss, next_iframe == K4T_FS_TRUE, uint32_t(m_file_system_io_buffer_len),
                  uint32_t(m_manage.block_size));
    measure_stream(w, writer);
    if (w.forward && rss->already_read_len >= w.stream_len) {
        QZLOG_ABOVE(0, "FAST PLAY NO DATA:%lld, %lld", (long long)rss->already_read_len,
                    (long long)w.stream_len);
        return 0;
    }
    // A position of 12 or less holds no complete frame behind it.
    if (!w.forward && rss->already_read_len <= kFrameHeaderLen) {
        QZLOG("FAST BACK NO DATA:%lld", (long long)rss->already_read_len);
        return 0;
    }
    if (!enter_play_mode(w, next_iframe)) {
        before.restore(rss);
        return 0;
    }
    ensure_frame_buffer(rss);
    // A node whose frame turns out unusable sends the walk on to the next
    // one in the same direction. Any failure leaves the reader as it was.
    for (;;) {
        frame_read frame;
        const frame_step step = take_next_iframe(w, skip, &frame);
        if (step == FRAME_FAILED) {
            before.restore(rss);
            return 0;
        }
        if (step == FRAME_DONE)
            return hand_out_frame(rss, frame, buffer, len);
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
    if (!scan) {
        QZLOG("FAILED");
        return -1;
    }
    return walk_to_read_point(*this, log, rss, std::max(at.unit_first_index, start_iframe_index),
                              forward, start_iframe_index, found_index);
}

