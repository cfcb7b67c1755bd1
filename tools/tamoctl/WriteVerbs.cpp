// The verbs that change objects: insert, set, unset, delete, create-from-template, common. What the
// service does in silence and an operator would not expect (an object without its parent becomes a
// root, an unknown attribute is "deleted") is looked up and refused here first.

#include "tools/tamoctl/ArgumentValues.h"
#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/ParentCheck.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/Verbs.h"
#include "values/ValueType.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <limits>

namespace {

[[noreturn]] void notFound(const std::string& what)
{
    throw Failure(ExitCode::notFound, printable(what) + ": not found");
}

void requireSuccess(bool success, const std::string& what)
{
    if (!success)
        throw Failure(ExitCode::refused, "the service refused to " + printable(what));
}

struct NewObject {
    std::string dn;
    std::vector<std::string> assignments, persistent, hidden;
    bool notMom = false;
    bool system = false;
    std::int32_t instance = 1;
    std::int32_t slot = Attribute::noSlot;
};

void addSlotOption(CLI::App& verb, std::int32_t& slot)
{
    verb.add_option("--slot", slot, "Park the values in this slot of alternate storage, until it is loaded")
        ->check(CLI::Range(std::int32_t{0}, std::numeric_limits<std::int32_t>::max()))
        ->option_text("N");
}

void setSlot(DBObject& object, std::int32_t slot)
{
    for (auto& [name, attribute] : object.attributes)
        attribute.slot = slot;
}

/// Tells what was written. Where the values of a slot went is the service's decision, so it is asked.
void printWritten(Context& context, const std::string& text, const std::string& dn, const DBObject& written,
                  std::int32_t slot)
{
    if (slot == Attribute::noSlot || context.database().inTransaction())
        return context.printDone(text);
    const auto stored = context.database().fetch(dn, written.MOInstance);
    const bool parked =
        stored && std::all_of(written.attributes.begin(), written.attributes.end(), [&](const auto& item) {
            const Attribute* attribute = stored->getAlternateAttribute(item.first);
            return attribute && attribute->slot == slot;
        });
    const std::string where =
        parked ? "; parked in slot " + std::to_string(slot)
               : "; not parked in slot " + std::to_string(slot) +
                     ": before the end of auto-integration values become live at once, and a value that is parked "
                     "already stays in its slot";
    context.printDone(text + where, std::string("\"parked\": ") + (parked ? "true" : "false"));
}

/// Marks the named attributes; each must have been given a value.
void mark(DBObject& object, const std::vector<std::string>& names, bool Attribute::*flag, const std::string& option)
{
    for (const std::string& name : names) {
        Attribute* attribute = object.getAttribute(name);
        if (!attribute)
            throw Failure(ExitCode::usage, option + " " + name + ": no value is given for that attribute");
        attribute->*flag = true;
    }
}

void addAssignments(DBObject& object, const std::vector<std::string>& assignments)
{
    for (const std::string& argument : assignments) {
        const Assignment assignment = parseAssignment(argument);
        const std::int32_t type = assignment.type(IPCData::STRING);
        if (!object.addAttribute(
                newAttribute(assignment.name, valueFromArgument(assignment.text, type, assignment.name), type)))
            throw Failure(ExitCode::usage, assignment.name + " is given twice");
    }
}

void insert(Context& context, const NewObject& arguments)
{
    const std::string dn = checkedDn(arguments.dn);
    DBObject object = newObject(dn, arguments.instance, !arguments.notMom, arguments.system);
    addAssignments(object, arguments.assignments);
    mark(object, arguments.persistent, &Attribute::persistent, "--persistent");
    mark(object, arguments.hidden, &Attribute::hidden, "--hidden");
    setSlot(object, arguments.slot);
    ParentCheck(context.database()).require(object);
    requireSuccess(context.database().insert(object), "insert " + dn);
    printWritten(context, "inserted " + printable(dn), dn, object, arguments.slot);
}

void addInsert(CLI::App& app, Action& chosen)
{
    auto arguments = std::make_shared<NewObject>();
    CLI::App* verb = app.add_subcommand("insert", "Insert an object (one that exists is updated)");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("NAME=VALUE", arguments->assignments)->option_text("NAME[:TYPE]=VALUE ...");
    verb->add_option("--persistent", arguments->persistent, "Attribute that survives a restart")
        ->allow_extra_args(false)
        ->option_text("NAME");
    verb->add_option("--hidden", arguments->hidden, "Attribute that is not shown to operators")
        ->allow_extra_args(false)
        ->option_text("NAME");
    verb->add_flag("--not-mom", arguments->notMom, "The object is not part of the managed-object model");
    verb->add_flag("--system", arguments->system, "The object was made by the system");
    verb->add_option("--instance", arguments->instance, "MOInstance (default: 1)");
    addSlotOption(*verb, arguments->slot);
    verb->callback([arguments, &chosen] { chosen = [arguments](Context& context) { insert(context, *arguments); }; });
}

/// The attribute as `argument` changes it: the one of `stored` with another value, its type and flags
/// kept, or a new one.
Attribute changedAttribute(const DBObject& stored, const std::string& argument)
{
    const Assignment assignment = parseAssignment(argument);
    // A stored name may hold a colon, so the whole left side is tried before it is taken apart.
    if (const Attribute* attribute = stored.getAttribute(assignment.left)) {
        Attribute changed = *attribute;
        changed.value = valueFromArgument(assignment.text, attribute->type, assignment.left);
        return changed;
    }
    const Attribute* attribute = stored.getAttribute(assignment.name);
    const std::int32_t type = assignment.type(attribute ? attribute->type : IPCData::STRING);
    Value value = valueFromArgument(assignment.text, type, assignment.name);
    return newAttribute(assignment.name, std::move(value), type, attribute && attribute->persistent,
                        attribute && attribute->hidden);
}

/// What a value for the slot is written over: what is parked, and the live attributes besides.
DBObject withParked(DBObject object)
{
    DBObject::Attributes attributes = std::exchange(object.alternateAttributes, {});
    attributes.merge(object.attributes);
    object.attributes = std::move(attributes);
    return object;
}

void set(Context& context, const std::string& dn, const std::vector<std::string>& assignments, std::int32_t slot)
{
    for (const std::string& argument : assignments)
        parseAssignment(argument); // a wrong form is told without a service
    const auto fetched = context.database().fetch(dn);
    if (!fetched)
        notFound(dn);
    const DBObject stored = slot == Attribute::noSlot ? *fetched : withParked(*fetched);
    DBObject update = stored;
    update.attributes.clear();
    update.alternateAttributes.clear();
    for (const std::string& argument : assignments) {
        Attribute attribute = changedAttribute(stored, argument);
        attribute.changed = true;
        const std::string name = attribute.name;
        if (!update.addAttribute(std::move(attribute)))
            throw Failure(ExitCode::usage, name + " is given twice");
    }
    setSlot(update, slot);
    requireSuccess(context.database().update(update), "update " + dn);
    printWritten(context, "updated " + printable(dn), dn, update, slot);
}

void addSet(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string dn;
        std::vector<std::string> assignments;
        std::int32_t slot = Attribute::noSlot;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("set", "Set attributes of an object, all or none; stored types are kept");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("NAME=VALUE", arguments->assignments)->option_text("NAME[:TYPE]=VALUE ...")->required();
    addSlotOption(*verb, arguments->slot);
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            set(context, checkedDn(arguments->dn), arguments->assignments, arguments->slot);
        };
    });
}

