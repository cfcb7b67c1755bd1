// Deprecated attributes and their successors: the mapping file, the list of pairs, the first
// synchronisation and the mirroring of changes.

#include "tests/support/Recorder.h"
#include "tests/support/TempStore.h"

#include "persistence/AttributeSyncFile.h"
#include "platform/utility/XmlFile.h"
#include "store/AttributeSyncPairs.h"
#include "values/DistinguishedName.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <random>

namespace fs = std::filesystem;

namespace {

std::string side(int number, const std::string& dn, const std::string& name)
{
    const std::string tag = "attr" + std::to_string(number);
    return "<" + tag + "><fdn>" + dn + "</fdn><attrName>" + name + "</attrName></" + tag + ">";
}

std::string pair(const std::string& dn1, const std::string& name1, const std::string& dn2, const std::string& name2)
{
    return "<attrSyncPair>" + side(1, dn1, name1) + side(2, dn2, name2) + "</attrSyncPair>";
}

std::string document(const std::string& pairs)
{
    return "<?xml version=\"1.0\"?><AttrSyncPairs><syncPair>" + pairs + "</syncPair></AttrSyncPairs>";
}

class AttributeSync : public TempStore {
protected:
    void writeMapping(const std::string& content) const { std::ofstream(file()) << content; }
    std::string file() const { return path("deprecated_attribute_mapping.xml"); }

    /// The pairs of a file as "dn:name dn:name; ", or what is wrong with it.
    std::string reading(const std::string& content) const
    {
        writeMapping(content);
        std::string pairs;
        try {
            const bool hasNodes = AttributeSyncFile::read(XmlFile(file()), [&](const AttributeSyncPair& read) {
                for (const auto& one : read.sides)
                    pairs += one.dn + ":" + one.attribute + " ";
                pairs.back() = ';';
            });
            return hasNodes ? pairs : "no nodes";
        } catch (const std::exception& error) {
            return textOf(error);
        }
    }

    /// Reads the mapping and switches the synchronisation on, as a start does.
    void start(const std::string& pairs)
    {
        writeMapping(document(pairs));
        ASSERT_TRUE(store().parseDeprecatedAttributeMappingXML());
        ASSERT_TRUE(store().syncAttributes());
        store().setAttributeSynchronisationEnabled();
        recorder.take();
        recorder.takeObjects();
    }

    ScopedVariable directory{"DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", path("")};
    Recorder recorder;
};

} // namespace

TEST_F(AttributeSync, FileGivesItsCompletePairsInOrder)
{
    const std::string good = pair("A=1", "a", "B=1", "b");
    EXPECT_EQ(reading(document("")), "");
    EXPECT_EQ(reading(document(good + pair("A=%", "x", "B=1,C=%", "y"))), "A=1:a B=1:b;A=%:x B=1,C=%:y;");
    EXPECT_EQ(reading(document(pair(" A=1\n", "\ta ", "B=1", "b"))), "A=1:a B=1:b;");
    EXPECT_EQ(reading(document("<note/>" + good + "<more><deep/></more>" + good)), "A=1:a B=1:b;A=1:a B=1:b;");
    EXPECT_EQ(reading(document(side(2, "B=1", "b") + side(1, "A=1", "a"))), "A=1:a B=1:b;") << "in either order";
    EXPECT_EQ(reading(document(side(1, "A=1", "a") + "<attrSyncPair/>" + side(2, "B=1", "b"))), "") << "half a pair";
    EXPECT_EQ(reading(document("<attr1/>" + side(2, "B=1", "b") + side(1, "A=1", "a"))), "A=1:a B=1:b;")
        << "the second is looked at again";
    EXPECT_EQ(reading(document("<attr1><fdn>A=1</fdn></attr1>" + side(2, "B=1", "b") + side(1, "C=1", "c"))),
              "C=1:c B=1:b;");
    EXPECT_EQ(reading(document(pair("", "a", "B=1", "b"))), "");
    EXPECT_EQ(reading(document(good + "<attr1><fdn>A=1</fdn></attr1>")), "A=1:a B=1:b;") << "it ends inside a side";
    EXPECT_EQ(reading("<AttrSyncPairs/>"), "no nodes");
    EXPECT_EQ(reading("<Pairs><syncPair/></Pairs>"), "Root node is not <AttrSyncPairs>");
    EXPECT_EQ(reading("<AttrSyncPairs><pair/><syncPair/></AttrSyncPairs>"), "Root node is not <AttrSyncPairs>");
    EXPECT_EQ(reading(document(good).substr(0, 120)), "SAXParseException: Unclosed token in line 1 column 118");
}

