#pragma once

#include "host/FrameSink.h"

#include <memory>
#include <string>
#include <vector>

struct SwsContext;

namespace zel::host {

/// Writes every Nth picture of a play as PNG: "picture-000001.png" is the first of the play. A file
/// appears under its name when it is whole.
class PictureWriter : public FrameSink
{
public:
    /// @param folder  made when it is not there
    /// @throws HostError when it cannot be made
    PictureWriter(std::string folder, unsigned long long every);
    ~PictureWriter() override;

    void describe(const OutputStreamRecord& description) override;
    void take(const Frame& frame) override;
    void finish() override {}

private:
    void convert(const Frame& frame);
    void write(const std::string& path);

    const std::string m_folder;
    const unsigned long long m_every;
    unsigned long long m_count = 0; ///< pictures seen
    int m_width = 0;
    int m_height = 0;
    SwsContext* m_scaler = nullptr; ///< owned
    std::vector<unsigned char> m_rgb;
};

} // namespace zel::host
