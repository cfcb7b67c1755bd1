// Client transactions: all of it or nothing, in order, for one client, whatever goes wrong.

#include "tests/requests/TransactionRequestTest.h"

#include "platform/messages/Notifications.h"
#include "tests/support/Faults.h"

#include <filesystem>
#include <fstream>
#include <sqlite3.h>

using namespace TAMO::Messages;
namespace fs = std::filesystem;

namespace {

class ClientTransaction : public TransactionRequestTest {
protected:
    using Entry = TAMO_DBTransactionNotifData::Entry;

    /// All of the store after the insert, the update and the deletion, which refers to "Kept=1".
    void queueOneOfEach()
    {
        ASSERT_TRUE(start());
        EXPECT_TRUE(queueInsert(container("New=1", {text("a", "x")})));
        EXPECT_TRUE(queueUpdate(container("Kept=1", {text("a", "new")})));
        EXPECT_TRUE(queueDelete("Old=1"));
    }
    void storeKeptAndOld()
    {
        ASSERT_TRUE(insert("Kept=1", {text("a", "old"), text("reservedBy", "")}));
        ASSERT_TRUE(insert("Old=1", {reference("r", "Kept=1")}));
    }
    bool isOpen() const { return TransactionMngr::getTransactionMngr(keyOf(client)) != nullptr; }

    /// The commit of one of each fails, leaves nothing, ends the transaction, and harms nobody.
    void expectLost(const std::string& before)
    {
        EXPECT_FALSE(isOpen());
        EXPECT_FALSE(store().transactionOpen());
        EXPECT_EQ(everything(), before);
        EXPECT_TRUE(anotherConnectionCanWrite());
        EXPECT_TRUE(insertByRequest(container("Next=1")));
    }

    void subscribe(Service& from)
    {
        TAMO_DBRegToNotif request;
        request.transactions = 1;
        EXPECT_GT(ask<TAMO_DBRegToNotifRsp>(request, from).ticket, 0);
    }
    static std::string textOf(const std::vector<Entry>& entries)
    {
        std::string text;
        for (const Entry& entry : entries) {
            text += entry.dn + ":";
            for (const std::string& name : entry.attributes)
                text += name + ",";
            text += std::to_string(entry.operation) + (entry.sameAsPrevious ? "=" : "") + " ";
        }
        return text;
    }
    /// What a subscriber of transactions got; empty when nothing came.
    static std::string told(Service& subscriber)
    {
        const auto message = subscriber.next<TAMO_DBNotification>();
        return message ? textOf(message->transaction.entries) : "";
    }
};

} // namespace

TEST_F(ClientTransaction, WritesWaitForTheCommitAndHappenInOrder)
{
    storeKeptAndOld();
    ASSERT_TRUE(insert("Set=1", {text("a", "old"), text("b", "old")}));
    const std::string before = everything();
    queueOneOfEach();
    EXPECT_TRUE(queueUpdate(container("New=1", {text("a", "y")}))) << "of what is not stored yet";
    EXPECT_TRUE(queueInsert(container("New=1,Below=1")));
    EXPECT_TRUE(queueInsert(container("Gone=1")));
    EXPECT_TRUE(queueDelete("Gone=1"));
    TAMO_DBSetAttributeValue setting;
    setting.dn = "Set=1";
    setting.attributeName = "a";
    setting.value = std::string("set");
    EXPECT_TRUE(under<TAMO_DBSetAttributeValueRsp>(setting, client).success);
    EXPECT_TRUE(queueAttributeDeletion("Set=1", "b"));
    EXPECT_EQ(everything(), before);
    EXPECT_TRUE(anotherConnectionCanWrite()) << "an open transaction holds no lock";
    EXPECT_TRUE(commit());
    EXPECT_EQ(committed("select dn from DBObject order by dn"), "Below=1,Kept=1,New=1,Set=1,baseobject");
    EXPECT_EQ(value("New=1", "a"), "y");
    EXPECT_EQ(value("Kept=1", "a"), "new");
    EXPECT_EQ(value("Kept=1", "reservedBy"), "");
    EXPECT_EQ(value("Set=1", "a"), "set");
    EXPECT_EQ(value("Set=1", "b"), "(none)");
    EXPECT_FALSE(isOpen());
}

TEST_F(ClientTransaction, SeveralValuesAndCreatedObjectsNeverWait)
{
    ASSERT_TRUE(insert("A=1", {text("a", "old")}));
    ASSERT_TRUE(start(autointegration));
    TAMO_DBSetAttributeValues several;
    several.container = {{{"a", "A=1"}}, {{"a", std::string("new")}}};
    EXPECT_TRUE(under<TAMO_DBSetAttributeValueRsp>(several, autointegration).success);
    EXPECT_EQ(value("A=1", "a"), "new");
    std::ofstream(path("template.xml")) << "<mo><dn>C=1</dn></mo>";
    TAMO_DBCreateObject creation;
    creation.templateFile = path("template.xml");
    creation.dn = "C=1";
    EXPECT_TRUE(under<TAMO_DBCreateObjectRsp>(creation, autointegration).success);
    EXPECT_TRUE(object("C=1"));
}

