#include "common/utils/SettingsFile.h"

#include "common/utils/FileHandle.h"
#include "common/utils/Locks.h"
#include "common/utils/Places.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <plist/plist.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zel::settings {

namespace {

/// libplist frees a tree by recursion. A domain needs one container; this many are safe on the
/// smallest thread stack.
constexpr std::size_t maxContainers = 500;
/// Domains whose file is kept open; there are four in use.
constexpr std::size_t maxCachedDomains = 16;

struct TreeDeleter
{
    void operator()(void* tree) const { plist_free(tree); }
};
using Tree = std::unique_ptr<void, TreeDeleter>;

struct MemoryDeleter
{
    void operator()(void* memory) const { free(memory); }
};
template <class T>
using Memory = std::unique_ptr<T, MemoryDeleter>;

std::size_t countOf(std::string_view text, std::string_view word)
{
    std::size_t count = 0;
    for (std::size_t hit = text.find(word); hit != std::string_view::npos;
         hit = text.find(word, hit + word.size())) {
        ++count;
    }
    return count;
}

/// @return null when it isn't a dictionary
Tree parseTree(std::string_view text)
{
    // The library ends the process when it meets a NUL in a key or a text.
    if (text.empty() || text.size() > maxFileSize || text.find('\0') != std::string_view::npos ||
        countOf(text, "<array") + countOf(text, "<dict") > maxContainers) {
        return Tree();
    }
    plist_t root = nullptr;
    plist_from_xml(text.data(), static_cast<uint32_t>(text.size()), &root);
    Tree tree(root);
    if (!tree || plist_get_node_type(tree.get()) != PLIST_DICT) {
        return Tree();
    }
    return tree;
}

Value valueOf(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t truth = 0;
        plist_get_bool_val(node, &truth);
        return truth != 0;
    }
    case PLIST_UINT: {
        // The library keeps a negative number as its two's complement.
        uint64_t number = 0;
        plist_get_uint_val(node, &number);
        return static_cast<int64_t>(number);
    }
    case PLIST_REAL: {
        double number = 0;
        plist_get_real_val(node, &number);
        return number;
    }
    case PLIST_STRING: {
        char* text = nullptr;
        plist_get_string_val(node, &text);
        const Memory<char> owner(text);
        return std::string(text != nullptr ? text : "");
    }
    default:
        return std::monostate();
    }
}

/// Makes a node of a value; null for one of another type.
struct NodeMaker
{
    plist_t operator()(std::monostate /*other*/) const { return nullptr; }
    plist_t operator()(bool truth) const { return plist_new_bool(truth ? 1 : 0); }
    plist_t operator()(int64_t number) const
    {
        return plist_new_uint(static_cast<uint64_t>(number));
    }
    plist_t operator()(double number) const { return plist_new_real(number); }
    plist_t operator()(const std::string& text) const { return plist_new_string(text.c_str()); }
};

Values valuesOf(plist_t dictionary)
{
    Values values;
    plist_dict_iter rawIterator = nullptr;
    plist_dict_new_iter(dictionary, &rawIterator);
    const Memory<void> iterator(rawIterator);
    for (;;) {
        char* rawKey = nullptr;
        plist_t node = nullptr;
        plist_dict_next_item(dictionary, iterator.get(), &rawKey, &node);
        const Memory<char> key(rawKey);
        if (node == nullptr) {
            return values;
        }
        if (key) {
            values[key.get()] = valueOf(node);
        }
    }
}

/// @param tree  a dictionary; null stands for an empty one
/// @return the whole file, empty on failure
std::string textWith(Tree tree, const CStdStr<char>& name, const Value& value)
{
    plist_t node = std::visit(NodeMaker(), value);
    if (node == nullptr) {
        return std::string();
    }
    if (!tree) {
        tree.reset(plist_new_dict());
    }
    plist_dict_set_item(tree.get(), name.c_str(), node);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(tree.get(), &xml, &length);
    const Memory<char> owner(xml);
    return xml != nullptr ? std::string(xml, length) : std::string();
}

enum class Content
{
    Absent,
    Complete,
    Unreadable,
    Failed
};

/// Reads a whole file.
/// @param file  the open file, for the caller to keep
/// @return Unreadable for what no later attempt will read: a link, a folder, too many bytes;
///         Failed for an error that may pass
Content load(const CStdStr<char>& path, FileHandle& file, struct stat& status, std::string& text)
{
    // Not blocking, for something else than a file may stand there.
    file = FileHandle(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) {
        if (errno == ENOENT || errno == ENOTDIR) {
            return Content::Absent;
        }
        return errno == ELOOP ? Content::Unreadable : Content::Failed;
    }
    if (fstat(file.get(), &status) != 0) {
        return Content::Failed;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > static_cast<off_t>(maxFileSize)) {
        return Content::Unreadable;
    }
    text.resize(maxFileSize + 1);
    std::size_t length = 0;
    while (length < text.size()) {
        const ssize_t count = ::read(file.get(), text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return Content::Failed;
        }
        if (count == 0) {
            break;
        }
        length += static_cast<std::size_t>(count);
    }
    text.resize(length);
    return length <= maxFileSize ? Content::Complete : Content::Unreadable;
}

