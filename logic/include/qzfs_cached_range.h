// The cached range of an index level: a contiguous stretch [start, end) of
// positions whose entries sit in a CQzfsVector at position - start. Scans
// gather entries for the positions from some `low` on and join them here.
//
// The root level and the stream segment level keep their ranges the same
// way, so the code below serves both through a Level: a small per-call
// object of each level (CQzFileSystem::root_index_level,
// CQzFileSystem::segment_index_level) with
//
//   Entry, Dev, Mem          entry of the range, node as read from the disk
//                            (local order), node as the cache holds it
//   node_size, end_id,       node size on the disk, the id of an end mark
//   free_id                  and of a free cache slot
//   scan_log_name            the name a scan's lines are logged under
//   array(), start(), end()  the range; end_mark() its known end mark
//   chain(), chain_length()  the level's index block chain
//   none()                   the entry of a position without a cached node
//   release(entry)           drops an entry with whatever it holds
//   give_back(entry)         drops an entry and hands its cache slot over,
//                            or QZFS_CACHE_INVALID_SLOT when it held none
//   cached(node)             whether a node of this kind gets a cache slot
//   take_slot(use)           a cache slot from the pool, or
//                            QZFS_CACHE_INVALID_SLOT
//   abandon_slot(slot)       returns a slot taken but never filled
//   make_entry(slot, use)    the entry for a node that sits in `slot`
//   fill(slot, node)         puts a node into an empty slot;
//   refill(entry, node)      and over the node an entry's slot holds
//   cache_node(slot)         the cached node in a slot
//   to_mem(node, mem)        the cached form of a node
//   read_free(node, out)     what a lookup of an uncached node gives
//   decode(raw, pos, wanted) a node read from its disk image
//
// Everything here runs inside the cache lock its caller holds.
#ifndef QZFS_CACHED_RANGE_H
#define QZFS_CACHED_RANGE_H

#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "system_resource_manager.h"

#include <cstdint>
#include <deque>

// What a cache slot is taken for: a scan spares this disk's other nodes,
// an update or an extension of the range may take from any disk.
enum class cache_use { scan, update, extend };

// Joins `gathered` (the entries of positions low, low + 1, ...) to the range.
// A range they neither extend upward nor reach from below is dropped first
// (each of its entries given to `release`), so the range stays contiguous.
template <typename Vector, typename Entry, typename Release>
void merge_cached_range(Vector& array, uint32_t& start, uint32_t& end,
                        std::deque<Entry>& gathered, uint32_t low, Release release)
{
    if (gathered.empty())
        return;
    const uint32_t count = uint32_t(gathered.size());
    uint32_t cached = end - start;
    const bool below = cached != 0 && low + count == start;
    const bool above = cached != 0 && low == end;
    if (cached != 0 && !below && !above) {
        for (uint32_t i = 0; i < cached; i++)
            release(array[i]);
        cached = 0;
    }
    if (cached == 0)
        start = end = low;
    uint32_t first = cached;
    if (below) {
        array.move(0, cached, count);
        start = low;
        first = 0;
    }
    for (uint32_t i = 0; i < count; i++)
        array[first + i] = gathered[i];
    if (!below)
        end = low + count;
}

// Drops the cached entries from position `from` up: an end mark there
// means nothing above it is in use.
template <typename Level> void cut_cached_range(Level& level, uint32_t from)
{
    auto& array = level.array();
    uint32_t& start = level.start();
    uint32_t& end = level.end();
    for (uint32_t p = from; p < end; p++)
        Level::release(array[p - start]);
    end = from;
    if (end <= start)
        start = end = 0;
}

