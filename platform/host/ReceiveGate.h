#pragma once

#include "platform/messages/RawMessage.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

namespace TAMO::Framework {

/// Counts what came in and nobody has handled yet. Full, it makes reading stop, so that a flood waits
/// in its sender instead of in our memory. Every connection has a gate, and the node has one that
/// they share: many peers together, each within its own limits, could still send too much.
class ReceiveGate : public std::enable_shared_from_this<ReceiveGate> {
public:
    struct Limits {
        std::size_t messages;
        std::size_t bytes; ///< the message that reaches the limit still passes
    };
    /// A peer's share is small: all others wait while it is worked off.
    static constexpr Limits ofPeer{.messages = 16, .bytes = 2 * 1024 * 1024};
    static constexpr Limits ofNode{.messages = 1024, .bytes = 16 * 1024 * 1024};
    /// A peer that has nothing here gets one message of this size in, however full the node is: those
    /// who fill it cannot shut the others out.
    static constexpr std::size_t alwaysPasses = 16 * 1024;

    /// `resume` is called, from whichever thread handled a message, once a gate that has refused is
    /// down to half. `node` is the gate behind this one, if any.
    ReceiveGate(Limits limits, std::function<void()> resume, std::shared_ptr<ReceiveGate> node = nullptr)
        : m_limits(limits), m_node(std::move(node)), m_resume(std::move(resume))
    {}

    /// What the message carries until it is handled; null while this gate or the node's is full.
    std::shared_ptr<MessagePermit> admit(std::size_t bytes);
    /// Messages that are in and not handled. Any thread.
    std::size_t unhandled() const;
    /// The connection has ended: senders of what is still here count as gone. After it returns resume
    /// is not called any more.
    void close();

private:
    struct Permit;
    void release(std::size_t bytes);

    const Limits m_limits;
    const std::shared_ptr<ReceiveGate> m_node;
    std::atomic<bool> m_closed{false};
    mutable std::mutex m_mutex; ///< of what follows
    std::function<void()> m_resume;
    std::size_t m_messages = 0;
    std::size_t m_bytes = 0;
    bool m_refused = false;
};

} // namespace TAMO::Framework
