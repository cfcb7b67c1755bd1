// Status messages of the middleware, from their bytes to the tree. DatabaseWrapper_Dispatch.cpp hands
// them over; the timer's thread, this handler's own and the owner's queue bring the end of a hold back
// to the thread that may use the store.

#include "requests/AMW_MessageHandler.h"

#include "requests/DatabaseWrapper_StateMachine.h"

#include "platform/middleware/Log.h"
#include "platform/middleware/StatusMessage.h"
#include "store/SQLite.h"
#include "values/ValueType.h"

#include <exception>

using namespace TAMO::Framework;

namespace {

using Payload = std::span<const std::uint8_t>;

constexpr const char* requester = "AMW_MessageHandler";
constexpr const char* wifiModule = "ManagedElement=1,Equipment=1,RbsUnit=1,WifiModule=1";
constexpr const char* operationalState = "operationalState";

/// The middleware's bytes lie anywhere in memory and are little-endian whatever the processor is.
std::uint32_t wordAt(Payload bytes, std::size_t offset)
{
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < MiddlewareStatus::wordSize; ++i)
        word |= std::uint32_t{bytes[offset + i]} << (8 * i);
    return word;
}

/// Whether a message of `size` bytes holds what is about to be read.
bool isLongEnough(std::size_t size, std::size_t needed, const char* operation)
{
    if (size >= needed)
        return true;
    LOG_WARNING("AMW_MessageHandler::%s: message of %zu bytes ignored, at least %zu are needed", operation, size,
                needed);
    return false;
}

} // namespace

AMW_MessageHandler::AMW_MessageHandler(DatabaseWrapper_StateMachine& owner)
    : m_holdTimer(*this), m_owner(owner), m_lock(false)
{
    initialise();
    start();
}

// The thread must be gone before anything it dispatches to is.
AMW_MessageHandler::~AMW_MessageHandler() { stop(); }

void AMW_MessageHandler::stop()
{
    enqueueEvent(Event(terminateRequested)); // dropped when the end of the process has come first
    thread().join();
}

void AMW_MessageHandler::handleMessage(Payload payload)
{
    if (!isLongEnough(payload.size(), MiddlewareStatus::kindAt + MiddlewareStatus::wordSize, __func__))
        return;
    const std::uint32_t magic = wordAt(payload, MiddlewareStatus::magicAt);
    if (magic != MiddlewareStatus::magic) {
        LOG_ERROR("AMW_MessageHandler::%s: magic field validation failed [magic = %x]", __func__, magic);
        return;
    }
    switch (wordAt(payload, MiddlewareStatus::kindAt)) {
    case MiddlewareStatus::alarm:
        LOG_ERROR("AMW_MessageHandler::%s: MW_API_ALARM_MSG received -> no handling here", __func__);
        break;
    case MiddlewareStatus::alive:
        LOG_ERROR("AMW_MessageHandler::%s: MW_API_ALIVE_MSG received -> no handling here", __func__);
        break;
    case MiddlewareStatus::status:
        handleStatusMessage(payload.subspan(MiddlewareStatus::statusIdAt));
        break;
    case MiddlewareStatus::indication:
        LOG_ERROR("AMW_MessageHandler::%s: MW_API_INDICATION received -> no handling here", __func__);
        break;
    default:
        break;
    }
}

void AMW_MessageHandler::handleStatusMessage(Payload status)
{
    LOG_DEBUG("AMW_MessageHandler::%s: ENTER", __func__);
    const std::size_t size = MiddlewareStatus::statusIdAt + status.size(); // of the whole message
    if (!isLongEnough(size, MiddlewareStatus::statusIdAt + MiddlewareStatus::wordSize, __func__))
        return;
    const auto id = static_cast<std::int32_t>(wordAt(status, 0));
    if (id != MiddlewareStatus::wifi)
        LOG_ERROR("AMW_MessageHandler::%s: unknown status id [%d]", __func__, id);
    else if (isLongEnough(size, MiddlewareStatus::wifiSize, __func__))
        handleWifiStatusMessage(static_cast<std::int32_t>(wordAt(status, MiddlewareStatus::wordSize)));
}

void AMW_MessageHandler::handleWifiStatusMessage(std::int32_t value)
{
    LOG_DEBUG("AMW_MessageHandler::%s: ENTER", __func__);
    LOG_INFO("AMW_MessageHandler::%s: Wifi operationalState changed to [%d]", __func__, value);
    const LockUser lock(m_lock);
    if (!m_pending)
        apply(value);
    m_latestStatus = value;
}

void AMW_MessageHandler::apply(std::int32_t value)
{
    // A hold that nothing would end keeps every later status back: there is none without a timer, also
    // when the store runs out of memory on the way.
    m_pending = false;
    if (value == m_appliedStatus)
        return;
    updateWifiOperationalState(value);
    m_appliedStatus = value;
    m_pending = armHoldTimer();
}

bool AMW_MessageHandler::armHoldTimer()
{
    constexpr unsigned holdPeriod = 1;
    try {
        if (m_holdTimer.requestTimeout(holdPeriod, Timer::seconds))
            return true;
        LOG_WARNING("AMW_MessageHandler::%s: no hold after this status: the timer refuses", __func__);
    } catch (const std::exception& error) { // no memory, or no thread for the timers
        LOG_WARNING("AMW_MessageHandler::%s: no hold after this status: %s", __func__, error.what());
    }
    return false;
}

void AMW_MessageHandler::handleTimeout()
{
    // First this: as soon as the owner has the event it may arm the timer for the next hold.
    m_holdTimer.cancelTimeout();
    constexpr std::int32_t noParameter = 0;
    try {
        m_owner.enqueueEvent(DatabaseWrapper_StateMachine::EventWithParams_evAMWMessageHandlerEvent(noParameter));
    } catch (const std::exception& error) { // no memory: without the event the hold would never end
        LOG_WARNING("AMW_MessageHandler::%s: the hold is prolonged: %s", __func__, error.what());
        armHoldTimer();
    }
}

void AMW_MessageHandler::holdExpired(std::int32_t)
{
    const LockUser lock(m_lock);
    if (m_pending)
        apply(m_latestStatus);
}

void AMW_MessageHandler::updateWifiOperationalState(std::int32_t value)
{
    SQLite& store = SQLite::getInstance();
    const auto object = store.sql_get_object(wifiModule, 1, requester);
    if (!object) {
        LOG_ERROR("AMW_MessageHandler::%s: WifiModule=1 not found", __func__);
        return;
    }
    if (Attribute* const attribute = object->getAttribute(operationalState)) {
        LOG_DEBUG("AMW_MessageHandler::%s: updating oparationalState [%d]", __func__, value);
        attribute->SetValue(value);
    } else {
        LOG_DEBUG("AMW_MessageHandler::%s: creating oparationalState [%d]", __func__, value);
        object->addAttribute(Attribute(false, operationalState, value, 0, false, IPCData::ENUM, true, false));
    }
    constexpr bool inTransaction = false;
    if (!store.sql_update(object.get(), inTransaction, requester))
        LOG_ERROR("AMW_MessageHandler::%s: updating of WifiModule=1:oparationalState failed", __func__);
}
