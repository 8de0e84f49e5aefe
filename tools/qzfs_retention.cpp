// Retention from the shell: locking a segment, or a stretch of a channel,
// against overwrite, setting the record type of a stretch, and
// recording past the capacity of the disks while a maintenance thread runs
// the overwrite passes, as a recorder's application does.
#include "disk_access.h"
#include "qzfs_record.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace qzfs_tool {
namespace {

// ---------------------------------------------------------------- locking

// The lock type bits the library keeps for a segment, as a query row shows
// them; false when the segment's day does not list it.
bool lock_type_of(const _k4t_stream_segment_id_& id, const _k4t_stream_segment_info_& info,
                  uint32_t& lock_type)
{
    std::vector<_k4t_stream_query_result_> rows;
    const _k4t_fs_date_ day = {info.year, info.month, info.day, 0};
    if (!query_day(day, 1u << (info.channel % 32), ~0ULL, rows))
        return false;
    for (const _k4t_stream_query_result_& r : rows)
        if (r.hdd_id == id.hdd_id && r.root_index == id.root_index &&
            r.stream_segment_index == id.stream_segment_index) {
            lock_type = r.lock_type;
            return true;
        }
    return false;
}

// Locks the segment with lock `number`, or unlocks it for 0, through the
// exported call, and reads the segment back to show what it now holds.
int lock_segment(_k4t_stream_segment_id_ id, unsigned char number)
{
    const char* verb = number != 0 ? "lock" : "unlock";
    _k4t_stream_segment_info_ info = {};
    if (api_qzfs_get_stream_segment_info(&id, &info) != 0)
        return fail("there is no segment %s (see ls)", id_text(id));
    if (api_qzfs_stream_segment_lock_by_id(&id, number) != 0)
        return fail("the library refused to %s", std::string(verb) + " segment " + id_text(id));
    _k4t_stream_segment_info_ after = {};
    if (api_qzfs_get_stream_segment_info(&id, &after) != 0)
        return fail("segment %s cannot be read back", id_text(id));
    if ((after.lock != 0) != (number != 0))
        return fail("segment %s", id_text(id) + " reads back " +
                                      (after.lock != 0 ? "locked" : "unlocked") + " after the " +
                                      verb);
    uint32_t lock_type = 0;
    const bool typed = lock_type_of(id, after, lock_type);
    char type_text[32] = "";
    if (typed && number != 0)
        snprintf(type_text, sizeof(type_text), ", lock type 0x%08x", lock_type);
    print("%s segment %s: channel %u, 20%02u-%02u-%02u %s to %s, %llu bytes%s%s\n",
           number != 0 ? "locked" : "unlocked", id_text(id).c_str(), after.channel, after.year,
           after.month, after.day,
           clock_of(after.start_time.hour, after.start_time.minute, after.start_time.second).c_str(),
           clock_of(after.end_time.hour, after.end_time.minute, after.end_time.second).c_str(),
           (unsigned long long)after.len, type_text,
           number != 0 ? "; overwrite passes it over" : "; overwrite takes it in its turn");
    return 0;
}

// --number N (1 to 255) or --unlock (0); 1 when neither is given. Prints
// why and returns 1 on bad input.
int lock_number_option(const Args& args, unsigned& number)
{
    const bool unlock = args.option("--unlock") != nullptr;
    if (unlock && args.option("--number") != nullptr)
        return fail("give --unlock or --number, not both");
    if (!number_option(args, "--number", 255, 1, number) || number == 0)
        return fail("--number takes 1 to 255 (--unlock takes the lock away)");
    if (unlock)
        number = 0;
    return 0;
}

int lock_by_id(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--id", "--unlock", "--number"}, error))
        return fail("%s", error);
    _k4t_stream_segment_id_ id = {};
    const std::string* id_option = args.option("--id");
    if (id_option == nullptr || !parse_segment_id(*id_option, id))
        return fail("lock needs --id HDD:ROOT:SEG, as ls prints it (e.g. 0:0:0), or --channel C "
                    "--from TIME --to TIME");
    unsigned number = 1;
    if (lock_number_option(args, number) != 0)
        return 1;
    if (!args.positional.empty() && id.hdd_id >= args.positional.size())
        return fail("%s", "--id names disk " + std::to_string(id.hdd_id) + ", but the images are disks 0 to " +
                              std::to_string(args.positional.size() - 1) + ", in the order given");
    unsigned mounted = 0;
    if (mount_group(args.positional, mounted) != 0) {
        leave_group(mounted);
        return 1;
    }
    const int rc = lock_segment(id, (unsigned char)number);
    leave_group(mounted);
    return rc;
}

// ----------------------------------------------- locks and marks by time

// What the listing after a change by time shows of each piece.
enum class PieceShows { Lock, RecordType };

std::string range_text(const ChannelRange& range)
{
    return "channel " + std::to_string(range.channel) + " from " + format_date_time(range.from) +
           " to " + format_date_time(range.to);
}

// Lists the pieces of the range's channel on the whole days the range
// spans, each with its lock or its record type and alarm bits; those that
// overlap the range are marked. `in_range` counts them. False when the
// listing fails.
bool print_pieces(const ChannelRange& range, PieceShows shows, unsigned& in_range)
{
    ChannelRange days = range;
    days.from = at_second_of_day(range.from, 0);
    days.to = at_second_of_day(range.to, 86399);
    std::vector<RangeSegment> pieces;
    if (!range_segments(days, pieces))
        return false;
    in_range = 0;
    for (const RangeSegment& p : pieces) {
        const _k4t_fs_date_time_ day = {p.day.year, p.day.month, p.day.day, 0, 0, 0, 0};
        const bool inside =
            compare_date_time(at_second_of_day(day, start_of(p.row)), range.to) < 0 &&
            compare_date_time(range.from, at_second_of_day(day, end_of(p.row))) < 0;
        in_range += inside ? 1 : 0;
        char state[96];
        if (shows == PieceShows::RecordType)
            snprintf(state, sizeof(state), "record type %u, alarm 0x%016llx", p.row.record_type,
                     (unsigned long long)p.row.alarm_type);
        else if (p.row.lock != 0)
            snprintf(state, sizeof(state), "locked, lock type 0x%08x", p.row.lock_type);
        else
            snprintf(state, sizeof(state), "unlocked");
        print("%s %s %s stream %u, %llu bytes: %s%s\n",
               id_text(id_of(p.row, p.row.stream_segment_index)).c_str(), date_text(p.day).c_str(),
               span_text(p.row).c_str(), p.row.stream_type, (unsigned long long)p.row.len, state,
               inside ? " (in the range)" : "");
    }
    return true;
}

// Mounts the images, checks that the range meets a recording, runs `change`
// (the library's call; 0 when it succeeded) and lists the pieces.
template <typename Change>
int change_by_time(const Args& args, const ChannelRange& range, const std::string& what,
                   PieceShows shows, Change change)
{
    unsigned mounted = 0;
    if (mount_group(args.positional, mounted) != 0) {
        leave_group(mounted);
        return 1;
    }
    std::vector<RangeSegment> met;
    if (!range_segments(range, met)) {
        leave_group(mounted);
        return fail("cannot list the recordings of %s", range_text(range));
    }
    if (met.empty()) {
        leave_group(mounted);
        return fail("%s: no recordings (see ls)", range_text(range));
    }
    if (change() != 0) {
        leave_group(mounted);
        return fail("the library refused to %s", what + " " + range_text(range));
    }
    print("%s %s; the pieces of its days:\n", what.c_str(), range_text(range).c_str());
    unsigned in_range = 0;
    const bool listed = print_pieces(range, shows, in_range);
    leave_group(mounted);
    if (!listed)
        return fail("cannot list %s afterwards", range_text(range));
    print("%u piece%s in the range\n", in_range, in_range == 1 ? "" : "s");
    return 0;
}

// lock IMAGE... --channel C --from TIME --to TIME [--unlock | --number N]
int lock_by_time(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--channel", "--from", "--to", "--unlock", "--number"}, error))
        return fail("%s", error);
    ChannelRange range;
    unsigned number = 1;
    if (parse_channel_range(args, "lock", range) != 0 || lock_number_option(args, number) != 0)
        return 1;
    const std::string what =
        number != 0 ? "locked (lock number " + std::to_string(number) + ")" : "unlocked";
    return change_by_time(args, range, what, PieceShows::Lock, [&] {
        // Group 0 is the images; every stream type of the channel.
        _qzfs_k4t_stream_lock_para_ para = {};
        para.group_mask = 1;
        para.channel_mask = 1u << range.channel;
        para.stream_mask = range.types;
        para.start_date_time = range.from;
        para.end_date_time = range.to;
        return api_qzfs_stream_segment_lock_by_time(&para, (unsigned char)number);
    });
}

} // namespace

