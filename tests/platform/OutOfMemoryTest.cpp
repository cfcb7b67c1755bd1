// A node whose I/O thread gets no memory at any one point goes on serving.

#include "tests/platform/PlatformTest.h"

#include <atomic>
#include <cstring>
#include <new>
#include <pthread.h>

namespace {

/// Refuses memory to the thread of that name: `passes` requests are served, the next `count` not.
struct Shortage {
    static inline std::atomic<int> passes{0};
    static inline std::atomic<int> count{0};
    static inline std::atomic<int> refusals{0};
    static inline std::atomic<const char*> thread{""};

    Shortage(int afterPasses, int times, const char* ofThread = "io db")
    {
        thread = ofThread;
        passes = afterPasses;
        count = times;
    }
    ~Shortage() { count = 0; }

    static bool refuses()
    {
        char name[16];
        if (count <= 0 || pthread_getname_np(pthread_self(), name, sizeof name) != 0 || std::strcmp(name, thread) != 0)
            return false;
        if (passes-- > 0 || count-- <= 0)
            return false;
        ++refusals;
        return true;
    }
};

void* allocate(std::size_t size) { return Shortage::refuses() ? nullptr : std::malloc(size ? size : 1); }

void* allocateOrThrow(std::size_t size)
{
    void* const memory = allocate(size);
    return memory ? memory : throw std::bad_alloc();
}

/// Not inlined: the compiler would see a free() of what operator new gave and call it a mistake.
[[gnu::noinline]] void release(void* memory) { std::free(memory); }

} // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { release(memory); }

namespace {

using SendingOutOfMemoryTest = PlatformTest;
using DiallingOutOfMemoryTest = PlatformTest;

class OutOfMemoryTest : public PlatformTest, public testing::WithParamInterface<int> {
protected:
    static std::ptrdiff_t openDescriptors()
    {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }
    void expectService()
    {
        RawPeer good(path("db"));
        ASSERT_TRUE(good.join(101));
        good.send({.id = 0x1009, .sender = 101, .receiver = 0}, numbered(1).serialize());
        ASSERT_TRUE(eventually([&] {
            for (const auto& message : db.take())
                if (message->sender == 101)
                    return true;
            return false;
        }));
        ASSERT_TRUE(db.node.send(101, numbered(2)));
        ASSERT_TRUE(good.receive());
    }

    Station db{options("db", 0)};
};

TEST_P(OutOfMemoryTest, CostsAConnectionAndNotTheNode)
{
    ASSERT_TRUE(db.node.start());
    ASSERT_NO_FATAL_FAILURE(expectService());
    ASSERT_TRUE(eventually([&] { return db.node.peerName(101).empty(); }));
    const auto descriptors = openDescriptors();
    int rounds = 0;
    for (bool hit = true; hit; ++rounds) {
        const int before = Shortage::refusals;
        {
            const Shortage shortage(rounds, GetParam());
            RawPeer peer(path("db"));
            if (peer.join(100)) {
                for (int i = 0; i < 20; ++i) // more than may wait unhandled
                    peer.send({.id = 0x1009, .sender = 100, .receiver = 0}, numbered(i, 2000).serialize());
                ASSERT_TRUE(eventually([&] { return db.size() == 16 || openDescriptors() == descriptors + 1; }));
                db.node.send(100, numbered(1, 900'000)); // and an answer that does not fit at once
            }
            peer.close();
            ASSERT_TRUE(eventually([&] { return openDescriptors() == descriptors; })) << "round " << rounds;
        }
        db.take();
        hit = Shortage::refusals > before;
        ASSERT_NO_FATAL_FAILURE(expectService()) << "round " << rounds;
        ASSERT_TRUE(eventually([&] { return openDescriptors() == descriptors; })) << "round " << rounds;
    }
    EXPECT_GT(rounds, 3 * 16); // message, body and permit of each that came in have failed once
}

TEST_F(SendingOutOfMemoryTest, NothingFollowsHalfAFrame)
{
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    int rounds = 0;
    int brokenOff = 0;
    for (bool hit = true; hit; ++rounds) {
        const int before = Shortage::refusals;
        RawPeer peer(path("db"));
        ASSERT_TRUE(eventually([&] { return peer.join(100); }));
        ASSERT_TRUE(eventually([&] { return !db.node.peerName(100).empty(); }));
        std::thread sender([&] {
            pthread_setname_np(pthread_self(), "sender");
            const Shortage shortage(rounds, 1, "sender");
            try {
                db.node.send(100, numbered(1, 900'000)); // more than the socket takes
            } catch (const std::bad_alloc&) {
                // nothing was sent
            }
        });
        sender.join();
        hit = Shortage::refusals > before;
        db.node.send(100, numbered(2));
        std::vector<std::int32_t> came;
        while (came.empty() || came.back() == 1) {
            const auto message = peer.receive();
            if (!message)
                break;
            came.push_back(numberOf(*message));
        }
        const bool both = came == std::vector{1, 2};
        const bool second = came == std::vector{2};
        EXPECT_TRUE(both || (hit && (second || peer.ended()))) << "round " << rounds;
        brokenOff += !both && !second;
        peer.close();
        ASSERT_TRUE(eventually([&] { return db.node.peerName(100).empty(); }));
    }
    EXPECT_GT(brokenOff, 0);
}

TEST_F(DiallingOutOfMemoryTest, AnotherNodeIsCalledAgain)
{
    Station caller(options("db", 0, {"fm"}));
    ASSERT_TRUE(caller.node.start());
    int rounds = 0;
    for (bool hit = true; hit; rounds += 2) {
        const int before = Shortage::refusals;
        const Shortage shortage(rounds, 2);
        Station fm(options("fm", 3));
        ASSERT_TRUE(fm.node.start());
        ASSERT_TRUE(eventually([&] { return caller.node.send(3, numbered(1)); })) << "round " << rounds;
        fm.node.stop();
        ASSERT_TRUE(eventually([&] { return caller.node.peerName(3).empty(); })) << "round " << rounds;
        hit = Shortage::refusals > before;
    }
    EXPECT_GT(rounds, 10);
}

INSTANTIATE_TEST_SUITE_P(RefusedInARow, OutOfMemoryTest, testing::Values(1, 2, 6));

} // namespace
