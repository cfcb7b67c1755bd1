// The common database: a few facts about the node's life that outlive the tree, in a file of its
// own. It is written through an in-memory copy, so that the runtime database is not touched.

#include "store/SQLite.h"

#include "store/ConnectionSwap.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"
#include "values/ValueType.h"

#include <sqlite3.h>

namespace {

/// Loads the common file into the connection swapped in, adds the object and stores it again.
bool insertThroughMemory(SQLite& store, DBObject& object, const std::string& client, const char* operation)
{
    const char* const file = store.databaseFile().c_str();
    if (store.loadOrSaveDb(SQLite::Direction::load) != SQLITE_OK) {
        LOG_DEBUG("SQLite::%s, Failed to load or create database %s.", operation, file);
        return false;
    }
    const bool inserted = store.sql_insert(&object, false, client);
    if (inserted)
        LOG_DEBUG("SQLite::%s, object %s inserted into Common database %s.", operation, object.dn.c_str(), file);
    else
        LOG_DEBUG("SQLite::%s, Failed to insert object and attributes into database %s.", operation, file);
    if (store.loadOrSaveDb(SQLite::Direction::save) != SQLITE_OK) {
        LOG_DEBUG("SQLite::%s, Database %s store failed", operation, file);
        return false;
    }
    LOG_DEBUG("SQLite::%s, Database %s stored", operation, file);
    return inserted;
}

bool writeObject(SQLite& store, DBObject& object, const std::string& client, const std::string& file,
                 const char* operation)
{
    Connection memory;
    const int opened = memory.open(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout);
    if (opened != SQLITE_OK) {
        LOG_ERROR("SQLite::%s: memory database open failed. SQLite error [%d]", operation, opened);
        return false;
    }
    LOG_DEBUG("SQLite::%s: memory database opened.", operation);
    bool result = false;
    {
        const ConnectionSwap swap(store, memory, file);
        result = insertThroughMemory(store, object, client, operation);
    }
    LOG_DEBUG("SQLite::%s: closing memory database.", operation);
    return result;
}

} // namespace

bool SQLite::sql_insert_to_commondb(DBObject* object, bool, int, const std::string& client, bool saveCurrentFirst)
{
    const char* const operation = __func__;
    if (m_commonDatabaseLocked) {
        LOG_INFO("SQLite::%s, Common db is locked", operation);
        return true;
    }
    if (unavailable(operation))
        return false;
    if (!object) {
        LOG_ERROR("SQLite::%s, Update error: DBObject is invalid!", operation);
        return false;
    }
    LOG_DEBUG("SQLite::%s, Storing %s to Common database", operation, object->dn.c_str());
    LOG_DEBUG("SQLite::%s, getDb Name %s ", operation, m_databaseFile.c_str());
    const auto failed = [&] {
        LOG_ERROR("SQLite::%s, insert failed", operation);
        return false;
    };
    // A copy cannot be taken from a connection that is inside a write transaction.
    if (saveCurrentFirst && !m_runtime->inTransaction()) {
        if (loadOrSaveDb(Direction::save) != SQLITE_OK) {
            LOG_DEBUG("SQLite::%s, Failed to save current database %s.", operation, m_databaseFile.c_str());
            return failed();
        }
    } else {
        LOG_INFO("SQLite::%s, current DB NOT saved", operation);
    }
    const auto file = commonDbWriteFile();
    if (!file) {
        LOG_DEBUG("SQLite::%s, Failed to load environment setting.", operation);
        return failed();
    }
    if (!writeObject(*this, *object, client, *file, operation))
        return failed();
    LOG_INFO("SQLite::%s, insert ok", operation);
    return true;
}

void SQLite::insertResetReason()
{
    DBObject common("Common", 1, false, false, 1, 1);
    common.addAttribute(Attribute(false, "resetReason", m_resetReason, 0, false, IPCData::INT32, true, false));
    sql_insert(&common, false, "SQLite::insertResetReason");
    LOG_INFO("SQLite::%s Reset reason: %s stored to database", __func__, tamoResetReasontoString(m_resetReason));
}
