#pragma once

#include "platform/framework/Lockables.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// Who wants to be told of what. A key keeps its ticket for the life of the process, whether anybody
/// holds it or not; a client that subscribes twice stands under the ticket twice. Both registries
/// have a lock of their own, which is held for no longer than a look-up.
class Subscriptions {
public:
    static constexpr std::int32_t noTicket = -1;

    /// New keys get tickets from `firstTicket` on; the counter starts over at 1.
    explicit Subscriptions(std::int32_t firstTicket = 1) : m_nextTicket(firstTicket) {}

    /// What clients may ask for: of keys, which are kept for good, all together in bytes; of
    /// registrations each, and each under one ticket.
    static constexpr std::size_t maxKeyBytes = 64 * 1024 * 1024;
    static constexpr std::size_t maxOfClient = 10000;
    static constexpr std::size_t maxUnderTicket = 100;

    /// Puts the client under the key's ticket, which is made when the key is new. noTicket, with a
    /// warning line, when that is beyond a limit.
    std::int32_t add(const std::string& key, std::int32_t client);
    /// Removes the first entry of the client under the ticket; false when there is none.
    bool mapErase(std::int32_t ticket, std::int32_t client);
    void removeClient(std::int32_t client);

    /// noTicket for a key that nobody ever subscribed to.
    std::int32_t ticketOf(std::string_view key) const;
    /// The key of a ticket; empty when there is none.
    std::string keyOf(std::int32_t ticket) const;
    /// The clients under a ticket, in the order of their subscriptions.
    std::vector<std::int32_t> clientsOf(std::int32_t ticket) const;
    /// Whether there may be a key for changes of this DN: one that begins with it and a comma.
    bool hasKeyFor(std::string_view dn) const;

    struct Entry {
        std::string key;
        std::int32_t ticket = noTicket;
        std::vector<std::int32_t> clients;
    };
    /// All keys in their order.
    std::vector<Entry> list() const;

private:
    /// Before every key that begins with this text and a comma, and behind all lesser ones.
    struct KeyStart {
        std::string_view dn;
    };
    struct KeyOrder {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const { return a < b; }
        bool operator()(std::string_view key, KeyStart start) const;
    };

    std::int32_t ticketFor(const std::string& key);
    std::int32_t drawTicket();
    bool mayAdd(std::int32_t ticket, std::int32_t client) const;

    mutable TAMO::Framework::Semaphore m_keyLock{1};
    mutable TAMO::Framework::Semaphore m_clientLock{1};
    std::map<std::string, std::int32_t, KeyOrder> m_tickets; ///< by key
    std::map<std::int32_t, const std::string*> m_keys;       ///< by ticket, as they stand in m_tickets
    std::size_t m_keyBytes = 0;
    std::int32_t m_nextTicket;
    std::multimap<std::int32_t, std::int32_t> m_clients; ///< by ticket
    std::map<std::int32_t, std::size_t> m_registrations; ///< of each client
};
