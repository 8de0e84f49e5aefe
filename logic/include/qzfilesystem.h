// CQzFileSystem: one mounted (or formatting) disk. All disk logic is a member
// of this class; the members are kept in source files by theme.
#ifndef QZFILESYSTEM_H
#define QZFILESYSTEM_H

#include "qzfilesystem_api.h"
#include "opened_stream_segment.h"
#include "qzfs_av_frame.h"
#include "qzfs_disk_format.h"
#include "qzfs_index_format.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>

// Size of the per-disk metadata I/O buffer, and the unit of all index I/O.
const unsigned long QZFS_IO_UNIT = 0x10000;

enum _qzfs_state_ {
    QZFSS_IDEL = 0,       // object exists, no device attached
    QZFSS_FORMATING = 1,  // Format has begun
    QZFSS_MOUNTING = 2,   // Mount has begun
    QZFSS_MOUNTED = 3,    // mounted and usable
};

// Bits of the `where` argument of the block record writes.
const char QZFS_WHERE_KEY_TABLES = 1;  // both key info block tables
const char QZFS_WHERE_BLOCK_HEAD = 2;  // offset 0 of the block itself
const char QZFS_WHERE_ALL = 3;

struct _qzfs_block_cache_node_ {
    uint16_t block_index;
    uint32_t block;
};

// An open normal file.
struct _qzfs_normal_file_describe_ {
    char name[14];
    unsigned char group_id;
    unsigned char hdd_id;
    unsigned long cur_block;
    unsigned long cur_offset;   // 4096 to block size
    unsigned long last_block;
    unsigned long last_offset;  // 4096 + used_len of the last block
    _qzfs_file_block_header_ last_block_header;
    unsigned long owner_stamp;
    void* io_handle;
    std::list<unsigned long> block_list;
    unsigned char have_write;
    unsigned char header_dirty;
    unsigned char read_only;
};

// The names a search found, with a cursor over them.
struct _qzfs_normal_file_search_describe_ {
    std::list<std::string> names;
    std::list<std::string>::iterator cursor;
};

// One named file and its blocks, ordered by block_index.
struct _qzfs_normal_file_cache_node_ {
    char name[16];
    std::list<_qzfs_block_cache_node_> blocks;
    _qzfs_normal_file_describe_* write_user;
};

// A data block whose stream is gone.
struct _invalid_block_list_node_ {
    uint32_t block;
    uint32_t owner_stamp;
    uint8_t stream_type;
    uint8_t year;
    uint8_t month;
    uint8_t day;
};

struct _root_index_node_mem_;
struct _stream_segment_index_node_men_;
struct _delete_ss_list_node_;
struct _ri_ssi_manager_;
struct _hdd_root_index_manager_;
struct index_chain_kind;
struct index_node_kind;
extern const index_node_kind kRootNodeWrite;
extern const index_node_kind kSegmentNodeWrite;

// In-memory state of a mounted disk.
struct _qzfs_disk_manage_ {
    unsigned long block_size;
    unsigned long total_block;
    unsigned long free_block;         // clear bits of the bitmap below total_block
    unsigned long key_block;          // primary key info block; 0 is invalid
    unsigned long bak_key_block;      // backup key info block; 0 is invalid
    unsigned long block_owner_stamp;  // stamp for the next block request
    std::map<unsigned short, unsigned long> root_index_block_map;
    unsigned char* block_bitmap;      // one bit a block, set means in use
    unsigned long block_bitmap_len;
    unsigned long next_free_block;    // where the next allocation search starts
    _fs_endian_ disk_endian;
    std::list<_qzfs_normal_file_cache_node_> normal_file_cache;
    void* disk_lock_handle;
    std::map<int, _opened_stream_segment_*> opened_stream_segment_map;
    std::list<_invalid_block_list_node_> invalid_block_list;
};

// How far the last load of a disk's key info had to go to stand.
enum qzfs_key_repair_level {
    QZFS_KEY_REPAIR_NONE = 0,    // both copies sound and equal
    QZFS_KEY_REPAIR_BACKUP = 1,  // the backup was missing or stale and is written anew
    QZFS_KEY_REPAIR_COPY = 2,    // a damaged copy was replaced by the clean one
    QZFS_KEY_REPAIR_MERGE = 3,   // both damaged: merged, blocks' own records as third witness
    QZFS_KEY_REPAIR_SCAN = 4,    // no key info block: a new table from the blocks' own records
};

// What the last load of the key info found and mended, for the host tool
// and tests. Counts are of table records.
struct qzfs_key_repair_report {
    int level = QZFS_KEY_REPAIR_NONE;
    unsigned long loaded_from = 0;      // the key place whose table was loaded
    unsigned long primary_damaged = 0;  // records failing their check in the chosen key block
    unsigned long backup_damaged = 0;   // the same in the chosen backup
    unsigned long copied_from = 0;      // the copy written over a damaged or missing one
    unsigned long backup_written = 0;   // the place that copy went to
    unsigned long merged_into = 0;      // the key block a merge wrote
    unsigned long from_other_copy = 0;  // merged records taken from the other copy
    unsigned long from_block_head = 0;  // records taken from the block's own head
    unsigned long marked_bad = 0;       // records no witness had: the block is bad
    unsigned long marked_free = 0;      // records no witness had in a new table: free
};

// What the last rebuild from the data blocks found and made.
struct qzfs_rebuild_report {
    unsigned long data_blocks = 0;    // data blocks looked at
    unsigned long streams = 0;        // streams (groups of data blocks) found
    unsigned long small_streams = 0;  // of them small streams, left as they are
    unsigned long sound = 0;          // streams whose indexes checked out
    unsigned long rebuilt = 0;        // streams given a new segment and I-frame index
    unsigned long given_up = 0;       // streams with a broken index and nothing to rebuild from
    unsigned long segments = 0;       // segments written by the rebuild
    unsigned long entries = 0;        // I-frame index entries written
    bool root_rebuilt = false;        // the root index was made anew
};

class CQzFileSystem {
public:
    CQzFileSystem();
    ~CQzFileSystem();