TEST_F(AttributeSync, UnusableFileIsRefusedWithALine)
{
    EXPECT_FALSE(store().parseDeprecatedAttributeMappingXML());
    fs::create_directory(file());
    EXPECT_FALSE(store().parseDeprecatedAttributeMappingXML());
    EXPECT_EQ(log.count(mwLogError, "SQLite::parseDeprecatedAttributeMappingXML() File NOT found."), 2);
    fs::remove(file());
    writeMapping("<AttrSyncPairs/>");
    EXPECT_FALSE(store().parseDeprecatedAttributeMappingXML());
    EXPECT_EQ(log.count(mwLogError, "SQLite::parseDeprecatedAttributeMappingXML() Mapping file doesn't have nodes."),
              1);
    writeMapping("<Other/>");
    EXPECT_FALSE(store().parseDeprecatedAttributeMappingXML());
    EXPECT_EQ(log.count(mwLogError, "SQLite::parseDeprecatedAttributeMappingXML() Problems with POCO::XML parsing, "
                                    "msg: Root node is not <AttrSyncPairs> "),
              1);
    writeMapping(document(""));
    EXPECT_TRUE(store().parseDeprecatedAttributeMappingXML());
    EXPECT_EQ(log.count(mwLogInfo, "/deprecated_attribute_mapping.xml parsed successfully"), 1);
}

TEST_F(AttributeSync, FirstSynchronisationCopiesFromTheSecondSideElseFromTheFirst)
{
    ASSERT_TRUE(insert("A=1", {text("old", "1"), text("onlyOld", "2"), attribute("number", std::int32_t{7})}));
    ASSERT_TRUE(insert("B=1", {text("new", "3"), attribute("number", std::int64_t{8})}));
    ASSERT_TRUE(insert("B=1,C=5", {text("found", "4")}));
    start(pair("A=1", "old", "B=1", "new") + pair("A=1", "onlyOld", "D=1,E=1", "made") +
          pair("A=1", "number", "B=1", "number") + pair("B=1,C=%", "found", "A=1", "copy") +
          pair("X=1", "x", "Y=1", "y") + pair("Z=%", "z", "A=1", "old"));
    EXPECT_EQ(value("A=1", "old"), "3");
    EXPECT_EQ(value("A=1", "copy"), "4");
    EXPECT_TRUE(std::holds_alternative<std::int64_t>(object("A=1")->getAttribute("number")->value));
    EXPECT_FALSE(object("A=1")->getAttribute("copy")->persistent);
    EXPECT_FALSE(object("X=1")) << "neither is there";
    EXPECT_FALSE(object("Z=1"));
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::syncAttributes() Attribute synchronization done"), 1);
    ASSERT_TRUE(insert("D=1"));
    ASSERT_TRUE(store().syncAttributes());
    EXPECT_EQ(value("D=1,E=1", "made"), "2");
    EXPECT_TRUE(object("D=1,E=1")->isMOMObject);
}

TEST_F(AttributeSync, ChangeOfOneSideIsMirroredInTheSameDeliveryOnce)
{
    ASSERT_TRUE(insert("A=1", {text("a", "1")}));
    ASSERT_TRUE(insert("B=1", {text("b", "1"), text("other", "x")}));
    start(pair("A=1", "a", "B=1", "b") + pair("B=1", "b", "C=1", "c"));
    ASSERT_TRUE(update("A=1", {text("a", "2")}));
    EXPECT_EQ(recorder.take(), "23 A=1; 23 A=1 a=2; 23 B=1; 23 B=1 b=2; ");
    EXPECT_EQ(recorder.takeObjects(), "{23 A=1: a=2(23)} {23 B=1: b=2(23)} ");
    EXPECT_EQ(value("C=1", "c"), "1") << "what was mirrored is not mirrored again";
    ASSERT_TRUE(update("B=1", {text("b", "3")}));
    EXPECT_EQ(recorder.take(), "23 B=1; 23 B=1 b=3; 23 A=1; 23 A=1 a=3; ") << "the first pair decides";
    ASSERT_TRUE(update("B=1", {text("other", "y")}));
    EXPECT_EQ(recorder.take(), "23 B=1; 23 B=1 other=y; ");
    ASSERT_TRUE(store().deleteAttribute("b", idOf("B=1"), false));
    EXPECT_EQ(recorder.take(), "9 B=1 b=3; 9 A=1 a=3; ");
    ASSERT_TRUE(insert("B=1", {text("b", "4")}));
    EXPECT_EQ(value("A=1", "a"), "4");
    recorder.take();
    ASSERT_TRUE(store().delete_object("A=1", 1, false, "test"));
    EXPECT_EQ(recorder.take(), "9 A=1; 9 A=1 a=4; 9 B=1 b=4; ");
    EXPECT_EQ(value("B=1", "other"), "y");
}

