// The registry: disk objects by hdd_id, groups of disks, the reserve that
// get_hdd_info deducts, the stream descriptor table and query handles.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_manager.h"

#include <cstring>
#include <initializer_list>
#include <vector>

using namespace qzfs_test;

namespace {

class Registry : public LibraryTest {
protected:
    // Formats a 3 GiB image for each id, then mounts them. format_image
    // works through hdd_id 0, so every format comes before the mounts.
    void mount_new(std::initializer_list<unsigned char> hdd_ids)
    {
        for (unsigned char id : hdd_ids)
            ASSERT_EQ(0, format_image(image_for(id), 3 * GiB));
        for (unsigned char id : hdd_ids) {
            std::string image = image_for(id);
            ASSERT_EQ(0, api_qzfs_mount(id, &image[0]));
        }
    }
    std::string image_for(unsigned char hdd_id)
    {
        return scratch_.path("disk" + std::to_string(hdd_id) + ".img");
    }
    _qzfs_k4t_hdd_info_ hdd_info(unsigned char hdd_id)
    {
        _qzfs_k4t_hdd_info_ info = {};
        EXPECT_EQ(0, api_qzfs_get_hdd_info(hdd_id, &info));
        return info;
    }

    // Safety net after a failed assertion: groups outlive uinit, so none
    // may be left behind for the next test.
    void TearDown() override
    {
        for (unsigned char group : {4, 5, 6, 9}) {
            if (gQzfsManager.find_group(group) == nullptr)
                continue;
            for (unsigned char id = 0; id < 33; id++)
                api_qzfs_delete_disk_from_group(id, group);
        }
        LibraryTest::TearDown();
    }
};

TEST_F(Registry, GroupsListTheirDisksAndBlockUnmount)
{
    mount_new({0, 1});
    EXPECT_EQ(0, api_qzfs_add_disk_to_group(0, 5));
    EXPECT_EQ(0, api_qzfs_add_disk_to_group(1, 5));
    EXPECT_EQ(2, api_qzfs_get_disk_num_from_group(5));

    unsigned char list[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(2, api_qzfs_get_disk_list_from_group(5, list, 4));
    EXPECT_EQ(0, list[0]);
    EXPECT_EQ(1, list[1]);
    EXPECT_EQ(0xEE, list[2]);

    // The full length comes back whatever the capacity.
    memset(list, 0xEE, sizeof(list));
    EXPECT_EQ(2, api_qzfs_get_disk_list_from_group(5, list, 0));
    EXPECT_EQ(0xEE, list[0]);
    EXPECT_EQ(2, api_qzfs_get_disk_list_from_group(5, list, 1));
    EXPECT_EQ(0, list[0]);
    EXPECT_EQ(0xEE, list[1]);

    EXPECT_EQ(0, api_qzfs_get_disk_num_from_group(6));
    EXPECT_EQ(0, api_qzfs_get_disk_list_from_group(6, list, 4));
    expect_result_and_log(-1, "hdd 3 invlaid", [] { return api_qzfs_add_disk_to_group(3, 5); });
    EXPECT_EQ(2, api_qzfs_get_disk_num_from_group(5));
    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(0, 6));  // unknown group

    EXPECT_EQ(-1, api_qzfs_umount(0));
    EXPECT_NE(0UL, hdd_info(0).block_size);  // still mounted
    // The current record disk leaving its group leaves the group without one.
    gQzfsManager.find_group(5)->m_current_record_hdd_id = 0;
    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(0, 5));
    EXPECT_EQ(1, api_qzfs_get_disk_num_from_group(5));
    EXPECT_EQ(255, gQzfsManager.find_group(5)->m_current_record_hdd_id);
    EXPECT_EQ(0, api_qzfs_umount(0));
    _qzfs_k4t_hdd_info_ info = {};
    EXPECT_EQ(-1, api_qzfs_get_hdd_info(0, &info));

    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(1, 5));
    EXPECT_EQ(nullptr, gQzfsManager.find_group(5));
    EXPECT_EQ(0, api_qzfs_umount(1));
}

TEST_F(Registry, EmptiedGroupComesBackWithDefaultThresholds)
{
    mount_new({1});
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 5));
    _disk_group_attr_* group = gQzfsManager.find_group(5);
    ASSERT_NE(nullptr, group);
    group->reserve_free_size_for_record = 123456789;
    group->used_for_recording_free_size = 1;
    group->start_delete_free_size = 2;
    group->once_delete_size = 3;
    group->max_owner_stamp = 99;
    group->m_current_record_hdd_id = 1;

    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(1, 5));
    EXPECT_EQ(nullptr, gQzfsManager.find_group(5));
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 5));
    group = gQzfsManager.find_group(5);
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(524288000ULL, group->reserve_free_size_for_record);
    EXPECT_EQ(629145600ULL, group->used_for_recording_free_size);
    EXPECT_EQ(4294967296ULL, group->start_delete_free_size);
    EXPECT_EQ(268435456ULL, group->once_delete_size);
    EXPECT_EQ(0UL, group->max_owner_stamp);
    EXPECT_EQ(2UL, group->valid_disk_bitmap);
    EXPECT_EQ(255, group->m_current_record_hdd_id);
    EXPECT_NE(nullptr, group->group_lock);

    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(1, 5));
    EXPECT_EQ(0, api_qzfs_umount(1));
}

