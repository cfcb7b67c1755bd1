// Notifications to lines. Which of the three kinds one is, an item, a whole object or a transaction,
// tells the key it was subscribed with.

#include "tools/tamoctl/NotificationText.h"

#include "platform/messages/Requests.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TextCoding.h"

#include <cstdio>
#include <ctime>

using namespace TAMO::Messages;

namespace {

std::string timeText(std::chrono::system_clock::time_point at, bool utc)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(at);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(whole);
    std::tm parts{};
    utc ? ::gmtime_r(&seconds, &parts) : ::localtime_r(&seconds, &parts);
    char date[40];
    char text[48];
    std::strftime(date, sizeof date, utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(at - whole).count();
    std::snprintf(text, sizeof text, utc ? "%s.%03dZ" : "%s.%03d", date, static_cast<int>(milliseconds));
    return text;
}

std::string changeName(std::int32_t operation)
{
    switch (operation) {
    case changeInsert:
        return "insert";
    case changeUpdate:
        return "update";
    case changeDelete:
        return "delete";
    default:
        return "operation " + std::to_string(operation);
    }
}

/// Operations of a client's transaction have codes of their own; those of a report have a change's.
std::string requestName(std::int32_t operation)
{
    switch (operation) {
    case operationInsert:
        return "insert";
    case operationInsertToCommonDb:
        return "insert into common";
    case operationUpdate:
        return "update";
    case operationDelete:
        return "delete";
    default:
        return changeName(operation);
    }
}

const std::string& nameOf(const TAMO_DBNotification& message)
{
    return message.wholeDn.empty() ? message.dn : message.wholeDn;
}

/// Each attribute that changed; how, where that is not how the object itself changed.
std::string objectText(const TAMO_DBNotification& message)
{
    std::string text = changeName(message.objectOperation) + " " + printable(nameOf(message));
    for (const attrNameValuePair& pair : message.attributeList) {
        text += (&pair == &message.attributeList.front() ? " " : ", ") + printable(pair.name) + " = " +
                jsonValue(pair.value);
        if (pair.operation != message.objectOperation)
            text += " (" + changeName(pair.operation) + ")";
        if (pair.storageKind == 1)
            text += " (parked)";
    }
    return text;
}

std::string itemText(const TAMO_DBNotification& message)
{
    std::string text = changeName(message.objectOperation) + " " + printable(nameOf(message));
    if (!message.attributeName.empty())
        text += " " + printable(message.attributeName) + " = " + jsonValue(message.value);
    return text;
}

std::string transactionText(const TAMO_DBTransactionNotifData& data)
{
    std::string text = "transaction";
    for (const auto& entry : data.entries) {
        text +=
            (&entry == &data.entries.front() ? " " : "; ") + requestName(entry.operation) + " " + printable(entry.dn);
        for (const std::string& attribute : entry.attributes)
            text += (&attribute == &entry.attributes.front() ? " (" : ", ") + printable(attribute);
        text += entry.attributes.empty() ? "" : ")";
    }
    return text;
}

/// Writes the members of JSON objects in order.
class JsonLine {
public:
    JsonLine& member(const char* name, const std::string& json)
    {
        m_text.append(m_text.size() > 1 ? ", \"" : "\"").append(name).append("\": ").append(json);
        return *this;
    }
    JsonLine& member(const char* name, std::int32_t number) { return member(name, std::to_string(number)); }
    JsonLine& flag(const char* name, bool value) { return member(name, std::string(value ? "true" : "false")); }
    JsonLine& text(const char* name, const std::string& value) { return member(name, jsonText(value)); }
    std::string done() const { return m_text + "}"; }

private:
    std::string m_text = "{";
};

template <class Items, class ToJson>
std::string jsonList(const Items& items, ToJson toJson)
{
    std::string list = "[";
    for (const auto& item : items)
        list.append(list.size() > 1 ? ", " : "").append(toJson(item));
    return list + "]";
}

std::string pairJson(const attrNameValuePair& pair)
{
    return JsonLine()
        .text("name", pair.name)
        .member("value", jsonValue(pair.value))
        .member("valueType", pair.valueType)
        .member("operation", pair.operation)
        .member("storageKind", pair.storageKind)
        .flag("hidden", pair.hidden)
        .done();
}

std::string entryJson(const TAMO_DBTransactionNotifData::Entry& entry)
{
    return JsonLine()
        .text("dn", entry.dn)
        .member("attributes", jsonList(entry.attributes, jsonText))
        .member("operation", entry.operation)
        .flag("sameAsPrevious", entry.sameAsPrevious)
        .done();
}

} // namespace

std::string notificationText(const Told& told)
{
    const std::string what = told.key.transactions ? transactionText(told.message.transaction)
                             : told.key.forAll > 0 ? objectText(told.message)
                                                   : itemText(told.message);
    return timeText(told.at, false) + " " + what;
}

std::string notificationJson(const Told& told)
{
    const TAMO_DBNotification& message = told.message;
    return JsonLine()
        .text("time", timeText(told.at, true))
        .text("key", told.key.text())
        .member("ticket", message.ticket)
        .text("dn", message.dn)
        .text("wholeDn", message.wholeDn)
        .text("attribute", message.attributeName)
        .member("value", jsonValue(message.value))
        .member("valueType", message.valueType)
        .member("attributeOperation", message.attributeOperation)
        .member("objectOperation", message.objectOperation)
        .member("list", jsonList(message.attributeList, pairJson))
        .member("transaction", jsonList(message.transaction.entries, entryJson))
        .done();
}
