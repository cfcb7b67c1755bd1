// What the supervisor is told, and by whom: orders in the node's state file, messages to the stand-ins.
#include "BootRule.h"
#include "EventList.h"
#include "StandIns.h"
#include "Supervisor.h"

#include "platform/host/NodeState.h"
#include "platform/messages/Answers.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

#include <sys/inotify.h>
#include <tuple>
#include <unistd.h>

using namespace TAMO;

namespace {

std::string controlledResetText(int first, int second)
{
    return "controlled reset (" + std::to_string(first) + ", " + std::to_string(second) + ")";
}

std::string resetRequestText(int reason, int second)
{
    return "TAMO_ResetRBS, reason " + std::to_string(reason) + " (" + tamoResetReasontoString(reason) + "), " +
           std::to_string(second);
}

} // namespace

void Supervisor::takeStateChanges(int changes)
{
    alignas(inotify_event) char events[4096];
    bool any = false;
    while (::read(changes, events, sizeof events) > 0)
        any = true; // the status file's renames, too; looking once too often does no harm
    if (any)
        takeOrders();
}

/// The orders in the state file: the service's by way of the middleware, and an operator's.
void Supervisor::takeOrders()
{
    NodeState state;
    std::string problem;
    if (!readNodeState(m_layout.stateFile(), state, problem)) {
        LOG_ERROR("node: %s", problem.c_str());
        return;
    }
    for (; m_ordersSeen < state.controlledResets.size(); ++m_ordersSeen) {
        const auto [first, second] = state.controlledResets[m_ordersSeen];
        order({timeNow(), "middleware", controlledResetText(first, second), first, second, false}, reasonOrdered);
    }
    if (!state.order)
        return;
    if (!updateNodeState(
            m_layout.stateFile(), [](NodeState& changed) { changed.order.reset(); }, problem))
        LOG_ERROR("node: %s", problem.c_str());
    state.order->powerCut ? cutPower(*state.order) : orderByOperator(*state.order);
}

void Supervisor::orderByOperator(const OperatorOrder& wanted)
{
    NodeRecord::Reset reset{timeNow(),     "operator", "reset, reason " + std::to_string(wanted.reason),
                            wanted.reason, 0,          false};
    if (wanted.controlled)
        std::tie(reset.reason, reset.second) = *wanted.controlled;
    if (wanted.controlled)
        reset.order = controlledResetText(reset.reason, reset.second);
    order(std::move(reset), wanted.reason);
}

void Supervisor::takeMessages()
{
    const auto messages = m_standIns->messages();
    for (const auto& raw : messages)
        takeMessage(*raw);
    if (!messages.empty())
        save();
}

void Supervisor::takeMessage(const RawMessage& raw)
{
    Messages::TAMO_FaultNotification fault;
    Messages::TAMO_ResetRBS reset;
    Messages::TAMO_DBOrderReadyRsp ready;
    if (raw.id == fault.id && fault.deserialize(&raw)) {
        LOG_WARNING("node: fault 0x%x %s", static_cast<unsigned>(fault.faultCode),
                    fault.raise ? "raised" : "cancelled");
        keep(m_record.faults, {timeNow(), fault.faultCode, fault.raise != 0});
    } else if (raw.id == reset.id && reset.deserialize(&raw)) {
        order({timeNow(), "reset service", resetRequestText(reset.reason, reset.second), reset.reason, reset.second,
               false},
              reasonOrdered);
    } else if (raw.id == ready.id && ready.deserialize(&raw)) {
        if (ready.success && m_record.state == "starting")
            nowReady();
    } else {
        LOG_WARNING("node: message 0x%x of node %d is not for us", raw.id, raw.sender);
    }
}

/// A reset; while the node is on its way down already, it adds nothing to that.
void Supervisor::order(NodeRecord::Reset reset, int resetReason)
{
    reset.repeated = m_ending || m_switchingOff;
    LOG_WARNING("node: reset ordered by %s: %s%s", reset.by.c_str(), reset.order.c_str(),
                reset.repeated ? " (one is under way)" : "");
    const Ending ordered{"reset ordered by " + reset.by + ": " + reset.order, resetReason, false, false, 0};
    const bool first = !reset.repeated;
    keep(m_record.resets, std::move(reset));
    if (first)
        end(ordered);
    save();
}

/// At once and without a word to anybody, also in the middle of a reset.
void Supervisor::cutPower(const OperatorOrder& order)
{
    LOG_WARNING("node: the power is cut, seed %llu", static_cast<unsigned long long>(order.seed));
    m_service.killAll();
    m_ending = Ending{"power cut", reasonPowerOn, true, order.stayOff || m_switchingOff, order.seed};
    m_switchingOff = false;
    m_killTime = Clock::now() + m_options.stopTimeout; // nothing outlives a kill, but for a stuck disk
    m_record.state = "resetting";
    save();
}
