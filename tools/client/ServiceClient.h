#pragma once

#include "platform/messages/Message.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>

/// What went wrong between a client and the service.
enum class Trouble {
    noService, ///< no socket, nobody listening, no permission, or the connection was lost
    refused,   ///< the service said no
    timeout,   ///< no answer in time
    protocol,  ///< what came is not what the protocol allows; the connection is closed
    tooLarge,  ///< the request does not fit in a frame; nothing was sent
    missed,    ///< the service dropped messages to us because we did not read them in time; the connection lives
};

class ClientError : public std::runtime_error {
public:
    ClientError(Trouble trouble, const std::string& what) : std::runtime_error(what), kind(trouble) {}
    const Trouble kind;
};

/// A blocking connection to the database service. Not for use by several threads at once.
///
/// Every wait ends at a deadline. After a timeout the connection can go on: an answer that comes
/// late belongs to no request any more and is dropped.
class ServiceClient {
public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        std::string directory;                    ///< of the sockets; the service's is db.sock
        std::string name = "client";              ///< what the service's operator sees
        std::optional<std::int32_t> node;         ///< our node id; none takes the first free from firstFreeNode
        std::chrono::milliseconds timeout{10000}; ///< for connecting, and for each request
    };
    static constexpr std::int32_t firstFreeNode = 100;

    /// Connects and greets. Throws a ClientError when there is no connection to be had.
    explicit ServiceClient(Options options);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    std::int32_t node() const { return m_node; }

    /// Sends the request under the transaction id that was set, else one drawn at random, and waits
    /// for its answer, the one with the answer's number and that transaction id; `extra` is added to
    /// the timeout. Throws a ClientError when none comes.
    template <class Answer>
    Answer request(TAMO::Messages::TransactionMessage& message, std::chrono::milliseconds extra = {})
    {
        Answer answer;
        exchange(message, answer, extra);
        return answer;
    }

    /// Sends a request that gets no answer. One that does tells that this one has been handled: the
    /// service handles what we send in order.
    void post(TAMO::Messages::TransactionMessage& message);
    /// The same for a message that is no request: a report of what has happened elsewhere on the node.
    void send(const TAMO::Messages::Message& message);

    /// The transaction id of the requests from now on; none draws one for each again. With an id that
    /// stays the same, the late answer to a request that timed out would be taken for that of the next
    /// one of its kind: after a timeout there is nothing left but to abort.
    void setTransaction(std::optional<std::int32_t> id) { m_transaction = id; }
    std::optional<std::int32_t> transaction() const { return m_transaction; }
    /// From 1 on; one that is in use already is next to impossible.
    std::int32_t drawTransactionId();

    /// The next notification in the order in which they were sent. None at `until`, and as soon as the
    /// descriptor `interrupt` is readable (-1: none). Throws a ClientError when the connection is lost,
    /// and (missed), once, when the numbers of the frames tell that the service has dropped messages;
    /// what came before them has been given then.
    std::optional<RawMessage> nextNotification(Clock::time_point until, int interrupt = -1);

    /// Notifications that arrived while something else was awaited, oldest first.
    std::deque<RawMessage>& notifications() { return m_notifications; }

private:
    using Deadline = Clock::time_point;

    void sendRequest(TAMO::Messages::TransactionMessage& message, Deadline deadline);
    void exchange(TAMO::Messages::TransactionMessage& message, TAMO::Messages::TransactionMessage& answer,
                  std::chrono::milliseconds extra);

    void connectAs(std::int32_t node, Deadline deadline);
    void connectFirstFree(Deadline deadline);
    void openSocket(Deadline deadline);
    void greet(Deadline deadline);
    void send(const TAMO::Messages::Message& message, Deadline deadline);
    RawMessage receive(Deadline deadline);
    bool takeFrame(RawMessage& message);
    void readMore();
    /// False at the deadline, and when `interrupt` is readable.
    bool waitFor(short events, Deadline deadline, int interrupt = -1);
    [[noreturn]] void failTimeout();
    void close();
    [[noreturn]] void fail(Trouble kind, const std::string& why);

    Options m_options;
    std::string m_path;
    int m_socket = -1;
    std::int32_t m_node = -1;
    std::int32_t m_service = -1; ///< the service's node id, from its greeting
    std::uint32_t m_nextOut = 0;
    std::uint32_t m_nextIn = 0;
    Bytes m_input;            ///< a buffer that keeps its size; received bytes end at m_filled,
    std::size_t m_filled = 0; ///< and those before m_used are taken
    std::size_t m_used = 0;
    std::deque<RawMessage> m_notifications;
    std::uint32_t m_missed = 0; ///< frames the service has dropped, as yet unreported
    std::optional<std::int32_t> m_transaction;
    std::mt19937 m_random{std::random_device{}()};
};
