// Objects made from template files: what a file may say, and which files are refused.

#include "tests/requests/RequestTest.h"

#include <fstream>

using namespace TAMO::Messages;

namespace {

class Template : public RequestTest {
protected:
    std::string file(const std::string& content) const
    {
        std::ofstream(path("template.xml"), std::ios::binary) << content;
        return path("template.xml");
    }
    bool create(const std::string& templateFile, const std::string& dn = "A=1")
    {
        TAMO_DBCreateObject request;
        request.templateFile = templateFile;
        request.dn = dn;
        return ask<TAMO_DBCreateObjectRsp>(request).success;
    }
    bool refused(const std::string& templateFile)
    {
        const std::string before = everything();
        const bool answer = create(templateFile);
        EXPECT_EQ(everything(), before);
        return !answer;
    }
};

std::string plain(const std::string& name, const std::string& type, const std::string& value)
{
    return "<attribute><name>" + name + "</name><type>" + type + "</type><value>" + value +
           "</value><hidden>false</hidden></attribute>";
}

} // namespace

TEST_F(Template, AttributesTakeTheTypesTheirTextsReadAs)
{
    ASSERT_TRUE(create(
        file("<?xml version='1.0'?>\n<models><mo/><mo><dn>Other=1</dn>" + plain("a", "int", "1") +
             "</mo>\n<!-- ours --><mo> <dn>A=1</dn>\n" + plain("int", "int", "7") + plain("long", "long", " -8") +
             plain("wide", "int", "4294967297") + plain("broken", "int", "7up") + plain("short", "short", "65537") +
             plain("double", "double", "1e3") + plain("notDouble", "double", "nan") + plain("true", "boolean", "tRuE") +
             plain("yes", "boolean", "yes") + plain("empty", "string", "") +
             plain("odd", "what'ever%s", "&lt;&amp;%s") + "<stop/>" + plain("after", "int", "1") + "</mo></models>")));
    const auto made = object("A=1");
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->isMOMObject);
    const std::map<std::string, Value> expected{
        {"int", std::int32_t{7}},          {"long", std::int32_t{-8}},  {"wide", std::int32_t{1}},
        {"broken", std::string("7up")},    {"short", std::int16_t{1}},  {"double", 1000.0},
        {"notDouble", std::string("nan")}, {"true", std::int32_t{1}},   {"yes", std::string("yes")},
        {"empty", std::string("0")},       {"odd", std::string("<&%s")}};
    EXPECT_EQ(made->attributes.size(), expected.size());
    for (const auto& [name, value] : expected) {
        const Attribute* const held = made->getAttribute(name);
        ASSERT_TRUE(held) << name;
        EXPECT_TRUE(held->value == value) << name << " " << held->ToStr();
    }
    EXPECT_EQ(log.count(mwLogInfo, "making string attribute, originally type:boolean !!!"), 1);
}

TEST_F(Template, StructMembersBecomeAnObjectOfTheirOwn)
{
    const std::string member = plain("x", "int", "1") + plain("y", "string", "two");
    ASSERT_TRUE(create(file("<m><mo><dn>A=1</dn>" + plain("e", "enum</type><name>Colour</name><type>enum", "3") +
                            "<attribute><name>s</name><type>struct</type><name>N:T</name>" + member +
                            "</attribute></mo></m>")));
    EXPECT_EQ(value("A=1", "s"), "N:T");
    EXPECT_EQ(value("A=1", "e"), "3");
    EXPECT_EQ(value("A=1,N:T=s", "x"), "1");
    EXPECT_EQ(value("A=1,N:T=s", "y"), "two");
    EXPECT_FALSE(object("A=1,N:T=s")->isMOMObject);
    ASSERT_TRUE(create(file("<m><mo><dn>B=1</dn>" + plain("b", "int", "1") + "</mo></m>"), "B=1"));
    EXPECT_EQ(object("B=1")->attributes.size(), 1U) << "nothing of the file before";
    ASSERT_TRUE(create(file("<m><mo><dn>Other=1</dn></mo></m>"), "C=1")) << "a file that does not know the object";
    EXPECT_TRUE(object("C=1")->attributes.empty());
}

TEST_F(Template, FilesThatAreNoneAreRefused)
{
    EXPECT_TRUE(refused(path("absent.xml")));
    EXPECT_TRUE(refused(path("flash"))) << "a directory";
    EXPECT_EQ(log.count(mwLogError, "Problems with opening "), 2);
    const std::string good = "<m><mo><dn>A=1</dn></mo></m>";
    EXPECT_TRUE(refused(file(good + std::string(4 * 1024 * 1024, ' '))));
    EXPECT_TRUE(refused(file(good.substr(0, good.size() - 4))));
    std::string deep;
    for (int i = 0; i < 300000; ++i)
        deep += "<mo>";
    EXPECT_TRUE(refused(file(deep)));
    EXPECT_EQ(log.count(mwLogError, "Problems with POCO::XML parsing "), 3);
    EXPECT_TRUE(create(file(good)));
}

TEST_F(Template, ShippedTemplateMakesANeighborCellWithItsStructs)
{
    const std::string list = "ManagedElement=1,FAPService=1,CellConfig=1,LTE=1,RAN=1,NeighborList=1";
    const std::string cell = list + ",LTECell=3";
    const std::string structs = "\"" + cell + "\","; // the whole DN is the object's own pair
    for (std::size_t end = list.find(','); end != std::string::npos; end = list.find(',', end + 1))
        ASSERT_TRUE(insert(list.substr(0, end)));
    ASSERT_TRUE(insert(list));
    ASSERT_TRUE(create(TAMO_CONF "/lte_neighbor_template.xml", cell));
    EXPECT_EQ(object(cell)->attributes.size(), 11U);
    EXPECT_EQ(value(cell, "CID"), "268435203");
    EXPECT_EQ(value(cell, "QOffset"), "15") << "an enum";
    EXPECT_EQ(value(cell, "Position"), "LTECell:GeoPosition");
    EXPECT_EQ(value(structs + "LTECell:GeoPosition=Position", "Latitude"), "60.2191");
    EXPECT_EQ(value(structs + "LTECell:Thresholds=HandoverThresholds", "RSRP"), "-110");
    EXPECT_EQ(log.count(mwLogInfo, "making string attribute"), 0) << "every value reads as its type";
    EXPECT_TRUE(store().delete_object(cell, 1, false, "test"));
    EXPECT_FALSE(object(structs + "LTECell:GeoPosition=Position")) << "the structs go with it";
}
