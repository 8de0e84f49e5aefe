// disk_access: what the host tool does below the exported interface.
//
// An application reaches a disk through the api_qzfs_... calls alone, and so
// does the tool wherever they do the job. A few of its verbs look at, or
// write, what those calls keep hidden: the root and segment index entries
// one by one, the I-frame index of a root entry, the key info block and the
// block table. This is the one place where the tool does that; the records
// below carry what it prints, so the rest of the tool needs nothing but the
// public header. Every function but disk_recover_key_info and disk_rebuild
// takes the id of a mounted disk and holds that disk's lock while it reads
// or writes.
#ifndef QZFS_TOOL_DISK_ACCESS_H
#define QZFS_TOOL_DISK_ACCESS_H

#include "qzfilesystem_api.h"

#include <cstdint>
#include <string>
#include <vector>

// The key info block and what its header says.
struct DiskKeyInfo {
    unsigned long key_block = 0;
    unsigned long backup_key_block = 0;
    unsigned long owner_stamp = 0;
    std::string label;    // empty when the header cannot be read
    std::string version;  // likewise
};

// The block table counted by block type: counts[type] for types 1 to 10.
const int kDiskBlockTypes = 11;
extern const char* const kDiskBlockTypeNames[kDiskBlockTypes];

// What a position of the root or segment index holds.
enum class IndexSlot {
    End,     // the end of the index: no used entry follows
    Unused,  // a free (or otherwise not normal) entry
    Used     // an entry with recordings
};

// One used root index entry: a day, channel, stream type and name.
struct RootEntry {
    uint8_t year = 0, month = 0, day = 0;
    uint8_t channel = 0, stream_type = 0;
    std::string name;
    uint16_t record_types = 0;
    uint32_t segment_index_block = 0;
};

// One stream segment entry of a root entry.
struct SegmentEntry {
    uint8_t start_hour = 0, start_minute = 0, start_second = 0;
    bool closed = false;  // false while it records: no end time yet
    uint8_t end_hour = 0, end_minute = 0, end_second = 0;
    uint64_t len = 0;
    uint8_t record_type = 0;
    bool locked = false;
    uint32_t start_iframe = 0;
    bool pre_record = false;
};

// The head of the I-frame index of a root entry.
struct IframeIndexHead {
    uint32_t first_block = 0;
    uint32_t blocks = 0;
    uint32_t iframes = 0;      // I-frame entries
    uint32_t block_entries = 0; // entries that stand for a data block
};

// One entry of an I-frame index: an I-frame, or a data block the writer
// opened (its ordinal among the root's data blocks and its share count).
struct IframeEntry {
    bool iframe = false;
    uint8_t hour = 0, minute = 0, second = 0;
    uint32_t block = 0;
    uint32_t offset = 0;  // offset in the block; for a block entry its ordinal
    uint64_t stream_offset = 0;
    uint32_t shared_by = 0;
};

// What a front trim of a segment found and did. A refusal leaves the disk
// as it was and says why.
enum class TrimStatus {
    Done,     // the library made the cut (or took the segment whole)
    Refused,  // nothing was written; `refusal` says why
    Failed    // the library's call failed
};
struct TrimOutcome {
    SegmentEntry before;
    SegmentEntry after;        // the segment after the cut, unless `whole`
    bool whole = false;        // the segment went whole
    bool root_deleted = false; // and its root index entry with it
    uint64_t taken = 0;        // bytes taken from the front
    std::string refusal;
};

// The action journal in the header of the first root index block: the
// action armed (0 none, 1 delete, 3 split), its stored and computed sums
// and the record, decoded as a delete and as a split.
struct JournalDeleteRecord {
    uint32_t root = 0, segment = 0, start_iframe = 0;
    uint64_t len = 0;
    uint8_t root_id = 0, segment_id = 0;
    uint8_t start_hour = 0, start_minute = 0, start_second = 0;
    uint32_t first_block_entry = 0, first_block_shares = 0;
    uint32_t last_block_entry = 0, last_block_shares = 0;
};
struct JournalSplitRecord {
    uint32_t root = 0, segment = 0, start_iframe = 0, split_end_iframe = 0;
};
struct JournalState {
    unsigned long block = 0;
    uint32_t action = 0;
    uint32_t stored_sum = 0, computed_sum = 0;
    bool data_clear = true;  // every record byte is 0
    JournalDeleteRecord deletion;
    JournalSplitRecord split;
};

