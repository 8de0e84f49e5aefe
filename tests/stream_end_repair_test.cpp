// Segments left open by a power cut, closed at the next mount from the
// frames found on the disk. The cut is a copy of the image taken while the
// writers are still open: what their write calls handed to the kernel is in
// it, and what the writers still held (the I-frame nodes not yet flushed to
// the index, the segment's end and length) is not. The copy then takes the
// image's place and is mounted.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kMorning = {26, 11, 21, 8, 0, 0, 0};

// Where the date-time and the pts records of a FrameSource frame lie.
const size_t kDateAt = 12 + 4;
const size_t kPtsAt = 12 + QZFS_FRAME_EXT_RECORD_LEN + 4;

// The first `bytes` bytes of a stream, with the I-frames that start in them.
WrittenStream prefix(const WrittenStream& w, size_t bytes)
{
    WrittenStream p;
    p.bytes.assign(w.bytes.begin(), w.bytes.begin() + long(bytes));
    for (const _k4t_video_frame_info_& f : w.iframes)
        if (f.offset < bytes)
            p.iframes.push_back(f);
    return p;
}

// Gives the frame at the start of `batch` a new length of `total` bytes.
void resize_frame(FrameBatch& batch, uint32_t total)
{
    batch.bytes.resize(total, 0x5A);
    qzfs_frame_put_u24(&batch.bytes[4], total - 12 - FrameSource::kRecordBytes);
}

// Sets the time of the frame at the start of `batch`, in its date-time
// record and in its description.
void set_second_of_day(FrameBatch& batch, unsigned s)
{
    uint8_t* t = &batch.bytes[kDateAt + 3];
    t[0] = uint8_t(s / 3600);
    t[1] = uint8_t(s / 60 % 60);
    t[2] = uint8_t(s % 60);
    for (_k4t_video_frame_info_& info : batch.infos) {
        info.hour = t[0];
        info.minute = t[1];
        info.second = t[2];
    }
}

// Sets the pts of the frame at the start of `batch`, in its pts record and
// in its description.
void set_pts(FrameBatch& batch, uint64_t pts)
{
    memcpy(&batch.bytes[kPtsAt], &pts, 8);
    for (_k4t_video_frame_info_& info : batch.infos) {
        info.pts_high = uint32_t(pts >> 32);
        info.pts_low = uint32_t(pts);
    }
}

unsigned second_of_day(const FrameBatch& batch)
{
    const uint8_t* t = &batch.bytes[kDateAt + 3];
    return t[0] * 3600u + t[1] * 60u + t[2];
}

// A frame of an older recording of `channel`, from the day before, as a
// reused block holds it behind the new data: a frame, but none of this
// stream.
std::vector<uint8_t> old_frame(uint8_t channel)
{
    FrameSourceConfig config;
    config.channel = channel;
    config.start.day = 20;
    config.iframe_bytes = 200;
    FrameSource source(config);
    FrameBatch batch;
    source.append_frame(batch);
    return batch.bytes;
}

class StreamEndRepair : public RecordingTest {
protected:
    unsigned long bs() const { return fs_->manage().block_size; }

    // Image offset of where the writer's next byte goes.
    unsigned long long behind(int fd)
    {
        return (unsigned long long)writer_of(fd)->block_index * bs() + writer_of(fd)->block_offset;
    }

    static void copy_image(const std::string& from, const std::string& to)
    {
        CommandResult r = run_command("cp --sparse=always '" + from + "' '" + to + "'");
        ASSERT_EQ(0, r.status) << r.output;
    }

    // What the disk holds now, as a power cut would leave it.
    std::string snapshot(const std::string& name)
    {
        const std::string copy = scratch_.path(name);
        copy_image(image_, copy);
        return copy;
    }

    // Closes the writers, takes the disk out of service, and puts `cut` in
    // the image's place.
    void power_cut(const std::string& cut, std::initializer_list<int> fds)
    {
        for (int fd : fds)
            ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
        umount();
        fs_ = nullptr;
        copy_image(cut, image_);
    }

