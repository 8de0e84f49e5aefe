// Deleting stream segments on real images: by time (whole deletes of the
// last segment of a root, one of two, a pre-recording, a block of another
// day; tail and head cuts with the blocks they give back), front trims by
// bytes and the delete by id, shared blocks, a segment being recorded,
// refusals, the journal left clear, and the roll-back that a mount makes of
// a journal left armed.
#include "test_support.h"

#include "opened_stream_segment.h"
#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_index_format.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

// What a built segment looks like in the index and on the disk.
struct Built {
    uint32_t root = 0;
    uint32_t index = 0;                  // position in the root's segment array
    uint32_t start_iframe = 0;
    uint64_t step = 0;                   // stream bytes of one second
    std::vector<uint32_t> blocks;        // data blocks, in order
    std::vector<uint32_t> stamps;        // owner stamp given to each block
    std::vector<uint32_t> entry_at;      // log position of each block entry
    std::vector<uint32_t> iframe_at;     // log position of the I-frame of second s
    _stream_segment_index_node_dev_ node; // as closed
};

const unsigned kPerBlock = 8;  // seconds (one I-frame each) in a data block

_qzfs_k4t_create_ss_para_ para_at(int hour, int minute, int second, int record_type = 0)
{
    _qzfs_k4t_create_ss_para_ para;
    memset(&para, 0, sizeof(para));
    para.year = 26;
    para.month = 3;
    para.day = 14;
    para.hour = uint8_t(hour);
    para.minute = uint8_t(minute);
    para.second = uint8_t(second);
    para.channel = 2;
    para.record_type = uint8_t(record_type);
    return para;
}

_k4t_fs_time_ at(int hour, int minute, int second)
{
    _k4t_fs_time_ t = {uint8_t(hour), uint8_t(minute), uint8_t(second)};
    return t;
}

uint64_t len_of(const _stream_segment_index_node_dev_& n)
{
    uint64_t v;
    memcpy(&v, &n.len_in_bytes, 8);
    return v;
}

// Two segment nodes alike in every byte but the check sum, which the
// lookup does not carry.
void expect_same_segment(const _stream_segment_index_node_dev_& want,
                         const _stream_segment_index_node_dev_& got, const std::string& what)
{
    const unsigned char* a = reinterpret_cast<const unsigned char*>(&want);
    const unsigned char* b = reinterpret_cast<const unsigned char*>(&got);
    for (size_t i = 0; i < sizeof(want); i++) {
        if (i != 1) {
            EXPECT_EQ(a[i], b[i]) << what << ": byte " << i << " of the segment node";
        }
    }
}

