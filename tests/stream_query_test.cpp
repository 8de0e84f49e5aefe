// Searching recordings through query handles: the filters of a free query,
// the pages of the sorted queries, handles and their errors, recordings
// still being written, several disks of a group, and the description of one
// segment with the byte range of a time range inside it.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstring>
#include <vector>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kDay1 = {26, 11, 21, 8, 0, 0, 0};
const _k4t_fs_date_time_ kDay2 = {26, 11, 22, 8, 0, 0, 0};

_k4t_fs_date_time_ at(const _k4t_fs_date_time_& day, uint8_t hour, uint8_t minute, uint8_t second)
{
    _k4t_fs_date_time_ t = day;
    t.hour = hour;
    t.minute = minute;
    t.second = second;
    return t;
}

// A query of group 0 that admits everything over the whole of `day`.
_k4t_stream_query_ whole_day(const _k4t_fs_date_time_& day, uint8_t sequence = 0,
                             uint32_t per_page = 0)
{
    _k4t_stream_query_ q = whole_day_query(day.year, day.month, day.day);
    q.sequence = sequence;
    q.item_num_per_page = per_page;
    return q;
}

bool same_id(const _k4t_stream_segment_id_& id, const _k4t_stream_query_result_& row)
{
    return id.hdd_id == row.hdd_id && id.root_index == row.root_index &&
           id.stream_segment_index == row.stream_segment_index;
}

// The segments the rows name, as "disk/root/segment" texts: failures then
// show which rows came.
std::vector<std::string> names_of(const std::vector<_k4t_stream_query_result_>& rows)
{
    std::vector<std::string> out;
    for (const auto& r : rows)
        out.push_back(std::to_string(r.hdd_id) + "/" + std::to_string(r.root_index) + "/" +
                      std::to_string(r.stream_segment_index));
    return out;
}

std::vector<std::string> names_of(std::initializer_list<_k4t_stream_segment_id_> ids)
{
    std::vector<std::string> out;
    for (const auto& id : ids)
        out.push_back(std::to_string(id.hdd_id) + "/" + std::to_string(id.root_index) + "/" +
                      std::to_string(id.stream_segment_index));
    return out;
}

// Byte offset in the segment of the I-frame written at hh:mm:ss.
uint64_t iframe_offset(const WrittenStream& w, uint8_t hour, uint8_t minute, uint8_t second)
{
    for (const auto& f : w.iframes)
        if (f.hour == hour && f.minute == minute && f.second == second)
            return f.offset - w.iframes.front().offset;
    ADD_FAILURE() << "no I-frame at that second";
    return 0;
}

uint64_t segment_len(const WrittenStream& w)
{
    return w.bytes.size() - w.iframes.front().offset;
}

struct Recorded {
    _k4t_stream_segment_id_ id;
    WrittenStream written;
};

class StreamQueryTest : public RecordingTest {
protected:
    // Records `seconds` of small frames (one I-frame a second) under the
    // creation request `para`, and closes the segment.
    Recorded record(const _qzfs_k4t_create_ss_para_& para, unsigned seconds)
    {
        Recorded r;
        FrameSource source = source_for(para);
        const int fd = create(para, &r.id);
        EXPECT_GT(fd, 0);
        record_seconds(fd, source, seconds, r.written);
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        return r;
    }
    static FrameSource source_for(const _qzfs_k4t_create_ss_para_& para)
    {
        FrameSourceConfig config;
        config.channel = para.channel;
        config.iframe_bytes = 2000;
        config.pframe_bytes = 500;
        config.start = {para.year, para.month, para.day, para.hour, para.minute, para.second, 0};
        return FrameSource(config);
    }
    static _qzfs_k4t_create_ss_para_ at_request(uint8_t channel, uint8_t stream_type,
                                                const _k4t_fs_date_time_& start,
                                                uint8_t record_type = 0)
    {
        _qzfs_k4t_create_ss_para_ para = request(channel, stream_type, start);
        para.record_type = record_type;
        return para;
    }

    // The recordings most tests search, in the order of their root nodes:
    //   A  root 0 seg 0  ch 0 stream 0 type 0  day 1 08:00:00-08:00:09
    //   B  root 1 seg 0  ch 1 stream 0 type 1  day 1 08:00:00-08:00:05 locked
    //   C  root 2 seg 0  ch 0 stream 1 type 0  day 1 08:05:00-08:05:05
    //   D  root 3 seg 0  ch 2 stream 0 type 2  day 1 09:00:00-09:00:05 flags set
    //   E  root 0 seg 1  ch 0 stream 0 type 0  day 1 08:10:00-08:10:05
    //   F  root 4 seg 0  ch 0 stream 0 type 0  day 2 08:00:00-08:00:05
    //   G  root 0 seg 2  ch 0 stream 0 type 9  day 1 08:20:00-08:20:02
    void record_the_days()
    {
        a_ = record(at_request(0, 0, kDay1), 10);
        _qzfs_k4t_create_ss_para_ b = at_request(1, 0, kDay1, 1);
        b.lock = 1;
        b.lock_type = 0x5;
        b_ = record(b, 6);
        c_ = record(at_request(0, 1, at(kDay1, 8, 5, 0)), 6);
        _qzfs_k4t_create_ss_para_ d = at_request(2, 0, at(kDay1, 9, 0, 0), 2);
        d.segment_type = 3;
        d.tv_system = 1;
        d.have_audio = 3;
        d.further_flag = 1;
        d.alarm_type = 0x123456789ULL;
        d_ = record(d, 6);
        e_ = record(at_request(0, 0, at(kDay1, 8, 10, 0)), 6);
        f_ = record(at_request(0, 0, kDay2), 6);
        g_ = record(at_request(0, 0, at(kDay1, 8, 20, 0), 9), 3);
        ASSERT_EQ(0u, e_.id.root_index);
        ASSERT_EQ(1u, e_.id.stream_segment_index);
        ASSERT_EQ(4u, f_.id.root_index);
    }

