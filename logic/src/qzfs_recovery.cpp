// Mount-time repair steps that are not built: the key info recoveries, the
// roll-back of the action journal (segment deletion arms and clears it),
// the repair of segments left open by a power cut, and the orphan count.
// The repairs that are built live elsewhere: the backup key table's in
// qzfs_key_info_block.cpp, the root index check in qzfs_root_index_check.cpp.
#include "qzfilesystem.h"
#include "qzfs_log.h"

// Not built yet: a table that fails to load makes the mount fail.
int CQzFileSystem::fast_recovery_key_info() { return -1; }

// Not built yet; nothing enters it (scan recovery is never allowed).
int CQzFileSystem::scan_recovery_key_info() { return -1; }

// The journal roll-back and the repair of unfinished segments are not built
// yet; mount only gathers the disk's range of recorded days from its roots,
// which the choice of the recording disk needs.
int CQzFileSystem::Power_down_recovery()
{
    if (Update_hdd_record_date(1, 0, 0, 0) != 0)
        QZLOG("Update_hdd_record_date failed");
    return 0;
}

// The orphan count is not built: the list of data blocks that no segment
// owns any more (left by a power cut or a deletion cut short) is only
// emptied, so such blocks stay allocated and uncounted.
int CQzFileSystem::get_disk_invalid_data_block_num()
{
    m_manage.invalid_block_list.clear();
    return 0;
}
