// Frame readers: the recorder's frame as the I-frame reader, the end repair
// and the rebuild see it. The library never builds a frame; these routines
// only parse one, and they keep no state.
#include "qzfilesystem.h"
#include "qzfs_log.h"

#include <cstring>

namespace {

const uint32_t HEADER_LEN = sizeof(_av_frame_header_);
// Type byte and 24-bit length in front of every extended record.
const uint32_t EXT_RECORD_HEAD_LEN = 4;
// Bytes of a date-time record handed out: year, month, day, hour, minute, second.
const uint32_t EXT_DATE_TIME_LEN = 6;
const uint32_t EXT_PTS_LEN = 8;

uint32_t header_frame_len(const _av_frame_header_* header)
{
    return qzfs_frame_u24(header->frame_len);
}

uint32_t header_extend_len(const _av_frame_header_* header)
{
    return qzfs_frame_u24(header->extend_len);
}

// Header, extended records and payload together; 64 bits, so that no pair of
// 24-bit lengths can wrap.
uint64_t header_total_len(const _av_frame_header_* header)
{
    return uint64_t(HEADER_LEN) + header_extend_len(header) + header_frame_len(header);
}

_qzfs_frame_type_ frame_type_of(uint8_t type_char)
{
    switch (type_char) {
    case QZFS_FRAME_CHAR_IFRAME:
        return QZFS_FRAME_I;
    case QZFS_FRAME_CHAR_PFRAME:
        return QZFS_FRAME_P;
    case QZFS_FRAME_CHAR_AUDIO:
        return QZFS_FRAME_AUDIO;
    default:
        return QZFS_FRAME_INVALID;
    }
}

bool magic_is_sound(const _av_frame_header_* header)
{
    return header->magic[0] == QZFS_FRAME_MAGIC_0 && header->magic[1] == QZFS_FRAME_MAGIC_1;
}

} // namespace

// The type is looked at before the magic; both outputs are set whatever the
// outcome, so a caller can report what it saw.
int CQzFileSystem::Get_frame_info(const _av_frame_header_* header, uint8_t* channel,
                                  _qzfs_frame_type_* type)
{
    if (header == nullptr)
        return -1;
    _qzfs_frame_type_ found = frame_type_of(header->type);
    if (channel != nullptr)
        *channel = header->channel;
    if (type != nullptr)
        *type = found;
    if (found == QZFS_FRAME_INVALID)
        return -1;
    if (!magic_is_sound(header))
        return -1;
    return 0;
}

// The recorder's format carries no check sum, so there is nothing to verify.
int CQzFileSystem::Check_av_frame_check_sum(const uint8_t*, uint32_t)
{
    return 0;
}

int CQzFileSystem::Check_av_frame(const uint8_t* frame, uint32_t len, uint8_t channel)
{
    if (frame == nullptr || len < HEADER_LEN) {
        QZLOG("(channel:%d) invalid frame len1(%lu)(%lu)", channel, (unsigned long)len,
              (unsigned long)HEADER_LEN);
        return -1;
    }
    const _av_frame_header_* header = reinterpret_cast<const _av_frame_header_*>(frame);
    uint8_t frame_channel = 0;
    _qzfs_frame_type_ type = QZFS_FRAME_INVALID;
    if (Get_frame_info(header, &frame_channel, &type) != 0) {
        QZLOG("(channel:%d) Get_frame_info failed", channel);
        return -1;
    }
    uint64_t total = header_total_len(header);
    if (total != len) {
        QZLOG("(channel:%d) invalid frame len2(%ld)(%ld)", channel, (long)total, (long)len);
        return -1;
    }
    if (Check_av_frame_check_sum(frame, len) != 0) {
        QZLOG("(channel:%d) Check_av_frame_check_sum failed", channel);
        return -1;
    }
    return 0;
}

