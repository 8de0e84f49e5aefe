// Position arithmetic shared by the three index levels.
#include "qzfs_index_format.h"

static uint32_t div0(uint32_t a, uint32_t b) { return b == 0 ? 0 : a / b; }
static uint32_t mod0(uint32_t a, uint32_t b) { return b == 0 ? 0 : a % b; }

// All arithmetic is u32 modulo 2^32; results of a division by zero are 0.
void Calculate_index_info(unsigned long block_size, unsigned long node_size, unsigned long index,
                          unsigned long unit_size, _qzfs_data_offset_* out)
{
    const uint32_t B = uint32_t(block_size), N = uint32_t(node_size), I = uint32_t(index);
    const uint32_t U = uint32_t(unit_size);
    _qzfs_data_offset_& o = *out;
    o.node_num_per_sector = div0(512, N);
    o.node_num_per_block = (B / 512 - 9) * o.node_num_per_sector;
    o.its_block_num = div0(I, o.node_num_per_block);
    o.index_in_block = mod0(I, o.node_num_per_block);
    o.sector_in_block = div0(o.index_in_block, o.node_num_per_sector) + 9;
    o.index_in_sector = mod0(o.index_in_block, o.node_num_per_sector);
    o.offset_in_sector = N * o.index_in_sector;
    o.offset_in_block = o.offset_in_sector + 512 * o.sector_in_block;
    o.offset_in_chain = o.offset_in_block + B * o.its_block_num;
    o.unit_in_block = div0(o.offset_in_block, U);
    o.unit_offset = U * o.unit_in_block;
    o.unit_in_chain = o.unit_in_block + div0(B, U) * o.its_block_num;
    o.offset_in_unit = o.offset_in_block - o.unit_offset;
    o.sector_in_unit = o.offset_in_unit / 512;
    const uint32_t sectors_in_unit = o.unit_in_block == 0 ? o.sector_in_unit - 9 : o.sector_in_unit;
    o.index_in_unit = o.index_in_sector + o.node_num_per_sector * sectors_in_unit;

    const uint32_t base = o.node_num_per_block * o.its_block_num;
    // Node sectors of a block's first unit: signed, so a 4 KiB unit (which
    // ends before the header sector does) gives -1.
    const uint32_t first_unit_sectors = uint32_t((int64_t(U) - 4608) / 512);
    const uint32_t unit_nodes = (U / 512) * o.node_num_per_sector;
    if (o.unit_in_block == 0) {
        o.unit_first_index = base;
        o.unit_last_index = o.unit_first_index + o.node_num_per_sector * first_unit_sectors - 1;
    } else {
        o.unit_first_index = base + o.node_num_per_sector * first_unit_sectors +
                             unit_nodes * (o.unit_in_block - 1);
        o.unit_last_index = o.unit_first_index + unit_nodes - 1;
    }
    o.sector_first_index = o.node_num_per_sector * div0(I, o.node_num_per_sector);
    o.sector_last_index = o.sector_first_index + o.node_num_per_sector - 1;
}

uint8_t qzfs_root_node_byte_sum(const unsigned char* node)
{
    unsigned sum = node[0];
    for (unsigned long i = 2; i < QZFS_ROOT_NODE_SIZE; i++)
        sum += node[i];
    return uint8_t(sum);
}

uint8_t qzfs_iframe_node_byte_sum(const unsigned char* node)
{
    unsigned sum = node[0];
    for (unsigned long i = 2; i < QZFS_IFRAME_NODE_SIZE; i++)
        sum += node[i];
    return uint8_t(sum);
}

// A unit that starts a block holds the header sectors ahead of its nodes; a
// 4 KiB unit never starts at a block's first node (its unit_first_index lies
// 17 ahead of it), so the header shows up there as one sector of nodes more.
uint32_t qzfs_iframe_offset_in_unit(const _qzfs_data_offset_& at, uint32_t index,
                                    unsigned long unit_size)
{
    const uint32_t per_sector = uint32_t(QZFS_IFRAME_NODES_PER_SECTOR);
    const uint32_t rel = index - at.unit_first_index;
    uint32_t sector = rel / per_sector;
    if (at.node_num_per_block != 0 && at.unit_first_index % at.node_num_per_block == 0 &&
        unit_size != QZFS_SECTOR_SIZE)
        sector += uint32_t(QZFS_INDEX_HEAD_SECTORS);
    return sector * uint32_t(QZFS_SECTOR_SIZE) + uint32_t(QZFS_IFRAME_NODE_SIZE) * (rel % per_sector);
}
