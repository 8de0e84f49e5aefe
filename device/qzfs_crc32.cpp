#include "qzfs_device.h"

namespace {

// A 256-entry table built on first use. Building it twice from two threads
// writes equal values, so no lock is needed.
struct Crc32Table {
    uint32_t entry[256];
    bool built = false;

    void build()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t crc = i;
            for (int bit = 0; bit < 8; bit++)
                crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
            entry[i] = crc;
        }
        built = true;
    }

    uint32_t checksum(const unsigned char* p, unsigned long length)
    {
        if (!built)
            build();
        uint32_t crc = 0xFFFFFFFFu;
        for (unsigned long i = 0; i < length; i++)
            crc = entry[(crc ^ p[i]) & 255] ^ (crc >> 8);
        return ~crc;
    }
};

Crc32Table core_table;
Crc32Table partition_table;

} // namespace

void qzfs_create_crc32_table() { core_table.build(); }

unsigned long qzfs_chksum_crc32(const void* data, unsigned long length)
{
    return core_table.checksum(static_cast<const unsigned char*>(data), length);
}

void create_crc32_table() { partition_table.build(); }

unsigned long chksum_crc32(const unsigned char* data, unsigned long length)
{
    return partition_table.checksum(data, length);
}
