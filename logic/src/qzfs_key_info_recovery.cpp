// Repair of a damaged key info block, and the application's recovery call.
//
// The block table stands in two copies at key places 400 blocks apart, and
// every block repeats its own 32-byte record in its first bytes. When a
// table does not load, the mount mends it from what is left, lightest
// level first:
//   - fast recovery: the copies are checked record by record; one clean
//     copy is written over the other; two damaged copies are merged, each
//     lost record taken from the other copy or from the block's own head;
//   - scan recovery: no key info block stands at all; a new table is made
//     from the blocks' own heads alone (entered only when a caller allows
//     it: the mount never does, the host tool's recovery can).
// A record no witness holds makes its block bad in a mend in place, and
// free in a new copy.
#include "qzfilesystem.h"
#include "qzfs_device.h"
#include "qzfs_fat32.h"
#include "qzfs_log.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

namespace {

// More damaged records than this and a copy is not taken as a key block.
const size_t kMaxBadRecords = 9999;

const unsigned long kRecordSize = sizeof(_qzfs_block_info_);

std::set<unsigned long> as_set(const std::list<unsigned long>& list)
{
    return std::set<unsigned long>(list.begin(), list.end());
}

bool listed(const std::list<unsigned long>& list, unsigned long block)
{
    return std::find(list.begin(), list.end(), block) != list.end();
}

// The record of `slot` from a copy's piece read into `at`: taken when the
// piece was read, the slot is not on the copy's damaged list and the record
// checks.
bool record_from_copy(bool read, const std::set<unsigned long>& damaged, unsigned long slot,
                      const unsigned char* at, _qzfs_block_info_& record)
{
    if (!read || damaged.count(slot) != 0)
        return false;
    memcpy(&record, at, sizeof(record));
    return qzfs_block_info_is_sound(&record);
}

_qzfs_block_info_ record_of_type(uint8_t type)
{
    _qzfs_block_info_ record;
    memset(&record, 0, sizeof(record));
    record.block_type = type;
    return record;
}

// The type a table slot gets whatever its witnesses say: none past the
// end, system for the partition shell, bad for places proved unusable.
// Returns false when the witnesses decide.
bool fixed_slot_type(unsigned long slot, unsigned long total,
                     const std::set<unsigned long>& system, const std::set<unsigned long>& unusable,
                     uint8_t& type)
{
    if (slot >= total)
        type = QZFS_BLOCK_NONE;
    else if (system.count(slot) != 0)
        type = QZFS_BLOCK_SYSTEM;
    else if (unusable.count(slot) != 0)
        type = QZFS_BLOCK_BAD;
    else
        return false;
    return true;
}

}  // namespace

// ------------------------------------------------------------ checking a copy

int CQzFileSystem::check_key_info_block(unsigned long block, std::list<unsigned long>& bad)
{
    unsigned char* buf = m_file_system_io_buffer;
    const unsigned long buf_len = m_file_system_io_buffer_len;
    if (Seek_and_read_in_block(m_pIo_interface, block, 0, buf, (int)buf_len) != (int)buf_len) {
        QZLOG("read %lu block data failed!", block);
        return 0;
    }
    _qzfs_key_header_ header;
    memcpy(&header, buf + QZFS_KEY_HEADER_OFFSET, sizeof(header));
    // A header that does not fit the device would lead the walk astray.
    const unsigned long capacity = (m_manage.block_size - QZFS_KEY_TABLE_OFFSET) / kRecordSize;
    if (check_key_info_block_header(buf) != 0 || header.block_size != m_manage.block_size ||
        header.total_block > capacity) {
        QZLOG("check key info block header failed(%lu)!", block);
        return 0;
    }
    const unsigned long block_size = header.block_size, total = header.total_block;
    QZLOG("block size:%lu,total block:%lu,key block:%lu", block_size, total, block);

    unsigned long slot = 0;
    for (unsigned long piece = 0; piece < block_size && slot < total; piece += buf_len) {
        const unsigned long piece_len = block_size - piece < buf_len ? block_size - piece : buf_len;
        if (piece != 0 && Seek_and_read_in_block(m_pIo_interface, block, piece, buf,
                                                 (int)piece_len) != (int)piece_len) {
            QZLOG("read %lu block data failed!", block);
            memset(buf, 0, piece_len);
        }
        for (unsigned long at = piece == 0 ? QZFS_KEY_TABLE_OFFSET : 0;
             at + kRecordSize <= piece_len && slot < total; at += kRecordSize, slot++) {
            _qzfs_block_info_ record;
            memcpy(&record, buf + at, kRecordSize);
            uint32_t want = (uint32_t)qzfs_chksum_crc32(&record, QZFS_BLOCK_INFO_CRC_LEN);
            if (record.check_num != want) {
                bad.push_back(slot);
                QZLOG_ABOVE(1, "block %lu check num is error(%lu != %lu)!", slot,
                            (unsigned long)record.check_num, (unsigned long)want);
            }
        }
    }
    QZLOG("block:%lu,index:%lu,block num:%lu,bad block num:%d", block, slot, total,
          (int)bad.size());
    return 1;
}