    // ---- lifecycle (qzfilesystem.cpp)
    int Format(char* dev, char* label, unsigned char bare_dev);
    int Mount(unsigned char hdd_id, char* dev);
    int Mount_by_partition(unsigned char hdd_id, int count, char** devs);
    int Get_hdd_state() const { return m_state; }
    int Get_hdd_info(_qzfs_k4t_hdd_info_* info);
    int Test_hdd(unsigned long value);
    int rebuild_rely(char* dev);
    // The application's recovery of an unmounted disk: its key info by
    // every level, then the index rebuild from the data blocks
    // (qzfs_key_info_recovery.cpp).
    int disk_recovery(char* path, _qzfs_k4t_recovery_para_* para);
    // The key info levels alone, on an unmounted disk, the scan level
    // included when `allow_scan` is 1; the disk is left unmounted.
    int recover_key_info(char* path, unsigned char allow_scan);
    int sync_disk();
    const qzfs_key_repair_report& key_repair() const { return m_key_repair; }
    // Number of table records of each block type (index = type, 0 to 10).
    int count_blocks_by_type(unsigned long counts[11]);
    int disk_lock(unsigned char lock);
    void Qzfilesystem_uninit();
    unsigned char Get_hdd_id() const { return m_hdd_id; }
    // The disk number a format works under (mount takes it as an argument).
    void Set_hdd_id(unsigned char hdd_id) { m_hdd_id = hdd_id; }
    // 0 makes the disk read-only, as a disk reached through a partition is.
    void Set_bare_dev(unsigned char value) { bare_dev = value; }

    // ---- device channel (qzfilesystem.cpp)
    int Create_file_system_io_channel();
    int Seek_and_write_in_block(void* io, unsigned long block, unsigned long offset,
                                unsigned char* data, int length);
    int Seek_and_read_in_block(void* io, unsigned long block, unsigned long offset,
                               unsigned char* data, int length);

    // Whole transfers on the main I/O handle: 0 when every byte moved.
    int read_in_block(unsigned long block, unsigned long offset, unsigned char* data,
                      unsigned long length)
    {
        return Seek_and_read_in_block(m_pIo_interface, block, offset, data, int(length)) ==
                       int(length) ? 0 : -1;
    }
    int write_in_block(unsigned long block, unsigned long offset, unsigned char* data,
                       unsigned long length)
    {
        return Seek_and_write_in_block(m_pIo_interface, block, offset, data, int(length)) ==
                       int(length) ? 0 : -1;
    }

    // ---- key info block (qzfs_key_info_block.cpp)
    int format_key_info_block(char* dev, char* label);
    int clear_key_info_data();
    int init_key_info_block(_qzfs_block_info_* info, _qzfs_key_header_* header,
                            unsigned long key_block, std::list<unsigned long>& bad,
                            std::list<unsigned long>& system);
    int write_key_info_bak_block(unsigned long key_block, unsigned long bak_block,
                                 unsigned long length);
    int check_key_info_block_header(unsigned char* block_start);
    int find_key_info_block(unsigned long start, unsigned long& found);
    int check_bak_key_info_block(unsigned long key_block, unsigned long bak_block,
                                 unsigned long length);
    int read_block_info_from_block(unsigned long block, _qzfs_block_info_* info);
    int read_block_info_from_key_block(unsigned long key_block, unsigned long block,
                                       _qzfs_block_info_* info);
    int write_block_info_to_key_block(unsigned long key_block, unsigned long block,
                                      _qzfs_block_info_* info);
    int modify_block_info(unsigned long key_block, unsigned long bak_block, unsigned long block,
                          _qzfs_block_info_* info, char where);
    int modify_block_type(unsigned long block, unsigned short type, char where);
    // A block that an index names but the bitmap calls free is registered
    // again as `type`, in the key tables and its own head (mount repair).
    void reclaim_block(unsigned long block, unsigned short type);
    // Writes `type` into a block's own head only, from its key table record;
    // the tables and the bitmap stay as they are. 0 or -1.
    int mark_block_head(unsigned long block, unsigned short type);
    int modify_block_attr(unsigned long block, void* attr, char where);
    int load_disk_manage_info_by_key_info_block(unsigned long key_block);
    int get_disk_manage_info_by_key_info_block(unsigned char allow_scan);
    int get_block_list_by_type(unsigned char type, std::list<_block_info_node_>& out);
    // The sound records of two block types, in one walk of the table.
    int get_block_lists_by_type(unsigned char type_a, std::list<_block_info_node_>& out_a,
                                unsigned char type_b, std::list<_block_info_node_>& out_b);
    unsigned long get_block_owner_stamp() const { return m_manage.block_owner_stamp; }
    void set_block_owner_stamp(unsigned long stamp) { m_manage.block_owner_stamp = stamp; }
    static int judge_block_in_list(std::list<unsigned long>& list, unsigned long block);

    // ---- bitmap (blockbitmap.cpp)
    unsigned long Cal_bitmap_free_block();
    bool block_bit_is_set(unsigned long block) const;
    void set_block_bit(unsigned long block);
    void clear_block_bit(unsigned long block);
    int Request_free_block(unsigned long count, unsigned long* out, _qzfs_block_info_* info,
                           unsigned char unused);
    int Free_one_block(unsigned long block, unsigned char unused);

    // ---- named files: the cache, open, close, size, delete, rename, search
    // (qzfs_normal_file.cpp). Open, close, seek and the calls by name run
    // under the disk lock; write and read take it only around allocation,
    // cache changes and a reader's look at the writer.
    void Add_block_to_normal_file(const char* name, unsigned short block_index,
                                  unsigned long block);
    void init_normal_file_cache();
    int normal_file_is_exist(unsigned char* name);
    int get_normal_file_use_block_list(const char* name, std::list<unsigned long>& blocks);
    int open_normal_file(const char* name, _qzfs_normal_file_describe_* handle);
    int close_normal_file(_qzfs_normal_file_describe_* handle);
    int sync_normal_file(_qzfs_normal_file_describe_* handle);
    long long get_normal_file_size_by_handle(_qzfs_normal_file_describe_* handle);
    int get_normal_file_size(const char* name, unsigned long long& size);
    int delete_normal_file(const char* name);
    int rename_normal_file(const char* old_name, const char* new_name);
    int search_normal_file(const char* pattern, _qzfs_normal_file_search_describe_* out);
    // A power cut between a block request's table writes and its head
    // write, or inside a rename, leaves a file block whose own record is not
    // the table's; the table decides, so the head is written from it (mount).
    void repair_normal_file_heads();
    int write_normal_file_block_header(void* io, unsigned long block,
                                       _qzfs_file_block_header_* header);
    // Reads the first 4096 bytes of `block`; `info` and `header`, when given,
    // receive the block's record and chain header, each of which must pass
    // its check. 0 or -1.
    int get_normal_file_block_info(void* io, unsigned long block, _qzfs_block_info_* info,
                                   _qzfs_file_block_header_* header);

