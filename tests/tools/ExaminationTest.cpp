// tamoctl check and diff, on real database files, exports and a served tree.

#include "TamoctlRun.h"
#include "TreeService.h"
#include "values/Schema.h"

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sqlite3.h>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const std::string schema = std::string(Schema::objectTable) + ";" + Schema::attributeTable + ";" + Schema::baseObject +
                           ";" + Schema::objectIndex + ";" + Schema::attributeIndex + ";";
const std::string alternateStorage = std::string(Schema::alternateTable) + ";" + Schema::alternateIndex + ";";

/// A connection that makes and changes the files of a test.
class Sql {
public:
    explicit Sql(const std::string& path) { EXPECT_EQ(sqlite3_open(path.c_str(), &m_handle), SQLITE_OK); }
    ~Sql() { sqlite3_close(m_handle); }
    Sql(const Sql&) = delete;
    Sql& operator=(const Sql&) = delete;
    void operator()(const std::string& statements) const
    {
        EXPECT_EQ(sqlite3_exec(m_handle, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(m_handle) << ": " << statements;
    }

private:
    sqlite3* m_handle = nullptr;
};

class Examination : public Tamoctl {
protected:
    /// A database file with the schema and what `statements` add.
    std::string database(const std::string& name, const std::string& statements = "") const
    {
        const Sql sql(path(name));
        sql("begin;" + schema + statements + ";commit");
        return path(name);
    }
    json check(const std::string& file, int code)
    {
        const Result result = run("check --json " + file);
        EXPECT_EQ(result.code, code) << file << result.output << result.error;
        return result.output.empty() ? json() : json::parse(result.output);
    }
    std::vector<json> diff(const std::string& arguments, int code)
    {
        const Result result = run("diff --json " + arguments);
        EXPECT_EQ(result.code, code) << arguments << result.output << result.error;
        std::vector<json> lines;
        std::istringstream stream(result.output);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(json::parse(line));
        return lines;
    }
    std::map<std::string, std::string> contents(const std::string& folder) const
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::directory_iterator(folder))
            files[entry.path().filename()] = contentOf(entry.path());
        return files;
    }
};

/// Enough objects for a file of many pages.
std::string manyObjects(int count)
{
    std::string statements;
    for (int i = 1; i <= count; ++i)
        statements += "INSERT INTO DBObject VALUES(" + std::to_string(i) + "," + std::to_string(i / 2) +
                      ",'Cell=" + std::to_string(i) + "',1,1,0);INSERT INTO Attribute VALUES(NULL," +
                      std::to_string(i) + ",'label',hex(randomblob(40)),9,0," + std::to_string(i % 2) + ");";
    return statements;
}

void overwrite(const std::string& path, std::int64_t from, const std::string& bytes)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(from);
    file << bytes;
}

} // namespace

TEST_F(Examination, CheckTellsWhatStartUpMakesOfEveryKindOfFile)
{
    const std::string good = database("good", manyObjects(300));
    const auto size = static_cast<std::int64_t>(fs::file_size(good));
    const auto damaged = [&](const std::string& name, const std::function<void(const std::string&)>& damage) {
        fs::copy_file(good, path(name));
        damage(path(name));
        return path(name);
    };
    std::mt19937 random(1);
    std::string garbage(8192, '\0');
    for (char& byte : garbage)
        byte = static_cast<char>(random());
    const auto fileOf = [](const std::string& bytes) {
        return [bytes](const std::string& file) { std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes; };
    };
    const auto sql = [](const std::string& statements) {
        return [statements](const std::string& file) { Sql{file}(statements); };
    };
    const std::tuple<std::string, std::string, int> cases[] = {
        {good, "loads", 0},
        {path("absent"), "findsNone", 0},
        {damaged("empty", fileOf("")), "findsNone", 0},
        {directory.path(), "findsNone", 0},
        {damaged("garbage", fileOf(garbage)), "fallsBack", SQLITE_NOTADB},
        {damaged("short", fileOf("SQLite")), "fallsBack", SQLITE_NOTADB},
        {damaged("half", [&](const auto& file) { fs::resize_file(file, static_cast<std::uintmax_t>(size) / 2); }),
         "fallsBack", SQLITE_CORRUPT},
        {damaged("head", [](const auto& file) { overwrite(file, 0, std::string(512, '\0')); }), "fallsBack",
         SQLITE_NOTADB},
        {damaged("page", [&](const auto& file) { overwrite(file, size / 2 / 4096 * 4096, garbage.substr(0, 4096)); }),
         "loadsAsDamaged", 0},
        {damaged("noTable", sql("DROP TABLE Attribute")), "loadsAsDamaged", 0},
        {damaged("noIndex", sql("DROP INDEX unique_object")), "loads", 0}, // made anew at every load
        {damaged("twins",
                 sql("DROP INDEX unique_object; INSERT INTO DBObject SELECT id + 1000, parent, dn, MOInstance, "
                     "isMOMObject, system FROM DBObject WHERE id = 5")),
         "loadsNothing", 0}};
    for (const auto& [file, startUp, result] : cases) {
        const json report = check(file, startUp == "loads" ? 0 : 1);
        EXPECT_EQ(report.at("startUp"), startUp) << report;
        EXPECT_EQ(report.at("sqliteResult"), result) << report;
        EXPECT_EQ(report.at("why").get<std::string>().empty(), startUp == "loads") << report;
        EXPECT_NE(run("check " + file).output.find("start-up"), std::string::npos);
    }
    EXPECT_EQ(check(path("noIndex"), 0).at("schemaRemarks"), json({"index unique_object is missing"}));
    EXPECT_FALSE(check(path("page"), 1).at("integrityProblems").empty());
    EXPECT_EQ(run("check").code, 2);
}

