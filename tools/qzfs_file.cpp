// qzfs file and qzfs device-info: the named files a disk keeps beside its
// recordings, and the device info file among them. The images are mounted
// as the disks of group 0, as a recorder's disks: a name is unique within
// the group, and a new file goes to the disk the group records on.
#include "qzfs_cli.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace qzfs_tool {

namespace {

// Files move through the library a chunk at a time.
const size_t kChunk = 1 << 20;
// A name is kept in 14 bytes with its terminating zero.
const size_t kMaxNameLength = 13;
// Each block of a file keeps its first 4 KiB for its head; the data follow.
const unsigned long kFileBlockHead = 4096;

// A file name as the library takes it: zero-padded, with 14 bytes readable
// (a rename copies that many whatever the name's length).
struct FileName {
    char text[16] = {};
    explicit FileName(const std::string& name) { strncpy(text, name.c_str(), kMaxNameLength); }
};

bool check_name(const std::string& name, std::string& error)
{
    if (name.empty() || name.size() > kMaxNameLength) {
        error = "a file name takes 1 to 13 characters: '" + name + "'";
        return false;
    }
    return true;
}

// The size of the file of group 0 called `name`, or -1 when there is none.
long long file_size_of(const std::string& name)
{
    FileName n(name);
    return api_qzfs_get_normal_file_size(0, n.text);
}

// The blocks a file of `bytes` takes on a disk of `block_size`; an empty
// file has one all the same.
unsigned long long blocks_for(unsigned long long bytes, unsigned long block_size)
{
    const unsigned long long per_block = block_size - kFileBlockHead;
    return std::max(1ULL, (bytes + per_block - 1) / per_block);
}

// The size of an open stream when it is a regular file; -1 when it cannot
// be known ahead (a pipe or a terminal).
long long stream_size(FILE* stream)
{
    struct stat st;
    if (fstat(fileno(stream), &st) != 0 || !S_ISREG(st.st_mode))
        return -1;
    return (long long)st.st_size;
}

// The room a file has on a disk: its free blocks as the library shows them
// (less the reserve its group keeps for recordings), and the blocks of the
// copy the write replaces there.
struct Room {
    unsigned char hdd = 0;
    unsigned long block_size = 0;  // 0 when the disk could not tell
    unsigned long free = 0;
    unsigned long long reclaimed = 0;

