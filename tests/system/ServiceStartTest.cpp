// tamo_db by itself: the ways its start can end, and its orderly and its sudden end.
#include "Process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string base = "pRBSdb";
const std::vector<std::string> variables{"TAMO_DB_RUNTIME_PATH",    "TAMO_DB_FILE_PATH",  "TAMO_DB_DUMP_FILE_PATH",
                                         "TAMO_PERSISTENT_STORAGE", "TAMO_FRAMEWORK_DIR", "TAMO_BRM_BACKUP_PATH"};

class ServiceStart : public testing::Test {
protected:
    ServiceStart()
    {
        for (const char* name : {"runtime", "flash", "dump", "common", "backup/database", "run", "conf"})
            fs::create_directories(directory.path(name));
    }
    Environment environment() const
    {
        return {{"TAMO_DB_RUNTIME_PATH", directory.path("runtime")},
                {"TAMO_DB_FILE_PATH", directory.path("flash")},
                {"TAMO_DB_DUMP_FILE_PATH", directory.path("dump")},
                {"TAMO_PERSISTENT_STORAGE", directory.path("common")},
                {"TAMO_BRM_BACKUP_PATH", directory.path("backup")},
                {"AI_CONFIG_FILE_PATH", directory.path("conf")},
                {"TAMO_FRAMEWORK_DIR", directory.path("run")},
                {"TAMO_NODE_STATE", directory.path("state.json")},
                {"DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", TAMO_CONF}};
    }
    Environment with(const std::string& name, const std::string& value) const
    {
        auto changed = environment();
        changed[name] = value;
        return changed;
    }
    static Result start(const Environment& environment, const std::vector<std::string>& arguments = {})
    {
        Command command{program("tamo_db")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command, environment);
    }
    Result client(const std::vector<std::string>& arguments) const
    {
        Command command{program("tamoctl"), "--dir", directory.path("run")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return run(command);
    }
    bool comesUp() const
    {
        return eventually([&] { return client({"ready"}).code == 0; });
    }
    static bool hasErrorLine(const std::string& log, const std::string& what)
    {
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = log.find('\n', begin)) != std::string::npos; begin = end + 1) {
            const std::string line = log.substr(begin, end - begin);
            if (line.find(" error ") != std::string::npos && line.find(what) != std::string::npos)
                return true;
        }
        return false;
    }
    TestDirectory directory;
};

} // namespace

TEST_F(ServiceStart, RuntimeDirectoryThatCannotServeIsNamed)
{
    auto unset = environment();
    unset.erase("TAMO_DB_RUNTIME_PATH");
    writeFile(directory.path("file"), "x");
    const std::string tooLong = directory.path("runtime/" + std::string(500, 'x'));
    for (const auto& wrong :
         {unset, with("TAMO_DB_RUNTIME_PATH", ""), with("TAMO_DB_RUNTIME_PATH", directory.path("missing")),
          with("TAMO_DB_RUNTIME_PATH", directory.path("file")), with("TAMO_DB_RUNTIME_PATH", tooLong),
          with("TAMO_DB_RUNTIME_PATH", "/proc")}) { // /proc: not writable, for root neither
        const auto result = start(wrong);
        EXPECT_EQ(result.code, 1) << result.error;
        EXPECT_TRUE(hasErrorLine(result.error, "TAMO_DB_RUNTIME_PATH")) << result.error;
    }
    EXPECT_FALSE(fs::exists(directory.path("dump/DatabaseDump")));
}

TEST_F(ServiceStart, RuntimeDirectoryThatIsAnotherOnesTouchesNothing)
{
    fs::create_directory_symlink(directory.path("flash"), directory.path("link"));
    const std::string content = "a configuration that must not be deleted";
    const auto refused = [&](const std::string& file, const Environment& same) {
        writeFile(directory.path(file), content);
        const auto result = start(same);
        EXPECT_EQ(result.code, 1) << result.error;
        EXPECT_TRUE(hasErrorLine(result.error, "")) << result.error;
        EXPECT_EQ(readFile(directory.path(file)), content);
    };
    refused("flash/pRBSdb", with("TAMO_DB_RUNTIME_PATH", directory.path("flash")));
    refused("flash/pRBSdb", with("TAMO_DB_RUNTIME_PATH", directory.path("link/../flash/.")));
    refused("flash/pRBSdb", with("TAMO_DB_RUNTIME_PATH", directory.path("link")));
    refused("common/commondb", with("TAMO_DB_RUNTIME_PATH", directory.path("common")));
    refused("backup/database/pRBSdb", with("TAMO_DB_RUNTIME_PATH", directory.path("backup/database")));
}