int verb_lock(const Args& args)
{
    return args.option("--id") == nullptr && args.option("--channel") != nullptr
               ? lock_by_time(args)
               : lock_by_id(args);
}

// mark IMAGE... --channel C --from TIME --to TIME --record-type R [--alarm BITS]
int verb_mark(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--channel", "--from", "--to", "--record-type", "--alarm"}, error))
        return fail("%s", error);
    ChannelRange range;
    if (parse_channel_range(args, "mark", range) != 0)
        return 1;
    unsigned record_type = 0;
    if (args.option("--record-type") == nullptr ||
        !number_option(args, "--record-type", 15, 0, record_type))
        return fail("mark needs --record-type R (0 to 15)");
    unsigned long long alarm = 0;
    const std::string* alarm_text = args.option("--alarm");
    if (alarm_text != nullptr) {
        char* end = nullptr;
        errno = 0;
        alarm = strtoull(alarm_text->c_str(), &end, 0);
        if (alarm_text->empty() || (*alarm_text)[0] == '-' || *end != '\0' || errno != 0)
            return fail("--alarm takes a 64-bit number of alarm bits (e.g. 0x4)");
    }
    const std::string what = "marked record type " + std::to_string(record_type) +
                             (alarm != 0 ? ", alarm bits " + *alarm_text : "") + " on";
    return change_by_time(args, range, what, PieceShows::RecordType, [&] {
        // Record type and alarm bits alone (bit 1 of the mask), of group 0.
        _qzfs_k4t_modify_segment_para_ para = {};
        para.group_mask = 1;
        para.channel_mask = 1u << range.channel;
        para.stream_mask = range.types;
        para.start_date_time = range.from;
        para.end_date_time = range.to;
        para.modify_mask = 2;
        para.record_type = (uint8_t)record_type;
        para.alarm_type = alarm;
        return api_qzfs_modify_stream_segment_info(&para);
    });
}

