// The verb up: this process, or a child that goes on after it, becomes the node's supervisor.
#include "Access.h"
#include "ConfFiles.h"
#include "Isolation.h"
#include "NodeLock.h"
#include "Supervisor.h"
#include "Verbs.h"

#include "platform/host/LogSink.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// tamo_db beside this program unless the caller names one.
bool findProgram(UpOptions& arguments)
{
    std::error_code error;
    if (arguments.program.empty())
        arguments.program = fs::read_symlink("/proc/self/exe", error).parent_path() / "tamo_db";
    const fs::path program = fs::canonical(arguments.program, error);
    if (error || ::access(program.c_str(), X_OK) != 0) {
        fail("cannot run " + arguments.program + ": " + std::strerror(errno));
        return false;
    }
    arguments.program = program.string();
    return true;
}

/// The node gets what its service reads; a node without the attribute mapping comes up, but not for long.
bool installConf(const NodeLayout& layout, const UpOptions& arguments)
{
    const bool named = !arguments.conf.empty();
    const std::string source = named ? arguments.conf : ConfFiles::besideProgram(arguments.program);
    std::string problem;
    if (!ConfFiles::install(layout, source, named, problem)) {
        fail(problem);
        return false;
    }
    if (const std::string warning = ConfFiles::missing(layout, source); !warning.empty())
        std::fprintf(stderr, "tamo_node: %s\n", warning.c_str());
    return true;
}

/// From here on this process writes where the node's log is, as does what it starts.
bool redirectToLog(const NodeLayout& layout, bool keepStandardOutput)
{
    const int log = ::open(layout.log().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const bool done = log >= 0 && ::dup2(nothing, STDIN_FILENO) >= 0 && ::dup2(log, STDERR_FILENO) >= 0 &&
                      (keepStandardOutput || ::dup2(log, STDOUT_FILENO) >= 0);
    ::close(log);
    ::close(nothing);
    ::unsetenv("TAMO_LOG_FILE"); // the node has one log
    ::unsetenv("JOURNAL_STREAM");
    mw_log::configure();
    return done;
}

/// The supervisor's life, in this process.
bool supervise(const NodeLayout& layout, const UpOptions& arguments, const Supervisor::StartReport& report)
{
    NodeLock lock(layout.lockFile());
    std::string problem;
    if (!lock.take(problem)) {
        report(problem);
        return false;
    }
    if (!redirectToLog(layout, arguments.foreground)) {
        report("cannot write " + layout.log() + ": " + std::strerror(errno));
        return false;
    }
    ::umask(027);
    Supervisor::Options options;
    options.program = arguments.program;
    options.readyTimeout = std::chrono::seconds(arguments.readyTimeout);
    options.stopTimeout = std::chrono::seconds(arguments.stopTimeout);
    options.keep = {layout.directory(), fs::path(arguments.program).parent_path().string()};
    options.isolation =
        arguments.shareTmp ? "shared: asked for" : enterPrivateNamespace(layout.privateTmp(), options.keep);
    return Supervisor(layout, options, report).run();
}

void writeAll(int descriptor, const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t put = ::write(descriptor, text.data() + done, text.size() - done);
        if (put <= 0)
            return; // nobody waits for the report any more
        done += static_cast<std::size_t>(put);
    }
}

/// What the child of `up` becomes: detached from the terminal and from whatever the caller had open.
[[noreturn]] void becomeSupervisor(const NodeLayout& layout, const UpOptions& arguments, int report)
{
    constexpr int reportPlace = 3;
    ::unsetenv("TAMO_LOG_FILE"); // its descriptor may be the one that the report takes
    mw_log::configure();
    ::setsid();
    ::dup2(report, reportPlace);
    ::close_range(reportPlace + 1, ~0U, 0);
    ::fcntl(reportPlace, F_SETFD, FD_CLOEXEC);
    std::signal(SIGPIPE, SIG_IGN);
    const bool inOrder = supervise(layout, arguments, [](const std::string& problem) {
        writeAll(reportPlace, problem.empty() ? "up" : "failed: " + problem);
        ::close(reportPlace);
    });
    std::_Exit(inOrder ? exitSuccess : exitFailure);
}

