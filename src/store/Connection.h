#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

/// An open SQLite database with the statements prepared on it. Owns both. For one thread at a time.
class Connection {
public:
    Connection() = default;
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Opens `path` with the VFS "unix" and the busy timeout. Returns the SQLite code; on failure the
    /// handle is closed again, and isOpen() is false.
    int open(const std::string& path, int flags, int busyTimeoutMs);
    bool isOpen() const { return m_handle != nullptr; }
    sqlite3* handle() const { return m_handle; }

    /// Finalises the cached statements, then closes. Returns SQLite's code; not 0 leaves it open.
    int close();

    /// Runs statements without results, such as pragmas; the SQLite code.
    int execute(const char* sql);

    /// SQLite's text for the last error; "no connection" without one.
    const char* message() const;

    /// True while a transaction is open on it.
    bool inTransaction() const;

    /// Forgets what is known about tables that come and go (see AlternateStorage).
    void forgetSchema() { alternateTable.reset(); }

    /// Whether the table of alternate storage exists; empty when not known.
    std::optional<bool> alternateTable;

private:
    friend class Statement;

    /// A prepared format: its statement, and the conversion of each of its arguments.
    struct Prepared {
        sqlite3_stmt* statement = nullptr;
        std::string conversions;
        bool inUse = false;
    };

    sqlite3* m_handle = nullptr;
    std::map<std::string, Prepared, std::less<>> m_prepared;
};

/// How long a connection waits for other processes that use the same file, in milliseconds.
inline constexpr int busyTimeout = 30000;
/// A reader of the dump file must not hold up every commit.
inline constexpr int dumpBusyTimeout = 100;
