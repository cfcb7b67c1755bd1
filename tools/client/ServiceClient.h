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

    /// Sends the request under a transaction id drawn at random and waits for its answer, the one
    /// with the answer's number and that transaction id. Throws a ClientError when none comes.
    template <class Answer>
    Answer request(TAMO::Messages::TransactionMessage& message)
    {
        Answer answer;
        exchange(message, answer);
        return answer;
    }

    /// Notifications that arrived while something else was awaited, oldest first.
    std::deque<RawMessage>& notifications() { return m_notifications; }

private:
    using Clock = std::chrono::steady_clock;
    using Deadline = Clock::time_point;

    void exchange(TAMO::Messages::TransactionMessage& message, TAMO::Messages::TransactionMessage& answer);
    std::int32_t drawTransactionId();

    void connectAs(std::int32_t node, Deadline deadline);
    void connectFirstFree(Deadline deadline);
    void openSocket(Deadline deadline);
    void greet(Deadline deadline);
    void send(const TAMO::Messages::Message& message, Deadline deadline);
    RawMessage receive(Deadline deadline);
    bool takeFrame(RawMessage& message);
    void readMore(Deadline deadline);
    void waitFor(short events, Deadline deadline);
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
    std::mt19937 m_random{std::random_device{}()};
};