    // Mounts the image, expecting `message` in what the mount prints.
    std::string mount_expecting(const std::string& message)
    {
        std::string log = expect_result_and_log(0, message, [&] {
            std::string dev = image_;
            return api_qzfs_mount(0, &dev[0]);
        });
        fs_ = gQzfsManager.get_file_system(0);
        return log;
    }

    void expect_repaired(const _k4t_stream_segment_id_& id, const WrittenStream& expected)
    {
        SegmentOnDisk disk;
        ASSERT_NO_FATAL_FAILURE(read_segment(fs_, image_, id.root_index, id.stream_segment_index, disk));
        EXPECT_EQ(int(NORMAL_STREAM_SEGMENT_INDEX), int(disk.node.id));
        ASSERT_NE(QZFS_INVALID_END_HOUR, disk.node.end_hour) << "the segment is still open";
        expect_segment_matches(fs_, image_, disk, expected);
    }

    // A data block in use (bit set, data in both tables) or free again
    // (bit clear, free in both tables).
    void expect_block_taken(uint32_t block, bool taken)
    {
        EXPECT_EQ(taken, fs_->block_bit_is_set(block)) << "block " << block;
        for (unsigned long key : {fs_->manage().key_block, fs_->manage().bak_key_block})
            EXPECT_EQ(int(taken ? QZFS_BLOCK_DATA : QZFS_BLOCK_FREE),
                      int(read_table_record(image_, bs(), key, block).block_type))
                << "block " << block << " in the table of " << key;
    }

    uint16_t record_types(uint32_t root)
    {
        const uint16_t bits = root_node(root).record_type;
        return bits;
    }

    _root_index_node_dev_ root_node(uint32_t root)
    {
        _root_index_node_dev_ node;
        memset(&node, 0, sizeof(node));
        EXPECT_EQ(0, fs_->Get_root_index_dev_node(root, &node));
        return node;
    }

    // Writes the source's frames until the block has less than 100 KiB
    // left, then one frame that ends `over` bytes behind the block's end.
    void fill_block(int fd, FrameSource& source, uint32_t over, WrittenStream& written)
    {
        FrameBatch batch;
        while (bs() - writer_of(fd)->block_offset >= 100 * 1024) {
            batch.clear();
            source.append_frame(batch);
            ASSERT_EQ(int(batch.bytes.size()), write(fd, batch, written));
        }
        batch.clear();
        source.append_frame(batch);
        resize_frame(batch, uint32_t(bs() - writer_of(fd)->block_offset + over));
        ASSERT_EQ(int(batch.bytes.size()), write(fd, batch, written));
    }
};

// The index is behind the frames: two I-frames and the frames around them
// were written after the last flush of the index. They are found, and the
// segment closes at its last frame with the time of its last I-frame.
TEST_F(StreamEndRepair, FramesBehindTheIndexAreFoundAndTheSegmentClosed)
{
    _k4t_stream_segment_id_ id;
    const int fd = create(request(7, 0, kMorning), &id);
    ASSERT_GT(fd, 0);
    FrameSourceConfig config;
    config.channel = 7;
    config.gop = 50;  // an I-frame every other second: the last frames outlast it
    FrameSource source(config);
    WrittenStream written;
    record_seconds(fd, source, 3, written);
    ASSERT_EQ(0, api_qzfs_fsync(fd));
    record_seconds(fd, source, 5, written);
    ASSERT_EQ(2u, writer_of(fd)->iframe_buffered_num) << "two I-frames known to the writer alone";
    ASSERT_EQ(1u, writer_of(fd)->data_block_num);

    // An old frame behind the data, as in a reused block, ends the scan.
    const std::string cut = snapshot("cut.img");
    write_bytes(cut, behind(fd), old_frame(7));
    power_cut(cut, {fd});
    std::string log = mount_expecting("start recovery stream segment chn:7,stream type:0,");
    EXPECT_NE(std::string::npos, log.find("end recovery stream segment chn:7,stream type:0,")) << log;
    expect_repaired(id, written);
    EXPECT_TRUE(from_first_iframe(written) == read_through_reader(id)) << "the reader returns the stream";

    // The next mount finds nothing to do, and writes nothing.
    umount();
    const std::string before = image_fingerprint(image_);
    mount_expecting("");
    umount();
    EXPECT_EQ(before, image_fingerprint(image_));
}

