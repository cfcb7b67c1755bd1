#pragma once

#include "requests/AMW_MessageHandler_StateMachine.h"

#include "platform/framework/Lockables.h"
#include "platform/framework/Timer.h"

#include <cstddef>
#include <cstdint>
#include <span>

class DatabaseWrapper_StateMachine;

/// Turns status messages of the node's middleware into changes of the tree: the Wi-Fi module's status
/// becomes the attribute operationalState of its object.
///
/// Statuses come in bursts. The first one is written at once and begins a hold of one second, in which
/// further ones are only remembered; when the hold ends, the last of them is written if it differs from
/// what was written before, and that begins the next hold. What was written last counts, also when the
/// store refused it or the object was not there: the same status again is not written again.
///
/// A thread of its own waits for the end of the hold and posts it to the owner's queue. Everything else
/// is called on the owner's thread.
class AMW_MessageHandler final : public AMW_MessageHandler_StateMachine {
public:
    /// Starts the thread. The owner may be under construction still, and must outlive the handler.
    explicit AMW_MessageHandler(DatabaseWrapper_StateMachine& owner);
    ~AMW_MessageHandler() override;

    /// Takes a message as the middleware lays it out (platform/middleware/StatusMessage.h). One that is
    /// too short or no status of ours is logged and changes nothing.
    void handleMessage(std::span<const std::uint8_t> payload);

    /// The hold is over: event 1005 of the owner, with its parameter.
    void holdExpired(std::int32_t parameter);

    /// Ends the thread and waits for it; a status that a hold still keeps back is not written any more.
    /// Not to be called on the handler's own thread.
    void stop();

protected:
    void handleTimeout() override;

private:
    void handleStatusMessage(std::span<const std::uint8_t> status);
    void handleWifiStatusMessage(std::int32_t value);
    void apply(std::int32_t value);
    bool armHoldTimer();
    static void updateWifiOperationalState(std::int32_t value);

    TAMO::Framework::Timer m_holdTimer;
    DatabaseWrapper_StateMachine& m_owner;
    TAMO::Framework::Mutex m_lock;    // of what follows
    bool m_pending = false;           // a hold is running
    std::int32_t m_latestStatus = 0;  // received
    std::int32_t m_appliedStatus = 0; // written
};
