// The root index on real images: position arithmetic, nodes created and
// found again across mounts, damaged nodes, the mount-time rebuild and a
// small node cache that must answer like a large one.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_index_format.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

TEST(IndexArithmetic, FirstNodeSitsBehindTheHeaderSector)
{
    _qzfs_data_offset_ o;
    Calculate_index_info(4 * MiB, 64, 0, 65536, &o);
    EXPECT_EQ(8u, o.node_num_per_sector);
    EXPECT_EQ(9u, o.sector_in_block);
    EXPECT_EQ(4608u, o.offset_in_block);
    EXPECT_EQ(0u, o.unit_in_block);
    EXPECT_EQ(4608u, o.offset_in_unit);
    EXPECT_EQ(0u, o.index_in_unit);
    EXPECT_EQ(0u, o.unit_first_index);
    EXPECT_EQ(8u * 119 - 1, o.unit_last_index);  // 128 - 9 node sectors in the first unit
}

TEST(IndexArithmetic, ChainPositionsAndUnitsFollowTheBlockSize)
{
    _qzfs_data_offset_ o;
    Calculate_index_info(8 * MiB, 64, 131000, 65536, &o);
    EXPECT_EQ(131000u, o.node_num_per_block);  // 16375 sectors of 8 nodes
    EXPECT_EQ(1u, o.its_block_num);
    EXPECT_EQ(0u, o.index_in_block);
    EXPECT_EQ(128u, o.unit_in_chain);          // 8 MiB holds 128 units of 64 KiB

    // Node 952 is the first of the second unit of a block.
    Calculate_index_info(4 * MiB, 64, 952, 65536, &o);
    EXPECT_EQ(1u, o.unit_in_block);
    EXPECT_EQ(65536u, o.unit_offset);
    EXPECT_EQ(0u, o.offset_in_unit);
    EXPECT_EQ(952u, o.unit_first_index);
    EXPECT_EQ(952u + 1024 - 1, o.unit_last_index);

    // 29-byte nodes leave 19 bytes at the end of every sector.
    Calculate_index_info(4 * MiB, 29, 17, 65536, &o);
    EXPECT_EQ(17u, o.node_num_per_sector);
    EXPECT_EQ(10u, o.sector_in_block);
    EXPECT_EQ(0u, o.offset_in_sector);
    Calculate_index_info(4 * MiB, 29, 16, 65536, &o);
    EXPECT_EQ(9u, o.sector_in_block);
    EXPECT_EQ(464u, o.offset_in_sector);  // ends at byte 493

    // With 4 KiB units the header sector falls in the second unit, whose
    // first index counts it as a sector of 17 nodes.
    Calculate_index_info(4 * MiB, 29, 0, 4096, &o);
    EXPECT_EQ(1u, o.unit_in_block);
    EXPECT_EQ(512u, o.offset_in_unit);
    EXPECT_EQ(0xFFFFFFFFu - 16, o.unit_first_index);  // -17
}

TEST(IndexArithmetic, NodesWiderThanASectorGiveZerosNotACrash)
{
    _qzfs_data_offset_ o;
    Calculate_index_info(4 * MiB, 600, 5, 65536, &o);
    EXPECT_EQ(0u, o.node_num_per_sector);
    EXPECT_EQ(0u, o.node_num_per_block);
    EXPECT_EQ(0u, o.its_block_num);
    EXPECT_EQ(0u, o.index_in_block);
}

_qzfs_k4t_create_ss_para_ para_for(int day, int channel, int stream_type, const char* name,
                                   int record_type = 0)
{
    _qzfs_k4t_create_ss_para_ para;
    memset(&para, 0, sizeof(para));
    para.year = 26;
    para.month = 11;
    para.day = (uint8_t)day;
    para.hour = 8;
    para.channel = (uint8_t)channel;
    para.stream_type = (uint8_t)stream_type;
    para.record_type = (uint8_t)record_type;
    snprintf(para.name, sizeof(para.name), "%s", name);
    return para;
}

class RootIndex : public LibraryTest {
protected:
    std::string image_ = scratch_.path("disk.img");
    const unsigned long BS = 4 * MiB;

