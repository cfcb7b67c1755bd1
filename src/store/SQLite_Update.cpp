// Writing what a container changes in a stored object: its row, its changed attributes, its time
// stamp, and the back references of the objects it points to.

#include "store/SQLite.h"

#include "store/Statement.h"
#include "store/ValueBinding.h"
#include "store/WriteOperation.h"

#include "platform/middleware/Log.h"
#include "values/ValueType.h"

#include <sqlite3.h>

#include <cstdlib>

namespace {

/// An attribute's row, as far as the update looks at it; id 0 when there is none.
struct StoredAttribute {
    std::int32_t id = 0;
    std::int32_t type = 0;
    std::string text; // the value as SQLite gives it in text form
    Value value;      // the value itself
    bool hidden = false;
    bool persistent = false;
};

enum class Outcome { goOn, failed };

} // namespace

class SQLite::UpdateOperation : private WriteOperation {
public:
    using WriteOperation::WriteOperation;

    bool run()
    {
        OwnTransaction transaction(m_store, m_inTransaction);
        if (!transaction)
            return false;
        m_dn = m_store.alignSingletonDn(m_object.dn); // may rename the stored object
        m_store.checkParentId(m_object);
        m_objectId = findId();
        if (m_objectId == 0)
            return notStored();
        if (!readRow())
            return false;
        if (transaction.isOwn())
            LOG_DEBUG("Single update");
        if (!writeAll()) {
            transaction.abandon();
            m_store.doIntegrityCheck();
            return false;
        }
        transaction.finish();
        return true;
    }

private:
    bool writeAll()
    {
        if (!updateRow())
            return false;
        stampModification();
        for (auto& [name, attribute] : m_object.attributes)
            if (attribute.changed && writeAttribute(attribute) == Outcome::failed)
                return false;
        if (m_referenceWritten)
            updateReferences();
        return !lostTransaction();
    }

    std::int32_t findId();
    bool notStored() const;
    bool readRow();
    bool updateRow();
    void stampModification();
    Outcome writeAttribute(const Attribute& attribute);
    void deleteMarked(const Attribute& attribute);
    bool readStored(const Attribute& attribute, StoredAttribute& stored);
    bool isSame(const Attribute& attribute, const StoredAttribute& stored) const;
    void updateParked(const Attribute& attribute);
    Outcome storeValue(const Attribute& attribute, std::int32_t code, std::int32_t rowId);
    Outcome execute(Statement& statement, const Attribute& attribute, std::int32_t code);
    void updateReferences();

    std::string m_dn; // as it is stored
    std::int32_t m_objectId = 0;
    std::optional<std::int32_t> m_storedParent;
    bool m_referenceWritten = false;
    std::vector<std::string> m_oldReferences;
};

bool SQLite::sql_update(DBObject* object, bool inTransaction, const std::string& client)
{
    LOG_DEBUG("SQLite::sql_update() START");
    if (unavailable(__func__))
        return false;
    if (!object) {
        LOG_ERROR("SQLite::sql_update() Update error: DBObject is invalid!");
        return false;
    }
    LOG_DEBUG("SQLite::sql_update(): DBObject(dn: '%s') Client: %s", object->dn.c_str(), client.c_str());
    return UpdateOperation(*this, *object, inTransaction, client).run();
}

std::int32_t SQLite::UpdateOperation::findId()
{
    if (m_object.id != 0 && !m_store.idIsStale(m_object, m_dn))
        return m_object.id;
    if (m_object.parentId == 0 && !m_object.parentDn.empty())
        m_store.resolveParent(m_object);
    std::int32_t id = m_store.childWithInstance(m_dn, m_object.parentId, m_object.MOInstance);
    if (id == 0)
        id = m_store.get_object_id_with_parent(m_dn, m_object.parentId);
    if (id != 0)
        m_storedParent = m_object.parentId;
    return id;
}

bool SQLite::UpdateOperation::notStored() const
{
    LOG_DEBUG("Failed to update %s, because it does not exist in database", m_object.dn.c_str());
    return false;
}

bool SQLite::UpdateOperation::readRow()
{
    if (m_storedParent) // the object was found below it
        return true;
    int result = SQLITE_OK;
    const auto row = m_store.objectRow(m_objectId, result);
    if (!row && result == SQLITE_DONE)
        return notStored();
    if (!row) {
        LOG_ERROR("Update failed! SQLite error %d", result);
        m_store.doIntegrityCheck();
        return false;
    }
    m_storedParent = row->parent;
    if (m_object.parentId != 0 && m_object.parentId != *m_storedParent &&
        m_store.reachesItself(m_objectId, m_object.parentId)) {
        LOG_ERROR("SQLite::sql_update: %s cannot become a child of itself (parent id %d). Client: %s",
                  m_object.dn.c_str(), m_object.parentId, m_client.c_str());
        return false;
    }
    return true;
}

