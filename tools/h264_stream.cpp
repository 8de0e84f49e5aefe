#include "h264_stream.h"

#include "qzfs_av_frame.h"

#include <cstring>

static_assert(STORED_FRAME_HEADER_BYTES == sizeof(_av_frame_header_), "frame header size");
static_assert(STORED_FRAME_RECORD_BYTES == 2 * QZFS_FRAME_EXT_RECORD_LEN, "two records");

std::vector<H264Nal> h264_find_nals(const uint8_t* data, size_t size)
{
    std::vector<H264Nal> nals;
    // A start code cannot begin before this offset: the previous NAL unit's
    // header byte is its own.
    size_t min_start = 0;
    size_t i = 0;
    while (size >= 3 && i + 2 < size) {
        if (data[i + 2] > 1) {
            i += 3;  // no 00 00 01 can end at i + 2 or start before i + 3
            continue;
        }
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) {
            i++;
            continue;
        }
        const size_t header = i + 3;
        if (header >= size)
            break;  // a start code with nothing behind it: trailing bytes
        H264Nal nal;
        // One zero in front of 00 00 01 makes the four-byte form; more
        // zeros in front of that trail the previous NAL unit.
        nal.start = (i > min_start && data[i - 1] == 0) ? i - 1 : i;
        nal.header = header;
        nal.type = data[header] & 0x1F;
        if (!nals.empty())
            nals.back().end = nal.start;
        nals.push_back(nal);
        min_start = header + 1;
        i = header + 1;
    }
    if (!nals.empty())
        nals.back().end = size;
    return nals;
}

namespace {

bool is_slice(uint8_t type)
{
    return type == H264_NAL_SLICE || type == H264_NAL_SLICE_PARTITION_A ||
           type == H264_NAL_IDR_SLICE;
}

// first_mb_in_slice is the first Exp-Golomb code of the slice header; it is
// 0 exactly when its first bit is 1. Emulation prevention bytes cannot stand
// in the first byte behind the NAL header.
bool first_mb_is_zero(const uint8_t* data, const H264Nal& nal)
{
    return nal.header + 1 < nal.end && (data[nal.header + 1] & 0x80) != 0;
}

// NAL unit types that open a new access unit once the current one holds a
// slice: SEI, SPS, PPS, and prefix, subset SPS and the reserved 16 to 18.
bool starts_unit_after_slice(uint8_t type)
{
    return type == H264_NAL_SEI || type == H264_NAL_SPS || type == H264_NAL_PPS ||
           (type >= 14 && type <= 18);
}

} // namespace

std::vector<H264AccessUnit> h264_split_access_units(const uint8_t* data, size_t size)
{
    std::vector<H264AccessUnit> units;
    const std::vector<H264Nal> nals = h264_find_nals(data, size);
    if (nals.empty())
        return units;
    H264AccessUnit current;  // begins at 0: leading bytes go with the first unit
    for (const H264Nal& nal : nals) {
        bool boundary;
        if (nal.type == H264_NAL_AUD)
            boundary = current.nals > 0;
        else if (starts_unit_after_slice(nal.type))
            boundary = current.slices > 0;
        else if (is_slice(nal.type))
            boundary = current.slices > 0 && first_mb_is_zero(data, nal);
        else
            boundary = false;
        if (boundary) {
            current.length = nal.start - current.offset;
            units.push_back(current);
            current = H264AccessUnit();
            current.offset = nal.start;
        }
        current.nals++;
        if (is_slice(nal.type))
            current.slices++;
        if (nal.type == H264_NAL_IDR_SLICE)
            current.idr = true;
    }
    current.length = size - current.offset;
    units.push_back(current);
    return units;
}

bool wrap_stored_frame(std::vector<uint8_t>& out, uint8_t channel, bool iframe,
                       const _k4t_fs_date_time_& when, uint64_t pts, const uint8_t* payload,
                       size_t length)
{
    if (length > STORED_FRAME_MAX_PAYLOAD)
        return false;
    const size_t at = out.size();
    out.resize(at + qzfs_frame_size(uint32_t(length)));
    uint8_t* p = out.data() + at;
    qzfs_frame_put_prefix(p, channel, iframe ? QZFS_FRAME_TYPE_IFRAME : QZFS_FRAME_TYPE_PFRAME,
                          uint32_t(length), &when, pts);
    if (length > 0)
        memcpy(p + QZFS_FRAME_PREFIX_LEN, payload, length);
    return true;
}