// ---------------------------------------------------- recording with overwrite

namespace {

// Lets the maintenance thread run a pass while the recorder stands between
// two frames, so that the free space and the listings around the pass show
// the pass's own work and not what the writers took meanwhile.
class RecorderGate {
public:
    // Recorder, between two frames: waits while a pass runs.
    void between_frames()
    {
        if (!wanted_.load(std::memory_order_acquire))
            return;
        std::unique_lock<std::mutex> lock(mutex_);
        paused_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !wanted_.load(std::memory_order_relaxed); });
        paused_ = false;
    }
    // Recorder: no more frames.
    void recorder_done()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
        changed_.notify_all();
    }
    // Maintenance thread: waits until the recorder stands still; false once
    // it has finished.
    bool hold()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        wanted_.store(true, std::memory_order_release);
        changed_.wait(lock, [this] { return paused_ || done_; });
        return !done_;
    }
    void release()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            wanted_.store(false, std::memory_order_release);
        }
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<bool> wanted_{false};
    bool paused_ = false;
    bool done_ = false;
};

// One segment as a listing of the group shows it.
struct Listed {
    _k4t_fs_date_ date;
    _k4t_stream_query_result_ row;
};
using Listing = std::map<std::tuple<unsigned, uint32_t, uint32_t>, Listed>;

bool list_group(Listing& out)
{
    out.clear();
    std::vector<_k4t_fs_date_> days;
    if (!recorded_days(~0ULL, days))
        return false;
    std::vector<_k4t_stream_query_result_> rows;
    for (const _k4t_fs_date_& day : days) {
        if (!query_day(day, 0xFFFFFFFFu, ~0ULL, rows))
            return false;
        for (const _k4t_stream_query_result_& r : rows)
            out[std::make_tuple(unsigned(r.hdd_id), r.root_index, r.stream_segment_index)] = {day, r};
    }
    return true;
}

// Free bytes of each disk of the group, disk i at i: the disks' whole free
// counts, which the pass weighs (the exported disk info leaves out the
// group's reserve and stops at 0).
std::vector<unsigned long long> free_bytes(unsigned disks)
{
    std::vector<unsigned long long> out(disks, 0);
    for (unsigned hdd = 0; hdd < disks; hdd++)
        disk_free_bytes((unsigned char)hdd, out[hdd]);
    return out;
}

