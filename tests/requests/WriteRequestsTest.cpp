// Requests that change the tree, and what every handler does with a message that is none.

#include "tests/requests/RequestTest.h"

#include "platform/messages/Notifications.h"
#include "requests/Serve.h"

#include <filesystem>
#include <random>
#include <stdexcept>

using namespace TAMO::Messages;
namespace fs = std::filesystem;

std::string randomText(std::size_t size)
{
    std::mt19937 random(static_cast<unsigned>(size));
    std::string text(size, '\0');
    for (char& c : text)
        c = static_cast<char>(random());
    return text;
}

namespace {

using WriteRequests = RequestTest;

class EveryHandler : public RequestTest {
protected:
    static bool isRefusal(const ResultAnswer& answer) { return !answer.success; }
    static bool isRefusal(const ItemAnswer& answer)
    {
        return answer.data.result == 1 && answer.length == 0 && !answer.data.dataValid && answer.data.data.empty();
    }
    static bool isRefusal(const ListAnswer& answer)
    {
        return answer.data.result == 1 && answer.count == 0 && answer.lengths.empty() && answer.data.data.empty();
    }
    static bool isRefusal(const TAMO_DBFetchMOClassWithParentRsp& answer) { return answer.instances.empty(); }
    static bool isRefusal(const TAMO_getWholeDnRsp& answer) { return answer.wholeDn.empty() && answer.length == 0; }

    template <class Request, class Answer>
    void check(void (DatabaseWrapper::*handler)(const RawMessage*), Service& from)
    {
        (service.*handler)(nullptr);
        EXPECT_TRUE(from.gotNothing()) << std::hex << Request::id;
        Request request;
        request.transId = 77;
        const Bytes whole = request.serialize();
        const int unreadable = log.count(mwLogWarning, "cannot be read");
        handle(Request::id, {}, from.id());
        handle(Request::id, {0xC0}, from.id());
        EXPECT_TRUE(from.gotNothing()) << std::hex << Request::id;
        EXPECT_EQ(log.count(mwLogWarning, "cannot be read"), unreadable + 2);
        Bytes longer = whole;
        longer.push_back(0xC0);
        for (const Bytes& spoilt : {Bytes(whole.begin(), whole.begin() + 2), Bytes{0x91, 0x4D}, longer}) {
            handle(Request::id, spoilt, from.id());
            const auto answer = from.next<Answer>();
            ASSERT_TRUE(answer) << std::hex << Request::id;
            EXPECT_EQ(answer->transId, 77);
            // For a request without fields of its own the shortest body is a whole one.
            constexpr bool onlyAnId = std::is_same_v<Request, TAMO_DBOrderReady>;
            EXPECT_TRUE(onlyAnId || isRefusal(*answer)) << std::hex << Request::id;
        }
        constexpr std::int32_t nobody = 555;
        handle(Request::id, whole, nobody);
    }
};

TAMO_DBDelete deletion(const std::string& dn, std::int32_t operation = operationDelete)
{
    TAMO_DBDelete request;
    request.operation = operation;
    request.dn = dn;
    return request;
}

TAMO_DBSetAttributeValues settings(const std::map<std::string, std::string>& dns,
                                   const std::map<std::string, Value>& values)
{
    TAMO_DBSetAttributeValues request;
    request.container = {dns, values};
    return request;
}

} // namespace

