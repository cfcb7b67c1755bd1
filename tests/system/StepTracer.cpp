// Follows a service and its commands by ptrace. A filter in the traced processes lets only calls that may
// change files come to a stop, so that the service runs at nearly its own speed. The tracing is done by a
// process of its own, the keeper, which enters the node's namespace, starts the service below itself and
// ends with it; the test's own threads and children have no part in it.
#include "StepTracer.h"

#include "tools/tamo_node/Isolation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <set>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int exitNotPossible = 125;

/// Where a call names the file it changes.
enum class Names { nothing, descriptor, path, pathAt };

struct Watched {
    long number;
    const char* name;
    Names names;
    unsigned argument; ///< which one; with pathAt the directory's descriptor stands before it
};

constexpr Watched watchedCalls[] = {
#ifdef SYS_open
    {SYS_open, "open", Names::path, 0},
    {SYS_rename, "rename", Names::path, 1},
    {SYS_unlink, "unlink", Names::path, 0},
    {SYS_rmdir, "rmdir", Names::path, 0},
    {SYS_mkdir, "mkdir", Names::path, 0},
    {SYS_link, "link", Names::path, 1},
#endif
    {SYS_openat, "open", Names::pathAt, 1},
    {SYS_renameat, "rename", Names::pathAt, 3},
    {SYS_renameat2, "rename", Names::pathAt, 3},
    {SYS_unlinkat, "unlink", Names::pathAt, 1},
    {SYS_mkdirat, "mkdir", Names::pathAt, 1},
    {SYS_linkat, "link", Names::pathAt, 3},
    {SYS_write, "write", Names::descriptor, 0},
    {SYS_writev, "write", Names::descriptor, 0},
    {SYS_pwrite64, "write", Names::descriptor, 0},
    {SYS_pwritev, "write", Names::descriptor, 0},
    {SYS_copy_file_range, "copy", Names::descriptor, 2},
    {SYS_sendfile, "copy", Names::descriptor, 0},
    {SYS_ioctl, "clone", Names::descriptor, 0},
    {SYS_ftruncate, "truncate", Names::descriptor, 0},
    {SYS_truncate, "truncate", Names::path, 0},
    {SYS_fallocate, "allocate", Names::descriptor, 0},
    {SYS_fsync, "fsync", Names::descriptor, 0},
    {SYS_fdatasync, "fsync", Names::descriptor, 0},
    {SYS_sync, "sync", Names::nothing, 0},
    {SYS_syncfs, "sync", Names::nothing, 0},
    {SYS_execve, "execve", Names::path, 0},
};

const Watched* watched(std::uint64_t number)
{
    for (const auto& call : watchedCalls)
        if (call.number == static_cast<long>(number))
            return &call;
    return nullptr;
}

// What happens in the child that becomes the service

/// The calls above stop for the tracer, all others go on.
bool installFilter()
{
    std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const auto& call : watchedCalls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call.number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

[[noreturn]] void becomeService(int gate, bool traced, const char* path)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    char go = 0;
    const bool started = ::read(gate, &go, 1) == 1;
    ::close(gate);
    if (!started || (traced && !installFilter())) {
        std::fprintf(stderr, "seccomp: %s\n", std::strerror(errno));
        ::_exit(exitNotPossible);
    }
    ::execl(path, path, nullptr);
    std::fprintf(stderr, "%s: %s\n", path, std::strerror(errno));
    ::_exit(127);
}

// What happens in the keeper

volatile std::sig_atomic_t armed = 0;
volatile std::sig_atomic_t allDie = 0;
volatile std::sig_atomic_t service = 0; // its process id, while there is one

void onArm(int) { armed = 1; }

void onOrder(int number)
{
    if (number == SIGQUIT)
        allDie = 1; // and the end of the service wakes the keeper
    if (service > 0)
        ::kill(service, number == SIGTERM ? SIGTERM : SIGKILL);
}

void handle(int number, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler; // without SA_RESTART: waiting ends
    ::sigaction(number, &action, nullptr);
}

class Keeper {
public:
    /// `files` is where the list of steps goes; the log is there, too.
    Keeper(std::string node, const std::string& files, std::optional<Blow> blow)
        : m_node(std::move(node)), m_log(files + "/log"), m_steps(files + "/steps", std::ios::app), m_blow(blow)
    {}

