#include "host/Stage.h"

#include "host/HostError.h"

namespace zel::host {

Stage::Stage(const Library& library, const char* name) : m_plugin(library.makeStage(name))
{
    if (!m_plugin) {
        throw HostError(std::string("the library has no stage ") + name);
    }
}

Stage::~Stage()
{
    stop();
    m_plugin->close();
}

int Stage::init(const MediumRecord& medium, const InputStreamRecord& input,
                const RequestedStreamRecord& requested, const PropertyMap& options)
{
    return m_plugin->init(&medium, &input, &requested, &options, nullptr);
}

OutputStreamRecord Stage::describe()
{
    OutputStreamRecord record;
    m_plugin->getOutputStreamDescription(&record);
    return record;
}

bool Stage::start()
{
    return m_plugin->start() != 0;
}

void Stage::write(streamer::SamplePacket* packet)
{
    if (m_plugin->write(packet) == 0) {
        // Refused, so it is still ours.
        packet->release();
    }
}

void Stage::resetPosition(unsigned long long positionMs)
{
    const std::lock_guard<std::mutex> control(m_control);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped) {
            return;
        }
        m_resetting = true;
        ++m_resets;
    }
    m_plugin->resetPosition(positionMs);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_resetting = false;
    }
    m_resetOver.notify_all();
}

bool Stage::read(Frame& frame)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_resetOver.wait(lock, [this] { return !m_resetting; });
        if (m_stopped) {
            return false;
        }
        const unsigned int resets = m_resets;
        lock.unlock();
        frame = Frame();
        const bool hasFrame =
            m_plugin->readFrame(frame.type, frame.data, frame.size, frame.timestampUs,
                                frame.durationUs, frame.context, frame.keyFrame);
        if (hasFrame) {
            return true;
        }
        lock.lock();
        if (m_resets == resets) {
            return false;
        }
    }
}

void Stage::release(Frame& frame)
{
    m_plugin->freeFrame(frame.data, frame.context);
    frame = Frame();
}

void Stage::stop()
{
    const std::lock_guard<std::mutex> control(m_control);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
    }
    m_plugin->stop();
}

} // namespace zel::host
