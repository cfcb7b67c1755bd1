// Storing to flash and starting from it, beside the sum of the steps that each is made of, done by hand
// in the same run: what counts is the ratio. The store runs in-process; a start is one of the real
// program, from the fork until it answers that it is ready. A program to run by hand, alone on the
// machine (the store's scratch files have fixed names in /tmp):
//
//     build/bench/bin/persistence_bench [OBJECTS…]

#include "BenchDirectory.h"
#include "BenchTree.h"

#include "platform/host/LogSink.h"
#include "platform/host/MessageNode.h"
#include "platform/messages/Answers.h"
#include "platform/messages/Requests.h"
#include "store/FileLocations.h"
#include "values/Schema.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <semaphore>
#include <sqlite3.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int inMemory = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;

double milliseconds(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

/// The times of one step or of the whole, over the repetitions.
class Times {
public:
    void add(const std::function<void()>& work) { m_all.push_back(milliseconds(work)); }
    double median() const
    {
        std::vector<double> sorted = m_all;
        std::ranges::sort(sorted);
        return sorted[sorted.size() / 2];
    }

private:
    std::vector<double> m_all;
};

void run(Connection& connection, const char* sql) { mustSucceed(connection.execute(sql) == SQLITE_OK); }

void shell(const std::string& command) { mustSucceed(std::system(command.c_str()) != -1); }

void copyAll(Connection& target, Connection& source)
{
    sqlite3_backup* const copy = sqlite3_backup_init(target.handle(), "main", source.handle(), "main");
    sqlite3_backup_step(copy, -1);
    mustSucceed(sqlite3_backup_finish(copy) == SQLITE_OK);
}

bool firstRow(Connection& connection, const char* sql)
{
    sqlite3_stmt* statement = nullptr;
    mustSucceed(sqlite3_prepare_v2(connection.handle(), sql, -1, &statement, nullptr) == SQLITE_OK);
    const bool found = sqlite3_step(statement) == SQLITE_ROW;
    sqlite3_finalize(statement);
    return found;
}

/// The steps of a store, on the live connection and with files of their own.
class StoreByHand {
public:
    StoreByHand(Connection& live, std::string directory) : m_live(live), m_directory(std::move(directory))
    {
        fs::create_directory(m_directory);
    }

    void prune() const
    {
        const std::string leaves =
            "SELECT id FROM DBObject AS db1 WHERE NOT EXISTS (SELECT belongsTo FROM Attribute WHERE belongsTo = "
            "db1.id) AND NOT EXISTS (SELECT id FROM DBObject AS db2 WHERE db2.parent = db1.id)";
        Connection memory;
        mustSucceed(memory.open(":memory:", inMemory, 0) == SQLITE_OK);
        run(memory, "PRAGMA foreign_keys = ON");
        copyAll(memory, m_live);
        run(memory, "DELETE FROM Attribute WHERE persistent = 0");
        do
            run(memory, ("DELETE FROM DBObject WHERE id IN (" + leaves + ")").c_str());
        while (firstRow(memory, leaves.c_str()));
        removeWithSideFiles(pruned());
        Connection target;
        mustSucceed(target.open(pruned(), inMemory, 0) == SQLITE_OK);
        copyAll(target, memory);
    }
    void dump() const
    {
        shell("echo .dump | sqlite3 " + pruned() + " >" + m_directory + "/first.dump");
        shell("echo .dump | sqlite3 " + permanentFile() + " >" + m_directory + "/second.dump");
    }
    void compare() const
    {
        shell("diff " + m_directory + "/first.dump " + m_directory + "/second.dump | grep -c \\- >" + m_directory +
              "/diff.txt");
    }
    void copy() const
    {
        shell("cp " + pruned() + " " + m_directory + "/pRBSdb");
        ::sync();
    }

private:
    std::string pruned() const { return m_directory + "/pruned"; }

    Connection& m_live;
    std::string m_directory;
};

/// The steps of a start, with files of their own.
class StartByHand {
public:
    explicit StartByHand(std::string directory) : m_directory(std::move(directory))
    {
        fs::create_directory(m_directory);
        removeWithSideFiles(m_directory + "/runtime");
        mustSucceed(m_runtime.open(m_directory + "/runtime", inMemory, 0) == SQLITE_OK);
        run(m_runtime, "PRAGMA foreign_keys = ON; PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY");
        mustSucceed(m_permanent.open(permanentFile(), SQLITE_OPEN_READWRITE, 0) == SQLITE_OK);
    }

    void load() { copyAll(m_runtime, m_permanent); }
    static void check()
    {
        Connection file;
        mustSucceed(file.open(permanentFile(), SQLITE_OPEN_READWRITE, 0) == SQLITE_OK);
        mustSucceed(firstRow(file, "PRAGMA integrity_check"));
    }
    void rebuildIndex()
    {
        run(m_runtime, "DROP INDEX unique_object");
        run(m_runtime, Schema::objectIndex);
    }
    void dump()
    {
        removeWithSideFiles(m_directory + "/dump");
        Connection file;
        mustSucceed(file.open(m_directory + "/dump", inMemory, 0) == SQLITE_OK);
        run(file, "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF");
        copyAll(file, m_runtime);
    }

private:
    std::string m_directory;
    Connection m_runtime;
    Connection m_permanent;
};

/// The real program, from the fork until it says that it is ready.
class Service {
public:
    /// Clears what a boot of the node clears.
    static void clear(const BenchDirectory& directory)
    {
        for (const char* const each : {ownRuntime, ownDump}) {
            fs::remove_all(directory.below(each));
            fs::create_directory(directory.below(each));
        }
        fs::remove(directory.below("run") + "/db.sock");
    }

    explicit Service(const BenchDirectory& directory)
        : m_directory(directory.below("run")), m_socket(m_directory + "/db.sock"), m_process(fork())
    {
        if (m_process != 0)
            return;
        setenv("TAMO_DB_RUNTIME_PATH", directory.below(ownRuntime).c_str(), 1);
        setenv("TAMO_DB_DUMP_FILE_PATH", directory.below(ownDump).c_str(), 1);
        setenv("DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", TAMO_CONF, 1); // else a start orders a fallback
        execl(TAMO_DB, TAMO_DB, nullptr);
        _exit(127);
    }
    ~Service()
    {
        kill(m_process, SIGTERM);
        waitpid(m_process, nullptr, 0);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Connected as soon as there is somebody to connect to; the answer comes when the start is over.
    void waitUntilReady() const
    {
        using namespace TAMO::Framework;
        while (!fs::exists(m_socket)) {
            mustSucceed(waitpid(m_process, nullptr, WNOHANG) == 0);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        MessageNode client(
            {.directory = m_directory, .name = "bench", .id = 100, .listen = false, .connectTo = {"db"}});
        std::binary_semaphore answered(0);
        bool ready = false;
        client.setHandler([&](const std::shared_ptr<RawMessage>& raw) {
            TAMO::Messages::TAMO_DBOrderReadyRsp answer;
            ready = answer.deserialize(raw.get()) && answer.success;
            answered.release();
        });
        mustSucceed(client.start());
        while (!client.send(0, TAMO::Messages::TAMO_DBOrderReady()))
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        answered.acquire();
        mustSucceed(ready);
    }

private:
    static constexpr const char* ownRuntime = "runtime_of_service";
    static constexpr const char* ownDump = "dump_of_service";

    std::string m_directory;
    std::string m_socket;
    pid_t m_process;
};

struct Figures {
    Times prune, dumps, compare, copy, periodic, onRequest;
    Times load, check, rebuild, dump, start;
};

void measureStores(SQLite& store, const BenchDirectory& directory, int size, int repetitions, Figures& figures)
{
    const StoreByHand byHand(*store.runtime(), directory.below("by_hand"));
    mustSucceed(store.storePersistentDump(false));
    for (int i = 0; i < repetitions; ++i) {
        DBObject change = changeOf(i * 37 % size);
        mustSucceed(store.sql_update(&change, false, "bench"));
        figures.prune.add([&] { byHand.prune(); });
        figures.dumps.add([&] { byHand.dump(); });
        figures.compare.add([&] { byHand.compare(); });
        figures.copy.add([&] { byHand.copy(); });
        const auto before = fs::last_write_time(permanentFile());
        figures.periodic.add([&] { mustSucceed(store.storeDbToFlash()); });
        mustSucceed(fs::last_write_time(permanentFile()) != before);
        figures.onRequest.add([&] { mustSucceed(store.storePersistentDump(false)); });
    }
}

void measureStarts(const BenchDirectory& directory, int repetitions, Figures& figures)
{
    for (int i = 0; i < repetitions; ++i) {
        StartByHand byHand(directory.below("by_hand"));
        figures.load.add([&] { byHand.load(); });
        figures.check.add([&] { StartByHand::check(); });
        figures.rebuild.add([&] { byHand.rebuildIndex(); });
        figures.dump.add([&] { byHand.dump(); });
        Service::clear(directory);
        std::unique_ptr<Service> service;
        figures.start.add([&] {
            service = std::make_unique<Service>(directory);
            service->waitUntilReady();
        });
    }
}

void print(int size, const Figures& figures)
{
    const double prune = figures.prune.median();
    const double dumps = figures.dumps.median();
    const double compare = figures.compare.median();
    const double copy = figures.copy.median();
    const double load = figures.load.median();
    const double check = figures.check.median();
    const double rebuild = figures.rebuild.median();
    const double dump = figures.dump.median();
    const double periodic = figures.periodic.median();
    const double onRequest = figures.onRequest.median();
    const double start = figures.start.median();
    constexpr double processStart = 50;
    std::printf("%d objects, ms\n", size);
    std::printf("  prune %.1f, dumps %.1f, diff %.1f, copy and sync %.1f\n", prune, dumps, compare, copy);
    std::printf("  periodic store    %8.1f, of the sum %.2f\n", periodic, periodic / (prune + dumps + compare + copy));
    std::printf("  store on request  %8.1f, of the sum %.2f\n", onRequest, onRequest / (prune + copy));
    std::printf("  load %.1f, integrity check %.1f, index rebuild %.1f, dump %.1f\n", load, check, rebuild, dump);
    std::printf("  start to ready    %8.1f, less 50 ms of the sum %.2f\n", start,
                std::max(0.0, start - processStart) / (load + check + rebuild + dump));
    std::fflush(stdout);
}

void measure(int size)
{
    const BenchDirectory directory;
    setenv("TAMO_NODE_STATE", directory.below("state.json").c_str(), 1);
    mw_log::configure();
    const int repetitions = size > 10000 ? 3 : 7;
    Figures figures;
    measureStores(storeOfItems(size), directory, size, repetitions, figures);
    SQLite::destroyInstance(false);
    measureStarts(directory, repetitions, figures);
    print(size, figures);
}

} // namespace

int main(int count, char** arguments)
{
    std::vector<int> sizes;
    for (int i = 1; i < count; ++i)
        sizes.push_back(std::max(1, std::atoi(arguments[i])));
    if (sizes.empty())
        sizes = {1000, 10000, 100000};
    for (const int size : sizes)
        measure(size);
    return 0;
}
