// Recording as the recorder does it: frames in, segment, I-frame log and
// data blocks on the disk, checked after a remount.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_av_frame.h"
#include "qzfs_manager.h"

#include <cstring>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kMorning = {26, 11, 21, 8, 0, 0, 0};

class StreamWriteTest : public RecordingTest {
protected:
    void expect_on_disk(const _k4t_stream_segment_id_& id, const WrittenStream& written)
    {
        SegmentOnDisk disk;
        read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
        expect_segment_matches(fs_, image_, disk, written);
    }
    // The segment node as the disk holds it now, past every cache.
    _stream_segment_index_node_dev_ node_on_device(const _k4t_stream_segment_id_& id)
    {
        _stream_segment_index_node_dev_ node;
        memset(&node, 0, sizeof(node));
        EXPECT_EQ(0, fs_->Read_stream_segment_index_from_dev(id.root_index,
                                                              id.stream_segment_index, &node));
        return node;
    }
};

TEST_F(StreamWriteTest, AMinuteOfOneChannelReadsBackAfterRemount)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(3, 0, kMorning), &id);
    ASSERT_GT(fd, 0);
    FrameSource source = channel_source(3);
    WrittenStream written;
    record_seconds(fd, source, 60, written);
    ASSERT_GT(written.bytes.size(), 4 * fs_->manage().block_size) << "the minute spans blocks";

    // Until the close the disk knows the start and nothing of end or length.
    _stream_segment_index_node_dev_ live = node_on_device(id);
    EXPECT_EQ(QZFS_INVALID_END_HOUR, live.end_hour);
    EXPECT_EQ(0u, live.len_in_bytes);

    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    expect_on_disk(id, written);
}

TEST_F(StreamWriteTest, CallEndingAtBlockEndAndFramesSplitOverBlocks)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(1, 0, kMorning), &id);
    FrameSource source = channel_source(1);
    WrittenStream written;
    record_seconds(fd, source, 2, written);
    fill_block_exactly(fd, source, written);
    const uint32_t full_block = writer_of(fd)->block_index;

    FrameBatch next;
    source.append_frame(next);
    ASSERT_EQ(int(next.bytes.size()), write(fd, next, written));
    EXPECT_NE(full_block, writer_of(fd)->block_index);
    EXPECT_EQ(4096 + next.bytes.size(), writer_of(fd)->block_offset);

    // Frames of a normal minute run over block ends.
    record_seconds(fd, source, 30, written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    expect_on_disk(id, written);
}

// One call may carry more than a block's payload: every byte reaches the
// disk, with its I-frame entries where shorter calls would put them. Whole
// frames of 1 MiB, an I-frame each; 4 of them fill a 4 MiB block and a bit
// (the block head), 9 need three blocks, 21 six.
TEST_F(StreamWriteTest, OneCallOfSeveralBlocksWritesEveryByte)
{
    ASSERT_EQ(4u << 20, fs_->manage().block_size);
    uint8_t channel = 0;
    for (unsigned frames_per_call : {4u, 9u, 21u}) {
        SCOPED_TRACE(frames_per_call);
        FrameSourceConfig config;
        config.channel = channel;
        config.fps = 1;
        config.gop = 1;
        config.iframe_bytes = QZFS_MAX_FRAME_LEN - 12 - 24;  // whole frames of 1 MiB
        FrameSource source(config);
        _k4t_stream_segment_id_ id;
        const int fd = create(request(channel++, 0, kMorning), &id);
        WrittenStream written;
        FrameBatch call;
        source.append_frames(call, frames_per_call);
        ASSERT_EQ(int(frames_per_call << 20), write(fd, call, written));
        FrameBatch tail;
        source.append_frames(tail, 2);
        ASSERT_EQ(int(tail.bytes.size()), write(fd, tail, written));
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
        remount();
        expect_on_disk(id, written);
        EXPECT_EQ(written.bytes, read_through_reader(id));
    }
}

TEST_F(StreamWriteTest, BytesBeforeTheFirstIframeBelongToNoSegment)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(2, 0, kMorning), &id);
    WrittenStream written;
    FrameBatch rubbish = pframe_of_size(2, 700);
    ASSERT_EQ(700, write(fd, rubbish, written));
    EXPECT_EQ(4096u + 700, writer_of(fd)->block_offset);
    EXPECT_EQ(0u, open_record(fd)->ssi()->len_in_bytes);
    EXPECT_EQ(0, writer_of(fd)->confirm_start_iframe);

    // A call that starts with 300 more bytes of rubbish, then a second of frames.
    FrameSourceConfig config;
    config.channel = 2;
    config.start.second = 5;
    FrameSource source(config);
    FrameBatch call = pframe_of_size(2, 300);
    FrameBatch frames;
    source.append_frames(frames, 25);
    for (auto info : frames.infos) {
        info.offset += 300;
        call.infos.push_back(info);
    }
    call.bytes.insert(call.bytes.end(), frames.bytes.begin(), frames.bytes.end());
    ASSERT_EQ(int(call.bytes.size()), write(fd, call, written));
    EXPECT_EQ(frames.bytes.size(), open_record(fd)->ssi()->len_in_bytes);
    record_seconds(fd, source, 5, written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();

    SegmentOnDisk disk;
    read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
    EXPECT_EQ(0u, uint64_t(disk.entries[1].stream_segment_offset));
    EXPECT_EQ(5, disk.node.start_second) << "the start is the first I-frame's time";
    expect_segment_matches(fs_, image_, disk, written);
}

