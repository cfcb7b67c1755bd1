// Messages in numbers: order, back pressure, peers that do not read, and the end of a node.

#include "tests/platform/PlatformTest.h"

#include <atomic>

namespace {

class FlowTest : public PlatformTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(db.node.start());
        ASSERT_TRUE(client.node.start());
        ASSERT_TRUE(eventually([&] { return client.node.peerName(0) == "db" && db.node.peerName(100) == "client"; }));
    }
    /// Sends, waiting while the queue is full.
    static void sendAll(MessageNode& from, std::int32_t to, std::int32_t count, std::size_t padding)
    {
        for (std::int32_t number = 0; number < count; ++number)
            ASSERT_TRUE(eventually([&] { return from.send(to, numbered(number, padding)); }));
    }
    /// Takes messages until `count` have come, in order.
    static void expectInOrder(Station& at, std::int32_t count)
    {
        std::int32_t next = 0;
        const bool all = eventually([&] {
            for (const auto& message : at.take())
                if (numberOf(*message) != next++)
                    ADD_FAILURE() << "message " << numberOf(*message) << " at place " << next - 1;
            return next >= count;
        });
        EXPECT_TRUE(all) << "only " << next << " came";
        EXPECT_EQ(next, count);
    }

    Station db{options("db", 0)};
    Station client{{.directory = directory, .name = "client", .id = 100, .listen = false, .connectTo = {"db"}}};
};

