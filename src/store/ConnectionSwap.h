#pragma once

#include <string>

class Connection;
class SQLite;

/// Lets the store work on another database file through another connection for a while. The look-up
/// caches are emptied on both ends, no change is captured, and everything is put back when the
/// scope ends, on every path.
class ConnectionSwap {
public:
    ConnectionSwap(SQLite& store, Connection& connection, std::string databaseFile);
    ~ConnectionSwap();
    ConnectionSwap(const ConnectionSwap&) = delete;
    ConnectionSwap& operator=(const ConnectionSwap&) = delete;

private:
    void exchange();

    SQLite& m_store;
    Connection* m_connection;
    std::string m_databaseFile;
    bool m_transactionOpen = false;
};
