// The middleware's power and mode functions over the node state file named by TAMO_NODE_STATE.
//
// The file is read at every call, so that whoever prepares a node may change it while the service
// runs. Without the variable a process keeps a state of its own, made of the defaults.
#include "platform/host/NodeState.h"
#include "platform/middleware/Log.h"

#include <cstdlib>
#include <mutex>
#include <string>

namespace {

constexpr int statusOk = 0;
constexpr int statusFailed = 1;

struct OwnState {
    std::mutex mutex;
    NodeState state;
};
OwnState& ownState()
{
    static OwnState it;
    return it;
}

std::string stateFile()
{
    const char* path = std::getenv("TAMO_NODE_STATE");
    return path ? path : "";
}

int report(bool success, const char* function, const std::string& problem)
{
    if (success)
        return statusOk;
    LOG_ERROR("%s: %s", function, problem.c_str());
    return statusFailed;
}

/// `value` stays as the caller preset it when the state cannot be read.
int get(const char* function, int NodeState::*member, int* value)
{
    const std::string path = stateFile();
    if (path.empty()) {
        const std::lock_guard lock(ownState().mutex);
        *value = ownState().state.*member;
        return statusOk;
    }
    NodeState state;
    std::string problem;
    const bool success = readNodeState(path, state, problem);
    if (success)
        *value = state.*member;
    return report(success, function, problem);
}

int change(const char* function, const std::function<void(NodeState&)>& apply)
{
    const std::string path = stateFile();
    if (path.empty()) {
        const std::lock_guard lock(ownState().mutex);
        apply(ownState().state);
        return statusOk;
    }
    std::string problem;
    const bool success = updateNodeState(path, apply, problem);
    return report(success, function, problem);
}

} // namespace

int mw_api_pwr_started_partition_get(int* partition) { return get(__func__, &NodeState::startedPartition, partition); }

int mw_api_pwr_fallback_partition_get(int* partition)
{
    return get(__func__, &NodeState::fallbackPartition, partition);
}

int mw_api_pwr_active_partition_set(int partition)
{
    return change(__func__, [=](NodeState& state) { state.activePartition = partition; });
}

int mw_api_pwr_ubifs_mount(int partition)
{
    return change(__func__, [=](NodeState& state) { state.mounts.push_back(partition); });
}

int mw_api_pwr_controlled_reset(int first, int second)
{
    return change(__func__, [=](NodeState& state) { state.controlledResets.emplace_back(first, second); });
}

int mw_api_pwr_reset_reason_get(int* reason) { return get(__func__, &NodeState::resetReason, reason); }

int mw_api_operation_mode_get(int, int* mode) { return get(__func__, &NodeState::operationMode, mode); }

int mw_api_operation_mode_set(int, int mode)
{
    return change(__func__, [=](NodeState& state) { state.operationMode = mode; });
}
