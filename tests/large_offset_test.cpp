// Device positions are 64-bit on every build, the 32-bit one included: on a
// 6 GiB image, blocks that start beyond 4 GiB are taken by the allocator,
// written and read through the disk object, and found after a remount
// exactly where a 64-bit position puts them in the image file. A position
// cut to 32 bits would put the bytes 4 GiB lower.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_manager.h"

#include <cstdio>
#include <cstring>
#include <vector>

using namespace qzfs_test;

namespace {

const unsigned long long kImageSize = 6 * GiB;
const int kPiece = 4096;  // bytes written at each place

class LargeOffset : public MountedImageTest {
protected:
    // The places written in each block: just past the block's own record,
    // and the last bytes of the block.
    std::vector<unsigned long> offsets_in(unsigned long block_size) const
    {
        return {4096, block_size - kPiece};
    }

    // Bytes no other place shares: a text naming the place, then a pattern
    // seeded by it.
    static std::vector<unsigned char> piece_for(unsigned long block, unsigned long offset)
    {
        std::vector<unsigned char> piece(kPiece);
        for (int i = 0; i < kPiece; i++)
            piece[i] = (unsigned char)(i * 7 + block * 13 + offset / 4096);
        char text[64];
        int n = snprintf(text, sizeof(text), "large offset test: block %lu offset %lu", block,
                         offset);
        memcpy(piece.data(), text, (size_t)n);
        return piece;
    }

    static unsigned long long byte_position(unsigned long block, unsigned long block_size,
                                            unsigned long offset)
    {
        return (unsigned long long)block * block_size + offset;
    }
};

TEST_F(LargeOffset, BlocksBeyondFourGigabytesKeepTheirBytesAcrossARemount)
{
    ASSERT_EQ(0, format_image(image_, kImageSize));
    mount();
    const unsigned long block_size = fs_->manage().block_size;
    ASSERT_EQ(4 * MiB, block_size);
    const unsigned long first_high = (unsigned long)(4 * GiB / block_size);
    ASSERT_GT(fs_->manage().total_block, first_high + 8);

    // Every free block in one request: the search runs up from the low end,
    // so the blocks beyond 4 GiB are all in it.
    const unsigned long free_blocks = fs_->manage().free_block;
    std::vector<unsigned long> taken(free_blocks);
    _qzfs_block_info_ info;
    memset(&info, 0, sizeof(info));
    info.owner_stamp = (uint32_t)fs_->get_block_owner_stamp();
    info.block_type = QZFS_BLOCK_DATA;
    info.attr[0] = 0x5C;
    fs_->disk_lock(1);
    int rc = fs_->Request_free_block(free_blocks, taken.data(), &info, 0);
    fs_->disk_lock(0);
    ASSERT_EQ(0, rc);

    std::vector<unsigned long> high;
    for (unsigned long block : taken)
        if (block >= first_high)
            high.push_back(block);
    ASSERT_GE(high.size(), 3u);
    // The first block past the mark, one in the middle and the last one.
    const std::vector<unsigned long> chosen = {high.front(), high[high.size() / 2], high.back()};

    // Each block's own record went to its head, beyond 4 GiB.
    for (unsigned long block : chosen) {
        _qzfs_block_info_ head = read_block_head(image_, block_size, block);
        EXPECT_TRUE(qzfs_block_info_is_sound(&head)) << "block " << block;
        EXPECT_EQ(QZFS_BLOCK_DATA, head.block_type) << "block " << block;
        EXPECT_EQ(0x5C, head.attr[0]) << "block " << block;
        EXPECT_EQ(info.owner_stamp, head.owner_stamp) << "block " << block;
    }

    for (unsigned long block : chosen) {
        for (unsigned long offset : offsets_in(block_size)) {
            std::vector<unsigned char> piece = piece_for(block, offset);
            EXPECT_EQ(kPiece, fs_->Seek_and_write_in_block(fs_->io_interface(), block, offset,
                                                           piece.data(), kPiece))
                << "block " << block << " offset " << offset;
        }
    }

    ASSERT_EQ(0, api_qzfs_umount(0));
    mount();
    ASSERT_EQ(block_size, fs_->manage().block_size);

    for (unsigned long block : chosen) {
        EXPECT_TRUE(fs_->block_bit_is_set(block)) << "block " << block;
        for (unsigned long offset : offsets_in(block_size)) {
            const std::vector<unsigned char> piece = piece_for(block, offset);
            std::vector<unsigned char> back(kPiece, 0);
            EXPECT_EQ(kPiece, fs_->Seek_and_read_in_block(fs_->io_interface(), block, offset,
                                                          back.data(), kPiece))
                << "block " << block << " offset " << offset;
            EXPECT_EQ(piece, back) << "block " << block << " offset " << offset;

            // In the file: at the 64-bit position, and not 4 GiB lower.
            const unsigned long long at = byte_position(block, block_size, offset);
            ASSERT_GT(at, 4 * GiB);
            EXPECT_EQ(piece, read_bytes(image_, at, kPiece)) << "at byte " << at;
            EXPECT_NE(piece, read_bytes(image_, at - 4 * GiB, kPiece)) << "at byte " << at - 4 * GiB;
        }
    }
    EXPECT_EQ(kImageSize, file_size(image_));
    EXPECT_EQ(0, api_qzfs_umount(0));
}

} // namespace
