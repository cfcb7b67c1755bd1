#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>

/// The objects that an open client transaction inserts and removes. The service's reads show a queued
/// removal for the object itself only, not for what stands below it; this one knows both, and spares
/// a request for a parent that was inserted a moment ago.
class QueuedObjects {
public:
    void inserted(const std::string& dn, std::int32_t instance);
    /// With everything below it.
    void removed(const std::string& dn, std::int32_t instance);
    /// Whether the object will be there after the commit; none when the transaction does not decide it.
    std::optional<bool> present(const std::string& dn, std::int32_t instance) const;
    void clear();

private:
    using Name = std::pair<std::string, std::int32_t>;
    std::set<Name> m_inserted;
    std::set<Name> m_removed;
};
