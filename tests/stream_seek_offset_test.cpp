// Moving a reader by byte offset and asking where it stands; seeking a
// writer back into its own stream to overwrite what it recorded.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kMorning = {26, 11, 21, 9, 0, 0, 0};

// Bytes an application overwrites with; no two neighbours alike.
std::vector<uint8_t> patch(size_t len, uint8_t seed)
{
    std::vector<uint8_t> bytes(len);
    for (size_t i = 0; i < len; i++)
        bytes[i] = uint8_t(seed + i * 7 + (i >> 8));
    return bytes;
}

int write_raw(int fd, std::vector<uint8_t> bytes)
{
    return api_qzfs_write_video_data(fd, bytes.data(), int(bytes.size()), 0, nullptr);
}

// Position of the first difference of `got` and `want` from `at` on, as text.
std::string first_difference(const std::vector<uint8_t>& got, const std::vector<uint8_t>& want,
                             uint64_t at)
{
    for (size_t i = 0; i < got.size(); i++)
        if (at + i >= want.size() || got[i] != want[at + i])
            return "bytes differ at stream offset " + std::to_string(at + i);
    return "";
}

class StreamSeekOffsetTest : public RecordingTest {
protected:
    uint64_t block_size() const { return fs_->manage().block_size; }

    // Stream offset at which the k-th block (1 the first) of a segment
    // ends, when its first I-frame lies at `first_in_block` of block 1.
    uint64_t block_end(uint64_t first_in_block, unsigned k) const
    {
        return block_size() - first_in_block + uint64_t(k - 1) * (block_size() - 4096);
    }

    uint64_t live_length(int fd)
    {
        _opened_stream_segment_* oss =
            gQzfsManager.get_opening_stream_segment_info(gQzfsManager.get_disk_ossid(fd));
        return oss == nullptr ? 0 : uint64_t(oss->ssi()->len_in_bytes);
    }
    size_t open_records() const { return fs_->manage().opened_stream_segment_map.size(); }

    // Records `seconds` of `channel`, after `rubbish` bytes that belong to
    // no segment, and closes the writer.
    void record_closed(uint8_t channel, unsigned seconds, _k4t_stream_segment_id_& id,
                       WrittenStream& written, uint32_t rubbish = 0)
    {
        int fd = create(request(channel, 0, kMorning), &id);
        ASSERT_GT(fd, 0);
        if (rubbish > 0) {
            ASSERT_EQ(int(rubbish), write(fd, pframe_of_size(channel, rubbish), written));
        }
        FrameSource source = channel_source(channel);
        record_seconds(fd, source, seconds, written);
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    }

    static int open_reader(_k4t_stream_segment_id_ id)
    {
        return api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    }

    // Up to `len` bytes from `fd` in calls of at most `chunk` bytes, ending
    // early at the end of the data.
    static std::vector<uint8_t> read_up_to(int fd, size_t len, size_t chunk)
    {
        std::vector<uint8_t> out;
        std::vector<uint8_t> buffer(chunk);
        while (out.size() < len) {
            const int want = int(std::min(chunk, len - out.size()));
            const int got = api_qzfs_read_video_data(fd, buffer.data(), want, nullptr);
            EXPECT_GE(got, 0) << "read failed";
            if (got <= 0)
                break;
            out.insert(out.end(), buffer.begin(), buffer.begin() + got);
        }
        return out;
    }

    static long long tell(int fd)
    {
        long long position = -1;
        EXPECT_EQ(0, api_qzfs_stream_segment_tell(fd, &position));
        return position;
    }

    // The reader reports `at`, and the next `len` bytes it reads (fewer at
    // the stream's end) are those of `stream` from `at` on.
    static void expect_reads_from(int fd, const std::vector<uint8_t>& stream, uint64_t at,
                                  size_t len, size_t chunk = 100000)
    {
        ASSERT_EQ((long long)at, tell(fd));
        const size_t expected = size_t(std::min<uint64_t>(len, stream.size() - at));
        std::vector<uint8_t> got = read_up_to(fd, len, chunk);
        ASSERT_EQ(expected, got.size()) << "read from " << at;
        ASSERT_EQ("", first_difference(got, stream, at)) << "read from " << at;
        ASSERT_EQ((long long)(at + got.size()), tell(fd));
    }

