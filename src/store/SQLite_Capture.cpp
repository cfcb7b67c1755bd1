// From changed rows to notification items: SQLite's update hook records which rows a write changes,
// and before the commit the rows are read back, while they still exist. Deletions, whose rows cannot
// be read back, are captured before they happen. SQLite_Notify.cpp hands the items on.

#include "store/SQLite.h"

#include "store/AlternateStorage.h"
#include "store/Statement.h"
#include "store/ValueBinding.h"

#include "platform/middleware/Log.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <exception>

namespace {

constexpr const char* objectTable = "DBObject";
constexpr const char* attributeTable = "Attribute";
constexpr const char* alternateTable = "Attribute_AltStorage";

/// Whether the step that ended the reading of a row was none of its own ends.
bool broken(const Statement& statement)
{
    const int result = statement.result();
    return result != SQLITE_OK && result != SQLITE_ROW && result != SQLITE_DONE;
}

NotificationItem itemOf(const DBObject& object, std::string wholeDn, std::int32_t operation)
{
    NotificationItem item;
    item.dn = object.dn;
    item.wholeDn = std::move(wholeDn);
    item.MOInstance = object.MOInstance;
    item.operation = operation;
    item.isMOMObject = object.isMOMObject;
    return item;
}

/// The item of one attribute of the object that `object` is about.
NotificationItem itemOf(const NotificationItem& object, const Attribute& attribute)
{
    NotificationItem item = object;
    item.attribute = attribute.name;
    item.value = attribute.value;
    item.valueType = typeFits(attribute.type, attribute.value) ? attribute.type : IPCData::INVALID;
    item.hidden = attribute.hidden;
    return item;
}

bool isStructMember(const NotificationItem& item)
{
    return !item.isMOMObject && item.dn.find(':') != std::string::npos;
}

} // namespace

void SQLite::sql_updateCallback(void* store, int operation, const char*, const char* table, long long rowId)
{
    auto* const self = static_cast<SQLite*>(store);
    if (operation == changeDelete && std::strcmp(table, objectTable) == 0)
        self->forgetDeleted(rowId);
    if (self->shutDownOngoing(__func__))
        return;
    if (self->m_notificationsDisabled) {
        LOG_DEBUG("SQLite::%s, Notifications currently disabled, not collecting changed rows to notification list!",
                  __func__);
        return;
    }
    try {
        ChangedRow& row = self->m_changedRows.emplace_back();
        std::strncpy(row.table.data(), table, row.table.size() - 1);
        row.rowId = rowId;
        row.operation = operation;
    } catch (const std::exception& error) { // SQLite, our caller, knows no exceptions
        LOG_ERROR("SQLite::%s, a change of %s row %lld will not be told: %s", __func__, table, rowId, error.what());
    }
}

void SQLite::forgetDeleted(std::int64_t objectId) noexcept
try {
    forgetLookups();
    if (m_referrers)
        m_goneHolders.insert(static_cast<std::int32_t>(objectId));
} catch (const std::exception&) {
    forgetReferrers(); // no memory: they are read again
}

void SQLite::sql_collectDnInstPairs()
{
    if (unavailable(__func__) || !onOwnRuntime())
        return;
    for (const ChangedRow& row : m_changedRows) {
        try {
            sql_collectOneDnInstPair(m_runtime, row);
        } catch (const std::exception& error) {
            m_ownerKnown = false;
            LOG_ERROR("SQLite::%s, a change of %s row %lld will not be told: %s", __func__, row.table.data(),
                      static_cast<long long>(row.rowId), error.what());
        }
    }
    m_changedRows.clear();
}

void SQLite::sql_collectOneDnInstPair(Connection* connection, const ChangedRow& row)
{
    if (unavailable(__func__))
        return;
    const std::string_view table = row.table.data();
    if (table == objectTable)
        sql_collectOnePair_DBObject(connection, row.operation, row.rowId);
    else if (table == attributeTable)
        sql_collectOnePair_Attribute(connection, row.operation, row.rowId, false);
    else if (table == alternateTable)
        sql_collectOnePair_Attribute(connection, row.operation, row.rowId, true);
    else
        LOG_DEBUG("SQLite::%s, other tables than DBOject and Attribute not supported", __func__);
}