// -------------------------------------------------------------- writing copies

int CQzFileSystem::find_block_and_recovery_bak_block(unsigned long key, unsigned long first,
                                                     unsigned long end, unsigned long len,
                                                     std::list<unsigned long>& system,
                                                     std::list<unsigned long>& unusable)
{
    for (unsigned long place = first; place < end; place += QZFS_KEY_BLOCK_STEP) {
        if (place == key || listed(system, place) || listed(unusable, place))
            continue;
        if (write_key_info_bak_block(key, place, len) == 0) {
            m_key_repair.copied_from = key;
            m_key_repair.backup_written = place;
            return 1;
        }
        QZLOG("bak block:%lu write error!", place);
    }
    return 0;
}

// Mends the records of `bad` in `key` itself, each from the first witness
// that holds it: the other copy, then the block's own head.
int CQzFileSystem::merge_key_info_in_place(unsigned long key, std::list<unsigned long>& bad,
                                           unsigned long other,
                                           std::list<unsigned long>& other_bad,
                                           std::list<unsigned long>& system,
                                           std::list<unsigned long>& unusable)
{
    const std::set<unsigned long> other_damaged = as_set(other_bad);
    for (unsigned long block : bad) {
        _qzfs_block_info_ record = record_of_type(QZFS_BLOCK_NONE);
        if (listed(system, block)) {
            record.block_type = QZFS_BLOCK_SYSTEM;
        } else if (listed(unusable, block)) {
            record.block_type = QZFS_BLOCK_BAD;
        } else if (other != 0 && other_damaged.count(block) == 0 &&
                   read_block_info_from_key_block(other, block, &record) == 0 &&
                   qzfs_block_info_is_sound(&record)) {
            m_key_repair.from_other_copy++;
        } else if (read_block_info_from_block(block, &record) == 0 &&
                   qzfs_block_info_is_sound(&record)) {
            m_key_repair.from_block_head++;
        } else {
            record = record_of_type(QZFS_BLOCK_BAD);
            m_key_repair.marked_bad++;
        }
        if (write_block_info_to_key_block(key, block, &record) != 0)
            return -1;
    }
    m_key_repair.merged_into = key;
    return 0;
}

// Writes a whole new copy at `target`: the header of `key` (or `other`),
// then each record from `key`, else `other`, else the block's own head,
// else free.
int CQzFileSystem::merge_key_info_into_new_copy(unsigned long key, std::list<unsigned long>& bad,
                                                unsigned long other,
                                                std::list<unsigned long>& other_bad,
                                                std::list<unsigned long>& system,
                                                std::list<unsigned long>& unusable,
                                                unsigned long target)
{
    const unsigned long buf_len = m_file_system_io_buffer_len;
    const unsigned long block_size = m_manage.block_size, total = m_manage.total_block;
    std::vector<unsigned char> head(QZFS_KEY_TABLE_OFFSET);
    if (read_in_block(key, 0, head.data(), head.size()) != 0 &&
        (other == 0 || read_in_block(other, 0, head.data(), head.size()) != 0)) {
        QZLOG("read key block header failed!");
        return -1;
    }
    if (write_in_block(target, 0, head.data(), head.size()) != 0) {
        QZLOG("write key header failed(%lu)!", target);
        return -1;
    }

    const std::set<unsigned long> key_damaged = as_set(bad), other_damaged = as_set(other_bad);
    const std::set<unsigned long> system_set = as_set(system), unusable_set = as_set(unusable);
    std::vector<unsigned char> key_piece(buf_len), other_piece(buf_len);
    unsigned char* out = m_file_system_io_buffer;
    unsigned long slot = 0;
    for (unsigned long piece = QZFS_KEY_TABLE_OFFSET; piece < block_size; piece += buf_len) {
        const unsigned long piece_len = block_size - piece < buf_len ? block_size - piece : buf_len;
        const bool key_read = read_in_block(key, piece, key_piece.data(), piece_len) == 0;
        const bool other_read =
            other != 0 && read_in_block(other, piece, other_piece.data(), piece_len) == 0;
        for (unsigned long at = 0; at + kRecordSize <= piece_len; at += kRecordSize, slot++) {
            _qzfs_block_info_ record = record_of_type(QZFS_BLOCK_NONE);
            uint8_t type;
            if (fixed_slot_type(slot, total, system_set, unusable_set, type)) {
                record.block_type = type;
            } else if (record_from_copy(key_read, key_damaged, slot, &key_piece[at], record)) {
                // the key block's own record stands
            } else if (record_from_copy(other_read, other_damaged, slot, &other_piece[at],
                                        record)) {
                m_key_repair.from_other_copy++;
            } else if (read_block_info_from_block(slot, &record) == 0 &&
                       qzfs_block_info_is_sound(&record)) {
                m_key_repair.from_block_head++;
            } else {
                record = record_of_type(QZFS_BLOCK_FREE);
                m_key_repair.marked_free++;
            }
            qzfs_block_info_seal(&record);
            memcpy(out + at, &record, kRecordSize);
        }
        if (write_in_block(target, piece, out, piece_len) != 0) {
            QZLOG("write block info(%lu) failed(%lu)!", slot, target);
            return -1;
        }
    }
    m_key_repair.merged_into = target;
    return 0;
}

