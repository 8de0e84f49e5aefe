// The day index of a disk's root nodes (see qzfs_root_days.h).
#include "qzfs_root_days.h"

#include "qzfilesystem.h"
#include "qzfs_index_format.h"
#include "system_resource_manager.h"

#include <algorithm>

bool RootDayIndex::build(CQzFileSystem& fs)
{
    CacheLockGuard cache;
    days_.clear();
    for (uint32_t position = 0;; position++) {
        _root_index_node_mem_ node;
        if (fs.Get_root_index_mem_node(position, &node) != 0) {
            days_.clear();
            return false;
        }
        if (node.id == END_ROOT_INDEX) {
            end_ = position;
            return true;
        }
        if (IS_NORMAL_ROOT_INDEX(node.id))
            add(key(node.year, node.month, node.day), position);
    }
}

void RootDayIndex::note(uint32_t position, const _root_index_node_dev_& node, bool at_end)
{
    if (at_end)
        end_ = std::max(end_, position + 1);
    if (IS_NORMAL_ROOT_INDEX(node.id))
        add(key(node.year, node.month, node.day), position);
}

void RootDayIndex::add(uint32_t day_key, uint32_t position)
{
    std::vector<uint32_t>& positions = days_[day_key];
    auto at = std::lower_bound(positions.begin(), positions.end(), position);
    if (at == positions.end() || *at != position)
        positions.insert(at, position);
}

void RootDayIndex::day_positions(uint32_t day_key, uint32_t from, std::vector<uint32_t>& out) const
{
    out.clear();
    auto day = days_.find(day_key);
    if (day == days_.end())
        return;
    const std::vector<uint32_t>& positions = day->second;
    out.assign(std::lower_bound(positions.begin(), positions.end(), from), positions.end());
}

void RootDayIndex::range_positions(uint32_t first_key, uint32_t last_key,
                                   std::vector<uint32_t>& out) const
{
    out.clear();
    for (auto day = days_.lower_bound(first_key); day != days_.end() && day->first <= last_key;
         ++day)
        out.insert(out.end(), day->second.begin(), day->second.end());
}

RootDayIndex* root_day_index(CQzFileSystem& fs)
{
    CacheLockGuard cache;
    _hdd_root_index_manager_* manager = fs.root_manager();
    if (manager == nullptr)
        return nullptr;
    if (manager->pRoot_day_index == nullptr) {
        RootDayIndex* index = new (std::nothrow) RootDayIndex;
        if (index == nullptr || !index->build(fs)) {
            delete index;
            return nullptr;
        }
        manager->pRoot_day_index = index;
    }
    return manager->pRoot_day_index;
}

DayRootWalk::DayRootWalk(CQzFileSystem& fs, uint8_t year, uint8_t month, uint8_t day,
                         uint32_t from)
    : next_(from), end_(from)
{
    CacheLockGuard cache;
    if (const RootDayIndex* index = root_day_index(fs)) {
        indexed_ = true;
        index->day_positions(RootDayIndex::key(year, month, day), from, positions_);
        end_ = std::max(from, index->end());
    }
}

bool DayRootWalk::next(uint32_t& position)
{
    if (!indexed_) {
        position = next_++;
        return true;
    }
    if (at_ == positions_.size())
        return false;
    position = positions_[at_++];
    return true;
}
