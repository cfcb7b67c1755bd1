// A tree on its way through the client, the service and back.
#include "Process.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using nlohmann::json;

namespace {

/// The objects of an export or import file, defaults filled in, by DN.
std::map<std::string, json> objects(const std::string& lines)
{
    std::map<std::string, json> all;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        json object = json::parse(line);
        object.update({{"MOInstance", object.value("MOInstance", 1)},
                       {"isMOMObject", object.value("isMOMObject", true)},
                       {"system", object.value("system", false)}});
        if (!object.contains("attributes"))
            object["attributes"] = json::object();
        for (auto& attribute : object["attributes"])
            attribute.update(
                {{"persistent", attribute.value("persistent", false)}, {"hidden", attribute.value("hidden", false)}});
        all[object["dn"]] = object;
    }
    return all;
}

std::string importLine(const std::string& dn, const json& attributes = json::object())
{
    return json{{"dn", dn}, {"attributes", attributes}}.dump() + '\n';
}

} // namespace

TEST(Client, RealTreeComesBackAsItWasAndTravelsOn)
{
    const std::string file = std::string(TAMO_EXAMPLES) + "/small_cell.jsonl";
    const Node first;
    const auto imported = first.client({"import", file});
    ASSERT_EQ(imported.code, 0) << imported.error;
    const auto exported = first.client({"export"});
    ASSERT_EQ(exported.code, 0) << exported.error;
    const auto expected = objects(readFile(file));
    const auto found = objects(exported.output);
    EXPECT_EQ(found.size(), 635U);
    for (const auto& [dn, object] : expected) {
        ASSERT_TRUE(found.contains(dn)) << dn;
        EXPECT_EQ(found.at(dn), object);
    }
    EXPECT_EQ(found.size(), expected.size());

    const Node second;
    const auto again = second.client({"import", "-"}, exported.output);
    ASSERT_EQ(again.code, 0) << again.error;
    EXPECT_TRUE(second.client({"export"}).output == exported.output) << "not the same bytes";
}

TEST(Client, UnusualNamesAndValuesAreOrdinary)
{
    const std::string root = "ManagedElement=1";
    const json odd{{"it's", {{"type", "string"}, {"value", "O'Brien; drop table DBObject; --"}}},
                   {"100%d%s%n", {{"type", "string"}, {"value", "%s%Q\t\n\\"}}},
                   {"größe", {{"type", "string"}, {"value", "基地局 📡"}}},
                   {"zero", {{"type", "string"}, {"value", std::string("a\0b", 3)}}},
                   {"smallest", {{"type", "INT64"}, {"value", INT64_MIN}}},
                   {"largest", {{"type", "UINT64"}, {"value", UINT64_MAX}}},
                   {"long", {{"type", "string"}, {"value", std::string(100000, 'x')}}}};
    std::string lines = importLine(root);
    for (const char* name : {"Cell=it's", "Cell=100%", "Cell=a_b", "Cell=größe", "Cell=\"quoted\"", "Cell= blank "})
        lines += importLine(root + ',' + name, odd);
    const Node node;
    const auto imported = node.client({"import", "-"}, lines);
    ASSERT_EQ(imported.code, 0) << imported.error << imported.output;
    EXPECT_EQ(objects(node.client({"export"}).output), objects(lines));
    EXPECT_EQ(node.client({"exists", root + ",Cell=100x"}).code, 3) << "a percent sign is not a wildcard here";
    EXPECT_EQ(node.client({"delete", root + ",Cell=it's"}).code, 0);
    EXPECT_EQ(node.client({"exists", root + ",Cell=it's"}).code, 3);
    EXPECT_EQ(node.client({"exists", root + ",Cell=a_b"}).code, 0);
}

TEST(Client, DnOfAThousandPairsWorks)
{
    constexpr int depth = 1000;
    std::string lines;
    std::string dn = "ManagedElement=1";
    for (int level = 1; level <= depth; ++level) {
        lines += importLine(dn);
        if (level < depth)
            dn += ",L=" + std::to_string(level);
    }
    const Node node;
    const auto imported = node.client({"import", "-"}, lines);
    ASSERT_EQ(imported.code, 0) << imported.error << imported.output;
    EXPECT_EQ(node.client({"exists", dn}).code, 0);
    EXPECT_EQ(node.client({"set", dn, "userLabel=deep"}).code, 0);
    const auto got = node.client({"--json", "get", dn, "userLabel"});
    EXPECT_EQ(json::parse(got.output, nullptr, false).value("value", ""), "deep") << got.output << got.error;
    EXPECT_EQ(node.client({"delete", "ManagedElement=1"}).code, 0);
    EXPECT_EQ(node.client({"exists", "ManagedElement=1"}).code, 3);
}

TEST(Client, MappingShowsBaseBandIdentifiersInHexadecimal)
{
    const Node node({"--conf", TAMO_CONF});
    EXPECT_EQ(node.client({"mapping", "ManagedElement=1,FAPService=2"}).output, "0x2001\n");
    EXPECT_EQ(node.client({"--json", "mapping", "DeviceType"}).output, "{\"identifier\": \"0x4002\"}\n");
    const auto unknown = node.client({"mapping", "ManagedElement=1"});
    EXPECT_EQ(unknown.code, 3);
    EXPECT_NE(unknown.error.find("base-band identifier of ManagedElement=1: not found"), std::string::npos);
    EXPECT_EQ(node.client({"mapping", ""}).code, 2);
    EXPECT_EQ(node.client({"set", "BOMOMapping", "DeviceType:string=none", "Alias=-1"}).code, 0);
    EXPECT_EQ(node.client({"mapping", "DeviceType"}).code, 1) << "no number";
    EXPECT_EQ(node.client({"mapping", "Alias"}).output, "0xffffffff\n");
    EXPECT_EQ(node.client({"delete", "BOMOMapping"}).code, 0);
    const auto none = node.client({"mapping", "Alias"});
    EXPECT_EQ(none.code, 3);
    EXPECT_NE(none.error.find("BOMOMapping: not found"), std::string::npos) << none.error;
    EXPECT_EQ(node.verb("reset").code, 0);
    EXPECT_EQ(node.client({"mapping", "Alias"}).output, "0x4001\n") << "read anew at every start";
}