bool writeAll(int file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(file, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

/// Holds the lock of a domain against writers in this and other processes.
FileHandle lockDomain(const CStdStr<char>& path)
{
    FileHandle lock(
        open((path + ".lock").c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!lock.isOpen()) {
        return FileHandle();
    }
    while (flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return FileHandle();
        }
    }
    return lock;
}

/// Writes a new file beside `path`, down to the disk. The name may be a fixed one because the
/// writers of a domain take turns; what lies there is the rest of one that died.
bool writeBeside(const CStdStr<char>& newPath, std::string_view text, const struct stat* former)
{
    unlink(newPath.c_str());
    const FileHandle file(
        open(newPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!file.isOpen()) {
        return false;
    }
    if (former != nullptr) {
        fchmod(file.get(), former->st_mode & 0777U);
    }
    return writeAll(file.get(), text) && fsync(file.get()) == 0;
}

void syncFolder(const CStdStr<char>& folder)
{
    const FileHandle handle(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (handle.isOpen()) {
        fsync(handle.get());
    }
}

bool sameVersion(const struct stat& left, const struct stat& right)
{
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino &&
           left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
           left.st_mtim.tv_nsec == right.st_mtim.tv_nsec &&
           left.st_ctim.tv_sec == right.st_ctim.tv_sec &&
           left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

/// What was parsed, by path.
class Cache
{
public:
    std::shared_ptr<const Values> read(const CStdStr<char>& path)
    {
        PMutexGuard guard(m_mutex);
        struct stat present = {};
        const auto known = m_entries.find(path);
        if (known != m_entries.end() && lstat(path.c_str(), &present) == 0 &&
            sameVersion(present, known->second.status)) {
            return known->second.values;
        }
        m_entries.erase(path);

        Entry entry;
        std::string text;
        switch (load(path, entry.file, entry.status, text)) {
        case Content::Absent:
            return std::make_shared<const Values>();
        case Content::Complete:
            break;
        default:
            return nullptr;
        }
        entry.values = parse(text.data(), text.size());
        if (m_entries.size() >= maxCachedDomains) {
            m_entries.clear();
        }
        return m_entries.emplace(path, std::move(entry)).first->second.values;
    }

private:
    struct Entry
    {
        /// Held open so that no new file can get the inode number by which this one is known.
        FileHandle file;
        struct stat status = {};
        std::shared_ptr<const Values> values; ///< null when the file makes no sense
    };

    PMutex m_mutex;
    std::map<std::string, Entry> m_entries ZEL_GUARDED_BY(m_mutex);
};

} // namespace

std::string withValue(const char* data, std::size_t size, const CStdStr<char>& name,
                      const Value& value)
{
    return textWith(parseTree(std::string_view(data, size)), name, value);
}

std::shared_ptr<const Values> parse(const char* data, std::size_t size)
{
    const Tree tree = parseTree(std::string_view(data, size));
    return tree ? std::make_shared<const Values>(valuesOf(tree.get())) : nullptr;
}

CStdStr<char> filePath(const CStdStr<char>& domain)
{
    CStdStr<char> path = places::preferences() + "/";
    bool first = true;
    for (const char letter : domain) {
        const bool plain = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
                           (letter >= '0' && letter <= '9') || letter == '_' || letter == '-' ||
                           (letter == '.' && !first);
        if (plain) {
            path += letter;
        } else {
            path.AppendFormat("%%%02X",
                              static_cast<unsigned int>(static_cast<unsigned char>(letter)));
        }
        first = false;
    }
    return path + ".plist";
}

std::shared_ptr<const Values> read(const CStdStr<char>& domain)
{
    // Never destroyed: threads that run on while the process ends may still read.
    static Cache& cache = *new Cache;
    return cache.read(filePath(domain));
}

bool write(const CStdStr<char>& domain, const CStdStr<char>& name, const Value& value)
{
    const CStdStr<char> folder = places::preferences();
    if (!places::makeFolders(folder, 0700)) {
        return false;
    }
    const CStdStr<char> path = filePath(domain);
    const FileHandle lock = lockDomain(path);
    if (!lock.isOpen()) {
        return false;
    }

    FileHandle former;
    struct stat status = {};
    std::string text;
    const Content content = load(path, former, status, text);
    if (content == Content::Failed) {
        return false;
    }
    Tree tree = content == Content::Complete ? parseTree(text) : Tree();
    const bool readable = static_cast<bool>(tree);
    const std::string changed = textWith(std::move(tree), name, value);
    if (changed.empty() || changed.size() > maxFileSize) {
        return false;
    }
    const CStdStr<char> newPath = path + ".new";
    bool done = writeBeside(newPath, changed, readable ? &status : nullptr);
    if (done && !readable && content != Content::Absent) {
        rename(path.c_str(), (path + ".unreadable").c_str());
    }
    done = done && rename(newPath.c_str(), path.c_str()) == 0;
    if (!done) {
        unlink(newPath.c_str());
        return false;
    }
    syncFolder(folder);
    return true;
}

} // namespace zel::settings
