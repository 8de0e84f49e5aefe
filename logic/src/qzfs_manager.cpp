#include "qzfs_manager.h"
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <utility>

extern "C" QZFS_API CQzfsManager gQzfsManager;
CQzfsManager gQzfsManager;

unsigned long qzfs_disk_bit(unsigned char hdd_id)
{
    return hdd_id < 32 ? (1UL << hdd_id) : 0;
}

unsigned char QzfsVectorFunc(CQzFileSystem*& from, CQzFileSystem*& to, unsigned char op)
{
    switch (op) {
    case RVFSVO_INIT:
        from = nullptr;
        return 1;
    case RVFSVO_UNINIT:
    case RVFSVO_FREE:
        delete from;  // the destructor closes the disk
        from = nullptr;
        return 1;
    case RVFSVO_COPY:
        to = from;
        return 1;
    case RVFSVO_IS_FREE:
        return from == nullptr ? 1 : 0;
    default:
        QZFS_FATAL("QzfsVectorFunc NOT support operator(operator:%d)", op);
    }
}

CQzfsManager::CQzfsManager()
    : m_InitFlag(0),
      m_Qzfs_vector(QzfsVectorFunc, (unsigned char)QZFS_MAX_DISKS,
                    (unsigned char)QZFS_DISK_VECTOR_STEP, QZFS_NO_HDD, "CQzfsManager::m_Qzfs_vector")
{
    m_manager_lock = qzfs_create_lock();
    m_registry_lock = qzfs_create_rw_lock();
    m_ossid_lock = qzfs_create_lock();
    for (int& value : m_ossid_table)
        value = -1;
}

CQzfsManager::~CQzfsManager()
{
    free_all_file_systems();
    for (auto& group : m_disk_group_map)
        if (group.second.group_lock != nullptr)
            qzfs_destroy_lock(group.second.group_lock);
    m_disk_group_map.clear();
    qzfs_destroy_lock(m_manager_lock);
    qzfs_destroy_rw_lock(m_registry_lock);
    qzfs_destroy_lock(m_ossid_lock);
    m_manager_lock = m_registry_lock = m_ossid_lock = nullptr;
}

// The disk vector grows 8 slots at a time up to its maximum; an index at or
// beyond the maximum ends the process.
CQzFileSystem*& CQzfsManager::slot(unsigned char hdd_id)
{
    return m_Qzfs_vector[hdd_id];
}

// Every disk object goes (operator 1) and the vector starts again from
// nothing.
void CQzfsManager::free_all_file_systems()
{
    DiskRegistryWriteGuard registry;
    std::lock_guard<std::mutex> table(m_disk_table_lock);
    m_Qzfs_vector.clear();
}

void CQzfsManager::manager_lock()
{
    if (gQzfsConfig.global_lock_enabled == 1)
        qzfs_lock(m_manager_lock);
}

void CQzfsManager::manager_unlock()
{
    if (gQzfsConfig.global_lock_enabled == 1)
        qzfs_unlock(m_manager_lock);
}

// ------------------------------------------------------------ disk registry

namespace {
// What this thread holds of the disk registry: shared scopes and whether
// it holds it exclusively.
thread_local int t_registry_shared = 0;
thread_local bool t_registry_exclusive = false;
}  // namespace

DiskRegistryReadGuard::DiskRegistryReadGuard()
    : taken_(!t_registry_exclusive && t_registry_shared == 0 &&
             gQzfsManager.m_registry_lock != nullptr)
{
    if (taken_)
        qzfs_read_lock(gQzfsManager.m_registry_lock);
    t_registry_shared++;
}

DiskRegistryReadGuard::~DiskRegistryReadGuard()
{
    t_registry_shared--;
    if (taken_)
        qzfs_rw_unlock(gQzfsManager.m_registry_lock);
}

DiskRegistryWriteGuard::DiskRegistryWriteGuard()
    : taken_(!t_registry_exclusive && gQzfsManager.m_registry_lock != nullptr)
{
    if (!taken_)
        return;
    if (t_registry_shared != 0)
        QZFS_FATAL("the disk registry is taken exclusively inside a shared hold");
    qzfs_write_lock(gQzfsManager.m_registry_lock);
    t_registry_exclusive = true;
}

DiskRegistryWriteGuard::~DiskRegistryWriteGuard()
{
    if (!taken_)
        return;
    t_registry_exclusive = false;
    qzfs_rw_unlock(gQzfsManager.m_registry_lock);
}

CQzFileSystem* CQzfsManager::register_qzfilesystem(unsigned char hdd_id)
{
    DiskRegistryWriteGuard registry;
    std::lock_guard<std::mutex> table(m_disk_table_lock);
    if (m_InitFlag != K4T_FS_TRUE) {
        QZLOG("CQzfsManager::register_qzfilesystem (m_InitFlag != K4T_FS_TRUE) (HddId:%d)", hdd_id);
        return nullptr;
    }
    CQzFileSystem*& fs = slot(hdd_id);
    if (fs != nullptr) {
        QZLOG("CQzfsManager::register_qzfilesystem The Hdd is regisetered(HddId:%d)", hdd_id);
        return nullptr;
    }
    fs = new (std::nothrow) CQzFileSystem();
    if (fs == nullptr)
        QZFS_FATAL("CQzfsManager::register_qzfilesystem out of memory");
    return fs;
}

