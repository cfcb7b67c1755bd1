// Requests that read: whole answers or none, never a part that passes for the whole.

#include "tests/requests/RequestTest.h"

#include <sqlite3.h>

using namespace TAMO::Messages;

namespace {

class ReadRequests : public RequestTest {
protected:
    TAMO_DBFetchRsp fetch(const std::string& dn, std::int32_t MOInstance = 1)
    {
        TAMO_DBFetch request;
        request.dn = dn;
        request.MOInstance = MOInstance;
        return ask<TAMO_DBFetchRsp>(request);
    }
    TAMO_DBFetchAttrRsp fetchAttribute(const std::string& dn, const std::string& name)
    {
        TAMO_DBFetchAttr request;
        request.dn = dn;
        request.attributeName = name;
        return ask<TAMO_DBFetchAttrRsp>(request);
    }
    TAMO_DBFetchAllChildrenRsp children(const std::string& dn)
    {
        TAMO_DBFetchAllChildren request;
        request.parentDn = dn;
        return ask<TAMO_DBFetchAllChildrenRsp>(request);
    }
    TAMO_DBFetchMOClassRsp ofClass(const std::string& moClass)
    {
        TAMO_DBFetchMOClass request;
        request.moClass = moClass;
        return ask<TAMO_DBFetchMOClassRsp>(request);
    }
    /// The objects of a list answer.
    static std::vector<std::unique_ptr<DBObject>> objects(const ListAnswer& answer)
    {
        std::vector<std::unique_ptr<DBObject>> all;
        const std::uint8_t* at = answer.data.data.data();
        for (std::size_t i = 0; i < answer.lengths.size(); at += answer.lengths[i++])
            all.push_back(DBObject::DeSerializeDatafromDB(at, answer.lengths[i], answer.uncompressedSizes[i]));
        return all;
    }
    static void expectRefusal(const ListAnswer& answer)
    {
        EXPECT_EQ(answer.data.result, 1);
        EXPECT_EQ(answer.count, 0);
        EXPECT_TRUE(answer.lengths.empty());
        EXPECT_TRUE(answer.data.data.empty());
    }
    static void expectEmpty(const ListAnswer& answer)
    {
        EXPECT_EQ(answer.data.result, 0);
        EXPECT_EQ(answer.count, 0);
        EXPECT_FALSE(answer.data.dataValid);
    }
    static std::string dnsOf(const ListAnswer& answer)
    {
        std::string dns;
        for (const auto& each : objects(answer))
            dns += (each ? each->fullDn() : "(broken)") + " ";
        return dns;
    }
};

} // namespace

TEST_F(ReadRequests, ObjectComesBackWholeCompressedOrNot)
{
    const std::string large(1000000, 'x');
    ASSERT_TRUE(insert("A=1", {text("a", "x"), text("large", large)}));
    ASSERT_TRUE(insert("A=1", {text("a", "second")}, true, 2));
    const auto answer = fetch("A=1");
    EXPECT_EQ(answer.data.answerKind, 10);
    EXPECT_EQ(answer.data.receiver, client.id());
    EXPECT_EQ(answer.data.result, 0);
    EXPECT_TRUE(answer.data.dataValid);
    EXPECT_GT(answer.uncompressedSize, answer.length);
    const auto whole = DBObject::DeSerializeDatafromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->getAttribute("large")->ToStr(), large);
    EXPECT_FALSE(whole->getAttribute("a")->changed);
    const auto second = fetch("A=1", 2);
    EXPECT_EQ(second.uncompressedSize, 0);
    EXPECT_LT(second.data.data.size(), 1000U) << "a small object makes a small answer";
    for (const auto& absent : {fetch("A=1", 3), fetch("Absent=1"), fetch("")}) {
        EXPECT_EQ(absent.data.result, 1);
        EXPECT_EQ(absent.length, 0);
        EXPECT_FALSE(absent.data.dataValid);
    }
}

TEST_F(ReadRequests, AttributeComesBackByItself)
{
    ASSERT_TRUE(insert("A=1", {attribute("n", std::uint64_t{1} << 63)}));
    const auto answer = fetchAttribute("A=1", "n");
    EXPECT_EQ(answer.data.answerKind, 11);
    EXPECT_EQ(answer.data.result, 0);
    const auto held = DBObject::DeSerializeAttrfromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    ASSERT_TRUE(held);
    EXPECT_EQ(held->value, Value(std::uint64_t{1} << 63));
    for (const auto& absent : {fetchAttribute("A=1", "absent"), fetchAttribute("Absent=1", "n")}) {
        EXPECT_EQ(absent.data.result, 1);
        EXPECT_EQ(absent.length, 0);
    }
}

