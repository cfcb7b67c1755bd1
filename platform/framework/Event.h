#pragma once

#include "platform/messages/RawMessage.h"

#include <memory>

namespace TAMO::Framework {

/// Event ids every state machine of the service understands.
enum EventId : int { timerExpired = 999, messageReceived = 1004, terminateRequested = 1006 };

/// What an active state machine takes from its queue.
class Event {
public:
    explicit Event(int eventId) : m_id(eventId) {}
    virtual ~Event() = default;
    int id() const { return m_id; }
    /// A copy on the heap, for queueing.
    virtual std::unique_ptr<Event> copyEvent() const { return std::make_unique<Event>(*this); }
    /// True when nobody is left whom it concerns: it is dropped instead of dispatched.
    virtual bool isObsolete() const { return false; }
    /// Releases what the event carries; a plain event carries nothing.
    virtual void cleanup() {}

private:
    int m_id;
};

/// A framework message on its way to a state machine.
class MessageEvent : public Event {
public:
    MessageEvent(int eventId, std::shared_ptr<RawMessage> message) : Event(eventId), m_message(std::move(message)) {}
    std::unique_ptr<Event> copyEvent() const override { return std::make_unique<MessageEvent>(*this); }
    bool isObsolete() const override { return m_message && m_message->permit && m_message->permit->senderIsGone(); }
    void cleanup() override { m_message.reset(); }
    const RawMessage* raw() const { return m_message.get(); }

private:
    std::shared_ptr<RawMessage> m_message;
};

} // namespace TAMO::Framework