uint32_t u32(const void* p)
{
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

unsigned record_type_of(const _root_index_node_dev_& root)
{
    uint16_t v;
    memcpy(&v, &root.record_type, 2);
    return v;
}

class SegmentDelete : public MountedImageTest {
protected:
    void SetUp() override
    {
        MountedImageTest::SetUp();
        format();
        mount();
        g_qzfs_debug_level = 0;
    }

    unsigned long bs() const { return fs_->manage().block_size; }

    uint32_t make_root(const _qzfs_k4t_create_ss_para_& para)
    {
        uint32_t ri = 0xFFFFFFFF;
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Create_root_index_node(&para, &ri, nullptr));
        fs_->disk_lock(0);
        return ri;
    }

    // A closed segment of `seconds` seconds from the para's start time, as
    // a writer leaves it: a block entry ahead of every eighth second's data
    // block, one I-frame a second spread over the block.
    // `summarise` 0 leaves the root's summary alone, so that a root holding
    // only a pre-recording survives.
    Built add_segment(uint32_t ri, _qzfs_k4t_create_ss_para_ para, unsigned seconds,
                      bool summarise = true)
    {
        Built b;
        b.root = ri;
        b.step = (bs() - 4096) / kPerBlock;
        fs_->disk_lock(1);
        uint32_t ssi_num = 0, head = 0, num = 0;
        uint32_t *ssi_list = nullptr, *list = nullptr;
        _iframe_block_info_ info = {};
        EXPECT_EQ(0, fs_->Get_stream_segment_index_block_list(ri, &ssi_num, &ssi_list, &head));
        EXPECT_EQ(0, fs_->Get_iframe_block_info(head, &info));
        EXPECT_EQ(0, fs_->Read_iframe_index_block_list(head, &num, &list));
        delete[] ssi_list;
        delete[] info.pBlock_list;
        const uint32_t next = info.iframe_index_num + info.block_index_num;
        b.start_iframe = next + 1;
        EXPECT_EQ(0, fs_->Create_stream_segment_index_node(ri, &para, b.start_iframe, &b.index,
                                                           &b.node));
        std::vector<_iframe_index_node_dev_> nodes;
        uint32_t ordinal = info.block_index_num, block = 0;
        for (unsigned s = 0; s < seconds; s++) {
            _iframe_index_node_dev_ n;
            memset(&n, 0, sizeof(n));
            if (s % kPerBlock == 0) {
                _qzfs_block_info_ bi = {};
                bi.block_type = QZFS_BLOCK_DATA;
                bi.owner_stamp = uint32_t(fs_->get_block_owner_stamp());
                bi.year = para.year;
                bi.month = para.month;
                bi.day = para.day;
                unsigned long taken = 0;
                EXPECT_EQ(0, fs_->Request_free_block(1, &taken, &bi, 0));
                block = uint32_t(taken);
                b.blocks.push_back(block);
                b.stamps.push_back(bi.owner_stamp);
                n.id = IFRAME_INDEX_ID_BLOCK;
                n.block_num = block;
                n.block_offset = ordinal++;
                n.pts_high = 1;  // share count
                b.entry_at.push_back(next + uint32_t(nodes.size()));
                nodes.push_back(n);
                memset(&n, 0, sizeof(n));
            }
            const unsigned t = para.hour * 3600u + para.minute * 60u + para.second + s;
            n.id = IFRAME_INDEX_ID_IFRAME;
            n.hour = uint8_t(t / 3600);
            n.minute = uint8_t(t / 60 % 60);
            n.second = uint8_t(t % 60);
            n.block_num = block;
            n.block_offset = uint32_t(4096 + (s % kPerBlock) * b.step);
            n.pts_low = s * 90000u;
            n.stream_segment_offset = uint64_t(s) * b.step;
            b.iframe_at.push_back(next + uint32_t(nodes.size()));
            nodes.push_back(n);
        }
        const uint8_t dt[6] = {para.year, para.month, para.day, para.hour, para.minute, para.second};
        for (size_t done = 0; done < nodes.size();) {
            size_t count = std::min<size_t>(FS_IFI_BUFFER_NUM, nodes.size() - done);
            EXPECT_EQ(0, fs_->Add_iframe_index(&num, &list, next + done, &nodes[done], count, dt));
            done += count;
        }
        delete[] list;
        const unsigned end = para.hour * 3600u + para.minute * 60u + para.second + seconds - 1;
        b.node.end_hour = uint8_t(end / 3600);
        b.node.end_minute = uint8_t(end / 60 % 60);
        b.node.end_second = uint8_t(end % 60);
        const uint64_t len = uint64_t(seconds) * b.step;
        memcpy(&b.node.len_in_bytes, &len, 8);
        EXPECT_EQ(0, fs_->Modify_stream_segment(ri, b.index, 0, &b.node));
        if (summarise) {
            EXPECT_EQ(0, fs_->check_and_modify_root_info(ri, nullptr));
        }
        fs_->disk_lock(0);
        return b;
    }

    int delete_by_time(const Built& b, _k4t_fs_time_ t, unsigned char backwards)
    {
        fs_->disk_lock(1);
        int rc = fs_->delete_stream_segment_by_time(b.root, b.index, t, backwards);
        fs_->disk_lock(0);
        return rc;
    }

    _stream_segment_index_node_dev_ node_of(const Built& b)
    {
        _stream_segment_index_node_dev_ n;
        memset(&n, 0xEE, sizeof(n));
        EXPECT_EQ(0, fs_->Get_stream_segment_index_dev_node(b.root, b.index, &n));
        return n;
    }

    _root_index_node_dev_ root_of(uint32_t ri)
    {
        _root_index_node_dev_ n;
        memset(&n, 0xEE, sizeof(n));
        EXPECT_EQ(0, fs_->Get_root_index_dev_node(ri, &n));
        return n;
    }

    // Block type in the primary and the backup table, read from the image.
    void expect_type(uint32_t block, int type, const std::string& what)
    {
        const _qzfs_block_info_ key =
            read_table_record(image_, bs(), fs_->manage().key_block, block);
        const _qzfs_block_info_ bak =
            read_table_record(image_, bs(), fs_->manage().bak_key_block, block);
        EXPECT_EQ(type, key.block_type) << what << ": block " << block << " in the key table";
        EXPECT_EQ(type, bak.block_type) << what << ": block " << block << " in the backup table";
        EXPECT_EQ(type != QZFS_BLOCK_FREE, fs_->block_bit_is_set(block)) << what << ": bit of "
                                                                        << block;
    }

    // The journal of the first root index block, read from the image.
    void expect_journal_clear(const std::string& what)
    {
        const unsigned long block = fs_->manage().root_index_block_map.at(0);
        std::vector<unsigned char> raw =
            read_bytes(image_, (unsigned long long)block * bs() + 4096, 84);
        _root_index_header_dev_ header;
        memcpy(&header, raw.data(), sizeof(header));
        EXPECT_EQ(QZFS_ROOT_INDEX_MAGIC, u32(&header.magic)) << what;
        EXPECT_EQ(QZFS_ACTION_NONE, u32(&header.action)) << what;
        EXPECT_EQ(0u, u32(&header.crc)) << what;
        EXPECT_EQ(std::vector<uint8_t>(64, 0),
                  std::vector<uint8_t>(header.action_data, header.action_data + 64))
            << what;
    }

    // Share count of the block entry at `position`.
    uint32_t share_count_at(uint32_t ri, uint32_t position)
    {
        uint32_t ssi_num = 0, head = 0, num = 0;
        uint32_t *ssi_list = nullptr, *list = nullptr;
        EXPECT_EQ(0, fs_->Get_stream_segment_index_block_list(ri, &ssi_num, &ssi_list, &head));
        EXPECT_EQ(0, fs_->Read_iframe_index_block_list(head, &num, &list));
        unsigned long count = 1;
        _iframe_index_node_dev_ n;
        memset(&n, 0, sizeof(n));
        fs_->Read_iframe_index(num, list, position, &count, &n, 2);
        delete[] ssi_list;
        delete[] list;
        EXPECT_EQ(1u, count);
        EXPECT_EQ(IFRAME_INDEX_ID_BLOCK, n.id);
        return n.pts_high;
    }

    void set_share_count(uint32_t ri, uint32_t position, uint32_t count)
    {
        uint32_t ssi_num = 0, head = 0, num = 0;
        uint32_t *ssi_list = nullptr, *list = nullptr;
        ASSERT_EQ(0, fs_->Get_stream_segment_index_block_list(ri, &ssi_num, &ssi_list, &head));
        ASSERT_EQ(0, fs_->Read_iframe_index_block_list(head, &num, &list));
        unsigned long got = 1;
        _iframe_index_node_dev_ n;
        fs_->Read_iframe_index(num, list, position, &got, &n, 2);
        n.pts_high = count;
        EXPECT_EQ(0, fs_->Write_iframe_index(num, list, position, &n));
        delete[] ssi_list;
        delete[] list;
    }

    uint32_t ssi_block_of(uint32_t ri) { return root_of(ri).stream_segment_index_block; }

    // The id byte of segment `index` as the segment index block holds it.
    uint8_t raw_segment_id(uint32_t ssi_block, uint32_t index)
    {
        const unsigned long long offset = (unsigned long long)ssi_block * bs() + 4608 +
                                          (index / 8) * 512 + (index % 8) * 64;
        return read_bytes(image_, offset, 1)[0];
    }
};

// ----------------------------------------------------------- whole deletes

TEST_F(SegmentDelete, WholeDeleteOfTheLastSegmentFreesItsBlocksAndTheRoot)
{
    for (int pre_record = 0; pre_record < 2; pre_record++) {
        SCOPED_TRACE(pre_record ? "pre-recording" : "normal segment");
        const unsigned long free_before = fs_->manage().free_block;
        _qzfs_k4t_create_ss_para_ para = para_at(8, 0, 0);
        para.for_pre_record = uint8_t(pre_record);
        const uint32_t ri = make_root(para);
        const uint32_t ssi_block = ssi_block_of(ri);
        const Built b = add_segment(ri, para, 5 * kPerBlock - 3, pre_record == 0);
        ASSERT_EQ(5u, b.blocks.size());
        ASSERT_EQ(pre_record ? 2 : 1, node_of(b).id);

        EXPECT_EQ(0, delete_by_time(b, at(8, 0, 0), 1));

        EXPECT_EQ(0, raw_segment_id(ssi_block, b.index)) << "the node is written free";
        EXPECT_EQ(FREE_ROOT_INDEX, root_of(ri).id) << "an empty root goes with its segment";
        EXPECT_EQ(free_before, fs_->manage().free_block)
            << "data blocks and both index chains are given back";
        for (uint32_t block : b.blocks)
            expect_type(block, QZFS_BLOCK_FREE, "whole delete");
        expect_journal_clear("after a whole delete");
    }
    remount();
    EXPECT_EQ(FREE_ROOT_INDEX, root_of(0).id);
    expect_journal_clear("after the remount");
}

