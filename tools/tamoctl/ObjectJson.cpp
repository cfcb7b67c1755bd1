// Objects to JSON lines and back. Reading trusts nothing: a key that is unknown or occurs twice, a
// value that its type cannot hold exactly, are errors; a file that imports is imported as it stands.

#include "tools/tamoctl/ObjectJson.h"

#include "tools/client/Database.h"
#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/TextCoding.h"
#include "values/ValueType.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

/// Object, attributes, attribute, base64 value: an honest line is not deeper.
constexpr int maxDepth = 4;

/// Marks attribute names that no JSON key can hold as they are.
constexpr std::string_view codedName = "base64:";

[[noreturn]] void refuse(const std::string& why) { throw Failure(ExitCode::usage, why); }

Json textToJson(std::string_view text)
{
    if (isUtf8(text))
        return std::string(text);
    return {{"base64", base64(text)}};
}

Json floatToJson(float number)
{
    // The double nearest to the float's own digits (0.1, not 0.10000000149011612), unless going
    // through it would give another float.
    char digits[32];
    const auto written = std::to_chars(digits, digits + sizeof digits, number);
    double wide = 0;
    std::from_chars(digits, written.ptr, wide);
    return static_cast<float>(wide) == number ? wide : static_cast<double>(number);
}

Json valueToJson(const Value& value)
{
    return std::visit(
        [](const auto& held) -> Json {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, std::string>)
                return textToJson(held);
            else if constexpr (std::is_same_v<Held, const char*>)
                return textToJson(held ? held : "");
            else if constexpr (std::is_floating_point_v<Held>) {
                if (std::isnan(held))
                    return "NaN";
                if (std::isinf(held))
                    return held > 0 ? "Infinity" : "-Infinity";
                if constexpr (std::is_same_v<Held, float>)
                    return floatToJson(held);
                else
                    return held;
            } else
                return held;
        },
        value);
}

Json typeToJson(std::int32_t type)
{
    const std::string name = typeName(type);
    return name == std::to_string(type) ? Json(type) : Json(name);
}

std::string nameToKey(const std::string& name)
{
    if (isUtf8(name) && !name.starts_with(codedName))
        return name;
    return std::string(codedName) + base64(name);
}

Json attributeToJson(const Attribute& attribute)
{
    Json json = {{"type", typeToJson(attribute.type)},
                 {"value", valueToJson(attribute.value)},
                 {"hidden", attribute.hidden},
                 {"persistent", attribute.persistent}};
    if (attribute.slot != Attribute::noSlot)
        json["slot"] = attribute.slot;
    return json;
}

Json attributesToJson(const DBObject::Attributes& attributes)
{
    Json json = Json::object();
    for (const auto& [name, attribute] : attributes)
        json[nameToKey(name)] = attributeToJson(attribute);
    return json;
}

/// Parses one line, refusing what a plain parse would let through in silence.
Json parseLine(const std::string& line)
{
    std::vector<std::set<std::string>> keys;
    const auto watch = [&keys](int, Json::parse_event_t event, Json& parsed) {
        if (event == Json::parse_event_t::object_start) {
            keys.emplace_back();
            if (keys.size() > maxDepth)
                refuse("nested too deeply");
        } else if (event == Json::parse_event_t::object_end) {
            keys.pop_back();
        } else if (event == Json::parse_event_t::array_start) {
            refuse("an array where none belongs");
        } else if (event == Json::parse_event_t::key && !keys.back().insert(parsed.get<std::string>()).second) {
            refuse("the key " + parsed.dump() + " occurs twice");
        }
        return true;
    };
    try {
        return Json::parse(line, watch);
    } catch (const Json::exception& error) {
        const std::string_view text = error.what(); // "[json.exception…] what"
        const std::size_t end = text.find("] ");
        refuse("not JSON: " + std::string(end == std::string_view::npos ? text : text.substr(end + 2)));
    }
}

