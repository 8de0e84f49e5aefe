// A disk's life: format a sparse image, mount it, look at what is on it,
// damage it, mount again.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_device.h"
#include "qzfs_manager.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <unistd.h>

using namespace qzfs_test;

namespace {

// A 3 GiB disk: blocks of 4 MiB, the key info block at 65, its backup at 465.
const unsigned long BS = 4 * MiB, KEY = 65, BAK = 465;

class FormatMount : public LibraryTest {
protected:
    std::string image_ = scratch_.path("disk.img");

    int mount(unsigned char hdd_id = 0, std::string path = "")
    {
        std::string dev = path.empty() ? image_ : path;
        return api_qzfs_mount(hdd_id, &dev[0]);
    }
    const _qzfs_disk_manage_& disk(unsigned char hdd_id = 0)
    {
        return gQzfsManager.get_file_system(hdd_id)->manage();
    }
};

struct GeometryCase {
    unsigned long long size;
    unsigned long block_size;
    unsigned long key_block;
    unsigned long total_block;
};

// Expected figures follow from the size alone: block size by the table of
// key block capacities, S = ceil(128 MiB / b) + 1, K = S + 32, and the
// total from the partition arithmetic.
TEST_F(FormatMount, SizesGiveTheirBlockSizeAndKeyPlaces)
{
    const GeometryCase cases[] = {
        {3 * GiB, 4 * MiB, 65, 752},
        {600 * GiB, 8 * MiB, 49, 76792},
        {2 * TiB, 24 * MiB, 39, 87378},
    };
    for (const GeometryCase& c : cases) {
        SCOPED_TRACE(c.size);
        ASSERT_EQ(0, format_image(image_, c.size, "geometry"));
        ASSERT_EQ(0, mount());
        _qzfs_k4t_hdd_info_ info = {};
        ASSERT_EQ(0, api_qzfs_get_hdd_info(0, &info));
        EXPECT_EQ(c.block_size, info.block_size);
        EXPECT_EQ(c.total_block, info.total_num);
        EXPECT_EQ(c.key_block, disk().key_block);
        EXPECT_EQ(c.key_block + 400, disk().bak_key_block);
        EXPECT_EQ(0, api_qzfs_umount(0));
        unlink(image_.c_str());
    }
}

TEST_F(FormatMount, KeyInfoBlockReadsBackAsWritten)
{
    const unsigned long total = 752;
    ASSERT_EQ(0, format_image(image_, 3 * GiB, "front door"));

    _qzfs_block_info_ own = read_block_head(image_, BS, KEY);
    EXPECT_EQ(QZFS_BLOCK_KEY_INFO, own.block_type);
    EXPECT_EQ(0u, own.owner_stamp);
    EXPECT_TRUE(qzfs_block_info_is_sound(&own));

    _qzfs_key_header_ header = read_key_header(image_, BS, KEY);
    EXPECT_STREQ("front door", header.label);
    EXPECT_STREQ("qzfs4.0", header.version);
    EXPECT_EQ(BS, header.block_size);
    EXPECT_EQ(total, header.total_block);
    EXPECT_EQ(header.check_num, (uint32_t)qzfs_chksum_crc32(&header, 508));

    // Every slot of the table carries a sound record; the types follow the
    // layout: system blocks before partition 1, the FAT32 area, the tail
    // group; key places every 400 blocks from K; the root index behind K;
    // free elsewhere; none past the end.
    std::vector<unsigned char> table = read_bytes(image_, (unsigned long long)KEY * BS + 4096, BS - 4096);
    const unsigned long slots = (BS - 4096) / 32;
    unsigned long free_count = 0;
    for (unsigned long b = 0; b < slots; b++) {
        _qzfs_block_info_ r;
        memcpy(&r, &table[b * 32], 32);
        ASSERT_TRUE(qzfs_block_info_is_sound(&r)) << "block " << b;
        unsigned expected = QZFS_BLOCK_FREE;
        if (b >= total)
            expected = QZFS_BLOCK_NONE;
        else if (b < 65 || b >= 705)
            expected = QZFS_BLOCK_SYSTEM;
        else if (b == KEY || b == BAK)
            expected = QZFS_BLOCK_KEY_INFO;
        else if (b == KEY + 1)
            expected = QZFS_BLOCK_ROOT_INDEX;  // the first free block, taken at format
        ASSERT_EQ(expected, r.block_type) << "block " << b;
        free_count += r.block_type == QZFS_BLOCK_FREE;
    }

    // The backup is the same block, byte for byte.
    EXPECT_EQ(read_bytes(image_, (unsigned long long)KEY * BS, BS),
              read_bytes(image_, (unsigned long long)BAK * BS, BS));

    ASSERT_EQ(0, mount());
    _qzfs_k4t_hdd_info_ info = {};
    ASSERT_EQ(0, api_qzfs_get_hdd_info(0, &info));
    EXPECT_EQ(free_count, info.free_num);
    EXPECT_EQ(637u, info.free_num);
    EXPECT_EQ(2u, disk().block_owner_stamp);  // highest stamp (the root block's 1) plus one
    EXPECT_EQ(67u, disk().next_free_block);   // first free block of the table
    EXPECT_EQ(0, api_qzfs_umount(0));
}

TEST_F(FormatMount, DamagedPrimaryIsRepairedFromTheBackup)
{
    const unsigned long long primary = (unsigned long long)KEY * BS;
    const unsigned long long backup = (unsigned long long)BAK * BS;
    const unsigned long long places[] = {
        primary + 4,        // type of the key block's own record
        primary + 32 + 3,   // a label byte: header CRC no longer holds
        primary + 32 + 508, // the header check number itself
    };
    for (unsigned long long where : places) {
        SCOPED_TRACE(where - primary);
        ASSERT_EQ(0, format_image(image_, 3 * GiB, "repair me"));
        damage_byte(image_, where);
        ASSERT_EQ(0, mount());
        EXPECT_EQ(KEY, disk().key_block);
        EXPECT_EQ(BAK, disk().bak_key_block);
        EXPECT_EQ(0, api_qzfs_umount(0));
        EXPECT_EQ(read_bytes(image_, backup, BS), read_bytes(image_, primary, BS));
        EXPECT_STREQ("repair me", read_key_header(image_, BS, KEY).label);
        unlink(image_.c_str());
    }
}

TEST_F(FormatMount, DamagedOrStaleBackupIsRewritten)
{
    ASSERT_EQ(0, format_image(image_, 3 * GiB));
    damage_byte(image_, (unsigned long long)BAK * BS + 32 + 200);
    ASSERT_EQ(0, mount());
    EXPECT_EQ(BAK, disk().bak_key_block);
    EXPECT_EQ(0, api_qzfs_umount(0));
    EXPECT_EQ(read_bytes(image_, (unsigned long long)KEY * BS, BS),
              read_bytes(image_, (unsigned long long)BAK * BS, BS));

    // A backup whose header is sound but whose table differs is stale.
    damage_byte(image_, table_record_offset(BS, BAK, 300));
    ASSERT_EQ(0, mount());
    EXPECT_EQ(0, api_qzfs_umount(0));
    _qzfs_block_info_ mended = read_table_record(image_, BS, BAK, 300);
    EXPECT_TRUE(qzfs_block_info_is_sound(&mended));
}

TEST_F(FormatMount, ImagesThatAreNotOursAreRefusedUntouched)
{
    // Random bytes over both key places.
    make_sparse_image(image_, 3 * GiB);
    std::mt19937 rng(7);
    std::vector<unsigned char> noise(QZFS_IO_UNIT);
    for (unsigned char& b : noise)
        b = (unsigned char)rng();
    write_bytes(image_, KEY * BS, noise);
    write_bytes(image_, BAK * BS, noise);
    std::string before = image_fingerprint(image_);
    EXPECT_EQ(-1, mount());
    EXPECT_EQ(before, image_fingerprint(image_));

    // A header whose check number holds but whose version is another's.
    ASSERT_EQ(0, format_image(image_, 3 * GiB));
    for (unsigned long key : {KEY, BAK}) {
        unsigned long long header_at = (unsigned long long)key * BS + 32;
        write_bytes(image_, header_at + 128, {'x', 'f', 's', '!'});
        std::vector<unsigned char> header = read_bytes(image_, header_at, 512);
        uint32_t crc = (uint32_t)qzfs_chksum_crc32(header.data(), 508);
        for (int i = 0; i < 4; i++)  // the check number, little endian
            header[508 + i] = (unsigned char)(crc >> (8 * i));
        write_bytes(image_, header_at, header);
    }
    before = image_fingerprint(image_);
    expect_result_and_log(-1, "qzfs version is invalid(xfs!", [&] { return mount(); }, 2);
    EXPECT_EQ(before, image_fingerprint(image_));
}

TEST_F(FormatMount, BadPathsAndSizesFail)
{
    EXPECT_EQ(-1, api_qzfs_format(0, nullptr, nullptr));
    EXPECT_EQ(-1, api_qzfs_mount(0, nullptr));
    char empty[] = "";
    EXPECT_EQ(-1, api_qzfs_mount(0, empty));
    std::string missing = scratch_.path("missing.img");
    EXPECT_EQ(-1, mount(0, missing));
    EXPECT_EQ(0u, file_size(missing));

    // Too little space for the partition arithmetic: the device must hold
    // more than 2147483647 bytes.
    expect_result_and_log(-1, "left space is too small(block dev size:2146435072",
                          [&] { return format_image(image_, 2 * GiB - MiB); });
    EXPECT_EQ(-1, mount());  // nothing was written that a mount could find
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(0));

