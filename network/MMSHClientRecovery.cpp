#include "common/utils/CBBLog.h"
#include "common/utils/Clock.h"
#include "network/MMSHClient.h"

#include <stdexcept>
#include <utility>

namespace zel {

namespace {

/// A stream that broke before so many bytes never really worked.
constexpr unsigned long long worthResuming = 32000;
constexpr int attempts = 3;
constexpr int closePollMs = 20;
/// In place of a byte position's upper half: the position counts, and not the time.
constexpr unsigned int byBytes = 0xffffffffU;

} // namespace

// -------------------------------------------------------------------------------------------------
// The end of a transfer.

void MMSHClient::endOfFileCallback()
{
    CBBLog::debug("MMSHClient::endOfFileCallback");
    m_headerEvent.signal(m_transferOver);
    if (m_stopped) {
        CBBLog::debug("MMSHClient::endOfFileCallback m_stopEvent");
        return;
    }
    if (m_receivedEOF) {
        CBBLog::debug("MMSHClient::endOfFileCallback m_receivedEOF");
        return;
    }
    if (noteEndWhileSeeking()) {
        CBBLog::debug("MMSHClient::endOfFileCallback m_seeking");
        return;
    }
    bool ended = false;
    {
        PReadGuard guard(m_lock);
        ended = m_reader != nullptr && m_reader->hasReachedEOF();
    }
    if (ended) {
        CBBLog::debug("MMSHClient::endOfFileCallback hasReachedEOF");
        m_contentLength = m_bytesReceived.load();
        fireConnectionEvent(ConnectionEvent::END_OF_FILE_RECEIVED);
        return;
    }
    if (m_bytesReceived < worthResuming) {
        CBBLog::debug("MMSHClient::endOfFileCallback no data received");
        {
            // The owner drops an event during a seek, and its reader would wait for ever.
            PReadGuard guard(m_lock);
            if (m_buffer != nullptr) {
                m_buffer->close();
            }
        }
        fireConnectionEvent(ConnectionEvent::BROKEN_STREAM);
        return;
    }
    CBBLog::debug("MMSHClient::endOfFileCallback: Broken stream detected");
    recoverStream();
}

/// The end of the old transfer means nothing then. One of the new transfer is for the seek to
/// handle, when it has finished.
bool MMSHClient::noteEndWhileSeeking()
{
    PMutexGuard guard(m_recoverEvent);
    if (m_seeking) {
        m_endedWhileSeeking = true;
    }
    return m_seeking;
}

// -------------------------------------------------------------------------------------------------
// Whose turn it is with the connection.

/// Waits for it. Recovery gives way to everybody and a seek to an open: their requests are ended
/// again and again, since a close that comes between two steps of theirs may find nothing to end.
/// From here on no recovery begins.
void MMSHClient::claimConnection(ConnectionHolder wanted)
{
    PMutexGuard guard(m_recoverEvent);
    ++m_seekers;
    m_seeking = true;
    m_cancelRecovery = true;
    while (m_holder != ConnectionHolder::NOBODY) {
        if (m_holder < wanted) {
            guard.unlock();
            {
                PReadGuard readGuard(m_lock);
                if (m_requestHandler != nullptr) {
                    m_requestHandler->close();
                }
            }
            guard.lock();
        }
        if (m_holder != ConnectionHolder::NOBODY) {
            m_recoverEvent.timedWait(absoluteTimeAfter(closePollMs));
        }
    }
    m_holder = wanted;
    m_brokenAgain = false;
    m_bytesAtBreak = 0;
}

/// Transfers' ends count again, also one that has come already.
void MMSHClient::releaseConnection(bool succeeded)
{
    bool ended = false;
    {
        PMutexGuard guard(m_recoverEvent);
        m_holder = ConnectionHolder::NOBODY;
        --m_seekers;
        m_seeking = m_seekers > 0;
        ended = succeeded && !m_seeking && m_endedWhileSeeking;
        m_endedWhileSeeking = false;
        m_recoverEvent.broadcast();
    }
    if (ended) {
        endOfFileCallback(); // it was faster than this thread
    }
}

// -------------------------------------------------------------------------------------------------
// A new request in the same stream.

/// Without leaving any trace of its end.
void MMSHClient::endTransfer()
{
    m_requestHandler->close();
    forgetEnds();
}

void MMSHClient::forgetEnds()
{
    PMutexGuard guard(m_recoverEvent);
    m_brokenAgain = false;
    m_endedWhileSeeking = false;
}

bool MMSHClient::performMMSHSeek(long long offset, long long timeMs)
{
    PReadGuard guard(m_lock);
    if (m_requestHandler == nullptr) {
        return false;
    }
    endTransfer();
    m_pendingSize = 0;
    m_endSeen = false;
    m_requestHandler->setTimeSeekable(m_seekable);
    m_requestHandler->clearRawHeaders();
    CStdStr<char> position;
    if (timeMs < 0) {
        position.Format("stream-time=0,stream-offset=%u:%u", byBytes,
                        static_cast<unsigned int>(offset));
    } else {
        position.Format("stream-time=%u,stream-offset=0:0", static_cast<unsigned int>(timeMs));
    }
    addRequestHeaders(position.c_str(), static_cast<unsigned int>(m_streamDuration.load()));
    return m_requestHandler->seek(static_cast<unsigned long long>(offset), timeMs);
}

// -------------------------------------------------------------------------------------------------
// Recovery of a broken stream.

/// On the transfer thread. A thread that is still at work takes the break over.
void MMSHClient::recoverStream()
{
    PMutexGuard guard(m_recoverEvent);
    if (m_stopped || m_seeking) {
        return;
    }
    if (m_recovering) {
        m_brokenAgain = true;
        return;
    }
    if (m_recoverThread) {
        m_recoverThread->join(); // it has left all locks
        m_recoverThread.reset();
    }
    m_cancelRecovery = false;
    m_recovering = true;
    m_holder = ConnectionHolder::RECOVERY;
    try {
        m_recoverThread =
            std::make_unique<PThread>(nullptr, this, &MMSHClient::runRecovery, nullptr);
    } catch (const std::runtime_error& e) {
        CBBLog::error("MMSHClient::endOfFileCallback : %s", e.what());
        m_recovering = false;
        m_holder = ConnectionHolder::NOBODY;
        guard.unlock();
        fireConnectionEvent(ConnectionEvent::BROKEN_STREAM);
    }
}

int MMSHClient::runRecovery(void* argument)
{
    recoverBrokenStreamThread(argument);
    return 0;
}

void MMSHClient::recoverBrokenStreamThread(void* /*argument*/)
{
    do {
        CBBLog::debug("MMSHClient::recoverBrokenStreamThread");
        const bool broken = !resumeStream();
        {
            PMutexGuard guard(m_recoverEvent);
            leaveConnectionLocked();
        }
        // Nobody waits for this thread now, but for its end: the owner may take its time.
        if (broken) {
            fireConnectionEvent(ConnectionEvent::BROKEN_STREAM);
        }
    } while (takeBreak());
}

/// @return false when the server stays away; true also when somebody else takes the stream over
bool MMSHClient::resumeStream()
{
    const Operation operation(*this);
    while (!isRecoveryOff()) {
        if (!countAttempt()) {
            PReadGuard guard(m_lock);
            if (m_requestHandler != nullptr) {
                endTransfer();
            }
            if (m_buffer != nullptr) {
                m_buffer->close();
            }
            return isRecoveryOff();
        }
        if (performMMSHSeek(static_cast<long long>(m_bytesReceived.load()), -1) && isResumed()) {
            return true;
        }
    }
    return true;
}

/// Three attempts in a row may come to nothing: requests that fail, and answers that break before
/// they bring any more of the stream.
/// @return false when there is none left
bool MMSHClient::countAttempt()
{
    PMutexGuard guard(m_recoverEvent);
    if (m_bytesReceived != m_bytesAtBreak) {
        m_bytesAtBreak = m_bytesReceived;
        m_retries = attempts;
        return true;
    }
    --m_retries;
    CBBLog::debug("MMSHClient::recoverBrokenStreamThread failed, %d retries remaining", m_retries);
    return m_retries > 0;
}

/// @return false when the new transfer has already broken, too
bool MMSHClient::isResumed()
{
    PMutexGuard guard(m_recoverEvent);
    if (!m_brokenAgain) {
        leaveConnectionLocked();
    }
    return !m_brokenAgain;
}

/// The recovery thread's end of its turn, unless it has ended it already.
void MMSHClient::leaveConnectionLocked()
{
    if (m_holder == ConnectionHolder::RECOVERY) {
        m_holder = ConnectionHolder::NOBODY;
        m_recoverEvent.broadcast();
    }
}

/// The recovery thread's last question: whether there was a break while it was still busy.
bool MMSHClient::takeBreak()
{
    PMutexGuard guard(m_recoverEvent);
    if (m_brokenAgain && !m_stopped && !m_seeking) {
        m_brokenAgain = false;
        m_cancelRecovery = false;
        m_holder = ConnectionHolder::RECOVERY;
        return true;
    }
    m_recovering = false;
    return false;
}

void MMSHClient::joinRecovery()
{
    std::unique_ptr<PThread> thread;
    {
        PMutexGuard guard(m_recoverEvent);
        thread = std::move(m_recoverThread);
    }
    if (thread) {
        thread->join();
    }
}

// -------------------------------------------------------------------------------------------------
// The keep-alive loop of a paused stream.

void MMSHClient::startKeepAlive()
{
    PMutexGuard guard(m_keepAliveEvent);
    m_keepAliveThread =
        std::make_unique<PThread>(nullptr, this, &MMSHClient::runKeepAlive, nullptr);
}

int MMSHClient::runKeepAlive(void* argument)
{
    keepAliveThread(argument);
    return 0;
}

void MMSHClient::keepAliveThread(void* /*argument*/)
{
    const std::unique_ptr<HTTPRequestHandler> handler(getRequestHandler());
    // The answer is no part of the stream.
    handler->setWriteCallback([](unsigned char* /*data*/, unsigned long long size) {
        return static_cast<long long>(size);
    });
    handler->setEndOfFileCallback(HTTPRequestHandler::EndOfFileCallback());
    {
        PMutexGuard guard(m_keepAliveEvent);
        m_keepAliveHandler = handler.get();
    }
    while (awaitKeepAlive() && sendKeepAlive(*handler)) {
    }
    PMutexGuard guard(m_keepAliveEvent);
    m_keepAliveHandler = nullptr;
    m_keepAliveEvent.broadcast();
}

/// @return whether a request is due; the loop ends otherwise
bool MMSHClient::awaitKeepAlive()
{
    m_stopEvent.timedWait(m_stopped, absoluteTimeAfter(m_keepAliveWaitMs));
    return !m_stopped && m_receivedEOF;
}

bool MMSHClient::sendKeepAlive(HTTPRequestHandler& handler)
{
    CBBLog::debug("MMSHClient::keepAliveThread - sending keepAlive");
    handler.clearRawHeaders();
    handler.addRawHeader("Pragma", "xKeepAliveInPause=1");
    handler.addRawHeader("Pragma", clientId);
    handler.setPostRequest(true);
    if (!handler.open(getUrl())) {
        return false;
    }
    handler.close();
    return true;
}

/// A request under way would end only with its time-out.
void MMSHClient::stopKeepAlive()
{
    std::unique_ptr<PThread> thread;
    {
        PMutexGuard guard(m_keepAliveEvent);
        thread = std::move(m_keepAliveThread);
        while (m_keepAliveHandler != nullptr) {
            m_keepAliveHandler->close();
            m_keepAliveEvent.timedWait(absoluteTimeAfter(closePollMs));
        }
    }
    if (thread) {
        thread->join();
    }
}

} // namespace zel
