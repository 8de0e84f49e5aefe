// Mount-time repair steps. The key info recoveries, the root index check,
// the action journal and the orphan count arrive with the root index and
// journal code; until then a disk carries no index for them to look at.
#include "qzfilesystem.h"
#include "qzfs_log.h"

// Not built yet: a table that fails to load makes the mount fail.
int CQzFileSystem::fast_recovery_key_info() { return -1; }

// Not built yet; nothing enters it (scan recovery is never allowed).
int CQzFileSystem::scan_recovery_key_info() { return -1; }

// No journal records exist before delete and split are built.
int CQzFileSystem::Power_down_recovery() { return 0; }

// No data blocks exist before recording is built.
int CQzFileSystem::get_disk_invalid_data_block_num()
{
    m_manage.invalid_block_list.clear();
    return 0;
}
