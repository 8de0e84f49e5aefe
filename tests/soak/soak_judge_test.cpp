// The soak's judge of an overwrite pass, on group states made up here: a
// pass that keeps the rules passes, and each way of breaking one is caught.
#include "group_snapshot.h"

#include <gtest/gtest.h>

#include <string>

using namespace soak;

namespace {

const uint64_t MiB = 1ULL << 20;
const uint64_t kBlock = 4 * MiB;
const Thresholds kThresholds = {128 * MiB, 256 * MiB, 768 * MiB, 192 * MiB};

const SegmentKey A(0, 0, 0), B(0, 0, 1), C(1, 0, 0), D(1, 1, 0);

SegmentState closed(uint32_t stamp, uint64_t len, uint32_t start_iframe = 1)
{
    SegmentState s;
    s.channel = 3;
    s.year = 26;
    s.month = 3;
    s.day = 14;
    s.node_id = 1;
    s.start_iframe = start_iframe;
    s.owner_stamp = stamp;
    s.len = len;
    s.end_hour = 10;
    s.end_minute = 20;
    s.end_second = 30;
    return s;
}

SegmentState live(uint32_t stamp, uint64_t live_len, uint32_t start_iframe = 1)
{
    SegmentState s = closed(stamp, 0, start_iframe);
    s.end_hour = s.end_minute = s.end_second = 255;
    s.live_len = live_len;
    return s;
}

// Free space of the two disks given as spare space above used_for_recording.
void set_spare(GroupSnapshot& g, uint64_t spare0, uint64_t spare1 = 0)
{
    g.free_bytes[0] = kThresholds.used + spare0;
    g.free_bytes[1] = kThresholds.used + spare1;
}

class SoakJudge : public ::testing::Test {
protected:
    GroupSnapshot before, after;
    PassWindow w;

    void SetUp() override
    {
        w.before = &before;
        w.after = &after;
        w.thresholds = kThresholds;
        w.block_size = kBlock;
        w.recorders = 8;
        // A pass is due: the spare space is below start_delete_free_size.
        set_spare(before, 400 * MiB);
        set_spare(after, 590 * MiB);
    }
    // The failures, one to a line.
    static std::string all(const PassVerdict& v)
    {
        std::string out;
        for (const std::string& f : v.failures)
            out += f + "\n";
        return out;
    }
};

TEST_F(SoakJudge, TakingTheOldestWholeAndTrimmingTheNextPasses)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)},
                       {C, closed(30, 90 * MiB)}, {D, live(40, 50 * MiB)}};
    after.segments = {{B, closed(28, 60 * MiB, 70)}, {C, closed(30, 90 * MiB)},
                      {D, live(40, 80 * MiB)}};
    const PassVerdict v = judge_big_pass(w);
    EXPECT_TRUE(v.failures.empty()) << all(v);
    EXPECT_EQ(std::vector<SegmentKey>{A}, v.removed);
    EXPECT_EQ(std::vector<SegmentKey>{B}, v.trimmed);
    EXPECT_EQ(100 * MiB + 90 * MiB, v.bytes_known);
    EXPECT_EQ(4u, v.eligible);
}

TEST_F(SoakJudge, TakingAYoungerSegmentWhileAnOlderOneStaysFails)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{A, closed(10, 100 * MiB)}};
    const PassVerdict v = judge_big_pass(w);
    ASSERT_EQ(1u, v.failures.size()) << all(v);
    EXPECT_NE(std::string::npos, v.failures[0].find("older and eligible")) << all(v);
}

TEST_F(SoakJudge, TakingALockedSegmentFails)
{
    SegmentState locked = closed(10, 100 * MiB);
    locked.lock = 1;
    before.segments = {{A, locked}, {B, closed(20, 150 * MiB)}};
    after.segments = {{B, closed(20, 150 * MiB)}};
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("which is locked")) << all(v);
}

TEST_F(SoakJudge, ASegmentOpenForReadingIsPassedOver)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{A, closed(10, 100 * MiB)}};
    w.open_for_reading = {A};
    EXPECT_TRUE(judge_big_pass(w).failures.empty());

    after.segments = {{B, closed(20, 150 * MiB)}};
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("open for reading")) << all(v);
}