// Takes one cache slot back from the level's own cached range while a scan
// gathers nodes: the top of the range when the scan runs below it, the
// bottom when it runs above, and the oldest gathered entry when the range
// is empty. Returns the slot, or QZFS_CACHE_INVALID_SLOT when nothing
// could be given.
template <typename Level>
uint32_t take_own_slot(Level& level, bool below, std::deque<typename Level::Entry>& gathered,
                       uint32_t& gathered_low)
{
    auto& array = level.array();
    uint32_t& start = level.start();
    uint32_t& end = level.end();
    while (end > start) {
        typename Level::Entry entry;
        if (below) {
            uint32_t top = end - 1 - start;
            entry = array[top];
            array[top] = Level::none();
            end--;
        } else {
            entry = array[0];
            array[0] = Level::none();
            if (end - start > 1)
                array.move(1, end - start - 1, 0);
            start++;
        }
        if (end == start)
            start = end = 0;
        uint32_t slot = Level::give_back(entry);
        if (slot != QZFS_CACHE_INVALID_SLOT)
            return slot;
    }
    while (!gathered.empty()) {
        typename Level::Entry entry = gathered.front();
        gathered.pop_front();
        gathered_low++;
        uint32_t slot = Level::give_back(entry);
        if (slot != QZFS_CACHE_INVALID_SLOT)
            return slot;
    }
    return QZFS_CACHE_INVALID_SLOT;
}

// Brings the cached range in line with a node just written at `index`
// (see update_cached_range).
template <typename Level>
int update_cached_entry(Level& level, uint32_t index, const typename Level::Dev& node)
{
    auto& array = level.array();
    uint32_t& start = level.start();
    uint32_t& end = level.end();
    auto in_range = [&]() { return index >= start && index < end; };
    const bool cached = Level::cached(node);
    if (in_range()) {
        if (node.id == Level::end_id) {
            cut_cached_range(level, index);
            return 0;
        }
        typename Level::Entry& entry = array[index - start];
        if (entry != Level::none()) {
            if (cached)
                level.refill(entry, node);
            else
                Level::release(entry);
            return 0;
        }
        if (!cached)
            return 0;
        uint32_t slot = level.take_slot(cache_use::update);
        if (slot == QZFS_CACHE_INVALID_SLOT) {
            // Nowhere to keep the node: drop the range rather than let the
            // empty entry read as a free node.
            cut_cached_range(level, start);
            return 0;
        }
        // Taking the slot may have cut this very range.
        if (!in_range()) {
            level.cache_node(slot).id = Level::free_id;
            return 0;
        }
        level.fill(slot, node);
        array[index - start] = level.make_entry(slot, cache_use::update);
        return 0;
    }
    auto adjacent = [&]() { return index == end || index + 1 == start; };
    if (node.id == Level::end_id || !adjacent())
        return 0;
    uint32_t slot = QZFS_CACHE_INVALID_SLOT;
    if (cached) {
        slot = level.take_slot(cache_use::extend);
        if (slot == QZFS_CACHE_INVALID_SLOT)
            return 0;
        if (!adjacent()) {
            level.cache_node(slot).id = Level::free_id;
            return 0;
        }
    }
    uint32_t at = end - start;
    if (index + 1 == start) {
        if (array.move(0, at, 1) != 0) {
            if (slot != QZFS_CACHE_INVALID_SLOT)
                level.abandon_slot(slot);
            return -1;
        }
        start--;
        at = 0;
    } else {
        end++;
    }
    if (slot == QZFS_CACHE_INVALID_SLOT) {
        array[at] = Level::none();
        return 0;
    }
    level.fill(slot, node);
    array[at] = level.make_entry(slot, cache_use::extend);
    return 0;
}

// Brings the cached range and the known end mark in line with a node just
// written at `index`: a node inside the range or right next to it is
// cached (the range grows by one), an end mark cuts the range there.
template <typename Level>
int update_cached_range(Level& level, uint32_t index, const typename Level::Dev& node)
{
    int result = update_cached_entry(level, index, node);
    uint32_t& end_mark = level.end_mark();
    if (node.id == Level::end_id)
        end_mark = index;
    else if (end_mark != 0xFFFFFFFF && index >= end_mark)
        end_mark = index + 1;  // a node written over the end mark moves it up
    return result;
}

