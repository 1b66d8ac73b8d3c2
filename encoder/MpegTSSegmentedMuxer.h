#pragma once

#include "common/utils/StdString.h"
#include "encoder/BasicMuxer.h"

#include <vector>

/// Writes MPEG-TS as a row of numbered files in the folder for temporary data. The host gets no
/// bytes, but a notice for each finished file:
///
///     segment-7-1.ts | segment-7-2.ts | segment-7-3.ts ...
///                    ^ the host asked for a cut, and a video packet of that time came
///
/// With video the host says where a file begins; audio alone is cut by duration. Every file begins
/// with the tables, so it plays alone. The files end with the muxer, unless the setting
/// "KeepCacheFiles" says otherwise.
///
/// Owner and threads: as BasicMuxer.
class MpegTSSegmentedMuxer : public BasicMuxer
{
public:
    MpegTSSegmentedMuxer(FFMpegEncoder* encoder, FFMpegStreamingProfile* profile);
    ~MpegTSSegmentedMuxer() override;

    int initOutputContext() override;
    /// Also removes the files, the last one first.
    void close() override;
    /// Into file 0, which holds nothing else.
    bool writeHeader() override;
    /// The seek makes a new muxer, so there is nothing to end here.
    void seekPause() override;
    /// The next file's number follows from the position alone.
    void seekResume(const unsigned long long& position) override;
    /// @return 1
    int getType() override;
    void setNewSegmentTs(unsigned long long timestamp) override;

    /// What all paths of this session begin with.
    const CStdStr<char>& basePath() const { return m_basePath; }

protected:
    void muxSyncedPacket(MuxerPacket* packet) override;
    /// @return 1
    int writeTrailer() override;
    int initIOContext() override;

private:
    bool openFirstTSFile();
    bool openNextTSFile();
    bool openCurrentPath() ZEL_REQUIRES(m_contextLock);
    bool checkTSSegmentation(const MuxerPacket* packet);
    bool isCutDue(const MuxerPacket& packet);
    void closeFile();
    void pushNotice(unsigned long long durationUs);
    CStdStr<char> pathOf(unsigned int index) const;
    void removeFiles();

    unsigned int m_segmentIndex = 0; ///< of the open file
    /// Microseconds; when the open file began.
    unsigned long long m_segmentStartTs = zel::streamer::SamplePacket::NoTimestamp;
    unsigned long long m_segmentDuration = 10000000; ///< microseconds
    unsigned long long m_lastVideoTs = 0;            ///< microseconds
    unsigned long long m_lastAudioTs = 0;
    CStdStr<char> m_currentPath; ///< of the open file
    CStdStr<char> m_basePath;
    std::vector<CStdStr<char>> m_segmentFiles; ///< to be removed at the end
    bool m_openNextPending = true;             ///< at the next packet
    unsigned long long m_nextCutTs = 0;        ///< microseconds; 0: none is planned
    int m_frameDuration = 0;                   ///< microseconds; 0 without a frame rate
};
