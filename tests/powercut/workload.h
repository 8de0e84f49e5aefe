// The recordings the rig cuts: what each does, run in a child process that
// tells its parent how far it got, and the streams the parent regenerates
// from that to compare with what a disk gives back.
#ifndef QZFS_POWERCUT_WORKLOAD_H
#define QZFS_POWERCUT_WORKLOAD_H

#include "frame_source.h"
#include "power_cut.h"
#include "rig_process.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace powercut {

// What the cut falls on. Record: the recording itself. The others record
// their disk without a cut first and the cut then falls on a whole delete
// by id (Delete), a front trim by bytes of a closed segment (Trim), a front
// trim of the segment being recorded, which records on behind it and is
// closed (TrimLive), one overwrite pass over the disk's group, which
// removes the oldest unlocked segments and trims the next (Overwrite), or a
// change by time of a closed segment (see Stretch): its stretch split out
// with other attributes (Split), split out and deleted (DeleteStretch), or
// its end moved back to the stretch's start (Shorten), or a lock over the
// stretch through the API's lock by time, which splits every segment of the
// channel that it meets (LockRange); the unmount follows. KeyMerge: the
// recorded disk has its block table damaged so that the mount must merge
// the two copies, and the cut falls on that repairing mount and its unmount.
// Rebuild: the recorded disk has the I-frame index of one root and the
// segment index of another wiped, and the cut falls on the application's
// recovery of the unmounted disk, which makes them anew from the data.
// FileWrite, FileDelete: the recorded disk also gets named files (see
// prepared_files), and the cut falls on writes to them through the API
// (FileWrite) or on the delete of one and the rename of another
// (FileDelete); the unmount follows.
enum class Action { Record, Delete, Trim, TrimLive, Overwrite, Split, DeleteStretch, Shorten,
                    LockRange, KeyMerge, Rebuild, FileWrite, FileDelete };

// The stretch a change by time works on, in seconds from its segment's
// start: [from, to], each on an I-frame (the frames have one a second); `to`
// may lie past the segment's end, and past the start of the next segment
// (LockRange). A split gives the stretch's piece the attributes of `mask`
// (bit 0 lock and lock type, bit 1 record type).
struct Stretch {
    unsigned from = 0;
    unsigned to = 0;
    unsigned char mask = 0;
    unsigned char lock = 0;
    unsigned char record_type = 0;
    uint32_t lock_type = 0;
};

struct Workload {
    std::string name;
    unsigned channels;
    unsigned seconds;     // of stream time per channel, from the frame source's start
    unsigned sync_every;  // seconds of stream between two api_qzfs_fsync calls
    Action action = Action::Record;
    unsigned segments = 1;  // per channel, of equal length, one behind the other
    bool split = false;     // the first segment is split in two that share a data block
    // The segment the delete or trim works on (the one an overwrite pass
    // finds locked): of this channel, the target_rank-th by start time.
    unsigned target_channel = 0;
    unsigned target_rank = 0;
    Stretch stretch = {};
    // A Split also counts the root's summary of record types and locks
    // again, as the API's callers of it do; without, it leaves the disk as
    // a LockRange does between its first segment and its second.
    bool root_summary = true;
    // A Record workload cut only at the writes of its block requests: those
    // that land in a key place's table or in a block's head (its own
    // record). The mount after such a cut must need no more than a new
    // backup of the table.
    bool allocation_cuts = false;
    // A Record workload whose write calls each carry this many seconds of
    // frames (0: one frame a call, the channels taking turns).
    unsigned seconds_per_call = 0;
};

// Whether the cut falls on the named files.
inline bool works_on_files(Action action)
{
    return action == Action::FileWrite || action == Action::FileDelete;
}

// Whether the cut falls on a change by time.
inline bool changes_by_time(Action action)
{
    return action == Action::Split || action == Action::DeleteStretch ||
           action == Action::Shorten || action == Action::LockRange;
}