void SQLite::sql_collectOnePair_DBObject(Connection* connection, int operation, std::int64_t rowId)
{
    if (unavailable(__func__))
        return;
    m_ownerKnown = false; // until this row is read, the attribute rows behind it belong to nobody we know
    Statement row(connection, "select id,parent,dn,MOInstance,isMOMObject from %Q where rowid = %ld", objectTable,
                  rowId);
    if (!row.prepared()) {
        LOG_ERROR("SQLite::%s, invalid statement.", __func__);
        return;
    }
    if (!row.next()) {
        if (broken(row)) {
            LOG_ERROR("SQLite::%s, failed to process correctly (dn).", __func__);
            doIntegrityCheck();
        }
        return;
    }
    NotificationItem item;
    item.dn = row.text(2);
    if (item.dn.empty()) {
        LOG_ERROR("SQLite::%s, failed to catch object dn.", __func__);
        return;
    }
    const std::int32_t parentId = row.integer(1);
    item.MOInstance = row.integer(3);
    item.isMOMObject = row.integer(4) != 0;
    item.operation = operation;
    item.storageKind = kindOf(storageLive);
    if (item.MOInstance == 0)
        LOG_DEBUG("SQLite::%s, got 0 instance. Notifications may be erroneous.", __func__);
    item.wholeDn = wholeDnField(item.dn, static_cast<std::int32_t>(rowId), parentId);
    if (isStructMember(item)) {
        LOG_DEBUG("SQLite::%s, struct found %s.", __func__, item.dn.c_str());
        collectStructOwner(item, parentId);
    }
    sql_eraseDuplicateFomDnInstList(item);
    activeList().append(std::move(item));
    m_ownerKnown = true;
}

/// The whole DN as items carry it: empty for an object directly under the base object.
std::string SQLite::wholeDnField(const std::string& pair, std::int32_t objectId, std::int32_t parentId)
{
    if (parentId == 0)
        return {};
    if (const std::string* const parentDn = m_parents.wholeDn(parentId))
        return joinDn(*parentDn, pair);
    int result = SQLITE_DONE;
    const auto parent = objectRow(parentId, result);
    if (!parent && result != SQLITE_OK && result != SQLITE_DONE) {
        LOG_ERROR("SQLite::%s, failed to process correctly (instance).", "sql_collectOnePair_DBObject");
        doIntegrityCheck();
    }
    return parent && !parent->dn.empty() && parent->dn != "baseobject" ? get_whole_dn(objectId) : std::string();
}

/// A change of a struct's member is also a change of the struct-valued attribute of its owner.
void SQLite::collectStructOwner(const NotificationItem& member, std::int32_t ownerId)
{
    const char* const operation = "sql_collectOnePair_DBObject";
    const auto owner = sql_get_object(ownerId, operation);
    if (!owner) {
        LOG_DEBUG("SQLite::%s, Cannot find struct object's parent.", operation);
        return;
    }
    std::string name = member.dn.substr(member.dn.find(':') + 1);
    const bool ofList = name.find('=') != std::string::npos;
    if (ofList)
        name = get_object_name(name, true);
    const Attribute* attribute = owner->getAlternateAttribute(name);
    if (!attribute)
        attribute = owner->getAttribute(name);
    NotificationItem ownerItem = itemOf(*owner, get_whole_dn(owner->id), member.operation);
    ownerItem.storageKind = member.storageKind;
    const NotificationItem* const latest = m_changes.latestOfObject(ownerItem);
    ownerItem.implied = !latest || latest->implied;
    if (!attribute) {
        LOG_DEBUG("SQLite::%s, Cannot find struct attribute %s from object.", operation, name.c_str());
    } else {
        NotificationItem item = itemOf(ownerItem, *attribute);
        if (ofList &&
            (item.operation == changeDelete || (item.operation == changeInsert && !attribute->ToStr().empty())))
            item.operation = changeUpdate;
        if (!activeList().contains(item))
            activeList().append(std::move(item));
    }
    if (latest)
        ownerItem.operation = latest->operation;
    sql_eraseDuplicateFomDnInstList(ownerItem);
    activeList().append(std::move(ownerItem));
}

