// Flow control of the receiving side. A permit may outlive its connection and its node: it shares
// the ownership of its gates.

#include "platform/host/ReceiveGate.h"

#include "platform/host/Quietly.h"

#include <utility>

namespace TAMO::Framework {

struct ReceiveGate::Permit : MessagePermit {
    Permit(std::shared_ptr<ReceiveGate> ofGate, std::size_t ofBytes) : gate(std::move(ofGate)), bytes(ofBytes) {}
    ~Permit() override
    {
        if (counted)
            gate->release(bytes);
    }
    Permit(const Permit&) = delete;
    Permit& operator=(const Permit&) = delete;
    bool senderIsGone() const override { return gate->m_closed; }

    const std::shared_ptr<ReceiveGate> gate;
    const std::size_t bytes;
    bool counted = false;
    std::shared_ptr<MessagePermit> ofNode;
};

std::shared_ptr<MessagePermit> ReceiveGate::admit(std::size_t bytes)
{
    // Made before anything is counted: a count that nobody gives back stays for good.
    auto permit = std::make_shared<Permit>(shared_from_this(), bytes);
    bool passes = bytes <= alwaysPasses;
    {
        const std::lock_guard lock(m_mutex);
        if (m_messages >= m_limits.messages || m_bytes >= m_limits.bytes) {
            m_refused = true;
            return nullptr;
        }
        passes = passes && m_messages == 0;
        ++m_messages;
        m_bytes += bytes;
        permit->counted = true;
    }
    if (m_node && !passes) {
        permit->ofNode = m_node->admit(bytes);
        if (!permit->ofNode)
            return nullptr;
    }
    return permit;
}

void ReceiveGate::release(std::size_t bytes)
{
    const std::lock_guard lock(m_mutex);
    --m_messages;
    m_bytes -= bytes;
    if (!m_refused || m_messages > m_limits.messages / 2 || m_bytes > m_limits.bytes / 2)
        return;
    quietly([this] {
        if (m_resume)
            m_resume();
        m_refused = false; // not after an exception: then the next release tries again
    });
}

std::size_t ReceiveGate::unhandled() const
{
    const std::lock_guard lock(m_mutex);
    return m_messages;
}

void ReceiveGate::close()
{
    m_closed = true;
    const std::lock_guard lock(m_mutex);
    m_resume = nullptr;
}

} // namespace TAMO::Framework
