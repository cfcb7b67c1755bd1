// Active objects, signals, timers and locks.

#include "platform/framework/FrameworkCore.h"
#include "platform/framework/Lockables.h"
#include "platform/framework/Messaging.h"
#include "platform/framework/Timer.h"
#include "platform/host/ProcessNode.h"
#include "platform/host/Termination.h"
#include "platform/messages/Answers.h"
#include "platform/moaccess/MOAccess.h"
#include "platform/moaccess/MOTransactionNotify.h"
#include "platform/utility/SystemFunctions.h"
#include "tests/platform/PlatformTest.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <semaphore.h>

namespace {

/// Counts its events by kind and answers fetch requests.
class Machine : public ActiveStateMachine {
public:
    explicit Machine(bool endsWhenAsked = true) : ActiveStateMachine(2000, 1999, "machine"), m_ends(endsWhenAsked) {}
    ~Machine() override
    {
        enqueueEvent(Event(1));
        thread().join();
    }
    bool dispatch(Event& event) override
    {
        ++events;
        if (event.id() == timerExpired)
            ++timeouts;
        if (event.id() == 13)
            throw std::runtime_error("unlucky");
        if (event.id() == 1 || (event.id() == terminateRequested && m_ends))
            enterState(1999);
        if (event.id() == 77)
            eventually([&] { return !busy; });
        if (event.id() == messageReceived)
            answer(*static_cast<MessageEvent&>(event).raw());
        return true;
    }

