// Checks of the memory statistics diagnostics. (The public records' layout
// is asserted where they are declared.)

#include <stddef.h>
#include <stdint.h>

#include <string>

#include <gtest/gtest.h>

#include "qzfilesystem_api.h"

namespace {

// ---------------------------------------------------------------------------
// memory_statistics / print_memory_statistics.  The map is process-wide, so
// every test leaves it empty again.
// ---------------------------------------------------------------------------

const char kEmpty[] = "########################[MEMORY:0]###################\n";
const char kEnd[] = "##############################################\n";

std::string printed()
{
    testing::internal::CaptureStdout();
    print_memory_statistics();
    return testing::internal::GetCapturedStdout();
}

std::string group_line(const std::string& name)
{
    return "[" + name + "]##############################################\n";
}

void stat(const char* group, const char* item, unsigned char op, unsigned long value)
{
    memory_statistics(const_cast<char*>(group), const_cast<char*>(item), op, value);
}

// An empty map prints MEMORY:0, as every test checks at its end.
TEST(MemoryStatistics, FirstCallCreatesItemWhateverTheOpAndGroupStaysWhileItHasItems)
{
    stat("g", "i", 3, 7);  // erase, but the item is new: created with 7
    EXPECT_EQ(group_line("g") + "    [i]:(7)\n" + kEnd, printed());

    stat("g", "j", 2, 9);  // subtract on a new item in an existing group
    EXPECT_EQ(group_line("g") + "    [i]:(7)\n    [j]:(9)\n" + kEnd, printed());

    stat("g", "i", 3, 0);
    EXPECT_EQ(group_line("g") + "    [j]:(9)\n" + kEnd, printed());
    stat("g", "j", 3, 0);
    EXPECT_EQ(kEmpty, printed());
}

TEST(MemoryStatistics, AssignAddSubtractAndUnknownOp)
{
    stat("g", "i", 0, 10);
    stat("g", "i", 0, 4);  // assign
    EXPECT_EQ(group_line("g") + "    [i]:(4)\n" + kEnd, printed());

    stat("g", "i", 1, 6);  // add
    EXPECT_EQ(group_line("g") + "    [i]:(10)\n" + kEnd, printed());

    stat("g", "i", 2, 3);  // subtract, stored value is greater
    EXPECT_EQ(group_line("g") + "    [i]:(7)\n" + kEnd, printed());

    stat("g", "i", 9, 100);  // unknown op: nothing changes
    EXPECT_EQ(group_line("g") + "    [i]:(7)\n" + kEnd, printed());

    stat("g", "i", 2, 8);  // not greater: item and its group go
    EXPECT_EQ(kEmpty, printed());
    stat("g", "i", 0, 5);
    stat("g", "i", 2, 5);  // equal goes too
    EXPECT_EQ(kEmpty, printed());
}

TEST(MemoryStatistics, EmptyGroupNamePrintsLastAsOther)
{
    stat("", "anon", 0, 3);
    stat("zz", "z", 0, 2);
    stat("b", "i", 0, 1);
    EXPECT_EQ(group_line("b") + "    [i]:(1)\n" + group_line("zz") + "    [z]:(2)\n" + group_line("OTHER") +
                  "    [anon]:(3)\n" + kEnd,
              printed());
    stat("", "anon", 3, 0);
    stat("zz", "z", 3, 0);
    stat("b", "i", 3, 0);
    EXPECT_EQ(kEmpty, printed());
}

TEST(MemoryStatistics, NullNamesCountAsEmpty)
{
    memory_statistics(nullptr, nullptr, 0, 4);
    EXPECT_EQ(group_line("OTHER") + "    []:(4)\n" + kEnd, printed());
    stat("", "", 1, 1);  // the same item as the null names
    EXPECT_EQ(group_line("OTHER") + "    []:(5)\n" + kEnd, printed());
    memory_statistics(nullptr, nullptr, 3, 0);
    EXPECT_EQ(kEmpty, printed());
}

} // namespace
