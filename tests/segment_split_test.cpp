// Changing recordings by the clock on recorded images: a segment split into
// up to three pieces by a time range, a stretch deleted from inside a
// segment, a segment's end moved back, deletes over days, channels and
// stream types, the sweep by date, locks and record types over a range and
// on a writer's descriptor, and the pre-recording's hand-over. Every piece must start at an I-frame
// and read back byte-identical to the stretch of the old segment it covers,
// before and after a remount, with the disk checks of the power-cut rig
// clean.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

const unsigned kEndOfDay = 86399;

_k4t_fs_time_ clock_at(unsigned second_of_day)
{
    _k4t_fs_time_ t = {uint8_t(second_of_day / 3600), uint8_t(second_of_day / 60 % 60),
                       uint8_t(second_of_day % 60)};
    return t;
}

struct Recorded {
    _k4t_stream_segment_id_ id;
    WrittenStream written;
    unsigned start = 0;  // second of the day
};

// A live piece of a root: its place and node.
struct Piece {
    _k4t_stream_segment_id_ id;
    _stream_segment_index_node_men_ node;
};

class SplitByTime : public RecordingTest {
protected:
    void SetUp() override
    {
        RecordingTest::SetUp();
        g_qzfs_debug_level = 0;
    }

    // Big frames, so that a minute of recording spans several data blocks
    // and cuts fall inside blocks.
    FrameSource source_for(uint8_t channel, uint8_t day = 21, unsigned gop = 25)
    {
        FrameSourceConfig config;
        config.channel = channel;
        config.gop = gop;
        config.iframe_bytes = 200 * 1024;
        config.pframe_bytes = 90 * 1024;
        config.start.day = day;
        return FrameSource(config);
    }

    Recorded record(FrameSource& source, unsigned seconds, uint8_t stream_type = 0)
    {
        Recorded r;
        r.start = source.next_second_of_day();
        _k4t_fs_date_time_ start = source.config().start;
        const _k4t_fs_time_ t = clock_at(r.start);
        start.hour = t.hour;
        start.minute = t.minute;
        start.second = t.second;
        const int fd = create(request(source.config().channel, stream_type, start), &r.id);
        EXPECT_GT(fd, 0);
        record_seconds(fd, source, seconds, r.written);
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
        return r;
    }

    // The live normal segments of a root, in time order.
    std::vector<Piece> pieces_of(uint32_t root)
    {
        std::vector<Piece> out;
        DiskLockGuard disk(*fs_);
        for (uint32_t i = 0;; i++) {
            Piece p;
            p.id = {0, root, i};
            if (fs_->Get_stream_segment_index_mem_node(root, i, &p.node) != 0 ||
                p.node.id == END_STREAM_SEGMENT_INDEX)
                break;
            if (IS_NORMAL_SSIN(p.node.id))
                out.push_back(p);
        }
        std::sort(out.begin(), out.end(), [](const Piece& a, const Piece& b) {
            return a.node.start_iframe < b.node.start_iframe;
        });
        return out;
    }

    // Seconds from the segment's start; a range past the day's end stops there.
    int split(const Recorded& r, unsigned from, unsigned to, unsigned char record_type)
    {
        DiskLockGuard disk(*fs_);
        return fs_->split_stream_segment_by_time(
            r.id.root_index, r.id.stream_segment_index, clock_at(r.start + from),
            clock_at(std::min(r.start + to, kEndOfDay)), 2, 0, 0, record_type, 0x10);
    }

    int delete_range(const Recorded& r, unsigned from, unsigned to)
    {
        DiskLockGuard disk(*fs_);
        return fs_->delete_stream_segment_time_range(r.id.root_index, r.id.stream_segment_index,
                                                     clock_at(from), clock_at(to));
    }

