#include "sweep.h"

#include "qzfilesystem.h"
#include "recovery_check.h"
#include "rig_process.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <stdexcept>

namespace powercut {

namespace {

const int kCutExit = 86;

// Figures of the whole sweep.
struct Totals {
    unsigned long points = 0;
    unsigned long failed_points = 0;
    unsigned long beyond_sum = 0, beyond_max = 0;
    unsigned long lost_sum = 0, lost_max = 0;
    unsigned long orphans_max = 0;
    unsigned long recut_points = 0, recuts = 0, recut_failures = 0;
    unsigned long as_before = 0, as_after = 0;  // delete workloads: where cut points ended
    // overwrite: after a part of the pass; the delete of a stretch: split
    // and not yet deleted; the lock of a range: its first segment split and
    // locked, its second not yet
    unsigned long between = 0;
    // rebuild: cut points after which the uncut recovery changed the image
    // again (rebuilt or mended what the cut recovery left)
    unsigned long recovered_again = 0;
    // The levels of the table mends at the mounts after the cuts (index:
    // qzfs_key_repair_level).
    unsigned long key_repairs[QZFS_KEY_REPAIR_SCAN + 1] = {};
};

class Sweep {
public:
    explicit Sweep(const SweepOptions& options)
        : o_(options), dir_(options.dir), base_(dir_.path("base.img")),
          cut_(dir_.path("cut.img")), check_(dir_.path("check.img")),
          recut_(dir_.path("recut.img"))
    {
    }
    int run();

private:
    void copy(const std::string& from, const std::string& to);
    unsigned long long prepare_base();
    power_cut::Settings device(unsigned long long cut_at, bool reorder) const;
    bool cut_point(unsigned long long n);
    std::vector<std::string> recut_recovery(const CheckResult& uncut);
    void prepare_states(const ChildResult& uncut_run, const CheckResult& uncut);
    std::vector<std::string> split_state();
    std::vector<std::string> state_of(const CheckResult& check) const;
    std::string check_state(const CheckResult& check);
    std::string overwrite_state(const std::vector<std::string>& now) const;
    void report(unsigned long long n, const std::vector<std::string>& failures,
                const CheckResult& check);
    void print_totals(unsigned long long writes, double seconds) const;

