#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <pthread.h>

void* qzfs_create_lock()
{
    pthread_mutex_t* mutex = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t)));
    if (mutex == nullptr) {
        QZDEVLOG("malloc failed!");
        return nullptr;
    }
    if (pthread_mutex_init(mutex, nullptr) != 0) {
        QZDEVLOG("init lock failed!");
        free(mutex);
        return nullptr;
    }
    return mutex;
}

int qzfs_lock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    return pthread_mutex_lock(static_cast<pthread_mutex_t*>(lock));
}

int qzfs_unlock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    return pthread_mutex_unlock(static_cast<pthread_mutex_t*>(lock));
}

int qzfs_destroy_lock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    pthread_mutex_destroy(static_cast<pthread_mutex_t*>(lock));
    free(lock);
    return 0;
}
