#include "common/dax/DaxSatellite.h"
#include "common/dax/Variant.h"
#include "plugin/MetadataPacket.h"
#include "plugin/PluginFactory.h"
#include "plugin/RTPSamplePackets.h"
#include "plugin/SimpleSamplePacket.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace zel::streamer;

/// The smallest host: packets of its own, the two factories, and a sound file from start to end.
/// Ends with 1 at the first thing that is wrong.

namespace {

void expect(bool condition, const char* what)
{
    if (!condition) {
        std::cerr << "outside-host: not so: " << what << '\n';
        std::exit(1);
    }
}

class Properties : public MapGeneric
{
public:
    const char* get(const char*) const override { return nullptr; }
};

/// A service whose every method answers with code 0 and the number of its arguments.
class CountingSatellite : public DaxSatellite
{
public:
    long call(const char*, const char*, const tagVARIANT& arguments, tagVARIANT& retcode,
              tagVARIANT& results) override
    {
        retcode.vt = VT_I4;
        results.vt = VT_UI4;
        results.ulVal = arguments.parray->rgsabound[0].cElements;
        return 0;
    }
};

void trySatellite()
{
    const SAFEARRAYBOUND bound = {3, 0};
    zel::dax::OwnedVariant arguments;
    arguments.parray = SafeArrayCreate(VT_BSTR, 1, &bound);
    expect(arguments.parray != nullptr, "an array is made");
    arguments.vt = VT_ARRAY | VT_BSTR;
    const std::int32_t index = 2;
    const zel::dax::OwnedString text(SysAllocString("third"));
    expect(SafeArrayPutElement(arguments.parray, &index, text.get()) == S_OK, "a text is put");

    CountingSatellite satellite;
    zel::dax::OwnedVariant retcode;
    zel::dax::OwnedVariant results;
    expect(satellite.call("Any", "count", arguments, retcode, results) == 0, "the call answers");
    expect(results.vt == VT_UI4 && results.ulVal == 3, "the arguments are counted");
}

/// A local sound file. Keeps nothing of what the plug-in finds out but the duration.
class SoundFile : public MediumDescription
{
public:
    explicit SoundFile(std::string path) : m_path(std::move(path)) {}

    const char* getUrl() const override { return m_path.c_str(); }
    unsigned long long getDuration() const override { return m_durationMs; }
    void setDuration(unsigned long long durationMs) override { m_durationMs = durationMs; }
    void setFileSize(unsigned long long) override {}
    unsigned long long getFileSize() const override { return 0; }
    void setBitrate(long long) override {}
    void setSeekable(bool) override {}
    void setLive(bool) override {}
    void setAlbum(const char*) override {}
    void setTitle(const char*) override {}
    void setArtist(const char*) override {}
    const char* getExtension() const override { return "wav"; }
    const char* getProtocol() const override { return ""; }
    MapGeneric* getProperties() const override { return &m_properties; }
    void setProperty(const char*, const char*) override {}

private:
    std::string m_path;
    unsigned long long m_durationMs = 0;
    mutable Properties m_properties;
};

class OpenError : public Error
{
public:
    void setCode(int value) override { code = value; }
    void setMessage(const char* text) override { message = text; }

