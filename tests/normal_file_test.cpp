// Named files and device info, as an application keeps its settings and
// logs on its record disks: write, remount, read back; the open modes and
// what two handles of a file may do together; files across a group of two
// disks; a full disk; damaged chain headers.
#include "recording_support.h"
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstring>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

using namespace qzfs_test;

namespace {

const unsigned char GROUP = 0;

std::vector<char> pattern_bytes(size_t size, unsigned seed)
{
    std::vector<char> bytes(size);
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; i++) {
        x = x * 1103515245u + 12345u;
        bytes[i] = char(x >> 24);
    }
    return bytes;
}

class NormalFileTest : public MountedImageTest {
protected:
    void SetUp() override
    {
        MountedImageTest::SetUp();
        format();
        mount();
        join_group(0);
        data_ = (long long)fs_->manage().block_size - 4096;
    }
    void TearDown() override
    {
        for (void* h : open_)
            api_qzfs_close_normal_file(h);
        MountedImageTest::TearDown();
    }
    // Disk `hdd` joins the group and becomes its record disk.
    void join_group(unsigned char hdd)
    {
        ASSERT_EQ(0, api_qzfs_add_disk_to_group(hdd, GROUP));
        gQzfsManager.find_group(GROUP)->m_current_record_hdd_id = hdd;
    }
    // Unmounts disk 0, runs `offline` on its image, mounts it again.
    void remount_all(const std::function<void()>& offline = [] {})
    {
        api_qzfs_delete_disk_from_group(0, GROUP);
        umount();
        offline();
        mount();
        join_group(0);
    }
    void* open(const char* name, int mode)
    {
        void* h = api_qzfs_open_normal_file(GROUP, const_cast<char*>(name), mode);
        if (h != nullptr)
            open_.push_back(h);
        return h;
    }
    int close(void* h)
    {
        open_.erase(std::remove(open_.begin(), open_.end(), h), open_.end());
        return api_qzfs_close_normal_file(h);
    }
    // Writes `bytes` in chunks of `chunk` bytes through a new file.
    void write_file(const char* name, const std::vector<char>& bytes, size_t chunk)
    {
        void* h = open(name, QZFS_NORMAL_FILE_CREATE);
        ASSERT_NE(nullptr, h);
        for (size_t at = 0; at < bytes.size(); at += chunk) {
            int n = int(std::min(chunk, bytes.size() - at));
            ASSERT_EQ(n, api_qzfs_write_normal_file(h, const_cast<char*>(&bytes[at]), n));
        }
        ASSERT_EQ(0, api_qzfs_sync_normal_file(h));
        ASSERT_EQ(0, close(h));
    }
    std::vector<char> read_file(const char* name, size_t chunk = 65537)
    {
        std::vector<char> out;
        void* h = open(name, QZFS_NORMAL_FILE_READ);
        EXPECT_NE(nullptr, h);
        if (h == nullptr)
            return out;
        std::vector<char> buf(chunk);
        int n;
        while ((n = api_qzfs_read_normal_file(h, buf.data(), int(chunk))) > 0)
            out.insert(out.end(), buf.begin(), buf.begin() + n);
        EXPECT_EQ(0, n);
        close(h);
        return out;
    }
    long long size_of(const char* name)
    {
        return api_qzfs_get_normal_file_size(GROUP, const_cast<char*>(name));
    }
    std::vector<std::string> search(const char* pattern)
    {
        std::vector<std::string> names;
        void* s = api_qzfs_get_search_normal_file_handle(GROUP, const_cast<char*>(pattern));
        EXPECT_NE(nullptr, s);
        char name[16];
        for (int r = api_qzfs_get_normal_file_name(s, 0, name); r == 1;
             r = api_qzfs_get_normal_file_name(s, 1, name))
            names.push_back(name);
        api_qzfs_release_search_normal_file_handle(s);
        std::sort(names.begin(), names.end());
        return names;
    }

