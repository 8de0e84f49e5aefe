// The registry under several threads at once, through the exported
// functions: disks join and leave groups from their own threads while the
// groups stay in place.
#include "test_support.h"

#include "qzfilesystem_api.h"

#include <thread>
#include <vector>

using namespace qzfs_test;

namespace {

const unsigned char kWorkers = 4;       // hdd_id 0 to 3, one thread each
const unsigned char kAnchor = kWorkers; // hdd_id 4 stays in every group
const unsigned char kFirstGroup = 20;
const unsigned char kGroups = 4;
const int kRounds = 200;

class RegistryThreads : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        for (unsigned char id = 0; id <= kAnchor; id++)
            ASSERT_EQ(0, format_image(image_for(id), 3 * GiB));
        for (unsigned char id = 0; id <= kAnchor; id++) {
            std::string image = image_for(id);
            ASSERT_EQ(0, api_qzfs_mount(id, &image[0]));
        }
    }

    // Groups outlive uinit and a disk in a group cannot be unmounted:
    // every disk leaves every group before it goes.
    void TearDown() override
    {
        for (unsigned char g = kFirstGroup; g < kFirstGroup + kGroups; g++)
            for (unsigned char id = 0; id <= kAnchor; id++)
                api_qzfs_delete_disk_from_group(id, g);
        for (unsigned char id = 0; id <= kAnchor; id++)
            api_qzfs_umount(id);
        LibraryTest::TearDown();
    }

    std::string image_for(unsigned char hdd_id)
    {
        return scratch_.path("disk" + std::to_string(hdd_id) + ".img");
    }
};

// Each worker adds its disk to every group and takes it out again, many
// times over, while the others do the same to the same groups: every change
// of a group's disk mask has to be kept. The anchor disk keeps every group
// in existence throughout. At the end worker t stays in the groups g with
// (g + t) even, so the lists that come back are known exactly.
TEST_F(RegistryThreads, DisksJoinAndLeaveSharedGroupsConcurrently)
{
    for (unsigned char g = kFirstGroup; g < kFirstGroup + kGroups; g++)
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(kAnchor, g));

    std::vector<std::thread> workers;
    std::vector<int> failures(kWorkers, 0);
    for (unsigned char t = 0; t < kWorkers; t++) {
        workers.emplace_back([t, &failures] {
            for (int round = 0; round < kRounds; round++) {
                for (unsigned char g = kFirstGroup; g < kFirstGroup + kGroups; g++) {
                    if (api_qzfs_add_disk_to_group(t, g) != 0)
                        failures[t]++;
                    bool stay = round == kRounds - 1 && (g + t) % 2 == 0;
                    if (!stay && api_qzfs_delete_disk_from_group(t, g) != 0)
                        failures[t]++;
                }
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();

    EXPECT_EQ(std::vector<int>(kWorkers, 0), failures);
    for (unsigned char g = kFirstGroup; g < kFirstGroup + kGroups; g++) {
        std::vector<unsigned char> expected;
        for (unsigned char t = 0; t < kWorkers; t++)
            if ((g + t) % 2 == 0)
                expected.push_back(t);
        expected.push_back(kAnchor);

        unsigned char list[8];
        int count = api_qzfs_get_disk_list_from_group(g, list, sizeof(list));
        EXPECT_EQ((int)expected.size(), api_qzfs_get_disk_num_from_group(g)) << "group " << (int)g;
        ASSERT_EQ((int)expected.size(), count) << "group " << (int)g;
        EXPECT_EQ(expected, std::vector<unsigned char>(list, list + count)) << "group " << (int)g;
    }
}

} // namespace
