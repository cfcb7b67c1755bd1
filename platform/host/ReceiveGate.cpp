// Flow control of one connection's receiving side. A permit may outlive its connection: the gate is
// shared between both.

#include "platform/host/ReceiveGate.h"

#include <utility>

namespace TAMO::Framework {

struct ReceiveGate::Permit {
    Permit(std::shared_ptr<ReceiveGate> ofGate, std::size_t ofBytes) : gate(std::move(ofGate)), bytes(ofBytes) {}
    ~Permit() { gate->release(bytes); }
    Permit(const Permit&) = delete;
    Permit& operator=(const Permit&) = delete;

    const std::shared_ptr<ReceiveGate> gate;
    const std::size_t bytes;
};

std::shared_ptr<void> ReceiveGate::admit(std::size_t bytes)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_messages >= maxMessages || m_bytes >= maxBytes) {
            m_refused = true;
            return nullptr;
        }
        ++m_messages;
        m_bytes += bytes;
    }
    return std::make_shared<Permit>(shared_from_this(), bytes);
}

void ReceiveGate::release(std::size_t bytes)
{
    const std::lock_guard lock(m_mutex);
    --m_messages;
    m_bytes -= bytes;
    if (m_refused && m_messages <= maxMessages / 2 && m_bytes <= maxBytes / 2) {
        m_refused = false;
        if (m_resume)
            m_resume();
    }
}

void ReceiveGate::close()
{
    const std::lock_guard lock(m_mutex);
    m_resume = nullptr;
}

} // namespace TAMO::Framework
