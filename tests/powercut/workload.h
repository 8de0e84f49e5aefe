// The recordings the rig cuts: what each does, run in a child process that
// tells its parent how far it got, and the streams the parent regenerates
// from that to compare with what a disk gives back.
#ifndef QZFS_POWERCUT_WORKLOAD_H
#define QZFS_POWERCUT_WORKLOAD_H

#include "frame_source.h"
#include "power_cut.h"
#include "rig_process.h"

#include <cstdint>
#include <string>
#include <vector>

namespace powercut {

struct Workload {
    std::string name;
    unsigned channels;
    unsigned seconds;     // of stream time, from the frame source's start
    unsigned sync_every;  // seconds of stream between two api_qzfs_fsync calls
};

// start: one channel, a new segment and its first three seconds;
// one: one channel, a minute across several data blocks;
// four: four channels taking turns frame by frame, a minute each.
// Each ends with the close of its segments and the unmount.
bool find_workload(const std::string& name, Workload& out);
std::string workload_names();

// Frames of channel `channel` in every workload: 10 a second, an I-frame
// each second, about 2.5 Mbit a second, so that a minute fills five 4 MiB
// data blocks.
FrameSourceConfig workload_frames(uint8_t channel);

// What the parent knows of a workload child: per channel the frames whose
// write call returned and the frames written before the last api_qzfs_fsync
// (or close) that returned.
struct ChannelProgress {
    unsigned long written = 0;
    unsigned long synced = 0;
};
struct WorkloadProgress {
    std::vector<ChannelProgress> channels;
    bool finished = false;  // closed and unmounted: the cut never came
    std::string failure;    // a call that failed, as the child told it
};

// In a child: formats a sparse image of 3 GiB at `image`.
void format_base_image(const std::string& image, const LineWriter& out);

// In a child: mounts `image` with the emulated device of `device`, runs the
// workload and tells each step on `out`.
void run_workload(const Workload& workload, const std::string& image,
                  const power_cut::Settings& device, const LineWriter& out);
WorkloadProgress read_progress(const Workload& workload, const std::vector<std::string>& lines);

// The first `frames` frames of a channel, as the workload wrote them.
struct ExpectedStream {
    std::vector<uint8_t> bytes;
    std::vector<size_t> ends;  // byte after each frame
    std::vector<bool> iframe;
};
ExpectedStream expected_stream(uint8_t channel, unsigned long frames);

// Day of the workloads' recordings.
_k4t_fs_date_time_ workload_start();

} // namespace powercut

#endif
