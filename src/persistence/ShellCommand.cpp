// Commands given to the shell. Their texts are part of what operators see in the log, so that paths
// stand in them plainly unless the shell would make something else of them.

#include "persistence/ShellCommand.h"

#include "store/FileLocations.h"
#include "store/SQLite.h"

#include "platform/middleware/Log.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace fs = std::filesystem;

namespace {

/// While it lives, the end of a child is ours to collect: whoever ignores SIGCHLD loses its status.
class DefaultChildSignal {
public:
    DefaultChildSignal()
    {
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &standard, &m_before);
    }
    ~DefaultChildSignal() { sigaction(SIGCHLD, &m_before, nullptr); }
    DefaultChildSignal(const DefaultChildSignal&) = delete;
    DefaultChildSignal& operator=(const DefaultChildSignal&) = delete;

private:
    struct sigaction m_before {};
};

/// Resolved as far as it exists, without a slash at the end.
fs::path resolved(const std::string& path)
{
    std::error_code error;
    fs::path result = fs::weakly_canonical(path, error);
    if (error)
        result = fs::path(path).lexically_normal();
    return result.has_filename() || result == result.root_path() ? result : result.parent_path();
}

bool holds(const fs::path& directory, const fs::path& inside)
{
    const auto relative = inside.lexically_relative(directory);
    return !relative.empty() && *relative.begin() != "..";
}

} // namespace

std::string shellWord(const std::string& path)
{
    if (path.starts_with('-')) // every program takes that for an option
        return shellWord("./" + path);
    constexpr const char* plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._/+,:=-";
    if (!path.empty() && path.find_first_not_of(plain) == std::string::npos)
        return path;
    std::string word = "'";
    for (const char character : path)
        word += character == '\'' ? std::string("'\\''") : std::string(1, character);
    return word + "'";
}

int runCommand(const std::string& commandLine)
{
    const DefaultChildSignal scope;
    return std::system(commandLine.c_str());
}

bool mayRemoveTree(const std::string& directory)
{
    const auto refused = [&](const std::string& why) {
        LOG_ERROR("Not removing the directory \"%s\": %s", directory.c_str(), why.c_str());
        return false;
    };
    if (!fs::path(directory).is_absolute())
        return refused("its path does not begin at the root");
    const fs::path wanted = resolved(directory);
    if (wanted == wanted.root_path())
        return refused("it is the root");
    for (const auto& [name, kept] : {std::pair<const char*, std::string>("permanent", permanentFile()),
                                     {"common", SQLite::getInstance().getCommonDbPath() + "/commondb"},
                                     {"runtime", runtimeFile()}})
        if (holds(wanted, resolved(kept)))
            return refused("it holds the " + std::string(name) + " database " + kept);
    return true;
}
