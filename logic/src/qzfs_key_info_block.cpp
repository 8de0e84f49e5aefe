// The key info block: header and block table of a disk, its backup, and the
// record writes through which every allocation, free and type change goes.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>
#include <functional>

static unsigned long table_record_offset(unsigned long block)
{
    return (block + QZFS_KEY_TABLE_FIRST_SLOT) * sizeof(_qzfs_block_info_);
}

static uint32_t read_u32(const unsigned char* p)
{
    uint32_t value;
    memcpy(&value, p, sizeof(value));
    return value;
}

void qzfs_block_info_seal(_qzfs_block_info_* info)
{
    info->check_num = (uint32_t)qzfs_chksum_crc32(info, QZFS_BLOCK_INFO_CRC_LEN);
}

bool qzfs_block_info_is_sound(const _qzfs_block_info_* info)
{
    return info->check_num == (uint32_t)qzfs_chksum_crc32(info, QZFS_BLOCK_INFO_CRC_LEN);
}

int CQzFileSystem::judge_block_in_list(std::list<unsigned long>& list, unsigned long block)
{
    for (unsigned long b : list)
        if (b == block)
            return 1;
    return 0;
}

// Keeps a block list ascending, as init_key_info_block walks it once.
static void insert_sorted(std::list<unsigned long>& list, unsigned long block)
{
    auto it = list.begin();
    while (it != list.end() && *it < block)
        ++it;
    if (it == list.end() || *it != block)
        list.insert(it, block);
}

// ------------------------------------------------------------ single records

int CQzFileSystem::read_block_info_from_block(unsigned long block, _qzfs_block_info_* info)
{
    int n = Seek_and_read_in_block(m_pIo_interface, block, 0, (unsigned char*)info, sizeof(*info));
    return n == (int)sizeof(*info) ? 0 : -1;
}

int CQzFileSystem::read_block_info_from_key_block(unsigned long key_block, unsigned long block,
                                                  _qzfs_block_info_* info)
{
    int n = Seek_and_read_in_block(m_pIo_interface, key_block, table_record_offset(block),
                                   (unsigned char*)info, sizeof(*info));
    return n == (int)sizeof(*info) ? 0 : -1;
}

int CQzFileSystem::write_block_info_to_key_block(unsigned long key_block, unsigned long block,
                                                 _qzfs_block_info_* info)
{
    qzfs_block_info_seal(info);
    int n = Seek_and_write_in_block(m_pIo_interface, key_block, table_record_offset(block),
                                    (unsigned char*)info, sizeof(*info));
    return n == (int)sizeof(*info) ? 0 : -1;
}

// Writes a sealed record to the places `where` names: bit 0 the tables of
// the primary and (when distinct) the backup, bit 1 the block's own head.
int CQzFileSystem::write_record_to_places(unsigned long key_block, unsigned long bak_block,
                                          unsigned long block, _qzfs_block_info_* record,
                                          char where, const char* key_fail, const char* bak_fail)
{
    if (where & QZFS_WHERE_KEY_TABLES) {
        if (write_block_info_to_key_block(key_block, block, record) != 0) {
            QZLOG("%s", key_fail);
            return -1;
        }
        if (bak_block != key_block && bak_block != 0 &&
            write_block_info_to_key_block(bak_block, block, record) != 0) {
            QZLOG("%s", bak_fail);
            return -1;
        }
    }
    if (where & QZFS_WHERE_BLOCK_HEAD) {
        int n = Seek_and_write_in_block(m_pIo_interface, block, 0, (unsigned char*)record,
                                        sizeof(*record));
        if (n != (int)sizeof(*record)) {
            QZLOG("write failed!\n!");
            return -1;
        }
    }
    return 0;
}

