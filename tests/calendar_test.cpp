// Which days hold recordings: the calendar of a month and the date lists,
// over the root nodes of two disks of one group.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstring>
#include <list>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

struct Recording {
    uint8_t channel;
    uint8_t stream_type;
    uint8_t record_type;
    uint8_t month;
    uint8_t day;
    uint8_t lock;
    uint8_t pre_record;
    const char* name;
};

// Disk 0, in the order recorded (root nodes follow that order).
const Recording kDisk0[] = {
    {0, 0, 0, 3, 5, 0, 0, ""},    // 03-05 channel 0, record type 0 ...
    {0, 0, 2, 3, 5, 0, 0, ""},    // ... and record type 2 into the same root node
    {1, 1, 1, 3, 12, 1, 0, ""},   // locked
    {3, 3, 0, 3, 31, 0, 0, ""},   // last day of the month, small stream type
    {0, 0, 0, 4, 2, 0, 0, ""},    // next month
    {40, 0, 0, 3, 7, 0, 0, ""},   // channel beyond the calendar's 32 rows
    {7, 0, 0, 3, 9, 0, 0, "door"},
    {7, 0, 0, 3, 31, 0, 0, "gate"},
};
// Disk 1.
const Recording kDisk1[] = {
    {0, 0, 3, 3, 5, 1, 0, ""},    // same day and channel as disk 0, locked here
    {5, 1, 0, 3, 15, 0, 0, ""},
    {7, 0, 0, 3, 15, 0, 0, "door"},
    {2, 0, 0, 3, 20, 0, 1, ""},   // pre-record only, kept open: never counts
};

const uint64_t kAllStreamTypes = ~0ULL;
const uint32_t kAllChannels = 0xFFFFFFFFu;

_k4t_fs_date_ date(uint8_t month, uint8_t day)
{
    _k4t_fs_date_ d = {26, month, day, 0};
    return d;
}

std::vector<std::string> as_text(const std::list<_k4t_fs_date_>& dates)
{
    std::vector<std::string> out;
    for (const _k4t_fs_date_& d : dates)
        out.push_back(std::to_string(d.year) + "-" + std::to_string(d.month) + "-" +
                      std::to_string(d.day));
    return out;
}

std::vector<std::string> as_text(std::initializer_list<_k4t_fs_date_> dates)
{
    return as_text(std::list<_k4t_fs_date_>(dates));
}

// A date info as "yy-m-d/record types/lock".
std::string info_text(const _k4t_fs_record_date_info_& i)
{
    return std::to_string(i.date.year) + "-" + std::to_string(i.date.month) + "-" +
           std::to_string(i.date.day) + "/" + std::to_string(i.record_type) + "/" +
           std::to_string(i.lock);
}

std::vector<std::string> as_text(const std::list<_k4t_fs_record_date_info_>& infos)
{
    std::vector<std::string> out;
    for (const _k4t_fs_record_date_info_& i : infos)
        out.push_back(info_text(i));
    return out;
}

// One marked day of the calendar: channel, day, record types, lock.
struct Mark {
    int channel;
    int day;
    uint16_t record_type;
    uint8_t lock;
};

class CalendarTest : public RecordingTest {
protected:
    void TearDown() override
    {
        if (pre_record_fd_ > 0)
            api_qzfs_close_stream_segment(pre_record_fd_);
        if (second_mounted_) {
            api_qzfs_delete_disk_from_group(1, 0);
            api_qzfs_umount(1);
        }
        RecordingTest::TearDown();
    }

    // Creates the segment of `r`, records a second of small frames into it
    // and closes it. A pre-record segment stays open, as while a recorder
    // waits for its event: closed, its root node would go with it, since
    // a root without a normal segment is deleted at close.
    void record(const Recording& r, _k4t_stream_segment_id_* id = nullptr)
    {
        _qzfs_k4t_create_ss_para_ para = request(r.channel, r.stream_type, {26, r.month, r.day, 10, 0, 0, 0});
        para.record_type = r.record_type;
        para.lock = r.lock;
        para.for_pre_record = r.pre_record;
        strcpy(para.name, r.name);
        const int fd = create(para, id);
        ASSERT_GT(fd, 0);
        FrameSourceConfig config;
        config.channel = r.channel;
        config.iframe_bytes = 2000;
        config.pframe_bytes = 500;
        config.start = {26, r.month, r.day, 10, 0, 0, 0};
        FrameSource source(config);
        WrittenStream written;
        record_seconds(fd, source, 1, written);
        if (r.pre_record) {
            pre_record_fd_ = fd;
            return;
        }
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    }

