#include "test_support.h"

#include "system_resource_manager.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_device.h"
#include "qzfs_manager.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qzfs_test {

ScratchDir::ScratchDir()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qzfs-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    dir_ = buf.data();
}

static int remove_entry(const char* path, const struct stat*, int, struct FTW*)
{
    return remove(path);
}

ScratchDir::~ScratchDir() { nftw(dir_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS); }

void make_sparse_image(const std::string& path, unsigned long long size)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0 || ftruncate(fd, (off_t)size) != 0)
        throw std::runtime_error("cannot make image " + path);
    close(fd);
}

unsigned long long file_size(const std::string& path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return 0;
    return (unsigned long long)st.st_size;
}

std::vector<unsigned char> read_bytes(const std::string& path, unsigned long long offset,
                                      size_t length)
{
    std::vector<unsigned char> bytes(length);
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0 || pread(fd, bytes.data(), length, (off_t)offset) != (ssize_t)length) {
        if (fd >= 0)
            close(fd);
        throw std::runtime_error("cannot read " + path);
    }
    close(fd);
    return bytes;
}

void write_bytes(const std::string& path, unsigned long long offset,
                 const std::vector<unsigned char>& bytes)
{
    int fd = open(path.c_str(), O_RDWR);
    if (fd < 0 || pwrite(fd, bytes.data(), bytes.size(), (off_t)offset) != (ssize_t)bytes.size()) {
        if (fd >= 0)
            close(fd);
        throw std::runtime_error("cannot write " + path);
    }
    close(fd);
}

void damage_byte(const std::string& path, unsigned long long offset)
{
    std::vector<unsigned char> byte = read_bytes(path, offset, 1);
    byte[0] ^= 0xFF;
    write_bytes(path, offset, byte);
}

std::string image_fingerprint(const std::string& path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return "missing";
    return std::to_string((long long)st.st_mtim.tv_sec) + "." +
           std::to_string((long long)st.st_mtim.tv_nsec) + "/" +
           std::to_string((long long)st.st_blocks) + "/" + std::to_string((long long)st.st_size);
}

unsigned long long table_record_offset(unsigned long block_size, unsigned long key_block,
                                       unsigned long block)
{
    return (unsigned long long)key_block * block_size +
           (block + QZFS_KEY_TABLE_FIRST_SLOT) * sizeof(_qzfs_block_info_);
}

// The record of type T at `offset` of the image.
template <typename T> static T read_record(const std::string& path, unsigned long long offset)
{
    T record;
    std::vector<unsigned char> bytes = read_bytes(path, offset, sizeof(record));
    memcpy(&record, bytes.data(), sizeof(record));
    return record;
}

_qzfs_block_info_ read_table_record(const std::string& path, unsigned long block_size,
                                    unsigned long key_block, unsigned long block)
{
    return read_record<_qzfs_block_info_>(path, table_record_offset(block_size, key_block, block));
}

_qzfs_block_info_ read_block_head(const std::string& path, unsigned long block_size,
                                  unsigned long block)
{
    return read_record<_qzfs_block_info_>(path, (unsigned long long)block * block_size);
}

_qzfs_key_header_ read_key_header(const std::string& path, unsigned long block_size,
                                  unsigned long key_block)
{
    return read_record<_qzfs_key_header_>(
        path, (unsigned long long)key_block * block_size + QZFS_KEY_HEADER_OFFSET);
}

CommandResult run_command(const std::string& command)
{
    CommandResult r;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0)
        r.output.append(buf, n);
    int raw = pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

void LibraryTest::SetUp()
{
    ASSERT_EQ(0, api_qzfs_init());
    api_qzfs_set_debug_level(0);
}

// The tests open missing devices on purpose: their retries need not wait
// half a second each.
static const bool open_retries_shortened = (qzfs_open_retry_pause_us = 1000, true);

// What outlives api_qzfs_uinit by design (the groups, the query handles,
// the descriptor table) must not outlive a test: the next test in the same
// process starts from a library as fresh as a new process's.
static void forget_what_outlives_uinit()
{
    for (auto& group : gQzfsManager.m_disk_group_map)
        if (group.second.group_lock != nullptr)
            qzfs_destroy_lock(group.second.group_lock);
    gQzfsManager.m_disk_group_map.clear();
    gQzfsManager.m_query_handle_map.clear();
    for (int& slot : gQzfsManager.m_ossid_table)
        slot = -1;
}

void LibraryTest::TearDown()
{
    api_qzfs_uinit();
    forget_what_outlives_uinit();
    api_qzfs_set_debug_level(0);
}

uint32_t add_closed_segment(CQzFileSystem* fs, uint32_t ri, const _qzfs_k4t_create_ss_para_& para,
                            uint32_t start_iframe, uint64_t len)
{
    uint32_t index = 0xFFFFFFFF;
    _stream_segment_index_node_dev_ node;
    fs->disk_lock(1);
    EXPECT_EQ(0, fs->Create_stream_segment_index_node(ri, &para, start_iframe, &index, &node));
    node.end_hour = para.hour;
    node.end_minute = 59;
    node.end_second = 59;
    memcpy(&node.len_in_bytes, &len, sizeof(len));
    EXPECT_EQ(0, fs->Modify_stream_segment(ri, index, 0, &node));
    fs->disk_lock(0);
    return index;
}

void MountedImageTest::format(unsigned long long size)
{
    ASSERT_EQ(0, format_image(image_, size));
}

void MountedImageTest::mount()
{
    std::string dev = image_;
    ASSERT_EQ(0, api_qzfs_mount(0, &dev[0]));
    fs_ = gQzfsManager.get_file_system(0);
    ASSERT_NE(nullptr, fs_);
}

void MountedImageTest::umount() { ASSERT_EQ(0, api_qzfs_umount(0)); }

void MountedImageTest::remount()
{
    umount();
    mount();
}

static void renew_caches()
{
    delete pgSystemResourceManager;
    pgSystemResourceManager = new CSystemResourceManager();
}

ScopedCacheConfig::ScopedCacheConfig(uint32_t root_cache, uint32_t root_step, uint32_t ssi_cache,
                                     uint32_t ssi_step)
    : saved_(gQzfsConfig)
{
    gQzfsConfig.root_index_cache_size = root_cache;
    gQzfsConfig.root_index_cache_step = root_step;
    gQzfsConfig.ssi_cache_size = ssi_cache;
    gQzfsConfig.ssi_cache_step = ssi_step;
    renew_caches();
}

ScopedCacheConfig::~ScopedCacheConfig()
{
    gQzfsConfig = saved_;
    renew_caches();
}

int format_image(const std::string& path, unsigned long long size, const char* label)
{
    make_sparse_image(path, size);
    std::string dev = path;
    std::string text = label != nullptr ? label : "";
    return label != nullptr ? api_qzfs_format(0, &dev[0], &text[0])
                            : api_qzfs_fast_format(0, &dev[0]);
}

} // namespace qzfs_test
