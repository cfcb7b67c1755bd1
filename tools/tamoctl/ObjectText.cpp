// Objects in columns, for the screen.

#include "tools/tamoctl/ObjectText.h"

#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TextCoding.h"
#include "values/ValueType.h"

#include <algorithm>
#include <array>
#include <vector>

namespace {

using Row = std::array<std::string, 4>; // name, type, flags, value

void addRows(std::vector<Row>& rows, const DBObject::Attributes& attributes)
{
    for (const auto& [name, attribute] : attributes)
        rows.push_back(
            {printable(name) +
                 (attribute.slot == Attribute::noSlot ? "" : " (slot " + std::to_string(attribute.slot) + ")"),
             typeName(attribute.type), flagsText(attribute), jsonValue(attribute.value)});
}

} // namespace

std::string objectText(const DBObject& object, const std::string& dn)
{
    std::string text = printable(dn) + "  (instance " + std::to_string(object.MOInstance) +
                       (object.isMOMObject ? ", MOM" : ", not MOM") + (object.system ? ", system)" : ")");
    std::vector<Row> rows;
    addRows(rows, object.attributes);
    addRows(rows, object.alternateAttributes);
    std::array<std::size_t, 3> widths{};
    for (const Row& row : rows)
        for (std::size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], screenWidth(row[column]));
    for (const Row& row : rows) {
        text += "\n  ";
        for (std::size_t column = 0; column < widths.size(); ++column)
            if (widths[column] > 0)
                text.append(row[column]).append(widths[column] + 2 - screenWidth(row[column]), ' ');
        text += row.back();
    }
    return text;
}

std::string flagsText(const Attribute& attribute)
{
    if (attribute.persistent && attribute.hidden)
        return "persistent hidden";
    return attribute.persistent ? "persistent" : attribute.hidden ? "hidden" : "";
}

std::string bareValueText(const Value& value)
{
    if (const auto* text = std::get_if<std::string>(&value))
        return *text;
    std::string json = jsonValue(value);
    if (json.starts_with('"')) // an infinity
        json = json.substr(1, json.size() - 2);
    return json;
}
