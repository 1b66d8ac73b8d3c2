#pragma once

#include "host/FrameSink.h"

#include <cstdio>
#include <string>

namespace zel::host {

/// Writes audio frames to a wav file.
///
/// A wav file has one format and at most 4 GiB. When the format changes or the file is full, the
/// next one begins: after "a.wav" comes "a-2.wav". The header says "to the end of the file" while
/// the file grows and gets the true sizes at the end, so that even the file of a killed process can
/// be read.
class WavWriter : public FrameSink
{
public:
    /// @param path      the file; "-" writes to the stream `out`
    /// @param sizeLimit bytes of samples in one file
    WavWriter(std::string path, FILE* out, unsigned long long sizeLimit = LargestData);
    ~WavWriter() override;

    void describe(const OutputStreamRecord& description) override;
    void take(const Frame& frame) override;
    void finish() override;

    static constexpr unsigned long long LargestData = 0xFFFFFF00ULL;

private:
    struct Format
    {
        int bits = 0;
        int sampleRate = 0;
        int channels = 0;
        bool operator==(const Format&) const = default;
        unsigned int blockSize() const { return static_cast<unsigned int>(channels * bits / 8); }
    };

    bool isStream() const { return m_path == "-"; }
    void openNext();
    void closeFile();
    void writeHeader(unsigned long long dataSize);
    void writeBytes(const void* data, size_t size);

    const std::string m_path;
    FILE* m_out; ///< not owned
    const unsigned long long m_sizeLimit;
    FILE* m_file = nullptr; ///< owned unless it is m_out
    std::string m_fileName;
    int m_fileCount = 0;
    Format m_format;
    unsigned long long m_dataSize = 0; ///< bytes of samples in the file
};

} // namespace zel::host
