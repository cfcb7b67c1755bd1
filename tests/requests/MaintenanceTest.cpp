// Requests about the database as a whole, as clients see them.

#include "tests/requests/TransactionRequestTest.h"
#include "tests/support/Faults.h"
#include "tests/support/Recorder.h"

#include "platform/messages/Notifications.h"
#include "store/FileLocations.h"

#include <sqlite3.h>

#include <filesystem>
#include <fstream>

using namespace TAMO::Messages;
namespace fs = std::filesystem;

namespace {

class Maintenance : public TransactionRequestTest {
protected:
    bool loadSlot(std::int32_t slot)
    {
        TAMO_DBLoadAlternateStorage request;
        request.slot = slot;
        return ask<TAMO_DBLoadAlternateStorageRsp>(request).success;
    }
    bool clean() { return ask<TAMO_DBCleanDatabaseRsp>(TAMO_DBCleanDatabase()).success; }
    bool shutdown() { return ask<TAMO_DBShutdownDbRsp>(TAMO_DBShutdownDb()).success; }
    bool storeFragments() { return ask<TAMO_DBStoreBrMBackupRsp>(TAMO_DBStoreBrMBackup()).success; }
    void checkIntegrity()
    {
        TAMO_DBIntegrityCheck request;
        request.transId = 5;
        handle(TAMO_DBIntegrityCheck::id, request.serialize(), client.id());
    }

    static void park(const std::string& dn, const std::string& name, const std::string& value, std::int32_t slot)
    {
        ASSERT_TRUE(insert("OAM", {attribute("AI_phase", std::int32_t{4})}, false));
        Attribute parked = text(name, value);
        parked.slot = slot;
        ASSERT_TRUE(insert(dn, {parked}));
    }
    void putPermanentFile() const { std::ofstream(permanentFile()) << "a configuration"; }

    template <class Request, class Answer>
    void refusesWhatItCannotRead(void (DatabaseWrapper::*handler)(const RawMessage*))
    {
        (service.*handler)(nullptr);
        handle(Request::id, {0xC0}, client.id());
        EXPECT_TRUE(client.gotNothing());
        Request request;
        request.transId = 77;
        Bytes longer = request.serialize();
        longer.push_back(0xC0);
        handle(Request::id, longer, client.id());
        if constexpr (!std::is_void_v<Answer>) {
            const auto answer = client.next<Answer>();
            ASSERT_TRUE(answer);
            EXPECT_EQ(answer->transId, 77);
            EXPECT_FALSE(answer->success);
        }
        EXPECT_TRUE(client.gotNothing());
    }
};

} // namespace

TEST_F(Maintenance, SlotLoadIsToldBeforeItIsAnsweredWhateverIsQueued)
{
    park("ManagedElement=1", "a", "parked", 2);
    TAMO_DBRegToNotif subscription;
    subscription.notificationForAll = 1;
    ASSERT_GT(ask<TAMO_DBRegToNotifRsp>(subscription).ticket, 0);
    ASSERT_TRUE(start(autointegration));
    ASSERT_TRUE(queueInsert(container("B=1", {text("b", "queued")}, false), autointegration));
    TAMO_DBLoadAlternateStorage request;
    request.slot = 2;
    request.transId = 9;
    handle(TAMO_DBLoadAlternateStorage::id, request.serialize(), client.id());
    const auto messages = client.arrived();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages.front()->id, TAMO_DBNotification::id);
    TAMO_DBLoadAlternateStorageRsp answer;
    ASSERT_EQ(messages.back()->id, TAMO_DBLoadAlternateStorageRsp::id);
    ASSERT_TRUE(answer.deserialize(messages.back().get()));
    EXPECT_TRUE(answer.success);
    EXPECT_EQ(answer.transId, 9);
    EXPECT_EQ(value("ManagedElement=1", "a"), "parked");
    EXPECT_TRUE(loadSlot(2)) << "nothing is parked any more";
    ASSERT_TRUE(commit(autointegration));
    EXPECT_EQ(value("B=1", "b"), "queued");
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
}