    // ---- named files: data (qzfs_normal_file_io.cpp)
    int write_normal_file(_qzfs_normal_file_describe_* handle, char* data, int length);
    int read_normal_file(_qzfs_normal_file_describe_* handle, char* buffer, int length);
    int seek_normal_file(_qzfs_normal_file_describe_* handle, long long offset, int whence);
    long long get_normal_file_cur_offset(_qzfs_normal_file_describe_* handle);
    // The block after (`forward` 1) or before cur_block in the handle's list.
    int find_normal_file_block(_qzfs_normal_file_describe_* handle, unsigned long& out,
                               unsigned char forward);
    int step_to_next_normal_file_block(_qzfs_normal_file_describe_* handle, const char* func);

    // ---- key info recovery (qzfs_key_info_recovery.cpp)
    int fast_recovery_key_info();
    int scan_recovery_key_info();
    // 1 when the header of the key block at `block` is good; the blocks
    // whose table records fail their check are added to `bad`.
    int check_key_info_block(unsigned long block, std::list<unsigned long>& bad);
    int recovery_key_info_by_merge(unsigned long key, std::list<unsigned long>& bad,
                                   unsigned long other, std::list<unsigned long>& other_bad,
                                   std::list<unsigned long>& system,
                                   std::list<unsigned long>& unusable, unsigned long target);
    int find_block_and_recovery_bak_block(unsigned long key, unsigned long first,
                                          unsigned long end, unsigned long len,
                                          std::list<unsigned long>& system,
                                          std::list<unsigned long>& unusable);
    // ---- rebuild from the data blocks (qzfs_rebuild_from_data.cpp)
    int scan_check_recovery_all_stream_segment_index(_qzfs_k4t_recovery_para_* para,
                                                     unsigned char rebuild_root);
    int check_recovery_segment_index_block_by_data_block_list(std::list<_block_info_node_>& group);
    int recovery_iframe_index_block_by_data_block_list(
        std::list<_block_info_node_>& group, std::list<_stream_segment_index_node_dev_>& segments,
        unsigned long* iframe_block);
    // The entries of one segment written at `start_index` of the chain
    // (which grows as needed): their count, 0 when no I-frame was found
    // (node id 255), -1 on a failed write.
    int recovery_one_stream_iframe_index_by_data_block_list(
        std::list<_block_info_node_>& blocks, int start_index, uint32_t* chain_num,
        uint32_t** chain, _stream_segment_index_node_dev_& node);
    int get_one_stream_iframe_info_by_data_block(std::list<_block_info_node_>& blocks,
                                                 std::list<_iframe_index_node_dev_>& entries,
                                                 _iframe_index_node_dev_& first,
                                                 _iframe_index_node_dev_& last);
    const qzfs_rebuild_report& rebuild_report() const { return m_rebuild; }
    int free_destroy_stream_by_data_block_list(std::list<_block_info_node_>& group);
    int recovery_delete_stream_segment_index_block();

    // ---- mount repair steps (qzfs_recovery.cpp, the root index check in
    // qzfs_root_index_check.cpp)
    int check_root_index_block_integrity_and_recovery();
    int Power_down_recovery();
    int get_disk_invalid_data_block_num();
    // Closes a segment that a power cut left being written (end hour 255) at
    // the true end found from its frames, or deletes it when nothing usable
    // is left: 0 closed, -1 deleted or not looked at
    // (qzfs_stream_end_repair.cpp).
    int Get_stream_segment_end_info(unsigned long root_index, unsigned long stream_segment_index);

    // ---- index blocks and chains (qzfs_index_chain.cpp)
    int Init_stream_segment_block(unsigned long block, unsigned long last, unsigned long next,
                                  unsigned long iframe_block, unsigned long first_iframe_block);
    int Init_iframe_index_block(unsigned long block, unsigned long last, unsigned long next);
    int Read_stream_segment_index_block_header(unsigned long block,
                                               _stream_segment_block_header_dev_* header);
    // The chain readers allocate *list (delete[]) in chain order.
    int Read_root_index_block_list(unsigned long first_block, uint32_t* num, uint32_t** list,
                                   _root_index_header_dev_* header);
    int Read_stream_segment_index_block_list(unsigned long first_block, uint32_t* num,
                                             uint32_t** list,
                                             _stream_segment_block_header_dev_* header);
    int Read_iframe_index_block_list(unsigned long first_block, uint32_t* num, uint32_t** list);

    // ---- root index (qzfs_root_index.cpp)
    uint8_t Calculate_root_index_dev_node_check_sum(const _root_index_node_dev_* node);
    int Check_root_index_dev_node(const _root_index_node_dev_* node);
    void Root_index_endian_trans_dev_mem(_root_index_node_dev_* dev, _fs_endian_ dev_endian,
                                         _root_index_node_mem_* mem, _fs_endian_ mem_endian,
                                         int direction);
    // The root chain of this disk, loaded once; *list stays the manager's.
    int Get_root_index_block_list(uint32_t* num, uint32_t** list, _root_index_header_dev_* header);
    int Write_root_index(uint32_t block_num, const uint32_t* list, unsigned long root_index,
                         const _root_index_node_dev_* node, int new_node, int is_end);
    int Write_root_index(unsigned long root_index, const _root_index_node_dev_* node, int new_node,
                         int is_end);
    int Get_root_index_mem_node(unsigned long root_index, _root_index_node_mem_* node);
    int Get_root_index_dev_node(unsigned long root_index, _root_index_node_dev_* node);
    // The node as the device holds it, free ones included (the cache keeps
    // used nodes only). 0, or -1 when it cannot be read or fails its check.
    int Read_root_index_from_dev(unsigned long root_index, _root_index_node_dev_* node);
    int Update_root_index_cache(unsigned long root_index, const _root_index_node_dev_* node);
    int Modify_root_index(unsigned long root_index, int mode, const _root_index_node_dev_* node);
    int Get_free_root_index(uint32_t* root_index, int* is_end);
    int Add_root_index_block();
    int Add_root_index_block_simple();
    int Add_root_index_block_standard();
    int Create_root_index_node(const _qzfs_k4t_create_ss_para_* para, unsigned long ssi_block,
                               _root_index_node_dev_* node);
    int Create_root_index_node(const _qzfs_k4t_create_ss_para_* para, uint32_t* root_index,
                               _root_index_node_dev_* node);
    int Create_root_index_node_simple(const _qzfs_k4t_create_ss_para_* para, uint32_t* root_index,
                                      _root_index_node_dev_* node);
    int Create_root_index_node_standard(const _qzfs_k4t_create_ss_para_* para,
                                        uint32_t* root_index, _root_index_node_dev_* node);
    int Delete_root_index(unsigned long root_index, int flag);
    int Update_hdd_record_date(int all, uint8_t year, uint8_t month, uint8_t day);
    int Register_qzfs_action(unsigned long block, uint32_t action, const void* data);
    // This disk's root index manager in the shared caches (made on first use).
    _hdd_root_index_manager_* root_manager();

