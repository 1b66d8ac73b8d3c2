#pragma once

#include <stdexcept>
#include <string>

namespace zel::host {

/// Ends a command with exit status 1. The text is one line and names the medium or file.
class HostError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// "NAME: REASON" with the reason of errno.
HostError systemError(const std::string& name, int errorNumber);

} // namespace zel::host
