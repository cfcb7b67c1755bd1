// Which partition a node boots. Works on the node's state alone, so that it holds whoever asks.
#include "BootRule.h"

#include "platform/host/NodeState.h"
#include "platform/middleware/mw_api.h"

namespace {

/// The partition after `failed` in the order fallback, golden.
int nextAfter(int failed, const NodeState& state)
{
    const bool usable = isPartition(state.fallbackPartition) && state.fallbackPartition != failed;
    return usable ? state.fallbackPartition : goldenPartition;
}

} // namespace

bool isPartition(int number) { return number >= 1 && number <= goldenPartition; }

bool chooseBoot(NodeState& state)
{
    int next = isPartition(state.activePartition) ? state.activePartition : nextAfter(state.activePartition, state);
    if (next == state.startedPartition && state.unmarkedBoots >= mostUnmarkedBoots) {
        if (next == goldenPartition)
            return false;
        next = nextAfter(next, state);
        state.resetReason = reasonBootFailed;
    }
    if (next != state.startedPartition)
        state.unmarkedBoots = 0;
    ++state.unmarkedBoots;
    state.startedPartition = state.activePartition = next;
    if (state.fallbackPartition == next)
        state.fallbackPartition = goldenPartition;
    return true;
}
