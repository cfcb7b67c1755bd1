// What an object of a report costs beside the delivery of a committed object, in one run with the same
// subscribers: report_bench [ROUNDS]. The service works on the main thread; its subscribers are nodes of
// this process, each with a thread that reads.

#include "BenchDirectory.h"
#include "BenchTree.h"

#include "platform/host/MessageNode.h"
#include "platform/host/ProcessNode.h"
#include "platform/moaccess/MOTransactionNotify.h"
#include "requests/DatabaseWrapper.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

using namespace TAMO::Framework;
using TAMO::Messages::TAMO_MOAccessReport;

namespace {

constexpr int objects = 1000;
constexpr std::int32_t subscriberId = 100;

/// Reads what it is sent and counts it.
class Subscriber {
public:
    explicit Subscriber(const std::string& directory)
        : m_node({.directory = directory, .name = "reader", .id = subscriberId, .listen = false, .connectTo = {"db"}})
    {
        m_node.setHandler([this](const std::shared_ptr<RawMessage>&) { ++m_received; });
        mustSucceed(m_node.start());
        while (ProcessNode::peerName(subscriberId).empty())
            std::this_thread::yield();
    }
    ~Subscriber() { m_node.stop(); }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    /// Waits until everything is read; how many messages that were since the last call.
    int settle()
    {
        int before = -1;
        while (before != m_received) {
            before = m_received;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return m_received.exchange(0);
    }

private:
    std::atomic<int> m_received{0};
    MessageNode m_node; // last: its thread ends first
};

template <class Work>
double microseconds(Work work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
}

/// The delivery alone of one committed object after the other, µs an object.
double deliveries(SQLite& store)
{
    double sum = 0;
    for (int i = 0; i < objects; ++i) {
        DBObject change = changeOf(i);
        {
            const FlagScope undelivered = store.synchronising();
            mustSucceed(store.sql_update(&change, false, "bench"));
        }
        sum += microseconds([&] { store.sql_sendNotifications(); });
    }
    return sum / objects;
}

RawMessage reportOfChanges()
{
    TAMO_MOAccessReport report;
    for (int i = 0; i < objects; ++i) {
        static int value = 5000000;
        report.objects.push_back(
            {parentDn(i) + "," + childPair(i), 'U', {{"attribute1", IPCData::INT32, std::to_string(++value), false}}});
    }
    return {TAMO_MOAccessReport::id, subscriberId, 0, 0, report.serialize(), nullptr};
}

/// A report from its bytes to its last notification, µs an object.
double report(DatabaseWrapper& service)
{
    const RawMessage raw = reportOfChanges();
    return microseconds([&] { service.handleMOAccessNotify(&raw, raw.body.size()); }) / objects;
}

double median(std::vector<double> values)
{
    std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
    return values[values.size() / 2];
}

void compare(const char* subscribers, SQLite& store, DatabaseWrapper& service, Subscriber& subscriber, int rounds)
{
    std::vector<double> delivered;
    std::vector<double> reported;
    std::vector<double> ratios;
    int ofDeliveries = 0;
    int ofReport = 0;
    for (int round = 0; round < rounds; ++round) {
        delivered.push_back(deliveries(store));
        ofDeliveries = subscriber.settle();
        reported.push_back(report(service));
        ofReport = subscriber.settle();
        ratios.push_back(reported.back() / delivered.back());
    }
    std::printf("%-28s %10.2f %10.2f %8.2f %10d %10d\n", subscribers, median(delivered), median(reported),
                median(ratios), ofDeliveries, ofReport);
}

} // namespace

int main(int count, char** arguments)
{
    const int rounds = count > 1 ? std::atoi(arguments[1]) : 15;
    if (rounds < 1) {
        std::fputs("usage: report_bench [ROUNDS]\n", stderr);
        return 2;
    }
    const BenchDirectory directory;
    SQLite& store = storeOfItems(objects);
    {
        DatabaseWrapper service("DatabaseWrapper");
        service.initialise();
        mustSucceed(ProcessNode::start(
            {.directory = directory.below("run"), .name = "db", .id = 0, .listen = true, .connectTo = {}}));
        Subscriber subscriber(directory.below("run"));
        std::printf("%-28s %10s %10s %8s %21s\n", "subscribers", "delivery", "report", "ratio", "messages of each");
        compare("none", store, service, subscriber, rounds);
        service.registerToNotif(",,,,1", subscriberId);
        compare("whole objects", store, service, subscriber, rounds);
        service.registerToNotif("TRANSACTIONS", subscriberId);
        service.registerToNotif("Item,,,,", subscriberId);
        compare("and transactions, class", store, service, subscriber, rounds);
        ProcessNode::stop();
    }
    SQLite::destroyInstance(false);
    return 0;
}
