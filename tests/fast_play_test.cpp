// I-frame playback as an application lives it: fast forward and fast back
// at several speeds over recordings whose I-frames run over block ends,
// into the adjacent segment of the day, on a live recording, and back to
// normal reading.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstring>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kMorning = {26, 11, 21, 8, 0, 0, 0};
// Big I-frames, so that several of them run over the end of a 4 MiB block.
const uint32_t kIframeBytes = 300 * 1024;

_k4t_fs_date_time_ at_time(uint8_t hour, uint8_t minute, uint8_t second)
{
    _k4t_fs_date_time_ t = kMorning;
    t.hour = hour;
    t.minute = minute;
    t.second = second;
    return t;
}

FrameSource big_iframe_source(const _k4t_fs_date_time_& start)
{
    FrameSourceConfig config;
    config.start = start;
    config.gop = 25;
    config.fps = 25;
    config.iframe_bytes = kIframeBytes;
    return FrameSource(config);
}

::testing::AssertionResult same_bytes(const std::vector<uint8_t>& want, const uint8_t* got,
                                      size_t got_len)
{
    if (want.size() != got_len)
        return ::testing::AssertionFailure() << "wanted " << want.size() << " bytes, got " << got_len;
    for (size_t i = 0; i < got_len; i++)
        if (want[i] != got[i])
            return ::testing::AssertionFailure() << "bytes differ at " << i << " of " << got_len;
    return ::testing::AssertionSuccess();
}

// Which written I-frame a returned frame is: its index, or -1 when it is
// none of them byte for byte.
int which_iframe(const WrittenStream& written, uint32_t frame_len, const uint8_t* frame, int len)
{
    if (uint32_t(len) != frame_len)
        return -1;
    for (size_t i = 0; i < written.iframes.size(); i++) {
        const uint8_t* want = written.bytes.data() + written.iframes[i].offset;
        if (memcmp(want, frame, frame_len) == 0)
            return int(i);
    }
    return -1;
}

struct Frame {
    int iframe = -1;  // index among the written I-frames, -1 none
    uint8_t new_segment = 0;
};

class FastPlayTest : public RecordingTest {
protected:
    // Records `seconds` of channel 0 from `start` as one closed segment.
    WrittenStream record_segment(const _k4t_fs_date_time_& start, unsigned seconds,
                                 _k4t_stream_segment_id_* id)
    {
        WrittenStream written;
        FrameSource source = big_iframe_source(start);
        const int fd = create(request(0, 0, start), id);
        EXPECT_GT(fd, 0);
        record_seconds(fd, source, seconds, written);
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        return written;
    }
    int open_by_id(_k4t_stream_segment_id_ id, uint8_t flags = 0)
    {
        return api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, flags);
    }
    _k4t_stream_segment_id_ id_of(int fd)
    {
        _k4t_stream_segment_id_ id = {255, 0, 0};
        EXPECT_EQ(0, api_qzfs_get_fd_info(fd, &id));
        return id;
    }
    uint32_t iframe_len() const { return big_iframe_source(kMorning).frame_bytes(true); }
    // Reads I-frames in one direction until a call gives 0, checking that
    // each is one of `streams` whole; a frame of none of them counts as -1.
    // `which` tells which stream each frame came from.
    std::vector<Frame> play(int fd, bool forward, uint8_t skip,
                            const std::vector<const WrittenStream*>& streams,
                            std::vector<int>* which = nullptr, size_t most = 1000)
    {
        std::vector<Frame> frames;
        for (size_t n = 0; n < most; n++) {
            uint8_t* buffer = nullptr;
            int len = 0;
            uint8_t fresh = 0;
            const int got = forward ? api_qzfs_read_next_iframe(fd, skip, &buffer, &len, &fresh)
                                    : api_qzfs_read_pre_iframe(fd, skip, &buffer, &len, &fresh);
            EXPECT_GE(got, 0);
            if (got <= 0)
                break;
            EXPECT_EQ(got, len);
            Frame frame;
            frame.new_segment = fresh;
            int from = -1;
            for (size_t s = 0; s < streams.size() && frame.iframe < 0; s++) {
                frame.iframe = which_iframe(*streams[s], iframe_len(), buffer, len);
                from = frame.iframe >= 0 ? int(s) : -1;
            }
            if (which != nullptr)
                which->push_back(from);
            frames.push_back(frame);
        }
        return frames;
    }
    std::vector<int> indexes(const std::vector<Frame>& frames)
    {
        std::vector<int> out;
        for (const Frame& f : frames)
            out.push_back(f.iframe);
        return out;
    }
    // Written I-frames whose bytes run over the end of their data block.
    std::vector<int> straddling(const _k4t_stream_segment_id_& id)
    {
        SegmentOnDisk disk;
        read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
        std::vector<int> out;
        int n = 0;
        for (const _iframe_index_node_dev_& e : disk.entries) {
            if (e.id != IFRAME_INDEX_ID_IFRAME)
                continue;
            if (e.block_offset + iframe_len() > fs_->manage().block_size)
                out.push_back(n);
            n++;
        }
        return out;
    }
};

