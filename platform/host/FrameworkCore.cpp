// The process's signals, and its node's start from an option list. A signal handler may only set a
// mark and write to a pipe; a small thread at the other end does the posting.

#include "platform/framework/FrameworkCore.h"

#include "platform/framework/ActiveStateMachine.h"
#include "platform/host/Frame.h"
#include "platform/host/ProcessNode.h"
#include "platform/host/Termination.h"
#include "platform/host/ThreadScope.h"
#include "platform/middleware/Log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace TAMO::Framework {

namespace {

constexpr int watchedSignals[] = {SIGTERM, SIGINT};

std::atomic<bool> signalSeen{false};
std::atomic<int> signalPipe{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

/// Async-signal-safe. The second signal comes from someone who has waited long enough.
extern "C" void onTerminationSignal(int number)
{
    const int savedErrno = errno;
    if (signalSeen.exchange(true)) {
        std::signal(number, SIG_DFL);
        sigset_t only;
        sigemptyset(&only);
        sigaddset(&only, number);
        pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
        raise(number);
        _exit(128 + number); // the first process of a container is spared by default actions
    }
    const auto byte = static_cast<char>(number);
    [[maybe_unused]] const auto written = ::write(signalPipe.load(), &byte, 1);
    errno = savedErrno;
}

/// The handlers and the thread behind them, from initialize() to finalize().
class SignalWatch {
public:
    SignalWatch() = default;
    ~SignalWatch() { stop(); }
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    bool start();
    void stop();

private:
    void run(int readEnd);

    Thread m_thread{"signals"};
    int m_readEnd = -1;
    struct sigaction m_earlier[std::size(watchedSignals)]{};
};

bool SignalWatch::start()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        LOG_ERROR("Signals cannot be watched: %s", std::strerror(errno));
        return false;
    }
    m_readEnd = ends[0];
    signalPipe = ends[1];
    signalSeen = false;
    m_thread.run([](void* self) { static_cast<SignalWatch*>(self)->run(static_cast<SignalWatch*>(self)->m_readEnd); },
                 this);
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(watchedSignals); ++i)
        sigaction(watchedSignals[i], &action, &m_earlier[i]);
    return true;
}

void SignalWatch::stop()
{
    if (m_readEnd < 0)
        return;
    for (std::size_t i = 0; i < std::size(watchedSignals); ++i)
        sigaction(watchedSignals[i], &m_earlier[i], nullptr);
    ::close(signalPipe.exchange(-1));
    m_thread.join();
    ::close(std::exchange(m_readEnd, -1));
}

void SignalWatch::run(int readEnd)
{
    // Whoever started us may have blocked them; one thread that takes them is enough.
    sigset_t watched;
    sigemptyset(&watched);
    for (const int signal : watchedSignals)
        sigaddset(&watched, signal);
    pthread_sigmask(SIG_UNBLOCK, &watched, nullptr);

    char number = 0;
    for (;;) {
        const auto got = ::read(readEnd, &number, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got != 1)
            return;
        LOG_INFO("Signal %d (%s): orderly end requested", number, strsignal(number));
        Termination::request();
    }
}

std::mutex watchMutex;
std::unique_ptr<SignalWatch> watch;

/// The queues of the active state machines.
struct AttachedQueues {
    std::mutex mutex;
    std::vector<EventQueueHandler*> queues;
    bool requested = false;
};

AttachedQueues& attached()
{
    static auto* const queues = new AttachedQueues; // outlives every static state machine
    return *queues;
}

/// Reads {"--node", NAME, "--connect", NAME, ...}; false with an error line for anything else.
bool readOptions(const std::vector<std::string>& options, MessageNode::Options& node)
{
    for (std::size_t i = 0; i < options.size(); i += 2) {
        const bool hasValue = i + 1 < options.size() && !options[i + 1].empty();
        if (hasValue && options[i] == "--node")
            node.name = options[i + 1];
        else if (hasValue && options[i] == "--connect")
            node.connectTo.push_back(options[i + 1]);
        else {
            LOG_ERROR("Framework: option \"%s\" is not known or has no value", options[i].c_str());
            return false;
        }
    }
    node.id = nodeIdOf(node.name);
    if (node.id < 0)
        LOG_ERROR("Framework: \"%s\" is not a node of the platform", node.name.c_str());
    return node.id >= 0;
}

} // namespace

void Termination::attach(EventQueueHandler& queue)
{
    const std::lock_guard lock(attached().mutex);
    attached().queues.push_back(&queue);
    if (attached().requested)
        queue.pushFirst(std::make_unique<Event>(terminateRequested));
}

void Termination::detach(EventQueueHandler& queue)
{
    const std::lock_guard lock(attached().mutex);
    std::erase(attached().queues, &queue);
}

void Termination::request()
{
    const std::lock_guard lock(attached().mutex);
    attached().requested = true;
    for (EventQueueHandler* queue : attached().queues)
        queue->pushFirst(std::make_unique<Event>(terminateRequested));
}

void Termination::reset()
{
    const std::lock_guard lock(attached().mutex);
    attached().requested = false;
}

void FrameworkCore::initialize()
{
    const std::lock_guard lock(watchMutex);
    if (watch)
        return;
    auto fresh = std::make_unique<SignalWatch>();
    if (fresh->start())
        watch = std::move(fresh);
}

void FrameworkCore::finalize()
{
    const std::lock_guard lock(watchMutex);
    if (!watch)
        return;
    watch->stop();
    watch.reset();
    Termination::reset();
}

namespace Control {

namespace {

/// Where the node has a reset service, it calls us as soon as it finds us listening, within its pause
/// between two tries. A start that asks for a fallback before that would ask nobody.
void awaitResetService(const std::string& directory, std::chrono::milliseconds patience)
{
    constexpr const char* name = "reset";
    const auto deadline = std::chrono::steady_clock::now() + patience;
    const auto isMissing = [&] { return ProcessNode::peerName(nodeIdOf(name)).empty(); };
    if (::access(Wire::socketPath(directory, name).c_str(), F_OK) != 0)
        return;
    while (isMissing() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (isMissing())
        LOG_WARNING("Framework: the node's reset service has a socket and does not call: orders to it will be lost");
}

} // namespace

bool FrameworkControl::initialize(const std::vector<std::string>& options)
{
    MessageNode::Options node;
    if (!readOptions(options, node))
        return false;
    node.directory = Wire::frameworkDirectory();
    if (!ProcessNode::start(std::move(node)))
        return false;
    constexpr std::chrono::milliseconds patience{500}; // a start may have a fault to report at once
    ProcessNode::awaitGreetings(patience);
    awaitResetService(Wire::frameworkDirectory(), 2 * patience);
    return true;
}

void FrameworkControl::finalize() { ProcessNode::stop(); }

} // namespace Control

} // namespace TAMO::Framework
