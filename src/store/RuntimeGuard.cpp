// The checks before anything in the runtime directory is touched.

#include "store/RuntimeGuard.h"

#include "store/FileLocations.h"

#include "platform/middleware/Log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

namespace {

struct Neighbour {
    const char* what;
    std::string directory;
};

bool sameDirectory(const std::string& a, const std::string& b)
{
    struct stat first {};
    struct stat second {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

std::string directoryOf(const std::string& file)
{
    const std::string parent = std::filesystem::path(file).parent_path();
    return parent.empty() ? "." : parent;
}

/// The directories of the files that must outlive this process.
std::vector<Neighbour> lastingDirectories()
{
    const std::string backup = environmentPath("TAMO_BRM_BACKUP_PATH").value_or("/var/permanent/brm_backup");
    const std::string common = environmentPath("TAMO_PERSISTENT_STORAGE").value_or("/var/permanent/tamodb");
    std::vector<Neighbour> all{{"the permanent configuration", directoryOf(permanentFile())},
                               {"the backup database", backup + "/database"},
                               {"the common database", common}};
    if (const auto file = commonDbWriteFile())
        all.push_back({"the common database", directoryOf(*file)});
    return all;
}

} // namespace

RuntimeGuard::~RuntimeGuard()
{
    if (m_lock >= 0)
        close(m_lock);
}

bool RuntimeGuard::claim()
{
    if (!std::getenv("TAMO_DB_RUNTIME_PATH")) {
        LOG_ERROR("TAMO_DB_RUNTIME_PATH is not set: it must name the directory of the runtime database");
        return false;
    }
    const std::string directory = runtimeDirectory();
    const char* const path = directory.c_str();
    struct stat status {};
    if (directory.empty()) {
        LOG_ERROR("TAMO_DB_RUNTIME_PATH is empty or longer than %zu characters", maxRuntimePathLength);
        return false;
    }
    if (stat(path, &status) != 0) {
        LOG_ERROR("TAMO_DB_RUNTIME_PATH names a directory that cannot be used: %s (%s)", path, std::strerror(errno));
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        LOG_ERROR("TAMO_DB_RUNTIME_PATH does not name a directory: %s", path);
        return false;
    }
    if (access(path, W_OK | X_OK) != 0) {
        LOG_ERROR("TAMO_DB_RUNTIME_PATH names a directory that cannot be written: %s (%s)", path, std::strerror(errno));
        return false;
    }
    for (const Neighbour& lasting : lastingDirectories())
        if (sameDirectory(directory, lasting.directory)) {
            LOG_ERROR("TAMO_DB_RUNTIME_PATH names the directory of %s: %s. The runtime database would overwrite it",
                      lasting.what, path);
            return false;
        }
    return lock(directory);
}

bool RuntimeGuard::lock(const std::string& directory)
{
    const std::string file = directory + "/tamo_db.lock";
    m_lock = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (m_lock < 0) {
        LOG_ERROR("TAMO_DB_RUNTIME_PATH names a directory in which %s cannot be made: %s", file.c_str(),
                  std::strerror(errno));
        return false;
    }
    if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        LOG_ERROR("Another instance of the database service holds the runtime directory %s", directory.c_str());
        return false;
    }
    return true;
}
