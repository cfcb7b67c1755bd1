// What an operator does with a node's configuration, and what becomes of it: stored, restored, delayed
// by an upgrade, refused by a broken flash, and started under other modes and reasons.
#include "Process.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class LifeCycle : public testing::Test {
protected:
    LifeCycle()
    {
        EXPECT_EQ(client({"insert", "OAM", "AI_phase:INT32=4", "--persistent", "AI_phase", "--not-mom"}), "");
        EXPECT_EQ(client({"insert", "ManagedElement=1", "name=first", "--persistent", "name"}), "");
    }

    /// What a client's verb says when it fails; nothing when it does not.
    std::string client(const std::vector<std::string>& arguments) const
    {
        const Result result = node.client(arguments);
        return result.code == 0 ? "" : "failed: " + result.error;
    }
    std::string name() const { return value("ManagedElement=1", "name"); }
    std::string value(const std::string& dn, const std::string& attribute) const
    {
        const Result result = node.client({"get", dn, attribute});
        return result.code == 0 ? result.output.substr(0, result.output.find('\n')) : "none";
    }
    void nodeDoes(const std::vector<std::string>& arguments) const
    {
        const Result result = node.verb(arguments.front(), {arguments.begin() + 1, arguments.end()});
        EXPECT_EQ(result.code, 0) << arguments.front() << ": " << result.error;
    }
    /// What the permanent configuration of partition 1 says the name is.
    std::string storedName() const
    {
        const auto rows = fs::exists(flashFile) ? query(flashFile, "select value from Attribute where name = 'name'")
                                                : std::vector<std::string>{};
        return rows.empty() ? "none" : rows.front();
    }
    bool logHolds(const std::string& text) const { return node.verb("log").output.find(text) != std::string::npos; }

    const Node node;
    const std::string flashFile = node.path("flash/1/pRBSdb");
};

} // namespace

TEST_F(LifeCycle, StoredConfigurationSurvivesPowerCutsAndWhatIsNotStoredDoesNot)
{
    ASSERT_EQ(client({"store"}), "");
    for (const char* seed : {"1", "2", "3"}) {
        ASSERT_EQ(client({"set", "ManagedElement=1", "name=unstored"}), "");
        nodeDoes({"power-cut", "--seed", seed});
        EXPECT_EQ(name(), "first");
        EXPECT_EQ(node.status("started_partition"), "1");
    }
    EXPECT_EQ(node.client({"diff", "--persistent", "live", flashFile}).code, 0);
}

TEST_F(LifeCycle, FlashThatCannotBeWrittenIsReportedAndTheNodeGoesOn)
{
    ASSERT_EQ(client({"store"}), "");
    fs::rename(node.path("flash/1"), node.path("flash/gone"));
    EXPECT_NE(client({"store"}), "");
    ASSERT_TRUE(eventually([&] { return node.status("boot_count") == "2" && node.status("state") == "\"up\""; }));
    std::vector<int> codes;
    for (const auto& fault : json::parse(node.status("fault_events")))
        codes.push_back(fault.at("code"));
    EXPECT_EQ(codes, (std::vector<int>{0x5069, 0x5070}));
    EXPECT_EQ(json::parse(node.status("last_reset")).at("reason"), 2);
    EXPECT_EQ(value("Common", "resetReason"), "2");
    fs::create_directories(node.path("flash/1"));
    ASSERT_EQ(client({"--as", "AutointegrationManagement", "insert", "ManagedElement=1", "name=second", "--persistent",
                      "name"}),
              "");
    EXPECT_EQ(client({"--as", "AutointegrationManagement", "store"}), "");
    EXPECT_EQ(storedName(), "second");
}

TEST_F(LifeCycle, RestoreReplacesTheConfigurationOnce)
{
    ASSERT_EQ(client({"store"}), "");
    fs::create_directories(node.path("backup/database"));
    fs::copy_file(flashFile, node.path("backup/database/pRBSdb"));
    ASSERT_EQ(client({"set", "ManagedElement=1", "name=later"}), "");
    ASSERT_EQ(client({"store"}), "");
    ASSERT_EQ(client({"common", "brmOngoing:boolean=true", "resetReason:INT32=19"}), "");
    nodeDoes({"reset"});
    EXPECT_EQ(name(), "first");
    EXPECT_EQ(storedName(), "first");
    EXPECT_FALSE(fs::exists(node.path("backup/database")));
    EXPECT_EQ(value("Common", "brmOngoing"), "true");
    ASSERT_EQ(client({"common", "brmOngoing:boolean=false"}), "");
    nodeDoes({"reset"});
    EXPECT_EQ(name(), "first");
}

