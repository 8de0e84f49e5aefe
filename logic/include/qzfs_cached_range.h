// The cached range of an index level: a contiguous stretch [start, end) of
// positions whose entries sit in a CQzfsVector at position - start. Scans
// gather entries for the positions from some `low` on and join them here.
#ifndef QZFS_CACHED_RANGE_H
#define QZFS_CACHED_RANGE_H

#include <cstdint>
#include <deque>

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

#endif
