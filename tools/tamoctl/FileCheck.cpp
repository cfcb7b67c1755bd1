// Goes the way of a start with a copy of the file: load it into a runtime database, look for the
// tables, check it, rebuild the index. What start-up does not look at (the words of the schema, rows
// without an object) is reported as well, but decides nothing.

#include "tools/tamoctl/FileCheck.h"

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/FileCopy.h"
#include "tools/tamoctl/SqliteFile.h"
#include "values/Schema.h"

#include <filesystem>
#include <sqlite3.h>
#include <string_view>

namespace fs = std::filesystem;

namespace {

struct SchemaPart {
    const char* type;
    const char* name;
    const char* sql;
    bool required;
};

constexpr SchemaPart schema[] = {
    {"table", "DBObject", Schema::objectTable, true},
    {"table", "Attribute", Schema::attributeTable, true},
    {"index", "unique_object", Schema::objectIndex, true},
    {"index", "unique_attribute", Schema::attributeIndex, true},
    {"table", "Attribute_AltStorage", Schema::alternateTable, false},
    {"index", "unique_attribute_altstorage", Schema::alternateIndex, false},
};

/// The words that SQLite keeps of a CREATE statement.
std::string asKept(std::string sql)
{
    constexpr std::string_view unkept = "IF NOT EXISTS ";
    if (const auto at = sql.find(unkept); at != std::string::npos)
        sql.erase(at, unkept.size());
    return sql;
}

const SchemaPart* partNamed(const std::string& type, const std::string& name)
{
    for (const SchemaPart& part : schema)
        if (type == part.type && name == part.name)
            return &part;
    return nullptr;
}

std::optional<std::int64_t> number(SqliteFile& file, const char* query)
{
    SqliteRows row(file, query);
    return row.next() ? std::optional(row.integer(0)) : std::nullopt;
}

bool hasTables(SqliteFile& file)
{
    constexpr const char* count = "SELECT count(*) FROM sqlite_master WHERE type='table' AND name=";
    return number(file, (std::string(count) + "'DBObject'").c_str()) == 1 &&
           number(file, (std::string(count) + "'Attribute'").c_str()) == 1;
}

void compareSchema(SqliteFile& file, std::vector<std::string>& remarks)
{
    SqliteRows rows(file, "SELECT type, name, sql FROM sqlite_master WHERE name NOT LIKE 'sqlite\\_%' ESCAPE '\\'");
    std::map<std::string, int> found;
    while (rows.next()) {
        const std::string what = rows.text(0) + " " + rows.text(1);
        const SchemaPart* part = partNamed(rows.text(0), rows.text(1));
        ++found[rows.text(1)];
        if (!part)
            remarks.push_back(what + " is none of the service's");
        else if (rows.text(2) != asKept(part->sql))
            remarks.push_back(what + " is another: " + rows.text(2));
    }
    if (!rows.done())
        remarks.emplace_back("the schema cannot be read");
    for (const SchemaPart& part : schema) {
        const int count = found.contains(part.name) ? found[part.name] : 0;
        if (count > 1 || (part.required && count == 0))
            remarks.push_back(std::string(part.type) + " " + part.name +
                              (count == 0 ? " is missing" : " is there " + std::to_string(count) + " times"));
    }
    const auto base =
        number(file, "SELECT count(*) FROM DBObject WHERE id = 0 AND parent = 0 AND dn = 'baseobject' AND "
                     "MOInstance = 1 AND isMOMObject = 0 AND system = 0");
    if (base != 1)
        remarks.emplace_back("row 0 of DBObject is not the base object");
}

void checkIntegrity(SqliteFile& file, std::vector<std::string>& problems)
{
    SqliteRows rows(file, "PRAGMA integrity_check");
    while (rows.next())
        if (rows.text(0) != "ok")
            problems.push_back(rows.text(0));
    if (!rows.done())
        problems.emplace_back(file.message());
}

void count(SqliteFile& file, FileReport& report)
{
    report.objects = number(file, "SELECT count(*) FROM DBObject WHERE id <> 0");
    report.attributes = number(file, "SELECT count(*) FROM Attribute");
    report.persistentAttributes = number(file, "SELECT count(*) FROM Attribute WHERE persistent = 1");
    SqliteRows parked(file, "SELECT alt_storage, count(*) FROM Attribute_AltStorage GROUP BY alt_storage");
    while (parked.next())
        report.parked[parked.integer(0)] = parked.integer(1);
    report.orphans = number(file, "SELECT count(*) FROM pragma_foreign_key_check");
}

bool isDamage(int result) { return result == SQLITE_IOERR || result == SQLITE_CORRUPT || result == SQLITE_NOTADB; }

std::string errorText(int result) { return "SQLite error " + std::to_string(result) + ", " + sqlite3_errstr(result); }

/// The last step of a load, for which older files have another index of that name.
void rebuildIndex(SqliteFile& runtime, FileReport& report)
{
    runtime.execute("DROP INDEX unique_object");
    const int result = runtime.execute(Schema::objectIndex);
    report.startUp = result == SQLITE_OK ? StartUp::loads : StartUp::loadsNothing;
    if (result != SQLITE_OK && report.why.empty())
        report.why = "the index unique_object cannot be rebuilt (" + std::string(runtime.message()) + ")";
}

void decide(SqliteFile& file, SqliteFile& runtime, FileReport& report)
{
    report.loadResult = runtime.copyFrom(file);
    if (isDamage(report.loadResult)) {
        report.startUp = StartUp::fallsBack;
        report.why = errorText(report.loadResult);
        return;
    }
    if (report.loadResult != SQLITE_OK) {
        report.why = errorText(report.loadResult);
        return rebuildIndex(runtime, report);
    }
    checkIntegrity(file, report.integrityProblems);
    const bool tables = hasTables(runtime) && hasTables(file);
    if (tables && report.integrityProblems.empty())
        return rebuildIndex(runtime, report);
    report.startUp = StartUp::loadsAsDamaged;
    report.why = tables ? "SQLite finds it damaged" : "a table is missing";
}

/// Why start-up takes the path for no file at all; empty when it is one.
std::string whyNoFile(const std::string& path)
{
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::none)
        throw Failure(ExitCode::usage, path + " cannot be examined: " + error.message());
    if (!fs::exists(status))
        return "it does not exist";
    if (!fs::is_regular_file(status))
        return "it is no regular file";
    return fs::file_size(path) == 0 ? "it is empty" : "";
}

} // namespace

FileReport checkFile(const std::string& path)
{
    FileReport report;
    report.why = whyNoFile(path);
    if (!report.why.empty())
        return report;
    const FileCopy copy(path);
    report.size = copy.size();
    report.journal = copy.journalSize();
    SqliteFile file(copy.path());
    SqliteFile runtime(copy.scratch());
    decide(file, runtime, report);
    if (report.loadResult == SQLITE_OK) {
        compareSchema(file, report.schemaRemarks);
        count(file, report);
    }
    return report;
}
