#pragma once

#include "platform/framework/Event.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace TAMO::Framework {

/// The events waiting for a state machine, first in first out; any thread may add to it.
class EventQueueHandler {
public:
    void push(std::unique_ptr<Event> event);
    /// The same, in front of everything that waits.
    void pushFirst(std::unique_ptr<Event> event);
    /// Waits for the next event; null once the queue is closed.
    std::unique_ptr<Event> pop();
    /// From now on nothing is queued and nothing is handed out.
    void close();

private:
    void add(std::unique_ptr<Event> event, bool first);

    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::deque<std::unique_ptr<Event>> m_events;
    bool m_closed = false;
    std::atomic<bool> m_ready{false}; ///< something to hand out, or closed; changed under the mutex
};

/// A named thread; the name is what the system's tools show (its first 15 characters).
class Thread {
public:
    explicit Thread(std::string name) : m_name(std::move(name)) {}
    ~Thread();
    void run(void (*body)(void*), void* argument);
    bool exists() const { return m_thread.joinable(); }
    void join();

private:
    std::string m_name;
    std::thread m_thread;
};

/// States, and what an event does in each: the part of an active object that has no thread.
class ReactiveStateMachine {
public:
    ReactiveStateMachine(int initialState, int finalState, EventQueueHandler& queue)
        : m_queue(queue), m_initialState(initialState), m_finalState(finalState)
    {}
    virtual ~ReactiveStateMachine() = default;
    ReactiveStateMachine(const ReactiveStateMachine&) = delete;
    ReactiveStateMachine& operator=(const ReactiveStateMachine&) = delete;

    virtual bool allowEnqueue() const { return m_state != m_finalState; }
    /// Queues a copy of `event`. The flag is the platform's and has no meaning here.
    virtual void enqueueEvent(const Event& event, bool flag = false);
    /// True when the current state took the event; any other goes to onUnhandledEvent().
    virtual bool dispatch(Event& event) = 0;
    virtual void enterState(int state) { m_state = state; }
    virtual void exitState() {}
    virtual void onUnhandledEvent(const Event&) {}
    /// Enters the initial state.
    virtual void initialise() { enterState(m_initialState); }
    virtual bool hasTerminated() const { return m_state == m_finalState; }

protected:
    int state() const { return m_state; }
    EventQueueHandler& m_queue;

private:
    int m_initialState;
    int m_finalState;
    std::atomic<int> m_state{-1};
};

/// A state machine with a thread of its own, which takes the queued events one at a time.
///
/// It is known to the framework from initialise() until it is destroyed: an orderly end of the
/// process (SIGTERM, SIGINT) is posted to it as event 1006, in front of what waits. A message whose
/// sender's connection has ended in the meantime is dropped instead of dispatched. An exception that
/// leaves dispatch is logged, and the thread goes on. Bring its thread to an end and stop the
/// messaging before it is destroyed: the destructor ends an idle thread, but cannot help one that is
/// inside dispatch.
class ActiveStateMachine : private EventQueueHandler, public ReactiveStateMachine {
public:
    ActiveStateMachine(int initialState, int finalState, const std::string& threadName);
    ~ActiveStateMachine() override;

    void initialise() override;
    /// Launches the thread; it ends when the final state is reached.
    virtual void start();
    virtual void threadMain();
    Thread& thread() { return m_thread; }

private:
    Thread m_thread;
};

} // namespace TAMO::Framework