int CQzFileSystem::modify_block_info(unsigned long key_block, unsigned long bak_block,
                                     unsigned long block, _qzfs_block_info_* info, char where)
{
    _qzfs_block_info_ old;
    if (read_block_info_from_key_block(key_block, block, &old) != 0)
        return -1;
    uint32_t want = (uint32_t)qzfs_chksum_crc32(&old, QZFS_BLOCK_INFO_CRC_LEN);
    if (old.check_num != want) {
        QZLOG("block(%lu) check is error(%lu != %lu)", block, (unsigned long)old.check_num,
              (unsigned long)want);
        return -1;
    }
    if (memcmp(&old, info, QZFS_BLOCK_INFO_CRC_LEN) == 0)
        return 0;
    if (old.block_type == QZFS_BLOCK_SYSTEM) {
        QZLOG("system block(%lu)", block);
        return -1;
    }
    if (old.block_type == QZFS_BLOCK_KEY_INFO) {
        QZLOG("key info block(%lu)", block);
        return -1;
    }
    _qzfs_block_info_ record = old;
    if (info->block_type == QZFS_BLOCK_BAD || info->block_type < QZFS_BLOCK_SYSTEM)
        record.block_type = info->block_type;
    else
        record = *info;
    qzfs_block_info_seal(&record);
    return write_record_to_places(key_block, bak_block, block, &record, where, "write failed!\n!",
                                  "write failed!\n!");
}

int CQzFileSystem::modify_block_type(unsigned long block, unsigned short type, char where)
{
    if (m_manage.key_block == 0 || m_manage.bak_key_block == 0) {
        QZLOG("key block is invalid!");
        return -1;
    }
    // A key info block that goes bad hands its role to the other copy.
    if (type == QZFS_BLOCK_BAD && block == m_manage.key_block) {
        if (m_manage.bak_key_block == m_manage.key_block) {
            QZLOG("key block and bak key block error,need system restart!");
            return -1;
        }
        QZLOG_ABOVE(0, "key block error,so use bak key block!");
        m_manage.key_block = m_manage.bak_key_block;
    }
    if (type == QZFS_BLOCK_BAD && block == m_manage.bak_key_block)
        m_manage.bak_key_block = m_manage.key_block;

    _qzfs_block_info_ record;
    if (read_block_info_from_key_block(m_manage.key_block, block, &record) != 0) {
        if (type != QZFS_BLOCK_FREE && type != QZFS_BLOCK_BAD) {
            QZLOG("read failed!\n!");
            return -1;
        }
        memset(&record, 0, sizeof(record));
    }
    if (record.block_type == QZFS_BLOCK_SYSTEM) {
        QZLOG("system block");
        return -1;
    }
    if (record.block_type == type)
        return 0;
    if (record.block_type == QZFS_BLOCK_FREE)
        set_block_bit(block);
    record.block_type = (uint8_t)type;
    qzfs_block_info_seal(&record);
    return write_record_to_places(m_manage.key_block, m_manage.bak_key_block, block, &record,
                                  where, "write key failed!\n!", "write bak key failed!\n!");
}

void CQzFileSystem::reclaim_block(unsigned long block, unsigned short type)
{
    if (block != 0 && block < m_manage.total_block && !block_bit_is_set(block))
        modify_block_type(block, type, QZFS_WHERE_ALL);
}

int CQzFileSystem::mark_block_head(unsigned long block, unsigned short type)
{
    _qzfs_block_info_ record;
    if (read_block_info_from_key_block(m_manage.key_block, block, &record) != 0)
        return -1;
    record.block_type = (uint8_t)type;
    qzfs_block_info_seal(&record);
    return write_record_to_places(m_manage.key_block, m_manage.bak_key_block, block, &record,
                                  QZFS_WHERE_BLOCK_HEAD, "", "");
}

int CQzFileSystem::modify_block_attr(unsigned long block, void* attr, char where)
{
    _qzfs_block_info_ record;
    if (read_block_info_from_key_block(m_manage.key_block, block, &record) != 0)
        return -1;
    if (record.block_type == QZFS_BLOCK_SYSTEM) {
        QZLOG("system block");
        return -1;
    }
    if (record.block_type == QZFS_BLOCK_KEY_INFO) {
        QZLOG("key info block");
        return -1;
    }
    memcpy(record.attr, attr, sizeof(record.attr));
    qzfs_block_info_seal(&record);
    return write_record_to_places(m_manage.key_block, m_manage.bak_key_block, block, &record,
                                  where, "write failed!\n!", "write failed!\n!");
}

// ------------------------------------------------------------ whole blocks

