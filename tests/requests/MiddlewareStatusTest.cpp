// The status of the Wi-Fi module on its way from the middleware into the tree: bursts, what is wrong
// with a message, what fails on the way, and the end of the process.

#include "tests/requests/RequestTest.h"
#include "tests/support/Faults.h"

#include "platform/host/Termination.h"
#include "platform/messages/Notifications.h"
#include "requests/AMW_MessageHandler.h"

#include <sqlite3.h>

#include <new>
#include <utility>

using namespace TAMO::Framework;
using namespace TAMO::Messages;

namespace {

constexpr const char* wifiModule = "ManagedElement=1,Equipment=1,RbsUnit=1,WifiModule=1";
constexpr const char* state = "operationalState";
constexpr std::int32_t middlewareNode = 5;
constexpr int holdExpired = 1005;

/// A payload; the five words before the given ones are not the service's business.
Bytes payload(const std::vector<std::uint32_t>& words)
{
    Bytes bytes(20, 0xA5);
    for (const std::uint32_t word : words)
        for (const int shift : {0, 8, 16, 24})
            bytes.push_back(static_cast<std::uint8_t>(word >> shift));
    return bytes;
}

Bytes wifiStatus(std::int32_t value) { return payload({0xEB1CBABE, 2, 1, static_cast<std::uint32_t>(value)}); }

MessageEvent eventWith(Bytes content)
{
    RawMessage raw{0x3000, middlewareNode, 0, 0, TAMO_MiddlewareStatus(std::move(content)).serialize(), nullptr};
    return MessageEvent(messageReceived, std::make_shared<RawMessage>(std::move(raw)));
}

class MiddlewareStatus : public RequestTest {
protected:
    MiddlewareStatus()
    {
        for (const char* dn :
             {"ManagedElement=1", "ManagedElement=1,Equipment=1", "ManagedElement=1,Equipment=1,RbsUnit=1"})
            EXPECT_TRUE(insert(dn));
    }
    ~MiddlewareStatus() override { Termination::reset(); }

    void subscribe()
    {
        TAMO_DBRegToNotif subscription;
        subscription.dn = wifiModule;
        subscription.MOInstance = 1;
        subscription.attributeName = state;
        ASSERT_GT(ask<TAMO_DBRegToNotifRsp>(subscription).ticket, 0);
    }
    void send(Bytes content) { service.dispatch(*std::make_unique<MessageEvent>(eventWith(std::move(content)))); }
    void send(std::int32_t value) { send(wifiStatus(value)); }
    /// Waits for the end of the hold that is running, and has the service handle it.
    void endHold()
    {
        const auto event = service.nextEvent();
        ASSERT_EQ(event->id(), holdExpired);
        EXPECT_TRUE(service.dispatch(*event));
    }
    static std::string written() { return value(wifiModule, state); }
    /// The statuses that the subscriber was told of since the last call.
    std::string told()
    {
        std::string values;
        for (const auto& raw : client.arrived()) {
            TAMO_DBNotification notification;
            if (notification.deserialize(raw.get()) && notification.attributeName == state)
                values += std::to_string(std::get<std::int32_t>(notification.value)) + " ";
        }
        return values;
    }

    // The hold of a second takes a millisecond: no test waits for the clock, all wait for the event.
    const ScopedVariable hold{"TAMO_TIMER_FACTOR", "0.001"};
};

} // namespace

TEST_F(MiddlewareStatus, BurstIsWrittenAtOnceAndAsItEnded)
{
    ASSERT_TRUE(insert(wifiModule));
    subscribe();
    send(1);
    EXPECT_EQ(told(), "1 ") << "a status that the tree has not shown yet is not held back";
    const auto created = store().sql_get_attribute(wifiModule, state, "test", false);
    ASSERT_TRUE(created);
    EXPECT_EQ(created->type, IPCData::ENUM);
    EXPECT_FALSE(created->persistent || created->hidden);
    for (const std::int32_t status : {2, 3, -4})
        send(status);
    EXPECT_EQ(told(), "");
    endHold();
    EXPECT_EQ(told(), "-4 ");
    send(5);
    EXPECT_EQ(told(), "") << "what ended a hold began the next one";
    endHold();
    endHold();
    EXPECT_EQ(told(), "5 ");
    send(6);
    EXPECT_EQ(told(), "6 ") << "the hold before ended with nothing new";
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
}

TEST_F(MiddlewareStatus, StatusThatIsNotNewWritesNothing)
{
    ASSERT_TRUE(insert(wifiModule));
    subscribe();
    send(0);
    EXPECT_EQ(written(), "(none)") << "nothing was written yet, and that counts as 0";
    for (const std::int32_t status : {1, 2, 1})
        send(status);
    endHold();
    EXPECT_EQ(told(), "1 ");
    send(1);
    send(2);
    EXPECT_EQ(told(), "2 ") << "no hold without a write";
}

TEST_F(MiddlewareStatus, AttributeThatIsThereKeepsWhatItIs)
{
    Attribute kept = attribute(state, std::int32_t{7}, IPCData::INT32);
    kept.persistent = true;
    ASSERT_TRUE(insert(wifiModule, {kept}));
    subscribe();
    send(7);
    EXPECT_EQ(told(), "");
    send(8);
    endHold();
    EXPECT_EQ(told(), "8 ");
    const auto stored = store().sql_get_attribute(wifiModule, state, "test", false);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->type, IPCData::INT32);
    EXPECT_TRUE(stored->persistent);
    endHold();
    ASSERT_TRUE(update(wifiModule, {text(state, "9")}));
    send(9);
    EXPECT_EQ(store().sql_get_attribute(wifiModule, state, "test", false)->value, Value(std::int32_t{9}))
        << "a text that reads the same is no status";
}

