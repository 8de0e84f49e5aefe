// Rebuild of lost indexes from the data blocks.
//
// Every data block names in its record the channel, stream type and day of
// its stream, the first block of that stream's I-frame index (the group
// key X below), the segment it was written for (a segment mark) and its
// place in the stream; its body holds whole frames with their times. The
// rebuild groups the data blocks by X, and for a group whose segment and
// I-frame index do not both check out it scans the frames again, writes a
// new I-frame index and a new stream segment index block, and at the end
// the root index anew from the segment index blocks. Index blocks that no
// longer lead anywhere (a replaced I-frame index, a segment index block
// without segments, what a cut rebuild left half made) are freed before
// that, on every run, so that a run cut in its clean-up is finished by the
// next.
//
// Rebuilt segments end at their last I-frame, and the lock reasons and
// alarm bits they had are gone with the index: one value (255) stands for
// any. Small streams (stream type above 2) are not rebuilt.
#include "qzfilesystem.h"
#include "qzfs_av_frame.h"
#include "qzfs_datetime.h"
#include "qzfs_log.h"

#include <cstring>
#include <iterator>
#include <list>
#include <set>
#include <vector>

namespace {

// The frame buffer of the scan.
const unsigned long kFrameBufferLen = 0x200000;
// An I-frame further than this from the last one (or the block's time) is
// taken for an old frame in a reused block.
const long kMaxIframeGap = 29;
// Tries at a new index block before a group is given up.
const int kIndexBlockTries = 10;

uint32_t group_key(const _qzfs_block_info_& info)
{
    uint32_t x;
    memcpy(&x, info.attr + 6, 4);
    return x;
}

uint32_t segment_mark(const _qzfs_block_info_& info)
{
    uint32_t mark;
    memcpy(&mark, info.attr + 10, 4);
    return mark;
}

bool same_stream_day(const _qzfs_block_info_& a, const _qzfs_block_info_& b)
{
    return a.year == b.year && a.month == b.month && a.day == b.day && a.attr[0] == b.attr[0] &&
           a.attr[1] == b.attr[1];
}

long day_number(uint8_t year, uint8_t month, uint8_t day)
{
    return (long(year) * 12 + month) * 31 + day;
}

bool in_para(const _block_info_node_& b, const _qzfs_k4t_recovery_para_& p)
{
    const long d = day_number(b.info.year, b.info.month, b.info.day);
    return b.info.attr[0] == p.channel && b.info.attr[1] == p.stream_type &&
           d >= day_number(p.start_date.year, p.start_date.month, p.start_date.day) &&
           d <= day_number(p.end_date.year, p.end_date.month, p.end_date.day);
}

// The record of a new index block of a group, from its model data block.
_qzfs_block_info_ index_block_record(uint8_t type, uint32_t stamp, const _qzfs_block_info_& model)
{
    _qzfs_block_info_ info;
    memset(&info, 0, sizeof(info));
    info.owner_stamp = stamp;
    info.block_type = type;
    info.year = model.year;
    info.month = model.month;
    info.day = model.day;
    info.hour = model.hour;
    info.minute = model.minute;
    info.second = model.second;
    info.attr[0] = model.attr[0];
    info.attr[1] = model.attr[1];
    const uint8_t record_type = model.attr[3];
    const uint16_t bits = uint16_t(record_type < 16 ? 1u << record_type : 0u);
    memcpy(info.attr + 2, &bits, 2);
    info.attr[4] = model.attr[4];
    return info;
}

long second_of(uint8_t h, uint8_t m, uint8_t s) { return long(h) * 3600 + long(m) * 60 + s; }

// Where byte p of the frame buffer lies on the disk: the buffer's head may
// still be in the previous block, the rest follows in the current one from
// its first data byte.
struct buffer_place {
    unsigned long head_block = 0, head_offset = 0;
    unsigned long block = 0;  // the block being read
    unsigned long block_size = 0;

