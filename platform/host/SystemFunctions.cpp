// Small services of the utility library as a workstation gives them. The crash handler, which has
// rules of its own, is in CrashHandler.cpp.
#include "platform/utility/SystemFunctions.h"

#include "platform/host/Medium.h"
#include "platform/middleware/Log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Index is the code. The service itself tells only a few apart: 2, 22 and 30 (a software fallback),
/// 7 (factory reset), 19 and 20 (a restore from backup), 26 (a middleware reason beyond the table).
constexpr std::array<const char*, 31> resetReasons{
    "not set",                               // 0
    "operator request",                      // 1
    "software fallback",                     // 2
    "software upgrade",                      // 3
    "configuration change",                  // 4
    "power on",                              // 5
    "external reset",                        // 6
    "factory reset",                         // 7
    "watchdog",                              // 8
    "reset button",                          // 9
    "software failure",                      // 10
    "kernel failure",                        // 11
    "ordered reset",                         // 12
    "fault recovery",                        // 13
    "hardware fault",                        // 14
    "loss of management connection",         // 15
    "loss of synchronisation",               // 16
    "change of operation mode",              // 17
    "auto-integration",                      // 18
    "restore from backup",                   // 19
    "restore from backup, repeated",         // 20
    "supply voltage too low",                // 21
    "software fallback, boot failed",        // 22
    "temperature too high",                  // 23
    "memory exhausted",                      // 24
    "memory error",                          // 25
    "unknown",                               // 26
    "site visit",                            // 27
    "bus error",                             // 28
    "clock failure",                         // 29
    "software fallback, start not finished", // 30
};

bool isDirectory(const std::string& path)
{
    struct stat entry {};
    return !path.empty() && ::stat(path.c_str(), &entry) == 0 && S_ISDIR(entry.st_mode);
}

/// In single quotes, so that the shell takes it as it stands.
std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

/// The command line with every word that names a file of the node taken from the tree that stands in for
/// the node's root directory (TAMO_NODE_ROOT). A workstation has no /usr/bin/prepare_sw_fallback.sh and no
/// /mnt/activecfg, and nobody may put them there without being root.
std::string withNodesFiles(const std::string& commandLine)
{
    const std::string root = getPath("TAMO_NODE_ROOT", "");
    if (root.empty())
        return commandLine;
    std::string line;
    for (std::size_t start = 0; start <= commandLine.size();) {
        const std::size_t end = std::min(commandLine.find(' ', start), commandLine.size());
        const std::string word = commandLine.substr(start, end - start);
        const bool nodes = word.starts_with('/') && ::access((root + word).c_str(), F_OK) == 0;
        line += nodes ? quoted(root + word) : word;
        if (end < commandLine.size())
            line += ' ';
        start = end + 1;
    }
    return line;
}

/// Starts the shell with default signals and without our descriptors, whatever this process has
/// blocked, ignored or open. Returns an error number.
int startShell(const std::string& commandLine, const std::string& directory, pid_t& child)
{
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
    if (isDirectory(directory))
        posix_spawn_file_actions_addchdir_np(&files, directory.c_str());
    posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::string shell = "sh";
    std::string option = "-c";
    std::string line = commandLine;
    char* arguments[] = {shell.data(), option.data(), line.data(), nullptr};
    const int error = posix_spawn(&child, "/bin/sh", &files, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return error;
}

} // namespace

std::string getPath(const char* variable, const std::string& fallback)
{
    const char* value = std::getenv(variable);
    return value ? value : fallback;
}

std::string getConfigPartitionPath(int partition)
{
    return getPath("TAMO_CONFIG_PARTITIONS", "/mnt/configpartition") + '/' + std::to_string(partition);
}

int executeCmd(int, const std::string& commandLine, const std::string& directory, bool)
{
    pid_t child = -1;
    if (const int error = startShell(withNodesFiles(commandLine), directory, child); error != 0) {
        LOG_ERROR("%s: cannot run \"%s\": %s", __func__, commandLine.c_str(), std::strerror(error));
        return -1;
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) { // ECHILD where somebody ignores SIGCHLD: it ran, its status is lost
            LOG_ERROR("%s: no status from \"%s\": %s", __func__, commandLine.c_str(), std::strerror(errno));
            return -1;
        }
    const int result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (result != 0)
        LOG_WARNING("%s: \"%s\" ended with status %d", __func__, commandLine.c_str(), result);
    return result;
}

void flushFileSystems()
{
    ::sync();
    if (const auto medium = Medium::ofThisNode())
        medium->settleAll();
}

const char* tamoResetReasontoString(std::int32_t reason)
{
    const auto index = static_cast<std::uint32_t>(reason); // a negative code becomes a large one
    return index < resetReasons.size() ? resetReasons[index] : "unknown";
}
