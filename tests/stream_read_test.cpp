// Playback as an application lives it: record, open by id or by time, read
// back in any chunk size, follow a live recording, go on into the next
// segment, and move by time.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kMorning = {26, 11, 21, 8, 0, 0, 0};

_k4t_fs_date_time_ at_time(uint8_t hour, uint8_t minute, uint8_t second)
{
    _k4t_fs_date_time_ t = kMorning;
    t.hour = hour;
    t.minute = minute;
    t.second = second;
    return t;
}

FrameSource source_at(const _k4t_fs_date_time_& start, unsigned gop = 25)
{
    FrameSourceConfig config;
    config.start = start;
    config.gop = gop;
    return FrameSource(config);
}

// The written bytes from the I-frame of second `hh:mm:ss` (the first one
// of that second) on.
std::vector<uint8_t> from_iframe_at(const WrittenStream& written, uint8_t hour, uint8_t minute,
                                    uint8_t second)
{
    for (const _k4t_video_frame_info_& f : written.iframes)
        if (f.hour == hour && f.minute == minute && f.second == second)
            return std::vector<uint8_t>(written.bytes.begin() + long(f.offset),
                                        written.bytes.end());
    ADD_FAILURE() << "no I-frame at that second";
    return {};
}

// Reads `fd` in `chunk`-byte calls until it returns 0 (or fails, or
// `most` bytes have come). The last result is left in `last`.
std::vector<uint8_t> read_to_end(int fd, int chunk, size_t most = 256 * MiB, int* last = nullptr)
{
    std::vector<uint8_t> out;
    std::vector<uint8_t> buffer(static_cast<size_t>(chunk));
    int n = 0;
    while (out.size() < most &&
           (n = api_qzfs_read_video_data(fd, buffer.data(), chunk, nullptr)) > 0)
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    if (last != nullptr)
        *last = n;
    return out;
}

// Reads exactly `count` bytes in `chunk`-byte calls (the stream must hold them).
std::vector<uint8_t> read_exactly(int fd, size_t count, int chunk)
{
    std::vector<uint8_t> out;
    std::vector<uint8_t> buffer(static_cast<size_t>(chunk));
    while (out.size() < count) {
        const int want = int(std::min<size_t>(size_t(chunk), count - out.size()));
        const int n = api_qzfs_read_video_data(fd, buffer.data(), want, nullptr);
        if (n <= 0) {
            ADD_FAILURE() << "read returned " << n << " after " << out.size() << " bytes";
            break;
        }
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
    }
    return out;
}

// Compares without printing megabytes: the first differing position.
::testing::AssertionResult same_bytes(const std::vector<uint8_t>& want,
                                      const std::vector<uint8_t>& got)
{
    const size_t common = std::min(want.size(), got.size());
    for (size_t i = 0; i < common; i++)
        if (want[i] != got[i])
            return ::testing::AssertionFailure() << "bytes differ at " << i << " of " << want.size();
    if (want.size() != got.size())
        return ::testing::AssertionFailure()
               << "wanted " << want.size() << " bytes, got " << got.size();
    return ::testing::AssertionSuccess();
}

_qzfs_k4t_stream_open_para_ open_request(uint8_t channel, const _k4t_fs_date_time_& when)
{
    _qzfs_k4t_stream_open_para_ para;
    memset(&para, 0, sizeof(para));
    para.channel = channel;
    para.stream_type = 0;
    para.record_type_bitmap = 0xFFFF;
    para.group_bitmap = 1;
    para.date_time = when;
    return para;
}