TEST_F(LifeCycle, ResetNobodyExpectedEndsABackup)
{
    ASSERT_EQ(client({"store"}), "");
    ASSERT_EQ(client({"common", "brmOngoing:boolean=true"}), "");
    nodeDoes({"reset", "--reason", "0"});
    EXPECT_EQ(node.status("boot_count"), "3") << "the recovery reset";
    EXPECT_TRUE(logHolds("SysEvnt: Unexpected reset occured during BRM operation, executing recovery reset"));
    EXPECT_EQ(name(), "first");
    nodeDoes({"reset", "--reason", "0"});
    EXPECT_EQ(node.status("boot_count"), "4");
}

TEST_F(LifeCycle, OtherSystemModeIsAFaultUntilTheNextStart)
{
    ASSERT_EQ(client({"insert", "OAM", "systemMode:INT32=1", "--persistent", "systemMode", "--not-mom"}), "");
    ASSERT_EQ(client({"store"}), "");
    nodeDoes({"set", "operation_mode=2"});
    nodeDoes({"reset"});
    EXPECT_EQ(name(), "first");
    EXPECT_EQ(value("OAM", "modeValidationFailed"), "true");
    EXPECT_TRUE(eventually([&] { return node.status("faults").find("20768") != std::string::npos; }))
        << node.status("faults");
    EXPECT_EQ(node.status("operation_mode"), "1");
    nodeDoes({"reset"});
    EXPECT_EQ(value("OAM", "modeValidationFailed"), "none");
}

TEST_F(LifeCycle, FactoryResetBeginsAnew)
{
    ASSERT_EQ(client({"store"}), "");
    nodeDoes({"reset", "--reason", "2"});
    EXPECT_EQ(name(), "none");
    EXPECT_FALSE(fs::exists(flashFile));
    EXPECT_EQ(value("Common", "resetReason"), "7");
}

TEST_F(LifeCycle, StoresWaitForASafeStateOfTheUpgrade)
{
    nodeDoes({"upgrade-state", "2"});
    ASSERT_EQ(client({"store"}), "");
    ASSERT_EQ(client({"store", "--backup"}), "");
    EXPECT_EQ(storedName(), "none");
    nodeDoes({"upgrade-state", "4"});
    EXPECT_EQ(storedName(), "none");
    ASSERT_EQ(client({"store", "--ignore-upgrade"}), "");
    EXPECT_EQ(storedName(), "first");
    ASSERT_EQ(client({"set", "ManagedElement=1", "name=second"}), "");
    nodeDoes({"upgrade-state", "1"});
    EXPECT_TRUE(eventually([&] { return storedName() == "second"; }));
    EXPECT_TRUE(logHolds("UpgradePackage=1:state value changed into 1, storePersistentDump is allowed"));
}

TEST_F(LifeCycle, WifiStatusShowsInTheTreeAndTheNodeEndsInAHold)
{
    std::string wifiModule = "ManagedElement=1";
    for (const char* pair : {"Equipment=1", "RbsUnit=1", "WifiModule=1"})
        ASSERT_EQ(client({"insert", wifiModule += std::string(",") + pair}), "");
    nodeDoes({"wifi", "1"});
    EXPECT_EQ(value(wifiModule, "operationalState"), "1");
    nodeDoes({"wifi", "2", "1", "3"});
    EXPECT_TRUE(eventually([&] { return value(wifiModule, "operationalState") == "3"; }));
    nodeDoes({"wifi", "4", "--magic", "0xDEADBEEF"});
    EXPECT_TRUE(logHolds("AMW_MessageHandler::handleMessage: magic field validation failed [magic = deadbeef]"));
    nodeDoes({"wifi", "4", "--truncate", "33"});
    EXPECT_TRUE(logHolds("message of 33 bytes ignored, at least 36 are needed"));
    nodeDoes({"wifi", "5", "6"});
    nodeDoes({"down"});
    EXPECT_EQ(node.status("exit_code"), "0");
    const Result unheard = node.verb("wifi", {"7"});
    EXPECT_EQ(unheard.code, 1);
    EXPECT_NE(unheard.error.find("no service"), std::string::npos) << unheard.error;
}

TEST_F(LifeCycle, CleanAndShutdownLeaveNothingToLoad)
{
    ASSERT_EQ(client({"store"}), "");
    ASSERT_EQ(client({"clean", "--force"}), "");
    EXPECT_EQ(name(), "none");
    EXPECT_FALSE(fs::exists(flashFile));
    ASSERT_EQ(client({"--as", "AutointegrationManagement", "insert", "ManagedElement=1", "name=second", "--persistent",
                      "name"}),
              "");
    ASSERT_EQ(client({"--as", "AutointegrationManagement", "store"}), "");
    EXPECT_EQ(storedName(), "second");
    ASSERT_EQ(client({"shutdown", "--force"}), "");
    EXPECT_FALSE(fs::exists(flashFile));
    EXPECT_NE(client({"set", "ManagedElement=1", "name=third"}), "");
    nodeDoes({"reset"});
    EXPECT_EQ(name(), "none");
}
