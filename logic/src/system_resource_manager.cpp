#include "system_resource_manager.h"
#include "qzfilesystem_api.h"

#include <cstdlib>

// A cache vector's limits: a maximum of 0 cannot hold anything and ends the
// process; a step of 0 means 255; a step above the maximum is cut to it.
static void cache_limits(uint32_t size, uint32_t step, uint32_t& out_size, uint32_t& out_step)
{
    if (size == 0)
        exit(1);
    if (step == 0)
        step = 255;
    if (step > size)
        step = size;
    out_size = size;
    out_step = step;
}

CSystemResourceManager::CSystemResourceManager()
{
    cache_limits(gQzfsConfig.root_index_cache_size, gQzfsConfig.root_index_cache_step,
                 m_root_index_cache_size, m_root_index_cache_step);
    cache_limits(gQzfsConfig.ssi_cache_size, gQzfsConfig.ssi_cache_step, m_ssi_cache_size,
                 m_ssi_cache_step);
}

CSystemResourceManager::~CSystemResourceManager() {}

// The node caches hold nothing yet: index nodes are not cached before the
// index code exists, so there is nothing of a disk to drop.
int CSystemResourceManager::Free_resource(unsigned char hdd_id)
{
    (void)hdd_id;
    return 0;
}
