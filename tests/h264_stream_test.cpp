// Cutting H.264 Annex-B streams into access units, and wrapping them into
// recorder frames and back.
#include "h264_stream.h"
#include "qzfs_av_frame.h"
#include "synthetic_h264.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

typedef std::vector<uint8_t> Bytes;

// Appends a NAL unit: start code (three or four bytes), header byte, body.
void add_nal(Bytes& out, bool four_byte, uint8_t header, const Bytes& body)
{
    if (four_byte)
        out.push_back(0);
    out.insert(out.end(), {0, 0, 1, header});
    out.insert(out.end(), body.begin(), body.end());
}

const uint8_t SPS = 0x67, PPS = 0x68, SEI = 0x06, AUD = 0x09, IDR = 0x65, P_SLICE = 0x41;
// Slice bodies: first_mb_in_slice 0 (first bit 1) and 1 (bits 010).
const Bytes FIRST_SLICE = {0x88, 0x84, 0x21, 0x7F};
const Bytes NEXT_SLICE = {0x44, 0x21, 0x7F};

struct Unit {
    size_t offset;
    size_t length;
    bool idr;
};

std::vector<Unit> units_of(const Bytes& stream)
{
    std::vector<Unit> result;
    for (const H264AccessUnit& u : h264_split_access_units(stream.data(), stream.size()))
        result.push_back({u.offset, u.length, u.idr});
    return result;
}

void expect_units(const std::vector<Unit>& want, const Bytes& stream)
{
    const std::vector<Unit> got = units_of(stream);
    ASSERT_EQ(want.size(), got.size());
    for (size_t i = 0; i < want.size(); i++) {
        SCOPED_TRACE("unit " + std::to_string(i));
        EXPECT_EQ(want[i].offset, got[i].offset);
        EXPECT_EQ(want[i].length, got[i].length);
        EXPECT_EQ(want[i].idr, got[i].idr);
    }
}

TEST(H264Split, NoStartCodeGivesNoUnits)
{
    EXPECT_TRUE(units_of({}).empty());
    EXPECT_TRUE(units_of({0x47, 0x40, 0x00, 0x10}).empty());  // a transport stream packet
    EXPECT_TRUE(units_of({0, 0}).empty());
    EXPECT_TRUE(units_of({0, 0, 0, 2, 0, 0}).empty());
    // A start code with no header byte behind it opens no NAL unit.
    EXPECT_TRUE(units_of({0, 0, 0, 1}).empty());
    EXPECT_TRUE(h264_find_nals(nullptr, 0).empty());
}

TEST(H264Split, ThreeAndFourByteStartCodes)
{
    Bytes s;
    add_nal(s, true, SPS, {0x64, 0x00, 0x1E});  // 0..7
    add_nal(s, true, PPS, {0xEE, 0x3C});        // 8..14
    add_nal(s, true, IDR, FIRST_SLICE);         // 15..23
    const size_t p1 = s.size();                  // 24
    add_nal(s, false, P_SLICE, FIRST_SLICE);
    const size_t p2 = s.size();
    add_nal(s, true, P_SLICE, FIRST_SLICE);
    expect_units({{0, p1, true}, {p1, p2 - p1, false}, {p2, s.size() - p2, false}}, s);

    const std::vector<H264Nal> nals = h264_find_nals(s.data(), s.size());
    ASSERT_EQ(5u, nals.size());
    EXPECT_EQ(0u, nals[0].start);
    EXPECT_EQ(4u, nals[0].header);
    EXPECT_EQ(8u, nals[0].end);
    EXPECT_EQ(7, nals[0].type);
    EXPECT_EQ(8, nals[1].type);
    EXPECT_EQ(5, nals[2].type);
    EXPECT_EQ(p1, nals[3].start);  // three-byte code: no zero_byte
    EXPECT_EQ(p1 + 3, nals[3].header);
    EXPECT_EQ(p2, nals[4].start);  // four-byte code: from its zero_byte
    EXPECT_EQ(p2 + 4, nals[4].header);
    EXPECT_EQ(s.size(), nals[4].end);
}

