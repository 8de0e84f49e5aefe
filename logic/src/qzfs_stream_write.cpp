// The write path: a writer's bytes go to its data blocks through its own
// device channel with no lock held; block entries and I-frame nodes gather
// in the writer's list and are flushed into the root's I-frame index under
// the disk lock. The segment node changes in memory and reaches the disk at
// the first I-frame (if its start moved) and at close.
#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_stream_support.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Where one call stands while its passes go by.
struct write_cursor {
    uint32_t block;        // data block of this pass
    uint32_t offset;       // write position in it
    uint32_t done;         // bytes of the buffer written so far
    uint32_t skip;         // bytes of this pass before the first I-frame
    int next_info;         // frame info still to place
    bool have_previous;    // an I-frame of this call has been placed
    uint32_t previous_offset;
};

// The block record of a new data block of the writer.
_qzfs_block_info_ data_block_record(CQzFileSystem& fs, const _opened_stream_segment_* oss)
{
    const _write_stream_segment_* wss = oss->writer();
    const _stream_segment_index_node_dev_* ssi = oss->ssi();
    _qzfs_block_info_ info;
    memset(&info, 0, sizeof(info));
    info.owner_stamp = uint32_t(fs.get_block_owner_stamp());
    info.block_type = QZFS_BLOCK_DATA;
    info.year = wss->date_time.year;
    info.month = wss->date_time.month;
    info.day = wss->date_time.day;
    info.hour = wss->date_time.hour;
    info.minute = wss->date_time.minute;
    info.second = wss->date_time.second;
    info.attr[0] = oss->root()->channel;
    info.attr[1] = oss->root()->stream_type;
    memcpy(info.attr + 2, &ssi->segment_type, 4);  // segment_type, record_type, lock, flags
    uint32_t first_iframe_block = wss->iframe_block_num > 0 ? wss->iframe_block_list[0] : 0;
    memcpy(info.attr + 6, &first_iframe_block, 4);
    uint32_t start_iframe;
    if (wss->confirm_start_iframe)
        memcpy(&start_iframe, &ssi->start_iframe, 4);
    else
        start_iframe = wss->data_block_num + wss->iframe_written_num + 1;
    memcpy(info.attr + 10, &start_iframe, 4);
    info.block_index = uint16_t(wss->data_block_num);
    return info;
}

// Puts the block entry of the writer's new data block `taken` into its
// list and writes the list to the index, under the writer lock; the disk
// lock is held when the caller wants it. 0 or -1.
int add_block_entry(CQzFileSystem& fs, _write_stream_segment_* wss, unsigned long taken)
{
    QzfsScopedLock writer_lock(wss->lock);
    _iframe_index_node_dev_& entry = wss->iframe_list[wss->iframe_list_ptr++];
    memset(&entry, 0, sizeof(entry));
    entry.id = IFRAME_INDEX_ID_BLOCK;
    entry.block_num = uint32_t(taken);
    entry.block_offset = wss->data_block_num;
    entry.pts_high = 1;  // share count
    if (fs.Write_iframe_index(wss, false) != 0) {
        QZLOG_AS("Write_video_data_free", "Write_iframe_index failed");
        return -1;
    }
    wss->data_block_num++;
    return 0;
}

// Takes a new data block and puts its block entry into the index before
// any byte of the block is written; then moves the channel to its data.
int open_data_block(CQzFileSystem& fs, _opened_stream_segment_* oss, bool take_disk_lock,
                    uint32_t* block)
{
    _write_stream_segment_* wss = oss->writer();
    {
        OptionalDiskLock disk(fs, take_disk_lock);
        _qzfs_block_info_ info = data_block_record(fs, oss);
        unsigned long taken = 0;
        if (fs.Request_free_block(1, &taken, &info, 0) != 0) {
            QZLOG_AS("Write_video_data_free", "request free block failed");
            return -1;
        }
        if (add_block_entry(fs, wss, taken) != 0)
            return -1;
        *block = uint32_t(taken);
    }
    if (take_disk_lock)
        fs.sync_device_if_due();
    if (qzfs_seek(oss->io_channel, *block, QZFS_DATA_BLOCK_HEAD) != 0) {
        QZLOG_AS("Write_video_data_free", "m_pIo_interface->Llseek failed(block_index:%ld)",
                 long(*block));
        return -1;
    }
    QZLOG_ABOVE(3, " NEW BLOCK OK(r:%ld)(s:%ld)(channel:%d)(block_index:%ld)",
                long(oss->root_index), long(oss->stream_segment_index),
                int(oss->root()->channel), long(*block));
    return 0;
}