int CQzFileSystem::recovery_key_info_by_merge(unsigned long key, std::list<unsigned long>& bad,
                                              unsigned long other,
                                              std::list<unsigned long>& other_bad,
                                              std::list<unsigned long>& system,
                                              std::list<unsigned long>& unusable,
                                              unsigned long target)
{
    if (key == 0) {
        QZLOG("key block is invalid!");
        return -1;
    }
    if (target == 0)
        return merge_key_info_in_place(key, bad, other, other_bad, system, unusable);
    return merge_key_info_into_new_copy(key, bad, other, other_bad, system, unusable, target);
}

// Both copies are damaged: merge into the key block, else into the backup,
// else into a fresh key place; `key` becomes the block that was written.
int CQzFileSystem::merge_damaged_key_copies(unsigned long& key, std::list<unsigned long>& bad,
                                            unsigned long bak, std::list<unsigned long>& bak_bad,
                                            unsigned long first, unsigned long total,
                                            std::list<unsigned long>& system,
                                            std::list<unsigned long>& unusable)
{
    QZLOG("start recovery key info by merge!");
    if (recovery_key_info_by_merge(key, bad, bak, bak_bad, system, unusable, 0) == 0)
        return 0;
    unusable.push_back(key);
    if (bak != 0) {
        if (recovery_key_info_by_merge(bak, bak_bad, key, bad, system, unusable, 0) == 0) {
            key = bak;
            return 0;
        }
        unusable.push_back(key);
    }
    // With no backup the damaged key block is the one source left.
    const unsigned long source = bak != 0 ? bak : key;
    std::list<unsigned long>& source_bad = bak != 0 ? bak_bad : bad;
    const unsigned long second = bak != 0 ? key : 0;
    std::list<unsigned long> none;
    std::list<unsigned long>& second_bad = bak != 0 ? bad : none;
    for (unsigned long place = first; place < total; place += QZFS_KEY_BLOCK_STEP) {
        if (place == key || place == bak || listed(system, place) || listed(unusable, place))
            continue;
        if (recovery_key_info_by_merge(source, source_bad, second, second_bad, system, unusable,
                                       place) == 0) {
            key = place;
            return 0;
        }
        unusable.push_back(key);
    }
    return -1;
}

// ------------------------------------------------------------ fast recovery

// What both recoveries start from: a bare device, its geometry, the first
// key place and the blocks of the partition shell.
int CQzFileSystem::start_key_info_recovery(unsigned long& block_size, unsigned long& first,
                                           unsigned long& total, std::list<unsigned long>& system)
{
    QZLOG("start recovery key info block!");
    if (bare_dev == 0) {
        QZLOG("not bare dev!");
        return -1;
    }
    if (qzfs_get_block_info(m_pIo_interface, block_size, first) != 0) {
        QZLOG("get key block info failed!");
        return -1;
    }
    unsigned long system_block_size = 0;
    if (qzfs_get_system_info(m_dev_path.c_str(), system_block_size, total, system) != 0) {
        QZLOG("get %s system info failed!", m_dev_path.c_str());
        return -1;
    }
    QZLOG("block size:%lu, total block:%lu", block_size, total);
    m_manage.block_size = block_size;
    m_manage.total_block = total;
    return 0;
}