TEST_F(EveryHandler, RefusesWhatIsNoMessageInItsOwnForm)
{
    using Wrapper = DatabaseWrapper;
    check<TAMO_DBInsert, TAMO_DBInsertRsp>(&Wrapper::handleInsert, client);
    check<TAMO_DBInsertToCommonDb, TAMO_DBInsertToCommonDbRsp>(&Wrapper::handleInsertToCommonDb, client);
    check<TAMO_DBUpdate, TAMO_DBUpdateRsp>(&Wrapper::handleUpdate, client);
    check<TAMO_DBDelete, TAMO_DBDeleteRsp>(&Wrapper::handleDelete, client);
    check<TAMO_DBCreateObject, TAMO_DBCreateObjectRsp>(&Wrapper::handleCreateObject, client);
    check<TAMO_DBSetAttributeValue, TAMO_DBSetAttributeValueRsp>(&Wrapper::handleSetAttributeValue, client);
    check<TAMO_DBSetAttributeValues, TAMO_DBSetAttributeValueRsp>(&Wrapper::handleSetAttributeValues, autointegration);
    check<TAMO_deleteAttribute, TAMO_deleteAttributeRsp>(&Wrapper::handleDeleteAttribute, client);
    check<TAMO_DBFetch, TAMO_DBFetchRsp>(&Wrapper::handleFetch, client);
    check<TAMO_DBFetchAttr, TAMO_DBFetchAttrRsp>(&Wrapper::handleFetchAttr, client);
    check<TAMO_DBFetchAllChildren, TAMO_DBFetchAllChildrenRsp>(&Wrapper::handleFetchAllChildren, client);
    check<TAMO_DBFetchMOClass, TAMO_DBFetchMOClassRsp>(&Wrapper::handleFetchMOClass, client);
    check<TAMO_DBFetchMOClassWithParent, TAMO_DBFetchMOClassWithParentRsp>(&Wrapper::handleFetchMOClassWith0Parent,
                                                                           client);
    check<TAMO_DBPresence, TAMO_DBPresenceRsp>(&Wrapper::handlePresence, client);
    check<TAMO_getWholeDn, TAMO_getWholeDnRsp>(&Wrapper::handleGetWholeDn, client);
    check<TAMO_DBOrderReady, TAMO_DBOrderReadyRsp>(&Wrapper::handleOrderReady, client);
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject") << "nothing was written";
}

TEST_F(EveryHandler, UnknownAndUnansweredMessagesAreReleasedInSilence)
{
    handle(0x7777, {0x91, 0x01}, client.id());
    handle(TAMO_FaultNotification::id, TAMO_FaultNotification(1, 1).serialize(), client.id());
    EXPECT_TRUE(client.gotNothing());
    EXPECT_EQ(log.count(mwLogError) + log.count(mwLogWarning), 0);
}

TEST_F(EveryHandler, FailureInTheMiddleIsAnsweredAndLeavesNoTransaction)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const auto breakOff = [](const TAMO_DBDelete& request, const Client&) -> std::optional<TAMO_DBDeleteRsp> {
        EXPECT_TRUE(store().sql_start_transaction());
        EXPECT_TRUE(store().delete_object(request.dn, 1, true, "test"));
        throw std::runtime_error("in the middle");
    };
    TAMO_DBDelete request = deletion("A=1");
    request.transId = 7;
    const RawMessage raw{TAMO_DBDelete::id, client.id(), 0, 0, request.serialize(), nullptr};
    serve<TAMO_DBDelete, TAMO_DBDeleteRsp>(&raw, {}, breakOff);
    const auto answer = client.next<TAMO_DBDeleteRsp>();
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->success);
    EXPECT_EQ(answer->transId, 7);
    EXPECT_EQ(log.count(mwLogError, "in the middle"), 1);
    EXPECT_TRUE(anotherConnectionCanWrite());
    EXPECT_EQ(value("A=1", "a"), "x");
    EXPECT_TRUE(insertByRequest(container("B=1")));
}

TEST_F(WriteRequests, WrongOperationCodesAndBrokenObjectsWriteNothing)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const std::string before = everything();
    const DBObject other = container("A=1", {text("a", "y")});
    EXPECT_FALSE(ask<TAMO_DBInsertRsp>(carrying<TAMO_DBInsert>(other, operationUpdate)).success);
    EXPECT_FALSE(ask<TAMO_DBUpdateRsp>(carrying<TAMO_DBUpdate>(other, operationInsert)).success);
    EXPECT_FALSE(ask<TAMO_DBInsertToCommonDbRsp>(carrying<TAMO_DBInsertToCommonDb>(other, operationInsert)).success);
    EXPECT_FALSE(ask<TAMO_DBDeleteRsp>(deletion("A=1", operationInsert)).success);
    auto cut = carrying<TAMO_DBInsert>(other, operationInsert);
    cut.object.resize(cut.object.size() - 1);
    EXPECT_FALSE(ask<TAMO_DBInsertRsp>(cut).success);
    auto inflated = carrying<TAMO_DBUpdate>(other, operationUpdate);
    inflated.uncompressedSize = 2000000000;
    EXPECT_FALSE(ask<TAMO_DBUpdateRsp>(inflated).success);
    TAMO_DBInsert nothing;
    nothing.operation = operationInsert;
    EXPECT_FALSE(ask<TAMO_DBInsertRsp>(nothing).success);
    EXPECT_EQ(log.count(mwLogError, "Database operation failed: "), 7);
    EXPECT_FALSE(ask<TAMO_DBDeleteRsp>(deletion("Absent=1")).success);
    EXPECT_EQ(log.count(mwLogError, "Database operation failed: Delete, Absent=1, 1, "), 1);
    TAMO_DBSetAttributeValue setting;
    setting.dn = "Absent=1";
    setting.attributeName = "a";
    EXPECT_FALSE(ask<TAMO_DBSetAttributeValueRsp>(setting).success);
    EXPECT_EQ(log.count(mwLogError, "Database operation failed: Get object, "), 1);
    EXPECT_EQ(everything(), before);
    EXPECT_TRUE(fs::is_empty(path("common")));
}

