// One thread for the timers of the process. It sleeps until the earliest one is due and posts event
// 999 to its owner; the work is done on the owner's thread.

#include "platform/framework/Timer.h"

#include "platform/host/ThreadScope.h"
#include "platform/middleware/Log.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <utility>

namespace TAMO::Framework {

namespace {

using Clock = std::chrono::steady_clock;

/// Far enough not to matter, near enough for the clock's range.
constexpr double longestSeconds = 10 * 365.0 * 24 * 3600;

/// TAMO_TIMER_FACTOR, 1 when it is not set.
double timerFactor()
{
    const char* text = std::getenv("TAMO_TIMER_FACTOR");
    if (!text)
        return 1;
    char* end = nullptr;
    const double factor = std::strtod(text, &end);
    if (end != text && *end == '\0' && std::isfinite(factor) && factor > 0)
        return factor;
    LOG_WARNING("TAMO_TIMER_FACTOR is not a number above 0: \"%s\"; timers keep their length", text);
    return 1;
}

/// The timers that are armed. Owners are told under the lock, so after remove() has returned nothing
/// more is posted for a timer.
class TimerQueue {
public:
    /// When it is due, and a number that tells timers of the same moment apart.
    using Key = std::pair<Clock::time_point, std::uint64_t>;

    /// Never destroyed: its thread sleeps until the process ends.
    static TimerQueue& instance()
    {
        static auto* const queue = new TimerQueue;
        return *queue;
    }

    /// Sets `key` before the owner can have heard of the expiry, and cancel on another thread.
    void add(Clock::time_point when, ReactiveStateMachine& owner, Key& key)
    {
        const std::lock_guard lock(m_mutex);
        if (!m_running) {
            std::thread([this] { run(); }).detach();
            m_running = true;
        }
        key = {when, ++m_lastNumber};
        const auto added = m_armed.emplace(key, &owner).first; // before begin() is asked for
        if (added == m_armed.begin())
            m_changed.notify_one();
    }

    void remove(const Key& key)
    {
        const std::lock_guard lock(m_mutex);
        m_armed.erase(key);
    }

private:
    [[noreturn]] void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<Key, ReactiveStateMachine*> m_armed;
    std::uint64_t m_lastNumber = 0;
    bool m_running = false;
};

void TimerQueue::run()
{
    const ThreadScope scope("timers");
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (m_armed.empty()) {
            m_changed.wait(lock);
        } else if (const auto when = m_armed.begin()->first.first; when > Clock::now()) {
            m_changed.wait_until(lock, when);
        } else {
            const auto first = m_armed.begin();
            try {
                first->second->enqueueEvent(Event(timerExpired));
                m_armed.erase(first);
            } catch (const std::exception&) { // no memory: the expiry comes a little later
                m_changed.wait_for(lock, std::chrono::milliseconds(10));
            }
        }
    }
}

} // namespace

struct Timer::State {
    ReactiveStateMachine& owner;
    TimerQueue::Key armed{};
};

Timer::Timer(ReactiveStateMachine& owner) : m_state(new State{owner}) {}

Timer::~Timer() { cancelTimeout(); }

bool Timer::requestTimeout(unsigned duration, int timeType)
{
    if (timeType != seconds)
        return false;
    cancelTimeout();
    const std::chrono::duration<double> wait(std::min(duration * timerFactor(), longestSeconds));
    TimerQueue::instance().add(Clock::now() + std::chrono::ceil<Clock::duration>(wait), m_state->owner, m_state->armed);
    return true;
}

void Timer::cancelTimeout() { TimerQueue::instance().remove(m_state->armed); }

} // namespace TAMO::Framework