    // Every row of a free query, pulled `room` rows a call until a call
    // returns none.
    static std::vector<_k4t_stream_query_result_> free_rows(_k4t_stream_query_ q, int room = 2)
    {
        std::vector<_k4t_stream_query_result_> all;
        const int handle = api_qzfs_get_query_stream_segment_handle(&q);
        EXPECT_GT(handle, 0);
        std::vector<_k4t_stream_query_result_> rows(static_cast<size_t>(room));
        for (int call = 0; call < 100; call++) {
            int num = room;
            EXPECT_EQ(0, api_qzfs_query_stream_segment(handle, call == 0 ? K4T_QUERY_FIRST : K4T_QUERY_NEXT,
                                                       &num, rows.data()));
            if (num <= 0)
                break;
            EXPECT_LE(num, room);
            all.insert(all.end(), rows.begin(), rows.begin() + num);
        }
        EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
        return all;
    }
    // One call of a sequence query; the rows it gave.
    static std::vector<_k4t_stream_query_result_> page(int handle, _k4t_stream_query_cmd_ cmd,
                                                       int room = 8)
    {
        std::vector<_k4t_stream_query_result_> rows(8);
        int num = room;
        EXPECT_EQ(0, api_qzfs_query_stream_segment(handle, cmd, &num, rows.data()));
        rows.resize(size_t(num < 0 ? 0 : num));
        return rows;
    }
    static std::vector<_k4t_stream_query_result_> jump(int handle, int number)
    {
        std::vector<_k4t_stream_query_result_> rows(8);
        int num = 8;
        EXPECT_EQ(0, api_qzfs_jump_specific_page(handle, number, &num, rows.data()));
        rows.resize(size_t(num < 0 ? 0 : num));
        return rows;
    }

    Recorded a_, b_, c_, d_, e_, f_, g_;
};

// ---------------------------------------------------------------------------
// Filters of a free query
// ---------------------------------------------------------------------------

TEST_F(StreamQueryTest, EachFilterAdmitsExactlyItsSegments)
{
    record_the_days();
    const _k4t_stream_query_ all = whole_day(kDay1);
    // Disk order, root order, segment order; G's record type 9 is beyond
    // the 8 bits of the filter.
    EXPECT_EQ(names_of({a_.id, e_.id, b_.id, c_.id, d_.id}), names_of(free_rows(all)));

    _k4t_stream_query_ q = all;
    q.channel_bitmap = 1;
    EXPECT_EQ(names_of({a_.id, e_.id, c_.id}), names_of(free_rows(q)));
    q.channel_bitmap = 1u << 2;
    EXPECT_EQ(names_of({d_.id}), names_of(free_rows(q)));
    q.channel_bitmap = 1u << 3;
    EXPECT_TRUE(free_rows(q).empty());

    q = all;
    q.stream_type_bitmap = 2;
    EXPECT_EQ(names_of({c_.id}), names_of(free_rows(q)));
    q.stream_type_bitmap = 1;
    EXPECT_EQ(names_of({a_.id, e_.id, b_.id, d_.id}), names_of(free_rows(q)));

    q = all;
    q.record_type_bitmap = 1;
    EXPECT_EQ(names_of({a_.id, e_.id, c_.id}), names_of(free_rows(q)));
    q.record_type_bitmap = 2;
    EXPECT_EQ(names_of({b_.id}), names_of(free_rows(q)));
    q.record_type_bitmap = 4 | 2;
    EXPECT_EQ(names_of({b_.id, d_.id}), names_of(free_rows(q)));

    q = all;
    q.lock_bitmap = 2;
    EXPECT_EQ(names_of({b_.id}), names_of(free_rows(q)));
    q.lock_bitmap = 1;
    EXPECT_EQ(names_of({a_.id, e_.id, c_.id, d_.id}), names_of(free_rows(q)));
    q.lock_bitmap = 0;
    EXPECT_TRUE(free_rows(q).empty());

    // Time ranges: E touches 08:05:00-08:10:00 at its first second only.
    q = all;
    q.start_hour = 8, q.start_minute = 5, q.start_second = 0;
    q.end_hour = 8, q.end_minute = 10, q.end_second = 0;
    std::vector<_k4t_stream_query_result_> rows = free_rows(q);
    ASSERT_EQ(names_of({e_.id, c_.id}), names_of(rows));
    EXPECT_EQ(8, rows[0].start_hour);
    EXPECT_EQ(10, rows[0].start_minute);
    EXPECT_EQ(0, rows[0].start_second);
    EXPECT_EQ(10, rows[0].end_minute);
    EXPECT_EQ(0, rows[0].end_second);
    q.start_hour = 8, q.start_minute = 0, q.start_second = 10;
    q.end_hour = 8, q.end_minute = 4, q.end_second = 59;
    EXPECT_TRUE(free_rows(q).empty());

    // Other days: the second day holds F; a day outside the disk's record
    // dates holds nothing.
    EXPECT_EQ(names_of({f_.id}), names_of(free_rows(whole_day(kDay2))));
    EXPECT_TRUE(free_rows(whole_day({26, 11, 23, 0, 0, 0, 0})).empty());
    EXPECT_TRUE(free_rows(whole_day({26, 10, 21, 0, 0, 0, 0})).empty());
}

