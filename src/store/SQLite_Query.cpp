// Rows of the tables as objects and attributes, and the yes/no questions about the tree.

#include "store/SQLite.h"

#include "store/AlternateStorage.h"
#include "store/Statement.h"
#include "store/ValueBinding.h"

#include "platform/middleware/Log.h"

#include <sqlite3.h>

#include <utility>

namespace {

/// An attribute from a row in the column order of the tables.
Attribute attributeOf(const Statement& row, std::string name, const char* logPrefix)
{
    const std::int32_t type = row.integer(4);
    return {row.integer(5) != 0,
            std::move(name),
            readValue(row, 3, type, logPrefix),
            0,
            row.integer(6) != 0,
            type,
            false,
            false};
}

} // namespace

std::unique_ptr<DBObject> SQLite::sql_get_object(std::int32_t objectId, const std::string& client)
{
    if (unavailable(__func__))
        return nullptr;
    auto object = std::make_unique<DBObject>("notInitialized", 1, false, false, 0, 1);
    if (!readObjectRow(*object, objectId, client))
        return nullptr;
    if (object->parentId != 0) {
        object->parentDn = get_whole_dn(object->parentId);
        Statement parent(m_runtime, "select MOInstance from DBObject where id = %d", object->parentId);
        if (parent.next())
            object->parentMOInstance = parent.integer(0);
    }
    if (!readAttributes(*object)) {
        LOG_ERROR("Failed to read Attribute table!");
        doIntegrityCheck();
        return nullptr;
    }
    std::vector<Attribute> parked;
    AlternateStorage(*m_runtime).getAlternateStorageAttributes(objectId, parked, client);
    for (Attribute& attribute : parked)
        object->addAlternateAttribute(std::move(attribute));
    LOG_DEBUG("Object id %d is fetched from the database by %s", objectId, client.c_str());
    return object;
}

bool SQLite::readObjectRow(DBObject& object, std::int32_t objectId, const std::string& client)
{
    int result = SQLITE_DONE;
    const auto row = objectId == 0 ? std::nullopt : objectRow(objectId, result);
    if (!row && result == SQLITE_DONE) {
        LOG_DEBUG("Failed to fetch object id %d, because it does not exist in the database. Client %s", objectId,
                  client.c_str());
        return false;
    }
    if (!row) {
        LOG_ERROR("Failed to read DBObject table!");
        doIntegrityCheck();
        return false;
    }
    object.id = row->id;
    object.parentId = row->parent;
    object.dn = row->dn;
    object.MOInstance = row->MOInstance;
    object.isMOMObject = row->isMOMObject;
    object.system = row->system;
    return true;
}

bool SQLite::readAttributes(DBObject& object)
{
    Statement rows(m_runtime, "select * from Attribute where belongsTo = %d", object.id);
    while (rows.next())
        object.addAttribute(attributeOf(rows, std::string(rows.text(2)), ""));
    return rows.done();
}

std::unique_ptr<DBObject> SQLite::sql_get_object(const std::string& dn, std::int32_t MOInstance,
                                                 const std::string& client)
{
    if (unavailable(__func__))
        return nullptr;
    const std::int32_t id = get_object_id(dn, MOInstance);
    if (id == 0) {
        LOG_DEBUG("Failed to fetch %s, because it does not exist in the database. Client %s", dn.c_str(),
                  client.c_str());
        return nullptr;
    }
    return sql_get_object(id, client);
}

std::unique_ptr<Attribute> SQLite::sql_get_attribute(std::int32_t objectId, const std::string& name,
                                                     const std::string& client, bool fromAlternateStorage)
{
    if (unavailable(__func__))
        return nullptr;
    if (objectId == 0) {
        LOG_DEBUG("SQLite::%s: Failed to fetch attribute %s because object id %d does not exist in the database. "
                  "Client %s",
                  __func__, name.c_str(), objectId, client.c_str());
        return nullptr;
    }
    if (!fromAlternateStorage || AlternateStorage(*m_runtime).tableExists()) {
        Statement row(m_runtime, "select * from %Q where belongsTo = %d and name = %Q",
                      fromAlternateStorage ? "Attribute_AltStorage" : "Attribute", objectId, name.c_str());
        if (row.next()) {
            auto attribute = std::make_unique<Attribute>(attributeOf(row, name, "SQLite::sql_get_attribute() "));
            if (fromAlternateStorage)
                attribute->slot = row.integer(7);
            LOG_DEBUG("SQLite::%s() Attribute %s fetched from the database by %s", __func__, name.c_str(),
                      client.c_str());
            return attribute;
        }
        if (!row.done()) {
            LOG_ERROR("SQLite::%s() Error fetching %s from database. SQLite error code %d", __func__, name.c_str(),
                      row.result());
            doIntegrityCheck();
        }
    }
    LOG_WARNING("SQLite::%s() Attribute %s not found from database. Client: %s", __func__, name.c_str(),
                client.c_str());
    return nullptr;
}