// The first I-frame of a segment fixes its start: its index position and
// its time. A node that moved is written in its recording form. Readers and
// the overwrite planner look at the live node from other threads, so it
// and the flag change under the writer's lock; the disk write goes outside
// it, from a copy.
int confirm_segment_start(CQzFileSystem& fs, _opened_stream_segment_* oss,
                          const _k4t_video_frame_info_& frame, bool take_disk_lock)
{
    _write_stream_segment_* wss = oss->writer();
    _stream_segment_index_node_dev_* ssi = oss->ssi();
    _stream_segment_index_node_dev_ moved;
    bool changed = false;
    {
        QzfsScopedLock writer_lock(wss->lock);
        const uint32_t position = wss->iframe_written_num + wss->data_block_num;
        if (ssi->start_iframe != position) {
            QZLOG_ABOVE(1, "TOO MUCH RUBBISH DATA(%ld)(%ld)(r:%ld)(s:%ld)", long(ssi->start_iframe),
                        long(position), long(oss->root_index), long(oss->stream_segment_index));
            ssi->start_iframe = position;
            changed = true;
        }
        if (ssi->start_hour != frame.hour || ssi->start_minute != frame.minute ||
            ssi->start_second != frame.second) {
            QZLOG_ABOVE(0,
                        "INVALID VIDEO DATA(chn:%d)(stream type:%d)(%ld)(%ld)(%02d:%02d:%02d)"
                        "(%02d:%02d:%02d)",
                        int(oss->root()->channel), int(oss->root()->stream_type),
                        long(oss->root_index), long(oss->stream_segment_index),
                        int(ssi->start_hour), int(ssi->start_minute), int(ssi->start_second),
                        int(frame.hour), int(frame.minute), int(frame.second));
            ssi->start_hour = frame.hour;
            ssi->start_minute = frame.minute;
            ssi->start_second = frame.second;
            changed = true;
        }
        wss->date_time.hour = ssi->start_hour;
        wss->date_time.minute = ssi->start_minute;
        wss->date_time.second = ssi->start_second;
        moved = *ssi;
    }
    if (changed) {
        OptionalDiskLock disk(fs, take_disk_lock);
        if (fs.Modify_stream_segment(oss->root_index, wss->stream_segment_index_block_num,
                                     wss->stream_segment_index_block_list,
                                     oss->stream_segment_index, 1, &moved) != 0) {
            QZLOG_AS("Write_video_data_free", "Modify_stream_segment failed");
            return -1;
        }
    }
    QzfsScopedLock writer_lock(wss->lock);
    wss->confirm_start_iframe = 1;
    return 0;
}

// Adds the I-frame node of `frame`, which lies `place` bytes into the pass.
void buffer_iframe_node(_opened_stream_segment_* oss, const write_cursor& at,
                        const _k4t_video_frame_info_& frame, uint32_t place)
{
    _write_stream_segment_* wss = oss->writer();
    QzfsScopedLock writer_lock(wss->lock);
    if (!wss->first_frame && g_qzfs_debug_level >= 3) {
        const _k4t_fs_date_time_& last = wss->date_time;
        long before = long(qzfs_second_of_day(last.hour, last.minute, last.second));
        long now = long(qzfs_second_of_day(frame.hour, frame.minute, frame.second));
        if (now - before < 0 || now - before > 2)
            QZLOG_AS("Write_video_data_free",
                     "LOSE DATA(channel:%d)(stream type:%d)(%ld, %ld)(%02d:%02d:%02d)"
                     "(%02d:%02d:%02d)",
                     int(oss->root()->channel), int(oss->root()->stream_type), before, now,
                     int(last.hour), int(last.minute), int(last.second), int(frame.hour),
                     int(frame.minute), int(frame.second));
    }
    wss->first_frame = 0;
    wss->date_time.hour = frame.hour;
    wss->date_time.minute = frame.minute;
    wss->date_time.second = frame.second;

    _iframe_index_node_dev_& node = wss->iframe_list[wss->iframe_list_ptr];
    memset(&node, 0, sizeof(node));
    node.id = IFRAME_INDEX_ID_IFRAME;
    node.hour = frame.hour;
    node.minute = frame.minute;
    node.second = frame.second;
    node.block_num = at.block;
    node.block_offset = at.offset + place;
    node.pts_high = frame.pts_high;
    node.pts_low = frame.pts_low;
    node.stream_segment_offset = oss->ssi()->len_in_bytes + place - at.skip;
    wss->iframe_buffered_num++;
    wss->iframe_list_ptr++;
    wss->iframe_left_num++;
}