    static void seek_and_expect(int fd, const std::vector<uint8_t>& stream, long long offset,
                                int whence, uint64_t lands_at, size_t len = 150000)
    {
        ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, offset, whence))
            << "offset " << offset << " whence " << whence;
        expect_reads_from(fd, stream, lands_at, len);
    }
};

// ---------------------------------------------------------------- readers

TEST_F(StreamSeekOffsetTest, SetCurAndEndLandOnTheRecordedBytesAcrossBlocks)
{
    _k4t_stream_segment_id_ id;
    WrittenStream written;
    record_closed(1, 45, id, written);
    const std::vector<uint8_t> stream = from_first_iframe(written);
    const uint64_t len = stream.size();
    const uint64_t b1 = block_end(4096, 1), b2 = block_end(4096, 2), b3 = block_end(4096, 3);
    ASSERT_GT(len, block_end(4096, 4)) << "the recording spans more than four blocks";

    int fd = open_reader(id);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(0, tell(fd));

    // Absolute places: the start, unit edges, both sides of block ends, the
    // middle, the last bytes.
    const uint64_t places[] = {0,      1,       65535,   65536,   b1 - 1,  b1,      b1 + 1,
                               b2 - 1, b2,      b3 - 12345, b3,   len / 2, len - 70000, len - 1};
    for (uint64_t at : places)
        seek_and_expect(fd, stream, (long long)at, SEEK_SET, at);

    // Relative to where the reader stands: back, then forward over a block end.
    seek_and_expect(fd, stream, (long long)(b2 - 1000), SEEK_SET, b2 - 1000, 0);
    seek_and_expect(fd, stream, 2000, SEEK_CUR, b2 + 1000);
    const uint64_t here = b2 + 1000 + 150000;
    seek_and_expect(fd, stream, -(long long)(here - b1 + 10), SEEK_CUR, b1 - 10);

    // From the end.
    seek_and_expect(fd, stream, -(long long)(len - b1), SEEK_END, b1);
    seek_and_expect(fd, stream, -1, SEEK_END, len - 1);
    seek_and_expect(fd, stream, -(long long)len, SEEK_END, 0);

    // Exactly the end, by either road: tell reports the length, reads give 0.
    uint8_t byte = 0;
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_END));
    EXPECT_EQ((long long)len, tell(fd));
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr));
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr));
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_SET));
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, (long long)len, SEEK_SET));
    EXPECT_EQ((long long)len, tell(fd));
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr));

    // And the whole stream once more, from the start, in odd-sized reads.
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_SET));
    std::vector<uint8_t> all = read_up_to(fd, len + 1, 77777);
    ASSERT_EQ(len, all.size());
    EXPECT_EQ("", first_difference(all, stream, 0));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamSeekOffsetTest, FirstIframeInsideItsBlockIsCountedIn)
{
    // 700 bytes ahead of the first I-frame: the segment starts at 4796 of
    // its first block, so its first block holds 700 bytes less of it.
    _k4t_stream_segment_id_ id;
    WrittenStream written;
    record_closed(2, 30, id, written, 700);
    ASSERT_EQ(700u, written.iframes.front().offset);
    const std::vector<uint8_t> stream = from_first_iframe(written);
    const uint64_t first = 4096 + 700;
    const uint64_t b1 = block_end(first, 1), b2 = block_end(first, 2);
    ASSERT_GT(stream.size(), b2 + 200000);

    int fd = open_reader(id);
    ASSERT_GT(fd, 0);
    for (uint64_t at : {uint64_t(0), uint64_t(65536 - 4796), b1 - 1, b1, b1 + 1, b2 - 3, b2, b2 + 65536})
        seek_and_expect(fd, stream, (long long)at, SEEK_SET, at, 70000);
    seek_and_expect(fd, stream, -(long long)(stream.size() - b1), SEEK_END, b1, 10);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamSeekOffsetTest, StreamEndingOnABlockEnd)
{
    _k4t_stream_segment_id_ id;
    int wfd = create(request(3, 0, kMorning), &id);
    ASSERT_GT(wfd, 0);
    FrameSource source = channel_source(3);
    WrittenStream written;
    record_seconds(wfd, source, 12, written);
    fill_block_exactly(wfd, source, written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(wfd));
    const std::vector<uint8_t> stream = from_first_iframe(written);
    const uint64_t len = stream.size();
    ASSERT_EQ(0u, (len + 4096 - block_size()) % (block_size() - 4096)) << "ends on a block end";

    int fd = open_reader(id);
    ASSERT_GT(fd, 0);
    uint8_t byte = 0;
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_END));
    EXPECT_EQ((long long)len, tell(fd));
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr));
    seek_and_expect(fd, stream, -5, SEEK_END, len - 5);
    seek_and_expect(fd, stream, -(long long)(block_size() - 4096), SEEK_END,
                    len - (block_size() - 4096), 100);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, (long long)len, SEEK_SET));
    EXPECT_EQ((long long)len, tell(fd));
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamSeekOffsetTest, TellCountsOnlyTheBytesHandedOut)
{
    _k4t_stream_segment_id_ id;
    WrittenStream written;
    record_closed(4, 20, id, written);
    const std::vector<uint8_t> stream = from_first_iframe(written);
    int fd = open_reader(id);
    ASSERT_GT(fd, 0);

    // Small reads are served from a 64 KiB cache; tell is the logical place.
    expect_reads_from(fd, stream, 0, 1, 1);
    expect_reads_from(fd, stream, 1, 999, 999);
    expect_reads_from(fd, stream, 1000, 100000, 100000);
    expect_reads_from(fd, stream, 101000, 7, 7);

    // Relative seeks count from that place, not from what the cache holds.
    seek_and_expect(fd, stream, -500, SEEK_CUR, 100507, 10);
    seek_and_expect(fd, stream, 5, SEEK_CUR, 100522, 10);

    // A seek to bytes the cache already covers, and to the place the
    // reader stands on, leave it reading the right bytes.
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_SET));
    expect_reads_from(fd, stream, 0, 10, 10);
    seek_and_expect(fd, stream, 65536 - 4096, SEEK_SET, 65536 - 4096, 10);
    seek_and_expect(fd, stream, 65536 - 4096 + 10, SEEK_SET, 65536 - 4096 + 10, 10);
    seek_and_expect(fd, stream, 30, SEEK_SET, 30, 10);
    seek_and_expect(fd, stream, 0, SEEK_CUR, 40, 10);

    // A null place is no error.
    EXPECT_EQ(0, api_qzfs_stream_segment_tell(fd, nullptr));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamSeekOffsetTest, RefusedSeeksLeaveTheReaderWhereItWas)
{
    _k4t_stream_segment_id_ id;
    WrittenStream written;
    record_closed(5, 20, id, written);
    const std::vector<uint8_t> stream = from_first_iframe(written);
    const long long len = (long long)stream.size();
    int fd = open_reader(id);
    ASSERT_GT(fd, 0);
    seek_and_expect(fd, stream, 300000, SEEK_SET, 300000, 1000);
    const long long at = 301000;

    auto seek = [&](long long offset, int whence) {
        return [=] { return api_qzfs_seek_stream_segment_by_offset(fd, offset, whence); };
    };
    expect_result_and_log(-1, "OUT OF RANGE2", seek(-1, SEEK_SET));
    expect_result_and_log(-1, "OUT OF RANGE2", seek(len + 1, SEEK_SET));
    expect_result_and_log(-1, "OUT OF RANGE1(offset:", seek(-(at + 1), SEEK_CUR));
    expect_result_and_log(-1, "OUT OF RANGE1(offset:", seek(len - at + 1, SEEK_CUR));
    expect_result_and_log(-1, "OUT OF RANGE3", seek(1, SEEK_END));
    expect_result_and_log(-1, "OUT OF RANGE3", seek(-(len + 1), SEEK_END));
    // An unknown whence is refused before anything is looked at or printed.
    std::string out = captured_stdout([&] {
        const uint32_t saved = g_qzfs_debug_level;
        g_qzfs_debug_level = 4;
        EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_offset(fd, 0, 3));
        EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_offset(fd, 10, -1));
        g_qzfs_debug_level = saved;
    });
    EXPECT_EQ("", out);
    expect_result_and_log(0, " SEEK_CUR (offset == 0)", seek(0, SEEK_CUR), 3);

    // Below the flat call an unknown whence is a bad parameter too.
    _opened_stream_segment_* reader =
        gQzfsManager.get_opening_stream_segment_info(gQzfsManager.get_disk_ossid(fd));
    ASSERT_NE(nullptr, reader);
    expect_result_and_log(-1, "invalid parameter", [&] {
        fs_->disk_lock(1);
        int result = fs_->Seek_stream_segment(reader, 0, 7);
        fs_->disk_lock(0);
        return result;
    });

    // Still at the same byte, and the reads go on from there.
    expect_reads_from(fd, stream, uint64_t(at), 200000);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamSeekOffsetTest, BadDescriptorsAreRefused)
{
    _k4t_stream_segment_id_ id;
    int wfd = create(request(6, 0, kMorning), &id);
    ASSERT_GT(wfd, 0);
    FrameSource source = channel_source(6);
    WrittenStream written;
    record_seconds(wfd, source, 2, written);

    long long position = 77;
    for (int fd : {-1, 0, 200, 511, 512}) {
        EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_offset(fd, 10, SEEK_SET)) << fd;
        EXPECT_EQ(-1, api_qzfs_stream_segment_tell(fd, &position)) << fd;
    }
    expect_result_and_log(-1, "get_file_system failed(hdd_id:255)",
                          [&] { return api_qzfs_stream_segment_tell(200, &position); });
    // A writer has no read position to tell.
    expect_result_and_log(
        -1,
        "((pOss->read_or_write != K4T_FS_TRUE) || (pOss->exist_error == K4T_FS_TRUE))(" +
            std::to_string(wfd) + ")",
        [&] { return api_qzfs_stream_segment_tell(wfd, &position); });
    EXPECT_EQ(77, position);

    int rfd = open_reader(id);
    ASSERT_GT(rfd, 0);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(rfd));
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_offset(rfd, 10, SEEK_SET));
    EXPECT_EQ(-1, api_qzfs_stream_segment_tell(rfd, &position));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(wfd));
}

