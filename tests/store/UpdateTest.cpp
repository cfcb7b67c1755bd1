// What an update writes, what it leaves alone, and whom it must never reach.

#include "tests/support/Faults.h"
#include "tests/support/Recorder.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

using namespace IPCData;

namespace {

class Update : public TempStore {
protected:
    Update() { EXPECT_TRUE(insert("A=1", {attribute("n", std::int64_t{1}), attribute("d", 0.3), text("t", "x")})); }
};

} // namespace

TEST_F(Update, OnlyWhatReallyDiffersIsWritten)
{
    Recorder recorder;
    const auto writes = [&](const std::string& name, const Value& value) {
        EXPECT_TRUE(update("A=1", {attribute(name, value)}));
        EXPECT_EQ(object("A=1")->getAttribute(name)->value, value);
        return recorder.take().find(name + "=") != std::string::npos; // what is written is told
    };
    EXPECT_FALSE(writes("n", std::int64_t{1}));
    EXPECT_TRUE(writes("n", std::int64_t{4294967297})) << "the same in its low 32 bits";
    EXPECT_TRUE(writes("n", std::int64_t{1}));
    EXPECT_TRUE(writes("n", std::int32_t{1})) << "the same number of another kind";
    EXPECT_FALSE(writes("d", 0.3));
    EXPECT_TRUE(writes("d", 0.1 + 0.2)) << "the same in the 15 digits of its text";
    EXPECT_TRUE(writes("t", std::string("x\0y", 3)));
    EXPECT_TRUE(writes("t", std::string("x\0z", 3)));
    EXPECT_FALSE(writes("t", std::string("x\0z", 3)));
}

TEST_F(Update, FailureTakesEverythingBackAndTheNextUpdateWorks)
{
    const std::string before = everything();
    {
        BrokenStep broken(handle(), "INSERT INTO Attribute");
        EXPECT_FALSE(update("A=1", {text("a", "first"), text("b", "second")}));
    }
    EXPECT_EQ(log.count(mwLogError, "Error updating attribute 'a' to database by test"), 1);
    {
        RefusedPrepare refused(handle(), SQLITE_UPDATE, "Attribute");
        EXPECT_FALSE(update("A=1", {text("a", "first"), text("t", "second")}));
    }
    EXPECT_EQ(log.count(mwLogError, "Error updating attribute 't' to database by test"), 1);
    {
        RefusedPrepare refused(handle(), SQLITE_UPDATE, "DBObject");
        EXPECT_FALSE(update("A=1", {text("a", "first")}));
    }
    EXPECT_EQ(everything(), before);
    EXPECT_TRUE(anotherConnectionCanWrite());
    EXPECT_FALSE(update("Absent=1", {text("a", "x")}));
    EXPECT_FALSE(store().sql_update(nullptr, false, "test"));
    EXPECT_TRUE(update("A=1", {text("a", "first")}));
}

TEST_F(Update, ModificationTimeIsKeptWhereItIsStored)
{
    const auto isTime = [](const std::string& text) { return text.size() == 19 && text[10] == ' '; };
    ASSERT_TRUE(update("A=1", {text("t", "y")}));
    EXPECT_EQ(value("A=1", "timeOfLastModification"), "(none)") << "none is added to an object without one";
    ASSERT_TRUE(insert("B=1", {text("timeOfLastModification", "x"), text("t", "x")}));
    ASSERT_TRUE(update("B=1", {text("timeOfLastModification", "by the client"), text("t", "y")}));
    EXPECT_EQ(value("B=1", "timeOfLastModification"), "");
    ASSERT_TRUE(update("B=1", {text("lastModification", "1")}));
    EXPECT_TRUE(isTime(value("B=1", "timeOfLastModification"))) << value("B=1", "timeOfLastModification");
    EXPECT_TRUE(object("B=1")->getAttribute("timeOfLastModification")->persistent);
}

TEST_F(Update, MoveTakesTheSubtreeAlongButNeverBelowItself)
{
    for (const char* dn : {"A=1,B=1", "A=1,B=1,C=1", "A=2"})
        ASSERT_TRUE(insert(dn));
    const auto below = [](const std::string& dn, const std::string& parent) {
        auto moved = object(dn);
        moved->parentId = idOf(parent);
        moved->parentDn.clear();
        return moved;
    };
    const auto move = [](const std::unique_ptr<DBObject>& moved) {
        return store().sql_update(moved.get(), false, "test");
    };
    const std::string before = everything();
    EXPECT_FALSE(move(below("A=1", "A=1")));
    EXPECT_FALSE(move(below("A=1", "A=1,B=1,C=1")));
    EXPECT_EQ(everything(), before);
    const auto moved = below("A=1,B=1", "A=2");
    const std::int32_t leaf = idOf("A=1,B=1,C=1");
    EXPECT_EQ(store().get_whole_dn(leaf), "A=1,B=1,C=1");
    EXPECT_TRUE(move(moved)); // with both answers remembered
    EXPECT_EQ(store().get_whole_dn(leaf), "A=2,B=1,C=1");
    EXPECT_EQ(idOf("A=1,B=1,C=1"), 0) << "the old address is forgotten";
    EXPECT_EQ(idOf("A=2,B=1,C=1"), leaf);
    ASSERT_TRUE(insert("A=1,B=1"));
    EXPECT_FALSE(move(below("A=1,B=1", "A=2"))) << "there is one of that name already";
    EXPECT_NE(idOf("A=1,B=1"), 0);
}

TEST_F(Update, RefusedOneRenamesNoSingleton)
{
    ASSERT_TRUE(insert("M=1"));
    ASSERT_TRUE(insert("M=1,NodeBLocalCell=1", {text("a", "x")}));
    DBObject change("NodeBLocalCell=7", 1, true, false, 0, 1, "Absent=1", 1);
    EXPECT_FALSE(store().sql_update(&change, false, "test"));
    EXPECT_EQ(value("M=1,NodeBLocalCell=1", "a"), "x");
    EXPECT_EQ(value("M=1,NodeBLocalCell=7", "a"), "(none)");
}
