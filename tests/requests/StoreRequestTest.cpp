// When the configuration is stored: on request, later than asked for, and by the timer; and what the
// node is told when that fails.

#include "tests/requests/TransactionRequestTest.h"
#include "tests/support/Faults.h"
#include "tests/support/StoringStore.h"

#include "platform/framework/Event.h"
#include "platform/messages/Notifications.h"

#include <sqlite3.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace TAMO::Messages;

namespace {

[[maybe_unused]] const bool privateTmp = givePrivateTmp();

class StoreRequest : public TransactionRequestTest {
protected:
    StoreRequest()
    {
        fs::create_directories(path("brm"));
        EXPECT_TRUE(insert("OAM", {attribute("AI_phase", 4)}, false));
        EXPECT_TRUE(insert("A=1", {kept("a", "1")}));
    }
    ~StoreRequest() override { EXPECT_TRUE(StoredFiles::tidy()); }

    bool request(bool backup = false, bool ignoreUpgradeState = false)
    {
        return request(client, backup, ignoreUpgradeState);
    }
    bool request(Service& from, bool backup = false, bool ignoreUpgradeState = false)
    {
        TAMO_DBStorePersistentDump wanted;
        wanted.backup = backup;
        wanted.ignoreUpgradeState = ignoreUpgradeState;
        return ask<TAMO_DBStorePersistentDumpRsp>(wanted, from).success;
    }
    bool setState(const Value& state)
    {
        return insertByRequest(container("UpgradePackage=1", {attribute("state", state)}));
    }
    std::string permanent() const { return path("flash/pRBSdb"); }
    std::string stored() const { return fs::exists(permanent()) ? StoredFiles::values(permanent()) : "(none)"; }
    bool backedUp() const { return fs::exists(path("brm/pRBSdb")); }
    /// Both kinds asked for, and put off; with nothing there from before.
    void putBothOff()
    {
        EXPECT_TRUE(request(true));
        EXPECT_TRUE(request());
        EXPECT_FALSE(backedUp());
        EXPECT_EQ(stored(), "(none)");
    }
    /// The next things that fault management is told: "5069+" for a fault raised, "5069-" for one
    /// cancelled.
    std::string faultsTold(int count)
    {
        std::string told;
        for (int i = 0; i < count; ++i) {
            const auto fault = faults.next<TAMO_FaultNotification>();
            char words[32] = "nothing";
            if (fault)
                std::snprintf(words, sizeof words, "%x%c", static_cast<unsigned>(fault->faultCode),
                              fault->raise ? '+' : '-');
            told += words;
        }
        return told;
    }
    std::string reasonRecorded() const
    {
        const std::string common = path("common/commondb");
        return fs::exists(common) ? queryFile(common, "select value from Attribute where name = 'resetReason'") : "";
    }

