// From DNs to objects and back: no name is special, and no remembered answer outlives its truth.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

namespace {

class Addressing : public TempStore {
protected:
    static std::string chain(int pairs)
    {
        std::string dn = "L0=1";
        for (int i = 1; i < pairs; ++i)
            dn += ",L" + std::to_string(i) + "=1";
        return dn;
    }
    /// Inserts a chain of that many pairs; the ids count from 1. By parent id, which needs no walk.
    static void insertChain(int pairs)
    {
        for (int i = 0; i < pairs; ++i) {
            DBObject made("L" + std::to_string(i) + "=1", 1, false, false, 0, 1);
            made.parentId = i;
            ASSERT_TRUE(store().sql_insert(&made, false, "test"));
        }
    }
};

using Tokens = std::vector<std::string>;

} // namespace

TEST_F(Addressing, TokensAndNamesOfOddTexts)
{
    EXPECT_EQ(store().tokenize_dn("A=1,B=2"), (Tokens{"A", "1", "B", "2"}));
    EXPECT_EQ(store().tokenize_dn("A=1,,=B==2,"), (Tokens{"A", "1", "B", "2"}));
    EXPECT_EQ(store().tokenize_dn(",a"), Tokens());
    EXPECT_EQ(store().tokenize_dn("=a"), Tokens());
    EXPECT_EQ(store().tokenize_dn("a"), Tokens());
    EXPECT_EQ(store().tokenize_dn(""), Tokens());
    EXPECT_EQ(store().get_object_name("A=1,WifiModule=7", false), "7");
    EXPECT_EQ(store().get_object_name("A=1,WifiModule=7", true), "WifiModule");
    EXPECT_EQ(store().get_object_name("", false), "unInitialised");
    EXPECT_EQ(store().get_object_name("A=", true), "unInitialised") << "one token has no class before it";
}

TEST_F(Addressing, NamesOfAnyCharactersAreOrdinaryNames)
{
    const char* const dns[] = {
        "O'Neil=1", "A=\"1\"", "A=100%",  "A=1_2",     "A=1x2", "A=1%2", "A=Ü-å-日本", "A='; drop table DBObject; --",
        "A=%s%n%d", "A=\\",    "A=[x]*?", "A= blank ", "A=a\tb"};
    for (const char* const dn : dns) {
        ASSERT_TRUE(insert(dn, {text("of", dn)})) << dn;
        ASSERT_TRUE(insert(std::string(dn) + ",Child=1", {text("of", dn)})) << dn;
    }
    for (const char* const dn : dns) {
        EXPECT_EQ(value(dn, "of"), dn);
        const std::string child = std::string(dn) + ",Child=1";
        EXPECT_EQ(value(child, "of"), dn);
        EXPECT_EQ(store().get_whole_dn(idOf(child)), child);
        EXPECT_EQ(store().get_whole_dn("Child=1", dn), child);
        ASSERT_TRUE(update(child, {text("o'f%", dn)})) << dn;
        EXPECT_EQ(value(child, "o'f%"), dn);
    }
    EXPECT_EQ(log.count(mwLogError, "Parent not found"), 0);
    for (const char* const dn : dns)
        EXPECT_TRUE(store().delete_object(dn, 1, false, "test")) << dn;
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject");
}

TEST_F(Addressing, PairsWithCommasAreAddressedInQuotes)
{
    ASSERT_TRUE(insert("\"A=1,2\"", {text("of", "outer")}));
    ASSERT_TRUE(insert("\"A=1,2\",\"B=3,4\"", {text("of", "inner")}));
    ASSERT_TRUE(insert("\"A=1,2\",\"B=3,4\",C=5", {text("of", "leaf")}));
    EXPECT_EQ(value("\"A=1,2\"", "of"), "outer");
    EXPECT_EQ(value("\"A=1,2\",\"B=3,4\"", "of"), "inner");
    EXPECT_EQ(value("\"A=1,2\",\"B=3,4\",C=5", "of"), "leaf");
    EXPECT_EQ(value("A=1,2", "of"), "outer") << "the DN as a whole may be one object's own pair";
    EXPECT_EQ(idOf("A=1,2,B=3,4"), 0);
}

TEST_F(Addressing, InstancesOfOnePairAreToldApart)
{
    for (const std::string dn : {"A=1", "\"A=1,B=2\""}) {
        for (const std::int32_t instance : {1, 2})
            ASSERT_TRUE(insert(dn, {text("a", "first")}, true, instance));
        ASSERT_TRUE(insert(dn, {text("a", "changed")}, true, 2)) << "an insert that updates finds its own instance";
        EXPECT_EQ(object(dn, 1)->getAttribute("a")->ToStr(), "first");
        EXPECT_EQ(object(dn, 2)->getAttribute("a")->ToStr(), "changed");
        EXPECT_FALSE(object(dn, 3));
    }
    EXPECT_EQ(store().get_object_id("A=1,B=2", 2), store().get_object_id("\"A=1,B=2\"", 2));
    EXPECT_EQ(committed("select count(*) from DBObject"), "5");
}

