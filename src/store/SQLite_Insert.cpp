// Adding an object with its attributes and references. An object that is there already is updated
// instead (SQLite_Update.cpp).

#include "store/SQLite.h"

#include "store/Statement.h"
#include "store/ValueBinding.h"
#include "store/WriteOperation.h"

#include "platform/middleware/Log.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <sqlite3.h>

class SQLite::InsertOperation : private WriteOperation {
public:
    using WriteOperation::WriteOperation;

    bool run()
    {
        resolveIdentifiers();
        if (m_object.MOInstance == 0) {
            LOG_ERROR("Insert Error: MOInstance is 0");
            return false;
        }
        OwnTransaction transaction(m_store, m_inTransaction);
        if (!transaction)
            return false;
        m_dn = m_store.alignSingletonDn(m_object.dn); // may rename the stored object
        if (transaction.isOwn())
            LOG_DEBUG("Single insert");
        setTimeStamps();
        const int result = insertRow();
        if (result == SQLITE_CONSTRAINT) {
            if (transaction.isOwn())
                transaction.finish();
            return m_store.sql_update(&m_object, m_inTransaction, m_client);
        }
        if (result != SQLITE_DONE || !insertAttributes())
            return false;
        if (m_holdsReference)
            setReferences();
        if (lostTransaction()) // while a reference was set
            return false;
        transaction.finish();
        return true;
    }

private:
    void resolveIdentifiers();
    void setTimeStamps();
    int insertRow();
    bool insertAttributes();
    bool insertAttribute(const Attribute& attribute);
    void setReferences();

    std::string m_dn;            // as it is stored
    std::int32_t m_knownId = 0;  // of a row with this pair under this parent
    std::int32_t m_objectId = 0; // of the new row
    bool m_holdsReference = false;
};

bool SQLite::sql_insert(DBObject* object, bool inTransaction, const std::string& client)
{
    LOG_DEBUG("SQLite::sql_insert() START");
    if (unavailable(__func__))
        return false;
    if (!object) {
        LOG_ERROR("SQLite::sql_insert() Update error: DBObject is invalid!");
        return false;
    }
    LOG_DEBUG("SQLite::sql_insert(): DBObject(dn: '%s') Client: %s", object->dn.c_str(), client.c_str());
    return InsertOperation(*this, *object, inTransaction, client).run();
}

void SQLite::InsertOperation::resolveIdentifiers()
{
    m_store.checkParentId(m_object);
    if (m_object.parentId == 0 && !m_object.parentDn.empty()) {
        m_store.resolveParent(m_object);
        if (m_object.parentId == 0) {
            LOG_ERROR("SQLite::sql_insert(): Parent not found. DBObject(dn: '%s' parent_dn: %s) Client: %s",
                      m_object.dn.c_str(), m_object.parentDn.c_str(), m_client.c_str());
            m_store.doIntegrityCheck();
        }
    }
    m_knownId = m_object.id;
    if (m_knownId == 0 || m_store.idIsStale(m_object, m_object.dn)) {
        m_knownId = m_store.childWithInstance(m_object.dn, m_object.parentId, m_object.MOInstance);
        if (m_knownId == 0)
            m_knownId = m_store.get_object_id_with_parent(m_object.dn, m_object.parentId);
    }
    if (m_object.parentId == 0 && m_object.isMOMObject && m_object.dn != "ManagedElement=1")
        LOG_ERROR("SQLite::sql_insert(): insert without parent. DBObject(dn: '%s') Client: %s", m_object.dn.c_str(),
                  m_client.c_str());
}

/// Only for attributes that the container already holds; none is added.
void SQLite::InsertOperation::setTimeStamps()
{
    if (!m_object.isMOMObject)
        return;
    if (Attribute* const creation = m_object.getAttribute("timeOfCreation"))
        creation->SetValue(m_store.FormatCurrentUtcTime(), IPCData::STRING);
    if (Attribute* const modification = m_object.getAttribute("timeOfLastModification"))
        modification->SetValue(modificationTime(m_knownId), IPCData::STRING);
}

/// SQLITE_DONE, SQLITE_CONSTRAINT for an object that exists, or a failure that is dealt with.
int SQLite::InsertOperation::insertRow()
{
    Statement insert(m_store.m_runtime, "INSERT INTO DBObject VALUES(NULL,%d,%Q,%d,%d,%d)", m_object.parentId,
                     m_dn.c_str(), m_object.MOInstance, m_object.isMOMObject ? 1 : 0, m_object.system ? 1 : 0);
    if (!insert.prepared()) {
        LOG_ERROR("Db error, DBObject: %s", m_store.m_runtime->message());
        m_store.doIntegrityCheck();
        return insert.result();
    }
    const int result = insert.step();
    if (result == SQLITE_DONE) {
        m_objectId = static_cast<std::int32_t>(sqlite3_last_insert_rowid(m_store.m_runtime->handle()));
        m_store.forgetFor(m_dn);
    } else if (result != SQLITE_CONSTRAINT) {
        LOG_ERROR("Error inserting %s by %s. SQLite error code %d", m_dn.c_str(), m_client.c_str(), result);
        m_store.doIntegrityCheck();
    }
    return result;
}

