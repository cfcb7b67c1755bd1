// The little of SQLite that the tools need: open, copy, query.

#include "tools/tamoctl/SqliteFile.h"

#include "tools/tamoctl/Failure.h"

#include <sqlite3.h>

SqliteFile::SqliteFile(const std::string& path)
{
    if (sqlite3_open_v2(path.c_str(), &m_handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "unix") == SQLITE_OK) {
        execute("PRAGMA synchronous = OFF"); // a copy need not survive anything
        return;
    }
    const std::string why = message();
    sqlite3_close(m_handle);
    throw Failure(ExitCode::usage, path + " cannot be opened: " + why);
}

SqliteFile::~SqliteFile() { sqlite3_close_v2(m_handle); }

int SqliteFile::copyFrom(SqliteFile& source)
{
    sqlite3_backup* const copy = sqlite3_backup_init(m_handle, "main", source.m_handle, "main");
    if (copy) {
        constexpr int allPages = -1;
        sqlite3_backup_step(copy, allPages);
        sqlite3_backup_finish(copy); // hands the copy's result over
    }
    return sqlite3_errcode(m_handle);
}

int SqliteFile::execute(const char* sql) { return sqlite3_exec(m_handle, sql, nullptr, nullptr, nullptr); }

const char* SqliteFile::message() const { return sqlite3_errmsg(m_handle); }

SqliteRows::SqliteRows(SqliteFile& file, const char* sql)
    : m_result(sqlite3_prepare_v2(file.handle(), sql, -1, &m_statement, nullptr))
{}

SqliteRows::~SqliteRows() { sqlite3_finalize(m_statement); }

void SqliteRows::restart(std::int64_t value)
{
    sqlite3_reset(m_statement);
    sqlite3_bind_int64(m_statement, 1, value);
}

void SqliteRows::restart(const std::string& value)
{
    sqlite3_reset(m_statement);
    sqlite3_bind_text(m_statement, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
}

bool SqliteRows::next()
{
    if (m_statement)
        m_result = sqlite3_step(m_statement);
    return m_statement && m_result == SQLITE_ROW;
}

bool SqliteRows::done() const { return m_result == SQLITE_DONE; }

std::int64_t SqliteRows::integer(int column) const { return sqlite3_column_int64(m_statement, column); }

double SqliteRows::real(int column) const { return sqlite3_column_double(m_statement, column); }

std::string SqliteRows::text(int column) const
{
    const auto* const text =
        static_cast<const char*>(static_cast<const void*>(sqlite3_column_text(m_statement, column)));
    return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column)))
                : std::string();
}
