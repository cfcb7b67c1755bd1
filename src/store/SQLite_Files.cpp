// Whole database files: loading and saving them, their schema, and the small file operations. The
// permanent, backup and common files keep SQLite's durability; the dump file is rewritten whole.

#include "store/SQLite.h"

#include "store/FileLocations.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "values/Schema.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct SchemaStep {
    const char* sql;
    bool mustSucceed;
};

constexpr SchemaStep schema[] = {
    {Schema::objectTable, true}, {Schema::attributeTable, true}, {Schema::baseObject, false},
    {Schema::objectIndex, true}, {Schema::attributeIndex, true},
};

/// Not SQLite's to mend: a file that is no database, or one that a killed writer left half written.
bool isDamage(int result) { return result == SQLITE_CORRUPT || result == SQLITE_NOTADB; }

} // namespace

int SQLite::loadOrSaveDb(Direction direction)
{
    m_loadError = false;
    if (shutDownOngoing("loadOrSaveDb"))
        return 1;
    if (!m_runtime)
        return SQLITE_MISUSE;
    int result = copyOnce(direction);
    const bool isDump = direction == Direction::save && m_databaseFile == dumpFile();
    if (isDump && isDamage(result)) {
        LOG_WARNING("Database dump file %s is damaged (SQLite error %d), writing it anew", m_databaseFile.c_str(),
                    result);
        removeWithSideFiles(m_databaseFile);
        result = copyOnce(direction);
    }
    if (isDump && result != SQLITE_OK)
        LOG_ERROR("Database dump file %s could not be saved. SQLite error: %d", m_databaseFile.c_str(), result);
    return result;
}

int SQLite::copyOnce(Direction direction)
{
    Connection file;
    const int opened = openDatabaseFile(file, direction);
    if (opened != SQLITE_OK)
        return opened;
    if (direction == Direction::save)
        return copyDatabase(file, *m_runtime);
    const int result = copyDatabase(*m_runtime, file);
    if (result == SQLITE_OK) {
        forgetLookups();
        m_runtime->forgetSchema();
    }
    return result;
}

/// Opens the database file, creating it with the schema when it is missing.
int SQLite::openDatabaseFile(Connection& file, Direction direction)
{
    const bool isDump = m_databaseFile == dumpFile();
    const int timeout = isDump ? dumpBusyTimeout : busyTimeout;
    CheckIfFileExists(m_databaseFile); // what a killed process left empty counts as missing
    int result = file.open(m_databaseFile, SQLITE_OPEN_READWRITE, timeout);
    bool created = false;
    if (result == SQLITE_CANTOPEN) {
        LOG_DEBUG("Database file not found, creating database file...");
        result = file.open(m_databaseFile, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, timeout);
        created = result == SQLITE_OK;
    }
    if (result != SQLITE_OK) {
        LOG_ERROR("Error opening database file!");
    } else {
        // EXTRA: a power cut after the commit could else bring the removed journal back, and with it the old content.
        file.execute(isDump ? "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;" : "PRAGMA synchronous = EXTRA;");
        if (created)
            result = createSchema(file);
    }
    if (result != SQLITE_OK && direction == Direction::load)
        m_loadError = true;
    return result;
}

/// All or nothing: a file without its tables would be taken for a database ever after.
int SQLite::createSchema(Connection& file) const
{
    file.execute("BEGIN IMMEDIATE TRANSACTION");
    for (const SchemaStep& part : schema) {
        Statement statement(&file, part.sql);
        const int result = statement.step();
        if (part.mustSucceed && !statement.done()) {
            LOG_ERROR("Error while creating new database file: sqlite3_step() returned %d", result);
            return result;
        }
    }
    if (file.execute("COMMIT TRANSACTION") != SQLITE_OK) {
        const int result = sqlite3_errcode(file.handle());
        LOG_ERROR("Error while creating new database file: sqlite3_step() returned %d", result);
        return result;
    }
    LOG_DEBUG("New database file '%s' created", m_databaseFile.c_str());
    return SQLITE_OK;
}

int SQLite::copyDatabase(Connection& destination, Connection& source) const
{
    sqlite3_backup* const copy = sqlite3_backup_init(destination.handle(), "main", source.handle(), "main");
    if (!copy) {
        LOG_ERROR("Error while copying database content!");
        return sqlite3_errcode(destination.handle());
    }
    constexpr int allPages = -1;
    sqlite3_backup_step(copy, allPages);
    sqlite3_backup_finish(copy); // hands the copy's result to the destination
    return sqlite3_errcode(destination.handle());
}

