// What a simulated node's storage is taken to hold: exactly what was synchronised.
#include "Scratch.h"

#include "platform/host/Medium.h"
#include "platform/utility/SystemFunctions.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

class SimulatedStorage : public testing::Test {
protected:
    SimulatedStorage()
    {
        for (const char* directory : {"flash/1", "runtime", "medium/flash"})
            fs::create_directories(scratch.path(directory));
    }
    std::string held(const std::string& name) const { return scratch.read("medium/" + name); }
    bool isHeld(const std::string& name) const { return fs::exists(scratch.path("medium/" + name)); }
    void sync(const std::string& name, int (*how)(int)) const
    {
        const int file = ::open(scratch.path(name).c_str(), O_RDONLY);
        EXPECT_EQ(how(file), 0);
        ::close(file);
    }
    Scratch scratch;
    ScopedVariable variable{"TAMO_NODE_MEDIUM", scratch.path("medium")};
};

} // namespace

TEST_F(SimulatedStorage, FlushTakesEveryFileAndForgetsTheRemoved)
{
    scratch.write("flash/1/pRBSdb", "one");
    scratch.write("flash/loose", "two");
    scratch.write("runtime/pRBSdb", "not lasting");
    EXPECT_FALSE(isHeld("flash/1/pRBSdb"));
    flushFileSystems();
    EXPECT_EQ(held("flash/1/pRBSdb"), "one");
    EXPECT_EQ(held("flash/loose"), "two");
    EXPECT_FALSE(isHeld("runtime/pRBSdb"));
    for (const std::string text :
         {"uno", "eins", "un", "yks"}) { // of one length and within one step of file times, too
        scratch.write("flash/1/pRBSdb", text);
        flushFileSystems();
        EXPECT_EQ(held("flash/1/pRBSdb"), text);
    }
    fs::remove(scratch.path("flash/loose"));
    fs::rename(scratch.path("flash/1/pRBSdb"), scratch.path("flash/1/pRBSdb.old"));
    flushFileSystems();
    EXPECT_FALSE(isHeld("flash/loose"));
    EXPECT_FALSE(isHeld("flash/1/pRBSdb"));
    EXPECT_EQ(held("flash/1/pRBSdb.old"), "yks");
}

TEST_F(SimulatedStorage, SynchronisedFileIsHeldAndItsNeighbourIsNot)
{
    scratch.write("flash/1/a", "a");
    scratch.write("flash/1/b", "b");
    sync("flash/1/a", ::fsync);
    EXPECT_EQ(held("flash/1/a"), "a");
    EXPECT_FALSE(isHeld("flash/1/b"));
    sync("flash/1/b", ::fdatasync);
    EXPECT_EQ(held("flash/1/b"), "b");
    fs::remove(scratch.path("flash/1/a"));
    scratch.write("flash/1/new", "n");
    EXPECT_TRUE(isHeld("flash/1/a")) << "the directory was not synchronised";
    sync("flash/1", ::fsync);
    EXPECT_FALSE(isHeld("flash/1/a"));
    EXPECT_FALSE(isHeld("flash/1/new")) << "its content was not";
    EXPECT_EQ(::fsync(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SimulatedStorage, SqlitesCommitsAreHeld)
{
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(scratch.path("flash/1/pRBSdb").c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, "create table t (x); insert into t values (1)", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    EXPECT_EQ(held("flash/1/pRBSdb"), scratch.read("flash/1/pRBSdb"));
}

TEST_F(SimulatedStorage, SynchronisingThreadsAndProcessesLoseNoFile)
{
    constexpr int each = 30;
    const auto work = [&](const std::string& who) {
        for (int i = 0; i < each; ++i) {
            scratch.write("flash/1/" + who + std::to_string(i), who);
            sync("flash/1/" + who + std::to_string(i), ::fsync);
        }
    };
    const pid_t child = ::fork();
    if (child == 0) {
        work("p");
        ::_exit(0);
    }
    std::thread thread([&] { work("t"); });
    work("m");
    thread.join();
    ::waitpid(child, nullptr, 0);
    const auto index = Medium::ofThisNode()->index();
    EXPECT_EQ(index.size(), std::size_t{3 * each});
    for (const auto& [name, entry] : index)
        EXPECT_EQ(held(name), scratch.read(name)) << name;
}
