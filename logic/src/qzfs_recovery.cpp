// Mount-time repair steps. The key info recoveries, the root index check,
// the action journal and the orphan count arrive with the root index and
// journal code; until then a disk carries no index for them to look at.
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

// No data blocks exist before recording is built.
int CQzFileSystem::get_disk_invalid_data_block_num()
{
    m_manage.invalid_block_list.clear();
    return 0;
}
