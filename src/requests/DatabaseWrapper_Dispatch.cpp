// The table of messages, and the way of a message from the queue to its handler.

#include "requests/DatabaseWrapper.h"

#include "change/SubscriptionKey.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Diagnostics.h"
#include "platform/messages/Notifications.h"
#include "platform/messages/Requests.h"
#include "platform/middleware/Log.h"
#include "platform/moaccess/MOTransactionNotify.h"
#include "store/SQLite.h"

#include <algorithm>
#include <exception>
#include <iterator>

using namespace TAMO::Framework;
using namespace TAMO::Messages;

namespace {

constexpr const char* secMain = "SecMain";
constexpr std::int32_t vex = 10;

struct Route {
    std::uint32_t id;
    void (*handle)(DatabaseWrapper& service, const RawMessage* raw);
};

template <auto Handler>
void to(DatabaseWrapper& service, const RawMessage* raw)
{
    (service.*Handler)(raw);
}

constexpr Route routes[] = {
    {TAMO_ListClients::id, to<&DatabaseWrapper::handleListClients>},
    {TAMO_ListSubscriptions::id, to<&DatabaseWrapper::handleListSubscriptions>},
    {TAMO_FaultNotification::id, [](DatabaseWrapper&, const RawMessage*) {}}, // fault reports ask nothing of us
    {TAMO_DBInsert::id, to<&DatabaseWrapper::handleInsert>},
    {TAMO_DBInsertToCommonDb::id, to<&DatabaseWrapper::handleInsertToCommonDb>},
    {TAMO_DBFetch::id, to<&DatabaseWrapper::handleFetch>},
    {TAMO_DBFetchAllChildren::id, to<&DatabaseWrapper::handleFetchAllChildren>},
    {TAMO_DBFetchMOClass::id, to<&DatabaseWrapper::handleFetchMOClass>},
    {TAMO_DBFetchMOClassWithParent::id, to<&DatabaseWrapper::handleFetchMOClassWith0Parent>},
    {TAMO_DBOrderReady::id, to<&DatabaseWrapper::handleOrderReady>},
    {TAMO_DBRegToNotif::id, to<&DatabaseWrapper::handleRegister>},
    {TAMO_DBUpdate::id, to<&DatabaseWrapper::handleUpdate>},
    {TAMO_DBUnRegToNotif::id, to<&DatabaseWrapper::handleUnRegister>},
    {TAMO_DBDelete::id, to<&DatabaseWrapper::handleDelete>},
    {TAMO_DBTransaction::id, to<&DatabaseWrapper::handleTransaction>},
    {TAMO_DBCreateObject::id, to<&DatabaseWrapper::handleCreateObject>},
    {TAMO_DBSetAttributeValues::id, to<&DatabaseWrapper::handleSetAttributeValues>},
    {TAMO_DBSetAttributeValue::id, to<&DatabaseWrapper::handleSetAttributeValue>},
    {TAMO_DBStorePersistentDump::id, to<&DatabaseWrapper::handleStorePersistentDump>},
    {TAMO_DBPresence::id, to<&DatabaseWrapper::handlePresence>},
    {TAMO_DBShutdownDb::id, to<&DatabaseWrapper::handleShutdownDb>},
    {TAMO_DBCleanDatabase::id, to<&DatabaseWrapper::handleCleanDatabase>},
    {TAMO_getWholeDn::id, to<&DatabaseWrapper::handleGetWholeDn>},
    {TAMO_deleteAttribute::id, to<&DatabaseWrapper::handleDeleteAttribute>},
    {TAMO_DBLoadAlternateStorage::id, to<&DatabaseWrapper::handleLoadAlternateStorage>},
    {TAMO_MOAccessReport::id,
     [](DatabaseWrapper& service, const RawMessage* raw) { service.handleMOAccessNotify(raw, raw->body.size()); }},
    {TAMO_DBFetchAttr::id, to<&DatabaseWrapper::handleFetchAttr>},
    {TAMO_EnableAttrSync::id, to<&DatabaseWrapper::handleEnableAttributeSynchronization>},
    {TAMO_DBUnRegToAllNotifs::id, to<&DatabaseWrapper::handleUnRegisterAll>},
    {TAMO_DBStoreBrMBackup::id, to<&DatabaseWrapper::handleStoreBrMBackup>},
    {TAMO_DBIntegrityCheck::id, to<&DatabaseWrapper::handleDBIntegrityCheck>},
    {TAMO_MiddlewareStatus::id, to<&DatabaseWrapper::handleMiddlewareStatus>},
};
static_assert(std::ranges::adjacent_find(routes, std::greater_equal{}, &Route::id) == std::end(routes),
              "one row per message id, ascending");

const Route* routeOf(std::uint32_t id)
{
    const auto* const found = std::ranges::lower_bound(routes, id, {}, &Route::id);
    return found != std::end(routes) && found->id == id ? found : nullptr;
}

} // namespace

