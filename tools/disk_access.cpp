// disk_access: the host tool's way to the disk object. Each function finds
// the mounted disk, takes its lock for the reads and writes it makes, and
// hands back plain records.
#include "disk_access.h"

#include "qzfilesystem.h"
#include "qzfs_datetime.h"
#include "qzfs_manager.h"

#include <algorithm>
#include <cstring>

const char* const kDiskBlockTypeNames[kDiskBlockTypes] = {
    "none", "free", "system", "key info", "root index", "segment index",
    "i-frame index", "data", "normal file", "bad", "test"};

namespace {

// Runs `step` on the mounted disk `hdd` under its disk lock and gives its
// result; `missing` when no disk is mounted there.
template <typename Step>
int with_disk(unsigned char hdd, int missing, Step step)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd);
    if (fs == nullptr)
        return missing;
    DiskLockGuard disk(*fs);
    return step(*fs);
}

// Index records are packed: their wider fields are copied byte by byte from
// and to their address, never bound to a reference of their own type (which
// would be misaligned).
template <typename T, size_t Width>
T read_packed(const void* field)
{
    static_assert(sizeof(T) == Width, "field width");
    T value;
    memcpy(&value, field, sizeof(T));
    return value;
}
#define READ_PACKED(T, field) read_packed<T, sizeof(field)>(&(field))
#define WRITE_PACKED(field, value) memcpy(&(field), (value), sizeof(field))

// A character array of a record as a string, up to its first NUL; its last
// byte is kept for the NUL, whatever the disk holds there.
template <size_t N>
std::string text_of(const char (&field)[N])
{
    return std::string(field, strnlen(field, N - 1));
}

// The I-frame index blocks of root entry `root`: its first block, the
// block list (freed by the caller) and the entry counts.
int read_iframe_chain(CQzFileSystem& fs, uint32_t root, uint32_t& head, uint32_t& num,
                      uint32_t*& list, _iframe_block_info_& info)
{
    uint32_t ssi_num = 0;
    uint32_t* ssi_list = nullptr;
    int rc = fs.Get_stream_segment_index_block_list(root, &ssi_num, &ssi_list, &head);
    delete[] ssi_list;
    if (rc == 0)
        rc = fs.Read_iframe_index_block_list(head, &num, &list);
    if (rc == 0)
        rc = fs.Get_iframe_block_info(head, &info);
    delete[] info.pBlock_list;
    info.pBlock_list = nullptr;
    return rc;
}

// Takes one data block for the day of `para`, as a writer opening a block
// would.
int take_data_block(CQzFileSystem& fs, const _qzfs_k4t_create_ss_para_& para, uint32_t& block)
{
    _qzfs_block_info_ info = {};
    info.block_type = QZFS_BLOCK_DATA;
    info.owner_stamp = uint32_t(fs.get_block_owner_stamp());
    info.year = para.year;
    info.month = para.month;
    info.day = para.day;
    unsigned long taken = 0;
    if (fs.Request_free_block(1, &taken, &info, 0) != 0)
        return -1;
    block = uint32_t(taken);
    return 0;
}

// The I-frame entries of `seconds` seconds from the start time of `para`:
// a block entry for every eighth second's data block, one I-frame a second
// spread over it. `next_ordinal` counts the data blocks of the root.
int synthetic_iframes(CQzFileSystem& fs, const _qzfs_k4t_create_ss_para_& para, unsigned seconds,
                      unsigned long block_size, uint32_t next_ordinal,
                      std::vector<_iframe_index_node_dev_>& nodes, uint64_t& len)
{
    const uint32_t step = uint32_t((block_size - 4096) / 8);
    uint32_t block = 0;
    for (unsigned s = 0; s < seconds; s++) {
        unsigned at = para.hour * 3600u + para.minute * 60u + para.second + s;
        _iframe_index_node_dev_ n = {};
        if (s % 8 == 0) {
            if (take_data_block(fs, para, block) != 0)
                return -1;
            uint32_t ordinal = next_ordinal++, shared = 1;
            n.id = IFRAME_INDEX_ID_BLOCK;
            WRITE_PACKED(n.block_num, &block);
            WRITE_PACKED(n.block_offset, &ordinal);
            WRITE_PACKED(n.pts_high, &shared);
            nodes.push_back(n);
            n = {};
        }
        uint32_t offset = 4096 + (s % 8) * step, pts = s * 90000u;
        uint64_t stream_offset = uint64_t(s) * step;
        n.id = IFRAME_INDEX_ID_IFRAME;
        n.hour = uint8_t(at / 3600 % 24);
        n.minute = uint8_t(at / 60 % 60);
        n.second = uint8_t(at % 60);
        WRITE_PACKED(n.block_num, &block);
        WRITE_PACKED(n.block_offset, &offset);
        WRITE_PACKED(n.pts_low, &pts);
        WRITE_PACKED(n.stream_segment_offset, &stream_offset);
        nodes.push_back(n);
    }
    len = uint64_t(seconds) * step;
    return 0;
}

