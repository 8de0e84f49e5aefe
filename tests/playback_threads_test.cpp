// Playback beside recording, each from its own thread: a reader that
// follows a channel while it is being recorded, and readers of finished
// segments while other channels record.
#include "recording_support.h"

#include "qzfilesystem.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kNoon = {26, 11, 21, 12, 0, 0, 0};

FrameSourceConfig small_frames(uint8_t channel)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.start = kNoon;
    config.iframe_bytes = 24000;
    config.pframe_bytes = 6000;
    return config;
}

// Reads `fd` to its end in 64 KiB calls; a 0 only ends the stream once
// `finished` is set (until then the writer may add more).
bool read_while_recording(int fd, const std::atomic<bool>& finished, std::vector<uint8_t>& out)
{
    std::vector<uint8_t> buffer(65536);
    for (;;) {
        const bool was_finished = finished.load();
        const int n = api_qzfs_read_video_data(fd, buffer.data(), int(buffer.size()), nullptr);
        if (n < 0)
            return false;
        if (n > 0) {
            out.insert(out.end(), buffer.begin(), buffer.begin() + n);
            continue;
        }
        if (was_finished)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

class PlaybackThreads : public RecordingTest {};

}  // namespace

TEST_F(PlaybackThreads, AReaderFollowsARecordingAsItHappens)
{
    _k4t_stream_segment_id_ id;
    FrameSource source(small_frames(0));
    const int writer = create(request(0, 0, kNoon), &id);
    ASSERT_GT(writer, 0);
    WrittenStream written;
    record_seconds(writer, source, 1, written);
    const int reader = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    ASSERT_GT(reader, 0);

    std::atomic<bool> finished{false};
    bool wrote = false;
    std::thread recording([&] {
        FrameBatch batch;
        bool ok = true;
        for (unsigned frame = 0; ok && frame < 40 * 25; frame++) {
            batch.clear();
            source.append_frame(batch);
            ok = write(writer, batch, written) == int(batch.bytes.size());
        }
        wrote = ok && api_qzfs_close_stream_segment(writer) == 0;
        finished = true;
    });
    std::vector<uint8_t> got;
    const bool read_ok = read_while_recording(reader, finished, got);
    recording.join();
    ASSERT_TRUE(wrote);
    ASSERT_TRUE(read_ok);
    EXPECT_GT(got.size(), fs_->manage().block_size) << "the reader crossed blocks";
    EXPECT_TRUE(got == from_first_iframe(written));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
}

TEST_F(PlaybackThreads, FinishedSegmentsPlayWhileOtherChannelsRecord)
{
    // Two finished segments, then two readers and two recording channels.
    std::vector<WrittenStream> done(2);
    std::vector<_k4t_stream_segment_id_> ids(2);
    for (uint8_t c = 0; c < 2; c++) {
        FrameSource source(small_frames(c));
        const int fd = create(request(c, 0, kNoon), &ids[c]);
        ASSERT_GT(fd, 0);
        record_seconds(fd, source, 20, done[c]);
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    }
    std::vector<std::vector<uint8_t>> read_back(2);
    std::vector<WrittenStream> live(2);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (uint8_t c = 0; c < 2; c++) {
        threads.emplace_back([&, c] {
            const int fd = api_qzfs_open_stream_segment_by_id(&ids[c], 0xFFFF, 0);
            std::atomic<bool> finished{true};
            if (fd <= 0 || !read_while_recording(fd, finished, read_back[c]) ||
                api_qzfs_close_stream_segment(fd) != 0)
                failures++;
        });
        threads.emplace_back([&, c] {
            FrameSource source(small_frames(uint8_t(c + 2)));
            _qzfs_k4t_create_ss_para_ para = request(uint8_t(c + 2), 0, kNoon);
            const int fd = api_qzfs_create_stream_segment(&para);
            if (fd <= 0) {
                failures++;
                return;
            }
            FrameBatch batch;
            for (unsigned frame = 0; frame < 20 * 25; frame++) {
                batch.clear();
                source.append_frame(batch);
                if (write(fd, batch, live[c]) != int(batch.bytes.size()))
                    failures++;
            }
            if (api_qzfs_close_stream_segment(fd) != 0)
                failures++;
        });
    }
    for (std::thread& t : threads)
        t.join();
    ASSERT_EQ(0, failures.load());
    for (int c = 0; c < 2; c++)
        EXPECT_TRUE(read_back[c] == from_first_iframe(done[c])) << "channel " << c;
}
