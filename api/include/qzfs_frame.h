/*
 * qzfs_frame.h - builds the recorder frames that api_qzfs_write_video_data
 * takes, so that an application need not get their bytes right by hand.
 * Header only; C (C11) and C++.
 *
 * A frame is a 12-byte header, then its extended records, then its payload
 * (the encoder's bytes: an H.264 access unit, an audio packet...):
 *
 *  offset size  field
 *   0      1    channel of the frame (the segment's channel)
 *   1      1    type: '2' I-frame, '3' P-frame, '4' audio
 *   2      2    magic 'd', 'c'
 *   4      3    payload length, little-endian
 *   7      1    spare, 0
 *   8      3    length of the extended records, little-endian
 *  11      1    spare, 0
 *
 * The frames built here carry two extended records of 12 bytes each. An
 * extended record is a type byte, its whole length in 3 little-endian bytes
 * (12), then its contents:
 *
 *  type 2, date and time: year - 2000, month, day, hour, minute, second,
 *          then 2 spare bytes; the wall time of the frame, which the stream
 *          end repair and the rebuild from data read back;
 *  type 3, pts: the presentation time in 8 little-endian bytes. The library
 *          only orders frames by it; the recorder's convention is 90 kHz
 *          ticks.
 *
 * A frame, header included, is at most QZFS_FRAME_MAX_LEN bytes.
 *
 * Each I-frame of a write call also needs its _k4t_video_frame_info_ in the
 * call's frame info array, in ascending offset: its wall time, iframe_flag
 * 1, its offset in the call's buffer, and its pts split into two words.
 * qzfs_frame_iframe_info() fills one.
 */
#ifndef QZFS_FRAME_H
#define QZFS_FRAME_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "qzfilesystem_api.h"

#define QZFS_FRAME_HEADER_LEN 12
#define QZFS_FRAME_EXT_LEN 24 /* the date-time and pts records */
#define QZFS_FRAME_PREFIX_LEN (QZFS_FRAME_HEADER_LEN + QZFS_FRAME_EXT_LEN)
#define QZFS_FRAME_MAX_LEN 0x100000
#define QZFS_FRAME_TYPE_IFRAME '2'
#define QZFS_FRAME_TYPE_PFRAME '3'
#define QZFS_FRAME_TYPE_AUDIO '4'

/* Bytes of a frame with `payload_len` bytes of payload, as built here. */
static inline size_t qzfs_frame_size(uint32_t payload_len)
{
    return QZFS_FRAME_PREFIX_LEN + (size_t)payload_len;
}

static inline void qzfs_frame_put_le(uint8_t* out, uint64_t value, int bytes)
{
    int i;
    for (i = 0; i < bytes; i++)
        out[i] = (uint8_t)(value >> (8 * i));
}

/* Writes the header and both extended records of a frame at `out`
 * (QZFS_FRAME_PREFIX_LEN bytes); the payload goes right behind them.
 * `type` is QZFS_FRAME_TYPE_IFRAME, QZFS_FRAME_TYPE_PFRAME or
 * QZFS_FRAME_TYPE_AUDIO, `when` the frame's wall time, `pts` its presentation time. Returns the bytes
 * written, or 0 when the frame would be longer than QZFS_FRAME_MAX_LEN. */
static inline size_t qzfs_frame_put_prefix(uint8_t* out, uint8_t channel, char type,
                                           uint32_t payload_len, const _k4t_fs_date_time_* when,
                                           uint64_t pts)
{
    uint8_t* ext = out + QZFS_FRAME_HEADER_LEN;
    if (qzfs_frame_size(payload_len) > QZFS_FRAME_MAX_LEN)
        return 0;
    out[0] = channel;
    out[1] = (uint8_t)type;
    out[2] = 'd';
    out[3] = 'c';
    qzfs_frame_put_le(out + 4, payload_len, 3);
    out[7] = 0;
    qzfs_frame_put_le(out + 8, QZFS_FRAME_EXT_LEN, 3);
    out[11] = 0;
    ext[0] = 2;
    qzfs_frame_put_le(ext + 1, 12, 3);
    ext[4] = when->year;
    ext[5] = when->month;
    ext[6] = when->day;
    ext[7] = when->hour;
    ext[8] = when->minute;
    ext[9] = when->second;
    ext[10] = ext[11] = 0;
    ext[12] = 3;
    qzfs_frame_put_le(ext + 13, 12, 3);
    qzfs_frame_put_le(ext + 16, pts, 8);
    return QZFS_FRAME_PREFIX_LEN;
}

/* The frame info of an I-frame that starts `offset` bytes into a write
 * call's buffer. */
static inline _k4t_video_frame_info_ qzfs_frame_iframe_info(const _k4t_fs_date_time_* when,
                                                            uint32_t offset, uint64_t pts)
{
    _k4t_video_frame_info_ info;
    memset(&info, 0, sizeof(info));
    info.hour = when->hour;
    info.minute = when->minute;
    info.second = when->second;
    info.iframe_flag = 1;
    info.offset = offset;
    info.pts_high = (uint32_t)(pts >> 32);
    info.pts_low = (uint32_t)pts;
    return info;
}

#endif /* QZFS_FRAME_H */
