#include "disk_check.h"

#include "disk_consistency.h"
#include "disk_walk.h"
#include "power_cut.h"
#include "qzfilesystem.h"
#include "qzfs_disk_format.h"
#include "qzfs_manager.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using powercut::DiskWalk;
using powercut::RootWalk;

// Reads `length` bytes of the image at `at`, with the overlay laid over them.
bool read_image(const std::string& path, unsigned long long at, void* out, size_t length)
{
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    const bool whole = pread(fd, out, length, off_t(at)) == ssize_t(length);
    close(fd);
    if (whole)
        power_cut::overlay_patch(path.c_str(), at, out, (unsigned long)length);
    return whole;
}

// Every block whose table record is in use (any type but free) is set in
// the bitmap, and every block set there has such a record.
void check_bitmap(CQzFileSystem* fs, const std::string& path, std::vector<std::string>& problems)
{
    const _qzfs_disk_manage_& m = fs->manage();
    std::vector<_qzfs_block_info_> table(m.total_block);
    if (!read_image(path,
                    (unsigned long long)m.key_block * m.block_size +
                        QZFS_KEY_TABLE_FIRST_SLOT * sizeof(_qzfs_block_info_),
                    table.data(), table.size() * sizeof(_qzfs_block_info_))) {
        problems.push_back("the block table cannot be read");
        return;
    }
    for (uint32_t b = 0; b < m.total_block; b++) {
        // A block the disk test took is free again at the next mount.
        const bool used = table[b].block_type != QZFS_BLOCK_FREE &&
                          table[b].block_type != QZFS_BLOCK_TEST;
        if (used != powercut::block_allocated(fs, b))
            problems.push_back("block " + std::to_string(b) + ": its record has type " +
                               std::to_string(table[b].block_type) + " but the bitmap has it " +
                               (used ? "free" : "in use"));
    }
}

unsigned clock_seconds(unsigned hour, unsigned minute, unsigned second)
{
    return hour * 3600 + minute * 60 + second;
}

std::string clock_text(unsigned seconds)
{
    char text[16];
    snprintf(text, sizeof(text), "%02u:%02u:%02u", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return text;
}

std::string segment_name(const RootWalk& root, uint32_t index)
{
    return "segment " + std::to_string(root.position) + ":" + std::to_string(index);
}

// A root's record type bits, lock and only-pre-record flag are those its
// segments make, counted as the mount's walk counts them.
void check_root_summary(const RootWalk& root, std::vector<std::string>& problems)
{
    uint16_t types = 0;
    uint8_t lock = 0, only_pre = 1;
    for (const powercut::SegmentSlot& slot : root.segments) {
        const _stream_segment_index_node_dev_& n = slot.node;
        if (n.id == NORMAL_STREAM_SEGMENT_INDEX)
            only_pre = 0;
        if (!powercut::is_live(n) || n.id == PRE_RECORD_STREAM_SEGMENT_INDEX ||
            segment_len_of(n) == 0)
            continue;
        if (n.record_type < 16)
            types = uint16_t(types | (1u << n.record_type));
        if (n.lock == 1)
            lock = 1;
    }
    uint16_t stored;
    memcpy(&stored, &root.node.record_type, sizeof(stored));
    if (stored != types || root.node.lock != lock || root.node.only_pre_record != only_pre)
        problems.push_back("root " + std::to_string(root.position) + ": its summary (record types " +
                           std::to_string(stored) + ", lock " + std::to_string(root.node.lock) +
                           ", only pre-record " + std::to_string(root.node.only_pre_record) +
                           ") is not that of its segments (" + std::to_string(types) + ", " +
                           std::to_string(lock) + ", " + std::to_string(only_pre) + ")");
}

// A closed segment starts at the time of its first I-frame and ends between
// the time of its last I-frame and that of the next I-frame of the root's
// log: a recording ends at its last I-frame, a piece a split made ends
// where the next piece starts.
void check_segment_times(const RootWalk& root, unsigned long block_size,
                         std::vector<std::string>& problems)
{
    for (const powercut::SegmentSlot& slot : root.segments) {
        powercut::SegmentExtent extent;
        std::string error;
        if (!powercut::is_live(slot.node) ||
            !powercut::segment_extent(root, slot.node, block_size, extent, error) ||
            extent.iframes.empty())
            continue;  // the consistency checks name a segment without an extent
        const _stream_segment_index_node_dev_& n = slot.node;
        const _iframe_index_node_dev_& first = extent.iframes.front();
        const _iframe_index_node_dev_& last = extent.iframes.back();
        if (clock_seconds(n.start_hour, n.start_minute, n.start_second) !=
            clock_seconds(first.hour, first.minute, first.second))
            problems.push_back(segment_name(root, slot.index) + ": its start time is not that of "
                                                                "its first I-frame");
        unsigned latest = clock_seconds(last.hour, last.minute, last.second);
        const size_t held = n.start_iframe + extent.iframes.size() +
                            (extent.block_entries.size() - 1);  // entries up to its last I-frame
        for (size_t i = held; i < root.log.size(); i++)
            if (root.log[i].id == IFRAME_INDEX_ID_IFRAME) {
                latest = clock_seconds(root.log[i].hour, root.log[i].minute, root.log[i].second);
                break;
            }
        const unsigned end = clock_seconds(n.end_hour, n.end_minute, n.end_second);
        if (end < clock_seconds(last.hour, last.minute, last.second) || end > latest)
            problems.push_back(segment_name(root, slot.index) + ": its end time " +
                               clock_text(end) + " is not between the times of its last I-frame (" +
                               clock_text(clock_seconds(last.hour, last.minute, last.second)) +
                               ") and of the next one (" + clock_text(latest) + ")");
    }
}

} // namespace

