// Objects made from template files: what a file may say, and which files are refused.

#include "tests/requests/RequestTest.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace TAMO::Messages;
namespace fs = std::filesystem;

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
    EXPECT_TRUE(refused(""));
    EXPECT_TRUE(refused(path("flash"))) << "a directory";
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_TRUE(refused(path("pipe")));
    EXPECT_TRUE(refused("/dev/zero"));
    const std::string good = "<m><mo><dn>A=1</dn></mo></m>";
    EXPECT_TRUE(refused(file(good + std::string(4 * 1024 * 1024, ' '))));
    EXPECT_EQ(log.count(mwLogError, "Problems with opening "), 6);
    const auto nested = [](int depth) {
        std::string text;
        for (int i = 0; i < depth; ++i)
            text += "<n>";
        for (int i = 0; i < depth; ++i)
            text += "</n>";
        return text;
    };
    EXPECT_TRUE(refused(file("")));
    EXPECT_TRUE(refused(file("<m><mo><dn>A=1</dn></mo>")));
    EXPECT_TRUE(refused(file("<m>" + nested(256) + "</m>")));
    EXPECT_TRUE(refused(file("<m>" + nested(300000) + "</m>")));
    EXPECT_EQ(log.count(mwLogError, "Problems with POCO::XML parsing "), 4);
    EXPECT_TRUE(create(file("<m>" + nested(255) + "</m>"))) << "as deep as may be";
}

TEST_F(Template, EntitiesNeitherReachOtherFilesNorSwell)
{
    std::ofstream(path("secret")) << "the secret";
    const std::string external = "<!DOCTYPE m [<!ENTITY e SYSTEM \"file://" + path("secret") + "\">]>";
    EXPECT_TRUE(refused(file(external + "<m><mo><dn>A=1</dn>" + plain("a", "string", "&e;") + "</mo></m>")));
    EXPECT_EQ(committed("select count(*) from Attribute where value like '%secret%'"), "0");
    std::string bomb = "<!DOCTYPE m [<!ENTITY e0 \"" + std::string(1000, 'x') + "\">";
    for (int i = 1; i < 9; ++i) {
        const std::string inner = "&e" + std::to_string(i - 1) + ";";
        bomb +=
            "<!ENTITY e" + std::to_string(i) + " \"" + inner + inner + inner + inner + inner + inner + inner + "\">";
    }
    EXPECT_TRUE(refused(file(bomb + "]><m><mo><dn>A=1</dn>" + plain("a", "string", "&e8;") + "</mo></m>")));
}
