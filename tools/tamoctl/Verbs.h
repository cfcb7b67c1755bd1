#pragma once

#include "tools/tamoctl/Context.h"

#include <string>
#include <vector>

/// Verbs with their arguments, in words.
using Commands = std::vector<std::vector<std::string>>;

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
/// store, integrity, clean and the like: what concerns the database as a whole.
void addMaintenanceVerbs(CLI::App& app, Action& chosen);
/// check, diff: database files and whole trees, examined without a service.
void addExaminationVerbs(CLI::App& app, Action& chosen);
/// sync-pairs: a mapping file of deprecated attributes, examined without a service.
void addSyncPairsVerb(CLI::App& app, Action& chosen);
/// clients, subscriptions: what the service knows of those it serves.
void addDiagnosticVerbs(CLI::App& app, Action& chosen);
/// Shows notifications until it is told to end.
void addWatchVerb(CLI::App& app, Action& chosen);
/// Runs a script, or `commands`, inside a client transaction.
void addTransactionVerb(CLI::App& app, Action& chosen, Commands commands);
/// Reads verbs from a script; a line of a script cannot be one.
void addBatchVerb(CLI::App& app, Action& chosen);

/// All verbs but batch, watch and transaction.
void addRequestVerbs(CLI::App& app, Action& chosen);