TEST_F(StreamWriteTest, RubbishOverAWholeBlockMovesTheSegmentStart)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(2, 0, kMorning), &id);
    EXPECT_EQ(1u, open_record(fd)->ssi()->start_iframe);
    const uint32_t block_size = uint32_t(fs_->manage().block_size);
    WrittenStream written;
    FrameBatch rubbish = pframe_of_size(2, block_size / 2);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(int(rubbish.bytes.size()), write(fd, rubbish, written));

    FrameSource source = channel_source(2);
    FrameBatch first;
    source.append_frame(first);
    std::string log = expect_result_and_log(int(first.bytes.size()), "TOO MUCH RUBBISH DATA",
                                            [&] { return write(fd, first, written); }, 2);
    EXPECT_EQ(2u, open_record(fd)->ssi()->start_iframe) << "two block entries stand before it";
    record_seconds(fd, source, 3, written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    expect_on_disk(id, written);
}

TEST_F(StreamWriteTest, EndTimeNeverMovesBack)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(4, 0, kMorning), &id);
    FrameSource source = channel_source(4);
    WrittenStream written;
    record_seconds(fd, source, 3, written);  // 08:00:00 .. 08:00:02
    FrameBatch late;
    source.append_frames(late, 25);
    for (auto& info : late.infos)
        info.hour = 7;  // the clock was set back an hour
    std::string log = expect_result_and_log(int(late.bytes.size()), "LOSE DATA",
                                            [&] { return write(fd, late, written); }, 3);
    EXPECT_EQ(8, open_record(fd)->ssi()->end_hour);
    EXPECT_EQ(2, open_record(fd)->ssi()->end_second);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    expect_on_disk(id, written);
}

TEST_F(StreamWriteTest, LogLikeStreamsAreOnDiskAfterEveryCall)
{
    for (uint8_t stream_type : {3, 4}) {
        SCOPED_TRACE(int(stream_type));
        _k4t_stream_segment_id_ id;
        int fd = create(request(stream_type, stream_type, kMorning), &id);
        FrameSourceConfig config;
        config.iframe_bytes = 300;
        config.pframe_bytes = 100;
        FrameSource source(config);
        WrittenStream written;
        record_seconds(fd, source, 2, written);
        // No close: the disk already has length, end time and every I-frame.
        _stream_segment_index_node_dev_ node = node_on_device(id);
        EXPECT_EQ(written.bytes.size(), node.len_in_bytes);
        EXPECT_EQ(1, node.end_second);
        SegmentOnDisk disk;
        read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk);
        expect_segment_matches(fs_, image_, disk, written);
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    }
}

TEST_F(StreamWriteTest, BlankSegmentsAreErasedAtClose)
{
    const unsigned long free_before = fs_->manage().free_block;
    _k4t_stream_segment_id_ nothing, no_iframe;
    int empty = create(request(5, 0, kMorning), &nothing);
    expect_result_and_log(0, "BLANK STREAM SEGMENT",
                          [&] { return api_qzfs_close_stream_segment(empty); });
    _root_index_node_dev_ root;
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(nothing.root_index, &root));
    EXPECT_EQ(0, root.id) << "a root left without segments goes too";
    EXPECT_EQ(free_before, fs_->manage().free_block);

    int fd = create(request(6, 0, kMorning), &no_iframe);
    WrittenStream written;
    FrameBatch bytes = pframe_of_size(6, 5000);
    ASSERT_EQ(5000, write(fd, bytes, written));
    expect_result_and_log(0, "BLANK STREAM SEGMENT", [&] { return api_qzfs_close_stream_segment(fd); });
    remount();
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(no_iframe.root_index, &root));
    EXPECT_EQ(0, root.id);
    // Its one data block belongs to nothing now: an orphan, counted at mount.
    EXPECT_EQ(free_before - 1, fs_->manage().free_block);
}

TEST_F(StreamWriteTest, UnconfirmedPreRecordingIsDeletedAtClose)
{
    const unsigned long free_before = fs_->manage().free_block;
    _qzfs_k4t_create_ss_para_ para = request(7, 0, kMorning);
    para.for_pre_record = 1;
    _k4t_stream_segment_id_ id;
    int fd = create(para, &id);
    EXPECT_EQ(PRE_RECORD_STREAM_SEGMENT_INDEX, open_record(fd)->ssi()->id);
    FrameSource source = channel_source(7);
    WrittenStream written;
    record_seconds(fd, source, 20, written);
    EXPECT_LT(fs_->manage().free_block, free_before - 1);
    expect_result_and_log(0, "delete pre record stream segment!",
                          [&] { return api_qzfs_close_stream_segment(fd); }, 1);
    remount();
    _root_index_node_dev_ root;
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(id.root_index, &root));
    EXPECT_EQ(0, root.id) << "its root held nothing else";
    EXPECT_EQ(free_before, fs_->manage().free_block) << "its data blocks and its root are free again";
}

