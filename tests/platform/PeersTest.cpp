// What a node knows of its peers, and lists of it that would not fit in a frame.

#include "platform/messages/Diagnostics.h"
#include "tests/platform/PlatformTest.h"

#include <atomic>
#include <limits>

namespace {

class PeersTest : public PlatformTest {
protected:
    void SetUp() override { ASSERT_TRUE(db.node.start()); }
    PeerInfo peer(std::int32_t id) const
    {
        for (const PeerInfo& info : db.node.peers())
            if (info.node == id)
                return info;
        return {};
    }
    Station db{options("db", 0)};
};

TEST_F(PeersTest, MessagesAreCountedInBothDirections)
{
    Station tool({.directory = directory, .name = "tool", .id = 100, .listen = false, .connectTo = {"db"}});
    ASSERT_TRUE(tool.node.start());
    ASSERT_TRUE(eventually([&] { return tool.node.peerName(0) == "db" && !peer(100).name.empty(); }));
    RawPeer raw(path("db"));
    ASSERT_TRUE(raw.join(200));
    ASSERT_TRUE(eventually([&] { return peer(200).node == 200; }));
    for (std::int32_t number = 0; number < 3; ++number)
        ASSERT_TRUE(tool.node.send(0, numbered(number)));
    ASSERT_TRUE(db.node.send(100, numbered(0)));
    ASSERT_TRUE(eventually([&] { return db.size() == 3 && tool.size() == 1; }));

    const std::vector<PeerInfo> peers = db.node.peers();
    ASSERT_EQ(peers.size(), 2U);
    EXPECT_EQ(peers[1].node, 200);
    EXPECT_EQ(peers[1].received + peers[1].sent + peers[1].dropped, 0U);
    EXPECT_EQ(peers[0].name, "tool");
    EXPECT_EQ(peers[0].pid, getpid());
    EXPECT_EQ(peers[0].uid, geteuid());
    EXPECT_EQ(peers[0].received, 3U);
    EXPECT_EQ(peers[0].unhandled, 3U);
    EXPECT_EQ(peers[0].sent, 1U);
    EXPECT_EQ(peers[0].dropped, 0U);
    db.take(); // handled
    EXPECT_EQ(peer(100).unhandled, 0U);
    ASSERT_EQ(tool.node.peers().size(), 1U); // the dialling side knows the same
    EXPECT_EQ(tool.node.peers().front().sent, 3U);
    EXPECT_EQ(tool.node.peers().front().received, 1U);
    raw.close();
    EXPECT_TRUE(eventually([&] { return db.node.peers().size() == 1; }));
}

TEST_F(PeersTest, PeerThatDoesNotReadSeesWhatItMissedInTheSequence)
{
    RawPeer slow(path("db"));
    ASSERT_TRUE(slow.join(66));
    ASSERT_TRUE(eventually([&] { return peer(66).node == 66; }));
    const auto offer = [&] { return db.node.send(66, numbered(0, 60'000)); };
    std::uint64_t taken = 0;
    while (offer())
        ++taken;
    constexpr std::uint64_t lost = 5;
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    for (std::uint64_t i = 1; i < lost; ++i) // one is lost already
        EXPECT_FALSE(offer());
    const PeerInfo stuck = peer(66);
    EXPECT_EQ(stuck.sent, taken);
    EXPECT_EQ(stuck.dropped, lost);
    EXPECT_GT(stuck.queuedBytes, 4'000'000U);
    EXPECT_GE(stuck.idle.count(), 120) << "what is lost is no activity";

    for (std::uint64_t number = 1; number <= taken; ++number) {
        const auto frame = slow.receive();
        ASSERT_TRUE(frame);
        ASSERT_EQ(frame->sequence, number);
    }
    EXPECT_TRUE(eventually([&] { return peer(66).idle < stuck.idle; }));
    ASSERT_TRUE(offer());
    const auto next = slow.receive();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->sequence, taken + lost + 1);
    EXPECT_EQ(peer(66).sent, taken + 1);
    EXPECT_EQ(peer(66).queuedBytes, 0U);
}

TEST_F(PeersTest, AreToldWhileTheyComeSendAndGo)
{
    std::atomic<bool> ended{false};
    std::thread asking([&] {
        while (!ended)
            for (const PeerInfo& info : db.node.peers())
                EXPECT_EQ(info.name, "raw");
    });
    for (std::int32_t id = 100; id < 160; ++id) {
        RawPeer coming(path("db"));
        EXPECT_TRUE(coming.join(id));
        coming.send({.id = 0x1009, .sender = id, .receiver = 0}, numbered(id).serialize());
        db.node.send(id, numbered(id));
        db.take();
    }
    EXPECT_TRUE(eventually([&] { return db.node.peers().empty(); }));
    ended = true;
    asking.join();
}

TEST(Listing, ThatDoesNotFitInAFrameStillTravelsAndTellsHowMuchIsMissing)
{
    using namespace Messages;
    constexpr std::int32_t longest = std::numeric_limits<std::int32_t>::min(); // in bytes
    TAMO_ListSubscriptionsRsp keys(true, longest);
    keys.add({.key = std::string(30'000, 'k'), .ticket = longest, .clients = {}});
    keys.add({.key = "crowded", .ticket = longest, .clients = std::vector(190'000, longest)});
    keys.add({.key = std::string(900'000, 'k'), .ticket = 1, .clients = {}}); // too much
    for (int i = 0; i < 20'000; ++i)
        keys.add({.key = "k", .ticket = longest, .clients = {longest}});
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::min();
    TAMO_ListClientsRsp clients(true, longest);
    for (int i = 0; i < 20'000; ++i)
        clients.add({"tool", longest, longest, most, most, most, most, most, most, most});

    const auto travel = [](const auto& listing, auto arrived) {
        const Bytes body = listing.serialize();
        EXPECT_LE(body.size(), Wire::maxFrameSize - Wire::headerSize);
        EXPECT_GT(body.size(), 900'000U) << "room was left unused";
        const RawMessage raw{listing.id, 0, 100, 1, body, nullptr};
        EXPECT_TRUE(arrived.deserialize(&raw));
        EXPECT_EQ(arrived.records.size(), listing.records.size());
        EXPECT_LT(arrived.records.size(), static_cast<std::size_t>(arrived.total));
        return arrived;
    };
    const auto keysThere = travel(keys, TAMO_ListSubscriptionsRsp());
    EXPECT_EQ(keysThere.total, 20'003);
    EXPECT_EQ(keysThere.records[1].clients.size(), 190'000U);
    EXPECT_EQ(keysThere.records[2].key, "k");
    const auto clientsThere = travel(clients, TAMO_ListClientsRsp());
    EXPECT_EQ(clientsThere.total, 20'000);
    EXPECT_EQ(clientsThere.records.back().idle, most);
}

} // namespace
