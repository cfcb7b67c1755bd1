#pragma once

#include <cstdint>
#include <memory>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/// What a message holds of its way in until it has been handled: while a peer has too many unhandled
/// messages, the framework stops reading from it.
class MessagePermit {
public:
    virtual ~MessagePermit() = default;
    /// True once the connection the message came by has ended: nobody is left to take an answer.
    virtual bool senderIsGone() const = 0;
};

/// One framework message as it arrived: the fields of its frame header and its undecoded body.
struct RawMessage {
    std::uint32_t id = 0;
    std::int32_t sender = -1;
    std::int32_t receiver = -1;
    std::uint32_t sequence = 0;
    Bytes body;
    std::shared_ptr<const MessagePermit> permit; ///< null for a message that came by no connection
};
