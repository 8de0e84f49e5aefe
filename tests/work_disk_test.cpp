// The group's space thresholds and the choice of the recording disk: the
// threshold boundaries, staying versus moving, disks with recordings before
// empty ones, the order in which stamps decide, and the stamp lift.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_manager.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

using namespace qzfs_test;

namespace {

const unsigned char GROUP = 3;
const unsigned char OTHER_GROUP = 8;
const unsigned char UNKNOWN_GROUP = 7;

class WorkDisk : public LibraryTest {
protected:
    // Formats a 3 GiB image for each id, mounts them all and puts those of
    // `members` in GROUP. format_image works through hdd_id 0, so the
    // formats come before the mounts.
    void mount_disks(std::initializer_list<unsigned char> members,
                     std::initializer_list<unsigned char> outsiders = {})
    {
        for (auto ids : {members, outsiders})
            for (unsigned char id : ids)
                ASSERT_EQ(0, format_image(image_for(id), 3 * GiB));
        for (auto ids : {members, outsiders})
            for (unsigned char id : ids) {
                std::string image = image_for(id);
                ASSERT_EQ(0, api_qzfs_mount(id, &image[0]));
            }
        for (unsigned char id : members)
            ASSERT_EQ(0, api_qzfs_add_disk_to_group(id, GROUP));
    }
    std::string image_for(unsigned char hdd_id)
    {
        return scratch_.path("disk" + std::to_string(hdd_id) + ".img");
    }
    CQzFileSystem* disk(unsigned char hdd_id) { return gQzfsManager.get_file_system(hdd_id); }
    _disk_group_attr_* group() { return gQzfsManager.find_group(GROUP); }

    unsigned long long free_size(unsigned char hdd_id)
    {
        const _qzfs_disk_manage_& m = disk(hdd_id)->manage();
        return (unsigned long long)m.free_block * m.block_size;
    }
    unsigned long long block_size(unsigned char hdd_id)
    {
        return disk(hdd_id)->manage().block_size;
    }

    // Takes `count` data blocks of a disk, one request each.
    std::vector<unsigned long> take_blocks(unsigned char hdd_id, unsigned long count)
    {
        std::vector<unsigned long> taken;
        CQzFileSystem* fs = disk(hdd_id);
        for (unsigned long i = 0; i < count; i++) {
            _qzfs_block_info_ info;
            memset(&info, 0, sizeof(info));
            info.owner_stamp = (uint32_t)fs->get_block_owner_stamp();
            info.block_type = QZFS_BLOCK_DATA;
            unsigned long block = 0;
            fs->disk_lock(1);
            int rc = fs->Request_free_block(1, &block, &info, 0);
            fs->disk_lock(0);
            EXPECT_EQ(0, rc);
            if (rc != 0)
                break;
            taken.push_back(block);
        }
        return taken;
    }
    // Takes blocks until the disk is no longer above half its present size.
    std::vector<unsigned long> take_half(unsigned char hdd_id)
    {
        return take_blocks(hdd_id, disk(hdd_id)->manage().free_block / 2 + 1);
    }
    void release_blocks(unsigned char hdd_id, const std::vector<unsigned long>& blocks)
    {
        CQzFileSystem* fs = disk(hdd_id);
        fs->disk_lock(1);
        for (unsigned long block : blocks)
            EXPECT_EQ(0, fs->Free_one_block(block, 0));
        fs->disk_lock(0);
    }

    // Gives a disk a recording of the given day: a root index node.
    void record_on(unsigned char hdd_id, int day)
    {
        _qzfs_k4t_create_ss_para_ para;
        memset(&para, 0, sizeof(para));
        para.year = 26;
        para.month = 3;
        para.day = (uint8_t)day;
        para.hour = 10;
        para.channel = 1;
        snprintf(para.name, sizeof(para.name), "cam%d", hdd_id);
        uint32_t root_index = 0;
        _root_index_node_dev_ node;
        CQzFileSystem* fs = disk(hdd_id);
        fs->disk_lock(1);
        int rc = fs->Create_root_index_node(&para, &root_index, &node);
        fs->disk_lock(0);
        ASSERT_EQ(0, rc);
    }

    void set_stamp(unsigned char hdd_id, unsigned long stamp)
    {
        disk(hdd_id)->set_block_owner_stamp(stamp);
    }

