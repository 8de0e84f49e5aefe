// Replays the fuzz targets of tests/fuzz over their seed inputs and over the
// inputs that once found a bug (tests/fuzz/regressions/<target>/): each must
// run through without a crash, a sanitizer report or an exit.
#include "test_support.h"

#include <algorithm>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int fuzz_mount_input(const uint8_t* data, size_t size);
extern "C" int fuzz_frames_input(const uint8_t* data, size_t size);
extern "C" int fuzz_api_input(const uint8_t* data, size_t size);

namespace {

// The files of `dir`, sorted; none when it is missing.
std::vector<std::string> files_in(const std::string& dir)
{
    std::vector<std::string> files;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                files.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

class FuzzReplay : public qzfs_test::LibraryTest {
protected:
    // Runs `target` over every seed and regression input of `name`.
    void replay(const std::string& name, int (*target)(const uint8_t*, size_t))
    {
        const std::string root = QZFS_FUZZ_INPUTS;
        std::vector<std::string> inputs = files_in(root + "/corpus/" + name);
        ASSERT_FALSE(inputs.empty()) << "no seed inputs for " << name;
        for (const std::string& file : files_in(root + "/regressions/" + name))
            inputs.push_back(file);
        for (const std::string& file : inputs) {
            SCOPED_TRACE(file);
            std::ifstream in(file, std::ios::binary);
            const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                             std::istreambuf_iterator<char>()};
            ASSERT_TRUE(in.good() || in.eof());
            qzfs_test::captured_stdout([&] { EXPECT_EQ(0, target(bytes.data(), bytes.size())); });
        }
    }
};

TEST_F(FuzzReplay, MountOfDamagedImages) { replay("fuzz_mount", fuzz_mount_input); }
TEST_F(FuzzReplay, FrameParserAndH264Splitter) { replay("fuzz_frames", fuzz_frames_input); }
TEST_F(FuzzReplay, ExportedCallsWithHostileParameters) { replay("fuzz_api", fuzz_api_input); }

} // namespace