    void format(unsigned long long size = 3 * GiB) { ASSERT_EQ(0, format_image(image_, size)); }
    CQzFileSystem* mount()
    {
        std::string dev = image_;
        EXPECT_EQ(0, api_qzfs_mount(0, &dev[0]));
        return gQzfsManager.get_file_system(0);
    }
    void umount() { ASSERT_EQ(0, api_qzfs_umount(0)); }

    // A root with one closed segment of the same record type, which keeps it
    // and its summary as they are through the mount's walk.
    uint32_t create(CQzFileSystem* fs, const _qzfs_k4t_create_ss_para_& para)
    {
        uint32_t ri = 0xFFFFFFFF;
        _root_index_node_dev_ node;
        fs->disk_lock(1);
        EXPECT_EQ(0, fs->Create_root_index_node(&para, &ri, &node));
        fs->disk_lock(0);
        add_closed_segment(fs, ri, para);
        return ri;
    }
    _root_index_node_dev_ node_at(CQzFileSystem* fs, uint32_t ri)
    {
        _root_index_node_dev_ node;
        memset(&node, 0xEE, sizeof(node));
        fs->disk_lock(1);
        EXPECT_EQ(0, fs->Get_root_index_dev_node(ri, &node));
        fs->disk_lock(0);
        return node;
    }
    unsigned long root_block(CQzFileSystem* fs) { return fs->manage().root_index_block_map.at(0); }
    // Byte offset of root node `ri` in the image (first root block only).
    unsigned long long node_offset(unsigned long block, uint32_t ri)
    {
        return (unsigned long long)block * BS + 4608 + ri / 8 * 512 + ri % 8 * 64;
    }
};

void expect_node(const _root_index_node_dev_& n, const _qzfs_k4t_create_ss_para_& p)
{
    EXPECT_EQ(1, n.id);
    EXPECT_EQ(p.year, n.year);
    EXPECT_EQ(p.month, n.month);
    EXPECT_EQ(p.day, n.day);
    EXPECT_EQ(p.channel, n.channel);
    EXPECT_EQ(p.stream_type, n.stream_type);
    EXPECT_STREQ(p.name, n.name);
    uint16_t record_type;
    memcpy(&record_type, &n.record_type, 2);
    EXPECT_EQ(1u << p.record_type, record_type);
}

TEST_F(RootIndex, FormattedDiskGetsOneEmptyRootBlock)
{
    format();
    CQzFileSystem* fs = mount();
    unsigned long block = root_block(fs);
    EXPECT_EQ(1u, fs->manage().root_index_block_map.size());
    _qzfs_block_info_ head = read_block_head(image_, BS, block);
    EXPECT_EQ(QZFS_BLOCK_ROOT_INDEX, head.block_type);
    EXPECT_EQ(0, head.block_index);
    EXPECT_EQ((std::vector<unsigned char>{0x00, 0x49, 0x49, 0x52}),
              read_bytes(image_, block * BS + 4096, 4));
    // 1016 end marks stand behind the header sector.
    std::vector<unsigned char> nodes = read_bytes(image_, block * BS + 4608, 65536 - 512);
    EXPECT_EQ(std::vector<unsigned char>(nodes.size(), 128), nodes);
    EXPECT_EQ(END_ROOT_INDEX, node_at(fs, 0).id);
    EXPECT_EQ(END_ROOT_INDEX, node_at(fs, 5000000).id);  // beyond the chain
}

