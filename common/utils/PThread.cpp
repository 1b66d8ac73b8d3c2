#include "common/utils/PThread.h"

#include "common/utils/StdString.h"

#include <cstdint>
#include <stdexcept>

void PThread::start(const pthread_attr_t* attributes, const PThreadDelegateGeneric& delegate,
                    void* argument)
{
    const boost::shared_ptr<ThreadData> data(new ThreadData(delegate.clone(), argument));
    m_data = data;
    const int error =
        pthread_create(&m_handle, attributes, &PThread::_PThread_delegate_helper_function, this);
    if (error != 0) {
        CStdStr<char> text;
        text.Format("Failed to create thread: %d", error);
        throw std::runtime_error(text);
    }
    // Until the thread has taken its own reference it needs both this object and `data`.
    data->started.wait(data->signalled);
}

void* PThread::_PThread_delegate_helper_function(void* thread)
{
    boost::shared_ptr<ThreadData> data = static_cast<PThread*>(thread)->m_data.lock();
    if (!data) {
        return nullptr;
    }
    // From here on the PThread object may be gone.
    data->started.signal(data->signalled);
    const int result = data->delegate->Invoke(data->argument);
    data.reset();
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the number travels in the pointer
    return reinterpret_cast<void*>(static_cast<intptr_t>(result));
}

PThread::~PThread()
{
    detach();
}

int PThread::join()
{
    if (m_joined) {
        return 0;
    }
    void* result = nullptr;
    pthread_join(m_handle, &result);
    m_joined = true;
    return static_cast<int>(reinterpret_cast<intptr_t>(result));
}

void PThread::detach()
{
    if (!m_joined) {
        pthread_detach(m_handle);
        m_joined = true;
    }
}
