#pragma once

#include "store/Statement.h"

/// Keeps SQLite's shared lock on the runtime file for the length of a request, so that its
/// statements need not take it one by one (a lock and a look at the file's change counter each).
/// A select that stands on its first row does that, and lets a write transaction begin and end
/// meanwhile; no whole-database load and no DROP may run inside, SQLite refuses both.
class SharedLock {
public:
    explicit SharedLock(Connection* connection) : m_row(connection, "select id from DBObject where id = 0")
    {
        m_row.step();
    }

private:
    Statement m_row;
};