std::vector<int> every(int first, int last, int step)
{
    std::vector<int> out;
    if (step > 0)
        for (int i = first; i <= last; i += step)
            out.push_back(i);
    else
        for (int i = first; i >= last; i += step)
            out.push_back(i);
    return out;
}

bool same_id(const _k4t_stream_segment_id_& a, const _k4t_stream_segment_id_& b)
{
    return a.hdd_id == b.hdd_id && a.root_index == b.root_index &&
           a.stream_segment_index == b.stream_segment_index;
}

}  // namespace

// ------------------------------------------------------ one segment, closed

TEST_F(FastPlayTest, ForwardAndBackVisitEveryRecordedIframeAtEachSpeed)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 24, &id);
    const int count = int(written.iframes.size());
    ASSERT_EQ(24, count);
    const std::vector<int> crossing = straddling(id);
    ASSERT_GE(crossing.size(), 2u) << "some I-frames should run over a block end";

    for (uint8_t skip : {0, 1, 5}) {
        SCOPED_TRACE(int(skip));
        int fd = open_by_id(id);
        ASSERT_GT(fd, 0);
        std::vector<Frame> forward = play(fd, true, skip, {&written}, nullptr, 1);
        // The frames are longer than the buffer's first size: it grew with
        // the first one, is kept between calls and grows only where a later
        // frame starts further into its first unit.
        const _read_stream_segment_* rss = open_record(fd)->reader();
        EXPECT_GE(rss->frame_buffer_len, iframe_len());
        const uint32_t grown_len = rss->frame_buffer_len;
        const std::vector<Frame> rest = play(fd, true, skip, {&written});
        forward.insert(forward.end(), rest.begin(), rest.end());
        EXPECT_EQ(every(skip, count - 1, skip + 1), indexes(forward))
            << "every (skip + 1)th I-frame, each whole and as written";
        ASSERT_FALSE(forward.empty());
        EXPECT_EQ(1, forward[0].new_segment) << "the first frame of an open segment says so";
        for (size_t i = 1; i < forward.size(); i++)
            EXPECT_EQ(0, forward[i].new_segment);
        uint8_t* buffer = nullptr;
        int len = -1;
        EXPECT_EQ(0, api_qzfs_read_next_iframe(fd, skip, &buffer, &len, nullptr))
            << "the end stays the end";
        EXPECT_LE(grown_len, rss->frame_buffer_len);
        EXPECT_LE(rss->frame_buffer_len, iframe_len() + 3 * 0x10000);
        EXPECT_NE(nullptr, rss->frame_buffer) << "kept for the next call";

        // Back from the end of the data, after a plain read to it.
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        fd = open_by_id(id);
        ASSERT_GT(fd, 0);
        std::vector<uint8_t> chunk(1 << 20);
        while (api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), nullptr) > 0) {
        }
        const std::vector<Frame> back = play(fd, false, skip, {&written});
        EXPECT_EQ(every(count - 1 - skip, 0, -(skip + 1)), indexes(back));
        EXPECT_EQ(0, api_qzfs_read_pre_iframe(fd, skip, &buffer, &len, nullptr))
            << "nothing before the first I-frame";
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    }

    // Right after open the read point is the first I-frame: nothing lies
    // behind it.
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    uint8_t* buffer = nullptr;
    int len = -1;
    EXPECT_EQ(0, api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(FastPlayTest, FastBackStartsBehindTheReadPointAndFromASeek)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 20, &id);
    const uint32_t frame_len = iframe_len();
    int fd = open_by_id(id);
    ASSERT_GT(fd, 0);

    // In the middle of the GOP of I-frame 7, back gives I-frame 7 itself,
    // forward gives I-frame 8.
    const uint32_t into_gop = uint32_t(written.iframes[7].offset - written.iframes[0].offset) +
                              frame_len + 5000;
    std::vector<uint8_t> chunk(into_gop);
    ASSERT_EQ(int(into_gop), api_qzfs_read_video_data(fd, chunk.data(), int(into_gop), nullptr));
    uint8_t* buffer = nullptr;
    int len = 0;
    ASSERT_EQ(int(frame_len), api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr));
    EXPECT_EQ(7, which_iframe(written, frame_len, buffer, len));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    ASSERT_EQ(int(into_gop), api_qzfs_read_video_data(fd, chunk.data(), int(into_gop), nullptr));
    ASSERT_EQ(int(frame_len), api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr));
    EXPECT_EQ(8, which_iframe(written, frame_len, buffer, len));

    // After a seek the read point is the I-frame of that second: back goes
    // on with the one before it.
    _k4t_fs_date_time_ when = at_time(8, 0, 12);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &when));
    ASSERT_EQ(int(frame_len), api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr));
    EXPECT_EQ(11, which_iframe(written, frame_len, buffer, len));
    ASSERT_EQ(int(frame_len), api_qzfs_read_pre_iframe(fd, 2, &buffer, &len, nullptr));
    EXPECT_EQ(8, which_iframe(written, frame_len, buffer, len));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ------------------------------------------------ back to normal reading

