// The client's end of the wire: frames over a local socket, one request at a time. The service's end
// is the framework's message node; this one needs no thread, so that a command-line client starts
// and ends in a moment.

#include "tools/client/ServiceClient.h"

#include "platform/host/Frame.h"
#include "platform/messages/Notifications.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace TAMO;

namespace {

constexpr std::int32_t unknownNode = -1;

/// How many ids from firstFreeNode on are tried before giving up.
constexpr std::int32_t freeNodesTried = 1000;

constexpr std::size_t readSize = 64 * 1024;

bool saysTaken(const ClientError& error)
{
    return error.kind == Trouble::refused && std::string_view(error.what()).find("is taken") != std::string_view::npos;
}

} // namespace

ServiceClient::ServiceClient(Options options) : m_options(std::move(options))
{
    m_path = Wire::socketPath(m_options.directory, "db");
    if (m_path.size() > Wire::maxSocketPath)
        fail(Trouble::noService,
             "the path is longer than the " + std::to_string(Wire::maxSocketPath) + " characters of a socket address");
    const Deadline deadline = Clock::now() + m_options.timeout;
    try {
        if (m_options.node)
            connectAs(*m_options.node, deadline);
        else
            connectFirstFree(deadline);
    } catch (...) {
        close(); // no destructor runs for an object that was not constructed
        throw;
    }
}

ServiceClient::~ServiceClient() { close(); }

void ServiceClient::connectFirstFree(Deadline deadline)
{
    for (std::int32_t tried = 0;; ++tried) {
        try {
            return connectAs(firstFreeNode + tried, deadline);
        } catch (const ClientError& error) {
            if (!saysTaken(error) || tried + 1 == freeNodesTried)
                throw;
        }
    }
}

void ServiceClient::connectAs(std::int32_t node, Deadline deadline)
{
    close();
    m_node = node;
    openSocket(deadline);
    greet(deadline);
}

