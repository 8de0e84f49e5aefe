// The qzfs host tool, run as a user runs it.
#include "h264_stream.h"
#include "synthetic_h264.h"
#include "test_support.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/stat.h>

using namespace qzfs_test;

namespace {

CommandResult run_tool(const std::string& args)
{
    return run_command(std::string(QZFS_TOOL_PATH) + " " + args);
}

bool contains(const std::string& text, const std::string& part);

// Runs `verb IMAGE args`: it succeeds or is refused as `ok` says and prints
// `says`; a refused run leaves the image as it was.
void run_verb_case(const std::string& verb, const std::string& image, const std::string& args,
                   bool ok, const std::string& says)
{
    const std::string before = image_fingerprint(image);
    CommandResult run = run_tool(verb + " " + image + " " + args);
    EXPECT_EQ(ok, run.status == 0) << run.output;
    EXPECT_TRUE(contains(run.output, says)) << run.output;
    if (!ok) {
        EXPECT_EQ(before, image_fingerprint(image)) << "a refused " << verb << " wrote to the image";
    }
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

void write_file(const std::string& path, const std::vector<uint8_t>& bytes)
{
    FILE* file = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, file) << path;
    if (!bytes.empty()) {
        EXPECT_EQ(bytes.size(), fwrite(bytes.data(), 1, bytes.size(), file));
    }
    fclose(file);
}

std::vector<uint8_t> read_file(const std::string& path)
{
    return read_bytes(path, 0, size_t(file_size(path)));
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Bytes [from, to) of a stream's access units.
std::vector<uint8_t> units_bytes(const SyntheticH264& stream, size_t from, size_t to)
{
    const size_t begin = stream.units[from].offset;
    const size_t end = to < stream.units.size() ? stream.units[to].offset : stream.bytes.size();
    return std::vector<uint8_t>(stream.bytes.begin() + begin, stream.bytes.begin() + end);
}

std::vector<uint8_t> joined(std::vector<uint8_t> a, const std::vector<uint8_t>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
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
    CommandResult add = run_tool("index-add " + image + " --date 2026-11-20 --channel 4 --name gate --start 23:59:50 --seconds 10");
    ASSERT_EQ(0, add.status) << add.output;
    EXPECT_TRUE(contains(add.output, "root index entry 0 added, with segment 0")) << add.output;
    add = run_tool("index-add " + image + " --date 2026-11-21 --channel 5 --stream 1 --record-type 2 --start 06:00:00 --seconds 5");
    ASSERT_EQ(0, add.status) << add.output;
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-02-29 --channel 1 --start 06:00:00 --seconds 5").status);
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-11-21 --channel 1").status);
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-11-21").status);
    EXPECT_NE(0, run_tool("index-add " + image + " --date 2026-11-21 --channel 1 --name "
                          "seventeen-letters").status);

    CommandResult info = run_tool("info " + image + " --index");
    ASSERT_EQ(0, info.status) << info.output;
    // The first node's blocks follow the root index block (66): 67 and 68,
    // then the two data blocks of its first segment.
    EXPECT_TRUE(contains(info.output, "  0      2026-11-20    4      0  gate             0x0001       67\n"))
        << info.output;
    EXPECT_TRUE(contains(info.output, "  1      2026-11-21    5      1                   0x0004       71\n"))
        << info.output;
    EXPECT_TRUE(contains(info.output, "  2 used\n")) << info.output;
    EXPECT_TRUE(contains(info.output, "  segment index  2\n")) << info.output;

    // Segments with their I-frame entries; the root's summary follows them.
    CommandResult seg = run_tool("segment-add " + image + " --root 0 --start 07:00:00 --seconds 9 --record-type 3 --lock");
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

TEST(Tool, RecordH264AndExportItByIdAndByTime)
{
    ScratchDir dir;
    const std::string image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 3G").status);
    SyntheticH264Config config;
    config.frames = 100;
    config.gop = 25;
    const SyntheticH264 clip = make_synthetic_h264(config);
    const std::string clip_path = dir.path("clip.h264");
    write_file(clip_path, clip.bytes);

    CommandResult rec = run_tool("record " + image + " --h264 " + clip_path +
                                 " --channel 3 --start 2026-11-21T08:00:00");
    ASSERT_EQ(0, rec.status) << rec.output;
    EXPECT_TRUE(contains(rec.output, "100 frames (4 I-frames), " +
                                         std::to_string(clip.bytes.size()) + " bytes of H.264 in " +
                                         std::to_string(clip.bytes.size() + 100 * 36) +
                                         " bytes of frames, from 2026-11-21 08:00:00 to "
                                         "2026-11-21 08:00:03 at 25 frames a second\n"))
        << rec.output;
    EXPECT_TRUE(contains(rec.output, "segment 0:0:0\n")) << rec.output;

    // By id: the H.264 stream again, byte for byte.
    const std::string out = dir.path("out.h264");
    CommandResult exp = run_tool("export " + image + " --id 0:0:0 --out " + out);
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_TRUE(contains(exp.output, "exported 100 frames (4 I-frames) from 1 segment: " +
                                         std::to_string(clip.bytes.size()) + " bytes of payload"))
        << exp.output;
    EXPECT_EQ(clip.bytes, read_file(out));

    // Raw: the frames as the tool wrote them, with their times and pts.
    std::vector<uint8_t> frames;
    for (size_t i = 0; i < clip.units.size(); i++) {
        const _k4t_fs_date_time_ when = {26, 11, 21, 8, 0, uint8_t(i / 25), 0};
        const SyntheticAccessUnit& u = clip.units[i];
        ASSERT_TRUE(wrap_stored_frame(frames, 3, u.idr, when, i * 3600, clip.bytes.data() + u.offset,
                                      u.length));
    }
    const std::string raw = dir.path("out.raw");
    exp = run_tool("export " + image + " --id 0:0:0 --out " + raw + " --raw");
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_TRUE(contains(exp.output, std::to_string(frames.size()) + " bytes of stored frames"))
        << exp.output;
    EXPECT_EQ(frames, read_file(raw));

    // By time: from the first I-frame at or after --from to the last frame
    // of the second --to names.
    const std::string range = "export " + image + " --channel 3 --out " + out;
    exp = run_tool(range + " --from 2026-11-21T08:00:00 --to 2026-11-21T08:00:03");
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_EQ(clip.bytes, read_file(out));
    exp = run_tool(range + " --from 2026-11-21T07:00:00 --to 2026-11-21T08:00:01");
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_TRUE(contains(exp.output, "exported 50 frames (2 I-frames) from 1 segment")) << exp.output;
    EXPECT_EQ(units_bytes(clip, 0, 50), read_file(out));
    exp = run_tool(range + " --from 2026-11-21T08:00:01 --to 2026-11-21T08:00:02 --stream 0");
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_EQ(units_bytes(clip, 25, 75), read_file(out));

    // A second clip later that day, 50 frames a second: a range over both
    // goes on into the second segment.
    config.seed = 2;
    const SyntheticH264 second = make_synthetic_h264(config);
    const std::string second_path = dir.path("second.h264");
    write_file(second_path, second.bytes);
    rec = run_tool("record " + image + " --h264 " + second_path +
                   " --channel 3 --start 2026-11-21T08:00:10 --fps 50");
    ASSERT_EQ(0, rec.status) << rec.output;
    EXPECT_TRUE(contains(rec.output, "to 2026-11-21 08:00:11 at 50 frames a second")) << rec.output;
    EXPECT_TRUE(contains(rec.output, "segment 0:0:1\n")) << rec.output;
    exp = run_tool(range + " --from 2026-11-21T08:00:00 --to 2026-11-21T08:00:30");
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_TRUE(contains(exp.output, "exported 200 frames (8 I-frames) from 2 segments")) << exp.output;
    EXPECT_EQ(joined(clip.bytes, second.bytes), read_file(out));
    exp = run_tool(range + " --from 2026-11-21T08:00:02 --to 2026-11-21T08:00:10");
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_EQ(joined(units_bytes(clip, 50, 100), units_bytes(second, 0, 50)), read_file(out));
    exp = run_tool("export " + image + " --id 0:0:1 --out " + out);
    ASSERT_EQ(0, exp.status) << exp.output;
    EXPECT_EQ(second.bytes, read_file(out));

    // Nothing in the range: a failure, and no output file.
    const std::string none = dir.path("none.h264");
    const std::string empty_ranges[] = {
        " --channel 3 --from 2026-11-21T09:00:00 --to 2026-11-21T10:00:00",  // after all
        " --channel 3 --from 2026-11-21T08:00:05 --to 2026-11-21T08:00:08",  // in the gap
        " --channel 4 --from 2026-11-21T08:00:00 --to 2026-11-21T09:00:00",  // other channel
        " --channel 3 --from 2026-11-20T08:00:00 --to 2026-11-20T09:00:00",  // other day
        " --channel 3 --stream 1 --from 2026-11-21T08:00:00 --to 2026-11-21T09:00:00",
        " --id 0:0:2",                                                         // no such segment
        " --id 0:7:0",
    };
    for (const std::string& args : empty_ranges) {
        SCOPED_TRACE(args);
        CommandResult run = run_tool("export " + image + args + " --out " + none);
        EXPECT_NE(0, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, "qzfs: ")) << run.output;
        EXPECT_FALSE(exists(none));
    }
}

TEST(Tool, RecordH264RefusesWhatItCannotRecord)
{
    ScratchDir dir;
    const std::string image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 3G").status);
    SyntheticH264Config config;
    config.frames = 30;
    config.gop = 10;
    const SyntheticH264 clip = make_synthetic_h264(config);
    const std::string good = dir.path("good.h264");
    write_file(good, clip.bytes);
    // Without its first two access units the clip begins with P pictures.
    const std::string late = dir.path("late.h264");
    write_file(late, std::vector<uint8_t>(clip.bytes.begin() + clip.units[2].offset, clip.bytes.end()));
    // Only the P pictures between the first two IDRs.
    const std::string no_idr = dir.path("no-idr.h264");
    write_file(no_idr, units_bytes(clip, 1, 10));
    const std::string text = dir.path("text.h264");
    write_file(text, std::vector<uint8_t>{'n', 'o', 't', ' ', 'h', '2', '6', '4', '\n'});
    const std::string empty = dir.path("empty.h264");
    write_file(empty, {});

    struct Case {
        std::string args;
        const char* reason;
    } const cases[] = {
        {"--h264 " + text + " --channel 1 --start 2026-11-21T08:00:00", "no H.264 start code"},
        {"--h264 " + empty + " --channel 1 --start 2026-11-21T08:00:00", "is empty"},
        {"--h264 " + no_idr + " --channel 1 --start 2026-11-21T08:00:00", "no IDR picture"},
        {"--h264 " + late + " --channel 1 --start 2026-11-21T08:00:00",
         "has 8 access units before its first IDR picture"},
        {"--h264 " + good + " --channel 1 --start 2026-11-21T23:59:59 --fps 10",
         "past midnight; start at 2026-11-21 23:59:57 at the latest"},
        {"--h264 " + dir.path("missing.h264") + " --channel 1 --start 2026-11-21T08:00:00",
         "cannot open"},
        {"--h264 " + good + " --start 2026-11-21T08:00:00", "--channel"},
        {"--h264 " + good + " --channel 255 --start 2026-11-21T08:00:00", "--channel"},
        {"--h264 " + good + " --channel 1", "--start"},
        {"--h264 " + good + " --channel 1 --start 2026-11-21T08:00:00 --fps 0", "--fps"},
        {"--h264 " + good + " --channels 2 --start 2026-11-21T08:00:00", "unknown option --channels"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        CommandResult run = run_tool("record " + image + " " + c.args);
        EXPECT_NE(0, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, "qzfs: ")) << run.output;
        EXPECT_TRUE(contains(run.output, c.reason)) << run.output;
    }
    // Nothing of it reached the disk.
    CommandResult info = run_tool("info " + image + " --index");
    EXPECT_TRUE(contains(info.output, "  0 used\n")) << info.output;

    const std::string out = dir.path("out.h264");
    const Case bad_exports[] = {
        {"--id 0:0:0", "--out"},
        {"--id 1:0:0 --out " + out, "disk 0"},
        {"--id 0:0 --out " + out, "HDD:ROOT:SEG"},
        {"--id 0:0:0 --channel 1 --out " + out, "takes no --channel"},
        {"--channel 1 --from 2026-11-21T08:00:00 --out " + out, "--from and --to"},
        {"--channel 1 --from 2026-11-21T09:00:00 --to 2026-11-21T08:00:00 --out " + out,
         "earlier than --from"},
        {"--channel 1 --from 2026-11-21T09:00:00 --to 2026-11-22T08:00:00 --out " + out,
         "different days"},
        {"--out " + out, "--id"},
    };
    for (const Case& c : bad_exports) {
        SCOPED_TRACE(c.args);
        CommandResult run = run_tool("export " + image + " " + c.args);
        EXPECT_NE(0, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, "qzfs: ")) << run.output;
        EXPECT_TRUE(contains(run.output, c.reason)) << run.output;
        EXPECT_FALSE(exists(out));
    }
}

TEST(Tool, DeleteAndTrimBySegmentIdAndTheJournalInInfo)
{
    ScratchDir dir;
    const std::string image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 3G").status);
    // Root 0: two four-second H.264 clips of channel 3, an I-frame a second;
    // roots 1 and 2: ten synthetic seconds of channels 0 and 1.
    SyntheticH264Config config;
    const SyntheticH264 clip = make_synthetic_h264(config);
    const std::string clip_path = dir.path("clip.h264");
    write_file(clip_path, clip.bytes);
    for (const std::string start : {"08:00:00", "08:00:10"})
        ASSERT_EQ(0, run_tool("record " + image + " --h264 " + clip_path +
                              " --channel 3 --start 2026-11-21T" + start).status);
    CommandResult rec = run_tool("record " + image +
                                 " --channels 2 --seconds 10 --bitrate 64000 --start 2026-11-21T09:00:00");
    ASSERT_TRUE(contains(rec.output, "channel 1: root index entry 2, segment 0")) << rec.output;

    struct Case {
        std::string args;
        bool ok;
        std::string says;
        const char* gone;  // an id ls no longer lists
    } const cases[] = {
        {"--id 0:0:1", true, "deleted segment 0:0:1: channel 3, 2026-11-21 08:00:10 to 08:00:13, ",
         "0:0:1 "},
        {"--id 0:0:1", false, "there is no segment 0:0:1", nullptr},  // already deleted
        {"--id 0:9:0", false, "there is no segment 0:9:0", nullptr},
        {"--id 0:0:1 --trim-seconds 1", false, "has no segment 1", nullptr},
        {"--id 0:1:0 --trim-seconds 9", false, "reach its end at 09:00:09", nullptr},
        {"--id 0:1:0 --trim-seconds 600", false, "reach its end", nullptr},
        {"--id 0:1:0 --trim-seconds 0", false, "--trim-seconds takes", nullptr},
        {"--id 0:1:0 --trim-bytes 0", false, "--trim-bytes takes", nullptr},
        {"--id 0:0:0 --trim-seconds 2", true, "it now starts at 08:00:02 (was 08:00:00)", nullptr},
        // Less than a block would be left: the segment goes, its root too.
        {"--id 0:2:0 --trim-bytes 1K", true, "went whole: 79840 bytes", "0:2:0 "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        run_verb_case("delete", image, c.args, c.ok, c.says);
        if (c.gone != nullptr) {
            CommandResult ls = run_tool("ls " + image);
            EXPECT_FALSE(contains(ls.output, c.gone)) << ls.output;
        }
    }
    // The trimmed clip keeps its last two seconds (50 frames of 36 bytes
    // around their payload), byte for byte.
    const std::vector<uint8_t> tail = units_bytes(clip, 50, 100);
    CommandResult ls = run_tool("ls " + image + " --channel 3");
    EXPECT_TRUE(contains(ls.output, "08:00:02  08:00:03 ") &&
                contains(ls.output, " " + std::to_string(tail.size() + 50 * 36) + " "))
        << ls.output;
    const std::string out = dir.path("tail.h264");
    ASSERT_EQ(0, run_tool("export " + image + " --id 0:0:0 --out " + out).status);
    EXPECT_EQ(tail, read_file(out));

    // Every delete cleared the journal behind it. A record whose sum does not
    // match is a torn journal write: info shows it, and the mount leaves it.
    CommandResult info = run_tool("info " + image);
    unsigned long journal = 0;
    const size_t at = info.output.find("action journal:   clear (root index block ");
    ASSERT_NE(std::string::npos, at) << info.output;
    ASSERT_EQ(1, sscanf(info.output.c_str() + at, "action journal:   clear (root index block %lu)",
                        &journal));
    std::vector<unsigned char> header(72, 0);  // action, sum, then the record
    header[0] = 1;                             // a delete ...
    header[8] = 1;                             // ... of root 1, with a sum of 0
    header[16] = 7;                            // first i-frame 7
    write_bytes(image, journal * 4 * MiB + 4096 + 12, header);
    const std::string before = image_fingerprint(image);
    info = run_tool("info " + image);
    EXPECT_TRUE(contains(info.output, "action journal:   delete (action 1) in root index block")) << info.output;
    EXPECT_TRUE(contains(info.output, "MISMATCH: stored 0x00000000, computed 0x00000009")) << info.output;
    EXPECT_TRUE(contains(info.output, "record:         root 1, segment 0, first i-frame 7, length 0,"))
        << info.output;
    EXPECT_EQ(before, image_fingerprint(image));
}

TEST(Tool, DeleteByTimeRangeAndTheSweepBeforeADay)
{
    ScratchDir dir;
    const std::string a = dir.path("a.img"), b = dir.path("b.img");
    ASSERT_EQ(0, run_tool("format " + a + " --size 3G").status);
    ASSERT_EQ(0, run_tool("format " + b + " --size 3G").status);
    // Image a: channels 0 and 1 on 2026-11-20 (roots 0 and 1, channel 1's
    // locked), then a ten-second clip of channel 3 with an I-frame a second
    // at 08:00, 09:00, 10:00 and 11:00 of 2026-11-21 (root 2, segments 0 to
    // 3) and at midnight of 2026-11-22 (root 3), and at 12:00 of 2026-11-21
    // with an I-frame every six seconds (segment 4, which ends at its last
    // I-frame, 12:00:06). Image b, disk 1 of the
    // group: channel 0 on 2026-11-19.
    const std::string small = " --channels 2 --seconds 10 --bitrate 64000 --start 2026-11-20T08:00:00";
    ASSERT_EQ(0, run_tool("record " + a + small).status);
    ASSERT_EQ(0, run_tool("lock " + a + " --id 0:1:0").status);
    ASSERT_EQ(0, run_tool("record " + b + " --channels 1 --seconds 10 --bitrate 64000 "
                          "--start 2026-11-19T08:00:00").status);
    SyntheticH264Config config;
    config.frames = 250;
    const SyntheticH264 clip = make_synthetic_h264(config);
    const std::string clip_path = dir.path("clip.h264");
    write_file(clip_path, clip.bytes);
    for (const char* start : {"2026-11-21T08:00:00", "2026-11-21T09:00:00", "2026-11-21T10:00:00",
                              "2026-11-21T11:00:00", "2026-11-22T00:00:00"})
        ASSERT_EQ(0, run_tool("record " + a + " --h264 " + clip_path + " --channel 3 --start " +
                              start).status);
    config.gop = 150;
    const SyntheticH264 sparse = make_synthetic_h264(config);
    write_file(clip_path, sparse.bytes);
    ASSERT_EQ(0, run_tool("record " + a + " --h264 " + clip_path + " --channel 3 --start "
                          "2026-11-21T12:00:00").status);

    // What a piece holds as ls counts it: the frames, 36 bytes around each
    // payload.
    auto stored = [](const SyntheticH264& stream, size_t from, size_t to) {
        return std::to_string(units_bytes(stream, from, to).size() + (to - from) * 36);
    };
    const std::string range = b + " --channel 3 --from 2026-11-21T";
    struct Case {
        std::string args;  // after IMAGE a
        bool ok;
        std::string says;
        std::string reads;           // channel 3 exported by time afterwards ...
        std::vector<uint8_t> bytes;  // ... is this, or finds nothing when empty
    } const cases[] = {
        // Inside: from the I-frame at 08:00:03 up to the one at 08:00:06;
        // the head becomes a piece of its own, the tail keeps the segment.
        {range + "08:00:03 --to 2026-11-21T08:00:06", true,
         "0:2:0 stretch taken: 2026-11-21 08:00:00-08:00:09 lost 08:00:03 up to 08:00:06, " +
             stored(clip, 75, 150) + " bytes; pieces left: 0:2:6 08:00:00-08:00:03 (" +
             stored(clip, 0, 75) + " bytes), 0:2:0 08:00:06-08:00:09 (" + stored(clip, 150, 250) +
             " bytes)",
         "2026-11-21T08:00:00 --to 2026-11-21T08:00:09",
         joined(units_bytes(clip, 0, 75), units_bytes(clip, 150, 250))},
        {range + "08:30:00 --to 2026-11-21T09:00:04", true,
         "0:2:1 head cut: 2026-11-21 09:00:00-09:00:09 is now 0:2:1 09:00:04-09:00:09",
         "2026-11-21T09:00:00 --to 2026-11-21T09:00:09", units_bytes(clip, 100, 250)},
        {range + "10:00:07 --to 2026-11-21T10:30:00", true,
         "0:2:2 tail cut: 2026-11-21 10:00:00-10:00:09 is now 0:2:2 10:00:00-10:00:07",
         "2026-11-21T10:00:00 --to 2026-11-21T10:00:09", units_bytes(clip, 0, 175)},
        {range + "10:59:00 --to 2026-11-21T11:00:30", true,
         "0:2:3 gone: 2026-11-21 11:00:00-11:00:09, " + stored(clip, 0, 250) + " bytes",
         "2026-11-21T11:00:00 --to 2026-11-21T11:00:09", {}},
        // Over midnight: the next day's clip loses its first two seconds.
        {range + "23:00:00 --to 2026-11-22T00:00:02", true, "0:3:0 head cut",
         "2026-11-22T00:00:00 --to 2026-11-22T00:00:09", units_bytes(clip, 50, 250)},
        // The 12:00 clip loses its tail from its last I-frame on; then it
        // has no I-frame left to cut at from 12:00:03 on. The tail cut
        // segment of 10:00 now ends at 10:00:07, and a range from then on
        // meets nothing of it.
        {range + "12:00:03 --to 2026-11-21T12:30:00", true,
         "0:2:4 tail cut: 2026-11-21 12:00:00-12:00:06 is now 0:2:4 12:00:00-12:00:06 (" +
             stored(sparse, 0, 150) + " bytes)",
         "2026-11-21T12:00:00 --to 2026-11-21T12:00:09", units_bytes(sparse, 0, 150)},
        {range + "12:00:03 --to 2026-11-21T12:30:00", false,
         "0:2:4 left: 2026-11-21, 12:00:00-12:00:06; it has no I-frame from 12:00:03 on to cut its "
         "tail at",
         "", {}},
        {range + "10:00:07 --to 2026-11-21T10:30:00", false, "no recordings", "", {}},
        {b + " --channel 1 --from 2026-11-20T00:00:00 --to 2026-11-20T23:00:00", false,
         "0:1:0 left: 2026-11-20, 08:00:00-08:00:09; it is locked", "", {}},
        {range + "09:00:00 --to 2026-11-21T08:00:00", false, "--to is earlier than --from", "", {}},
        {range + "09:00:00 --to 2026-11-21T09:00:00", false, "to itself is empty", "", {}},
        {b + " --channel 3 --from 2026-11-23T00:00:00 --to 2026-11-24T00:00:00", false,
         "no recordings", "", {}},
        {range + "08:00:00 --to 2026-11-21T12:00:00 --type 1", false, "no recordings", "", {}},
        {range + "08:00:00 --to 2026-11-21T12:00:00 --type 64", false, "--type takes 0 to 63", "", {}},
        {b + " --channel 32 --from 2026-11-21T08:00:00 --to 2026-11-21T09:00:00", false,
         "--channel C (0 to 31)", "", {}},
        {b + " --channel 3 --from 2026-11-21 --to 2026-11-22", false, "YYYY-MM-DDTHH:MM:SS", "", {}},
        {"--id 0:2:0 --channel 3", false, "one of them", "", {}},
        {b + " --before 2026-11-19", false, "nothing was recorded before 2026-11-19", "", {}},
        {b + " --before 2026-11-32", false, "--before takes YYYY-MM-DD", "", {}},
        // The sweep: both images' days before 2026-11-21, the locked one left.
        {b + " --before 2026-11-21", true,
         "stayed: 0:1:0 channel 1, stream 0, 2026-11-20 08:00:00-08:00:09, 79840 bytes (locked)\n"
         "swept the days before 2026-11-21 in 2 calls: 2 segments gone (159680 bytes), 1 stayed",
         "", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        run_verb_case("delete", a, c.args, c.ok, c.says);
        if (c.reads.empty())
            continue;
        const std::string out = dir.path("out.h264");
        CommandResult exp = run_tool("export " + a + " --channel 3 --out " + out + " --from " + c.reads);
        EXPECT_EQ(!c.bytes.empty(), exp.status == 0) << exp.output;
        if (!c.bytes.empty()) {
            EXPECT_EQ(c.bytes, read_file(out));
        }
    }
    CommandResult ls = run_tool("ls " + a + " " + b);
    EXPECT_TRUE(contains(ls.output, "  0:1:0 ") && !contains(ls.output, "  0:0:0 ") &&
                !contains(ls.output, "  1:0:0 ") && contains(ls.output, "\n7 segments\n"))
        << ls.output;
}

// The lock column ("yes" or "no") of segment `id` in what ls prints, or ""
// when ls does not list it.
std::string listed_lock(const std::string& ls_output, const std::string& id)
{
    const size_t at = ls_output.find("  " + id + " ");
    if (at == std::string::npos)
        return "";
    const size_t end = ls_output.find('\n', at);
    const std::string row = ls_output.substr(at, end - at);
    return row.substr(row.find_last_of(' ') + 1);
}

TEST(Tool, LockBySegmentIdAndByTimeAndMarkRecordTypes)
{
    ScratchDir dir;
    const std::string image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 3G").status);
    ASSERT_EQ(0, run_tool("record " + image + " --channels 2 --seconds 10 --bitrate 64000 "
                          "--start 2026-11-21T08:00:00").status);
    ASSERT_EQ(0, run_tool("delete " + image + " --id 0:1:0").status);

    struct Case {
        std::string args;
        bool ok;
        const char* says;
        const char* lock_after;  // ls's lock column of 0:0:0 after the call
        const char* verb = "lock";
    } const cases[] = {
        {"--id 0:0:0", true,
         "locked segment 0:0:0: channel 0, 2026-11-21 08:00:00 to 08:00:09, 79840 bytes, lock type "
         "0x00000001; overwrite passes it over",
         "yes"},
        {"--id 0:0:0 --number 3", true, "lock type 0x00000004", "yes"},  // the type is replaced
        {"--id 0:0:0 --unlock", true, "unlocked segment 0:0:0: channel 0", "no"},
        {"--id 0:0:0 --number 40", true, "lock type 0x00000000", "yes"},  // no bit, still locked
        {"--id 0:0:0 --unlock", true, "unlocked segment 0:0:0", "no"},
        {"--id 0:1:0", false, "there is no segment 0:1:0", "no"},  // deleted
        {"--id 0:0:9", false, "there is no segment 0:0:9", "no"},
        {"--id 1:0:0", false, "--id names disk 1", "no"},
        {"--id 0:0:0 --unlock --number 2", false, "not both", "no"},
        {"--id 0:0:0 --number 0", false, "--number takes 1 to 255", "no"},
        {"--id 0:0", false, "lock needs --id HDD:ROOT:SEG", "no"},
        // By time: 08:00:03 to 08:00:06 splits 0:0:0 into three pieces, the
        // middle one locked; 0:0:0 keeps the tail.
        {"--channel 0 --from 2026-11-21T08:00:03 --to 2026-11-21T08:00:06 --number 2", true,
         "0:0:2 2026-11-21 08:00:00-08:00:03 stream 0, 23952 bytes: unlocked\n"
         "0:0:1 2026-11-21 08:00:03-08:00:06 stream 0, 23952 bytes: locked, lock type 0x00000002 "
         "(in the range)\n0:0:0 2026-11-21 08:00:06-08:00:09 stream 0, 31936 bytes: unlocked\n"
         "1 piece in the range",
         "no"},
        {"--channel 0 --from 2026-11-21T08:00:03 --to 2026-11-21T08:00:06 --record-type 5 --alarm 0x4",
         true,
         "0:0:2 2026-11-21 08:00:00-08:00:03 stream 0, 23952 bytes: record type 0, alarm "
         "0x0000000000000000\n0:0:1 2026-11-21 08:00:03-08:00:06 stream 0, 23952 bytes: record type "
         "5, alarm 0x0000000000000004 (in the range)",
         "no", "mark"},
        {"--channel 0 --from 2026-11-21T08:00:03 --to 2026-11-21T08:00:06 --unlock", true,
         "0:0:1 2026-11-21 08:00:03-08:00:06 stream 0, 23952 bytes: unlocked (in the range)", "no"},
        {"--channel 0 --from 2026-11-21T08:00:06 --to 2026-11-21T08:00:03", false,
         "--to is earlier than --from", "no"},
        {"--channel 1 --from 2026-11-21T08:00:00 --to 2026-11-21T08:00:09", false, "no recordings",
         "no"},
        {"--channel 0 --from 2026-11-21T08:00:00 --to 2026-11-21T08:00:09 --record-type 16", false,
         "--record-type R (0 to 15)", "no", "mark"},
        {"--channel 0 --from 2026-11-21T08:00:03 --to 2026-11-21T08:00:03 --record-type 1", false,
         "to itself is empty", "no", "mark"},
        {"--channel 32 --from 2026-11-21T08:00:00 --to 2026-11-21T08:00:09", false,
         "--channel C (0 to 31)", "no"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        run_verb_case(c.verb, image, c.args, c.ok, c.says);
        EXPECT_EQ(c.lock_after, listed_lock(run_tool("ls " + image).output, "0:0:0"));
    }
}

// Sums the bytes column of the segments ls lists unlocked.
unsigned long long unlocked_bytes(const std::string& ls_output)
{
    unsigned long long total = 0;
    size_t at = 0;
    while ((at = ls_output.find('\n', at)) != std::string::npos) {
        char id[32], date[16], start[16], end[16], lock[8];
        unsigned channel, stream, record_type;
        unsigned long long bytes;
        if (sscanf(ls_output.c_str() + ++at, " %31s %15s %u %u %15s %15s %llu %u %7s", id, date,
                   &channel, &stream, start, end, &bytes, &record_type, lock) == 9 &&
            std::string(lock) == "no")
            total += bytes;
    }
    return total;
}

TEST(Tool, RecordWithOverwriteRemovesTheOldestAndKeepsTheLocked)
{
    ScratchDir dir;
    const std::string image = dir.path("small.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 2G").status);  // 382 free blocks of 4 MiB
    ASSERT_EQ(0, run_tool("record " + image + " --channels 1 --seconds 10 --bitrate 64000 "
                          "--start 2026-11-24T08:00:00").status);
    ASSERT_EQ(0, run_tool("lock " + image + " --id 0:0:0").status);
    // A reserve of 740 MiB: passes start once less than 1504 MiB of the 1516
    // is free, three blocks into the 75 MB (ten segments of 30 s) that follow.
    CommandResult rec = run_tool("record " + image + " --overwrite --channels 1 --seconds 300 "
                                 "--bitrate 2000000 --segment-seconds 30 --reserve 740M "
                                 "--start 2026-11-24T09:00:00");
    ASSERT_EQ(0, rec.status) << rec.output;
    EXPECT_TRUE(contains(rec.output, "reserve 740 MiB; a disk records while more than 748 MiB is "
                                     "free; passes remove 16 MiB at a time"))
        << rec.output;
    EXPECT_TRUE(contains(rec.output, "0:0:1 gone (channel 0 09:00:00-09:00:29, ")) << rec.output;
    unsigned long long recorded = 0, removed = 0;
    unsigned long passes = 0, removing = 0, gone = 0, trimmed = 0;
    const size_t summary = rec.output.find("(10 segments): ");
    const size_t at = rec.output.find("overwrite: ");
    ASSERT_TRUE(summary != std::string::npos && at != std::string::npos) << rec.output;
    ASSERT_EQ(1, sscanf(rec.output.c_str() + summary, "(10 segments): %llu bytes", &recorded));
    ASSERT_EQ(5, sscanf(rec.output.c_str() + at,
                        "overwrite: %lu passes run, %lu removed recordings: %lu segments gone "
                        "whole, %lu trimmed, %llu bytes",
                        &passes, &removing, &gone, &trimmed, &removed));
    EXPECT_LE(2u, removing);
    EXPECT_LE(removing, passes);
    EXPECT_LE(3u, gone);
    EXPECT_LT(recorded / 2, removed);

    // The locked segment of 08:00 stays; the oldest recordings went, the
    // newest is there, and every byte recorded is either listed or was
    // reported removed.
    CommandResult ls = run_tool("ls " + image);
    ASSERT_EQ(0, ls.status) << ls.output;
    EXPECT_EQ("yes", listed_lock(ls.output, "0:0:0")) << ls.output;
    EXPECT_TRUE(contains(ls.output, "08:00:00  08:00:09")) << ls.output;
    EXPECT_FALSE(contains(ls.output, "09:00:00  ")) << ls.output;
    EXPECT_TRUE(contains(ls.output, "09:04:30  09:04:59 ")) << ls.output;
    EXPECT_EQ(recorded, unlocked_bytes(ls.output) + removed) << ls.output << rec.output;

    const std::string bad_calls[] = {
        "record " + image + " " + image + " --channels 1 --seconds 5",  // two images, no overwrite
        "record " + image + " --channels 1 --seconds 5 --reserve 100M",
        "record " + image + " --overwrite --channels 1 --seconds 5 --reserve 10M",
        "record " + image + " --overwrite --channels 1 --seconds 5 --segment-seconds 0",
        "record " + image + " --overwrite --channels 1 --seconds 5 --cut-after-writes 9",
    };
    for (const std::string& args : bad_calls) {
        SCOPED_TRACE(args);
        CommandResult run = run_tool(args);
        EXPECT_NE(0, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, "qzfs: ")) << run.output;
    }
}

// A recorded image with its block table damaged: info tells where the
// mount loaded the table from and what it mended; recover mends an image
// that no longer mounts, refusing (and writing nothing) without --scan when
// no key info block is left. Afterwards the recordings list as before and
// nothing is left to mend.
TEST(Tool, InfoAndRecoverReportTheKeyInfoRepair)
{
    ScratchDir dir;
    const std::string pristine = dir.path("pristine.img"), image = dir.path("rec.img");
    ASSERT_EQ(0, run_tool("format " + pristine + " --size 3G").status);
    ASSERT_EQ(0, run_tool("record " + pristine +
                          " --channels 2 --seconds 10 --bitrate 64000 --start 2026-11-21T08:00:00")
                     .status);
    const CommandResult listed = run_tool("ls " + pristine);
    const CommandResult info = run_tool("info " + pristine);
    ASSERT_EQ(0, info.status) << info.output;
    unsigned long bs = 0, key = 0, bak = 0;
    ASSERT_EQ(1, sscanf(info.output.c_str() + info.output.find("block size:"), "block size: %lu", &bs));
    ASSERT_EQ(1, sscanf(info.output.c_str() + info.output.find("key block:"), "key block: %lu", &key));
    ASSERT_EQ(1, sscanf(info.output.c_str() + info.output.find("backup key block:"),
                         "backup key block: %lu", &bak));
    unsigned long data = key + 1;
    while (read_table_record(pristine, bs, key, data).block_type != QZFS_BLOCK_DATA)
        ASSERT_LT(++data, bak) << "no data block";
    const auto record = [&](unsigned long k) { return table_record_offset(bs, k, data) + 4; };
    const auto header = [&](unsigned long k) {
        return (unsigned long long)k * bs + QZFS_KEY_HEADER_OFFSET + 40;
    };
    const std::string K = std::to_string(key), B = std::to_string(bak);
    struct Case {
        const char* what;
        std::vector<unsigned long long> damaged;
        std::string run;  // the verb and its options
        bool ok;
        std::string says;
    } const cases[] = {
        {"one record in both copies", {record(key), record(bak)}, "info", true,
         "table loaded:     block " + K + " (the primary copy)\nmount repaired:   both copies "
         "damaged (1 and 1 record): merged into block " + K + ", 0 records from the other copy, "
         "1 from the blocks' own heads, 0 marked bad; backup rewritten at block " + B + "\n"},
        {"the primary's header", {header(key)}, "info", true,
         "table loaded:     block " + B + " (the backup copy)\nmount repaired:   backup rewritten "
         "at block " + K + " from the copy at block " + B + "\n"},
        {"both headers, no scan", {header(key), header(bak)}, "recover", false,
         "nothing was written; if it was formatted, run it again with --scan"},
        {"both headers, scan", {header(key), header(bak)}, "recover --scan", true,
         ": table loaded from block " + K + " (the primary copy)\nno key info block: new table at "
         "block " + K + " from the blocks' own records ("},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(0, run_command("cp --sparse=always " + pristine + " " + image).status);
        for (unsigned long long at : c.damaged)
            damage_byte(image, at);
        const std::string verb = c.run.substr(0, c.run.find(' '));
        run_verb_case(verb, image, c.run.substr(verb.size()), c.ok, c.says);
        if (!c.ok) {
            EXPECT_TRUE(contains(run_tool("info " + image).output, "see qzfs recover"));
            continue;
        }
        EXPECT_EQ(listed.output, run_tool("ls " + image).output);
        EXPECT_TRUE(contains(run_tool("recover " + image).output, "\nnothing to repair\n"));
        const CommandResult settled = run_tool("info " + image);
        EXPECT_TRUE(contains(settled.output, "key block:        " + K + "\nbackup key block: " + B +
                                                 "\n")) << settled.output;
        EXPECT_TRUE(contains(settled.output, "mount repaired:   nothing\n")) << settled.output;
    }
}

// The number after `label` in `text`, or 0.
unsigned long number_after(const std::string& text, const std::string& label)
{
    const size_t at = text.find(label);
    return at == std::string::npos ? 0 : strtoul(text.c_str() + at + label.size(), nullptr, 10);
}

// Adds `delta` to byte `field` of the index node at byte `node` of the image
// and to the node's byte sum (its byte 1), so that the node still reads as
// sound while it says something else.
void shift_node_byte(const std::string& image, unsigned long long node, unsigned field, int delta)
{
    std::vector<unsigned char> bytes = read_bytes(image, node, field + 1);
    bytes[field] = (unsigned char)(bytes[field] + delta);
    bytes[1] = (unsigned char)(bytes[1] + delta);
    write_bytes(image, node, bytes);
}

TEST(Tool, CheckFindsDamageAndNeverWritesTheImage)
{
    ScratchDir dir;
    const std::string pristine = dir.path("pristine.img"), image = dir.path("damaged.img");
    ASSERT_EQ(0, run_tool("format " + pristine + " --size 3G").status);
    ASSERT_EQ(0, run_tool("record " + pristine +
                          " --channels 2 --seconds 10 --bitrate 64000 --start 2026-11-21T08:00:00")
                     .status);
    const std::string index = run_tool("info " + pristine + " --index").output;
    const std::string iframes = run_tool("info " + pristine + " --segments 0 --iframes").output;
    const unsigned long bs = number_after(index, "block size:"),
                        bak = number_after(index, "backup key block:"),
                        key = number_after(index, "key block:"),
                        root_block = number_after(index, "root index (block "),
                        segment_block = number_after(index, "0x0001 "),
                        iframe_block = number_after(iframes, "i-frame index (first block "),
                        data = number_after(iframes, "i-frame  08:00:00 ");
    ASSERT_TRUE(bs != 0 && key != 0 && bak != 0 && root_block != 0 && segment_block != 0 &&
                iframe_block != 0 && data != 0)
        << index << iframes;
    ASSERT_EQ(QZFS_BLOCK_DATA, read_table_record(pristine, bs, key, data).block_type);
    unsigned long unused = data + 1;
    while (read_table_record(pristine, bs, key, unused).block_type != QZFS_BLOCK_FREE)
        unused++;
    // The first node of each index; I-frame entry 1 is the first I-frame.
    const unsigned long long nodes = 4608, root0 = (unsigned long long)root_block * bs + nodes,
                             segment0 = (unsigned long long)segment_block * bs + nodes,
                             iframe1 = (unsigned long long)iframe_block * bs + nodes + 29;
    // A free block gets the record of the I-frame index block in a table:
    // an index block that nothing owns.
    const auto own_record = [&](unsigned long copy) {
        write_bytes(image, table_record_offset(bs, copy, unused),
                    read_bytes(pristine, table_record_offset(bs, copy, iframe_block), 32));
    };
    struct Case {
        const char* what;
        std::function<void()> damage;
        std::string says;
    } const cases[] = {
        {"sound", [] {}, ": 0 problems; "},
        {"a block head's record", [&] { damage_byte(image, (unsigned long long)data * bs + 8); },
         "block " + std::to_string(data) + ": the key table, backup table and block head disagree"},
        {"a record of the backup table",
         [&] { damage_byte(image, table_record_offset(bs, bak, data) + 4); },
         ": the mount repaired the key info: backup rewritten at block " + std::to_string(bak)},
        {"a segment's end time", [&] { shift_node_byte(image, segment0, 7, 1); },
         "segment 0:0: its end time 08:00:10 is not between the times of its last I-frame "
         "(08:00:09) and of the next one (08:00:09)"},
        {"a segment's length", [&] { shift_node_byte(image, segment0, 35, 1); },
         "segment 0:0: its length 16857056 runs past its data blocks"},
        {"a root's record types", [&] { shift_node_byte(image, root0, 7, 2); },
         ": the mount repaired: "},
        {"an I-frame entry's offset", [&] { shift_node_byte(image, iframe1, 9, 1); },
         "segment 0:0: an I-frame entry points at no I-frame of channel 0 (block " +
             std::to_string(data) + ", offset 4097)"},
        {"an index block nothing owns", [&] { own_record(key), own_record(bak); },
         ": 1 index blocks that nothing owns (a leak a power cut can leave)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(0, run_command("cp --sparse=always " + pristine + " " + image).status);
        c.damage();
        const std::string before = image_fingerprint(image);
        const CommandResult run = run_tool("check " + image);
        // A leaked index block is reported, and is no fault.
        const bool sound = c.what == std::string("sound") ||
                           c.what == std::string("an index block nothing owns");
        EXPECT_EQ(sound ? 0 : 1, run.status) << run.output;
        EXPECT_TRUE(contains(run.output, c.says)) << run.output;
        EXPECT_EQ(before, image_fingerprint(image)) << "check wrote to the image";
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

TEST(Tool, LsCalendarAndIframeExportShowWhatWasRecorded)
{
    ScratchDir dir;
    const std::string a = dir.path("a.img"), b = dir.path("b.img");
    ASSERT_EQ(0, run_tool("format " + a + " --size 3G").status);
    ASSERT_EQ(0, run_tool("format " + b + " --size 3G").status);
    const std::string small = " --bitrate 64000 --seconds 10";
    ASSERT_EQ(0, run_tool("record " + a + " --channels 2" + small + " --start 2026-11-20T08:00:00").status);
    ASSERT_EQ(0, run_tool("record " + a + " --channels 2" + small + " --start 2026-11-22T08:00:00").status);
    CommandResult rec = run_tool("record " + b + " --channels 1" + small + " --start 2026-11-21T09:30:00");
    ASSERT_EQ(0, rec.status) << rec.output;
    unsigned root = 0, segment = 0;
    ASSERT_EQ(2, sscanf(rec.output.substr(rec.output.find("channel 0:")).c_str(),
                        "channel 0: root index entry %u, segment %u", &root, &segment));

    // Both images as one group: disk 0 and disk 1.
    CommandResult ls = run_tool("ls " + a + " " + b);
    ASSERT_EQ(0, ls.status) << ls.output;
    EXPECT_TRUE(contains(ls.output, "5 segments")) << ls.output;
    const std::string on_b = "1:" + std::to_string(root) + ":" + std::to_string(segment);
    EXPECT_TRUE(contains(ls.output, on_b + " ")) << ls.output;
    ls = run_tool("ls " + a + " " + b + " --date 2026-11-21");
    EXPECT_TRUE(contains(ls.output, "1 segment\n") && contains(ls.output, "09:30:00")) << ls.output;
    ls = run_tool("ls " + a + " " + b + " --channel 1");
    EXPECT_TRUE(contains(ls.output, "2 segments")) << ls.output;
    EXPECT_NE(0, run_tool("ls " + a + " --date 2026-13-01").status);

    CommandResult cal = run_tool("calendar " + a + " " + b + " --month 2026-11");
    ASSERT_EQ(0, cal.status) << cal.output;
    EXPECT_TRUE(contains(cal.output, "recorded days: 20, 21, 22")) << cal.output;
    cal = run_tool("calendar " + a + " --month 2026-11 --channel 1");
    EXPECT_TRUE(contains(cal.output, "recorded days: 20, 22")) << cal.output;
    cal = run_tool("calendar " + a + " " + b + " --month 2026-12");
    EXPECT_TRUE(contains(cal.output, "recorded days: none")) << cal.output;
    EXPECT_NE(0, run_tool("calendar " + a).status);

    // Ten seconds with an I-frame each: ten I-frames, five with --skip 1,
    // and the same frames backward. Alone, image b is disk 0 again.
    const std::string id = " --id 0:" + std::to_string(root) + ":" + std::to_string(segment);
    const std::string fwd = dir.path("fwd"), back = dir.path("back"), half = dir.path("half");
    CommandResult ex = run_tool("export " + b + id + " --iframes --raw --out " + fwd);
    ASSERT_EQ(0, ex.status) << ex.output;
    EXPECT_TRUE(contains(ex.output, "exported 10 frames (10 I-frames)")) << ex.output;
    ex = run_tool("export " + b + id + " --iframes --skip 1 --raw --out " + half);
    EXPECT_TRUE(contains(ex.output, "exported 5 frames")) << ex.output;
    ex = run_tool("export " + b + id + " --iframes --reverse --raw --out " + back);
    ASSERT_EQ(0, ex.status) << ex.output;
    EXPECT_TRUE(contains(ex.output, "exported 10 frames")) << ex.output;
    const std::vector<uint8_t> forward = read_file(fwd), backward = read_file(back);
    ASSERT_EQ(forward.size(), backward.size());
    EXPECT_NE(forward, backward) << "the same frames in the other order";
    ex = run_tool("export " + b + " --channel 0 --from 2026-11-21T09:30:03 --to 2026-11-21T09:30:06"
                  " --iframes --out " + half);
    EXPECT_TRUE(contains(ex.output, "exported 4 frames")) << ex.output;
    EXPECT_NE(0, run_tool("export " + b + id + " --skip 2 --out " + half).status);
}

namespace {

// `size` bytes that differ from those of another `seed`.
std::vector<uint8_t> pattern_bytes(size_t size, uint32_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (uint8_t& b : bytes) {
        seed = seed * 1103515245u + 12345u;
        b = uint8_t(seed >> 16);
    }
    return bytes;
}

} // namespace

// Files go in and come out in separate runs of the tool, through named
// files and through standard input and output; a 4 MiB block keeps 4 KiB
// for its head, so 4190208 bytes fill one block exactly.
TEST(Tool, FilePutAndGetRoundTripsAcrossMounts)
{
    ScratchDir dir;
    const std::string image = dir.path("disk.img");
    ASSERT_EQ(0, run_tool("format " + image + " --size 2G").status);
    const std::string tool = std::string(QZFS_TOOL_PATH) + " ";
    struct Case {
        const char* name;
        size_t size;
        bool piped;  // put from standard input, get to standard output
    };
    const Case cases[] = {
        {"empty", 0, false},
        {"one.block", 4190208, true},
        {"two.blocks", 4190209, false},
        {"video.cfg", 5 * MiB + 123, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string in = dir.path(std::string(c.name) + ".in");
        const std::string out = dir.path(std::string(c.name) + ".out");
        const std::vector<uint8_t> bytes = pattern_bytes(c.size, uint32_t(c.size));
        write_file(in, bytes);
        CommandResult put = c.piped ? run_tool("file " + image + " put " + c.name + " < " + in)
                                    : run_tool("file " + image + " put " + c.name + " --from " + in);
        ASSERT_EQ(0, put.status) << put.output;
        EXPECT_TRUE(contains(put.output, "stored " + std::string(c.name) + ": " +
                                             std::to_string(c.size) + " bytes on disk 0"))
            << put.output;
        // The library's log lines (a mount prints some at level 1) stay out
        // of the file's bytes on standard output.
        CommandResult get =
            c.piped ? run_command("(" + tool + "--debug-level 1 file " + image + " get " + c.name +
                                  " > " + out + ")")
                    : run_tool("file " + image + " get " + c.name + " --to " + out);
        ASSERT_EQ(0, get.status) << get.output;
        EXPECT_TRUE(read_file(out) == bytes) << "the bytes differ, " << file_size(out) << " of "
                                             << c.size;
    }
    CommandResult ls = run_tool("file " + image + " ls");
    ASSERT_EQ(0, ls.status) << ls.output;
    EXPECT_TRUE(contains(ls.output, "       4190209  two.blocks\n")) << ls.output;
    EXPECT_TRUE(contains(ls.output, "4 files, " + std::to_string(2 * 4190208 + 1 + 5 * MiB + 123) +
                                        " bytes\n"))
        << ls.output;

    // put replaces a file of the name; the disk gets its blocks back.
    const std::string small = dir.path("small");
    write_file(small, pattern_bytes(10, 7));
    ASSERT_EQ(0, run_tool("file " + image + " put video.cfg --from " + small).status);
    ASSERT_EQ(0, run_tool("file " + image + " get video.cfg --to " + dir.path("back")).status);
    EXPECT_TRUE(read_file(dir.path("back")) == pattern_bytes(10, 7));
    EXPECT_TRUE(contains(run_tool("file " + image + " ls video").output, "1 file, 10 bytes\n"));
    EXPECT_TRUE(contains(run_tool("check " + image).output, "0 problems")) << "after the files";
}

// ls by a part of the name, mv and rm over two images mounted as one group,
// and the device info of each disk; refused requests say why in one line
// and leave the images as they were.
TEST(Tool, FileLsMvRmAndDeviceInfo)
{
    ScratchDir dir;
    const std::string a = dir.path("a.img"), b = dir.path("b.img");
    ASSERT_EQ(0, run_tool("format " + a + " --size 2G").status);
    ASSERT_EQ(0, run_tool("format " + b + " --size 2G").status);
    const std::string group = a + " " + b;
    const std::string text = dir.path("text");
    write_file(text, std::vector<uint8_t>{'i', 'd', '=', '7', '\n'});
    for (const char* name : {"cam1.conf", "cam2.conf", "users"})
        ASSERT_EQ(0, run_tool("file " + group + " put " + name + " --from " + text).status);

    struct Listing {
        const char* pattern;
        const char* shows;
        const char* hides;
    };
    const Listing listings[] = {
        {"conf", "2 files, 10 bytes\n", "users"},
        {"cam2", "             5  cam2.conf\n", "cam1"},
        {"nothing", "0 files, 0 bytes\n", "conf"},
    };
    for (const Listing& l : listings) {
        SCOPED_TRACE(l.pattern);
        CommandResult ls = run_tool("file " + group + " ls " + l.pattern);
        ASSERT_EQ(0, ls.status) << ls.output;
        EXPECT_TRUE(contains(ls.output, l.shows)) << ls.output;
        EXPECT_FALSE(contains(ls.output, l.hides)) << ls.output;
    }
    ASSERT_EQ(0, run_tool("file " + group + " mv cam2.conf cam3.conf").status);
    ASSERT_EQ(0, run_tool("file " + group + " rm users").status);
    CommandResult ls = run_tool("file " + group + " ls");
    EXPECT_TRUE(contains(ls.output, "  cam1.conf\n             5  cam3.conf\n2 files, 10 bytes\n"))
        << ls.output;

    // The device info, as text and as a hex dump.
    CommandResult info = run_tool("device-info " + a);
    EXPECT_EQ(0, info.status) << info.output;
    EXPECT_TRUE(contains(info.output, "no device info")) << info.output;
    ASSERT_EQ(0, run_tool("device-info " + a + " --set " + text).status);
    info = run_tool("device-info " + a);
    EXPECT_TRUE(contains(info.output, "5 bytes of text\nid=7\n")) << info.output;
    const std::string binary = dir.path("binary");
    write_file(binary, std::vector<uint8_t>{0xde, 0xad, 0x00, 'Q', 0xff});
    ASSERT_EQ(0, run_tool("device-info " + b + " --set " + binary).status);
    info = run_tool("device-info " + b);
    EXPECT_TRUE(contains(info.output, "  00000000  de ad 00 51 ff ")) << info.output;
    EXPECT_TRUE(contains(info.output, "|...Q.|\n")) << info.output;
    EXPECT_TRUE(contains(run_tool("device-info " + a).output, "id=7")) << "a's own is kept";

    // 382 free blocks of 4 MiB, not enough for 1900 MiB.
    const std::string huge = dir.path("huge");
    make_sparse_image(huge, 1900 * MiB);
    const struct {
        std::string args;
        std::string says;
    } refused[] = {
        {"put", "file put takes one NAME"},
        {"put fourteen-chars --from " + text, "a file name takes 1 to 13 characters: 'fourteen-chars'"},
        {"get absent --to " + dir.path("out"), "there is no file absent"},
        {"rm absent", "there is no file absent"},
        {"mv absent other", "there is no file absent"},
        {"mv cam1.conf cam3.conf", "cam3.conf exists already"},
        {"mv cam1.conf", "file mv takes OLD and NEW"},
        {"put big --from " + huge, "big does not fit: 1992294400 bytes need 476 blocks"},
        {"put big --from " + dir.path("none"), "cannot read"},
        {"ls --to x", "unknown option --to"},
    };
    for (const auto& r : refused) {
        SCOPED_TRACE(r.args);
        const std::string before = image_fingerprint(b);
        run_verb_case("file", a, b + " " + r.args, false, "qzfs: " + r.says);
        EXPECT_EQ(before, image_fingerprint(b));
    }
    run_verb_case("device-info", a, "--set " + dir.path("none"), false, "qzfs: cannot read");
    run_verb_case("device-info", a, "--set " + huge, false, "the device info does not fit");
    EXPECT_FALSE(exists(dir.path("out")));
}

namespace {

// A run of the tool with its two outputs apart.
struct SplitRun {
    int status;
    std::string out, err;
};

SplitRun run_tool_apart(const ScratchDir& dir, const std::string& args)
{
    const std::string err = dir.path("stderr.txt");
    CommandResult run =
        run_command("{ " + std::string(QZFS_TOOL_PATH) + " " + args + " 2>" + err + "; }");
    const std::vector<uint8_t> bytes = read_file(err);
    return {run.status, run.output, std::string(bytes.begin(), bytes.end())};
}

// Two channels of three seconds on 2026-11-20 from 08:00:00, the second
// locked, on an image labelled with a quote and a backslash.
std::string recorded_image(const ScratchDir& dir)
{
    const std::string image = dir.path("rec.img");
    EXPECT_EQ(0, run_tool("format " + image + " --size 3G --label 'say \"hi\" \\ there'").status);
    EXPECT_EQ(0, run_tool("record " + image + " --channels 2 --seconds 3 --bitrate 64000 "
                          "--start 2026-11-20T08:00:00").status);
    EXPECT_EQ(0, run_tool("lock " + image + " --id 0:1:0").status);
    return image;
}

// Braces and brackets outside strings pair up, and nothing follows the
// document's one line.
bool one_json_document(const std::string& text)
{
    std::string open;
    bool in_string = false;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        if (in_string) {
            i += c == '\\' ? 1 : 0;
            in_string = c != '"';
        } else if (c == '"') {
            in_string = true;
        } else if (c == '{' || c == '[') {
            open += c;
        } else if (c == '}' || c == ']') {
            if (open.empty() || open.back() != (c == '}' ? '{' : '['))
                return false;
            open.pop_back();
        }
    }
    return !in_string && open.empty() && text.size() > 2 && text[0] == '{' &&
           text.find('\n') == text.size() - 1;
}

} // namespace

TEST(Tool, StandardOutputCarriesOnlyTheToolsOwnOutput)
{
    ScratchDir dir;
    const std::string image = recorded_image(dir);
    for (const std::string verb : {"ls ", "info "}) {
        SCOPED_TRACE(verb);
        const SplitRun quiet = run_tool_apart(dir, verb + image);
        const SplitRun loud = run_tool_apart(dir, "--debug-level 1 " + verb + image);
        ASSERT_EQ(0, quiet.status) << quiet.err;
        ASSERT_EQ(0, loud.status) << loud.err;
        EXPECT_EQ(quiet.out, loud.out);  // the log went elsewhere
        EXPECT_EQ("", quiet.err);
        EXPECT_TRUE(contains(loud.err, "START MOUNT(hdd_id:0)")) << loud.err;
        EXPECT_FALSE(contains(loud.out, "[qzfs")) << loud.out;
    }
    const SplitRun version = run_tool_apart(dir, "--version");
    unsigned major, minor, patch;
    char end = 0;
    EXPECT_EQ(4, sscanf(version.out.c_str(), "qzfs %u.%u.%u%c", &major, &minor, &patch, &end))
        << version.out;
    EXPECT_EQ('\n', end);
    EXPECT_TRUE(contains(run_tool("--help").output, "--version"));
}

TEST(Tool, JsonOfInfoLsCalendarAndCheck)
{
    ScratchDir dir;
    const std::string image = recorded_image(dir);
    const struct {
        std::string args;
        std::vector<std::string> says;
    } cases[] = {
        {"info " + image,
         {"\"block_size\":4194304,\"total_blocks\":752,", "\"label\":\"say \\\"hi\\\" \\\\ there\"",
          "\"version\":\"qzfs4.0\"", "\"mount_repaired\":\"nothing\"", "\"state\":\"clear\"",
          "\"blocks_by_type\":{\"free\":", "\"data\":2,"}},
        {"ls " + image,
         {"{\"id\":\"0:0:0\",\"date\":\"2026-11-20\",\"channel\":0,\"stream_type\":0,\"start\":"
          "\"08:00:00\",\"end\":\"08:00:02\",\"bytes\":23952,\"record_type\":0,\"lock\":false}",
          "\"id\":\"0:1:0\"", "\"lock\":true}", "],\"count\":2}"}},
        {"calendar " + image + " --month 2026-11",
         {"{\"month\":\"2026-11\",\"recorded_days\":[20],\"locked_days\":[20]}"}},
        {"check " + image,
         {"\"checked\":true,", "\"problems\":[],\"problem_count\":0,", "\"roots\":2,\"segments\":2}",
          "\"sound\":true}"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const SplitRun run = run_tool_apart(dir, c.args + " --json");
        ASSERT_EQ(0, run.status) << run.err;
        EXPECT_TRUE(one_json_document(run.out)) << run.out;
        for (const std::string& part : c.says)
            EXPECT_TRUE(contains(run.out, part)) << part << " in " << run.out;
    }
}

TEST(Tool, MissingImageIsNamedAtOnce)
{
    ScratchDir dir;
    const std::string none = dir.path("none.img");
    const std::string calls[] = {
        "info " + none,          "ls " + none,     "calendar " + none + " --month 2026-11",
        "check " + none,         "test " + none,   "export " + none + " --id 0:0:0 --out -",
        "record " + none + " --channels 1 --seconds 1",
        "delete " + none + " --id 0:0:0",         "lock " + none + " --id 0:0:0",
        "file " + none + " ls",  "device-info " + none, "recover " + none, "rebuild " + none,
        "rebuild-shell " + none,
    };
    for (const std::string& args : calls) {
        SCOPED_TRACE(args);
        const SplitRun run = run_tool_apart(dir, "--debug-level 1 " + args);
        EXPECT_EQ(1, run.status);
        EXPECT_EQ("", run.out);
        EXPECT_TRUE(contains(run.err, "qzfs: no such file: " + none)) << run.err;
        // Refused before the library was asked, whose open retries take seconds.
        EXPECT_FALSE(contains(run.err, "START MOUNT")) << run.err;
    }
}

TEST(Tool, ExportToStandardOutputMatchesExportToAFile)
{
    ScratchDir dir;
    const std::string image = recorded_image(dir), file = dir.path("out.bin");
    for (const std::string options : {" --id 0:0:0 --raw", " --id 0:1:0",
                                      " --channel 0 --from 2026-11-20T08:00:00 --to "
                                      "2026-11-20T08:00:02 --iframes"}) {
        SCOPED_TRACE(options);
        ASSERT_EQ(0, run_tool("export " + image + options + " --out " + file).status);
        const std::vector<uint8_t> expected = read_file(file);
        const SplitRun piped = run_tool_apart(dir, "--debug-level 1 export " + image + options +
                                                       " --out -");
        ASSERT_EQ(0, piped.status) << piped.err;
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(std::string(expected.begin(), expected.end()), piped.out);
        EXPECT_TRUE(contains(piped.err, "to standard output")) << piped.err;
    }
}
