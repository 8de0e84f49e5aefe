// Recording for tests: a mounted disk chosen for recording, writers fed by
// the synthetic frame source, and a reader of what the disk then holds
// (segment node, I-frame log, data blocks), to compare with what was written.
#ifndef QZFS_RECORDING_SUPPORT_H
#define QZFS_RECORDING_SUPPORT_H

#include "frame_source.h"
#include "opened_stream_segment.h"
#include "qzfs_index_format.h"
#include "test_support.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qzfs_test {

// Everything a test passed to the write calls of one segment, with the
// I-frame descriptions at their offsets in that whole byte run.
struct WrittenStream {
    std::vector<uint8_t> bytes;
    std::vector<_k4t_video_frame_info_> iframes;
    // Appends one write call's batch.
    void add(const FrameBatch& batch);
};

// One segment as the disk holds it.
struct SegmentOnDisk {
    _stream_segment_index_node_dev_ node;
    // The block entry in front of the first I-frame, then the segment's
    // entries up to its length.
    std::vector<_iframe_index_node_dev_> entries;
    std::vector<uint32_t> blocks;   // data blocks, in stream order
    std::vector<uint8_t> payload;   // len_in_bytes bytes from the first I-frame on
};

// Reads segment `index` of root `root`: its node through the index, the
// log and the data straight from the image file.
void read_segment(CQzFileSystem* fs, const std::string& image, uint32_t root, uint32_t index,
                  SegmentOnDisk& out);

// Node times and length, every I-frame entry (time, pts, stream offset,
// block and offset holding the frame), the block entries with their block
// records, and the payload itself, all against what was written.
void expect_segment_matches(CQzFileSystem* fs, const std::string& image,
                            const SegmentOnDisk& disk, const WrittenStream& written);

// The default 25-frame-a-second stream of one channel.
FrameSource channel_source(uint8_t channel);
// One P-frame of exactly `total` bytes (at least 12), in the frame format.
FrameBatch pframe_of_size(uint8_t channel, uint32_t total);
// What a reader of a segment returns: the written bytes from the first
// I-frame on.
std::vector<uint8_t> from_first_iframe(const WrittenStream& written);

// Every byte a reader of segment `id` returns, start to end.
std::vector<uint8_t> read_through_reader(_k4t_stream_segment_id_ id);
// What the disk checks of the power-cut rig find wrong with the mounted
// disk: block records, owners, I-frame entries, share counts, the journal.
std::vector<std::string> disk_check_failures(CQzFileSystem* fs, const std::string& image);

// A formatted, mounted 3 GiB image (disk 0) in group 0, chosen for recording.
class RecordingTest : public MountedImageTest {
protected:
    void SetUp() override;
    // Group 0 with the smallest thresholds, and its work disk chosen.
    void choose_work_disk();
    // Leaves the group, unmounts, mounts and chooses the disk again.
    void remount();
    static _qzfs_k4t_create_ss_para_ request(uint8_t channel, uint8_t stream_type,
                                            const _k4t_fs_date_time_& start);
    // Creates a segment; the id of the new descriptor is kept in `id`.
    int create(_qzfs_k4t_create_ss_para_ para, _k4t_stream_segment_id_* id = nullptr);
    // Writes `batch` to `fd` and adds it to `stream`; the write's result.
    static int write(int fd, const FrameBatch& batch, WrittenStream& stream);
    // The open record behind a descriptor, and a writer's state; null when
    // the descriptor is not open.
    static _opened_stream_segment_* open_record(int fd);
    static _write_stream_segment_* writer_of(int fd);
    // Writes frames until the writer's block has less than 100 KiB left,
    // then one frame that fills it to its last byte.
    void fill_block_exactly(int fd, FrameSource& source, WrittenStream& written);
    // Someone else takes every free block of the disk.
    void take_every_free_block();
    // Records `seconds` of `source` to `fd`, one write call per frame.
    static void record_seconds(int fd, FrameSource& source, unsigned seconds,
                               WrittenStream& stream);
};

}  // namespace qzfs_test

#endif