    Service faults{path("runtime"), "fm", 3};
    Service resets{path("runtime"), "reset", 9};

private:
    StoredFiles m_files;
    ScopedVariable m_brm{"TAMO_BRM_TEMP_FILE_PATH", path("brm")};
};

/// A permanent file that cannot be written but can be removed: a link to a program that runs.
class RunningFile {
public:
    explicit RunningFile(const std::string& link)
    {
        const std::string file = link + ".program";
        fs::copy_file("/usr/bin/sleep", file, fs::copy_options::overwrite_existing);
        fs::create_symlink(file, link);
        m_process = fork();
        if (m_process == 0) {
            execl(file.c_str(), "sleep", "60", nullptr);
            _exit(1);
        }
        const std::string running = "/proc/" + std::to_string(m_process) + "/exe";
        std::error_code error;
        while (fs::read_symlink(running, error) != fs::canonical(file) && kill(m_process, 0) == 0)
            usleep(1000);
    }
    ~RunningFile()
    {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    RunningFile(const RunningFile&) = delete;
    RunningFile& operator=(const RunningFile&) = delete;

private:
    pid_t m_process = -1;
};

} // namespace

TEST_F(StoreRequest, OnlyAutointegrationMayStoreBeforeItIsCompleted)
{
    ASSERT_TRUE(update("OAM", {attribute("AI_phase", 3)}));
    EXPECT_TRUE(request());
    EXPECT_EQ(stored(), "(none)");
    EXPECT_TRUE(request(autointegration));
    EXPECT_EQ(stored(), "a=1");
    ASSERT_TRUE(update("OAM", {attribute("AI_phase", 4)}));
    ASSERT_TRUE(update("A=1", {kept("a", "2")}));
    EXPECT_TRUE(request());
    EXPECT_EQ(stored(), "a=2");
    EXPECT_TRUE(request(true));
    EXPECT_EQ(StoredFiles::values(path("brm/pRBSdb")), "a=2");
}

TEST_F(StoreRequest, UnsafeUpgradeStatesPutStoresOffUntilTheStateIsSafe)
{
    ASSERT_TRUE(setState(2));
    putBothOff();
    EXPECT_TRUE(request(true)) << "asked for twice";
    EXPECT_EQ(log.count(mwLogInfo, "Database registered to notifications with key UpgradePackage=1,1,state,,"), 1);
    for (const int state : {4, 8})
        ASSERT_TRUE(setState(state));
    EXPECT_FALSE(backedUp());
    EXPECT_EQ(log.count(mwLogInfo, "state value changed into 8, storePersistentDump is not allowed"), 1);
    log.forget();
    ASSERT_TRUE(setState(1));
    EXPECT_TRUE(backedUp());
    EXPECT_EQ(stored(), "a=1");
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::storePersistentDump: Persistent MOs stored"), 2);
    ASSERT_TRUE(setState(3));
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::storePersistentDump: Persistent MOs stored"), 2) << "once each";

    fs::remove(permanent());
    ASSERT_TRUE(setState(2));
    EXPECT_TRUE(request(false, true)) << "the client takes the risk";
    EXPECT_EQ(stored(), "a=1");
}

TEST_F(StoreRequest, DeletionOfTheStateAndOtherKindsReleaseToo)
{
    ASSERT_TRUE(setState(8));
    putBothOff();
    TAMO_deleteAttribute remove;
    remove.dn = "UpgradePackage=1";
    remove.attributeName = "state";
    ASSERT_TRUE(ask<TAMO_deleteAttributeRsp>(remove).success);
    EXPECT_EQ(log.count(mwLogInfo, "UpgradePackage=1:state was deleted from database, storePersistentDump is allowed"),
              1);
    EXPECT_TRUE(backedUp());
    EXPECT_EQ(stored(), "a=1");

    fs::remove(permanent());
    fs::remove(path("brm/pRBSdb"));
    ASSERT_TRUE(setState(8));
    putBothOff();
    ASSERT_TRUE(setState(std::string("8"))) << "a text is no state";
    EXPECT_EQ(log.count(mwLogError, "Boost Bad Get! When reading value of: 'UpgradePackage=1:state' "), 1);
    EXPECT_EQ(stored(), "a=1");
    fs::remove(permanent());
    EXPECT_TRUE(request());
    EXPECT_EQ(stored(), "a=1") << "nor for a request";
}

TEST_F(StoreRequest, SilentCommitReleasesToo)
{
    ASSERT_TRUE(setState(4));
    putBothOff();
    const auto commitState = [&](int state) {
        ASSERT_TRUE(start());
        ASSERT_TRUE(queueUpdate(container("UpgradePackage=1", {attribute("state", state)})));
        ASSERT_TRUE(act(transactionCommit, client, true));
    };
    commitState(2);
    EXPECT_FALSE(backedUp());
    commitState(5);
    EXPECT_TRUE(backedUp());
    EXPECT_EQ(stored(), "a=1");
    EXPECT_EQ(log.count(mwLogInfo, "Notification received"), 0);
}

TEST_F(StoreRequest, SecondAttemptAfterTheOldFileIsRemoved)
{
    const RunningFile busy(permanent());
    EXPECT_TRUE(request());
    EXPECT_EQ(stored(), "a=1");
    EXPECT_EQ(faultsTold(2), "5069+5069-");
    EXPECT_EQ(reasonRecorded(), "");
    EXPECT_TRUE(resets.gotNothing());
}

TEST_F(StoreRequest, SecondFailureOrdersAFallbackAndTheServiceLivesOn)
{
    {
        const FullDrive full("tmp_pRBSdb");
        EXPECT_FALSE(request());
        EXPECT_EQ(faultsTold(2), "5069+5070+");
        const auto ordered = resets.next<TAMO_ResetRBS>();
        ASSERT_TRUE(ordered);
        EXPECT_EQ(ordered->reason, 2);
        EXPECT_EQ(reasonRecorded(), "2");
        EXPECT_FALSE(request(true)) << "a backup is tried once";
        EXPECT_TRUE(faults.gotNothing()) << "and no fault";
        EXPECT_TRUE(resets.gotNothing());
    }
    EXPECT_EQ(stored(), "(none)");
    EXPECT_TRUE(request());
    EXPECT_EQ(stored(), "a=1");
}

TEST_F(StoreRequest, FailedLateStoreIsNotEnteredAgainAndNotRepeated)
{
    ASSERT_TRUE(setState(2));
    putBothOff();
    {
        const FullDrive full("tmp_pRBSdb");
        EXPECT_TRUE(setState(1)) << "the change itself is sound";
    }
    EXPECT_EQ(log.count(mwLogInfo, "Notification received with upTicket"), 1);
    EXPECT_EQ(log.count(mwLogError, "SQLite::storePersistentDump: Storing persistent dump failed"), 3);
    EXPECT_EQ(faultsTold(2), "5069+5070+");
    EXPECT_EQ(reasonRecorded(), "2");
    ASSERT_TRUE(setState(3));
    EXPECT_EQ(stored(), "(none)") << "nothing is put off any more";
    EXPECT_EQ(value("UpgradePackage=1", "state"), "3");
}

TEST_F(StoreRequest, InsideATransactionNothingIsStoredAndTheStoreStaysPutOff)
{
    ASSERT_TRUE(setState(2));
    putBothOff();
    ASSERT_TRUE(update("UpgradePackage=1", {attribute("state", 4)}));
    ASSERT_TRUE(store().sql_start_transaction());
    DBObject safe = container("UpgradePackage=1", {attribute("state", 1)});
    ASSERT_TRUE(store().sql_update(&safe, true, "test"));
    service.reconsiderDelayedStores();
    EXPECT_FALSE(service.StorePersistentDump(false));
    EXPECT_EQ(stored(), "(none)");
    EXPECT_TRUE(faults.gotNothing()) << "that is nobody's fault";
    ASSERT_TRUE(store().sql_commit_transaction());
    service.reconsiderDelayedStores();
    EXPECT_TRUE(backedUp());
    EXPECT_EQ(stored(), "a=1");
}

TEST_F(StoreRequest, TimerIsArmedOnEntryAndStoresWhatChangedAgainAndAgain)
{
    const ScopedVariable fast("TAMO_TIMER_FACTOR", "0.00001"); // 36 ms
    service.enterState(DatabaseWrapper::stListening);
    service.start();
    const auto lines = [&](const char* part) { return log.count(mwLogInfo, part); };
    for (int i = 0; i < 1000 && lines("pRBSdb not stored to flash") < 2; ++i)
        usleep(10000);
    EXPECT_GE(lines("pRBSdb not stored to flash"), 2);
    EXPECT_EQ(lines("SQLite::storeDbToFlash: pRBSdb stored to flash"), 1);
    service.enqueueEvent(TAMO::Framework::Event(TAMO::Framework::terminateRequested));
    service.thread().join();
    EXPECT_EQ(stored(), "a=1");
}

TEST_F(StoreRequest, TimerRetriesAndReportsAsTheRequestDoes)
{
    const auto expire = [&] { EXPECT_TRUE(service.dispatch(*std::make_unique<TAMO::Framework::Event>(999))); };
    ASSERT_TRUE(update("OAM", {attribute("AI_phase", 3)}));
    expire();
    EXPECT_EQ(stored(), "(none)");
    ASSERT_TRUE(update("OAM", {attribute("AI_phase", 4)}));
    service.handleTimeout(DatabaseWrapper::stFinal);
    EXPECT_EQ(stored(), "(none)");
    {
        const RunningFile busy(permanent());
        expire();
        EXPECT_EQ(stored(), "a=1");
        EXPECT_EQ(faultsTold(2), "5069+5069-");
    }
    const FullDrive full("tmp_pRBSdb");
    expire();
    EXPECT_EQ(stored(), "(none)") << "the old file is gone before the second attempt";
    EXPECT_EQ(faultsTold(2), "5069+5070+");
    EXPECT_EQ(reasonRecorded(), "2");
    const auto ordered = resets.next<TAMO_ResetRBS>();
    EXPECT_TRUE(ordered && ordered->reason == 2);
}
