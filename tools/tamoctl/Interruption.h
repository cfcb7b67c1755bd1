#pragma once

#include <csignal>

/// While it lives, SIGINT and SIGTERM do not end the process: they are waited for instead, so that
/// what was begun (a subscription, a transaction) is ended in order. One at a time, in a process
/// without further threads.
class Interruption {
public:
    /// Throws std::runtime_error when the system has no descriptor left.
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    bool came() const;
    /// Readable once a signal has come.
    int descriptor() const { return m_descriptor; }

private:
    sigset_t m_before{};
    int m_descriptor;
};
