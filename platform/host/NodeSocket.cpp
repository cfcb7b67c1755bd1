// Socket files of nodes and who may use them. What travels over a connection is the business of
// PeerConnection.cpp.

#include "platform/host/NodeSocket.h"

#include "platform/host/Frame.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace TAMO::Framework {

namespace {

constexpr mode_t directoryMode = 0750;
constexpr mode_t socketMode = 0660;

std::string systemProblem(const std::string& what) { return what + ": " + std::strerror(errno); }

bool makeAddress(const std::string& path, sockaddr_un& address, std::string& problem)
{
    if (path.size() > Wire::maxSocketPath) {
        problem = "the socket path has " + std::to_string(path.size()) + " characters, at most " +
                  std::to_string(Wire::maxSocketPath) + " are possible: " + path;
        return false;
    }
    address = {};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return true;
}

/// Makes the directory and those above it; an existing one keeps its mode.
bool makeDirectory(const std::string& directory, std::string& problem)
{
    std::error_code error;
    if (std::filesystem::is_directory(directory, error))
        return true;
    std::filesystem::create_directories(directory, error);
    if (error || ::chmod(directory.c_str(), directoryMode) != 0) {
        problem = "cannot make the directory " + directory + ": " + (error ? error.message() : std::strerror(errno));
        return false;
    }
    return true;
}

/// Nobody else holds the name while we hold the lock, so what stands at the path belongs to a
/// process that is gone.
bool removeStaleSocket(const std::string& path, std::string& problem)
{
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0)
        return true;
    if (!S_ISSOCK(found.st_mode)) {
        problem = path + " exists and is not a socket";
        return false;
    }
    if (::unlink(path.c_str()) != 0) {
        problem = systemProblem("cannot remove the old socket " + path);
        return false;
    }
    return true;
}

std::vector<gid_t> peerGroups(int fd)
{
    std::vector<gid_t> groups(64);
    for (int attempt = 0; attempt < 2; ++attempt) {
        auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const bool read = ::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) == 0;
        if (!read && errno != ERANGE)
            return {};
        groups.resize(length / sizeof(gid_t)); // the size that is needed, when it was not enough
        if (read)
            return groups;
    }
    return {};
}

} // namespace

Descriptor NodeSocket::open(const std::string& directory, const std::string& name, std::string& problem)
{
    const std::string path = Wire::socketPath(directory, name);
    sockaddr_un address{};
    if (!makeAddress(path, address, problem) || !makeDirectory(directory, problem))
        return Descriptor();

    const std::string lockPath = directory + '/' + name + ".lock";
    Descriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, socketMode));
    if (!lock) {
        problem = systemProblem("cannot open " + lockPath);
        return Descriptor();
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        problem = errno == EWOULDBLOCK ? "another process runs as this node, it holds " + lockPath
                                       : systemProblem("cannot lock " + lockPath);
        return Descriptor();
    }
    if (!removeStaleSocket(path, problem))
        return Descriptor();

    Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    struct stat made {};
    // The mode before bind: the file never stands there with more than it ends with.
    if (!listener || ::fchmod(listener.get(), socketMode) != 0 ||
        ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), socketMode) != 0 || ::stat(path.c_str(), &made) != 0 ||
        ::listen(listener.get(), SOMAXCONN) != 0) {
        problem = systemProblem("cannot listen on " + path);
        return Descriptor();
    }
    m_lock = std::move(lock);
    m_path = path;
    m_group = made.st_gid;
    return listener;
}

void NodeSocket::close()
{
    if (!m_lock)
        return;
    ::unlink(m_path.c_str());
    m_lock.reset(); // the lock file stays: removing it could take a successor's name away
}

Descriptor connectTo(const std::string& path, gid_t& group, std::string& problem)
{
    sockaddr_un address{};
    if (!makeAddress(path, address, problem))
        return Descriptor();
    Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    struct stat file {};
    if (!fd || ::stat(path.c_str(), &file) != 0 ||
        ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        problem = systemProblem("cannot connect to " + path);
        return Descriptor();
    }
    group = file.st_gid;
    return fd;
}

PeerProcess peerProcess(int fd, gid_t group)
{
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return {};
    const std::vector<gid_t> groups = peerGroups(fd);
    const bool member = credentials.gid == group || std::find(groups.begin(), groups.end(), group) != groups.end();
    return {credentials.pid, credentials.uid, credentials.uid == ::geteuid() || credentials.uid == 0 || member};
}

} // namespace TAMO::Framework