int SQLite::convertToCurrentVersion()
{
    LOG_DEBUG("SQLite::convertToCurrentVersion");
    if (!m_runtime)
        return SQLITE_MISUSE;
    m_runtime->execute("DROP INDEX unique_object");
    Statement create(m_runtime, Schema::objectIndex);
    const int result = create.step();
    if (!create.done()) {
        LOG_ERROR("SQLite::convertToCurrentVersion - FAILED");
        return result;
    }
    LOG_DEBUG("SQLite::convertToCurrentVersion - OK");
    return SQLITE_OK;
}

bool SQLite::CheckIfFileExists(const std::string& path)
{
    struct stat status {};
    if (!isRegularFile(path) || stat(path.c_str(), &status) != 0)
        return false;
    if (status.st_size != 0)
        return true;
    if (removeWithSideFiles(path))
        LOG_DEBUG("SQLite::%s, File %s found but it was empty, file removed.", __func__, path.c_str());
    return false;
}

bool SQLite::checkDBTable(Connection& connection, const char* name)
{
    Statement count(&connection, "SELECT count(*) FROM sqlite_master WHERE type='table' AND name=%Q", name);
    if (!count.next()) {
        LOG_ERROR("SQLite::%s() Failed to check %s table! sqlite_step returned %d", __func__, name, count.result());
        return false;
    }
    switch (count.integer(0)) {
    case 0:
        LOG_ERROR("SQLite::%s() %s table does not exists!", __func__, name);
        return false;
    case 1:
        LOG_DEBUG("SQLite::%s() %s table exists", __func__, name);
        return true;
    default:
        LOG_ERROR("SQLite::%s() Several (%d) %s tables exists, returning false", __func__, count.integer(0), name);
        return false;
    }
}

bool SQLite::checkDBTables(Connection* connection)
{
    if (!connection) {
        LOG_ERROR("SQLite::%s() DB handle is NULL!", __func__);
        return false;
    }
    if (!checkDBTable(*connection, "DBObject") || !checkDBTable(*connection, "Attribute"))
        return false;
    LOG_INFO("SQLite::%s() DBObject and Attribute tables ok", __func__);
    return true;
}

bool SQLite::removeDatabaseFile(const std::string& name)
{
    std::string path;
    Get_TAMO_DB_path(path, permanentDirectory);
    path += "/" + name;
    LOG_DEBUG("SQLite::%s, \"%s\" ", __func__, path.c_str());
    if (name.empty()) {
        LOG_ERROR("SQLite::%s, Unexpected error!!!", __func__);
        return false;
    }
    // What start-up once put aside goes with the file it was, and what an interrupted store left.
    removeWithSideFiles(rejectedName(path));
    removeWithSideFiles(previousName(path));
    removeWithSideFiles(rejectedName(runtimeDirectory() + "/Database"));
    if (!isRegularFile(path)) {
        LOG_DEBUG("SQLite::%s, \"%s\" does not exist, no need to remove", __func__, path.c_str());
        return true;
    }
    if (!removeWithSideFiles(path)) {
        LOG_ERROR("SQLite::%s, Cannot remove database file \"%s\", error=\"%s\"", __func__, path.c_str(),
                  std::strerror(errno));
        return false;
    }
    LOG_DEBUG("SQLite::%s, \"%s\" has been removed successfully", __func__, path.c_str());
    return true;
}

bool SQLite::shutdownDB()
{
    m_shutDown = true;
    const bool removed = removeDatabaseFile("pRBSdb");
    if (removed)
        LOG_DEBUG("SQLite::%s, shut down done ", __func__);
    return removed;
}

std::string SQLite::getCommonDbPath() const
{
    const auto configured = environmentPath("TAMO_PERSISTENT_STORAGE");
    if (!configured)
        return "/var/permanent/tamodb";
    LOG_DEBUG("SQLite::%s, getCommonDbPath(): %s", __func__, configured->c_str());
    return *configured;
}

std::string SQLite::getBrMBackupDbPath() const
{
    const auto configured = environmentPath("TAMO_BRM_BACKUP_PATH");
    if (!configured)
        return "/var/permanent/brm_backup/database";
    std::string path = *configured + "/database";
    LOG_DEBUG("SQLite::%s, returning %s", __func__, path.c_str());
    return path;
}

bool SQLite::namesProtectedFile() const
{
    return m_databaseFile == permanentFile() || m_databaseFile == getBrMBackupDbPath() + "/pRBSdb" ||
           m_databaseFile == getCommonDbPath() + "/commondb" || m_databaseFile == commonDbWriteFile();
}
