#pragma once

#include <cstdint>
#include <memory>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/// One framework message as it arrived: the fields of its frame header and its undecoded body.
struct RawMessage {
    std::uint32_t id = 0;
    std::int32_t sender = -1;
    std::int32_t receiver = -1;
    std::uint32_t sequence = 0;
    Bytes body;
    /// Held until the message has been handled: while a peer has too many unhandled messages, the
    /// framework stops reading from it.
    std::shared_ptr<void> permit;
};
