#include "host/HostError.h"

#include <system_error>

namespace zel::host {

HostError systemError(const std::string& name, int errorNumber)
{
    return HostError(name + ": " + std::generic_category().message(errorNumber));
}

} // namespace zel::host
