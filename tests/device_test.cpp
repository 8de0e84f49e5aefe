// Device layer: checksums, geometry and partition arithmetic, the I/O handle
// on an image, the short-read rule of the disk object, locks, byte order.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfs_device.h"

#include <chrono>
#include <cstring>
#include <list>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace qzfs_test;

namespace {

static size_t count_of(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

static std::list<unsigned long> block_range(unsigned long first, unsigned long last)
{
    std::list<unsigned long> out;
    for (unsigned long b = first; b <= last; b++)
        out.push_back(b);
    return out;
}

// ------------------------------------------------------------------ checksums

TEST(DeviceCrc, BothRoutinesGiveTheStandardCheckValue)
{
    const char* text = "123456789";
    EXPECT_EQ(0xCBF43926UL, qzfs_chksum_crc32(text, 9));
    EXPECT_EQ(0xCBF43926UL, chksum_crc32(reinterpret_cast<const unsigned char*>(text), 9));
    EXPECT_EQ(0UL, qzfs_chksum_crc32(text, 0));

    std::vector<unsigned char> data(4099);
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (unsigned char)(i * 131 + 7);
    EXPECT_EQ(qzfs_chksum_crc32(data.data(), data.size()), chksum_crc32(data.data(), data.size()));

    // Eight bytes are folded in at a time: every length and start around
    // that step gives what the bit-by-bit definition gives.
    auto bitwise = [](const unsigned char* p, size_t n) {
        uint32_t crc = 0xFFFFFFFFu;
        for (size_t i = 0; i < n; i++)
            for (int bit = 0, byte = p[i]; bit < 8; bit++, byte >>= 1)
                crc = ((crc ^ uint32_t(byte)) & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
        return ~crc;
    };
    for (size_t start = 0; start < 8; start++)
        for (size_t n = 0; n <= 40; n++)
            ASSERT_EQ(bitwise(&data[start], n), qzfs_chksum_crc32(&data[start], n))
                << "start " << start << " length " << n;
}

// ------------------------------------------------------------------- geometry

struct SizeCase {
    unsigned long long size;
    unsigned long block_size;
    unsigned long start_block;  // S
};

TEST(DeviceGeometry, BlockSizeStartAndKeyBlockAtEachTableBoundary)
{
    const SizeCase cases[] = {
        {1 * GiB, 4 * MiB, 33},
        {549218942976ULL, 4 * MiB, 33},
        {549218942977ULL, 8 * MiB, 17},
        {2197949513728ULL, 8 * MiB, 17},
        {2197949513729ULL, 24 * MiB, 7},
        {19787988074496ULL, 24 * MiB, 7},
        {19787988074497ULL, 96 * MiB, 3},
        {316646463897600ULL, 96 * MiB, 3},
        {316646463897601ULL, 480 * MiB, 2},
    };
    for (const SizeCase& c : cases) {
        SCOPED_TRACE(c.size);
        EXPECT_EQ(c.block_size, get_block_size_by_disk_size(c.size, 32));
        EXPECT_EQ(c.start_block, qzfs_get_partition_start_offset_block_num(c.block_size));
        unsigned long block_size = 0, key_block = 0;
        qzfs_block_info_for_size(c.size, block_size, key_block);
        EXPECT_EQ(c.block_size, block_size);
        EXPECT_EQ(c.start_block + 32, key_block);
    }
}

TEST(DeviceGeometry, FsyncMapsWholePages)
{
    EXPECT_EQ(8192UL, qzfs_fsync_map_length(5000));
    EXPECT_EQ(4096UL, qzfs_fsync_map_length(4096));
    EXPECT_EQ(4096UL, qzfs_fsync_map_length(1));
}

const unsigned long long kOneTB = 1000204886016ULL;  // 1953525168 sectors

// The partition split of a size and the block layout made from it.
class DevicePartition : public ::testing::Test {
protected:
    int split(unsigned long long size, unsigned long long reserve)
    {
        return qzfs_get_sector_num_pre_partition(size, reserve, start_, count_, sectors_);
    }
    int layout(unsigned long long size, int reserve_mib, std::string* out = nullptr)
    {
        int result = 0;
        std::string text = captured_stdout(
            [&] { result = qzfs_compute_layout(size, reserve_mib, block_size_, total_, system_); });
        if (out != nullptr)
            *out = text;
        return result;
    }
    unsigned long long start_ = 0;
    int count_ = 0;
    unsigned long long sectors_[QZFS_MAX_PARTITIONS + 1] = {};
    unsigned long block_size_ = 0, total_ = 0;
    std::list<unsigned long> system_;
};

// Its single partition is checked in the MBR by Fat32Format.
TEST_F(DevicePartition, OneTerabyteDiskWithoutReserve)
{
    std::string out;
    EXPECT_EQ(0, layout(kOneTB, 0, &out));
    EXPECT_EQ(8388608UL, block_size_);
    EXPECT_EQ(119225UL, total_);
    // Before partition 1, the 32 blocks of the FAT32 head, then the tail
    // from the last whole 32-block group to the partition's end.
    std::list<unsigned long> expected = block_range(0, 48);
    expected.splice(expected.end(), block_range(119185, 119224));
    EXPECT_EQ(expected, system_);
    EXPECT_NE(std::string::npos,
              out.find("qzfs data end block:119185, addr:" + std::to_string(119185ULL * 8 * MiB)));
}

TEST_F(DevicePartition, ReserveBecomesALastPartitionOfSystemBlocks)
{
    ASSERT_EQ(0, split(kOneTB, 100 * MiB));
    EXPECT_EQ(17ULL * 8 * MiB, start_);
    ASSERT_EQ(2, count_);
    EXPECT_EQ(119196ULL * 16384, sectors_[0]);
    EXPECT_EQ(204800ULL, sectors_[1]);

    EXPECT_EQ(0, layout(kOneTB, 100));
    // Data partition: 119196 blocks from 17, tail from 17 + 119168 - 32;
    // reserve partition: 204800 sectors, 12 whole blocks from 119213.
    EXPECT_EQ(119225UL, total_);
    std::list<unsigned long> expected = block_range(0, 48);
    expected.splice(expected.end(), block_range(119153, 119224));
    EXPECT_EQ(expected, system_);
}

TEST_F(DevicePartition, TooLittleSpaceLeftBesideTheReserveFails)
{
    const unsigned long long reserve = 100 * MiB;
    expect_result_and_log(-1, "]:left space is too small(block dev size:2252341247, reserve size:104857600)!\n",
                          [&] { return split(2147483647ULL + reserve, reserve); });
    captured_stdout([&] {
        EXPECT_EQ(-1, split(2147483647ULL, 0));
        EXPECT_EQ(-1, split(100 * MiB, reserve));
    });
    EXPECT_EQ(0, split(2147483648ULL + reserve, reserve));
    EXPECT_EQ(2, count_);
    EXPECT_EQ(-1, layout(2147483647ULL + reserve, 100));
}

TEST_F(DevicePartition, ElevenPartitionsAreRefused)
{
    // 96 MiB blocks: 196608 sectors a block, the largest partition is
    // 21845 blocks. Ten full partitions plus the lead, the 64 MiB tail and
    // one more block need an eleventh.
    const unsigned long long spb = 196608, largest = 21845 * spb;
    const unsigned long long ten = (10 * largest + 131072 + 3 * spb) * 512;
    ASSERT_EQ(96 * MiB, get_block_size_by_disk_size(ten, 32));

    ASSERT_EQ(0, split(ten, 0));
    EXPECT_EQ(10, count_);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(largest, sectors_[i]) << i;

    expect_result_and_log(-1, "partition_num:11", [&] { return split(ten + spb * 512, 0); });
    // A reserve on the ten-partition disk needs an eleventh as well.
    captured_stdout([&] { EXPECT_EQ(-1, split(ten, 1 * MiB)); });
    EXPECT_EQ(-1, layout(ten + spb * 512, 0));
}

// ----------------------------------------------------------------- I/O handle

class DeviceIo : public LibraryTest {
protected:
    std::string image_ = scratch_.path("disk.img");
};

TEST_F(DeviceIo, HandleAddressesBlocksBeyondFourGigabytes)
{
    make_sparse_image(image_, 6 * GiB);
    void* h = qzfs_create_io_interface(image_.c_str(), 1);
    ASSERT_NE(nullptr, h);
    unsigned long block_size = 0, key_block = 0;
    ASSERT_EQ(0, qzfs_get_block_info(h, block_size, key_block));
    EXPECT_EQ(4 * MiB, block_size);
    EXPECT_EQ(65UL, key_block);

    // Block 1100 starts at 4.3 GiB; a position cut to 32 bits would land
    // 4 GiB lower.
    const unsigned long block = 1100, offset = 4000;
    const unsigned long long where = (unsigned long long)block * block_size + offset;
    std::vector<unsigned char> data(512), back(512, 0);
    for (size_t i = 0; i < data.size(); i++)
        data[i] = (unsigned char)(i ^ 0x5A);
    ASSERT_EQ(0, qzfs_seek(h, block, offset));
    ASSERT_EQ(512, qzfs_write(h, data.data(), 512));
    EXPECT_EQ(0, qzfs_sync(h));
    EXPECT_EQ(0, qzfs_fsync(h, block, 0, 5000));
    ASSERT_EQ(0, qzfs_seek(h, block, offset));
    ASSERT_EQ(512, qzfs_read(h, back.data(), 512));
    EXPECT_EQ(data, back);
    EXPECT_EQ(data, read_bytes(image_, where, 512));
    EXPECT_EQ(std::vector<unsigned char>(512, 0), read_bytes(image_, where - 4 * GiB, 512));
    EXPECT_EQ(0, qzfs_destroy_io_interface(h));
}

TEST_F(DeviceIo, ImageNeverGrowsAndRefusesSeeksPastItsEnd)
{
    const unsigned long long size = 64 * MiB;  // 16 blocks of 4 MiB
    make_sparse_image(image_, size);
    void* h = qzfs_create_io_interface(image_.c_str(), 1);
    ASSERT_NE(nullptr, h);
    std::vector<unsigned char> data(100, 0xC3);
    captured_stdout([&] {
        EXPECT_EQ(-1, qzfs_seek(h, 16, 1));
        EXPECT_EQ(-1, qzfs_seek(h, 100000, 0));
        // At the very end: nothing can be written.
        ASSERT_EQ(0, qzfs_seek(h, 16, 0));
        EXPECT_LE(qzfs_write(h, data.data(), 100), 0);
        // Straddling the end: only what fits is written.
        ASSERT_EQ(0, qzfs_seek(h, 15, 4 * MiB - 10));
        EXPECT_EQ(10, qzfs_write(h, data.data(), 100));
    });
    EXPECT_EQ(size, file_size(image_));
    EXPECT_EQ(std::vector<unsigned char>(10, 0xC3), read_bytes(image_, size - 10, 10));
    EXPECT_EQ(0, qzfs_destroy_io_interface(h));
}

TEST_F(DeviceIo, NullHandleFailsEveryOperation)
{
    unsigned long block_size = 1, key_block = 1;
    char buf[8] = {};
    std::string out = captured_stdout([&] {
        EXPECT_EQ(-1, qzfs_seek(nullptr, 0, 0));
        EXPECT_EQ(-1, qzfs_read(nullptr, buf, 8));
        EXPECT_EQ(-1, qzfs_write(nullptr, buf, 8));
        EXPECT_EQ(-1, qzfs_sync(nullptr));
        EXPECT_EQ(-1, qzfs_fsync(nullptr, 0, 0, 8));
        EXPECT_EQ(-1, qzfs_destroy_io_interface(nullptr));
        EXPECT_EQ(-1, qzfs_get_block_info(nullptr, block_size, key_block));
    });
    EXPECT_EQ(7u, count_of(out, "p_dev_info is NULL!"));
    expect_result_and_log(0, "dev name is null!", [] { return qzfs_create_io_interface(nullptr, 1); });
}

TEST_F(DeviceIo, NonBareDeviceIsRefused)
{
    make_sparse_image(image_, 3 * GiB);
    std::string before = image_fingerprint(image_);
    std::string out = captured_stdout([&] { EXPECT_EQ(nullptr, qzfs_create_io_interface(image_.c_str(), 0)); });
    EXPECT_NE(std::string::npos, out.find("linux must bare dev!"));
    EXPECT_NE(std::string::npos, out.find("get block info failed"));
    EXPECT_EQ(before, image_fingerprint(image_));
}

TEST_F(DeviceIo, MissingDeviceIsTriedFiveTimesWithPauses)
{
    std::string missing = scratch_.path("no-such-disk");
    // The tests shorten the pause; here it is long enough to be seen.
    const unsigned long shortened = qzfs_open_retry_pause_us;
    qzfs_open_retry_pause_us = 50000;
    auto begin = std::chrono::steady_clock::now();
    std::string out = captured_stdout([&] { EXPECT_EQ(nullptr, qzfs_create_io_interface(missing.c_str(), 1)); });
    auto elapsed = std::chrono::steady_clock::now() - begin;
    qzfs_open_retry_pause_us = shortened;
    EXPECT_GE(elapsed, std::chrono::milliseconds(4 * 50));
    EXPECT_EQ(5u, count_of(out, "open " + missing + " failed("));
}

// A short read clears the whole buffer and rewrites the unread stretch with
// zeros. The handle keeps the size it was opened with, so cutting the image
// behind its back makes the read come up short.
TEST_F(DeviceIo, ShortReadClearsBufferAndZeroesTheUnreadStretch)
{
    make_sparse_image(image_, 64 * MiB);
    const unsigned long block = 3, offset = 1000;
    const unsigned long long where = 3 * 4 * MiB + offset;
    std::vector<unsigned char> on_disk(100);
    for (size_t i = 0; i < on_disk.size(); i++)
        on_disk[i] = (unsigned char)(0x80 + i);
    write_bytes(image_, where, on_disk);

    void* h = qzfs_create_io_interface(image_.c_str(), 1);
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(0, truncate(image_.c_str(), (off_t)(where + 40)));

    CQzFileSystem fs;
    std::vector<unsigned char> buf(100, 0xAB);
    captured_stdout([&] { EXPECT_EQ(40, fs.Seek_and_read_in_block(h, block, offset, buf.data(), 100)); });
    EXPECT_EQ(std::vector<unsigned char>(100, 0), buf);
    EXPECT_EQ(where + 100, file_size(image_));
    std::vector<unsigned char> expected(on_disk.begin(), on_disk.begin() + 40);
    expected.resize(100, 0);
    EXPECT_EQ(expected, read_bytes(image_, where, 100));

    // A seek failure is -2 for both directions.
    captured_stdout([&] {
        EXPECT_EQ(-2, fs.Seek_and_read_in_block(h, 1000, 0, buf.data(), 10));
        EXPECT_EQ(-2, fs.Seek_and_write_in_block(h, 1000, 0, buf.data(), 10));
    });
    EXPECT_EQ(0, qzfs_destroy_io_interface(h));
}

// ---------------------------------------------------------------------- locks

// A suite whose name ends in Threads also runs under ThreadSanitizer.
TEST(DeviceLockThreads, SerialisesTwoThreadsAndRefusesNullHandle)
{
    void* lock = qzfs_create_lock();
    ASSERT_NE(nullptr, lock);
    long counter = 0;
    auto work = [&] {
        for (int i = 0; i < 100000; i++) {
            EXPECT_EQ(0, qzfs_lock(lock));
            long seen = counter;
            counter = seen + 1;
            EXPECT_EQ(0, qzfs_unlock(lock));
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(200000, counter);
    EXPECT_EQ(0, qzfs_destroy_lock(lock));

    std::string out = captured_stdout([] {
        EXPECT_EQ(-1, qzfs_lock(nullptr));
        EXPECT_EQ(-1, qzfs_unlock(nullptr));
        EXPECT_EQ(-1, qzfs_destroy_lock(nullptr));
    });
    EXPECT_EQ(3u, count_of(out, "lock_handle is invalid!"));
}

} // namespace