    long long data_ = 0;  // file bytes a block holds
    std::vector<void*> open_;
};

TEST_F(NormalFileTest, FilesOfEverySizeReadBackAfterRemount)
{
    struct Case {
        const char* name;
        long long blocks;  // size in blocks of data, plus `extra` bytes
        long long extra;
        size_t chunk;
    } cases[] = {
        {"empty", 0, 0, 1000},          {"one", 0, 1, 7},
        {"almost", 1, -1, 65521},       {"exact", 1, 0, 1 << 20},
        {"one.more", 1, 1, 3000017},    {"three", 2, 12345, 999983},
    };
    for (const Case& c : cases) {
        const std::vector<char> bytes =
            pattern_bytes(size_t(c.blocks * data_ + c.extra), unsigned(c.chunk));
        write_file(c.name, bytes, c.chunk);
        EXPECT_EQ((long long)bytes.size(), size_of(c.name)) << c.name;
    }
    remount_all();
    for (const Case& c : cases) {
        const std::vector<char> bytes =
            pattern_bytes(size_t(c.blocks * data_ + c.extra), unsigned(c.chunk));
        EXPECT_EQ((long long)bytes.size(), size_of(c.name)) << c.name;
        EXPECT_TRUE(read_file(c.name, c.chunk + 1) == bytes) << c.name;
    }
    // A file's blocks: one for an empty file, a new one only past a full one.
    std::list<unsigned long> blocks;
    ASSERT_EQ(0, fs_->get_normal_file_use_block_list("empty", blocks));
    EXPECT_EQ(1u, blocks.size());
    ASSERT_EQ(0, fs_->get_normal_file_use_block_list("exact", blocks));
    EXPECT_EQ(1u, blocks.size());
    ASSERT_EQ(0, fs_->get_normal_file_use_block_list("three", blocks));
    EXPECT_EQ(3u, blocks.size());
}

TEST_F(NormalFileTest, SeekAndOffsetsAtBlockEnds)
{
    const std::vector<char> bytes = pattern_bytes(size_t(data_ + 100), 3);
    write_file("seek", bytes, 1 << 20);
    void* h = open("seek", QZFS_NORMAL_FILE_UPDATE);
    ASSERT_NE(nullptr, h);
    long long at = -1;
    struct Step {
        int offset;
        int whence;
        int result;
        long long position;  // after the step
    } steps[] = {
        {int(data_), 0, 0, data_},        // the end of the first block
        {0, 2, 0, data_ + 100},           // the end of the file
        {-100, 1, 0, data_},              // back by 100
        {1, 2, -1, data_},                // past the end, refused
        {-1, 0, -1, data_},               // negative from the start, refused
        {101, 1, -1, data_},              // past the end by 1
        {int(-data_ - 101), 1, -1, data_}, // before the start
        {5, 0, 0, 5},
    };
    for (const Step& s : steps) {
        EXPECT_EQ(s.result, api_qzfs_seek_normal_file(h, s.offset, s.whence))
            << s.offset << " whence " << s.whence;
        ASSERT_EQ(0, api_qzfs_get_normal_file_cur_offset(h, at));
        EXPECT_EQ(s.position, at) << s.offset << " whence " << s.whence;
    }
    // From the end of the first block a read goes on into the second.
    char got[8];
    ASSERT_EQ(0, api_qzfs_seek_normal_file(h, int(data_ - 4), 0));
    ASSERT_EQ(8, api_qzfs_read_normal_file(h, got, 8));
    EXPECT_EQ(0, memcmp(got, &bytes[size_t(data_ - 4)], 8));
    // Overwriting in place keeps the size.
    ASSERT_EQ(0, api_qzfs_seek_normal_file(h, 10, 0));
    ASSERT_EQ(4, api_qzfs_write_normal_file(h, const_cast<char*>("ABCD"), 4));
    EXPECT_EQ(data_ + 100, api_qzfs_get_normal_file_size_by_handle(h));
    ASSERT_EQ(0, close(h));
    std::vector<char> want = bytes;
    memcpy(&want[10], "ABCD", 4);
    EXPECT_TRUE(read_file("seek") == want);
}

