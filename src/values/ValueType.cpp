// The one table behind every question about value types: which alternative a code asks for, which
// code an alternative stands for, and the names operators use.

#include "values/ValueType.h"

#include <array>
#include <charconv>
#include <locale>
#include <sstream>

namespace {

using namespace IPCData;

struct TypeRow {
    std::int32_t code;
    std::string_view name;
    std::size_t alternative;
    bool standsForAlternative; // the code a value of this alternative gets when none was declared
};

constexpr std::size_t textAlternative = 6;

constexpr std::array typeRows{
    TypeRow{INT8, "INT8", 0, true},
    TypeRow{INT16, "INT16", 1, true},
    TypeRow{INT32, "INT32", 2, true},
    TypeRow{INT64, "INT64", 3, true},
    TypeRow{UINT8, "UINT8", 7, true},
    TypeRow{UINT16, "UINT16", 8, true},
    TypeRow{UINT32, "UINT32", 9, true},
    TypeRow{UINT64, "UINT64", 10, true},
    TypeRow{STRING, "string", textAlternative, true},
    TypeRow{BOOLEAN, "boolean", 11, true},
    TypeRow{REFERENCE, "reference", textAlternative, false},
    TypeRow{ENUM, "ENUM", 2, false},
    TypeRow{TEXT, "text", textAlternative, false},
    TypeRow{DECIMAL64, "DECIMAL64", 5, true},
    TypeRow{FLOAT, "FLOAT", 4, true},
};

const TypeRow* rowOf(std::int32_t type)
{
    for (const TypeRow& row : typeRows)
        if (row.code == type)
            return &row;
    return nullptr;
}

bool isFurtherText(std::int32_t type) { return type >= FIRST_FURTHER_TEXT && type <= LAST; }

template <class Read, class Kept = Read>
std::optional<Value> extract(const std::string& text)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    Read number{};
    if (!(stream >> number))
        return std::nullopt;
    return Value(static_cast<Kept>(number));
}

std::optional<Value> extractBoolean(const std::string& text)
{
    if (text == "true")
        return Value(true);
    if (text == "false")
        return Value(false);
    return extract<bool>(text);
}

} // namespace

std::optional<std::size_t> alternativeOf(std::int32_t type)
{
    if (isFurtherText(type))
        return textAlternative;
    const TypeRow* row = rowOf(type);
    return row ? std::optional(row->alternative) : std::nullopt;
}

std::int32_t typeOfAlternative(std::size_t alternative)
{
    for (const TypeRow& row : typeRows)
        if (row.standsForAlternative && row.alternative == alternative)
            return row.code;
    return INVALID;
}

bool typeFits(std::int32_t type, const Value& value) { return alternativeOf(type) == value.index(); }

std::int32_t storedType(std::int32_t declared, const Value& value)
{
    return typeFits(declared, value) ? declared : typeOfAlternative(value.index());
}

bool isReferenceType(std::int32_t type) { return type == REFERENCE || type == SECOND_REFERENCE; }

bool isTextType(std::int32_t type) { return alternativeOf(type) == textAlternative; }

std::string typeName(std::int32_t type)
{
    const TypeRow* row = rowOf(type);
    return row ? std::string(row->name) : std::to_string(type);
}

std::optional<std::int32_t> typeFromName(std::string_view name)
{
    for (const TypeRow& row : typeRows)
        if (row.name == name)
            return row.code;
    std::int32_t code = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), code);
    if (error != std::errc() || end != name.data() + name.size() || !alternativeOf(code))
        return std::nullopt;
    return code;
}

std::optional<Value> parseValue(const std::string& text, std::int32_t type)
{
    switch (type) {
    case INT8:
        return extract<std::int32_t, std::int8_t>(text);
    case INT16:
        return extract<std::int16_t>(text);
    case INT32:
    case ENUM:
        return extract<std::int32_t>(text);
    case INT64:
        return extract<std::int64_t>(text);
    case UINT8:
        return extract<std::uint32_t, std::uint8_t>(text);
    case UINT16:
        return extract<std::uint16_t>(text);
    case UINT32:
        return extract<std::uint32_t>(text);
    case UINT64:
        return extract<std::uint64_t>(text);
    case BOOLEAN:
        return extractBoolean(text);
    case DECIMAL64:
        return extract<double>(text);
    case FLOAT:
        return extract<float>(text);
    default:
        return isTextType(type) ? std::optional<Value>(text) : std::nullopt;
    }
}

std::string valueText(const Value& value)
{
    return std::visit(
        [](const auto& held) -> std::string {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>)
                return held;
            else if constexpr (std::is_same_v<Held, const char*>)
                return held ? held : "";
            else if constexpr (std::is_same_v<Held, bool>)
                return held ? "1" : "0";
            else if constexpr (std::is_integral_v<Held>)
                return std::to_string(held);
            else {
                std::ostringstream stream;
                stream.imbue(std::locale::classic());
                stream << held;
                return stream.str();
            }
        },
        value);
}