    std::atomic<int> events{0};
    std::atomic<int> timeouts{0};
    std::atomic<bool> busy{false}; ///< event 77 takes as long
    std::string senderName;

private:
    void answer(const RawMessage& raw)
    {
        senderName = Messaging::getNodeAsText(raw.sender);
        Messaging::sendTamoMessage_v2(raw.sender, Messages::TAMO_DBPresenceRsp(true, numberOf(raw)), 1);
    }
    bool m_ends;
};

class FrameworkTest : public PlatformTest {};
class FrameworkDeathTest : public testing::Test {}; // no directory: its processes end abruptly

TEST_F(FrameworkTest, MachineSurvivesExceptionsAndEndsInTheFinalState)
{
    Machine machine;
    machine.enqueueEvent(Event(5)); // no state yet, but not the final one: kept for the thread
    machine.initialise();
    machine.start();
    machine.enqueueEvent(Event(13));
    machine.enqueueEvent(Event(terminateRequested));
    machine.thread().join();
    EXPECT_TRUE(machine.hasTerminated());
    EXPECT_EQ(machine.events, 3);
    EXPECT_EQ(log.count(mwLogError, "unlucky"), 1);
    machine.enqueueEvent(Event(5)); // refused in the final state
    EXPECT_EQ(machine.events, 3);
}

TEST_F(FrameworkTest, RequestReachesTheRegisteredMachineAndItsAnswerTheClient)
{
    setenv("TAMO_FRAMEWORK_DIR", directory.c_str(), 1);
    EXPECT_FALSE(Control::FrameworkControl::initialize({"--node", "nobody"}));
    EXPECT_FALSE(Control::FrameworkControl::initialize({"--node", "db", "--connect"}));
    EXPECT_FALSE(Control::FrameworkControl::initialize({"--node", "db", "--port", "1"}));
    EXPECT_EQ(log.count(mwLogError, "Framework: "), 3);

    Station fm(options("fm", 3));
    Station reset(options("reset", 9));
    ASSERT_TRUE(fm.node.start() && reset.node.start());
    ASSERT_TRUE(Control::FrameworkControl::initialize({"--node", "db", "--connect", "fm", "--connect", "reset"}));
    Machine machine;
    machine.initialise();
    Messaging::registerMessageHandler(machine, messageReceived);
    machine.start();
    for (Station* station : {&fm, &reset}) {
        ASSERT_TRUE(eventually([&] { return station->node.send(0, numbered(77)); }));
        ASSERT_TRUE(eventually([&] { return station->size() == 1; }));
        Messages::TAMO_DBPresenceRsp answer;
        ASSERT_TRUE(answer.deserialize(station->take()[0].get()));
        EXPECT_EQ(answer.transId, 77);
    }
    EXPECT_EQ(Messaging::getNodeAsText(8), "ai"); // not connected
    EXPECT_EQ(Messaging::getNodeAsText(55), "node 55");
    Control::FrameworkControl::finalize();
    EXPECT_FALSE(Messaging::sendTamoMessage(3, numbered(1), 1));
    machine.enqueueEvent(Event(1));
    machine.thread().join();
    EXPECT_EQ(machine.senderName, "reset");
    EXPECT_EQ(machine.events, 3);
}

TEST_F(FrameworkTest, MessagesOfADepartedClientAreNotHandled)
{
    ASSERT_TRUE(ProcessNode::start({.directory = directory, .name = "db", .id = 0}));
    Machine machine;
    machine.initialise();
    Messaging::registerMessageHandler(machine, messageReceived);
    machine.start();
    machine.busy = true;
    machine.enqueueEvent(Event(77));
    for (int round = 0; round < 3; ++round) {
        RawPeer peer(path("db"));
        ASSERT_TRUE(peer.join(100));
        for (std::int32_t number = 0; number < 10; ++number)
            peer.send({.id = 0x1009, .sender = 100, .receiver = 0}, numbered(number).serialize());
        peer.close();
        ASSERT_TRUE(eventually([&] { return ProcessNode::peerName(100).empty(); }));
    }
    RawPeer good(path("db"));
    ASSERT_TRUE(good.join(100));
    good.send({.id = 0x1009, .sender = 100, .receiver = 0}, numbered(7).serialize());
    machine.busy = false;
    const auto answer = good.receive();
    Messages::TAMO_DBPresenceRsp presence;
    ASSERT_TRUE(answer && presence.deserialize(&*answer));
    EXPECT_EQ(presence.transId, 7);
    EXPECT_EQ(machine.events, 2); // the long one and the last one
    ProcessNode::stop();
}

TEST_F(FrameworkTest, ReportsReachOnlyWhoHasSubscribedToThem)
{
    ASSERT_TRUE(ProcessNode::start({.directory = directory, .name = "db", .id = 0}));
    Machine machine;
    machine.initialise();
    Messaging::registerMessageHandler(machine, messageReceived);
    machine.start();
    RawPeer agent(path("db"));
    ASSERT_TRUE(agent.join(100));
    const auto eventsOfAReport = [&] {
        const int before = machine.events;
        agent.send({.id = 0x2000, .sender = 100, .receiver = 0}, Messages::TAMO_MOAccessReport().serialize());
        agent.send({.id = 0x1009, .sender = 100, .receiver = 0}, numbered(1).serialize());
        Messages::TAMO_DBPresenceRsp answer;
        while (answer.transId != 1) {
            const auto raw = agent.receive();
            if (!raw || !answer.deserialize(&*raw))
                return -1;
        }
        return machine.events - before - 1;
    };
    EXPECT_EQ(eventsOfAReport(), 0);
    MOAccess access;
    access.RegisterToNotification("ManagedElement=1", "/toDB");
    access.RegisterToNotification("*", "/toSomebody");
    EXPECT_EQ(eventsOfAReport(), 0);
    access.RegisterToNotification("*", "/toDB");
    MOAccess().UnRegisterNotifications(); // somebody else's subscription ends
    EXPECT_EQ(eventsOfAReport(), 1);
    access.UnRegisterNotifications();
    EXPECT_EQ(eventsOfAReport(), 0);
    ProcessNode::stop();
}

TEST_F(FrameworkTest, OrderlyEndDoesNotWaitForWhatIsQueued)
{
    Machine machine;
    machine.initialise();
    Machine later;
    for (int i = 0; i < 100; ++i) {
        machine.enqueueEvent(Event(5));
        later.enqueueEvent(Event(5));
    }
    Termination::request();
    later.initialise();
    for (Machine* each : {&machine, &later}) {
        each->start();
        each->thread().join();
        EXPECT_EQ(each->events, 1);
    }
    Termination::reset();
}

TEST_F(FrameworkDeathTest, FirstSignalEndsEveryMachineInOrder)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto orderlyEnd = [](int signal) {
        FrameworkCore core;
        core.initialize();
        Machine first;
        Machine second;
        first.initialise();
        second.initialise();
        first.start();
        second.start();
        raise(signal);
        first.thread().join();
        second.thread().join();
        Machine later; // made after the signal
        later.initialise();
        later.start();
        later.thread().join();
        core.finalize();
        std::exit(first.hasTerminated() && second.hasTerminated() && later.hasTerminated() ? 7 : 8);
    };
    EXPECT_EXIT(orderlyEnd(SIGTERM), testing::ExitedWithCode(7), "");
    EXPECT_EXIT(orderlyEnd(SIGINT), testing::ExitedWithCode(7), "");
}

TEST_F(FrameworkDeathTest, SecondSignalEndsTheProcessAtOnce)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            FrameworkCore core;
            core.initialize();
            Machine deaf(false);
            deaf.initialise();
            deaf.start();
            raise(SIGTERM);
            eventually([&] { return deaf.events == 1; });
            raise(SIGINT);
            std::exit(8);
        },
        testing::KilledBySignal(SIGINT), "");
}

