// Who is told of what: keys, tickets, the three kinds of subscriptions, and the buffer of a client
// that comes late.

#include "tests/requests/Subscribing.h"

#include "change/NotificationBuffer.h"
#include "change/SubscriptionKey.h"

#include <algorithm>

using namespace TAMO::Messages;

namespace {

using Buffer = Subscribing;

} // namespace

TEST_F(Subscribing, EachKeyGetsItsChangesAndNoOthers)
{
    ASSERT_TRUE(insert("M=1"));
    const Fields keys[] = {{.dn = "U"},
                           {.dn = "U=1"},
                           {.dn = "U=1", .instance = 1},
                           {.dn = "M=1,U=1"},
                           {.dn = "M=1,U=1", .instance = 1},
                           {.dn = "U=1", .instance = 1, .attribute = "state"},
                           {.dn = "M=1,U=1", .instance = 1, .attribute = "state"},
                           {.dn = "U=1", .instance = 1, .attribute = "state", .operation = 23},
                           {.dn = "M=1,U=1", .instance = 1, .attribute = "state", .operation = 23}};
    // The buffer's key has ticket 1.
    std::int32_t expected = 2;
    for (const Fields& fields : keys)
        EXPECT_EQ(subscribe(client, fields), expected++);
    const Fields strangers[] = {{.dn = "U=2"},
                                {.dn = "M"},
                                {.dn = "U=1", .instance = 2},
                                {.dn = "U=1", .attribute = "state"},
                                {.dn = "U=1", .instance = 1, .operation = 23},
                                {.dn = "U=1", .instance = 1, .attribute = "state", .operation = 9},
                                {.dn = "U=1,state"},
                                {.dn = "%"},
                                {.dn = "U=1", .instance = -1, .attribute = "state", .operation = -23}};
    for (const Fields& fields : strangers)
        EXPECT_GT(subscribe(second, fields), 10);
    ASSERT_TRUE(insert("M=1,U=1", {text("state", "idle")}));
    EXPECT_EQ(told(client), "2:18 M=1,U=1 3:18 M=1,U=1 4:18 M=1,U=1 5:18 M=1,U=1 6:18 M=1,U=1 "
                            "2:18 M=1,U=1 state=idle 3:18 M=1,U=1 state=idle 4:18 M=1,U=1 state=idle "
                            "5:18 M=1,U=1 state=idle 6:18 M=1,U=1 state=idle 7:18 M=1,U=1 state=idle "
                            "8:18 M=1,U=1 state=idle ");
    ASSERT_TRUE(update("M=1,U=1", {text("state", "busy")}));
    const std::string update = told(client);
    EXPECT_TRUE(update.ends_with("7:23 M=1,U=1 state=busy 8:23 M=1,U=1 state=busy 9:23 M=1,U=1 state=busy "
                                 "10:23 M=1,U=1 state=busy "))
        << update;
    EXPECT_TRUE(second.gotNothing());
}

TEST_F(Subscribing, TopLevelObjectIsToldOncePerKey)
{
    const std::int32_t ticket = std::to_string(subscribe(client, {.dn = "A=1"})).front() - '0';
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    ASSERT_TRUE(store().delete_object("A=1", 1, false, "test")) << "here DN and whole DN are the same text";
    const std::string t = std::to_string(ticket);
    EXPECT_EQ(told(client), t + ":18 A=1 " + t + ":18 A=1 a=x " + t + ":9 A=1 " + t + ":9 A=1 a=x ");
}

