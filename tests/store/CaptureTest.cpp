// What the store tells of its writes: which changes, in which order, folded how; and what it must not
// tell.

#include "tests/support/Faults.h"
#include "tests/support/Recorder.h"
#include "tests/support/TempStore.h"

#include "store/AlternateStorage.h"

#include <sqlite3.h>

namespace {

class Capture : public TempStore {
protected:
    Capture() { recorder.take(); }

    /// Several writes in one transaction.
    template <class Work>
    bool together(Work work)
    {
        EXPECT_TRUE(store().sql_start_transaction());
        work();
        return store().sql_commit_transaction();
    }
    static bool insertJoined(const std::string& dn, std::vector<Attribute> attributes = {}, bool isMOMObject = true)
    {
        DBObject made = container(dn, std::move(attributes), isMOMObject);
        return store().sql_insert(&made, true, "test");
    }
    static bool updateJoined(const std::string& dn, std::vector<Attribute> attributes)
    {
        DBObject changed = container(dn, std::move(attributes));
        return store().sql_update(&changed, true, "test");
    }
    static bool removeJoined(const std::string& dn) { return store().delete_object(dn, 1, true, "test"); }
    static Attribute removal(const std::string& name)
    {
        Attribute gone = attribute(name, std::int32_t{0});
        gone.deleted = true;
        return gone;
    }

    Recorder recorder;
};

} // namespace

TEST_F(Capture, EveryWriteTellsTheObjectThenItsChangedAttributes)
{
    ASSERT_TRUE(insert("A=1", {text("b", "x"), attribute("a", std::int32_t{5})}));
    EXPECT_EQ(recorder.take(), "18 A=1; 18 A=1 a=5; 18 A=1 b=x; ");
    EXPECT_EQ(recorder.takeObjects(), "{18 A=1: a=5(18) b=x(18)} ");
    ASSERT_TRUE(update("A=1", {text("b", "y"), attribute("a", std::int32_t{5}), text("c", "new")}));
    EXPECT_EQ(recorder.take(), "23 A=1; 23 A=1 b=y; 18 A=1 c=new; ") << "a has its value already";
    ASSERT_TRUE(update("A=1", {}));
    EXPECT_EQ(recorder.take(), "23 A=1; ");
    recorder.takeObjects();
    ASSERT_TRUE(insert("A=1,B=1", {text("r", "x")}));
    recorder.take();
    ASSERT_TRUE(update("A=1", {removal("c")}));
    EXPECT_EQ(recorder.take(), "23 A=1; 9 A=1 c=new; ");
    ASSERT_TRUE(store().deleteAttribute("b", idOf("A=1"), false));
    EXPECT_EQ(recorder.take(), "9 A=1 b=y; ") << "the object's row is not touched";
    recorder.takeObjects();
    ASSERT_TRUE(store().delete_object("A=1", 1, false, "test"));
    EXPECT_EQ(recorder.take(), "9 A=1; 9 A=1 a=5; 9 A=1,B=1; 9 A=1,B=1 r=x; ");
    EXPECT_EQ(recorder.takeObjects(), "{9 A=1: a=5(9)} {9 A=1,B=1: r=x(9)} ");
}

