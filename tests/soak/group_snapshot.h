// What the disks of a recording group hold at one moment, segment by
// segment, and the verdict on one overwrite pass drawn from the states
// before and after it.
//
// The pass under judgement runs on the maintenance thread while the
// recorders go on writing, closing and creating segments. What they do
// cannot be mistaken for the pass: a recorder only adds segments and lets
// its own segment grow or end, whereas moving the start of a segment (a
// trim) or freeing its slot is the work of a delete alone, and lock calls
// are kept out of the pass window by the caller. So a segment of the
// "before" state whose slot is free, gone or holds another start afterwards
// was taken by the pass, and only by it.
#ifndef QZFS_SOAK_GROUP_SNAPSHOT_H
#define QZFS_SOAK_GROUP_SNAPSHOT_H

#include "qzfilesystem_api.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace soak {

// (hdd_id, root_index, stream_segment_index)
using SegmentKey = std::tuple<uint8_t, uint32_t, uint32_t>;

SegmentKey key_of(const _k4t_stream_segment_id_& id);
_k4t_stream_segment_id_ id_of(const SegmentKey& key);
std::string describe(const SegmentKey& key);

// One used segment slot, with the root node it hangs under.
struct SegmentState {
    uint8_t channel = 0, stream_type = 0, year = 0, month = 0, day = 0;
    uint8_t node_id = 0;  // 1 normal, 2 pre-recording
    uint8_t lock = 0;
    uint32_t lock_type = 0;
    uint32_t start_iframe = 0;
    uint32_t owner_stamp = 0;
    uint64_t len = 0;  // 0 on the disk while it is being recorded
    // Of a segment being recorded: its length as its writer counts it, less
    // what was cut from its front; 0 when the writer has not set it yet.
    uint64_t live_len = 0;
    uint8_t start_hour = 0, start_minute = 0, start_second = 0;
    uint8_t end_hour = 0, end_minute = 0, end_second = 0;

    bool recording() const;
    // The same recording: the root is the same day, channel and stream, and
    // the segment starts at the same I-frame with the same stamp.
    bool same_start(const SegmentState& other) const;
};

struct GroupSnapshot {
    std::map<SegmentKey, SegmentState> segments;
    std::map<uint8_t, uint64_t> free_bytes;  // per member disk
    uint64_t total_free() const;
    // Free space above `used_for_recording` summed over the disks: what the
    // big-stream pass compares with start_delete_free_size.
    uint64_t spare(uint64_t used_for_recording) const;
};

// Reads the root and segment nodes of every disk in `disks`, each under its
// disk lock. False with `error` when a node cannot be read.
bool take_snapshot(const std::vector<uint8_t>& disks, GroupSnapshot& out, std::string& error);

struct Thresholds {
    uint64_t reserve = 0, used = 0, start = 0, once = 0;
};

// Everything the judge of one big-stream pass needs.
struct PassWindow {
    const GroupSnapshot* before = nullptr;
    const GroupSnapshot* after = nullptr;
    std::set<SegmentKey> open_for_reading;  // held open by the caller across the pass
    int result = 0;
    uint64_t written_during = 0;  // bytes the recorders wrote from before to after
    unsigned recorders = 0;       // channels writing meanwhile
    uint64_t block_size = 0;
    Thresholds thresholds;
};

struct PassVerdict {
    std::vector<SegmentKey> removed;  // whole segments gone
    std::vector<SegmentKey> trimmed;  // segments whose front went
    uint64_t bytes_known = 0;         // bytes of closed segments removed or trimmed
    unsigned eligible = 0;            // candidates before the pass
    std::vector<std::string> failures;
    bool touched() const { return !removed.empty() || !trimmed.empty(); }
};

// A segment the planner may take: a normal segment of a big stream type
// (0 to 2), unlocked and not open for reading.
bool eligible(const SegmentKey& key, const SegmentState& s, const std::set<SegmentKey>& reading);

// The rules a big-stream pass must keep:
//  - it takes only eligible segments, and only the oldest: no segment it
//    took has a higher owner stamp than any eligible segment it left. A
//    segment being recorded can be cut only up to its last I-frame in the
//    index; one shorter than once_delete_size and two blocks may be passed
//    over for that reason, and is left out of this rule;
//  - it changes no lock;
//  - it returns 0, or -1 only when no eligible segment is left;
//  - it takes something when the spare space is below
//    start_delete_free_size and a candidate can give something;
//  - it takes nothing while the group's spare space is surely at or above
//    start_delete_free_size;
//  - it frees no more than once_delete_size, give or take a block for each
//    segment it touched and the rounding to an I-frame;
//  - the group's free space stays above reserve_free_size_for_record.
PassVerdict judge_big_pass(const PassWindow& w);

// A pass that must leave every segment of `before` as it was (the
// small-stream pass on a group holding big streams only).
PassVerdict judge_idle_pass(const PassWindow& w);

} // namespace soak

#endif
