// The services of the node by number.

#include "requests/Clients.h"

#include "values/ClientNames.h"

const char* clientName(std::int32_t node)
{
    return node >= 0 && node < static_cast<std::int32_t>(clientNames.size())
               ? clientNames[static_cast<std::size_t>(node)]
               : "Unknown client";
}
