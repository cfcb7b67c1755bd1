// A node whose I/O thread gets no memory at any one point goes on serving.

#include "tests/platform/PlatformTest.h"

#include <atomic>
#include <cstring>
#include <new>
#include <pthread.h>

namespace {

/// Refuses memory to the thread of the node "db": `passes` requests are served, the next `count` not.
struct Shortage {
    static inline std::atomic<int> passes{0};
    static inline std::atomic<int> count{0};
    static inline std::atomic<int> refusals{0};

    Shortage(int afterPasses, int times)
    {
        passes = afterPasses;
        count = times;
    }
    ~Shortage() { count = 0; }

    static bool refuses()
    {
        char name[16];
        if (count <= 0 || pthread_getname_np(pthread_self(), name, sizeof name) != 0 || std::strcmp(name, "io db") != 0)
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

} // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

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
    EXPECT_GT(rounds, 60); // every allocation up to the sixteenth message's has failed once
}

INSTANTIATE_TEST_SUITE_P(RefusedInARow, OutOfMemoryTest, testing::Values(1, 2, 6));

} // namespace
