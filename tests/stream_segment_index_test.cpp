// The stream segment index on real images: segments created, closed,
// locked and found again across mounts, a block filled to its last slot and
// a chain read past it, damaged nodes, repaired nodes on a read-only disk,
// the root summary and a small node cache shared by several roots.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_index_format.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstdio>
#include <cstring>
#include <list>
#include <vector>

using namespace qzfs_test;

namespace {

const uint32_t kPerBlock = 65464;  // segment nodes in a 4 MiB block

_qzfs_k4t_create_ss_para_ segment_para(int hour, int minute, int record_type = 0, int lock = 0)
{
    _qzfs_k4t_create_ss_para_ para;
    memset(&para, 0, sizeof(para));
    para.year = 26;
    para.month = 11;
    para.day = 21;
    para.hour = (uint8_t)hour;
    para.minute = (uint8_t)minute;
    para.second = 7;
    para.channel = 3;
    para.record_type = (uint8_t)record_type;
    para.lock = (uint8_t)lock;
    para.lock_type = 0x55;
    para.alarm_type = 0x1122334455ULL;
    return para;
}

uint64_t len_of(const _stream_segment_index_node_dev_& n)
{
    uint64_t len;
    memcpy(&len, &n.len_in_bytes, 8);
    return len;
}

uint32_t start_iframe_of(const _stream_segment_index_node_dev_& n)
{
    uint32_t v;
    memcpy(&v, &n.start_iframe, 4);
    return v;
}

class SegmentIndex : public MountedImageTest {
protected:
    const unsigned long BS = 4 * MiB;

    uint32_t create_root(int day = 21)
    {
        _qzfs_k4t_create_ss_para_ para = segment_para(8, 0);
        para.day = (uint8_t)day;
        uint32_t ri = 0xFFFFFFFF;
        _root_index_node_dev_ node;
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Create_root_index_node(&para, &ri, &node));
        fs_->disk_lock(0);
        return ri;
    }
    uint32_t create_segment(uint32_t ri, const _qzfs_k4t_create_ss_para_& para,
                            uint32_t start_iframe = 1)
    {
        uint32_t index = 0xFFFFFFFF;
        _stream_segment_index_node_dev_ node;
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Create_stream_segment_index_node(ri, &para, start_iframe, &index, &node));
        fs_->disk_lock(0);
        return index;
    }
    _stream_segment_index_node_dev_ segment(uint32_t ri, uint32_t index)
    {
        _stream_segment_index_node_dev_ node;
        memset(&node, 0xEE, sizeof(node));
        fs_->disk_lock(1);
        EXPECT_EQ(0, fs_->Get_stream_segment_index_dev_node(ri, index, &node));
        fs_->disk_lock(0);
        return node;
    }
    int modify(uint32_t ri, uint32_t index, int mode, const _stream_segment_index_node_dev_& node)
    {
        fs_->disk_lock(1);
        int result = fs_->Modify_stream_segment(ri, index, mode, &node);
        fs_->disk_lock(0);
        return result;
    }
    std::vector<uint32_t> chain(uint32_t ri, uint32_t* iframe_block = nullptr)
    {
        uint32_t num = 0, *list = nullptr;
        EXPECT_EQ(0, fs_->Get_stream_segment_index_block_list(ri, &num, &list, iframe_block));
        std::vector<uint32_t> blocks(list, list + num);
        delete[] list;
        return blocks;
    }
    // Byte offset of segment node `index` of a chain's first block.
    unsigned long long node_offset(unsigned long block, uint32_t index)
    {
        return (unsigned long long)block * BS + 4608 + index / 8 * 512 + index % 8 * 64;
    }
};

// A segment the writer has just closed: its end and length are known.
_stream_segment_index_node_dev_ closed(_stream_segment_index_node_dev_ node, uint64_t len)
{
    node.end_hour = 9;
    node.end_minute = 30;
    node.end_second = 0;
    memcpy(&node.len_in_bytes, &len, 8);
    return node;
}

