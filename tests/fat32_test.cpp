// The partition and FAT32 shell: the MBR, the boot sector and its backup,
// FSInfo, both FATs and the root directory of pre-created files, checked byte
// by byte on sparse images and, where installed, with the PC's own tools.
#include "test_support.h"

#include "qzfilesystem.h"
#include "qzfilesystem_api.h"
#include "qzfs_manager.h"
#include "qzfs_device.h"
#include "qzfs_fat32.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <list>
// GCC 12 reports a false maybe-uninitialized inside <regex> when built with
// the sanitizers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using namespace qzfs_test;

namespace {

// ------------------------------------------------------------------ helpers

uint16_t le16(const std::vector<unsigned char>& b, size_t at)
{
    return (uint16_t)(b[at] | (b[at + 1] << 8));
}

uint32_t le32(const std::vector<unsigned char>& b, size_t at)
{
    return (uint32_t)b[at] | ((uint32_t)b[at + 1] << 8) | ((uint32_t)b[at + 2] << 16) |
           ((uint32_t)b[at + 3] << 24);
}

std::string text_at(const std::vector<unsigned char>& b, size_t at, size_t length)
{
    return std::string(reinterpret_cast<const char*>(b.data() + at), length);
}

// One little-endian field of a sector: `width` bytes at `at`.
struct Field {
    size_t at;
    int width;
    uint32_t value;
};

void expect_fields(const std::vector<unsigned char>& b, std::initializer_list<Field> fields)
{
    for (const Field& f : fields) {
        uint32_t got = f.width == 1 ? b[f.at] : f.width == 2 ? le16(b, f.at) : le32(b, f.at);
        EXPECT_EQ(f.value, got) << "field at byte " << f.at;
    }
}

// What the FAT of a shell volume must hold for cluster `c`, straight from the
// table of the layout: cluster 0 and 1 marks, the root directory chain of
// `dc` clusters, end marks over the gap, one chain of `cc` clusters per file
// ending in an end mark, and end marks behind the last file.
uint32_t expected_fat_entry(unsigned long long c, unsigned long long dc, unsigned long long first,
                            unsigned long long cc, unsigned long long files)
{
    if (c == 0)
        return 0x0FFFFFF8;
    if (c == 1)
        return 0xFFFFFFFF;
    if (c >= 2 && c <= dc)
        return (uint32_t)(c + 1);
    if (c < first)
        return 0x0FFFFFFF;
    if (c < first + cc * files)
        return (c - first) % cc == cc - 1 ? 0x0FFFFFFF : (uint32_t)(c + 1);
    return 0x0FFFFFFF;
}

// The figures of one shell volume, read from its boot sector.
struct Volume {
    unsigned long long offset = 0; // partition start in bytes
    uint32_t reserved = 0;
    uint32_t fat_size = 0;
    uint32_t total = 0;
    unsigned long long meta() const { return reserved + 2ULL * fat_size; }
};

Volume read_volume(const std::string& image, unsigned long long offset)
{
    std::vector<unsigned char> bs = read_bytes(image, offset, 512);
    Volume v;
    v.offset = offset;
    v.reserved = le16(bs, 14);
    v.fat_size = le32(bs, 36);
    v.total = le32(bs, 32);
    return v;
}

// Compares both FAT copies entry by entry with the expected layout. Returns
// the number of wrong entries and reports the first few.
unsigned long long check_fats(const std::string& image, const Volume& v, unsigned long long dc,
                              unsigned long long first, unsigned long long cc,
                              unsigned long long files)
{
    const size_t chunk = 4 * MiB;
    const unsigned long long fat_bytes = (unsigned long long)v.fat_size * 512;
    unsigned long long wrong = 0;
    for (int copy = 0; copy < 2; copy++) {
        unsigned long long base = v.offset + (v.reserved + (unsigned long long)copy * v.fat_size) * 512;
        for (unsigned long long at = 0; at < fat_bytes; at += chunk) {
            size_t n = (size_t)std::min<unsigned long long>(chunk, fat_bytes - at);
            std::vector<unsigned char> bytes = read_bytes(image, base + at, n);
            for (size_t i = 0; i < n; i += 4) {
                unsigned long long c = (at + i) / 4;
                uint32_t want = expected_fat_entry(c, dc, first, cc, files);
                uint32_t got = le32(bytes, i);
                if (got != want && wrong++ < 5)
                    ADD_FAILURE() << "FAT " << copy + 1 << " cluster " << c << ": got 0x"
                                  << std::hex << got << ", want 0x" << want;
            }
        }
    }
    return wrong;
}

// DOS date and time of a moment, as one comparable number.
uint32_t dos_stamp(time_t when)
{
    struct tm t;
    localtime_r(&when, &t);
    uint32_t date = (uint32_t)((t.tm_year + 1900 - 1980) * 512 + (t.tm_mon + 1) * 32 + t.tm_mday);
    uint32_t clock = (uint32_t)(t.tm_hour * 2048 + t.tm_min * 32 + t.tm_sec / 2);
    return date << 16 | clock;
}

// Checks every entry of the root directory: `files` entries named after
// their number, hidden and read-only, `file_size` bytes from cluster
// first + i * cc, dated between `before` and `after`; zeros behind them.
void check_root_directory(const std::string& image, const Volume& v, unsigned long long dc,
                          unsigned long long first, unsigned long long cc,
                          unsigned long long files, uint32_t file_size, time_t before,
                          time_t after)
{
    std::vector<unsigned char> dir =
        read_bytes(image, v.offset + v.meta() * 512, (size_t)(dc * 65536));
    uint32_t low = dos_stamp(before), high = dos_stamp(after);
    unsigned long long wrong = 0;
    for (unsigned long long i = 0; i < dc * 2048; i++) {
        size_t at = (size_t)(i * 32);
        bool ok;
        if (i < files) {
            char name[12];
            snprintf(name, sizeof(name), "%04llu       ", i + 1);
            unsigned long long cluster = first + i * cc;
            uint32_t stamp = (uint32_t)le16(dir, at + 16) << 16 | le16(dir, at + 14);
            ok = text_at(dir, at, 11) == name && dir[at + 11] == 0x23 && dir[at + 12] == 0 &&
                 dir[at + 13] == 0 && le16(dir, at + 18) == le16(dir, at + 16) &&
                 le16(dir, at + 22) == le16(dir, at + 14) &&
                 le16(dir, at + 24) == le16(dir, at + 16) &&
                 le16(dir, at + 20) == (uint16_t)(cluster >> 16) &&
                 le16(dir, at + 26) == (uint16_t)(cluster & 0xFFFF) &&
                 le32(dir, at + 28) == file_size && stamp >= low && stamp <= high;
        } else {
            ok = std::count(dir.begin() + at, dir.begin() + at + 32, 0) == 32;
        }
        if (!ok && wrong++ < 5)
            ADD_FAILURE() << "directory entry " << i << " is wrong: \"" << text_at(dir, at, 11)
                          << "\" attr " << (int)dir[at + 11] << " cluster "
                          << ((uint32_t)le16(dir, at + 20) << 16 | le16(dir, at + 26))
                          << " size " << le32(dir, at + 28);
    }
    EXPECT_EQ(0u, wrong);
}

// The lines of `text` that match `pattern` whole, each as its groups.
std::vector<std::vector<std::string>> matching_lines(const std::string& text,
                                                     const std::string& pattern)
{
    std::vector<std::vector<std::string>> found;
    std::istringstream lines(text);
    const std::regex re(pattern);
    std::smatch m;
    for (std::string line; std::getline(lines, line);)
        if (std::regex_match(line, m, re))
            found.emplace_back(m.begin() + 1, m.end());
    return found;
}

// "0001", "0002", ...: the name of file `n`.
std::string file_name(size_t n)
{
    char name[24];
    snprintf(name, sizeof(name), "%04zu", n);
    return name;
}

bool tool_installed(const std::string& name)
{
    return system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

// Copies `length` bytes of `src` from `offset` into a new sparse file `dst`,
// reading only the stretches that hold data.
void copy_sparse_range(const std::string& src, unsigned long long offset,
                       unsigned long long length, const std::string& dst)
{
    int in = open(src.c_str(), O_RDONLY);
    int out = open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    ASSERT_EQ(0, ftruncate(out, (off_t)length));
    const unsigned long long end = offset + length;
    std::vector<char> buf(MiB);
    unsigned long long pos = offset;
    while (pos < end) {
        off_t data = lseek(in, (off_t)pos, SEEK_DATA);
        if (data < 0 && errno == ENXIO)
            break;
        unsigned long long from = data < 0 ? pos : (unsigned long long)data;
        off_t hole = data < 0 ? (off_t)end : lseek(in, data, SEEK_HOLE);
        unsigned long long to = std::min<unsigned long long>(end, (unsigned long long)hole);
        for (unsigned long long at = from; at < to; at += buf.size()) {
            size_t n = (size_t)std::min<unsigned long long>(buf.size(), to - at);
            ASSERT_EQ((ssize_t)n, pread(in, buf.data(), n, (off_t)at));
            ASSERT_EQ((ssize_t)n, pwrite(out, buf.data(), n, (off_t)(at - offset)));
        }
        pos = to;
    }
    close(in);
    close(out);
}

// ------------------------------------------------------------- calculation

TEST(Fat32Calculate, KnownVolumesGiveTheirFigures)
{
    struct Case {
        unsigned long long sectors;
        unsigned long total, fat, clusters;
    };
    const Case cases[] = {
        {1953103872ULL, 1953103700UL, 119194UL, 15256760UL}, // 1 TB disk
        {2097152ULL, 2096928UL, 128UL, 16380UL},             // smallest volume, 1 GiB
        {12181504ULL, 12181360UL, 744UL, 95155UL},           // 6 GiB disk
        {4294459392ULL, 4294459172UL, 262082UL, 33546367UL}, // 2 TiB disk
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sectors);
        unsigned long total = 0, fat = 0, clusters = 0;
        qzfs_fat32_calculate(c.sectors, 32, 128, &total, &fat, &clusters);
        EXPECT_EQ(c.total, total);
        EXPECT_EQ(c.fat, fat);
        EXPECT_EQ(c.clusters, clusters);
    }
}

// --------------------------------------------------------------- partitions

class Fat32Mbr : public ::testing::Test {
protected:
    ScratchDir scratch_;
    std::string image_ = scratch_.path("disk.img");
};

TEST_F(Fat32Mbr, PartitionRereadIsSkippedForImages)
{
    make_sparse_image(image_, 1 * MiB);
    int fd = open(image_.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    auto begin = std::chrono::steady_clock::now();
    int result = -1;
    std::string out = captured_stdout([&] { result = qzfs_read_partition_table(fd); });
    auto spent = std::chrono::steady_clock::now() - begin;
    close(fd);
    EXPECT_EQ(0, result);
    EXPECT_EQ("", out);
    EXPECT_LT(spent, std::chrono::seconds(1));
}

TEST_F(Fat32Mbr, MissingPartitionTableOrDevice)
{
    int count = 7;
    unsigned long long sectors[4] = {};
    make_sparse_image(image_, 6 * GiB);
    EXPECT_EQ(0, qzfs_get_part_info_by_mbr(image_.c_str(), count, sectors));
    EXPECT_EQ(0, count);

    std::string missing = scratch_.path("missing.img");
    expect_result_and_log(-1, "open " + missing + " failed!",
                          [&] { return qzfs_get_part_info_by_mbr(missing.c_str(), count, sectors); });
    std::string tiny = scratch_.path("tiny.img");
    make_sparse_image(tiny, 100);
    expect_result_and_log(-1, "read " + tiny + " mbr failed!",
                          [&] { return qzfs_get_part_info_by_mbr(tiny.c_str(), count, sectors); });
}

// ------------------------------------------------------------------ volume

class Fat32Volume : public ::testing::Test {
protected:
    ScratchDir scratch_;
    std::string image_ = scratch_.path("disk.img");
    // 6 GiB: blocks of 4 MiB, partition 1 at block 33 with 1487 blocks.
    const unsigned long long size_ = 6 * GiB;
    const unsigned long long part_ = 33ULL * 4 * MiB;
    const unsigned long long sectors_ = 1487ULL * 8192;
};

TEST_F(Fat32Volume, InvalidRequestsWriteNothing)
{
    make_sparse_image(image_, size_);
    std::string before = image_fingerprint(image_);
    expect_result_and_log(-1, "para is invalid!", [&] {
        return qzfs_format_fat32_dbr(image_.c_str(), part_, 2097151, nullptr);
    });
    expect_result_and_log(-1, "para is invalid!",
                          [&] { return qzfs_format_fat32_dbr(nullptr, part_, sectors_, nullptr); });
    std::string missing = scratch_.path("missing.img");
    expect_result_and_log(-1, "get " + missing + " dbr failed!",
                          [&] { return qzfs_pre_create_file(missing.c_str(), 0, 128 * MiB, 44); });
    expect_result_and_log(-1, "get " + missing + " dbr failed!",
                          [&] { return qzfs_write_fat32_fsinfo(missing.c_str(), 0, 0, 5); });
    EXPECT_EQ(before, image_fingerprint(image_));
}

// ------------------------------------------------------------ system info

TEST_F(Fat32Volume, SystemInfoReadsTheLayoutBack)
{
    make_sparse_image(image_, size_);
    unsigned long bs = 0, total = 0;
    std::list<unsigned long> system;
    // An image never formatted has no partition to go by.
    EXPECT_EQ(-1, qzfs_get_system_info(image_.c_str(), bs, total, system));

    unsigned long fbs = 0, ftotal = 0;
    std::list<unsigned long> fsystem;
    int result = -1;
    captured_stdout([&] { result = qzfs_format(image_.c_str(), 0, fbs, ftotal, fsystem); });
    ASSERT_EQ(0, result);
    ASSERT_EQ(0, qzfs_get_system_info(image_.c_str(), bs, total, system));
    EXPECT_EQ(fbs, bs);
    EXPECT_EQ(ftotal, total);
    EXPECT_EQ(4 * MiB, bs);
    EXPECT_EQ(33u + 1487u, total);
    // Blocks 0..32 before the partition and its first 32 blocks; format's
    // list has the tail blocks of the partition as well.
    std::list<unsigned long> head;
    for (unsigned long b = 0; b < 65; b++)
        head.push_back(b);
    EXPECT_EQ(head, system);
    EXPECT_EQ(65u + (1487u - 1472u + 32u), fsystem.size());

    // With a reserve, the extra partition of the MBR is taken for it and is
    // system blocks throughout.
    captured_stdout([&] { result = qzfs_format(image_.c_str(), 1024, fbs, ftotal, fsystem); });
    ASSERT_EQ(0, result);
    ASSERT_EQ(0, qzfs_get_system_info(image_.c_str(), bs, total, system));
    EXPECT_EQ(ftotal, total);
    EXPECT_EQ(1520u, total);
    std::list<unsigned long> want = head;
    for (unsigned long b = 1520 - 256; b < 1520; b++) // the 1 GiB reserve: 256 blocks
        want.push_back(b);
    EXPECT_EQ(want, system);

    // Above 2 TiB there is no MBR to read: the size alone tells.
    std::string large = scratch_.path("large.img");
    make_sparse_image(large, 3 * TiB);
    expect_result_and_log(0, "gpt!", [&] { return qzfs_get_system_info(large.c_str(), bs, total, system); });
    EXPECT_EQ(24 * MiB, bs);
    EXPECT_EQ(131069u, total); // what the layout gives for 3 TiB
    EXPECT_EQ(7u + 32u * 2u, system.size()); // two data partitions
}

// ------------------------------------------------------------ whole format

class Fat32Format : public LibraryTest {
protected:
    std::string image_ = scratch_.path("disk.img");
    int format(unsigned long long size) { return format_image(image_, size, "fat32"); }
};

// A 1 TB disk of 1000204886016 bytes: blocks of 8 MiB, S 17, K 49, one
// partition, 3723 files of 256 MiB. The root directory takes clusters 2 and
// 3 and file 1 starts at cluster 2235, which is the first key info block.
TEST_F(Fat32Format, OneTerabyteDiskGetsItsKnownLayout)
{
    const unsigned long long size = 1000204886016ULL;
    time_t before = time(nullptr);
    ASSERT_EQ(0, format(size));
    time_t after = time(nullptr);

    unsigned long bs = 0, key = 0, total = 0;
    ASSERT_EQ(0, qzfs_get_fat32_block_info(image_.c_str(), bs, key, 1));
    EXPECT_EQ(8388608u, bs);
    EXPECT_EQ(49u, key);
    std::list<unsigned long> system;
    ASSERT_EQ(0, qzfs_get_system_info(image_.c_str(), bs, total, system));
    EXPECT_EQ(119225u, total);
    EXPECT_EQ(49u, system.size());

    const unsigned long long part = 17ULL * 8388608;
    std::vector<unsigned char> mbr = read_bytes(image_, 0, 512);
    expect_fields(mbr, {{446, 1, 0}, {450, 1, 0x0C}, {454, 4, 17u * 16384},
                        {458, 4, 1953103872u}, {510, 2, 0xAA55}});
    EXPECT_EQ(48, std::count(mbr.begin() + 462, mbr.begin() + 510, 0));

    std::vector<unsigned char> boot = read_bytes(image_, part, 512);
    EXPECT_EQ(boot, read_bytes(image_, part + 6 * 512, 512));
    expect_fields(boot, {{11, 2, 512}, {13, 1, 128}, {14, 2, 76}, {16, 1, 2}, {21, 1, 0xF8},
                         {32, 4, 1953103700u}, {36, 4, 119194u}, {44, 4, 2}, {48, 2, 1},
                         {50, 2, 6}});
    EXPECT_GE(le32(boot, 67), (uint32_t)before);
    EXPECT_LE(le32(boot, 67), (uint32_t)after);
    EXPECT_EQ("qzfs       FAT32   ", text_at(boot, 71, 19));

    expect_fields(read_bytes(image_, part + 512, 512),
                  {{0, 4, 0x41615252u}, {484, 4, 0x61417272u}, {488, 4, 0},
                   {492, 4, 1953103872u / 128 - 1}, {508, 4, 0xAA550000u}});

    Volume v = read_volume(image_, part);
    const unsigned long long cc = 4096, files = 3723, dc = 2, first = 2235;
    EXPECT_EQ(238464u, v.meta());
    EXPECT_EQ(0u, check_fats(image_, v, dc, first, cc, files));
    check_root_directory(image_, v, dc, first, cc, files, 268435456u, before, after);
    EXPECT_EQ(size, file_size(image_));
}

TEST_F(Fat32Format, RepeatedFormatKeepsTheGeometry)
{
    const unsigned long long size = 6 * GiB;
    const unsigned long long part = 33ULL * 4 * MiB;
    ASSERT_EQ(0, format(size));
    std::vector<unsigned char> mbr = read_bytes(image_, 0, 65536);
    std::vector<unsigned char> boot = read_bytes(image_, part, 512);
    std::vector<unsigned char> fsinfo = read_bytes(image_, part + 512, 512);
    std::vector<unsigned char> fat = read_bytes(image_, part + 48 * 512, 2 * 744 * 512);
    sleep(1); // a later volume id

    ASSERT_EQ(0, format(size));
    EXPECT_EQ(mbr, read_bytes(image_, 0, 65536));
    std::vector<unsigned char> again = read_bytes(image_, part, 512);
    EXPECT_NE(le32(boot, 67), le32(again, 67));
    std::copy(boot.begin() + 67, boot.begin() + 71, again.begin() + 67);
    EXPECT_EQ(boot, again);
    EXPECT_EQ(fsinfo, read_bytes(image_, part + 512, 512));
    EXPECT_EQ(fat, read_bytes(image_, part + 48 * 512, 2 * 744 * 512));
}

// 2 TiB is the largest disk with an MBR; one byte more has no partition table
// this system can write, and the format fails without touching the image.
TEST_F(Fat32Format, TwoTiBFormatsAndOneByteMoreFails)
{
    const unsigned long long two_tib = 2199023255552ULL;
    ASSERT_EQ(0, format(two_tib));
    expect_fields(read_bytes(image_, 0, 512),
                  {{450, 1, 0x0C}, {454, 4, 7u * 49152}, {458, 4, 4294459392u}});
    expect_fields(read_bytes(image_, 7ULL * 24 * MiB, 512),
                  {{32, 4, 4294459172u}, {36, 4, 262082u}});
    EXPECT_EQ(two_tib, file_size(image_));

    std::string larger = scratch_.path("larger.img");
    make_sparse_image(larger, two_tib + 1);
    std::string before = image_fingerprint(larger);
    char label[] = "fat32";
    expect_result_and_log(-1, "fdisk block align failed!", [&] { return api_qzfs_format(0, &larger[0], label); });
    EXPECT_EQ(before, image_fingerprint(larger));
}

// ---------------------------------------------------------------- PC tools

// A 6 GiB disk: its partition holds some 95000 clusters, enough for a PC to
// take the volume for FAT32 (below about 4 GiB it would count as FAT16).
class Fat32PcTools : public LibraryTest {
protected:
    std::string image_ = scratch_.path("disk.img");
    const unsigned long long size_ = 6 * GiB;
    const unsigned long long part_ = 33ULL * 4 * MiB;
    const unsigned long long part_bytes_ = 1487ULL * 4 * MiB;

    void SetUp() override
    {
        LibraryTest::SetUp();
        ASSERT_EQ(0, format_image(image_, size_, "pc"));
    }
    std::string drive() const { return "'" + image_ + "@@" + std::to_string(part_) + "'"; }
};

TEST_F(Fat32PcTools, MdirListsTheHiddenReadOnlyFiles)
{
    if (!tool_installed("mdir") || !tool_installed("mattrib"))
        GTEST_SKIP() << "mtools (mdir, mattrib) is not installed";

    // A file line reads "0001          134217728 date time": a four-digit
    // name with no extension, then the size (32 blocks of 4 MiB).
    CommandResult listing = run_command("mdir -a -i " + drive() + " ::");
    ASSERT_EQ(0, listing.status) << listing.output;
    auto files = matching_lines(listing.output, R"((\d+) +(\d+) .*)");
    ASSERT_EQ(44u, files.size()) << listing.output;
    for (size_t i = 0; i < files.size(); i++)
        EXPECT_EQ((std::vector<std::string>{file_name(i + 1), "134217728"}), files[i]);
    EXPECT_NE(std::string::npos, listing.output.find("44 files")) << listing.output;

    // Without -a the hidden files do not show.
    CommandResult plain = run_command("mdir -i " + drive() + " ::");
    EXPECT_EQ(std::string::npos, plain.output.find("0001")) << plain.output;

    // "  A   HR     ::/0001": archive, hidden, read-only, and not system;
    // there is no other line.
    CommandResult attrs = run_command("mattrib -i " + drive() + " '::/*'");
    ASSERT_EQ(0, attrs.status) << attrs.output;
    auto attributed = matching_lines(attrs.output, R"( *A +HR +::/(\d+) *)");
    ASSERT_EQ(44u, attributed.size()) << attrs.output;
    EXPECT_EQ(44u, matching_lines(attrs.output, ".*").size()) << attrs.output;
    for (size_t i = 0; i < attributed.size(); i++)
        EXPECT_EQ(file_name(i + 1), attributed[i][0]);
}

// Rebuilding the shell of a disk that holds recordings writes only system
// blocks: the key info pair and every allocated block keep their bytes. The
// shell comes from the routine format uses, so fsck may only find what the
// shell does on purpose: clusters marked used that no file owns (the gap
// before file 1 and the tail), the free count that follows from them, and
// the label that has no directory entry.
TEST_F(Fat32PcTools, RebuildRelyRenewsTheShellAndKeepsRecordings)
{
    const unsigned long long bs = 4 * MiB;
    std::string dev = image_;
    ASSERT_EQ(0, api_qzfs_mount(0, &dev[0]));
    CQzFileSystem* fs = gQzfsManager.get_file_system(0);
    _qzfs_block_info_ info = {};
    info.owner_stamp = (uint32_t)fs->get_block_owner_stamp();
    info.block_type = QZFS_BLOCK_DATA;
    std::vector<unsigned long> taken(3);
    fs->disk_lock(1);
    ASSERT_EQ(0, fs->Request_free_block(3, taken.data(), &info, 0));
    fs->disk_lock(0);
    const unsigned long key = fs->manage().key_block, bak = fs->manage().bak_key_block;
    ASSERT_EQ(0, api_qzfs_umount(0));

    // The key info pair, and each block's head with some recording behind it.
    std::vector<std::pair<unsigned long long, size_t>> kept = {{key * bs, bs}, {bak * bs, bs}};
    for (size_t i = 0; i < taken.size(); i++) {
        write_bytes(image_, taken[i] * bs + 4096, std::vector<unsigned char>(65536, (unsigned char)(i + 1)));
        kept.push_back({taken[i] * bs, 4096 + 65536});
    }
    std::vector<std::vector<unsigned char>> before;
    for (const auto& k : kept)
        before.push_back(read_bytes(image_, k.first, k.second));

    // Wreck the MBR, the boot sector and the start of the first FAT.
    write_bytes(image_, 0, std::vector<unsigned char>(512, 0));
    write_bytes(image_, part_, std::vector<unsigned char>(1 * MiB, 0xEE));
    ASSERT_EQ(0, api_qzfs_rebuild_rely(0, &dev[0]));

    EXPECT_EQ(0x55, read_bytes(image_, 510, 1)[0]);
    EXPECT_EQ("MSWIN4.1", text_at(read_bytes(image_, part_, 512), 3, 8));
    for (size_t i = 0; i < kept.size(); i++)
        EXPECT_EQ(before[i], read_bytes(image_, kept[i].first, kept[i].second)) << "at " << kept[i].first;
    ASSERT_EQ(0, api_qzfs_mount(0, &dev[0]));  // the disk still mounts with its blocks
    EXPECT_EQ(QZFS_BLOCK_DATA, read_table_record(image_, bs, key, taken[0]).block_type);
    EXPECT_EQ(0, api_qzfs_umount(0));

    if (!tool_installed("fsck.fat"))
        GTEST_SKIP() << "fsck.fat (dosfstools) is not installed";
    std::string copy = scratch_.path("partition.img");
    copy_sparse_range(image_, part_, part_bytes_, copy);
    ASSERT_FALSE(HasFatalFailure());

    // Clusters fsck counts (from the boot sector's total) less the 44 files
    // of 2048 clusters and the one of the root directory.
    Volume v = read_volume(image_, part_);
    const unsigned long long clusters = (v.total - v.meta()) / 128;
    const unsigned long long owned = 44 * 2048 + 1;
    const std::string unowned = std::to_string(clusters - owned);

    const std::string summary = ".*: 44 files, " + std::to_string(owned) + "/" +
                                std::to_string(clusters) + " clusters";
    const std::string reclaimed = "Reclaimed " + unowned + R"( unused clusters \(.* bytes\)\.)";
    const std::string designed = "|fsck\\.fat .*|  Auto-correcting\\.|Leaving filesystem unchanged\\."
                                 "|Label in boot sector is 'qzfs.*', but there is no volume label "
                                 "in root directory\\.|  Auto-removing label from boot sector\\."
                                 "|Free cluster summary wrong \\(0 vs\\. really " + unowned + "\\)|" +
                                 reclaimed + "|" + summary;

    CommandResult fsck = run_command("fsck.fat -n '" + copy + "'");
    EXPECT_TRUE(fsck.status == 0 || fsck.status == 1) << fsck.output;
    EXPECT_EQ(1u, matching_lines(fsck.output, reclaimed).size()) << fsck.output;
    EXPECT_EQ(1u, matching_lines(fsck.output, summary).size()) << fsck.output;
    std::istringstream lines(fsck.output);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(std::regex_match(line, std::regex(designed))) << "unexpected: " << line;
}

} // namespace
