// The connection: greeting, node ids, matching of answers, and every way a service can misbehave.

#include "ServiceSocket.h"
#include "TreeService.h"

#include "platform/messages/Answers.h"
#include "platform/messages/Notifications.h"
#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"

using namespace TAMO;
using namespace TAMO::Messages;

namespace {

/// For waits that are to end without an answer; all others may take as long as a busy machine needs.
constexpr std::chrono::milliseconds soon{500};
constexpr std::chrono::milliseconds patient{20000};

std::optional<Trouble> troubleOf(const std::function<void()>& work)
{
    try {
        work();
        return std::nullopt;
    } catch (const ClientError& error) {
        return error.kind;
    }
}

class Connection : public testing::Test {
protected:
    ServiceClient::Options options(std::optional<std::int32_t> node = {},
                                   std::chrono::milliseconds timeout = patient) const
    {
        return {directory.path(), "test", node, timeout};
    }
    /// What becomes of a presence request when a greeted service goes on with `script`.
    std::optional<Trouble> presenceAgainst(const std::function<void(RawPeer&, const TAMO_DBPresence&)>& script)
    {
        const ServiceSocket service(directory.path(), [&](RawPeer& peer) {
            peer.greet();
            Wire::FrameHeader header;
            RawMessage raw;
            raw.body = peer.read(header);
            TAMO_DBPresence request;
            ASSERT_TRUE(request.deserialize(&raw));
            script(peer, request);
            peer.read(header); // until the client goes
        });
        ServiceClient client(options());
        const auto trouble = troubleOf([&] { Database(client).exists("A=1"); });
        std::filesystem::remove(Wire::socketPath(directory.path(), "db"));
        return trouble;
    }
    SocketDirectory directory;
};

} // namespace

TEST_F(Connection, TakesTheFirstFreeNodeIdAndIsToldWhyAnotherIsRefused)
{
    const TreeService service(directory.path());
    ServiceClient first(options());
    ServiceClient second(options());
    EXPECT_EQ(first.node(), ServiceClient::firstFreeNode);
    EXPECT_EQ(second.node(), ServiceClient::firstFreeNode + 1);
    EXPECT_EQ(troubleOf([&] { ServiceClient third(options(first.node())); }), Trouble::refused);
    EXPECT_EQ(ServiceClient(options(11)).node(), 11);
}

TEST_F(Connection, AnswerIsTheOneWithOurTransactionId)
{
    // Another request's answer, a notification, an answer of another kind: none of them is ours.
    const auto talk = [](RawPeer& peer, const TAMO_DBPresence& request) {
        peer.write(TAMO_DBPresenceRsp(true, request.transId ^ 1));
        TAMO_DBNotification notification;
        notification.ticket = 7;
        peer.write(notification);
        peer.write(TAMO_DBDeleteRsp(true, request.transId));
        peer.write(TAMO_DBPresenceRsp(false, request.transId));
    };
    const ServiceSocket service(directory.path(), [&](RawPeer& peer) {
        peer.greet();
        Wire::FrameHeader header;
        for (RawMessage raw; !(raw.body = peer.read(header)).empty();) {
            TAMO_DBPresence request;
            ASSERT_TRUE(request.deserialize(&raw));
            EXPECT_GT(request.transId, 0); // negative ones are another client's to the service
            talk(peer, request);
        }
    });
    ServiceClient client(options());
    EXPECT_FALSE(Database(client).exists("A=1"));
    EXPECT_FALSE(Database(client).exists("A=1"));
    ASSERT_EQ(client.notifications().size(), 2u);
    TAMO_DBNotification notification;
    ASSERT_TRUE(notification.deserialize(&client.notifications().front()));
    EXPECT_EQ(notification.ticket, 7);
}

TEST_F(Connection, ServiceThatIsNotThereIsTold)
{
    EXPECT_EQ(troubleOf([&] { ServiceClient client(options()); }), Trouble::noService);
    {
        const ServiceSocket gone(directory.path(), [](RawPeer&) {});
    }
    EXPECT_EQ(troubleOf([&] { ServiceClient client(options()); }), Trouble::noService); // nobody listens
    auto tooLong = options();
    tooLong.directory = "/tmp/" + std::string(120, 'x');
    EXPECT_EQ(troubleOf([&] { ServiceClient client(tooLong); }), Trouble::noService);
}

TEST_F(Connection, SilenceEndsAtTheDeadlineAndALateAnswerIsDropped)
{
    std::int32_t late = 0;
    const ServiceSocket service(directory.path(), [&](RawPeer& peer) {
        peer.greet();
        Wire::FrameHeader header;
        for (RawMessage raw; !(raw.body = peer.read(header)).empty();) {
            TAMO_DBPresence request;
            ASSERT_TRUE(request.deserialize(&raw));
            if (std::exchange(late, request.transId) == 0)
                continue; // silent at first
            peer.write(TAMO_DBPresenceRsp(false, late ^ 1));
            peer.write(TAMO_DBPresenceRsp(true, request.transId));
        }
    });
    ServiceClient client(options({}, soon));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(troubleOf([&] { Database(client).exists("A=1"); }), Trouble::timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, soon);
    EXPECT_TRUE(Database(client).exists("A=1"));
}

