// The BO-MO mapping on a real store: what is stored, what a broken file leaves, and whom it is told.

#include "tests/support/Faults.h"
#include "tests/support/TempStore.h"

#include "mapping/BOMOMapper.h"
#include "platform/messages/Notifications.h"

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;
using TAMO::Messages::TAMO_FaultNotification;

/// What Poco itself loses when memory runs out while it builds its own parts.
extern "C" const char* __lsan_default_suppressions() // NOLINT(bugprone-reserved-identifier)
{
    return "leak:Poco::XML::NamePool::NamePool\nleak:Poco::XML::ParserEngine::pushContext\n";
}

namespace {

constexpr const char* common = "common_mapping.xml";
constexpr const char* wcdma = "wcdma_mapping.xml";
constexpr const char* emptyMapping = "<mapping></mapping>";

class Mapping : public TempStore {
protected:
    Mapping() { fs::create_directory(path("conf")); }

    void put(const std::string& name, const std::string& content) const
    {
        std::ofstream(path("conf/" + name), std::ios::binary) << content;
    }
    int map(const std::string& directory) { return mapper.mapBOMO(directory); }
    /// The two files with these contents, mapped into a tree without a mapping.
    int map(const std::string& commonFile, const std::string& wcdmaFile)
    {
        log.forget();
        store().delete_object(BOMOMapper::objectName, 1, false, "test");
        put(common, commonFile);
        put(wcdma, wcdmaFile);
        return map(path("conf"));
    }
    /// The mapping as "name:number" in order of the names; "(none)" when it is not there.
    static std::string mapped()
    {
        const auto mapping = object(BOMOMapper::objectName);
        if (!mapping)
            return "(none)";
        std::string text;
        for (const auto& [name, held] : mapping->attributes)
            text += (text.empty() ? "" : " ") + name + ":" + held.ToStr();
        return text;
    }
    /// The next fault that is raised; 0 when none is.
    std::int32_t fault()
    {
        const auto told = faults.next<TAMO_FaultNotification>();
        return told && told->raise == 1 ? told->faultCode : 0;
    }

    DatabaseNode node{path("runtime")};
    Service faults{path("runtime"), "fm", 3};
    BOMOMapper mapper;
};

std::string mo(const std::string& dn, const std::string& boClass,
               const std::string& entries = "<a name='x' bo-attribute='1'/>")
{
    return "<mo dn='" + dn + "' bo-class='" + boClass + "'>" + entries + "</mo>";
}

std::string entry(const std::string& name, const std::string& number)
{
    return "<any name='" + name + "' bo-attribute='" + number + "'/>";
}

std::string mapping(const std::string& content) { return "<?xml version='1.0'?>\n<mapping>" + content + "</mapping>"; }

} // namespace

TEST_F(Mapping, FirstOccurrenceOfANameCountsAcrossBothFiles)
{
    EXPECT_NE(map(mapping(mo("A=1", "1A", entry("p", "0x1a") + entry("A=2", "7")) + "\n" + mo("A=2", "2")),
                  mapping(mo("A=1", "FF", entry("q", "3")) + mo("A=1,B=1", "0X10", entry("p", "4")))),
              0);
    EXPECT_EQ(mapped(), "A=1:26 A=1,B=1:16 A=2:7 p:26 q:3 x:1");
    EXPECT_EQ(committed("select parent||','||MOInstance||','||isMOMObject||','||system from DBObject "
                        "where dn = 'BOMOMapping'"),
              "0,1,0,0");
    EXPECT_EQ(committed("select distinct hidden||','||persistent from Attribute"), "0,0") << "no part of pRBSdb";
    EXPECT_EQ(log.count(mwLogInfo, "MOM - BOM mapping parsed ok"), 2);
    EXPECT_EQ(log.count(mwLogInfo, "BOMOMapper::insertBOMO(): BOMOMapping inserted into database."), 1);
    EXPECT_EQ(log.count(mwLogInfo, "All attributes mapped successfully!"), 1);
    EXPECT_TRUE(faults.gotNothing());
}

