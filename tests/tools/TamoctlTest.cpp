// The tamoctl binary: its exit codes, its output, and what it does with a tree.

#include "TamoctlRun.h"
#include "TreeService.h"

#include "platform/messages/Answers.h"
#include "platform/messages/Notifications.h"
#include "tools/client/Database.h"
#include "values/ValueType.h"

#include <nlohmann/json.hpp>
#include <sstream>

namespace {

constexpr const char* tree =
    R"({"dn":"ManagedElement=1","attributes":{"userLabel":{"type":"string","value":"a","persistent":true}}}
{"dn":"ManagedElement=1,Cell=10"}

{"dn":"ManagedElement=1,Cell=2","system":true,"attributes":{"id":{"type":"UINT64","value":18446744073709551615}}}
{"dn":"ManagedElement=1,Cell=2,Part:x=1","isMOMObject":false,"attributes":{"raw":{"type":"text","value":{"base64":"/w=="}}}}
)";

} // namespace

TEST_F(Tamoctl, ExitCodesTellWhatWentWrong)
{
    for (const char* usage :
         {"", "nosuch", "get", "get A=1 a b", "get A=1,", "insert A=1 x:INT8=300", "set A=1", "insert A=1 x",
          "insert A=1 x=1 --persistent y", "insert A=1 x=1 x=2", "ping -n 0", "--timeout 0 ready", "--timeout x ready",
          "--as Nobody ready", "import /nonexistent", "import .", "batch /nonexistent"}) {
        const Result result = run(usage);
        EXPECT_EQ(result.code, 2) << usage;
        EXPECT_TRUE(isOneLine(result.error)) << result.error;
        EXPECT_EQ(result.output, "");
        const Result json = run(std::string(usage) + " --json");
        EXPECT_EQ(json.code, 2) << usage;
        EXPECT_EQ(nlohmann::json::parse(json.output).at("code"), 2) << usage;
    }
    for (const char* help : {"--help", "get --help", "--version"})
        EXPECT_EQ(run(help).code, 0) << help;
    EXPECT_EQ(run("ready").code, 4);
    EXPECT_NE(run("get A=1").error.find(directory.path()), std::string::npos);
    const ServiceSocket silent(directory.path(), [](RawPeer& peer) {
        peer.greet();
        TAMO::Wire::FrameHeader header;
        while (!peer.read(header).empty()) {
        }
    });
    const Result timeout = run("--timeout 0.2 --json exists A=1");
    EXPECT_EQ(timeout.code, 5);
    EXPECT_EQ(nlohmann::json::parse(timeout.output).at("code"), 5);
}

TEST_F(Tamoctl, ImportedTreeIsExportedTheSameForEver)
{
    const TreeService service(directory.path());
    const Result imported = run("import - --json", tree);
    EXPECT_EQ(imported.output, "{\"success\": true, \"imported\": 4}\n") << imported.error;
    const Result first = run("export");
    EXPECT_EQ(first.code, 0) << first.error;
    EXPECT_EQ(run("import -", first.output).code, 0);
    EXPECT_EQ(run("export").output, first.output);
    std::istringstream lines(first.output);
    std::vector<std::string> dns;
    for (std::string line; std::getline(lines, line);)
        dns.push_back(nlohmann::json::parse(line).at("dn"));
    EXPECT_EQ(dns, (std::vector<std::string>{"ManagedElement=1", "ManagedElement=1,Cell=2",
                                             "ManagedElement=1,Cell=2,Part:x=1", "ManagedElement=1,Cell=10"}));
    EXPECT_NE(first.output.find("18446744073709551615"), std::string::npos);
    EXPECT_NE(first.output.find(R"({"base64":"/w=="})"), std::string::npos);
    EXPECT_EQ(run("export ManagedElement=9").code, 3);
    EXPECT_NE(run("tree").output.find("└─ Cell=10\n\n4 objects, 3 attributes\n"), std::string::npos);
}

