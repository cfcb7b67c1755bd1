// Paths of the database files, and the few file operations that must know about SQLite's side files.

#include "store/FileLocations.h"

#include "platform/middleware/Log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// What SQLite may keep beside a database file.
constexpr const char* sideFiles[] = {"-journal", "-wal", "-shm"};

/// The path of this executable as "/proc/self/exe" links to it; "" when it cannot be read.
std::string linkedExecutable()
{
    std::string target(maxPathLength + 1, '\0');
    const ssize_t length = readlink("/proc/self/exe", target.data(), target.size());
    target.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return target;
}

std::string directoryOf(std::string path) { return dirname(path.data()); }

std::string directoryFromMaps()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    if (!maps || !std::getline(maps, line))
        return {};
    line.resize(std::min(line.size(), maxPathLength));
    const std::string mapped = line.substr(line.find_last_of(' ') + 1);
    LOG_DEBUG("Get_TAMO_DB_path() str: %s", mapped.c_str());
    // A path with blanks, a replaced file or another mapping in front names something else.
    const std::string linked = linkedExecutable();
    return directoryOf(mapped == linked || linked.empty() ? mapped : linked);
}

} // namespace

std::optional<std::string> environmentPath(const char* variable)
{
    const char* const value = std::getenv(variable);
    if (!value || std::strlen(value) > maxPathLength + 1)
        return std::nullopt;
    return std::string(value).substr(0, maxPathLength);
}

std::string executableDirectory()
{
    static const std::string directory = directoryFromMaps();
    return directory;
}

void Get_TAMO_DB_path(std::string& path, int kind)
{
    const auto configured = environmentPath(kind == dumpDirectory ? "TAMO_DB_DUMP_FILE_PATH" : "TAMO_DB_FILE_PATH");
    if (configured) {
        LOG_DEBUG("Get_TAMO_DB_path(): %s", configured->c_str());
        path = *configured;
    } else {
        path = kind == dumpDirectory ? "." : executableDirectory();
    }
}

std::string runtimeDirectory()
{
    const char* const value = std::getenv("TAMO_DB_RUNTIME_PATH");
    return value && std::strlen(value) <= maxRuntimePathLength ? value : "";
}

std::string permanentFile()
{
    std::string directory;
    Get_TAMO_DB_path(directory, permanentDirectory);
    return directory + "/pRBSdb";
}

std::string dumpFile()
{
    std::string directory;
    Get_TAMO_DB_path(directory, dumpDirectory);
    return directory + "/DatabaseDump";
}

std::string runtimeFile() { return runtimeDirectory() + "/pRBSdb"; }

std::optional<std::string> commonDbWriteFile()
{
    auto storage = environmentPath("TAMO_PERSISTENT_STORAGE");
    if (!storage)
        return std::nullopt;
    const std::size_t separator = storage->rfind('/');
    const bool endsInName = separator != std::string::npos && separator + 1 != storage->size();
    return *storage + (endsInName ? "/commondb" : "commondb");
}

bool isRegularFile(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), R_OK) == 0;
}

bool removeWithSideFiles(const std::string& path)
{
    // The file first: were it left without its journal by a kill in between, it would pass for sound.
    const bool removed = unlink(path.c_str()) == 0;
    const int error = errno;
    removeSideFiles(path);
    errno = error;
    return removed;
}

void removeSideFiles(const std::string& path)
{
    for (const char* suffix : sideFiles)
        unlink((path + suffix).c_str());
}

bool moveAside(const std::string& path)
{
    const std::string aside = rejectedName(path);
    const auto renamed = [&] { return rename(path.c_str(), aside.c_str()) == 0; };
    // Where a directory is involved the one there is not replaced: it moves on first.
    const auto barred = [] { return errno == ENOTEMPTY || errno == EEXIST || errno == EISDIR || errno == ENOTDIR; };
    if (!renamed() && !(barred() && moveAside(aside) && renamed()))
        return false;
    for (const char* suffix : sideFiles)
        if (rename((path + suffix).c_str(), (aside + suffix).c_str()) != 0)
            unlink((aside + suffix).c_str()); // of an earlier generation
    return true;
}

std::string rejectedName(const std::string& path) { return path + ".rejected"; }

std::string previousName(const std::string& path) { return path + ".previous"; }
