// The recorder's frame as the library's frame readers see it. Data blocks
// hold a plain run of such frames from byte 4096 on; a frame may run over a
// block end and go on at byte 4096 of the stream's next block.
#ifndef QZFS_AV_FRAME_H
#define QZFS_AV_FRAME_H

#include <cstdint>

// _av_frame_header_: the 12 bytes in front of every frame. The 24-bit
// lengths are little-endian whatever the system's order.
//
//  offset size field       meaning
//   0      1   channel     channel of the frame
//   1      1   type        '2' I-frame, '3' P-frame, '4' audio
//   2      2   magic       'd', 'c'
//   4      3   frame_len   bytes of payload
//   7      1   (encoder's) not interpreted
//   8      3   extend_len  bytes of extended information
//  11      1   (encoder's) not interpreted
//
// Behind it: extend_len bytes of extended records, then frame_len bytes of
// payload. An extended record is a type byte, a 24-bit little-endian length
// of the whole record (at least 4), then its payload; type 2 is a date and
// time (year since 2000, month, day, hour, minute, second, 2 spare bytes),
// type 3 a presentation time of 8 bytes.
struct _av_frame_header_ {
    uint8_t channel;
    uint8_t type;
    uint8_t magic[2];
    uint8_t frame_len[3];
    uint8_t reserved1;
    uint8_t extend_len[3];
    uint8_t reserved2;
};
static_assert(sizeof(_av_frame_header_) == 12, "frame header is 12 bytes");

const uint8_t QZFS_FRAME_MAGIC_0 = 0x64;  // 'd'
const uint8_t QZFS_FRAME_MAGIC_1 = 0x63;  // 'c'
const uint8_t QZFS_FRAME_CHAR_IFRAME = '2';
const uint8_t QZFS_FRAME_CHAR_PFRAME = '3';
const uint8_t QZFS_FRAME_CHAR_AUDIO = '4';
// A frame of more bytes than this, header included, is no frame.
const uint32_t QZFS_MAX_FRAME_LEN = 0x100000;

const uint8_t QZFS_FRAME_EXT_DATE_TIME = 2;
const uint8_t QZFS_FRAME_EXT_PTS = 3;
const uint32_t QZFS_FRAME_EXT_RECORD_LEN = 12;

enum _qzfs_frame_type_ {
    QZFS_FRAME_I = 0,
    QZFS_FRAME_P = 1,
    QZFS_FRAME_AUDIO = 3,
    QZFS_FRAME_INVALID = 6,
};

inline uint32_t qzfs_frame_u24(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16;
}

inline void qzfs_frame_put_u24(uint8_t* p, uint32_t value)
{
    p[0] = uint8_t(value);
    p[1] = uint8_t(value >> 8);
    p[2] = uint8_t(value >> 16);
}

// The writer's end mark: 12 bytes it puts right behind its data at every
// flush, where the next frame will go. It is no frame (type '0', lengths
// out of range), so every frame reader stops at it; the stream end repair
// takes it as the proof that the frame in front of it reached the disk.
//
//  offset size  value
//   0      1    channel
//   1      1    '0'
//   2      2    'd', 'c'
//   4      8    "END MARK"
const uint32_t QZFS_FRAME_END_MARK_LEN = 12;

inline void qzfs_frame_end_mark(uint8_t channel, uint8_t mark[QZFS_FRAME_END_MARK_LEN])
{
    static const char kMarkTail[] = "0dcEND MARK";
    mark[0] = channel;
    for (uint32_t i = 1; i < QZFS_FRAME_END_MARK_LEN; i++)
        mark[i] = uint8_t(kMarkTail[i - 1]);
}

// For the rebuild's block scan: total length of the frame behind `header`
// (12 + extend_len + frame_len), or -1 when it is no frame; `is_iframe` is
// set to 1 for an I-frame.
int check_frame_header(const _av_frame_header_* header, uint8_t& is_iframe);

#endif
