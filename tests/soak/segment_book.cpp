#include "segment_book.h"

#include "qzfilesystem.h"
#include "qzfs_av_frame.h"
#include "qzfs_index_format.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace soak {

uint32_t lock_mask(unsigned number)
{
    return number >= 1 && number <= 32 ? uint32_t(1) << (number - 1) : 0;
}

bool read_segment_state(const SegmentKey& key, SegmentState& out, std::string& error)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(std::get<0>(key));
    if (fs == nullptr) {
        error = describe(key) + ": its disk is not mounted";
        return false;
    }
    _root_index_node_dev_ rn;
    _stream_segment_index_node_dev_ sn;
    fs->disk_lock(1);
    const bool read = fs->Get_root_index_dev_node(std::get<1>(key), &rn) == 0 &&
                      fs->Get_stream_segment_index_dev_node(std::get<1>(key), std::get<2>(key),
                                                            &sn) == 0;
    fs->disk_lock(0);
    if (!read) {
        error = describe(key) + ": its node cannot be read";
        return false;
    }
    if (!IS_NORMAL_ROOT_INDEX(rn.id) || sn.id != NORMAL_STREAM_SEGMENT_INDEX) {
        error = describe(key) + ": no segment there (root id " + std::to_string(rn.id) +
                ", segment id " + std::to_string(sn.id) + ")";
        return false;
    }
    out = SegmentState();
    out.channel = rn.channel;
    out.stream_type = rn.stream_type;
    out.year = rn.year;
    out.month = rn.month;
    out.day = rn.day;
    out.node_id = sn.id;
    out.lock = sn.lock;
    out.lock_type = sn.lock_type;
    out.start_iframe = sn.start_iframe;
    out.owner_stamp = sn.owner_stamp;
    out.len = sn.len_in_bytes;
    out.start_hour = sn.start_hour;
    out.start_minute = sn.start_minute;
    out.start_second = sn.start_second;
    out.end_hour = sn.end_hour;
    out.end_minute = sn.end_minute;
    out.end_second = sn.end_second;
    return true;
}

bool SegmentBook::add(const std::shared_ptr<RecordedSegment>& segment, std::string& error)
{
    if (locked_.count(segment->key) != 0) {
        error = "a new segment was given the slot of a locked one: " + describe(segment->key);
        return false;
    }
    segments_[segment->key] = segment;
    return true;
}

std::shared_ptr<RecordedSegment> SegmentBook::find(const SegmentKey& key) const
{
    auto it = segments_.find(key);
    return it == segments_.end() ? nullptr : it->second;
}

uint64_t SegmentBook::locked_bytes() const
{
    uint64_t sum = 0;
    for (const auto& l : locked_)
        sum += l.second.segment->bytes;
    return sum;
}

bool SegmentBook::lock(const std::shared_ptr<RecordedSegment>& segment, unsigned number,
                       bool by_recorder, std::string& error)
{
    _k4t_stream_segment_id_ id = id_of(segment->key);
    if (api_qzfs_stream_segment_lock_by_id(&id, uint8_t(number)) != 0) {
        error = "locking " + describe(segment->key) + " with number " + std::to_string(number) +
                " failed";
        return false;
    }
    LockRecord record;
    if (!read_segment_state(segment->key, record.at_lock, error))
        return false;
    if (record.at_lock.lock != 1 || record.at_lock.lock_type != lock_mask(number)) {
        error = describe(segment->key) + " locked with number " + std::to_string(number) +
                " shows lock " + std::to_string(record.at_lock.lock) + " and lock_type " +
                std::to_string(record.at_lock.lock_type);
        return false;
    }
    record.segment = segment;
    record.number = number;
    record.recording_at_lock = record.at_lock.recording();
    record.by_recorder = by_recorder;
    locked_[segment->key] = record;
    locks_made_++;
    if (by_recorder)
        locks_by_recorder_++;
    return true;
}

bool SegmentBook::unlock(const SegmentKey& key, std::string& error)
{
    _k4t_stream_segment_id_ id = id_of(key);
    if (api_qzfs_stream_segment_lock_by_id(&id, 0) != 0) {
        error = "unlocking " + describe(key) + " failed";
        return false;
    }
    SegmentState state;
    if (!read_segment_state(key, state, error))
        return false;
    if (state.lock != 0 || state.lock_type != 0) {
        error = describe(key) + " unlocked shows lock " + std::to_string(state.lock) +
                " and lock_type " + std::to_string(state.lock_type);
        return false;
    }
    locked_.erase(key);
    unlocks_made_++;
    return true;
}

bool check_locked_node(const LockRecord& lock, std::string& error)
{
    const SegmentKey& key = lock.segment->key;
    SegmentState now;
    if (!read_segment_state(key, now, error)) {
        error = "locked segment lost: " + error;
        return false;
    }
    const SegmentState& then = lock.at_lock;
    std::string what;
    if (now.recording())
        what = "it is still being recorded";
    else if (now.lock != 1 || now.lock_type != lock_mask(lock.number))
        what = "lock " + std::to_string(now.lock) + " and lock_type " +
               std::to_string(now.lock_type) + " where number " + std::to_string(lock.number) +
               " was given";
    else if (!now.same_start(then))
        what = "it starts at I-frame " + std::to_string(now.start_iframe) + " with stamp " +
               std::to_string(now.owner_stamp) + ", locked at I-frame " +
               std::to_string(then.start_iframe) + " with stamp " +
               std::to_string(then.owner_stamp);
    else if (!lock.recording_at_lock && now.len != then.len)
        what = "its length went from " + std::to_string(then.len) + " to " +
               std::to_string(now.len);
    if (what.empty())
        return true;
    error = "locked segment " + describe(key) + " changed: " + what;
    return false;
}

