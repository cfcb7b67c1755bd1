#pragma once

#include "platform/host/Frame.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace TAMO::Framework {

/// The sending half of a connection: a socket that is written to without waiting, and what it would
/// not take yet. Any thread may use it.
class PeerOutput {
public:
    using Clock = std::chrono::steady_clock;

    /// Bytes that may wait for a peer.
    static constexpr std::size_t capacity = 4 * 1024 * 1024;

    /// `fd` does not block and stays its owner's, who calls close() before closing it.
    explicit PeerOutput(int fd) : m_fd(fd) {}

    struct Sent {
        bool accepted = false;
        bool attend = false; ///< the owner must look: bytes wait that did not before, or the queue is full
    };
    /// Sends a frame, with its sequence number filled in, or queues what the socket does not take. A
    /// frame that there is no room for takes its number with it: the peer can see that one is missing.
    Sent send(Wire::FrameHeader header, const Bytes& body);

    /// Writes what the socket takes now. True when bytes still wait.
    bool flush();

    /// When a frame was refused for want of room; the epoch when a byte has left since.
    Clock::time_point fullSince() const;

    std::size_t waiting() const;

    struct Counts {
        std::size_t waiting = 0;   ///< bytes
        std::uint64_t sent = 0;    ///< frames taken, the greeting included
        std::uint64_t dropped = 0; ///< frames refused for want of room
        Clock::time_point lastWrite{};
    };
    Counts counts() const;

    /// Sends nothing any more and lets the I/O thread find the connection ended.
    void abandon();

    /// Drops what waits. After it returns nobody uses the descriptor.
    void close();

private:
    bool write(const void* first, std::size_t firstLength, const void* second, std::size_t secondLength,
               std::size_t& written);
    void breakOff();
    bool refuse();
    void queue(const std::uint8_t* bytes, std::size_t length);

    mutable std::mutex m_mutex;
    int m_fd;
    bool m_broken = false;
    std::uint64_t m_sequence = 0; ///< frames taken and dropped; a header carries the low 32 bits
    std::uint64_t m_dropped = 0;
    Clock::time_point m_lastWrite{}; ///< when the socket last took a byte
    Bytes m_queue;
    std::size_t m_queueBegin = 0; ///< bytes of m_queue that are sent already
    Clock::time_point m_fullSince{};
};

} // namespace TAMO::Framework
