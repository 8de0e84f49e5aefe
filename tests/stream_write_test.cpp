// Recording as the recorder does it: frames in, segment, I-frame log and
// data blocks on the disk, checked after a remount.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <cstring>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kMorning = {26, 11, 21, 8, 0, 0, 0};

class StreamWriteTest : public RecordingTest {
protected:
    // The writer state behind a descriptor.
    _write_stream_segment_* writer_of(int fd)
    {
        _opened_stream_segment_* oss =
            gQzfsManager.get_opening_stream_segment_info(gQzfsManager.get_disk_ossid(fd));
        return oss == nullptr ? nullptr : oss->writer();
    }
    void expect_on_disk(const _k4t_stream_segment_id_& id, const WrittenStream& written)
    {
        SegmentOnDisk disk;
        read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
        expect_segment_matches(fs_, image_, disk, written);
    }
};

TEST_F(StreamWriteTest, AMinuteOfOneChannelReadsBackAfterRemount)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(3, 0, kMorning), &id);
    ASSERT_GT(fd, 0);
    FrameSourceConfig config;
    config.channel = 3;
    FrameSource source(config);
    WrittenStream written;
    record_seconds(fd, source, 60, written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    expect_on_disk(id, written);
}

}  // namespace
