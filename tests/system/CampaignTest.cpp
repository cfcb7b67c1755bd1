// Longer runs with a random course; the seed is printed with a failure.
#include "Process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <thread>

TEST(Campaign, ServiceKilledUnderLoadAlwaysComesUpAgain)
{
    constexpr int kills = 40;
    const auto seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const Node node;
    const std::string tree = std::string(TAMO_EXAMPLES) + "/small_cell.jsonl";
    for (int kill = 1; kill <= kills; ++kill) {
        Process client({program("tamoctl"), "--dir", node.path("run"), "import", tree});
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 400));
        ASSERT_EQ(::kill(node.servicePid(), SIGKILL), 0);
        const int code = client.wait();
        ASSERT_TRUE(code == 0 || code == 4) << code << ' ' << client.error();
        ASSERT_TRUE(eventually([&] {
            return node.status("boot_count") == std::to_string(kill + 1) && node.status("state") == "\"up\"";
        })) << "after kill "
            << kill;
        ASSERT_EQ(node.status("started_partition"), "1") << "each boot had its good mark";
        // A client that a busy machine started late may have found the next boot's service, and succeeded there.
        ASSERT_TRUE(code == 0 || node.client({"exists", "ManagedElement=1"}).code == 3);
    }
    EXPECT_EQ(node.client({"import", tree}).code, 0);
}

TEST(Campaign, ManyNodesComeAndGo)
{
    constexpr int rounds = 30;
    for (int round = 0; round < rounds; ++round) {
        const Node first;
        const Node second;
        ASSERT_EQ(first.client({"insert", "ManagedElement=1"}).code, 0);
        ASSERT_EQ(first.verb("down").code, 0);
        ASSERT_EQ(second.client({"exists", "ManagedElement=1"}).code, 3);
        ASSERT_EQ(second.verb("down").code, 0);
    }
}
