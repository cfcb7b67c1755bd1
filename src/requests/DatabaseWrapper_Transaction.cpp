// Client transactions: starting, committing and aborting them. Between start and end the write
// handlers queue their objects (OpenTransaction.h) and the read handlers show them
// (TransactionOverlay.h); the commit here is the first that the store hears of them.

#include "requests/DatabaseWrapper.h"

#include "change/TransactionMngr.h"
#include "requests/OperationRecord.h"
#include "requests/Serve.h"

#include "platform/messages/Notifications.h"
#include "platform/messages/Requests.h"

#include <charconv>

using namespace TAMO::Messages;

namespace {

/// Executes operations, one after another, inside the SQLite transaction that is open, and gathers
/// what subscribers to whole transactions are told.
class Execution {
public:
    Execution(SQLite& store, bool notifies) : m_store(store), m_notifies(notifies) {}

    /// False for an operation that failed: then nothing of the transaction may stay.
    bool execute(const SqlOperation& operation)
    {
        try {
            m_result = executeAndRecord(operation);
        } catch (const std::exception& error) {
            LOG_ERROR("DatabaseWrapper::commitTransaction: %s of %s failed: %s", sqlOperationName(operation.code),
                      operation.object->dn.c_str(), error.what());
            m_result = false;
        }
        m_previousCode = operation.code;
        return m_result;
    }

    const TAMO_DBTransactionNotifData& notification() const { return m_notification; }

private:
    bool executeAndRecord(const SqlOperation& operation)
    {
        DBObject& object = *operation.object;
        std::string wholeDn = m_notifies ? storedDn(object) : std::string();
        if (!write(operation) || lostTransaction(object))
            return false;
        if (!m_notifies)
            return true;
        if (wholeDn.empty())
            wholeDn = storedDn(object);
        record(wholeDn, object, operation.code);
        return true;
    }

    std::string storedDn(DBObject& object);
    bool write(const SqlOperation& operation);
    bool lostTransaction(const DBObject& object) const;
    void record(const std::string& wholeDn, const DBObject& object, std::int32_t code);

    SQLite& m_store;
    const bool m_notifies;
    bool m_result = false;
    std::optional<std::int32_t> m_previousCode;
    TAMO_DBTransactionNotifData m_notification;
};

/// The whole DN of the object that the container names; empty when it is not stored. An object id
/// whose row is gone or carries another DN is dropped: SQLite gives row ids out again.
std::string Execution::storedDn(DBObject& object)
{
    if (object.parentDn.empty())
        return object.dn;
    if (object.id != 0 && m_store.checkIdPresence(object.id)) {
        std::string wholeDn = m_store.get_whole_dn(object.id);
        if (wholeDn == object.fullDn())
            return wholeDn;
    }
    object.id = 0;
    return m_store.get_whole_dn(object.dn, object.parentDn);
}

bool Execution::write(const SqlOperation& operation)
{
    static const std::string client = "Database transaction";
    constexpr bool inTransaction = true;
    DBObject& object = *operation.object;
    switch (operation.code) {
    case operationInsert:
        return m_store.sql_insert(&object, inTransaction, client);
    case operationInsertToCommonDb:
        return m_store.sql_insert_to_commondb(&object, inTransaction, 0, client, true);
    case operationUpdate:
        return m_store.sql_update(&object, inTransaction, client);
    case operationDelete:
        return m_store.delete_object(object.dn, object.MOInstance, inTransaction, client);
    default:
        return m_result; // no operation: it counts as the one before it did
    }
}

/// SQLite rolls back by itself on a full disk, for one; what is written afterwards would stay.
bool Execution::lostTransaction(const DBObject& object) const
{
    if (m_store.transactionOpen())
        return false;
    LOG_ERROR("DatabaseWrapper::commitTransaction: SQLite has rolled back the transaction at %s", object.dn.c_str());
    return true;
}

void Execution::record(const std::string& wholeDn, const DBObject& object, std::int32_t code)
{
    const bool sameAsPrevious = m_previousCode == code;
    if (const std::size_t colon = object.dn.find(':'); colon != std::string::npos) {
        // A struct member counts as a change of the attribute that holds the struct.
        m_notification.updateAttributes(object.parentDn, {object.dn.substr(colon + 1)}, code, sameAsPrevious);
        LOG_INFO("Updated transactionNotifData with dn: %s, operation: %d", object.parentDn.c_str(), code);
    }
    std::vector<std::string> changed;
    for (const auto& [name, attribute] : object.attributes)
        if (attribute.changed && attribute.slot == Attribute::noSlot)
            changed.push_back(name);
    m_notification.updateAttributes(wholeDn, changed, code, sameAsPrevious);
    LOG_INFO("Updated transactionNotifData with dn: %s, parentDn: %s, operation: %d", object.dn.c_str(),
             object.parentDn.c_str(), code);
}

/// The number that a transaction key starts with: the client's node.
std::int32_t nodeOf(const std::string& key)
{
    std::int32_t node = 0;
    std::from_chars(key.data(), key.data() + key.size(), node);
    return node;
}

void endTransaction(TransactionMngr& transaction, const std::string& key)
{
    transaction.removeSqlOperations();
    TransactionMngr::endTransaction(key);
}

/// Drops everything that the transaction wrote, and the transaction.
void fail(SQLite& store, TransactionMngr& transaction, const std::string& key, const SqlOperation& failed)
{
    OperationRecord record;
    record.operation = sqlOperationName(failed.code);
    record.about(failed.object->dn, failed.object->MOInstance);
    record.transId = nodeOf(key);
    LOG_ERROR("Transaction %s commit failed. SQLite fail start rollback", key.c_str());
    store.sql_rollback_transaction();
    record.logFailure();
    endTransaction(transaction, key);
}

} // namespace

