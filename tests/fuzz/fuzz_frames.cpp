// Fuzz target: the tool's frame parser and H.264 splitter, and the
// library's frame header check, on raw bytes. The first byte sets the chunk
// size the parser is fed with; the rest is the stream. What each returns is
// checked against what it promises: NAL units and access units inside the
// stream and in order, access units covering it without gaps, frames whose
// length adds up, and a wrapped access unit that parses back to itself.
#include "fuzz_support.h"

#include "h264_stream.h"
#include "qzfs_av_frame.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#define FUZZ_CHECK(cond)                                                     \
    do {                                                                     \
        if (!(cond)) {                                                       \
            fprintf(stderr, "fuzz_frames: %s fails at line %d\n", #cond, __LINE__); \
            abort();                                                         \
        }                                                                    \
    } while (0)

static void check_h264(const uint8_t* data, size_t size)
{
    size_t last_end = 0;
    for (const H264Nal& nal : h264_find_nals(data, size)) {
        FUZZ_CHECK(nal.start >= last_end && nal.start < nal.header && nal.header < nal.end &&
                   nal.end <= size);
        FUZZ_CHECK(nal.type == (data[nal.header] & 0x1F));
        last_end = nal.end;
    }
    const std::vector<H264AccessUnit> units = h264_split_access_units(data, size);
    size_t next = 0;
    for (const H264AccessUnit& unit : units) {
        FUZZ_CHECK(unit.offset == next && unit.length > 0);
        next += unit.length;
    }
    FUZZ_CHECK(units.empty() || next == size);
    if (units.empty() || units[0].length > STORED_FRAME_MAX_PAYLOAD)
        return;
    // The first unit wrapped as a frame and parsed back.
    std::vector<uint8_t> frame;
    const _k4t_fs_date_time_ when = {26, 11, 24, 12, 0, 0, 0};
    FUZZ_CHECK(wrap_stored_frame(frame, 3, units[0].idr, when, 12345, data, units[0].length));
    StoredFrameParser parser;
    StoredFrame back;
    FUZZ_CHECK(parser.feed(frame.data(), frame.size()) && parser.next(back));
    FUZZ_CHECK(back.iframe() == units[0].idr && back.channel == 3 && back.has_pts &&
               back.pts == 12345 && back.frame_len == units[0].length);
    FUZZ_CHECK(memcmp(back.payload(), data, units[0].length) == 0);
}

static void check_parser(const uint8_t* data, size_t size, size_t chunk)
{
    StoredFrameParser parser;
    StoredFrame frame;
    uint64_t handed = 0;
    for (size_t at = 0; at < size; at += chunk) {
        const size_t n = std::min(chunk, size - at);
        const bool fed = parser.feed(data + at, n);
        while (parser.next(frame)) {
            FUZZ_CHECK(frame.bytes.size() ==
                       STORED_FRAME_HEADER_BYTES + frame.extend_len + frame.frame_len);
            FUZZ_CHECK(memcmp(frame.bytes.data(), data + handed, frame.bytes.size()) == 0);
            handed += frame.bytes.size();
            uint8_t is_iframe = 0;
            FUZZ_CHECK(check_frame_header(
                           reinterpret_cast<const _av_frame_header_*>(frame.bytes.data()),
                           is_iframe) == int(frame.bytes.size()));
            FUZZ_CHECK(bool(is_iframe) == frame.iframe());
        }
        FUZZ_CHECK(parser.offset() == handed);
        if (!fed) {
            FUZZ_CHECK(!parser.error().empty());
            break;
        }
        FUZZ_CHECK(handed + parser.pending() == at + n);
    }
    parser.drop_pending();
}

QZFS_FUZZ_TARGET(fuzz_frames)
{
    qzfs_fuzz::InputScope scope;
    if (size == 0)
        return 0;
    const size_t chunk = size_t(data[0]) * 7 + 1;
    check_h264(data + 1, size - 1);
    check_parser(data + 1, size - 1, chunk);
    if (size >= 13) {
        _av_frame_header_ header;
        memcpy(&header, data + 1, sizeof(header));
        uint8_t is_iframe = 0;
        check_frame_header(&header, is_iframe);
    }
    return 0;
}
