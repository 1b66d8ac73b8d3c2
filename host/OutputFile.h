#pragma once

#include <cstddef>
#include <string>

namespace zel::host {

/// A file that is written from start to end. What goes to a disk is written in blocks, a second or
/// so of a stream each; what goes elsewhere, as to a pipe or a device, is written at once. One
/// thread at a time.
class OutputFile
{
public:
    /// Makes the file, or empties it.
    /// @throws HostError
    explicit OutputFile(const std::string& path);
    /// Writes to a descriptor that stays open.
    OutputFile(int descriptor, std::string name);
    /// Writes what is left, but nobody learns of a failure: close() first.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// @throws HostError when not all of it could be written
    void write(const void* data, std::size_t size);
    /// @throws HostError when the system reports an earlier write as failed
    void close();

private:
    void writeBlock();
    void writeOut(const char* bytes, std::size_t size);

    std::string m_name;
    int m_descriptor;
    bool m_owned;
    bool m_inBlocks = false; ///< it is an ordinary file
    std::string m_block;     ///< not yet written
};

} // namespace zel::host
