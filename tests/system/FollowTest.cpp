// What keeps deprecated attributes and their successors equal, on a whole node: the mapping file from the
// installation to the fallback that its loss orders.
#include "Process.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

const std::string mapping = "deprecated_attribute_mapping.xml";
const std::string root = "ManagedElement=1";

std::string pairOf(const std::string& dn1, const std::string& name1, const std::string& dn2, const std::string& name2)
{
    const auto side = [](const std::string& tag, const std::string& dn, const std::string& name) {
        return "<" + tag + "><fdn>" + dn + "</fdn><attrName>" + name + "</attrName></" + tag + ">";
    };
    return "<attrSyncPair>" + side("attr1", dn1, name1) + side("attr2", dn2, name2) + "</attrSyncPair>";
}

std::string documentOf(const std::string& pairs)
{
    return "<AttrSyncPairs><syncPair>" + pairs + "</syncPair></AttrSyncPairs>";
}

/// A directory for `tamo_node up --conf`.
class Conf : public TestDirectory {
public:
    explicit Conf(const std::string& content) { writeFile(path(mapping), content); }
};

/// A node and its clients' view of it.
class FollowedNode : public Node {
public:
    using Node::Node;

    /// Runs verbs, a line each, all of which must succeed.
    void script(const std::string& lines) const
    {
        const Result result = client({"batch", "-"}, lines);
        EXPECT_EQ(result.code, 0) << result.error;
    }
    std::string value(const std::string& dn, const std::string& name) const
    {
        const Result result = client({"get", dn, name});
        return result.code == 0 ? result.output.substr(0, result.output.find('\n')) : "none";
    }
    void reset() const { EXPECT_EQ(verb("reset").code, 0); }
    std::size_t logged(const std::string& text) const
    {
        const std::string log = readFile(path("log"));
        std::size_t count = 0;
        for (std::size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size())
            ++count;
        return count;
    }
    std::string confFile() const { return path("conf/" + mapping); }
    std::string flashFile() const { return path("flash/1/pRBSdb"); }
};

const std::string completed = "insert OAM AI_phase:INT32=4 --persistent AI_phase --not-mom\n";

} // namespace

TEST(Follow, ExampleTreeComesBackAsItWasStoredAndItsPairsFollow)
{
    const FollowedNode node;
    const std::string tree = std::string(TAMO_EXAMPLES) + "/small_cell.jsonl";
    node.script("import " + tree + "\n" + completed + "store\n");
    writeFile(node.path("before"), node.client({"export"}).output);
    node.reset();
    const Result same = node.client({"diff", "--persistent", "live", node.path("before")});
    EXPECT_EQ(same.code, 0) << "a start changed what was stored:\n" << same.output;
    EXPECT_EQ(node.client({"diff", "--persistent", "live", node.flashFile()}).code, 0);
    EXPECT_EQ(node.logged(node.confFile() + " parsed successfully"), 1U);

    const std::string cell = root + ",FAPService=1";
    const std::string cell2 = root + ",FAPService=2";
    const std::string selfConfig = cell + ",FAPControl=1,UMTS=1,SelfConfig=1";
    EXPECT_EQ(node.value(selfConfig, "NoiseRiseLimitSelfConfigEnable"), "false") << "made for the new name";
    node.script("set " + cell + ",CellConfig=1,UMTS=1,RAN=1 HSFlag=true\n" +               //
                "set " + cell + ",FAPControl=1,LTE=1,Gateway=1 SecGWServer1=192.0.2.1\n" + //
                "set " + selfConfig + " NoiseRiseLimitSelfConfigEnable=true\n");
    EXPECT_EQ(node.value(cell + ",CellConfig=1,UMTS=1,RAN=1", "HSEnable"), "true");
    EXPECT_EQ(node.value(cell2 + ",CellConfig=1,UMTS=1,RAN=1", "HSEnable"), "false") << "the other cell's";
    EXPECT_EQ(node.value(cell + ",FAPControl=1,UMTS=1,Gateway=1", "SecGWServer1"), "192.0.2.1");
    EXPECT_EQ(node.value(selfConfig, "NoiseRiseLimitConfigEnable"), "true");
    const Result again = node.client({"import", tree});
    EXPECT_EQ(again.code, 0) << "pairs must not make objects in front of an import: " << again.error;
}