class StreamReadTest : public RecordingTest {
protected:
    // Records `seconds` of channel 0 from `start` as one closed segment.
    WrittenStream record_segment(const _k4t_fs_date_time_& start, unsigned seconds,
                                 _k4t_stream_segment_id_* id, unsigned gop = 25)
    {
        WrittenStream written;
        FrameSource source = source_at(start, gop);
        const int fd = create(request(0, 0, start), id);
        EXPECT_GT(fd, 0);
        record_seconds(fd, source, seconds, written);
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        return written;
    }
    // Starts recording channel 0 at 08:00 and writes `seconds` of it; the
    // writer's descriptor.
    int record_live(unsigned seconds, _k4t_stream_segment_id_* id, FrameSource& source,
                    WrittenStream& written)
    {
        const int writer = create(request(0, 0, kMorning), id);
        EXPECT_GT(writer, 0);
        record_seconds(writer, source, seconds, written);
        return writer;
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
    // Byte offset in the image of node `position` of root `root`'s I-frame log.
    unsigned long long log_node_offset(uint32_t root, uint32_t position)
    {
        uint32_t ssi_num = 0, head = 0, num = 0;
        uint32_t *ssi_list = nullptr, *chain = nullptr;
        EXPECT_EQ(0, fs_->Get_stream_segment_index_block_list(root, &ssi_num, &ssi_list, &head));
        EXPECT_EQ(0, fs_->Read_iframe_index_block_list(head, &num, &chain));
        const unsigned long block_size = fs_->manage().block_size;
        _qzfs_data_offset_ at;
        Calculate_index_info(block_size, QZFS_IFRAME_NODE_SIZE, position, block_size, &at);
        const unsigned long long offset =
            at.its_block_num < num ? (unsigned long long)chain[at.its_block_num] * block_size +
                                         at.unit_offset +
                                         qzfs_iframe_offset_in_unit(at, position, block_size)
                                   : 0;
        delete[] ssi_list;
        delete[] chain;
        return offset;
    }
    // Stream offset at which the first data block of a segment ends.
    uint64_t first_block_end(const WrittenStream& written, const _k4t_stream_segment_id_& id)
    {
        SegmentOnDisk disk;
        read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
        (void)written;
        return fs_->manage().block_size - disk.entries.at(1).block_offset;
    }
};

bool same_id(const _k4t_stream_segment_id_& a, const _k4t_stream_segment_id_& b)
{
    return a.hdd_id == b.hdd_id && a.root_index == b.root_index &&
           a.stream_segment_index == b.stream_segment_index;
}

}  // namespace

// ---------------------------------------------------------------- read back

TEST_F(StreamReadTest, EveryChunkSizeReadsBackTheRecordingAcrossBlocks)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 24, &id);
    const std::vector<uint8_t> want = from_first_iframe(written);
    ASSERT_GT(want.size(), 2 * fs_->manage().block_size) << "the recording should span blocks";

    for (int chunk : {1000, 65536, 1 << 20, 65535 + 2 * 4096}) {
        SCOPED_TRACE(chunk);
        const int fd = open_by_id(id);
        ASSERT_GT(fd, 0);
        int last = -2;
        EXPECT_TRUE(same_bytes(want, read_to_end(fd, chunk, 256 * MiB, &last)));
        EXPECT_EQ(0, last);
        uint8_t byte;
        EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr)) << "the end stays the end";
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    }
}

