// A record lock on the node's lock file. It is not inherited by the service that the supervisor starts,
// unlike flock's, so it ends exactly with the supervisor.
#include "NodeLock.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

using TAMO::Framework::Descriptor;

namespace {

struct flock wholeFile()
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// By number: the C library's header cannot be used from C++.
int openProcess(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

} // namespace

bool NodeLock::take(std::string& problem)
{
    m_file.reset(::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!m_file) {
        problem = "cannot open " + m_path + ": " + std::strerror(errno);
        return false;
    }
    struct flock lock = wholeFile();
    if (::fcntl(m_file.get(), F_SETLK, &lock) == 0)
        return true;
    problem = errno == EACCES || errno == EAGAIN ? "the node is up already"
                                                 : "cannot lock " + m_path + ": " + std::strerror(errno);
    return false;
}

pid_t NodeLock::holder(const std::string& path)
{
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC)); // other users may ask, too
    if (!file)
        return 0;
    struct flock lock = wholeFile();
    const int result = ::fcntl(file.get(), F_GETLK, &lock);
    return result == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

bool NodeLock::signalHolder(const std::string& path, int signal)
{
    const pid_t pid = holder(path);
    if (pid <= 0)
        return false;
    const Descriptor process(openProcess(pid));
    if (!process)
        return false;
    // Asked again with the process in hand: the id may have changed owners in between.
    return holder(path) == pid && ::syscall(SYS_pidfd_send_signal, process.get(), signal, nullptr, 0) == 0;
}
