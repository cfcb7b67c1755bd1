// Sending without waiting. The common case, an answer to a peer that reads, is one system call on
// the thread that sends; only what the socket refuses waits for the I/O thread (PeerConnection.cpp).

#include "platform/host/PeerOutput.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <sys/socket.h>
#include <sys/uio.h>

namespace TAMO::Framework {

namespace {
/// A queue that was this large gives its memory back when it is empty.
constexpr std::size_t keptCapacity = 64 * 1024;

/// Bytes written before a sender that waits for the lock gets its turn.
constexpr std::size_t flushAtOnce = 512 * 1024;
} // namespace

/// One write of two pieces; `written` tells how much was taken. False when the other side takes no
/// more: nothing is sent any more, but what it sent before is still read.
bool PeerOutput::write(const void* first, std::size_t firstLength, const void* second, std::size_t secondLength,
                       std::size_t& written)
{
    iovec pieces[] = {{const_cast<void*>(first), firstLength}, {const_cast<void*>(second), secondLength}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = std::size(pieces);
    ssize_t sent = 0;
    do
        sent = ::sendmsg(m_fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    written = sent < 0 ? 0 : static_cast<std::size_t>(sent);
    if (written > 0)
        m_lastWrite = Clock::now();
    m_broken = sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS;
    return !m_broken;
}

/// Half a frame must not be followed by another: the connection ends here.
void PeerOutput::breakOff()
{
    m_broken = true;
    ::shutdown(m_fd, SHUT_RDWR);
}

/// Notes a full queue and a frame lost; true for the first frame refused by it.
bool PeerOutput::refuse()
{
    ++m_sequence;
    ++m_dropped;
    if (m_fullSince != Clock::time_point{})
        return false;
    m_fullSince = Clock::now();
    return true;
}

void PeerOutput::queue(const std::uint8_t* bytes, std::size_t length)
{
    if (m_queueBegin > 0 && m_queue.size() + length > m_queue.capacity()) {
        m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(m_queueBegin));
        m_queueBegin = 0;
    }
    m_queue.insert(m_queue.end(), bytes, bytes + length);
}

PeerOutput::Sent PeerOutput::send(Wire::FrameHeader header, const Bytes& body)
{
    const std::lock_guard lock(m_mutex);
    if (m_fd < 0 || m_broken)
        return {};
    const std::size_t waitingBefore = m_queue.size() - m_queueBegin;
    if (waitingBefore + Wire::headerSize + body.size() > capacity)
        return {.accepted = false, .attend = refuse()};
    header.length = static_cast<std::uint32_t>(body.size());
    header.sequence = static_cast<std::uint32_t>(m_sequence++);
    const auto head = Wire::encodeHeader(header);
    std::size_t written = 0;
    if (waitingBefore == 0) {
        if (!write(head.data(), head.size(), body.data(), body.size(), written))
            return {};
        if (written == head.size() + body.size())
            return {.accepted = true, .attend = false};
    }
    try {
        if (written < head.size())
            queue(head.data() + written, head.size() - written);
        const std::size_t bodyWritten = written < head.size() ? 0 : written - head.size();
        queue(body.data() + bodyWritten, body.size() - bodyWritten);
    } catch (const std::bad_alloc&) {
        breakOff();
        return {};
    }
    return {.accepted = true, .attend = waitingBefore == 0};
}

bool PeerOutput::flush()
{
    const std::lock_guard lock(m_mutex);
    if (m_fd < 0)
        return false;
    const std::size_t pause = m_queueBegin + flushAtOnce;
    while (!m_broken && m_queueBegin < std::min(pause, m_queue.size())) {
        std::size_t written = 0;
        write(m_queue.data() + m_queueBegin, m_queue.size() - m_queueBegin, nullptr, 0, written);
        if (written == 0)
            break;
        m_queueBegin += written;
        m_fullSince = {};
    }
    if (!m_broken && m_queueBegin < m_queue.size())
        return true;
    m_queueBegin = 0;
    m_queue.clear();
    if (m_queue.capacity() > keptCapacity)
        m_queue.shrink_to_fit();
    return false;
}

PeerOutput::Clock::time_point PeerOutput::fullSince() const
{
    const std::lock_guard lock(m_mutex);
    return m_fullSince;
}

std::size_t PeerOutput::waiting() const
{
    const std::lock_guard lock(m_mutex);
    return m_queue.size() - m_queueBegin;
}

PeerOutput::Counts PeerOutput::counts() const
{
    const std::lock_guard lock(m_mutex);
    return {m_queue.size() - m_queueBegin, m_sequence - m_dropped, m_dropped, m_lastWrite};
}

void PeerOutput::abandon()
{
    const std::lock_guard lock(m_mutex);
    if (m_fd >= 0)
        breakOff();
}

void PeerOutput::close()
{
    const std::lock_guard lock(m_mutex);
    m_fd = -1;
    m_queue = {};
    m_queueBegin = 0;
    m_fullSince = {};
}

} // namespace TAMO::Framework