    // Records kDisk0 on disk 0, then kDisk1 on a second disk of group 0
    // (recorded while it is the group's only disk), and puts disk 0 back.
    void record_both_disks()
    {
        for (const Recording& r : kDisk0)
            ASSERT_NO_FATAL_FAILURE(record(r));
        const std::string second_image = scratch_.path("second.img");
        make_sparse_image(second_image, 3 * GiB);
        std::string dev = second_image;
        ASSERT_EQ(0, api_qzfs_fast_format(1, &dev[0]));
        ASSERT_EQ(0, api_qzfs_mount(1, &dev[0]));
        second_mounted_ = true;
        ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 0));
        unsigned char hdd = 255;
        ASSERT_EQ(0, api_qzfs_find_work_hdd(0, &hdd));
        ASSERT_EQ(1, hdd);
        for (const Recording& r : kDisk1)
            ASSERT_NO_FATAL_FAILURE(record(r));
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 0));
        fs1_ = gQzfsManager.get_file_system(1);
        ASSERT_NE(nullptr, fs1_);
    }

    static _k4t_calendar_stream_query_ query(uint8_t month, uint32_t channels = kAllChannels,
                                            uint16_t record_types = 0xFFFF,
                                            uint64_t stream_types = kAllStreamTypes,
                                            uint32_t groups = 1)
    {
        _k4t_calendar_stream_query_ q;
        memset(&q, 0xA5, sizeof(q));  // the call must clear the table
        q.group_bitmap = groups;
        q.channel_bitmap = channels;
        q.record_type_bitmap = record_types;
        q.stream_type_bitmap = stream_types;
        q.year = 26;
        q.month = month;
        return q;
    }

    // The table holds exactly `marks`, every other entry zero.
    static void expect_marks(const _k4t_calendar_stream_query_& q, std::vector<Mark> marks)
    {
        for (int c = 0; c < 32; c++)
            for (int d = 1; d <= 31; d++) {
                Mark want = {c, d, 0, 0};
                for (const Mark& m : marks)
                    if (m.channel == c && m.day == d)
                        want = m;
                const _k4t_calendar_day_info_& got = q.day_info[c][d - 1];
                EXPECT_EQ(want.record_type, got.record_type) << "channel " << c << " day " << d;
                EXPECT_EQ(want.lock, got.lock) << "channel " << c << " day " << d;
                EXPECT_EQ(0, got.reserve) << "channel " << c << " day " << d;
            }
    }

    bool second_mounted_ = false;
    int pre_record_fd_ = 0;
    CQzFileSystem* fs1_ = nullptr;
};

