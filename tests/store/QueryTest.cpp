// Listings and look-ups: who belongs to a class, who is a child, and which pair is stored.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

using namespace IPCData;

namespace {

class Query : public TempStore {
protected:
    using Names = std::vector<std::string>;

    static Names dnsOf(const SQLite::Objects& objects)
    {
        Names dns;
        for (const auto& each : objects)
            dns.push_back(each->fullDn());
        return dns;
    }
    static void insertAll(std::initializer_list<const char*> dns)
    {
        for (const char* const dn : dns)
            ASSERT_TRUE(insert(dn)) << dn;
    }
};

} // namespace

TEST_F(Query, ClassIsMatchedExactly)
{
    insertAll({"K=1", "KX=1", "k=1", "K=1,K=2", "L=1", "L=1,K=3", "K_=1", "Kx=1", "K%=1", "K'=1"});
    ASSERT_TRUE(insert("L=1,K:s=1", {}, false));
    ASSERT_TRUE(insert("L=1,K:m=1", {}, true));
    EXPECT_EQ(dnsOf(store().get_MO_class("K")), (Names{"K=1", "K=1,K=2", "L=1,K=3"}));
    EXPECT_EQ(dnsOf(store().get_MO_class("K_")), (Names{"K_=1"}));
    EXPECT_EQ(dnsOf(store().get_MO_class("K%")), (Names{"K%=1"}));
    EXPECT_EQ(dnsOf(store().get_MO_class("K'")), (Names{"K'=1"}));
    EXPECT_EQ(dnsOf(store().get_MO_class("K:s")), Names()) << "a member of a struct";
    EXPECT_EQ(dnsOf(store().get_MO_class("K:m")), (Names{"L=1,K:m=1"})) << "an object of the model";
    EXPECT_EQ(dnsOf(store().get_MO_class("%")), Names());
    EXPECT_EQ(dnsOf(store().get_MO_class("")), Names());
    EXPECT_EQ(store().get_MO_class_with_parent("L=1", "K%"), Names());
    EXPECT_EQ(store().getMoClassDnList("K"), (Names{"K=1", "K=2", "K=3"}));
    EXPECT_EQ(store().getMoClassDnList("%s%n"), Names());
}

TEST_F(Query, DescendantsComeParentFirst)
{
    insertAll({"A=1", "A=1,B=1", "A=1,B=1,C=1", "A=1,B=2"});
    ASSERT_TRUE(insert("A=1,s:T=1", {}, false));
    ASSERT_TRUE(insert("A=1,s:T=1,D=1"));
    std::vector<std::int32_t> all;
    store().getAllChildIds("A=1", 1, all, false, 0);
    EXPECT_EQ(all, (std::vector<std::int32_t>{2, 3, 4, 5, 6}));
    std::vector<std::int32_t> plain{-1};
    store().getAllChildIds("A=1", 1, plain, true, 0);
    EXPECT_EQ(plain, (std::vector<std::int32_t>{-1, 2, 3, 4}))
        << "what was there stays, members of structs do not count";
    EXPECT_TRUE(store().get_all_children("Absent=1", 1).empty());
    EXPECT_EQ(log.count(mwLogError, "No such parent dn: Absent=1 instance: 1"), 1);
    EXPECT_FALSE(store().sql_get_object(0, "test"));
}

TEST_F(Query, PatternsFindTheFirstInstance)
{
    insertAll({"A=1", "A=1,Cell=7", "A=1,Cell=7,Port=1", "A_=2", "A=1,CAll=1", "A=1,C_ll=1", "basez=3"});
    ASSERT_TRUE(insert("A=1,Cell:s=1", {}, false));
    EXPECT_EQ(store().getMoClassInstance("A=1,Cell=%"), "A=1,Cell=7");
    EXPECT_EQ(store().getMoClassInstance("A=%,Cell=%,Port=%"), "A=1,Cell=7,Port=1");
    EXPECT_EQ(store().getMoClassInstance("A=1,Cell%"), "A=1,Cell=7") << "no members of structs";
    EXPECT_EQ(store().getMoClassInstance("A=1,C_ll=%"), "A=1,C_ll=1") << "_ is a plain character";
    EXPECT_EQ(store().getMoClassInstance("A_=%"), "A_=2");
    EXPECT_EQ(store().getMoClassInstance("Cell=%"), "A=1,Cell=7");
    EXPECT_EQ(store().getMoClassInstance("base%"), "basez=3") << "not the root of the table";
    for (const char* absent : {"A=1,Port=%", "Absent=%", "", "A=1,Cell=8", "O'Neil=%", "a\"b=%\\"})
        EXPECT_EQ(store().getMoClassInstance(absent), absent);
    EXPECT_EQ(log.count(mwLogError, "Sqlite error"), 0);
    std::string deep = "P0=1";
    insertAll({deep.c_str()});
    std::string pattern = "P0=%";
    for (int i = 1; i <= 14; ++i) {
        deep += ",P" + std::to_string(i) + "=1";
        pattern += ",P" + std::to_string(i) + "=%";
        insertAll({deep.c_str()});
    }
    EXPECT_EQ(store().getMoClassInstance(pattern), deep) << "more pairs than SQLite's parser takes nested";
}

