// When the configuration is stored to flash: on request, on the timer, and later than asked for while
// a software upgrade must not be disturbed. How it is stored is SQLite_Store.cpp's affair.

#include "requests/DatabaseWrapper.h"

#include "persistence/ShellCommand.h"
#include "requests/Serve.h"
#include "store/FileLocations.h"

#include "platform/messages/Notifications.h"
#include "platform/messages/Requests.h"

using namespace TAMO::Messages;

namespace {

constexpr std::int32_t firstStoreFailed = 0x5069;
constexpr std::int32_t secondStoreFailed = 0x5070;

constexpr std::int32_t autointegrationCompleted = 4;

const std::string upgradePackage = "UpgradePackage=1";
const std::string upgradeState = "state";
const std::string upgradeStateKey = "UpgradePackage=1,1,state,,";

/// The states in which a software upgrade reads or replaces the stored configuration.
bool isUnsafe(std::int32_t state) { return state == 2 || state == 4 || state == 8; }

std::int32_t stateOf(const Value& value, const char* operation)
{
    if (const auto* const state = std::get_if<std::int32_t>(&value))
        return *state;
    LOG_ERROR("DatabaseWrapper::%s: Boost Bad Get! When reading value of: 'UpgradePackage=1:state' ", operation);
    return 0;
}

/// The state in the tree; none when there is no such attribute.
std::optional<std::int32_t> storedUpgradeState(const char* operation)
{
    const auto attribute = SQLite::getInstance().sql_get_attribute(upgradePackage, upgradeState, operation, false);
    return attribute ? std::optional(stateOf(attribute->value, operation)) : std::nullopt;
}

/// What a second attempt says, in the words of the one who makes it.
struct RetryWords {
    void (*failed)();
    void (*removing)();
    void (*notRemoved)();
    void (*failedAgain)();
};

/// Makes room for a second attempt. When that fails as well, the flash or the software on it is not
/// to be trusted: the node goes back to the other software.
template <class Store>
bool storeAgain(const RetryWords& words, Store storeOnce)
{
    SQLite& store = SQLite::getInstance();
    words.failed();
    store.sendFaultNotif(firstStoreFailed, true);
    const std::string permanent = permanentFile();
    if (SQLite::CheckIfFileExists(permanent)) {
        words.removing();
        if (runCommand("rm -f " + shellWord(permanent)) != 0)
            words.notRemoved();
    }
    if (storeOnce())
        return true;
    words.failedAgain();
    store.sendFaultNotif(secondStoreFailed, true);
    store.doFallback();
    return false;
}

constexpr RetryWords requestWords{
    .failed = [] { LOG_ERROR("DatabaseWrapper::StorePersistentDump: Failed to store pRBSdb to flash, trying again"); },
    .removing =
        [] {
            LOG_DEBUG("DatabaseWrapper::StorePersistentDump: Removing old pRBSdb from flash before trying to write "
                      "again");
        },
    .notRemoved = [] { LOG_ERROR("DatabaseWrapper::StorePersistentDump: Failed to delete old pRBSdb from flash"); },
    .failedAgain =
        [] {
            LOG_ERROR("DatabaseWrapper::StorePersistentDump: Failed to store pRBSdb to flash again, sending major "
                      "fault to FM. SW fallback will be executed");
        }};

constexpr RetryWords timerWords{
    .failed = [] { LOG_ERROR("DatabaseWrapper TIMER HANDLING Failed to store pRBSdb to flash, trying again"); },
    .removing =
        [] { LOG_DEBUG("DatabaseWrapper TIMER HANDLING Removing old pRBSdb from flash before trying to write again"); },
    .notRemoved = [] { LOG_ERROR("DatabaseWrapper TIMER HANDLING Failed to delete old pRBSdb from flash"); },
    .failedAgain =
        [] {
            LOG_ERROR("DatabaseWrapper TIMER HANDLING Failed to store pRBSdb to flash again, sending major fault to "
                      "FM. SW fallback will be executed");
        }};

/// SQLite copies no database out of the transaction that changes it, and what it would show may yet
/// be rolled back. That is no failure of the flash, so nobody is to be alarmed.
bool insideTransaction()
{
    const Connection* const runtime = SQLite::getInstance().runtime();
    if (!runtime || !runtime->inTransaction())
        return false;
    LOG_WARNING("DatabaseWrapper: nothing is stored to flash inside a transaction");
    return true;
}

} // namespace

void DatabaseWrapper::handleStorePersistentDump(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleStorePersistentDump NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::StorePersistentDump transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleStorePersistentDump SendRsp NotSuccessful"); }};
    using Request = TAMO_DBStorePersistentDump;
    using Answer = TAMO_DBStorePersistentDumpRsp;
    serve<Request, Answer>(raw, lines, [this](const Request& request, const Client& client) {
        const auto answer = [&](bool result) {
            return std::optional<Answer>(std::in_place, IPCData::IPCdataRsp(), request.transId, result);
        };
        std::int32_t phase = -2; // not known
        SQLite::getInstance().getAIPhase(phase);
        if (phase != autointegrationCompleted && client.node != autointegrationManagement) {
            LOG_DEBUG("DatabaseWrapper::StorePersistentDump transId: %d client: %s - AI_phase [%d] != AI_completed no "
                      "persistent storing",
                      request.transId, client.name.c_str(), phase);
            return answer(true);
        }
        return answer(putOff(request.backup, request.ignoreUpgradeState) || StorePersistentDump(request.backup));
    });
}

