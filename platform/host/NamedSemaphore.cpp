// The lock that the service shares with other processes of the node: it guards the database files
// on flash. A semaphore alone is lost with a holder that is killed, so a file lock goes in front,
// and who still could hold the semaphore is asked of /proc.

#include "platform/framework/Lockables.h"

#include "platform/middleware/Log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace TAMO::Framework {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr mode_t accessMode = 0660;

/// Opens the file beside the semaphore. O_CREAT on another user's file below a sticky directory is
/// refused by the kernel (fs.protected_regular), hence the plain open first. Programs that we start
/// inherit it: when we are killed, our lock lasts until the copy that one of them makes is whole.
int openLockFile(const std::string& path)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW);
        if (fd >= 0 || errno != ENOENT)
            return fd;
        fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CREAT | O_EXCL, accessMode);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

/// Whether a process has a file in its memory. False for one that we may not look into: the file is
/// our user's, and so are those who use it.
bool hasMapped(const fs::path& process, const struct stat& file)
{
    char wanted[64]; // " device inode ", as it stands in each line
    std::snprintf(wanted, sizeof wanted, " %02x:%02x %lu ", major(file.st_dev), minor(file.st_dev), file.st_ino);
    std::ifstream maps(process / "maps");
    for (std::string line; std::getline(maps, line);)
        if (line.find(wanted) != std::string::npos)
            return true;
    return false;
}

/// Whether an entry of the directory fulfils the condition. Processes end while we look: `error` is set
/// when the directory could not be read to its end.
template <class Condition>
bool anyEntry(const fs::path& directory, Condition condition, std::error_code& error)
{
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error))
        if (condition(entry->path()))
            return true;
    return false;
}

bool hasOpen(const fs::path& process, const struct stat& file)
{
    const auto isIt = [&](const fs::path& descriptor) {
        struct stat open {};
        return ::stat(descriptor.c_str(), &open) == 0 && open.st_dev == file.st_dev && open.st_ino == file.st_ino;
    };
    std::error_code ended;
    return anyEntry(process / "fd", isIt, ended);
}

} // namespace

struct NamedSemaphore::State {
    State(std::string ofName, std::chrono::milliseconds betweenLines)
        : name(std::move(ofName)),
          semaphorePath("/dev/shm/sem." + name.substr(1)),
          lockPath("/dev/shm/" + name.substr(1) + ".lock"),
          lineEvery(betweenLines)
    {}
    ~State();
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    template <class Attempt>
    void repeat(Attempt attempt) const;
    bool tryFile() const;
    bool tryCount();
    bool mayBeHeld() const;
    void giveBackForTheDead();

    const std::string name;
    const std::string semaphorePath;
    const std::string lockPath;
    const std::chrono::milliseconds lineEvery;
    Semaphore oneThread{1}; // a file lock does not tell the threads of a process apart
    int file = -1;
    sem_t* semaphore = SEM_FAILED;
    std::atomic<bool> held{false};
    bool counted = false; // the holder took the count
    Clock::time_point nextLook;
};

NamedSemaphore::State::~State()
{
    if (semaphore != SEM_FAILED)
        sem_close(semaphore);
    if (file >= 0)
        ::close(file);
}

/// Attempts until it succeeds, however long that takes, and says once in a while that it waits.
template <class Attempt>
void NamedSemaphore::State::repeat(Attempt attempt) const
{
    const auto begin = Clock::now();
    auto nextLine = begin + lineEvery;
    for (auto pause = 100us; !attempt(); pause = std::min<std::chrono::microseconds>(2 * pause, 50ms)) {
        std::this_thread::sleep_for(pause);
        if (Clock::now() < nextLine)
            continue;
        nextLine += lineEvery;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
        LOG_WARNING("Semaphore %s: waiting for %lld s, another process holds it", name.c_str(),
                    static_cast<long long>(seconds));
    }
}

bool NamedSemaphore::State::tryFile() const
{
    if (file < 0 || ::flock(file, LOCK_EX | LOCK_NB) == 0)
        return true;
    if (errno == EWOULDBLOCK || errno == EINTR)
        return false;
    LOG_ERROR("Semaphore %s: cannot lock %s: %s", name.c_str(), lockPath.c_str(), std::strerror(errno));
    return true;
}

bool NamedSemaphore::State::tryCount()
{
    if (semaphore == SEM_FAILED)
        return true;
    if (sem_trywait(semaphore) == 0)
        return counted = true;
    if (errno == EAGAIN && Clock::now() >= nextLook) {
        nextLook = Clock::now() + 1s;
        if (!mayBeHeld())
            giveBackForTheDead();
    }
    return false;
}

/// Whether some process can still post what was taken: one that has the semaphore in its memory and
/// is none of those that queue for our file lock.
bool NamedSemaphore::State::mayBeHeld() const
{
    struct stat counter {};
    struct stat lock {};
    if (::stat(semaphorePath.c_str(), &counter) != 0 || (file >= 0 && ::fstat(file, &lock) != 0))
        return true;
    const std::string self = std::to_string(::getpid());
    const auto mayHold = [&](const fs::path& process) {
        const std::string number = process.filename();
        const bool isOther = number.find_first_not_of("0123456789") == std::string::npos && number != self;
        return isOther && hasMapped(process, counter) && !(file >= 0 && hasOpen(process, lock));
    };
    std::error_code error;
    return anyEntry("/proc", mayHold, error) || error;
}

void NamedSemaphore::State::giveBackForTheDead()
{
    int count = 0;
    if (sem_getvalue(semaphore, &count) != 0 || count > 0)
        return; // its holder posted before it ended
    LOG_WARNING("Semaphore %s is held by no process that is alive: its holder died. Given back.", name.c_str());
    sem_post(semaphore);
}

NamedSemaphore::NamedSemaphore(const std::string& name, unsigned initialCount, std::chrono::milliseconds lineEvery)
    : m_state(std::make_unique<State>(name, lineEvery))
{
    const char* const lockPath = m_state->lockPath.c_str();
    m_state->file = openLockFile(m_state->lockPath);
    if (m_state->file < 0)
        LOG_ERROR("Semaphore %s: cannot open its lock file %s: %s. A killed holder may not be noticed.", name.c_str(),
                  lockPath, std::strerror(errno));
    struct stat existing {};
    // A file too short to be one would end the process at the first look at its count.
    if (::stat(m_state->semaphorePath.c_str(), &existing) == 0 && existing.st_size < static_cast<off_t>(sizeof(sem_t)))
        errno = EINVAL;
    else
        m_state->semaphore = sem_open(name.c_str(), O_CREAT, accessMode, std::min(initialCount, 1U));
    if (m_state->semaphore == SEM_FAILED)
        LOG_ERROR("Semaphore %s cannot be opened: %s. The lock file %s stands in for it.", name.c_str(),
                  std::strerror(errno), lockPath);
}

NamedSemaphore::~NamedSemaphore() = default;

void NamedSemaphore::lock()
{
    m_state->oneThread.lock();
    m_state->repeat([this] { return m_state->tryFile(); });
    m_state->nextLook = {};
    m_state->repeat([this] { return m_state->tryCount(); });
    m_state->held = true;
}

void NamedSemaphore::unlock()
{
    if (!m_state->held.exchange(false))
        return; // only what was taken is given back
    int count = 0;
    if (std::exchange(m_state->counted, false) && sem_getvalue(m_state->semaphore, &count) == 0 && count <= 0)
        sem_post(m_state->semaphore);
    if (m_state->file >= 0)
        ::flock(m_state->file, LOCK_UN);
    m_state->oneThread.unlock();
}

} // namespace TAMO::Framework
