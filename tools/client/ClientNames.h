#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The node id a client name of the service stands for ("WebUI" 11; letter case does not matter), or
/// that of a decimal number from 1 on. None for anything else, "Database" (the service itself) too.
std::optional<std::int32_t> clientNode(std::string_view nameOrNumber);

/// All client names, comma-separated, for a help text.
std::string clientNameList();
