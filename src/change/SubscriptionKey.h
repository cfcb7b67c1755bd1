#pragma once

#include <cstdint>
#include <string>

namespace TAMO::Messages {
class SubscriptionRequest;
}

/// The texts that subscriptions are found by:
///
///     DN,MOInstance,attribute,operation,      changes of one object or attribute; unused fields empty
///     ,,,,KIND                                whole objects: 1 all, 2 those of the model, 3 others
///     TRANSACTIONS                            committed client transactions
///
/// followed, but for the last, by ",1" when changes parked in alternate storage are wanted too.
namespace SubscriptionKey {

inline constexpr const char* transactions = "TRANSACTIONS";
/// What the buffer of the management agent is kept for.
inline constexpr const char* modelObjectsWithAlternate = ",,,,2,1";

/// The key that a request's fields stand for; numbers of 0 and less leave their field empty.
std::string of(const TAMO::Messages::SubscriptionRequest& request);

} // namespace SubscriptionKey
