#pragma once

#include "store/SQLite.h"

#include <utility>

/// The transaction a store operation runs in: its own, or the one its caller holds open.
///
/// Leaving the scope without finish() rolls an own transaction back, so an early return neither
/// keeps half an object nor locks out the next write. SQLite refuses a second BEGIN; then nothing is
/// owned, and the outer transaction cannot be ended from here.
class OwnTransaction {
public:
    OwnTransaction(SQLite& store, bool inTransaction)
        : m_store(store), m_own(!inTransaction && store.sql_start_transaction()), m_open(inTransaction || m_own)
    {}
    ~OwnTransaction() { abandon(); }
    OwnTransaction(const OwnTransaction&) = delete;
    OwnTransaction& operator=(const OwnTransaction&) = delete;

    /// False when an own BEGIN failed: the operation must not write a thing.
    explicit operator bool() const { return m_open; }
    bool isOwn() const { return m_own; }

    /// Collects the changed rows while they still exist, then commits what is ours. A refused COMMIT
    /// is rolled back inside sql_commit_transaction, so nothing is left to undo.
    bool finish()
    {
        m_store.sql_collectDnInstPairs();
        return commit();
    }

    /// Commits what is ours without collecting.
    bool commit() { return !std::exchange(m_own, false) || m_store.sql_commit_transaction(); }

    /// Rolls back now, for operations that check the files afterwards.
    void abandon()
    {
        if (std::exchange(m_own, false))
            m_store.sql_rollback_transaction();
    }

private:
    SQLite& m_store;
    bool m_own;
    bool m_open;
};
