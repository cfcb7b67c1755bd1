// Life cycles of a simulated node: resets, partitions, power cuts, and the verbs that bring them about.
#include "Process.h"

#include "platform/host/MessageNode.h"
#include "platform/host/NodeState.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/mw_api.h"
#include "platform/utility/SystemFunctions.h"
#include "tests/support/ScopedVariable.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

using Numbers = std::vector<int>;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

json statusOf(const std::string& directory)
{
    return json::parse(run({program("tamo_node"), "status", directory}).output, nullptr, false);
}

/// A member of every entry of a list in the status.
Numbers listed(const json& status, const char* list, const char* member)
{
    Numbers numbers;
    for (const auto& entry : status.value(list, json::array()))
        numbers.push_back(entry.at(member));
    return numbers;
}

bool isUpAfter(const Node& node, int boots)
{
    return eventually(
        [&] { return node.status("boot_count") == std::to_string(boots) && node.status("state") == "\"up\""; });
}

/// This process sees the middleware, the storage and the root directory of a node, as its tamo_db does.
class InsideNode {
public:
    explicit InsideNode(const std::string& directory)
        : m_state("TAMO_NODE_STATE", directory + "/state.json"),
          m_medium("TAMO_NODE_MEDIUM", directory + "/medium"),
          m_root("TAMO_NODE_ROOT", directory + "/root"),
          m_areas("TAMO_CONFIG_PARTITIONS", directory + "/config")
    {}

private:
    ScopedVariable m_state;
    ScopedVariable m_medium;
    ScopedVariable m_root;
    ScopedVariable m_areas;
};

/// A node whose tamo_db is a shell script; what goes wrong with it is in the test's hands.
class ScriptedNode {
public:
    explicit ScriptedNode(const std::string& text)
    {
        writeFile(m_directory.path("service"), "#!/bin/sh\n" + text + "\n");
        ::chmod(m_directory.path("service").c_str(), 0755);
        // Beside the script: the node's own /tmp would hide programs that were built in /tmp.
        fs::copy_file(program("tamo_db"), m_directory.path("tamo_db"));
        fs::create_directory(path());
    }
    ~ScriptedNode() { run({program("tamo_node"), "down", path()}); }
    std::string path(const std::string& name = "") const
    {
        return m_directory.path("node" + (name.empty() ? "" : '/' + name));
    }
    Command upCommand() const
    {
        return {program("tamo_node"), "up", path(),   "--tamo-db", m_directory.path("service"), "--stop-timeout", "1",
                "--timeout",          "30", "--conf", TAMO_CONF};
    }
    /// An empty object while there is none.
    json status() const
    {
        const json status = statusOf(path());
        return status.is_object() ? status : json::object();
    }

private:
    TestDirectory m_directory;
};

const std::string realService = "exec \"${0%/*}/tamo_db\"";

} // namespace

TEST(NodeLife, ResetsOrderedByTheServiceBootTheActivePartition)
{
    const Node node;
    const InsideNode inside(node.path());
    const pid_t before = node.servicePid();
    writeFile(node.path("flash/2/pRBSdb.marker"), "2");
    ASSERT_EQ(mw_api_pwr_active_partition_set(2), 0);
    EXPECT_EQ(mw_api_pwr_controlled_reset(1, 0), 0);
    ASSERT_TRUE(isUpAfter(node, 2));
    EXPECT_NE(node.servicePid(), before);
    EXPECT_NE(::kill(before, 0), 0);
    EXPECT_EQ(node.status("started_partition"), "2");
    EXPECT_EQ(node.status("reset_reason"), "6");
    EXPECT_EQ(node.status("fallback_partition"), "4") << "no partition falls back to itself";
    const std::string environment = readFile("/proc/" + std::to_string(node.servicePid()) + "/environ");
    EXPECT_TRUE(contains(environment, "TAMO_DB_FILE_PATH=" + node.path("flash/2"))) << "its own flash";
    EXPECT_TRUE(contains(environment, "TAMO_PERSISTENT_STORAGE=" + node.path("common"))) << "shared";

    TAMO::Framework::MessageNode client({node.path("run"), "orderer", 50, false, {"reset"}});
    ASSERT_TRUE(client.start());
    ASSERT_TRUE(eventually([&] { return client.send(9, TAMO::Messages::TAMO_ResetRBS(2, 1)); }));
    ASSERT_TRUE(isUpAfter(node, 3));
    client.stop();
    const json status = statusOf(node.path());
    EXPECT_EQ(listed(status, "boots", "partition"), (Numbers{1, 2, 2}));
    EXPECT_EQ(status["last_reset"]["by"], "reset service");
    EXPECT_EQ(status["last_reset"]["reason"], 2);
    EXPECT_EQ(status["resets"][0]["by"], "middleware");
    EXPECT_EQ(status["boots_without_good_mark"], 0);
    EXPECT_EQ(node.verb("down").code, 0);
}

