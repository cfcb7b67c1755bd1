// What may go, what is held back by a reference, and who is told that a reference came or went.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

using namespace IPCData;

namespace {

class Delete : public TempStore {
protected:
    static bool remove(const std::string& dn, bool inTransaction = false)
    {
        return store().delete_object(dn, 1, inTransaction, "test");
    }
    static bool insertTarget(const std::string& dn) { return insert(dn, {text("reservedBy", "")}); }
    /// Deletion of the object is refused, and nothing at all changes.
    void expectRefused(const std::string& dn)
    {
        const std::string before = everything();
        EXPECT_FALSE(remove(dn)) << dn;
        EXPECT_EQ(everything(), before) << dn;
        EXPECT_TRUE(anotherConnectionCanWrite());
    }
};

using Reference = Delete;

const std::string tree = "select dn from DBObject order by id";

} // namespace

TEST_F(Delete, SubtreeAndAttributesGoWithTheObject)
{
    for (const char* dn : {"A=1", "A=1,B=1", "A=1,B=1,C=1", "A=1,s:T=x", "D=1"})
        ASSERT_TRUE(insert(dn, {text("a", dn)}, false));
    EXPECT_TRUE(remove("A=1"));
    EXPECT_EQ(committed(tree), "baseobject,D=1");
    EXPECT_EQ(committed("select value from Attribute"), "D=1");
    expectRefused("A=1");
    expectRefused("");
    expectRefused("baseobject");
    EXPECT_FALSE(store().delete_object("D=1", 2, false, "test")) << "another instance";
}

TEST_F(Delete, WhatIsReferredToStays)
{
    for (const char* dn : {"A=1", "A=1,B=1", "A=1,B=1,C=1", "X=1"})
        ASSERT_TRUE(insert(dn));
    ASSERT_TRUE(update("X=1", {reference("r", "Y=9;A=1,B=1;Z=9")}));
    expectRefused("A=1,B=1"); // in the middle of a list
    expectRefused("A=1");     // from outside to inside
    EXPECT_EQ(log.count(mwLogInfo, "'A=1,B=1' found from the database, CANNOT DELETE"), 2);
    EXPECT_TRUE(remove("A=1,B=1,C=1")) << "what is below a target is nobody's target";
    ASSERT_TRUE(update("X=1", {attribute("r", std::string("A=1,B=10;A=1,B=1x"), SECOND_REFERENCE)}));
    EXPECT_TRUE(remove("A=1,B=1")) << "a longer name is another object";
    ASSERT_TRUE(insert("A=1,B=2"));
    ASSERT_TRUE(update("X=1", {attribute("r", std::string("A=1,B=2"), SECOND_REFERENCE)}));
    expectRefused("A=1,B=2");
    ASSERT_TRUE(update("X=1", {attribute("r", std::string("A=1,B=2"), STRING)}));
    EXPECT_TRUE(remove("A=1,B=2")) << "plain text refers to nobody";
}

TEST_F(Delete, ReferrerThatGoesAsWellHoldsNothingBack)
{
    for (const char* dn : {"A=1", "A=1,B=1", "A=1,C=1"})
        ASSERT_TRUE(insert(dn));
    ASSERT_TRUE(update("A=1,B=1", {reference("up", "A=1"), reference("beside", "A=1,C=1")}));
    expectRefused("A=1,C=1");
    ASSERT_TRUE(insert("X=1", {attribute("reservedBy", std::string("A=1"), REFERENCE)}));
    EXPECT_TRUE(remove("A=1")) << "a reservedBy holds nothing back either";
    EXPECT_EQ(committed(tree), "baseobject,X=1");
}

TEST_F(Delete, WithdrawsTheReferencesOfAllThatGoes)
{
    ASSERT_TRUE(insertTarget("T=1"));
    ASSERT_TRUE(insertTarget("T=2"));
    ASSERT_TRUE(insert("A=1", {reference("r", "T=1")}));
    ASSERT_TRUE(insert("A=1,B=1", {reference("r", "T=1;T=2")}));
    ASSERT_TRUE(insert("X=1", {reference("r", "T=2")}));
    EXPECT_EQ(value("T=1", "reservedBy"), "A=1;A=1,B=1");
    EXPECT_TRUE(remove("A=1"));
    EXPECT_EQ(value("T=1", "reservedBy"), "");
    EXPECT_EQ(value("T=2", "reservedBy"), "X=1");
}

