// The block allocator over the bitmap: one bit a block, least significant bit first, set when
// the block is in use. It is rebuilt from the block table at every mount.
#include "qzfilesystem.h"
#include "qzfs_log.h"

bool CQzFileSystem::block_bit_is_set(unsigned long block) const
{
    return (m_manage.block_bitmap[block >> 3] >> (block & 7)) & 1;
}

void CQzFileSystem::set_block_bit(unsigned long block)
{
    if (m_manage.block_bitmap != nullptr && block < m_manage.total_block)
        m_manage.block_bitmap[block >> 3] |= (unsigned char)(1u << (block & 7));
}

void CQzFileSystem::clear_block_bit(unsigned long block)
{
    if (m_manage.block_bitmap != nullptr && block < m_manage.total_block)
        m_manage.block_bitmap[block >> 3] &= (unsigned char)~(1u << (block & 7));
}

unsigned long CQzFileSystem::Cal_bitmap_free_block()
{
    if (m_manage.block_bitmap == nullptr || m_manage.total_block == 0)
        return 0;
    unsigned long free_count = 0;
    unsigned long block = 0;
    for (unsigned long i = 0; i < m_manage.block_bitmap_len && block < m_manage.total_block; i++) {
        unsigned char byte = m_manage.block_bitmap[i];
        if (byte == 0xFF) {
            block += 8;
            continue;
        }
        for (int bit = 0; bit < 8 && block < m_manage.total_block; bit++, block++)
            if (!((byte >> bit) & 1))
                free_count++;
    }
    return free_count;
}

static bool requestable_type(unsigned type)
{
    return (type >= QZFS_BLOCK_ROOT_INDEX && type <= QZFS_BLOCK_NORMAL_FILE) ||
           type == QZFS_BLOCK_TEST;
}

// Takes `count` blocks by a circular byte-wise search from the hint, writes
// each one's record to both tables and its own head, and raises the owner
// stamp once for the whole request.
int CQzFileSystem::Request_free_block(unsigned long count, unsigned long* out,
                                      _qzfs_block_info_* info, unsigned char)
{
    if (info == nullptr) {
        QZLOG("block info is null!");
        return -1;
    }
    if (!requestable_type(info->block_type)) {
        QZLOG("block type is error(%u)!", (unsigned)info->block_type);
        return -1;
    }
    if (m_manage.block_bitmap == nullptr || m_manage.block_bitmap_len == 0)
        return -1;

    unsigned long taken = 0;
    const unsigned long start = m_manage.next_free_block / 8 % m_manage.block_bitmap_len;
    unsigned long i = start;
    do {
        unsigned char& byte = m_manage.block_bitmap[i];
        while (byte < 0xFF && taken < count) {
            int bit = 0;
            while ((byte >> bit) & 1)
                bit++;
            unsigned long block = i * 8 + (unsigned long)bit;
            if (block >= m_manage.total_block)
                break;
            out[taken++] = block;
            byte |= (unsigned char)(1u << bit);
            if (m_manage.free_block == 0)
                m_manage.free_block = Cal_bitmap_free_block();
            else
                m_manage.free_block--;
        }
        i = (i + 1) % m_manage.block_bitmap_len;
    } while (i != start && taken < count);

    if (taken < count) {
        for (unsigned long k = 0; k < taken; k++)
            clear_block_bit(out[k]);
        return -1;
    }
    unsigned long next = out[taken - 1] + 1;
    m_manage.next_free_block = next >= m_manage.total_block ? 0 : next;

    std::list<unsigned long> written;
    bool all_written = true;
    for (unsigned long k = 0; k < taken; k++) {
        QZLOG_ABOVE(3, "new block:%lu,block type:%u", out[k], (unsigned)info->block_type);
        if (modify_block_info(m_manage.key_block, m_manage.bak_key_block, out[k], info,
                              QZFS_WHERE_ALL) == 0) {
            written.push_back(out[k]);
        } else {
            all_written = false;
        }
    }
    if (!all_written) {
        for (unsigned long block : written)
            Free_one_block(block, 0);
        return -1;
    }
    m_manage.block_owner_stamp++;
    return 0;
}

// Frees a block in both tables. A data block's own head keeps the old
// record, which is what recovery reads.
int CQzFileSystem::Free_one_block(unsigned long block, unsigned char)
{
    if (block >= m_manage.total_block) {
        QZLOG("block(%lu) is error(total:%lu)", block, m_manage.total_block);
        return -1;
    }
    if (!block_bit_is_set(block))
        return 0;
    _qzfs_block_info_ old;
    // Index and named file blocks get a free head too: a scan of the
    // blocks' own heads must not take back a stale index, which would stand
    // for recordings that are gone, or a deleted file.
    const bool head_too = read_block_info_from_key_block(m_manage.key_block, block, &old) == 0 &&
                          (old.block_type == QZFS_BLOCK_ROOT_INDEX ||
                           old.block_type == QZFS_BLOCK_SEGMENT_INDEX ||
                           old.block_type == QZFS_BLOCK_IFRAME_INDEX ||
                           old.block_type == QZFS_BLOCK_NORMAL_FILE);
    if (modify_block_type(block, QZFS_BLOCK_FREE,
                          head_too ? QZFS_WHERE_ALL : QZFS_WHERE_KEY_TABLES) != 0) {
        QZLOG("modify block info failed(%lu)!", block);
        return -1;
    }
    clear_block_bit(block);
    m_manage.free_block++;
    if (m_manage.free_block > m_manage.total_block)
        m_manage.free_block = Cal_bitmap_free_block();
    return 0;
}
