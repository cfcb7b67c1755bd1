#pragma once

#include "platform/messages/Message.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

/// The wire between two nodes: a stream of frames, each a fixed header and a body.

namespace TAMO::Wire {

inline constexpr std::uint32_t protocolVersion = 1;

/// Header and body together never exceed this.
inline constexpr std::size_t maxFrameSize = 1024 * 1024;

/// The longest path a local socket address holds, in characters.
inline constexpr std::size_t maxSocketPath = 107;

/// Five 32-bit little-endian words in this order.
struct FrameHeader {
    std::uint32_t length = 0; ///< of the body, in bytes
    std::uint32_t id = 0;
    std::int32_t sender = 0;
    std::int32_t receiver = 0;
    std::uint32_t sequence = 0; ///< counts a connection's frames in one direction, from 0 for the greeting
};
inline constexpr std::size_t headerSize = 20;

std::array<std::uint8_t, headerSize> encodeHeader(const FrameHeader& header);
FrameHeader decodeHeader(const std::uint8_t* bytes);

/// First frame of each direction; the side that connected speaks first. In the greeting of the
/// connecting side the receiver is -1, because it does not know the other's id yet.
class Hello : public Messages::Numbered<1, Messages::Message> {
public:
    Hello() = default;
    Hello(std::int32_t nodeId, std::string nodeName) : node(nodeId), name(std::move(nodeName)) {}
    std::string magic = "tamo";
    std::int32_t version = protocolVersion;
    std::int32_t node = -1;
    std::string name;

protected:
    void describe(Messages::FieldList& fields) override { fields(magic, version, node, name); }
};

/// Sent instead of the answering greeting, before the connection is closed.
class Refused : public Messages::Numbered<2, Messages::Message> {
public:
    Refused() = default;
    explicit Refused(std::string why) : reason(std::move(why)) {}
    std::string reason;

protected:
    void describe(Messages::FieldList& fields) override { fields(reason); }
};

/// The path of a node's socket in the framework directory.
std::string socketPath(const std::string& directory, const std::string& nodeName);

/// The framework directory: TAMO_FRAMEWORK_DIR, "/run/tamo" when it is not set.
std::string frameworkDirectory();

} // namespace TAMO::Wire
