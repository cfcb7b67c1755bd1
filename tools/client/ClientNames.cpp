// The names under which services appear in the database's log, for clients that act as one of them.

#include "tools/client/ClientNames.h"

#include "values/ClientNames.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <strings.h>

namespace {

/// Those that a client can be: number 0 is the database itself.
constexpr std::span clients = std::span(clientNames).subspan<1>();

} // namespace

std::optional<std::int32_t> clientNode(std::string_view nameOrNumber)
{
    const std::string asked(nameOrNumber);
    const auto named = std::find_if(clients.begin(), clients.end(),
                                    [&](const char* name) { return strcasecmp(name, asked.c_str()) == 0; });
    if (named != clients.end())
        return static_cast<std::int32_t>(named - clients.begin()) + 1;
    std::int32_t number = 0;
    const char* end = asked.data() + asked.size();
    const auto [read, error] = std::from_chars(asked.data(), end, number);
    if (error != std::errc() || read != end || number < 1)
        return std::nullopt;
    return number;
}

std::string clientNameList()
{
    std::string list;
    for (const char* name : clients)
        list.append(list.empty() ? "" : ", ").append(name);
    return list;
}
