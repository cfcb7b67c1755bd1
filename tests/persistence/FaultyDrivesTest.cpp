// Drives that are full or read-only under each directory in turn: which operations that takes away,
// that nothing is ordered for it, and that all of them work again afterwards.

#include "tests/support/StoringStore.h"

#include "store/FileLocations.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

/// The operations that still work, one letter each.
struct Fault {
    std::string directory;
    std::string whenFull;
    std::string whenReadOnly; // empty: cannot be made so while the live tree is open on it
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.directory; }

class FaultyDrives : public TempDirectories, public testing::WithParamInterface<Fault> {
protected:
    ~FaultyDrives() override { SQLite::destroyInstance(false); }

    static SQLite& store() { return SQLite::getInstance(); }
    void start()
    {
        ASSERT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
        store().setDatabaseFile(dumpFile());
    }
    static bool holds(const std::string& dn, const std::string& value)
    {
        const auto stored = store().sql_get_attribute(dn, "value", "test", false);
        return stored && stored->ToStr() == value;
    }
    static bool write(const std::string& dn, const std::string& value)
    {
        DBObject object = container(dn, {kept("value", value)}, false);
        // A refused commit has its error line; the answer is the insert's.
        return store().sql_insert(&object, false, "test") && holds(dn, value);
    }
    static bool writeCommon(const std::string& value)
    {
        DBObject object = container("Common", {text("value", value)}, false);
        return store().sql_insert_to_commondb(&object, false, 0, "test", false);
    }
    /// Tries everything with content that no file has room for already.
    std::string working()
    {
        m_value += std::string(30000, 'v');
        std::string letters;
        const auto note = [&](char letter, bool worked) { letters += worked ? std::string(1, letter) : ""; };
        note('I', write("Site=1", m_value)); // insert
        note('F', write("BrM=1", m_value));  // something for the fragments
        note('S', store().storePersistentDump(false));
        note('P', store().storeDbToFlash());
        note('B', store().storePersistentDump(true));
        note('R', store().storeBrMBackup());
        note('C', writeCommon(m_value));
        return letters;
    }
    void fill(const std::string& directory)
    {
        std::ofstream filler(path(directory) + "/filler", std::ios::binary);
        const std::string block(4096, 'f');
        while (filler.write(block.data(), 4096).flush()) {
        }
    }

private:
    const ScopedVariable m_backupPlace{"TAMO_BRM_TEMP_FILE_PATH", path("temporary")};
    const StoringTurn m_turn;
    std::string m_value;
};

} // namespace

TEST_P(FaultyDrives, TakeAwayWhatNeedsThemAndOrderNothing)
{
    if (!hasPrivateTmp())
        GTEST_SKIP() << "drives of a test's own need the right to mount";
    const std::string everything = "IFSPBRC";
    const auto& [directory, whenFull, whenReadOnly] = GetParam();
    fs::create_directories(path("temporary"));
    constexpr std::size_t size = 2U << 20U;
    const SmallDrive drive(path(directory), size);
    fs::create_directories(path("backup/database"));
    start();
    ASSERT_EQ(working(), everything);
    fill(directory);
    EXPECT_EQ(working(), whenFull);
    fs::remove(path(directory) + "/filler");
    EXPECT_EQ(working(), everything) << "space is back";
    if (!whenReadOnly.empty()) {
        ASSERT_TRUE(drive.setReadOnly(true));
        EXPECT_EQ(working(), whenReadOnly);
        ASSERT_TRUE(drive.setReadOnly(false));
        EXPECT_EQ(working(), everything) << "writable again";
    }
    EXPECT_TRUE(middleware.state().controlledResets.empty());
    EXPECT_TRUE(StoredFiles::tidy());
    EXPECT_EQ(store().databaseFile(), dumpFile());
}

INSTANTIATE_TEST_SUITE_P(EachDirectory, FaultyDrives,
                         testing::Values(Fault{"flash", "IFBRC", "IFBRC"}, Fault{"common", "IFSPBR", "IFSPBR"},
                                         Fault{"dump", "IFSPBC", "IFSPBC"}, Fault{"backup", "IFSPBC", "IFSPBC"},
                                         Fault{"temporary", "IFSPRC", "IFSPRC"}, Fault{"runtime", "SPBRC", ""}),
                         [](const auto& of) { return of.param.directory; });