DatabaseWrapper::DatabaseWrapper(const std::string& threadName)
    : DatabaseWrapper_StateMachine(threadName),
      m_timer(*this),
      m_middlewareStatus(*this),
      m_delivery(m_subscriptions, [this](std::int32_t ticket, const NotificationItem& item) {
          handleNotif(ticket, item.realDn(), item.value, item.operation);
      })
{
    SQLite::getInstance().announceTo(&m_delivery);
}

DatabaseWrapper::~DatabaseWrapper() { SQLite::getInstance().announceTo(nullptr); }

void DatabaseWrapper::enterListening()
{
    m_delivery.addBuffer(vex, SubscriptionKey::modelObjectsWithAlternate);
    Messaging::registerMessageHandler(*this, messageReceived);
    registerToMOAccess();
    armTimer();
}

void DatabaseWrapper::registerToMOAccess()
{
    try {
        m_moAccess.RegisterToNotification("*", "/toDB");
    } catch (const std::exception& error) {
        LOG_ERROR("Registering to MOAccess notifications failed.");
        LOG_ERROR("MOAccess error: [%s]", error.what());
    }
}

void DatabaseWrapper::exitListening()
{
    m_moAccess.UnRegisterNotifications();
    m_delivery.dropBuffers();
    m_middlewareStatus.stop(); // the process is about to end, and its threads with it
}

void DatabaseWrapper::processEvent(MessageEvent& event)
{
    LOG_DEBUG("Framework message received");
    if (const RawMessage* const raw = event.raw()) {
        const std::uint32_t id = Messaging::getMsgId(raw);
        try {
            if (const Route* const route = routeOf(id))
                route->handle(*this, raw);
            else
                LOG_DEBUG("Unsupported message (0x%04x) received from %d!", id, Messaging::getMsgSender(raw));
        } catch (const std::exception& error) {
            LOG_ERROR("DatabaseWrapper: message 0x%04x failed: %s", id, error.what());
        } catch (...) {
            LOG_ERROR("DatabaseWrapper: message 0x%04x failed", id);
        }
        SQLite::getInstance().rollbackLeftOver();
    }
    event.cleanup();
}

void DatabaseWrapper::processEvent_evAMWMessageHandlerEvent(const EventWithParams_evAMWMessageHandlerEvent& event)
{
    LOG_DEBUG("DatabaseWrapper::processEvent_evAMWMessageHandlerEvent(%d)", event.parameter);
    m_middlewareStatus.holdExpired(event.parameter);
}

void DatabaseWrapper::handleMiddlewareStatus(const RawMessage* raw)
{
    TAMO_MiddlewareStatus status;
    if (status.deserialize(raw))
        m_middlewareStatus.handleMessage(status.payload);
    else
        LOG_WARNING("Message 0x%04x from node %d cannot be read: %zu bytes that are not its fields", raw->id,
                    Messaging::getMsgSender(raw), raw->body.size());
}

std::string DatabaseWrapper::getClientName(std::int32_t node) { return clientName(node); }

std::string DatabaseWrapper::generateTransId(std::int32_t node, std::int32_t transId)
{
    std::int32_t keyNode = node;
    std::int64_t keyId = transId;
    if (transId < 0 && getClientName(node) == secMain) {
        keyId = -keyId;
        keyNode = vex;
        LOG_DEBUG("Database DatabaseWrapper::generateTransId. USE VEX'S TRANSACTIONID!!!");
    } else if (transId < 0) {
        LOG_DEBUG("Database DatabaseWrapper::generateTransId. UNEXCEPTED NEGATIVE TRANSACTIONID!!!");
    }
    std::string key = std::to_string(keyNode) + "," + std::to_string(keyId);
    LOG_DEBUG("Database DatabaseWrapper::generateTransId --> %s", key.c_str());
    return key;
}

bool DatabaseWrapper::compareClassName(const std::string& dn, const std::string& referenceClassName)
{
    LOG_DEBUG("DatabaseWrapper::compareClassName comparedDN: %s, referenceClassName: %s", dn.c_str(),
              referenceClassName.c_str());
    const std::string pair = dn.substr(dn.rfind(',') + 1); // npos + 1 is the start
    const std::string lastDn = pair.substr(0, pair.rfind('='));
    LOG_DEBUG("DatabaseWrapper::compareClassName referenceClassName: %s, lastDn: %s", referenceClassName.c_str(),
              lastDn.c_str());
    return referenceClassName == lastDn;
}
