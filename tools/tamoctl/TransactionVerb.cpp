// The verb transaction: a script whose requests are committed together or not at all.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/InputFile.h"
#include "tools/tamoctl/Interruption.h"
#include "tools/tamoctl/Options.h"
#include "tools/tamoctl/ScopedTransaction.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace {

struct TransactionArguments {
    std::string file;
    Commands commands; ///< behind "--"
    std::int32_t id = 0;
    bool noNotifications = false;
    bool abort = false;
};

Action parsedForTransaction(std::vector<std::string> words)
{
    static const std::vector<std::string> refused{"transaction", "batch",
                                                  "watch",       "create-from-template",
                                                  "store",       "backup-fragments",
                                                  "integrity",   "clean",
                                                  "shutdown",    "load-slot",
                                                  "enable-sync", "sync-pairs",
                                                  "check",       "diff"};
    if (std::find(refused.begin(), refused.end(), words.front()) != refused.end())
        throw Failure(ExitCode::usage, "the verb " + words.front() + " cannot stand inside a transaction");
    return parseVerb(std::move(words));
}

/// A failure with the place it happened at in front.
Failure at(const std::string& where, const std::exception& error)
{
    const Failure failure = failureOf(error);
    const bool told = dynamic_cast<const AlreadyReported*>(&error);
    return {failure.code, where + ": " + (told ? "the answer is no" : failure.what())};
}

/// Runs one command after the other, as many as `next` gives, and then commits. `next` sets the place
/// of the command before it reads it, and gives none at the end.
using NextCommand = std::function<std::optional<Action>(std::string& where)>;

void runInTransaction(Context& context, const TransactionArguments& arguments, const NextCommand& next,
                      const Interruption& interruption)
{
    ScopedTransaction transaction(context, arguments.id > 0 ? std::optional(arguments.id) : std::nullopt);
    std::string where;
    std::uint64_t done = 0;
    const auto stopIfInterrupted = [&interruption] {
        if (interruption.came())
            throw Failure(ExitCode::interrupted, "interrupted");
    };
    try {
        while (auto command = next(where)) {
            stopIfInterrupted();
            if (!*command)
                continue; // a comment
            (*command)(context);
            std::cout.flush(); // whoever feeds the script may be waiting for the answer
            ++done;
        }
        stopIfInterrupted();
    } catch (const std::exception& error) {
        const Failure failure = at(where, error);
        throw Failure(failure.code, std::string(failure.what()) + "; " + transaction.abandon());
    }
    arguments.abort ? transaction.abort() : transaction.commit(!arguments.noNotifications);
    const std::string count = std::to_string(done) + (done == 1 ? " command" : " commands");
    context.printDone(arguments.abort ? "aborted after " + count + ", as asked" : "committed " + count,
                      (arguments.abort ? "\"aborted\": " : "\"committed\": ") + std::to_string(done));
}

void runScript(Context& context, const TransactionArguments& arguments)
{
    const Interruption interruption;
    InputFile script(arguments.file, &interruption);
    const auto next = [&](std::string& where) -> std::optional<Action> {
        std::string line;
        where = script.name() + " line " + std::to_string(script.lineNumber() + 1);
        if (!script.nextLine(line))
            return std::nullopt;
        where = script.name() + " line " + std::to_string(script.lineNumber());
        auto words = splitWords(line);
        return words.empty() ? Action() : parsedForTransaction(std::move(words));
    };
    runInTransaction(context, arguments, next, interruption);
}

void runCommands(Context& context, const TransactionArguments& arguments)
{
    std::vector<Action> actions; // all read before the first is run
    const auto place = [](std::size_t index) { return "command " + std::to_string(index + 1); };
    for (const auto& words : arguments.commands) {
        try {
            actions.push_back(parsedForTransaction(words));
        } catch (const std::exception& error) {
            throw at(place(actions.size()), error);
        }
    }
    const Interruption interruption;
    std::size_t index = 0;
    const auto next = [&](std::string& where) -> std::optional<Action> {
        if (index == actions.size())
            return std::nullopt;
        where = place(index);
        return actions[index++];
    };
    runInTransaction(context, arguments, next, interruption);
}

void freeTransaction(Context& context, std::int32_t id)
{
    const bool freed = context.database().abortTransaction(id);
    const std::string name =
        "transaction " + std::to_string(id) + " of node " + std::to_string(context.client().node());
    if (!freed)
        throw Failure(ExitCode::notFound, name + " is not open");
    context.printDone("aborted " + name);
}

void transact(Context& context, const TransactionArguments& arguments)
{
    const bool commands = !arguments.commands.empty();
    if (commands && !arguments.file.empty())
        throw Failure(ExitCode::usage, "a script or commands behind \"--\", not both");
    if (commands)
        return runCommands(context, arguments);
    if (!arguments.file.empty())
        return runScript(context, arguments);
    if (!arguments.abort || arguments.id == 0)
        throw Failure(ExitCode::usage, "a script is missing, or commands behind \"--\"");
    freeTransaction(context, arguments.id);
}

constexpr const char* footer = R"help(
A script has one verb a line, quoted as for a shell, # for comments. On the command line commands are joined by --:
  tamoctl transaction -- insert A=1 x=1 -- set A=1,B=1 y=2
Writes are queued; get, exists, class and instances see them, children, tree, export and whole-dn do not. The first command
that fails (also "exists" with the answer false) aborts the transaction. Not allowed inside: transaction, watch, batch,
create-from-template, store, backup-fragments, integrity, clean, shutdown, load-slot, check, diff. What "common"
wrote stays when a later command fails at the commit.

A transaction belongs to the client's node id and stays open when the client is killed. Without script and commands,
"--id N --abort" (with --as NODE) aborts such a one.
)help";

} // namespace

void addTransactionVerb(CLI::App& app, Action& chosen, Commands commands)
{
    auto arguments = std::make_shared<TransactionArguments>();
    arguments->commands = std::move(commands);
    CLI::App* verb = app.add_subcommand("transaction", "Run verbs that are committed together or not at all");
    verb->add_option("FILE", arguments->file, "Script; - for standard input");
    verb->add_flag("--no-notifications", arguments->noNotifications, "Tell no subscriber what was committed");
    verb->add_flag("--abort", arguments->abort, "Run everything, then abort: a rehearsal");
    verb->add_option("--id", arguments->id, "Transaction id (default: drawn at random)")
        ->check(CLI::Range(1, 2147483647));
    verb->footer(footer);
    verb->callback([arguments, &chosen] { chosen = [arguments](Context& context) { transact(context, *arguments); }; });
    verb->fallthrough();
}