    // ---- stream segment index (qzfs_stream_segment_index.cpp)
    int Read_stream_segment_index_block_list(unsigned long root_index, _ri_ssi_manager_* manager);
    int Get_stream_segment_index_block_list(unsigned long root_index, uint32_t* num,
                                            uint32_t** list, uint32_t* iframe_block);
    int Set_stream_segment_index_block_list(unsigned long root_index, uint32_t num,
                                            const uint32_t* list, uint32_t iframe_block);
    uint8_t Calculate_stream_segment_index_dev_node_check_sum(
        const _stream_segment_index_node_dev_* node);
    int Check_stream_segment_index_dev_node(const _stream_segment_index_node_dev_* node);
    // Direction 1: disk image to cache form; otherwise cache form to disk image.
    void Stream_segment_index_endian_trans_dev_mem(_stream_segment_index_node_dev_* dev,
                                                   _fs_endian_ dev_endian,
                                                   _stream_segment_index_node_men_* mem,
                                                   _fs_endian_ mem_endian, int direction);
    int Write_stream_segment_index(uint32_t block_num, const uint32_t* list, unsigned long index,
                                   const _stream_segment_index_node_dev_* node, int new_node,
                                   int is_end);
    int Write_stream_segment_index(unsigned long root_index, unsigned long index,
                                   const _stream_segment_index_node_dev_* node, int new_node,
                                   int is_end);
    int Get_stream_segment_index_mem_node(unsigned long root_index, _ri_ssi_manager_* manager,
                                          unsigned long index,
                                          _stream_segment_index_node_men_* node);
    int Get_stream_segment_index_mem_node(unsigned long root_index, unsigned long index,
                                          _stream_segment_index_node_men_* node);
    int Get_stream_segment_index_dev_node(unsigned long root_index, unsigned long index,
                                          _stream_segment_index_node_dev_* node);
    int Get_stream_segment_index_dev_node(unsigned long root_index, uint32_t block_num,
                                          const uint32_t* list, unsigned long index,
                                          _stream_segment_index_node_dev_* node);
    int Update_stream_segment_index_cache(unsigned long root_index, unsigned long index,
                                          const _stream_segment_index_node_dev_* node);
    int Modify_stream_segment(unsigned long root_index, uint32_t block_num, const uint32_t* list,
                              unsigned long index, int mode,
                              const _stream_segment_index_node_dev_* node);
    int Modify_stream_segment(unsigned long root_index, unsigned long index, int mode,
                              const _stream_segment_index_node_dev_* node);
    int Get_free_stream_segment_index(unsigned long root_index, uint32_t* block_num,
                                      uint32_t** list, uint32_t* index, int* is_end);
    int Add_stream_segment_index_block(uint32_t* block_num, uint32_t** list);
    // A node at `segment` was freed: the root's search for a free node starts
    // no later than there.
    void lower_free_segment_cursor(unsigned long root_index, unsigned long segment);
    int Create_stream_segment_index_node(const _qzfs_k4t_create_ss_para_* para,
                                         uint32_t start_iframe,
                                         _stream_segment_index_node_dev_* node);
    int Create_stream_segment_index_node(unsigned long root_index, uint32_t* block_num,
                                         uint32_t** list, const _qzfs_k4t_create_ss_para_* para,
                                         uint32_t start_iframe, uint32_t* index,
                                         _stream_segment_index_node_dev_* node);
    int Create_stream_segment_index_node(unsigned long root_index,
                                         const _qzfs_k4t_create_ss_para_* para,
                                         uint32_t start_iframe, uint32_t* index,
                                         _stream_segment_index_node_dev_* node);
    int Create_stream_segment_index_node_simple(unsigned long root_index, uint32_t* block_num,
                                                uint32_t** list,
                                                const _qzfs_k4t_create_ss_para_* para,
                                                uint32_t start_iframe, uint32_t* index,
                                                _stream_segment_index_node_dev_* node);
    int Create_stream_segment_index_node_standard(unsigned long root_index, uint32_t* block_num,
                                                  uint32_t** list,
                                                  const _qzfs_k4t_create_ss_para_* para,
                                                  uint32_t start_iframe, uint32_t* index,
                                                  _stream_segment_index_node_dev_* node);
    int check_stream_segment_index_block(unsigned long block, uint32_t* iframe_block);
    int write_stream_segment_index(unsigned long block,
                                   std::list<_stream_segment_index_node_dev_>& nodes);
    int check_and_modify_root_info(unsigned long root_index, int* delete_root_flag);
    int get_ssid_from_cache(unsigned long root_index, unsigned long index,
                            _stream_segment_index_node_dev_* node);
    int Read_stream_segment_index_from_dev(unsigned long root_index, unsigned long index,
                                           _stream_segment_index_node_dev_* node);
    int Read_stream_segment_index_from_dev(uint32_t block_num, const uint32_t* list,
                                           unsigned long index,
                                           _stream_segment_index_node_dev_* node);
    // A node repaired in memory on a read-only disk (see get_ssid_from_cache).
    void add_ssid_to_cache(unsigned long root_index, unsigned long index,
                           const _stream_segment_index_node_dev_* node);
    // The live root node of a writer recording into this root, or null.
    _root_index_node_dev_* root_being_written(unsigned long root_index);

