#include "frame_source.h"

#include "qzfs_av_frame.h"

#include <cstring>

_qzfs_k4t_create_ss_para_ recording_request(uint8_t channel, uint8_t stream_type,
                                            const _k4t_fs_date_time_& start, int group)
{
    _qzfs_k4t_create_ss_para_ para;
    memset(&para, 0, sizeof(para));
    para.year = start.year;
    para.month = start.month;
    para.day = start.day;
    para.hour = start.hour;
    para.minute = start.minute;
    para.second = start.second;
    para.dst = start.dst;
    para.channel = channel;
    para.stream_type = stream_type;
    para.group_id = group;
    return para;
}

_k4t_stream_query_ whole_day_query(uint8_t year, uint8_t month, uint8_t day)
{
    _k4t_stream_query_ q;
    memset(&q, 0, sizeof(q));
    q.group_bitmap = 1;
    q.channel_bitmap = 0xFFFFFFFFu;
    q.year = year;
    q.month = month;
    q.day = day;
    q.end_hour = 23;
    q.end_minute = 59;
    q.end_second = 59;
    q.sequence = _K4T_SEQUECE_ASCEND_;
    q.lock_bitmap = 0xFF;
    q.record_type_bitmap = 0xFF;
    q.stream_type_bitmap = ~0ULL;
    q.item_num_per_page = 64;
    return q;
}

unsigned FrameSource::next_second_of_day() const
{
    const _k4t_fs_date_time_& s = config_.start;
    return s.hour * 3600u + s.minute * 60u + s.second + unsigned(frame_ / config_.fps);
}

uint8_t FrameSource::payload_byte(uint8_t channel, uint64_t frame, uint32_t i)
{
    uint32_t seed = uint32_t(frame * 2654435761u) ^ (uint32_t(channel) << 24);
    return uint8_t(seed + i * 131u + (i >> 8));
}

void FrameSource::append_frame(FrameBatch& batch)
{
    const bool iframe = frame_ % config_.gop == 0;
    const uint32_t payload = iframe ? config_.iframe_bytes : config_.pframe_bytes;
    const unsigned second = next_second_of_day() % 86400;
    const uint64_t pts = frame_ * (90000 / config_.fps);
    const size_t at = batch.bytes.size();
    batch.bytes.resize(at + frame_bytes(iframe));
    uint8_t* p = &batch.bytes[at];

    p[0] = config_.channel;
    p[1] = iframe ? QZFS_FRAME_CHAR_IFRAME : QZFS_FRAME_CHAR_PFRAME;
    p[2] = QZFS_FRAME_MAGIC_0;
    p[3] = QZFS_FRAME_MAGIC_1;
    qzfs_frame_put_u24(p + 4, payload);
    p[7] = 0;
    qzfs_frame_put_u24(p + 8, kRecordBytes);
    p[11] = 0;

    uint8_t* rec = p + 12;
    rec[0] = QZFS_FRAME_EXT_DATE_TIME;
    qzfs_frame_put_u24(rec + 1, QZFS_FRAME_EXT_RECORD_LEN);
    rec[4] = config_.start.year;
    rec[5] = config_.start.month;
    rec[6] = config_.start.day;
    rec[7] = uint8_t(second / 3600);
    rec[8] = uint8_t(second / 60 % 60);
    rec[9] = uint8_t(second % 60);
    rec[10] = rec[11] = 0;
    rec += QZFS_FRAME_EXT_RECORD_LEN;
    rec[0] = QZFS_FRAME_EXT_PTS;
    qzfs_frame_put_u24(rec + 1, QZFS_FRAME_EXT_RECORD_LEN);
    memcpy(rec + 4, &pts, 8);

    uint8_t* body = p + 12 + kRecordBytes;
    for (uint32_t i = 0; i < payload; i++)
        body[i] = payload_byte(config_.channel, frame_, i);

    if (iframe) {
        _k4t_video_frame_info_ info = {};
        info.hour = uint8_t(second / 3600);
        info.minute = uint8_t(second / 60 % 60);
        info.second = uint8_t(second % 60);
        info.iframe_flag = 1;
        info.offset = uint32_t(at);
        info.pts_high = uint32_t(pts >> 32);
        info.pts_low = uint32_t(pts);
        batch.infos.push_back(info);
    }
    frame_++;
}

void FrameSource::append_frames(FrameBatch& batch, unsigned frames)
{
    for (unsigned i = 0; i < frames; i++)
        append_frame(batch);
}
