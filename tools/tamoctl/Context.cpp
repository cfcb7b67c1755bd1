// The late connection and the output of verbs.

#include "tools/tamoctl/Context.h"

#include "tools/tamoctl/Failure.h"

#include <iostream>

Context::Context(GlobalOptions options) : m_options(std::move(options)) {}

Context::~Context() = default;

Database& Context::database()
{
    if (!m_database) {
        const std::chrono::duration<double> seconds(m_options.timeout);
        m_client = std::make_unique<ServiceClient>(ServiceClient::Options{
            m_options.directory, "tamoctl", m_options.node, std::chrono::ceil<std::chrono::milliseconds>(seconds)});
        m_database = std::make_unique<Database>(*m_client);
    }
    return *m_database;
}

ServiceClient& Context::client()
{
    database();
    return *m_client;
}

void Context::print(const std::string& line)
{
    if (!(std::cout << line << '\n'))
        throw Failure(ExitCode::usage, "standard output cannot be written");
}

void Context::printDone(const std::string& text, const std::string& members)
{
    if (m_database && m_database->inTransaction())
        return;
    if (json())
        print(R"({"success": true)" + (members.empty() ? "" : ", " + members) + "}");
    else
        print(text);
}
