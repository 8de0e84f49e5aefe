// power_cut: an emulated disk that can lose its power.
//
// Installed before a disk is mounted, it stands under every I/O handle the
// library opens from then on and passes reads and writes through to the
// image file. It counts the device writes of the whole process (all
// handles, all threads) and, in a cutting mode, ends the process at once at
// the Nth one, as a power failure would: no unmount, no destructor, no
// flush. Only stdout is flushed, so that the process's own messages survive.
//
// The header needs nothing of the library's internals: the host tool, which
// is written against the public interface alone, links it too.
#ifndef QZFS_POWER_CUT_H
#define QZFS_POWER_CUT_H

#include <cstdint>
#include <vector>

namespace power_cut {

enum class Mode {
    Observe,  // count writes, and the writes and bytes that changed the image
    Drop,     // the cut write never reaches the image
    Torn,     // a prefix of whole sectors of the cut write reaches it
    Overlay   // no write reaches the image: the written sectors are kept in
              // memory and reads see them (a read-only look at what the
              // library would make of the disk); never cuts
};

// What happened at the cut; handed to the callback just before the exit.
struct CutReport {
    unsigned long long write_number = 0;  // the write that was cut (1 = the first)
    unsigned long long write_offset = 0;  // its device byte offset
    unsigned long write_length = 0;       // its length in bytes
    unsigned long kept_bytes = 0;         // bytes of it that reached the image
    // Reordering: writes since the last barrier, and those dropped besides
    // the cut one (with the sectors that went back to an older content).
    unsigned long pending_writes = 0;
    unsigned long dropped_writes = 0;
    unsigned long reverted_sectors = 0;
};

struct Settings {
    Mode mode = Mode::Observe;
    // The write that cuts the power (1 = the first of the process); 0 never.
    unsigned long long cut_at = 0;
    // At the cut, also drop a random part of the writes issued since the last
    // device sync, as a disk that reorders its cache would.
    bool reorder = false;
    uint64_t seed = 1;
    int exit_code = 86;
    // Called at the cut, before stdout is flushed and the process ends.
    void (*on_cut)(const CutReport& report) = nullptr;
    // Called for every device write before it is made (or cut), with its
    // number, device byte offset and length; under the device's lock, so it
    // must not do I/O through the library.
    void (*on_write)(unsigned long long number, unsigned long long offset,
                     unsigned long length) = nullptr;
};

// Counts since install(); thread safe.
struct Counts {
    unsigned long long writes = 0;
    unsigned long long bytes = 0;
    unsigned long long changed_writes = 0;  // Observe and Overlay modes only
    unsigned long long changed_bytes = 0;   // Observe and Overlay modes only
    unsigned long long syncs = 0;
};

// Makes the I/O handles opened from now on use the emulated device, with
// the counts set to zero (and, in Overlay mode, no sector kept). Settings
// can be installed again at any time.
void install(const Settings& settings);
// Handles opened from now on use the device itself again.
void uninstall();
Counts counts();

// Lays the sectors that Overlay mode keeps for the device `device` (the path
// the library opened) over `data`, `length` bytes read from it at `offset`,
// so that a reader of the file sees what the library's reads see. Does
// nothing when none is kept.
void overlay_patch(const char* device, unsigned long long offset, void* data,
                   unsigned long length);

// The device byte offsets of the sectors of `device` that Overlay mode keeps
// with a content other than the file's, in order.
std::vector<unsigned long long> overlay_changed_sectors(const char* device);

// Device writes the cut leaves of a write of `length` bytes at `offset`, in
// Torn mode, for a seeded draw `draw`: a prefix ending on a sector boundary,
// at least one sector, never all of it; 0 when it covers one sector or less.
unsigned long torn_prefix(unsigned long long offset, unsigned long length, uint64_t draw);

} // namespace power_cut

#endif
