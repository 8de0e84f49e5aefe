/*
 * qzfilesystem_api.h - public interface of libqzfs.
 *
 * libqzfs keeps the frames of a multi-channel video recorder on raw block
 * devices.  The application reaches it only through the flat functions
 * declared here (api_qzfs_...), the records they take and return, and a few
 * exported globals.
 *
 * Conventions of this interface:
 *  - Functions return 0 (or a count, a descriptor, a handle) for success and
 *    a negative value for failure; nothing is thrown.
 *  - Call api_qzfs_init() first.  Before it every function returns its "not
 *    initialised" result at once: -1, a null handle for the two
 *    handle-returning calls, and -1 as long long for the two size calls
 *    (api_qzfs_uinit returns 0, and the two diagnostics calls work).
 *  - Years are counted from 2000 (0..99).  Times have one-second resolution.
 *  - `unsigned long` is 32 bits on the target (32-bit ARM); the records below
 *    use fixed-width types wherever their width is part of the format.
 */
#ifndef QZFILESYSTEM_API_H
#define QZFILESYSTEM_API_H

#include <stddef.h>
#include <stdint.h>

/* The header serves C (C11 and later) as well as C++: every record and enum
 * has a typedef of its own name, and the layout checks use static_assert. */
#ifndef __cplusplus
#include <assert.h>
#endif

/* The library is built with -fvisibility=hidden; this marks what is exported. */
#define QZFS_API __attribute__((visibility("default")))

/* ------------------------------------------------------------------------ */
/* Constants                                                                 */
/* ------------------------------------------------------------------------ */

#define K4T_FS_TRUE  1
#define K4T_FS_FALSE 0
#ifdef __cplusplus
#define K4T_FS_NULL  nullptr
#else
#define K4T_FS_NULL  ((void*)0)
#endif

/* Bit 0 of the read flag of an open: at the end of a segment the reader goes
 * on into the next segment of the same channel and day, on the same ossfd. */
#define QZFS_K4T_OSF_CONTINUE 1

/* Byte order of the running system and of a disk. */
enum _fs_endian_ {
    FS_ENDIAN_UNKNOWN = 0,
    FS_LITTLE_ENDIAN  = 1,
    FS_BIG_ENDIAN     = 2
};
typedef enum _fs_endian_ _fs_endian_;

/* What a search by time accepts when the moment lies in no segment (or, one
 * level down, on no I-frame).
 *
 *  value | name                     | accepts                     | among several
 *  ------+--------------------------+-----------------------------+---------------------------
 *    0   | FS_FIND_NEAR_PREFER_NEXT | inside, earlier or later    | a later one beats an earlier
 *    1   | FS_FIND_NEAR_PREFER_PREV | inside, earlier or later    | an earlier one beats a later
 *    2   | FS_FIND_AT_OR_PREV       | inside or earlier           | the nearest earlier
 *    3   | FS_FIND_AT_OR_NEXT       | inside or later             | the nearest later
 *    4   | FS_FIND_EXACT            | inside only                 |
 *    5   | FS_FIND_NEXT             | inside or later, never one  | the nearest later
 *        |                          | ending exactly at the moment|
 *    6   | FS_FIND_PREV             | inside or earlier, never one| the nearest earlier
 *        |                          | starting exactly at it      |
 */
enum _fs_find_policy_ {
    FS_FIND_NEAR_PREFER_NEXT = 0,
    FS_FIND_NEAR_PREFER_PREV = 1,
    FS_FIND_AT_OR_PREV       = 2,
    FS_FIND_AT_OR_NEXT       = 3,
    FS_FIND_EXACT            = 4,
    FS_FIND_NEXT             = 5,
    FS_FIND_PREV             = 6
};
typedef enum _fs_find_policy_ _fs_find_policy_;

/* Page commands of api_qzfs_query_stream_segment.  A free (unsorted) query
 * knows only "first" and "next"; other commands act as "next" there. */
enum _k4t_stream_query_cmd_ {
    K4T_QUERY_FIRST = 0,
    K4T_QUERY_LAST  = 1,
    K4T_QUERY_NEXT  = 2,
    K4T_QUERY_PREV  = 3
};
typedef enum _k4t_stream_query_cmd_ _k4t_stream_query_cmd_;

/* Values of the `sequence` byte of _k4t_stream_query_.
 *  0       free query, rows in disk / index order, no pages
 *  1, 2    sorted by start time ascending; 2 wraps from the last page to the first
 *  3, 4    sorted by start time descending (the two behave alike) */
enum _k4t_stream_query_sequence_ {
    _K4T_NO_SEQUECE_          = 0,
    _K4T_SEQUECE_ASCEND_      = 1,
    _K4T_SEQUECE_ASCEND_WRAP_ = 2,
    _K4T_SEQUECE_DESCEND_     = 3,
    _K4T_SEQUECE_DESCEND_ALT_ = 4
};
typedef enum _k4t_stream_query_sequence_ _k4t_stream_query_sequence_;

/* Open modes of api_qzfs_open_normal_file. */
enum _qzfs_normal_file_open_mode_ {
    QZFS_NORMAL_FILE_CREATE = 0,   /* delete an existing file, then create       */
    QZFS_NORMAL_FILE_APPEND = 1,   /* open or create, position at the end        */
    QZFS_NORMAL_FILE_UPDATE = 2,   /* open an existing file, position at start   */
    QZFS_NORMAL_FILE_READ   = 3    /* open an existing file for reading          */
};
typedef enum _qzfs_normal_file_open_mode_ _qzfs_normal_file_open_mode_;

/* ------------------------------------------------------------------------ */
/* Date and time                                                             */
/* ------------------------------------------------------------------------ */

/* Wall-clock time of day.
 *  field  | meaning
 *  -------+-----------
 *  hour   | 0..23
 *  minute | 0..59
 *  second | 0..59 */
struct _k4t_fs_time_ {
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
};
typedef struct _k4t_fs_time_ _k4t_fs_time_;
static_assert(sizeof(_k4t_fs_time_) == 3, "_k4t_fs_time_ is three bytes");

/* A calendar day, four bytes.
 *  field   | meaning
 *  --------+-------------------------
 *  year    | years since 2000, 0..99
 *  month   | 1..12
 *  day     | 1..31
 *  reserve | spare, 0 */
struct _k4t_fs_date_ {
    uint8_t year;
    uint8_t month;
    uint8_t day;
    uint8_t reserve;
};
typedef struct _k4t_fs_date_ _k4t_fs_date_;
static_assert(sizeof(_k4t_fs_date_) == 4, "_k4t_fs_date_ is four bytes");

/* A moment.  Comparisons and arithmetic ignore dst.
 *  field  | meaning
 *  -------+-------------------------
 *  year   | years since 2000, 0..99
 *  month  | 1..12
 *  day    | 1..31
 *  hour   | 0..23
 *  minute | 0..59
 *  second | 0..59
 *  dst    | daylight saving flag, 0 or 1 */