TEST_F(Subscribing, TicketsAreSharedByKeyAndEntriesCount)
{
    const std::int32_t ticket = subscribe(client, {.dn = "A=1"});
    EXPECT_EQ(subscribe(second, {.dn = "A=1"}), ticket);
    EXPECT_EQ(subscribe(client, {.dn = "A=1", .instance = 0}), ticket);
    ASSERT_TRUE(insert("A=1"));
    const std::string once = std::to_string(ticket) + ":18 A=1 ";
    EXPECT_EQ(told(client), once + once);
    EXPECT_EQ(told(second), once);
    EXPECT_TRUE(unsubscribe(client, {}, ticket));
    EXPECT_TRUE(unsubscribe(client, {.dn = "A=1", .instance = -5})) << "by key, as it was subscribed";
    EXPECT_FALSE(unsubscribe(client, {.dn = "A=1"}));
    EXPECT_FALSE(unsubscribe(client, {.dn = "never"}));
    for (const std::int32_t absurd : {-2, 0, 77777, 2147483647})
        EXPECT_FALSE(unsubscribe(client, {.dn = "A=1"}, absurd));
    ASSERT_TRUE(update("A=1", {}));
    EXPECT_TRUE(client.gotNothing());
    EXPECT_EQ(told(second), std::to_string(ticket) + ":23 A=1 ");
    EXPECT_EQ(subscribe(client, {.dn = "A=1"}), ticket) << "a key keeps its ticket";
    subscribe(client, {.forAll = all});
    EXPECT_TRUE(ask<TAMO_DBUnRegToAllNotifsRsp>(TAMO_DBUnRegToAllNotifs()).success);
    ASSERT_TRUE(update("A=1", {text("a", "x")}));
    EXPECT_TRUE(client.gotNothing());
}

TEST(Subscriptions, TicketsStartOverAndSkipThoseInUse)
{
    Subscriptions subscriptions(2147483645);
    EXPECT_EQ(subscriptions.add("a", 1), 2147483645);
    EXPECT_EQ(subscriptions.add("b", 1), 2147483646);
    EXPECT_EQ(subscriptions.add("c", 1), 1);
    Subscriptions again(2147483646);
    EXPECT_EQ(again.add("first", 1), 2147483646);
    EXPECT_EQ(again.add("second", 1), 1);
    EXPECT_EQ(again.add("first", 2), 2147483646);
    EXPECT_EQ(again.keyOf(1), "second");
}

TEST(Subscriptions, KeysForADnAreThoseThatBeginWithIt)
{
    Subscriptions subscriptions;
    for (const char* key : {"A=1!,,,,", "A=10,,,,", "A=1\xff,,,,", "B=1,1,,,", ",,,,2,1", "TRANSACTIONS"})
        subscriptions.add(key, 1);
    for (const char* dn : {"A=1", "A", "", "A=", "C", "TRANSACTION", "B=1,1,1"})
        EXPECT_FALSE(subscriptions.hasKeyFor(dn)) << dn;
    EXPECT_TRUE(subscriptions.hasKeyFor("B=1"));
    subscriptions.add("A=1,,,,", 1);
    EXPECT_TRUE(subscriptions.hasKeyFor("A=1"));
    for (const char* key : {",,,,", ",,,,,1", ",1,,,", ",-1,a,,"}) {
        Subscriptions empty;
        empty.add(key, 1);
        EXPECT_TRUE(empty.hasKeyFor("")) << key;
    }
}

TEST_F(Subscribing, OneClientCannotTakeItAll)
{
    Subscriptions subscriptions;
    for (std::size_t i = 0; i < Subscriptions::maxUnderTicket; ++i)
        ASSERT_EQ(subscriptions.add("same", 1), 1);
    EXPECT_EQ(subscriptions.add("same", 1), Subscriptions::noTicket);
    EXPECT_EQ(subscriptions.add("same", 2), 1) << "others are not touched";
    EXPECT_TRUE(subscriptions.mapErase(1, 1));
    EXPECT_EQ(subscriptions.add("same", 1), 1);
    for (std::size_t i = Subscriptions::maxUnderTicket; i < Subscriptions::maxOfClient; ++i)
        ASSERT_GT(subscriptions.add("key " + std::to_string(i), 1), 1);
    EXPECT_EQ(subscriptions.add("one more", 1), Subscriptions::noTicket);
    subscriptions.removeClient(1);
    EXPECT_GT(subscriptions.add("one more", 1), 1);
    const std::string large(Subscriptions::maxKeyBytes / 4, 'x');
    for (const char* end : {"a", "b", "c"})
        ASSERT_GT(subscriptions.add(large + end, 2), 1);
    EXPECT_EQ(subscriptions.add(large + "d", 2), Subscriptions::noTicket);
    EXPECT_GT(subscriptions.add(large + "a", 3), 1) << "a key that is there takes nothing more";
    EXPECT_EQ(log.count(mwLogWarning, "too many registrations"), 2);
    EXPECT_EQ(log.count(mwLogWarning, "gets no ticket"), 1);
}

