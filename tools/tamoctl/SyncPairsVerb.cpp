// The verb sync-pairs: a mapping file of deprecated attributes, read as the service would read it, without
// a service. What the service would ignore in silence is told as a remark.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/TextTable.h"
#include "tools/tamoctl/Verbs.h"

#include "persistence/AttributeSyncFile.h"
#include "platform/utility/XmlFile.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <map>

namespace {

using Pairs = std::vector<AttributeSyncPair>;
using Side = AttributeSyncPair::Side;

std::string nameOf(const Side& side) { return printable(side.dn) + ":" + printable(side.attribute); }

/// All pairs of the file, or a Failure: with exit code 1 when the service would refuse it, too.
Pairs readPairs(const std::string& path)
{
    const XmlFile file(path);
    if (!file.isOpen())
        throw Failure(ExitCode::usage, path + (std::filesystem::exists(path) ? ": cannot be read, or is no regular file"
                                                                             : ": no such file"));
    Pairs pairs;
    std::string fault = "Mapping file doesn't have nodes.";
    try {
        if (AttributeSyncFile::read(file, [&pairs](AttributeSyncPair pair) { pairs.push_back(std::move(pair)); }))
            return pairs;
    } catch (const std::exception& error) {
        fault = textOf(error);
    }
    throw Failure(ExitCode::refused, path + ": " + fault +
                                         " (with this file, every start that finds a permanent configuration orders a "
                                         "software fallback)");
}

/// What is odd about each pair, by its place in the list.
class Remarks {
public:
    explicit Remarks(const Pairs& pairs)
    {
        for (std::size_t i = 0; i < pairs.size(); ++i)
            m_texts.push_back(remark(pairs[i], i + 1));
    }
    const std::string& of(std::size_t index) const { return m_texts[index]; }
    std::size_t count() const
    {
        return m_texts.size() - static_cast<std::size_t>(std::count(m_texts.begin(), m_texts.end(), ""));
    }

private:
    using Key = std::pair<std::string, std::string>;
    static Key keyOf(const Side& side) { return {side.dn, side.attribute}; }

    std::string remark(const AttributeSyncPair& pair, std::size_t number)
    {
        const auto& [first, second] = pair.sides;
        const auto [whole, isNew] = m_pairs.try_emplace({keyOf(first), keyOf(second)}, number);
        if (!isNew)
            return "ignored: the same as pair " + std::to_string(whole->second);
        if (first == second)
            return "without effect: both sides are the same attribute";
        std::string text;
        for (const Side& side : pair.sides) {
            const auto [earlier, isFirst] = m_sides.try_emplace(keyOf(side), number);
            if (!isFirst && text.empty())
                text =
                    nameOf(side) + " stands in pair " + std::to_string(earlier->second) + ", too: its changes go there";
        }
        return text;
    }

    std::map<std::pair<Key, Key>, std::size_t> m_pairs;
    std::map<Key, std::size_t> m_sides;
    std::vector<std::string> m_texts;
};

bool hasWildcard(const AttributeSyncPair& pair)
{
    return (pair.sides[0].dn + pair.sides[1].dn).find('%') != std::string::npos;
}

std::string jsonSide(const Side& side)
{
    return "{\"fdn\": " + jsonText(side.dn) + ", \"attrName\": " + jsonText(side.attribute) + "}";
}

void printJson(Context& context, const Pairs& pairs, const Remarks& remarks)
{
    for (std::size_t i = 0; i < pairs.size(); ++i)
        context.print("{\"attr1\": " + jsonSide(pairs[i].sides[0]) + ", \"attr2\": " + jsonSide(pairs[i].sides[1]) +
                      ", \"wildcard\": " + (hasWildcard(pairs[i]) ? "true" : "false") +
                      (remarks.of(i).empty() ? "" : ", \"remark\": " + jsonText(remarks.of(i))) + "}");
}

void printText(Context& context, const std::string& path, const Pairs& pairs, const Remarks& remarks)
{
    std::vector<Row> rows{{"pair", "attr1: fdn", "attrName", "attr2: fdn", "attrName"}};
    for (std::size_t i = 0; i < pairs.size(); ++i)
        rows.push_back({std::to_string(i + 1), printable(pairs[i].sides[0].dn), printable(pairs[i].sides[0].attribute),
                        printable(pairs[i].sides[1].dn), printable(pairs[i].sides[1].attribute)});
    if (!pairs.empty())
        printTable(context, rows);
    for (std::size_t i = 0; i < pairs.size(); ++i)
        if (!remarks.of(i).empty())
            context.print("pair " + std::to_string(i + 1) + ": " + remarks.of(i));
    const auto waiting = std::count_if(pairs.begin(), pairs.end(), hasWildcard);
    context.print(printable(path) + ": " + std::to_string(pairs.size()) + " pairs, " + std::to_string(waiting) +
                  " with wildcards, " + std::to_string(remarks.count()) + " with a remark");
}

void list(Context& context, const std::string& path)
{
    const Pairs pairs = readPairs(path);
    const Remarks remarks(pairs);
    context.json() ? printJson(context, pairs, remarks) : printText(context, path, pairs, remarks);
}

} // namespace

void addSyncPairsVerb(CLI::App& app, Action& chosen)
{
    auto file = std::make_shared<std::string>();
    CLI::App* verb =
        app.add_subcommand("sync-pairs", "Check a mapping file of deprecated attributes and list its pairs");
    verb->add_option("FILE", *file)->required();
    verb->footer("Exit code 0 when the service would take the file, 1 when not. Where both attributes of a pair have a "
                 "value\nat a start, attr2 counts. With --json each pair is a line.");
    verb->callback([file, &chosen] { chosen = [file](Context& context) { list(context, *file); }; });
}
