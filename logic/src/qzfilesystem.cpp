// Life of one disk object: construction, format, mount, teardown, and the
// block-addressed transfers every other member goes through.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>

CQzFileSystem::CQzFileSystem()
    : m_pIo_interface(nullptr), m_file_system_io_buffer(nullptr), m_file_system_io_buffer_len(0),
      m_state(QZFSS_IDEL), m_manage(), m_hdd_id(0), bare_dev(1), m_last_sync_second(0)
{
    m_manage.disk_endian = (_fs_endian_)1;
    m_manage.disk_lock_handle = qzfs_create_lock();
    QZLOG_ABOVE(0, "Quo Zeng File System Library Version:%s %s", __DATE__, __TIME__);
}

CQzFileSystem::~CQzFileSystem() { Qzfilesystem_uninit(); }

void CQzFileSystem::Qzfilesystem_uninit()
{
    if (m_pIo_interface != nullptr) {
        qzfs_destroy_io_interface(m_pIo_interface);
        m_pIo_interface = nullptr;
    }
    free(m_file_system_io_buffer);
    m_file_system_io_buffer = nullptr;
    m_file_system_io_buffer_len = 0;
    free(m_manage.block_bitmap);
    m_manage.block_bitmap = nullptr;
    m_manage.block_bitmap_len = 0;
    m_hdd_id = 0;
    m_manage.root_index_block_map.clear();
    m_manage.normal_file_cache.clear();
    if (m_manage.disk_lock_handle != nullptr) {
        qzfs_destroy_lock(m_manage.disk_lock_handle);
        m_manage.disk_lock_handle = nullptr;
    }
    release_open_segments();
    QZLOG_ABOVE(0, "*********uninit qzfs*******");
    m_state = QZFSS_IDEL;
}

int CQzFileSystem::disk_lock(unsigned char lock)
{
    if (lock == 1)
        return qzfs_lock(m_manage.disk_lock_handle);
    return qzfs_unlock(m_manage.disk_lock_handle);
}

int CQzFileSystem::Create_file_system_io_channel()
{
    m_file_system_io_buffer_len = QZFS_IO_UNIT;
    free(m_file_system_io_buffer);
    m_file_system_io_buffer = static_cast<unsigned char*>(malloc(m_file_system_io_buffer_len));
    if (m_file_system_io_buffer == nullptr)
        QZFS_FATAL("CQzFileSystem::Create_file_system_io_channel out of "
                   "memory(m_file_system_io_buffer_len:%ld)",
                   (long)m_file_system_io_buffer_len);
    return 0;
}

int CQzFileSystem::Seek_and_write_in_block(void* io, unsigned long block, unsigned long offset,
                                           unsigned char* data, int length)
{
    if (qzfs_seek(io, block, offset) != 0) {
        QZLOG("seek failed(BlockNum:%ld)(BlockOffset:%ld)", (long)block, (long)offset);
        return -2;
    }
    // A disk reached through a partition is read-only outside a format.
    if (bare_dev == 0 && m_state != QZFSS_FORMATING)
        return length;
    int written = qzfs_write(io, data, length);
    if (written != length) {
        QZLOG("write failed (BlockNum:%ld)(BlockOffset:%ld)(want:%d)(fact:%d)", (long)block,
              (long)offset, length, written);
        modify_block_type(block, QZFS_BLOCK_BAD, QZFS_WHERE_ALL);
    }
    return written;
}

// A short read clears the caller's whole buffer and rewrites the unread
// stretch with zeros, so that a failing spot is either mended or marked bad.
int CQzFileSystem::Seek_and_read_in_block(void* io, unsigned long block, unsigned long offset,
                                          unsigned char* data, int length)
{
    if (qzfs_seek(io, block, offset) != 0) {
        QZLOG("seek failed(BlockNum:%ld)(BlockOffset:%ld)", (long)block, (long)offset);
        return -2;
    }
    int got = qzfs_read(io, data, length);
    if (got < length) {
        QZLOG("read failed (BlockNum:%ld)(BlockOffset:%ld)(want:%d)(fact:%d)", (long)block,
              (long)offset, length, got);
        if (got < 0)
            got = 0;
        memset(data, 0, length);
        Seek_and_write_in_block(io, block, offset + got, data, length - got);
    }
    return got;
}

