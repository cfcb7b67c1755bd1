#pragma once

#include <cstdint>
#include <string>
#include <variant>

/// The value of an attribute. The position of an alternative is part of the service's contract:
/// it is what travels in messages and what the type table (ValueType.h) refers to.
///
///     0 int8     1 int16     2 int32     3 int64     4 float    5 double   6 text
///     7 uint8    8 uint16    9 uint32   10 uint64   11 boolean  12 pointer to constant text
///
/// Alternative 12 is never stored and never leaves the process: what comes in from outside under
/// that number becomes text. Two values are equal when alternative and content are; texts may hold
/// any bytes and compare by length.
using Value = std::variant<std::int8_t, std::int16_t, std::int32_t, std::int64_t, float, double, std::string,
                           std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, bool, const char*>;
