// The verbs reset and power-cut: they leave an order in the node's state file, where the supervisor finds
// it, and watch what becomes of it.
#include "Access.h"
#include "Verbs.h"

#include "platform/host/NodeState.h"

#include <charconv>
#include <cstdio>
#include <random>

namespace {

std::optional<std::pair<int, int>> twoNumbers(const std::string& text)
{
    std::pair<int, int> numbers;
    const char* end = text.data() + text.size();
    const auto first = std::from_chars(text.data(), end, numbers.first);
    if (first.ec != std::errc() || first.ptr == end || *first.ptr != ',')
        return std::nullopt;
    const auto second = std::from_chars(first.ptr + 1, end, numbers.second);
    return second.ec == std::errc() && second.ptr == end ? std::optional(numbers) : std::nullopt;
}

int tellOutcome(const NodeLayout& layout, int bootsBefore)
{
    std::optional<NodeRecord> record;
    const bool settled = await(std::chrono::seconds(3600), [&] {
        record = currentRecord(layout);
        return !record || !record->ended.empty() || record->state == "failed" ||
               (record->bootCount > bootsBefore && record->state == "up");
    });
    if (!settled || !record || record->boots.empty())
        return fail("the node in " + layout.directory() + " gives no sign of life");
    if (record->state == "off") {
        std::printf("node in %s is off\n", layout.directory().c_str());
        return exitSuccess;
    }
    if (record->state != "up")
        return fail("the node in " + layout.directory() + " did not come up again: it is " + record->state +
                    (record->problem.empty() ? "" : ", " + record->problem));
    const auto& boot = record->boots.back();
    std::printf("node is up again on partition %d, reset reason %d: %s\n", boot.partition, boot.resetReason,
                boot.cause.c_str());
    return exitSuccess;
}

int giveOrder(const std::string& directory, const OperatorOrder& order, bool wait)
{
    const auto layout = existing(directory);
    if (!layout)
        return exitFailure;
    pid_t holder = 0;
    std::optional<NodeRecord> before;
    const bool known = await(std::chrono::seconds(10), [&] {
        holder = supervisorOf(*layout);
        before = readRecord(layout->statusFile()); // the one before it may still be there
        return holder == 0 || (before && before->supervisor == holder);
    });
    if (!known || holder == 0)
        return fail("the node in " + layout->directory() + " is not up");
    std::string problem;
    if (!updateNodeState(
            layout->stateFile(), [&](NodeState& state) { state.order = order; }, problem))
        return fail(problem);
    if (order.powerCut)
        std::printf("seed %llu\n", static_cast<unsigned long long>(order.seed));
    std::fflush(stdout);
    return wait ? tellOutcome(*layout, before->bootCount) : exitSuccess;
}

} // namespace

int reset(const ResetOptions& options)
{
    OperatorOrder order;
    order.reason = options.reason;
    order.controlled = twoNumbers(options.controlled);
    if (!options.controlled.empty() && !order.controlled) {
        fail("--controlled takes two numbers, such as 1,0, not \"" + options.controlled + "\"");
        return exitUsage;
    }
    return giveOrder(options.directory, order, options.wait);
}

int powerCut(const PowerCutOptions& options)
{
    OperatorOrder order;
    order.powerCut = true;
    order.stayOff = options.off;
    order.seed = options.seed ? *options.seed : std::random_device()();
    return giveOrder(options.directory, order, options.wait);
}
