// From exceptions to failures, and from failures to the operator.

#include "tools/tamoctl/Failure.h"

#include "tools/client/ServiceClient.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TextCoding.h"

#include <iostream>

Failure failureOf(const std::exception& error)
{
    if (const auto* failure = dynamic_cast<const Failure*>(&error))
        return *failure;
    if (const auto* client = dynamic_cast<const ClientError*>(&error))
        return {exitCodeOf(client->kind), client->what()};
    return {ExitCode::usage, error.what()};
}

void reportFailure(const Failure& failure, bool json)
{
    const std::string text = printable(failure.what());
    if (json)
        std::cout << "{\"error\": " << jsonText(text) << ", \"code\": " << static_cast<int>(failure.code) << "}\n";
    else
        std::cerr << "tamoctl: " << text << '\n';
}
