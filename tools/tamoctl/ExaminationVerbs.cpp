// The verbs that judge what is there: check (a database file, as start-up would) and diff (two trees).
// Both end with exit code 1 when the answer is no.

#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/FileCheck.h"
#include "tools/tamoctl/Interruption.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/ObjectText.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/TreeDiff.h"
#include "tools/tamoctl/TreeSource.h"
#include "tools/tamoctl/Verbs.h"
#include "values/ValueType.h"

#include <CLI/CLI.hpp>

namespace {

struct StartUpText {
    const char* json;
    const char* text;
};

StartUpText startUpText(StartUp startUp)
{
    switch (startUp) {
    case StartUp::loads:
        return {"loads", "loads it"};
    case StartUp::loadsAsDamaged:
        return {"loadsAsDamaged", "loads it, but records reset reason 2 and asks for the software fallback"};
    case StartUp::findsNone:
        return {"findsNone", "finds no permanent configuration and begins with an empty tree"};
    case StartUp::fallsBack:
        return {"fallsBack", "loads nothing, records reset reason 2 and asks for the software fallback"};
    case StartUp::loadsNothing:
        break;
    }
    return {"loadsNothing", "cannot use it and begins with an empty tree"};
}

std::string numberText(std::optional<std::int64_t> number) { return number ? std::to_string(*number) : "unknown"; }

std::string numberJson(std::optional<std::int64_t> number) { return number ? std::to_string(*number) : "null"; }

std::string jsonTexts(const std::vector<std::string>& texts)
{
    std::string array;
    for (const std::string& text : texts)
        array.append(array.empty() ? "" : ",").append(jsonText(text));
    return "[" + array + "]";
}

std::string checkJson(const std::string& path, const FileReport& report)
{
    std::string parked;
    for (const auto& [slot, count] : report.parked)
        parked += (parked.empty() ? "\"" : ", \"") + std::to_string(slot) + "\": " + std::to_string(count);
    return "{\"file\": " + jsonText(path) + ", \"startUp\": \"" + startUpText(report.startUp).json +
           "\", \"why\": " + jsonText(report.why) + ", \"sqliteResult\": " + std::to_string(report.loadResult) +
           ", \"size\": " + std::to_string(report.size) + ", \"journal\": " + std::to_string(report.journal) +
           ", \"integrityProblems\": " + jsonTexts(report.integrityProblems) +
           ", \"schemaRemarks\": " + jsonTexts(report.schemaRemarks) + ", \"objects\": " + numberJson(report.objects) +
           ", \"attributes\": " + numberJson(report.attributes) +
           ", \"persistentAttributes\": " + numberJson(report.persistentAttributes) + ", \"parked\": {" + parked +
           "}, \"orphans\": " + numberJson(report.orphans) + "}";
}

/// A line for each text, the first behind the heading; `good` alone when there are none.
void printTexts(Context& context, std::string heading, const std::vector<std::string>& texts, const char* good)
{
    if (texts.empty())
        return context.print(heading + good);
    for (const std::string& text : texts) {
        context.print(heading + printable(text));
        heading.assign(heading.size(), ' ');
    }
}

void printReport(Context& context, const std::string& path, const FileReport& report)
{
    context.print(printable(path) + ": " + std::to_string(report.size) + " bytes" +
                  (report.journal == 0
                       ? ""
                       : ", and a journal of " + std::to_string(report.journal) + " that was applied to a copy"));
    if (report.objects || !report.schemaRemarks.empty()) {
        printTexts(context, "  integrity   ", report.integrityProblems, "ok");
        printTexts(context, "  schema      ", report.schemaRemarks, "as the service makes it");
        context.print("  objects     " + numberText(report.objects));
        context.print("  attributes  " + numberText(report.attributes) +
                      ", persistent: " + numberText(report.persistentAttributes));
        for (const auto& [slot, count] : report.parked)
            context.print("  parked      " + std::to_string(count) + " in slot " + std::to_string(slot));
        if (report.orphans.value_or(0) != 0)
            context.print("  orphans     " + numberText(report.orphans) + " rows whose object is not there");
    }
    context.print(std::string("  start-up    ") + startUpText(report.startUp).text +
                  (report.why.empty() ? "" : ": " + printable(report.why)));
}

void addCheck(CLI::App& app, Action& chosen)
{
    auto file = std::make_shared<std::string>();
    CLI::App* verb =
        app.add_subcommand("check", "Examine a database file and tell what start-up would do with it; changes nothing");
    verb->add_option("FILE", *file)->required();
    verb->footer(
        "Exit code 0 when a normal start would load the file as permanent configuration, 1 when not. A journal "
        "beside it is\napplied in a copy. Needs room for two copies below TMPDIR.");
    verb->callback([file, &chosen] {
        chosen = [file](Context& context) {
            const Interruption interruption; // which would leave the copy behind
            const FileReport report = checkFile(*file);
            if (interruption.came())
                throw Failure(ExitCode::interrupted, "interrupted");
            context.json() ? context.print(checkJson(*file, report)) : printReport(context, *file, report);
            if (report.startUp != StartUp::loads)
                throw AlreadyReported(ExitCode::refused);
        };
    });
}

std::string attributeText(const Attribute& attribute)
{
    const std::string flags = flagsText(attribute);
    return jsonValue(attribute.value) + " (" + typeName(attribute.type) + (flags.empty() ? "" : " ") + flags +
           (attribute.slot == Attribute::noSlot ? "" : " slot " + std::to_string(attribute.slot)) + ")";
}

void printAttributes(Context& context, const std::vector<AttributeDifference>& attributes, const char* suffix)
{
    for (const auto& [a, b] : attributes) {
        const std::string name = printable((a ? a : b)->name) + suffix + ": ";
        if (a && b)
            context.print("    ~ " + name + attributeText(*a) + " -> " + attributeText(*b));
        else
            context.print((a ? "    - " : "    + ") + name + attributeText(a ? *a : *b));
    }
}

void printKind(Context& context, const char* name, bool a, bool b)
{
    if (a != b)
        context.print(std::string("    ~ ") + name + ": " + (a ? "true -> false" : "false -> true"));
}

void printDifference(Context& context, const ObjectDifference& difference)
{
    const std::string name =
        printable(difference.dn) +
        (difference.instance == 1 ? "" : " (instance " + std::to_string(difference.instance) + ")");
    if (difference.where != Where::both)
        return context.print((difference.where == Where::onlyA ? "- " : "+ ") + name);
    context.print("~ " + name);
    if (!difference.a || !difference.b)
        return context.print("    was deleted while the trees were compared");
    printKind(context, "isMOMObject", difference.a->isMOMObject, difference.b->isMOMObject);
    printKind(context, "system", difference.a->system, difference.b->system);
    printAttributes(context, difference.attributes, "");
    printAttributes(context, difference.parked, " (parked)");
}

std::string jsonAttributes(const std::vector<AttributeDifference>& attributes)
{
    const auto side = [](const Attribute* attribute) { return attribute ? jsonAttribute(*attribute) : "null"; };
    std::string array;
    for (const auto& [a, b] : attributes)
        array.append(array.empty() ? "" : ",").append("{\"a\": " + side(a) + ", \"b\": " + side(b) + "}");
    return "[" + array + "]";
}

std::string jsonKind(const DBObject* object)
{
    if (!object)
        return "null";
    return std::string("{\"isMOMObject\": ") + (object->isMOMObject ? "true" : "false") +
           ", \"system\": " + (object->system ? "true" : "false") + "}";
}

std::string jsonDifference(const ObjectDifference& difference)
{
    constexpr const char* names[] = {"a", "b", "both"};
    const std::string head = "{\"dn\": " + jsonText(difference.dn) +
                             ", \"MOInstance\": " + std::to_string(difference.instance) + ", \"in\": \"" +
                             names[static_cast<int>(difference.where)] + '"';
    if (difference.where != Where::both)
        return head + "}";
    return head + ", \"a\": " + jsonKind(difference.a) + ", \"b\": " + jsonKind(difference.b) +
           ", \"attributes\": " + jsonAttributes(difference.attributes) +
           ", \"alternateAttributes\": " + jsonAttributes(difference.parked) + "}";
}

std::string belowText(const std::vector<std::string>& roots)
{
    constexpr std::size_t shown = 3;
    std::string text;
    for (std::size_t i = 0; i < std::min(shown, roots.size()); ++i)
        text.append(i == 0 ? " at and below " : " and ").append(printable(roots[i]));
    return text + (roots.size() > shown ? " and " + std::to_string(roots.size() - shown) + " more" : "");
}

void printSummary(Context& context, const DiffSummary& summary)
{
    const auto number = [](std::size_t count) { return std::to_string(count); };
    if (context.json())
        return context.print(std::string("{\"equal\": ") + (summary.equal() ? "true" : "false") + ", \"objectsA\": " +
                             number(summary.objectsA) + ", \"objectsB\": " + number(summary.objectsB) +
                             ", \"onlyA\": " + number(summary.onlyA) + ", \"onlyB\": " + number(summary.onlyB) +
                             ", \"changed\": " + number(summary.changed) + ", \"below\": " + jsonTexts(summary.below) +
                             ", \"alternateCompared\": " + (summary.parkedCompared ? "true" : "false") + "}");
    const std::string where = belowText(summary.below) + (summary.parkedCompared ? "" : "; parked values not compared");
    if (summary.equal())
        return context.print("equal: " + number(summary.objectsA) + " objects" + where);
    context.print("different: " + number(summary.onlyA) + " only in A (-), " + number(summary.onlyB) +
                  " only in B (+), " + number(summary.changed) + " changed (~), of " + number(summary.objectsA) +
                  " and " + number(summary.objectsB) + " objects" + where);
}

struct DiffArguments {
    std::string a, b;
    DiffOptions options;
};

void diff(Context& context, const DiffArguments& arguments)
{
    const Interruption interruption; // which would leave copies behind
    DiffOptions options = arguments.options;
    options.interruption = &interruption;
    for (std::string& dn : options.below)
        dn = checkedDn(dn);
    const auto a = openTree(context, arguments.a);
    const auto b = openTree(context, arguments.b);
    const DiffSummary summary = diffTrees(*a, *b, options, [&context](const ObjectDifference& difference) {
        context.json() ? context.print(jsonDifference(difference)) : printDifference(context, difference);
    });
    printSummary(context, summary);
    if (!summary.equal())
        throw AlreadyReported(ExitCode::refused);
}

constexpr const char* diffFooter = R"(
A tree is "live" (the service at --dir), a node's directory or its socket directory, a file that export wrote, or a
database file. An export limits the comparison to the subtrees it holds, and parked values are not compared with it.
A service does not tell its roots: of a live tree ManagedElement=1 is looked at, and the roots that the other tree has.
Exit code 0 when the trees are equal, 1 when they differ.)";

void addDiff(CLI::App& app, Action& chosen)
{
    auto arguments = std::make_shared<DiffArguments>();
    CLI::App* verb = app.add_subcommand("diff", "Compare two trees: live, exported, or in a database file");
    verb->add_option("A", arguments->a)->required();
    verb->add_option("B", arguments->b)->required();
    verb->add_option("--below", arguments->options.below, "Compare this object and what stands below it; repeatable")
        ->allow_extra_args(false)
        ->option_text("DN");
    verb->add_flag("--persistent", arguments->options.persistentOnly,
                   "Compare what a store keeps: persistent attributes and parked values");
    verb->footer(diffFooter);
    verb->callback([arguments, &chosen] { chosen = [arguments](Context& context) { diff(context, *arguments); }; });
}

} // namespace

void addExaminationVerbs(CLI::App& app, Action& chosen)
{
    addCheck(app, chosen);
    addDiff(app, chosen);
}