bool SQLite::UpdateOperation::updateRow()
{
    const int isMOMObject = m_object.isMOMObject ? 1 : 0;
    const int system = m_object.system ? 1 : 0;
    int result = SQLITE_OK;
    if (m_object.parentId == 0 || m_object.parentId == *m_storedParent) {
        // Naming an unchanged parent would rebuild the row's index entry for nothing.
        Statement update(m_store.m_runtime, "update DBObject set isMOMObject=%d,system=%d where id=%d", isMOMObject,
                         system, m_objectId);
        result = update.step();
    } else {
        Statement update(m_store.m_runtime, "update DBObject set parent=%d,isMOMObject=%d,system=%d where id=%d",
                         m_object.parentId, isMOMObject, system, m_objectId);
        result = update.step();
        m_store.forgetLookups();
    }
    if (result != SQLITE_DONE)
        LOG_ERROR("DBObject table update failed! SQLite error %d", result);
    return result == SQLITE_DONE;
}

void SQLite::UpdateOperation::stampModification()
{
    constexpr const char* name = "timeOfLastModification";
    if (!m_object.isMOMObject || !m_store.checkAttributeExistence(name, m_objectId))
        return;
    const std::string time = modificationTime(m_objectId);
    if (Attribute* const attribute = m_object.getAttribute(name))
        attribute->SetValue(time, IPCData::STRING);
    else
        m_object.addAttribute(Attribute(false, name, time, 0, true, IPCData::STRING, true, false));
}

Outcome SQLite::UpdateOperation::writeAttribute(const Attribute& attribute)
{
    if (attribute.deleted) {
        deleteMarked(attribute);
        return Outcome::goOn;
    }
    const std::int32_t code = codeToStore(attribute);
    StoredAttribute stored;
    if (!readStored(attribute, stored))
        return Outcome::failed;
    if (attribute.boamAttrId != 0)
        LOG_DEBUG("boamAttrId '%d' not inserted because of DB structure update!", attribute.boamAttrId);
    if (isReferenceType(stored.type) && attribute.name != reservedBy)
        m_oldReferences.push_back(stored.text);
    const bool same = stored.id != 0 && isSame(attribute, stored);
    if (attribute.name != reservedBy && (isReferenceType(stored.type) || isReferenceType(code)))
        m_store.forgetReferrers();
    if (goesToAlternateStorage(attribute)) {
        updateParked(attribute);
        return Outcome::goOn;
    }
    return same ? Outcome::goOn : storeValue(attribute, code, stored.id);
}

void SQLite::UpdateOperation::deleteMarked(const Attribute& attribute)
{
    constexpr bool joined = true;
    if (m_store.deleteAttribute(attribute.name, m_objectId, joined))
        LOG_DEBUG("SQLite::update: Attribute %s deleted from database by %s", attribute.name.c_str(), m_client.c_str());
    else
        LOG_DEBUG("SQLite::update: Error deleting attribute %s. Client: %s", attribute.name.c_str(), m_client.c_str());
}

bool SQLite::UpdateOperation::readStored(const Attribute& attribute, StoredAttribute& stored)
{
    Statement row(m_store.m_runtime,
                  "select id, value_type, value, hidden, persistent from Attribute where belongsTo = %d and name = %Q",
                  m_objectId, attribute.name.c_str());
    if (row.next()) {
        stored.id = row.integer(0);
        stored.type = row.integer(1);
        // A type that cannot be read is no fault here: the row is about to get a sound one.
        if (alternativeOf(stored.type))
            stored.value = readValue(row, 2, stored.type);
        stored.text = row.text(2);
        stored.hidden = row.integer(3) != 0;
        stored.persistent = row.integer(4) != 0;
        row.step();
    }
    if (!row.done())
        LOG_ERROR("Failed to fetch id from Attribute table! SQLite error %d", row.result());
    return row.done();
}

bool SQLite::UpdateOperation::isSame(const Attribute& attribute, const StoredAttribute& stored) const
{
    return m_store.checkIsSameValue(attribute.value, stored.type, stored.text, stored.value) &&
           stored.persistent == attribute.persistent && stored.hidden == attribute.hidden;
}

void SQLite::UpdateOperation::updateParked(const Attribute& attribute)
{
    const auto parked = m_store.sql_get_attribute(m_objectId, attribute.name, "sql_update", true);
    if (!parked || parked->ToStr() != attribute.ToStr())
        park(m_objectId, attribute);
    else
        LOG_DEBUG("SQLite::sql_update: %s value same as value in alt storage, no need to update.",
                  attribute.name.c_str());
}

