#pragma once

#include "tests/support/TempStore.h"

#include "platform/framework/Event.h"
#include "platform/messages/Answers.h"
#include "platform/messages/Requests.h"
#include "requests/DatabaseWrapper.h"

#include <memory>
#include <optional>
#include <string>

/// The request service, which takes what waits in its queue when a test says so.
class QueuedService : public DatabaseWrapper {
public:
    using DatabaseWrapper::DatabaseWrapper;
    /// Ends in order: the status handler's thread may be about to call into us.
    ~QueuedService() override
    {
        TAMO::Framework::Event end(TAMO::Framework::terminateRequested);
        dispatch(end);
    }
    /// The next event; waits for it.
    std::unique_ptr<TAMO::Framework::Event> nextEvent() { return m_queue.pop(); }
};

/// The request service over a fresh store, on the test's own thread, with two clients that get its
/// answers over real sockets.
class RequestTest : public TempStore {
protected:
    RequestTest() { service.initialise(); }

    /// Hands a message to the service as the framework would.
    void handle(std::uint32_t id, Bytes body, std::int32_t sender)
    {
        RawMessage raw{id, sender, 0, 0, std::move(body), nullptr};
        TAMO::Framework::MessageEvent event(TAMO::Framework::messageReceived,
                                            std::make_shared<RawMessage>(std::move(raw)));
        EXPECT_TRUE(service.dispatch(event));
        EXPECT_FALSE(event.raw()) << "the message is released";
    }

    /// The answer to a request; an empty one, and a failed test, when none of its kind comes.
    template <class Answer, class Request>
    Answer ask(Request request, Service& from)
    {
        return askUnder<Answer>(++m_lastId, std::move(request), from);
    }
    /// The same for a request with an id that matters: that of an open transaction.
    template <class Answer, class Request>
    Answer askUnder(std::int32_t transId, Request request, Service& from)
    {
        request.transId = transId;
        handle(Request::id, request.serialize(), from.id());
        auto answer = from.next<Answer>();
        EXPECT_TRUE(answer) << "no answer";
        EXPECT_TRUE(answer && answer->transId == transId);
        return answer ? std::move(*answer) : Answer();
    }
    template <class Answer, class Request>
    Answer ask(Request request)
    {
        return ask<Answer>(std::move(request), client);
    }

    /// A request that carries the object.
    template <class Request>
    static Request carrying(const DBObject& object, std::int32_t operation)
    {
        Request request;
        request.operation = operation;
        constexpr std::int32_t capacity = 1000000;
        EXPECT_GT(DBObject::SerializeDataforDB(object, request.object, capacity, request.uncompressedSize), 0);
        return request;
    }
    bool insertByRequest(const DBObject& object)
    {
        using namespace TAMO::Messages;
        return ask<TAMO_DBInsertRsp>(carrying<TAMO_DBInsert>(object, operationInsert)).success;
    }

    QueuedService service{"Requests"};
    DatabaseNode node{path("runtime")};
    Service client{path("runtime"), "client", 100};
    Service autointegration{path("runtime"), "ai", 8};

private:
    std::int32_t m_lastId = 40;
};

/// Text that does not compress.
std::string randomText(std::size_t size);
