#pragma once

#include "platform/framework/PeerInfo.h"
#include "platform/host/Frame.h"
#include "platform/host/NodeSocket.h"
#include "platform/host/PeerOutput.h"
#include "platform/host/ReceiveGate.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace boost::asio {
class io_context;
}

namespace TAMO::Framework {

class PeerConnection;

/// How a refusal is logged: a warning when it happens between well-behaved nodes, not at all when the
/// owner has a line of its own for it.
enum class RefusalLine { error, warning, none };

/// What a connection asks of the node it belongs to. All calls come on the I/O thread.
class PeerOwner {
public:
    /// Why a greeting is turned down; an empty reason welcomes it.
    struct Verdict {
        std::string reason;
        RefusalLine line = RefusalLine::error;
    };

    virtual ~PeerOwner() = default;
    virtual const std::string& nodeName() const = 0;
    virtual std::int32_t nodeId() const = 0;
    /// What all connections of the node share.
    virtual const std::shared_ptr<ReceiveGate>& gate() const = 0;
    virtual Verdict judge(const PeerConnection& connection, const Wire::Hello& hello) = 0;
    /// The greetings are exchanged: messages may be sent.
    virtual void joined(const std::shared_ptr<PeerConnection>& connection) = 0;
    /// A connection that we dialled does not come about: one of the sides refuses.
    virtual void refused(const PeerConnection& connection, const std::string& reason) = 0;
    virtual void left(const std::shared_ptr<PeerConnection>& connection) = 0;
    /// False when nobody takes messages now; resume() offers the message again.
    virtual bool deliver(const std::shared_ptr<RawMessage>& message) = 0;
};

/// One connection to another node, in either direction: greeting, frames in, frames out. Everything
/// but send() and info() belongs to the I/O thread. An exception (no memory) in what it does there by itself
/// ends the connection and leaves the node alone.
class PeerConnection : public std::enable_shared_from_this<PeerConnection> {
public:
    /// `dialled` is the name of the node we connected to, empty for a connection that was accepted.
    PeerConnection(boost::asio::io_context& io, PeerOwner& owner, Descriptor socket, gid_t group, std::string dialled);
    ~PeerConnection();

    void start();
    /// Reads on, after a handler was set or messages were handled.
    void resume();
    void close();
    /// Tells the other side why and closes.
    void refuse(const std::string& reason, RefusalLine line = RefusalLine::error);

    /// Any thread; see MessageNode::send.
    bool send(std::uint32_t messageId, const Bytes& body);
    /// Any thread, once the greetings are exchanged.
    PeerInfo info() const;

    /// -1 until the greetings are exchanged.
    std::int32_t id() const { return m_id; }
    const std::string& name() const { return m_name; }
    const std::string& dialled() const { return m_dialled; }
    std::size_t unsent() const { return m_output.waiting(); }

private:
    struct Io;

    template <class Work>
    void guarded(Work work);
    void begin();
    void receive();
    void received(std::size_t length);
    void takeFrames();
    std::string faultOf(const Wire::FrameHeader& header) const;
    void hold();
    void watchEnd();
    bool hand(const Wire::FrameHeader& header, const std::uint8_t* body);
    void greet(const Wire::FrameHeader& header, const std::uint8_t* body);
    std::string faultOf(const Wire::FrameHeader& header, const Wire::Hello& hello, bool whole) const;
    void sendGreeting(std::int32_t receiver);
    void attendOutput();
    void watchFullQueue();
    void lost(const std::string& why);
    void fault(const std::string& what);
    std::string text() const;

    const std::unique_ptr<Io> m_io;
    PeerOwner& m_owner;
    const PeerProcess m_process;
    const std::string m_dialled;
    PeerOutput m_output;
    std::atomic<std::uint64_t> m_received{0}; ///< messages handed on
    std::atomic<PeerOutput::Clock::time_point> m_lastRead{PeerOutput::Clock::now()};
    const std::shared_ptr<ReceiveGate> m_gate;
    std::int32_t m_id = -1;
    std::string m_name;
    Bytes m_buffer; ///< received bytes stand from m_begin to m_end
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    bool m_held = false; ///< a whole frame waits because it could not be handed on
    bool m_watchingEnd = false;
    bool m_writing = false;
    bool m_watching = false;
    bool m_closed = false;
};

} // namespace TAMO::Framework