// Every third I-frame, or a full list, goes to the index.
int flush_if_due(CQzFileSystem& fs, _write_stream_segment_* wss, bool take_disk_lock)
{
    if (wss->iframe_list_ptr < FS_IFI_BUFFER_NUM && wss->iframe_left_num < 3)
        return 0;
    int result;
    {
        OptionalDiskLock disk(fs, take_disk_lock);
        QzfsScopedLock writer_lock(wss->lock);
        result = fs.Write_iframe_index(wss, false);
    }
    if (take_disk_lock)
        fs.sync_device_if_due();
    if (result != 0)
        QZLOG_AS("Write_video_data_free",
                 "((pWss->iframe_list_ptr >= FS_IFI_BUFFER_NUM) && (Write_iframe_index(pWss) != 0))");
    return result;
}

// Places the I-frames that lie in the `n` bytes just written.
int place_pass_iframes(CQzFileSystem& fs, _opened_stream_segment_* oss, write_cursor& at,
                       uint32_t n, const _k4t_video_frame_info_* infos, int frame_num,
                       bool take_disk_lock)
{
    for (; at.next_info < frame_num; at.next_info++) {
        const _k4t_video_frame_info_& frame = infos[at.next_info];
        if (frame.iframe_flag == 0)
            continue;
        if ((at.have_previous && frame.offset < at.previous_offset) || frame.offset < at.done) {
            QZLOG_AS("Write_video_data_free", "Iframe[%d] offset is err(%lu < %lu)(%d)!",
                     at.next_info, (unsigned long)frame.offset,
                     (unsigned long)(at.have_previous ? at.previous_offset : at.done), frame_num);
            continue;
        }
        if (frame.offset >= at.done + n)
            break;
        const uint32_t place = frame.offset - at.done;
        if (!oss->writer()->confirm_start_iframe) {
            if (confirm_segment_start(fs, oss, frame, take_disk_lock) != 0)
                return -1;
            at.skip = place;
        }
        buffer_iframe_node(oss, at, frame, place);
        at.have_previous = true;
        at.previous_offset = frame.offset;
        if (flush_if_due(fs, oss->writer(), take_disk_lock) != 0)
            return -1;
    }
    return 0;
}

}  // namespace

// ------------------------------------------------------------ free path

int CQzFileSystem::Write_video_data_free(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                                         int frame_num, _k4t_video_frame_info_* frame_info,
                                         uint8_t take_disk_lock)
{
    _write_stream_segment_* wss = oss->writer();
    const uint32_t block_size = uint32_t(m_manage.block_size);
    std::vector<_k4t_video_frame_info_> infos;
    if (frame_num >= 1)
        infos.assign(frame_info, frame_info + frame_num);

    // Passes: one for each block the call touches. The head of a new block
    // is not counted, so a call longer than a block's payload would lose its
    // tail: Write_video_data hands longer buffers over in pieces.
    uint64_t base = block_size - 1;
    if (wss->block_index != 0 && wss->block_offset < block_size &&
        wss->block_index <= m_manage.total_block)
        base += wss->block_offset;
    const uint64_t passes = (base + uint64_t(len)) / block_size;

    write_cursor at = {wss->block_index, wss->block_offset, 0, 0, 0, false, 0};
    for (uint64_t pass = 0; pass < passes && at.done < uint32_t(len); pass++) {
        if (at.block == 0 || at.offset >= block_size) {
            if (open_data_block(*this, oss, take_disk_lock != 0, &at.block) != 0)
                return -1;
            at.offset = QZFS_DATA_BLOCK_HEAD;
        }
        const uint32_t n = std::min(block_size - at.offset, uint32_t(len) - at.done);
        if (qzfs_write(oss->io_channel, buffer + at.done, int(n)) != int(n)) {
            QZLOG("qzfs write failed(block_index:%ld)(block_offset:%ld)", long(at.block),
                  long(at.offset));
            return -1;
        }
        if (place_pass_iframes(*this, oss, at, n, infos.data(), frame_num,
                               take_disk_lock != 0) != 0)
            return -1;
        if (wss->confirm_start_iframe) {
            // Readers of the live segment read the length under this lock.
            {
                QzfsScopedLock writer_lock(wss->lock);
                oss->ssi()->len_in_bytes += n - at.skip;
            }
            at.skip = 0;
        }
        at.done += n;
        at.offset += n;
    }
    wss->block_index = at.block;
    wss->block_offset = at.offset;
    if (frame_num >= 1 && memcmp(infos.data(), frame_info, infos.size() * sizeof(infos[0])) != 0)
        QZLOG("-------------------frame info change[stream type:%d]------------------------",
              int(oss->root()->stream_type));
    return 0;
}