TEST_F(StreamQueryTest, FreeRowsCarryTheSegmentAndTheBytesOfTheirCut)
{
    record_the_days();
    std::vector<_k4t_stream_query_result_> rows = free_rows(whole_day(kDay1), 8);
    ASSERT_EQ(5u, rows.size());
    const _k4t_stream_query_result_& a = rows[0];
    EXPECT_EQ(0, a.channel);
    EXPECT_EQ(0, a.stream_type);
    EXPECT_EQ(8, a.start_hour);
    EXPECT_EQ(0, a.start_minute);
    EXPECT_EQ(0, a.start_second);
    EXPECT_EQ(0, a.end_minute);
    EXPECT_EQ(9, a.end_second);
    EXPECT_EQ(segment_len(a_.written), a.len);
    const _k4t_stream_query_result_& b = rows[2];
    EXPECT_EQ(1, b.channel);
    EXPECT_EQ(1, b.record_type);
    EXPECT_EQ(1, b.lock);
    EXPECT_EQ(0x5u, b.lock_type);
    const _k4t_stream_query_result_& d = rows[4];
    EXPECT_EQ(2, d.channel);
    EXPECT_EQ(2, d.record_type);
    EXPECT_EQ(3, d.segment_type);
    EXPECT_EQ(1, d.tv_system);
    EXPECT_EQ(3, d.have_audio);
    EXPECT_EQ(1, d.further_flag);
    EXPECT_EQ(0x123456789ULL, d.alarm_type);
    EXPECT_EQ(segment_len(d_.written), d.len);

    // Cut on both sides: from the I-frame of the start second to the first
    // I-frame after the end second.
    _k4t_stream_query_ q = whole_day(kDay1);
    q.channel_bitmap = 1;
    q.stream_type_bitmap = 1;
    q.start_hour = 8, q.start_minute = 0, q.start_second = 3;
    q.end_hour = 8, q.end_minute = 0, q.end_second = 5;
    rows = free_rows(q);
    ASSERT_EQ(names_of({a_.id}), names_of(rows));
    EXPECT_EQ(3, rows[0].start_second);
    EXPECT_EQ(5, rows[0].end_second);
    EXPECT_EQ(iframe_offset(a_.written, 8, 0, 6) - iframe_offset(a_.written, 8, 0, 3), rows[0].len);

    // Cut at the start only: to the end of the segment's data.
    q.end_second = 30;
    rows = free_rows(q);
    ASSERT_EQ(names_of({a_.id}), names_of(rows));
    EXPECT_EQ(9, rows[0].end_second);
    EXPECT_EQ(segment_len(a_.written) - iframe_offset(a_.written, 8, 0, 3), rows[0].len);
}