std::unique_ptr<Attribute> SQLite::sql_get_attribute(const std::string& dn, const std::string& name,
                                                     const std::string& client, bool fromAlternateStorage)
{
    if (unavailable(__func__))
        return nullptr;
    const std::int32_t id = get_object_id(dn, 1);
    if (id == 0) {
        LOG_DEBUG("SQLite::%s Failed to fetch %s:%s, because it does not exist in the database. Client %s", __func__,
                  dn.c_str(), name.c_str(), client.c_str());
        return nullptr;
    }
    return sql_get_attribute(id, name, client, fromAlternateStorage);
}

bool SQLite::checkAttributeExistence(const std::string& name, std::int32_t objectId)
{
    if (unavailable(__func__))
        return false;
    Statement row(m_runtime, "select * from Attribute where name = %Q and belongsTo = %d ", name.c_str(), objectId);
    if (row.next()) {
        LOG_DEBUG("SQLite::%s, Attribute %s found from database", __func__, name.c_str());
        return true;
    }
    if (row.done()) {
        LOG_DEBUG("SQLite::%s, Attribute %s not found from database", __func__, name.c_str());
    } else {
        LOG_ERROR("SQLite::%s, Attribute %s not found from database. Sqlite error: %d", __func__, name.c_str(),
                  row.result());
        doIntegrityCheck();
    }
    return false;
}

bool SQLite::sql_isPresent(const std::string& dn, std::int32_t MOInstance)
{
    return !unavailable(__func__) && get_object_id(dn, MOInstance) != 0;
}

bool SQLite::readinessUnknown(const char* operation, int result)
{
    LOG_ERROR("%s - Prepare error (%d): %s", operation, result, m_runtime->message());
    m_oamIds.reset();
    doIntegrityCheck();
    return false;
}

bool SQLite::isReadyForOssSync(const std::string& client)
{
    LOG_DEBUG("SQLite::%s - Enter - p_client: %s", __func__, client.c_str());
    if (!m_runtime)
        return false;
    // Delivery asks before each change it would keep for later. No index finds an object by its pair
    // alone, so the search is made once, until such an object may have come.
    if (!m_oamIds) {
        Statement rows(m_runtime, "select id from DBObject where dn = %Q", oamPair);
        m_oamIds.emplace();
        while (rows.next())
            m_oamIds->push_back(rows.integer(0));
        if (!rows.done())
            return readinessUnknown(__PRETTY_FUNCTION__, rows.result());
    }
    bool isReady = false;
    for (const std::int32_t id : *m_oamIds) {
        Statement row(m_runtime, "select value from Attribute where belongsTo = %d and name = %Q", id,
                      "readyForOssSync");
        if (row.next()) {
            isReady = row.integer(0) != 0;
            break;
        }
        if (!row.done())
            return readinessUnknown(__PRETTY_FUNCTION__, row.result());
    }
    LOG_DEBUG("SQLite::%s - Exit - Return: %x %s", __func__, isReady ? 1U : 0U, client.c_str());
    return isReady;
}

void SQLite::getAIPhase(std::int32_t& phase)
{
    LOG_DEBUG("SQLite::%s - START", __func__);
    if (const auto object = sql_get_object("OAM", 1, "SQLite")) {
        if (const Attribute* const attribute = object->getAttribute("AI_phase")) {
            if (const auto* const value = std::get_if<std::int32_t>(&attribute->value)) {
                phase = *value;
                LOG_DEBUG("SQLite::%s - phase(%d)", __func__, phase);
            } else {
                LOG_ERROR("SQLite::%s - bad get", __func__);
            }
        }
    }
    LOG_DEBUG("SQLite::%s - END", __func__);
}

bool SQLite::checkPersistentDataExistenceFromDB()
{
    if (unavailable(__func__))
        return false;
    Statement row(m_runtime, "select * from Attribute where persistent = 1");
    if (row.next())
        return true;
    if (row.done()) {
        LOG_DEBUG("SQLite::%s, No persistent data found from database.", __func__);
        return false;
    }
    LOG_ERROR("SQLite::%s, Error while checking persistent data from database. Sqlite error: %d", __func__,
              row.result());
    doIntegrityCheck();
    return true;
}
