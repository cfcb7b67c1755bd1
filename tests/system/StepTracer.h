#pragma once

#include "Process.h"

#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// A service on a node of its own whose every change to a file can be counted and cut short: the node is
/// a directory with a /tmp (tmp) and a /dev/shm (shm) that outlive the service, as they outlive a service
/// that dies while the node goes on.

/// A system call that changes a file, made by the service or by a command that it runs.
struct Step {
    std::string call;
    std::string file; ///< inside the node, without the node's own path; of execve the program
    bool ofService = false;

    std::string name() const { return call + ' ' + file; }
};

/// Where and how the service is killed.
struct Blow {
    enum class Moment {
        before, ///< the call is not made
        midway, ///< of what it writes, half is written; other calls are not made
        after   ///< the call has been carried out
    };
    enum class Victim {
        all,         ///< with the commands it runs, as in a power cut
        serviceAlone ///< its commands go on to their end
    };
    std::size_t step = 0; ///< counted from the moment of arming, the first is 1
    Moment moment = Moment::before;
    Victim victim = Victim::all;
};

class IsolatedService {
public:
    enum class Tracing { off, on };

    /// Starts tamo_db; `node` needs the directories tmp and shm. Steps are counted from the start with
    /// `armed`, else from arm() on. Without tracing nothing is counted and no blow falls.
    IsolatedService(const std::string& node, const Environment& environment, Tracing tracing,
                    const std::optional<Blow>& blow = {}, bool armed = true);
    ~IsolatedService();
    IsolatedService(const IsolatedService&) = delete;
    IsolatedService& operator=(const IsolatedService&) = delete;

    /// Steps count from now on.
    void arm() const { signal(SIGUSR1); }
    /// SIGTERM for the service.
    void stop() const { signal(SIGTERM); }
    /// SIGKILL, now. Without tracing only for the service.
    void kill(Blow::Victim victim = Blow::Victim::serviceAlone) const
    {
        signal(victim == Blow::Victim::all ? SIGQUIT : SIGUSR2);
    }
    bool running();
    /// The end of the service and of all its commands: its exit code, 128 and the number for a signal.
    /// After a minute it is killed and gives -1.
    int wait();
    /// The steps so far.
    std::vector<Step> steps() const;
    /// What the service has logged.
    std::string log() const { return readFile(m_files.path("log")); }

    /// Why this machine does not let one process trace another, or give it a /tmp of its own; empty when
    /// it does.
    static std::string whyNotPossible();

private:
    void signal(int number) const;
    bool collect();

    TestDirectory m_files; // outside the node: neither log nor list is a file of it
    pid_t m_keeper = 0;
    int m_result = -1;
};
