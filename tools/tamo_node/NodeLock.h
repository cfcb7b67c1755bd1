#pragma once

#include "platform/host/Descriptor.h"

#include <string>
#include <sys/types.h>

/// The lock that a node's supervisor holds for as long as it lives.
///
/// The kernel frees it with the process and names the holder to whoever asks. A process id read from
/// a file could by now belong to a stranger; this one cannot.
class NodeLock {
public:
    explicit NodeLock(std::string path) : m_path(std::move(path)) {}

    /// Takes the lock for this process. False with a reason, also when another process has it.
    [[nodiscard]] bool take(std::string& problem);

    /// The process that holds the lock of the node with this lock file, 0 when nobody does.
    static pid_t holder(const std::string& path);
    /// Signals the holder; false when nobody holds the lock (any more).
    static bool signalHolder(const std::string& path, int signal);

private:
    std::string m_path;
    TAMO::Framework::Descriptor m_file;
};