unsigned long long sum(const std::vector<unsigned long long>& values)
{
    unsigned long long total = 0;
    for (unsigned long long v : values)
        total += v;
    return total;
}

std::string mib(unsigned long long bytes) { return std::to_string(bytes >> 20) + " MiB"; }

// What the overwrite passes did over the whole recording.
struct PassTotals {
    unsigned long passes = 0;
    unsigned long removing_passes = 0;
    unsigned long gone = 0;
    unsigned long trimmed = 0;
    unsigned long locked_touched = 0;
    unsigned long long removed_bytes = 0;
    unsigned long long freed_bytes = 0;
    bool reported_stuck = false;
};

// Runs the big-stream pass of group 0 at an interval, with the recorder held
// still around each call, and prints every pass that removed something: the
// free space before and after, and the segments it took whole or trimmed,
// from a listing of the group before and after.
class Maintenance {
public:
    Maintenance(RecorderGate& gate, unsigned disks, const _qzfs_k4t_hdd_overwrite_config_& config)
        : gate_(gate), disks_(disks), config_(config)
    {
    }
    void run()
    {
        while (gate_.hold()) {
            const bool removed = pass();
            gate_.release();
            if (!removed)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        gate_.release();
    }
    const PassTotals& totals() const { return totals_; }

private:
    // The rule by which a pass starts to remove: the spare of the group,
    // free space above the level that lets a disk record, is below the
    // level that starts deleting.
    bool due(const std::vector<unsigned long long>& free) const
    {
        unsigned long long spare = 0;
        for (unsigned long long f : free)
            if (f > config_.used_for_recording_free_size)
                spare += f - config_.used_for_recording_free_size;
        return spare < config_.start_delete_free_size;
    }

    // One pass; true when it freed space.
    bool pass()
    {
        const std::vector<unsigned long long> before_free = free_bytes(disks_);
        const bool expected = due(before_free);
        Listing before, after;
        const bool listed = expected && list_group(before);
        const int rc = api_qzfs_disk_overwrite_big_stream(0);
        totals_.passes++;
        const unsigned long long was = sum(before_free), now = sum(free_bytes(disks_));
        if (rc != 0 && expected && !totals_.reported_stuck) {
            print("overwrite pass %lu: nothing can be removed (every segment left is locked or "
                   "being read); recording goes on until the disks are full\n",
                   totals_.passes);
            totals_.reported_stuck = true;
        }
        if (now <= was)
            return false;
        totals_.removing_passes++;
        totals_.freed_bytes += now - was;
        std::string what;
        if (!listed)
            what = expected ? " (the group could not be listed)"
                            : " (unexpected: the spare was above the level that starts deleting)";
        else if (!list_group(after))
            what = " (the group could not be listed after it)";
        else
            what = describe_changes(before, after);
        print("overwrite pass %lu: freed %s (free %s -> %s)%s\n", totals_.passes,
               mib(now - was).c_str(), mib(was).c_str(), mib(now).c_str(), what.c_str());
        fflush(tool_out());
        return true;
    }

    // The segments of `before` that `after` lists no more, or shorter.
    std::string describe_changes(const Listing& before, const Listing& after)
    {
        std::string text;
        for (const auto& entry : before) {
            const _k4t_stream_query_result_& b = entry.second.row;
            const _k4t_stream_segment_id_ id = {b.hdd_id, b.root_index, b.stream_segment_index};
            const auto found = after.find(entry.first);
            const bool gone = found == after.end();
            if (!gone && found->second.row.len >= b.len)
                continue;
            const unsigned long long bytes = gone ? b.len : b.len - found->second.row.len;
            totals_.removed_bytes += bytes;
            text += text.empty() ? ": " : ", ";
            if (gone) {
                totals_.gone++;
                text += id_text(id) + " gone (channel " + std::to_string(b.channel) + " " +
                        clock_of(b.start_hour, b.start_minute, b.start_second) + "-" +
                        clock_of(b.end_hour, b.end_minute, b.end_second) + ", " +
                        std::to_string(bytes) + " bytes)";
            } else {
                const _k4t_stream_query_result_& a = found->second.row;
                totals_.trimmed++;
                text += id_text(id) + " trimmed by " + std::to_string(bytes) + " bytes (now from " +
                        clock_of(a.start_hour, a.start_minute, a.start_second) + ")";
            }
            if (b.lock != 0) {
                totals_.locked_touched++;
                text += " BUT IT WAS LOCKED";
            }
        }
        return text.empty() ? ": no segment listed shorter (orphan blocks?)" : text;
    }

    RecorderGate& gate_;
    unsigned disks_;
    _qzfs_k4t_hdd_overwrite_config_ config_;
    PassTotals totals_;
};

// The group's thresholds: the reserve (50 MiB at least; with several disks
// also what one round of segments of all channels takes, with two blocks a
// channel to spare, since recording moves to another disk only when a new
// segment starts), a disk records above the reserve and two blocks, passes
// start when the spare falls below the reserve and four blocks, and each
// takes four blocks.
_qzfs_k4t_hdd_overwrite_config_ overwrite_thresholds(const RecordRequest& request, unsigned disks,
                                                     unsigned long block_size)
{
    unsigned long long reserve = request.reserve;
    if (reserve == 0) {
        reserve = 0x3200000ULL;
        if (disks > 1)
            reserve = std::max(reserve, (unsigned long long)request.channels *
                                            (request.bitrate / 8ULL * request.segment_seconds +
                                             2ULL * block_size));
    }
    reserve = (reserve + block_size - 1) / block_size * block_size;
    _qzfs_k4t_hdd_overwrite_config_ config;
    config.reserve_free_size_for_record = reserve;
    config.used_for_recording_free_size = reserve + 2ULL * block_size;
    config.start_delete_free_size = reserve + 4ULL * block_size;
    config.once_delete_size = 4ULL * block_size;
    return config;
}

// The channels of a recording with overwrite, their segments and counts.
class OverwriteRecorder {
public:
    OverwriteRecorder(const RecordRequest& request, RecorderGate& gate)
        : request_(request), gate_(gate)
    {
        channels_.reserve(request.channels);
        for (unsigned c = 0; c < request.channels; c++)
            channels_.emplace_back(frames_for_bitrate(uint8_t(c), request.bitrate, request.start));
    }
    ~OverwriteRecorder() { close_all(); }

