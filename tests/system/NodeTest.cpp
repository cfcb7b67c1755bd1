// The simulated node: its verbs, and what it makes of programs that die.
#include "Process.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

/// A program in the place of tamo_db.
std::string script(const TestDirectory& directory, const std::string& text)
{
    writeFile(directory.path("service"), "#!/bin/sh\n" + text + "\n");
    ::chmod(directory.path("service").c_str(), 0755);
    return directory.path("service");
}

} // namespace

TEST(Node, LivesFromUpToDown)
{
    Node node;
    EXPECT_EQ(node.status("state"), "\"up\"");
    EXPECT_EQ(node.status("started_partition"), "1");
    EXPECT_EQ(node.status("reset_reason"), "6");
    EXPECT_EQ(node.status("faults"), "[]");
    EXPECT_EQ(node.status("resets"), "[]");
    const auto again = node.up();
    EXPECT_EQ(again.code, 1);
    EXPECT_TRUE(contains(again.error, "up already")) << again.error;
    EXPECT_EQ(node.client({"ready"}).code, 0) << "the second up left the node alone";
    EXPECT_EQ(::kill(node.servicePid(), 0), 0);

    const pid_t service = node.servicePid();
    EXPECT_EQ(node.verb("down").code, 0);
    EXPECT_NE(::kill(service, 0), 0);
    EXPECT_EQ(node.status("state"), "\"down\"");
    EXPECT_EQ(node.status("exit_code"), "0");
    const auto downAgain = node.verb("down");
    EXPECT_EQ(downAgain.code, 1);
    EXPECT_TRUE(contains(downAgain.error, "is not up")) << downAgain.error;
    EXPECT_EQ(node.client({"ready"}).code, 4);
}

TEST(Node, CallersLogFileIsNotTheNodes)
{
    const TestDirectory directory;
    const Node node({}, {{"TAMO_LOG_FILE", directory.path("callers.log")}, {"TAMO_LOG_LEVEL", "debug"}});
    EXPECT_EQ(node.bootResult().code, 0) << node.bootResult().error;
    EXPECT_EQ(node.status("state"), "\"up\"");
}

TEST(Node, EnvironmentLeadsAShellsClientToTheNode)
{
    const Node node;
    for (const char* shell : {"/bin/sh", "/bin/bash"}) {
        const auto result = run({shell, "-c",
                                 "eval $(" + program("tamo_node") + " env " + node.path() + ") && " +
                                     program("tamoctl") + " ready && echo $TAMO_DB_DUMP_FILE_PATH"});
        EXPECT_EQ(result.code, 0) << result.error;
        EXPECT_TRUE(contains(result.output, node.path("dump"))) << result.output;
    }
}

TEST(Node, KilledServiceIsToldAndTheNodeComesUpAgain)
{
    const Node node;
    const pid_t service = node.servicePid();
    ASSERT_EQ(::kill(service, SIGKILL), 0);
    EXPECT_TRUE(eventually([&] { return node.status("boot_count") == "2" && node.status("state") == "\"up\""; }));
    EXPECT_EQ(node.status("signal"), "9");
    EXPECT_EQ(node.status("reset_reason"), "5");
    EXPECT_EQ(node.status("resets"), "[]") << "nobody ordered it";
    EXPECT_NE(node.servicePid(), service);
    EXPECT_EQ(node.client({"ready"}).code, 0);
    EXPECT_EQ(node.verb("down").code, 0);
}

TEST(Node, KilledSupervisorTakesTheServiceWithIt)
{
    const Node node;
    const pid_t service = node.servicePid();
    ASSERT_EQ(::kill(std::atoi(node.status("supervisor").c_str()), SIGKILL), 0);
    EXPECT_TRUE(eventually([&] { return node.client({"ready"}).code == 4; }));
    EXPECT_EQ(node.status("state"), "\"failed\"");
    EXPECT_TRUE(contains(node.status("problem"), "was killed"));
    EXPECT_EQ(node.verb("down").code, 1);
    EXPECT_EQ(node.up().code, 0);
    EXPECT_NE(node.servicePid(), service);
}

TEST(Node, ServiceThatFailsIsShownWithItsLog)
{
    const TestDirectory directory;
    const auto up = [&](const std::string& service, const std::string& timeout) {
        return run({program("tamo_node"), "up", directory.path("node"), "--timeout", timeout, "--stop-timeout", "1",
                    "--tamo-db", service});
    };
    auto result = up(script(directory, "echo cannot go on; exit 3"), "10");
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(contains(result.error, "exit code 3") && contains(result.error, "cannot go on")) << result.error;

    result = up(script(directory, "echo never ready; trap '' TERM; while :; do sleep 0.1; done"), "1");
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(contains(result.error, "never ready") && contains(result.error, "was killed")) << result.error;
    EXPECT_FALSE(contains(result.error, "cannot go on")) << "only this start's lines";

    result = up(directory.path("missing"), "1");
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(contains(result.error, "missing")) << result.error;
    writeFile(directory.path("broken"), "\x7f"
                                        "ELF, but not quite");
    ::chmod(directory.path("broken").c_str(), 0755);
    result = up(directory.path("broken"), "1");
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(contains(result.error, "cannot start")) << result.error;
}

TEST(Node, DirectoryTooDeepForSocketsIsRefused)
{
    const TestDirectory directory;
    const auto result = run({program("tamo_node"), "up", directory.path(std::string(100, 'd'))});
    EXPECT_EQ(result.code, 1);
    EXPECT_TRUE(contains(result.error, "107")) << result.error;
}

TEST(Node, ForegroundNodeEndsInOrderOnInterrupt)
{
    const TestDirectory directory;
    Process node({program("tamo_node"), "up", "--foreground", directory.path("node")});
    EXPECT_TRUE(eventually([&] { return contains(node.output(), "is up"); })) << node.output();
    node.signal(SIGINT);
    EXPECT_EQ(node.wait(), 0) << node.output();
}

TEST(Node, TwoNodesDoNotMeet)
{
    const Node first;
    const Node second;
    EXPECT_EQ(first.client({"insert", "ManagedElement=1"}).code, 0);
    EXPECT_EQ(second.client({"exists", "ManagedElement=1"}).code, 3);
    if (first.status("isolation") != "\"private\"")
        GTEST_SKIP() << "no private namespaces here: " << first.status("isolation");
    const auto roots = [](const Node& node) {
        struct stat shm {};
        const std::string path = "/proc/" + std::to_string(node.servicePid()) + "/root/dev/shm";
        return ::stat(path.c_str(), &shm) == 0 ? shm.st_dev : 0;
    };
    struct stat own {};
    ASSERT_EQ(::stat("/dev/shm", &own), 0);
    EXPECT_NE(roots(first), roots(second));
    EXPECT_NE(roots(first), own.st_dev);
    writeFile(first.path("tmp/marker"), "x"); // what the node sees as /tmp
    EXPECT_TRUE(fs::exists("/proc/" + std::to_string(first.servicePid()) + "/root/tmp/marker"));
    EXPECT_FALSE(fs::exists("/proc/" + std::to_string(second.servicePid()) + "/root/tmp/marker"));
}
