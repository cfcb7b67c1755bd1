// Requests that read objects, attributes, lists of them, and answers about the tree. Fetches and
// instance lists also show what is queued in the reader's open transaction.

#include "requests/DatabaseWrapper.h"

#include "requests/OpenTransaction.h"
#include "requests/Serve.h"
#include "requests/TransactionOverlay.h"

#include "platform/utility/DBObject.h"

using namespace TAMO::Messages;

namespace {

/// Most objects one class answer carries.
constexpr std::size_t maxListedObjects = 10000;

SQLite& store() { return SQLite::getInstance(); }

using CompressionLine = void (*)(std::int32_t from, std::int32_t to);

/// Fills an answer with one item that `serialize` writes; the refusal when it does not fit.
template <class Answer, class Serialize>
Answer itemAnswer(std::int32_t transId, const Client& client, CompressionLine compressed, Serialize serialize)
{
    auto answer = refusal<Answer>(transId, client.node);
    const std::int32_t length = serialize(answer.data.data, answer.uncompressedSize);
    if (length < 0)
        return answer;
    if (answer.uncompressedSize != 0)
        compressed(answer.uncompressedSize, length);
    answer.length = length;
    answer.data.result = 0;
    answer.data.dataValid = length != 0;
    return answer;
}

/// Fills an answer with a list of objects; the refusal when they do not all fit.
template <class Answer>
Answer listAnswer(std::int32_t transId, const Client& client, const SQLite::Objects& objects,
                  CompressionLine compressed, void (*notSuccessful)())
{
    Answer answer(transId, 0, refusal<Answer>(transId, client.node).data, {}, {});
    for (const auto& object : objects) {
        std::int32_t uncompressedSize = 0;
        const auto used = static_cast<std::int32_t>(answer.data.data.size());
        const std::int32_t length =
            DBObject::SerializeDataforDB(*object, answer.data.data, IPCData::dataCapacity - used, uncompressedSize);
        if (length < 0) {
            notSuccessful();
            return refusal<Answer>(transId, client.node);
        }
        if (uncompressedSize != 0)
            compressed(uncompressedSize, length);
        answer.lengths.push_back(length);
        answer.uncompressedSizes.push_back(uncompressedSize);
    }
    answer.count = static_cast<std::int32_t>(answer.lengths.size());
    answer.data.result = 0;
    answer.data.dataValid = answer.count != 0;
    return answer;
}

} // namespace

void DatabaseWrapper::handleFetch(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleFetch NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleFetch transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleFetch SendRsp NotSuccessful"); }};
    static constexpr CompressionLine compressed = [](std::int32_t from, std::int32_t to) {
        LOG_DEBUG("DatabaseWrapper::handleFetch Object compressed from %d to %d bytes ", from, to);
    };
    using Answer = TAMO_DBFetchRsp;
    serve<TAMO_DBFetch, Answer>(
        raw, lines, [](const TAMO_DBFetch& request, const Client& client) -> std::optional<Answer> {
            auto object = store().sql_get_object(request.dn, request.MOInstance, client.name);
            const TransactionMngr* const transaction = openTransaction(client, request.transId);
            if (transaction)
                TransactionOverlay::overlayObject(*transaction, request.dn, request.MOInstance, object);
            auto answer = refusal<Answer>(request.transId, client.node);
            if (object)
                answer = itemAnswer<Answer>(
                    request.transId, client, compressed, [&](Bytes& data, std::int32_t& uncompressedSize) {
                        return DBObject::SerializeDataforDB(*object, data, IPCData::dataCapacity, uncompressedSize);
                    });
            else if (!transaction)
                LOG_DEBUG("DatabaseWrapper::handleFetch Object not found in database");
            if (answer.data.result != 0)
                LOG_DEBUG("DatabaseWrapper::handleFetch NotSuccessful");
            return answer;
        });
}

void DatabaseWrapper::handleFetchAttr(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleFetchAttr NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleFetchAttr transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleFetchAttr SendRsp NotSuccessful"); }};
    static constexpr CompressionLine compressed = [](std::int32_t from, std::int32_t to) {
        LOG_DEBUG("DatabaseWrapper::handleFetchAttr Object compressed from %d to %d bytes ", from, to);
    };
    static constexpr CompressionLine overlaidCompressed = [](std::int32_t from, std::int32_t to) {
        LOG_DEBUG("DatabaseWrapper::handleFetchAttr Attribute compressed from %d to %d bytes ", from, to);
    };
    using Answer = TAMO_DBFetchAttrRsp;
    serve<TAMO_DBFetchAttr, Answer>(
        raw, lines, [](const TAMO_DBFetchAttr& request, const Client& client) -> std::optional<Answer> {
            auto attribute = store().sql_get_attribute(request.dn, request.attributeName, client.name, false);
            const TransactionMngr* const transaction = openTransaction(client, request.transId);
            if (transaction)
                TransactionOverlay::overlayAttribute(*transaction, request.dn, request.attributeName, attribute);
            auto answer = refusal<Answer>(request.transId, client.node);
            if (attribute)
                answer = itemAnswer<Answer>(request.transId, client, transaction ? overlaidCompressed : compressed,
                                            [&](Bytes& data, std::int32_t& uncompressedSize) {
                                                return DBObject::SerializeAttrforDB(
                                                    *attribute, data, IPCData::dataCapacity, uncompressedSize);
                                            });
            else
                LOG_DEBUG("DatabaseWrapper::handleFetchAttr Attribute not found from database");
            if (answer.data.result != 0)
                LOG_DEBUG("DatabaseWrapper::handleFetchAttr NotSuccessful");
            return answer;
        });
}