TEST_F(StreamSeekOffsetTest, ReaderOfALiveSegmentSeeksWithinWhatIsWritten)
{
    _k4t_stream_segment_id_ id;
    int wfd = create(request(7, 0, kMorning), &id);
    ASSERT_GT(wfd, 0);
    FrameSource source = channel_source(7);
    WrittenStream written;
    record_seconds(wfd, source, 25, written);

    int fd = open_reader(id);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> stream = from_first_iframe(written);
    const uint64_t then = stream.size();
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_END));
    EXPECT_EQ((long long)then, tell(fd));
    uint8_t byte = 0;
    EXPECT_EQ(0, api_qzfs_read_video_data(fd, &byte, 1, nullptr)) << "nothing more yet";
    expect_result_and_log(-1, "OUT OF RANGE2",
                          [&] { return api_qzfs_seek_stream_segment_by_offset(fd, (long long)then + 1, SEEK_SET); });

    // The writer goes on; the same reader now reaches the new bytes.
    record_seconds(wfd, source, 12, written);
    stream = from_first_iframe(written);
    ASSERT_GT(stream.size(), block_end(4096, 3));
    seek_and_expect(fd, stream, 0, SEEK_CUR, then, 300000);
    seek_and_expect(fd, stream, (long long)block_end(4096, 3) - 1, SEEK_SET, block_end(4096, 3) - 1);
    seek_and_expect(fd, stream, -1000, SEEK_END, stream.size() - 1000, 5000);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(wfd));

    // After the writer's close the reader goes on alone.
    seek_and_expect(fd, stream, 12345, SEEK_SET, 12345);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

