#include "qzfs_device.h"
#include "qzfs_log.h"

#include <cstdlib>
#include <pthread.h>

static void* create_mutex(int kind)
{
    pthread_mutex_t* mutex = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t)));
    if (mutex == nullptr) {
        QZDEVLOG("malloc failed!");
        return nullptr;
    }
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, kind);
    const int failed = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (failed != 0) {
        QZDEVLOG("init lock failed!");
        free(mutex);
        return nullptr;
    }
    return mutex;
}

void* qzfs_create_lock() { return create_mutex(PTHREAD_MUTEX_DEFAULT); }

void* qzfs_create_recursive_lock() { return create_mutex(PTHREAD_MUTEX_RECURSIVE); }

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

void* qzfs_create_rw_lock()
{
    pthread_rwlock_t* rw = static_cast<pthread_rwlock_t*>(malloc(sizeof(pthread_rwlock_t)));
    if (rw == nullptr) {
        QZDEVLOG("malloc failed!");
        return nullptr;
    }
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    // Shared holders come and go all the time; without this an exclusive
    // taker could wait for ever.
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    const int failed = pthread_rwlock_init(rw, &attr);
    pthread_rwlockattr_destroy(&attr);
    if (failed != 0) {
        QZDEVLOG("init lock failed!");
        free(rw);
        return nullptr;
    }
    return rw;
}

int qzfs_read_lock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    return pthread_rwlock_rdlock(static_cast<pthread_rwlock_t*>(lock));
}

int qzfs_write_lock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    return pthread_rwlock_wrlock(static_cast<pthread_rwlock_t*>(lock));
}

int qzfs_rw_unlock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    return pthread_rwlock_unlock(static_cast<pthread_rwlock_t*>(lock));
}

int qzfs_destroy_rw_lock(void* lock)
{
    if (lock == nullptr) {
        QZDEVLOG("lock_handle is invalid!");
        return -1;
    }
    pthread_rwlock_destroy(static_cast<pthread_rwlock_t*>(lock));
    free(lock);
    return 0;
}
