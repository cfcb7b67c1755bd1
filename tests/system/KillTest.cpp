// The power cut at the worst moment: a start, a commit and a store are repeated and killed at each step
// that changes a file, and what the next start makes of the files is compared with the configuration
// before and after. Kills that leave the same files have the same consequences, so that these are tried
// once for each different set of files. In the environment, TAMO_KILL_STEPS=all leaves no step out,
// TAMO_KILL_SEED repeats a choice, and TAMO_KILL_LIST prints the steps.
#include "StepTracer.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace {

using Tracing = IsolatedService::Tracing;

/// What became of the configuration.
enum class Kept { before, after, fallback, lost };

const char* nameOf(Kept kept)
{
    constexpr const char* names[] = {"before", "after", "fallback", "lost"};
    return names[static_cast<int>(kept)];
}

const char* nameOf(Blow::Moment moment)
{
    constexpr const char* names[] = {"before", "midway", "after"};
    return names[static_cast<int>(moment)];
}

constexpr const char* root = "ManagedElement=1";
constexpr const char* node1 = "node";

/// Sets the label and stores it: what an operator does after a start that did not go as planned.
constexpr const char* nextChange = "set ManagedElement=1 userLabel=next\nstore\n";

bool hasLine(const std::string& text, const std::string& what) { return text.find(what) != std::string::npos; }

/// A node whose directories can be put back to where they were.
/// Seeded by TAMO_KILL_SEED, or anew in each run.
std::mt19937& randomNumbers()
{
    static std::mt19937 random = [] {
        const char* given = std::getenv("TAMO_KILL_SEED");
        const auto seed = given ? static_cast<std::uint32_t>(std::atoll(given)) : std::random_device()();
        std::cout << "TAMO_KILL_SEED=" << seed << '\n';
        return std::mt19937(seed);
    }();
    return random;
}

class KilledNode {
public:
    KilledNode();
    ~KilledNode();

    std::string path(const std::string& name = "") const
    {
        return m_directory.path(std::string(node1) + (name.empty() ? "" : "/" + name));
    }
    std::unique_ptr<IsolatedService> start(Tracing tracing = Tracing::off, const std::optional<Blow>& blow = {},
                                           bool armed = false);
    bool comesUp(IsolatedService& service) const;
    Command clientCommand(const std::vector<std::string>& arguments) const;
    Result client(const std::vector<std::string>& arguments, const std::string& input = "") const
    {
        return run(clientCommand(arguments), {}, input);
    }
    /// Runs a script of tamoctl, all of which must succeed.
    void script(const std::string& lines) const;
    /// What the service serves of what outlives it; empty when that is nothing.
    std::string tree() const;

    /// The state to go back to.
    void remember();
    void goBack();
    /// The configuration of the partition that the node falls back to.
    std::string otherPartition() const { return m_directory.path("other"); }
    /// False where a start may put the common database aside.
    bool commonDatabaseStays = true;
    /// Runs the service for a script; what it served then.
    std::string serve(const std::string& lines);
    /// The next start follows a reset, and nothing was asked for.
    void orderReset() const { writeFile(path("state.json"), "{\"reset_reason\": 6}"); }
    nlohmann::json state() const { return nlohmann::json::parse(readFile(path("state.json"))); }
    bool fallbackOrdered() const;
    bool resetOrdered() const { return state().contains("controlled_resets") && !state()["controlled_resets"].empty(); }

    /// How the node came up: the service, none when it does not; what it serves.
    struct Boot {
        std::unique_ptr<IsolatedService> service;
        std::string tree;
        bool fallback = false; ///< from the other partition
    };
    /// Starts as the node would, resets that are asked for included.
    Boot bootUp(Tracing tracing = Tracing::off);
    /// Boots up, and says which configuration came up.
    /// Then a change, a store and a further sudden end have to succeed without help.
    Kept recover(const std::string& before, const std::string& after);

