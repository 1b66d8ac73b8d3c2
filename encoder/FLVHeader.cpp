#include "encoder/FLVHeader.h"

#include "encoder/FFMpegStreamingProfile.h"
#include "plugin/BitTools.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

using zel::streamer::AudioPacketDescription;
using zel::streamer::MediumDescription;
using zel::streamer::OutputStreamDescription;
using zel::streamer::VideoPacketDescription;
using zel::streamer::writeBits;

namespace {

constexpr int fileHeaderSize = 13; ///< with the size of the tag before the first, which is 0
constexpr int flagsOffset = 4;
constexpr unsigned char audioFlag = 4;
constexpr unsigned char videoFlag = 1;

/// Wide enough for the longest tag.
constexpr int resultCapacity = 1024;

constexpr std::string_view tagName = "onMetaData";
constexpr unsigned long scriptTag = 0x12;
constexpr unsigned long amfNumber = 0x00;
constexpr unsigned long amfString = 0x02;
constexpr unsigned long amfArray = 0x08;

/// Writes big-endian values one behind the other.
class BitWriter
{
public:
    explicit BitWriter(unsigned char* out) : m_out(out) {}

    void number(unsigned long value, unsigned long bits)
    {
        writeBits(m_out, value, bits, m_position);
        m_position += bits;
    }

    void text(std::string_view text)
    {
        number(text.size(), 16);
        const auto bits = static_cast<unsigned long>(text.size()) * 8;
        writeBits(m_out, reinterpret_cast<const unsigned char*>(text.data()), bits, m_position);
        m_position += bits;
    }

    void real(double value)
    {
        std::uint64_t bits = 0;
        static_assert(sizeof bits == sizeof value);
        std::memcpy(&bits, &value, sizeof bits);
        number(static_cast<unsigned long>(bits >> 32), 32);
        number(static_cast<unsigned long>(bits & 0xFFFFFFFFU), 32);
    }

    int bytes() const { return static_cast<int>(m_position / 8); }

private:
    unsigned char* m_out;
    unsigned long m_position = 0; ///< bits
};

/// The entries of the tag's array.
class EntryWriter
{
public:
    explicit EntryWriter(BitWriter& writer) : m_writer(writer) {}

    void entry(std::string_view name, double value)
    {
        m_writer.text(name);
        m_writer.number(amfNumber, 8);
        m_writer.real(value);
        ++m_count;
    }

    unsigned long count() const { return m_count; }

private:
    BitWriter& m_writer;
    unsigned long m_count = 0;
};

/// The output's description of a stream that is both taken in and given out, else null.
const AudioPacketDescription* audioOf(const FFMpegStreamingProfile& profile)
{
    const OutputStreamDescription* output = profile.outputStream();
    const bool present = output->hasAudio() && profile.inputStream()->hasAudio();
    return present ? output->getAudio() : nullptr;
}

const VideoPacketDescription* videoOf(const FFMpegStreamingProfile& profile)
{
    const OutputStreamDescription* output = profile.outputStream();
    const bool present = output->hasVideo() && profile.inputStream()->hasVideo();
    return present ? output->getVideo() : nullptr;
}

std::string_view viewOf(const char* text)
{
    return text ? text : "";
}

double kilo(int value)
{
    return value / 1000.0;
}

/// Kept: a codec without a number of its own in FLV's old tables gets the data rate, which stood in
/// the same variable; players look at the stream itself.
double videoCodecId(const VideoPacketDescription& video, double dataRate)
{
    const std::string_view codec = viewOf(video.getCodec());
    if (codec == "flv") {
        return 2.0;
    }
    return codec == "vp6" ? 4.0 : dataRate;
}

unsigned long writeEntries(BitWriter& writer, const FFMpegStreamingProfile& profile)
{
    EntryWriter entries(writer);
    const MediumDescription* medium = profile.medium();
    const AudioPacketDescription* audio = audioOf(profile);
    const VideoPacketDescription* video = videoOf(profile);
    const unsigned long long durationMs = medium ? medium->getDuration() : 0;
    const double seconds = static_cast<double>(durationMs) / 1000.0;

    if (durationMs != 0) {
        entries.entry("duration", seconds);
    }
    // Kept: not quite 0, and the same after a seek; players take 0 for a value that is missing.
    entries.entry("starttime", 0.0001);
    if (durationMs != 0) {
        entries.entry("totalduration", seconds);
    }
    if (video) {
        entries.entry("width", video->getWidth());
        entries.entry("height", video->getHeight());
    }
    const double videoDataRate = video ? kilo(video->getBitrate()) : 0.0;
    entries.entry("videodatarate", videoDataRate);
    if (video) {
        entries.entry("videocodecid", videoCodecId(*video, videoDataRate));
    }
    entries.entry("audiodatarate", audio ? kilo(audio->getBitrate()) : 0.0);
    if (audio) {
        entries.entry("audiocodecid", viewOf(audio->getCodec()) == "libmp3lame" ? 2.0 : 0.0);
    }
    entries.entry("totaldatarate", kilo(profile.outputStream()->getBitrate()));
    if (video) {
        entries.entry("framerate", video->getFrameRate());
    }
    entries.entry("audiodelay", 0.0);
    entries.entry("bytelength", medium ? static_cast<double>(medium->getFileSize()) : 0.0);
    return entries.count();
}

} // namespace

void FLVHeader::process()
{
    // Of a stump that begins like a header nothing could be kept either.
    if (!m_input || m_inputSize < fileHeaderSize || std::memcmp(m_input, "FLV", 3) != 0 ||
        !m_profile) {
        return;
    }
    m_input[flagsOffset] = static_cast<unsigned char>((audioOf(*m_profile) ? audioFlag : 0) +
                                                      (videoOf(*m_profile) ? videoFlag : 0));
    m_output = new unsigned char[resultCapacity]();
    std::copy_n(m_input, fileHeaderSize, m_output);
    m_outputSize =
        fileHeaderSize + writeFLVHeader(m_output + fileHeaderSize, resultCapacity - fileHeaderSize);
}

int FLVHeader::writeFLVHeader(unsigned char* out, int /*room*/)
{
    constexpr unsigned long dataSizeBit = 8;
    constexpr int tagHeaderSize = 11;
    constexpr unsigned long entryCountBit = 200;

    BitWriter writer(out);
    writer.number(scriptTag, 8);
    writer.number(0, 24); // data size, known at the end
    writer.number(0, 24); // time stamp
    writer.number(0, 8);  // its upper byte
    writer.number(0, 24); // stream
    writer.number(amfString, 8);
    writer.text(tagName);
    writer.number(amfArray, 8);
    writer.number(0, 32); // number of entries, known at the end
    const unsigned long count = writeEntries(writer, *m_profile);
    // Kept: no end-of-object marker (00 00 09) follows. The array says how many entries it has, and
    // players in the field were built against this form.

    const auto tagSize = static_cast<unsigned long>(writer.bytes());
    writeBits(out, tagSize - tagHeaderSize, 24, dataSizeBit);
    writeBits(out, count, 32, entryCountBit);
    writer.number(tagSize, 32);
    return writer.bytes();
}