TEST_F(StreamReadTest, OneByteReadsCrossABlockEndAndMixedChunksStayInStep)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 24, &id);
    const std::vector<uint8_t> want = from_first_iframe(written);
    const uint64_t boundary = first_block_end(written, id);

    // Large reads up to 70 KB before the block end, then single bytes over it.
    int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> got = read_exactly(fd, size_t(boundary - 70000), 1 << 20);
    const std::vector<uint8_t> bytes = read_exactly(fd, 140000, 1);
    got.insert(got.end(), bytes.begin(), bytes.end());
    const std::vector<uint8_t> rest = read_to_end(fd, 1 << 20);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_TRUE(same_bytes(want, got));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    // Chunk sizes that keep changing, small and large in turn.
    fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    const int sizes[] = {1, 70000, 13, 65536, 1 << 20, 4095, 200000, 7};
    got.clear();
    std::vector<uint8_t> buffer(1 << 20);
    for (size_t i = 0;; i++) {
        const int n = api_qzfs_read_video_data(fd, buffer.data(), sizes[i % 8], nullptr);
        ASSERT_GE(n, 0);
        if (n == 0)
            break;
        got.insert(got.end(), buffer.begin(), buffer.begin() + n);
    }
    EXPECT_TRUE(same_bytes(want, got));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamReadTest, TheFirstReadReportsANewSegmentOnce)
{
    _k4t_stream_segment_id_ id;
    record_segment(kMorning, 2, &id);
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    uint8_t buffer[1000];
    uint8_t fresh = 9;
    EXPECT_EQ(1000, api_qzfs_read_video_data(fd, buffer, 1000, &fresh));
    EXPECT_EQ(1, fresh);
    EXPECT_EQ(1000, api_qzfs_read_video_data(fd, buffer, 1000, &fresh));
    EXPECT_EQ(0, fresh);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ------------------------------------------------------- the next segment

TEST_F(StreamReadTest, TheContinueFlagCarriesAReaderIntoTheNextSegmentOfTheDay)
{
    _k4t_stream_segment_id_ first, second;
    const WrittenStream a = record_segment(kMorning, 12, &first);
    const WrittenStream b = record_segment(at_time(8, 10, 0), 6, &second);

    // Without the flag the reader ends with its segment.
    int fd = open_by_id(first);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(same_bytes(from_first_iframe(a), read_to_end(fd, 65536)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    fd = open_by_id(first, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> got;
    std::vector<uint8_t> buffer(1 << 20);
    int segments = 0;
    for (;;) {
        uint8_t fresh = 0;
        const int n = api_qzfs_read_video_data(fd, buffer.data(), int(buffer.size()), &fresh);
        ASSERT_GE(n, 0);
        if (n == 0)
            break;
        if (fresh) {
            segments++;
            // A read that crosses over holds bytes of the new segment only.
            EXPECT_EQ(segments == 1 ? 0u : from_first_iframe(a).size(), got.size());
        }
        got.insert(got.end(), buffer.begin(), buffer.begin() + n);
    }
    EXPECT_EQ(2, segments);
    std::vector<uint8_t> want = from_first_iframe(a);
    const std::vector<uint8_t> tail = from_first_iframe(b);
    want.insert(want.end(), tail.begin(), tail.end());
    EXPECT_TRUE(same_bytes(want, got));
    EXPECT_TRUE(same_id(second, id_of(fd))) << "the descriptor now names the second segment";
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, buffer.data(), 10, nullptr)) << "no third segment";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ---------------------------------------------------------- a live writer

TEST_F(StreamReadTest, AReaderFollowsALiveRecordingAndGoesOnAfterItsClose)
{
    _k4t_stream_segment_id_ id;
    FrameSource source = source_at(kMorning);
    WrittenStream written;
    const int writer = record_live(3, &id, source, written);
    ASSERT_GT(writer, 0);

    const int reader = open_by_id(id);
    ASSERT_GT(reader, 0);
    std::vector<uint8_t> got = read_to_end(reader, 65536);
    EXPECT_TRUE(same_bytes(from_first_iframe(written), got)) << "all that is written so far";

    // Each further write becomes readable at once, up to its last byte,
    // across the block ends the writer passes.
    for (int round = 0; round < 12; round++) {
        record_seconds(writer, source, 1, written);
        const std::vector<uint8_t> more = read_to_end(reader, 1000 + round * 7919);
        got.insert(got.end(), more.begin(), more.end());
        ASSERT_TRUE(same_bytes(from_first_iframe(written), got)) << "round " << round;
    }
    ASSERT_GT(got.size(), fs_->manage().block_size);

    record_seconds(writer, source, 2, written);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(writer));
    const std::vector<uint8_t> rest = read_to_end(reader, 1 << 20);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_TRUE(same_bytes(from_first_iframe(written), got));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
}

TEST_F(StreamReadTest, ARecordingWithoutAnIframeYetCannotBeOpened)
{
    _k4t_stream_segment_id_ id;
    const int writer = create(request(0, 0, kMorning), &id);
    ASSERT_GT(writer, 0);
    EXPECT_EQ(-1, open_by_id(id));
    _qzfs_k4t_stream_open_para_ para = open_request(0, kMorning);
    EXPECT_EQ(-1, api_qzfs_open_stream_segment_by_para(&para, 0)) << "invisible to a search";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(writer));
}

// ------------------------------------------------------------ open by time

class StreamFindTest : public StreamReadTest {
protected:
    void SetUp() override
    {
        StreamReadTest::SetUp();
        a_ = record_segment(kMorning, 20, &first_);           // 08:00:00 - 08:00:19
        b_ = record_segment(at_time(8, 10, 0), 20, &second_);  // 08:10:00 - 08:10:19
    }
    // 'A', 'B' or '-' for the segment that the search finds.
    char found(_fs_find_policy_ policy, const _k4t_fs_date_time_& when)
    {
        _qzfs_k4t_stream_open_para_ para = open_request(0, when);
        unsigned char hdd = 255;
        uint32_t root = 0, index = 0;
        _stream_segment_index_node_men_ best;
        if (gQzfsManager.Find_stream_segment(&para, policy, &hdd, &root, &index, &best) != 0)
            return '-';
        EXPECT_EQ(0, hdd);
        const _k4t_stream_segment_id_ id = {hdd, root, index};
        return same_id(id, first_) ? 'A' : same_id(id, second_) ? 'B' : '?';
    }
    WrittenStream a_, b_;
    _k4t_stream_segment_id_ first_, second_;
};

TEST_F(StreamFindTest, EachPolicyChoosesItsSegment)
{
    // Moments: before A, inside A, A's last second, in the gap, B's first
    // second, after B. One row of answers a policy.
    const _k4t_fs_date_time_ moments[] = {at_time(7, 58, 20), at_time(8, 0, 10),
                                          at_time(8, 0, 19),  at_time(8, 5, 0),
                                          at_time(8, 10, 0),  at_time(8, 20, 0)};
    const struct {
        _fs_find_policy_ policy;
        const char* answers;
    } rows[] = {
        {FS_FIND_NEAR_PREFER_NEXT, "AABBBB"}, {FS_FIND_NEAR_PREFER_PREV, "AAAABB"},
        {FS_FIND_AT_OR_PREV, "-AAABB"},       {FS_FIND_AT_OR_NEXT, "AABBB-"},
        {FS_FIND_EXACT, "-AA-B-"},            {FS_FIND_NEXT, "AABBB-"},
        {FS_FIND_PREV, "-AAAAB"},
    };
    for (const auto& row : rows)
        for (int m = 0; m < 6; m++)
            EXPECT_EQ(row.answers[m], found(row.policy, moments[m]))
                << "policy " << row.policy << ", moment " << m;
}

TEST_F(StreamFindTest, OpenByTimeLandsOnTheMomentOrTheNextSegment)
{
    struct {
        _k4t_fs_date_time_ when;
        const WrittenStream* segment;
        uint8_t second_of_iframe;
        uint8_t minute;
    } cases[] = {
        {at_time(8, 0, 10), &a_, 10, 0},  // inside: at that second's I-frame
        {at_time(8, 0, 0), &a_, 0, 0},    // the exact start
        {at_time(8, 5, 0), &b_, 0, 10},   // in the gap: the next segment from its start
        {at_time(8, 10, 19), &b_, 19, 10},  // the last second of the day's last segment
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(int(c.when.minute) * 100 + c.when.second);
        _qzfs_k4t_stream_open_para_ para = open_request(0, c.when);
        const int fd = api_qzfs_open_stream_segment_by_para(&para, 0);
        ASSERT_GT(fd, 0);
        EXPECT_TRUE(same_bytes(from_iframe_at(*c.segment, 8, c.minute, c.second_of_iframe),
                               read_to_end(fd, 1 << 20)));
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    }
}

TEST_F(StreamFindTest, OpenRequestsThatFindNothingOrMakeNoSenseFail)
{
    _qzfs_k4t_stream_open_para_ para = open_request(0, at_time(8, 30, 0));
    expect_result_and_log(-1, "find stream segment failed!",
                          [&] { return api_qzfs_open_stream_segment_by_para(&para, 0); });
    para = open_request(0, kMorning);
    para.date_time.day = 22;
    expect_result_and_log(-1, "hdd state START[2026-11-21]END[2026-11-21]FIND[2026-11-22]",
                          [&] { return api_qzfs_open_stream_segment_by_para(&para, 0); });
    para = open_request(0, kMorning);
    para.group_bitmap = 0;
    expect_result_and_log(-1, "invalid para(record_type_bitmap:0xffff, group_bitmap:0x0)",
                          [&] { return api_qzfs_open_stream_segment_by_para(&para, 0); });
    para = open_request(0, kMorning);
    para.group_bitmap = 1u << 5;
    EXPECT_EQ(-1, api_qzfs_open_stream_segment_by_para(&para, 0)) << "a group without disks";
    para = open_request(1, kMorning);
    EXPECT_EQ(-1, api_qzfs_open_stream_segment_by_para(&para, 0)) << "a channel never recorded";
    para = open_request(0, kMorning);
    para.record_type_bitmap = 0x2;
    EXPECT_EQ(-1, api_qzfs_open_stream_segment_by_para(&para, 0)) << "record type 0 only";
    for (int bad = 0; bad < 4; bad++) {
        para = open_request(0, kMorning);
        if (bad == 0)
            para.channel = 255;
        if (bad == 1)
            para.date_time.month = 13;
        if (bad == 2)
            para.date_time.second = 60;
        if (bad == 3)
            para.record_type_bitmap = 0;
        expect_result_and_log(-1, "invalid parameter",
                              [&] { return api_qzfs_open_stream_segment_by_para(&para, 0); });
    }
    EXPECT_EQ(-1, api_qzfs_open_stream_segment_by_para(nullptr, 0));

    _k4t_stream_segment_id_ gone = first_;
    gone.stream_segment_index = 7;
    EXPECT_EQ(-1, open_by_id(gone));
    gone = first_;
    gone.hdd_id = 3;
    expect_result_and_log(-1, "gQzfsManager.get_file_system failed(hdd_id:3)",
                          [&] { return open_by_id(gone); });
    EXPECT_EQ(-1, api_qzfs_open_stream_segment_by_id(nullptr, 0xFFFF, 0));
}

// ------------------------------------------------------------ seek by time

TEST_F(StreamFindTest, SeekByTimeLandsOnTheIframeOfThatSecondOrTheNext)
{
    const int fd = open_by_id(first_, 0);
    ASSERT_GT(fd, 0);
    uint8_t buffer[4096];
    ASSERT_EQ(4096, api_qzfs_read_video_data(fd, buffer, 4096, nullptr));
    for (uint8_t second : {7, 0, 19, 3}) {
        _k4t_fs_date_time_ when = at_time(8, 0, second);
        ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &when));
        const std::vector<uint8_t> want = from_iframe_at(a_, 8, 0, second);
        EXPECT_TRUE(same_bytes(std::vector<uint8_t>(want.begin(), want.begin() + 300000),
                               read_exactly(fd, 300000, 65536)))
            << "second " << int(second);
    }
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamFindTest, AFailedSeekRefusesReadsUntilAGoodOne)
{
    const int fd = open_by_id(first_, 0);
    ASSERT_GT(fd, 0);
    uint8_t buffer[100];
    _k4t_fs_date_time_ outside = at_time(8, 10, 5);
    expect_result_and_log(-1, "Read_video_data (!(pRss->read_flag & QZFS_K4T_OSF_CONTINUE))",
                          [&] { return api_qzfs_seek_stream_segment_by_time(fd, &outside); }, 2);
    expect_result_and_log(-1, "(pRss->seek_failed == K4T_FS_TRUE)",
                          [&] { return api_qzfs_read_video_data(fd, buffer, 100, nullptr); });
    _k4t_fs_date_time_ inside = at_time(8, 0, 4);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &inside));
    ASSERT_EQ(100, api_qzfs_read_video_data(fd, buffer, 100, nullptr));
    const std::vector<uint8_t> want = from_iframe_at(a_, 8, 0, 4);
    EXPECT_EQ(0, memcmp(want.data(), buffer, 100));

    _k4t_fs_date_time_ bad = inside;
    bad.hour = 24;
    expect_result_and_log(-1, "invalid parameter",
                          [&] { return api_qzfs_seek_stream_segment_by_time(fd, &bad); });
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_time(fd, nullptr));
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_time(-1, &inside));
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_time(400, &inside));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamFindTest, SeekWithTheContinueFlagMovesToAnotherSegment)
{
    _qzfs_k4t_stream_open_para_ para = open_request(0, kMorning);
    const int fd = api_qzfs_open_stream_segment_by_para(&para, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    _k4t_fs_date_time_ when = at_time(8, 10, 12);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &when));
    EXPECT_TRUE(same_id(second_, id_of(fd)));
    EXPECT_TRUE(same_bytes(from_iframe_at(b_, 8, 10, 12), read_to_end(fd, 65536)));

    when = at_time(8, 5, 0);  // the gap: the start of the next segment
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &when));
    EXPECT_TRUE(same_id(second_, id_of(fd)));
    when = at_time(8, 0, 2);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &when));
    EXPECT_TRUE(same_id(first_, id_of(fd)));
    when.day = 20;  // another day: nothing there
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_time(fd, &when));
    EXPECT_TRUE(same_id(first_, id_of(fd))) << "a failed seek keeps the segment";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// I-frames every two seconds (08:00:00, :02, ... :18) and a segment end at
