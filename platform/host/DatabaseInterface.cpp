// The system mode as the loaded configuration has it. On a workstation the database service reads it
// for itself, so that nothing has to be prepared.
#include "platform/middleware/mw_api.h"
#include "platform/utility/IDatabase.h"
#include "platform/utility/Toolbox.h"

#include <utility>

namespace {

/// Set and asked during start-up, on one thread.
IDatabase::ModeReader& modeReader()
{
    static IDatabase::ModeReader reader;
    return reader;
}

} // namespace

void IDatabase::registerModeReader(ModeReader reader) { modeReader() = std::move(reader); }

void IDatabase::initializeDatabaseIF() {}

int Toolbox::checkModeFromDB(int which)
{
    if (modeReader())
        if (const auto mode = modeReader()())
            return *mode;
    int current = -1;
    mw_api_operation_mode_get(which, &current);
    return current;
}
