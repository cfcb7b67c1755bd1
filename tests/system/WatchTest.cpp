// Changes on their way from one client through the service to another, as operators see them, and
// what dies on that way.
#include "Process.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sstream>

using nlohmann::json;

namespace {

constexpr const char* root = "ManagedElement=1";

/// A watch on every whole object and every transaction.
class Watch {
public:
    explicit Watch(const Node& node)
        : m_process(
              {program("tamoctl"), "--dir", node.path("run"), "watch", "--all", "every", "--transactions", "--json"})
    {
        EXPECT_TRUE(eventually([this] { return m_process.error().find("TRANSACTIONS") != std::string::npos; }));
    }

    std::vector<json> told() const
    {
        std::vector<json> messages;
        std::istringstream lines(m_process.output());
        for (std::string line; std::getline(lines, line);)
            messages.push_back(json::parse(line));
        return messages;
    }
    bool isTold(std::size_t count) const
    {
        return eventually([&] { return std::ranges::count(m_process.output(), '\n') >= static_cast<long>(count); });
    }
    Process& process() { return m_process; }

private:
    Process m_process;
};

} // namespace

TEST(Watching, TransactionIsToldAsOneAndAnAbortedOneNotAtAll)
{
    const Node node;
    ASSERT_EQ(node.client({"insert", root}).code, 0);
    Watch watch(node);
    const auto together = node.client({"transaction", "--", "set", root, "userLabel=one", "--", "insert",
                                       std::string(root) + ",Cell=1", "power:INT32=5"});
    ASSERT_EQ(together.code, 0) << together.error;
    const auto refused =
        node.client({"transaction", "--", "set", root, "userLabel=lost", "--", "delete", std::string(root) + ",No=1"});
    EXPECT_EQ(refused.code, 3);
    ASSERT_EQ(node.client({"set", root, "userLabel=two"}).code, 0);
    ASSERT_TRUE(watch.isTold(4));
    const auto told = watch.told();
    ASSERT_EQ(told.size(), 4U);
    EXPECT_EQ(told[0]["wholeDn"].get<std::string>() + told[0]["dn"].get<std::string>(), root);
    EXPECT_EQ(told[0]["list"][0]["value"], "one");
    EXPECT_EQ(told[1]["wholeDn"], std::string(root) + ",Cell=1");
    EXPECT_EQ(told[1]["objectOperation"], 18);
    EXPECT_EQ(told[1]["list"][0]["value"], 5);
    ASSERT_EQ(told[2]["transaction"].size(), 2U);
    EXPECT_EQ(told[2]["transaction"][0]["dn"], root);
    EXPECT_EQ(told[3]["list"][0]["value"], "two") << "nothing of the refused one";
    watch.process().signal(SIGTERM);
    EXPECT_EQ(watch.process().wait(), 0);
}

TEST(Watching, WatcherThatDiesOrStopsReadingHoldsNobodyUp)
{
    const Node node;
    ASSERT_EQ(node.client({"insert", root}).code, 0);
    Watch killed(node);
    Watch stopped(node);
    Watch reading(node);
    killed.process().signal(SIGKILL);
    stopped.process().signal(SIGSTOP);
    constexpr std::size_t changes = 120;
    std::string script;
    for (std::size_t i = 0; i < changes; ++i)
        script += "set " + std::string(root) + " long=" + std::string(100000, 'x') + std::to_string(i) + "\n";
    const auto written = node.client({"batch", "-"}, script);
    EXPECT_EQ(written.code, 0) << written.error;
    EXPECT_TRUE(reading.isTold(changes));
    stopped.process().signal(SIGCONT);
    EXPECT_EQ(stopped.process().wait(), 6) << "it missed some, and says so: " << stopped.process().error();
    EXPECT_EQ(node.client({"get", root, "long"}).code, 0);
    reading.process().signal(SIGINT);
    EXPECT_EQ(reading.process().wait(), 0);
    const auto left = json::parse(node.client({"--json", "subscriptions"}).output);
    for (const json& subscription : left)
        for (const json& client : subscription.at("clients"))
            EXPECT_LE(client.at("node"), 100) << "only the killed one's are left: " << left.dump();
}