TEST_F(Query, SingletonClassesKeepOneStoredInstance)
{
    insertAll({"NodeBLocalCell=7"});
    EXPECT_EQ(store().alignSingletonDn("NodeBLocalCell=1"), "NodeBLocalCell=7");
    insertAll({"Iub=1"});
    ASSERT_TRUE(insert("Iub=3", {text("a", "x")}));
    EXPECT_EQ(store().getMoClassDnList("Iub"), (Names{"Iub=3"})) << "renamed, then updated";
    EXPECT_EQ(value("Iub=3", "a"), "x");
    ASSERT_TRUE(insert("Iub=1", {text("a", "y")}));
    EXPECT_EQ(value("Iub=3", "a"), "y");
    for (const char* other : {"Iub:s=1", "IubLink=1", "Iub", "=Iub", "K=Iub", "Cell=1"})
        EXPECT_EQ(store().alignSingletonDn(other), other);
    insertAll({"NodeBLocalCell=8"});
    EXPECT_EQ(store().alignSingletonDn("NodeBLocalCell=1"), "NodeBLocalCell=1") << "two are stored";
}

TEST_F(Query, PhaseAndReadinessAreReadFromTheirObject)
{
    std::int32_t phase = -2;
    store().getAIPhase(phase);
    EXPECT_EQ(phase, -2);
    EXPECT_FALSE(store().isReadyForOssSync("test"));
    ASSERT_TRUE(insert("OAM", {text("AI_phase", "4"), attribute("readyForOssSync", std::int32_t{0})}, false));
    store().getAIPhase(phase);
    EXPECT_EQ(phase, -2) << "a text is no phase";
    EXPECT_EQ(log.count(mwLogError, "bad get"), 1);
    EXPECT_FALSE(store().isReadyForOssSync("test"));
    ASSERT_TRUE(update("OAM", {attribute("AI_phase", std::int32_t{4}), attribute("readyForOssSync", true)}));
    store().getAIPhase(phase);
    EXPECT_EQ(phase, 4);
    EXPECT_TRUE(store().isReadyForOssSync("test"));
    EXPECT_FALSE(store().checkPersistentDataExistenceFromDB());
    Attribute kept = text("kept", "x");
    kept.persistent = true;
    ASSERT_TRUE(update("OAM", {kept}));
    EXPECT_TRUE(store().checkPersistentDataExistenceFromDB());
}

TEST_F(Query, FailedReadGivesNothingRatherThanAPart)
{
    insertAll({"K=1", "K=2"});
    ASSERT_TRUE(update("K=2", {text("a", "x")}));
    log.forget();
    {
        RefusedPrepare refused(handle(), SQLITE_READ, "Attribute");
        EXPECT_FALSE(object("K=2"));
        EXPECT_TRUE(store().get_MO_class("K").empty());
        EXPECT_FALSE(store().sql_get_attribute("K=2", "a", "test", false));
        EXPECT_FALSE(store().checkAttributeExistence("a", idOf("K=2")));
        EXPECT_TRUE(store().checkPersistentDataExistenceFromDB()) << "not known to be without";
    }
    EXPECT_EQ(log.count(mwLogError, "Failed to read Attribute table!"), 3);
    EXPECT_EQ(log.count(mwLogError, "Object 'K=1' was NULL, not stored into object list"), 1);
    EXPECT_EQ(value("K=2", "a"), "x");
}
