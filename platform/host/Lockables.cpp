// Locks between the threads of a process. The lock between processes is in NamedSemaphore.cpp.

#include "platform/framework/Lockables.h"

#include <cerrno>
#include <mutex>
#include <semaphore.h>

namespace TAMO::Framework {

struct Mutex::State {
    bool recursive;
    std::mutex once;
    std::recursive_mutex again;
};

Mutex::Mutex(bool recursive) : m_state(new State{.recursive = recursive, .once = {}, .again = {}}) {}

Mutex::~Mutex() = default;

void Mutex::lock() { m_state->recursive ? m_state->again.lock() : m_state->once.lock(); }

void Mutex::unlock() { m_state->recursive ? m_state->again.unlock() : m_state->once.unlock(); }

struct Semaphore::State {
    explicit State(unsigned count) { sem_init(&handle, 0, count); }
    ~State() { sem_destroy(&handle); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    sem_t handle{};
};

Semaphore::Semaphore(unsigned initialCount) : m_state(std::make_unique<State>(initialCount)) {}

Semaphore::~Semaphore() = default;

void Semaphore::lock()
{
    while (sem_wait(&m_state->handle) != 0 && errno == EINTR) {
    }
}

void Semaphore::unlock() { sem_post(&m_state->handle); }

} // namespace TAMO::Framework
