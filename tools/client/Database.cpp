// Requests and answers of the database service, one call each. What the answers leave open (a fetch
// answers "not there" and "does not fit" alike) is found out here, so that no tool has to.

#include "tools/client/Database.h"

#include "platform/messages/Answers.h"
#include "tools/client/ServiceClient.h"
#include "values/DistinguishedName.h"

using namespace TAMO::Messages;

std::unique_ptr<DBObject> Database::fetch(const std::string& dn, std::int32_t instance)
{
    TAMO_DBFetch request;
    request.dn = dn;
    request.MOInstance = instance;
    const auto answer = m_client.request<TAMO_DBFetchRsp>(request);
    if (answer.data.result != 0 || answer.length <= 0) {
        if (exists(dn, instance))
            throw ClientError(Trouble::refused, dn + " does not fit in one answer");
        return nullptr;
    }
    if (static_cast<std::size_t>(answer.length) > answer.data.data.size())
        throw ClientError(Trouble::protocol, dn + ": an answer shorter than it says");
    auto object = DBObject::DeSerializeDatafromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    if (!object)
        throw ClientError(Trouble::protocol, dn + ": an object that cannot be read");
    return object;
}

std::unique_ptr<Attribute> Database::fetchAttribute(const std::string& dn, const std::string& name)
{
    TAMO_DBFetchAttr request;
    request.dn = dn;
    request.attributeName = name;
    const auto answer = m_client.request<TAMO_DBFetchAttrRsp>(request);
    if (answer.data.result != 0 || answer.length <= 0)
        return nullptr;
    if (static_cast<std::size_t>(answer.length) > answer.data.data.size())
        throw ClientError(Trouble::protocol, name + ": an answer shorter than it says");
    auto attribute = DBObject::DeSerializeAttrfromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    if (!attribute)
        throw ClientError(Trouble::protocol, name + ": an attribute that cannot be read");
    return attribute;
}

namespace {

TAMO_DBFetchAllChildrenRsp askChildren(ServiceClient& client, const std::string& dn, std::int32_t instance)
{
    TAMO_DBFetchAllChildren request;
    request.parentDn = dn;
    request.parentMOInstance = instance;
    return client.request<TAMO_DBFetchAllChildrenRsp>(request);
}

TAMO_DBFetchMOClassRsp askClass(ServiceClient& client, const std::string& moClass)
{
    TAMO_DBFetchMOClass request;
    request.moClass = moClass;
    return client.request<TAMO_DBFetchMOClassRsp>(request);
}

} // namespace

std::vector<std::unique_ptr<DBObject>> Database::children(const std::string& dn, std::int32_t instance)
{
    return unpack(askChildren(m_client, dn, instance), "the children of " + dn);
}

std::vector<std::unique_ptr<DBObject>> Database::objectsOfClass(const std::string& moClass)
{
    return unpack(askClass(m_client, moClass), "the objects of class " + moClass);
}

std::int32_t Database::countChildren(const std::string& dn) { return askChildren(m_client, dn, 1).count; }

std::int32_t Database::countClass(const std::string& moClass) { return askClass(m_client, moClass).count; }

std::vector<std::unique_ptr<DBObject>> Database::unpack(const ListAnswer& answer, const std::string& what)
{
    if (answer.data.result != 0)
        throw ClientError(Trouble::refused, what + " do not fit in one answer");
    const auto count = static_cast<std::size_t>(std::max(answer.count, 0));
    if (answer.lengths.size() < count || answer.uncompressedSizes.size() < count)
        throw ClientError(Trouble::protocol, what + ": an answer with fewer items than it says");
    std::vector<std::unique_ptr<DBObject>> objects;
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int32_t length = answer.lengths[i];
        if (length < 0 || static_cast<std::size_t>(length) > answer.data.data.size() - at)
            throw ClientError(Trouble::protocol, what + ": an answer shorter than it says");
        objects.push_back(
            DBObject::DeSerializeDatafromDB(answer.data.data.data() + at, length, answer.uncompressedSizes[i]));
        if (!objects.back())
            throw ClientError(Trouble::protocol, what + ": an object that cannot be read");
        at += static_cast<std::size_t>(length);
    }
    return objects;
}

std::vector<std::string> Database::instances(const std::string& moClass, const std::string& parentDn)
{
    TAMO_DBFetchMOClassWithParent request;
    request.moClass = moClass;
    request.parentDn = parentDn;
    return m_client.request<TAMO_DBFetchMOClassWithParentRsp>(request).instances;
}

bool Database::exists(const std::string& dn, std::int32_t instance)
{
    TAMO_DBPresence request;
    request.dn = dn;
    request.MOInstance = instance;
    return m_client.request<TAMO_DBPresenceRsp>(request).success;
}

std::string Database::wholeDn(const std::string& dn, const std::string& parentDn)
{
    TAMO_getWholeDn request;
    request.dn = dn;
    request.parentDn = parentDn;
    return m_client.request<TAMO_getWholeDnRsp>(request).wholeDn;
}

template <class Request>
bool Database::write(const DBObject& object, std::int32_t operation)
{
    Request request;
    request.operation = operation;
    if (DBObject::SerializeDataforDB(object, request.object, IPCData::dataCapacity, request.uncompressedSize) < 0)
        throw ClientError(Trouble::tooLarge,
                          object.fullDn() + " takes more than " + std::to_string(IPCData::dataCapacity) + " bytes");
    return m_client.request<ResultAnswerTo<Request>>(request).success;
}

bool Database::insert(const DBObject& object) { return write<TAMO_DBInsert>(object, operationInsert); }

bool Database::insertCommon(const DBObject& object)
{
    return write<TAMO_DBInsertToCommonDb>(object, operationInsertToCommonDb);
}

bool Database::update(const DBObject& object) { return write<TAMO_DBUpdate>(object, operationUpdate); }

bool Database::remove(const std::string& dn, std::int32_t instance)
{
    TAMO_DBDelete request;
    request.operation = operationDelete;
    request.dn = dn;
    request.MOInstance = instance;
    return m_client.request<TAMO_DBDeleteRsp>(request).success;
}

bool Database::removeAttribute(const std::string& dn, const std::string& name)
{
    TAMO_deleteAttribute request;
    request.dn = dn;
    request.attributeName = name;
    return m_client.request<TAMO_deleteAttributeRsp>(request).success;
}

bool Database::createFromTemplate(const std::string& file, const std::string& dn)
{
    TAMO_DBCreateObject request;
    request.templateFile = file;
    request.dn = dn;
    return m_client.request<TAMO_DBCreateObjectRsp>(request).success;
}

bool Database::ready()
{
    TAMO_DBOrderReady request;
    return m_client.request<TAMO_DBOrderReadyRsp>(request).success;
}

DBObject newObject(const std::string& wholeDn, std::int32_t instance, bool momObject, bool systemObject)
{
    SplitDn split = splitOwnPair(wholeDn);
    const bool root = split.parent.empty();
    return {
        std::move(split.pair),   instance,    momObject, systemObject, IPCData::operationalState0, IPCData::adminState1,
        std::move(split.parent), root ? 0 : 1};
}

Attribute newAttribute(std::string name, Value value, std::int32_t type, bool persistent, bool hidden)
{
    return {hidden, std::move(name), std::move(value), 0, persistent, type, true, false};
}