TEST_F(SegmentDelete, WholeDeleteOfOneOfTwoSegmentsKeepsTheOtherAndTheRoot)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built gone = add_segment(ri, para_at(8, 0, 0, 3), 3 * kPerBlock);
    const Built kept = add_segment(ri, para_at(9, 30, 0, 5), 2 * kPerBlock + 1);
    ASSERT_EQ((1u << 3) | (1u << 5), record_type_of(root_of(ri)));
    const unsigned long free_before = fs_->manage().free_block;

    // A moment before the first I-frame also takes the whole segment.
    EXPECT_EQ(0, delete_by_time(gone, at(7, 59, 0), 1));

    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, node_of(gone).id);
    expect_same_segment(kept.node, node_of(kept), "the other segment");
    const _root_index_node_dev_ root = root_of(ri);
    EXPECT_TRUE(IS_NORMAL_ROOT_INDEX(root.id));
    EXPECT_EQ(1u << 5, record_type_of(root)) << "the root summary follows what is left";
    EXPECT_EQ(free_before + gone.blocks.size(), fs_->manage().free_block);
    for (uint32_t block : gone.blocks)
        expect_type(block, QZFS_BLOCK_FREE, "deleted segment");
    for (uint32_t block : kept.blocks)
        expect_type(block, QZFS_BLOCK_DATA, "kept segment");
    expect_journal_clear("after the delete");

    // The freed slot is the next one handed out.
    _qzfs_k4t_create_ss_para_ para = para_at(10, 0, 0);
    uint32_t index = 0xFFFFFFFF;
    _stream_segment_index_node_dev_ fresh;
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Create_stream_segment_index_node(ri, &para, 999, &index, &fresh));
    fs_->disk_lock(0);
    EXPECT_EQ(gone.index, index);

    remount();
    expect_same_segment(kept.node, node_of(kept), "the other segment after the remount");
}

TEST_F(SegmentDelete, BlockOfAnotherDayStaysAllocated)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 4 * kPerBlock);
    add_segment(ri, para_at(11, 0, 0), 5);  // keeps the root alive
    // The third block has since been taken for another day.
    const uint32_t foreign = b.blocks[2];
    _qzfs_block_info_ info = read_table_record(image_, bs(), fs_->manage().key_block, foreign);
    info.day = uint8_t(info.day + 1);
    ASSERT_EQ(0, fs_->modify_block_info(fs_->manage().key_block, fs_->manage().bak_key_block,
                                        foreign, &info, QZFS_WHERE_ALL));
    const unsigned long free_before = fs_->manage().free_block;

    std::string out = expect_result_and_log(
        0, "block " + std::to_string(foreign) + " error", [&] { return delete_by_time(b, at(8, 0, 0), 1); });

    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, node_of(b).id);
    EXPECT_EQ(free_before + b.blocks.size() - 1, fs_->manage().free_block);
    for (uint32_t block : b.blocks)
        expect_type(block, block == foreign ? QZFS_BLOCK_DATA : QZFS_BLOCK_FREE, "mixed days");
    EXPECT_EQ(info.day, read_table_record(image_, bs(), fs_->manage().key_block, foreign).day);
    expect_journal_clear("after the delete");
}

TEST_F(SegmentDelete, BlockRecordsComeFromTheFirstSoundPlace)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 3 * kPerBlock);
    add_segment(ri, para_at(11, 0, 0), 5);  // keeps the root alive
    const unsigned long key = fs_->manage().key_block, bak = fs_->manage().bak_key_block;
    const unsigned day = offsetof(_qzfs_block_info_, day);
    // Block 0: a torn primary record whose day is wrong; the backup is sound
    // and names the segment's day, so the block goes.
    damage_byte(image_, table_record_offset(bs(), key, b.blocks[0]) + day);
    // Block 1: both tables torn, the block's own head names another day, so
    // the block stays.
    damage_byte(image_, table_record_offset(bs(), key, b.blocks[1]) + day);
    damage_byte(image_, table_record_offset(bs(), bak, b.blocks[1]) + day);
    _qzfs_block_info_ head = read_block_head(image_, bs(), b.blocks[1]);
    head.day = uint8_t(head.day + 1);
    qzfs_block_info_seal(&head);
    std::vector<unsigned char> raw(sizeof(head));
    memcpy(raw.data(), &head, sizeof(head));
    write_bytes(image_, (unsigned long long)b.blocks[1] * bs(), raw);
    const unsigned long free_before = fs_->manage().free_block;

    EXPECT_EQ(0, delete_by_time(b, at(8, 0, 0), 1));

    expect_type(b.blocks[0], QZFS_BLOCK_FREE, "sound backup record");
    EXPECT_TRUE(fs_->block_bit_is_set(b.blocks[1])) << "own head of another day";
    expect_type(b.blocks[2], QZFS_BLOCK_FREE, "sound primary record");
    EXPECT_EQ(free_before + 2, fs_->manage().free_block);
    expect_journal_clear("after the delete");
}

// ------------------------------------------------------------------- trims

TEST_F(SegmentDelete, TailCutKeepsTheHeadUpToTheCutIframe)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    // Cut inside a block: that block stays for the head. Cut at the first
    // frame of a block: nothing of the head lies in it, so it goes too.
    struct Case {
        unsigned cut_second;
        const char* what;
    } cases[] = {{2 * kPerBlock + 4, "cut inside a block"}, {2 * kPerBlock, "cut at a block's start"}};
    int hour = 8;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Built b = add_segment(ri, para_at(hour, 0, 0), 5 * kPerBlock);
        const unsigned long free_before = fs_->manage().free_block;
        EXPECT_EQ(0, delete_by_time(b, at(hour, 0, int(c.cut_second)), 1));

        const _stream_segment_index_node_dev_ n = node_of(b);
        EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, n.id);
        EXPECT_EQ(uint64_t(c.cut_second) * b.step, len_of(n));
        EXPECT_EQ(b.start_iframe, u32(&n.start_iframe));
        EXPECT_EQ(b.node.start_hour, n.start_hour);
        EXPECT_EQ(b.node.start_second, n.start_second);
        EXPECT_EQ(hour, n.end_hour);
        EXPECT_EQ(0, n.end_minute);
        EXPECT_EQ(int(c.cut_second), n.end_second);
        EXPECT_EQ(u32(&b.node.owner_stamp), u32(&n.owner_stamp));
        const size_t kept = (c.cut_second + kPerBlock - 1) / kPerBlock;  // blocks holding the head
        EXPECT_EQ(free_before + b.blocks.size() - kept, fs_->manage().free_block);
        for (size_t k = 0; k < b.blocks.size(); k++)
            expect_type(b.blocks[k], k < kept ? QZFS_BLOCK_DATA : QZFS_BLOCK_FREE, c.what);
        expect_journal_clear(c.what);
        hour++;
    }
    EXPECT_TRUE(IS_NORMAL_ROOT_INDEX(root_of(ri).id));
}

