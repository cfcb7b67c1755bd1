// One run of the load client: a tree of its own, a phase for each operation, and the tree removed.

#include "tools/tamo_load/LoadRun.h"

#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"
#include "tools/tamo_load/ChangeRun.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <functional>
#include <memory>
#include <thread>

namespace {

class LoadRun {
public:
    explicit LoadRun(const LoadOptions& options) : m_options(options), m_tree(options.objects)
    {
        for (int i = 0; i < options.clients; ++i) {
            m_clients.push_back(std::make_unique<ServiceClient>(connectionOptions(options)));
            m_databases.emplace_back(*m_clients.back());
        }
    }

    void prepare() { m_tree.prepare(m_databases.front()); }

    std::vector<Measurement> measure()
    {
        const int listings = std::max(m_options.samples / 10, 1);
        std::vector<Measurement> all;
        all.push_back(phase("insert", m_options.objects, [this](Database& database, int number) {
            require(database.insert(m_tree.object(number)), "insert " + m_tree.dn(number));
        }));
        all.push_back(phase("fetch", m_options.samples, [this](Database& database, int number) {
            require(database.fetch(m_tree.dn(m_tree.someObject(number))) != nullptr, "fetch");
        }));
        all.push_back(phase("update", m_options.samples, [this](Database& database, int) {
            require(database.update(m_tree.nextChange()), "update");
        }));
        // Of a listing the whole answer counts; what a client makes of its objects is its own time.
        all.push_back(phase("children", listings, [this](Database& database, int number) {
            require(database.countChildren(m_tree.group(m_tree.someGroup(number))) > 0, "list children");
        }));
        all.push_back(phase("class", listings, [this](Database& database, int) {
            require(database.countClass(m_tree.probeClass()) == groupSize, "list a class");
        }));
        if (m_options.subscribers > 0)
            for (Measurement& measured : runChanges(m_options, m_tree))
                all.push_back(std::move(measured));
        return all;
    }

    void removeTree()
    {
        if (!m_options.keep)
            require(m_databases.front().remove(m_tree.root()), "delete " + m_tree.root());
    }

private:
    /// `count` operations shared among the clients, which start together.
    Measurement phase(const std::string& name, int count, const std::function<void(Database&, int)>& operation)
    {
        const int clients = m_options.clients;
        std::vector<std::vector<double>> times(static_cast<std::size_t>(clients));
        std::vector<std::exception_ptr> failures(static_cast<std::size_t>(clients));
        std::barrier start(clients + 1);
        std::atomic<bool> stop = false;
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < static_cast<std::size_t>(clients); ++i)
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                try {
                    for (int number = static_cast<int>(i); number < count && !stop; number += clients) {
                        const auto begin = Clock::now();
                        operation(m_databases[i], number);
                        times[i].push_back(microsecondsSince(begin));
                    }
                } catch (...) {
                    failures[i] = std::current_exception();
                    stop = true;
                }
            });
        start.arrive_and_wait();
        const auto begin = Clock::now();
        for (std::thread& thread : threads)
            thread.join();
        Measurement measured{name, {}, microsecondsSince(begin) / 1e6};
        for (std::size_t i = 0; i < times.size(); ++i) {
            if (failures[i])
                std::rethrow_exception(failures[i]);
            measured.times.insert(measured.times.end(), times[i].begin(), times[i].end());
        }
        return measured;
    }

    LoadOptions m_options;
    LoadTree m_tree;
    std::vector<std::unique_ptr<ServiceClient>> m_clients;
    std::vector<Database> m_databases;
};

} // namespace

std::vector<Measurement> runLoad(const LoadOptions& options)
{
    LoadRun run(options);
    try {
        run.prepare();
        auto measured = run.measure();
        run.removeTree();
        return measured;
    } catch (...) {
        try {
            run.removeTree();
        } catch (const ClientError&) {
            // the first failure is the one to tell
        }
        throw;
    }
}