// start: one channel, a new segment and its first three seconds;
// one: one channel, a minute across several data blocks;
// four: four channels taking turns frame by frame, a minute each.
// Each ends with the close of its segments and the unmount.
// delete-last: two channels of 20 s; channel 1's segment, its root's only
// one, is deleted and its root with it;
// delete-one: three segments of 20 s on one channel, the middle one deleted;
// delete-shared: a minute split in two pieces sharing a data block, the
// back piece deleted;
// split-two, split-three, delete-middle, shorten: two segments of 80 s on
// one channel; the first one is split into two pieces (from 45 s on, record
// type 3), into three (30 s to 55 s locked), loses 25 s to 60 s, or ends at
// 50 s. The split pieces share the data blocks where they meet;
// lock-range: the same two segments, locked (lock 3) from 40 s into the
// first to 30 s into the second, which splits each in two;
// trim: a minute on one channel, about two blocks trimmed from its front;
// trim-live: 40 s recorded, the front block and a half trimmed, 10 s more
// recorded, the segment closed;
// alloc: six channels taking turns frame by frame, 40 s each, cut only at
// the writes of its block requests;
// long-calls: one channel, a minute written in calls of 15 s each (more
// than a 4 MiB block takes), a sync after each call;
// key-merge: two channels of 20 s; the disk is unmounted, one data block's
// table record is damaged in both copies and another block's in the
// primary alone, and the cut falls on the mount that merges them;
// rebuild: two channels of 20 s, then 10 s more in a second segment on
// channel 0; the disk is unmounted, the I-frame index blocks of channel 0's
// root and the segment index block of channel 1's are wiped behind their
// own records, and the cut falls on api_qzfs_disk_recovery;
// overwrite: two channels of three 40 s segments each, channel 0's first
// one locked; one overwrite pass that must run is asked for the oldest
// unlocked segment and half the next one;
// file-write: 15 s on one channel, then named files A (a block and
// 54321 bytes) and B (100000 bytes); the cut falls on the making of C
// (mode 0, odd chunks, a sync every fourth, the close) up to a block and
// 77777 bytes, and on the append to A (mode 1) that takes it into a third
// block;
// file-delete: 15 s on one channel, then named files A (two blocks and
// 12345 bytes), B (100000 bytes) and D (5000 bytes); the cut falls on the
// delete of A and the rename of D to E.
bool find_workload(const std::string& name, Workload& out);
std::string workload_names();

// Frames of channel `channel` in every workload: 10 a second, an I-frame
// each second, about 2.5 Mbit a second, so that a minute fills five 4 MiB
// data blocks.
FrameSourceConfig workload_frames(uint8_t channel);

// What the parent knows of a workload child: per channel the frames whose
// write call returned and the frames written before the last api_qzfs_fsync
// (or close) that returned.
struct ChannelProgress {
    unsigned long written = 0;
    unsigned long synced = 0;
};
// Per named file, the size its last returned write and its last returned
// sync (or close) reached, from its start, and whether its delete or
// rename returned.
struct FileProgress {
    unsigned long long written = 0;
    unsigned long long synced = 0;
    bool done = false;
};
struct WorkloadProgress {
    std::vector<ChannelProgress> channels;
    std::map<std::string, FileProgress> files;
    bool finished = false;  // closed and unmounted: the cut never came
    std::string failure;    // a call that failed, as the child told it
};

// In a child: formats a sparse image of 3 GiB at `image`.
void format_base_image(const std::string& image, const LineWriter& out);

// In a child: records the disk of a workload that changes a closed segment
// on `image` without a cut (an Overwrite workload locks its target segment
// by id; a KeyMerge workload then has its block table damaged) and
// unmounts it ("done"); a Rebuild workload then has its indexes wiped;
// nothing for the others.
void prepare_disk(const Workload& workload, const std::string& image, const LineWriter& out);

// In a child: mounts `image` with the emulated device of `device`, runs the
// workload and tells each step on `out`. Only the writes from the recording
// of a Record workload on, or from the delete or trim of the others on, are
// counted and cut; the mount and a TrimLive workload's first 40 s are not
// (a KeyMerge workload: its mount and unmount are all that is cut; a
// Rebuild workload: its recovery of the unmounted disk, whose uncut run
// must change the image).
// An allocation_cuts workload, run in Observe mode, tells each write of a
// block request: "alloc N".
// A TrimLive workload tells the start of its segment before the trim:
// "before " and the segment's start_key (disk_walk.h). An Overwrite workload
// tells each segment's owner stamp before its pass: "stamp ROOT:SLOT N".
void run_workload(const Workload& workload, const std::string& image,
                  const power_cut::Settings& device, const LineWriter& out);
WorkloadProgress read_progress(const Workload& workload, const std::vector<std::string>& lines);

// The first `frames` frames of a channel, as the workload wrote them.
struct ExpectedStream {
    std::vector<uint8_t> bytes;
    std::vector<size_t> ends;  // byte after each frame
    std::vector<bool> iframe;
};
ExpectedStream expected_stream(uint8_t channel, unsigned long frames);

// The named files a file workload's disk gets before the cut, with their
// sizes; `data` is the file data a block holds (its size less 4096).
struct NamedFile {
    std::string name;
    unsigned long long size;
};
std::vector<NamedFile> prepared_files(const Workload& workload, unsigned long long data);
// The sizes file-write grows C and A to.
unsigned long long grown_size(const std::string& name, unsigned long long data);
// The file data of a block on disk 0 (mounted), from its block size; 0
// when the disk tells none.
unsigned long long file_block_data();
// `length` bytes of a named file's content from byte `from`: the same
// whatever call writes them, so that an append continues a file. A renamed
// file keeps the content of its old name.
std::vector<char> file_bytes(const std::string& name, unsigned long long from, size_t length);

// Day of the workloads' recordings.
_k4t_fs_date_time_ workload_start();

} // namespace powercut

#endif
