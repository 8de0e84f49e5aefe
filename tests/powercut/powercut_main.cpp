// qzfs_powercut: cuts the power at every device write of a recording, a
// delete, a trim, an overwrite pass, a change by time, a mount that mends
// the block table, the recovery that rebuilds lost indexes or the work on
// named files (or a stride of them) and checks what the next mount makes
// of the disk.
//
//   qzfs_powercut --workload start|one|four|delete-last|delete-one|delete-shared|trim|trim-live
//                            |overwrite|split-two|split-three|lock-range|delete-middle
//                            |shorten|alloc|key-merge|rebuild|file-write|file-delete
//                 [--mode drop|torn|reorder]
//                 [--from N] [--to N] [--stride S] [--recut-stride R]
//                 [--seed X] [--dir DIR] [--verbose]
//
// For each cut point N: a copy of a freshly formatted image is recorded on
// by a child process whose Nth device write cuts the power; a fresh child
// mounts the copy and checks it (see recovery_check.h). The delete and trim
// workloads record their image once without a cut and count only the writes
// from their delete or trim on; after the cut the disk must be exactly as
// before the change or as after it (after a cut in an overwrite pass: as
// after the first few of the pass's changes, in the pass's order; after a
// cut in the delete of a stretch: also as after its split alone; after a
// cut in the lock of a range: also as after the split of its first segment
// alone). The alloc workload is cut only at the writes of its block
// requests (its records in the key table, the backup table and the block's
// head), found in an uncut run; the mount after must mend no more than the
// backup of the table. The key-merge workload is cut in the mount that
// merges its damaged table; the disk after must end as the uncut repair.
// The rebuild workload is cut in the recovery of an unmounted disk whose
// indexes were wiped; after the cut a recovery must succeed, every
// recording end as after the uncut one, and a recovery after the checks
// change nothing. The file-write and file-delete workloads are cut in
// writes to named files, or in the delete of one and the rename of
// another; after the cut the recording must be as before, every other
// file whole, a written file hold at least what a returned sync covered,
// and a deleted one be whole, gone or its first blocks. With
// --recut-stride R, every R-th cut point tried also has its repairing mount
// cut at each of its own writes, and the mount after that must end in the
// same state as the uncut repair.
// The sweep ends at the last write of the workload. Exit status 1 when a cut
// point failed (not in reorder mode, which only measures what a disk
// reordering its writes would lose).
#include "sweep.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char* USAGE =
    "usage: qzfs_powercut --workload NAME [--mode drop|torn|reorder] [--from N] [--to N]\n"
    "                     [--stride S] [--recut-stride R] [--seed X] [--dir DIR] [--verbose]\n";

bool number(const char* text, unsigned long long& out)
{
    char* end = nullptr;
    out = strtoull(text, &end, 10);
    return *text != '\0' && *end == '\0';
}

bool parse_mode(const std::string& text, powercut::SweepOptions& options)
{
    options.reorder = text == "reorder";
    if (text == "drop" || text == "reorder")
        options.mode = power_cut::Mode::Drop;
    else if (text == "torn")
        options.mode = power_cut::Mode::Torn;
    else
        return false;
    options.mode_name = text;
    return true;
}

// Reads the command line into `options`; false with a message on stderr.
bool parse(int argc, char** argv, powercut::SweepOptions& options)
{
    std::string workload;
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--verbose") {
            options.verbose = true;
            continue;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "qzfs_powercut: %s needs a value\n%s", word.c_str(), USAGE);
            return false;
        }
        const char* value = argv[++i];
        unsigned long long n = 0;
        bool ok = true;
        if (word == "--workload")
            workload = value;
        else if (word == "--mode")
            ok = parse_mode(value, options);
        else if (word == "--dir")
            options.dir = value;
        else if (word == "--from" && (ok = number(value, n)))
            options.from = n;
        else if (word == "--to" && (ok = number(value, n)))
            options.to = n;
        else if (word == "--stride" && (ok = number(value, n) && n > 0))
            options.stride = n;
        else if (word == "--recut-stride" && (ok = number(value, n)))
            options.recut_stride = n;
        else if (word == "--seed" && (ok = number(value, n)))
            options.seed = n;
        else if (word != "--from" && word != "--to" && word != "--stride" &&
                 word != "--recut-stride" && word != "--seed")
            ok = false;
        if (!ok) {
            fprintf(stderr, "qzfs_powercut: bad %s %s\n%s", word.c_str(), value, USAGE);
            return false;
        }
    }
    if (!powercut::find_workload(workload, options.workload)) {
        fprintf(stderr, "qzfs_powercut: --workload takes one of %s\n%s",
                powercut::workload_names().c_str(), USAGE);
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(USAGE, stdout);
        return 0;
    }
    powercut::SweepOptions options;
    const char* tmp = getenv("TMPDIR");
    options.dir = tmp != nullptr ? tmp : "/tmp";
    if (!parse(argc, argv, options))
        return 2;
    return powercut::run_sweep(options);
}
