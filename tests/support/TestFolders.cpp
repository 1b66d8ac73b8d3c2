#include "tests/support/TestFolders.h"

#include <cstdlib>

namespace zel::test {

namespace {

std::string fromEnvironment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

} // namespace

std::string mediaFolder()
{
    return fromEnvironment("ZEL_TEST_MEDIA");
}

std::string corpusFolder()
{
    return fromEnvironment("ZEL_CORPUS");
}

} // namespace zel::test