volatile std::sig_atomic_t interrupted = 0;

/// Ctrl-C while a node comes up ends that node, too.
std::string awaitReport(int report, const NodeLayout& layout)
{
    struct sigaction onSignal {};
    onSignal.sa_handler = [](int) { interrupted = 1; };
    ::sigaction(SIGINT, &onSignal, nullptr); // without SA_RESTART: read returns
    ::sigaction(SIGTERM, &onSignal, nullptr);
    std::string text;
    char block[512];
    for (;;) {
        const ssize_t got = ::read(report, block, sizeof block);
        if (got > 0)
            text.append(block, static_cast<std::size_t>(got));
        else if (got == 0)
            return text;
        else if (errno != EINTR)
            return "failed: " + std::string(std::strerror(errno));
        else if (interrupted)
            NodeLock::signalHolder(layout.lockFile(), SIGTERM);
    }
}

/// The log's last lines, from the byte `start` on.
std::string logEnd(const NodeLayout& layout, std::streamoff start)
{
    constexpr std::size_t most = 20;
    std::ifstream log(layout.log());
    log.seekg(start);
    std::deque<std::string> lines;
    for (std::string line; std::getline(log, line);) {
        lines.push_back("  " + line + "\n");
        if (lines.size() > most)
            lines.pop_front();
    }
    std::string text;
    for (const auto& line : lines)
        text += line;
    return text.empty() ? "" : "\nThe log's end (" + layout.log() + "):\n" + text;
}

int upInForeground(const NodeLayout& layout, const UpOptions& arguments)
{
    mw_log::setSink([](unsigned, const std::string& text) {
        std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    });
    const bool inOrder = supervise(layout, arguments, [&](const std::string& problem) {
        if (!problem.empty())
            std::printf("tamo_node: %s\n", problem.c_str());
        std::fflush(stdout);
    });
    mw_log::setSink({});
    return inOrder ? exitSuccess : exitFailure;
}

int upInBackground(const NodeLayout& layout, const UpOptions& arguments)
{
    std::error_code error;
    const auto logStart = fs::file_size(layout.log(), error);
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0)
        return fail(std::string("no pipe: ") + std::strerror(errno));
    const pid_t child = ::fork();
    if (child == 0)
        becomeSupervisor(layout, arguments, report[1]);
    ::close(report[1]);
    if (child < 0)
        return fail(std::string("cannot make a process: ") + std::strerror(errno));
    const std::string answer = awaitReport(report[0], layout);
    ::close(report[0]);
    if (answer == "up") {
        const auto record = readRecord(layout.statusFile());
        const int partition = record && !record->boots.empty() ? record->boots.back().partition : 0;
        std::printf("node is up in %s on partition %d, boot %d (tamo_db is process %d, /tmp is %s)\n",
                    layout.directory().c_str(), partition, record ? record->bootCount : 0, record ? record->pid : 0,
                    record ? record->isolation.c_str() : "unknown");
        return exitSuccess;
    }
    ::waitpid(child, nullptr, 0); // the node can be booted again when we return
    constexpr std::string_view mark = "failed: ";
    const std::string why =
        answer.starts_with(mark) ? answer.substr(mark.size()) : "the supervisor ended without a word";
    return fail("the node in " + layout.directory() + " did not come up: " + why +
                logEnd(layout, error ? 0 : static_cast<std::streamoff>(logStart)));
}

} // namespace

int up(UpOptions arguments)
{
    std::error_code error;
    if (fs::create_directories(arguments.directory, error); error)
        return fail("cannot make " + arguments.directory + ": " + error.message());
    const auto layout = existing(arguments.directory);
    if (!layout || !findProgram(arguments))
        return exitFailure;
    if (const pid_t holder = supervisorOf(*layout); holder != 0)
        return fail("the node in " + layout->directory() + " is up already (supervisor " + std::to_string(holder) +
                    ")");
    std::string problem;
    if (!layout->make(problem))
        return fail(problem);
    if (!installConf(*layout, arguments))
        return exitFailure;
    return arguments.foreground ? upInForeground(*layout, arguments) : upInBackground(*layout, arguments);
}
