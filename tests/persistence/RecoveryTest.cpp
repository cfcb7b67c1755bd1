// What the node is asked to do when database files are really damaged, and when they are not.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include "platform/messages/Notifications.h"

#include <sqlite3.h>

#include <filesystem>

namespace fs = std::filesystem;
using namespace TAMO::Messages;

namespace {

using Resets = std::vector<std::pair<int, int>>;

class Recovery : public TempStore {
protected:
    Recovery()
    {
        EXPECT_TRUE(insert("A=1", {text("a", std::string(20000, 'x'))}));
        fs::copy_file(path("runtime/pRBSdb"), path("sound"));
    }
    void setPermanent(const std::string& from) { fs::copy_file(from, path("flash/pRBSdb")); }
    void damagePermanent()
    {
        setPermanent(path("sound"));
        corruptFile(path("flash/pRBSdb"));
    }
    std::string reasonRecorded() const
    {
        const std::string common = path("common/commondb");
        return fs::exists(common) ? queryFile(common, "select value from Attribute where name = 'resetReason'") : "";
    }
    Resets resets() const { return middleware.state().controlledResets; }
};

} // namespace

TEST_F(Recovery, SoundFilesPassAndNothingIsOrdered)
{
    setPermanent(path("sound"));
    EXPECT_TRUE(store().checkDbIntegrity(path("sound")));
    EXPECT_TRUE(store().doIntegrityCheck());
    ASSERT_TRUE(store().sql_start_transaction());
    DBObject large = container("B=1", {text("b", std::string(3000000, 'x'))});
    ASSERT_TRUE(store().sql_insert(&large, true, "test"));
    EXPECT_TRUE(store().doIntegrityCheck()) << "a large open transaction of our own is no damage";
    ASSERT_TRUE(store().sql_commit_transaction());
    EXPECT_EQ(log.count(mwLogError, "corrupted"), 0);
    EXPECT_TRUE(resets().empty());
    EXPECT_EQ(reasonRecorded(), "");
}

TEST_F(Recovery, DamageOfEveryKindIsSeenAndEveryLineLogged)
{
    writeJunk(path("junk"));
    fs::copy_file(path("sound"), path("overwritten"));
    corruptFile(path("overwritten"));
    fs::copy_file(path("sound"), path("tableless"));
    {
        Connection file;
        ASSERT_EQ(file.open(path("tableless"), SQLITE_OPEN_READWRITE, 0), SQLITE_OK);
        ASSERT_EQ(file.execute("drop table Attribute"), SQLITE_OK);
    }
    fs::copy_file(path("sound"), path("misindexed"));
    {
        Connection file;
        ASSERT_EQ(file.open(path("misindexed"), SQLITE_OPEN_READWRITE, 0), SQLITE_OK);
        ASSERT_EQ(file.execute("pragma writable_schema = on; insert into DBObject values(70,1,'K=1',1,0,0);"
                               "update sqlite_master set sql = replace(sql, '(parent,dn,MOInstance)', '(dn,parent,"
                               "MOInstance)') where name = 'unique_object'"),
                  SQLITE_OK);
    }
    for (const char* file : {"absent", "junk", "overwritten", "tableless", "misindexed"})
        EXPECT_FALSE(store().checkDbIntegrity(path(file))) << file;
    EXPECT_EQ(log.count(mwLogError, "Failed to open " + path("absent") + " for integrity check! sqlite err: 14"), 1);
    for (const char* file : {"junk", "overwritten", "tableless", "misindexed"})
        EXPECT_EQ(log.count(mwLogError, "SQLite::checkDbIntegrity() '" + path(file) + "' is corrupted!"), 1) << file;
    EXPECT_EQ(log.count(mwLogError, "Attribute table does not exists!"), 1);
    EXPECT_EQ(log.count(mwLogError, "SQLite::checkDbIntegrity() row 1 missing from index unique_object"), 1);
    EXPECT_GE(log.count(mwLogError, "SQLite::checkDbIntegrity() Page "), 5) << "a line for each thing found";
    EXPECT_FALSE(fs::exists(path("absent")));
    EXPECT_TRUE(resets().empty()) << "the check of one file orders nothing";
}

TEST_F(Recovery, DamagedRuntimeFileAloneOrdersAReset)
{
    setPermanent(path("sound"));
    corruptFile(path("runtime/pRBSdb"));
    EXPECT_FALSE(store().doIntegrityCheck());
    EXPECT_EQ(resets(), (Resets{{1, 0}}));
    EXPECT_TRUE(middleware.state().mounts.empty());
    EXPECT_EQ(middleware.state().activePartition, 1);
    EXPECT_EQ(reasonRecorded(), "") << "the next start reports no software fallback";
    EXPECT_EQ(log.count(mwLogError, "Runtime database file corrupted, requesting reset"), 1);
    fs::remove(path("flash/pRBSdb"));
    EXPECT_FALSE(store().doIntegrityCheck());
    EXPECT_EQ(resets(), (Resets{{1, 0}, {1, 0}})) << "without a permanent file as well";
}

