// What the rig asks of a disk after a power cut, run in a fresh child
// process: the mount that repairs it, a second mount that changes nothing,
// each channel's stream against what the workload wrote (after a delete or
// trim: each live segment's stream against the frames recorded from its
// start on), the consistency of the blocks and of the journal, the
// reading calls (query, read by id, fast play), and a file workload's
// named files against what it wrote. After a cut in a Rebuild workload's
// recovery the check runs the recovery again first, uncut, and after the
// checks one more, which must change nothing.
// A summary of the repaired disk lets the rig compare two recoveries.
#ifndef QZFS_POWERCUT_RECOVERY_CHECK_H
#define QZFS_POWERCUT_RECOVERY_CHECK_H

#include "power_cut.h"
#include "rig_process.h"
#include "workload.h"

#include <string>
#include <vector>

namespace powercut {

// In a child: the whole check of `image`. Lines: "fail REASON",
// "frames C N" (whole frames recovered), "beyond C N" (of them, written
// after the last sync), "lost C N" (synced frames missing),
// "recovery_writes N" (writes of the repairing mount and its unmount),
// "orphans N", "recovery_changes N" (writes by which the uncut recovery
// of a Rebuild workload changed the image), "key_repair L" (the level of the repairing mount's mend of
// the block table), "summary TEXT", "outcome TEXT" (a file workload:
// what became of the named files the cut fell on). The second mount must
// mend nothing of the table, and its two copies must agree record by
// record.
void check_recovery(const Workload& workload, const WorkloadProgress& progress,
                    const std::string& image, const LineWriter& out);

// In a child: mounts `image` through `device` and unmounts it; "done N"
// with the number of writes when the power was not cut on the way.
void mount_and_unmount(const std::string& image, const power_cut::Settings& device,
                       const LineWriter& out);

// In a child: mounts `image` (which repairs it) and writes its summary.
void summarize_recovered(const std::string& image, const LineWriter& out);

// The outcome of check_recovery, as the rig reads it.
struct CheckResult {
    std::vector<std::string> failures;
    std::vector<std::string> summary;
    unsigned long frames_beyond_sync = 0;
    unsigned long frames_lost = 0;
    unsigned long recovery_writes = 0;
    unsigned long orphans = 0;
    unsigned long recovery_changes = 0;
    int key_repair = -1;  // qzfs_key_repair_level; -1 when the mount never told it
    std::string outcome;  // a file workload: what became of the files the cut fell on
};
CheckResult read_check(const ChildResult& child);

} // namespace powercut

#endif
