// CQzFileSystem: one mounted (or formatting) disk. All disk logic is a member
// of this class; the members are kept in source files by theme.
#ifndef QZFILESYSTEM_H
#define QZFILESYSTEM_H

#include "qzfilesystem_api.h"
#include "qzfs_disk_format.h"

#include <cstdint>
#include <list>
#include <map>
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

struct _opened_stream_segment_;

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
    // Number of table records of each block type (index = type, 0 to 10).
    int count_blocks_by_type(unsigned long counts[11]);
    int disk_lock(unsigned char lock);
    void Qzfilesystem_uninit();
    bool open_stream_segment_is_empty() const;
    unsigned char Get_hdd_id() const { return m_hdd_id; }
    const std::string& Get_dev_path() const { return m_dev_path; }

    // ---- device channel (qzfilesystem.cpp)
    int Create_file_system_io_channel();
    int Seek_and_write_in_block(void* io, unsigned long block, unsigned long offset,
                                unsigned char* data, int length);
    int Seek_and_read_in_block(void* io, unsigned long block, unsigned long offset,
                               unsigned char* data, int length);

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
    int modify_block_attr(unsigned long block, void* attr, char where);
    int load_disk_manage_info_by_key_info_block(unsigned long key_block);
    int get_disk_manage_info_by_key_info_block(unsigned char allow_scan);
    int get_block_list_by_type(unsigned char type, std::list<_block_info_node_>& out);
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

    // ---- normal file cache (qzfs_normal_file.cpp)
    void Add_block_to_normal_file(const char* name, unsigned short block_index,
                                  unsigned long block);
    void init_normal_file_cache();

    // ---- mount steps whose subsystems come later (qzfs_recovery.cpp)
    int fast_recovery_key_info();
    int scan_recovery_key_info();
    int check_root_index_block_integrity_and_recovery();
    int Power_down_recovery();
    int get_disk_invalid_data_block_num();

    // Read-only views for the registry, the host tool and tests.
    const _qzfs_disk_manage_& manage() const { return m_manage; }
    void* io_interface() const { return m_pIo_interface; }

private:
    int read_key_table_piece(unsigned long key_block, unsigned long offset, unsigned char* buf,
                             int length);
    int write_record_to_places(unsigned long key_block, unsigned long bak_block,
                               unsigned long block, _qzfs_block_info_* record, char where,
                               const char* key_fail, const char* bak_fail);
    int write_key_block_pair(_qzfs_block_info_* own, _qzfs_key_header_* header,
                             unsigned long first_key, std::list<unsigned long>& bad,
                             std::list<unsigned long>& system);
    int repair_bak_key_block(unsigned long first_key);
    int load_key_table(unsigned long key_block);

    void* m_pIo_interface;
    unsigned char* m_file_system_io_buffer;
    unsigned long m_file_system_io_buffer_len;
    int m_state;
    _qzfs_disk_manage_ m_manage;
    unsigned char m_hdd_id;
    std::string m_dev_path;
    unsigned char bare_dev;
};

// Stamp a block record with its check number.
void qzfs_block_info_seal(_qzfs_block_info_* info);
// True when a block record's check number holds.
bool qzfs_block_info_is_sound(const _qzfs_block_info_* info);

#endif
