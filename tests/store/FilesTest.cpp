// Database files: where they are, how they are loaded and saved, and what is left alone.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include "store/FileLocations.h"

#include <sqlite3.h>

#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

using Direction = SQLite::Direction;
using Files = TempStore;
using Locations = TempDirectories;

const std::string schema =
    "select count(*)||':'||group_concat(name) from (select name from sqlite_master order by name)";
const std::string wholeSchema = "4:Attribute,DBObject,unique_attribute,unique_object";

std::string directory(int kind)
{
    std::string path;
    Get_TAMO_DB_path(path, kind);
    return path;
}

/// Every operation that asks for a database gives its failure value; the object's pair is A=1.
void expectRefusals(SQLite& store, std::int32_t id)
{
    DBObject made = container("A=1", {reference("a", "B=1")});
    EXPECT_FALSE(store.sql_start_transaction());
    EXPECT_FALSE(store.sql_commit_transaction());
    EXPECT_FALSE(store.sql_rollback_transaction());
    EXPECT_FALSE(store.sql_insert(&made, false, "test"));
    EXPECT_FALSE(store.sql_insert_to_commondb(&made, false, 0, "test", true));
    EXPECT_FALSE(store.sql_update(&made, false, "test"));
    EXPECT_FALSE(store.delete_object("A=1", 1, false, "test"));
    EXPECT_FALSE(store.deleteAttribute("a", id, false));
    EXPECT_FALSE(store.sql_get_object(id, "test"));
    EXPECT_FALSE(store.sql_get_object("A=1", 1, "test"));
    EXPECT_FALSE(store.sql_get_attribute(id, "a", "test", true));
    EXPECT_FALSE(store.sql_get_attribute("A=1", "a", "test", false));
    EXPECT_FALSE(store.sql_isPresent("A=1", 1));
    EXPECT_FALSE(store.checkAttributeExistence("a", id));
    EXPECT_FALSE(store.checkPersistentDataExistenceFromDB());
    EXPECT_FALSE(store.idExists(id));
    EXPECT_EQ(store.get_object_id("A=1", 1), 0);
    EXPECT_EQ(store.get_whole_dn(id), " ");
    EXPECT_EQ(store.get_whole_dn("A=1", ""), " ");
    EXPECT_TRUE(store.get_MO_class("A").empty());
    EXPECT_TRUE(store.get_MO_class_with_parent("", "A").empty());
    EXPECT_TRUE(store.get_all_children("", 1, id).empty());
    EXPECT_NE(store.loadOrSaveDb(Direction::load), SQLITE_OK);
    EXPECT_NE(store.loadOrSaveDb(Direction::save), SQLITE_OK);
}

} // namespace

TEST_F(Locations, LengthOfAPathDecidesWhetherItCounts)
{
    const auto permanent = [](std::size_t length) {
        const ScopedVariable set("TAMO_DB_FILE_PATH", std::string(length, 'p'));
        return directory(permanentDirectory);
    };
    const auto runtime = [](std::size_t length) {
        const ScopedVariable set("TAMO_DB_RUNTIME_PATH", std::string(length, 'r'));
        return runtimeFile();
    };
    EXPECT_EQ(permanent(4095), std::string(4095, 'p'));
    EXPECT_EQ(permanent(4096), std::string(4095, 'p'));
    EXPECT_EQ(permanent(4097), fs::read_symlink("/proc/self/exe").parent_path());
    EXPECT_EQ(runtime(498), std::string(498, 'r') + "/pRBSdb");
    EXPECT_EQ(runtime(499), "/pRBSdb");
    const ScopedVariable unset("TAMO_DB_DUMP_FILE_PATH", std::nullopt);
    EXPECT_EQ(dumpFile(), "./DatabaseDump");
}

TEST_F(Locations, CommonFileStandsBehindASeparatorWhereThereIsOne)
{
    const auto file = [](const std::optional<std::string>& value) {
        const ScopedVariable set("TAMO_PERSISTENT_STORAGE", value);
        return commonDbWriteFile().value_or("(none)");
    };
    EXPECT_EQ(file("/a/b"), "/a/b/commondb");
    EXPECT_EQ(file("/a/b/"), "/a/b/commondb");
    EXPECT_EQ(file("/"), "/commondb");
    EXPECT_EQ(file("plain"), "plaincommondb");
    EXPECT_EQ(file(std::nullopt), "(none)");
}

TEST_F(Locations, OnlyEmptyRegularFilesAreTidiedAway)
{
    writeJunk(path("full"), 1);
    writeJunk(path("empty"), 0);
    writeJunk(path("empty-journal"), 1);
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_TRUE(SQLite::CheckIfFileExists(path("full")));
    for (const char* other : {"empty", "pipe", "flash", "absent"})
        EXPECT_FALSE(SQLite::CheckIfFileExists(path(other))) << other;
    EXPECT_FALSE(fs::exists(path("empty")));
    EXPECT_FALSE(fs::exists(path("empty-journal")));
    EXPECT_TRUE(fs::exists(path("pipe")));
    EXPECT_TRUE(fs::is_directory(path("flash")));
}