TEST_F(Tamoctl, ImportStopsAtTheLineThatIsWrong)
{
    TreeService service(directory.path());
    service.refuse("ManagedElement=1,Cell=2");
    const std::pair<std::string, int> third[] = {
        {"{\"dn\": 1}", 2}, {R"({"dn":"ManagedElement=1,Cell=2"})", 1}, {R"({"dn":"ManagedElement=7,Cell=1"})", 3}};
    for (const auto& [line, code] : third) {
        const Result result = run("import -", "{\"dn\":\"ManagedElement=1\"}\n\n" + line + "\n{\"dn\":\"Later=1\"}\n");
        EXPECT_EQ(result.code, code) << line;
        EXPECT_TRUE(isOneLine(result.error));
        EXPECT_NE(result.error.find("line 3: "), std::string::npos) << result.error;
        EXPECT_NE(result.error.find("1 imported"), std::string::npos) << result.error;
        EXPECT_EQ(service.object("Later=1"), nullptr);
    }
}

TEST_F(Tamoctl, SetKeepsTypesAndFlagsInOneRequest)
{
    TreeService service(directory.path());
    ASSERT_EQ(run("insert A=1 a:UINT16=1 b=x c:boolean=true --persistent a --hidden a --not-mom --system").code, 0);
    const Result set = run("set A=1 a=65535 b=3 d:INT64=-1 e=new");
    EXPECT_EQ(set.code, 0) << set.error;
    EXPECT_EQ(service.updates(), 1);
    const auto object = service.object("A=1");
    ASSERT_NE(object, nullptr);
    EXPECT_TRUE(object->system);
    EXPECT_FALSE(object->isMOMObject);
    EXPECT_EQ(object->getAttribute("a")->value, Value(std::uint16_t{65535}));
    EXPECT_TRUE(object->getAttribute("a")->persistent && object->getAttribute("a")->hidden);
    EXPECT_EQ(object->getAttribute("b")->value, Value(std::string("3")));
    EXPECT_EQ(object->getAttribute("d")->value, Value(std::int64_t{-1}));
    EXPECT_EQ(object->getAttribute("e")->type, IPCData::STRING);
    EXPECT_EQ(run("set A=1 b=4 a=65536").code, 2);
    EXPECT_EQ(run("set A=2 b=4").code, 3);
    EXPECT_EQ(service.updates(), 1);
    service.refuse("A=1");
    EXPECT_EQ(run("set A=1 b=4").code, 1);
}

TEST_F(Tamoctl, SlotsParkValuesOrSayThatTheyDidNot)
{
    TreeService service(directory.path());
    EXPECT_EQ(run("insert A=1 a:INT16=1 --persistent a").code, 0);
    const Result early = run("set A=1 a=2 --slot 3 --json");
    EXPECT_EQ(early.output, "{\"success\": true, \"parked\": false}\n") << early.error;
    EXPECT_EQ(service.object("A=1")->getAttribute("a")->value, Value(std::int16_t{2}));
    service.park();
    EXPECT_EQ(run("set A=1 a=5 --slot 3").output, "updated A=1; parked in slot 3\n");
    EXPECT_EQ(run("insert A=2 b:boolean=true --slot 0").output, "inserted A=2; parked in slot 0\n");
    const auto object = service.object("A=1");
    EXPECT_EQ(object->getAttribute("a")->value, Value(std::int16_t{2}));
    const Attribute* const parked = object->getAlternateAttribute("a"); // type and flag are the live one's
    ASSERT_NE(parked, nullptr);
    EXPECT_EQ(parked->value, Value(std::int16_t{5}));
    EXPECT_TRUE(parked->persistent);
    EXPECT_EQ(nlohmann::json::parse(run("get A=1 --json").output)["alternateAttributes"]["a"]["slot"], 3);
    EXPECT_NE(run("get A=2").output.find("b (slot 0)"), std::string::npos);
    for (const char* usage : {"set A=1 a=1 --slot -1", "insert A=3 --slot 2147483648", "set A=1 a=1 --slot x"})
        EXPECT_EQ(run(usage).code, 2) << usage;
}

