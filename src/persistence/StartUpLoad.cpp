// The start-up load from the reset reason to the loaded configuration, and the recovery actions on
// the way. Starts in the middle of backup-and-restore go to StartUpLoad_Restore.cpp.

#include "persistence/StartUpLoad.h"

#include "persistence/PreviousConfiguration.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"
#include "values/ValueType.h"

#include <sqlite3.h>

#include <array>

namespace {

constexpr const char* operation = "loadPermanentConfFile";

constexpr std::int32_t middlewareFactoryReset = 2;
constexpr std::int32_t swFallback = 2;
constexpr std::int32_t factoryResetReason = 7;

constexpr std::int32_t systemModeFault = 0x5120;

/// The middleware's reset reasons 0 to 15 in the numbering of TamoResetReason.
constexpr std::array<std::int32_t, 16> reasonOfMiddleware{5, 6, 7, 8, 9, 10, 12, 11, 21, 22, 23, 24, 25, 28, 29, 30};
constexpr std::int32_t unknownReason = 26;

std::int32_t mappedReason(std::int32_t middleware)
{
    const auto index = static_cast<std::uint32_t>(middleware); // a negative value becomes a large one
    return index < reasonOfMiddleware.size() ? reasonOfMiddleware[index] : unknownReason;
}

/// Trouble of the moment, which the next start may well be without: a full runtime drive, no memory,
/// somebody else's lock.
bool saysNothingOfTheFile(int result)
{
    return result == SQLITE_FULL || result == SQLITE_NOMEM || result == SQLITE_BUSY;
}

/// Software fallback, whoever ordered it.
bool followsFallback(std::int32_t reason) { return reason == swFallback || reason == 22 || reason == 30; }

} // namespace

SQLite::StartUpLoad::StartUpLoad(SQLite& store)
    : m_store(store),
      m_permanentFile(permanentFile()),
      m_backupDirectory(store.getBrMBackupDbPath()),
      m_backupFile(m_backupDirectory + "/pRBSdb"),
      m_commonFile(store.getCommonDbPath() + "/commondb")
{
    // The two differ for a location without a separator; writes go to the other one.
    const auto written = commonDbWriteFile();
    if (written && !isRegularFile(m_commonFile))
        m_commonFile = *written;
}

bool SQLite::StartUpLoad::run()
{
    PreviousConfiguration::takeBack(m_permanentFile);
    if (!readCommonDatabase()) {
        m_store.setLoadError();
        return false;
    }
    if (!askMiddleware())
        return false;
    return m_backupOngoing ? duringBackup() : withoutBackup();
}

/// Settles the reset reason; false when nobody knows one.
bool SQLite::StartUpLoad::askMiddleware()
{
    const int status = mw_api_pwr_reset_reason_get(&m_middlewareReason);
    LOG_INFO("SQLite::%s, mw_api_pwr_reset_reason_get returned %d", operation, m_middlewareReason);
    if (status != 0 && !m_reasonFound) {
        LOG_ERROR("SQLite::%s, mw_api_reset_reason returned mw_api_NOK!", operation);
        return false;
    }
    if (!m_reasonFound) {
        m_store.m_resetReason = mappedReason(m_middlewareReason);
        LOG_INFO("SQLite::%s, Reset reason not found from common database. TAMO reset reason read from AMW(%d): "
                 "%s(%d) ",
                 operation, m_middlewareReason, tamoResetReasontoString(m_store.m_resetReason), m_store.m_resetReason);
    } else if (m_middlewareReason != middlewareOrderedReset) {
        LOG_ERROR("SQLite::%s, Reset reason missmatch between TAMO and AMW !!! ", operation);
    }
    return true;
}

bool SQLite::StartUpLoad::withoutBackup()
{
    if (m_middlewareReason == middlewareFactoryReset || m_store.m_resetReason == factoryResetReason) {
        factoryReset();
        return false;
    }
    if (!CheckIfFileExists(m_permanentFile)) {
        LOG_WARNING("SQLite::%s, Permanent configuration file does not exist.", operation);
        return false;
    }
    const int result = load();
    if (!loadedSoundly(result)) {
        giveUpPermanentFile();
        if (result != SQLITE_OK)
            return false;
    } else if (const int converted = m_store.convertToCurrentVersion(); (result | converted) != SQLITE_OK) {
        if (saysNothingOfTheFile(result) || saysNothingOfTheFile(converted))
            m_store.setLoadError(); // ends this start: the file would be put aside, and the next one comes up empty
        return false;
    }
    LOG_INFO("SQLite::%s, Permanent configuration file loaded.", operation);
    insertCommonObject();
    return takeOver();
}

