// The overwrite passes and the lock by id on a recorded image: the oldest
// unlocked segment goes first, a locked one survives every pass and reads
// back as written, a segment open for reading is passed over, orphan blocks
// go before the segment of their age, small streams lose whole days, and a
// lock reaches the live writer, the root summary and open query rows.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

using namespace qzfs_test;

namespace {

const unsigned long long kHuge = 1ULL << 50;  // a start level no disk reaches

struct Recorded {
    _k4t_stream_segment_id_ id;
    WrittenStream written;
};

class Overwrite : public RecordingTest {
protected:
    void SetUp() override
    {
        RecordingTest::SetUp();
        g_qzfs_debug_level = 0;
    }

    // Records `count` segments of `seconds` each, one behind the other, on
    // one channel.
    std::vector<Recorded> record(unsigned count, unsigned seconds, uint8_t channel = 0,
                                 uint8_t stream_type = 0)
    {
        std::vector<Recorded> out(count);
        FrameSource source = channel_source(channel);
        for (Recorded& r : out) {
            const unsigned s = source.next_second_of_day();
            _k4t_fs_date_time_ start = source.config().start;
            start.hour = uint8_t(s / 3600);
            start.minute = uint8_t(s / 60 % 60);
            start.second = uint8_t(s % 60);
            const int fd = create(request(channel, stream_type, start), &r.id);
            EXPECT_GT(fd, 0);
            record_seconds(fd, source, seconds, r.written);
            EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        }
        return out;
    }

    // Thresholds that make the big pass run and ask it for `once` bytes.
    static void ask_for(unsigned long long once)
    {
        _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, kHuge, once};
        ASSERT_EQ(0, api_qzfs_config_overwrite(0, &config));
    }

    _stream_segment_index_node_men_ node_of(const _k4t_stream_segment_id_& id)
    {
        _stream_segment_index_node_men_ node;
        memset(&node, 0, sizeof(node));
        DiskLockGuard disk(*fs_);
        EXPECT_EQ(0, fs_->Get_stream_segment_index_mem_node(id.root_index,
                                                            id.stream_segment_index, &node));
        return node;
    }

    bool exists(const Recorded& r) { return IS_NORMAL_SSIN(node_of(r.id).id); }
    uint64_t len_of(const Recorded& r) { return node_of(r.id).len_in_bytes; }

    // The segment holds what was written, whole.
    void expect_intact(const Recorded& r)
    {
        SegmentOnDisk disk;
        read_segment(fs_, image_, r.id.root_index, r.id.stream_segment_index, disk);
        expect_segment_matches(fs_, image_, disk, r.written);
    }

    // A reader gets a tail of what was written that starts at one of its
    // I-frames.
    void expect_trimmed_at_iframe(const Recorded& r)
    {
        const std::vector<uint8_t> got = read_through_reader(r.id);
        ASSERT_GT(r.written.bytes.size(), got.size());
        ASSERT_FALSE(got.empty());
        const size_t cut = r.written.bytes.size() - got.size();
        bool at_iframe = false;
        for (const _k4t_video_frame_info_& f : r.written.iframes)
            at_iframe = at_iframe || f.offset == cut;
        EXPECT_TRUE(at_iframe) << "cut at byte " << cut;
        EXPECT_TRUE(std::equal(got.begin(), got.end(), r.written.bytes.begin() + long(cut)));
    }

    static int lock(const _k4t_stream_segment_id_& id, unsigned char number)
    {
        _k4t_stream_segment_id_ copy = id;
        return api_qzfs_stream_segment_lock_by_id(&copy, number);
    }
};

TEST_F(Overwrite, OldestUnlockedGoesFirstAndTheLockedOneStays)
{
    std::vector<Recorded> s = record(4, 20);
    ASSERT_EQ(0, lock(s[1].id, 1));
    // The whole oldest segment and about half of the third.
    ask_for(len_of(s[0]) + len_of(s[2]) / 2);
    ASSERT_EQ(0, api_qzfs_disk_overwrite_big_stream(0));
    EXPECT_FALSE(exists(s[0]));
    expect_intact(s[1]);
    EXPECT_TRUE(exists(s[2]));
    expect_trimmed_at_iframe(s[2]);
    expect_intact(s[3]);

    // Unlocked, the second is the oldest again and goes before the rest
    // of the third.
    ASSERT_EQ(0, lock(s[1].id, 0));
    ask_for(len_of(s[1]));
    ASSERT_EQ(0, api_qzfs_disk_overwrite_big_stream(0));
    EXPECT_FALSE(exists(s[1]));
    expect_trimmed_at_iframe(s[2]);
    remount();
    expect_trimmed_at_iframe(s[2]);
    expect_intact(s[3]);
}

