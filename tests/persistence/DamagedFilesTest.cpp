// Starts from hundreds of damaged images of each database file. What is to happen is told by plain
// SQLite calls on a copy of the same image, and a table.

#include "tests/persistence/StartFiles.h"
#include "tests/support/Faults.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <random>

namespace fs = std::filesystem;

namespace {

constexpr int images = 500;
constexpr std::uint32_t seed = 20261122;

std::string contentOf(const std::string& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write(const std::string& file, const std::string& content)
{
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.flush());
}

/// Images of a sound file, each damaged in another way.
class Damage {
public:
    explicit Damage(std::string sound) : m_sound(std::move(sound)) {}

    std::string next()
    {
        std::string image = m_sound;
        switch (m_count++ % 7) {
        case 0:
            image.resize(below(image.size()));
            break;
        case 1:
            image.resize(page * below(image.size() / page));
            break;
        case 2: {
            constexpr std::size_t sector = 512;
            image.replace(sector * below(image.size() / sector), sector, sector, '\0');
            break;
        }
        case 3:
            overwrite(image, page * below(image.size() / page), page);
            break;
        case 4:
            overwrite(image, 0, image.size());
            break;
        case 5:
            image[below(image.size())] ^= static_cast<char>(1U << below(8));
            break;
        default:
            image = m_sound.substr(0, page * below(image.size() / page)) + m_sound.substr(below(image.size()));
        }
        return image;
    }

private:
    static constexpr std::size_t page = 4096;
    std::size_t below(std::size_t limit) { return m_random() % limit; }
    void overwrite(std::string& image, std::size_t begin, std::size_t length)
    {
        for (std::size_t at = begin; at < begin + length; ++at)
            image[at] = static_cast<char>(m_random());
    }

    const std::string m_sound;
    std::mt19937 m_random{seed};
    int m_count = 0;
};

enum class Verdict { absent, unreadable, untrusted, sound, unknown };

/// What SQLite itself finds in an image.
Verdict verdictOf(const std::string& file)
{
    if (!fs::exists(file) || fs::file_size(file) == 0)
        return Verdict::absent;
    Connection image;
    Connection memory;
    if (image.open(file, SQLITE_OPEN_READWRITE, 0) != SQLITE_OK ||
        memory.open(":memory:", SQLITE_OPEN_READWRITE, 0) != SQLITE_OK)
        return Verdict::unknown;
    auto* const copy = sqlite3_backup_init(memory.handle(), "main", image.handle(), "main");
    sqlite3_backup_step(copy, -1);
    sqlite3_backup_finish(copy);
    const int result = sqlite3_errcode(memory.handle());
    if (result == SQLITE_IOERR || result == SQLITE_CORRUPT || result == SQLITE_NOTADB)
        return Verdict::unreadable;
    if (result != SQLITE_OK)
        return Verdict::unknown;
    const bool tables = queryFile(file, "select count(*) from sqlite_master where type = 'table' and name in "
                                        "('DBObject','Attribute')") == "2";
    return tables && queryFile(file, "pragma integrity_check") == "ok" ? Verdict::sound : Verdict::untrusted;
}

bool canBeConverted(const std::string& file)
{
    Connection image;
    if (image.open(file, SQLITE_OPEN_READWRITE, 0) != SQLITE_OK)
        return false;
    image.execute("drop index unique_object");
    return image.execute("create unique index unique_object on DBObject (parent,dn,MOInstance)") == SQLITE_OK;
}

class DamagedImages : public StartFiles {
protected:
    /// A file of several pages, with the objects of a small node.
    void makeSound(const std::string& file, const std::string& marker)
    {
        std::vector<DBObject> objects;
        for (int number = 1; number <= 40; ++number)
            objects.push_back(container(marker + "=" + std::to_string(number),
                                        {text("name", std::string(static_cast<std::size_t>(20 * number), 'n')),
                                         attribute("number", number), reference("to", marker + "=1")}));
        makeDatabase(file, std::move(objects));
    }
    /// A node that has not started yet.
    void forgetStart() const
    {
        SQLite::destroyInstance(false);
        for (const char* place : {"common", "flash", "backup/database", "runtime"}) {
            fs::remove_all(path(place));
            fs::create_directories(path(place));
        }
        fs::remove(path("state.json"));
    }
    bool fallbackOrdered() const { return middleware.state().activePartition == 2; }
    int count(Verdict verdict) const { return m_counts[static_cast<std::size_t>(verdict)]; }
    void noteVerdict(Verdict verdict) { ++m_counts[static_cast<std::size_t>(verdict)]; }

private:
    std::array<int, 5> m_counts{};
};

} // namespace