TEST_F(FrameworkDeathTest, CrashLeavesABacktraceAndTheDefaultAction)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            RegisterSegmentFaultHandler();
            *reinterpret_cast<volatile int*>(std::uintptr_t{4096}) = 1; // no page of ours
        },
        testing::KilledBySignal(SIGSEGV), "Fatal signal 11 at address 0x1000, backtrace:\n.*platform_tests");
    EXPECT_EXIT(
        {
            RegisterSegmentFaultHandler();
            std::abort();
        },
        testing::KilledBySignal(SIGABRT), "Fatal signal 6");
}

[[gnu::noinline]] int descend(int depth)
{
    volatile char frame[4096] = {};
    return depth == 0 ? frame[0] : descend(depth - 1) + frame[0];
}

TEST_F(FrameworkDeathTest, OverflownStackOfAFrameworkThreadLeavesABacktrace)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            RegisterSegmentFaultHandler();
            Thread thread("deep");
            thread.run([](void*) { std::exit(descend(1 << 30)); }, nullptr);
            thread.join();
        },
        testing::KilledBySignal(SIGSEGV), "Fatal signal 11");
}

TEST_F(FrameworkTest, TimerPostsOnceUnlessCancelledOrRearmed)
{
    setenv("TAMO_TIMER_FACTOR", "0.05", 1);
    Machine machine;
    machine.initialise();
    machine.start();
    Timer timer(machine);
    EXPECT_FALSE(timer.requestTimeout(1, 2));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(timer.requestTimeout(1, Timer::seconds));
    ASSERT_TRUE(eventually([&] { return machine.timeouts == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));

    timer.requestTimeout(1, Timer::seconds); // with none waiting
    EXPECT_TRUE(eventually([&] { return machine.timeouts == 2; }));
    Timer late(machine);
    late.requestTimeout(3600, Timer::seconds);
    timer.requestTimeout(1, Timer::seconds); // ahead of the one that waits
    EXPECT_TRUE(eventually([&] { return machine.timeouts == 3; }));

    timer.requestTimeout(1, Timer::seconds);
    timer.requestTimeout(3600, Timer::seconds);       // instead of the first one
    Timer(machine).requestTimeout(1, Timer::seconds); // gone with its object
    Timer other(machine);
    other.requestTimeout(1, Timer::seconds);
    other.cancelTimeout();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(machine.timeouts, 3);

    setenv("TAMO_TIMER_FACTOR", "fast", 1);
    timer.requestTimeout(3600, Timer::seconds);
    EXPECT_EQ(log.count(mwLogWarning, "TAMO_TIMER_FACTOR"), 1);
    unsetenv("TAMO_TIMER_FACTOR");
}

TEST_F(FrameworkTest, LocksExclude)
{
    Mutex plain(false);
    Semaphore semaphore(1);
    for (Lockable* lock : {static_cast<Lockable*>(&plain), static_cast<Lockable*>(&semaphore)}) {
        int counter = 0;
        const auto count = [&] {
            for (int i = 0; i < 2000; ++i) {
                const LockUser user(*lock);
                ++counter;
            }
        };
        std::thread other(count);
        count();
        other.join();
        EXPECT_EQ(counter, 4000);
    }
    Mutex recursive(true);
    const LockUser outer(recursive);
    const LockUser inner(recursive);
    Semaphore two(2);
    two.lock();
    two.lock(); // does not wait
}

class NamedSemaphoreTest : public PlatformTest {
protected:
    ~NamedSemaphoreTest() override
    {
        sem_unlink(name.c_str());
        std::filesystem::remove("/dev/shm" + name + ".lock");
    }
    int count() const
    {
        int value = -1;
        sem_t* semaphore = sem_open(name.c_str(), 0);
        if (semaphore != SEM_FAILED) {
            sem_getvalue(semaphore, &value);
            sem_close(semaphore);
        }
        return value;
    }
    /// A process that takes the semaphore `rounds` times, adding 1 to the number in a file each time.
    pid_t counting(const std::string& file, int rounds) const
    {
        const pid_t child = fork();
        if (child != 0)
            return child;
        NamedSemaphore semaphore(name, 1);
        const int fd = ::open(file.c_str(), O_RDWR);
        for (int i = 0; i < rounds; ++i) {
            const LockUser user(semaphore);
            int number = 0;
            [[maybe_unused]] auto done = ::pread(fd, &number, sizeof number, 0);
            ++number;
            done = ::pwrite(fd, &number, sizeof number, 0);
        }
        _exit(0);
    }

    const std::string name = "/tamo_test_" + std::to_string(getpid()) + directory.substr(directory.size() - 6);
};

TEST_F(NamedSemaphoreTest, KilledHolderIsNoticedAndTheCountStaysAtOne)
{
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        NamedSemaphore semaphore(name, 1);
        semaphore.lock();
        [[maybe_unused]] const auto written = ::write(ready[1], "x", 1);
        pause();
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_EQ(count(), 0);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);

    NamedSemaphore semaphore(name, 1);
    semaphore.lock();
    EXPECT_EQ(log.count(mwLogWarning, "its holder died"), 1);
    EXPECT_EQ(count(), 0);
    semaphore.unlock();
    EXPECT_EQ(count(), 1);
    semaphore.lock(); // at once
    semaphore.unlock();
    semaphore.unlock(); // one too many
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(log.count(mwLogWarning), 1);
}