    // ---- I-frame index (qzfs_iframe_index.cpp)
    int Check_iframe_index_dev_node(const _iframe_index_node_dev_* node);
    int Modify_iframe_index_block_header(unsigned long block,
                                         const _iframe_index_block_header_dev_* header);
    int Get_iframe_block_info(unsigned long start_block, _iframe_block_info_* info);
    int Get_iframe_block_info(const _root_index_node_dev_* root_node, unsigned long start_block,
                              _iframe_block_info_* info);
    int Add_iframe_index_block(uint32_t* num, uint32_t** list, const uint8_t date_time[6]);
    int Add_iframe_index_block(uint32_t* num, uint32_t** list, unsigned long count,
                               const uint8_t date_time[6]);
    int Add_iframe_index(uint32_t* num, uint32_t** list, unsigned long index,
                         const _iframe_index_node_dev_* nodes, unsigned long count,
                         const uint8_t date_time[6]);
    int Add_iframe_index(uint32_t* num, uint32_t** list, unsigned long index,
                         std::list<_iframe_index_node_dev_>& nodes, const uint8_t date_time[6]);
    int Write_iframe_index(uint32_t block_num, const uint32_t* list, unsigned long index,
                           _iframe_index_node_dev_* node);
    int Read_iframe_index(uint32_t block_num, const uint32_t* list, unsigned long index,
                          unsigned long* count, _iframe_index_node_dev_* nodes, int mask);
    int Find_iframe_block_index(uint32_t block_num, const uint32_t* list, unsigned long index,
                                uint32_t* block_entry_index, _iframe_index_node_dev_* block_entry,
                                _iframe_index_node_dev_* iframe, int private_buffer);
    int get_stream_segment_time_area_iframe_info(uint32_t block_num, const uint32_t* list,
                                                 uint32_t start_iframe, uint64_t len,
                                                 const _k4t_fs_time_* start_time,
                                                 const _k4t_fs_time_* end_time,
                                                 _time_area_iframe_info_& info);
    int check_iframe_index_block(unsigned long block);
    int Output_iframe_index_info(uint32_t block_num, const uint32_t* list, unsigned long index);
    int Update_iframe_block_info(void* oss);
    // Seconds of the day of the last I-frame that made Add_iframe_index sync.
    uint32_t last_sync_second() const { return m_last_sync_second; }

    // ---- frames (av_frame.cpp)
    int Get_frame_info(const _av_frame_header_* header, uint8_t* channel, _qzfs_frame_type_* type);
    int Check_av_frame_check_sum(const uint8_t* frame, uint32_t len);
    int Check_av_frame(const uint8_t* frame, uint32_t len, uint8_t channel);
    int Get_av_frame_extend_info(const uint8_t* frame, uint32_t len, uint8_t type, void* out);
    int Print_av_frame_info(const char* tag, const uint8_t* frame, int len);

    // ---- open segments and descriptors (opened_stream_segment.cpp)
    // The caller holds the disk lock, except where the owner of a descriptor
    // looks up its own record on the write and read paths.
    int get_free_oss_fd();
    int set_oss_info(int disk_ossid, _opened_stream_segment_* oss);
    _opened_stream_segment_* find_oss_info_by_fd(int disk_ossid);
    int release_oss_fd(int disk_ossid);
    // Mask bit 0 admits readers, bit 1 writers. Disk ossid or -1.
    int find_opening_stream_segment_by_id(const _k4t_stream_segment_id_* id,
                                          _opened_stream_segment_** out, uint8_t mask);
    int find_opening_stream_segment_by_root_index(uint32_t root_index,
                                                  _opened_stream_segment_** out, uint8_t mask);
    int open_stream_segment_is_empty();
    int Close_reading_stream_segment(_opened_stream_segment_* oss);
    // Frees every open record with its state and channel (teardown).
    void release_open_segments();
    int clear_read_stream_segment_writing_flag(_opened_stream_segment_* writer);
    // A segment node as searches and queries see it. A node being recorded
    // (end hour 255) is replaced by its writer's live node, length less the
    // head cut away, once the writer has confirmed the start and set an end:
    // 1 when the node counts, 0 when it is not visible yet, -1 when no writer
    // is open on it. Disk lock held.
    int live_segment_node(uint32_t root_index, uint32_t index,
                          _stream_segment_index_node_men_& node);

    // ---- stream creation (qzfs_stream_create.cpp)
    int Create_stream_segment(_qzfs_k4t_create_ss_para_* para, _opened_stream_segment_* oss,
                              _qzfs_stream_importance_ importance);

    // ---- write path (qzfs_stream_write.cpp)
    int Write_video_data(_opened_stream_segment_* oss, uint8_t* buffer, int len, int frame_num,
                         _k4t_video_frame_info_* frame_info);
    int Write_video_data_free(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                              int frame_num, _k4t_video_frame_info_* frame_info,
                              uint8_t take_disk_lock);
    int Write_video_data_unit(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                              int frame_num, _k4t_video_frame_info_* frame_info);
    int Write_video_data_in_pieces(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                                   int frame_num, _k4t_video_frame_info_* frame_info);
    int Write_iframe_index(_write_stream_segment_* wss, bool take_lock);
    void write_end_mark(_opened_stream_segment_* oss);
    // Runs the device sync that a writer's index flush found due; called
    // without the disk lock.
    void sync_device_if_due();
    int fsync_segment_data(_opened_stream_segment_* oss);
    int fsync_stream_segment(_opened_stream_segment_* oss);
    int Close_writing_stream_segment(_opened_stream_segment_* oss);

    // ---- finding a segment by time (qzfs_stream_find.cpp); disk lock held.
    // 0 when a node of this disk became the candidate in `best` (id 255:
    // none yet), else -1.
    int Find_stream_segment(uint8_t channel, char* name, uint8_t stream_type,
                            uint16_t record_type_bitmap, _k4t_fs_date_time_* when,
                            _fs_find_policy_ policy, uint32_t* root_index,
                            uint32_t* stream_segment_index, _stream_segment_index_node_men_* best,
                            uint8_t* change_flag);

    // ---- opening for reading (qzfs_stream_open.cpp); disk lock held.
    // Fills the reader `oss` for segment `id` and places it at `where` (null:
    // the segment's start). `writer` is the segment's live writer, or null.
    int Open_stream_segment(const _k4t_stream_segment_id_* id, _k4t_fs_date_time_* where,
                            _opened_stream_segment_* oss, _opened_stream_segment_* writer);

    // ---- sequential read (qzfs_stream_read.cpp)
    // Bytes read, 0 at the end of the data, -1 on failure. `writer` is the
    // live writer of the segment, or null.
    int Read_video_data(_opened_stream_segment_* oss, uint8_t* buffer, int len,
                        _opened_stream_segment_* writer);
    int Find_next_block_for_reading(_opened_stream_segment_* oss, _opened_stream_segment_* writer,
                                    bool take_disk_lock);
    // The logical end a reader may read to: its own node's length, or the
    // live writer's length as far as it is on disk.
    uint64_t reader_stream_limit(_opened_stream_segment_* oss, _opened_stream_segment_* writer);

    // ---- overwrite behind a write-side seek (qzfs_stream_overwrite.cpp)
    // Writes at the companion reader's position. Bytes written, 0 or -1.
    int seek_write_video_data(_opened_stream_segment_* reader, uint8_t* buffer, int len,
                              _opened_stream_segment_* writer);