struct _k4t_fs_date_time_ {
    uint8_t year;
    uint8_t month;
    uint8_t day;
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint8_t dst;
};
typedef struct _k4t_fs_date_time_ _k4t_fs_date_time_;
static_assert(sizeof(_k4t_fs_date_time_) == 7, "_k4t_fs_date_time_ is seven bytes");

/* ------------------------------------------------------------------------ */
/* Global configuration                                                      */
/* ------------------------------------------------------------------------ */

/* gQzfsConfig, 24 bytes.  Set to its defaults by api_qzfs_init(); the
 * application may change it afterwards.  The cache sizes take effect for a
 * node cache built later.
 *  field                 | default | meaning
 *  ----------------------+---------+------------------------------------------
 *  root_index_cache_size | 43690   | maximum entries of the root node cache
 *  root_index_cache_step | 43690   | growth step of that cache (0 means 255)
 *  ssi_cache_size        | 157286  | maximum entries of the segment node cache
 *  ssi_cache_step        | 157286  | growth step of that cache (0 means 255)
 *  config_byte_16        | 30      | kept for the application, unused here
 *  simple_index_mode     | 1       | non-zero selects the simple index variants
 *  config_byte_18        | 2       | kept for the application, unused here
 *  config_byte_19        | 2       | kept for the application, unused here
 *  global_lock_enabled   | 1       | the manager lock is used only when this is 1
 *  reserved[3]           | 0       | spare */
struct _qzfs_global_config_ {
    uint32_t root_index_cache_size;
    uint32_t root_index_cache_step;
    uint32_t ssi_cache_size;
    uint32_t ssi_cache_step;
    uint8_t  config_byte_16;
    uint8_t  simple_index_mode;
    uint8_t  config_byte_18;
    uint8_t  config_byte_19;
    uint8_t  global_lock_enabled;
    uint8_t  reserved[3];
};
typedef struct _qzfs_global_config_ _qzfs_global_config_;
static_assert(sizeof(_qzfs_global_config_) == 24, "gQzfsConfig is 24 bytes");
static_assert(offsetof(_qzfs_global_config_, ssi_cache_size) == 8 &&
                  offsetof(_qzfs_global_config_, config_byte_16) == 16 &&
                  offsetof(_qzfs_global_config_, global_lock_enabled) == 20 &&
                  offsetof(_qzfs_global_config_, reserved) == 21,
              "gQzfsConfig fields in the order and at the places the application sees them");

/* ------------------------------------------------------------------------ */
/* Disks                                                                     */
/* ------------------------------------------------------------------------ */

/* Result of api_qzfs_get_hdd_info.
 *  field      | meaning
 *  -----------+---------------------------------------------------------
 *  block_size | bytes per block
 *  total_num  | blocks of the disk
 *  free_num   | free blocks, less the recording reserve of the disk's group */
struct _qzfs_k4t_hdd_info_ {
    unsigned long block_size;
    unsigned long total_num;
    unsigned long free_num;
};
typedef struct _qzfs_k4t_hdd_info_ _qzfs_k4t_hdd_info_;
#if __SIZEOF_LONG__ == 4
static_assert(sizeof(_qzfs_k4t_hdd_info_) == 12, "_qzfs_k4t_hdd_info_ is 12 bytes");
#endif

/* The disk information above followed by the disk's recording date range.
 *  field             | meaning
 *  ------------------+----------------------------------------------------
 *  block_size        | bytes per block
 *  total_num         | blocks of the disk
 *  free_num          | free blocks
 *  first_record_date | first day with a recording, time 00:00:00
 *  last_record_date  | last day with a recording, time 23:59:59 */
struct _qzfs_hdd_info_private_ {
    unsigned long      block_size;
    unsigned long      total_num;
    unsigned long      free_num;
    _k4t_fs_date_time_ first_record_date;
    _k4t_fs_date_time_ last_record_date;
};
typedef struct _qzfs_hdd_info_private_ _qzfs_hdd_info_private_;

/* Filter of a full index rebuild (api_qzfs_disk_recovery), 10 bytes.
 *  field       | meaning
 *  ------------+----------------------
 *  channel     | channel to rebuild
 *  stream_type | stream type to rebuild
 *  start_date  | first day
 *  end_date    | last day */
struct _qzfs_k4t_recovery_para_ {
    uint8_t       channel;
    uint8_t       stream_type;
    _k4t_fs_date_ start_date;
    _k4t_fs_date_ end_date;
};
typedef struct _qzfs_k4t_recovery_para_ _qzfs_k4t_recovery_para_;
static_assert(sizeof(_qzfs_k4t_recovery_para_) == 10, "_qzfs_k4t_recovery_para_ is 10 bytes");

/* Space thresholds of a group, four byte counts, 32 bytes.
 *  field                        | meaning
 *  -----------------------------+----------------------------------------------
 *  reserve_free_size_for_record | recording stays on the current disk while its
 *                               | free size is above this; must exceed 0x31FFFFF
 *  used_for_recording_free_size | a disk qualifies for selection above this;
 *                               | free space above it counts as spare
 *  start_delete_free_size       | overwrite starts when the group's spare falls
 *                               | below this
 *  once_delete_size             | bytes wanted from one overwrite pass */
struct _qzfs_k4t_hdd_overwrite_config_ {
    uint64_t reserve_free_size_for_record;
    uint64_t used_for_recording_free_size;
    uint64_t start_delete_free_size;
    uint64_t once_delete_size;
};
typedef struct _qzfs_k4t_hdd_overwrite_config_ _qzfs_k4t_hdd_overwrite_config_;
static_assert(sizeof(_qzfs_k4t_hdd_overwrite_config_) == 32, "_qzfs_k4t_hdd_overwrite_config_ is 32 bytes");

/* ------------------------------------------------------------------------ */
/* Streams                                                                   */
/* ------------------------------------------------------------------------ */

/* The lasting name of one stream segment (one continuous recording).
 *  field                | meaning
 *  ---------------------+------------------------------------------
 *  hdd_id               | disk id, 255 for none
 *  root_index           | root index entry (day, channel, stream, name)
 *  stream_segment_index | segment inside that root index entry */
struct _k4t_stream_segment_id_ {
    uint8_t  hdd_id;
    uint32_t root_index;
    uint32_t stream_segment_index;
};
typedef struct _k4t_stream_segment_id_ _k4t_stream_segment_id_;

