// The stand-ins for log, middleware and the other services, on the same seams a workstation uses.

#include "tests/support/Platform.h"

#include "platform/framework/Messaging.h"
#include "platform/host/ProcessNode.h"
#include "platform/messages/Notifications.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace TAMO::Framework;
using TAMO::Messages::TAMO_FaultNotification;

namespace {

constexpr std::chrono::seconds patience{20};
constexpr std::int32_t markerCode = 0x7E57;

} // namespace

NodeState Middleware::state() const
{
    NodeState state;
    std::string problem;
    EXPECT_TRUE(readNodeState(m_file, state, problem)) << problem;
    return state;
}

void Middleware::set(const NodeState& state) const
{
    std::string problem;
    EXPECT_TRUE(writeNodeState(m_file, state, problem)) << problem;
}

DatabaseNode::DatabaseNode(const std::string& directory)
{
    EXPECT_TRUE(ProcessNode::start({.directory = directory, .name = "db", .id = 0, .listen = true, .connectTo = {}}));
}

DatabaseNode::~DatabaseNode() { ProcessNode::stop(); }

Service::Service(const std::string& directory, const std::string& name, std::int32_t id)
    : m_id(id), m_node({.directory = directory, .name = name, .id = id, .listen = false, .connectTo = {"db"}})
{
    m_node.setHandler([this](std::shared_ptr<RawMessage> message) {
        const std::lock_guard lock(m_mutex);
        m_messages.push_back(std::move(message));
        m_arrived.notify_all();
    });
    EXPECT_TRUE(m_node.start());
    const auto until = std::chrono::steady_clock::now() + patience;
    while (ProcessNode::peerName(id) != name && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(ProcessNode::peerName(id), name);
}

Service::~Service() { m_node.stop(); }

std::shared_ptr<RawMessage> Service::next()
{
    std::unique_lock lock(m_mutex);
    if (!m_arrived.wait_for(lock, patience, [this] { return !m_messages.empty(); }))
        return nullptr;
    auto message = std::move(m_messages.front());
    m_messages.pop_front();
    return message;
}

std::vector<std::shared_ptr<RawMessage>> Service::arrived()
{
    std::vector<std::shared_ptr<RawMessage>> messages;
    const TAMO_FaultNotification marker(markerCode, 0);
    if (!Messaging::sendTamoMessage(m_id, marker, -1))
        return messages;
    for (auto message = next(); message && message->id != TAMO_FaultNotification::id; message = next()) {
        message->permit.reset(); // handled: more may come
        messages.push_back(std::move(message));
    }
    return messages;
}

bool Service::gotNothing()
{
    const TAMO_FaultNotification marker(markerCode, 0);
    if (!Messaging::sendTamoMessage(m_id, marker, -1))
        return false;
    const auto first = next<TAMO_FaultNotification>();
    return first && first->faultCode == markerCode;
}
