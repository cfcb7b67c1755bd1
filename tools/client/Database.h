#pragma once

#include "platform/messages/Diagnostics.h"
#include "platform/utility/DBObject.h"
#include "tools/client/QueuedObjects.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class ServiceClient;
struct SubscriptionKey;
namespace TAMO::Messages {
class ObjectRequest;
class ListAnswer;
} // namespace TAMO::Messages

enum class StoreOutcome {
    stored,
    notYet,  ///< auto-integration is not completed: nothing was stored
    delayed, ///< until the software upgrade is in a safe state
};

/// The service's requests as calls. DNs are whole DNs. Writes answer what the service answered;
/// trouble on the way is a ClientError.
///
/// In a client transaction (beginTransaction) writes are queued and answered true; what is wrong with
/// them shows at the commit. fetch, fetchAttribute, exists, objectsOfClass and instances see what is
/// queued; children and wholeDn see the committed tree, and createFromTemplate is carried out at once.
class Database {
public:
    explicit Database(ServiceClient& client) : m_client(client) {}

    /// Null when the object is not there. An object that is there but does not fit in an answer is a
    /// ClientError (refused).
    std::unique_ptr<DBObject> fetch(const std::string& dn, std::int32_t instance = 1);
    /// Null when the attribute, or its object, is not there.
    std::unique_ptr<Attribute> fetchAttribute(const std::string& dn, const std::string& name);
    /// Empty also when the object itself is not there. A listing that does not fit in an answer is a
    /// ClientError (refused), never a part of it.
    std::vector<std::unique_ptr<DBObject>> children(const std::string& dn, std::int32_t instance = 1);
    std::vector<std::unique_ptr<DBObject>> objectsOfClass(const std::string& moClass);
    /// How many objects these listings hold, from the answer alone: nothing is rebuilt.
    std::int32_t countChildren(const std::string& dn);
    std::int32_t countClass(const std::string& moClass);
    /// The instances of a class directly below `parentDn`; with "" of those that have no parent. The
    /// service takes a parent that is not there for "".
    std::vector<std::string> instances(const std::string& moClass, const std::string& parentDn);
    bool exists(const std::string& dn, std::int32_t instance = 1);
    /// The same without what the transaction has queued.
    bool isCommitted(const std::string& dn, std::int32_t instance = 1);
    /// Empty when there is no such object.
    std::string wholeDn(const std::string& dn, const std::string& parentDn);

    /// An object that is there already is updated with the attributes given.
    [[nodiscard]] bool insert(const DBObject& object);
    /// Into the common database, which outlives the tree.
    [[nodiscard]] bool insertCommon(const DBObject& object);
    /// Writes the attributes that carry the changed flag, all or none.
    [[nodiscard]] bool update(const DBObject& object);
    [[nodiscard]] bool remove(const std::string& dn, std::int32_t instance = 1);
    /// True also when the object has no such attribute.
    [[nodiscard]] bool removeAttribute(const std::string& dn, const std::string& name);
    /// `file` is a path on the node.
    [[nodiscard]] bool createFromTemplate(const std::string& file, const std::string& dn);
    /// Whether the service has completed its start.
    bool ready();

    /// Stores the persistent content as the permanent configuration, or as its backup copy. True also
    /// when the service has put it off or has nothing to store yet: StoreOutcome of storeOutcome().
    [[nodiscard]] bool storePersistent(bool backup, bool ignoreUpgradeState);
    /// What a store that is answered true comes to, judged by what the tree says now.
    StoreOutcome storeOutcome(bool ignoreUpgradeState);
    [[nodiscard]] bool storeBackupFragments();
    /// Has the service check its database files. It tells the result to its log only; when this
    /// returns, the check is over.
    void checkIntegrity();
    /// Empties the tree and removes the permanent configuration.
    [[nodiscard]] bool clean();
    /// Removes the permanent configuration; the service refuses all work until it is started anew.
    [[nodiscard]] bool shutDown();
    /// Makes the values that are parked in the slot live. True also when there are none.
    [[nodiscard]] bool loadSlot(std::int32_t slot);
    /// Has the service read its mapping of deprecated attributes, unless it has, and keep them equal to their
    /// successors from now on. False when it cannot: it orders a software fallback then.
    [[nodiscard]] bool enableAttributeSynchronisation();

    /// Starts a client transaction under this id, or one drawn at random, and answers the id. None when
    /// the service refuses: a transaction of our node with that id is open already.
    std::optional<std::int32_t> beginTransaction(std::optional<std::int32_t> id = {});
    /// Carries out what was queued, all or nothing. The transaction has ended, also when this is false
    /// or throws; after a timeout nobody knows whether it was committed.
    [[nodiscard]] bool commitTransaction(bool notify = true);
    /// Drops what was queued. Throws when the service does not confirm it: then it may still be open.
    void abortTransaction();
    /// Drops a transaction that an earlier connection of our node left open. False when there is none.
    [[nodiscard]] bool abortTransaction(std::int32_t id);
    bool inTransaction() const;

    /// Subscribes our node and answers the ticket. Subscribing twice brings everything twice.
    std::int32_t subscribe(const SubscriptionKey& key);
    /// Takes one subscription back; false when there is none.
    bool unsubscribe(std::int32_t ticket);
    bool unsubscribe(const SubscriptionKey& key);
    /// Takes back all subscriptions of our node, those of earlier connections too.
    void unsubscribeAll();

    /// Who is connected, this client included, by ascending node id. The answer's `total` is more
    /// than its records when they did not fit.
    TAMO::Messages::TAMO_ListClientsRsp clients();
    /// Which keys have which tickets and clients; `total` as above.
    TAMO::Messages::TAMO_ListSubscriptionsRsp subscriptions();

private:
    template <class Request>
    bool write(const DBObject& object, std::int32_t operation);
    std::vector<std::unique_ptr<DBObject>> unpack(const TAMO::Messages::ListAnswer& answer, const std::string& what);

    std::unique_ptr<Attribute> fetchAttributeOfObject(const std::string& dn, const std::string& name);
    bool removeQueuedAttribute(const std::string& dn, const std::string& name);

    ServiceClient& m_client;
    QueuedObjects m_queued;
    std::int64_t m_operations = 0; ///< queued
};

/// An object of that whole DN, without attributes, as a client makes it: the parent's DN split off.
DBObject newObject(const std::string& wholeDn, std::int32_t instance = 1, bool momObject = true,
                   bool systemObject = false);

/// An attribute to be written; `type` must fit the value.
Attribute newAttribute(std::string name, Value value, std::int32_t type, bool persistent = false, bool hidden = false);