TEST_F(StreamQueryTest, AFreeQueryGoesOnWhereItStopped)
{
    record_the_days();
    _k4t_stream_query_ q = whole_day(kDay1);
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    _k4t_stream_query_result_ rows[5];
    // Five hits in calls of two: 2, 2, 1, then nothing.
    std::vector<_k4t_stream_query_result_> got;
    const int expected_counts[] = {2, 2, 1, 0, 0};
    for (int call = 0; call < 5; call++) {
        int num = 2;
        ASSERT_EQ(0, api_qzfs_query_stream_segment(handle, call == 0 ? K4T_QUERY_FIRST : K4T_QUERY_NEXT,
                                                   &num, rows));
        EXPECT_EQ(expected_counts[call], num) << "call " << call;
        got.insert(got.end(), rows, rows + num);
    }
    EXPECT_EQ(names_of({a_.id, e_.id, b_.id, c_.id, d_.id}), names_of(got));
    EXPECT_EQ(1, gQzfsManager.m_query_handle_map[handle].find_over);

    // Filling exactly on the last hit: full, then nothing, and the end is
    // remembered.
    int num = 5;
    ASSERT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows));
    EXPECT_EQ(5, num);
    EXPECT_EQ(0, gQzfsManager.m_query_handle_map[handle].find_over);
    num = 5;
    expect_result_and_log(0, "Query_stream_segment_free find over", [&] {
        int first = api_qzfs_query_stream_segment(handle, K4T_QUERY_NEXT, &num, rows);
        EXPECT_EQ(0, num);
        num = 5;
        return first + api_qzfs_query_stream_segment(handle, K4T_QUERY_NEXT, &num, rows);
    }, 3);
    EXPECT_EQ(0, num);

    // "Last", "previous" and unknown commands do not exist here: they go on
    // as "next".
    num = 1;
    ASSERT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows));
    EXPECT_TRUE(same_id(a_.id, rows[0]));
    num = 1;
    expect_result_and_log(0, "NOT SUPPORT CMD(1)", [&] {
        return api_qzfs_query_stream_segment(handle, K4T_QUERY_LAST, &num, rows);
    });
    EXPECT_TRUE(same_id(e_.id, rows[0]));
    num = 1;
    expect_result_and_log(0, "NOT SUPPORT CMD(7)", [&] {
        return api_qzfs_query_stream_segment(handle, _k4t_stream_query_cmd_(7), &num, rows);
    });
    EXPECT_TRUE(same_id(b_.id, rows[0]));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // A group without disks.
    q.group_bitmap = 2;
    const int other = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(other, 0);
    num = 2;
    expect_result_and_log(-1, "group have not disk(0x2)", [&] {
        return api_qzfs_query_stream_segment(other, K4T_QUERY_FIRST, &num, rows);
    }, 3);
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(other));
}

// ---------------------------------------------------------------------------
// Sequence queries and their pages
// ---------------------------------------------------------------------------

TEST_F(StreamQueryTest, SequenceQueriesSortAndPage)
{
    record_the_days();
    // Ascending: A and B start together, channel 0 first.
    _k4t_stream_query_ q = whole_day(kDay1, 1, 2);
    int handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(3, api_qzfs_get_total_page_num(handle));
    EXPECT_EQ(names_of({a_.id, b_.id}), names_of(page(handle, K4T_QUERY_FIRST)));
    EXPECT_EQ(names_of({c_.id, e_.id}), names_of(page(handle, K4T_QUERY_NEXT)));
    EXPECT_EQ(names_of({d_.id}), names_of(page(handle, K4T_QUERY_NEXT)));
    expect_result_and_log(0, "THE LAST PAGE OVER(5)(5)", [&] {
        return int(page(handle, K4T_QUERY_NEXT).size());
    }, 3);
    EXPECT_EQ(names_of({c_.id, e_.id}), names_of(page(handle, K4T_QUERY_PREV)));
    EXPECT_EQ(names_of({a_.id, b_.id}), names_of(page(handle, K4T_QUERY_PREV)));
    // Previous from the first page wraps to the last.
    EXPECT_EQ(names_of({d_.id}), names_of(page(handle, K4T_QUERY_PREV)));
    EXPECT_EQ(names_of({d_.id}), names_of(page(handle, K4T_QUERY_LAST)));
    EXPECT_EQ(names_of({c_.id, e_.id}), names_of(jump(handle, 1)));
    EXPECT_EQ(names_of({d_.id}), names_of(page(handle, K4T_QUERY_NEXT)));
    EXPECT_EQ(names_of({a_.id, b_.id}), names_of(jump(handle, 0)));
    // A command past "previous" hands out the rows from where it stands.
    EXPECT_EQ(names_of({c_.id, e_.id}), names_of(page(handle, _k4t_stream_query_cmd_(9))));
    // A page whatever the room said: the buffer must hold one.
    EXPECT_EQ(names_of({a_.id, b_.id}), names_of(page(handle, K4T_QUERY_FIRST, 1)));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // Sequence 2 wraps from the last page to the first on "next".
    q.sequence = 2;
    handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(names_of({d_.id}), names_of(page(handle, K4T_QUERY_LAST)));
    expect_result_and_log(2, "THE LAST PAGE(5)(5)", [&] {
        std::vector<_k4t_stream_query_result_> rows = page(handle, K4T_QUERY_NEXT);
        EXPECT_EQ(names_of({a_.id, b_.id}), names_of(rows));
        return int(rows.size());
    }, 3);
    EXPECT_EQ(names_of({d_.id}), names_of(page(handle, K4T_QUERY_PREV)));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // Descending, 3 and 4 alike; equal starts still by channel ascending.
    for (uint8_t sequence : {3, 4}) {
        q.sequence = sequence;
        q.item_num_per_page = 3;
        handle = api_qzfs_get_query_stream_segment_handle(&q);
        ASSERT_GT(handle, 0);
        EXPECT_EQ(2, api_qzfs_get_total_page_num(handle));
        EXPECT_EQ(names_of({d_.id, e_.id, c_.id}), names_of(page(handle, K4T_QUERY_FIRST)));
        EXPECT_EQ(names_of({a_.id, b_.id}), names_of(page(handle, K4T_QUERY_NEXT)));
        EXPECT_TRUE(page(handle, K4T_QUERY_NEXT).empty());
        EXPECT_EQ(names_of({d_.id, e_.id, c_.id}), names_of(page(handle, K4T_QUERY_PREV)));
        EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
    }
}

