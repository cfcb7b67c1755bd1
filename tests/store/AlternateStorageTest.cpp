// Parked attribute values: which go there, how long they stay, and how they become live again.

#include "tests/support/Faults.h"
#include "tests/support/Recorder.h"
#include "tests/support/TempStore.h"

#include "store/AlternateStorage.h"

#include <sqlite3.h>

#include <limits>

using namespace IPCData;

namespace {

class Alternate : public TempStore {
protected:
    static AlternateStorage storage() { return AlternateStorage(*store().runtime()); }
    static bool setPhase(std::int32_t phase) { return insert("OAM", {attribute("AI_phase", phase)}, false); }
    static Attribute parked(const std::string& name, const Value& value, std::int32_t slot)
    {
        Attribute made = attribute(name, value);
        made.slot = slot;
        return made;
    }
    static std::string parkedValue(const std::string& dn, const std::string& name)
    {
        const auto found = store().sql_get_attribute(dn, name, "test", true);
        return found ? std::to_string(found->slot) + ":" + found->ToStr() : "(none)";
    }
    std::string table() const
    {
        return committed("select name||':'||value||':'||alt_storage from Attribute_AltStorage order by name");
    }
    static constexpr const char* noTable = "error: no such table: Attribute_AltStorage";
};

} // namespace

TEST_F(Alternate, OnlyPhaseFourParks)
{
    for (const std::int32_t phase : {3, 5}) {
        ASSERT_TRUE(setPhase(phase));
        ASSERT_TRUE(insert("A=" + std::to_string(phase), {parked("a", std::string("x"), 1)}));
    }
    EXPECT_TRUE(storage().alternateStorageEmpty());
    EXPECT_EQ(value("A=3", "a"), "x");
    ASSERT_TRUE(setPhase(4));
    ASSERT_TRUE(insert("A=4", {parked("a", std::string("x"), 1), text("b", "live")}));
    EXPECT_EQ(value("A=4", "a"), "(none)");
    EXPECT_EQ(value("A=4", "b"), "live");
    EXPECT_EQ(parkedValue("A=4", "a"), "1:x");
    ASSERT_TRUE(update("A=3", {parked("a", std::string("later"), 0)}));
    EXPECT_EQ(value("A=3", "a"), "x") << "the live value stays";
    EXPECT_EQ(parkedValue("A=3", "a"), "0:later");
    EXPECT_EQ(object("A=3")->getAlternateAttribute("a")->ToStr(), "later");
}

TEST_F(Alternate, MissingTableIsNoError)
{
    ASSERT_TRUE(setPhase(4));
    ASSERT_TRUE(insert("A=1"));
    log.forget();
    EXPECT_EQ(parkedValue("A=1", "a"), "(none)");
    EXPECT_FALSE(storage().hasAlternateStorageAttributes(idOf("A=1")));
    EXPECT_TRUE(storage().alternateStorageEmpty());
    Attribute copy = text("a", "as it was");
    EXPECT_TRUE(storage().getAlternateStorageAttribute(idOf("A=1"), "a", copy));
    EXPECT_EQ(copy.ToStr(), "as it was");
    EXPECT_TRUE(storage().dropAlternateStorage());
    EXPECT_TRUE(object("A=1")->alternateAttributes.empty());
    ASSERT_TRUE(update("A=1", {parked("a", std::string("x"), 2)}));
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
    EXPECT_EQ(log.count(mwLogInfo, "integrity"), 0);
    EXPECT_EQ(parkedValue("A=1", "a"), "2:x");
}

TEST_F(Alternate, ParkingAgainReplacesWhateverTheSlot)
{
    ASSERT_TRUE(setPhase(4));
    ASSERT_TRUE(
        insert("A=1", {parked("a", std::string("x"), 1), parked("b", std::numeric_limits<std::uint64_t>::max(), 1)}));
    ASSERT_TRUE(update("A=1", {parked("a", std::string("y"), 2)}));
    EXPECT_EQ(table(), "a:y:2,b:-1:1");
    EXPECT_EQ(parkedValue("A=1", "b"), "1:18446744073709551615");
    ASSERT_TRUE(update("A=1", {parked("a", std::string("y"), 3)}));
    EXPECT_EQ(parkedValue("A=1", "a"), "2:y") << "the same text is not parked again";
}

