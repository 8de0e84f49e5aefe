// Turning a disk id or a stream descriptor (ossfd) into its disk and open
// record, as every flat stream call does first.
#ifndef QZFS_API_FD_H
#define QZFS_API_FD_H

#include "opened_stream_segment.h"

#include <cstdint>
#include <vector>

class CQzFileSystem;

// The mounted disk `hdd_id`, or null after "gQzfsManager.get_file_system
// failed(hdd_id:%d)" in the name of `func`.
CQzFileSystem* api_disk(unsigned hdd_id, const char* func);
// The same, refusing also a disk being formatted ("Formatting(hdd_id:%d)").
CQzFileSystem* api_usable_disk(unsigned hdd_id, const char* func);

// The mounted disks of the groups whose bits `group_mask` sets, lowest
// hdd_id first.
std::vector<CQzFileSystem*> api_disks_of_groups(uint32_t group_mask);

// A descriptor resolved to its disk and open record.
struct resolved_fd {
    int disk_ossid = -1;
    CQzFileSystem* fs = nullptr;
    _opened_stream_segment_* oss = nullptr;
};

// ossfd -> disk ossid -> disk -> open record. `func` names the caller in
// the messages. The record is looked up without the disk lock: the caller
// owns the descriptor.
bool resolve_fd(int ossfd, const char* func, resolved_fd& out);
// The same for a call that only a writer may make.
bool resolve_writer_fd(int ossfd, const char* func, resolved_fd& out);

#endif