TEST_F(NormalFileTest, OpenModesAndSharing)
{
    write_file("cfg", pattern_bytes(1000, 1), 1000);
    void* writer = open("cfg", QZFS_NORMAL_FILE_APPEND);
    ASSERT_NE(nullptr, writer);
    long long at = 0;
    ASSERT_EQ(0, api_qzfs_get_normal_file_cur_offset(writer, at));
    EXPECT_EQ(1000, at);  // append stands at the end

    // A second writer of any mode is refused; the file stays.
    for (int mode : {QZFS_NORMAL_FILE_CREATE, QZFS_NORMAL_FILE_APPEND, QZFS_NORMAL_FILE_UPDATE}) {
        EXPECT_EQ(nullptr, open("cfg", mode));
        EXPECT_EQ(-3, g_error_no);
    }
    EXPECT_EQ(1000, size_of("cfg"));

    // A reader follows what the writer adds after the reader opened.
    void* reader = open("cfg", QZFS_NORMAL_FILE_READ);
    ASSERT_NE(nullptr, reader);
    EXPECT_EQ(0, g_error_no);
    std::vector<char> more = pattern_bytes(size_t(data_), 2);
    ASSERT_EQ(int(more.size()), api_qzfs_write_normal_file(writer, more.data(), int(more.size())));
    EXPECT_EQ(1000 + data_, api_qzfs_get_normal_file_size_by_handle(reader));
    std::vector<char> got(size_t(data_ + 1000));
    int total = 0, n;
    while ((n = api_qzfs_read_normal_file(reader, &got[size_t(total)], int(got.size()) - total)) > 0)
        total += n;
    EXPECT_EQ(int(data_ + 1000), total);
    EXPECT_EQ(0, memcmp(&got[1000], more.data(), more.size()));

    // The reader may change bytes of the file, not add any.
    ASSERT_EQ(0, api_qzfs_seek_normal_file(reader, 0, 0));
    EXPECT_EQ(4, api_qzfs_write_normal_file(reader, const_cast<char*>("WXYZ"), 4));
    ASSERT_EQ(0, api_qzfs_seek_normal_file(reader, -2, 2));
    EXPECT_EQ(-1, api_qzfs_write_normal_file(reader, const_cast<char*>("WXYZ"), 4));
    EXPECT_EQ(-1, api_qzfs_sync_normal_file(reader));

    // Open files are neither deleted nor renamed.
    EXPECT_EQ(-1, api_qzfs_delete_normal_file(GROUP, const_cast<char*>("cfg")));
    EXPECT_EQ(-1, api_qzfs_rename_normal_file(GROUP, const_cast<char*>("cfg"),
                                              const_cast<char*>("cfg2")));
    ASSERT_EQ(0, close(reader));
    ASSERT_EQ(0, close(writer));

    // Create truncates an existing file; update and read need one.
    void* fresh = open("cfg", QZFS_NORMAL_FILE_CREATE);
    ASSERT_NE(nullptr, fresh);
    EXPECT_EQ(0, api_qzfs_get_normal_file_size_by_handle(fresh));
    ASSERT_EQ(0, close(fresh));
    for (int mode : {QZFS_NORMAL_FILE_UPDATE, QZFS_NORMAL_FILE_READ}) {
        EXPECT_EQ(nullptr, open("nothing", mode));
        EXPECT_EQ(-4, g_error_no);
    }
}

