// What an insert leaves behind, whole or not at all.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

#include <cmath>
#include <ctime>
#include <limits>

using namespace IPCData;

namespace {

using Insert = TempStore;

template <class Number>
Value lowest()
{
    return std::numeric_limits<Number>::lowest();
}

template <class Number>
Value highest()
{
    return std::numeric_limits<Number>::max();
}

/// The extremes of every type, each with the code it is declared as.
std::vector<std::pair<std::int32_t, Value>> extremes()
{
    const auto denormal = std::numeric_limits<double>::denorm_min();
    std::vector<std::pair<std::int32_t, Value>> all{{INT8, lowest<std::int8_t>()},
                                                    {INT8, highest<std::int8_t>()},
                                                    {INT16, lowest<std::int16_t>()},
                                                    {INT16, highest<std::int16_t>()},
                                                    {INT32, lowest<std::int32_t>()},
                                                    {ENUM, highest<std::int32_t>()},
                                                    {INT64, lowest<std::int64_t>()},
                                                    {INT64, highest<std::int64_t>()},
                                                    {UINT8, highest<std::uint8_t>()},
                                                    {UINT16, highest<std::uint16_t>()},
                                                    {UINT32, highest<std::uint32_t>()},
                                                    {UINT64, highest<std::uint64_t>()},
                                                    {UINT64, Value(1ULL << 63)},
                                                    {BOOLEAN, Value(true)},
                                                    {BOOLEAN, Value(false)},
                                                    {FLOAT, lowest<float>()},
                                                    {FLOAT, highest<float>()},
                                                    {FLOAT, Value(0.1F)},
                                                    {FLOAT, std::numeric_limits<float>::denorm_min()},
                                                    {FLOAT, -std::numeric_limits<float>::infinity()},
                                                    {FLOAT, Value(-0.0F)},
                                                    {DECIMAL64, lowest<double>()},
                                                    {DECIMAL64, highest<double>()},
                                                    {DECIMAL64, Value(0.1 + 0.2)},
                                                    {DECIMAL64, denormal},
                                                    {DECIMAL64, std::numeric_limits<double>::infinity()},
                                                    {DECIMAL64, Value(-0.0)}};
    std::string everyByte(256, '\0');
    for (std::size_t i = 0; i < everyByte.size(); ++i)
        everyByte[i] = static_cast<char>(i);
    for (const std::int32_t type : {9, 14, 18, 24, 30, 32}) {
        all.emplace_back(type, everyByte);
        all.emplace_back(type, std::string());
    }
    all.emplace_back(STRING, std::string("\0", 1));
    all.emplace_back(TEXT, std::string(300000, 'x'));
    all.emplace_back(REFERENCE, std::string("Nobody='1',\"x%\",Ü=å;B=2"));
    all.emplace_back(SECOND_REFERENCE, std::string("Nobody=2"));
    return all;
}

bool isNegativeZero(const Value& value)
{
    const auto* const wide = std::get_if<double>(&value);
    const auto* const narrow = std::get_if<float>(&value);
    return (wide && *wide == 0.0 && std::signbit(*wide)) || (narrow && *narrow == 0.0F && std::signbit(*narrow));
}

} // namespace

TEST_F(Insert, ExtremesOfEveryTypeSurviveSaveAndLoad)
{
    const auto all = extremes();
    std::vector<Attribute> attributes;
    for (std::size_t i = 0; i < all.size(); ++i) {
        Attribute each = attribute("a" + std::to_string(i), all[i].second, all[i].first);
        each.hidden = i % 2 != 0;
        each.persistent = i % 3 != 0;
        attributes.push_back(each);
    }
    ASSERT_TRUE(insert("A=1", attributes));
    store().setDatabaseFile(path("copy"));
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::save), SQLITE_OK);
    constexpr bool save = false;
    SQLite::destroyInstance(save);
    store().setDatabaseFile(path("copy"));
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    const auto loaded = object("A=1");
    ASSERT_TRUE(loaded);
    ASSERT_EQ(loaded->attributes.size(), all.size());
    for (const Attribute& sent : attributes) {
        const Attribute* const got = loaded->getAttribute(sent.name);
        ASSERT_TRUE(got) << sent.name;
        EXPECT_TRUE(got->value == sent.value) << sent.name << " of type " << sent.type << ": " << got->ToStr();
        EXPECT_EQ(isNegativeZero(got->value), isNegativeZero(sent.value)) << sent.name;
        EXPECT_EQ(got->type, sent.type);
        EXPECT_EQ(got->hidden, sent.hidden);
        EXPECT_EQ(got->persistent, sent.persistent);
        EXPECT_FALSE(got->changed);
    }
}

