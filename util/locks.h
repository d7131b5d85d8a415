// locks.h - the two kinds of lock, the condition that goes with a mutex, and one guard for each way of holding them.
//
// A lock or unlock call can fail only in a broken program; the process is stopped there, so that no caller checks it.
#ifndef TARN_UTIL_LOCKS_H
#define TARN_UTIL_LOCKS_H

#include "util/thread_annotations.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

inline void AbortOnLockError(int error) {
    if (error != 0) {
        std::abort();
    }
}

// A moment on the monotonic clock, for waits that a wall clock set back must not stretch.
inline timespec DeadlineAfter(uint64_t ullMilliseconds) {
    constexpr long kMillisecondNs = 1000000;
    constexpr long kSecondNs = 1000 * kMillisecondNs;
    timespec deadline = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += static_cast<long>(ullMilliseconds % 1000) * kMillisecondNs;
    deadline.tv_sec += static_cast<time_t>(ullMilliseconds / 1000) + deadline.tv_nsec / kSecondNs;
    deadline.tv_nsec %= kSecondNs;
    return deadline;
}

// A mutex with an explicit life: Create and Destroy return errno values; destroying one that is not there succeeds.
class CAPABILITY("mutex") CMutex {
  public:
    CMutex() = default;
    CMutex(const CMutex &) = delete;
    CMutex &operator=(const CMutex &) = delete;
    ~CMutex() { (void)Destroy(); }

    [[nodiscard]] int Create() {
        const int error = pthread_mutex_init(&m_mutex, nullptr);
        m_bCreated = error == 0;
        return error;
    }
    [[nodiscard]] int Destroy() {
        const int error = m_bCreated ? pthread_mutex_destroy(&m_mutex) : 0;
        m_bCreated = m_bCreated && error != 0;
        return error;
    }
    [[nodiscard]] bool IsCreated() const { return m_bCreated; }
    void Lock() ACQUIRE() { AbortOnLockError(pthread_mutex_lock(&m_mutex)); }
    void Unlock() RELEASE() { AbortOnLockError(pthread_mutex_unlock(&m_mutex)); }
    pthread_mutex_t *Handle() { return &m_mutex; }

  private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    bool m_bCreated = false;
};

// A condition used with a CMutex; waits end at an absolute time of the clock it was created with. Life as CMutex.
class CCondition {
  public:
    CCondition() = default;
    CCondition(const CCondition &) = delete;
    CCondition &operator=(const CCondition &) = delete;
    ~CCondition() { (void)Destroy(); }

    [[nodiscard]] int Create(clockid_t clock) {
        pthread_condattr_t attributes;
        int error = pthread_condattr_init(&attributes);
        if (error != 0) {
            return error;
        }
        error = pthread_condattr_setclock(&attributes, clock);
        if (error == 0) {
            error = pthread_cond_init(&m_cond, &attributes);
        }
        (void)pthread_condattr_destroy(&attributes);
        m_bCreated = error == 0;
        return error;
    }
    [[nodiscard]] int Destroy() {
        const int error = m_bCreated ? pthread_cond_destroy(&m_cond) : 0;
        m_bCreated = m_bCreated && error != 0;
        return error;
    }
    void Signal() { AbortOnLockError(pthread_cond_signal(&m_cond)); }
    void SignalAll() { AbortOnLockError(pthread_cond_broadcast(&m_cond)); }
    // False at the deadline, true for anything else that ends the wait.
    bool WaitUntil(CMutex &mutex, const timespec &deadline) REQUIRES(mutex) {
        return pthread_cond_timedwait(&m_cond, mutex.Handle(), &deadline) == 0;
    }

  private:
    pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
    bool m_bCreated = false;
};

// A reader-writer lock that prefers writers: with the default kind a few busy readers keep a writer out for minutes.
// The price: one thread must never take the read side twice. Life as CMutex.
class CAPABILITY("rwlock") CRwLock {
  public:
    CRwLock() = default;
    CRwLock(const CRwLock &) = delete;
    CRwLock &operator=(const CRwLock &) = delete;
    ~CRwLock() { (void)Destroy(); }

    [[nodiscard]] int Create() {
        pthread_rwlockattr_t attributes;
        int error = pthread_rwlockattr_init(&attributes);
        if (error != 0) {
            return error;
        }
        error = pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        if (error == 0) {
            error = pthread_rwlock_init(&m_lock, &attributes);
        }
        (void)pthread_rwlockattr_destroy(&attributes);
        m_bCreated = error == 0;
        return error;
    }
    [[nodiscard]] int Destroy() {
        const int error = m_bCreated ? pthread_rwlock_destroy(&m_lock) : 0;
        m_bCreated = m_bCreated && error != 0;
        return error;
    }
    void LockRead() ACQUIRE_SHARED() { AbortOnLockError(pthread_rwlock_rdlock(&m_lock)); }
    void LockWrite() ACQUIRE() { AbortOnLockError(pthread_rwlock_wrlock(&m_lock)); }
    void UnlockRead() RELEASE_SHARED() { AbortOnLockError(pthread_rwlock_unlock(&m_lock)); }
    void UnlockWrite() RELEASE() { AbortOnLockError(pthread_rwlock_unlock(&m_lock)); }

  private:
    pthread_rwlock_t m_lock = PTHREAD_RWLOCK_INITIALIZER;
    bool m_bCreated = false;
};

class SCOPED_CAPABILITY CMutexLock {
  public:
    explicit CMutexLock(CMutex &mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~CMutexLock() RELEASE() { m_mutex.Unlock(); }
    CMutexLock(const CMutexLock &) = delete;
    CMutexLock &operator=(const CMutexLock &) = delete;

  private:
    CMutex &m_mutex;
};

class SCOPED_CAPABILITY CReadLock {
  public:
    explicit CReadLock(CRwLock &lock) ACQUIRE_SHARED(lock) : m_lock(lock) { m_lock.LockRead(); }
    ~CReadLock() RELEASE() { m_lock.UnlockRead(); }
    CReadLock(const CReadLock &) = delete;
    CReadLock &operator=(const CReadLock &) = delete;

  private:
    CRwLock &m_lock;
};

class SCOPED_CAPABILITY CWriteLock {
  public:
    explicit CWriteLock(CRwLock &lock) ACQUIRE(lock) : m_lock(lock) { m_lock.LockWrite(); }
    ~CWriteLock() RELEASE() { m_lock.UnlockWrite(); }
    CWriteLock(const CWriteLock &) = delete;
    CWriteLock &operator=(const CWriteLock &) = delete;

  private:
    CRwLock &m_lock;
};

#endif