TEST_F(SoakJudge, OnlyALongLiveRecordingMustBeCutBeforeYoungerSegments)
{
    // Too short to give once_delete_size: the planner may pass it over.
    before.segments = {{A, live(5, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{A, live(5, 120 * MiB)}};
    EXPECT_TRUE(judge_big_pass(w).failures.empty());

    before.segments[A] = live(5, 900 * MiB);
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("older and eligible")) << all(v);
}

TEST_F(SoakJudge, MinusOneWhileACandidateStaysFails)
{
    SegmentState locked = closed(10, 100 * MiB);
    locked.lock = 1;
    before.segments = {{A, locked}};
    after.segments = before.segments;
    w.result = -1;
    EXPECT_TRUE(judge_big_pass(w).failures.empty()) << "everything locked: -1 is right";

    before.segments[B] = closed(20, 150 * MiB);
    after.segments = before.segments;
    w.open_for_reading = {B};
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("returned -1")) << all(v);
}

TEST_F(SoakJudge, TakingNothingWhenDueFailsWhenACandidateCouldGive)
{
    // A live recording shorter than once_delete_size gives nothing.
    before.segments = {{A, live(10, 50 * MiB)}};
    after.segments = {{A, live(10, 60 * MiB)}};
    set_spare(after, 380 * MiB);
    EXPECT_TRUE(judge_big_pass(w).failures.empty());

    // Behind it, the pass goes on to a closed one.
    before.segments[B] = closed(20, 150 * MiB);
    after.segments[B] = closed(20, 150 * MiB);
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("took nothing")) << all(v);

    set_spare(before, 2048 * MiB);
    EXPECT_TRUE(judge_big_pass(w).failures.empty()) << "not due: nothing to take";

    set_spare(before, 400 * MiB);
    before.segments.erase(B);
    before.segments[A] = live(10, 900 * MiB);
    EXPECT_NE(std::string::npos, all(judge_big_pass(w)).find("took nothing"))
        << "a live recording this long can give once_delete_size";
}

TEST_F(SoakJudge, DeletingWithEnoughSpareFails)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{B, closed(20, 150 * MiB)}};
    set_spare(before, 1024 * MiB);
    set_spare(after, 900 * MiB);
    w.written_during = 60 * MiB;
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("deleted although")) << all(v);

    // With as much written meanwhile, the spare space may have been short
    // when the pass looked.
    w.written_during = 300 * MiB;
    EXPECT_TRUE(judge_big_pass(w).failures.empty()) << all(judge_big_pass(w));
}

TEST_F(SoakJudge, FreeingFarMoreThanOnceDeleteSizeFails)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{B, closed(20, 150 * MiB)}};
    set_spare(after, kThresholds.start + kThresholds.once + 20 * kBlock);
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("more than")) << all(v);
}

TEST_F(SoakJudge, ALockChangingDuringAPassFails)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{B, closed(20, 150 * MiB)}};
    after.segments[B].lock = 1;
    after.segments[B].lock_type = 4;
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("lock changed")) << all(v);
}

TEST_F(SoakJudge, FreeSpaceBelowTheReserveFails)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{B, closed(20, 150 * MiB)}};
    before.free_bytes = {{0, 60 * MiB}, {1, 50 * MiB}};
    const PassVerdict v = judge_big_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("below reserve_free_size_for_record")) << all(v);
}

TEST_F(SoakJudge, ANewRecordingInAFreedSlotCountsAsARemoval)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, closed(20, 150 * MiB)}};
    after.segments = {{A, live(90, 2 * MiB, 400)}, {B, closed(20, 150 * MiB)}};
    const PassVerdict v = judge_big_pass(w);
    EXPECT_TRUE(v.failures.empty()) << all(v);
    EXPECT_EQ(std::vector<SegmentKey>{A}, v.removed);
    EXPECT_TRUE(v.trimmed.empty());
}

TEST_F(SoakJudge, AnIdlePassMustLeaveEverything)
{
    before.segments = {{A, closed(10, 100 * MiB)}, {B, live(20, 150 * MiB)}};
    after.segments = {{A, closed(10, 100 * MiB)}, {B, live(20, 170 * MiB)}};
    EXPECT_TRUE(judge_idle_pass(w).failures.empty());

    w.result = -1;
    EXPECT_NE(std::string::npos, all(judge_idle_pass(w)).find("returned -1"));
    w.result = 0;
    after.segments[B] = live(24, 100 * MiB, 9);
    const PassVerdict v = judge_idle_pass(w);
    EXPECT_NE(std::string::npos, all(v).find("trimmed")) << all(v);
}

} // namespace