TEST_F(SegmentDelete, HeadCutStartsTheSegmentAtTheEndIframe)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 5 * kPerBlock);
    const unsigned cut = 2 * kPerBlock + 4;
    const unsigned long free_before = fs_->manage().free_block;

    EXPECT_EQ(0, delete_by_time(b, at(8, 0, int(cut)), 0));

    const _stream_segment_index_node_dev_ n = node_of(b);
    EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, n.id);
    EXPECT_EQ(len_of(b.node) - uint64_t(cut) * b.step, len_of(n));
    EXPECT_EQ(b.iframe_at[cut], u32(&n.start_iframe));
    EXPECT_EQ(8, n.start_hour);
    EXPECT_EQ(0, n.start_minute);
    EXPECT_EQ(int(cut), n.start_second);
    EXPECT_EQ(b.node.end_second, n.end_second) << "the end stays";
    EXPECT_EQ(b.stamps[cut / kPerBlock], u32(&n.owner_stamp))
        << "the segment takes the age of its new first block";
    EXPECT_EQ(free_before + cut / kPerBlock, fs_->manage().free_block);
    for (size_t k = 0; k < b.blocks.size(); k++)
        expect_type(b.blocks[k], k < cut / kPerBlock ? QZFS_BLOCK_FREE : QZFS_BLOCK_DATA, "head cut");
    expect_journal_clear("after the head cut");

    remount();
    expect_same_segment(n, node_of(b), "after the remount");
}

TEST_F(SegmentDelete, HeadCutLowersTheCountOfASharedFirstBlock)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 4 * kPerBlock);
    fs_->disk_lock(1);
    set_share_count(ri, b.entry_at[0], 2);  // a neighbour still uses the first block
    fs_->disk_lock(0);
    const unsigned cut = 3 * kPerBlock + 1;
    const unsigned long free_before = fs_->manage().free_block;

    EXPECT_EQ(0, delete_by_time(b, at(8, 0, int(cut)), 0));

    fs_->disk_lock(1);
    EXPECT_EQ(1u, share_count_at(ri, b.entry_at[0]));
    fs_->disk_lock(0);
    expect_type(b.blocks[0], QZFS_BLOCK_DATA, "shared first block");
    expect_type(b.blocks[1], QZFS_BLOCK_FREE, "second block");
    expect_type(b.blocks[2], QZFS_BLOCK_FREE, "third block");
    expect_type(b.blocks[3], QZFS_BLOCK_DATA, "block of the end I-frame");
    EXPECT_EQ(free_before + 2, fs_->manage().free_block);
    const _stream_segment_index_node_dev_ n = node_of(b);
    EXPECT_EQ(b.iframe_at[cut], u32(&n.start_iframe));
    expect_journal_clear("after the head cut");
}

TEST_F(SegmentDelete, HeadCutPastTheLastIframeTakesTheWholeSegment)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 2 * kPerBlock + 3);
    const Built other = add_segment(ri, para_at(12, 0, 0), 3);
    const unsigned long free_before = fs_->manage().free_block;

    EXPECT_EQ(0, delete_by_time(b, at(8, 30, 0), 0));

    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, node_of(b).id);
    EXPECT_EQ(free_before + b.blocks.size(), fs_->manage().free_block);
    for (uint32_t block : b.blocks)
        expect_type(block, QZFS_BLOCK_FREE, "head cut past the end");
    EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, node_of(other).id);
    expect_journal_clear("after the delete");
}

// ----------------------------------------------------- refusals and errors

TEST_F(SegmentDelete, MomentsOutsideTheSegmentChangeNothing)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 10), 3 * kPerBlock);
    const std::string before = image_fingerprint(image_);
    const unsigned long free_before = fs_->manage().free_block;
    const int end_second = b.node.end_second;

    expect_result_and_log(0, "flag:1,delete time:8:0:" + std::to_string(end_second) + " end:8:0:" +
                                 std::to_string(end_second),
                          [&] { return delete_by_time(b, at(8, 0, end_second), 1); });
    expect_result_and_log(0, "flag:1,delete time:9:0:0 end:", [&] { return delete_by_time(b, at(9, 0, 0), 1); });
    expect_result_and_log(0, "flag:0,delete time:8:0:10 start:8:0:10",
                          [&] { return delete_by_time(b, at(8, 0, 10), 0); });
    expect_result_and_log(0, "flag:0,delete time:7:0:0 start:", [&] { return delete_by_time(b, at(7, 0, 0), 0); });

    EXPECT_EQ(before, image_fingerprint(image_)) << "nothing is written, not even the journal";
    EXPECT_EQ(free_before, fs_->manage().free_block);
    expect_same_segment(b.node, node_of(b), "refused delete");
}

TEST_F(SegmentDelete, FreeSegmentsAndRootsAreRefused)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), kPerBlock);
    const Built keep = add_segment(ri, para_at(9, 0, 0), kPerBlock);
    ASSERT_EQ(0, delete_by_time(b, at(8, 0, 0), 1));
    const std::string before = image_fingerprint(image_);
    const unsigned long free_before = fs_->manage().free_block;

    // A deleted node and the end mark: the lookup shows either no first
    // I-frame or the free id, and both refuse.
    Built beyond = keep;
    beyond.index = keep.index + 1;
    const Built* gone_ones[] = {&b, &beyond};
    for (const Built* gone : gone_ones) {
        int rc = 0;
        const std::string out =
            captured_stdout([&] { rc = delete_by_time(*gone, at(8, 0, 0), 1); });
        EXPECT_EQ(-1, rc) << "segment " << gone->index;
        const std::string no_start = "Get_stream_segment_index_dev_node failed(" +
                                     std::to_string(ri) + ")(" + std::to_string(gone->index) + ")";
        EXPECT_TRUE(out.find(no_start) != std::string::npos ||
                    out.find("this segment is free(id:") != std::string::npos)
            << out;
        EXPECT_EQ(std::string::npos, out.find("delete flag")) << "refused before the scan";
    }
    Built no_root = keep;
    no_root.root = ri + 1;  // the end mark of the root index
    expect_result_and_log(-1,
                          "(IS_NORMAL_ROOT_INDEX(rinm.id) == 0)(root_index:" +
                              std::to_string(ri + 1) + ")(stream_segment_index:" +
                              std::to_string(keep.index) + ")",
                          [&] { return delete_by_time(no_root, at(9, 0, 0), 1); });
    EXPECT_EQ(before, image_fingerprint(image_));
    EXPECT_EQ(free_before, fs_->manage().free_block);

    // A node whose id is neither normal nor pre-record is not a segment.
    _stream_segment_index_node_dev_ odd = node_of(keep);
    odd.id = 7;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Modify_stream_segment(ri, keep.index, 0, &odd));
    fs_->disk_lock(0);
    expect_result_and_log(-1, "this segment is free(id:7)",
                          [&] { return delete_by_time(keep, at(9, 0, 0), 1); });
    for (uint32_t block : keep.blocks)
        expect_type(block, QZFS_BLOCK_DATA, "refused");
    expect_journal_clear("after the refusals");
}

