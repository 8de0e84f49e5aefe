// A synthetic H.264 Annex-B stream for the tests: NAL units with real
// headers and slice headers, filler payloads, and the access unit
// boundaries it was built with, so that a splitter can be checked against
// them without an encoder.
#ifndef QZFS_SYNTHETIC_H264_H
#define QZFS_SYNTHETIC_H264_H

#include <cstddef>
#include <cstdint>
#include <vector>

struct SyntheticH264Config {
    unsigned frames = 100;
    unsigned gop = 25;               // an IDR picture every gop frames
    bool delimiters = false;         // an access unit delimiter opens each unit
    uint32_t idr_bytes = 3000;       // slice payload of an IDR picture, about
    uint32_t p_bytes = 900;          // slice payload of another picture, about
    uint32_t seed = 1;
};

struct SyntheticAccessUnit {
    size_t offset;
    size_t length;
    bool idr;
};

struct SyntheticH264 {
    std::vector<uint8_t> bytes;
    std::vector<SyntheticAccessUnit> units;
};

// Builds the stream. An IDR unit holds SPS, PPS and SEI with four-byte start
// codes and two IDR slices (the second with first_mb_in_slice above 0);
// other units hold one or two non-IDR slices behind three- or four-byte
// start codes, and some end with trailing zero bytes (the unit behind them
// then begins with a four-byte start code). Payload bytes are
// never 0, so no start code can appear inside a NAL unit.
SyntheticH264 make_synthetic_h264(const SyntheticH264Config& config);

#endif