    // The pieces of the root, read through readers, in time order; each one
    // must begin at one of the written I-frames. `offsets` gets where each
    // piece starts in what a reader of the old segment returned.
    std::vector<std::vector<uint8_t>> read_pieces(const Recorded& r,
                                                  std::vector<size_t>* offsets = nullptr)
    {
        const std::vector<uint8_t> whole = from_first_iframe(r.written);
        const size_t head = r.written.bytes.size() - whole.size();
        std::vector<std::vector<uint8_t>> out;
        for (const Piece& p : pieces_of(r.id.root_index)) {
            out.push_back(read_through_reader(p.id));
            const std::vector<uint8_t>& got = out.back();
            auto at = std::search(whole.begin(), whole.end(), got.begin(), got.end());
            EXPECT_TRUE(!got.empty() && at != whole.end()) << "a piece is a stretch of the old one";
            const size_t offset = size_t(at - whole.begin());
            bool at_iframe = false;
            for (const _k4t_video_frame_info_& f : r.written.iframes)
                at_iframe = at_iframe || f.offset == offset + head;
            EXPECT_TRUE(at_iframe) << "a piece starts at byte " << offset << ", not an I-frame";
            if (offsets != nullptr)
                offsets->push_back(offset);
        }
        return out;
    }

    void expect_disk_sound(const std::string& what)
    {
        for (const std::string& failure : disk_check_failures(fs_, image_))
            ADD_FAILURE() << what << ": " << failure;
    }
};