TEST_F(NormalFileTest, RenameDeleteAndSearch)
{
    for (const char* name : {"log.1", "log.2", "config.ini", "longest.name1"})
        write_file(name, pattern_bytes(size_t(data_ + 1), 5), 1 << 20);
    EXPECT_EQ((std::vector<std::string>{"log.1", "log.2"}), search("log"));
    EXPECT_EQ(4u, search("").size());
    EXPECT_EQ(0u, search("zzz").size());

    EXPECT_EQ(-1, api_qzfs_rename_normal_file(GROUP, const_cast<char*>("log.1"),
                                              const_cast<char*>("log.2")));  // taken
    EXPECT_EQ(-1, api_qzfs_rename_normal_file(GROUP, const_cast<char*>("nothing"),
                                              const_cast<char*>("other")));
    ASSERT_EQ(0, api_qzfs_rename_normal_file(GROUP, const_cast<char*>("log.1"),
                                             const_cast<char*>("old.log")));
    ASSERT_EQ(0, api_qzfs_delete_normal_file(GROUP, const_cast<char*>("log.2")));
    EXPECT_EQ(0, api_qzfs_delete_normal_file(GROUP, const_cast<char*>("unknown")));
    const unsigned long free_before = fs_->manage().free_block;
    remount_all();
    EXPECT_EQ(free_before, fs_->manage().free_block);
    EXPECT_EQ((std::vector<std::string>{"config.ini", "longest.name1", "old.log"}), search(""));
    EXPECT_EQ(-1, size_of("log.2"));
    EXPECT_TRUE(read_file("old.log") == pattern_bytes(size_t(data_ + 1), 5));
    EXPECT_EQ(std::vector<std::string>(), disk_check_failures(fs_, image_));

    // The cursor of a search handle.
    void* s = api_qzfs_get_search_normal_file_handle(GROUP, const_cast<char*>("o"));
    char name[16];
    struct {
        unsigned char step;
        int result;
    } steps[] = {{3, 1}, {1, 0}, {1, 0}, {2, 1}, {0, 1}, {2, 0}, {4, -1}};
    for (const auto& st : steps)
        EXPECT_EQ(st.result, api_qzfs_get_normal_file_name(s, st.step, name)) << int(st.step);
    EXPECT_EQ(0, api_qzfs_release_search_normal_file_handle(s));
    EXPECT_EQ(-1, api_qzfs_get_normal_file_name(s, 0, name));  // released
}

TEST_F(NormalFileTest, BadInputChangesNothing)
{
    write_file("kept", pattern_bytes(100, 9), 100);
    void* closed = open("kept", QZFS_NORMAL_FILE_READ);
    ASSERT_EQ(0, close(closed));
    char buf[16];
    const std::string before = image_fingerprint(image_);
    struct Case {
        const char* what;
        std::function<long long()> call;
        long long result;
        int error;  // g_error_no after, or 1 when not set
    } cases[] = {
        {"null name", [&] { return (long long)open(nullptr, 0); }, 0, -2},
        {"empty name", [&] { return (long long)open("", 0); }, 0, -2},
        {"14 characters", [&] { return (long long)open("fourteen.chars", 0); }, 0, -2},
        {"bad mode", [&] { return (long long)open("kept", 4); }, 0, -2},
        {"unknown group", [&] { return (long long)api_qzfs_open_normal_file(9, (char*)"kept", 3); },
         0, -1},
        {"read after close", [&] { return api_qzfs_read_normal_file(closed, buf, 4); }, -1, 1},
        {"close twice", [&] { return api_qzfs_close_normal_file(closed); }, -1, 1},
        {"null handle", [&] { return api_qzfs_seek_normal_file(nullptr, 0, 0); }, -1, 1},
        {"rename to 14", [&] {
             return api_qzfs_rename_normal_file(GROUP, (char*)"kept", (char*)"fourteen.chars");
         }, -1, 1},
        {"size unknown", [&] { return size_of("absent"); }, -1, 1},
    };
    for (const Case& c : cases) {
        g_error_no = 1;
        EXPECT_EQ(c.result, c.call()) << c.what;
        EXPECT_EQ(c.error, g_error_no) << c.what;
    }
    EXPECT_EQ(before, image_fingerprint(image_));
    // With no record disk a new file has nowhere to go.
    gQzfsManager.find_group(GROUP)->m_current_record_hdd_id = QZFS_NO_HDD;
    expect_result_and_log(0, "(hdd_id == 0xff)", [&] { return open("new", 1); });
    EXPECT_EQ(-1, g_error_no);
    // A handle the application never closes goes with the library.
    join_group(0);
    EXPECT_NE(nullptr, api_qzfs_open_normal_file(GROUP, (char*)"left.open", 1));
}