// Gives segment `index` of root `root` its end time (the start of `para`
// plus `seconds`, at most the end of the day) and length, and brings the
// root entry up to date.
int close_synthetic_segment(CQzFileSystem& fs, uint32_t root, uint32_t index,
                            const _qzfs_k4t_create_ss_para_& para, unsigned seconds, uint64_t len,
                            _stream_segment_index_node_dev_& node)
{
    unsigned end = para.hour * 3600u + para.minute * 60u + para.second + seconds - 1;
    if (end > 86399)
        end = 86399;
    node.end_hour = uint8_t(end / 3600);
    node.end_minute = uint8_t(end / 60 % 60);
    node.end_second = uint8_t(end % 60);
    WRITE_PACKED(node.len_in_bytes, &len);
    if (fs.Modify_stream_segment(root, index, 0, &node) != 0)
        return -1;
    return fs.check_and_modify_root_info(root, nullptr);
}

// Creates the segment node, appends its I-frame entries as a writer would
// (at most FS_IFI_BUFFER_NUM at a time) and closes the segment.
int add_synthetic_segment(CQzFileSystem& fs, uint32_t root, const _qzfs_k4t_create_ss_para_& para,
                          unsigned seconds, unsigned long block_size, uint32_t& index)
{
    uint32_t head = 0, num = 0;
    uint32_t* list = nullptr;
    _iframe_block_info_ info = {};
    if (read_iframe_chain(fs, root, head, num, list, info) != 0) {
        delete[] list;
        return -1;
    }
    const uint32_t next = info.iframe_index_num + info.block_index_num;
    std::vector<_iframe_index_node_dev_> nodes;
    uint64_t len = 0;
    _stream_segment_index_node_dev_ node;
    int rc = fs.Create_stream_segment_index_node(root, &para, next + 1, &index, &node);
    if (rc == 0)
        rc = synthetic_iframes(fs, para, seconds, block_size, info.block_index_num, nodes, len);
    const uint8_t date_time[6] = {para.year, para.month, para.day, para.hour, para.minute, para.second};
    for (size_t done = 0; rc == 0 && done < nodes.size();) {
        size_t count = std::min<size_t>(FS_IFI_BUFFER_NUM, nodes.size() - done);
        rc = fs.Add_iframe_index(&num, &list, next + done, &nodes[done], count, date_time);
        done += count;
    }
    delete[] list;
    if (rc != 0)
        return -1;
    return close_synthetic_segment(fs, root, index, para, seconds, len, node);
}

} // namespace

bool disk_key_info(unsigned char hdd, DiskKeyInfo& out)
{
    unsigned char block_start[QZFS_KEY_HEADER_OFFSET + sizeof(_qzfs_key_header_)];
    _qzfs_key_header_ header = {};
    const int read = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        const _qzfs_disk_manage_& manage = fs.manage();
        out.key_block = manage.key_block;
        out.backup_key_block = manage.bak_key_block;
        out.owner_stamp = manage.block_owner_stamp;
        if (fs.Seek_and_read_in_block(fs.io_interface(), manage.key_block, 0, block_start,
                                      sizeof(block_start)) != (int)sizeof(block_start))
            return -1;
        memcpy(&header, block_start + QZFS_KEY_HEADER_OFFSET, sizeof(header));
        return 0;
    });
    out.label = text_of(header.label);
    out.version = text_of(header.version);
    return read == 0;
}

int disk_count_blocks(unsigned char hdd, unsigned long counts[kDiskBlockTypes])
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) { return fs.count_blocks_by_type(counts); });
}

bool disk_root_index_block(unsigned char hdd, unsigned long& block)
{
    return with_disk(hdd, 0, [&](CQzFileSystem& fs) {
        auto root = fs.manage().root_index_block_map.find(0);
        if (root == fs.manage().root_index_block_map.end())
            return 0;
        block = root->second;
        return 1;
    }) == 1;
}

