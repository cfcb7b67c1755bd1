// tamoctl clients and subscriptions, against a node that answers what a test prepared.

#include "ServiceSocket.h"

#include "platform/host/MessageNode.h"
#include "platform/messages/Diagnostics.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

namespace {

using namespace TAMO::Messages;
using nlohmann::json;

class DiagnosticVerbs : public testing::Test {
protected:
    DiagnosticVerbs() : m_node({.directory = m_directory.path(), .name = "db", .id = 0})
    {
        m_node.setHandler([this](const std::shared_ptr<RawMessage>& raw) {
            TAMO_ListClients request; // both requests have the same fields
            EXPECT_TRUE(request.deserialize(raw.get()));
            clients.transId = subscriptions.transId = request.transId;
            if (raw->id == TAMO_ListClients::id)
                m_node.send(raw->sender, clients);
            else if (raw->id == TAMO_ListSubscriptions::id)
                m_node.send(raw->sender, subscriptions);
        });
        EXPECT_TRUE(m_node.start());
        clients.add({"web \x1b[2J", 11, 4711, 4294967294, 4194000, 16, 5000000000, 7, 12, 250});
        clients.add({"Näme", 100, 1, 0, 0, 0, 1, 0, 1, 7200000});
        subscriptions.add({"Cell=1,1,state,,", 3, {100, 12, 100}});
        subscriptions.add({",,,,2,1", 4, {}});
    }
    ~DiagnosticVerbs() override { m_node.stop(); }

    /// Runs tamoctl; what it writes to standard error comes after its output when `errors` is set.
    std::string run(const std::string& arguments, int expectedCode, bool errors = false) const
    {
        const std::string command = TAMOCTL " --timeout 5 --dir " + m_directory.path() + " " + arguments;
        FILE* const pipe = popen((command + (errors ? " 2>&1 >/dev/null" : " 2>/dev/null")).c_str(), "r");
        std::string output;
        std::array<char, 4096> part{};
        for (std::size_t got = 0; (got = std::fread(part.data(), 1, part.size(), pipe)) > 0;)
            output.append(part.data(), got);
        const int status = pclose(pipe);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == expectedCode) << arguments << ": " << status;
        return output;
    }

    TAMO_ListClientsRsp clients{true, 0};
    TAMO_ListSubscriptionsRsp subscriptions{true, 0};

private:
    SocketDirectory m_directory;
    TAMO::Framework::MessageNode m_node;
};

TEST_F(DiagnosticVerbs, ShowTablesThatATerminalSurvives)
{
    EXPECT_EQ(run("clients", 0),
              R"(name         node  pid   uid         queued   sent        dropped  received  unhandled  last activity
web \x1b[2J  11    4711  4294967294  4194000  5000000000  7        12        16         0.250 s ago
Näme         100   1     0           0        1           0        1         0          2 h ago
)");
    EXPECT_EQ(run("subscriptions", 0), R"(key               ticket  clients
Cell=1,1,state,,  3       Näme (100), node 12 (not connected), Näme (100)
,,,,2,1           4       -
)");
}

TEST_F(DiagnosticVerbs, WriteOneArrayOfJson)
{
    const json first = {{"name", "web \x1b[2J"},  {"node", 11},      {"pid", 4711},        {"uid", 4294967294},
                        {"queuedBytes", 4194000}, {"unhandled", 16}, {"sent", 5000000000}, {"dropped", 7},
                        {"received", 12},         {"idleMs", 250}};
    EXPECT_EQ(json::parse(run("clients --json", 0)).at(0), first);
    const json twice = {{"node", 100}, {"name", "Näme"}};
    const json unknown = {{"node", 12}, {"name", nullptr}};
    const json expected = {{{"key", "Cell=1,1,state,,"}, {"ticket", 3}, {"clients", {twice, unknown, twice}}},
                           {{"key", ",,,,2,1"}, {"ticket", 4}, {"clients", json::array()}}};
    EXPECT_EQ(json::parse(run("subscriptions --json", 0)), expected);
}

TEST_F(DiagnosticVerbs, FailForWhatTheServiceDidNotTell)
{
    clients.total = 5;
    EXPECT_EQ(json::parse(run("clients --json", 1)).size(), 2U); // what came is shown
    EXPECT_EQ(run("clients --json", 1, true), "tamoctl: 3 of 5 clients do not fit in the answer\n");
    subscriptions = TAMO_ListSubscriptionsRsp(false, 0);
    EXPECT_EQ(run("subscriptions", 1), "");
    EXPECT_NE(run("subscriptions", 1, true).find("could not list its subscriptions"), std::string::npos);
}

} // namespace
