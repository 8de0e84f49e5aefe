// The index caches: the growable vector under them, the name table, the two
// node pools with their eviction, and the release of one disk's share.
#include "test_support.h"

#include "qzfilesystem_api.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

// ------------------------------------------------------------------ the vector

int g_released = 0;  // elements released with code 1 or 2

unsigned char IntFunc(int& a, int& b, unsigned char op)
{
    if (op == RVFSVO_COPY)
        b = a;
    else if (op == RVFSVO_IS_FREE)
        return a == -1 ? 1 : 0;
    else {
        g_released += op == RVFSVO_INIT ? 0 : 1;
        a = -1;
    }
    return 1;
}
typedef CQzfsVector<unsigned char, int, unsigned char (*)(int&, int&, unsigned char), 0> IntVector;

TEST(IndexCacheVector, GrowsByStepsUpToTheLimitAndReleasesAtTheEnd)
{
    g_released = 0;
    {
        IntVector v(IntFunc, 255, 8, 255, "test vector");
        EXPECT_EQ(0, v.size());
        EXPECT_EQ(255, v.m_next_free);
        v[3] = 33;
        EXPECT_EQ(8, v.size());
        EXPECT_EQ(0, v.m_next_free);  // the search starts in the first new stretch
        EXPECT_EQ(-1, v[7]);          // new elements are made empty
        v[254] = 44;                  // the last index grows to the limit, not beyond
        EXPECT_EQ(255, v.size());
        EXPECT_EQ(33, v[3]);          // old elements survive every growth
        EXPECT_EQ(0, v.vector_increment());
        EXPECT_EXIT(v[255], ::testing::ExitedWithCode(1), "");
    }
    EXPECT_EQ(255, g_released);  // code 1 for every element
}

TEST(IndexCacheVector, MoveUpCarriesOneMoreAndMoveDownExactlyCount)
{
    IntVector v(IntFunc, 20, 8, 255, "test vector");
    for (int i = 0; i < 8; i++)
        v[i] = 10 + i;

    // Up by three from 1, count 2: positions 4, 5 and 6 take 11, 12 and 13,
    // the element just behind the stretch included; the sources are emptied.
    EXPECT_EQ(0, v.move(1, 2, 4));
    const int up[] = {10, -1, -1, -1, 11, 12, 13, 17};
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(up[i], v[i]) << i;

    // Down to 0 from 4, count 3: exactly three elements.
    EXPECT_EQ(0, v.move(4, 3, 0));
    const int down[] = {11, 12, 13, -1, -1, -1, -1, 17};
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(down[i], v[i]) << i;

    // Moving up far enough grows the vector first.
    EXPECT_EQ(0, v.move(0, 3, 10));
    EXPECT_EQ(16, v.size());
    EXPECT_EQ(11, v[10]);

    EXPECT_EQ(-1, v.move(0, 0, 5));   // nothing to move
    EXPECT_EQ(-1, v.move(0, 5, 16));  // would run past the limit
    EXPECT_EQ(11, v[10]);
    EXPECT_EXIT(v.move(20, 1, 0), ::testing::ExitedWithCode(1), "");
}

TEST(IndexCacheVector, DiskTableTakesAnEmptySlotAsFreeAndExitsOnAnUnknownOp)
{
    CQzFileSystem* fs = nullptr;
    EXPECT_EQ(1, QzfsVectorFunc(fs, fs, RVFSVO_IS_FREE));
    EXPECT_EXIT(QzfsVectorFunc(fs, fs, 9), ::testing::ExitedWithCode(1), "");
}

// ------------------------------------------------------------------ name table

TEST(IndexCacheNames, SameNameSharesAnIndexAndFreedEntriesAreReused)
{
    StringIndexManager<unsigned short> names;
    unsigned short cam = names.ref_inc_by_name("cam");
    unsigned short door = names.ref_inc_by_name("door");
    EXPECT_EQ(QZFS_FIRST_NAME_INDEX, cam);  // position 0 is index 8
    EXPECT_EQ(cam + 1, door);
    EXPECT_EQ(cam, names.ref_inc_by_name("cam"));
    EXPECT_STREQ("cam", names.get_name(cam));
    EXPECT_EQ(2, names.m_string_index_vector[0].ref_count);

    EXPECT_EQ(cam, names.ref_dec_by_index(cam));
    EXPECT_STREQ("cam", names.get_name(cam));  // one reference left
    EXPECT_EQ(cam, names.ref_dec_by_index(cam));
    EXPECT_EQ(nullptr, names.get_name(cam));
    EXPECT_EQ(0, names.ref_dec_by_index(cam));  // a free entry

    EXPECT_EQ(0, names.ref_dec_by_index(QZFS_NAME_TABLE_FULL));
    EXPECT_EQ(nullptr, names.get_name(7));
    EXPECT_EQ(nullptr, names.get_name(QZFS_NO_NAME_INDEX));
    EXPECT_EQ(nullptr, names.get_name(8 + names.m_string_index_vector.size()));

    // Once the search has gone round the first stretch, the freed entry is
    // taken again instead of growing the table.
    for (unsigned i = 2; i < 255; i++)
        names.ref_inc_by_name(("n" + std::to_string(i)).c_str());
    EXPECT_EQ(cam, names.ref_inc_by_name("fresh"));
    EXPECT_EQ(255, names.m_string_index_vector.size());
    EXPECT_STREQ("fresh", names.get_name(cam));
}

