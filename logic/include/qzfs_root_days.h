// The day index of a disk's root nodes: for each date, the positions of the
// root nodes that stand for a day of that date.
//
// A root node stands for one day of one channel, so a disk that holds a
// month of 32 channels has about a thousand of them, and the calls that
// work on one day (the day query, the open by time) or look for the dates
// held (the date lists) would otherwise walk all of them. The index lives
// in the disk's root index manager, under the cache lock, and is made by
// one walk of the root index the first time a call needs it. From then on
// every root node written (Write_root_index) adds its position to its date;
// a manager that is freed (unmount, a new root index) takes the index
// with it.
//
// The index never drops a position: a root that is deleted, or whose
// position is taken again by another day, leaves its old entry behind. So
// a day's positions are every position that may hold a root of that day,
// and the callers read and check each node exactly as a walk of the whole
// root index would, which keeps their results (and their order) unchanged.
#ifndef QZFS_ROOT_DAYS_H
#define QZFS_ROOT_DAYS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

class CQzFileSystem;
struct _root_index_node_dev_;

class RootDayIndex {
public:
    // The key of a date: one number that sorts as the dates do.
    static uint32_t key(uint8_t year, uint8_t month, uint8_t day)
    {
        return uint32_t(year) << 16 | uint32_t(month) << 8 | day;
    }

    // Walks the root index of `fs` up to its end mark; false (and the index
    // stays unmade) when a node cannot be read.
    bool build(CQzFileSystem& fs);
    // A root node written at `position`; `at_end` when it took the place of
    // the end mark, which then moves one on.
    void note(uint32_t position, const _root_index_node_dev_& node, bool at_end);

    // The positions of `day_key` from `from` on, ascending.
    void day_positions(uint32_t day_key, uint32_t from, std::vector<uint32_t>& out) const;
    // The positions of every day from `first_key` to `last_key`, each day's
    // ascending, the days in date order.
    void range_positions(uint32_t first_key, uint32_t last_key, std::vector<uint32_t>& out) const;
    // The dates held, each with its positions: the date lists' walk.
    const std::map<uint32_t, std::vector<uint32_t>>& days() const { return days_; }
    // The position of the end mark when the index was made, moved on by
    // the roots written in its place since.
    uint32_t end() const { return end_; }

private:
    void add(uint32_t day_key, uint32_t position);

    std::map<uint32_t, std::vector<uint32_t>> days_;
    uint32_t end_ = 0;
};

// The root positions a walk of one day visits, ascending, from `from` on:
// the day's positions from the day index, or, when there is none, every
// position. The walker reads each node and stops where it meets the end
// mark (reached_end); end() is then the end mark's position, as after a
// walk of the whole root index.
class DayRootWalk {
public:
    DayRootWalk(CQzFileSystem& fs, uint8_t year, uint8_t month, uint8_t day, uint32_t from);
    bool next(uint32_t& position);
    void reached_end(uint32_t position) { end_ = position; }
    uint32_t end() const { return end_; }

private:
    bool indexed_ = false;
    std::vector<uint32_t> positions_;
    size_t at_ = 0;
    uint32_t next_ = 0;  // without the index
    uint32_t end_ = 0;
};

// The day index of the disk of `fs`, made now if it is not yet; null when it
// cannot be made (a root node that cannot be read: the callers then walk
// the whole root index, which meets the same failure). Call with the cache
// lock held, and keep it while the index is used.
RootDayIndex* root_day_index(CQzFileSystem& fs);

#endif
