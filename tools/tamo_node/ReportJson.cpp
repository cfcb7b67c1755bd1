// Reports of the management agent as people write them. What is doubtful is refused here: the service drops
// a report that it cannot read as a whole, and says so in its log only.
#include "ReportJson.h"

#include "values/ValueType.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

using nlohmann::json;

namespace {

/// Report, objects, object, attributes, attribute: nothing is deeper.
constexpr std::size_t maxDepth = 5;

/// More text than this is no report of a size that can be sent.
constexpr std::size_t maxSize = 16 * 1024 * 1024;

[[noreturn]] void refuse(const std::string& where, const std::string& why)
{
    throw std::runtime_error(where + ": " + why);
}

std::string readAll(std::istream& input, const std::string& name)
{
    std::string text;
    char block[64 * 1024];
    while (input.read(block, sizeof block) || input.gcount() > 0) {
        text.append(block, static_cast<std::size_t>(input.gcount()));
        if (text.size() > maxSize)
            refuse(name, "more than 16 MiB, too large for a report");
    }
    if (input.bad())
        refuse(name, "reading failed");
    return text;
}

std::string textOf(const std::string& path)
{
    if (path == "-")
        return readAll(std::cin, "standard input");
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        refuse(path, "is a directory");
    std::ifstream file(path, std::ios::binary);
    if (!file)
        refuse(path, std::strerror(errno));
    return readAll(file, path);
}

/// A JSON object or list that is being parsed.
struct Level {
    std::string where;
    std::set<std::string> keys = {};
    std::string lastKey = {};
    std::size_t elements = 0; ///< objects and lists begun so far, of a list

    std::string placeOfNext(bool ofReport)
    {
        if (keys.empty())
            return where + "[" + std::to_string(elements++) + "]";
        return where + (ofReport ? ": " : ".") + lastKey;
    }
};

/// Parses, and refuses what a plain parse would let through in silence or take endless memory for.
json parse(const std::string& text, const std::string& name)
{
    std::vector<Level> levels;
    const auto watch = [&](int, json::parse_event_t event, json& parsed) {
        using Event = json::parse_event_t;
        if (event == Event::object_start || event == Event::array_start) {
            if (levels.size() == maxDepth)
                refuse(name, "nested too deeply for a report");
            levels.push_back({levels.empty() ? name : levels.back().placeOfNext(levels.size() == 1)});
        } else if (event == Event::object_end || event == Event::array_end) {
            levels.pop_back();
        } else if (event == Event::key) {
            levels.back().lastKey = parsed.get<std::string>();
            if (!levels.back().keys.insert(levels.back().lastKey).second)
                refuse(levels.back().where, "the key " + parsed.dump() + " occurs twice");
        }
        return true;
    };
    try {
        return json::parse(text, watch);
    } catch (const json::exception& error) {
        const std::string_view what = error.what(); // "[json.exception…] what"
        const std::size_t end = what.find("] ");
        refuse(name, std::string(end == std::string_view::npos ? what : what.substr(end + 2)));
    }
}

/// One element of the report and where it stands in the file.
class Element {
public:
    Element(const json& element, std::string where, const char* separator)
        : m_json(element), m_where(std::move(where)), m_separator(separator)
    {}

    /// Refuses what is no JSON object, and keys that are not in the list.
    void expectKeys(std::initializer_list<std::string_view> known) const
    {
        if (!m_json.is_object())
            refuse(m_where, "{…} belongs here");
        for (const auto& [key, value] : m_json.items())
            if (std::ranges::find(known, key) == known.end())
                refuse(m_where, "unknown key \"" + key + "\"");
    }

    std::string text(const char* key) const
    {
        const json* const found = find(key);
        if (!found || !found->is_string())
            refuse(m_where, found ? quoted(key) + " is no text" : quoted(key) + " is missing");
        std::string text = found->get<std::string>();
        if (text.find('\0') != std::string::npos)
            refuse(m_where, quoted(key) + " holds a zero byte");
        return text;
    }

    char letter(const char* key) const
    {
        const std::string letter = text(key);
        if (letter.size() != 1)
            refuse(m_where, quoted(key) + " is not one letter");
        return letter.front();
    }

    bool flag(const char* key) const
    {
        const json* const found = find(key);
        if (found && !found->is_boolean())
            refuse(m_where, quoted(key) + " is not true or false");
        return found && found->get<bool>();
    }

    std::int32_t type(const char* key) const
    {
        const json* const found = find(key);
        if (!found)
            return IPCData::STRING;
        const bool fits = found->is_number_unsigned()
                              ? std::in_range<std::int32_t>(found->get<std::uint64_t>())
                              : found->is_number_integer() && std::in_range<std::int32_t>(found->get<std::int64_t>());
        if (fits)
            return found->get<std::int32_t>();
        const auto code = found->is_string() ? typeFromName(found->get<std::string>()) : std::nullopt;
        if (!code)
            refuse(m_where, quoted(key) + " is no value-type code and no name of one");
        return *code;
    }

    std::vector<Element> list(const char* key, bool needed) const
    {
        std::vector<Element> elements;
        const json* const found = find(key);
        if (found ? !found->is_array() : needed)
            refuse(m_where, found ? quoted(key) + " is no list" : quoted(key) + " is missing");
        for (std::size_t i = 0; found && i < found->size(); ++i)
            elements.emplace_back((*found)[i], m_where + m_separator + key + "[" + std::to_string(i) + "]", ".");
        return elements;
    }

private:
    static std::string quoted(const char* key) { return "\"" + std::string(key) + "\""; }
    const json* find(const char* key) const
    {
        const auto found = m_json.find(key);
        return found == m_json.end() ? nullptr : &*found;
    }

    const json& m_json;
    const std::string m_where;
    const char* const m_separator; ///< between this place and one inside it
};

ReportedObject objectFrom(const Element& element)
{
    element.expectKeys({"dn", "operation", "attributes"});
    ReportedObject object{element.text("dn"), element.letter("operation"), {}};
    for (const Element& attribute : element.list("attributes", false)) {
        attribute.expectKeys({"name", "type", "value", "hidden"});
        object.attributes.push_back(
            {attribute.text("name"), attribute.type("type"), attribute.text("value"), attribute.flag("hidden")});
    }
    return object;
}

} // namespace

TAMO::Messages::TAMO_MOAccessReport readReport(const std::string& path)
{
    const std::string name = path == "-" ? "standard input" : path;
    const json parsed = parse(textOf(path), name);
    const Element whole(parsed, name, ": ");
    whole.expectKeys({"objects"});
    TAMO::Messages::TAMO_MOAccessReport report;
    for (const Element& object : whole.list("objects", true))
        report.objects.push_back(objectFrom(object));
    return report;
}