TEST_F(AttributeSync, SuccessorDecidesWhenBothAreChangedTogether)
{
    ASSERT_TRUE(insert("A=1", {text("a", "1"), text("z", "1")}));
    start(pair("A=1", "a", "A=1", "z") + pair("A=1", "n", "A=1", "b"));
    ASSERT_TRUE(update("A=1", {text("a", "old"), text("z", "new"), text("b", "new"), text("n", "old")}));
    EXPECT_EQ(value("A=1", "a") + value("A=1", "z"), "newnew");
    EXPECT_EQ(value("A=1", "n") + value("A=1", "b"), "newnew");
    Attribute gone = text("z", "");
    gone.deleted = true;
    ASSERT_TRUE(update("A=1", {text("a", "again"), gone}));
    EXPECT_EQ(value("A=1", "a") + value("A=1", "z"), "(none)(none)");
}

TEST_F(AttributeSync, PairsWithCommasAreFoundInQuotes)
{
    ASSERT_TRUE(insert("A=1", {text("a", "1")}));
    ASSERT_TRUE(insert("A=1,\"B=x,y\"", {text("b", "1")}));
    start(pair("A=1", "a", "A=1,\"B=x,y\"", "b"));
    ASSERT_TRUE(update("A=1,\"B=x,y\"", {text("b", "2")}));
    EXPECT_EQ(value("A=1", "a"), "2");
    ASSERT_TRUE(update("A=1", {text("a", "3")}));
    EXPECT_EQ(value("A=1,\"B=x,y\"", "b"), "3");
}

TEST_F(AttributeSync, NothingIsMirroredBeforeItIsEnabledNorFromARollback)
{
    ASSERT_TRUE(insert("A=1", {text("a", "1")}));
    ASSERT_TRUE(insert("B=1", {text("b", "1")}));
    writeMapping(document(pair("A=1", "a", "B=1", "b")));
    ASSERT_TRUE(store().parseDeprecatedAttributeMappingXML());
    ASSERT_TRUE(update("A=1", {text("a", "2")}));
    EXPECT_EQ(value("B=1", "b"), "1");
    store().setAttributeSynchronisationEnabled();
    ASSERT_TRUE(store().sql_start_transaction());
    DBObject change = container("A=1", {text("a", "3")});
    ASSERT_TRUE(store().sql_update(&change, true, "test"));
    ASSERT_TRUE(store().sql_rollback_transaction());
    ASSERT_TRUE(update("A=1", {text("unrelated", "x")}));
    EXPECT_EQ(value("B=1", "b"), "1");
    EXPECT_FALSE(store().SyncAttribute("A=1", "a", std::string("9"), 77));
    EXPECT_EQ(log.count(mwLogError, "SQLite::SyncAttribute() Unknown operation: 77"), 1);
    EXPECT_EQ(value("B=1", "b"), "1");
}

TEST_F(AttributeSync, PatternStandsForTheFirstObjectThatEverMatches)
{
    ASSERT_TRUE(insert("A=1", {text("a", "1")}));
    ASSERT_TRUE(insert("Root=1"));
    start(pair("A=1", "a", "Root=1,B'q=%", "b"));
    ASSERT_TRUE(update("A=1", {text("a", "2")}));
    EXPECT_EQ(recorder.take(), "23 A=1; 23 A=1 a=2; ") << "nothing to mirror to yet";
    ASSERT_TRUE(insert("Root=1,B'q=7", {text("b", "7")}));
    EXPECT_EQ(value("A=1", "a"), "7");
    ASSERT_TRUE(insert("Root=1,B'q=3", {text("b", "3")}));
    EXPECT_EQ(value("A=1", "a"), "7") << "it stands for the one found";
    ASSERT_TRUE(update("A=1", {text("a", "8")}));
    EXPECT_EQ(value("Root=1,B'q=7", "b"), "8");
    EXPECT_EQ(value("Root=1,B'q=3", "b"), "3");
}