TEST_F(SegmentIndex, SegmentsAreCreatedClosedAndFoundAgainAfterRemount)
{
    format();
    mount();
    uint32_t ri = create_root();
    _qzfs_k4t_create_ss_para_ a = segment_para(8, 0);            // record type 0: no alarm kept
    _qzfs_k4t_create_ss_para_ b = segment_para(8, 20, 3, 1);     // alarm, locked, pre-record
    b.for_pre_record = 1;
    b.dst = 1;
    b.tv_system = 1;
    b.have_audio = 3;
    b.further_flag = 1;
    b.segment_type = 9;
    _qzfs_k4t_create_ss_para_ c = segment_para(9, 0);
    EXPECT_EQ(0u, create_segment(ri, a, 1));
    EXPECT_EQ(1u, create_segment(ri, b, 40));
    EXPECT_EQ(2u, create_segment(ri, c, 90));

    _stream_segment_index_node_dev_ n = segment(ri, 1);
    EXPECT_EQ(PRE_RECORD_STREAM_SEGMENT_INDEX, n.id);
    EXPECT_EQ(0x1F, n.flags);
    EXPECT_EQ(9, n.segment_type);
    EXPECT_EQ(40u, start_iframe_of(n));
    EXPECT_EQ(QZFS_INVALID_END_HOUR, n.end_hour);
    uint64_t alarm;
    uint32_t lock_type;
    memcpy(&alarm, &n.alarm_type, 8);
    memcpy(&lock_type, &n.lock_type, 4);
    EXPECT_EQ(0x1122334455ULL, alarm);
    EXPECT_EQ(0x55u, lock_type);
    n = segment(ri, 0);
    memcpy(&alarm, &n.alarm_type, 8);
    memcpy(&lock_type, &n.lock_type, 4);
    EXPECT_EQ(0u, alarm);
    EXPECT_EQ(0u, lock_type);

    // Closing writes the end and the length; the recording form (mode 1 of
    // the chain form) shows neither, whatever the writer holds.
    EXPECT_EQ(0, modify(ri, 0, 0, closed(segment(ri, 0), 123456789012ULL)));
    std::vector<uint32_t> blocks = chain(ri);
    ASSERT_EQ(1u, blocks.size());
    _stream_segment_index_node_dev_ live = closed(segment(ri, 2), 5000);
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Modify_stream_segment(ri, 1, blocks.data(), 2, 1, &live));
    fs_->disk_lock(0);
    EXPECT_EQ(QZFS_INVALID_END_HOUR, segment(ri, 2).end_hour);
    EXPECT_EQ(0u, len_of(segment(ri, 2)));

    // On the disk: nodes with their check sums, the end mark behind them.
    std::vector<unsigned char> raw = read_bytes(image_, node_offset(blocks[0], 0), 64);
    EXPECT_EQ(qzfs_root_node_byte_sum(raw.data()), raw[1]);
    EXPECT_EQ(std::vector<unsigned char>(64, 255), read_bytes(image_, node_offset(blocks[0], 3), 64));
    // Read back from the disk, the unfinished nodes are as written...
    pgSystemResourceManager->Free_resource(0);
    EXPECT_EQ(PRE_RECORD_STREAM_SEGMENT_INDEX, segment(ri, 1).id);
    EXPECT_EQ(0x1F, segment(ri, 1).flags);
    EXPECT_EQ(90u, start_iframe_of(segment(ri, 2)));
    EXPECT_EQ(QZFS_INVALID_END_HOUR, segment(ri, 2).end_hour);

    // ...and the mount removes both, having no I-frame of theirs to close
    // them at, while the closed one stands.
    remount();
    n = segment(ri, 0);
    EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, n.id);
    EXPECT_EQ(8, n.start_hour);
    EXPECT_EQ(7, n.start_second);
    EXPECT_EQ(9, n.end_hour);
    EXPECT_EQ(30, n.end_minute);
    EXPECT_EQ(123456789012ULL, len_of(n));
    EXPECT_EQ(1u, start_iframe_of(n));
    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, segment(ri, 1).id);
    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, segment(ri, 2).id);
    EXPECT_EQ(END_STREAM_SEGMENT_INDEX, segment(ri, 3).id);
    // A free root node has no segments.
    EXPECT_EQ(END_STREAM_SEGMENT_INDEX, segment(ri + 1, 0).id);
}

