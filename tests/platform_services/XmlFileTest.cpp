// XML files of others: what is not opened, what is refused before a tree is built, and that reading
// neither hangs nor leaves a descriptor open.
#include "Scratch.h"

#include "platform/utility/XmlFile.h"

#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t limit = 4 * 1024 * 1024;

std::string nested(std::size_t depth)
{
    std::string text;
    for (std::size_t i = 0; i < depth; ++i)
        text += "<n>";
    for (std::size_t i = 0; i < depth; ++i)
        text += "</n>";
    return text;
}

/// Entities of entities: ten times the text with each level.
std::string swelling(const std::string& use)
{
    std::string text = "<!DOCTYPE m [<!ENTITY e0 \"" + std::string(100, 'x') + "\">";
    for (int level = 1; level < 8; ++level) {
        text += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int i = 0; i < 10; ++i)
            text += "&e" + std::to_string(level - 1) + ";";
        text += "\">";
    }
    return text + "]>" + use;
}

class XmlFiles : public testing::Test {
protected:
    /// The name of the document's element; what is wrong when there is no document.
    std::string read(const std::string& content)
    {
        scratch.write("file.xml", content);
        return read();
    }
    std::string read()
    {
        try {
            const XmlFile file(scratch.path("file.xml"));
            EXPECT_TRUE(file.isOpen());
            return file.parse(limit)->documentElement()->nodeName();
        } catch (const std::exception& error) {
            return "wrong: " + textOf(error);
        }
    }
    bool refused(const std::string& content, const std::string& why)
    {
        const std::string result = read(content);
        EXPECT_NE(result.find(why), std::string::npos) << result;
        return result.starts_with("wrong: ");
    }
    Scratch scratch;
};

} // namespace

TEST_F(XmlFiles, OnlyRegularFilesAreOpened)
{
    const int before = dup(0);
    close(before);
    scratch.write("locked.xml", "<m/>");
    std::filesystem::create_directory(scratch.path("directory"));
    ASSERT_EQ(mkfifo(scratch.path("pipe").c_str(), 0600), 0);
    for (const std::string& path : {scratch.path("absent"), scratch.path("directory"), scratch.path("pipe"),
                                    std::string("/dev/zero"), std::string()})
        EXPECT_FALSE(XmlFile(path).isOpen()) << path;
    std::filesystem::create_symlink("locked.xml", scratch.path("link"));
    const XmlFile file(scratch.path("link"));
    EXPECT_TRUE(file.isOpen());
    std::filesystem::remove(scratch.path("locked.xml"));
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(file.parse(limit)->documentElement()->nodeName(), "m") << "the file that was opened, from its start";
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before + 1) << "only the open file has a descriptor";
}

TEST_F(XmlFiles, WhatIsNoWholeDocumentIsRefused)
{
    EXPECT_EQ(read("<?xml version='1.0'?><!-- c --><m a='1'><n/>text</m>"), "m");
    EXPECT_TRUE(refused("", "No element found"));
    EXPECT_TRUE(refused("<m><n/>", "No element found"));
    EXPECT_TRUE(refused("<m><n></m>", "Tag mismatch"));
    EXPECT_TRUE(refused("<m/><m/>", "Junk after document element"));
    EXPECT_TRUE(refused(std::string("<m>\0</m>", 8), "Invalid token"));
    EXPECT_TRUE(refused("<m>\xff</m>", "Invalid token"));
    EXPECT_TRUE(refused("<?xml version='1.0' encoding='none'?><m/>", "encoding"));
}

TEST_F(XmlFiles, SizeAndDepthHaveLimits)
{
    const std::string full = "<m>" + std::string(limit - 7, 'x') + "</m>";
    EXPECT_EQ(read(full), "m");
    EXPECT_TRUE(refused(full + "\n", "more than the 4194304 that are read"));
    EXPECT_EQ(read(nested(XmlFile::maxDepth)), "n");
    EXPECT_TRUE(refused(nested(XmlFile::maxDepth + 1), "nested deeper than 256"));
    EXPECT_TRUE(refused(nested(200000), "nested deeper than 256"));
    std::filesystem::resize_file(scratch.path("file.xml"), std::uintmax_t{1} << 40);
    EXPECT_TRUE(read().starts_with("wrong: ")) << "a tebibyte of nothing takes no memory";
}

/// The parser would go through what is open again with every block that it gets: minutes, for a file that
/// is one comment.
TEST_F(XmlFiles, NoSingleTokenIsLong)
{
    const std::string shortEnough(60000, 'x');
    const std::string tooLong(100000, 'x');
    EXPECT_EQ(read("<m a='" + shortEnough + "'><!--" + shortEnough + "--></m><!--" + shortEnough + "-->"), "m");
    EXPECT_EQ(read("<m>" + tooLong + "<![CDATA[" + tooLong + "]]></m>"), "m") << "text is told in pieces";
    for (const std::string& content :
         {"<m><!--" + tooLong + "--></m>", "<m a='" + tooLong + "'/>", "<m><?p " + tooLong + "?></m>",
          "<m" + tooLong + "/>", "<!DOCTYPE m [<!ENTITY e '" + tooLong + "'>]><m/>"})
        EXPECT_TRUE(refused(content, "a comment, tag or declaration of more than 65536 bytes"));
}

TEST_F(XmlFiles, EntitiesNeitherLeaveTheFileNorSwell)
{
    EXPECT_EQ(read("<!DOCTYPE m [<!ENTITY e 'text'>]><m a='&e;'>&e;</m>"), "m");
    scratch.write("secret", "<secret/>");
    const std::string secret = "SYSTEM 'file://" + scratch.path("secret") + "'";
    EXPECT_TRUE(refused("<!DOCTYPE m [<!ENTITY e " + secret + ">]><m>&e;</m>", "external entity"));
    EXPECT_EQ(read("<!DOCTYPE m [<!ENTITY % e " + secret + "> %e;]><m/>"), "m") << "not followed";
    EXPECT_EQ(read("<!DOCTYPE m " + secret + "><m/>"), "m") << "not followed";
    EXPECT_TRUE(refused(swelling("<m>&e7;</m>"), "wrong: "));
    EXPECT_TRUE(refused(swelling("<m a='&e7;'/>"), "wrong: "));
    std::string elements = "<!DOCTYPE m [<!ENTITY e \"";
    for (int i = 0; i < 10000; ++i)
        elements += "<n/>";
    elements += "\">]><m>";
    for (int i = 0; i < 200; ++i)
        elements += "&e;";
    EXPECT_TRUE(refused(elements + "</m>", "entities make more than 4194304 bytes"));
    std::string defaults = "<!DOCTYPE m [<!ATTLIST n a CDATA '" + std::string(10000, 'x') + "'>]><m>";
    for (int i = 0; i < 1000; ++i)
        defaults += "<n/>";
    EXPECT_TRUE(refused(defaults + "</m>", "entities make more than 4194304 bytes"));
    EXPECT_TRUE(refused("<!DOCTYPE m [<!ENTITY e '&e;'>]><m>&e;</m>", "Recursive"));
}
