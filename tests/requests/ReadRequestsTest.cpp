// Requests that read: whole answers or none, never a part that passes for the whole.

#include "tests/requests/RequestTest.h"

#include <sqlite3.h>

using namespace TAMO::Messages;

namespace {

class ReadRequests : public RequestTest {
protected:
    TAMO_DBFetchRsp fetch(const std::string& dn)
    {
        TAMO_DBFetch request;
        request.dn = dn;
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
    static void expectRefusal(const ListAnswer& answer)
    {
        EXPECT_EQ(answer.data.result, 1);
        EXPECT_EQ(answer.count, 0);
        EXPECT_TRUE(answer.lengths.empty());
        EXPECT_TRUE(answer.data.data.empty());
    }
    static void expectRefusal(const ItemAnswer& answer)
    {
        EXPECT_EQ(answer.data.result, 1);
        EXPECT_EQ(answer.length, 0);
        EXPECT_FALSE(answer.data.dataValid);
    }
};

} // namespace

TEST_F(ReadRequests, LargeObjectTravelsCompressedBothWays)
{
    const std::string large(390000, 'x');
    ASSERT_TRUE(insertByRequest(container("A=1", {text("large", large)})));
    const auto answer = fetch("A=1");
    EXPECT_EQ(answer.data.answerKind, 10);
    EXPECT_EQ(answer.data.receiver, client.id());
    EXPECT_GT(answer.uncompressedSize, answer.length);
    const auto whole = DBObject::DeSerializeDatafromDB(answer.data.data.data(), answer.length, answer.uncompressedSize);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->getAttribute("large")->ToStr(), large);
    ASSERT_TRUE(insert("B=1", {text("b", "x")}));
    EXPECT_EQ(fetch("B=1").uncompressedSize, 0);
    EXPECT_LT(fetch("B=1").data.data.size(), 1000U) << "a small object makes a small answer";
    const auto single = fetchAttribute("B=1", "b");
    EXPECT_EQ(single.data.answerKind, 11);
    EXPECT_EQ(single.data.receiver, client.id());
    EXPECT_TRUE(ask<TAMO_DBOrderReadyRsp>(TAMO_DBOrderReady()).success);
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
    expectRefusal(fetch("A=1,C=1"));
    expectRefusal(fetchAttribute("A=1,C=1", "c"));
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
