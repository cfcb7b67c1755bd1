// Requests and answers of the database service, one call each. What the answers leave open (a fetch
// answers "not there" and "does not fit" alike) is found out here, so that no tool has to.

#include "tools/client/Database.h"

#include "platform/messages/Answers.h"
#include "tools/client/ServiceClient.h"
#include "tools/client/SubscriptionKey.h"
#include "values/DistinguishedName.h"

using namespace TAMO::Messages;

namespace {

/// The client whose stores are not held back until auto-integration is completed.
constexpr std::int32_t autoIntegrationNode = 8;

/// Within a transaction an attribute that is queued for deletion is still in the answer, marked.
void dropDeleted(DBObject& object)
{
    const auto deleted = [](const auto& named) { return named.second.deleted; };
    std::erase_if(object.attributes, deleted);
    std::erase_if(object.alternateAttributes, deleted);
}

/// The DN as the service knows a queued object by: its own pair goes without quotes.
std::string asQueued(const std::string& dn)
{
    const SplitDn split = splitOwnPair(dn);
    return joinDn(split.parent, split.pair);
}

} // namespace

std::unique_ptr<DBObject> Database::fetch(const std::string& dn, std::int32_t instance)
{
    if (m_queued.present(dn, instance) == false)
        return nullptr;
    TAMO_DBFetch request;
    request.dn = m_queued.present(dn, instance) == true ? asQueued(dn) : dn;
    request.MOInstance = instance;
    const auto answer = m_client.request<TAMO_DBFetchRsp>(request);
    if (answer.data.result != 0 || answer.length <= 0) {
        if (isCommitted(dn, instance))
            throw ClientError(Trouble::refused, dn + " does not fit in one answer");
        return nullptr;
    }
    if (static_cast<std::size_t>(answer.length) > answer.data.data.size())
        throw ClientError(Trouble::protocol, dn + ": an answer shorter than it says");
    auto object = DBObject::DeSerializeDatafromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    if (!object)
        throw ClientError(Trouble::protocol, dn + ": an object that cannot be read");
    dropDeleted(*object);
    return object;
}

std::unique_ptr<Attribute> Database::fetchAttribute(const std::string& dn, const std::string& name)
{
    if (inTransaction())
        return fetchAttributeOfObject(dn, name);
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

/// In a transaction the service looks for a queued attribute in the last operation on the object only.
std::unique_ptr<Attribute> Database::fetchAttributeOfObject(const std::string& dn, const std::string& name)
{
    const auto object = fetch(dn);
    const Attribute* attribute = object ? object->getAttribute(name) : nullptr;
    return attribute ? std::make_unique<Attribute>(*attribute) : nullptr;
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
    auto objects = unpack(askClass(m_client, moClass), "the objects of class " + moClass);
    std::erase_if(objects, [this](const auto& object) {
        return m_queued.present(joinDn(object->parentDn, quotedPair(object->dn)), object->MOInstance) == false;
    });
    return objects;
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
        dropDeleted(*objects.back());
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
    if (!inTransaction())
        return isCommitted(dn, instance);
    const auto queued = m_queued.present(dn, instance);
    return queued ? *queued : fetch(dn, instance) != nullptr;
}

bool Database::isCommitted(const std::string& dn, std::int32_t instance)
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
    ++m_operations;
    return m_client.request<ResultAnswerTo<Request>>(request).success;
}

bool Database::insert(const DBObject& object)
{
    if (!write<TAMO_DBInsert>(object, operationInsert))
        return false;
    if (inTransaction())
        m_queued.inserted(joinDn(object.parentDn, quotedPair(object.dn)), object.MOInstance);
    return true;
}

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
    ++m_operations;
    if (!m_client.request<TAMO_DBDeleteRsp>(request).success)
        return false;
    if (inTransaction())
        m_queued.removed(dn, instance);
    return true;
}

bool Database::removeAttribute(const std::string& dn, const std::string& name)
{
    if (inTransaction())
        return removeQueuedAttribute(dn, name);
    TAMO_deleteAttribute request;
    request.dn = dn;
    request.attributeName = name;
    return m_client.request<TAMO_deleteAttributeRsp>(request).success;
}

