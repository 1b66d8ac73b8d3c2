#pragma once

#include "common/utils/Locks.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <pthread.h>

/// What a thread runs.
class PThreadDelegateGeneric
{
public:
    virtual ~PThreadDelegateGeneric() = default;

    virtual int Invoke(void* argument) = 0;
    /// @return a copy on the heap, which the caller deletes
    virtual PThreadDelegateGeneric* clone() const = 0;
};

/// A member function of an object that outlives the thread's run.
template <class T>
class PThreadDelegateMember : public PThreadDelegateGeneric
{
public:
    using Function = int (T::*)(void*);

    PThreadDelegateMember(T* target, Function function) : m_target(target), m_function(function) {}

    int Invoke(void* argument) override { return (m_target->*m_function)(argument); }
    PThreadDelegateGeneric* clone() const override { return new PThreadDelegateMember(*this); }

private:
    T* m_target; ///< not owned
    Function m_function;
};

/// One thread, which runs from construction on. The owner joins it, or lets it go by destroying
/// the object: an unjoined thread runs on to its end. An object is used by one thread at a time,
/// but for isCurrent().
class PThread
{
public:
    /// Returns when the thread runs.
    /// @param attributes  null for the defaults
    /// @throws std::runtime_error  "Failed to create thread: %d" with the error number
    template <class T>
    PThread(const pthread_attr_t* attributes, T* target, int (T::*function)(void*), void* argument)
    {
        start(attributes, PThreadDelegateMember<T>(target, function), argument);
    }
    virtual ~PThread();
    PThread(const PThread&) = delete;
    PThread& operator=(const PThread&) = delete;

    /// Waits for the thread's end; a second call returns 0 at once.
    /// @return the result of the delegate
    int join();
    /// Lets the thread run on alone; join() has nothing to wait for then.
    void detach();
    /// True on the thread itself, which must detach instead of joining.
    bool isCurrent() const { return pthread_equal(m_handle, pthread_self()) != 0; }

private:
    /// Shared by the constructor and the new thread, and owned by the thread alone once it runs.
    struct ThreadData
    {
        ThreadData(PThreadDelegateGeneric* ownedDelegate, void* delegateArgument)
            : delegate(ownedDelegate), argument(delegateArgument)
        {
        }
        ~ThreadData() { delete delegate; }
        ThreadData(const ThreadData&) = delete;
        ThreadData& operator=(const ThreadData&) = delete;

        PThreadDelegateGeneric* delegate; ///< owned
        PCondMutex started;
        void* argument;
        bool signalled = false; ///< stands beside `started`
    };

    void start(const pthread_attr_t* attributes, const PThreadDelegateGeneric& delegate,
               void* argument);
    static void* _PThread_delegate_helper_function(void* thread);

    pthread_t m_handle = {};
    boost::weak_ptr<ThreadData> m_data;
    bool m_joined = false; ///< joined or detached
};