    int configure(unsigned long long reserve, unsigned long long used,
                  unsigned long long start_delete, unsigned long long once = 0,
                  unsigned char group_id = GROUP)
    {
        _qzfs_k4t_hdd_overwrite_config_ config = {reserve, used, start_delete, once};
        return api_qzfs_config_overwrite(group_id, &config);
    }
    // Thresholds with the reserve of the current disk and the level a new
    // disk must be above; deleting starts at the reserve.
    void thresholds(unsigned long long reserve, unsigned long long used)
    {
        ASSERT_EQ(0, configure(reserve, used, reserve));
    }

    // The chosen disk, or 255; checks that the group remembers it.
    int find(unsigned char group_id = GROUP)
    {
        unsigned char hdd_id = 0xEE;
        int rc = api_qzfs_find_work_hdd(group_id, &hdd_id);
        EXPECT_EQ(rc == 0, hdd_id != QZFS_NO_HDD) << "result " << rc << ", disk " << int(hdd_id);
        if (gQzfsManager.find_group(group_id) != nullptr) {
            EXPECT_EQ(hdd_id, gQzfsManager.find_group(group_id)->m_current_record_hdd_id);
        }
        return hdd_id;
    }
    // A choice from scratch, as if no disk had been chosen yet.
    int find_afresh()
    {
        group()->m_current_record_hdd_id = QZFS_NO_HDD;
        return find();
    }

    // Groups outlive uinit: none may be left for the next test.
    void TearDown() override
    {
        for (unsigned char g : {GROUP, OTHER_GROUP}) {
            if (gQzfsManager.find_group(g) == nullptr)
                continue;
            for (unsigned char id = 0; id < 32; id++)
                api_qzfs_delete_disk_from_group(id, g);
        }
        LibraryTest::TearDown();
    }
};

TEST_F(WorkDisk, ConfigurationLimits)
{
    mount_disks({0});
    const unsigned long long floor = 0x3200000;  // 50 MiB, the least reserve
    expect_result_and_log(-1, "(pRhoc == K4T_FS_NULL)",
                          [] { return api_qzfs_config_overwrite(GROUP, nullptr); });
    expect_result_and_log(-1, "invalid reserve_free_size_for_record:" + std::to_string(floor - 1),
                          [&] { return configure(floor - 1, floor, floor); });
    expect_result_and_log(-1, "invalid reserve_free_size_for_record:0",
                          [&] { return configure(0, floor, floor); });
    expect_result_and_log(
        -1, "invalid used_for_recording_free_size:" + std::to_string(floor) + ", " +
                std::to_string(floor + 1),
        [&] { return configure(floor + 1, floor, floor + 1); });
    expect_result_and_log(
        -1, "invalid start_delete_free_size:" + std::to_string(floor) + ", " +
                std::to_string(floor + 1),
        [&] { return configure(floor + 1, floor + 1, floor); });
    // Refusals leave the defaults alone.
    EXPECT_EQ(524288000ULL, group()->reserve_free_size_for_record);
    EXPECT_EQ(629145600ULL, group()->used_for_recording_free_size);
    EXPECT_EQ(4294967296ULL, group()->start_delete_free_size);
    EXPECT_EQ(268435456ULL, group()->once_delete_size);

    // The least reserve, with the other two equal to it and no pass size.
    EXPECT_EQ(0, configure(floor, floor, floor, 0));
    EXPECT_EQ(floor, group()->reserve_free_size_for_record);
    EXPECT_EQ(floor, group()->used_for_recording_free_size);
    EXPECT_EQ(floor, group()->start_delete_free_size);
    EXPECT_EQ(0ULL, group()->once_delete_size);

    // Comparisons are unsigned 64-bit: sizes above 2^63 are ordinary sizes.
    const unsigned long long huge = 0x8000000000000000ULL;
    EXPECT_EQ(0, configure(huge, huge + 1, ~0ULL, 5 * GiB));
    EXPECT_EQ(huge, group()->reserve_free_size_for_record);
    EXPECT_EQ(huge + 1, group()->used_for_recording_free_size);
    EXPECT_EQ(~0ULL, group()->start_delete_free_size);
    EXPECT_EQ(5 * GiB, group()->once_delete_size);
    EXPECT_EQ(-1, configure(huge, huge - 1, huge));

    // A good record for an unknown group fails without a word.
    std::string out;
    int rc = 0;
    out = captured_stdout([&] { rc = configure(floor, floor, floor, 0, UNKNOWN_GROUP); });
    EXPECT_EQ(-1, rc);
    EXPECT_EQ("", out);
    EXPECT_EQ(nullptr, gQzfsManager.find_group(UNKNOWN_GROUP));
}

TEST_F(WorkDisk, NoDisksOrUnknownGroupFindNothing)
{
    unsigned char hdd_id = 0;
    expect_result_and_log(-1, "(gQzfsManager.m_Qzfs_vector.size() <= 0) failed",
                          [&] { return api_qzfs_find_work_hdd(GROUP, &hdd_id); });
    EXPECT_EQ(QZFS_NO_HDD, hdd_id);

    mount_disks({0});
    hdd_id = 0;
    expect_result_and_log(-1, "Group 7 is invalid!",
                          [&] { return api_qzfs_find_work_hdd(UNKNOWN_GROUP, &hdd_id); });
    EXPECT_EQ(QZFS_NO_HDD, hdd_id);
    EXPECT_EQ(nullptr, gQzfsManager.find_group(UNKNOWN_GROUP));

    // The disk moves to another group; its old group, now empty, is gone.
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, OTHER_GROUP));
    ASSERT_EQ(0, api_qzfs_delete_disk_from_group(0, GROUP));
    hdd_id = 0;
    expect_result_and_log(-1, "Group 3 is invalid!",
                          [&] { return api_qzfs_find_work_hdd(GROUP, &hdd_id); });
    EXPECT_EQ(QZFS_NO_HDD, hdd_id);
    // The default thresholds of a new group let a fresh 3 GiB disk record.
    EXPECT_EQ(0, find(OTHER_GROUP));
}