TEST_F(Alternate, ParkedRowsGoWithTheirObjectOrTheirTransaction)
{
    ASSERT_TRUE(setPhase(4));
    {
        RefusedPrepare refused(handle(), SQLITE_INSERT, "Attribute");
        EXPECT_FALSE(insert("A=1", {parked("a", std::string("x"), 1), text("b", "refused")}));
    }
    EXPECT_EQ(table(), noTable) << "rolled back with the object";
    ASSERT_TRUE(insert("A=1", {parked("a", std::string("x"), 1)})) << "and made again";
    ASSERT_TRUE(insert("A=1,B=1", {parked("b", std::string("x"), 1)}));
    ASSERT_TRUE(insert("C=1", {parked("c", std::string("x"), 1)}));
    ASSERT_TRUE(store().delete_object("A=1", 1, false, "test"));
    EXPECT_EQ(table(), "c:x:1");
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::save), SQLITE_OK);
    store().setDatabaseFile(path("empty"));
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    EXPECT_TRUE(storage().alternateStorageEmpty()) << "another database, without the table";
    store().setDatabaseFile(path("dump/DatabaseDump"));
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    EXPECT_EQ(parkedValue("C=1", "c"), "1:x");
}

TEST_F(Alternate, RefusedParkIsToldAndChecked)
{
    ASSERT_TRUE(setPhase(4));
    ASSERT_TRUE(insert("A=1"));
    log.forget();
    RefusedPrepare refused(handle(), SQLITE_CREATE_TABLE, "Attribute_AltStorage");
    update("A=1", {parked("a", std::string("x"), 1)});
    EXPECT_EQ(log.count(mwLogError, "AlternateStorage::saveAttributeToAlternateStorage error: not authorized"), 1);
    EXPECT_EQ(log.count(mwLogInfo, "integrity ok"), 1);
    EXPECT_TRUE(anotherConnectionCanWrite());
}

TEST_F(Alternate, LoadedValuesAreLiveAndTheSameToTheLastBit)
{
    ASSERT_TRUE(setPhase(4));
    const std::map<std::string, Value> values{
        {"apostrophe", std::string("it's 100% 'so'")},
        {"double", 0.1 + 0.2},
        {"empty", std::string()},
        {"float", 0.1F},
        {"huge", std::numeric_limits<double>::infinity()},
        {"int64", std::numeric_limits<std::int64_t>::min()},
        {"int8", std::int8_t{-3}},
        {"plain", 1.5},
        {"small", 5e-324},
        {"truth", true},
        {"uint64", std::numeric_limits<std::uint64_t>::max()},
        {"zero", std::string("a\0b", 3)},
    };
    std::vector<Attribute> all;
    for (const auto& [name, each] : values)
        all.push_back(parked(name, each, 3));
    all.front().hidden = all.front().persistent = true;
    ASSERT_TRUE(insert("A=1", {text("apostrophe", "live before"), text("other", "stays")}));
    ASSERT_TRUE(update("A=1", all));
    ASSERT_TRUE(insert("B=1", {parked("of parent", std::string("y"), 3)}));
    ASSERT_TRUE(insert("B=1,C=1", {parked("plain", std::string("x"), 3)}));
    log.forget();
    Recorder recorder;
    int loading = 0;
    recorder.onItem = [&](const NotificationItem& item) {
        loading += !item.ofObject() && item.storageKind == storageLoading;
    };
    ASSERT_TRUE(store().loadAlternateStorage(3));
    const auto loaded = object("A=1");
    ASSERT_EQ(loaded->attributes.size(), values.size() + 1);
    for (const auto& [name, each] : values) {
        EXPECT_EQ(loaded->getAttribute(name)->value, each) << name;
        EXPECT_EQ(loaded->getAttribute(name)->type, SQLite::getAttributeValueType(each.index())) << name;
    }
    EXPECT_TRUE(loaded->getAttribute("apostrophe")->hidden && loaded->getAttribute("apostrophe")->persistent);
    EXPECT_FALSE(loaded->getAttribute("plain")->hidden || loaded->getAttribute("plain")->persistent);
    EXPECT_EQ(committed("select name from Attribute where typeof(value) <> 'text' and name <> 'AI_phase' order by 1"),
              "double,float,huge")
        << "numbers that 15 digits do not give";
    EXPECT_EQ(table(), noTable);
    EXPECT_TRUE(loaded->alternateAttributes.empty());
    EXPECT_EQ(value("B=1", "of parent") + value("B=1,C=1", "plain"), "yx");
    EXPECT_EQ(loading, static_cast<int>(values.size()) + 2);
    const std::string told = recorder.take();
    EXPECT_EQ(told.find("23 A=1; 18 A=1 apostrophe=it's 100% 'so'; 18 A=1 double="), 0U) << told;
    EXPECT_NE(told.find("23 B=1; 18 B=1 of parent=y; 23 B=1,C=1; 18 B=1,C=1 plain=x; "), std::string::npos) << told;
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
    ASSERT_TRUE(update("A=1", {text("other", "later")}));
    EXPECT_EQ(loading, static_cast<int>(values.size()) + 2) << "the next write is an ordinary one";
}

