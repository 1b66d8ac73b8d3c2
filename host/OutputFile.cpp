#include "host/OutputFile.h"

#include "host/HostError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace zel::host {

namespace {

constexpr std::size_t BlockBytes = std::size_t{256} << 10;

} // namespace

OutputFile::OutputFile(const std::string& path)
    : m_name(path),
      m_descriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
      m_owned(true)
{
    if (m_descriptor < 0) {
        throw systemError(m_name, errno);
    }
    struct stat status = {};
    m_inBlocks = fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

OutputFile::OutputFile(int descriptor, std::string name)
    : m_name(std::move(name)), m_descriptor(descriptor), m_owned(false)
{
}

OutputFile::~OutputFile()
{
    try {
        close();
    } catch (const HostError&) {
        // Told by close() to who asked.
    }
}

void OutputFile::write(const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const char*>(data);
    if (!m_inBlocks) {
        writeOut(bytes, size);
        return;
    }
    m_block.append(bytes, size);
    if (m_block.size() >= BlockBytes) {
        writeBlock();
    }
}

void OutputFile::writeBlock()
{
    std::string block;
    block.swap(m_block); // gone when it cannot be written
    writeOut(block.data(), block.size());
    block.clear();
    m_block.swap(block);
}

void OutputFile::writeOut(const char* bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(m_descriptor, bytes, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            throw systemError(m_name, written < 0 ? errno : EIO);
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
}

void OutputFile::close()
{
    if (!m_owned || m_descriptor < 0) {
        return;
    }
    writeBlock();
    if (::close(std::exchange(m_descriptor, -1)) != 0) {
        throw systemError(m_name, errno);
    }
}

} // namespace zel::host