TEST(H264Split, DelimitersOpenUnits)
{
    Bytes s;
    add_nal(s, true, AUD, {0x10});
    add_nal(s, true, SPS, {0x64});
    add_nal(s, true, PPS, {0xEE});
    add_nal(s, true, IDR, FIRST_SLICE);
    const size_t second = s.size();
    add_nal(s, true, AUD, {0x30});
    add_nal(s, false, SEI, {0x05, 0x01, 0x7F});  // before the slice: same unit
    add_nal(s, false, P_SLICE, FIRST_SLICE);
    add_nal(s, false, P_SLICE, NEXT_SLICE);
    const size_t third = s.size();
    add_nal(s, true, AUD, {0x30});
    add_nal(s, false, P_SLICE, FIRST_SLICE);
    expect_units({{0, second, true}, {second, third - second, false},
                  {third, s.size() - third, false}},
                 s);

    // A delimiter always opens a unit, even when no slice came before it.
    Bytes t;
    add_nal(t, true, AUD, {0x10});
    add_nal(t, true, AUD, {0x10});
    add_nal(t, true, IDR, FIRST_SLICE);
    expect_units({{0, 6, false}, {6, t.size() - 6, true}}, t);
}

TEST(H264Split, ParameterSetsAndFirstSlicesOpenUnitsAfterASlice)
{
    Bytes s;
    add_nal(s, true, SPS, {0x64});
    add_nal(s, true, PPS, {0xEE});
    add_nal(s, true, IDR, FIRST_SLICE);
    add_nal(s, false, IDR, NEXT_SLICE);  // second slice of the same picture
    add_nal(s, false, IDR, NEXT_SLICE);
    const size_t p = s.size();
    add_nal(s, false, P_SLICE, FIRST_SLICE);
    add_nal(s, false, P_SLICE, NEXT_SLICE);
    add_nal(s, false, 0x0C, {0xFF, 0xFF, 0x80});  // filler data stays
    const size_t sei = s.size();
    add_nal(s, false, SEI, {0x05, 0x01, 0x7F});  // SEI after a slice opens a unit
    add_nal(s, false, P_SLICE, FIRST_SLICE);
    const size_t sps = s.size();
    add_nal(s, true, SPS, {0x64});
    add_nal(s, true, PPS, {0xEE});
    add_nal(s, true, IDR, FIRST_SLICE);
    expect_units({{0, p, true}, {p, sei - p, false}, {sei, sps - sei, false},
                  {sps, s.size() - sps, true}},
                 s);

    const std::vector<H264AccessUnit> units = h264_split_access_units(s.data(), s.size());
    EXPECT_EQ(5u, units[0].nals);
    EXPECT_EQ(3u, units[0].slices);
    EXPECT_EQ(3u, units[1].nals);
    EXPECT_EQ(2u, units[1].slices);
}

TEST(H264Split, LeadingAndTrailingBytesStayInTheStream)
{
    Bytes s = {'j', 'u', 'n', 'k', 0, 0};  // in front of the first start code
    add_nal(s, true, SPS, {0x64});
    add_nal(s, true, IDR, FIRST_SLICE);
    s.insert(s.end(), {0, 0, 0});  // trailing_zero_8bits of the IDR slice
    const size_t p = s.size();
    add_nal(s, true, P_SLICE, FIRST_SLICE);
    s.insert(s.end(), {0, 0});  // zeros at the very end
    expect_units({{0, p, true}, {p, s.size() - p, false}}, s);

    const std::vector<H264Nal> nals = h264_find_nals(s.data(), s.size());
    ASSERT_EQ(3u, nals.size());
    // Of the zeros in front of 00 00 01 one is the zero_byte of the NAL
    // unit: in "junk" 00 00 00 00 00 01 two zeros stay behind the junk.
    EXPECT_EQ(6u, nals[0].start);
    EXPECT_EQ(p, nals[1].end);
    EXPECT_EQ(p, nals[2].start);
    EXPECT_EQ(s.size(), nals[2].end);

    // A stream of nothing but a slice is one unit, whatever it holds.
    Bytes one;
    add_nal(one, false, P_SLICE, NEXT_SLICE);
    expect_units({{0, one.size(), false}}, one);
}