int CQzFileSystem::fast_recovery_key_info()
{
    unsigned long block_size = 0, first = 0, total = 0;
    std::list<unsigned long> system, unusable, bad, bak_bad;
    if (start_key_info_recovery(block_size, first, total, system) != 0)
        return -1;

    // The first two places with a good header and few enough damaged
    // records are the key block and its backup; the lists are not emptied
    // between places, so a refused place's damage counts against the next.
    unsigned long key = 0, bak = 0;
    unsigned long place = first;
    for (int tried = 0; tried < QZFS_KEY_BLOCK_TRIES && place < total && bak == 0;
         tried++, place += QZFS_KEY_BLOCK_STEP) {
        if (key == 0) {
            if (check_key_info_block(place, bad) == 1 && bad.size() <= kMaxBadRecords)
                key = place;
        } else if (check_key_info_block(place, bak_bad) == 1 && bak_bad.size() <= kMaxBadRecords) {
            bak = place;
        }
    }
    if (key == 0) {
        QZLOG("no key info block,please scan recovery!");
        return -1;
    }
    QZLOG("key block:%lu, bad list:%d, bak key block:%lu, bad list:%d", key, (int)bad.size(), bak,
          (int)bak_bad.size());
    m_key_repair.primary_damaged = bad.size();
    m_key_repair.backup_damaged = bak_bad.size();

    if (bad.empty() || (bak != 0 && bak_bad.empty())) {
        if (bad.empty() && bak != 0 && bak_bad.empty())
            return 0;
        // One clean copy: it is written to the first place that is not its
        // own, over the damaged copy where that comes first.
        const unsigned long clean = bad.empty() ? key : bak;
        m_key_repair.level = QZFS_KEY_REPAIR_COPY;
        if (find_block_and_recovery_bak_block(clean, first, total, block_size, system, unusable) == 0) {
            QZLOG("no bak key info block!");
            return -1;
        }
    } else {
        m_key_repair.level = QZFS_KEY_REPAIR_MERGE;
        if (merge_damaged_key_copies(key, bad, bak, bak_bad, first, total, system, unusable) != 0) {
            QZLOG("end recovery key info block(%s)!", "failed");
            return -1;
        }
        if (find_block_and_recovery_bak_block(key, first, total, block_size, system, unusable) == 0) {
            QZLOG("no bak key info block!");
            return -1;
        }
    }
    QZLOG("end recovery key info block(%s)!", "success");
    return 0;
}

// ------------------------------------------------------------ scan recovery

// Writes a new key block at `place` (moving on past places that fail to
// take a write) from the blocks' own records.
int CQzFileSystem::write_scanned_key_table(unsigned long& place, unsigned long total,
                                           std::list<unsigned long>& system,
                                           std::list<unsigned long>& unusable)
{
    const unsigned long buf_len = m_file_system_io_buffer_len, block_size = m_manage.block_size;
    _qzfs_block_info_ own = record_of_type(QZFS_BLOCK_KEY_INFO);
    qzfs_block_info_seal(&own);
    _qzfs_key_header_ header;
    memset(&header, 0, sizeof(header));
    memcpy(header.version, QZFS_VERSION_TEXT, strlen(QZFS_VERSION_TEXT));
    header.block_size = (uint32_t)block_size;
    header.total_block = (uint32_t)total;
    header.check_num = (uint32_t)qzfs_chksum_crc32(&header, QZFS_KEY_HEADER_CRC_LEN);

    auto next_usable = [&](unsigned long from) {
        while (from < total && (listed(system, from) || listed(unusable, from)))
            from += QZFS_KEY_BLOCK_STEP;
        return from;
    };
    place = next_usable(place);
    if (place >= total)
        return -1;
    const std::set<unsigned long> system_set = as_set(system);
    std::set<unsigned long> unusable_set = as_set(unusable);
    unsigned char* buf = m_file_system_io_buffer;
    unsigned long slot = 0, written = 0;
    for (unsigned long piece = 0; piece < block_size; piece += buf_len) {
        const unsigned long piece_len = block_size - piece < buf_len ? block_size - piece : buf_len;
        memset(buf, 0, buf_len);
        unsigned long at = 0;
        if (piece == 0) {
            memcpy(buf, &own, sizeof(own));
            memcpy(buf + QZFS_KEY_HEADER_OFFSET, &header, sizeof(header));
            at = QZFS_KEY_TABLE_OFFSET;
        }
        for (; at + kRecordSize <= piece_len; at += kRecordSize, slot++) {
            _qzfs_block_info_ record = record_of_type(QZFS_BLOCK_NONE);
            uint8_t type;
            if (fixed_slot_type(slot, total, system_set, unusable_set, type)) {
                record.block_type = type;
            } else if (slot == place) {
                record.block_type = QZFS_BLOCK_KEY_INFO;  // its head may not be written yet
            } else if (read_block_info_from_block(slot, &record) == 0 &&
                       qzfs_block_info_is_sound(&record)) {
                m_key_repair.from_block_head++;
            } else {
                record = record_of_type(QZFS_BLOCK_FREE);
                m_key_repair.marked_free++;
            }
            qzfs_block_info_seal(&record);
            memcpy(buf + at, &record, kRecordSize);
            if (slot % 1000 == 0 && slot < total)
                QZLOG("block_index:%lu(%lu)", slot, total);
        }
        // A place that fails a write is given up; the rest of the table
        // goes on at the next place from where it stood.
        while (write_in_block(place, piece, buf, piece_len) != 0) {
            QZLOG("write failed!\n!");
            unusable.push_back(place);
            unusable_set.insert(place);
            place = next_usable(place + QZFS_KEY_BLOCK_STEP);
            if (place >= total)
                return -1;
        }
        written += piece_len;
    }
    QZLOG("find block:%lu,block index:%lu,block num:%lu", place, slot, total);
    QZLOG("total write len:%lu, block size:%lu", written, block_size);
    return 0;
}

