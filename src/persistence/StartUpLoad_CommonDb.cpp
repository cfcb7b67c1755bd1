// The common database at start-up: it is loaded into the runtime connection itself, read, relieved of
// its reset reason, and put aside when it is damaged, so that it cannot stop one start after another.

#include "persistence/StartUpLoad.h"

#include "persistence/SideDatabase.h"
#include "store/FileLocations.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "values/ValueType.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr const char* operation = "loadPermanentConfFile";
constexpr const char* commonPair = "Common";

/// SQLITE_CORRUPT for what facts can neither be read from nor written to, else SQLITE_OK or why
/// that cannot be told. A whole-database copy takes pages as they are, so that damage shows later.
int judge(Connection& connection)
{
    Statement check(&connection, "PRAGMA integrity_check");
    if (!check.next())
        return check.result();
    if (check.text(0) != "ok")
        return SQLITE_CORRUPT;
    Statement tables(&connection, "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name IN "
                                  "('DBObject', 'Attribute')");
    if (!tables.next())
        return tables.result();
    Statement columns(&connection, "SELECT parent, dn, MOInstance, isMOMObject, system, belongsTo, name, value, "
                                   "value_type, hidden, persistent FROM DBObject, Attribute LIMIT 0");
    if (tables.integer(0) != 2 || columns.step() == SQLITE_ERROR)
        return SQLITE_CORRUPT;
    return columns.done() ? SQLITE_OK : columns.result();
}

} // namespace

/// False when the runtime database could not be made anew afterwards: what was read into it must not
/// pass for the configuration when that cannot be loaded.
bool SQLite::StartUpLoad::readCommonDatabase()
{
    const std::string before = m_store.databaseFile();
    bool renewed = true;
    if (CheckIfFileExists(m_commonFile)) {
        m_store.setDatabaseFile(m_commonFile);
        if (loadCommonDatabase()) {
            LOG_DEBUG("SQLite::%s, Common DB-file loaded", operation);
            takeCommonObject();
        }
        m_store.setDatabaseFile(before);
        renewed = m_store.renewRuntime();
    }
    m_store.m_loadError = false; // speaks of the permanent file, which has not been tried yet
    if (!m_reasonFound)
        LOG_INFO("SQLite::%s, Reset reason not available from common DB", operation);
    return renewed;
}

bool SQLite::StartUpLoad::loadCommonDatabase()
{
    int result = m_store.loadOrSaveDb(Direction::load);
    if (result == SQLITE_OK)
        result = judge(*m_store.runtime());
    if (result == SQLITE_OK)
        return true;
    LOG_WARNING("SQLite::%s, the common database %s cannot be read (SQLite error %d); starting without it", operation,
                m_commonFile.c_str(), result);
    if (result == SQLITE_IOERR || result == SQLITE_CORRUPT || result == SQLITE_NOTADB)
        putCommonDatabaseAside();
    return false;
}

void SQLite::StartUpLoad::putCommonDatabaseAside()
{
    if (moveAside(m_commonFile))
        LOG_WARNING("SQLite::%s, %s is put aside as %s", operation, m_commonFile.c_str(),
                    rejectedName(m_commonFile).c_str());
    else
        LOG_ERROR("SQLite::%s, cannot put %s aside: %s", operation, m_commonFile.c_str(), std::strerror(errno));
}

void SQLite::StartUpLoad::takeCommonObject()
{
    const std::int32_t id = m_store.get_object_id(commonPair, 1);
    m_common = id == 0 ? nullptr : m_store.sql_get_object(id, "Database");
    if (!m_common)
        return;
    if (const bool* const ongoing = fact<bool>("brmOngoing"); ongoing && *ongoing) {
        LOG_INFO("SQLite::%s, BrM is ongoing", operation);
        m_backupOngoing = true;
    }
    if (const auto* const reason = fact<std::int32_t>("resetReason"))
        consumeReason(*reason, id);
    detach(*m_common);
}

/// The value of an attribute of the common object; null when there is none. One of another kind is
/// dropped.
template <class Kind>
const Kind* SQLite::StartUpLoad::fact(const char* name)
{
    const Attribute* const attribute = m_common->getAttribute(name);
    if (!attribute)
        return nullptr;
    const Kind* const value = std::get_if<Kind>(&attribute->value);
    if (!value) {
        LOG_ERROR("SQLite::%s, %s in the common database is of kind %d, taken as absent", operation, name,
                  attribute->type);
        m_common->attributes.erase(name);
    }
    return value;
}

/// A reason counts for one start.
void SQLite::StartUpLoad::consumeReason(std::int32_t reason, std::int32_t objectId)
{
    m_store.m_resetReason = reason;
    m_reasonFound = true;
    LOG_INFO("SQLite::%s, Reset reason read from common DB (reason %d)", operation, reason);
    if (!m_store.deleteAttribute("resetReason", objectId, false))
        LOG_ERROR("SQLite::%s, Failed to delete resetReason from CommomDb", operation);
    const int saved = m_store.loadOrSaveDb(Direction::save);
    if (saved != SQLITE_OK)
        LOG_ERROR("SQLite::%s, the common database %s still holds the reset reason: it could not be saved. SQLite "
                  "error: %d",
                  operation, m_commonFile.c_str(), saved);
    m_common->attributes.erase("resetReason");
}

/// Gives the runtime tree what the common database told.
void SQLite::StartUpLoad::insertCommonObject()
{
    if (m_common)
        m_store.sql_insert(m_common.get(), false, "Unknown client");
    m_common.reset();
}

/// Ends backup-and-restore in the common database.
bool SQLite::StartUpLoad::writeBackupNotOngoing()
{
    m_store.setDatabaseFile(m_commonFile);
    if (m_store.loadOrSaveDb(Direction::load) != SQLITE_OK) {
        LOG_ERROR("SQLite::%s, Failed to load commondb!", operation);
        return false;
    }
    DBObject common(commonPair, 1, false, false, 0, 1);
    common.addAttribute(Attribute(false, "brmOngoing", false, 0, false, IPCData::BOOLEAN, true, false));
    const bool inserted = m_store.sql_insert(&common, false, "Database");
    const int saved = m_store.loadOrSaveDb(Direction::save);
    if (!inserted || saved != SQLITE_OK)
        LOG_ERROR("SQLite::%s, the end of the backup operation could not be written to %s. SQLite error: %d", operation,
                  m_commonFile.c_str(), saved);
    return inserted && saved == SQLITE_OK;
}