TEST_F(NormalFileTest, FullDiskRefusesToGrowAFile)
{
    write_file("big", pattern_bytes(size_t(data_), 4), 1 << 20);
    // Every free block taken: the file cannot grow past its full block.
    _qzfs_block_info_ test = {};
    test.block_type = QZFS_BLOCK_TEST;
    std::vector<unsigned long> taken(fs_->manage().free_block);
    ASSERT_EQ(0, fs_->Request_free_block(taken.size(), taken.data(), &test, 0));
    void* h = open("big", QZFS_NORMAL_FILE_APPEND);
    ASSERT_NE(nullptr, h);
    expect_result_and_log(-1, "request free block failed!",
                          [&] { return api_qzfs_write_normal_file(h, (char*)"x", 1); });
    EXPECT_EQ(data_, api_qzfs_get_normal_file_size_by_handle(h));
    ASSERT_EQ(0, close(h));
    EXPECT_EQ(nullptr, open("another", QZFS_NORMAL_FILE_CREATE));
    EXPECT_EQ(-4, g_error_no);
    remount_all();  // test blocks are free again
    EXPECT_TRUE(read_file("big") == pattern_bytes(size_t(data_), 4));
}

TEST_F(NormalFileTest, DamagedLastHeader)
{
    const unsigned long bs = fs_->manage().block_size;
    write_file("two", pattern_bytes(size_t(data_ + 10), 6), 1 << 20);
    std::list<unsigned long> blocks;
    ASSERT_EQ(0, fs_->get_normal_file_use_block_list("two", blocks));
    ASSERT_EQ(2u, blocks.size());
    const unsigned long long first = blocks.front() * (unsigned long long)bs + 32;
    const unsigned long long last = blocks.back() * (unsigned long long)bs + 32;
    // A damaged last header counts the block as full...
    remount_all([&] { damage_byte(image_, last + 8); });
    EXPECT_EQ(2 * data_, api_qzfs_get_normal_file_size_by_handle(open("two", 3)));
    close(open_.back());
    // ... unless the block before never pointed at it: an extension cut
    // before its headers were written left it empty.
    remount_all([&] {
        std::vector<unsigned char> header = read_bytes(image_, first, 16);
        header[4] ^= 0xFF;  // next_block
        const uint32_t crc = (uint32_t)qzfs_chksum_crc32(header.data(), 12);
        memcpy(&header[12], &crc, 4);
        write_bytes(image_, first, header);
        damage_byte(image_, last + 8);
    });
    EXPECT_EQ(data_, api_qzfs_get_normal_file_size_by_handle(open("two", 3)));
}