TEST_F(Recovery, BothFilesDamagedFallBackToTheOtherSoftware)
{
    damagePermanent();
    corruptFile(path("runtime/pRBSdb"));
    EXPECT_FALSE(store().doIntegrityCheck());
    const NodeState state = middleware.state();
    EXPECT_EQ(state.activePartition, 2);
    EXPECT_EQ(state.mounts, std::vector<int>{2});
    EXPECT_EQ(state.controlledResets, (Resets{{1, 0}}));
    EXPECT_EQ(reasonRecorded(), "2");
    EXPECT_EQ(log.count(mwLogError, "pRBSdb corrupted, requesting SW fallback"), 1);
    EXPECT_EQ(log.count(mwLogWarning, "/usr/bin/prepare_sw_fallback.sh /mnt/activecfg " + path("partitions/2")), 1);
    EXPECT_EQ(queryFile(path("common/commondb"), "select dn from DBObject where id != 0"), "Common");
}

TEST_F(Recovery, GoldenPartitionIsNotPrepared)
{
    NodeState golden;
    golden.fallbackPartition = 4;
    middleware.set(golden);
    EXPECT_TRUE(store().requestFallbackFromMw());
    const NodeState state = middleware.state();
    EXPECT_EQ(state.activePartition, 4);
    EXPECT_TRUE(state.mounts.empty());
    EXPECT_EQ(state.controlledResets, (Resets{{1, 0}}));
    EXPECT_EQ(log.count(mwLogWarning, "prepare_sw_fallback"), 0);
}

TEST_F(Recovery, CheckIsNotEnteredFromInsideItself)
{
    damagePermanent();
    corruptFile(path("runtime/pRBSdb"));
    writeJunk(path("common/commondb")); // recording the reason fails, and would ask for a check
    ASSERT_EQ(store().runtime()->execute("PRAGMA shrink_memory"), SQLITE_OK);
    EXPECT_FALSE(object("A=1"));
    EXPECT_GE(log.count(mwLogError, "requesting SW fallback!"), 1);
    EXPECT_EQ(static_cast<int>(resets().size()), log.count(mwLogError, "requesting SW fallback!"));
    EXPECT_EQ(middleware.state().activePartition, 2) << "the fallback is ordered all the same";
}

TEST_F(Recovery, ResetAndFaultsAreAskedForByMessage)
{
    store().doFallback();
    EXPECT_EQ(log.count(mwLogError, "SQLite::resetRBS: sending FAIL"), 1) << "nobody is there";
    store().sendFaultNotif(0x123, true);
    EXPECT_EQ(log.count(mwLogInfo, "sending fault 0x123 to FM failed"), 1);
    const DatabaseNode node(path("runtime"));
    Service reset(path("runtime"), "reset", 9);
    Service faults(path("runtime"), "fm", 3);
    fs::remove(path("common/commondb"));
    store().doFallback();
    const auto ordered = reset.next<TAMO_ResetRBS>();
    ASSERT_TRUE(ordered);
    EXPECT_EQ(ordered->reason, 2);
    EXPECT_EQ(ordered->second, 1);
    EXPECT_EQ(reasonRecorded(), "2");
    for (const bool raise : {true, false}) {
        store().sendFaultNotif(0x123, raise);
        const auto fault = faults.next<TAMO_FaultNotification>();
        ASSERT_TRUE(fault);
        EXPECT_EQ(fault->faultCode, 0x123);
        EXPECT_EQ(fault->raise, raise ? 1 : 0);
    }
    EXPECT_EQ(log.count(mwLogInfo, "fault 0x123 sent to FM"), 2);
}

TEST_F(Recovery, GoldenStartRemovesThePermanentFile)
{
    setPermanent(path("sound"));
    store().DeletepRBSdbFileWhenGoldenSWIsInUse();
    EXPECT_TRUE(fs::exists(path("flash/pRBSdb"))) << "not golden";
    writeJunk(path("state.json"));
    store().DeletepRBSdbFileWhenGoldenSWIsInUse();
    EXPECT_TRUE(fs::exists(path("flash/pRBSdb"))) << "not known to be golden";
    NodeState golden;
    golden.startedPartition = 4;
    middleware.set(golden);
    store().DeletepRBSdbFileWhenGoldenSWIsInUse();
    EXPECT_FALSE(fs::exists(path("flash/pRBSdb")));
    EXPECT_EQ(middleware.state().activePartition, 4);
}