TEST(NodeLife, OrdersThatComeWhileOneIsUnderWayCountAsThatOne)
{
    const ScriptedNode node("trap 'sleep 0.3; exit 0' TERM; while :; do sleep 0.05; done");
    Process up(node.upCommand());
    ASSERT_TRUE(eventually([&] { return node.status().value("boot_count", 0) == 1; }));
    const InsideNode inside(node.path());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(mw_api_pwr_controlled_reset(1, i), 0);
    ASSERT_TRUE(eventually([&] { return node.status().value("boot_count", 0) >= 2; }));
    const json status = node.status();
    EXPECT_EQ(listed(status, "resets", "second"), (Numbers{0, 1, 2}));
    EXPECT_EQ(status["last_reset"]["second"], 0) << status["resets"];
    EXPECT_EQ(status["boot_count"], 2);
}

TEST(NodeLife, ResetEndsTheServiceAndTheCommandsItRuns)
{
    for (const bool obeys : {true, false}) {
        const ScriptedNode node(std::string("trap '") + (obeys ? "exit 0" : "") +
                                "' TERM; sleep 1000 & echo $! > command; while :; do sleep 0.05; done");
        Process up(node.upCommand());
        const auto command = [&] { return std::atoi(readFile(node.path("command")).c_str()); };
        ASSERT_TRUE(eventually([&] { return command() > 0; }));
        const pid_t first = command();
        EXPECT_EQ(run({program("tamo_node"), "reset", node.path(), "--no-wait"}).code, 0);
        ASSERT_TRUE(eventually([&] { return node.status().value("boot_count", 0) == 2; })) << obeys;
        EXPECT_NE(::kill(first, 0), 0) << "a copy that goes on would write into the next boot";
        EXPECT_EQ(contains(node.status()["boots"][1]["cause"], "was killed"), !obeys);
    }
}

TEST(NodeLife, ThreeBootsWithoutAGoodMarkLeadToTheFallbackAndThenToGolden)
{
    const ScriptedNode dead("exit 1");
    const auto up = run(dead.upCommand());
    EXPECT_EQ(up.code, 1);
    EXPECT_TRUE(contains(up.error, "golden neither") && contains(up.error, "exit code 1")) << up.error;
    json status = dead.status();
    EXPECT_EQ(status["state"], "failed");
    EXPECT_EQ(listed(status, "boots", "partition"), (Numbers{1, 1, 1, 2, 2, 2, 4, 4, 4}));
    EXPECT_EQ(listed(status, "boots", "reset_reason"), (Numbers{6, 5, 5, 9, 5, 5, 9, 5, 5}));

    const ScriptedNode half("case $TAMO_DB_FILE_PATH in */flash/1) kill -SEGV $$;; esac\n" + realService);
    EXPECT_EQ(run(half.upCommand()).code, 0);
    status = half.status();
    EXPECT_EQ(listed(status, "boots", "partition"), (Numbers{1, 1, 1, 2}));
    EXPECT_EQ(status["reset_reason"], 9);
    EXPECT_EQ(status["boots_without_good_mark"], 0);
    EXPECT_EQ(status["boots"][0]["good"], "");
    EXPECT_NE(status["boots"][3]["good"], "");
}

TEST(NodeLife, GoodMarkForgivesWhatWentBefore)
{
    // Fails twice, then lives; the marks of the first three boots must not count against the next.
    const ScriptedNode node("echo x >> count; case $(wc -l < count) in 1|2|4|5) exit 1;; esac; " + realService);
    ASSERT_EQ(run(node.upCommand()).code, 0);
    EXPECT_EQ(run({program("tamo_node"), "reset", node.path(), "--reason", "3"}).code, 0);
    const json status = node.status();
    EXPECT_EQ(listed(status, "boots", "partition"), Numbers(6, 1));
    EXPECT_EQ(listed(status, "boots", "reset_reason"), (Numbers{6, 5, 5, 3, 5, 5}));
}

