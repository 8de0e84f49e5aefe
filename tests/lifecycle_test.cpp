// Library lifecycle: the not-initialised guard of every exported function,
// init and uinit in pairs and twice, configuration defaults, debug level and
// the last error.
#include "test_support.h"

#include "qzfilesystem_api.h"
#include "qzfs_manager.h"

#include <cstring>
#include <functional>
// GCC 12 reports a false maybe-uninitialized inside <regex> when built with
// the sanitizers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <vector>

using namespace qzfs_test;

namespace {

// g_qzfs_debug_level is constant-initialised, so this copy sees the value
// the library was loaded with, before any test touches it.
static const uint32_t kDebugLevelAtLoad = g_qzfs_debug_level;

class Lifecycle : public LibraryTest {};

// Stands for any record a call takes by pointer: room for eight zeroed
// records of that type, none of which a guard may look at.
struct Blank {
    template <typename T> operator T*() const
    {
        static T records[8] = {};
        return records;
    }
};
const Blank blank;

struct GuardedCall {
    const char* name;
    std::function<long long()> call;
    long long not_initialised;
};

TEST_F(Lifecycle, EveryExportedFunctionRefusesBeforeInit)
{
    std::string image = scratch_.path("disk.img");
    ASSERT_EQ(0, format_image(image, 3 * GiB));
    ASSERT_EQ(0, api_qzfs_uinit());
    const std::string fingerprint = image_fingerprint(image);
    const size_t groups = gQzfsManager.m_disk_group_map.size();

    std::string dev_text = image;
    char* dev = &dev_text[0];
    char* devs[1] = {dev};
    char name[16] = "file";
    char other[16] = "other";
    char data[64] = "payload";
    long long position = 0;
    _k4t_stream_segment_id_ id = {};
    _k4t_fs_time_ t1 = {1, 0, 0};
    void* handle = data;  // not a handle; a guard must not look at it
    auto as_ll = [](void* p) { return (long long)(intptr_t)p; };
    const std::vector<GuardedCall> calls = {
        {"uinit", [] { return api_qzfs_uinit(); }, 0},
        {"set_debug_level", [] { return api_qzfs_set_debug_level(3); }, -1},
        {"get_last_error", [] { return api_qzfs_get_last_error(); }, -1},
        {"rebuild_rely", [&] { return api_qzfs_rebuild_rely(0, dev); }, -1},
        {"format", [&] { return api_qzfs_format(0, dev, name); }, -1},
        {"fast_format", [&] { return api_qzfs_fast_format(0, dev); }, -1},
        {"mount", [&] { return api_qzfs_mount(0, dev); }, -1},
        {"mount_for_windows", [&] { return api_qzfs_mount_for_windows(0, 1, devs); }, -1},
        {"umount", [] { return api_qzfs_umount(0); }, -1},
        {"get_hdd_info", [&] { return api_qzfs_get_hdd_info(0, blank); }, -1},
        {"test_hdd", [] { return api_qzfs_test_hdd(0, 1); }, -1},
        {"disk_recovery", [&] { return api_qzfs_disk_recovery(0, dev, blank); }, -1},
        {"add_disk_to_group", [] { return api_qzfs_add_disk_to_group(0, 1); }, -1},
        {"delete_disk_from_group", [] { return api_qzfs_delete_disk_from_group(0, 1); }, -1},
        {"get_disk_num_from_group", [] { return api_qzfs_get_disk_num_from_group(1); }, -1},
        {"get_disk_list_from_group", [&] { return api_qzfs_get_disk_list_from_group(1, blank, 4); }, -1},
        {"find_work_hdd", [&] { return api_qzfs_find_work_hdd(1, blank); }, -1},
        {"config_overwrite", [&] { return api_qzfs_config_overwrite(1, blank); }, -1},
        {"disk_overwrite_big_stream", [] { return api_qzfs_disk_overwrite_big_stream(1); }, -1},
        {"disk_overwrite_small_stream", [] { return api_qzfs_disk_overwrite_small_stream(1, 3); }, -1},
        {"create_stream_segment", [&] { return api_qzfs_create_stream_segment(blank); }, -1},
        {"open_stream_segment_by_id", [&] { return api_qzfs_open_stream_segment_by_id(&id, 1, 0); }, -1},
        {"open_stream_segment_by_para", [&] { return api_qzfs_open_stream_segment_by_para(blank, 0); }, -1},
        {"seek_stream_segment_by_time", [&] { return api_qzfs_seek_stream_segment_by_time(1, blank); }, -1},
        {"seek_stream_segment_by_offset", [] { return api_qzfs_seek_stream_segment_by_offset(1, 0, 0); }, -1},
        {"stream_segment_tell", [&] { return api_qzfs_stream_segment_tell(1, blank); }, -1},
        {"close_stream_segment", [] { return api_qzfs_close_stream_segment(1); }, -1},
        {"write_video_data", [&] { return api_qzfs_write_video_data(1, blank, 16, 1, blank); }, -1},
        {"fsync", [] { return api_qzfs_fsync(1); }, -1},
        {"read_video_data", [&] { return api_qzfs_read_video_data(1, blank, 16, blank); }, -1},
        {"read_next_iframe", [&] { return api_qzfs_read_next_iframe(1, 0, blank, blank, blank); }, -1},
        {"read_pre_iframe", [&] { return api_qzfs_read_pre_iframe(1, 0, blank, blank, blank); }, -1},
        {"get_query_stream_segment_handle", [&] { return api_qzfs_get_query_stream_segment_handle(blank); }, -1},
        {"close_query_stream_segment_handle", [] { return api_qzfs_close_query_stream_segment_handle(1); }, -1},
        {"query_stream_segment", [&] { return api_qzfs_query_stream_segment(1, K4T_QUERY_FIRST, blank, blank); }, -1},
        {"get_total_page_num", [] { return api_qzfs_get_total_page_num(1); }, -1},
        {"jump_specific_page", [&] { return api_qzfs_jump_specific_page(1, 0, blank, blank); }, -1},
        {"query_calendar", [&] { return api_qzfs_query_calendar(blank); }, -1},
        {"get_stream_date_num", [] { return api_qzfs_get_stream_date_num(1, 1); }, -1},
        {"get_stream_date_list", [&] { return api_qzfs_get_stream_date_list(1, 1, blank, 4); }, -1},
        {"get_stream_date_info_num", [] { return api_qzfs_get_stream_date_info_num(1, 1, 1); }, -1},
        {"get_stream_date_info", [&] { return api_qzfs_get_stream_date_info(1, 1, 1, blank, 4); }, -1},
        {"stream_segment_lock_by_id", [&] { return api_qzfs_stream_segment_lock_by_id(&id, 1); }, -1},
        {"stream_segment_lock_by_time", [&] { return api_qzfs_stream_segment_lock_by_time(blank, 1); }, -1},
        {"auto_unlock", [&] { return api_qzfs_auto_unlock(blank, 1); }, -1},
        {"auto_delete", [&] { return api_qzfs_auto_delete(blank, 1); }, -1},
        {"delete_stream_segment", [&] { return api_qzfs_delete_stream_segment(&id); }, -1},
        {"delete_stream_segment_by_para", [&] { return api_qzfs_delete_stream_segment_by_para(blank); }, -1},
        {"get_fd_info", [&] { return api_qzfs_get_fd_info(1, &id); }, -1},
        {"get_stream_segment_info", [&] { return api_qzfs_get_stream_segment_info(&id, blank); }, -1},
        {"get_stream_segment_data_info",
         [&] { return api_qzfs_get_stream_segment_data_info(&id, blank, blank, blank, blank); }, -1},
        {"modify_pre_record_info", [&] { return api_qzfs_modify_pre_record_info(1, 1, 1, 1, 1, t1); }, -1},
        {"overwrite_pre_record_stream", [&] { return api_qzfs_overwrite_pre_record_stream(1, t1); }, -1},
        {"modify_stream_segment_end_time", [&] { return api_qzfs_modify_stream_segment_end_time(id, t1); }, -1},
        {"modify_stream_segment_info", [&] { return api_qzfs_modify_stream_segment_info(blank); }, -1},
        {"modify_stream_segment_info_by_fd",
         [&] { return api_qzfs_modify_stream_segment_info_by_fd(1, 3, 1, 1, 1, 1, blank); }, -1},
        {"open_normal_file", [&] { return as_ll(api_qzfs_open_normal_file(1, name, 0)); }, 0},
        {"write_normal_file", [&] { return api_qzfs_write_normal_file(handle, data, 8); }, -1},
        {"read_normal_file", [&] { return api_qzfs_read_normal_file(handle, data, 8); }, -1},
        {"sync_normal_file", [&] { return api_qzfs_sync_normal_file(handle); }, -1},
        {"close_normal_file", [&] { return api_qzfs_close_normal_file(handle); }, -1},
        {"get_normal_file_cur_offset", [&] { return api_qzfs_get_normal_file_cur_offset(handle, position); }, -1},
        {"seek_normal_file", [&] { return api_qzfs_seek_normal_file(handle, 0, 0); }, -1},
        {"get_normal_file_size_by_handle", [&] { return api_qzfs_get_normal_file_size_by_handle(handle); }, -1},
        {"get_normal_file_size", [&] { return api_qzfs_get_normal_file_size(1, name); }, -1},
        {"delete_normal_file", [&] { return api_qzfs_delete_normal_file(1, name); }, -1},
        {"rename_normal_file", [&] { return api_qzfs_rename_normal_file(1, name, other); }, -1},
        {"get_search_normal_file_handle", [&] { return as_ll(api_qzfs_get_search_normal_file_handle(1, name)); }, 0},
        {"get_normal_file_name", [&] { return api_qzfs_get_normal_file_name(handle, 1, other); }, -1},
        {"release_search_normal_file_handle", [&] { return api_qzfs_release_search_normal_file_handle(handle); }, -1},
        {"write_device_info", [&] { return api_qzfs_write_device_info(0, data, 8); }, -1},
        {"write_device_info_to_all_disk", [&] { return api_qzfs_write_device_info_to_all_disk(data, 8); }, -1},
        {"read_device_info", [&] { return api_qzfs_read_device_info(0, data, 8); }, -1},
        {"get_device_info_len", [] { return api_qzfs_get_device_info_len(0); }, -1},
    };

    g_error_no = 0;
    for (const GuardedCall& c : calls)
        EXPECT_EQ(c.not_initialised, c.call()) << c.name;

    // Nothing was built, opened or changed.
    EXPECT_EQ(fingerprint, image_fingerprint(image));
    EXPECT_EQ(0u, g_qzfs_debug_level);
    EXPECT_EQ(0, g_error_no);
    EXPECT_EQ(nullptr, pgSystemResourceManager);
    EXPECT_EQ(0, gQzfsManager.m_InitFlag);
    EXPECT_EQ(groups, gQzfsManager.m_disk_group_map.size());
    for (CQzFileSystem* fs : gQzfsManager.m_Qzfs_vector)
        EXPECT_EQ(nullptr, fs);
    EXPECT_EQ(std::string("payload"), std::string(data));
    EXPECT_EQ(std::string("other"), std::string(other));
}

TEST_F(Lifecycle, InitTwiceKeepsStateAndGroupsOutliveUinit)
{
    std::string image = scratch_.path("disk.img");
    ASSERT_EQ(0, format_image(image, 3 * GiB));
    ASSERT_EQ(0, api_qzfs_mount(0, &image[0]));
    _qzfs_k4t_hdd_info_ first = {}, again = {};
    ASSERT_EQ(0, api_qzfs_get_hdd_info(0, &first));
    CSystemResourceManager* caches = pgSystemResourceManager;

    EXPECT_EQ(0, api_qzfs_init());
    EXPECT_EQ(caches, pgSystemResourceManager);
    ASSERT_EQ(0, api_qzfs_get_hdd_info(0, &again));
    EXPECT_EQ(0, memcmp(&first, &again, sizeof(first)));  // size, total and free

    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 7));
    EXPECT_EQ(0, api_qzfs_uinit());
    EXPECT_EQ(0, api_qzfs_uinit());
    EXPECT_EQ(nullptr, pgSystemResourceManager);
    EXPECT_EQ(0, gQzfsManager.m_InitFlag);

    ASSERT_EQ(0, api_qzfs_init());
    api_qzfs_set_debug_level(0);
    EXPECT_EQ(1, gQzfsManager.m_InitFlag);
    EXPECT_NE(nullptr, pgSystemResourceManager);
    // The disk went with uinit; the lookup also grows the disk vector
    // again, so the group below lists the vanished disk's id.
    EXPECT_EQ(-1, api_qzfs_get_hdd_info(0, &again));
    // The group and its bit of the vanished disk are still there.
    _disk_group_attr_* group = gQzfsManager.find_group(7);
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(1UL, group->valid_disk_bitmap);
    EXPECT_EQ(1, api_qzfs_get_disk_num_from_group(7));

    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(0, 7));
    EXPECT_EQ(nullptr, gQzfsManager.find_group(7));
    // The disk mounts again in the new session.
    ASSERT_EQ(0, api_qzfs_mount(0, &image[0]));
    ASSERT_EQ(0, api_qzfs_get_hdd_info(0, &again));
    EXPECT_EQ(first.total_num, again.total_num);
    EXPECT_EQ(0, api_qzfs_umount(0));
}

