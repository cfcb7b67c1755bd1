// Signals as a descriptor: a wait for several things at once has no moment in which it could miss one.

#include "tools/tamoctl/Interruption.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

Interruption::Interruption()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    m_descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_descriptor < 0)
        throw std::runtime_error(std::string("signals cannot be waited for: ") + std::strerror(errno));
    pthread_sigmask(SIG_BLOCK, &signals, &m_before);
}

Interruption::~Interruption()
{
    // One that stayed would end the process when it is let through again.
    signalfd_siginfo taken;
    while (::read(m_descriptor, &taken, sizeof taken) > 0) {
    }
    ::close(m_descriptor);
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

bool Interruption::came() const
{
    pollfd poll{m_descriptor, POLLIN, 0};
    return ::poll(&poll, 1, 0) > 0;
}
