// What a client reads while it has a transaction open: its own queued writes, and nobody else's. Random
// courses of such reads are in ModelTest.cpp; here is what its model leaves out.

#include "tests/requests/TransactionRequestTest.h"

#include <chrono>

using namespace TAMO::Messages;

namespace {

class Overlay : public TransactionRequestTest {
protected:
    Overlay() { EXPECT_TRUE(start()); }

    std::unique_ptr<DBObject> fetch(const std::string& dn)
    {
        TAMO_DBFetch request;
        request.dn = dn;
        const auto answer = under<TAMO_DBFetchRsp>(request, client);
        EXPECT_EQ(answer.data.result, answer.data.dataValid ? 0 : 1);
        return DBObject::DeSerializeDatafromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    }
    TAMO_DBFetchMOClassRsp ofClass(const std::string& moClass)
    {
        TAMO_DBFetchMOClass request;
        request.moClass = moClass;
        return under<TAMO_DBFetchMOClassRsp>(request, client);
    }
    /// Full DN and attributes of each object of the class.
    std::string listOf(const std::string& moClass)
    {
        const auto answer = ofClass(moClass);
        const std::uint8_t* at = answer.data.data.data();
        std::string list;
        for (std::size_t i = 0; i < answer.lengths.size(); at += answer.lengths[i++]) {
            const auto object = DBObject::DeSerializeDatafromDB(at, answer.lengths[i], answer.uncompressedSizes[i]);
            list += object ? object->fullDn() + contents(*object) + " " : "(broken) ";
        }
        return list;
    }
    static std::string contents(const DBObject& object)
    {
        std::string text = ":";
        for (const auto& [name, attribute] : object.attributes)
            text += name + "=" + attribute.ToStr() + (attribute.deleted ? "(deleted);" : ";");
        for (const auto& [name, attribute] : object.alternateAttributes)
            text += name + "=" + attribute.ToStr() + "(parked);";
        return text;
    }
    std::string instances(const std::string& parentDn, std::int32_t transId)
    {
        TAMO_DBFetchMOClassWithParent request;
        request.parentDn = parentDn;
        request.moClass = "B";
        std::string text;
        for (const std::string& each : askUnder<TAMO_DBFetchMOClassWithParentRsp>(transId, request, client).instances)
            text += each + " ";
        return text;
    }
    static Attribute parked(Attribute attribute)
    {
        attribute.slot = 1;
        return attribute;
    }
};

} // namespace

TEST_F(Overlay, ParkedAttributesStandApartFromLiveOnes)
{
    ASSERT_TRUE(insert("A=1", {text("a", "old")}));
    EXPECT_TRUE(queueUpdate(container("A=1", {text("a", "new"), parked(text("a2", "new"))})));
    EXPECT_EQ(contents(*fetch("A=1")), ":a=new;a2=new(parked);");
    EXPECT_EQ(contents(*fetch("A=1")), ":a=new;a2=new(parked);") << "as often as asked";
}

TEST_F(Overlay, InstancesOfOneDnAreAllChangedAndListedOnce)
{
    for (const char* dn : {"A=1", "A=1,B=9", "A=1,B=10"})
        ASSERT_TRUE(insert(dn, {text("a", "old")}));
    ASSERT_TRUE(insert("A=1,B=9", {text("a", "old")}, true, 2));
    EXPECT_EQ(instances("A=1", id + 1), "10 9 9 ") << "without a transaction";
    EXPECT_EQ(instances("A=1", id), "10 9 ");
    EXPECT_TRUE(queueUpdate(container("A=1,B=9", {text("a", "new")})));
    EXPECT_EQ(listOf("B"), "A=1,B=9:a=new; A=1,B=10:a=old; A=1,B=9:a=new; ");
    EXPECT_TRUE(queueDelete("A=1,B=9"));
    EXPECT_EQ(listOf("B"), "A=1,B=10:a=old; ");
    EXPECT_TRUE(queueInsert(DBObject("B=2,B=5", 1, true, false, 0, 1, "A=1", 1)));
    EXPECT_EQ(listOf("B"), "A=1,B=10:a=old; A=1,B=2,B=5: ");
    EXPECT_EQ(log.count(mwLogError, "transObjParentDn was not empty and transObjDn contained commas"), 1);
}

TEST_F(Overlay, LimitsHoldForWhatTheClientSees)
{
    TransactionMngr& transaction = *TransactionMngr::getTransactionMngr(keyOf(client));
    constexpr int most = 10000;
    for (int i = 1; i <= most; ++i)
        transaction.addSqlOperation(operationInsert, std::make_unique<DBObject>(container("K=" + std::to_string(i))));
    for (int i = 1; i <= most; ++i)
        transaction.addSqlOperation(operationUpdate, std::make_unique<DBObject>(container("K=" + std::to_string(i))));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ofClass("K").count, most);
    // Comparing each with each would be 100 million comparisons.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(queueInsert(container("K=one too many")));
    EXPECT_EQ(ofClass("K").data.result, 1);
    EXPECT_TRUE(queueDelete("K=one too many"));
    EXPECT_EQ(ofClass("K").data.result, 0);
    EXPECT_TRUE(queueInsert(container("A=1", {text("a", randomText(390000))})));
    EXPECT_TRUE(fetch("A=1"));
    EXPECT_TRUE(queueUpdate(container("A=1", {text("b", randomText(20000))})));
    EXPECT_FALSE(fetch("A=1"));
    EXPECT_EQ(ofClass("A").count, 0);
}