TEST_F(Connection, GreetingThatGoesWrong)
{
    const std::pair<std::function<void(RawPeer&)>, Trouble> greetings[] = {
        {[](RawPeer&) {}, Trouble::noService}, // hangs up
        {[](RawPeer& peer) { peer.write(Wire::Refused("user 7 may not use this node")); }, Trouble::refused},
        {[](RawPeer& peer) { peer.write(Bytes(40, 0xFF)); }, Trouble::protocol},
        {[](RawPeer& peer) { peer.write(TAMO_DBPresenceRsp(true, 1)); }, Trouble::protocol},
        {[](RawPeer& peer) {
             Wire::Hello later(0, "db");
             later.version = 99;
             peer.write(later);
         },
         Trouble::protocol},
        {[](RawPeer& peer) {
             Wire::FrameHeader header;
             peer.read(header); // swallows the second greeting that never comes
         },
         Trouble::timeout}};
    for (const auto& [greeting, trouble] : greetings) {
        const ServiceSocket service(directory.path(), [&greeting = greeting](RawPeer& peer) {
            Wire::FrameHeader header;
            peer.read(header);
            greeting(peer);
        });
        EXPECT_EQ(troubleOf([&, trouble = trouble] {
                      ServiceClient client(options({}, trouble == Trouble::timeout ? soon : patient));
                  }),
                  trouble)
            << &greeting - &greetings[0].first;
        std::filesystem::remove(Wire::socketPath(directory.path(), "db"));
    }
}

TEST_F(Connection, AnswerThatGoesWrong)
{
    const auto oversized = [](RawPeer& peer, const TAMO_DBPresence&) {
        peer.writeHeader({Wire::maxFrameSize, TAMO_DBPresenceRsp::id, 0, 100, peer.sequence});
    };
    const auto frameRepeated = [](RawPeer& peer, const TAMO_DBPresence& request) {
        --peer.sequence;
        peer.write(TAMO_DBPresenceRsp(true, request.transId));
    };
    const auto damaged = [](RawPeer& peer, const TAMO_DBPresence&) {
        peer.write(TAMO_DBPresenceRsp::id, Bytes{0xDF, 0xFF, 0xFF, 0xFF, 0xFF});
    };
    const auto truncated = [](RawPeer& peer, const TAMO_DBPresence& request) {
        Bytes body = TAMO_DBPresenceRsp(true, request.transId).serialize();
        body.pop_back();
        peer.write(TAMO_DBPresenceRsp::id, body);
    };
    EXPECT_EQ(presenceAgainst(oversized), Trouble::protocol);
    EXPECT_EQ(presenceAgainst(frameRepeated), Trouble::protocol);
    EXPECT_EQ(presenceAgainst(damaged), Trouble::protocol);
    EXPECT_EQ(presenceAgainst(truncated), Trouble::protocol);
}

TEST_F(Connection, DroppedMessagesAreToldOnceWhereTheyAreMissing)
{
    const ServiceSocket service(directory.path(), [](RawPeer& peer) {
        peer.greet();
        Wire::FrameHeader header;
        RawMessage raw;
        raw.body = peer.read(header);
        TAMO_DBPresence request;
        ASSERT_TRUE(request.deserialize(&raw));
        const auto notify = [&peer](std::int32_t ticket) {
            TAMO_DBNotification notification;
            notification.ticket = ticket;
            peer.write(notification);
        };
        notify(1);
        peer.write(TAMO_DBPresenceRsp(true, request.transId));
        notify(2);
        peer.sequence += 3;
        notify(3);
        peer.read(header); // until the client goes
    });
    ServiceClient client(options());
    EXPECT_TRUE(Database(client).exists("A=1"));
    const auto nextTicket = [&client] {
        TAMO_DBNotification notification;
        const auto raw = client.nextNotification(std::chrono::steady_clock::now() + patient);
        EXPECT_TRUE(raw && notification.deserialize(&*raw));
        return notification.ticket;
    };
    EXPECT_EQ(nextTicket(), 1);
    EXPECT_EQ(nextTicket(), 2);
    EXPECT_EQ(troubleOf(nextTicket), Trouble::missed);
    EXPECT_EQ(nextTicket(), 3);
    EXPECT_FALSE(client.nextNotification(std::chrono::steady_clock::now() + soon / 10));
}

TEST_F(Connection, LossInTheMiddleOfAnAnswerIsTold)
{
    const ServiceSocket service(directory.path(), [](RawPeer& peer) {
        peer.greet();
        Wire::FrameHeader header;
        peer.read(header);
        peer.writeHeader({100, TAMO_DBPresenceRsp::id, 0, 100, peer.sequence});
    });
    ServiceClient client(options());
    EXPECT_EQ(troubleOf([&] { Database(client).exists("A=1"); }), Trouble::noService);
    EXPECT_EQ(troubleOf([&] { Database(client).exists("A=1"); }), Trouble::noService); // and stays lost
}

TEST_F(Connection, RequestThatFitsNoFrameIsNotSentAndTheNextOneWorks)
{
    TreeService service(directory.path());
    ServiceClient client(options());
    Database database(client);
    std::string noise; // that does not compress
    std::mt19937 random(1);
    while (noise.size() < 500000)
        noise += static_cast<char>(random());
    DBObject large = newObject("A=1");
    large.addAttribute(newAttribute("text", noise, 9));
    EXPECT_EQ(troubleOf([&] { EXPECT_FALSE(database.insert(large)); }), Trouble::tooLarge);
    EXPECT_EQ(troubleOf([&] { database.exists("A=" + std::string(2000000, 'x')); }), Trouble::tooLarge);
    EXPECT_TRUE(database.insert(newObject("A=1")));
    EXPECT_TRUE(database.exists("A=1"));
}