    // Records the whole request; false after a failure it has reported.
    bool run()
    {
        Progress progress(request_.seconds);
        FrameBatch batch;
        const unsigned fps = channels_.front().source.config().fps;
        const unsigned long frames = (unsigned long)request_.seconds * fps;
        const unsigned long per_segment = (unsigned long)request_.segment_seconds * fps;
        for (unsigned long frame = 0; frame < frames; frame++) {
            gate_.between_frames();
            if (frame % per_segment == 0 && !start_segments()) {
                progress.finish();
                return false;
            }
            for (Recording& r : channels_) {
                batch.clear();
                r.source.append_frame(batch);
                const int len = int(batch.bytes.size());
                if (api_qzfs_write_video_data(r.fd, batch.bytes.data(), len,
                                              int(batch.infos.size()),
                                              batch.infos.empty() ? nullptr : batch.infos.data()) !=
                    len) {
                    progress.finish();
                    fail("writing failed (disk full?) %s",
                         "on channel " + std::to_string(r.source.config().channel) + " at " +
                             format_date_time(at_second_of_day(request_.start,
                                                               r.source.next_second_of_day())) +
                             "; what came before is kept");
                    return false;
                }
                bytes_ += (unsigned long long)len;
            }
            if (frame % fps == fps - 1)
                progress.update(unsigned(frame / fps) + 1, bytes_);
        }
        progress.finish();
        return true;
    }

    // Closes the open segments; the number that failed to close.
    unsigned close_all()
    {
        unsigned failed = 0;
        for (Recording& r : channels_) {
            if (r.fd > 0 && api_qzfs_close_stream_segment(r.fd) != 0)
                failed++;
            r.fd = -1;
        }
        return failed;
    }

    unsigned long long bytes() const { return bytes_; }
    unsigned long segments() const { return segments_; }

private:
    // Ends each channel's segment and starts the next at the channel's next
    // frame, on the disk the group's choice names.
    bool start_segments()
    {
        for (Recording& r : channels_) {
            if (r.fd > 0 && api_qzfs_close_stream_segment(r.fd) != 0) {
                r.fd = -1;
                fail("closing segment %s failed", id_text(r.id));
                return false;
            }
            r.fd = -1;
            const _k4t_fs_date_time_ at =
                at_second_of_day(request_.start, r.source.next_second_of_day());
            unsigned char hdd = 255;
            if (api_qzfs_find_work_hdd(0, &hdd) != 0) {
                fail("no disk of the group has room to record at %s", format_date_time(at));
                return false;
            }
            _qzfs_k4t_create_ss_para_ para = recording_request(r.source.config().channel, 0, at);
            r.fd = api_qzfs_create_stream_segment(&para);
            if (r.fd <= 0 || api_qzfs_get_fd_info(r.fd, &r.id) != 0) {
                fail("%s", "cannot start a segment of channel " +
                               std::to_string(r.source.config().channel) + " at " +
                               format_date_time(at) + " on disk " + std::to_string(hdd));
                return false;
            }
            segments_++;
        }
        return true;
    }

