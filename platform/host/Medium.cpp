// The copies that stand for a simulated node's storage. Each is replaced as a whole, so that a process
// killed at any moment leaves the old or the new one; a list of what was copied is kept beside them.
#include "platform/host/Medium.h"

#include "platform/host/Descriptor.h"
#include "platform/host/NodeState.h"
#include "platform/middleware/Log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;
using TAMO::Framework::Descriptor;

namespace {

constexpr std::int64_t second = 1000000000;
/// File times advance in steps of a few milliseconds: within one, a file may change without showing it.
constexpr std::int64_t timeStep = second / 20;

std::int64_t nanoseconds(const timespec& time) { return time.tv_sec * second + time.tv_nsec; }

std::int64_t now()
{
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return nanoseconds(time);
}

bool failed(std::string& problem, const std::string& what, const std::string& path)
{
    problem = what + ' ' + path + ": " + std::strerror(errno);
    return false;
}

bool copyContent(int from, int to)
{
    for (;;) {
        const ssize_t done = ::copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30, 0);
        if (done == 0)
            return true;
        if (done < 0 && errno != EINTR)
            break;
    }
    if (errno != EXDEV && errno != EINVAL && errno != EOPNOTSUPP && errno != ENOSYS)
        return false;
    std::vector<char> block(1 << 20);
    for (;;) {
        const ssize_t got = ::read(from, block.data(), block.size());
        if (got <= 0)
            return got == 0;
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::write(to, block.data() + done, static_cast<std::size_t>(got - done));
            if (put < 0)
                return false;
            done += put;
        }
    }
}

std::string indexFile(const std::string& directory) { return directory + "/index"; }

} // namespace

std::optional<Medium> Medium::ofThisNode()
{
    const char* directory = std::getenv("TAMO_NODE_MEDIUM");
    return directory && *directory ? std::optional<Medium>(Medium(directory)) : std::nullopt;
}

Medium::Medium(std::string directory)
    : m_directory(std::move(directory)), m_node(fs::path(m_directory).parent_path().string())
{}

bool Medium::settleAll() const { return change("", &Medium::takeAll); }

bool Medium::settle(const std::string& path) const
{
    const auto relative = relativeTo(path);
    return !relative || change(*relative, &Medium::takeOne);
}

std::vector<std::string> Medium::files() const
{
    std::set<std::string> found;
    std::error_code error;
    for (const auto& tree : trees()) {
        fs::recursive_directory_iterator entry(mirrored(tree), fs::directory_options::skip_permission_denied, error);
        for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error))
            if (std::error_code ignored; entry->symlink_status(ignored).type() == fs::file_type::regular)
                found.insert(entry->path().string().substr(m_node.size() + 1));
    }
    return {found.begin(), found.end()};
}

Medium::Index Medium::index() const
{
    Index index;
    std::ifstream file(indexFile(m_directory));
    Entry entry;
    std::string relative;
    while (file >> entry.inode >> entry.size >> entry.changed >> entry.copied && file.get() == ' ' &&
           std::getline(file, relative))
        index[relative] = entry;
    return index;
}

std::vector<std::string> Medium::trees() const
{
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(m_directory, error), end; !error && entry != end; entry.increment(error))
        if (entry->is_directory(error))
            names.push_back(entry->path().filename().string());
    return names;
}

std::optional<std::string> Medium::relativeTo(const std::string& path) const
{
    if (!path.starts_with(m_node + '/') || path.starts_with(m_directory + '/'))
        return std::nullopt;
    const std::string relative = path.substr(m_node.size() + 1);
    struct stat tree {};
    const std::string top = relative.substr(0, relative.find('/'));
    if (::stat(copy(top).c_str(), &tree) != 0 || !S_ISDIR(tree.st_mode))
        return std::nullopt;
    return relative;
}

