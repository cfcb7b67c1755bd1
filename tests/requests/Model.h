#pragma once

#include "platform/messages/Requests.h"
#include "platform/utility/DBObject.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// What the request service is to answer and to tell, worked out on plain maps. It knows nothing of
/// tables, rows and statements: a tree of objects by whole DN, and what happens to it.
///
/// Where the model stops: only Solo=1 has an MOInstance other than 1, so that no DN names two objects;
/// reference lists hold text; there are no members of structs, no summaries of transactions, and nobody
/// whose notifications wait for it.

/// The texts that predicted and received messages are compared as.
std::string describe(const Attribute& attribute);
std::string describe(const DBObject& object);

inline constexpr std::int32_t inserted = 18;
inline constexpr std::int32_t updated = 23;
inline constexpr std::int32_t deleted = 9;

bool holds(const std::vector<std::string>& list, const std::string& element);
/// The list without repetitions, in its order.
std::vector<std::string> once(const std::vector<std::string>& list);
/// The class of a DN's last pair.
std::string classOf(const std::string& dn);

/// One thing that happened: to an attribute, or to the object itself when `attribute` has no name.
struct ModelChange {
    std::string wholeDn;
    std::string dn;
    std::int32_t instance;
    bool mom;
    std::int32_t operation; ///< 18 insert, 23 update, 9 delete
    Attribute attribute;

    bool ofObject() const { return attribute.name.empty(); }
};

/// The tree, and what happened to it since `changes` was emptied last. Operations that answer false
/// leave the tree alone.
class ModelTree {
public:
    /// Whole DN of the object that a client means; empty when there is none.
    std::string locate(const std::string& dn, std::int32_t instance) const;
    bool insert(const DBObject& object);
    bool update(const DBObject& object);
    bool remove(const std::string& dn, std::int32_t instance);

    std::map<std::string, DBObject> objects; ///< by whole DN
    std::vector<ModelChange> changes;
    /// Called after each reference that a deletion withdraws.
    std::function<void()> afterWithdrawal = [] {};

private:
    std::string place(const DBObject& object) const;
    void write(const std::string& key, const Attribute& attribute, std::int32_t operation);
    void note(const std::string& key, std::int32_t operation, const Attribute* attribute = nullptr);
    void noteObject(const std::string& key, std::int32_t operation);
    void refer(const std::string& targets, const std::string& referrer);
    void withdraw(const std::string& targets, const std::string& referrer, const std::function<void()>& done);
    bool referredTo(const std::string& target, const std::vector<std::string>& descendants) const;
};

/// The service: every call is one request, and adds to the messages that each client is to get next.
class Model {
public:
    struct Asker {
        std::int32_t node;
        std::int32_t transId;
    };

    void write(Asker by, std::int32_t operation, const DBObject& object);
    void remove(Asker by, const std::string& dn, std::int32_t instance);
    void setAttribute(Asker by, const std::string& dn, std::int32_t instance, const std::string& name, Value value);
    void removeAttribute(Asker by, const std::string& dn, const std::string& name);
    void fetch(Asker by, const std::string& dn, std::int32_t instance);
    void fetchAttribute(Asker by, const std::string& dn, const std::string& name);
    void fetchChildren(Asker by, const std::string& dn, std::int32_t instance);
    void fetchClass(Asker by, const std::string& moClass);
    void instances(Asker by, const std::string& parentDn, const std::string& moClass);
    void presence(Asker by, const std::string& dn, std::int32_t instance);
    void wholeDn(Asker by, const std::string& dn, const std::string& parentDn);
    void transaction(Asker by, std::int32_t action, bool quiet);
    void subscribe(Asker by, const TAMO::Messages::SubscriptionRequest& request);
    void unsubscribe(Asker by, const TAMO::Messages::SubscriptionRequest& request, std::int32_t ticket);
    void unsubscribeAll(Asker by);
    /// The request is refused.
    void refuse(Asker by) { answer(by, "no"); }

    /// The tree as the asker's transaction would leave it.
    ModelTree outlook(Asker by) const;
    /// All objects with their attributes: "DN|instance, model, system name=value:type, hidden, persistent".
    std::string everything() const;

    ModelTree tree;
    std::map<std::int32_t, std::deque<std::string>> expected; ///< by client

private:
    struct Operation {
        std::int32_t code;
        DBObject object;
    };
    using Operations = std::vector<Operation>;

    const Operations& waiting(Asker by) const;
    void answer(Asker by, const std::string& text);
    void queueOrRun(Asker by, Operation operation);
    static bool run(ModelTree& on, const Operation& operation);
    bool commit(Asker by, bool quiet);
    void tellOf(const std::vector<ModelChange>& changes);
    void tellObject(const std::vector<ModelChange>& attributes, const ModelChange& last, std::int32_t operation);
    void tellItem(const ModelChange& change);
    void tell(const std::string& key, const std::string& text);

    std::map<std::pair<std::int32_t, std::int32_t>, Operations> m_open;
    std::map<std::string, std::int32_t> m_tickets{{",,,,2,1", 1}};    ///< the first is a late client's
    std::vector<std::pair<std::int32_t, std::int32_t>> m_subscribers; ///< ticket and client
};