TEST_F(CalendarTest, TheMonthMarksTheRecordedDaysOfEachFilterMergedAcrossDisks)
{
    ASSERT_NO_FATAL_FAILURE(record_both_disks());
    // The pre-record day exists on disk 1, as a node that holds pre-record data only.
    bool pre_record_root = false;
    for (unsigned long ri = 0;; ri++) {
        _root_index_node_mem_ node;
        ASSERT_EQ(0, fs1_->Get_root_index_mem_node(ri, &node));
        if (node.id == END_ROOT_INDEX)
            break;
        if (IS_NORMAL_ROOT_INDEX(node.id) && node.channel == 2 && node.day == 20)
            pre_record_root = node.only_pre_record == 1;
    }
    ASSERT_TRUE(pre_record_root);

    // Everything: 03-05 of channel 0 holds record types 0 and 2 of disk 0
    // and 3 of disk 1, locked through disk 1. Channel 40 and the pre-record
    // day are absent.
    _k4t_calendar_stream_query_ q = query(3);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{0, 5, 0xD, 1}, {1, 12, 0x2, 1}, {3, 31, 0x1, 0}, {5, 15, 0x1, 0},
                     {7, 9, 0x1, 0}, {7, 31, 0x1, 0}, {7, 15, 0x1, 0}});

    // By channels.
    q = query(3, (1u << 1) | (1u << 5));
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{1, 12, 0x2, 1}, {5, 15, 0x1, 0}});

    // By record types: only the admitted bits are reported.
    q = query(3, kAllChannels, 0x4);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{0, 5, 0x4, 0}});
    q = query(3, kAllChannels, 0x8 | 0x2);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{0, 5, 0x8, 1}, {1, 12, 0x2, 1}});

    // By stream types, also a bit beyond 32.
    q = query(3, kAllChannels, 0xFFFF, 1ULL << 1);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{1, 12, 0x2, 1}, {5, 15, 0x1, 0}});
    q = query(3, kAllChannels, 0xFFFF, (1ULL << 3) | (1ULL << 40));
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{3, 31, 0x1, 0}});

    // The other month.
    q = query(4);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{0, 2, 0x1, 0}});

    // Months outside the disks' range, before and after: success, empty table.
    for (uint8_t month : {2, 5}) {
        q = query(month);
        ASSERT_EQ(0, api_qzfs_query_calendar(&q));
        expect_marks(q, {});
    }

    // One disk alone adds only its own days.
    _k4t_calendar_stream_query_ one = query(3);
    memset(one.day_info, 0, sizeof(one.day_info));
    fs1_->disk_lock(1);
    ASSERT_EQ(0, fs1_->Query_calendar(&one));
    fs1_->disk_lock(0);
    expect_marks(one, {{0, 5, 0x8, 1}, {5, 15, 0x1, 0}, {7, 15, 0x1, 0}});
}

TEST_F(CalendarTest, BadQueriesFailWithTheirMessages)
{
    std::string log = expect_result_and_log(-1, "invalid parameter", [] { return api_qzfs_query_calendar(nullptr); });
    struct Case {
        uint32_t channels;
        uint16_t record_types;
        uint8_t year;
        uint8_t month;
    };
    const Case cases[] = {
        {0, 0xFFFF, 26, 3},            // no channel
        {kAllChannels, 0, 26, 3},      // no record type
        {kAllChannels, 0xFFFF, 100, 3},
        {kAllChannels, 0xFFFF, 26, 0},
        {kAllChannels, 0xFFFF, 26, 13},
    };
    for (const Case& c : cases) {
        _k4t_calendar_stream_query_ q = query(3, c.channels, c.record_types);
        q.year = c.year;
        q.month = c.month;
        expect_result_and_log(-1, "invalid parameter", [&] { return api_qzfs_query_calendar(&q); });
        // A refused query leaves the table as it was.
        EXPECT_EQ(0xA5, q.day_info[0][0].lock);
    }

    // A group without disks: the calendar fails after clearing the table,
    // the lists fail, at the debug level of each message.
    _k4t_calendar_stream_query_ q = query(3, kAllChannels, 0xFFFF, kAllStreamTypes, 1u << 1);
    expect_result_and_log(-1, "group have not disk(0x2)", [&] { return api_qzfs_query_calendar(&q); }, 2);
    EXPECT_EQ(0, q.day_info[0][0].lock);
    log = captured_stdout([&] { EXPECT_EQ(-1, api_qzfs_query_calendar(&q)); });
    EXPECT_EQ(std::string::npos, log.find("group have not disk"));

    expect_result_and_log(-1, "group have not disk(0x6)",
                          [] { return api_qzfs_get_stream_date_num(0x6, kAllStreamTypes); }, 3);
    log = captured_stdout([] { EXPECT_EQ(-1, api_qzfs_get_stream_date_num(0x6, kAllStreamTypes)); });
    g_qzfs_debug_level = 2;
    log += captured_stdout([] { EXPECT_EQ(-1, api_qzfs_get_stream_date_info_num(0x6, kAllStreamTypes, ~0ULL)); });
    g_qzfs_debug_level = 0;
    EXPECT_EQ(std::string::npos, log.find("group have not disk"));
    expect_result_and_log(-1, "group have not disk(0x4)",
                          [] { return api_qzfs_get_stream_date_info_num(0x4, kAllStreamTypes, ~0ULL); }, 3);
    _k4t_fs_date_ dates[2] = {date(1, 1), date(1, 1)};
    EXPECT_EQ(-1, api_qzfs_get_stream_date_list(0x4, kAllStreamTypes, dates, 2));
    EXPECT_EQ(1, dates[0].day);
    _k4t_fs_record_date_info_ infos[2];
    memset(infos, 0x5A, sizeof(infos));
    EXPECT_EQ(-1, api_qzfs_get_stream_date_info(0x4, kAllStreamTypes, ~0ULL, infos, 2));
    EXPECT_EQ(0x5A, infos[0].lock);

    // Group 0 has a disk but nothing recorded yet: the query succeeds
    // with an empty table and the lists are empty.
    q = query(3);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {});
    EXPECT_EQ(0, api_qzfs_get_stream_date_num(1, kAllStreamTypes));
    EXPECT_EQ(0, api_qzfs_get_stream_date_info_num(1, kAllStreamTypes, ~0ULL));

    // Before the library is set up, all forms fail.
    api_qzfs_uinit();
    q = query(3);
    EXPECT_EQ(-1, api_qzfs_query_calendar(&q));
    EXPECT_EQ(-1, api_qzfs_get_stream_date_num(1, kAllStreamTypes));
    EXPECT_EQ(-1, api_qzfs_get_stream_date_list(1, kAllStreamTypes, dates, 2));
    EXPECT_EQ(-1, api_qzfs_get_stream_date_info_num(1, kAllStreamTypes, ~0ULL));
    EXPECT_EQ(-1, api_qzfs_get_stream_date_info(1, kAllStreamTypes, ~0ULL, infos, 2));
}