    // ---- seek by time (qzfs_stream_seek.cpp); disk lock held.
    int Seek_stream_segment(_opened_stream_segment_* oss, _opened_stream_segment_* writer,
                            _k4t_fs_date_time_* where, _fs_find_policy_ policy,
                            unsigned long long pts);
    int Find_iframe_index_fast(_stream_segment_index_node_dev_* node, uint32_t iframe_block_num,
                               uint32_t* iframe_block_list, uint32_t start_iframe,
                               _k4t_fs_date_time_* where, uint64_t stream_len,
                               _fs_find_policy_ policy, _iframe_index_node_dev_* first,
                               uint32_t* found_index, _iframe_index_node_dev_* found,
                               uint64_t* found_offset, uint64_t pts);

    // ---- seek by offset (qzfs_stream_seek_offset.cpp); disk lock held.
    int Seek_stream_segment(_opened_stream_segment_* oss, long long offset, int whence);

    // ---- I-frame playback (qzfs_stream_fast_play.cpp)
    // The next I-frame (`next_iframe` 1) or the previous one (0) of reader
    // `oss`, passing over `skip` of them; `writer` is the live writer of the
    // segment, or null. The frame is left in the reader's frame buffer and
    // handed out through `buffer` and `len`. Its length, or 0 with the
    // reader's position unchanged when there is none.
    int Read_iframe_data(_opened_stream_segment_* oss, uint8_t** buffer, int* len,
                         _opened_stream_segment_* writer, uint8_t next_iframe, uint8_t skip);
    // Log position where I-frame playback starts from the read point: the
    // first I-frame at or after it forward, the last one before it back.
    // 0 or -1; disk lock held.
    int Find_iframe_for_special_play(_read_stream_segment_* rss, uint32_t iframe_block_num,
                                     uint32_t* iframe_block_list, uint32_t start_iframe_index,
                                     uint8_t next_iframe, uint32_t* found_index);



    // ---- stream queries (qzfs_stream_query.cpp); disk lock held.
    // Scans this disk for the hits of a query. A free query (sequence 0)
    // writes at most `get_num` rows to `result` and keeps its resume point
    // in the state; a sequence query appends every hit to the state's list.
    // Rows added (free) or 0, or -1.
    int Query_stream_segment(struct _stream_segment_query_state_* state, int get_num,
                             _k4t_stream_query_result_* result);
    // Cuts segment `node` to the query's time range and puts the cut times in
    // `result`; -1 when the segment lies outside it.
    int Stream_segment_is_finding(struct _stream_segment_query_state_* state,
                                  _stream_segment_index_node_men_* node,
                                  _k4t_stream_query_result_* result);
    // Description of a closed segment, from its root and segment nodes.
    int Get_stream_segment_info(unsigned long root_index, unsigned long stream_segment_index,
                                _k4t_stream_segment_info_* info);
    // Byte offset and length, from the segment's first I-frame, of the
    // whole I-frame periods that cover [start, end] inside a segment (open
    // or closed).
    int Get_stream_segment_info(unsigned long root_index, unsigned long stream_segment_index,
                                const _k4t_fs_time_* start, const _k4t_fs_time_* end,
                                unsigned long long* offset, unsigned long long* len);

    // ---- calendar and date lists (qzfs_calendar.cpp)
    // Adds this disk's days of the query's month to its table (OR of record
    // types, lock); caller holds the disk lock. 0 or -1.
    int Query_calendar(_k4t_calendar_stream_query_* query);
    // Appends the days not yet in `dates` that hold recordings of the stream
    // types in the bitmap, or of the stream called `name`. 0 or -1.
    int Get_record_date_list(uint64_t stream_type_bitmap, std::list<_k4t_fs_date_>& dates);
    int Get_record_date_list(std::string& name, std::list<_k4t_fs_date_>& dates);
    // As the list by stream types, restricted to the channels of the bitmap,
    // with the record types of each day ORed together. 0 or -1.
    int Get_record_date_info(uint64_t stream_type_bitmap, uint64_t channel_bitmap,
                             std::list<_k4t_fs_record_date_info_>& infos);
    // Appends the distinct stream names of this disk not yet in `names`.
    int Get_device_list(std::list<std::string>& names);



    // ---- deletion by time (qzfs_segment_delete.cpp)
    int delete_stream_segment_by_time(unsigned long root_index, unsigned long stream_segment_index,
                                      _k4t_fs_time_ time, unsigned char delete_backwards);

    // ---- deletion over days and stretches of time (qzfs_delete_by_range.cpp)
    // Deletes the unlocked normal segments, open neither for reading nor for
    // writing, of the channels, stream types and days of `para`. Counts the
    // roots walked from the first one with a deletion on, and stops when the
    // count reaches `limit` (above 0). The count, or -1.
    int delete_stream_segment_by_para(_qzfs_k4t_delete_para_* para, int limit);
    // Takes [from, to] out of one segment: whole, its head, its tail, or a
    // stretch inside it (split out, then deleted). Cuts fall on I-frames.
    // A segment being recorded can only lose its head, or a stretch that
    // ends before its live end; a locked one, or one open for reading, is
    // refused. 0 or -1.
    int delete_stream_segment_time_range(unsigned long root_index,
                                         unsigned long stream_segment_index, _k4t_fs_time_ from,
                                         _k4t_fs_time_ to);
    // Whether the disk's record dates meet the given days; prints both
    // ranges when they do not.
    bool record_dates_meet(uint8_t start_year, uint8_t start_month, uint8_t start_day,
                           uint8_t end_year, uint8_t end_month, uint8_t end_day);

    // ---- split by time and attributes of a node (qzfs_segment_split.cpp)
    // The part of a segment inside [op_start, op_end] takes the attributes of
    // `modify_mask` (bit 0 lock and lock_type, bit 1 record_type and
    // alarm_type) by becoming a node of its own: up to three pieces, under
    // the split journal. 0 (also for a range that misses the segment) or -1.
    int split_stream_segment_by_time(unsigned long root_index, unsigned long stream_segment_index,
                                     _k4t_fs_time_ op_start, _k4t_fs_time_ op_end,
                                     unsigned char modify_mask, unsigned char lock,
                                     unsigned long lock_type, unsigned char record_type,
                                     unsigned long long alarm_type);
    // As above; `range_piece` gets the node that holds the range afterwards,
    // or SPLIT_NO_PIECE when nothing was changed.
    int split_out_time_range(unsigned long root_index, unsigned long stream_segment_index,
                             _k4t_fs_time_ op_start, _k4t_fs_time_ op_end,
                             unsigned char modify_mask, unsigned char lock, unsigned long lock_type,
                             unsigned char record_type, unsigned long long alarm_type,
                             unsigned long* range_piece);
    static const unsigned long SPLIT_NO_PIECE = ~0UL;
    // Changes the attributes of a whole normal segment (a writer's live node
    // too) and brings its root's summary in line. The summary's result, or -1.
    int modify_stream_segment_info_by_id(_k4t_stream_segment_id_* id, unsigned char modify_mask,
                                         unsigned char lock, unsigned long lock_type,
                                         unsigned char record_type, unsigned long long alarm_type);

