#pragma once

#include "host/PlayList.h"
#include "host/StageSink.h"

#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace zel::host {

/// A folder below the user's where a stage writes its files before they are moved to their places;
/// it becomes the process's folder of temporary files. Removed with everything in it at the end,
/// unless it is to be kept. Main thread, before the library is loaded.
class CacheFolder
{
public:
    /// @param folder  the user's; made when it is not there
    /// @throws HostError
    CacheFolder(const std::string& folder, bool isKept);
    ~CacheFolder();
    CacheFolder(const CacheFolder&) = delete;
    CacheFolder& operator=(const CacheFolder&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path; ///< absolute
    bool m_isKept;
};

/// Takes over each segment file that a stage announces, under a name of its own, and keeps a play
/// list of them.
///
/// A file is moved, which takes no time whatever its size, or linked when the stage's own names are
/// to stay. The list is written anew with each file: a player may follow it.
class SegmentFolder : public StageSink
{
public:
    /// @param folder  exists
    /// @param name    of the play list, and of the files in front of their number
    /// @param medium  path that must not be written over
    SegmentFolder(std::string folder, const std::string& name, unsigned long long clipMs,
                  bool keepsStageFiles, std::string medium);

    void take(const Frame& frame) override;
    void jump() override { m_isAfterSeek = true; }
    void finish(unsigned long long endUs) override;

    /// Gives the stage's files their names back after the stage has closed and removed them.
    /// @throws HostError
    void restoreStageFiles() const;

    const PlayList& list() const { return m_list; }
    unsigned long long bytes() const;
    /// Segments so far. Any thread.
    size_t count() const { return m_count; }

private:
    void place(const std::string& from, const std::string& file) const;

    std::string m_folder;
    std::string m_name;
    bool m_keepsStageFiles;
    std::string m_medium;
    PlayList m_list;
    std::atomic<size_t> m_count{0}; ///< in m_list
    bool m_isAfterSeek = false;
    bool m_isWhole = false;                                     ///< the last segment came
    std::vector<std::pair<std::string, std::string>> m_origins; ///< the stage's path, our path
};

} // namespace zel::host