// ------------------------------------------------- front trim by bytes

class SegmentTrim : public SegmentDelete {
protected:
    struct Outcome {
        int result = -2;
        unsigned long long taken = 0;
        unsigned char whole = 9, root_gone = 9;
        _k4t_fs_time_ new_start = {99, 99, 99};
        unsigned long new_stamp = 0;
    };
    Outcome trim(const Built& b, unsigned long long want)
    {
        Outcome o;
        fs_->disk_lock(1);
        o.result = fs_->Delete_stream_segment(b.root, b.index, nullptr, want, &o.taken, &o.whole,
                                              &o.new_start, &o.new_stamp, &o.root_gone);
        fs_->disk_lock(0);
        return o;
    }

    // The journal record a delete of `b` arms while it holds `node`, its
    // block entries left to the caller.
    _action_delete_ delete_record(const Built& b, const _stream_segment_index_node_dev_& node)
    {
        _action_delete_ r;
        memset(&r, 0, sizeof(r));
        r.root_index = b.root;
        r.stream_segment_index = b.index;
        r.start_iframe = u32(&node.start_iframe);
        r.len_in_bytes = len_of(node);
        r.root_index_id = root_of(b.root).id;
        r.stream_segment_index_id = node.id;
        r.start_hour = node.start_hour;
        r.start_minute = node.start_minute;
        r.start_second = node.start_second;
        return r;
    }

    void arm(const _action_delete_& r)
    {
        uint8_t bytes[QZFS_ACTION_DELETE_LEN];
        qzfs_action_delete_to_bytes(r, bytes);
        fs_->disk_lock(1);
        ASSERT_EQ(0, fs_->Register_qzfs_action(fs_->journal_block(), QZFS_ACTION_DELETE, bytes));
        fs_->disk_lock(0);
    }
};

TEST_F(SegmentTrim, CutsAtTheFirstIframeThatReachesTheSizeOrTakesTheWhole)
{
    // A segment of four blocks, eight seconds a block; the wanted size is
    // rounded up to the next I-frame, and a rest under one block goes too.
    struct Case {
        const char* what;
        double want_seconds;  // in stream bytes of one second
        int new_start;        // second of the new first I-frame, -1 whole
    } cases[] = {
        {"a size inside the first block", 0.5, 1},
        {"a size across two blocks", 2 * kPerBlock + 0.25, 2 * kPerBlock + 1},
        {"an I-frame exactly", 3 * kPerBlock - 8, 3 * kPerBlock - 8},
        {"less than one block left", 3 * kPerBlock + 1, -1},
    };
    int hour = 8;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const uint32_t ri = make_root(para_at(hour, 0, 0));
        const Built keep = add_segment(ri, para_at(hour, 30, 0), 3);
        const Built b = add_segment(ri, para_at(hour, 0, 0), 4 * kPerBlock);
        const unsigned long free_before = fs_->manage().free_block;

        const Outcome o = trim(b, (unsigned long long)(c.want_seconds * b.step));

        EXPECT_EQ(0, o.result);
        EXPECT_EQ(0, o.root_gone);
        const _stream_segment_index_node_dev_ n = node_of(b);
        if (c.new_start < 0) {
            EXPECT_EQ(1, o.whole);
            EXPECT_EQ(len_of(b.node), o.taken);
            EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, n.id);
            EXPECT_EQ(free_before + b.blocks.size(), fs_->manage().free_block);
        } else {
            const unsigned cut = unsigned(c.new_start), freed = cut / kPerBlock;
            EXPECT_EQ(0, o.whole);
            EXPECT_EQ(uint64_t(cut) * b.step, o.taken);
            EXPECT_EQ(b.iframe_at[cut], u32(&n.start_iframe));
            EXPECT_EQ(int(cut), n.start_second);
            EXPECT_EQ(int(cut), o.new_start.second);
            EXPECT_EQ(len_of(b.node) - o.taken, len_of(n));
            EXPECT_EQ(b.node.end_second, n.end_second);
            EXPECT_EQ(b.stamps[freed], u32(&n.owner_stamp));
            EXPECT_EQ(b.stamps[freed], o.new_stamp);
            EXPECT_EQ(free_before + freed, fs_->manage().free_block);
            for (size_t k = 0; k < b.blocks.size(); k++)
                expect_type(b.blocks[k], k < freed ? QZFS_BLOCK_FREE : QZFS_BLOCK_DATA, c.what);
        }
        expect_same_segment(keep.node, node_of(keep), "the other segment");
        expect_journal_clear(c.what);
        hour++;
    }
}

TEST_F(SegmentTrim, NothingWantedChangesNothing)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 3 * kPerBlock);
    const std::string before = image_fingerprint(image_);
    Outcome o;
    expect_result_and_log(0, "NOT DELETE(0)", [&] { return (o = trim(b, 0)).result; }, 1);
    EXPECT_EQ(0u, o.taken);
    EXPECT_EQ(before, image_fingerprint(image_)) << "not even the journal is written";
    expect_same_segment(b.node, node_of(b), "after a trim of nothing");
}

// A whole delete leaves the blocks its neighbours share, whichever way it is
// asked for: by id, by size, by time.
TEST_F(SegmentTrim, WholeDeleteKeepsTheBlocksItsNeighboursShare)
{
    const char* ways[] = {"by id", "by size", "by time"};
    int hour = 8;
    for (const char* way : ways) {
        SCOPED_TRACE(way);
        const uint32_t ri = make_root(para_at(hour, 0, 0));
        const Built before = add_segment(ri, para_at(hour, 0, 0), 2);
        const Built b = add_segment(ri, para_at(hour, 10, 0), 3 * kPerBlock);
        fs_->disk_lock(1);
        set_share_count(ri, b.entry_at[0], 2);      // shared with the segment before
        set_share_count(ri, b.entry_at.back(), 2);  // and with one after it
        fs_->disk_lock(0);

        if (way == ways[0]) {
            _k4t_stream_segment_id_ id = {0, b.root, b.index};
            EXPECT_EQ(0, api_qzfs_delete_stream_segment(&id));
            EXPECT_EQ(-1, api_qzfs_delete_stream_segment(&id)) << "a second time it is gone";
        } else if (way == ways[1]) {
            EXPECT_EQ(1, trim(b, len_of(b.node)).whole);
        } else {
            EXPECT_EQ(0, delete_by_time(b, at(hour, 10, 0), 1));
        }

        EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, node_of(b).id);
        fs_->disk_lock(1);
        EXPECT_EQ(1u, share_count_at(ri, b.entry_at[0]));
        EXPECT_EQ(1u, share_count_at(ri, b.entry_at.back()));
        fs_->disk_lock(0);
        for (size_t k = 0; k < b.blocks.size(); k++)
            expect_type(b.blocks[k],
                        k == 0 || k + 1 == b.blocks.size() ? QZFS_BLOCK_DATA : QZFS_BLOCK_FREE,
                        way);
        expect_same_segment(before.node, node_of(before), "the neighbour");
        expect_journal_clear(way);
        hour++;
    }
}

