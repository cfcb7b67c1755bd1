// A node: its listening socket, the connections it keeps up, and the table of peers that send()
// looks into. One thread runs it all; what happens inside a connection is PeerConnection.cpp.

#include "platform/host/MessageNode.h"

#include "platform/host/Attention.h"
#include "platform/host/NodeSocket.h"
#include "platform/host/PeerConnection.h"
#include "platform/host/Quietly.h"
#include "platform/host/ThreadScope.h"
#include "platform/middleware/Log.h"

#include <utility> // before Asio 1.74, which uses std::exchange without it

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <future>
#include <list>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <unordered_map>
#include <vector>

namespace TAMO::Framework {

namespace {

using boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds firstRetry{100};
constexpr std::chrono::milliseconds lastRetry{2000};
constexpr std::chrono::milliseconds acceptPause{1000};
constexpr std::chrono::milliseconds flushTime{500};
constexpr std::chrono::milliseconds flushStep{5};
constexpr std::chrono::milliseconds exceptionPause{20};
constexpr std::chrono::minutes crowdLinePause{1};

/// Connections of nodes that are none of the platform's services, whose places are always free: each
/// of them can connect only once.
constexpr std::size_t maxClients = 256;
/// Connections that have not greeted yet. Who means it greets at once, so one more costs the oldest.
constexpr std::size_t maxStrangers = 64;

struct NodeRow {
    const char* name;
    std::int32_t id;
};
constexpr NodeRow nodes[] = {
    {"db", 0},        {"startup", 1},  {"cm", 2},     {"fm", 3},           {"pm", 4},         {"mw", 5},
    {"boam", 6},      {"sm", 7},       {"ai", 8},     {"reset", 9},        {"vex", 10},       {"webui", 11},
    {"webproxy", 12}, {"secmain", 13}, {"agent", 14}, {"agentplugin", 15}, {"transport", 16},
};

/// A node that we keep a connection to.
struct Connector {
    Connector(boost::asio::io_context& io, std::string ofName)
        : name(std::move(ofName)), expectedId(nodeIdOf(name)), timer(io)
    {}
    const std::string name;
    const std::int32_t expectedId;
    boost::asio::steady_timer timer;
    bool waiting = false; ///< for the timer
    std::chrono::milliseconds delay = firstRetry;
    std::shared_ptr<PeerConnection> connection; ///< dialled, perhaps not greeted yet
    std::string lastRefusal;                    ///< logged once, not at every attempt
};

} // namespace

std::int32_t nodeIdOf(const std::string& nodeName)
{
    const auto found = std::ranges::find(nodes, nodeName, &NodeRow::name);
    return found == std::end(nodes) ? -1 : found->id;
}

std::string nodeNameOf(std::int32_t id)
{
    const auto found = std::ranges::find(nodes, id, &NodeRow::id);
    return found == std::end(nodes) ? "" : found->name;
}

struct MessageNode::State : PeerOwner {
    explicit State(Options of)
        : options(std::move(of)), nodeGate(std::make_shared<ReceiveGate>(ReceiveGate::ofNode, [this] {
              boost::asio::post(io, [this] { resumeAll(); });
          }))
    {}
    ~State() override { nodeGate->close(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    const std::string& nodeName() const override { return options.name; }
    std::int32_t nodeId() const override { return options.id; }
    const std::shared_ptr<ReceiveGate>& gate() const override { return nodeGate; }
    Verdict judge(const PeerConnection& connection, const Wire::Hello& hello) override;
    void joined(const std::shared_ptr<PeerConnection>& connection) override;
    void refused(const PeerConnection& connection, const std::string& reason) override;
    void left(const std::shared_ptr<PeerConnection>& connection) override;
    bool deliver(const std::shared_ptr<RawMessage>& message) override;

    bool listen();
    void run();
    void takeUpAgain();
    void acceptSoon();
    void acceptLater();
    void acceptOne();
    void adopt(Descriptor fd);
    void makeRoomForStrangers();
    void noteTurnedAway(const std::string& reason);
    std::size_t clients() const;
    void dial(Connector& connector);
    void dialLater(Connector& connector);
    void dialMissing();
    bool isDialling(std::int32_t id) const;
    void resumeAll();
    void beginStop();
    void finishStop();
    std::shared_ptr<PeerConnection> peer(std::int32_t id) const;

    const Options options;
    const std::shared_ptr<ReceiveGate> nodeGate;
    boost::asio::io_context io{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{io.get_executor()};
    std::thread thread;
    NodeSocket socket;
    boost::asio::posix::stream_descriptor listener{io};
    boost::asio::steady_timer acceptTimer{io};
    bool accepting = false; ///< the listener or the timer will call
    boost::asio::steady_timer flushTimer{io};
    Clock::time_point flushUntil;
    std::list<Connector> connectors;
    std::vector<std::shared_ptr<PeerConnection>> connections; ///< greeted or not, oldest first; I/O thread only
    Clock::time_point nextCrowdLine{};
    std::size_t turnedAway = 0; ///< since the last line about it

    mutable std::mutex peersMutex; ///< of the table and of lastRefusal
    std::unordered_map<std::int32_t, std::shared_ptr<PeerConnection>> peers;
    std::string lastRefusal;

    std::mutex handlerMutex; ///< held while the handler runs, so that setHandler can wait for it
    Handler handler;
    std::atomic<bool> stopping{false};
};

bool MessageNode::State::listen()
{
    std::string problem;
    Descriptor fd = socket.open(options.directory, options.name, problem);
    if (!fd) {
        LOG_ERROR("Node %s cannot listen: %s", options.name.c_str(), problem.c_str());
        return false;
    }
    listener.assign(fd.get());
    fd.release();
    acceptSoon();
    return true;
}

void MessageNode::State::run()
{
    const ThreadScope scope("io " + options.name);
    bool whole = true;
    while (!io.stopped())
        try {
            if (!whole)
                takeUpAgain();
            whole = true;
            io.run_one();
            while (stayAttentive([this] { return io.poll() > 0; })) {
            }
        } catch (const std::exception& error) {
            whole = false;
            quietly([&] { LOG_ERROR("Node %s: %s; the connections go on", options.name.c_str(), error.what()); });
            std::this_thread::sleep_for(exceptionPause);
        }
}

/// After an exception: whatever it kept from being waited for is waited for again. The connection it
/// hit, if any, is closed by then.
void MessageNode::State::takeUpAgain()
{
    if (stopping)
        return beginStop();
    if (listener.is_open() && !accepting)
        acceptSoon();
    dialMissing();
    resumeAll();
}

void MessageNode::State::acceptSoon()
{
    listener.async_wait(boost::asio::posix::stream_descriptor::wait_read, [this](error_code error) {
        accepting = false;
        if (!error)
            acceptOne();
    });
    accepting = true;
}

void MessageNode::State::acceptLater()
{
    acceptTimer.expires_after(acceptPause);
    acceptTimer.async_wait([this](error_code error) {
        accepting = false;
        if (!error)
            acceptSoon();
    });
    accepting = true;
}

/// One at a time: those who came before get to greet meanwhile.
void MessageNode::State::acceptOne()
{
    Descriptor fd(::accept4(listener.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd) {
        adopt(std::move(fd));
    } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
        LOG_ERROR("Node %s cannot accept a connection: %s", options.name.c_str(), std::strerror(errno));
        return acceptLater();
    }
    acceptSoon();
}

void MessageNode::State::adopt(Descriptor fd)
{
    const auto connection = std::make_shared<PeerConnection>(io, *this, std::move(fd), socket.group(), std::string());
    connections.push_back(connection);
    connection->start();
    makeRoomForStrangers();
}

void MessageNode::State::makeRoomForStrangers()
{
    const auto isStranger = [](const auto& connection) {
        return connection->id() < 0 && connection->dialled().empty();
    };
    if (std::ranges::count_if(connections, isStranger) <= static_cast<std::ptrdiff_t>(maxStrangers))
        return;
    const auto oldest = *std::ranges::find_if(connections, isStranger);
    const std::string reason = std::to_string(maxStrangers) + " others have not greeted either";
    noteTurnedAway(reason);
    oldest->refuse(reason, RefusalLine::none);
}

/// Whoever comes too often comes very often: one line a minute is enough to know.
void MessageNode::State::noteTurnedAway(const std::string& reason)
{
    ++turnedAway;
    if (Clock::now() < nextCrowdLine)
        return;
    LOG_ERROR("Node %s: too many connections, %zu refused: %s", options.name.c_str(), turnedAway, reason.c_str());
    turnedAway = 0;
    nextCrowdLine = Clock::now() + crowdLinePause;
}

std::size_t MessageNode::State::clients() const
{
    return static_cast<std::size_t>(std::ranges::count_if(connections, [](const auto& connection) {
        return connection->id() >= 0 && nodeNameOf(connection->id()).empty();
    }));
}

void MessageNode::State::dial(Connector& connector)
{
    // The node may have come to us in the meantime.
    if (stopping || connector.connection || (connector.expectedId >= 0 && peer(connector.expectedId)))
        return;
    std::string problem;
    gid_t group = 0;
    Descriptor fd = connectTo(Wire::socketPath(options.directory, connector.name), group, problem);
    if (!fd) {
        LOG_DEBUG("Node %s: %s", options.name.c_str(), problem.c_str());
        return dialLater(connector);
    }
    auto connection = std::make_shared<PeerConnection>(io, *this, std::move(fd), group, connector.name);
    connections.push_back(connection);
    connector.connection = connection;
    connection->start();
}

void MessageNode::State::dialLater(Connector& connector)
{
    connector.timer.expires_after(connector.delay);
    connector.delay = std::min(2 * connector.delay, lastRetry);
    connector.timer.async_wait([this, &connector](error_code error) {
        connector.waiting = false;
        if (!error)
            dial(connector);
    });
    connector.waiting = true;
}

/// Nodes that are neither connected nor about to be called.
void MessageNode::State::dialMissing()
{
    for (Connector& connector : connectors)
        if (!connector.connection && !connector.waiting && !(connector.expectedId >= 0 && peer(connector.expectedId)))
            dialLater(connector);
}

/// True while our greeting to that node is not answered yet.
bool MessageNode::State::isDialling(std::int32_t id) const
{
    return std::ranges::any_of(connectors, [id](const Connector& connector) {
        return connector.expectedId == id && connector.connection && connector.connection->id() < 0;
    });
}

PeerOwner::Verdict MessageNode::State::judge(const PeerConnection& connection, const Wire::Hello& hello)
{
    const std::string id = "node id " + std::to_string(hello.node);
    const std::int32_t expected = nodeIdOf(connection.dialled());
    if (expected >= 0 && hello.node != expected)
        return {id + " answered for " + connection.dialled() + ", which is node " + std::to_string(expected)};
    // The database service (node 0) calls fault management; nobody else may be 0, and nobody to node 0.
    const bool isService = hello.node == 0 && options.id != 0 && nodeIdOf(hello.name) == 0;
    if (expected < 0 && hello.node <= 0 && !isService)
        return {id + " is not accepted from outside"};
    if (hello.node == options.id)
        return {id + " is this node's own"};
    if (peer(hello.node))
        return {id + " is taken", RefusalLine::warning};
    // Two nodes that call each other at once: the call of the lower id stands.
    if (connection.dialled().empty() && options.id < hello.node && isDialling(hello.node))
        return {id + " is being called from here", RefusalLine::warning};
    if (nodeNameOf(hello.node).empty() && clients() >= maxClients) {
        const std::string reason = "there are " + std::to_string(maxClients) + " connections already";
        noteTurnedAway(reason);
        return {reason, RefusalLine::none};
    }
    return {};
}

void MessageNode::State::joined(const std::shared_ptr<PeerConnection>& connection)
{
    {
        const std::lock_guard lock(peersMutex);
        peers[connection->id()] = connection;
        if (!connection->dialled().empty())
            lastRefusal.clear();
    }
    if (connection->dialled().empty())
        LOG_DEBUG("Node %s: %s (node %d) has connected", options.name.c_str(), connection->name().c_str(),
                  connection->id());
    else
        LOG_INFO("Node %s: connected to %s (node %d)", options.name.c_str(), connection->name().c_str(),
                 connection->id());
    for (Connector& connector : connectors)
        if (connector.connection == connection) {
            connector.delay = firstRetry;
            connector.lastRefusal.clear();
        }
}

void MessageNode::State::refused(const PeerConnection& connection, const std::string& reason)
{
    {
        const std::lock_guard lock(peersMutex);
        lastRefusal = reason;
    }
    for (Connector& connector : connectors)
        if (connector.name == connection.dialled() && std::exchange(connector.lastRefusal, reason) != reason)
            LOG_WARNING("Node %s: no connection to %s: %s", options.name.c_str(), connector.name.c_str(),
                        reason.c_str());
}

void MessageNode::State::left(const std::shared_ptr<PeerConnection>& connection)
{
    std::erase(connections, connection);
    const bool wasPeer = connection->id() >= 0 && peer(connection->id()) == connection;
    if (wasPeer) {
        const std::lock_guard lock(peersMutex);
        peers.erase(connection->id());
    }
    for (Connector& connector : connectors)
        if (connector.connection == connection)
            connector.connection.reset();
    if (stopping)
        return;
    if (wasPeer && !connection->dialled().empty())
        LOG_INFO("Node %s: connection to %s (node %d) lost", options.name.c_str(), connection->name().c_str(),
                 connection->id());
    dialMissing();
}

bool MessageNode::State::deliver(const std::shared_ptr<RawMessage>& message)
{
    const std::lock_guard lock(handlerMutex);
    if (!handler || stopping)
        return false;
    handler(message);
    return true;
}

void MessageNode::State::resumeAll()
{
    for (std::size_t i = 0; i < connections.size();) {
        const auto connection = connections[i];
        connection->resume();
        if (i < connections.size() && connections[i] == connection) // it leaves when it fails
            ++i;
    }
}

void MessageNode::State::beginStop()
{
    error_code ignored;
    listener.close(ignored);
    acceptTimer.cancel();
    for (Connector& connector : connectors)
        connector.timer.cancel();
    flushUntil = Clock::now() + flushTime;
    finishStop();
}

void MessageNode::State::finishStop()
{
    const bool unsent =
        std::ranges::any_of(connections, [](const auto& connection) { return connection->unsent() > 0; });
    if (unsent && Clock::now() < flushUntil) {
        flushTimer.expires_after(flushStep);
        return flushTimer.async_wait([this](error_code) { finishStop(); });
    }
    while (!connections.empty())
        connections.back()->close();
    io.stop();
}

std::shared_ptr<PeerConnection> MessageNode::State::peer(std::int32_t id) const
{
    const std::lock_guard lock(peersMutex);
    const auto found = peers.find(id);
    return found == peers.end() ? nullptr : found->second;
}

MessageNode::MessageNode(Options options) : m_state(std::make_shared<State>(std::move(options))) {}

MessageNode::~MessageNode() { stop(); }

bool MessageNode::start()
{
    State& state = *m_state;
    if (state.options.listen && !state.listen())
        return false;
    for (const std::string& name : state.options.connectTo) {
        const std::string path = Wire::socketPath(state.options.directory, name);
        if (path.size() > Wire::maxSocketPath)
            LOG_ERROR("Node %s cannot connect to %s: the socket path has %zu characters, at most %zu are possible: %s",
                      state.options.name.c_str(), name.c_str(), path.size(), Wire::maxSocketPath, path.c_str());
        else
            state.connectors.emplace_back(state.io, name);
    }
    boost::asio::post(state.io, [&state] {
        for (Connector& connector : state.connectors)
            state.dial(connector);
    });
    state.thread = std::thread([&state] { state.run(); });
    return true;
}

void MessageNode::awaitGreetings(std::chrono::milliseconds patience)
{
    State& state = *m_state;
    const auto deadline = Clock::now() + patience;
    const auto isWaiting = [&state] {
        std::promise<bool> answer; // from the thread that owns the connectors
        boost::asio::post(state.io, [&] {
            answer.set_value(std::ranges::any_of(state.connectors, [](const Connector& connector) {
                return connector.connection && connector.connection->id() < 0;
            }));
        });
        return answer.get_future().get();
    };
    while (isWaiting() && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void MessageNode::setHandler(Handler handler)
{
    State& state = *m_state;
    {
        const std::lock_guard lock(state.handlerMutex);
        state.handler = std::move(handler);
    }
    boost::asio::post(state.io, [&state] { state.resumeAll(); });
}

void MessageNode::stop()
{
    State& state = *m_state;
    if (!state.thread.joinable())
        return;
    state.stopping = true;
    boost::asio::post(state.io, [&state] { state.beginStop(); });
    state.thread.join();
    state.socket.close();
}

bool MessageNode::send(std::int32_t receiver, const Messages::Message& message)
{
    if (m_state->stopping)
        return false;
    const auto peer = m_state->peer(receiver);
    if (!peer)
        return false;
    const Bytes body = message.serialize();
    if (body.size() > Wire::maxFrameSize - Wire::headerSize) {
        LOG_ERROR("Node %s: message 0x%04x to node %d is too large: %zu bytes, a frame takes %zu",
                  m_state->options.name.c_str(), message.messageId(), receiver, body.size(),
                  Wire::maxFrameSize - Wire::headerSize);
        return false;
    }
    return peer->send(message.messageId(), body);
}

std::string MessageNode::peerName(std::int32_t node) const
{
    const auto peer = m_state->peer(node);
    return peer ? peer->name() : std::string();
}

std::vector<PeerInfo> MessageNode::peers() const
{
    std::vector<std::shared_ptr<PeerConnection>> connected;
    {
        const std::lock_guard lock(m_state->peersMutex);
        for (const auto& [id, connection] : m_state->peers)
            connected.push_back(connection);
    }
    // Without the lock: a connection may be busy sending.
    std::vector<PeerInfo> infos;
    infos.reserve(connected.size());
    for (const auto& connection : connected)
        infos.push_back(connection->info());
    std::ranges::sort(infos, {}, &PeerInfo::node);
    return infos;
}

std::string MessageNode::lastRefusal() const
{
    const std::lock_guard lock(m_state->peersMutex);
    return m_state->lastRefusal;
}

} // namespace TAMO::Framework