    /// Starts the service and sees it through to the end of its last command.
    int keep(const char* path, bool traced);

private:
    bool trace(pid_t pid);
    void follow(pid_t pid, int status);
    void ended(pid_t pid, int status);
    void atCall(pid_t pid);
    void go(pid_t pid, int signal = 0)
    {
        ::ptrace(m_afterwards.contains(pid) ? PTRACE_SYSCALL : PTRACE_CONT, pid, 0, signal);
    }
    bool halve(pid_t pid);
    void strike();
    void killTraced();
    std::optional<Step> stepOf(pid_t pid) const;
    std::string textAt(pid_t pid, std::uint64_t address) const;
    std::string pathOf(pid_t pid, const Watched& call, const std::uint64_t* arguments) const;
    bool isService(pid_t thread) const
    {
        return fs::exists("/proc/" + std::to_string(service) + "/task/" + std::to_string(thread));
    }

    const std::string m_node;
    const std::string m_log;
    std::ofstream m_steps;
    const std::optional<Blow> m_blow;
    std::size_t m_count = 0;
    int m_result = -1;
    bool m_struck = false;
    std::set<pid_t> m_traced;     // threads and processes
    std::set<pid_t> m_afterwards; // whose blow falls at the end of its call
};

int Keeper::keep(const char* path, bool traced)
{
    int gate[2];
    if (::pipe2(gate, O_CLOEXEC) != 0)
        return exitNotPossible;
    service = ::fork();
    if (service == 0) {
        ::close(gate[1]);
        becomeService(gate[0], traced, path);
    }
    if (traced && !trace(service)) {
        std::fprintf(stderr, "ptrace: %s\n", std::strerror(errno));
        ::kill(service, SIGKILL);
        ::waitpid(service, nullptr, 0);
        return exitNotPossible;
    }
    if (::write(gate[1], "g", 1) != 1)
        return exitNotPossible;
    ::close(gate[1]);
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, __WALL);
        if (pid < 0 && errno == EINTR)
            continue;
        if (pid < 0)
            return m_result;
        if (allDie)
            killTraced();
        if (WIFSTOPPED(status))
            follow(pid, status);
        else
            ended(pid, status);
    }
}

bool Keeper::trace(pid_t pid)
{
    constexpr long options = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                             PTRACE_O_TRACEEXEC | PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL;
    m_traced.insert(pid);
    return ::ptrace(PTRACE_SEIZE, pid, 0, options) == 0;
}

void Keeper::ended(pid_t pid, int status)
{
    m_traced.erase(pid);
    m_afterwards.erase(pid);
    if (pid == service) {
        m_result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        service = 0;
    }
}

void Keeper::follow(pid_t pid, int status)
{
    m_traced.insert(pid);
    if (allDie) { // a command that had just been started
        ::kill(pid, SIGKILL);
        return go(pid);
    }
    const int signal = WSTOPSIG(status);
    const int event = status >> 16;
    if (event == PTRACE_EVENT_SECCOMP)
        return atCall(pid);
    if (event == PTRACE_EVENT_STOP && signal != SIGTRAP) {
        ::ptrace(PTRACE_LISTEN, pid, 0, 0);
        return;
    }
    if (event == 0 && signal == (SIGTRAP | 0x80)) { // the call is done
        if (m_afterwards.erase(pid) > 0)
            strike();
        return go(pid);
    }
    go(pid, event == 0 ? signal : 0);
}

void Keeper::atCall(pid_t pid)
{
    const auto step = armed ? stepOf(pid) : std::nullopt;
    if (!step)
        return go(pid);
    ++m_count;
    m_steps << step->call << '\t' << step->file << '\t' << step->ofService << std::endl;
    if (m_blow && m_blow->step == m_count && !m_struck) {
        if (m_blow->moment == Blow::Moment::after || (m_blow->moment == Blow::Moment::midway && halve(pid)))
            m_afterwards.insert(pid);
        else
            strike();
    }
    go(pid);
}

