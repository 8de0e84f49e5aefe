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
#include <vector>

namespace qzfs_tool {

namespace {

// What the check of one image found.
struct ImageCheck {
    std::string path;
    bool checked = false;  // false when the image would not mount
    power_cut::Counts mount;
    std::vector<std::string> problems;
    DiskCheckReport report;
};

// " in block 7 (data), 9 (segment index)": the blocks the mount changed.
std::string changed_blocks_text(const std::vector<ChangedBlock>& changed)
{
    std::string where;
    for (size_t i = 0; i < changed.size(); i++)
        where += (i == 0 ? " in block " : ", ") + std::to_string(changed[i].block) + " (" +
                 (changed[i].type > 0 && changed[i].type < kDiskBlockTypes
                      ? kDiskBlockTypeNames[changed[i].type]
                      : "no table type") +
                 ")";
    return where;
}

std::string mount_writes_text(const power_cut::Counts& mount)
{
    return std::to_string(mount.writes) + " writes of " + std::to_string(mount.bytes) + " bytes";
}

// Checks one image; `out.checked` is false when it cannot be checked at all.
void check_image(const std::string& path, ImageCheck& out)
{
    out.path = path;
    power_cut::Settings overlay;
    overlay.mode = power_cut::Mode::Overlay;
    power_cut::install(overlay);
    if (mount_image(path) != 0) {
        power_cut::uninstall();
        return;
    }
    out.checked = true;
    out.mount = power_cut::counts();
    DiskKeyRepair repair;
    if (disk_key_repair(TOOL_HDD_ID, repair) && repair.level != KeyRepairLevel::None)
        out.problems.push_back("the mount repaired the key info: " + key_repair_text(repair));
    std::vector<ChangedBlock> changed;
    disk_changed_blocks(TOOL_HDD_ID, path, changed);
    disk_check_mounted(TOOL_HDD_ID, path, out.report);
    api_qzfs_umount(TOOL_HDD_ID);
    power_cut::uninstall();

    // A sound disk, cleanly unmounted, mounts without a single write: any
    // byte the mount changed is a repair.
    if (out.mount.changed_bytes > 0)
        out.problems.insert(out.problems.begin(),
                            "the mount repaired: " + mount_writes_text(out.mount) + " changed " +
                                std::to_string(out.mount.changed_bytes) + " bytes" +
                                changed_blocks_text(changed));
    out.problems.insert(out.problems.end(), out.report.problems.begin(),
                        out.report.problems.end());
}

void print_check(const ImageCheck& c)
{
    const char* path = c.path.c_str();
    if (c.mount.changed_bytes == 0 && c.mount.writes > 0)
        print("%s: the mount made %s that changed nothing\n", path,
              mount_writes_text(c.mount).c_str());
    for (const std::string& p : c.problems)
        print("%s: %s\n", path, p.c_str());
    // A data block nothing owns is what a cut between a block request and
    // its index entry leaves, or a scan of the block heads takes back: the
    // overwrite pass frees it first. An index block nothing owns is what a
    // cut between its request and its link into a chain leaves: nothing
    // frees it, but nothing reads it either, so it is a leak and no fault.
    const DiskCheckReport& r = c.report;
    if (r.index_orphans > 0)
        print("%s: %lu index blocks that nothing owns (a leak a power cut can leave)\n", path,
              r.index_orphans);
    print("%s: %zu problems; %lu blocks in use, %lu orphan data blocks (left to the overwrite "
          "pass), %lu roots, %lu segments\n",
          path, c.problems.size(), r.in_use, r.orphans, r.roots, r.segments);
}

void write_check_json(JsonWriter& json, const ImageCheck& c)
{
    json.open_object().text("image", c.path).flag("checked", c.checked);
    json.number("mount_writes", c.mount.writes)
        .number("mount_bytes", c.mount.bytes)
        .number("mount_changed_bytes", c.mount.changed_bytes)
        .open_array("problems");
    for (const std::string& p : c.problems)
        json.text(nullptr, p);
    const DiskCheckReport& r = c.report;
    json.close_array()
        .number("problem_count", c.problems.size())
        .number("blocks_in_use", r.in_use)
        .number("orphan_data_blocks", r.orphans)
        .number("orphan_index_blocks", r.index_orphans)
        .number("roots", r.roots)
        .number("segments", r.segments)
        .close_object();
}

} // namespace

int verb_check(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--json"}, error))
        return fail("%s", error);
    if (args.positional.empty())
        return fail("check takes one IMAGE or more");
    const bool json = args.option("--json") != nullptr;
    std::vector<ImageCheck> checks(args.positional.size());
    bool sound = true;
    for (size_t i = 0; i < checks.size(); i++) {
        check_image(args.positional[i], checks[i]);
        sound = sound && checks[i].checked && checks[i].problems.empty();
        if (!json && checks[i].checked)
            print_check(checks[i]);
    }
    if (json) {
        JsonWriter writer;
        writer.open_object().open_array("images");
        for (const ImageCheck& c : checks)
            write_check_json(writer, c);
        writer.close_array().flag("sound", sound).close_object().finish();
    }
    return sound ? 0 : 1;
}

} // namespace qzfs_tool