void DatabaseWrapper::handleFetchAllChildren(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleFetchAllChildren NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleFetchAllChildren transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleFetchAllChildren SendRsp NotSuccessful"); }};
    static constexpr CompressionLine compressed = [](std::int32_t from, std::int32_t to) {
        LOG_DEBUG("DatabaseWrapper::handleFetchAllChildren Object compressed from %d to %d bytes ", from, to);
    };
    using Answer = TAMO_DBFetchAllChildrenRsp;
    SQLite::Objects children; // freed when the answer is on its way
    serve<TAMO_DBFetchAllChildren, Answer>(
        raw, lines, [&](const TAMO_DBFetchAllChildren& request, const Client& client) -> std::optional<Answer> {
            children = store().get_all_children(request.parentDn, request.parentMOInstance);
            return listAnswer<Answer>(request.transId, client, children, compressed,
                                      [] { LOG_ERROR("DatabaseWrapper::handleFetchAllChildren NotSuccessful"); });
        });
}

void DatabaseWrapper::handleFetchMOClass(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleFetchMOClass NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleFetchMOClass transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleFetchMOClass SendRsp NotSuccessful"); }};
    static constexpr CompressionLine compressed = [](std::int32_t from, std::int32_t to) {
        LOG_DEBUG("DatabaseWrapper::handleFetch Object compressed from %d to %d bytes ", from, to);
    };
    static constexpr auto notSuccessful = [] { LOG_ERROR("DatabaseWrapper::handleFetchMOClass NotSuccessful"); };
    using Answer = TAMO_DBFetchMOClassRsp;
    SQLite::Objects objects; // freed when the answer is on its way
    serve<TAMO_DBFetchMOClass, Answer>(
        raw, lines, [&](const TAMO_DBFetchMOClass& request, const Client& client) -> std::optional<Answer> {
            objects = store().get_MO_class(request.moClass);
            if (const TransactionMngr* const transaction = openTransaction(client, request.transId))
                TransactionOverlay::overlayClass(*transaction, request.moClass, objects);
            if (objects.size() > maxListedObjects) {
                notSuccessful();
                return refusal<Answer>(request.transId, client.node);
            }
            return listAnswer<Answer>(request.transId, client, objects, compressed, notSuccessful);
        });
}

void DatabaseWrapper::handleFetchMOClassWith0Parent(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleFetchMOClassWithOParent NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleFetchMOClassWith0Parent transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleFetchMOClass SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBFetchMOClassWithParentRsp;
    serve<TAMO_DBFetchMOClassWithParent, Answer>(
        raw, lines, [](const TAMO_DBFetchMOClassWithParent& request, const Client& client) -> std::optional<Answer> {
            auto instances = store().get_MO_class_with_parent(request.parentDn, request.moClass);
            if (const TransactionMngr* const transaction = openTransaction(client, request.transId))
                TransactionOverlay::overlayInstances(*transaction, request.parentDn, request.moClass, instances);
            std::size_t totalSize = 0;
            for (const std::string& instance : instances)
                totalSize += instance.size() + 1;
            if (totalSize > static_cast<std::size_t>(IPCData::dataCapacity))
                return refusal<Answer>(request.transId, client.node);
            const auto count = static_cast<std::int32_t>(instances.size());
            return Answer(std::move(instances), static_cast<std::int32_t>(totalSize), request.transId, count);
        });
}

void DatabaseWrapper::handlePresence(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handlePresence NULL message"); },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handlePresence SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBPresenceRsp;
    serve<TAMO_DBPresence, Answer>(raw, lines, [](const TAMO_DBPresence& request, const Client& client) {
        const bool present = store().sql_isPresent(request.dn, request.MOInstance);
        LOG_DEBUG("DatabaseWrapper::handlePresence %s present:%d client: %s", request.dn.c_str(), present ? 1 : 0,
                  client.name.c_str());
        return std::optional<Answer>(std::in_place, present, request.transId);
    });
}

void DatabaseWrapper::handleGetWholeDn(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleGetWholeDn NULL message"); },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleGetWholeDn SendRsp NotSuccessful"); }};
    using Answer = TAMO_getWholeDnRsp;
    serve<TAMO_getWholeDn, Answer>(raw, lines, [](const TAMO_getWholeDn& request, const Client& client) {
        const std::string wholeDn = store().get_whole_dn(request.dn, request.parentDn);
        LOG_DEBUG("Database DatabaseWrapper::handleGetWholeDn returning %s transId: %d client: %s", wholeDn.c_str(),
                  request.transId, client.name.c_str());
        return std::optional<Answer>(std::in_place, wholeDn, static_cast<std::int32_t>(wholeDn.size()),
                                     request.transId);
    });
}
