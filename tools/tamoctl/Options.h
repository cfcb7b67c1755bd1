#pragma once

#include "tools/tamoctl/Context.h"

#include <optional>
#include <string>
#include <vector>

struct CommandLine {
    GlobalOptions options;
    Action verb;
};

/// Reads a whole command line. None when it asked for help or the version, which then is printed.
/// Throws a Failure (usage).
std::optional<CommandLine> parseCommandLine(int argc, char** argv);

/// Reads a verb and its arguments from the words of a script line. Throws a Failure (usage).
Action parseVerb(std::vector<std::string> words);
