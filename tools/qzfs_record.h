// Synthetic recording, as the record verb and recording with overwrite do
// it: what a recording is asked for, one channel's frames and segment, and
// the progress line of a long run.
#ifndef QZFS_TOOL_RECORD_H
#define QZFS_TOOL_RECORD_H

#include "frame_source.h"
#include "qzfs_cli.h"

#include <chrono>
#include <string>
#include <vector>

namespace qzfs_tool {

// What a synthetic recording is asked for.
struct RecordRequest {
    unsigned channels = 0;
    unsigned seconds = 0;
    unsigned bitrate = 0;
    _k4t_fs_date_time_ start = {};
    unsigned first = 0;             // second of the day of the start
    unsigned cut_after_writes = 0;  // the device write that cuts the power; 0 none
    // Recording past the disks' capacity: overwrite passes make room, each
    // channel starts a new segment every `segment_seconds`, and `reserve`
    // (0: worked out from the rest) is the group's reserve for recording.
    bool overwrite = false;
    unsigned segment_seconds = 0;
    unsigned long long reserve = 0;
};

// Frame sizes for `bitrate` bits a second: a GOP of one second, the I-frame
// four times a P-frame, headers and records included.
FrameSourceConfig frames_for_bitrate(uint8_t channel, unsigned long bitrate,
                                     const _k4t_fs_date_time_& start);

// One channel being recorded.
struct Recording {
    FrameSource source;
    int fd = -1;
    _k4t_stream_segment_id_ id = {};
    explicit Recording(const FrameSourceConfig& config) : source(config) {}
};

// Prints how far the recording has come, at most once a wall second.
class Progress {
public:
    explicit Progress(unsigned seconds) : total_(seconds), tty_(isatty_stdout()) {}
    void update(unsigned done, unsigned long long bytes);
    // Clears a progress line left on a terminal.
    void finish();

private:
    static bool isatty_stdout();
    unsigned total_;
    bool tty_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

// Records past the capacity of the images (qzfs_retention.cpp).
int record_with_overwrite(const RecordRequest& request, const std::vector<std::string>& paths);

} // namespace qzfs_tool

#endif