TEST_F(ServiceStart, SecondInstanceIsRefusedAndTheFirstGoesOn)
{
    Process first({program("tamo_db")}, environment());
    ASSERT_TRUE(comesUp()) << first.error();
    ASSERT_EQ(client({"insert", "ManagedElement=1", "userLabel=first"}).code, 0);
    fs::create_directories(directory.path("run2"));
    const auto second = start(with("TAMO_FRAMEWORK_DIR", directory.path("run2")));
    EXPECT_EQ(second.code, 1) << second.error;
    EXPECT_TRUE(hasErrorLine(second.error, "")) << second.error;
    EXPECT_EQ(client({"exists", "ManagedElement=1"}).code, 0);
    EXPECT_TRUE(first.running());
    first.signal(SIGTERM);
    EXPECT_EQ(first.wait(), 0);
}

TEST_F(ServiceStart, ArgumentsAreAnsweredOrRefused)
{
    const auto help = start(environment(), {"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_EQ(start(environment(), {"--version"}).code, 0);
    const auto unknown = start(environment(), {"--node"});
    EXPECT_NE(unknown.code, 0);
    for (const auto& variable : variables) {
        EXPECT_NE(help.output.find(variable), std::string::npos) << variable << " in\n" << help.output;
        EXPECT_NE((unknown.output + unknown.error).find(variable), std::string::npos) << variable;
    }
    EXPECT_NE(start(environment(), {"--help", "more"}).code, 127);
    EXPECT_TRUE(fs::is_empty(directory.path("runtime"))) << "nothing is started to answer";
}

TEST_F(ServiceStart, OrderlyEndKeepsTheTreeInTheDump)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        Process service({program("tamo_db")}, environment());
        ASSERT_TRUE(comesUp()) << service.error();
        ASSERT_EQ(client({"insert", "ManagedElement=1", "userLabel=kept"}).code, 0);
        service.signal(signal);
        EXPECT_EQ(service.wait(), 0) << service.error();
        EXPECT_EQ(
            query(directory.path("dump/DatabaseDump"),
                  "select dn, value from DBObject o, Attribute a where a.belongsTo = o.id and name = 'userLabel'"),
            std::vector<std::string>{"ManagedElement=1|kept"});
        EXPECT_FALSE(fs::exists(directory.path("run/db.sock")));
    }
}

TEST_F(ServiceStart, KilledServiceStartsAgainByItself)
{
    for (int round = 0; round < 3; ++round) {
        Process service({program("tamo_db")}, environment());
        ASSERT_TRUE(comesUp()) << service.error();
        EXPECT_EQ(client({"exists", "ManagedElement=1"}).code, 3)
            << "the runtime database does not outlive its process";
        ASSERT_EQ(client({"insert", "ManagedElement=1"}).code, 0);
        service.signal(SIGKILL);
        EXPECT_EQ(service.wait(), 128 + SIGKILL);
        if (round == 1) // a dump that was being written when the process was killed
            writeFile(directory.path("dump/DatabaseDump"), "SQLite format 3, or so it seems");
    }
}

TEST_F(ServiceStart, LogReaderThatGoesAwayDoesNotEndTheService)
{
    Process pipeline({"/bin/sh", "-c", "exec 3>&1; (" + program("tamo_db") + " 2>&1 & echo $! >&3) | head -n 1 >&2"},
                     environment());
    ASSERT_TRUE(comesUp()) << pipeline.error();
    const pid_t service = std::atoi(pipeline.output().c_str());
    ASSERT_GT(service, 1) << pipeline.output();
    for (int i = 0; i < 5; ++i) // each a warning or error line to nobody
        client({"create-from-template", "/nonexistent/template.xml", "ManagedElement=1"});
    EXPECT_EQ(client({"ready"}).code, 0);
    ::kill(service, SIGTERM);
    EXPECT_TRUE(eventually([&] { return ::kill(service, 0) != 0; }));
}