TEST(H264Split, SyntheticStreamsSplitWhereTheyWereBuilt)
{
    for (bool delimiters : {false, true}) {
        SCOPED_TRACE(delimiters ? "with delimiters" : "without delimiters");
        SyntheticH264Config config;
        config.frames = 60;
        config.gop = 12;
        config.delimiters = delimiters;
        config.idr_bytes = 600;
        config.p_bytes = 150;
        const SyntheticH264 stream = make_synthetic_h264(config);
        std::vector<Unit> want;
        size_t end = 0;
        for (const SyntheticAccessUnit& u : stream.units) {
            EXPECT_EQ(end, u.offset);
            end = u.offset + u.length;
            want.push_back({u.offset, u.length, u.idr});
        }
        EXPECT_EQ(stream.bytes.size(), end);
        EXPECT_EQ(5, std::count_if(want.begin(), want.end(), [](const Unit& u) { return u.idr; }));
        expect_units(want, stream.bytes);
    }
}

TEST(H264Frame, WrapLaysOutHeaderRecordsAndPayload)
{
    const Bytes payload = {0, 0, 0, 1, 0x65, 0x88, 0x10};
    const _k4t_fs_date_time_ when = {26, 11, 21, 8, 30, 59, 0};
    Bytes out = {0xAA};  // frames are appended
    ASSERT_TRUE(wrap_stored_frame(out, 7, true, when, 0x0102030405060708ULL, payload.data(),
                                  payload.size()));
    ASSERT_EQ(1u + 12 + 24 + payload.size(), out.size());
    const uint8_t* f = out.data() + 1;
    const Bytes header(f, f + 12);
    EXPECT_EQ((Bytes{7, '2', 'd', 'c', 7, 0, 0, 0, 24, 0, 0, 0}), header);
    EXPECT_EQ((Bytes{2, 12, 0, 0, 26, 11, 21, 8, 30, 59, 0, 0}), Bytes(f + 12, f + 24));
    EXPECT_EQ((Bytes{3, 12, 0, 0}), Bytes(f + 24, f + 28));
    uint64_t pts = 0;
    memcpy(&pts, f + 28, 8);
    EXPECT_EQ(0x0102030405060708ULL, pts);
    EXPECT_EQ(payload, Bytes(f + 36, f + 36 + payload.size()));

    // The library's own frame check takes it.
    uint8_t is_iframe = 0;
    EXPECT_EQ(int(12 + 24 + payload.size()),
              check_frame_header(reinterpret_cast<const _av_frame_header_*>(f), is_iframe));
    EXPECT_EQ(1, is_iframe);

    Bytes p_frame;
    ASSERT_TRUE(wrap_stored_frame(p_frame, 0, false, when, 0, nullptr, 0));
    EXPECT_EQ(36u, p_frame.size());
    EXPECT_EQ('3', p_frame[1]);
    EXPECT_EQ(36, check_frame_header(reinterpret_cast<const _av_frame_header_*>(p_frame.data()),
                                     is_iframe));
    EXPECT_EQ(0, is_iframe);
}

TEST(H264Frame, PayloadLimitIsTheFormatsFrameLimit)
{
    const _k4t_fs_date_time_ when = {26, 1, 1, 0, 0, 0, 0};
    Bytes big(STORED_FRAME_MAX_PAYLOAD + 1, 0x5A);
    Bytes out = {1, 2, 3};
    EXPECT_FALSE(wrap_stored_frame(out, 0, true, when, 0, big.data(), big.size()));
    EXPECT_EQ((Bytes{1, 2, 3}), out);
    out.clear();
    ASSERT_TRUE(wrap_stored_frame(out, 0, true, when, 0, big.data(), big.size() - 1));
    EXPECT_EQ(size_t(QZFS_MAX_FRAME_LEN), out.size());
    uint8_t is_iframe = 0;
    EXPECT_EQ(int(QZFS_MAX_FRAME_LEN),
              check_frame_header(reinterpret_cast<const _av_frame_header_*>(out.data()), is_iframe));
}

