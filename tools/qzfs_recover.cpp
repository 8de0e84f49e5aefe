// qzfs recover: the key info repair of an unmounted image, and the words
// for what a key info load mended, which info prints as well.
#include "disk_access.h"
#include "qzfs_cli.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>

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

int verb_recover(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--scan"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("recover takes one IMAGE");
    const std::string& path = args.positional[0];
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return fail("no such image: %s", path);
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
    printf("key info of %s: table loaded from %s\n", path.c_str(), key_loaded_text(repair).c_str());
    const std::string text = key_repair_text(repair);
    printf("%s\n", text.empty() ? "nothing to repair" : text.c_str());
    return 0;
}

} // namespace qzfs_tool
