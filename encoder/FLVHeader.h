#pragma once

class FFMpegStreamingProfile;

/// Replaces the header that a muxer wrote for a streamed FLV by one that knows the medium: the file
/// header with corrected flags, then a script tag "onMetaData" with the session's values.
///
///     input   "FLV" version flags ... | what the muxer had to say, dropped here
///     output  13 bytes of it          | tag header, "onMetaData", array of N numbers | tag size
///
/// A plain structure that its user fills, calls once and throws away. It keeps nothing, and takes
/// the result's array over to its user.
struct FLVHeader
{
    unsigned char* m_input = nullptr;  ///< not owned; its flags byte is corrected in place
    int m_inputSize = 0;               ///< bytes
    unsigned char* m_output = nullptr; ///< the user's, who frees it with delete[]
    int m_outputSize = 0;              ///< bytes; 0 without a result
    FFMpegStreamingProfile* m_profile = nullptr; ///< not owned; source of all values

    /// Makes the result. An input that is no FLV header, or too short for one, gives none.
    void process();

    /// Writes the tag, at most 309 bytes, into cleared memory.
    /// @param room  not looked at
    /// @return the tag's bytes, with the field behind it that repeats its size
    int writeFLVHeader(unsigned char* out, int room);
};
