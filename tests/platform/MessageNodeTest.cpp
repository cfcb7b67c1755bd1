// Who gets to talk to a node, and what happens to those who break the rules.

#include "tests/platform/PlatformTest.h"

#include <csignal>
#include <grp.h>
#include <sys/stat.h>

namespace {

using Wire::Hello;
using Wire::Refused;

class MessageNodeTest : public PlatformTest {
protected:
    /// A good client gets through to `server` while others misbehave.
    void expectService(Station& server)
    {
        static std::int32_t nextId = 500;
        const std::int32_t id = nextId++;
        Station client({.directory = directory, .name = "good", .id = id, .listen = false, .connectTo = {"db"}});
        ASSERT_TRUE(client.node.start());
        ASSERT_TRUE(eventually([&] { return client.node.peerName(0) == "db"; }));
        ASSERT_TRUE(client.node.send(0, numbered(id)));
        ASSERT_TRUE(eventually([&] {
            for (const auto& message : server.take())
                if (message->sender == id && numberOf(*message) == id)
                    return true;
            return false;
        }));
    }

    std::string refusal(const RawPeer& peer)
    {
        const auto answer = peer.receive();
        Refused refused;
        if (!answer || answer->id != Refused::id || !refused.deserialize(&*answer) || !peer.ended())
            return "not refused";
        return refused.reason;
    }
};

TEST_F(MessageNodeTest, RefusesBadGreetingsWithAReasonAndGoesOn)
{
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    const auto refusedHello = [&](auto change) {
        RawPeer peer(path("db"));
        Hello hello(100, "raw");
        change(hello);
        peer.greet(hello);
        return refusal(peer);
    };
    EXPECT_NE(refusedHello([](Hello& hello) { hello.version = 2; }).find("protocol version 2"), std::string::npos);
    EXPECT_NE(refusedHello([](Hello& hello) { hello.magic = "http"; }).find("greeting"), std::string::npos);
    EXPECT_NE(refusedHello([](Hello& hello) { hello.node = 0; }).find("not accepted"), std::string::npos);
    EXPECT_NE(refusedHello([](Hello& hello) { hello.node = -7; }).find("not accepted"), std::string::npos);
    EXPECT_NE(refusedHello([](Hello& hello) { hello.name.clear(); }).find("hold together"), std::string::npos);
    EXPECT_NE(refusedHello([](Hello& hello) { hello.name.assign(65, 'n'); }).find("hold together"), std::string::npos);

    RawPeer liar(path("db")); // the header names another node than the body
    liar.send({.id = Hello::id, .sender = 101, .receiver = -1}, Hello(102, "raw").serialize());
    EXPECT_NE(refusal(liar).find("hold together"), std::string::npos);

    RawPeer eager(path("db")); // a request before the greeting
    eager.send({.id = 0x1009, .sender = 101, .receiver = 0}, numbered(1).serialize());
    EXPECT_NE(refusal(eager).find("greeting was expected"), std::string::npos);

    RawPeer later(path("db")); // ["tamo", 2, 100, "raw", true]: a later version with more to say
    later.send({.id = Hello::id, .sender = 100, .receiver = -1},
               {0x95, 0xA4, 't', 'a', 'm', 'o', 2, 100, 0xA3, 'r', 'a', 'w', 0xC3});
    EXPECT_NE(refusal(later).find("protocol version 2"), std::string::npos);

    EXPECT_EQ(log.count(mwLogError, "refused"), 9);
    expectService(db);
}

TEST_F(MessageNodeTest, NodeIdIsHeldByOneLiveConnection)
{
    Station fm(options("fm", 3));
    ASSERT_TRUE(fm.node.start());
    RawPeer own(path("fm"));
    own.greet(Hello(3, "raw"));
    EXPECT_EQ(refusal(own), "node id 3 is this node's own");

    RawPeer first(path("fm"));
    ASSERT_TRUE(first.join(100));
    RawPeer second(path("fm"));
    second.greet(Hello(100, "raw"));
    EXPECT_EQ(refusal(second), "node id 100 is taken");

    Station tool({.directory = directory, .name = "tool", .id = 100, .listen = false, .connectTo = {"fm"}});
    ASSERT_TRUE(tool.node.start());
    EXPECT_TRUE(eventually([&] { return tool.node.lastRefusal() == "node id 100 is taken"; }));
    first.close();
    EXPECT_TRUE(eventually([&] { return tool.node.peerName(3) == "fm"; }));
    EXPECT_EQ(tool.node.lastRefusal(), "");
    EXPECT_EQ(fm.node.peerName(100), "tool");
}

TEST_F(MessageNodeTest, SilentConnectionIsClosedAfterTheDeadline)
{
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    const auto start = std::chrono::steady_clock::now();
    RawPeer silent(path("db"));
    EXPECT_EQ(refusal(silent), "no greeting within 5 s");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
}

TEST_F(MessageNodeTest, CrowdOfConnectionsLeavesRoomForThoseWhoGreetAndForServices)
{
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    std::vector<std::unique_ptr<RawPeer>> silent;
    for (int i = 0; i < 74; ++i)
        silent.push_back(std::make_unique<RawPeer>(path("db")));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(refusal(*silent[static_cast<std::size_t>(i)]), "64 others have not greeted either");
    EXPECT_TRUE(silent[10]->join(99));
    silent.clear();

    std::vector<std::unique_ptr<RawPeer>> clients;
    for (std::int32_t id = 100; id < 356; ++id) {
        clients.push_back(std::make_unique<RawPeer>(path("db")));
        ASSERT_TRUE(eventually([&] { return clients.back()->join(id); }));
    }
    for (int i = 0; i < 3; ++i) {
        RawPeer more(path("db"));
        more.greet(Hello(400, "raw"));
        EXPECT_EQ(refusal(more), "there are 256 connections already");
    }
    RawPeer service(path("db"));
    EXPECT_TRUE(service.join(16));
    clients.pop_back();
    expectService(db);
    EXPECT_EQ(log.count(mwLogError, "too many connections"), 1);
}

TEST_F(MessageNodeTest, HostileFrameCostsItsSenderTheConnectionOnly)
{
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    const auto disconnects = [&](auto misbehave) {
        const int before = log.count(mwLogError);
        RawPeer peer(path("db"));
        ASSERT_TRUE(peer.join(66));
        misbehave(peer);
        EXPECT_TRUE(peer.ended());
        EXPECT_TRUE(eventually([&] { return log.count(mwLogError) == before + 1; }));
        ASSERT_TRUE(eventually([&] { return db.node.peerName(66).empty(); }));
    };
    const auto frame = [](std::uint32_t length, std::uint32_t id, std::int32_t sender, std::int32_t receiver) {
        return [=](RawPeer& peer) {
            const auto head = Wire::encodeHeader({length, id, sender, receiver, 1});
            peer.write(head.data(), head.size());
        };
    };
    disconnects(frame(Wire::maxFrameSize - Wire::headerSize + 1, 0x1009, 66, 0)); // a byte too long
    disconnects(frame(0xFFFFFFFF, 0x1009, 66, 0));
    disconnects(frame(0, 0x1009, 67, 0));    // in another's name
    disconnects(frame(0, 0x1009, 66, 3));    // for another
    disconnects(frame(0, Hello::id, 66, 0)); // greets again
    disconnects([](RawPeer& peer) { peer.write("GET / HTTP/1.1\r\nHost: db\r\n\r\n", 28); });

    RawPeer torn(path("db"));
    ASSERT_TRUE(torn.join(66));
    frame(50, 0x1009, 66, 0)(torn);
    torn.close();
    EXPECT_TRUE(eventually([&] { return log.count(mwLogError, "middle of a frame") == 1; }));
    EXPECT_EQ(db.size(), 0U);
    expectService(db);
}

TEST_F(MessageNodeTest, FramesArriveWholeHoweverTheyAreCut)
{
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    RawPeer peer(path("db"));
    ASSERT_TRUE(peer.join(66));
    const std::size_t largest = Wire::maxFrameSize - Wire::headerSize;
    Bytes stream;
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{40'000}, largest, std::size_t{3}}) {
        const auto head = Wire::encodeHeader({static_cast<std::uint32_t>(length), 0x1009, 66, 0, 1});
        stream.insert(stream.end(), head.begin(), head.end());
        stream.resize(stream.size() + length, static_cast<std::uint8_t>(length));
    }
    for (std::size_t at = 0; at < stream.size();) { // byte by byte at first, then in odd pieces
        const std::size_t piece = std::min(at < 60 ? 1 : std::size_t{30'011}, stream.size() - at);
        ASSERT_TRUE(peer.write(stream.data() + at, piece));
        at += piece;
    }
    ASSERT_TRUE(eventually([&] { return db.size() == 5; }));
    const auto messages = db.take();
    EXPECT_EQ(messages[2]->body, Bytes(40'000, static_cast<std::uint8_t>(40'000 & 0xFF)));
    EXPECT_EQ(messages[3]->body.size(), largest);
    EXPECT_EQ(messages[4]->body, Bytes(3, 3));
}

TEST_F(MessageNodeTest, StaleSocketIsReplacedAndASecondInstanceRefused)
{
    const std::string below = directory + "/made";
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        MessageNode node({.directory = below, .name = "db", .id = 0});
        const char result = node.start() ? 'y' : 'n';
        [[maybe_unused]] const auto written = ::write(ready[1], &result, 1);
        pause();
    }
    char result = 0;
    ASSERT_EQ(::read(ready[0], &result, 1), 1);
    ASSERT_EQ(result, 'y');
    {
        MessageNode second({.directory = below, .name = "db", .id = 0});
        EXPECT_FALSE(second.start());
        EXPECT_EQ(log.count(mwLogError, "another process runs as this node"), 1);
        EXPECT_TRUE(RawPeer(Wire::socketPath(below, "db")).join(100)); // the first is not disturbed
    }
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    ASSERT_TRUE(std::filesystem::exists(Wire::socketPath(below, "db")));

    Station next({.directory = below, .name = "db", .id = 0});
    ASSERT_TRUE(next.node.start());
    EXPECT_TRUE(RawPeer(Wire::socketPath(below, "db")).join(100));
    struct stat made {};
    ASSERT_EQ(::stat(below.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0750U);
    ASSERT_EQ(::stat(Wire::socketPath(below, "db").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0660U);
    next.node.stop();
    EXPECT_FALSE(std::filesystem::exists(Wire::socketPath(below, "db")));
}

TEST_F(MessageNodeTest, CannotListenOnLongPathsOrOverFilesThatAreNoSockets)
{
    const std::string deep = directory + '/' + std::string(107 - directory.size() - 9, 'd');
    EXPECT_TRUE(MessageNode({.directory = deep, .name = "db", .id = 0}).start()); // 107 characters
    EXPECT_FALSE(MessageNode({.directory = deep + 'd', .name = "db", .id = 0}).start());
    EXPECT_EQ(log.count(mwLogError, "108 characters"), 1);

    std::filesystem::create_directory(path("db"));
    EXPECT_FALSE(MessageNode(options("db", 0)).start());
    EXPECT_EQ(log.count(mwLogError, "is not a socket"), 1);
    EXPECT_TRUE(std::filesystem::is_directory(path("db")));
}

TEST_F(MessageNodeTest, OnlyOwnUserRootAndTheSocketsGroupMayConnect)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "another user is only to be had as root";
    Station db(options("db", 0));
    ASSERT_TRUE(db.node.start());
    // Opened to everybody, so that only the credentials decide.
    std::filesystem::permissions(directory, std::filesystem::perms::all);
    std::filesystem::permissions(path("db"), std::filesystem::perms::all);
    const auto joinsAs = [&](uid_t user, gid_t group, std::vector<gid_t> others) {
        const pid_t child = fork();
        if (child == 0) {
            const bool changed =
                setgroups(others.size(), others.data()) == 0 && setgid(group) == 0 && setuid(user) == 0;
            _exit(changed ? RawPeer(path("db")).join(100) : 77);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(eventually([&] { return db.node.peerName(100).empty(); }));
        return WEXITSTATUS(status);
    };
    const gid_t socketGroup = getegid();
    EXPECT_EQ(joinsAs(65534, 65534, {}), 0);
    EXPECT_EQ(joinsAs(65534, 65534, {4, 5}), 0);
    EXPECT_EQ(log.count(mwLogError, "user 65534 may not use this node"), 2);
    EXPECT_EQ(joinsAs(65534, socketGroup, {}), 1);
    EXPECT_EQ(joinsAs(65534, 65534, {4, socketGroup}), 1);
}

TEST_F(MessageNodeTest, ConnectionIsKeptUpInTheBackground)
{
    Station db(options("db", 0, {"fm"}));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(db.node.start());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_FALSE(db.node.send(3, numbered(1)));
    for (int round = 1; round <= 2; ++round) {
        Station fm(options("fm", 3));
        ASSERT_TRUE(fm.node.start());
        ASSERT_TRUE(eventually([&] { return db.node.peerName(3) == "fm"; }));
        EXPECT_TRUE(db.node.send(3, numbered(round)));
        EXPECT_TRUE(eventually([&] { return fm.size() == 1; }));
        EXPECT_TRUE(eventually([&] { return log.count(mwLogInfo, "connected to fm") == round; }));
        fm.node.stop();
        ASSERT_TRUE(eventually([&] { return log.count(mwLogInfo, "connection to fm (node 3) lost") == round; }));
        EXPECT_FALSE(db.node.send(3, numbered(round)));
    }
    EXPECT_EQ(log.count(mwLogError) + log.count(mwLogWarning), 0);
}

TEST_F(MessageNodeTest, NodesThatCallEachOtherEndUpWithOneConnection)
{
    for (int round = 0; round < 20; ++round) {
        Station fm(options("fm", 3, {"reset"}));
        Station reset(options("reset", 9, {"fm"}));
        ASSERT_TRUE(fm.node.start());
        ASSERT_TRUE(reset.node.start());
        ASSERT_TRUE(eventually([&] { return fm.node.send(9, numbered(1)) && reset.node.send(3, numbered(2)); }));
        ASSERT_TRUE(eventually([&] { return fm.size() > 0 && reset.size() > 0; }));
    }
}

} // namespace