    Room(unsigned char disk, long long replaced) : hdd(disk)
    {
        _qzfs_k4t_hdd_info_ info = {};
        if (api_qzfs_get_hdd_info(hdd, &info) != 0 || info.block_size <= kFileBlockHead)
            return;
        block_size = info.block_size;
        free = info.free_num;
        if (replaced >= 0)
            reclaimed = blocks_for((unsigned long long)replaced, block_size);
    }
    bool fits(unsigned long long bytes) const
    {
        return block_size == 0 || blocks_for(bytes, block_size) <= free + reclaimed;
    }
    // Why `bytes` do not fit.
    std::string lack(unsigned long long bytes) const
    {
        return std::to_string(bytes) + " bytes need " +
               std::to_string(blocks_for(bytes, block_size)) + " blocks of " +
               std::to_string(block_size >> 10) + " KiB and disk " + std::to_string(hdd) +
               " has " + std::to_string(free) + " free";
    }
};

// Lets new files go to any disk of group 0 with 50 MiB free, the least
// reserve the library accepts (its default of 500 MiB would keep small
// images from taking any), and gives the disk the group records on.
bool choose_disk_for_files(unsigned char& hdd)
{
    _qzfs_k4t_hdd_overwrite_config_ config = {};
    config.reserve_free_size_for_record = 0x3200000ULL;
    config.used_for_recording_free_size = config.reserve_free_size_for_record;
    config.start_delete_free_size = config.reserve_free_size_for_record;
    config.once_delete_size = config.reserve_free_size_for_record;
    hdd = 255;
    return api_qzfs_config_overwrite(0, &config) == 0 && api_qzfs_find_work_hdd(0, &hdd) == 0 &&
           hdd != 255;
}

// The names of group 0's files that contain `pattern`, sorted, each once.
bool search_names(const std::string& pattern, std::vector<std::string>& names)
{
    std::string copy = pattern;
    void* search = api_qzfs_get_search_normal_file_handle(0, &copy[0]);
    if (search == nullptr)
        return false;
    char name[32] = {};
    for (int step = 0; api_qzfs_get_normal_file_name(search, (unsigned char)step, name) == 1;
         step = 1) {
        names.emplace_back(name, strnlen(name, sizeof(name)));
        memset(name, 0, sizeof(name));
    }
    api_qzfs_release_search_normal_file_handle(search);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return true;
}

int file_ls(const std::vector<std::string>& rest)
{
    if (rest.size() > 1)
        return fail("file ls takes one PATTERN at most");
    const std::string pattern = rest.empty() ? "" : rest[0];
    std::vector<std::string> names;
    if (!search_names(pattern, names))
        return fail("cannot list the files of the group");
    print("%14s  %s\n", "bytes", "name");
    unsigned long long total = 0;
    for (const std::string& name : names) {
        const long long size = file_size_of(name);
        if (size < 0) {
            print("%14s  %s\n", "?", name.c_str());
            continue;
        }
        print("%14lld  %s\n", size, name.c_str());
        total += (unsigned long long)size;
    }
    print("%zu file%s, %llu bytes\n", names.size(), names.size() == 1 ? "" : "s", total);
    return 0;
}

int file_put(const std::string& name, const std::string* from, unsigned mounted)
{
    FILE* in = from != nullptr ? fopen(from->c_str(), "rb") : stdin;
    if (in == nullptr)
        return fail("cannot read %s", *from + ": " + strerror(errno));
    struct Closer {
        FILE* f;
        ~Closer()
        {
            if (f != stdin)
                fclose(f);
        }
    } closer{in};
    struct stat st;
    if (fstat(fileno(in), &st) == 0 && S_ISDIR(st.st_mode))
        return fail("cannot read %s: a directory", from != nullptr ? *from : "standard input");

    unsigned char hdd = 255;
    if (!choose_disk_for_files(hdd))
        return fail("no disk of the group has room for a file (more than 50 MiB free is needed)");
    // A file of that name on the only disk is freed before the new one
    // takes its blocks. A size known ahead is checked before anything is
    // written, one from a pipe as it comes.
    const long long old_size = file_size_of(name);
    const Room room(hdd, mounted == 1 ? old_size : -1);
    const long long size = stream_size(in);
    if (size >= 0 && !room.fits((unsigned long long)size))
        return fail("%s", name + " does not fit: " + room.lack((unsigned long long)size));

    FileName n(name);
    void* file = api_qzfs_open_normal_file(0, n.text, QZFS_NORMAL_FILE_CREATE);
    if (file == nullptr)
        return fail("cannot create %s", name + " on disk " + std::to_string(hdd));
    std::vector<char> chunk(kChunk);
    unsigned long long written = 0;
    bool ok = true;
    std::string why;
    for (;;) {
        const size_t got = fread(chunk.data(), 1, chunk.size(), in);
        if (got > 0 && !room.fits(written + got)) {
            ok = false;
            why = "it does not fit: " + room.lack(written + got);
            break;
        }
        if (got > 0) {
            if (api_qzfs_write_normal_file(file, chunk.data(), int(got)) != int(got)) {
                ok = false;
                why = "the disk is full or failing";
                break;
            }
            written += got;
        }
        if (got < chunk.size()) {
            if (ferror(in)) {
                ok = false;
                why = std::string("reading the input failed: ") + strerror(errno);
            }
            break;
        }
    }
    if (ok && api_qzfs_sync_normal_file(file) != 0) {
        ok = false;
        why = "its data could not be flushed";
    }
    api_qzfs_close_normal_file(file);
    if (!ok) {
        // Half a file is worse than none.
        api_qzfs_delete_normal_file(0, n.text);
        return fail("%s", "storing " + name + " failed after " + std::to_string(written) +
                              " bytes (" + why + "); it was removed");
    }
    print("stored %s: %llu bytes on disk %u\n", name.c_str(), written, hdd);
    return 0;
}

int file_get(const std::string& name, const std::string* to, FILE* out)
{
    const long long size = file_size_of(name);
    if (size < 0)
        return fail("there is no file %s (see file ls)", name);
    FileName n(name);
    void* file = api_qzfs_open_normal_file(0, n.text, QZFS_NORMAL_FILE_READ);
    if (file == nullptr)
        return fail("cannot open %s", name);
    if (to != nullptr) {
        out = fopen(to->c_str(), "wb");
        if (out == nullptr) {
            api_qzfs_close_normal_file(file);
            return fail("cannot write %s", *to + ": " + strerror(errno));
        }
    }
    std::vector<char> chunk(kChunk);
    unsigned long long copied = 0;
    bool ok = true;
    while (ok && copied < (unsigned long long)size) {
        const int want = int(std::min<unsigned long long>(chunk.size(), size - copied));
        const int got = api_qzfs_read_normal_file(file, chunk.data(), want);
        ok = got > 0 && fwrite(chunk.data(), 1, size_t(got), out) == size_t(got);
        copied += got > 0 ? (unsigned long long)got : 0;
    }
    api_qzfs_close_normal_file(file);
    ok = fflush(out) == 0 && ok;
    if (to != nullptr) {
        ok = fclose(out) == 0 && ok;
        if (!ok)
            unlink(to->c_str());
    }
    if (!ok)
        return fail("%s", "reading " + name + " failed after " + std::to_string(copied) + " of " +
                              std::to_string(size) + " bytes");
    if (to != nullptr)
        print("wrote %s to %s: %llu bytes\n", name.c_str(), to->c_str(), copied);
    return 0;
}

int file_rm(const std::string& name)
{
    if (file_size_of(name) < 0)
        return fail("there is no file %s (see file ls)", name);
    FileName n(name);
    if (api_qzfs_delete_normal_file(0, n.text) != 0)
        return fail("removing %s failed", name);
    print("removed %s\n", name.c_str());
    return 0;
}

int file_mv(const std::string& from, const std::string& to)
{
    if (file_size_of(from) < 0)
        return fail("there is no file %s (see file ls)", from);
    if (file_size_of(to) >= 0)
        return fail("%s exists already; remove it first", to);
    FileName old_name(from), new_name(to);
    if (api_qzfs_rename_normal_file(0, old_name.text, new_name.text) != 0)
        return fail("%s", "renaming " + from + " to " + to + " failed");
    print("renamed %s to %s\n", from.c_str(), to.c_str());
    return 0;
}

const char* const kFileActions[] = {"ls", "put", "get", "rm", "mv"};

bool is_file_action(const std::string& word)
{
    for (const char* action : kFileActions)
        if (word == action)
            return true;
    return false;
}

// The names an action takes: ls a pattern at most, put, get and rm one, mv
// two; checked before any image is mounted.
int check_file_request(const std::string& action, const Args& args,
                       const std::vector<std::string>& rest)
{
    std::string error;
    const bool put = action == "put", get = action == "get";
    if (!only_options(args, {put ? "--from" : get ? "--to" : ""}, error))
        return fail("%s", error);
    if (action == "ls")
        return 0;
    const size_t names = action == "mv" ? 2 : 1;
    if (rest.size() != names)
        return fail("%s", "file " + action + (names == 2 ? " takes OLD and NEW" : " takes one NAME"));
    for (const std::string& name : rest)
        if (!check_name(name, error))
            return fail("%s", error);
    return 0;
}

// The bytes of a file of the host.
bool read_host_file(const std::string& path, std::vector<char>& bytes, std::string& error)
{
    FILE* in = fopen(path.c_str(), "rb");
    if (in == nullptr) {
        error = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    std::vector<char> chunk(kChunk);
    size_t got = 0;
    while ((got = fread(chunk.data(), 1, chunk.size(), in)) > 0)
        bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + long(got));
    if (ferror(in) != 0)
        error = "cannot read " + path;
    fclose(in);
    return error.empty();
}

bool printable(const std::vector<char>& bytes)
{
    for (char c : bytes) {
        const unsigned char u = (unsigned char)c;
        if ((u < 0x20 || u > 0x7e) && u != '\n' && u != '\t' && u != '\r')
            return false;
    }
    return true;
}

// 16 bytes a line: offset, bytes in hex, and those that print.
void hex_dump(const std::vector<char>& bytes)
{
    for (size_t at = 0; at < bytes.size(); at += 16) {
        std::string hex, text;
        char cell[4];
        for (size_t i = at; i < at + 16; i++) {
            if (i < bytes.size()) {
                const unsigned char u = (unsigned char)bytes[i];
                snprintf(cell, sizeof(cell), "%02x ", u);
                hex += cell;
                text += u >= 0x20 && u <= 0x7e ? char(u) : '.';
            } else {
                hex += "   ";
            }
        }
        print("  %08zx  %s |%s|\n", at, hex.c_str(), text.c_str());
    }
}

int show_device_info(const std::string& path)
{
    if (mount_image(path) != 0)
        return 1;
    const int length = api_qzfs_get_device_info_len(TOOL_HDD_ID);
    std::vector<char> bytes(size_t(std::max(length, 0)) + 1);
    const int got = length > 0 ? api_qzfs_read_device_info(TOOL_HDD_ID, bytes.data(), length) : 0;
    api_qzfs_umount(TOOL_HDD_ID);
    if (length < 0) {
        print("%s: no device info\n", path.c_str());
        return 0;
    }
    if (got != length)
        return fail("%s", "reading the device info of " + path + " failed (" +
                              std::to_string(got) + " of " + std::to_string(length) + " bytes)");
    bytes.resize(size_t(length));
    if (printable(bytes)) {
        print("device info of %s: %d bytes of text\n", path.c_str(), length);
        fwrite(bytes.data(), 1, bytes.size(), tool_out());
        if (!bytes.empty() && bytes.back() != '\n')
            print("\n");
    } else {
        print("device info of %s: %d bytes\n", path.c_str(), length);
        hex_dump(bytes);
    }
    return 0;
}

int set_device_info(const std::string& path, const std::string& source)
{
    // The library takes the device info in one piece: its size is known,
    // and checked against the disk's room, before it is read.
    struct stat st;
    if (stat(source.c_str(), &st) != 0)
        return fail("cannot read %s", source + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode))
        return fail("cannot read %s: not a regular file", source);
    if ((unsigned long long)st.st_size > INT_MAX)
        return fail("%s is too big for device info (2 GiB at most)", source);
    if (mount_image(path) != 0)
        return 1;
    // The old device info goes before the new one is written.
    const Room room(TOOL_HDD_ID, api_qzfs_get_device_info_len(TOOL_HDD_ID));
    const std::string lack =
        room.fits((unsigned long long)st.st_size) ? "" : room.lack((unsigned long long)st.st_size);
    std::vector<char> bytes;
    std::string error;
    if (!lack.empty())
        error = "the device info does not fit: " + lack;
    else if (read_host_file(source, bytes, error) && bytes.size() > INT_MAX)
        error = source + " is too big for device info (2 GiB at most)";
    if (!error.empty()) {
        api_qzfs_umount(TOOL_HDD_ID);
        return fail("%s", error);
    }
    char none = 0;
    const int rc = api_qzfs_write_device_info(TOOL_HDD_ID, bytes.empty() ? &none : bytes.data(),
                                              int(bytes.size()));
    api_qzfs_umount(TOOL_HDD_ID);
    if (rc != 0)
        return fail("writing the device info of %s failed (the disk is full or failing)", path);
    print("device info of %s set: %zu bytes from %s\n", path.c_str(), bytes.size(),
           source.c_str());
    return 0;
}

} // namespace