/// Runs `step` with other threads and processes kept out by a lock of its own open file, and saves the index.
bool Medium::change(const std::string& what, bool (Medium::*step)(const std::string&, Index&, std::string&) const) const
{
    const std::string lockName = m_directory + "/lock";
    const Descriptor lock(::open(lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    std::string problem;
    bool done = static_cast<bool>(lock) || failed(problem, "cannot open", lockName);
    while (done && ::flock(lock.get(), LOCK_EX) != 0)
        done = errno == EINTR || failed(problem, "cannot lock", lockName);
    if (done) {
        Index known = index();
        done = (this->*step)(what, known, problem);
        std::string lines;
        for (const auto& [relative, entry] : known)
            lines += std::to_string(entry.inode) + ' ' + std::to_string(entry.size) + ' ' +
                     std::to_string(entry.changed) + ' ' + std::to_string(entry.copied) + ' ' + relative + '\n';
        done = replaceFile(indexFile(m_directory), lines, problem) && done;
    }
    if (!done)
        LOG_ERROR("node: the medium is not up to date: %s", problem.c_str());
    return done;
}

bool Medium::takeAll(const std::string&, Index& index, std::string& problem) const
{
    const auto present = files();
    bool done = true;
    for (const auto& relative : present)
        done = take(relative, index, problem) && done;
    const std::set<std::string> kept(present.begin(), present.end());
    std::erase_if(index, [&](const auto& known) {
        return !kept.contains(known.first) && (::unlink(copy(known.first).c_str()) == 0 || errno == ENOENT);
    });
    return done;
}

bool Medium::takeOne(const std::string& relative, Index& index, std::string& problem) const
{
    struct stat entry {};
    if (::stat(mirrored(relative).c_str(), &entry) == 0 && S_ISDIR(entry.st_mode))
        return takeListing(relative, index, problem);
    return take(relative, index, problem);
}

/// What a synchronised directory guarantees: which names are gone. Files that are new are not yet written.
bool Medium::takeListing(const std::string& relative, Index& index, std::string&) const
{
    std::erase_if(index, [&](const auto& known) {
        struct stat entry {};
        return fs::path(known.first).parent_path() == relative && ::lstat(mirrored(known.first).c_str(), &entry) != 0 &&
               ::unlink(copy(known.first).c_str()) == 0;
    });
    return true;
}

bool Medium::take(const std::string& relative, Index& index, std::string& problem) const
{
    const Descriptor from(::open(mirrored(relative).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat file {};
    if (!from || ::fstat(from.get(), &file) != 0)
        return errno == ENOENT || failed(problem, "cannot read", mirrored(relative));
    if (!S_ISREG(file.st_mode))
        return true;
    const Entry found{file.st_ino, file.st_size, nanoseconds(file.st_mtim), now()};
    const auto known = index.find(relative);
    if (known != index.end() && known->second.inode == found.inode && known->second.size == found.size &&
        known->second.changed == found.changed && known->second.copied - known->second.changed > timeStep)
        return true;
    const std::string target = copy(relative);
    std::error_code error;
    fs::create_directories(fs::path(target).parent_path(), error);
    std::string temporary = target + ".XXXXXX";
    const Descriptor to(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!to)
        return failed(problem, "cannot create a file beside", target);
    if (copyContent(from.get(), to.get()) && ::rename(temporary.c_str(), target.c_str()) == 0) {
        index[relative] = found;
        return true;
    }
    failed(problem, "cannot copy", mirrored(relative));
    ::unlink(temporary.c_str());
    return false;
}

namespace {

/// After a file was synchronised, by a number that may be any file's.
int settled(int result, int descriptor)
{
    const auto medium = result == 0 ? Medium::ofThisNode() : std::nullopt;
    if (!medium)
        return result;
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    if (length > 0 && length < static_cast<ssize_t>(sizeof path))
        medium->settle(std::string(path, static_cast<std::size_t>(length)));
    errno = 0;
    return result;
}

int synchronise(long call, int descriptor)
{
    const int result = static_cast<int>(::syscall(call, descriptor));
    return settled(result, descriptor);
}

} // namespace

// A program's own definitions come before the C library's, for the libraries it loads as well.
extern "C" int fsync(int descriptor) { return synchronise(SYS_fsync, descriptor); }
extern "C" int fdatasync(int descriptor) { return synchronise(SYS_fdatasync, descriptor); }
