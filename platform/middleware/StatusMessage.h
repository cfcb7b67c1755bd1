#pragma once

#include <cstddef>
#include <cstdint>

/// How the middleware lays out a status message: 32-bit little-endian words at fixed offsets. The
/// words before the magic one are its own business.
namespace MiddlewareStatus {

inline constexpr std::uint32_t magic = 0xEB1CBABE;

// Offsets in bytes.
inline constexpr std::size_t magicAt = 20;
inline constexpr std::size_t kindAt = 24;
inline constexpr std::size_t statusIdAt = 28; ///< in a message of the kind `status`
inline constexpr std::size_t wifiStatusAt = 32;
inline constexpr std::size_t wordSize = 4;
inline constexpr std::size_t wifiSize = wifiStatusAt + wordSize;

enum Kind : std::uint32_t { alarm = 0, alive = 1, status = 2, indication = 3 };
enum StatusId : std::int32_t { wifi = 1 };

} // namespace MiddlewareStatus