TEST(IndexCacheNames, FullTableRefusesNewNamesButCountsKnownOnes)
{
    StringIndexManager<unsigned short> names;
    auto& table = names.m_string_index_vector;
    while (table.vector_increment() != 0) {
    }
    ASSERT_EQ(65527, table.size());
    // All but the last few entries are filled directly: adding 65527 names
    // one by one would compare every pair.
    const unsigned direct = 65520;
    for (unsigned i = 0; i < direct; i++)
        table.m_data[i] = {1, strdup(("name" + std::to_string(i)).c_str())};
    for (unsigned i = direct; i < 65527; i++)
        EXPECT_EQ(i + 8, (unsigned)names.ref_inc_by_name(("name" + std::to_string(i)).c_str()));

    expect_result_and_log(1, "not enough(MaxSize:65527)", [&] { return names.ref_inc_by_name("one more"); }, 2);

    unsigned short last = names.ref_inc_by_name("name65526");
    EXPECT_EQ(65534, last);
    EXPECT_EQ(2, table.m_data[65526].ref_count);
    EXPECT_EQ(8 + 17, names.ref_inc_by_name("name17"));
}

// ------------------------------------------------------------------ node pools

// A resource manager of its own with small pools. The element callbacks
// reach the caches through pgSystemResourceManager, so it stands in for the
// library's instance during the test.
class IndexCachePools : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        saved_config_ = gQzfsConfig;
        saved_manager_ = pgSystemResourceManager;
        gQzfsConfig.root_index_cache_size = 8;
        gQzfsConfig.root_index_cache_step = 3;
        gQzfsConfig.ssi_cache_size = 6;
        gQzfsConfig.ssi_cache_step = 0;  // 0 means 255, cut to the pool size
        rm_ = new CSystemResourceManager();
        pgSystemResourceManager = rm_;
    }
    void TearDown() override
    {
        delete rm_;
        pgSystemResourceManager = saved_manager_;
        gQzfsConfig = saved_config_;
        LibraryTest::TearDown();
    }

    _hdd_root_index_manager_* hdd(unsigned char id) { return *rm_->Get_hdd(id, 1); }
    void set_range(unsigned char id, uint32_t start, uint32_t end)
    {
        hdd(id)->start_root_index = start;
        hdd(id)->end_root_index = end;
    }
    // A cached normal root at `root_index`, inside the range set before.
    _ri_ssi_manager_* put_root(unsigned char id, uint32_t root_index, time_t access_time)
    {
        uint32_t slot = rm_->GetRootIndexNodeInCache(id);
        EXPECT_NE(QZFS_CACHE_INVALID_SLOT, slot);
        _root_index_node_mem_& node = rm_->m_root_index_node_cache[slot];
        node.id = 1;
        node.name_index = rm_->m_string_index.ref_inc_by_name("cam");
        _ri_ssi_manager_* m = nullptr;
        InitRiSsiManager(m);
        m->root_node_slot = slot;
        m->access_time = access_time;
        (*hdd(id)->pRoot_index_array)[root_index - hdd(id)->start_root_index] = m;
        return m;
    }
    // `count` cached segment nodes under a root.
    void put_segments(_ri_ssi_manager_* m, unsigned char id, uint32_t root_index, uint32_t count,
                      time_t ssi_access_time)
    {
        for (uint32_t i = 0; i < count; i++) {
            uint32_t slot = rm_->GetStreamSegmentIndexNodeInCache(id, root_index);
            ASSERT_NE(QZFS_CACHE_INVALID_SLOT, slot);
            rm_->m_stream_segment_index_node_cache[slot].id = 1;
            (*m->pStream_segment_array)[i] = slot;
        }
        m->end_stream_segment_index = count;
        m->ssi_access_time = ssi_access_time;
    }
    uint8_t root_id(const _ri_ssi_manager_* m) { return rm_->m_root_index_node_cache[m->root_node_slot].id; }
    uint8_t segment_id(const _ri_ssi_manager_* m, uint32_t i)
    {
        return rm_->m_stream_segment_index_node_cache[(*m->pStream_segment_array)[i]].id;
    }
    template <typename Cache> static uint32_t free_count(Cache& cache)
    {
        uint32_t n = cache.max_size() - cache.size();
        for (uint32_t i = 0; i < cache.size(); i++)
            n += cache.is_free(i) ? 1 : 0;
        return n;
    }

    CSystemResourceManager* rm_ = nullptr;
    CSystemResourceManager* saved_manager_ = nullptr;
    _qzfs_global_config_ saved_config_;
};

