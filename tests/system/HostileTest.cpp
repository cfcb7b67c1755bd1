// What strangers may send to a running service: whatever it is, the next good client is served.
#include "Process.h"

#include "platform/host/Frame.h"
#include "platform/messages/Requests.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <random>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace TAMO;

namespace {

constexpr std::int32_t strangersId = 99;

/// A connection that says what the test wants it to say.
class Stranger {
public:
    explicit Stranger(const Node& node) : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = node.path("run/db.sock");
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << std::strerror(errno);
    }
    ~Stranger() { ::close(m_socket); }
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    /// False when the service has closed the connection meanwhile.
    bool send(const Bytes& bytes) const
    {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t put = ::send(m_socket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (put <= 0)
                return false;
            done += static_cast<std::size_t>(put);
        }
        return true;
    }
    bool sendFrame(std::uint32_t id, const Bytes& body, std::int32_t sender, std::int32_t receiver) const
    {
        const auto header = Wire::encodeHeader({static_cast<std::uint32_t>(body.size()), id, sender, receiver, 0});
        Bytes frame(header.begin(), header.end());
        frame.insert(frame.end(), body.begin(), body.end());
        return send(frame);
    }
    bool request(std::uint32_t id, const Bytes& body) const { return sendFrame(id, body, strangersId, 0); }
    void greet(std::int32_t as = strangersId, std::int32_t version = Wire::protocolVersion) const
    {
        Wire::Hello hello(as, "stranger");
        hello.version = version;
        sendFrame(hello.id, hello.serialize(), as, -1);
    }
    /// True when a greeting comes back, false when it is refused or the connection ends.
    bool isWelcome() const
    {
        std::array<std::uint8_t, Wire::headerSize> header{};
        std::size_t got = 0;
        while (got < header.size() && readable()) {
            const ssize_t count = ::recv(m_socket, header.data() + got, header.size() - got, 0);
            if (count <= 0)
                return false;
            got += static_cast<std::size_t>(count);
        }
        return got == header.size() && Wire::decodeHeader(header.data()).id == Wire::Hello::id;
    }
    /// True when the service closes the connection.
    bool isClosed() const
    {
        std::uint8_t block[4096];
        while (readable())
            if (::recv(m_socket, block, sizeof block, 0) <= 0)
                return true;
        return false;
    }

private:
    bool readable() const
    {
        constexpr int patience = 20'000; // milliseconds
        pollfd waiting{m_socket, POLLIN, 0};
        return ::poll(&waiting, 1, patience) > 0;
    }
    int m_socket;
};

class Hostile : public testing::Test {
protected:
    Hostile() : service(node.servicePid()) {}
    ~Hostile() override
    {
        const auto answer = node.client({"insert", "ManagedElement=1", "userLabel=still here"});
        EXPECT_EQ(answer.code, 0) << answer.error;
        EXPECT_EQ(node.servicePid(), service) << "the same process";
    }
    void closesAfter(const Bytes& bytes, bool greeted) const
    {
        const Stranger stranger(node);
        if (greeted) {
            stranger.greet();
            ASSERT_TRUE(stranger.isWelcome());
        }
        stranger.send(bytes);
        EXPECT_TRUE(stranger.isClosed());
    }
    const Node node;
    const pid_t service;
};

Bytes header(std::uint32_t length, std::int32_t sender, std::int32_t receiver)
{
    const auto bytes = Wire::encodeHeader({length, 0x1009, sender, receiver, 0});
    return {bytes.begin(), bytes.end()};
}