// How far the last load of a disk's key info had to go to stand.
enum class KeyRepairLevel {
    None,    // both copies of the block table sound and equal
    Backup,  // the backup was missing or stale and is written anew
    Copy,    // a damaged copy was replaced by the clean one
    Merge,   // both damaged: merged, the blocks' own heads as third witness
    Scan     // no key info block left: a new table from the blocks' own heads
};
// What that load found and mended; counts are of table records.
struct DiskKeyRepair {
    KeyRepairLevel level = KeyRepairLevel::None;
    unsigned long loaded_from = 0;  // the key place whose table was loaded
    bool loaded_primary = true;     // that place is the key block, not the backup
    unsigned long key_block = 0, backup_key_block = 0;  // where they stand after it
    unsigned long primary_damaged = 0, backup_damaged = 0;
    unsigned long copied_from = 0;     // the copy written over a damaged or missing one
    unsigned long backup_written = 0;  // where that copy went
    unsigned long merged_into = 0;     // the key block a merge or a scan wrote
    unsigned long from_other_copy = 0, from_block_head = 0;
    unsigned long marked_bad = 0, marked_free = 0;
};

// The key info repair of the mount of disk `hdd`; false when none is mounted.
bool disk_key_repair(unsigned char hdd, DiskKeyRepair& out);

// What a key info recovery of an unmounted image came to.
enum class KeyRecovery {
    Done,        // the table loads; `out` says what was mended
    NoKeyBlock,  // no key place holds a key info block, and no scan was allowed
    Failed       // the image did not open, or a repair failed
};
// Runs the key info repair levels on the unmounted image at `path` as disk
// `hdd` (registered for the run, so no mount of that id comes in between),
// the scan for a new table included when `allow_scan`, and syncs it. A run
// that finds no key block without the scan writes nothing.
KeyRecovery disk_recover_key_info(unsigned char hdd, const std::string& path, bool allow_scan,
                                  DiskKeyRepair& out);

// What a rebuild of lost indexes from the data blocks found and made.
struct DiskRebuild {
    unsigned long data_blocks = 0;    // data blocks looked at
    unsigned long streams = 0;        // streams they make up
    unsigned long small_streams = 0;  // of them small streams, left as they are
    unsigned long sound = 0;          // streams whose indexes checked out
    unsigned long rebuilt = 0;        // streams given a new segment and I-frame index
    unsigned long given_up = 0;       // streams with a broken index and no usable I-frame
    unsigned long segments = 0;       // segments the rebuild wrote
    unsigned long entries = 0;        // I-frame index entries it wrote
    bool root_rebuilt = false;        // the root index was made anew
};
// The application's recovery of the unmounted image at `path` as disk `hdd`:
// the key info repair (no scan), then the rebuild. False when it failed;
// `key` and `out` say how far it came.
bool disk_rebuild(unsigned char hdd, const std::string& path, DiskKeyRepair& key,
                  DiskRebuild& out);

// Key block places, owner stamp, label and version of the disk.
bool disk_key_info(unsigned char hdd, DiskKeyInfo& out);

// The disk's free bytes as its own count has them: free blocks times block
// size. api_qzfs_get_hdd_info leaves out the group's reserve for a disk in
// a group (down to 0), while the overwrite pass compares the whole count.
bool disk_free_bytes(unsigned char hdd, unsigned long long& bytes);

// Counts the blocks of the disk by type; 0 on success.
int disk_count_blocks(unsigned char hdd, unsigned long counts[kDiskBlockTypes]);

// The first block of the root index; false when the disk has none.
bool disk_root_index_block(unsigned char hdd, unsigned long& block);

// Reads root index position `position`; 0 on success, with `slot` saying
// what it holds and `entry` filled in for a used one.
int disk_root_entry(unsigned char hdd, uint32_t position, IndexSlot& slot, RootEntry& entry);

// Reads segment `index` of root entry `root`, as disk_root_entry does.
int disk_segment_entry(unsigned char hdd, uint32_t root, uint32_t index, IndexSlot& slot,
                       SegmentEntry& entry);