TEST_F(FastPlayTest, NormalReadingGoesOnRightBehindTheLastFrameShown)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 24, &id);
    const std::vector<int> crossing = straddling(id);
    ASSERT_FALSE(crossing.empty());
    const uint32_t frame_len = iframe_len();
    const size_t tail = 1 * MiB;

    // Behind each kind of frame: one inside a block, one over a block end,
    // reached forward and back.
    for (int target : {2, crossing.front(), crossing.back()}) {
        for (bool forward : {true, false}) {
            SCOPED_TRACE(std::to_string(target) + (forward ? " forward" : " back"));
            const int fd = open_by_id(id);
            ASSERT_GT(fd, 0);
            uint8_t* buffer = nullptr;
            int len = 0;
            int shown = -1;
            if (forward) {
                for (int i = 0; i <= target; i++)
                    ASSERT_EQ(int(frame_len),
                              api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr));
            } else {
                // Read normally past the frame after the target, then back.
                const uint64_t to = written.iframes.at(size_t(target) + 1).offset -
                                    written.iframes[0].offset + frame_len + 100;
                std::vector<uint8_t> chunk(to);
                ASSERT_EQ(int(to), api_qzfs_read_video_data(fd, chunk.data(), int(to), nullptr));
                ASSERT_EQ(int(frame_len), api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr));
                ASSERT_EQ(int(frame_len), api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr));
            }
            shown = which_iframe(written, frame_len, buffer, len);
            ASSERT_EQ(target, shown);
            const size_t behind = written.iframes[size_t(target)].offset + frame_len;
            std::vector<uint8_t> want(written.bytes.begin() + long(behind),
                                      written.bytes.begin() + long(behind + tail));
            std::vector<uint8_t> got(tail);
            size_t have = 0;
            while (have < tail) {
                const int n = api_qzfs_read_video_data(fd, got.data() + have,
                                                       int(std::min<size_t>(tail - have, 300000)),
                                                       nullptr);
                ASSERT_GT(n, 0);
                have += size_t(n);
            }
            EXPECT_TRUE(same_bytes(want, got.data(), got.size()));
            // And fast forward again from there: the first I-frame after
            // the read point.
            ASSERT_EQ(int(frame_len), api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr));
            const auto next = std::find_if(written.iframes.begin(), written.iframes.end(),
                                           [&](const _k4t_video_frame_info_& f) {
                                               return f.offset >= behind + tail;
                                           });
            ASSERT_NE(written.iframes.end(), next);
            EXPECT_EQ(int(next - written.iframes.begin()),
                      which_iframe(written, frame_len, buffer, len));
            EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        }
    }
}