int CQzFileSystem::check_key_info_block_header(unsigned char* p)
{
    if (p[4] != QZFS_BLOCK_KEY_INFO) {
        QZLOG_ABOVE(1, "block type is invalid(%u)!", (unsigned)p[4]);
        return -1;
    }
    unsigned long own_crc = qzfs_chksum_crc32(p, QZFS_BLOCK_INFO_CRC_LEN);
    if (own_crc != read_u32(p + QZFS_BLOCK_INFO_CRC_LEN)) {
        QZLOG_ABOVE(1, "block info check num is error(%lu != %lu)!", own_crc,
                    (unsigned long)read_u32(p + QZFS_BLOCK_INFO_CRC_LEN));
        return -1;
    }
    const unsigned char* header = p + QZFS_KEY_HEADER_OFFSET;
    const unsigned char* version = header + offsetof(_qzfs_key_header_, version);
    if (memcmp(version, QZFS_VERSION_MAGIC, 4) != 0) {
        char text[33];
        memcpy(text, version, 32);
        text[32] = '\0';
        QZLOG_ABOVE(1, "qzfs version is invalid(%s)!", text);
        return -1;
    }
    if (qzfs_chksum_crc32(header, QZFS_KEY_HEADER_CRC_LEN) !=
        read_u32(header + QZFS_KEY_HEADER_CRC_LEN)) {
        QZLOG_ABOVE(1, "check num is error!");
        return -1;
    }
    return 0;
}

int CQzFileSystem::find_key_info_block(unsigned long start, unsigned long& found)
{
    for (int attempt = 0; attempt < QZFS_KEY_BLOCK_TRIES; attempt++) {
        found = start + (unsigned long)attempt * QZFS_KEY_BLOCK_STEP;
        int n = Seek_and_read_in_block(m_pIo_interface, found, 0, m_file_system_io_buffer,
                                       (int)m_file_system_io_buffer_len);
        if (n == -2) {
            QZLOG_ABOVE(1, "have not key info block!");
            return -1;
        }
        if (n == (int)m_file_system_io_buffer_len &&
            check_key_info_block_header(m_file_system_io_buffer) == 0)
            return 0;
        QZLOG_ABOVE(2, "read len is error or check failed(%lu)(read len:%d)!", found, n);
    }
    QZLOG_ABOVE(1, "find key info block timeout!");
    return -1;
}

// Writes one whole key info block: its own record, the header and a fresh
// table in which system beats bad beats key place beats free.
int CQzFileSystem::init_key_info_block(_qzfs_block_info_* info, _qzfs_key_header_* header,
                                       unsigned long key_block, std::list<unsigned long>& bad,
                                       std::list<unsigned long>& system)
{
    const unsigned long record_size = sizeof(_qzfs_block_info_);
    const unsigned long total = m_manage.total_block;
    auto next_bad = bad.begin();
    auto next_system = system.begin();
    unsigned long slot = 0;

    for (unsigned long piece = 0; piece < m_manage.block_size; piece += m_file_system_io_buffer_len) {
        unsigned long piece_len = m_manage.block_size - piece;
        if (piece_len > m_file_system_io_buffer_len)
            piece_len = m_file_system_io_buffer_len;
        unsigned char* buf = m_file_system_io_buffer;
        memset(buf, 0, m_file_system_io_buffer_len);
        unsigned long first = 0;
        if (piece == 0) {
            memcpy(buf, info, record_size);
            memcpy(buf + QZFS_KEY_HEADER_OFFSET, header, sizeof(*header));
            first = QZFS_KEY_TABLE_OFFSET;
        }
        for (unsigned long at = first; at + record_size <= piece_len; at += record_size, slot++) {
            _qzfs_block_info_ record;
            memset(&record, 0, sizeof(record));
            if (slot < total) {
                record.block_type = QZFS_BLOCK_FREE;
                unsigned long distance = slot > key_block ? slot - key_block : key_block - slot;
                if (distance % QZFS_KEY_BLOCK_STEP == 0)
                    record.block_type = QZFS_BLOCK_KEY_INFO;
                while (next_bad != bad.end() && *next_bad < slot)
                    ++next_bad;
                if (next_bad != bad.end() && *next_bad == slot) {
                    record.block_type = QZFS_BLOCK_BAD;
                    ++next_bad;
                }
                while (next_system != system.end() && *next_system < slot)
                    ++next_system;
                if (next_system != system.end() && *next_system == slot) {
                    record.block_type = QZFS_BLOCK_SYSTEM;
                    ++next_system;
                }
            }
            qzfs_block_info_seal(&record);
            memcpy(buf + at, &record, record_size);
        }
        int n = Seek_and_write_in_block(m_pIo_interface, key_block, piece, buf, (int)piece_len);
        if (n != (int)piece_len) {
            QZLOG("write failed!\n!");
            return -1;
        }
    }
    return 0;
}