// Frames of assorted sizes, and what the parser must give back for them.
struct WrappedRun {
    Bytes bytes;
    std::vector<Bytes> payloads;
    std::vector<_k4t_fs_date_time_> times;
    std::vector<uint64_t> pts;
};

WrappedRun wrapped_run()
{
    WrappedRun run;
    const size_t sizes[] = {5000, 0, 1, 11, 12, 70000, 300, 65536, 17};
    unsigned i = 0;
    for (size_t size : sizes) {
        Bytes payload(size);
        for (size_t b = 0; b < size; b++)
            payload[b] = uint8_t(b * 7 + i);
        const _k4t_fs_date_time_ when = {26, 11, 21, 23, 59, uint8_t(50 + i), 0};
        const uint64_t pts = uint64_t(i) * 3600 + (uint64_t(i) << 40);
        EXPECT_TRUE(wrap_stored_frame(run.bytes, 3, i % 4 == 0, when, pts, payload.data(), size));
        run.payloads.push_back(payload);
        run.times.push_back(when);
        run.pts.push_back(pts);
        i++;
    }
    return run;
}

TEST(H264Frame, ParserGivesBackFramesFromChunksOfAnySize)
{
    const WrappedRun run = wrapped_run();
    for (size_t chunk : {size_t(1), size_t(5), size_t(12), size_t(4096), size_t(65536),
                         run.bytes.size()}) {
        SCOPED_TRACE("chunks of " + std::to_string(chunk));
        StoredFrameParser parser;
        std::vector<StoredFrame> frames;
        StoredFrame frame;
        for (size_t at = 0; at < run.bytes.size(); at += chunk) {
            const size_t n = std::min(chunk, run.bytes.size() - at);
            ASSERT_TRUE(parser.feed(run.bytes.data() + at, n));
            while (parser.next(frame))
                frames.push_back(frame);
            ASSERT_EQ("", parser.error());
        }
        EXPECT_EQ(0u, parser.pending());
        EXPECT_EQ(run.bytes.size(), parser.offset());
        ASSERT_EQ(run.payloads.size(), frames.size());
        Bytes joined;
        for (size_t i = 0; i < frames.size(); i++) {
            SCOPED_TRACE("frame " + std::to_string(i));
            const StoredFrame& f = frames[i];
            EXPECT_EQ(3, f.channel);
            EXPECT_EQ(i % 4 == 0, f.iframe());
            EXPECT_FALSE(f.audio());
            EXPECT_EQ(run.payloads[i].size(), f.frame_len);
            EXPECT_EQ(24u, f.extend_len);
            EXPECT_EQ(run.payloads[i], Bytes(f.payload(), f.payload() + f.frame_len));
            EXPECT_TRUE(f.has_time);
            EXPECT_EQ(0, memcmp(&run.times[i], &f.time, sizeof(f.time)));
            EXPECT_TRUE(f.has_pts);
            EXPECT_EQ(run.pts[i], f.pts);
            joined.insert(joined.end(), f.bytes.begin(), f.bytes.end());
        }
        EXPECT_EQ(run.bytes, joined);  // whole frames, exactly as stored
    }
}

TEST(H264Frame, ParserWaitsForTheRestAndCanDropIt)
{
    const WrappedRun run = wrapped_run();
    StoredFrameParser parser;
    StoredFrame frame;
    ASSERT_TRUE(parser.feed(run.bytes.data(), 5000 + 36 + 20));  // first frame and 20 bytes
    ASSERT_TRUE(parser.next(frame));
    EXPECT_FALSE(parser.next(frame));
    EXPECT_EQ("", parser.error());
    EXPECT_EQ(20u, parser.pending());
    EXPECT_EQ(20u, parser.drop_pending());
    EXPECT_EQ(0u, parser.pending());
    EXPECT_EQ(5000u + 36 + 20, parser.offset());
    // Frames that follow on a frame boundary are read again.
    const size_t third = 5000 + 36 + 36;
    ASSERT_TRUE(parser.feed(run.bytes.data() + third, 37));
    ASSERT_TRUE(parser.next(frame));
    EXPECT_EQ(1u, frame.frame_len);
}