TEST_F(Registry, LowestGroupWinsAndDisk32JoinsNone)
{
    mount_new({1});
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 9));
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 4));
    EXPECT_EQ(4, gQzfsManager.Find_group_id(1));
    EXPECT_EQ(-1, gQzfsManager.Find_group_id(0));

    // Leaving one group keeps the current record disk of another.
    gQzfsManager.find_group(9)->m_current_record_hdd_id = 1;
    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(1, 4));
    EXPECT_EQ(9, gQzfsManager.Find_group_id(1));
    EXPECT_EQ(1, gQzfsManager.find_group(9)->m_current_record_hdd_id);

    ASSERT_NE(nullptr, gQzfsManager.register_qzfilesystem(32));
    EXPECT_EQ(0, api_qzfs_add_disk_to_group(32, 9));
    EXPECT_EQ(2UL, gQzfsManager.find_group(9)->valid_disk_bitmap);
    EXPECT_EQ(-1, gQzfsManager.Find_group_id(32));
    EXPECT_EQ(1, api_qzfs_get_disk_num_from_group(9));
    EXPECT_EQ(1, gQzfsManager.unregiseter_qzfilesystem(32));
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(32));

    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(1, 9));
    EXPECT_EQ(nullptr, gQzfsManager.find_group(9));
    EXPECT_EQ(0, api_qzfs_umount(1));
}

TEST_F(Registry, RegistrationKeepsTheFirstObject)
{
    mount_new({0});
    CQzFileSystem* fs = gQzfsManager.get_file_system(0);
    ASSERT_NE(nullptr, fs);
    expect_result_and_log(0, "The Hdd is regisetered(HddId:0)", [] { return gQzfsManager.register_qzfilesystem(0); });
    EXPECT_EQ(fs, gQzfsManager.get_file_system(0));
    EXPECT_EQ(QZFSS_MOUNTED, fs->Get_hdd_state());
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(255));
    EXPECT_EQ(0, api_qzfs_umount(0));

    // Not initialised: nothing registers.
    ASSERT_EQ(0, api_qzfs_uinit());
    expect_result_and_log(0, "(m_InitFlag != K4T_FS_TRUE) (HddId:3)",
                          [] { return gQzfsManager.register_qzfilesystem(3); });
}

TEST_F(Registry, HddInfoLeavesRoomForTheGroupReserve)
{
    mount_new({0});
    const _qzfs_k4t_hdd_info_ alone = hdd_info(0);
    ASSERT_EQ(4 * MiB, alone.block_size);
    ASSERT_GT(alone.free_num, 200UL);

    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 5));
    _disk_group_attr_* group = gQzfsManager.find_group(5);
    ASSERT_NE(nullptr, group);
    // Not the current record disk: the recording reserve, 600 MiB.
    _qzfs_k4t_hdd_info_ info = hdd_info(0);
    EXPECT_EQ(alone.block_size, info.block_size);
    EXPECT_EQ(alone.total_num, info.total_num);
    EXPECT_EQ(alone.free_num - 150, info.free_num);
    // The current record disk: the record reserve, 500 MiB.
    group->m_current_record_hdd_id = 0;
    EXPECT_EQ(alone.free_num - 125, hdd_info(0).free_num);
    // A part of a block counts as a whole block.
    group->reserve_free_size_for_record = 524288001ULL;
    EXPECT_EQ(alone.free_num - 126, hdd_info(0).free_num);
    group->m_current_record_hdd_id = 255;
    group->used_for_recording_free_size = 1;
    EXPECT_EQ(alone.free_num - 1, hdd_info(0).free_num);
    // Never below zero.
    group->used_for_recording_free_size = 1ULL << 40;
    EXPECT_EQ(0UL, hdd_info(0).free_num);

    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(0, 5));
    EXPECT_EQ(alone.free_num, hdd_info(0).free_num);
    EXPECT_EQ(0, api_qzfs_umount(0));
}