    void at(unsigned long p, uint32_t& out_block, uint32_t& out_offset) const
    {
        if (head_block == block || p < block_size - head_offset) {
            out_block = uint32_t(head_block);
            out_offset = uint32_t(head_offset + p);
        } else {
            out_block = uint32_t(block);
            out_offset = uint32_t(QZFS_DATA_BLOCK_FIRST_FRAME + p - (block_size - head_offset));
        }
    }
    // The head moves `n` bytes on.
    void advance(unsigned long n)
    {
        uint32_t b, o;
        at(n, b, o);
        head_block = b;
        head_offset = o;
    }
};

// An I-frame of a block's stream becomes an entry when its date and time
// read, its day is the block's, and its time lies within kMaxIframeGap
// seconds of `reference`, which it then becomes. `keep` places the entry.
template <typename Keep>
void note_rebuilt_iframe_in(CQzFileSystem& fs, const uint8_t* frame, uint32_t len,
                            const _qzfs_block_info_& block, long& reference, Keep keep)
{
    uint8_t when[6];
    if (fs.Get_av_frame_extend_info(frame, len, QZFS_FRAME_EXT_DATE_TIME, when) != 0)
        return;
    if (when[0] != block.year || when[1] != block.month || when[2] != block.day)
        return;
    const long now = second_of(when[3], when[4], when[5]);
    if (now - reference > kMaxIframeGap || reference - now > kMaxIframeGap)
        return;
    reference = now;
    _iframe_index_node_dev_ iframe;
    memset(&iframe, 0, sizeof(iframe));
    iframe.id = IFRAME_INDEX_ID_IFRAME;
    iframe.hour = when[3];
    iframe.minute = when[4];
    iframe.second = when[5];
    uint8_t raw[8];
    if (fs.Get_av_frame_extend_info(frame, len, QZFS_FRAME_EXT_PTS, raw) == 0) {
        uint64_t pts = 0;
        for (int i = 7; i >= 0; i--)
            pts = pts << 8 | raw[i];
        iframe.pts_high = uint32_t(pts >> 32);
        iframe.pts_low = uint32_t(pts);
    }
    keep(iframe);
}

// Appends an I-frame entry where the writer has it: an I-frame that begins
// in the previous block and runs on into the current one was logged before
// the block entry of the block it runs into, and readers take each I-frame
// to lie in the block of the block entry in front of it.
void keep_in_block_order(std::list<_iframe_index_node_dev_>& entries,
                         const _iframe_index_node_dev_& iframe)
{
    auto at = entries.end();
    while (at != entries.begin()) {
        auto before = std::prev(at);
        if (before->id == IFRAME_INDEX_ID_BLOCK && before->block_num != iframe.block_num) {
            at = before;
            continue;
        }
        break;
    }
    entries.insert(at, iframe);
}

// Whether segment index block `block` has a sound header and a first node:
// one that does not is no index of any stream.
bool lists_a_segment(CQzFileSystem& fs, unsigned long block)
{
    _stream_segment_block_header_dev_ header;
    unsigned char sector[QZFS_SECTOR_SIZE];
    return fs.Read_stream_segment_index_block_header(block, &header) == 0 &&
           header.magic == QZFS_STREAM_SEGMENT_MAGIC &&
           fs.read_in_block(block, QZFS_INDEX_HEAD_SECTORS * QZFS_SECTOR_SIZE, sector,
                            QZFS_SECTOR_SIZE) == 0 &&
           sector[0] != END_STREAM_SEGMENT_INDEX;
}

// Frees the segment index blocks that list no segment; their number.
unsigned long free_segment_blocks_without_segments(CQzFileSystem& fs)
{
    std::list<_block_info_node_> blocks;
    unsigned long freed = 0;
    if (fs.get_block_list_by_type(QZFS_BLOCK_SEGMENT_INDEX, blocks) != 0)
        return 0;
    for (const _block_info_node_& b : blocks)
        if (!lists_a_segment(fs, b.block)) {
            QZLOG("free segment index block without segments:%lu", (unsigned long)b.block);
            fs.Free_one_block(b.block, 0);
            freed++;
        }
    return freed;
}

// Frees the I-frame index blocks of the big streams that no segment index
// block leads to: the index of a stream given a new one, and blocks that a
// rebuild cut before its segment index was written had asked for. Nothing
// is freed when a chain cannot be read.
void free_unreached_iframe_blocks(CQzFileSystem& fs)
{
    std::list<_block_info_node_> segment_blocks, iframe_blocks;
    if (fs.get_block_list_by_type(QZFS_BLOCK_SEGMENT_INDEX, segment_blocks) != 0 ||
        fs.get_block_list_by_type(QZFS_BLOCK_IFRAME_INDEX, iframe_blocks) != 0)
        return;
    std::set<uint32_t> reached;
    for (const _block_info_node_& b : segment_blocks) {
        _stream_segment_block_header_dev_ header;
        uint32_t num = 0;
        uint32_t* chain = nullptr;
        if (fs.Read_stream_segment_index_block_header(b.block, &header) != 0 ||
            header.magic != QZFS_STREAM_SEGMENT_MAGIC ||
            fs.Read_iframe_index_block_list(header.iframe_index_block, &num, &chain) != 0)
            return;
        reached.insert(chain, chain + num);
        delete[] chain;
    }
    for (const _block_info_node_& b : iframe_blocks)
        if (b.info.attr[1] <= 2 && reached.count(uint32_t(b.block)) == 0) {
            QZLOG("free iframe index block no segment index leads to:%lu", (unsigned long)b.block);
            fs.Free_one_block(b.block, 0);
        }
}

}  // namespace

