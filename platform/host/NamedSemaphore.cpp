// The lock that the service shares with other processes of the node: it guards the database files
// on flash. A semaphore alone is lost with a holder that is killed, so a file lock goes in front.

#include "platform/framework/Lockables.h"

#include "platform/middleware/Log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>
#include <unistd.h>

namespace TAMO::Framework {

namespace {

constexpr mode_t accessMode = 0660;
constexpr int patienceSeconds = 5;

/// Opens the file beside the semaphore. O_CREAT on another user's file below a sticky directory is
/// refused by the kernel (fs.protected_regular), hence the plain open first.
int openLockFile(const std::string& path)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd >= 0 || errno != ENOENT)
            return fd;
        fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_CREAT | O_EXCL, accessMode);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

/// Waits for the count; false when it was still 0 at the end of our patience.
bool waitForCount(sem_t* semaphore)
{
    if (sem_trywait(semaphore) == 0)
        return true;
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += patienceSeconds;
    while (sem_clockwait(semaphore, CLOCK_MONOTONIC, &until) != 0)
        if (errno != EINTR)
            return false;
    return true;
}

} // namespace

struct NamedSemaphore::State {
    explicit State(std::string ofName) : name(std::move(ofName)), lockPath("/dev/shm/" + name.substr(1) + ".lock") {}
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void lockFile();
    void takeCount();
    void giveCountBack();

    const std::string name;
    const std::string lockPath;
    Semaphore oneThread{1}; // a file lock does not tell the threads of a process apart
    int file = -1;
    sem_t* semaphore = SEM_FAILED;
};

NamedSemaphore::State::~State()
{
    if (semaphore != SEM_FAILED)
        sem_close(semaphore);
    if (file >= 0)
        ::close(file);
}

void NamedSemaphore::State::lockFile()
{
    if (file < 0)
        return;
    while (::flock(file, LOCK_EX) != 0)
        if (errno != EINTR) {
            LOG_ERROR("Semaphore %s: cannot lock %s: %s", name.c_str(), lockPath.c_str(), std::strerror(errno));
            return;
        }
}

void NamedSemaphore::State::takeCount()
{
    // We own the file lock, so no live holder of this class has the count. The second round is only
    // for a stranger who took what we gave back.
    while (semaphore != SEM_FAILED && !waitForCount(semaphore)) {
        LOG_WARNING("Semaphore %s is still held after %d s while its lock is free: its holder died. Given back.",
                    name.c_str(), patienceSeconds);
        giveCountBack();
    }
}

void NamedSemaphore::State::giveCountBack()
{
    int count = 0;
    if (semaphore != SEM_FAILED && sem_getvalue(semaphore, &count) == 0 && count <= 0)
        sem_post(semaphore);
}

NamedSemaphore::NamedSemaphore(const std::string& name, unsigned initialCount) : m_state(std::make_unique<State>(name))
{
    m_state->file = openLockFile(m_state->lockPath);
    if (m_state->file < 0)
        LOG_ERROR("Semaphore %s: cannot open its lock file %s: %s. A killed holder will not be noticed.", name.c_str(),
                  m_state->lockPath.c_str(), std::strerror(errno));
    m_state->semaphore = sem_open(name.c_str(), O_CREAT, accessMode, std::min(initialCount, 1U));
    if (m_state->semaphore == SEM_FAILED)
        LOG_ERROR("Semaphore %s cannot be opened: %s. The lock file %s stands in for it.", name.c_str(),
                  std::strerror(errno), m_state->lockPath.c_str());
}

NamedSemaphore::~NamedSemaphore() = default;

void NamedSemaphore::lock()
{
    m_state->oneThread.lock();
    m_state->lockFile();
    m_state->takeCount();
}

void NamedSemaphore::unlock()
{
    m_state->giveCountBack();
    if (m_state->file >= 0)
        ::flock(m_state->file, LOCK_UN);
    m_state->oneThread.unlock();
}

} // namespace TAMO::Framework
