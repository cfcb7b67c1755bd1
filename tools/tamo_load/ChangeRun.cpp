// Transactions and notifications under the clock.

#include "tools/tamo_load/ChangeRun.h"

#include "tools/client/Database.h"
#include "tools/client/SubscriptionKey.h"
#include "values/ValueType.h"

#include <algorithm>
#include <future>
#include <memory>

namespace {

constexpr int updatesEach = 100;

class ChangeRun {
public:
    ChangeRun(const LoadOptions& options, LoadTree& tree)
        : m_options(options), m_tree(tree), m_client(connectionOptions(options)), m_database(m_client)
    {}

    std::vector<Measurement> run()
    {
        const int transactions = std::max(m_options.samples / 10, 1);
        std::vector<Measurement> all;
        all.push_back(repeat("commit of 100 updates", transactions, [this] { return commit(); }));
        all.push_back(told(1));
        all.push_back(told(m_options.subscribers));
        all.push_back(repeat("requests", m_options.samples, [this] { return request(); }));
        ServiceClient stuck(connectionOptions(m_options));
        subscribeToObjects(stuck);
        fillQueueOf(stuck);
        all.push_back(repeat("requests, 1 stuck", m_options.samples, [this] { return request(); }));
        readUp(stuck);
        Database(stuck).unsubscribeAll();
        return all;
    }

private:
    static Measurement repeat(const std::string& name, int count, auto operation)
    {
        const auto begin = Clock::now();
        Measurement measured{name, {}, 0};
        for (int i = 0; i < count; ++i)
            measured.times.push_back(operation());
        measured.seconds = microsecondsSince(begin) / 1e6;
        return measured;
    }

    double commit()
    {
        require(m_database.beginTransaction().has_value(), "start a transaction");
        for (int i = 0; i < updatesEach; ++i)
            require(m_database.update(m_tree.nextChange()), "queue an update");
        const auto begin = Clock::now();
        require(m_database.commitTransaction(), "commit");
        return microsecondsSince(begin);
    }

    static void subscribeToObjects(ServiceClient& client)
    {
        SubscriptionKey everyObject;
        everyObject.forAll = 1;
        Database(client).subscribe(everyObject);
    }

    /// Updates that `count` clients are told of, read by another thread.
    Measurement told(int count)
    {
        std::vector<std::unique_ptr<ServiceClient>> subscribers;
        for (int i = 0; i < count; ++i) {
            subscribers.push_back(std::make_unique<ServiceClient>(connectionOptions(m_options)));
            subscribeToObjects(*subscribers.back());
        }
        const auto timeout = connectionOptions(m_options).timeout;
        const auto lastArrival = [&] {
            for (const auto& subscriber : subscribers)
                if (!subscriber->nextNotification(Clock::now() + timeout))
                    throw ClientError(Trouble::timeout, "a subscriber was not told in time");
            return Clock::now();
        };
        const std::string name = "told, " + std::to_string(count) + (count == 1 ? " subscriber" : " subscribers");
        Measurement measured = repeat(name, std::max(m_options.samples / (count > 1 ? 10 : 1), 1), [&] {
            const DBObject change = m_tree.nextChange();
            auto arrival = std::async(std::launch::async, lastArrival);
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // the readers wait by now
            const auto begin = Clock::now();
            require(m_database.update(change), "update");
            return std::chrono::duration<double, std::micro>(arrival.get() - begin).count();
        });
        for (const auto& subscriber : subscribers)
            Database(*subscriber).unsubscribeAll();
        return measured;
    }

    double request()
    {
        const auto begin = Clock::now();
        if (++m_requests % 2 == 0)
            require(m_database.update(m_tree.nextChange()), "update");
        else
            require(m_database.fetch(m_tree.dn(m_tree.someObject(m_requests))) != nullptr, "fetch");
        return microsecondsSince(begin);
    }

    /// Updates that are told until some are not, for want of room.
    void fillQueueOf(const ServiceClient& stuck)
    {
        DBObject change = newObject(m_tree.dn(0));
        for (int round = 0; dropped(stuck.node()) == 0; ++round) {
            require(round < 10000, "fill a subscriber's queue");
            change.attributes.clear();
            change.addAttribute(
                newAttribute("Alias", std::string(20000, 'x') + std::to_string(round), IPCData::STRING));
            require(m_database.update(change), "update");
        }
    }

    /// Takes what waits for a client, so that there is room for an answer.
    static void readUp(ServiceClient& client)
    {
        constexpr auto pause = std::chrono::milliseconds(100);
        for (bool more = true; more;)
            try {
                more = client.nextNotification(Clock::now() + pause).has_value();
            } catch (const ClientError& error) {
                if (error.kind != Trouble::missed)
                    throw;
            }
    }

    std::int64_t dropped(std::int32_t node)
    {
        for (const auto& client : m_database.clients().records)
            if (client.node == node)
                return client.dropped;
        throw ClientError(Trouble::refused, "the service has disconnected the subscriber that does not read");
    }

    const LoadOptions& m_options;
    LoadTree& m_tree;
    ServiceClient m_client;
    Database m_database;
    int m_requests = 0;
};

} // namespace

ServiceClient::Options connectionOptions(const LoadOptions& options)
{
    return {options.directory, "tamo_load", std::nullopt,
            std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(options.timeout))};
}

std::vector<Measurement> runChanges(const LoadOptions& options, LoadTree& tree)
{
    return ChangeRun(options, tree).run();
}
