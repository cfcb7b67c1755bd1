#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace TAMO::Messages {
class TAMO_DBNotification;
}

namespace TAMO::Database {

/// Keeps the notifications of a client that is known to subscribe later than the changes begin.
class NotificationBuffer {
public:
    /// Messages kept, and bytes of them; from then on the oldest go for each new one.
    static constexpr std::size_t capacity = 10000;
    static constexpr std::size_t maxBytes = 64 * 1024 * 1024;

    NotificationBuffer(std::int32_t receiverNode, std::int32_t ofTicket, std::string subscriptionKey);
    virtual ~NotificationBuffer();
    NotificationBuffer(const NotificationBuffer&) = delete;
    NotificationBuffer& operator=(const NotificationBuffer&) = delete;

    void enqueue(std::unique_ptr<TAMO::Messages::TAMO_DBNotification> message);
    std::size_t size() const { return m_queue.size(); }
    /// Sends what is kept, in order, and forgets it, sent or not.
    void flush();

    const std::int32_t receiver;
    std::int32_t ticket;
    const std::string key;

private:
    struct Kept {
        std::unique_ptr<TAMO::Messages::TAMO_DBNotification> message;
        std::size_t bytes;
    };
    std::list<Kept> m_queue;
    std::size_t m_bytes = 0;
    bool m_overflowTold = false;
};

} // namespace TAMO::Database
