// What a start decides from the reset reason, the common database, the files and the system mode.

#include "tests/persistence/StartFiles.h"
#include "tests/support/Faults.h"

#include "persistence/Surroundings.h"
#include "platform/messages/Notifications.h"
#include "store/FileLocations.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

using Resets = std::vector<std::pair<int, int>>;

enum class File { absent, empty, sound, otherMode, junk, overwritten, tableless, twins, directory };

/// A start: what it finds, and what is to come of it.
struct Start {
    std::string name;
    int middlewareReason = 6;
    std::optional<int> commonReason = {};
    bool backupOngoing = false;
    File permanent = File::sound;
    File backup = File::absent;

    bool loaded = false;
    int reason = 12;
    std::string tree = {};
    Resets resets = {};
    int activePartition = 1;
    std::string reasonLeft = {}; // in the common database
    std::string databaseFile = "flash/pRBSdb";
    bool permanentStays = true;
};

void PrintTo(const Start& start, std::ostream* out) { *out << start.name; }

/// What the test's node starts from; a fallback is to go to 2.
constexpr int startedPartition = 3;

class StartUp : public StartFiles, public testing::WithParamInterface<Start> {
protected:
    StartUp()
    {
        NodeState node = middleware.state();
        node.startedPartition = startedPartition;
        node.resetReason = GetParam().middlewareReason;
        node.operationMode = 5;
        middleware.set(node);
        fs::create_directories(path("backup/database"));
    }

    void make(const std::string& file, File kind, const std::string& marker)
    {
        if (kind == File::absent)
            return;
        if (kind == File::directory)
            fs::create_directories(file + "/inside");
        else if (kind == File::junk || kind == File::empty)
            writeJunk(file, kind == File::junk ? 8192 : 0);
        else
            makeDatabase(file, {container(marker + "=1", {text("name", std::string(20000, 'x'))}),
                                container("OAM", {attribute("systemMode", kind == File::otherMode ? 7 : 5)}, false)});
        if (kind == File::overwritten)
            corruptFile(file);
        else if (kind == File::tableless)
            change(file, "drop table Attribute");
        else if (kind == File::twins)
            change(file, "drop index unique_object; insert into DBObject values(50,0,'B=1',1,1,0),(51,0,'B=1',1,1,0)");
    }
    static void change(const std::string& file, const char* sql)
    {
        Connection connection;
        ASSERT_EQ(connection.open(file, SQLITE_OPEN_READWRITE, 0), SQLITE_OK);
        ASSERT_EQ(connection.execute(sql), SQLITE_OK) << connection.message();
    }
};

std::string nameOf(const testing::TestParamInfo<Start>& info) { return info.param.name; }

} // namespace

TEST_P(StartUp, DecidesAsTheFilesAndReasonsSay)
{
    const Start& start = GetParam();
    make(permanent(), start.permanent, "Stored");
    make(backup(), start.backup, "Restored");
    if (start.commonReason || start.backupOngoing)
        makeCommon(start.commonReason ? std::optional<Value>(*start.commonReason) : std::nullopt,
                   start.backupOngoing ? std::optional<Value>(true) : std::nullopt);
    EXPECT_EQ(store().loadPermanentConfFile(), start.loaded);
    EXPECT_EQ(store().resetReason(), start.reason);
    EXPECT_TRUE(!start.loaded || tree() == start.tree) << tree();
    EXPECT_EQ(middleware.state().controlledResets, start.resets);
    EXPECT_EQ(middleware.state().activePartition, start.activePartition);
    EXPECT_EQ(fs::exists(commonFile()) ? commonFact("resetReason") : "", start.reasonLeft);
    EXPECT_EQ(store().databaseFile(), path(start.databaseFile));
    EXPECT_EQ(fs::exists(permanent()), start.permanentStays);
}

