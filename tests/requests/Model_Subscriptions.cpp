// What the model's clients are told, and who they are: changes folded from a plain list, keys compared
// as texts.

#include "tests/requests/Model.h"

#include "values/ValueType.h"

#include <algorithm>
#include <iterator>
#include <span>

using namespace TAMO::Messages;

namespace {

/// The items of one object that are told of, by attribute with the object first: each once, with what
/// the first and the last of its changes come to.
std::vector<ModelChange> folded(std::span<const ModelChange> changes)
{
    std::map<std::string, std::vector<ModelChange>> byAttribute;
    for (const ModelChange& change : changes)
        byAttribute[change.attribute.name].push_back(change);
    std::vector<ModelChange> told;
    for (const auto& [name, run] : byAttribute) {
        const std::int32_t from = run.front().operation;
        ModelChange result = run.back();
        if (from == inserted && result.operation == deleted) {
            if (result.ofObject())
                return told;
            continue;
        }
        if (from == deleted && result.operation == deleted)
            result = run.front();
        else if (from == inserted && result.operation != deleted)
            result.operation = inserted;
        else if (result.operation != deleted)
            result.operation = updated;
        told.push_back(result);
    }
    return told;
}

/// What is told of one object: up to its deletion, and from its creation after that.
std::vector<ModelChange> toldOf(std::span<const ModelChange> changes)
{
    std::int32_t last = 0;
    std::size_t second = 0;
    for (; second < changes.size() && !(changes[second].ofObject() && last == deleted); ++second)
        if (changes[second].ofObject())
            last = changes[second].operation;
    std::vector<ModelChange> told = folded(changes.first(second));
    const std::vector<ModelChange> rest = folded(changes.subspan(second));
    if (!rest.empty() && rest.front().operation != deleted)
        told.insert(told.end(), rest.begin(), rest.end());
    return told;
}

std::string keyOf(const SubscriptionRequest& request)
{
    const auto positive = [](std::int32_t number) { return number > 0 ? std::to_string(number) : ""; };
    const std::string key = request.notificationForAll > 0
                                ? ",,,," + positive(request.notificationForAll)
                                : request.dn + "," + positive(request.MOInstance) + "," + request.attributeName + "," +
                                      positive(request.operation) + ",";
    return request.withAlternate > 0 ? key + "," + positive(request.withAlternate) : key;
}

} // namespace

void Model::tellOf(const std::vector<ModelChange>& changes)
{
    std::map<std::string, std::vector<ModelChange>> byObject;
    for (const ModelChange& change : changes)
        byObject[change.wholeDn].push_back(change);
    std::vector<ModelChange> told;
    for (const auto& [dn, ofOne] : byObject)
        std::ranges::copy(toldOf(ofOne), std::back_inserter(told));
    std::vector<ModelChange> attributes;
    std::int32_t operation = 0;
    for (std::size_t i = 0; i < told.size(); ++i) {
        const ModelChange& change = told[i];
        const bool turns = change.ofObject() && operation != 0 && change.operation != operation;
        if (i > 0 && (turns || change.wholeDn != told[i - 1].wholeDn))
            tellObject(std::exchange(attributes, {}), told[i - 1], operation);
        if (change.ofObject())
            operation = change.operation;
        else
            attributes.push_back(change);
        tellItem(change);
    }
    if (!told.empty())
        tellObject(attributes, told.back(), operation);
}

void Model::tellObject(const std::vector<ModelChange>& attributes, const ModelChange& last, std::int32_t operation)
{
    const std::string moClass = classOf(last.dn);
    if (attributes.empty() || operation == 0 || moClass == "EventType" || moClass == "EventGroup")
        return;
    std::string text = "{" + std::to_string(operation) + "/" + std::to_string(attributes.back().operation) + " " +
                       last.dn + " " + last.wholeDn + ": ";
    for (const ModelChange& change : attributes)
        text += change.attribute.name + "=" + valueText(change.attribute.value) + ":" +
                std::to_string(change.attribute.type) + (change.attribute.hidden ? "h(" : "(") +
                std::to_string(change.operation) + ") ";
    for (const char* const key : {",,,,1", last.mom ? ",,,,2" : ",,,,3", ",,,,1,1", last.mom ? ",,,,2,1" : ",,,,3,1"})
        tell(key, text + "}");
}

void Model::tellItem(const ModelChange& change)
{
    const std::string instance = "," + std::to_string(change.instance) + ",";
    std::vector<std::string> keys{classOf(change.dn) + ",,,,", change.dn + ",,,,", change.dn + instance + ",,",
                                  change.wholeDn + ",,,,", change.wholeDn + instance + ",,"};
    std::string text = std::to_string(change.operation) + " " + change.dn + " " + change.wholeDn + " ";
    if (!change.ofObject()) {
        const std::string of = instance + change.attribute.name + ",";
        const std::string with = of + std::to_string(change.operation);
        for (const std::string& rest : {of + ",", with + ","})
            keys.insert(keys.end(), {change.dn + rest, change.wholeDn + rest});
        text += change.attribute.name + "=" + valueText(change.attribute.value) + ":" +
                std::to_string(change.attribute.type);
    }
    for (const char* const end : {"", ",1"})
        for (const std::string& key : once(keys))
            tell(key + end, text);
}

void Model::tell(const std::string& key, const std::string& text)
{
    const auto found = m_tickets.find(key);
    if (found == m_tickets.end())
        return;
    for (const auto& [ticket, client] : m_subscribers)
        if (ticket == found->second)
            expected[client].push_back(std::to_string(ticket) + ":" + text);
}

void Model::subscribe(Asker by, const SubscriptionRequest& request)
{
    const auto next = static_cast<std::int32_t>(m_tickets.size()) + 1;
    const std::int32_t ticket = m_tickets.try_emplace(keyOf(request), next).first->second;
    m_subscribers.emplace_back(ticket, by.node);
    answer(by, "ticket " + std::to_string(ticket));
}

void Model::unsubscribe(Asker by, const SubscriptionRequest& request, std::int32_t ticket)
{
    const auto known = m_tickets.find(keyOf(request));
    if (ticket == -1 && known != m_tickets.end())
        ticket = known->second;
    const auto entry = std::ranges::find(m_subscribers, std::pair(ticket, by.node));
    const bool done = entry != m_subscribers.end();
    if (done)
        m_subscribers.erase(entry);
    answer(by, (done ? "yes, ticket " : "no, ticket ") + std::to_string(ticket));
}

void Model::unsubscribeAll(Asker by)
{
    std::erase_if(m_subscribers, [&](const auto& entry) { return entry.second == by.node; });
    answer(by, "yes");
}
