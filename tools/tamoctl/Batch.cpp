// A script of verbs in one process and over one connection.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/InputFile.h"
#include "tools/tamoctl/Options.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <optional>

namespace {

void runLine(Context& context, const std::string& line)
{
    auto words = splitWords(line);
    if (words.empty())
        return; // a comment
    parseVerb(std::move(words))(context);
}

/// Runs the lines up to the first that fails, or all of them with `keepGoing`; then the first
/// failure decides how the whole ends.
void runScript(Context& context, const std::string& path, bool keepGoing)
{
    InputFile script(path);
    std::optional<ExitCode> first;
    std::string line;
    while (script.nextLine(line)) {
        try {
            runLine(context, line);
        } catch (const std::exception& error) {
            const Failure failure = failureOf(error);
            const std::string where = script.name() + " line " + std::to_string(script.lineNumber());
            if (!dynamic_cast<const AlreadyReported*>(&error))
                reportFailure(Failure(failure.code, where + ": " + failure.what()), context.json());
            first = first.value_or(failure.code);
            if (!keepGoing || failure.code == ExitCode::noService)
                break;
        }
        std::cout.flush(); // whoever feeds the script may be waiting for the answer
    }
    if (first)
        throw AlreadyReported(*first);
}

} // namespace

void addBatchVerb(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string file;
        bool keepGoing = false;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb =
        app.add_subcommand("batch", "Run a script: one verb a line, quoted as for a shell, # for comments");
    verb->add_option("FILE", arguments->file, "- for standard input")->required();
    verb->add_flag("-k,--keep-going", arguments->keepGoing, "Go on after a line that failed");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) { runScript(context, arguments->file, arguments->keepGoing); };
    });
    verb->fallthrough();
}
