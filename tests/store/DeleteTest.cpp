// What may go, what is held back by a reference, and what a failed deletion leaves.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

using namespace IPCData;

namespace {

class Delete : public TempStore {
protected:
    static bool remove(const std::string& dn) { return store().delete_object(dn, 1, false, "test"); }
    /// Deletion of the object is refused, and nothing at all changes.
    void expectRefused(const std::string& dn)
    {
        const std::string before = everything();
        EXPECT_FALSE(remove(dn)) << dn;
        EXPECT_EQ(everything(), before) << dn;
        EXPECT_TRUE(anotherConnectionCanWrite());
    }
};

} // namespace

TEST_F(Delete, WhatIsReferredToStays)
{
    expectRefused("");
    expectRefused("baseobject");
    for (const char* dn : {"A=1", "A=1,B=1", "X=1"})
        ASSERT_TRUE(insert(dn));
    ASSERT_TRUE(update("X=1", {reference("r", "Y=9;;A=1,B=1;Z=9")}));
    expectRefused("A=1,B=1"); // in the middle of a list
    expectRefused("A=1");     // from outside to inside
    EXPECT_EQ(log.count(mwLogInfo, "'A=1,B=1' found from the database, CANNOT DELETE"), 2);
    ASSERT_TRUE(update("X=1", {attribute("r", std::string("A=1,B=10;A=1,B=1x"), SECOND_REFERENCE)}));
    EXPECT_TRUE(remove("A=1,B=1")) << "a longer name is another object";
    ASSERT_TRUE(update("X=1", {text("r", "A=1")}));
    EXPECT_TRUE(remove("A=1")) << "plain text refers to nobody";
}

TEST_F(Delete, ListOfAnotherKindThanTextDoesNotKeepItsReferrerForEver)
{
    ASSERT_TRUE(insert("T=1", {attribute("reservedBy", std::int32_t{5})}));
    ASSERT_TRUE(insert("A=1", {reference("r", "T=1")}));
    EXPECT_EQ(log.count(mwLogError, "unknown exception when handling reference type attribute"), 1);
    EXPECT_EQ(value("A=1", "r"), "T=1") << "the insert itself stands";
    EXPECT_TRUE(remove("A=1"));
    EXPECT_EQ(committed("select dn from DBObject order by id"), "baseobject,T=1");
    EXPECT_TRUE(anotherConnectionCanWrite());
}

TEST_F(Delete, FailureTakesEverythingBack)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    ASSERT_TRUE(insert("A=1,B=1"));
    const std::string before = everything();
    {
        RefusedPrepare refused(handle(), SQLITE_DELETE, "DBObject");
        EXPECT_FALSE(remove("A=1"));
        EXPECT_FALSE(store().deleteAttribute("absent", idOf("A=1"), false));
    }
    EXPECT_EQ(log.count(mwLogError, "Error while deleting object 'A=1' by test! SQLite error: 23"), 1);
    {
        RefusedPrepare refused(handle(), SQLITE_DELETE, "Attribute");
        EXPECT_FALSE(store().deleteAttribute("a", idOf("A=1"), false));
    }
    EXPECT_EQ(log.count(mwLogError, "Error deleting attribute a from DB"), 1);
    EXPECT_EQ(everything(), before);
    EXPECT_TRUE(anotherConnectionCanWrite()) << "no transaction is left open";
    EXPECT_TRUE(store().deleteAttribute("a", idOf("A=1"), false));
    EXPECT_TRUE(remove("A=1"));
}

TEST_F(Delete, EveryOccurrenceIsRemovedAndTheOthersKeepTheirOrder)
{
    ASSERT_TRUE(insert("T=1", {text("reservedBy", "B=1;A=1;;C=1;A=1;A=10")}));
    ASSERT_TRUE(insert("T=2", {text("reservedBy", "")}));
    ASSERT_TRUE(insert("D=1", {reference("r", "T=2;Absent=1;;T=2")}));
    EXPECT_EQ(value("T=2", "reservedBy"), "D=1") << "listed once, and empty elements are nobody";
    store().removeSingleReference("T=1", "A=1", false);
    EXPECT_EQ(value("T=1", "reservedBy"), "B=1;;C=1;A=10");
}

TEST_F(Delete, ReferencesCountAsTheyAreAtEachDeletionOfATransaction)
{
    for (const char* dn : {"A=1", "B=1", "C=1", "D=1"})
        ASSERT_TRUE(insert(dn));
    ASSERT_TRUE(insert("R=1", {reference("r", "A=1")}));
    ASSERT_TRUE(insert("R=2", {reference("r", "B=1")}));
    const auto remove = [](const char* dn) { return store().delete_object(dn, 1, true, "test"); };
    ASSERT_TRUE(store().sql_start_transaction());
    EXPECT_FALSE(remove("A=1"));
    EXPECT_TRUE(remove("R=1"));
    DBObject other = container("X=1");
    ASSERT_TRUE(store().sql_insert(&other, true, "test")); // may get the row id of the holder that went
    EXPECT_TRUE(remove("A=1"));
    DBObject turned = container("R=2", {reference("r", "C=1")});
    ASSERT_TRUE(store().sql_update(&turned, true, "test"));
    EXPECT_TRUE(remove("B=1"));
    EXPECT_FALSE(remove("C=1"));
    EXPECT_TRUE(store().deleteAttribute("r", idOf("R=2"), true));
    EXPECT_TRUE(remove("C=1"));
    DBObject late = container("R=3", {reference("r", "D=1")});
    ASSERT_TRUE(store().sql_insert(&late, true, "test"));
    EXPECT_FALSE(remove("D=1"));
    EXPECT_TRUE(store().sql_rollback_transaction());
    EXPECT_FALSE(store().delete_object("A=1", 1, false, "test"));
    EXPECT_TRUE(store().delete_object("D=1", 1, false, "test"));
}