TEST(AttributeSyncPairs, UnrelatedChangesLookForNothing)
{
    int looks = 0;
    AttributeSyncPairs pairs([&](const std::string& pattern) {
        ++looks;
        return pattern;
    });
    for (int i = 0; i < 1000; ++i)
        pairs.append({{{{"Old=%,C" + std::to_string(i) + "=%", "a"}, {"New=1", "n" + std::to_string(i)}}}});
    for (int i = 0; i < 1000; ++i)
        pairs.append({{{{"Root=1,P" + std::to_string(i) + "=1,Cell=%", "a"}, {"New=1", "m" + std::to_string(i)}}}});
    EXPECT_EQ(pairs.partnerOf("Root=1,Cell=1", "a"), nullptr);
    EXPECT_EQ(pairs.partnerOf("Root=1,P5=2,Cell=1", "a"), nullptr);
    EXPECT_EQ(pairs.partnerOf("Other=1", "a"), nullptr);
    EXPECT_EQ(pairs.partnerOf("Old=1,C5=1", "b"), nullptr);
    EXPECT_EQ(looks, 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(pairs.partnerOf("Old=1,C5=1", "a"), nullptr);
    EXPECT_EQ(looks, 1) << "looked for in vain once";
    pairs.lookAgain();
    EXPECT_EQ(pairs.partnerOf("New=1", "n5"), nullptr);
    EXPECT_EQ(looks, 2);
}

/// Against the plain reading of the list from its beginning, on random small worlds.
TEST(AttributeSyncPairs, AgreesWithTheListReadFromItsBeginning)
{
    std::mt19937 random(5);
    const auto pick = [&](std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
    };
    const std::vector<std::string> dns{"A=1", "A=2", "A=1,B=1", "A=1,B=2", "A=2,B=1", "C=1"};
    const std::vector<std::string> patterns{"A=%", "A=1,B=%", "A=%,B=1", "%=1", "D=%", "A=2,%=1"};
    const std::map<std::string, std::string> world{
        {"A=%", "A=2"}, {"A=1,B=%", "A=1,B=2"}, {"A=%,B=1", "A=2,B=1"}, {"%=1", "C=1"}};
    const auto find = [&](const std::string& dn) {
        const auto found = world.find(dn);
        return found == world.end() ? dn : found->second;
    };
    int matches = 0;
    for (int round = 0; round < 300; ++round) {
        const auto randomSide = [&] {
            return AttributeSyncPair::Side{pick(3) == 0 ? patterns[pick(patterns.size())] : dns[pick(dns.size())],
                                           std::string(1, static_cast<char>('a' + pick(3)))};
        };
        AttributeSyncPairs pairs(find);
        std::vector<AttributeSyncPair> plain;
        for (std::size_t i = pick(8); i > 0; --i) {
            plain.push_back({{randomSide(), randomSide()}});
            pairs.append(plain.back());
        }
        for (int question = 0; question < 10; ++question) {
            const AttributeSyncPair::Side asked{dns[pick(dns.size())],
                                                std::string(1, static_cast<char>('a' + pick(3)))};
            const AttributeSyncPair::Side* const answer = pairs.partnerOf(asked.dn, asked.attribute);
            std::optional<AttributeSyncPair::Side> expected;
            for (const AttributeSyncPair& each : plain) {
                const AttributeSyncPair::Side first{find(each.sides[0].dn), each.sides[0].attribute};
                const AttributeSyncPair::Side second{find(each.sides[1].dn), each.sides[1].attribute};
                const bool active = (first.dn + second.dn).find('%') == std::string::npos;
                if (!expected && active && (first == asked || second == asked))
                    expected = first == asked ? second : first;
            }
            ASSERT_EQ(answer != nullptr, expected.has_value()) << "round " << round;
            if (expected) {
                ++matches;
                EXPECT_EQ(*answer, *expected) << "round " << round;
            }
        }
    }
    EXPECT_GT(matches, 200);
}
