// The stand-in service behind a real message node, so that the client's frames meet the framework's.

#include "TreeService.h"

#include "platform/messages/Answers.h"

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
    const auto insert = [this](const TAMO_DBInsert& request) {
        EXPECT_EQ(request.operation, operationInsert);
        return TAMO_DBInsertRsp(write(request, request.object, request.uncompressedSize, true), request.transId);
    };
    const auto update = [this](const TAMO_DBUpdate& request) {
        EXPECT_EQ(request.operation, operationUpdate);
        ++m_updates;
        return TAMO_DBUpdateRsp(write(request, request.object, request.uncompressedSize, false), request.transId);
    };
    const auto remove = [this](const TAMO_DBDelete& request) {
        EXPECT_EQ(request.operation, operationDelete);
        const bool removed = !m_refused.contains(request.dn) && m_objects.erase(request.dn) == 1;
        return TAMO_DBDeleteRsp(removed, request.transId);
    };
    const auto presence = [this](const TAMO_DBPresence& request) {
        return TAMO_DBPresenceRsp(m_objects.contains(request.dn), request.transId);
    };
    const auto fetch = [this](const TAMO_DBFetch& request) {
        TAMO_DBFetchRsp answer;
        answer.transId = request.transId;
        const auto found = m_objects.find(request.dn);
        answer.data.result = found == m_objects.end();
        if (found != m_objects.end())
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
        serve<TAMO_DBFetchAllChildren>(raw, children);
}

bool TreeService::write(const Message&, const Bytes& bytes, std::int32_t uncompressedSize, bool insert)
{
    const auto object =
        DBObject::DeSerializeDatafromDB(bytes.data(), static_cast<std::int32_t>(bytes.size()), uncompressedSize);
    if (!object || m_refused.contains(object->fullDn()) || (!insert && !m_objects.contains(object->fullDn())))
        return false;
    DBObject& stored = m_objects.try_emplace(object->fullDn(), *object).first->second;
    for (const auto& [name, attribute] : object->attributes) {
        EXPECT_TRUE(attribute.changed) << name; // the service writes no other
        stored.attributes.insert_or_assign(name, attribute);
    }
    return true;
}
