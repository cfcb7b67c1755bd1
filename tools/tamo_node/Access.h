#pragma once

#include "NodeLayout.h"
#include "NodeRecord.h"

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>

/// What the verbs share: a node's directory, and the process behind it.

inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

/// Writes "tamo_node: TEXT" to standard error and returns exitFailure.
int fail(const std::string& text);

/// The layout of a directory that is there; links are resolved, so that one node has one name. None, with
/// the error written, when there is no such directory.
std::optional<NodeLayout> existing(const std::string& directory);

/// What a node's files tell, corrected by whether its supervisor lives.
std::optional<NodeRecord> currentRecord(const NodeLayout& layout);

/// The process behind a node that is up, 0 when it is not. A supervisor whose node has ended is about
/// to go and is waited for.
pid_t supervisorOf(const NodeLayout& layout);

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
