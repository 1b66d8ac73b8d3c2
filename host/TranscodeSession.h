#pragma once

#include "host/Input.h"
#include "host/ProbeCommand.h"
#include "host/Stage.h"
#include "host/StopSignal.h"
#include "host/StreamPlan.h"
#include "host/Stretch.h"

#include <memory>
#include <optional>
#include <string>

namespace zel::host {

/// What a command that writes a medium in another form is told.
struct TranscodeOptions : MediumOptions, StretchOptions
{
    PlanRequest request;
    int channels = 0;   ///< of encoded audio; 0 leaves the choice to the stage
    int sampleRate = 0; ///< the same
    PropertyMap stageOptions;
};

/// An open input with an encoder stage behind it that accepted its streams: ready to be written to.
///
/// To find out what the medium holds it is opened, and opened anew when streams are to be copied,
/// since an input wants to know that before. When the stage refuses a stream that was to be copied
/// the plan changes, and the next stage is tried. Main thread.
class TranscodeSession
{
public:
    /// @param options  outlive this object, like the library and the signal
    /// @throws HostError when the medium cannot be opened or the stage takes nothing of it
    TranscodeSession(const Library& library, const TranscodeOptions& options, StopSignal& stop);
    ~TranscodeSession() = default;
    TranscodeSession(const TranscodeSession&) = delete;
    TranscodeSession& operator=(const TranscodeSession&) = delete;

    Input& input() { return *m_input; }
    Stage& stage() { return *m_stage; }
    const Plan& plan() const { return m_plan; }
    /// The streams as they stand in the medium.
    const OutputStreamRecord& source() const { return m_source; }
    /// The streams as they are written to the stage.
    const OutputStreamRecord& written() const { return m_inputRecord.stream; }
    /// What the stage makes of them.
    const OutputStreamRecord& output() const { return m_requested.output; }
    const MediumRecord& medium() const { return m_medium; }
    /// Duration of the medium in microseconds; 0 when unknown.
    long long lengthUs() const { return static_cast<long long>(m_medium.getDuration()) * 1000; }

    /// Takes the next frame of the input.
    /// @return false at the end of the medium or after a signal
    bool read(Frame& frame);
    /// Tells the stage of a changed audio format of the input.
    /// @throws HostError when the stage cannot encode it
    void updateAudio();
    /// Ends the stage, which may remove files that it wrote.
    void closeStage() { m_stage.reset(); }

private:
    struct Refusal;

    void openFor(bool copiesVideo, bool skipsAudio);
    void begin();
    void readAhead();
    void settle();
    std::optional<Refusal> tryStage();
    bool changePlan(const Refusal& refusal);
    void describeStreams();
    [[noreturn]] void fail(const std::string& reason) const;
    [[noreturn]] void failFor(const Refusal& refusal) const;
    void checkAudio(const AudioRecord& raw) const;

    const Library& m_library;
    const TranscodeOptions& m_options;
    StopSignal& m_stop;
    Plan m_plan;
    OutputStreamRecord m_source;
    MediumRecord m_medium;
    InputStreamRecord m_inputRecord;
    RequestedStreamRecord m_requested;
    std::unique_ptr<Input> m_input;
    bool m_copiesVideo = false; ///< what m_input was told
    bool m_skipsAudio = false;
    bool m_hasBegun = false;            ///< m_input was started
    std::unique_ptr<HeldFrame> m_ahead; ///< read before the stage stood
    std::string m_setUp;                ///< of copied video, as hexadecimal text
    std::unique_ptr<Stage> m_stage;     ///< goes first: it uses the records and frames of the input
};

} // namespace zel::host
