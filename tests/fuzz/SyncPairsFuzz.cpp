// The file that maps deprecated attributes to their successors.

#include "tests/fuzz/FileTarget.h"

#include "persistence/AttributeSyncFile.h"
#include "platform/utility/XmlFile.h"

using namespace Fuzz;

namespace {

struct Result {
    bool accepted = false;
    std::vector<std::string> places = {};
    std::vector<std::array<AttributeSyncPair::Side, 2>> pairs;
    bool operator==(const Result&) const = default;
};

Result readFile()
{
    Result result;
    const XmlFile file(inputFile().path());
    require(file.isOpen(), "the file can be opened");
    try {
        result.accepted = AttributeSyncFile::read(
            file, [&](AttributeSyncPair pair) { result.pairs.push_back(std::move(pair.sides)); });
    } catch (const std::exception& error) {
        require(!textOf(error).empty(), "a refusal says why");
    }
    require(result.accepted || result.pairs.empty(), "a file that is refused gives no pairs");
    if (!result.pairs.empty())
        result.places.emplace_back("with pairs");
    return result;
}

std::string written(const Result& read)
{
    const auto side = [](const std::string& element, const AttributeSyncPair::Side& of) {
        require(!of.dn.empty() && !of.attribute.empty(), "a side without blank texts");
        return "<" + element + "><fdn>" + escaped(of.dn) + "</fdn><attrName>" + escaped(of.attribute) +
               "</attrName></" + element + ">";
    };
    std::string to = "<AttrSyncPairs><syncPair>";
    for (const auto& sides : read.pairs)
        to += "<attrSyncPair>" + side("attr1", sides[0]) + side("attr2", sides[1]) + "</attrSyncPair>";
    return to + "</syncPair></AttrSyncPairs>";
}

} // namespace

Grammar Fuzz::grammar()
{
    return xmlGrammar({"<attrSyncPair>", "</attrSyncPair>", "<attr1>", "</attr1>", "<attr2>", "</attr2>",
                       "<fdn>A=1</fdn>", "<fdn/>", "<attrName>a</attrName>", "<attrName> </attrName>", "%", " A=% "});
}

std::vector<Minimum> Fuzz::minimums() { return {{"accepted", 4, 4000}, {"refused", 4, 4000}, {"with pairs", 2, 2000}}; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return runOnFile(data, size, readFile, written);
}
