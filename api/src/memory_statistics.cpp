/*
 * memory_statistics.cpp - named counters for diagnosing memory use.
 *
 * The application (nothing inside the library) keeps counters by group name
 * and item name and prints them.  No lock is taken: callers serialise.
 */
#include <stdint.h>
#include <stdio.h>

#include <map>
#include <string>

#include "qzfilesystem_api.h"

namespace {

typedef std::map<std::string, uint32_t> StatisticsItems;
typedef std::map<std::string, StatisticsItems> StatisticsGroups;

/* Group name -> item name -> value.  Built on first use, empty until then. */
StatisticsGroups& statistics_map()
{
    static StatisticsGroups groups;
    return groups;
}

/* Erase one item, and its group with it when the group is left empty. */
void erase_item(StatisticsGroups& groups, StatisticsGroups::iterator group_it, StatisticsItems::iterator item_it)
{
    group_it->second.erase(item_it);
    if (group_it->second.empty()) {
        groups.erase(group_it);
    }
}

/* Values are 32-bit counters printed with %ld; on the 32-bit target a value
 * from 2^31 up shows as negative, and the same is done on wider hosts. */
long printable(uint32_t value)
{
    return static_cast<long>(static_cast<int32_t>(value));
}

void print_group(const StatisticsItems& items)
{
    for (StatisticsItems::const_iterator it = items.begin(); it != items.end(); ++it) {
        printf("    [%s]:(%ld)\n", it->first.c_str(), printable(it->second));
    }
}

} // namespace

extern "C" {

/* op 0 assigns, 1 adds, 2 subtracts (erasing the item when the stored value is
 * not greater than `value`), 3 erases; any other op does nothing.  A group or
 * item seen for the first time is created with `value`, whatever the op. */
void memory_statistics(char* group, char* item, unsigned char op, unsigned long value)
{
    const std::string group_name(group != nullptr ? group : "");
    const std::string item_name(item != nullptr ? item : "");
    const uint32_t v = static_cast<uint32_t>(value);

    StatisticsGroups& groups = statistics_map();
    StatisticsGroups::iterator group_it = groups.find(group_name);
    if (group_it == groups.end()) {
        groups[group_name][item_name] = v;
        return;
    }
    StatisticsItems::iterator item_it = group_it->second.find(item_name);
    if (item_it == group_it->second.end()) {
        group_it->second[item_name] = v;
        return;
    }

    switch (op) {
    case 0:
        item_it->second = v;
        break;
    case 1:
        item_it->second += v;
        break;
    case 2:
        if (item_it->second > v) {
            item_it->second -= v;
        } else {
            erase_item(groups, group_it, item_it);
        }
        break;
    case 3:
        erase_item(groups, group_it, item_it);
        break;
    default:
        break;
    }
}

/* Named groups first, then the group with the empty name as [OTHER]. */
void print_memory_statistics(void)
{
    const StatisticsGroups& groups = statistics_map();
    StatisticsGroups::const_iterator other = groups.end();

    for (StatisticsGroups::const_iterator it = groups.begin(); it != groups.end(); ++it) {
        if (it->first.empty()) {
            other = it;
            continue;
        }
        printf("[%s]##############################################\n", it->first.c_str());
        print_group(it->second);
    }
    if (other != groups.end()) {
        printf("[OTHER]##############################################\n");
        print_group(other->second);
    }
    if (groups.empty()) {
        printf("########################[MEMORY:0]###################\n");
    } else {
        printf("##############################################\n");
    }
}

} /* extern "C" */
