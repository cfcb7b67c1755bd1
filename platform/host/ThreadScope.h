#pragma once

#include <memory>
#include <string>

namespace TAMO::Framework {

/// A stack of its own for this thread's crash handler while it lives, so that an overflown stack
/// still leaves a backtrace.
class CrashStack {
public:
    CrashStack();
    ~CrashStack();
    CrashStack(const CrashStack&) = delete;
    CrashStack& operator=(const CrashStack&) = delete;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// What every thread of the framework has while it runs: a name that the system's tools show (its
/// first 15 characters) and a crash stack. Stands first in the thread's body.
class ThreadScope {
public:
    explicit ThreadScope(const std::string& name);

private:
    CrashStack m_crashStack;
};

} // namespace TAMO::Framework
