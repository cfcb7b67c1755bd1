// One SQLite connection: opening, closing, and the cache that Statement prepares into.

#include "store/Connection.h"

#include <sqlite3.h>

namespace {

/// Before SQLite's first use: its memory statistics put a lock around every allocation, and nobody
/// reads them.
bool withoutStatistics() { return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) == SQLITE_OK; }

} // namespace

Connection::~Connection()
{
    if (close() != SQLITE_OK)
        sqlite3_close_v2(m_handle); // a statement is still in use up the stack; it closes when that ends
}

int Connection::open(const std::string& path, int flags, int busyTimeoutMs)
{
    [[maybe_unused]] static const bool configured = withoutStatistics();
    // A connection is never used by two threads at a time, so its own lock would only cost.
    const int result = sqlite3_open_v2(path.c_str(), &m_handle, flags | SQLITE_OPEN_NOMUTEX, "unix");
    if (result != SQLITE_OK) {
        sqlite3_close(m_handle);
        m_handle = nullptr;
        return result;
    }
    sqlite3_busy_timeout(m_handle, busyTimeoutMs);
    return result;
}

int Connection::close()
{
    for (auto& [format, prepared] : m_prepared)
        sqlite3_finalize(prepared.statement);
    m_prepared.clear();
    const int result = sqlite3_close(m_handle);
    if (result == SQLITE_OK)
        m_handle = nullptr;
    return result;
}

int Connection::execute(const char* sql)
{
    return m_handle ? sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr) : SQLITE_MISUSE;
}

const char* Connection::message() const { return m_handle ? sqlite3_errmsg(m_handle) : "no connection"; }

bool Connection::inTransaction() const { return m_handle && !sqlite3_get_autocommit(m_handle); }
