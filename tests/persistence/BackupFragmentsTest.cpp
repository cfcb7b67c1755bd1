// The backup fragments: what they add to the database that lies ready for a restore, and what they
// leave alone.

#include "tests/support/Faults.h"
#include "tests/support/Recorder.h"
#include "tests/support/TempStore.h"

#include "store/FileLocations.h"

#include <sqlite3.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

class BackupFragments : public TempStore {
protected:
    BackupFragments() { fs::create_directories(path("backup/database")); }

    std::string backupFile() const { return path("backup/database/pRBSdb"); }

    /// Saves the tree as the database that lies ready for a restore, and begins a new tree.
    void putReady()
    {
        store().setDatabaseFile(backupFile());
        ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::save), SQLITE_OK);
        store().setDatabaseFile(path("nothing"));
        ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
        store().setDatabaseFile(dumpFile());
    }

    /// Every object of the backup database with its attributes.
    std::string backup() const
    {
        return queryFile(
            backupFile(),
            "with recursive tree(id, path) as (select id, dn from DBObject where parent = 0 and id <> 0 union all "
            "select o.id, path||'/'||o.dn from DBObject o join tree on o.parent = tree.id) "
            "select path||ifnull('('||(select group_concat(name||'='||value, ' ') from (select name, value from "
            "Attribute where belongsTo = tree.id order by name))||')', '') from tree order by path");
    }
};

} // namespace

TEST_F(BackupFragments, AreMergedAndUpdatedInPlace)
{
    ASSERT_TRUE(insert("Other=1", {text("kept", "yes")}));
    ASSERT_TRUE(insert("BrM=1", {attribute("ongoing", true), text("only there", "x")}, false));
    ASSERT_TRUE(insert("BrM=1,Backup=9", {text("name", "nine")}, false));
    putReady();
    ASSERT_TRUE(insert("BrM=1", {attribute("ongoing", false)}, false));
    ASSERT_TRUE(insert("BrM=1,Backup=1", {text("it's", "a")}, false));
    ASSERT_TRUE(insert("BrM=1,Backup=1,Backup:list=1", {text("member", "m")}, false));
    ASSERT_TRUE(insert("ManagedElement=1", {text("a", "not a fragment")}));
    ASSERT_TRUE(insert("SwInventory=1", {reference("uses", "BrM=1,Backup=1")}, false));
    ASSERT_TRUE(insert("SwInventory=1,Item=1", {}, false));
    fs::remove(dumpFile());
    log.forget();
    const std::string before = everything();
    Recorder recorder;
    const std::string merged = "BrM=1(ongoing=0 only there=x),BrM=1/Backup=1(it's=a),"
                               "BrM=1/Backup=1/Backup:list=1(member=m),BrM=1/Backup=9(name=nine),"
                               "Other=1(kept=yes),SwInventory=1(uses=BrM=1,Backup=1),SwInventory=1/Item=1";
    for (int time = 1; time <= 2; ++time) {
        ASSERT_TRUE(store().storeBrMBackup());
        EXPECT_EQ(backup(), merged) << "time " << time;
    }
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::storeBrMBackup, SwInventory and BrM fragments successfully stored"), 2);
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
    EXPECT_EQ(recorder.take(), "");
    EXPECT_EQ(everything(), before);
    EXPECT_EQ(store().databaseFile(), dumpFile());
    EXPECT_EQ(queryFile(dumpFile(), "select count(*) from DBObject"), "7") << "the tree was saved first";
    EXPECT_EQ(value("SwInventory=1", "uses"), "BrM=1,Backup=1") << "and the store is back on it";

    ASSERT_TRUE(update("BrM=1,Backup=1", {text("it's", "later")}));
    const ScopedVariable slash("TAMO_BRM_BACKUP_PATH", path("backup/"));
    ASSERT_TRUE(store().storeBrMBackup());
    EXPECT_NE(backup().find("BrM=1/Backup=1(it's=later)"), std::string::npos) << backup();
}

TEST_F(BackupFragments, NothingToStoreIsNoFailureAndLeavesNoFile)
{
    ASSERT_TRUE(insert("ManagedElement=1"));
    fs::remove(dumpFile());
    EXPECT_TRUE(store().storeBrMBackup());
    EXPECT_FALSE(fs::exists(backupFile()));
    EXPECT_FALSE(fs::exists(dumpFile()));
    ASSERT_TRUE(store().shutdownDB());
    EXPECT_FALSE(store().storeBrMBackup());
}