TEST_F(IndexCachePools, SizedFromConfigurationAndOneDiskAloneGetsNothingWhenFull)
{
    EXPECT_EQ(6u, rm_->m_stream_segment_index_node_cache.m_increment);  // step 0: 255, cut
    EXPECT_EQ(0u, rm_->m_root_index_node_cache.size());  // nothing before the first use
    set_range(0, 0, 8);
    std::vector<uint32_t> slots;
    for (uint32_t r = 0; r < 8; r++) {
        slots.push_back(put_root(0, r, 1)->root_node_slot);
        EXPECT_EQ(std::min(8u, (r / 3 + 1) * 3), rm_->m_root_index_node_cache.size());
    }
    std::sort(slots.begin(), slots.end());
    for (uint32_t r = 0; r < 8; r++)
        EXPECT_EQ(r, slots[r]);  // eight distinct slots
    EXPECT_EQ(QZFS_CACHE_INVALID_SLOT, rm_->GetRootIndexNodeInCache(0));
    EXPECT_EQ(8u, hdd(0)->end_root_index);  // the asking disk is spared

    gQzfsConfig.ssi_cache_size = 0;
    EXPECT_EXIT({ CSystemResourceManager empty; }, ::testing::ExitedWithCode(1), "");
}

TEST_F(IndexCachePools, RootSwapOutTakesTheOldestEndOfAnotherDisk)
{
    set_range(0, 0, 1);
    _ri_ssi_manager_* own = put_root(0, 0, 1);  // oldest of all, but asking
    set_range(1, 10, 14);                        // 12 and 13 are free nodes
    _ri_ssi_manager_* d1_10 = put_root(1, 10, 50);
    _ri_ssi_manager_* d1_11 = put_root(1, 11, 20);
    set_range(2, 0, 3);
    _ri_ssi_manager_* d2_0 = put_root(2, 0, 30);
    _ri_ssi_manager_* d2_1 = put_root(2, 1, 5);  // older, but not at an end
    _ri_ssi_manager_* d2_2 = put_root(2, 2, 60);
    put_segments(d1_11, 1, 11, 2, 7);
    uint32_t ssi_free = free_count(rm_->m_stream_segment_index_node_cache);

    // The high end of disk 1 reaches down to 11: 11 to 13 go.
    uint32_t slot = d1_11->root_node_slot;
    EXPECT_EQ(slot, rm_->RootIndexSwapOut(0));
    EXPECT_EQ(0, rm_->m_root_index_node_cache[slot].id);
    EXPECT_EQ(10u, hdd(1)->start_root_index);
    EXPECT_EQ(11u, hdd(1)->end_root_index);
    EXPECT_EQ(ssi_free + 2, free_count(rm_->m_stream_segment_index_node_cache));

    // Then the low end of disk 2: the rest of its range moves to the front.
    slot = d2_0->root_node_slot;
    EXPECT_EQ(slot, rm_->RootIndexSwapOut(0));
    EXPECT_EQ(1u, hdd(2)->start_root_index);
    EXPECT_EQ(3u, hdd(2)->end_root_index);
    EXPECT_EQ(d2_1, hdd(2)->pRoot_index_array->m_data[0]);
    EXPECT_EQ(d2_2, hdd(2)->pRoot_index_array->m_data[1]);
    EXPECT_EQ(nullptr, hdd(2)->pRoot_index_array->m_data[2]);

    slot = d2_1->root_node_slot;
    EXPECT_EQ(slot, rm_->RootIndexSwapOut(0));
    EXPECT_EQ(2u, hdd(2)->start_root_index);
    EXPECT_EQ(d2_2, hdd(2)->pRoot_index_array->m_data[0]);

    // A one-node range offers only its low end; taking it empties the range.
    slot = d1_10->root_node_slot;
    EXPECT_EQ(slot, rm_->RootIndexSwapOut(0));
    EXPECT_EQ(0u, hdd(1)->start_root_index);
    EXPECT_EQ(0u, hdd(1)->end_root_index);

    EXPECT_EQ(1, root_id(own));
    EXPECT_EQ(1u, hdd(0)->end_root_index);
}

