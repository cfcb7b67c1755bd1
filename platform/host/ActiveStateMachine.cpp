// Event queues, threads and the loop that joins them: the service's request thread and the
// middleware status handler run here. Signals reach them through Termination (FrameworkCore.cpp).

#include "platform/framework/ActiveStateMachine.h"

#include "platform/host/Attention.h"
#include "platform/host/Termination.h"
#include "platform/host/ThreadScope.h"
#include "platform/middleware/Log.h"

#include <exception>

namespace TAMO::Framework {

void EventQueueHandler::push(std::unique_ptr<Event> event) { add(std::move(event), false); }

void EventQueueHandler::pushFirst(std::unique_ptr<Event> event) { add(std::move(event), true); }

void EventQueueHandler::add(std::unique_ptr<Event> event, bool first)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_closed)
            return;
        m_events.insert(first ? m_events.begin() : m_events.end(), std::move(event));
        m_ready = true;
    }
    m_filled.notify_one();
}

std::unique_ptr<Event> EventQueueHandler::pop()
{
    stayAttentive([this] { return m_ready.load(); });
    std::unique_lock lock(m_mutex);
    m_filled.wait(lock, [this] { return m_ready.load(); });
    if (m_closed)
        return nullptr;
    std::unique_ptr<Event> event = std::move(m_events.front());
    m_events.pop_front();
    m_ready = !m_events.empty();
    return event;
}

void EventQueueHandler::close()
{
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
        m_ready = true;
    }
    m_filled.notify_all();
}

Thread::~Thread() { join(); }

void Thread::run(void (*body)(void*), void* argument)
{
    join();
    m_thread = std::thread([body, argument, name = m_name] {
        const ThreadScope scope(name);
        body(argument);
    });
}

void Thread::join()
{
    if (m_thread.joinable())
        m_thread.join();
}

void ReactiveStateMachine::enqueueEvent(const Event& event, bool)
{
    if (allowEnqueue())
        m_queue.push(event.copyEvent());
}

ActiveStateMachine::ActiveStateMachine(int initialState, int finalState, const std::string& threadName)
    : ReactiveStateMachine(initialState, finalState, static_cast<EventQueueHandler&>(*this)), m_thread(threadName)
{}

ActiveStateMachine::~ActiveStateMachine()
{
    // The derived part is gone: a thread that still waits for events must not dispatch another one.
    Termination::detach(*this);
    close();
    m_thread.join();
}

void ActiveStateMachine::initialise()
{
    ReactiveStateMachine::initialise();
    Termination::attach(*this);
}

void ActiveStateMachine::start()
{
    m_thread.run([](void* self) { static_cast<ActiveStateMachine*>(self)->threadMain(); }, this);
}

void ActiveStateMachine::threadMain()
{
    while (!hasTerminated()) {
        const std::unique_ptr<Event> event = pop();
        if (!event)
            return;
        if (event->isObsolete()) {
            LOG_DEBUG("Event %d dropped: its sender is gone", event->id());
            continue;
        }
        try {
            dispatch(*event);
        } catch (const std::exception& error) {
            LOG_ERROR("Event %d ended in an exception: %s", event->id(), error.what());
        } catch (...) {
            LOG_ERROR("Event %d ended in an exception of unknown type", event->id());
        }
        event->cleanup();
    }
}

} // namespace TAMO::Framework
