// One connection between two nodes. Reading, the greeting and the judging of frames happen here, on
// the node's I/O thread; sending goes through PeerOutput on the thread that sends. Which peers there
// are, and who listens or connects, is MessageNode.cpp's business.

#include "platform/host/PeerConnection.h"

#include "platform/host/Quietly.h"
#include "platform/middleware/Log.h"

#include <utility> // before Asio 1.74, which uses std::exchange without it

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <poll.h>

namespace TAMO::Framework {

namespace {

using boost::system::error_code;
using Wire::FrameHeader;
using Wire::headerSize;
using Wire::Hello;
using Wire::maxFrameSize;
using Wire::Refused;

constexpr std::chrono::seconds greetingDeadline{5};
constexpr std::size_t maxGreeting = 1024;
constexpr std::size_t longestName = 64;
constexpr std::size_t firstBufferSize = 16 * 1024;

/// What a waiting message weighs besides its body.
constexpr std::size_t messageOverhead = 256;

/// How long a full queue may stand still. TAMO_PEER_STUCK_SECONDS shortens it for tests.
PeerOutput::Clock::duration stuckLimit()
{
    const char* text = std::getenv("TAMO_PEER_STUCK_SECONDS");
    const double seconds = text ? std::strtod(text, nullptr) : 0;
    return std::chrono::milliseconds(seconds > 0 && seconds < 3600 ? static_cast<int>(seconds * 1000) : 10'000);
}

/// True when the other side has closed altogether, not merely stopped sending.
bool hasHungUp(int fd)
{
    pollfd state{.fd = fd, .events = 0, .revents = 0};
    return ::poll(&state, 1, 0) == 1;
}

} // namespace

struct PeerConnection::Io {
    explicit Io(boost::asio::io_context& ofContext)
        : context(ofContext), socket(ofContext), deadline(ofContext), stuck(ofContext)
    {}
    boost::asio::io_context& context;
    boost::asio::local::stream_protocol::socket socket;
    boost::asio::steady_timer deadline;
    boost::asio::steady_timer stuck;
};

PeerConnection::PeerConnection(boost::asio::io_context& io, PeerOwner& owner, Descriptor socket, gid_t group,
                               std::string dialled)
    : m_io(std::make_unique<Io>(io)),
      m_owner(owner),
      m_process(peerProcess(socket.get(), group)),
      m_dialled(std::move(dialled)),
      m_output(socket.get()),
      m_gate(std::make_shared<ReceiveGate>(
          ReceiveGate::ofPeer,
          [this] {
              boost::asio::post(m_io->context, [weak = weak_from_this()] {
                  if (const auto self = weak.lock())
                      self->resume();
              });
          },
          owner.gate())),
      m_buffer(firstBufferSize)
{
    m_io->socket.assign(boost::asio::local::stream_protocol(), socket.get());
    socket.release(); // not before: an assignment that throws leaves it to us
}

PeerConnection::~PeerConnection() { m_gate->close(); }

/// Runs the work of a completion. What it throws costs this connection, not the node.
template <class Work>
void PeerConnection::guarded(Work work)
{
    try {
        if (!m_closed)
            work();
    } catch (const std::exception& error) {
        if (m_closed)
            throw; // it hit the owner on our way out
        fault(error.what());
    }
}

void PeerConnection::start()
{
    guarded([this] { begin(); });
}

void PeerConnection::begin()
{
    if (!m_process.permitted)
        return refuse("user " + std::to_string(m_process.uid) + " may not use this node");
    m_io->deadline.expires_after(greetingDeadline);
    m_io->deadline.async_wait([self = shared_from_this()](error_code error) {
        if (!error && self->m_id < 0)
            self->guarded(
                [&] { self->refuse("no greeting within " + std::to_string(greetingDeadline.count()) + " s"); });
    });
    if (!m_dialled.empty())
        sendGreeting(-1);
    receive();
}

void PeerConnection::resume()
{
    if (std::exchange(m_held, false))
        guarded([this] { takeFrames(); });
}

void PeerConnection::close()
{
    if (std::exchange(m_closed, true))
        return;
    const auto self = shared_from_this(); // the owner lets go of us
    m_output.close();
    m_gate->close();
    m_io->deadline.cancel();
    m_io->stuck.cancel();
    error_code ignored;
    m_io->socket.close(ignored);
    m_owner.left(self);
}

void PeerConnection::refuse(const std::string& reason, RefusalLine line)
{
    if (!m_dialled.empty())
        m_owner.refused(*this, reason);
    else if (line == RefusalLine::warning)
        LOG_WARNING("Node %s: refused %s: %s", m_owner.nodeName().c_str(), text().c_str(), reason.c_str());
    else if (line == RefusalLine::error)
        LOG_ERROR("Node %s: refused %s: %s", m_owner.nodeName().c_str(), text().c_str(), reason.c_str());
    m_output.send({.id = Refused::id, .sender = m_owner.nodeId(), .receiver = -1}, Refused(reason).serialize());
    close();
}

bool PeerConnection::send(std::uint32_t messageId, const Bytes& body)
{
    const auto sent = m_output.send({.id = messageId, .sender = m_owner.nodeId(), .receiver = m_id}, body);
    if (!sent.attend)
        return sent.accepted;
    try {
        boost::asio::post(m_io->context, [self = shared_from_this()] { self->guarded([&] { self->attendOutput(); }); });
    } catch (const std::exception&) {
        m_output.abandon(); // nobody would ever send what waits
        return false;
    }
    return sent.accepted;
}

PeerInfo PeerConnection::info() const
{
    const PeerOutput::Counts out = m_output.counts();
    const auto lastByte = std::max(out.lastWrite, m_lastRead.load(std::memory_order_relaxed));
    const auto idle = std::chrono::duration_cast<std::chrono::milliseconds>(PeerOutput::Clock::now() - lastByte);
    return {.node = m_id,
            .name = m_name,
            .pid = m_process.pid,
            .uid = m_process.uid,
            .queuedBytes = out.waiting,
            .unhandled = m_gate->unhandled(),
            .sent = out.sent - 1, // the greeting was
            .dropped = out.dropped,
            .received = m_received.load(std::memory_order_relaxed),
            .idle = idle};
}

void PeerConnection::sendGreeting(std::int32_t receiver)
{
    // The socket is fresh: the few bytes fit.
    m_output.send({.id = Hello::id, .sender = m_owner.nodeId(), .receiver = receiver},
                  Hello(m_owner.nodeId(), m_owner.nodeName()).serialize());
}

/// Reads into what is free behind the received bytes. The buffer grows with what really arrives, not
/// with what a header claims.
void PeerConnection::receive()
{
    if (m_begin == m_end) {
        m_begin = m_end = 0;
        if (m_buffer.size() > firstBufferSize)
            m_buffer = Bytes(firstBufferSize);
    } else if (m_end == m_buffer.size() && m_begin > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= std::exchange(m_begin, 0);
    } else if (m_end == m_buffer.size()) {
        m_buffer.resize(std::min(2 * m_buffer.size(), maxFrameSize));
    }
    m_io->socket.async_read_some(boost::asio::buffer(m_buffer.data() + m_end, m_buffer.size() - m_end),
                                 [self = shared_from_this()](error_code error, std::size_t length) {
                                     self->guarded(
                                         [&] { error ? self->lost(error.message()) : self->received(length); });
                                 });
}

void PeerConnection::received(std::size_t length)
{
    m_end += length;
    m_lastRead.store(PeerOutput::Clock::now(), std::memory_order_relaxed);
    takeFrames();
}

/// Takes every whole frame that has arrived, then reads on; or stops at the first one that nobody
/// has room for, without reading on.
void PeerConnection::takeFrames()
{
    while (!m_closed && m_end - m_begin >= headerSize) {
        const std::uint8_t* const frame = m_buffer.data() + m_begin;
        const FrameHeader header = Wire::decodeHeader(frame);
        if (const std::string what = faultOf(header); !what.empty())
            return fault(what);
        if (m_end - m_begin < headerSize + header.length)
            break;
        if (m_id < 0)
            greet(header, frame + headerSize);
        else if (!hand(header, frame + headerSize))
            return hold();
        m_begin += headerSize + header.length;
    }
    if (!m_closed)
        receive();
}

/// Stops reading until resume().
void PeerConnection::hold()
{
    m_held = true;
    if (!m_watchingEnd)
        watchEnd();
}

/// Nothing is read meanwhile, so the end of the connection would not be noticed: what its peer left
/// behind would be worked off for nobody, and its node id would stay taken.
void PeerConnection::watchEnd()
{
    m_io->socket.async_wait(boost::asio::socket_base::wait_error, [self = shared_from_this()](error_code error) {
        self->m_watchingEnd = false;
        if (!error && self->m_held && hasHungUp(self->m_io->socket.native_handle()))
            self->guarded([&] { self->lost("closed while its messages waited"); });
    });
    m_watchingEnd = true;
}

/// What is wrong with a header, judged before its body is waited for.
std::string PeerConnection::faultOf(const FrameHeader& header) const
{
    const std::size_t limit = m_id < 0 ? maxGreeting : maxFrameSize;
    if (header.length > limit - headerSize)
        return "a frame that claims " + std::to_string(header.length) + " bytes, at most " +
               std::to_string(limit - headerSize) + " are possible";
    if (m_id < 0)
        return {};
    if (header.id == Hello::id || header.id == Refused::id)
        return "a second greeting";
    if (header.sender != m_id)
        return "a frame that claims to come from node " + std::to_string(header.sender);
    if (header.receiver != m_owner.nodeId())
        return "a frame for node " + std::to_string(header.receiver);
    return {};
}

bool PeerConnection::hand(const FrameHeader& header, const std::uint8_t* body)
{
    auto permit = m_gate->admit(header.length + messageOverhead);
    if (!permit)
        return false;
    const auto message =
        std::make_shared<RawMessage>(RawMessage{header.id, header.sender, header.receiver, header.sequence,
                                                Bytes(body, body + header.length), std::move(permit)});
    m_received.fetch_add(1, std::memory_order_relaxed); // before the receiver's thread can ask for it
    if (m_owner.deliver(message))
        return true;
    m_received.fetch_sub(1, std::memory_order_relaxed);
    return false;
}

void PeerConnection::greet(const FrameHeader& header, const std::uint8_t* body)
{
    const RawMessage raw{header.id, header.sender, header.receiver, header.sequence, Bytes(body, body + header.length),
                         nullptr};
    if (Refused refused; header.id == Refused::id && !m_dialled.empty() && refused.deserialize(&raw)) {
        m_owner.refused(*this, refused.reason);
        return close();
    }
    Hello hello;
    const bool whole = hello.deserialize(&raw);
    if (const std::string what = faultOf(header, hello, whole); !what.empty())
        return refuse(what);
    if (const auto verdict = m_owner.judge(*this, hello); !verdict.reason.empty())
        return refuse(verdict.reason, verdict.line);
    m_io->deadline.cancel();
    m_id = hello.node;
    m_name = hello.name;
    if (m_dialled.empty())
        sendGreeting(m_id);
    m_owner.joined(shared_from_this());
}

/// What is wrong with a greeting. The version comes first among its fields, so that one of a later
/// version, which may have more of them, is refused for its version.
std::string PeerConnection::faultOf(const FrameHeader& header, const Hello& hello, bool whole) const
{
    if (header.id != Hello::id || hello.magic != Hello().magic)
        return "a greeting was expected";
    if (hello.version != static_cast<std::int32_t>(Wire::protocolVersion))
        return "protocol version " + std::to_string(hello.version) + ", this node speaks version " +
               std::to_string(Wire::protocolVersion);
    const bool forUs = header.receiver == m_owner.nodeId() || (header.receiver == -1 && m_dialled.empty());
    const bool named = !hello.name.empty() && hello.name.size() <= longestName;
    if (!whole || header.sender != hello.node || !forUs || !named)
        return "a greeting that does not hold together";
    return {};
}

/// Follows up what a sender has left: bytes that wait, a queue that is full.
void PeerConnection::attendOutput()
{
    if (m_closed || !m_output.flush())
        return;
    if (!std::exchange(m_writing, true))
        m_io->socket.async_wait(boost::asio::socket_base::wait_write, [self = shared_from_this()](error_code error) {
            self->m_writing = false;
            if (!error)
                self->guarded([&] { self->attendOutput(); });
        });
    watchFullQueue();
}

/// Disconnects a peer whose queue is full and stays so; anybody who sends to it gets false meanwhile.
void PeerConnection::watchFullQueue()
{
    const auto since = m_output.fullSince();
    if (m_watching || since == PeerOutput::Clock::time_point{})
        return;
    m_watching = true;
    m_io->stuck.expires_at(since + stuckLimit());
    m_io->stuck.async_wait([self = shared_from_this()](error_code) {
        self->m_watching = false;
        self->guarded([&] {
            const auto stillSince = self->m_output.fullSince();
            if (stillSince == PeerOutput::Clock::time_point{} || PeerOutput::Clock::now() < stillSince + stuckLimit())
                return self->attendOutput();
            self->fault("it is stuck, " + std::to_string(self->m_output.waiting()) + " bytes wait for it");
        });
    });
}

void PeerConnection::lost(const std::string& why)
{
    if (m_begin != m_end && !m_held)
        return fault("it ended in the middle of a frame (" + why + ")");
    LOG_DEBUG("Node %s: %s is gone: %s", m_owner.nodeName().c_str(), text().c_str(), why.c_str());
    close();
}

void PeerConnection::fault(const std::string& what)
{
    quietly(
        [&] { LOG_ERROR("Node %s: disconnected %s: %s", m_owner.nodeName().c_str(), text().c_str(), what.c_str()); });
    close();
}

std::string PeerConnection::text() const
{
    const std::string process = "process " + std::to_string(m_process.pid);
    if (m_id >= 0)
        return m_name + " (node " + std::to_string(m_id) + ", " + process + ")";
    return m_dialled.empty() ? process : m_dialled + " (" + process + ")";
}

} // namespace TAMO::Framework
