#include "host/WavWriter.h"

#include "host/HostError.h"

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>

namespace zel::host {

namespace {

/// Builds the little-endian fields of a header.
class HeaderBytes
{
public:
    HeaderBytes& tag(const char* name)
    {
        m_bytes.append(name, 4);
        return *this;
    }
    HeaderBytes& u16(unsigned int value) { return number(value, 2); }
    HeaderBytes& u32(unsigned long long value) { return number(value, 4); }
    HeaderBytes& raw(std::string_view bytes)
    {
        m_bytes.append(bytes);
        return *this;
    }
    const std::string& get() const { return m_bytes; }

private:
    HeaderBytes& number(unsigned long long value, int size)
    {
        for (int i = 0; i < size; ++i) {
            m_bytes.push_back(static_cast<char>(value >> (8 * i)));
        }
        return *this;
    }

    std::string m_bytes;
};

constexpr unsigned int PcmTag = 1;
// A sub-format is a tag followed by these bytes.
constexpr std::string_view RestOfPcmGuid("\0\0\0\0\x10\0\x80\0\0\xAA\0\x38\x9B\x71", 14);
constexpr unsigned int ExtensibleTag = 0xFFFE;
constexpr unsigned long long UnknownSize = 0xFFFFFFFFULL;
// "WAVE" and the chunks before the samples: 12 + 48 + 8 bytes less the 8 of the RIFF header itself.
constexpr unsigned long long ExtensibleOverhead = 60;
constexpr unsigned long long PlainOverhead = 36;

/// Speakers of the usual layouts, in the order in which FFmpeg delivers their channels.
unsigned int speakerMask(int channels)
{
    switch (channels) {
    case 1:
        return 0x4;
    case 2:
        return 0x3;
    case 6:
        return 0x3F;
    case 8:
        return 0x63F;
    default:
        return 0; // not assigned to speakers
    }
}

} // namespace

WavWriter::WavWriter(std::string path, FILE* out, unsigned long long sizeLimit)
    : m_path(std::move(path)), m_out(out), m_sizeLimit(sizeLimit)
{
}

WavWriter::~WavWriter()
{
    try {
        closeFile();
    } catch (const HostError&) {
    }
}

void WavWriter::describe(const OutputStreamRecord& description)
{
    if (!description.hasAudio()) {
        throw HostError(m_path + ": The medium has no audio to write");
    }
    const AudioRecord& audio = description.audio;
    const Format format{audio.getBitsPerSample(), audio.getSampleRate(), audio.getChannels()};
    if (m_file != nullptr && format == m_format) {
        return;
    }
    if (format.blockSize() == 0 || format.sampleRate <= 0) {
        throw HostError(m_path + ": The medium's audio has no format that a wav file could hold");
    }
    closeFile();
    m_format = format;
    openNext();
}

void WavWriter::take(const Frame& frame)
{
    if (frame.type != streamer::PacketType::Audio || frame.size == 0) {
        return;
    }
    if (!isStream() && m_dataSize > 0 && m_dataSize + frame.size > m_sizeLimit) {
        closeFile();
        openNext();
    }
    writeBytes(frame.data, frame.size);
    m_dataSize += frame.size;
}

void WavWriter::finish()
{
    closeFile();
}

void WavWriter::openNext()
{
    ++m_fileCount;
    m_dataSize = 0;
    if (isStream()) {
        if (m_fileCount > 1) {
            throw HostError("standard output: The audio format changes, which needs a second file");
        }
        m_fileName = "standard output";
        m_file = m_out;
    } else {
        const std::filesystem::path first(m_path);
        const auto later =
            first.stem().string() + "-" + std::to_string(m_fileCount) + first.extension().string();
        m_fileName = m_fileCount == 1 ? m_path : (first.parent_path() / later).string();
        m_file = std::fopen(m_fileName.c_str(), "wbe");
        if (m_file == nullptr) {
            throw systemError(m_fileName, errno);
        }
    }
    writeHeader(UnknownSize);
}

void WavWriter::closeFile()
{
    FILE* file = std::exchange(m_file, nullptr);
    if (file == nullptr || isStream()) {
        return;
    }
    m_file = file;
    try {
        if (m_dataSize % 2 != 0) {
            writeBytes("", 1);
        }
        if (std::fseek(file, 0, SEEK_SET) == 0) { // a pipe keeps the size "unknown"
            writeHeader(m_dataSize);
        }
    } catch (const HostError&) {
        m_file = nullptr;
        std::fclose(file);
        throw;
    }
    m_file = nullptr;
    if (std::fclose(file) != 0) {
        throw systemError(m_fileName, errno);
    }
}

void WavWriter::writeHeader(unsigned long long dataSize)
{
    const bool extensible = m_format.channels > 2 || m_format.bits > 16;
    const unsigned long long overhead = extensible ? ExtensibleOverhead : PlainOverhead;
    const bool known = dataSize + overhead + 1 < UnknownSize;
    const unsigned int block = m_format.blockSize();
    HeaderBytes header;
    header.tag("RIFF").u32(known ? dataSize + dataSize % 2 + overhead : UnknownSize);
    header.tag("WAVE").tag("fmt ").u32(extensible ? 40 : 16);
    header.u16(extensible ? ExtensibleTag : PcmTag);
    header.u16(static_cast<unsigned int>(m_format.channels));
    header.u32(static_cast<unsigned int>(m_format.sampleRate));
    header.u32(static_cast<unsigned long long>(m_format.sampleRate) * block);
    header.u16(block).u16(static_cast<unsigned int>(m_format.bits));
    if (extensible) {
        header.u16(22).u16(static_cast<unsigned int>(m_format.bits));
        header.u32(speakerMask(m_format.channels)).u16(PcmTag);
        header.raw(RestOfPcmGuid);
    }
    header.tag("data").u32(known ? dataSize : UnknownSize);
    writeBytes(header.get().data(), header.get().size());
}

void WavWriter::writeBytes(const void* data, size_t size)
{
    if (std::fwrite(data, 1, size, m_file) != size) {
        throw systemError(m_fileName, errno);
    }
}

} // namespace zel::host
