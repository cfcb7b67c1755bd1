#pragma once

#include "tests/requests/RequestTest.h"

#include "platform/messages/Notifications.h"

#include <string>

/// Clients that subscribe, and what they are told.
class Subscribing : public RequestTest {
protected:
    // Kinds of whole objects
    static constexpr std::int32_t all = 1;
    static constexpr std::int32_t model = 2;
    static constexpr std::int32_t others = 3;

    struct Fields {
        std::string dn = {};
        std::int32_t instance = 0;
        std::string attribute = {};
        std::int32_t operation = 0;
        std::int32_t forAll = 0;
        std::int32_t transactions = 0;
        std::int32_t withAlternate = 0;
    };
    template <class Request>
    static Request requestOf(const Fields& fields)
    {
        Request request;
        request.dn = fields.dn;
        request.MOInstance = fields.instance;
        request.attributeName = fields.attribute;
        request.operation = fields.operation;
        request.notificationForAll = fields.forAll;
        request.transactions = fields.transactions;
        request.withAlternate = fields.withAlternate;
        return request;
    }
    std::int32_t subscribe(Service& from, const Fields& fields)
    {
        return ask<TAMO::Messages::TAMO_DBRegToNotifRsp>(requestOf<TAMO::Messages::TAMO_DBRegToNotif>(fields), from)
            .ticket;
    }
    bool unsubscribe(Service& from, const Fields& fields, std::int32_t ticket = -1)
    {
        auto request = requestOf<TAMO::Messages::TAMO_DBUnRegToNotif>(fields);
        request.ticket = ticket;
        return ask<TAMO::Messages::TAMO_DBUnRegToNotifRsp>(request, from).success;
    }
    /// What arrived: "ticket:operation dn attribute=value" for an item, "ticket:{operation dn: ...}"
    /// for an object, "ticket:[operation dn name,name; ...]" for a transaction, in order.
    static std::string told(Service& who)
    {
        std::string text;
        for (const auto& raw : who.arrived()) {
            TAMO::Messages::TAMO_DBNotification message;
            EXPECT_TRUE(raw->id == TAMO::Messages::TAMO_DBNotification::id && message.deserialize(raw.get()));
            text += std::to_string(message.ticket) + ":" + describe(message) + " ";
        }
        return text;
    }
    static std::string describe(const TAMO::Messages::TAMO_DBNotification& message)
    {
        if (!message.transaction.entries.empty())
            return describe(message.transaction);
        const auto valueOf = [](const Value& value) { return valueText(value); };
        std::string text =
            std::to_string(message.objectOperation) + " " + (message.wholeDn.empty() ? message.dn : message.wholeDn);
        EXPECT_EQ(static_cast<std::size_t>(message.attributeListLength), message.attributeList.size());
        if (message.attributeName != "notifsForAll") {
            EXPECT_EQ(message.attributeList.size(), 1U);
            EXPECT_EQ(message.attributeList.at(0).name, "empty");
            return text +
                   (message.attributeName.empty() ? "" : " " + message.attributeName + "=" + valueOf(message.value));
        }
        text = "{" + text + ":";
        for (const TAMO::Messages::attrNameValuePair& pair : message.attributeList)
            text += " " + pair.name + "=" + valueOf(pair.value);
        return text + "}";
    }
    /// "+" marks an operation that is the same as the one before.
    static std::string describe(const TAMO::Messages::TAMO_DBTransactionNotifData& transaction)
    {
        std::string text;
        for (const auto& entry : transaction.entries) {
            text += (text.empty() ? "[" : "; ") + std::to_string(entry.operation) + (entry.sameAsPrevious ? "+" : "") +
                    " " + entry.dn;
            for (const std::string& name : entry.attributes)
                text += (&name == &entry.attributes.front() ? " " : ",") + name;
        }
        return text + "]";
    }

    void makeReady() { ASSERT_TRUE(insert("OAM", {attribute("readyForOssSync", std::int32_t{1})}, false)); }

    Service second{path("runtime"), "second", 101};
    Service vex{path("runtime"), "vex", 10};
};