TEST_F(WriteRequests, WhatCouldNeverBeFoundAgainIsRefused)
{
    EXPECT_FALSE(insertByRequest(container("")));
    EXPECT_FALSE(insertByRequest(container("A=1", {text("", "x")})));
    EXPECT_FALSE(insertByRequest(container("A=1", {text("a", randomText(400000))})));
    EXPECT_FALSE(insertByRequest(container("A=1", {}, true, 0)));
    EXPECT_EQ(committed("select dn from DBObject"), "baseobject");
}

TEST_F(WriteRequests, CommonDatabaseIsWrittenByRequest)
{
    ASSERT_TRUE(insert("A=1"));
    const DBObject common = container("Common", {attribute("brmOngoing", true)}, false);
    EXPECT_TRUE(
        ask<TAMO_DBInsertToCommonDbRsp>(carrying<TAMO_DBInsertToCommonDb>(common, operationInsertToCommonDb)).success);
    EXPECT_EQ(queryFile(path("common/commondb"), "select name||value from Attribute"), "brmOngoing1");
    EXPECT_EQ(committed("select dn from DBObject order by id"), "baseobject,A=1");
}

TEST_F(WriteRequests, SeveralValuesAreSetForAutointegrationAlone)
{
    ASSERT_TRUE(insert("A=1", {text("a", "x")}));
    const std::string before = everything();
    const auto whole = settings({{"a", "A=1"}, {"b", "New=1"}}, {{"a", std::string("y")}, {"b", std::int32_t{7}}});
    handle(TAMO_DBSetAttributeValues::id, whole.serialize(), client.id());
    EXPECT_TRUE(client.gotNothing()) << "other services get no answer";
    const auto refused = [this](const TAMO_DBSetAttributeValues& request) {
        return !ask<TAMO_DBSetAttributeValueRsp>(request, autointegration).success;
    };
    EXPECT_TRUE(refused(settings({}, {})));
    EXPECT_TRUE(refused(settings({{"a", "A=1"}}, {})));
    EXPECT_TRUE(refused(settings({{"a", "A=1"}}, {{"a", true}, {"b", true}})));
    EXPECT_TRUE(refused(settings({{"a", "A=1"}}, {{"b", true}})));
    EXPECT_EQ(everything(), before);
    EXPECT_FALSE(refused(whole));
    EXPECT_EQ(value("A=1", "a"), "y");
    EXPECT_EQ(value("New=1", "b"), "7");
    EXPECT_FALSE(refused(settings({{"a", "A=1"}}, {{"a", std::string("y")}}))) << "the value it has already";
}

TEST(ClientTransactions, KeysTellNodesAndIdsApart)
{
    EXPECT_EQ(DatabaseWrapper::generateTransId(2, 17), "2,17");
    EXPECT_EQ(DatabaseWrapper::generateTransId(13, -5), "10,5");
    EXPECT_EQ(DatabaseWrapper::generateTransId(1, -5), "1,-5");
    EXPECT_EQ(DatabaseWrapper::generateTransId(13, std::numeric_limits<std::int32_t>::min()), "10,2147483648");
    EXPECT_EQ(DatabaseWrapper::getClientName(16), "Transport");
    for (const int nobody : {-1, 17, 100})
        EXPECT_EQ(DatabaseWrapper::getClientName(nobody), "Unknown client");
}

TEST(ClassNames, AreThoseOfTheLastPair)
{
    EXPECT_TRUE(DatabaseWrapper::compareClassName("A=1,Equipment=1", "Equipment"));
    EXPECT_TRUE(DatabaseWrapper::compareClassName("Equipment=1", "Equipment"));
    for (const char* other : {"Equipment=1,A=1", "A=1,Equipment2=1", "A=1,MyEquipment=1", "Equipment", "", ","})
        EXPECT_EQ(DatabaseWrapper::compareClassName(other, "Equipment"), std::string(other) == "Equipment") << other;
}
