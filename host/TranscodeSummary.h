#pragma once

#include "host/Descriptions.h"
#include "host/StageFeed.h"
#include "host/TranscodeSession.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

/// What a session wrote, as text for people and as JSON for programs.

namespace zel::host {

struct TranscodeOutcome
{
    std::string output; ///< as the user named it
    unsigned long long bytes = 0;
    double seconds = 0; ///< from the start of the session to the end of the output
    bool isInterrupted = false;
};

/// Rows about both streams, the output and the time it took.
TextTable summaryTable(const TranscodeSession& session, const StageFeed& feed,
                       const TranscodeOutcome& outcome);
nlohmann::ordered_json summaryJson(const TranscodeSession& session, const StageFeed& feed,
                                   const TranscodeOutcome& outcome);

/// A muxer may refuse packets one by one, and a disk may be full, of which only the library's log
/// would tell.
/// @param bytes  that came out
/// @throws HostError when there are none, or clearly less than were copied
void checkOutput(const TranscodeSession& session, const StageFeed& feed,
                 const TranscodeOptions& options, unsigned long long bytes);

/// Tells on standard error what differs from what was asked for.
void printNotes(const TranscodeSession& session, const std::string& medium);

} // namespace zel::host
