// Starting a recording: the request check, the day's root node, the
// descriptors handed out, and what a failure leaves behind.
#include "recording_support.h"

#include "qzfilesystem.h"
#include "qzfs_manager.h"

#include <chrono>
#include <cstring>
#include <functional>

using namespace qzfs_test;

namespace {

const _k4t_fs_date_time_ kDay = {26, 2, 14, 9, 30, 0, 0};

class StreamCreateTest : public RecordingTest {
protected:
    uint16_t root_record_types(uint32_t root_index)
    {
        _root_index_node_dev_ root;
        EXPECT_EQ(0, fs_->Get_root_index_dev_node(root_index, &root));
        uint16_t mask;
        memcpy(&mask, &root.record_type, 2);
        return mask;
    }
};

TEST_F(StreamCreateTest, RequestIsCheckedFieldByFieldInOrder)
{
    struct Case {
        const char* message;
        std::function<void(_qzfs_k4t_create_ss_para_&)> spoil;
    };
    const Case cases[] = {
        {"invalid year(100)", [](auto& p) { p.year = 100; p.month = 0; }},
        {"invalid month(13)", [](auto& p) { p.month = 13; p.day = 0; }},
        {"invalid day(0)", [](auto& p) { p.day = 0; }},
        {"invalid hour(24)", [](auto& p) { p.hour = 24; }},
        {"invalid minute(60)", [](auto& p) { p.minute = 60; }},
        {"invalid second(60)", [](auto& p) { p.second = 60; }},
        {"invalid dst(2)", [](auto& p) { p.dst = 2; }},
        {"for_pre_record(2)", [](auto& p) { p.for_pre_record = 2; }},
        {"record_type(16)", [](auto& p) { p.record_type = 16; }},
        {"invalid have_audio(4), tv_system(0)", [](auto& p) { p.have_audio = 4; }},
        {"invalid have_audio(0), tv_system(2)", [](auto& p) { p.tv_system = 2; }},
        {"invalid channel id(channel:255)", [](auto& p) { p.channel = 255; }},
    };
    for (const Case& c : cases) {
        _qzfs_k4t_create_ss_para_ p = request(1, 0, kDay);
        c.spoil(p);
        std::string log = expect_result_and_log(-1, c.message, [&] { return api_qzfs_create_stream_segment(&p); });
        EXPECT_NE(std::string::npos, log.find("Check_qzfs_create_ss_para failed"));
    }
    // The check knows no month lengths.
    _qzfs_k4t_create_ss_para_ p = request(1, 0, {26, 2, 31, 0, 0, 0, 0});
    EXPECT_EQ(0, Check_qzfs_create_ss_para(&p));
}

TEST_F(StreamCreateTest, AStreamIsNamedOrHasAChannel)
{
    _qzfs_k4t_create_ss_para_ p = request(255, 0, kDay);
    strcpy(p.name, "0123456789abcdef");  // 16 characters
    EXPECT_EQ(0, Check_qzfs_create_ss_para(&p));
    EXPECT_STREQ("0123456789abcdef", p.name);

    memset(p.name, 'x', sizeof(p.name));  // no NUL: no name at all
    EXPECT_EQ(-1, Check_qzfs_create_ss_para(&p));
    p.channel = 4;
    memset(p.name, 'x', sizeof(p.name));
    EXPECT_EQ(0, Check_qzfs_create_ss_para(&p));
    EXPECT_EQ(std::string(17, '\0'), std::string(p.name, 17));

    _qzfs_k4t_create_ss_para_ named = request(255, 0, kDay);
    strcpy(named.name, "door");
    _k4t_stream_segment_id_ id;
    int fd = create(named, &id);
    ASSERT_GT(fd, 0);
    _root_index_node_dev_ root;
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(id.root_index, &root));
    EXPECT_STREQ("door", root.name);
    EXPECT_EQ(255, root.channel);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamCreateTest, OneRootForADayUnlessItIsBeingWritten)
{
    FrameSourceConfig config;
    config.start = kDay;
    config.iframe_bytes = 500;
    config.pframe_bytes = 100;
    _k4t_stream_segment_id_ first, second, third;
    int a = create(request(1, 0, kDay), &first);
    int b = create(request(1, 0, kDay), &second);
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    EXPECT_NE(first.root_index, second.root_index) << "two writers of one day get two roots";
    for (int fd : {a, b}) {
        FrameSource source(config);
        WrittenStream written;
        record_seconds(fd, source, 2, written);
        EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    }
    int c = create(request(1, 0, kDay), &third);
    EXPECT_EQ(first.root_index, third.root_index) << "after the close the first root is taken again";
    EXPECT_EQ(first.stream_segment_index + 1, third.stream_segment_index);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(c));
}

