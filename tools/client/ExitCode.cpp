// From trouble with the service to the exit code of a tool.

#include "tools/client/ExitCode.h"

#include "tools/client/ServiceClient.h"

ExitCode exitCodeOf(Trouble trouble)
{
    switch (trouble) {
    case Trouble::refused:
        return ExitCode::refused;
    case Trouble::timeout:
        return ExitCode::timeout;
    case Trouble::tooLarge:
        return ExitCode::usage;
    case Trouble::missed:
        return ExitCode::incomplete;
    case Trouble::noService:
    case Trouble::protocol: // whatever is there, it is not the service
        break;
    }
    return ExitCode::noService;
}