void ServiceClient::openSocket(Deadline deadline)
{
    m_socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket < 0)
        fail(Trouble::noService, std::string("no socket: ") + std::strerror(errno));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_path.data(), m_path.size());
    while (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        if (error == EINTR)
            continue;
        if (error != EAGAIN)
            fail(Trouble::noService, std::string("no service: ") + std::strerror(error));
        // The service lives but does not accept: its queue of new connections is full.
        if (Clock::now() >= deadline)
            fail(Trouble::timeout, "the service does not accept connections");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void ServiceClient::greet(Deadline deadline)
{
    m_service = unknownNode;
    send(Wire::Hello(m_node, m_options.name), deadline);
    const RawMessage raw = receive(deadline);
    if (raw.id == Wire::Refused::id) {
        Wire::Refused refused;
        const bool readable = refused.deserialize(&raw);
        fail(Trouble::refused, readable ? refused.reason : "refused without a readable reason");
    }
    Wire::Hello hello;
    if (raw.id != Wire::Hello::id || !hello.deserialize(&raw) || hello.magic != Wire::Hello().magic)
        fail(Trouble::protocol, "what listens there does not speak this protocol");
    if (hello.version != static_cast<std::int32_t>(Wire::protocolVersion))
        fail(Trouble::protocol, "the service speaks protocol version " + std::to_string(hello.version) +
                                    ", this client version " + std::to_string(Wire::protocolVersion));
    m_service = hello.node;
}

void ServiceClient::sendRequest(Messages::TransactionMessage& message, Deadline deadline)
{
    if (m_socket < 0)
        fail(Trouble::noService, "not connected any more");
    message.transId = m_transaction ? *m_transaction : drawTransactionId();
    send(message, deadline);
}

void ServiceClient::post(Messages::TransactionMessage& message)
{
    sendRequest(message, Clock::now() + m_options.timeout);
}

void ServiceClient::send(const Messages::Message& message)
{
    if (m_socket < 0)
        fail(Trouble::noService, "not connected any more");
    send(message, Clock::now() + m_options.timeout);
}

void ServiceClient::exchange(Messages::TransactionMessage& message, Messages::TransactionMessage& answer,
                             std::chrono::milliseconds extra)
{
    const Deadline deadline = Clock::now() + m_options.timeout + extra;
    sendRequest(message, deadline);
    for (;;) {
        RawMessage raw = receive(deadline);
        if (raw.id == Messages::TAMO_DBNotification::id) {
            m_notifications.push_back(std::move(raw));
            continue;
        }
        if (raw.id != answer.messageId())
            continue; // the late answer to another request
        const bool readable = answer.deserialize(&raw);
        if (readable && answer.transId == message.transId)
            return;
        if (!readable && (!answer.hasTransId() || answer.transId == message.transId))
            fail(Trouble::protocol, "an answer that cannot be read");
    }
}

std::optional<RawMessage> ServiceClient::nextNotification(Clock::time_point until, int interrupt)
{
    if (!m_notifications.empty()) {
        RawMessage next = std::move(m_notifications.front());
        m_notifications.pop_front();
        return next;
    }
    if (m_socket < 0)
        fail(Trouble::noService, "not connected any more");
    // What follows a gap waits until the gap is told.
    for (RawMessage raw; m_missed == 0;) {
        if (!takeFrame(raw)) {
            if (!waitFor(POLLIN, until, interrupt))
                return std::nullopt;
            readMore();
            continue;
        }
        if (raw.id != Messages::TAMO_DBNotification::id)
            continue; // the late answer to a request that was given up
        if (m_missed == 0)
            return raw;
        m_notifications.push_back(std::move(raw));
    }
    throw ClientError(Trouble::missed, m_path + ": missing messages: " + std::to_string(std::exchange(m_missed, 0)) +
                                           "; the service dropped them because they were not "
                                           "read in time");
}

std::int32_t ServiceClient::drawTransactionId()
{
    // Negative ids have a meaning of their own to the service.
    std::uniform_int_distribution<std::int32_t> ids(1, std::numeric_limits<std::int32_t>::max());
    return ids(m_random);
}

void ServiceClient::send(const Messages::Message& message, Deadline deadline)
{
    const Bytes body = message.serialize();
    if (body.size() > Wire::maxFrameSize - Wire::headerSize)
        throw ClientError(Trouble::tooLarge, "the request takes " + std::to_string(body.size()) +
                                                 " bytes, more than a frame of " + std::to_string(Wire::maxFrameSize) +
                                                 " holds");
    const auto header = Wire::encodeHeader(
        {static_cast<std::uint32_t>(body.size()), message.messageId(), m_node, m_service, m_nextOut++});
    Bytes frame(header.begin(), header.end());
    frame.insert(frame.end(), body.begin(), body.end());
    for (std::size_t sent = 0; sent < frame.size();) {
        const ssize_t step = ::send(m_socket, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (step >= 0)
            sent += static_cast<std::size_t>(step);
        else if (errno == EAGAIN) {
            if (!waitFor(POLLOUT, deadline)) {
                close(); // half a frame is out; what follows could not be understood
                failTimeout();
            }
        } else if (errno != EINTR)
            fail(Trouble::noService, std::string("connection lost: ") + std::strerror(errno));
    }
}

RawMessage ServiceClient::receive(Deadline deadline)
{
    RawMessage message;
    while (!takeFrame(message)) {
        if (!waitFor(POLLIN, deadline))
            failTimeout();
        readMore();
    }
    return message;
}

bool ServiceClient::takeFrame(RawMessage& message)
{
    const std::size_t held = m_filled - m_used;
    if (held < Wire::headerSize)
        return false;
    const Wire::FrameHeader header = Wire::decodeHeader(m_input.data() + m_used);
    if (header.length > Wire::maxFrameSize - Wire::headerSize)
        fail(Trouble::protocol, "a frame of " + std::to_string(header.length) + " bytes");
    if (held < Wire::headerSize + header.length)
        return false;
    const std::uint32_t skipped = header.sequence - m_nextIn; // the numbers wrap around
    if (skipped > std::numeric_limits<std::uint32_t>::max() / 2)
        fail(Trouble::protocol,
             "frame " + std::to_string(header.sequence) + " came where " + std::to_string(m_nextIn) + " was due");
    m_missed += skipped;
    m_nextIn = header.sequence + 1;
    message.id = header.id;
    message.sender = header.sender;
    message.receiver = header.receiver;
    message.sequence = header.sequence;
    const auto body = m_input.begin() + static_cast<std::ptrdiff_t>(m_used + Wire::headerSize);
    message.body.assign(body, body + header.length);
    m_used += Wire::headerSize + header.length;
    return true;
}

void ServiceClient::readMore()
{
    if (m_used > 0)
        std::memmove(m_input.data(), m_input.data() + m_used, m_filled - m_used);
    m_filled -= std::exchange(m_used, 0);
    if (m_input.size() < m_filled + readSize)
        m_input.resize(m_filled + readSize);
    const ssize_t step = ::recv(m_socket, m_input.data() + m_filled, m_input.size() - m_filled, 0);
    if (step > 0)
        m_filled += static_cast<std::size_t>(step);
    else if (step == 0)
        fail(Trouble::noService, m_service == unknownNode ? "the service closed the connection without a greeting"
                                                          : "connection lost: the service closed it");
    else if (errno != EAGAIN && errno != EINTR)
        fail(Trouble::noService, std::string("connection lost: ") + std::strerror(errno));
}

bool ServiceClient::waitFor(short events, Deadline deadline, int interrupt)
{
    for (;;) {
        // Rounded up: a wait that ends a moment early would spin.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd polls[] = {{m_socket, events, 0}, {interrupt, POLLIN, 0}};
        if (::poll(polls, 2, static_cast<int>(std::min<std::int64_t>(left.count(), 60000))) > 0)
            return polls[1].revents == 0;
    }
}

void ServiceClient::failTimeout()
{
    std::string why = m_path + ": no answer within " + std::to_string(m_options.timeout.count()) + " ms";
    if (m_missed > 0)
        why += "; the service has dropped " + std::to_string(m_missed) + " messages to us, perhaps the answer too";
    throw ClientError(Trouble::timeout, why);
}

void ServiceClient::close()
{
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
    m_nextOut = m_nextIn = m_missed = 0;
    m_used = m_filled = 0;
}

void ServiceClient::fail(Trouble kind, const std::string& why)
{
    close();
    throw ClientError(kind, m_path + ": " + why);
}
