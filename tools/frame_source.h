// Synthetic recorder frames for the host tool, the tests and the benchmarks:
// one channel's stream of I- and P-frames in the recorder's frame format,
// each with its date-time and presentation-time records, and the frame
// description the write call wants for every I-frame.
#ifndef QZFS_FRAME_SOURCE_H
#define QZFS_FRAME_SOURCE_H

#include "qzfilesystem_api.h"
#include "qzfs_frame.h"

#include <cstdint>
#include <vector>

struct FrameSourceConfig {
    uint8_t channel = 0;
    unsigned fps = 25;            // frames a second
    unsigned gop = 25;            // an I-frame every gop frames
    uint32_t iframe_bytes = 60 * 1024;  // payload of an I-frame
    uint32_t pframe_bytes = 15 * 1024;  // payload of a P-frame
    _k4t_fs_date_time_ start = {26, 11, 21, 8, 0, 0, 0};
};

// Bytes and I-frame descriptions of one write call.
struct FrameBatch {
    std::vector<uint8_t> bytes;
    std::vector<_k4t_video_frame_info_> infos;
    void clear()
    {
        bytes.clear();
        infos.clear();
    }
};

// The creation request that starts recording `channel` at `start`, in
// group `group`: a normal segment, no name, record type 0.
_qzfs_k4t_create_ss_para_ recording_request(uint8_t channel, uint8_t stream_type,
                                            const _k4t_fs_date_time_& start, int group = 0);

// A sorted query of the whole day `year`-`month`-`day` over group 0 that
// admits every channel, lock, record type and stream type, 64 rows a page;
// callers narrow the fields they care about.
_k4t_stream_query_ whole_day_query(uint8_t year, uint8_t month, uint8_t day);

class FrameSource {
public:
    explicit FrameSource(const FrameSourceConfig& config) : config_(config) {}

    // Appends the next frame to `batch`; an I-frame also gets its description,
    // with its offset inside the batch.
    void append_frame(FrameBatch& batch);
    // Appends the frames of `frames` frame periods.
    void append_frames(FrameBatch& batch, unsigned frames);

    uint64_t frame_number() const { return frame_; }
    // Wall time of the next frame, in seconds from the start of the day
    // (it runs on past midnight; callers stop at the day's end).
    unsigned next_second_of_day() const;
    const FrameSourceConfig& config() const { return config_; }

    // Payload byte `i` of frame `frame` of `channel`: tests compare what they
    // read back with it.
    static uint8_t payload_byte(uint8_t channel, uint64_t frame, uint32_t i);
    // Size of one frame of each kind, header and records included.
    static const uint32_t kRecordBytes = QZFS_FRAME_EXT_LEN;
    uint32_t frame_bytes(bool iframe) const
    {
        return uint32_t(qzfs_frame_size(iframe ? config_.iframe_bytes : config_.pframe_bytes));
    }

private:
    FrameSourceConfig config_;
    uint64_t frame_ = 0;
};

#endif