int CQzFileSystem::write_key_info_bak_block(unsigned long key_block, unsigned long bak_block,
                                            unsigned long length)
{
    for (unsigned long piece = 0; piece < length; piece += m_file_system_io_buffer_len) {
        unsigned long piece_len = length - piece;
        if (piece_len > m_file_system_io_buffer_len)
            piece_len = m_file_system_io_buffer_len;
        int n = Seek_and_read_in_block(m_pIo_interface, key_block, piece, m_file_system_io_buffer,
                                       (int)piece_len);
        if (n != (int)piece_len)
            return -1;
        if (key_block == bak_block)
            continue;
        n = Seek_and_write_in_block(m_pIo_interface, bak_block, piece, m_file_system_io_buffer,
                                    (int)piece_len);
        if (n != (int)piece_len)
            return -1;
    }
    return 0;
}

int CQzFileSystem::check_bak_key_info_block(unsigned long key_block, unsigned long bak_block,
                                            unsigned long length)
{
    unsigned char* primary = static_cast<unsigned char*>(malloc(QZFS_IO_UNIT));
    unsigned char* backup = static_cast<unsigned char*>(malloc(QZFS_IO_UNIT));
    if (primary == nullptr || backup == nullptr)
        QZFS_FATAL("check_bak_key_info_block out of memory(%lu)", QZFS_IO_UNIT);
    int result = 0;
    for (unsigned long piece = 0; piece < length && result == 0; piece += QZFS_IO_UNIT) {
        unsigned long piece_len = length - piece < QZFS_IO_UNIT ? length - piece : QZFS_IO_UNIT;
        if (Seek_and_read_in_block(m_pIo_interface, key_block, piece, primary, (int)piece_len) !=
                (int)piece_len ||
            Seek_and_read_in_block(m_pIo_interface, bak_block, piece, backup, (int)piece_len) !=
                (int)piece_len) {
            result = -1;
        } else if (memcmp(primary, backup, piece_len) != 0) {
            QZLOG("check fialed(%lu)!", bak_block);
            result = -1;
        }
    }
    free(primary);
    free(backup);
    return result;
}

// Walks the block table of `key_block` from block 0 up to `total`, one I/O
// unit at a time, handing each record to `visit`. A failed read, or a visit
// that returns non-zero, ends the walk with -1.
static int walk_key_table(CQzFileSystem* fs, unsigned char* buf, unsigned long buf_len,
                          unsigned long key_block, unsigned long block_size, unsigned long total,
                          const std::function<int(unsigned long, const _qzfs_block_info_&)>& visit)
{
    const unsigned long record_size = sizeof(_qzfs_block_info_);
    unsigned long block = 0;
    for (unsigned long piece = 0; piece < block_size && block < total; piece += buf_len) {
        unsigned long piece_len = block_size - piece < buf_len ? block_size - piece : buf_len;
        if (fs->Seek_and_read_in_block(fs->io_interface(), key_block, piece, buf, (int)piece_len) !=
            (int)piece_len)
            return -1;
        unsigned long first = piece == 0 ? QZFS_KEY_TABLE_OFFSET : 0;
        for (unsigned long at = first; at + record_size <= piece_len && block < total;
             at += record_size, block++) {
            _qzfs_block_info_ record;
            memcpy(&record, buf + at, record_size);
            if (visit(block, record) != 0)
                return -1;
        }
    }
    return 0;
}

int CQzFileSystem::get_block_list_by_type(unsigned char type, std::list<_block_info_node_>& out)
{
    std::list<_block_info_node_> none;  // a second type equal to the first gets nothing
    return get_block_lists_by_type(type, out, type, none);
}

