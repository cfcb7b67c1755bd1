#pragma once

#include "tests/requests/RequestTest.h"

#include "change/TransactionMngr.h"

/// Requests under the id of a client's transaction.
class TransactionRequestTest : public RequestTest {
protected:
    static constexpr std::int32_t id = 7000;

    ~TransactionRequestTest() override
    {
        for (const Service* each : {&client, &autointegration}) // the registry outlives the test
            TransactionMngr::endTransaction(keyOf(*each));
    }

    static std::string keyOf(const Service& of) { return DatabaseWrapper::generateTransId(of.id(), id); }

    template <class Answer, class Request>
    Answer under(Request request, Service& from)
    {
        return askUnder<Answer>(id, std::move(request), from);
    }

    bool act(std::int32_t action, Service& from, bool noNotifications = false)
    {
        using namespace TAMO::Messages;
        TAMO_DBTransaction request;
        request.action = action;
        request.noNotifications = noNotifications;
        return under<TAMO_DBTransactionRsp>(request, from).success;
    }
    bool start(Service& from) { return act(TAMO::Messages::transactionStart, from); }
    bool start() { return start(client); }
    bool commit(Service& from) { return act(TAMO::Messages::transactionCommit, from); }
    bool commit() { return commit(client); }
    bool abort(Service& from) { return act(TAMO::Messages::transactionAbort, from); }

    bool queueInsert(const DBObject& object, Service& from)
    {
        using namespace TAMO::Messages;
        return under<TAMO_DBInsertRsp>(carrying<TAMO_DBInsert>(object, operationInsert), from).success;
    }
    bool queueInsert(const DBObject& object) { return queueInsert(object, client); }
    bool queueUpdate(const DBObject& object)
    {
        using namespace TAMO::Messages;
        return under<TAMO_DBUpdateRsp>(carrying<TAMO_DBUpdate>(object, operationUpdate), client).success;
    }
    bool queueDelete(const std::string& dn, std::int32_t MOInstance = 1)
    {
        using namespace TAMO::Messages;
        TAMO_DBDelete request;
        request.operation = operationDelete;
        request.dn = dn;
        request.MOInstance = MOInstance;
        return under<TAMO_DBDeleteRsp>(request, client).success;
    }
    bool queueAttributeDeletion(const std::string& dn, const std::string& name)
    {
        using namespace TAMO::Messages;
        TAMO_deleteAttribute request;
        request.dn = dn;
        request.attributeName = name;
        return under<TAMO_deleteAttributeRsp>(request, client).success;
    }
};