// Reads the units around `wanted` and brings the nodes between the cached
// range and `wanted` into the cache, so that the range stays contiguous and
// grows a whole unit at a time. `out` gets the node at `wanted` (it comes
// in cleared).
template <typename Level>
int CQzFileSystem::scan_index_range(Level& level, uint32_t wanted, typename Level::Mem* out)
{
    const unsigned long unit = m_file_system_io_buffer_len;
    const unsigned long units_per_block = m_manage.block_size / unit;
    _qzfs_data_offset_ at;
    Calculate_index_info(m_manage.block_size, Level::node_size, wanted, unit, &at);
    uint32_t& start = level.start();
    uint32_t& end = level.end();
    const bool empty = end == start;
    const bool below = !empty && wanted < start;
    const uint32_t low = below ? at.unit_first_index : (empty ? 0 : end);
    const uint32_t high = below ? start : at.unit_last_index + 1;
    _qzfs_data_offset_ first;
    Calculate_index_info(m_manage.block_size, Level::node_size, low, unit, &first);

    std::deque<typename Level::Entry> gathered;
    uint32_t gathered_low = low, position = first.unit_first_index;
    bool stop = false;
    for (uint32_t u = first.unit_in_chain; !stop; u++) {
        uint32_t chain_pos = uint32_t(u / units_per_block);
        if (chain_pos >= level.chain_length())
            break;
        uint32_t block = level.chain()[chain_pos];
        uint32_t offset = uint32_t((u % units_per_block) * unit);
        if (read_in_block(block, offset, m_file_system_io_buffer, unit) != 0) {
            QZLOG_AS(Level::scan_log_name,
                     "Seek_and_read_in_block failed(block_index:%ld)(block_offset:%ld)(len:%ld)",
                     long(block), long(offset), long(unit));
            for (typename Level::Entry& entry : gathered)
                Level::release(entry);
            return -1;
        }
        unsigned long sector = offset == 0 ? QZFS_INDEX_HEAD_SECTORS : 0;
        for (; sector < unit / QZFS_SECTOR_SIZE && !stop; sector++) {
            for (unsigned long k = 0; k < QZFS_SECTOR_SIZE / Level::node_size; k++) {
                uint32_t pos = position++;
                if (pos < low)
                    continue;
                if (pos >= high) {
                    stop = true;
                    break;
                }
                typename Level::Dev node = level.decode(
                    m_file_system_io_buffer + sector * QZFS_SECTOR_SIZE + k * Level::node_size,
                    pos, wanted);
                if (node.id == Level::end_id) {
                    if (wanted >= pos)
                        out->id = Level::end_id;
                    level.end_mark() = pos;
                    stop = true;
                    break;
                }
                if (!Level::cached(node)) {
                    if (pos == wanted)
                        level.read_free(node, out);
                    gathered.push_back(Level::none());
                    continue;
                }
                if (pos == wanted)
                    level.to_mem(node, out);
                uint32_t slot = level.take_slot(cache_use::scan);
                if (slot == QZFS_CACHE_INVALID_SLOT) {
                    if (pos >= wanted && (end == start || !below)) {
                        stop = true;
                        break;
                    }
                    slot = take_own_slot(level, below, gathered, gathered_low);
                    if (slot == QZFS_CACHE_INVALID_SLOT) {
                        stop = true;
                        break;
                    }
                }
                // The node at `wanted` is converted once: its cached copy is
                // the one `out` got (with the name reference it took).
                if (pos == wanted)
                    level.cache_node(slot) = *out;
                else
                    level.to_mem(node, &level.cache_node(slot));
                gathered.push_back(level.make_entry(slot, cache_use::scan));
            }
        }
    }
    merge_cached_range(level.array(), start, end, gathered, gathered_low,
                       [](typename Level::Entry& entry) { Level::release(entry); });
    return 0;
}

#endif
