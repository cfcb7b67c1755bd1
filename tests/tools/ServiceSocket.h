#pragma once

#include "platform/host/Frame.h"

#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

/// A directory for the sockets of one test, gone afterwards.
class SocketDirectory {
public:
    SocketDirectory()
    {
        char name[] = "/tmp/tamo_client.XXXXXX";
        m_path = mkdtemp(name);
    }
    ~SocketDirectory() { std::filesystem::remove_all(m_path); }
    SocketDirectory(const SocketDirectory&) = delete;
    SocketDirectory& operator=(const SocketDirectory&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// One end of a connection that writes whatever bytes a test wants.
class RawPeer {
public:
    explicit RawPeer(int socket) : m_socket(socket) {}
    ~RawPeer() { ::close(m_socket); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    /// The next frame's body; its header goes to `header`. Empty at the end of the stream.
    Bytes read(TAMO::Wire::FrameHeader& header)
    {
        const Bytes head = take(TAMO::Wire::headerSize);
        if (head.empty())
            return {};
        header = TAMO::Wire::decodeHeader(head.data());
        return take(header.length);
    }
    void write(const Bytes& bytes)
    {
        EXPECT_EQ(::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    void write(const TAMO::Messages::Message& message) { write(message.messageId(), message.serialize()); }
    void write(std::uint32_t id, const Bytes& body)
    {
        writeHeader({static_cast<std::uint32_t>(body.size()), id, 0, -1, sequence++});
        if (!body.empty())
            write(body);
    }
    void writeHeader(const TAMO::Wire::FrameHeader& header)
    {
        const auto bytes = TAMO::Wire::encodeHeader(header);
        write(Bytes(bytes.begin(), bytes.end()));
    }
    /// Takes the client's greeting and answers it.
    void greet()
    {
        TAMO::Wire::FrameHeader header;
        read(header);
        write(TAMO::Wire::Hello(0, "db"));
    }
    void hangUp() { ::shutdown(m_socket, SHUT_RDWR); }
    std::uint32_t sequence = 0;

private:
    Bytes take(std::size_t size)
    {
        Bytes bytes(size);
        return ::recv(m_socket, bytes.data(), size, MSG_WAITALL) == static_cast<ssize_t>(size) ? bytes : Bytes();
    }
    int m_socket;
};

/// Listens as the service does and plays `script` with one connection after another.
class ServiceSocket {
public:
    ServiceSocket(const std::string& directory, std::function<void(RawPeer&)> script)
        : m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = TAMO::Wire::socketPath(directory, "db");
        std::memcpy(address.sun_path, path.data(), path.size());
        EXPECT_EQ(::bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(m_listener, 8), 0);
        m_thread = std::thread([this, script = std::move(script)] {
            for (int socket; (socket = ::accept(m_listener, nullptr, nullptr)) >= 0;) {
                RawPeer peer(socket);
                script(peer);
            }
        });
    }
    ~ServiceSocket()
    {
        ::shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        ::close(m_listener);
    }

private:
    int m_listener;
    std::thread m_thread;
};