int CQzFileSystem::get_block_lists_by_type(unsigned char type_a, std::list<_block_info_node_>& out_a,
                                           unsigned char type_b, std::list<_block_info_node_>& out_b)
{
    out_a.clear();
    out_b.clear();
    unsigned long key_block = m_manage.key_block;
    if (key_block == 0) {
        QZLOG("key block is invalid!");
        return -1;
    }
    unsigned char* buf = m_file_system_io_buffer;
    if (Seek_and_read_in_block(m_pIo_interface, key_block, 0, buf, (int)m_file_system_io_buffer_len) !=
        (int)m_file_system_io_buffer_len) {
        QZLOG("read %lu block data failed!", key_block);
        return -1;
    }
    if (check_key_info_block_header(buf) != 0) {
        QZLOG("check key info block header failed(%lu)!", key_block);
        return -1;
    }
    _qzfs_key_header_ header;
    memcpy(&header, buf + QZFS_KEY_HEADER_OFFSET, sizeof(header));
    int result = walk_key_table(this, buf, m_file_system_io_buffer_len, key_block,
                                header.block_size, header.total_block,
                                [&](unsigned long block, const _qzfs_block_info_& record) {
                                    if (!qzfs_block_info_is_sound(&record))
                                        return 0;
                                    const _block_info_node_ node = {(uint32_t)block, record};
                                    if (record.block_type == type_a)
                                        out_a.push_back(node);
                                    else if (record.block_type == type_b)
                                        out_b.push_back(node);
                                    return 0;
                                });
    if (result != 0) {
        out_a.clear();
        out_b.clear();
    }
    return result;
}

// -------------------------------------------------------------- format

// Writes the primary at the first usable key place from `first_key` on, then
// a backup at a later place. Places that fail join the bad list.
int CQzFileSystem::write_key_block_pair(_qzfs_block_info_* own, _qzfs_key_header_* header,
                                        unsigned long first_key, std::list<unsigned long>& bad,
                                        std::list<unsigned long>& system)
{
    const unsigned long total = m_manage.total_block;
    unsigned long key = first_key;
    for (; key < total; key += QZFS_KEY_BLOCK_STEP) {
        if (judge_block_in_list(system, key) || judge_block_in_list(bad, key))
            continue;
        if (init_key_info_block(own, header, key, bad, system) == 0)
            break;
        QZLOG("init key block failed(%lu)!", key);
        insert_sorted(bad, key);
    }
    if (key >= total) {
        QZLOG("write key block failed!");
        return -1;
    }
    unsigned long bak = key + QZFS_KEY_BLOCK_STEP;
    for (; bak < total; bak += QZFS_KEY_BLOCK_STEP) {
        if (write_key_info_bak_block(key, bak, m_manage.block_size) == 0)
            break;
        QZLOG("write key bak block failed(%lu)!", bak);
        insert_sorted(bad, key);
    }
    // A disk with no room for a backup place passes without one.
    if (bak > total) {
        QZLOG("write key bak block failed!");
        return -1;
    }
    return 0;
}

int CQzFileSystem::format_key_info_block(char* dev, char* label)
{
    QZLOG_ABOVE(2, "start format %s system!", dev);
    std::list<unsigned long> system;
    std::list<unsigned long> bad;
    unsigned long block_size = 0, total = 0, key_block = 0;
    if (qzfs_format(dev, 0, block_size, total, system) != 0) {
        QZLOG("qzfs format failed!");
        return -1;
    }
    if (qzfs_get_block_info(m_pIo_interface, block_size, key_block) != 0) {
        QZLOG("get key block num failed!");
        return -1;
    }
    m_manage.block_size = block_size;
    m_manage.total_block = total;

    _qzfs_block_info_ own;
    memset(&own, 0, sizeof(own));
    own.block_type = QZFS_BLOCK_KEY_INFO;
    qzfs_block_info_seal(&own);

    _qzfs_key_header_ header;
    memset(&header, 0, sizeof(header));
    if (label != nullptr) {
        strncpy(header.label, label, sizeof(header.label) - 1);
    }
    memcpy(header.version, QZFS_VERSION_TEXT, strlen(QZFS_VERSION_TEXT));
    header.block_size = (uint32_t)block_size;
    header.total_block = (uint32_t)total;
    header.check_num = (uint32_t)qzfs_chksum_crc32(&header, QZFS_KEY_HEADER_CRC_LEN);

    return write_key_block_pair(&own, &header, key_block, bad, system);
}

