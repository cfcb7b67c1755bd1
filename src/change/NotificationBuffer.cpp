// Notifications that wait for their receiver to subscribe.

#include "change/NotificationBuffer.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"

#include <utility>

using TAMO::Framework::Messaging;

namespace TAMO::Database {

NotificationBuffer::NotificationBuffer(std::int32_t receiverNode, std::int32_t ofTicket, std::string subscriptionKey)
    : receiver(receiverNode), ticket(ofTicket), key(std::move(subscriptionKey))
{}

NotificationBuffer::~NotificationBuffer() = default;

void NotificationBuffer::enqueue(std::unique_ptr<Messages::TAMO_DBNotification> message)
{
    m_queue.push_back(std::move(message));
    if (m_queue.size() <= capacity)
        return;
    m_queue.pop_front();
    if (!std::exchange(m_overflowTold, true))
        LOG_WARNING("NotificationBuffer: %zu notifications wait for %s already, the oldest are dropped from now on",
                    capacity, Messaging::getNodeAsText(receiver).c_str());
}

void NotificationBuffer::flush()
{
    const std::string name = Messaging::getNodeAsText(receiver);
    LOG_INFO("NotificationBuffer: About to send %d queued notification(s) to %s. Subscription was: \"%s\", ticketId: "
             "%d",
             static_cast<int>(m_queue.size()), name.c_str(), key.c_str(), ticket);
    for (const auto& message : std::exchange(m_queue, {}))
        if (!Messaging::sendTamoMessage_v2(receiver, *message, 1))
            LOG_ERROR("NotificationBuffer: Notification send to %s failed.", name.c_str());
}

} // namespace TAMO::Database
