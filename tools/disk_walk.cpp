#include "disk_walk.h"

#include "qzfilesystem.h"

#include <cstdio>

namespace powercut {

namespace {

std::vector<uint32_t> take_list(uint32_t num, uint32_t* list)
{
    std::vector<uint32_t> out(list, list + num);
    delete[] list;
    return out;
}

bool read_root_chain(CQzFileSystem* fs, DiskWalk& out, std::string& error)
{
    auto first = fs->manage().root_index_block_map.find(0);
    if (first == fs->manage().root_index_block_map.end()) {
        error = "the disk has no root index";
        return false;
    }
    uint32_t num = 0;
    uint32_t* list = nullptr;
    _root_index_header_dev_ header;
    if (fs->Read_root_index_block_list(first->second, &num, &list, &header) != 0) {
        error = "cannot read the root index chain";
        return false;
    }
    out.root_blocks = take_list(num, list);
    return true;
}

bool read_chains(CQzFileSystem* fs, RootWalk& root, std::string& error)
{
    uint32_t num = 0, iframe_head = 0;
    uint32_t* list = nullptr;
    if (fs->Get_stream_segment_index_block_list(root.position, &num, &list, &iframe_head) != 0) {
        error = "cannot read the segment index chain of root " + std::to_string(root.position);
        return false;
    }
    root.segment_blocks = take_list(num, list);
    list = nullptr;
    if (fs->Read_iframe_index_block_list(iframe_head, &num, &list) != 0) {
        error = "cannot read the I-frame index chain of root " + std::to_string(root.position);
        return false;
    }
    root.iframe_blocks = take_list(num, list);
    return true;
}

bool read_segments(CQzFileSystem* fs, RootWalk& root, std::string& error)
{
    for (uint32_t index = 0;; index++) {
        SegmentSlot slot;
        slot.index = index;
        if (fs->Get_stream_segment_index_dev_node(root.position, index, &slot.node) != 0) {
            error = "cannot read segment " + std::to_string(index) + " of root " +
                    std::to_string(root.position);
            return false;
        }
        if (slot.node.id == END_STREAM_SEGMENT_INDEX)
            return true;
        if (slot.node.id != FREE_STREAM_SEGMENT_INDEX)
            root.segments.push_back(slot);
    }
}

bool read_log(CQzFileSystem* fs, RootWalk& root, std::string& error)
{
    std::vector<uint32_t>& chain = root.iframe_blocks;
    if (chain.empty())
        return true;
    unsigned long count = (fs->manage().block_size / QZFS_IFRAME_NODE_SIZE) * chain.size();
    root.log.resize(count);
    if (fs->Read_iframe_index(uint32_t(chain.size()), chain.data(), 0, &count, root.log.data(), 3) !=
        0) {
        error = "cannot read the I-frame index of root " + std::to_string(root.position);
        return false;
    }
    root.log.resize(count);
    for (size_t i = 0; i < root.log.size(); i++)
        if (root.log[i].id != IFRAME_INDEX_ID_IFRAME && root.log[i].id != IFRAME_INDEX_ID_BLOCK) {
            root.log.resize(i);
            break;
        }
    return true;
}

} // namespace

bool walk_disk(CQzFileSystem* fs, DiskWalk& out, std::string& error)
{
    out = DiskWalk();
    if (!read_root_chain(fs, out, error))
        return false;
    for (uint32_t position = 0;; position++) {
        RootWalk root;
        root.position = position;
        if (fs->Get_root_index_dev_node(position, &root.node) != 0) {
            error = "cannot read root index node " + std::to_string(position);
            return false;
        }
        if (root.node.id == END_ROOT_INDEX)
            return true;
        if (!IS_NORMAL_ROOT_INDEX(root.node.id))
            continue;
        if (!read_chains(fs, root, error) || !read_segments(fs, root, error) ||
            !read_log(fs, root, error))
            return false;
        out.roots.push_back(root);
    }
}

std::string start_key(uint32_t root, uint32_t index, const _stream_segment_index_node_dev_& node)
{
    // The owner stamp is left out: the journal keeps no old stamp, so a
    // trim rolled back by the mount keeps the one of its new first block.
    char text[100];
    snprintf(text, sizeof(text), "%u:%u %02u:%02u:%02u first %u", root, index, node.start_hour,
             node.start_minute, node.start_second, uint32_t(node.start_iframe));
    return text;
}

bool segment_extent(const RootWalk& root, const _stream_segment_index_node_dev_& node,
                    unsigned long block_size, SegmentExtent& out, std::string& error)
{
    out = SegmentExtent();
    const uint32_t start = node.start_iframe;
    const uint64_t len = node.len_in_bytes;
    size_t head = start;  // just behind the block entry of the first I-frame's block
    while (head > 0 && head <= root.log.size() && root.log[head - 1].id == IFRAME_INDEX_ID_IFRAME)
        head--;
    if (start >= root.log.size() || root.log[start].id != IFRAME_INDEX_ID_IFRAME || head == 0 ||
        root.log[head - 1].id != IFRAME_INDEX_ID_BLOCK ||
        uint32_t(root.log[head - 1].block_num) != uint32_t(root.log[start].block_num)) {
        error = "its first I-frame " + std::to_string(start) +
                " is no I-frame entry behind the block entry of its block (log of " +
                std::to_string(root.log.size()) + " entries)";
        return false;
    }
    const _iframe_index_node_dev_& first = root.log[start];
    const uint64_t base = first.stream_segment_offset;
    out.data_blocks.push_back(uint32_t(first.block_num));
    out.block_entries.push_back(uint32_t(head - 1));
    uint64_t covered = block_size - first.block_offset;
    for (size_t i = start; i < root.log.size(); i++) {
        const _iframe_index_node_dev_& e = root.log[i];
        if (e.id == IFRAME_INDEX_ID_BLOCK) {
            if (covered >= len)
                break;
            out.data_blocks.push_back(uint32_t(e.block_num));
            out.block_entries.push_back(uint32_t(i));
            covered += block_size - 4096;
        } else if (e.stream_segment_offset - base >= len) {
            break;
        } else {
            out.iframes.push_back(e);
        }
    }
    if (covered < len) {
        error = "its length " + std::to_string(len) + " runs past its data blocks (" +
                std::to_string(covered) + " bytes)";
        return false;
    }
    return true;
}

} // namespace powercut
