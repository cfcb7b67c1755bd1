// The registries of subscription keys and of the clients that hold their tickets.

#include "change/Subscriptions.h"

#include "platform/middleware/Log.h"

using TAMO::Framework::LockUser;

namespace {

constexpr std::int32_t lastTicket = 2147483645;

} // namespace

std::int32_t Subscriptions::add(const std::string& key, std::int32_t client)
{
    std::int32_t ticket = noTicket;
    {
        const LockUser lock(m_keyLock);
        const auto known = m_tickets.find(key);
        ticket = known != m_tickets.end() ? known->second : drawTicket();
        if (known == m_tickets.end()) {
            m_keys.emplace(ticket, key);
            m_tickets.emplace(key, ticket);
        }
    }
    const LockUser lock(m_clientLock);
    m_clients.emplace(ticket, client);
    return ticket;
}

/// The counter starts over at its end; tickets of that time may still be in use.
std::int32_t Subscriptions::drawTicket()
{
    std::int32_t ticket = noTicket;
    do {
        ticket = m_nextTicket;
        m_nextTicket = ticket > lastTicket ? 1 : ticket + 1;
    } while (m_keys.contains(ticket));
    return ticket;
}

bool Subscriptions::mapErase(std::int32_t ticket, std::int32_t client)
{
    const LockUser lock(m_clientLock);
    const auto [first, end] = m_clients.equal_range(ticket);
    for (auto entry = first; entry != end; ++entry) {
        if (entry->second != client)
            continue;
        m_clients.erase(entry);
        LOG_DEBUG("Database DatabaseWrapper::mapErase Client %d erased from clientMap", client);
        return true;
    }
    return false;
}

void Subscriptions::removeClient(std::int32_t client)
{
    const LockUser lock(m_clientLock);
    std::erase_if(m_clients, [client](const auto& entry) { return entry.second == client; });
}

void Subscriptions::clear()
{
    {
        const LockUser lock(m_keyLock);
        m_tickets.clear();
        m_keys.clear();
    }
    const LockUser lock(m_clientLock);
    m_clients.clear();
}

std::int32_t Subscriptions::ticketOf(std::string_view key) const
{
    const LockUser lock(m_keyLock);
    const auto found = m_tickets.find(key);
    return found == m_tickets.end() ? noTicket : found->second;
}

std::string Subscriptions::keyOf(std::int32_t ticket) const
{
    const LockUser lock(m_keyLock);
    const auto found = m_keys.find(ticket);
    return found == m_keys.end() ? std::string() : found->second;
}

std::vector<std::int32_t> Subscriptions::clientsOf(std::int32_t ticket) const
{
    std::vector<std::int32_t> clients;
    const LockUser lock(m_clientLock);
    const auto [first, end] = m_clients.equal_range(ticket);
    for (auto entry = first; entry != end; ++entry)
        clients.push_back(entry->second);
    return clients;
}

bool Subscriptions::hasKeyFor(std::string_view dn) const
{
    const LockUser lock(m_keyLock);
    // The keys that begin with the DN stand together, but others may come before the comma's:
    // "A=1!,,,," sorts before "A=1,,,,".
    for (auto key = m_tickets.lower_bound(dn); key != m_tickets.end() && key->first.starts_with(dn); ++key)
        if (key->first.size() > dn.size() && key->first[dn.size()] == ',')
            return true;
    return false;
}

std::vector<Subscriptions::Entry> Subscriptions::list() const
{
    std::vector<Entry> entries;
    {
        const LockUser lock(m_keyLock);
        for (const auto& [key, ticket] : m_tickets)
            entries.push_back({key, ticket, {}});
    }
    for (Entry& entry : entries)
        entry.clients = clientsOf(entry.ticket);
    return entries;
}
