#pragma once

#include "platform/messages/Notifications.h"
#include "tools/client/SubscriptionKey.h"

#include <chrono>
#include <string>

/// A notification and what is known about it.
struct Told {
    const TAMO::Messages::TAMO_DBNotification& message;
    const SubscriptionKey& key; ///< whose ticket it carries
    std::chrono::system_clock::time_point at;
};

/// One line for a person: local time, operation, whole DN, and what changed. No newline at the end.
std::string notificationText(const Told& told);

/// One line of JSON with every value of the message, the key and the time (UTC). Operations and types
/// are the codes of the message.
std::string notificationJson(const Told& told);
