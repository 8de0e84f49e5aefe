// The delete verb's forms by the clock: a stretch of one channel's
// recordings between two moments, taken out of every segment it meets, and
// the sweep of everything recorded before a day. The images are mounted as
// one group, disks 0, 1, ... in the order given. The forms by segment id
// live in qzfs.cpp.
#include "disk_access.h"
#include "qzfs_cli.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

namespace qzfs_tool {

namespace {

std::string clock_of_second(unsigned second_of_day)
{
    return clock_of(second_of_day / 3600, second_of_day / 60 % 60, second_of_day % 60);
}

std::string span_of(const SegmentEntry& e)
{
    return clock_of(e.start_hour, e.start_minute, e.start_second) + "-" +
           clock_of(e.end_hour, e.end_minute, e.end_second);
}

// ---------------------------------------------------- a stretch of a channel

// delete --channel C --from TIME --to TIME [--type T]: --type narrows the
// range to that stream type.
struct TimeRange : ChannelRange {
    bool typed = false;
    unsigned type = 0;
};

int parse_time_range(const Args& args, TimeRange& range)
{
    std::string error;
    if (!only_options(args, {"--channel", "--from", "--to", "--type"}, error))
        return fail("%s", error);
    if (parse_channel_range(args, "delete", range) != 0)
        return 1;
    if (!number_option(args, "--type", 63, 0, range.type))
        return fail("--type takes 0 to 63");
    range.typed = args.option("--type") != nullptr;
    if (range.typed)
        range.types = 1ULL << range.type;
    return 0;
}

using Target = RangeSegment;

// What the range took, segment by segment.
struct RangeTally {
    unsigned long gone = 0, head = 0, tail = 0, stretch = 0, left = 0;
    unsigned long long taken = 0;
    unsigned long changed() const { return gone + head + tail + stretch; }
};

// "0:2:5 08:00:00-08:00:03 (12345 bytes)"
std::string piece_text(const _k4t_stream_query_result_& r, const SegmentPiece& p)
{
    return id_text(id_of(r, p.index)) + " " + span_of(p.entry) + " (" +
           std::to_string((unsigned long long)p.entry.len) + " bytes)";
}

// One line for what the delete did to the segment of `t`.
void print_range_cut(const Target& t, const RangeOutcome& out, RangeTally& tally)
{
    const std::string id = id_text(id_of(t.row, t.row.stream_segment_index));
    const std::string was = date_text(t.day) + " " + span_of(out.before);
    switch (out.cut) {
    case RangeCut::Whole: {
        const bool covered = t.from <= start_of(t.row) && t.to >= end_of(t.row);
        print("%s gone: %s, %llu bytes%s%s\n", id.c_str(), was.c_str(),
               (unsigned long long)out.taken,
               covered ? "" : " (cut at the I-frames around the range, which left nothing)",
               out.root_deleted ? "; its root index entry, left empty, went with it" : "");
        tally.gone++;
        break;
    }
    case RangeCut::Head:
    case RangeCut::Tail:
        print("%s %s cut: %s is now %s, %llu bytes taken\n", id.c_str(),
               out.cut == RangeCut::Head ? "head" : "tail", was.c_str(),
               piece_text(t.row, out.pieces[0]).c_str(), (unsigned long long)out.taken);
        (out.cut == RangeCut::Head ? tally.head : tally.tail)++;
        break;
    case RangeCut::Stretch: {
        std::string pieces;
        for (const SegmentPiece& p : out.pieces)
            pieces += (pieces.empty() ? "" : ", ") + piece_text(t.row, p);
        const SegmentEntry& a = out.pieces.front().entry;
        const SegmentEntry& b = out.pieces.back().entry;
        print("%s stretch taken: %s lost %s up to %s, %llu bytes; pieces left: %s\n", id.c_str(),
               was.c_str(), clock_of(a.end_hour, a.end_minute, a.end_second).c_str(),
               clock_of(b.start_hour, b.start_minute, b.start_second).c_str(),
               (unsigned long long)out.taken, pieces.c_str());
        tally.stretch++;
        break;
    }
    case RangeCut::None:
        print("%s left as it was: %s holds no I-frame of it to cut at\n", id.c_str(),
               (clock_of_second(t.from) + "-" + clock_of_second(t.to)).c_str());
        tally.left++;
        return;
    }
    tally.taken += out.taken;
}

// Takes the range out of each segment it meets; 0, or 1 when the library
// failed on one (reported; the segments after it are left alone).
int delete_targets(const std::vector<Target>& targets, RangeTally& tally)
{
    for (const Target& t : targets) {
        const std::string id = id_text(id_of(t.row, t.row.stream_segment_index));
        RangeOutcome out;
        const TrimStatus status = disk_delete_time_range(t.row.hdd_id, t.row.root_index,
                                                         t.row.stream_segment_index, t.from, t.to,
                                                         out);
        if (status == TrimStatus::Refused) {
            print("%s left: %s, %s; %s\n", id.c_str(), date_text(t.day).c_str(),
                   span_text(t.row).c_str(), out.refusal.c_str());
            tally.left++;
        } else if (status == TrimStatus::Failed) {
            std::string pieces;
            for (const SegmentPiece& p : out.pieces)
                pieces += " " + piece_text(t.row, p);
            return fail("deleting %s failed", id + " " + clock_of_second(t.from) + "-" +
                                                  clock_of_second(t.to) +
                                                  (pieces.empty() ? "" : "; left of it:" + pieces));
        } else {
            print_range_cut(t, out, tally);
        }
    }
    return 0;
}

int delete_time_range(const Args& args)
{
    TimeRange range;
    if (parse_time_range(args, range) != 0)
        return 1;
    unsigned mounted = 0;
    if (mount_group(args.positional, mounted) != 0) {
        leave_group(mounted);
        return 1;
    }
    const std::string what = "channel " + std::to_string(range.channel) +
                             (range.typed ? " (stream type " + std::to_string(range.type) + ")"
                                          : "") +
                             " from " + format_date_time(range.from) + " to " +
                             format_date_time(range.to);
    std::vector<Target> targets;
    if (!range_segments(range, targets)) {
        leave_group(mounted);
        return fail("cannot list the recordings of %s", what);
    }
    if (targets.empty()) {
        leave_group(mounted);
        return fail("%s: no recordings (see ls)", what);
    }
    RangeTally tally;
    const int rc = delete_targets(targets, tally);
    leave_group(mounted);
    if (rc != 0)
        return rc;
    print("%s: %lu segment%s changed (%lu gone, %lu cut at the head, %lu at the tail, %lu in "
           "the middle), %llu bytes taken; %lu left\n",
           what.c_str(), tally.changed(), tally.changed() == 1 ? "" : "s", tally.gone, tally.head,
           tally.tail, tally.stretch, tally.taken, tally.left);
    if (tally.changed() == 0)
        return fail("nothing deleted: every recording the range meets was left");
    return 0;
}

// ------------------------------------------------------ the sweep by date

// The day before `day` by the library's calendar; false for the first day
// it knows.
bool day_before(const _k4t_fs_date_& day, _k4t_fs_date_& out)
{
    out = day;
    if (day.day > 1) {
        out.day = uint8_t(day.day - 1);
        return true;
    }
    if (day.month > 1) {
        out.month = uint8_t(day.month - 1);
    } else if (day.year > 0) {
        out.year = uint8_t(day.year - 1);
        out.month = 12;
    } else {
        return false;
    }
    out.day = uint8_t(library_days_in_month(out.year, out.month));
    return true;
}

struct Listed {
    _k4t_fs_date_ day;
    _k4t_stream_query_result_ row;
};

// Whether `list` holds the segment `s`: the same id, day, times and length
// (a slot that a delete freed and a new segment took differs in them).
bool listed_in(const Listed& s, const std::vector<Listed>& list)
{
    return std::any_of(list.begin(), list.end(), [&](const Listed& o) {
        return o.row.hdd_id == s.row.hdd_id && o.row.root_index == s.row.root_index &&
               o.row.stream_segment_index == s.row.stream_segment_index &&
               day_key(o.day.year, o.day.month, o.day.day) ==
                   day_key(s.day.year, s.day.month, s.day.day) &&
               span_text(o.row) == span_text(s.row) && o.row.len == s.row.len;
    });
}

// Every segment of the group on the days up to `last`, of every channel
// and stream type. False when a listing fails.
bool list_up_to(const _k4t_fs_date_& last, std::vector<Listed>& out)
{
    out.clear();
    std::vector<_k4t_fs_date_> days;
    if (!recorded_days(~0ULL, days))
        return false;
    for (const _k4t_fs_date_& day : days) {
        if (day_key(day.year, day.month, day.day) > day_key(last.year, last.month, last.day))
            continue;
        std::vector<_k4t_stream_query_result_> rows;
        if (!query_day(day, 0xFFFFFFFFu, ~0ULL, rows))
            return false;
        for (const _k4t_stream_query_result_& r : rows)
            out.push_back({day, r});
    }
    return true;
}

// "0:0:0 channel 0, stream 0, 2026-11-20 08:00:00-08:00:09, 79840 bytes"
std::string listed_text(const Listed& s)
{
    return id_text(id_of(s.row, s.row.stream_segment_index)) + " channel " +
           std::to_string(s.row.channel) + ", stream " + std::to_string(s.row.stream_type) + ", " +
           date_text(s.day) + " " + span_text(s.row) + ", " +
           std::to_string((unsigned long long)s.row.len) + " bytes";
}

// Calls the library's delete by parameters until the listing of the days
// swept stops changing: each call walks a few roots of each disk. `now`
// is the listing after the last call.
int sweep(const _k4t_fs_date_& last, const std::vector<Listed>& had, std::vector<Listed>& now,
          unsigned& calls)
{
    _qzfs_k4t_delete_para_ para = {};
    para.group_mask = 0xFFFFFFFFu;
    para.channel_mask = 0xFFFFFFFFu;
    para.stream_mask = ~0ULL;
    para.start_year = 0;
    para.start_month = 1;
    para.start_day = 1;
    para.end_year = last.year;
    para.end_month = last.month;
    para.end_day = last.day;
    now = had;
    for (calls = 1;; calls++) {
        // Its result says nothing of what it did (-1 either way): the
        // listing does.
        api_qzfs_delete_stream_segment_by_para(&para);
        std::vector<Listed> next;
        if (!list_up_to(last, next))
            return fail("cannot list the recordings after delete call %s", std::to_string(calls));
        const bool same = next.size() == now.size() &&
                          std::all_of(next.begin(), next.end(),
                                      [&](const Listed& s) { return listed_in(s, now); });
        now.swap(next);
        if (same || calls > had.size())
            return 0;
    }
}

int delete_before(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--before"}, error))
        return fail("%s", error);
    _k4t_fs_date_ date = {}, last = {};
    if (!parse_date(*args.option("--before"), date, false))
        return fail("--before takes YYYY-MM-DD (2000 to 2099)");
    if (!day_before(date, last))
        return fail("nothing can be recorded before %s", date_text(date));
    unsigned mounted = 0;
    if (mount_group(args.positional, mounted) != 0) {
        leave_group(mounted);
        return 1;
    }
    std::vector<Listed> had, now;
    if (!list_up_to(last, had)) {
        leave_group(mounted);
        return fail("cannot list the recordings before %s", date_text(date));
    }
    if (had.empty()) {
        leave_group(mounted);
        return fail("nothing was recorded before %s (see ls)", date_text(date));
    }
    unsigned calls = 0;
    const int rc = sweep(last, had, now, calls);
    leave_group(mounted);
    if (rc != 0)
        return rc;
    unsigned long gone = 0, locked = 0;
    unsigned long long bytes = 0;
    for (const Listed& s : had) {
        if (listed_in(s, now))
            continue;
        print("gone:   %s\n", listed_text(s).c_str());
        gone++;
        bytes += s.row.len;
    }
    for (const Listed& s : now) {
        print("stayed: %s%s\n", listed_text(s).c_str(),
               s.row.lock != 0 ? " (locked)" : " (not taken by the sweep)");
        locked += s.row.lock != 0 ? 1 : 0;
    }
    print("swept the days before %s in %u call%s: %lu segment%s gone (%llu bytes), %lu stayed "
           "(%lu locked)\n",
           date_text(date).c_str(), calls, calls == 1 ? "" : "s", gone, gone == 1 ? "" : "s",
           bytes, (unsigned long)now.size(), locked);
    return 0;
}

} // namespace

int verb_delete_by_clock(const Args& args)
{
    return args.option("--before") != nullptr ? delete_before(args) : delete_time_range(args);
}

} // namespace qzfs_tool
