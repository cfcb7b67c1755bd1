#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace TAMO::Framework {

class Lockable {
public:
    virtual ~Lockable() = default;
    virtual void lock() = 0;
    virtual void unlock() = 0;
};

/// Locks on construction, unlocks on destruction.
class LockUser {
public:
    explicit LockUser(Lockable& lockable) : m_lockable(lockable) { m_lockable.lock(); }
    ~LockUser() { m_lockable.unlock(); }
    LockUser(const LockUser&) = delete;
    LockUser& operator=(const LockUser&) = delete;

private:
    Lockable& m_lockable;
};

class Mutex : public Lockable {
public:
    /// With `recursive` set the holder may lock again.
    explicit Mutex(bool recursive);
    ~Mutex() override;
    void lock() override;
    void unlock() override;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// A counting semaphore of this process.
class Semaphore : public Lockable {
public:
    explicit Semaphore(unsigned initialCount);
    ~Semaphore() override;
    void lock() override;
    void unlock() override;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// A semaphore of the whole machine that survives a holder that was killed.
///
/// A POSIX semaphore stays at 0 for ever when its holder gets SIGKILL, so each name is paired with a
/// lock file, which the kernel frees; those of this class queue there. Whoever owns it and sees a
/// count of 0 waits for a holder that knows the semaphore only, and gives the count back, with a
/// warning line, once no living process has that semaphore in its memory. The count never rises
/// above 1, and the name is never unlinked.
class NamedSemaphore : public Lockable {
public:
    /// `name` begins with "/". When the semaphore cannot be opened an error line says why and
    /// lock() falls back to the file lock alone.
    NamedSemaphore(const std::string& name, unsigned initialCount,
                   std::chrono::milliseconds lineEvery = std::chrono::minutes(1));
    ~NamedSemaphore() override;
    /// Waits for ever, with a warning line every `lineEvery`.
    void lock() override;
    /// Does nothing when it is not held.
    void unlock() override;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace TAMO::Framework
