// Begin, commit and rollback; what a commit saves.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

class Transaction : public TempStore {
protected:
    Transaction() { EXPECT_TRUE(insert("A=1", {text("a", "x")})); }

    std::string dump(const std::string& sql) const { return queryFile(path("dump/DatabaseDump"), sql); }
};

/// Another connection inside a read of a database file.
class Reader {
public:
    explicit Reader(const std::string& file)
    {
        sqlite3_open_v2(file.c_str(), &m_file, SQLITE_OPEN_READONLY, nullptr);
        EXPECT_EQ(sqlite3_exec(m_file, "begin; select count(*) from DBObject", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~Reader() { sqlite3_close(m_file); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

private:
    sqlite3* m_file = nullptr;
};

} // namespace

TEST_F(Transaction, RefusedCommitLeavesNothingForALaterOneToKeep)
{
    {
        FullDrive full("runtime/pRBSdb");
        insert("B=1", {text("b", "x")});
    }
    EXPECT_FALSE(object("B=1"));
    EXPECT_TRUE(anotherConnectionCanWrite());
    {
        Reader reader(path("runtime/pRBSdb")); // keeps the commit from its exclusive lock
        sqlite3_busy_timeout(handle(), 50);
        ASSERT_TRUE(store().sql_start_transaction());
        DBObject made = container("C=1");
        ASSERT_TRUE(store().sql_insert(&made, true, "test"));
        EXPECT_FALSE(store().sql_commit_transaction());
        EXPECT_FALSE(store().transactionOpen());
    }
    ASSERT_TRUE(insert("D=1"));
    EXPECT_EQ(committed("select dn from DBObject order by dn"), "A=1,D=1,baseobject");
    EXPECT_EQ(dump("select dn from DBObject order by dn"), "A=1,D=1,baseobject");
}

TEST_F(Transaction, LeftOverTransactionIsRolledBackWithAnErrorLine)
{
    ASSERT_EQ(store().runtime()->execute("BEGIN; update Attribute set value = 'left over'"), SQLITE_OK);
    ASSERT_TRUE(insert("B=1"));
    EXPECT_EQ(log.count(mwLogError, "a transaction was left open"), 1);
    EXPECT_EQ(value("A=1", "a"), "x");
    EXPECT_EQ(committed("select dn from DBObject order by id"), "baseobject,A=1,B=1");
}

TEST_F(Transaction, OpenTransactionIsNotEndedByOneThatWantsItsOwn)
{
    ASSERT_TRUE(store().sql_start_transaction());
    DBObject inner = container("B=1");
    ASSERT_TRUE(store().sql_insert(&inner, true, "test"));
    EXPECT_FALSE(store().sql_start_transaction());
    EXPECT_FALSE(insert("C=1"));
    EXPECT_FALSE(update("A=1", {text("a", "y")}));
    EXPECT_FALSE(store().delete_object("A=1", 1, false, "test"));
    EXPECT_FALSE(store().deleteAttribute("a", idOf("A=1"), false));
    EXPECT_TRUE(store().transactionOpen());
    ASSERT_TRUE(store().sql_commit_transaction());
    EXPECT_EQ(committed("select dn from DBObject order by id"), "baseobject,A=1,B=1");
    EXPECT_EQ(value("A=1", "a"), "x");
    EXPECT_FALSE(store().sql_commit_transaction()) << "there is none";
    EXPECT_FALSE(store().sql_rollback_transaction());
}

TEST_F(Transaction, DumpFollowsTheFlagAtEveryCommit)
{
    EXPECT_EQ(dump("select value from Attribute"), "x");
    struct stat status {};
    ASSERT_EQ(stat(path("dump/DatabaseDump").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
    store().setDatabaseDumpEnabled(false);
    ASSERT_TRUE(update("A=1", {text("a", "y")}));
    EXPECT_TRUE(fs::is_empty(path("dump")));
    ASSERT_TRUE(update("A=1", {text("a", "z")}));
    store().setDatabaseDumpEnabled(true);
    ASSERT_TRUE(update("A=1", {text("a", "w")}));
    EXPECT_EQ(dump("select value from Attribute"), "w");
    EXPECT_EQ(dump("pragma integrity_check"), "ok");
}

TEST_F(Transaction, DamagedDumpIsWrittenAnew)
{
    ASSERT_TRUE(update("A=1", {attribute("long", std::string(100000, 'x'))}));
    const auto damages = {+[](const std::string& file) { corruptFile(file); },
                          +[](const std::string& file) { writeJunk(file); },
                          +[](const std::string& file) { fs::resize_file(file, 5000); },
                          +[](const std::string& file) { fs::resize_file(file, 0); },
                          +[](const std::string& file) { writeJunk(file + "-journal"); }};
    int round = 0;
    for (const auto damage : damages) {
        damage(path("dump/DatabaseDump"));
        ASSERT_TRUE(update("A=1", {text("a", std::to_string(++round))}));
        EXPECT_EQ(dump("select value from Attribute where name = 'a'"), std::to_string(round));
        EXPECT_EQ(dump("pragma integrity_check"), "ok") << round;
    }
    EXPECT_GE(log.count(mwLogWarning, "is damaged"), 1);
    EXPECT_EQ(log.count(mwLogError, "could not be saved"), 0);
    EXPECT_TRUE(middleware.state().controlledResets.empty());
}

TEST_F(Transaction, ReaderOfTheDumpHoldsNoCommitUpForLong)
{
    {
        Reader reader(path("dump/DatabaseDump"));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(update("A=1", {text("a", "y")}));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        EXPECT_EQ(log.count(mwLogError, "could not be saved"), 1);
    }
    EXPECT_EQ(committed("select value from Attribute"), "y");
    EXPECT_EQ(dump("select value from Attribute"), "x") << "the reader's file is as it was";
    ASSERT_TRUE(update("A=1", {text("a", "z")}));
    EXPECT_EQ(dump("select value from Attribute"), "z");
}

TEST_F(Transaction, FilesThatMustLastAreNotWrittenByACommit)
{
    fs::create_directories(path("backup/database"));
    for (const char* file : {"flash/pRBSdb", "backup/database/pRBSdb", "common/commondb"}) {
        store().setDatabaseFile(path(file));
        ASSERT_TRUE(update("A=1", {text("a", file)}));
        EXPECT_FALSE(fs::exists(path(file)));
    }
}
