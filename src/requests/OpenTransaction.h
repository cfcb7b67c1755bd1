#pragma once

#include "change/TransactionMngr.h"
#include "requests/DatabaseWrapper.h"

#include <cstdint>

/// The transaction that the client has open under this id; null when there is none.
inline TransactionMngr* openTransaction(const Client& client, std::int32_t transId)
{
    return TransactionMngr::getTransactionMngr(DatabaseWrapper::generateTransId(client.node, transId));
}

/// What every write comes to: inside the client's open transaction `give` hands over the object, which
/// waits for the commit as `operation` (true; what it comes to shows then); without one `write` runs
/// and gives the result.
template <class Give, class Write>
bool queueOrWrite(const Client& client, std::int32_t transId, std::int32_t operation, Give give, Write write)
{
    if (TransactionMngr* const transaction = openTransaction(client, transId))
        return transaction->addSqlOperation(operation, give());
    return write();
}
