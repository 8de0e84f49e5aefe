// Indexes lost on a recorded disk, made again from the data blocks: after
// the application's recovery call every recording of the days is found by
// query, reads back from its first I-frame up to its last one, seeks, and
// the disk checks are clean.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <cstring>
#include <functional>

using namespace qzfs_test;

namespace {

const unsigned long BS = 4 * MiB;

struct Recording {
    uint8_t channel;
    _k4t_fs_date_time_ start;
    unsigned seconds;
    uint8_t lock, record_type;
    _k4t_stream_segment_id_ id;
    WrittenStream written;
};

class Rebuild : public RecordingTest {
protected:
    void SetUp() override
    {
        RecordingTest::SetUp();
        recordings_ = {
            {0, {26, 11, 21, 8, 0, 0, 0}, 20, 0, 0, {}, {}},
            {0, {26, 11, 21, 8, 1, 0, 0}, 16, 1, 3, {}, {}},  // locked alarm recording
            {1, {26, 11, 21, 8, 0, 0, 0}, 20, 0, 0, {}, {}},
            {0, {26, 11, 22, 9, 0, 0, 0}, 12, 0, 0, {}, {}},
        };
        for (Recording& r : recordings_) {
            FrameSourceConfig config;
            config.channel = r.channel;
            config.start = r.start;
            FrameSource source(config);
            _qzfs_k4t_create_ss_para_ para = request(r.channel, 0, r.start);
            para.lock = r.lock;
            para.record_type = r.record_type;
            const int fd = create(para, &r.id);
            ASSERT_GT(fd, 0);
            record_seconds(fd, source, r.seconds, r.written);
            ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
        }
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
        umount();
    }

    // The blocks of the table with `type`, read from the image.
    std::vector<unsigned long> blocks_of_type(uint8_t type, uint8_t channel, uint8_t day)
    {
        std::vector<unsigned long> out;
        const _qzfs_key_header_ header = read_key_header(image_, BS, 65);
        for (unsigned long b = 0; b < header.total_block; b++) {
            const _qzfs_block_info_ r = read_table_record(image_, BS, 65, b);
            if (r.block_type == type && (type == QZFS_BLOCK_ROOT_INDEX ||
                                         (r.attr[0] == channel && r.day == day)))
                out.push_back(b);
        }
        return out;
    }
    // Zeroes the index part of a block, behind its own 32-byte record.
    void wipe(unsigned long block)
    {
        write_bytes(image_, (unsigned long long)block * BS + 32,
                    std::vector<unsigned char>(BS - 32, 0));
    }

    // The rows of a day's query, found again for each recording: its start,
    // its end, its length, its lock and record type; what a reader returns,
    // and a seek into it. A recording whose index was rebuilt ends at its
    // last I-frame; one whose index stood keeps all it had.
    void expect_every_recording_found_and_whole(const std::function<bool(const Recording&)>& rebuilt)
    {
        mount();
        choose_work_disk();
        for (const Recording& r : recordings_) {
            SCOPED_TRACE(int(r.channel) * 100 + r.start.day);
            _k4t_stream_query_ q = whole_day_query(r.start.year, r.start.month, r.start.day);
            const int handle = api_qzfs_get_query_stream_segment_handle(&q);
            ASSERT_GT(handle, 0);
            _k4t_stream_query_result_ rows[64];
            int num = 64;
            ASSERT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows));
            api_qzfs_close_query_stream_segment_handle(handle);
            const _k4t_stream_query_result_* row = nullptr;
            for (int i = 0; i < num; i++)
                if (rows[i].channel == r.channel && rows[i].start_hour == r.start.hour &&
                    rows[i].start_minute == r.start.minute && rows[i].start_second == r.start.second)
                    row = &rows[i];
            ASSERT_NE(nullptr, row) << "not found by query";
            const _k4t_video_frame_info_& last = r.written.iframes.back();
            const size_t kept = rebuilt(r) ? last.offset : r.written.bytes.size();
            if (rebuilt(r)) {
                EXPECT_EQ(last.hour * 3600 + last.minute * 60 + last.second,
                          row->end_hour * 3600 + row->end_minute * 60 + row->end_second);
            }
            EXPECT_EQ(kept, row->len);
            EXPECT_EQ(r.lock, row->lock);
            EXPECT_EQ(r.record_type, row->record_type);

            _k4t_stream_segment_id_ id = {row->hdd_id, row->root_index, row->stream_segment_index};
            const std::vector<uint8_t> all = from_first_iframe(r.written);
            EXPECT_EQ(std::vector<uint8_t>(all.begin(), all.begin() + long(kept)),
                      read_through_reader(id));

            const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
            ASSERT_GT(fd, 0);
            _k4t_fs_date_time_ at = r.start;
            at.second = uint8_t(at.second + 5);
            EXPECT_EQ(0, api_qzfs_seek_stream_segment_by_time(fd, &at));
            uint8_t* frame = nullptr;
            int len = 0;
            uint8_t fresh = 0;
            ASSERT_GT(api_qzfs_read_next_iframe(fd, 0, &frame, &len, &fresh), 0);
            const _k4t_video_frame_info_* want = nullptr;
            for (const _k4t_video_frame_info_& f : r.written.iframes)
                if (want == nullptr && f.second >= at.second && f.minute == at.minute)
                    want = &f;
            ASSERT_NE(nullptr, want);
            EXPECT_EQ(0, memcmp(&r.written.bytes[want->offset], frame, size_t(len)));
            api_qzfs_close_stream_segment(fd);
        }
        EXPECT_EQ(std::vector<std::string>(), disk_check_failures(fs_, image_));
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
        umount();
    }

    int recover()
    {
        std::string dev = image_;
        return api_qzfs_disk_recovery(0, &dev[0], nullptr);
    }

    std::vector<Recording> recordings_;
};