TEST_F(Capture, ChangesOfOneTransactionAreFolded)
{
    ASSERT_TRUE(insert("A=1", {text("a", "0")}));
    ASSERT_TRUE(insert("A=1,Old=1", {text("a", "0"), text("b", "0")}));
    recorder.take();
    recorder.takeObjects();
    EXPECT_TRUE(together([&] {
        EXPECT_TRUE(updateJoined("A=1", {text("a", "1"), text("n", "1")}));
        EXPECT_TRUE(insertJoined("A=1,New=1", {text("a", "1")}));
        EXPECT_TRUE(insertJoined("Brief=1", {text("a", "1")}));
        EXPECT_TRUE(insertJoined("A=1,Brief=1", {text("a", "1")}));
        EXPECT_TRUE(updateJoined("A=1", {text("a", "2"), removal("n")}));
        EXPECT_TRUE(updateJoined("A=1,New=1", {text("a", "2"), text("b", "2")}));
        EXPECT_TRUE(removeJoined("Brief=1"));
        EXPECT_TRUE(removeJoined("A=1,Brief=1"));
        EXPECT_TRUE(updateJoined("A=1,Old=1", {text("a", "1")}));
        EXPECT_TRUE(removeJoined("A=1,Old=1"));
    }));
    EXPECT_EQ(recorder.take(), "23 A=1; 23 A=1 a=2; 18 A=1,New=1; 18 A=1,New=1 a=2; 18 A=1,New=1 b=2; "
                               "9 A=1,Old=1; 9 A=1,Old=1 a=1; 9 A=1,Old=1 b=0; ")
        << "n came and went by itself; of the brief objects nothing is told";
}

TEST_F(Capture, DeletedAndMadeAgainIsToldAsBoth)
{
    for (const std::string dn : {"A=1", "A=1,B=1"}) {
        ASSERT_TRUE(insert(dn, {text("a", "old"), text("gone", "x")}));
        recorder.take();
        recorder.takeObjects();
        EXPECT_TRUE(together([&] {
            EXPECT_TRUE(removeJoined(dn));
            EXPECT_TRUE(insertJoined(dn, {text("a", "new")}));
            EXPECT_TRUE(updateJoined(dn, {text("a", "newer")}));
        }));
        EXPECT_EQ(recorder.take(),
                  "9 " + dn + "; 9 " + dn + " a=old; 9 " + dn + " gone=x; 18 " + dn + "; 18 " + dn + " a=newer; ");
        EXPECT_EQ(recorder.takeObjects(), "{9 " + dn + ": a=old(9) gone=x(9)} {18 " + dn + ": a=newer(18)} ");
        EXPECT_TRUE(together([&] {
            EXPECT_TRUE(removeJoined(dn));
            EXPECT_TRUE(insertJoined(dn, {text("a", "brief")}));
            EXPECT_TRUE(removeJoined(dn));
        }));
        EXPECT_EQ(recorder.take(), "9 " + dn + "; 9 " + dn + " a=newer; ");
        ASSERT_TRUE(insert(dn));
        recorder.take();
    }
}

TEST_F(Capture, RowIdThatIsUsedAgainTellsNothingOfTheOldObject)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const std::int32_t id = idOf("A=1");
    recorder.take();
    EXPECT_TRUE(together([&] {
        EXPECT_TRUE(removeJoined("A=1"));
        EXPECT_TRUE(insertJoined("B=1", {text("a", "y")}));
        ASSERT_EQ(idOf("B=1"), id) << "SQLite hands the id out again";
    }));
    EXPECT_EQ(recorder.take(), "9 A=1; 9 A=1 a=x; 18 B=1; 18 B=1 a=y; ");
}

TEST_F(Capture, StructMembersAreAlsoToldAsTheirOwnersAttribute)
{
    ASSERT_TRUE(insert("A=1", {text("s", "T"), text("list", "")}));
    recorder.take();
    ASSERT_TRUE(insert("A=1,A:s", {text("m", "1"), text("n", "2")}, false));
    EXPECT_EQ(recorder.take(), "18 A=1; 18 A=1 s=T; 18 A=1,A:s; 18 A=1,A:s m=1; 18 A=1,A:s n=2; ");
    DBObject changed = container("A=1,A:s", {text("m", "3")}, false);
    ASSERT_TRUE(store().sql_update(&changed, false, "test"));
    EXPECT_EQ(recorder.take(), "23 A=1; 23 A=1 s=T; 23 A=1,A:s; 23 A=1,A:s m=3; ");
}

