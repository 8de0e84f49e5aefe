// Everything the index of a mounted disk says, read once: the root index
// chain, and for each used root node its segment index and I-frame index
// chains, its segment nodes and its whole I-frame log.
#ifndef QZFS_TOOL_DISK_WALK_H
#define QZFS_TOOL_DISK_WALK_H

#include "qzfs_index_format.h"

#include <cstdint>
#include <string>
#include <vector>

class CQzFileSystem;

namespace powercut {

struct SegmentSlot {
    uint32_t index = 0;
    _stream_segment_index_node_dev_ node;
};

struct RootWalk {
    uint32_t position = 0;
    _root_index_node_dev_ node;
    std::vector<uint32_t> segment_blocks;
    std::vector<uint32_t> iframe_blocks;
    std::vector<SegmentSlot> segments;           // used slots (id other than 0)
    std::vector<_iframe_index_node_dev_> log;    // up to the end mark
};

struct DiskWalk {
    std::vector<uint32_t> root_blocks;
    std::vector<RootWalk> roots;  // used root nodes
};

// Reads the whole index of the mounted disk `fs`; false with `error` when a
// part of it cannot be read.
bool walk_disk(CQzFileSystem* fs, DiskWalk& out, std::string& error);

// A segment that is neither free nor being written.
inline bool is_live(const _stream_segment_index_node_dev_& n)
{
    return (n.id == NORMAL_STREAM_SEGMENT_INDEX || n.id == PRE_RECORD_STREAM_SEGMENT_INDEX) &&
           n.end_hour != QZFS_INVALID_END_HOUR;
}

// A segment's start as the rig compares it across a trim:
// "ROOT:SLOT HH:MM:SS first START_IFRAME".
std::string start_key(uint32_t root, uint32_t index, const _stream_segment_index_node_dev_& node);

// The data blocks and I-frame entries of a live segment, found through its
// root's log as a reader finds them: the block of its first I-frame, then
// each block entry while the segment's length reaches into it. A segment
// may start at any I-frame of its first block (a trim or a split moves the
// start there); that block's entry is the last one before its first I-frame.
struct SegmentExtent {
    std::vector<uint32_t> data_blocks;
    std::vector<uint32_t> block_entries;  // log position of each data block's entry
    std::vector<_iframe_index_node_dev_> iframes;
};
bool segment_extent(const RootWalk& root, const _stream_segment_index_node_dev_& node,
                    unsigned long block_size, SegmentExtent& out, std::string& error);

} // namespace powercut

#endif