bool StoredFrameParser::feed(const uint8_t* data, size_t size)
{
    if (!error_.empty())
        return false;
    if (used_ > 0) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + std::ptrdiff_t(used_));
        consumed_ += used_;
        used_ = 0;
    }
    buffer_.insert(buffer_.end(), data, data + size);
    return true;
}

size_t StoredFrameParser::drop_pending()
{
    const size_t dropped = pending();
    consumed_ += buffer_.size();
    buffer_.clear();
    used_ = 0;
    error_.clear();
    return dropped;
}

bool StoredFrameParser::next(StoredFrame& frame)
{
    if (!error_.empty())
        return false;
    return parse_one(frame);
}

bool StoredFrameParser::parse_one(StoredFrame& frame)
{
    const size_t avail = buffer_.size() - used_;
    if (avail < STORED_FRAME_HEADER_BYTES)
        return false;
    const uint8_t* p = buffer_.data() + used_;
    auto where = [this] { return " at stream offset " + std::to_string(offset()); };
    if (p[2] != QZFS_FRAME_MAGIC_0 || p[3] != QZFS_FRAME_MAGIC_1) {
        error_ = "no frame header" + where();
        return false;
    }
    if (p[1] != QZFS_FRAME_CHAR_IFRAME && p[1] != QZFS_FRAME_CHAR_PFRAME &&
        p[1] != QZFS_FRAME_CHAR_AUDIO) {
        error_ = "unknown frame type " + std::to_string(p[1]) + where();
        return false;
    }
    const uint32_t frame_len = qzfs_frame_u24(p + 4);
    const uint32_t extend_len = qzfs_frame_u24(p + 8);
    const uint64_t total = uint64_t(STORED_FRAME_HEADER_BYTES) + extend_len + frame_len;
    if (total > QZFS_MAX_FRAME_LEN) {
        error_ = "frame of " + std::to_string(total) + " bytes" + where();
        return false;
    }
    if (avail < total)
        return false;

    bool has_time = false, has_pts = false;
    _k4t_fs_date_time_ time = {};
    uint64_t pts = 0;
    const uint8_t* rec = p + STORED_FRAME_HEADER_BYTES;
    for (uint32_t pos = 0; pos < extend_len;) {
        const uint32_t left = extend_len - pos;
        const uint32_t len = left >= 4 ? qzfs_frame_u24(rec + pos + 1) : 0;
        if (left < 4 || len < 4 || len > left) {
            error_ = "broken extended record in the frame" + where();
            return false;
        }
        const uint8_t type = rec[pos];
        if ((type == QZFS_FRAME_EXT_DATE_TIME || type == QZFS_FRAME_EXT_PTS) &&
            len != QZFS_FRAME_EXT_RECORD_LEN) {
            error_ = "extended record of type " + std::to_string(type) + " with length " +
                     std::to_string(len) + where();
            return false;
        }
        if (type == QZFS_FRAME_EXT_DATE_TIME) {
            const uint8_t* t = rec + pos + 4;
            time = {t[0], t[1], t[2], t[3], t[4], t[5], 0};
            has_time = true;
        } else if (type == QZFS_FRAME_EXT_PTS) {
            for (int i = 7; i >= 0; i--)
                pts = pts << 8 | rec[pos + 4 + i];
            has_pts = true;
        }
        pos += len;
    }

    frame.channel = p[0];
    frame.type = p[1];
    frame.extend_len = extend_len;
    frame.frame_len = frame_len;
    frame.has_time = has_time;
    frame.time = time;
    frame.has_pts = has_pts;
    frame.pts = pts;
    frame.bytes.assign(p, p + total);
    used_ += size_t(total);
    return true;
}
