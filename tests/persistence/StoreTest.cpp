// What reaches the flash, and what happens to it when files, drives and programs are not as they
// should be.

#include "tests/support/Faults.h"
#include "tests/support/StoringStore.h"

#include "platform/utility/SystemFunctions.h"

#include <sqlite3.h>

#include <csignal>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

[[maybe_unused]] const bool privateTmp = givePrivateTmp();

std::string randomText(std::size_t size)
{
    static std::mt19937 draw(7);
    std::string text(size, ' ');
    for (char& character : text)
        character = static_cast<char>('a' + draw() % 26);
    return text;
}

class Store : public TempStore {
protected:
    Store()
    {
        fs::create_directories(path("brm"));
        EXPECT_TRUE(insert("A=1"));
        EXPECT_TRUE(insert("A=1,B=1", {text("plain", "p")}));
        EXPECT_TRUE(insert("A=1,B=1,C=1", {kept("deep", "1"), text("beside", "p")}));
        EXPECT_TRUE(insert("A=1,B=2", {text("plain", "p")}));
        EXPECT_TRUE(insert("A=1,B=2,C=1", {text("plain", "p")}));
    }
    ~Store() override { EXPECT_TRUE(StoredFiles::tidy()); }

    std::string permanent() const { return path("flash/pRBSdb"); }
    bool change(const std::string& value) { return update("A=1,B=1,C=1", {kept("deep", value)}); }
    /// The periodic store, which must write (or not) and answer true.
    testing::AssertionResult writes() { return periodic("pRBSdb stored to flash"); }
    testing::AssertionResult leaves() { return periodic("pRBSdb not stored to flash"); }
    bool sound() const
    {
        return queryFile(permanent(), "PRAGMA integrity_check") == "ok" &&
               StoredFiles::objects(permanent()) == "A=1,B=1,C=1,baseobject";
    }

private:
    testing::AssertionResult periodic(const std::string& line)
    {
        log.forget();
        if (!store().storeDbToFlash())
            return testing::AssertionFailure() << "answered false";
        if (log.count(mwLogInfo, "SQLite::storeDbToFlash: " + line) != 1)
            return testing::AssertionFailure() << "no line: " << line;
        return testing::AssertionSuccess();
    }

    StoredFiles m_files;

protected:
    ScopedVariable m_brm{"TAMO_BRM_TEMP_FILE_PATH", path("brm")};
};

} // namespace

