// H.264 elementary streams in and out of the recorder's frame format.
//
// An Annex-B byte stream is cut into access units, one picture each, so that
// every access unit becomes one recorder frame: an I-frame when it holds an
// IDR slice, a P-frame otherwise. The cut keeps every byte of the input, in
// order, so the concatenated payloads of the frames give back the stream
// byte for byte. The other way, StoredFrameParser takes the bytes of a
// recording in chunks of any size and hands out whole frames again.
#ifndef QZFS_H264_STREAM_H
#define QZFS_H264_STREAM_H

#include "qzfilesystem_api.h"
#include "qzfs_frame.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// NAL unit types that decide where an access unit starts.
enum H264NalType : uint8_t {
    H264_NAL_SLICE = 1,
    H264_NAL_SLICE_PARTITION_A = 2,
    H264_NAL_IDR_SLICE = 5,
    H264_NAL_SEI = 6,
    H264_NAL_SPS = 7,
    H264_NAL_PPS = 8,
    H264_NAL_AUD = 9,
};

// One NAL unit of a byte stream. `start` is where its start code begins
// (the zero_byte of a four-byte start code included), `header` the offset of
// its header byte, `end` where the next start code begins or the stream
// ends; zero bytes after the NAL unit's payload (trailing_zero_8bits) are
// counted in it.
struct H264Nal {
    size_t start = 0;
    size_t header = 0;
    size_t end = 0;
    uint8_t type = 0;
};

// One access unit: bytes [offset, offset + length) of the stream.
struct H264AccessUnit {
    size_t offset = 0;
    size_t length = 0;
    bool idr = false;    // holds an IDR slice (NAL unit type 5)
    unsigned nals = 0;   // NAL units that begin in it
    unsigned slices = 0; // coded slices among them (types 1, 2, 5)
};

// The NAL units of an Annex-B stream, in order. Bytes in front of the first
// start code belong to no NAL unit.
std::vector<H264Nal> h264_find_nals(const uint8_t* data, size_t size);

// Cuts an Annex-B stream into access units. A new one begins at an access
// unit delimiter (when the current unit already holds a NAL unit), and at a
// parameter set, an SEI message, a prefix or extension NAL unit (types 14 to
// 18), or a slice with first_mb_in_slice 0, when one of these follows a
// slice of the current unit. Bytes before the first start code go with the
// first unit, trailing zero bytes with the unit they follow; the units cover
// the stream without gaps. A stream without any start code gives no units.
std::vector<H264AccessUnit> h264_split_access_units(const uint8_t* data, size_t size);

// The extended records every wrapped frame carries: date and time, and pts
// (the frame the public helper qzfs_frame.h builds).
const uint32_t STORED_FRAME_RECORD_BYTES = QZFS_FRAME_EXT_LEN;
const uint32_t STORED_FRAME_HEADER_BYTES = QZFS_FRAME_HEADER_LEN;
// The largest payload a wrapped frame can carry.
const uint32_t STORED_FRAME_MAX_PAYLOAD = QZFS_FRAME_MAX_LEN - QZFS_FRAME_PREFIX_LEN;

// Appends one recorder frame to `out`: the 12-byte header (channel, '2' for
// an I-frame or '3', "dc", 24-bit payload and record lengths), a date-time
// record of `when`, a pts record of `pts`, then the payload. Returns false,
// leaving `out` alone, when the payload is too big for a frame.
bool wrap_stored_frame(std::vector<uint8_t>& out, uint8_t channel, bool iframe,
                       const _k4t_fs_date_time_& when, uint64_t pts, const uint8_t* payload,
                       size_t length);

// A frame as it lies in a recording.
struct StoredFrame {
    uint8_t channel = 0;
    uint8_t type = 0;             // the type character: '2', '3' or '4'
    std::vector<uint8_t> bytes;   // the whole frame: header, records, payload
    uint32_t extend_len = 0;
    uint32_t frame_len = 0;
    bool has_time = false;        // a date-time record was found
    _k4t_fs_date_time_ time = {}; // dst is always 0
    bool has_pts = false;
    uint64_t pts = 0;

    const uint8_t* payload() const { return bytes.data() + STORED_FRAME_HEADER_BYTES + extend_len; }
    bool iframe() const { return type == '2'; }
    bool audio() const { return type == '4'; }
};

// Reassembles frames from a recording read in chunks of any size: a frame,
// even its header, may be split over chunks.
class StoredFrameParser {
public:
    // Takes the next chunk. Returns false once the bytes are no frame (bad
    // magic or type, a length past the format's limit, a broken extended
    // record); error() then says what and where, and later calls fail too.
    bool feed(const uint8_t* data, size_t size);
    // True and the oldest whole frame not yet taken, or false when none is
    // complete.
    bool next(StoredFrame& frame);
    // Bytes of an unfinished frame still waiting for the rest.
    size_t pending() const { return buffer_.size() - used_; }
    // Forgets an unfinished frame, as when its recording ended inside it,
    // and clears a failure; returns the bytes dropped.
    size_t drop_pending();
    // Offset in the stream of the first byte not yet handed out in a frame.
    uint64_t offset() const { return consumed_ + used_; }
    const std::string& error() const { return error_; }

private:
    bool parse_one(StoredFrame& frame);

    std::vector<uint8_t> buffer_;
    size_t used_ = 0;        // bytes of buffer_ already handed out
    uint64_t consumed_ = 0;  // bytes dropped from the front of buffer_
    std::string error_;
};

#endif