namespace {

// The frames a recorder wrote to one segment, made again one at a time.
class ExpectedFrames {
public:
    ExpectedFrames(const FrameSource& start, uint64_t frames)
        : source_(start), end_(start.frame_number() + frames)
    {
    }
    uint64_t first() const { return source_.frame_number(); }
    uint64_t end() const { return end_; }
    // Passes over the frames before `frame`.
    void skip_to(uint64_t frame)
    {
        FrameBatch scratch;
        while (source_.frame_number() < frame) {
            scratch.clear();
            source_.append_frame(scratch);
        }
    }
    // Compares `len` bytes read with the next bytes written. -1 when they
    // all match, else the offset of the first difference within them
    // (`len` itself when the frames end before them).
    long long compare(const uint8_t* data, size_t len)
    {
        size_t done = 0;
        while (done < len) {
            if (at_ == frame_.bytes.size()) {
                if (source_.frame_number() >= end_)
                    return (long long)done;
                frame_.clear();
                source_.append_frame(frame_);
                at_ = 0;
            }
            const size_t n = std::min(len - done, frame_.bytes.size() - at_);
            if (memcmp(data + done, frame_.bytes.data() + at_, n) != 0) {
                for (size_t i = 0; i < n; i++)
                    if (data[done + i] != frame_.bytes[at_ + i])
                        return (long long)(done + i);
            }
            done += n;
            at_ += n;
        }
        return -1;
    }
    // Every frame has been matched.
    bool finished() const { return at_ == frame_.bytes.size() && source_.frame_number() >= end_; }

private:
    FrameSource source_;
    uint64_t end_;
    FrameBatch frame_;
    size_t at_ = 0;
};

// The frame number in the presentation time record of the frame at `p`, or
// false when `p` holds no I-frame of `channel` with such a record.
bool iframe_number(const uint8_t* p, size_t len, uint8_t channel, unsigned fps, uint64_t& frame)
{
    const size_t pts_at = 12 + QZFS_FRAME_EXT_RECORD_LEN;
    if (len < pts_at + QZFS_FRAME_EXT_RECORD_LEN || p[0] != channel ||
        p[1] != QZFS_FRAME_CHAR_IFRAME || p[2] != QZFS_FRAME_MAGIC_0 ||
        p[3] != QZFS_FRAME_MAGIC_1 || p[pts_at] != QZFS_FRAME_EXT_PTS)
        return false;
    uint64_t pts = 0;
    memcpy(&pts, p + pts_at + 4, sizeof(pts));
    frame = pts / (90000 / fps);
    return true;
}

} // namespace

bool check_locked_content(const LockRecord& lock, uint64_t& bytes, std::string& error)
{
    const RecordedSegment& seg = *lock.segment;
    const std::string name = "locked segment " + describe(seg.key);
    bytes = 0;
    SegmentState node;
    if (!read_segment_state(seg.key, node, error))
        return false;
    _k4t_stream_segment_id_ id = id_of(seg.key);
    const int fd = api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0);
    if (fd <= 0) {
        error = name + " cannot be opened for reading";
        return false;
    }
    ExpectedFrames expected(seg.start, seg.frames);
    const uint8_t channel = seg.start.config().channel;
    std::vector<uint8_t> buffer(1 << 20);
    bool ok = true;
    for (;;) {
        unsigned char new_segment = 0;
        const int n = api_qzfs_read_video_data(fd, buffer.data(), int(buffer.size()), &new_segment);
        if (n < 0) {
            error = name + ": a read failed after " + std::to_string(bytes) + " bytes";
            ok = false;
            break;
        }
        if (n == 0)
            break;
        if (bytes == 0) {
            uint64_t frame = 0;
            if (!iframe_number(buffer.data(), size_t(n), channel, seg.start.config().fps, frame) ||
                frame < expected.first() || frame >= expected.end()) {
                error = name + ": its data does not begin with an I-frame of the frames " +
                        std::to_string(expected.first()) + " to " +
                        std::to_string(expected.end() - 1) + " its recorder wrote";
                ok = false;
                break;
            }
            expected.skip_to(frame);
        }
        const long long diff = expected.compare(buffer.data(), size_t(n));
        if (diff >= 0) {
            error = name + ": byte " + std::to_string(bytes + uint64_t(diff)) +
                    " read back differs from what was written";
            ok = false;
            break;
        }
        bytes += uint64_t(n);
    }
    if (api_qzfs_close_stream_segment(fd) != 0 && ok) {
        error = name + ": closing the reader failed";
        ok = false;
    }
    if (!ok)
        return false;
    if (!expected.finished()) {
        error = name + ": only " + std::to_string(bytes) +
                " bytes read back, the frames written go on beyond them";
        return false;
    }
    if (bytes != node.len) {
        error = name + ": " + std::to_string(bytes) + " bytes read back, its node says " +
                std::to_string(node.len);
        return false;
    }
    return true;
}

} // namespace soak