// ---------------------------------------------------------------- writers

TEST_F(StreamSeekOffsetTest, SeekedWriterOverwritesInPlaceAndAppendsAtTheHead)
{
    _k4t_stream_segment_id_ id;
    int wfd = create(request(8, 0, kMorning), &id);
    ASSERT_GT(wfd, 0);
    FrameSource source = channel_source(8);
    WrittenStream written;
    record_seconds(wfd, source, 30, written);
    const uint64_t first = written.iframes.front().offset;
    const uint64_t b1 = block_end(4096, 1), b2 = block_end(4096, 2);
    ASSERT_GT(written.bytes.size() - first, b2 + 100000);
    auto overwrite = [&](uint64_t at, const std::vector<uint8_t>& bytes) {
        std::copy(bytes.begin(), bytes.end(), written.bytes.begin() + long(first + at));
    };
    ASSERT_EQ(1u, open_records());

    // Back over the first block end: 3000 new bytes straddle it.
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, (long long)b1 - 1000, SEEK_SET));
    EXPECT_EQ(2u, open_records()) << "the seek made a companion reader, without a descriptor";
    const uint64_t length = live_length(wfd);
    std::vector<uint8_t> bytes = patch(3000, 1);
    ASSERT_EQ(3000, write_raw(wfd, bytes));
    overwrite(b1 - 1000, bytes);
    EXPECT_EQ(length, live_length(wfd)) << "an overwrite does not lengthen the stream";

    // Straight on from there; then exactly at the second block end, and at the start.
    bytes = patch(500, 2);
    ASSERT_EQ(500, write_raw(wfd, bytes));
    overwrite(b1 + 2000, bytes);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, (long long)b2, SEEK_SET));
    bytes = patch(64, 3);
    ASSERT_EQ(64, write_raw(wfd, bytes));
    overwrite(b2, bytes);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, 0, SEEK_SET));
    bytes = patch(10, 4);
    ASSERT_EQ(10, write_raw(wfd, bytes));
    overwrite(0, bytes);

    // Nothing may run past the stream's end.
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, -100, SEEK_END));
    expect_result_and_log(-1, "len is invalid(already_read_len:",
                          [&] { return write_raw(wfd, patch(101, 5)); });
    EXPECT_EQ(length, live_length(wfd));
    bytes = patch(100, 6);
    ASSERT_EQ(100, write_raw(wfd, bytes));
    overwrite(length - 100, bytes);
    EXPECT_EQ(length, live_length(wfd));

    // That write ended at the head: recording simply goes on.
    record_seconds(wfd, source, 3, written);
    EXPECT_EQ(written.bytes.size() - first, live_length(wfd));

    // Back a little from the head and over it again, then on.
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, -5000, SEEK_CUR));
    bytes = patch(5000, 7);
    ASSERT_EQ(5000, write_raw(wfd, bytes));
    overwrite(live_length(wfd) - 5000, bytes);
    record_seconds(wfd, source, 2, written);
    EXPECT_EQ(written.bytes.size() - first, live_length(wfd));

    // A writer has no read position; its seeks are checked like a reader's.
    long long position = 0;
    EXPECT_EQ(-1, api_qzfs_stream_segment_tell(wfd, &position));
    expect_result_and_log(-1, "OUT OF RANGE2", [&] {
        return api_qzfs_seek_stream_segment_by_offset(wfd, (long long)live_length(wfd) + 1, SEEK_SET);
    });

    // The close takes the companion along.
    ASSERT_EQ(0, api_qzfs_close_stream_segment(wfd));
    EXPECT_EQ(0u, open_records());
    EXPECT_EQ(1, fs_->open_stream_segment_is_empty());

    // A reader gets the new bytes in their places, and so does the disk.
    const std::vector<uint8_t> stream = from_first_iframe(written);
    int fd = open_reader(id);
    ASSERT_GT(fd, 0);
    std::vector<uint8_t> all = read_up_to(fd, stream.size() + 1, 100000);
    ASSERT_EQ(stream.size(), all.size());
    EXPECT_EQ("", first_difference(all, stream, 0));
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    SegmentOnDisk disk;
    read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
    expect_segment_matches(fs_, image_, disk, written);
}

