// Deprecated attributes and their successors. This version knows no mapping between them: start-up
// calls these in their place, and there is nothing to bring into step.

#include "store/SQLite.h"

#include "platform/middleware/Log.h"

bool SQLite::parseDeprecatedAttributeMappingXML()
{
    LOG_DEBUG("SQLite::%s: mappings of deprecated attributes are not read by this version", __func__);
    return true;
}

bool SQLite::syncAttributes() { return !unavailable(__func__); }
