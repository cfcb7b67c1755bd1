// The common database: a few facts about the node's life that outlive the tree, in a file of its
// own. It is written through an in-memory copy (SideDatabase.h), so that the runtime database is not
// touched.

#include "store/SQLite.h"

#include "persistence/SideDatabase.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"
#include "values/ValueType.h"

namespace {

bool writeObject(SQLite& store, DBObject& object, const std::string& client, const std::string& file,
                 const char* operation)
{
    SideDatabase common(store, operation);
    return common.open() && common.change(file, [&] {
        const bool inserted = store.sql_insert(&object, false, client);
        if (inserted)
            LOG_DEBUG("SQLite::%s, object %s inserted into Common database %s.", operation, object.dn.c_str(),
                      file.c_str());
        else
            LOG_DEBUG("SQLite::%s, Failed to insert object and attributes into database %s.", operation, file.c_str());
        return inserted;
    });
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
    if (!saveCurrentFirst || m_runtime->inTransaction())
        LOG_INFO("SQLite::%s, current DB NOT saved", operation);
    else if (!saveCurrentDatabase(*this, operation))
        return failed();
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
