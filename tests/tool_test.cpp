// The qzfs host tool, run as a user runs it.
#include "test_support.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>

using namespace qzfs_test;

namespace {

CommandResult run_tool(const std::string& args)
{
    return run_command(std::string(QZFS_TOOL_PATH) + " " + args);
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(Tool, FormatCreatesASparseImageAndInfoDescribesIt)
{
    ScratchDir dir;
    std::string image = dir.path("rec.img");
    CommandResult format = run_tool("format " + image + " --size 3G --label 'lobby cam'");
    ASSERT_EQ(0, format.status) << format.output;
    EXPECT_EQ(3 * GiB, file_size(image));
    struct stat st;
    ASSERT_EQ(0, stat(image.c_str(), &st));
    EXPECT_LT((unsigned long long)st.st_blocks * 512, 64 * MiB);  // sparse

    CommandResult info = run_tool("info " + image);
    ASSERT_EQ(0, info.status) << info.output;
    EXPECT_TRUE(contains(info.output, "block size:       4194304 (4 MiB)\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "total blocks:     752\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "free blocks:      637\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "key block:        65\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "backup key block: 465\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "label:            lobby cam\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "version:          qzfs4.0\n")) << info.output;

    // The debug level reaches the library.
    CommandResult loud = run_tool("--debug-level 1 info " + image);
    EXPECT_EQ(0, loud.status);
    EXPECT_TRUE(contains(loud.output, "START MOUNT(hdd_id:0)")) << loud.output;
}

TEST(Tool, IndexAddEntriesAreListedByInfoIndex)
{
    ScratchDir dir;
    std::string image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 3G").status);
    CommandResult add = run_tool("index-add " + image + " --date 2026-11-20 --channel 4 --name gate");
    ASSERT_EQ(0, add.status) << add.output;
    EXPECT_TRUE(contains(add.output, "root index entry 0 added")) << add.output;
    add = run_tool("index-add " + image + " --date 2026-11-21 --channel 5 --stream 1 --record-type 2");
    ASSERT_EQ(0, add.status) << add.output;
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-02-29 --channel 1").status);
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-11-21").status);
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-11-21 --channel 1 --name "
                          "seventeen-letters").status);

