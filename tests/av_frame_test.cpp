// The frame readers: header fields, whole-frame check, the walk over the
// extended records, the debug line and the rebuild's header test.
#include "test_support.h"

#include "frame_source.h"
#include "qzfilesystem.h"
#include "qzfs_av_frame.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

// One extended record: type, then the payload; the length is filled in.
struct ExtRecord {
    uint8_t type;
    std::vector<uint8_t> payload;
    int length_delta = 0;  // added to the true record length when written
};

// A frame in the recorder's format, built field by field.
std::vector<uint8_t> make_frame(uint8_t channel, uint8_t type_char, uint32_t payload_len,
                                const std::vector<ExtRecord>& records = {})
{
    std::vector<uint8_t> ext;
    for (const ExtRecord& r : records) {
        size_t at = ext.size();
        ext.resize(at + 4 + r.payload.size());
        ext[at] = r.type;
        qzfs_frame_put_u24(&ext[at + 1], uint32_t(int(4 + r.payload.size()) + r.length_delta));
        std::copy(r.payload.begin(), r.payload.end(), ext.begin() + long(at) + 4);
    }
    std::vector<uint8_t> f(12 + ext.size() + payload_len, 0xA5);
    f[0] = channel;
    f[1] = type_char;
    f[2] = QZFS_FRAME_MAGIC_0;
    f[3] = QZFS_FRAME_MAGIC_1;
    qzfs_frame_put_u24(&f[4], payload_len);
    f[7] = 0x11;
    qzfs_frame_put_u24(&f[8], uint32_t(ext.size()));
    f[11] = 0x22;
    std::copy(ext.begin(), ext.end(), f.begin() + 12);
    return f;
}

ExtRecord date_record(uint8_t y, uint8_t mo, uint8_t d, uint8_t h, uint8_t mi, uint8_t s)
{
    return ExtRecord{QZFS_FRAME_EXT_DATE_TIME, {y, mo, d, h, mi, s, 0xEE, 0xEE}};
}

ExtRecord pts_record(uint64_t pts)
{
    ExtRecord r{QZFS_FRAME_EXT_PTS, std::vector<uint8_t>(8)};
    memcpy(r.payload.data(), &pts, 8);
    return r;
}

const _av_frame_header_* header_of(const std::vector<uint8_t>& f)
{
    return reinterpret_cast<const _av_frame_header_*>(f.data());
}

class AvFrame : public LibraryTest {
protected:
    // Runs `fn` and expects it to print nothing at all.
    template <typename Fn> void expect_silent(long long want, Fn fn)
    {
        long long got = 0;
        std::string out = captured_stdout([&] { got = (long long)fn(); });
        EXPECT_EQ(want, got);
        EXPECT_EQ("", out);
    }

    int extend_info(const std::vector<uint8_t>& f, uint8_t type, void* out, uint32_t len)
    {
        return fs_->Get_av_frame_extend_info(f.data(), len, type, out);
    }
    int extend_info(const std::vector<uint8_t>& f, uint8_t type, void* out)
    {
        return extend_info(f, type, out, uint32_t(f.size()));
    }

    // Made after the library is set up quietly, so that it says nothing.
    void SetUp() override
    {
        LibraryTest::SetUp();
        fs_.reset(new CQzFileSystem());
    }
    void TearDown() override
    {
        fs_.reset();
        LibraryTest::TearDown();
    }

    std::unique_ptr<CQzFileSystem> fs_;
};

TEST_F(AvFrame, HeaderIsChannelTypeMagicInThatOrder)
{
    // 05 32 64 63: an I-frame of channel 5.
    std::vector<uint8_t> f = {0x05, 0x32, 0x64, 0x63, 0, 0, 0, 0, 0, 0, 0, 0};
    uint8_t channel = 0xEE;
    _qzfs_frame_type_ type = QZFS_FRAME_INVALID;
    EXPECT_EQ(0, fs_->Get_frame_info(header_of(f), &channel, &type));
    EXPECT_EQ(5, channel);
    EXPECT_EQ(QZFS_FRAME_I, type);

    struct Case {
        uint8_t type_char;
        _qzfs_frame_type_ want;
    };
    for (Case c : {Case{'3', QZFS_FRAME_P}, Case{'4', QZFS_FRAME_AUDIO}}) {
        f = make_frame(31, c.type_char, 100);
        channel = 0xEE;
        EXPECT_EQ(0, fs_->Get_frame_info(header_of(f), &channel, &type));
        EXPECT_EQ(31, channel);
        EXPECT_EQ(c.want, type);
    }
    EXPECT_EQ(1, QZFS_FRAME_P);
    EXPECT_EQ(3, QZFS_FRAME_AUDIO);
}

