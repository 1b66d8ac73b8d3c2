#include "buffers/CircularFileHistoryBuffer.h"

#include "common/utils/CBBLog.h"
#include "common/utils/CFileTools.h"
#include "common/utils/FilePath.h"

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <sys/stat.h>

namespace {

/// `fclose` for a shared file, at most once: the one who closes it for all cannot take the others'
/// references away, and the last of them would close it again.
class CloseOnce
{
public:
    void operator()(FILE* file)
    {
        if (!m_closed) {
            m_closed = true;
            std::fclose(file);
        }
    }
    bool isClosed() const { return m_closed; }

private:
    bool m_closed = false;
};

bool isRegularFile(const CStdStr<char>& path)
{
    struct stat facts = {};
    return path.find('\0') == std::string::npos && stat(path.c_str(), &facts) == 0 &&
           S_ISREG(facts.st_mode);
}

/// @return false for a file without an end to seek to
bool measure(FILE* file, unsigned long long& size)
{
    if (std::fseek(file, 0, SEEK_END) != 0) {
        return false;
    }
    const long end = std::ftell(file);
    if (end < 0 || std::fseek(file, 0, SEEK_SET) != 0) {
        return false;
    }
    size = static_cast<unsigned long long>(end);
    return true;
}

} // namespace

PMutex FileBufferHandle::s_lock;

FileBufferHandle::FileBufferHandle(const boost::shared_ptr<FILE>& file, const CStdStr<char>& path,
                                   unsigned long long size)
    : m_file(file), m_path(path), m_offset(0), m_size(size)
{
}

FileBufferHandle::~FileBufferHandle()
{
    FileBufferHandle::close();
}

boost::shared_ptr<FILE> FileBufferHandle::open(const CStdStr<char>& path, const char* mode)
{
    FILE* file = std::fopen(path.c_str(), mode);
    if (file == nullptr) {
        return boost::shared_ptr<FILE>();
    }
    return boost::shared_ptr<FILE>(file, CloseOnce());
}

void FileBufferHandle::closeForAll(const boost::shared_ptr<FILE>& file)
{
    PMutexGuard guard(s_lock);
    if (auto* closer = boost::get_deleter<CloseOnce>(file)) {
        (*closer)(file.get());
    }
}

void FileBufferHandle::close()
{
    PMutexGuard guard(s_lock);
    m_file.reset();
}

FILE* FileBufferHandle::positioned(unsigned long long offset)
{
    const auto* closer = boost::get_deleter<CloseOnce>(m_file);
    if (m_file == nullptr || (closer != nullptr && closer->isClosed())) {
        return nullptr;
    }
    FILE* file = m_file.get();
    if (std::fseek(file, static_cast<long>(offset), SEEK_SET) != 0) {
        return nullptr;
    }
    // Another cursor's failure is not this one's.
    std::clearerr(file);
    return file;
}

long long FileBufferHandle::seek(unsigned long long offset)
{
    PMutexGuard guard(s_lock);
    FILE* file = positioned(offset);
    if (file == nullptr) {
        return -1;
    }
    std::fflush(file);
    m_offset = offset;
    return static_cast<long long>(offset);
}

long long FileBufferHandle::read(char* dst, unsigned long long n)
{
    PMutexGuard guard(s_lock);
    FILE* file = positioned(m_offset);
    if (file == nullptr || m_size == 0) {
        return -1;
    }
    const std::size_t k = std::fread(dst, 1, n, file);
    if (k < n && std::ferror(file) != 0) {
        return -1;
    }
    m_offset += k % m_size;
    return static_cast<long long>(k);
}

long long FileBufferHandle::write(const char* src, unsigned long long n)
{
    PMutexGuard guard(s_lock);
    FILE* file = positioned(m_offset);
    if (file == nullptr || m_size == 0) {
        return -1;
    }
    const std::size_t k = std::fwrite(src, 1, n, file);
    // Now, so that another cursor finds the bytes.
    if (std::fflush(file) != 0) {
        return -1;
    }
    m_offset += k % m_size;
    return static_cast<long long>(k);
}

CircularFileHistoryBuffer* CircularFileHistoryBuffer::create(unsigned long long bufferSize,
                                                             unsigned long long minimumHistorySize)
{
    auto buffer = std::make_unique<CircularFileHistoryBuffer>(bufferSize, minimumHistorySize);
    return buffer->createFromTemporaryFile() ? buffer.release() : nullptr;
}

