#pragma once

#include "tools/client/ExitCode.h"

#include <exception>
#include <stdexcept>
#include <string>

/// What ends a verb: a text for the operator and the exit code.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& what) : std::runtime_error(what), code(exitCode) {}
    const ExitCode code;
};

/// Sets the exit code only: the operator has been told already.
class AlreadyReported : public Failure {
public:
    explicit AlreadyReported(ExitCode exitCode) : Failure(exitCode, "reported") {}
};

/// Any exception as a Failure; trouble with the connection gets its exit code here.
Failure failureOf(const std::exception& error);

/// Tells the operator: a line on standard error, or with `json` an object on standard output.
void reportFailure(const Failure& failure, bool json);
