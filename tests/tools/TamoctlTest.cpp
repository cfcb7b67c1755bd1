// The tamoctl binary: its exit codes, its output, and what it does with a tree.

#include "ServiceSocket.h"
#include "TreeService.h"

#include "tools/client/Database.h"
#include "values/ValueType.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/wait.h>

namespace {

struct Result {
    int code = -1;
    std::string output;
    std::string error;
};

std::string contentOf(const std::string& path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

class Tamoctl : public testing::Test {
protected:
    /// Runs tamoctl with `arguments`, as a shell reads them, on `input`.
    Result run(const std::string& arguments, const std::string& input = "") const
    {
        write("input", input);
        const std::string files = " <" + path("input") + " >" + path("output") + " 2>" + path("error");
        const int status = std::system((TAMOCTL " --dir " + directory.path() + " " + arguments + files).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(path("output")), contentOf(path("error"))};
    }
    std::string path(const std::string& name) const { return directory.path() + "/" + name; }
    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(path(name), std::ios::binary) << content;
    }
    SocketDirectory directory;
};

bool isOneLine(const std::string& text) { return !text.empty() && text.find('\n') == text.size() - 1; }

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
