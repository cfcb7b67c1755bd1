// The verbs that show whom the service serves: clients, subscriptions. A list too long for one answer
// is shown as far as it came, and the verb fails for what is missing.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/TextTable.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

namespace {

using namespace TAMO::Messages;

template <class Record, class ToJson>
void printArray(Context& context, const std::vector<Record>& records, ToJson toJson)
{
    std::string array = "[";
    for (const Record& record : records)
        array.append(array.size() > 1 ? "," : "").append(toJson(record));
    context.print(array + "]");
}

/// Said on standard error, also with --json: what is on standard output stays one array.
template <class Record>
void requireWhole(const ListingAnswer<Record>& answer, const char* what)
{
    const auto listed = static_cast<std::int64_t>(answer.records.size());
    if (answer.total <= listed)
        return;
    std::cerr << "tamoctl: " << answer.total - listed << " of " << answer.total << ' ' << what
              << " do not fit in the answer\n";
    throw AlreadyReported(ExitCode::refused);
}

std::string ago(std::int64_t milliseconds)
{
    char text[40];
    const auto seconds = static_cast<double>(milliseconds) / 1000;
    if (seconds < 120)
        std::snprintf(text, sizeof text, "%.3f s ago", seconds);
    else if (seconds < 7200)
        std::snprintf(text, sizeof text, "%.0f min ago", seconds / 60);
    else
        std::snprintf(text, sizeof text, "%.0f h ago", seconds / 3600);
    return text;
}

std::string jsonClient(const ClientRecord& client)
{
    const auto member = [](const char* name, std::int64_t number) {
        return ", \"" + std::string(name) + "\": " + std::to_string(number);
    };
    return "{\"name\": " + jsonText(client.name) + member("node", client.node) + member("pid", client.pid) +
           member("uid", client.uid) + member("queuedBytes", client.queuedBytes) +
           member("unhandled", client.unhandled) + member("sent", client.sent) + member("dropped", client.dropped) +
           member("received", client.received) + member("idleMs", client.idle) + "}";
}

void showClients(Context& context)
{
    const auto answer = context.database().clients();
    if (context.json()) {
        printArray(context, answer.records, jsonClient);
    } else {
        std::vector<Row> rows{
            {"name", "node", "pid", "uid", "queued", "sent", "dropped", "received", "unhandled", "last activity"}};
        for (const ClientRecord& client : answer.records)
            rows.push_back({printable(client.name), std::to_string(client.node), std::to_string(client.pid),
                            std::to_string(client.uid), std::to_string(client.queuedBytes), std::to_string(client.sent),
                            std::to_string(client.dropped), std::to_string(client.received),
                            std::to_string(client.unhandled), ago(client.idle)});
        printTable(context, rows);
    }
    requireWhole(answer, "clients");
}

/// The names of the nodes that are connected.
using Names = std::map<std::int32_t, std::string>;

std::string subscriberText(const SubscriptionRecord& subscription, const Names& names)
{
    std::string text;
    for (const std::int32_t node : subscription.clients) {
        const auto name = names.find(node);
        text += text.empty() ? "" : ", ";
        text += name == names.end() ? "node " + std::to_string(node) + " (not connected)"
                                    : printable(name->second) + " (" + std::to_string(node) + ")";
    }
    return text.empty() ? "-" : text;
}

std::string jsonSubscription(const SubscriptionRecord& subscription, const Names& names)
{
    std::string clients;
    for (const std::int32_t node : subscription.clients) {
        const auto name = names.find(node);
        clients.append(clients.empty() ? "" : ",").append("{\"node\": " + std::to_string(node) + ", \"name\": ");
        clients.append(name == names.end() ? "null" : jsonText(name->second)).append("}");
    }
    return "{\"key\": " + jsonText(subscription.key) + ", \"ticket\": " + std::to_string(subscription.ticket) +
           ", \"clients\": [" + clients + "]}";
}

void showSubscriptions(Context& context)
{
    const auto answer = context.database().subscriptions();
    Names names;
    for (const ClientRecord& client : context.database().clients().records)
        names[client.node] = client.name;
    if (context.json()) {
        printArray(context, answer.records,
                   [&names](const SubscriptionRecord& record) { return jsonSubscription(record, names); });
    } else {
        std::vector<Row> rows{{"key", "ticket", "clients"}};
        for (const SubscriptionRecord& subscription : answer.records)
            rows.push_back({printable(subscription.key), std::to_string(subscription.ticket),
                            subscriberText(subscription, names)});
        printTable(context, rows);
    }
    requireWhole(answer, "subscriptions");
}

} // namespace

void addDiagnosticVerbs(CLI::App& app, Action& chosen)
{
    app.add_subcommand("clients", "Show who is connected to the service")->callback([&chosen] {
        chosen = showClients;
    });
    app.add_subcommand("subscriptions", "Show which changes are told to whom: keys, tickets, clients")
        ->callback([&chosen] { chosen = showSubscriptions; });
}