TEST_F(MiddlewareStatus, WriteThatFailsIsLoggedAndTheNextStatusIsWritten)
{
    send(1);
    EXPECT_EQ(log.count(mwLogError, "AMW_MessageHandler::updateWifiOperationalState: WifiModule=1 not found"), 1);
    ASSERT_TRUE(insert(wifiModule));
    {
        const RefusedPrepare refused(store().runtime()->handle(), SQLITE_INSERT, "Attribute");
        send(2);
        endHold();
    }
    EXPECT_EQ(log.count(mwLogError, "AMW_MessageHandler::updateWifiOperationalState: updating of "
                                    "WifiModule=1:oparationalState failed"),
              1);
    EXPECT_TRUE(anotherConnectionCanWrite());
    EXPECT_EQ(written(), "(none)");
    endHold();
    send(3);
    EXPECT_EQ(written(), "3");
}

TEST_F(MiddlewareStatus, MessageThatIsNoWifiStatusChangesNothing)
{
    ASSERT_TRUE(insert(wifiModule));
    const std::pair<std::vector<std::uint32_t>, std::string> refused[] = {
        {{0xDEADBEEF, 2, 1, 1}, "handleMessage: magic field validation failed [magic = deadbeef]"},
        {{0xBEBA1CEB, 2, 1, 1}, "handleMessage: magic field validation failed [magic = beba1ceb]"},
        {{0xEB1CBABE, 0, 1, 1}, "handleMessage: MW_API_ALARM_MSG received -> no handling here"},
        {{0xEB1CBABE, 1}, "handleMessage: MW_API_ALIVE_MSG received -> no handling here"},
        {{0xEB1CBABE, 3, 1, 1}, "handleMessage: MW_API_INDICATION received -> no handling here"},
        {{0xEB1CBABE, 2, 2}, "handleStatusMessage: unknown status id [2]"},
        {{0xEB1CBABE, 2, 0xFFFFFFFF, 1}, "handleStatusMessage: unknown status id [-1]"},
    };
    for (const auto& [words, line] : refused) {
        log.forget();
        send(payload(words));
        EXPECT_EQ(log.count(mwLogError), 1) << line;
        EXPECT_EQ(log.count(mwLogError, "AMW_MessageHandler::" + line), 1) << log.all();
    }
    log.forget();
    send(payload({0xEB1CBABE, 4, 1, 1}));
    EXPECT_EQ(log.count(mwLogError), 0) << "a kind that nobody knows is none of ours";
    const Bytes whole = wifiStatus(1);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        send(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        EXPECT_EQ(log.count(mwLogWarning, "message of " + std::to_string(size) + " bytes ignored"), 1) << log.all();
    }
    EXPECT_EQ(log.count(mwLogWarning), static_cast<int>(whole.size()));
    RequestTest::handle(0x3000, {0xC0}, middlewareNode); // no payload at all
    EXPECT_EQ(written(), "(none)");
    Bytes longer = whole;
    longer.resize(100);
    send(longer);
    EXPECT_EQ(written(), "1");
}

TEST_F(MiddlewareStatus, NoHoldOutlastsMemoryThatRunsOut)
{
    ASSERT_TRUE(insert(wifiModule));
    std::int32_t status = 0;
    for (const bool whileHeld : {false, true}) {
        bool happened = true;
        for (int passes = 0; happened; ++passes) {
            std::unique_ptr<Event> event = std::make_unique<MessageEvent>(eventWith(wifiStatus(++status)));
            if (whileHeld) {
                service.dispatch(*event);
                send(++status);
                event = service.nextEvent();
            }
            try {
                const RefusedMemory scarce(passes);
                service.dispatch(*event);
                happened = RefusedMemory::happened();
            } catch (const std::bad_alloc&) { // the thread's loop logs it
            }
            send(++status);
            while (written() != std::to_string(status))
                endHold(); // for ever, when a hold runs that nothing ends
            endHold();
        }
        EXPECT_GT(log.count(mwLogWarning, "no hold after this status"), 0) << log.all();
        log.forget();
    }
}

TEST_F(MiddlewareStatus, ProcessEndsDuringAHold)
{
    ASSERT_TRUE(insert(wifiModule));
    const ScopedVariable longHold("TAMO_TIMER_FACTOR", "1000");
    send(1);
    send(2);
    Termination::request();
    service.start();
    service.thread().join();
    EXPECT_TRUE(service.hasTerminated());
    EXPECT_EQ(written(), "1");
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
}

TEST_F(MiddlewareStatus, HandlerGoesWhileItsHoldEnds)
{
    class Owner : public DatabaseWrapper_StateMachine {
    public:
        Owner() : DatabaseWrapper_StateMachine("owner") {}
        void handleTimeout(int) override {}
        void enterListening() override {}
        void exitListening() override {}
        void processEvent(MessageEvent&) override {}
        void processEvent_evAMWMessageHandlerEvent(const EventWithParams_evAMWMessageHandlerEvent&) override {}
        AMW_MessageHandler handler{*this};
    };
    ASSERT_TRUE(insert(wifiModule));
    const ScopedVariable shortHold("TAMO_TIMER_FACTOR", "0.00001");
    for (std::int32_t round = 1; round <= 200; ++round) {
        Owner owner;
        owner.handler.handleMessage(wifiStatus(round));
        if (round % 2 == 0)
            Termination::request(); // and the end of the process comes first
        Termination::reset();
    }
    EXPECT_EQ(written(), "200");
}
