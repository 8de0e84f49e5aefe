// The block bitmap: one bit a block, least significant bit first, set when
// the block is in use. It is rebuilt from the block table at every mount.
#include "qzfilesystem.h"

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
