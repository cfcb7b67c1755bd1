#pragma once

#include "change/Delivery.h"
#include "change/Subscriptions.h"
#include "requests/AMW_MessageHandler.h"
#include "requests/Clients.h"
#include "requests/DatabaseWrapper_StateMachine.h"
#include "requests/ObjectTemplate.h"

#include "platform/framework/Timer.h"
#include "platform/messages/RawMessage.h"
#include "platform/moaccess/MOAccess.h"
#include "values/Attribute.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// The request service: every message for the node reaches it as an event and is handled on its
/// thread, one at a time. DatabaseWrapper_Dispatch.cpp holds the table of messages.
class DatabaseWrapper : public DatabaseWrapper_StateMachine {
public:
    /// Takes the store's changes from now on.
    explicit DatabaseWrapper(const std::string& threadName);
    ~DatabaseWrapper() override;
    DatabaseWrapper(const DatabaseWrapper&) = delete;
    DatabaseWrapper& operator=(const DatabaseWrapper&) = delete;

    static std::string getClientName(std::int32_t node);
    /// The key of a client's transaction: node and id in decimal, joined by a comma. SecMain speaks
    /// for VEX with negative ids.
    static std::string generateTransId(std::int32_t node, std::int32_t transId);
    /// True when the class of the DN's last pair is `referenceClassName`.
    static bool compareClassName(const std::string& dn, const std::string& referenceClassName);

    /// A new attribute from a template entry; one whose text does not read as its type, or whose
    /// type is not known, becomes text.
    static Attribute makeAttribute(const std::string& name, const std::string& value, const std::string& type);
    static Attribute ConvertToDBString(const std::string& name, const std::string& value, const std::string& type);

    // Write requests (DatabaseWrapper_Write.cpp, DatabaseWrapper_Attributes.cpp,
    // DatabaseWrapper_CreateObject.cpp)
    void handleInsert(const RawMessage* raw);
    void handleInsertToCommonDb(const RawMessage* raw);
    void handleUpdate(const RawMessage* raw);
    void handleDelete(const RawMessage* raw);
    void handleCreateObject(const RawMessage* raw);
    void handleSetAttributeValue(const RawMessage* raw);
    void handleSetAttributeValues(const RawMessage* raw);
    void handleDeleteAttribute(const RawMessage* raw);

    // Read requests (DatabaseWrapper_Read.cpp)
    void handleFetch(const RawMessage* raw);
    void handleFetchAttr(const RawMessage* raw);
    void handleFetchAllChildren(const RawMessage* raw);
    void handleFetchMOClass(const RawMessage* raw);
    void handleFetchMOClassWith0Parent(const RawMessage* raw);
    void handlePresence(const RawMessage* raw);
    void handleGetWholeDn(const RawMessage* raw);

    // Client transactions (DatabaseWrapper_Transaction.cpp). A key is one of generateTransId().
    void handleTransaction(const RawMessage* raw);
    /// Executes what is queued under the key, all of it or nothing, and ends the transaction. False
    /// when nothing was written; the transaction is open still only when SQLite refused to begin or
    /// to commit.
    bool commitTransaction(const std::string& key);
    /// Drops what is queued under the key, if anything is; always true.
    bool rollbackTransaction(const std::string& key);

    // Subscriptions (DatabaseWrapper_Subscribe.cpp)
    void handleRegister(const RawMessage* raw);
    void handleUnRegister(const RawMessage* raw);
    void handleUnRegisterAll(const RawMessage* raw);
    /// Subscribes from inside the service, for itself (node 0) or for a client; the ticket.
    std::int32_t registerToNotif(const std::string& key, std::int32_t client);
    /// True also for a ticket of -1, which nobody holds.
    bool unRegisterNotif(std::int32_t ticket, std::int32_t client);
    bool mapErase(std::int32_t ticket, std::int32_t client);

    // Storing to flash: on request, on the timer, and late (DatabaseWrapper_Store.cpp)
    void handleStorePersistentDump(const RawMessage* raw);
    /// Stores, and once more after a failure; a second one orders a software fallback. A failed
    /// backup is only reported.
    bool StorePersistentDump(bool backup);
    /// What the service subscribed to for itself: the state of a software upgrade.
    void handleNotif(std::int32_t ticket, const std::string& dn, const Value& value, std::int32_t operation);
    /// To be called after a change that nobody was told of (a commit without notifications, a clean):
    /// reads the state of the software upgrade again and carries out what was put off for it.
    void reconsiderDelayedStores();
    /// Stores what has changed, when auto-integration is completed, and arms the timer again.
    void handleTimeout(int state) override;

    // Maintenance requests (DatabaseWrapper_Maintenance.cpp)
    void handleOrderReady(const RawMessage* raw);
    void handleStoreBrMBackup(const RawMessage* raw);
    void handleDBIntegrityCheck(const RawMessage* raw);
    void handleCleanDatabase(const RawMessage* raw);
    void handleShutdownDb(const RawMessage* raw);
    void handleLoadAlternateStorage(const RawMessage* raw);
    void handleEnableAttributeSynchronization(const RawMessage* raw);

    // What others do to the node, and tell us (DatabaseWrapper_MOAccess.cpp, AMW_MessageHandler.cpp)
    /// A report of changes that the management agent has committed; `length` is that of its body.
    void handleMOAccessNotify(const RawMessage* raw, std::size_t length);
    void handleMiddlewareStatus(const RawMessage* raw);
    /// The value that a report gives as text. A text that does not read as its type is logged and gives
    /// what the conversion left, which starts at 0.
    static Value ConvertValueFromString(const std::string& text, std::int32_t type);

    // Questions about the service itself (DatabaseWrapper_Diagnostics.cpp)
    void handleListClients(const RawMessage* raw);
    void handleListSubscriptions(const RawMessage* raw);

protected:
    void enterListening() override;
    void exitListening() override;
    void processEvent(TAMO::Framework::MessageEvent& event) override;
    void processEvent_evAMWMessageHandlerEvent(const EventWithParams_evAMWMessageHandlerEvent& event) override;

private:
    bool commitSilently(const std::string& key);
    bool runTransactionAction(const std::string& key, std::int32_t action, bool noNotifications);
    bool createObject(const std::string& file, const std::string& dn, std::int32_t MOInstance,
                      const std::string& client, struct OperationRecord& record);
    bool insertTemplateObject(const std::string& dn, std::int32_t MOInstance, const std::string& client);
    bool insertTemplateStructs(const std::string& dn, const std::string& client);

    bool armTimer();
    void storePeriodically();
    bool putOff(bool backup, bool ignoreUpgradeState);
    void registerToMOAccess();
    void applyUpgradeState(std::optional<std::int32_t> state, const char* operation);

    TAMO::Framework::Timer m_timer;
    AMW_MessageHandler m_middlewareStatus;
    Subscriptions m_subscriptions;
    Delivery m_delivery;
    MOAccess m_moAccess;
    // Stores that a client was promised, put off until the software upgrade is in a safe state.
    bool m_storeDumpDelayed = false;
    bool m_storeBackupDelayed = false;
    std::int32_t m_upgradeStateTicket = Subscriptions::noTicket;
    ObjectTemplate m_template; // of the create-object request being handled
};