// ------------------------------------------------------------ frames

// Scans the frames of a run of data blocks, in order, across block ends:
// a block entry for each block, an I-frame entry for each I-frame that
// passes the date and time checks. 0 when an I-frame was found.
int CQzFileSystem::get_one_stream_iframe_info_by_data_block(
    std::list<_block_info_node_>& blocks, std::list<_iframe_index_node_dev_>& entries,
    _iframe_index_node_dev_& first, _iframe_index_node_dev_& last)
{
    if (blocks.empty()) {
        QZLOG("data block list is empty");
        return -1;
    }
    std::vector<uint8_t> buffer;
    try {
        buffer.resize(kFrameBufferLen);
    } catch (const std::bad_alloc&) {
        QZLOG("new frame buffer failed(size:%d)", int(kFrameBufferLen));
        return -1;
    }
    const unsigned long unit = m_file_system_io_buffer_len;
    const unsigned long block_size = m_manage.block_size;
    unsigned long pending = 0;   // bytes in the buffer
    uint64_t passed = 0;         // stream bytes before the buffer's head
    uint32_t ordinal = 0;
    bool have_first = false;
    buffer_place place;
    place.block_size = block_size;
    place.head_block = place.block = blocks.front().block;
    place.head_offset = QZFS_DATA_BLOCK_FIRST_FRAME;

    for (const _block_info_node_& b : blocks) {
        _iframe_index_node_dev_ entry;
        memset(&entry, 0, sizeof(entry));
        entry.id = IFRAME_INDEX_ID_BLOCK;
        entry.hour = b.info.hour;
        entry.minute = b.info.minute;
        entry.second = b.info.second;
        entry.block_num = b.block;
        entry.block_offset = ordinal++;
        entry.pts_high = 1;  // share count
        entries.push_back(entry);
        long reference = second_of(b.info.hour, b.info.minute, b.info.second);
        place.block = b.block;
        if (pending == 0) {
            place.head_block = b.block;
            place.head_offset = QZFS_DATA_BLOCK_FIRST_FRAME;
        }

        for (unsigned long offset = QZFS_DATA_BLOCK_FIRST_FRAME; offset < block_size; offset += unit) {
            const unsigned long piece = block_size - offset < unit ? block_size - offset : unit;
            if (pending + piece > kFrameBufferLen) {
                QZLOG("expect len:%d, data len:%d, buffer len:%d", int(piece), int(pending),
                      int(kFrameBufferLen));
                passed += pending;
                place.advance(pending);
                pending = 0;
            }
            if (read_in_block(b.block, offset, buffer.data() + pending, piece) != 0) {
                // A hole: what is buffered and the piece count as passed.
                passed += pending + piece;
                pending = 0;
                place.head_block = b.block;
                place.head_offset = offset + piece;
                continue;
            }
            pending += piece;

            unsigned long at = 0;
            while (pending - at > sizeof(_av_frame_header_)) {
                uint8_t is_iframe = 0;
                const auto* header = reinterpret_cast<const _av_frame_header_*>(&buffer[at]);
                const int len = check_frame_header(header, is_iframe);
                if (len < 13) {
                    at++;
                    continue;
                }
                if (unsigned(len) > pending - at)
                    break;  // the rest of the frame comes with the next piece
                if (is_iframe != 0)
                    note_rebuilt_iframe_in(*this, &buffer[at], uint32_t(len), b.info, reference,
                                        [&](_iframe_index_node_dev_& iframe) {
                                            uint32_t block = 0, offset = 0;
                                            place.at(at, block, offset);
                                            iframe.block_num = block;  // packed fields
                                            iframe.block_offset = offset;
                                            iframe.stream_segment_offset = passed + at;
                                            keep_in_block_order(entries, iframe);
                                            last = iframe;
                                            if (!have_first) {
                                                first = iframe;
                                                have_first = true;
                                            }
                                        });
                at += unsigned(len);
            }
            memmove(buffer.data(), buffer.data() + at, pending - at);
            passed += at;
            place.advance(at);
            pending -= at;
        }
    }
    return have_first ? 0 : -1;
}