bool SQLite::InsertOperation::insertAttributes()
{
    for (const auto& [name, attribute] : m_object.attributes)
        if (!insertAttribute(attribute))
            return false;
    return true;
}

/// False when the whole insert must end; an attribute that SQLite refuses is only left out.
bool SQLite::InsertOperation::insertAttribute(const Attribute& attribute)
{
    const std::int32_t code = codeToStore(attribute);
    if (attribute.boamAttrId != 0)
        LOG_DEBUG("boamAttrId '%d' not inserted because of DB structure update!", attribute.boamAttrId);
    if (goesToAlternateStorage(attribute)) {
        park(m_objectId, attribute);
        return true;
    }
    Statement insert(m_store.m_runtime, "INSERT INTO Attribute VALUES(NULL,%d,%Q,?1,%d,%d,%d)", m_objectId,
                     attribute.name.c_str(), code, attribute.hidden ? 1 : 0, attribute.persistent ? 1 : 0);
    if (!insert.prepared()) {
        LOG_ERROR("Db error, Attributes: %s", m_store.m_runtime->message());
        m_store.doIntegrityCheck();
        LOG_ERROR("Error: ppStmt is NULL");
        m_store.doIntegrityCheck();
        return false;
    }
    logWrite("SQLite::sql_insert", "Inserting", code == IPCData::INT8 ? " " : "  ", attribute, code, m_client);
    bindValue(insert, code, attribute.value);
    if (isReferenceType(code)) {
        m_holdsReference = true;
        m_store.forgetReferrers();
    }
    insert.step();
    if (!insert.done()) {
        LOG_ERROR("SQLite bind error: sqlite3_step() returned %d", insert.result());
        LOG_ERROR("SQLite::sql_insert: Error inserting %s attribute to database by %s", attribute.name.c_str(),
                  m_client.c_str());
        m_store.doIntegrityCheck();
    }
    return !lostTransaction();
}

void SQLite::InsertOperation::setReferences()
{
    constexpr bool joined = true;
    for (const auto& [name, attribute] : m_object.attributes) {
        if (!isReferenceType(codeToStore(attribute)) || name == reservedBy)
            continue;
        try {
            m_store.setReference(std::get<std::string>(attribute.value), m_store.get_whole_dn(m_objectId), joined);
        } catch (const std::exception&) {
            LOG_ERROR("SQLite::sql_insert: unknown exception when handling reference type attribute");
        }
    }
}

/// Drops a parent id whose row carries another DN: row ids are used again after a delete. Without a
/// DN to go by the id stays, and the foreign key has the last word.
void SQLite::checkParentId(DBObject& object)
{
    if (object.parentId != 0 && !object.parentDn.empty() && get_whole_dn(object.parentId) != object.parentDn)
        object.parentId = 0;
}

/// Finds the parent by its DN and writes what was found into the container.
void SQLite::resolveParent(DBObject& object)
{
    if (object.parentMOInstance == 0)
        object.parentMOInstance = 1;
    object.parentId = m_parents.id(object.parentDn);
    if (object.parentId != 0)
        return;
    object.parentId = get_object_id(object.parentDn, object.parentMOInstance);
    if (object.parentId == 0 || splitOwnPair(object.parentDn).parent.empty())
        return;
    // An own pair that is all of the text is looked up by its MOInstance, too.
    const auto row = objectRow(object.parentId);
    if (row && row->dn != object.parentDn)
        m_parents.rememberId(object.parentDn, object.parentId);
}

std::int32_t SQLite::childWithInstance(const std::string& pair, std::int32_t parentId, std::int32_t MOInstance)
{
    Statement child(m_runtime, "select id from DBObject where parent = %d and dn = %Q and MOInstance = %d", parentId,
                    pair.c_str(), MOInstance);
    return child.next() ? child.integer(0) : 0;
}

/// Whether the container's object id belongs to another object by now; `pair` is the one it is
/// stored under.
bool SQLite::idIsStale(const DBObject& object, const std::string& pair)
{
    const auto row = objectRow(object.id);
    return !row || row->dn != pair || row->MOInstance != object.MOInstance ||
           (!object.parentDn.empty() && get_whole_dn(row->parent) != object.parentDn);
}