    SweepOptions o_;
    ScratchDir dir_;
    std::string base_, cut_, check_, recut_;
    Totals t_;
    // A delete workload's disk before and after its uncut delete or trim;
    // the delete of a stretch: its disk after the split alone, between them;
    // the lock of a range: after the split of its first segment alone.
    std::vector<std::string> before_, between_, after_;
    // An overwrite workload's segments ("ROOT:SLOT") and their owner stamps
    // before the pass.
    std::map<std::string, unsigned long> stamps_;
    // An allocation_cuts workload's cut points: the writes of its block
    // requests in the uncut run.
    std::vector<unsigned long long> requests_;
    // A file workload's cut points by what became of its files.
    std::map<std::string, unsigned long> outcomes_;
};

// The first line where two summaries differ, as "A", "B".
std::string first_difference(const std::vector<std::string>& a, const std::vector<std::string>& b)
{
    for (size_t i = 0;; i++) {
        const std::string x = i < a.size() ? a[i] : "(nothing)";
        const std::string y = i < b.size() ? b[i] : "(nothing)";
        if (x != y || (i >= a.size() && i >= b.size()))
            return "\"" + x + "\", \"" + y + "\"";
    }
}

void Sweep::copy(const std::string& from, const std::string& to)
{
    std::string error;
    if (!copy_sparse(from, to, error))
        throw std::runtime_error(error);
}

power_cut::Settings Sweep::device(unsigned long long cut_at, bool reorder) const
{
    power_cut::Settings s;
    s.mode = cut_at == 0 ? power_cut::Mode::Observe : o_.mode;
    s.cut_at = cut_at;
    s.reorder = reorder;
    s.seed = o_.seed;
    s.exit_code = kCutExit;
    return s;
}

// Formats the base image and runs the workload on a copy without a cut:
// the number of device writes it makes.
unsigned long long Sweep::prepare_base()
{
    ChildResult f = run_child([&](const LineWriter& out) { format_base_image(base_, out); },
                              o_.verbose);
    if (f.lines.empty() || f.lines.back() != "done")
        throw std::runtime_error("cannot format the base image");
    ChildResult d = run_child(
        [&](const LineWriter& out) { prepare_disk(o_.workload, base_, out); }, o_.verbose);
    if (d.lines.empty() || d.lines.back() != "done")
        throw std::runtime_error("cannot record the base image: " +
                                 (d.lines.empty() ? d.describe() : d.lines.back()));
    copy(base_, cut_);
    const power_cut::Settings observe = device(0, false);
    ChildResult w = run_child(
        [&](const LineWriter& out) { run_workload(o_.workload, cut_, observe, out); }, o_.verbose);
    const WorkloadProgress p = read_progress(o_.workload, w.lines);
    if (!p.finished || w.lines.empty())
        throw std::runtime_error("the uncut workload fails: " + p.failure + " (" +
                                 w.describe() + ")");
    // The checks themselves must pass on the disk of the whole workload.
    const CheckResult whole = read_check(run_child(
        [&](const LineWriter& out) { check_recovery(o_.workload, p, cut_, out); }, o_.verbose));
    if (!whole.failures.empty())
        throw std::runtime_error("the disk of the uncut workload fails the checks: " +
                                 whole.failures[0]);
    if (o_.workload.action != Action::Record)
        prepare_states(w, whole);
    for (const std::string& line : w.lines) {
        const std::vector<std::string> x = words(line);
        if (x.size() == 2 && x[0] == "alloc")
            requests_.push_back(std::stoull(x[1]));
    }
    if (o_.workload.allocation_cuts && requests_.empty())
        throw std::runtime_error("the uncut workload tells no write of a block request");
    return std::stoull(words(w.lines.back()).at(1));
}

// A summary cut up: each segment's lines by "ROOT:SLOT" and its data
// blocks, the other lines, the allocated block count.
struct SummaryParts {
    std::map<std::string, std::vector<std::string>> segments;
    std::map<std::string, unsigned long> blocks;
    std::vector<std::string> rest;
    unsigned long allocated = 0;
    std::vector<std::string> lines(const std::string& segment) const
    {
        auto it = segments.find(segment);
        return it == segments.end() ? std::vector<std::string>() : it->second;
    }
    unsigned long blocks_of(const std::string& segment) const
    {
        auto it = blocks.find(segment);
        return it == blocks.end() ? 0 : it->second;
    }
};

SummaryParts summary_parts(const std::vector<std::string>& summary)
{
    static const std::set<std::string> of_segment = {"segment", "start", "stream", "iframes",
                                                     "blocks"};
    SummaryParts parts;
    for (const std::string& line : summary) {
        const std::vector<std::string> w = words(line);
        if (w.size() == 3 && w[0] == "allocated") {
            parts.allocated = std::stoul(w[2]);
        } else if (w.size() > 2 && of_segment.count(w[0]) > 0) {
            parts.segments[w[1]].push_back(line);
            if (w[0] == "blocks")
                parts.blocks[w[1]] = std::stoul(w[2]);
        } else {
            parts.rest.push_back(line);
        }
    }
    return parts;
}

// The recordings of a summary, one line each, whatever root or slot holds
// them: the channel, the segment node's times, length, type, lock and first
// I-frame, its stream, I-frame entries and data blocks; sorted, and the
// allocated block count last. A rebuild makes its roots anew from the
// segment index blocks, in the order the block table lists them, so a cut
// may change where a recording's root stands but not the recording.
std::vector<std::string> recordings(const std::vector<std::string>& summary)
{
    std::map<std::string, std::string> channel_of;  // root position: channel
    std::map<std::string, std::string> of_segment;  // ROOT:SLOT: what the segment has
    std::string allocated;
    for (const std::string& line : summary) {
        const std::vector<std::string> w = words(line);
        if (w.size() > 5 && w[0] == "root") {
            channel_of[w[1]] = w[5];
        } else if (w.size() > 4 && w[0] == "segment") {
            // "segment ROOT:SLOT id N TIMES len ...": the node without its place and id
            std::string& r = of_segment[w[1]];
            r = "chn " + channel_of[w[1].substr(0, w[1].find(':'))] + r;
            for (size_t i = 4; i < w.size(); i++)
                r += " " + w[i];
        } else if (w.size() > 2 && (w[0] == "stream" || w[0] == "iframes" || w[0] == "blocks")) {
            std::string& r = of_segment[w[1]];
            r += " " + w[0];
            for (size_t i = 2; i < w.size(); i++)
                r += " " + w[i];
        } else if (w.size() == 3 && w[0] == "allocated") {
            allocated = line;
        }
    }
    std::vector<std::string> out;
    for (const auto& s : of_segment)
        out.push_back(s.second);
    std::sort(out.begin(), out.end());
    out.push_back(allocated);
    return out;
}

// What a delete workload compares: the whole summary of the repaired disk,
// or, for a live trim, whose segment's end depends on the cut, the start of
// each segment.
std::vector<std::string> Sweep::state_of(const CheckResult& check) const
{
    if (o_.workload.action == Action::Rebuild)
        return recordings(check.summary);
    if (works_on_files(o_.workload.action)) {  // the recording, whatever the files hold
        std::vector<std::string> recording;
        for (const std::string& line : check.summary)
            if (line.compare(0, 10, "allocated ") != 0)
                recording.push_back(line);
        return recording;
    }
    if (o_.workload.action != Action::TrimLive)
        return check.summary;
    std::vector<std::string> starts;
    for (const std::string& line : check.summary)
        if (line.compare(0, 6, "start ") == 0)
            starts.push_back(line);
    return starts;
}

// The states before and after the delete or trim: after, from the disk of
// the uncut run; before, from the prepared disk (which must pass the checks
// too), or for a live trim from the start the run told before its trim.
void Sweep::prepare_states(const ChildResult& uncut_run, const CheckResult& uncut)
{
    after_ = state_of(uncut);
    // A mend of the block table changes no recording: every cut must end
    // as the uncut repair did.
    if (o_.workload.action == Action::KeyMerge) {
        before_ = after_;
        return;
    }
    // Nor does the rebuild of an index lose a recording; a recovery after
    // the uncut one has nothing left to do.
    if (o_.workload.action == Action::Rebuild) {
        before_ = after_;
        const size_t segments = size_t(std::count_if(
            uncut.summary.begin(), uncut.summary.end(),
            [](const std::string& line) { return line.compare(0, 8, "segment ") == 0; }));
        if (segments != o_.workload.channels * o_.workload.segments + 1)
            throw std::runtime_error("the uncut recovery leaves " + std::to_string(segments) +
                                     " segments");
        if (uncut.recovery_changes != 0)
            throw std::runtime_error("a recovery after the uncut one changes the image");
        return;
    }
    if (o_.workload.action == Action::TrimLive) {
        for (const std::string& line : uncut_run.lines)
            if (line.compare(0, 7, "before ") == 0)
                before_.push_back("start " + line.substr(7));
    } else {
        copy(base_, check_);
        const WorkloadProgress none = read_progress(o_.workload, {});
        const CheckResult before = read_check(run_child(
            [&](const LineWriter& out) { check_recovery(o_.workload, none, check_, out); },
            o_.verbose));
        if (!before.failures.empty())
            throw std::runtime_error("the prepared disk fails the checks: " + before.failures[0]);
        before_ = state_of(before);
    }
    // The work on named files leaves the recording as it was.
    if (works_on_files(o_.workload.action)) {
        if (before_.empty() || before_ != after_)
            throw std::runtime_error("the uncut work on the named files changes the recording: "
                                     "before and after " + first_difference(before_, after_));
        return;
    }
    if (before_.empty() || before_ == after_)
        throw std::runtime_error("the uncut delete or trim changes nothing");
    if (o_.workload.action == Action::DeleteStretch || o_.workload.action == Action::LockRange)
        between_ = split_state();
    if (o_.workload.action != Action::Overwrite)
        return;
    for (const std::string& line : uncut_run.lines) {
        const std::vector<std::string> w = words(line);
        if (w.size() == 3 && w[0] == "stamp")
            stamps_[w[1]] = std::stoul(w[2]);
    }
    for (const auto& s : summary_parts(before_).segments)
        if (stamps_.count(s.first) == 0)
            throw std::runtime_error("the uncut pass tells no owner stamp of segment " + s.first);
    const std::string own = overwrite_state(after_);
    if (!own.empty())
        throw std::runtime_error("the disk of the uncut pass fails its own state check: " + own);
}

// The delete of a stretch splits it out, attributes unchanged, and then
// deletes its piece whole: the state between the two, from an uncut split of
// the same stretch on a copy of the prepared disk (its workload checks the
// pieces against the old segment). The lock of a range splits its first
// segment, then its second, and counts the root's summary at the end: the
// state between, from an uncut split of the first segment alone with the
// lock's attributes and no new summary.
std::vector<std::string> Sweep::split_state()
{
    Workload split = o_.workload;
    const bool lock = split.action == Action::LockRange;
    split.action = Action::Split;
    if (lock)
        split.root_summary = false;
    else
        split.stretch.mask = 0;
    copy(base_, check_);
    const power_cut::Settings observe = device(0, false);
    ChildResult w = run_child(
        [&](const LineWriter& out) { run_workload(split, check_, observe, out); }, o_.verbose);
    const WorkloadProgress p = read_progress(split, w.lines);
    if (!p.finished)
        throw std::runtime_error("the uncut split of the stretch fails: " + p.failure);
    const CheckResult split_disk = read_check(run_child(
        [&](const LineWriter& out) { check_recovery(split, p, check_, out); }, o_.verbose));
    if (!split_disk.failures.empty())
        throw std::runtime_error("the disk of the uncut split fails the checks: " +
                                 split_disk.failures[0]);
    const std::vector<std::string> state = state_of(split_disk);
    if (state == before_ || state == after_)
        throw std::runtime_error("the split of the stretch leaves the disk as before or as after");
    return state;
}

// After a cut in a delete or trim the disk is exactly as before it or as
// after it, never in between (the delete of a stretch: or as after its
// split).
std::string Sweep::check_state(const CheckResult& check)
{
    const std::vector<std::string> now = state_of(check);
    if (works_on_files(o_.workload.action)) {
        outcomes_[check.outcome]++;
        return now == before_ ? "" : "the recording is not as before the work on the named "
                                     "files: before and now " + first_difference(before_, now);
    }
    t_.as_before += now == before_;
    t_.as_after += now == after_;
    if (o_.workload.action == Action::Overwrite) {
        const std::string fault = overwrite_state(now);
        t_.between += fault.empty() && now != before_ && now != after_;
        return fault;
    }
    t_.between += !between_.empty() && now == between_;
    if (now == before_ || now == after_ || (!between_.empty() && now == between_))
        return "";
    return "the disk is neither as before nor as after the change: before and now " +
           first_difference(before_, now) + "; after and now " + first_difference(after_, now);
}

// An overwrite pass deletes or trims one segment at a time, each under the
// journal: after a cut the disk is as after the first few of its changes.
// Every segment is as before or as after the uncut pass; none that the pass
// changed and the cut left changed is younger than one that the pass changed
// and the cut left as before (the trim, the pass's last change, stands only
// with all the rest); the root nodes are as before or as after, and the
// allocated blocks are those before less the data blocks that the changes
// which stand gave up.
std::string Sweep::overwrite_state(const std::vector<std::string>& now) const
{
    const SummaryParts before = summary_parts(before_), after = summary_parts(after_),
                       got = summary_parts(now);
    std::set<std::string> keys;
    for (const SummaryParts* p : {&before, &after, &got})
        for (const auto& s : p->segments)
            keys.insert(s.first);
    std::vector<std::string> stand, undone;  // changes of the pass
    unsigned long freed = 0;
    for (const std::string& k : keys) {
        const std::vector<std::string> b = before.lines(k), a = after.lines(k), n = got.lines(k);
        if (b == a && n != b)
            return "segment " + k + ", which the pass leaves alone, is not as before: " +
                   first_difference(b, n);
        if (b == a)
            continue;
        if (n == b) {
            undone.push_back(k);
        } else if (n == a) {
            stand.push_back(k);
            freed += before.blocks_of(k) - after.blocks_of(k);
        } else {
            return "segment " + k + " is neither as before nor as after the pass: before and now " +
                   first_difference(b, n) + "; after and now " + first_difference(a, n);
        }
    }
    for (const std::string& s : stand)
        for (const std::string& u : undone) {
            const unsigned long stamp = stamps_.at(s), older = stamps_.at(u);
            const bool trim = after.segments.count(s) > 0;
            if (older < stamp || (older == stamp && trim))
                return "the pass's change of segment " + s + " (stamp " + std::to_string(stamp) +
                       ") stands, that of segment " + u + " (stamp " + std::to_string(older) +
                       ") does not";
        }
    if (got.rest != before.rest && got.rest != after.rest)
        return "the root nodes are neither as before nor as after the pass: before and now " +
               first_difference(before.rest, got.rest);
    if (got.allocated + freed != before.allocated)
        return std::to_string(got.allocated) + " blocks are allocated, " +
               std::to_string(before.allocated) + " before the pass less " +
               std::to_string(freed) + " data blocks of the changes that stand";
    return "";
}

// The repairing mount of cut point `n`, cut at each of its own writes in
// turn; each time the mount after must end as the uncut repair did.
std::vector<std::string> Sweep::recut_recovery(const CheckResult& uncut)
{
    std::vector<std::string> failures;
    t_.recut_points++;
    for (unsigned long long k = 1; k <= uncut.recovery_writes; k++) {
        copy(cut_, recut_);
        const power_cut::Settings cut_at_k = device(k, false);
        ChildResult m = run_child(
            [&](const LineWriter& out) { mount_and_unmount(recut_, cut_at_k, out); }, o_.verbose);
        if (!m.exited || m.exit_code != kCutExit) {
            failures.push_back("the repairing mount cut at its write " + std::to_string(k) +
                               " was not cut (" + m.describe() + ")");
            break;
        }
        t_.recuts++;
        ChildResult s =
            run_child([&](const LineWriter& out) { summarize_recovered(recut_, out); }, o_.verbose);
        const CheckResult again = read_check(s);
        if (again.summary == uncut.summary && again.failures.empty())
            continue;
        const std::string what = again.failures.empty()
                                     ? "uncut repair and after the re-cut: " +
                                           first_difference(uncut.summary, again.summary)
                                     : again.failures[0];
        failures.push_back("repair cut at its write " + std::to_string(k) +
                           " ends elsewhere: " + what);
        t_.recut_failures++;
    }
    return failures;
}

void Sweep::report(unsigned long long n, const std::vector<std::string>& failures,
                   const CheckResult& check)
{
    t_.points++;
    t_.beyond_sum += check.frames_beyond_sync;
    t_.beyond_max = std::max(t_.beyond_max, check.frames_beyond_sync);
    t_.lost_sum += check.frames_lost;
    t_.lost_max = std::max(t_.lost_max, check.frames_lost);
    t_.orphans_max = std::max(t_.orphans_max, check.orphans);
    if (!failures.empty())
        t_.failed_points++;
    const std::string where = o_.workload.name + " " + o_.mode_name + " cut at write " +
                              std::to_string(n);
    for (const std::string& f : failures)
        printf("FAIL %s: %s\n", where.c_str(), f.c_str());
    if (o_.verbose && failures.empty())
        printf("ok   %s: %lu frames beyond the last sync, %lu orphans, repair %lu writes\n",
               where.c_str(), check.frames_beyond_sync, check.orphans, check.recovery_writes);
    fflush(stdout);
}

// One cut point; false when the workload ended before its Nth write.
bool Sweep::cut_point(unsigned long long n)
{
    copy(base_, cut_);
    const power_cut::Settings cut_at_n = device(n, o_.reorder);
    ChildResult w = run_child(
        [&](const LineWriter& out) { run_workload(o_.workload, cut_, cut_at_n, out); }, o_.verbose);
    const WorkloadProgress progress = read_progress(o_.workload, w.lines);
    if (progress.finished)
        return false;
    std::vector<std::string> failures;
    if (!w.exited || w.exit_code != kCutExit)
        failures.push_back("the recording was not cut but ended with " + w.describe() + ": " +
                           progress.failure);
    copy(cut_, check_);
    const CheckResult check = read_check(run_child(
        [&](const LineWriter& out) { check_recovery(o_.workload, progress, check_, out); },
        o_.verbose));
    failures.insert(failures.end(), check.failures.begin(), check.failures.end());
    const std::string state = o_.workload.action != Action::Record ? check_state(check) : "";
    if (!state.empty())
        failures.push_back(state);
    if (check.key_repair >= 0 && check.key_repair <= QZFS_KEY_REPAIR_SCAN)
        t_.key_repairs[check.key_repair]++;
    t_.recovered_again += check.recovery_changes > 0;
    // Sector writes are whole or absent: a cut can leave the copies of a
    // record different, never a record that fails its check.
    if (o_.workload.allocation_cuts && check.key_repair > QZFS_KEY_REPAIR_BACKUP)
        failures.push_back("the mount after the cut mends the block table at level " +
                           std::to_string(check.key_repair) + ", above a new backup");
    if (o_.recut_stride > 0 && t_.points % o_.recut_stride == 0) {
        const std::vector<std::string> more = recut_recovery(check);
        failures.insert(failures.end(), more.begin(), more.end());
    }
    report(n, failures, check);
    return true;
}

void Sweep::print_totals(unsigned long long writes, double seconds) const
{
    const std::string what = o_.workload.name + " " + o_.mode_name;
    if (o_.workload.allocation_cuts)
        printf("%s: %zu of the device writes belong to block requests\n", what.c_str(),
               requests_.size());
    printf("%s: the workload makes %llu device writes; %lu cut points tried (from %llu, "
           "stride %llu), %lu failed\n",
           what.c_str(), writes, t_.points, o_.from, o_.stride, t_.failed_points);
    printf("%s: frames recovered beyond the last sync: %lu in all, at most %lu at one cut point\n",
           what.c_str(), t_.beyond_sum, t_.beyond_max);
    if (t_.lost_sum > 0 || o_.reorder)
        printf("%s: synced frames lost: %lu in all, at most %lu at one cut point\n", what.c_str(),
               t_.lost_sum, t_.lost_max);
    if (o_.recut_stride > 0)
        printf("%s: repairing mount cut again at %lu writes of %lu cut points, %lu ended "
               "elsewhere\n",
               what.c_str(), t_.recuts, t_.recut_points, t_.recut_failures);
    if (o_.workload.action == Action::Overwrite)
        printf("%s: %lu cut points ended as before the pass, %lu as after it, %lu in between\n",
               what.c_str(), t_.as_before, t_.as_after, t_.between);
    else if (o_.workload.action == Action::DeleteStretch)
        printf("%s: %lu cut points ended as before the change, %lu split and not deleted, %lu "
               "as after it\n",
               what.c_str(), t_.as_before, t_.between, t_.as_after);
    else if (o_.workload.action == Action::LockRange)
        printf("%s: %lu cut points ended as before the change, %lu with the first segment "
               "locked and the second not, %lu as after it\n",
               what.c_str(), t_.as_before, t_.between, t_.as_after);
    else if (o_.workload.action == Action::KeyMerge)
        printf("%s: %lu cut points ended as the uncut repair\n", what.c_str(), t_.as_after);
    else if (o_.workload.action == Action::Rebuild)
        printf("%s: %lu cut points ended as the uncut recovery; at %lu the recovery after the "
               "cut changed the image again, at %lu it found nothing to do\n",
               what.c_str(), t_.as_after, t_.recovered_again, t_.points - t_.recovered_again);
    else if (works_on_files(o_.workload.action))
        for (const auto& o : outcomes_)
            printf("%s: %lu cut points ended with%s\n", what.c_str(), o.second,
                   o.first.empty() ? " no outcome told" : (" " + o.first).c_str());
    else if (o_.workload.action != Action::Record)
        printf("%s: %lu cut points ended as before the change, %lu as after it\n", what.c_str(),
               t_.as_before, t_.as_after);
    const unsigned long* k = t_.key_repairs;
    printf("%s: block table mends at the mounts after the cuts: %lu none, %lu backup, %lu copy, "
           "%lu merge, %lu scan\n",
           what.c_str(), k[0], k[1], k[2], k[3], k[4]);
    printf("%s: orphan blocks after a repair: at most %lu\n", what.c_str(), t_.orphans_max);
    printf("%s: %.1f s, %.0f ms a cut point\n", what.c_str(), seconds,
           t_.points > 0 ? seconds * 1000 / double(t_.points) : 0.0);
}

int Sweep::run()
{
    const auto began = std::chrono::steady_clock::now();
    const unsigned long long writes = prepare_base();
    printf("%s %s: %llu device writes in the uncut workload\n", o_.workload.name.c_str(),
           o_.mode_name.c_str(), writes);
    fflush(stdout);
    if (requests_.empty()) {
        for (unsigned long long n = o_.from; n <= o_.to && n <= writes; n += o_.stride)
            if (!cut_point(n))
                break;
    } else {
        std::vector<unsigned long long> points;
        for (unsigned long long n : requests_)
            if (n >= o_.from && n <= o_.to)
                points.push_back(n);
        for (size_t i = 0; i < points.size(); i += o_.stride)
            if (!cut_point(points[i]))
                break;
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    print_totals(writes, seconds);
    return t_.failed_points > 0 && !o_.reorder ? 1 : 0;
}

} // namespace

int run_sweep(const SweepOptions& options)
{
    try {
        Sweep sweep(options);
        return sweep.run();
    } catch (const std::exception& e) {
        fprintf(stderr, "qzfs_powercut: %s\n", e.what());
        return 2;
    }
}

} // namespace powercut

