// Starting, watching and ending the programs under test.
#include "Process.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sqlite3.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::vector<std::string> environmentWith(const Environment& wanted)
{
    std::vector<std::string> all;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (!text.starts_with("TAMO_") && !wanted.contains(text.substr(0, text.find('='))))
            all.push_back(text);
    }
    for (const auto& [name, value] : wanted)
        all.push_back(name + '=' + value);
    return all;
}

std::vector<char*> pointers(std::vector<std::string>& texts)
{
    std::vector<char*> list;
    for (auto& text : texts)
        list.push_back(text.data());
    list.push_back(nullptr);
    return list;
}

} // namespace

std::string program(const std::string& name) { return std::string(TAMO_BIN) + '/' + name; }

Process::Process(const Command& command, const Environment& environment, const std::string& input)
{
    std::string files = (fs::temp_directory_path() / "tamo_process.XXXXXX").string();
    m_files = mkdtemp(files.data());
    writeFile(m_files / "input", input);
    Command words = command;
    auto variables = environmentWith(environment);
    const auto arguments = pointers(words);
    const auto environmentList = pointers(variables);
    m_pid = ::fork();
    if (m_pid == 0) {
        const auto open = [&](const char* name, int flags, int as) {
            ::dup2(::open((m_files / name).c_str(), flags | O_CLOEXEC, 0600), as);
        };
        open("input", O_RDONLY, STDIN_FILENO);
        open("output", O_WRONLY | O_CREAT | O_APPEND, STDOUT_FILENO);
        open("error", O_WRONLY | O_CREAT | O_APPEND, STDERR_FILENO);
        ::execve(arguments[0], arguments.data(), environmentList.data());
        ::_exit(127);
    }
}

Process::~Process()
{
    if (running()) {
        signal(SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    std::error_code ignored;
    fs::remove_all(m_files, ignored);
}

void Process::signal(int number) const
{
    if (m_pid > 0)
        ::kill(m_pid, number);
}

bool Process::collect()
{
    int status = 0;
    if (m_pid <= 0 || ::waitpid(m_pid, &status, WNOHANG) != m_pid)
        return m_pid <= 0;
    m_result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    m_pid = 0;
    return true;
}

bool Process::running() { return !collect(); }

int Process::wait(std::chrono::seconds timeout)
{
    if (!eventually([&] { return collect(); }, timeout)) {
        signal(SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = 0;
    }
    return m_result;
}

std::string Process::output() const { return readFile(m_files / "output"); }

std::string Process::error() const { return readFile(m_files / "error"); }

Result run(const Command& command, const Environment& environment, const std::string& input)
{
    Process process(command, environment, input);
    const int code = process.wait(std::chrono::seconds(120));
    return {code, process.output(), process.error()};
}

void pauseBriefly() { std::this_thread::sleep_for(std::chrono::milliseconds(10)); }

TestDirectory::TestDirectory()
{
    std::string name = (fs::canonical(fs::temp_directory_path()) / "tamo_system.XXXXXX").string();
    m_path = mkdtemp(name.data());
}

TestDirectory::~TestDirectory()
{
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string TestDirectory::path(const std::string& name) const
{
    return name.empty() ? m_path.string() : (m_path / name).string();
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

std::vector<std::string> query(const std::string& database, const std::string& sql)
{
    std::vector<std::string> rows;
    sqlite3* connection = nullptr;
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_open_v2(database.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK) << database;
    EXPECT_EQ(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr), SQLITE_OK)
        << sqlite3_errmsg(connection);
    while (statement && sqlite3_step(statement) == SQLITE_ROW) {
        std::string row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            row += (column ? "|" : "") + std::string(text ? text : "NULL");
        }
        rows.push_back(row);
    }
    sqlite3_finalize(statement);
    sqlite3_close(connection);
    return rows;
}

Node::Node(const std::vector<std::string>& arguments, const Environment& environment)
    : m_boot(up(arguments, environment))
{
    EXPECT_EQ(m_boot.code, 0) << m_boot.error;
}

Node::~Node()
{
    if (testing::Test::HasFailure())
        std::fprintf(stderr, "The node's log:\n%s\n", readFile(path("log")).c_str());
    verb("down");
}

Result Node::verb(const std::string& name, const std::vector<std::string>& arguments) const
{
    Command command{program("tamo_node"), name, path()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command);
}

Result Node::up(const std::vector<std::string>& arguments, const Environment& environment) const
{
    Command command{program("tamo_node"), "up", path()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, environment);
}

Result Node::client(const std::vector<std::string>& arguments, const std::string& input) const
{
    Command command{program("tamoctl"), "--dir", path("run")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, {}, input);
}

std::string Node::status(const std::string& member) const
{
    const auto result = verb("status");
    const auto status = nlohmann::json::parse(result.output, nullptr, false);
    return status.is_object() && status.contains(member) ? status[member].dump() : "no status: " + result.error;
}

pid_t Node::servicePid() const { return std::atoi(status("pid").c_str()); }
