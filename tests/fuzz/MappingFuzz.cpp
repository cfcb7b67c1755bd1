// The BO-MO mapping files.

#include "tests/fuzz/FileTarget.h"

#include "mapping/BOMOMapper.h"
#include "platform/utility/DBObject.h"

#include <sstream>

using namespace Fuzz;

namespace {

struct Result {
    bool accepted = false;
    std::vector<std::string> places = {};
    std::map<std::string, std::int32_t> entries;
    bool operator==(const Result&) const = default;
};

Result readFile()
{
    DBObject mapping(BOMOMapper::objectName, 1, false, false, 0, 1);
    Result result;
    result.accepted = BOMOMapper().ParseFile(inputFile().directory() + "/", InputFile::name, mapping);
    for (const auto& [name, attribute] : mapping.attributes) {
        require(!attribute.persistent && attribute.changed, "an entry is written, and not persistent");
        result.entries[name] = std::get<std::int32_t>(attribute.value);
    }
    if (!result.entries.empty())
        result.places.emplace_back(result.accepted ? "with entries" : "refused behind an entry");
    require(BOMOMapper().ParseFile(inputFile().directory() + "/", InputFile::name, mapping) == result.accepted &&
                mapping.attributes.size() == result.entries.size(),
            "what is mapped already is not mapped again");
    return result;
}

std::string hexadecimal(std::int32_t number)
{
    std::ostringstream text;
    text << (number < 0 ? "-" : "") << std::hex << std::abs(static_cast<std::int64_t>(number));
    return text.str();
}

/// Every entry, the first one as an object, too, whose second mention is not to count.
std::string written(const Result& read)
{
    if (read.entries.empty())
        return "<mapping><n/></mapping>";
    const auto& [first, number] = *read.entries.begin();
    std::string to = "<mapping><mo dn=\"" + escaped(first) + "\" bo-class=\"" + hexadecimal(number) + "\"><n name=\"" +
                     escaped(first) + "\" bo-attribute=\"77\"/>";
    for (const auto& [name, value] : read.entries)
        to += "<n name=\"" + escaped(name) + "\" bo-attribute=\"" + hexadecimal(value) + "\"/>";
    return to + "</mo></mapping>";
}

} // namespace

Grammar Fuzz::grammar()
{
    return xmlGrammar({"<mo dn='C=1' bo-class='1'>", "</mo>", "<mo/>", "<a name='z' bo-attribute='8'/>",
                       "<a name='w'/>", "<mo>", "</mapping>", "7fffffff", "80000000", "-1", "0X1f", "1g", " "});
}

std::vector<Minimum> Fuzz::minimums()
{
    return {
        {"accepted", 4, 4000}, {"refused", 4, 4000}, {"with entries", 4, 4000}, {"refused behind an entry", 1, 500}};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return runOnFile(data, size, readFile, written);
}
