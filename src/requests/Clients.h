#pragma once

#include <cstdint>
#include <string>

/// A requester: its node, and the name that log lines use for it.
struct Client {
    std::int32_t node = -1;
    std::string name;
};

/// The name of a client node ("Startup", "VEX"); "Unknown client" outside 0 to 16.
const char* clientName(std::int32_t node);

/// The node of the auto-integration service.
inline constexpr std::int32_t autointegrationManagement = 8;
