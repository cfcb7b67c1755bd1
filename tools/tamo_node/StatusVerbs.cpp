// The verbs that only look: status, env and log.
#include "Access.h"
#include "Verbs.h"

#include "platform/host/NodeState.h"

#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <thread>

namespace {

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

std::streamoff startOfLastLines(std::ifstream& file, std::size_t count)
{
    std::deque<std::streamoff> starts{0}; // of the lines, and of the one after them
    for (std::string line; std::getline(file, line);) {
        starts.push_back(starts.back() + static_cast<std::streamoff>(line.size()) + 1);
        if (starts.size() > count + 1)
            starts.pop_front();
    }
    file.clear();
    return starts.front();
}

void copyToOutput(std::ifstream& file)
{
    char block[8192];
    do {
        file.read(block, sizeof block);
        std::fwrite(block, 1, static_cast<std::size_t>(file.gcount()), stdout);
    } while (file);
    std::fflush(stdout);
    file.clear(); // more may come behind this end
}

} // namespace

int status(const std::string& directory)
{
    const auto layout = existing(directory);
    if (!layout)
        return exitFailure;
    const auto record = currentRecord(*layout);
    if (!record)
        return fail("no node has been up in " + layout->directory());
    std::printf("%s\n", statusText(*record, layout->directory(), layout->stateFile()).c_str());
    return exitSuccess;
}

int environment(const std::string& directory)
{
    const auto layout = existing(directory);
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

int log(const LogOptions& options)
{
    const auto layout = existing(options.directory);
    if (!layout)
        return exitFailure;
    std::ifstream file(layout->log(), std::ios::binary);
    if (!file)
        return fail("the node in " + layout->directory() + " has no log yet");
    if (options.lines)
        file.seekg(startOfLastLines(file, *options.lines));
    copyToOutput(file);
    while (options.follow && !std::ferror(stdout)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        copyToOutput(file);
    }
    return std::ferror(stdout) ? fail("standard output cannot be written") : exitSuccess;
}