TEST_F(CalendarTest, DateListsAndInfosMergeAcrossDisksInTheOrderFound)
{
    ASSERT_NO_FATAL_FAILURE(record_both_disks());

    // Every stream type: disk 0's days in root order, then disk 1's new
    // ones; the pre-record day is absent, 03-05 and 03-15 appear once.
    const std::vector<std::string> all =
        as_text({date(3, 5), date(3, 12), date(3, 31), date(4, 2), date(3, 7), date(3, 9), date(3, 15)});
    EXPECT_EQ(int(all.size()), api_qzfs_get_stream_date_num(1, kAllStreamTypes));
    std::vector<_k4t_fs_date_> array(all.size() + 1, date(1, 1));
    EXPECT_EQ(int(all.size()), api_qzfs_get_stream_date_list(1, kAllStreamTypes, array.data(), int(array.size())));
    EXPECT_EQ(all, as_text(std::list<_k4t_fs_date_>(array.begin(), array.begin() + long(all.size()))));
    EXPECT_EQ(1, array.back().day);  // nothing behind the list's end

    // A short array gets the first dates; the count is that of the whole list.
    std::vector<_k4t_fs_date_> two(3, date(1, 1));
    EXPECT_EQ(int(all.size()), api_qzfs_get_stream_date_list(1, kAllStreamTypes, two.data(), 2));
    EXPECT_EQ(as_text({date(3, 5), date(3, 12)}),
              as_text(std::list<_k4t_fs_date_>(two.begin(), two.begin() + 2)));
    EXPECT_EQ(1, two[2].day);
    EXPECT_EQ(int(all.size()), api_qzfs_get_stream_date_list(1, kAllStreamTypes, nullptr, 0));

    // By stream type.
    std::list<_k4t_fs_date_> dates;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_record_date_list(1ULL << 1, dates));
    fs_->disk_lock(0);
    EXPECT_EQ(as_text({date(3, 12)}), as_text(dates));
    fs1_->disk_lock(1);
    ASSERT_EQ(0, fs1_->Get_record_date_list(1ULL << 1, dates));
    fs1_->disk_lock(0);
    EXPECT_EQ(as_text({date(3, 12), date(3, 15)}), as_text(dates));
    EXPECT_EQ(1, api_qzfs_get_stream_date_num(1, 1ULL << 3));
    EXPECT_EQ(0, api_qzfs_get_stream_date_num(1, 1ULL << 63));

    // Date infos: record types ORed per day over channels and disks; the
    // lock is the first entry's (03-05 is locked on disk 1 only).
    const std::vector<std::string> infos_all = {"26-3-5/13/0", "26-3-12/2/1", "26-3-31/1/0", "26-4-2/1/0",
                                                "26-3-7/1/0", "26-3-9/1/0", "26-3-15/1/0"};
    EXPECT_EQ(int(infos_all.size()), api_qzfs_get_stream_date_info_num(1, kAllStreamTypes, ~0ULL));
    std::vector<_k4t_fs_record_date_info_> infos(infos_all.size());
    EXPECT_EQ(int(infos_all.size()),
              api_qzfs_get_stream_date_info(1, kAllStreamTypes, ~0ULL, infos.data(), int(infos.size())));
    EXPECT_EQ(infos_all, as_text(std::list<_k4t_fs_record_date_info_>(infos.begin(), infos.end())));
    std::vector<_k4t_fs_record_date_info_> three(3);
    memset(three.data(), 0x5A, three.size() * sizeof(three[0]));
    EXPECT_EQ(int(infos_all.size()), api_qzfs_get_stream_date_info(1, kAllStreamTypes, ~0ULL, three.data(), 2));
    EXPECT_EQ("26-3-5/13/0", info_text(three[0]));
    EXPECT_EQ("26-3-12/2/1", info_text(three[1]));
    EXPECT_EQ(0x5A, three[2].lock);

    // By channel: a 64-bit mask reaches channel 40.
    std::list<_k4t_fs_record_date_info_> list;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_record_date_info(kAllStreamTypes, 1ULL << 40, list));
    fs_->disk_lock(0);
    EXPECT_EQ(std::vector<std::string>{"26-3-7/1/0"}, as_text(list));
    list.clear();
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_record_date_info(kAllStreamTypes, 1ULL << 0, list));
    fs_->disk_lock(0);
    fs1_->disk_lock(1);
    ASSERT_EQ(0, fs1_->Get_record_date_info(kAllStreamTypes, 1ULL << 0, list));
    fs1_->disk_lock(0);
    EXPECT_EQ((std::vector<std::string>{"26-3-5/13/0", "26-4-2/1/0"}), as_text(list));
    EXPECT_EQ(2, api_qzfs_get_stream_date_info_num(1, 1ULL << 1, ~0ULL));
    EXPECT_EQ(1, api_qzfs_get_stream_date_info_num(1, 1ULL << 1, 1ULL << 5));

    // With disk 0 out of the group only disk 1's days remain, with disk 1's
    // record types and lock.
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
    EXPECT_EQ(2, api_qzfs_get_stream_date_num(1, kAllStreamTypes));
    EXPECT_EQ(2, api_qzfs_get_stream_date_info(1, kAllStreamTypes, ~0ULL, infos.data(), int(infos.size())));
    EXPECT_EQ("26-3-5/8/1", info_text(infos[0]));
    EXPECT_EQ("26-3-15/1/0", info_text(infos[1]));
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 0));
}

