#include "synthetic_h264.h"

namespace {

class Builder {
public:
    explicit Builder(uint32_t seed) : state_(seed * 2654435761u + 12345u) {}

    uint32_t random()
    {
        state_ = state_ * 1103515245u + 12345u;
        return state_ >> 8;
    }

    // A NAL unit of `type` with nal_ref_idc `ref`; `head` are the first
    // bytes behind its header (for a slice, the start of the slice header),
    // then `filler` bytes that are never 0.
    void nal(bool four_byte, uint8_t ref, uint8_t type, std::vector<uint8_t> head, size_t filler)
    {
        if (four_byte)
            out.push_back(0);
        out.insert(out.end(), {0, 0, 1, uint8_t(ref << 5 | type)});
        out.insert(out.end(), head.begin(), head.end());
        for (size_t i = 0; i < filler; i++)
            out.push_back(uint8_t(1 + random() % 255));
    }

    std::vector<uint8_t> out;

private:
    uint32_t state_;
};

// first_mb_in_slice 0 codes as the single bit 1; 0x44 begins with 010,
// first_mb_in_slice 1.
const uint8_t FIRST_MB_ZERO = 0x88;
const uint8_t FIRST_MB_ONE = 0x44;

} // namespace

SyntheticH264 make_synthetic_h264(const SyntheticH264Config& config)
{
    Builder b(config.seed);
    SyntheticH264 stream;
    bool trailing = false;  // the unit before ended in zero bytes
    for (unsigned frame = 0; frame < config.frames; frame++) {
        const bool idr = frame % config.gop == 0;
        const size_t offset = b.out.size();
        const uint32_t size = idr ? config.idr_bytes : config.p_bytes;
        const size_t payload = size / 2 + b.random() % (size + 1);
        if (config.delimiters)
            b.nal(true, 0, 9, {uint8_t(idr ? 0x10 : 0x30)}, 0);
        if (idr) {
            b.nal(true, 3, 7, {0x64, 0x00, 0x1E, 0xAC}, 12);  // SPS: High profile, level 3
            b.nal(true, 3, 8, {0xEE, 0x3C, 0x80}, 0);        // PPS
            b.nal(true, 0, 6, {0x05, 0x10}, 16);             // SEI: user data
            b.nal(true, 3, 5, {FIRST_MB_ZERO}, payload / 2);
            b.nal(false, 3, 5, {FIRST_MB_ONE}, payload - payload / 2);
            trailing = false;
        } else {
            const bool two_slices = b.random() % 3 == 0;
            // Behind trailing zeros only the four-byte form tells where the
            // next unit begins.
            b.nal(frame % 2 == 0 || trailing, 2, 1, {FIRST_MB_ZERO},
                  two_slices ? payload / 2 : payload);
            if (two_slices)
                b.nal(false, 2, 1, {FIRST_MB_ONE}, payload - payload / 2);
            // trailing_zero_8bits, which stay with the unit they follow
            trailing = b.random() % 4 == 0;
            if (trailing)
                b.out.insert(b.out.end(), 1 + b.random() % 3, 0);
        }
        stream.units.push_back({offset, b.out.size() - offset, idr});
    }
    stream.bytes = std::move(b.out);
    return stream;
}
