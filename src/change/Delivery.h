#pragma once

#include "store/ChangeSink.h"

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

class Subscriptions;

namespace TAMO::Database {
class NotificationBuffer;
}
namespace TAMO::Messages {
struct attrNameValuePair;
struct TAMO_DBTransactionNotifData;
} // namespace TAMO::Messages

/// Sends committed changes to the clients whose keys match. A send that fails is logged and not
/// repeated; nobody's slowness holds anybody up.
class Delivery : public ChangeSink {
public:
    /// Takes the changes that the service itself subscribed to (as node 0).
    using OwnHandler = std::function<void(std::int32_t ticket, const NotificationItem&)>;

    Delivery(Subscriptions& subscriptions, OwnHandler own);
    ~Delivery() override;

    void objectChanged(std::span<const NotificationItem> items, std::int32_t operation) override;
    void itemChanged(const NotificationItem& item) override;
    /// As objectChanged(), for an object that changed elsewhere: `object` tells its DNs and the operation,
    /// `pairs` what becomes of its attributes; one without a name announces the object alone.
    void objectReported(const NotificationItem& object, std::span<const TAMO::Messages::attrNameValuePair> pairs);
    /// A client transaction was committed; one that changed nothing is not told. Never throws: the
    /// commit stands.
    void transactionCommitted(const TAMO::Messages::TAMO_DBTransactionNotifData& data);

    /// Subscribes `receiver` to the key and keeps its notifications until releaseBuffer().
    void addBuffer(std::int32_t receiver, const std::string& key);
    /// The receiver has subscribed by itself: sends what its buffer holds, if it has one for the
    /// ticket, and takes back the buffer's own subscription.
    void releaseBuffer(std::int32_t receiver, std::int32_t ticket);
    void dropBuffersOf(std::int32_t receiver);
    void dropBuffers();

private:
    /// A kind of delivery: the words it logs, and whether it has found the node ready and asks no more.
    struct Kind {
        void (*queued)(std::int32_t ticket, int size);
        void (*sent)();
        void (*notSent)(std::int32_t receiver);
        bool ready = false;
    };
    static const Kind itemWords;
    static const Kind objectWords;
    static const Kind transactionWords;

    template <class Entry>
    void deliverObject(const NotificationItem& object, std::int32_t operation, std::span<const Entry> entries);
    template <class Build>
    void deliver(Kind& kind, std::int32_t ticket, const NotificationItem* item, Build build);
    bool isReady(Kind& kind);
    TAMO::Database::NotificationBuffer* bufferOf(std::int32_t receiver, std::int32_t ticket);

    Subscriptions& m_subscriptions;
    const OwnHandler m_own;
    std::list<std::unique_ptr<TAMO::Database::NotificationBuffer>> m_buffers;
    Kind m_items = itemWords;
    Kind m_objects = objectWords;
    Kind m_transactions = transactionWords;
};
