// A start while backup-and-restore is under way: either the reset that was to bring the restored
// configuration up, or one that nobody expected and that ends the operation.

#include "persistence/StartUpLoad.h"

#include "persistence/PreviousConfiguration.h"
#include "persistence/ShellCommand.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

#include <sqlite3.h>

#include <filesystem>

namespace {

constexpr const char* operation = "loadPermanentConfFile";

bool isRestore(std::int32_t reason) { return reason == 19 || reason == 20; }

int runLogged(const std::string& command)
{
    LOG_INFO("SQLite::%s, Executing system command: %s", operation, command.c_str());
    return runCommand(command);
}

const char* text(bool value) { return value ? "true" : "false"; }

} // namespace

bool SQLite::StartUpLoad::duringBackup()
{
    if (isRestore(m_store.m_resetReason) && m_middlewareReason == middlewareOrderedReset)
        return CheckIfFileExists(m_backupFile) && restore();
    abandonBackup();
    return false;
}

bool SQLite::StartUpLoad::restore()
{
    if (!replacePermanentFile()) {
        LOG_ERROR("SQLite::%s, Failed to load permanent configuration file from %s", operation, m_backupFile.c_str());
        return false;
    }
    LOG_INFO("SQLite::%s, Permanent configuration file loaded from %s", operation, m_backupFile.c_str());
    insertCommonObject();
    const bool validated = m_store.validateSystemMode();
    LOG_INFO("SQLite::%s, systemModeValidated: %s", operation, text(validated));
    if (!validated)
        return refuseRestoredMode();
    removeBackupDirectory();
    return true;
}

bool SQLite::StartUpLoad::replacePermanentFile()
{
    m_store.setDatabaseFile(m_permanentFile);
    std::error_code error;
    const auto size = std::filesystem::file_size(m_backupFile, error);
    PreviousConfiguration previous(m_permanentFile, error ? 0 : static_cast<off_t>(size));
    // A journal left beside the file would be rolled back onto the restored content.
    removeSideFiles(m_permanentFile);
    if (runLogged("cp " + shellWord(m_backupFile) + " " + shellWord(m_permanentFile)) != 0)
        return false;
    if (load() != SQLITE_OK || m_store.convertToCurrentVersion() != SQLITE_OK)
        return false;
    flushFileSystems(); // a power cut must not find this one and the backup gone
    previous.drop();
    return true;
}

/// The middleware has been told of the restored mode; it holds after a reset, which is to find
/// everything as this start did.
bool SQLite::StartUpLoad::refuseRestoredMode()
{
    LOG_INFO("SQLite::%s, if resetReason was previously deleted from commonDB (%s) -> insert it back to commonDB with "
             "same value before requesting reset from AMW",
             operation, text(m_reasonFound));
    startSamePartitionAgain();
    LOG_INFO("SQLite::%s, RBS system mode mismatch during BRM operation, requesting reset from AMW", operation);
    mw_api_pwr_controlled_reset(1, 1);
    return false;
}

void SQLite::StartUpLoad::abandonBackup()
{
    removeBackupDirectory();
    // A file that cannot take the end of the operation would bring every later start here again.
    if (!writeBackupNotOngoing())
        putCommonDatabaseAside();
    LOG_INFO("SQLite::%s, Requesting reset from AMW", operation);
    LOG_INFO("SysEvnt: Unexpected reset occured during BRM operation, executing recovery reset");
    mw_api_pwr_controlled_reset(1, 1);
}

void SQLite::StartUpLoad::removeBackupDirectory()
{
    if (mayRemoveTree(m_backupDirectory))
        runLogged("rm -rf " + shellWord(m_backupDirectory));
}
