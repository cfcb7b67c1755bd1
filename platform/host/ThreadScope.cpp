// Names a framework thread and gives it the stack that CrashHandler.cpp runs on.

#include "platform/host/ThreadScope.h"

#include <array>
#include <csignal>
#include <pthread.h>

namespace TAMO::Framework {

namespace {
constexpr std::size_t crashStackSize = 64 * 1024;
constexpr std::size_t longestThreadName = 15;
} // namespace

struct CrashStack::State {
    std::array<char, crashStackSize> stack{};
    stack_t earlier{}; // a sanitizer's own, which it wants to find again when the thread ends
};

CrashStack::CrashStack() : m_state(std::make_unique<State>())
{
    stack_t ours{};
    ours.ss_sp = m_state->stack.data();
    ours.ss_size = m_state->stack.size();
    sigaltstack(&ours, &m_state->earlier);
}

CrashStack::~CrashStack() { sigaltstack(&m_state->earlier, nullptr); }

ThreadScope::ThreadScope(const std::string& name)
{
    if (!name.empty()) // without one it shows under the process's
        pthread_setname_np(pthread_self(), name.substr(0, longestThreadName).c_str());
}

} // namespace TAMO::Framework
