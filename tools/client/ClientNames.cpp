// The names under which services appear in the database's log, for clients that act as one of them.

#include "tools/client/ClientNames.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <strings.h>

namespace {

/// In order of their node ids, from 1.
constexpr std::array<const char*, 16> names{"Startup",
                                            "ConfigurationManagement",
                                            "FaultManagement",
                                            "PerformanceManagement",
                                            "Middleware",
                                            "BoamInterface",
                                            "SoftwareManagement",
                                            "AutointegrationManagement",
                                            "Reset",
                                            "VEX",
                                            "WebUI",
                                            "WebUiProxy",
                                            "SecMain",
                                            "LocalAgent",
                                            "LocalAgentDBPlugin",
                                            "Transport"};

} // namespace

std::optional<std::int32_t> clientNode(std::string_view nameOrNumber)
{
    const std::string asked(nameOrNumber);
    const auto named = std::find_if(names.begin(), names.end(),
                                    [&](const char* name) { return strcasecmp(name, asked.c_str()) == 0; });
    if (named != names.end())
        return static_cast<std::int32_t>(named - names.begin()) + 1;
    std::int32_t number = 0;
    const char* end = asked.data() + asked.size();
    const auto [read, error] = std::from_chars(asked.data(), end, number);
    if (error != std::errc() || read != end || number < 1)
        return std::nullopt;
    return number;
}

std::string clientNameList()
{
    std::string list;
    for (const char* name : names)
        list.append(list.empty() ? "" : ", ").append(name);
    return list;
}