TEST_F(ReadRequests, WhatDoesNotFitIsRefusedWhole)
{
    ASSERT_TRUE(insert("A=1"));
    ASSERT_TRUE(insert("A=1,B=1", {text("b", randomText(390000))}));
    EXPECT_EQ(fetch("A=1,B=1").data.result, 0);
    EXPECT_EQ(children("A=1").count, 1);
    ASSERT_TRUE(insert("A=1,B=2", {text("b", randomText(20000))}));
    EXPECT_EQ(fetch("A=1,B=2").data.result, 0);
    expectRefusal(children("A=1"));
    expectRefusal(ofClass("B"));
    ASSERT_TRUE(insert("A=1,C=1", {text("c", randomText(400001))}));
    const auto object = fetch("A=1,C=1");
    EXPECT_EQ(object.data.result, 1);
    EXPECT_EQ(object.length, 0);
    EXPECT_FALSE(object.data.dataValid);
    const auto single = fetchAttribute("A=1,C=1", "c");
    EXPECT_EQ(single.data.result, 1);
    EXPECT_EQ(single.length, 0);
}

TEST_F(ReadRequests, ClassListingEndsAtTenThousand)
{
    const auto fill = [](int from, int to) {
        const std::string sql = "with recursive n(i) as (values(" + std::to_string(from) +
                                ") union all select i+1 from n where i < " + std::to_string(to) +
                                ") insert into DBObject select null,0,'K='||i,1,0,0 from n";
        EXPECT_EQ(store().runtime()->execute(sql.c_str()), SQLITE_OK);
    };
    fill(1, 10000);
    const auto most = ofClass("K");
    EXPECT_EQ(most.data.result, 0);
    EXPECT_EQ(most.count, 10000);
    EXPECT_EQ(most.lengths.size(), 10000U);
    fill(10001, 10001);
    expectRefusal(ofClass("K"));
}

TEST_F(ReadRequests, ListingsHoldTheirObjectsInOrder)
{
    for (const char* dn : {"A=1", "A=1,B=1", "A=1,B=2", "A=1,C=1", "A=1,B=1,B=3"})
        ASSERT_TRUE(insert(dn, {text("a", dn)}));
    EXPECT_EQ(dnsOf(children("A=1")), "A=1,B=1 A=1,B=2 A=1,C=1 ");
    EXPECT_EQ(dnsOf(ofClass("B")), "A=1,B=1 A=1,B=2 A=1,B=1,B=3 ");
    expectEmpty(children("A=1,C=1"));
    expectEmpty(children("Absent=1"));
    expectEmpty(ofClass("Absent"));
    TAMO_DBFetchMOClassWithParent request;
    request.parentDn = "A=1";
    request.moClass = "B";
    const auto instances = ask<TAMO_DBFetchMOClassWithParentRsp>(request);
    EXPECT_EQ(instances.instances, (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(instances.count, 2);
    EXPECT_EQ(instances.totalSize, 4);
}

TEST_F(ReadRequests, QuestionsAboutTheTree)
{
    ASSERT_TRUE(insert("A=1"));
    ASSERT_TRUE(insert("A=1,B=O'Neil%"));
    const auto present = [this](const std::string& dn, std::int32_t MOInstance) {
        TAMO_DBPresence request;
        request.dn = dn;
        request.MOInstance = MOInstance;
        return ask<TAMO_DBPresenceRsp>(request).success;
    };
    EXPECT_TRUE(present("A=1", 1));
    EXPECT_FALSE(present("A=1", 2));
    EXPECT_FALSE(present("A=1,B=O", 1));
    const auto wholeDn = [this](const std::string& dn, const std::string& parentDn) {
        TAMO_getWholeDn request;
        request.dn = dn;
        request.parentDn = parentDn;
        const auto answer = ask<TAMO_getWholeDnRsp>(request);
        EXPECT_EQ(answer.length, static_cast<std::int32_t>(answer.wholeDn.size()));
        return answer.wholeDn;
    };
    EXPECT_EQ(wholeDn("B=O'Neil%", "A=1"), "A=1,B=O'Neil%");
    EXPECT_EQ(wholeDn("B=O'Neil%", ""), "A=1,B=O'Neil%");
    EXPECT_EQ(wholeDn("B=1", "A=1"), "");
    EXPECT_TRUE(ask<TAMO_DBOrderReadyRsp>(TAMO_DBOrderReady()).success);
}
