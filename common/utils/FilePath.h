#pragma once

#include "common/utils/StdString.h"

#include <boost/filesystem/path.hpp>
#include <string>

namespace zel {

/// A path for Boost.Filesystem. A text with a NUL becomes the empty path, which names nothing: the
/// system would stop reading at the NUL and work on another file.
inline boost::filesystem::path toPath(const CStdStr<char>& text)
{
    if (text.find('\0') != std::string::npos) {
        return boost::filesystem::path();
    }
    return boost::filesystem::path(static_cast<const std::string&>(text));
}

} // namespace zel
