// disk_check: the read-only check of a mounted disk that the tool's check
// verb runs. It takes the disk checks of disk_walk and disk_consistency and
// adds a few of its own: the bitmap against the block table, each root's
// summary against its segments, and a closed segment's times against its
// I-frames. The header needs nothing of the library's internals.
#ifndef QZFS_TOOL_DISK_CHECK_H
#define QZFS_TOOL_DISK_CHECK_H

#include <string>
#include <vector>

struct DiskCheckReport {
    std::vector<std::string> problems;  // one line each
    unsigned long in_use = 0;           // blocks set in the bitmap
    unsigned long orphans = 0;          // of those, data blocks nothing owns (no fault)
    unsigned long index_orphans = 0;    // and index blocks nothing owns
    unsigned long roots = 0;            // used root index entries
    unsigned long segments = 0;         // used segment entries
};

// Checks disk `hdd`, mounted from the image `path`; false when no disk is
// mounted there. What it reads of the file goes through the emulated
// device's overlay, so it sees what the mount made of the disk.
bool disk_check_mounted(unsigned char hdd, const std::string& path, DiskCheckReport& out);

// The same checks of a mounted disk whose index `walk` holds, for callers
// that hold its lock and have walked it already (the power-cut rig, the
// soak, the tests). The index orphans are counted, not listed as problems.
class CQzFileSystem;
namespace powercut {
struct DiskWalk;
}
void disk_check_walked(CQzFileSystem* fs, const std::string& path, const powercut::DiskWalk& walk,
                       DiskCheckReport& out);

// The blocks, in order, that hold sectors the mount of disk `hdd` (from
// `path`, through the emulated device's overlay) changed, each with its
// type in the block table.
struct ChangedBlock {
    unsigned long block = 0;
    int type = 0;
};
bool disk_changed_blocks(unsigned char hdd, const std::string& path,
                         std::vector<ChangedBlock>& out);

#endif
