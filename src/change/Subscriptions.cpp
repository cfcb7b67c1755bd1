// The registries of subscription keys and of the clients that hold their tickets.

#include "change/Subscriptions.h"

#include "platform/middleware/Log.h"

#include <algorithm>

using TAMO::Framework::LockUser;

namespace {

constexpr std::int32_t lastTicket = 2147483645;

} // namespace

bool Subscriptions::KeyOrder::operator()(std::string_view key, KeyStart start) const
{
    const int order = key.substr(0, start.dn.size()).compare(start.dn);
    if (order != 0)
        return order < 0;
    return key.size() == start.dn.size() || static_cast<unsigned char>(key[start.dn.size()]) < ',';
}

std::int32_t Subscriptions::add(const std::string& key, std::int32_t client)
{
    const std::int32_t ticket = ticketFor(key);
    if (ticket == noTicket) {
        LOG_WARNING("Subscriptions: client %d gets no ticket, the keys take %zu bytes already", client, m_keyBytes);
        return noTicket;
    }
    const LockUser lock(m_clientLock);
    if (!mayAdd(ticket, client)) {
        LOG_WARNING("Subscriptions: client %d has too many registrations to add one for %.100s", client, key.c_str());
        return noTicket;
    }
    m_clients.emplace(ticket, client);
    ++m_registrations[client];
    return ticket;
}

bool Subscriptions::mayAdd(std::int32_t ticket, std::int32_t client) const
{
    const auto all = m_registrations.find(client);
    const auto [first, end] = m_clients.equal_range(ticket);
    const auto same = std::count_if(first, end, [client](const auto& entry) { return entry.second == client; });
    return (all == m_registrations.end() || all->second < maxOfClient) &&
           static_cast<std::size_t>(same) < maxUnderTicket;
}

std::int32_t Subscriptions::ticketFor(const std::string& key)
{
    const LockUser lock(m_keyLock);
    if (const auto known = m_tickets.find(key); known != m_tickets.end())
        return known->second;
    if (m_keyBytes + key.size() > maxKeyBytes)
        return noTicket;
    const std::int32_t ticket = drawTicket();
    const auto added = m_tickets.emplace(key, ticket).first;
    m_keys.emplace(ticket, &added->first);
    m_keyBytes += key.size();
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
    const auto entry = std::find_if(first, end, [client](const auto& each) { return each.second == client; });
    if (entry == end)
        return false;
    m_clients.erase(entry);
    --m_registrations[client];
    LOG_DEBUG("Database DatabaseWrapper::mapErase Client %d erased from clientMap", client);
    return true;
}

void Subscriptions::removeClient(std::int32_t client)
{
    const LockUser lock(m_clientLock);
    std::erase_if(m_clients, [client](const auto& entry) { return entry.second == client; });
    m_registrations.erase(client);
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
    return found == m_keys.end() ? std::string() : *found->second;
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
    const auto key = m_tickets.lower_bound(KeyStart{dn});
    if (!dn.empty())
        return key != m_tickets.end() && key->first.starts_with(dn) && key->first[dn.size()] == ',';
    // An empty DN stands before the keys of whole objects (",,,,1") too, which are not for it.
    const auto later = m_tickets.lower_bound(std::string_view(",-"));
    return (key != m_tickets.end() && key->first.starts_with(',') && key->first.size() > 1 && key->first[1] < ',') ||
           (later != m_tickets.end() && later->first.starts_with(',')) || m_tickets.contains(",,,,") ||
           m_tickets.contains(",,,,,1");
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