// States of a segment whose index holds no I-frame, on four channels of
// one disk cut at once: created and left; rubbish bytes only; rubbish then
// frames whose I-frames were never flushed; a second segment of a root whose
// first one was closed, with a record type of its own.
TEST_F(StreamEndRepair, SegmentsWithoutIframesInTheIndex)
{
    const unsigned long free_at_start = fs_->manage().free_block;
    _k4t_stream_segment_id_ closed, found, nothing, rubbish, second;

    _qzfs_k4t_create_ss_para_ first_para = request(4, 0, kMorning);
    first_para.record_type = 2;
    int fd4 = create(first_para, &closed);
    FrameSource source4 = channel_source(4);
    WrittenStream written4;
    record_seconds(fd4, source4, 2, written4);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd4));
    _qzfs_k4t_create_ss_para_ second_para = request(4, 0, {26, 11, 21, 9, 0, 0, 0});
    second_para.record_type = 5;
    fd4 = create(second_para, &second);
    ASSERT_EQ(closed.root_index, second.root_index);

    const int fd3 = create(request(3, 0, kMorning), &found);
    WrittenStream written3;
    ASSERT_EQ(700, write(fd3, pframe_of_size(3, 700), written3));
    FrameSource source3 = channel_source(3);
    record_seconds(fd3, source3, 2, written3);
    ASSERT_EQ(2u, writer_of(fd3)->iframe_buffered_num);
    const unsigned long long behind3 = behind(fd3);
    const unsigned long free_for_kept = fs_->manage().free_block;

    const int fd1 = create(request(1, 0, kMorning), &nothing);
    const int fd2 = create(request(2, 0, kMorning), &rubbish);
    WrittenStream written2;
    ASSERT_EQ(5000, write(fd2, pframe_of_size(2, 5000), written2));
    const uint32_t rubbish_block = writer_of(fd2)->block_index;
    EXPECT_EQ(0x24, record_types(second.root_index)) << "both record types stand in the root";

    const std::string cut = snapshot("cut.img");
    write_bytes(cut, behind3, old_frame(3));
    power_cut(cut, {fd1, fd2, fd3, fd4});
    std::string log = mount_expecting("NOTHING delete the stream segment");
    char line[96];
    for (int channel : {1, 2, 4}) {
        snprintf(line, sizeof(line), "delete stream segment chn:%d,stream type:0,", channel);
        EXPECT_NE(std::string::npos, log.find(line)) << line;
    }
    for (uint32_t root : {nothing.root_index, rubbish.root_index}) {
        snprintf(line, sizeof(line), "this root index is empty,so delete(%lu)!", (unsigned long)root);
        EXPECT_NE(std::string::npos, log.find(line)) << line;
        EXPECT_EQ(int(FREE_ROOT_INDEX), int(root_node(root).id));
    }
    snprintf(line, sizeof(line), "delete first block2:%lu", (unsigned long)rubbish_block);
    EXPECT_NE(std::string::npos, log.find(line)) << line;
    expect_block_taken(rubbish_block, false);
    EXPECT_NE(std::string::npos, log.find("end recovery stream segment chn:3,stream type:0,"));

    // The I-frames behind the rubbish were hunted down and indexed.
    expect_repaired(found, written3);
    // The root of channel 4 keeps its closed segment and the record type of
    // that one alone.
    EXPECT_NE(std::string::npos, log.find("MODIFY RECORD TYPE("));
    _stream_segment_index_node_dev_ node;
    ASSERT_EQ(0, fs_->Get_stream_segment_index_dev_node(second.root_index, second.stream_segment_index, &node));
    EXPECT_EQ(int(FREE_STREAM_SEGMENT_INDEX), int(node.id));
    EXPECT_EQ(1 << 2, record_types(second.root_index));
    expect_repaired(closed, written4);
    // Everything of the deleted segments and roots is free again.
    EXPECT_EQ(free_for_kept, fs_->manage().free_block);
    EXPECT_LT(free_for_kept, free_at_start);
}