TEST_F(StreamQueryTest, SequenceRowsKeepWholeSegmentsAndTheListStands)
{
    record_the_days();
    // A range that cuts A: the row still shows the whole segment.
    _k4t_stream_query_ q = whole_day(kDay1, 1, 10);
    q.channel_bitmap = 1;
    q.stream_type_bitmap = 1;
    q.start_hour = 8, q.start_minute = 0, q.start_second = 3;
    q.end_hour = 8, q.end_minute = 0, q.end_second = 5;
    int handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    std::vector<_k4t_stream_query_result_> rows = page(handle, K4T_QUERY_FIRST);
    ASSERT_EQ(names_of({a_.id}), names_of(rows));
    EXPECT_EQ(0, rows[0].start_second);
    EXPECT_EQ(9, rows[0].end_second);
    EXPECT_EQ(segment_len(a_.written), rows[0].len);
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // A recording made after the list was built does not enter it; a new
    // handle sees it.
    q = whole_day(kDay1, 1, 10);
    handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(5u, page(handle, K4T_QUERY_FIRST).size());
    const Recorded late = record(at_request(3, 0, at(kDay1, 7, 0, 0)), 2);
    EXPECT_EQ(5u, page(handle, K4T_QUERY_FIRST).size());
    EXPECT_EQ(1, api_qzfs_get_total_page_num(handle));
    const int fresh = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(fresh, 0);
    rows = page(fresh, K4T_QUERY_FIRST);
    ASSERT_EQ(6u, rows.size());
    EXPECT_TRUE(same_id(late.id, rows[0]));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(fresh));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // An empty list has no pages at all.
    q = whole_day({26, 11, 23, 0, 0, 0, 0}, 1, 4);
    handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(0, api_qzfs_get_total_page_num(handle));
    EXPECT_TRUE(page(handle, K4T_QUERY_FIRST).empty());
    EXPECT_TRUE(page(handle, K4T_QUERY_LAST).empty());
    _k4t_stream_query_result_ row[4];
    int num = 4;
    expect_result_and_log(-1, "page num is invalid(page num:0, total page num:0)!", [&] {
        return api_qzfs_jump_specific_page(handle, 0, &num, row);
    });
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
}

// ---------------------------------------------------------------------------
// Handles and bad requests
// ---------------------------------------------------------------------------

TEST_F(StreamQueryTest, HandlesAreCheckedReleasedAndReused)
{
    expect_result_and_log(-1, "invalid parameter", [] {
        return api_qzfs_get_query_stream_segment_handle(nullptr);
    });
    _k4t_stream_query_ q = whole_day(kDay1, 1, 0);
    expect_result_and_log(-1, "invalid parameter(pSq->item_num_per_page == 0)", [&] {
        return api_qzfs_get_query_stream_segment_handle(&q);
    });
    q.item_num_per_page = 2;
    q.sequence = 5;
    expect_result_and_log(-1, "invalid parameter(5)", [&] {
        return api_qzfs_get_query_stream_segment_handle(&q);
    });
    // A free query needs no page size.
    _k4t_stream_query_ free_q = whole_day(kDay1);

    // The smallest free handle comes back.
    const int h1 = api_qzfs_get_query_stream_segment_handle(&free_q);
    const int h2 = api_qzfs_get_query_stream_segment_handle(&free_q);
    const int h3 = api_qzfs_get_query_stream_segment_handle(&free_q);
    ASSERT_GT(h1, 0);
    EXPECT_EQ(h1 + 1, h2);
    EXPECT_EQ(h2 + 1, h3);
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(h2));
    EXPECT_EQ(h2, api_qzfs_get_query_stream_segment_handle(&free_q));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(h2));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(h2)) << "an unknown handle is ignored";
    expect_result_and_log(0, "START(12345)", [] {
        return api_qzfs_close_query_stream_segment_handle(12345);
    }, 3);

    // Bad calls of the row query.
    _k4t_stream_query_result_ rows[4];
    int num = 4;
    expect_result_and_log(-1, "invalid parameter", [&] {
        return api_qzfs_query_stream_segment(-1, K4T_QUERY_FIRST, &num, rows);
    });
    expect_result_and_log(-1, "invalid parameter", [&] {
        return api_qzfs_query_stream_segment(h1, K4T_QUERY_FIRST, nullptr, rows);
    });
    expect_result_and_log(-1, "invalid parameter", [&] {
        return api_qzfs_query_stream_segment(h1, K4T_QUERY_FIRST, &num, nullptr);
    });
    num = 0;
    expect_result_and_log(-1, "invalid parameter", [&] {
        return api_qzfs_query_stream_segment(h1, K4T_QUERY_FIRST, &num, rows);
    });
    num = 4;
    expect_result_and_log(-1, "invalid stream segment query handle(" + std::to_string(h2) + ")", [&] {
        return api_qzfs_query_stream_segment(h2, K4T_QUERY_FIRST, &num, rows);
    });

    // Pages belong to sequence queries only.
    expect_result_and_log(-1, "_K4T_NO_SEQUECE_ no support get total page num!", [&] {
        return api_qzfs_get_total_page_num(h1);
    });
    expect_result_and_log(-1, "_K4T_NO_SEQUECE_ no support get total page num!", [&] {
        return api_qzfs_jump_specific_page(h1, 0, &num, rows);
    });
    expect_result_and_log(-1, "invalid parameter", [] { return api_qzfs_get_total_page_num(-3); });
    expect_result_and_log(-1, "invalid stream segment query handle(" + std::to_string(h2) + ")",
                          [&] { return api_qzfs_get_total_page_num(h2); });
    expect_result_and_log(-1, "invalid stream segment query handle(" + std::to_string(h2) + ")",
                          [&] { return api_qzfs_jump_specific_page(h2, 0, &num, rows); });
    expect_result_and_log(-1, "invalid parameter", [&] {
        return api_qzfs_jump_specific_page(h1, 0, nullptr, rows);
    });

    // A sorting kind the handle call would have refused.
    gQzfsManager.m_query_handle_map[h3].query.sequence = 9;
    num = 4;
    EXPECT_EQ(-1, api_qzfs_query_stream_segment(h3, K4T_QUERY_FIRST, &num, rows));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(h1));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(h3));
    EXPECT_EQ(0u, gQzfsManager.m_query_handle_map.count(h1));
    EXPECT_EQ(0u, gQzfsManager.m_query_handle_map.count(h3));
}

