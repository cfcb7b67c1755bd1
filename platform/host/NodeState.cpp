// The node state file: one JSON object, small enough to be read at every call and rewritten whole.
//
// The service asks for its values through the middleware functions (Middleware.cpp); the simulated
// node prepares the file before a start and reads what was asked for after it.
#include "platform/host/NodeState.h"

#include "platform/host/Descriptor.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using nlohmann::json;
using TAMO::Framework::Descriptor;

namespace {

bool failed(std::string& problem, const std::string& what, const std::string& path)
{
    problem = what + " " + path + ": " + std::strerror(errno);
    return false;
}

bool readAll(int descriptor, std::string& content)
{
    constexpr std::size_t largest = 1024 * 1024; // a state file is a few hundred bytes
    char block[4096];
    for (;;) {
        const ssize_t got = ::read(descriptor, block, sizeof block);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        content.append(block, static_cast<std::size_t>(got));
        if (content.size() > largest) {
            errno = EFBIG;
            return false;
        }
    }
}

bool writeAll(int descriptor, const std::string& content)
{
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t put = ::write(descriptor, content.data() + done, content.size() - done);
        if (put < 0 && errno != EINTR)
            return false;
        if (put > 0)
            done += static_cast<std::size_t>(put);
    }
    return true;
}

template <class Kind>
void take(const json& from, const char* key, Kind& value)
{
    if (const auto found = from.find(key); found != from.end())
        found->get_to(value);
}

std::optional<OperatorOrder> orderFromJson(const json& from)
{
    const auto found = from.find("operator_order");
    if (found == from.end() || found->is_null())
        return std::nullopt;
    OperatorOrder order;
    take(*found, "power_cut", order.powerCut);
    take(*found, "reason", order.reason);
    if (found->contains("controlled"))
        order.controlled = found->at("controlled").get<std::pair<int, int>>();
    take(*found, "stay_off", order.stayOff);
    take(*found, "seed", order.seed);
    return order;
}

json toJson(const OperatorOrder& order)
{
    json to{{"power_cut", order.powerCut}, {"reason", order.reason}, {"stay_off", order.stayOff}, {"seed", order.seed}};
    if (order.controlled)
        to["controlled"] = *order.controlled;
    return to;
}

NodeState fromJson(const json& from)
{
    NodeState state;
    take(from, "started_partition", state.startedPartition);
    take(from, "active_partition", state.activePartition);
    take(from, "fallback_partition", state.fallbackPartition);
    take(from, "reset_reason", state.resetReason);
    take(from, "operation_mode", state.operationMode);
    take(from, "mo_access", state.moAccess);
    take(from, "boots_without_good_mark", state.unmarkedBoots);
    state.order = orderFromJson(from);
    take(from, "controlled_resets", state.controlledResets);
    take(from, "ubifs_mounts", state.mounts);
    return state;
}

json toJson(const NodeState& state)
{
    json to{{"started_partition", state.startedPartition},
            {"active_partition", state.activePartition},
            {"fallback_partition", state.fallbackPartition},
            {"reset_reason", state.resetReason},
            {"operation_mode", state.operationMode},
            {"mo_access", state.moAccess},
            {"boots_without_good_mark", state.unmarkedBoots},
            {"controlled_resets", state.controlledResets},
            {"ubifs_mounts", state.mounts}};
    if (state.order)
        to["operator_order"] = toJson(*state.order);
    return to;
}

} // namespace

bool readNodeState(const std::string& path, NodeState& state, std::string& problem)
{
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        state = {};
        return errno == ENOENT || failed(problem, "cannot open", path);
    }
    std::string content;
    if (!readAll(file.get(), content))
        return failed(problem, "cannot read", path);
    try {
        const json parsed = json::parse(content);
        if (!parsed.is_object()) {
            problem = path + " does not hold a JSON object";
            return false;
        }
        state = fromJson(parsed);
        return true;
    } catch (const json::exception& error) {
        problem = "cannot make sense of " + path + ": " + error.what();
        return false;
    }
}

bool replaceFile(const std::string& path, const std::string& content, std::string& problem)
{
    std::string temporary = path + ".XXXXXX";
    const Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file)
        return failed(problem, "cannot create a file beside", path);
    if (::fchmod(file.get(), 0644) == 0 && writeAll(file.get(), content) &&
        ::rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    failed(problem, "cannot replace", path);
    ::unlink(temporary.c_str());
    return false;
}

bool writeNodeState(const std::string& path, const NodeState& state, std::string& problem)
{
    return replaceFile(path, toJson(state).dump(2) + "\n", problem);
}

bool updateNodeState(const std::string& path, const std::function<void(NodeState&)>& change, std::string& problem)
{
    const std::string lockName = path + ".lock"; // not the file itself, which is replaced
    const Descriptor lock(::open(lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!lock)
        return failed(problem, "cannot open", lockName);
    while (::flock(lock.get(), LOCK_EX) != 0)
        if (errno != EINTR)
            return failed(problem, "cannot lock", lockName);
    NodeState state;
    if (!readNodeState(path, state, problem))
        return false;
    change(state);
    return writeNodeState(path, state, problem);
}