void addUnset(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string dn, name;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("unset", "Delete an attribute of an object");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("NAME", arguments->name)->required();
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            const std::string dn = checkedDn(arguments->dn);
            if (!context.database().fetchAttribute(dn, checkedName(arguments->name)))
                notFound(context.database().exists(dn) ? "attribute " + arguments->name + " of " + dn : dn);
            requireSuccess(context.database().removeAttribute(dn, arguments->name),
                           "delete attribute " + arguments->name + " of " + dn);
            context.printDone("deleted attribute " + printable(arguments->name) + " of " + printable(dn));
        };
    });
}

void addDelete(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string dn;
        std::int32_t instance = 1;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("delete", "Delete an object and everything below it");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("--instance", arguments->instance, "MOInstance of the object (default: 1)");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            const std::string dn = checkedDn(arguments->dn);
            if (!context.database().exists(dn, arguments->instance))
                notFound(dn);
            requireSuccess(context.database().remove(dn, arguments->instance),
                           "delete " + dn + "; as a rule, a reference elsewhere names it or an object below it");
            context.printDone("deleted " + printable(dn));
        };
    });
}

void addCreateFromTemplate(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string file, dn;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("create-from-template", "Let the service create an object as a template says");
    verb->add_option("FILE", arguments->file, "XML file, read by the service")->required();
    verb->add_option("DN", arguments->dn)->required();
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            // The service runs in a directory of its own.
            const std::string file = std::filesystem::absolute(arguments->file).lexically_normal();
            const std::string dn = checkedDn(arguments->dn);
            requireSuccess(context.database().createFromTemplate(file, dn),
                           "create " + dn + " from " + file + "; its log says why");
            context.printDone("created " + printable(dn));
        };
    });
}

void addCommon(CLI::App& app, Action& chosen)
{
    auto assignments = std::make_shared<std::vector<std::string>>();
    CLI::App* verb = app.add_subcommand("common", "Write attributes of the object \"Common\" into the common database");
    verb->add_option("NAME=VALUE", *assignments)->option_text("NAME[:TYPE]=VALUE ...")->required();
    verb->callback([assignments, &chosen] {
        chosen = [assignments](Context& context) {
            DBObject object = newObject("Common", 1, false, false);
            addAssignments(object, *assignments);
            requireSuccess(context.database().insertCommon(object), "write into the common database");
            context.printDone("written into the common database");
        };
    });
}

} // namespace

void addWriteVerbs(CLI::App& app, Action& chosen)
{
    addInsert(app, chosen);
    addSet(app, chosen);
    addUnset(app, chosen);
    addDelete(app, chosen);
    addCreateFromTemplate(app, chosen);
    addCommon(app, chosen);
}
