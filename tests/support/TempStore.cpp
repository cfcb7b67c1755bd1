// Stores of a test's own, and another connection's view of them.

#include "tests/support/TempStore.h"

#include "platform/host/LogSink.h"
#include "store/FileLocations.h"
#include "values/DistinguishedName.h"

#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

std::string newDirectory()
{
    std::string name = (fs::temp_directory_path() / "tamo_store.XXXXXX").string();
    return mkdtemp(name.data()) ? name : std::string();
}

} // namespace

TempDirectories::TempDirectories() : m_root(newDirectory()), middleware(path("state.json"))
{
    const std::map<std::string, std::string> places{
        {"TAMO_DB_RUNTIME_PATH", "runtime"}, {"TAMO_DB_FILE_PATH", "flash"},
        {"TAMO_DB_DUMP_FILE_PATH", "dump"},  {"TAMO_PERSISTENT_STORAGE", "common"},
        {"TAMO_BRM_BACKUP_PATH", "backup"},  {"TAMO_CONFIG_PARTITIONS", "partitions"}};
    for (const auto& [variable, name] : places) {
        fs::create_directories(path(name));
        m_environment.push_back(std::make_unique<ScopedVariable>(variable, path(name)));
    }
    m_environment.push_back(std::make_unique<ScopedVariable>("TAMO_NODE_STATE", path("state.json")));
    m_environment.push_back(std::make_unique<ScopedVariable>("TAMO_LOG_FILE", "/dev/null"));
    mw_log::configure();
}

TempDirectories::~TempDirectories()
{
    if (HasFailure())
        ADD_FAILURE() << log.all();
    m_environment.clear();
    mw_log::configure();
    fs::remove_all(m_root);
}

TempStore::TempStore()
{
    EXPECT_EQ(store().loadOrSaveDb(SQLite::Direction::load), SQLITE_OK);
    store().setDatabaseFile(dumpFile());
    store().setReady();
}

TempStore::~TempStore()
{
    constexpr bool save = false;
    SQLite::destroyInstance(save);
}

bool TempStore::insert(const std::string& wholeDn, std::vector<Attribute> attributes, bool isMOMObject,
                       std::int32_t MOInstance)
{
    DBObject made = container(wholeDn, std::move(attributes), isMOMObject, MOInstance);
    return store().sql_insert(&made, false, "test");
}

bool TempStore::update(const std::string& wholeDn, std::vector<Attribute> attributes)
{
    DBObject made = container(wholeDn, std::move(attributes));
    return store().sql_update(&made, false, "test");
}

std::unique_ptr<DBObject> TempStore::object(const std::string& wholeDn, std::int32_t MOInstance)
{
    return store().sql_get_object(wholeDn, MOInstance, "test");
}

std::string TempStore::value(const std::string& wholeDn, const std::string& name)
{
    const auto found = object(wholeDn);
    const Attribute* const held = found ? found->getAttribute(name) : nullptr;
    return held ? held->ToStr() : "(none)";
}

std::string TempStore::committed(const std::string& sql) const { return queryFile(path("runtime/pRBSdb"), sql); }

bool TempStore::anotherConnectionCanWrite() const
{
    Connection other;
    if (other.open(path("runtime/pRBSdb"), SQLITE_OPEN_READWRITE, 0) != SQLITE_OK)
        return false;
    return other.execute("BEGIN IMMEDIATE; ROLLBACK") == SQLITE_OK;
}

std::string TempStore::everything() const
{
    return committed("select id||'|'||parent||'|'||dn||'|'||MOInstance||'|'||isMOMObject||'|'||system from DBObject") +
           "\n" +
           committed("select belongsTo||'|'||name||'|'||quote(value)||'|'||value_type||'|'||hidden||'|'||persistent "
                     "from Attribute order by belongsTo,name");
}

DBObject container(const std::string& wholeDn, std::vector<Attribute> attributes, bool isMOMObject,
                   std::int32_t MOInstance)
{
    const SplitDn split = splitOwnPair(wholeDn);
    DBObject made(split.pair, MOInstance, isMOMObject, false, 0, 1, split.parent, 0);
    for (Attribute& each : attributes)
        made.addAttribute(std::move(each));
    return made;
}

Attribute attribute(const std::string& name, Value value, std::int32_t type)
{
    return {false, name, std::move(value), 0, false, type, true, false};
}

Attribute text(const std::string& name, const std::string& value) { return attribute(name, value, IPCData::STRING); }

Attribute reference(const std::string& name, const std::string& dns)
{
    return attribute(name, dns, IPCData::REFERENCE);
}

std::string queryFile(const std::string& path, const std::string& sql)
{
    sqlite3* file = nullptr;
    sqlite3_stmt* rows = nullptr;
    std::string joined;
    if (sqlite3_open_v2(path.c_str(), &file, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(file, sql.c_str(), -1, &rows, nullptr) != SQLITE_OK) {
        joined = std::string("error: ") + sqlite3_errmsg(file);
    } else {
        while (sqlite3_step(rows) == SQLITE_ROW) {
            const auto* const column = reinterpret_cast<const char*>(sqlite3_column_text(rows, 0));
            joined += (joined.empty() ? "" : ",") + std::string(column ? column : "NULL");
        }
    }
    sqlite3_finalize(rows);
    sqlite3_close(file);
    return joined;
}
