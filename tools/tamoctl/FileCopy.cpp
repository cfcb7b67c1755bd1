// Copies a database file that may be in use. SQLite's writers are held off by the lock its readers
// take, on a descriptor of our own; a program that replaces the file without locks (cp) is noticed by
// the file's size and times.

#include "tools/tamoctl/FileCopy.h"

#include "tools/tamoctl/Failure.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// Bytes of the file that SQLite locks; "pending" keeps writers from beginning, "shared" is a reader.
constexpr off_t pendingByte = 0x40000000;
constexpr off_t sharedFirst = pendingByte + 2;
constexpr off_t sharedSize = 510;

constexpr std::chrono::seconds lockWait{10};
constexpr std::chrono::milliseconds lockPause{20};

constexpr int triesAgainstReplacement = 5;

[[noreturn]] void refuse(const std::string& path, const std::string& why)
{
    throw Failure(ExitCode::usage, path + " cannot be examined: " + why);
}

/// Holds the lock of a reader. It belongs to the descriptor, so that others which this process opens
/// and closes leave it alone.
class ReaderLock {
public:
    explicit ReaderLock(const std::string& path) : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (m_descriptor < 0)
            refuse(path, std::strerror(errno));
        const auto end = std::chrono::steady_clock::now() + lockWait;
        while (!lock(pendingByte, 1) || !lock(sharedFirst, sharedSize)) {
            if (errno != EAGAIN && errno != EACCES)
                return; // a file system without locks: nobody else has one there either
            if (std::chrono::steady_clock::now() >= end) {
                ::close(m_descriptor);
                refuse(path, "another process is writing to it");
            }
            std::this_thread::sleep_for(lockPause);
        }
    }
    ~ReaderLock() { ::close(m_descriptor); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

private:
    bool lock(off_t from, off_t size) const
    {
        struct flock range {};
        range.l_type = F_RDLCK;
        range.l_whence = SEEK_SET;
        range.l_start = from;
        range.l_len = size;
        return ::fcntl(m_descriptor, F_OFD_SETLK, &range) == 0;
    }
    int m_descriptor;
};

/// What changes when a file is written or replaced.
struct Stamp {
    dev_t device;
    ino_t inode;
    off_t size;
    std::int64_t seconds, nanoseconds;
    bool operator==(const Stamp&) const = default;
};

std::optional<Stamp> stampOf(const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return Stamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

/// Copies a side file when there is one; its size.
std::uint64_t copySideFile(const std::string& from, const std::string& to)
{
    if (!fs::exists(from))
        return 0;
    fs::copy(from, to, fs::copy_options::overwrite_existing); // also a directory that stands in its place
    return fs::is_regular_file(from) ? fs::file_size(from) : 0;
}

std::string makeDirectory()
{
    std::error_code error;
    std::string name = fs::temp_directory_path(error) / "tamoctl.XXXXXX";
    if (error)
        throw Failure(ExitCode::usage, "no directory for a copy: TMPDIR names none (" + error.message() + ")");
    if (!::mkdtemp(name.data()))
        throw Failure(ExitCode::usage, "no directory for a copy at " + name + ": " + std::strerror(errno));
    return name;
}

} // namespace

FileCopy::FileCopy(const std::string& path) : m_directory(makeDirectory())
{
    try {
        copyAll(path);
    } catch (const fs::filesystem_error& error) {
        std::error_code ignored;
        const auto room = fs::space(m_directory, ignored).available;
        fs::remove_all(m_directory);
        refuse(path, error.code().message() + " while it was copied to " + m_directory + " (" + std::to_string(room) +
                         " bytes free)");
    } catch (...) {
        fs::remove_all(m_directory);
        throw;
    }
}

FileCopy::~FileCopy()
{
    std::error_code ignored;
    fs::remove_all(m_directory, ignored);
}

void FileCopy::copyAll(const std::string& path)
{
    for (int i = 0; i < triesAgainstReplacement; ++i) {
        const auto before = stampOf(path);
        const ReaderLock lock(path);
        fs::copy_file(path, this->path(), fs::copy_options::overwrite_existing);
        fs::permissions(this->path(), fs::perms::owner_read | fs::perms::owner_write);
        m_journalSize = copySideFile(path + "-journal", this->path() + "-journal") +
                        copySideFile(path + "-wal", this->path() + "-wal");
        m_size = fs::file_size(this->path());
        if (before == stampOf(path))
            return;
    }
    refuse(path, "it is replaced again and again");
}
