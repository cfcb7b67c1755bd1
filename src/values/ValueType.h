#pragma once

#include "values/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace IPCData {

/// Value-type codes as they stand in the column `value_type` and in messages. 18 to 32 are further
/// text kinds, of which 31 is a second reference kind; 0, 13, 15 and everything above 32 are invalid.
enum AttributeValueType : std::int32_t {
    INVALID = 0,
    INT8 = 1,
    INT16 = 2,
    INT32 = 3,
    INT64 = 4,
    UINT8 = 5,
    UINT16 = 6,
    UINT32 = 7,
    UINT64 = 8,
    STRING = 9,
    BOOLEAN = 10,
    REFERENCE = 11,
    ENUM = 12,
    TEXT = 14,
    DECIMAL64 = 16,
    FLOAT = 17,
    FIRST_FURTHER_TEXT = 18,
    SECOND_REFERENCE = 31,
    LAST = 32
};

} // namespace IPCData

/// The alternative (index into Value) that a value of this type must hold; none for an invalid code.
std::optional<std::size_t> alternativeOf(std::int32_t type);

/// The type code that an alternative stands for by itself; 0 for alternative 12 and beyond.
std::int32_t typeOfAlternative(std::size_t alternative);

/// Whether `value` holds the alternative that `type` asks for.
bool typeFits(std::int32_t type, const Value& value);

/// The code under which `value` is stored when it was declared as `declared`: the declared one when
/// it fits the value, else the one of the value's own alternative (0 when there is none).
std::int32_t storedType(std::int32_t declared, const Value& value);

bool isReferenceType(std::int32_t type);
bool isTextType(std::int32_t type);

/// The name an operator uses for a type ("INT32", "string", "reference"); the decimal code for the
/// further text kinds and for invalid codes.
std::string typeName(std::int32_t type);

/// The code of a type name, or of a decimal code from 1 to 32 that is valid; none for anything else.
std::optional<std::int32_t> typeFromName(std::string_view name);

/// Reads `text` as a value of `type` with the standard stream extraction in the classic locale:
/// leading blanks are skipped and reading stops where the number ends. INT8 and UINT8 are read as
/// 32-bit numbers of which the low 8 bits count; booleans are "true", "false" or a number 0 or 1.
/// None when the extraction fails or the type is invalid.
std::optional<Value> parseValue(const std::string& text, std::int32_t type);

/// The value in decimal; 8-bit numbers as numbers, booleans as 0 or 1, floating values with the
/// standard stream precision of 6 digits, texts as they are.
std::string valueText(const Value& value);
