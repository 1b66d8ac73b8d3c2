// A settings file's bytes, as another program or a broken disk may leave them.

#include "common/utils/SettingsFile.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto values = zel::settings::parse(reinterpret_cast<const char*>(data), size);
    if (values) {
        // Names and texts come out of the input, so all together cannot be longer than it.
        std::size_t bytes = 0;
        for (const auto& [name, value] : *values) {
            bytes += name.size();
            if (const auto* text = std::get_if<std::string>(&value)) {
                bytes += text->size();
            }
        }
        if (bytes > size) {
            abort();
        }
    }

    // Whatever stood there, a write gives a file that holds the new value and not fewer than
    // before.
    const std::string changed =
        zel::settings::withValue(reinterpret_cast<const char*>(data), size, "fuzz", int64_t{42});
    if (changed.size() <= zel::settings::maxFileSize) {
        const auto again = zel::settings::parse(changed.data(), changed.size());
        if (!again || again->at("fuzz") != zel::settings::Value(int64_t{42}) ||
            (values && again->size() < values->size())) {
            abort();
        }
    }
    return 0;
}