TEST_F(Alternate, OnlyTheSlotIsLoaded)
{
    ASSERT_TRUE(setPhase(4));
    EXPECT_TRUE(store().loadAlternateStorage(1)) << "nothing is parked at all";
    ASSERT_TRUE(insert("A=1", {parked("a", std::string("x"), 1), parked("b", std::string("y"), 2)}));
    log.forget();
    Recorder recorder;
    for (const std::int32_t slot : {0, 3, -1})
        EXPECT_TRUE(store().loadAlternateStorage(slot));
    EXPECT_EQ(recorder.take(), "");
    EXPECT_EQ(table(), "a:x:1,b:y:2");
    EXPECT_TRUE(store().loadAlternateStorage(1));
    EXPECT_EQ(table(), "b:y:2");
    EXPECT_EQ(value("A=1", "a"), "x");
    EXPECT_TRUE(store().loadAlternateStorage(2));
    EXPECT_EQ(table(), noTable);
    ASSERT_TRUE(update("A=1", {parked("a", std::string("again"), 1)}));
    ASSERT_TRUE(store().runtime()->execute("delete from Attribute_AltStorage") == SQLITE_OK);
    EXPECT_TRUE(store().loadAlternateStorage(5)) << "an empty table is dropped whatever the slot";
    EXPECT_EQ(table(), noTable);
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
}

TEST_F(Alternate, FailedLoadMovesNothing)
{
    ASSERT_TRUE(setPhase(4));
    ASSERT_TRUE(insert("A=1", {text("a", "live")}));
    ASSERT_TRUE(update("A=1", {parked("a", std::string("x"), 1), parked("b", std::string("y"), 1)}));
    const std::string before = everything();
    Recorder recorder;
    const auto fails = [&](const std::string& line) {
        EXPECT_FALSE(store().loadAlternateStorage(1)) << line;
        EXPECT_EQ(log.count(mwLogError, "AlternateStorage::loadAlternateStorage" + line), 1);
        EXPECT_EQ(log.count(mwLogInfo, "integrity ok"), 1) << line;
        EXPECT_EQ(recorder.take(), "") << line;
        EXPECT_EQ(everything(), before) << line;
        EXPECT_EQ(table(), "a:x:1,b:y:1") << line;
        EXPECT_TRUE(anotherConnectionCanWrite()) << line;
        log.forget();
    };
    log.forget();
    {
        const RefusedPrepare refused(handle(), SQLITE_READ, "Attribute_AltStorage");
        fails(" load error: access to");
    }
    {
        const RefusedPrepare refused(handle(), SQLITE_UPDATE, "DBObject");
        fails("CB: Cannot update DBObject id: ");
    }
    {
        const RefusedPrepare refused(handle(), SQLITE_INSERT, "Attribute");
        fails(" load error: query aborted");
    }
    {
        const BrokenStep broken(handle(), "INSERT OR REPLACE INTO Attribute ");
        fails("CB: Cannot update Attribute: a [interrupted]");
    }
    {
        const RefusedPrepare refused(handle(), SQLITE_DELETE, "Attribute_AltStorage");
        fails(" delete error: not authorized");
    }
    {
        const RefusedPrepare refused(handle(), SQLITE_DROP_TABLE, "Attribute_AltStorage");
        fails(": cannot delete alternate storage");
    }
    ASSERT_TRUE(store().sql_start_transaction());
    EXPECT_FALSE(store().loadAlternateStorage(1));
    EXPECT_TRUE(store().transactionOpen()) << "somebody else's, and left to him";
    ASSERT_TRUE(store().sql_rollback_transaction());
    EXPECT_EQ(everything(), before);
    EXPECT_TRUE(store().loadAlternateStorage(1));
    EXPECT_EQ(value("A=1", "a") + value("A=1", "b"), "xy");
    ASSERT_TRUE(store().shutdownDB());
    EXPECT_FALSE(store().loadAlternateStorage(1));
}

TEST_F(Alternate, TableOfAnotherShapeIsNotTakenForNone)
{
    const auto fails = [this](const char* table, const std::string& line) {
        ASSERT_EQ(store().runtime()->execute(table), SQLITE_OK);
        EXPECT_FALSE(store().loadAlternateStorage(1)) << table;
        EXPECT_EQ(log.count(mwLogError, line), 1) << log.all();
        ASSERT_EQ(store().runtime()->execute("drop table Attribute_AltStorage"), SQLITE_OK);
    };
    fails("create table Attribute_AltStorage(slot)",
          "AlternateStorage::loadAlternateStorage load error: no such column: alt_storage");
    fails("create table Attribute_AltStorage(id, belongsTo, alt_storage);"
          "insert into Attribute_AltStorage values(1, 1, 1)",
          "AlternateStorage::loadAlternateStorageCB: Cannot load attributes, not enough columns [3 < 7]");
}
