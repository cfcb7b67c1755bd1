// SQLite transactions on the runtime connection, and what goes with them: captured changes are told
// after a commit and forgotten by a rollback, and a commit may save the database.

#include "store/SQLite.h"

#include "store/FileLocations.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "platform/utility/Toolbox.h"

#include <sqlite3.h>

#include <exception>

namespace {

constexpr const char* rollbackText = "ROLLBACK TRANSACTION";

/// Runs one transaction statement; SQLite's code, 0 on success.
int run(Connection* connection, const char* sql)
{
    Statement statement(connection, sql);
    const int result = statement.step();
    return statement.done() ? SQLITE_OK : result;
}

const char* errorText(const Connection& connection, int result)
{
    return result == SQLITE_OK ? "" : connection.message();
}

constexpr unsigned dumpMode = 0640;
const std::string dumpGroup = "prbs_basic_group";

} // namespace

bool SQLite::transactionOpen() const { return m_transactionOpen && m_runtime && m_runtime->inTransaction(); }

bool SQLite::rollbackLeftOver()
{
    if (!m_runtime || !m_runtime->inTransaction())
        return false;
    LOG_ERROR("SQLite::%s: a transaction was left open, rolling it back", __func__);
    return sql_rollback_transaction();
}

bool SQLite::sql_start_transaction()
{
    if (unavailable(__func__))
        return false;
    if (!m_transactionOpen)
        rollbackLeftOver();
    const char* const text = "BEGIN IMMEDIATE TRANSACTION";
    const int result = run(m_runtime, text);
    LOG_DEBUG("sql_start_transaction: ret value: %d, msg: %s, buf: %s", result, errorText(*m_runtime, result), text);
    if (result == SQLITE_OK) {
        m_transactionOpen = true;
        forgetReferrers();
        if (onOwnRuntime())
            m_synchronisedAtBegin = m_synchronised.size();
    }
    return result == SQLITE_OK;
}

bool SQLite::sql_rollback_transaction()
{
    if (unavailable(__func__))
        return false;
    const int result = run(m_runtime, rollbackText);
    LOG_DEBUG("sql_rollback_transaction: ret value: %d, msg: %s, buf: %s", result, errorText(*m_runtime, result),
              rollbackText);
    m_transactionOpen = false;
    forgetReferrers();
    forgetLookups();
    m_runtime->forgetSchema();
    // SQLite may have rolled back by itself, on a full disk for instance; nothing is true then either.
    if (result == SQLITE_OK || !m_runtime->inTransaction())
        forgetChanges();
    return result == SQLITE_OK;
}

bool SQLite::sql_commit_transaction()
{
    if (unavailable(__func__))
        return false;
    const char* const text = "COMMIT TRANSACTION";
    const int result = [&] {
        const FlagScope committing(m_committing);
        return run(m_runtime, text);
    }();
    LOG_DEBUG("SQLite::sql_commit_transaction(): ret value: %d, msg: %s, buf: %s", result,
              errorText(*m_runtime, result), text);
    forgetReferrers();
    if (result == SQLITE_OK) {
        m_transactionOpen = false;
    } else {
        LOG_ERROR("SQLite::%s: nothing of the transaction is kept. SQLite error %d: %s", __func__, result,
                  errorText(*m_runtime, result));
        sql_rollback_transaction(); // its writes must not ride on a later commit
        forgetChanges();
    }
    if (!m_synchronising)
        sql_sendNotifications();
    try {
        saveAfterCommit();
    } catch (const std::exception& error) { // no memory: the commit stands all the same
        LOG_ERROR("SQLite::%s: the dump file is not saved: %s", __func__, error.what());
    }
    return result == SQLITE_OK;
}

void SQLite::saveAfterCommit()
{
    if (!m_databaseDumpEnabled) {
        const std::string dump = dumpFile();
        if (CheckIfFileExists(dump) && !removeWithSideFiles(dump))
            LOG_INFO("DatabaseDump file not removed.");
        return;
    }
    // The permanent, backup and common files are written by their own saves alone.
    if (namesProtectedFile())
        return;
    loadOrSaveDb(Direction::save);
    if (Toolbox::changeFileAccess(m_databaseFile, dumpMode, dumpGroup))
        LOG_DEBUG("SQLite::%s Successfully changed file access for file: %s", "sql_commit_transaction",
                  m_databaseFile.c_str());
    else
        LOG_DEBUG("SQLite::%s Could not change file access access for file: %s", "sql_commit_transaction",
                  m_databaseFile.c_str());
}

int SQLite::sql_commitCallback(void* store)
{
    const auto& self = *static_cast<SQLite*>(store);
    // SQLite may roll a transaction back by itself. What its writer still does would then be committed
    // statement by statement.
    const bool lost = self.m_transactionOpen && !self.m_committing;
    return self.shutDownOngoing(__func__) || lost ? 1 : 0;
}
