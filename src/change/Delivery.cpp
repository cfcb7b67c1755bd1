// From committed changes to messages: which keys a change matches, who holds their tickets, and what
// is sent. Changes come from the store's walk (store/SQLite_Notify.cpp) and from committed client
// transactions.

#include "change/Delivery.h"

#include "change/NotificationBuffer.h"
#include "change/SubscriptionKey.h"
#include "change/Subscriptions.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"
#include "store/SQLite.h"
#include "values/ValueType.h"

#include <algorithm>
#include <exception>
#include <optional>

using namespace TAMO::Messages;
using TAMO::Database::NotificationBuffer;
using TAMO::Framework::Messaging;

namespace {

constexpr std::int32_t ourselves = 0;
constexpr const char* withAlternate = ",1";

/// The class of a pair; a text that is no pair is its own class.
std::string_view classOf(std::string_view pair) { return pair.substr(0, pair.find('=')); }

/// Which of the two sets of keys, without and with alternate storage, a change is matched against.
struct KeySets {
    bool plain;
    bool alternate;
};

KeySets keySetsOf(const NotificationItem& item)
{
    return {item.storageKind != storageAlternate, item.storageKind != storageLoading};
}

/// The keys that a change matches, but for the alternate flag, in the order in which they are tried.
/// Only DNs that somebody subscribed to are looked at.
std::vector<std::string> keysOf(const NotificationItem& item, const Subscriptions& subscriptions)
{
    std::vector<std::string> keys;
    const std::string_view moClass = classOf(item.dn);
    const bool dnWanted = subscriptions.hasKeyFor(item.dn);
    const bool wholeWanted = item.wholeDn != item.dn && subscriptions.hasKeyFor(item.wholeDn);
    const auto add = [&](std::string_view dn, const std::string& rest) { keys.push_back(std::string(dn) + rest); };
    if (moClass != item.dn && subscriptions.hasKeyFor(moClass))
        add(moClass, ",,,,");
    if (!dnWanted && !wholeWanted)
        return keys;
    const std::string instance = "," + std::to_string(item.MOInstance) + ",";
    const auto addWanted = [&](const std::string& rest) {
        if (dnWanted)
            add(item.dn, rest);
        if (wholeWanted)
            add(item.wholeDn, rest);
    };
    const auto addObjectKeys = [&](std::string_view dn) {
        add(dn, ",,,,");
        add(dn, instance + ",,");
    };
    if (dnWanted)
        addObjectKeys(item.dn);
    if (wholeWanted)
        addObjectKeys(item.wholeDn);
    if (item.ofObject())
        return keys;
    addWanted(instance + item.attribute + ",,");
    addWanted(instance + item.attribute + "," + std::to_string(item.operation) + ",");
    return keys;
}

std::vector<attrNameValuePair> placeholderList(const NotificationItem& item)
{
    return {{"empty", std::string("empty"), IPCData::STRING, item.operation, storageLive, false}};
}

TAMO_DBNotification itemMessage(std::int32_t ticket, const NotificationItem& item)
{
    return {ticket,
            0,
            item.value,
            item.valueType,
            item.attribute,
            item.operation,
            item.operation,
            item.dn,
            placeholderList(item),
            1,
            item.wholeDn};
}

// What an attribute list is made of: the items that the store captured, or pairs.
bool isOfAttribute(const NotificationItem& item) { return !item.ofObject(); }
bool isOfAttribute(const attrNameValuePair&) { return true; }
const attrNameValuePair& pairOf(const attrNameValuePair& pair) { return pair; }
attrNameValuePair pairOf(const NotificationItem& item)
{
    return {item.attribute, item.value, item.valueType, item.operation, item.storageKind, item.hidden};
}

/// Whether an entry stands in the attribute list for subscribers with or without alternate storage.
template <class Entry>
bool isListed(const Entry& entry, bool alternate)
{
    return isOfAttribute(entry) &&
           (entry.storageKind == storageLive || entry.storageKind == (alternate ? storageAlternate : storageLoading));
}

template <class Entry>
std::vector<attrNameValuePair> attributeList(std::span<const Entry> entries, bool alternate)
{
    std::vector<attrNameValuePair> list;
    for (const Entry& entry : entries)
        if (isListed(entry, alternate))
            list.push_back(pairOf(entry));
    return list;
}

TAMO_DBNotification objectMessage(std::int32_t ticket, const NotificationItem& object, std::int32_t operation,
                                  std::vector<attrNameValuePair> list)
{
    static const std::string text = "notifsForAll";
    const std::int32_t lastOperation = list.back().operation;
    const auto count = static_cast<std::int32_t>(list.size());
    return {ticket,          0,     text,          IPCData::STRING, text, lastOperation, operation, object.dn,
            std::move(list), count, object.wholeDn};
}

} // namespace