TEST_F(FastPlayTest, TurningAroundGoesOnFromTheTurningPoint)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 16, &id);
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(every(0, 5, 1), indexes(play(fd, true, 0, {&written}, nullptr, 6)));

    // Back from the forward position: the walk down starts at the log node
    // behind the frame last shown, so the first frame back is that one or
    // the next, and then every frame down to the first.
    const std::vector<int> back = indexes(play(fd, false, 0, {&written}, nullptr, 4));
    ASSERT_EQ(4u, back.size());
    EXPECT_TRUE(back[0] == 5 || back[0] == 6) << back[0];
    for (size_t i = 1; i < back.size(); i++)
        EXPECT_EQ(back[i - 1] - 1, back[i]);

    // Forward again: from the node below the frame last shown, upward.
    const int low = back.back();
    const std::vector<int> forward = indexes(play(fd, true, 0, {&written}));
    ASSERT_FALSE(forward.empty());
    EXPECT_TRUE(forward[0] == low - 1 || forward[0] == low) << forward[0];
    EXPECT_EQ(every(forward[0], 15, 1), forward) << "then each I-frame up to the last";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(FastPlayTest, AFailedCallLeavesTheReadPointWhereItWas)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 6, &id);
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    uint8_t* buffer = nullptr;
    int len = 0;
    // Nothing lies behind the first I-frame.
    EXPECT_EQ(0, api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr));
    std::vector<uint8_t> got(300000);
    ASSERT_EQ(int(got.size()), api_qzfs_read_video_data(fd, got.data(), int(got.size()), nullptr));
    const std::vector<uint8_t> all = from_first_iframe(written);
    EXPECT_TRUE(same_bytes(std::vector<uint8_t>(all.begin(), all.begin() + long(got.size())),
                           got.data(), got.size()));

    // Past the last I-frame forward finds nothing; the normal read goes on.
    const size_t after_last = written.iframes.back().offset - written.iframes[0].offset + 400000;
    std::vector<uint8_t> skip_to(after_last - got.size());
    ASSERT_EQ(int(skip_to.size()),
              api_qzfs_read_video_data(fd, skip_to.data(), int(skip_to.size()), nullptr));
    EXPECT_EQ(0, api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr));
    ASSERT_EQ(1000, api_qzfs_read_video_data(fd, got.data(), 1000, nullptr));
    EXPECT_TRUE(same_bytes(std::vector<uint8_t>(all.begin() + long(after_last),
                                                all.begin() + long(after_last) + 1000),
                           got.data(), 1000));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(FastPlayTest, AnIframeWithADamagedHeaderIsPassedOver)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 10, &id);
    SegmentOnDisk disk;
    read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
    // Spoil the frame type of I-frame 4 where it lies on the disk.
    int n = 0;
    unsigned long long at = 0;
    for (const _iframe_index_node_dev_& e : disk.entries)
        if (e.id == IFRAME_INDEX_ID_IFRAME && n++ == 4)
            at = (unsigned long long)e.block_num * fs_->manage().block_size + e.block_offset + 1;
    ASSERT_NE(0u, at);
    write_bytes(image_, at, {'x'});

    int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 5, 6, 7, 8, 9}), indexes(play(fd, true, 0, {&written})));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> chunk(1 << 20);
    while (api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), nullptr) > 0) {
    }
    EXPECT_EQ((std::vector<int>{9, 8, 7, 6, 5, 3, 2, 1, 0}), indexes(play(fd, false, 0, {&written})));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ------------------------------------------------------ adjacent segments

