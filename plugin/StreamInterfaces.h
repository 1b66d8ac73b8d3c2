#pragma once

#include "plugin/HostRecords.h"
#include "plugin/PluginTypes.h"
#include "plugin/SamplePacket.h"

/// The interfaces that the plug-ins implement. Slot order is part of the binary interface.

namespace zel::streamer {

/// Results of the control operations.
namespace Result {
constexpr int Done = 0;
/// Of `start`, `stop`, `close`, `pause`, `resume`.
constexpr int Accepted = 1;
/// Not possible now, or not supported.
constexpr int NotPossible = 2;
constexpr int Failed = -1;
} // namespace Result

/// A source of frames.
class InputStream
{
public:
    virtual ~InputStream() = default;

    virtual void getOutputStreamDescription(OutputStreamDescription* description) = 0;

    /// Takes the next frame; blocks until there is one. One thread at a time.
    /// @param data       the frame's bytes, given back through freeFrame
    /// @param size       bytes in data
    /// @param timestamp  microseconds from the start of the medium
    /// @param duration   microseconds
    /// @param context    goes back to freeFrame as it came
    /// @param keyFrame   written for video
    /// @return true with a frame, or with type None when there is nothing now; false at the end of
    ///         the stream, after stop, or when nothing is open
    virtual bool readFrame(PacketType::Enum& type, unsigned char*& data, unsigned int& size,
                           unsigned long long& timestamp, unsigned long long& duration,
                           void*& context, bool& keyFrame) = 0;

    /// Ends a frame of readFrame. Any thread.
    virtual void freeFrame(unsigned char* data, void* context) = 0;
};

/// A sink of frames.
class OutputStream
{
public:
    virtual ~OutputStream() = default;

    /// Takes over the caller's reference to the packet.
    virtual int write(SamplePacket* packet) = 0;
    /// Moves the time origin to a position in milliseconds and drops what is buffered.
    virtual void resetPosition(unsigned long long positionMs) = 0;
};

/// An input: opens a medium and yields its frames.
class InputPluginInterface : public InputStream
{
public:
    /// @param error  written when the result is false
    virtual bool open(const MediumDescription* medium, Error* error, EncoderEngine* engine) = 0;
    /// close, then open.
    virtual bool updateMedium(const MediumDescription* medium, Error* error,
                              EncoderEngine* engine) = 0;
    /// Ends everything, from any thread and in any state. The object can be opened again.
    virtual int close() = 0;
    virtual int start() = 0;
    /// Makes readFrame answer false, from any thread.
    virtual int stop() = 0;
    virtual int pause() = 0;
    virtual int resume() = 0;
    virtual int getPosition(unsigned long long& positionMs) = 0;
    virtual int setTimePosition(unsigned long long positionMs) = 0;
    virtual int setBytePosition(unsigned long long positionBytes) = 0;
    /// Moves the time origin without a seek and drops what is buffered.
    virtual int resetPosition(unsigned long long positionMs) = 0;
    virtual bool isSingleInstance() = 0;
    virtual void getMediumDescription(MediumDescription* description) = 0;
    virtual void getInputStreamDescription(OutputStreamDescription* description) = 0;
    /// Asks for audio packets as they stand in the medium. Before or after open.
    virtual bool skipAudioDecoding() = 0;
    /// Asks for video packets as they stand in the medium. Before or after open.
    virtual bool skipVideoDecoding() = 0;
    virtual bool setVideoDecodingMode(DecodingMode::Enum mode) = 0;
    /// @return false without a network buffer
    virtual bool getInputBufferStatus(unsigned int& percent) = 0;
    /// The two integers that the callback receives are always 0. Call it after open.
    virtual void setInputEventCallback(void (*callback)(InputEvent::Enum, int, int, void*),
                                       void* data) = 0;
    virtual int getCPULoadFactor() { return 0; }
};

/// A stage that takes packets in and gives packets out.
class TranscoderPluginInterface : public InputStream, public OutputStream
{
public:
    /// @return 0, 2 when the stage cannot or need not work on this stream, or -1
    virtual int init(const MediumDescription* medium, const InputStreamDescription* input,
                     const RequestedStreamDescription* requested, const MapGeneric* options,
                     EncoderEngine* engine) = 0;
    virtual int close() = 0;
    virtual int start() = 0;
    virtual int stop() = 0;
    virtual int updateBitrate(unsigned int bitrate) = 0;
    virtual int getBitrate(unsigned int& bitrate) = 0;
    virtual int setPerformanceLevel(unsigned int level) = 0;
    virtual int getPerformanceLevel(unsigned int& level) = 0;
    virtual int skipFrame() = 0;
};

/// Answers "not supported" to the five operations that most stages do not have.
class TranscoderPluginAdaptor : public TranscoderPluginInterface
{
public:
    int updateBitrate(unsigned int) override { return Result::NotPossible; }
    int getBitrate(unsigned int&) override { return Result::NotPossible; }
    int setPerformanceLevel(unsigned int) override { return Result::NotPossible; }
    int getPerformanceLevel(unsigned int&) override { return Result::NotPossible; }
    int skipFrame() override { return Result::NotPossible; }
};

} // namespace zel::streamer