// Copies to `out` the infos of `frame_info` whose offset lies in [from, to),
// each moved to offset - from + shift; returns how many.
static int copy_infos_in(const _k4t_video_frame_info_* frame_info, int frame_num, uint32_t from,
                         uint32_t to, uint32_t shift, _k4t_video_frame_info_* out)
{
    int copied = 0;
    for (int i = 0; i < frame_num; i++) {
        if (frame_info[i].offset < from || frame_info[i].offset >= to)
            continue;
        out[copied] = frame_info[i];
        out[copied++].offset = frame_info[i].offset - from + shift;
    }
    return copied;
}

// A buffer longer than a data block's payload goes to the free path in
// pieces of at most one payload, each with the frame infos that lie in it,
// rebased to it: the frames and their I-frame entries land where calls of
// that length would put them, and every byte reaches the disk.
int CQzFileSystem::Write_video_data_in_pieces(_opened_stream_segment_* oss, uint8_t* buffer,
                                              int len, int frame_num,
                                              _k4t_video_frame_info_* frame_info)
{
    const uint32_t payload = uint32_t(m_manage.block_size) - QZFS_DATA_BLOCK_HEAD;
    if (len <= 0 || uint32_t(len) <= payload)
        return Write_video_data_free(oss, buffer, len, frame_num, frame_info, 1);
    std::vector<_k4t_video_frame_info_> piece_infos(size_t(std::max(frame_num, 0)));
    for (uint32_t from = 0; from < uint32_t(len); from += payload) {
        const uint32_t n = std::min(payload, uint32_t(len) - from);
        const int count = copy_infos_in(frame_info, frame_num, from, from + n, 0, piece_infos.data());
        if (Write_video_data_free(oss, buffer + from, int(n), count,
                                  count > 0 ? piece_infos.data() : nullptr, 1) != 0)
            return -1;
    }
    return 0;
}

// ------------------------------------------------------------ unit path

int CQzFileSystem::Write_video_data_unit(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                                         int frame_num, _k4t_video_frame_info_* frame_info)
{
    _write_stream_segment_* wss = oss->writer();
    const uint32_t wanted = uint32_t(frame_num) + wss->frame_info_num;
    if (wanted > wss->frame_info_capacity) {
        void* grown = realloc(wss->frame_info_list, (wanted + 10) * sizeof(_k4t_video_frame_info_));
        if (grown == nullptr)
            QZFS_FATAL("CQzFileSystem::Write_video_data_unit out of memory(%ld)", long(wanted + 10));
        wss->frame_info_list = static_cast<_k4t_video_frame_info_*>(grown);
        wss->frame_info_capacity = wanted + 10;
    }
    uint32_t used = 0;
    if (wss->unit_len > 0) {
        used = std::min(uint32_t(len), QZFS_STREAM_UNIT - wss->unit_len);
        memcpy(wss->unit_buffer + wss->unit_len, buffer, used);
        wss->frame_info_num += uint32_t(copy_infos_in(frame_info, frame_num, 0, used, wss->unit_len,
                                                      wss->frame_info_list + wss->frame_info_num));
        wss->unit_len += used;
        if (wss->unit_len < QZFS_STREAM_UNIT)
            return 0;
        int result = Write_video_data_free(oss, wss->unit_buffer, int(QZFS_STREAM_UNIT),
                                           int(wss->frame_info_num), wss->frame_info_list, 1);
        wss->unit_len = wss->frame_info_num = 0;
        if (result != 0) {
            QZLOG("Write_video_data_free failed");
            return -1;
        }
    }
    while (uint32_t(len) - used >= QZFS_STREAM_UNIT) {
        // The caller's own entries of this unit, rebased in place.
        int first = 0, count = 0;
        for (int i = 0; i < frame_num; i++) {
            if (frame_info[i].offset < used || frame_info[i].offset >= used + QZFS_STREAM_UNIT)
                continue;
            if (count++ == 0)
                first = i;
            frame_info[i].offset -= used;
        }
        if (Write_video_data_free(oss, buffer + used, int(QZFS_STREAM_UNIT), count,
                                  count > 0 ? frame_info + first : nullptr, 1) != 0) {
            QZLOG("Write_video_data_free failed");
            return -1;
        }
        used += QZFS_STREAM_UNIT;
    }
    memcpy(wss->unit_buffer, buffer + used, uint32_t(len) - used);
    wss->frame_info_num += uint32_t(copy_infos_in(frame_info, frame_num, used, uint32_t(len), 0,
                                                  wss->frame_info_list + wss->frame_info_num));
    wss->unit_len = uint32_t(len) - used;
    return 0;
}