// ------------------------------------------------------------ one segment

int CQzFileSystem::recovery_one_stream_iframe_index_by_data_block_list(
    std::list<_block_info_node_>& blocks, int start_index, uint32_t* chain_num,
    uint32_t** chain, _stream_segment_index_node_dev_& node)
{
    memset(&node, 0, sizeof(node));
    node.id = END_STREAM_SEGMENT_INDEX;
    std::list<_iframe_index_node_dev_> entries;
    _iframe_index_node_dev_ first, last;
    memset(&first, 0, sizeof(first));
    memset(&last, 0, sizeof(last));
    if (get_one_stream_iframe_info_by_data_block(blocks, entries, first, last) != 0)
        return 0;

    // Offsets count from the first I-frame, as the writer counts them, and
    // the segment starts at the block entry in front of it.
    int first_entry = 0, position = 0;
    bool before_first = true;
    for (_iframe_index_node_dev_& e : entries) {
        if (e.id == IFRAME_INDEX_ID_IFRAME) {
            if (before_first && e.stream_segment_offset == first.stream_segment_offset)
                before_first = false;
            e.stream_segment_offset -= first.stream_segment_offset;
        } else if (before_first) {
            first_entry = position;
        }
        position++;
    }
    const _qzfs_block_info_& model = blocks.front().info;
    node.id = NORMAL_STREAM_SEGMENT_INDEX;
    node.start_hour = first.hour;
    node.start_minute = first.minute;
    node.start_second = first.second;
    node.end_hour = last.hour;
    node.end_minute = last.minute;
    node.end_second = last.second;
    memcpy(&node.segment_type, model.attr + 2, 4);  // segment type, record type, lock, flags
    node.lock_type = node.lock != 0 ? 255 : 0;
    node.alarm_type = node.record_type != 0 ? 255 : 0;
    node.start_iframe = uint32_t(start_index + first_entry + 1);
    node.owner_stamp = model.owner_stamp;
    node.len_in_bytes = last.stream_segment_offset - first.stream_segment_offset;

    const uint8_t date_time[6] = {model.year, model.month,  model.day,
                                  first.hour, first.minute, first.second};
    if (Add_iframe_index(chain_num, chain, unsigned(start_index), entries, date_time) != 0) {
        QZLOG("add iframe index failed!");
        return -1;
    }
    return int(entries.size());
}