void SQLite::StartUpLoad::factoryReset()
{
    const bool exists = CheckIfFileExists(m_permanentFile);
    const bool removed = m_store.removeDatabaseFile("pRBSdb"); // and every older one that was put aside
    if (!exists)
        return;
    if (removed)
        LOG_INFO("SQLite::%s, Factory reset detected, permanent configuration file deleted.", operation);
    else
        LOG_INFO("SQLite::%s, Factory reset detected, permanent configuration file not deleted.", operation);
}

/// Loads the permanent file; SQLite's code.
int SQLite::StartUpLoad::load()
{
    m_store.setDatabaseFile(m_permanentFile);
    const int result = m_store.loadOrSaveDb(Direction::load);
    LOG_INFO("SQLite::%s, loadOrSaveDb( LOAD ) Sqlite open return code: %d.", operation, result);
    return result;
}

/// False, with the load-error flag set, for a file whose content cannot be trusted.
bool SQLite::StartUpLoad::loadedSoundly(int result)
{
    if (result == SQLITE_OK) {
        const bool tables = checkDBTables(m_store.runtime());
        if (tables && m_store.checkDbIntegrity(m_permanentFile))
            return true;
        m_store.setLoadError();
        if (tables)
            LOG_ERROR("SQLite::%s,Cannot load permanent configuration file, db integrity error!", operation);
        else
            LOG_ERROR("SQLite::%s,Cannot load permanent configuration file, db table missing!", operation);
        return false;
    }
    if (result != SQLITE_IOERR && result != SQLITE_CORRUPT && result != SQLITE_NOTADB)
        return true;
    m_store.setLoadError();
    LOG_ERROR("SQLite::%s,Cannot load permanent configuration file, sqlite error code: %d.", operation, result);
    return false;
}

void SQLite::StartUpLoad::giveUpPermanentFile()
{
    LOG_INFO("SysEvnt: pRBSdb corrupted, requesting SW fallback");
    LOG_ERROR("SQLite::%s, pRBSdb corrupted, requesting SW fallback", operation);
    m_store.recordResetReason(swFallback);
    flushFileSystems();
    m_store.requestFallbackFromMw();
    m_store.lockCommonDatabase(); // the reason recorded here must be the one that the next start finds
}

/// The last question about a loaded configuration: is it one for this system mode?
bool SQLite::StartUpLoad::takeOver()
{
    if (m_store.validateSystemMode())
        return true;
    if (followsFallback(m_store.m_resetReason)) {
        startSamePartitionAgain();
        LOG_INFO("SQLite::%s, RBS system mode mismatch during SW fallback, requesting reset from AMW", operation);
        LOG_INFO("SysEvnt: RBS system mode mismatch during SW fallback, executing recovery reset");
        mw_api_pwr_controlled_reset(1, 1);
        return false;
    }
    m_store.sendFaultNotif(systemModeFault, true);
    DBObject oam("OAM", 1, false, false, 0, 1);
    oam.addAttribute(Attribute(false, "modeValidationFailed", true, 0, false, IPCData::BOOLEAN, true, false));
    m_store.sql_insert(&oam, false, "SQLite::loadPermanentConfFile");
    return true;
}

/// Prepares a recovery reset: the next start finds this partition and this reason again.
void SQLite::StartUpLoad::startSamePartitionAgain()
{
    if (m_reasonFound)
        m_store.recordResetReason(m_store.m_resetReason);
    int partition = 0;
    if (mw_api_pwr_started_partition_get(&partition) != 0)
        LOG_ERROR("SQLite::%s() Failed to get started partition! Using %d", operation, partition);
    else
        LOG_INFO("SQLite::%s() mw_api_pwr_started_partition_get returned %d", operation, partition);
    const int status = mw_api_pwr_active_partition_set(partition);
    if (status != 0)
        LOG_ERROR("SQLite::%s() Failed to set active partition! mw_api_pwr_active_partition_set returned %d", operation,
                  status);
}
