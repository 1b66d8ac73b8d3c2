#pragma once

#include <string>

namespace zel::test {

/// Folder of the generated clips; empty outside CTest unless ZEL_TEST_MEDIA is set.
std::string mediaFolder();

/// Folder of third-party media; empty when this machine has none.
std::string corpusFolder();

} // namespace zel::test
