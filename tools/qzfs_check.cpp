// qzfs check: a read-only look at whole images. Each is mounted through the
// emulated device in its overlay mode, so that whatever the mount repairs
// stays in memory and the image is left as it was; then the disk checks
// run on the disk as the mount made it.
#include "disk_access.h"
#include "disk_check.h"
#include "power_cut.h"
#include "qzfs_cli.h"

#include <cstdio>
#include <string>

namespace qzfs_tool {

namespace {

// Checks one image; its problems, or -1 when it cannot be checked at all.
long check_image(const std::string& path)
{
    power_cut::Settings overlay;
    overlay.mode = power_cut::Mode::Overlay;
    power_cut::install(overlay);
    if (mount_image(path) != 0) {
        power_cut::uninstall();
        return -1;
    }
    const power_cut::Counts mount = power_cut::counts();
    std::vector<std::string> problems;
    DiskKeyRepair repair;
    if (disk_key_repair(TOOL_HDD_ID, repair) && repair.level != KeyRepairLevel::None)
        problems.push_back("the mount repaired the key info: " + key_repair_text(repair));
    std::vector<ChangedBlock> changed;
    disk_changed_blocks(TOOL_HDD_ID, path, changed);
    DiskCheckReport report;
    disk_check_mounted(TOOL_HDD_ID, path, report);
    api_qzfs_umount(TOOL_HDD_ID);
    power_cut::uninstall();

    // A sound disk, cleanly unmounted, mounts without a single write: any
    // byte the mount changed is a repair.
    std::string where;
    for (size_t i = 0; i < changed.size(); i++)
        where += (i == 0 ? " in block " : ", ") + std::to_string(changed[i].block) + " (" +
                 (changed[i].type > 0 && changed[i].type < kDiskBlockTypes
                      ? kDiskBlockTypeNames[changed[i].type]
                      : "no table type") +
                 ")";
    const std::string writes = std::to_string(mount.writes) + " writes of " +
                               std::to_string(mount.bytes) + " bytes";
    if (mount.changed_bytes > 0)
        problems.insert(problems.begin(), "the mount repaired: " + writes + " changed " +
                                              std::to_string(mount.changed_bytes) + " bytes" +
                                              where);
    else if (mount.writes > 0)
        print("%s: the mount made %s that changed nothing\n", path.c_str(), writes.c_str());
    problems.insert(problems.end(), report.problems.begin(), report.problems.end());
    for (const std::string& p : problems)
        print("%s: %s\n", path.c_str(), p.c_str());
    // A data block nothing owns is what a cut between a block request and
    // its index entry leaves, or a scan of the block heads takes back: the
    // overwrite pass frees it first. An index block nothing owns is what a
    // cut between its request and its link into a chain leaves: nothing
    // frees it, but nothing reads it either, so it is a leak and no fault.
    if (report.index_orphans > 0)
        print("%s: %lu index blocks that nothing owns (a leak a power cut can leave)\n",
               path.c_str(), report.index_orphans);
    print("%s: %zu problems; %lu blocks in use, %lu orphan data blocks (left to the overwrite "
           "pass), %lu roots, %lu segments\n",
           path.c_str(), problems.size(), report.in_use, report.orphans, report.roots,
           report.segments);
    return (long)problems.size();
}

} // namespace

int verb_check(const Args& args)
{
    std::string error;
    if (!only_options(args, {}, error))
        return fail("%s", error);
    if (args.positional.empty())
        return fail("check takes one IMAGE or more");
    int rc = 0;
    for (const std::string& path : args.positional)
        if (check_image(path) != 0)
            rc = 1;
    return rc;
}

} // namespace qzfs_tool
