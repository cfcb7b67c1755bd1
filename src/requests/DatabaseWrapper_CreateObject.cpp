// The create-object request: an object with its struct members from a template file.

#include "requests/DatabaseWrapper.h"

#include "requests/OperationRecord.h"
#include "requests/Serve.h"

#include "platform/utility/DBObject.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>

using namespace TAMO::Messages;

namespace {

/// The whole text as a number, but for blanks and a sign in front; none when it is not one.
template <class Number>
std::optional<Number> wholeNumber(const std::string& text)
{
    std::size_t begin = text.find_first_not_of(" \t\r\n\f\v");
    if (begin == std::string::npos)
        return std::nullopt;
    if (text[begin] == '+' && begin + 1 < text.size() && text[begin + 1] != '-')
        ++begin;
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data() + begin, end, number);
    if (error != std::errc() || stopped != end)
        return std::nullopt;
    return number;
}

Attribute attributeWith(const std::string& name, Value value)
{
    return {false, name, std::move(value), 0, false, 0, true, false};
}

bool isOneOf(const std::string& type, std::initializer_list<const char*> names)
{
    return std::ranges::any_of(names, [&](const char* name) { return type == name; });
}

/// The value that a template's text stands for; none when it does not read as the type.
std::optional<Value> templateValue(const std::string& text, const std::string& type)
{
    if (type == "double") {
        const auto number = wholeNumber<double>(text);
        return number && !std::isnan(*number) ? std::optional<Value>(*number) : std::nullopt;
    }
    if (type == "boolean") {
        std::string upper = text;
        std::ranges::transform(upper, upper.begin(),
                               [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        if (upper == "TRUE" || upper == "1")
            return Value(std::int32_t{1});
        return upper == "FALSE" || upper == "0" ? std::optional<Value>(std::int32_t{0}) : std::nullopt;
    }
    const auto number = wholeNumber<long long>(text);
    if (!number)
        return std::nullopt;
    if (isOneOf(type, {"int", "long", "enum"}))
        return Value(static_cast<std::int32_t>(*number));
    return Value(static_cast<std::int16_t>(*number));
}

bool isKnown(const std::string& type)
{
    return isOneOf(type, {"int", "long", "enum", "unsigned char", "short", "unsigned short", "double", "boolean"});
}

/// Makes an attribute from a template entry and adds it; false when the object has one of that name.
bool addFromTemplate(DBObject& object, const std::string& name, const std::string& value, const std::string& type)
{
    if (!object.addAttribute(DatabaseWrapper::makeAttribute(name, value, type)))
        return false;
    LOG_DEBUG("DatabaseWrapper::Attribute created %s, %d, %s", object.dn.c_str(), object.MOInstance, name.c_str());
    return true;
}

} // namespace

Attribute DatabaseWrapper::makeAttribute(const std::string& name, const std::string& value, const std::string& type)
{
    LOG_DEBUG("DatabaseWrapper::makeAttribute type %s ", type.c_str());
    if (!isKnown(type)) {
        LOG_DEBUG("DatabaseWrapper::makeAttribute with type string, originally %s ", type.c_str());
        return attributeWith(name, value);
    }
    auto read = templateValue(value, type);
    return read ? attributeWith(name, std::move(*read)) : ConvertToDBString(name, value, type);
}

Attribute DatabaseWrapper::ConvertToDBString(const std::string& name, const std::string& value, const std::string& type)
{
    LOG_INFO("DatabaseWrapper::ConvertToDBString, making string attribute, originally type:%s !!!", type.c_str());
    return attributeWith(name, value);
}

void DatabaseWrapper::handleCreateObject(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleCreateObject NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("Database DatabaseWrapper::handleCreateObject transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("Database EDatabaseWrapper::handleCreateObject SendRsp NotSuccessful"); },
        .sent = [] { LOG_DEBUG("Database EDatabaseWrapper::handleCreateObject SendRsp Successful"); }};
    using Answer = TAMO_DBCreateObjectRsp;
    serve<TAMO_DBCreateObject, Answer>(raw, lines, [this](const TAMO_DBCreateObject& request, const Client& client) {
        OperationRecord record;
        record.operation = "Insert";
        const bool result = createObject(request.templateFile, request.dn, request.MOInstance, client.name, record);
        if (!result)
            record.logFailure();
        return std::optional<Answer>(std::in_place, result, request.transId);
    });
}

bool DatabaseWrapper::createObject(const std::string& file, const std::string& dn, std::int32_t MOInstance,
                                   const std::string& client, OperationRecord& record)
{
    if (dn.empty() || !m_template.read(file, dn))
        return false;
    record.about(dn, MOInstance);
    const bool result = insertTemplateObject(dn, MOInstance, client) && insertTemplateStructs(dn, client);
    m_template.clear();
    return result;
}

bool DatabaseWrapper::insertTemplateObject(const std::string& dn, std::int32_t MOInstance, const std::string& client)
{
    DBObject object(dn, MOInstance, true, false, 0, 1);
    for (const auto& [key, members] : m_template.structs) {
        const std::size_t at = key.find('=');
        const std::string structType = key.substr(0, at);
        const std::string attribute = key.substr(at + 1);
        object.addAttribute(makeAttribute(attribute, structType, "string"));
        LOG_DEBUG("DatabaseWrapper::parent %s, dn %s", structType.c_str(), attribute.c_str());
    }
    for (const auto& [name, entry] : m_template.plain)
        if (!addFromTemplate(object, name, entry.value, entry.type)) {
            LOG_ERROR(" failed to make dbAttribute  name: %s, value %s , type %s", name.c_str(), entry.value.c_str(),
                      entry.type.c_str());
            break;
        }
    return SQLite::getInstance().sql_insert(&object, false, client);
}

/// The result of the last insert made.
bool DatabaseWrapper::insertTemplateStructs(const std::string& dn, const std::string& client)
{
    bool result = true;
    for (const auto& [key, members] : m_template.structs) {
        DBObject object(key, 1, false, false, 0, 1, dn, 1);
        for (const ObjectTemplate::Member& member : members)
            if (!addFromTemplate(object, member.name, member.value, member.type)) {
                LOG_ERROR(" failed to make struct dbAttribute  name: %s, value %s , type %s", member.name.c_str(),
                          member.value.c_str(), member.type.c_str());
                break;
            }
        result = SQLite::getInstance().sql_insert(&object, false, client);
    }
    return result;
}