TEST(NodeLife, BootClearsWhatIsVolatileAndNothingElse)
{
    const Node node;
    const bool isPrivate = node.status("isolation") == "\"private\"";
    const std::string root = "/proc/" + std::to_string(node.servicePid()) + "/root";
    const Numbers partitions{1, 2, 3, 4};
    std::vector<std::string> lasting{"common/commondb.marker", "backup/database/marker", "conf/marker"};
    for (const int partition : partitions)
        lasting.push_back("flash/" + std::to_string(partition) + "/marker");
    for (const auto& name : lasting)
        writeFile(node.path(name), name);
    writeFile(node.path("runtime/left-over"), "x");
    writeFile(node.path("run/left-over.sock"), "x");
    if (isPrivate) {
        fs::create_directories(root + "/tmp/directory/inside");
        fs::create_symlink(node.path("common"), root + "/tmp/link");
        writeFile(root + "/tmp/tmp_pRBSdb", "x");
        writeFile(root + "/dev/shm/sem.left_over", "x");
    }
    ASSERT_EQ(node.verb("reset").code, 0);
    for (const auto& name : lasting)
        EXPECT_EQ(readFile(node.path(name)), name);
    EXPECT_EQ(readFile(node.path("medium/flash/1/marker")), "flash/1/marker") << "a reset loses no write";
    EXPECT_FALSE(fs::exists(node.path("runtime/left-over")));
    EXPECT_FALSE(fs::exists(node.path("run/left-over.sock")));
    if (!isPrivate)
        GTEST_SKIP() << "no private namespaces here: " << node.status("isolation");
    const std::string now = "/proc/" + std::to_string(node.servicePid()) + "/root";
    for (const char* name : {"/tmp/directory", "/tmp/link", "/tmp/tmp_pRBSdb", "/dev/shm/sem.left_over"})
        EXPECT_FALSE(fs::exists(fs::symlink_status(now + name))) << name;
}

TEST(NodeLife, FallbackPreparationCopiesTheActiveConfigurationArea)
{
    const Node node;
    const InsideNode inside(node.path());
    fs::create_directory(node.path("config/1/sub"));
    writeFile(node.path("config/1/sub/site.xml"), "one");
    writeFile(node.path("config/2/stale.xml"), "two");
    const auto prepare = [](int partition) {
        const std::string area = getConfigPartitionPath(partition);
        return executeCmd(10, "/usr/bin/prepare_sw_fallback.sh /mnt/activecfg " + area, area, true);
    };
    EXPECT_EQ(prepare(2), 0);
    EXPECT_EQ(readFile(node.path("config/2/sub/site.xml")), "one");
    EXPECT_FALSE(fs::exists(node.path("config/2/stale.xml")));
    EXPECT_TRUE(fs::is_empty(node.path("config/4")));
    EXPECT_NE(prepare(1), 0) << "onto itself";
    EXPECT_EQ(readFile(node.path("config/1/sub/site.xml")), "one");
    ASSERT_EQ(node.verb("set", {"active_partition=2"}).code, 0);
    ASSERT_EQ(node.verb("reset").code, 0);
    writeFile(node.path("config/2/sub/site.xml"), "of two");
    EXPECT_EQ(prepare(4), 0);
    EXPECT_EQ(readFile(node.path("config/4/sub/site.xml")), "of two")
        << "the partition that is booted is the active one";
}