/* Request of api_qzfs_create_stream_segment.
 *  field          | meaning
 *  ---------------+---------------------------------------------------------
 *  year           | 0..99 (2000..2099)
 *  month, day     | 1..12, 1..31: the segment's day, for good; every frame
 *                 | written must be of this day (the repair after a power
 *                 | cut ends the stream at the first frame of another day):
 *                 | close the segment at midnight and create the next one
 *  hour, minute,  | provisional start of the segment; the time of its first
 *  second         | I-frame entry replaces it
 *  dst            | 0 or 1
 *  channel        | 0..254, or any value when a name is given
 *  name           | NUL-terminated stream name of 1..16 characters, or empty
 *  stream_type    | stream type; 3 and 4 are synced at every write
 *  group_id       | disk group to record into
 *  for_pre_record | 1: pre-record data until confirmed
 *  lock           | start value of the segment's lock state
 *  segment_type   | stored and reported unchanged
 *  record_type    | 0..15
 *  tv_system      | 0 or 1
 *  have_audio     | 0..3
 *  further_flag   | bit 0 is stored and reported unchanged
 *  lock_type      | lock reasons, stored when lock is not 0
 *  alarm_type     | alarm bits, stored when record_type is not 0 */
struct _qzfs_k4t_create_ss_para_ {
    uint8_t  year;
    uint8_t  month;
    uint8_t  day;
    uint8_t  hour;
    uint8_t  minute;
    uint8_t  second;
    uint8_t  dst;
    uint8_t  channel;
    char     name[17];
    uint8_t  stream_type;
    int32_t  group_id;
    uint8_t  for_pre_record;
    uint8_t  lock;
    uint8_t  segment_type;
    uint8_t  record_type;
    uint8_t  tv_system;
    uint8_t  have_audio;
    uint8_t  further_flag;
    uint32_t lock_type;
    uint64_t alarm_type;
};
typedef struct _qzfs_k4t_create_ss_para_ _qzfs_k4t_create_ss_para_;

/* Open by time (api_qzfs_open_stream_segment_by_para).
 *  field              | meaning
 *  -------------------+--------------------------------------------------
 *  channel            | channel, under 255
 *  stream_type        | stream type
 *  record_type_bitmap | bit n admits record type n; not 0
 *  group_bitmap       | bit n admits disk group n
 *  date_time          | the moment to open at */
struct _qzfs_k4t_stream_open_para_ {
    uint8_t            channel;
    uint8_t            stream_type;
    uint16_t           record_type_bitmap;
    uint32_t           group_bitmap;
    _k4t_fs_date_time_ date_time;
};
typedef struct _qzfs_k4t_stream_open_para_ _qzfs_k4t_stream_open_para_;

/* One I-frame of a write buffer, 16 bytes; one entry per I-frame, in
 * ascending offset.
 *  field                  | meaning
 *  -----------------------+----------------------------------------------
 *  hour, minute, second   | wall time of the frame
 *  iframe_flag            | 0: entry ignored; otherwise an I-frame
 *  offset                 | offset of the frame in the buffer, below its length
 *  pts_high, pts_low      | presentation time, high and low word */
struct _k4t_video_frame_info_ {
    uint8_t  hour;
    uint8_t  minute;
    uint8_t  second;
    uint8_t  iframe_flag;
    uint32_t offset;
    uint32_t pts_high;
    uint32_t pts_low;
};
typedef struct _k4t_video_frame_info_ _k4t_video_frame_info_;
static_assert(sizeof(_k4t_video_frame_info_) == 16, "_k4t_video_frame_info_ is 16 bytes");

/* ------------------------------------------------------------------------ */
/* Search                                                                    */
/* ------------------------------------------------------------------------ */

/* Filter of a stream query; a query covers exactly one date.
 *  field                      | meaning
 *  ---------------------------+-------------------------------------------
 *  group_bitmap               | bit n admits disk group n; 0 (or groups with
 *                             | no disk) makes the fetches fail
 *  channel_bitmap             | bit n admits channel n (channels 0..31)
 *  year, month, day           | the date
 *  start_hour/minute/second   | start of the time range
 *  end_hour/minute/second     | end of the time range
 *  sequence                   | _k4t_stream_query_sequence_, 0..4
 *  lock_bitmap                | bit 0 admits unlocked segments, bit 1
 *                             | locked ones (whatever their lock number)
 *  record_type_bitmap         | bit n admits record type n (types 0..7)
 *  stream_type_bitmap         | bit n admits stream type n
 *  item_num_per_page          | page size of a sorted query, at least 1 */
struct _k4t_stream_query_ {
    uint32_t group_bitmap;
    uint32_t channel_bitmap;
    uint8_t  year;
    uint8_t  month;
    uint8_t  day;
    uint8_t  start_hour;
    uint8_t  start_minute;
    uint8_t  start_second;
    uint8_t  end_hour;
    uint8_t  end_minute;
    uint8_t  end_second;
    uint8_t  sequence;
    uint8_t  lock_bitmap;
    uint8_t  record_type_bitmap;
    uint64_t stream_type_bitmap;
    uint32_t item_num_per_page;
};
typedef struct _k4t_stream_query_ _k4t_stream_query_;

/* One row of a query result.  A free query (sequence 0) cuts the times and
 * len to the query's time range; a sorted query gives the segment's whole
 * times and length.
 *  field                      | meaning
 *  ---------------------------+----------------------------------------------
 *  start_hour/minute/second   | start of the hit
 *  end_hour/minute/second     | end of the hit
 *  channel, stream_type       | of the root index entry
 *  record_type, lock          | of the segment
 *  segment_type               | stored with the segment
 *  tv_system                  | 0 or 1
 *  have_audio                 | 0..3
 *  further_flag               | stored with the segment
 *  lock_type                  | lock reasons
 *  alarm_type                 | alarm bits
 *  len                        | bytes of the hit
 *  hdd_id, root_index,        | the _k4t_stream_segment_id_ to open
 *  stream_segment_index       | */
struct _k4t_stream_query_result_ {
    uint8_t  start_hour;
    uint8_t  start_minute;
    uint8_t  start_second;
    uint8_t  end_hour;
    uint8_t  end_minute;
    uint8_t  end_second;
    uint8_t  channel;
    uint8_t  stream_type;
    uint8_t  record_type;
    uint8_t  lock;
    uint8_t  segment_type;
    uint8_t  tv_system;
    uint8_t  have_audio;
    uint8_t  further_flag;
    uint32_t lock_type;
    uint64_t alarm_type;
    uint64_t len;
    uint8_t  hdd_id;
    uint32_t root_index;
    uint32_t stream_segment_index;
};
typedef struct _k4t_stream_query_result_ _k4t_stream_query_result_;

/* Description of one segment (api_qzfs_get_stream_segment_info).
 *  field            | meaning
 *  -----------------+--------------------------------
 *  year, month, day | date of the segment
 *  start_time       | start of the segment
 *  end_time         | end of the segment
 *  dst              | 0 or 1
 *  channel          | channel
 *  segment_type     | stored with the segment
 *  record_type      | record type
 *  have_audio       | 0..3
 *  tv_system        | 0 or 1
 *  lock             | lock state
 *  further_flag     | stored with the segment
 *  len              | bytes of the segment */
