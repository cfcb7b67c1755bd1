#pragma once

#include "values/Value.h"

#include <cstdint>
#include <string>

/// One attribute of a managed object: its value with the flags that say what a write path is to do
/// with it. Write paths look only at attributes whose `changed` flag is set.
class Attribute {
public:
    Attribute(bool hidden, std::string name, Value value, std::int32_t boamAttrId, bool persistent, std::int32_t type,
              bool changed, bool deleted);
    virtual ~Attribute() = default;
    Attribute(const Attribute&) = default;
    Attribute& operator=(const Attribute&) = default;
    Attribute(Attribute&&) = default;
    Attribute& operator=(Attribute&&) = default;

    /// Takes the new value and marks the attribute changed, unless it holds that very value already.
    void SetValue(Value newValue);

    /// Takes the value that `text` gives for `newType`, and that type with it. A text that does not
    /// read as the type (or an invalid type) changes nothing.
    void SetValue(const std::string& text, std::int32_t newType);

    /// The value as text, see valueText().
    std::string ToStr() const;

    /// No alternate-storage slot.
    static constexpr std::int32_t noSlot = -1;

    Value value;
    /// Identifier on the BOAM interface, 0 for none. It has no column: writes log and drop it.
    std::int32_t boamAttrId = 0;
    bool persistent = false;
    std::string name;
    /// The value is to be written.
    bool changed = false;
    /// The attribute is to be removed; set together with `changed`.
    bool deleted = false;
    /// Alternate-storage slot the value is parked in, 0 or more; noSlot for none.
    std::int32_t slot = noSlot;
    /// Declared value-type code; stored is what fits the value.
    std::int32_t type = 0;
    bool hidden = false;
};