TEST_F(AvFrame, UnknownTypeOrBadMagicFailsButStillReports)
{
    // Type character "5": type 6, the channel is still given.
    std::vector<uint8_t> f = make_frame(9, '5', 0);
    uint8_t channel = 0;
    _qzfs_frame_type_ type = QZFS_FRAME_I;
    EXPECT_EQ(-1, fs_->Get_frame_info(header_of(f), &channel, &type));
    EXPECT_EQ(QZFS_FRAME_INVALID, type);
    EXPECT_EQ(6, type);
    EXPECT_EQ(9, channel);

    // A good type with a bad magic: the type is reported as read.
    for (int which = 2; which <= 3; which++) {
        f = make_frame(4, '3', 0);
        f[which] ^= 0x01;
        channel = 0;
        type = QZFS_FRAME_INVALID;
        EXPECT_EQ(-1, fs_->Get_frame_info(header_of(f), &channel, &type)) << "magic byte " << which;
        EXPECT_EQ(QZFS_FRAME_P, type);
        EXPECT_EQ(4, channel);
    }

    // Both wrong: the type test comes first, so the type reads invalid.
    f = make_frame(4, 0x00, 0);
    f[2] = 0;
    type = QZFS_FRAME_I;
    EXPECT_EQ(-1, fs_->Get_frame_info(header_of(f), &channel, &type));
    EXPECT_EQ(QZFS_FRAME_INVALID, type);

    // The magic swapped ("cd") is no frame either.
    f = make_frame(4, '2', 0);
    std::swap(f[2], f[3]);
    EXPECT_EQ(-1, fs_->Get_frame_info(header_of(f), &channel, &type));
}

TEST_F(AvFrame, CheckAcceptsExactlyOneWholeFrame)
{
    // Twelve bytes with both lengths 0 are one frame.
    std::vector<uint8_t> empty = make_frame(0, '2', 0);
    ASSERT_EQ(12u, empty.size());
    expect_silent(0, [&] { return fs_->Check_av_frame(empty.data(), 12, 0); });

    // A frame of the synthetic source, records and payload included.
    FrameSourceConfig cfg;
    cfg.channel = 3;
    cfg.iframe_bytes = 7000;
    cfg.pframe_bytes = 1500;
    FrameSource source(cfg);
    FrameBatch batch;
    source.append_frame(batch);
    ASSERT_EQ(source.frame_bytes(true), batch.bytes.size());
    EXPECT_EQ(0, fs_->Check_av_frame(batch.bytes.data(), uint32_t(batch.bytes.size()), 3));

    std::vector<uint8_t> f = make_frame(7, '3', 300, {date_record(26, 1, 2, 3, 4, 5)});
    const uint32_t n = uint32_t(f.size());
    EXPECT_EQ(0, fs_->Check_av_frame(f.data(), n, 7));
    expect_result_and_log(-1, "(channel:7) invalid frame len1(11)(12)",
                          [&] { return fs_->Check_av_frame(f.data(), 11, 7); });
    expect_result_and_log(-1, "(channel:7) invalid frame len2(" + std::to_string(n) + ")(" +
                                  std::to_string(n - 1) + ")",
                          [&] { return fs_->Check_av_frame(f.data(), n - 1, 7); });
    std::vector<uint8_t> longer = f;
    longer.push_back(0);
    expect_result_and_log(-1, "(channel:7) invalid frame len2(" + std::to_string(n) + ")(" +
                                  std::to_string(n + 1) + ")",
                          [&] { return fs_->Check_av_frame(longer.data(), n + 1, 7); });
    // The channel argument only names the caller's channel in the message.
    EXPECT_EQ(0, fs_->Check_av_frame(f.data(), n, 200));

    std::vector<uint8_t> bad = f;
    bad[3] = 'x';
    expect_result_and_log(-1, "(channel:7) Get_frame_info failed",
                          [&] { return fs_->Check_av_frame(bad.data(), n, 7); });
    bad = f;
    bad[1] = '5';
    expect_result_and_log(-1, "(channel:2) Get_frame_info failed",
                          [&] { return fs_->Check_av_frame(bad.data(), n, 2); });

    // No check sum: every buffer passes.
    EXPECT_EQ(0, fs_->Check_av_frame_check_sum(f.data(), n));
    EXPECT_EQ(0, fs_->Check_av_frame_check_sum(bad.data(), 0));
}