// The scan follows the stream from the block of the last indexed I-frame
// into the blocks opened behind it, from their first data byte on. A block
// the stream never reached goes back to the free blocks; one that holds the
// tail of the last frame stays.
TEST_F(StreamEndRepair, ScanFollowsTheStreamIntoTheNextBlock)
{
    struct Row {
        uint8_t channel;
        uint32_t over;      // bytes of the last frame of the block behind its end
        bool next_written;  // the frames of the next block reached the disk
        _k4t_stream_segment_id_ id;
        WrittenStream written;
        size_t kept;        // bytes expected back
        uint32_t next_block;
        unsigned long long old_at;
        int fd;
    };
    Row rows[] = {{5, 0, false, {}, {}, 0, 0, 0, 0},
                  {6, 1000, false, {}, {}, 0, 0, 0, 0},
                  {9, 0, true, {}, {}, 0, 0, 0, 0}};
    for (Row& row : rows) {
        row.fd = create(request(row.channel, 0, kMorning), &row.id);
        FrameSource source = channel_source(row.channel);
        record_seconds(row.fd, source, 2, row.written);
        fill_block(row.fd, source, row.over, row.written);
        row.kept = row.written.bytes.size();
        record_seconds(row.fd, source, 1, row.written);
        if (row.next_written)
            row.kept = row.written.bytes.size();
        row.next_block = writer_of(row.fd)->block_index;
        row.old_at = row.next_written ? behind(row.fd)
                                      : (unsigned long long)row.next_block * bs() + 4096 + row.over;
        ASSERT_EQ(2u, writer_of(row.fd)->data_block_num);
        ASSERT_EQ(1u, writer_of(row.fd)->iframe_buffered_num) << "the I-frame of the next block";
    }
    const std::string cut = snapshot("cut.img");
    for (const Row& row : rows)
        write_bytes(cut, row.old_at, old_frame(row.channel));
    power_cut(cut, {rows[0].fd, rows[1].fd, rows[2].fd});
    mount_expecting("end recovery stream segment chn:9,stream type:0,");
    for (const Row& row : rows) {
        SCOPED_TRACE(int(row.channel));
        expect_repaired(row.id, prefix(row.written, row.kept));
        expect_block_taken(row.next_block, row.over > 0 || row.next_written);
    }
}

