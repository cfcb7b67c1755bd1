#pragma once

#include "values/Value.h"

#include <cstdint>
#include <optional>
#include <string>

/// NAME[:TYPE]=VALUE as it stands on a command line.
struct Assignment {
    std::string left; ///< everything before the first "="
    std::string text; ///< everything after it
    std::string name; ///< `left` without a type
    std::optional<std::string> typeText;

    /// The type given, or `fallback`. Throws a Failure (usage) for a type that does not exist.
    std::int32_t type(std::int32_t fallback) const;
};

/// Throws a Failure (usage) when there is no "=" or no name.
Assignment parseAssignment(const std::string& argument);

/// Reads the whole text as a value of the type: nothing left over, nothing out of range; booleans
/// are true, false, 1 and 0; floating values may be Infinity and -Infinity. Throws a Failure (usage)
/// that names the attribute.
Value valueFromArgument(const std::string& text, std::int32_t type, const std::string& name);
