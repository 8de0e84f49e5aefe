// The host tool's shared plumbing: its command-line words, its one-line
// failures, its standard output kept apart from the library's log, a small
// JSON writer, dates and segment ids as a user types them, mounting images as
// the disks of group 0, and the day queries over that group. The verbs live
// in qzfs.cpp (disks, indexes, export, delete by id, browsing),
// qzfs_delete.cpp (delete by time and by date), qzfs_record.cpp (recording),
// qzfs_retention.cpp (locks, record types by time and recording with
// overwrite), qzfs_recover.cpp (the key info repair), qzfs_check.cpp (the
// read-only check) and qzfs_file.cpp (named files and the device info).
#ifndef QZFS_TOOL_CLI_H
#define QZFS_TOOL_CLI_H

#include "qzfilesystem_api.h"

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

struct DiskKeyRepair;

namespace qzfs_tool {

// The disk number of a verb that works on one image.
const unsigned char TOOL_HDD_ID = 0;
// The most images the verbs that take several mount as one group.
const unsigned kMaxGroupImages = 8;

// Prints "qzfs: " and the message (`fmt` with `detail` for its %s) on
// standard error, after what the tool printed before it; returns the exit
// status of a failure, 1.
int fail(const char* fmt, const std::string& detail = "");

// The library prints its log on descriptor 1. So that standard output
// carries only the tool's own lines (or an exported stream), the tool keeps
// a duplicate of it for itself and points descriptor 1 at standard error
// (debug level 1 or more) or at /dev/null (level 0). False when the
// descriptors cannot be moved.
bool set_library_log_aside(unsigned long debug_level);
// Where the tool's own output goes: the kept standard output (standard
// output itself until the log is set aside).
FILE* tool_out();
// printf on the tool's output.
int print(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Flushes the tool's output; false when writing it failed.
bool flush_output();

// Fails with "no such file" when nothing is at `path`: an image to open
// must exist (the library would try it a few times, half a second apart,
// as a disk that has just appeared may need).
int require_existing(const std::string& path);

// One JSON document written as it goes to the tool's output: values,
// objects and arrays in order, the commas put in by the writer. A key is
// given inside an object and left out (null) inside an array.
class JsonWriter {
public:
    JsonWriter& open_object(const char* key = nullptr) { return open(key, '{'); }
    JsonWriter& close_object() { return close('}'); }
    JsonWriter& open_array(const char* key = nullptr) { return open(key, '['); }
    JsonWriter& close_array() { return close(']'); }
    JsonWriter& text(const char* key, const std::string& value);
    JsonWriter& number(const char* key, unsigned long long value);
    JsonWriter& flag(const char* key, bool value);
    // Ends the document with a new line.
    void finish();

private:
    JsonWriter& open(const char* key, char bracket);
    JsonWriter& close(char bracket);
    // The comma before a value that is not the first of its container, and
    // its key.
    void lead(const char* key);
    std::vector<bool> first_;
};
// `text` as a JSON string, quoted, with quotes, backslashes and control
// characters escaped.
std::string json_string(const std::string& text);

// Reads a byte count with an optional suffix K, M, G or T (powers of 1024).
bool parse_size(const std::string& text, unsigned long long& out);

// Arguments after the verb: positional ones, --name value pairs and flags
// (kept with an empty value).
struct Args {
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> options;

    const std::string* option(const char* name) const
    {
        for (const auto& o : options)
            if (o.first == name)
                return &o.second;
        return nullptr;
    }
};

bool split_args(int argc, char** argv, int first, Args& args, std::string& error);
// Fails with "unknown option" for an option not in `allowed`.
bool only_options(const Args& args, std::initializer_list<const char*> allowed, std::string& error);
// A small unsigned option within [0, limit]; `fallback` when absent.
bool number_option(const Args& args, const char* name, unsigned limit, unsigned fallback,
                   unsigned& out);

// Reads "YYYY-MM-DDTHH:MM:SS" (a space may stand for the T).
bool parse_date_time(const std::string& text, _k4t_fs_date_time_& out);
// Reads "YYYY-MM-DD" (or "YYYY-MM" when `month_only`), 2000 to 2099.
bool parse_date(const std::string& text, _k4t_fs_date_& out, bool month_only);
// The local time now, as a recorder's clock shows it.
bool local_now(_k4t_fs_date_time_& out);
// "2026-11-21 08:00:00"
std::string format_date_time(const _k4t_fs_date_time_& t);
// "HH:MM:SS"
std::string clock_of(unsigned hour, unsigned minute, unsigned second);
// The moment `second_of_day` seconds after midnight of the day of `day`.
_k4t_fs_date_time_ at_second_of_day(const _k4t_fs_date_time_& day, unsigned second_of_day);
unsigned second_of_day(const _k4t_fs_date_time_& t);
// Orders two moments by their fields, the way the recordings store them.
int compare_date_time(const _k4t_fs_date_time_& a, const _k4t_fs_date_time_& b);

// Reads "HDD:ROOT:SEG"; id_text writes it.
bool parse_segment_id(const std::string& text, _k4t_stream_segment_id_& id);
std::string id_text(const _k4t_stream_segment_id_& id);

// Mounts IMAGE as disk `hdd_id`; mount_image as the tool's disk. The
// caller unmounts.
int mount_disk(unsigned char hdd_id, const std::string& path);
int mount_image(const std::string& path);
// Closes `fd` (when above 0), leaves group 0 (when `grouped`) and unmounts
// the tool's disk.
void end_session(int fd, bool grouped);
// Mounts IMAGE i as disk i and puts them all in group 0, as a recorder's
// disks; `mounted` counts the disks to let go with leave_group.
int mount_group(const std::vector<std::string>& paths, unsigned& mounted);
void leave_group(unsigned mounted);

// The days of group 0 that hold recordings of the stream types in `types`,
// in calendar order.
bool recorded_days(uint64_t types, std::vector<_k4t_fs_date_>& days);
// The segments of group 0 on `date`, of the channels and stream types in the
// bitmaps, in order of start time (a sorted query, page by page).
bool query_day(const _k4t_fs_date_& date, uint32_t channels, uint64_t types,
               std::vector<_k4t_stream_query_result_>& rows);

// Orders days by year, month and day.
std::tuple<uint8_t, uint8_t, uint8_t> day_key(uint8_t year, uint8_t month, uint8_t day);
// "2026-11-21"
std::string date_text(const _k4t_fs_date_& d);
// "08:00:00-08:00:09", the start and end of a listed segment.
std::string span_text(const _k4t_stream_query_result_& r);
// A listed segment's start and end, in seconds of its day.
unsigned start_of(const _k4t_stream_query_result_& r);
unsigned end_of(const _k4t_stream_query_result_& r);
// The id of the segment of `r`'s root index entry numbered `index`.
_k4t_stream_segment_id_ id_of(const _k4t_stream_query_result_& r, uint32_t index);

// A stretch of one channel's recordings: --channel C --from TIME --to TIME,
// of every stream type unless `types` narrows it.
struct ChannelRange {
    unsigned channel = 0;
    uint64_t types = ~0ULL;
    _k4t_fs_date_time_ from = {};
    _k4t_fs_date_time_ to = {};
};
// Reads --channel, --from and --to for `verb`; on bad input prints why and
// returns 1, else 0. The range must run forward and not be empty.
int parse_channel_range(const Args& args, const char* verb, ChannelRange& range);

// A segment a range meets, with the range's part of the segment's day in
// seconds of that day.
struct RangeSegment {
    _k4t_fs_date_ day;
    _k4t_stream_query_result_ row;
    unsigned from, to;
};
// The segments of group 0 of the range's channel and stream types that the
// range meets, day by day, in order of start time. False when a listing
// fails.
bool range_segments(const ChannelRange& range, std::vector<RangeSegment>& out);

// Verbs defined outside qzfs.cpp.
int verb_record(const Args& args);  // qzfs_record.cpp
int verb_lock(const Args& args);    // qzfs_retention.cpp
int verb_mark(const Args& args);    // qzfs_retention.cpp
// delete --channel C --from --to and delete --before DATE.
int verb_delete_by_clock(const Args& args);  // qzfs_delete.cpp
int verb_recover(const Args& args);          // qzfs_recover.cpp
int verb_rebuild(const Args& args);          // qzfs_recover.cpp
int verb_check(const Args& args);            // qzfs_check.cpp
int verb_file(const Args& args);             // qzfs_file.cpp
int verb_device_info(const Args& args);      // qzfs_file.cpp
// What a key info load mended, in words ("" when it mended nothing), for
// recover and info.
std::string key_repair_text(const DiskKeyRepair& repair);  // qzfs_recover.cpp
// "block 65 (the primary copy)": where the table was loaded from.
std::string key_loaded_text(const DiskKeyRepair& repair);   // qzfs_recover.cpp

} // namespace qzfs_tool

#endif
