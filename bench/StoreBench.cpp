// The store in-process, beside the same work done by hand-written SQLite calls in the same run: what
// counts is the ratio. Trees of 1,000, 10,000 and 100,000 objects of ten attributes, 50 below each
// parent; the dump after each commit is off but where it is what is measured.

#include "BenchDirectory.h"
#include "BenchTree.h"

#include "store/FileLocations.h"
#include "store/SharedLock.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <random>

namespace {

/// A store with this many items; kept from one benchmark to the next of the same size.
class Tree {
public:
    static SQLite& of(int size)
    {
        static std::unique_ptr<Tree> tree;
        if (!tree || tree->m_size != size) {
            tree.reset();
            tree = std::make_unique<Tree>(size);
        }
        return SQLite::getInstance();
    }

    explicit Tree(int size) : m_size(size) { storeOfItems(size); }
    ~Tree() { SQLite::destroyInstance(false); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

private:
    BenchDirectory m_directory;
    int m_size;
};

/// Hand-written statements on the store's own connection, the lock held: what SQLite itself costs.
class ByHand {
public:
    explicit ByHand(SQLite& store) : m_handle(store.runtime()->handle())
    {
        m_child = prepare("select id from DBObject where parent = ?1 and dn = ?2");
        m_object = prepare("select * from DBObject where id = ?1");
        m_attributes = prepare("select * from Attribute where belongsTo = ?1");
        m_touch = prepare("update DBObject set isMOMObject = 1, system = 0 where id = ?1");
        m_old = prepare("select id, value from Attribute where belongsTo = ?1 and name = 'attribute1'");
        m_new = prepare("update Attribute set value = ?2 where id = ?1");
    }
    ~ByHand()
    {
        for (sqlite3_stmt* statement : {m_child, m_object, m_attributes, m_touch, m_old, m_new})
            sqlite3_finalize(statement);
    }
    ByHand(const ByHand&) = delete;
    ByHand& operator=(const ByHand&) = delete;

    int fetch(int number)
    {
        const int id = idOf(number);
        sqlite3_bind_int(m_object, 1, id);
        sqlite3_step(m_object);
        int seen = sqlite3_column_bytes(m_object, 2);
        sqlite3_reset(m_object);
        sqlite3_bind_int(m_attributes, 1, id);
        while (sqlite3_step(m_attributes) == SQLITE_ROW)
            seen += sqlite3_column_bytes(m_attributes, 2) + sqlite3_column_int(m_attributes, 4);
        sqlite3_reset(m_attributes);
        return seen;
    }

    void update(int number, std::int32_t value)
    {
        const int id = idOf(number);
        sqlite3_bind_int(m_touch, 1, id);
        mustSucceed(sqlite3_step(m_touch) == SQLITE_DONE);
        sqlite3_reset(m_touch);
        sqlite3_bind_int(m_old, 1, id);
        mustSucceed(sqlite3_step(m_old) == SQLITE_ROW);
        sqlite3_bind_int(m_new, 1, sqlite3_column_int(m_old, 0));
        sqlite3_bind_int(m_new, 2, value);
        sqlite3_reset(m_old);
        mustSucceed(sqlite3_step(m_new) == SQLITE_DONE);
        sqlite3_reset(m_new);
    }

private:
    int idOf(int number)
    {
        int id = child(0, "ManagedElement=1");
        id = child(id, "Group=" + std::to_string(number / childrenEach));
        return child(id, childPair(number));
    }
    sqlite3_stmt* prepare(const char* sql)
    {
        sqlite3_stmt* statement = nullptr;
        mustSucceed(sqlite3_prepare_v2(m_handle, sql, -1, &statement, nullptr) == SQLITE_OK);
        return statement;
    }
    int child(int parent, const std::string& pair)
    {
        sqlite3_bind_int(m_child, 1, parent);
        sqlite3_bind_text(m_child, 2, pair.c_str(), -1, SQLITE_TRANSIENT);
        mustSucceed(sqlite3_step(m_child) == SQLITE_ROW);
        const int id = sqlite3_column_int(m_child, 0);
        sqlite3_reset(m_child);
        return id;
    }

