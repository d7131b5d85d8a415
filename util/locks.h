// locks.h - the two kinds of lock, the condition that goes with a mutex, and one guard for each way of holding them.
//
// A lock or unlock call can fail only in a broken program; the process is stopped there, so that no caller checks it.
#ifndef TARN_UTIL_LOCKS_H
#define TARN_UTIL_LOCKS_H

#include "util/thread_annotations.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <pthread.h>

inline void AbortOnLockError(int iError) {
    if (iError != 0) {
        std::abort();
    }
}

// A moment on the monotonic clock, for waits that a wall clock set back must not stretch.
inline timespec DeadlineAfter(uint64_t ullMilliseconds, clockid_t clock = CLOCK_MONOTONIC) {
    constexpr long kMillisecondNs = 1000000;
    constexpr long kSecondNs = 1000 * kMillisecondNs;
    timespec deadline = {};
    (void)clock_gettime(clock, &deadline);
    deadline.tv_nsec += static_cast<long>(ullMilliseconds % 1000) * kMillisecondNs;
    deadline.tv_sec += static_cast<time_t>(ullMilliseconds / 1000) + deadline.tv_nsec / kSecondNs;
    deadline.tv_nsec %= kSecondNs;
    return deadline;
}

// A pthread object with an explicit life. The derived class creates it; Create and Destroy return errno values.
template <typename T, int (*pDestroy)(T *)> class CPthreadObject {
  public:
    CPthreadObject(const CPthreadObject &) = delete;
    CPthreadObject &operator=(const CPthreadObject &) = delete;

    // Succeeds for one that is not there. After a failure it still is.
    [[nodiscard]] int Destroy() {
        const int iError = m_bCreated ? pDestroy(&m_object) : 0;
        m_bCreated = m_bCreated && iError != 0;
        return iError;
    }

  protected:
    CPthreadObject() = default;
    ~CPthreadObject() { (void)Destroy(); } // fails only while somebody uses the object, and nobody may any more

    // Passes on the result of the call that was to create the object.
    [[nodiscard]] int NoteCreation(int iError) {
        m_bCreated = iError == 0;
        return iError;
    }

    T m_object = {};

  private:
    bool m_bCreated = false;
};

class CAPABILITY("mutex") CMutex : public CPthreadObject<pthread_mutex_t, pthread_mutex_destroy> {
  public:
    [[nodiscard]] int Create() { return NoteCreation(pthread_mutex_init(&m_object, nullptr)); }
    void Lock() ACQUIRE() { AbortOnLockError(pthread_mutex_lock(&m_object)); }
    void Unlock() RELEASE() { AbortOnLockError(pthread_mutex_unlock(&m_object)); }
    pthread_mutex_t *Handle() { return &m_object; }
};

// A condition used with a CMutex; waits end at an absolute time of the clock it was created with.
class CCondition : public CPthreadObject<pthread_cond_t, pthread_cond_destroy> {
  public:
    [[nodiscard]] int Create(clockid_t clock) {
        pthread_condattr_t attributes;
        int iError = pthread_condattr_init(&attributes);
        if (iError != 0) {
            return iError;
        }
        iError = pthread_condattr_setclock(&attributes, clock);
        if (iError == 0) {
            iError = pthread_cond_init(&m_object, &attributes);
        }
        (void)pthread_condattr_destroy(&attributes);
        return NoteCreation(iError);
    }
    void Signal() { AbortOnLockError(pthread_cond_signal(&m_object)); }
    void SignalAll() { AbortOnLockError(pthread_cond_broadcast(&m_object)); }
    // True when the wait ended before the deadline, by a signal or for no reason at all; false at the deadline and on
    // an error, so that a loop that waits for something cannot spin.
    [[nodiscard]] bool WaitUntil(CMutex &mutex, const timespec &deadline) REQUIRES(mutex) {
        return pthread_cond_timedwait(&m_object, mutex.Handle(), &deadline) == 0;
    }
};

// A reader-writer lock that prefers writers: with the default kind a few busy readers keep a writer out for minutes.
// The price: one thread must never take the read side twice.
class CAPABILITY("rwlock") CRwLock : public CPthreadObject<pthread_rwlock_t, pthread_rwlock_destroy> {
  public:
    [[nodiscard]] int Create() {
        pthread_rwlockattr_t attributes;
        int iError = pthread_rwlockattr_init(&attributes);
        if (iError != 0) {
            return iError;
        }
        iError = pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        if (iError == 0) {
            iError = pthread_rwlock_init(&m_object, &attributes);
        }
        (void)pthread_rwlockattr_destroy(&attributes);
        return NoteCreation(iError);
    }
    void LockRead() ACQUIRE_SHARED() { AbortOnLockError(pthread_rwlock_rdlock(&m_object)); }
    // False when it could not be had in that time. For CReadLockWithin.
    [[nodiscard]] bool LockReadWithin(uint64_t ullMilliseconds) {
        int iError = pthread_rwlock_tryrdlock(&m_object); // nearly always free, and then the clock is not asked
        if (iError == EBUSY) {
            iError = WaitForRead(ullMilliseconds);
        }
        AbortOnLockError(iError == ETIMEDOUT ? 0 : iError);
        return iError == 0;
    }
    void LockWrite() ACQUIRE() { AbortOnLockError(pthread_rwlock_wrlock(&m_object)); }
    void UnlockRead() RELEASE_SHARED() { AbortOnLockError(pthread_rwlock_unlock(&m_object)); }
    void UnlockWrite() RELEASE() { AbortOnLockError(pthread_rwlock_unlock(&m_object)); }

  private:
    int WaitForRead(uint64_t ullMilliseconds) {
#if defined(__SANITIZE_THREAD__) // which knows only the call that goes by the wall clock
        const timespec deadline = DeadlineAfter(ullMilliseconds, CLOCK_REALTIME);
        return pthread_rwlock_timedrdlock(&m_object, &deadline);
#else
        const timespec deadline = DeadlineAfter(ullMilliseconds);
        return pthread_rwlock_clockrdlock(&m_object, CLOCK_MONOTONIC, &deadline);
#endif
    }
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

// The same, unless it cannot be had in that time.
class SCOPED_CAPABILITY CReadLockWithin {
  public:
    CReadLockWithin(CRwLock &lock, uint64_t ullMilliseconds) ACQUIRE_SHARED(lock) NO_THREAD_SAFETY_ANALYSIS
        : m_lock(lock),
          m_bHeld(lock.LockReadWithin(ullMilliseconds)) {}
    ~CReadLockWithin() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (m_bHeld) {
            m_lock.UnlockRead();
        }
    }
    CReadLockWithin(const CReadLockWithin &) = delete;
    CReadLockWithin &operator=(const CReadLockWithin &) = delete;

    [[nodiscard]] bool IsHeld() const { return m_bHeld; } // else nothing that it guards may be touched

  private:
    CRwLock &m_lock;
    const bool m_bHeld;
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