std::vector<uint8_t> joined(const std::vector<std::vector<uint8_t>>& parts)
{
    std::vector<uint8_t> out;
    for (const std::vector<uint8_t>& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// ------------------------------------------------------------------ split

TEST_F(SplitByTime, PiecesCoverTheOldSegmentAndOnlyTheRangeChanges)
{
    struct Case {
        const char* name;
        unsigned gop;
        unsigned from, to;      // seconds from the segment's start; `to` may pass its end
        size_t pieces;
        size_t changed;         // the piece, in time order, that takes the new record type
    };
    const Case cases[] = {
        {"a range inside", 25, 10, 30, 3, 1},
        {"from the first I-frame", 25, 0, 20, 2, 0},
        {"past the end", 25, 25, kEndOfDay, 2, 1},
        {"the whole segment", 25, 0, kEndOfDay, 1, 0},
        {"between two I-frames", 50, 13, 15, 3, 1},
    };
    std::vector<Recorded> recorded;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FrameSource source = source_for(uint8_t(recorded.size()), 21, c.gop);
        recorded.push_back(record(source, 48));
        const Recorded& r = recorded.back();
        ASSERT_EQ(0, split(r, c.from, c.to, 3));
        const std::vector<Piece> pieces = pieces_of(r.id.root_index);
        ASSERT_EQ(c.pieces, pieces.size());
        for (size_t i = 0; i < pieces.size(); i++) {
            EXPECT_EQ(i == c.changed ? 3 : 0, pieces[i].node.record_type) << "piece " << i;
            EXPECT_EQ(i == c.changed ? 0x10u : 0u, pieces[i].node.alarm_type) << "piece " << i;
        }
        EXPECT_TRUE(joined(read_pieces(r)) == from_first_iframe(r.written));
        expect_disk_sound("after the split");
    }
    remount();
    for (size_t k = 0; k < recorded.size(); k++) {
        SCOPED_TRACE(cases[k].name);
        EXPECT_EQ(cases[k].pieces, pieces_of(recorded[k].id.root_index).size());
        EXPECT_TRUE(joined(read_pieces(recorded[k])) == from_first_iframe(recorded[k].written));
    }
    expect_disk_sound("after the remount");
}

TEST_F(SplitByTime, RangesThatMissTheSegmentChangeNothing)
{
    FrameSource source = source_for(0);
    const Recorded r = record(source, 20);
    const std::vector<uint8_t> before = read_through_reader(r.id);
    EXPECT_EQ(0, split(r, 30, 40, 3)) << "after its end";
    {
        DiskLockGuard disk(*fs_);
        EXPECT_EQ(0, fs_->split_stream_segment_by_time(r.id.root_index, r.id.stream_segment_index,
                                                       clock_at(r.start - 20),
                                                       clock_at(r.start), 2, 0, 0, 3, 0))
            << "ending at its start";
        EXPECT_EQ(-1, fs_->split_stream_segment_by_time(r.id.root_index, 7, clock_at(0),
                                                        clock_at(kEndOfDay), 2, 0, 0, 3, 0))
            << "a free node";
    }
    const std::vector<Piece> pieces = pieces_of(r.id.root_index);
    ASSERT_EQ(1u, pieces.size());
    EXPECT_EQ(0, pieces[0].node.record_type);
    EXPECT_TRUE(read_through_reader(r.id) == before);
}

// A range of a segment being recorded that reaches past the live end: the
// old node, with the writer on it, becomes the range; the writer records
// on, and the pieces hold everything it wrote.
TEST_F(SplitByTime, ASegmentBeingRecordedKeepsItsWriterOnTheLastPiece)
{
    FrameSource source = source_for(4);
    Recorded r;
    r.start = source.next_second_of_day();
    _k4t_fs_date_time_ start = source.config().start;
    const int fd = create(request(4, 0, start), &r.id);
    ASSERT_GT(fd, 0);
    record_seconds(fd, source, 30, r.written);
    {
        DiskLockGuard disk(*fs_);
        EXPECT_EQ(-1, fs_->delete_stream_segment_time_range(r.id.root_index,
                                                            r.id.stream_segment_index,
                                                            clock_at(r.start + 20),
                                                            clock_at(kEndOfDay)))
            << "what is being recorded can only lose its head";
    }
    ASSERT_EQ(0, split(r, 10, kEndOfDay, 5));
    record_seconds(fd, source, 10, r.written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    const std::vector<Piece> pieces = pieces_of(r.id.root_index);
    ASSERT_EQ(2u, pieces.size());
    EXPECT_EQ(r.id.stream_segment_index, pieces[1].id.stream_segment_index);
    EXPECT_EQ(5, pieces[1].node.record_type);
    EXPECT_TRUE(joined(read_pieces(r)) == from_first_iframe(r.written));
    remount();
    EXPECT_TRUE(joined(read_pieces(r)) == from_first_iframe(r.written));
    expect_disk_sound("after the remount");
}

// ------------------------------------------------------ delete by time

TEST_F(SplitByTime, DeletedStretchesGoAtIframesAndGiveTheirBlocksBack)
{
    struct Case {
        const char* name;
        unsigned from, to;  // seconds from the segment's start
        size_t pieces;      // left afterwards
    };
    const Case cases[] = {
        {"a stretch inside", 12, 32, 2},
        {"the head", 0, 20, 1},
        {"the tail", 28, 200, 1},
        {"everything", 0, 200, 0},
    };
    uint8_t channel = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FrameSource source = source_for(channel++);
        const Recorded r = record(source, 48);
        const unsigned long free_before = fs_->manage().free_block;
        ASSERT_EQ(0, delete_range(r, r.start + c.from, r.start + c.to));
        EXPECT_GT(fs_->manage().free_block, free_before) << "whole blocks of the stretch are free";
        std::vector<size_t> offsets;
        const std::vector<std::vector<uint8_t>> pieces = read_pieces(r, &offsets);
        ASSERT_EQ(c.pieces, pieces.size());
        const std::vector<Piece> nodes = pieces_of(r.id.root_index);
        for (size_t i = 0; i < nodes.size(); i++) {
            // What is left lies outside the range, up to the I-frames it was cut at.
            const unsigned begin = qzfs_second_of_day(nodes[i].node.start_hour,
                                                      nodes[i].node.start_minute,
                                                      nodes[i].node.start_second);
            const unsigned end = qzfs_second_of_day(nodes[i].node.end_hour,
                                                    nodes[i].node.end_minute,
                                                    nodes[i].node.end_second);
            EXPECT_TRUE(end <= r.start + c.from || begin >= r.start + c.to)
                << "piece " << i << " runs " << begin << " to " << end;
        }
        const std::vector<uint8_t> whole = from_first_iframe(r.written);
        if (c.from > 0) {
            ASSERT_FALSE(pieces.empty());
            EXPECT_EQ(0u, offsets.front()) << "the head stays whole";
        }
        if (c.to < 200) {
            ASSERT_FALSE(pieces.empty());
            EXPECT_EQ(whole.size(), offsets.back() + pieces.back().size()) << "the tail stays whole";
        }
        expect_disk_sound("after the delete");
    }
    remount();
    expect_disk_sound("after the remount");
}

TEST_F(SplitByTime, EndTimeMovesBackToAnIframe)
{
    FrameSource source = source_for(2, 21, 50);
    const Recorded r = record(source, 40);
    const std::vector<uint8_t> whole = read_through_reader(r.id);
    const _k4t_fs_time_ bad = {25, 0, 0};
    // An end after the segment's, a bad time, and a segment open for
    // reading change nothing.
    EXPECT_EQ(0, api_qzfs_modify_stream_segment_end_time(r.id, clock_at(r.start + 60)));
    EXPECT_EQ(-1, api_qzfs_modify_stream_segment_end_time(r.id, bad));
    _k4t_stream_segment_id_ reading = r.id;
    const int reader = api_qzfs_open_stream_segment_by_id(&reading, 0xFFFF, 0);
    ASSERT_GT(reader, 0);
    EXPECT_EQ(-1, api_qzfs_modify_stream_segment_end_time(r.id, clock_at(r.start + 10)));
    EXPECT_EQ(0, api_qzfs_close_stream_segment(reader));
    _k4t_stream_segment_id_ nowhere = r.id;
    nowhere.hdd_id = 9;
    EXPECT_EQ(-1, api_qzfs_modify_stream_segment_end_time(nowhere, clock_at(r.start + 10)));
    EXPECT_TRUE(read_through_reader(r.id) == whole);

    // 21 s in lies between I-frames (one every 2 s): the cut is at 22 s.
    ASSERT_EQ(0, api_qzfs_modify_stream_segment_end_time(r.id, clock_at(r.start + 21)));
    const std::vector<Piece> pieces = pieces_of(r.id.root_index);
    ASSERT_EQ(1u, pieces.size());
    EXPECT_EQ(r.start + 22, qzfs_second_of_day(pieces[0].node.end_hour, pieces[0].node.end_minute,
                                               pieces[0].node.end_second));
    const std::vector<uint8_t> head = read_through_reader(r.id);
    ASSERT_LT(head.size(), whole.size());
    EXPECT_TRUE(std::equal(head.begin(), head.end(), whole.begin()));
    remount();
    EXPECT_TRUE(read_through_reader(r.id) == head);
    expect_disk_sound("after the remount");
}

// ------------------------------------------------- delete over days

class DeleteByDays : public SplitByTime {
protected:
    static _qzfs_k4t_delete_para_ para(uint32_t channels, uint64_t streams, uint8_t first_day,
                                       uint8_t last_day)
    {
        return {1, channels, streams, 26, 11, first_day, 26, 11, last_day};
    }

    bool exists(const Recorded& r)
    {
        _stream_segment_index_node_men_ node;
        DiskLockGuard disk(*fs_);
        return fs_->Get_stream_segment_index_mem_node(r.id.root_index, r.id.stream_segment_index,
                                                      &node) == 0 &&
               IS_NORMAL_SSIN(node.id) &&
               node.start_hour == clock_at(r.start).hour &&
               node.start_second == clock_at(r.start).second;
    }
};

TEST_F(DeleteByDays, ChosenDaysChannelsAndTypesGoAndLockedOnesStay)
{
    std::vector<Recorded> r;
    for (uint8_t day : {20, 21, 22})
        for (uint8_t channel : {0, 1}) {
            FrameSource source = source_for(channel, day);
            r.push_back(record(source, 3));
        }
    FrameSource small = source_for(0, 21);
    const Recorded sub = record(small, 3, 3);
    _k4t_stream_segment_id_ locked = r[0].id;  // day 20, channel 0
    ASSERT_EQ(0, api_qzfs_stream_segment_lock_by_id(&locked, 1));

    _qzfs_k4t_delete_para_ none = para(1, 7, 20, 21);
    none.group_mask = 1u << 5;
    EXPECT_EQ(0, api_qzfs_delete_stream_segment_by_para(&none)) << "a group with no disk";
    _qzfs_k4t_delete_para_ later = para(1, 7, 23, 28);
    api_qzfs_delete_stream_segment_by_para(&later);
    _qzfs_k4t_delete_para_ reversed = para(1, 7, 22, 20);
    api_qzfs_delete_stream_segment_by_para(&reversed);
    for (const Recorded& x : r)
        EXPECT_TRUE(exists(x)) << "days without recordings, and a reversed range, take nothing";

    _qzfs_k4t_delete_para_ p = para(1, 7, 20, 21);  // channel 0, big streams, days 20 and 21
    api_qzfs_delete_stream_segment_by_para(&p);
    const bool stays[] = {true, true, false, true, true, true};
    for (size_t i = 0; i < r.size(); i++)
        EXPECT_EQ(stays[i], exists(r[i])) << "segment " << i;
    EXPECT_TRUE(exists(sub)) << "a stream type outside the mask";
    remount();
    for (size_t i = 0; i < r.size(); i++)
        EXPECT_EQ(stays[i], exists(r[i])) << "segment " << i << " after the remount";
    expect_disk_sound("after the remount");
}

// One call reaches at most 8 roots a disk from its first deletion on; the
// next one goes on from there.
TEST_F(DeleteByDays, ACallStopsAfterEightRootsAndTheNextGoesOn)
{
    std::vector<Recorded> r;
    for (uint8_t channel = 0; channel < 10; channel++) {
        FrameSource source = source_for(channel);
        r.push_back(record(source, 2));
    }
    _qzfs_k4t_delete_para_ p = para(0xFFFFFFFF, ~0ULL, 21, 21);
    auto left = [&] {
        return std::count_if(r.begin(), r.end(), [&](const Recorded& x) { return exists(x); });
    };
    EXPECT_EQ(-1, api_qzfs_delete_stream_segment_by_para(&p));
    EXPECT_EQ(2, left());
    api_qzfs_delete_stream_segment_by_para(&p);
    EXPECT_EQ(0, left());
}

TEST_F(DeleteByDays, TheSweepTakesBigStreamsOlderThanTheReserve)
{
    std::vector<Recorded> r;
    for (uint8_t day : {18, 19, 20, 21})
        for (uint8_t type : {0, 3}) {
            FrameSource source = source_for(0, day);
            r.push_back(record(source, 2, type));
        }
    _k4t_fs_date_time_ now = {26, 11, 21, 12, 0, 0, 0};
    _k4t_fs_date_time_ bad = now;
    bad.month = 13;
    EXPECT_EQ(-1, api_qzfs_auto_delete(&bad, 1));
    EXPECT_EQ(-1, api_qzfs_auto_delete(&now, -1));
    api_qzfs_auto_delete(&now, 1);  // up to day 19
    const bool stays[] = {false, true, false, true, true, true, true, true};
    for (size_t i = 0; i < r.size(); i++)
        EXPECT_EQ(stays[i], exists(r[i])) << "segment " << i;
}

// ------------------------------------------------- attributes over a range

class Attributes : public SplitByTime {
protected:
    // Rows of the day's query that admit these locks and record types.
    static int query_count(uint8_t lock_bitmap, uint8_t record_type_bitmap)
    {
        _k4t_stream_query_ q = whole_day_query(26, 11, 21);
        q.lock_bitmap = lock_bitmap;
        q.record_type_bitmap = record_type_bitmap;
        const int handle = api_qzfs_get_query_stream_segment_handle(&q);
        EXPECT_GT(handle, 0);
        std::vector<_k4t_stream_query_result_> rows(64);
        int num = 64;
        EXPECT_EQ(0, api_qzfs_query_stream_segment(handle, K4T_QUERY_FIRST, &num, rows.data()));
        EXPECT_EQ(0, api_qzfs_close_query_stream_segment_handle(handle));
        return num;
    }

    static _k4t_fs_date_time_ moment(unsigned second_of_day, uint8_t day = 21)
    {
        const _k4t_fs_time_ t = clock_at(second_of_day);
        return {26, 11, day, t.hour, t.minute, t.second, 0};
    }

    _root_index_node_dev_ root_of(uint32_t ri)
    {
        _root_index_node_dev_ root;
        DiskLockGuard disk(*fs_);
        EXPECT_EQ(0, fs_->Get_root_index_dev_node(ri, &root));
        return root;
    }

    // The locks and record types of the root's pieces, in time order.
    std::vector<std::pair<int, int>> attributes_of(uint32_t root)
    {
        std::vector<std::pair<int, int>> out;
        for (const Piece& p : pieces_of(root))
            out.emplace_back(p.node.lock, p.node.record_type);
        return out;
    }
};

// A lock from inside one segment to inside the next: each is split, only
// the parts in the range are locked, the root says so, queries show it at
// once and after a remount, and a delete by days keeps what is locked.
TEST_F(Attributes, LockOverARangeLocksOnlyThePiecesInIt)
{
    FrameSource source = source_for(0);
    const Recorded first = record(source, 30);
    const Recorded second = record(source, 30);
    _qzfs_k4t_stream_lock_para_ lock = {1, 1, 1, 0xFFFF, moment(first.start + 30),
                                        moment(first.start + 20)};
    EXPECT_EQ(-1, api_qzfs_stream_segment_lock_by_time(&lock, 3)) << "a reversed range";
    lock.end_date_time = lock.start_date_time;
    EXPECT_EQ(-1, api_qzfs_stream_segment_lock_by_time(&lock, 3)) << "an empty range";
    lock.start_date_time = moment(first.start + 20);
    lock.end_date_time = moment(second.start + 10);
    ASSERT_EQ(0, api_qzfs_stream_segment_lock_by_time(&lock, 3));

    const std::vector<std::pair<int, int>> want = {{0, 0}, {1, 0}, {1, 0}, {0, 0}};
    EXPECT_EQ(want, attributes_of(first.id.root_index));
    for (const Piece& p : pieces_of(first.id.root_index)) {
        EXPECT_EQ(p.node.lock != 0 ? 1u << 2 : 0u, p.node.lock_type);
    }
    EXPECT_EQ(1, root_of(first.id.root_index).lock);
    EXPECT_EQ(2, query_count(0x02, 0xFF));
    EXPECT_EQ(2, query_count(0x01, 0xFF));
    _qzfs_k4t_delete_para_ all = {1, ~0u, ~0ULL, 26, 11, 21, 26, 11, 21};
    api_qzfs_delete_stream_segment_by_para(&all);
    EXPECT_EQ(2, query_count(0x02, 0xFF)) << "the locked pieces stay";
    EXPECT_EQ(0, query_count(0x01, 0xFF));
    remount();
    EXPECT_EQ(2, query_count(0x02, 0xFF));
    expect_disk_sound("after the remount");

    // The sweep with no reserve unlocks everything.
    _k4t_fs_date_time_ now = moment(12 * 3600);
    ASSERT_EQ(0, api_qzfs_auto_unlock(&now, 0));
    EXPECT_EQ(0, query_count(0x02, 0xFF));
    EXPECT_EQ(0, root_of(first.id.root_index).lock);
}

// A record type over a range, and on a writer's descriptor from a moment
// on while it records.
TEST_F(Attributes, RecordTypeChangesReachQueriesAndTheRootSummary)
{
    FrameSource closed_source = source_for(0);
    const Recorded closed = record(closed_source, 30);
    _qzfs_k4t_modify_segment_para_ change = {1, 1, 1, moment(closed.start + 10),
                                            moment(closed.start + 20), 0x02, 0, 20, 0, 0x4};
    EXPECT_EQ(-1, api_qzfs_modify_stream_segment_info(&change)) << "a record type above 15";
    change.record_type = 2;
    ASSERT_EQ(0, api_qzfs_modify_stream_segment_info(&change));
    const std::vector<std::pair<int, int>> closed_want = {{0, 0}, {0, 2}, {0, 0}};
    EXPECT_EQ(closed_want, attributes_of(closed.id.root_index));
    const _root_index_node_dev_ root = root_of(closed.id.root_index);
    uint16_t record_types;
    memcpy(&record_types, &root.record_type, sizeof(record_types));
    EXPECT_EQ((1u << 0) | (1u << 2), record_types);
    EXPECT_EQ(1, query_count(0xFF, 1u << 2));

    FrameSource live_source = source_for(1);
    Recorded live;
    live.start = live_source.next_second_of_day();
    const int fd = create(request(1, 0, live_source.config().start), &live.id);
    ASSERT_GT(fd, 0);
    record_seconds(fd, live_source, 20, live.written);
    _k4t_fs_time_ from = clock_at(live.start + 10);
    ASSERT_EQ(0, api_qzfs_modify_stream_segment_info_by_fd(fd, 0x03, 1, 2, 5, 0x8, &from));
    record_seconds(fd, live_source, 10, live.written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    EXPECT_EQ(-1, api_qzfs_modify_stream_segment_info_by_fd(fd, 0x02, 0, 0, 5, 0, nullptr))
        << "a closed descriptor";
    const std::vector<std::pair<int, int>> live_want = {{0, 0}, {1, 5}};
    EXPECT_EQ(live_want, attributes_of(live.id.root_index));
    EXPECT_TRUE(joined(read_pieces(live)) == from_first_iframe(live.written));
    remount();
    EXPECT_EQ(live_want, attributes_of(live.id.root_index));
    EXPECT_EQ(1, query_count(0xFF, 1u << 5));
    expect_disk_sound("after the remount");
}

// A pre-recording handed over keeps its tail from the event on as a normal
// recording; one that only loses its head stays a pre-recording and goes at
// its close.
TEST_F(Attributes, PreRecordingIsHandedOverOrLosesItsHead)
{
    for (bool hand_over : {true, false}) {
        SCOPED_TRACE(hand_over ? "handed over" : "head dropped");
        FrameSource source = source_for(hand_over ? 2 : 3);
        Recorded r;
        r.start = source.next_second_of_day();
        _qzfs_k4t_create_ss_para_ para = request(source.config().channel, 0, source.config().start);
        para.for_pre_record = 1;
        const int fd = create(para, &r.id);
        ASSERT_GT(fd, 0);
        record_seconds(fd, source, 20, r.written);
        const _k4t_fs_time_ event = clock_at(r.start + 8);
        if (hand_over) {
            EXPECT_EQ(-1, api_qzfs_modify_pre_record_info(fd, 16, 0, 0, 0, event))
                << "a record type above 15";
            ASSERT_EQ(0, api_qzfs_modify_pre_record_info(fd, 4, 0x2, 1, 1, event));
            EXPECT_EQ(-1, api_qzfs_modify_pre_record_info(fd, 4, 0x2, 1, 1, event))
                << "no longer a pre-recording";
        } else {
            ASSERT_EQ(0, api_qzfs_overwrite_pre_record_stream(fd, event));
        }
        record_seconds(fd, source, 5, r.written);
        ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
        const std::vector<Piece> pieces = pieces_of(r.id.root_index);
        if (!hand_over) {
            EXPECT_TRUE(pieces.empty()) << "an unconfirmed pre-recording goes at its close";
            continue;
        }
        ASSERT_EQ(1u, pieces.size());
        EXPECT_EQ(4, pieces[0].node.record_type);
        EXPECT_EQ(1, pieces[0].node.lock);
        EXPECT_EQ(r.start + 8, qzfs_second_of_day(pieces[0].node.start_hour,
                                                  pieces[0].node.start_minute,
                                                  pieces[0].node.start_second));
        const std::vector<uint8_t> got = read_through_reader(r.id);
        const std::vector<uint8_t> whole = from_first_iframe(r.written);
        ASSERT_LT(got.size(), whole.size());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), whole.end() - long(got.size())))
            << "the tail from the event on";
        EXPECT_EQ(0, root_of(r.id.root_index).only_pre_record);
    }
    expect_disk_sound("after the hand-over");
}