TEST(NodeLife, PowerCutTakesWhatWasNotSynchronisedAndNothingElse)
{
    const Node node;
    const InsideNode inside(node.path());
    constexpr std::size_t size = 16 * 4096 + 100;
    const std::string copy = node.path("flash/1/copy");
    const std::string database = node.path("flash/1/database");
    const std::string removed = node.path("config/1/removed");
    const std::string created = node.path("config/1/created");
    const std::string safe = node.path("backup/database/safe");
    writeFile(safe, std::string(size, 's'));
    writeFile(database + "-journal", "being written in place");
    std::vector<std::string> copies;
    std::vector<std::string> databases;
    int removedStays = 0;
    int createdStays = 0;
    for (const char* seed : {"1", "2", "3", "4", "5", "6", "7", "8", "1"}) {
        writeFile(copy, std::string(size, 'a'));
        writeFile(database, std::string(size, 'a'));
        writeFile(removed, "r");
        fs::remove(created);
        flushFileSystems();
        writeFile(copy, std::string(size, 'b'));
        std::fstream(database, std::ios::in | std::ios::out | std::ios::binary) << std::string(size, 'b');
        fs::remove(removed);
        writeFile(created, "c");
        ASSERT_EQ(node.verb("power-cut", {"--seed", seed}).code, 0);
        copies.push_back(readFile(copy));
        databases.push_back(readFile(database));
        removedStays += !fs::exists(removed);
        createdStays += fs::exists(created);
        EXPECT_EQ(readFile(safe), std::string(size, 's'));
    }
    const auto counted = [](const std::string& text, const std::string& letters) {
        std::size_t count = 0; // sectors, which are written or not
        for (std::size_t at = 0; at < text.size(); at += 512) {
            const std::string sector = text.substr(at, 512);
            EXPECT_EQ(sector, std::string(sector.size(), sector[0])) << at;
            count += contains(letters, sector.substr(0, 1));
        }
        return count;
    };
    const std::string zero(1, '\0');
    std::size_t torn = 0;
    for (std::size_t i = 0; i < copies.size(); ++i) {
        EXPECT_TRUE(counted(copies[i], "a") == 0 || copies[i] == std::string(size, 'a'))
            << "old beside new, copy " << i;
        EXPECT_EQ(databases[i].size(), size) << "it never had another size";
        EXPECT_EQ(counted(databases[i], zero), 0U) << "blocks that were never freed, database " << i;
        torn += counted(copies[i], zero) % 8 != 0 || counted(databases[i], "a") % 8 != 0;
    }
    EXPECT_GT(std::ranges::count_if(copies, [&](const auto& c) { return contains(c, "b") && contains(c, zero); }), 2);
    EXPECT_GT(std::ranges::count_if(databases, [](const auto& d) { return contains(d, "a") && contains(d, "b"); }), 2);
    EXPECT_GT(torn, 0U);
    EXPECT_TRUE(removedStays > 0 && removedStays < 9) << removedStays;
    EXPECT_TRUE(createdStays > 0 && createdStays < 9) << createdStays;
    EXPECT_EQ(copies.front(), copies.back()) << "the same seed, the same loss";
    EXPECT_EQ(databases.front(), databases.back());
    EXPECT_EQ(node.status("reset_reason"), "0");
}

TEST(NodeLife, PowerCutLeavesWhatSqliteHasSynchronised)
{
    const Node node;
    for (int i = 1; i <= 5; ++i) {
        ASSERT_EQ(node.client({"common", "resetReason:INT32=" + std::to_string(i)}).code, 0);
        const auto cut = node.verb("power-cut", {"--off", "--seed", std::to_string(i)});
        ASSERT_EQ(cut.code, 0) << cut.error;
        EXPECT_EQ(node.status("state"), "\"off\"");
        EXPECT_EQ(query(node.path("common/commondb"), "select value from Attribute where name = 'resetReason'"),
                  std::vector<std::string>{std::to_string(i)});
        ASSERT_EQ(node.up().code, 0);
        EXPECT_EQ(node.status("reset_reason"), "0");
    }
}

TEST(NodeLife, SetIsAllOrNothingAndTheNextBootFollowsIt)
{
    const Node node;
    for (const std::vector<std::string>& refused : {std::vector<std::string>{"reset_reason=2", "colour=1"},
                                                    {"reset_reason=2", "operation_mode=x"},
                                                    {"reset_reason=2", "active_partition=5"},
                                                    {"reset_reason=2", "fallback_partition="},
                                                    {"reset_reason=2", "2"}}) {
        const auto result = node.verb("set", refused);
        EXPECT_EQ(result.code, 2);
        EXPECT_TRUE(contains(result.error, refused.back()) ||
                    contains(result.error, refused.back().substr(refused.back().find('=') + 1)))
            << result.error;
        EXPECT_EQ(node.status("reset_reason"), "6") << refused.back();
    }
    ASSERT_EQ(node.verb("down").code, 0);
    ASSERT_EQ(node.verb("set", {"started_partition=4", "operation_mode=3", "reset_reason=2"}).code, 0);
    ASSERT_EQ(node.up().code, 0);
    EXPECT_EQ(node.status("started_partition"), "4");
    EXPECT_EQ(node.status("active_partition"), "4");
    EXPECT_EQ(node.status("operation_mode"), "3");
    EXPECT_EQ(node.status("reset_reason"), "2");
    ASSERT_EQ(node.verb("down").code, 0);
    ASSERT_EQ(node.up().code, 0);
    EXPECT_EQ(node.status("reset_reason"), "6") << "a reason is good for one boot";
}