void DatabaseWrapper::handleTransaction(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleStartTransaction NULL message"); },
        .notSent = [] { LOG_DEBUG("Database EDatabaseWrapper::handleTransaction SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBTransactionRsp;
    serve<TAMO_DBTransaction, Answer>(raw, lines, [this](const TAMO_DBTransaction& request, const Client& client) {
        LOG_DEBUG("DatabaseWrapper::handleTransaction transId: %d client: %s, noNotif: %d", request.transId,
                  client.name.c_str(), request.noNotifications ? 1 : 0);
        const std::string key = generateTransId(client.node, request.transId);
        const bool result = runTransactionAction(key, request.action, request.noNotifications);
        return std::optional<Answer>(std::in_place, result, request.transId);
    });
}

bool DatabaseWrapper::runTransactionAction(const std::string& key, std::int32_t action, bool noNotifications)
{
    if (action == transactionStart)
        return TransactionMngr::startTransaction(key);
    if (!TransactionMngr::getTransactionMngr(key)) {
        LOG_ERROR("Database DatabaseWrapper::handleStartTransaction not transaction manager instance found");
        return false;
    }
    if (action == transactionCommit && noNotifications) {
        LOG_INFO("Transaction %s commit without notifications started", key.c_str());
        if (!commitSilently(key))
            return false;
        reconsiderDelayedStores();
        return true;
    }
    if (action == transactionCommit) {
        LOG_INFO("Transaction %s commit started", key.c_str());
        return commitTransaction(key);
    }
    if (action == transactionAbort) {
        LOG_INFO("Transaction %s abort started", key.c_str());
        return rollbackTransaction(key);
    }
    return false;
}

bool DatabaseWrapper::commitSilently(const std::string& key)
{
    const auto silence = SQLite::getInstance().withoutNotifications();
    return commitTransaction(key);
}

bool DatabaseWrapper::commitTransaction(const std::string& key)
{
    SQLite& store = SQLite::getInstance();
    const bool notifies = !store.notificationsDisabled();
    if (!store.sql_start_transaction()) {
        LOG_ERROR("Failed to start transaction with transactionId %s", key.c_str());
        return false;
    }
    TransactionMngr* const transaction = TransactionMngr::getTransactionMngr(key);
    if (!transaction) {
        LOG_ERROR("No transaction found with transactionId %s", key.c_str());
        store.sql_rollback_transaction();
        return false;
    }
    if (transaction->sqlOperations().empty()) {
        LOG_INFO("Transaction %s does not have any sql operations to execute", key.c_str());
        store.sql_commit_transaction();
        endTransaction(*transaction, key);
        return true;
    }
    Execution execution(store, notifies);
    for (const SqlOperation& operation : transaction->sqlOperations())
        if (!execution.execute(operation)) {
            fail(store, *transaction, key, operation);
            return false;
        }
    if (!store.sql_commit_transaction()) {
        LOG_ERROR("Transaction %s commit failed", key.c_str());
        return false; // what was queued stays, for the client to commit again or to abort
    }
    if (notifies)
        m_delivery.transactionCommitted(execution.notification());
    LOG_INFO("Transaction %s committed successfully", key.c_str());
    endTransaction(*transaction, key);
    return true;
}

bool DatabaseWrapper::rollbackTransaction(const std::string& key)
{
    if (TransactionMngr* const transaction = TransactionMngr::getTransactionMngr(key))
        endTransaction(*transaction, key);
    LOG_INFO("Transaction %s rolled back ", key.c_str());
    return true;
}