/// Makes the call write half of what it was to; false when it is not one that writes.
bool Keeper::halve(pid_t pid)
{
#ifdef __x86_64__
    user_regs_struct registers{};
    if (::ptrace(PTRACE_GETREGS, pid, 0, &registers) != 0)
        return false;
    unsigned long long* length = nullptr;
    if (registers.orig_rax == SYS_write || registers.orig_rax == SYS_pwrite64)
        length = &registers.rdx;
    else if (registers.orig_rax == SYS_sendfile)
        length = &registers.r10;
    else if (registers.orig_rax == SYS_copy_file_range)
        length = &registers.r8;
    if (!length)
        return false;
    constexpr unsigned long long everything = 64 * 1024; // asked for by who copies until there is no more
    constexpr unsigned long long piece = 6000;           // of a database: not at the end of a page
    *length = *length > everything ? piece : *length / 2;
    return ::ptrace(PTRACE_SETREGS, pid, 0, &registers) == 0;
#else
    return pid == 0;
#endif
}

void Keeper::strike()
{
    m_struck = true;
    allDie = m_blow->victim == Blow::Victim::all;
    if (service > 0)
        ::kill(service, SIGKILL);
    if (allDie)
        killTraced();
}

void Keeper::killTraced()
{
    for (const pid_t pid : m_traced)
        ::kill(pid, SIGKILL);
}

std::optional<Step> Keeper::stepOf(pid_t pid) const
{
    __ptrace_syscall_info info{};
    if (::ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), pid, sizeof info, &info) <= 0 ||
        info.op != PTRACE_SYSCALL_INFO_SECCOMP)
        return std::nullopt;
    const Watched* call = watched(info.seccomp.nr);
    const auto* arguments = reinterpret_cast<const std::uint64_t*>(info.seccomp.args);
    if (!call || (call->number == SYS_ioctl && arguments[1] != FICLONE))
        return std::nullopt;
    const std::uint64_t flags = call->names == Names::pathAt ? arguments[2] : arguments[1];
    if (std::strcmp(call->name, "open") == 0 && (flags & (O_CREAT | O_TRUNC)) == 0)
        return std::nullopt;
    Step step{call->name, pathOf(pid, *call, arguments), isService(pid)};
    if (call->names == Names::nothing || call->number == SYS_execve)
        return step;
    if (step.file == m_log)
        return std::nullopt;
    for (const char* kept : {"/tmp/", "/dev/shm/"}) {
        const std::string below = m_node + '/';
        if (step.file.starts_with(below + "state.json"))
            return std::nullopt; // the middleware's
        if (step.file.starts_with(below))
            return Step{step.call, step.file.substr(below.size()), step.ofService};
        if (step.file.starts_with(kept))
            return Step{step.call, (kept[1] == 't' ? "tmp/" : "shm/") + step.file.substr(std::strlen(kept)),
                        step.ofService};
    }
    return std::nullopt; // a log, a pipe, a socket, a terminal
}

std::string Keeper::pathOf(pid_t pid, const Watched& call, const std::uint64_t* arguments) const
{
    const auto link = [pid](const std::string& name) {
        std::error_code error;
        return fs::read_symlink("/proc/" + std::to_string(pid) + '/' + name, error).string();
    };
    const auto at = [](std::uint64_t descriptor) {
        const int number = static_cast<int>(descriptor);
        return number == AT_FDCWD ? std::string("cwd") : "fd/" + std::to_string(number);
    };
    switch (call.names) {
    case Names::nothing:
        return "";
    case Names::descriptor:
        return link(at(arguments[call.argument]));
    case Names::path:
        return (fs::path(link("cwd")) / textAt(pid, arguments[call.argument])).lexically_normal();
    case Names::pathAt:
        break;
    }
    return (fs::path(link(at(arguments[call.argument - 1]))) / textAt(pid, arguments[call.argument]))
        .lexically_normal();
}

std::string Keeper::textAt(pid_t pid, std::uint64_t address) const
{
    std::string text;
    const std::size_t page = 4096;
    while (text.find('\0') == std::string::npos && text.size() < page) {
        std::array<char, page> block{};
        const std::size_t rest = page - address % page; // the next page may not be there
        const iovec local{block.data(), rest};
        const iovec remote{reinterpret_cast<void*>(address), rest};
        const ssize_t got = ::process_vm_readv(pid, &local, 1, &remote, 1, 0);
        if (got <= 0)
            break;
        text.append(block.data(), static_cast<std::size_t>(got));
        address += static_cast<std::uint64_t>(got);
    }
    return text.c_str();
}

