// Many channels recording at once, each from its own thread, on one disk:
// the payload writes run side by side, and every segment must still read
// back whole after a remount.
#include "recording_support.h"

#include "qzfilesystem.h"

#include <thread>
#include <vector>

using namespace qzfs_test;

namespace {

class RecordingThreads : public RecordingTest {
protected:
    struct Channel {
        _k4t_stream_segment_id_ id = {};
        WrittenStream written;
        bool ok = false;
    };

    // Each channel: create, write one call per `frames_per_call` frames until
    // the source reaches `end_second` of the day, close.
    void record_channels(std::vector<Channel>& channels, const FrameSourceConfig& base,
                         unsigned frames_per_call, unsigned end_second)
    {
        std::vector<std::thread> threads;
        for (size_t c = 0; c < channels.size(); c++) {
            threads.emplace_back([&, c] {
                FrameSourceConfig config = base;
                config.channel = uint8_t(c);
                Channel& ch = channels[c];
                _qzfs_k4t_create_ss_para_ para = request(uint8_t(c), 0, config.start);
                int fd = api_qzfs_create_stream_segment(&para);
                if (fd <= 0 || api_qzfs_get_fd_info(fd, &ch.id) != 0)
                    return;
                FrameSource source(config);
                FrameBatch batch;
                bool ok = true;
                while (ok && source.next_second_of_day() < end_second) {
                    batch.clear();
                    source.append_frames(batch, frames_per_call);
                    ok = write(fd, batch, ch.written) == int(batch.bytes.size());
                }
                ch.ok = ok && api_qzfs_close_stream_segment(fd) == 0;
            });
        }
        for (std::thread& t : threads)
            t.join();
    }

    void expect_all_on_disk(const std::vector<Channel>& channels)
    {
        remount();
        for (const Channel& ch : channels) {
            SCOPED_TRACE(&ch - channels.data());
            ASSERT_TRUE(ch.ok);
            SegmentOnDisk disk;
            read_segment(fs_, image_, ch.id.root_index, ch.id.stream_segment_index, disk);
            expect_segment_matches(fs_, image_, disk, ch.written);
        }
    }
};

TEST_F(RecordingThreads, EightChannelsRecordSideBySide)
{
    FrameSourceConfig config;
    config.start = {26, 11, 21, 10, 0, 0, 0};
    config.iframe_bytes = 6000;
    config.pframe_bytes = 1500;
    std::vector<Channel> channels(8);
    record_channels(channels, config, 1, 10 * 3600 + 20);
    expect_all_on_disk(channels);
}

TEST_F(RecordingThreads, FourChannelsHoldAWholeDay)
{
    // A low rate: one frame a second, an I-frame every two minutes, one call
    // per group of frames. (Index flushes sync the disk every few seconds of
    // stream time, so fewer I-frames keep the test quick.)
    FrameSourceConfig config;
    config.start = {26, 11, 22, 0, 0, 0, 0};
    config.fps = 1;
    config.gop = 120;
    config.iframe_bytes = 200;
    config.pframe_bytes = 40;
    std::vector<Channel> channels(4);
    record_channels(channels, config, 120, 86400);
    expect_all_on_disk(channels);
    for (const Channel& ch : channels) {
        _stream_segment_index_node_dev_ node;
        ASSERT_EQ(0, fs_->Get_stream_segment_index_dev_node(ch.id.root_index,
                                                             ch.id.stream_segment_index, &node));
        EXPECT_EQ(0, node.start_hour);
        EXPECT_EQ(23, node.end_hour);
        EXPECT_EQ(86400u / 120, ch.written.iframes.size());
    }
}

}  // namespace