// The head of the I-frame index of root entry `root` and at most `limit`
// of its first entries; 0 on success.
int disk_iframe_index(unsigned char hdd, uint32_t root, unsigned long limit, IframeIndexHead& head,
                      std::vector<IframeEntry>& entries);

// Adds an empty root index entry for the day, channel, stream type, name and
// record type of `para`, with its segment and I-frame index blocks; 0 on
// success, with its position.
int disk_add_root_entry(unsigned char hdd, const _qzfs_k4t_create_ss_para_& para,
                        uint32_t& position);

// Adds a closed segment of `seconds` seconds from the start time of `para`
// to root entry `root`: one I-frame a second in its I-frame index and a data
// block taken for every eight seconds, spread over blocks of `block_size`
// bytes; no frames are written. 0 on success, with the segment's index.
int disk_add_synthetic_segment(unsigned char hdd, uint32_t root, const _qzfs_k4t_create_ss_para_& para,
                               unsigned seconds, unsigned long block_size, uint32_t& index);

// Cuts `seconds` seconds from the front of segment `index` of root entry
// `root`: it then begins at its first I-frame at or after its start plus
// `seconds`. Refused, with nothing written: 0 seconds, a segment that is not
// there, a cut at or past the end of a closed segment, and one with no
// I-frame of the segment from that moment on (which the library would take
// as a delete of the whole segment).
TrimStatus disk_trim_segment_seconds(unsigned char hdd, uint32_t root, uint32_t index,
                                     unsigned seconds, TrimOutcome& out);

// The overwrite planner's cut: `bytes` bytes or a little more from the
// front of the segment, at an I-frame, or the whole segment when less than
// a block would remain. Refused: 0 bytes and a segment that is not there.
TrimStatus disk_trim_segment_bytes(unsigned char hdd, uint32_t root, uint32_t index,
                                   uint64_t bytes, TrimOutcome& out);

// How a time-range delete left a segment.
enum class RangeCut {
    None,    // as it was: the range held no I-frame to cut at
    Whole,   // the segment went whole
    Head,    // it lost its head and starts later
    Tail,    // it lost its tail and ends earlier
    Stretch  // a stretch inside went, leaving two pieces
};
// One segment of a root entry, by its index.
struct SegmentPiece {
    uint32_t index = 0;
    SegmentEntry entry;
};
// What a time-range delete found and did: `before` and `refusal` as for a
// trim; `pieces` are what is left of the segment, in order of start time
// (its own index, or those the cut gave the pieces).
struct RangeOutcome : TrimOutcome {
    RangeCut cut = RangeCut::None;
    std::vector<SegmentPiece> pieces;
};

// Takes the seconds of the day [from, to] out of segment `index` of root
// entry `root`, as the library's delete by time range does: whole when the
// range covers it, else its head, its tail or a stretch inside it (split
// off, then deleted), cut at I-frames. Refused, with nothing written: an
// empty or reversed range, a segment that is not there, a locked one, a
// pre-recording, one not closed or open for reading, and a tail cut with no
// I-frame of the segment from `from` on.
TrimStatus disk_delete_time_range(unsigned char hdd, uint32_t root, uint32_t index, unsigned from,
                                  unsigned to, RangeOutcome& out);

// Reads the action journal of the disk; 0 on success.
int disk_journal(unsigned char hdd, JournalState& out);

// Days of a month of a year counted from 2000 (0..99), by the library's own
// calendar, so that the tool accepts exactly the dates the library does; 0
// for a year or month out of range.
unsigned library_days_in_month(unsigned year, unsigned month);

// For the programs that build index-only recordings inside the library's
// lock (segment-add here, the scale benchmark): what a writer puts in the
// record of each data block it opens. The stream's channel, type and day,
// the segment's attribute bytes, the first block of the root's I-frame
// index and the segment's first entry (which a rebuild from the data groups
// blocks by), and the block's ordinal.
struct SyntheticBlockOwner {
    uint32_t iframe_head = 0;
    uint32_t start_iframe = 0;
    uint8_t stream_type = 0;
};

// Takes one data block for the day of `para`, as a writer opening a block
// would, on `fs` with its disk lock held; 0, or -1 when no block is free.
class CQzFileSystem;
int take_data_block(CQzFileSystem& fs, const _qzfs_k4t_create_ss_para_& para,
                    const SyntheticBlockOwner& owner, uint32_t ordinal, uint32_t& block);

#endif