TEST_F(CalendarTest, NamedStreamsHaveTheirOwnDatesAndAreListedOnce)
{
    ASSERT_NO_FATAL_FAILURE(record_both_disks());

    std::list<std::string> names;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_device_list(names));
    fs_->disk_lock(0);
    EXPECT_EQ((std::list<std::string>{"door", "gate"}), names);
    fs1_->disk_lock(1);
    ASSERT_EQ(0, fs1_->Get_device_list(names));
    fs1_->disk_lock(0);
    EXPECT_EQ((std::list<std::string>{"door", "gate"}), names);

    std::string door = "door", gate = "gate", none = "nobody";
    std::list<_k4t_fs_date_> dates;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_record_date_list(door, dates));
    fs_->disk_lock(0);
    EXPECT_EQ(as_text({date(3, 9)}), as_text(dates));
    fs1_->disk_lock(1);
    ASSERT_EQ(0, fs1_->Get_record_date_list(door, dates));
    fs1_->disk_lock(0);
    EXPECT_EQ(as_text({date(3, 9), date(3, 15)}), as_text(dates));

    dates.clear();
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_record_date_list(gate, dates));
    ASSERT_EQ(0, fs_->Get_record_date_list(none, dates));
    fs_->disk_lock(0);
    EXPECT_EQ(as_text({date(3, 31)}), as_text(dates));

    // The empty name stands for the unnamed streams, pre-record ones excepted.
    std::string unnamed;
    dates.clear();
    fs1_->disk_lock(1);
    ASSERT_EQ(0, fs1_->Get_record_date_list(unnamed, dates));
    fs1_->disk_lock(0);
    EXPECT_EQ(as_text({date(3, 5), date(3, 15)}), as_text(dates));
}