int disk_root_entry(unsigned char hdd, uint32_t position, IndexSlot& slot, RootEntry& entry)
{
    _root_index_node_dev_ node;
    const int rc = with_disk(
        hdd, -1, [&](CQzFileSystem& fs) { return fs.Get_root_index_dev_node(position, &node); });
    if (rc != 0)
        return rc;
    if (node.id == END_ROOT_INDEX) {
        slot = IndexSlot::End;
        return 0;
    }
    if (!IS_NORMAL_ROOT_INDEX(node.id)) {
        slot = IndexSlot::Unused;
        return 0;
    }
    slot = IndexSlot::Used;
    entry.year = node.year;
    entry.month = node.month;
    entry.day = node.day;
    entry.channel = node.channel;
    entry.stream_type = node.stream_type;
    entry.name = text_of(node.name);
    entry.record_types = READ_PACKED(uint16_t, node.record_type);
    entry.segment_index_block = READ_PACKED(uint32_t, node.stream_segment_index_block);
    return 0;
}

int disk_segment_entry(unsigned char hdd, uint32_t root, uint32_t index, IndexSlot& slot,
                       SegmentEntry& entry)
{
    _stream_segment_index_node_dev_ n;
    const int rc = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        return fs.Get_stream_segment_index_dev_node(root, index, &n);
    });
    if (rc != 0)
        return rc;
    if (n.id == END_STREAM_SEGMENT_INDEX || n.id == FREE_STREAM_SEGMENT_INDEX) {
        slot = n.id == END_STREAM_SEGMENT_INDEX ? IndexSlot::End : IndexSlot::Unused;
        return 0;
    }
    slot = IndexSlot::Used;
    entry.start_hour = n.start_hour;
    entry.start_minute = n.start_minute;
    entry.start_second = n.start_second;
    entry.closed = n.end_hour != QZFS_INVALID_END_HOUR;
    entry.end_hour = n.end_hour;
    entry.end_minute = n.end_minute;
    entry.end_second = n.end_second;
    entry.len = READ_PACKED(uint64_t, n.len_in_bytes);
    entry.record_type = n.record_type;
    entry.locked = n.lock != 0;
    entry.start_iframe = READ_PACKED(uint32_t, n.start_iframe);
    entry.pre_record = n.id == PRE_RECORD_STREAM_SEGMENT_INDEX;
    return 0;
}

int disk_iframe_index(unsigned char hdd, uint32_t root, unsigned long limit, IframeIndexHead& head,
                      std::vector<IframeEntry>& entries)
{
    uint32_t num = 0;
    uint32_t* list = nullptr;
    std::vector<_iframe_index_node_dev_> nodes(limit);
    unsigned long count = limit;
    _iframe_block_info_ info = {};
    const int rc = with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        int step = read_iframe_chain(fs, root, head.first_block, num, list, info);
        if (step == 0)
            step = fs.Read_iframe_index(num, list, 0, &count, nodes.data(), 3);
        return step;
    });
    delete[] list;
    if (rc != 0)
        return rc;
    head.blocks = num;
    head.iframes = info.iframe_index_num;
    head.block_entries = info.block_index_num;
    entries.clear();
    for (unsigned long i = 0; i < count; i++) {
        const _iframe_index_node_dev_& n = nodes[i];
        IframeEntry e;
        e.iframe = n.id == IFRAME_INDEX_ID_IFRAME;
        e.hour = n.hour;
        e.minute = n.minute;
        e.second = n.second;
        e.block = READ_PACKED(uint32_t, n.block_num);
        e.offset = READ_PACKED(uint32_t, n.block_offset);
        e.shared_by = READ_PACKED(uint32_t, n.pts_high);
        e.stream_offset = READ_PACKED(uint64_t, n.stream_segment_offset);
        entries.push_back(e);
    }
    return 0;
}

int disk_add_root_entry(unsigned char hdd, const _qzfs_k4t_create_ss_para_& para,
                        uint32_t& position)
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        return fs.Create_root_index_node(&para, &position, nullptr);
    });
}

int disk_add_synthetic_segment(unsigned char hdd, uint32_t root, const _qzfs_k4t_create_ss_para_& para,
                               unsigned seconds, unsigned long block_size, uint32_t& index)
{
    return with_disk(hdd, -1, [&](CQzFileSystem& fs) {
        return add_synthetic_segment(fs, root, para, seconds, block_size, index);
    });
}

unsigned library_days_in_month(unsigned year, unsigned month)
{
    unsigned char days = 0;
    if (year > 99 || month > 12 || Get_max_day(uint8_t(year), uint8_t(month), &days) != 1)
        return 0;
    return days;
}