// ------------------------------------------------------------ one group

// Writes a new I-frame index for a group, segment by segment (a run of
// blocks with one segment mark), on a chain of its own.
int CQzFileSystem::recovery_iframe_index_block_by_data_block_list(
    std::list<_block_info_node_>& group, std::list<_stream_segment_index_node_dev_>& segments,
    unsigned long* iframe_block)
{
    if (group.empty())
        return -1;
    segments.clear();
    const _qzfs_block_info_& model = group.front().info;
    _qzfs_block_info_ info = index_block_record(QZFS_BLOCK_IFRAME_INDEX, model.owner_stamp, model);

    for (int attempt = 0; attempt < kIndexBlockTries; attempt++) {
        unsigned long block = 0;
        if (Request_free_block(1, &block, &info, 1) != 0) {
            QZLOG("request iframe index block failed");
            return -1;
        }
        if (Init_iframe_index_block(block, 0, 0) != 0)
            continue;
        uint32_t chain_num = 1;
        uint32_t* chain = new uint32_t[1];
        chain[0] = uint32_t(block);
        int entry = 0;
        bool failed = false;
        auto run_start = group.begin();
        while (run_start != group.end() && !failed) {
            auto run_end = run_start;
            const uint32_t mark = segment_mark(run_start->info);
            while (run_end != group.end() && segment_mark(run_end->info) == mark)
                ++run_end;
            std::list<_block_info_node_> run(run_start, run_end);
            _stream_segment_index_node_dev_ node;
            const int written = recovery_one_stream_iframe_index_by_data_block_list(
                run, entry, &chain_num, &chain, node);
            if (written < 0) {
                failed = true;
                break;
            }
            if (node.id == NORMAL_STREAM_SEGMENT_INDEX) {
                QZLOG("segment:%d:%d:%d-%d:%d:%d,len:%llu", node.start_hour, node.start_minute,
                      node.start_second, node.end_hour, node.end_minute, node.end_second,
                      (unsigned long long)node.len_in_bytes);
                segments.push_back(node);
                m_rebuild.segments++;
            }
            entry += written;
            run_start = run_end;
        }
        const uint32_t head = chain[0];
        if (failed) {
            for (uint32_t i = 0; i < chain_num; i++)
                Free_one_block(chain[i], 0);
            m_rebuild.segments -= segments.size();
            segments.clear();
        }
        delete[] chain;
        if (!failed) {
            m_rebuild.entries += unsigned(entry);
            *iframe_block = head;
            return 0;
        }
    }
    return -1;
}

// The first steps of the check of a group: sorts it into recording order,
// finds the segment index block of its stream and day that leads to its
// I-frame index, and says whether both check out. 0, or -1 when the index
// blocks cannot be listed.
int CQzFileSystem::find_group_index_block(std::list<_block_info_node_>& group,
                                          unsigned long& found, bool& sound)
{
    found = 0;
    sound = false;
    group.sort([](const _block_info_node_& a, const _block_info_node_& b) {
        return a.info.block_index < b.info.block_index;
    });
    const _qzfs_block_info_ model = group.front().info;
    const uint32_t key = group_key(model);
    std::list<_block_info_node_> index_blocks;
    if (get_block_list_by_type(QZFS_BLOCK_SEGMENT_INDEX, index_blocks) != 0) {
        QZLOG("get stream segment index block list failed!");
        return -1;
    }
    QZLOG("data:%d-%d-%d chn:%d,stream:%d", model.year, model.month, model.day, model.attr[0],
          model.attr[1]);
    for (const _block_info_node_& b : index_blocks) {
        _stream_segment_block_header_dev_ header;
        if (!same_stream_day(b.info, model) ||
            Read_stream_segment_index_block_header(b.block, &header) != 0 ||
            header.magic != QZFS_STREAM_SEGMENT_MAGIC ||
            (header.iframe_index_block != key && header.first_iframe_index_block != key))
            continue;
        found = b.block;
        QZLOG("find segment index block(%lu)", found);
        break;
    }
    // A block whose header was written and its nodes not yet (a rebuild cut
    // in between) reads as an index without a segment: it does not check
    // out either.
    uint32_t iframe_block = 0;
    sound = found != 0 && check_stream_segment_index_block(found, &iframe_block) == 0 &&
            check_iframe_index_block(iframe_block) == 0 && lists_a_segment(*this, found);
    return 0;
}

