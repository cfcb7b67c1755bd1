#pragma once

#include "store/AlternateStorage.h"
#include "store/OwnTransaction.h"
#include "store/ReservedBy.h"
#include "store/SQLite.h"

#include "platform/middleware/Log.h"

#include <optional>
#include <string>

/// What an insert and an update have in common: the container, its client, and the attributes that
/// go into alternate storage instead of the live table.
class SQLite::WriteOperation {
public:
    WriteOperation(SQLite& store, DBObject& object, bool inTransaction, const std::string& client)
        : m_store(store), m_object(object), m_inTransaction(inTransaction), m_client(client)
    {}

protected:
    /// Auto-integration phase in which attributes with a slot are parked.
    static constexpr std::int32_t parkingPhase = 4;

    bool goesToAlternateStorage(const Attribute& attribute) { return attribute.slot >= 0 && phase() == parkingPhase; }

    void park(std::int32_t objectId, const Attribute& attribute)
    {
        AlternateStorage(*m_store.m_runtime).saveAttributeToAlternateStorage(objectId, attribute, m_client);
    }

    /// "timeOfLastModification" tells the time for objects that have a "lastModification" only.
    std::string modificationTime(std::int32_t objectId)
    {
        const bool wanted =
            m_object.getAttribute("lastModification") || m_store.checkAttributeExistence("lastModification", objectId);
        return wanted ? m_store.FormatCurrentUtcTime() : std::string();
    }

    /// On some errors, a full disk for one, SQLite rolls the whole transaction back by itself.
    bool lostTransaction() const
    {
        if (m_store.m_runtime->inTransaction())
            return false;
        LOG_ERROR("SQLite has rolled back the transaction in which %s was written by %s", m_object.dn.c_str(),
                  m_client.c_str());
        return true;
    }

    SQLite& m_store;
    DBObject& m_object;
    const bool m_inTransaction;
    const std::string& m_client;

private:
    std::int32_t phase()
    {
        constexpr std::int32_t unknown = -2;
        if (!m_phase)
            m_store.getAIPhase(m_phase.emplace(unknown));
        return *m_phase;
    }

    std::optional<std::int32_t> m_phase;
};