void disk_check_walked(CQzFileSystem* fs, const std::string& path, const DiskWalk& walk,
                       DiskCheckReport& out)
{
    out = DiskCheckReport();
    const powercut::Consistency c = powercut::check_consistency(fs, path, walk);
    out.problems = c.failures;
    out.in_use = c.allocated;
    out.orphans = c.orphans - c.index_orphans;
    out.index_orphans = c.index_orphans;
    const std::string pair = powercut::key_pair_difference(fs, path);
    if (!pair.empty())
        out.problems.push_back(pair);
    check_bitmap(fs, path, out.problems);
    out.roots = walk.roots.size();
    for (const RootWalk& root : walk.roots) {
        out.segments += root.segments.size();
        check_root_summary(root, out.problems);
        check_segment_times(root, fs->manage().block_size, out.problems);
    }
}

bool disk_check_mounted(unsigned char hdd, const std::string& path, DiskCheckReport& out)
{
    out = DiskCheckReport();
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
    if (fs == nullptr)
        return false;
    DiskLockGuard disk(*fs);
    DiskWalk walk;
    std::string error;
    if (!powercut::walk_disk(fs, walk, error)) {
        out.problems.push_back(error);
        return true;
    }
    disk_check_walked(fs, path, walk, out);
    return true;
}

bool disk_changed_blocks(unsigned char hdd, const std::string& path,
                         std::vector<ChangedBlock>& out)
{
    out.clear();
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
    if (fs == nullptr)
        return false;
    const _qzfs_disk_manage_& m = fs->manage();
    for (unsigned long long at : power_cut::overlay_changed_sectors(path.c_str())) {
        const unsigned long block = (unsigned long)(at / m.block_size);
        if (!out.empty() && out.back().block == block)
            continue;
        _qzfs_block_info_ record = {};
        if (block < m.total_block)
            read_image(path,
                       (unsigned long long)m.key_block * m.block_size +
                           (block + QZFS_KEY_TABLE_FIRST_SLOT) * sizeof(_qzfs_block_info_),
                       &record, sizeof(record));
        out.push_back({block, record.block_type});
    }
    return true;
}
