#include "group_snapshot.h"

#include "qzfilesystem.h"
#include "qzfs_index_format.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace soak {

SegmentKey key_of(const _k4t_stream_segment_id_& id)
{
    return SegmentKey(id.hdd_id, id.root_index, id.stream_segment_index);
}

_k4t_stream_segment_id_ id_of(const SegmentKey& key)
{
    _k4t_stream_segment_id_ id;
    id.hdd_id = std::get<0>(key);
    id.root_index = std::get<1>(key);
    id.stream_segment_index = std::get<2>(key);
    return id;
}

std::string describe(const SegmentKey& key)
{
    char text[64];
    snprintf(text, sizeof(text), "disk %u root %u segment %u", unsigned(std::get<0>(key)),
             unsigned(std::get<1>(key)), unsigned(std::get<2>(key)));
    return text;
}

bool SegmentState::recording() const { return end_hour == QZFS_INVALID_END_HOUR; }

bool SegmentState::same_start(const SegmentState& o) const
{
    return channel == o.channel && stream_type == o.stream_type && year == o.year &&
           month == o.month && day == o.day && start_iframe == o.start_iframe &&
           owner_stamp == o.owner_stamp;
}

uint64_t GroupSnapshot::total_free() const
{
    uint64_t sum = 0;
    for (const auto& d : free_bytes)
        sum += d.second;
    return sum;
}

uint64_t GroupSnapshot::spare(uint64_t used_for_recording) const
{
    uint64_t sum = 0;
    for (const auto& d : free_bytes)
        if (d.second > used_for_recording)
            sum += d.second - used_for_recording;
    return sum;
}

namespace {

bool read_disk(CQzFileSystem* fs, uint8_t hdd, GroupSnapshot& out, std::string& error)
{
    out.free_bytes[hdd] = uint64_t(fs->manage().free_block) * fs->manage().block_size;
    for (uint32_t root = 0;; root++) {
        _root_index_node_dev_ rn;
        if (fs->Get_root_index_dev_node(root, &rn) != 0) {
            error = "disk " + std::to_string(hdd) + ": cannot read root node " +
                    std::to_string(root);
            return false;
        }
        if (rn.id == END_ROOT_INDEX)
            return true;
        if (!IS_NORMAL_ROOT_INDEX(rn.id))
            continue;
        for (uint32_t index = 0;; index++) {
            _stream_segment_index_node_dev_ sn;
            if (fs->Get_stream_segment_index_dev_node(root, index, &sn) != 0) {
                error = describe(SegmentKey(hdd, root, index)) + ": cannot read its node";
                return false;
            }
            if (sn.id == END_STREAM_SEGMENT_INDEX)
                break;
            if (sn.id == FREE_STREAM_SEGMENT_INDEX)
                continue;
            SegmentState s;
            s.channel = rn.channel;
            s.stream_type = rn.stream_type;
            s.year = rn.year;
            s.month = rn.month;
            s.day = rn.day;
            s.node_id = sn.id;
            s.lock = sn.lock;
            s.lock_type = sn.lock_type;
            s.start_iframe = sn.start_iframe;
            s.owner_stamp = sn.owner_stamp;
            s.len = sn.len_in_bytes;
            s.start_hour = sn.start_hour;
            s.start_minute = sn.start_minute;
            s.start_second = sn.start_second;
            s.end_hour = sn.end_hour;
            s.end_minute = sn.end_minute;
            s.end_second = sn.end_second;
            if (s.recording()) {
                _stream_segment_index_node_men_ live;
                memset(&live, 0, sizeof(live));
                live.end_hour = QZFS_INVALID_END_HOUR;
                if (fs->live_segment_node(root, index, live) == 1)
                    s.live_len = live.len_in_bytes;
            }
            out.segments[SegmentKey(hdd, root, index)] = s;
        }
    }
}

bool normal(const SegmentState& s)
{
    return s.node_id == NORMAL_STREAM_SEGMENT_INDEX || s.node_id == PRE_RECORD_STREAM_SEGMENT_INDEX;
}

std::string stamp_text(const SegmentKey& key, const SegmentState& s)
{
    return describe(key) + " (stamp " + std::to_string(s.owner_stamp) + ", channel " +
           std::to_string(s.channel) + (s.recording() ? ", recording" : "") +
           (s.lock != 0 ? ", locked" : "") + ")";
}

// The segments of `before` that the pass took, sorted into whole removals
// and front trims, with the bytes that closed ones lost.
void find_touched(const PassWindow& w, PassVerdict& v)
{
    for (const auto& b : w.before->segments) {
        const SegmentState& old = b.second;
        if (!normal(old))
            continue;
        auto a = w.after->segments.find(b.first);
        const bool present = a != w.after->segments.end() && normal(a->second);
        if (present && a->second.same_start(old))
            continue;
        // A trim leaves the recording in its slot, starting further on: a
        // closed segment keeps its end and is shorter; a segment being
        // recorded keeps on being recorded. Anything else in the slot is a
        // newer recording in the slot that the pass freed.
        bool trim = false;
        if (present && a->second.channel == old.channel && a->second.day == old.day &&
            a->second.start_iframe > old.start_iframe) {
            const SegmentState& now = a->second;
            if (old.recording())
                trim = true;
            else
                trim = !now.recording() && now.len < old.len && now.end_hour == old.end_hour &&
                       now.end_minute == old.end_minute && now.end_second == old.end_second;
        }
        if (trim) {
            v.trimmed.push_back(b.first);
            if (!old.recording())
                v.bytes_known += old.len - a->second.len;
        } else {
            v.removed.push_back(b.first);
            if (!old.recording())
                v.bytes_known += old.len;
        }
    }
}

void check_locks_unchanged(const PassWindow& w, PassVerdict& v)
{
    for (const auto& b : w.before->segments) {
        auto a = w.after->segments.find(b.first);
        if (a == w.after->segments.end() || !a->second.same_start(b.second))
            continue;
        if (a->second.lock != b.second.lock || a->second.lock_type != b.second.lock_type)
            v.failures.push_back(describe(b.first) + ": its lock changed during a pass (" +
                                 std::to_string(b.second.lock) + " to " +
                                 std::to_string(a->second.lock) + ")");
    }
}

void check_free_space(const PassWindow& w, PassVerdict& v)
{
    for (const GroupSnapshot* s : {w.before, w.after})
        if (s->total_free() < w.thresholds.reserve)
            v.failures.push_back("the group's free space, " + std::to_string(s->total_free()) +
                                 " bytes, is below reserve_free_size_for_record (" +
                                 std::to_string(w.thresholds.reserve) + ")");
}

} // namespace

