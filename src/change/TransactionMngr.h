#pragma once

#include "platform/utility/DBObject.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One operation of a client transaction that waits for the commit. `code` is an EOperation; what
/// the object must carry depends on it (a deletion needs `dn` and `MOInstance` only).
struct SqlOperation {
    std::int32_t code = -1;
    std::unique_ptr<DBObject> object;
};

/// The name that log lines use for an operation code; empty for a code that is never executed.
const char* sqlOperationName(std::int32_t code);

/// A client's open transaction: its operations in the order in which they arrived. Nothing of it
/// has touched the store; executing it is the request service's affair.
///
/// The static functions work on the one registry of the process. A key tells the client and its
/// transaction id. The registry has no lock: everything runs on the request thread. A transaction
/// stays open until somebody ends it, also when its client is gone.
class TransactionMngr {
public:
    virtual ~TransactionMngr() = default;

    /// Opens a transaction; false, logged and with the open one untouched, when the key is taken.
    static bool startTransaction(const std::string& key);
    /// The open transaction, or null. It stays the registry's.
    static TransactionMngr* getTransactionMngr(const std::string& key);
    /// Forgets the transaction, if it is open, with all that is queued in it. Always true.
    static bool endTransaction(const std::string& key);

    /// Queues an operation; always true. The transaction keeps the object.
    bool addSqlOperation(std::int32_t code, std::unique_ptr<DBObject> object);
    /// Drops what is queued; always true.
    bool removeSqlOperations();
    const std::vector<SqlOperation>& sqlOperations() const { return m_operations; }

private:
    std::vector<SqlOperation> m_operations;
};
