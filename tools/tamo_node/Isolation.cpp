// A mount namespace of its own for a node. Without the right to make one, a user namespace that maps
// nobody but this user gives it; where that is forbidden too, nodes share the machine's directories.
#include "Isolation.h"

#include "platform/host/Descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

std::string shared(const std::string& what) { return "shared: " + what + ": " + std::strerror(errno); }

bool isBelow(const std::string& path, const std::string& directory) { return path.starts_with(directory + '/'); }

bool writeTo(const char* file, const std::string& text)
{
    std::ofstream stream(file);
    return static_cast<bool>(stream << text << std::flush);
}

bool unshareMounts()
{
    if (::unshare(CLONE_NEWNS) == 0)
        return true;
    const auto uid = std::to_string(::getuid());
    const auto gid = std::to_string(::getgid());
    return errno == EPERM && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeTo("/proc/self/setgroups", "deny") &&
           writeTo("/proc/self/uid_map", uid + ' ' + uid + " 1") &&
           writeTo("/proc/self/gid_map", gid + ' ' + gid + " 1");
}

/// A directory held open, so that it can be mounted again after its path has been covered.
class Held {
public:
    explicit Held(std::string path) : m_path(std::move(path)), m_directory(::open(m_path.c_str(), O_PATH | O_CLOEXEC))
    {}
    bool mountAgain() const
    {
        std::error_code error;
        fs::create_directories(m_path, error);
        const std::string source = "/proc/self/fd/" + std::to_string(m_directory.get());
        return ::mount(source.c_str(), m_path.c_str(), nullptr, MS_BIND, nullptr) == 0;
    }

private:
    std::string m_path;
    TAMO::Framework::Descriptor m_directory;
};

/// Covers `target` with what `cover` mounts there; the directories `keep` below it come back on top.
/// On failure the target is as it was.
template <class Cover>
bool coverDirectory(const std::string& target, const std::vector<std::string>& keep, Cover cover)
{
    std::vector<Held> held;
    for (const auto& path : keep)
        if (isBelow(path, target))
            held.emplace_back(path);
    if (!cover(target.c_str()))
        return false;
    if (std::all_of(held.begin(), held.end(), [](const Held& directory) { return directory.mountAgain(); }))
        return true;
    const int why = errno;
    ::umount2(target.c_str(), MNT_DETACH);
    errno = why;
    return false;
}

} // namespace

std::string enterPrivateNamespace(const std::string& privateTmp, const std::vector<std::string>& keep)
{
    for (const auto& path : keep)
        if (path == "/tmp" || path == "/dev/shm")
            return "shared: files of the node lie directly in " + path;
    std::vector<std::string> sorted = keep; // a directory before those inside it
    std::sort(sorted.begin(), sorted.end());
    if (!unshareMounts())
        return shared("no mount namespace");
    if (::mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return shared("mounts cannot be made private");
    const auto ownTmp = [&](const char* target) {
        return ::mount(privateTmp.c_str(), target, nullptr, MS_BIND, nullptr) == 0;
    };
    const auto memory = [](const char* target) {
        return ::mount("tmpfs", target, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") == 0;
    };
    if (!coverDirectory("/dev/shm", sorted, memory))
        return shared("/dev/shm");
    if (!coverDirectory("/tmp", sorted, ownTmp)) {
        std::string why = shared("/tmp");
        ::umount2("/dev/shm", MNT_DETACH);
        return why;
    }
    return "private";
}