TEST_F(WorkDisk, NewDiskMustBeStrictlyAboveTheRecordingLevel)
{
    mount_disks({0});
    const unsigned long long free = free_size(0);
    ASSERT_GT(free, 1 * GiB);

    // Free size equal to the level: not enough.
    thresholds(free - block_size(0), free);
    std::string out = expect_result_and_log(
        QZFS_NO_HDD,
        "(hdd_id:0)(free_size:" + std::to_string(free) +
            ")(used_for_recording_free_size:" + std::to_string(free) + ") NOT ENOUGH",
        [&] { return find(); });
    EXPECT_NE(std::string::npos, out.find("find result:ff")) << out;
    EXPECT_EQ(QZFS_NO_HDD, group()->m_current_record_hdd_id);

    // One byte below it: the disk is taken.
    thresholds(free - block_size(0), free - 1);
    expect_result_and_log(0, "find result:00", [&] { return find(); });

    // The debug lines of the choice begin with one name and wait for level 3.
    group()->m_current_record_hdd_id = QZFS_NO_HDD;
    out = expect_result_and_log(0, "Find_hdd_for_recording", [&] { return find(); }, 3);
    EXPECT_NE(std::string::npos, out.find("(hdd_id:0)")) << out;
    group()->m_current_record_hdd_id = QZFS_NO_HDD;
    out = captured_stdout([&] { EXPECT_EQ(0, find()); });
    EXPECT_EQ(std::string::npos, out.find("Find_hdd_for_recording")) << out;
}

TEST_F(WorkDisk, RecordingStaysAboveTheReserveAndMovesBelowIt)
{
    mount_disks({0, 1});
    const unsigned long long free = free_size(0), bs = block_size(0);
    ASSERT_EQ(free, free_size(1));
    // Either disk qualifies now; the reserve lies two blocks lower.
    thresholds(free - 2 * bs, free - 1);
    // Both are empty: walking down from the highest id, the last one wins.
    EXPECT_EQ(0, find());

    // One block taken: disk 0 no longer qualifies as a new disk, but it is
    // still above the reserve, so recording stays.
    take_blocks(0, 1);
    ASSERT_EQ(free - bs, free_size(0));
    EXPECT_EQ(0, find());
    EXPECT_EQ(0, find());
    // Chosen from scratch, disk 0 would not be taken.
    EXPECT_EQ(1, find_afresh());
    group()->m_current_record_hdd_id = 0;

    // Down to the reserve itself: recording moves to disk 1.
    take_blocks(0, 1);
    ASSERT_EQ(free - 2 * bs, free_size(0));
    std::string out = expect_result_and_log(
        1,
        "(current hdd_id:0)(free_size:" + std::to_string(free - 2 * bs) +
            ")(reserve_free_size_for_record:" + std::to_string(free - 2 * bs) + ") NOT ENOUGH",
        [&] { return find(); });
    EXPECT_NE(std::string::npos, out.find("find result:01")) << out;
    EXPECT_EQ(1, find());

    // When the current disk falls to the reserve and no disk qualifies,
    // the group is left without a disk.
    take_blocks(1, 2);
    EXPECT_EQ(QZFS_NO_HDD, find());
    EXPECT_EQ(QZFS_NO_HDD, group()->m_current_record_hdd_id);
}

