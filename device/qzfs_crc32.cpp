#include "qzfs_device.h"

namespace {

// The tables of the reflected polynomial, built once, before their first
// use, by whichever thread gets there first; the language makes the other
// threads wait for them. entry[0] is the classic byte table; entry[k] gives
// the effect of a byte followed by k zero bytes, so that eight bytes are
// folded in with eight lookups and no loop-carried chain between them.
struct Crc32Table {
    uint32_t entry[8][256];

    Crc32Table()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t crc = i;
            for (int bit = 0; bit < 8; bit++)
                crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
            entry[0][i] = crc;
        }
        for (int k = 1; k < 8; k++)
            for (uint32_t i = 0; i < 256; i++)
                entry[k][i] = (entry[k - 1][i] >> 8) ^ entry[0][entry[k - 1][i] & 255];
    }
};

const Crc32Table& crc32_table()
{
    static const Crc32Table table;
    return table;
}

uint32_t little_endian_word(const unsigned char* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint32_t checksum(const unsigned char* p, unsigned long length)
{
    const Crc32Table& table = crc32_table();
    const uint32_t(&t)[8][256] = table.entry;
    uint32_t crc = 0xFFFFFFFFu;
    for (; length >= 8; p += 8, length -= 8) {
        const uint32_t one = crc ^ little_endian_word(p);
        const uint32_t two = little_endian_word(p + 4);
        crc = t[7][one & 255] ^ t[6][(one >> 8) & 255] ^ t[5][(one >> 16) & 255] ^
              t[4][one >> 24] ^ t[3][two & 255] ^ t[2][(two >> 8) & 255] ^
              t[1][(two >> 16) & 255] ^ t[0][two >> 24];
    }
    for (; length > 0; p++, length--)
        crc = t[0][(crc ^ *p) & 255] ^ (crc >> 8);
    return ~crc;
}

} // namespace

// Both routines of each pair share the one table; building it early only
// saves the first checksum the wait.
void qzfs_create_crc32_table() { crc32_table(); }

unsigned long qzfs_chksum_crc32(const void* data, unsigned long length)
{
    return checksum(static_cast<const unsigned char*>(data), length);
}

void create_crc32_table() { crc32_table(); }

unsigned long chksum_crc32(const unsigned char* data, unsigned long length)
{
    return checksum(data, length);
}
