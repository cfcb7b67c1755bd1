// What comes over a connection: an input is written to the socket of a node, and the messages handed on are
// compared with the frames that it holds.

#include "tests/fuzz/Target.h"

#include "platform/host/Frame.h"
#include "platform/host/MessageNode.h"

#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using namespace Fuzz;
using namespace TAMO::Wire;
using TAMO::Framework::MessageNode;

namespace {

constexpr std::int32_t ours = 100;
constexpr std::size_t maxGreeting = 1024;

Input frame(std::uint32_t id, const Bytes& body, std::uint32_t sequence, std::int32_t receiver = 0)
{
    const auto header = encodeHeader({static_cast<std::uint32_t>(body.size()), id, ours, receiver, sequence});
    return Input(header.begin(), header.end()).append(body.begin(), body.end());
}

Input greeting() { return frame(Hello::id, Hello(ours, "fuzz").serialize(), 0, -1); }

/// The node under test, which keeps what it is handed.
class Listener {
public:
    Listener() : m_node({.directory = m_file.directory(), .name = "db", .id = 0, .listen = true, .connectTo = {}})
    {
        m_node.setHandler([this](const std::shared_ptr<RawMessage>& message) {
            const std::lock_guard lock(m_mutex);
            const auto header = encodeHeader({static_cast<std::uint32_t>(message->body.size()), message->id,
                                              message->sender, message->receiver, message->sequence});
            m_handed.append(header.begin(), header.end()).append(message->body.begin(), message->body.end());
        });
        require(m_node.start(), "the node listens");
    }
    ~Listener() { m_node.stop(); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Connects, writes, and reads to the end of the connection.
    Input exchange(const Input& written) const
    {
        const int peer = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        socketPath(m_file.directory(), "db").copy(address.sun_path, sizeof address.sun_path - 1);
        require(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "the node accepts");
        static_cast<void>(send(peer, written.data(), written.size(), MSG_NOSIGNAL)); // it may have hung up already
        shutdown(peer, SHUT_WR);
        Input answer;
        char block[4096];
        for (ssize_t got; (got = read(peer, block, sizeof block)) > 0;)
            answer.append(block, static_cast<std::size_t>(got));
        close(peer);
        return answer;
    }
    Input takeHanded()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_handed, {});
    }

private:
    InputFile m_file; // its directory holds the socket
    std::mutex m_mutex;
    Input m_handed;
    MessageNode m_node; // last: its thread ends first
};
std::unique_ptr<Listener> listener;

FrameHeader headerAt(const Input& input, std::size_t at)
{
    return decodeHeader(reinterpret_cast<const std::uint8_t*>(input.data()) + at);
}

/// The whole frames behind the greeting, up to the first that is none for this connection.
Input goodFrames(const Input& input)
{
    const FrameHeader hello = headerAt(input, 0);
    const std::size_t begin = headerSize + hello.length;
    std::size_t end = begin;
    while (input.size() - end >= headerSize) {
        const FrameHeader header = headerAt(input, end);
        if (header.length > maxFrameSize - headerSize || input.size() - end - headerSize < header.length ||
            header.id == Hello::id || header.id == Refused::id || header.sender != hello.sender || header.receiver != 0)
            break;
        end += headerSize + header.length;
        reached("message");
    }
    return input.substr(begin, end - begin);
}

} // namespace

std::map<std::string, Input> Fuzz::seeds()
{
    const Input hello = greeting();
    Input longHeader = frame(0x1009, {}, 1);
    longHeader.replace(0, 4, "\xFF\xFF\xFF\xFF");
    Bytes longGreeting = Hello(ours, std::string(1500, 'n')).serialize();
    return {{"greeting", hello},
            {"messages", hello + frame(0x1009, {1, 2, 3}, 1) + frame(0x1007, Bytes(300, 7), 2) + frame(0x3000, {}, 3)},
            {"many", hello +
                         [] {
                             Input all;
                             for (std::uint32_t i = 1; i < 60; ++i)
                                 all += frame(0x100D, {0x91, 1}, i);
                             return all;
                         }()},
            {"second_greeting", hello + frame(0x1009, {1}, 1) + hello + frame(0x1009, {1}, 2)},
            {"other_receiver", hello + frame(0x1009, {1}, 1) + frame(0x1009, {1}, 2, 3)},
            {"half_header", hello + frame(0x1009, {1}, 1).substr(0, 9)},
            {"half_body", hello + frame(0x1009, Bytes(100, 1), 1).substr(0, 60)},
            {"claims_4_gib", hello + longHeader},
            {"no_greeting", frame(0x1009, {1}, 0)},
            {"long_greeting", frame(Hello::id, longGreeting, 0, -1)},
            {"refusal", frame(Refused::id, Refused("no").serialize(), 0, -1)},
            {"nothing", ""}};
}

Grammar Fuzz::grammar()
{
    return {.form = Grammar::Form::bytes,
            .separator = {},
            .words = {greeting(), frame(0x1009, {1, 2}, 1), frame(0x1009, {}, 7)}};
}

std::vector<Minimum> Fuzz::minimums()
{
    return {{"accepted", 4, 1000}, {"refused", 2, 500}, {"ended", 1, 500}, {"message", 60, 3000}};
}

void Fuzz::finish() { listener.reset(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (!listener)
        listener = std::make_unique<Listener>();
    const SameDescriptors descriptors;
    const Input input(reinterpret_cast<const char*>(data), size);
    const Input answer = listener->exchange(input);
    const Input handed = listener->takeHanded();
    const bool whole = answer.size() >= headerSize && answer.size() == headerSize + headerAt(answer, 0).length;
    require(answer.empty() || whole, "the answer is one frame");
    const std::uint32_t id = answer.empty() ? 0 : headerAt(answer, 0).id;
    require(answer.empty() || id == Hello::id || id == Refused::id, "the answer is a greeting or a refusal");
    reached(id == Hello::id ? "accepted" : id == Refused::id ? "refused" : "ended");
    require(id != Hello::id || (input.size() >= headerSize && headerAt(input, 0).length <= maxGreeting - headerSize),
            "no long greeting is accepted");
    require(handed == (id == Hello::id ? goodFrames(input) : Input()), "the good frames, and no others, are handed on");

    const Input good = greeting() + frame(0x1009, {1}, 1);
    require(listener->exchange(good).size() > headerSize && listener->takeHanded() == good.substr(greeting().size()),
            "the node goes on serving");
    return 0;
}