TEST_F(Maintenance, FailedSlotLoadIsAnswered)
{
    park("A=1", "a", "parked", 2);
    const RefusedPrepare refused(store().runtime()->handle(), SQLITE_INSERT, "Attribute");
    EXPECT_FALSE(loadSlot(2));
}

TEST_F(Maintenance, CleanLeavesAnEmptyTreeThatTakesWrites)
{
    park("ManagedElement=1", "a", "parked", 2);
    ASSERT_TRUE(insert("ManagedElement=1,B=1", {text("b", "x")}));
    putPermanentFile();
    ASSERT_TRUE(start(autointegration));
    ASSERT_TRUE(queueInsert(container("C=1", {}, false), autointegration));
    {
        Connection leftOver; // of a clean that was killed
        ASSERT_EQ(leftOver.open(path("flash/empty"), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, 0), SQLITE_OK);
        ASSERT_EQ(leftOver.execute("create table Old(x)"), SQLITE_OK);
    }
    const std::string file = store().databaseFile();
    Recorder recorder;
    ASSERT_TRUE(clean());
    EXPECT_EQ(recorder.take(), "");
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject");
    EXPECT_EQ(committed("select name from sqlite_master where type = 'table' order by 1"), "Attribute,DBObject");
    EXPECT_EQ(idOf("ManagedElement=1,B=1"), 0) << "no look-up remembers it";
    EXPECT_TRUE(fs::is_empty(path("flash")));
    EXPECT_EQ(store().databaseFile(), file);
    EXPECT_EQ(log.count(mwLogInfo, "SQLite::cleanDatabase: Database successfully cleared"), 1);
    ASSERT_TRUE(commit(autointegration)) << "what is queued stays queued";
    EXPECT_EQ(recorder.take(), "18 C=1; ");
    ASSERT_TRUE(insertByRequest(container("ManagedElement=1", {text("a", "new")})));
    EXPECT_EQ(value("ManagedElement=1", "a"), "new");
    EXPECT_TRUE(clean()) << "also without a permanent file";
    EXPECT_EQ(log.count(mwLogError), 0) << log.all();
}

TEST_F(Maintenance, FailedCleanKeepsTheTree)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const std::string file = store().databaseFile();
    {
        const ScopedVariable elsewhere("TAMO_DB_FILE_PATH", path("absent"));
        EXPECT_FALSE(clean());
    }
    EXPECT_EQ(log.count(mwLogError, "SQLite::cleanDatabase: Failed to delete pRBSdb from FLASH"), 1);
    EXPECT_EQ(store().databaseFile(), file);
    EXPECT_EQ(value("A=1", "a"), "x");
    fs::create_directory(path("flash/empty"));
    EXPECT_FALSE(clean());
    EXPECT_EQ(committed("select dn from DBObject"), "A=1,baseobject");
}

TEST_F(Maintenance, AfterShutDownNothingIsDone)
{
    park("A=1", "a", "parked", 2);
    ASSERT_TRUE(insert("BrM=1"));
    putPermanentFile();
    const std::string before = everything();
    ASSERT_TRUE(shutdown());
    EXPECT_FALSE(fs::exists(permanentFile()));
    EXPECT_EQ(log.count(mwLogInfo, "Starting to shut down functions!"), 1);
    EXPECT_EQ(log.count(mwLogInfo, "Database shut down and dump file deleted!"), 1);
    EXPECT_FALSE(insertByRequest(container("B=1")));
    EXPECT_FALSE(loadSlot(2));
    EXPECT_FALSE(clean());
    EXPECT_FALSE(storeFragments());
    EXPECT_TRUE(shutdown()) << "a file that is gone counts as deleted";
    EXPECT_EQ(everything(), before);
    EXPECT_FALSE(fs::exists(path("backup/database")));
}

TEST_F(Maintenance, FragmentsAreStoredOrTheFailureIsAnswered)
{
    EXPECT_TRUE(storeFragments()) << "there are none";
    ASSERT_TRUE(insert("BrM=1", {}, false));
    EXPECT_FALSE(storeFragments()) << "there is no directory";
    fs::create_directory(path("backup/database"));
    EXPECT_TRUE(storeFragments());
    EXPECT_EQ(queryFile(path("backup/database/pRBSdb"), "select dn from DBObject"), "BrM=1,baseobject");
}

