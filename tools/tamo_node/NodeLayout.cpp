// A node's directories, and the environment that leads the service to them. The verbs, the supervisor
// and, by way of `tamo_node env`, scripts take every path from here.
#include "NodeLayout.h"

#include "platform/host/Frame.h"
#include "platform/middleware/mw_api.h"

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

/// Trees that the storage holds; the others are memory, or nobody writes them.
constexpr const char* lasting[] = {"flash", "config", "common", "backup"};

/// Whether something of `keep` is `path` or below it.
bool isNeeded(const std::string& path, const std::vector<std::string>& keep)
{
    for (const auto& needed : keep)
        if (needed == path || needed.starts_with(path + '/'))
            return true;
    return false;
}

/// Empties `directory`, which the node knows as `name`. What is mounted there for `keep` stays.
bool empty(const std::string& directory, const std::string& name, const std::vector<std::string>& keep,
           std::string& problem)
{
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error))
        if (!isNeeded(name + '/' + entry->path().filename().string(), keep))
            if (fs::remove_all(entry->path(), error); error)
                break;
    if (error)
        problem = "cannot clear " + directory + ": " + error.message();
    return !error;
}

} // namespace

std::vector<std::pair<std::string, std::string>> NodeLayout::environment(int partition) const
{
    return {
        {"TAMO_FRAMEWORK_DIR", sockets()},
        {"TAMO_DB_RUNTIME_PATH", runtime()},
        {"TAMO_DB_FILE_PATH", flash(partition)},
        {"TAMO_DB_DUMP_FILE_PATH", dump()},
        {"TAMO_PERSISTENT_STORAGE", common()},
        {"TAMO_BRM_BACKUP_PATH", backup()},
        {"TAMO_BRM_TEMP_FILE_PATH", backupWork()},
        {"AI_CONFIG_FILE_PATH", conf()},
        {"DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", conf()},
        {"MOM_BOM_MAPPING_FILE_PATH", conf()},
        {"TAMO_CONFIG_PARTITIONS", configurationAreas()},
        {"TAMO_NODE_STATE", stateFile()},
        {"TAMO_NODE_MEDIUM", medium()},
        {"TAMO_NODE_ROOT", root()},
    };
}

bool NodeLayout::make(std::string& problem) const
{
    // The service keeps to the length of a socket address; better said here than in its log.
    const std::string socket = TAMO::Wire::socketPath(sockets(), "reset");
    if (socket.size() > TAMO::Wire::maxSocketPath) {
        problem = m_directory + " is too long for a node: the path of a socket in it would have " +
                  std::to_string(socket.size()) + " characters, " + std::to_string(TAMO::Wire::maxSocketPath) +
                  " are possible";
        return false;
    }
    std::vector<std::string> wanted{sockets(),    runtime(), common(), backup() + "/database",
                                    backupWork(), conf(),    dump(),   privateTmp()};
    for (int partition = 1; partition <= goldenPartition; ++partition) {
        wanted.push_back(flash(partition));
        wanted.push_back(configurationArea(partition));
    }
    for (const char* tree : lasting)
        wanted.push_back(medium() + '/' + tree);
    std::error_code error;
    for (const auto& directory : wanted)
        if (fs::create_directories(directory, error); error) {
            problem = "cannot make " + directory + ": " + error.message();
            return false;
        }
    fs::permissions(sockets(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec, error);
    return true;
}

bool NodeLayout::clearVolatile(bool ownTmp, const std::vector<std::string>& keep, std::string& problem) const
{
    if (!empty(sockets(), sockets(), {}, problem) || !empty(runtime(), runtime(), {}, problem))
        return false;
    // By its own name: under /tmp, `keep` is mounted on top of it.
    return !ownTmp || (empty(privateTmp(), "/tmp", keep, problem) && empty("/dev/shm", "/dev/shm", keep, problem));
}