// 08:00:19: where each policy lands for moments between, on and after them.
TEST_F(StreamReadTest, EachPolicyPicksItsIframe)
{
    _k4t_stream_segment_id_ id;
    record_segment(kMorning, 20, &id, 50);
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    _opened_stream_segment_* oss = open_record(fd);
    _read_stream_segment_* rss = oss->reader();
    // Second of the chosen I-frame, or -1 for none.
    auto pick = [&](_fs_find_policy_ policy, uint8_t second) {
        _k4t_fs_date_time_ want = at_time(8, 0, second);
        _iframe_index_node_dev_ first, found;
        uint32_t index = 0;
        uint64_t offset = 0;
        fs_->disk_lock(1);
        const int result = fs_->Find_iframe_index_fast(
            oss->ssi(), rss->iframe_block_num, rss->iframe_block_list, oss->ssi()->start_iframe,
            &want, oss->ssi()->len_in_bytes, policy, &first, &index, &found, &offset, 0);
        fs_->disk_lock(0);
        return result == 0 ? int(found.second) : -1;
    };
    const struct {
        uint8_t second;
        int answers[7];  // policies 0 to 6
    } rows[] = {
        {5, {6, 4, 4, 6, -1, 6, 4}},          // between two I-frames
        {4, {4, 4, 4, 4, 4, 6, 2}},           // on one
        {0, {0, 0, 0, 0, 0, 2, -1}},          // on the first
        {18, {18, 18, 18, 18, 18, -1, 16}},   // on the last
        {19, {18, 18, 18, -1, -1, -1, 18}},   // after the last
    };
    for (const auto& row : rows)
        for (int policy = 0; policy < 7; policy++)
            EXPECT_EQ(row.answers[policy], pick(_fs_find_policy_(policy), row.second))
                << "second " << int(row.second) << ", policy " << policy;
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamReadTest, SeekingToTheEndSecondWithoutAnIframeThereFails)
{
    // I-frames every two seconds up to 08:00:18; a last P-frame described
    // at 08:00:19 moves the end there.
    _k4t_stream_segment_id_ id;
    FrameSource source = source_at(kMorning, 50);
    const int writer = create(request(0, 0, kMorning), &id);
    ASSERT_GT(writer, 0);
    WrittenStream written;
    record_seconds(writer, source, 19, written);
    FrameBatch last;
    source.append_frame(last);
    ASSERT_TRUE(last.infos.empty());
    _k4t_video_frame_info_ info = {8, 0, 19, 0, 0, 0, 0};
    last.infos.push_back(info);
    ASSERT_EQ(int(last.bytes.size()), write(writer, last, written));
    ASSERT_EQ(0, api_qzfs_close_stream_segment(writer));
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    _k4t_fs_date_time_ end = at_time(8, 0, 19);
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_time(fd, &end));
    uint8_t byte;
    EXPECT_EQ(-1, api_qzfs_read_video_data(fd, &byte, 1, nullptr));
    _k4t_fs_date_time_ odd = at_time(8, 0, 7);  // between I-frames: the next one
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &odd));
    EXPECT_EQ(1, api_qzfs_read_video_data(fd, &byte, 1, nullptr));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ------------------------------------------------------------- bad calls

