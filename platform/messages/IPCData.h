#pragma once

#include "platform/messages/RawMessage.h"

#include <cstdint>

namespace IPCData {

enum OperationalState : std::int32_t { operationalState0 = 0, operationalState1 = 1 };
enum AdminState : std::int32_t { adminState0 = 0, adminState1 = 1 };

/// Capacity of a data area in bytes. A logical limit: no message carries or clears more than is used.
inline constexpr std::int32_t dataCapacity = 400000;

/// The data block of the fetch answers.
struct IPCdataRsp {
    std::int32_t answerKind = 0; ///< 10 fetch, 11 fetch attribute, 12 fetch children, 13 fetch MO class
    std::int32_t receiver = 0;   ///< node id of the requester
    std::int32_t result = 0;     ///< 0 success, 1 not successful
    bool dataValid = false;      ///< an item with a length other than 0 is in `data`
    Bytes data;                  ///< serialised items back to back, at most dataCapacity bytes
};

} // namespace IPCData
