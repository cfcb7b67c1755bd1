// The verb wifi: tells the service the state of the Wi-Fi module as the node's middleware does, rightly
// and wrongly.
#include "Access.h"
#include "Verbs.h"

#include "platform/messages/Notifications.h"
#include "platform/middleware/StatusMessage.h"
#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"

#include <algorithm>

namespace {

void putWord(Bytes& payload, std::size_t offset, std::uint32_t word)
{
    for (std::size_t i = 0; i < MiddlewareStatus::wordSize; ++i)
        payload[offset + i] = static_cast<std::uint8_t>(word >> (8 * i));
}

TAMO::Messages::TAMO_MiddlewareStatus messageWith(std::int32_t status, const WifiOptions& options)
{
    Bytes payload(MiddlewareStatus::wifiSize);
    putWord(payload, MiddlewareStatus::magicAt, options.magic.value_or(MiddlewareStatus::magic));
    putWord(payload, MiddlewareStatus::kindAt, options.kind.value_or(MiddlewareStatus::status));
    putWord(payload, MiddlewareStatus::statusIdAt,
            static_cast<std::uint32_t>(options.statusId.value_or(MiddlewareStatus::wifi)));
    putWord(payload, MiddlewareStatus::wifiStatusAt, static_cast<std::uint32_t>(status));
    payload.resize(std::min(payload.size(), options.truncate.value_or(payload.size())));
    return TAMO::Messages::TAMO_MiddlewareStatus(std::move(payload));
}

} // namespace

int wifi(const WifiOptions& options)
{
    const auto layout = existing(options.directory);
    if (!layout)
        return exitFailure;
    try {
        ServiceClient client({layout->sockets(), "tamo_node", {}, std::chrono::seconds(10)});
        for (const std::int32_t status : options.statuses)
            client.send(messageWith(status, options));
        // The service takes our messages in order: with this answer it has handled those before.
        static_cast<void>(Database(client).ready());
        return exitSuccess;
    } catch (const ClientError& error) {
        return fail(error.what());
    }
}
