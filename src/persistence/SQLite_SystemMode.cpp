// The system mode: what the loaded configuration was made for against what the middleware runs.

#include "store/SQLite.h"

#include "platform/middleware/Log.h"
#include "platform/utility/IDatabase.h"
#include "platform/utility/Toolbox.h"

#include <limits>
#include <optional>
#include <type_traits>
#include <variant>

namespace {

constexpr int currentMode = 0;
constexpr int activate = 1;
constexpr int changeTo = 2;

/// None for what is no integer or does not fit.
std::optional<int> integerOf(const Value& value)
{
    return std::visit(
        [](const auto& stored) -> std::optional<int> {
            using Kind = std::decay_t<decltype(stored)>;
            if constexpr (std::is_integral_v<Kind> && !std::is_same_v<Kind, bool>)
                if (std::in_range<int>(stored))
                    return static_cast<int>(stored);
            return std::nullopt;
        },
        value);
}

} // namespace

/// The mode in the runtime database; none when it holds no usable one.
std::optional<int> SQLite::storedSystemMode()
{
    constexpr const char* name = "systemMode";
    const std::int32_t oam = get_object_id(oamPair, 1);
    if (oam == 0 || !checkAttributeExistence(name, oam)) // most configurations are for any mode
        return std::nullopt;
    const auto attribute = sql_get_attribute(oam, name, "SQLite::validateSystemMode", false);
    if (!attribute)
        return std::nullopt;
    const auto mode = integerOf(attribute->value);
    if (!mode)
        LOG_ERROR("SQLite::%s: systemMode of OAM is no number: %s", __func__, attribute->ToStr().c_str());
    return mode;
}

bool SQLite::validateSystemMode()
{
    LOG_DEBUG("SQLite::%s: Comparing system modes from pRBSdb and AMW", __func__);
    IDatabase::initializeDatabaseIF();
    const int stored = Toolbox::checkModeFromDB(currentMode);
    LOG_DEBUG("SQLite::%s: System mode from pRBSdb: %d", __func__, stored);
    int current = -1;
    if (mw_api_operation_mode_get(currentMode, &current) != 0)
        LOG_ERROR("SQLite::%s: Could not get current operation mode from AMW", __func__);
    LOG_DEBUG("SQLite::%s: System mode from AMW: %d", __func__, current);
    if (stored == current) {
        LOG_INFO("SQLite::%s: System modes matched. %d(pRBSdb) == %d(AMW)", __func__, stored, current);
        if (mw_api_operation_mode_set(activate, stored) != 0)
            LOG_ERROR("SQLite::%s: Could not activate operation mode to AMW", __func__);
        return true;
    }
    LOG_INFO("SQLite::%s: System mode mismatch!  %d(pRBSdb) != %d(AMW)", __func__, stored, current);
    LOG_DEBUG("SQLite::%s: Setting new system mode to AMW", __func__);
    if (mw_api_operation_mode_set(changeTo, stored) != 0)
        LOG_ERROR("SQLite::%s: Could not set new operation mode to AMW", __func__);
    return false;
}