TEST_F(Overwrite, SegmentOpenForReadingIsPassedOver)
{
    std::vector<Recorded> s = record(3, 12);
    _k4t_stream_segment_id_ id = s[0].id;
    const int reader = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    ASSERT_GT(reader, 0);
    ask_for(len_of(s[1]));
    ASSERT_EQ(0, api_qzfs_disk_overwrite_big_stream(0));
    EXPECT_TRUE(exists(s[0]));
    EXPECT_FALSE(exists(s[1]));
    EXPECT_TRUE(exists(s[2]));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
}

TEST_F(Overwrite, PassResultsAndMessages)
{
    std::vector<Recorded> s = record(2, 6);
    struct Case {
        const char* what;
        int group;
        unsigned long long start_level;
        bool lock_all;
        int want;
        const char* message;
    } cases[] = {
        {"unknown group", 7, kHuge, false, 0, "Group 7 is invalid!"},
        {"enough space", 0, 0x3200000, false, 0, "HAVE ENOUGH SPACE"},
        {"everything locked", 0, kHuge, true, -1, "have not unlock stream segment!"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, c.start_level, 1};
        ASSERT_EQ(0, api_qzfs_config_overwrite(0, &config));
        for (const Recorded& r : s)
            ASSERT_EQ(0, lock(r.id, c.lock_all ? 1 : 0));
        expect_result_and_log(c.want, c.message,
                              [&] { return api_qzfs_disk_overwrite_big_stream(c.group); }, 1);
        for (const Recorded& r : s)
            EXPECT_TRUE(exists(r));
    }
}

TEST_F(Overwrite, OrphanBlocksGoBeforeTheSegmentOfTheirAge)
{
    // A data block that no index owns, older than any segment.
    unsigned long orphan = 0;
    {
        DiskLockGuard disk(*fs_);
        _qzfs_block_info_ info = {};
        info.block_type = QZFS_BLOCK_DATA;
        info.year = 26;
        info.month = 11;
        info.day = 21;
        ASSERT_EQ(0, fs_->Request_free_block(1, &orphan, &info, 1));
    }
    std::vector<Recorded> s = record(2, 20);
    remount();
    ASSERT_EQ(1u, fs_->manage().invalid_block_list.size());
    EXPECT_EQ(orphan, fs_->manage().invalid_block_list.front().block);

    const unsigned long free_before = fs_->manage().free_block;
    ask_for(fs_->manage().block_size + len_of(s[0]));
    ASSERT_EQ(0, api_qzfs_disk_overwrite_big_stream(0));
    EXPECT_FALSE(fs_->block_bit_is_set(orphan));
    EXPECT_TRUE(fs_->manage().invalid_block_list.empty());
    EXPECT_FALSE(exists(s[0]));
    expect_intact(s[1]);
    EXPECT_GT(fs_->manage().free_block, free_before + 1);
    remount();
    EXPECT_TRUE(fs_->manage().invalid_block_list.empty());
}

TEST_F(Overwrite, SmallStreamsLoseWholeDaysDownToTheReserve)
{
    // One small stream segment on each of three days, oldest first.
    std::vector<Recorded> days;
    for (uint8_t day = 21; day <= 23; day++) {
        FrameSourceConfig config;
        config.start.day = day;
        FrameSource source(config);
        Recorded r;
        const int fd = create(request(0, 3, config.start), &r.id);
        ASSERT_GT(fd, 0);
        record_seconds(fd, source, 4, r.written);
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
        days.push_back(r);
    }
    expect_result_and_log(0, "stream type:3,size:3!",
                          [] { return api_qzfs_disk_overwrite_small_stream(0, 1); }, 1);
    EXPECT_FALSE(exists(days[0]));
    EXPECT_FALSE(exists(days[1]));
    expect_intact(days[2]);
    EXPECT_EQ(0, api_qzfs_disk_overwrite_small_stream(0, 1));  // nothing more to do
    expect_intact(days[2]);
}