TEST_F(AvFrame, LengthsAreLittleEndianTwentyFourBits)
{
    std::vector<uint8_t> f = make_frame(1, '2', 0);
    f[4] = 0x01;  // frame_len 0x030201
    f[5] = 0x02;
    f[6] = 0x03;
    f[7] = 0xFF;  // not part of the length
    f[8] = 0x10;  // extend_len 0x000010
    f[9] = 0x00;
    f[10] = 0x00;
    f[11] = 0xFF;
    uint8_t is_iframe = 0;
    EXPECT_EQ(12 + 0x10 + 0x030201, check_frame_header(header_of(f), is_iframe));
    // The top byte of frame_len alone puts it above the largest frame.
    f[6] = 0x10;
    EXPECT_EQ(-1, check_frame_header(header_of(f), is_iframe));
    f[6] = 0x00;
    f[10] = 0x10;  // the same for extend_len
    EXPECT_EQ(-1, check_frame_header(header_of(f), is_iframe));
    f[10] = 0x00;
    EXPECT_EQ(12 + 0x10 + 0x201, check_frame_header(header_of(f), is_iframe));
    EXPECT_EQ(1, is_iframe);
}

TEST_F(AvFrame, ExtendInfoFindsDateAndPresentationTime)
{
    FrameSourceConfig cfg;
    cfg.channel = 2;
    cfg.fps = 25;
    cfg.gop = 5;
    cfg.iframe_bytes = 500;
    cfg.pframe_bytes = 200;
    cfg.start = {25, 12, 31, 23, 59, 58, 0};
    FrameSource source(cfg);
    FrameBatch batch;
    source.append_frames(batch, 60);  // runs over midnight of the wall clock
    size_t at = 0;
    for (uint64_t frame = 0; frame < 60; frame++) {
        std::vector<uint8_t> f(batch.bytes.begin() + long(at),
                               batch.bytes.begin() + long(at + source.frame_bytes(frame % 5 == 0)));
        at += f.size();
        uint8_t dt[6];
        ASSERT_EQ(0, extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt)) << "frame " << frame;
        const unsigned second = unsigned((23 * 3600 + 59 * 60 + 58 + frame / 25) % 86400);
        EXPECT_EQ(25, dt[0]);
        EXPECT_EQ(12, dt[1]);
        EXPECT_EQ(31, dt[2]);
        EXPECT_EQ(second / 3600, dt[3]);
        EXPECT_EQ(second / 60 % 60, dt[4]);
        EXPECT_EQ(second % 60, dt[5]);
        uint64_t pts = 0;
        ASSERT_EQ(0, extend_info(f, QZFS_FRAME_EXT_PTS, &pts));
        EXPECT_EQ(frame * (90000 / 25), pts);
    }
    EXPECT_EQ(batch.bytes.size(), at);

    // Only six bytes of the date are handed out, eight of the time.
    std::vector<uint8_t> f = make_frame(0, '2', 10, {date_record(1, 2, 3, 4, 5, 6), pts_record(~0ULL - 1)});
    uint8_t out[16];
    memset(out, 0xCC, sizeof(out));
    EXPECT_EQ(0, extend_info(f, QZFS_FRAME_EXT_DATE_TIME, out));
    EXPECT_EQ(6, out[5]);
    EXPECT_EQ(0xCC, out[6]);
    memset(out, 0xCC, sizeof(out));
    EXPECT_EQ(0, extend_info(f, QZFS_FRAME_EXT_PTS, out));
    uint64_t pts;
    memcpy(&pts, out, 8);
    EXPECT_EQ(~0ULL - 1, pts);
    EXPECT_EQ(0xCC, out[8]);

    // The extended area alone must be inside the buffer; the payload not.
    EXPECT_EQ(0, extend_info(f, QZFS_FRAME_EXT_PTS, out, 12 + 24));
}

