// Open stream segments: the record behind every descriptor, with its writer
// or reader state, and the constructors and destructors of all three.
//
// Descriptor numbers come in three kinds that must not be confused:
//   ossfd       1..511, handed to the application (CQzfsManager table);
//   inner fd    1..511 per disk, key of the disk's open map;
//   disk ossid  hdd_id << 16 | inner fd, what the ossfd table stores.
#ifndef OPENED_STREAM_SEGMENT_H
#define OPENED_STREAM_SEGMENT_H

#include "qzfilesystem_api.h"
#include "qzfs_index_format.h"

#include <cstdint>

// Inner fds of one disk run from 1 to this value.
const int QZFS_MAX_DISK_INNER_FD = 511;
// Bytes of a reader's cache and of a writer's unit buffer.
const uint32_t QZFS_STREAM_UNIT = 0x10000;
// Frame data of a data block starts here; the bytes before are its head.
const uint32_t QZFS_DATA_BLOCK_HEAD = 4096;

inline int qzfs_disk_ossid(uint8_t hdd_id, int inner_fd) { return (int(hdd_id) << 16) | inner_fd; }
inline uint8_t qzfs_ossid_hdd(int disk_ossid) { return uint8_t((unsigned(disk_ossid) >> 16) & 0xFF); }
inline int qzfs_ossid_inner_fd(int disk_ossid) { return disk_ossid & 0xFFFF; }

// Level of a stream; the flat interface always creates level 2.
enum _qzfs_stream_importance_ {
    QZFS_STREAM_IMPORTANCE_LOW = 0,
    QZFS_STREAM_IMPORTANCE_MIDDLE = 1,
    QZFS_STREAM_IMPORTANCE_NORMAL = 2,
};

// State of a segment open for writing (pWss in messages).
struct _write_stream_segment_ {
    uint32_t block_index;                      // data block being filled, 0 none
    uint32_t block_offset;                     // next write position; 0xFFFFFFFF none
    uint32_t stream_segment_index_block_num;   // the root's segment index chain
    uint32_t* stream_segment_index_block_list;
    uint32_t iframe_list_ptr;                  // nodes waiting in iframe_list
    uint32_t iframe_left_num;                  // I-frame nodes since the last flush
    _iframe_index_node_dev_* iframe_list;      // FS_IFI_BUFFER_NUM nodes, in local byte
                                               // order until the flush writes them
    void* lock;                                // guards iframe_list and its counters
    _k4t_video_frame_info_* frame_info_list;   // infos of the unit buffer
    uint32_t frame_info_capacity;
    uint32_t frame_info_num;
    uint8_t* unit_buffer;                      // 64 KiB gathering unit, null: free path
    uint32_t unit_len;
    uint32_t iframe_block_num;                 // the root's I-frame index chain
    uint32_t* iframe_block_list;
    uint32_t iframe_written_num;               // I-frame nodes in the index
    uint32_t data_block_num;                   // block entries in the index
    uint32_t iframe_buffered_num;              // I-frame nodes in iframe_list
    uint8_t confirm_start_iframe;              // the first I-frame is written
    _qzfs_stream_importance_ importance;
    uint64_t delete_len;                       // bytes cut from the head while recording
    uint8_t first_frame;                       // no I-frame time seen yet
    _k4t_fs_date_time_ date_time;              // segment date, time of the last I-frame
    uint32_t owner_stamp;
    int seek_ossfd;                            // companion reader, -1 none
};

// State of a segment open for reading (pRss). A fixed-size plain record:
// seek and I-frame playback copy it whole to restore a position.
struct _read_stream_segment_ {
    uint32_t read_flag;
    int ossfd_writing;                         // disk ossid of the live writer, -1
    uint32_t block_index;
    uint32_t block_offset;
    uint64_t already_read_len;
    uint8_t need_seek;
    uint8_t index_head_reached;
    uint8_t new_segment_flag;
    uint8_t seek_failed;
    uint32_t play_mode;                        // 0 normal, 1 fast forward, 2 fast back
    uint32_t iframe_block_num;
    uint32_t* iframe_block_list;
    uint8_t* read_cache;
    uint32_t cache_ptr;
    uint32_t cache_len;
    uint32_t iframe_list_num;
    uint32_t iframe_list_pos;
    _iframe_index_node_dev_* iframe_list;
    uint32_t iframe_index;
    uint8_t need_first_iframe;
    uint32_t latest_iframe_index;
    uint32_t first_iframe_index;
    uint32_t first_iframe_block;
    uint32_t first_iframe_block_offset;
    uint64_t first_iframe_offset;
    uint8_t* frame_buffer;
    uint32_t frame_buffer_len;
    uint8_t channel;
    uint16_t record_type_bitmap;
    uint8_t debug_first_read;
};