TEST_F(WorkDisk, DiskWithRecordingsWinsOverEmptyOnes)
{
    mount_disks({0, 1, 2});
    thresholds(free_size(0) / 4, free_size(0) / 2);
    record_on(1, 5);
    // The empty disk 2 is candidate first and gives way; the empty disk 0
    // after it cannot take the place of a disk with recordings.
    EXPECT_EQ(1, find_afresh());
    // However high an empty disk's stamp.
    set_stamp(0, 100000);
    set_stamp(2, 100000);
    EXPECT_EQ(1, find_afresh());

    // A disk with recordings that lacks room does not count.
    std::vector<unsigned long> taken = take_half(1);
    EXPECT_EQ(0, find_afresh());
    release_blocks(1, taken);
    EXPECT_EQ(1, find_afresh());
}

TEST_F(WorkDisk, FirstDiskWithRecordingsLeavesTheStampComparisonOpen)
{
    mount_disks({0, 1, 2});
    thresholds(free_size(0) / 4, free_size(0) / 2);
    for (unsigned char id : {0, 1, 2})
        record_on(id, 10 + id);

    // Only disks 0 and 1 qualify. Disk 1 has the higher stamp, but as the
    // first candidate with recordings it sets no stamp to beat: disk 0
    // displaces it all the same.
    std::vector<unsigned long> taken = take_half(2);
    set_stamp(0, 100);
    set_stamp(1, 200);
    EXPECT_EQ(0, find_afresh());

    // All three qualify: disk 2 is the first candidate, disk 1 displaces it
    // and sets the stamp, and from then on disk 0 must reach that stamp.
    release_blocks(2, taken);
    set_stamp(0, 100);
    set_stamp(1, 200);
    set_stamp(2, 50);
    EXPECT_EQ(1, find_afresh());
    // A tie goes to the lower id.
    set_stamp(0, 200);
    set_stamp(1, 200);
    EXPECT_EQ(0, find_afresh());
    // The stamp of the first candidate does not matter.
    set_stamp(0, 300);
    set_stamp(1, 299);
    set_stamp(2, 100000);
    EXPECT_EQ(0, find_afresh());
    set_stamp(0, 300);
    set_stamp(1, 301);
    set_stamp(2, 100000);
    EXPECT_EQ(1, find_afresh());
}

TEST_F(WorkDisk, ChosenDiskGoesOnFromTheGroupsHighestStamp)
{
    // Disk 3 is mounted but in no group: its stamp does not count.
    mount_disks({0, 1, 2}, {3});
    thresholds(free_size(0) / 4, free_size(0) / 2);
    // Disk 1 lacks room but has the highest stamp of the group.
    set_stamp(1, 700);
    take_half(1);
    const unsigned long top = disk(1)->get_block_owner_stamp();
    ASSERT_GT(top, 700u);
    set_stamp(0, 20);
    set_stamp(2, 30);
    set_stamp(3, 5000);

    EXPECT_EQ(0, find());
    EXPECT_EQ(top, group()->max_owner_stamp);
    EXPECT_EQ(top, disk(0)->get_block_owner_stamp());
    EXPECT_EQ(top, disk(1)->get_block_owner_stamp());
    EXPECT_EQ(30u, disk(2)->get_block_owner_stamp());
    EXPECT_EQ(5000u, disk(3)->get_block_owner_stamp());

    // The group's maximum never falls, and the next block of the chosen
    // disk carries it.
    set_stamp(1, 3);
    set_stamp(0, 4);
    EXPECT_EQ(0, find_afresh());
    EXPECT_EQ(top, group()->max_owner_stamp);
    EXPECT_EQ(top, disk(0)->get_block_owner_stamp());
    take_blocks(0, 1);
    EXPECT_EQ(top + 1, disk(0)->get_block_owner_stamp());

    // Staying on the current disk lifts nothing.
    set_stamp(2, top + 50);
    EXPECT_EQ(0, find());
    EXPECT_EQ(top, group()->max_owner_stamp);
    EXPECT_EQ(top + 1, disk(0)->get_block_owner_stamp());

    // No disk found: the maximum is still raised from every member.
    ASSERT_EQ(0, configure(free_size(2), free_size(2), free_size(2)));
    EXPECT_EQ(QZFS_NO_HDD, find_afresh());
    EXPECT_EQ(top + 50, group()->max_owner_stamp);
    EXPECT_EQ(top + 1, disk(0)->get_block_owner_stamp());
}

} // namespace