TEST_F(Examination, CheckCountsWhatIsInTheFile)
{
    const std::string file =
        database("file", manyObjects(10) + alternateStorage +
                             "INSERT INTO Attribute_AltStorage VALUES(NULL,1,'label','x',9,0,1,2);"
                             "INSERT INTO Attribute_AltStorage VALUES(NULL,2,'label','y',9,0,1,2);"
                             "INSERT INTO Attribute_AltStorage VALUES(NULL,3,'label','z',9,0,0,11);"
                             "INSERT INTO Attribute VALUES(NULL,999,'lost','x',9,0,0);CREATE TABLE Foreigner(id)");
    const json report = check(file, 0);
    EXPECT_EQ(report.at("objects"), 10);
    EXPECT_EQ(report.at("attributes"), 11);
    EXPECT_EQ(report.at("persistentAttributes"), 5);
    EXPECT_EQ(report.at("parked"), json({{"2", 2}, {"11", 1}}));
    EXPECT_EQ(report.at("orphans"), 1);
    EXPECT_EQ(report.at("schemaRemarks"), json({"table Foreigner is none of the service's"}));
}

TEST_F(Examination, CheckAppliesAJournalInACopyAndLeavesTheFilesAlone)
{
    database("source", manyObjects(300));
    fs::create_directory(path("folder"));
    {
        // What a writer leaves that is killed in the middle: pages already overwritten, and the journal.
        const Sql writer(path("source"));
        writer(
            "PRAGMA cache_size = 2; BEGIN; UPDATE Attribute SET value = 'torn'; DELETE FROM DBObject WHERE id > 250");
        fs::copy_file(path("source"), path("folder/pRBSdb"));
        fs::copy_file(path("source-journal"), path("folder/pRBSdb-journal"));
    }
    const std::string file = path("folder/pRBSdb");
    const auto before = contents(path("folder"));
    ASSERT_EQ(before.size(), 2u);
    const auto written = fs::last_write_time(file);
    const json report = check(file, 0);
    EXPECT_GT(report.at("journal"), 0);
    EXPECT_EQ(report.at("objects"), 300);
    EXPECT_EQ(diff(file + " " + path("source"), 0).size(), 1u); // what was rolled back is what was there
    EXPECT_EQ(contents(path("folder")), before);
    EXPECT_EQ(fs::last_write_time(file), written);
    fs::remove(file + "-journal");
    EXPECT_NE(check(file, 1).at("startUp"), "loads"); // the file alone is torn
}

TEST_F(Examination, CheckLooksAtWhatIsCommittedWhileAnotherProcessWrites)
{
    const std::string file = database("file", manyObjects(10));
    const Sql writer(file);
    writer("BEGIN IMMEDIATE; DELETE FROM DBObject WHERE id > 5");
    EXPECT_EQ(check(file, 0).at("objects"), 10);
    writer("COMMIT");
    EXPECT_EQ(check(file, 0).at("objects"), 5);
}

