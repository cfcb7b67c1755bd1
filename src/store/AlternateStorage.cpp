// Parked attribute values: writing, reading and counting them. AlternateStorage_Load.cpp makes them
// live again.

#include "store/AlternateStorage.h"

#include "store/Connection.h"
#include "store/SQLite.h"
#include "store/Statement.h"
#include "store/ValueBinding.h"

#include "platform/middleware/Log.h"
#include "values/Schema.h"
#include "values/ValueType.h"

#include <sqlite3.h>

namespace {

constexpr int slotColumn = 7;

Attribute attributeOf(const Statement& row)
{
    const std::int32_t type = row.integer(4);
    Attribute attribute(row.integer(5) != 0, std::string(row.text(2)), readValue(row, 3, type), 0, row.integer(6) != 0,
                        type, false, false);
    attribute.slot = row.integer(slotColumn);
    return attribute;
}

void checkFiles() { SQLite::getInstance().doIntegrityCheck(); }

} // namespace

bool AlternateStorage::tableExists()
{
    if (!m_connection.alternateTable) {
        Statement table(&m_connection, "select 1 from sqlite_master where type = 'table' and name = %Q",
                        "Attribute_AltStorage");
        if (!table.next() && !table.done())
            return true;
        m_connection.alternateTable = !table.done();
    }
    return *m_connection.alternateTable;
}

bool AlternateStorage::createTable()
{
    if (m_connection.alternateTable.value_or(false))
        return true;
    if (m_connection.execute(Schema::alternateTable) != SQLITE_OK ||
        m_connection.execute(Schema::alternateIndex) != SQLITE_OK)
        return false;
    m_connection.alternateTable = true;
    return true;
}

bool AlternateStorage::saveAttributeToAlternateStorage(std::int32_t objectId, const Attribute& attribute,
                                                       const std::string& client)
{
    const auto failed = [&] {
        LOG_ERROR("AlternateStorage::saveAttributeToAlternateStorage error: %s", m_connection.message());
    };
    if (!createTable()) {
        failed();
        checkFiles();
        return false;
    }
    const std::int32_t type = codeToStore(attribute);
    Statement park(&m_connection, "INSERT OR REPLACE INTO Attribute_AltStorage VALUES(NULL,%d,%Q,?1,%d,%d,%d,%d)",
                   objectId, attribute.name.c_str(), type, attribute.hidden ? 1 : 0, attribute.persistent ? 1 : 0,
                   attribute.slot);
    if (!park.prepared()) {
        failed();
        checkFiles();
        return false;
    }
    logWrite("AlternateStorage::saveAttributeToAlternateStorage", "Inserting", type == IPCData::INT8 ? " " : "  ",
             attribute, type, client);
    bindValue(park, type, attribute.value);
    park.step();
    if (park.done())
        return true;
    failed();
    LOG_ERROR("AlternateStorage::saveAttributeToAlternateStorage: Error inserting [%s] attribute to database",
              attribute.name.c_str());
    checkFiles();
    return false;
}

void AlternateStorage::getAlternateStorageAttributes(std::int32_t objectId, std::vector<Attribute>& attributes,
                                                     const std::string&)
{
    if (!tableExists())
        return;
    Statement rows(&m_connection, "SELECT * from Attribute_AltStorage WHERE belongsTo=%d", objectId);
    while (rows.next())
        attributes.push_back(attributeOf(rows));
}

bool AlternateStorage::getAlternateStorageAttribute(std::int32_t objectId, const std::string& name,
                                                    Attribute& attribute)
{
    if (!tableExists())
        return true;
    Statement row(&m_connection, "SELECT * from Attribute_AltStorage WHERE belongsTo=%d AND name = %Q", objectId,
                  name.c_str());
    if (!row.next())
        return row.done();
    attribute = attributeOf(row);
    return true;
}

/// Whether there is a row; none, logged and checked, when SQLite could not say. SQLITE_ERROR, as of a
/// table that is not there, counts as no row.
std::optional<bool> AlternateStorage::anyRow(Statement& rows, const char* operation)
{
    const int result = rows.step();
    if (result == SQLITE_ROW || result == SQLITE_DONE || result == SQLITE_ERROR)
        return result == SQLITE_ROW;
    LOG_ERROR("AlternateStorage::%s: SQLite error [%s]", operation, m_connection.message());
    checkFiles();
    return std::nullopt;
}

bool AlternateStorage::hasAlternateStorageAttributes(std::int32_t objectId)
{
    if (!tableExists())
        return false;
    Statement rows(&m_connection, "SELECT * FROM Attribute_AltStorage WHERE belongsTo=%d", objectId);
    return anyRow(rows, __func__).value_or(false);
}

bool AlternateStorage::alternateStorageEmpty()
{
    if (!tableExists())
        return true;
    Statement rows(&m_connection, "SELECT * FROM Attribute_AltStorage");
    return !anyRow(rows, __func__).value_or(true);
}

bool AlternateStorage::dropAlternateStorage()
{
    if (m_connection.execute("DROP TABLE IF EXISTS Attribute_AltStorage") != SQLITE_OK) {
        LOG_ERROR("AlternateStorage::loadAlternateStorage drop table error: %s", m_connection.message());
        checkFiles();
        return false;
    }
    m_connection.alternateTable = false;
    return true;
}
