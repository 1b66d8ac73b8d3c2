#pragma once

#include "common/dax/Variant.h"

/// The remoting service that a host offers. The host owns it, and keeps it until the media that
/// were given its address are closed. Called on any thread of the plug-in, also on several at once.
class DaxSatellite
{
public:
    virtual ~DaxSatellite() = default;

    /// Calls a remote method and waits for its answer.
    /// @param service  such as "Any"
    /// @param arguments  stays the caller's
    /// @param retcode, results  initialised by the caller, filled by the callee, also on failure as
    ///        far as it came; the caller clears them
    /// @return 0 when the method was reached and answered; what it thinks stands in retcode
    virtual long call(const char* service, const char* method, const tagVARIANT& arguments,
                      tagVARIANT& retcode, tagVARIANT& results) = 0;
};
