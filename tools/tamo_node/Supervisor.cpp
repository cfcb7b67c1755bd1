// The supervisor's loop: one thread that takes signals, the messages of the stand-ins (whose I/O
// threads leave them in a mailbox) and the passing of time, and keeps the status file up to date.
#include "Supervisor.h"

#include "platform/host/MessageNode.h"
#include "platform/host/NodeState.h"
#include "platform/messages/Answers.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vector>

using namespace TAMO;

namespace {

constexpr std::int32_t serviceNode = 0;
constexpr std::size_t mostEvents = 1000; // kept of each kind; a service gone wild must not fill the disk
constexpr int pollWhileWaiting = 20;     // milliseconds

/// Messages on their way from the I/O threads to the supervisor's loop.
class Mailbox {
public:
    Mailbox() : m_bell(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Mailbox() { ::close(m_bell); }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    void put(std::shared_ptr<RawMessage> message)
    {
        const std::lock_guard lock(m_mutex);
        m_messages.push_back(std::move(message));
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t rung = ::write(m_bell, &one, sizeof one);
    }
    std::vector<std::shared_ptr<RawMessage>> takeAll()
    {
        const std::lock_guard lock(m_mutex);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t silenced = ::read(m_bell, &count, sizeof count);
        return std::exchange(m_messages, {});
    }
    int bell() const { return m_bell; }

private:
    int m_bell;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<RawMessage>> m_messages;
};

template <class Entry>
void keep(std::vector<Entry>& entries, Entry entry)
{
    if (entries.size() >= mostEvents)
        entries.erase(entries.begin());
    entries.push_back(std::move(entry));
}

} // namespace

struct Supervisor::Platform {
    explicit Platform(const std::string& directory)
        : faultManagement({directory, "fm", 3, true, {}}), reset({directory, "reset", 9, true, {"db"}})
    {
        const auto post = [this](std::shared_ptr<RawMessage> message) { mailbox.put(std::move(message)); };
        faultManagement.setHandler(post);
        reset.setHandler(post);
    }
    ~Platform()
    {
        faultManagement.stop();
        reset.stop();
    }
    Mailbox mailbox; // first, so that it outlives the nodes' threads
    Framework::MessageNode faultManagement;
    Framework::MessageNode reset;
};

Supervisor::Supervisor(NodeLayout layout, Options options, StartReport report)
    : m_layout(std::move(layout)), m_options(std::move(options)), m_report(std::move(report))
{
    m_record.supervisor = ::getpid();
    m_record.isolation = m_options.isolation;
    m_record.started = timeNow();
}

Supervisor::~Supervisor() = default;

bool Supervisor::run()
{
    sigset_t handled;
    sigemptyset(&handled);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&handled, number);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr); // before any thread is made: they inherit it
    ::signal(SIGPIPE, SIG_IGN);
    const int signals = ::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
    std::string problem;
    if (boot(problem))
        loop(signals);
    else
        startFailed(problem);
    m_platform.reset();
    ::close(signals);
    return m_record.state == "down";
}

bool Supervisor::boot(std::string& problem)
{
    int partition = 0;
    const auto powerOn = [&](NodeState& state) {
        partition = state.startedPartition = state.activePartition;
        state.controlledResets.clear();
        state.mounts.clear();
    };
    if (!m_layout.clearVolatile(problem) || !updateNodeState(m_layout.stateFile(), powerOn, problem))
        return false;
    for (const auto& [name, value] : m_layout.environment(partition))
        ::setenv(name.c_str(), value.c_str(), 1);
    m_platform = std::make_unique<Platform>(m_layout.sockets());
    if (!m_platform->faultManagement.start() || !m_platform->reset.start()) {
        problem = "the stand-ins for fault management and reset cannot listen";
        return false;
    }
    LOG_INFO("node: boots partition %d in %s (%s)", partition, m_layout.directory().c_str(),
             m_options.isolation.c_str());
    m_startDeadline = Clock::now() + m_options.readyTimeout;
    if (!m_service.start(m_options.program, m_layout.directory(), problem))
        return false;
    m_record.pid = m_service.pid();
    save();
    return true;
}

void Supervisor::loop(int signals)
{
    pollfd sources[] = {{signals, POLLIN, 0}, {m_platform->mailbox.bell(), POLLIN, 0}};
    while (m_service.running()) {
        if (::poll(sources, std::size(sources), nextTimeout()) < 0 && errno != EINTR) {
            stopService(std::string("poll: ") + std::strerror(errno));
            m_service.signal(SIGKILL);
        }
        takeSignals(signals);
        takeMessages();
        if (m_record.state == "starting")
            askWhetherReady();
        if (m_record.state == "stopping" && !m_killed && Clock::now() >= m_killTime) {
            LOG_ERROR("node: tamo_db did not end within %d s, it is killed",
                      static_cast<int>(m_options.stopTimeout.count()));
            m_killed = true;
            m_service.signal(SIGKILL);
        }
        if (m_service.collect(m_record))
            serviceEnded();
    }
}