/// The request to delete an attribute looks at the stored object only, also in a transaction; an
/// update that carries the mark takes away a queued attribute too.
bool Database::removeQueuedAttribute(const std::string& dn, const std::string& name)
{
    auto object = fetch(dn);
    const Attribute* found = object ? object->getAttribute(name) : nullptr;
    if (!found)
        return object != nullptr;
    Attribute attribute = *found;
    attribute.changed = attribute.deleted = true;
    object->attributes.clear();
    object->alternateAttributes.clear();
    object->addAttribute(std::move(attribute));
    return update(*object);
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

bool Database::storePersistent(bool backup, bool ignoreUpgradeState)
{
    TAMO_DBStorePersistentDump request;
    request.backup = backup;
    request.ignoreUpgradeState = ignoreUpgradeState;
    return m_client.request<TAMO_DBStorePersistentDumpRsp>(request).success;
}

StoreOutcome Database::storeOutcome(bool ignoreUpgradeState)
{
    constexpr std::int32_t completed = 4; // auto-integration
    const auto number = [this](const char* dn, const char* name) -> std::optional<std::int32_t> {
        const auto attribute = fetchAttribute(dn, name);
        const auto* const value = attribute ? std::get_if<std::int32_t>(&attribute->value) : nullptr;
        return value ? std::optional(*value) : std::nullopt;
    };
    if (m_client.node() != autoIntegrationNode && number("OAM", "AI_phase") != completed)
        return StoreOutcome::notYet;
    const auto upgrade = number("UpgradePackage=1", "state");
    const bool unsafe = upgrade == 2 || upgrade == 4 || upgrade == 8;
    return unsafe && !ignoreUpgradeState ? StoreOutcome::delayed : StoreOutcome::stored;
}

bool Database::storeBackupFragments()
{
    TAMO_DBStoreBrMBackup request;
    return m_client.request<TAMO_DBStoreBrMBackupRsp>(request).success;
}

void Database::checkIntegrity()
{
    TAMO_DBIntegrityCheck request;
    m_client.post(request);
    ready();
}

bool Database::clean()
{
    TAMO_DBCleanDatabase request;
    return m_client.request<TAMO_DBCleanDatabaseRsp>(request).success;
}

bool Database::enableAttributeSynchronisation()
{
    TAMO_EnableAttrSync request;
    return m_client.request<TAMO_EnableAttrSyncRsp>(request).success;
}

bool Database::shutDown()
{
    TAMO_DBShutdownDb request;
    return m_client.request<TAMO_DBShutdownDbRsp>(request).success;
}

bool Database::loadSlot(std::int32_t slot)
{
    TAMO_DBLoadAlternateStorage request;
    request.slot = slot;
    return m_client.request<TAMO_DBLoadAlternateStorageRsp>(request).success;
}

namespace {

bool transact(ServiceClient& client, std::int32_t action, bool silent = false, std::chrono::milliseconds extra = {})
{
    TAMO_DBTransaction request;
    request.action = action;
    request.noNotifications = silent;
    return client.request<TAMO_DBTransactionRsp>(request, extra).success;
}

/// Requests carry their own ids again, whatever happens.
class TransactionEnd {
public:
    explicit TransactionEnd(ServiceClient& client) : m_client(client) {}
    ~TransactionEnd() { m_client.setTransaction(std::nullopt); }
    TransactionEnd(const TransactionEnd&) = delete;
    TransactionEnd& operator=(const TransactionEnd&) = delete;

private:
    ServiceClient& m_client;
};

template <class Request>
Request subscriptionRequest(const SubscriptionKey& key)
{
    Request request;
    request.dn = key.dn;
    request.MOInstance = key.instance;
    request.attributeName = key.attribute;
    request.operation = key.operation;
    request.notificationForAll = key.forAll;
    request.transactions = key.transactions ? 1 : 0;
    request.withAlternate = key.withAlternate;
    return request;
}

} // namespace

bool Database::inTransaction() const { return m_client.transaction().has_value(); }

std::optional<std::int32_t> Database::beginTransaction(std::optional<std::int32_t> id)
{
    m_queued.clear();
    m_operations = 0;
    m_client.setTransaction(id ? *id : m_client.drawTransactionId());
    try {
        if (transact(m_client, transactionStart))
            return m_client.transaction();
    } catch (...) {
        m_client.setTransaction(std::nullopt);
        throw;
    }
    m_client.setTransaction(std::nullopt);
    return std::nullopt;
}

bool Database::commitTransaction(bool notify)
{
    const TransactionEnd end(m_client);
    m_queued.clear();
    // Most operations take microseconds, but one that looks through the tree takes milliseconds.
    if (transact(m_client, transactionCommit, !notify, std::chrono::milliseconds(m_operations)))
        return true;
    transact(m_client, transactionAbort); // one that SQLite did not begin or commit stays open
    return false;
}

void Database::abortTransaction()
{
    const TransactionEnd end(m_client);
    m_queued.clear();
    transact(m_client, transactionAbort); // false: it was not open any more
}

bool Database::abortTransaction(std::int32_t id)
{
    const TransactionEnd end(m_client);
    m_client.setTransaction(id);
    return transact(m_client, transactionAbort);
}

std::int32_t Database::subscribe(const SubscriptionKey& key)
{
    auto request = subscriptionRequest<TAMO_DBRegToNotif>(key);
    const std::int32_t ticket = m_client.request<TAMO_DBRegToNotifRsp>(request).ticket;
    if (ticket < 1)
        throw ClientError(Trouble::refused, "the service gave no ticket for " + key.text());
    return ticket;
}

bool Database::unsubscribe(std::int32_t ticket)
{
    TAMO_DBUnRegToNotif request;
    request.ticket = ticket;
    return m_client.request<TAMO_DBUnRegToNotifRsp>(request).success;
}

bool Database::unsubscribe(const SubscriptionKey& key)
{
    auto request = subscriptionRequest<TAMO_DBUnRegToNotif>(key);
    return m_client.request<TAMO_DBUnRegToNotifRsp>(request).success;
}

void Database::unsubscribeAll()
{
    TAMO_DBUnRegToAllNotifs request;
    m_client.request<TAMO_DBUnRegToAllNotifsRsp>(request);
}

namespace {

template <class Answer, class Request>
Answer listing(ServiceClient& client, const char* what)
{
    Request request;
    auto answer = client.request<Answer>(request);
    if (answer.total < 0)
        throw ClientError(Trouble::refused, std::string("the service could not list its ") + what);
    return answer;
}

} // namespace

TAMO_ListClientsRsp Database::clients() { return listing<TAMO_ListClientsRsp, TAMO_ListClients>(m_client, "clients"); }

TAMO_ListSubscriptionsRsp Database::subscriptions()
{
    return listing<TAMO_ListSubscriptionsRsp, TAMO_ListSubscriptions>(m_client, "subscriptions");
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
