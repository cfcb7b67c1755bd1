// Starts and collects the service under test. The child is made with fork, because only its own code
// can ask to be killed with its parent.
#include "ServiceProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// In the child, beside the parent's threads: nothing but calls that a signal handler may make.
[[noreturn]] void becomeService(const char* program, const char* directory, pid_t parent, int report)
{
    for (int number = 1; number < NSIG; ++number)
        ::signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::setsid(); // the terminal's Ctrl-C is for the supervisor, which then ends the service in order
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) // it died before the line above
        ::_exit(127);
    char* const arguments[] = {const_cast<char*>(program), nullptr};
    if (::chdir(directory) == 0)
        ::execv(program, arguments);
    const int error = errno;
    [[maybe_unused]] const ssize_t told = ::write(report, &error, sizeof error);
    ::_exit(127);
}

} // namespace

bool ServiceProcess::start(const std::string& program, const std::string& directory, std::string& problem)
{
    int report[2]; // closed by a successful exec, else it brings the reason
    if (::pipe2(report, O_CLOEXEC) != 0) {
        problem = std::string("no pipe: ") + std::strerror(errno);
        return false;
    }
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0)
        becomeService(program.c_str(), directory.c_str(), parent, report[1]);
    int error = child < 0 ? errno : 0;
    ::close(report[1]);
    if (child > 0 && ::read(report[0], &error, sizeof error) != sizeof error)
        error = 0;
    ::close(report[0]);
    if (error != 0) {
        if (child > 0)
            ::waitpid(child, nullptr, 0);
        problem = "cannot start " + program + ": " + std::strerror(error);
        return false;
    }
    m_pid = child;
    return true;
}

void ServiceProcess::signal(int number) const
{
    if (m_pid > 0) // not collected yet, so the id is still its own
        ::kill(m_pid, number);
}

void ServiceProcess::killAll() const
{
    if (m_pid > 0) // it leads a group of that number
        ::kill(-m_pid, SIGKILL);
}

bool ServiceProcess::collect(NodeRecord& record)
{
    siginfo_t ended{};
    if (m_pid <= 0 || ::waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        ended.si_pid != m_pid)
        return false;
    killAll(); // while its number cannot be given to others
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    // Its commands are our children now (Supervisor::run asks for that); they must not write any more.
    while (::waitpid(-m_pid, nullptr, 0) > 0) {
    }
    m_pid = 0;
    record.exitCode.reset();
    record.signal.reset();
    if (WIFEXITED(status))
        record.exitCode = WEXITSTATUS(status);
    else
        record.signal = WTERMSIG(status);
    return true;
}
