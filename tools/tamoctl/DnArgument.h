#pragma once

#include "platform/utility/DBObject.h"

#include <string>

/// DNs and names that come from outside, before they go into a request.

/// The whole DN in the one way the client writes it (quotes only where a pair needs them). Throws a
/// Failure (usage) when it is empty, has an empty pair or holds a NUL.
std::string checkedDn(const std::string& dn);

/// The attribute name; throws a Failure (usage) when it is empty or holds a NUL.
const std::string& checkedName(const std::string& name);

/// The whole DN of a fetched object, its own pair in quotes where it needs them.
std::string wholeDnOf(const DBObject& object);

/// The whole DN of an object that was fetched as `asked`. The service does not keep quotes in the
/// parent's DN, so `asked` is preferred where both name the same pairs.
std::string shownDn(const std::string& asked, const DBObject& object);
