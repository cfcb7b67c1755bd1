#pragma once

#include "NodeRecord.h"

#include <string>
#include <sys/types.h>

/// The running tamo_db of a node. It is killed with the supervisor's main thread, so a killed
/// supervisor leaves nothing behind.
class ServiceProcess {
public:
    /// Starts `program` without arguments, in `directory`, with this process's environment, standard
    /// output and error. False with a reason when it cannot be executed.
    [[nodiscard]] bool start(const std::string& program, const std::string& directory, std::string& problem);

    bool running() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }
    void signal(int number) const;
    /// Kills it and every command it runs.
    void killAll() const;
    /// True when the process has ended since; its exit code or signal is then in `record`, and the commands
    /// it was running are gone, too.
    bool collect(NodeRecord& record);

private:
    pid_t m_pid = 0;
};
