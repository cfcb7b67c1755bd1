// The verb set: what the middleware of a node tells the service, changed by hand.
#include "Access.h"
#include "BootRule.h"
#include "Verbs.h"

#include "platform/host/NodeState.h"

#include <charconv>
#include <cstdio>
#include <string_view>

namespace {

struct Key {
    std::string_view name;
    int NodeState::*member;
    enum class Range { any, partition, flag } range = Range::any;
};

constexpr Key keys[] = {
    {"started_partition", &NodeState::startedPartition, Key::Range::partition},
    {"active_partition", &NodeState::activePartition, Key::Range::partition},
    {"fallback_partition", &NodeState::fallbackPartition, Key::Range::partition},
    {"reset_reason", &NodeState::resetReason},
    {"operation_mode", &NodeState::operationMode},
    {"mo_access", &NodeState::moAccess, Key::Range::flag},
};

struct Assignment {
    const Key* key = nullptr;
    int value = 0;
};

std::string knownKeys()
{
    std::string names;
    for (const auto& key : keys)
        names += (names.empty() ? "" : ", ") + std::string(key.name);
    return names;
}

/// None, with a reason, when the text is not an assignment that can be carried out.
std::optional<Assignment> parse(const std::string& text, std::string& problem)
{
    const auto equals = text.find('=');
    const std::string name = text.substr(0, equals);
    Assignment assignment;
    for (const auto& key : keys)
        if (key.name == name)
            assignment.key = &key;
    if (equals == std::string::npos || !assignment.key) {
        problem = "\"" + text + "\" is not KEY=NUMBER with one of the keys " + knownKeys();
        return std::nullopt;
    }
    const char* end = text.data() + text.size();
    const auto number = std::from_chars(text.data() + equals + 1, end, assignment.value);
    if (number.ec != std::errc() || number.ptr != end) {
        problem = "\"" + text.substr(equals + 1) + "\" is not a number for " + name;
        return std::nullopt;
    }
    if (assignment.key->range == Key::Range::partition && !isPartition(assignment.value)) {
        problem = "there is no partition " + std::to_string(assignment.value) + " for " + name + ", only 1 to 4";
        return std::nullopt;
    }
    if (assignment.key->range == Key::Range::flag && assignment.value != 0 && assignment.value != 1) {
        problem = name + " is 0 or 1, not " + std::to_string(assignment.value);
        return std::nullopt;
    }
    return assignment;
}

/// A partition that is to count as started is also the one that the next boot takes, unless that is named.
void carryOut(const std::vector<Assignment>& assignments, NodeState& state)
{
    for (const auto& [key, value] : assignments)
        if (key->member == &NodeState::startedPartition)
            state.activePartition = value;
    for (const auto& [key, value] : assignments)
        state.*(key->member) = value;
}

} // namespace

int set(const std::string& directory, const std::vector<std::string>& texts)
{
    std::vector<Assignment> assignments;
    std::string problem;
    for (const auto& text : texts) {
        const auto assignment = parse(text, problem);
        if (!assignment) {
            fail(problem);
            return exitUsage;
        }
        assignments.push_back(*assignment);
    }
    const auto layout = existing(directory);
    if (!layout)
        return exitFailure;
    if (!updateNodeState(
            layout->stateFile(), [&](NodeState& state) { carryOut(assignments, state); }, problem))
        return fail(problem);
    return exitSuccess;
}