TEST_F(Capture, StructMembersOfAnObjectThatCameAndWentGoWithIt)
{
    EXPECT_TRUE(together([&] {
        EXPECT_TRUE(insertJoined("A=1", {text("s", "T")}));
        EXPECT_TRUE(insertJoined("A=1,A:s", {text("m", "1")}, false));
        EXPECT_TRUE(insertJoined("A=1,A:s,S:t", {text("deep", "1")}, false));
        EXPECT_TRUE(removeJoined("A=1"));
        EXPECT_TRUE(insertJoined("B=1"));
    }));
    EXPECT_EQ(recorder.take(), "18 B=1; ");
}

TEST_F(Capture, DeletionIsToldOfAnOwnerThatWasThereBeforeItsMember)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x"), text("s", "T")}));
    recorder.take();
    EXPECT_TRUE(together([&] {
        EXPECT_TRUE(insertJoined("A=1,A:s", {text("m", "1")}, false));
        EXPECT_TRUE(removeJoined("A=1"));
    }));
    EXPECT_EQ(recorder.take(), "9 A=1; 9 A=1 a=x; 9 A=1 s=T; ") << "and not of a member that is gone with it";
}

TEST_F(Capture, AttributeDeletedBetweenTwoUpdatesIsToldBehindItsObject)
{
    ASSERT_TRUE(insert("B=1", {text("a", "x")}));
    recorder.take();
    recorder.takeObjects();
    EXPECT_TRUE(together([&] {
        EXPECT_TRUE(insertJoined("A=1", {text("x", "y")}));
        EXPECT_TRUE(updateJoined("B=1", {removal("a")}));
        EXPECT_TRUE(updateJoined("B=1", {text("b", "1")}));
    }));
    EXPECT_EQ(recorder.take(), "18 A=1; 18 A=1 x=y; 23 B=1; 9 B=1 a=x; 18 B=1 b=1; ");
    EXPECT_EQ(recorder.takeObjects(), "{18 A=1: x=y(18)} {23 B=1: a=x(9) b=1(18)} ");
}

TEST_F(Capture, WhatIsRolledBackIsNotTold)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    recorder.take();
    {
        RefusedPrepare refused(handle(), SQLITE_INSERT, "Attribute");
        EXPECT_FALSE(insert("B=1", {text("b", "x")}));
    }
    {
        BrokenStep broken(handle(), "INSERT INTO Attribute");
        EXPECT_FALSE(insert("B=1", {text("b", "x")})) << "SQLite rolls back by itself";
    }
    {
        FullDrive full("runtime/pRBSdb");
        insert("B=1", {text("b", "x")});
    }
    EXPECT_EQ(log.count(mwLogError, "nothing of the transaction is kept"), 1);
    {
        RefusedPrepare refused(handle(), SQLITE_DELETE, "Attribute");
        EXPECT_TRUE(update("A=1", {removal("a")})) << "all but the deletion";
    }
    EXPECT_EQ(recorder.take(), "23 A=1; ");
    ASSERT_TRUE(store().sql_start_transaction());
    {
        BrokenStep broken(handle(), "INSERT INTO Attribute");
        EXPECT_FALSE(insertJoined("B=1", {text("b", "x")}));
    }
    EXPECT_FALSE(insertJoined("B=1"));
    EXPECT_FALSE(updateJoined("A=1", {text("a", "y")})) << "there is no transaction any more";
    store().sql_rollback_transaction();
    EXPECT_EQ(committed("select value from Attribute"), "x");
    ASSERT_TRUE(store().sql_start_transaction());
    EXPECT_TRUE(insertJoined("B=1", {text("b", "x")}));
    EXPECT_TRUE(removeJoined("A=1"));
    EXPECT_TRUE(store().sql_rollback_transaction());
    EXPECT_EQ(recorder.take(), "");
    ASSERT_TRUE(insert("C=1"));
    EXPECT_EQ(recorder.take(), "18 C=1; ");
}

TEST_F(Capture, NothingIsToldWhileNotificationsAreOff)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    recorder.take();
    {
        const FlagScope off = store().withoutNotifications();
        EXPECT_TRUE(insert("B=1", {text("b", "x")}));
        EXPECT_TRUE(update("B=1", {removal("b")}));
        EXPECT_TRUE(store().delete_object("A=1", 1, false, "test"));
    }
    EXPECT_EQ(recorder.take(), "");
    ASSERT_TRUE(update("B=1", {text("c", "x")}));
    EXPECT_EQ(recorder.take(), "23 B=1; 18 B=1 c=x; ");
}