TEST_F(Addressing, PathIsFollowedFromTheRootFirstAndNeverMixed)
{
    for (const char* dn : {"A=1", "A=1,B=1", "A=1,B=1,C=1", "X=1", "X=1,B=1", "X=1,A=1", "X=1,A=1,B=1", "X=1,A=1,B=2"})
        ASSERT_TRUE(insert(dn));
    EXPECT_EQ(store().get_whole_dn(idOf("A=1,B=1")), "A=1,B=1");
    EXPECT_EQ(idOf("X=1,B=1,C=1"), 0) << "all three pairs exist, but not below each other";
    EXPECT_EQ(store().get_whole_dn(idOf("A=1,B=2")), "X=1,A=1,B=2") << "a path may start below the root";
    EXPECT_EQ(store().get_whole_dn(idOf("B=1,C=1")), "A=1,B=1,C=1");
    EXPECT_EQ(store().get_object_id("B=1", 1, idOf("X=1")), idOf("X=1,B=1"));
    EXPECT_EQ(store().get_object_id("B=1", 1, idOf("A=1")), idOf("A=1,B=1")) << "same DN, another parent";
    EXPECT_EQ(store().get_object_id("B=1", 2, idOf("A=1")), 0);
    EXPECT_EQ(store().get_object_id("C=1", 1, idOf("A=1")), 0);
    EXPECT_EQ(idOf(""), 0);
    EXPECT_EQ(idOf("baseobject"), 0);
    EXPECT_EQ(store().get_whole_dn(12345), "");
}

TEST_F(Addressing, DeepTreesNeedNoStackAndNoLongStatement)
{
    constexpr int deep = 1100; // beyond the 1,000 levels that SQLite follows a deletion
    store().setDatabaseDumpEnabled(false);
    insertChain(deep);
    for (const int pairs : {2, 10, 11, 12, 100, 1000, deep}) {
        const std::string dn = chain(pairs);
        const std::int32_t id = idOf(dn);
        EXPECT_EQ(id, pairs) << pairs;
        EXPECT_EQ(store().get_whole_dn(id), dn) << pairs;
        EXPECT_EQ(store().getMoClassInstance(dn), dn);
    }
    EXPECT_EQ(log.count(mwLogError, "Sqlite error"), 0);
    std::vector<std::int32_t> below;
    store().getAllChildIds(chain(1), 1, below, false, 1);
    EXPECT_EQ(below.size(), std::size_t{deep - 1});
    EXPECT_TRUE(store().delete_object(chain(2), 1, false, "test"));
    EXPECT_EQ(committed("select dn from DBObject order by id"), "baseobject,L0=1");
}

TEST_F(Addressing, ParentsAreRememberedNoLongerThanTheyStand)
{
    const std::string leaf = "A=1,B=1,C=1,D=1";
    ASSERT_TRUE(insert("A=1"));
    ASSERT_TRUE(insert("A=2"));
    ASSERT_TRUE(insert("A=1,B=1"));
    ASSERT_TRUE(insert("A=1,B=1,C=1"));
    ASSERT_TRUE(insert(leaf));
    const std::int32_t id = idOf(leaf);
    const auto stands = [&](const std::string& dn) {
        const std::string known = store().get_whole_dn(id); // from memory, as far as there is any
        EXPECT_EQ(idOf(dn), id);
        idOf("A=1,B=1"); // another answer in between: none is the last one
        EXPECT_EQ(idOf(dn), id);
        EXPECT_EQ(store().get_whole_dn(id), dn);
        EXPECT_EQ(known, dn);
    };
    stands(leaf);
    DBObject moved = container("B=1");
    moved.id = idOf("A=1,B=1");
    moved.parentId = idOf("A=2");
    ASSERT_TRUE(store().sql_update(&moved, false, "test"));
    stands("A=2,B=1,C=1,D=1");
    EXPECT_EQ(idOf(leaf), 0);
    EXPECT_FALSE(store().updateDn("A=2", "A=1"));
    ASSERT_TRUE(store().updateDn("A=2,B=1,C=1", "C=9"));
    stands("A=2,B=1,C=9,D=1");
    ASSERT_TRUE(store().sql_start_transaction());
    ASSERT_TRUE(store().delete_object("A=2", 1, true, "test"));
    EXPECT_EQ(store().get_whole_dn(id), "");
    DBObject other = container("A=2");
    DBObject below = container("A=2,B=1");
    ASSERT_TRUE(store().sql_insert(&other, true, "test"));
    ASSERT_TRUE(store().sql_insert(&below, true, "test"));
    EXPECT_EQ(idOf("A=2,B=1,C=9"), 0);
    ASSERT_TRUE(store().sql_rollback_transaction());
    stands("A=2,B=1,C=9,D=1");
    ASSERT_EQ(store().runtime()->execute("delete from DBObject where dn = 'B=1'"), SQLITE_OK);
    EXPECT_EQ(idOf("A=2,B=1,C=9"), 0) << "a delete that did not go through the store's own operations";
    EXPECT_EQ(store().get_whole_dn(id), "");
    const std::int32_t rootId = idOf("A=1");
    store().setDatabaseFile(path("empty"));
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    EXPECT_EQ(idOf("A=1"), 0) << "another tree";
    EXPECT_EQ(store().get_whole_dn(rootId), "");
}

TEST_F(Addressing, QuestionThatCannotBeAnsweredIsToldAndChecked)
{
    ASSERT_TRUE(insert("A=1"));
    log.forget();
    RefusedPrepare refused(handle(), SQLITE_READ, "DBObject");
    EXPECT_EQ(idOf("A=1"), 0);
    EXPECT_EQ(log.count(mwLogError, "SQLite::get_object_id, Failed to fetch object id from database, sql error 23"), 1);
    EXPECT_TRUE(store().idExists(1)) << "not known to be absent";
    EXPECT_FALSE(store().checkIdPresence(1));
    EXPECT_EQ(log.count(mwLogInfo, "integrity ok"), 2);
    EXPECT_TRUE(middleware.state().controlledResets.empty());
}
