#pragma once

#include <cstddef>
#include <string>

namespace zel::host {

/// A file that is written from start to end, without a buffer: what was written is there for other
/// programs, and a full disk shows at once. One thread at a time.
class OutputFile
{
public:
    /// Makes the file, or empties it.
    /// @throws HostError
    explicit OutputFile(const std::string& path);
    /// Writes to a descriptor that stays open.
    OutputFile(int descriptor, std::string name);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// @throws HostError when not all of it could be written
    void write(const void* data, std::size_t size);
    /// @throws HostError when the system reports an earlier write as failed
    void close();

private:
    std::string m_name;
    int m_descriptor;
    bool m_owned;
};

} // namespace zel::host
