#include "host/SegmentFolder.h"

#include "host/HostError.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace zel::host {

namespace {

namespace fs = std::filesystem;

constexpr unsigned long long TransportPacketBytes = 188;

HostError error(const std::string& name, const std::error_code& reason)
{
    return HostError(name + ": " + reason.message());
}

/// A second name for the same file, or a copy on a file system without such.
void linkOrCopy(const fs::path& from, const fs::path& to)
{
    std::error_code failure;
    fs::remove(to, failure);
    fs::create_hard_link(from, to, failure);
    if (!failure) {
        return;
    }
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, failure);
    if (failure) {
        throw error(to, failure);
    }
}

} // namespace

CacheFolder::CacheFolder(const std::string& folder, bool isKept) : m_isKept(isKept)
{
    std::error_code failure;
    fs::create_directories(folder, failure);
    if (failure) {
        throw error(folder, failure);
    }
    const fs::path path = fs::absolute(folder) / (".zel-segments-" + std::to_string(getpid()));
    fs::create_directory(path, failure);
    if (failure) {
        throw error(path, failure);
    }
    m_path = path;
    setenv("TMPDIR", m_path.c_str(), 1);
}

CacheFolder::~CacheFolder()
{
    std::error_code ignored;
    if (m_isKept) {
        fs::remove(m_path, ignored); // if there is nothing in it
    } else {
        fs::remove_all(m_path, ignored);
    }
}

SegmentFolder::SegmentFolder(std::string folder, const std::string& name, unsigned long long clipMs,
                             bool keepsStageFiles, std::string medium)
    : m_folder(std::move(folder)), m_name(name), m_keepsStageFiles(keepsStageFiles),
      m_medium(std::move(medium)), m_list(fs::path(m_folder) / (name + ".m3u8"), clipMs)
{
}

void SegmentFolder::take(const Frame& frame)
{
    if (frame.type != streamer::PacketType::Notice) {
        return;
    }
    // The last one is announced without a length, which finish knows.
    m_isWhole = frame.durationUs == 0;
    if (!frame.hasTimestamp()) {
        return; // no frame went into it
    }
    char number[32];
    std::snprintf(number, sizeof number, "-%05zu.ts", m_list.segments().size() + 1);
    PlayList::Segment segment;
    segment.file = m_name + number;
    segment.startUs = static_cast<long long>(frame.timestampUs);
    segment.durationUs = static_cast<long long>(frame.durationUs);
    segment.isAfterSeek = std::exchange(m_isAfterSeek, false) && !m_list.segments().empty();

    const std::string from(reinterpret_cast<const char*>(frame.data), frame.size);
    const std::string to = fs::path(m_folder) / segment.file;
    place(from, to);
    m_origins.emplace_back(from, to);
    std::error_code failure;
    segment.bytes = fs::file_size(to, failure);
    if (failure) {
        throw error(to, failure);
    }
    // The stage announces a file that it could not write to the end like any other.
    if (segment.bytes == 0 || segment.bytes % TransportPacketBytes != 0) {
        throw HostError(to + ": not whole, the disk may be full");
    }
    m_list.add(segment);
    ++m_count;
    if (!m_isWhole) {
        m_list.write(false);
    }
}

void SegmentFolder::place(const std::string& from, const std::string& to) const
{
    std::error_code failure;
    if (fs::equivalent(m_medium, to, failure)) {
        throw HostError(to + ": the output is the medium itself");
    }
    if (m_keepsStageFiles) {
        linkOrCopy(from, to);
        return;
    }
    fs::rename(from, to, failure);
    if (failure) {
        throw error(to, failure);
    }
}

void SegmentFolder::finish(unsigned long long endUs)
{
    if (!m_isWhole) {
        throw HostError(m_folder + ": the last segment was not written");
    }
    if (m_list.segments().empty()) {
        return;
    }
    PlayList::Segment& last = m_list.segments().back();
    last.durationUs = std::max(static_cast<long long>(endUs) - last.startUs, 0LL);
    m_list.write(true);
}

void SegmentFolder::restoreStageFiles() const
{
    for (const auto& [stagePath, ownPath] : m_origins) {
        std::error_code none;
        if (!fs::exists(stagePath, none)) {
            linkOrCopy(ownPath, stagePath);
        }
    }
}

unsigned long long SegmentFolder::bytes() const
{
    unsigned long long sum = 0;
    for (const auto& segment : m_list.segments()) {
        sum += segment.bytes;
    }
    return sum;
}

} // namespace zel::host