    /// The content of all files that a start can meet, as text.
    std::string files() const;

private:
    Environment environment() const;
    bool bootOnce(std::unique_ptr<IsolatedService>& service, Tracing tracing);
    void expectNextChangeToLast(IsolatedService& service);
    void takeFallbackPartition();

    TestDirectory m_directory;
};

KilledNode::KilledNode()
{
    for (const char* name :
         {"runtime", "flash", "dump", "common", "backup/database", "fragments", "run", "conf", "tmp", "shm"})
        fs::create_directories(path(name));
    for (const char* directory : {"flash", "tmp", "dump", "common"})
        writeFile(path(directory) + std::string("/foreign"), "not ours");
    fs::copy(TAMO_CONF, path("conf")); // without its mapping files each start would fall back
    orderReset();
}

KilledNode::~KilledNode()
{
    for (const char* directory : {"flash", "tmp", "dump", "common"})
        EXPECT_EQ(readFile(path(directory) + std::string("/foreign")), "not ours");
}

Environment KilledNode::environment() const
{
    const char* given = std::getenv("ASAN_OPTIONS");
    return {{"TAMO_DB_RUNTIME_PATH", path("runtime")},
            {"TAMO_DB_FILE_PATH", path("flash")},
            {"TAMO_DB_DUMP_FILE_PATH", path("dump")},
            {"TAMO_PERSISTENT_STORAGE", path("common")},
            {"TAMO_BRM_BACKUP_PATH", path("backup")},
            {"TAMO_BRM_TEMP_FILE_PATH", path("fragments")},
            {"AI_CONFIG_FILE_PATH", path("conf")},
            {"DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", path("conf")},
            {"TAMO_FRAMEWORK_DIR", path("run")},
            {"TAMO_NODE_STATE", path("state.json")},
            // The leak check traces its own process, which is traced already.
            {"ASAN_OPTIONS", std::string(given ? given : "") + ":detect_leaks=0"}};
}

std::unique_ptr<IsolatedService> KilledNode::start(Tracing tracing, const std::optional<Blow>& blow, bool armed)
{
    return std::make_unique<IsolatedService>(path(), environment(), tracing, blow, armed);
}

bool KilledNode::comesUp(IsolatedService& service) const
{
    bool ready = false;
    EXPECT_TRUE(eventually([&] {
        ready = fs::exists(path("run/db.sock")) && client({"ready"}).code == 0;
        return ready || !service.running();
    })) << service.log();
    return ready;
}