INSTANTIATE_TEST_SUITE_P(
    OrdinaryStarts, StartUp,
    testing::Values(
        Start{.name = "Sound", .loaded = true, .tree = "OAM,Stored=1"},
        Start{.name = "SoundWithReason", .commonReason = 3, .loaded = true, .reason = 3, .tree = "Common,OAM,Stored=1"},
        Start{.name = "ReasonsDiffer",
              .middlewareReason = 0,
              .commonReason = 3,
              .loaded = true,
              .reason = 3,
              .tree = "Common,OAM,Stored=1"},
        Start{.name = "UnknownReason", .middlewareReason = 16, .loaded = true, .reason = 26, .tree = "OAM,Stored=1"},
        Start{.name = "NegativeReason", .middlewareReason = -1, .loaded = true, .reason = 26, .tree = "OAM,Stored=1"},
        Start{.name = "FactoryReset",
              .middlewareReason = 2,
              .reason = 7,
              .databaseFile = "runtime/Database",
              .permanentStays = false},
        Start{.name = "FactoryResetByCommon",
              .commonReason = 7,
              .reason = 7,
              .databaseFile = "runtime/Database",
              .permanentStays = false},
        Start{.name = "Absent", .permanent = File::absent, .databaseFile = "runtime/Database", .permanentStays = false},
        Start{.name = "Empty", .permanent = File::empty, .databaseFile = "runtime/Database", .permanentStays = false},
        Start{.name = "Directory", .permanent = File::directory, .databaseFile = "runtime/Database"},
        Start{.name = "NotConvertible", .permanent = File::twins, .loaded = false}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    DamagedFiles, StartUp,
    testing::Values(
        Start{.name = "Junk", .permanent = File::junk, .resets = {{1, 0}}, .activePartition = 2, .reasonLeft = "2"},
        Start{.name = "JunkAfterReason",
              .commonReason = 3,
              .permanent = File::junk,
              .reason = 3,
              .resets = {{1, 0}},
              .activePartition = 2,
              .reasonLeft = "2"},
        Start{.name = "TableMissing",
              .permanent = File::tableless,
              .loaded = true,
              .tree = "OAM,Stored=1",
              .resets = {{1, 0}, {1, 0}},
              .activePartition = 2,
              .reasonLeft = "2"}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    SystemModes, StartUp,
    testing::Values(Start{.name = "OtherMode", .permanent = File::otherMode, .loaded = true, .tree = "OAM,Stored=1"},
                    Start{.name = "AfterOurFallback",
                          .commonReason = 2,
                          .permanent = File::otherMode,
                          .reason = 2,
                          .resets = {{1, 1}},
                          .activePartition = startedPartition,
                          .reasonLeft = "2"},
                    Start{.name = "AfterMiddlewareFallback",
                          .middlewareReason = 9,
                          .permanent = File::otherMode,
                          .reason = 22,
                          .resets = {{1, 1}},
                          .activePartition = startedPartition}),
    nameOf);

INSTANTIATE_TEST_SUITE_P(
    BackupAndRestore, StartUp,
    testing::Values(
        Start{.name = "Restore",
              .commonReason = 19,
              .backupOngoing = true,
              .backup = File::sound,
              .loaded = true,
              .reason = 19,
              .tree = "Common,OAM,Restored=1"},
        Start{.name = "RestoreWithoutPermanent",
              .commonReason = 20,
              .backupOngoing = true,
              .permanent = File::absent,
              .backup = File::sound,
              .loaded = true,
              .reason = 20,
              .tree = "Common,OAM,Restored=1"},
        Start{.name = "NothingToRestore",
              .commonReason = 19,
              .backupOngoing = true,
              .reason = 19,
              .databaseFile = "runtime/Database"},
        Start{.name = "RestoreOfJunk", .commonReason = 19, .backupOngoing = true, .backup = File::junk, .reason = 19},
        Start{.name = "RestoreOfOtherMode",
              .commonReason = 20,
              .backupOngoing = true,
              .backup = File::otherMode,
              .reason = 20,
              .resets = {{1, 1}},
              .activePartition = startedPartition,
              .reasonLeft = "20"},
        Start{.name = "UnexpectedReset",
              .middlewareReason = 0,
              .backupOngoing = true,
              .backup = File::sound,
              .reason = 5,
              .resets = {{1, 1}},
              .databaseFile = "common/commondb"},
        Start{.name = "UnexpectedResetWithRestoreReason",
              .middlewareReason = 0,
              .commonReason = 19,
              .backupOngoing = true,
              .backup = File::sound,
              .reason = 19,
              .resets = {{1, 1}},
              .databaseFile = "common/commondb"}),
    nameOf);

namespace {

class StartUpFiles : public StartFiles {
protected:
    void makePermanent() { makeDatabase(permanent(), {container("Stored=1", {text("name", "kept")})}); }
};

} // namespace

TEST_F(StartUpFiles, FactoryResetLeavesNoOlderConfiguration)
{
    std::ofstream(rejectedName(permanent())) << "put aside by an earlier start";
    std::ofstream(rejectedName(path("runtime/Database"))) << "the same";
    NodeState node = middleware.state();
    node.resetReason = 2;
    middleware.set(node);
    EXPECT_FALSE(store().loadPermanentConfFile());
    EXPECT_FALSE(fs::exists(rejectedName(permanent())));
    EXPECT_FALSE(fs::exists(rejectedName(path("runtime/Database"))));
}

TEST_F(StartUpFiles, InterruptedStoreGivesWayToTheConfigurationBeforeIt)
{
    const std::string previous = permanent() + ".previous";
    for (const int left : {-1, 0, 5000}) { // bytes of what was being written
        makePermanent();
        fs::rename(permanent(), previous);
        if (left >= 0)
            writeJunk(permanent(), left);
        EXPECT_TRUE(store().loadPermanentConfFile()) << left;
        EXPECT_EQ(tree(), "Stored=1") << left;
        EXPECT_FALSE(fs::exists(previous));
        SQLite::destroyInstance(false);
        fs::remove(permanent());
    }
    makePermanent();
    fs::rename(permanent(), previous);
    EXPECT_TRUE(store().removeDatabaseFile("pRBSdb"));
    EXPECT_FALSE(store().loadPermanentConfFile()) << "what is removed does not come back";
}

TEST_F(StartUpFiles, ConsumedReasonLeavesTheRestOfTheCommonObject)
{
    makePermanent();
    makeCommon(19, false);
    ASSERT_TRUE(store().loadPermanentConfFile());
    EXPECT_EQ(commonFact("resetReason"), "");
    EXPECT_EQ(commonFact("brmOngoing"), "0");
    const auto common = store().sql_get_object("Common", 1, "test");
    ASSERT_TRUE(common);
    EXPECT_TRUE(common->getAttribute("brmOngoing"));
    EXPECT_FALSE(common->getAttribute("resetReason"));
    SQLite::destroyInstance(false);
    ASSERT_TRUE(store().loadPermanentConfFile());
    EXPECT_EQ(store().resetReason(), 12) << "a reason counts for one start";
}

TEST_F(StartUpFiles, FactsOfAnotherKindAreAbsentAndNamed)
{
    makePermanent();
    makeCommon(std::string("2"), std::int32_t{1});
    ASSERT_TRUE(store().loadPermanentConfFile());
    EXPECT_EQ(store().resetReason(), 12);
    EXPECT_EQ(log.count(mwLogError, "brmOngoing in the common database"), 1);
    EXPECT_EQ(log.count(mwLogError, "resetReason in the common database"), 1);
    EXPECT_TRUE(middleware.state().controlledResets.empty());
}

TEST_F(StartUpFiles, DamagedCommonDatabaseIsPutAsideAndStopsNothing)
{
    const std::string aside = commonFile() + ".rejected";
    for (const bool junk : {true, false}) {
        fs::remove(permanent());
        makePermanent();
        fs::remove(commonFile());
        makeDatabase(
            commonFile(),
            {container("Common", {attribute("resetReason", 2), text("much", std::string(20000, 'x'))}, false)});
        junk ? writeJunk(commonFile()) : corruptFile(commonFile());
        EXPECT_TRUE(store().loadPermanentConfFile());
        EXPECT_EQ(tree(), "Stored=1");
        EXPECT_FALSE(fs::exists(commonFile()));
        EXPECT_TRUE(fs::remove(aside));
        EXPECT_TRUE(middleware.state().controlledResets.empty());
        EXPECT_FALSE(store().loadError());
        SQLite::destroyInstance(false);
    }
    EXPECT_EQ(log.count(mwLogWarning, "is put aside as " + aside), 2);
}

// What another program made of the file is no reason to refuse the permanent one, which is as ever.
TEST_F(StartUpFiles, FormatOfTheCommonDatabaseIsItsOwn)
{
    makePermanent();
    for (const char* format : {"pragma encoding = 'UTF-16le'", "pragma page_size = 65536; pragma journal_mode = wal"}) {
        fs::remove(commonFile());
        Connection common;
        ASSERT_EQ(common.open(commonFile(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, 0), SQLITE_OK);
        common.execute(format);
        ASSERT_EQ(common.execute("create table DBObject(id integer primary key, parent, dn, MOInstance, isMOMObject, "
                                 "system);"
                                 "create table Attribute(id integer primary key, belongsTo, name, value, value_type, "
                                 "hidden, persistent);"
                                 "insert into DBObject values(0, 0, 'baseobject', 1, 0, 0), (1, 0, 'Common', 1, 0, 0);"
                                 "insert into Attribute values(1, 1, 'resetReason', '3', 3, 0, 0)"),
                  SQLITE_OK);
        common.close();
        EXPECT_TRUE(store().loadPermanentConfFile());
        EXPECT_EQ(tree(), "Common,Stored=1");
        EXPECT_EQ(store().resetReason(), 3);
        EXPECT_TRUE(middleware.state().controlledResets.empty());
        SQLite::destroyInstance(false);
    }
}

TEST_F(StartUpFiles, FullRuntimeDriveNeitherCondemnsNorReplacesTheConfiguration)
{
    makePermanent();
    makeCommon(3, std::nullopt);
    {
        const FullDrive full("runtime/pRBSdb");
        EXPECT_FALSE(store().loadPermanentConfFile());
        EXPECT_TRUE(store().loadError()) << "else the file is put aside, and the next start comes up empty";
    }
    EXPECT_TRUE(middleware.state().controlledResets.empty()) << "the file itself is sound";
    SQLite::destroyInstance(false);
    EXPECT_TRUE(store().loadPermanentConfFile());
    EXPECT_EQ(store().resetReason(), 3) << "the facts of the common database wait as well";
}

TEST_F(StartUpFiles, CommonDatabaseThatCannotBeCheckedNowIsKeptForTheNextStart)
{
    makePermanent();
    makeCommon(3, std::nullopt);
    const auto refuse = [](void*, int action, const char*, const char*, const char*, const char*) {
        return action == SQLITE_PRAGMA ? SQLITE_DENY : SQLITE_OK;
    };
    sqlite3_set_authorizer(store().runtime()->handle(), refuse, nullptr); // until that connection is closed
    EXPECT_TRUE(store().loadPermanentConfFile());
    EXPECT_EQ(store().resetReason(), 12);
    EXPECT_EQ(commonFact("resetReason"), "3");
}

TEST_F(StartUpFiles, ModeMismatchIsAFaultAndMarkedInTheTree)
{
    makeDatabase(permanent(), {container("OAM", {attribute("systemMode", 7)}, false)});
    DatabaseNode db(path("run"));
    Service faultManagement(path("run"), "fm", 3);
    ASSERT_TRUE(store().loadPermanentConfFile());
    const auto fault = faultManagement.next<TAMO::Messages::TAMO_FaultNotification>();
    ASSERT_TRUE(fault);
    EXPECT_EQ(fault->faultCode, 0x5120);
    EXPECT_EQ(fault->raise, 1);
    EXPECT_EQ(store().sql_get_attribute("OAM", "modeValidationFailed", "test", false)->ToStr(), "1");
    EXPECT_EQ(middleware.state().operationMode, 7);
    SQLite::destroyInstance(false);
    ASSERT_TRUE(store().loadPermanentConfFile());
    EXPECT_EQ(log.count(mwLogInfo, "System modes matched. 7(pRBSdb) == 7(AMW)"), 1);
}

TEST_F(StartUpFiles, UnusableBackupDirectoriesAreNotRemoved)
{
    makePermanent();
    makeCommon(std::nullopt, true);
    fs::create_directories(path("database/inside"));
    // The backup directory's place holds the common database.
    fs::rename(path("common"), path("database/common"));
    const ScopedVariable common("TAMO_PERSISTENT_STORAGE", path("database/common"));
    const ScopedVariable backups("TAMO_BRM_BACKUP_PATH", path("."));
    EXPECT_FALSE(store().loadPermanentConfFile());
    EXPECT_TRUE(fs::exists(path("database/inside")));
    EXPECT_EQ(log.count(mwLogError, "it holds the common database"), 1);
    EXPECT_EQ(queryFile(path("database/common/commondb"), "select value from Attribute where name = 'brmOngoing'"),
              "0");
}

TEST_F(StartUpFiles, CommonDatabaseThatCannotTakeTheEndOfABackupIsPutAside)
{
    makePermanent();
    makeCommon(std::nullopt, true);
    {
        const FullDrive full("commondb");
        const FullDrive journal("commondb-journal");
        EXPECT_FALSE(store().loadPermanentConfFile());
    }
    EXPECT_FALSE(fs::exists(commonFile()));
    EXPECT_TRUE(fs::exists(commonFile() + ".rejected"));
    SQLite::destroyInstance(false);
    EXPECT_TRUE(store().loadPermanentConfFile()) << "the next start is an ordinary one";
}

TEST_F(StartUpFiles, SurroundingsThatCannotServeAreNamed)
{
    const ScopedVariable temporary("TAMO_BRM_TEMP_FILE_PATH", path("backup"));
    reportUnusableSurroundings();
    EXPECT_EQ(log.count(mwLogError, ""), 0) << "what the tests themselves run in is in order";
    const ScopedVariable common("TAMO_PERSISTENT_STORAGE", std::nullopt);
    const ScopedVariable dump("TAMO_DB_DUMP_FILE_PATH", std::nullopt);
    const ScopedVariable backups("TAMO_BRM_BACKUP_PATH", "");
    const ScopedVariable flash("TAMO_DB_FILE_PATH", std::string(4097, 'x'));
    const ScopedVariable programs("PATH", path("."));
    reportUnusableSurroundings();
    EXPECT_EQ(log.count(mwLogError, "TAMO_PERSISTENT_STORAGE is not set"), 1);
    EXPECT_EQ(log.count(mwLogError, "TAMO_BRM_BACKUP_PATH is empty"), 1);
    EXPECT_EQ(log.count(mwLogError, "TAMO_DB_FILE_PATH is too long"), 1);
    EXPECT_EQ(log.count(mwLogError, "Environment variable"), 3) << "a default takes the dump directory's place";
    EXPECT_EQ(log.count(mwLogError, "is not on PATH"), 5);
}