// ------------------------------------------------------------ one call

int CQzFileSystem::Write_video_data(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                                    int frame_num, _k4t_video_frame_info_* frame_info)
{
    _write_stream_segment_* wss = oss->writer();
    _stream_segment_index_node_dev_* ssi = oss->ssi();
    const int8_t stream_type = int8_t(oss->root()->stream_type);
    if (stream_type < 0 && !wss->confirm_start_iframe && (frame_info == nullptr || frame_num == 0))
        frame_num = 0;
    int result = wss->unit_buffer != nullptr
                     ? Write_video_data_unit(oss, buffer, len, frame_num, frame_info)
                     : Write_video_data_in_pieces(oss, buffer, len, frame_num, frame_info);
    if (result != 0) {
        QZLOG("ERROR");
        oss->exist_error = K4T_FS_TRUE;
        return -1;
    }
    if (wss->confirm_start_iframe && frame_num > 0) {
        const _k4t_video_frame_info_& last = frame_info[frame_num - 1];
        // Readers that search or seek copy the live node under this lock.
        QzfsScopedLock writer_lock(wss->lock);
        if (ssi->end_hour == QZFS_INVALID_END_HOUR ||
            qzfs_second_of_day(ssi->end_hour, ssi->end_minute, ssi->end_second) <
                qzfs_second_of_day(last.hour, last.minute, last.second)) {
            ssi->end_hour = last.hour;
            ssi->end_minute = last.minute;
            ssi->end_second = last.second;
        }
    }
    if (oss->root()->stream_type == 3 || oss->root()->stream_type == 4) {
        int synced;
        {
            OptionalDiskLock disk(*this, true);
            QZLOG_ABOVE(3, "sync log file(stream type:%d)", int(oss->root()->stream_type));
            synced = Write_iframe_index(wss, true) == 0 &&
                             Modify_stream_segment(oss->root_index,
                                                   wss->stream_segment_index_block_num,
                                                   wss->stream_segment_index_block_list,
                                                   oss->stream_segment_index, 0, ssi) == 0
                         ? 0
                         : -1;
        }
        if (synced != 0 || fsync_stream_segment(oss) != 0) {
            oss->exist_error = K4T_FS_TRUE;
            return -1;
        }
    }
    return len;
}

// ----------------------------------------------------------- the index

int CQzFileSystem::Write_iframe_index(_write_stream_segment_* wss, bool take_lock)
{
    QzfsScopedLock writer_lock(take_lock ? wss->lock : nullptr);
    int result = 0;
    if (wss->iframe_list_ptr != 0) {
        const _k4t_fs_date_time_& dt = wss->date_time;
        const uint8_t date_time[6] = {dt.year, dt.month, dt.day, dt.hour, dt.minute, dt.second};
        m_defer_device_sync = true;
        if (Add_iframe_index(&wss->iframe_block_num, &wss->iframe_block_list,
                             wss->iframe_written_num + wss->data_block_num, wss->iframe_list,
                             wss->iframe_list_ptr, date_time) != 0) {
            QZLOG("Add_iframe_index failed");
            result = -1;
        }
        m_defer_device_sync = false;
    }
    if (result == 0) {
        wss->iframe_written_num += wss->iframe_buffered_num;
        wss->iframe_list_ptr = wss->iframe_left_num = wss->iframe_buffered_num = 0;
        Update_iframe_block_info(wss);
    }
    return result;
}

void CQzFileSystem::sync_device_if_due()
{
    if (!m_device_sync_due.exchange(false))
        return;
    QZLOG_ABOVE(3, "start sync %s", m_dev_path.c_str());
    qzfs_sync(m_pIo_interface);
    QZLOG_ABOVE(3, "end sync %s", m_dev_path.c_str());
}

// ------------------------------------------------------- flush and close

