#pragma once

#include <string>
#include <vector>

namespace Toolbox {

/// Splits `text` at every `separator` into `list` (emptied first). Empty elements are left out when
/// `skipEmpty` is set. False for an empty text only.
bool readStringToList(const std::string& text, char separator, std::vector<std::string>& list, bool skipEmpty);

/// Gives a file this mode and group. False when the file or the group is not there, or we may not.
bool changeFileAccess(const std::string& path, unsigned mode, const std::string& group);

/// The system mode of the loaded configuration, as the reader registered with IDatabase finds it; the
/// middleware's when the configuration holds none, -1 when that cannot be had either.
int checkModeFromDB(int which);

} // namespace Toolbox