TEST_F(RootIndex, NodesComeBackAfterRemountAndDeleteFreesTheirBlocks)
{
    format();
    CQzFileSystem* fs = mount();
    std::vector<_qzfs_k4t_create_ss_para_> paras = {
        para_for(1, 0, 0, ""), para_for(1, 1, 0, "front door"), para_for(2, 0, 1, "sub"),
        para_for(3, 15, 0, "sixteen chars ok", 15), para_for(2, 0, 0, "", 3)};
    std::vector<uint32_t> positions;
    for (const auto& p : paras)
        positions.push_back(create(fs, p));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 2, 3, 4}), positions);
    umount();

    fs = mount();
    for (size_t i = 0; i < paras.size(); i++)
        expect_node(node_at(fs, positions[i]), paras[i]);
    EXPECT_EQ(END_ROOT_INDEX, node_at(fs, 5).id);
    fs->disk_lock(1);
    EXPECT_EQ(0, fs->Update_hdd_record_date(1, 0, 0, 0));
    fs->disk_lock(0);
    const _hdd_root_index_manager_* m = *pgSystemResourceManager->Get_hdd(0, 0);
    EXPECT_EQ(1, m->start_day);
    EXPECT_EQ(3, m->end_day);

    // Each node owns a segment index block and an I-frame index block.
    _root_index_node_dev_ second = node_at(fs, 1);
    uint32_t ssi_block;
    memcpy(&ssi_block, &second.stream_segment_index_block, 4);
    EXPECT_EQ(QZFS_BLOCK_SEGMENT_INDEX, read_block_head(image_, BS, ssi_block).block_type);
    EXPECT_EQ(1, read_block_head(image_, BS, ssi_block).attr[0]);  // channel
    unsigned long free_before = fs->manage().free_block;
    fs->disk_lock(1);
    EXPECT_EQ(0, fs->Delete_root_index(1, 0));
    fs->disk_lock(0);
    EXPECT_EQ(free_before + 2, fs->manage().free_block);
    EXPECT_EQ(FREE_ROOT_INDEX, node_at(fs, 1).id);
    umount();

    // The freed slot reads as free after a remount, and the rest stand.
    fs = mount();
    EXPECT_EQ(FREE_ROOT_INDEX, node_at(fs, 1).id);
    expect_node(node_at(fs, 2), paras[2]);
}

TEST_F(RootIndex, DamagedNodeReadsAsFree)
{
    format();
    CQzFileSystem* fs = mount();
    for (int day = 1; day <= 3; day++)
        create(fs, para_for(day, 2, 0, "cam"));
    unsigned long block = root_block(fs);
    umount();

    fs = mount();
    damage_byte(image_, node_offset(block, 1) + 1);
    pgSystemResourceManager->Free_resource(0);  // the next read goes to the disk
    std::string log = captured_stdout([&] { EXPECT_EQ(FREE_ROOT_INDEX, node_at(fs, 1).id); });
    EXPECT_NE(std::string::npos, log.find("Check_root_index_dev_node failed(1)(1)")) << log;
    EXPECT_EQ(1, node_at(fs, 0).id);
    EXPECT_EQ(3, node_at(fs, 2).day);
}

TEST_F(RootIndex, LastSlotOfABlockGetsNoEndMark)
{
    format();
    CQzFileSystem* fs = mount();
    create(fs, para_for(1, 0, 0, "a"));
    _root_index_node_dev_ node = node_at(fs, 0);
    uint32_t num = 0, *list = nullptr;
    fs->disk_lock(1);
    ASSERT_EQ(0, fs->Get_root_index_block_list(&num, &list, nullptr));
    const uint32_t per_block = (BS / 512 - 9) * 8;
    unsigned long block = list[0];
    // Written as the last slot, with is_end set: the slot behind it lies
    // beyond the chain, so no end mark is due and none is written.
    EXPECT_EQ(0, fs->Write_root_index(num, list, per_block - 1, &node, 1, 1));
    EXPECT_EQ(-1, fs->Write_root_index(num, list, per_block, &node, 1, 1));
    EXPECT_EQ(0, fs->Modify_root_index(0, 7, &node));  // other modes change nothing
    fs->disk_lock(0);
    std::vector<unsigned char> last = read_bytes(image_, block * BS + BS - 64, 64);
    EXPECT_EQ(1, last[0]);
}