TEST_F(Insert, RowOfAnInvalidTypeIsToldAndTheObjectStaysReadable)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x"), text("b", "y")}));
    ASSERT_EQ(store().runtime()->execute("update Attribute set value_type = 13 where name = 'a'"), SQLITE_OK);
    const auto found = object("A=1");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->getAttribute("a")->value, Value(std::int8_t{0}));
    EXPECT_EQ(found->getAttribute("a")->type, 13);
    EXPECT_EQ(found->getAttribute("b")->ToStr(), "y");
    EXPECT_EQ(log.count(mwLogError, "Attribute value type 13 invalid!"), 1);
}

TEST_F(Insert, OrphanBecomesARootWithTwoErrorLinesAndACheck)
{
    ASSERT_TRUE(insert("ManagedElement=1"));
    EXPECT_EQ(log.count(mwLogError), 0) << "the one object that may stand without a parent";
    ASSERT_TRUE(insert("Nowhere=1,A=1"));
    EXPECT_EQ(committed("select parent from DBObject where dn = 'A=1'"), "0");
    EXPECT_EQ(log.count(mwLogError, "Parent not found. DBObject(dn: 'A=1' parent_dn: Nowhere=1) Client: test"), 1);
    EXPECT_EQ(log.count(mwLogError, "insert without parent. DBObject(dn: 'A=1') Client: test"), 1);
    EXPECT_EQ(log.count(mwLogInfo, "integrity ok"), 1);
    EXPECT_TRUE(middleware.state().controlledResets.empty());
}

TEST_F(Insert, FailureLeavesNothingBehindAndACallersTransactionOpen)
{
    const auto insertsNothing = [this](bool inTransaction) {
        DBObject made = container("A=1", {text("a", "x"), text("b", "y")});
        const bool done = store().sql_insert(&made, inTransaction, "test");
        EXPECT_EQ(everything(), "0|0|baseobject|1|0|0\n");
        EXPECT_EQ(anotherConnectionCanWrite(), !inTransaction);
        return !done;
    };
    {
        RefusedPrepare refused(handle(), SQLITE_INSERT, "DBObject");
        EXPECT_TRUE(insertsNothing(false));
    }
    EXPECT_EQ(log.count(mwLogError, "Db error, DBObject: "), 1);
    {
        RefusedPrepare refused(handle(), SQLITE_INSERT, "Attribute");
        EXPECT_TRUE(insertsNothing(false));
    }
    EXPECT_EQ(log.count(mwLogError, "Db error, Attributes: "), 1);
    {
        BrokenStep broken(handle(), "INSERT INTO Attribute");
        EXPECT_TRUE(insertsNothing(false)) << "SQLite has rolled back all by itself";
    }
    ASSERT_TRUE(store().sql_start_transaction());
    {
        RefusedPrepare refused(handle(), SQLITE_INSERT, "Attribute"); // of a statement prepared before
        insertsNothing(true);
    }
    EXPECT_TRUE(store().transactionOpen());
    ASSERT_TRUE(store().sql_rollback_transaction());
    EXPECT_TRUE(insert("A=1", {text("a", "x")}));
}

TEST_F(Insert, TimeStampsAreFilledInForModelObjectsThatHaveThem)
{
    const std::time_t before = std::time(nullptr);
    const auto stamps = [] {
        return std::vector<Attribute>{attribute("timeOfCreation", std::int32_t{5}),
                                      text("timeOfLastModification", "x")};
    };
    ASSERT_TRUE(insert("A=1", stamps()));
    std::tm created{};
    const std::string time = value("A=1", "timeOfCreation");
    ASSERT_TRUE(strptime(time.c_str(), "%Y-%m-%d %H:%M:%S", &created)) << time;
    EXPECT_GE(timegm(&created), before);
    EXPECT_LE(timegm(&created), std::time(nullptr));
    EXPECT_EQ(value("A=1", "timeOfLastModification"), "") << "no lastModification, no time";
    EXPECT_EQ(committed("select value_type from Attribute"), "9,9");
    auto withModification = stamps();
    withModification.push_back(text("lastModification", "by hand"));
    ASSERT_TRUE(insert("A=2", withModification));
    EXPECT_EQ(value("A=2", "timeOfLastModification").size(), 19U);
    ASSERT_TRUE(insert("A=3", stamps(), false));
    EXPECT_EQ(value("A=3", "timeOfCreation"), "5");
    ASSERT_TRUE(insert("A=4"));
    EXPECT_TRUE(object("A=4")->attributes.empty()) << "no time stamp is added";
}