TEST_F(FlowTest, TenThousandMessagesBothWaysKeepTheirOrder)
{
    std::thread there([&] { sendAll(client.node, 0, 10'000, 100); });
    std::thread back([&] { sendAll(db.node, 100, 10'000, 100); });
    std::thread reader([&] { expectInOrder(client, 10'000); });
    expectInOrder(db, 10'000);
    there.join();
    back.join();
    reader.join();
}

TEST_F(FlowTest, FloodIsHeldBackWithoutLoss)
{
    // The station keeps its messages: nothing counts as handled, so reading stops, the socket fills,
    // then the sender's queue.
    std::int32_t accepted = 0;
    while (client.node.send(0, numbered(accepted, 4000)))
        ++accepted;
    EXPECT_GT(accepted, 1000); // 4 MiB wait on the sender's side alone
    EXPECT_TRUE(eventually([&] { return db.size() == 16; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(db.size(), 16U);
    expectInOrder(db, accepted);

    sendAll(client.node, 0, 5, 900'000); // and by bytes
    EXPECT_TRUE(eventually([&] { return db.size() == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(db.size(), 3U);
    expectInOrder(db, 5);
}

TEST_F(FlowTest, PeerThatIsGoneIsForgottenThoughItsMessagesWait)
{
    for (int round = 0; round < 2; ++round) {
        RawPeer peer(path("db"));
        ASSERT_TRUE(peer.join(7));                            // the second time, too
        for (std::int32_t number = 0; number < 100; ++number) // more than is read ahead
            peer.send({.id = 0x1009, .sender = 7, .receiver = 0}, numbered(number).serialize());
        ASSERT_TRUE(eventually([&] { return db.size() == 16; }));
        const auto waiting = db.take();
        EXPECT_FALSE(waiting.back()->permit->senderIsGone());
        peer.close();
        EXPECT_TRUE(eventually([&] { return db.node.peerName(7).empty(); }));
        EXPECT_TRUE(waiting.front()->permit->senderIsGone() && waiting.back()->permit->senderIsGone());
        EXPECT_EQ(db.size(), 0U);
    }
}

TEST_F(FlowTest, ManyPeersTogetherAreHeldBackAndAQuietOneIsHeard)
{
    std::vector<std::unique_ptr<Station>> crowd;
    for (std::int32_t id = 200; id < 212; ++id) {
        crowd.push_back(std::make_unique<Station>(MessageNode::Options{
            .directory = directory, .name = "crowd", .id = id, .listen = false, .connectTo = {"db"}}));
        ASSERT_TRUE(crowd.back()->node.start());
        ASSERT_TRUE(eventually([&] { return crowd.back()->node.peerName(0) == "db"; }));
        sendAll(crowd.back()->node, 0, 3, 900'000);
    }
    ASSERT_TRUE(eventually([&] { return db.size() == 19; })); // 16 MiB of the 31 that were sent
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(db.size(), 19U);
    ASSERT_TRUE(client.node.send(0, numbered(4711)));
    EXPECT_TRUE(eventually([&] { return db.size() == 20; }));
    std::size_t came = 0;
    EXPECT_TRUE(eventually([&] { return (came += db.take().size()) == 3 * crowd.size() + 1; })) << came;
}

TEST_F(FlowTest, MessagesBeforeAHandlerWaitForIt)
{
    MessageNode early({.directory = directory, .name = "cm", .id = 2});
    ASSERT_TRUE(early.start());
    RawPeer peer(path("cm"));
    ASSERT_TRUE(peer.join(7));
    constexpr std::int32_t sent = 200;
    for (std::int32_t number = 0; number < sent; ++number)
        peer.send({.id = 0x1009, .sender = 7, .receiver = 2}, numbered(number).serialize());
    std::atomic<std::int32_t> next{0};
    std::atomic<bool> ordered{true};
    early.setHandler([&](const std::shared_ptr<RawMessage>& message) {
        ordered = ordered && numberOf(*message) == next;
        ++next;
    });
    EXPECT_TRUE(eventually([&] { return next == sent; }));
    EXPECT_TRUE(ordered);
    early.stop();
}

TEST_F(FlowTest, SendNeverWaitsAndAStuckPeerIsDisconnected)
{
    setenv("TAMO_PEER_STUCK_SECONDS", "2", 1);
    RawPeer slow(path("db"));
    RawPeer stuck(path("db"));
    ASSERT_TRUE(slow.join(65));
    ASSERT_TRUE(stuck.join(66));
    const auto fill = [&](std::int32_t peer) {
        while (db.node.send(peer, numbered(0, 60'000))) {
        }
    };
    const auto start = std::chrono::steady_clock::now();
    fill(65);
    fill(66);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    // One reads a little now and then and keeps its connection, the other does not read at all.
    Bytes some(300'000);
    EXPECT_TRUE(eventually(
        [&] {
            EXPECT_EQ(slow.read(some.data(), some.size()), some.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            fill(65);
            return db.node.peerName(66).empty();
        },
        std::chrono::seconds(10)));
    EXPECT_EQ(log.count(mwLogError, "it is stuck"), 1);
    EXPECT_FALSE(db.node.send(66, numbered(0)));
    EXPECT_EQ(db.node.peerName(65), "raw");
    EXPECT_TRUE(db.node.send(100, numbered(0)));
    unsetenv("TAMO_PEER_STUCK_SECONDS");
}

TEST_F(FlowTest, WhatCannotBeSentAnswersFalse)
{
    EXPECT_FALSE(db.node.send(55, numbered(0)));
    EXPECT_FALSE(db.node.send(100, numbered(0, Wire::maxFrameSize)));
    EXPECT_EQ(log.count(mwLogError, "too large"), 1);
    EXPECT_TRUE(db.node.send(100, numbered(0, Wire::maxFrameSize - 100)));
    expectInOrder(client, 1);
    db.node.stop();
    EXPECT_FALSE(db.node.send(100, numbered(0)));
}

TEST_F(FlowTest, StopSendsWhatWaitsAndCallsNobodyAfterwards)
{
    sendAll(client.node, 0, 3, 900'000); // more than a socket takes
    client.node.stop();
    expectInOrder(db, 3);

    std::atomic<bool> stopped{false};
    std::atomic<bool> late{false};
    MessageNode flooded({.directory = directory, .name = "cm", .id = 2});
    flooded.setHandler([&](const std::shared_ptr<RawMessage>&) { late = late || stopped; });
    ASSERT_TRUE(flooded.start());
    RawPeer peer(path("cm"));
    ASSERT_TRUE(peer.join(7));
    const auto head = Wire::encodeHeader({0, 0x1009, 7, 2, 0});
    std::thread flood([&] {
        while (peer.write(head.data(), head.size())) {
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    flooded.stop();
    stopped = true;
    flood.join(); // the connection was closed
    EXPECT_FALSE(late);
}

} // namespace
