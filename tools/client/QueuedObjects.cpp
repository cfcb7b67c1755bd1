// What a transaction's own requests say about which objects are there. Database asks it before the
// service.

#include "tools/client/QueuedObjects.h"

#include "values/DistinguishedName.h"

namespace {
/// The instance that children belong to: they are found by the DN of their parent.
constexpr std::int32_t firstInstance = 1;
} // namespace

void QueuedObjects::inserted(const std::string& dn, std::int32_t instance) { m_inserted.emplace(dn, instance); }

void QueuedObjects::removed(const std::string& dn, std::int32_t instance)
{
    const std::string below = dn + ",";
    std::erase_if(m_inserted, [&](const Name& name) {
        return name == Name(dn, instance) || (instance == firstInstance && name.first.starts_with(below));
    });
    m_removed.emplace(dn, instance);
}

std::optional<bool> QueuedObjects::present(const std::string& dn, std::int32_t instance) const
{
    if (m_inserted.contains({dn, instance}))
        return true;
    if (m_removed.contains({dn, instance}))
        return false;
    for (std::string parent = splitOwnPair(dn).parent; !m_removed.empty() && !parent.empty();
         parent = splitOwnPair(parent).parent)
        if (m_removed.contains({parent, firstInstance}))
            return false;
    return std::nullopt;
}

void QueuedObjects::clear()
{
    m_inserted.clear();
    m_removed.clear();
}
