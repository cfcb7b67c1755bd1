#pragma once

#include "platform/framework/ActiveStateMachine.h"
#include "platform/framework/PeerInfo.h"
#include "platform/messages/Message.h"

#include <cstdint>
#include <string>
#include <vector>

namespace TAMO::Framework {

/// Message passing of this process's node.
class Messaging {
public:
    /// From now on every message addressed to this node reaches `receiver` as event `eventId`.
    static void registerMessageHandler(ReactiveStateMachine& receiver, int eventId);

    static std::uint32_t getMsgId(const RawMessage* raw) { return raw->id; }
    static std::int32_t getMsgSender(const RawMessage* raw) { return raw->sender; }

    /// The name under which a connected node introduced itself; for one that is not connected its
    /// name on the platform, or "node N" when it has none.
    static std::string getNodeAsText(std::int32_t node);

    /// The nodes that are connected now, by ascending id. Any thread.
    static std::vector<PeerInfo> getPeers();

    /// Serialises and sends. Never blocks: false at once when the node is not connected, its queue
    /// is full, or the message is larger than a frame. The number is the platform's.
    static bool sendTamoMessage(std::int32_t receiver, const Messages::Message& message, int number);
    static bool sendTamoMessage_v2(std::int32_t receiver, const Messages::Message& message, int number);
};

} // namespace TAMO::Framework