struct _k4t_stream_segment_info_ {
    uint8_t       year;
    uint8_t       month;
    uint8_t       day;
    _k4t_fs_time_ start_time;
    _k4t_fs_time_ end_time;
    uint8_t       dst;
    uint8_t       channel;
    uint8_t       segment_type;
    uint8_t       record_type;
    uint8_t       have_audio;
    uint8_t       tv_system;
    uint8_t       lock;
    uint8_t       further_flag;
    uint64_t      len;
};
typedef struct _k4t_stream_segment_info_ _k4t_stream_segment_info_;

/* One day of one channel in the calendar.
 *  field       | meaning
 *  ------------+-----------------------------------------------
 *  record_type | bitmap: bit n set when record type n was found (within
 *              | the filter); 0 means nothing recorded that day
 *  lock        | 1 if a locked recording exists
 *  reserve     | spare */
struct _k4t_calendar_day_info_ {
    uint16_t record_type;
    uint8_t  lock;
    uint8_t  reserve;
};
typedef struct _k4t_calendar_day_info_ _k4t_calendar_day_info_;
static_assert(sizeof(_k4t_calendar_day_info_) == 4, "calendar entry is four bytes");

/* Calendar of one month (api_qzfs_query_calendar); in and out.
 *  field              | meaning
 *  -------------------+--------------------------------------------------
 *  group_bitmap       | bit n admits disk group n
 *  channel_bitmap     | bit n admits channel n; not 0
 *  record_type_bitmap | admitted record types; not 0
 *  stream_type_bitmap | bit n admits stream type n
 *  year, month        | the month asked for
 *  day_info           | result: [channel][day - 1], zeroed on entry */
struct _k4t_calendar_stream_query_ {
    uint32_t                group_bitmap;
    uint32_t                channel_bitmap;
    uint16_t                record_type_bitmap;
    uint64_t                stream_type_bitmap;
    uint8_t                 year;
    uint8_t                 month;
    _k4t_calendar_day_info_ day_info[32][31];
};
typedef struct _k4t_calendar_stream_query_ _k4t_calendar_stream_query_;
static_assert(sizeof(((_k4t_calendar_stream_query_*)0)->day_info) == 3968, "calendar table is 3968 bytes");

/* A day with recordings and what was recorded on it.
 *  field       | meaning
 *  ------------+--------------------------------------------
 *  date        | the day
 *  record_type | bitmap of the record types of that day
 *  lock        | lock state of the first entry found */
struct _k4t_fs_record_date_info_ {
    _k4t_fs_date_ date;
    uint16_t      record_type;
    uint8_t       lock;
};
typedef struct _k4t_fs_record_date_info_ _k4t_fs_record_date_info_;

/* ------------------------------------------------------------------------ */
/* Retention                                                                 */
/* ------------------------------------------------------------------------ */

/* Lock or unlock every segment in a time range.
 *  field           | meaning
 *  ----------------+----------------------------------
 *  group_mask      | bit g selects group g
 *  channel_mask    | bit c selects channel c
 *  stream_mask     | bit t selects stream type t
 *  record_type     | printed only, selects nothing
 *  start_date_time | start of the range
 *  end_date_time   | end of the range */
struct _qzfs_k4t_stream_lock_para_ {
    uint32_t           group_mask;
    uint32_t           channel_mask;
    uint64_t           stream_mask;
    uint16_t           record_type;
    _k4t_fs_date_time_ start_date_time;
    _k4t_fs_date_time_ end_date_time;
};
typedef struct _qzfs_k4t_stream_lock_para_ _qzfs_k4t_stream_lock_para_;

/* Delete every segment of a date range.
 *  field                       | meaning
 *  ----------------------------+------------------------------
 *  group_mask                  | bit g selects group g
 *  channel_mask                | bit c selects channel c
 *  stream_mask                 | bit t selects stream type t
 *  start_year/month/day        | first day included
 *  end_year/month/day          | last day included */
struct _qzfs_k4t_delete_para_ {
    uint32_t group_mask;
    uint32_t channel_mask;
    uint64_t stream_mask;
    uint8_t  start_year;
    uint8_t  start_month;
    uint8_t  start_day;
    uint8_t  end_year;
    uint8_t  end_month;
    uint8_t  end_day;
};
typedef struct _qzfs_k4t_delete_para_ _qzfs_k4t_delete_para_;

/* Change lock and alarm attributes of every segment in a time range.
 *  field           | meaning
 *  ----------------+------------------------------------------------------
 *  group_mask      | bit g selects group g
 *  channel_mask    | bit c selects channel c
 *  stream_mask     | bit t selects stream type t
 *  start_date_time | start of the range
 *  end_date_time   | end of the range
 *  modify_mask     | bit 0: lock and lock_type apply;
 *                  | bit 1: record_type and alarm_type apply
 *  lock            | new lock state
 *  record_type     | new record type
 *  lock_type       | lock reasons to add
 *  alarm_type      | alarm bits to add */
struct _qzfs_k4t_modify_segment_para_ {
    uint32_t           group_mask;
    uint32_t           channel_mask;
    uint64_t           stream_mask;
    _k4t_fs_date_time_ start_date_time;
    _k4t_fs_date_time_ end_date_time;
    uint8_t            modify_mask;
    uint8_t            lock;
    uint8_t            record_type;
    uint32_t           lock_type;
    uint64_t           alarm_type;
};
typedef struct _qzfs_k4t_modify_segment_para_ _qzfs_k4t_modify_segment_para_;

/* ------------------------------------------------------------------------ */
/* Exported globals                                                          */
/* ------------------------------------------------------------------------ */

