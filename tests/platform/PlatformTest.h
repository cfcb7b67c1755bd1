#pragma once

#include "platform/host/Frame.h"
#include "platform/host/LogSink.h"
#include "platform/host/MessageNode.h"
#include "platform/messages/Requests.h"
#include "platform/middleware/mw_api.h"
#include "tests/support/LogLines.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

/// What the framework's tests share: a directory of their own, the log, nodes that keep what they
/// get, and a peer that can break every rule.

using namespace TAMO;
using namespace TAMO::Framework;

template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds patience = std::chrono::seconds(20))
{
    const auto until = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class PlatformTest : public testing::Test {
protected:
    PlatformTest()
    {
        char pattern[] = "/tmp/platform_XXXXXX";
        directory = mkdtemp(pattern);
    }
    ~PlatformTest() override { std::filesystem::remove_all(directory); }

    MessageNode::Options options(const std::string& name, std::int32_t id, std::vector<std::string> connectTo = {})
    {
        return {.directory = directory, .name = name, .id = id, .listen = true, .connectTo = std::move(connectTo)};
    }
    std::string path(const std::string& name) const { return Wire::socketPath(directory, name); }

    LogLines log;
    std::string directory;
};

/// A node that keeps what it gets.
class Station {
public:
    explicit Station(MessageNode::Options options) : node(std::move(options))
    {
        node.setHandler([this](const std::shared_ptr<RawMessage>& message) {
            const std::lock_guard lock(m_mutex);
            m_messages.push_back(message);
        });
    }
    ~Station() { node.stop(); }

    /// Those that came since the last call; taking them lets the peer send on.
    std::vector<std::shared_ptr<RawMessage>> take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_messages, {});
    }
    std::size_t size() const
    {
        const std::lock_guard lock(m_mutex);
        return m_messages.size();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<RawMessage>> m_messages;

public:
    MessageNode node; // last: its thread ends first
};

inline Messages::TAMO_DBFetch numbered(std::int32_t number, std::size_t padding = 0)
{
    Messages::TAMO_DBFetch request;
    request.transId = number;
    request.dn = std::string(padding, 'x');
    return request;
}

inline std::int32_t numberOf(const RawMessage& raw)
{
    Messages::TAMO_DBFetch request;
    return request.deserialize(&raw) ? request.transId : -1;
}

/// A connection whose bytes the test writes itself.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        connected = ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        const timeval patience{.tv_sec = 10, .tv_usec = 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~RawPeer() { close(); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    void close()
    {
        if (m_fd >= 0)
            ::close(std::exchange(m_fd, -1));
    }
    bool write(const void* bytes, std::size_t length) const
    {
        return ::send(m_fd, bytes, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
    }
    void send(Wire::FrameHeader header, const Bytes& body) const
    {
        header.length = static_cast<std::uint32_t>(body.size());
        const auto head = Wire::encodeHeader(header);
        Bytes frame(head.begin(), head.end());
        frame.insert(frame.end(), body.begin(), body.end());
        write(frame.data(), frame.size());
    }
    void greet(const Wire::Hello& hello) const
    {
        send({.id = Wire::Hello::id, .sender = hello.node, .receiver = -1}, hello.serialize());
    }
    std::size_t read(void* to, std::size_t length) const
    {
        std::size_t got = 0;
        while (got < length) {
            const auto now = ::recv(m_fd, static_cast<char*>(to) + got, length - got, 0);
            if (now <= 0)
                break;
            got += static_cast<std::size_t>(now);
        }
        return got;
    }
    /// The next frame; nothing once the connection is closed.
    std::optional<RawMessage> receive() const
    {
        std::uint8_t head[Wire::headerSize];
        if (read(head, sizeof head) != sizeof head)
            return {};
        const auto header = Wire::decodeHeader(head);
        RawMessage raw{header.id, header.sender, header.receiver, header.sequence, Bytes(header.length), nullptr};
        if (read(raw.body.data(), raw.body.size()) != raw.body.size())
            return {};
        return raw;
    }
    /// Closed by the other side, in whatever way.
    bool ended() const
    {
        char byte = 0;
        const auto got = ::recv(m_fd, &byte, 1, 0);
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }
    /// Introduces itself and takes the answering greeting.
    bool join(std::int32_t id) const
    {
        greet(Wire::Hello(id, "raw"));
        const auto answer = receive();
        return answer && answer->id == Wire::Hello::id;
    }

    bool connected = false;

private:
    int m_fd;
};
