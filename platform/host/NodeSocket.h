#pragma once

#include "platform/host/Descriptor.h"

#include <string>
#include <sys/types.h>

namespace TAMO::Framework {

/// The listening socket file of a node, and the lock file beside it that keeps a second live
/// instance from taking the name.
class NodeSocket {
public:
    NodeSocket() = default;
    ~NodeSocket() { close(); }
    NodeSocket(const NodeSocket&) = delete;
    NodeSocket& operator=(const NodeSocket&) = delete;

    /// Makes the directory (0750) when it is missing, replaces the socket of a process that is gone
    /// and listens (0660). Returns the descriptor, which is the caller's; an empty one leaves the
    /// reason in `problem`.
    Descriptor open(const std::string& directory, const std::string& name, std::string& problem);
    /// Removes the socket file and gives the name free.
    void close();
    /// The group whose members may connect.
    gid_t group() const { return m_group; }

private:
    Descriptor m_lock;
    std::string m_path;
    gid_t m_group = 0;
};

/// Connects without waiting; an empty descriptor leaves the reason in `problem`. `group` becomes
/// the group of the socket file.
Descriptor connectTo(const std::string& path, gid_t& group, std::string& problem);

/// The process at the other end of a connection.
struct PeerProcess {
    pid_t pid = 0;
    uid_t uid = 0;
    /// Our own user, root, or a member of `group`.
    bool permitted = false;
};
PeerProcess peerProcess(int fd, gid_t group);

} // namespace TAMO::Framework