void SQLite::sql_collectOnePair_Attribute(Connection* connection, int operation, std::int64_t rowId, bool alternate)
{
    if (unavailable(__func__) || !m_ownerKnown)
        return;
    if (alternate && !AlternateStorage(*connection).tableExists())
        return; // emptied and dropped since, by the load of a slot
    Statement row(connection, "select name, value, value_type, hidden from %Q where rowid = %ld",
                  alternate ? alternateTable : attributeTable, rowId);
    if (!row.prepared()) {
        LOG_ERROR("SQLite::%s, attr, invalid statement.", __func__);
        return;
    }
    if (!row.next()) {
        if (broken(row)) {
            LOG_ERROR("SQLite::%s, attr, failed to process correctly.", __func__);
            doIntegrityCheck();
        }
        return;
    }
    NotificationItem item;
    item.attribute = row.text(0);
    if (item.attribute.empty()) {
        LOG_ERROR("SQLite::%s, failed to catch object attribute name.", __func__);
        return;
    }
    if (const NotificationItem* const owner = activeList().last()) {
        item.dn = owner->dn;
        item.wholeDn = owner->wholeDn;
        item.MOInstance = owner->MOInstance;
        item.isMOMObject = owner->isMOMObject;
    }
    item.operation = operation;
    item.valueType = row.integer(2);
    if (alternativeOf(item.valueType))
        item.value = readValue(row, 1, item.valueType);
    else
        LOG_ERROR("SQLite::%s, Attribute value type invalid!", __func__);
    item.hidden = row.integer(3) != 0;
    item.storageKind = kindOf(alternate ? storageAlternate : storageLive);
    if (isStructMember(item)) {
        const std::size_t colon = item.dn.find(':');
        if (NotificationItem* const ofOwner =
                activeList().latestOf(item.dn.substr(0, colon), item.dn.substr(colon + 1)))
            ofOwner->storageKind = item.storageKind;
    }
    activeList().append(std::move(item));
}

void SQLite::sql_eraseDuplicateFomDnInstList(const NotificationItem& item)
{
    if (!shutDownOngoing(__func__))
        activeList().EraseDuplicate(item);
}

void SQLite::captureDeletion(std::int32_t objectId)
{
    if (!capturesDeletions())
        return;
    const auto object = sql_get_object(objectId, "delete_object");
    if (!object)
        return;
    NotificationItem item = itemOf(*object, get_whole_dn(objectId), changeDelete);
    item.storageKind = kindOf(storageLive);
    activeList().append(item);
    for (const auto& entry : object->attributes)
        activeList().append(itemOf(item, entry.second));
}

void SQLite::captureAttributeDeletion(std::int32_t objectId, const std::string& name)
{
    const auto object = capturesDeletions() ? sql_get_object(objectId, "deleteAttribute") : nullptr;
    const Attribute* const attribute = object ? object->getAttribute(name) : nullptr;
    if (!attribute)
        return;
    NotificationItem item = itemOf(itemOf(*object, get_whole_dn(objectId), changeDelete), *attribute);
    item.storageKind = kindOf(storageLive);
    activeList().append(std::move(item));
}

StorageKind SQLite::kindOf(StorageKind table) const { return m_loadingAlternateStorage ? storageLoading : table; }

bool SQLite::capturesDeletions() const { return onOwnRuntime() && !m_notificationsDisabled; }

NotificationList& SQLite::activeList() { return m_synchronising ? m_synchronised : m_changes; }

void SQLite::forgetChanges()
{
    if (!onOwnRuntime())
        return;
    if (m_synchronising)
        m_synchronised.cutBack(m_synchronisedAtBegin); // what was mirrored before is committed
    else
        m_changes.clear();
    m_changedRows.clear();
    m_ownerKnown = true;
}