int CQzFileSystem::Format(char* dev, char* label, unsigned char bare)
{
    if (m_state != QZFSS_IDEL) {
        QZLOG_ABOVE(1, "Format failed(NOT QZFSS_IDEL)");
        return -1;
    }
    m_state = QZFSS_FORMATING;
    bare_dev = bare;
    m_dev_path = dev != nullptr ? dev : "";

    m_pIo_interface = qzfs_create_io_interface(dev, bare);
    if (m_pIo_interface == nullptr) {
        QZLOG("create %s io interface failed!", dev != nullptr ? dev : "(null)");
        return -1;
    }
    Create_file_system_io_channel();

    // Through a partition the shell stays: only the block table is renewed.
    if (bare == 0 && get_disk_manage_info_by_key_info_block(0) == 0) {
        QZLOG_ABOVE(0, "is my fs,so clear key info!");
        if (clear_key_info_data() != 0) {
            QZLOG("clear key info data failed!");
            return -1;
        }
        return qzfs_sync(m_pIo_interface);
    }
    QZLOG_ABOVE(0, "not my fs or need full format!");
    if (format_key_info_block(dev, label) != 0) {
        QZLOG("format_key_info_block failed!");
        return -1;
    }
    if (get_disk_manage_info_by_key_info_block(0) != 0) {
        QZLOG("get_disk_manage_info_by_key_info_block failed!");
        return -1;
    }
    return qzfs_sync(m_pIo_interface);
}

// Mount order: device and geometry, key info (with backup repair), root
// index check, power-down recovery, orphan data blocks.
int CQzFileSystem::Mount(unsigned char hdd_id, char* dev)
{
    m_hdd_id = hdd_id;
    const char* name = dev != nullptr ? dev : "(null)";
    if (m_state != QZFSS_IDEL) {
        QZLOG("Mount failed(NOT QZFSS_IDEL)");
    } else {
        m_state = QZFSS_MOUNTING;
        bare_dev = 1;
        m_dev_path = dev != nullptr ? dev : "";
        m_pIo_interface = qzfs_create_io_interface(dev, 1);
        if (m_pIo_interface == nullptr) {
            QZLOG("create %s io interface failed!", name);
        } else {
            Create_file_system_io_channel();
            QZLOG_ABOVE(0, "start read disk key info!");
            if (get_disk_manage_info_by_key_info_block(0) != 0) {
                QZLOG("get disk manage info failed");
            } else {
                QZLOG_ABOVE(0, "start power down recovery!");
                if (Power_down_recovery() != 0) {
                    QZLOG("Mount Power_down_recovery failed");
                } else {
                    get_disk_invalid_data_block_num();
                    m_state = QZFSS_MOUNTED;
                    QZLOG_ABOVE(2, "CQzFileSystem::Mount OK!!!!!!!!!!!!!");
                    return 0;
                }
            }
        }
    }
    QZLOG("mount failed(hdd_id:%d)!!!!!!!!!!!!!", hdd_id);
    return -1;
}

int CQzFileSystem::Mount_by_partition(unsigned char hdd_id, int count, char** devs)
{
    m_hdd_id = hdd_id;
    if (count >= 2) {
        QZLOG("not support multi partition");
    } else if (count < 1 || devs == nullptr || devs[0] == nullptr) {
        QZLOG("dev name is null");
    } else if (m_state != QZFSS_IDEL) {
        QZLOG("Mount failed(NOT QZFSS_IDEL)");
    } else {
        m_state = QZFSS_MOUNTING;
        bare_dev = 0;
        m_dev_path = devs[0];
        m_pIo_interface = qzfs_create_io_interface(devs[0], 0);
        if (m_pIo_interface == nullptr) {
            QZLOG("create %s io interface failed!", devs[0]);
        } else {
            Create_file_system_io_channel();
            QZLOG_ABOVE(0, "start read disk key info!");
            if (get_disk_manage_info_by_key_info_block(0) != 0) {
                QZLOG("get disk manage info failed");
            } else if (Power_down_recovery() != 0) {
                QZLOG("Mount Power_down_recovery failed");
            } else {
                m_state = QZFSS_MOUNTED;
                return 0;
            }
        }
    }
    QZLOG("mount failed(hdd_id:%d)!!!!!!!!!!!!!", hdd_id);
    return -1;
}

