// The verbs that act on the database as a whole: store, backup-fragments, integrity, clean, shutdown,
// load-slot, enable-sync. They are carried out at once and cannot be taken back, so what destroys something
// wants to be told twice, and what the service's "true" leaves open is looked up.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <limits>

namespace {

void requireDone(bool done, const std::string& what)
{
    if (!done)
        throw Failure(ExitCode::refused, "the service could not " + what + "; its log says why");
}

struct OutcomeText {
    const char* text;
    const char* json;
};

OutcomeText outcomeText(StoreOutcome outcome)
{
    switch (outcome) {
    case StoreOutcome::notYet:
        return {
            "nothing stored: OAM has no AI_phase 4, so auto-integration is not completed, or the service was shut down",
            "notYet"};
    case StoreOutcome::delayed:
        return {"the store is delayed until the software upgrade is in a safe state", "delayed"};
    case StoreOutcome::stored:
        break;
    }
    return {"stored", "stored"};
}

void addStore(CLI::App& app, Action& chosen)
{
    struct Arguments {
        bool backup = false;
        bool ignoreUpgrade = false;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("store", "Store what is persistent as the permanent configuration");
    verb->add_flag("--backup", arguments->backup, "Write the copy for a backup instead");
    verb->add_flag("--ignore-upgrade", arguments->ignoreUpgrade, "Store also while a software upgrade is under way");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            Database& database = context.database();
            // Asked first: the store may be the last thing that a service does.
            const OutcomeText outcome = outcomeText(database.storeOutcome(arguments->ignoreUpgrade));
            requireDone(database.storePersistent(arguments->backup, arguments->ignoreUpgrade),
                        arguments->backup ? "store the copy for a backup" : "store the permanent configuration");
            context.printDone(outcome.text, std::string(R"("outcome": ")") + outcome.json + '"');
        };
    });
}

void addBackupFragments(CLI::App& app, Action& chosen)
{
    app.add_subcommand("backup-fragments", "Store the fragments that a backup of the node collects")
        ->callback([&chosen] {
            chosen = [](Context& context) {
                requireDone(context.database().storeBackupFragments(), "store the backup fragments");
                context.printDone("stored the backup fragments");
            };
        });
}

void addIntegrity(CLI::App& app, Action& chosen)
{
    app.add_subcommand("integrity", "Have the service check its database files; its log tells the result")
        ->callback([&chosen] {
            chosen = [](Context& context) {
                context.database().checkIntegrity();
                context.printDone(
                    "the service has worked off the request to check its files; it answers no result: its log has it "
                    "(\"Integrity check done to\"), and damage makes it reset the node",
                    R"("result": "log")");
            };
        });
}

using Request = bool (Database::*)();

/// A verb that destroys what `loses` says, and does so only with --force.
void addForced(CLI::App& app, Action& chosen, const std::string& name, const std::string& description,
               const std::string& loses, Request request, const std::string& done)
{
    auto force = std::make_shared<bool>(false);
    CLI::App* verb = app.add_subcommand(name, description);
    verb->add_flag("--force", *force, "Do it: " + loses);
    verb->callback([=, &chosen] {
        chosen = [=](Context& context) {
            if (!*force)
                throw Failure(ExitCode::usage, name + " without --force: " + loses);
            requireDone((context.database().*request)(), name + " the database");
            context.printDone(done);
        };
    });
}

void addLoadSlot(CLI::App& app, Action& chosen)
{
    auto slot = std::make_shared<std::int32_t>(0);
    CLI::App* verb = app.add_subcommand("load-slot", "Make the values parked in a slot of alternate storage live");
    verb->add_option("SLOT", *slot)
        ->required()
        ->check(CLI::Range(std::int32_t{0}, std::numeric_limits<std::int32_t>::max()));
    verb->callback([slot, &chosen] {
        chosen = [slot](Context& context) {
            const std::string name = "slot " + std::to_string(*slot);
            requireDone(context.database().loadSlot(*slot), "load " + name);
            context.printDone("nothing is parked in " + name + " any more");
        };
    });
}

void addEnableSync(CLI::App& app, Action& chosen)
{
    app.add_subcommand("enable-sync", "Have the service keep deprecated attributes and their successors equal")
        ->callback([&chosen] {
            chosen = [](Context& context) {
                if (!context.database().enableAttributeSynchronisation())
                    throw Failure(ExitCode::refused, "the service could not read its mapping file of deprecated "
                                                     "attributes and orders a software fallback; its log says why");
                context.printDone("deprecated attributes and their successors are kept equal");
            };
        });
}

} // namespace

void addMaintenanceVerbs(CLI::App& app, Action& chosen)
{
    addStore(app, chosen);
    addBackupFragments(app, chosen);
    addIntegrity(app, chosen);
    addForced(app, chosen, "clean", "Empty the tree and remove the permanent configuration",
              "every object and parked value is lost, and the permanent configuration with them", &Database::clean,
              "the tree is empty, and the permanent configuration is removed");
    addForced(app, chosen, "shutdown", "Remove the permanent configuration and have the service refuse all work",
              "the permanent configuration is lost, and the service refuses all work until it is started anew, with an "
              "empty tree",
              &Database::shutDown, "the permanent configuration is removed; the service refuses all work from now on");
    addLoadSlot(app, chosen);
    addEnableSync(app, chosen);
}