TEST_F(CalendarTest, WalksPrintEachRootAtDebugLevelThree)
{
    ASSERT_NO_FATAL_FAILURE(record(kDisk0[2]));
    std::list<_k4t_fs_date_> dates;
    g_qzfs_debug_level = 3;
    const std::string log = captured_stdout([&] {
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Get_record_date_list(kAllStreamTypes, dates));
        fs_->disk_lock(0);
        _k4t_calendar_stream_query_ q = query(3);
        EXPECT_EQ(0, api_qzfs_query_calendar(&q));
    });
    g_qzfs_debug_level = 0;
    EXPECT_NE(std::string::npos,
              log.find(", index:0, id:1, 26-3-12, chn:1, stream:1, record type:0x2, lock:1, only pre record:0"))
        << log;
    EXPECT_NE(std::string::npos,
              log.find("(channel_bitmap:ffffffff)(record_type_bitmap:ffff)(2026-03)(stream type:0xffffffffffffffff)"))
        << log;
    EXPECT_NE(std::string::npos, log.find("(hdd_id:0)(start:2026-03-12)(end:2026-03-12)")) << log;
}

}  // namespace

// The day index behind these calls is made by the first call that needs it
// and then follows every root written: a day recorded later, a day whose
// root is deleted, and that root's position taken by another day.
TEST_F(CalendarTest, AnswersFollowRootsMadeAndDeletedAfterTheFirstCall)
{
    _k4t_stream_segment_id_ gone;
    ASSERT_NO_FATAL_FAILURE(record({0, 0, 0, 3, 5, 0, 0, ""}, &gone));
    ASSERT_NO_FATAL_FAILURE(record(kDisk0[2]));  // 03-12, channel 1, locked
    EXPECT_EQ(2, api_qzfs_get_stream_date_num(1, kAllStreamTypes));
    ASSERT_NO_FATAL_FAILURE(record({4, 0, 1, 3, 20, 0, 0, ""}));
    ASSERT_EQ(0, api_qzfs_delete_stream_segment(&gone));
    // The search for a free root position starts at the freed one, as after
    // a remount.
    fs_->root_manager()->free_root_index = gone.root_index;
    _k4t_stream_segment_id_ reused;
    ASSERT_NO_FATAL_FAILURE(record({6, 0, 2, 3, 25, 0, 0, ""}, &reused));
    EXPECT_EQ(gone.root_index, reused.root_index);

    // The date list equals that of a walk of the whole root index, which is
    // what the lists do at debug level 3.
    std::list<_k4t_fs_date_> indexed, walked;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_record_date_list(kAllStreamTypes, indexed));
    g_qzfs_debug_level = 3;
    captured_stdout([&] { return fs_->Get_record_date_list(kAllStreamTypes, walked); });
    g_qzfs_debug_level = 0;
    fs_->disk_lock(0);
    EXPECT_EQ(as_text(walked), as_text(indexed));
    EXPECT_EQ(as_text({date(3, 25), date(3, 12), date(3, 20)}), as_text(indexed));

    _k4t_calendar_stream_query_ q = query(3);
    ASSERT_EQ(0, api_qzfs_query_calendar(&q));
    expect_marks(q, {{1, 12, 1u << 1, 1}, {4, 20, 1u << 1, 0}, {6, 25, 1u << 2, 0}});

    // Day queries: the deleted day is empty, the day on the reused position
    // has its segment.
    for (const auto& day : {std::make_pair(5, 0), std::make_pair(25, 1), std::make_pair(20, 1)}) {
        _k4t_stream_query_ dq = whole_day_query(26, 3, uint8_t(day.first));
        const int handle = api_qzfs_get_query_stream_segment_handle(&dq);
        ASSERT_GT(handle, 0);
        std::vector<_k4t_stream_query_result_> rows(4);
        int num = int(rows.size());
        EXPECT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows.data()));
        EXPECT_EQ(day.second, num) << "day 3-" << day.first;
        EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
    }
}