TEST_F(Examination, OneTreeIsTheSameInEveryForm)
{
    // The extremes of every kind, as the service binds them, and as an export writes them.
    const std::string file = database("file", R"(
INSERT INTO DBObject VALUES(7,0,'ManagedElement=1',1,1,0); INSERT INTO DBObject VALUES(3,7,'Site=a,b',1,0,1);
INSERT INTO DBObject VALUES(9,3,'Cell=1',1,1,0); INSERT INTO DBObject VALUES(10,3,'Cell=1',2,1,0);
INSERT INTO Attribute VALUES(NULL,7,'a',128,1,0,0); INSERT INTO Attribute VALUES(NULL,7,'b',-32768,2,1,0);
INSERT INTO Attribute VALUES(NULL,7,'c',-2147483648,3,0,1); INSERT INTO Attribute VALUES(NULL,7,'d',-9223372036854775808,4,1,1);
INSERT INTO Attribute VALUES(NULL,3,'e',255,5,0,0); INSERT INTO Attribute VALUES(NULL,3,'f',65535,6,0,0);
INSERT INTO Attribute VALUES(NULL,3,'g',-1,7,0,0); INSERT INTO Attribute VALUES(NULL,3,'h',-1,8,0,0);
INSERT INTO Attribute VALUES(NULL,9,'i',1,10,0,0); INSERT INTO Attribute VALUES(NULL,9,'j',0.1,16,0,0);
INSERT INTO Attribute VALUES(NULL,9,'k',16777216.0,17,0,0); INSERT INTO Attribute VALUES(NULL,9,'l',cast(x'ff' as text),14,0,0);
INSERT INTO Attribute VALUES(NULL,9,'m','',11,0,0); INSERT INTO Attribute VALUES(NULL,9,'n','5',12,0,0))");
    write(
        "export",
        R"({"dn":"ManagedElement=1","attributes":{"a":{"type":"INT8","value":-128},"b":{"type":"INT16","value":-32768,"hidden":true},"c":{"type":"INT32","value":-2147483648,"persistent":true},"d":{"type":"INT64","value":-9223372036854775808,"hidden":true,"persistent":true}}}
{"dn":"ManagedElement=1,\"Site=a,b\"","isMOMObject":false,"system":true,"attributes":{"e":{"type":"UINT8","value":255},"f":{"type":"UINT16","value":65535},"g":{"type":"UINT32","value":4294967295},"h":{"type":"UINT64","value":18446744073709551615}}}

{"dn":"ManagedElement=1,\"Site=a,b\",Cell=1","attributes":{"i":{"type":"boolean","value":true},"j":{"type":"DECIMAL64","value":0.1},"k":{"type":"FLOAT","value":16777216.0},"l":{"type":"text","value":{"base64":"/w=="}},"m":{"type":"reference","value":""},"n":{"type":"ENUM","value":5}}}
{"dn":"ManagedElement=1,\"Site=a,b\",Cell=1","MOInstance":2})");
    EXPECT_EQ(diff(file + " " + path("export"), 0).back().at("objectsB"), 4);
    EXPECT_EQ(diff(path("export") + " " + path("export"), 0).back().at("objectsA"), 4);

    const TreeService service(directory.path());
    EXPECT_EQ(run("import -", "{\"dn\":\"ManagedElement=1\",\"attributes\":{\"x\":{\"type\":\"INT8\",\"value\":-1}}}\n"
                              "{\"dn\":\"ManagedElement=1,Cell=2\"}\n{\"dn\":\"OAM\"}\n")
                  .code,
              0);
    const std::string same = database("same", "INSERT INTO DBObject VALUES(1,0,'ManagedElement=1',1,1,0);"
                                              "INSERT INTO DBObject VALUES(2,1,'Cell=2',1,1,0);"
                                              "INSERT INTO DBObject VALUES(3,0,'OAM',1,1,0);"
                                              "INSERT INTO Attribute VALUES(NULL,1,'x',255,1,0,0)");
    EXPECT_EQ(diff("live " + same, 0).back().at("objectsA"), 3); // the file tells the service's roots
    EXPECT_EQ(diff(directory.path() + " " + same + " --below OAM", 0).back().at("objectsA"), 1);
    const std::string onlyOam = database("onlyOam", "INSERT INTO DBObject VALUES(3,0,'OAM',1,1,0);");
    EXPECT_EQ(diff("live " + onlyOam, 1).back().at("onlyA"), 2); // a whole tree has the usual root, too
    fs::create_directory(path("node"));
    fs::create_directory_symlink(directory.path(), path("node/run"));
    EXPECT_EQ(diff("live " + path("node"), 0).back().at("objectsA"), 2); // nobody tells of OAM
}

