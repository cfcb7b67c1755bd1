// The services of the node by number.

#include "requests/Clients.h"

#include <iterator>

namespace {

constexpr const char* names[] = {
    "Database",
    "Startup",
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
    "Transport",
};

} // namespace

const char* clientName(std::int32_t node)
{
    return node >= 0 && node < static_cast<std::int32_t>(std::size(names)) ? names[node] : "Unknown client";
}
