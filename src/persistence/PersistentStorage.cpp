// From the live database to a file with its persistent part. The work is done in an in-memory copy,
// so that the live tables see no deletes; SQLite_Store.cpp puts the file where it belongs.

#include "persistence/PersistentStorage.h"

#include "store/AlternateStorage.h"
#include "store/Connection.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"

#include <sqlite3.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// SQLITE_OPEN_NOFOLLOW refuses a link anywhere on the path. The directory may well be reached by
/// one, so it is resolved first; only the file's own name is left to be no link.
std::string withResolvedDirectory(const std::string& file)
{
    const fs::path path(file);
    std::error_code error;
    const fs::path directory = fs::canonical(path.parent_path(), error);
    return error ? file : (directory / path.filename()).string();
}

} // namespace

bool PersistentStorage::copyDatabase(Connection& source, Connection& destination)
{
    if (sqlite3_backup* const copy = sqlite3_backup_init(destination.handle(), "main", source.handle(), "main")) {
        constexpr int allPages = -1;
        sqlite3_backup_step(copy, allPages);
        sqlite3_backup_finish(copy); // hands the copy's result to the destination
    }
    destination.forgetSchema();
    return sqlite3_errcode(destination.handle()) == SQLITE_OK;
}

bool PersistentStorage::hasPersistentData(Connection& connection)
{
    {
        Statement rows(&connection, "SELECT * FROM Attribute WHERE persistent = 1");
        if (rows.next())
            return true;
        if (!rows.done()) {
            LOG_ERROR("PersistentStorage::hasPersistentData: SQLite error [%s]", connection.message());
            return true; // nobody knows: the copy that follows fails, where a "no" would pass for a store
        }
    }
    return !AlternateStorage(connection).alternateStorageEmpty();
}

bool PersistentStorage::removeExcludedObjects(Connection& connection, std::span<const std::int32_t> objectIds)
{
    for (const std::int32_t id : objectIds)
        if (connection.execute(("DELETE FROM DBObject WHERE id=" + std::to_string(id)).c_str()) != SQLITE_OK) {
            LOG_ERROR("PersistentStorage::removeExcludedObjects: SQLite error [%s]", connection.message());
            return false;
        }
    return true;
}

bool PersistentStorage::removeNonPersistentData(Connection& connection)
{
    const auto failed = [&](const char* step) {
        LOG_ERROR("PersistentStorage::removeNonPersistentData: %s - SQLite error [%s]", step, connection.message());
        return false;
    };
    if (connection.execute("DELETE FROM Attribute WHERE persistent = 0") != SQLITE_OK)
        return failed("delete nonpersistent attributes");
    // Each pass takes the leaves that hold nothing, and may make leaves of their parents.
    for (;;) {
        std::string leaves =
            "SELECT id FROM DBObject AS db1 WHERE NOT EXISTS (SELECT belongsTo FROM Attribute WHERE belongsTo = "
            "db1.id) AND NOT EXISTS (SELECT id FROM DBObject AS db2 WHERE db2.parent = db1.id)";
        if (!AlternateStorage(connection).alternateStorageEmpty())
            leaves += " AND NOT EXISTS (SELECT belongsTo FROM Attribute_AltStorage WHERE belongsTo = db1.id)";
        if (connection.execute(("DELETE FROM DBObject WHERE id IN (" + leaves + ")").c_str()) != SQLITE_OK)
            return failed("delete objects");
        Statement more(&connection, leaves.c_str());
        if (more.next())
            continue;
        return more.done() || failed("check object exists");
    }
}

bool PersistentStorage::storePersistentData(Connection& connection, const std::string& file,
                                            std::span<const std::int32_t> excludedObjectIds, bool keepAlternateStorage)
{
    constexpr int readWrite = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    Connection memory;
    const auto failed = [](const char* what, const Connection& of) {
        LOG_ERROR("PersistentStorage::storePersistentData: %s. SQLite error [%s]", what, of.message());
        return false;
    };
    if (const int opened = memory.open(":memory:", readWrite, busyTimeout); opened != SQLITE_OK) {
        LOG_ERROR("PersistentStorage::storePersistentData: memory database open failed. SQLite error [%d]", opened);
        return false;
    }
    if (memory.execute("PRAGMA foreign_keys = ON;") != SQLITE_OK)
        return failed("cannot set foreign keys on", memory);
    memory.execute("PRAGMA journal_mode = OFF;"); // a failed delete ends the copy, too
    if (!copyDatabase(connection, memory))
        return failed("error when copying to memory database", memory);
    if (!keepAlternateStorage)
        AlternateStorage(memory).dropAlternateStorage();
    if (!removeExcludedObjects(memory, excludedObjectIds) || !removeNonPersistentData(memory))
        return failed("error when removing non persistent data", memory);
    Connection target;
    const int opened = target.open(withResolvedDirectory(file), readWrite | SQLITE_OPEN_NOFOLLOW, busyTimeout);
    if (opened != SQLITE_OK) {
        LOG_ERROR("PersistentStorage::storePersistentData: error when creating persistent database. SQLite error [%d]",
                  opened);
        return false;
    }
    if (!copyDatabase(memory, target))
        return failed("error when copying to persistent database", target);
    return true;
}