TEST_F(Rebuild, UntouchedDiskIsLeftAsItIs)
{
    const std::string before = image_fingerprint(image_);
    EXPECT_EQ(0, recover());
    EXPECT_EQ(before, image_fingerprint(image_));
}

TEST_F(Rebuild, LostIndexesComeBackFromTheData)
{
    struct Case {
        const char* what;
        std::function<void()> damage;
        std::function<bool(const Recording&)> rebuilt;
    };
    const Case cases[] = {
        {"the I-frame index of one root",
         [&] {
             for (unsigned long b : blocks_of_type(QZFS_BLOCK_IFRAME_INDEX, 1, 21))
                 wipe(b);
         },
         [](const Recording& r) { return r.channel == 1; }},
        {"the segment index of another",
         [&] {
             for (unsigned long b : blocks_of_type(QZFS_BLOCK_SEGMENT_INDEX, 0, 22))
                 wipe(b);
         },
         [](const Recording& r) { return r.start.day == 22; }},
        {"the root index",
         [&] {
             for (unsigned long b : blocks_of_type(QZFS_BLOCK_ROOT_INDEX, 0, 0))
                 wipe(b);
         },
         [](const Recording&) { return false; }},
        {"all of them",
         [&] {
             for (uint8_t type : {QZFS_BLOCK_IFRAME_INDEX, QZFS_BLOCK_SEGMENT_INDEX})
                 for (uint8_t channel : {0, 1})
                     for (uint8_t day : {21, 22})
                         for (unsigned long b : blocks_of_type(type, channel, day))
                             wipe(b);
             for (unsigned long b : blocks_of_type(QZFS_BLOCK_ROOT_INDEX, 0, 0))
                 wipe(b);
         },
         [](const Recording&) { return true; }},
    };
    const std::string pristine = scratch_.path("pristine.img");
    ASSERT_EQ(0, run_command("cp --sparse=always " + image_ + " " + pristine).status);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(0, run_command("cp --sparse=always " + pristine + " " + image_).status);
        c.damage();
        EXPECT_EQ(0, recover());
        expect_every_recording_found_and_whole(c.rebuilt);
        // A second recovery finds nothing to rebuild.
        const std::string before = image_fingerprint(image_);
        EXPECT_EQ(0, recover());
        EXPECT_EQ(before, image_fingerprint(image_));
    }
}

}  // namespace

namespace {

// A rebuilt stream's old I-frame index goes at the rebuild (its data blocks
// still name its first block, as the new segment index does); deleting the
// stream afterwards leaves no index block of it behind.
TEST_F(Rebuild, DeletingARebuiltStreamLeavesNoIndexBlock)
{
    const std::vector<unsigned long> old = blocks_of_type(QZFS_BLOCK_IFRAME_INDEX, 1, 21);
    for (unsigned long b : old)
        wipe(b);
    ASSERT_EQ(0, recover());
    mount();
    choose_work_disk();
    _qzfs_k4t_delete_para_ day = {1, 1u << 1, ~0ULL, 26, 11, 21, 26, 11, 21};
    api_qzfs_delete_stream_segment_by_para(&day);
    EXPECT_EQ(std::vector<std::string>(), disk_check_failures(fs_, image_));
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
    umount();
    EXPECT_EQ(std::vector<unsigned long>(), blocks_of_type(QZFS_BLOCK_IFRAME_INDEX, 1, 21));
    // The rebuilt segment ended at its last I-frame: a block holding only
    // frames behind it is left to the overwrite pass as an orphan.
    EXPECT_LE(blocks_of_type(QZFS_BLOCK_DATA, 1, 21).size(), 1u);
}

// The host tool's rebuild says what it found and made, and finds nothing
// to make a second time.
TEST_F(Rebuild, ToolSaysWhatItRebuilt)
{
    for (unsigned long b : blocks_of_type(QZFS_BLOCK_IFRAME_INDEX, 1, 21))
        wipe(b);
    const std::string tool = std::string(QZFS_TOOL_PATH) + " rebuild ";
    CommandResult first = run_command(tool + image_);
    EXPECT_EQ(0, first.status) << first.output;
    for (const char* line : {"nothing to repair", "data blocks: ", " in 3 streams",
                             "rebuilt: 1 stream, with 1 segment and ", "root index made anew"})
        EXPECT_NE(std::string::npos, first.output.find(line)) << line << " in:\n" << first.output;
    CommandResult second = run_command(tool + image_);
    EXPECT_EQ(0, second.status);
    EXPECT_NE(std::string::npos, second.output.find("indexes that stood: 3 streams; rebuilt: 0 streams"))
        << second.output;
    EXPECT_NE(std::string::npos, second.output.find("root index left as it was"));
    CommandResult missing = run_command(tool + scratch_.path("missing.img"));
    EXPECT_EQ(1, missing.status);
    EXPECT_NE(std::string::npos, missing.output.find("no such file"));
}

}  // namespace
