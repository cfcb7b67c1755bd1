// The stand-in service behind a real message node, so that the client's frames meet the framework's.

#include "TreeService.h"

#include "platform/messages/Answers.h"

#include <functional>
#include <gtest/gtest.h>

using namespace TAMO::Messages;

TreeService::TreeService(const std::string& directory)
    : m_node({.directory = directory, .name = "db", .id = 0, .listen = true, .connectTo = {}})
{
    m_node.setHandler([this](const std::shared_ptr<RawMessage>& raw) { handle(*raw); });
    EXPECT_TRUE(m_node.start());
}

TreeService::~TreeService() { m_node.stop(); }

void TreeService::refuse(const std::string& dn)
{
    const std::lock_guard lock(m_mutex);
    m_refused.insert(dn);
}

void TreeService::park()
{
    const std::lock_guard lock(m_mutex);
    m_parking = true;
}

std::unique_ptr<DBObject> TreeService::object(const std::string& dn) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_objects.find(dn);
    return found == m_objects.end() ? nullptr : std::make_unique<DBObject>(found->second);
}

int TreeService::updates() const
{
    const std::lock_guard lock(m_mutex);
    return m_updates;
}

std::vector<std::int32_t> TreeService::transactionActions() const
{
    const std::lock_guard lock(m_mutex);
    return m_actions;
}

void TreeService::leaveTransactionOpen(std::int32_t node, std::int32_t id)
{
    const std::lock_guard lock(m_mutex);
    m_transactions[{node, id}];
}

TreeService::Transaction* TreeService::transactionOf(std::int32_t node, std::int32_t id)
{
    const auto found = m_transactions.find({node, id});
    return found == m_transactions.end() ? nullptr : &found->second;
}

bool TreeService::endTransaction(std::int32_t node, const TAMO_DBTransaction& request)
{
    Transaction* const transaction = transactionOf(node, request.transId);
    if (!transaction)
        return false;
    const bool success = request.action == transactionAbort || !transaction->failed;
    if (request.action == transactionCommit && success)
        m_objects = std::move(transaction->tree);
    m_transactions.erase({node, request.transId});
    return success;
}

template <class Request, class Serve>
bool TreeService::serve(const RawMessage& raw, Serve answerTo)
{
    Request request;
    if (raw.id != Request::id)
        return false;
    EXPECT_TRUE(request.deserialize(&raw));
    m_node.send(raw.sender, answerTo(request));
    return true;
}

void TreeService::handle(const RawMessage& raw)
{
    const std::lock_guard lock(m_mutex);
    // Queued: answered true, and what is wrong told at the commit.
    const auto change = [&](std::int32_t id, const std::function<bool(Tree&)>& work) {
        Transaction* const transaction = transactionOf(raw.sender, id);
        if (!transaction)
            return work(m_objects);
        transaction->failed = !work(transaction->tree) || transaction->failed;
        return true;
    };
    const auto insert = [&](const TAMO_DBInsert& request) {
        EXPECT_EQ(request.operation, operationInsert);
        const bool done = change(
            request.transId, [&](Tree& tree) { return write(tree, request.object, request.uncompressedSize, true); });
        return TAMO_DBInsertRsp(done, request.transId);
    };
    const auto update = [&](const TAMO_DBUpdate& request) {
        EXPECT_EQ(request.operation, operationUpdate);
        ++m_updates;
        const bool done = change(
            request.transId, [&](Tree& tree) { return write(tree, request.object, request.uncompressedSize, false); });
        return TAMO_DBUpdateRsp(done, request.transId);
    };
    const auto remove = [&](const TAMO_DBDelete& request) {
        EXPECT_EQ(request.operation, operationDelete);
        const bool removed = change(request.transId, [&](Tree& tree) {
            return !m_refused.contains(request.dn) && tree.erase(request.dn) == 1;
        });
        return TAMO_DBDeleteRsp(removed, request.transId);
    };
    const auto presence = [this](const TAMO_DBPresence& request) {
        return TAMO_DBPresenceRsp(m_objects.contains(request.dn), request.transId);
    };
    const auto transact = [&](const TAMO_DBTransaction& request) {
        m_actions.push_back(request.action);
        const bool done = request.action == transactionStart
                              ? m_transactions.try_emplace({raw.sender, request.transId}, Transaction{m_objects}).second
                              : endTransaction(raw.sender, request);
        return TAMO_DBTransactionRsp(done, request.transId);
    };
    const auto fetch = [&](const TAMO_DBFetch& request) {
        const Transaction* const transaction = transactionOf(raw.sender, request.transId);
        const Tree& tree = transaction ? transaction->tree : m_objects;
        TAMO_DBFetchRsp answer;
        answer.transId = request.transId;
        const auto found = tree.find(request.dn);
        answer.data.result = found == tree.end();
        if (found != tree.end())
            answer.length = DBObject::SerializeDataforDB(found->second, answer.data.data, IPCData::dataCapacity,
                                                         answer.uncompressedSize);
        return answer;
    };
    const auto children = [this](const TAMO_DBFetchAllChildren& request) {
        TAMO_DBFetchAllChildrenRsp answer;
        answer.transId = request.transId;
        for (const auto& [dn, object] : m_objects) {
            if (object.parentDn != request.parentDn)
                continue;
            ++answer.count;
            answer.lengths.push_back(DBObject::SerializeDataforDB(object, answer.data.data, IPCData::dataCapacity,
                                                                  answer.uncompressedSizes.emplace_back()));
        }
        return answer;
    };
    serve<TAMO_DBInsert>(raw, insert) || serve<TAMO_DBUpdate>(raw, update) || serve<TAMO_DBDelete>(raw, remove) ||
        serve<TAMO_DBPresence>(raw, presence) || serve<TAMO_DBFetch>(raw, fetch) ||
        serve<TAMO_DBFetchAllChildren>(raw, children) || serve<TAMO_DBTransaction>(raw, transact);
}

bool TreeService::write(Tree& tree, const Bytes& bytes, std::int32_t uncompressedSize, bool insert)
{
    const auto object =
        DBObject::DeSerializeDatafromDB(bytes.data(), static_cast<std::int32_t>(bytes.size()), uncompressedSize);
    if (!object || m_refused.contains(object->fullDn()) || (!insert && !tree.contains(object->fullDn())))
        return false;
    DBObject bare = *object;
    bare.attributes.clear();
    DBObject& stored = tree.try_emplace(object->fullDn(), std::move(bare)).first->second;
    for (const auto& [name, attribute] : object->attributes) {
        EXPECT_TRUE(attribute.changed) << name; // the service writes no other
        const bool parked = m_parking && attribute.slot != Attribute::noSlot;
        Attribute& written =
            (parked ? stored.alternateAttributes : stored.attributes).insert_or_assign(name, attribute).first->second;
        if (!parked)
            written.slot = Attribute::noSlot;
    }
    return true;
}
