#pragma once

#include <string>
#include <vector>

namespace Toolbox {

/// Splits `text` at every `separator` into `list` (emptied first). Empty elements are left out when
/// `skipEmpty` is set. False for an empty text only.
bool readStringToList(const std::string& text, char separator, std::vector<std::string>& list, bool skipEmpty);

/// Gives a file this mode and group. False when the file or the group is not there, or we may not.
bool changeFileAccess(const std::string& path, unsigned mode, const std::string& group);

} // namespace Toolbox
