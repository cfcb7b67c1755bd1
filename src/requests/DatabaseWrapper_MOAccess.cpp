// What the management agent has changed: told to the database's own subscribers, mirrored in deprecated
// attributes, noted in the objects that are referred to. The agent keeps those objects; nothing of the
// report itself is written to the tree.

#include "requests/DatabaseWrapper.h"

#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"
#include "platform/moaccess/MOTransactionNotify.h"
#include "platform/utility/Toolbox.h"
#include "store/ReservedBy.h"
#include "store/SQLite.h"
#include "store/SharedLock.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <cmath>
#include <exception>
#include <optional>
#include <set>
#include <utility>

using namespace TAMO::Messages;

namespace {

using ReportedAttribute = ReportedObject::ReportedAttribute;

std::int32_t operationOf(char letter)
{
    switch (letter) {
    case 'I':
    case 'i':
        return changeInsert;
    case 'D':
    case 'd':
        return changeDelete;
    default:
        return changeUpdate;
    }
}

void warnOfConversion(std::int32_t type)
{
    LOG_WARNING("DatabaseWrapper::%s: failed to convert %s", "ConvertValueFromString", typeName(type).c_str());
}

/// A number of the report, as `Kept` keeps it; 0, with a warning, for a text that is none. The 8-bit kinds
/// are read with 16 bits, of which the low 8 count.
template <class Kept, class Read>
Value numberOf(const std::string& text, std::int32_t type, bool (*convert)(const std::string&, Read&, bool))
{
    constexpr bool wholeText = true;
    Read number = 0;
    if (!convert(text, number, wholeText))
        warnOfConversion(type);
    return static_cast<Kept>(number);
}

template <class Kept>
Value floatingOf(const std::string& text, std::int32_t type)
{
    double number = 0;
    const bool read = Toolbox::convertStringToDouble(text, number);
    if (read && std::isfinite(static_cast<Kept>(number)))
        return static_cast<Kept>(number);
    warnOfConversion(type);
    return Kept{0};
}

bool isOfModel(char letter) { return letter == 'I' || letter == 'U' || letter == 'D'; }

NotificationItem itemOf(const ReportedObject& object)
{
    NotificationItem item;
    item.dn = splitOwnPair(object.dn).pair;
    item.wholeDn = object.dn;
    item.MOInstance = 1;
    item.operation = operationOf(object.operation);
    item.isMOMObject = isOfModel(object.operation);
    item.value = std::string();
    item.valueType = IPCData::STRING;
    return item;
}

void synchronise(SQLite& store, const NotificationItem& object, const attrNameValuePair& pair,
                 const SQLite::IsChanged& isReported)
{
    if (!store.attributeSynchronisationEnabled() || store.yieldsToSuccessor(object.wholeDn, pair.name, isReported))
        return;
    if (!store.SyncAttribute(object.wholeDn, pair.name, pair.value, pair.operation))
        LOG_ERROR("DatabaseWrapper::handleMOAccessNotify: Failed to syncronize attribute %s:%s", object.dn.c_str(),
                  pair.name.c_str());
}

void noteReferences(SQLite& store, const NotificationItem& object, const ReportedAttribute& attribute)
{
    if (!isReferenceType(attribute.type) || attribute.name == reservedBy)
        return;
    try {
        store.setReference(attribute.value, object.wholeDn, false);
    } catch (...) {
        LOG_ERROR("DatabaseWrapper::handleMOAccessNotify: unknown exception when handling reference type attribute");
        store.rollbackLeftOver();
    }
}

using Attributes = std::set<std::pair<std::string, std::string>>;

/// Every attribute of a report, as whole DN and name.
Attributes attributesOf(const std::vector<ReportedObject>& objects)
{
    Attributes all;
    for (const ReportedObject& object : objects)
        for (const ReportedAttribute& attribute : object.attributes)
            all.emplace(object.dn, attribute.name);
    return all;
}

/// One report on its way to the subscribers.
class ReportHandling {
public:
    ReportHandling(SQLite& store, Delivery& delivery, const std::vector<ReportedObject>& objects)
        : m_store(store),
          m_delivery(delivery),
          m_isReported([&objects, reported = std::optional<Attributes>()](const std::string& dn,
                                                                          const std::string& name) mutable {
              if (!reported)
                  reported = attributesOf(objects);
              return reported->contains({dn, name});
          })
    {}

    void announce(const ReportedObject& object);
    const TAMO_DBTransactionNotifData& notification() const { return m_notification; }

private:
    std::vector<attrNameValuePair> follow(const ReportedObject& object, const NotificationItem& item);
    void record(const ReportedObject& object, std::int32_t operation);

