// qzfs: the host tool. Formats, mounts and examines disks or disk images
// through the library, from a shell. This file holds the usage text, the
// verb dispatch and the verbs on disks, indexes, export, delete by id and
// browsing; deleting by the clock, recording, retention, the key info
// recovery, the check and the named files have files of their own.
#include "disk_access.h"
#include "h264_stream.h"
#include "qzfs_cli.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace qzfs_tool;

namespace {

const char* USAGE =
    "usage: qzfs [--debug-level N] VERB ARGS...\n"
    "\n"
    "verbs:\n"
    "  format IMAGE [--size SIZE] [--label TEXT]\n"
    "      format a disk or image; a missing IMAGE is created as a sparse file\n"
    "      of SIZE bytes (suffixes K, M, G, T: powers of 1024)\n"
    "  info IMAGE [--index] [--segments ROOT_INDEX [--iframes]] [--json]\n"
    "      mount and print block size, block counts, key info places, label,\n"
    "      version, owner stamp, the key place the block table was loaded from\n"
    "      and what the mount repaired in it (a damaged table is mended from the\n"
    "      clean copy, or by a merge with the blocks' own records), the action\n"
    "      journal (clear, or the record a mount left in it) and the number of\n"
    "      blocks of each type;\n"
    "      --index lists the root index: one line for each day, channel,\n"
    "      stream type and name that has recordings;\n"
    "      --segments lists the stream segments of one root index entry\n"
    "      (index, start, end, length, record type, lock, first I-frame) and\n"
    "      --iframes the first entries of its I-frame index; --json prints the\n"
    "      summary, journal and block counts as one JSON document\n"
    "  index-add IMAGE --date YYYY-MM-DD --channel N [--stream T] [--name S]\n"
    "            [--record-type R] --start HH:MM:SS --seconds S [--lock]\n"
    "      add a root index entry (with its segment and I-frame index blocks),\n"
    "      as the first recording of that day and channel would, with its first\n"
    "      segment as segment-add makes it (a mount removes an empty entry)\n"
    "  segment-add IMAGE --root ROOT_INDEX --start HH:MM:SS --seconds S\n"
    "              [--record-type R] [--lock]\n"
    "      add a closed stream segment of S seconds to a root index entry, with\n"
    "      one I-frame a second in its I-frame index and a data block taken for\n"
    "      every eight (index entries only: no frames are written)\n"
    "  record IMAGE --channels N --seconds S [--bitrate B]\n"
    "         [--start YYYY-MM-DDTHH:MM:SS] [--cut-after-writes W]\n"
    "      record S seconds of synthetic frames (25 a second, an I-frame each\n"
    "      second) on channels 0 to N-1, one new stream segment a channel, as\n"
    "      fast as the disk takes them; B is each channel's rate in bits a\n"
    "      second (default 4000000), the start local time (default now);\n"
    "      --cut-after-writes W pulls the plug: the W-th device write of the\n"
    "      run never reaches the image and the tool stops at once (no close,\n"
    "      no unmount), saying how many frames it had written, with exit\n"
    "      status 0; the next mount (info, ls, export) repairs the segments\n"
    "      left unfinished\n"
    "  record IMAGE... --overwrite --channels N --seconds S [--bitrate B]\n"
    "         [--start YYYY-MM-DDTHH:MM:SS] [--segment-seconds L] [--reserve SIZE]\n"
    "      record past the capacity of the images, mounted as one group: each\n"
    "      channel starts a new segment every L seconds (default 60) on the disk\n"
    "      the group's choice names, while a maintenance thread runs the\n"
    "      overwrite pass every few milliseconds; when free space runs low it\n"
    "      removes the oldest unlocked recordings, cut at I-frames. Prints each\n"
    "      pass that removed something (free space before and after, segments\n"
    "      gone or trimmed) and a summary; SIZE is the group's reserve (default\n"
    "      50 MiB, with several images at least one round of segments); passes\n"
    "      start when a little over twice SIZE is left free\n"
    "  record IMAGE --h264 FILE --channel C --start YYYY-MM-DDTHH:MM:SS [--fps N]\n"
    "      record an H.264 Annex-B file as one new segment of channel C: a frame\n"
    "      per access unit, an I-frame per IDR picture, N frames a second\n"
    "  export IMAGE (--id HDD:ROOT:SEG | --channel C --from TIME --to TIME\n"
    "         [--stream T]) --out FILE [--raw] [--iframes [--skip N] [--reverse]]\n"
    "      write a segment, or a channel's time range, back out: the frames'\n"
    "      payloads (the H.264 stream again) or with --raw the frames as stored;\n"
    "      --out - writes them to standard output (the summary to standard error);\n"
    "      --iframes the I-frames only, every N+1-th, backward with --reverse\n"
    "  delete IMAGE --id HDD:ROOT:SEG [--trim-seconds S | --trim-bytes N]\n"
    "      remove a closed segment whole, under the action journal (refused for\n"
    "      an unknown or deleted id); --trim-seconds cuts S seconds from its\n"
    "      front, keeping it from the first I-frame at or after its start plus\n"
    "      S (refused when that reaches its end); --trim-bytes cuts N bytes or\n"
    "      a little more at an I-frame, as the overwrite planner does, and takes\n"
    "      the segment whole when less than a block would be left\n"
    "  delete IMAGE... --channel C --from TIME --to TIME [--type T]\n"
    "      take the time range out of channel C's recordings (of stream type T,\n"
    "      else of all), TIME as YYYY-MM-DDTHH:MM:SS, over every day it spans,\n"
    "      the images mounted as one group: each segment it meets goes whole,\n"
    "      loses its head or its tail, or loses a stretch inside and is left as\n"
    "      two pieces; cuts fall on I-frames, so a little more or less may go.\n"
    "      Locked segments and those open are left and named. Prints a line a\n"
    "      segment (with the pieces left) and a summary; refused, with nothing\n"
    "      written, when the range is empty or reversed or meets no recording\n"
    "  delete IMAGE... --before YYYY-MM-DD\n"
    "      the sweep: every unlocked segment of every channel and stream type\n"
    "      recorded before that day goes, through the library's delete by\n"
    "      channels, stream types and days (not its auto delete, which takes the\n"
    "      big stream types 0 to 2 alone), called until the listing of those days\n"
    "      stops changing; prints what went and what stayed (locked)\n"
    "  lock IMAGE... --id HDD:ROOT:SEG [--unlock | --number N]\n"
    "      lock a segment against overwrite with lock number N (default 1: the\n"
    "      lock type bit N-1), or with --unlock take its lock away; the images\n"
    "      are mounted as one group, disks 0, 1, ... (refused for an unknown or\n"
    "      deleted id)\n"
    "  lock IMAGE... --channel C --from TIME --to TIME [--unlock | --number N]\n"
    "      lock (or unlock) the stretch of channel C, every stream type, between\n"
    "      the two moments; segments the range starts or ends inside are split\n"
    "      there. Lists the pieces of the channel on those days with their locks\n"
    "  mark IMAGE... --channel C --from TIME --to TIME --record-type R\n"
    "       [--alarm BITS]\n"
    "      set record type R (0 to 15) and add the alarm bits on that stretch,\n"
    "      split out as lock does; lists the pieces with their record types\n"
    "  ls IMAGE... [--channel C] [--date YYYY-MM-DD] [--type T] [--json]\n"
    "      list the segments of the images, mounted as one group, in order of\n"
    "      start time: id HDD:ROOT:SEG, channel, stream type, start, end, bytes,\n"
    "      record type and lock; all recorded days unless --date\n"
    "  calendar IMAGE... --month YYYY-MM [--channel C] [--type T] [--json]\n"
    "      print the month with the days that hold recordings marked\n"
    "  test IMAGE\n"
    "      write, read back and free one block of a mounted disk\n"
    "  recover IMAGE [--scan]\n"
    "      repair the key info of an unmounted image that will not mount: load\n"
    "      the block table from whichever copy stands, mend a damaged copy or\n"
    "      merge two with the blocks' own records, and say what was repaired;\n"
    "      with no key info block left it fails and writes nothing, unless\n"
    "      --scan makes a new table (and its backup) from the blocks' own\n"
    "      records\n"
    "  rebuild IMAGE\n"
    "      the application's recovery of an unmounted image: the key info repair,\n"
    "      then every stream whose segment or I-frame index does not check out\n"
    "      gets both anew from the frames of its data blocks (its segments then\n"
    "      end at their last I-frame, and lock reasons and alarm bits read 255),\n"
    "      and the root index is made anew; says what it found and made\n"
    "  check IMAGE... [--json]\n"
    "      a read-only check of each image: mounted with every write kept in\n"
    "      memory, so the image is left as it was; says how much the mount wrote\n"
    "      and where, then one line per problem (a repair the mount had to make,\n"
    "      a block whose records disagree or that nothing owns, an index entry\n"
    "      that does not match the frames...) and a summary line; exit status 0\n"
    "      only when every image is sound\n"
    "  file IMAGE... ls [PATTERN]\n"
    "  file IMAGE... put NAME [--from FILE]\n"
    "  file IMAGE... get NAME [--to FILE]\n"
    "  file IMAGE... rm NAME\n"
    "  file IMAGE... mv OLD NEW\n"
    "      the named files a disk keeps beside its recordings (names of 1 to 13\n"
    "      characters, each unique in the group the images are mounted as): ls\n"
    "      lists those whose name contains PATTERN, with their sizes; put stores\n"
    "      FILE (standard input without --from) as NAME on the disk the group\n"
    "      records on, replacing a file of that name, and refuses, writing\n"
    "      nothing, one that does not fit; get writes NAME to FILE (standard\n"
    "      output without --to); rm removes it from every disk; mv renames it,\n"
    "      refused when NEW exists\n"
    "  device-info IMAGE [--set FILE]\n"
    "      print the disk's device info, the application's data kept in its\n"
    "      file QzfsDevInfo: as text when it prints, else as a hex dump (\"no\n"
    "      device info\" when there is none); --set replaces it with FILE's bytes\n"
    "  rebuild-shell IMAGE\n"
    "      lay the MBR and FAT32 shell anew; recordings are left alone\n"
    "\n"
    "options:\n"
    "  --debug-level N   library log level (0 silent, 1 lifecycle, up to 4); default 0\n"
    "  --help            this text\n"
    "  --version         the version of the tool and its library\n"
    "  --json            (info, ls, calendar, check) one JSON document instead of\n"
    "                    the text: the same fields, keys in snake_case\n"
    "\n"
    "Standard output carries only the tool's own output: the library's log goes\n"
    "to standard error at debug level 1 or more, and nowhere at level 0.\n";

// Makes a sparse image of `size` bytes when `path` does not exist yet.
int prepare_image(const std::string& path, const std::string* size_text)
{
    struct stat st;
    bool exists = stat(path.c_str(), &st) == 0;
    if (size_text == nullptr)
        return exists ? 0 : fail("%s does not exist (give --size to create an image)", path);
    unsigned long long size = 0;
    if (!parse_size(*size_text, size) || size == 0)
        return fail("bad size '%s'", *size_text);
    if (exists) {
        if (S_ISREG(st.st_mode) && (unsigned long long)st.st_size != size)
            return fail("%s exists with another size; remove it or leave out --size", path);
        return 0;
    }
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    if (fd < 0)
        return fail("cannot create %s", path + ": " + strerror(errno));
    int rc = ftruncate(fd, (off_t)size);
    close(fd);
    if (rc != 0)
        return fail("cannot size %s", path + ": " + strerror(errno));
    return 0;
}

int verb_format(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--size", "--label"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("format takes one IMAGE");
    std::string path = args.positional[0];
    if (prepare_image(path, args.option("--size")) != 0)
        return 1;
    const std::string* label = args.option("--label");
    if (label != nullptr && label->size() > 127)
        return fail("label is longer than 127 characters");
    std::string label_copy = label != nullptr ? *label : "";
    int rc = label != nullptr
                 ? api_qzfs_format(TOOL_HDD_ID, &path[0], &label_copy[0])
                 : api_qzfs_fast_format(TOOL_HDD_ID, &path[0]);
    if (rc != 0)
        return fail("format of %s failed (too small, unreadable or not a disk?)", path);
    print("formatted %s\n", path.c_str());
    return 0;
}

// Lists the used root index entries of the mounted tool disk.
int print_root_index()
{
    unsigned long root_block = 0;
    if (!disk_root_index_block(TOOL_HDD_ID, root_block))
        return fail("the disk has no root index");
    print("root index (block %lu):\n", root_block);
    print("  %-6s %-10s %4s %6s  %-16s %-12s %s\n", "pos", "date", "chn", "stream", "name",
           "record types", "segment index block");
    unsigned long used = 0;
    for (uint32_t ri = 0;; ri++) {
        IndexSlot slot = IndexSlot::End;
        RootEntry e;
        if (disk_root_entry(TOOL_HDD_ID, ri, slot, e) != 0)
            return fail("cannot read root index position %s", std::to_string(ri));
        if (slot == IndexSlot::End)
            break;
        if (slot != IndexSlot::Used)
            continue;
        print("  %-6u 20%02u-%02u-%02u %4u %6u  %-16s 0x%04x       %u\n", ri, e.year, e.month,
               e.day, e.channel, e.stream_type, e.name.c_str(), e.record_types,
               e.segment_index_block);
        used++;
    }
    print("  %lu used\n", used);
    return 0;
}

// The root entry at `ri` when it holds recordings.
bool normal_root(uint32_t ri, RootEntry& root)
{
    IndexSlot slot = IndexSlot::End;
    return disk_root_entry(TOOL_HDD_ID, ri, slot, root) == 0 && slot == IndexSlot::Used;
}

// The first entries of a root's I-frame index.
int print_iframes(uint32_t ri)
{
    const unsigned long shown = 24;
    IframeIndexHead head;
    std::vector<IframeEntry> entries;
    if (disk_iframe_index(TOOL_HDD_ID, ri, shown, head, entries) != 0)
        return fail("cannot read the I-frame index of root index entry %s", std::to_string(ri));
    print("i-frame index (first block %u, %u blocks): %u i-frames, %u data block entries\n",
           head.first_block, head.blocks, head.iframes, head.block_entries);
    print("  %-8s %-6s %-8s %-8s %-10s %s\n", "number", "kind", "time", "block", "offset",
           "stream offset / share count");
    for (unsigned long i = 0; i < entries.size(); i++) {
        const IframeEntry& n = entries[i];
        if (n.iframe)
            print("  %-8lu i-frame  %02u:%02u:%02u %-8u %-10u %llu\n", i, n.hour, n.minute,
                   n.second, n.block, n.offset, (unsigned long long)n.stream_offset);
        else
            print("  %-8lu block    %-8s %-8u #%-9u shared by %u\n", i, "", n.block, n.offset,
                   n.shared_by);
    }
    if (entries.size() == shown && head.iframes + head.block_entries > shown)
        print("  ...\n");
    return 0;
}

// The stream segments of one root entry.
int print_segments(uint32_t ri, bool iframes)
{
    RootEntry root;
    if (!normal_root(ri, root))
        return fail("root index entry %s holds no recordings", std::to_string(ri));
    print("segments of root index entry %u (20%02u-%02u-%02u, channel %u, stream %u):\n", ri,
           root.year, root.month, root.day, root.channel, root.stream_type);
    print("  %-6s %-8s %-8s %14s %6s %-4s %s\n", "index", "start", "end", "length", "record",
           "lock", "first i-frame");
    unsigned long listed = 0;
    for (uint32_t index = 0;; index++) {
        IndexSlot slot = IndexSlot::End;
        SegmentEntry n;
        if (disk_segment_entry(TOOL_HDD_ID, ri, index, slot, n) != 0)
            return fail("cannot read segment %s", std::to_string(index));
        if (slot == IndexSlot::End)
            break;
        if (slot != IndexSlot::Used)
            continue;
        char end[16] = "recording";
        if (n.closed)
            snprintf(end, sizeof(end), "%02u:%02u:%02u", n.end_hour, n.end_minute, n.end_second);
        print("  %-6u %02u:%02u:%02u %-8s %14llu %6u %-4s %u%s\n", index, n.start_hour,
               n.start_minute, n.start_second, end, (unsigned long long)n.len, n.record_type,
               n.locked ? "yes" : "no", n.start_iframe, n.pre_record ? " (pre-record)" : "");
        listed++;
    }
    print("  %lu segments\n", listed);
    return iframes ? print_iframes(ri) : 0;
}

// Sizes and block counts of the mounted tool disk, then where its key info
// lies and what its header says.
void print_disk_summary(const std::string& path)
{
    _qzfs_k4t_hdd_info_ info = {};
    api_qzfs_get_hdd_info(TOOL_HDD_ID, &info);
    DiskKeyInfo key;
    disk_key_info(TOOL_HDD_ID, key);
    print("device:           %s\n", path.c_str());
    print("block size:       %lu (%lu MiB)\n", (unsigned long)info.block_size,
           (unsigned long)(info.block_size >> 20));
    print("total blocks:     %lu\n", (unsigned long)info.total_num);
    print("free blocks:      %lu\n", (unsigned long)info.free_num);
    print("key block:        %lu\n", key.key_block);
    print("backup key block: %lu\n", key.backup_key_block);
    print("label:            %s\n", key.label.c_str());
    print("version:          %s\n", key.version.c_str());
    print("owner stamp:      %lu\n", key.owner_stamp);
    DiskKeyRepair repair;
    if (disk_key_repair(TOOL_HDD_ID, repair)) {
        const std::string text = key_repair_text(repair);
        print("table loaded:     %s\n", key_loaded_text(repair).c_str());
        print("mount repaired:   %s\n", text.empty() ? "nothing" : text.c_str());
    }
}

const char* journal_action_name(uint32_t action)
{
    return action == 1 ? "delete" : action == 3 ? "split" : action == 0 ? "none" : "unknown";
}

// The action journal of the mounted tool disk. A mount rolls back a delete
// or split the journal names and clears it, so what is left to show is a
// journal whose sum does not match (a torn write of the journal itself,
// which the mount leaves alone) or one whose clearing failed.
void print_journal()
{
    JournalState j;
    if (disk_journal(TOOL_HDD_ID, j) != 0) {
        print("action journal:   cannot be read\n");
        return;
    }
    const bool sum_ok = j.stored_sum == j.computed_sum;
    if (j.action == 0 && sum_ok) {
        print("action journal:   clear (root index block %lu)\n", j.block);
        return;
    }
    const char* name = journal_action_name(j.action);
    print("action journal:   %s (action %u) in root index block %lu\n", name, j.action, j.block);
    if (sum_ok)
        print("  sum:            0x%08x, matches\n", j.stored_sum);
    else
        print("  sum:            MISMATCH: stored 0x%08x, computed 0x%08x (a torn journal "
               "write: the mount left it and rolled nothing back)\n",
               j.stored_sum, j.computed_sum);
    if (j.action == 1) {
        const JournalDeleteRecord& d = j.deletion;
        print("  record:         root %u, segment %u, first i-frame %u, length %llu, start "
               "%02u:%02u:%02u\n",
               d.root, d.segment, d.start_iframe, (unsigned long long)d.len, d.start_hour,
               d.start_minute, d.start_second);
        print("                  root id 0x%02x, segment id 0x%02x, block entries #%u (shared by "
               "%u) to #%u (shared by %u)\n",
               d.root_id, d.segment_id, d.first_block_entry, d.first_block_shares,
               d.last_block_entry, d.last_block_shares);
    } else if (j.action == 3) {
        const JournalSplitRecord& p = j.split;
        print("  record:         root %u, segment %u, first i-frame %u, pieces begin at i-frame "
               "%u at the latest\n",
               p.root, p.segment, p.start_iframe, p.split_end_iframe);
    } else {
        print("  record:         %s\n", j.data_clear ? "all zero" : "not all zero");
    }
}

// The summary, the journal and the block counts of info as one JSON object.
bool write_info_json(const std::string& path)
{
    unsigned long counts[kDiskBlockTypes] = {};
    if (disk_count_blocks(TOOL_HDD_ID, counts) != 0)
        return false;
    _qzfs_k4t_hdd_info_ info = {};
    api_qzfs_get_hdd_info(TOOL_HDD_ID, &info);
    DiskKeyInfo key;
    disk_key_info(TOOL_HDD_ID, key);
    DiskKeyRepair repair;
    const bool repair_known = disk_key_repair(TOOL_HDD_ID, repair);
    const std::string repaired = repair_known ? key_repair_text(repair) : "";
    JsonWriter json;
    json.open_object()
        .text("device", path)
        .number("block_size", info.block_size)
        .number("total_blocks", info.total_num)
        .number("free_blocks", info.free_num)
        .number("key_block", key.key_block)
        .number("backup_key_block", key.backup_key_block)
        .text("label", key.label)
        .text("version", key.version)
        .number("owner_stamp", key.owner_stamp)
        .text("table_loaded", repair_known ? key_loaded_text(repair) : "")
        .text("mount_repaired", repaired.empty() ? "nothing" : repaired);
    JournalState j;
    const bool journal_read = disk_journal(TOOL_HDD_ID, j) == 0;
    const bool sum_ok = j.stored_sum == j.computed_sum;
    json.open_object("action_journal").flag("readable", journal_read);
    if (journal_read)
        json.text("state", j.action == 0 && sum_ok ? "clear" : journal_action_name(j.action))
            .number("action", j.action)
            .number("block", j.block)
            .flag("sum_matches", sum_ok);
    json.close_object().open_object("blocks_by_type");
    for (int type = 1; type < kDiskBlockTypes; type++) {
        std::string name = kDiskBlockTypeNames[type];
        std::replace_if(name.begin(), name.end(), [](char c) { return c == ' ' || c == '-'; }, '_');
        json.number(name.c_str(), counts[type]);
    }
    json.close_object().close_object().finish();
    return true;
}

int verb_info(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--index", "--segments", "--iframes", "--json"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("info takes one IMAGE");
    const bool json = args.option("--json") != nullptr;
    if (json && (args.option("--index") != nullptr || args.option("--segments") != nullptr))
        return fail("info --json gives the summary alone, without --index or --segments");
    unsigned segments_of = 0;
    const bool segments = args.option("--segments") != nullptr;
    if (segments && !number_option(args, "--segments", 0xFFFFFFFEu, 0, segments_of))
        return fail("--segments takes a root index position");
    if (args.option("--iframes") != nullptr && !segments)
        return fail("--iframes goes with --segments ROOT_INDEX");
    const std::string& path = args.positional[0];
    if (mount_image(path) != 0)
        return 1;
    if (json) {
        const bool written = write_info_json(path);
        api_qzfs_umount(TOOL_HDD_ID);
        return written ? 0 : fail("cannot read the block table of %s", path);
    }

    print_disk_summary(path);
    print_journal();
    unsigned long counts[kDiskBlockTypes] = {};
    const int counted = disk_count_blocks(TOOL_HDD_ID, counts);
    if (counted == 0) {
        print("blocks by type:\n");
        for (int type = 1; type < kDiskBlockTypes; type++)
            print("  %-14s %lu\n", kDiskBlockTypeNames[type], counts[type]);
    }
    int listed = 0;
    if (counted == 0 && args.option("--index") != nullptr)
        listed = print_root_index();
    if (counted == 0 && listed == 0 && segments)
        listed = print_segments(segments_of, args.option("--iframes") != nullptr);
    api_qzfs_umount(TOOL_HDD_ID);
    if (counted != 0)
        return fail("cannot read the block table of %s", path);
    return listed;
}

// Reads "YYYY-MM-DD" into the day of a creation request.
bool parse_entry_date(const std::string& text, _qzfs_k4t_create_ss_para_& para)
{
    _k4t_fs_date_ date;
    if (!parse_date(text, date, false))
        return false;
    para.year = date.year;
    para.month = date.month;
    para.day = date.day;
    return true;
}

// Reads "HH:MM:SS".
bool parse_time(const std::string& text, _qzfs_k4t_create_ss_para_& para)
{
    unsigned hour, minute, second;
    char tail;
    if (sscanf(text.c_str(), "%2u:%2u:%2u%c", &hour, &minute, &second, &tail) != 3 || hour > 23 ||
        minute > 59 || second > 59)
        return false;
    para.hour = (uint8_t)hour;
    para.minute = (uint8_t)minute;
    para.second = (uint8_t)second;
    return true;
}

int verb_index_add(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--date", "--channel", "--stream", "--name", "--record-type",
                             "--start", "--seconds", "--lock"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("index-add takes one IMAGE");
    _qzfs_k4t_create_ss_para_ para;
    memset(&para, 0, sizeof(para));
    const std::string* date = args.option("--date");
    if (date == nullptr || !parse_entry_date(*date, para))
        return fail("index-add needs --date YYYY-MM-DD (2000 to 2099)");
    unsigned channel, stream, record_type;
    if (args.option("--channel") == nullptr || !number_option(args, "--channel", 254, 0, channel))
        return fail("index-add needs --channel N (0 to 254)");
    if (!number_option(args, "--stream", 255, 0, stream))
        return fail("--stream takes 0 to 255");
    if (!number_option(args, "--record-type", 15, 0, record_type))
        return fail("--record-type takes 0 to 15");
    const std::string* name = args.option("--name");
    if (name != nullptr && name->size() >= sizeof(para.name))
        return fail("--name takes at most 16 characters");
    // Every mount removes an entry without recordings, so the entry comes
    // with its first segment.
    unsigned seconds;
    const std::string* start = args.option("--start");
    if (start == nullptr || !parse_time(*start, para))
        return fail("index-add needs --start HH:MM:SS for the entry's first segment");
    if (args.option("--seconds") == nullptr ||
        !number_option(args, "--seconds", 86400, 0, seconds) || seconds == 0)
        return fail("index-add needs --seconds S (1 to 86400) for the entry's first segment");
    para.channel = (uint8_t)channel;
    para.stream_type = (uint8_t)stream;
    para.record_type = (uint8_t)record_type;
    para.lock = args.option("--lock") != nullptr ? 1 : 0;
    if (name != nullptr)
        memcpy(para.name, name->c_str(), name->size());

    const std::string& path = args.positional[0];
    if (mount_image(path) != 0)
        return 1;
    uint32_t position = 0, index = 0;
    _qzfs_k4t_hdd_info_ info = {};
    api_qzfs_get_hdd_info(TOOL_HDD_ID, &info);
    const bool entry_added = disk_add_root_entry(TOOL_HDD_ID, para, position) == 0;
    const bool segment_added =
        entry_added && disk_add_synthetic_segment(TOOL_HDD_ID, position, para, seconds,
                                                  info.block_size, index) == 0;
    api_qzfs_umount(TOOL_HDD_ID);
    if (!entry_added)
        return fail("cannot add a root index entry to %s (disk full?)", path);
    if (!segment_added)
        return fail("cannot add the first segment of the new entry to %s (disk full?)", path);
    print("root index entry %u added, with segment %u: %u seconds from %s\n", position, index,
           seconds, start->c_str());
    return 0;
}

int verb_segment_add(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--root", "--start", "--seconds", "--record-type", "--lock"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("segment-add takes one IMAGE");
    unsigned ri, seconds, record_type;
    if (args.option("--root") == nullptr || !number_option(args, "--root", 0xFFFFFFFEu, 0, ri))
        return fail("segment-add needs --root ROOT_INDEX");
    _qzfs_k4t_create_ss_para_ para;
    memset(&para, 0, sizeof(para));
    const std::string* start = args.option("--start");
    if (start == nullptr || !parse_time(*start, para))
        return fail("segment-add needs --start HH:MM:SS");
    if (args.option("--seconds") == nullptr ||
        !number_option(args, "--seconds", 86400, 0, seconds) || seconds == 0)
        return fail("segment-add needs --seconds S (1 to 86400)");
    if (!number_option(args, "--record-type", 15, 0, record_type))
        return fail("--record-type takes 0 to 15");
    para.record_type = (uint8_t)record_type;
    para.lock = args.option("--lock") != nullptr ? 1 : 0;

    const std::string& path = args.positional[0];
    if (mount_image(path) != 0)
        return 1;
    RootEntry root;
    if (!normal_root(ri, root)) {
        api_qzfs_umount(TOOL_HDD_ID);
        return fail("root index entry %s holds no recordings (see info --index)", std::to_string(ri));
    }
    para.year = root.year;
    para.month = root.month;
    para.day = root.day;
    para.channel = root.channel;
    para.stream_type = root.stream_type;
    // The I-frame entries spread a second's frames over an eighth of a block.
    _qzfs_k4t_hdd_info_ info = {};
    api_qzfs_get_hdd_info(TOOL_HDD_ID, &info);
    uint32_t index = 0;
    const int rc =
        disk_add_synthetic_segment(TOOL_HDD_ID, ri, para, seconds, info.block_size, index);
    api_qzfs_umount(TOOL_HDD_ID);
    if (rc != 0)
        return fail("cannot add a segment to %s (segment index or disk full?)", path);
    print("segment %u of root index entry %u added: %u seconds from %s\n", index, ri, seconds,
           start->c_str());
    return 0;
}

// What one export has read and written.
struct ExportCount {
    unsigned long frames = 0;
    unsigned long iframes = 0;
    unsigned long audio_left_out = 0;
    unsigned long segments = 0;
    unsigned long long bytes = 0;
};

// Reads the stream of `fd` in 64 KiB units and writes its frames to `out`:
// their video payloads, or with `raw` the frames whole. With `to`, stops
// before the first frame whose date-time record is later.
bool export_frames(int fd, FILE* out, bool raw, const _k4t_fs_date_time_* to, ExportCount& count,
                   std::string& error)
{
    std::vector<uint8_t> chunk(0x10000);
    StoredFrameParser parser;
    StoredFrame frame;
    for (;;) {
        unsigned char new_segment = 0;
        const int got = api_qzfs_read_video_data(fd, chunk.data(), int(chunk.size()), &new_segment);
        if (got < 0) {
            error = "reading the recording failed after " + std::to_string(count.frames) +
                    " frames";
            return false;
        }
        if (got == 0)
            break;
        if (new_segment != 0 || count.segments == 0) {
            // A segment ends on a frame boundary; one cut short by a power
            // failure may not, and its last frame is left out.
            const size_t dropped = count.segments > 0 ? parser.drop_pending() : 0;
            if (dropped > 0)
                fprintf(stderr, "qzfs: segment %lu ends inside a frame: %zu bytes left out\n",
                        count.segments, dropped);
            count.segments++;
        }
        parser.feed(chunk.data(), size_t(got));
        while (parser.next(frame)) {
            if (to != nullptr && frame.has_time && compare_date_time(frame.time, *to) > 0)
                return true;
            if (!raw && frame.audio()) {
                count.audio_left_out++;
                continue;
            }
            const uint8_t* data = raw ? frame.bytes.data() : frame.payload();
            const size_t size = raw ? frame.bytes.size() : frame.frame_len;
            if (size > 0 && fwrite(data, 1, size, out) != size) {
                error = std::string("writing the output failed: ") + strerror(errno);
                return false;
            }
            count.frames++;
            if (frame.iframe())
                count.iframes++;
            count.bytes += size;
        }
        if (!parser.error().empty()) {
            error = "the recording holds something that is no frame: " + parser.error();
            return false;
        }
    }
    if (parser.pending() > 0)
        fprintf(stderr, "qzfs: the recording ends inside a frame: %zu bytes left out\n",
                parser.pending());
    return true;
}

// Writes the I-frames of `fd` to `out`, one whole frame a call, forward or
// (with `reverse`) backward, jumping over `skip` I-frames between two.
// `stop` ends the walk at the first frame past it: later going forward,
// earlier going back.
bool export_iframes(int fd, FILE* out, bool raw, unsigned skip, bool reverse,
                    const _k4t_fs_date_time_* stop, ExportCount& count, std::string& error)
{
    for (;;) {
        unsigned char* data = nullptr;
        int len = 0;
        unsigned char new_segment = 0;
        const int got = reverse ? api_qzfs_read_pre_iframe(fd, (unsigned char)skip, &data, &len,
                                                           &new_segment)
                                : api_qzfs_read_next_iframe(fd, (unsigned char)skip, &data, &len,
                                                            &new_segment);
        if (got < 0) {
            error = "reading I-frames failed after " + std::to_string(count.frames);
            return false;
        }
        if (got == 0)
            return true;
        if (new_segment != 0 || count.segments == 0)
            count.segments++;
        StoredFrameParser parser;
        StoredFrame frame;
        if (data == nullptr || !parser.feed(data, size_t(got)) || !parser.next(frame)) {
            error = "an I-frame of the recording is no whole frame";
            return false;
        }
        if (stop != nullptr && frame.has_time &&
            compare_date_time(frame.time, *stop) * (reverse ? -1 : 1) > 0)
            return true;
        const uint8_t* bytes = raw ? frame.bytes.data() : frame.payload();
        const size_t size = raw ? frame.bytes.size() : frame.frame_len;
        if (size > 0 && fwrite(bytes, 1, size, out) != size) {
            error = std::string("writing the output failed: ") + strerror(errno);
            return false;
        }
        count.frames++;
        count.iframes++;
        count.bytes += size;
    }
}

// What an export is asked for: one segment by its id, or a channel's time
// range; all frames or the I-frames only.
struct ExportRequest {
    std::string out_path;
    bool raw = false;
    bool iframes = false;
    bool reverse = false;
    unsigned skip = 0;
    bool by_id = false;
    _k4t_stream_segment_id_ id = {};
    _qzfs_k4t_stream_open_para_ para = {};  // by time: where the reading starts
    _k4t_fs_date_time_ to = {};             // by time: where it stops
};

// --id HDD:ROOT:SEG: one segment of the tool's disk.
int parse_export_by_id(const Args& args, ExportRequest& request)
{
    if (args.option("--channel") || args.option("--from") || args.option("--to") ||
        args.option("--stream"))
        return fail("export --id takes no --channel, --from, --to or --stream");
    if (!parse_segment_id(*args.option("--id"), request.id))
        return fail("--id takes HDD:ROOT:SEG, as record prints it (e.g. 0:0:0)");
    if (request.id.hdd_id != TOOL_HDD_ID)
        return fail("the tool mounts its image as disk %s, so --id begins with it",
                    std::to_string(TOOL_HDD_ID));
    return 0;
}

// --channel C --from TIME --to TIME [--stream T]: a time range within one
// day. Walking back, the reading starts at its end and stops at its start.
int parse_export_by_time(const Args& args, ExportRequest& request)
{
    unsigned channel = 0, stream = 0;
    if (args.option("--channel") == nullptr || !number_option(args, "--channel", 254, 0, channel))
        return fail("export needs --id HDD:ROOT:SEG, or --channel C (0 to 254) with --from "
                    "and --to");
    if (!number_option(args, "--stream", 255, 0, stream))
        return fail("--stream takes 0 to 255");
    const std::string* from_text = args.option("--from");
    const std::string* to_text = args.option("--to");
    _k4t_fs_date_time_ from;
    _k4t_fs_date_time_& to = request.to;
    if (from_text == nullptr || !parse_date_time(*from_text, from) || to_text == nullptr ||
        !parse_date_time(*to_text, to))
        return fail("export --channel needs --from and --to as YYYY-MM-DDTHH:MM:SS");
    if (compare_date_time(from, to) > 0)
        return fail("--to is earlier than --from");
    if (from.year != to.year || from.month != to.month || from.day != to.day)
        return fail("--from and --to lie on different days; export one day at a time");
    _qzfs_k4t_stream_open_para_& para = request.para;
    para.channel = uint8_t(channel);
    para.stream_type = uint8_t(stream);
    para.record_type_bitmap = 0xFFFF;
    para.group_bitmap = 1u << 0;
    para.date_time = request.reverse ? to : from;
    if (request.reverse)
        to = from;
    return 0;
}

// Checks the options of an export and fills in `request`.
int parse_export_request(const Args& args, ExportRequest& request)
{
    std::string error;
    if (!only_options(args, {"--id", "--out", "--raw", "--channel", "--from", "--to", "--stream",
                             "--iframes", "--skip", "--reverse"},
                      error))
        return fail("%s", error);
    request.iframes = args.option("--iframes") != nullptr;
    request.reverse = args.option("--reverse") != nullptr;
    if (!number_option(args, "--skip", 255, 0, request.skip))
        return fail("--skip takes 0 to 255");
    if (!request.iframes && (request.reverse || args.option("--skip") != nullptr))
        return fail("--skip and --reverse go with --iframes");
    if (args.positional.size() != 1)
        return fail("export takes one IMAGE");
    const std::string* out_path = args.option("--out");
    if (out_path == nullptr || out_path->empty())
        return fail("export needs --out FILE (- for standard output)");
    request.out_path = *out_path;
    request.raw = args.option("--raw") != nullptr;
    request.by_id = args.option("--id") != nullptr;
    return request.by_id ? parse_export_by_id(args, request) : parse_export_by_time(args, request);
}

// Mounts the image and opens the segment, or the channel at the time, the
// request reads. The stream's descriptor; -1 when that fails (reported,
// and the image let go again).
int open_export_source(const std::string& path, ExportRequest& request)
{
    if (mount_image(path) != 0)
        return -1;
    // A search by time looks at the disks of the groups it is given.
    if (!request.by_id && api_qzfs_add_disk_to_group(TOOL_HDD_ID, 0) != 0) {
        end_session(-1, false);
        fail("cannot put %s in a group to search it", path);
        return -1;
    }
    _k4t_stream_segment_id_& id = request.id;
    _qzfs_k4t_stream_open_para_& para = request.para;
    const int fd = request.by_id ? api_qzfs_open_stream_segment_by_id(&id, 0xFFFF, 0)
                                 : api_qzfs_open_stream_segment_by_para(&para, QZFS_K4T_OSF_CONTINUE);
    if (fd > 0)
        return fd;
    end_session(-1, !request.by_id);
    if (request.by_id)
        fail("there is no segment %s (see info --index and --segments)",
             std::to_string(id.hdd_id) + ":" + std::to_string(id.root_index) + ":" +
                 std::to_string(id.stream_segment_index) + " on " + path);
    else
        fail("%s", "channel " + std::to_string(para.channel) + " (stream type " +
                       std::to_string(para.stream_type) + ") recorded nothing on " + path +
                       " from " + format_date_time(para.date_time) + " to the end of that day");
    return -1;
}

// Reads the stream of `fd` to `out`: all its frames, or its I-frames
// forward or back. Walking a segment back starts at its end.
bool export_stream(int fd, FILE* out, const ExportRequest& request, ExportCount& count,
                   std::string& error)
{
    const _k4t_fs_date_time_* stop = request.by_id ? nullptr : &request.to;
    if (!request.iframes)
        return export_frames(fd, out, request.raw, stop, count, error);
    if (request.reverse && request.by_id &&
        api_qzfs_seek_stream_segment_by_offset(fd, 0, SEEK_END) != 0) {
        error = "cannot move to the end of the segment";
        return false;
    }
    return export_iframes(fd, out, request.raw, request.skip, request.reverse, stop, count, error);
}

// The summary of a finished export: on the tool's output, or on standard
// error when the stream itself went to standard output.
void print_export_summary(const ExportRequest& request, const ExportCount& count)
{
    FILE* to = request.out_path == "-" ? stderr : tool_out();
    fprintf(to, "exported %lu frames (%lu I-frames) from %lu segment%s: %llu bytes %s to %s\n",
            count.frames, count.iframes, count.segments, count.segments == 1 ? "" : "s",
            count.bytes, request.raw ? "of stored frames" : "of payload",
            request.out_path == "-" ? "standard output" : request.out_path.c_str());
    if (count.audio_left_out > 0)
        fprintf(to, "%lu audio frames left out\n", count.audio_left_out);
}

// Writes the stream of `fd` to the request's output file (the tool's
// output for "-"), closes the stream and lets the image go; a failed export
// leaves no output file behind.
int write_export(int fd, const ExportRequest& request)
{
    const bool to_stdout = request.out_path == "-";
    const char* out_path = request.out_path.c_str();
    FILE* out = to_stdout ? tool_out() : fopen(out_path, "wb");
    if (out == nullptr) {
        end_session(fd, !request.by_id);
        return fail("cannot create %s", request.out_path + ": " + strerror(errno));
    }
    ExportCount count;
    std::string error;
    bool ok = export_stream(fd, out, request, count, error);
    if ((to_stdout ? fflush(out) : fclose(out)) != 0 && ok) {
        ok = false;
        error = std::string("writing the output failed: ") + strerror(errno);
    }
    end_session(fd, !request.by_id);
    if (ok && !request.by_id && count.frames == 0) {
        ok = false;
        error = "channel " + std::to_string(request.para.channel) + " recorded nothing from " +
                format_date_time(request.para.date_time) + " to " + format_date_time(request.to) +
                " (its next recording begins later)";
    }
    if (!ok) {
        if (!to_stdout)
            unlink(out_path);
        return fail("%s", error);
    }
    print_export_summary(request, count);
    return 0;
}

int verb_export(const Args& args)
{
    ExportRequest request;
    if (parse_export_request(args, request) != 0)
        return 1;
    const int fd = open_export_source(args.positional[0], request);
    if (fd <= 0)
        return 1;
    return write_export(fd, request);
}

// ---------------------------------------------------------------- deleting

// Removes the segment whole through the exported call, which refuses a
// segment being recorded or read and an id that names nothing.
int delete_segment(const std::string& path, _k4t_stream_segment_id_ id)
{
    _k4t_stream_segment_info_ info = {};
    if (api_qzfs_get_stream_segment_info(&id, &info) != 0)
        return fail("there is no segment %s (see ls)", id_text(id) + " on " + path);
    if (api_qzfs_delete_stream_segment(&id) != 0)
        return fail("the library refused to delete segment %s", id_text(id));
    print("deleted segment %s: channel %u, 20%02u-%02u-%02u %s to %s, %llu bytes%s\n",
           id_text(id).c_str(), info.channel, info.year, info.month, info.day,
           clock_of(info.start_time.hour, info.start_time.minute, info.start_time.second).c_str(),
           clock_of(info.end_time.hour, info.end_time.minute, info.end_time.second).c_str(),
           (unsigned long long)info.len, info.lock != 0 ? " (it was locked)" : "");
    return 0;
}

// What a front trim left: the new start and length, or that it took the
// segment whole.
void print_trim(const _k4t_stream_segment_id_& id, const TrimOutcome& out)
{
    const SegmentEntry& b = out.before;
    const SegmentEntry& a = out.after;
    if (out.whole) {
        print("segment %s went whole: %llu bytes from %s (less than a block would have been "
               "left)%s\n",
               id_text(id).c_str(), (unsigned long long)out.taken,
               clock_of(b.start_hour, b.start_minute, b.start_second).c_str(),
               out.root_deleted ? "; its root index entry, left empty, went with it" : "");
        return;
    }
    print("trimmed segment %s: %llu bytes taken from its front; it now starts at %s (was %s), "
           "%llu bytes long (was %llu)\n",
           id_text(id).c_str(), (unsigned long long)out.taken,
           clock_of(a.start_hour, a.start_minute, a.start_second).c_str(),
           clock_of(b.start_hour, b.start_minute, b.start_second).c_str(),
           (unsigned long long)a.len, (unsigned long long)b.len);
}

// Cuts the front of the segment through the tool's way below the interface:
// by seconds, at the first I-frame at or after the moment, or by bytes, as
// the overwrite planner does.
int trim_segment(const std::string& path, const _k4t_stream_segment_id_& id, bool by_seconds,
                 unsigned long long amount)
{
    TrimOutcome out;
    const TrimStatus status =
        by_seconds ? disk_trim_segment_seconds(TOOL_HDD_ID, id.root_index, id.stream_segment_index,
                                               unsigned(amount), out)
                   : disk_trim_segment_bytes(TOOL_HDD_ID, id.root_index, id.stream_segment_index,
                                             amount, out);
    if (status == TrimStatus::Refused)
        return fail("segment %s", id_text(id) + " of " + path + " left as it was: " + out.refusal);
    if (status == TrimStatus::Failed)
        return fail("trimming segment %s failed", id_text(id) +
                                                      (out.refusal.empty() ? "" : ": " + out.refusal));
    print_trim(id, out);
    return 0;
}

int verb_delete(const Args& args)
{
    const bool by_id = args.option("--id") != nullptr;
    const bool by_time = args.option("--channel") != nullptr || args.option("--from") != nullptr ||
                         args.option("--to") != nullptr || args.option("--type") != nullptr;
    const bool before = args.option("--before") != nullptr;
    if (int(by_id) + int(by_time) + int(before) > 1)
        return fail("delete takes --id, --channel with --from and --to, or --before: one of them");
    if (by_time || before)
        return verb_delete_by_clock(args);
    std::string error;
    if (!only_options(args, {"--id", "--trim-seconds", "--trim-bytes"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("delete --id takes one IMAGE");
    _k4t_stream_segment_id_ id = {};
    const std::string* id_option = args.option("--id");
    if (id_option == nullptr || !parse_segment_id(*id_option, id))
        return fail("delete needs --id HDD:ROOT:SEG (as ls prints it, e.g. 0:0:0), --channel C "
                    "with --from and --to, or --before YYYY-MM-DD");
    if (id.hdd_id != TOOL_HDD_ID)
        return fail("the tool mounts its image as disk %s, so --id begins with it",
                    std::to_string(TOOL_HDD_ID));
    const bool by_seconds = args.option("--trim-seconds") != nullptr;
    const bool by_bytes = args.option("--trim-bytes") != nullptr;
    if (by_seconds && by_bytes)
        return fail("give --trim-seconds or --trim-bytes, not both");
    unsigned seconds = 0;
    unsigned long long bytes = 0;
    if (by_seconds && (!number_option(args, "--trim-seconds", 86400, 0, seconds) || seconds == 0))
        return fail("--trim-seconds takes 1 to 86400");
    if (by_bytes && (!parse_size(*args.option("--trim-bytes"), bytes) || bytes == 0))
        return fail("--trim-bytes takes a size of 1 byte or more (suffixes K, M, G)");

    const std::string& path = args.positional[0];
    if (mount_image(path) != 0)
        return 1;
    const int rc = by_seconds || by_bytes
                       ? trim_segment(path, id, by_seconds, by_seconds ? seconds : bytes)
                       : delete_segment(path, id);
    api_qzfs_umount(TOOL_HDD_ID);
    return rc;
}

// ---------------------------------------------------------------- browsing

// --channel C as a channel bitmap (all 32 without it), --type T as a stream
// type bitmap (all without it).
bool channel_and_type_filter(const Args& args, uint32_t& channels, uint64_t& types)
{
    unsigned channel = 0, type = 0;
    if (!number_option(args, "--channel", 31, 0, channel) ||
        !number_option(args, "--type", 63, 0, type))
        return false;
    channels = args.option("--channel") != nullptr ? 1u << channel : 0xFFFFFFFFu;
    types = args.option("--type") != nullptr ? 1ULL << type : ~0ULL;
    return true;
}

// A listed segment and its day.
struct ListedSegment {
    _k4t_fs_date_ day;
    _k4t_stream_query_result_ row;
};

// The segments of `days`, each day in order of start time; false when a
// query fails (named in `error`).
bool list_days(const std::vector<_k4t_fs_date_>& days, uint32_t channels, uint64_t types,
               std::vector<ListedSegment>& out, std::string& error)
{
    std::vector<_k4t_stream_query_result_> rows;
    for (const _k4t_fs_date_& day : days) {
        if (!query_day(day, channels, types, rows)) {
            error = "the query of " + date_text(day) + " failed";
            return false;
        }
        for (const _k4t_stream_query_result_& r : rows)
            out.push_back({day, r});
    }
    return true;
}

void print_listing(const std::vector<ListedSegment>& listed)
{
    print("  %-10s %-10s %4s %6s  %-8s  %-8s %12s %6s %5s\n", "id", "date", "chn", "stream",
          "start", "end", "bytes", "rtype", "lock");
    for (const ListedSegment& s : listed) {
        const _k4t_stream_query_result_& r = s.row;
        print("  %-10s %s %4u %6u  %s  %s %12llu %6u %5s\n",
              id_text(id_of(r, r.stream_segment_index)).c_str(), date_text(s.day).c_str(),
              r.channel, r.stream_type, clock_of(r.start_hour, r.start_minute, r.start_second).c_str(),
              clock_of(r.end_hour, r.end_minute, r.end_second).c_str(), (unsigned long long)r.len,
              r.record_type, r.lock ? "yes" : "no");
    }
    print("%zu segment%s\n", listed.size(), listed.size() == 1 ? "" : "s");
}

void write_listing_json(const std::vector<ListedSegment>& listed)
{
    JsonWriter json;
    json.open_object().open_array("segments");
    for (const ListedSegment& s : listed) {
        const _k4t_stream_query_result_& r = s.row;
        json.open_object()
            .text("id", id_text(id_of(r, r.stream_segment_index)))
            .text("date", date_text(s.day))
            .number("channel", r.channel)
            .number("stream_type", r.stream_type)
            .text("start", clock_of(r.start_hour, r.start_minute, r.start_second))
            .text("end", clock_of(r.end_hour, r.end_minute, r.end_second))
            .number("bytes", r.len)
            .number("record_type", r.record_type)
            .flag("lock", r.lock != 0)
            .close_object();
    }
    json.close_array().number("count", listed.size()).close_object().finish();
}

int verb_ls(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--channel", "--date", "--type", "--json"}, error))
        return fail("%s", error);
    uint32_t channels = 0;
    uint64_t types = 0;
    if (!channel_and_type_filter(args, channels, types))
        return fail("--channel takes 0 to 31 and --type 0 to 63");
    std::vector<_k4t_fs_date_> days(1);
    const std::string* date_option = args.option("--date");
    if (date_option != nullptr && !parse_date(*date_option, days[0], false))
        return fail("--date takes YYYY-MM-DD (2000 to 2099)");
    unsigned mounted = 0;
    std::vector<ListedSegment> listed;
    bool ok = mount_group(args.positional, mounted) == 0;
    if (ok && date_option == nullptr && !recorded_days(types, days)) {
        ok = false;
        fail("cannot list the recorded days");
    }
    if (ok && !list_days(days, channels, types, listed, error)) {
        ok = false;
        fail("%s", error);
    }
    leave_group(mounted);
    if (!ok)
        return 1;
    if (args.option("--json") != nullptr)
        write_listing_json(listed);
    else
        print_listing(listed);
    return 0;
}

// What a calendar query says of each day of the month: recorded, and with
// a locked recording.
struct MonthDays {
    std::vector<unsigned> recorded;
    std::vector<unsigned> locked;
};

MonthDays month_days(const _k4t_fs_date_& month, const _k4t_calendar_stream_query_& query)
{
    MonthDays days;
    const unsigned count = library_days_in_month(month.year, month.month);
    for (unsigned day = 1; day <= count; day++) {
        bool any = false, locked = false;
        for (unsigned c = 0; c < 32; c++) {
            any = any || query.day_info[c][day - 1].record_type != 0;
            locked = locked || query.day_info[c][day - 1].lock != 0;
        }
        if (any)
            days.recorded.push_back(day);
        if (locked)
            days.locked.push_back(day);
    }
    return days;
}

bool holds(const std::vector<unsigned>& days, unsigned day)
{
    return std::find(days.begin(), days.end(), day) != days.end();
}

// Prints the month, Monday first, with the days that hold recordings
// marked, and then those days as a list.
void print_month(const _k4t_fs_date_& month, const MonthDays& marked)
{
    const unsigned days = library_days_in_month(month.year, month.month);
    struct tm first = {};
    first.tm_year = 100 + month.year;
    first.tm_mon = month.month - 1;
    first.tm_mday = 1;
    first.tm_hour = 12;
    mktime(&first);
    static const char* const kMonths[] = {"January", "February", "March",     "April",
                                          "May",     "June",     "July",      "August",
                                          "September", "October", "November", "December"};
    print("%s 20%02u   (* recorded, L with a locked recording)\n", kMonths[month.month - 1],
          month.year);
    print(" Mo  Tu  We  Th  Fr  Sa  Su\n");
    const int lead = (first.tm_wday + 6) % 7;
    print("%*s", lead * 4, "");
    std::string recorded;
    for (unsigned day = 1; day <= days; day++) {
        const bool any = holds(marked.recorded, day);
        print("%3u%c", day, holds(marked.locked, day) ? 'L' : any ? '*' : ' ');
        if ((lead + day) % 7 == 0 || day == days)
            print("\n");
        if (any)
            recorded += (recorded.empty() ? "" : ", ") + std::to_string(day);
    }
    print("recorded days: %s\n", recorded.empty() ? "none" : recorded.c_str());
}

void write_month_json(const _k4t_fs_date_& month, const MonthDays& marked)
{
    JsonWriter json;
    json.open_object().text("month", date_text(month).substr(0, 7)).open_array("recorded_days");
    for (unsigned day : marked.recorded)
        json.number(nullptr, day);
    json.close_array().open_array("locked_days");
    for (unsigned day : marked.locked)
        json.number(nullptr, day);
    json.close_array().close_object().finish();
}

int verb_calendar(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--month", "--channel", "--type", "--json"}, error))
        return fail("%s", error);
    _k4t_fs_date_ month = {};
    const std::string* month_text = args.option("--month");
    if (month_text == nullptr || !parse_date(*month_text, month, true))
        return fail("calendar needs --month YYYY-MM (2000 to 2099)");
    auto query = std::unique_ptr<_k4t_calendar_stream_query_>(new _k4t_calendar_stream_query_());
    query->group_bitmap = 1;
    query->record_type_bitmap = 0xFFFF;
    query->year = month.year;
    query->month = month.month;
    if (!channel_and_type_filter(args, query->channel_bitmap, query->stream_type_bitmap))
        return fail("--channel takes 0 to 31 and --type 0 to 63");
    unsigned mounted = 0;
    if (mount_group(args.positional, mounted) != 0) {
        leave_group(mounted);
        return 1;
    }
    const int rc = api_qzfs_query_calendar(query.get());
    leave_group(mounted);
    if (rc != 0)
        return fail("the calendar query failed");

    const MonthDays marked = month_days(month, *query);
    if (args.option("--json") != nullptr)
        write_month_json(month, marked);
    else
        print_month(month, marked);
    return 0;
}

int verb_test(const Args& args)
{
    std::string error;
    if (!only_options(args, {}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("test takes one IMAGE");
    const std::string& path = args.positional[0];
    if (mount_image(path) != 0)
        return 1;
    int rc = api_qzfs_test_hdd(TOOL_HDD_ID, 0);
    api_qzfs_umount(TOOL_HDD_ID);
    if (rc != 0)
        return fail("block test of %s failed (disk full or failing)", path);
    print("block test of %s passed\n", path.c_str());
    return 0;
}

int verb_rebuild_shell(const Args& args)
{
    std::string error;
    if (!only_options(args, {}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("rebuild-shell takes one IMAGE");
    std::string path = args.positional[0];
    if (require_existing(path) != 0)
        return 1;
    if (api_qzfs_rebuild_rely(TOOL_HDD_ID, &path[0]) != 0)
        return fail("rebuilding the shell of %s failed", path);
    print("shell of %s rebuilt\n", path.c_str());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    unsigned long debug_level = 0;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            fputs(USAGE, stdout);
            return 0;
        }
        if (word == "--version") {
            printf("qzfs %s\n", QZFS_VERSION);
            return 0;
        }
        if (word == "--debug-level" && i + 1 < argc) {
            char* end = nullptr;
            debug_level = strtoul(argv[++i], &end, 10);
            if (*end != '\0')
                return fail("bad debug level '%s'", argv[i]);
            continue;
        }
        return fail("unknown option %s (see --help)", word);
    }
    if (i >= argc) {
        fputs(USAGE, stderr);
        return 2;
    }
    std::string verb = argv[i];
    Args args;
    std::string error;
    if (!split_args(argc, argv, i + 1, args, error))
        return fail("%s", error);

    if (!set_library_log_aside(debug_level))
        return fail("cannot set the library's log aside from standard output");
    api_qzfs_init();
    api_qzfs_set_debug_level(debug_level);
    int rc;
    if (verb == "format")
        rc = verb_format(args);
    else if (verb == "info")
        rc = verb_info(args);
    else if (verb == "index-add")
        rc = verb_index_add(args);
    else if (verb == "segment-add")
        rc = verb_segment_add(args);
    else if (verb == "record")
        rc = verb_record(args);
    else if (verb == "export")
        rc = verb_export(args);
    else if (verb == "delete")
        rc = verb_delete(args);
    else if (verb == "lock")
        rc = verb_lock(args);
    else if (verb == "mark")
        rc = verb_mark(args);
    else if (verb == "ls")
        rc = verb_ls(args);
    else if (verb == "calendar")
        rc = verb_calendar(args);
    else if (verb == "test")
        rc = verb_test(args);
    else if (verb == "recover")
        rc = verb_recover(args);
    else if (verb == "rebuild")
        rc = verb_rebuild(args);
    else if (verb == "check")
        rc = verb_check(args);
    else if (verb == "file")
        rc = verb_file(args);
    else if (verb == "device-info")
        rc = verb_device_info(args);
    else if (verb == "rebuild-shell")
        rc = verb_rebuild_shell(args);
    else if (verb == "help")
        rc = (fputs(USAGE, tool_out()), 0);
    else
        rc = fail("unknown verb '%s' (see --help)", verb);
    api_qzfs_uinit();
    if (!flush_output() && rc == 0)
        rc = fail("writing standard output failed");
    return rc;
}

