// qzfs recover: the key info repair of an unmounted image, and the words
// for what a key info load mended, which info prints as well.
#include "disk_access.h"
#include "qzfs_cli.h"

#include <cstdio>
#include <string>

namespace qzfs_tool {

namespace {

std::string records(unsigned long n)
{
    return std::to_string(n) + (n == 1 ? " record" : " records");
}

std::string block(unsigned long b) { return "block " + std::to_string(b); }

} // namespace

std::string key_loaded_text(const DiskKeyRepair& r)
{
    return block(r.loaded_from) + (r.loaded_primary ? " (the primary copy)" : " (the backup copy)");
}

std::string key_repair_text(const DiskKeyRepair& r)
{
    switch (r.level) {
    case KeyRepairLevel::None:
        return "";
    case KeyRepairLevel::Backup:
        return "backup rewritten at " + block(r.backup_written) + " from the copy at " +
               block(r.copied_from);
    case KeyRepairLevel::Copy: {
        const unsigned long damaged = r.primary_damaged != 0 ? r.primary_damaged : r.backup_damaged;
        return "damaged copy at " + block(r.backup_written) +
               (damaged != 0 ? " (" + records(damaged) + ")" : "") +
               " replaced by the clean copy at " + block(r.copied_from);
    }
    case KeyRepairLevel::Merge: {
        std::string text = "both copies damaged (" + std::to_string(r.primary_damaged) + " and " +
                           records(r.backup_damaged) + "): merged into " + block(r.merged_into) +
                           ", " + records(r.from_other_copy) + " from the other copy, " +
                           std::to_string(r.from_block_head) + " from the blocks' own heads, " +
                           std::to_string(r.marked_bad) + " marked bad";
        if (r.marked_free != 0)
            text += ", " + std::to_string(r.marked_free) + " marked free";
        if (r.backup_written != 0)
            text += "; backup rewritten at " + block(r.backup_written);
        return text;
    }
    case KeyRepairLevel::Scan:
        return "no key info block: new table at " + block(r.merged_into) +
               " from the blocks' own records (" + records(r.from_block_head) + " found, " +
               std::to_string(r.marked_free) + " blocks without one marked free), backup at " +
               block(r.backup_written);
    }
    return "";
}

namespace {

// The one IMAGE of recover and rebuild, which must exist; empty (with the
// message printed) when it does not.
std::string one_existing_image(const Args& args, const char* verb, int& rc)
{
    rc = 0;
    if (args.positional.size() != 1) {
        rc = fail("%s takes one IMAGE", std::string(verb));
        return "";
    }
    if (require_existing(args.positional[0]) != 0) {
        rc = 1;
        return "";
    }
    return args.positional[0];
}

void print_key_repair(const std::string& path, const DiskKeyRepair& repair)
{
    print("key info of %s: table loaded from %s\n", path.c_str(), key_loaded_text(repair).c_str());
    const std::string text = key_repair_text(repair);
    print("%s\n", text.empty() ? "nothing to repair" : text.c_str());
}

std::string count_of(unsigned long n, const char* one, const char* many)
{
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

} // namespace

int verb_recover(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--scan"}, error))
        return fail("%s", error);
    int rc = 0;
    const std::string path = one_existing_image(args, "recover", rc);
    if (path.empty())
        return rc;
    const bool scan = args.option("--scan") != nullptr;
    DiskKeyRepair repair;
    switch (disk_recover_key_info(TOOL_HDD_ID, path, scan, repair)) {
    case KeyRecovery::Done:
        break;
    case KeyRecovery::NoKeyBlock:
        return fail("no key info block found on %s: nothing was written; if it was formatted, "
                    "run it again with --scan to make a new block table from the blocks' own "
                    "records",
                    path);
    case KeyRecovery::Failed:
        return fail("key info recovery of %s failed (not formatted, unreadable, or a repair "
                    "write failed)",
                    path);
    }
    print_key_repair(path, repair);
    return 0;
}

int verb_rebuild(const Args& args)
{
    std::string error;
    if (!only_options(args, {}, error))
        return fail("%s", error);
    int rc = 0;
    const std::string path = one_existing_image(args, "rebuild", rc);
    if (path.empty())
        return rc;
    DiskKeyRepair key;
    DiskRebuild rebuild;
    if (!disk_rebuild(TOOL_HDD_ID, path, key, rebuild))
        return fail("rebuild of %s failed: its key info does not load (try qzfs recover), or "
                    "its data blocks could not be listed",
                    path);
    print_key_repair(path, key);
    print("data blocks: %s in %s", count_of(rebuild.data_blocks, "block", "blocks").c_str(),
           count_of(rebuild.streams, "stream", "streams").c_str());
    if (rebuild.small_streams != 0)
        print(" (%s left as they are)",
               count_of(rebuild.small_streams, "small stream", "small streams").c_str());
    print("\nindexes that stood: %s; rebuilt: %s, with %s and %s\n",
           count_of(rebuild.sound, "stream", "streams").c_str(),
           count_of(rebuild.rebuilt, "stream", "streams").c_str(),
           count_of(rebuild.segments, "segment", "segments").c_str(),
           count_of(rebuild.entries, "I-frame index entry", "I-frame index entries").c_str());
    if (rebuild.given_up != 0)
        print("%s with a broken index and no usable I-frame left as they were\n",
               count_of(rebuild.given_up, "stream", "streams").c_str());
    print("%s\n", rebuild.root_rebuilt ? "root index made anew" : "root index left as it was");
    return 0;
}

} // namespace qzfs_tool
