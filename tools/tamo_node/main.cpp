// tamo_node: a simulated node on a workstation. The verbs are here; a node that is up is a supervisor
// process (Supervisor.cpp) and the tamo_db it started.
#include "Isolation.h"
#include "NodeLayout.h"
#include "NodeLock.h"
#include "NodeRecord.h"
#include "Supervisor.h"

#include "platform/host/LogSink.h"
#include "platform/host/NodeState.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int exitSuccess = 0;
constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

struct Arguments {
    std::string directory;
    std::string program;
    int readyTimeout = 30;
    int stopTimeout = 10;
    bool foreground = false;
    bool shareTmp = false;
};

int fail(const std::string& text)
{
    std::fprintf(stderr, "tamo_node: %s\n", text.c_str());
    return exitFailure;
}

/// The layout of a directory that is there; links are resolved, so that one node has one name.
std::optional<NodeLayout> existing(const std::string& directory)
{
    std::error_code error;
    const fs::path path = fs::canonical(directory, error);
    if (!error && fs::is_directory(path, error))
        return NodeLayout(path.string());
    fail("no directory " + directory);
    return std::nullopt;
}

/// What a node's files tell, corrected by whether its supervisor lives.
std::optional<NodeRecord> currentRecord(const NodeLayout& layout)
{
    auto record = readRecord(layout.statusFile());
    if (record && record->ended.empty() && NodeLock::holder(layout.lockFile()) != record->supervisor) {
        record->state = "failed";
        record->problem = "the supervisor (process " + std::to_string(record->supervisor) + ") was killed";
        record->pid = 0;
    }
    return record;
}

/// Looks again and again until `condition` holds; false when it does not within `patience`.
template <class Condition>
bool await(std::chrono::seconds patience, Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

/// The process behind a node that is up, 0 when it is not. A supervisor whose node has ended is about
/// to go and is waited for.
pid_t supervisorOf(const NodeLayout& layout)
{
    pid_t holder = 0;
    await(std::chrono::seconds(10), [&] {
        holder = NodeLock::holder(layout.lockFile());
        const auto record = readRecord(layout.statusFile());
        return holder == 0 || !record || record->ended.empty();
    });
    return holder;
}

/// tamo_db beside this program unless the caller names one.
bool findProgram(Arguments& arguments)
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
bool supervise(const NodeLayout& layout, const Arguments& arguments, const Supervisor::StartReport& report)
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
    options.isolation =
        arguments.shareTmp
            ? "shared: asked for"
            : enterPrivateNamespace(layout.privateTmp(),
                                    {layout.directory(), fs::path(arguments.program).parent_path().string()});
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
[[noreturn]] void becomeSupervisor(const NodeLayout& layout, const Arguments& arguments, int report)
{
    constexpr int reportPlace = 3;
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

int upInForeground(const NodeLayout& layout, const Arguments& arguments)
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

int upInBackground(const NodeLayout& layout, const Arguments& arguments)
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
        std::printf("node is up in %s (tamo_db is process %d, /tmp is %s)\n", layout.directory().c_str(),
                    record ? record->pid : 0, record ? record->isolation.c_str() : "unknown");
        return exitSuccess;
    }
    ::waitpid(child, nullptr, 0); // the node can be booted again when we return
    constexpr std::string_view mark = "failed: ";
    const std::string why =
        answer.starts_with(mark) ? answer.substr(mark.size()) : "the supervisor ended without a word";
    return fail("the node in " + layout.directory() + " did not come up: " + why +
                logEnd(layout, error ? 0 : static_cast<std::streamoff>(logStart)));
}

int up(Arguments arguments)
{
    std::error_code error;
    fs::create_directories(arguments.directory, error);
    const auto layout = existing(arguments.directory);
    if (!layout || !findProgram(arguments))
        return exitFailure;
    if (const pid_t holder = supervisorOf(*layout); holder != 0)
        return fail("the node in " + layout->directory() + " is up already (supervisor " + std::to_string(holder) +
                    ")");
    std::string problem;
    if (!layout->make(problem))
        return fail(problem);
    return arguments.foreground ? upInForeground(*layout, arguments) : upInBackground(*layout, arguments);
}