TEST_F(NamedSemaphoreTest, LivingStrangerIsWaitedForAndADeadOneIsNot)
{
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const auto strangerTakes = [&] { // who knows nothing of the lock file
        const pid_t stranger = fork();
        if (stranger == 0) {
            sem_t* const plain = sem_open(name.c_str(), O_CREAT, 0600, 1);
            const bool taken = plain != SEM_FAILED && sem_wait(plain) == 0;
            [[maybe_unused]] const auto written = ::write(ready[1], taken ? "x" : "-", 1);
            sigset_t signals;
            sigemptyset(&signals);
            sigaddset(&signals, SIGUSR1);
            int which = 0;
            sigwait(&signals, &which);
            sem_post(plain);
            _exit(0);
        }
        char byte = 0;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        EXPECT_EQ(byte, 'x');
        return stranger;
    };
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const pid_t living = strangerTakes();
    NamedSemaphore semaphore(name, 1, std::chrono::milliseconds(300));
    std::atomic<bool> taken = false;
    std::thread waiter([&] {
        const LockUser user(semaphore);
        taken = true;
    });
    EXPECT_TRUE(eventually([&] { return log.count(mwLogWarning, "another process holds it") == 2; }));
    EXPECT_FALSE(taken) << "what a living process took is its own to give back";
    kill(living, SIGUSR1);
    waiter.join();
    waitpid(living, nullptr, 0);
    EXPECT_TRUE(taken);
    EXPECT_EQ(count(), 1);

    const pid_t dead = strangerTakes();
    kill(dead, SIGKILL);
    waitpid(dead, nullptr, 0);
    semaphore.lock();
    EXPECT_EQ(log.count(mwLogWarning, "its holder died"), 1);
    semaphore.unlock();
    EXPECT_EQ(count(), 1);
}

TEST_F(NamedSemaphoreTest, ProgramOfAKilledHolderIsWaitedFor)
{
    const std::string started = directory + "/started";
    const std::string done = directory + "/done";
    const pid_t holder = fork();
    if (holder == 0) {
        NamedSemaphore semaphore(name, 1);
        semaphore.lock();
        [[maybe_unused]] const int status = system(("touch " + started + "; sleep 0.3; touch " + done).c_str());
        pause();
    }
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    NamedSemaphore semaphore(name, 1);
    const LockUser user(semaphore);
    EXPECT_TRUE(std::filesystem::exists(done)) << "it would write over what the next holder has written";
}

TEST_F(NamedSemaphoreTest, FileThatIsNoSemaphoreIsStoodInFor)
{
    const std::string file = "/dev/shm/sem." + name.substr(1);
    std::ofstream(file) << "short";
    NamedSemaphore semaphore(name, 1);
    EXPECT_EQ(log.count(mwLogError, "The lock file /dev/shm" + name + ".lock stands in for it"), 1);
    {
        const LockUser user(semaphore);
        EXPECT_NE(system(("flock -n /dev/shm" + name + ".lock true").c_str()), 0);
    }
    EXPECT_EQ(system(("flock -n /dev/shm" + name + ".lock true").c_str()), 0);
    std::string content;
    EXPECT_TRUE(std::ifstream(file) >> content && content == "short") << "it is somebody's";
}

TEST_F(NamedSemaphoreTest, ExcludesProcessesAndThreads)
{
    const std::string file = directory + "/number";
    const int zero = 0;
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(::write(fd, &zero, sizeof zero), static_cast<ssize_t>(sizeof zero));
    const pid_t children[] = {counting(file, 2000), counting(file, 2000)};
    for (const pid_t child : children)
        waitpid(child, nullptr, 0);
    int number = 0;
    ASSERT_EQ(::pread(fd, &number, sizeof number, 0), static_cast<ssize_t>(sizeof number));
    ::close(fd);
    EXPECT_EQ(number, 4000);

    NamedSemaphore shared(name, 1);
    int counter = 0;
    const auto add = [&](NamedSemaphore& semaphore) {
        for (int i = 0; i < 2000; ++i) {
            const LockUser user(semaphore);
            ++counter;
        }
    };
    std::thread sameObject([&] { add(shared); });
    std::thread ownObject([&] {
        NamedSemaphore own(name, 1);
        add(own);
    });
    add(shared);
    sameObject.join();
    ownObject.join();
    EXPECT_EQ(counter, 6000);
    EXPECT_EQ(log.count(mwLogWarning), 0);
}

} // namespace