TEST_F(StreamWriteTest, HighStreamTypesMayStartWithoutFrameInfos)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(8, 130, kMorning), &id);
    WrittenStream written;
    FrameBatch head = pframe_of_size(8, 2000);
    ASSERT_EQ(2000, api_qzfs_write_video_data(fd, head.bytes.data(), 2000, 0, nullptr));
    written.add(head);
    FrameSource source = channel_source(8);
    record_seconds(fd, source, 2, written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    remount();
    expect_on_disk(id, written);
}

TEST_F(StreamWriteTest, BadCallsAreRefusedAndTheRecordingGoesOn)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(9, 0, kMorning), &id);
    FrameSourceConfig config;
    config.channel = 9;
    config.iframe_bytes = 4000;
    config.pframe_bytes = 1000;
    FrameSource source(config);
    WrittenStream written;
    record_seconds(fd, source, 2, written);

    FrameBatch batch;
    source.append_frames(batch, 25);
    const int len = int(batch.bytes.size());
    unsigned char* bytes = batch.bytes.data();
    _k4t_video_frame_info_ info = batch.infos[0];
    expect_result_and_log(-1, " invalid parameter", [&] {
        return api_qzfs_write_video_data(fd, nullptr, len, 1, &info); });
    expect_result_and_log(-1, " invalid parameter", [&] {
        return api_qzfs_write_video_data(fd, bytes, 0, 1, &info); });
    expect_result_and_log(-1, " invalid parameter", [&] {
        return api_qzfs_write_video_data(fd, bytes, len, 1, nullptr); });
    expect_result_and_log(-1, " invalid parameter", [&] {
        return api_qzfs_write_video_data(-3, bytes, len, 1, &info); });
    _k4t_video_frame_info_ past = info;
    past.offset = uint32_t(len);
    expect_result_and_log(-1, "INVALID PARAMETER", [&] {
        return api_qzfs_write_video_data(fd, bytes, len, 1, &past); });
    _k4t_video_frame_info_ bad_time = info;
    bad_time.iframe_flag = 0;  // ignored entries are checked all the same
    bad_time.minute = 60;
    expect_result_and_log(-1, "INVALID PARAMETER", [&] {
        return api_qzfs_write_video_data(fd, bytes, len, 1, &bad_time); });
    expect_result_and_log(-1, "get_file_system failed(hdd_id:255)", [&] {
        return api_qzfs_write_video_data(fd + 1, bytes, len, 1, &info); });

    // A reader's descriptor, entered as an open would.
    _opened_stream_segment_* reader = nullptr;
    Init_opened_stream_segment(&reader, K4T_FS_TRUE);
    _read_stream_segment_* rss = nullptr;
    Init_read_stream_segment(&rss);
    reader->state = rss;
    reader->hdd_id = 0;
    fs_->disk_lock(1);
    int disk_ossid = fs_->get_free_oss_fd();
    fs_->set_oss_info(disk_ossid, reader);
    fs_->disk_lock(0);
    int reader_fd = gQzfsManager.apply_and_set_ossid(disk_ossid);
    expect_result_and_log(-1, "(pOss->read_or_write != K4T_FS_FALSE)", [&] {
        return api_qzfs_write_video_data(reader_fd, bytes, len, 1, &info); });
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader_fd));

    // None of that touched the recording.
    ASSERT_EQ(len, write(fd, batch, written));
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    expect_result_and_log(-1, "get_file_system failed(hdd_id:255)", [&] {
        return api_qzfs_write_video_data(fd, bytes, len, 1, &info); });
    remount();
    expect_on_disk(id, written);
}

TEST_F(StreamWriteTest, FullDiskEndsTheRecordingAndKeepsWhatWasWritten)
{
    _k4t_stream_segment_id_ id;
    int fd = create(request(10, 0, kMorning), &id);
    FrameSource source = channel_source(10);
    WrittenStream written;
    record_seconds(fd, source, 3, written);
    fill_block_exactly(fd, source, written);

    take_every_free_block();

    FrameBatch more;
    source.append_frame(more);
    WrittenStream refused;
    expect_result_and_log(-1, "request free block failed", [&] { return write(fd, more, refused); });
    expect_result_and_log(-1, "(pOss->exist_error == K4T_FS_TRUE)", [&] { return write(fd, more, refused); });
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    // A full disk cannot be chosen for recording again: remount it bare.
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
    MountedImageTest::remount();
    expect_on_disk(id, written);
}

}  // namespace