    // ---- attributes over a time range, the pre-recording's hand-over
    // (qzfs_segment_attributes.cpp)
    // Gives the part of every normal segment of the range's roots that the
    // range meets the attributes of `modify_mask`, splitting where the range
    // starts or ends inside a segment; root summaries follow. 0 or -1.
    int stream_segment_info_change(_qzfs_k4t_modify_segment_para_* para);
    // A pre-recording (id 2) becomes a normal recording with these
    // attributes, unless `record_type` is 255; then its head before `time`
    // goes. 0, or -1 for anything but a pre-recording.
    int modify_pre_record_info(unsigned long root_index, unsigned long stream_segment_index,
                               unsigned char record_type, unsigned long long alarm_type,
                               unsigned char lock, unsigned long lock_type, _k4t_fs_time_ time);

    // Adds a finished node at the first free place of a root's segment list;
    // the chain may grow. 0 or -1.
    int add_stream_segment_index_node(unsigned long root_index, uint32_t* block_num,
                                      uint32_t** list, const _stream_segment_index_node_dev_* node,
                                      uint32_t* position)
    {
        return place_stream_segment_node(root_index, block_num, list, node, position);
    }
    // A data block's record from the first sound copy: key block, backup key
    // block, the block's own head. 0 or -1.
    int read_data_block_record(unsigned long block, _qzfs_block_info_* info);
    // Frees a data block of a segment of the root's day; a block whose record
    // names another type or day is left to its new owner.
    void free_segment_data_block(unsigned long block, const _root_index_node_dev_& root);

    // ---- front trim and whole delete for room (qzfs_segment_trim.cpp)
    // Takes `want_delete_size` bytes (or, with `end_date_time`, the time up
    // to it) from the front of a segment at an I-frame, or removes it whole.
    // The caller holds the disk lock. -1 failed, 0 trimmed or nothing to do,
    // else the result of check_and_modify_root_info after a whole delete.
    int Delete_stream_segment(unsigned long root_index, unsigned long stream_segment_index,
                              _k4t_fs_date_time_* end_date_time,
                              unsigned long long want_delete_size,
                              unsigned long long* delete_size, unsigned char* whole,
                              _k4t_fs_time_* new_start_time, unsigned long* new_owner_stamp,
                              unsigned char* delete_root_flag);

    // ---- what the overwrite planner may take (qzfs_overwrite_candidates.cpp);
    // disk lock held.
    // Frees orphan data blocks of the kind (big: stream types 0 to 2, else 3
    // and up) older than `stamp`, the oldest first, until `want` bytes are
    // freed (a want of 4 GiB or more frees every one). The blocks freed, -1
    // when there is no orphan; `size` gets their bytes.
    int delete_invalid_block_data(unsigned long stamp, unsigned char big, unsigned long long want,
                                  unsigned long long* size);
    // Adds this disk's unlocked normal segments of the kind to `list`, which
    // stays sorted by owner stamp and holds at most 100. 0 or -1.
    int Find_delete_stream_segment(unsigned char big, std::list<_delete_ss_list_node_>& list);
    // The distinct days of each small stream type (3 and up). 0 or -1.
    int get_stream_day_num_info(std::map<uint8_t, std::list<_k4t_fs_date_>>& days);
    // The day of a stream being recorded on this disk; 0, or -1 when none is.
    int get_cur_record_date(_k4t_fs_date_* date);

    // ---- lock of one whole segment (qzfs_segment_lock.cpp); disk lock held.
    // `lock_number` 0 unlocks; n from 1 locks with lock type bit n - 1 (no bit
    // above 32), replacing the old lock type. 0 or -1.
    int Stream_segment_lock_control(const _k4t_stream_segment_id_* id, unsigned char lock_number);

    // ---- action journal (qzfs_action_journal.cpp)
    // The first root index block, which carries the journal; 0 when unknown.
    unsigned long journal_block() const;
    int Action_delete_recovery(_action_delete_* record);
    int action_segment_split_recovery(_action_segment_split_* record);

    // ---- root index check at mount (qzfs_root_index_check.cpp)
    int check_stream_segment_index(unsigned long block);
    int recovery_root_index();
    int create_root_index_block(std::list<_block_info_node_>& segments);

    // Read-only views for the registry, the host tool and tests.
    const _qzfs_disk_manage_& manage() const { return m_manage; }
    void* io_interface() const { return m_pIo_interface; }
    // The disk's metadata I/O buffer, QZFS_IO_UNIT bytes; the caller holds
    // the disk lock (or runs inside mount).
    unsigned char* io_buffer() { return m_file_system_io_buffer; }

private:
    _qzfs_normal_file_cache_node_* find_normal_file_node(const char* name);
    void set_normal_file_write_user(const char* name, _qzfs_normal_file_describe_* handle);
    int create_normal_file(const char* name, void* io);
    int repair_last_normal_file_header(_qzfs_normal_file_describe_* handle,
                                       _qzfs_file_block_header_& header);
    int load_normal_file_end(_qzfs_normal_file_describe_* handle);
    // Bytes of a file of `blocks` blocks whose last one holds `used_len`.
    long long normal_file_size(unsigned long blocks, unsigned long used_len) const;
    int extend_normal_file(_qzfs_normal_file_describe_* handle);
    // A reading handle takes the end of the file from the handle writing
    // it, when that one has gone further. Disk lock held. 1 when it did.
    int refresh_normal_file_from_writer(_qzfs_normal_file_describe_* handle);
    bool orphan_still_unowned(const _invalid_block_list_node_& orphan);
    int write_record_to_places(unsigned long key_block, unsigned long bak_block,
                               unsigned long block, _qzfs_block_info_* record, char where,
                               const char* key_fail, const char* bak_fail);
    int write_key_block_pair(_qzfs_block_info_* own, _qzfs_key_header_* header,
                             unsigned long first_key, std::list<unsigned long>& bad,
                             std::list<unsigned long>& system);
    int repair_bak_key_block(unsigned long first_key);
    int open_device_for_recovery(char* path);
    int find_group_index_block(std::list<_block_info_node_>& group, unsigned long& found,
                               bool& sound);
    int start_key_info_recovery(unsigned long& block_size, unsigned long& first,
                                unsigned long& total, std::list<unsigned long>& system);
    int merge_key_info_in_place(unsigned long key, std::list<unsigned long>& bad,
                                unsigned long other, std::list<unsigned long>& other_bad,
                                std::list<unsigned long>& system,
                                std::list<unsigned long>& unusable);
    int merge_key_info_into_new_copy(unsigned long key, std::list<unsigned long>& bad,
                                     unsigned long other, std::list<unsigned long>& other_bad,
                                     std::list<unsigned long>& system,
                                     std::list<unsigned long>& unusable, unsigned long target);
    int merge_damaged_key_copies(unsigned long& key, std::list<unsigned long>& bad,
                                 unsigned long bak, std::list<unsigned long>& bak_bad,
                                 unsigned long first, unsigned long total,
                                 std::list<unsigned long>& system,
                                 std::list<unsigned long>& unusable);
    int write_scanned_key_table(unsigned long& place, unsigned long total,
                                std::list<unsigned long>& system,
                                std::list<unsigned long>& unusable);
    int write_scanned_key_backup(unsigned long key, unsigned long total,
                                 std::list<unsigned long>& system,
                                 std::list<unsigned long>& unusable);

