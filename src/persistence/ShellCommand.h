#pragma once

#include <string>

/// The path as one word of a command line: as it stands while it holds only letters, digits and
/// ". _ / + , : = -", else in quotes. One that begins with "-" gets "./" in front.
std::string shellWord(const std::string& path);

/// Runs a command line through the shell and waits for its end. Returns what system() does: 0 for a
/// command that ended well.
int runCommand(const std::string& commandLine);

/// True when "rm -rf" may be let loose on the directory: an absolute path that is neither the root
/// nor the permanent, common or runtime directory, nor above one of them. False with an error line.
bool mayRemoveTree(const std::string& directory);
