#pragma once

#include "requests/Clients.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Answers.h"
#include "platform/middleware/Log.h"
#include "store/SQLite.h"
#include "store/SharedLock.h"

#include <exception>
#include <optional>
#include <type_traits>

/// The words of one handler. Functions rather than texts, so that each format meets its arguments
/// where the compiler can check it.
struct HandlerLines {
    void (*noMessage)() = [] {};
    void (*received)(std::int32_t transId, const char* client) = [](std::int32_t, const char*) {};
    void (*notSent)() = [] {};
    void (*sent)() = [] {};
};

/// In place of an answer, for a request that gets none.
struct NoAnswer {};

/// Whether the work of a request runs under SharedLock. Not so what loads a whole database or drops a
/// table.
enum class FileLock { shared, none };

/// The answer that a request gets when it could not be read or its work broke off: the handler's
/// own form of "not successful".
template <class Answer>
Answer refusal(std::int32_t transId, std::int32_t receiver)
{
    using namespace TAMO::Messages;
    if constexpr (std::is_same_v<Answer, NoAnswer>) {
        return {};
    } else if constexpr (std::is_base_of_v<ItemAnswer, Answer>) {
        constexpr std::int32_t kind = std::is_same_v<Answer, TAMO_DBFetchRsp> ? 10 : 11;
        return Answer({kind, receiver, 1, false, {}}, 0, 0, transId);
    } else if constexpr (std::is_base_of_v<ListAnswer, Answer>) {
        constexpr std::int32_t kind = std::is_same_v<Answer, TAMO_DBFetchAllChildrenRsp> ? 12 : 13;
        return Answer(transId, 0, {kind, receiver, 1, false, {}}, {}, {});
    } else if constexpr (std::is_same_v<Answer, TAMO_DBFetchMOClassWithParentRsp>) {
        return Answer({}, 0, transId, -1);
    } else if constexpr (std::is_same_v<Answer, TAMO_getWholeDnRsp>) {
        return Answer({}, 0, transId);
    } else if constexpr (std::is_same_v<Answer, TAMO_DBRegToNotifRsp>) {
        return Answer(-1, transId);
    } else if constexpr (std::is_same_v<Answer, TAMO_DBUnRegToNotifRsp>) {
        return Answer(false, transId, -1);
    } else if constexpr (std::is_base_of_v<DataResultAnswer, Answer>) {
        return Answer({}, transId, false);
    } else if constexpr (std::is_same_v<Answer, TAMO_DBStoreBrMBackupRsp>) {
        return Answer(transId, false); // a bool would pass for an id the other way round
    } else {
        return Answer(false, transId);
    }
}

template <class Request, class Answer, FileLock fileLock, class Work>
std::optional<Answer> workOn(const Request& request, const Client& client, Work& work)
{
    SQLite& store = SQLite::getInstance();
    try {
        std::optional<SharedLock> lock;
        if constexpr (fileLock == FileLock::shared)
            lock.emplace(store.runtime());
        return work(request, client);
    } catch (const std::exception& error) {
        LOG_ERROR("DatabaseWrapper: request 0x%04x of %s failed: %s", Request::id, client.name.c_str(), error.what());
    }
    store.rollbackLeftOver();
    return refusal<Answer>(request.transId, client.node);
}

template <class Request, class Answer>
void sendAnswer(const Answer& answer, const Client& client, const HandlerLines& lines)
{
    bool sent = false;
    try {
        sent = TAMO::Framework::Messaging::sendTamoMessage_v2(client.node, answer, 1);
    } catch (const std::exception& error) {
        LOG_ERROR("DatabaseWrapper: the answer to request 0x%04x of %s is lost: %s", Request::id, client.name.c_str(),
                  error.what());
    }
    sent ? lines.sent() : lines.notSent();
}

/// Receives, decodes, logs and answers a request; `work` takes the request and its client and gives
/// the answer, or none when the request gets none. A body that cannot be read is refused, and
/// answered when its transaction id could be read.
template <class Request, class Answer, FileLock fileLock = FileLock::shared, class Work>
void serve(const RawMessage* raw, const HandlerLines& lines, Work work)
{
    if (!raw)
        return lines.noMessage();
    Request request;
    const bool readable = request.deserialize(raw);
    const std::int32_t node = TAMO::Framework::Messaging::getMsgSender(raw);
    const Client client{node, clientName(node)};
    if (!readable) {
        LOG_WARNING("Message 0x%04x from %s (node %d) cannot be read: %zu bytes that are not its fields", Request::id,
                    client.name.c_str(), node, raw->body.size());
        if (!request.hasTransId())
            return;
    } else {
        lines.received(request.transId, client.name.c_str());
    }
    const std::optional<Answer> answer =
        readable ? workOn<Request, Answer, fileLock>(request, client, work) : refusal<Answer>(request.transId, node);
    if constexpr (!std::is_same_v<Answer, NoAnswer>)
        if (answer)
            sendAnswer<Request>(*answer, client, lines);
}
