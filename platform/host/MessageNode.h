#pragma once

#include "platform/framework/PeerInfo.h"
#include "platform/messages/Message.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace TAMO::Framework {

/// One node of the framework on this machine: its listening socket, its connections and the one
/// thread that serves them. A process has one (Messaging); the simulated node runs several.
class MessageNode {
public:
    struct Options {
        std::string directory;                   ///< of the sockets
        std::string name;                        ///< the socket is <directory>/<name>.sock
        std::int32_t id = -1;                    ///< node id
        bool listen = true;                      ///< false for a node that only connects
        std::vector<std::string> connectTo = {}; ///< names of nodes to keep a connection to
    };
    /// Called on the I/O thread for every message addressed to this node.
    using Handler = std::function<void(std::shared_ptr<RawMessage>)>;

    explicit MessageNode(Options options);
    ~MessageNode();
    MessageNode(const MessageNode&) = delete;
    MessageNode& operator=(const MessageNode&) = delete;

    /// Listens and starts the thread. False, with an error line that says why, when the node cannot
    /// listen; a node that cannot be reached is tried again in the background.
    [[nodiscard]] bool start();
    /// Waits until each node of `connectTo` has answered our first greeting, or cannot be called now: what
    /// is sent to them before that is lost. At most for `patience`.
    void awaitGreetings(std::chrono::milliseconds patience);
    /// Messages that arrive before a handler is set wait for it, unread.
    void setHandler(Handler handler);
    /// Sends what is queued for a moment, then closes every connection and ends the thread.
    void stop();

    /// See Messaging::sendTamoMessage. Any thread.
    bool send(std::int32_t receiver, const Messages::Message& message);
    /// The name a connected node introduced itself with; empty when it is not connected.
    std::string peerName(std::int32_t node) const;
    /// The nodes that are connected now, by ascending id. Any thread.
    std::vector<PeerInfo> peers() const;
    /// Why a node of `connectTo` refused our latest greeting, such as "node id 100 is taken"; empty
    /// when none has, and once connected.
    std::string lastRefusal() const;

private:
    struct State;
    std::shared_ptr<State> m_state;
};

/// The id a node name of the platform stands for ("db" 0, "fm" 3, "reset" 9); -1 when there is none.
std::int32_t nodeIdOf(const std::string& nodeName);
/// The platform's name of a node id; empty when there is none.
std::string nodeNameOf(std::int32_t id);

} // namespace TAMO::Framework