bool take_snapshot(const std::vector<uint8_t>& disks, GroupSnapshot& out, std::string& error)
{
    out = GroupSnapshot();
    for (uint8_t hdd : disks) {
        CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
        if (fs == nullptr) {
            error = "disk " + std::to_string(hdd) + " is not mounted";
            return false;
        }
        fs->disk_lock(1);
        const bool ok = read_disk(fs, hdd, out, error);
        fs->disk_lock(0);
        if (!ok)
            return false;
    }
    return true;
}

bool eligible(const SegmentKey& key, const SegmentState& s, const std::set<SegmentKey>& reading)
{
    return s.node_id == NORMAL_STREAM_SEGMENT_INDEX && s.lock == 0 && s.stream_type <= 2 &&
           reading.count(key) == 0;
}

PassVerdict judge_big_pass(const PassWindow& w)
{
    PassVerdict v;
    find_touched(w, v);
    check_locks_unchanged(w, v);
    check_free_space(w, v);

    std::vector<SegmentKey> touched = v.removed;
    touched.insert(touched.end(), v.trimmed.begin(), v.trimmed.end());
    const std::set<SegmentKey> taken(touched.begin(), touched.end());

    // The newest segment taken must be no younger than the oldest eligible
    // segment left behind.
    const SegmentKey* newest_taken = nullptr;
    for (const SegmentKey& k : touched) {
        const SegmentState& s = w.before->segments.at(k);
        if (!eligible(k, s, w.open_for_reading))
            v.failures.push_back("the pass took " + stamp_text(k, s) + ", which is " +
                                 (s.lock != 0 ? "locked"
                                  : w.open_for_reading.count(k) != 0 ? "open for reading"
                                                                     : "no big-stream segment"));
        if (newest_taken == nullptr ||
            w.before->segments.at(*newest_taken).owner_stamp < s.owner_stamp)
            newest_taken = &k;
    }
    const uint64_t block = w.block_size;
    const SegmentKey* oldest_left = nullptr;
    // Held open for reading or not, a candidate left in place stays in the
    // list the pass rebuilds: -1 ("have not unlock stream segment") cannot
    // come while there is one.
    const SegmentKey* any_left = nullptr;
    for (const auto& b : w.before->segments)
        if (eligible(b.first, b.second, {}) && taken.count(b.first) == 0)
            any_left = &b.first;
    for (const auto& b : w.before->segments) {
        if (!eligible(b.first, b.second, w.open_for_reading))
            continue;
        v.eligible++;
        if (taken.count(b.first) != 0)
            continue;
        if (b.second.recording() && b.second.live_len < w.thresholds.once + 2 * block)
            continue;
        if (oldest_left == nullptr ||
            b.second.owner_stamp < w.before->segments.at(*oldest_left).owner_stamp)
            oldest_left = &b.first;
    }
    if (newest_taken != nullptr && oldest_left != nullptr) {
        const SegmentState& t = w.before->segments.at(*newest_taken);
        const SegmentState& l = w.before->segments.at(*oldest_left);
        if (t.owner_stamp > l.owner_stamp)
            v.failures.push_back("the pass took " + stamp_text(*newest_taken, t) + " but left " +
                                 stamp_text(*oldest_left, l) + ", which is older and eligible");
    }

    if (w.result != 0 && w.result != -1)
        v.failures.push_back("the pass returned " + std::to_string(w.result));
    if (w.result == -1 && any_left != nullptr)
        v.failures.push_back("the pass returned -1 (nothing unlocked left) although " +
                             stamp_text(*any_left, w.before->segments.at(*any_left)) +
                             " was eligible and is still there");

    // Spare space only grows by a delete, so a pass after a state with too
    // little of it was due. A closed candidate can always be taken, whole
    // or from its front, and so can a live one long enough; a shorter live
    // one gives nothing, and the pass goes on to the next.
    const SegmentKey* could_give = nullptr;
    for (const auto& b : w.before->segments)
        if (eligible(b.first, b.second, w.open_for_reading) &&
            (!b.second.recording() || b.second.live_len >= w.thresholds.once + 2 * block))
            could_give = &b.first;
    if (!v.touched() && w.before->spare(w.thresholds.used) < w.thresholds.start &&
        could_give != nullptr)
        v.failures.push_back("the pass took nothing although the group's spare space was " +
                             std::to_string(w.before->spare(w.thresholds.used)) +
                             " bytes, below start_delete_free_size, and " +
                             stamp_text(*could_give, w.before->segments.at(*could_give)) +
                             " could be taken");

    if (v.touched()) {
        // Before the pass looked, the recorders may have used up to what
        // they wrote in the window, plus the rest of a block each.
        const uint64_t spare_before = w.before->spare(w.thresholds.used);
        const uint64_t used_meanwhile =
            w.written_during + w.written_during / 100 + uint64_t(w.recorders + 2) * block;
        if (spare_before > used_meanwhile &&
            spare_before - used_meanwhile >= w.thresholds.start)
            v.failures.push_back("the pass deleted although the group's spare space was " +
                                 std::to_string(spare_before) + " bytes, at or above " +
                                 "start_delete_free_size (" +
                                 std::to_string(w.thresholds.start) + ") even after the " +
                                 std::to_string(w.written_during) + " bytes written meanwhile");
        // Each touched segment may free one block more than its bytes (a
        // part-used block at either end), the last one up to the next
        // I-frame beyond what was wanted.
        const uint64_t most = w.thresholds.start + w.thresholds.once + w.thresholds.once / 100 +
                              uint64_t(touched.size() + 2) * block;
        const uint64_t spare_after = w.after->spare(w.thresholds.used);
        if (spare_after > most)
            v.failures.push_back("after the pass the group's spare space is " +
                                 std::to_string(spare_after) + " bytes: more than " +
                                 "start_delete_free_size + once_delete_size allow (" +
                                 std::to_string(most) + ")");
    }
    return v;
}

PassVerdict judge_idle_pass(const PassWindow& w)
{
    PassVerdict v;
    find_touched(w, v);
    check_locks_unchanged(w, v);
    check_free_space(w, v);
    for (const SegmentKey& k : v.removed)
        v.failures.push_back("a pass that had nothing to do removed " +
                             stamp_text(k, w.before->segments.at(k)));
    for (const SegmentKey& k : v.trimmed)
        v.failures.push_back("a pass that had nothing to do trimmed " +
                             stamp_text(k, w.before->segments.at(k)));
    if (w.result != 0)
        v.failures.push_back("the pass returned " + std::to_string(w.result));
    return v;
}

} // namespace soak
