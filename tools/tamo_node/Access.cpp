// How the verbs find a node: by its directory, its status file, and the lock that its supervisor holds.
#include "Access.h"

#include "NodeLock.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

int fail(const std::string& text)
{
    std::fprintf(stderr, "tamo_node: %s\n", text.c_str());
    return exitFailure;
}

std::optional<NodeLayout> existing(const std::string& directory)
{
    std::error_code error;
    const fs::path path = fs::canonical(directory, error);
    if (!error && fs::is_directory(path, error))
        return NodeLayout(path.string());
    fail("no directory " + directory + ": " + (error ? error.message() : "it is something else"));
    return std::nullopt;
}

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
