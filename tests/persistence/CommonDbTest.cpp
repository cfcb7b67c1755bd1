// The common database: what is written there, and what stays untouched meanwhile.

#include "tests/support/Faults.h"
#include "tests/support/Recorder.h"
#include "tests/support/TempStore.h"

#include "store/FileLocations.h"

#include <sqlite3.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class CommonDb : public TempStore {
protected:
    CommonDb() { EXPECT_TRUE(insert("A=1", {text("a", "x")})); }

    static bool write(std::vector<Attribute> attributes, bool saveCurrentFirst = false)
    {
        DBObject common = container("Common", std::move(attributes), false);
        return store().sql_insert_to_commondb(&common, false, 0, "test", saveCurrentFirst);
    }
    std::string common() const
    {
        return queryFile(path("common/commondb"), "select name||'='||value from Attribute order by name");
    }
};

} // namespace

TEST_F(CommonDb, AttributesAreAddedToThoseThatAreThere)
{
    ASSERT_TRUE(write({attribute("brmOngoing", true)}));
    EXPECT_EQ(queryFile(path("common/commondb"), "select dn from DBObject order by id"), "baseobject,Common");
    ASSERT_TRUE(write({attribute("resetReason", std::int32_t{2})}));
    ASSERT_TRUE(write({attribute("resetReason", std::int32_t{3})}));
    EXPECT_EQ(common(), "brmOngoing=1,resetReason=3");
    store().recordResetReason(2);
    EXPECT_EQ(common(), "brmOngoing=1,resetReason=2");
}

TEST_F(CommonDb, NothingElseIsTouched)
{
    const std::string before = everything();
    const std::int32_t id = idOf("A=1");
    fs::remove(path("dump/DatabaseDump"));
    Recorder recorder;
    ASSERT_TRUE(write({attribute("brmOngoing", true)}));
    EXPECT_EQ(recorder.take(), "");
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(store().databaseFile(), dumpFile());
    EXPECT_EQ(idOf("A=1"), id);
    EXPECT_EQ(store().get_whole_dn(id), "A=1");
    EXPECT_EQ(idOf("Common"), 0);
    EXPECT_FALSE(fs::exists(path("dump/DatabaseDump"))) << "saved only when asked for";
    ASSERT_TRUE(write({attribute("brmOngoing", false)}, true));
    EXPECT_EQ(queryFile(dumpFile(), "select dn from DBObject"), "A=1,baseobject");
    ASSERT_TRUE(insert("B=1")) << "and the store goes on with its own file";
    EXPECT_EQ(committed("select dn from DBObject"), "A=1,B=1,baseobject");
}

TEST_F(CommonDb, OpenTransactionIsNeitherSavedNorEnded)
{
    ASSERT_TRUE(store().sql_start_transaction());
    DBObject inner = container("B=1");
    ASSERT_TRUE(store().sql_insert(&inner, true, "test"));
    ASSERT_TRUE(write({attribute("brmOngoing", true)}, true));
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::sql_insert_to_commondb, current DB NOT saved"), 1);
    EXPECT_EQ(common(), "brmOngoing=1");
    EXPECT_TRUE(store().transactionOpen());
    ASSERT_TRUE(store().sql_rollback_transaction());
    EXPECT_EQ(committed("select dn from DBObject"), "A=1,baseobject");
    EXPECT_EQ(common(), "brmOngoing=1");
}

TEST_F(CommonDb, FailuresAreToldAndPutEverythingBack)
{
    const auto fails = [this](const char* why) {
        log.forget();
        EXPECT_FALSE(write({attribute("brmOngoing", true)})) << why;
        EXPECT_EQ(log.count(mwLogError, "SQLite::sql_insert_to_commondb, insert failed"), 1) << why;
        EXPECT_EQ(store().databaseFile(), dumpFile()) << why;
        EXPECT_EQ(value("A=1", "a"), "x") << why;
    };
    EXPECT_FALSE(store().sql_insert_to_commondb(nullptr, false, 0, "test", false));
    {
        const ScopedVariable unset("TAMO_PERSISTENT_STORAGE", std::nullopt);
        fails("no location");
    }
    {
        const ScopedVariable elsewhere("TAMO_PERSISTENT_STORAGE", path("absent"));
        fails("no directory");
    }
    writeJunk(path("common/commondb"));
    const auto junk = fs::file_size(path("common/commondb"));
    fails("no database");
    EXPECT_EQ(fs::file_size(path("common/commondb")), junk);
    fs::remove(path("common/commondb"));
    ASSERT_TRUE(write({attribute("resetReason", std::int32_t{2})}));
    {
        const FullDrive full("commondb");
        fails("no space");
    }
    EXPECT_EQ(common(), "resetReason=2") << "the old facts are kept";
    store().setDatabaseFile(path("absent/dump"));
    EXPECT_FALSE(write({attribute("brmOngoing", true)}, true)) << "the current database could not be saved";
    EXPECT_EQ(common(), "resetReason=2");
    EXPECT_TRUE(middleware.state().controlledResets.empty());
}

TEST_F(CommonDb, LockedFileStaysAsItIs)
{
    ASSERT_TRUE(write({attribute("resetReason", std::int32_t{2})}));
    store().lockCommonDatabase();
    EXPECT_TRUE(write({attribute("resetReason", std::int32_t{3})}));
    EXPECT_EQ(common(), "resetReason=2");
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::sql_insert_to_commondb, Common db is locked"), 1);
}

TEST_F(CommonDb, ResetReasonReachesTheTreeBesideWhatIsThere)
{
    ASSERT_TRUE(insert("Common", {attribute("brmOngoing", true), attribute("resetReason", std::int32_t{7})}, false));
    store().insertResetReason();
    EXPECT_EQ(value("Common", "resetReason"), "12");
    EXPECT_EQ(value("Common", "brmOngoing"), "1");
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::insertResetReason Reset reason: "), 1);
}