TEST_F(Mapping, NumbersAreReadAsFarAsTheyAreHexadecimal)
{
    EXPECT_NE(
        map(mapping(mo("A=1", " 1f", entry("stops", "12G4") + entry("negative", "-A") + entry("max", "7fffffff"))),
            mapping(mo("B=1", "none",
                       entry("over", "80000000") + entry("under", "-80000001") + entry("empty", "") +
                           entry("prefix", "0x")))),
        0);
    EXPECT_EQ(mapped(), "A=1:31 B=1:0 empty:0 max:2147483647 negative:-10 over:2147483647 prefix:0 stops:18 "
                        "under:-2147483648");
    EXPECT_EQ(log.count(mwLogWarning, "is no hexadecimal int"), 5);
}

TEST_F(Mapping, ElementsWithoutChildrenAreNoObjectsAndThoseWithAreNoEntries)
{
    const std::string line = "Mapping file doesn't have nodes.";
    EXPECT_NE(map("<mapping/>", emptyMapping), 0) << "a mapping of nothing";
    EXPECT_EQ(mapped(), "");
    EXPECT_EQ(log.count(mwLogError, line), 2);
    EXPECT_NE(map(mapping("<mo dn='self=1' bo-class='1'/>" + entry("loose", "2") + mo("A=1", "3", "<!-- -->") +
                          "<mo dn='self=2' bo-class='4'/>" + mo("B=1", "5", " ")),
                  mapping(mo("C=1", "6", entry("p", "7") + "<e name='blank' bo-attribute='8'> </e>" + entry("q", "9")) +
                          entry("r", "A") + mo("D=1", "B"))),
              0);
    EXPECT_EQ(mapped(), "A=1:3 B=1:5 C=1:6 D=1:11 p:7 x:1");
    EXPECT_EQ(log.count(mwLogError, line), 5) << "self=1, loose, self=2, q and r";
    EXPECT_EQ(log.count(mwLogError), 5);
}

TEST_F(Mapping, EntryThatCannotBeAddedLosesThoseBehindItOfItsObject)
{
    EXPECT_NE(
        map(mapping(mo("A=1", "1", entry("p", "2") + entry("", "3") + entry("q", "4")) + mo("B=1", "5")), emptyMapping),
        0);
    EXPECT_EQ(mapped(), "A=1:1 B=1:5 p:2 x:1");
    EXPECT_EQ(log.count(mwLogError, "MOM - BOM mapping file parsing failed: common_mapping.xml"), 1);
    EXPECT_EQ(log.count(mwLogError, "Mapping file doesn't have nodes."), 3)
        << "it, the one behind it, and the empty file";
    EXPECT_TRUE(faults.gotNothing());
}

TEST_F(Mapping, FileThatIsWrongAnywhereLeavesNothing)
{
    const std::string good = mapping(mo("A=1", "1"));
    std::string deep;
    for (int i = 0; i < 200000; ++i)
        deep += "<mo>";
    const std::string broken[] = {"",
                                  "not XML",
                                  good.substr(0, good.size() - 3),
                                  mapping(mo("A=1", "1") + "<mo dn='B=1'><a name='x' bo-attribute='1'/></mo>"),
                                  mapping("<mo bo-class='1'><a name='x' bo-attribute='1'/></mo>"),
                                  mapping(mo("A=1", "1", "<a name='x'/>")),
                                  mapping(mo("A=1", "1", "<a bo-attribute='1'/>")),
                                  mapping(mo("", "1")),
                                  mapping(deep),
                                  good + std::string(BOMOMapper::maxFileSize, ' ')};
    const std::string before = everything();
    for (const bool first : {true, false})
        for (const std::string& content : broken) {
            EXPECT_EQ(first ? map(content, good) : map(good, content), 0) << content.substr(0, 200);
            EXPECT_EQ(mapped(), "(none)");
            EXPECT_EQ(fault(), 0x5006);
            EXPECT_EQ(log.count(mwLogError), 1) << content.substr(0, 200);
            EXPECT_EQ(log.count(mwLogError,
                                std::string("MOM - BOM mapping file parsing failed: ") + (first ? common : wcdma)),
                      1);
            EXPECT_EQ(log.count(mwLogInfo, "MOM - BOM mapping parsed ok"), 1) << "the other file is read all the same";
        }
    EXPECT_EQ(map(good, "<other>" + mo("A=1", "1") + "</other>"), 0);
    EXPECT_EQ(log.count(mwLogError), 0) << "another document is no line, but a fault";
    EXPECT_EQ(fault(), 0x5006);
    EXPECT_EQ(everything(), before);
}

