#pragma once

#include <string>

struct sqlite3;

/// Makers of faults that come from outside the code under test. Each ends with its scope, and works
/// on one database handle unless it says otherwise.

/// Refuses to prepare statements that do `action` (SQLITE_INSERT, SQLITE_READ, ...) on `table`. Those
/// prepared already fail at their next step.
class RefusedPrepare {
public:
    RefusedPrepare(sqlite3* handle, int action, std::string table);
    ~RefusedPrepare();
    RefusedPrepare(const RefusedPrepare&) = delete;
    RefusedPrepare& operator=(const RefusedPrepare&) = delete;

private:
    sqlite3* m_handle;
    int m_action;
    std::string m_table;
};

/// Breaks off the first step of a statement whose text holds `part`, as an interrupt does: SQLite
/// rolls back the whole transaction of a write that is broken off.
class BrokenStep {
public:
    BrokenStep(sqlite3* handle, std::string part);
    ~BrokenStep();
    BrokenStep(const BrokenStep&) = delete;
    BrokenStep& operator=(const BrokenStep&) = delete;

private:
    sqlite3* m_handle;
    std::string m_part;
    bool m_armed = false;
};

/// Fills the drive under every file whose path ends in `name`: SQLite's writes to it answer "no
/// space left".
class FullDrive {
public:
    explicit FullDrive(const std::string& name);
    ~FullDrive();
    FullDrive(const FullDrive&) = delete;
    FullDrive& operator=(const FullDrive&) = delete;
};

/// Lets one of SQLite's file calls (open, read, write, truncate, unlink) answer "I/O error": the one
/// after `passes` others, whatever the file.
class FailedFileCall {
public:
    explicit FailedFileCall(int passes);
    ~FailedFileCall();
    FailedFileCall(const FailedFileCall&) = delete;
    FailedFileCall& operator=(const FailedFileCall&) = delete;
    /// Whether it came to that.
    static bool happened();
};

/// Refuses the calling thread one piece of memory: the one after `passes` others.
class RefusedMemory {
public:
    explicit RefusedMemory(int passes);
    ~RefusedMemory();
    RefusedMemory(const RefusedMemory&) = delete;
    RefusedMemory& operator=(const RefusedMemory&) = delete;
    /// Whether it came to that.
    static bool happened();
};

/// Overwrites everything behind the first page with bytes that are no page: the file still opens.
void corruptFile(const std::string& path);

/// A file of `size` bytes that are no database at all.
void writeJunk(const std::string& path, int size = 8192);