/// Puts a store off while the software upgrade is in an unsafe state; false when it may be made now.
bool DatabaseWrapper::putOff(bool backup, bool ignoreUpgradeState)
{
    const auto state = storedUpgradeState("handleStorePersistentDump");
    if (!state || ignoreUpgradeState || !isUnsafe(*state))
        return false;
    constexpr std::int32_t ourselves = 0;
    if (m_upgradeStateTicket == Subscriptions::noTicket)
        m_upgradeStateTicket = registerToNotif(upgradeStateKey, ourselves);
    if (backup) {
        LOG_INFO("DatabaseWrapper::handleStorePersistentDump: Storing backup delayed until SW update is in safe "
                 "state!");
        m_storeBackupDelayed = true;
    } else {
        LOG_INFO("DatabaseWrapper::handleStorePersistentDump: Storing pRBSdb delayed until SW update is in safe "
                 "state!");
        m_storeDumpDelayed = true;
    }
    return true;
}

bool DatabaseWrapper::StorePersistentDump(bool backup)
{
    if (insideTransaction())
        return false;
    SQLite& store = SQLite::getInstance();
    if (store.storePersistentDump(backup))
        return true;
    if (backup || !storeAgain(requestWords, [&] { return store.storePersistentDump(false); }))
        return false;
    LOG_DEBUG("DatabaseWrapper::StorePersistentDump: Second try to store pRBSdb to flash was successful, cancelling "
              "minor fault <0x5069>");
    store.sendFaultNotif(firstStoreFailed, false);
    return true;
}

void DatabaseWrapper::handleNotif(std::int32_t ticket, const std::string& dn, const Value& value,
                                  std::int32_t operation)
{
    if (ticket != m_upgradeStateTicket) {
        LOG_INFO("DatabaseWrapper::%s: Received unexpected notification with ticket: %d. (dn: '%s')", __func__, ticket,
                 dn.c_str());
        return;
    }
    LOG_INFO("DatabaseWrapper::%s: Notification received with upTicket(%d)", __func__, ticket);
    const std::int32_t state = stateOf(value, __func__);
    applyUpgradeState(operation == changeDelete ? std::nullopt : std::optional(state), __func__);
}

void DatabaseWrapper::reconsiderDelayedStores()
{
    if (m_storeBackupDelayed || m_storeDumpDelayed)
        applyUpgradeState(storedUpgradeState(__func__), __func__);
}

/// Carries out what was put off, unless the state is still an unsafe one; none is a deleted one.
void DatabaseWrapper::applyUpgradeState(std::optional<std::int32_t> state, const char* operation)
{
    if (!state) {
        LOG_INFO("DatabaseWrapper::%s: UpgradePackage=1:state was deleted from database, storePersistentDump is "
                 "allowed",
                 operation);
    } else if (isUnsafe(*state)) {
        LOG_INFO("DatabaseWrapper::%s: UpgradePackage=1:state value changed into %d, storePersistentDump is not "
                 "allowed",
                 operation, *state);
        return;
    } else {
        LOG_INFO("DatabaseWrapper::%s: UpgradePackage=1:state value changed into %d, storePersistentDump is allowed",
                 operation, *state);
    }
    if (insideTransaction())
        return; // both stay put off
    if (m_storeBackupDelayed)
        StorePersistentDump(true);
    if (m_storeDumpDelayed)
        StorePersistentDump(false);
    m_storeBackupDelayed = false;
    m_storeDumpDelayed = false;
}

bool DatabaseWrapper::armTimer()
{
    constexpr unsigned hour = 3600;
    return m_timer.requestTimeout(hour, TAMO::Framework::Timer::seconds);
}

void DatabaseWrapper::handleTimeout(int state)
{
    LOG_DEBUG("DatabaseWrapper TIMER HANDLING - ENTRY");
    m_timer.cancelTimeout();
    if (state != stListening) {
        LOG_DEBUG("DatabaseWrapper timeout in state, %d !!!", state);
        LOG_DEBUG("DatabaseWrapper TIMER HANDLING - EXIT");
        return;
    }
    LOG_DEBUG("DatabaseWrapper TIMER HANDLING stListening  ");
    try {
        storePeriodically();
    } catch (const std::exception& error) { // no memory: the next expiry tries again
        LOG_ERROR("DatabaseWrapper TIMER HANDLING nothing is stored: %s", error.what());
    }
    if (armTimer())
        LOG_DEBUG("DatabaseWrapper TIMER HANDLING - EXIT");
}

void DatabaseWrapper::storePeriodically()
{
    SQLite& store = SQLite::getInstance();
    std::int32_t phase = -2; // not known
    store.getAIPhase(phase);
    if (phase != autointegrationCompleted) {
        LOG_DEBUG("DatabaseWrapper TIMER HANDLING - AI_phase [%d] != AI_completed no persistent storing", phase);
        return;
    }
    if (insideTransaction())
        return;
    if (store.storeDbToFlash()) {
        LOG_DEBUG("DatabaseWrapper store complete, starting new timer");
    } else if (storeAgain(timerWords, [&] { return store.storeDbToFlash(); })) {
        store.sendFaultNotif(firstStoreFailed, false);
        LOG_DEBUG("DatabaseWrapper Store pRBSdb was successful, starting new timer");
    }
}
