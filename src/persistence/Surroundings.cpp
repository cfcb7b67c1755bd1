// What storing and restoring need of the system around the service.

#include "persistence/Surroundings.h"

#include "store/FileLocations.h"

#include "platform/middleware/Log.h"

#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

struct Variable {
    const char* name;
    const char* withoutIt; ///< what happens then; null where a default takes its place
};

constexpr Variable variables[] = {
    {"TAMO_DB_FILE_PATH", nullptr},
    {"TAMO_DB_DUMP_FILE_PATH", nullptr},
    {"TAMO_PERSISTENT_STORAGE", "the common database cannot be written"},
    {"TAMO_BRM_BACKUP_PATH", nullptr},
    {"TAMO_BRM_TEMP_FILE_PATH", "a backup would be written to the root directory"},
};

constexpr const char* programs[] = {"sqlite3", "diff", "grep", "cp", "rm"};

void report(const Variable& variable)
{
    const char* const value = std::getenv(variable.name);
    const char* problem = nullptr;
    if (!value)
        problem = variable.withoutIt ? "not set" : nullptr;
    else if (!environmentPath(variable.name))
        problem = "too long and not used";
    else if (*value == '\0')
        problem = "empty";
    if (problem)
        LOG_ERROR("Environment variable %s is %s: %s", variable.name, problem,
                  variable.withoutIt ? variable.withoutIt : "it is to name a directory");
}

bool isOnPath(const char* program)
{
    const char* const path = std::getenv("PATH");
    std::string_view rest(path ? path : "/usr/local/bin:/usr/bin:/bin");
    while (!rest.empty()) {
        const std::string_view directory = rest.substr(0, rest.find(':'));
        rest.remove_prefix(directory.size() == rest.size() ? rest.size() : directory.size() + 1);
        if (access((std::string(directory) + "/" + program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

} // namespace

void reportUnusableSurroundings()
{
    for (const Variable& variable : variables)
        report(variable);
    for (const char* const program : programs)
        if (!isOnPath(program))
            LOG_ERROR("Program %s is not on PATH: the configuration cannot be stored without it", program);
}
