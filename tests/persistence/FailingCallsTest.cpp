// SQLite's file calls fail one after the other, at every place of a start and of a write to the
// common database: what must last is as it was or as it was to become, and the next try succeeds.

#include "tests/persistence/StartFiles.h"
#include "tests/support/Faults.h"
#include "tests/support/StoringStore.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <set>

namespace fs = std::filesystem;

namespace {

/// More file calls than these files need.
constexpr int enough = 2000;

class FailingCalls : public StartFiles {
protected:
    static std::string contentOf(const std::string& file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void restart() const
    {
        SQLite::destroyInstance(false);
        fs::remove(path("state.json"));
    }
};

} // namespace

TEST_F(FailingCalls, OfAStartHarmNoLastingFile)
{
    makeDatabase(permanent(), {container("P=1", {text("name", std::string(9000, 'x'))})});
    const std::string stored = contentOf(permanent());
    int loads = 0;
    int call = 0;
    for (; call < enough; ++call) {
        restart();
        fs::remove(commonFile());
        fs::remove(commonFile() + ".rejected");
        makeCommon(3, std::nullopt);
        bool happened = true;
        {
            const FailedFileCall failure(call);
            loads += store().loadPermanentConfFile();
            happened = FailedFileCall::happened();
        }
        SCOPED_TRACE("call " + std::to_string(call));
        ASSERT_EQ(contentOf(permanent()), stored);
        restart();
        ASSERT_TRUE(store().loadPermanentConfFile()) << "with everything in order again";
        ASSERT_NE(tree().find("P=1"), std::string::npos);
        if (!happened)
            break;
    }
    EXPECT_LT(call, enough) << "there is an end to a start's calls";
    EXPECT_GT(loads, call / 10) << "a start gets over what it can do without";
    EXPECT_LT(loads, call);
}

TEST_F(FailingCalls, OfAWriteToTheCommonDatabaseLeaveTheOldOrTheNewFact)
{
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    store().recordResetReason(3);
    std::set<std::string> seen;
    int call = 0;
    for (bool happened = true; happened && call < enough; ++call) {
        store().recordResetReason(3);
        ASSERT_EQ(commonFact("resetReason"), "3") << "written again after call " << call;
        {
            const FailedFileCall failure(call);
            store().recordResetReason(2);
            happened = FailedFileCall::happened();
        }
        const std::string fact = commonFact("resetReason");
        seen.insert(fact);
        ASSERT_TRUE(fact == "2" || fact == "3") << fact << " after call " << call;
    }
    EXPECT_LT(call, enough);
    EXPECT_EQ(seen.size(), 2U);
}

TEST_F(FailingCalls, OfAStoreLeaveTheOldOrTheNewConfiguration)
{
    const StoringTurn turn;
    ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    const auto write = [](const std::string& name) {
        DBObject object = container("Site=1", {kept("name", name)}, false);
        return store().sql_insert(&object, false, "test");
    };
    int failures = 0;
    int call = 0;
    for (bool happened = true; happened && call < enough; ++call) {
        ASSERT_TRUE(write("old"));
        ASSERT_TRUE(store().storePersistentDump(false)) << "works again after call " << call;
        ASSERT_TRUE(write("new"));
        bool stored = false;
        {
            const FailedFileCall failure(call);
            stored = call % 2 == 0 ? store().storePersistentDump(false) : store().storeDbToFlash();
            happened = FailedFileCall::happened();
        }
        failures += !stored;
        ASSERT_EQ(queryFile(permanent(), "select value from Attribute"), stored ? "new" : "old") << "call " << call;
        ASSERT_TRUE(StoredFiles::tidy()) << "call " << call;
    }
    EXPECT_LT(call, enough);
    EXPECT_GT(failures, 5);
    EXPECT_TRUE(middleware.state().controlledResets.empty());
}
