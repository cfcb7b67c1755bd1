// The command line as a whole: global options and the verbs of all groups.

#include "tools/tamoctl/Options.h"

#include "platform/host/Frame.h"
#include "tools/client/ClientNames.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace {

/// An hour; more is a slip of the finger, and far beyond it the clock would overflow.
constexpr double longestTimeout = 3600;

constexpr const char* footer = R"(
DNs are whole DNs ("ManagedElement=1,FAPService=1"); a pair that holds a comma stands in double quotes.
TYPE is INT8, INT16, INT32, INT64, UINT8, UINT16, UINT32, UINT64, string, boolean, reference, ENUM, text,
DECIMAL64, FLOAT or a type code; string when left out.

Exit codes: 0 success, 1 refused by the service (check: start-up would not load the file as it is, sync-pairs: the
service would refuse it, diff: the trees differ), 2 usage, 3 not found, 4 no service, 5 timeout, 6 a watch missed
notifications or lost its connection, 130 interrupted (a transaction: aborted).
)";

std::int32_t nodeOf(const std::string& client)
{
    const auto node = clientNode(client);
    if (!node)
        throw Failure(ExitCode::usage,
                      "--as " + client + ": neither a node id from 1 on nor one of " + clientNameList());
    return *node;
}

/// A command line and the commands that a transaction takes from it.
struct SplitLine {
    std::vector<std::string> words;
    Commands commands; ///< what stands behind "--", apart at each further one
};

/// The verb: the first word that is neither an option nor an option's value.
std::string verbOf(const CLI::App& app, const std::vector<std::string>& words)
{
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (!words[i].starts_with('-'))
            return words[i];
        const CLI::Option* option = app.get_option_no_throw(words[i]);
        i += option && option->get_items_expected() > 0;
    }
    return {};
}

SplitLine splitCommands(const CLI::App& app, std::vector<std::string> words)
{
    auto mark = std::find(words.begin(), words.end(), "--");
    if (mark == words.end() || verbOf(app, words) != "transaction")
        return {std::move(words), {}};
    SplitLine line{{words.begin(), mark}, {}};
    while (mark != words.end()) {
        const auto end = std::find(mark + 1, words.end(), "--");
        if (mark + 1 == end)
            throw Failure(ExitCode::usage, "a command is missing behind \"--\"");
        line.commands.emplace_back(mark + 1, end);
        mark = end;
    }
    return line;
}

/// Parses words with the verbs added to `app`.
void parseWords(CLI::App& app, std::vector<std::string> words)
{
    std::reverse(words.begin(), words.end()); // the library takes them from the back
    app.parse(std::move(words));
}

/// The text of a CLI error on one line, without the library's own decoration.
Failure usageFailure(const CLI::App& app, const CLI::ParseError& error)
{
    std::string text = error.what();
    if (app.get_subcommands().empty() && !app.remaining().empty())
        text = "there is no verb \"" + app.remaining().front() + "\"";
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return {ExitCode::usage, text + " (see --help)"};
}

} // namespace

void addRequestVerbs(CLI::App& app, Action& chosen)
{
    addReadVerbs(app, chosen);
    addWriteVerbs(app, chosen);
    addTransferVerbs(app, chosen);
    addServiceVerbs(app, chosen);
    addMaintenanceVerbs(app, chosen);
    addExaminationVerbs(app, chosen);
    addSyncPairsVerb(app, chosen);
    addDiagnosticVerbs(app, chosen);
    for (CLI::App* verb : app.get_subcommands({}))
        verb->fallthrough(); // global options may stand behind the verb
}

std::optional<CommandLine> parseCommandLine(int argc, char** argv)
{
    CommandLine line;
    std::string client;
    CLI::App app("Talks to the configuration database of a node.", "tamoctl");
    app.option_defaults()->always_capture_default(false);
    line.options.directory = TAMO::Wire::frameworkDirectory();
    app.add_option("--dir", line.options.directory,
                   "Directory of the node's sockets (default: TAMO_FRAMEWORK_DIR, now " + line.options.directory + ")");
    app.add_option("--as", client,
                   "Client to act as: a name (" + clientNameList() +
                       ") or a node id (default: 100 and up, first free)");
    app.add_option("--timeout", line.options.timeout, "Seconds to wait for each answer (default: 10)");
    app.add_flag("--json", line.options.json, "Write results and errors as JSON");
    app.set_version_flag("--version", std::string("tamoctl ") + TAMO_VERSION);
    app.footer(footer);
    app.get_formatter()->label("SUBCOMMAND", "VERB ...");
    app.get_formatter()->label("Subcommands", "Verbs");
    app.require_subcommand(1);
    SplitLine split = splitCommands(app, {argv + 1, argv + argc});
    addBatchVerb(app, line.verb);
    addWatchVerb(app, line.verb);
    addTransactionVerb(app, line.verb, std::move(split.commands));
    addRequestVerbs(app, line.verb);
    try {
        parseWords(app, std::move(split.words));
    } catch (const CLI::Success& asked) {
        app.exit(asked);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw usageFailure(app, error);
    }
    if (!client.empty())
        line.options.node = nodeOf(client);
    if (!(line.options.timeout > 0 && line.options.timeout <= longestTimeout))
        throw Failure(ExitCode::usage, "--timeout: a number of seconds above 0, at most 3600");
    return line;
}

Action parseVerb(std::vector<std::string> words)
{
    Action verb;
    CLI::App app("A line of a script", "");
    app.require_subcommand(1);
    SplitLine split = splitCommands(app, std::move(words));
    addWatchVerb(app, verb);
    addTransactionVerb(app, verb, std::move(split.commands));
    addRequestVerbs(app, verb);
    try {
        parseWords(app, std::move(split.words));
    } catch (const CLI::Success&) {
        throw Failure(ExitCode::usage, "a line of a script cannot ask for help");
    } catch (const CLI::ParseError& error) {
        throw usageFailure(app, error);
    }
    return verb;
}