TEST_F(FastPlayTest, WithTheContinueFlagPlaybackCrossesIntoTheAdjacentSegment)
{
    _k4t_stream_segment_id_ first, second;
    const WrittenStream a = record_segment(kMorning, 12, &first);
    const WrittenStream b = record_segment(at_time(8, 10, 0), 8, &second);
    ASSERT_EQ(first.root_index, second.root_index) << "the same day shares one root";

    // Without the flag each direction ends with the segment.
    int fd = open_by_id(first);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(every(0, 11, 1), indexes(play(fd, true, 0, {&a})));
    EXPECT_TRUE(same_id(first, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    // Forward at speed 6: the first frame of the next segment is its first
    // I-frame whatever the speed, and says it is new.
    fd = open_by_id(first, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    std::vector<int> from;
    const std::vector<Frame> forward = play(fd, true, 5, {&a, &b}, &from);
    EXPECT_EQ((std::vector<int>{5, 11, 0, 6}), indexes(forward));
    EXPECT_EQ((std::vector<int>{0, 0, 1, 1}), from);
    ASSERT_EQ(4u, forward.size());
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 1, 0}),
              (std::vector<uint8_t>{forward[0].new_segment, forward[1].new_segment,
                                    forward[2].new_segment, forward[3].new_segment}));
    EXPECT_TRUE(same_id(second, id_of(fd))) << "the descriptor now names the second segment";
    uint8_t* buffer = nullptr;
    int len = 0;
    ASSERT_EQ(int(iframe_len()), api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr));
    EXPECT_EQ(7, which_iframe(b, iframe_len(), buffer, len));
    EXPECT_EQ(0, api_qzfs_read_next_iframe(fd, 0, &buffer, &len, nullptr)) << "no third segment";
    EXPECT_TRUE(same_id(second, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    // Back from the end of the second: into the first, which the open
    // places on the I-frame of its end second; the frame before that point
    // comes next, and so on to the very first.
    fd = open_by_id(second, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> chunk(1 << 20);
    while (api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), nullptr) > 0) {
    }
    ASSERT_TRUE(same_id(second, id_of(fd))) << "the last segment of the day stays";
    from.clear();
    const std::vector<Frame> back = play(fd, false, 0, {&a, &b}, &from);
    std::vector<int> want = every(7, 0, -1);
    const std::vector<int> in_first = every(10, 0, -1);
    want.insert(want.end(), in_first.begin(), in_first.end());
    EXPECT_EQ(want, indexes(back));
    std::vector<int> want_from(8, 1);
    want_from.insert(want_from.end(), in_first.size(), 0);
    EXPECT_EQ(want_from, from);
    ASSERT_EQ(want.size(), back.size());
    EXPECT_EQ(1, back[8].new_segment) << "the crossing is reported";
    EXPECT_EQ(0, back[9].new_segment);
    EXPECT_TRUE(same_id(first, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_read_pre_iframe(fd, 0, &buffer, &len, nullptr)) << "nothing earlier";
    EXPECT_TRUE(same_id(first, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    // Right after open nothing lies behind the read point: with the flag
    // back goes straight into the previous segment.
    fd = open_by_id(second, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    uint8_t fresh = 0;
    ASSERT_EQ(int(iframe_len()), api_qzfs_read_pre_iframe(fd, 3, &buffer, &len, &fresh));
    EXPECT_EQ(10, which_iframe(a, iframe_len(), buffer, len)) << "whatever the speed";
    EXPECT_EQ(1, fresh);
    EXPECT_TRUE(same_id(first, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ---------------------------------------------------------- a live writer

TEST_F(FastPlayTest, OnALiveRecordingForwardStopsAtTheNewestIframeAndGoesOnLater)
{
    _k4t_stream_segment_id_ id;
    FrameSource source = big_iframe_source(kMorning);
    WrittenStream written;
    const int writer = create(request(0, 0, kMorning), &id);
    ASSERT_GT(writer, 0);
    record_seconds(writer, source, 8, written);

    const int fd = open_by_id(id, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    std::vector<int> seen = indexes(play(fd, true, 0, {&written}));
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(every(0, int(seen.size()) - 1, 1), seen) << "the I-frames on disk so far, in order";
    EXPECT_LT(seen.size(), written.iframes.size() + 1);
    EXPECT_TRUE(same_id(id, id_of(fd))) << "a live segment is never left forward";
    {
        // The refused call left the reader behind the last frame shown.
        const size_t behind = written.iframes[size_t(seen.back())].offset + iframe_len();
        std::vector<uint8_t> got(20000);
        ASSERT_EQ(int(got.size()),
                  api_qzfs_read_video_data(fd, got.data(), int(got.size()), nullptr));
        EXPECT_TRUE(same_bytes(std::vector<uint8_t>(written.bytes.begin() + long(behind),
                                                    written.bytes.begin() + long(behind) + 20000),
                               got.data(), got.size()));
    }

    // The writer goes on over block ends; so does the reader.
    for (int round = 0; round < 3; round++) {
        record_seconds(writer, source, 6, written);
        const std::vector<int> more = indexes(play(fd, true, 0, {&written}));
        ASSERT_FALSE(more.empty()) << "round " << round;
        EXPECT_EQ(every(int(seen.size()), int(seen.size() + more.size()) - 1, 1), more);
        seen.insert(seen.end(), more.begin(), more.end());
    }

    // Back while it records, then forward again after its close, to the end.
    uint8_t* buffer = nullptr;
    int len = 0;
    ASSERT_EQ(int(iframe_len()), api_qzfs_read_pre_iframe(fd, 1, &buffer, &len, nullptr));
    const int turned = which_iframe(written, iframe_len(), buffer, len);
    EXPECT_GE(turned, 0);
    EXPECT_LT(turned, int(seen.size()));
    record_seconds(writer, source, 2, written);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(writer));
    const std::vector<int> rest = indexes(play(fd, true, 0, {&written}));
    ASSERT_FALSE(rest.empty());
    EXPECT_EQ(int(written.iframes.size()) - 1, rest.back()) << "up to the last I-frame";
    for (size_t i = 1; i < rest.size(); i++)
        EXPECT_EQ(rest[i - 1] + 1, rest[i]);
    EXPECT_TRUE(same_id(id, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ---------------------------------------------------------- bad calls

TEST_F(FastPlayTest, BadCallsAreRefused)
{
    _k4t_stream_segment_id_ id;
    FrameSource source = big_iframe_source(kMorning);
    WrittenStream written;
    const int writer = create(request(0, 0, kMorning), &id);
    ASSERT_GT(writer, 0);
    record_seconds(writer, source, 3, written);
    const int reader = open_by_id(id);
    ASSERT_GT(reader, 0);

    uint8_t* buffer = nullptr;
    int len = 0;
    expect_result_and_log(-1, "invalid parameter",
                          [&] { return api_qzfs_read_next_iframe(reader, 0, nullptr, &len, nullptr); });
    expect_result_and_log(-1, "invalid parameter",
                          [&] { return api_qzfs_read_pre_iframe(reader, 0, &buffer, nullptr, nullptr); });
    EXPECT_EQ(-1, api_qzfs_read_next_iframe(-3, 0, &buffer, &len, nullptr));
    EXPECT_EQ(-1, api_qzfs_read_pre_iframe(0, 0, &buffer, &len, nullptr));
    EXPECT_EQ(-1, api_qzfs_read_next_iframe(4000, 0, &buffer, &len, nullptr));
    expect_result_and_log(-1, "(pOss->read_or_write != K4T_FS_TRUE)",
                          [&] { return api_qzfs_read_next_iframe(writer, 0, &buffer, &len, nullptr); });
    EXPECT_EQ(int(iframe_len()), api_qzfs_read_next_iframe(reader, 0, &buffer, &len, nullptr))
        << "the reader itself is fine";
    EXPECT_EQ(0, which_iframe(written, iframe_len(), buffer, len));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
    EXPECT_EQ(-1, api_qzfs_read_next_iframe(reader, 0, &buffer, &len, nullptr)) << "closed";
    EXPECT_EQ(-1, api_qzfs_read_pre_iframe(reader, 0, &buffer, &len, nullptr)) << "closed";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(writer));
}
