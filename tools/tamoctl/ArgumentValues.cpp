// Arguments to values. The service itself reads numbers loosely (300 as INT8 is 44); an operator who
// mistypes is told instead.

#include "tools/tamoctl/ArgumentValues.h"

#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/TextCoding.h"
#include "values/ValueType.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace {

[[noreturn]] void refuse(const std::string& text, std::int32_t type, const std::string& name)
{
    throw Failure(ExitCode::usage, name + ": \"" + printable(text) + "\" is not a value of type " + typeName(type));
}

template <class Number>
std::optional<Value> number(const std::string& text)
{
    Number read{};
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, read);
    if (error != std::errc() || at != end)
        return std::nullopt;
    return read;
}

template <class Number>
std::optional<Value> floating(const std::string& text)
{
    constexpr Number infinity = std::numeric_limits<Number>::infinity();
    if (text == "Infinity")
        return infinity;
    if (text == "-Infinity")
        return -infinity;
    auto read = number<Number>(text);
    return read && std::isfinite(std::get<Number>(*read)) ? read : std::nullopt;
}

std::optional<Value> boolean(const std::string& text)
{
    if (text == "true" || text == "1")
        return true;
    if (text == "false" || text == "0")
        return false;
    return std::nullopt;
}

std::optional<Value> read(const std::string& text, std::int32_t type)
{
    switch (alternativeOf(type).value()) {
    case 0:
        return number<std::int8_t>(text);
    case 1:
        return number<std::int16_t>(text);
    case 2:
        return number<std::int32_t>(text);
    case 3:
        return number<std::int64_t>(text);
    case 4:
        return floating<float>(text);
    case 5:
        return floating<double>(text);
    case 7:
        return number<std::uint8_t>(text);
    case 8:
        return number<std::uint16_t>(text);
    case 9:
        return number<std::uint32_t>(text);
    case 10:
        return number<std::uint64_t>(text);
    case 11:
        return boolean(text);
    default:
        return text;
    }
}

} // namespace

std::int32_t Assignment::type(std::int32_t fallback) const
{
    if (!typeText)
        return fallback;
    const auto code = typeFromName(*typeText);
    if (!code)
        throw Failure(ExitCode::usage, name + ": there is no type \"" + *typeText +
                                           "\"; types are INT8, INT16, INT32, INT64, UINT8, UINT16, UINT32, UINT64, "
                                           "string, boolean, reference, ENUM, text, DECIMAL64, FLOAT, or a code");
    return *code;
}

Assignment parseAssignment(const std::string& argument)
{
    const std::size_t equals = argument.find('=');
    if (equals == std::string::npos)
        throw Failure(ExitCode::usage, "\"" + argument + "\" is not of the form NAME=VALUE");
    Assignment assignment;
    assignment.left = argument.substr(0, equals);
    assignment.text = argument.substr(equals + 1);
    const std::size_t colon = assignment.left.rfind(':');
    assignment.name = assignment.left.substr(0, colon);
    if (colon != std::string::npos)
        assignment.typeText = assignment.left.substr(colon + 1);
    checkedName(assignment.name);
    return assignment;
}

Value valueFromArgument(const std::string& text, std::int32_t type, const std::string& name)
{
    auto value = alternativeOf(type) ? read(text, type) : std::nullopt;
    if (!value)
        refuse(text, type, name);
    return std::move(*value);
}