TEST_F(ClientTransaction, FaultInTheMiddleTakesTheOthersBack)
{
    storeKeptAndOld();
    const std::string before = everything();
    const auto commitUnder = [&](const char* brokenStep) {
        queueOneOfEach();
        const BrokenStep broken(TempStore::handle(), brokenStep); // SQLite rolls back by itself
        EXPECT_FALSE(commit()) << brokenStep;
        EXPECT_FALSE(isOpen()) << brokenStep;
        EXPECT_EQ(everything(), before) << brokenStep;
    };
    commitUnder("INSERT INTO Attribute");
    commitUnder("update DBObject");
    commitUnder("update Attribute");
    commitUnder("delete from DBObject");
    queueOneOfEach();
    {
        const RefusedPrepare refused(TempStore::handle(), SQLITE_DELETE, "DBObject");
        EXPECT_FALSE(commit());
    }
    EXPECT_EQ(log.count(mwLogError, "Database operation failed: Delete, Old=1, 1, 100, "), 2);
    EXPECT_EQ(log.count(mwLogError, "commit failed. SQLite fail start rollback"), 5);
    expectLost(before);
}

TEST_F(ClientTransaction, ShortageOfMemoryAtAnyPointKeepsItWhole)
{
    const auto tree = [this] {
        return committed("select dn from DBObject order by dn") + " " +
               committed("select name||'='||value from Attribute order by name,value");
    };
    bool happened = true;
    for (int passes = 0; happened; ++passes) {
        storeKeptAndOld();
        const std::string before = tree();
        queueOneOfEach();
        bool result = false;
        {
            const RefusedMemory scarce(passes);
            result = service.commitTransaction(keyOf(client));
            happened = RefusedMemory::happened();
        }
        TransactionMngr::endTransaction(keyOf(client));
        ASSERT_EQ(tree(), result ? "Kept=1,New=1,baseobject a=new,a=x,reservedBy=" : before) << passes;
        ASSERT_TRUE(result || happened) << passes;
        for (const char* dn : {"New=1", "Old=1", "Kept=1"})
            store().delete_object(dn, 1, false, "test");
    }
}

TEST_F(ClientTransaction, RefusedCommitLeavesNothingAndMayBeRepeated)
{
    storeKeptAndOld();
    const std::string before = everything();
    queueOneOfEach();
    {
        const FullDrive full("runtime/pRBSdb");
        EXPECT_FALSE(commit());
    }
    EXPECT_EQ(everything(), before);
    EXPECT_FALSE(object("New=1"));
    EXPECT_TRUE(anotherConnectionCanWrite());
    EXPECT_TRUE(insertByRequest(container("Next=1"))) << "and takes nothing of the failed one along";
    EXPECT_FALSE(object("New=1"));
    EXPECT_TRUE(isOpen());
    EXPECT_TRUE(commit());
    EXPECT_EQ(committed("select dn from DBObject order by dn"), "Kept=1,New=1,Next=1,baseobject");
}

TEST_F(ClientTransaction, ShutDownRefusesEveryCommit)
{
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueInsert(container("A=1")));
    ASSERT_TRUE(start(autointegration));
    store().shutdownDB();
    EXPECT_FALSE(commit());
    EXPECT_FALSE(commit(autointegration)) << "an empty one";
    EXPECT_EQ(log.count(mwLogError, "Failed to start transaction with transactionId "), 2);
    EXPECT_TRUE(isOpen());
    EXPECT_TRUE(abort(client));
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject");
}

TEST_F(ClientTransaction, MisplacedActionsChangeNothing)
{
    for (const std::int32_t action : {transactionCommit, transactionAbort, ETransactionAction{}})
        EXPECT_FALSE(act(action, client)) << "nothing is open";
    EXPECT_EQ(log.count(mwLogError, "not transaction manager instance found"), 3);
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueInsert(container("A=1")));
    EXPECT_FALSE(start());
    EXPECT_FALSE(act(24, client));
    EXPECT_TRUE(commit());
    EXPECT_TRUE(object("A=1")) << "the refused actions left it alone";
    ASSERT_TRUE(start());
    EXPECT_TRUE(commit()) << "an empty one";
    EXPECT_FALSE(commit()) << "which is over then";
    EXPECT_TRUE(anotherConnectionCanWrite());
}

TEST_F(ClientTransaction, UnknownOperationCountsAsTheOneBeforeIt)
{
    constexpr std::int32_t unknown = 5;
    const auto add = [this](std::int32_t code, const std::string& dn) {
        TransactionMngr::getTransactionMngr(keyOf(client))
            ->addSqlOperation(code, std::make_unique<DBObject>(container(dn)));
    };
    ASSERT_TRUE(start());
    add(unknown, "A=1");
    add(operationInsert, "B=1");
    EXPECT_FALSE(commit());
    EXPECT_EQ(log.count(mwLogError, "Database operation failed: , A=1, 1, 100, "), 1);
    ASSERT_TRUE(start());
    add(operationInsert, "C=1");
    add(unknown, "D=1");
    add(operationInsert, "E=1");
    EXPECT_TRUE(commit());
    EXPECT_EQ(committed("select dn from DBObject order by dn"), "C=1,E=1,baseobject");
}