TEST_F(Subscribing, WholeObjectsAreToldByKindWithTheirAttributes)
{
    const std::string every = std::to_string(subscribe(client, {.forAll = all}));
    const std::string ofModel = std::to_string(subscribe(client, {.forAll = model}));
    const std::string ofOthers = std::to_string(subscribe(client, {.forAll = others}));
    subscribe(second, {.forAll = 4});
    ASSERT_TRUE(insert("A=1", {text("a", "x"), text("b", "y")}));
    EXPECT_EQ(told(client), every + ":{18 A=1: a=x b=y} " + ofModel + ":{18 A=1: a=x b=y} ");
    ASSERT_TRUE(insert("A=1,O=1", {text("a", "x")}, false));
    EXPECT_EQ(told(client), every + ":{18 A=1,O=1: a=x} " + ofOthers + ":{18 A=1,O=1: a=x} ");
    ASSERT_TRUE(insert("A=1,EventGroup=1", {text("a", "x")}));
    ASSERT_TRUE(insert("EventType=1", {text("a", "x")}, false));
    ASSERT_TRUE(insert("A=1,None=1"));
    EXPECT_TRUE(client.gotNothing()) << "events, and objects without attributes";
    EXPECT_TRUE(second.gotNothing());
    ASSERT_TRUE(store().delete_object("A=1,O=1", 1, false, "test"));
    EXPECT_EQ(told(client), every + ":{9 A=1,O=1: a=x} " + ofOthers + ":{9 A=1,O=1: a=x} ");
}

TEST_F(Subscribing, ParkedValuesAreToldToThoseWhoWantThem)
{
    ASSERT_TRUE(insert("OAM", {attribute("AI_phase", std::int32_t{4})}, false));
    ASSERT_TRUE(insert("A=1"));
    const Fields live{.dn = "A=1", .instance = 1, .attribute = "a"};
    Fields alternate = live;
    alternate.withAlternate = 1;
    const std::string plain = std::to_string(subscribe(client, live));
    const std::string both = std::to_string(subscribe(client, alternate));
    const std::string list = std::to_string(subscribe(client, {.forAll = all}));
    const std::string bothList = std::to_string(subscribe(client, {.forAll = all, .withAlternate = 1}));
    Attribute parked = text("a", "parked");
    parked.slot = 1;
    ASSERT_TRUE(update("A=1", {parked}));
    EXPECT_EQ(told(client), both + ":18 A=1 a=parked " + bothList + ":{23 A=1: a=parked} ");
    ASSERT_TRUE(update("A=1", {text("a", "live")}));
    EXPECT_EQ(told(client), plain + ":18 A=1 a=live " + both + ":18 A=1 a=live " + list + ":{23 A=1: a=live} " +
                                bothList + ":{23 A=1: a=live} ");
    subscribe(second, {.dn = "A=1", .withAlternate = 1});
    {
        const FlagScope loading = store().loadingAlternateStorage();
        ASSERT_TRUE(update("A=1", {text("a", "loaded")}));
    }
    EXPECT_TRUE(second.gotNothing()) << "not even of the object";
    EXPECT_EQ(told(client), plain + ":23 A=1 a=loaded " + list + ":{23 A=1: a=loaded} ");
}

TEST_F(Subscribing, ChangesGoOnWhateverBecomesOfASubscriber)
{
    {
        Service brief(path("runtime"), "brief", 102);
        subscribe(brief, {.dn = "A=1"});
    }
    const std::string ticket = std::to_string(subscribe(client, {.dn = "A=1"}));
    ASSERT_TRUE(insert("A=1", {attribute("large", std::string(1100000, 'x'))})) << "more than a frame holds";
    EXPECT_EQ(told(client), ticket + ":18 A=1 ");
    ASSERT_TRUE(update("A=1", {text("small", "x")}));
    EXPECT_EQ(told(client), ticket + ":23 A=1 " + ticket + ":18 A=1 small=x ");
    EXPECT_EQ(value("A=1", "small"), "x");
}

