// The supervisor's loop: one thread that takes signals, the messages of the stand-ins (whose I/O threads
// leave them in a mailbox), changes of the node's state file (where the middleware's functions and the verbs
// leave their orders) and the passing of time, and keeps the status file up to date. What it makes of the
// messages and orders is in Supervisor_Orders.cpp.
#include "Supervisor.h"

#include "BootRule.h"
#include "EventList.h"
#include "NodeRoot.h"
#include "PowerCut.h"
#include "StandIns.h"

#include "platform/host/Descriptor.h"
#include "platform/host/Medium.h"
#include "platform/host/NodeState.h"
#include "platform/middleware/Log.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace TAMO;

namespace {

constexpr int pollWhileWaiting = 20; // milliseconds

Framework::Descriptor signalSource()
{
    sigset_t handled;
    sigemptyset(&handled);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&handled, number);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr); // before any thread is made: they inherit it
    ::signal(SIGPIPE, SIG_IGN);
    return Framework::Descriptor(::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// Tells of files that are renamed into place in the node's directory, as the state file is.
Framework::Descriptor stateSource(const std::string& directory)
{
    Framework::Descriptor changes(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (changes && ::inotify_add_watch(changes.get(), directory.c_str(), IN_MOVED_TO) < 0)
        changes.reset();
    return changes;
}

} // namespace

struct Supervisor::Sources {
    Framework::Descriptor signals;
    Framework::Descriptor changes;
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
    const Sources sources{signalSource(), stateSource(m_layout.directory())};
    ::prctl(PR_SET_CHILD_SUBREAPER, 1); // commands that outlive a killed service are ours to end
    if (!sources.signals || !sources.changes) {
        over("failed", std::string("cannot watch the node: ") + std::strerror(errno));
        return false;
    }
    switchOn();
    while (m_record.ended.empty() && boot()) {
        supervise(sources);
        serviceEnded();
    }
    m_standIns.reset();
    return m_record.state == "down";
}

/// A person at the switch: what was counted and ordered before is forgotten.
void Supervisor::switchOn()
{
    std::string problem;
    const auto forget = [](NodeState& state) {
        state.unmarkedBoots = 0;
        state.order.reset();
    };
    m_ending = Ending{"switched on", {}, false, false, 0};
    if (!updateNodeState(m_layout.stateFile(), forget, problem))
        over("failed", problem);
    else
        save();
}

/// Boots for the reason in m_ending. False when the node is over.
bool Supervisor::boot()
{
    const Ending before = *std::exchange(m_ending, std::nullopt);
    NodeState booted;
    bool possible = false;
    const auto choose = [&](NodeState& state) {
        state.resetReason = before.resetReason.value_or(state.resetReason);
        state.order.reset();
        state.controlledResets.clear();
        state.mounts.clear();
        possible = chooseBoot(state);
        booted = state;
    };
    std::string problem;
    m_standIns.reset();
    if (!m_layout.clearVolatile(m_options.isolation == "private", m_options.keep, problem) ||
        !updateNodeState(m_layout.stateFile(), choose, problem)) {
        over("failed", problem);
        return false;
    }
    if (!possible) {
        over("failed", "no partition starts, golden neither: " + before.cause);
        return false;
    }
    LOG_INFO("node: boots partition %d, boot %d without a good mark, reset reason %d: %s (in %s, %s)",
             booted.startedPartition, booted.unmarkedBoots, booted.resetReason, before.cause.c_str(),
             m_layout.directory().c_str(), m_options.isolation.c_str());
    if (!start(booted.startedPartition, problem)) {
        over("failed", problem);
        return false;
    }
    keep(m_record.boots, {timeNow(), booted.startedPartition, booted.resetReason, before.cause, ""});
    ++m_record.bootCount;
    m_record.state = m_switchingOff ? "stopping" : "starting";
    m_record.pid = m_service.pid();
    m_record.ready.clear();
    save();
    return true;
}

bool Supervisor::start(int partition, std::string& problem)
{
    if (!makeNodeRoot(m_layout.root(), m_layout.configurationArea(partition), problem))
        return false;
    for (const auto& [name, value] : m_layout.environment(partition))
        ::setenv(name.c_str(), value.c_str(), 1);
    Medium(m_layout.medium()).settleAll(); // a boot begins with what is there
    m_standIns = std::make_unique<StandIns>(m_layout.sockets());
    if (!m_standIns->start()) {
        problem = "the stand-ins for fault management and reset cannot listen";
        return false;
    }
    m_killed = false;
    m_ordersSeen = 0;
    m_startDeadline = Clock::now() + m_options.readyTimeout;
    return m_service.start(m_options.program, m_layout.directory(), problem);
}

/// Until tamo_db has ended.
void Supervisor::supervise(const Sources& sources)
{
    pollfd polled[] = {
        {sources.signals.get(), POLLIN, 0}, {sources.changes.get(), POLLIN, 0}, {m_standIns->bell(), POLLIN, 0}};
    do {
        if (::poll(polled, std::size(polled), m_record.state == "up" ? -1 : pollWhileWaiting) < 0 && errno != EINTR)
            switchOff(std::string("poll: ") + std::strerror(errno));
        takeSignals(sources.signals.get());
        takeStateChanges(sources.changes.get());
        takeMessages();
        if (m_record.state == "starting")
            askWhetherReady();
        killWhatDoesNotEnd();
    } while (!m_service.collect(m_record));
}

void Supervisor::takeSignals(int signals)
{
    signalfd_siginfo arrived{};
    while (::read(signals, &arrived, sizeof arrived) == sizeof arrived)
        if (arrived.ssi_signo != SIGCHLD)
            switchOff("");
}

void Supervisor::askWhetherReady()
{
    const auto now = Clock::now();
    if (now >= m_startDeadline) {
        end({"tamo_db was not ready within " + std::to_string(m_options.readyTimeout.count()) + " s", reasonWatchdog,
             false, false, 0});
    } else if (now >= m_nextQuestion) {
        m_nextQuestion = now + std::chrono::milliseconds(pollWhileWaiting);
        m_standIns->askWhetherReady();
    }
}

/// The good mark of this boot.
void Supervisor::nowReady()
{
    std::string problem;
    if (!updateNodeState(
            m_layout.stateFile(), [](NodeState& state) { state.unmarkedBoots = 0; }, problem))
        LOG_ERROR("node: the boot gets no good mark: %s", problem.c_str());
    m_record.state = "up";
    m_record.ready = m_record.boots.back().good = timeNow();
    LOG_INFO("node: is up on partition %d, tamo_db has process id %d", m_record.boots.back().partition, m_record.pid);
    save();
    if (!std::exchange(m_reported, true))
        m_report("");
}

void Supervisor::end(const Ending& ending)
{
    m_ending = ending;
    stopService("resetting", ending.cause);
}

void Supervisor::switchOff(const std::string& why)
{
    if (std::exchange(m_switchingOff, true))
        return;
    m_record.problem = why.empty() && !m_reported ? "told to end before it was ready" : why;
    stopService("stopping", why);
}

void Supervisor::stopService(const char* state, const std::string& why)
{
    const bool underWay = m_record.state == "stopping" || m_record.state == "resetting";
    m_record.state = state;
    if (!underWay) {
        LOG_INFO("node: ends tamo_db%s%s", why.empty() ? "" : ": ", why.c_str());
        m_killTime = Clock::now() + m_options.stopTimeout;
        m_service.signal(SIGTERM);
    }
    save();
}

void Supervisor::killWhatDoesNotEnd()
{
    const bool ending = m_ending || m_switchingOff;
    if (!ending || m_killed || Clock::now() < m_killTime)
        return;
    LOG_ERROR("node: tamo_db did not end within %d s, it is killed", static_cast<int>(m_options.stopTimeout.count()));
    m_killed = true;
    m_service.killAll();
}

/// Settles what comes next, with everything known that the service said before it ended.
void Supervisor::serviceEnded()
{
    const bool unasked = !m_ending && !m_switchingOff;
    m_record.pid = 0;
    m_standIns->awaitTheLastWord();
    takeMessages();
    takeOrders();
    if (unasked)
        LOG_ERROR("node: tamo_db ended with %s", endingText(m_record).c_str());
    if (m_killed && m_ending)
        m_ending->cause += "; it did not end on SIGTERM and was killed";
    if (m_ending && m_ending->powerCut)
        loseWrites(m_ending->seed);
    if (m_switchingOff)
        switchedOff();
    else if (!m_ending)
        m_ending = Ending{"tamo_db ended with " + endingText(m_record), reasonSoftwareFailure, false, false, 0};
    else if (m_ending->stayOff)
        powerStaysOff();
}

void Supervisor::loseWrites(std::uint64_t seed)
{
    const auto report = loseUnsynchronised(Medium(m_layout.medium()), seed);
    for (const auto& line : report)
        LOG_WARNING("node: %s", line.c_str());
    LOG_INFO("node: the power cut hit %d files", static_cast<int>(report.size()));
}

void Supervisor::switchedOff()
{
    if (m_killed)
        m_record.problem = "tamo_db did not end within " + std::to_string(m_options.stopTimeout.count()) +
                           " s of SIGTERM and was killed";
    else if (m_record.exitCode != 0 && m_record.problem.empty())
        m_record.problem = "tamo_db ended with " + endingText(m_record);
    // The reason of this boot is used up, unless the operator has chosen one for the next meanwhile.
    const int used = m_record.boots.back().resetReason;
    const auto useUp = [&](NodeState& state) {
        if (state.resetReason == used)
            state.resetReason = reasonOrdered;
    };
    std::string problem;
    if (!updateNodeState(m_layout.stateFile(), useUp, problem) && m_record.problem.empty())
        m_record.problem = problem;
    over(m_record.problem.empty() ? "down" : "failed", m_record.problem);
}

void Supervisor::powerStaysOff()
{
    std::string problem;
    if (updateNodeState(
            m_layout.stateFile(), [](NodeState& state) { state.resetReason = reasonPowerOn; }, problem))
        over("off", m_reported ? "" : "the power was cut before it was ready");
    else
        over("failed", problem);
}

/// The last word on this node.
void Supervisor::over(const std::string& state, const std::string& problem)
{
    m_record.state = state;
    m_record.problem = problem;
    m_record.pid = 0;
    m_record.ended = timeNow();
    if (state == "failed")
        LOG_ERROR("node: %s", problem.c_str());
    else
        LOG_INFO("node: is %s", state.c_str());
    save();
    if (!std::exchange(m_reported, true))
        m_report(problem);
}

void Supervisor::save()
{
    std::string problem;
    if (!writeRecord(m_layout.statusFile(), m_record, problem))
        LOG_ERROR("node: %s", problem.c_str());
}
