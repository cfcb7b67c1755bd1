// What the node does when a database file cannot be trusted: the integrity checks, the software
// fallback, and the messages to the reset service and fault management.

#include "store/SQLite.h"

#include "persistence/ShellCommand.h"
#include "store/FileLocations.h"
#include "store/Statement.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"
#include "values/ValueType.h"

#include <sqlite3.h>

#include <algorithm>

using TAMO::Framework::Messaging;

namespace {

constexpr std::int32_t faultManagement = 3;
constexpr std::int32_t resetService = 9;

/// Reset reason of a start that follows a software fallback we ordered.
constexpr std::int32_t swFallbackReason = 2;

/// Keeps a check that runs into an error of its own from starting another.
class CheckScope {
public:
    explicit CheckScope(bool& running) : m_running(running) { m_running = true; }
    ~CheckScope() { m_running = false; }
    CheckScope(const CheckScope&) = delete;
    CheckScope& operator=(const CheckScope&) = delete;

private:
    bool& m_running;
};

void logLines(const char* operation, std::string_view text)
{
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        LOG_ERROR("SQLite::%s() %s", operation, std::string(text.substr(begin, end - begin)).c_str());
        begin = end + 1;
    }
}

/// True when SQLite itself finds nothing wrong with the open file.
bool passesCheck(Connection& connection, const std::string& file, const char* operation)
{
    Statement check(&connection, "PRAGMA integrity_check");
    if (!check.next()) {
        LOG_ERROR("SQLite::%s() Failed to do integrity check! sqlite_step returned %d", operation, check.result());
        return false;
    }
    if (check.text(0) == "ok") {
        LOG_INFO("SQLite::%s() Integrity check done to '%s', result '%s'", operation, file.c_str(), "ok");
        return true;
    }
    LOG_ERROR("SQLite::%s() Integrity check done to '%s', result 'nok'", operation, file.c_str());
    logLines(operation, check.text(0));
    return false;
}

} // namespace

bool SQLite::checkDbIntegrity(const std::string& file)
{
    const char* const name = file.c_str();
    Connection connection;
    const int opened = connection.open(file, SQLITE_OPEN_READWRITE, busyTimeout);
    if (opened != SQLITE_OK) {
        LOG_ERROR("SQLite::%s(): Failed to open %s for integrity check! sqlite err: %d", __func__, name, opened);
        return false;
    }
    if (passesCheck(connection, file, __func__)) {
        LOG_INFO("SQLite::%s() Checking DBObject and Attribute tables", __func__);
        if (checkDBTables(&connection)) {
            LOG_INFO("SQLite::%s() '%s' integrity ok", __func__, name);
            return true;
        }
    }
    LOG_ERROR("SQLite::%s() '%s' is corrupted!", __func__, name);
    return false;
}

bool SQLite::doIntegrityCheck()
{
    if (!m_runtime)
        return false; // nothing was ever opened: no file to judge, and no reason for a reset
    if (m_checkingIntegrity)
        return true;
    const CheckScope scope(m_checkingIntegrity);
    LOG_DEBUG("SQLite::%s() Running db integrity check!", __func__);
    if (checkDbIntegrity(m_runtimeFile)) {
        LOG_DEBUG("SQLite::%s() %s integrity ok", __func__, m_runtimeFile.c_str());
        return true;
    }
    const std::string permanent = permanentFile();
    if (CheckIfFileExists(permanent) && !checkDbIntegrity(permanent)) {
        LOG_ERROR("SQLite::%s() '%s' and '%s' are corrupted, requesting SW fallback!", __func__, permanent.c_str(),
                  m_runtimeFile.c_str());
        LOG_ERROR("pRBSdb corrupted, requesting SW fallback");
        LOG_INFO("SysEvnt: pRBSdb corrupted, requesting SW fallback");
        recordResetReason(swFallbackReason);
        requestFallbackFromMw();
    } else {
        LOG_ERROR("SQLite::%s() %s is corrupted, requesting reset!", __func__, m_runtimeFile.c_str());
        LOG_ERROR("Runtime database file corrupted, requesting reset");
        LOG_INFO("SysEvnt: Runtime database file corrupted, requesting reset");
        mw_api_pwr_controlled_reset(1, 0);
    }
    return false;
}

bool SQLite::requestFallbackFromMw()
{
    int partition = 0;
    if (mw_api_pwr_fallback_partition_get(&partition) != 0)
        LOG_ERROR("SQLite::%s() Failed to get active partition! Using %d", __func__, partition);
    else
        LOG_INFO("SQLite::%s() mw_api_pwr_fallback_partition_get returned %d", __func__, partition);
    if (partition != goldenPartition) {
        mw_api_pwr_ubifs_mount(partition);
        prepareSwFallback(partition);
    }
    const int status = mw_api_pwr_active_partition_set(partition);
    if (status != 0)
        LOG_ERROR("SQLite::%s() Failed to set active partition! mw_api_pwr_active_partition_set returned %d", __func__,
                  status);
    mw_api_pwr_controlled_reset(1, 0);
    return true;
}

bool SQLite::prepareSwFallback(int partition)
{
    constexpr int component = 10;
    const std::string target = getConfigPartitionPath(partition);
    executeCmd(component, "/usr/bin/prepare_sw_fallback.sh /mnt/activecfg " + shellWord(target), target, true);
    return true;
}

void SQLite::doFallback()
{
    LOG_DEBUG("SQLite::%s() START", __func__);
    recordResetReason(swFallbackReason);
    resetRBS(swFallbackReason, 1);
}

void SQLite::resetRBS(std::int32_t reason, std::int32_t second)
{
    if (Messaging::sendTamoMessage(resetService, TAMO::Messages::TAMO_ResetRBS(reason, second), -1))
        LOG_DEBUG("SQLite::%s: ResetRBS message sent.", __func__);
    else
        LOG_ERROR("SQLite::%s: sending FAIL", __func__);
}

void SQLite::sendFaultNotif(std::int32_t faultCode, bool raise)
{
    constexpr int number = 13;
    const TAMO::Messages::TAMO_FaultNotification fault(faultCode, raise ? 1 : 0);
    const auto code = static_cast<unsigned>(faultCode);
    if (Messaging::sendTamoMessage(faultManagement, fault, number))
        LOG_INFO("SQLite::%s: fault 0x%x sent to FM", __func__, code);
    else
        LOG_INFO("SQLite::%s: sending fault 0x%x to FM failed", __func__, code);
}

void SQLite::recordResetReason(std::int32_t reason)
{
    DBObject common("Common", 1, false, false, 0, 1);
    common.addAttribute(Attribute(false, "resetReason", reason, 0, false, IPCData::INT32, true, false));
    sql_insert_to_commondb(&common, false, 0, "Database", false);
}
