// Requests about the database as a whole.

#include "requests/DatabaseWrapper.h"

#include "requests/Serve.h"

using namespace TAMO::Messages;

void DatabaseWrapper::handleOrderReady(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleOrderReady NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleOrderReady transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleOrderReady SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBOrderReadyRsp;
    serve<TAMO_DBOrderReady, Answer>(raw, lines, [](const TAMO_DBOrderReady& request, const Client&) {
        return std::optional<Answer>(std::in_place, SQLite::getInstance().ready(), request.transId);
    });
}
