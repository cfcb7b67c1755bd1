#pragma once

#include "platform/host/MessageNode.h"
#include "platform/messages/Requests.h"
#include "platform/utility/DBObject.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// A service that keeps objects by their whole DN, as little of the real one as a client needs to be
/// tried against: insert (an existing object takes the new attributes), update, delete, fetch,
/// presence and children. A transaction is a copy of the tree, which only its own fetches see until
/// it takes the place of the tree; what is refused there is told at the commit.
class TreeService {
public:
    explicit TreeService(const std::string& directory);
    ~TreeService();

    /// Writes on objects of this DN are answered false.
    void refuse(const std::string& dn);
    /// From now on attributes with a slot go into alternate storage.
    void park();
    /// A copy, or null.
    std::unique_ptr<DBObject> object(const std::string& dn) const;
    /// Update requests seen, accepted or not.
    int updates() const;
    /// Actions of the transaction requests seen, in order.
    std::vector<std::int32_t> transactionActions() const;
    /// As a client of this node would that was killed.
    void leaveTransactionOpen(std::int32_t node, std::int32_t id);

private:
    using Tree = std::map<std::string, DBObject>;
    struct Transaction {
        Tree tree = {};
        bool failed = false;
    };
    Transaction* transactionOf(std::int32_t node, std::int32_t id);
    bool endTransaction(std::int32_t node, const TAMO::Messages::TAMO_DBTransaction& request);
    void handle(const RawMessage& raw);
    template <class Request, class Serve>
    bool serve(const RawMessage& raw, Serve serve);
    bool write(Tree& tree, const Bytes& bytes, std::int32_t uncompressedSize, bool insert);

    mutable std::mutex m_mutex;
    Tree m_objects;
    std::map<std::pair<std::int32_t, std::int32_t>, Transaction> m_transactions; // by node and id
    std::vector<std::int32_t> m_actions;
    std::set<std::string> m_refused;
    int m_updates = 0;
    bool m_parking = false;
    TAMO::Framework::MessageNode m_node;
};
