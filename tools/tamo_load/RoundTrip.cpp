// The yardstick of the load client: the same machine, the same moment, no service.

#include "tools/tamo_load/RoundTrip.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr std::size_t requestSize = 80;
constexpr std::size_t answerSize = 450;

/// False at the end of the stream.
bool receive(int socket, std::size_t size)
{
    std::array<std::uint8_t, answerSize> buffer;
    for (std::size_t got = 0; got < size;) {
        const ssize_t step = ::recv(socket, buffer.data(), size - got, 0);
        if (step <= 0)
            return false;
        got += static_cast<std::size_t>(step);
    }
    return true;
}

bool send(int socket, std::size_t size)
{
    const std::array<std::uint8_t, answerSize> buffer{};
    return ::send(socket, buffer.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

/// The other process: answers until our end is closed.
[[noreturn]] void answerAll(int socket)
{
    while (receive(socket, requestSize) && send(socket, answerSize)) {
    }
    ::_exit(0);
}

} // namespace

Measurement measureRoundTrip(int rounds)
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    const pid_t other = ::fork();
    if (other < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (other == 0) {
        ::close(ends[0]);
        answerAll(ends[1]);
    }
    ::close(ends[1]);
    Measurement measured{"round trip", {}, 0};
    const auto begin = std::chrono::steady_clock::now();
    bool answered = true;
    for (int i = 0; i < rounds && answered; ++i) {
        const auto start = std::chrono::steady_clock::now();
        answered = send(ends[0], requestSize) && receive(ends[0], answerSize);
        measured.times.push_back(microsecondsSince(start));
    }
    measured.seconds = microsecondsSince(begin) / 1e6;
    ::close(ends[0]);
    ::waitpid(other, nullptr, 0);
    if (!answered)
        throw std::system_error(EPIPE, std::generic_category(), "plain round trip");
    return measured;
}