int CQzFileSystem::Get_hdd_info(_qzfs_k4t_hdd_info_* info)
{
    info->block_size = m_manage.block_size;
    info->total_num = m_manage.total_block;
    info->free_num = m_manage.free_block;
    QZLOG_ABOVE(3, "invalid block num:%d", (int)m_manage.invalid_block_list.size());
    return 0;
}

// Writes a 0x55/0xAA pattern over one whole block, reads it back and frees
// the block again.
int CQzFileSystem::Test_hdd(unsigned long)
{
    _qzfs_block_info_ info;
    memset(&info, 0, sizeof(info));
    info.block_type = QZFS_BLOCK_TEST;
    unsigned long block = 0;
    if (Request_free_block(1, &block, &info, 0) != 0) {
        QZLOG("request free block FAILED");
        return -1;
    }
    QZLOG_ABOVE(0, "test %s, block:%lu", m_dev_path.c_str(), block);

    unsigned char* pattern = static_cast<unsigned char*>(malloc(QZFS_IO_UNIT));
    if (pattern == nullptr)
        QZFS_FATAL("CQzFileSystem::Test_hdd out of memory");
    for (unsigned long i = 0; i < QZFS_IO_UNIT; i++)
        pattern[i] = (i & 1) ? 0xAA : 0x55;

    int result = 0;
    for (unsigned long at = 0; at < m_manage.block_size && result == 0; at += QZFS_IO_UNIT) {
        if (Seek_and_write_in_block(m_pIo_interface, block, at, pattern, QZFS_IO_UNIT) !=
            (int)QZFS_IO_UNIT) {
            QZLOG("Seek_and_write_in_block FAILED");
            result = -1;
        }
    }
    for (unsigned long at = 0; at < m_manage.block_size && result == 0; at += QZFS_IO_UNIT) {
        if (Seek_and_read_in_block(m_pIo_interface, block, at, m_file_system_io_buffer,
                                   QZFS_IO_UNIT) != (int)QZFS_IO_UNIT) {
            QZLOG("Seek_and_write_in_block FAILED");
            result = -1;
        } else if (memcmp(pattern, m_file_system_io_buffer, QZFS_IO_UNIT) != 0) {
            QZLOG("memcmp FAILED");
            result = -1;
        }
    }
    free(pattern);
    if (Free_one_block(block, 0) != 0)
        result = -1;
    return result;
}

// Lays the MBR and FAT32 shell anew. Only system blocks are written: the key
// info block and every recorded block stay as they are.
int CQzFileSystem::rebuild_rely(char* dev)
{
    QZLOG("start rebuild %s system!", dev != nullptr ? dev : "(null)");
    unsigned long block_size = 0, total = 0;
    std::list<unsigned long> system;
    if (qzfs_format(dev, 0, block_size, total, system) != 0) {
        QZLOG("qzfs format failed!");
        return -1;
    }
    QZLOG("end rebuild %s system(block size:%lu,total block:%lu,system use block:%d)!", dev,
          block_size, total, (int)system.size());
    return 0;
}

int CQzFileSystem::count_blocks_by_type(unsigned long counts[11])
{
    std::list<_block_info_node_> nodes;
    for (unsigned char type = 0; type <= QZFS_BLOCK_TEST; type++) {
        if (get_block_list_by_type(type, nodes) != 0)
            return -1;
        counts[type] = (unsigned long)nodes.size();
    }
    return 0;
}
