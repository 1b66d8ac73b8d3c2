#include "common/utils/Locks.h"

#include "common/utils/Clock.h"

#include <cerrno>

namespace {

int waitUntil(pthread_cond_t& condition, pthread_mutex_t& mutex, const timespec& absolute)
{
    const timespec deadline = zel::monotonicDeadline(absolute);
    return pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &deadline);
}

} // namespace

PMutex::PMutex(Kind kind)
{
    if (kind == Normal) {
        pthread_mutex_init(&m_mutex, nullptr);
        return;
    }
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

PMutex::~PMutex()
{
    pthread_mutex_destroy(&m_mutex);
}

PCondMutex::PCondMutex()
{
    pthread_cond_init(&m_condition, nullptr);
}

PCondMutex::~PCondMutex()
{
    pthread_cond_destroy(&m_condition);
}

int PCondMutex::timedWait(const timespec& absolute)
{
    return waitUntil(m_condition, m_mutex, absolute);
}

PCondition::PCondition(PMutex& mutex) : m_mutex(&mutex)
{
    pthread_cond_init(&m_condition, nullptr);
}

PCondition::~PCondition()
{
    pthread_cond_destroy(&m_condition);
}

int PCondition::wait(int ms)
{
    if (ms < 1) {
        return pthread_cond_wait(&m_condition, &m_mutex->m_mutex);
    }
    return waitUntil(m_condition, m_mutex->m_mutex, zel::absoluteTimeAfter(ms));
}

PWaitableTimer::PWaitableTimer() : dueTime(), armed(false), cancelled(false) {}

bool PWaitableTimer::waitUntilDue()
{
    PMutexGuard guard(*this);
    while (!cancelled) {
        if (!armed) {
            wait();
        } else if (timedWait(dueTime) == ETIMEDOUT) {
            armed = false;
            return !cancelled;
        }
    }
    return false;
}

void PWaitableTimer::arm(const timespec& due)
{
    PMutexGuard guard(*this);
    dueTime = due;
    armed = true;
    notifyOne();
}

void PWaitableTimer::cancel()
{
    PMutexGuard guard(*this);
    cancelled = true;
    broadcast();
}

void PWaitableTimer::restart()
{
    PMutexGuard guard(*this);
    armed = false;
    cancelled = false;
}