/// Nobody's service: whether a process of this machine may be traced and filtered.
int tryTracing()
{
    Keeper keeper("/nonexistent", "/nonexistent", {});
    return keeper.keep("/bin/true", true);
}

bool bind(const std::string& source, const char* target)
{
    return ::mount(source.c_str(), target, nullptr, MS_BIND, nullptr) == 0;
}

/// A /tmp and a /dev/shm that stay with the node from one start to the next, and a source of random
/// numbers that gives the same again: SQLite puts one into each journal, and files are to be compared.
std::string enterNode(const std::string& node)
{
    const std::string result =
        enterPrivateNamespace(node + "/tmp", {node, fs::path(program("tamo_db")).parent_path().string()});
    if (result != "private")
        return result;
    const std::string random = node + "/tmp/urandom";
    writeFile(random, std::string(4096, 'r'));
    const bool bound = bind(node + "/shm", "/dev/shm") && bind(random, "/dev/urandom");
    return bound ? "" : std::string("/dev/shm or /dev/urandom: ") + std::strerror(errno);
}

void takeOutput(const std::string& file)
{
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(descriptor, STDOUT_FILENO);
    ::dup2(descriptor, STDERR_FILENO);
}

} // namespace

IsolatedService::IsolatedService(const std::string& node, const Environment& environment, Tracing tracing,
                                 const std::optional<Blow>& blow, bool armedAtOnce)
{
    // Handlers are in place before anybody can send.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, &before);
    m_keeper = ::fork();
    if (m_keeper != 0) {
        ::sigprocmask(SIG_SETMASK, &before, nullptr);
        return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    handle(SIGUSR1, onArm);
    handle(SIGUSR2, onOrder);
    handle(SIGQUIT, onOrder);
    handle(SIGTERM, onOrder);
    ::sigprocmask(SIG_UNBLOCK, &all, nullptr);
    armed = armedAtOnce;
    takeOutput(m_files.path("log"));
    for (const char* name : {"TAMO_NODE_MEDIUM", "TAMO_LOG_FILE"})
        ::unsetenv(name);
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    const std::string path = program("tamo_db");
    Keeper keeper(node, m_files.path(), blow);
    if (const std::string why = enterNode(node); !why.empty()) {
        std::fprintf(stderr, "%s\n", why.c_str());
        ::_exit(exitNotPossible);
    }
    ::_exit(keeper.keep(path.c_str(), tracing == Tracing::on));
}

IsolatedService::~IsolatedService()
{
    if (running()) {
        signal(SIGKILL); // ends what it traces, too
        ::waitpid(m_keeper, nullptr, 0);
    }
}

void IsolatedService::signal(int number) const
{
    if (m_keeper > 0)
        ::kill(m_keeper, number);
}

bool IsolatedService::collect()
{
    int status = 0;
    if (m_keeper <= 0 || ::waitpid(m_keeper, &status, WNOHANG) != m_keeper)
        return m_keeper <= 0;
    m_result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    m_keeper = 0;
    return true;
}

bool IsolatedService::running() { return !collect(); }

int IsolatedService::wait()
{
    if (!eventually([this] { return collect(); }, std::chrono::seconds(60))) {
        signal(SIGKILL);
        ::waitpid(m_keeper, nullptr, 0);
        m_keeper = 0;
    }
    return m_result;
}

std::vector<Step> IsolatedService::steps() const
{
    std::vector<Step> all;
    std::ifstream file(m_files.path("steps"));
    Step step;
    while (std::getline(file, step.call, '\t') && std::getline(file, step.file, '\t') && file >> step.ofService) {
        file.ignore();
        all.push_back(step);
    }
    return all;
}

std::string IsolatedService::whyNotPossible()
{
    const TestDirectory node;
    fs::create_directories(node.path("tmp"));
    fs::create_directories(node.path("shm"));
    const std::string report = node.path("report");
    const pid_t pid = ::fork();
    if (pid == 0) {
        takeOutput(report);
        const std::string why = enterNode(node.path());
        std::fprintf(stderr, "%s\n", why.c_str());
        ::_exit(why.empty() ? tryTracing() : exitNotPossible);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status == 0 ? "" : "a process cannot be traced in a namespace of its own: " + readFile(report);
}
