// The qzfs host tool, run as a user runs it.
#include "test_support.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace qzfs_test;

namespace {

struct ToolRun {
    int status;
    std::string out;  // standard output and standard error together
};

ToolRun run_tool(const std::string& args)
{
    std::string command = std::string(QZFS_TOOL_PATH) + " " + args + " 2>&1";
    ToolRun run{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return run;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0)
        run.out.append(buf, n);
    int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(Tool, FormatCreatesASparseImageAndInfoDescribesIt)
{
    ScratchDir dir;
    std::string image = dir.path("rec.img");
    ToolRun format = run_tool("format " + image + " --size 3G --label 'lobby cam'");
    ASSERT_EQ(0, format.status) << format.out;
    EXPECT_EQ(3 * GiB, file_size(image));
    struct stat st;
    ASSERT_EQ(0, stat(image.c_str(), &st));
    EXPECT_LT((unsigned long long)st.st_blocks * 512, 64 * MiB);  // sparse

    ToolRun info = run_tool("info " + image);
    ASSERT_EQ(0, info.status) << info.out;
    EXPECT_TRUE(contains(info.out, "block size:       4194304 (4 MiB)\n")) << info.out;
    EXPECT_TRUE(contains(info.out, "total blocks:     752\n")) << info.out;
    EXPECT_TRUE(contains(info.out, "free blocks:      638\n")) << info.out;
    EXPECT_TRUE(contains(info.out, "key block:        65\n")) << info.out;
    EXPECT_TRUE(contains(info.out, "backup key block: 465\n")) << info.out;
    EXPECT_TRUE(contains(info.out, "label:            lobby cam\n")) << info.out;
    EXPECT_TRUE(contains(info.out, "version:          qzfs4.0\n")) << info.out;

    // The debug level reaches the library.
    ToolRun loud = run_tool("--debug-level 1 info " + image);
    EXPECT_EQ(0, loud.status);
    EXPECT_TRUE(contains(loud.out, "START MOUNT(hdd_id:0)")) << loud.out;
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
        ToolRun run = run_tool(args);
        EXPECT_NE(0, run.status) << run.out;
        // The tool's own reason is one line beginning "qzfs: ".
        size_t at = run.out.find("qzfs: ");
        ASSERT_NE(std::string::npos, at) << run.out;
        EXPECT_EQ(run.out.size() - 1, run.out.find('\n', at)) << run.out;
    }
    ToolRun help = run_tool("--help");
    EXPECT_EQ(0, help.status);
    EXPECT_TRUE(contains(help.out, "format IMAGE"));
}

} // namespace
