#pragma once

#include "tests/fuzz/Target.h"
#include "tests/requests/RequestTest.h"

#include "platform/messages/Notifications.h"

#include <string>
#include <vector>

/// The request service over a fresh small tree, given messages whose bodies may be anything. What each message
/// must come to is checked here, for every target that goes through the service.
class FuzzedService : public RequestTest {
public:
    using Message = TAMO::Messages::Message;

    /// To be called before the first is made: a /tmp of our own, and every line of the log formatted.
    static void prepareProcess();

    /// Before an input's first message. The service reads files that an input may name in its working directory.
    FuzzedService();
    ~FuzzedService() override;

    /// Hands the message over. One that cannot be read must change nothing; none may leave a transaction open.
    void give(std::uint32_t id, Bytes body, std::int32_t sender);

    /// After the last message: every request was answered once and in order, the files are sound, and the service
    /// still inserts and fetches (or refuses to, when it was shut down).
    void checkAfterwards();

    /// What client 100 was told of the changes, for a target to look at after checkAfterwards().
    std::vector<TAMO::Messages::TAMO_DBNotification> notifications;
    /// The middleware handler's hold is over.
    void expireHold();
    using TempStore::committed;
    using TempStore::value;

    /// A message by its number; null for one that the service does not know.
    struct Kind {
        std::uint32_t id;
        const char* name;
        std::uint32_t answerId;                  ///< 0 for a message that gets no answer
        bool (*readable)(const RawMessage& raw); ///< the body holds its fields; checks that they encode again
        bool (*succeeded)(const RawMessage& answer);
    };
    static const std::vector<Kind>& kinds();

    /// The wire form of an input's records: see recordSeparator.
    static const std::string recordSeparator;
    static std::string record(const Message& message, std::int32_t sender = 100);
    using RequestTest::carrying;
    /// Gives the records of an input to the service.
    void giveRecords(const std::string& input);

private:
    void TestBody() override {}

    struct Expected {
        const Kind* kind;
        std::int32_t transId;
        std::int32_t sender;
        bool readable;
    };
    void expectAnswer(const Kind& kind, const RawMessage& raw, bool readable);
    void checkAnswers(Service& of);
    void checkFiles() const;
    void checkThatItServes();

    std::vector<Expected> m_expected;
    bool m_shutDown = false;
};

namespace Fuzz {

/// Runs one input on a FuzzedService of its own.
template <class Give>
int runOnService(Give give)
{
    FuzzedService::prepareProcess();
    const SameDescriptors descriptors;
    FuzzedService service;
    give(service);
    service.checkAfterwards();
    return 0;
}

} // namespace Fuzz
