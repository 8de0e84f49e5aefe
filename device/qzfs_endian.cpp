#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <cstring>

void change_byte_order(void* data, int size)
{
    if (data == nullptr || size <= 1)
        return;
    unsigned char* copy = static_cast<unsigned char*>(malloc(size));
    if (copy == nullptr) {
        QZDEVLOG("ReverseBytes failed!");
        return;
    }
    memcpy(copy, data, size);
    unsigned char* out = static_cast<unsigned char*>(data);
    for (int i = 0; i < size; i++)
        out[i] = copy[size - 1 - i];
    free(copy);
}

int is_little_endian_system()
{
    const uint16_t probe = 1;
    unsigned char first;
    memcpy(&first, &probe, 1);
    return first == 1 ? 1 : 0;
}