TEST_F(StreamQueryTest, BadPagesAreRefused)
{
    record_the_days();
    _k4t_stream_query_ q = whole_day(kDay1, 1, 2);
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    _k4t_stream_query_result_ rows[4];
    int num = 4;
    for (int bad : {3, 4, -1}) {
        expect_result_and_log(-1, "page num is invalid(page num:" + std::to_string(bad) +
                                      ", total page num:3)!",
                              [&] { return api_qzfs_jump_specific_page(handle, bad, &num, rows); });
    }
    EXPECT_EQ(names_of({d_.id}), names_of(jump(handle, 2)));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
}

// ---------------------------------------------------------------------------
// Recordings being written, and several disks
// ---------------------------------------------------------------------------

TEST_F(StreamQueryTest, ALiveRecordingIsListedWithItsMemoryNode)
{
    const Recorded closed = record(at_request(0, 0, kDay1), 3);
    _qzfs_k4t_create_ss_para_ para = at_request(1, 0, at(kDay1, 8, 30, 0));
    _k4t_stream_segment_id_ live_id;
    const int fd = create(para, &live_id);
    ASSERT_GT(fd, 0);
    // No I-frame yet: left out.
    EXPECT_EQ(names_of({closed.id}), names_of(free_rows(whole_day(kDay1))));

    FrameSource source = source_for(para);
    WrittenStream written;
    record_seconds(fd, source, 4, written);
    std::vector<_k4t_stream_query_result_> rows = free_rows(whole_day(kDay1));
    ASSERT_EQ(names_of({closed.id, live_id}), names_of(rows));
    _stream_segment_index_node_dev_ live;
    writer_node_snapshot(open_record(fd), &live);
    EXPECT_EQ(3, rows[1].end_second);
    EXPECT_EQ(30, rows[1].end_minute);
    EXPECT_EQ(live.len_in_bytes, rows[1].len);
    EXPECT_GT(rows[1].len, 0u);
    // The disk still says "unknown end".
    _stream_segment_index_node_men_ on_disk;
    ASSERT_EQ(0, fs_->Get_stream_segment_index_mem_node(live_id.root_index,
                                                        live_id.stream_segment_index, &on_disk));
    EXPECT_EQ(QZFS_INVALID_END_HOUR, on_disk.end_hour);

    // Sorted, it comes after the closed one.
    _k4t_stream_query_ q = whole_day(kDay1, 1, 4);
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    rows = page(handle, K4T_QUERY_FIRST);
    ASSERT_EQ(names_of({closed.id, live_id}), names_of(rows));
    EXPECT_EQ(live.len_in_bytes, rows[1].len);
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // Its description comes from the writer; the lock byte stays untouched.
    _k4t_stream_segment_info_ info;
    memset(&info, 0xEE, sizeof(info));
    ASSERT_EQ(0, api_qzfs_get_stream_segment_info(&live_id, &info));
    EXPECT_EQ(26, info.year);
    EXPECT_EQ(1, info.channel);
    EXPECT_EQ(30, info.start_time.minute);
    EXPECT_EQ(3, info.end_time.second);
    EXPECT_EQ(live.len_in_bytes, info.len);
    EXPECT_EQ(0xEE, info.lock);

    // Byte ranges of the live segment, over the part of its log on disk.
    unsigned long long offset = 0, len = 0;
    _k4t_fs_time_ start = {8, 30, 1}, end = {8, 30, 1};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&live_id, &start, &end, &offset, &len));
    EXPECT_EQ(iframe_offset(written, 8, 30, 1), offset);
    EXPECT_EQ(iframe_offset(written, 8, 30, 2) - offset, len);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamQueryTest, EqualStartsGoByChannelThenByTheOrderOfTheScan)
{
    // Scan order: X (root 0), V (root 0), Y (root 1), W (root 2).
    const Recorded x = record(at_request(0, 0, kDay1), 2);
    const Recorded y = record(at_request(0, 1, kDay1), 2);
    const Recorded w = record(at_request(1, 0, kDay1), 2);
    const Recorded v = record(at_request(0, 0, at(kDay1, 8, 1, 0)), 2);
    EXPECT_EQ(names_of({x.id, v.id, y.id, w.id}), names_of(free_rows(whole_day(kDay1))));
    _k4t_stream_query_ q = whole_day(kDay1, 1, 8);
    int handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(names_of({x.id, y.id, w.id, v.id}), names_of(page(handle, K4T_QUERY_FIRST)));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
    q.sequence = 3;
    handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(names_of({v.id, x.id, y.id, w.id}), names_of(page(handle, K4T_QUERY_FIRST)));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    // The progress lines of a row query.
    q.sequence = 0;
    handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    _k4t_stream_query_result_ rows[3];
    int num = 3;
    const std::string out = expect_result_and_log(0, "START(handle:" + std::to_string(handle) + ")(get_num:3)", [&] {
        return api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows);
    }, 4);
    EXPECT_NE(std::string::npos,
              out.find("END(handle:" + std::to_string(handle) + ")(get_num:3)(ret_val:0)"));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
}

