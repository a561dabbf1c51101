// Holds a mutex for as long as it lives. Any thread.
#pragma once

#include <pthread.h>

namespace orx {

struct MutexGuard {
    pthread_mutex_t *pMutex;  // not owned
    explicit MutexGuard(pthread_mutex_t *p) : pMutex(p) { pthread_mutex_lock(p); }
    ~MutexGuard() { pthread_mutex_unlock(pMutex); }
    MutexGuard(MutexGuard &&) = delete;  // neither copied nor moved
    MutexGuard &operator=(MutexGuard &&) = delete;
};

}  // namespace orx
