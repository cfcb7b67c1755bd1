// A mount namespace for a test program, and file systems with faults inside it.

#include "tests/support/PrivateTmp.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <set>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

bool isPrivate = false;

bool writeTo(const char* file, const std::string& text) { return bool(std::ofstream(file) << text << std::flush); }

/// With a user namespace that knows only this user where mounting is not for us otherwise.
bool enterNamespace()
{
    if (unshare(CLONE_NEWNS) != 0) {
        const std::string user = std::to_string(getuid());
        const std::string group = std::to_string(getgid());
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !writeTo("/proc/self/setgroups", "deny") ||
            !writeTo("/proc/self/uid_map", user + " " + user + " 1") ||
            !writeTo("/proc/self/gid_map", group + " " + group + " 1"))
            return false;
    }
    return mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool mountMemory(const std::string& directory, const std::string& options)
{
    return mount("tmpfs", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
}

/// The entries of /tmp that this run works in: a clone that was made there, and its build.
std::set<std::string> entriesInUse()
{
    std::set<std::string> entries;
    for (const fs::path& path : {fs::current_path(), fs::read_symlink("/proc/self/exe")}) {
        const fs::path below = path.lexically_relative("/tmp");
        const fs::path entry = "/tmp" / *below.begin();
        if (*below.begin() != ".." && *below.begin() != "." && fs::is_directory(entry))
            entries.insert(entry);
    }
    return entries;
}

bool coverDirectories()
{
    std::vector<std::pair<std::string, int>> kept;
    for (const std::string& entry : entriesInUse())
        kept.emplace_back(entry, open(entry.c_str(), O_PATH | O_CLOEXEC));
    bool covered = mountMemory("/dev/shm", "mode=1777") && mountMemory("/tmp", "mode=1777");
    for (const auto& [entry, descriptor] : kept) {
        fs::create_directories(entry);
        const std::string source = "/proc/self/fd/" + std::to_string(descriptor);
        covered = covered && mount(source.c_str(), entry.c_str(), nullptr, MS_BIND, nullptr) == 0;
        close(descriptor);
    }
    return covered;
}

class PrivateTmp : public testing::Environment {
public:
    void SetUp() override { enterPrivateTmp(); }
};

} // namespace

bool givePrivateTmp() { return testing::AddGlobalTestEnvironment(new PrivateTmp) != nullptr; }

bool enterPrivateTmp() { return isPrivate = enterNamespace() && coverDirectories(); }

bool hasPrivateTmp() { return isPrivate; }

StoringTurn::StoringTurn()
{
    if (isPrivate)
        return;
    // Another user's file may be read and locked, but not opened with O_CREAT below a sticky directory.
    const char* const file = "/tmp/tamo_storing_tests.lock";
    m_lock = open(file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (m_lock < 0)
        m_lock = open(file, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    while (m_lock >= 0 && flock(m_lock, LOCK_EX) != 0 && errno == EINTR) {
    }
}

StoringTurn::~StoringTurn()
{
    if (m_lock >= 0)
        close(m_lock);
}

SmallDrive::SmallDrive(std::string directory, std::size_t bytes) : m_directory(std::move(directory))
{
    EXPECT_TRUE(mountMemory(m_directory, "size=" + std::to_string(bytes))) << std::strerror(errno);
}

SmallDrive::~SmallDrive() { EXPECT_EQ(umount2(m_directory.c_str(), MNT_DETACH), 0); }

bool SmallDrive::setReadOnly(bool readOnly) const
{
    const unsigned long flags =
        MS_REMOUNT | MS_NOSUID | MS_NODEV | (readOnly ? static_cast<unsigned long>(MS_RDONLY) : 0);
    return mount("tmpfs", m_directory.c_str(), "tmpfs", flags, nullptr) == 0;
}

namespace {

bool resizeTmp(const std::string& size)
{
    return mount("tmpfs", "/tmp", "tmpfs", MS_REMOUNT | MS_NOSUID | MS_NODEV, ("size=" + size).c_str()) == 0;
}

} // namespace

NearlyFullTmp::NearlyFullTmp(std::size_t freeBytes)
{
    struct statvfs now {};
    EXPECT_EQ(statvfs("/tmp", &now), 0);
    const std::size_t used = (now.f_blocks - now.f_bfree) * now.f_frsize;
    EXPECT_TRUE(resizeTmp(std::to_string(used + freeBytes))) << std::strerror(errno);
}

NearlyFullTmp::~NearlyFullTmp() { EXPECT_TRUE(resizeTmp("50%")); }
