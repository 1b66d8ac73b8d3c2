#pragma once

#include "common/utils/ThreadAnnotations.h"

#include <deque>
#include <map>
#include <pthread.h>
#include <time.h>
#include <vector>

/// Thin classes over the POSIX locks. Failures of the underlying calls are not checked, except by
/// the guards of PReadWriteLock. None of them can be copied.

/// One `pthread_mutex_t`. A recursive one may be locked again by the thread that holds it.
class ZEL_CAPABILITY("mutex") PMutex
{
public:
    enum Kind
    {
        Normal,
        Recursive
    };

    explicit PMutex(Kind kind = Normal);
    virtual ~PMutex();
    PMutex(const PMutex&) = delete;
    PMutex& operator=(const PMutex&) = delete;

    void lock() ZEL_ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() ZEL_RELEASE() { pthread_mutex_unlock(&m_mutex); }
    bool tryLock() ZEL_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&m_mutex) == 0; }

protected:
    friend class PCondition;

    pthread_mutex_t m_mutex;
};

/// Holds a PMutex for a scope. unlock() and lock() open a gap in it, on the guard's own thread.
class ZEL_SCOPED_CAPABILITY PMutexGuard
{
public:
    explicit PMutexGuard(PMutex& mutex) ZEL_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~PMutexGuard() ZEL_RELEASE()
    {
        if (m_held) {
            m_mutex.unlock();
        }
    }
    PMutexGuard(const PMutexGuard&) = delete;
    PMutexGuard& operator=(const PMutexGuard&) = delete;

    void unlock() ZEL_RELEASE()
    {
        m_held = false;
        m_mutex.unlock();
    }
    void lock() ZEL_ACQUIRE()
    {
        m_mutex.lock();
        m_held = true;
    }

private:
    PMutex& m_mutex;
    bool m_held = true;
};

/// A mutex with one condition. Two ways of use, which may be mixed:
/// under the lock, as a condition variable (no argument but the deadline); and, with a flag that
/// stands beside it and starts false, as a manual-reset event. The event operations take the lock
/// themselves; their flag may be a bool, or an atomic one where it is also read without the lock.
/// A bool flag that is passed to them is better left without ZEL_GUARDED_BY.
class PCondMutex : public PMutex
{
public:
    PCondMutex();
    ~PCondMutex() override;

    /// Waits for a wake-up, which may be spurious. The lock must be held once only.
    void wait() ZEL_REQUIRES(this) { pthread_cond_wait(&m_condition, &m_mutex); }
    /// @param absolute  wall-clock time, see zel::absoluteTimeAfter
    /// @return 0 after a wake-up, which may be spurious, or ETIMEDOUT
    int timedWait(const timespec& absolute) ZEL_REQUIRES(this);
    void broadcast() { pthread_cond_broadcast(&m_condition); }
    void notifyOne() { pthread_cond_signal(&m_condition); }

    template <class Flag>
    void signal(Flag& signalled) ZEL_EXCLUDES(this)
    {
        PMutexGuard guard(*this);
        signalled = true;
        broadcast();
    }

    template <class Flag>
    void reset(Flag& signalled) ZEL_EXCLUDES(this)
    {
        PMutexGuard guard(*this);
        signalled = false;
    }

    /// Returns at once when the flag is already set.
    template <class Flag>
    void wait(const Flag& signalled) ZEL_EXCLUDES(this)
    {
        PMutexGuard guard(*this);
        while (!signalled) {
            wait();
        }
    }

    /// @return 0 when the flag was set in time, otherwise ETIMEDOUT
    template <class Flag>
    int timedWait(const Flag& signalled, const timespec& absolute) ZEL_EXCLUDES(this)
    {
        PMutexGuard guard(*this);
        int result = 0;
        while (!signalled && result == 0) {
            result = timedWait(absolute);
        }
        return signalled ? 0 : result;
    }

protected:
    pthread_cond_t m_condition;
};

/// A condition on a mutex that it does not own and that outlives it. Several may share one mutex.
/// wait() needs the mutex held once by the caller; which mutex that is only the object knows, so
/// the annotations cannot say it.
class PCondition
{
public:
    explicit PCondition(PMutex& mutex);
    virtual ~PCondition();
    PCondition(const PCondition&) = delete;
    PCondition& operator=(const PCondition&) = delete;

