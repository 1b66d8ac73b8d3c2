#pragma once

/// The enumerations of the border between the host and the plug-ins.

namespace zel::streamer {

/// What a sample packet or a delivered frame holds.
namespace PacketType {
enum Enum : int
{
    Audio = 0,
    Video = 1,
    /// Nothing to deliver now; on a queue a control packet without data; towards the encoder stage
    /// the end of the stream. A new packet has this type.
    None = 2,
    /// Bytes of a container.
    Multiplexed = 3,
    /// A notice without media data: the audio format has changed, or a segment file is finished.
    Notice = 4,
    /// A metadata block, see MetadataPacket.
    Metadata = 5,
};
} // namespace PacketType

/// What an input tells the host through its event callback.
namespace InputEvent {
enum Enum : int
{
    EndOfFileReceived = 0,
    BrokenStream = 1,
};
} // namespace InputEvent

/// Which video packets an input decodes. Applied at each packet, so a change acts at once.
namespace DecodingMode {
enum Enum : int
{
    All = 0,
    KeyFramesOnly = 1,
    None = 2,
};
} // namespace DecodingMode

/// Picture formats that cross the border. Planes and rows follow each other without padding.
namespace VideoPixelFormat {
enum Enum : int
{
    RGB24 = 0,
    BGR24 = 1,
    BGRA = 2,
    RGBA = 3,
    YUV420P = 4, ///< planar YUV 4:2:0
    YUYV422 = 5, ///< packed YUYV 4:2:2
};
} // namespace VideoPixelFormat

} // namespace zel::streamer
