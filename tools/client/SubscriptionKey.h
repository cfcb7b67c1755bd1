#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Operations as notifications and subscription keys name them.
inline constexpr std::int32_t changeDelete = 9;
inline constexpr std::int32_t changeInsert = 18;
inline constexpr std::int32_t changeUpdate = 23;

/// The fields of a subscription request. The service knows a subscription by the key, a text built
/// from them; two requests with the same key share a ticket.
struct SubscriptionKey {
    std::string dn;                 ///< an object's own pair, its whole DN, or a class
    std::int32_t instance = 0;      ///< 0: not named; an attribute's key needs it
    std::string attribute;          ///< empty: not named
    std::int32_t operation = 0;     ///< 0: not named; only with an attribute
    std::int32_t forAll = 0;        ///< 1 every object, 2 MOM objects, 3 the others; in place of all the above
    std::int32_t withAlternate = 0; ///< 1: parked values too
    bool transactions = false;      ///< committed client transactions; in place of all the above

    std::string text() const;
    /// The fields that give this text; none when there are none. An attribute name with a comma is not
    /// found again: its comma is taken for one of the DN or between the fields.
    static std::optional<SubscriptionKey> fromText(std::string_view text);
    /// Why no change can ever match; empty when one can.
    std::string whyItNeverMatches() const;
};