TEST_F(AvFrame, ExtendInfoWalkRules)
{
    uint8_t dt[6];
    uint64_t pts;

    // No extended area: not found, and nothing said about it.
    std::vector<uint8_t> bare = make_frame(0, '2', 40);
    expect_silent(-1, [&] { return extend_info(bare, QZFS_FRAME_EXT_DATE_TIME, dt); });
    expect_silent(-1, [&] { return extend_info(bare, QZFS_FRAME_EXT_PTS, &pts); });

    // Records of other types are stepped over; a wanted type other than the
    // two known ones is never found, even when present.
    std::vector<uint8_t> f = make_frame(0, '3', 0,
                                        {ExtRecord{7, {1, 2, 3}}, ExtRecord{9, {}},
                                         date_record(26, 2, 28, 0, 0, 0)});
    EXPECT_EQ(0, extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt));
    EXPECT_EQ(28, dt[2]);
    expect_silent(-1, [&] { return extend_info(f, 7, dt); });
    expect_silent(-1, [&] { return extend_info(f, QZFS_FRAME_EXT_PTS, &pts); });

    // The last record of a type wins.
    f = make_frame(0, '2', 0, {date_record(20, 1, 1, 1, 1, 1), pts_record(5),
                               date_record(21, 3, 4, 5, 6, 7)});
    EXPECT_EQ(0, extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt));
    EXPECT_EQ(21, dt[0]);
    EXPECT_EQ(7, dt[5]);

    // A bad record after a good one fails the call.
    f = make_frame(0, '2', 0, {date_record(20, 1, 1, 1, 1, 1), ExtRecord{5, {}, -1}});
    expect_result_and_log(-1, "invalid lInfoLength(3)(24)",
                          [&] { return extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt); });
}

TEST_F(AvFrame, ExtendInfoLengthChecks)
{
    uint8_t dt[6];
    uint64_t pts;
    std::vector<uint8_t> f = make_frame(0, '2', 0, {date_record(26, 5, 6, 7, 8, 9)});
    const uint32_t n = uint32_t(f.size());  // 24: header and one record

    expect_result_and_log(-1, "invalid len1(11)(12)",
                          [&] { return extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt, 11); });
    expect_result_and_log(-1, "invalid len2(" + std::to_string(n - 1) + ")(" + std::to_string(n) + ")",
                          [&] { return extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt, n - 1); });

    // A record exactly as long as what remains is taken ...
    EXPECT_EQ(0, extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt));
    // ... one byte more runs over the area.
    std::vector<uint8_t> over = make_frame(0, '2', 0, {ExtRecord{1, {0, 0, 0, 0}, +1}});
    expect_result_and_log(-1, "invalid len4(12)(9)(20)",
                          [&] { return extend_info(over, QZFS_FRAME_EXT_DATE_TIME, dt); });
    // Fewer than 4 bytes left for the next record head.
    std::vector<uint8_t> tail = make_frame(0, '2', 0, {date_record(26, 5, 6, 7, 8, 9)});
    qzfs_frame_put_u24(&tail[8], 12 + 3);
    tail.insert(tail.begin() + 24, {QZFS_FRAME_EXT_PTS, 12, 0});
    expect_result_and_log(-1, "invalid len3(24)(3)(27)",
                          [&] { return extend_info(tail, QZFS_FRAME_EXT_DATE_TIME, dt); });
    // A record length below its own head.
    std::vector<uint8_t> zero = make_frame(0, '2', 0, {ExtRecord{2, {0, 0, 0, 0, 0, 0, 0, 0}, -12}});
    expect_result_and_log(-1, "invalid lInfoLength(0)(12)",
                          [&] { return extend_info(zero, QZFS_FRAME_EXT_PTS, &pts); });

    // Date and presentation time must be records of 12 bytes.
    std::vector<uint8_t> short_date =
        make_frame(0, '2', 0, {ExtRecord{QZFS_FRAME_EXT_DATE_TIME, {26, 1, 1, 1, 1, 1}}});
    expect_result_and_log(-1, "invalid len5(10)(12)(12)",
                          [&] { return extend_info(short_date, QZFS_FRAME_EXT_DATE_TIME, dt); });
    std::vector<uint8_t> long_pts =
        make_frame(0, '2', 0, {ExtRecord{QZFS_FRAME_EXT_PTS, std::vector<uint8_t>(9, 1)}});
    expect_result_and_log(-1, "invalid len6(13)(12)(12)",
                          [&] { return extend_info(long_pts, QZFS_FRAME_EXT_PTS, &pts); });
    // A misshapen record of a type nobody asked for is only stepped over.
    EXPECT_EQ(-1, extend_info(short_date, QZFS_FRAME_EXT_PTS, &pts));
}

