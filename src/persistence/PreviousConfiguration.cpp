// What a store keeps until it is over, and what a start makes of a store that was never over.

#include "persistence/PreviousConfiguration.h"

#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

void synchronise(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fsync(descriptor);
    close(descriptor);
}

/// Renames, and has the medium know of it: what follows must not get there first.
bool renameForGood(const std::string& from, const std::string& to)
{
    if (rename(from.c_str(), to.c_str()) != 0)
        return false;
    synchronise(to);
    const std::string directory = std::filesystem::path(to).parent_path();
    synchronise(directory.empty() ? "." : directory);
    return true;
}

bool hasRoomFor(const std::string& file, off_t size)
{
    constexpr std::uint64_t spare = 64U * 1024U; // for what the file system itself needs
    struct statvfs drive {};
    return statvfs(file.c_str(), &drive) == 0 &&
           std::uint64_t{drive.f_bavail} * drive.f_frsize >= static_cast<std::uint64_t>(size) + spare;
}

} // namespace

PreviousConfiguration::PreviousConfiguration(const std::string& file, off_t newSize) : m_file(file)
{
    struct stat entry {};
    if (lstat(file.c_str(), &entry) != 0 || !S_ISREG(entry.st_mode) || entry.st_size == 0 || !hasRoomFor(file, newSize))
        return;
    m_mode = entry.st_mode & 07777U;
    m_kept = renameForGood(file, previousName(file));
}

PreviousConfiguration::~PreviousConfiguration()
{
    if (m_kept && !renameForGood(previousName(m_file), m_file))
        LOG_ERROR("Cannot put %s back: %s. The next start will.", previousName(m_file).c_str(), std::strerror(errno));
}

void PreviousConfiguration::drop()
{
    if (m_kept && chmod(m_file.c_str(), m_mode) != 0)
        LOG_WARNING("Cannot give %s the mode %o: %s", m_file.c_str(), m_mode, std::strerror(errno));
    m_kept = false;
    const std::string previous = previousName(m_file); // also one that could not be put back once
    if (unlink(previous.c_str()) == 0)
        flushFileSystems(); // were it there again after a power cut, the next start would take it back
    else if (errno != ENOENT)
        LOG_ERROR("Cannot remove %s: %s", previous.c_str(), std::strerror(errno));
}

void PreviousConfiguration::takeBack(const std::string& file)
{
    const std::string previous = previousName(file);
    struct stat entry {};
    if (lstat(previous.c_str(), &entry) != 0 || !S_ISREG(entry.st_mode) || entry.st_size == 0)
        return;
    removeSideFiles(file);
    if (renameForGood(previous, file))
        LOG_WARNING("A store was interrupted: %s is the configuration before it", file.c_str());
    else
        LOG_ERROR("Cannot put %s back: %s", previous.c_str(), std::strerror(errno));
}
