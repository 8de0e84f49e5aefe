// power_cut: the emulated device. Writes go straight to the image file (a
// cut process leaves exactly what reached it), under one lock for the whole
// process so that write numbers are unambiguous across handles and threads.
#include "power_cut.h"

#include "qzfs_device.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace power_cut {

namespace {

const unsigned long long kSector = QZFS_SECTOR_SIZE;

// The content of one sector as it stood before the first write since the
// last barrier, and after each of those writes.
struct SectorHistory {
    std::vector<uint8_t> before;
    std::vector<std::pair<unsigned long long, std::vector<uint8_t>>> after;  // write number, bytes
};

// Sectors written since the last barrier, by device name and sector number.
using PendingSectors = std::map<std::pair<std::string, unsigned long long>, SectorHistory>;

// Overlay mode: the written parts of each device, kept in pages of 64 KiB
// (a key info block copy writes megabytes at once), by device name, then
// page number. A device's name is stored once, and a lookup by a C string
// makes no copy.
const unsigned long long kPage = 0x10000;
using Page = std::array<uint8_t, kPage>;
using DevicePages = std::map<unsigned long long, Page>;
using KeptPages = std::map<std::string, DevicePages, std::less<>>;

struct State {
    std::mutex lock;
    Settings settings;
    Counts counts;
    PendingSectors pending;
    KeptPages kept;
};

State& state()
{
    static State* s = new State();  // never destroyed: a cut process ends without destructors
    return *s;
}

uint64_t mix(uint64_t x)
{
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

// Reads up to `length` bytes at `where`; what lies past the end reads as
// zero. The count that lies inside the file.
unsigned long read_fill(int fd, unsigned long long where, uint8_t* out, unsigned long length)
{
    memset(out, 0, length);
    long long got = (long long)pread(fd, out, length, (off_t)where);
    return got > 0 ? (unsigned long)got : 0;
}

// Before a write in reorder mode: keeps each touched sector's content from
// before the first write since the barrier.
void remember_before(qzfs_dev_info* dev, unsigned long long where, unsigned long length)
{
    State& s = state();
    for (unsigned long long sector = where / kSector; sector * kSector < where + length; sector++) {
        SectorHistory& h = s.pending[{dev->dev_name, sector}];
        if (h.before.empty()) {
            h.before.resize(kSector);
            read_fill(dev->fd, sector * kSector, h.before.data(), kSector);
        }
    }
}

// After a write in reorder mode: the content it left in each touched sector.
void remember_after(qzfs_dev_info* dev, unsigned long long where, unsigned long length,
                    unsigned long long number)
{
    State& s = state();
    for (unsigned long long sector = where / kSector; sector * kSector < where + length; sector++) {
        std::vector<uint8_t> now(kSector);
        read_fill(dev->fd, sector * kSector, now.data(), kSector);
        s.pending[{dev->dev_name, sector}].after.emplace_back(number, std::move(now));
    }
}

// Counts the bytes of `data` that differ from what the image holds there.
unsigned long changed_bytes(qzfs_dev_info* dev, unsigned long long where, const void* data,
                            unsigned long length)
{
    std::vector<uint8_t> old(length);
    read_fill(dev->fd, where, old.data(), length);
    const uint8_t* in = static_cast<const uint8_t*>(data);
    unsigned long changed = 0;
    for (unsigned long i = 0; i < length; i++)
        changed += old[i] != in[i];
    return changed;
}

// Whether the disk lost write `number` of those since the last barrier: a
// seeded half of them, on average.
bool lost_in_reorder(unsigned long long number)
{
    return (mix(state().settings.seed ^ mix(number)) & 1) != 0;
}

// Gives every pending sector the content of the last write to it that the
// disk kept, or its content from before the barrier when it kept none.
void revert_lost_writes(CutReport& report)
{
    State& s = state();
    std::set<unsigned long long> pending, lost;
    std::map<std::string, int> fds;
    for (auto& entry : s.pending) {
        const SectorHistory& h = entry.second;
        const std::vector<uint8_t>* keep = &h.before;
        bool last_lost = false;
        for (const auto& step : h.after) {
            pending.insert(step.first);
            last_lost = lost_in_reorder(step.first);
            if (last_lost)
                lost.insert(step.first);
            else
                keep = &step.second;
        }
        if (!last_lost)
            continue;
        int& fd = fds[entry.first.first];
        if (fd == 0)
            fd = open(entry.first.first.c_str(), O_RDWR);
        const unsigned long long at = entry.first.second * kSector;
        std::vector<uint8_t> scratch(kSector);
        const unsigned long inside = fd > 0 ? read_fill(fd, at, scratch.data(), kSector) : 0;
        if (inside > 0 && pwrite(fd, keep->data(), inside, (off_t)at) == (ssize_t)inside)
            report.reverted_sectors++;
    }
    for (auto& f : fds)
        if (f.second > 0)
            close(f.second);
    report.pending_writes = (unsigned long)pending.size();
    report.dropped_writes = (unsigned long)lost.size();
}

// Lays the kept pages of `device` over `length` bytes read at `where`.
void patch_kept(const char* device, unsigned long long where, uint8_t* data,
                unsigned long length)
{
    const KeptPages& kept = state().kept;
    const auto on_device = kept.find(device);
    if (on_device == kept.end() || length == 0)
        return;
    const unsigned long long end = where + length;
    const DevicePages& pages = on_device->second;
    for (auto it = pages.lower_bound(where / kPage); it != pages.end() && it->first * kPage < end;
         ++it) {
        const unsigned long long start = it->first * kPage;
        const unsigned long long from = start > where ? start : where;
        const unsigned long long to = start + kPage < end ? start + kPage : end;
        memcpy(data + (from - where), it->second.data() + (from - start), to - from);
    }
}

// Overlay mode: the write goes into the kept pages only, each taken from the
// file (or the kept copy) before it is patched.
long long keep_write(qzfs_dev_info* dev, unsigned long long where, const void* data,
                     unsigned long length)
{
    DevicePages& pages = state().kept[dev->dev_name];
    const uint8_t* in = static_cast<const uint8_t*>(data);
    const unsigned long long end = where + length;
    unsigned long changed = 0;
    auto it = pages.lower_bound(where / kPage);
    for (unsigned long long page = where / kPage; page * kPage < end; page++, ++it) {
        const unsigned long long start = page * kPage;
        if (it == pages.end() || it->first != page) {
            it = pages.emplace_hint(it, page, Page());
            read_fill(dev->fd, start, it->second.data(), kPage);
        }
        const unsigned long long from = start > where ? start : where;
        const unsigned long long to = start + kPage < end ? start + kPage : end;
        uint8_t* kept = it->second.data() + (from - start);
        const uint8_t* fresh = in + (from - where);
        const size_t count = size_t(to - from);
        if (memcmp(kept, fresh, count) == 0)
            continue;
        for (size_t i = 0; i < count; i++)
            changed += kept[i] != fresh[i];
        memcpy(kept, fresh, count);
    }
    State& s = state();
    s.counts.changed_writes += changed > 0;
    s.counts.changed_bytes += changed;
    return (long long)length;
}

[[noreturn]] void cut(qzfs_dev_info* dev, unsigned long long where, const void* data,
                      unsigned long length, unsigned long long number)
{
    State& s = state();
    CutReport report;
    report.write_number = number;
    report.write_offset = where;
    report.write_length = length;
    if (s.settings.mode == Mode::Torn) {
        report.kept_bytes = torn_prefix(where, length, mix(s.settings.seed ^ mix(number)));
        if (report.kept_bytes > 0 &&
            pwrite(dev->fd, data, report.kept_bytes, (off_t)where) != (ssize_t)report.kept_bytes)
            report.kept_bytes = 0;
    }
    if (s.settings.reorder)
        revert_lost_writes(report);
    if (s.settings.on_cut != nullptr)
        s.settings.on_cut(report);
    fflush(stdout);
    _exit(s.settings.exit_code);
}

long long cut_device_write(qzfs_dev_info* dev, unsigned long long where, const void* data,
                           unsigned long length)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    const unsigned long long number = ++s.counts.writes;
    s.counts.bytes += length;
    if (s.settings.on_write != nullptr)
        s.settings.on_write(number, where, length);
    if (s.settings.mode == Mode::Overlay)
        return keep_write(dev, where, data, length);
    if (s.settings.mode != Mode::Observe && number == s.settings.cut_at)
        cut(dev, where, data, length, number);
    if (s.settings.mode == Mode::Observe) {
        const unsigned long changed = changed_bytes(dev, where, data, length);
        s.counts.changed_writes += changed > 0;
        s.counts.changed_bytes += changed;
    }
    if (s.settings.reorder)
        remember_before(dev, where, length);
    const long long done = (long long)pwrite(dev->fd, data, length, (off_t)where);
    if (s.settings.reorder && done > 0)
        remember_after(dev, where, (unsigned long)done, number);
    return done;
}

long long cut_device_read(qzfs_dev_info* dev, unsigned long long where, void* data,
                          unsigned long length)
{
    const long long done = (long long)pread(dev->fd, data, length, (off_t)where);
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    if (done > 0)
        patch_kept(dev->dev_name, where, static_cast<uint8_t*>(data), (unsigned long)done);
    return done;
}

// A flush of the whole device: every write before it has reached the disk.
int cut_device_sync(qzfs_dev_info* dev)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    s.counts.syncs++;
    s.pending.clear();
    return s.settings.mode == Mode::Overlay ? 0 : fsync(dev->fd);
}