Command KilledNode::clientCommand(const std::vector<std::string>& arguments) const
{
    Command command{program("tamoctl"), "--dir", path("run")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

void KilledNode::script(const std::string& lines) const
{
    const auto result = client({"batch", "-"}, lines);
    ASSERT_EQ(result.code, 0) << result.error;
}

std::string KilledNode::tree() const
{
    const auto exported = client({"export", root});
    EXPECT_TRUE(exported.code == 0 || exported.code == 3) << exported.error;
    const auto note = client({"get", "Common", "note"});
    EXPECT_TRUE(note.code == 0 || note.code == 3) << note.error;
    return exported.output + note.output;
}

std::string KilledNode::serve(const std::string& lines)
{
    const auto service = start();
    EXPECT_TRUE(comesUp(*service)) << service->log();
    if (!lines.empty())
        script(lines);
    std::string served = tree();
    service->kill();
    service->wait();
    return served;
}

void KilledNode::remember()
{
    fs::remove_all(m_directory.path("kept"));
    fs::remove_all(path("run")); // sockets
    fs::create_directory(path("run"));
    fs::copy(path(), m_directory.path("kept"), fs::copy_options::recursive);
}

void KilledNode::goBack()
{
    fs::remove_all(path());
    fs::copy(m_directory.path("kept"), path(), fs::copy_options::recursive);
}

bool KilledNode::fallbackOrdered() const
{
    const auto now = state();
    return now.value("active_partition", 1) != now.value("started_partition", 1);
}

std::string KilledNode::files() const
{
    std::string all;
    std::set<fs::path> sorted;
    for (const auto& entry : fs::recursive_directory_iterator(path()))
        if (entry.is_regular_file())
            sorted.insert(entry.path());
    for (const auto& file : sorted) {
        const auto name = file.lexically_relative(path()).string();
        const bool replaced = name == "runtime/pRBSdb"; // by each start, whatever it holds
        all += name + '\n' + (replaced ? "" : readFile(file)) + '\n';
    }
    return all;
}

/// The node runs from the other partition now, whose configuration is the one of the last upgrade.
void KilledNode::takeFallbackPartition()
{
    const auto reason = query(path("common/commondb"), "select value from Attribute where name = 'resetReason'");
    EXPECT_EQ(reason, std::vector<std::string>{"2"});
    for (const char* file : {"/flash/pRBSdb", "/flash/pRBSdb-journal"})
        fs::remove(path() + file);
    fs::copy(otherPartition(), path("flash/pRBSdb"));
    orderReset();
}

/// One start of the service, up to the point where it serves, ended or asked for a reset.
bool KilledNode::bootOnce(std::unique_ptr<IsolatedService>& service, Tracing tracing)
{
    service = start(tracing);
    const bool up = comesUp(*service);
    const std::string log = service->log();
    EXPECT_TRUE(up || service->wait() == 1) << log;
    EXPECT_FALSE(hasLine(log, "Sanitizer") || hasLine(log, "runtime error")) << log;
    if (up && !fallbackOrdered() && !resetOrdered())
        return true;
    EXPECT_TRUE(fallbackOrdered() || resetOrdered()) << log;
    service->kill();
    service->wait();
    return false;
}

KilledNode::Boot KilledNode::bootUp(Tracing tracing)
{
    Boot boot;
    for (int boots = 0; boots < 4; ++boots) {
        if (fallbackOrdered()) {
            boot.fallback = true;
            takeFallbackPartition();
        }
        orderReset();
        if (bootOnce(boot.service, tracing)) {
            boot.tree = tree();
            return boot;
        }
    }
    ADD_FAILURE() << "the node resets again and again";
    boot.service.reset();
    return boot;
}

Kept KilledNode::recover(const std::string& before, const std::string& after)
{
    const Boot boot = bootUp();
    if (!boot.service)
        return Kept::lost;
    const Kept kept = boot.tree == after && !boot.fallback    ? Kept::after
                      : boot.tree == before && !boot.fallback ? Kept::before
                      : boot.tree == before                   ? Kept::fallback
                                                              : Kept::lost;
    if (kept == Kept::lost)
        std::cout << "The node came up with:\n" << boot.tree << boot.service->log();
    else
        expectNextChangeToLast(*boot.service);
    return kept;
}

void KilledNode::expectNextChangeToLast(IsolatedService& service)
{
    script(nextChange);
    for (const char* file : {"tmp_pRBSdb", "first.dump", "second.dump", "diff.txt"})
        EXPECT_FALSE(fs::exists(path("tmp/") + file)) << file;
    EXPECT_FALSE(hasLine(service.log(), "Failed to store")) << service.log();
    EXPECT_TRUE(!commonDatabaseStays || !fs::exists(path("common/commondb.rejected"))) << service.log();
    service.kill();
    service.wait();
    const Boot again = bootUp();
    ASSERT_TRUE(again.service);
    EXPECT_EQ(client({"get", root, "userLabel"}).output, "next\n") << again.service->log();
    EXPECT_EQ(query(path("dump/DatabaseDump"), "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

/// What is repeated and killed, on a node whose remembered state holds the configuration "before".
struct Phase {
    const char* name;
    const char* prepare; ///< script for the service that is up, before steps count; null for a start
    /// What is to be killed; its exit code 0 is an acknowledgement. Nothing for a start.
    std::vector<std::string> act;
    std::set<Kept> mayBeKept;
    bool isSideIssue = false;       ///< killed in two ways instead of five
    bool acknowledgedLasts = false; ///< what is acknowledged is kept
};

/// The first two are those that leave the most different files.
constexpr std::pair<Blow::Moment, Blow::Victim> ways[] = {{Blow::Moment::midway, Blow::Victim::all},
                                                          {Blow::Moment::after, Blow::Victim::serviceAlone},
                                                          {Blow::Moment::before, Blow::Victim::all},
                                                          {Blow::Moment::after, Blow::Victim::all},
                                                          {Blow::Moment::before, Blow::Victim::serviceAlone}};

/// Every step that is the first of its name, and a few of the rest; all of them with TAMO_KILL_STEPS=all.
std::vector<std::size_t> chosenSteps(const std::vector<Step>& steps)
{
    constexpr std::size_t others = 5;
    std::set<std::string> seen;
    std::vector<std::size_t> chosen;
    std::vector<std::size_t> rest;
    for (std::size_t i = 0; i < steps.size(); ++i)
        (seen.insert(steps[i].name()).second ? chosen : rest).push_back(i + 1);
    const char* given = std::getenv("TAMO_KILL_STEPS");
    const std::size_t count = given && std::string(given) == "all" ? rest.size() : std::min(others, rest.size());
    std::sample(rest.begin(), rest.end(), std::back_inserter(chosen), count, randomNumbers());
    std::sort(chosen.begin(), chosen.end());
    return chosen;
}

class KillCampaign {
public:
    KillCampaign(KilledNode& node, Phase phase, std::string before)
        : m_node(node), m_phase(std::move(phase)), m_before(std::move(before))
    {}
    void run();

private:
    std::vector<Step> count();
    bool perform(IsolatedService& service);
    void strike(const Blow& blow, const Step& at);

    KilledNode& m_node;
    const Phase m_phase;
    const std::string m_before;
    std::string m_after;
    std::map<std::string, Kept> m_known;
    std::map<Kept, int> m_outcomes;
};

bool KillCampaign::perform(IsolatedService& service)
{
    if (!m_phase.prepare)
        return m_node.comesUp(service);
    EXPECT_TRUE(m_node.comesUp(service)) << service.log();
    m_node.script(m_phase.prepare);
    service.arm();
    return m_node.client(m_phase.act).code == 0;
}

/// Goes through the phase undisturbed.
std::vector<Step> KillCampaign::count()
{
    m_node.goBack();
    auto service = m_node.start(Tracing::on, {}, !m_phase.prepare);
    EXPECT_TRUE(perform(*service)) << service->log();
    const auto steps = service->steps();
    service->kill();
    service->wait();
    m_after = m_node.bootUp().tree;
    return steps;
}

void KillCampaign::strike(const Blow& blow, const Step& at)
{
    m_node.goBack();
    auto service = m_node.start(Tracing::on, blow, !m_phase.prepare);
    const bool acknowledged = perform(*service);
    if (acknowledged)
        service->kill(); // its commands were killed, or the blow did not fall
    service->wait();
    const std::string log = service->log();
    const auto steps = service->steps();
    service.reset();
    ASSERT_TRUE(steps.size() >= blow.step && steps[blow.step - 1].name() == at.name()) << "went another way\n" << log;
    const auto [known, isNew] = m_known.try_emplace(m_node.files(), Kept::lost);
    if (isNew)
        known->second = m_node.recover(m_before, m_after);
    ++m_outcomes[known->second];
    EXPECT_TRUE(m_phase.mayBeKept.contains(known->second)) << nameOf(known->second) << "; killed was:\n" << log;
    EXPECT_TRUE(!acknowledged || !m_phase.acknowledgedLasts || known->second == Kept::after)
        << "acknowledged, but " << nameOf(known->second) << '\n'
        << log;
}

void KillCampaign::run()
{
    const auto begin = std::chrono::steady_clock::now();
    const auto steps = count();
    ASSERT_FALSE(steps.empty());
    const auto chosen = chosenSteps(steps);
    const std::span used(ways, m_phase.isSideIssue ? 2 : std::size(ways));
    for (const std::size_t step : chosen)
        for (const auto& [moment, victim] : used) {
            if (testing::Test::HasFatalFailure())
                return;
            SCOPED_TRACE(std::string(m_phase.name) + ", step " + std::to_string(step) + " of " +
                         std::to_string(steps.size()) + " (" + steps[step - 1].name() + "), " + nameOf(moment) +
                         (victim == Blow::Victim::all ? ", all killed" : ", only the service killed"));
            strike({step, moment, victim}, steps[step - 1]);
        }
    std::cout << m_phase.name << ": killed " << used.size() << " times at " << chosen.size() << " of " << steps.size()
              << " steps; " << m_known.size() << " different sets of files; kept:";
    for (const auto& [kept, number] : m_outcomes)
        std::cout << ' ' << nameOf(kept) << ' ' << number;
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    std::cout << "; " << std::fixed << std::setprecision(1) << taken.count() << " s\n";
    if (std::getenv("TAMO_KILL_LIST"))
        for (std::size_t i = 0; i < steps.size(); ++i)
            std::cout << std::setw(4) << i + 1 << (steps[i].ofService ? " " : "   ") << steps[i].name() << '\n';
}

constexpr const char* firstTree =
    "insert ManagedElement=1 userLabel=old site=A volatile=x --persistent userLabel --persistent site\n"
    "insert OAM AI_phase:INT32=4 --persistent AI_phase\n";

constexpr const char* secondTree = "set ManagedElement=1 userLabel=new\n"
                                   "insert ManagedElement=1,Cell=1 userLabel=cell --persistent userLabel\n";

constexpr const char* thirdTree = "set ManagedElement=1 userLabel=restored\n"
                                  "insert ManagedElement=1,Cell=2 userLabel=cell --persistent userLabel\n";

/// A node whose service has a stored configuration, the same one on its other partition, and a backup.
class KillTest {
public:
    KillTest();
    void kill(const Phase& phase);

    KilledNode node;
    std::string before; ///< what the service serves of it
};

KillTest::KillTest()
{
    node.serve(std::string(firstTree) + "store\n");
    fs::copy(node.path("flash/pRBSdb"), node.otherPartition());
    before = node.serve("");
    node.serve(std::string(thirdTree) + "store\n");
    fs::rename(node.path("flash/pRBSdb"), node.path("backup/database/pRBSdb"));
    fs::copy(node.otherPartition(), node.path("flash/pRBSdb"));
}

void KillTest::kill(const Phase& phase)
{
    node.remember();
    KillCampaign(node, phase, before).run();
}

/// Numbers that count up, each stored before the next: what a client of the service was told of them.
class Writer {
public:
    Writer(const KilledNode& node, int first)
        : m_before(first - 1), m_client(node.clientCommand({"batch", "-"}), {}, script(first))
    {}
    /// To be called when the service has gone.
    void finish() { m_client.wait(); }
    /// The label that was stored for certain, and the last one that can have been.
    int stored() const { return m_before + lines("stored"); }
    int set() const { return m_before + lines("updated"); }

private:
    static std::string script(int first)
    {
        std::string text;
        for (int label = first; label < first + 1000; ++label)
            text += "set ManagedElement=1 site=" + std::to_string(label) + "\nstore\n";
        return text;
    }
    int lines(const std::string& begin) const
    {
        std::istringstream output(m_client.output());
        int count = 0;
        for (std::string line; std::getline(output, line);)
            count += line.starts_with(begin) ? 1 : 0;
        return count;
    }

    const int m_before;
    Process m_client;
};

const std::set beforeOrAfter{Kept::before, Kept::after};

} // namespace

TEST(Campaign, KilledAtEveryStepOfAStart)
{
    if (const std::string why = IsolatedService::whyNotPossible(); !why.empty())
        GTEST_SKIP() << why;
    KillTest test;
    test.kill({"start", nullptr, {}, {Kept::after}});
    test.node.serve("common resetReason:INT32=12 note=kept\n");
    test.before += "kept\n"; // the note
    test.kill({"start that consumes a reset reason", nullptr, {}, {Kept::after}, true});
    writeFile(test.node.path("flash/pRBSdb"), readFile(test.node.path("flash/pRBSdb")).substr(0, 9000));
    test.kill({"start with a damaged configuration", nullptr, {}, {Kept::fallback}, true});
}

TEST(Campaign, KilledAtEveryStepOfARestore)
{
    if (const std::string why = IsolatedService::whyNotPossible(); !why.empty())
        GTEST_SKIP() << why;
    KillTest test;
    test.node.commonDatabaseStays = false; // after the end of an operation that was broken off
    test.node.serve("common brmOngoing:boolean=true resetReason:INT32=19\n");
    test.kill({"restore", nullptr, {}, {Kept::before, Kept::after, Kept::fallback}, true});
    test.node.goBack();
    test.node.serve("common brmOngoing:boolean=true resetReason:INT32=12\n");
    test.kill({"start after a broken backup", nullptr, {}, {Kept::after}, true});
}

TEST(Campaign, KilledAtEveryStepOfAStore)
{
    if (const std::string why = IsolatedService::whyNotPossible(); !why.empty())
        GTEST_SKIP() << why;
    KillTest test;
    test.kill({"store", secondTree, {"store"}, {Kept::before, Kept::after, Kept::fallback}, false, true});
}

TEST(Campaign, KilledAtEveryStepOfACommit)
{
    if (const std::string why = IsolatedService::whyNotPossible(); !why.empty())
        GTEST_SKIP() << why;
    KillTest test;
    test.node.serve("common note=before\n");
    test.before = test.node.serve("");
    test.kill({"commit",
               "set ManagedElement=1 userLabel=unstored\n",
               {"transaction", "--", "set", root, "userLabel=half", "--", "common", "note=half", "--", "insert",
                "ManagedElement=1,Late=1", "userLabel=half", "--persistent", "userLabel"},
               beforeOrAfter});
}

TEST(Campaign, KilledAHundredTimesUnderLoad)
{
    if (const std::string why = IsolatedService::whyNotPossible(); !why.empty())
        GTEST_SKIP() << why;
    constexpr int kills = 100;
    constexpr std::uint32_t longest = 300; // milliseconds of load
    KillTest test;
    auto& random = randomNumbers();
    int stores = 0;
    int fallbacks = 0;
    test.node.serve("set ManagedElement=1 site=0\nstore\n");
    auto boot = test.node.bootUp(Tracing::on);
    for (int kill = 0, label = 0; kill < kills && boot.service && !testing::Test::HasFailure(); ++kill) {
        Writer writer(test.node, label + 1);
        Process load(test.node.clientCommand({"import", "--transaction", TAMO_EXAMPLES "/small_cell.jsonl"}));
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % longest));
        boot.service->kill(random() % 2 == 0 ? Blow::Victim::all : Blow::Victim::serviceAlone);
        boot.service->wait();
        writer.finish();
        load.wait();
        stores += writer.stored() - label;
        boot = test.node.bootUp(Tracing::on);
        label = std::atoi(test.node.client({"get", root, "site"}).output.c_str()); // 0 after a fallback
        fallbacks += boot.fallback ? 1 : 0;
        EXPECT_TRUE(boot.fallback || label >= writer.stored()) << label << " is older than what was stored";
        EXPECT_TRUE(boot.fallback || label <= writer.set()) << label << " was never set";
    }
    std::cout << kills << " kills, " << stores << " stores acknowledged, " << fallbacks << " fallbacks\n";
}
