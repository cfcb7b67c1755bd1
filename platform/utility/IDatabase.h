#pragma once

#include <functional>
#include <optional>

namespace IDatabase {

/// Reads the system mode from the loaded configuration; none when that holds none.
using ModeReader = std::function<std::optional<int>()>;

/// Where Toolbox::checkModeFromDB looks from now on. The database service itself registers a reader:
/// it cannot send itself a message before it serves any. An empty one ends that.
void registerModeReader(ModeReader reader);

/// Prepares Toolbox::checkModeFromDB.
void initializeDatabaseIF();

} // namespace IDatabase