TEST_F(Delete, ListOfAnotherKindThanTextDoesNotKeepItsReferrerForEver)
{
    ASSERT_TRUE(insert("T=1", {attribute("reservedBy", std::int32_t{5})}));
    ASSERT_TRUE(insert("A=1", {reference("r", "T=1")}));
    EXPECT_EQ(log.count(mwLogError, "unknown exception when handling reference type attribute"), 1);
    EXPECT_EQ(value("A=1", "r"), "T=1") << "the insert itself stands";
    EXPECT_TRUE(remove("A=1"));
    EXPECT_EQ(committed(tree), "baseobject,T=1");
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

TEST_F(Delete, JoinedDeleteGoesWithItsCallersTransaction)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const std::string before = everything();
    ASSERT_TRUE(store().sql_start_transaction());
    EXPECT_TRUE(store().deleteAttribute("a", idOf("A=1"), true));
    EXPECT_TRUE(remove("A=1", true));
    EXPECT_EQ(everything(), before);
    ASSERT_TRUE(store().sql_rollback_transaction());
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(value("A=1", "a"), "x");
}

TEST_F(Reference, ReferrersAreListedOnceInEveryTarget)
{
    ASSERT_TRUE(insertTarget("T=1"));
    ASSERT_TRUE(insertTarget("T=2"));
    ASSERT_TRUE(insert("Plain=1"));
    ASSERT_TRUE(insert("A=1", {reference("r", "T=1;Absent=1;T=2;;T=1;Plain=1")}));
    EXPECT_EQ(value("T=1", "reservedBy"), "A=1");
    EXPECT_EQ(value("T=2", "reservedBy"), "A=1");
    EXPECT_EQ(value("Plain=1", "reservedBy"), "(none)") << "none is added to an object without one";
    ASSERT_TRUE(insert("A=1,B=1", {attribute("s", std::string("T=1"), SECOND_REFERENCE)}));
    EXPECT_EQ(value("T=1", "reservedBy"), "A=1;A=1,B=1");
    const std::string before = everything();
    store().setReference("T=1", "A=1", false);
    store().setReference("", "A=1", false);
    store().setReference("T=1", "", false);
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(log.count(mwLogError, "reference"), 0);
}

TEST_F(Reference, ChangeMovesTheReferrerFromTheOldTargetToTheNew)
{
    ASSERT_TRUE(insertTarget("T=1"));
    ASSERT_TRUE(insertTarget("T=2"));
    ASSERT_TRUE(insert("A=1", {reference("r", "T=1")}));
    ASSERT_TRUE(update("A=1", {reference("r", "T=2")}));
    EXPECT_EQ(value("T=1", "reservedBy"), "");
    EXPECT_EQ(value("T=2", "reservedBy"), "A=1");
    ASSERT_TRUE(insert("A=1", {reference("r", "T=1;T=2")})) << "an insert that updates does the same";
    EXPECT_EQ(value("T=1", "reservedBy"), "A=1");
    EXPECT_EQ(value("T=2", "reservedBy"), "A=1");
    EXPECT_TRUE(anotherConnectionCanWrite());
}

TEST_F(Reference, EveryOccurrenceIsRemovedAndTheOthersKeepTheirOrder)
{
    ASSERT_TRUE(insert("T=1", {text("reservedBy", "B=1;A=1;;C=1;A=1;A=10")}));
    store().removeSingleReference("T=1", "A=1", false);
    EXPECT_EQ(value("T=1", "reservedBy"), "B=1;;C=1;A=10");
}

TEST_F(Reference, ObjectsThatReferToEachOtherComeToAnEnd)
{
    for (const char* dn : {"A=1", "B=1", "C=1"})
        ASSERT_TRUE(insert(dn, {attribute("reservedBy", std::string(), SECOND_REFERENCE)}));
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(update("A=1", {reference("r", "B=1;C=1;A=1")}));
        ASSERT_TRUE(update("B=1", {reference("r", "C=1;A=1")}));
        ASSERT_TRUE(update("C=1", {reference("r", "A=1;B=1")}));
    }
    EXPECT_EQ(value("A=1", "reservedBy"), "A=1;B=1;C=1");
    EXPECT_EQ(value("B=1", "reservedBy"), "A=1;C=1");
    EXPECT_EQ(value("C=1", "reservedBy"), "A=1;B=1");
    expectRefused("A=1");
    for (const char* dn : {"A=1", "B=1", "C=1"})
        ASSERT_TRUE(update(dn, {reference("r", "")}));
    for (const char* dn : {"A=1", "B=1", "C=1"})
        EXPECT_EQ(value(dn, "reservedBy"), "") << dn;
    EXPECT_TRUE(remove("A=1"));
}