TEST_F(StreamQueryTest, DataInfoOfASegmentOpenForReading)
{
    const Recorded a = record(at_request(0, 0, kDay1), 6);
    _k4t_stream_segment_id_ id = a.id;
    const int reader = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    ASSERT_GT(reader, 0);
    unsigned long long offset = 0, len = 0;
    _k4t_fs_time_ start = {8, 0, 1}, end = {8, 0, 3};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&id, &start, &end, &offset, &len));
    EXPECT_EQ(iframe_offset(a.written, 8, 0, 1), offset);
    EXPECT_EQ(iframe_offset(a.written, 8, 0, 4) - offset, len);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
}

TEST_F(StreamQueryTest, TheQueryRunsOverEveryDiskOfTheGroup)
{
    // Disk 0 holds 08:00 and 09:00; disk 1, recorded while alone in the
    // group, 08:30.
    const Recorded first = record(at_request(0, 0, kDay1), 3);
    const Recorded third = record(at_request(0, 0, at(kDay1, 9, 0, 0)), 3);
    const std::string second_image = scratch_.path("second.img");
    make_sparse_image(second_image, 3 * GiB);
    std::string dev = second_image;
    ASSERT_EQ(0, api_qzfs_fast_format(1, &dev[0]));
    ASSERT_EQ(0, api_qzfs_mount(1, &dev[0]));
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, 0));
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 0));
    unsigned char hdd = 255;
    ASSERT_EQ(0, api_qzfs_find_work_hdd(0, &hdd));
    ASSERT_EQ(1, hdd);
    const Recorded second = record(at_request(0, 0, at(kDay1, 8, 30, 0)), 3);
    ASSERT_EQ(1, second.id.hdd_id);
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 0));

    // Free: disk by disk, and across disks in calls of one row.
    EXPECT_EQ(names_of({first.id, third.id, second.id}), names_of(free_rows(whole_day(kDay1), 1)));
    EXPECT_EQ(names_of({first.id, third.id, second.id}), names_of(free_rows(whole_day(kDay1), 2)));
    // Sorted: one list over both.
    _k4t_stream_query_ q = whole_day(kDay1, 1, 2);
    const int handle = api_qzfs_get_query_stream_segment_handle(&q);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(2, api_qzfs_get_total_page_num(handle));
    EXPECT_EQ(names_of({first.id, second.id}), names_of(page(handle, K4T_QUERY_FIRST)));
    EXPECT_EQ(names_of({third.id}), names_of(page(handle, K4T_QUERY_NEXT)));
    EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));

    _k4t_stream_segment_info_ info;
    _k4t_stream_segment_id_ on_second = second.id;
    ASSERT_EQ(0, api_qzfs_get_stream_segment_info(&on_second, &info));
    EXPECT_EQ(30, info.start_time.minute);
    EXPECT_EQ(segment_len(second.written), info.len);

    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(1, 0));
    ASSERT_EQ(0, api_qzfs_umount(1));
}

// ---------------------------------------------------------------------------
// One segment's description and byte ranges
// ---------------------------------------------------------------------------