TEST_F(SegmentTrim, DeleteByIdRefusesWhatItMustNotTouch)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), kPerBlock);
    const std::string before = image_fingerprint(image_);
    _k4t_stream_segment_id_ unknown_disk = {7, b.root, b.index};
    _k4t_stream_segment_id_ past_end = {0, b.root, b.index + 1};
    expect_result_and_log(-1, "get_file_system failed(hdd_id:7)",
                          [&] { return api_qzfs_delete_stream_segment(&unknown_disk); });
    expect_result_and_log(-1, "Get_stream_segment_info failed",
                          [&] { return api_qzfs_delete_stream_segment(&past_end); });

    _k4t_stream_segment_id_ id = {0, b.root, b.index};
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    ASSERT_GE(fd, 0);
    expect_result_and_log(-1, "opened for reading",
                          [&] { return api_qzfs_delete_stream_segment(&id); });
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    EXPECT_EQ(before, image_fingerprint(image_));
    EXPECT_EQ(0, api_qzfs_delete_stream_segment(&id));
}

// The last block of a segment may hold P-frames only: no I-frame ends the
// scan there, and the next block entry of the log is the next segment's.
TEST_F(SegmentTrim, WholeDeleteStopsAtTheEndOfItsLastBlockWithoutIframes)
{
    const char* ways[] = {"by id", "by time"};
    int hour = 8;
    for (const char* way : ways) {
        SCOPED_TRACE(way);
        const uint32_t ri = make_root(para_at(hour, 0, 0));
        Built b = add_segment(ri, para_at(hour, 0, 0), 2 * kPerBlock);
        fs_->disk_lock(1);
        uint32_t ssi_num = 0, head = 0, num = 0;
        uint32_t *ssi_list = nullptr, *list = nullptr;
        _iframe_block_info_ info = {};
        ASSERT_EQ(0, fs_->Get_stream_segment_index_block_list(ri, &ssi_num, &ssi_list, &head));
        ASSERT_EQ(0, fs_->Get_iframe_block_info(head, &info));
        ASSERT_EQ(0, fs_->Read_iframe_index_block_list(head, &num, &list));
        _qzfs_block_info_ bi = {};
        bi.block_type = QZFS_BLOCK_DATA;
        bi.year = 26;
        bi.month = 3;
        bi.day = 14;
        unsigned long extra = 0;
        ASSERT_EQ(0, fs_->Request_free_block(1, &extra, &bi, 0));
        _iframe_index_node_dev_ entry;
        memset(&entry, 0, sizeof(entry));
        entry.id = IFRAME_INDEX_ID_BLOCK;
        entry.block_num = uint32_t(extra);
        entry.block_offset = info.block_index_num;
        entry.pts_high = 1;
        const uint8_t dt[6] = {26, 3, 14, uint8_t(hour), 0, 0};
        ASSERT_EQ(0, fs_->Add_iframe_index(&num, &list, info.iframe_index_num + info.block_index_num,
                                           &entry, 1, dt));
        set_segment_len(b.node, len_of(b.node) + (bs() - 4096) / 2);
        ASSERT_EQ(0, fs_->Modify_stream_segment(ri, b.index, 0, &b.node));
        delete[] ssi_list;
        delete[] list;
        delete[] info.pBlock_list;
        fs_->disk_lock(0);
        const Built next = add_segment(ri, para_at(hour, 30, 0), kPerBlock);

        if (way == ways[0]) {
            _k4t_stream_segment_id_ id = {0, ri, b.index};
            EXPECT_EQ(0, api_qzfs_delete_stream_segment(&id));
        } else {
            EXPECT_EQ(0, delete_by_time(b, at(hour, 0, 0), 1));
        }

        for (uint32_t block : b.blocks)
            expect_type(block, QZFS_BLOCK_FREE, way);
        expect_type(uint32_t(extra), QZFS_BLOCK_FREE, "the block of P-frames");
        expect_type(next.blocks[0], QZFS_BLOCK_DATA, "the next segment's block");
        expect_same_segment(next.node, node_of(next), "the next segment");
        hour++;
    }
}

// ------------------------------------------------------ roll-back at mount

// A journal left armed behind a finished delete: the power went before it
// was cleared, the hardest point to come back from (node free, blocks free,
// the root deleted). The mount puts it all back.
TEST_F(SegmentTrim, MountRollsAnArmedDeleteBack)
{
    struct Case {
        const char* what;
        bool alone;      // the segment is its root's only one
        int trim_to;     // second of the new start, -1 whole
    } cases[] = {{"whole, the root's last", true, -1},
                 {"whole, one of two", false, -1},
                 {"front trim", false, 2 * kPerBlock + 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const uint32_t ri = make_root(para_at(8, 0, 0));
        const Built b = add_segment(ri, para_at(8, 0, 0), 4 * kPerBlock);
        if (!c.alone)
            add_segment(ri, para_at(9, 0, 0), 3);
        fs_->disk_lock(1);
        set_share_count(ri, b.entry_at[0], 2);
        fs_->disk_lock(0);
        const _root_index_node_dev_ root = root_of(ri);
        const _stream_segment_index_node_dev_ node = node_of(b);

        _action_delete_ r = delete_record(b, node);
        r.first_block_iframe_index = b.entry_at[0];
        r.first_block_share_count = 2;
        r.last_block_iframe_index = c.trim_to < 0 ? b.entry_at.back() : b.entry_at[2];
        r.last_block_share_count = 1;

        if (c.trim_to < 0)
            EXPECT_EQ(1, trim(b, len_of(node)).whole);
        else
            EXPECT_EQ(0, trim(b, uint64_t(c.trim_to) * b.step).whole);
        EXPECT_EQ(c.alone ? FREE_ROOT_INDEX : root.id, root_of(ri).id);
        arm(r);

        remount();

        EXPECT_EQ(root.id, root_of(ri).id);
        // The journal holds no owner stamp: a rolled-back trim keeps the
        // younger stamp of its new first block.
        _stream_segment_index_node_dev_ want = node;
        if (c.trim_to >= 0)
            memcpy(&want.owner_stamp, &b.stamps[2], 4);
        expect_same_segment(want, node_of(b), "the segment as it was");
        fs_->disk_lock(1);
        EXPECT_EQ(2u, share_count_at(ri, b.entry_at[0])) << "the lowered count is put back";
        fs_->disk_lock(0);
        for (uint32_t block : b.blocks)
            expect_type(block, QZFS_BLOCK_DATA, c.what);
        expect_type(root.stream_segment_index_block, QZFS_BLOCK_SEGMENT_INDEX, c.what);
        expect_journal_clear(c.what);

        // Clean up for the next case: the segment goes for good.
        _k4t_stream_segment_id_ id = {0, ri, b.index};
        EXPECT_EQ(0, api_qzfs_delete_stream_segment(&id));
    }
}

// A tail cut moves the end to the cut I-frame and the journal keeps no old
// end: the roll-back finds it in the log. A segment as its recording closed
// it ends at its last I-frame (the next segment of the root, whose offsets
// start again, lies behind it in the log); one that an earlier cut ended
// ends at the I-frame where its length ends.
TEST_F(SegmentTrim, MountPutsBackTheEndOfAnArmedTailCut)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    for (bool cut_before : {false, true}) {
        SCOPED_TRACE(cut_before ? "ended by an earlier cut" : "as recorded");
        const int hour = cut_before ? 9 : 8;
        const Built b = add_segment(ri, para_at(hour, 0, 0), 4 * kPerBlock);
        add_segment(ri, para_at(hour, 30, 0), 3);
        if (cut_before) {
            EXPECT_EQ(0, delete_by_time(b, at(hour, 0, 3 * kPerBlock + 2), 1));
        }
        const _stream_segment_index_node_dev_ node = node_of(b);
        _action_delete_ r = delete_record(b, node);
        r.first_block_iframe_index = b.entry_at[0];
        r.first_block_share_count = 1;
        r.last_block_iframe_index = b.entry_at.back();
        r.last_block_share_count = 1;

        EXPECT_EQ(0, delete_by_time(b, at(hour, 0, kPerBlock + 3), 1));
        EXPECT_EQ(kPerBlock + 3, node_of(b).end_second);
        arm(r);

        remount();

        expect_same_segment(node, node_of(b), "the segment as it was");
        for (uint32_t block : b.blocks)
            expect_type(block, QZFS_BLOCK_DATA, "a block of the segment");
        expect_journal_clear("after the mount");
    }
}