// Copies the new key block to the next usable place after it, and makes
// both tables call that place a key block.
int CQzFileSystem::write_scanned_key_backup(unsigned long key, unsigned long total,
                                            std::list<unsigned long>& system,
                                            std::list<unsigned long>& unusable)
{
    for (unsigned long place = key + QZFS_KEY_BLOCK_STEP; place < total;
         place += QZFS_KEY_BLOCK_STEP) {
        if (listed(system, place) || listed(unusable, place))
            continue;
        _qzfs_block_info_ record = record_of_type(QZFS_BLOCK_KEY_INFO);
        if (write_block_info_to_key_block(key, place, &record) == 0 &&
            write_key_info_bak_block(key, place, m_manage.block_size) == 0) {
            m_key_repair.backup_written = place;
            return 0;
        }
        QZLOG("write key bak block failed(%lu)!", place);
        record = record_of_type(QZFS_BLOCK_BAD);
        modify_block_info(key, key, place, &record, QZFS_WHERE_KEY_TABLES);
        unusable.push_back(place);
    }
    return -1;
}

int CQzFileSystem::scan_recovery_key_info()
{
    unsigned long block_size = 0, first = 0, total = 0;
    std::list<unsigned long> system, unusable;
    if (start_key_info_recovery(block_size, first, total, system) != 0)
        return -1;
    m_key_repair.level = QZFS_KEY_REPAIR_SCAN;

    unsigned long key = first;
    int result = -1;
    if (write_scanned_key_table(key, total, system, unusable) == 0 &&
        write_scanned_key_backup(key, total, system, unusable) == 0)
        result = 0;
    if (result == 0)
        m_key_repair.merged_into = key;
    qzfs_sync(m_pIo_interface);
    QZLOG("end scan recovery key info block(%s)!", result == 0 ? "success" : "failed");
    return result;
}

// -------------------------------------------------------- recovery on request

int CQzFileSystem::sync_disk() { return qzfs_sync(m_pIo_interface); }

// Opens the device of an unmounted disk for a recovery.
int CQzFileSystem::open_device_for_recovery(char* path)
{
    bare_dev = 1;
    m_dev_path = path != nullptr ? path : "";
    m_pIo_interface = qzfs_create_io_interface(path, 1);
    if (m_pIo_interface == nullptr) {
        QZLOG("create %s io interface failed!", path != nullptr ? path : "(null)");
        return -1;
    }
    if (Create_file_system_io_channel() != 0) {
        QZLOG("Create_file_system_io_channel failed");
        return -1;
    }
    return 0;
}

int CQzFileSystem::recover_key_info(char* path, unsigned char allow_scan)
{
    if (open_device_for_recovery(path) != 0)
        return -1;
    QZLOG_ABOVE(0, "start read disk key info!");
    if (get_disk_manage_info_by_key_info_block(allow_scan) != 0) {
        QZLOG("get disk manage info failed");
        return -1;
    }
    return sync_disk();
}

int CQzFileSystem::disk_recovery(char* path, _qzfs_k4t_recovery_para_* para)
{
    if (open_device_for_recovery(path) != 0)
        return -1;
    QZLOG("start read disk key info!");
    if (get_disk_manage_info_by_key_info_block(0) != 0) {
        QZLOG("get disk manage info failed");
        return -1;
    }
    QZLOG("start check all data block!");
    if (scan_check_recovery_all_stream_segment_index(para, 1) != 0) {
        QZLOG("scan check recovery all data blcok failed");
        return -1;
    }
    return sync_disk();
}