    // Exactly 2 GiB is just enough.
    unlink(image_.c_str());
    ASSERT_EQ(0, format_image(image_, 2 * GiB));
    ASSERT_EQ(0, mount());
    EXPECT_EQ(496u, disk().total_block);
    EXPECT_EQ(0, api_qzfs_umount(0));
}

TEST_F(FormatMount, LoopBlockDevice)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to attach a loop device";
    make_sparse_image(image_, 3 * GiB);
    CommandResult attach = run_command("losetup -f -P --show '" + image_ + "'");
    if (attach.status != 0 || attach.output.compare(0, 5, "/dev/") != 0)
        GTEST_SKIP() << "losetup could not attach a loop device here: " << attach.output;
    std::string loop = attach.output.substr(0, attach.output.find('\n'));
    // Detached however the test ends.
    struct Detach {
        std::string dev;
        ~Detach() { (void)!system(("losetup -d " + dev + " 2>/dev/null").c_str()); }
    } detach{loop};

    unsigned long long size = 0;
    EXPECT_EQ(0, qzfs_get_block_dev_size(loop.c_str(), &size));
    EXPECT_EQ(3 * GiB, size);
    EXPECT_EQ(0, api_qzfs_fast_format(0, &loop[0]));
    EXPECT_EQ(0, mount(0, loop));
    _qzfs_k4t_hdd_info_ info = {};
    EXPECT_EQ(0, api_qzfs_get_hdd_info(0, &info));
    EXPECT_EQ(BS, info.block_size);
    EXPECT_EQ(KEY, disk().key_block);
    EXPECT_EQ(0, api_qzfs_umount(0));
    // What went through the device is on the image.
    EXPECT_STREQ("qzfs4.0", read_key_header(image_, BS, KEY).version);
}

} // namespace