TEST_F(SegmentTrim, MountLeavesATornJournalAlone)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 2 * kPerBlock);
    _action_delete_ r;
    memset(&r, 0, sizeof(r));
    r.root_index = ri;
    r.stream_segment_index = b.index;
    r.stream_segment_index_id = 1;
    uint8_t bytes[QZFS_ACTION_DELETE_LEN];
    qzfs_action_delete_to_bytes(r, bytes);
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Register_qzfs_action(fs_->journal_block(), QZFS_ACTION_DELETE, bytes));
    fs_->disk_lock(0);
    const unsigned long long record =
        (unsigned long long)fs_->journal_block() * bs() + 4096 + 20;
    damage_byte(image_, record + 8);  // start_iframe: the sum no longer matches

    remount();

    expect_same_segment(b.node, node_of(b), "untouched by a journal that does not check out");
    const std::vector<unsigned char> raw = read_bytes(image_, record - 8, 4);
    EXPECT_EQ(QZFS_ACTION_DELETE, u32(raw.data())) << "and the journal stays as found";
}

// An unfinished split: pieces added and the share count of the block where
// the old node is to start raised, but the old node not yet rewritten. The
// pieces go and the count falls back to the one user left; once the old
// node has moved on, the split stands and two pieces share that block.
TEST_F(SegmentTrim, MountRemovesThePiecesOfAnUncommittedSplit)
{
    for (bool committed : {false, true}) {
        SCOPED_TRACE(committed ? "committed" : "not committed");
        _qzfs_k4t_create_ss_para_ para = para_at(8, 0, 0);
        para.channel = committed ? 5 : 6;  // a root of its own
        const uint32_t ri = make_root(para);
        const Built b = add_segment(ri, para, 3 * kPerBlock);
        _qzfs_k4t_create_ss_para_ later = para;
        later.hour = 10;
        const Built other = add_segment(ri, later, 3);
        const unsigned split_at = kPerBlock + 3;
        _stream_segment_index_node_dev_ piece, old_node = b.node;
        uint32_t piece_index = 0;
        fs_->disk_lock(1);
        ASSERT_EQ(0, fs_->Create_stream_segment_index_node(ri, &para, b.start_iframe,
                                                           &piece_index, &piece));
        piece.end_hour = 8;
        piece.end_minute = 0;
        piece.end_second = uint8_t(split_at);
        set_segment_len(piece, uint64_t(split_at) * b.step);
        ASSERT_EQ(0, fs_->Modify_stream_segment(ri, piece_index, 0, &piece));
        set_share_count(ri, b.entry_at[1], 2);
        _action_segment_split_ r = {ri, b.index, b.start_iframe, b.iframe_at[split_at]};
        uint8_t bytes[QZFS_ACTION_SPLIT_LEN];
        qzfs_action_split_to_bytes(r, bytes);
        ASSERT_EQ(0, fs_->Register_qzfs_action(fs_->journal_block(), QZFS_ACTION_SPLIT, bytes));
        if (committed) {
            set_segment_start_iframe(old_node, b.iframe_at[split_at]);
            old_node.start_second = uint8_t(split_at);
            ASSERT_EQ(0, fs_->Modify_stream_segment(ri, b.index, 0, &old_node));
        }
        fs_->disk_lock(0);

        remount();

        Built p = b;
        p.index = piece_index;
        EXPECT_EQ(committed ? NORMAL_STREAM_SEGMENT_INDEX : FREE_STREAM_SEGMENT_INDEX,
                  node_of(p).id);
        expect_same_segment(old_node, node_of(b), "the old node");
        expect_same_segment(other.node, node_of(other), "a segment outside the split");
        fs_->disk_lock(1);
        EXPECT_EQ(committed ? 2u : 1u, share_count_at(ri, b.entry_at[1]));
        EXPECT_EQ(1u, share_count_at(ri, b.entry_at[0])) << "a block of the first piece alone";
        fs_->disk_lock(0);
        expect_journal_clear("after the mount");
    }
}

// ------------------------------------------------------ segment being recorded