#ifdef __cplusplus
class CQzfsManager;
class CSystemResourceManager;
extern "C" {
#else
/* The library's own objects, opaque to a C program. */
struct CQzfsManager;
struct CSystemResourceManager;
typedef struct CQzfsManager CQzfsManager;
typedef struct CSystemResourceManager CSystemResourceManager;
#endif

/* gQzfsConfig: the configuration above; api_qzfs_init sets its defaults. */
QZFS_API extern _qzfs_global_config_    gQzfsConfig;
/* How much the library logs to standard output; 1 at load, higher logs more
 * (set through api_qzfs_set_debug_level).  Even at 0 the lines that have no
 * level of their own print: failures, a few lifecycle lines such as "end
 * format ...", and the end-of-data lines of fast play ("Read_iframe_index
 * failed(N)", "NO DATA, FIND NEW STREAM SEGMENT(...)"), which are normal. */
QZFS_API extern uint32_t                g_qzfs_debug_level;
/* Result of the last api_qzfs_open_normal_file (0, or -1..-4 as told there);
 * no other call sets it. */
QZFS_API extern int32_t                 g_error_no;
/* Byte order of the running system, FS_LITTLE_ENDIAN. */
QZFS_API extern _fs_endian_             gLocal_endian;
/* The node caches shared by all disks; built by api_qzfs_init, freed by
 * api_qzfs_uinit. */
QZFS_API extern CSystemResourceManager* pgSystemResourceManager;
/* The registry of disks, groups, descriptors and query handles. */
QZFS_API extern CQzfsManager            gQzfsManager;

/* ------------------------------------------------------------------------ */
/* Exported functions                                                        */
/* ------------------------------------------------------------------------ */

/* Lifecycle */

/* Call first: until it has run, every other function returns its "not
 * initialised" result (see the conventions at the top).  Sets gQzfsConfig to
 * its defaults and builds the node caches.  0; a second call does nothing. */
QZFS_API int api_qzfs_init(void);
/* Tears everything down: open named files, every disk object (mounted or
 * not, with no check for open descriptors) and the caches.  Always 0, also
 * before api_qzfs_init.  Unmount and close first. */
QZFS_API int api_qzfs_uinit(void);
/* Sets g_qzfs_debug_level to `level` (0 quietest: see g_qzfs_debug_level).
 * 0, or -1 before init. */
QZFS_API int api_qzfs_set_debug_level(unsigned long level);
/* g_error_no: the result of the last api_qzfs_open_normal_file and of
 * nothing else (0, or -1..-4 as told there).  Before init it returns -1,
 * which cannot be told from the open's -1. */
QZFS_API int api_qzfs_get_last_error(void);

/* Disks.  `hdd_id` is the slot the application gives a disk (0..31 for
 * groups, queries and calendars); `dev` a raw block device or a disk image. */

/* Lays a new MBR and FAT32 shell on disk `dev` without touching its key info
 * block or recorded blocks.  The slot must not hold a mounted disk.  0 or -1. */
QZFS_API int api_qzfs_rebuild_rely(unsigned char hdd_id, char* dev);
/* Formats `dev`: geometry from its size, shell, key info block and backup,
 * root index.  `label` (may be null) is the volume label.  The slot must not
 * hold a mounted disk; the disk is left unmounted, so mount it next.  Every
 * recording on it is lost.  0 or -1. */
QZFS_API int api_qzfs_format(unsigned char hdd_id, char* dev, char* label);
/* api_qzfs_format with no label. */
QZFS_API int api_qzfs_fast_format(unsigned char hdd_id, char* dev);
/* Mounts `dev` as disk `hdd_id`: checks and repairs the key info block,
 * finishes the segments a power cut left open and rolls back cut deletes.
 * 0; 0 also when the slot already holds a mounted disk (whatever `dev`
 * says); -1 when `dev` holds no usable file system or the slot is busy. */
QZFS_API int api_qzfs_mount(unsigned char hdd_id, char* dev);
/* Mount through a list of partitions: `count` above 1 is refused, and on
 * Linux the one device is refused too (a disk must be a whole raw device).
 * -1 there. */
QZFS_API int api_qzfs_mount_for_windows(unsigned char hdd_id, int count, char** devs);
/* Unmounts disk `hdd_id`.  Refused (-1) while the disk is in a group (call
 * api_qzfs_delete_disk_from_group first), while any stream descriptor
 * (reader or writer) or named file of it is open, and while a mount or
 * format of it runs.  0 when done, 0 also for a slot with no disk. */
QZFS_API int api_qzfs_umount(unsigned char hdd_id);
/* Block size (bytes), total and free blocks of a mounted disk.  In a group
 * the free count leaves out the group's reserve: the record reserve on the
 * group's current disk, used_for_recording_free_size on the others.
 * 0 or -1. */
QZFS_API int api_qzfs_get_hdd_info(unsigned char hdd_id, _qzfs_k4t_hdd_info_* info);
/* Writes, reads back and frees one block of a mounted disk; `value` is not
 * used.  0 or -1. */
QZFS_API int api_qzfs_test_hdd(unsigned char hdd_id, unsigned long value);
/* Repairs an unmounted disk: key info block, then the stream indexes rebuilt
 * from the data blocks (those `para` selects; null for all).  The slot must
 * not hold a mounted disk; the disk is left unmounted.  0 or -1. */
QZFS_API int api_qzfs_disk_recovery(unsigned char hdd_id, char* dev, _qzfs_k4t_recovery_para_* para);

/* Groups.  Recording, queries, named files and overwrite work on groups of
 * mounted disks (group numbers 0..31 for the bitmaps). */

/* Puts mounted disk `hdd_id` into `group`; the first disk creates the group
 * with default thresholds (500 MiB, 600 MiB, 4 GiB, 256 MiB).  A disk may
 * stand in several groups.  0, or -1 when the disk is not mounted. */
QZFS_API int api_qzfs_add_disk_to_group(unsigned char hdd_id, unsigned char group);
/* Takes the disk out of the group; the group goes with its last disk.
 * Refused (-1) while a stream descriptor or named file of the disk is open.
 * 0 otherwise, also for an unknown group. */
QZFS_API int api_qzfs_delete_disk_from_group(unsigned char hdd_id, unsigned char group);
/* Number of disks in the group (0 for an unknown group), or -1 before init. */
QZFS_API int api_qzfs_get_disk_num_from_group(unsigned char group);
/* Copies at most `capacity` disk ids of the group, lowest first, to `hdd_ids`
 * and returns how many the group has (more than were copied when the array
 * is short). */
QZFS_API int api_qzfs_get_disk_list_from_group(unsigned char group, unsigned char* hdd_ids, int capacity);

/* Work disk, thresholds and overwrite */

/* Chooses the disk of `group` that records and stores it in the group:
 * the current one while its free space is above reserve_free_size_for_record,
 * else a member with more free space than used_for_recording_free_size.
 * Must run before api_qzfs_create_stream_segment (and before a named file is
 * created), and again whenever the application wants the choice renewed.
 * *hdd_id gets the disk, or 255.  0, or -1 when the group is unknown or no
 * member qualifies. */
QZFS_API int api_qzfs_find_work_hdd(unsigned char group, unsigned char* hdd_id);
/* Sets the four thresholds of an existing group (add a disk first; -1 for an
 * unknown group).  Refused (-1) unless reserve_free_size_for_record is above
 * 0x31FFFFF (at least 50 MiB) and the next two are not below it;
 * once_delete_size is taken as it is.  0 when set. */
QZFS_API int api_qzfs_config_overwrite(unsigned char group, _qzfs_k4t_hdd_overwrite_config_* config);
/* One overwrite pass over the group, from the application's own thread:
 * when the group's spare space is below start_delete_free_size, removes
 * about once_delete_size bytes of its oldest unlocked recordings that no one
 * reads (the one being recorded may lose its head).  0 (also for an unknown
 * group or enough space), -1 when nothing could be removed. */
QZFS_API int api_qzfs_disk_overwrite_big_stream(int group);
/* The same for the small stream types (above 2): removes their oldest days
 * while they hold more than `reserve_day` days.  0, or -1 as above. */
QZFS_API int api_qzfs_disk_overwrite_small_stream(int group, unsigned long reserve_day);

/* Stream create, open, seek, close.  A descriptor (fd) is 1 or more; a
 * writer's and a reader's descriptors are not interchangeable. */

/* Starts a new segment on the current disk of para->group_id and returns
 * its writer descriptor, or -1.  Refused when the
 * request is out of range (see _qzfs_k4t_create_ss_para_), the group is
 * unknown or api_qzfs_find_work_hdd has not chosen a disk for it, or no
 * descriptor is free.  The segment's start becomes the time of its first
 * I-frame written. */
QZFS_API int api_qzfs_create_stream_segment(_qzfs_k4t_create_ss_para_* para);
/* Opens segment `id` (from a query row) for reading, finished or still being
 * recorded; reading starts at its first I-frame.  `read_flag` bit 0
 * (QZFS_K4T_OSF_CONTINUE) goes on into the day's next segment;
 * `record_type_bitmap` is the filter of that search and must not be 0 for
 * it.  A reader descriptor, or -1.  A closed segment whose index cannot be
 * read is taken out of the index by the failed open. */
QZFS_API int api_qzfs_open_stream_segment_by_id(_k4t_stream_segment_id_* id, unsigned short record_type_bitmap,
                                                unsigned char read_flag);
/* Opens the recording of para->channel and stream_type that covers
 * para->date_time on the disks of para->group_bitmap, at the I-frame of that
 * moment; a moment in a gap gives the day's next segment from its start.
 * Refused (-1): channel 255, record_type_bitmap 0, group_bitmap 0, an
 * invalid date and time, nothing found.  A reader descriptor, or -1. */
QZFS_API int api_qzfs_open_stream_segment_by_para(_qzfs_k4t_stream_open_para_* para, unsigned char read_flag);
/* Moves a reader to the first I-frame at or after `date_time` inside its
 * segment; outside it, with QZFS_K4T_OSF_CONTINUE, to the segment of that
 * moment (or the next one) of the day on the same descriptor.  0 or -1.  A failure past the
 * argument checks blocks the descriptor: api_qzfs_read_video_data and the
 * fast play calls return -1 until a seek by time succeeds (a seek by offset
 * does not lift it).  -1 on a writer's descriptor. */
QZFS_API int api_qzfs_seek_stream_segment_by_time(int fd, _k4t_fs_date_time_* date_time);
/* Moves to byte `offset` of the stream (counted from the segment's first
 * I-frame), `whence` SEEK_SET, SEEK_CUR or SEEK_END; a position past the
 * stream's end is refused.  On a writer's descriptor it moves the writer:
 * its next writes overwrite the stream from there.  0 or -1. */
QZFS_API int api_qzfs_seek_stream_segment_by_offset(int fd, long long offset, int whence);
/* *position gets the reader's byte position in the stream, counted from
 * the segment's first I-frame.  0, or -1 (also on a writer's descriptor). */
QZFS_API int api_qzfs_stream_segment_tell(int fd, long long* position);
/* Closes a reader or a writer.  A writer's segment gets its end and length
 * on the disk; a pre-recording never handed over is deleted.  Always 0 after
 * init, also for a descriptor that is not open. */
QZFS_API int api_qzfs_close_stream_segment(int fd);

/* Write and read */

/* Appends `len` (at least 1) bytes of whole frames to a writer's segment.
 * `frame_info` holds `frame_num` entries, one per I-frame that begins in the
 * buffer, in ascending offset (entries with iframe_flag 0 are passed over);
 * any entry with an offset not below `len` or an invalid time refuses the
 * call.  A call of P-frames or audio alone passes frame_num 0 and a null
 * frame_info.  The entries are the index: an I-frame written without its
 * entry is stored but neither fast play nor a seek by time finds it, and
 * the entry's time, not the frame's own, is what segment times and seeks
 * go by (keep the two equal).
 * Bytes before the segment's first I-frame are not counted in it.  Returns
 * `len`, or -1: also on a reader's descriptor, and after a failed disk write,
 * which leaves the descriptor refusing writes (close it).  Stream types 3
 * and 4 flush their index and sync the device at every call.  A call may be
 * of any length, several data blocks included.
 * The frames themselves are not parsed here: a frame with a bad header or
 * another channel's number is stored as given.  Sequential reads return it
 * as it stands; fast play passes over it to the next good I-frame and says
 * so at debug level 2 ("invalid frame type(...)"); `qzfs check` reports a
 * segment with an I-frame entry that points at no I-frame of its channel. */
QZFS_API int api_qzfs_write_video_data(int fd, unsigned char* buffer, int len, int frame_num,
                                       _k4t_video_frame_info_* frame_info);
/* Forces a writer's data and index out: puts the end mark behind the data,
 * writes the pending I-frame entries and syncs.  What was written before it
 * survives a power cut.  0, or -1 (also on a reader's descriptor). */
QZFS_API int api_qzfs_fsync(int fd);
/* Reads up to `len` bytes of the stream from the reader's position, exactly
 * as written.  Returns the count, 0 at the end (of a live segment: of what
 * has been written so far; call again later), -1 on failure, on a writer's
 * descriptor, or after a failed seek by time.  With QZFS_K4T_OSF_CONTINUE it
 * goes on into the day's next segment.  A call that returns bytes sets
 * *new_segment (may be null): 1 at the first one of each segment, the opened
 * one included, else 0. */
QZFS_API int api_qzfs_read_video_data(int fd, unsigned char* buffer, int len, unsigned char* new_segment);
/* Fast forward: *buffer and *len get the next whole I-frame (header
 * included), jumping over `skip` I-frames first; the skip applies before the
 * first frame too, so skip n from a fresh descriptor passes over its first n
 * I-frames.  *buffer points into the descriptor's own frame buffer: it stays
 * valid until the next fast play call on the descriptor, its move to another
 * segment, or its close; copy the frame to keep it.  Returns the frame's
 * length, 0 when there is no further I-frame (or it cannot be read), -1 on
 * failure (bad arguments, a writer's descriptor, after a failed seek by
 * time).  *new_segment as in api_qzfs_read_video_data.  Normal reading goes
 * on right behind the frame shown. */
QZFS_API int api_qzfs_read_next_iframe(int fd, unsigned char skip, unsigned char** buffer, int* len,
                                       unsigned char* new_segment);
/* Fast back: the I-frame before the position, jumping over `skip` of them
 * first; otherwise as api_qzfs_read_next_iframe. */
QZFS_API int api_qzfs_read_pre_iframe(int fd, unsigned char skip, unsigned char** buffer, int* len,
                                      unsigned char* new_segment);

/* Query */

/* Opens a query of one date (see _k4t_stream_query_) and returns its handle
 * (1 or more), or -1: null query, a sorted query (sequence 1..4) with
 * item_num_per_page 0, a sequence above 4, no free handle.  No disk is read
 * here.  A zero channel, stream type, record type or lock bitmap is accepted
 * and finds nothing; record types 8..15 are out of reach of the 8-bit
 * record_type_bitmap; channels above 31 are never found. */
QZFS_API int api_qzfs_get_query_stream_segment_handle(_k4t_stream_query_* query);
/* Frees a query handle.  Always 0 after init. */
QZFS_API int api_qzfs_close_query_stream_segment_handle(int handle);
/* Fetches rows.  *num must be above 0 on input, and the first *num rows of
 * `result` are zeroed.  A free query (sequence 0) fills up to *num rows,
 * going on from where the last call stopped (K4T_QUERY_FIRST restarts; other
 * commands act as NEXT); its times and len are cut to the queried range.  A
 * sorted query gathers all hits at its first call and fills a whole page
 * (up to item_num_per_page rows) whatever *num says, so `result` must hold
 * item_num_per_page rows; its rows carry the segment's full start and end
 * times and length.  *num gets the rows given (0 past the end).  0, or -1
 * for bad arguments, an unknown handle, or groups with no disk (a zero
 * group_bitmap). */
QZFS_API int api_qzfs_query_stream_segment(int handle, _k4t_stream_query_cmd_ cmd, int* num,
                                           _k4t_stream_query_result_* result);
/* Pages of a sorted query (gathering its hits when not done yet), or -1 for
 * a free query, an unknown handle or groups with no disk. */
QZFS_API int api_qzfs_get_total_page_num(int handle);
/* Fills page `page` (from 0) of a sorted query: up to item_num_per_page
 * rows, whatever *num says (only a positive *num zeroes that many rows
 * first); *num gets the rows given.  0, or -1 for a page out of range, a
 * free query or an unknown handle. */
QZFS_API int api_qzfs_jump_specific_page(int handle, int page, int* num, _k4t_stream_query_result_* result);
/* Fills query->day_info for one month, merged over the disks of the groups;
 * days with only pre-recordings do not count.  -1 when channel_bitmap or
 * record_type_bitmap is 0, the month is invalid, or the groups have no disk
 * (a zero group_bitmap); a zero stream_type_bitmap marks no day.  Only
 * channels 0..31 are marked.  0 otherwise. */
QZFS_API int api_qzfs_query_calendar(_k4t_calendar_stream_query_* query);
/* Number of days with recordings of the stream types in the groups, or -1
 * when the groups have no disk (a zero group_bitmap).  A zero
 * stream_type_bitmap counts nothing. */
QZFS_API int api_qzfs_get_stream_date_num(unsigned long group_bitmap, unsigned long long stream_type_bitmap);
/* Copies at most `capacity` of those days to `dates`, in the order the
 * disks hold them (not sorted), and returns how many there are; -1 as above. */
QZFS_API int api_qzfs_get_stream_date_list(unsigned long group_bitmap, unsigned long long stream_type_bitmap,
                                           _k4t_fs_date_* dates, int capacity);
/* As api_qzfs_get_stream_date_num, for the channels of channel_bitmap too
 * (a zero channel_bitmap counts nothing). */
QZFS_API int api_qzfs_get_stream_date_info_num(unsigned long group_bitmap, unsigned long long stream_type_bitmap,
                                               unsigned long long channel_bitmap);
/* Copies at most `capacity` days with their record type bits and lock to
 * `infos` and returns how many there are; -1 when the groups have no disk. */
QZFS_API int api_qzfs_get_stream_date_info(unsigned long group_bitmap, unsigned long long stream_type_bitmap,
                                           unsigned long long channel_bitmap, _k4t_fs_record_date_info_* infos,
                                           int capacity);

/* Lock, delete, attributes */

/* Locks segment `id` with lock number n (lock type bit n-1), or unlocks it
 * with 0; a segment being recorded too.  Open sorted queries show the new
 * lock.  0 or -1. */
QZFS_API int api_qzfs_stream_segment_lock_by_id(_k4t_stream_segment_id_* id, unsigned char lock_number);
/* Locks (lock_number n, lock type bit n-1) or unlocks (0) every segment of
 * the chosen groups, channels and stream types in the time range; a range
 * edge inside a segment splits it.  The start must be before the end (a
 * start of all zeros means "from the first day").  Zero masks select
 * nothing.  The last disk's result, 0 when the groups have no disk; -1 for
 * a bad range. */
QZFS_API int api_qzfs_stream_segment_lock_by_time(_qzfs_k4t_stream_lock_para_* para, unsigned char lock_number);
/* Unlocks stream types 0..31 of every group up to the end of the day
 * `reserve_day` + 1 days before `now`; reserve_day 0 unlocks them all.  -1 for an
 * invalid `now` or a negative reserve_day, else as the call above. */
QZFS_API int api_qzfs_auto_unlock(_k4t_fs_date_time_* now, int reserve_day);
/* Deletes stream types 0..2 of every group up to the day `reserve_day` + 1
 * days before `now`, as api_qzfs_delete_stream_segment_by_para does (and
 * with its result); -1 for an invalid `now` or a negative reserve_day. */
QZFS_API int api_qzfs_auto_delete(_k4t_fs_date_time_* now, int reserve_day);
/* Deletes one closed segment whole.  Refused (-1) while it is being
 * recorded or open for reading.  0 or -1. */
QZFS_API int api_qzfs_delete_stream_segment(_k4t_stream_segment_id_* id);
/* Deletes the unlocked segments that no one has open, of the chosen groups,
 * channels (0..31) and stream types, over the days of the range (zero masks
 * select nothing).  One call walks at most 8 roots a disk from its first
 * deletion on: repeat it until nothing is left.  Returns -1 whenever the
 * groups have a disk, whatever was deleted, and 0 when they have none. */
QZFS_API int api_qzfs_delete_stream_segment_by_para(_qzfs_k4t_delete_para_* para);
/* *id gets the segment of an open descriptor.  0 or -1. */
QZFS_API int api_qzfs_get_fd_info(int fd, _k4t_stream_segment_id_* id);
/* Describes segment `id` (a segment being recorded from its writer: live
 * end and length).  0 or -1. */
QZFS_API int api_qzfs_get_stream_segment_info(_k4t_stream_segment_id_* id, _k4t_stream_segment_info_* info);
/* The bytes of the time range [start_time, end_time] inside segment `id`,
 * widened to I-frames: *offset from the segment's first I-frame and *len.
 * -1 when start is after end or the range does not lie in the segment (an
 * end past the segment's end is accepted only with start at its start). */
QZFS_API int api_qzfs_get_stream_segment_data_info(_k4t_stream_segment_id_* id, _k4t_fs_time_* start_time,
                                                   _k4t_fs_time_* end_time, unsigned long long* offset,
                                                   unsigned long long* len);
/* On a writer's descriptor of a pre-recording (for_pre_record 1): makes it
 * a normal recording of `record_type` (0..15) with the alarm bits, lock and
 * lock reasons given, and drops its head before `time`.  -1 on a reader's
 * descriptor or a segment that is no pre-recording. */
QZFS_API int api_qzfs_modify_pre_record_info(int fd, unsigned char record_type, unsigned long long alarm_type,
                                             unsigned char lock, unsigned long lock_type, _k4t_fs_time_ time);
/* On a pre-recording's writer descriptor: drops the head before `end_time`;
 * the segment stays a pre-recording.  0 or -1. */
QZFS_API int api_qzfs_overwrite_pre_record_stream(int fd, _k4t_fs_time_ end_time);
/* Cuts the tail of segment `id` from `end_time` on.  Refused (-1) while the
 * segment is open for reading or the time is invalid.  0 or -1. */
QZFS_API int api_qzfs_modify_stream_segment_end_time(_k4t_stream_segment_id_ id, _k4t_fs_time_ end_time);
/* Changes lock and alarm attributes (see _qzfs_k4t_modify_segment_para_) of
 * every segment the range meets, splitting those it cuts.  The start must be
 * before the end; record_type above 15 with modify_mask bit 1 is refused.
 * The last disk's result, -1 when the groups have no disk. */
QZFS_API int api_qzfs_modify_stream_segment_info(_qzfs_k4t_modify_segment_para_* para);
/* The same on a writer's segment: modify_mask bit 0 sets lock and
 * lock_type, bit 1 record_type (0..15) and alarm_type.  With `start_time`
 * null the whole segment changes; otherwise the part from start_time on is
 * split off and changed.  0, or -1 (also on a reader's descriptor). */
QZFS_API int api_qzfs_modify_stream_segment_info_by_fd(int fd, unsigned char modify_mask, unsigned char lock,
                                                       unsigned long lock_type, unsigned char record_type,
                                                       unsigned long long alarm_type, _k4t_fs_time_* start_time);

/* Normal files: small named files of a group, names of 1 to 13 characters.
 * Handles are void pointers; a handle used after its close is refused. */

/* Opens `name` in `group` with a _qzfs_normal_file_open_mode_.  The handle,
 * or null with g_error_no (read it with api_qzfs_get_last_error) at:
 *  -1  unknown group, or a new file and no record disk chosen by
 *      api_qzfs_find_work_hdd;
 *  -2  name empty or too long, mode out of range;
 *  -3  a writing mode while another handle writes the name;
 *  -4  update or read of a missing file, or the open failed.
 * g_error_no is 0 after a success.  Before init: null, g_error_no unchanged. */
QZFS_API void* api_qzfs_open_normal_file(unsigned char group, char* name, int mode);
/* Writes `length` bytes at the position and stores the file's new end.  A
 * reading handle (mode 3) may only change bytes, never add: -1 then.
 * The count written, or -1. */
QZFS_API int api_qzfs_write_normal_file(void* handle, char* buffer, int length);
/* Reads up to `length` bytes from the position (a reading handle sees what
 * a writer added meanwhile).  The count, 0 at the end, or -1. */
QZFS_API int api_qzfs_read_normal_file(void* handle, char* buffer, int length);
/* Syncs a writing handle's file.  0, or -1 (also for a reading handle). */
QZFS_API int api_qzfs_sync_normal_file(void* handle);
/* Closes a handle.  0 or -1. */
QZFS_API int api_qzfs_close_normal_file(void* handle);
#ifdef __cplusplus
/* offset gets the handle's position in bytes.  0 or -1. */
QZFS_API int api_qzfs_get_normal_file_cur_offset(void* handle, long long& offset);
#else
/* C sees the reference of C++ as what is passed: the address of the offset. */
QZFS_API int api_qzfs_get_normal_file_cur_offset(void* handle, long long* offset);
#endif
/* Moves the position: `whence` 0 from the start (offset not negative), 1
 * from the position, 2 from the end (offset not positive); a target past
 * the end is refused.  0 or -1. */
QZFS_API int api_qzfs_seek_normal_file(void* handle, int offset, int whence);
/* Size in bytes of the handle's file, or -1. */
QZFS_API long long api_qzfs_get_normal_file_size_by_handle(void* handle);
/* Size in bytes of `name` in `group`, or -1 (also when missing). */
QZFS_API long long api_qzfs_get_normal_file_size(unsigned char group, char* name);
/* Deletes `name` from the group.  -1 while any handle has it open or for an
 * unknown group; 0 otherwise, also when there was no such file. */
QZFS_API int api_qzfs_delete_normal_file(unsigned char group, char* name);
/* Renames a file of the group.  -1 while it is open, when `new_name` exists
 * or is empty or too long, or when `old_name` does not exist.  0 or -1. */
QZFS_API int api_qzfs_rename_normal_file(unsigned char group, char* old_name, char* new_name);
/* A search handle over the names of the group containing `pattern` (null:
 * all names), or null for an unknown group.  Release it when done. */
QZFS_API void* api_qzfs_get_search_normal_file_handle(unsigned char group, char* pattern);
/* Steps the search (0 first, 1 next, 2 previous, 3 last) and copies the name
 * there to `name`, which must hold 14 bytes.  1 with a name, 0 when there is
 * none that way, -1 for a bad handle or step. */
QZFS_API int api_qzfs_get_normal_file_name(void* handle, unsigned char step, char* name);
/* Frees a search handle.  Always 0 after init. */
QZFS_API int api_qzfs_release_search_normal_file_handle(void* handle);

/* Device info: the application's record kept in the file QzfsDevInfo of
 * each mounted disk. */

/* Replaces the record of disk `hdd_id` with `length` bytes.  0 or -1. */
QZFS_API int api_qzfs_write_device_info(unsigned char hdd_id, char* data, int length);
/* Writes the record to every mounted disk.  Always 0 after init. */
QZFS_API int api_qzfs_write_device_info_to_all_disk(char* data, int length);
/* Reads up to `length` bytes of the record.  The count, or -1 (also when
 * the disk has none). */
QZFS_API int api_qzfs_read_device_info(unsigned char hdd_id, char* buffer, int length);
/* Length of the record in bytes, or -1 when there is none. */
QZFS_API int api_qzfs_get_device_info_len(unsigned char hdd_id);

/* Diagnostics: named counters kept by group and item, and their printout.
 * They work without api_qzfs_init and take no lock: callers serialise.
 * op 0 assigns, 1 adds, 2 subtracts (dropping the item at or below zero),
 * 3 drops it; a new group or item starts at `value` whatever the op. */
QZFS_API void memory_statistics(char* group, char* item, unsigned char op, unsigned long value);
QZFS_API void print_memory_statistics(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QZFILESYSTEM_API_H */
