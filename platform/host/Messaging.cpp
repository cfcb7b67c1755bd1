// Message passing as the service sees it: static functions over the one node of the process. The
// node itself is MessageNode.cpp.

#include "platform/framework/Messaging.h"

#include "platform/host/ProcessNode.h"
#include "platform/host/ReportSubscription.h"
#include "platform/middleware/Log.h"
#include "platform/moaccess/MOTransactionNotify.h"

#include <mutex>
#include <shared_mutex>

namespace TAMO::Framework {

namespace {

/// The node and who gets its messages. A receiver may register before the node is up.
struct Process {
    std::shared_mutex mutex;
    std::unique_ptr<MessageNode> node;
    MessageNode::Handler handler;
};

/// A report of the management agent is for those who have subscribed to it; anything else is for everybody.
bool isWanted(const RawMessage& message)
{
    if (message.id != Messages::TAMO_MOAccessReport::id || ReportSubscription::stands())
        return true;
    LOG_DEBUG("MOAccess: a report from node %d is dropped, nobody has subscribed", message.sender);
    return false;
}

Process& process()
{
    static auto* const it = new Process; // a static object's destructor may still send
    return *it;
}

} // namespace

bool ProcessNode::start(MessageNode::Options options)
{
    const std::unique_lock lock(process().mutex);
    if (process().node) {
        LOG_ERROR("Framework: this process is a node already");
        return false;
    }
    auto node = std::make_unique<MessageNode>(std::move(options));
    node->setHandler(process().handler);
    if (!node->start())
        return false;
    process().node = std::move(node);
    return true;
}

void ProcessNode::awaitGreetings(std::chrono::milliseconds patience)
{
    const std::shared_lock lock(process().mutex);
    if (process().node)
        process().node->awaitGreetings(patience);
}

void ProcessNode::stop()
{
    std::unique_ptr<MessageNode> node;
    {
        const std::unique_lock lock(process().mutex);
        node = std::move(process().node);
        process().handler = nullptr;
    }
    if (node)
        node->stop(); // without the lock: a receiver may be sending at this moment
}

std::string ProcessNode::peerName(std::int32_t node)
{
    const std::shared_lock lock(process().mutex);
    return process().node ? process().node->peerName(node) : std::string();
}

void Messaging::registerMessageHandler(ReactiveStateMachine& receiver, int eventId)
{
    const std::unique_lock lock(process().mutex);
    process().handler = [&receiver, eventId](std::shared_ptr<RawMessage> message) {
        if (isWanted(*message))
            receiver.enqueueEvent(MessageEvent(eventId, std::move(message)));
    };
    if (process().node)
        process().node->setHandler(process().handler);
}

std::string Messaging::getNodeAsText(std::int32_t node)
{
    std::string name = ProcessNode::peerName(node);
    if (name.empty())
        name = nodeNameOf(node);
    return name.empty() ? "node " + std::to_string(node) : name;
}

std::vector<PeerInfo> Messaging::getPeers()
{
    const std::shared_lock lock(process().mutex);
    return process().node ? process().node->peers() : std::vector<PeerInfo>();
}

bool Messaging::sendTamoMessage(std::int32_t receiver, const Messages::Message& message, int number)
{
    return sendTamoMessage_v2(receiver, message, number);
}

bool Messaging::sendTamoMessage_v2(std::int32_t receiver, const Messages::Message& message, int)
{
    const std::shared_lock lock(process().mutex);
    return process().node && process().node->send(receiver, message);
}

} // namespace TAMO::Framework
