// Template files, which a request names by their path.

#include "tests/fuzz/FileTarget.h"

#include "requests/ObjectTemplate.h"

#include <array>

using namespace Fuzz;

namespace {

constexpr const char* dn = "A=1";

struct Result {
    bool accepted = false;
    std::vector<std::string> places = {};
    std::map<std::string, std::array<std::string, 2>> plain; ///< type, value
    /// By type and attribute: name, type, value.
    std::map<std::array<std::string, 2>, std::vector<std::array<std::string, 3>>> structs;
    bool operator==(const Result&) const = default;
};

Result readFile()
{
    ObjectTemplate read;
    Result result{.accepted = read.read(inputFile().path(), dn), .plain = {}, .structs = {}};
    for (const auto& [name, plain] : read.plain)
        result.plain[name] = {plain.type, plain.value};
    for (const auto& [key, members] : read.structs)
        for (const auto& each : members)
            result.structs[{key.substr(0, key.size() - each.attribute.size() - 1), each.attribute}].push_back(
                {each.name, each.type, each.value});
    require(result.accepted || (result.plain.empty() && result.structs.empty()), "a refused file leaves nothing");
    if (!result.plain.empty())
        result.places.emplace_back("attributes found");
    if (!result.structs.empty())
        result.places.emplace_back("structs found");
    return result;
}

std::string element(const std::string& name, const std::string& text)
{
    return "<" + name + ">" + escaped(text) + "</" + name + ">";
}

/// An attribute with what follows its value; a value element without text would count as "0".
std::string attribute(const std::string& name, const std::string& type, const std::string& value,
                      const std::string& rest = {})
{
    return "<attribute>" + element("name", name) + element("type", type) +
           (value.empty() ? "" : element("value", value)) + rest + "</attribute>";
}

std::string written(const Result& read)
{
    std::string to = "<m><mo>" + element("dn", dn);
    for (const auto& [name, plain] : read.plain)
        to += attribute(name, plain[0], plain[1]);
    for (const auto& [key, members] : read.structs) {
        std::string rest = element("name", key[0]);
        for (const auto& [name, type, value] : members)
            rest += attribute(name, type, value);
        to += attribute(key[1], "struct", {}, rest);
    }
    return to + "</mo></m>";
}

} // namespace

Grammar Fuzz::grammar()
{
    return xmlGrammar({"<mo>", "</mo>", "<dn>A=1</dn>", "A=1", "<attribute>", "</attribute>", "<name>x</name>",
                       "<type>struct</type>", "<type>enum</type>", "<value/>", "<value>1</value>", "struct", "enum"});
}

std::vector<Minimum> Fuzz::minimums()
{
    return {{"accepted", 4, 4000}, {"refused", 4, 4000}, {"attributes found", 4, 2000}, {"structs found", 4, 2000}};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return runOnFile(data, size, readFile, written);
}
