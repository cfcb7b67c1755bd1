// A node's directories, and the environment that leads the service to them. The verbs, the supervisor
// and, by way of `tamo_node env`, scripts take every path from here.
#include "NodeLayout.h"

#include "platform/host/Frame.h"
#include "platform/middleware/mw_api.h"

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {
constexpr int partitions[] = {1, 2, goldenPartition};
}

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
    for (const int partition : partitions) {
        wanted.push_back(flash(partition));
        wanted.push_back(configurationAreas() + '/' + std::to_string(partition));
    }
    std::error_code error;
    for (const auto& directory : wanted)
        if (fs::create_directories(directory, error); error) {
            problem = "cannot make " + directory + ": " + error.message();
            return false;
        }
    fs::permissions(sockets(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec, error);
    return true;
}

bool NodeLayout::clearVolatile(std::string& problem) const
{
    for (const auto& directory : {sockets(), runtime()}) {
        std::error_code error;
        for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error))
            if (fs::remove_all(entry->path(), error); error)
                break;
        if (error) {
            problem = "cannot clear " + directory + ": " + error.message();
            return false;
        }
    }
    return true;
}