int CQzFileSystem::check_recovery_segment_index_block_by_data_block_list(
    std::list<_block_info_node_>& group)
{
    if (group.empty())
        return 0;
    unsigned long found = 0;
    bool sound = false;
    if (find_group_index_block(group, found, sound) != 0)
        return -1;
    if (sound)
        return 0;
    const _qzfs_block_info_ model = group.front().info;
    const uint32_t key = group_key(model);

    std::list<_stream_segment_index_node_dev_> segments;
    unsigned long new_iframe_block = 0;
    if (recovery_iframe_index_block_by_data_block_list(group, segments, &new_iframe_block) != 0 ||
        segments.empty()) {
        m_rebuild.given_up++;
        return 1;
    }
    if (found != 0)
        Free_one_block(found, 0);

    _qzfs_block_info_ info = index_block_record(
        QZFS_BLOCK_SEGMENT_INDEX, uint32_t(get_block_owner_stamp()), model);
    QZLOG("chn:%d,stream:%d,%d-%d-%d", model.attr[0], model.attr[1], model.year, model.month,
          model.day);
    for (int attempt = 0; attempt < kIndexBlockTries; attempt++) {
        unsigned long block = 0;
        if (Request_free_block(1, &block, &info, 1) != 0) {
            QZLOG("request iframe index block failed");
            return -1;
        }
        if (Init_stream_segment_block(block, 0, 0, new_iframe_block, key) != 0 ||
            write_stream_segment_index(block, segments) != 0)
            continue;
        QZLOG("recovery new iframe block:%lu,segment block:%lu", new_iframe_block, block);
        m_rebuild.rebuilt++;
        return 1;
    }
    m_rebuild.given_up++;
    return 1;
}

// Frees a stream whose index does not check out, with all its data
// blocks: 1 when it did, 0 when the index stood (or the group is empty).
// Nothing calls it at present; it stays for a recovery that would rather
// drop such a stream than rebuild it.
int CQzFileSystem::free_destroy_stream_by_data_block_list(std::list<_block_info_node_>& group)
{
    if (group.empty())
        return 0;
    unsigned long found = 0;
    bool sound = false;
    if (find_group_index_block(group, found, sound) != 0)
        return -1;
    if (sound)
        return 0;
    if (found != 0) {
        QZLOG("free block:%lu", found);
        Free_one_block(found, 0);
    }
    for (const _block_info_node_& b : group)
        Free_one_block(b.block, 0);
    return 1;
}

