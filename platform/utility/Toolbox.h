#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Toolbox {

/// Splits `text` at every `separator` into `list` (emptied first). Empty elements are left out when
/// `skipEmpty` is set. False for an empty text only.
bool readStringToList(const std::string& text, char separator, std::vector<std::string>& list, bool skipEmpty);

/// The decimal number that `text` begins with, which a minus may lead where the type has one. With
/// `wholeText` nothing may follow it. False, and `value` as it was, when there is none or it does not
/// fit: blanks, a plus and an empty text are no number. The locale plays no part.
bool convertStringToInt(const std::string& text, std::int32_t& value, bool wholeText);
bool convertStringToUInt(const std::string& text, std::uint32_t& value, bool wholeText);
bool convertStringToShort(const std::string& text, std::int16_t& value, bool wholeText);
bool convertStringToUShort(const std::string& text, std::uint16_t& value, bool wholeText);
bool convertStringToLongLong(const std::string& text, std::int64_t& value, bool wholeText);
bool convertStringToULongLong(const std::string& text, std::uint64_t& value, bool wholeText);
/// The same for a number with fraction or exponent and nothing behind it. "inf" and "nan" are no
/// numbers; one too great or too small for a double does not fit.
bool convertStringToDouble(const std::string& text, double& value);

/// Gives a file this mode and group. False when the file or the group is not there, or we may not.
bool changeFileAccess(const std::string& path, unsigned mode, const std::string& group);

/// The system mode of the loaded configuration, as the reader registered with IDatabase finds it; the
/// middleware's when the configuration holds none, -1 when that cannot be had either.
int checkModeFromDB(int which);

} // namespace Toolbox