TEST_F(Locations, StoreWithoutARuntimeDatabaseFailsEverythingAndOrdersNothing)
{
    const ScopedVariable nowhere("TAMO_DB_RUNTIME_PATH", path("absent"));
    SQLite& store = SQLite::getInstance();
    EXPECT_FALSE(store.hasRuntimeConnection());
    EXPECT_EQ(log.count(mwLogError, "Can't create runtime database file"), 1);
    expectRefusals(store, 1);
    EXPECT_EQ(store.get_object_id_with_parent("A=1", 0), 0);
    EXPECT_FALSE(store.checkReference("A=1", {}));
    store.removeReference(1, false);
    EXPECT_FALSE(store.updateDn("A=1", "A=2"));
    EXPECT_NE(store.convertToCurrentVersion(), SQLITE_OK);
    EXPECT_EQ(store.getMoClassInstance("A=%"), "A=%");
    EXPECT_TRUE(middleware.state().controlledResets.empty());
    SQLite::destroyInstance();
}

TEST_F(Files, MissingFileIsMadeAndOneThatCannotBeOpenedSetsTheLoadError)
{
    ASSERT_TRUE(insert("A=1"));
    store().setDatabaseFile(path("new"));
    ASSERT_EQ(store().loadOrSaveDb(Direction::save), SQLITE_OK);
    EXPECT_EQ(queryFile(path("new"), schema), wholeSchema);
    store().setDatabaseFile(path("newer"));
    ASSERT_EQ(store().loadOrSaveDb(Direction::load), SQLITE_OK);
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject");
    EXPECT_FALSE(store().loadError());
    store().setDatabaseFile(path("absent/file"));
    EXPECT_EQ(store().loadOrSaveDb(Direction::save), SQLITE_CANTOPEN);
    EXPECT_FALSE(store().loadError());
    EXPECT_EQ(store().loadOrSaveDb(Direction::load), SQLITE_CANTOPEN);
    EXPECT_TRUE(store().loadError());
    EXPECT_EQ(log.count(mwLogError, "Error opening database file!"), 2);
    store().setDatabaseFile(path("new"));
    ASSERT_EQ(store().loadOrSaveDb(Direction::load), SQLITE_OK);
    EXPECT_FALSE(store().loadError());
    EXPECT_NE(idOf("A=1"), 0);
}

TEST_F(Files, SchemaThatCannotBeWrittenIsALoadError)
{
    store().setDatabaseFile(path("new"));
    const FullDrive full("/new");
    EXPECT_NE(store().loadOrSaveDb(Direction::load), SQLITE_OK);
    EXPECT_TRUE(store().loadError());
    EXPECT_EQ(log.count(mwLogError, "Error while creating new database file: sqlite3_step() returned"), 1);
}

TEST_F(Files, FailedSaveKeepsTheOldFileWhole)
{
    store().setDatabaseFile(path("lasting"));
    ASSERT_EQ(store().loadOrSaveDb(Direction::save), SQLITE_OK);
    ASSERT_TRUE(insert("A=1", {text("a", std::string(50000, 'x'))}));
    ASSERT_TRUE(update("A=1", {text("b", "x")}));
    store().setDatabaseFile(path("lasting"));
    const std::string before = queryFile(path("lasting"), "select quote(value) from Attribute");
    ASSERT_TRUE(update("A=1", {text("a", std::string(90000, 'y'))}));
    {
        const FullDrive full("/lasting");
        EXPECT_NE(store().loadOrSaveDb(Direction::save), SQLITE_OK);
    }
    EXPECT_EQ(queryFile(path("lasting"), "pragma integrity_check"), "ok");
}

TEST_F(Files, RemovalTakesSideFilesAndWhatWasPutAside)
{
    for (const char* name : {"flash/pRBSdb", "flash/pRBSdb-journal", "flash/pRBSdb-wal", "flash/pRBSdb.rejected",
                             "runtime/Database.rejected"})
        writeJunk(path(name));
    EXPECT_TRUE(store().removeDatabaseFile("pRBSdb"));
    EXPECT_TRUE(fs::is_empty(path("flash")));
    EXPECT_FALSE(fs::exists(path("runtime/Database.rejected")));
    EXPECT_TRUE(store().removeDatabaseFile("pRBSdb")) << "gone already";
    EXPECT_FALSE(store().removeDatabaseFile(""));
}

TEST_F(Files, ShutDownEndsEveryOperation)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const std::int32_t id = idOf("A=1");
    writeJunk(path("flash/pRBSdb"));
    DBObject made = container("B=1");
    ASSERT_TRUE(store().sql_start_transaction());
    ASSERT_TRUE(store().sql_insert(&made, true, "test"));
    ASSERT_TRUE(store().shutdownDB());
    EXPECT_FALSE(fs::exists(path("flash/pRBSdb")));
    EXPECT_NE(store().runtime()->execute("COMMIT"), SQLITE_OK) << "the commit hook refuses";
    const std::string before = everything();
    fs::remove(path("dump/DatabaseDump"));
    expectRefusals(store(), id);
    EXPECT_EQ(store().get_object_name("A=1", false), "");
    EXPECT_FALSE(store().loadPermanentConfFile());
    EXPECT_FALSE(store().checkIsSameValue(Value(std::int32_t{1}), 3, "1", Value(std::int32_t{1})));
    EXPECT_EQ(everything(), before);
    EXPECT_FALSE(fs::exists(path("dump/DatabaseDump")));
    EXPECT_TRUE(fs::is_empty(path("common")));
}