    CommandResult info = run_tool("info " + image + " --index");
    ASSERT_EQ(0, info.status) << info.output;
    // The first node's blocks follow the root index block (66): 67 and 68.
    EXPECT_TRUE(contains(info.output, "  0      2026-11-20    4      0  gate             0x0001       67\n"))
        << info.output;
    EXPECT_TRUE(contains(info.output, "  1      2026-11-21    5      1                   0x0004       69\n"))
        << info.output;
    EXPECT_TRUE(contains(info.output, "  2 used\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "  segment index  2\n")) << info.output;

    // Segments with their I-frame entries; the root's summary follows them.
    CommandResult seg = run_tool("segment-add " + image + " --root 0 --start 23:59:50 --seconds 10");
    ASSERT_EQ(0, seg.status) << seg.output;
    EXPECT_TRUE(contains(seg.output, "segment 0 of root index entry 0 added")) << seg.output;
    seg = run_tool("segment-add " + image + " --root 0 --start 07:00:00 --seconds 9 --record-type 3 --lock");
    ASSERT_EQ(0, seg.status) << seg.output;
    EXPECT_NE(0, run_tool("segment-add " + image + " --root 2 --start 07:00:00 --seconds 9").status);
    EXPECT_NE(0, run_tool("segment-add " + image + " --root 0 --start 24:00:00 --seconds 9").status);
    info = run_tool("info " + image + " --index --segments 0 --iframes");
    ASSERT_EQ(0, info.status) << info.output;
    EXPECT_TRUE(contains(info.output, "0x0009")) << info.output;
    EXPECT_TRUE(contains(info.output, "  0      23:59:50 23:59:59 ")) << info.output;
    EXPECT_TRUE(contains(info.output, "  1      07:00:00 07:00:08 ")) << info.output;
    EXPECT_TRUE(contains(info.output, "      3 yes  13\n")) << info.output;  // behind 2 block entries
    EXPECT_TRUE(contains(info.output, "19 i-frames, 4 data block entries")) << info.output;
    EXPECT_TRUE(contains(info.output, "  1        i-frame  23:59:50 ")) << info.output;
    EXPECT_NE(0, run_tool("info " + image + " --segments 7").status);  // no such entry
}

TEST(Tool, RecordWritesOneSegmentPerChannel)
{
    ScratchDir dir;
    std::string image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 3G").status);
    CommandResult rec =
        run_tool("record " + image + " --channels 2 --seconds 10 --start 2026-11-21T08:00:00");
    ASSERT_EQ(0, rec.status) << rec.output;
    EXPECT_TRUE(contains(rec.output, "channel 0: root index entry 0, segment 0\n")) << rec.output;
    EXPECT_TRUE(contains(rec.output, "channel 1: root index entry 1, segment 0\n")) << rec.output;
    // 4 Mbit/s is 500000 bytes a second of each channel.
    EXPECT_TRUE(contains(rec.output, "recorded 2 channels x 10 s from 2026-11-21 08:00:00: "
                                     "10000000 bytes in "))
        << rec.output;

    CommandResult info = run_tool("info " + image + " --index");
    ASSERT_EQ(0, info.status) << info.output;
    EXPECT_TRUE(contains(info.output, "  0      2026-11-21    0      0  ")) << info.output;
    EXPECT_TRUE(contains(info.output, "  1      2026-11-21    1      0  ")) << info.output;
    EXPECT_TRUE(contains(info.output, "  2 used\n")) << info.output;

    info = run_tool("info " + image + " --segments 0");
    ASSERT_EQ(0, info.status) << info.output;
    // From the first I-frame at 08:00:00 to the last at 08:00:09.
    EXPECT_TRUE(contains(info.output, "  0      08:00:00 08:00:09        5000000 ")) << info.output;
    EXPECT_TRUE(contains(info.output, "  1 segments\n")) << info.output;

    // A second recording of the same day adds a segment to each entry.
    rec = run_tool("record " + image + " --channels 1 --seconds 3 --start 2026-11-21T09:30:00 "
                   "--bitrate 1000000");
    ASSERT_EQ(0, rec.status) << rec.output;
    EXPECT_TRUE(contains(rec.output, "channel 0: root index entry 0, segment 1\n")) << rec.output;
    info = run_tool("info " + image + " --segments 0");
    EXPECT_TRUE(contains(info.output, "  1      09:30:00 09:30:02         374988 ")) << info.output;

    const std::string bad_calls[] = {
        "record " + image + " --seconds 10",                                   // no channels
        "record " + image + " --channels 2",                                   // no length
        "record " + image + " --channels 2 --seconds 10 --start 2026-11-21",   // no time
        "record " + image + " --channels 1 --seconds 20 --start 2026-11-21T23:59:50",  // midnight
        "record " + image + " --channels 1 --seconds 5 --bitrate 1000",        // too slow
        "record " + dir.path("none.img") + " --channels 1 --seconds 5",        // no image
    };
    for (const std::string& args : bad_calls) {
        SCOPED_TRACE(args);
        CommandResult run = run_tool(args);
        EXPECT_NE(0, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, "qzfs: ")) << run.output;
    }
}

TEST(Tool, FailuresExitNonZeroWithOneLineReason)
{
    ScratchDir dir;
    std::string image = dir.path("rec.img");
    const std::string bad_calls[] = {
        "info " + dir.path("none.img"),            // not there
        "format " + dir.path("none.img"),          // not there and no size
        "format " + image + " --size 12X",         // bad size
        "format " + image + " --size 1G",          // too small to format
        "frobnicate " + image,                     // unknown verb
        "info " + image + " --colour blue",        // unknown option
        "info",                                    // missing image
    };
    for (const std::string& args : bad_calls) {
        SCOPED_TRACE(args);
        CommandResult run = run_tool(args);
        EXPECT_NE(0, run.status) << run.output;
        // The tool's own reason is one line beginning "qzfs: ".
        size_t at = run.output.find("qzfs: ");
        ASSERT_NE(std::string::npos, at) << run.output;
        EXPECT_EQ(run.output.size() - 1, run.output.find('\n', at)) << run.output;
    }
    CommandResult help = run_tool("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_TRUE(contains(help.output, "format IMAGE"));
}

} // namespace