// Whatever lies right behind the frames of a segment (a next frame, one
// of another channel, day or time, a pts going back, a damaged or torn
// frame, or nothing) ends the scan or is taken as the next frame. One
// recording is cut once; each row mounts that copy with its own bytes
// behind the data, and most rows with an old frame behind those.
TEST_F(StreamEndRepair, WhatLiesBehindTheDataDecidesTheEnd)
{
    _k4t_stream_segment_id_ id;
    const int fd = create(request(8, 0, kMorning), &id);
    FrameSource source = channel_source(8);
    WrittenStream written;
    record_seconds(fd, source, 3, written);
    ASSERT_EQ(0u, writer_of(fd)->iframe_buffered_num) << "the index holds every I-frame";
    const unsigned long long data_end = behind(fd);
    // Byte offset of the check sum of the last I-frame's index entry.
    _stream_segment_index_node_dev_ node;
    ASSERT_EQ(0, fs_->Get_stream_segment_index_dev_node(id.root_index, id.stream_segment_index, &node));
    uint32_t ssi_num = 0, iframe_head = 0;
    uint32_t* ssi_list = nullptr;
    ASSERT_EQ(0, fs_->Get_stream_segment_index_block_list(id.root_index, &ssi_num, &ssi_list, &iframe_head));
    delete[] ssi_list;
    const uint32_t last_entry = node.start_iframe + uint32_t(written.iframes.size()) - 1;
    const unsigned long long last_entry_sum =
        (unsigned long long)iframe_head * bs() +
        (QZFS_INDEX_HEAD_SECTORS + last_entry / QZFS_IFRAME_NODES_PER_SECTOR) * QZFS_SECTOR_SIZE +
        (last_entry % QZFS_IFRAME_NODES_PER_SECTOR) * QZFS_IFRAME_NODE_SIZE + 1;

    const std::string cut = snapshot("cut.img");
    power_cut(cut, {fd});

    // The next frame is the I-frame of the next second; the last frame
    // written is a P-frame of the second before.
    FrameSource after = source;
    FrameBatch next;
    after.append_frame(next);
    ASSERT_EQ(1u, next.infos.size());
    const unsigned last_second = second_of_day(next) - 1;
    uint64_t pts;
    memcpy(&pts, &next.bytes[kPtsAt], 8);
    const uint64_t last_pts = pts - 90000 / source.config().fps;

    using Change = std::function<void(FrameBatch&)>;
    // A frame counts only when the bytes behind it are seen written: what
    // is no header of this channel costs the last frame written its place.
    enum Outcome { TAKEN, ENDS_BEFORE, LAST_LOST };
    struct Row {
        const char* name;
        Change change;
        Outcome outcome;
        const char* message;
        size_t on_disk;  // bytes of the frame that reached the disk; 0 all
        bool damage_last_entry;
        bool old_behind = true;  // an old frame right behind it
    };
    const Change none = [](FrameBatch&) {};
    const Row rows[] = {
        {"next frame", none, TAKEN, "", 0, false},
        {"last index entry damaged", none, TAKEN, "Check_iframe_index_dev_node failed", 0, true},
        {"3 s later", [&](FrameBatch& f) { set_second_of_day(f, last_second + 3); }, TAKEN, "", 0, false},
        {"4 s later", [&](FrameBatch& f) { set_second_of_day(f, last_second + 4); }, ENDS_BEFORE, "invalid time2(", 0, false},
        {"a second back", [&](FrameBatch& f) { set_second_of_day(f, last_second - 1); }, ENDS_BEFORE, "invalid time1(", 0, false},
        {"next day", [](FrameBatch& f) { f.bytes[kDateAt + 2]++; }, ENDS_BEFORE, "NOT SAME DAY(", 0, false},
        {"other channel", [](FrameBatch& f) { f.bytes[0]++; }, LAST_LOST, "", 0, false},
        {"pts back", [&](FrameBatch& f) { set_pts(f, last_pts - 1); }, ENDS_BEFORE, "invalid pts(", 0, false},
        {"same pts", [&](FrameBatch& f) { set_pts(f, last_pts); }, TAKEN, "", 0, false},
        {"bad magic", [](FrameBatch& f) { f.bytes[2] = 'x'; }, LAST_LOST, "", 0, false},
        {"1 MiB long", [](FrameBatch& f) { resize_frame(f, 0x100000); }, LAST_LOST, "", 0, false},
        // The format has no check sum: a damaged body goes unseen.
        {"a body byte damaged", [](FrameBatch& f) { f.bytes[f.bytes.size() / 2] ^= 0xFF; }, TAKEN, "", 0, false},
        // A frame whose body never reached the disk has nothing written
        // behind it; its header still shows the frame before it whole.
        {"torn behind its records", none, ENDS_BEFORE, "", 12 + FrameSource::kRecordBytes + 100, false, false},
        {"torn in its header", none, ENDS_BEFORE, "Get_av_frame_extend_info failed", 8, false, false},
        {"nothing behind the data", [](FrameBatch& f) { f.clear(); }, LAST_LOST, "", 0, false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FrameBatch frame = next;
        row.change(frame);
        if (row.on_disk != 0)
            std::fill(frame.bytes.begin() + long(row.on_disk), frame.bytes.end(), 0);
        ASSERT_NO_FATAL_FAILURE(copy_image(cut, image_));
        write_bytes(image_, data_end, frame.bytes);
        if (row.old_behind)
            write_bytes(image_, data_end + frame.bytes.size(), old_frame(8));
        if (row.damage_last_entry)
            damage_byte(image_, last_entry_sum);
        mount_expecting(row.message);
        WrittenStream expected = written;
        if (row.outcome == TAKEN)
            expected.add(frame);
        if (row.outcome == LAST_LOST)
            expected = prefix(written, written.bytes.size() - source.frame_bytes(false));
        expect_repaired(id, expected);
        umount();
    }
}

}  // namespace