TEST_F(Registry, OssidTableHandsOutLowestFreeSlot)
{
    // The table is shared by every test: leave it empty whatever happens.
    struct FreeAll {
        ~FreeAll()
        {
            for (int slot = 1; slot < QZFS_OSSID_TABLE_SIZE; slot++)
                gQzfsManager.free_ossid(slot);
        }
    };
    for (int slot = 1; slot < QZFS_OSSID_TABLE_SIZE; slot++)
        ASSERT_EQ(-1, gQzfsManager.get_disk_ossid(slot)) << "slot " << slot << " left in use";
    FreeAll cleanup;

    for (int slot = 1; slot < QZFS_OSSID_TABLE_SIZE; slot++)
        ASSERT_EQ(slot, gQzfsManager.apply_and_set_ossid(0x10000 + slot));
    EXPECT_EQ(-1, gQzfsManager.apply_and_set_ossid(7));
    EXPECT_EQ(0x10000 + 511, gQzfsManager.get_disk_ossid(511));

    EXPECT_EQ(0, gQzfsManager.free_ossid(200));
    EXPECT_EQ(-1, gQzfsManager.get_disk_ossid(200));
    EXPECT_EQ(200, gQzfsManager.apply_and_set_ossid(0x30005));
    EXPECT_EQ(0x30005, gQzfsManager.get_disk_ossid(200));
    EXPECT_EQ(0, gQzfsManager.modify_disk_ossid(200, 0x40006));
    EXPECT_EQ(0x40006, gQzfsManager.get_disk_ossid(200));

    for (int bad : {0, 512, -1}) {
        EXPECT_EQ(-1, gQzfsManager.free_ossid(bad)) << bad;
        EXPECT_EQ(-1, gQzfsManager.get_disk_ossid(bad)) << bad;
        EXPECT_EQ(-1, gQzfsManager.modify_disk_ossid(bad, 5)) << bad;
    }
    EXPECT_EQ(-1, gQzfsManager.m_ossid_table[0]);

    for (int slot = 1; slot < QZFS_OSSID_TABLE_SIZE; slot++)
        EXPECT_EQ(0, gQzfsManager.free_ossid(slot));
    EXPECT_EQ(1, gQzfsManager.apply_and_set_ossid(3));
    EXPECT_EQ(0, gQzfsManager.free_ossid(1));
}

TEST_F(Registry, QueryHandleIsTheSmallestUnused)
{
    ASSERT_TRUE(gQzfsManager.m_query_handle_map.empty());
    EXPECT_EQ(1, gQzfsManager.Get_free_query_stream_segment_handle());
    for (int key : {1, 2, 4})
        gQzfsManager.m_query_handle_map[key] = _stream_segment_query_state_();
    EXPECT_EQ(3, gQzfsManager.Get_free_query_stream_segment_handle());
    gQzfsManager.m_query_handle_map[3] = _stream_segment_query_state_();
    EXPECT_EQ(5, gQzfsManager.Get_free_query_stream_segment_handle());
    gQzfsManager.m_query_handle_map.erase(1);
    EXPECT_EQ(1, gQzfsManager.Get_free_query_stream_segment_handle());
    gQzfsManager.m_query_handle_map.clear();
}

TEST_F(Registry, MountFormatAndUnmountOfBusyOrAbsentIds)
{
    mount_new({0});
    std::string image = image_for(0);
    CQzFileSystem* fs = gQzfsManager.get_file_system(0);
    const _qzfs_k4t_hdd_info_ before = hdd_info(0);

    EXPECT_EQ(0, api_qzfs_mount(0, &image[0]));
    EXPECT_EQ(fs, gQzfsManager.get_file_system(0));
    EXPECT_EQ(0, api_qzfs_umount(7));

    // Formatting a mounted id fails before touching the device.
    std::string other = scratch_.path("other.img");
    make_sparse_image(other, 3 * GiB);
    const std::string untouched = image_fingerprint(other);
    char label[] = "label";
    EXPECT_EQ(-1, api_qzfs_format(0, &other[0], label));
    EXPECT_EQ(untouched, image_fingerprint(other));
    EXPECT_EQ(fs, gQzfsManager.get_file_system(0));
    const _qzfs_k4t_hdd_info_ after = hdd_info(0);
    EXPECT_EQ(before.total_num, after.total_num);
    EXPECT_EQ(before.free_num, after.free_num);

    // Through a partition: one device only, and it must be bare on Linux.
    char* devs[2] = {&other[0], &other[0]};
    expect_result_and_log(-1, "not support multi partition", [&] { return api_qzfs_mount_for_windows(2, 2, devs); });
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(2));
    expect_result_and_log(-1, "linux must bare dev!", [&] { return api_qzfs_mount_for_windows(2, 1, devs); });
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(2));
    EXPECT_EQ(untouched, image_fingerprint(other));

    EXPECT_EQ(0, api_qzfs_umount(0));
    EXPECT_EQ(nullptr, gQzfsManager.get_file_system(0));
}

} // namespace