TEST_F(Lifecycle, InitSetsConfigurationDefaults)
{
    ASSERT_EQ(0, api_qzfs_uinit());
    memset(&gQzfsConfig, 0x5C, sizeof(gQzfsConfig));
    ASSERT_EQ(0, api_qzfs_init());
    // Every byte, the spare ones included (the record has no padding).
    const _qzfs_global_config_ defaults = {0xAAAA, 0xAAAA, 0x26666, 0x26666, 30, 1, 2, 2, 1, {0, 0, 0}};
    EXPECT_EQ(0, memcmp(&defaults, &gQzfsConfig, sizeof(defaults)));
    EXPECT_NE(nullptr, pgSystemResourceManager);
    EXPECT_EQ(1, gQzfsManager.m_InitFlag);

    ASSERT_EQ(0, api_qzfs_uinit());
    EXPECT_EQ(nullptr, pgSystemResourceManager);
}

// The level is 1 at load; setting it announces the new level unless it is 0.
// The last error is the global error number.
TEST_F(Lifecycle, DebugLevelAnnouncesItselfUnlessZeroAndLastErrorIsGlobal)
{
    EXPECT_EQ(1u, kDebugLevelAtLoad);
    std::string out = captured_stdout([] { EXPECT_EQ(0, api_qzfs_set_debug_level(2)); });
    EXPECT_EQ(2u, g_qzfs_debug_level);
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(^\[[^\]]+\]\[\d{8}\]\[[^\]]+\]\[time:\d+, \d{6}\]set qzfs debug level:2\n$)")))
        << out;

    out = captured_stdout([] { EXPECT_EQ(0, api_qzfs_set_debug_level(0)); });
    EXPECT_EQ("", out);
    EXPECT_EQ(0u, g_qzfs_debug_level);

    g_error_no = -3;
    EXPECT_EQ(-3, api_qzfs_get_last_error());
    g_error_no = 0;
}

} // namespace
