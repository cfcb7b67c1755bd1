// Client transactions between their start and their end: the registry, and what is queued in each.
// DatabaseWrapper_Transaction.cpp executes them.

#include "change/TransactionMngr.h"

#include "platform/messages/Requests.h"
#include "platform/middleware/Log.h"

#include <map>
#include <utility>

namespace {

using Registry = std::map<std::string, std::unique_ptr<TransactionMngr>>;

Registry& registry()
{
    static Registry transactions;
    return transactions;
}

} // namespace

const char* sqlOperationName(std::int32_t code)
{
    using namespace TAMO::Messages;
    switch (code) {
    case operationInsert:
        return "Insert";
    case operationInsertToCommonDb:
        return "InsertToCommonDb";
    case operationUpdate:
        return "Update";
    case operationDelete:
        return "Delete";
    default:
        return "";
    }
}

bool TransactionMngr::startTransaction(const std::string& key)
{
    const bool isNew = registry().try_emplace(key, std::make_unique<TransactionMngr>()).second;
    if (!isNew)
        LOG_ERROR("Transaction %s already exists", key.c_str());
    return isNew;
}

TransactionMngr* TransactionMngr::getTransactionMngr(const std::string& key)
{
    const auto found = registry().find(key);
    return found == registry().end() ? nullptr : found->second.get();
}

bool TransactionMngr::endTransaction(const std::string& key)
{
    registry().erase(key);
    return true;
}

bool TransactionMngr::addSqlOperation(std::int32_t code, std::unique_ptr<DBObject> object)
{
    m_operations.push_back({code, std::move(object)});
    return true;
}

bool TransactionMngr::removeSqlOperations()
{
    m_operations.clear();
    return true;
}