TEST_F(AvFrame, ExtendInfoRefusesImpossibleDates)
{
    struct Case {
        uint8_t v[6];
        const char* shown;
    };
    const Case bad[] = {
        {{100, 1, 1, 0, 0, 0}, "(20100-01-01)(00:00:00)"},
        {{26, 0, 1, 0, 0, 0}, "(2026-00-01)(00:00:00)"},
        {{26, 13, 1, 0, 0, 0}, "(2026-13-01)(00:00:00)"},
        {{26, 1, 0, 0, 0, 0}, "(2026-01-00)(00:00:00)"},
        {{26, 1, 32, 0, 0, 0}, "(2026-01-32)(00:00:00)"},
        {{26, 1, 1, 24, 0, 0}, "(2026-01-01)(24:00:00)"},
        {{26, 1, 1, 0, 60, 0}, "(2026-01-01)(00:60:00)"},
        {{26, 1, 1, 0, 0, 60}, "(2026-01-01)(00:00:60)"},
    };
    for (const Case& c : bad) {
        std::vector<uint8_t> f =
            make_frame(0, '2', 0, {date_record(c.v[0], c.v[1], c.v[2], c.v[3], c.v[4], c.v[5])});
        uint8_t dt[6] = {};
        expect_result_and_log(-1, std::string("ivalid date time") + c.shown,
                              [&] { return extend_info(f, QZFS_FRAME_EXT_DATE_TIME, dt); });
        // The bytes were handed out all the same.
        EXPECT_EQ(0, memcmp(dt, c.v, 6)) << c.shown;
    }
    // The limits themselves are dates.
    std::vector<uint8_t> edge = make_frame(0, '2', 0, {date_record(99, 12, 31, 23, 59, 59)});
    uint8_t dt[6];
    EXPECT_EQ(0, extend_info(edge, QZFS_FRAME_EXT_DATE_TIME, dt));
    edge = make_frame(0, '2', 0, {date_record(0, 1, 1, 0, 0, 0)});
    EXPECT_EQ(0, extend_info(edge, QZFS_FRAME_EXT_DATE_TIME, dt));
}