TEST_F(SegmentIndex, LockChangesWriteOnlyWhenSomethingChanges)
{
    format();
    mount();
    uint32_t ri = create_root();
    uint32_t index = create_segment(ri, segment_para(10, 0));
    EXPECT_EQ(0, modify(ri, index, 0, closed(segment(ri, index), 777)));

    _stream_segment_index_node_dev_ same = segment(ri, index);
    std::string before = image_fingerprint(image_);
    EXPECT_EQ(0, modify(ri, index, 1, same));
    EXPECT_EQ(before, image_fingerprint(image_));

    _stream_segment_index_node_dev_ locked = same;
    locked.lock = 1;
    uint32_t reasons = 0x8001;
    memcpy(&locked.lock_type, &reasons, 4);
    locked.end_hour = 0;  // only lock and lock_type are taken
    EXPECT_EQ(0, modify(ri, index, 1, locked));
    remount();
    _stream_segment_index_node_dev_ n = segment(ri, index);
    EXPECT_EQ(1, n.lock);
    uint32_t stored;
    memcpy(&stored, &n.lock_type, 4);
    EXPECT_EQ(0x8001u, stored);
    EXPECT_EQ(9, n.end_hour);
    EXPECT_EQ(777u, len_of(n));

    _qzfs_k4t_create_ss_para_ pre = segment_para(11, 0);
    pre.for_pre_record = 1;
    uint32_t pre_index = create_segment(ri, pre);
    expect_result_and_log(-1, "NOT IS_NORMAL_SSIN", [&] { return modify(ri, pre_index, 1, locked); });
    EXPECT_EQ(-1, modify(ri, index, 7, locked));
}

TEST_F(SegmentIndex, ABlockFillsToItsLastSlotAndTheChainReadsOnPastIt)
{
    format();
    mount();
    uint32_t ri = create_root();
    for (uint32_t i = 0; i < kPerBlock - 1; i++) {
        _qzfs_k4t_create_ss_para_ p = segment_para(i / 3600 % 24, i / 60 % 60, i % 16);
        p.second = (uint8_t)(i % 60);
        ASSERT_EQ(i, add_closed_segment(fs_, ri, p, i + 1)) << i;
    }
    // The block's last slot is never handed out, and the chain does not grow.
    std::string before = image_fingerprint(image_);
    uint32_t index = 0;
    _stream_segment_index_node_dev_ node;
    fs_->disk_lock(1);
    _qzfs_k4t_create_ss_para_ extra = segment_para(23, 59);
    expect_result_and_log(-1, "Get_free_stream_segment_index failed", [&] {
        return fs_->Create_stream_segment_index_node(ri, &extra, 1, &index, &node);
    });
    fs_->disk_lock(0);
    EXPECT_EQ(before, image_fingerprint(image_));

    // Link a second block behind the first by hand, as a rebuilt chain
    // would be, and put a node into it past a free last slot.
    std::vector<uint32_t> blocks = chain(ri);
    uint32_t iframe_block = 0;
    chain(ri, &iframe_block);
    _qzfs_block_info_ info;
    memset(&info, 0, sizeof(info));
    info.block_type = QZFS_BLOCK_SEGMENT_INDEX;
    unsigned long second = 0;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Request_free_block(1, &second, &info, 0));
    ASSERT_EQ(0, fs_->Init_stream_segment_block(second, blocks[0], 0, iframe_block, 0));
    fs_->disk_lock(0);
    umount();
    uint32_t next = (uint32_t)second;
    write_bytes(image_, (unsigned long long)blocks[0] * BS + 4096 + 8,
                std::vector<unsigned char>((unsigned char*)&next, (unsigned char*)&next + 4));
    mount();
    blocks = chain(ri);
    ASSERT_EQ(2u, blocks.size());
    _stream_segment_index_node_dev_ free_slot;
    memset(&free_slot, 0, sizeof(free_slot));
    _stream_segment_index_node_dev_ far = segment(ri, 5);
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Write_stream_segment_index(2, blocks.data(), kPerBlock - 1, &free_slot, 0, 0));
    EXPECT_EQ(0, fs_->Write_stream_segment_index(2, blocks.data(), kPerBlock, &free_slot, 1, 1));
    EXPECT_EQ(0, fs_->Write_stream_segment_index(2, blocks.data(), kPerBlock + 1, &far, 1, 1));
    fs_->disk_lock(0);

    remount();
    for (uint32_t i : {0u, 1u, 951u, 952u, 30000u, kPerBlock - 2}) {
        _stream_segment_index_node_dev_ n = segment(ri, i);
        EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, n.id) << i;
        EXPECT_EQ(i + 1, start_iframe_of(n)) << i;
        EXPECT_EQ(i % 60, n.start_second) << i;
        EXPECT_EQ(i % 16, n.record_type) << i;
    }
    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, segment(ri, kPerBlock - 1).id);
    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, segment(ri, kPerBlock).id);
    _stream_segment_index_node_dev_ far_again = segment(ri, kPerBlock + 1);
    EXPECT_EQ(0, memcmp(&far, &far_again, 64));
    EXPECT_EQ(END_STREAM_SEGMENT_INDEX, segment(ri, kPerBlock + 2).id);
    // The free slots are found again, the first in the first block.
    uint32_t num = 2, *list = new uint32_t[2]{blocks[0], blocks[1]};
    int is_end = -1;
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Get_free_stream_segment_index(ri, &num, &list, &index, &is_end));
    fs_->disk_lock(0);
    EXPECT_EQ(kPerBlock - 1, index);
    EXPECT_EQ(0, is_end);
    delete[] list;
}