TEST(Follow, BothSidesFollowAcrossWritesDeletesAndStarts)
{
    const Conf conf(documentOf(pairOf(root, "old", root, "new") + pairOf(root, "onlyOld", root + ",Made=1", "moved") +
                               pairOf(root, "waits", root + ",Late=%", "came")));
    const FollowedNode node({"--conf", conf.path()});
    node.script(completed + "insert " + root +
                " old=deprecated new=successor onlyOld=kept --persistent old --persistent new --persistent onlyOld\n" +
                "store\n");
    EXPECT_EQ(node.value(root, "old"), "deprecated") << "nothing is read before there is a configuration";
    node.reset();
    EXPECT_EQ(node.value(root, "old"), "successor");
    EXPECT_EQ(node.value(root + ",Made=1", "moved"), "kept");

    node.script("set " + root + " old=1\n");
    EXPECT_EQ(node.value(root, "new"), "1");
    node.script("transaction -- set " + root + " new=2 -- set " + root + " onlyOld=3\n");
    EXPECT_EQ(node.value(root, "old") + node.value(root + ",Made=1", "moved"), "23");
    node.script("unset " + root + " new\n");
    EXPECT_EQ(node.value(root, "old"), "none");
    node.script("set " + root + " old:string=4\n");
    EXPECT_EQ(node.value(root, "new"), "4");

    node.script("set " + root + " waits:string=5\n");
    node.script("insert " + root + ",Late=7 came=6\n");
    EXPECT_EQ(node.value(root, "waits"), "6") << "the pattern has found its object";
    node.script("set " + root + " waits=7\n");
    EXPECT_EQ(node.value(root + ",Late=7", "came"), "7");

    node.reset();
    EXPECT_EQ(node.value(root, "old"), "successor") << "what was stored";
}

TEST(Follow, EnablingReadsTheFileOnceAndABrokenOneOrdersAFallback)
{
    const Conf conf("<AttrSyncPairs><pair/></AttrSyncPairs>");
    const FollowedNode node({"--conf", conf.path()});
    const Result refused = node.client({"enable-sync"});
    EXPECT_EQ(refused.code, 1) << refused.output;
    EXPECT_EQ(node.logged("handleEnableAttributeSynchronization Requesting SW fallback"), 1U);
    ASSERT_TRUE(eventually([&] { return node.status("boot_count") == "2" && node.status("state") == "\"up\""; }));
    EXPECT_NE(node.status("last_reset").find("\"reason\":2"), std::string::npos) << node.status("last_reset");

    writeFile(node.confFile(), documentOf(pairOf(root, "old", root, "new")));
    node.script("insert " + root + " old=1 new=2\nenable-sync\n");
    EXPECT_EQ(node.value(root, "old"), "2");
    fs::remove(node.confFile());
    EXPECT_EQ(node.client({"enable-sync"}).code, 0);
    EXPECT_EQ(node.logged("handleEnableAttributeSynchronization Attribute synchronization already enabled"), 1U);
    node.script("set " + root + " old=3\n");
    EXPECT_EQ(node.value(root, "new"), "3");
}

