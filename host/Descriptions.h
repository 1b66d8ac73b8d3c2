#pragma once

#include "host/Records.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>
#include <vector>

/// Descriptions as JSON for programs and as text for people.

namespace zel::host {

/// The fields that were written, under the names of the border.
nlohmann::ordered_json toJson(const MediumRecord& medium);
nlohmann::ordered_json toJson(const OutputStreamRecord& stream);

/// JSON as the host prints it. Bytes of a text that are no UTF-8 become the replacement character.
std::string jsonText(const nlohmann::ordered_json& value);

/// A text without control characters, which a medium's tags may hold.
std::string printable(std::string_view text);

/// "h264, 320x240, 25 fps, 312 kbit/s" and the like.
std::string videoLine(const VideoRecord& video);
std::string audioLine(const AudioRecord& audio);

/// Rows of a label and a value, the values in one column.
class TextTable
{
public:
    /// Adds a row unless the value is empty.
    void add(const std::string& label, const std::string& value);
    /// @return the rows, each with a newline
    std::string text() const;

private:
    struct Row
    {
        std::string label;
        std::string value;
    };
    std::vector<Row> m_rows;
};

} // namespace zel::host