// Gives every segment index block back its table record from its own head,
// and the first block of the I-frame index it leads to likewise. Nothing
// calls it at present.
int CQzFileSystem::recovery_delete_stream_segment_index_block()
{
    std::list<_block_info_node_> index_blocks;
    if (get_block_list_by_type(QZFS_BLOCK_SEGMENT_INDEX, index_blocks) != 0) {
        QZLOG("get stream segment index block list failed!");
        return -1;
    }
    QZLOG("free block list size:%d", int(index_blocks.size()));
    unsigned long count = 0;
    for (const _block_info_node_& b : index_blocks) {
        if (++count % 1000 == 0)
            QZLOG("cur block count:%lu", count);
        _qzfs_block_info_ own;
        if (read_block_info_from_block(b.block, &own) != 0 || !qzfs_block_info_is_sound(&own) ||
            own.block_type != QZFS_BLOCK_SEGMENT_INDEX)
            continue;
        QZLOG("this is stream segment index block(block num:%lu)(%d-%d-%d %d:%d:%d)",
              (unsigned long)b.block, own.year, own.month, own.day, own.hour, own.minute,
              own.second);
        _stream_segment_block_header_dev_ header;
        if (Read_stream_segment_index_block_header(b.block, &header) != 0)
            continue;
        QZLOG("recovery stream segment index block %lu", (unsigned long)b.block);
        modify_block_info(m_manage.key_block, m_manage.bak_key_block, b.block, &own,
                          QZFS_WHERE_KEY_TABLES);
        _qzfs_block_info_ iframe;
        const unsigned long iframe_block = header.iframe_index_block;
        if (iframe_block == 0 || iframe_block >= m_manage.total_block ||
            read_block_info_from_block(iframe_block, &iframe) != 0 ||
            !qzfs_block_info_is_sound(&iframe) || iframe.block_type != QZFS_BLOCK_IFRAME_INDEX)
            continue;
        QZLOG("iframe index blcok:%lu", iframe_block);
        modify_block_info(m_manage.key_block, m_manage.bak_key_block, iframe_block, &iframe,
                          QZFS_WHERE_KEY_TABLES);
    }
    return 0;
}

// ------------------------------------------------------------ the whole disk

int CQzFileSystem::scan_check_recovery_all_stream_segment_index(_qzfs_k4t_recovery_para_* para,
                                                                unsigned char rebuild_root)
{
    m_rebuild = qzfs_rebuild_report();
    std::list<_block_info_node_> data;
    if (get_block_list_by_type(QZFS_BLOCK_DATA, data) != 0) {
        QZLOG("get stream segment index block list failed!");
        return -1;
    }
    if (para != nullptr) {
        QZLOG("recovery(chn:%d,stream:%d,[%d-%d-%d %d-%d-%d])!", para->channel, para->stream_type,
              para->start_date.year, para->start_date.month, para->start_date.day,
              para->end_date.year, para->end_date.month, para->end_date.day);
        data.remove_if([&](const _block_info_node_& b) { return !in_para(b, *para); });
    } else {
        QZLOG("recovery para is null,so recovery all!");
    }
    m_rebuild.data_blocks = data.size();

    int rebuilt = 0;
    while (!data.empty()) {
        const uint32_t key = group_key(data.front().info);
        const uint8_t stream_type = data.front().info.attr[1];
        std::list<_block_info_node_> group;
        for (auto it = data.begin(); it != data.end();) {
            auto next = std::next(it);
            if (group_key(it->info) == key)
                group.splice(group.end(), data, it);
            it = next;
        }
        m_rebuild.streams++;
        if (stream_type > 2) {
            m_rebuild.small_streams++;
            continue;
        }
        const int result = check_recovery_segment_index_block_by_data_block_list(group);
        if (result == 1)
            rebuilt++;
        else if (result == 0)
            m_rebuild.sound++;
    }

    // The new root index has a node for every segment index block: one
    // that lists no segment (wiped, or left half made by a rebuild that was
    // cut) would only stand for an empty root, so it is freed first. The
    // clean-up runs on every recovery, so that one cut in it is finished by
    // the next.
    if (rebuild_root == 1) {
        const unsigned long emptied = free_segment_blocks_without_segments(*this);
        free_unreached_iframe_blocks(*this);
        if (rebuilt > 0 || emptied > 0) {
            QZLOG("recovery segment num is %d, so recovery root index!", rebuilt);
            for (const auto& entry : m_manage.root_index_block_map) {
                QZLOG("free root index block:%lu", entry.second);
                Free_one_block(entry.second, 0);
            }
            m_manage.root_index_block_map.clear();
            m_rebuild.root_rebuilt = true;
            if (recovery_root_index() != 0)
                QZLOG("recovery root index failed!");
        }
    }
    return 0;
}