TEST_F(StreamQueryTest, SegmentInfoDescribesAClosedSegment)
{
    record_the_days();
    _k4t_stream_segment_info_ info;
    ASSERT_EQ(0, api_qzfs_get_stream_segment_info(&d_.id, &info));
    EXPECT_EQ(26, info.year);
    EXPECT_EQ(11, info.month);
    EXPECT_EQ(21, info.day);
    EXPECT_EQ(9, info.start_time.hour);
    EXPECT_EQ(0, info.start_time.minute);
    EXPECT_EQ(0, info.start_time.second);
    EXPECT_EQ(9, info.end_time.hour);
    EXPECT_EQ(5, info.end_time.second);
    EXPECT_EQ(0, info.dst);
    EXPECT_EQ(2, info.channel);
    EXPECT_EQ(3, info.segment_type);
    EXPECT_EQ(2, info.record_type);
    EXPECT_EQ(3, info.have_audio);
    EXPECT_EQ(1, info.tv_system);
    EXPECT_EQ(0, info.lock);
    EXPECT_EQ(1, info.further_flag);
    EXPECT_EQ(segment_len(d_.written), info.len);
    ASSERT_EQ(0, api_qzfs_get_stream_segment_info(&b_.id, &info));
    EXPECT_EQ(1, info.lock);
    EXPECT_EQ(0, info.have_audio);
    ASSERT_EQ(0, api_qzfs_get_stream_segment_info(&f_.id, &info));
    EXPECT_EQ(22, info.day);

    _k4t_stream_segment_id_ bad = {5, 0, 0};
    expect_result_and_log(-1, "gQzfsManager.get_file_system failed(pOss->hdd_id:5)", [&] {
        return api_qzfs_get_stream_segment_info(&bad, &info);
    });
    bad = {0, 0, 40};
    expect_result_and_log(-1, "Get_stream_segment_index_mem_node FAILED(ff)", [&] {
        return api_qzfs_get_stream_segment_info(&bad, &info);
    });
    bad = {0, 90, 0};
    expect_result_and_log(-1, "Get_root_index_mem_node FAILED", [&] {
        return api_qzfs_get_stream_segment_info(&bad, &info);
    });
}

TEST_F(StreamQueryTest, DataInfoGivesTheBytesOfATimeRange)
{
    record_the_days();
    unsigned long long offset = 99, len = 99;
    _k4t_fs_time_ start = {8, 0, 0}, end = {8, 0, 9};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len));
    EXPECT_EQ(0u, offset);
    EXPECT_EQ(segment_len(a_.written), len);

    start = {8, 0, 2};
    end = {8, 0, 4};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len));
    EXPECT_EQ(iframe_offset(a_.written, 8, 0, 2), offset);
    EXPECT_EQ(iframe_offset(a_.written, 8, 0, 5) - offset, len);

    // From the first second, past the end: the whole segment.
    start = {8, 0, 0};
    end = {8, 0, 40};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len));
    EXPECT_EQ(0u, offset);
    EXPECT_EQ(segment_len(a_.written), len);
    // The last second alone: from its I-frame to the end of the data.
    start = {8, 0, 9};
    end = {8, 0, 9};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len));
    EXPECT_EQ(iframe_offset(a_.written, 8, 0, 9), offset);
    EXPECT_EQ(segment_len(a_.written) - offset, len);
    // E shares A's I-frame log: its range stays inside E.
    start = {8, 10, 1};
    end = {8, 10, 1};
    ASSERT_EQ(0, api_qzfs_get_stream_segment_data_info(&e_.id, &start, &end, &offset, &len));
    EXPECT_EQ(iframe_offset(e_.written, 8, 10, 1), offset);
    EXPECT_EQ(iframe_offset(e_.written, 8, 10, 2) - offset, len);

    // Refusals.
    start = {8, 0, 5};
    end = {8, 0, 4};
    expect_result_and_log(-1, "invalid time(START:08:00:05)(END:08:00:04)", [&] {
        return api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len);
    }, 3);
    start = {7, 59, 59};
    end = {8, 0, 4};
    expect_result_and_log(-1, "OUT OF STREAM SEGMENT(07:59:59)(08:00:04)", [&] {
        return api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len);
    }, 3);
    start = {8, 0, 1};
    end = {8, 0, 12};
    expect_result_and_log(-1, "OUT OF STREAM SEGMENT(08:00:01)(08:00:12)", [&] {
        return api_qzfs_get_stream_segment_data_info(&a_.id, &start, &end, &offset, &len);
    }, 3);
    _k4t_stream_segment_id_ bad = {5, 0, 0};
    expect_result_and_log(-1, "NO HDD:5", [&] {
        return api_qzfs_get_stream_segment_data_info(&bad, &start, &end, &offset, &len);
    });
    bad = {0, 0, 40};
    start = {8, 0, 1};
    end = {8, 0, 2};
    expect_result_and_log(-1, "(IS_NORMAL_SSIN(ssinm.id) == 0)(0)(40)(ff)", [&] {
        return api_qzfs_get_stream_segment_data_info(&bad, &start, &end, &offset, &len);
    });
}

}  // namespace