// Walks every extended record behind the header. The walk does not stop at
// a match: the last record of the wanted type wins, and a damaged record
// anywhere in the area fails the call. Only the date-time and presentation
// time records are ever handed out.
int CQzFileSystem::Get_av_frame_extend_info(const uint8_t* frame, uint32_t len, uint8_t type,
                                            void* out)
{
    if (frame == nullptr || len < HEADER_LEN) {
        QZLOG("invalid len1(%ld)(%lu)", (long)len, (unsigned long)HEADER_LEN);
        return -1;
    }
    const _av_frame_header_* header = reinterpret_cast<const _av_frame_header_*>(frame);
    const uint64_t end = uint64_t(HEADER_LEN) + header_extend_len(header);
    if (len < end) {
        QZLOG("invalid len2(%ld)(%ld)", (long)len, (long)end);
        return -1;
    }
    bool found = false;
    uint64_t pos = HEADER_LEN;
    while (pos < end) {
        const uint64_t remain = end - pos;
        if (remain < EXT_RECORD_HEAD_LEN) {
            QZLOG("invalid len3(%ld)(%lu)(%ld)", (long)pos, (unsigned long)remain, (long)end);
            return -1;
        }
        const uint8_t* record = frame + pos;
        const uint32_t record_len = qzfs_frame_u24(record + 1);
        if (record_len < EXT_RECORD_HEAD_LEN) {
            QZLOG("invalid lInfoLength(%lu)(%ld)", (unsigned long)record_len, (long)pos);
            return -1;
        }
        if (record_len > remain) {
            QZLOG("invalid len4(%ld)(%lu)(%ld)", (long)pos, (unsigned long)record_len, (long)end);
            return -1;
        }
        if (record[0] == type) {
            const uint8_t* payload = record + EXT_RECORD_HEAD_LEN;
            if (type == QZFS_FRAME_EXT_DATE_TIME) {
                if (record_len != QZFS_FRAME_EXT_RECORD_LEN) {
                    QZLOG("invalid len5(%lu)(%lu)(%ld)", (unsigned long)record_len,
                          (unsigned long)QZFS_FRAME_EXT_RECORD_LEN, (long)pos);
                    return -1;
                }
                if (out != nullptr)
                    memcpy(out, payload, EXT_DATE_TIME_LEN);
                const uint8_t year = payload[0], month = payload[1], day = payload[2];
                const uint8_t hour = payload[3], minute = payload[4], second = payload[5];
                if (year > 99 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
                    minute > 59 || second > 59) {
                    QZLOG("ivalid date time(20%02d-%02d-%02d)(%02d:%02d:%02d)", year, month, day,
                          hour, minute, second);
                    return -1;
                }
                found = true;
            } else if (type == QZFS_FRAME_EXT_PTS) {
                if (record_len != QZFS_FRAME_EXT_RECORD_LEN) {
                    QZLOG("invalid len6(%lu)(%lu)(%ld)", (unsigned long)record_len,
                          (unsigned long)QZFS_FRAME_EXT_RECORD_LEN, (long)pos);
                    return -1;
                }
                if (out != nullptr)
                    memcpy(out, payload, EXT_PTS_LEN);
                found = true;
            }
        }
        pos += record_len;
    }
    return found ? 0 : -1;
}

int CQzFileSystem::Print_av_frame_info(const char* tag, const uint8_t* frame, int len)
{
    if (tag == nullptr)
        tag = "";
    if (frame == nullptr || len < int(HEADER_LEN)) {
        QZLOG("  [%s]The buffer is too short!", tag);
        return -1;
    }
    const _av_frame_header_* header = reinterpret_cast<const _av_frame_header_*>(frame);
    uint8_t channel = 0;
    _qzfs_frame_type_ type = QZFS_FRAME_INVALID;
    if (Get_frame_info(header, &channel, &type) != 0) {
        QZLOG("  [%s]Not av frame!", tag);
        return -1;
    }
    // Get_frame_info lets only the three known kinds through; the test stays
    // so that a kind added there is not printed as one of these.
    if (type != QZFS_FRAME_I && type != QZFS_FRAME_P && type != QZFS_FRAME_AUDIO) {
        QZLOG("  [%s]Invalid frame type!", tag);
        return -1;
    }
    if (g_qzfs_debug_level <= 2)
        return 0;
    // The date record is looked up only when the line is printed: a frame
    // with damaged records must not make noise at quiet levels.
    uint8_t dt[EXT_DATE_TIME_LEN];
    const bool dated =
        Get_av_frame_extend_info(frame, uint32_t(len), QZFS_FRAME_EXT_DATE_TIME, dt) == 0;
    if (type == QZFS_FRAME_I) {
        if (dated)
            QZLOG("  [%s]I FRAME(channel:%d)(20%02d-%02d-%02d %02d:%02d:%02d)", tag, channel,
                  dt[0], dt[1], dt[2], dt[3], dt[4], dt[5]);
        else
            QZLOG("  [%s]I FRAME(channel:%d)", tag, channel);
    } else if (type == QZFS_FRAME_P) {
        if (dated)
            QZLOG("  [%s]P FRAME(channel:%d)(20%02d-%02d-%02d %02d:%02d:%02d)", tag, channel,
                  dt[0], dt[1], dt[2], dt[3], dt[4], dt[5]);
        else
            QZLOG("  [%s]P FRAME(channel:%d)", tag, channel);
    } else {
        if (dated)
            QZLOG("  [%s]AUDIO FRAME(channel:%d)(20%02d-%02d-%02d %02d:%02d:%02d)", tag, channel,
                  dt[0], dt[1], dt[2], dt[3], dt[4], dt[5]);
        else
            QZLOG("  [%s]AUDIO FRAME(channel:%d)", tag, channel);
    }
    return 0;
}

// Used by the rebuild's block scan, which has no file system object at hand
// for the header test and wants the I-frame flag together with the length.
int check_frame_header(const _av_frame_header_* header, uint8_t& is_iframe)
{
    is_iframe = 0;
    if (header == nullptr || !magic_is_sound(header))
        return -1;
    switch (header->type) {
    case QZFS_FRAME_CHAR_IFRAME:
        is_iframe = 1;
        break;
    case QZFS_FRAME_CHAR_PFRAME:
    case QZFS_FRAME_CHAR_AUDIO:
        break;
    default:
        return -1;
    }
    const uint64_t total = header_total_len(header);
    if (total > QZFS_MAX_FRAME_LEN)
        return -1;
    return int(total);
}