// One open segment (pOss).
struct _opened_stream_segment_ {
    uint8_t hdd_id;                            // 0xFF until set
    uint8_t read_or_write;                     // K4T_FS_TRUE reader, K4T_FS_FALSE writer
    uint8_t exist_error;                       // an I/O failure happened: refuse all
    uint32_t root_index;
    uint8_t* root_node;                        // 64-byte _root_index_node_dev_ image
    uint32_t stream_segment_index;
    uint8_t* ssi_node;                         // 64-byte _stream_segment_index_node_dev_ image
    void* state;                               // _write_ or _read_stream_segment_
    void* io_channel;                          // this segment's own device handle

    _write_stream_segment_* writer() const { return static_cast<_write_stream_segment_*>(state); }
    _read_stream_segment_* reader() const { return static_cast<_read_stream_segment_*>(state); }
    _root_index_node_dev_* root() const { return reinterpret_cast<_root_index_node_dev_*>(root_node); }
    _stream_segment_index_node_dev_* ssi() const
    {
        return reinterpret_cast<_stream_segment_index_node_dev_*>(ssi_node);
    }
};

void Init_opened_stream_segment(_opened_stream_segment_** oss, uint8_t read_or_write);
void Destory_opened_stream_segment(_opened_stream_segment_** oss);
void Init_write_stream_segment(_write_stream_segment_** wss);
// Frees the block lists, iframe_list, the lock, the frame infos, the unit
// buffer and the record itself.
void Destory_write_stream_segment(_write_stream_segment_** wss);
void Init_read_stream_segment(_read_stream_segment_** rss);
void Destory_read_stream_segment(_read_stream_segment_** rss);

// Checks a creation request; may clear its name. 0 or -1.
int Check_qzfs_create_ss_para(_qzfs_k4t_create_ss_para_* para);

// Length of a live writer's stream that readers may see: written bytes
// less the head cut away and the bytes still held in its unit buffer. Read
// under the writer's lock, as the writer moves it on without the disk lock.
uint64_t writer_visible_len(_opened_stream_segment_* writer);
// A copy of a live writer's segment node, taken under its lock.
void writer_node_snapshot(_opened_stream_segment_* writer, _stream_segment_index_node_dev_* out);
// Whether a live writer has met its first I-frame, read under its lock: for
// threads other than the writer's own.
bool writer_start_confirmed(_opened_stream_segment_* writer);

// Finds the segment that `para` and `policy` name over the disks of its
// groups and makes a reader record for it, placed at the moment asked for,
// without a descriptor. 0 or -1.
int Open_stream_segment(_qzfs_k4t_stream_open_para_* para, uint32_t read_flag,
                        _fs_find_policy_ policy, _opened_stream_segment_** out);
// Reads from descriptor `ossfd`, going on into the next segment when the
// reader's flags ask for it. Bytes read, 0 at the end of data, -1.
int Read_video_data(int ossfd, uint8_t* buffer, int len, uint8_t* new_segment);
// Puts reader `new_oss` behind `ossfd` in place of `old_oss` (which may lie on
// another disk) and closes the old one. 0, or -1 with the new one closed.
int close_old_and_set_new_open_segment_info(int ossfd, _opened_stream_segment_* old_oss,
                                            _opened_stream_segment_* new_oss);
// The request that finds the reader's neighbour segment the same day, on
// the disks of its disk's group: from its end time going forward, from its
// start time going back.
_qzfs_k4t_stream_open_para_ adjacent_segment_request(_opened_stream_segment_* oss, bool forward);

// ---- I-frame playback (qzfs_stream_fast_play.cpp)
// One whole I-frame from descriptor `ossfd`, the next (`next_iframe` 1) or
// the previous (0), passing over `skip` of them, going on into the adjacent
// segment of the day when the reader's flags ask for it. The frame stays
// valid until the next call on the descriptor. Its length, 0 when there is
// none, -1 for a bad call.
int Read_iframe_data(int ossfd, uint8_t** buffer, int* len, uint8_t* new_segment,
                     uint8_t next_iframe, uint8_t skip);



#endif