TEST_F(StreamReadTest, BadDescriptorsAndBuffersAreRefused)
{
    _k4t_stream_segment_id_ id;
    FrameSource source = source_at(kMorning);
    WrittenStream written;
    const int writer = record_live(2, &id, source, written);
    ASSERT_GT(writer, 0);
    const int reader = open_by_id(id);
    ASSERT_GT(reader, 0);
    uint8_t buffer[64];
    expect_result_and_log(-1, "(pOss->read_or_write != K4T_FS_TRUE)",
                          [&] { return api_qzfs_read_video_data(writer, buffer, 64, nullptr); });
    expect_result_and_log(-1, "invalid parameter(ssfd:",
                          [&] { return api_qzfs_read_video_data(reader, nullptr, 64, nullptr); });
    EXPECT_EQ(-1, api_qzfs_read_video_data(reader, buffer, 0, nullptr));
    EXPECT_EQ(-1, api_qzfs_read_video_data(-1, buffer, 64, nullptr));
    EXPECT_EQ(-1, api_qzfs_read_video_data(0, buffer, 64, nullptr));
    EXPECT_EQ(-1, api_qzfs_read_video_data(511, buffer, 64, nullptr));
    EXPECT_EQ(-1, api_qzfs_read_video_data(4000, buffer, 64, nullptr));
    EXPECT_EQ(64, api_qzfs_read_video_data(reader, buffer, 64, nullptr)) << "the reader is fine";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
    EXPECT_EQ(-1, api_qzfs_read_video_data(reader, buffer, 64, nullptr)) << "closed";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(writer));
}