TEST(H264Frame, ParserRefusesWhatIsNoFrame)
{
    const _k4t_fs_date_time_ when = {26, 11, 21, 8, 0, 0, 0};
    Bytes good;
    ASSERT_TRUE(wrap_stored_frame(good, 1, true, when, 0, nullptr, 0));

    struct Case {
        const char* what;
        size_t at;
        uint8_t value;
        const char* message;
    } const cases[] = {
        {"magic", 2, 'x', "no frame header at stream offset 36"},
        {"type", 1, '5', "unknown frame type 53 at stream offset 36"},
        {"length over the limit", 6, 0x10, "frame of "},
        {"record length below 4", 13, 3, "broken extended record"},
        {"record past the end", 25, 13, "broken extended record"},
        {"date record of 16 bytes", 13, 16, "extended record of type 2 with length 16"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bad = good;
        bad[c.at] = c.value;
        Bytes stream = good;  // a good frame first
        stream.insert(stream.end(), bad.begin(), bad.end());
        StoredFrameParser parser;
        StoredFrame frame;
        ASSERT_TRUE(parser.feed(stream.data(), stream.size()));
        ASSERT_TRUE(parser.next(frame));
        EXPECT_FALSE(parser.next(frame));
        EXPECT_NE(std::string::npos, parser.error().find(c.message)) << parser.error();
        EXPECT_FALSE(parser.feed(good.data(), good.size()));
        EXPECT_FALSE(parser.next(frame));
    }

    // Records of other types are stepped over; a frame without a date keeps
    // has_time false.
    Bytes odd = {0, '3', 'd', 'c', 2, 0, 0, 0, 8, 0, 0, 0, 9, 8, 0, 0, 1, 2, 3, 4, 0xAB, 0xCD};
    StoredFrameParser parser;
    StoredFrame frame;
    parser.feed(odd.data(), odd.size());
    ASSERT_TRUE(parser.next(frame)) << parser.error();
    EXPECT_FALSE(frame.has_time);
    EXPECT_FALSE(frame.has_pts);
    EXPECT_EQ((Bytes{0xAB, 0xCD}), Bytes(frame.payload(), frame.payload() + 2));
}

TEST(H264Frame, SyntheticStreamRoundTripsThroughFrames)
{
    SyntheticH264Config config;
    config.frames = 40;
    config.gop = 10;
    const SyntheticH264 stream = make_synthetic_h264(config);
    const std::vector<H264AccessUnit> units =
        h264_split_access_units(stream.bytes.data(), stream.bytes.size());
    ASSERT_EQ(40u, units.size());
    Bytes frames;
    for (size_t i = 0; i < units.size(); i++) {
        const _k4t_fs_date_time_ when = {26, 11, 21, 8, 0, uint8_t(i / 25), 0};
        ASSERT_TRUE(wrap_stored_frame(frames, 0, units[i].idr, when, i * 3600,
                                      stream.bytes.data() + units[i].offset, units[i].length));
    }
    StoredFrameParser parser;
    StoredFrame frame;
    Bytes back;
    unsigned iframes = 0;
    for (size_t at = 0; at < frames.size(); at += 65536) {
        parser.feed(frames.data() + at, std::min<size_t>(65536, frames.size() - at));
        while (parser.next(frame)) {
            back.insert(back.end(), frame.payload(), frame.payload() + frame.frame_len);
            iframes += frame.iframe() ? 1 : 0;
        }
    }
    EXPECT_EQ("", parser.error());
    EXPECT_EQ(4u, iframes);
    EXPECT_EQ(stream.bytes, back);
}

} // namespace
