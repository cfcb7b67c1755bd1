// The process: what comes up in which order, and how it ends. Everything else is elsewhere.

#include "mapping/BOMOMapper.h"
#include "persistence/Surroundings.h"
#include "requests/DatabaseWrapper.h"
#include "store/FileLocations.h"
#include "store/RuntimeGuard.h"
#include "store/SQLite.h"

#include "platform/framework/FrameworkCore.h"
#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

using TAMO::Framework::FrameworkCore;
using TAMO::Framework::Control::FrameworkControl;

namespace {

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

constexpr const char* usage =
    "usage: tamo_db [--help | --version]\n"
    "The configuration database service takes everything else from the environment:\n"
    "  TAMO_DB_RUNTIME_PATH      directory of the runtime database (must be set)\n"
    "  TAMO_DB_FILE_PATH         directory of the permanent configuration (default: of this program)\n"
    "  TAMO_DB_DUMP_FILE_PATH    directory of DatabaseDump (default: the current directory)\n"
    "  TAMO_PERSISTENT_STORAGE   directory of the common database (default: /var/permanent/tamodb)\n"
    "  TAMO_BRM_BACKUP_PATH      directory above the backup database (default: /var/permanent/brm_backup)\n"
    "  TAMO_BRM_TEMP_FILE_PATH   directory of the dump made for a backup\n"
    "  AI_CONFIG_FILE_PATH       directory of aipersistentdata.xml (default: /var/persistent/tmp)\n"
    "  DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH  directory of deprecated_attribute_mapping.xml\n"
    "                            (default: /opt/OAM/tamo/conf)\n"
    "  MOM_BOM_MAPPING_FILE_PATH directory of the BO-MO mapping files\n"
    "  TAMO_FRAMEWORK_DIR        directory of the message sockets (default: /run/tamo)\n"
    "  TAMO_NODE_STATE           file with the state of a simulated node\n"
    "  TAMO_LOG_FILE, TAMO_LOG_LEVEL  log file and level: error, warning, info, debug\n";

int answerArguments(int count, char** arguments)
{
    const std::string_view first(arguments[1]);
    if (count == 2 && first == "--help") {
        std::fputs(usage, stdout);
        return 0;
    }
    if (count == 2 && first == "--version") {
        std::puts("tamo_db " TAMO_DB_VERSION);
        return 0;
    }
    std::fprintf(stderr, "tamo_db: unknown argument '%s'\n%s", arguments[count == 2 ? 1 : count - 1], usage);
    return exitUsage;
}

/// Fills the runtime database: from the permanent configuration, else with the empty schema.
void loadInitialTree(SQLite& store)
{
    if (store.loadPermanentConfFile())
        return;
    LOG_INFO("Permanent configuration file was not loaded.");
    if (store.loadError())
        return;
    const std::string file = store.databaseFile();
    if (SQLite::CheckIfFileExists(file) && !moveAside(file))
        LOG_ERROR("Cannot put %s aside: %s", file.c_str(), std::strerror(errno));
    if (store.loadOrSaveDb(SQLite::Direction::load) != 0)
        store.setLoadError();
}

void synchroniseAttributes(SQLite& store)
{
    int partition = 5;
    store.getPartition(partition);
    if (partition == goldenPartition) {
        LOG_INFO("Database: Started partition was golden, skipping attribute synchronization xml parsing");
    } else if (SQLite::CheckIfFileExists(permanentFile())) {
        if (!store.parseDeprecatedAttributeMappingXML()) {
            LOG_ERROR("Database: Failed to parse deprecated attribute mapping xml");
            LOG_ERROR("Database: Requesting SW fallback");
            store.doFallback();
        }
        store.syncAttributes();
        store.setAttributeSynchronisationEnabled();
    } else {
        LOG_INFO("Database: pRBSdb does not exist, skipping attribute synchronization xml parsing");
    }
}

/// Ends a start that failed. Nothing is saved: the database file's path may name the permanent
/// configuration by now, and the runtime database is empty.
int endFailedStart()
{
    constexpr bool save = false;
    SQLite::destroyInstance(save);
    return exitFailed;
}

void serveRequests()
{
    // Both live until the process ends: messages may still be on their way to the wrapper. Static, so that
    // a leak checker sees that they are meant to.
    static auto* const wrapper = new DatabaseWrapper("DatabaseWrapper");
    wrapper->initialise();
    static auto* const mapper = new BOMOMapper;
    mapper->mapBOMO(environmentPath("MOM_BOM_MAPPING_FILE_PATH").value_or(""));
    wrapper->start();
    if (wrapper->thread().exists())
        wrapper->thread().join();
}

int runService()
{
    RuntimeGuard guard;
    if (!guard.claim())
        return exitFailed;
    SQLite& store = SQLite::getInstance();
    store.DeletepRBSdbFileWhenGoldenSWIsInUse();
    if (!store.hasRuntimeConnection())
        return endFailedStart();
    FrameworkCore framework;
    framework.initialize();
    if (!FrameworkControl::initialize({"--node", "db", "--connect", "fm"}))
        return endFailedStart();
    LOG_INFO("Database started up and is ready for operations");
    reportUnusableSurroundings();

    loadInitialTree(store);
    if (store.loadError()) {
        LOG_ERROR("Database: Error reading %s", store.databaseFile().c_str());
        LOG_ERROR("Database: Initial operations failed!");
        return endFailedStart();
    }
    synchroniseAttributes(store);
    store.setReady();
    store.setDatabaseFile(dumpFile());
    store.loadOrSaveDb(SQLite::Direction::save);
    store.insertResetReason();
    serveRequests();

    framework.finalize();
    FrameworkControl::finalize();
    SQLite::destroyInstance();
    return 0;
}

} // namespace

int main(int count, char** arguments)
{
    if (count > 1)
        return answerArguments(count, arguments);
    RegisterSegmentFaultHandler();
    try {
        return runService();
    } catch (const std::exception& error) { // no memory, for one
        LOG_ERROR("Database: Ended by an exception: %s", error.what());
        std::_Exit(exitFailed); // other threads may be at work: nothing is destroyed under them
    }
}