const Json* find(const Json& object, const char* key)
{
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

/// Refuses keys that are not in the list.
void checkKeys(const Json& object, std::initializer_list<std::string_view> known, const std::string& where)
{
    for (const auto& [key, value] : object.items())
        if (std::find(known.begin(), known.end(), key) == known.end())
            refuse(where + "unknown key \"" + key + "\"");
}

bool flag(const Json& object, const char* key, bool fallback, const std::string& where)
{
    const Json* found = find(object, key);
    if (!found)
        return fallback;
    if (!found->is_boolean())
        refuse(where + "\"" + key + "\" is not true or false");
    return found->get<bool>();
}

std::string textFromJson(const Json& json, const std::string& where)
{
    if (json.is_string())
        return json.get<std::string>();
    const Json* coded = json.is_object() && json.size() == 1 ? find(json, "base64") : nullptr;
    if (!coded || !coded->is_string())
        refuse(where + "a text or {\"base64\": …} belongs here, not " + json.dump());
    auto bytes = fromBase64(coded->get<std::string>());
    if (!bytes)
        refuse(where + "what stands under \"base64\" is not base64");
    return *bytes;
}

template <class Number>
Value integerFromJson(const Json& json, const std::string& where)
{
    const bool fits = json.is_number_unsigned()  ? std::in_range<Number>(json.get<std::uint64_t>())
                      : json.is_number_integer() ? std::in_range<Number>(json.get<std::int64_t>())
                                                 : false;
    if (!fits)
        refuse(where + json.dump() + " is not a whole number from " +
               std::to_string(std::numeric_limits<Number>::min()) + " to " +
               std::to_string(std::numeric_limits<Number>::max()));
    return json.get<Number>();
}

template <class Number>
Value floatingFromJson(const Json& json, const std::string& where)
{
    constexpr Number infinity = std::numeric_limits<Number>::infinity();
    if (json == "Infinity")
        return infinity;
    if (json == "-Infinity")
        return -infinity;
    if (!json.is_number())
        refuse(where + json.dump() + " is not a number");
    // Judged after rounding: the digits of the greatest float stand for a slightly greater double.
    const auto number = static_cast<Number>(json.get<double>());
    if (!std::isfinite(number))
        refuse(where + json.dump() + " is out of range");
    return number;
}

Value valueFromJson(const Json& json, std::int32_t type, const std::string& where)
{
    switch (alternativeOf(type).value()) {
    case 0:
        return integerFromJson<std::int8_t>(json, where);
    case 1:
        return integerFromJson<std::int16_t>(json, where);
    case 2:
        return integerFromJson<std::int32_t>(json, where);
    case 3:
        return integerFromJson<std::int64_t>(json, where);
    case 4:
        return floatingFromJson<float>(json, where);
    case 5:
        return floatingFromJson<double>(json, where);
    case 7:
        return integerFromJson<std::uint8_t>(json, where);
    case 8:
        return integerFromJson<std::uint16_t>(json, where);
    case 9:
        return integerFromJson<std::uint32_t>(json, where);
    case 10:
        return integerFromJson<std::uint64_t>(json, where);
    case 11:
        if (!json.is_boolean())
            refuse(where + json.dump() + " is not true or false");
        return json.get<bool>();
    default:
        return textFromJson(json, where);
    }
}

std::int32_t typeFromJson(const Json& attribute, const std::string& where)
{
    const Json* json = find(attribute, "type");
    if (!json)
        refuse(where + "no \"type\"");
    const auto type = json->is_string()           ? typeFromName(json->get<std::string>())
                      : json->is_number_integer() ? typeFromName(json->dump())
                                                  : std::nullopt;
    if (!type)
        refuse(where + "unknown type " + json->dump());
    return *type;
}

Attribute attributeFromJson(const std::string& name, const Json& json)
{
    const std::string where = "attribute " + name + ": ";
    if (!json.is_object())
        refuse(where + "an object belongs here, not " + json.dump());
    checkKeys(json, {"type", "value", "hidden", "persistent"}, where);
    const std::int32_t type = typeFromJson(json, where);
    const Json* value = find(json, "value");
    if (!value)
        refuse(where + "no \"value\"");
    return newAttribute(name, valueFromJson(*value, type, where), type, flag(json, "persistent", false, where),
                        flag(json, "hidden", false, where));
}

std::string keyToName(const std::string& key)
{
    if (!key.starts_with(codedName))
        return checkedName(key);
    const auto name = fromBase64(std::string_view(key).substr(codedName.size()));
    if (!name)
        refuse("attribute " + key + ": not base64");
    return checkedName(*name);
}

} // namespace

std::string jsonText(std::string_view text) { return textToJson(text).dump(); }

std::string jsonValue(const Value& value) { return valueToJson(value).dump(); }

std::string jsonAttribute(const Attribute& attribute)
{
    Json json = {{"name", textToJson(attribute.name)}};
    json.update(attributeToJson(attribute));
    return json.dump();
}

std::string jsonObject(const DBObject& object, const std::string& dn, bool alternates)
{
    Json json = {{"dn", textToJson(dn)},
                 {"MOInstance", object.MOInstance},
                 {"isMOMObject", object.isMOMObject},
                 {"system", object.system},
                 {"attributes", attributesToJson(object.attributes)}};
    if (alternates)
        json["alternateAttributes"] = attributesToJson(object.alternateAttributes);
    return json.dump();
}

DBObject objectFromJson(const std::string& line)
{
    const Json json = parseLine(line);
    if (!json.is_object())
        refuse("an object belongs here, not " + json.dump());
    checkKeys(json, {"dn", "MOInstance", "isMOMObject", "system", "attributes", "alternateAttributes"}, "");
    const Json* dn = find(json, "dn");
    if (!dn)
        refuse("no \"dn\"");
    const Json* instance = find(json, "MOInstance");
    DBObject object =
        newObject(checkedDn(textFromJson(*dn, "dn: ")),
                  instance ? std::get<std::int32_t>(integerFromJson<std::int32_t>(*instance, "MOInstance: ")) : 1,
                  flag(json, "isMOMObject", true, ""), flag(json, "system", false, ""));
    const Json* attributes = find(json, "attributes");
    if (attributes && !attributes->is_object())
        refuse("\"attributes\" is not an object");
    if (attributes)
        for (const auto& [key, attribute] : attributes->items())
            object.addAttribute(attributeFromJson(keyToName(key), attribute));
    return object;
}