    int read_index_header_unit(unsigned long block);
    int read_index_chain(const index_chain_kind& kind, unsigned long first_block, uint32_t* num,
                         uint32_t** list, void* first_header);
    int write_end_mark_unit(const index_node_kind& kind, const uint32_t* list,
                            const _qzfs_data_offset_& at);
    int write_index_node(const index_node_kind& kind, uint32_t block_num, const uint32_t* list,
                         unsigned long index, const unsigned char* disk_node, int new_node,
                         int is_end);
    int write_empty_index_block(unsigned long block, unsigned char fill, const void* header,
                                size_t header_len);
    // Nodes of `node_size` bytes in one index block.
    uint32_t nodes_per_index_block(unsigned long node_size) const;
    // The two cached index levels, as the shared range code of
    // qzfs_cached_range.h sees them.
    struct root_index_level;
    struct segment_index_level;
    template <typename Level>
    int scan_index_range(Level& level, uint32_t wanted, typename Level::Mem* out);
    _ri_ssi_manager_* cached_root_entry(unsigned long root_index);
    int read_segment_node_uncached(unsigned long root_index, unsigned long index,
                                   _stream_segment_index_node_men_* out);
    int relock_stream_segment(unsigned long root_index, uint32_t num, const uint32_t* list,
                              unsigned long index, const _stream_segment_index_node_dev_* node);
    int place_stream_segment_node(unsigned long root_index, uint32_t* block_num, uint32_t** list,
                                  const _stream_segment_index_node_dev_* node, uint32_t* position);
    int delete_root_segments(unsigned long root_index);
    int change_root_segments(unsigned long root_index, const _qzfs_k4t_modify_segment_para_& p,
                             _k4t_fs_time_ from, _k4t_fs_time_ to);
    int hand_over_pre_record(struct segment_copy& copy, unsigned char record_type,
                             unsigned long long alarm_type, unsigned char lock,
                             unsigned long lock_type);
    int delete_split_out_range(unsigned long root_index, unsigned long segment,
                               _k4t_fs_time_ from, _k4t_fs_time_ to);
    int walk_root_index_block(unsigned long root_block, std::list<_block_info_node_>& unowned);
    bool root_chain_reads(unsigned long root_block);
    void note_root_error(std::list<_qzfs_k4t_recovery_para_>& errors,
                         const _root_index_node_dev_& node);
    int write_rebuilt_root_block(unsigned long block, const std::list<_block_info_node_>& segments);

    void* m_pIo_interface;
    unsigned char* m_file_system_io_buffer;
    unsigned long m_file_system_io_buffer_len;
    int m_state;
    _qzfs_disk_manage_ m_manage;
    qzfs_key_repair_report m_key_repair;
    qzfs_rebuild_report m_rebuild;
    unsigned char m_hdd_id;
    std::string m_dev_path;
    unsigned char bare_dev;
    std::list<stream_segment_index_cache_t> m_stream_segment_index_cache;
    uint32_t m_last_sync_second;  // see last_sync_second()
    // Guards the open map's structure: writers and readers look up their own
    // record without the disk lock while other descriptors come and go.
    std::mutex m_open_map_lock;
    // Set (under the disk lock) while a writer flushes its I-frame list: the
    // periodic device sync is then only marked due, and run by that writer
    // after it has let the disk lock go.
    bool m_defer_device_sync = false;
    std::atomic<bool> m_device_sync_due{false};
};

// Byte-order edges of the index records: with equal orders they only copy.
void Endian_trans_root_index_block_header(const void* src, _fs_endian_ src_endian, void* dst,
                                          _fs_endian_ dst_endian);
void Endian_trans_stream_segment_index_block_header(const void* src, _fs_endian_ src_endian,
                                                    void* dst, _fs_endian_ dst_endian);
void Endian_trans_iframe_index_block_header(const void* src, _fs_endian_ src_endian, void* dst,
                                            _fs_endian_ dst_endian);
void Endian_trans_stream_segment_index(const _stream_segment_index_node_dev_* src,
                                       _fs_endian_ src_endian,
                                       _stream_segment_index_node_dev_* dst,
                                       _fs_endian_ dst_endian);
void Endian_trans_iframe_index(const _iframe_index_node_dev_* src, _fs_endian_ src_endian,
                               _iframe_index_node_dev_* dst, _fs_endian_ dst_endian);
void Endian_trans_root_index_node_dev(const _root_index_node_dev_* src, _fs_endian_ src_endian,
                                      _root_index_node_dev_* dst, _fs_endian_ dst_endian);

// Stamp a block record with its check number.
void qzfs_block_info_seal(_qzfs_block_info_* info);
// True when a block record's check number holds.
bool qzfs_block_info_is_sound(const _qzfs_block_info_* info);

// Holds a disk's lock for a scope.
class DiskLockGuard {
public:
    explicit DiskLockGuard(CQzFileSystem& fs) : fs_(fs) { fs_.disk_lock(1); }
    ~DiskLockGuard() { fs_.disk_lock(0); }
    DiskLockGuard(const DiskLockGuard&) = delete;
    DiskLockGuard& operator=(const DiskLockGuard&) = delete;

private:
    CQzFileSystem& fs_;
};

#endif