int down(const Arguments& arguments)
{
    const auto layout = existing(arguments.directory);
    if (!layout)
        return exitFailure;
    const auto before = currentRecord(*layout);
    const pid_t holder = supervisorOf(*layout);
    if (holder == 0 || !NodeLock::signalHolder(layout->lockFile(), SIGTERM))
        return fail("the node in " + layout->directory() + " is not up" +
                    (before && !before->problem.empty() ? ": " + before->problem : ""));
    // The supervisor kills what does not end; this deadline is for a supervisor that is stuck itself.
    if (!await(std::chrono::seconds(120), [&] { return NodeLock::holder(layout->lockFile()) != holder; }))
        return fail("the supervisor (process " + std::to_string(holder) + ") does not end");
    const auto after = currentRecord(*layout);
    if (!after || after->state != "down")
        return fail("the node in " + layout->directory() +
                    " is down, but not in order: " + (after ? after->problem : "its status file is gone"));
    std::printf("node in %s is down\n", layout->directory().c_str());
    return exitSuccess;
}

int status(const Arguments& arguments)
{
    const auto layout = existing(arguments.directory);
    if (!layout)
        return exitFailure;
    const auto record = currentRecord(*layout);
    if (!record)
        return fail("no node has been up in " + layout->directory());
    std::printf("%s\n", statusText(*record, layout->directory(), layout->stateFile()).c_str());
    return exitSuccess;
}

/// In single quotes where the shell would otherwise make something of it.
std::string quoted(const std::string& value)
{
    constexpr const char* plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+,:=@%";
    if (!value.empty() && value.find_first_not_of(plain) == std::string::npos)
        return value;
    std::string text = "'";
    for (const char c : value)
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return text + "'";
}

int environment(const Arguments& arguments)
{
    const auto layout = existing(arguments.directory);
    if (!layout)
        return exitFailure;
    NodeState state;
    std::string problem;
    if (!readNodeState(layout->stateFile(), state, problem))
        return fail(problem);
    // A semicolon each, so that `eval $(tamo_node env DIR)` works without quotes as well.
    for (const auto& [name, value] : layout->environment(state.startedPartition))
        std::printf("export %s=%s;\n", name.c_str(), quoted(value).c_str());
    return exitSuccess;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"A simulated node in a directory: boots tamo_db with everything around it.", "tamo_node"};
    app.require_subcommand(1);
    Arguments arguments;
    const auto verb = [&](const char* name, const char* help) {
        auto* command = app.add_subcommand(name, help);
        command->add_option("DIR", arguments.directory, "The node's directory")->required();
        return command;
    };
    auto* upVerb = verb("up", "Boots the node; returns when it is ready, the node goes on (log: DIR/log)");
    upVerb->add_flag("--foreground", arguments.foreground, "Stay, print events, end the node in order on Ctrl-C");
    upVerb->add_option("--timeout", arguments.readyTimeout, "Seconds until the node must be ready")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    upVerb->add_option("--stop-timeout", arguments.stopTimeout, "Seconds until a node that does not end is killed")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    upVerb->add_option("--tamo-db", arguments.program, "The service to start (default: beside tamo_node)");
    upVerb->add_flag("--shared-tmp", arguments.shareTmp, "No private /tmp and /dev/shm");
    auto* downVerb = verb("down", "Ends the node in order and returns when it is gone");
    auto* statusVerb = verb("status", "Prints what is known of the node as JSON");
    auto* envVerb = verb("env", "Prints the node's environment as shell assignments: eval $(tamo_node env DIR)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSuccess : exitUsage;
    }
    if (upVerb->parsed())
        return up(arguments);
    if (downVerb->parsed())
        return down(arguments);
    if (statusVerb->parsed())
        return status(arguments);
    return envVerb->parsed() ? environment(arguments) : exitUsage;
}
