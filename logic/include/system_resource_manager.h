// CSystemResourceManager: the global node caches shared by all disks
// (pgSystemResourceManager). Built by api_qzfs_init from the cache sizes of
// gQzfsConfig.
#ifndef SYSTEM_RESOURCE_MANAGER_H
#define SYSTEM_RESOURCE_MANAGER_H

#include <cstdint>

class CSystemResourceManager {
public:
    CSystemResourceManager();
    ~CSystemResourceManager();

    // Drops every cached node of one disk (at unmount).
    int Free_resource(unsigned char hdd_id);

    uint32_t root_index_cache_size() const { return m_root_index_cache_size; }
    uint32_t root_index_cache_step() const { return m_root_index_cache_step; }
    uint32_t ssi_cache_size() const { return m_ssi_cache_size; }
    uint32_t ssi_cache_step() const { return m_ssi_cache_step; }

private:
    uint32_t m_root_index_cache_size;
    uint32_t m_root_index_cache_step;
    uint32_t m_ssi_cache_size;
    uint32_t m_ssi_cache_step;
};

#endif
