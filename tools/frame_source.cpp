#include "frame_source.h"

#include "qzfs_frame.h"

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

    _k4t_fs_date_time_ when = config_.start;
    when.hour = uint8_t(second / 3600);
    when.minute = uint8_t(second / 60 % 60);
    when.second = uint8_t(second % 60);
    const char type = iframe ? QZFS_FRAME_TYPE_IFRAME : QZFS_FRAME_TYPE_PFRAME;
    qzfs_frame_put_prefix(p, config_.channel, type, payload, &when, pts);

    uint8_t* body = p + QZFS_FRAME_PREFIX_LEN;
    for (uint32_t i = 0; i < payload; i++)
        body[i] = payload_byte(config_.channel, frame_, i);

    if (iframe)
        batch.infos.push_back(qzfs_frame_iframe_info(&when, uint32_t(at), pts));
    frame_++;
}

void FrameSource::append_frames(FrameBatch& batch, unsigned frames)
{
    for (unsigned i = 0; i < frames; i++)
        append_frame(batch);
}