TEST_F(SegmentIndex, NineDamagedNodesReadAsFreeAndTheTenthEndsTheArray)
{
    format();
    mount();
    uint32_t ri = create_root();
    for (int i = 0; i < 14; i++)
        add_closed_segment(fs_, ri, segment_para(12, i));
    unsigned long block = chain(ri)[0];
    umount();
    for (uint32_t i = 2; i < 12; i++)
        damage_byte(image_, node_offset(block, i) + 1);
    mount();
    pgSystemResourceManager->Free_resource(0);  // the mount's walk read them; read them afresh
    std::string log = captured_stdout([&] {
        EXPECT_EQ(NORMAL_STREAM_SEGMENT_INDEX, segment(ri, 1).id);
    });
    EXPECT_NE(std::string::npos, log.find("Check_stream_segment_index_dev_node failed(root_index:"));
    for (uint32_t i = 2; i < 11; i++)
        EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, segment(ri, i).id) << i;
    for (uint32_t i = 11; i < 14; i++)
        EXPECT_EQ(END_STREAM_SEGMENT_INDEX, segment(ri, i).id) << i;
}

TEST_F(SegmentIndex, RepairedNodesShowThroughOnlyOnAReadOnlyDisk)
{
    format();
    mount();
    uint32_t ri = create_root();
    create_segment(ri, segment_para(13, 0));
    uint32_t index = create_segment(ri, segment_para(14, 0));
    _stream_segment_index_node_dev_ repaired = closed(segment(ri, index), 4242);
    fs_->add_ssid_to_cache(ri, index, &repaired);

    _stream_segment_index_node_dev_ got;
    EXPECT_EQ(0, fs_->get_ssid_from_cache(ri, index, &got));
    EXPECT_EQ(-1, fs_->get_ssid_from_cache(ri, index, nullptr));
    EXPECT_EQ(-1, fs_->get_ssid_from_cache(ri, 0, &got));

    auto fresh_lookup = [&]() {
        pgSystemResourceManager->Free_resource(0);
        return segment(ri, index);
    };
    EXPECT_EQ(0u, len_of(fresh_lookup()));
    fs_->Set_bare_dev(0);
    EXPECT_EQ(4242u, len_of(fresh_lookup()));
    EXPECT_EQ(9, fresh_lookup().end_hour);
    fs_->Set_bare_dev(1);
}

TEST_F(SegmentIndex, RootSummaryFollowsItsSegmentsAndAnEmptyRootGoes)
{
    format();
    mount();
    uint32_t ri = create_root();
    _qzfs_k4t_create_ss_para_ pre = segment_para(7, 0, 7);
    pre.for_pre_record = 1;
    uint32_t a = add_closed_segment(fs_, ri, segment_para(8, 0, 2));
    uint32_t b = add_closed_segment(fs_, ri, segment_para(9, 0, 5, 1));
    uint32_t unconfirmed = create_segment(ri, pre);

    int deleted = 0;
    fs_->disk_lock(1);
    expect_result_and_log(0, "modify root index(lock:0->1,record type:0x1->0x24,only pre record:0->0)",
                          [&] { return fs_->check_and_modify_root_info(ri, &deleted); });
    std::string before = image_fingerprint(image_);
    EXPECT_EQ(0, fs_->check_and_modify_root_info(ri, &deleted));
    EXPECT_EQ(before, image_fingerprint(image_));
    fs_->disk_lock(0);
    EXPECT_EQ(0, deleted);
    remount();
    _root_index_node_dev_ root;
    fs_->disk_lock(1);
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(ri, &root));
    fs_->disk_lock(0);
    uint16_t mask;
    memcpy(&mask, &root.record_type, 2);
    EXPECT_EQ(0x24, mask);
    EXPECT_EQ(1, root.lock);
    // The mount removed the pre-recording that was never confirmed.
    EXPECT_EQ(FREE_STREAM_SEGMENT_INDEX, segment(ri, unconfirmed).id);

    // Deleting both normal segments leaves only pre-record: the root goes
    // with its two index blocks.
    create_segment(ri, pre);
    _stream_segment_index_node_dev_ gone;
    memset(&gone, 0, sizeof(gone));
    EXPECT_EQ(0, modify(ri, a, 0, gone));
    EXPECT_EQ(0, modify(ri, b, 0, gone));
    unsigned long free_before = fs_->manage().free_block;
    fs_->disk_lock(1);
    expect_result_and_log(0, "root is empty,so delete",
                          [&] { return fs_->check_and_modify_root_info(ri, &deleted); }, 1);
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(ri, &root));
    fs_->disk_lock(0);
    EXPECT_EQ(1, deleted);
    EXPECT_EQ(FREE_ROOT_INDEX, root.id);
    EXPECT_EQ(free_before + 2, fs_->manage().free_block);
}

