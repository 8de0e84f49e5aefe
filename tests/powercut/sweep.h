// The sweep of cut points over one workload, and the figures it prints.
#ifndef QZFS_POWERCUT_SWEEP_H
#define QZFS_POWERCUT_SWEEP_H

#include "power_cut.h"
#include "workload.h"

#include <string>

namespace powercut {

struct SweepOptions {
    Workload workload;
    power_cut::Mode mode = power_cut::Mode::Drop;
    bool reorder = false;
    std::string mode_name = "drop";
    unsigned long long from = 1;
    unsigned long long to = ~0ULL;
    unsigned long long stride = 1;
    unsigned long long recut_stride = 0;  // 0: no re-cuts of the repairing mount
    unsigned long long seed = 1;
    std::string dir;
    bool verbose = false;
};

// Runs the sweep and prints its figures; the process exit status (0 when
// every cut point passed, or always in reorder mode, which measures).
int run_sweep(const SweepOptions& options);

} // namespace powercut

#endif