TEST_F(ClientTransaction, RowIdsThatWereGivenOutAgainAreSeenThrough)
{
    for (const char* dn : {"A=1", "A=1,B=1", "A=1,B=1,C=1"})
        ASSERT_TRUE(insert(dn, {text("a", "old")}));
    auto stale = object("A=1,B=1,C=1");
    ASSERT_TRUE(stale);
    ASSERT_TRUE(store().delete_object("A=1,B=1", 1, false, "test"));
    ASSERT_TRUE(insert("Other=1", {text("a", "old")}));
    ASSERT_TRUE(insert("Other=1,C=1", {text("a", "old")}));
    ASSERT_EQ(idOf("Other=1,C=1"), stale->id);
    ASSERT_TRUE(insert("A=1,B=1"));
    ASSERT_TRUE(insert("A=1,B=1,C=1", {text("a", "old")}));
    stale->getAttribute("a")->SetValue(std::string("new"));
    subscribe(autointegration);
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueUpdate(*stale));
    EXPECT_TRUE(commit());
    EXPECT_EQ(value("A=1,B=1,C=1", "a"), "new");
    EXPECT_EQ(value("Other=1,C=1", "a"), "old");
    EXPECT_EQ(told(autointegration), "A=1,B=1,C=1:a,6 ");
}

TEST_F(ClientTransaction, SubscribersAreToldOfTheWholeTransactionOnce)
{
    storeKeptAndOld();
    subscribe(autointegration);
    ASSERT_TRUE(start());
    DBObject made = container("Kept=1,New=1", {text("b", "x"), text("a", "x"), text("still", "x")});
    made.getAttribute("still")->changed = false;
    EXPECT_TRUE(queueInsert(made));
    EXPECT_TRUE(queueInsert(container("Kept=1,New=2", {text("parked", "x")})));
    EXPECT_TRUE(queueInsert(container("Kept=1,T=1:s", {text("member", "x")}, false)));
    EXPECT_TRUE(queueUpdate(container("Kept=1", {text("a", "new")})));
    EXPECT_TRUE(queueDelete("Old=1"));
    EXPECT_TRUE(commit());
    EXPECT_EQ(told(autointegration), "Kept=1,New=1:a,b,0 Kept=1,New=2:parked,0= Kept=1:s,0= Kept=1,T=1:s:member,0= "
                                     "Kept=1:a,6 Old=1:7 ");
    ASSERT_TRUE(start());
    EXPECT_TRUE(commit());
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueUpdate(container("Absent=1")));
    EXPECT_FALSE(commit());
    EXPECT_TRUE(autointegration.gotNothing()) << "of an empty and of a failed one";
}

TEST_F(ClientTransaction, NotificationsAreOffForOneCommitOnly)
{
    subscribe(autointegration);
    constexpr bool noNotifications = true;
    for (const char* dn : {"Absent=1", "A=1"}) {
        ASSERT_TRUE(start());
        EXPECT_TRUE(queueInsert(container("A=1", {text("a", "x")})));
        EXPECT_TRUE(queueUpdate(container(dn, {text("b", "x")})));
        EXPECT_EQ(act(transactionCommit, client, noNotifications), dn == std::string("A=1"));
        EXPECT_FALSE(store().notificationsDisabled());
    }
    EXPECT_EQ(value("A=1", "b"), "x");
    EXPECT_TRUE(autointegration.gotNothing());
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueDelete("A=1"));
    EXPECT_TRUE(commit());
    EXPECT_EQ(told(autointegration), "A=1:7 ");
}

TEST_F(ClientTransaction, CommonDatabaseIsWrittenInATransactionOfItsOwn)
{
    subscribe(autointegration);
    const auto queueCommon = [this] {
        const DBObject common = container("Common", {attribute("brmOngoing", true)}, false);
        EXPECT_TRUE(under<TAMO_DBInsertToCommonDbRsp>(
                        carrying<TAMO_DBInsertToCommonDb>(common, operationInsertToCommonDb), client)
                        .success);
    };
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueInsert(container("A=1")));
    queueCommon();
    EXPECT_FALSE(fs::exists(path("common/commondb")));
    EXPECT_TRUE(queueUpdate(container("Absent=1")));
    EXPECT_FALSE(commit());
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject");
    EXPECT_EQ(queryFile(path("common/commondb"), "select name||value from Attribute"), "brmOngoing1") << "it stays";
    ASSERT_TRUE(start());
    EXPECT_TRUE(queueInsert(container("A=1")));
    queueCommon();
    EXPECT_TRUE(queueInsert(container("A=1,B=1")));
    EXPECT_TRUE(commit());
    EXPECT_EQ(committed("select dn from DBObject order by id"), "baseobject,A=1,B=1");
    EXPECT_EQ(told(autointegration), "A=1:0 Common:brmOngoing,1 A=1,B=1:0 ");
}
