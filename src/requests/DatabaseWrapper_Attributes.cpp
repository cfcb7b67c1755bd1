// Requests that set or delete attributes of stored objects. Those about a single attribute may wait
// for the commit of the client's open transaction; what they compare with is the stored object.

#include "requests/DatabaseWrapper.h"

#include "requests/OpenTransaction.h"
#include "requests/OperationRecord.h"
#include "requests/Serve.h"

#include "platform/utility/DBObject.h"
#include "values/ValueType.h"

#include <algorithm>

using namespace TAMO::Messages;

namespace {

/// A new attribute whose stored type follows from its value.
Attribute newAttribute(const std::string& name, const Value& value)
{
    return {false, name, value, 0, false, 0, true, false};
}

/// Gives the object's attribute the value, adding it when the object lacks it. False for an
/// attribute without a name.
bool setValue(DBObject& object, const std::string& name, const Value& value)
{
    if (name.empty())
        return false;
    if (Attribute* const attribute = object.getAttribute(name))
        attribute->SetValue(value);
    else
        object.addAttribute(newAttribute(name, value));
    return true;
}

/// One entry of a set-attribute-values request.
bool setOne(const std::string& name, const std::string& dn, const Value& value, const Client& client,
            OperationRecord& record)
{
    SQLite& store = SQLite::getInstance();
    const auto object = store.sql_get_object(dn, 1, client.name);
    if (!object) {
        DBObject made(dn, 1, false, false, 0, 1);
        return !dn.empty() && setValue(made, name, value) && store.sql_insert(&made, false, client.name);
    }
    LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValues getting %s from db", dn.c_str());
    record.about(object->dn, object->MOInstance);
    if (object->getAttribute(name))
        LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValues getting %s from object", name.c_str());
    return setValue(*object, name, value) && store.sql_update(object.get(), false, client.name);
}

/// Updates the object now, or with the client's open transaction.
bool queueOrUpdate(std::unique_ptr<DBObject> object, const Client& client, std::int32_t transId)
{
    return queueOrWrite(
        client, transId, operationUpdate, [&] { return std::move(object); },
        [&] { return SQLite::getInstance().sql_update(object.get(), false, client.name); });
}

bool isValid(const AttributeContainer& container)
{
    return !container.dnAttrNameMap.empty() && container.dnAttrNameMap.size() == container.attributes.size() &&
           std::ranges::equal(
               container.dnAttrNameMap, container.attributes, {},
               [](const auto& entry) -> const std::string& { return entry.first; },
               [](const auto& entry) -> const std::string& { return entry.first; });
}

} // namespace

void DatabaseWrapper::handleSetAttributeValue(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValue NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValue transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValue SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBSetAttributeValueRsp;
    serve<TAMO_DBSetAttributeValue, Answer>(
        raw, lines, [](const TAMO_DBSetAttributeValue& request, const Client& client) {
            SQLite& store = SQLite::getInstance();
            OperationRecord record;
            record.operation = "Get object";
            bool result = false;
            if (auto object = store.sql_get_object(request.dn, request.MOInstance, client.name)) {
                record.operation = "Update";
                record.about(object->dn, object->MOInstance);
                result = setValue(*object, request.attributeName, request.value) &&
                         queueOrUpdate(std::move(object), client, request.transId);
            } else {
                LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValue Cannot set value to NULL object");
            }
            if (!result)
                record.logFailure();
            return std::optional<Answer>(std::in_place, result, request.transId);
        });
}

void DatabaseWrapper::handleSetAttributeValues(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValues NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValues transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValue SendRsp NotSuccessful"); }};
    if (raw) {
        const std::int32_t sender = TAMO::Framework::Messaging::getMsgSender(raw);
        if (sender != autointegrationManagement) {
            LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValues Sender %s is NOT AIM", clientName(sender));
            return;
        }
    }
    using Answer = TAMO_DBSetAttributeValueRsp;
    serve<TAMO_DBSetAttributeValues, Answer>(
        raw, lines, [](const TAMO_DBSetAttributeValues& request, const Client& client) {
            const AttributeContainer& container = request.container;
            OperationRecord record{"SetAttributeValues", {}, 0, request.transId, {}};
            bool result = isValid(container);
            if (result)
                for (const auto& [name, dn] : container.dnAttrNameMap)
                    result = setOne(name, dn, container.attributes.at(name), client, record) && result;
            if (!result)
                record.logFailure();
            LOG_DEBUG("Database DatabaseWrapper::handleSetAttributeValues sending rsp to %s", client.name.c_str());
            return std::optional<Answer>(std::in_place, result, request.transId);
        });
}

void DatabaseWrapper::handleDeleteAttribute(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleDeleteAttribute NULL message"); },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleDeleteAttribute SendRsp NotSuccessful"); }};
    using Answer = TAMO_deleteAttributeRsp;
    serve<TAMO_deleteAttribute, Answer>(raw, lines, [](const TAMO_deleteAttribute& request, const Client& client) {
        LOG_DEBUG("DatabaseWrapper::handleDeleteAttribute Deleting %s transId: %d client: %s",
                  request.attributeName.c_str(), request.transId, client.name.c_str());
        SQLite& store = SQLite::getInstance();
        auto object = store.sql_get_object(request.dn, 1, "Unknown client");
        if (!object)
            object = std::make_unique<DBObject>(request.dn, 1, true, false, 0, 1);
        if (!object->getAttribute(request.attributeName))
            object->addAttribute(
                Attribute(false, request.attributeName, std::int32_t{0}, 0, false, IPCData::INT32, false, false));
        Attribute* const attribute = object->getAttribute(request.attributeName);
        attribute->changed = true;
        attribute->deleted = true;
        const OperationRecord record{"DeleteAttribute", object->dn, object->MOInstance, request.transId, {}};
        const bool result = queueOrUpdate(std::move(object), client, request.transId);
        if (!result)
            record.logFailure();
        return std::optional<Answer>(std::in_place, result, request.transId);
    });
}
