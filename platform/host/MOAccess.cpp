// The management agent's subscriptions as a workstation keeps them: one process, one receiver. What the
// agent reports comes by message like everything else; Messaging.cpp asks here whether it is wanted.

#include "platform/moaccess/MOAccess.h"

#include "platform/host/NodeState.h"
#include "platform/host/ReportSubscription.h"

#include <atomic>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr const char* everyObject = "*";
constexpr const char* database = "/toDB";

/// Who gets the reports of every object for the database; null: nobody. The I/O thread asks.
std::atomic<const MOAccess*> receiver{nullptr};

/// Throws when the node's agent takes no subscription, or cannot be asked.
void askAgent()
{
    const char* const file = std::getenv("TAMO_NODE_STATE");
    if (!file)
        return; // no node around the process: its agent is as good as any
    NodeState state;
    std::string problem;
    if (!readNodeState(file, state, problem))
        throw std::runtime_error("the management agent cannot be asked: " + problem);
    if (state.moAccess == 0)
        throw std::runtime_error("the management agent refuses subscriptions");
}

} // namespace

MOAccess::~MOAccess() { UnRegisterNotifications(); }

void MOAccess::RegisterToNotification(const std::string& key, const std::string& destination)
{
    askAgent();
    if (key == everyObject && destination == database)
        receiver = this;
}

void MOAccess::UnRegisterNotifications()
{
    const MOAccess* own = this;
    receiver.compare_exchange_strong(own, nullptr);
}

bool ReportSubscription::stands() { return receiver != nullptr; }