TEST_F(Buffer, KeepsWhatComesBeforeItsReceiverOnceTheNodeIsReady)
{
    const Fields fields{.forAll = model, .withAlternate = 1};
    ASSERT_TRUE(insert("A=1", {text("a", "early")})) << "not ready: lost";
    makeReady();
    ASSERT_TRUE(update("A=1", {text("a", "x")}));
    ASSERT_TRUE(insert("A=1,Other=1", {text("a", "x")}, false));
    ASSERT_TRUE(update("A=1", {text("a", "y")}));
    EXPECT_TRUE(vex.gotNothing());
    const std::string ticket = std::to_string(subscribe(vex, fields));
    EXPECT_EQ(told(vex), ticket + ":{23 A=1: a=x} " + ticket + ":{23 A=1: a=y} ");
    EXPECT_EQ(log.count(mwLogInfo, "About to send 2 queued notification(s) to vex"), 1);
    ASSERT_TRUE(update("A=1", {text("a", "z")}));
    EXPECT_EQ(told(vex), ticket + ":{23 A=1: a=z} ") << "once: the buffer's entry is gone";
}

TEST_F(Buffer, HoldsOnlyWhatItIsFor)
{
    makeReady();
    const std::string own = std::to_string(subscribe(vex, {.dn = "A=1"}));
    const std::string ticket = std::to_string(subscribe(client, {.forAll = model, .withAlternate = 1}));
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    EXPECT_EQ(told(vex), own + ":18 A=1 " + own + ":18 A=1 a=x ") << "other subscriptions are told at once";
    EXPECT_EQ(told(client), ticket + ":{18 A=1: a=x} ");
    EXPECT_TRUE(unsubscribe(vex, {.forAll = model, .withAlternate = 1})) << "takes the buffer's own entry back";
    ASSERT_TRUE(update("A=1", {text("b", "x")}));
    EXPECT_EQ(told(vex), own + ":23 A=1 " + own + ":18 A=1 b=x ");
    EXPECT_EQ(std::to_string(subscribe(vex, {.forAll = model, .withAlternate = 1})), ticket);
    EXPECT_EQ(told(vex), ticket + ":{18 A=1: a=x} ") << "what came while the entry stood";
    ASSERT_TRUE(update("A=1", {text("b", "y")}));
    EXPECT_EQ(told(vex), own + ":23 A=1 " + own + ":23 A=1 b=y " + ticket + ":{23 A=1: b=y} ");
}

TEST_F(Buffer, GoesWithAllSubscriptionsOfItsReceiver)
{
    makeReady();
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    EXPECT_TRUE(ask<TAMO_DBUnRegToAllNotifsRsp>(TAMO_DBUnRegToAllNotifs(), vex).success);
    const std::string ticket = std::to_string(subscribe(vex, {.forAll = model, .withAlternate = 1}));
    EXPECT_TRUE(vex.gotNothing());
    ASSERT_TRUE(update("A=1", {text("a", "y")}));
    EXPECT_EQ(told(vex), ticket + ":{23 A=1: a=y} ");
}

TEST_F(Buffer, ForgetsTheOldestWhenItIsFull)
{
    constexpr int more = 3;
    TAMO::Database::NotificationBuffer buffer(vex.id(), 7, SubscriptionKey::modelObjectsWithAlternate);
    for (int i = 0; i < static_cast<int>(buffer.capacity) + more; ++i) {
        auto message = std::make_unique<TAMO_DBNotification>();
        message->objectOperation = i;
        buffer.enqueue(std::move(message));
    }
    EXPECT_EQ(buffer.size(), buffer.capacity);
    EXPECT_EQ(log.count(mwLogWarning, "the oldest are dropped"), 1);
    buffer.flush();
    const auto first = vex.next<TAMO_DBNotification>();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->objectOperation, more);
    EXPECT_EQ(buffer.size(), 0U);
    constexpr std::size_t large = 900000;
    for (std::size_t bytes = 0; bytes < 2 * TAMO::Database::NotificationBuffer::maxBytes; bytes += large) {
        auto message = std::make_unique<TAMO_DBNotification>();
        message->value = std::string(large, 'x');
        buffer.enqueue(std::move(message));
    }
    EXPECT_LE(buffer.size() * large, TAMO::Database::NotificationBuffer::maxBytes);
    EXPECT_GE((buffer.size() + 2) * large, TAMO::Database::NotificationBuffer::maxBytes);
}