TEST_F(SegmentIndex, RebuiltNodesAreWrittenAndTheChainChecked)
{
    format();
    mount();
    uint32_t ri = create_root();
    uint32_t iframe_block = 0;
    unsigned long block = chain(ri, &iframe_block)[0];
    std::list<_stream_segment_index_node_dev_> nodes;
    for (int i = 0; i < 20; i++) {
        _stream_segment_index_node_dev_ n;
        _qzfs_k4t_create_ss_para_ p = segment_para(1, i);
        fs_->Create_stream_segment_index_node(&p, uint32_t(i + 1), &n);
        nodes.push_back(n);
    }
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->write_stream_segment_index(block, nodes));
    uint32_t found = 0;
    EXPECT_EQ(0, fs_->check_stream_segment_index_block(block, &found));
    fs_->disk_lock(0);
    EXPECT_EQ(iframe_block, found);
    // Each sector keeps the first eight nodes it was given: node 17 opens
    // the second sector, and nodes 11 to 16 stand behind its three.
    for (uint32_t slot = 0; slot < 8; slot++)
        EXPECT_EQ(slot + 1, start_iframe_of(segment(ri, slot))) << slot;
    EXPECT_EQ(18u, start_iframe_of(segment(ri, 8)));
    EXPECT_EQ(12u, start_iframe_of(segment(ri, 11)));
    EXPECT_EQ(END_STREAM_SEGMENT_INDEX, segment(ri, 17).id);

    // A node with a sound check sum but an unknown id fails the check.
    _stream_segment_index_node_dev_ odd = nodes.front();
    odd.id = 7;
    std::vector<uint32_t> blocks = chain(ri);
    fs_->disk_lock(1);
    EXPECT_EQ(0, fs_->Write_stream_segment_index(1, blocks.data(), 3, &odd, 0, 0));
    expect_result_and_log(-1, "invalid segment index id(07)",
                          [&] { return fs_->check_stream_segment_index_block(block, nullptr); });
    expect_result_and_log(-1, "this is not stream segment index block",
                          [&] { return fs_->check_stream_segment_index_block(iframe_block, nullptr); });
    fs_->disk_lock(0);
}

TEST_F(SegmentIndex, SmallCacheSharedByRootsGivesTheDisksAnswers)
{
    ScopedCacheConfig small(gQzfsConfig.root_index_cache_size, gQzfsConfig.root_index_cache_step,
                            200, 100);

    format();
    mount();
    const uint32_t roots = 3, per_root = 500;
    std::vector<uint32_t> ri(roots);
    for (uint32_t r = 0; r < roots; r++)
        ri[r] = create_root(1 + int(r));
    // Interleaved creation: each root's range is pushed out by the others.
    for (uint32_t i = 0; i < per_root; i++)
        for (uint32_t r = 0; r < roots; r++)
            ASSERT_EQ(i, add_closed_segment(fs_, ri[r], segment_para(int(r), i % 60, 0),
                                            r * 100000 + i + 1));
    for (int pass = 0; pass < 2; pass++) {
        for (uint32_t step = 0; step < per_root; step++) {
            uint32_t r = step % roots;
            // Backwards, forwards and far jumps, so ranges move both ways.
            uint32_t i = pass == 0 ? per_root - 1 - step : (step * 577) % per_root;
            ASSERT_EQ(r * 100000 + i + 1, start_iframe_of(segment(ri[r], i))) << r << ":" << i;
        }
        remount();
    }
    // One root alone, larger than the cache, takes slots from its own range.
    for (uint32_t step = 0; step < 2 * per_root; step++) {
        uint32_t i = step < per_root ? per_root - 1 - step : step - per_root;
        ASSERT_EQ(i + 1, start_iframe_of(segment(ri[0], i))) << i;
    }
    for (uint32_t r = 0; r < roots; r++)
        EXPECT_EQ(END_STREAM_SEGMENT_INDEX, segment(ri[r], per_root).id);
}

} // namespace
