// The soak's own account of what it recorded: every segment a recorder
// created, with the frame source as it stood at the segment's first frame,
// and the segments it locked, with their start at the moment of the lock.
// From these the content of a locked segment is made anew and compared
// with what the library reads back.
#ifndef QZFS_SOAK_SEGMENT_BOOK_H
#define QZFS_SOAK_SEGMENT_BOOK_H

#include "frame_source.h"
#include "group_snapshot.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace soak {

struct RecordedSegment {
    RecordedSegment(const SegmentKey& k, const FrameSource& s) : key(k), start(s) {}
    const SegmentKey key;
    const FrameSource start;  // the recorder's source before the first frame
    // Frames and bytes written to it so far; only its recorder adds to them.
    std::atomic<uint64_t> frames{0}, bytes{0};
    std::atomic<bool> open{true};
};

struct LockRecord {
    std::shared_ptr<RecordedSegment> segment;
    unsigned number = 0;       // the lock number given
    SegmentState at_lock;      // its node right after the lock
    bool recording_at_lock = false;
    bool by_recorder = false;  // locked by its own recorder, through its descriptor's id
};

// The lock_type a lock number stands for: bit number - 1, none above 32.
uint32_t lock_mask(unsigned number);

// Reads the node of one segment under its disk lock; false with `error`
// when the slot holds no segment or cannot be read.
bool read_segment_state(const SegmentKey& key, SegmentState& out, std::string& error);

class SegmentBook {
public:
    // Held by a recorder from the creation of a segment until it is in the
    // book, and by whoever picks a segment to lock: a segment the library
    // reports is then always the one the book names for its slot.
    std::mutex mutex;

    // The calls below expect `mutex` to be held.

    // A new segment of a recorder; false when its slot still belongs to a
    // locked segment (the library gave a locked segment's slot away).
    bool add(const std::shared_ptr<RecordedSegment>& segment, std::string& error);
    std::shared_ptr<RecordedSegment> find(const SegmentKey& key) const;
    bool is_locked(const SegmentKey& key) const { return locked_.count(key) != 0; }
    // Bytes held by locked segments now.
    uint64_t locked_bytes() const;

    // Locks `segment` with `number` through api_qzfs_stream_segment_lock_by_id
    // and checks the node afterwards. The caller also keeps overwrite passes
    // away meanwhile.
    bool lock(const std::shared_ptr<RecordedSegment>& segment, unsigned number, bool by_recorder,
              std::string& error);
    // Unlocks a locked segment and checks its node; it leaves the book's locks.
    bool unlock(const SegmentKey& key, std::string& error);

    const std::map<SegmentKey, LockRecord>& locks() const { return locked_; }
    unsigned locks_made() const { return locks_made_; }
    unsigned locks_by_recorder() const { return locks_by_recorder_; }
    unsigned unlocks_made() const { return unlocks_made_; }

private:
    std::map<SegmentKey, std::shared_ptr<RecordedSegment>> segments_;
    std::map<SegmentKey, LockRecord> locked_;
    unsigned locks_made_ = 0, locks_by_recorder_ = 0, unlocks_made_ = 0;
};

// A locked segment at the end of the run: closed, still locked with the
// mask of its number, starting where it started when it was locked (the
// same length too, if it was closed then).
bool check_locked_node(const LockRecord& lock, std::string& error);

// Reads a locked segment through the interface, from its start to its end,
// and compares every byte with the frames its recorder wrote from the
// segment's first I-frame on, made anew from the recorder's frame source.
// The bytes read come back in `bytes`.
bool check_locked_content(const LockRecord& lock, uint64_t& bytes, std::string& error);

} // namespace soak

#endif