TEST(Follow, StartWithoutItsMappingFallsBackUntilTheFileIsBack)
{
    const Conf conf(documentOf(pairOf(root, "old", root, "new")));
    const FollowedNode node({"--conf", conf.path()});
    node.script(completed + "insert " + root + " old=1 --persistent old\nstore\n");
    const std::string broken = documentOf("").substr(0, 20);
    const auto failedStarts = [&] { return node.logged("Database: Failed to parse deprecated attribute mapping xml"); };
    const auto toPartition1 = [&] {
        EXPECT_EQ(node.verb("down").code, 0);
        EXPECT_EQ(node.verb("set", {"active_partition=1", "fallback_partition=2"}).code, 0);
        EXPECT_EQ(node.up({"--conf", conf.path()}).code, 0);
    };
    fs::remove(node.confFile());
    node.reset();
    EXPECT_EQ(node.status("started_partition"), "2");
    EXPECT_EQ(node.logged("SQLite::parseDeprecatedAttributeMappingXML() File NOT found."), failedStarts());
    EXPECT_EQ(failedStarts(), 3U) << "each attempt on partition 1";
    EXPECT_EQ(node.logged("Database: Requesting SW fallback"), 3U);
    EXPECT_EQ(node.logged("Database: pRBSdb does not exist, skipping attribute synchronization xml parsing"), 2U);

    toPartition1(); // installs the file again
    EXPECT_EQ(node.status("started_partition"), "1");
    EXPECT_EQ(node.value(root, "new"), "1");
    writeFile(node.confFile(), broken);
    toPartition1(); // leaves what it finds
    EXPECT_EQ(readFile(node.confFile()), broken);
    EXPECT_EQ(node.status("started_partition"), "2");
    EXPECT_EQ(failedStarts(), 6U);
    EXPECT_EQ(node.logged("Problems with POCO::XML parsing"), 3U);
}

TEST(Follow, GoldenPartitionReadsNoMapping)
{
    const FollowedNode node({"--conf", Conf(documentOf(pairOf(root, "old", root, "new"))).path()});
    node.script(completed + "insert " + root + " old=1 --persistent old\nstore\n");
    fs::remove(node.confFile());
    EXPECT_EQ(node.verb("set", {"started_partition=4"}).code, 0);
    node.reset();
    EXPECT_EQ(node.status("started_partition"), "4");
    EXPECT_EQ(node.logged("Started partition was golden, skipping attribute synchronization xml parsing"), 1U);
    EXPECT_EQ(node.logged("Failed to parse deprecated attribute mapping"), 0U);
}

TEST(Follow, UpInstallsWhatTheNodeDoesNotHave)
{
    const Conf conf("first");
    writeFile(conf.path("other.xml"), "other");
    writeFile(conf.path("notes.txt"), "notes");
    fs::create_directory(conf.path("directory.xml"));
    fs::permissions(conf.path("other.xml"), fs::perms::owner_read | fs::perms::group_read);
    const FollowedNode node({"--conf", conf.path()});
    EXPECT_EQ(readFile(node.confFile()), "first");
    writeFile(node.path("conf/other.xml"), "edited");
    EXPECT_EQ(node.verb("down").code, 0);
    writeFile(conf.path(mapping), "second");
    writeFile(conf.path("late.xml"), "late");
    EXPECT_EQ(node.up({"--conf", conf.path()}).code, 0);
    EXPECT_EQ(readFile(node.confFile()) + readFile(node.path("conf/other.xml")) + readFile(node.path("conf/late.xml")),
              "firsteditedlate");
    EXPECT_EQ(std::distance(fs::directory_iterator(node.path("conf")), {}), 3);

    EXPECT_EQ(node.verb("down").code, 0);
    const Result wrong = node.up({"--conf", conf.path("missing")});
    EXPECT_EQ(wrong.code, 1);
    EXPECT_NE(wrong.error.find(conf.path("missing")), std::string::npos) << wrong.error;
    // A service of its own, with nothing beside it.
    fs::create_directory(conf.path("bin"));
    fs::remove(conf.path(mapping));
    fs::copy_file(program("tamo_db"), conf.path("bin/tamo_db"));
    EXPECT_EQ(node.up({"--tamo-db", conf.path("bin/tamo_db")}).error, "") << "the node has its file";
    EXPECT_EQ(node.verb("down").code, 0);
    fs::remove(node.confFile());
    const Result warned = node.up({"--tamo-db", conf.path("bin/tamo_db")});
    EXPECT_EQ(warned.code, 0);
    EXPECT_NE(warned.error.find("warning: neither " + node.path("conf") + " nor "), std::string::npos) << warned.error;
}
