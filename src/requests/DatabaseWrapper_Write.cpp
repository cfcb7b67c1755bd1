// Requests that insert, update or delete one object, at once or when the client's open transaction
// is committed.

#include "requests/DatabaseWrapper.h"

#include "requests/OpenTransaction.h"
#include "requests/OperationRecord.h"
#include "requests/Serve.h"

#include "platform/utility/DBObject.h"

using namespace TAMO::Messages;

namespace {

/// The words of a handler that takes a whole object.
struct ObjectLines {
    const char* operation; // in the operation record
    void (*wrongOperation)(std::int32_t received, std::int32_t expected);
    void (*rightOperation)();
    void (*uncompressing)();
    void (*noObject)();
};

/// Whether the store can keep it so that it is found again: an object without a pair of its own would
/// answer to its parent's DN.
bool isNamed(const DBObject& object) { return !object.dn.empty() && !object.getAttribute(""); }

/// The object a request carries; null, logged, when it cannot be rebuilt. One above the capacity of
/// an answer could never be fetched again.
std::unique_ptr<DBObject> objectOf(const ObjectRequest& request, const ObjectLines& lines)
{
    if (request.uncompressedSize != 0)
        lines.uncompressing();
    std::unique_ptr<DBObject> object;
    if (request.object.size() <= static_cast<std::size_t>(IPCData::dataCapacity))
        object = DBObject::DeSerializeDatafromDB(
            request.object.data(), static_cast<std::int32_t>(request.object.size()), request.uncompressedSize);
    if (object && !isNamed(*object))
        object.reset();
    if (!object)
        lines.noObject();
    return object;
}

/// Serves a request that carries an object which `write`, or a commit, brings into the store.
template <class Request, class Answer, class Write>
void serveObject(const RawMessage* raw, const HandlerLines& lines, const ObjectLines& words, EOperation expected,
                 bool recordsTransId, Write write)
{
    serve<Request, Answer>(raw, lines, [&](const Request& request, const Client& client) {
        OperationRecord record;
        record.operation = words.operation;
        bool result = false;
        if (request.operation != expected) {
            words.wrongOperation(request.operation, expected);
        } else {
            words.rightOperation();
            if (auto object = objectOf(request, words)) {
                record.about(object->dn, object->MOInstance);
                result = queueOrWrite(
                    client, request.transId, expected, [&] { return std::move(object); },
                    [&] { return write(*object, client); });
            }
        }
        if (!result) {
            record.transId = recordsTransId ? request.transId : 0;
            record.logFailure();
        }
        return std::optional<Answer>(std::in_place, result, request.transId);
    });
}

} // namespace

void DatabaseWrapper::handleInsert(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleInsert NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleInsert transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database EDatabaseWrapper::handleInsert SendRsp NotSuccessful"); }};
    static constexpr ObjectLines words{
        .operation = "Insert",
        .wrongOperation =
            [](std::int32_t received, std::int32_t expected) {
                LOG_DEBUG("DatabaseWrapper::handleInsertMessage wrong EOperation %d should be %d", received, expected);
            },
        .rightOperation = [] { LOG_DEBUG("DatabaseWrapper::handleInsert is right operation"); },
        .uncompressing = [] { LOG_DEBUG("Database DatabaseWrapper::handleInsert Object will be uncompressed"); },
        .noObject = [] { LOG_DEBUG("DatabaseWrapper::handleInsertMessage Cannot insert NULL"); }};
    serveObject<TAMO_DBInsert, TAMO_DBInsertRsp>(
        raw, lines, words, operationInsert, true, [](DBObject& object, const Client& client) {
            return SQLite::getInstance().sql_insert(&object, false, client.name);
        });
}

void DatabaseWrapper::handleInsertToCommonDb(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleInsertToCommonDb NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleInsertToCommonDb transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database DatabaseWrapper::handleInsertToCommonDb SendRsp NotSuccessful"); }};
    static constexpr ObjectLines words{
        .operation = "InsertToCommonDb",
        .wrongOperation =
            [](std::int32_t received, std::int32_t expected) {
                LOG_DEBUG("DatabaseWrapper::handleInsertToCommonDbMessage wrong EOperation %d should be %d", received,
                          expected);
            },
        .rightOperation = [] { LOG_DEBUG("DatabaseWrapper::handleInsertToCommonDb is right operation"); },
        .uncompressing =
            [] { LOG_DEBUG("Database DatabaseWrapper::handleInsertToCommonDb Object will be uncompressed"); },
        .noObject = [] { LOG_DEBUG("DatabaseWrapper::handleInsertToCommonDbMessage Cannot insert NULL"); }};
    serveObject<TAMO_DBInsertToCommonDb, TAMO_DBInsertToCommonDbRsp>(
        raw, lines, words, operationInsertToCommonDb, true, [](DBObject& object, const Client& client) {
            return SQLite::getInstance().sql_insert_to_commondb(&object, false, 0, client.name, true);
        });
}

void DatabaseWrapper::handleUpdate(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleUpdate NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleUpdate transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database DatabaseWrapper::handleUpdate SendRsp NotSuccessful"); }};
    static constexpr ObjectLines words{
        .operation = "Update",
        .wrongOperation = [](std::int32_t, std::int32_t) {},
        .rightOperation = [] { LOG_DEBUG("Database DatabaseWrapper::handleUpdate is right operation"); },
        .uncompressing = [] { LOG_DEBUG("Database DatabaseWrapper::handleUpdate Object will be uncompressed"); },
        .noObject = [] { LOG_DEBUG("Database DatabaseWrapper::handleUpdate Cannot update NULL"); }};
    serveObject<TAMO_DBUpdate, TAMO_DBUpdateRsp>(
        raw, lines, words, operationUpdate, false, [](DBObject& object, const Client& client) {
            return SQLite::getInstance().sql_update(&object, false, client.name);
        });
}

void DatabaseWrapper::handleDelete(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleDelete NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleDelete transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database DatabaseWrapper::handleDelete SendRsp NotSuccessful"); }};
    serve<TAMO_DBDelete, TAMO_DBDeleteRsp>(raw, lines, [](const TAMO_DBDelete& request, const Client& client) {
        bool result = false;
        if (request.operation != operationDelete) {
            LOG_DEBUG("DatabaseWrapper::handleDelete wrong EOperation %d should be %d", request.operation,
                      operationDelete);
        } else {
            LOG_DEBUG("DatabaseWrapper::handleDelete is right operation");
            result = queueOrWrite(
                client, request.transId, operationDelete,
                [&] { return std::make_unique<DBObject>(request.dn, request.MOInstance, false, false, 0, 1); },
                [&] {
                    return SQLite::getInstance().delete_object(request.dn, request.MOInstance, false, client.name);
                });
        }
        if (!result)
            OperationRecord{"Delete", request.dn, request.MOInstance, request.transId, {}}.logFailure();
        return std::optional<TAMO_DBDeleteRsp>(std::in_place, result, request.transId);
    });
}