int CQzFileSystem::fsync_segment_data(_opened_stream_segment_* oss)
{
    _write_stream_segment_* wss = oss->writer();
    _stream_segment_index_node_dev_* ssi = oss->ssi();
    QZLOG_ABOVE(2, "left iframe num:%lu,left data:%lu", (unsigned long)wss->iframe_list_ptr,
                (unsigned long)wss->unit_len);
    if (wss->unit_len > 0) {
        const uint32_t infos = wss->frame_info_num;
        Write_video_data_free(oss, wss->unit_buffer, int(wss->unit_len), int(infos),
                              wss->frame_info_list, 0);
        if (wss->confirm_start_iframe && infos > 0 && ssi->end_hour == QZFS_INVALID_END_HOUR) {
            const _k4t_video_frame_info_& last = wss->frame_info_list[infos - 1];
            QzfsScopedLock writer_lock(wss->lock);
            ssi->end_hour = last.hour;
            ssi->end_minute = last.minute;
            ssi->end_second = last.second;
        }
        wss->unit_len = wss->frame_info_num = 0;
    }
    write_end_mark(oss);
    if (Write_iframe_index(wss, true) != 0) {
        QZLOG("Write_iframe_index failed");
        return -1;
    }
    return 0;
}

// Puts the end mark right behind the writer's data, as much of it as the
// block has room for, and leaves the channel where the next frame goes, so
// that the next write covers the mark. After a power cut the mark tells the
// stream end repair that the frame in front of it is whole.
void CQzFileSystem::write_end_mark(_opened_stream_segment_* oss)
{
    const _write_stream_segment_* wss = oss->writer();
    const unsigned long block_size = m_manage.block_size;
    if (wss->block_index == 0 || wss->block_offset >= block_size)
        return;
    uint8_t mark[QZFS_FRAME_END_MARK_LEN];
    qzfs_frame_end_mark(oss->root()->channel, mark);
    const int room = int(std::min<unsigned long>(QZFS_FRAME_END_MARK_LEN,
                                                 block_size - wss->block_offset));
    if (qzfs_seek(oss->io_channel, wss->block_index, wss->block_offset) != 0 ||
        qzfs_write(oss->io_channel, mark, room) != room)
        QZLOG("write end mark failed(block_index:%ld)(block_offset:%ld)", long(wss->block_index),
              long(wss->block_offset));
    if (qzfs_seek(oss->io_channel, wss->block_index, wss->block_offset) != 0)
        QZLOG("seek failed(block_index:%ld)(block_offset:%ld)", long(wss->block_index),
              long(wss->block_offset));
}

int CQzFileSystem::fsync_stream_segment(_opened_stream_segment_* oss)
{
    int result = 0;
    if (m_pIo_interface != nullptr) {
        m_device_sync_due = false;
        QZLOG_ABOVE(3, "start sync m dev handle!");
        result |= qzfs_sync(m_pIo_interface);
        QZLOG_ABOVE(3, "end sync m dev handle!");
    }
    QZLOG_ABOVE(3, "start sync stream handle!");
    result |= qzfs_sync(oss->io_channel);
    QZLOG_ABOVE(3, "end sync stream handle!");
    return result == 0 ? 0 : -1;
}

int CQzFileSystem::Close_writing_stream_segment(_opened_stream_segment_* oss)
{
    _write_stream_segment_* wss = oss->writer();
    _stream_segment_index_node_dev_* ssi = oss->ssi();
    fsync_segment_data(oss);
    if (wss->delete_len != 0)
        ssi->len_in_bytes -= wss->delete_len;
    if (ssi->len_in_bytes == 0 || ssi->end_hour == QZFS_INVALID_END_HOUR) {
        QZLOG("BLANK STREAM SEGMENT");
        memset(ssi, 0, sizeof(*ssi));
    }
    if (Modify_stream_segment(oss->root_index, wss->stream_segment_index_block_num,
                              wss->stream_segment_index_block_list, oss->stream_segment_index, 0,
                              ssi) != 0)
        QZLOG("Modify stream segment failed");
    else if (ssi->id == FREE_STREAM_SEGMENT_INDEX)
        check_and_modify_root_info(oss->root_index, nullptr);
    QZLOG_ABOVE(2, "stream:%d,chn:%d,%d:%d:%d-%d-%d-%d,len:%llu", int(oss->root()->stream_type),
                int(oss->root()->channel), int(ssi->start_hour), int(ssi->start_minute),
                int(ssi->start_second), int(ssi->end_hour), int(ssi->end_minute),
                int(ssi->end_second), (unsigned long long)ssi->len_in_bytes);
    fsync_stream_segment(oss);
    qzfs_destroy_io_interface(oss->io_channel);
    oss->io_channel = nullptr;
    return 0;
}
