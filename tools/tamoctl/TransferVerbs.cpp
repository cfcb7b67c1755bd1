// The verbs that walk or fill whole trees: tree, export, import.

#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/InputFile.h"
#include "tools/tamoctl/Interruption.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/ParentCheck.h"
#include "tools/tamoctl/ProgressBar.h"
#include "tools/tamoctl/ScopedTransaction.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/TreeWalk.h"
#include "tools/tamoctl/Verbs.h"
#include "values/DistinguishedName.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

namespace {

constexpr const char* defaultRoot = "ManagedElement=1";

void walk(Context& context, const std::string& dn, const std::function<void(const TreeNode&)>& visit)
{
    if (!walkTree(context.database(), dn, visit))
        throw Failure(ExitCode::notFound, printable(dn) + ": not found");
}

void treeAsText(Context& context, const std::string& root)
{
    std::vector<std::string> indents; // what stands before the children of each object on the path
    std::size_t objects = 0;
    std::size_t attributes = 0;
    walk(context, root, [&](const TreeNode& node) {
        ++objects;
        attributes += node.object.attributes.size();
        indents.resize(node.depth);
        if (node.depth == 0)
            return context.print(printable(node.dn));
        const std::string before = indents.back();
        context.print(before + (node.lastOfSiblings ? "└─ " : "├─ ") + printable(quotedPair(node.object.dn)));
        indents.push_back(before + (node.lastOfSiblings ? "   " : "│  "));
    });
    context.print("\n" + std::to_string(objects) + (objects == 1 ? " object, " : " objects, ") +
                  std::to_string(attributes) + (attributes == 1 ? " attribute" : " attributes"));
}

void treeAsJson(Context& context, const std::string& root)
{
    std::string array;
    walk(context, root,
         [&](const TreeNode& node) { array.append(array.empty() ? "" : ",").append(jsonText(node.dn)); });
    context.print("[" + array + "]");
}

void addTree(CLI::App& app, Action& chosen)
{
    auto dn = std::make_shared<std::string>(defaultRoot);
    CLI::App* verb = app.add_subcommand("tree", "Show the DNs of an object and everything below it");
    verb->add_option("DN", *dn)->option_text(std::string("(default: ") + defaultRoot + ")");
    verb->callback([dn, &chosen] {
        chosen = [dn](Context& context) {
            const std::string root = checkedDn(*dn);
            context.json() ? treeAsJson(context, root) : treeAsText(context, root);
        };
    });
}

void addExport(CLI::App& app, Action& chosen)
{
    auto dn = std::make_shared<std::string>(defaultRoot);
    CLI::App* verb = app.add_subcommand("export", "Write an object and everything below it, a JSON line each");
    verb->add_option("DN", *dn)->option_text(std::string("(default: ") + defaultRoot + ")");
    verb->callback([dn, &chosen] {
        chosen = [dn](Context& context) {
            walk(context, checkedDn(*dn),
                 [&](const TreeNode& node) { context.print(jsonObject(node.object, node.dn, false)); });
        };
    });
}

void importLine(Database& database, ParentCheck& parents, const std::string& line)
{
    const DBObject object = objectFromJson(line);
    const std::string dn = wholeDnOf(object);
    parents.require(object);
    if (!database.insert(object))
        throw Failure(ExitCode::refused, "the service refused to insert " + printable(dn));
    parents.addInserted(dn);
}

/// A signal is looked at only inside a transaction, which it aborts; otherwise it ends the process.
std::uint64_t importLines(Context& context, InputFile& file, bool alwaysShowProgress, const Interruption* interruption)
{
    ProgressBar progress(alwaysShowProgress || ::isatty(STDERR_FILENO) == 1, file.size());
    ParentCheck parents(context.database());
    std::uint64_t imported = 0;
    std::string line;
    try {
        while (file.nextLine(line)) {
            importLine(context.database(), parents, line);
            progress.update(file.bytesRead(), ++imported);
            if (interruption && interruption->came())
                throw Failure(ExitCode::interrupted, "interrupted");
        }
    } catch (const std::exception& error) {
        const Failure failure = failureOf(error);
        throw Failure(failure.code, file.name() + " line " + std::to_string(file.lineNumber()) + ": " + failure.what() +
                                        " (" + std::to_string(imported) + " " +
                                        (context.database().inTransaction() ? "queued" : "imported") + " before it)");
    }
    progress.finish(imported);
    return imported;
}

std::uint64_t importInTransaction(Context& context, const std::string& path, bool alwaysShowProgress)
{
    const Interruption interruption;
    InputFile file(path, &interruption);
    ScopedTransaction transaction(context);
    std::uint64_t imported = 0;
    try {
        imported = importLines(context, file, alwaysShowProgress, &interruption);
        if (interruption.came()) // who feeds us may have been ended by the same signal, in the middle
            throw Failure(ExitCode::interrupted, "interrupted");
    } catch (const Failure& failure) {
        throw Failure(failure.code, std::string(failure.what()) + "; " + transaction.abandon());
    }
    transaction.commit(true);
    return imported;
}

void importFile(Context& context, const std::string& path, bool alwaysShowProgress, bool inTransaction)
{
    std::uint64_t imported = 0;
    if (inTransaction) {
        imported = importInTransaction(context, path, alwaysShowProgress);
    } else {
        InputFile file(path);
        imported = importLines(context, file, alwaysShowProgress, nullptr);
    }
    context.printDone("imported " + std::to_string(imported) + (imported == 1 ? " object" : " objects"),
                      "\"imported\": " + std::to_string(imported));
}

void addImport(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string file;
        bool progress = false;
        bool transaction = false;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("import", "Insert the objects of a file, a JSON line each, parents first");
    verb->add_option("FILE", arguments->file, "What export wrote; - for standard input")->required();
    verb->add_flag("--progress", arguments->progress, "Show a progress bar even when standard error is no terminal");
    verb->add_flag("--transaction", arguments->transaction, "All or nothing: import inside one transaction");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            importFile(context, arguments->file, arguments->progress, arguments->transaction);
        };
    });
}

} // namespace

void addTransferVerbs(CLI::App& app, Action& chosen)
{
    addTree(app, chosen);
    addExport(app, chosen);
    addImport(app, chosen);
}