TEST_F(Tamoctl, OrphansAreRefusedAndAbsentObjectsToldApartFromRefusedOnes)
{
    TreeService service(directory.path());
    EXPECT_EQ(run("insert ManagedElement=1,Cell=1").code, 3);
    EXPECT_EQ(service.object("ManagedElement=1,Cell=1"), nullptr);
    EXPECT_EQ(run("insert ManagedElement=1").code, 0);
    EXPECT_EQ(run("insert 'ManagedElement=1,\"Cell=a,b\"' --json").output, "{\"success\": true}\n");
    EXPECT_EQ(run("exists ManagedElement=1").output, "true\n");
    EXPECT_EQ(run("exists ManagedElement=2").code, 3);
    EXPECT_EQ(run("get ManagedElement=2").code, 3);
    EXPECT_EQ(run("children ManagedElement=2").code, 3);
    EXPECT_EQ(run("delete ManagedElement=2").code, 3);
    service.refuse("ManagedElement=1");
    EXPECT_EQ(run("delete ManagedElement=1").code, 1);
}

TEST_F(Tamoctl, BatchRunsLinesAndStopsAtTheFirstThatFails)
{
    TreeService service(directory.path());
    const std::string script = "insert A=1 'text=two words' # first\n\n# only a comment\nexists A=1\n"
                               "get A=9\ninsert A=2\n";
    const Result stopped = run("batch -", script);
    EXPECT_EQ(stopped.code, 3);
    EXPECT_EQ(stopped.output, "inserted A=1\ntrue\n");
    EXPECT_NE(stopped.error.find("line 5"), std::string::npos) << stopped.error;
    EXPECT_EQ(service.object("A=2"), nullptr);
    EXPECT_EQ(service.object("A=1")->getAttribute("text")->value, Value(std::string("two words")));
    EXPECT_EQ(run("batch --keep-going -", script).code, 3);
    EXPECT_NE(service.object("A=2"), nullptr);
    EXPECT_EQ(run("batch -", "batch -\n").code, 2);
    EXPECT_EQ(run("batch -", "get 'A=1\n").code, 2);
}

TEST_F(Tamoctl, TransactionCommitsAllOrNothingAndNamesTheLineThatFailed)
{
    using namespace TAMO::Messages;
    TreeService service(directory.path());
    const Result committed = run("transaction -", "insert A=1 x=1\n# more\ninsert A=1,B=1\nset A=1 x=2 y=3\n"
                                                  "get A=1 x\nexists A=1,B=1\n");
    EXPECT_EQ(committed.output, "2\ntrue\ncommitted 5 commands\n") << committed.error;
    EXPECT_EQ(service.object("A=1")->getAttribute("x")->value, Value(std::string("2")));
    const std::pair<const char*, int> wrong[] = {{"set A=9 x=1", 3},         {"insert A=2,B=1", 3}, {"exists A=9", 3},
                                                 {"insert A=2 x:INT8=a", 2}, {"watch X", 2},        {"get 'A=1", 2},
                                                 {"transaction -", 2}};
    for (const auto& [line, code] : wrong) {
        const Result result = run("transaction -", "insert A=3\n\n" + std::string(line) + "\ninsert A=4\n");
        EXPECT_EQ(result.code, code) << line;
        EXPECT_TRUE(isOneLine(result.error)) << result.error;
        EXPECT_NE(result.error.find("line 3: "), std::string::npos) << result.error;
        EXPECT_EQ(service.transactionActions().back(), transactionAbort) << line;
        EXPECT_EQ(service.object("A=3"), nullptr);
    }
    service.refuse("A=5");
    const Result refused = run("transaction -- insert A=3 -- insert A=5");
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.error.find("refused to commit"), std::string::npos) << refused.error;
    EXPECT_EQ(service.object("A=3"), nullptr);
}