TEST_F(NormalFileTest, TwoDisksOneGroupAndDeviceInfo)
{
    const std::string second = scratch_.path("second.img");
    make_sparse_image(second, 3 * GiB);
    std::string dev = second;
    ASSERT_EQ(0, api_qzfs_fast_format(1, &dev[0]));
    ASSERT_EQ(0, api_qzfs_mount(1, &dev[0]));
    // "a" on disk 0; "b" and a second "a" on disk 1 before it joins.
    write_file("a", pattern_bytes(10, 1), 10);
    ASSERT_EQ(0, api_qzfs_add_disk_to_group(1, 1));
    gQzfsManager.find_group(1)->m_current_record_hdd_id = 1;
    for (const char* name : {"a", "b"}) {
        void* h = api_qzfs_open_normal_file(1, const_cast<char*>(name), 0);
        ASSERT_NE(nullptr, h);
        ASSERT_EQ(3, api_qzfs_write_normal_file(h, const_cast<char*>("xyz"), 3));
        ASSERT_EQ(0, api_qzfs_close_normal_file(h));
    }
    api_qzfs_delete_disk_from_group(1, 1);
    join_group(1);
    EXPECT_EQ((std::vector<std::string>{"a", "a", "b"}), search(""));
    EXPECT_EQ(10, size_of("a"));  // the lower disk's copy comes first
    EXPECT_TRUE(read_file("b") == std::vector<char>({'x', 'y', 'z'}));
    EXPECT_EQ(-1, api_qzfs_rename_normal_file(GROUP, (char*)"b", (char*)"a"));
    ASSERT_EQ(0, api_qzfs_delete_normal_file(GROUP, const_cast<char*>("a")));
    EXPECT_EQ((std::vector<std::string>{"b"}), search(""));

    // Device info on every disk, kept across a remount.
    char info[] = "recorder-42 firmware 1.0";
    ASSERT_EQ(0, api_qzfs_write_device_info_to_all_disk(info, int(sizeof(info))));
    char small[] = "r";
    ASSERT_EQ(0, api_qzfs_write_device_info(1, small, 1));
    api_qzfs_delete_disk_from_group(0, GROUP);
    api_qzfs_delete_disk_from_group(1, GROUP);
    remount();
    ASSERT_EQ(0, api_qzfs_umount(1));
    ASSERT_EQ(0, api_qzfs_mount(1, &dev[0]));
    char got[64] = {};
    EXPECT_EQ(int(sizeof(info)), api_qzfs_get_device_info_len(0));
    EXPECT_EQ(int(sizeof(info)), api_qzfs_read_device_info(0, got, sizeof(got)));
    EXPECT_STREQ(info, got);
    EXPECT_EQ(1, api_qzfs_get_device_info_len(1));
    EXPECT_EQ(-1, api_qzfs_get_device_info_len(7));
    ASSERT_EQ(0, api_qzfs_umount(1));
}

TEST_F(NormalFileTest, DeviceInfoMissing)
{
    char got[8];
    expect_result_and_log(-1, "dev file QzfsDevInfo not exist!",
                          [&] { return api_qzfs_read_device_info(0, got, 8); }, 1);
    EXPECT_EQ(-1, api_qzfs_get_device_info_len(0));
    EXPECT_EQ(-1, api_qzfs_write_device_info(5, got, 8));
}

// A reader opened on an empty file follows a writer in another thread
// across block ends, and ends with every byte in order.
class NormalFileThreads : public NormalFileTest {};

TEST_F(NormalFileThreads, ReaderFollowsAWriter)
{
    const std::vector<char> bytes = pattern_bytes(size_t(2 * data_ + 777), 8);
    void* writer = open("live", QZFS_NORMAL_FILE_CREATE);
    void* reader = open("live", QZFS_NORMAL_FILE_READ);
    ASSERT_NE(nullptr, writer);
    ASSERT_NE(nullptr, reader);
    std::thread write_side([&] {
        for (size_t at = 0; at < bytes.size(); at += 65519) {
            const int n = int(std::min<size_t>(65519, bytes.size() - at));
            ASSERT_EQ(n, api_qzfs_write_normal_file(writer, const_cast<char*>(&bytes[at]), n));
        }
        ASSERT_EQ(0, api_qzfs_sync_normal_file(writer));
    });
    std::vector<char> got(bytes.size());
    size_t have = 0;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (have < got.size() && std::chrono::steady_clock::now() < give_up) {
        const int n = api_qzfs_read_normal_file(reader, &got[have], int(got.size() - have));
        ASSERT_GE(n, 0);
        have += size_t(n);
        if (n == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    write_side.join();
    EXPECT_EQ(bytes.size(), have);
    EXPECT_TRUE(got == bytes);
}

}  // namespace
