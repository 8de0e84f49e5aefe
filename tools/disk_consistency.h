// The block-level consistency of a mounted disk: every allocated block has
// one owner in the index (or is counted as an orphan), its record agrees in
// its three places, every I-frame entry of a live segment points at an
// I-frame of the root's channel in an allocated block, each block entry
// counts the live segments that share its block, and the action journal is
// clear.
#ifndef QZFS_TOOL_DISK_CONSISTENCY_H
#define QZFS_TOOL_DISK_CONSISTENCY_H

#include "disk_walk.h"

#include <string>
#include <vector>

class CQzFileSystem;

namespace powercut {

struct Consistency {
    std::vector<std::string> failures;
    unsigned long allocated = 0;  // bitmap bits set
    unsigned long orphans = 0;    // allocated data or index blocks that nothing owns
    unsigned long index_orphans = 0;  // of those, the index blocks
};

Consistency check_consistency(CQzFileSystem* fs, const std::string& image, const DiskWalk& walk);

// Where the two copies of the block table of the mounted disk `fs` differ
// on `image`, record by record over every block: empty when they agree.
std::string key_pair_difference(CQzFileSystem* fs, const std::string& image);

// Whether the block bitmap of the mounted disk `fs` has `block` allocated.
bool block_allocated(CQzFileSystem* fs, uint32_t block);

} // namespace powercut

#endif