TEST_F(StreamSeekOffsetTest, WriterOnAFullBlockOverwritesItsTailThenOpensTheNext)
{
    _k4t_stream_segment_id_ id;
    int wfd = create(request(9, 0, kMorning), &id);
    ASSERT_GT(wfd, 0);
    FrameSource source = channel_source(9);
    WrittenStream written;
    record_seconds(wfd, source, 2, written);
    fill_block_exactly(wfd, source, written);
    const uint32_t full_block = writer_of(wfd)->block_index;
    const uint64_t first = written.iframes.front().offset;

    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, -10, SEEK_END));
    std::vector<uint8_t> bytes = patch(10, 9);
    ASSERT_EQ(10, write_raw(wfd, bytes));
    std::copy(bytes.begin(), bytes.end(), written.bytes.end() - 10);
    EXPECT_EQ(full_block, writer_of(wfd)->block_index) << "no block yet for an overwrite";

    FrameBatch next;
    source.append_frame(next);
    ASSERT_EQ(int(next.bytes.size()), write(wfd, next, written));
    EXPECT_NE(full_block, writer_of(wfd)->block_index);
    EXPECT_EQ(4096 + next.bytes.size(), writer_of(wfd)->block_offset);
    record_seconds(wfd, source, 2, written);
    EXPECT_EQ(written.bytes.size() - first, live_length(wfd));
    ASSERT_EQ(0, api_qzfs_close_stream_segment(wfd));
    remount();
    SegmentOnDisk disk;
    read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
    expect_segment_matches(fs_, image_, disk, written);
}

