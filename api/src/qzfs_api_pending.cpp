/* CQzfsApi operations that are not built yet: each returns its failure value and does nothing else. */
#include <stdint.h>

#include <list>

#include "qzfilesystem_api.h"
#include "qzfs_api.h"

/* ---- Normal files ------------------------------------------------------- */

void* CQzfsApi::qzfs_open_normal_file(unsigned char, char*, int)
{
    return nullptr;
}

int CQzfsApi::qzfs_close_normal_file(void*)
{
    return -1;
}

int CQzfsApi::qzfs_write_normal_file(void*, char*, int)
{
    return -1;
}

int CQzfsApi::qzfs_read_normal_file(void*, char*, int)
{
    return -1;
}

int CQzfsApi::qzfs_sync_normal_file(void*)
{
    return -1;
}

int CQzfsApi::qzfs_seek_normal_file(void*, int, int)
{
    return -1;
}

int CQzfsApi::qzfs_get_normal_file_cur_offset(void*, long long&)
{
    return -1;
}

long long CQzfsApi::qzfs_get_normal_file_size_by_handle(void*)
{
    return -1LL;
}

long long CQzfsApi::qzfs_get_normal_file_size(unsigned char, char*)
{
    return -1LL;
}

int CQzfsApi::qzfs_delete_normal_file(unsigned char, char*)
{
    return -1;
}

int CQzfsApi::qzfs_rename_normal_file(unsigned char, char*, char*)
{
    return -1;
}

void* CQzfsApi::qzfs_get_search_normal_file_handle(unsigned char, char*)
{
    return nullptr;
}

int CQzfsApi::qzfs_get_normal_file_name(void*, unsigned char, char*)
{
    return -1;
}

int CQzfsApi::qzfs_release_search_normal_file_handle(void*)
{
    return -1;
}

/* ---- Device info -------------------------------------------------------- */

int CQzfsApi::qzfs_write_device_info(unsigned char, char*, int)
{
    return -1;
}

int CQzfsApi::qzfs_write_device_info_to_all_disk(char*, int)
{
    return -1;
}

int CQzfsApi::qzfs_read_device_info(unsigned char, char*, int)
{
    return -1;
}

int CQzfsApi::qzfs_get_device_info_len(unsigned char)
{
    return -1;
}