    sqlite3* m_handle;
    sqlite3_stmt* m_child;
    sqlite3_stmt* m_object;
    sqlite3_stmt* m_attributes;
    sqlite3_stmt* m_touch;
    sqlite3_stmt* m_old;
    sqlite3_stmt* m_new;
};

class Numbers {
public:
    explicit Numbers(int size) : m_range(0, size - 1) {}
    int next() { return m_range(m_engine); }

private:
    std::mt19937 m_engine{1};
    std::uniform_int_distribution<int> m_range;
};

int sizeOf(const benchmark::State& state) { return static_cast<int>(state.range(0)); }

void fetchByHand(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    ByHand byHand(store);
    Numbers numbers(sizeOf(state));
    for ([[maybe_unused]] const auto _ : state) {
        const SharedLock lock(store.runtime());
        benchmark::DoNotOptimize(byHand.fetch(numbers.next()));
    }
}

void fetch(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    Numbers numbers(sizeOf(state));
    for ([[maybe_unused]] const auto _ : state) {
        const int number = numbers.next();
        const SharedLock lock(store.runtime());
        benchmark::DoNotOptimize(store.sql_get_object(parentDn(number) + "," + childPair(number), 1, "bench"));
    }
}

void update(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    Numbers numbers(sizeOf(state));
    for ([[maybe_unused]] const auto _ : state) {
        DBObject change = changeOf(numbers.next());
        const SharedLock lock(store.runtime());
        mustSucceed(store.sql_update(&change, false, "bench"));
    }
}

/// The same without capture: what telling of changes costs those of whom nobody wants to hear.
void updateUntold(benchmark::State& state)
{
    const FlagScope untold = Tree::of(sizeOf(state)).withoutNotifications();
    update(state);
}

constexpr int updatesEach = 100;

/// What SQLite itself takes for a transaction of 100 updates: each object's path, the touch of its row
/// and the attribute's old and new value.
void hundredByHand(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    const FlagScope untold = store.withoutNotifications();
    ByHand byHand(store);
    Numbers numbers(sizeOf(state));
    std::int32_t value = 2000000;
    for ([[maybe_unused]] const auto _ : state) {
        const SharedLock lock(store.runtime());
        mustSucceed(store.runtime()->execute("BEGIN IMMEDIATE") == SQLITE_OK);
        for (int i = 0; i < updatesEach; ++i)
            byHand.update(numbers.next(), ++value);
        mustSucceed(store.runtime()->execute("COMMIT") == SQLITE_OK);
    }
}

void hundredUpdates(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    Numbers numbers(sizeOf(state));
    for ([[maybe_unused]] const auto _ : state) {
        const SharedLock lock(store.runtime());
        mustSucceed(store.sql_start_transaction());
        for (int i = 0; i < updatesEach; ++i) {
            DBObject change = changeOf(numbers.next());
            mustSucceed(store.sql_update(&change, true, "bench"));
        }
        mustSucceed(store.sql_commit_transaction());
    }
}

/// One commit of this many new objects; the counter is its time for each of them.
void oneCommit(benchmark::State& state)
{
    SQLite& store = Tree::of(1000);
    static int instance = 0;
    for ([[maybe_unused]] const auto _ : state) {
        mustSucceed(store.sql_start_transaction());
        for (int i = 0; i < sizeOf(state); ++i) {
            DBObject object = item(0);
            object.dn = "Together=" + std::to_string(++instance);
            mustSucceed(store.sql_insert(&object, true, "bench"));
        }
        mustSucceed(store.sql_commit_transaction());
    }
    state.counters["each"] = benchmark::Counter(static_cast<double>(state.iterations()) * sizeOf(state),
                                                benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void insert(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    static int instance = 0;
    for ([[maybe_unused]] const auto _ : state) {
        DBObject object = item(0);
        object.dn = "New=" + std::to_string(++instance);
        const SharedLock lock(store.runtime());
        mustSucceed(store.sql_insert(&object, false, "bench"));
    }
}

void children(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    Numbers numbers(sizeOf(state));
    for ([[maybe_unused]] const auto _ : state) {
        // Group 0 is where the inserts of this run go.
        const int number = childrenEach + numbers.next() % (sizeOf(state) - childrenEach);
        const SharedLock lock(store.runtime());
        const auto found = store.get_all_children(parentDn(number), 1);
        mustSucceed(found.size() == childrenEach);
    }
}

void dumpSave(benchmark::State& state)
{
    SQLite& store = Tree::of(sizeOf(state));
    store.setDatabaseFile(dumpFile());
    for ([[maybe_unused]] const auto _ : state)
        mustSucceed(store.loadOrSaveDb(SQLite::Direction::save) == SQLITE_OK);
}

void copyByHand(benchmark::State& state, const char* pragmas)
{
    SQLite& store = Tree::of(sizeOf(state));
    const std::string file = dumpFile() + ".by-hand";
    for ([[maybe_unused]] const auto _ : state) {
        Connection target;
        mustSucceed(target.open(file, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, 100) == SQLITE_OK);
        target.execute(pragmas);
        sqlite3_backup* const copy = sqlite3_backup_init(target.handle(), "main", store.runtime()->handle(), "main");
        sqlite3_backup_step(copy, -1);
        mustSucceed(sqlite3_backup_finish(copy) == SQLITE_OK);
    }
}

} // namespace

BENCHMARK(fetchByHand)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(fetch)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(children)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(update)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(updateUntold)->Arg(10000);
BENCHMARK(hundredByHand)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(hundredUpdates)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(copyByHand, defaults, "")->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(copyByHand, noJournalNoSync, "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF;")
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(dumpSave)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(oneCommit)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(insert)->Arg(1000)->Arg(10000)->Arg(100000)->Iterations(5000);

BENCHMARK_MAIN();