TEST_F(Capture, MirroredChangesAreToldBehindTheOthersAndSurviveALaterRollback)
{
    ASSERT_TRUE(insert("A=1"));
    ASSERT_TRUE(insert("B=1"));
    recorder.take();
    EXPECT_TRUE(together([&] { EXPECT_TRUE(updateJoined("B=1", {text("b", "cause")})); }));
    EXPECT_EQ(recorder.take(), "23 B=1; 18 B=1 b=cause; ");
    {
        const FlagScope mirroring = store().synchronising();
        ASSERT_TRUE(update("A=1", {text("a", "mirrored")}));
        ASSERT_TRUE(store().sql_start_transaction());
        EXPECT_TRUE(updateJoined("A=1", {text("a", "lost"), text("c", "lost")}));
        EXPECT_TRUE(store().sql_rollback_transaction());
    }
    EXPECT_EQ(recorder.take(), "") << "a commit delivers nothing meanwhile";
    ASSERT_TRUE(update("B=1", {text("b", "next")}));
    EXPECT_EQ(recorder.take(), "23 B=1; 23 B=1 b=next; 23 A=1; 18 A=1 a=mirrored; ");
}

TEST_F(Capture, AttributesAreNeverToldOfAnotherObject)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    ASSERT_TRUE(insert("B=1", {text("b", "x")}));
    recorder.take();
    EXPECT_TRUE(together([&] {
        EXPECT_TRUE(updateJoined("A=1", {text("a", "y")}));
        EXPECT_EQ(store().runtime()->execute("update DBObject set dn = '' where dn = 'B=1';"
                                             "update Attribute set value = 'z' where name = 'b'"),
                  SQLITE_OK);
        store().sql_collectDnInstPairs();
        EXPECT_TRUE(updateJoined("A=1", {text("c", "y")}));
    }));
    EXPECT_EQ(recorder.take(), "23 A=1; 23 A=1 a=y; 18 A=1 c=y; ");
    EXPECT_EQ(log.count(mwLogError, "failed to catch object dn."), 1);
}

TEST_F(Capture, WhoeverIsToldMayFailOrWrite)
{
    recorder.onItem = [](const NotificationItem&) { throw std::runtime_error("no good"); };
    EXPECT_TRUE(insert("A=1", {text("a", "x")}));
    EXPECT_EQ(recorder.take(), "18 A=1; 18 A=1 a=x; ");
    EXPECT_EQ(log.count(mwLogError, "no good"), 2);
    EXPECT_EQ(value("A=1", "a"), "x");
    recorder.onItem = [](const NotificationItem& item) {
        if (item.realDn() != "Consequence=1") {
            EXPECT_TRUE(insert("Consequence=1", {text("of", item.realDn())}));
        }
    };
    EXPECT_TRUE(insert("B=1", {text("b", "x")}));
    EXPECT_EQ(recorder.take(), "18 B=1; 18 Consequence=1; 18 Consequence=1 of=B=1; "
                               "18 B=1 b=x; 23 Consequence=1; ");
}

TEST_F(Capture, DumpFlagFollowsTheTree)
{
    ASSERT_TRUE(insert("FeatureState", {attribute("databaseDumpEnabled", false)}));
    EXPECT_FALSE(store().databaseDumpEnabled());
    ASSERT_TRUE(update("FeatureState", {attribute("databaseDumpEnabled", true)}));
    EXPECT_TRUE(store().databaseDumpEnabled());
    ASSERT_TRUE(update("FeatureState", {text("databaseDumpEnabled", "false")}));
    EXPECT_TRUE(store().databaseDumpEnabled());
    EXPECT_EQ(log.count(mwLogError, "databaseDumpEnabled of FeatureState is no boolean"), 1);
}
