#include "disk_consistency.h"

#include "power_cut.h"

#include "qzfilesystem.h"
#include "qzfs_av_frame.h"
#include "qzfs_disk_format.h"

#include <cstring>
#include <fcntl.h>
#include <map>
#include <unistd.h>

namespace powercut {

namespace {

// Who owns a block, by the index: a description and the block type its
// record must carry.
struct Owner {
    std::string what;
    uint8_t type;
};
using Owners = std::map<uint32_t, std::vector<Owner>>;

// The image, read from the file with the writes the emulated device keeps
// in memory laid over it (the check verb mounts through that overlay).
class Image {
public:
    explicit Image(const std::string& path) : path_(path), fd_(open(path.c_str(), O_RDONLY)) {}
    ~Image()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool read(unsigned long long at, void* out, size_t length) const
    {
        if (fd_ < 0 || pread(fd_, out, length, off_t(at)) != ssize_t(length))
            return false;
        power_cut::overlay_patch(path_.c_str(), at, out, (unsigned long)length);
        return true;
    }

private:
    std::string path_;
    int fd_;
};

void add_owner(Owners& owners, uint32_t block, const std::string& what, uint8_t type)
{
    owners[block].push_back({what, type});
}

// Data blocks belong to a root (segments of one root may share a block).
void add_data_owners(const RootWalk& root, unsigned long block_size, Owners& owners,
                     Consistency& result)
{
    std::map<uint32_t, bool> mine;
    for (const SegmentSlot& slot : root.segments) {
        if (!is_live(slot.node))
            continue;
        SegmentExtent extent;
        std::string error;
        if (!segment_extent(root, slot.node, block_size, extent, error)) {
            result.failures.push_back("segment " + std::to_string(root.position) + ":" +
                                      std::to_string(slot.index) + ": " + error);
            continue;
        }
        for (uint32_t block : extent.data_blocks)
            mine[block] = true;
    }
    for (const auto& b : mine)
        add_owner(owners, b.first, "data of root " + std::to_string(root.position), QZFS_BLOCK_DATA);
}

Owners index_owners(const DiskWalk& walk, unsigned long block_size, Consistency& result)
{
    Owners owners;
    for (uint32_t block : walk.root_blocks)
        add_owner(owners, block, "root index chain", QZFS_BLOCK_ROOT_INDEX);
    for (const RootWalk& root : walk.roots) {
        const std::string r = std::to_string(root.position);
        for (uint32_t block : root.segment_blocks)
            add_owner(owners, block, "segment index of root " + r, QZFS_BLOCK_SEGMENT_INDEX);
        for (uint32_t block : root.iframe_blocks)
            add_owner(owners, block, "I-frame index of root " + r, QZFS_BLOCK_IFRAME_INDEX);
        add_data_owners(root, block_size, owners, result);
    }
    return owners;
}

// The blocks of each named file, as the mount listed them from the table:
// their ordinals run from 0 without a gap or a repeat.
void add_file_owners(CQzFileSystem* fs, Owners& owners, Consistency& result)
{
    for (const _qzfs_normal_file_cache_node_& file : fs->manage().normal_file_cache) {
        const std::string name = "named file " + std::string(file.name);
        unsigned long want = 0;
        for (const _qzfs_block_cache_node_& b : file.blocks) {
            if (b.block_index != want)
                result.failures.push_back(name + ": block " + std::to_string(b.block) +
                                          " has ordinal " + std::to_string(b.block_index) +
                                          " where " + std::to_string(want) + " belongs");
            want = b.block_index + 1ul;
            add_owner(owners, b.block, name, QZFS_BLOCK_NORMAL_FILE);
        }
    }
}

// The record of `block` in both key tables and in its own head.
bool block_records(CQzFileSystem* fs, const Image& image, uint32_t block,
                   _qzfs_block_info_ records[3])
{
    const _qzfs_disk_manage_& m = fs->manage();
    const unsigned long long slot = (block + QZFS_KEY_TABLE_FIRST_SLOT) * sizeof(_qzfs_block_info_);
    return image.read((unsigned long long)m.key_block * m.block_size + slot, &records[0], 32) &&
           image.read((unsigned long long)m.bak_key_block * m.block_size + slot, &records[1], 32) &&
           image.read((unsigned long long)block * m.block_size, &records[2], 32);
}

// An allocated block: its three records agree and it has one owner of its
// type, or, unowned, it is counted as an orphan (whose head may be unwritten).
void check_block(CQzFileSystem* fs, const Image& image, uint32_t block, const Owners& owners,
                 Consistency& result)
{
    _qzfs_block_info_ r[3];
    const std::string b = "block " + std::to_string(block);
    if (!block_records(fs, image, block, r)) {
        result.failures.push_back(b + ": its records cannot be read");
        return;
    }
    const uint8_t type = r[0].block_type;
    if (type == QZFS_BLOCK_SYSTEM || type == QZFS_BLOCK_KEY_INFO)
        return;
    // A cut between an allocation's table writes and its head write leaves
    // a block that nothing names yet, with its head unwritten: an orphan.
    auto found = owners.find(block);
    const bool owned = found != owners.end();
    if (memcmp(&r[0], &r[1], 32) != 0 || (owned && memcmp(&r[0], &r[2], 32) != 0))
        result.failures.push_back(b + ": the key table, backup table and block head disagree "
                                      "(types " + std::to_string(r[0].block_type) + ", " +
                                  std::to_string(r[1].block_type) + ", " +
                                  std::to_string(r[2].block_type) + ")");
    if (!owned) {
        result.orphans++;
        if (type != QZFS_BLOCK_DATA)
            result.index_orphans++;
        return;
    }
    const std::vector<Owner>& own = found->second;
    if (own.size() > 1)
        result.failures.push_back(b + ": owned twice, by " + own[0].what + " and " + own[1].what);
    if (own[0].type != type)
        result.failures.push_back(b + ": " + own[0].what + " but its record has type " +
                                  std::to_string(type));
}

// Every block the index names must be allocated.
void check_owned_allocated(CQzFileSystem* fs, const Owners& owners, Consistency& result)
{
    for (const auto& o : owners)
        if (o.first >= fs->manage().total_block || !block_allocated(fs, o.first))
            result.failures.push_back("block " + std::to_string(o.first) + " (" +
                                      o.second[0].what + ") is not allocated");
}

// The I-frame entries of live segments point at I-frame headers of the
// root's channel, in allocated blocks.
void check_iframe_entries(CQzFileSystem* fs, const RootWalk& root, const Image& image,
                          Consistency& result)
{
    const unsigned long block_size = fs->manage().block_size;
    for (const SegmentSlot& slot : root.segments) {
        SegmentExtent extent;
        std::string error;
        if (!is_live(slot.node) || !segment_extent(root, slot.node, block_size, extent, error))
            continue;
        for (const _iframe_index_node_dev_& e : extent.iframes) {
            const uint32_t block = e.block_num, offset = e.block_offset;
            uint8_t head[4] = {};
            const bool whole = offset + 4 <= block_size;
            if (!whole || block >= fs->manage().total_block || !block_allocated(fs, block) ||
                !image.read((unsigned long long)block * block_size + offset, head, 4) ||
                head[0] != root.node.channel || head[1] != QZFS_FRAME_CHAR_IFRAME ||
                head[2] != QZFS_FRAME_MAGIC_0 || head[3] != QZFS_FRAME_MAGIC_1) {
                result.failures.push_back("segment " + std::to_string(root.position) + ":" +
                                          std::to_string(slot.index) +
                                          ": an I-frame entry points at no I-frame of channel " +
                                          std::to_string(root.node.channel) + " (block " +
                                          std::to_string(block) + ", offset " +
                                          std::to_string(offset) + ")");
                return;
            }
        }
    }
}

// The block entry of a data block counts the live segments that use the
// block: more than one where a split left two segments sharing it.
void check_share_counts(const RootWalk& root, unsigned long block_size, Consistency& result)
{
    std::map<uint32_t, unsigned> users;  // log position of a block entry, live segments
    for (const SegmentSlot& slot : root.segments) {
        SegmentExtent extent;
        std::string error;
        if (is_live(slot.node) && segment_extent(root, slot.node, block_size, extent, error))
            for (uint32_t entry : extent.block_entries)
                users[entry]++;
    }
    for (const auto& u : users) {
        const _iframe_index_node_dev_& e = root.log[u.first];
        if (e.pts_high != u.second)
            result.failures.push_back("block " + std::to_string(uint32_t(e.block_num)) +
                                      ": its entry in the log of root " +
                                      std::to_string(root.position) + " counts " +
                                      std::to_string(uint32_t(e.pts_high)) + " users, " +
                                      std::to_string(u.second) + " live segments use it");
    }
}

// The action journal in the first root index block is clear: no action,
// and a sum that matches.
void check_journal(CQzFileSystem* fs, const Image& image, Consistency& result)
{
    uint8_t bytes[sizeof(_root_index_header_dev_)];
    _root_index_header_dev_ header;
    const unsigned long long at = (unsigned long long)fs->journal_block() *
                                      fs->manage().block_size +
                                  QZFS_INDEX_HEADER_OFFSET;
    if (fs->journal_block() == 0 || !image.read(at, bytes, sizeof(bytes))) {
        result.failures.push_back("the journal cannot be read");
        return;
    }
    Endian_trans_root_index_block_header(bytes, fs->manage().disk_endian, &header, gLocal_endian);
    if (header.action != QZFS_ACTION_NONE || header.crc != qzfs_action_sum(header))
        result.failures.push_back("the journal is not clear: action " +
                                  std::to_string(uint32_t(header.action)) + ", sum " +
                                  std::to_string(uint32_t(header.crc)) + " where " +
                                  std::to_string(qzfs_action_sum(header)) + " is due");
}

} // namespace

bool block_allocated(CQzFileSystem* fs, uint32_t block)
{
    return (fs->manage().block_bitmap[block >> 3] >> (block & 7)) & 1;
}

std::string key_pair_difference(CQzFileSystem* fs, const std::string& path)
{
    const Image image(path);
    const _qzfs_disk_manage_& m = fs->manage();
    const unsigned long long table = QZFS_KEY_TABLE_FIRST_SLOT * sizeof(_qzfs_block_info_);
    const size_t length = size_t(m.total_block) * sizeof(_qzfs_block_info_);
    std::vector<uint8_t> primary(length), backup(length);
    if (!image.read((unsigned long long)m.key_block * m.block_size + table, primary.data(),
                    length) ||
        !image.read((unsigned long long)m.bak_key_block * m.block_size + table, backup.data(),
                    length))
        return "the block table's copies cannot be read";
    unsigned long differ = 0, first = 0;
    for (unsigned long b = m.total_block; b-- > 0;)
        if (memcmp(&primary[b * sizeof(_qzfs_block_info_)], &backup[b * sizeof(_qzfs_block_info_)],
                   sizeof(_qzfs_block_info_)) != 0) {
            differ++;
            first = b;
        }
    if (differ == 0)
        return "";
    return "the key table and its backup differ in " + std::to_string(differ) +
           " records, the first of block " + std::to_string(first);
}

Consistency check_consistency(CQzFileSystem* fs, const std::string& path, const DiskWalk& walk)
{
    Consistency result;
    const Image image(path);
    const unsigned long block_size = fs->manage().block_size;
    Owners owners = index_owners(walk, block_size, result);
    add_file_owners(fs, owners, result);
    check_owned_allocated(fs, owners, result);
    for (uint32_t block = 0; block < fs->manage().total_block; block++) {
        if (!block_allocated(fs, block))
            continue;
        result.allocated++;
        check_block(fs, image, block, owners, result);
    }
    for (const RootWalk& root : walk.roots) {
        check_iframe_entries(fs, root, image, result);
        check_share_counts(root, block_size, result);
    }
    check_journal(fs, image, result);
    return result;
}

} // namespace powercut
