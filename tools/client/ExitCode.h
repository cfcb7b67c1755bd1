#pragma once

enum class Trouble;

/// The exit codes of the client tools, which scripts rely on.
enum class ExitCode {
    success = 0,
    refused = 1, ///< by the service; or what was examined is not as it should be
    usage = 2,   ///< wrong arguments or input
    notFound = 3,
    noService = 4,
    timeout = 5,
    incomplete = 6,    ///< a watch missed notifications or lost its connection
    interrupted = 130, ///< by a signal, before what was begun could be completed
};

ExitCode exitCodeOf(Trouble trouble);
