// The verbs that look at objects: get, children, class, instances, exists, whole-dn, mapping.

#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/ObjectText.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/Verbs.h"
#include "values/DistinguishedName.h"

#include <CLI/CLI.hpp>

#include <sstream>

namespace {

[[noreturn]] void notFound(const std::string& what)
{
    throw Failure(ExitCode::notFound, printable(what) + ": not found");
}

/// An array of JSON texts on one line.
template <class Items, class ToJson>
std::string jsonArray(const Items& items, ToJson toJson)
{
    std::string array = "[";
    for (const auto& item : items)
        array.append(array.size() > 1 ? "," : "").append(toJson(item));
    return array + "]";
}

/// `dnOf` gives the DN that an object is shown under.
template <class DnOf>
void printObjects(Context& context, const std::vector<std::unique_ptr<DBObject>>& objects, DnOf dnOf)
{
    if (context.json())
        return context.print(
            jsonArray(objects, [&](const auto& object) { return jsonObject(*object, dnOf(*object), false); }));
    for (const auto& object : objects)
        context.print((&object == &objects.front() ? "" : "\n") + objectText(*object, dnOf(*object)));
}

void getObject(Context& context, const std::string& dn, std::int32_t instance)
{
    const auto object = context.database().fetch(dn, instance);
    if (!object)
        notFound(dn);
    const std::string shown = shownDn(dn, *object);
    context.print(context.json() ? jsonObject(*object, shown, true) : objectText(*object, shown));
}

void getAttribute(Context& context, const std::string& dn, const std::string& name)
{
    const auto attribute = context.database().fetchAttribute(dn, name);
    if (!attribute && !context.database().exists(dn))
        notFound(dn);
    if (!attribute)
        notFound("attribute " + name + " of " + dn);
    context.print(context.json() ? jsonAttribute(*attribute) : bareValueText(attribute->value));
}

void addGet(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string dn, attribute;
        std::int32_t instance = 1;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("get", "Show an object, or the value of one attribute");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("ATTRIBUTE", arguments->attribute);
    verb->add_option("--instance", arguments->instance, "MOInstance of the object (default: 1)");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            const std::string dn = checkedDn(arguments->dn);
            if (arguments->attribute.empty())
                getObject(context, dn, arguments->instance);
            else
                getAttribute(context, dn, arguments->attribute);
        };
    });
}

void addChildren(CLI::App& app, Action& chosen)
{
    auto dn = std::make_shared<std::string>();
    CLI::App* verb = app.add_subcommand("children", "Show the objects directly below an object");
    verb->add_option("DN", *dn)->required();
    verb->callback([dn, &chosen] {
        chosen = [dn](Context& context) {
            const std::string parent = checkedDn(*dn);
            const auto objects = context.database().children(parent);
            if (objects.empty() && !context.database().exists(parent))
                notFound(parent);
            printObjects(context, objects, [&parent](const DBObject& object) {
                return shownDn(joinDn(parent, quotedPair(object.dn)), object);
            });
        };
    });
}

void addClass(CLI::App& app, Action& chosen)
{
    auto name = std::make_shared<std::string>();
    CLI::App* verb = app.add_subcommand("class", "Show all objects of a class");
    verb->add_option("CLASS", *name)->required();
    verb->callback([name, &chosen] {
        chosen = [name](Context& context) {
            printObjects(context, context.database().objectsOfClass(*name), wholeDnOf);
        };
    });
}

void addInstances(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string name, parent;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("instances", "List the instances of a class below a parent");
    verb->add_option("CLASS", arguments->name)->required();
    verb->add_option("--parent", arguments->parent, "DN of the parent (default: objects without a parent)");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            const std::string parent = arguments->parent.empty() ? "" : checkedDn(arguments->parent);
            // The service lists the objects without a parent when it does not find the one named.
            if (!parent.empty() && !context.database().exists(parent))
                notFound(parent);
            if (!parent.empty() && context.database().inTransaction() && !context.database().isCommitted(parent))
                throw Failure(ExitCode::refused,
                              printable(parent) + " is not committed yet: its instances cannot be listed");
            const auto instances = context.database().instances(arguments->name, parent);
            if (context.json())
                return context.print(jsonArray(instances, jsonText));
            for (const std::string& instance : instances)
                context.print(printable(instance));
        };
    });
}

void addExists(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string dn;
        std::int32_t instance = 1;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("exists", "Tell whether an object is there (exit code 0) or not (3)");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("--instance", arguments->instance, "MOInstance of the object (default: 1)");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            const bool there = context.database().exists(checkedDn(arguments->dn), arguments->instance);
            const std::string answer = there ? "true" : "false";
            context.print(context.json() ? "{\"exists\": " + answer + "}" : answer);
            if (!there)
                throw AlreadyReported(ExitCode::notFound);
        };
    });
}

void addWholeDn(CLI::App& app, Action& chosen)
{
    struct Arguments {
        std::string dn, parent;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* verb = app.add_subcommand("whole-dn", "Complete a DN to the whole DN of the object it names");
    verb->add_option("DN", arguments->dn)->required();
    verb->add_option("--parent", arguments->parent, "DN of the parent");
    verb->callback([arguments, &chosen] {
        chosen = [arguments](Context& context) {
            const std::string parent = arguments->parent.empty() ? "" : checkedDn(arguments->parent);
            const std::string whole = context.database().wholeDn(checkedDn(arguments->dn), parent);
            if (whole.empty())
                notFound(parent.empty() ? arguments->dn : parent + "," + arguments->dn);
            context.print(context.json() ? "{\"wholeDn\": " + jsonText(whole) + "}" : printable(whole));
        };
    });
}

/// What the base-band side calls the object or attribute. The service keeps the whole mapping in one object.
std::string baseBandIdentifier(Database& database, const std::string& name)
{
    const std::string mapping = "BOMOMapping";
    const auto attribute = database.fetchAttribute(mapping, name);
    if (!attribute && !database.exists(mapping))
        throw Failure(ExitCode::notFound,
                      mapping + ": not found; the service's log says what is wrong with its mapping files");
    if (!attribute)
        notFound("base-band identifier of " + name);
    const auto* const number = std::get_if<std::int32_t>(&attribute->value);
    if (!number)
        throw Failure(ExitCode::refused, mapping + " holds no number for " + printable(name) + ", but \"" +
                                             printable(attribute->ToStr()) + "\"");
    std::ostringstream text;
    text << "0x" << std::hex << *number;
    return text.str();
}

void addMapping(CLI::App& app, Action& chosen)
{
    auto name = std::make_shared<std::string>();
    CLI::App* verb = app.add_subcommand("mapping", "Show the base-band identifier of an object or attribute name");
    verb->add_option("NAME", *name, "DN or attribute name, as the mapping files write it")->required();
    verb->callback([name, &chosen] {
        chosen = [name](Context& context) {
            const std::string identifier = baseBandIdentifier(context.database(), checkedName(*name));
            context.print(context.json() ? "{\"identifier\": " + jsonText(identifier) + "}" : identifier);
        };
    });
}

} // namespace

void addReadVerbs(CLI::App& app, Action& chosen)
{
    addGet(app, chosen);
    addChildren(app, chosen);
    addClass(app, chosen);
    addInstances(app, chosen);
    addExists(app, chosen);
    addWholeDn(app, chosen);
    addMapping(app, chosen);
}
