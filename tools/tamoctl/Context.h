#pragma once

#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

/// What was said before the verb.
struct GlobalOptions {
    std::string directory;            ///< of the sockets
    std::optional<std::int32_t> node; ///< whom to act as; none for the first free id
    double timeout = 10;              ///< seconds, for each request
    bool json = false;
};

/// What a verb works with: the connection, made when the first request needs it (so that a wrong
/// argument is told before a missing service), and the two ways of writing results.
class Context {
public:
    explicit Context(GlobalOptions options);
    ~Context();

    Database& database();
    /// The connection behind database().
    ServiceClient& client();
    const GlobalOptions& options() const { return m_options; }
    bool json() const { return m_options.json; }

    /// A line on standard output. Throws a Failure when it cannot be written.
    void print(const std::string& line);
    /// The result of a write: {"success": true} with JSON, otherwise the text. `members` are further
    /// JSON members, such as "\"imported\": 3". Nothing inside a transaction, where a write is only
    /// queued.
    void printDone(const std::string& text, const std::string& members = {});

private:
    GlobalOptions m_options;
    std::unique_ptr<ServiceClient> m_client;
    std::unique_ptr<Database> m_database;
};

/// A verb with its arguments read. Ends normally or with an exception (see failureOf).
using Action = std::function<void(Context&)>;
