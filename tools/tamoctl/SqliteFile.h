#pragma once

#include <cstdint>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

/// An SQLite database of a tool's own, opened for reading and writing and made when it is missing.
class SqliteFile {
public:
    explicit SqliteFile(const std::string& path);
    ~SqliteFile();
    SqliteFile(const SqliteFile&) = delete;
    SqliteFile& operator=(const SqliteFile&) = delete;

    /// Takes over the whole content of another; SQLite's code.
    int copyFrom(SqliteFile& source);
    /// Runs statements without results; SQLite's code.
    int execute(const char* sql);
    sqlite3* handle() const { return m_handle; }
    const char* message() const; ///< about the last error

private:
    sqlite3* m_handle = nullptr;
};

/// The rows of a query. One that cannot be prepared has none, and result() tells why.
class SqliteRows {
public:
    SqliteRows(SqliteFile& file, const char* sql);
    ~SqliteRows();
    SqliteRows(const SqliteRows&) = delete;
    SqliteRows& operator=(const SqliteRows&) = delete;

    /// Begins again, with `value` for the first parameter. The text must outlive the rows.
    void restart(std::int64_t value);
    void restart(const std::string& value);
    /// False at the end and on an error.
    bool next();
    bool done() const; ///< the end was reached, without an error
    int result() const { return m_result; }

    std::int64_t integer(int column) const;
    double real(int column) const;
    std::string text(int column) const; ///< empty for NULL

private:
    sqlite3_stmt* m_statement = nullptr;
    int m_result;
};
