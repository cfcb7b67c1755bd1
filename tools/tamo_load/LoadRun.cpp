// One run of the load client: a tree of its own, a phase for each operation, and the tree removed.

#include "tools/tamo_load/LoadRun.h"

#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"
#include "values/ValueType.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <functional>
#include <memory>
#include <random>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

void require(bool success, const std::string& what)
{
    if (!success)
        throw ClientError(Trouble::refused, "the service refused to " + what);
}

/// Where the objects of a run stand. Every run has a name of its own, so that runs may overlap.
class LoadTree {
public:
    LoadTree() : m_name(std::to_string(std::random_device{}())) {}
    std::string root() const { return "ManagedElement=1,TamoLoad=" + m_name; }
    std::string group(int number) const { return root() + ",LoadGroup=" + std::to_string(number); }
    std::string object(int number) const { return group(number / groupSize) + ",LoadObject=" + std::to_string(number); }
    /// A class with groupSize objects, whatever else is in the database.
    std::string probeClass() const { return "LoadProbe" + m_name; }
    std::string probe(int number) const { return root() + "," + probeClass() + "=" + std::to_string(number); }

private:
    std::string m_name;
};

DBObject loadObject(const std::string& dn, int number)
{
    static constexpr std::array<const char*, attributesPerObject> names{"AdminState", "Alias",    "Bandwidth", "CellId",
                                                                        "Counter",    "Enable",   "Frequency", "Power",
                                                                        "Priority",   "userLabel"};
    DBObject object = newObject(dn);
    for (int i = 0; i < attributesPerObject; ++i) {
        const auto value = static_cast<std::uint32_t>(number * attributesPerObject + i);
        const std::string name = names.at(static_cast<std::size_t>(i));
        const bool persistent = i % 2 == 0;
        if (i % 5 == 1)
            object.addAttribute(newAttribute(name, "label " + std::to_string(value), IPCData::STRING, persistent));
        else if (i % 5 == 3)
            object.addAttribute(newAttribute(name, value % 2 == 0, IPCData::BOOLEAN, persistent));
        else
            object.addAttribute(newAttribute(name, value, IPCData::UINT32, persistent));
    }
    return object;
}

ServiceClient::Options clientOptions(const LoadOptions& options)
{
    return {options.directory, "tamo_load", std::nullopt,
            std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(options.timeout))};
}

class LoadRun {
public:
    explicit LoadRun(const LoadOptions& options) : m_options(options)
    {
        for (int i = 0; i < options.clients; ++i) {
            m_clients.push_back(std::make_unique<ServiceClient>(clientOptions(options)));
            m_databases.emplace_back(*m_clients.back());
        }
    }

    void prepare()
    {
        Database& database = m_databases.front();
        if (!database.exists("ManagedElement=1"))
            require(database.insert(newObject("ManagedElement=1")), "insert ManagedElement=1");
        require(database.insert(newObject(m_tree.root())), "insert " + m_tree.root());
        for (int group = 0; group * groupSize < m_options.objects; ++group)
            require(database.insert(newObject(m_tree.group(group))), "insert a group");
        for (int i = 0; i < groupSize; ++i)
            require(database.insert(loadObject(m_tree.probe(i), i)), "insert a probe");
    }

    std::vector<Measurement> measure()
    {
        const int listings = std::max(m_options.samples / 10, 1);
        std::vector<Measurement> all;
        all.push_back(phase("insert", m_options.objects, [this](Database& database, int number) {
            require(database.insert(loadObject(m_tree.object(number), number)), "insert " + m_tree.object(number));
        }));
        all.push_back(phase("fetch", m_options.samples, [this](Database& database, int number) {
            require(database.fetch(m_tree.object(scattered(number, m_options.objects))) != nullptr, "fetch");
        }));
        all.push_back(
            phase("update", m_options.samples, [this](Database& database, int number) { update(database, number); }));
        // Of a listing the whole answer counts; what a client makes of its objects is its own time.
        all.push_back(phase("children", listings, [this](Database& database, int number) {
            const int group = scattered(number, std::max(m_options.objects / groupSize, 1));
            require(database.countChildren(m_tree.group(group)) > 0, "list children");
        }));
        all.push_back(phase("class", listings, [this](Database& database, int) {
            require(database.countClass(m_tree.probeClass()) == groupSize, "list a class");
        }));
        return all;
    }

    void removeTree()
    {
        if (!m_options.keep)
            require(m_databases.front().remove(m_tree.root()), "delete " + m_tree.root());
    }

private:
    /// Spreads consecutive numbers over 0 to size - 1, so that neither cache nor order helps.
    static int scattered(int number, int size)
    {
        constexpr std::uint64_t oddConstant = 0x9E3779B97F4A7C15;
        return static_cast<int>((static_cast<std::uint64_t>(number) * oddConstant >> 32) %
                                static_cast<std::uint64_t>(size));
    }

    void update(Database& database, int number) const
    {
        const int object = scattered(number, m_options.objects);
        DBObject change = newObject(m_tree.object(object));
        // Never a value that is stored already: that would write nothing.
        const auto value = static_cast<std::uint32_t>(1'000'000'000 + number);
        change.addAttribute(newAttribute("AdminState", value, IPCData::UINT32, true));
        require(database.update(change), "update " + change.fullDn());
    }

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