TEST_F(IndexCachePools, SegmentSwapOutPrefersTheOldestRootOfAnotherDisk)
{
    set_range(0, 0, 2);
    _ri_ssi_manager_* d0_0 = put_root(0, 0, 1);
    put_segments(d0_0, 0, 0, 2, 100);
    set_range(1, 5, 8);
    _ri_ssi_manager_* d1_5 = put_root(1, 5, 1);
    _ri_ssi_manager_* d1_6 = put_root(1, 6, 1);
    put_root(1, 7, 1)->ssi_access_time = 1;  // holds no segment node
    put_segments(d1_5, 1, 5, 1, 300);
    put_segments(d1_6, 1, 6, 3, 200);
    ASSERT_EQ(0u, free_count(rm_->m_stream_segment_index_node_cache));

    uint32_t first = (*d1_6->pStream_segment_array)[0];
    uint32_t second = (*d1_6->pStream_segment_array)[1];
    std::string out = captured_stdout([&] { EXPECT_EQ(first, rm_->GetStreamSegmentIndexNodeInCache(0, 0)); });
    EXPECT_EQ(std::string::npos, out.find("free root index"));
    EXPECT_EQ(0u, d1_6->end_stream_segment_index);
    EXPECT_EQ(3u, free_count(rm_->m_stream_segment_index_node_cache));
    // The next search starts at the first slot given back.
    EXPECT_EQ(first, rm_->m_stream_segment_index_node_cache.m_next_free);
    rm_->m_stream_segment_index_node_cache[first].id = 1;
    EXPECT_EQ(second, rm_->GetStreamSegmentIndexNodeInCache(0, 0));

    EXPECT_EQ(1, segment_id(d0_0, 0));
    EXPECT_EQ(1, segment_id(d0_0, 1));
    EXPECT_EQ(1, segment_id(d1_5, 0));
}

TEST_F(IndexCachePools, SegmentSwapOutOnOneDiskSparesTheRootBeingRead)
{
    // Nothing anywhere to give: hdd_id 255 reaches past the disk table.
    EXPECT_EXIT(rm_->StreamSegmentIndexSwapOut(255, 0), ::testing::ExitedWithCode(1), "");

    set_range(0, 0, 3);
    _ri_ssi_manager_* reading = put_root(0, 0, 1);
    _ri_ssi_manager_* newer = put_root(0, 1, 1);
    _ri_ssi_manager_* older = put_root(0, 2, 1);
    put_segments(reading, 0, 0, 2, 100);
    put_segments(newer, 0, 1, 2, 300);
    put_segments(older, 0, 2, 2, 200);

    uint32_t expected = (*older->pStream_segment_array)[0];
    expect_result_and_log(expected, "free root index:2[accesstime:200]",
                          [&] { return rm_->GetStreamSegmentIndexNodeInCache(0, 0); });
    EXPECT_EQ(0u, older->end_stream_segment_index);
    EXPECT_EQ(1, segment_id(reading, 1));
    EXPECT_EQ(1, segment_id(newer, 1));
    EXPECT_EQ(1, root_id(older));  // only its segment nodes went
}

TEST_F(IndexCachePools, FreeResourceReturnsOneDisksSlotsOnly)
{
    set_range(0, 0, 1);
    _ri_ssi_manager_* kept = put_root(0, 0, 1);
    put_segments(kept, 0, 0, 2, 1);
    set_range(1, 3, 5);
    put_segments(put_root(1, 3, 1), 1, 3, 1, 1);
    put_segments(put_root(1, 4, 1), 1, 4, 2, 1);
    auto& roots = rm_->m_root_index_node_cache;
    auto& segments = rm_->m_stream_segment_index_node_cache;
    uint32_t roots_free = free_count(roots);
    uint32_t segments_free = free_count(segments);
    unsigned short cam = rm_->m_string_index.ref_inc_by_name("cam");
    int32_t refs = rm_->m_string_index.m_string_index_vector[cam - 8].ref_count;

    expect_result_and_log(0, "HddResourceVectorFunc RVFSVO_FREE or RVFSVO_UNINIT(operator:2)",
                          [&] { return rm_->Free_resource(1); }, 1);

    EXPECT_EQ(nullptr, *rm_->Get_hdd(1, 0));
    EXPECT_EQ(roots_free + 2, free_count(roots));
    EXPECT_EQ(segments_free + 3, free_count(segments));
    EXPECT_EQ(refs - 2, rm_->m_string_index.m_string_index_vector[cam - 8].ref_count);
    EXPECT_EQ(1, root_id(kept));
    EXPECT_EQ(1, segment_id(kept, 0));
    EXPECT_EQ(1, segment_id(kept, 1));

    EXPECT_EQ(0, rm_->Free_resource(1));    // nothing left to free
    EXPECT_EQ(0, rm_->Free_resource(200));  // never created
}

} // namespace