    SQLite& m_store;
    Delivery& m_delivery;
    const SQLite::IsChanged m_isReported;
    TAMO_DBTransactionNotifData m_notification;
};

void ReportHandling::announce(const ReportedObject& object)
{
    LOG_DEBUG("MOTransactionNotify: object %s changed", object.dn.c_str());
    LOG_DEBUG("MOTransactionNotify: operation: %c", object.operation);
    const NotificationItem item = itemOf(object);
    m_delivery.itemChanged(item);
    auto pairs = follow(object, item);
    if (pairs.empty() && item.operation == changeDelete)
        pairs.push_back({"", std::string(), IPCData::STRING, item.operation, storageLive, false});
    m_delivery.objectReported(item, pairs);
    record(object, item.operation);
}

/// What subscribers are told of the attributes; what has to be kept in step with them is, meanwhile.
std::vector<attrNameValuePair> ReportHandling::follow(const ReportedObject& object, const NotificationItem& item)
{
    std::vector<attrNameValuePair> pairs;
    pairs.reserve(object.attributes.size());
    for (const ReportedAttribute& attribute : object.attributes) {
        LOG_DEBUG("MOTransactionNotify: attribute: %s, value: %s, hidden: %d", attribute.name.c_str(),
                  attribute.value.c_str(), attribute.hidden ? 1 : 0);
        pairs.push_back({attribute.name, DatabaseWrapper::ConvertValueFromString(attribute.value, attribute.type),
                         attribute.type, item.operation, storageLive, attribute.hidden});
        synchronise(m_store, item, pairs.back(), m_isReported);
        noteReferences(m_store, item, attribute);
    }
    return pairs;
}

void ReportHandling::record(const ReportedObject& object, std::int32_t operation)
{
    const bool sameAsPrevious = !m_notification.entries.empty() && m_notification.entries.back().operation == operation;
    std::vector<std::string> names;
    names.reserve(object.attributes.size());
    for (const ReportedAttribute& attribute : object.attributes)
        names.push_back(attribute.name);
    m_notification.updateAttributes(object.dn, names, operation, sameAsPrevious);
}

/// What was mirrored and is not told yet. A transaction that an exception left open is gone first:
/// its changes are not to be told.
void tellMirrored(SQLite& store)
{
    store.rollbackLeftOver();
    store.sql_sendNotifications();
}

} // namespace

void DatabaseWrapper::handleMOAccessNotify(const RawMessage* raw, std::size_t length)
{
    SQLite& store = SQLite::getInstance();
    try {
        const MOTransactionNotify report(raw ? raw->body.data() : nullptr, raw ? length : 0);
        const SharedLock lock(store.runtime());
        ReportHandling handling(store, m_delivery, report.objects());
        for (const ReportedObject& object : report.objects())
            handling.announce(object);
        tellMirrored(store);
        m_delivery.transactionCommitted(handling.notification());
        return;
    } catch (const std::exception& error) {
        LOG_ERROR("MOAccess notify error: %s", error.what());
    } catch (...) {
        LOG_ERROR("MOAccess notify error: %s", "unknown exception");
    }
    tellMirrored(store);
}

Value DatabaseWrapper::ConvertValueFromString(const std::string& text, std::int32_t type)
{
    using namespace IPCData;
    switch (type) {
    case INVALID:
        LOG_WARNING("DatabaseWrapper::%s: unknown value type, set to string", __func__);
        return text;
    case INT8:
        return numberOf<std::int8_t>(text, type, Toolbox::convertStringToShort);
    case INT16:
        return numberOf<std::int16_t>(text, type, Toolbox::convertStringToShort);
    case INT32:
    case ENUM:
        return numberOf<std::int32_t>(text, type, Toolbox::convertStringToInt);
    case INT64:
        return numberOf<std::int64_t>(text, type, Toolbox::convertStringToLongLong);
    case UINT8:
        return numberOf<std::uint8_t>(text, type, Toolbox::convertStringToShort);
    case UINT16:
        return numberOf<std::uint16_t>(text, type, Toolbox::convertStringToUShort);
    case UINT32:
        return numberOf<std::uint32_t>(text, type, Toolbox::convertStringToUInt);
    case UINT64:
        return numberOf<std::uint64_t>(text, type, Toolbox::convertStringToULongLong);
    case BOOLEAN:
        return text != "0";
    case DECIMAL64:
        return floatingOf<double>(text, type);
    case FLOAT:
        return floatingOf<float>(text, type);
    default:
        if (isTextType(type))
            return text;
        LOG_ERROR("DatabaseWrapper::%s: invalid type", __func__);
        return {};
    }
}