    const RecordRequest& request_;
    RecorderGate& gate_;
    std::vector<Recording> channels_;
    unsigned long long bytes_ = 0;
    unsigned long segments_ = 0;
};

// Mounts the images as group 0 and sets its thresholds; the largest block
// size of its disks, or 0 after a failure it has reported.
unsigned long prepare_group(const RecordRequest& request, const std::vector<std::string>& paths,
                            unsigned& mounted, _qzfs_k4t_hdd_overwrite_config_& config)
{
    if (mount_group(paths, mounted) != 0)
        return 0;
    unsigned long block_size = 0;
    for (unsigned hdd = 0; hdd < mounted; hdd++) {
        _qzfs_k4t_hdd_info_ info = {};
        api_qzfs_get_hdd_info((unsigned char)hdd, &info);
        block_size = std::max(block_size, (unsigned long)info.block_size);
    }
    config = overwrite_thresholds(request, mounted, block_size);
    if (api_qzfs_config_overwrite(0, &config) != 0) {
        fail("the library refused the thresholds (reserve %s)",
             mib(config.reserve_free_size_for_record));
        return 0;
    }
    print("overwrite thresholds of group 0: reserve %s; a disk records while more than %s is "
           "free; passes remove %s at a time when the free space above %s a disk falls below %s\n",
           mib(config.reserve_free_size_for_record).c_str(),
           mib(config.used_for_recording_free_size).c_str(), mib(config.once_delete_size).c_str(),
           mib(config.used_for_recording_free_size).c_str(),
           mib(config.start_delete_free_size).c_str());
    return block_size;
}

} // namespace

int record_with_overwrite(const RecordRequest& request, const std::vector<std::string>& paths)
{
    unsigned mounted = 0;
    _qzfs_k4t_hdd_overwrite_config_ config = {};
    if (prepare_group(request, paths, mounted, config) == 0) {
        leave_group(mounted);
        return 1;
    }
    const unsigned long long free_at_start = sum(free_bytes(mounted));
    RecorderGate gate;
    Maintenance maintenance(gate, mounted, config);
    OverwriteRecorder recorder(request, gate);
    const auto began = std::chrono::steady_clock::now();
    std::thread maintenance_thread([&maintenance] { maintenance.run(); });
    const bool recorded = recorder.run();
    gate.recorder_done();
    maintenance_thread.join();
    const unsigned failed_close = recorder.close_all();
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    const unsigned long long free_at_end = sum(free_bytes(mounted));
    leave_group(mounted);

    const PassTotals& t = maintenance.totals();
    const _k4t_fs_date_time_& start = request.start;
    print("recorded %u channels x %u s from %s in segments of %u s (%lu segments): %llu bytes "
           "in %.2f s (%.1f MB/s), %.2f times the %s free at the start\n",
           request.channels, request.seconds, format_date_time(start).c_str(),
           request.segment_seconds, recorder.segments(), recorder.bytes(), wall,
           wall > 0 ? double(recorder.bytes()) / wall / 1e6 : 0.0,
           free_at_start > 0 ? double(recorder.bytes()) / double(free_at_start) : 0.0,
           mib(free_at_start).c_str());
    print("overwrite: %lu passes run, %lu removed recordings: %lu segments gone whole, %lu "
           "trimmed, %llu bytes of recordings removed, %s freed; %s free at the end\n",
           t.passes, t.removing_passes, t.gone, t.trimmed, t.removed_bytes,
           mib(t.freed_bytes).c_str(), mib(free_at_end).c_str());
    if (!recorded)
        return 1;
    if (failed_close != 0)
        return fail("closing %s segments failed", std::to_string(failed_close));
    if (t.locked_touched != 0)
        return fail("the overwrite passes took from %s locked segments",
                    std::to_string(t.locked_touched));
    return 0;
}

} // namespace qzfs_tool
