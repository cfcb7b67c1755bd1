#pragma once

#include "tools/tamoctl/Context.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The verbs. Each function adds its group to a command line; parsing that command line puts the
/// verb that was named, its arguments read, into `chosen`.
void addReadVerbs(CLI::App& app, Action& chosen);
void addWriteVerbs(CLI::App& app, Action& chosen);
/// tree, import, export: verbs that make many requests.
void addTransferVerbs(CLI::App& app, Action& chosen);
void addServiceVerbs(CLI::App& app, Action& chosen);
/// Reads verbs from a script; a line of a script cannot be one.
void addBatchVerb(CLI::App& app, Action& chosen);

/// All verbs but batch.
void addRequestVerbs(CLI::App& app, Action& chosen);