const Delivery::Kind Delivery::itemWords{
    .queued =
        [](std::int32_t ticket, int size) {
            LOG_DEBUG("Database: Notification (ticketId: %d) enqueued to buffer. Queue size: %d", ticket, size);
        },
    .sent = [] { LOG_DEBUG("Database: Notification sent successfully"); },
    .notSent = [](std::int32_t receiver) { LOG_DEBUG("Database: Notification send failed. Receiver: %d", receiver); }};

const Delivery::Kind Delivery::objectWords{
    .queued =
        [](std::int32_t ticket, int size) {
            LOG_DEBUG("Database: Notification with attribute list (ticketId: %d) enqueued to buffer. Queue size: %d",
                      ticket, size);
        },
    .sent = [] { LOG_DEBUG("Database: Notification for all sent successfully"); },
    .notSent =
        [](std::int32_t receiver) { LOG_DEBUG("Database: Notification for all send failed. Receiver: %d", receiver); }};

const Delivery::Kind Delivery::transactionWords{
    .queued =
        [](std::int32_t ticket, int size) {
            LOG_DEBUG("Database: Transaction notification (ticketId: %d) enqueued to buffer. Queue size: %d", ticket,
                      size);
        },
    .sent = objectWords.sent,
    .notSent = objectWords.notSent};

Delivery::Delivery(Subscriptions& subscriptions, OwnHandler own) : m_subscriptions(subscriptions), m_own(std::move(own))
{}

Delivery::~Delivery() = default;

/// Brings one change to every client under the ticket. `item` is what the service itself gets when it
/// is one of them; `build` makes the message, once, when the first of the others needs it.
template <class Build>
void Delivery::deliver(Kind& kind, std::int32_t ticket, const NotificationItem* item, Build build)
{
    std::optional<TAMO_DBNotification> message;
    for (const std::int32_t client : m_subscriptions.clientsOf(ticket)) {
        if (item && client == ourselves) {
            LOG_DEBUG("Sending notification to Database!");
            if (m_own)
                m_own(ticket, *item);
            continue;
        }
        NotificationBuffer* const buffer = bufferOf(client, ticket);
        if (buffer && !isReady(kind))
            continue;
        if (!message)
            message.emplace(build());
        if (buffer) {
            buffer->enqueue(std::make_unique<TAMO_DBNotification>(*message));
            kind.queued(ticket, static_cast<int>(buffer->size()));
        } else if (Messaging::sendTamoMessage_v2(client, *message, 1)) {
            kind.sent();
        } else {
            kind.notSent(client);
        }
    }
}

void Delivery::itemChanged(const NotificationItem& item)
{
    const auto keys = keysOf(item, m_subscriptions);
    const auto deliverUnder = [&](const std::string& key) {
        const std::int32_t ticket = m_subscriptions.ticketOf(key);
        if (ticket != Subscriptions::noTicket)
            deliver(m_items, ticket, &item, [&] { return itemMessage(ticket, item); });
    };
    const KeySets sets = keySetsOf(item);
    if (sets.plain)
        std::ranges::for_each(keys, deliverUnder);
    if (sets.alternate)
        for (const std::string& key : keys)
            deliverUnder(key + withAlternate);
}

