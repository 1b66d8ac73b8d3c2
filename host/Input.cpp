#include "host/Input.h"

#include "common/utils/StdString.h"
#include "host/HostError.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace zel::host {

namespace {

constexpr std::size_t MostEvents = 1000;
constexpr int NotRenderable = 2;
constexpr int NotReached = 404; // also where there was no answer with such a status

/// What is wrong with a local file as far as the system can tell; "" when it can be read.
std::string fileTrouble(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0) {
        return std::generic_category().message(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return std::generic_category().message(EISDIR);
    }
    if (S_ISREG(status.st_mode) && status.st_size == 0) {
        return "The file is empty";
    }
    return {};
}

/// What the network client found, in words; "" when it has said nothing.
std::string networkTrouble(const MediumRecord& medium, const ErrorRecord& error)
{
    std::string found = error.earlier.value_or("");
    constexpr std::string_view WithoutStatus = " error 0";
    const bool isAnswered = found.size() < WithoutStatus.size() ||
                            found.substr(found.size() - WithoutStatus.size()) != WithoutStatus;
    if (isAnswered) {
        return found;
    }
    return ssicmp(medium.protocol.c_str(), "https://") == 0
               ? "No answer, or a certificate that is not trusted; \"cacert.pem\" in the working "
                 "folder names whom to trust"
               : "No answer";
}

} // namespace

Input::Input(const Library& library, StopSignal& stop) : m_stop(stop), m_plugin(library.makeInput())
{
    m_stop.setAction([this] { m_plugin->stop(); });
}

Input::~Input()
{
    m_stop.setAction(nullptr);
    m_plugin->stop();
    m_plugin->close();
}

void Input::setMedium(const std::string& medium, int decoderThreads)
{
    m_name = medium;
    m_medium = MediumRecord(medium);
    // A relative name with a colon would look like a URL to the demuxers.
    if (m_medium.protocol.empty() && !medium.empty()) {
        m_medium.url = std::filesystem::absolute(medium);
    }
    if (decoderThreads > 0) {
        m_medium.setProperty("decoderThreads", std::to_string(decoderThreads).c_str());
    }
}

void Input::open()
{
    ErrorRecord error;
    // Only close ends an open that waits for a network.
    m_stop.setAction([this] { m_plugin->close(); });
    const bool opened = m_isOpen ? m_plugin->updateMedium(&m_medium, &error, nullptr)
                                 : m_plugin->open(&m_medium, &error, nullptr);
    m_stop.setAction([this] { m_plugin->stop(); });
    m_isOpen = opened;
    if (!opened) {
        m_plugin->close();
        throw openError(error);
    }
    m_plugin->setInputEventCallback(&Input::_inputEvent, this);
}

HostError Input::openError(const ErrorRecord& error) const
{
    if (m_stop.isRequested()) {
        return HostError(m_name + ": Interrupted");
    }
    std::string detail =
        m_medium.protocol.empty() ? fileTrouble(m_medium.url) : networkTrouble(m_medium, error);
    const bool isPlainCode = error.code == NotRenderable || error.code == NotReached;
    if (detail.empty() && error.code && !isPlainCode) {
        detail = "code " + std::to_string(*error.code);
    }
    const std::string reason = error.message.value_or("The medium could not be opened");
    return HostError(m_name + ": " + reason + (detail.empty() ? "" : " (" + detail + ")"));
}

bool Input::read(Frame& frame)
{
    // An input leaves what it has nothing to say about as it was.
    frame = Frame();
    return m_plugin->readFrame(frame.type, frame.data, frame.size, frame.timestampUs,
                               frame.durationUs, frame.context, frame.keyFrame);
}

void Input::release(Frame& frame)
{
    m_plugin->freeFrame(frame.data, frame.context);
    frame.data = nullptr;
    frame.context = nullptr;
}

MediumRecord Input::describeMedium()
{
    MediumRecord record = m_medium;
    m_plugin->getMediumDescription(&record);
    return record;
}

OutputStreamRecord Input::describeInput()
{
    OutputStreamRecord record;
    m_plugin->getInputStreamDescription(&record);
    return record;
}

OutputStreamRecord Input::describeOutput()
{
    OutputStreamRecord record;
    m_plugin->getOutputStreamDescription(&record);
    return record;
}

std::vector<streamer::InputEvent::Enum> Input::events() const
{
    const std::lock_guard guard(m_eventLock);
    return m_events;
}

bool Input::isBroken() const
{
    const auto all = events();
    return std::find(all.begin(), all.end(), streamer::InputEvent::BrokenStream) != all.end();
}

std::optional<unsigned int> Input::bufferPercent()
{
    unsigned int percent = 0;
    if (!m_plugin->getInputBufferStatus(percent)) {
        return std::nullopt;
    }
    return percent;
}

void Input::_inputEvent(streamer::InputEvent::Enum event, int, int, void* self)
{
    auto& input = *static_cast<Input*>(self);
    const std::lock_guard guard(input.m_eventLock);
    if (input.m_events.size() < MostEvents) {
        input.m_events.push_back(event);
    }
}

} // namespace zel::host
