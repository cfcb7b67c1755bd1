// What the service tells about itself.

#include "tests/requests/RequestTest.h"

#include "platform/messages/Diagnostics.h"

#include <algorithm>
#include <unistd.h>

using namespace TAMO::Messages;

TEST_F(RequestTest, ClientsAreListedWithWhatTheyWereSent)
{
    TAMO_DBPresence presence;
    presence.dn = "A=1";
    for (int i = 0; i < 3; ++i)
        ask<TAMO_DBPresenceRsp>(presence);
    const auto answer = ask<TAMO_ListClientsRsp>(TAMO_ListClients(), autointegration);
    EXPECT_EQ(answer.total, 2);
    ASSERT_EQ(answer.records.size(), 2U);
    EXPECT_EQ(answer.records[0].name, "ai");
    EXPECT_EQ(answer.records[0].sent, 0);
    EXPECT_EQ(answer.records[1].name, "client");
    EXPECT_EQ(answer.records[1].node, 100);
    EXPECT_EQ(answer.records[1].sent, 3);
    EXPECT_EQ(answer.records[1].pid, getpid());
}

TEST_F(RequestTest, DiagnosticRequestsThatCannotBeReadAreRefused)
{
    handle(TAMO_ListClients::id, {0x92, 0x07, 0x01}, client.id()); // a field too many
    const auto clients = client.next<TAMO_ListClientsRsp>();
    ASSERT_TRUE(clients);
    EXPECT_EQ(clients->transId, 7);
    EXPECT_EQ(clients->total, -1);
    EXPECT_TRUE(clients->records.empty());
    handle(TAMO_ListSubscriptions::id, {0x91, 0xA1, 'x'}, client.id()); // nobody to answer
    EXPECT_TRUE(client.gotNothing());
}

TEST_F(RequestTest, SubscriptionsAreListedWithTheirClients)
{
    const auto before = ask<TAMO_ListSubscriptionsRsp>(TAMO_ListSubscriptions());
    const std::int32_t ticket = service.registerToNotif("A=1,1,,,", 11);
    service.registerToNotif("A=1,1,,,", autointegration.id());
    service.registerToNotif("A=1,1,,,", 11);
    service.registerToNotif("B=1,1,,,", 11);
    const auto answer = ask<TAMO_ListSubscriptionsRsp>(TAMO_ListSubscriptions());
    EXPECT_EQ(answer.total, before.total + 2); // the service's own buffer has subscribed, too
    const auto found = std::ranges::find(answer.records, "A=1,1,,,", &SubscriptionRecord::key);
    ASSERT_NE(found, answer.records.end());
    EXPECT_EQ(found->ticket, ticket);
    EXPECT_EQ(found->clients, (std::vector{11, autointegration.id(), 11}));
}