void Delivery::objectChanged(std::span<const NotificationItem> items, std::int32_t operation)
{
    deliverObject(items.back(), operation, items);
}

void Delivery::objectReported(const NotificationItem& object, std::span<const attrNameValuePair> pairs)
{
    deliverObject(object, object.operation, pairs);
}

/// Brings one changed object to those who want whole objects, with the list of the attributes that each
/// kind of them is to see.
template <class Entry>
void Delivery::deliverObject(const NotificationItem& object, std::int32_t operation, std::span<const Entry> entries)
{
    const std::string_view moClass = classOf(object.dn);
    if (moClass == "EventGroup" || moClass == "EventType")
        return;
    const char* const plain[] = {",,,,1", object.isMOMObject ? ",,,,2" : ",,,,3"};
    const char* const alternate[] = {",,,,1,1",
                                     object.isMOMObject ? SubscriptionKey::modelObjectsWithAlternate : ",,,,3,1"};
    const auto deliverUnder = [&](const char* key, bool wantsAlternate) {
        const std::int32_t ticket = m_subscriptions.ticketOf(key);
        if (ticket == Subscriptions::noTicket)
            return;
        if (std::ranges::none_of(entries, [&](const Entry& entry) { return isListed(entry, wantsAlternate); })) {
            for (std::size_t i = 0; i < m_subscriptions.clientsOf(ticket).size(); ++i)
                LOG_DEBUG("Database: Notification for all: no attributes -> no notification sending");
            return;
        }
        deliver(m_objects, ticket, nullptr,
                [&] { return objectMessage(ticket, object, operation, attributeList(entries, wantsAlternate)); });
    };
    for (const char* const key : plain)
        deliverUnder(key, false);
    for (const char* const key : alternate)
        deliverUnder(key, true);
}

void Delivery::transactionCommitted(const TAMO_DBTransactionNotifData& data)
{
    if (data.entries.empty())
        return;
    try {
        const std::int32_t ticket = m_subscriptions.ticketOf(SubscriptionKey::transactions);
        if (ticket != Subscriptions::noTicket)
            deliver(m_transactions, ticket, nullptr, [&] { return TAMO_DBNotification(ticket, data); });
    } catch (const std::exception& error) {
        LOG_ERROR("Database: a transaction of %zu operations was not told: %s", data.entries.size(), error.what());
    }
}

bool Delivery::isReady(Kind& kind)
{
    kind.ready = kind.ready || SQLite::getInstance().isReadyForOssSync("NotifBuffer");
    return kind.ready;
}

NotificationBuffer* Delivery::bufferOf(std::int32_t receiver, std::int32_t ticket)
{
    for (const auto& buffer : m_buffers)
        if (buffer->receiver == receiver && buffer->ticket == ticket)
            return buffer.get();
    return nullptr;
}

void Delivery::addBuffer(std::int32_t receiver, const std::string& key)
{
    auto buffer = std::make_unique<NotificationBuffer>(receiver, Subscriptions::noTicket, key);
    buffer->ticket = m_subscriptions.add(key, receiver);
    m_buffers.push_back(std::move(buffer));
}

void Delivery::releaseBuffer(std::int32_t receiver, std::int32_t ticket)
{
    const auto found = std::ranges::find_if(
        m_buffers, [&](const auto& buffer) { return buffer->receiver == receiver && buffer->ticket == ticket; });
    if (found == m_buffers.end())
        return;
    const auto buffer = std::move(*found);
    m_buffers.erase(found);
    buffer->flush();
    // The buffer's own subscription may have been taken back by the receiver before.
    if (std::ranges::count(m_subscriptions.clientsOf(ticket), receiver) > 1)
        m_subscriptions.mapErase(ticket, receiver);
}

void Delivery::dropBuffersOf(std::int32_t receiver)
{
    std::erase_if(m_buffers, [receiver](const auto& buffer) { return buffer->receiver == receiver; });
}

void Delivery::dropBuffers() { m_buffers.clear(); }