TEST_F(Store, PersistentAttributesAndTheirAncestorsReachTheFlashAndNothingElse)
{
    const std::string before = everything();
    EXPECT_TRUE(store().storePersistentDump(false));
    EXPECT_TRUE(sound());
    EXPECT_EQ(StoredFiles::values(permanent()), "deep=1");
    EXPECT_EQ(everything(), before) << "the live tree is only read";
    EXPECT_EQ(fs::status(permanent()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_TRUE(insert("OAM", {attribute("AI_phase", 4)}, false));
    Attribute parked = text("waiting", "w");
    parked.slot = 2;
    ASSERT_TRUE(update("A=1,B=2,C=1", {parked}));
    EXPECT_TRUE(writes());
    EXPECT_EQ(StoredFiles::objects(permanent()), "A=1,B=1,B=2,C=1,C=1,baseobject") << "a parked value keeps its object";
    EXPECT_EQ(queryFile(permanent(), "select value from Attribute_AltStorage"), "w");
}

TEST_F(Store, NothingPersistentWritesNothing)
{
    ASSERT_TRUE(store().delete_object("A=1,B=1,C=1", 1, false, "test"));
    EXPECT_TRUE(store().storeDbToFlash());
    EXPECT_TRUE(store().storePersistentDump(false));
    EXPECT_EQ(log.count(mwLogInfo, "No persistent MOs to store."), 2);
    EXPECT_FALSE(fs::exists(permanent()));
}

TEST_F(Store, PeriodicStoreWritesOnlyWhatHasChanged)
{
    EXPECT_TRUE(writes()) << "nothing was there";
    const auto time = fs::last_write_time(permanent());
    ASSERT_TRUE(update("A=1,B=2", {text("plain", "changed")}));
    EXPECT_TRUE(leaves());
    EXPECT_EQ(fs::last_write_time(permanent()), time);
    ASSERT_TRUE(change("2"));
    EXPECT_TRUE(writes());
    EXPECT_EQ(StoredFiles::values(permanent()), "deep=2");
    // What is only added counts when its text holds a hyphen.
    ASSERT_TRUE(insert("A=1,B=1,C=1,D=1", {kept("added", "plain")}));
    EXPECT_TRUE(leaves());
    ASSERT_TRUE(insert("A=1,B=1,C=1,D=2", {kept("added", "hy-phen")}));
    EXPECT_TRUE(writes());
    EXPECT_EQ(StoredFiles::values(permanent()), "added=hy-phen,added=plain,deep=2");
}

TEST_F(Store, BackupLeavesInventoryAndAdministrationOut)
{
    ASSERT_TRUE(insert("SwInventory=1"));
    ASSERT_TRUE(insert("SwInventory=1,I=1", {kept("version", "1")}));
    ASSERT_TRUE(insert("A=1,BrM=1", {kept("label", "b")}));
    ASSERT_TRUE(insert("OAM", {attribute("AI_phase", 4)}, false));
    Attribute parked = text("waiting", "w");
    parked.slot = 2;
    ASSERT_TRUE(update("A=1,B=2,C=1", {parked}));
    ASSERT_TRUE(store().storePersistentDump(true));
    EXPECT_EQ(StoredFiles::objects(path("brm/pRBSdb")), "A=1,B=1,C=1,baseobject");
    EXPECT_EQ(queryFile(path("brm/pRBSdb"), "select name from sqlite_master where type = 'table'"),
              "DBObject,Attribute");
    EXPECT_FALSE(fs::exists(permanent())) << "a backup is not the configuration";
}

TEST_F(Store, BackupOverADatabaseInUseIsRefused)
{
    ASSERT_TRUE(store().storePersistentDump(false));
    ASSERT_TRUE(change("2"));
    fs::create_directory_symlink(path("flash"), path("link"));
    const std::string stored = StoredFiles::bytes(permanent());
    const std::string live = everything();
    for (const char* directory : {"flash", "link", "flash/../runtime", "runtime"}) {
        const ScopedVariable target("TAMO_BRM_TEMP_FILE_PATH", path(directory));
        EXPECT_FALSE(store().storePersistentDump(true)) << directory;
    }
    EXPECT_EQ(StoredFiles::bytes(permanent()), stored);
    EXPECT_EQ(everything(), live);
    fs::remove(permanent());
    const ScopedVariable target("TAMO_BRM_TEMP_FILE_PATH", path("link"));
    EXPECT_FALSE(store().storePersistentDump(true));
    EXPECT_FALSE(fs::exists(permanent())) << "nor where the configuration would be";
}

TEST_F(Store, WhateverStandsInThePermanentFilesPlaceIsReplaced)
{
    const auto replaced = [&](const char* what) {
        EXPECT_TRUE(writes()) << what;
        EXPECT_TRUE(sound()) << what;
        EXPECT_TRUE(leaves()) << what;
        fs::remove_all(permanent());
        fs::remove_all(permanent() + ".rejected");
    };
    replaced("nothing");
    std::ofstream(permanent()).close();
    replaced("an empty file");
    writeJunk(permanent());
    replaced("garbage");
    fs::create_directory(permanent());
    writeJunk(permanent() + "/inside");
    replaced("a directory");
    fs::create_symlink(path("nowhere"), permanent());
    replaced("a link to nothing");
    ASSERT_EQ(mkfifo(permanent().c_str(), 0600), 0);
    replaced("a pipe");
    EXPECT_FALSE(fs::exists(path("nowhere")));
}

TEST_F(Store, JournalOfTheOldContentDoesNotReachTheNew)
{
    ASSERT_TRUE(insert("A=1,B=1,C=1,D=1", {kept("large", std::string(30000, 'x'))}));
    ASSERT_TRUE(writes());
    {
        // A writer that was killed: its journal would put the pages of the old content back.
        const pid_t writer = fork();
        if (writer == 0) {
            Connection file;
            file.open(permanent(), SQLITE_OPEN_READWRITE, 0);
            file.execute("PRAGMA cache_size = 1; BEGIN; UPDATE Attribute SET value = zeroblob(20000)");
            kill(getpid(), SIGKILL);
        }
        waitpid(writer, nullptr, 0);
    }
    ASSERT_GT(fs::file_size(permanent() + "-journal"), 512U);
    ASSERT_TRUE(store().delete_object("A=1,B=1,C=1,D=1", 1, false, "test"));
    ASSERT_TRUE(change("2"));
    ASSERT_TRUE(store().storePersistentDump(false));
    EXPECT_TRUE(sound());
    EXPECT_EQ(StoredFiles::values(permanent()), "deep=2");
}

TEST_F(Store, LeftOversAndLinksAtTheFixedNamesAreRemovedNotFollowed)
{
    const std::string victim = path("victim");
    const auto plantsAndStores = [&](auto plant, const char* what) {
        writeJunk(victim, 100);
        for (const char* name : StoredFiles::fixedNames)
            plant(name);
        EXPECT_TRUE(change(what));
        EXPECT_TRUE(writes()) << what;
        EXPECT_EQ(StoredFiles::values(permanent()), std::string("deep=") + what);
        EXPECT_TRUE(StoredFiles::tidy()) << what;
        for (const char* name : StoredFiles::fixedNames)
            plant(name);
        EXPECT_TRUE(store().storePersistentDump(false)) << what;
        EXPECT_TRUE(StoredFiles::tidy()) << what;
        EXPECT_EQ(StoredFiles::bytes(victim), std::string(100, 'x')) << what;
    };
    plantsAndStores([](const std::string& name) { writeJunk(name, 3000); }, "garbage");
    plantsAndStores([&](const std::string& name) { fs::create_symlink(victim, name); }, "links");
    plantsAndStores([&](const std::string& name) { fs::create_symlink(path("runtime/pRBSdb"), name); }, "runtime");
    EXPECT_EQ(value("A=1,B=1", "plain"), "p");
    for (const char* inside : {"/tmp/tmp_pRBSdb/first", "/tmp/tmp_pRBSdb/second"}) {
        fs::create_directory("/tmp/tmp_pRBSdb");
        writeJunk(inside, 10);
        EXPECT_TRUE(store().storePersistentDump(false)) << inside;
    }
    EXPECT_TRUE(fs::remove("/tmp/tmp_pRBSdb.rejected/second")) << "somebody's directory is only moved";
    EXPECT_TRUE(fs::remove("/tmp/tmp_pRBSdb.rejected.rejected/first"));
    fs::remove("/tmp/tmp_pRBSdb.rejected");
    fs::remove("/tmp/tmp_pRBSdb.rejected.rejected");
}

TEST_F(Store, PathsThatTheShellWouldMisreadAndPathsTooLongToCompare)
{
    const fs::path before = fs::current_path();
    fs::current_path(path("flash")); // for the relative one
    for (const std::string& name : {path("it's $HOME; *"), path(std::string(240, 'd')), std::string("-n")}) {
        fs::create_directories(name);
        const ScopedVariable flash("TAMO_DB_FILE_PATH", name);
        ASSERT_TRUE(change("2"));
        EXPECT_TRUE(writes());
        ASSERT_TRUE(change("3"));
        EXPECT_TRUE(writes());
        EXPECT_EQ(StoredFiles::values(name + "/pRBSdb"), "deep=3");
        const bool tooLong = name.size() > 240;
        EXPECT_EQ(log.count(mwLogError, "longer than 255 characters"), tooLong ? 1 : 0);
        EXPECT_EQ(log.count(mwLogError), tooLong ? 1 : 0) << "one line";
        EXPECT_TRUE(tooLong ? writes() : leaves());
        log.forget();
    }
    fs::current_path(before);
}

TEST_F(Store, ComparisonThatCannotRunCountsAsChanged)
{
    ASSERT_TRUE(writes());
    // One program at a time is not there.
    for (const std::string& missing : {std::string("sqlite3"), std::string("grep")}) {
        fs::create_directories(path("bin-" + missing));
        for (const std::string program : {"sqlite3", "diff", "grep", "cp", "rm"})
            if (program != missing)
                fs::create_symlink("/usr/bin/" + program, path("bin-" + missing + "/" + program));
        const ScopedVariable programs("PATH", path("bin-" + missing));
        ASSERT_TRUE(change(missing));
        EXPECT_TRUE(writes()) << missing;
        EXPECT_EQ(StoredFiles::values(permanent()), "deep=" + missing);
    }
    EXPECT_TRUE(leaves());
}

TEST_F(Store, FullDriveFailsTheStoreAndTheNextOneSucceeds)
{
    if (!hasPrivateTmp())
        GTEST_SKIP() << "full drives need the right to mount";
    ASSERT_TRUE(insert("A=1,B=1,C=1,D=1", {kept("large", randomText(100000))}));
    const auto changeLarge = [&] { return update("A=1,B=1,C=1,D=1", {kept("large", randomText(100000))}); };
    {
        const NearlyFullTmp full(30000);
        EXPECT_FALSE(store().storePersistentDump(false)) << "the copy cannot be built";
        EXPECT_FALSE(store().storeDbToFlash());
        EXPECT_EQ(log.count(mwLogError, "error when copying to persistent database. SQLite error [database or disk is "
                                        "full]"),
                  2);
        EXPECT_FALSE(fs::exists(permanent()));
        EXPECT_TRUE(StoredFiles::tidy());
    }
    EXPECT_TRUE(writes());
    const std::string stored = StoredFiles::bytes(permanent());
    {
        const SmallDrive flash(path("flash"), 40000);
        std::ofstream(permanent(), std::ios::binary) << "old";
        EXPECT_FALSE(store().storePersistentDump(false)) << "it cannot be copied";
        EXPECT_FALSE(store().storeDbToFlash());
        EXPECT_EQ(log.count(mwLogError, "Failed to copy new pRBSdb to " + permanent()), 1);
        EXPECT_EQ(log.count(mwLogError, "failed to copy new pRBSdb to flash"), 1);
        EXPECT_TRUE(StoredFiles::tidy());
    }
    EXPECT_EQ(StoredFiles::bytes(permanent()), stored);
    ASSERT_TRUE(changeLarge());
    {
        const SmallDrive flash(path("flash"), 1000000);
        fs::copy_file(path("runtime/pRBSdb"), permanent()); // as good as any other old content
        const NearlyFullTmp full(200000);
        EXPECT_TRUE(writes()) << "dumps that are cut off decide nothing";
        EXPECT_EQ(log.count(mwLogError, "could not be dumped"), 1);
        EXPECT_EQ(queryFile(permanent(), "PRAGMA integrity_check"), "ok");
        EXPECT_EQ(queryFile(permanent(), "select length(value) from Attribute"), "1,100000");
    }
}

TEST_F(Store, ReadOnlyFlashAndMissingProgramsAnswerFalse)
{
    ASSERT_TRUE(writes());
    ASSERT_TRUE(change("2"));
    {
        fs::create_directories(path("none"));
        const ScopedVariable programs("PATH", path("none"));
        EXPECT_FALSE(store().storeDbToFlash());
        EXPECT_FALSE(store().storePersistentDump(false));
        EXPECT_TRUE(StoredFiles::tidy()) << "without rm, too";
    }
    EXPECT_EQ(StoredFiles::values(permanent()), "deep=1");
    {
        BrokenStep broken(handle(), "persistent = 1");
        EXPECT_TRUE(store().storePersistentDump(false)) << "an error is no proof that there is nothing to store";
    }
    if (!hasPrivateTmp())
        GTEST_SKIP() << "a read-only drive needs the right to mount";
    const SmallDrive flash(path("flash"), 1000000);
    ASSERT_TRUE(store().storePersistentDump(false));
    ASSERT_TRUE(change("3"));
    ASSERT_TRUE(flash.setReadOnly(true));
    EXPECT_FALSE(store().storeDbToFlash());
    EXPECT_FALSE(store().storePersistentDump(false));
    EXPECT_EQ(StoredFiles::values(permanent()), "deep=2");
    ASSERT_TRUE(flash.setReadOnly(false));
    EXPECT_TRUE(writes());
    EXPECT_EQ(StoredFiles::values(permanent()), "deep=3");
}

TEST_F(Store, ShutDownStoresNothing)
{
    ASSERT_TRUE(store().shutdownDB());
    EXPECT_FALSE(store().storeDbToFlash());
    EXPECT_FALSE(store().storePersistentDump(false));
    EXPECT_FALSE(store().storePersistentDump(true));
    EXPECT_FALSE(fs::exists(permanent()));
    EXPECT_FALSE(fs::exists(path("brm/pRBSdb")));
}
