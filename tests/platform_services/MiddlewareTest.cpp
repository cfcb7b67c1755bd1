// The node state file through the middleware's functions.
#include "Scratch.h"

#include "platform/host/LogSink.h"
#include "platform/host/NodeState.h"
#include "platform/middleware/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

class Middleware : public testing::Test {
protected:
    Middleware()
    {
        mw_log::setSink([this](unsigned level, const std::string& text) {
            if (level == mwLogError)
                errors.push_back(text);
        });
    }
    ~Middleware() override { mw_log::setSink({}); }
    NodeState onDisk() const
    {
        NodeState state;
        std::string problem;
        EXPECT_TRUE(readNodeState(scratch.path("state.json"), state, problem)) << problem;
        return state;
    }
    Scratch scratch;
    ScopedVariable variable{"TAMO_NODE_STATE", scratch.path("state.json").c_str()};
    std::vector<std::string> errors;
};

} // namespace

TEST_F(Middleware, MissingFileAndMissingKeysGiveDefaults)
{
    int value = -9;
    EXPECT_EQ(mw_api_pwr_started_partition_get(&value), 0);
    EXPECT_EQ(value, 1);
    scratch.write("state.json", R"({"started_partition": 4})");
    EXPECT_EQ(mw_api_pwr_started_partition_get(&value), 0);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(mw_api_pwr_fallback_partition_get(&value), 0);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(mw_api_pwr_reset_reason_get(&value), 0);
    EXPECT_EQ(value, 6);
    EXPECT_EQ(mw_api_operation_mode_get(0, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(errors.empty());
}

TEST_F(Middleware, ChangesReachTheFileAndKeepTheRest)
{
    scratch.write("state.json", R"({"started_partition": 2, "reset_reason": 3, "controlled_resets": [[1, 1]]})");
    EXPECT_EQ(mw_api_pwr_active_partition_set(3), 0);
    EXPECT_EQ(mw_api_pwr_ubifs_mount(2), 0);
    EXPECT_EQ(mw_api_pwr_controlled_reset(1, 0), 0);
    EXPECT_EQ(mw_api_operation_mode_set(1, 5), 0);
    const NodeState state = onDisk();
    EXPECT_EQ(state.startedPartition, 2);
    EXPECT_EQ(state.activePartition, 3);
    EXPECT_EQ(state.resetReason, 3);
    EXPECT_EQ(state.operationMode, 5);
    EXPECT_EQ(state.mounts, std::vector<int>{2});
    EXPECT_EQ(state.controlledResets, (std::vector<std::pair<int, int>>{{1, 1}, {1, 0}}));
}

TEST_F(Middleware, UnusableFileFailsWithOneLineAndIsLeftAlone)
{
    for (const char* content : {"", "{", "[1]", R"({"reset_reason": "six"})", R"({"controlled_resets": 1})"}) {
        scratch.write("state.json", content);
        errors.clear();
        int value = 12;
        EXPECT_NE(mw_api_pwr_reset_reason_get(&value), 0) << content;
        EXPECT_EQ(value, 12) << "the caller's preset";
        EXPECT_EQ(errors.size(), 1U);
        EXPECT_NE(mw_api_pwr_controlled_reset(1, 1), 0) << content;
        EXPECT_EQ(errors.size(), 2U);
        EXPECT_NE(errors.back().find("state.json"), std::string::npos) << errors.back();
        EXPECT_EQ(scratch.read("state.json"), content);
    }
    std::filesystem::remove(scratch.path("state.json"));
    std::filesystem::create_directory(scratch.path("state.json"));
    int value = 12;
    EXPECT_NE(mw_api_pwr_reset_reason_get(&value), 0);
    const ScopedVariable elsewhere("TAMO_NODE_STATE", scratch.path("missing/state.json").c_str());
    EXPECT_NE(mw_api_operation_mode_set(1, 1), 0);
}

TEST_F(Middleware, WithoutAFileAProcessRemembersWhatItSet)
{
    unsetenv("TAMO_NODE_STATE");
    EXPECT_EQ(mw_api_operation_mode_set(2, 7), 0);
    int mode = 0;
    EXPECT_EQ(mw_api_operation_mode_get(0, &mode), 0);
    EXPECT_EQ(mode, 7);
    EXPECT_EQ(mw_api_operation_mode_set(2, 0), 0);
}

TEST_F(Middleware, WritersOfTwoProcessesLoseNothingAndReadersNeverSeeAPart)
{
    constexpr int each = 100;
    const pid_t child = fork();
    if (child == 0) {
        int failures = 0;
        for (int i = 0; i < each; ++i)
            failures += mw_api_pwr_controlled_reset(1, i);
        _exit(failures == 0 ? 0 : 1);
    }
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            int value = 0;
            EXPECT_EQ(mw_api_pwr_started_partition_get(&value), 0);
        }
    });
    for (int i = 0; i < each; ++i)
        EXPECT_EQ(mw_api_pwr_controlled_reset(2, i), 0);
    int status = -1;
    waitpid(child, &status, 0);
    stop = true;
    reader.join();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(onDisk().controlledResets.size(), std::size_t{2 * each});
}

TEST_F(Middleware, OperatorsOrderSurvivesTheServicesOwnChanges)
{
    std::string problem;
    const auto order = [](NodeState& state) {
        state.order = OperatorOrder{true, 3, std::pair(1, -1), true, 18446744073709551615U};
        state.unmarkedBoots = 2;
    };
    ASSERT_TRUE(updateNodeState(scratch.path("state.json"), order, problem)) << problem;
    EXPECT_EQ(mw_api_pwr_active_partition_set(2), 0);
    const NodeState state = onDisk();
    ASSERT_TRUE(state.order);
    EXPECT_TRUE(state.order->powerCut && state.order->stayOff);
    EXPECT_EQ(state.order->reason, 3);
    EXPECT_EQ(state.order->controlled, std::pair(1, -1));
    EXPECT_EQ(state.order->seed, 18446744073709551615U);
    EXPECT_EQ(state.unmarkedBoots, 2);
    scratch.write("state.json", R"({"operator_order": {"reason": "three"}})");
    int value = 0;
    EXPECT_NE(mw_api_pwr_reset_reason_get(&value), 0);
}
