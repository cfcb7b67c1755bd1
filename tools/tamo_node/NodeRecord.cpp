// The status file's JSON, written by the supervisor and read by the verbs, and the text of `status`.
#include "NodeRecord.h"

#include "platform/host/NodeState.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>

using nlohmann::json;

namespace {

std::string hexadecimal(int code)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(code));
    return text;
}

json faultEvents(const NodeRecord& record)
{
    json events = json::array();
    for (const auto& fault : record.faults)
        events.push_back({{"time", fault.time}, {"code", fault.code}, {"raised", fault.raised}});
    return events;
}

/// The faults raised and not cancelled since, by code.
json activeFaults(const NodeRecord& record)
{
    std::map<int, std::string> since;
    for (const auto& fault : record.faults)
        fault.raised ? void(since.try_emplace(fault.code, fault.time)) : void(since.erase(fault.code));
    json active = json::array();
    for (const auto& [code, time] : since)
        active.push_back({{"code", code}, {"hex", hexadecimal(code)}, {"since", time}});
    return active;
}

json resetOrders(const NodeRecord& record)
{
    json orders = json::array();
    for (const auto& reset : record.resets)
        orders.push_back({{"time", reset.time},
                          {"by", reset.by},
                          {"order", reset.order},
                          {"reason", reset.reason},
                          {"second", reset.second},
                          {"repeated", reset.repeated}});
    return orders;
}

json bootList(const NodeRecord& record)
{
    json boots = json::array();
    for (const auto& boot : record.boots)
        boots.push_back({{"time", boot.time},
                         {"partition", boot.partition},
                         {"reset_reason", boot.resetReason},
                         {"cause", boot.cause},
                         {"good", boot.good}});
    return boots;
}

template <class Number>
json orNull(const std::optional<Number>& number)
{
    return number ? json(*number) : json();
}

json toJson(const NodeRecord& record)
{
    return {{"state", record.state},
            {"pid", record.pid},
            {"supervisor", record.supervisor},
            {"isolation", record.isolation},
            {"started", record.started},
            {"ready", record.ready},
            {"ended", record.ended},
            {"exit_code", orNull(record.exitCode)},
            {"signal", orNull(record.signal)},
            {"problem", record.problem},
            {"fault_events", faultEvents(record)},
            {"resets", resetOrders(record)},
            {"boots", bootList(record)},
            {"boot_count", record.bootCount}};
}

std::optional<int> optionalNumber(const json& from, const char* key)
{
    return from.at(key).is_null() ? std::nullopt : std::optional(from.at(key).get<int>());
}

NodeRecord fromJson(const json& from)
{
    NodeRecord record;
    from.at("state").get_to(record.state);
    from.at("pid").get_to(record.pid);
    from.at("supervisor").get_to(record.supervisor);
    from.at("isolation").get_to(record.isolation);
    from.at("started").get_to(record.started);
    from.at("ready").get_to(record.ready);
    from.at("ended").get_to(record.ended);
    record.exitCode = optionalNumber(from, "exit_code");
    record.signal = optionalNumber(from, "signal");
    from.at("problem").get_to(record.problem);
    for (const auto& event : from.at("fault_events"))
        record.faults.push_back({event.at("time"), event.at("code"), event.at("raised")});
    for (const auto& order : from.at("resets"))
        record.resets.push_back({order.at("time"), order.at("by"), order.at("order"), order.at("reason"),
                                 order.at("second"), order.at("repeated")});
    for (const auto& boot : from.at("boots"))
        record.boots.push_back(
            {boot.at("time"), boot.at("partition"), boot.at("reset_reason"), boot.at("cause"), boot.at("good")});
    from.at("boot_count").get_to(record.bootCount);
    return record;
}

} // namespace

namespace {

/// The last order that was not a repetition; null when there was none.
json lastReset(const NodeRecord& record)
{
    const json orders = resetOrders(record);
    const auto found = std::find_if(orders.rbegin(), orders.rend(), [](const json& o) { return !o.at("repeated"); });
    return found == orders.rend() ? json() : *found;
}

} // namespace

bool writeRecord(const std::string& path, const NodeRecord& record, std::string& problem)
{
    return replaceFile(path, toJson(record).dump(2, ' ', false, json::error_handler_t::replace) + "\n", problem);
}

std::optional<NodeRecord> readRecord(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        return std::nullopt;
    try {
        return fromJson(json::parse(file));
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

std::string timeNow()
{
    const auto now = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char day[32];
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    char text[48];
    std::snprintf(text, sizeof text, "%s.%03dZ", day, static_cast<int>(now.time_since_epoch().count() % 1000));
    return text;
}

std::string endingText(const NodeRecord& record)
{
    if (record.exitCode)
        return "exit code " + std::to_string(*record.exitCode);
    if (record.signal)
        return "signal " + std::to_string(*record.signal) + " (" + strsignal(*record.signal) + ")";
    return "";
}

std::string statusText(const NodeRecord& record, const std::string& directory, const std::string& stateFile)
{
    json status = toJson(record);
    status["directory"] = directory;
    status["faults"] = activeFaults(record);
    status["last_reset"] = lastReset(record);
    NodeState state;
    std::string problem;
    if (readNodeState(stateFile, state, problem)) {
        status["started_partition"] = state.startedPartition;
        status["active_partition"] = state.activePartition;
        status["fallback_partition"] = state.fallbackPartition;
        status["boots_without_good_mark"] = state.unmarkedBoots;
        status["reset_reason"] = state.resetReason;
        status["operation_mode"] = state.operationMode;
        status["mo_access"] = state.moAccess;
        status["controlled_resets"] = state.controlledResets;
    } else {
        status["state_file_problem"] = problem;
    }
    return status.dump(2, ' ', false, json::error_handler_t::replace);
}