TEST_F(DamagedImages, PermanentConfiguration)
{
    makeSound(permanent(), "P");
    Damage damage(contentOf(permanent()));
    for (int number = 0; number < images; ++number) {
        forgetStart();
        const std::string image = damage.next();
        write(permanent(), image);
        write(path("copy"), image);
        const Verdict verdict = verdictOf(path("copy"));
        noteVerdict(verdict);
        const bool loaded = store().loadPermanentConfFile();
        SCOPED_TRACE("image " + std::to_string(number));
        const bool damaged = verdict == Verdict::unreadable || verdict == Verdict::untrusted;
        EXPECT_EQ(fallbackOrdered(), damaged);
        EXPECT_EQ(loaded, verdict == Verdict::sound || verdict == Verdict::untrusted);
        EXPECT_EQ(fs::exists(commonFile()) ? commonFact("resetReason") : "", damaged ? "2" : "");
        EXPECT_EQ(fs::exists(permanent()), verdict != Verdict::absent);
        if (HasFailure())
            break;
    }
    EXPECT_EQ(count(Verdict::unknown), 0);
    EXPECT_GT(count(Verdict::unreadable), 50);
    EXPECT_GT(count(Verdict::untrusted), 50);
    EXPECT_GT(count(Verdict::sound), 5) << "a flipped bit in a value harms no page";
}

TEST_F(DamagedImages, CommonDatabase)
{
    std::vector<DBObject> objects{container(
        "Common", {attribute("resetReason", 3), attribute("brmOngoing", false), text("t", std::string(9000, 't'))},
        false)};
    makeDatabase(commonFile(), objects);
    Damage damage(contentOf(commonFile()));
    makeSound(permanent(), "P");
    const std::string sound = contentOf(permanent());
    for (int number = 0; number < images; ++number) {
        forgetStart();
        write(permanent(), sound);
        const std::string image = damage.next();
        write(commonFile(), image);
        write(path("copy"), image);
        const Verdict verdict = verdictOf(path("copy"));
        noteVerdict(verdict);
        SCOPED_TRACE("image " + std::to_string(number));
        EXPECT_TRUE(store().loadPermanentConfFile());
        EXPECT_FALSE(fallbackOrdered());
        EXPECT_TRUE(middleware.state().controlledResets.empty());
        EXPECT_EQ(fs::exists(commonFile()), verdict == Verdict::sound);
        EXPECT_EQ(fs::exists(commonFile() + ".rejected"), verdict != Verdict::sound && verdict != Verdict::absent);
        EXPECT_NE(store().get_object_id("P=40", 1), 0);
        if (HasFailure())
            break;
    }
    EXPECT_GT(count(Verdict::unreadable), 50);
    EXPECT_GT(count(Verdict::untrusted), 50);
    EXPECT_GT(count(Verdict::sound), 5);
}

TEST_F(DamagedImages, BackupToRestore)
{
    forgetStart();
    makeSound(backup(), "B");
    Damage damage(contentOf(backup()));
    makeCommon(19, true);
    const std::string common = contentOf(commonFile());
    for (int number = 0; number < images; ++number) {
        forgetStart();
        write(commonFile(), common);
        const std::string image = damage.next();
        write(backup(), image);
        write(path("copy"), image);
        const Verdict verdict = verdictOf(path("copy"));
        noteVerdict(verdict);
        SCOPED_TRACE("image " + std::to_string(number));
        const bool loaded = store().loadPermanentConfFile();
        // Nothing asks about the integrity of a backup: what can be converted is restored.
        EXPECT_EQ(loaded, verdict == Verdict::sound || (verdict == Verdict::untrusted && canBeConverted(path("copy"))));
        EXPECT_EQ(fs::exists(path("backup/database")), !loaded) << "removed when restored, only then";
        EXPECT_EQ(fs::exists(permanent()), verdict != Verdict::absent);
        if (HasFailure())
            break;
    }
    EXPECT_GT(count(Verdict::unreadable), 50);
    EXPECT_GT(count(Verdict::untrusted), 50);
    EXPECT_GT(count(Verdict::sound), 5);
}
