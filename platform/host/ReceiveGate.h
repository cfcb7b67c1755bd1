#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

namespace TAMO::Framework {

/// Counts what a peer sent and nobody has handled yet. Full, it makes the connection stop reading, so
/// that a flood waits in the sender instead of in our memory.
class ReceiveGate : public std::enable_shared_from_this<ReceiveGate> {
public:
    static constexpr std::size_t maxMessages = 256;
    static constexpr std::size_t maxBytes = 2 * 1024 * 1024;

    /// `resume` is called, from whichever thread handled a message, once a gate that has refused is
    /// down to half.
    explicit ReceiveGate(std::function<void()> resume) : m_resume(std::move(resume)) {}

    /// What the message carries until it is handled; null while the gate is full.
    std::shared_ptr<void> admit(std::size_t bytes);
    /// After it returns resume is not called any more.
    void close();

private:
    struct Permit;
    void release(std::size_t bytes);

    std::mutex m_mutex;
    std::function<void()> m_resume;
    std::size_t m_messages = 0;
    std::size_t m_bytes = 0;
    bool m_refused = false;
};

} // namespace TAMO::Framework