    /// @param ms  at most this long; below 1 without a limit
    /// @return 0 after a wake-up, which may be spurious, or ETIMEDOUT
    int wait(int ms);
    void signal() { pthread_cond_signal(&m_condition); }
    void broadcast() { pthread_cond_broadcast(&m_condition); }

private:
    PMutex* m_mutex; ///< not owned
    pthread_cond_t m_condition;
};

/// One `pthread_rwlock_t` of the default kind, which prefers readers: the read side may be taken
/// again by a thread that holds it, even while a writer waits.
class ZEL_CAPABILITY("rwlock") PReadWriteLock
{
public:
    PReadWriteLock() { pthread_rwlock_init(&m_lock, nullptr); }
    virtual ~PReadWriteLock() { pthread_rwlock_destroy(&m_lock); }
    PReadWriteLock(const PReadWriteLock&) = delete;
    PReadWriteLock& operator=(const PReadWriteLock&) = delete;

    /// All three: 0, or the error number, such as EDEADLK for a thread that has the write side.
    int lockRead() ZEL_ACQUIRE_SHARED() { return pthread_rwlock_rdlock(&m_lock); }
    int lockWrite() ZEL_ACQUIRE() { return pthread_rwlock_wrlock(&m_lock); }
    int unlock() ZEL_RELEASE_GENERIC() { return pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock;
};

/// Holds the read side for a scope; unlocks only what it has really locked.
class ZEL_SCOPED_CAPABILITY PReadGuard
{
public:
    explicit PReadGuard(PReadWriteLock& lock) ZEL_ACQUIRE_SHARED(lock)
        : m_lock(lock), m_locked(lock.lockRead() == 0)
    {
    }
    ~PReadGuard() ZEL_RELEASE_GENERIC() { unlockOnce(); }
    PReadGuard(const PReadGuard&) = delete;
    PReadGuard& operator=(const PReadGuard&) = delete;

    /// Ends the hold before the scope does.
    void unlock() ZEL_RELEASE_GENERIC() { unlockOnce(); }
    bool locked() const { return m_locked; }

private:
    void unlockOnce() ZEL_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_locked) {
            m_locked = false;
            m_lock.unlock();
        }
    }

    PReadWriteLock& m_lock;
    bool m_locked;
};

/// Holds the write side for a scope; unlocks only what it has really locked.
class ZEL_SCOPED_CAPABILITY PWriteGuard
{
public:
    explicit PWriteGuard(PReadWriteLock& lock) ZEL_ACQUIRE(lock)
        : m_lock(lock), m_locked(lock.lockWrite() == 0)
    {
    }
    ~PWriteGuard() ZEL_RELEASE() { unlockOnce(); }
    PWriteGuard(const PWriteGuard&) = delete;
    PWriteGuard& operator=(const PWriteGuard&) = delete;

    /// Ends the hold before the scope does.
    void unlock() ZEL_RELEASE() { unlockOnce(); }
    bool locked() const { return m_locked; }

private:
    void unlockOnce() ZEL_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_locked) {
            m_locked = false;
            m_lock.unlock();
        }
    }

    PReadWriteLock& m_lock;
    bool m_locked;
};

/// Wakes one thread at a due time, which any thread may set or call off.
class PWaitableTimer : public PCondMutex
{
public:
    PWaitableTimer();

    /// Blocks until the due time of an armed timer has come, or until cancel().
    /// @return true when the due time came, false when cancelled
    bool waitUntilDue();
    /// @param due  wall-clock time, see zel::absoluteTimeAfter
    void arm(const timespec& due);
    /// Ends the present wait and all later ones, until restart().
    void cancel();
    /// Makes a cancelled timer usable again, not armed.
    void restart();

    timespec dueTime ZEL_GUARDED_BY(this); ///< wall-clock time; counts while armed
    bool armed ZEL_GUARDED_BY(this);
    bool cancelled ZEL_GUARDED_BY(this);
};

/// Containers with the lock and the condition that guard them. Their users lock and touch `items`.
template <class T>
class PVectorCondMutex : public PCondMutex
{
public:
    std::vector<T> items ZEL_GUARDED_BY(this);
};

template <class T>
class PQueueCondMutex : public PCondMutex
{
public:
    std::deque<T> items ZEL_GUARDED_BY(this);
};

template <class K, class V>
class PMapCondMutex : public PCondMutex
{
public:
    std::map<K, V> items ZEL_GUARDED_BY(this);
};