TEST_F(Examination, EveryKindOfDifferenceIsTold)
{
    const std::string objects = "INSERT INTO DBObject VALUES(1,0,'ManagedElement=1',1,1,0);"
                                "INSERT INTO DBObject VALUES(2,1,'Cell=2',1,1,0);"
                                "INSERT INTO Attribute VALUES(NULL,1,'x',7,3,0,1);";
    const std::string a =
        database("a", objects + alternateStorage + "INSERT INTO Attribute_AltStorage VALUES(NULL,1,'p','x',9,0,1,2)");
    const auto against = [&](const std::string& name, const std::string& statements) {
        fs::copy_file(a, path(name));
        Sql(path(name))(statements);
        const auto lines = diff(a + " " + path(name), 1);
        EXPECT_EQ(lines.size(), 2u) << name;
        EXPECT_EQ(lines.back().at("equal"), false);
        return lines.front();
    };
    const json gone = against("gone", "DELETE FROM DBObject WHERE id = 2");
    EXPECT_EQ(gone, json({{"dn", "ManagedElement=1,Cell=2"}, {"MOInstance", 1}, {"in", "a"}}));
    EXPECT_EQ(against("made", "INSERT INTO DBObject VALUES(3,1,'Cell=2',2,1,0)"),
              json({{"dn", "ManagedElement=1,Cell=2"}, {"MOInstance", 2}, {"in", "b"}}));
    const json kind = against("kind", "UPDATE DBObject SET system = 1 WHERE id = 2");
    EXPECT_EQ(kind.at("a").at("system"), false);
    EXPECT_EQ(kind.at("b").at("system"), true);
    const std::tuple<const char*, const char*, json> members[] = {{"value", "value = 8", 8},
                                                                  {"type", "value_type = 12", "ENUM"},
                                                                  {"hidden", "hidden = 1", true},
                                                                  {"persistent", "persistent = 0", false}};
    for (const auto& [member, change, there] : members) {
        const json line = against(member, std::string("UPDATE Attribute SET ") + change + " WHERE name = 'x'");
        ASSERT_EQ(line.at("attributes").size(), 1u) << line;
        EXPECT_EQ(line["attributes"][0]["b"][member], there) << line;
        EXPECT_NE(line["attributes"][0]["a"][member], there) << line;
    }
    EXPECT_EQ(against("absent", "DELETE FROM Attribute")["attributes"][0]["b"], nullptr);
    EXPECT_EQ(against("slot", "UPDATE Attribute_AltStorage SET alt_storage = 4")["alternateAttributes"][0]["b"]["slot"],
              4);
    EXPECT_EQ(run("diff " + a + " " + path("value")).output,
              "~ ManagedElement=1\n    ~ x: 7 (INT32 persistent) -> 8 (INT32 persistent)\n"
              "different: 0 only in A (-), 0 only in B (+), 1 changed (~), of 2 and 2 objects\n");
}

TEST_F(Examination, PersistentComparisonSeesWhatAStoreKeeps)
{
    // A stored file holds persistent attributes, parked values, and the objects above them.
    const std::string live = database("live", std::string(alternateStorage) + R"(
INSERT INTO DBObject VALUES(1,0,'ManagedElement=1',1,1,0); INSERT INTO DBObject VALUES(2,1,'Site=1',1,1,0);
INSERT INTO DBObject VALUES(3,2,'Cell=1',1,1,0); INSERT INTO DBObject VALUES(4,2,'Cell=2',1,1,0);
INSERT INTO DBObject VALUES(5,1,'Site=1',2,1,0); INSERT INTO DBObject VALUES(6,1,'Site=2',1,1,0);
INSERT INTO Attribute VALUES(NULL,3,'kept','x',9,0,1); INSERT INTO Attribute VALUES(NULL,3,'volatile','x',9,0,0);
INSERT INTO Attribute VALUES(NULL,4,'volatile','x',9,0,0);
INSERT INTO Attribute_AltStorage VALUES(NULL,6,'p','x',9,0,0,2))");
    fs::copy_file(live, path("stored"));
    Sql(path("stored"))("DELETE FROM DBObject WHERE id IN (4, 5); DELETE FROM Attribute WHERE persistent = 0");
    EXPECT_EQ(diff(live + " " + path("stored"), 1).back().at("onlyA"), 2);
    EXPECT_EQ(diff("--persistent " + live + " " + path("stored"), 0).back().at("objectsA"), 4);
    Sql(path("stored"))("UPDATE Attribute SET value = 'y'");
    EXPECT_EQ(diff("--persistent " + live + " " + path("stored"), 1).back().at("changed"), 1);
}

