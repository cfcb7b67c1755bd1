// The verb sync-pairs: mapping files of deprecated attributes, sound and broken, and the one that is shipped.

#include "TamoctlRun.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <vector>

namespace {

using nlohmann::json;

std::string pairOf(const std::string& dn1, const std::string& name1, const std::string& dn2, const std::string& name2)
{
    return "<attrSyncPair><attr1><fdn>" + dn1 + "</fdn><attrName>" + name1 + "</attrName></attr1><attr2><fdn>" + dn2 +
           "</fdn><attrName>" + name2 + "</attrName></attr2></attrSyncPair>";
}

class SyncPairs : public Tamoctl {
protected:
    Result check(const std::string& content, const std::string& options = "") const
    {
        write("file.xml", content);
        return run("sync-pairs " + options + path("file.xml"));
    }
    Result checkPairs(const std::string& pairs, const std::string& options = "") const
    {
        return check("<AttrSyncPairs><syncPair>" + pairs + "</syncPair></AttrSyncPairs>", options);
    }
};

std::vector<json> linesOf(const std::string& output)
{
    std::vector<json> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(json::parse(line));
    return lines;
}

} // namespace

TEST_F(SyncPairs, ListsPairsInTheirOrderAndWhatIsOddAboutThem)
{
    const std::string first = pairOf("A=1", "old", "A=1,B=%", "new");
    const std::string pairs = first + pairOf("C=\"x,y\"", "q\"", "D=1", "d") + first + pairOf("E=1", "e", "E=1", "e") +
                              pairOf("A=1", "old", "F=1", "f") +
                              "<attrSyncPair><attr1><fdn>G=1</fdn></attr1></attrSyncPair>";
    const Result shown = checkPairs(pairs, "--json ");
    ASSERT_EQ(shown.code, 0) << shown.error;
    const auto lines = linesOf(shown.output);
    ASSERT_EQ(lines.size(), 5U) << "the half pair is none";
    EXPECT_EQ(lines[0], json::parse(R"({"attr1": {"fdn": "A=1", "attrName": "old"}, "wildcard": true,
                                        "attr2": {"fdn": "A=1,B=%", "attrName": "new"}})"));
    EXPECT_EQ(lines[1]["attr1"], json::parse(R"({"fdn": "C=\"x,y\"", "attrName": "q\""})"));
    EXPECT_FALSE(lines[1].contains("remark") || lines[1]["wildcard"]);
    EXPECT_NE(lines[2]["remark"].get<std::string>().find("same as pair 1"), std::string::npos);
    EXPECT_NE(lines[3]["remark"].get<std::string>().find("same attribute"), std::string::npos);
    EXPECT_NE(lines[4]["remark"].get<std::string>().find("A=1:old stands in pair 1"), std::string::npos);

    const Result table = checkPairs(pairs);
    EXPECT_EQ(table.code, 0);
    EXPECT_EQ(std::ranges::count(table.output, '\n'), 1 + 5 + 3 + 1) << table.output;
    EXPECT_NE(table.output.find("5 pairs, 2 with wildcards, 3 with a remark"), std::string::npos) << table.output;
    const Result none = checkPairs("");
    EXPECT_EQ(none.code, 0);
    EXPECT_TRUE(isOneLine(none.output)) << none.output;
}

TEST_F(SyncPairs, RefusesWhatTheServiceWouldRefuse)
{
    std::string deep;
    for (int i = 0; i < 300; ++i)
        deep += "<n>";
    const std::pair<std::string, std::string> broken[] = {
        {"<Pairs><syncPair/></Pairs>", "Root node is not <AttrSyncPairs>"},
        {"<AttrSyncPairs/>", "Mapping file doesn't have nodes."},
        {"<AttrSyncPairs><syncPair>", "No element found"},
        {"", "No element found"},
        {"<AttrSyncPairs><syncPair>" + deep, "nested deeper than"}};
    for (const auto& [content, why] : broken) {
        const Result refused = check(content);
        EXPECT_EQ(refused.code, 1) << content;
        EXPECT_TRUE(isOneLine(refused.error) && refused.output.empty()) << refused.error;
        EXPECT_NE(refused.error.find(why), std::string::npos) << refused.error;
        const json error = json::parse(check(content, "--json ").output);
        EXPECT_EQ(error["code"], 1);
    }
    for (const std::string& file : {path("missing.xml"), directory.path(), std::string("/dev/null")})
        EXPECT_EQ(run("sync-pairs " + file).code, 2) << file;
    EXPECT_EQ(run("transaction --abort -- sync-pairs " + path("file.xml")).code, 2);
}

TEST_F(SyncPairs, ShippedFileIsWithoutRemarks)
{
    const Result shown = run("sync-pairs --json " TAMO_CONF "/deprecated_attribute_mapping.xml");
    ASSERT_EQ(shown.code, 0) << shown.error;
    const auto lines = linesOf(shown.output);
    EXPECT_GE(lines.size(), 10U);
    EXPECT_GE(std::ranges::count_if(lines, [](const json& line) { return line["wildcard"].get<bool>(); }), 3);
    EXPECT_EQ(std::ranges::count_if(lines, [](const json& line) { return line.contains("remark"); }), 0);
}