    int code = 0;
    std::string message;
};

void tryPackets()
{
    const unsigned char bytes[] = {1, 2, 3};
    auto* packet = new SimpleSamplePacket;
    packet->setAndCopy(PacketType::Audio, bytes, 3, 40, 50, true);
    packet->retain();
    packet->release();
    expect(packet->getLength() == 3, "a packet keeps its length");
    expect(std::memcmp(packet->getBuffer(), bytes, 3) == 0, "a packet keeps its bytes");
    packet->release();

    SimpleSamplePacket* payload = new MP4AGENSamplePacket;
    payload->setAndCopy(PacketType::Audio, bytes, 3, 0, 0, true);
    expect(payload->getLength() == 7, "an RTP packet has its header");
    payload->release();

    auto* metadata = new MetadataPacket("ACTION", "START_NEW_SEGMENT");
    auto* read = new MetadataPacket(reinterpret_cast<const char*>(metadata->getBuffer()),
                                    static_cast<unsigned int>(metadata->getLength()));
    expect(read->getMetadata("ACTION") == "START_NEW_SEGMENT", "metadata comes back");
    read->release();
    metadata->release();
}

void append(std::vector<unsigned char>& bytes, std::uint32_t value, int size)
{
    for (int i = 0; i < size; ++i) {
        bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

/// One second of 16-bit stereo at 44100 Hz, a sawtooth left and its mirror right.
std::vector<unsigned char> samples()
{
    std::vector<unsigned char> bytes;
    for (int i = 0; i < 44100; ++i) {
        const int level = (i * 97) % 20000 - 10000;
        append(bytes, static_cast<std::uint32_t>(level), 2);
        append(bytes, static_cast<std::uint32_t>(-level), 2);
    }
    return bytes;
}

void writeSoundFile(const std::string& path, const std::vector<unsigned char>& data)
{
    std::vector<unsigned char> header = {'R', 'I', 'F', 'F'};
    append(header, static_cast<std::uint32_t>(36 + data.size()), 4);
    for (const char letter : std::string("WAVEfmt ")) {
        header.push_back(static_cast<unsigned char>(letter));
    }
    append(header, 16, 4);
    append(header, 1, 2); // plain samples
    append(header, 2, 2); // channels
    append(header, 44100, 4);
    append(header, 44100 * 4, 4);
    append(header, 4, 2);
    append(header, 16, 2);
    for (const char letter : std::string("data")) {
        header.push_back(static_cast<unsigned char>(letter));
    }
    append(header, static_cast<std::uint32_t>(data.size()), 4);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(header.data()),
               static_cast<std::streamsize>(header.size()));
    file.write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
    expect(file.flush().good(), "the sound file is written");
}

void playSoundFile(InputPluginInterface& input)
{
    const std::string path = "saw.wav";
    const std::vector<unsigned char> written = samples();
    writeSoundFile(path, written);
    SoundFile medium(path);
    OpenError error;
    const bool opened = input.open(&medium, &error, nullptr);
    if (!opened) {
        std::cerr << "outside-host: open: " << error.code << ' ' << error.message << '\n';
    }
    expect(opened, "the sound file opens");
    input.getMediumDescription(&medium);
    expect(medium.getDuration() == 1000, "the duration is one second");
    expect(input.start() == 1, "start is accepted");

    std::vector<unsigned char> read;
    int frames = 0;
    for (;;) {
        PacketType::Enum type = PacketType::None;
        unsigned char* data = nullptr;
        unsigned int size = 0;
        unsigned long long timestamp = 0;
        unsigned long long duration = 0;
        void* context = nullptr;
        bool keyFrame = false;
        if (!input.readFrame(type, data, size, timestamp, duration, context, keyFrame)) {
            break;
        }
        if (type == PacketType::Audio) {
            ++frames;
            read.insert(read.end(), data, data + size);
        }
        input.freeFrame(data, context);
    }
    std::cout << "outside-host: " << frames << " frames, " << read.size() << " bytes\n";
    expect(frames > 0, "there are frames");
    expect(read == written, "the samples are the ones that were written");
    expect(input.stop() == 1, "stop is accepted");
    expect(input.close() == 1, "close is accepted");
}

} // namespace

int main()
{
    tryPackets();
    trySatellite();

    void* library = dlopen(PLUGIN_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::cerr << dlerror() << '\n';
    }
    expect(library != nullptr, "the library loads");
    const auto inputFactory =
        reinterpret_cast<decltype(&InputPluginFactory)>(dlsym(library, "InputPluginFactory"));
    const auto stageFactory = reinterpret_cast<decltype(&TranscoderPluginFactory)>(
        dlsym(library, "TranscoderPluginFactory"));
    expect(inputFactory && stageFactory, "both factories are exported");
    expect(stageFactory("ffmpegdecoder") == nullptr, "a name counts letter for letter");

    std::unique_ptr<InputPluginInterface> input(inputFactory());
    expect(input != nullptr, "the factory gives an input");
    playSoundFile(*input);
    input.reset();
    dlclose(library);
    std::cout << "outside-host: all well\n";
    return 0;
}
