// A plain pthread mutex held for a scope, for the subsystems' own locks.
#pragma once

#include <pthread.h>

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t *pstMutex) : pstMutex_(pstMutex) { pthread_mutex_lock(pstMutex_); }
    ~MutexGuard() { pthread_mutex_unlock(pstMutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    pthread_mutex_t *pstMutex_;
};