class SegmentDeleteRecording : public SegmentDelete {
protected:
    // Registers a writer of `b` whose live node holds `seconds` seconds.
    void open_writer(const Built& b, unsigned seconds)
    {
        Init_opened_stream_segment(&oss_, K4T_FS_FALSE);
        _write_stream_segment_* wss = nullptr;
        Init_write_stream_segment(&wss);
        oss_->state = wss;
        oss_->hdd_id = 0;
        oss_->root_index = b.root;
        oss_->stream_segment_index = b.index;
        _root_index_node_dev_ root = root_of(b.root);
        memcpy(oss_->root_node, &root, sizeof(root));
        _stream_segment_index_node_dev_ live = b.node;
        const uint64_t len = uint64_t(seconds) * b.step;
        memcpy(&live.len_in_bytes, &len, 8);
        memcpy(oss_->ssi_node, &live, sizeof(live));
        wss->confirm_start_iframe = 1;
        uint32_t head = 0;
        ASSERT_EQ(0, fs_->Get_stream_segment_index_block_list(b.root, &wss->stream_segment_index_block_num,
                                                              &wss->stream_segment_index_block_list,
                                                              &head));
        ASSERT_EQ(0, fs_->Read_iframe_index_block_list(head, &wss->iframe_block_num,
                                                       &wss->iframe_block_list));
        fd_ = fs_->get_free_oss_fd();
        ASSERT_GE(fd_, 0);
        ASSERT_EQ(0, fs_->set_oss_info(fd_, oss_));
    }

    void TearDown() override
    {
        if (oss_ != nullptr) {
            fs_->release_oss_fd(fd_);
            _write_stream_segment_* wss = oss_->writer();
            Destory_write_stream_segment(&wss);
            Destory_opened_stream_segment(&oss_);
        }
        SegmentDelete::TearDown();
    }

    _opened_stream_segment_* oss_ = nullptr;
    int fd_ = -1;
};

TEST_F(SegmentDeleteRecording, TailCutAndWholeDeleteAreRefused)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 3 * kPerBlock);
    open_writer(b, 3 * kPerBlock);
    const std::string before = image_fingerprint(image_);

    for (int second : {0, 12}) {
        expect_result_and_log(-1, "this is recording stream segment,can not delete backwards",
                              [&] { return delete_by_time(b, at(8, 0, second), 1); });
    }
    EXPECT_EQ(before, image_fingerprint(image_));
    EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, node_of(b).id);
    for (uint32_t block : b.blocks)
        expect_type(block, QZFS_BLOCK_DATA, "recording");
}

TEST_F(SegmentDeleteRecording, HeadCutMovesTheLiveStartAndTheCutOffset)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 4 * kPerBlock);
    open_writer(b, 4 * kPerBlock);
    const unsigned cut = 2 * kPerBlock + 2;
    const unsigned long free_before = fs_->manage().free_block;

    EXPECT_EQ(0, delete_by_time(b, at(8, 0, int(cut)), 0));

    const _stream_segment_index_node_dev_ stored = node_of(b);
    EXPECT_EQ(b.iframe_at[cut], u32(&stored.start_iframe));
    EXPECT_EQ(int(cut), stored.start_second);
    EXPECT_EQ(QZFS_INVALID_END_HOUR, stored.end_hour) << "still shown as being recorded";
    EXPECT_EQ(0u, len_of(stored));
    const _stream_segment_index_node_dev_* live = oss_->ssi();
    EXPECT_EQ(b.iframe_at[cut], u32(&live->start_iframe));
    EXPECT_EQ(int(cut), live->start_second);
    EXPECT_EQ(b.stamps[cut / kPerBlock], u32(&live->owner_stamp));
    EXPECT_EQ(uint64_t(4 * kPerBlock) * b.step, len_of(*live)) << "the live length counts from birth";
    EXPECT_EQ(uint64_t(cut) * b.step, oss_->writer()->delete_len);
    EXPECT_EQ(free_before + cut / kPerBlock, fs_->manage().free_block);
    for (size_t k = 0; k < b.blocks.size(); k++)
        expect_type(b.blocks[k], k < cut / kPerBlock ? QZFS_BLOCK_FREE : QZFS_BLOCK_DATA, "recording cut");
    expect_journal_clear("after the cut");

    // A second cut counts from the new start: the length left is less the
    // cut offset.
    const unsigned cut2 = 3 * kPerBlock + 1;
    EXPECT_EQ(0, delete_by_time(b, at(8, 0, int(cut2)), 0));
    EXPECT_EQ(b.iframe_at[cut2], u32(&oss_->ssi()->start_iframe));
    EXPECT_EQ(uint64_t(cut2) * b.step, oss_->writer()->delete_len);
    expect_type(b.blocks[2], QZFS_BLOCK_FREE, "second cut");
    expect_type(b.blocks[3], QZFS_BLOCK_DATA, "second cut");

    // Past the last I-frame written there is no end to cut to.
    expect_result_and_log(-1, "recording,find end iframe failed",
                          [&] { return delete_by_time(b, at(8, 0, int(4 * kPerBlock + 5)), 0); });
    expect_journal_clear("after the refusal");
}

TEST_F(SegmentDeleteRecording, FrontTrimBySizeMovesTheLiveStartButNeverTakesTheWhole)
{
    const uint32_t ri = make_root(para_at(8, 0, 0));
    const Built b = add_segment(ri, para_at(8, 0, 0), 4 * kPerBlock);
    open_writer(b, 4 * kPerBlock);
    const unsigned cut = 2 * kPerBlock + 1;
    unsigned long long taken = 0;
    unsigned char whole = 9, root_gone = 9;
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Delete_stream_segment(ri, b.index, nullptr, uint64_t(cut) * b.step - 10,
                                            &taken, &whole, nullptr, nullptr, &root_gone));
    fs_->disk_lock(0);
    EXPECT_EQ(0, whole);
    EXPECT_EQ(uint64_t(cut) * b.step, taken);
    EXPECT_EQ(taken, oss_->writer()->delete_len);
    EXPECT_EQ(b.iframe_at[cut], u32(&oss_->ssi()->start_iframe));
    const _stream_segment_index_node_dev_ stored = node_of(b);
    EXPECT_EQ(b.iframe_at[cut], u32(&stored.start_iframe));
    EXPECT_EQ(QZFS_INVALID_END_HOUR, stored.end_hour);
    EXPECT_EQ(0u, len_of(stored));
    for (size_t k = 0; k < b.blocks.size(); k++)
        expect_type(b.blocks[k], k < cut / kPerBlock ? QZFS_BLOCK_FREE : QZFS_BLOCK_DATA, "trim");

    // More than what is left after the cut offset is refused; all that is
    // left stops at the last I-frame: the writer keeps its segment.
    const std::string before = image_fingerprint(image_);
    const uint64_t left = len_of(b.node) - taken;
    fs_->disk_lock(1);
    EXPECT_EQ(-1, fs_->Delete_stream_segment(ri, b.index, nullptr, left + 1, &taken, &whole,
                                             nullptr, nullptr, &root_gone));
    fs_->disk_lock(0);
    EXPECT_EQ(before, image_fingerprint(image_));
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Delete_stream_segment(ri, b.index, nullptr, left, &taken, &whole, nullptr,
                                            nullptr, &root_gone));
    fs_->disk_lock(0);
    EXPECT_EQ(0, whole);
    EXPECT_EQ(b.iframe_at[4 * kPerBlock - 1], u32(&oss_->ssi()->start_iframe));
    expect_journal_clear("after the trims");
}

} // namespace