// ------------------------------------------------------- damage and limits

TEST_F(StreamReadTest, ADamagedBlockEntryEndsTheStreamThereAfterAllDataBeforeIt)
{
    _k4t_stream_segment_id_ id;
    const WrittenStream written = record_segment(kMorning, 30, &id);
    SegmentOnDisk disk;
    read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
    ASSERT_GE(disk.blocks.size(), 3u);
    // The log position of the third block's entry: walk the segment's
    // entries, which start with the first block's.
    uint32_t position = disk.node.start_iframe - 1, entries_seen = 0;
    for (const _iframe_index_node_dev_& e : disk.entries) {
        if (e.id == IFRAME_INDEX_ID_BLOCK && ++entries_seen == 3)
            break;
        position++;
    }
    const unsigned long long node_at = log_node_offset(id.root_index, position);
    ASSERT_EQ(IFRAME_INDEX_ID_BLOCK, read_bytes(image_, node_at, 1)[0]);
    damage_byte(image_, node_at + 5);  // its block number: the check sum fails
    remount();

    const uint64_t two_blocks = first_block_end(written, id) + fs_->manage().block_size - 4096;
    const int fd = open_by_id(id);
    ASSERT_GT(fd, 0);
    int last = 0;
    const std::vector<uint8_t> got = read_to_end(fd, 65536, 256 * MiB, &last);
    const std::vector<uint8_t> all = from_first_iframe(written);
    EXPECT_EQ(-1, last);
    EXPECT_TRUE(same_bytes(std::vector<uint8_t>(all.begin(), all.begin() + long(two_blocks)), got));
    uint8_t byte;
    EXPECT_EQ(-1, api_qzfs_read_video_data(fd, &byte, 1, nullptr)) << "the error is final";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamReadTest, ASegmentThatCannotBeOpenedLeavesTheIndex)
{
    _k4t_stream_segment_id_ first, second;
    record_segment(kMorning, 4, &first);
    const WrittenStream b = record_segment(at_time(8, 1, 0), 4, &second);
    // Damage the first segment's first I-frame node in the log.
    SegmentOnDisk disk;
    read_segment(fs_, image_, first.root_index, first.stream_segment_index, disk);
    const uint32_t position = disk.node.start_iframe;
    const unsigned long long node_at = log_node_offset(first.root_index, position);
    ASSERT_EQ(IFRAME_INDEX_ID_IFRAME, read_bytes(image_, node_at, 1)[0]);
    damage_byte(image_, node_at + 2);
    remount();

    EXPECT_EQ(-1, open_by_id(first));
    _stream_segment_index_node_dev_ node;
    ASSERT_EQ(0, fs_->Read_stream_segment_index_from_dev(first.root_index,
                                                         first.stream_segment_index, &node));
    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, node.id) << "the unreadable segment is taken out";
    // A search for its time now finds the next segment.
    _qzfs_k4t_stream_open_para_ para = open_request(0, kMorning);
    const int fd = api_qzfs_open_stream_segment_by_para(&para, 0);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(same_id(second, id_of(fd)));
    EXPECT_TRUE(same_bytes(from_first_iframe(b), read_to_end(fd, 65536)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamReadTest, AReaderOfALiveSegmentMovesOnOnlyAfterTheWriterCloses)
{
    _k4t_stream_segment_id_ first, second;
    FrameSource source = source_at(kMorning);
    WrittenStream a;
    const int writer = record_live(3, &first, source, a);
    ASSERT_GT(writer, 0);
    const int reader = open_by_id(first, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(reader, 0);
    std::vector<uint8_t> got = read_to_end(reader, 65536);
    uint8_t byte;
    EXPECT_EQ(0, api_qzfs_read_video_data(reader, &byte, 1, nullptr)) << "at the live end";
    EXPECT_TRUE(same_id(first, id_of(reader)));

    record_seconds(writer, source, 1, a);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(writer));
    const WrittenStream b = record_segment(at_time(8, 5, 0), 3, &second);
    const std::vector<uint8_t> rest = read_to_end(reader, 65536);
    got.insert(got.end(), rest.begin(), rest.end());
    std::vector<uint8_t> want = from_first_iframe(a);
    const std::vector<uint8_t> tail = from_first_iframe(b);
    want.insert(want.end(), tail.begin(), tail.end());
    EXPECT_TRUE(same_bytes(want, got));
    EXPECT_TRUE(same_id(second, id_of(reader)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
}

TEST_F(StreamReadTest, TheSearchRunsOverEveryDiskOfTheGroup)
{
    // Disk 0 holds 08:30; disk 1, recorded while alone in the group, 08:00.
    _k4t_stream_segment_id_ later, earlier;
    record_segment(at_time(8, 30, 0), 5, &later);
    const std::string second_image = scratch_.path("second.img");
    make_sparse_image(second_image, 3 * GiB);
    std::string dev = second_image;
    ASSERT_EQ(0, api_qzfs_fast_format(1, &dev[0]));
    ASSERT_EQ(0, api_qzfs_mount(1, &dev[0]));
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 0));
    unsigned char hdd = 255;
    ASSERT_EQ(0, api_qzfs_find_work_hdd(0, &hdd));
    ASSERT_EQ(1, hdd);
    const WrittenStream on_second = record_segment(kMorning, 20, &earlier);
    ASSERT_EQ(1, earlier.hdd_id);
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 0));

    // Inside the segment of disk 1: it beats disk 0's later candidate.
    _qzfs_k4t_stream_open_para_ para = open_request(0, at_time(8, 0, 5));
    int fd = api_qzfs_open_stream_segment_by_para(&para, 0);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(same_id(earlier, id_of(fd)));
    EXPECT_TRUE(same_bytes(from_iframe_at(on_second, 8, 0, 5), read_to_end(fd, 1 << 20)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    // In the gap, disk 0's later segment is met first: the policy decides
    // whether disk 1's earlier one replaces it.
    for (int policy : {FS_FIND_NEAR_PREFER_NEXT, FS_FIND_NEAR_PREFER_PREV}) {
        _qzfs_k4t_stream_open_para_ gap = open_request(0, at_time(8, 10, 0));
        _k4t_stream_segment_id_ found = {255, 0, 0};
        _stream_segment_index_node_men_ best;
        ASSERT_EQ(0, gQzfsManager.Find_stream_segment(&gap, _fs_find_policy_(policy), &found.hdd_id,
                                                      &found.root_index,
                                                      &found.stream_segment_index, &best));
        EXPECT_TRUE(same_id(policy == FS_FIND_NEAR_PREFER_NEXT ? later : earlier, found))
            << "policy " << policy;
    }

    // After it, the next segment of the day lies on disk 0, and a reader
    // with the continue flag crosses disks on the same descriptor.
    para = open_request(0, at_time(8, 0, 18));
    fd = api_qzfs_open_stream_segment_by_para(&para, QZFS_K4T_OSF_CONTINUE);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(same_id(earlier, id_of(fd)));
    _k4t_fs_date_time_ when = at_time(8, 10, 0);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &when));
    EXPECT_TRUE(same_id(later, id_of(fd)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(1, 0));
    ASSERT_EQ(0, api_qzfs_umount(1));
}