TEST_F(Tamoctl, TransactionOnOneLineRehearsalAndIdLeftOpen)
{
    TreeService service(directory.path());
    EXPECT_EQ(run("transaction --json -- insert A=1 x=1 -- delete A=1 -- insert A=2 'y=- -'").output,
              "{\"success\": true, \"committed\": 3}\n");
    EXPECT_EQ(service.object("A=1"), nullptr);
    EXPECT_NE(service.object("A=2"), nullptr);
    EXPECT_EQ(run("transaction --abort -- delete A=2").code, 0);
    EXPECT_NE(service.object("A=2"), nullptr);
    const auto before = service.transactionActions().size();
    const Result misspelt = run("transaction -- insert A=3 -- inset A=4");
    EXPECT_EQ(misspelt.code, 2);
    EXPECT_NE(misspelt.error.find("command 2: "), std::string::npos) << misspelt.error;
    for (const char* usage : {"transaction", "transaction --", "transaction - -- get A=2", "transaction -- get A=2 --"})
        EXPECT_EQ(run(usage).code, 2) << usage;
    EXPECT_EQ(service.transactionActions().size(), before); // nothing was begun
    service.leaveTransactionOpen(150, 7);
    const Result taken = run("--as 150 transaction --id 7 -- insert A=3");
    EXPECT_EQ(taken.code, 1);
    EXPECT_NE(taken.error.find("--as 150 transaction --id 7 --abort"), std::string::npos) << taken.error;
    EXPECT_EQ(run("--as 150 transaction --id 7 --abort").code, 0);
    EXPECT_EQ(run("--as 150 transaction --id 7 --abort").code, 3);
    EXPECT_EQ(run("--as 150 transaction --id 7 -- insert A=3").code, 0);
}

TEST_F(Tamoctl, ImportInATransactionImportsNothingWhenALineFails)
{
    TreeService service(directory.path());
    const Result failed = run("import --transaction -", std::string(tree) + "{\"dn\":\"Orphan=1,Leaf=1\"}\n");
    EXPECT_EQ(failed.code, 3);
    EXPECT_NE(failed.error.find("line 6: "), std::string::npos) << failed.error;
    EXPECT_NE(failed.error.find("aborted"), std::string::npos) << failed.error;
    EXPECT_EQ(service.object("ManagedElement=1"), nullptr);
    EXPECT_EQ(run("import --transaction -", tree).output, "imported 4 objects\n");
    EXPECT_NE(service.object("ManagedElement=1,Cell=2,Part:x=1"), nullptr);
}

namespace {

/// Answers subscriptions, with a stale notification in between, and then plays `script`; what a client
/// unsubscribes is noted.
std::function<void(RawPeer&)> subscriptionService(std::function<void(RawPeer&)> script, std::string& unsubscribed)
{
    using namespace TAMO::Messages;
    return [script = std::move(script), &unsubscribed](RawPeer& peer) {
        peer.greet();
        TAMO::Wire::FrameHeader header;
        for (RawMessage raw; !(raw.body = peer.read(header)).empty();) {
            TAMO_DBUnRegToAllNotifs all;
            TAMO_DBRegToNotif subscription;
            TAMO_DBUnRegToNotif end;
            if (header.id == all.id && all.deserialize(&raw)) {
                peer.write(TAMO_DBUnRegToAllNotifsRsp(true, all.transId));
            } else if (header.id == subscription.id && subscription.deserialize(&raw)) {
                TAMO_DBNotification stale;
                stale.ticket = 99;
                peer.write(stale);
                peer.write(TAMO_DBRegToNotifRsp(4, subscription.transId));
                script(peer);
            } else if (header.id == end.id && end.deserialize(&raw)) {
                unsubscribed += std::to_string(end.ticket) + " ";
                peer.write(TAMO_DBUnRegToNotifRsp(true, end.transId, end.ticket));
            }
        }
    };
}

TAMO::Messages::TAMO_DBNotification stateChange(std::int32_t value)
{
    return {4, 0, value, 3, "state", 23, 23, "Part=1", {{"empty", Value(std::string("empty")), 9}}, 1, "A=1,Part=1"};
}

} // namespace

