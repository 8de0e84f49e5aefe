// Small pieces shared by the stream paths (write, read, seek, the I-frame
// index, the deletes): a scoped disk lock, a reader of I-frame log nodes by
// position, the day test of a data block, and the snapshot that undoes a
// reader's failed move.
#ifndef QZFS_STREAM_SUPPORT_H
#define QZFS_STREAM_SUPPORT_H

#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstring>

// Holds the disk lock for a scope when asked to.
class OptionalDiskLock {
public:
    OptionalDiskLock(CQzFileSystem& fs, bool take) : fs_(fs), held_(take)
    {
        if (held_)
            fs_.disk_lock(1);
    }
    ~OptionalDiskLock()
    {
        if (held_)
            fs_.disk_lock(0);
    }
    OptionalDiskLock(const OptionalDiskLock&) = delete;
    OptionalDiskLock& operator=(const OptionalDiskLock&) = delete;

private:
    CQzFileSystem& fs_;
    bool held_;
};

// Reads log nodes by position through whole units of `buffer_len` bytes,
// loading a unit only when the position leaves the one in the buffer, so
// that a walk in either direction reads each unit once.
class iframe_log_reader {
public:
    enum { OK = 0, PAST_CHAIN = -1, READ_FAILED = -2 };

    iframe_log_reader(CQzFileSystem& fs, uint32_t block_num, const uint32_t* list,
                      unsigned char* buffer, unsigned long buffer_len)
        : fs_(fs), block_num_(block_num), list_(list), buffer_(buffer), len_(buffer_len)
    {
        memset(&at_, 0, sizeof(at_));
    }

    // Node `index` in local byte order; its check sum is not yet tested.
    int fetch(unsigned long index, _iframe_index_node_dev_* node)
    {
        if (!loaded_ || index < at_.unit_first_index || index > at_.unit_last_index) {
            loaded_ = false;
            Calculate_index_info(fs_.manage().block_size, QZFS_IFRAME_NODE_SIZE, index, len_,
                                 &at_);
            if (at_.its_block_num >= block_num_)
                return PAST_CHAIN;
            if (fs_.read_in_block(block(), at_.unit_offset, buffer_, len_) != 0)
                return READ_FAILED;
            loaded_ = true;
        }
        const unsigned char* slot =
            buffer_ + qzfs_iframe_offset_in_unit(at_, uint32_t(index), len_);
        Endian_trans_iframe_index(reinterpret_cast<const _iframe_index_node_dev_*>(slot),
                                  fs_.manage().disk_endian, node, gLocal_endian);
        return OK;
    }

    // The place of the unit last looked for, for messages.
    long chain_position() const { return long(at_.its_block_num); }
    long block() const { return long(list_[at_.its_block_num]); }
    long unit_offset() const { return long(at_.unit_offset); }

private:
    CQzFileSystem& fs_;
    uint32_t block_num_;
    const uint32_t* list_;
    unsigned char* buffer_;
    unsigned long len_;
    _qzfs_data_offset_ at_;
    bool loaded_ = false;
};

// Bit `bit` of a selection mask `width` bits wide; bits past the width
// test as not set (a channel or stream type a mask cannot name).
inline bool qzfs_bit_set(uint64_t bitmap, unsigned bit, unsigned width)
{
    return bit < width && ((bitmap >> bit) & 1u) != 0;
}

// The time of day of an I-frame log node.
inline _k4t_fs_time_ qzfs_iframe_time(const _iframe_index_node_dev_& node)
{
    _k4t_fs_time_ t = {node.hour, node.minute, node.second};
    return t;
}

// Whether a block record is a data block of the root's day. A block number
// in a stale index may name a block that now belongs to another day, and
// such a block is left to its new owner.
inline bool qzfs_block_of_day(const _qzfs_block_info_& info, const _root_index_node_dev_& root)
{
    return info.block_type == QZFS_BLOCK_DATA && info.year == root.year &&
           info.month == root.month && info.day == root.day;
}

// A reader's position as a failed seek or I-frame step must leave it: the
// record and the nodes of its list. The frame buffer is owned memory that
// may have grown meanwhile, so the present one is kept.
struct reader_snapshot {
    _read_stream_segment_ state;
    _iframe_index_node_dev_ list[FS_IFI_BUFFER_NUM];

    explicit reader_snapshot(const _read_stream_segment_* rss) : state(*rss)
    {
        memcpy(list, rss->iframe_list, sizeof(list));
    }
    void restore(_read_stream_segment_* rss) const
    {
        uint8_t* buffer = rss->frame_buffer;
        const uint32_t buffer_len = rss->frame_buffer_len;
        *rss = state;
        memcpy(rss->iframe_list, list, sizeof(list));
        rss->frame_buffer = buffer;
        rss->frame_buffer_len = buffer_len;
    }
};

// Calls `visit(root_index, node)` for every root node of the disk up to its
// end mark; -1 when one cannot be read, the failure named after `func` and
// told by `fail_format` (which takes the root index as a long).
template <typename Visit>
inline int for_each_root(CQzFileSystem& fs, const char* func, Visit visit,
                         const char* fail_format = "Get_root_index_mem_node failed(%ld)")
{
    for (unsigned long ri = 0;; ri++) {
        // The node's name index stays good only while the node is cached:
        // the lookup and the visit go under one hold of the cache lock.
        CacheLockGuard cache;
        _root_index_node_mem_ node;
        if (fs.Get_root_index_mem_node(ri, &node) != 0) {
            QZLOG_AS(func, fail_format, long(ri));
            return -1;
        }
        if (node.id == END_ROOT_INDEX)
            return 0;
        visit(ri, node);
    }
}

// The stream name of a cached root node, "" when it has none.
inline const char* root_name(const _root_index_node_mem_& node)
{
    const char* name = pgSystemResourceManager == nullptr
                           ? nullptr
                           : pgSystemResourceManager->m_string_index.get_name(node.name_index);
    return name == nullptr ? "" : name;
}

#endif