int verb_file(const Args& args)
{
    const std::vector<std::string>& words = args.positional;
    size_t at = 0;
    while (at < words.size() && !is_file_action(words[at]))
        at++;
    if (at == words.size())
        return fail("file takes IMAGE... and then ls, put, get, rm or mv");
    if (at == 0)
        return fail("%s", "file " + words[0] + " needs the IMAGE... before it");
    const std::string& action = words[at];
    const std::vector<std::string> images(words.begin(), words.begin() + long(at));
    const std::vector<std::string> rest(words.begin() + long(at) + 1, words.end());
    if (check_file_request(action, args, rest) != 0)
        return 1;

    unsigned mounted = 0;
    int rc = 1;
    if (mount_group(images, mounted) == 0) {
        if (action == "ls")
            rc = file_ls(rest);
        else if (action == "put")
            rc = file_put(rest[0], args.option("--from"), mounted);
        else if (action == "get")
            rc = file_get(rest[0], args.option("--to"), tool_out());
        else if (action == "rm")
            rc = file_rm(rest[0]);
        else
            rc = file_mv(rest[0], rest[1]);
    }
    leave_group(mounted);
    return rc;
}

int verb_device_info(const Args& args)
{
    std::string error;
    if (!only_options(args, {"--set"}, error))
        return fail("%s", error);
    if (args.positional.size() != 1)
        return fail("device-info takes one IMAGE");
    const std::string* source = args.option("--set");
    return source != nullptr ? set_device_info(args.positional[0], *source)
                             : show_device_info(args.positional[0]);
}

} // namespace qzfs_tool
