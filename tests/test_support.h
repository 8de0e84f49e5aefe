// Helpers the tests share: scratch images, library setup, and small tools
// that read or damage one byte or one record of an image.
#ifndef QZFS_TEST_SUPPORT_H
#define QZFS_TEST_SUPPORT_H

#include "qzfilesystem_api.h"
#include "qzfs_disk_format.h"
#include "qzfs_log.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

class CQzFileSystem;

namespace qzfs_test {

const unsigned long long MiB = 1ULL << 20;
const unsigned long long GiB = 1ULL << 30;
const unsigned long long TiB = 1ULL << 40;

// A temporary directory, removed with everything in it at destruction.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

// Creates (or resizes) a sparse file of `size` bytes.
void make_sparse_image(const std::string& path, unsigned long long size);
unsigned long long file_size(const std::string& path);

std::vector<unsigned char> read_bytes(const std::string& path, unsigned long long offset,
                                      size_t length);
void write_bytes(const std::string& path, unsigned long long offset,
                 const std::vector<unsigned char>& bytes);
// Flips every bit of the byte at `offset`.
void damage_byte(const std::string& path, unsigned long long offset);
// Modification time, allocated blocks and size of a file: any write to an
// image changes it.
std::string image_fingerprint(const std::string& path);

// The table record of `block` in the key info block `key_block`.
_qzfs_block_info_ read_table_record(const std::string& path, unsigned long block_size,
                                    unsigned long key_block, unsigned long block);
// The record at offset 0 of `block` itself.
_qzfs_block_info_ read_block_head(const std::string& path, unsigned long block_size,
                                  unsigned long block);
_qzfs_key_header_ read_key_header(const std::string& path, unsigned long block_size,
                                  unsigned long key_block);
// Byte offset of the table record of `block` in key block `key_block`.
unsigned long long table_record_offset(unsigned long block_size, unsigned long key_block,
                                       unsigned long block);

// Initialises the library quietly (debug level 0) and tears it down after.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    ScratchDir scratch_;
};

// Changes gQzfsConfig for one test and makes the node caches anew with it;
// the old settings and fresh caches come back at destruction.
class ScopedCacheConfig {
public:
    ScopedCacheConfig(uint32_t root_cache, uint32_t root_step, uint32_t ssi_cache,
                      uint32_t ssi_step);
    ~ScopedCacheConfig();

private:
    _qzfs_global_config_ saved_;
};

// A test on one disk image, mounted as disk 0 with fs_ its file system.
class MountedImageTest : public LibraryTest {
protected:
    void format(unsigned long long size = 3 * GiB);
    void mount();
    void umount();
    void remount();

    std::string image_ = scratch_.path("disk.img");
    CQzFileSystem* fs_ = nullptr;
};

// Gives root `ri` a normal segment made from `para` and closes it with
// `len` bytes, as a finished recording is left: the mount keeps it, and the
// root with it (a root without such a segment goes at the next mount).
// Returns the segment's index.
uint32_t add_closed_segment(CQzFileSystem* fs, uint32_t ri, const _qzfs_k4t_create_ss_para_& para,
                            uint32_t start_iframe = 1, uint64_t len = 1000);

// Formats a fresh sparse image of `size` bytes at `path`; returns the
// library's result.
int format_image(const std::string& path, unsigned long long size, const char* label = nullptr);

// Output (standard error included) and exit status of a shell command.
struct CommandResult {
    int status = -1;
    std::string output;
};
CommandResult run_command(const std::string& command);

// Runs `fn` and returns what it printed to standard output.
template <typename Fn> std::string captured_stdout(Fn fn)
{
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

// Runs `fn` (at debug level `level`, unless it is negative), expecting it to
// return `want` (a pointer counts as its address) and to print `message` on
// the way. Returns everything it printed.
template <typename Fn>
std::string expect_result_and_log(long long want, const std::string& message, Fn fn, int level = -1)
{
    const uint32_t saved = g_qzfs_debug_level;
    if (level >= 0)
        g_qzfs_debug_level = (uint32_t)level;
    long long got = 0;
    std::string out = captured_stdout([&] { got = (long long)fn(); });
    g_qzfs_debug_level = saved;
    EXPECT_EQ(want, got) << "the call that should print \"" << message << "\"";
    EXPECT_NE(std::string::npos, out.find(message)) << "no \"" << message << "\" in:\n" << out;
    return out;
}

} // namespace qzfs_test

#endif
