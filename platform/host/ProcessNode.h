#pragma once

#include "platform/host/MessageNode.h"

namespace TAMO::Framework {

/// The one node of this process, which Messaging talks through.
namespace ProcessNode {

/// False, with an error line, when the node cannot listen or the process has a node already.
[[nodiscard]] bool start(MessageNode::Options options);
/// Afterwards no message reaches a receiver and every send answers false.
void stop();

} // namespace ProcessNode

} // namespace TAMO::Framework
