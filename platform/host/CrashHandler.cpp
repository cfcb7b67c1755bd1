// The last lines of a process that crashes: which signal, where, and the way there. Everything after
// the signal is async-signal-safe, since the crash may have happened inside malloc or the loader.

#include "platform/utility/SystemFunctions.h"

#include "platform/host/ThreadScope.h"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <execinfo.h>
#include <unistd.h>

namespace {

constexpr int crashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int deepestBacktrace = 64;
constexpr unsigned secondsForBacktrace = 10;

void print(const char* text) { [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text, std::strlen(text)); }

void printNumber(std::uintptr_t number, unsigned base)
{
    char digits[24];
    char* first = digits + sizeof digits;
    *--first = '\0';
    do {
        *--first = "0123456789abcdef"[number % base];
        number /= base;
    } while (number != 0);
    print(first);
}

extern "C" void onCrash(int number, siginfo_t* info, void*)
{
    // A crash inside this handler, or a loader lock held by the crashed code, must not keep the
    // process alive.
    for (const int signal : crashSignals)
        std::signal(signal, SIG_DFL);
    std::signal(SIGALRM, SIG_DFL);
    alarm(secondsForBacktrace);

    print("Fatal signal ");
    printNumber(static_cast<unsigned>(number), 10);
    print(" at address 0x");
    printNumber(reinterpret_cast<std::uintptr_t>(info->si_addr), 16);
    print(", backtrace:\n");
    void* frames[deepestBacktrace];
    backtrace_symbols_fd(frames, backtrace(frames, deepestBacktrace), STDERR_FILENO);
    raise(number); // blocked until we return, then the default action takes the process
}

} // namespace

void RegisterSegmentFaultHandler()
{
    static const TAMO::Framework::CrashStack stackOfThisThread;
    void* frame = nullptr;
    backtrace(&frame, 1); // the first call loads a library, which a crashed process cannot
    struct sigaction action {};
    action.sa_sigaction = onCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (const int signal : crashSignals)
        sigaction(signal, &action, nullptr);
}
