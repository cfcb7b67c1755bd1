// The store's life: the one instance, its runtime database, and how both end. Also the swap of the
// runtime connection, which every operation on a side database goes through.

#include "store/SQLite.h"

#include "store/ConnectionSwap.h"
#include "store/FileLocations.h"

#include "platform/framework/Lockables.h"
#include "platform/middleware/Log.h"
#include "platform/utility/IDatabase.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

SQLite* instance = nullptr;

/// Statements that somebody left open on a connection that is to be closed.
int finaliseOpenStatements(sqlite3* handle)
{
    int count = 0;
    while (sqlite3_stmt* const open = sqlite3_next_stmt(handle, nullptr)) {
        sqlite3_finalize(open);
        ++count;
    }
    return count;
}

} // namespace

SQLite& SQLite::getInstance()
{
    if (!instance)
        instance = new SQLite;
    return *instance;
}

void SQLite::destroyInstance(bool save)
{
    if (!instance)
        return;
    if (save)
        instance->loadOrSaveDb(Direction::save);
    delete std::exchange(instance, nullptr);
}

SQLite::SQLite()
    : m_runtimeFile(runtimeFile()),
      m_databaseFile(runtimeDirectory() + "/Database"),
      m_persistentDbSemaphore(std::make_unique<TAMO::Framework::NamedSemaphore>("/tamo_persistent_db_semaphore", 1U))
{
    LOG_DEBUG("Database runtime path: %s", m_runtimeFile.c_str());
    createRuntimeDatabase();
    IDatabase::registerModeReader([this] { return storedSystemMode(); });
}

SQLite::~SQLite()
{
    IDatabase::registerModeReader({});
    closeRuntime();
}

void SQLite::createRuntimeDatabase()
{
    const char* const path = m_runtimeFile.c_str();
    if (isRegularFile(m_runtimeFile)) {
        LOG_DEBUG("Database runtime file already exists -> removing file");
        if (removeWithSideFiles(m_runtimeFile))
            LOG_DEBUG("Database runtime file removed");
        else
            LOG_WARNING("Cannot remove database runtime file");
    }
    LOG_DEBUG("Creating database runtime file: %s", path);
    m_ownRuntime = std::make_unique<Connection>();
    const int result = m_ownRuntime->open(m_runtimeFile, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout);
    if (result != SQLITE_OK) {
        LOG_ERROR("Can't create runtime database file: %s. SQLite error: %i", path, result);
        m_ownRuntime.reset();
        return;
    }
    m_runtime = m_ownRuntime.get();
    if (m_runtime->execute("PRAGMA foreign_keys = ON;") != SQLITE_OK)
        LOG_ERROR("Unable to set foreign key constraints on!");
    if (m_runtime->execute("PRAGMA synchronous = OFF;") != SQLITE_OK)
        LOG_ERROR("Unable to set synchronous = OFF");
    // This file never outlives the process, so its journal need not either. And a transaction that
    // spilled its cache would lock the file against the integrity check's own connection.
    if (m_runtime->execute("PRAGMA journal_mode = MEMORY; PRAGMA cache_spill = OFF;") != SQLITE_OK)
        LOG_ERROR("Unable to keep the journal in memory: %s", m_runtime->message());
    sqlite3_update_hook(m_runtime->handle(), &SQLite::sql_updateCallback, this);
    sqlite3_commit_hook(m_runtime->handle(), &SQLite::sql_commitCallback, this);
}

void SQLite::closeRuntime()
{
    if (!m_ownRuntime)
        return;
    const int result = m_ownRuntime->close();
    if (result != SQLITE_OK) {
        LOG_ERROR("Database handle closing error: %d, msg: %s", result, m_ownRuntime->message());
        LOG_DEBUG("Number of unfinalized statements: %d", finaliseOpenStatements(m_ownRuntime->handle()));
        const int second = m_ownRuntime->close();
        if (second != SQLITE_OK)
            LOG_ERROR("Database FATAL error %d", second);
        else
            LOG_DEBUG("Database closing finally succeed");
    }
    m_runtime = nullptr;
    m_ownRuntime.reset();
}

/// Starts the runtime database over. Deleting what was loaded would not do: a connection keeps the text
/// encoding of the first file it was given and refuses one of another encoding, and a file keeps its
/// journal mode, with which it refuses another page size.
bool SQLite::renewRuntime()
{
    closeRuntime();
    createRuntimeDatabase();
    forgetLookups();
    return hasRuntimeConnection();
}

bool SQLite::shutDownOngoing(const char* operation) const
{
    if (m_shutDown)
        LOG_DEBUG("SQLite::%s, Database shut down ongoing... Ignore request.", operation);
    return m_shutDown;
}

bool SQLite::unavailable(const char* operation) const { return shutDownOngoing(operation) || !m_runtime; }

ConnectionSwap::ConnectionSwap(SQLite& store, Connection& connection, std::string databaseFile)
    : m_store(store), m_connection(&connection), m_databaseFile(std::move(databaseFile))
{
    exchange();
}

ConnectionSwap::~ConnectionSwap() { exchange(); }

void ConnectionSwap::exchange()
{
    std::swap(m_store.m_runtime, m_connection);
    std::swap(m_store.m_databaseFile, m_databaseFile);
    std::swap(m_store.m_transactionOpen, m_transactionOpen);
    m_store.forgetReferrers();
    m_store.forgetLookups();
}