/// A filled-in body of each request, to be spoilt. Not those that close or empty the database.
std::vector<std::pair<std::uint32_t, Bytes>> bodies()
{
    std::vector<std::pair<std::uint32_t, Bytes>> all;
    const auto add = [&](auto request) {
        request.transId = 4711;
        all.emplace_back(request.messageId(), request.serialize());
    };
    Messages::TAMO_DBInsert insert;
    insert.operation = Messages::operationInsert;
    insert.object = Bytes(200, 0x93);
    add(insert);
    insert.uncompressedSize = 0x7FFFFFFF;
    add(insert);
    Messages::TAMO_DBUpdate update;
    update.object = Bytes(200, 0xDD);
    add(update);
    Messages::TAMO_DBInsertToCommonDb common;
    common.object = Bytes(10, 0xFF);
    add(common);
    Messages::TAMO_DBFetch fetch;
    fetch.dn = "ManagedElement=1,\"unclosed";
    add(fetch);
    Messages::TAMO_DBFetchAttr attribute;
    attribute.dn = "=,=,,=";
    add(attribute);
    Messages::TAMO_DBFetchMOClass moClass;
    moClass.moClass = "%n%s%d";
    add(moClass);
    Messages::TAMO_DBSetAttributeValues values;
    values.container.dnAttrNameMap["a"] = "ManagedElement=1";
    values.container.attributes["b"] = std::string("uneven");
    add(values);
    add(Messages::TAMO_DBDelete());
    add(Messages::TAMO_DBCreateObject());
    add(Messages::TAMO_DBSetAttributeValue());
    add(Messages::TAMO_deleteAttribute());
    add(Messages::TAMO_DBFetchAllChildren());
    add(Messages::TAMO_DBFetchMOClassWithParent());
    add(Messages::TAMO_DBPresence());
    add(Messages::TAMO_getWholeDn());
    add(Messages::TAMO_DBTransaction());
    add(Messages::TAMO_DBRegToNotif());
    add(Messages::TAMO_DBUnRegToNotif());
    add(Messages::TAMO_DBOrderReady());
    return all;
}

} // namespace

TEST_F(Hostile, BytesThatAreNoFramesCloseTheConnection)
{
    const std::string other = "GET / HTTP/1.0\r\nHost: localhost\r\n\r\n";
    closesAfter(Bytes(other.begin(), other.end()), false);
    closesAfter(Bytes(64, 0xFF), false);
    closesAfter(header(2000, strangersId, 0), false);      // no greeting is that long
    closesAfter(header(0xFFFFFFFF, strangersId, 0), true); // 4 GiB to come
    closesAfter(header(Wire::maxFrameSize, strangersId, 0), true);
    closesAfter(header(0, strangersId + 1, 0), true); // in somebody else's name
    closesAfter(header(0, strangersId, 3), true);     // for somebody else
}

TEST_F(Hostile, GreetingsOfTheWrongKindAreRefused)
{
    const auto welcome = [&](std::int32_t as, std::int32_t version) {
        const Stranger stranger(node);
        stranger.greet(as, version);
        return stranger.isWelcome();
    };
    EXPECT_FALSE(welcome(strangersId, Wire::protocolVersion + 1));
    EXPECT_FALSE(welcome(0, Wire::protocolVersion));
    EXPECT_FALSE(welcome(-1, Wire::protocolVersion));
    const Stranger first(node);
    first.greet();
    EXPECT_TRUE(first.isWelcome());
    EXPECT_FALSE(welcome(strangersId, Wire::protocolVersion)) << "the id is held";
}

TEST_F(Hostile, HalfARequestAndSilenceHarmNobody)
{
    std::vector<std::unique_ptr<Stranger>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<Stranger>(node));
        if (i % 2)
            silent.back()->greet(200 + i);
        if (i % 4 == 3)
            silent.back()->send(header(500, 200 + i, 0)); // and never the body
    }
    EXPECT_EQ(node.client({"ready"}).code, 0);
}

TEST_F(Hostile, SpoiltBodiesOfEveryRequestAreSurvived)
{
    std::mt19937 random(20); // always the same bytes
    const Stranger stranger(node);
    stranger.greet();
    ASSERT_TRUE(stranger.isWelcome());
    for (const auto& [id, body] : bodies()) {
        ASSERT_TRUE(stranger.request(id, body));
        for (std::size_t length = 0; length < std::min<std::size_t>(body.size(), 40); ++length)
            ASSERT_TRUE(stranger.request(id, Bytes(body.begin(), body.begin() + static_cast<long>(length))));
        for (int i = 0; i < 40; ++i) {
            Bytes spoilt = body;
            for (int change = 0; change < 3; ++change)
                spoilt[random() % spoilt.size()] = static_cast<std::uint8_t>(random());
            ASSERT_TRUE(stranger.request(id, spoilt));
        }
        ASSERT_TRUE(stranger.request(id, {0x92, 0x01, 0xDD, 0xFF, 0xFF, 0xFF, 0xFF})); // an array of 2^32-1
        ASSERT_TRUE(stranger.request(id, {0x92, 0x01, 0xC6, 0xFF, 0xFF, 0xFF, 0xFF})); // 4 GiB of bytes
        ASSERT_TRUE(stranger.request(id, Bytes(1000, 0x91)));                          // a thousand deep
    }
    ASSERT_TRUE(stranger.request(0x7777, {0x91, 0x01})); // no such request
}