// A lock by time over a closed segment (three pieces, the middle locked)
// and over the segment being recorded; the overwrite pass then takes every
// unlocked piece and leaves the locked ones whole.
TEST_F(Attributes, OverwritePassesLeaveWhatWasLockedByTime)
{
    FrameSource source = source_for(0);
    const Recorded closed = record(source, 30);
    Recorded live;
    live.start = source.next_second_of_day();
    _k4t_fs_date_time_ start = moment(live.start);
    const int fd = create(request(0, 0, start), &live.id);
    ASSERT_GT(fd, 0);
    record_seconds(fd, source, 20, live.written);
    _qzfs_k4t_stream_lock_para_ lock = {1, 1, 1, 0xFFFF, moment(closed.start + 10),
                                        moment(closed.start + 20)};
    ASSERT_EQ(0, api_qzfs_stream_segment_lock_by_time(&lock, 1));
    lock.start_date_time = moment(live.start + 10);
    lock.end_date_time = moment(kEndOfDay);
    ASSERT_EQ(0, api_qzfs_stream_segment_lock_by_time(&lock, 1));
    const std::vector<std::pair<int, int>> want = {{0, 0}, {1, 0}, {0, 0}, {0, 0}, {1, 0}};
    ASSERT_EQ(want, attributes_of(closed.id.root_index));
    std::vector<std::vector<uint8_t>> locked;
    for (const Piece& p : pieces_of(closed.id.root_index))
        if (p.node.lock != 0 && p.id.stream_segment_index != live.id.stream_segment_index)
            locked.push_back(read_through_reader(p.id));

    _qzfs_k4t_hdd_overwrite_config_ config = {0x3200000, 0x3200000, 1ULL << 50, 1ULL << 40};
    ASSERT_EQ(0, api_qzfs_config_overwrite(0, &config));
    api_qzfs_disk_overwrite_big_stream(0);
    record_seconds(fd, source, 5, live.written);
    ASSERT_EQ(0, api_qzfs_close_stream_segment(fd));
    const std::vector<Piece> left = pieces_of(closed.id.root_index);
    ASSERT_EQ(2u, left.size()) << "every unlocked piece went";
    EXPECT_EQ(1, left[0].node.lock);
    EXPECT_EQ(1, left[1].node.lock);
    EXPECT_TRUE(read_through_reader(left[0].id) == locked[0]);
    const std::vector<uint8_t> tail = read_through_reader(left[1].id);
    const std::vector<uint8_t> whole = from_first_iframe(live.written);
    ASSERT_LT(tail.size(), whole.size());
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), whole.end() - long(tail.size())))
        << "the locked part of the recording holds what was written from its start on";
    expect_disk_sound("after the pass");
}

} // namespace
