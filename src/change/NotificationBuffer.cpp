// Notifications that wait for their receiver to subscribe.

#include "change/NotificationBuffer.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"

#include <utility>

using TAMO::Framework::Messaging;

namespace TAMO::Database {

namespace {

std::size_t sizeOf(const Value& value)
{
    const auto* const text = std::get_if<std::string>(&value);
    return sizeof value + (text ? text->size() : 0);
}

/// About what a message takes in memory.
std::size_t sizeOf(const Messages::TAMO_DBNotification& message)
{
    std::size_t bytes = sizeof message + message.dn.size() + message.wholeDn.size() + message.attributeName.size() +
                        sizeOf(message.value);
    for (const auto& pair : message.attributeList)
        bytes += sizeof pair + pair.name.size() + sizeOf(pair.value);
    for (const auto& entry : message.transaction.entries) {
        bytes += sizeof entry + entry.dn.size();
        for (const std::string& attribute : entry.attributes)
            bytes += sizeof(std::string) + attribute.size();
    }
    return bytes;
}

} // namespace

NotificationBuffer::NotificationBuffer(std::int32_t receiverNode, std::int32_t ofTicket, std::string subscriptionKey)
    : receiver(receiverNode), ticket(ofTicket), key(std::move(subscriptionKey))
{}

NotificationBuffer::~NotificationBuffer() = default;

void NotificationBuffer::enqueue(std::unique_ptr<Messages::TAMO_DBNotification> message)
{
    const std::size_t bytes = sizeOf(*message);
    m_queue.push_back({std::move(message), bytes});
    m_bytes += bytes;
    while (m_queue.size() > capacity || (m_bytes > maxBytes && m_queue.size() > 1)) {
        m_bytes -= m_queue.front().bytes;
        m_queue.pop_front();
        if (!std::exchange(m_overflowTold, true))
            LOG_WARNING("NotificationBuffer: %zu notifications of %zu bytes wait for %s already, the oldest are "
                        "dropped from now on",
                        m_queue.size(), m_bytes, Messaging::getNodeAsText(receiver).c_str());
    }
}

void NotificationBuffer::flush()
{
    const std::string name = Messaging::getNodeAsText(receiver);
    LOG_INFO("NotificationBuffer: About to send %d queued notification(s) to %s. Subscription was: \"%s\", ticketId: "
             "%d",
             static_cast<int>(m_queue.size()), name.c_str(), key.c_str(), ticket);
    m_bytes = 0;
    for (const Kept& kept : std::exchange(m_queue, {}))
        if (!Messaging::sendTamoMessage_v2(receiver, *kept.message, 1))
            LOG_ERROR("NotificationBuffer: Notification send to %s failed.", name.c_str());
}

} // namespace TAMO::Database
