#pragma once

enum class Trouble;

/// The exit codes of the client tools, which scripts rely on.
enum class ExitCode {
    success = 0,
    refused = 1, ///< by the service
    usage = 2,   ///< wrong arguments or input
    notFound = 3,
    noService = 4,
    timeout = 5,
};

ExitCode exitCodeOf(Trouble trouble);
