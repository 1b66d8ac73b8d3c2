#pragma once

#include "common/utils/StdString.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>

/// The settings of one domain: a property list in XML, "DOMAIN.plist" in the preferences folder,
/// with one dictionary of typed values. Any thread, any number of processes.
///
///     write:  lock side file -> read -> temporary file, fsync -> rename over -> fsync folder
///     read:   lstat; parse again only when the file is another one or has changed
///
/// So a reader meets an old or a new file, never a half one, and a writer that dies leaves at most
/// the temporary file, which the next writer replaces. A file comes from outside: whatever is in
/// it, the worst it does is not to be read.
namespace zel::settings {

/// Larger files are neither read nor written, so that no file can cost much time or memory.
constexpr std::size_t maxFileSize = std::size_t{256} * 1024;

/// The first alternative stands for a value of any other type, which a write leaves as it is.
using Value = std::variant<std::monostate, bool, int64_t, double, std::string>;
/// What a domain holds, by name.
using Values = std::map<std::string, Value>;

/// @return the present values, none when the domain has no file; null when it cannot be read
std::shared_ptr<const Values> read(const CStdStr<char>& domain);

/// Puts one value, of a named type, into the domain's file and leaves the others. An unreadable
/// file makes way and stays behind as "DOMAIN.plist.unreadable".
/// @return false when the value could not be stored; the file is as it was then
bool write(const CStdStr<char>& domain, const CStdStr<char>& name, const Value& value);

/// @return null when `data` isn't a property list in XML with a dictionary at its top
std::shared_ptr<const Values> parse(const char* data, std::size_t size);

/// @return a file like `data`, or a new one if that cannot be read, with one value changed; empty
///         on failure
std::string withValue(const char* data, std::size_t size, const CStdStr<char>& name,
                      const Value& value);

/// Path of a domain's file. Everything but letters, digits and "._-" is percent-encoded, so that
/// no domain reaches out of the folder.
CStdStr<char> filePath(const CStdStr<char>& domain);

} // namespace zel::settings
