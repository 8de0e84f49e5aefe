// The host tool's shared plumbing; see qzfs_cli.h.
#include "qzfs_cli.h"

#include "disk_access.h"
#include "frame_source.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <tuple>
#include <unistd.h>

namespace qzfs_tool {

namespace {

// The standard output the tool started with, once the library's log is set
// aside.
FILE* g_tool_out = nullptr;

} // namespace

FILE* tool_out() { return g_tool_out != nullptr ? g_tool_out : stdout; }

bool set_library_log_aside(unsigned long debug_level)
{
    fflush(stdout);
    const int kept = dup(STDOUT_FILENO);
    const int log = debug_level >= 1 ? STDERR_FILENO : open("/dev/null", O_WRONLY);
    const bool moved = kept >= 0 && log >= 0 && dup2(log, STDOUT_FILENO) >= 0;
    if (log > STDERR_FILENO)
        close(log);
    g_tool_out = moved ? fdopen(kept, "w") : nullptr;
    if (g_tool_out == nullptr && kept >= 0)
        close(kept);
    return g_tool_out != nullptr;
}

int print(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int n = vfprintf(tool_out(), fmt, args);
    va_end(args);
    return n;
}

bool flush_output() { return fflush(tool_out()) == 0 && ferror(tool_out()) == 0; }

int require_existing(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0
               ? 0
               : fail("no such file: %s", path);
}

std::string json_string(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char u = (unsigned char)c;
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (u < 0x20 || u == 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

void JsonWriter::lead(const char* key)
{
    if (!first_.empty() && !first_.back())
        fputc(',', tool_out());
    if (!first_.empty())
        first_.back() = false;
    if (key != nullptr)
        fprintf(tool_out(), "%s:", json_string(key).c_str());
}

JsonWriter& JsonWriter::open(const char* key, char bracket)
{
    lead(key);
    fputc(bracket, tool_out());
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::close(char bracket)
{
    fputc(bracket, tool_out());
    if (!first_.empty())
        first_.pop_back();
    return *this;
}

JsonWriter& JsonWriter::text(const char* key, const std::string& value)
{
    lead(key);
    fputs(json_string(value).c_str(), tool_out());
    return *this;
}

JsonWriter& JsonWriter::number(const char* key, unsigned long long value)
{
    lead(key);
    fprintf(tool_out(), "%llu", value);
    return *this;
}

JsonWriter& JsonWriter::flag(const char* key, bool value)
{
    lead(key);
    fputs(value ? "true" : "false", tool_out());
    return *this;
}

void JsonWriter::finish() { fputc('\n', tool_out()); }

int fail(const char* fmt, const std::string& detail)
{
    fflush(tool_out());
    fprintf(stderr, "qzfs: ");
    fprintf(stderr, fmt, detail.c_str());
    fprintf(stderr, "\n");
    return 1;
}

bool parse_size(const std::string& text, unsigned long long& out)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str())
        return false;
    std::string suffix(end);
    unsigned long long scale = 1;
    if (suffix == "" || suffix == "B")
        scale = 1;
    else if (suffix == "K" || suffix == "KiB")
        scale = 1ULL << 10;
    else if (suffix == "M" || suffix == "MiB")
        scale = 1ULL << 20;
    else if (suffix == "G" || suffix == "GiB")
        scale = 1ULL << 30;
    else if (suffix == "T" || suffix == "TiB")
        scale = 1ULL << 40;
    else
        return false;
    out = value * scale;
    return true;
}

namespace {

// Options that stand alone, without a value.
const char* const FLAG_OPTIONS[] = {"--index", "--iframes", "--lock",     "--raw",
                                    "--reverse", "--unlock",  "--overwrite", "--scan", "--json"};

bool is_flag(const std::string& word)
{
    for (const char* flag : FLAG_OPTIONS)
        if (word == flag)
            return true;
    return false;
}

} // namespace

bool split_args(int argc, char** argv, int first, Args& args, std::string& error)
{
    for (int i = first; i < argc; i++) {
        std::string word = argv[i];
        if (is_flag(word)) {
            args.options.emplace_back(word, "");
        } else if (word.rfind("--", 0) == 0) {
            if (i + 1 >= argc) {
                error = word + " needs a value";
                return false;
            }
            args.options.emplace_back(word, argv[++i]);
        } else {
            args.positional.push_back(word);
        }
    }
    return true;
}

bool only_options(const Args& args, std::initializer_list<const char*> allowed, std::string& error)
{
    for (const auto& o : args.options) {
        bool known = false;
        for (const char* name : allowed)
            known = known || o.first == name;
        if (!known) {
            error = "unknown option " + o.first;
            return false;
        }
    }
    return true;
}

// Mounts IMAGE as disk `hdd_id`; a path that is not there is named at once.
int mount_disk(unsigned char hdd_id, const std::string& path)
{
    if (require_existing(path) != 0)
        return 1;
    std::string copy = path;
    if (api_qzfs_mount(hdd_id, &copy[0]) != 0)
        return fail("cannot mount %s (not formatted, or its key info is damaged beyond what a "
                    "mount mends: see qzfs recover)", path);
    return 0;
}

// Mounts IMAGE as the tool's disk; the caller unmounts.
int mount_image(const std::string& path) { return mount_disk(TOOL_HDD_ID, path); }

// A small unsigned option within [0, limit]; `fallback` when absent.
bool number_option(const Args& args, const char* name, unsigned limit, unsigned fallback,
                   unsigned& out)
{
    const std::string* text = args.option(name);
    if (text == nullptr) {
        out = fallback;
        return true;
    }
    char* end = nullptr;
    unsigned long value = strtoul(text->c_str(), &end, 10);
    if (text->empty() || *end != '\0' || value > limit)
        return false;
    out = (unsigned)value;
    return true;
}

// Reads "YYYY-MM-DDTHH:MM:SS" (a space may stand for the T).
bool parse_date_time(const std::string& text, _k4t_fs_date_time_& out)
{
    unsigned year, month, day, hour, minute, second;
    char sep, tail;
    if (sscanf(text.c_str(), "%4u-%2u-%2u%c%2u:%2u:%2u%c", &year, &month, &day, &sep, &hour,
               &minute, &second, &tail) != 7 ||
        (sep != 'T' && sep != ' '))
        return false;
    if (year < 2000 || year > 2099 || month < 1 || month > 12 || day < 1 ||
        day > library_days_in_month(year - 2000, month) || hour > 23 || minute > 59 || second > 59)
        return false;
    out = {(uint8_t)(year - 2000), (uint8_t)month, (uint8_t)day, (uint8_t)hour,
           (uint8_t)minute,        (uint8_t)second, 0};
    return true;
}

// Reads "YYYY-MM-DD" (or "YYYY-MM" when `month_only`).
bool parse_date(const std::string& text, _k4t_fs_date_& out, bool month_only)
{
    unsigned year = 0, month = 0, day = 1;
    char tail;
    const int fields = month_only ? sscanf(text.c_str(), "%4u-%2u%c", &year, &month, &tail)
                                  : sscanf(text.c_str(), "%4u-%2u-%2u%c", &year, &month, &day, &tail);
    if (fields != (month_only ? 2 : 3) || year < 2000 || year > 2099 || month < 1 || month > 12 ||
        day < 1 || day > library_days_in_month(year - 2000, month))
        return false;
    out = {(uint8_t)(year - 2000), (uint8_t)month, (uint8_t)day, 0};
    return true;
}

// The local time now, as a recorder's clock shows it.
bool local_now(_k4t_fs_date_time_& out)
{
    time_t now = time(nullptr);
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr || tm.tm_year < 100 || tm.tm_year > 199)
        return false;
    out = {(uint8_t)(tm.tm_year - 100), (uint8_t)(tm.tm_mon + 1), (uint8_t)tm.tm_mday,
           (uint8_t)tm.tm_hour,         (uint8_t)tm.tm_min,       (uint8_t)tm.tm_sec,
           (uint8_t)(tm.tm_isdst > 0 ? 1 : 0)};
    return true;
}

// "2026-11-21 08:00:00"
std::string format_date_time(const _k4t_fs_date_time_& t)
{
    char text[40];
    snprintf(text, sizeof(text), "20%02u-%02u-%02u %02u:%02u:%02u", t.year, t.month, t.day, t.hour,
             t.minute, t.second);
    return text;
}

// The moment `second_of_day` seconds after midnight of the day of `day`.
_k4t_fs_date_time_ at_second_of_day(const _k4t_fs_date_time_& day, unsigned second_of_day)
{
    return {day.year,
            day.month,
            day.day,
            uint8_t(second_of_day / 3600),
            uint8_t(second_of_day / 60 % 60),
            uint8_t(second_of_day % 60),
            0};
}

unsigned second_of_day(const _k4t_fs_date_time_& t)
{
    return t.hour * 3600u + t.minute * 60u + t.second;
}

// Orders two moments by their fields, the way the recordings store them.
int compare_date_time(const _k4t_fs_date_time_& a, const _k4t_fs_date_time_& b)
{
    const uint8_t left[6] = {a.year, a.month, a.day, a.hour, a.minute, a.second};
    const uint8_t right[6] = {b.year, b.month, b.day, b.hour, b.minute, b.second};
    return memcmp(left, right, sizeof(left));
}

// Leaves group 0 (when `grouped`) and unmounts, after closing `fd`.
void end_session(int fd, bool grouped)
{
    if (fd > 0)
        api_qzfs_close_stream_segment(fd);
    if (grouped)
        api_qzfs_delete_disk_from_group(TOOL_HDD_ID, 0);
    api_qzfs_umount(TOOL_HDD_ID);
}

// Reads "HDD:ROOT:SEG".
bool parse_segment_id(const std::string& text, _k4t_stream_segment_id_& id)
{
    unsigned hdd, root, segment;
    char tail;
    if (text.empty() || text[0] == '-' ||
        sscanf(text.c_str(), "%u:%u:%u%c", &hdd, &root, &segment, &tail) != 3 || hdd > 254)
        return false;
    id.hdd_id = uint8_t(hdd);
    id.root_index = root;
    id.stream_segment_index = segment;
    return true;
}

// "HH:MM:SS"
std::string clock_of(unsigned hour, unsigned minute, unsigned second)
{
    char text[16];
    snprintf(text, sizeof(text), "%02u:%02u:%02u", hour % 100, minute % 100, second % 100);
    return text;
}

std::string id_text(const _k4t_stream_segment_id_& id)
{
    return std::to_string(id.hdd_id) + ":" + std::to_string(id.root_index) + ":" +
           std::to_string(id.stream_segment_index);
}

// Mounts IMAGE i as disk i and puts them all in group 0, as a recorder's
// disks; `mounted` counts the disks to let go with leave_group.
int mount_group(const std::vector<std::string>& paths, unsigned& mounted)
{
    mounted = 0;
    if (paths.empty() || paths.size() > kMaxGroupImages)
        return fail("give 1 to %s images", std::to_string(kMaxGroupImages));
    for (const std::string& path : paths) {
        if (mount_disk((unsigned char)mounted, path) != 0)
            return 1;
        mounted++;
        if (api_qzfs_add_disk_to_group((unsigned char)(mounted - 1), 0) != 0)
            return fail("cannot put %s in a group", path);
    }
    return 0;
}

void leave_group(unsigned mounted)
{
    for (unsigned hdd = 0; hdd < mounted; hdd++) {
        api_qzfs_delete_disk_from_group((unsigned char)hdd, 0);
        api_qzfs_umount((unsigned char)hdd);
    }
}

bool recorded_days(uint64_t types, std::vector<_k4t_fs_date_>& days)
{
    const int count = api_qzfs_get_stream_date_num(1, types);
    days.assign(count > 0 ? size_t(count) : 0, _k4t_fs_date_{});
    if (count < 0 || (count > 0 && api_qzfs_get_stream_date_list(1, types, days.data(), count) < 0))
        return false;
    std::sort(days.begin(), days.end(), [](const _k4t_fs_date_& x, const _k4t_fs_date_& y) {
        return std::make_tuple(x.year, x.month, x.day) < std::make_tuple(y.year, y.month, y.day);
    });
    return true;
}

bool query_day(const _k4t_fs_date_& date, uint32_t channels, uint64_t types,
               std::vector<_k4t_stream_query_result_>& rows)
{
    rows.clear();
    _k4t_stream_query_ query = whole_day_query(date.year, date.month, date.day);
    query.channel_bitmap = channels;
    query.stream_type_bitmap = types;
    const int handle = api_qzfs_get_query_stream_segment_handle(&query);
    if (handle <= 0)
        return false;
    const int pages = api_qzfs_get_total_page_num(handle);
    std::vector<_k4t_stream_query_result_> page_rows(query.item_num_per_page);
    bool ok = pages >= 0;
    for (int page = 0; ok && page < pages; page++) {
        int num = int(page_rows.size());
        ok = api_qzfs_jump_specific_page(handle, page, &num, page_rows.data()) == 0;
        if (ok)
            rows.insert(rows.end(), page_rows.begin(), page_rows.begin() + num);
    }
    api_qzfs_close_query_stream_segment_handle(handle);
    return ok;
}

std::string date_text(const _k4t_fs_date_& d)
{
    char text[16];
    snprintf(text, sizeof(text), "20%02u-%02u-%02u", d.year % 100u, d.month % 100u, d.day % 100u);
    return text;
}

std::string span_text(const _k4t_stream_query_result_& r)
{
    return clock_of(r.start_hour, r.start_minute, r.start_second) + "-" +
           clock_of(r.end_hour, r.end_minute, r.end_second);
}

unsigned start_of(const _k4t_stream_query_result_& r)
{
    return r.start_hour * 3600u + r.start_minute * 60u + r.start_second;
}

unsigned end_of(const _k4t_stream_query_result_& r)
{
    return r.end_hour * 3600u + r.end_minute * 60u + r.end_second;
}

_k4t_stream_segment_id_ id_of(const _k4t_stream_query_result_& r, uint32_t index)
{
    return {r.hdd_id, r.root_index, index};
}

int parse_channel_range(const Args& args, const char* verb, ChannelRange& range)
{
    if (args.option("--channel") == nullptr ||
        !number_option(args, "--channel", 31, 0, range.channel))
        return fail("%s by time needs --channel C (0 to 31)", verb);
    const std::string* from_text = args.option("--from");
    const std::string* to_text = args.option("--to");
    if (from_text == nullptr || !parse_date_time(*from_text, range.from) || to_text == nullptr ||
        !parse_date_time(*to_text, range.to))
        return fail("%s --channel needs --from and --to as YYYY-MM-DDTHH:MM:SS", verb);
    const int order = compare_date_time(range.from, range.to);
    if (order == 0)
        return fail("the range from %s to itself is empty", format_date_time(range.from));
    if (order > 0)
        return fail("--to is earlier than --from");
    return 0;
}

namespace {

bool same_day(const _k4t_fs_date_& day, const _k4t_fs_date_time_& t)
{
    return day.year == t.year && day.month == t.month && day.day == t.day;
}

} // namespace

std::tuple<uint8_t, uint8_t, uint8_t> day_key(uint8_t year, uint8_t month, uint8_t day)
{
    return std::make_tuple(year, month, day);
}

bool range_segments(const ChannelRange& range, std::vector<RangeSegment>& out)
{
    out.clear();
    std::vector<_k4t_fs_date_> days;
    if (!recorded_days(range.types, days))
        return false;
    const auto first = day_key(range.from.year, range.from.month, range.from.day);
    const auto last = day_key(range.to.year, range.to.month, range.to.day);
    for (const _k4t_fs_date_& day : days) {
        const auto key = day_key(day.year, day.month, day.day);
        if (key < first || key > last)
            continue;
        const unsigned from = same_day(day, range.from) ? second_of_day(range.from) : 0;
        const unsigned to = same_day(day, range.to) ? second_of_day(range.to) : 86399;
        if (from >= to)
            continue;  // the range only touches this day at midnight
        std::vector<_k4t_stream_query_result_> rows;
        if (!query_day(day, 1u << range.channel, range.types, rows))
            return false;
        for (const _k4t_stream_query_result_& r : rows) {
            // A segment ends at the time of the I-frame behind its last
            // frame, or of its last frame: a range from that second on, or
            // up to its start, takes nothing of it. One with no length in
            // time belongs to the range when the range holds it.
            const unsigned start = start_of(r), end = end_of(r);
            if (start == end ? from <= start && start <= to : start < to && from < end)
                out.push_back({day, r, from, to});
        }
    }
    return true;
}

} // namespace qzfs_tool