TEST_F(Tamoctl, WatchPrintsWhatIsItsOwnAndUnsubscribes)
{
    std::string unsubscribed;
    Result text;
    Result json;
    {
        const ServiceSocket service(directory.path(), subscriptionService(
                                                          [](RawPeer& peer) {
                                                              peer.write(stateChange(7));
                                                              peer.write(stateChange(8));
                                                          },
                                                          unsubscribed));
        text = run("watch --count 2 --dn A=1,Part=1 --attribute state A=1,Part=1,1,state,,"); // one key, said twice
        json = run("watch --json --count 1 A=1,Part=1,1,state,,");
    }
    EXPECT_EQ(text.code, 0) << text.error;
    EXPECT_NE(text.output.find(" update A=1,Part=1 state = 7\n"), std::string::npos) << text.output;
    EXPECT_NE(text.output.find(" update A=1,Part=1 state = 8\n"), std::string::npos) << text.output;
    EXPECT_EQ(unsubscribed, "4 4 ");
    ASSERT_TRUE(isOneLine(json.output)) << json.output;
    const auto line = nlohmann::json::parse(json.output);
    EXPECT_EQ(line.at("ticket"), 4);
    EXPECT_EQ(line.at("key"), "A=1,Part=1,1,state,,");
    EXPECT_EQ(line.at("value"), 7);
    EXPECT_EQ(line.at("list").at(0).at("name"), "empty");
    EXPECT_EQ(line.at("wholeDn"), "A=1,Part=1");
}

TEST_F(Tamoctl, WatchTellsAGapALossAndAMissingChange)
{
    const auto gap = [](RawPeer& peer) {
        peer.write(stateChange(1));
        ++peer.sequence;
        peer.write(stateChange(3));
    };
    const auto loss = [](RawPeer& peer) {
        peer.write(stateChange(1));
        peer.writeHeader({100, TAMO::Messages::TAMO_DBNotification::id, 0, 100, peer.sequence});
        peer.hangUp();
    };
    const std::tuple<std::function<void(RawPeer&)>, std::string, int, std::string> ends[] = {
        {gap, "", 6, "missing messages: 1;"},
        {loss, "", 6, "connection lost"},
        {[](RawPeer& peer) { peer.write(stateChange(1)); }, "--count 2 --timeout 0.3", 5, "fewer than 2"},
        {[](RawPeer& peer) { peer.write(stateChange(1)); }, "--timeout 0.3", 0, ""}};
    for (const auto& [script, options, code, error] : ends) {
        std::string unsubscribed;
        Result result;
        {
            const ServiceSocket service(directory.path(), subscriptionService(script, unsubscribed));
            result = run("watch A=1,Part=1,1,state,, " + options);
        }
        std::filesystem::remove(TAMO::Wire::socketPath(directory.path(), "db"));
        EXPECT_EQ(result.code, code) << result.error;
        EXPECT_NE(result.error.find(error), std::string::npos) << result.error;
        EXPECT_NE(result.output.find("state = 1\n"), std::string::npos) << result.output;
        EXPECT_EQ(result.output.find("state = 3"), std::string::npos);
        EXPECT_EQ(unsubscribed, error == "connection lost" ? "" : "4 ");
    }
    for (const char* usage :
         {"watch", "watch A=1", "watch --class Part --attribute state", "watch --dn A=1 --operation update",
          "watch --dn A=1 --class Part", "watch --attribute state", "watch --with-alternate TRANSACTIONS"})
        EXPECT_EQ(run(usage).code, 2) << usage;
}