TEST_F(StreamSeekOffsetTest, WriterWithoutAnIframeCannotBeSeeked)
{
    _k4t_stream_segment_id_ id;
    int wfd = create(request(10, 0, kMorning), &id);
    ASSERT_GT(wfd, 0);
    WrittenStream written;
    ASSERT_EQ(700, write(wfd, pframe_of_size(10, 700), written));
    EXPECT_EQ(-1, api_qzfs_seek_stream_segment_by_offset(wfd, 0, SEEK_SET));
    EXPECT_EQ(-1, writer_of(wfd)->seek_ossfd) << "no companion is left behind";
    EXPECT_EQ(1u, open_records());

    // Once recording has begun the writer can be seeked.
    FrameSource source = channel_source(10);
    record_seconds(wfd, source, 2, written);
    ASSERT_EQ(0, api_qzfs_seek_stream_segment_by_offset(wfd, 100, SEEK_SET));
    EXPECT_GE(writer_of(wfd)->seek_ossfd, 0);
    std::vector<uint8_t> bytes = patch(50, 10);
    ASSERT_EQ(50, write_raw(wfd, bytes));
    std::copy(bytes.begin(), bytes.end(), written.bytes.begin() + long(written.iframes.front().offset + 100));
    ASSERT_EQ(0, api_qzfs_close_stream_segment(wfd));
    EXPECT_EQ(0u, open_records());
    remount();
    SegmentOnDisk disk;
    read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
    expect_segment_matches(fs_, image_, disk, written);
}

}  // namespace