Outcome SQLite::UpdateOperation::storeValue(const Attribute& attribute, std::int32_t code, std::int32_t rowId)
{
    const char* const name = attribute.name.c_str();
    const int hidden = attribute.hidden ? 1 : 0;
    const int persistent = attribute.persistent ? 1 : 0;
    if (rowId == 0) {
        Statement insert(m_store.m_runtime, "INSERT INTO Attribute VALUES(NULL,%d,%Q,?1,%d,%d,%d)", m_objectId, name,
                         code, hidden, persistent);
        return execute(insert, attribute, code);
    }
    Statement update(m_store.m_runtime,
                     "update Attribute set name=%Q,value = ?1,value_type=%d, hidden=%d,persistent=%d where belongsTo "
                     "= %d and id = %d",
                     name, code, hidden, persistent, m_objectId, rowId);
    return execute(update, attribute, code);
}

Outcome SQLite::UpdateOperation::execute(Statement& statement, const Attribute& attribute, std::int32_t code)
{
    try {
        bindValue(statement, code, attribute.value); // refuses a value that its code does not fit
    } catch (const std::exception& error) {
        LOG_ERROR("SQLite::sql_update: Exception: %s", error.what());
        return Outcome::failed;
    }
    m_referenceWritten = m_referenceWritten || (isReferenceType(code) && attribute.name != reservedBy);
    logWrite("SQLite::sql_update", "Updating", " ", attribute, code, m_client);
    statement.step();
    if (statement.done())
        return Outcome::goOn;
    LOG_ERROR("Attribute table update fail! SQLite error %d", statement.result());
    LOG_ERROR("Error updating attribute '%s' to database by %s", attribute.name.c_str(), m_client.c_str());
    return Outcome::failed;
}

void SQLite::UpdateOperation::updateReferences()
{
    constexpr bool joined = true;
    const std::string wholeDn = m_store.get_whole_dn(m_objectId);
    const auto guarded = [](auto&& work) {
        try {
            work();
        } catch (const std::exception&) {
            LOG_ERROR("SQLite::sql_update: unknown exception when handling reference type attribute");
        }
    };
    for (const std::string& old : m_oldReferences)
        guarded([&] { m_store.removeSingleReference(old, wholeDn, joined); });
    for (const auto& entry : m_object.attributes) {
        const Attribute& attribute = entry.second;
        if (isReferenceType(codeToStore(attribute)) && attribute.name != reservedBy)
            guarded([&] { m_store.setReference(std::get<std::string>(attribute.value), wholeDn, joined); });
    }
}

/// Whether the chain of parents from `newParent` up meets the object, or never ends.
bool SQLite::reachesItself(std::int32_t objectId, std::int32_t newParent)
{
    std::int32_t current = newParent;
    for (int level = 0; level < maxLevels && current != 0; ++level) {
        if (current == objectId)
            return true;
        const auto row = objectRow(current);
        current = row ? row->parent : 0;
    }
    return current != 0;
}

bool SQLite::checkIsSameValue(const Value& value, std::int32_t storedType, std::string_view storedText,
                              const Value& stored) const
{
    if (shutDownOngoing(__func__))
        return false;
    const std::int32_t kind = getAttributeValueType(value.index());
    if (kind != storedType) {
        LOG_DEBUG("SQLite::%s, type: %d, p_attr_value_type_from_db: %d", __func__, kind, storedType);
        return false;
    }
    const std::string text(storedText);
    const auto number = static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
    const auto textSays = [&] {
        switch (kind) {
        case IPCData::INT8:
            return std::get<std::int8_t>(value) == static_cast<std::int8_t>(number);
        case IPCData::UINT8:
            return std::get<std::uint8_t>(value) == static_cast<std::uint8_t>(number);
        case IPCData::INT16:
            return std::get<std::int16_t>(value) == static_cast<std::int16_t>(number);
        case IPCData::UINT16:
            return std::get<std::uint16_t>(value) == static_cast<std::uint16_t>(number);
        case IPCData::INT32:
            return std::get<std::int32_t>(value) == number;
        case IPCData::UINT32:
            return std::get<std::uint32_t>(value) == static_cast<std::uint32_t>(number);
        case IPCData::INT64:
            return std::get<std::int64_t>(value) == number;
        case IPCData::UINT64:
            return std::get<std::uint64_t>(value) == static_cast<std::uint64_t>(std::int64_t{number});
        case IPCData::BOOLEAN:
            return std::get<bool>(value) == (number != 0);
        case IPCData::DECIMAL64:
            return std::get<double>(value) == std::strtod(text.c_str(), nullptr);
        case IPCData::FLOAT:
            return std::get<float>(value) == static_cast<float>(std::strtod(text.c_str(), nullptr));
        case IPCData::STRING:
            return std::get<std::string>(value) == storedText;
        default:
            LOG_ERROR("SQLite::%s, Attribute value type %d invalid!", "checkIsSameValue", kind);
            return false;
        }
    };
    // The text form has 15 digits and the comparison by it 32 bits; the value itself has the last word.
    return textSays() && value == stored;
}