int Supervisor::nextTimeout() const { return m_record.state == "up" ? -1 : pollWhileWaiting; }

void Supervisor::takeSignals(int signals)
{
    signalfd_siginfo arrived{};
    while (::read(signals, &arrived, sizeof arrived) == sizeof arrived)
        if (arrived.ssi_signo != SIGCHLD)
            stopService("");
}

void Supervisor::takeMessages()
{
    const auto messages = m_platform->mailbox.takeAll();
    for (const auto& raw : messages) {
        Messages::TAMO_FaultNotification fault;
        Messages::TAMO_ResetRBS reset;
        Messages::TAMO_DBOrderReadyRsp ready;
        if (raw->id == fault.id && fault.deserialize(raw.get())) {
            LOG_WARNING("node: fault 0x%x %s", static_cast<unsigned>(fault.faultCode),
                        fault.raise ? "raised" : "cancelled");
            keep(m_record.faults, {timeNow(), fault.faultCode, fault.raise != 0});
        } else if (raw->id == reset.id && reset.deserialize(raw.get())) {
            LOG_WARNING("node: reset asked for, reason %d (%s), %d", reset.reason,
                        tamoResetReasontoString(reset.reason), reset.second);
            keep(m_record.resets, {timeNow(), reset.reason, reset.second});
        } else if (raw->id == ready.id && ready.deserialize(raw.get())) {
            if (ready.success && m_record.state == "starting")
                nowReady();
        } else {
            LOG_WARNING("node: message 0x%x of node %d is not for us", raw->id, raw->sender);
        }
    }
    if (!messages.empty())
        save();
}

void Supervisor::askWhetherReady()
{
    if (Clock::now() >= m_startDeadline) {
        stopService("tamo_db was not ready within " + std::to_string(m_options.readyTimeout.count()) + " s");
        return;
    }
    if (Clock::now() < m_nextQuestion)
        return;
    m_nextQuestion = Clock::now() + std::chrono::milliseconds(pollWhileWaiting);
    // False until the connection stands, and answered false until the start is done: ask again.
    static_cast<void>(m_platform->reset.send(serviceNode, Messages::TAMO_DBOrderReady()));
}

void Supervisor::nowReady()
{
    m_record.state = "up";
    m_record.ready = timeNow();
    LOG_INFO("node: is up, tamo_db has process id %d", m_record.pid);
    save();
    m_report("");
}

void Supervisor::stopService(const std::string& why)
{
    if (m_record.state == "stopping")
        return;
    if (m_record.state == "starting" && why.empty())
        m_record.problem = "told to end before it was ready";
    else
        m_record.problem = why;
    LOG_INFO("node: ends tamo_db%s%s", why.empty() ? "" : ": ", why.c_str());
    m_record.state = "stopping";
    m_killTime = Clock::now() + m_options.stopTimeout;
    m_service.signal(SIGTERM);
    save();
}

void Supervisor::serviceEnded()
{
    const bool inOrder = m_record.state == "stopping" && m_record.exitCode == 0;
    if (m_killed)
        m_record.problem = "tamo_db did not end within " + std::to_string(m_options.stopTimeout.count()) +
                           " s of SIGTERM and was killed";
    else if (!inOrder && m_record.problem.empty())
        m_record.problem = "tamo_db ended with " + endingText(m_record);
    const bool cameUp = !m_record.ready.empty();
    m_record.state = inOrder && m_record.problem.empty() ? "down" : "failed";
    m_record.pid = 0;
    m_record.ended = timeNow();
    if (m_record.state == "down")
        LOG_INFO("node: is down");
    else
        LOG_ERROR("node: %s", m_record.problem.c_str());
    takeMessages(); // a service that ends may just have said why
    save();
    if (!cameUp)
        m_report(m_record.problem);
}

void Supervisor::startFailed(const std::string& problem)
{
    LOG_ERROR("node: %s", problem.c_str());
    m_record.state = "failed";
    m_record.problem = problem;
    m_record.ended = timeNow();
    save();
    m_report(problem);
}

void Supervisor::save()
{
    std::string problem;
    if (!writeRecord(m_layout.statusFile(), m_record, problem))
        LOG_ERROR("node: %s", problem.c_str());
}