TEST_F(Overwrite, LockNumbersAndRootSummary)
{
    std::vector<Recorded> s = record(2, 4);
    struct Case {
        unsigned char number;
        uint8_t lock;
        uint32_t lock_type;
        uint8_t root_lock;
    } cases[] = {{5, 1, 1u << 4, 1}, {33, 1, 0, 1}, {1, 1, 1, 1}, {0, 0, 0, 0}, {0, 0, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.number));
        ASSERT_EQ(0, lock(s[0].id, c.number));
        const _stream_segment_index_node_men_ node = node_of(s[0].id);
        EXPECT_EQ(c.lock, node.lock);
        EXPECT_EQ(c.lock_type, node.lock_type);
        _root_index_node_mem_ root;
        ASSERT_EQ(0, fs_->Get_root_index_mem_node(s[0].id.root_index, &root));
        EXPECT_EQ(c.root_lock, root.lock);
    }
    ASSERT_EQ(0, lock(s[1].id, 2));
    remount();
    EXPECT_EQ(0, node_of(s[0].id).lock);
    EXPECT_EQ(1, node_of(s[1].id).lock);
    EXPECT_EQ(2u, node_of(s[1].id).lock_type);
}

TEST_F(Overwrite, LockRefusals)
{
    std::vector<Recorded> s = record(2, 4);
    _k4t_stream_segment_id_ id = s[0].id;
    ASSERT_EQ(0, api_qzfs_delete_stream_segment(&id));
    expect_result_and_log(-1, "get ssid failed!", [&] { return lock(s[0].id, 1); });
    _k4t_stream_segment_id_ unknown_disk = s[1].id;
    unknown_disk.hdd_id = 9;
    expect_result_and_log(-1, "get_file_system failed(hdd_id:9)",
                          [&] { return lock(unknown_disk, 1); });
    EXPECT_EQ(-1, api_qzfs_stream_segment_lock_by_id(nullptr, 1));
    const uint32_t unknown_places[][2] = {{s[1].id.root_index, 300}, {5000, 0}, {0xFFFFFFFF, 0}};
    for (const auto& place : unknown_places) {
        _k4t_stream_segment_id_ unknown = {0, place[0], place[1]};
        EXPECT_EQ(-1, lock(unknown, 1)) << place[0] << ":" << place[1];
    }
    expect_intact(s[1]);
}

TEST_F(Overwrite, LockWhileRecordingHoldsThroughCloseAndPasses)
{
    FrameSource source = channel_source(0);
    Recorded live;
    const int fd = create(request(0, 0, source.config().start), &live.id);
    ASSERT_GT(fd, 0);
    record_seconds(fd, source, 20, live.written);
    // Shorter than what the pass wants, the recording gives nothing, and
    // the pass stops after one try instead of offering it again.
    ask_for(kHuge);
    expect_result_and_log(0, "have not unlock stream segment, but have open segment(list size:1)!",
                          [] { return api_qzfs_disk_overwrite_big_stream(0); }, 1);
    ASSERT_EQ(0, lock(live.id, 3));
    EXPECT_EQ(1, open_record(fd)->ssi()->lock);
    // Locked, it is no candidate at all, and the writer goes on.
    EXPECT_EQ(-1, api_qzfs_disk_overwrite_big_stream(0));
    record_seconds(fd, source, 4, live.written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    EXPECT_EQ(1, node_of(live.id).lock);
    EXPECT_EQ(4u, node_of(live.id).lock_type);
    expect_intact(live);
}

TEST_F(Overwrite, LockReachesRowsOfOpenSequenceQueries)
{
    std::vector<Recorded> s = record(2, 4);
    _k4t_stream_query_ query = whole_day_query(26, 11, 21);
    query.item_num_per_page = 10;
    const int handle = api_qzfs_get_query_stream_segment_handle(&query);
    ASSERT_GT(handle, 0);
    _k4t_stream_query_result_ rows[10];
    int num = 10;
    ASSERT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows));
    ASSERT_EQ(2, num);
    ASSERT_EQ(0, lock(s[1].id, 6));
    num = 10;
    ASSERT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows));
    ASSERT_EQ(2, num);
    for (int i = 0; i < num; i++) {
        const bool locked = rows[i].stream_segment_index == s[1].id.stream_segment_index;
        EXPECT_EQ(locked ? 1 : 0, rows[i].lock);
        EXPECT_EQ(locked ? 32u : 0u, rows[i].lock_type);
    }
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
}

}  // namespace
