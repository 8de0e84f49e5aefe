// Block requests and frees on a mounted image, checked against what the
// image itself says afterwards.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_manager.h"

#include <cstring>
#include <random>
#include <set>

using namespace qzfs_test;

namespace {

const unsigned long BS = 4 * MiB, KEY = 65, BAK = 465, TOTAL = 752;
// Format gives block 66, the first behind the key block, to the root index;
// the free blocks after format are 67 to 704.
const long FIRST = 67;
const unsigned long FREE_AFTER_FORMAT = 637;

class Allocator : public MountedImageTest {
protected:
    void SetUp() override
    {
        MountedImageTest::SetUp();
        format();
        mount();
    }

    // One block of `type`, stamped with the disk's stamp; -1 when none is left.
    long request(unsigned char type = QZFS_BLOCK_DATA, unsigned char channel = 0)
    {
        _qzfs_block_info_ info;
        memset(&info, 0, sizeof(info));
        info.owner_stamp = (uint32_t)fs_->get_block_owner_stamp();
        info.block_type = type;
        info.attr[0] = channel;
        unsigned long block = 0;
        fs_->disk_lock(1);
        int rc = fs_->Request_free_block(1, &block, &info, 0);
        fs_->disk_lock(0);
        return rc == 0 ? (long)block : -1;
    }
    int release(unsigned long block)
    {
        fs_->disk_lock(1);
        int rc = fs_->Free_one_block(block, 0);
        fs_->disk_lock(0);
        return rc;
    }
    bool in_use(unsigned long block) { return fs_->block_bit_is_set(block); }
};

TEST_F(Allocator, RequestWritesThreePlacesAndFreeOnlyTheTables)
{
    unsigned long stamp = fs_->get_block_owner_stamp();
    long block = request(QZFS_BLOCK_DATA, 9);
    ASSERT_EQ(FIRST, block);
    EXPECT_EQ(stamp + 1, fs_->get_block_owner_stamp());
    EXPECT_TRUE(in_use(FIRST));
    EXPECT_EQ(FREE_AFTER_FORMAT - 1, fs_->manage().free_block);

    for (_qzfs_block_info_ r : {read_table_record(image_, BS, KEY, FIRST),
                                read_table_record(image_, BS, BAK, FIRST),
                                read_block_head(image_, BS, FIRST)}) {
        EXPECT_TRUE(qzfs_block_info_is_sound(&r));
        EXPECT_EQ(QZFS_BLOCK_DATA, r.block_type);
        EXPECT_EQ(stamp, r.owner_stamp);
        EXPECT_EQ(9, r.attr[0]);
    }

    ASSERT_EQ(0, release(FIRST));
    EXPECT_FALSE(in_use(FIRST));
    EXPECT_EQ(FREE_AFTER_FORMAT, fs_->manage().free_block);
    EXPECT_EQ(QZFS_BLOCK_FREE, read_table_record(image_, BS, KEY, FIRST).block_type);
    EXPECT_EQ(QZFS_BLOCK_FREE, read_table_record(image_, BS, BAK, FIRST).block_type);
    EXPECT_EQ(QZFS_BLOCK_DATA, read_block_head(image_, BS, FIRST).block_type);  // left for recovery

    EXPECT_EQ(0, release(FIRST));          // a double free is harmless
    expect_result_and_log(-1, "block(752) is error(total:752)", [&] { return release(TOTAL); });
    expect_result_and_log(-1, "block type is error(3)!", [&] { return request(QZFS_BLOCK_KEY_INFO); });
    EXPECT_EQ(-1, request(QZFS_BLOCK_SYSTEM));
    EXPECT_EQ(-1, request(QZFS_BLOCK_BAD));
}

TEST_F(Allocator, SearchIsCircularByteWise)
{
    // 67, 68, 69 taken; the hint now points into the same byte (64..71),
    // so a block freed below it in that byte is found before 70.
    EXPECT_EQ(67, request());
    EXPECT_EQ(68, request());
    EXPECT_EQ(69, request());
    ASSERT_EQ(0, release(67));
    EXPECT_EQ(67, request());
    EXPECT_EQ(70, request());
    // Once the hint has left the byte, a freed block there waits its turn.
    EXPECT_EQ(71, request());
    EXPECT_EQ(72, request());
    ASSERT_EQ(0, release(68));
    EXPECT_EQ(73, request());
}

TEST_F(Allocator, FullDiskFailsAndLeavesBitmapAndHintAlone)
{
    std::set<long> taken;
    for (long b = request(); b != -1; b = request())
        ASSERT_TRUE(taken.insert(b).second) << "block " << b << " handed out twice";
    EXPECT_EQ(FREE_AFTER_FORMAT, taken.size());
    EXPECT_EQ(0u, fs_->manage().free_block);
    EXPECT_EQ(705u, fs_->manage().next_free_block);  // behind the last free block, 704
    std::vector<unsigned char> bitmap(fs_->manage().block_bitmap,
                                      fs_->manage().block_bitmap + fs_->manage().block_bitmap_len);
    EXPECT_EQ(-1, request());
    EXPECT_EQ(705u, fs_->manage().next_free_block);
    EXPECT_EQ(0, memcmp(bitmap.data(), fs_->manage().block_bitmap, bitmap.size()));
    // The disk test needs a block too, and writes nothing when there is none.
    EXPECT_EQ(-1, api_qzfs_test_hdd(0, 0));

    // Bits past total_block in the last byte are never handed out: 752
    // fills its last byte exactly; the 2 GiB disk does not.
    ASSERT_EQ(0, api_qzfs_umount(0));
    ASSERT_EQ(0, format_image(image_, 2 * GiB));  // 496 blocks
    mount();
    long last = 0;
    for (long b = request(); b != -1; b = request())
        last = b;
    EXPECT_LT(last, 496);
}

TEST_F(Allocator, OwnerStampResumesAtMountFromTheHighest)
{
    for (int i = 0; i < 5; i++)
        request();
    unsigned long stamp = fs_->get_block_owner_stamp();
    EXPECT_EQ(7u, stamp);  // 1 at format, 2 after the root index block, then once per request
    remount();
    // Highest stamp written was 6, so the next is 7.
    EXPECT_EQ(stamp, fs_->get_block_owner_stamp());
}

TEST_F(Allocator, DiskTestUsesAndReturnsOneBlock)
{
    ASSERT_EQ(0, api_qzfs_test_hdd(0, 12345));
    EXPECT_EQ(FREE_AFTER_FORMAT, fs_->manage().free_block);
    EXPECT_FALSE(in_use(FIRST));
    // The pattern covers the whole block, its head included.
    std::vector<unsigned char> tail = read_bytes(image_, (FIRST + 1) * BS - 4, 4);
    EXPECT_EQ((std::vector<unsigned char>{0x55, 0xAA, 0x55, 0xAA}), tail);
    EXPECT_EQ(0x55, read_bytes(image_, FIRST * BS, 1)[0]);
    EXPECT_EQ(-1, api_qzfs_test_hdd(3, 0));  // not mounted
}

// Random requests and frees across two mounts: the bitmap, the free count
// and both tables always tell the same story.
TEST_F(Allocator, ThousandOperationsKeepBitmapCountAndTablesInAgreement)
{
    std::mt19937 rng(2026);
    std::vector<long> held;
    auto check = [&]() {
        std::vector<unsigned char> primary =
            read_bytes(image_, KEY * BS + 4096, TOTAL * 32);
        std::vector<unsigned char> backup = read_bytes(image_, BAK * BS + 4096, TOTAL * 32);
        ASSERT_EQ(primary, backup);
        unsigned long free_in_table = 0;
        for (unsigned long b = 0; b < TOTAL; b++) {
            _qzfs_block_info_ r;
            memcpy(&r, &primary[b * 32], 32);
            ASSERT_TRUE(qzfs_block_info_is_sound(&r));
            bool is_free = r.block_type == QZFS_BLOCK_FREE;
            free_in_table += is_free;
            ASSERT_EQ(!is_free, in_use(b)) << "block " << b;
        }
        EXPECT_EQ(free_in_table, fs_->manage().free_block);
        EXPECT_EQ(free_in_table, fs_->Cal_bitmap_free_block());
    };
    for (int round = 0; round < 2; round++) {
        for (int op = 0; op < 500; op++) {
            if (held.empty() || (rng() % 3 != 0 && held.size() < 600)) {
                // Index block types would meet the root index check at mount.
                long b = request((unsigned char)(QZFS_BLOCK_IFRAME_INDEX + rng() % 3));
                ASSERT_NE(-1, b);
                held.push_back(b);
            } else {
                size_t pick = rng() % held.size();
                ASSERT_EQ(0, release((unsigned long)held[pick]));
                held.erase(held.begin() + (long)pick);
            }
        }
        check();
        remount();
        check();
    }
}

} // namespace