int CQzFileSystem::clear_key_info_data()
{
    std::list<_block_info_node_> nodes;
    std::list<unsigned long> system, bad;
    if (get_block_list_by_type(QZFS_BLOCK_SYSTEM, nodes) != 0) {
        QZLOG("get system block list failed!");
        return -1;
    }
    for (const _block_info_node_& node : nodes)
        system.push_back(node.block);
    if (get_block_list_by_type(QZFS_BLOCK_BAD, nodes) != 0) {
        QZLOG("get bad block list failed!");
        return -1;
    }
    for (const _block_info_node_& node : nodes)
        bad.push_back(node.block);

    unsigned char* buf = m_file_system_io_buffer;
    if (Seek_and_read_in_block(m_pIo_interface, m_manage.key_block, 0, buf,
                               (int)m_file_system_io_buffer_len) != (int)m_file_system_io_buffer_len) {
        QZLOG("read key block failed!");
        return -1;
    }
    _qzfs_block_info_ own;
    _qzfs_key_header_ header;
    memcpy(&own, buf, sizeof(own));
    memcpy(&header, buf + QZFS_KEY_HEADER_OFFSET, sizeof(header));
    return write_key_block_pair(&own, &header, m_manage.key_block, bad, system);
}

// ------------------------------------------------------------------ load

int CQzFileSystem::load_disk_manage_info_by_key_info_block(unsigned long key_block)
{
    unsigned char* buf = m_file_system_io_buffer;
    if (Seek_and_read_in_block(m_pIo_interface, key_block, 0, buf, (int)m_file_system_io_buffer_len) !=
            (int)m_file_system_io_buffer_len ||
        check_key_info_block_header(buf) != 0)
        return -1;
    _qzfs_key_header_ header;
    memcpy(&header, buf + QZFS_KEY_HEADER_OFFSET, sizeof(header));

    // The header must describe the device the table lives on.
    unsigned long device_block_size = 0, first_key = 0;
    qzfs_get_block_info(m_pIo_interface, device_block_size, first_key);
    unsigned long capacity = (header.block_size - QZFS_KEY_TABLE_OFFSET) / sizeof(_qzfs_block_info_);
    if (header.block_size != device_block_size || header.total_block == 0 ||
        header.total_block > capacity) {
        QZLOG("key info block header is inconsistent(block size:%lu, total block:%lu)!",
              (unsigned long)header.block_size, (unsigned long)header.total_block);
        return -1;
    }

    m_manage.block_size = header.block_size;
    m_manage.total_block = header.total_block;
    m_manage.disk_endian = gLocal_endian;
    m_manage.block_bitmap_len = (m_manage.total_block + 7) >> 3;
    free(m_manage.block_bitmap);
    m_manage.block_bitmap = static_cast<unsigned char*>(calloc(m_manage.block_bitmap_len, 1));
    if (m_manage.block_bitmap == nullptr)
        QZFS_FATAL("new bitmap out of memory(%lu)", m_manage.block_bitmap_len);
    m_manage.block_owner_stamp = 0;
    m_manage.next_free_block = 0;
    m_manage.root_index_block_map.clear();
    m_manage.normal_file_cache.clear();

    unsigned long root_index_blocks = 0;
    int result = walk_key_table(
        this, buf, m_file_system_io_buffer_len, key_block, m_manage.block_size,
        m_manage.total_block, [&](unsigned long block, const _qzfs_block_info_& record) {
            uint32_t want = (uint32_t)qzfs_chksum_crc32(&record, QZFS_BLOCK_INFO_CRC_LEN);
            if (record.check_num != want) {
                QZLOG_ABOVE(1, "block %lu check num is error(%lu != %lu)!", block,
                            (unsigned long)record.check_num, (unsigned long)want);
                return -1;
            }
            if (record.block_type == QZFS_BLOCK_FREE || record.block_type == QZFS_BLOCK_TEST) {
                if (m_manage.next_free_block == 0)
                    m_manage.next_free_block = block;
                return 0;
            }
            set_block_bit(block);
            if (record.block_type == QZFS_BLOCK_ROOT_INDEX) {
                m_manage.root_index_block_map[(unsigned short)root_index_blocks] = block;
                QZLOG_ABOVE(0, "root index block:%lu(%lu)", block, root_index_blocks);
                root_index_blocks++;
            } else if (record.block_type == QZFS_BLOCK_NORMAL_FILE) {
                char name[sizeof(record.attr) + 1];
                memcpy(name, record.attr, sizeof(record.attr));
                name[sizeof(record.attr)] = '\0';
                Add_block_to_normal_file(name, record.block_index, block);
            }
            if (record.owner_stamp > m_manage.block_owner_stamp)
                m_manage.block_owner_stamp = record.owner_stamp;
            return 0;
        });
    if (result != 0)
        return -1;
    m_manage.block_owner_stamp += 1;
    init_normal_file_cache();
    return 0;
}