TEST_F(Maintenance, IntegrityIsCheckedAndNotAnswered)
{
    ASSERT_TRUE(insert("A=1", {text("a", randomText(20000))}));
    checkIntegrity();
    EXPECT_EQ(log.count(mwLogInfo, "DB integrity check requested by Unknown client transId 5"), 1);
    EXPECT_EQ(log.count(mwLogInfo, "integrity ok"), 1);
    EXPECT_TRUE(middleware.state().controlledResets.empty());
    corruptFile(path("runtime/pRBSdb"));
    checkIntegrity();
    EXPECT_EQ(middleware.state().controlledResets.size(), 1U) << "a damaged runtime file asks for a reset";
    EXPECT_TRUE(client.gotNothing());
}

TEST_F(Maintenance, SynchronisationIsEnabledOnceOrOrdersAFallback)
{
    const ScopedVariable mapping("DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", path("mapping"));
    Service resets(path("runtime"), "reset", 9);
    const auto enable = [&] { return ask<TAMO_EnableAttrSyncRsp>(TAMO_EnableAttrSync()).success; };
    EXPECT_FALSE(enable());
    EXPECT_FALSE(store().attributeSynchronisationEnabled());
    const auto ordered = resets.next<TAMO_ResetRBS>();
    ASSERT_TRUE(ordered) << log.all();
    EXPECT_EQ(ordered->reason, 2);
    EXPECT_EQ(log.count(mwLogError, "DatabaseWrapper::handleEnableAttributeSynchronization Requesting SW fallback"), 1);

    fs::create_directory(path("mapping"));
    std::ofstream(path("mapping/deprecated_attribute_mapping.xml"))
        << "<AttrSyncPairs><syncPair><attrSyncPair><attr1><fdn>A=1</fdn><attrName>old</attrName></attr1>"
           "<attr2><fdn>A=1</fdn><attrName>new</attrName></attr2></attrSyncPair></syncPair></AttrSyncPairs>";
    ASSERT_TRUE(insertByRequest(container("A=1", {text("old", "1")})));
    EXPECT_TRUE(enable());
    EXPECT_EQ(value("A=1", "new"), "1");
    ASSERT_TRUE(insertByRequest(container("A=1", {text("new", "2")})));
    EXPECT_EQ(value("A=1", "old"), "2");
    fs::remove_all(path("mapping"));
    EXPECT_TRUE(enable()) << "the file is not read again";
    EXPECT_TRUE(resets.gotNothing());
}

TEST_F(Maintenance, UnreadableRequestsDoNothing)
{
    ASSERT_TRUE(insert("A=1"));
    putPermanentFile();
    refusesWhatItCannotRead<TAMO_DBLoadAlternateStorage, TAMO_DBLoadAlternateStorageRsp>(
        &DatabaseWrapper::handleLoadAlternateStorage);
    refusesWhatItCannotRead<TAMO_DBCleanDatabase, TAMO_DBCleanDatabaseRsp>(&DatabaseWrapper::handleCleanDatabase);
    refusesWhatItCannotRead<TAMO_DBShutdownDb, TAMO_DBShutdownDbRsp>(&DatabaseWrapper::handleShutdownDb);
    refusesWhatItCannotRead<TAMO_DBStoreBrMBackup, TAMO_DBStoreBrMBackupRsp>(&DatabaseWrapper::handleStoreBrMBackup);
    refusesWhatItCannotRead<TAMO_EnableAttrSync, TAMO_EnableAttrSyncRsp>(
        &DatabaseWrapper::handleEnableAttributeSynchronization);
    refusesWhatItCannotRead<TAMO_DBIntegrityCheck, void>(&DatabaseWrapper::handleDBIntegrityCheck);
    EXPECT_EQ(log.count(mwLogError, "NULL message"), 4) << log.all();
    EXPECT_EQ(log.count(mwLogInfo, "Starting to shut down functions!"), 3) << "first in every case";
    EXPECT_TRUE(fs::exists(permanentFile()));
    EXPECT_NE(idOf("A=1"), 0);
}
