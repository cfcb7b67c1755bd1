// Parked attribute values: which go there, and how long they stay.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include "store/AlternateStorage.h"

#include <sqlite3.h>

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
    EXPECT_EQ(table(), "error: no such table: Attribute_AltStorage") << "rolled back with the object";
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
