// A second process for the tests of the log and the settings. Its first argument says what it does:
//
//   increment NAME COUNT      adds COUNT times 1 to a setting of its own in a shared section
//   set NAME NUMBER           writes one setting
//   alternate                 rewrites two settings for ever, and tells each round on its output
//   log FILE MAXSIZE ID COUNT logs COUNT lines, with a limit of MAXSIZE bytes for the file

#include "common/utils/CBBLog.h"
#include "common/utils/CRegistry.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

const char* const section = "Software\\Tamrix Labs\\Zel\\Config";

int increment(const char* name, int count)
{
    const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
    for (int i = 0; i < count; ++i) {
        int value = 0;
        registry->ReadSettingImpl(section, name, value);
        if (!registry->WriteSettingImpl(section, name, value + 1)) {
            return 1;
        }
    }
    return 0;
}

int alternate()
{
    const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
    const std::string small(10, 's');
    const std::string large(60000, 'l');
    for (int round = 0;; ++round) {
        if (!registry->WriteSettingImpl(section, "text", round % 2 == 0 ? small : large) ||
            !registry->WriteSettingImpl(section, "round", round) || write(1, ".", 1) != 1) {
            return 1;
        }
    }
}

int log(const char* file, long long maxSize, const char* id, int count)
{
    CBBLog log(file, true, maxSize);
    log.setLogLevel(LOGLEVEL_DEBUG);
    for (int i = 0; i < count; ++i) {
        log._info("line %s-%d.", id, i);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "increment" && argc == 4) {
        return increment(argv[2], atoi(argv[3]));
    }
    if (what == "set" && argc == 4) {
        return CRegistry::getInstance()->WriteSettingImpl(section, argv[2], atoi(argv[3])) ? 0 : 1;
    }
    if (what == "alternate" && argc == 2) {
        return alternate();
    }
    if (what == "log" && argc == 6) {
        return log(argv[2], atoll(argv[3]), argv[4], atoi(argv[5]));
    }
    return 2;
}