TEST_F(Mapping, MissingFilesAreToldTogether)
{
    const std::string line = "MOM - BOM mapping file(s) missing: ";
    EXPECT_EQ(map(path("conf")), 0);
    EXPECT_EQ(log.count(mwLogError, line + "common_mapping.xml, wcdma_mapping.xml, "), 1);
    EXPECT_EQ(fault(), 0x5017);
    put(common, emptyMapping);
    ASSERT_EQ(mkfifo(path(std::string("conf/") + wcdma).c_str(), 0600), 0);
    EXPECT_EQ(map(path("conf")), 0) << "a named pipe is no file, and nobody waits for it";
    EXPECT_EQ(log.count(mwLogError, line + "wcdma_mapping.xml, "), 1);
    EXPECT_EQ(fault(), 0x5017);
    DBObject object(BOMOMapper::objectName, 1, false, false, 0, 1);
    EXPECT_FALSE(mapper.ParseFile(path("conf/"), wcdma, object)) << "gone since it was looked for";
    EXPECT_EQ(log.count(mwLogError, "MOM - BOM mapping file parsing failed: wcdma_mapping.xml"), 1);
    EXPECT_EQ(mapped(), "(none)");
    std::string empty;
    EXPECT_FALSE(mapper.checkFiles(empty));
    EXPECT_EQ(empty, "") << "the working directory";
}

TEST_F(Mapping, StoreThatRefusesItIsNoFault)
{
    {
        const RefusedPrepare refused(handle(), SQLITE_INSERT, "Attribute");
        EXPECT_EQ(map(mapping(mo("A=1", "1")), emptyMapping), 0);
    }
    EXPECT_EQ(log.count(mwLogError, "BOMOMapper::insertBOMO(): Failed to insert BOMOMapping into database."), 1);
    EXPECT_EQ(mapped(), "(none)");
    EXPECT_TRUE(anotherConnectionCanWrite());
    EXPECT_TRUE(faults.gotNothing());
}

TEST_F(Mapping, MemoryThatRunsOutAnywhereLeavesAllOrNothing)
{
    put(common, mapping(mo("A=1", "1", entry("p", "2"))));
    put(wcdma, mapping(mo("A=1,B=1", "3", entry("p", "4") + entry("q", "none"))));
    int stored = 0;
    int passes = 0;
    for (bool happened = true; happened; ++passes) {
        store().delete_object(BOMOMapper::objectName, 1, false, "test");
        std::string directory = path("conf");
        int result = 0;
        {
            const RefusedMemory scarce(passes);
            result = mapper.mapBOMO(std::move(directory));
            happened = RefusedMemory::happened();
        }
        ASSERT_EQ(mapped(), result != 0 ? "A=1:1 A=1,B=1:3 p:2 q:0" : "(none)") << passes;
        stored += result != 0;
    }
    EXPECT_GT(passes, 100) << "the places were not found";
    EXPECT_LT(stored, passes / 2);
    EXPECT_TRUE(anotherConnectionCanWrite());
}

TEST_F(Mapping, ShippedFilesFitTheExample)
{
    std::set<std::string> known;
    std::ifstream lines(TAMO_SOURCES "/examples/small_cell.jsonl");
    for (std::string line; std::getline(lines, line);) {
        const auto each = nlohmann::json::parse(line);
        known.insert(each.at("dn"));
        for (const auto& [name, value] : each.at("attributes").items())
            known.insert(name);
    }
    ASSERT_NE(map(TAMO_SOURCES "/conf"), 0);
    EXPECT_EQ(log.count(mwLogError) + log.count(mwLogWarning), 0) << "nothing in them is passed over";
    EXPECT_EQ(log.count(mwLogInfo, "MOM - BOM mapping parsed ok"), 2);
    const auto stored = object(BOMOMapper::objectName);
    std::set<std::string> numbers;
    std::size_t objects = 0;
    for (const auto& [name, held] : stored->attributes) {
        EXPECT_TRUE(known.contains(name)) << name;
        EXPECT_TRUE(numbers.insert(held.ToStr()).second) << name << " has the number of another";
        objects += name.find('=') != std::string::npos;
    }
    EXPECT_GE(objects, 60U);
    EXPECT_GE(stored->attributes.size() - objects, 400U);
    EXPECT_EQ(stored->getAttribute("ManagedElement=1,FAPService=1")->ToStr(), std::to_string(0x1001))
        << "in both files: the first counts";
}