TEST_F(AvFrame, PrintShowsKindChannelAndDateAboveLevelTwo)
{
    std::vector<uint8_t> iframe = make_frame(6, '2', 50, {date_record(26, 11, 21, 8, 9, 10)});
    std::vector<uint8_t> pframe = make_frame(7, '3', 50);
    std::vector<uint8_t> audio = make_frame(8, '4', 50, {pts_record(1), date_record(1, 2, 3, 4, 5, 6)});
    auto print = [&](const std::vector<uint8_t>& f) {
        return fs_->Print_av_frame_info("cam", f.data(), int(f.size()));
    };

    expect_result_and_log(0, "  [cam]I FRAME(channel:6)(2026-11-21 08:09:10)",
                          [&] { return print(iframe); }, 3);
    std::string out = expect_result_and_log(0, "  [cam]P FRAME(channel:7)",
                                            [&] { return print(pframe); }, 3);
    EXPECT_EQ(std::string::npos, out.find("P FRAME(channel:7)(")) << out;
    expect_result_and_log(0, "  [cam]AUDIO FRAME(channel:8)(2001-02-03 04:05:06)",
                          [&] { return print(audio); }, 3);
    // A damaged date record leaves the line without a date.
    std::vector<uint8_t> undated = make_frame(6, '2', 0, {date_record(26, 13, 1, 0, 0, 0)});
    out = expect_result_and_log(0, "  [cam]I FRAME(channel:6)", [&] { return print(undated); }, 3);
    EXPECT_EQ(std::string::npos, out.find("I FRAME(channel:6)(")) << out;

    // At level 2 and below a sound frame prints nothing.
    for (uint32_t level : {0u, 2u}) {
        g_qzfs_debug_level = level;
        expect_silent(0, [&] { return print(iframe); });
        expect_silent(0, [&] { return print(undated); });
    }
    g_qzfs_debug_level = 0;

    // Failures print at any level.
    expect_result_and_log(-1, "  [cam]The buffer is too short!",
                          [&] { return fs_->Print_av_frame_info("cam", iframe.data(), 11); });
    std::vector<uint8_t> other = make_frame(6, '5', 0);
    expect_result_and_log(-1, "  [x]Not av frame!",
                          [&] { return fs_->Print_av_frame_info("x", other.data(), 12); });
    other = make_frame(6, '2', 0);
    other[2] = 0;
    expect_result_and_log(-1, "  [x]Not av frame!",
                          [&] { return fs_->Print_av_frame_info("x", other.data(), 12); });
}

TEST_F(AvFrame, RebuildHeaderTestGivesTotalAndIframeFlag)
{
    uint8_t is_iframe = 0xEE;
    std::vector<uint8_t> f = make_frame(0, '2', 100, {date_record(26, 1, 1, 0, 0, 0)});
    EXPECT_EQ(int(f.size()), check_frame_header(header_of(f), is_iframe));
    EXPECT_EQ(1, is_iframe);
    for (uint8_t c : {uint8_t('3'), uint8_t('4')}) {
        f = make_frame(0, c, 100);
        is_iframe = 0xEE;
        EXPECT_EQ(112, check_frame_header(header_of(f), is_iframe));
        EXPECT_EQ(0, is_iframe);
    }

    // Exactly the largest frame passes, one byte more does not.
    std::vector<uint8_t> h = make_frame(0, '2', 0);
    qzfs_frame_put_u24(&h[8], 0x100);
    qzfs_frame_put_u24(&h[4], QZFS_MAX_FRAME_LEN - 12 - 0x100);
    EXPECT_EQ(int(QZFS_MAX_FRAME_LEN), check_frame_header(header_of(h), is_iframe));
    EXPECT_EQ(1, is_iframe);
    qzfs_frame_put_u24(&h[4], QZFS_MAX_FRAME_LEN - 12 - 0x100 + 1);
    EXPECT_EQ(-1, check_frame_header(header_of(h), is_iframe));
    // Both lengths at their 24-bit maximum do not wrap into a small total.
    qzfs_frame_put_u24(&h[4], 0xFFFFFF);
    qzfs_frame_put_u24(&h[8], 0xFFFFFF);
    EXPECT_EQ(-1, check_frame_header(header_of(h), is_iframe));

    // The flag is cleared on every failure, also one found before the type.
    for (int damage = 0; damage < 3; damage++) {
        f = make_frame(0, '2', 10);
        if (damage == 0)
            f[1] = '5';
        else
            f[damage + 1] ^= 0x40;
        is_iframe = 1;
        EXPECT_EQ(-1, check_frame_header(header_of(f), is_iframe)) << "damage " << damage;
        EXPECT_EQ(0, is_iframe);
    }
}

} // namespace
