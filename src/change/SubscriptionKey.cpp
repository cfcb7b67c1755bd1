// Subscription keys from the fields of a request.

#include "change/SubscriptionKey.h"

#include "platform/messages/Requests.h"

namespace SubscriptionKey {

std::string of(const TAMO::Messages::SubscriptionRequest& request)
{
    if (request.transactions > 0)
        return transactions;
    const auto number = [](std::int32_t value) { return value > 0 ? std::to_string(value) : std::string(); };
    std::string key;
    if (request.notificationForAll > 0)
        key = ",,,," + std::to_string(request.notificationForAll);
    else
        key.append(request.dn)
            .append(",")
            .append(number(request.MOInstance))
            .append(",")
            .append(request.attributeName)
            .append(",")
            .append(number(request.operation))
            .append(",");
    if (request.withAlternate > 0)
        key.append(",").append(std::to_string(request.withAlternate));
    return key;
}

} // namespace SubscriptionKey