TEST_F(Examination, RandomEditsOfAnExportAreFoundAndNothingElse)
{
    std::mt19937 random(42);
    for (int round = 0; round < 20; ++round) {
        std::map<std::string, json> tree{{"ManagedElement=1", {{"dn", "ManagedElement=1"}}}};
        std::vector<std::string> dns{"ManagedElement=1"};
        for (int i = 2; i < 60; ++i) {
            const std::string dn = dns[random() % dns.size()] + ",Cell=" + std::to_string(i);
            dns.push_back(dn);
            tree[dn] = {{"dn", dn}, {"attributes", {{"v", {{"type", "INT32"}, {"value", random() % 1000}}}}}};
        }
        std::map<std::string, json> edited = tree;
        std::map<std::string, std::string> expected; // DN to where it is
        for (int i = 0; i < 6; ++i) {
            const std::string dn = dns[1 + random() % (dns.size() - 1)];
            if (i % 3 == 0 && edited.contains(dn)) {
                edited[dn]["attributes"]["w"] = {{"type", "string"}, {"value", "new"}};
                expected[dn] = "both";
            } else if (i % 3 == 1) {
                edited[dn + ",New=1"] = {{"dn", dn + ",New=1"}};
                expected[dn + ",New=1"] = "b";
            } else {
                edited.erase(dn);
                expected[dn] = "a";
            }
        }
        const auto lines = [](const std::map<std::string, json>& objects, bool backwards) {
            std::string text;
            for (const auto& [dn, object] : objects)
                text = backwards ? object.dump() + "\n" + text : text + object.dump() + "\n";
            return text;
        };
        write("a", lines(tree, false));
        write("b", lines(edited, true)); // the order of the lines does not matter
        std::map<std::string, std::string> found;
        for (const json& line : diff(path("a") + " " + path("b"), 1))
            if (line.contains("dn"))
                found[line.at("dn")] = line.at("in");
        EXPECT_EQ(found, expected) << "round " << round;
    }
}

TEST_F(Examination, DiffSaysWhatItCannotCompare)
{
    const std::string good = database("good", manyObjects(300));
    write("empty", "");
    write("text", "no tree\n");
    write("broken", "{\"dn\":\"A=1\"}\n{\"dn\":\n");
    fs::copy_file(good, path("noTable"));
    Sql(path("noTable"))("DROP TABLE Attribute");
    fs::copy_file(good, path("ring"));
    Sql(path("ring"))("PRAGMA foreign_keys = OFF; UPDATE DBObject SET parent = 1 WHERE id = 0"); // harmless: no child
    fs::create_directory(path("folder"));
    const std::pair<std::string, int> cases[] = {{"empty", 2},   {"text", 2},    {"broken", 2},
                                                 {"noTable", 2}, {"nowhere", 2}, {"folder", 4}};
    for (const auto& [name, code] : cases) {
        const Result result = run("diff " + good + " " + path(name));
        EXPECT_EQ(result.code, code) << name << result.output;
        EXPECT_TRUE(isOneLine(result.error)) << name << ": " << result.error;
        EXPECT_NE(result.error.find(path(name)), std::string::npos) << result.error;
    }
    EXPECT_NE(run("diff " + good + " " + path("broken")).error.find("line 2"), std::string::npos);
    EXPECT_EQ(run("diff " + good + " " + path("ring")).code, 0);
    EXPECT_EQ(run("diff " + good).code, 2);
    EXPECT_EQ(run("diff live " + good).code, 4);
}
