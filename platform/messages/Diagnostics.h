#pragma once

#include "platform/messages/Message.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// What an operator can ask about the service itself: who is connected, and who has subscribed to
/// what. Messages of this platform layer; no service of the node depends on them.

namespace TAMO::Messages {

using TAMO_ListClients = Numbered<0x0F01>;
using TAMO_ListSubscriptions = Numbered<0x0F02>;

/// A connected node.
struct ClientRecord {
    std::string name; ///< the one it introduced itself with
    std::int32_t node = -1;
    std::int32_t pid = 0; ///< of the process that made the connection, as the kernel tells
    std::int64_t uid = 0;
    std::int64_t queuedBytes = 0; ///< wait for it because it does not read
    std::int64_t unhandled = 0;   ///< messages of it that the service has taken and not handled yet
    std::int64_t sent = 0;        ///< messages sent to it, those that wait included, the greeting not
    std::int64_t dropped = 0;     ///< messages to it that its full queue had no room for
    std::int64_t received = 0;    ///< messages from it
    std::int64_t idle = 0;        ///< milliseconds since a byte last went to it or came from it

    static constexpr std::size_t fieldCount = 10;
    void describe(FieldList& fields)
    {
        fields(name, node, pid, uid, queuedBytes, unhandled, sent, dropped, received, idle);
    }
    /// The bytes it takes in a body, at most.
    std::size_t packedSize() const { return 5 + name.size() + 2 * 5 + 7 * 9; }
};

/// A key that somebody has subscribed to.
struct SubscriptionRecord {
    std::string key;
    std::int32_t ticket = -1;
    std::vector<std::int32_t> clients; ///< node ids; one that has registered twice may stand twice

    static constexpr std::size_t fieldCount = 3;
    void describe(FieldList& fields) { fields(key, ticket, clients); }
    std::size_t packedSize() const { return 5 + key.size() + 5 + 5 + 5 * clients.size(); }
};

/// A list that fits in one frame, and how many records there really are.
template <class Record>
class ListingAnswer : public TransactionMessage {
public:
    ListingAnswer() = default;
    /// `listed` is false when the service cannot tell.
    ListingAnswer(bool listed, std::int32_t transactionId) : TransactionMessage(transactionId), total(listed ? 0 : -1)
    {}

    /// Counts the record, and appends it unless it does not fit any more.
    void add(Record record)
    {
        ++total;
        const std::size_t size = record.packedSize();
        if (size > m_room)
            return;
        m_room -= size;
        records.push_back(std::move(record));
    }

    std::int32_t total = -1; ///< more than `records` when some did not fit; -1 when the service could not tell
    std::vector<Record> records;

protected:
    void describeRest(FieldList& fields) override
    {
        fields(total);
        records.resize(fields.count(records.size(), Record::fieldCount));
        for (Record& record : records)
            record.describe(fields);
    }

private:
    std::size_t m_room = 1'000'000; ///< bytes; a frame has 1 MiB
};

using TAMO_ListClientsRsp = Numbered<answerTo(TAMO_ListClients::id), ListingAnswer<ClientRecord>>;
using TAMO_ListSubscriptionsRsp = Numbered<answerTo(TAMO_ListSubscriptions::id), ListingAnswer<SubscriptionRecord>>;

} // namespace TAMO::Messages
