// CQzfsApi lifecycle: configuration defaults, caches, init and teardown.
#include "qzfilesystem.h"
#include "qzfs_api.h"
#include "qzfs_device.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
#include "system_resource_manager.h"

#include <cstring>
#include <new>

CQzfsApi::CQzfsApi()
{
    memset(&gQzfsConfig, 0, sizeof(gQzfsConfig));
    gQzfsConfig.root_index_cache_size = 0xAAAA;  // 1 MiB of 24-byte entries
    gQzfsConfig.root_index_cache_step = 0xAAAA;
    gQzfsConfig.ssi_cache_size = 0x26666;        // 6 MiB of 40-byte entries
    gQzfsConfig.ssi_cache_step = 0x26666;
    gQzfsConfig.config_byte_16 = 30;
    gQzfsConfig.simple_index_mode = 1;
    gQzfsConfig.config_byte_18 = 2;
    gQzfsConfig.config_byte_19 = 2;
    gQzfsConfig.global_lock_enabled = 1;
    pgSystemResourceManager = new (std::nothrow) CSystemResourceManager();
    if (pgSystemResourceManager == nullptr)
        QZFS_FATAL("CQzfsApi::CQzfsApi out of memory");
}

CQzfsApi::~CQzfsApi() { Qzfs_uninit(); }

int CQzfsApi::Qzfs_init()
{
    ManagerLockGuard manager(gQzfsManager);
    gQzfsManager.m_InitFlag = K4T_FS_TRUE;
    if (pgSystemResourceManager == nullptr) {
        pgSystemResourceManager = new (std::nothrow) CSystemResourceManager();
        if (pgSystemResourceManager == nullptr)
            QZFS_FATAL("CQzfsApi::Qzfs_init out of memory");
    }
    return 0;
}

// Tears everything down without looking at open descriptors.
int CQzfsApi::Qzfs_uninit()
{
    DiskRegistryWriteGuard registry;  // taken before the manager lock
    ManagerLockGuard manager(gQzfsManager);
    // Named files left open: their sizes are on the disks already (each
    // write stores its file's end), so only the handles go.
    for (auto& group : gQzfsManager.m_disk_group_map) {
        for (void* open : group.second.open_normal_file_list) {
            _qzfs_normal_file_describe_* handle = static_cast<_qzfs_normal_file_describe_*>(open);
            if (handle->io_handle != nullptr)
                qzfs_destroy_io_interface(handle->io_handle);
            delete handle;
        }
        group.second.open_normal_file_list.clear();
    }
    gQzfsManager.free_all_file_systems();
    gQzfsManager.m_InitFlag = 0;
    delete pgSystemResourceManager;
    pgSystemResourceManager = nullptr;
    return 0;
}

int CQzfsApi::Qzfs_debug_level(unsigned long level)
{
    g_qzfs_debug_level = (uint32_t)level;
    if (level != 0)
        QZLOG("set qzfs debug level:%lu", level);
    return 0;
}

int CQzfsApi::Qzfs_get_last_error() { return g_error_no; }
