// The request that switches the synchronisation of deprecated attributes on. What it does is
// SQLite_AttributeSync.cpp's affair.

#include "requests/DatabaseWrapper.h"

#include "requests/Serve.h"

#include "platform/messages/Requests.h"

using namespace TAMO::Messages;

namespace {

constexpr const char* handler = "handleEnableAttributeSynchronization";

bool enable()
{
    SQLite& store = SQLite::getInstance();
    if (store.attributeSynchronisationEnabled()) {
        LOG_INFO("DatabaseWrapper::%s Attribute synchronization already enabled", handler);
        return true;
    }
    if (!store.parseDeprecatedAttributeMappingXML()) {
        LOG_ERROR("DatabaseWrapper::%s Failed to parse deprecated attribute mapping xml", handler);
        LOG_ERROR("DatabaseWrapper::%s Requesting SW fallback", handler);
        store.doFallback();
        return false;
    }
    const bool synchronised = store.syncAttributes();
    store.setAttributeSynchronisationEnabled();
    return synchronised;
}

} // namespace

void DatabaseWrapper::handleEnableAttributeSynchronization(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::%s NULL message", handler); },
        .received = [](std::int32_t,
                       const char* client) { LOG_DEBUG("DatabaseWrapper::%s client: %s", handler, client); },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::%s SendRsp NotSuccessful", handler); }};
    using Answer = TAMO_EnableAttrSyncRsp;
    serve<TAMO_EnableAttrSync, Answer>(raw, lines, [](const TAMO_EnableAttrSync& request, const Client&) {
        return std::optional<Answer>(std::in_place, enable(), request.transId);
    });
}
