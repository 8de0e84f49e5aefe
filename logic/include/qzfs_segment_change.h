// What the changes of one segment (the delete by time, the front trim, the
// journal's roll-back) share: the copy of a segment they work on, taken from
// its writer or from the index, a shared data block that only loses a
// share, and the journal record of a delete. All of it runs under the disk
// lock.
#ifndef QZFS_SEGMENT_CHANGE_H
#define QZFS_SEGMENT_CHANGE_H

#include "qzfilesystem.h"

#include <vector>

// A chain handed out as a new[] array, taken over and freed.
std::vector<uint32_t> qzfs_take_chain(uint32_t* list, uint32_t num);

// The writer recording segment `segment` of root `root_index`, or null.
_opened_stream_segment_* qzfs_segment_writer(CQzFileSystem& fs, unsigned long root_index,
                                             unsigned long segment);

// Copies of the root node, the segment node and the root's two chains.
struct segment_copy {
    unsigned long root_index = 0;
    unsigned long segment = 0;
    _opened_stream_segment_* writer = nullptr;  // null unless being recorded
    _root_index_node_dev_ root;
    _stream_segment_index_node_dev_ node;  // a writer's: length less its cut offset
    std::vector<uint32_t> ssi_blocks;
    std::vector<uint32_t> iframe_blocks;
    segment_copy();
};

// From the writer of a segment being recorded: its live node, whose length
// counts from the segment's birth, less the bytes already cut from its
// front. 0, or -1 (with its message) while the writer has no first I-frame.
int qzfs_copy_live_segment(_opened_stream_segment_* writer, segment_copy* out);

// From the index, for a closed segment: -1 (with its message) when the root
// or the node is not a segment's; 1 when all but the I-frame chain was read
// (" Read_iframe_index_block_list failed" printed); 0 for all of it.
// `show_start` adds the node's first I-frame to the lookup's failure line.
int qzfs_copy_closed_segment(CQzFileSystem& fs, segment_copy* out, bool show_start);

// A cut or split moved the head of a segment being recorded: the writer's
// live node takes the new first I-frame, start time and owner stamp of
// `node`, and its cut offset grows by the `cut` bytes that left its front.
void qzfs_move_live_head(_opened_stream_segment_* writer,
                         const _stream_segment_index_node_dev_& node, uint64_t cut);

// Whether the data block of a block entry met behind `blocks_passed` whole
// blocks after the first I-frame's block lies past the last byte of a
// segment of `len` bytes: it is then the next segment's, even when the
// segment's own last block holds no I-frame to end a scan at.
bool qzfs_block_past_segment(const CQzFileSystem& fs, const _iframe_index_node_dev_& first,
                             uint32_t blocks_passed, uint64_t len);

// A block that another segment still uses, by the share count of `entry`
// (its block entry), stays; the count goes down by one and is written back.
// True when it stays.
bool qzfs_keep_shared_block(CQzFileSystem& fs, const segment_copy& copy, uint32_t block,
                            _iframe_index_place_& entry);

// The journal record of a delete: the copy's old values and the range of
// block entries from `first_block` to `last_block`, where a roll-back finds
// every data block the delete may free and both share counts it may lower.
// Without a last block entry the range is the first one alone.
_action_delete_ qzfs_delete_record(const segment_copy& copy,
                                   const _iframe_index_place_& first_block,
                                   const _iframe_index_place_& last_block);

// Arms the journal with `record`; the line names the old ids, first I-frame
// and length.
void qzfs_arm_delete_journal(CQzFileSystem& fs, const segment_copy& copy,
                             const _action_delete_& record);

#endif
