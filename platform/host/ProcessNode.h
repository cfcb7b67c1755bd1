#pragma once

#include "platform/host/MessageNode.h"

#include <chrono>

namespace TAMO::Framework {

/// The one node of this process, which Messaging talks through.
namespace ProcessNode {

/// False, with an error line, when the node cannot listen or the process has a node already.
[[nodiscard]] bool start(MessageNode::Options options);
/// See MessageNode::awaitGreetings; to be called by the thread that started the node.
void awaitGreetings(std::chrono::milliseconds patience);
/// Afterwards no message reaches a receiver and every send answers false.
void stop();
/// See MessageNode::peerName; empty without a node.
std::string peerName(std::int32_t node);

} // namespace ProcessNode

} // namespace TAMO::Framework
