// What an operator or an upgrade asks of the database as a whole: a slot of parked values made live,
// and an empty tree.

#include "store/SQLite.h"

#include "store/AlternateStorage.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"

#include <sqlite3.h>

#include <utility>

bool SQLite::loadAlternateStorage(std::int32_t slot)
{
    if (unavailable(__func__))
        return false;
    const FlagScope loading = loadingAlternateStorage();
    return AlternateStorage(*m_runtime).loadAlternateStorage(slot);
}

bool SQLite::cleanDatabase()
{
    if (unavailable(__func__))
        return false;
    LOG_DEBUG("SQLite::%s: Starting to clean database", __func__);
    const char* const empty = "empty";
    std::string file;
    Get_TAMO_DB_path(file, permanentDirectory);
    file.append("/").append(empty);
    removeWithSideFiles(file); // a clean that was killed may have left it, and content in it would stay
    const std::string before = std::exchange(m_databaseFile, file);
    const int loaded = loadOrSaveDb(Direction::load);
    m_databaseFile = before;
    if (loaded != SQLITE_OK) {
        LOG_ERROR("SQLite::%s: Failed to delete pRBSdb from FLASH", __func__);
        removeWithSideFiles(file);
        return false;
    }
    removeDatabaseFile(empty);
    LOG_DEBUG("SQLite::%s: In-memory database cleaned, removing pRBSdb from flash...", __func__);
    if (!removeDatabaseFile("pRBSdb")) {
        LOG_ERROR("SQLite::%s: Failed to delete pRBSdb from FLASH", __func__);
        return false;
    }
    LOG_INFO("SQLite::%s: Database successfully cleared", __func__);
    return true;
}
