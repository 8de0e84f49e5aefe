#include "qzfs_device.h"

namespace {

// The 256-entry table of the reflected polynomial, built once, before its
// first use, by whichever thread gets there first; the language makes the
// other threads wait for it.
struct Crc32Table {
    uint32_t entry[256];

    Crc32Table()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t crc = i;
            for (int bit = 0; bit < 8; bit++)
                crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
            entry[i] = crc;
        }
    }
};

const Crc32Table& crc32_table()
{
    static const Crc32Table table;
    return table;
}

uint32_t checksum(const unsigned char* p, unsigned long length)
{
    const Crc32Table& table = crc32_table();
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned long i = 0; i < length; i++)
        crc = table.entry[(crc ^ p[i]) & 255] ^ (crc >> 8);
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
