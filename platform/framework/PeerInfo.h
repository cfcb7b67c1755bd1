#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace TAMO::Framework {

/// A node that is connected to ours, and what has passed between the two on this connection. The
/// greetings count as nothing.
struct PeerInfo {
    std::int32_t node = -1;
    std::string name;      ///< the one it introduced itself with
    std::int32_t pid = 0;  ///< of the process at the other end, as the kernel tells
    std::uint32_t uid = 0; ///< likewise
    std::size_t queuedBytes = 0;
    std::size_t unhandled = 0;         ///< messages from it that still exist
    std::uint64_t sent = 0;            ///< messages that send() took, those that wait included
    std::uint64_t dropped = 0;         ///< messages that send() refused because its queue was full
    std::uint64_t received = 0;        ///< messages handed to the receiver
    std::chrono::milliseconds idle{0}; ///< since a byte last went out or came in
};

} // namespace TAMO::Framework