TEST_F(StreamCreateTest, RecordTypesOfTheRootFollowNormalRequestsOnly)
{
    _k4t_stream_segment_id_ id;
    _qzfs_k4t_create_ss_para_ p = request(2, 0, kDay);
    p.record_type = 1;
    int fd = create(p, &id);
    FrameSourceConfig config;
    config.channel = 2;
    config.start = kDay;
    FrameSource source(config);
    WrittenStream written;
    record_seconds(fd, source, 2, written);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    EXPECT_EQ(1u << 1, root_record_types(id.root_index));

    p.record_type = 5;
    p.for_pre_record = 1;
    fd = create(p, &id);
    EXPECT_EQ(1u << 1, root_record_types(id.root_index)) << "a pre-recording changes nothing";
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));

    p.for_pre_record = 0;
    p.lock = 1;
    fd = create(p, &id);
    EXPECT_EQ((1u << 1) | (1u << 5), root_record_types(id.root_index));
    _root_index_node_dev_ root;
    ASSERT_EQ(0, fs_->Get_root_index_dev_node(id.root_index, &root));
    EXPECT_EQ(1, root.lock);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
}

TEST_F(StreamCreateTest, TheDiskMustHaveBeenChosen)
{
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(0, 7));
    _qzfs_k4t_create_ss_para_ p = request(1, 0, kDay);
    p.group_id = 7;
    expect_result_and_log(-1, "(hdd_id == 0xff)", [&] { return api_qzfs_create_stream_segment(&p); });
    p.group_id = 8;
    expect_result_and_log(-1, "Group 8 is invalid!", [&] { return api_qzfs_create_stream_segment(&p); });
    unsigned char hdd = 255;
    ASSERT_EQ(0, api_qzfs_find_work_hdd(7, &hdd));
    p.group_id = 7;
    int fd = api_qzfs_create_stream_segment(&p);
    EXPECT_GT(fd, 0);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    EXPECT_EQ(0, api_qzfs_delete_disk_from_group(0, 7));
}

TEST_F(StreamCreateTest, FailureOnAFullDiskTakesItsTimeAndLeavesNoDescriptor)
{
    take_every_free_block();
    _qzfs_k4t_create_ss_para_ p = request(1, 0, kDay);
    auto started = std::chrono::steady_clock::now();
    expect_result_and_log(-1, "pFs->Create_stream_segment failed",
                          [&] { return api_qzfs_create_stream_segment(&p); });
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(50));
    EXPECT_EQ(1, fs_->open_stream_segment_is_empty());
    EXPECT_EQ(-1, gQzfsManager.get_disk_ossid(1));
}

TEST_F(StreamCreateTest, DescriptorsNameTheirSegmentAndRunOut)
{
    _k4t_stream_segment_id_ id = {};
    int fd = create(request(3, 0, kDay), &id);
    EXPECT_EQ(0, id.hdd_id);
    _opened_stream_segment_* oss =
        gQzfsManager.get_opening_stream_segment_info(gQzfsManager.get_disk_ossid(fd));
    ASSERT_NE(nullptr, oss);
    EXPECT_EQ(oss->root_index, id.root_index);
    EXPECT_EQ(oss->stream_segment_index, id.stream_segment_index);
    EXPECT_EQ(0, api_qzfs_close_stream_segment(fd));
    expect_result_and_log(-1, "get_file_system failed(pOss->hdd_id:255)",
                          [&] { return api_qzfs_get_fd_info(fd, &id); });
    // A descriptor that is not open: nothing to do, and no error.
    expect_result_and_log(0, "get_file_system failed(hdd_id:255)",
                          [&] { return api_qzfs_close_stream_segment(fd); });

    // 511 inner fds a disk, 511 ossfds in all.
    fs_->disk_lock(1);
    std::vector<int> taken;
    for (int i = 0; i < 511; i++) {
        taken.push_back(fs_->get_free_oss_fd());
        ASSERT_EQ((0 << 16) | (i + 1), taken.back());
    }
    expect_result_and_log(-1, "get free fd failed", [&] { return fs_->get_free_oss_fd(); });
    for (int disk_ossid : taken)
        fs_->release_oss_fd(disk_ossid);
    fs_->disk_lock(0);
    std::vector<int> ossfds;
    for (int i = 0; i < 511; i++)
        ossfds.push_back(gQzfsManager.apply_and_set_ossid(0x10001));
    EXPECT_EQ(1, ossfds.front());
    EXPECT_EQ(511, ossfds.back());
    EXPECT_EQ(-1, gQzfsManager.apply_and_set_ossid(0x10001)) << "slot 0 is never handed out";
    for (int ossfd : ossfds)
        gQzfsManager.free_ossid(ossfd);

    // A disk ossid of another disk is not searched for here.
    expect_result_and_log(0, "fd is invalid(fd:0x00010001,hdd id:0)",
                          [&] { return fs_->find_oss_info_by_fd(0x10001); });
}

}  // namespace