TEST(Watching, ReportOfTheAgentIsToldLikeACommit)
{
    const Node node;
    ASSERT_EQ(node.client({"insert", root, "reservedBy="}).code, 0);
    Watch watch(node);
    const json good = {{"objects",
                        {{{"dn", std::string(root) + ",Cell=1"},
                          {"operation", "U"},
                          {"attributes",
                           {{{"name", "power"}, {"type", 3}, {"value", "-5"}, {"hidden", true}},
                            {{"name", "ref"}, {"type", "reference"}, {"value", root}},
                            {{"name", "label"}, {"value", "größer"}}}}},
                         {{"dn", std::string(root) + ",Cell=2"}, {"operation", "D"}}}}};
    writeFile(node.path("report.json"), good.dump(1));
    const auto sent = node.verb("report", {node.path("report.json")});
    ASSERT_EQ(sent.code, 0) << sent.error;
    EXPECT_EQ(node.client({"get", root, "reservedBy"}).output, std::string(root) + ",Cell=1\n")
        << "handled when the verb returns";
    ASSERT_TRUE(watch.isTold(4));
    const auto told = watch.told();
    ASSERT_EQ(told.size(), 4U);
    EXPECT_EQ(told[0]["list"][0]["name"], "reservedBy");
    EXPECT_EQ(told[1]["wholeDn"], std::string(root) + ",Cell=1");
    EXPECT_EQ(told[1]["list"][0]["value"], -5);
    EXPECT_EQ(told[1]["list"][2]["value"], "größer");
    EXPECT_EQ(told[2]["objectOperation"], 9);
    EXPECT_EQ(told[3]["transaction"].size(), 2U);

    json wrongLetter = good;
    wrongLetter["objects"][1]["operation"] = "DD";
    json wrongType = good;
    wrongType["objects"][0]["attributes"][1]["type"] = "INT33";
    const std::pair<std::string, const char*> wrong[] = {
        {wrongLetter.dump(), "objects[1]: \"operation\" is not one letter"},
        {wrongType.dump(), "objects[0].attributes[1]: \"type\" is no value-type code"},
        {"{\"objects\":\n [}", "at line 2, column 3"},
        {R"({"objects": [], "objects": []})", "standard input: the key \"objects\" occurs twice"},
        {R"({"objects": [{}, {"attributes": [{}, {"name": "a", "name": "b"}]}]})",
         "standard input: objects[1].attributes[1]: the key \"name\" occurs twice"},
        {R"({"objects": [{"dn": "A=1", "operation": "U", "atributes": []}]})", "objects[0]: unknown key"},
        {std::string(1000000, '['), "nested too deeply"},
        {R"({"objects": [{"dn": ")" + std::string(1100000, 'x') + R"(", "operation": "U"}]})", "more than a frame"},
        {"", "standard input: "},
    };
    for (const auto& [text, expected] : wrong) {
        const auto refused = run({program("tamo_node"), "report", node.path(), "-"}, {}, text);
        EXPECT_EQ(refused.code, 2) << text.substr(0, 100);
        EXPECT_NE(refused.error.find(expected), std::string::npos) << refused.error;
    }

    EXPECT_EQ(node.verb("set", {"mo_access=2"}).code, 2);
    ASSERT_EQ(node.verb("set", {"mo_access=0"}).code, 0);
    EXPECT_EQ(node.status("mo_access"), "0");
    ASSERT_EQ(node.verb("reset").code, 0);
    EXPECT_NE(readFile(node.path("log")).find("MOAccess error: [the management agent refuses subscriptions]"),
              std::string::npos);
    Watch deaf(node);
    EXPECT_EQ(node.verb("report", {node.path("report.json")}).code, 0);
    ASSERT_EQ(node.client({"insert", "Later=1", "a=x"}).code, 0);
    ASSERT_TRUE(deaf.isTold(1));
    EXPECT_EQ(deaf.told()[0]["dn"], "Later=1") << "nothing of the report";
    ASSERT_EQ(node.verb("down").code, 0);
    EXPECT_EQ(node.verb("report", {node.path("report.json")}).code, 1) << "nobody there";
}