TEST_F(BackupFragments, KeepTheirShapeWithAndWithoutTheirParent)
{
    const auto build = [] {
        EXPECT_TRUE(insert("ManagedElement=1"));
        for (const char* const root : {"ManagedElement=1,SwInventory=1", "ManagedElement=1,BrM=1"})
            for (const char* const below : {"", ",Part=1", ",Part=1,Leaf=1"})
                EXPECT_TRUE(insert(std::string(root) + below, {text("of", root)}));
    };
    ASSERT_TRUE(insert("Else=1"));
    ASSERT_TRUE(insert("ManagedElement=1"));
    putReady();
    build();
    const auto shape = [](const std::string& parent, const std::string& root) {
        const std::string of = "(of=ManagedElement=1," + root + ")";
        return parent + root + of + "," + parent + root + "/Part=1" + of + "," + parent + root + "/Part=1/Leaf=1" + of;
    };
    ASSERT_TRUE(store().storeBrMBackup());
    const std::string below = "ManagedElement=1/";
    EXPECT_EQ(backup(), "Else=1,ManagedElement=1," + shape(below, "BrM=1") + "," + shape(below, "SwInventory=1"));
    fs::remove(backupFile());
    for (int time = 1; time <= 2; ++time) {
        ASSERT_TRUE(store().storeBrMBackup());
        EXPECT_EQ(backup(), shape("", "BrM=1") + "," + shape("", "SwInventory=1")) << "time " << time;
    }
}

TEST_F(BackupFragments, FailuresAreToldAndPutEverythingBack)
{
    ASSERT_TRUE(insert("BrM=1", {text("a", "old")}, false));
    ASSERT_TRUE(insert("BrM=1,Backup=1", {}, false));
    const auto fails = [this](const char* why) {
        log.forget();
        EXPECT_FALSE(store().storeBrMBackup()) << why;
        EXPECT_EQ(log.count(mwLogError, "SQLite::storeBrMBackup, Failed to store SwInventory and BrM fragments"), 1)
            << why;
        EXPECT_NE(value("BrM=1", "a"), "(none)") << why;
        EXPECT_TRUE(middleware.state().controlledResets.empty()) << why;
    };
    {
        const ScopedVariable elsewhere("TAMO_BRM_BACKUP_PATH", path("absent"));
        fails("no directory");
    }
    writeJunk(backupFile());
    const auto junk = fs::file_size(backupFile());
    fails("no database");
    EXPECT_EQ(fs::file_size(backupFile()), junk);
    fs::resize_file(backupFile(), 0); // counts as missing
    ASSERT_TRUE(store().storeBrMBackup());
    const std::string stored = backup();
    ASSERT_TRUE(update("BrM=1", {text("a", "new")}));
    {
        const FullDrive full("database/pRBSdb");
        fails("no space");
    }
    EXPECT_EQ(backup(), stored) << "what was there is kept";
    store().setDatabaseFile(path("absent/dump"));
    fails("the tree cannot be saved");
    EXPECT_EQ(store().databaseFile(), path("absent/dump"));
    store().setDatabaseFile(dumpFile());
    queryFile(backupFile(), "create trigger refused before insert on DBObject when new.dn = 'Refused=1' begin select "
                            "raise(abort, 'refused'); end");
    ASSERT_TRUE(insert("BrM=1,Backup=2", {}, false));
    ASSERT_TRUE(insert("BrM=1,Refused=1", {}, false));
    ASSERT_TRUE(insert("SwInventory=1", {}, false));
    ASSERT_TRUE(insert("SwInventory=1,Item=1", {}, false));
    fails("an object is refused");
    EXPECT_EQ(log.count(mwLogError, "SQLite::storeBrMBackup, Failed to insert DBObject to " + backupFile()), 1);
    EXPECT_EQ(backup(), "BrM=1(a=new),BrM=1/Backup=1,BrM=1/Backup=2,SwInventory=1") << "those before it are stored";
    EXPECT_TRUE(anotherConnectionCanWrite());
}
