// The way into a database file that is not the runtime one, for the common database
// (SQLite_CommonDb.cpp) and the backup fragments (SQLite_BackupFragments.cpp).

#include "persistence/SideDatabase.h"

#include "store/ConnectionSwap.h"
#include "store/SQLite.h"

#include "platform/middleware/Log.h"

#include <sqlite3.h>

SideDatabase::~SideDatabase()
{
    if (m_memory.isOpen())
        LOG_DEBUG("SQLite::%s: closing memory database.", m_operation);
}

bool SideDatabase::open()
{
    const int opened = m_memory.open(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout);
    if (opened != SQLITE_OK) {
        LOG_ERROR("SQLite::%s: memory database open failed. SQLite error [%d]", m_operation, opened);
        return false;
    }
    LOG_DEBUG("SQLite::%s: memory database opened.", m_operation);
    return true;
}

bool SideDatabase::change(const std::string& file, const std::function<bool()>& change)
{
    const ConnectionSwap swap(m_store, m_memory, file);
    if (m_store.loadOrSaveDb(SQLite::Direction::load) != SQLITE_OK) {
        LOG_DEBUG("SQLite::%s, Failed to load or create database %s.", m_operation, file.c_str());
        return false;
    }
    const bool changed = change();
    if (m_store.loadOrSaveDb(SQLite::Direction::save) != SQLITE_OK) {
        LOG_DEBUG("SQLite::%s, Database %s store failed", m_operation, file.c_str());
        return false;
    }
    LOG_DEBUG("SQLite::%s, Database %s stored", m_operation, file.c_str());
    return changed;
}

bool saveCurrentDatabase(SQLite& store, const char* operation)
{
    if (store.loadOrSaveDb(SQLite::Direction::save) == SQLITE_OK)
        return true;
    LOG_DEBUG("SQLite::%s, Failed to save current database %s.", operation, store.databaseFile().c_str());
    return false;
}

void detach(DBObject& object)
{
    object.id = 0;
    object.parentId = 0;
    object.parentMOInstance = 0;
    for (auto& [name, attribute] : object.attributes)
        attribute.changed = true;
}
