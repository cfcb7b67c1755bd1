#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

/// The programs under test as a user meets them: processes with arguments, an environment, output and
/// an end.

using Command = std::vector<std::string>;
/// Variables set on top of the test's own environment; the TAMO_ ones of that are taken out first.
using Environment = std::map<std::string, std::string>;

/// The path of one of our programs.
std::string program(const std::string& name);

/// A process that goes on beside the test; killed when the object goes.
class Process {
public:
    explicit Process(const Command& command, const Environment& environment = {}, const std::string& input = "");
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int number) const;
    /// The exit code, 128 and the number for a signal. A process that does not end in time is killed
    /// and gives -1.
    int wait(std::chrono::seconds timeout = std::chrono::seconds(60));
    bool running();
    /// What was written so far.
    std::string output() const;
    std::string error() const;

private:
    bool collect();

    std::filesystem::path m_files;
    pid_t m_pid = 0;
    int m_result = -1;
};

struct Result {
    int code = -1;
    std::string output;
    std::string error;
};

/// Runs a command to its end.
Result run(const Command& command, const Environment& environment = {}, const std::string& input = "");

/// Tries every few milliseconds until `condition` holds; false after the timeout.
template <class Condition>
bool eventually(Condition condition, std::chrono::seconds timeout = std::chrono::seconds(30));

void pauseBriefly();

template <class Condition>
bool eventually(Condition condition, std::chrono::seconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        pauseBriefly();
    }
    return true;
}

/// A directory of its own for one test, gone afterwards.
class TestDirectory {
public:
    TestDirectory();
    ~TestDirectory();
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;
    std::string path(const std::string& name = "") const;

private:
    std::filesystem::path m_path;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

/// Every row of a query against a database file, its columns joined by "|".
std::vector<std::string> query(const std::string& database, const std::string& sql);

/// A simulated node in its own directory; taken down with the object.
class Node {
public:
    /// Boots. `arguments` are further ones of `tamo_node up`.
    explicit Node(const std::vector<std::string>& arguments = {}, const Environment& environment = {});
    ~Node();

    std::string path(const std::string& name = "") const { return m_directory.path(name); }
    /// tamo_node VERB DIR ARGUMENTS…
    Result verb(const std::string& name, const std::vector<std::string>& arguments = {}) const;
    Result up(const std::vector<std::string>& arguments = {}, const Environment& environment = {}) const;
    /// tamoctl ARGUMENTS… against this node.
    Result client(const std::vector<std::string>& arguments, const std::string& input = "") const;
    /// A member of `tamo_node status` as JSON text.
    std::string status(const std::string& member) const;
    pid_t servicePid() const;

    const Result& bootResult() const { return m_boot; }

private:
    TestDirectory m_directory;
    Result m_boot;
};
