#pragma once

#include "store/Connection.h"

#include <functional>
#include <string>

class DBObject;
class SQLite;

/// A write into a database file beside the runtime one (the common or the backup database): the file
/// is loaded into memory, changed there by store operations, and stored again, so that the runtime
/// database is not touched. `operation` is the name in log lines.
class SideDatabase {
public:
    SideDatabase(SQLite& store, const char* operation) : m_store(store), m_operation(operation) {}
    ~SideDatabase();
    SideDatabase(const SideDatabase&) = delete;
    SideDatabase& operator=(const SideDatabase&) = delete;

    /// Opens the database in memory; false, told, when that fails.
    bool open();

    /// Loads the file, which is created when it is missing, runs `change`, on which the store works
    /// on this database, and stores the file, even when `change` failed: what it wrote is kept. True
    /// when all of that went well. The store is back on its own database in every case.
    bool change(const std::string& file, const std::function<bool()>& change);

private:
    SQLite& m_store;
    const char* const m_operation;
    Connection m_memory;
};

/// Saves the runtime database into the store's database file; false, told, when that fails.
bool saveCurrentDatabase(SQLite& store, const char* operation);

/// Makes a container ready for a database other than the one it was read from: row ids mean nothing
/// there, and an update writes only the attributes that are marked.
void detach(DBObject& object);
