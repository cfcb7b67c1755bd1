// Questions of an operator about the service itself. They read what the platform layer and the
// subscriptions know and touch no data.

#include "requests/DatabaseWrapper.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Diagnostics.h"
#include "requests/Serve.h"

#include <utility>

using namespace TAMO::Messages;
using TAMO::Framework::Messaging;
using TAMO::Framework::PeerInfo;

namespace {

ClientRecord recordOf(const PeerInfo& peer)
{
    return {.name = peer.name,
            .node = peer.node,
            .pid = peer.pid,
            .uid = peer.uid,
            .queuedBytes = static_cast<std::int64_t>(peer.queuedBytes),
            .unhandled = static_cast<std::int64_t>(peer.unhandled),
            .sent = static_cast<std::int64_t>(peer.sent),
            .dropped = static_cast<std::int64_t>(peer.dropped),
            .received = static_cast<std::int64_t>(peer.received),
            .idle = peer.idle.count()};
}

} // namespace

void DatabaseWrapper::handleListClients(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleListClients transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleListClients SendRsp NotSuccessful"); }};
    using Answer = TAMO_ListClientsRsp;
    serve<TAMO_ListClients, Answer>(raw, lines, [](const TAMO_ListClients& request, const Client&) {
        std::optional<Answer> answer(std::in_place, true, request.transId);
        for (const PeerInfo& peer : Messaging::getPeers())
            answer->add(recordOf(peer));
        return answer;
    });
}

void DatabaseWrapper::handleListSubscriptions(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleListSubscriptions transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleListSubscriptions SendRsp NotSuccessful"); }};
    using Answer = TAMO_ListSubscriptionsRsp;
    serve<TAMO_ListSubscriptions, Answer>(raw, lines, [this](const TAMO_ListSubscriptions& request, const Client&) {
        std::optional<Answer> answer(std::in_place, true, request.transId);
        for (Subscriptions::Entry& entry : m_subscriptions.list())
            answer->add({std::move(entry.key), entry.ticket, std::move(entry.clients)});
        return answer;
    });
}