TEST(NodeLife, CorruptDamagesThatFileAndNoOther)
{
    const Node node;
    const std::string content(5000, 'x');
    const auto damage = [&](const std::string& file, const std::vector<std::string>& how) {
        std::vector<std::string> arguments{file, "--how"};
        arguments.insert(arguments.end(), how.begin(), how.end());
        return node.verb("corrupt", arguments);
    };
    const std::vector<std::pair<std::string, std::string>> files{{"pRBSdb", "flash/1/pRBSdb"},
                                                                 {"commondb", "common/commondb"},
                                                                 {"backup", "backup/database/pRBSdb"},
                                                                 {"conf/some.xml", "conf/some.xml"}};
    for (const auto& [name, path] : files) {
        writeFile(node.path(path), content);
        EXPECT_EQ(damage(name, {"zero", "--at", "600"}).code, 0);
        EXPECT_EQ(readFile(node.path(path)), std::string(512, 'x') + std::string(512, '\0') + std::string(3976, 'x'));
        EXPECT_EQ(damage(name, {"truncate", "--at", "700"}).code, 0);
        EXPECT_EQ(readFile(node.path(path)).size(), 700U);
        writeFile(node.path(path), content);
        EXPECT_EQ(damage(name, {"flip", "--seed", "1"}).code, 0);
        const std::string flipped = readFile(node.path(path));
        EXPECT_EQ(std::ranges::count(flipped, 'x'), 4999);
        EXPECT_EQ(damage(name, {"garbage", "--seed", "1"}).code, 0);
        EXPECT_LT(std::ranges::count(readFile(node.path(path)), 'x'), 100);
        EXPECT_EQ(readFile(node.path(path)).size(), content.size());
    }
    const TestDirectory outside;
    writeFile(outside.path("file"), content);
    fs::create_symlink(outside.path("file"), node.path("conf/link"));
    fs::create_directory_symlink(outside.path(), node.path("conf/away"));
    writeFile(node.path("conf/empty"), "");
    for (const std::string& refused : {std::string("conf/link"), std::string("conf/away/file"), outside.path("file"),
                                       std::string("../") + fs::path(outside.path()).filename().string() + "/file",
                                       std::string("conf"), std::string("conf/empty"), std::string("conf/missing")}) {
        const auto result = damage(refused, {"garbage"});
        EXPECT_EQ(result.code, 1) << refused;
        EXPECT_FALSE(result.error.empty());
    }
    EXPECT_EQ(readFile(outside.path("file")), content);
}

TEST(NodeLife, LogShowsTheLastLinesAndFollows)
{
    const Node node;
    const std::string all = readFile(node.path("log"));
    EXPECT_EQ(node.verb("log").output, all);
    const std::string two = node.verb("log", {"--lines", "2"}).output;
    EXPECT_EQ(std::ranges::count(two, '\n'), 2);
    EXPECT_TRUE(all.ends_with(two));
    EXPECT_EQ(node.verb("log", {"--lines", "0"}).output, "");

    Process follower({program("tamo_node"), "log", node.path(), "--lines", "1", "--follow"});
    ASSERT_EQ(node.verb("reset", {"--controlled", "1,1"}).code, 0);
    EXPECT_TRUE(eventually([&] { return contains(follower.output(), "controlled reset (1, 1)"); }));
    EXPECT_TRUE(follower.running());
    EXPECT_EQ(node.verb("reset", {"--controlled", "1;1"}).code, 2);
}

TEST(NodeLife, UpgradeStateIsWrittenByAClient)
{
    const Node node;
    for (const char* state : {"4", "2", "-1"}) {
        ASSERT_EQ(node.verb("upgrade-state", {state}).code, 0);
        const json object = json::parse(node.client({"--json", "get", "UpgradePackage=1"}).output, nullptr, false);
        EXPECT_TRUE(contains(object.dump(), std::string("\"value\":") + state)) << object;
        EXPECT_TRUE(contains(object.dump(), "INT32")) << object;
    }
    ASSERT_EQ(node.verb("down").code, 0);
    const auto result = node.verb("upgrade-state", {"1"});
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(contains(result.error, "db.sock")) << result.error;
}