// A flush of a range: the sectors inside it have reached the disk.
int cut_device_sync_range(qzfs_dev_info* dev, unsigned long long where, unsigned long length)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    s.counts.syncs++;
    const unsigned long long end = where + qzfs_fsync_map_length(length);
    for (unsigned long long sector = where / kSector; sector * kSector < end; sector++)
        s.pending.erase({dev->dev_name, sector});
    return 0;
}

const qzfs_block_device_ops kCutDeviceOps = {cut_device_write, cut_device_read, cut_device_sync,
                                             cut_device_sync_range};

} // namespace

unsigned long torn_prefix(unsigned long long offset, unsigned long length, uint64_t draw)
{
    const unsigned long long first = offset / kSector;
    const unsigned long long end = offset + length;
    const unsigned long long sectors = (end + kSector - 1) / kSector - first;
    if (sectors <= 1)
        return 0;
    const unsigned long long keep = 1 + draw % (sectors - 1);
    return (unsigned long)((first + keep) * kSector - offset);
}

void install(const Settings& settings)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    s.settings = settings;
    s.counts = Counts();
    s.pending.clear();
    s.kept.clear();
    qzfs_block_device_ops_for_new_handles = &kCutDeviceOps;
}

void uninstall() { qzfs_block_device_ops_for_new_handles = nullptr; }

Counts counts()
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    return s.counts;
}

void overlay_patch(const char* device, unsigned long long offset, void* data,
                   unsigned long length)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    // The device keeps its name cut to 127 characters.
    patch_kept(std::string(device).substr(0, sizeof(qzfs_dev_info::dev_name) - 1).c_str(),
               offset, static_cast<uint8_t*>(data), length);
}

std::vector<unsigned long long> overlay_changed_sectors(const char* device)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    const std::string name = std::string(device).substr(0, sizeof(qzfs_dev_info::dev_name) - 1);
    std::vector<unsigned long long> out;
    const int fd = open(name.c_str(), O_RDONLY);
    if (fd < 0)
        return out;
    Page file;
    const auto on_device = s.kept.find(name);
    if (on_device != s.kept.end())
        for (const auto& kept : on_device->second) {
            read_fill(fd, kept.first * kPage, file.data(), kPage);
            for (unsigned long long at = 0; at < kPage; at += kSector)
                if (memcmp(file.data() + at, kept.second.data() + at, kSector) != 0)
                    out.push_back(kept.first * kPage + at);
        }
    close(fd);
    return out;
}

} // namespace power_cut
