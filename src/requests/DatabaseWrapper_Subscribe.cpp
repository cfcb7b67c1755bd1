// Requests that subscribe to changes and end subscriptions, and the subscriptions the service makes
// for itself.

#include "requests/DatabaseWrapper.h"

#include "change/SubscriptionKey.h"
#include "requests/Serve.h"

using namespace TAMO::Messages;

void DatabaseWrapper::handleRegister(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleRegister NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleRegister transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleRegister Response send failed."); },
        .sent = [] { LOG_DEBUG("DatabaseWrapper::handleRegister Response sent successfully."); }};
    using Answer = TAMO_DBRegToNotifRsp;
    std::int32_t ticket = Subscriptions::noTicket;
    std::int32_t subscriber = -1;
    serve<TAMO_DBRegToNotif, Answer>(raw, lines, [&](const TAMO_DBRegToNotif& request, const Client& client) {
        const std::string key = SubscriptionKey::of(request);
        subscriber = client.node;
        ticket = m_subscriptions.add(key, subscriber);
        LOG_DEBUG("DatabaseWrapper::handleRegister: %s registered to notifications with key %s", client.name.c_str(),
                  key.c_str());
        return std::optional<Answer>(std::in_place, ticket, request.transId);
    });
    // Only now: what was kept for the subscriber comes behind its ticket.
    if (ticket != Subscriptions::noTicket)
        m_delivery.releaseBuffer(subscriber, ticket);
}

void DatabaseWrapper::handleUnRegister(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleUnRegister NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleUnRegister transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleUnRegister Response send failed."); },
        .sent = [] { LOG_DEBUG("DatabaseWrapper::handleUnRegister Response sent successfully."); }};
    using Answer = TAMO_DBUnRegToNotifRsp;
    serve<TAMO_DBUnRegToNotif, Answer>(raw, lines, [this](const TAMO_DBUnRegToNotif& request, const Client& client) {
        const bool byKey = request.ticket == Subscriptions::noTicket;
        const std::int32_t ticket = byKey ? m_subscriptions.ticketOf(SubscriptionKey::of(request)) : request.ticket;
        const std::string object = byKey ? request.dn : m_subscriptions.keyOf(ticket);
        bool result = false;
        if (ticket == Subscriptions::noTicket) {
            LOG_DEBUG("Database: Unregister failed: No registrations to object %s, instance %d found", object.c_str(),
                      request.MOInstance);
        } else {
            result = mapErase(ticket, client.node);
            if (result)
                LOG_DEBUG("Database: client %d unregistered to notifications to object %s, instance %d", client.node,
                          object.c_str(), request.MOInstance);
            else
                LOG_DEBUG("Database: Unregister failed: Client %d has not registered to notifications to object %s, "
                          "instance %d",
                          client.node, object.c_str(), request.MOInstance);
        }
        return std::optional<Answer>(std::in_place, result, request.transId, ticket);
    });
}

void DatabaseWrapper::handleUnRegisterAll(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("DatabaseWrapper::%s NULL message", "handleUnRegisterAll"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::%s transId: %d client: %s", "handleUnRegisterAll", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::%s Response send failed", "handleUnRegisterAll"); },
        .sent = [] { LOG_DEBUG("DatabaseWrapper::%s Response sent successfully", "handleUnRegisterAll"); }};
    using Answer = TAMO_DBUnRegToAllNotifsRsp;
    serve<TAMO_DBUnRegToAllNotifs, Answer>(raw, lines,
                                           [this](const TAMO_DBUnRegToAllNotifs& request, const Client& client) {
                                               m_subscriptions.removeClient(client.node);
                                               m_delivery.dropBuffersOf(client.node);
                                               LOG_DEBUG("DatabaseWrapper::%s: %s unregistered to all notifications",
                                                         "handleUnRegisterAll", client.name.c_str());
                                               return std::optional<Answer>(std::in_place, true, request.transId);
                                           });
}

std::int32_t DatabaseWrapper::registerToNotif(const std::string& key, std::int32_t client)
{
    const std::int32_t ticket = m_subscriptions.add(key, client);
    LOG_INFO("DatabaseWrapper::%s: %s registered to notifications with key %s", __func__, clientName(client),
             key.c_str());
    return ticket;
}

bool DatabaseWrapper::unRegisterNotif(std::int32_t ticket, std::int32_t client)
{
    if (ticket == Subscriptions::noTicket) {
        LOG_INFO("DatabaseWrapper::%s: Unregister failed, invalid ticket to unregister!", __func__);
        return true;
    }
    const bool erased = mapErase(ticket, client);
    if (erased)
        LOG_INFO("DatabaseWrapper::%s: %s unregistered to notifications with ticket %d", __func__, clientName(client),
                 ticket);
    else
        LOG_ERROR("DatabaseWrapper::%s: Unregister failed: %s has not registered to notifications with ticket %d",
                  __func__, clientName(client), ticket);
    return erased;
}

bool DatabaseWrapper::mapErase(std::int32_t ticket, std::int32_t client)
{
    return m_subscriptions.mapErase(ticket, client);
}