TEST_F(RootIndex, SegmentBlockClaimedTwiceRebuildsTheRootIndex)
{
    format();
    CQzFileSystem* fs = mount();
    create(fs, para_for(5, 1, 0, "a"));
    create(fs, para_for(6, 2, 0, "b"));
    _root_index_node_dev_ first = node_at(fs, 0), second = node_at(fs, 1);
    uint32_t first_ssi, second_ssi;
    memcpy(&first_ssi, &first.stream_segment_index_block, 4);
    memcpy(&second_ssi, &second.stream_segment_index_block, 4);
    // Point the second node at the first node's block: its own is owned by nobody.
    memcpy(&second.stream_segment_index_block, &first_ssi, 4);
    fs->disk_lock(1);
    ASSERT_EQ(0, fs->Modify_root_index(1, 0, &second));
    fs->disk_lock(0);
    umount();

    // The mount finds a segment index block that no node owns and rebuilds
    // the root index from the segment index blocks.
    fs = mount();
    unsigned long new_root = root_block(fs);
    EXPECT_EQ(QZFS_BLOCK_ROOT_INDEX, read_block_head(image_, BS, new_root).block_type);
    // One node for each segment index block, in block order; names are lost.
    std::map<uint32_t, _root_index_node_dev_> by_block;
    for (uint32_t ri = 0; ri < 2; ri++) {
        _root_index_node_dev_ n = node_at(fs, ri);
        EXPECT_EQ(1, n.id);
        EXPECT_STREQ("", n.name);
        uint32_t b;
        memcpy(&b, &n.stream_segment_index_block, 4);
        by_block[b] = n;
    }
    EXPECT_EQ(END_ROOT_INDEX, node_at(fs, 2).id);
    ASSERT_EQ(1u, by_block.count(first_ssi));
    ASSERT_EQ(1u, by_block.count(second_ssi));
    EXPECT_EQ(5, by_block[first_ssi].day);
    EXPECT_EQ(2, by_block[second_ssi].channel);
    umount();

    // The rebuilt index passes the next check untouched.
    std::vector<unsigned char> rebuilt = read_bytes(image_, new_root * BS, BS);
    fs = mount();
    EXPECT_EQ(new_root, root_block(fs));
    EXPECT_EQ(rebuilt, read_bytes(image_, new_root * BS, BS));
}

// 2,000 nodes over five mounts, read back through a cache of 100 entries:
// the answers match a fresh run with the default cache.
TEST_F(RootIndex, SmallCacheGivesTheSameAnswersAsALargeOne)
{
    std::unique_ptr<ScopedCacheConfig> small_cache(new ScopedCacheConfig(
        100, 100, gQzfsConfig.ssi_cache_size, gQzfsConfig.ssi_cache_step));

    format(20 * GiB);
    std::vector<_qzfs_k4t_create_ss_para_> written;
    static const char* const names[] = {"", "gate", "yard", "hall"};
    for (int round = 0; round < 5; round++) {
        CQzFileSystem* fs = mount();
        for (int i = 0; i < 400; i++) {
            int n = round * 400 + i;
            written.push_back(para_for(1 + n % 28, n % 32, n % 3, names[n % 4], n % 16));
            ASSERT_EQ((uint32_t)n, create(fs, written.back()));
            // A look at an older day pulls the cached range away from the
            // end, where the next node is written.
            if (n % 50 == 49)
                expect_node(node_at(fs, (uint32_t)n / 2), written[n / 2]);
        }
        umount();
    }
    auto read_all = [&]() {
        CQzFileSystem* fs = mount();
        std::vector<_root_index_node_dev_> nodes;
        // Backwards first, then forwards, so the range moves both ways.
        for (uint32_t ri = 2000; ri-- > 0;)
            nodes.push_back(node_at(fs, ri));
        for (uint32_t ri = 0; ri < 2000; ri++) {
            _root_index_node_dev_ again = node_at(fs, ri);
            EXPECT_EQ(0, memcmp(&nodes[1999 - ri], &again, 64)) << ri;
        }
        EXPECT_EQ(END_ROOT_INDEX, node_at(fs, 2000).id);
        unsigned long block = root_block(fs);
        umount();
        std::reverse(nodes.begin(), nodes.end());
        _qzfs_block_info_ head = read_block_head(image_, BS, block);
        EXPECT_EQ(QZFS_BLOCK_ROOT_INDEX, head.block_type);
        EXPECT_EQ(0, head.block_index);
        return nodes;
    };
    std::vector<_root_index_node_dev_> small = read_all();
    for (uint32_t ri = 0; ri < 2000; ri++)
        expect_node(small[ri], written[ri]);

    small_cache.reset();  // the default cache again
    std::vector<_root_index_node_dev_> large = read_all();
    for (uint32_t ri = 0; ri < 2000; ri++)
        EXPECT_EQ(0, memcmp(&small[ri], &large[ri], 64)) << ri;
}

} // namespace