// Copies the primary to the first key place (other than the primary) that
// its table marks as a key place. The lower of the two becomes the primary.
int CQzFileSystem::repair_bak_key_block(unsigned long first_key)
{
    for (unsigned long b = first_key; b < m_manage.total_block; b += QZFS_KEY_BLOCK_STEP) {
        if (b == m_manage.key_block)
            continue;
        _qzfs_block_info_ record;
        if (read_block_info_from_key_block(m_manage.key_block, b, &record) != 0 ||
            !qzfs_block_info_is_sound(&record) || record.block_type != QZFS_BLOCK_KEY_INFO)
            continue;
        if (write_key_info_bak_block(m_manage.key_block, b, m_manage.block_size) != 0)
            continue;
        if (m_key_repair.level == QZFS_KEY_REPAIR_NONE)
            m_key_repair.level = QZFS_KEY_REPAIR_BACKUP;
        m_key_repair.copied_from = m_manage.key_block;
        m_key_repair.backup_written = b;
        if (b < m_manage.key_block) {
            m_manage.bak_key_block = m_manage.key_block;
            m_manage.key_block = b;
        } else {
            m_manage.bak_key_block = b;
        }
        return 0;
    }
    QZLOG("recovery bak key info block failed!");
    return -1;
}

int CQzFileSystem::get_disk_manage_info_by_key_info_block(unsigned char allow_scan)
{
    unsigned long block_size = 0, first_key = 0;
    if (qzfs_get_block_info(m_pIo_interface, block_size, first_key) != 0) {
        QZLOG("get key block num failed!");
        return -1;
    }
    m_manage.block_size = block_size;
    m_key_repair = qzfs_key_repair_report();
    bool tried = (m_state == QZFSS_FORMATING);

    for (;;) {
        m_manage.key_block = first_key;
        if (find_key_info_block(first_key, m_manage.key_block) != 0) {
            QZLOG("find key info block failed(block:%lu,recovery:%d)!", first_key, tried ? 1 : 0);
            if (allow_scan != 1 || tried)
                return -1;
            if (scan_recovery_key_info() != 0)
                return -1;
            tried = true;
            continue;
        }
        if (load_disk_manage_info_by_key_info_block(m_manage.key_block) == 0) {
            m_key_repair.loaded_from = m_manage.key_block;
            break;
        }
        if (tried)
            return -1;
        if (fast_recovery_key_info() != 0)
            return -1;
        tried = true;
    }

    m_manage.bak_key_block = m_manage.key_block + QZFS_KEY_BLOCK_STEP;
    if (find_key_info_block(m_manage.bak_key_block, m_manage.bak_key_block) != 0 ||
        check_bak_key_info_block(m_manage.key_block, m_manage.bak_key_block,
                                 m_manage.block_size) != 0) {
        QZLOG("find bak key info block failed(block:%lu)!", m_manage.bak_key_block);
        if (repair_bak_key_block(first_key) != 0)
            return -1;
    }

    if (check_root_index_block_integrity_and_recovery() != 0) {
        QZLOG("recovery root index block failed!");
        return -1;
    }
    m_manage.free_block = Cal_bitmap_free_block();
    QZLOG_ABOVE(0, "key info block:%lu, bak key info block:%lu,stamp:%lu!", m_manage.key_block,
                m_manage.bak_key_block, m_manage.block_owner_stamp);
    QZLOG_ABOVE(0, "block size:%lu, total block:%lu, free block:%lu", m_manage.block_size,
                m_manage.total_block, m_manage.free_block);
    return 0;
}
