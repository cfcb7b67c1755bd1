// The stand-ins' sockets and threads. They are made anew for each boot, because a boot clears the sockets,
// and what the service of the boot before still had on its way is not for this one.
#include "StandIns.h"

#include "platform/messages/Answers.h"
#include "platform/messages/Notifications.h"

#include <chrono>
#include <cstdint>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {
constexpr std::int32_t serviceNode = 0;
}

Mailbox::Mailbox() : m_bell(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Mailbox::~Mailbox() { ::close(m_bell); }

void Mailbox::put(std::shared_ptr<RawMessage> message)
{
    const std::lock_guard lock(m_mutex);
    m_messages.push_back(std::move(message));
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t rung = ::write(m_bell, &one, sizeof one);
}

std::vector<std::shared_ptr<RawMessage>> Mailbox::takeAll()
{
    const std::lock_guard lock(m_mutex);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t silenced = ::read(m_bell, &count, sizeof count);
    return std::exchange(m_messages, {});
}

StandIns::StandIns(const std::string& directory)
    : m_faultManagement({directory, "fm", 3, true, {}}), m_reset({directory, "reset", 9, true, {"db"}})
{
    const auto post = [this](std::shared_ptr<RawMessage> message) { m_mailbox.put(std::move(message)); };
    m_faultManagement.setHandler(post);
    m_reset.setHandler(post);
}

StandIns::~StandIns()
{
    m_faultManagement.stop();
    m_reset.stop();
}

bool StandIns::start() { return m_faultManagement.start() && m_reset.start(); }

void StandIns::askWhetherReady()
{
    // False until the connection stands, and answered false until the start is done: ask again.
    static_cast<void>(m_reset.send(serviceNode, TAMO::Messages::TAMO_DBOrderReady()));
}

void StandIns::awaitTheLastWord() const
{
    using namespace std::chrono;
    const auto connected = [](const TAMO::Framework::MessageNode& node) { return !node.peerName(serviceNode).empty(); };
    const auto deadline = steady_clock::now() + seconds(1);
    while ((connected(m_faultManagement) || connected(m_reset)) && steady_clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(1));
}