CircularFileHistoryBuffer* CircularFileHistoryBuffer::create(const CStdStr<char>& path,
                                                             bool writable)
{
    auto buffer = std::make_unique<CircularFileHistoryBuffer>(0, 0);
    return buffer->createFromFile(path, writable) ? buffer.release() : nullptr;
}

CircularFileHistoryBuffer::CircularFileHistoryBuffer(unsigned long long bufferSize,
                                                     unsigned long long minimumHistorySize)
    : CircularHistoryBuffer(bufferSize, minimumHistorySize)
{
}

CircularFileHistoryBuffer::~CircularFileHistoryBuffer()
{
    CircularFileHistoryBuffer::close();
    if (m_deleteOnClose && !m_path.empty()) {
        CFileTools::DeleteFile(m_path);
    }
    m_path.clear();
}

bool CircularFileHistoryBuffer::createFromTemporaryFile()
{
    PMutexGuard guard(m_mutex);
    m_writable = true;
    m_deleteOnClose = true;
    CStdStr<char> folder = CFileTools::getTmpFolder("ZelStreamCache");
    if (folder.empty()) {
        folder = CFileTools::getTmpFolder();
    }
    CStdStr<char> path;
    boost::shared_ptr<FILE> file;
    for (unsigned counter = 0; file == nullptr; ++counter) {
        path.Format("%s%u.tmp", folder.c_str(), counter);
        boost::system::error_code ignored;
        if (boost::filesystem::exists(zel::toPath(path), ignored)) {
            continue;
        }
        // Only as a new file: a name that was just free may be a link to somebody's file now.
        file = FileBufferHandle::open(path, "wb+xe");
        if (file == nullptr && errno != EEXIST) {
            CBBLog::warn(
                "CircularFileHistoryBuffer::CircularFileHistoryBuffer handle creation failed %s",
                path.c_str());
            return false;
        }
    }
    install(file, path);
    CBBLog::debug("CircularFileHistoryBuffer::create file created %s", path.c_str());
    return true;
}

bool CircularFileHistoryBuffer::createFromFile(const CStdStr<char>& path, bool writable)
{
    PMutexGuard guard(m_mutex);
    m_writable = writable;
    m_deleteOnClose = false;
    boost::shared_ptr<FILE> file;
    unsigned long long size = 0;
    // A pipe would block in here, and a folder has no bytes.
    if (isRegularFile(path)) {
        file = FileBufferHandle::open(path, writable ? "rb+e" : "rbe");
    }
    if (file == nullptr || !measure(file.get(), size)) {
        CBBLog::warn(
            "CircularFileHistoryBuffer::CircularFileHistoryBuffer handle creation failed %s",
            path.c_str());
        return false;
    }
    m_bufferSize = size;
    m_writePosition = size;
    m_totalBytesWritten = size;
    m_minimumHistorySize = size;
    install(file, path);
    if (!m_writable) {
        m_endOfStream = true;
    }
    CBBLog::debug("CircularFileHistoryBuffer::create file created %s", path.c_str());
    return true;
}

void CircularFileHistoryBuffer::install(const boost::shared_ptr<FILE>& file,
                                        const CStdStr<char>& path)
{
    m_file = file;
    delete m_handle;
    m_handle = new FileBufferHandle(file, path, m_bufferSize);
    m_path = path;
}

bool CircularFileHistoryBuffer::reopen()
{
    closeHandle();
    PMutexGuard guard(m_mutex);
    const boost::shared_ptr<FILE> file = FileBufferHandle::open(m_path, "rbe");
    if (file == nullptr) {
        CBBLog::warn("[CircularFileHistoryBuffer::reopen] failed to open %s", m_path.c_str());
        return false;
    }
    m_file = file;
    m_endOfStream = true;
    return true;
}

/// The mutex is its caller's matter.
BufferHandle* CircularFileHistoryBuffer::getBufferReaderHandle() ZEL_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_path.empty() || m_handle == nullptr) {
        return nullptr;
    }
    return new FileBufferHandle(m_file, m_path, m_bufferSize);
}

void CircularFileHistoryBuffer::close()
{
    CircularHistoryBuffer::close();
    PMutexGuard guard(m_mutex);
    m_file.reset();
}

void CircularFileHistoryBuffer::closeHandle()
{
    {
        PMutexGuard guard(m_mutex);
        if (m_file != nullptr) {
            FileBufferHandle::closeForAll(m_file);
        }
    }
    close();
}

void CircularFileHistoryBuffer::closeFIXMEBUG27009()
{
    CircularHistoryBuffer::close();
}

CStdStr<char> CircularFileHistoryBuffer::getPath()
{
    PMutexGuard guard(m_mutex);
    return m_path;
}