int CQzfsManager::unregiseter_qzfilesystem(unsigned char hdd_id)
{
    DiskRegistryWriteGuard registry;
    CQzFileSystem* gone = nullptr;
    {
        std::lock_guard<std::mutex> table(m_disk_table_lock);
        if (hdd_id < m_Qzfs_vector.size())
            std::swap(gone, m_Qzfs_vector.m_data[hdd_id]);
    }
    // Destroyed outside the table lock: its destructor closes the device.
    QzfsVectorFunc(gone, gone, RVFSVO_FREE);
    return 1;
}

CQzFileSystem* CQzfsManager::get_file_system(unsigned char hdd_id)
{
    if (m_InitFlag != K4T_FS_TRUE || hdd_id == QZFS_NO_HDD)
        return nullptr;
    DiskRegistryReadGuard registry;
    std::lock_guard<std::mutex> table(m_disk_table_lock);
    return slot(hdd_id);
}

unsigned int CQzfsManager::disk_slots()
{
    std::lock_guard<std::mutex> table(m_disk_table_lock);
    return m_Qzfs_vector.size();
}

int CQzfsManager::Find_group_id(unsigned char hdd_id)
{
    unsigned long bit = qzfs_disk_bit(hdd_id);
    ManagerLockGuard manager(*this);
    for (auto& group : m_disk_group_map)
        if (group.second.valid_disk_bitmap & bit)
            return group.first;
    return -1;
}

unsigned long CQzfsManager::disks_of_groups(uint32_t group_bitmap)
{
    unsigned long disks = 0;
    ManagerLockGuard manager(*this);
    for (auto& group : m_disk_group_map)
        if (group.first < 32 && ((group_bitmap >> group.first) & 1u) != 0)
            disks |= group.second.valid_disk_bitmap;
    return disks;
}

_disk_group_attr_* CQzfsManager::find_group(unsigned char group)
{
    auto it = m_disk_group_map.find(group);
    return it == m_disk_group_map.end() ? nullptr : &it->second;
}

int CQzfsManager::Get_free_query_stream_segment_handle()
{
    int handle = 1;
    for (auto& entry : m_query_handle_map) {
        if (entry.first > handle)
            break;
        if (entry.first == handle)
            handle++;
    }
    if (handle > QZFS_MAX_QUERY_HANDLE) {
        QZLOG_ABOVE(1, "failed");
        return -1;
    }
    return handle;
}

int CQzfsManager::apply_and_set_ossid(int disk_fd)
{
    QzfsScopedLock table(m_ossid_lock);
    for (int i = 1; i < QZFS_OSSID_TABLE_SIZE; i++) {
        if (m_ossid_table[i] == -1) {
            m_ossid_table[i] = disk_fd;
            return i;
        }
    }
    return -1;
}

static bool ossid_slot_valid(int slot) { return slot >= 1 && slot < QZFS_OSSID_TABLE_SIZE; }

int CQzfsManager::free_ossid(int slot)
{
    if (!ossid_slot_valid(slot))
        return -1;
    // Under the table lock: a concurrent allocation scans every slot.
    QzfsScopedLock table(m_ossid_lock);
    m_ossid_table[slot] = -1;
    return 0;
}

int CQzfsManager::get_disk_ossid(int slot)
{
    if (!ossid_slot_valid(slot))
        return -1;
    // Every access goes under the table lock: an allocation on another
    // thread scans all the slots while this one's owner moves it.
    QzfsScopedLock table(m_ossid_lock);
    return m_ossid_table[slot];
}

int CQzfsManager::modify_disk_ossid(int slot, int value)
{
    if (!ossid_slot_valid(slot))
        return -1;
    QzfsScopedLock table(m_ossid_lock);
    m_ossid_table[slot] = value;
    return 0;
}

int qzfs_judge_hdd_open_normal_file(unsigned char hdd_id)
{
    for (auto& group : gQzfsManager.m_disk_group_map)
        for (void* handle : group.second.open_normal_file_list)
            if (static_cast<_qzfs_normal_file_describe_*>(handle)->hdd_id == hdd_id) {
                QZLOG_ABOVE(0, "%s is open!", static_cast<_qzfs_normal_file_describe_*>(handle)->name);
                return 1;
            }
    return 0;
}

int have_open_file(unsigned char hdd_id)
{
    CQzFileSystem* fs = gQzfsManager.get_file_system(hdd_id);
    if (fs != nullptr && !fs->open_stream_segment_is_empty())
        return 1;
    return qzfs_judge_hdd_open_normal_file(hdd_id);
}
